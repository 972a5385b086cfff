#include "child.h"

#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <sys/wait.h>
#include <unistd.h>

extern "C" __attribute__((weak)) void __sanitizer_set_report_fd(void *fd);

#ifdef ZEB_COVERAGE
extern "C" void __gcov_dump(void);
#endif

namespace sweep
{

/* Ends the process at once, with what it has counted when it counts. */
[[noreturn]] static void leave(int code)
{
#ifdef ZEB_COVERAGE
    __gcov_dump();
#endif
    _exit(code);
}

outcome in_child(const std::function<int()> &body, zebtest::milliseconds limit)
{
    fflush(nullptr);
    const pid_t child = fork();
    if (child == 0) {
        if (__sanitizer_set_report_fd != nullptr) /* else a report would go to a file of its own */
            __sanitizer_set_report_fd(reinterpret_cast<void *>(intptr_t{STDERR_FILENO}));
        /* An exit of the library's own ends the process at once: its other threads still use what the program
         * would take apart. */
        on_exit([](int code, void *) { leave(code); }, nullptr);
        const int code = body();
        fflush(nullptr);
        leave(code);
    }
    int status = 0;
    const bool ended = zebtest::eventually([&] { return waitpid(child, &status, WNOHANG) == child; }, limit);
    if (!ended) {
        kill(child, SIGKILL);
        waitpid(child, &status, 0);
        return {-1, "hangs"};
    }
    if (WIFSIGNALED(status))
        return {-1, "signal " + std::to_string(WTERMSIG(status))};
    return {WEXITSTATUS(status), ""};
}

} // namespace sweep
