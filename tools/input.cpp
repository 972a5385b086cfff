#include "input.h"

#include "stop.h"

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

namespace tool
{

/* A read goes on after a signal, and one that comes just before it would not be seen; so a read is only begun
 * when there is something. */
static bool wait_for_input(int fd)
{
    static constexpr int step = 100;
    pollfd watched{fd, POLLIN, 0};
    while (!interrupted()) {
        const int count = poll(&watched, 1, step);
        if (count > 0)
            return true;
        if (count < 0 && errno != EINTR)
            return false;
    }
    errno = EINTR;
    return false;
}

bool read_some(int fd, std::string &into, bool &ended)
{
    char buffer[65536];
    if (!wait_for_input(fd))
        return false;
    const ssize_t count = read(fd, buffer, sizeof(buffer));
    ended = count == 0;
    if (count > 0)
        into.append(buffer, static_cast<size_t>(count));
    return count >= 0;
}

static bool read_all(int fd, std::string &octets)
{
    for (bool ended = false; !ended;) {
        if (!read_some(fd, octets, ended))
            return false;
        if (octets.size() > INT32_MAX) {
            errno = EFBIG;
            return false;
        }
    }
    return true;
}

exit_code read_whole(const std::optional<std::string> &file, std::string &octets)
{
    const std::string name = file.value_or("standard input");
    const int fd = file ? open(name.c_str(), O_RDONLY | O_CLOEXEC) : STDIN_FILENO;
    const bool read = fd >= 0 && read_all(fd, octets);
    const int error = errno;
    if (file && fd >= 0)
        close(fd);
    return read ? exit_done : fail(exit_usage, name + ": " + std::strerror(error));
}

exit_code read_body(const std::optional<std::string> &text, const std::optional<std::string> &file,
                    std::string &body)
{
    if (!text)
        return read_whole(file, body);
    body = *text;
    return exit_done;
}

exit_code for_each_line(const std::function<exit_code(std::string_view)> &take)
{
    std::string pending;
    for (bool ended = false; !ended && !interrupted();) {
        if (!read_some(STDIN_FILENO, pending, ended)) {
            if (interrupted())
                break;
            return fail(exit_partly, std::string("standard input: ") + std::strerror(errno));
        }
        size_t begin = 0;
        for (size_t feed = pending.find('\n'); feed != std::string::npos; feed = pending.find('\n', begin)) {
            const exit_code code = take(std::string_view(pending).substr(begin, feed - begin));
            if (code != exit_done)
                return code;
            begin = feed + 1;
        }
        pending.erase(0, begin);
        if (pending.size() > INT32_MAX)
            return fail(exit_partly, "standard input: a line is too long");
    }
    return pending.empty() || interrupted() ? exit_done : take(pending);
}

} // namespace tool
