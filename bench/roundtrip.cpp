/* Round trip of an event through the library and back, with TCP_NODELAY as the library sets it and with
 * Nagle's algorithm left on: what the option is worth. The daemon's side is an echo inside this program, so
 * nothing else is measured.
 *
 *     roundtrip [ROUNDS]
 */
#include "zeb.h"

#include <algorithm>
#include <arpa/inet.h>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <dlfcn.h>
#include <netinet/tcp.h>
#include <string>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>
#include <vector>

static bool nodelayAllowed = true;

/* Comes before the C library's: lets one option of the library's socket be left out. */
extern "C" int setsockopt(int fd, int level, int name, const void *value, socklen_t length)
{
    static const auto original = reinterpret_cast<decltype(&setsockopt)>(dlsym(RTLD_NEXT, "setsockopt"));
    if (level == IPPROTO_TCP && name == TCP_NODELAY && !nodelayAllowed)
        return 0;
    return original(fd, level, name, value, length);
}

namespace
{

/* One connection of the echo daemon: agrees to everything and sends each event back to subscriber 1. */
class echo
{
  public:
    explicit echo(int listening) : fd(accept(listening, nullptr, nullptr))
    {
        const int on = 1;
        ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
        run();
        close(fd);
    }

  private:
    bool line(std::string &out)
    {
        size_t end;
        while ((end = in.find('\n')) == std::string::npos) {
            if (!more())
                return false;
        }
        out = in.substr(0, end - 1);
        in.erase(0, end + 1);
        return true;
    }

    bool more()
    {
        char buffer[65536];
        const ssize_t n = read(fd, buffer, sizeof(buffer));
        if (n <= 0)
            return false;
        in.append(buffer, static_cast<size_t>(n));
        return true;
    }

    void answer(const std::string &text)
    {
        if (write(fd, text.data(), text.size()) < 0)
            perror("write");
    }

    void run()
    {
        std::string text;
        while (line(text)) {
            const std::string request = text;
            size_t length = 0;
            while (line(text) && !text.empty()) {
                if (text.rfind("Content-Length: ", 0) == 0)
                    length = std::stoul(text.substr(16));
            }
            while (in.size() < length && more())
                ;
            const std::string body = in.substr(0, length);
            in.erase(0, length);
            if (request.rfind("POST /connect", 0) == 0)
                answer("1\r\n2\r\nResult: success\r\n\r\n");
            else if (request.rfind("POST /subscribe", 0) == 0)
                answer("POST /status HTTP/1.1\r\nResult: success\r\nSubscriberID: 1\r\n\r\n");
            else if (request.rfind("POST /event", 0) == 0)
                answer("POST /event HTTP/1.1\r\nclassName: MessageNotification\r\nSubscriberID: 1\r\n"
                       "eventType: t\r\neventId: i\r\ncreationTime: 0\r\ndeliveryTime: 0\r\n"
                       "affectedComponents: \r\naffectedNodes: \r\ngeneratingComponent: \r\n"
                       "generatingProcess: \r\ngeneratingNode: \r\ninstanceName: \r\nLocalOnly: false\r\n"
                       "numberOfProperties: 0\r\nContent-Length: " +
                       std::to_string(body.size()) + "\r\nAddrList-Length: 0\r\n\r\n" + body);
        }
    }

    int fd;
    std::string in;
};

struct figures {
    double p50;
    double p99;
};

figures measure(uint16_t port, int rounds, size_t size)
{
    zeb_init_with_port(port);
    zeb_publisher *publisher = zeb_publisher_create("bench");
    zeb_subscriber *subscriber = zeb_subscriber_create("", "bench", nullptr, nullptr, nullptr);
    const std::string body(size, 'x');
    std::vector<double> times;
    for (int i = 0; i < rounds; i++) {
        const auto before = std::chrono::steady_clock::now();
        zeb_publisher_publish(publisher,
                              zeb_notification_create("t", body.data(), static_cast<int32_t>(size)));
        zeb_notification *back = zeb_subscriber_receive(subscriber, 1, 0);
        times.push_back(
            std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - before).count());
        zeb_subscriber_relinquish(subscriber, back);
    }
    zeb_subscriber_close(subscriber);
    zeb_publisher_close(publisher);
    zeb_shutdown();
    std::sort(times.begin(), times.end());
    return {times[times.size() / 2], times[times.size() * 99 / 100]};
}

} // namespace

int main(int argc, char **argv)
{
    const int rounds = argc > 1 ? atoi(argv[1]) : 200;
    setenv("TAMBEK_HOME", "/", 0);
    const int listening = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof(address);
    if (bind(listening, reinterpret_cast<sockaddr *>(&address), length) != 0 || listen(listening, 8) != 0 ||
        getsockname(listening, reinterpret_cast<sockaddr *>(&address), &length) != 0) {
        perror("listen");
        return 1;
    }
    std::thread([=] {
        for (;;)
            echo{listening};
    }).detach();
    printf("%-12s %-14s %10s %10s\n", "body, bytes", "TCP_NODELAY", "p50, ms", "p99, ms");
    for (const size_t size : {size_t{0}, size_t{256}, size_t{1600}, size_t{3000}, size_t{65536}}) {
        for (const bool nodelay : {true, false}) {
            nodelayAllowed = nodelay;
            const figures f = measure(ntohs(address.sin_port), rounds, size);
            printf("%-12zu %-14s %10.3f %10.3f\n", size, nodelay ? "on" : "off", f.p50, f.p99);
        }
    }
    return 0;
}
