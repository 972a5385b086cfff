#include "stderr_capture.h"

#include <cstdio>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

extern "C" __attribute__((weak)) void __sanitizer_set_report_fd(void *fd);

namespace zebtest
{

stderr_capture::stderr_capture() : file(memfd_create("stderr", MFD_CLOEXEC)), original(dup(STDERR_FILENO))
{
    fflush(stderr);
    if (__sanitizer_set_report_fd != nullptr)
        __sanitizer_set_report_fd(reinterpret_cast<void *>(static_cast<intptr_t>(original)));
    dup2(file, STDERR_FILENO);
}

stderr_capture::~stderr_capture()
{
    fflush(stderr);
    const std::string gathered = text();
    dup2(original, STDERR_FILENO);
    if (__sanitizer_set_report_fd != nullptr)
        __sanitizer_set_report_fd(reinterpret_cast<void *>(intptr_t{STDERR_FILENO}));
    close(original);
    close(file);
    if (testing::Test::HasFailure() && !gathered.empty())
        fprintf(stderr, "standard error held:\n%s", gathered.c_str());
}

std::string stderr_capture::text() const
{
    std::string all;
    char buffer[4096];
    ssize_t count;
    while ((count = pread(file, buffer, sizeof(buffer), static_cast<off_t>(all.size()))) > 0)
        all.append(buffer, static_cast<size_t>(count));
    return all;
}

bool stderr_capture::becomes(const std::string &expected, milliseconds limit) const
{
    return eventually([&] { return text() == expected; }, limit);
}

} // namespace zebtest
