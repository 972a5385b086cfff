#include "notify.h"

#include <charconv>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

namespace zebd
{

/* A path, or a name in the abstract namespace with '@' for its first octet. */
static bool set_address(notifier &notifier, std::string_view name)
{
    if (name.size() < 2 || name.size() >= sizeof(notifier.address.sun_path) ||
        (name.front() != '/' && name.front() != '@'))
        return false;
    notifier.address.sun_family = AF_UNIX;
    std::memcpy(notifier.address.sun_path, name.data(), name.size());
    if (name.front() == '@')
        notifier.address.sun_path[0] = '\0';
    notifier.length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size());
    return true;
}

static uint64_t number_from(const char *variable)
{
    const char *text = std::getenv(variable);
    uint64_t number = 0;
    if (text != nullptr && std::from_chars(text, text + std::strlen(text), number).ec != std::errc())
        return 0;
    return number;
}

/* The manager may mean another process, from which this one has inherited the environment. */
static uint64_t watchdog_from_environment()
{
    const bool isMeant = std::getenv("WATCHDOG_PID") == nullptr ||
                         number_from("WATCHDOG_PID") == static_cast<uint64_t>(getpid());
    return isMeant ? number_from("WATCHDOG_USEC") : 0;
}

bool notifier_open(notifier &notifier)
{
    const char *name = std::getenv("NOTIFY_SOCKET");
    if (name == nullptr || name[0] == '\0')
        return true;
    if (!set_address(notifier, name))
        return false;
    notifier.fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    notifier.watchdogMicroseconds = watchdog_from_environment();
    return notifier.fd >= 0;
}

bool notify(const notifier &notifier, std::string_view lines)
{
    if (notifier.fd < 0)
        return true;
    const auto *to = reinterpret_cast<const sockaddr *>(&notifier.address);
    return sendto(notifier.fd, lines.data(), lines.size(), MSG_NOSIGNAL, to, notifier.length) ==
           static_cast<ssize_t>(lines.size());
}

notifier::~notifier()
{
    if (fd >= 0)
        close(fd);
}

} // namespace zebd
