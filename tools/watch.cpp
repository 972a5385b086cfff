#include "watch.h"

#include "host.h"
#include "stop.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>

namespace tool
{

static constexpr int stepMilliseconds = 50;

exit_code daemon_watch::start(uint16_t port, std::function<void(double)> lookNow)
{
    daemonPort = port;
    look = std::move(lookNow);
    const exit_code code = wire_open(daemonPort, daemon);
    if (code != exit_done)
        return code;
    const signals_held held; /* which the thread inherits: signals are for the others */
    thread = std::thread([this] { run(); });
    return exit_done;
}

daemon_watch::~daemon_watch()
{
    ending = true;
    if (thread.joinable())
        thread.join();
}

/* Whether the connection has ended; waits a step for it. */
static bool has_ended(const wire_connection &daemon)
{
    pollfd watched{daemon.fd, POLLIN, 0};
    char octets[4096];
    return poll(&watched, 1, stepMilliseconds) > 0 && recv(daemon.fd, octets, sizeof(octets), 0) <= 0;
}

void daemon_watch::run()
{
    double lostAt = 0;
    while (!ending) {
        if (daemon.fd < 0) {
            poll(nullptr, 0, stepMilliseconds);
            if (something_listens(daemonPort))
                wire_open(daemonPort, daemon);
        } else if (has_ended(daemon)) {
            lostAt = wall_clock();
            close(std::exchange(daemon.fd, -1));
        }
        look(lostAt);
    }
}

} // namespace tool
