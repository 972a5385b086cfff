/* What a service manager wants to hear: datagrams of NAME=VALUE lines to the socket that it names in
 * NOTIFY_SOCKET, and a sign of life as often as it asks for in WATCHDOG_USEC. Without the variables nothing
 * is sent. Sending never waits. */
#pragma once

#include <cstdint>
#include <string_view>
#include <sys/socket.h>
#include <sys/un.h>

namespace zebd
{

struct notifier {
    int fd = -1; /* negative: nobody listens */
    sockaddr_un address{};
    socklen_t length = 0;
    uint64_t watchdogMicroseconds = 0; /* within which a sign of life is expected; 0: none is */

    notifier() = default;
    notifier(const notifier &) = delete;
    notifier &operator=(const notifier &) = delete;
    ~notifier();
};

/* Reads the environment. False when it names a socket that cannot be one. */
bool notifier_open(notifier &notifier);

/* False, with errno set, when the datagram was not taken. */
bool notify(const notifier &notifier, std::string_view lines);

} // namespace zebd
