/* The limit: a TCP socket of our own and as many octets as an event of zeb takes, with nothing done to them
 * that need not be done. One send for each event, as in zeb; flat out it says that more follows, at once it
 * does not. relay.cpp passes on what comes. */
#include "common.h"

#include <memory>

namespace bench
{

/* A frame is this, a text where properties stand at known places, and the body. */
struct frame_head {
    uint32_t textLength;
    uint32_t bodyLength;
};

/* What zeb writes besides the body of such an event; with the head above the same number of octets. */
static constexpr size_t overhead = 528;
static constexpr size_t inputSize = size_t{256} * 1024;

static int fd = -1;
static int sendFlags = 0;
static std::string frame; /* head and text, which are always the same, and room for the body */
static std::unique_ptr<char[]> input;
static size_t inputStart = 0, inputEnd = 0;

static void build_frame()
{
    std::string text(eventType);
    for (size_t i = 0; i < propertyCount; i++)
        text.append(propertyNames[i]).append(propertyValues[i]);
    text.resize(overhead - sizeof(frame_head), ' ');
    const frame_head head = {static_cast<uint32_t>(text.size()), 0};
    frame.assign(reinterpret_cast<const char *>(&head), sizeof(head));
    frame += text;
}

void peer_open(const peer_options &options)
{
    fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const sockaddr_in address = loopback(port_of(options.address));
    require(connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof(address)) == 0, "connect");
    set_nodelay(fd);
    sendFlags = options.atOnce ? 0 : MSG_MORE;
    input = std::make_unique<char[]>(inputSize);
    build_frame();
}

void peer_close()
{
    close(fd);
}

/* The first octet of a connection tells the relay what it is: p, s, c and v publish, subscribe, call and
 * serve. */
static void introduce(char role)
{
    static bool introduced = false;
    if (!introduced)
        send_all(fd, &role, 1);
    introduced = true;
}

static void send_frame(std::string_view body, int flags)
{
    const auto length = static_cast<uint32_t>(body.size());
    memcpy(frame.data() + offsetof(frame_head, bodyLength), &length, sizeof(length));
    frame.resize(overhead);
    frame += body;
    send_all(fd, frame.data(), frame.size(), flags);
}

void peer_publish(std::string_view body)
{
    introduce('p');
    send_frame(body, sendFlags);
}

/* Setting the option again sends what was held back. */
void peer_flush()
{
    set_nodelay(fd);
}

/* The next frame; the pieces of it live until the next call. */
static std::string_view receive_frame(std::string_view &text)
{
    for (;;) {
        const size_t have = inputEnd - inputStart;
        frame_head head = {};
        if (have >= sizeof(head)) {
            memcpy(&head, input.get() + inputStart, sizeof(head));
            const size_t whole = sizeof(head) + head.textLength + head.bodyLength;
            require(whole <= inputSize, "a frame that fits");
            if (have >= whole) {
                const char *at = input.get() + inputStart + sizeof(head);
                inputStart += whole;
                text = {at, head.textLength};
                return {at + head.textLength, head.bodyLength};
            }
        }
        memmove(input.get(), input.get() + inputStart, have);
        inputStart = 0;
        const ssize_t n = recv(fd, input.get() + have, inputSize - have, 0);
        require(n > 0, "recv");
        inputEnd = have + static_cast<size_t>(n);
    }
}

void peer_subscribe(const std::vector<std::string> &)
{
    introduce('s');
    char ready;
    require(recv(fd, &ready, 1, 0) == 1, "recv");
}

void peer_receive(bool (*take)(const event &e))
{
    bool more = true;
    while (more) {
        std::string_view text;
        event e{};
        e.body = receive_frame(text);
        e.type = text.substr(0, eventType.size());
        size_t at = e.type.size();
        for (size_t i = 0; i < propertyCount; i++) {
            at += propertyNames[i].size();
            e.values[i] = text.substr(at, propertyValues[i].size());
            at += propertyValues[i].size();
        }
        more = take(e);
    }
}

void peer_serve(void (*ready)())
{
    introduce('v');
    char known;
    require(recv(fd, &known, 1, 0) == 1, "recv");
    ready();
    for (;;) {
        std::string_view text;
        send_frame(receive_frame(text), 0);
    }
}

void peer_prepare_calls()
{
    introduce('c');
    char known;
    require(recv(fd, &known, 1, 0) == 1, "recv");
}

void peer_call(std::string_view body)
{
    send_frame(body, 0);
}

std::string_view peer_response()
{
    std::string_view text;
    return receive_frame(text);
}

} // namespace bench
