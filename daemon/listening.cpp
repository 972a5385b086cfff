/* Listening and accepting. The listening sockets are watched and accepted from by hand, because running out
 * of descriptors needs an answer: a pause, in which those who want in wait in the kernel's queue and
 * everybody else is served, and no loop that finds the same failure again and again. */
#include "log.h"
#include "serving.h"

#include <cerrno>
#include <cstring>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace zebd
{

static constexpr uint64_t pauseMilliseconds = 200;

/* Accepted at one go before those who are connected have their turn. */
static constexpr int acceptsPerTurn = 64;

/* ---- Binding ---- */

/* A socket bound to the loopback address of FAMILY, or a negative error number. */
static int bind_loopback(int family, uint16_t port)
{
    const int fd = socket(family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return -errno;
    const int on = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
    sockaddr_in v4{};
    sockaddr_in6 v6{};
    v4.sin_family = AF_INET;
    v4.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    v4.sin_port = htons(port);
    v6.sin6_family = AF_INET6;
    v6.sin6_addr = in6addr_loopback;
    v6.sin6_port = htons(port);
    const bool isV4 = family == AF_INET;
    const auto *address =
        isV4 ? reinterpret_cast<const sockaddr *>(&v4) : reinterpret_cast<const sockaddr *>(&v6);
    if (bind(fd, address, isV4 ? sizeof(v4) : sizeof(v6)) == 0 && listen(fd, SOMAXCONN) == 0)
        return fd;
    const int error = errno;
    close(fd);
    return -error;
}

static uint16_t port_of(int fd)
{
    sockaddr_in address{};
    socklen_t length = sizeof(address);
    if (getsockname(fd, reinterpret_cast<sockaddr *>(&address), &length) != 0)
        return 0;
    return ntohs(address.sin_port);
}

struct loopback_sockets {
    int v4 = -1, v6 = -1; /* negative: the error number */
    uint16_t port = 0;
};

/* Both addresses get the same port. A port that the kernel chose for one may be taken on the other; then
 * another one is asked for. */
static loopback_sockets bind_both(uint16_t port)
{
    loopback_sockets result;
    for (int attempt = 0; attempt < 16; attempt++) {
        result.v4 = bind_loopback(AF_INET, port);
        if (result.v4 < 0)
            break;
        result.port = port_of(result.v4);
        result.v6 = bind_loopback(AF_INET6, result.port);
        if (port != 0 || result.v6 != -EADDRINUSE)
            break;
        close(result.v4);
        result.v4 = -EADDRINUSE;
    }
    return result;
}

/* ---- Accepting ---- */

static void on_acceptable(uv_poll_t *poll, int status, int events);

static void watch_listeners(server &s)
{
    for (int i = 0; i < s.listenerCount; i++)
        uv_poll_start(&s.listeners[i].poll, UV_READABLE, on_acceptable);
}

static void on_pause_over(uv_timer_t *timer)
{
    watch_listeners(*static_cast<server *>(timer->data));
}

static void pause_accepting(server &s, int error)
{
    s.counters.acceptFailures++;
    log_limited(log_kind::accepting, spdlog::level::warn,
                "cannot accept clients: {}; the next try is in {} milliseconds", std::strerror(error),
                pauseMilliseconds);
    for (int i = 0; i < s.listenerCount; i++)
        uv_poll_stop(&s.listeners[i].poll);
    uv_timer_start(&s.resumeTimer, on_pause_over, pauseMilliseconds, 0);
}

static bool passes_by_itself(int error)
{
    return error == EAGAIN || error == EWOULDBLOCK || error == EINTR || error == ECONNABORTED;
}

static void on_acceptable(uv_poll_t *poll, int, int)
{
    server &s = *static_cast<server *>(poll->data);
    int listening = -1;
    uv_fileno(reinterpret_cast<uv_handle_t *>(poll), &listening);
    for (int i = 0; i < acceptsPerTurn; i++) {
        const int fd = accept4(listening, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (fd >= 0)
            client_begin(s, fd);
        else if (passes_by_itself(errno))
            return;
        else
            return pause_accepting(s, errno);
    }
}

/* ---- Listening ---- */

static bool add_listener(server &s, int fd)
{
    listener &added = s.listeners[s.listenerCount];
    added.fd = fd;
    added.poll.data = &s;
    if (uv_poll_init(&s.loop, &added.poll, fd) != 0)
        return false;
    s.listenerCount++;
    return true;
}

/* A host without IPv6 is served on 127.0.0.1 alone; any other refusal means that somebody has the port. */
bool listening_start(server &s)
{
    const auto wanted = static_cast<uint16_t>(s.config.port);
    const loopback_sockets sockets = bind_both(wanted);
    if (sockets.v4 < 0) {
        spdlog::error("cannot listen on 127.0.0.1 port {}: {}", wanted, std::strerror(-sockets.v4));
        return false;
    }
    const bool noV6 = sockets.v6 == -EAFNOSUPPORT || sockets.v6 == -EADDRNOTAVAIL;
    if (sockets.v6 < 0 && !noV6) {
        spdlog::error("cannot listen on ::1 port {}: {}", sockets.port, std::strerror(-sockets.v6));
        close(sockets.v4);
        return false;
    }
    if (!add_listener(s, sockets.v4) || (!noV6 && !add_listener(s, sockets.v6))) {
        spdlog::error("cannot watch the listening sockets");
        return false;
    }
    s.port = sockets.port;
    watch_listeners(s);
    spdlog::info("listening on 127.0.0.1{} port {}", noV6 ? ", without ::1," : " and ::1", s.port);
    return true;
}

void listening_stop(server &s)
{
    uv_timer_stop(&s.resumeTimer);
    for (int i = 0; i < s.listenerCount; i++) {
        uv_close(reinterpret_cast<uv_handle_t *>(&s.listeners[i].poll), nullptr);
        close(s.listeners[i].fd);
    }
}

} // namespace zebd
