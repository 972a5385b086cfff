/* The servers of our own, one thread each: the bare relay, and sinks that shake hands and throw away what
 * comes.
 *
 *     bench_relay relay [ack=1]
 *     bench_relay sink-PEER progress=FILE [ack=1]      PEER: zeb, nats, mqtt or bare
 *
 * Prints "ready port=N". With ack=1 every read is acknowledged at once, which hides what a client gets wrong
 * about small segments. A sink counts the marks of bodies into the progress file. */
#include "common.h"
#include "progress.h"

#include <algorithm>
#include <map>
#include <memory>
#include <sys/epoll.h>

using namespace bench;

namespace
{

constexpr size_t inputSize = size_t{256} * 1024;
char input[inputSize];
bool acknowledges = false;

/* What came, or empty at the end of the connection. */
std::string_view read_some(int fd)
{
    const ssize_t n = recv(fd, input, inputSize, 0);
    if (n <= 0)
        return {};
    if (acknowledges) {
        const int on = 1;
        setsockopt(fd, IPPROTO_TCP, TCP_QUICKACK, &on, sizeof(on));
    }
    return {input, static_cast<size_t>(n)};
}

/* ---- The relay: what comes from a publisher goes to all subscribers, as it came ---- */

std::map<int, char> roles; /* by descriptor: p, s, c, v, or 0 before the first octet */

void pass_on(char to, std::string_view bytes)
{
    for (const auto &[fd, role] : roles)
        if (role == to)
            send_all(fd, bytes.data(), bytes.size());
}

void answer_introduction(int fd, char role)
{
    roles[fd] = role;
    if (role != 'p')
        send_all(fd, "r", 1);
}

void on_bytes(int fd, std::string_view bytes)
{
    if (roles[fd] == 0) {
        answer_introduction(fd, bytes.front());
        bytes.remove_prefix(1);
    }
    static const std::map<char, char> receivers = {{'p', 's'}, {'c', 'v'}, {'v', 'c'}};
    if (!bytes.empty())
        pass_on(receivers.at(roles[fd]), bytes);
}

void relay(int listening)
{
    const int poll = epoll_create1(EPOLL_CLOEXEC);
    watch(poll, listening);
    for (;;) {
        epoll_event happened[16];
        const int count = epoll_wait(poll, happened, 16, -1);
        for (int i = 0; i < count; i++) {
            const int fd = happened[i].data.fd;
            if (fd == listening) {
                const int accepted = accept(fd, nullptr, nullptr);
                set_nodelay(accepted);
                roles[accepted] = 0;
                watch(poll, accepted);
            } else if (const std::string_view bytes = read_some(fd); !bytes.empty()) {
                on_bytes(fd, bytes);
            } else {
                roles.erase(fd);
                close(fd);
            }
        }
    }
}

/* ---- Sinks ---- */

/* Counts marks, also those that come in two pieces. */
class mark_counter
{
  public:
    uint64_t count(std::string_view bytes)
    {
        constexpr std::string_view mark(bodyMark, sizeof(bodyMark) - 1);
        const size_t join = std::min(bytes.size(), mark.size() - 1);
        rest.append(bytes.substr(0, join));
        seen += rest.find(mark) != std::string::npos;
        for (size_t at = bytes.find(mark); at != std::string_view::npos;
             at = bytes.find(mark, at + mark.size()))
            seen++;
        const std::string_view end = join < bytes.size() ? bytes : std::string_view(rest);
        rest = std::string(end.substr(end.size() - std::min(end.size(), mark.size() - 1)));
        return seen;
    }

  private:
    std::string rest; /* the end of what came before, shorter than a mark */
    uint64_t seen = 0;
};

void say(int fd, std::string_view words)
{
    send_all(fd, words.data(), words.size());
}

/* One system's part: GREET before anything is read, ANSWER to each piece that came. */
struct manners {
    void (*greet)(int fd);
    void (*answer)(int fd, std::string_view bytes);
};

bool ends_with(std::string_view bytes, std::string_view end)
{
    return bytes.size() >= end.size() && bytes.substr(bytes.size() - end.size()) == end;
}

bool begins_with(std::string_view bytes, std::string_view begin)
{
    return bytes.substr(0, begin.size()) == begin;
}

void zeb_answer(int fd, std::string_view bytes)
{
    if (begins_with(bytes, "POST /connect"))
        say(fd, "POST /connect HTTP/1.1\r\nVersion: 4\r\nResult: success\r\nMessage: -\r\nDaemon: -\r\n"
                "Node: -\r\nIncarnation: 1\r\nConnection: 1\r\ninstanceName: bench\r\n\r\n");
}

void nats_greet(int fd)
{
    say(fd,
        "INFO {\"server_id\":\"S\",\"server_name\":\"S\",\"version\":\"2.9.10\",\"proto\":1,\"headers\":true,"
        "\"max_payload\":1048576}\r\n");
}

void nats_answer(int fd, std::string_view bytes)
{
    if (ends_with(bytes, "PING\r\n"))
        say(fd, "PONG\r\n");
}

void mqtt_answer(int fd, std::string_view bytes)
{
    if (begins_with(bytes, "\x10")) /* CONNECT; its answer is CONNACK */
        say(fd, std::string_view("\x20\x02\x00\x00", 4));
}

const std::map<std::string, manners> sinks = {
    {"sink-zeb", {nullptr, zeb_answer}},
    {"sink-nats", {nats_greet, nats_answer}},
    {"sink-mqtt", {nullptr, mqtt_answer}},
    {"sink-bare", {nullptr, [](int, std::string_view) {}}},
};

/* One connection after the other. */
void sink(int listening, const manners &how, progress_page &page)
{
    for (;;) {
        const int fd = accept(listening, nullptr, nullptr);
        set_nodelay(fd);
        mark_counter marks;
        if (how.greet != nullptr)
            how.greet(fd);
        for (std::string_view bytes; !(bytes = read_some(fd)).empty();) {
            how.answer(fd, bytes);
            page.set(0, marks.count(bytes));
        }
        close(fd);
        page.set(0, 0);
    }
}

} // namespace

int main(int argc, char **argv)
{
    const std::string mode = argc > 1 ? argv[1] : "";
    std::string progress;
    for (int i = 2; i < argc; i++) {
        const std::string word = argv[i];
        if (word == "ack=1")
            acknowledges = true;
        else if (begins_with(word, "progress="))
            progress = word.substr(word.find('=') + 1);
        else
            fail("what is " + word);
    }
    if (mode == "relay")
        relay(listen_loopback());
    if (sinks.count(mode) == 0)
        fail("relay or sink-PEER?");
    progress_page page(progress);
    sink(listen_loopback(), sinks.at(mode), page);
    return 0;
}
