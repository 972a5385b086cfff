/* A daemon that does the least: it agrees to everything and sends every event to every subscriber, but remote
 * calls between callers and servers, whom it lets know of each other. It stands in for zebd where only the
 * client is to be measured.
 *
 *     bench_daemon [ack=1]
 *
 * Prints "ready port=N". Plain, it leaves acknowledgements to the kernel, which delays them; with ack=1 each
 * read is acknowledged at once. A client that is fast only in the second mode waits for acknowledgements. */
#include "common.h"

#include <map>
#include <memory>
#include <sys/epoll.h>
#include <zeb.h>

using namespace bench;

namespace
{

enum class role { listener, caller, server };

struct subscriber {
    std::string id;
    role part;
};

struct connection {
    int fd = -1;
    std::string input;
    std::vector<subscriber> subscribers;
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

/* A list of one address, that of all servers or of all callers; the segment's name says what it is told for.
 */
std::string address_list(const char *segment, role part)
{
    const char *name = part == role::server ? "server" : "caller";
    zeb_bb *block = zeb_bb_create();
    zeb_bb_seg *address = zeb_bb_addsegment(block, segment);
    zeb_bb_seg_addelement(address, "id", name);
    zeb_bb_seg_addelement(address, "key", name);
    zeb_bb_seg_addelement_b(address, "address", name, 6);
    zeb_bb_seg *properties = zeb_bb_seg_addsegment(address, "properties");
    if (part == role::server)
        zeb_bb_seg_addelement(properties, "/ZEB/RPC/SVR", std::string(callName).c_str());
    int32_t length = 0;
    void *octets = zeb_bb_block2body(block, &length);
    require(octets != nullptr, "zeb_bb_block2body");
    std::string list(static_cast<char *>(octets), static_cast<size_t>(length));
    free(octets);
    zeb_bb_destroy(block);
    return list;
}

constexpr std::string_view addressesName = "\nAddrList-Length: ";

/* An event on its way to those of one part, with the addresses that it gets. */
struct delivery {
    std::string_view head;
    std::string_view body;
    role to;
    std::string addresses;
};

/* The event as it came, with the receiver's identifier, the two times behind its id and its addresses. */
void deliver(const delivery &what)
{
    constexpr std::string_view idName = "\nSubscriberID: ";
    const std::string_view head = what.head;
    const size_t id = head.find(idName) + idName.size();
    const size_t type = head.find('\r', id);
    const size_t times = head.find('\n', head.find("\neventId: ") + 1) + 1;
    const size_t addresses = head.find(addressesName) + addressesName.size();
    for (const auto &[fd, c] : connections) {
        for (const subscriber &receiver : c.subscribers) {
            if (receiver.part != what.to)
                continue;
            std::string out(head.substr(0, id));
            out.append(receiver.id).append(head.substr(type, times - type));
            out.append("creationTime: 1\r\ndeliveryTime: 1\r\n")
                .append(head.substr(times, addresses - times));
            out.append(std::to_string(what.addresses.size())).append("\r\n\r\n");
            say(c, out.append(what.body).append(what.addresses));
        }
    }
}

void pass_on(std::string_view head, std::string_view body)
{
    static const std::string fromCaller = address_list("srcAddr", role::caller);
    static const std::string fromServer = address_list("srcAddr", role::server);
    const std::string_view type = header(head, "\neventType: ");
    if (type == "/ZEB/RPC/REQ")
        deliver({head, body, role::server, fromCaller});
    else if (type == "/ZEB/RPC/RES")
        deliver({head, body, role::caller, fromServer});
    else
        deliver({head, body, role::listener, ""});
}

/* Whoever can be called is there before those who call. */
void tell_of_servers(const connection &c, const std::string &id)
{
    const std::string list = address_list("addAddr0", role::server);
    say(c, "POST /event HTTP/1.1\r\nclassName: MembershipDeltaNotification\r\nSubscriberID: " + id +
               "\r\neventType: /ZEB/SYSTEM/MEMBERS\r\neventId: 1\r\ncreationTime: 1\r\ndeliveryTime: 1\r\n"
               "Content-Length: 0\r\nAddrList-Length: " +
               std::to_string(list.size()) + "\r\n\r\n" + list);
}

role part_in(std::string_view head)
{
    if (header(head, "\nMbrInterest: ") != "null")
        return role::caller;
    return header(head, "\n/ZEB/RPC/SVR: ").empty() ? role::listener : role::server;
}

void subscribe(connection &c, std::string_view head)
{
    const subscriber fresh{std::string(header(head, "\nSubscriberID: ")), part_in(head)};
    c.subscribers.push_back(fresh);
    say(c,
        "POST /status HTTP/1.1\r\nResult: success\r\nSubscriberID: " + fresh.id + "\r\nMessage: -\r\n\r\n");
    if (fresh.part == role::caller)
        tell_of_servers(c, fresh.id);
}

/* Carries out the first message of the input; 0 when it has not come completely, else its length. */
size_t take_message(connection &c, std::string_view input)
{
    const size_t end = input.find("\r\n\r\n");
    if (end == std::string_view::npos)
        return 0;
    const std::string_view head = input.substr(0, end + 4);
    const size_t body = length_in(head, "\nContent-Length: ");
    const size_t more = body + length_in(head, addressesName);
    if (input.size() < head.size() + more)
        return 0;
    if (head.rfind("POST /connect", 0) == 0)
        say(c, "1\r\n2\r\nResult: success\r\n\r\n");
    else if (head.rfind("POST /subscribe", 0) == 0)
        subscribe(c, head);
    else if (head.rfind("POST /event", 0) == 0)
        pass_on(head, input.substr(head.size(), body));
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
