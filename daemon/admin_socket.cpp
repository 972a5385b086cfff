#include "admin_socket.h"

#include "log.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace zebd
{

static constexpr size_t mostConnections = 32;
static constexpr size_t requestLength = 4096;

static constexpr uint64_t pauseMilliseconds = 200;

/* What may wait for a follower; about a second's worth of a busy daemon's lines. */
static constexpr size_t followerOctets = size_t{1024} * 1024;

/* ---- Connections ---- */

static bool follows(const admin_connection &c)
{
    return c.monitors || c.traced != 0;
}

static void on_closed(uv_handle_t *handle)
{
    auto *c = static_cast<admin_connection *>(handle->data);
    std::erase_if(c->owner->connections, [c](const auto &each) { return each.get() == c; });
}

static void end(admin_connection &c)
{
    if (c.closing)
        return;
    c.closing = true;
    const bool followed = follows(c);
    c.monitors = false;
    c.traced = 0;
    uv_close(reinterpret_cast<uv_handle_t *>(&c.pipe), on_closed);
    if (followed)
        c.owner->changed();
}

static void answer_requests(admin_connection &c);
static void on_written(uv_write_t *request, int status);

/* Hands the socket what there is, unless it is still busy with what it has. */
static void flush(admin_connection &c)
{
    if (c.closing || !c.writing.empty())
        return;
    if (c.output.empty()) {
        if (c.leaving)
            end(c);
        return;
    }
    c.writing.swap(c.output);
    const uv_buf_t buffer = uv_buf_init(c.writing.data(), static_cast<unsigned>(c.writing.size()));
    if (uv_write(&c.write, reinterpret_cast<uv_stream_t *>(&c.pipe), &buffer, 1, on_written) != 0)
        end(c);
}

static void on_written(uv_write_t *request, int status)
{
    auto &c = *static_cast<admin_connection *>(request->data);
    c.writing.clear();
    c.writing.shrink_to_fit();
    if (status < 0)
        return end(c);
    if (c.lost > 0 && c.output.empty())
        c.output += admin_lost_line(std::exchange(c.lost, 0));
    answer_requests(c);
    flush(c);
}

static void tell(admin_connection &c, const std::string &line)
{
    if (c.closing || c.leaving)
        return;
    if (c.lost > 0 || c.output.size() + c.writing.size() > followerOctets)
        c.lost++;
    else
        c.output += line;
    flush(c);
}

/* ---- Requests ---- */

static void answer(admin_connection &c, std::string_view request)
{
    admin_socket &admin = *c.owner;
    ++*admin.requests;
    const admin_answer answered = admin_ask(admin.source, request);
    c.output += answered.line;
    if (answered.follow == admin_follow::monitor)
        c.monitors = true;
    if (answered.follow == admin_follow::trace)
        c.traced = answered.connection;
    if (answered.follow != admin_follow::nothing)
        admin.changed();
}

static void refuse_long_request(admin_connection &c)
{
    c.output += admin_error_line("a request has at most " + std::to_string(requestLength) + " octets");
    c.input.clear();
    c.leaving = true;
}

static void on_input(uv_stream_t *stream, ssize_t count, const uv_buf_t *buffer);

static void on_input_wanted(uv_handle_t *handle, size_t, uv_buf_t *buffer)
{
    admin_socket &admin = *static_cast<admin_connection *>(handle->data)->owner;
    *buffer = uv_buf_init(admin.readBuffer, sizeof(admin.readBuffer));
}

/* One answer after the other: the next request is looked at when the socket has taken the last answer. Until
 * then nothing is read either, so neither side of the connection grows. */
static void answer_requests(admin_connection &c)
{
    auto *stream = reinterpret_cast<uv_stream_t *>(&c.pipe);
    while (!c.closing && !c.leaving && c.output.empty() && c.writing.empty()) {
        const size_t end = c.input.find('\n');
        if (end == std::string::npos)
            break;
        const std::string request = c.input.substr(0, end);
        c.input.erase(0, end + 1);
        answer(c, request);
        flush(c);
    }
    if (c.closing || c.leaving)
        return;
    if (c.input.find('\n') != std::string::npos)
        uv_read_stop(stream);
    else if (c.ended)
        c.leaving = true;
    else if (c.input.size() > requestLength)
        refuse_long_request(c);
    else
        uv_read_start(stream, on_input_wanted, on_input);
}

static void on_input(uv_stream_t *stream, ssize_t count, const uv_buf_t *buffer)
{
    auto &c = *static_cast<admin_connection *>(stream->data);
    if (count < 0 && (count != UV_EOF || follows(c)))
        return end(c);
    if (c.closing || c.leaving)
        return;
    if (count < 0)
        c.ended = true;
    else
        c.input.append(buffer->base, static_cast<size_t>(count));
    answer_requests(c);
    flush(c);
}

/* ---- Accepting ---- */

static bool is_welcome(int fd)
{
    ucred peer{};
    socklen_t length = sizeof(peer);
    return getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &length) == 0 &&
           (peer.uid == geteuid() || peer.uid == 0);
}

