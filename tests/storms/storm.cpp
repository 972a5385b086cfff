#include "storm.h"

#include "patience.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <netinet/in.h>
#include <random>
#include <sys/socket.h>

namespace storms
{

static const char *variable(const char *name)
{
    const char *text = getenv(name);
    return text != nullptr && *text != '\0' ? text : nullptr;
}

int amount(int shortly, int fully)
{
    const char *full = variable("ZEB_STORM_FULL");
    return full != nullptr && *full == '1' ? fully : shortly;
}

uint64_t seed()
{
    if (const char *text = variable("ZEB_STORM_SEED"))
        return strtoull(text, nullptr, 10);
    return amount(0, 1) != 0 ? std::random_device{}() : 1;
}

void figure(const char *storm, const char *format, ...)
{
    printf("%s: ", storm);
    va_list arguments;
    va_start(arguments, format);
    vprintf(format, arguments);
    va_end(arguments);
    printf("\n");
    fflush(stdout);
}

static double entries_of(const std::string &directory)
{
    std::error_code gone;
    double count = 0;
    for (std::filesystem::directory_iterator i(directory, gone), end; !gone && i != end; i.increment(gone))
        count++;
    return count;
}

static double anonymous_kilobytes(const std::string &status)
{
    std::ifstream in(status);
    std::string word;
    double kilobytes = 0;
    while (in >> word)
        if (word == "RssAnon:")
            in >> kilobytes;
    return kilobytes;
}

usage usage_of(pid_t pid)
{
    const std::string process = "/proc/" + std::to_string(pid);
    return {anonymous_kilobytes(process + "/status"), entries_of(process + "/fd"),
            entries_of(process + "/task")};
}

std::string look_at(pid_t pid, usage_record &record)
{
    usage &first = record.first, &last = record.last;
    last = usage_of(pid);
    if (record.kilobytes.empty())
        first = last;
    const bool same = zebtest::eventually([&] {
        last = usage_of(pid);
        return last.descriptors == first.descriptors && last.threads == first.threads;
    });
    record.kilobytes.push_back(last.kilobytes);
    const auto text = [](const usage &u) {
        return std::to_string(static_cast<int>(u.descriptors)) + " descriptors and " +
               std::to_string(static_cast<int>(u.threads)) + " threads";
    };
    return same ? "" : text(last) + " instead of " + text(first);
}

/* The port in the address that ASK tells of FD; 0 when there is none. */
static uint16_t port_of(int fd, int (*ask)(int, sockaddr *, socklen_t *))
{
    sockaddr_in6 address{}; /* the port stands at the same place in the other family */
    socklen_t length = sizeof(address);
    if (ask(fd, reinterpret_cast<sockaddr *>(&address), &length) != 0 ||
        (address.sin6_family != AF_INET && address.sin6_family != AF_INET6))
        return 0;
    return ntohs(address.sin6_port);
}

int own_connection()
{
    for (const auto &entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        const int fd = atoi(entry.path().filename().c_str());
        if (port_of(fd, getpeername) != 0)
            return fd;
    }
    return -1;
}

uint16_t own_port()
{
    return port_of(own_connection(), getsockname);
}

double slope(const std::vector<double> &values)
{
    const auto count = static_cast<double>(values.size());
    double sum = 0, weighted = 0, position = 0;
    for (const double value : values) {
        sum += value;
        weighted += position++ * value;
    }
    const double middle = (count - 1) / 2, spread = count * (count * count - 1) / 12;
    return spread > 0 ? (weighted - middle * sum) / spread : 0;
}

} // namespace storms
