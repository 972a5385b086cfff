/* A daemon that does the least: it agrees to everything and sends every event to every subscriber. It stands
 * in for zebd where only the client is to be measured.
 *
 *     bench_daemon [ack=1]
 *
 * Prints "ready port=N". Plain, it leaves acknowledgements to the kernel, which delays them; with ack=1 each
 * read is acknowledged at once. A client that is fast only in the second mode waits for acknowledgements. */
#include "common.h"

#include <map>
#include <memory>
#include <sys/epoll.h>

using namespace bench;

namespace
{

struct connection {
    int fd = -1;
    std::string input;
    std::vector<std::string> subscribers; /* their identifiers */
};

std::map<int, connection> connections;
bool acknowledges = false;

void say(const connection &c, std::string_view words)
{
    send_all(c.fd, words.data(), words.size());
}

/* Value of the header NAME, which begins with a line feed and ends with a colon and a space. */
std::string_view header(std::string_view head, std::string_view name)
{
    const size_t at = head.find(name);
    if (at == std::string_view::npos)
        return {};
    const std::string_view rest = head.substr(at + name.size());
    return rest.substr(0, rest.find('\r'));
}

size_t length_in(std::string_view head, std::string_view name)
{
    const std::string_view value = header(head, name);
    return value.empty() ? 0 : std::stoull(std::string(value));
}

/* The event as it came, with the receiver's identifier and the two times behind its id. */
void deliver(std::string_view head, std::string_view rest)
{
    constexpr std::string_view idName = "\nSubscriberID: ";
    const size_t id = head.find(idName) + idName.size();
    const size_t type = head.find('\r', id);
    const size_t times = head.find('\n', head.find("\neventId: ") + 1) + 1;
    for (const auto &[fd, c] : connections) {
        for (const std::string &subscriber : c.subscribers) {
            std::string out(head.substr(0, id));
            out.append(subscriber).append(head.substr(type, times - type));
            out.append("creationTime: 1\r\ndeliveryTime: 1\r\n").append(head.substr(times)).append(rest);
            say(c, out);
        }
    }
}

void subscribe(connection &c, std::string_view head)
{
    const std::string id(header(head, "\nSubscriberID: "));
    c.subscribers.push_back(id);
    say(c, "POST /status HTTP/1.1\r\nResult: success\r\nSubscriberID: " + id + "\r\nMessage: -\r\n\r\n");
}

/* Carries out the first message of the input; 0 when it has not come completely, else its length. */
size_t take_message(connection &c, std::string_view input)
{
    const size_t end = input.find("\r\n\r\n");
    if (end == std::string_view::npos)
        return 0;
    const std::string_view head = input.substr(0, end + 4);
    const size_t more = length_in(head, "\nContent-Length: ") + length_in(head, "\nAddrList-Length: ");
    if (input.size() < head.size() + more)
        return 0;
    if (head.rfind("POST /connect", 0) == 0)
        say(c, "1\r\n2\r\nResult: success\r\n\r\n");
    else if (head.rfind("POST /subscribe", 0) == 0)
        subscribe(c, head);
    else if (head.rfind("POST /event", 0) == 0)
        deliver(head, input.substr(head.size(), more));
    return head.size() + more;
}

/* False at the end of the connection. */
bool take_input(connection &c)
{
    static char buffer[size_t{256} * 1024];
    const ssize_t n = recv(c.fd, buffer, sizeof(buffer), 0);
    if (n <= 0)
        return false;
    if (acknowledges) {
        const int on = 1;
        setsockopt(c.fd, IPPROTO_TCP, TCP_QUICKACK, &on, sizeof(on));
    }
    c.input.append(buffer, static_cast<size_t>(n));
    size_t done = 0;
    while (const size_t taken = take_message(c, std::string_view(c.input).substr(done)))
        done += taken;
    c.input.erase(0, done);
    return true;
}

void serve(int listening)
{
    const int poll = epoll_create1(EPOLL_CLOEXEC);
    watch(poll, listening);
    for (;;) {
        epoll_event happened{};
        if (epoll_wait(poll, &happened, 1, -1) != 1)
            continue;
        const int fd = happened.data.fd;
        if (fd == listening) {
            const int accepted = accept(fd, nullptr, nullptr);
            set_nodelay(accepted);
            connections[accepted].fd = accepted;
            watch(poll, accepted);
        } else if (!take_input(connections[fd])) {
            connections.erase(fd);
            close(fd);
        }
    }
}

} // namespace

int main(int argc, char **argv)
{
    acknowledges = argc > 1 && std::string_view(argv[1]) == "ack=1";
    serve(listen_loopback());
    return 0;
}
