#include "obliging_daemon.h"

#include <algorithm>
#include <future>
#include <poll.h>
#include <stdexcept>
#include <sys/socket.h>
#include <unistd.h>

namespace zebtest
{

std::string obliging_daemon::request::field(std::string_view name) const
{
    const std::string start = "\r\n" + std::string(name) + ": ";
    const size_t at = head.find(start);
    if (at == std::string::npos)
        return "";
    const size_t from = at + start.size();
    return head.substr(from, head.find("\r\n", from) - from);
}

bool obliging_daemon::request::is(std::string_view verb) const
{
    return head.rfind("POST /" + std::string(verb) + " ", 0) == 0;
}

obliging_daemon::obliging_daemon()
{
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, wake) != 0)
        throw std::runtime_error("no pair of sockets");
    std::promise<void> begun; /* starting a thread may open a descriptor for a moment, under a sanitizer */
    const std::future<void> started = begun.get_future();
    thread = std::thread([this, promise = std::move(begun)]() mutable {
        promise.set_value();
        run();
    });
    started.wait();
}

obliging_daemon::~obliging_daemon()
{
    ::close(wake[0]);
    thread.join();
    ::close(wake[1]);
    if (connection != -1)
        ::close(connection);
}

void obliging_daemon::reply_with(std::function<std::string(const request &)> reply)
{
    const std::lock_guard hold(lock);
    more = std::move(reply);
}

int obliging_daemon::count(std::string_view text) const
{
    const std::lock_guard hold(lock);
    return static_cast<int>(std::count_if(requests.begin(), requests.end(), [&](const request &r) {
        return r.head.find(text) != std::string::npos;
    }));
}

static void send_all(int socket, std::string_view bytes)
{
    while (!bytes.empty()) {
        const ssize_t n = ::send(socket, bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (n <= 0)
            return;
        bytes.remove_prefix(static_cast<size_t>(n));
    }
}

void obliging_daemon::send(std::string_view bytes)
{
    const std::lock_guard hold(lock);
    if (connection != -1)
        send_all(connection, bytes);
}

void obliging_daemon::hang_up()
{
    const std::lock_guard hold(lock);
    if (connection != -1)
        ::shutdown(connection, SHUT_RDWR);
}

bool obliging_daemon::is_connected() const
{
    const std::lock_guard hold(lock);
    return connection != -1;
}

/* Until the other end of the pair is closed. */
void obliging_daemon::run()
{
    const std::array<int, 2> doors = listener.listening_sockets();
    for (;;) {
        pollfd watched[] = {
            {wake[1], POLLIN, 0}, {doors[0], POLLIN, 0}, {doors[1], POLLIN, 0}, {connection, POLLIN, 0}};
        if (poll(watched, 4, -1) < 0)
            continue;
        if (watched[0].revents != 0)
            return;
        if (watched[3].revents != 0)
            take_bytes();
        if (watched[1].revents != 0 || watched[2].revents != 0)
            take_connection(listener.take_waiting());
    }
}

/* The library has one connection: a new one means that it has given up the one before. */
void obliging_daemon::take_connection(int socket)
{
    if (socket == -1)
        return;
    const std::lock_guard hold(lock);
    if (connection != -1)
        ::close(connection);
    connection = socket;
    unread.clear();
}

void obliging_daemon::take_bytes()
{
    char bytes[16384];
    const ssize_t n = recv(connection, bytes, sizeof(bytes), 0);
    if (n <= 0) {
        const std::lock_guard hold(lock);
        ::close(connection);
        connection = -1;
        return;
    }
    unread.append(bytes, static_cast<size_t>(n));
    while (take_request())
        ;
}

static size_t length_in(const std::string &text)
{
    return text.empty() ? 0 : std::stoul(text);
}

/* False when the next request has not come whole. */
bool obliging_daemon::take_request()
{
    const size_t end = unread.find("\r\n\r\n");
    if (end == std::string::npos)
        return false;
    request r{unread.substr(0, end + 2), ""};
    const size_t body = length_in(r.field("Content-Length")) + length_in(r.field("AddrList-Length"));
    if (unread.size() < end + 4 + body)
        return false;
    r.body = unread.substr(end + 4, body);
    unread.erase(0, end + 4 + body);
    const std::lock_guard hold(lock);
    send_all(connection, answer(r) + (more ? more(r) : ""));
    requests.push_back(std::move(r));
    return true;
}

std::string obliging_daemon::answer(const request &r) const
{
    if (r.is("connect"))
        return std::string(handshakeReply);
    if (r.is("subscribe"))
        return lines({"POST /status HTTP/1.1", "Result: success", "SubscriberID: " + r.field("SubscriberID"),
                      "Message: ", ""});
    return "";
}

} // namespace zebtest
