/* What no program should do and some will: a line of 64 MiB, a block with 160,000 names, an event for a
 * million subscribers, 100,000 notifications held at once and given back in no order. One line of JSON:
 * processor seconds for each.
 *
 *     bench_extremes address=PORT
 */
#include "common.h"

#include "ezebnotification.h"
#include "ezebsbuf.h"
#include "ezebutil.h"

#include <algorithm>
#include <random>
#include <thread>
#include <vector>
#include <zeb.h>

using namespace bench;

namespace
{

/* Of this thread on a processor: how long it waits for others is theirs. */
uint64_t worked()
{
    return nanoseconds(CLOCK_THREAD_CPUTIME_ID);
}

double seconds_since(uint64_t start)
{
    return static_cast<double>(worked() - start) / 1e9;
}

/* Seconds until READ has taken TEXT, which comes through a socket. */
template <class Read>
double read_from_socket(const std::string &text, Read read)
{
    int ends[2];
    require(socketpair(AF_UNIX, SOCK_STREAM, 0, ends) == 0, "socketpair");
    std::thread feeder([&] {
        for (size_t sent = 0; sent < text.size();) {
            const ssize_t n = write(ends[1], text.data() + sent, text.size() - sent);
            require(n > 0, "write");
            sent += static_cast<size_t>(n);
        }
    });
    ezeb_sb *sb = ezeb_sb_create(ends[0]);
    const uint64_t start = worked();
    read(sb);
    const double seconds = seconds_since(start);
    feeder.join();
    ezeb_sb_free(sb);
    close(ends[0]);
    close(ends[1]);
    return seconds;
}

double long_line()
{
    const size_t length = 64 << 20;
    return read_from_socket(std::string(length, 'a') + "\r\n", [&](ezeb_sb *sb) {
        char *line = nullptr;
        require(ezeb_sb_gets(sb, &line) == 1 && strlen(line) == length, "the line");
    });
}

double many_identifiers()
{
    const int32_t all = 1'000'000;
    std::string event = "className: MembershipListNotification\r\nSubscriberID: 1";
    for (int32_t i = 1; i < all; i++)
        event += ";" + std::to_string(i % 10'000);
    event += "\r\neventType: /t\r\neventId: 1\r\ncreationTime: 5\r\ndeliveryTime: 6\r\nContent-Length: "
             "0\r\nAddrList-Length: 0\r\n\r\n";
    return read_from_socket(event, [&](ezeb_sb *sb) {
        int32_t *ids = nullptr;
        int32_t count = 0;
        zeb_notification *n = ezeb_notification_read(sb, &ids, &count);
        require(n != nullptr && count == all, "the identifiers");
        ezeb_free(ids);
        ezeb_notification_destroy(n);
    });
}

double many_names()
{
    zeb_bb *block = zeb_bb_create();
    zeb_bb_seg *segment = zeb_bb_addsegment(block, "s");
    for (int i = 0; i < 160'000; i++)
        zeb_bb_seg_addelement(segment, ("name-" + std::to_string(i)).c_str(), "value");
    int32_t length = 0;
    void *body = zeb_bb_block2body(block, &length);
    require(body != nullptr, "encoding");
    const uint64_t start = worked();
    zeb_bb *decoded = zeb_bb_body2block(body, length);
    const double seconds = seconds_since(start);
    require(decoded != nullptr, "the block");
    zeb_bb_destroy(decoded);
    zeb_bb_destroy(block);
    free(body);
    return seconds;
}

double many_held(const std::string &address)
{
    const size_t count = 100'000;
    require(zeb_init_with_port(port_of(address)) == 0, "zeb_init");
    zeb_publisher *publisher = zeb_publisher_create("bench");
    zeb_subscriber *subscriber = zeb_subscriber_create("/held", "bench", nullptr, nullptr, nullptr);
    require(publisher != nullptr && subscriber != nullptr, "a publisher and a subscriber");
    std::vector<zeb_notification *> held;
    while (held.size() < count) {
        for (int i = 0; i < 1000; i++)
            zeb_publisher_publish(publisher, zeb_notification_create("/held", "body", 4));
        for (int i = 0; i < 1000; i++) {
            held.push_back(zeb_subscriber_receive(subscriber, 1, 0));
            require(held.back() != nullptr, "zeb_subscriber_receive");
        }
    }
    std::shuffle(held.begin(), held.end(), std::mt19937(1));
    const uint64_t start = worked();
    for (zeb_notification *n : held)
        zeb_subscriber_relinquish(subscriber, n);
    const double seconds = seconds_since(start);
    zeb_subscriber_close(subscriber);
    zeb_publisher_close(publisher);
    zeb_shutdown();
    return seconds;
}

} // namespace

int main(int argc, char **argv)
{
    const std::string_view word = argc == 2 ? argv[1] : "";
    constexpr std::string_view key = "address=";
    require(word.starts_with(key), "address=PORT");
    std::printf("{\"relinquish\": %.4f, \"line\": %.4f, \"names\": %.4f, \"identifiers\": %.4f}\n",
                many_held(std::string(word.substr(key.size()))), long_line(), many_names(),
                many_identifiers());
}