static void begin(admin_socket &admin, int fd)
{
    admin.connections.push_back(std::make_unique<admin_connection>());
    admin_connection &c = *admin.connections.back();
    c.owner = &admin;
    c.pipe.data = c.write.data = &c;
    uv_pipe_init(admin.loop, &c.pipe, 0);
    if (uv_pipe_open(&c.pipe, fd) != 0) {
        close(fd);
        return end(c);
    }
    uv_read_start(reinterpret_cast<uv_stream_t *>(&c.pipe), on_input_wanted, on_input);
}

static void on_acceptable(uv_poll_t *poll, int status, int events);

static void on_pause_over(uv_timer_t *timer)
{
    uv_poll_start(&static_cast<admin_socket *>(timer->data)->poll, UV_READABLE, on_acceptable);
}

static bool is_allowed(const admin_socket &admin, int fd)
{
    if (admin.connections.size() < mostConnections && is_welcome(fd))
        return true;
    log_limited(log_kind::admin, spdlog::level::warn, "administration refused to {}",
                is_welcome(fd) ? "more connections at once" : "another user");
    return false;
}

/* Without descriptors there is a pause; the log has it from the clients, who meet the same trouble. */
static void on_acceptable(uv_poll_t *poll, int, int)
{
    admin_socket &admin = *static_cast<admin_socket *>(poll->data);
    const int fd = accept4(admin.fd, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (fd < 0) {
        uv_poll_stop(poll);
        uv_timer_start(&admin.pause, on_pause_over, pauseMilliseconds, 0);
    } else if (is_allowed(admin, fd)) {
        begin(admin, fd);
    } else {
        close(fd);
    }
}

/* ---- The socket file ---- */

static bool fill_address(const std::string &path, sockaddr_un &address, std::string &why)
{
    if (path.size() >= sizeof(address.sun_path)) {
        why = "the path is too long";
        return false;
    }
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    return true;
}

/* Whether there is a socket file at the address that nobody listens on any more. */
static bool is_stale(const sockaddr_un &address)
{
    struct stat found {
    };
    if (lstat(address.sun_path, &found) != 0 || !S_ISSOCK(found.st_mode))
        return false;
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    const bool refused = fd >= 0 &&
                         connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof(address)) != 0 &&
                         errno == ECONNREFUSED;
    if (fd >= 0)
        close(fd);
    return refused;
}

/* The mask makes the file unusable for others from its first moment on. */
static int bind_private(int fd, const sockaddr_un &address)
{
    const mode_t mask = umask(0177);
    const int bound = bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof(address));
    const int error = bound == 0 ? 0 : errno;
    umask(mask);
    return error;
}

static int bind_and_listen(int fd, const sockaddr_un &address)
{
    int error = bind_private(fd, address);
    if (error == EADDRINUSE && is_stale(address) && unlink(address.sun_path) == 0)
        error = bind_private(fd, address);
    if (error != 0)
        return error;
    return listen(fd, static_cast<int>(mostConnections)) == 0 ? 0 : errno;
}

bool admin_socket_open(admin_socket &admin, const std::string &path, std::string &why)
{
    sockaddr_un address{};
    if (!fill_address(path, address, why))
        return false;
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    const int error = fd < 0 ? errno : bind_and_listen(fd, address);
    if (error != 0 || uv_poll_init(admin.loop, &admin.poll, fd) != 0) {
        why = std::strerror(error != 0 ? error : EINVAL);
        if (fd >= 0)
            close(fd);
        return false;
    }
    struct stat made {
    };
    if (lstat(path.c_str(), &made) == 0) {
        admin.device = made.st_dev;
        admin.inode = made.st_ino;
    }
    admin.fd = fd;
    admin.path = path;
    admin.poll.data = &admin;
    uv_timer_init(admin.loop, &admin.pause);
    admin.pause.data = &admin;
    uv_poll_start(&admin.poll, UV_READABLE, on_acceptable);
    return true;
}

void admin_socket_close(admin_socket &admin)
{
    for (const auto &each : admin.connections)
        end(*each);
    if (admin.path.empty())
        return;
    uv_close(reinterpret_cast<uv_handle_t *>(&admin.poll), nullptr);
    uv_close(reinterpret_cast<uv_handle_t *>(&admin.pause), nullptr);
    close(admin.fd);
    struct stat found {
    };
    if (lstat(admin.path.c_str(), &found) == 0 && found.st_dev == admin.device && found.st_ino == admin.inode)
        unlink(admin.path.c_str());
    admin.path.clear();
}

/* ---- Followers ---- */

bool admin_has_monitors(const admin_socket &admin)
{
    return std::ranges::any_of(admin.connections, [](const auto &each) { return each->monitors; });
}

bool admin_traces(const admin_socket &admin, connection_id connection)
{
    return std::ranges::any_of(admin.connections,
                               [connection](const auto &each) { return each->traced == connection; });
}

void admin_tell_monitors(admin_socket &admin, const std::string &line)
{
    for (const auto &each : admin.connections)
        if (each->monitors)
            tell(*each, line);
}

void admin_tell_tracers(admin_socket &admin, connection_id connection, const std::string &line)
{
    for (const auto &each : admin.connections)
        if (each->traced == connection)
            tell(*each, line);
}

void admin_end_traces(admin_socket &admin, connection_id connection, const std::string &line)
{
    for (const auto &each : admin.connections)
        if (each->traced == connection) {
            tell(*each, line);
            each->traced = 0;
        }
}

} // namespace zebd
