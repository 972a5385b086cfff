/* One loop thread does everything, so nothing here is locked.
 *
 * A client record lives in server.clients until its handle is closed; `closing` marks the time in between, in
 * which nothing is sent to it any more. The engine's outlet only queues: it is called in the middle of
 * routing, where no client may disappear. Once routing is done, settle() writes out the queues that grew and
 * ends the clients that cannot go on. */
#include "server.h"

#include "session.h"

#include <arpa/inet.h>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <deque>
#include <netinet/in.h>
#include <spdlog/spdlog.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>
#include <unordered_map>
#include <utility>
#include <uv.h>
#include <vector>

namespace zebd
{

struct server;

struct client {
    server *owner = nullptr;
    uv_tcp_t tcp{};
    uv_write_t write{};
    uv_shutdown_t shutdown{};
    session talk;
    std::string address;
    std::deque<outgoing> queue;    /* not yet handed to the socket */
    std::vector<outgoing> writing; /* handed to the socket, which reads them until the write is done */
    size_t queued = 0;             /* octets of both */
    bool dirty = false;            /* in server.dirty */
    bool finished = false;         /* our side of the connection has been shut down */
    bool closing = false;
    std::string doom; /* why it must be ended at the next settle() */
};

struct server {
    uv_loop_t loop{};
    uv_tcp_t listeners[2]{};
    int listenerCount = 0;
    uv_signal_t signals[2]{};
    uv_timer_t stopTimer{};
    uv_timer_t gatherTimer{}; /* runs while the engine gathers membership changes */
    const server_options *options = nullptr;
    engine routing;
    std::unordered_map<connection_id, std::unique_ptr<client>> clients;
    std::vector<client *> dirty; /* to be looked at by settle() */
    connection_id lastConnection = 0;
    bool stopping = false;
    size_t unfinished = 0;   /* while stopping: clients not yet served */
    char input[64 * 1024]{}; /* one read at a time */
};

/* Most of this is about a write of a few small events; a larger number only adds latency for other clients.
 */
static constexpr size_t itemsPerWrite = 256;

/* How long clients may take to close their side after ours is done. */
static constexpr uint64_t lingerMilliseconds = 250;

static int64_t now_milliseconds()
{
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    return static_cast<int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

static client *client_of(void *data)
{
    return static_cast<client *>(data);
}

static std::string name_of(const client &c)
{
    std::string name = "client " + std::to_string(c.talk.id) + " (" + c.address;
    if (!c.talk.pid.empty())
        name += ", pid " + c.talk.pid;
    return name + ")";
}

/* ---- Ending clients ---- */

static void close_remaining_handles(server &s)
{
    for (uv_signal_t &handle : s.signals)
        uv_close(reinterpret_cast<uv_handle_t *>(&handle), nullptr);
    uv_close(reinterpret_cast<uv_handle_t *>(&s.stopTimer), nullptr);
    uv_close(reinterpret_cast<uv_handle_t *>(&s.gatherTimer), nullptr);
}

static void on_client_closed(uv_handle_t *handle)
{
    client *c = client_of(handle->data);
    server &s = *c->owner;
    std::erase(s.dirty, c);
    s.clients.erase(c->talk.id);
    if (s.stopping && s.clients.empty())
        close_remaining_handles(s);
}

static void on_stop_time_over(uv_timer_t *timer);

/* Once every client has been served to the end, there is no reason to wait for the slow ones for long. */
static void count_as_finished(client &c)
{
    server &s = *c.owner;
    if (!s.stopping || c.finished)
        return;
    c.finished = true;
    if (--s.unfinished == 0)
        uv_timer_start(&s.stopTimer, on_stop_time_over, lingerMilliseconds, 0);
}

static void end_client(client &c)
{
    if (c.closing)
        return;
    c.closing = true;
    count_as_finished(c);
    engine_connection_gone(c.owner->routing, c.talk.id);
    spdlog::debug("{} subscribers remain", c.owner->routing.subscribers.size());
    uv_close(reinterpret_cast<uv_handle_t *>(&c.tcp), on_client_closed);
}

static void end_client_because(client &c, const std::string &why)
{
    if (c.closing)
        return;
    spdlog::warn("{} ended: {}", name_of(c), why);
    end_client(c);
}

/* ---- Writing ---- */

static void flush(client &c);
static void finish(client &c);

static void mark_dirty(client &c)
{
    if (c.dirty)
        return;
    c.dirty = true;
    c.owner->dirty.push_back(&c);
}

/* The engine's outlet: queues and returns. */
static bool enqueue(void *context, connection_id to, outgoing item)
{
    server &s = *static_cast<server *>(context);
    const auto at = s.clients.find(to);
    if (at == s.clients.end())
        return false;
    client &c = *at->second;
    if (c.closing || c.finished || !c.doom.empty())
        return false;
    c.queued += outgoing_size(item);
    c.queue.push_back(std::move(item));
    mark_dirty(c);
    if (c.queued > s.options->queue) {
        c.doom = std::to_string(c.queued) + " octets are waiting for it, the limit is " +
                 std::to_string(s.options->queue);
        c.queue.clear();
        return false;
    }
    return true;
}

static void on_written(uv_write_t *request, int status)
{
    client &c = *client_of(request->data);
    for (const outgoing &item : c.writing)
        c.queued -= outgoing_size(item);
    c.writing.clear();
    if (status < 0)
        end_client_because(c, std::string("writing failed: ") + uv_strerror(status));
    else if (!c.closing)
        flush(c);
}

static void collect_buffers(const outgoing &item, std::vector<uv_buf_t> &buffers)
{
    for (const std::string_view piece : outgoing_bytes(item))
        if (!piece.empty())
            buffers.push_back(
                uv_buf_init(const_cast<char *>(piece.data()), static_cast<unsigned>(piece.size())));
}

/* Hands the next batch to the socket, unless one is under way; its end calls for the next. */
static void flush(client &c)
{
    if (!c.writing.empty())
        return;
    if (c.queue.empty()) {
        if (c.owner->stopping)
            finish(c);
        return;
    }
    std::vector<uv_buf_t> buffers;
    while (!c.queue.empty() && c.writing.size() < itemsPerWrite) {
        c.writing.push_back(std::move(c.queue.front()));
        c.queue.pop_front();
    }
    for (const outgoing &item : c.writing)
        collect_buffers(item, buffers);
    c.write.data = &c;
    auto *stream = reinterpret_cast<uv_stream_t *>(&c.tcp);
    const int status =
        uv_write(&c.write, stream, buffers.data(), static_cast<unsigned>(buffers.size()), on_written);
    if (status < 0) {
        c.writing.clear();
        end_client_because(c, std::string("writing failed: ") + uv_strerror(status));
    }
}

/* Brings the sockets into line with what routing left behind. */
static void settle(server &s)
{
    while (!s.dirty.empty()) {
        client &c = *s.dirty.back();
        s.dirty.pop_back();
        c.dirty = false;
        if (c.closing)
            continue;
        if (c.doom.empty())
            flush(c);
        else
            end_client_because(c, c.doom);
    }
}

static void on_gathered(uv_timer_t *timer)
{
    server &s = *static_cast<server *>(timer->data);
    engine_flush(s.routing);
    settle(s);
}

static void wake(void *context, uint32_t milliseconds)
{
    server &s = *static_cast<server *>(context);
    if (!s.stopping && !uv_is_active(reinterpret_cast<uv_handle_t *>(&s.gatherTimer)))
        uv_timer_start(&s.gatherTimer, on_gathered, milliseconds, 0);
}

/* ---- Reading ---- */

static void on_input_wanted(uv_handle_t *handle, size_t, uv_buf_t *buffer)
{
    server &s = *client_of(handle->data)->owner;
    *buffer = uv_buf_init(s.input, sizeof(s.input));
}

static void on_end_of_input(client &c, int status)
{
    if (message_reader_in_message(c.talk.reader) && !c.owner->stopping)
        end_client_because(c, "disconnected in the middle of a message");
    else if (status != UV_EOF)
        end_client_because(c, std::string("reading failed: ") + uv_strerror(status));
    if (!c.closing)
        spdlog::log(c.talk.reader.connected ? spdlog::level::info : spdlog::level::debug, "{} disconnected",
                    name_of(c));
    end_client(c);
}

/* Bytes that arrive while stopping are read and thrown away: closing a socket with unread input would reset
 * the connection and destroy what is still on its way to the client. */
static void take_input(client &c, std::string_view bytes)
{
    if (c.owner->stopping)
        return;
    engine &routing = c.owner->routing;
    const bool wasConnected = c.talk.reader.connected;
    const size_t subscribers = routing.subscribers.size();
    std::string why;
    const bool goesOn = session_take(c.talk, routing, c.owner->options->identity, bytes, why);
    if (!wasConnected && c.talk.reader.connected && goesOn)
        spdlog::info("{} connected", name_of(c));
    if (subscribers != routing.subscribers.size())
        spdlog::debug("{} subscribed or unsubscribed: {} subscribers in all", name_of(c),
                      routing.subscribers.size());
    if (goesOn)
        return;
    if (c.doom.empty())
        flush(c); /* a refused connect is answered as far as the socket takes it at once */
    end_client_because(c, why);
}

static void on_input(uv_stream_t *stream, ssize_t count, const uv_buf_t *buffer)
{
    client &c = *client_of(stream->data);
    if (c.closing)
        return;
    if (count < 0)
        on_end_of_input(c, static_cast<int>(count));
    else if (count > 0)
        take_input(c, std::string_view(buffer->base, static_cast<size_t>(count)));
    settle(*c.owner);
}

/* ---- Accepting ---- */

static std::string peer_address(const uv_tcp_t &tcp)
{
    sockaddr_storage address{};
    int length = sizeof(address);
    char text[INET6_ADDRSTRLEN] = "?";
    if (uv_tcp_getpeername(&tcp, reinterpret_cast<sockaddr *>(&address), &length) != 0)
        return text;
    if (address.ss_family == AF_INET6) {
        const auto *v6 = reinterpret_cast<const sockaddr_in6 *>(&address);
        uv_ip6_name(v6, text, sizeof(text));
        return "[" + std::string(text) + "]:" + std::to_string(ntohs(v6->sin6_port));
    }
    const auto *v4 = reinterpret_cast<const sockaddr_in *>(&address);
    uv_ip4_name(v4, text, sizeof(text));
    return std::string(text) + ":" + std::to_string(ntohs(v4->sin_port));
}

static client &add_client(server &s)
{
    auto fresh = std::make_unique<client>();
    client &c = *fresh;
    c.owner = &s;
    c.talk.id = ++s.lastConnection;
    c.talk.reader.limits = s.options->messages;
    c.tcp.data = &c;
    uv_tcp_init(&s.loop, &c.tcp);
    s.clients.emplace(c.talk.id, std::move(fresh));
    return c;
}

static void on_connection(uv_stream_t *listener, int status)
{
    server &s = *static_cast<server *>(listener->data);
    if (status < 0) {
        spdlog::warn("accepting a client failed: {}", uv_strerror(status));
        return;
    }
    client &c = add_client(s);
    auto *stream = reinterpret_cast<uv_stream_t *>(&c.tcp);
    const int accepted = uv_accept(listener, stream);
    c.address = peer_address(c.tcp);
    if (accepted < 0)
        return end_client_because(c, std::string("accepting failed: ") + uv_strerror(accepted));
    if (s.clients.size() > s.options->clients)
        return end_client_because(c, "more than " + std::to_string(s.options->clients) + " clients");
    uv_tcp_nodelay(&c.tcp, 1);
    uv_read_start(stream, on_input_wanted, on_input);
    spdlog::debug("{} accepted", name_of(c));
}

/* ---- Listening ---- */

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

static bool listen_on(server &s, int fd)
{
    uv_tcp_t &listener = s.listeners[s.listenerCount];
    uv_tcp_init(&s.loop, &listener);
    listener.data = &s;
    s.listenerCount++;
    return uv_tcp_open(&listener, fd) == 0 &&
           uv_listen(reinterpret_cast<uv_stream_t *>(&listener), SOMAXCONN, on_connection) == 0;
}

static void announce(const server_options &options, uint16_t port)
{
    if (options.readyFd < 0)
        return;
    const std::string line = "ready port=" + std::to_string(port) + "\n";
    if (write(options.readyFd, line.data(), line.size()) != static_cast<ssize_t>(line.size()))
        spdlog::warn("descriptor {} did not take the ready line: {}", options.readyFd, std::strerror(errno));
    close(options.readyFd);
}

/* A host without IPv6 is served on 127.0.0.1 alone; any other refusal means that somebody has the port. */
static bool start_listening(server &s)
{
    const loopback_sockets sockets = bind_both(s.options->port);
    if (sockets.v4 < 0) {
        spdlog::error("cannot listen on 127.0.0.1 port {}: {}", s.options->port, std::strerror(-sockets.v4));
        return false;
    }
    const bool noV6 = sockets.v6 == -EAFNOSUPPORT || sockets.v6 == -EADDRNOTAVAIL;
    if (sockets.v6 < 0 && !noV6) {
        spdlog::error("cannot listen on ::1 port {}: {}", sockets.port, std::strerror(-sockets.v6));
        close(sockets.v4);
        return false;
    }
    if (!listen_on(s, sockets.v4) || (!noV6 && !listen_on(s, sockets.v6))) {
        spdlog::error("cannot watch the listening sockets");
        return false;
    }
    spdlog::info("listening on 127.0.0.1{} port {}", noV6 ? ", without ::1," : " and ::1", sockets.port);
    announce(*s.options, sockets.port);
    return true;
}

/* ---- Stopping ---- */

static void end_all(server &s)
{
    for (const auto &[id, c] : s.clients) {
        if (!c->closing && c->queued > 0)
            spdlog::warn("{} ended with {} octets unwritten", name_of(*c), c->queued);
        end_client(*c);
    }
}

static void on_stop_time_over(uv_timer_t *timer)
{
    end_all(*static_cast<server *>(timer->data));
}

/* Closes our side; the client's end of file then ends it. */
static void finish(client &c)
{
    if (c.finished || c.closing)
        return;
    count_as_finished(c);
    auto *stream = reinterpret_cast<uv_stream_t *>(&c.tcp);
    if (uv_shutdown(&c.shutdown, stream, [](uv_shutdown_t *, int) {}) != 0)
        end_client(c);
}

static void begin_stop(server &s)
{
    s.stopping = true;
    for (const auto &[id, c] : s.clients)
        s.unfinished += c->closing ? 0 : 1;
    for (int i = 0; i < s.listenerCount; i++)
        uv_close(reinterpret_cast<uv_handle_t *>(&s.listeners[i]), nullptr);
    if (s.clients.empty())
        return close_remaining_handles(s);
    uv_timer_start(&s.stopTimer, on_stop_time_over, s.options->stopMilliseconds, 0);
    for (const auto &[id, c] : s.clients)
        flush(*c);
}

static void on_signal(uv_signal_t *handle, int number)
{
    server &s = *static_cast<server *>(handle->data);
    if (s.stopping) {
        spdlog::warn("second signal: stopping at once");
        return end_all(s);
    }
    spdlog::info("stopping on {}: {} clients", number == SIGTERM ? "SIGTERM" : "SIGINT", s.clients.size());
    begin_stop(s);
}

/* ---- Running ---- */

static void start_signals(server &s)
{
    static constexpr int numbers[] = {SIGTERM, SIGINT};
    for (size_t i = 0; i < std::size(numbers); i++) {
        uv_signal_init(&s.loop, &s.signals[i]);
        s.signals[i].data = &s;
        uv_signal_start(&s.signals[i], on_signal, numbers[i]);
    }
    uv_timer_init(&s.loop, &s.stopTimer);
    s.stopTimer.data = &s;
    uv_timer_init(&s.loop, &s.gatherTimer);
    s.gatherTimer.data = &s;
    std::signal(SIGPIPE, SIG_IGN);
}

bool server_run(const server_options &options)
{
    const auto s = std::make_unique<server>();
    s->options = &options;
    s->routing.out = {s.get(), enqueue, wake};
    s->routing.now = now_milliseconds;
    s->routing.limits = options.engine;
    if (uv_loop_init(&s->loop) != 0) {
        spdlog::error("cannot set up the event loop");
        return false;
    }
    start_signals(*s);
    const bool started = start_listening(*s);
    if (!started)
        begin_stop(*s);
    uv_run(&s->loop, UV_RUN_DEFAULT);
    uv_loop_close(&s->loop);
    if (started)
        spdlog::info("stopped");
    return started;
}

} // namespace zebd
