/* What routing costs in the daemon, without sockets: the outlet only counts. One line for each figure.
 *
 *     routing
 */
#include "engine.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <malloc.h>
#include <string>

using namespace zebd;

namespace
{

struct sink {
    size_t items = 0, octets = 0;
};

bool count_item(void *context, connection_id, outgoing item) // NOLINT(performance-unnecessary-value-param)
{
    auto &self = *static_cast<sink *>(context);
    self.items++;
    self.octets += outgoing_size(item);
    return true;
}

void ignore_wake(void *, uint32_t) {}

int64_t clockNow = 1700000000000;

int64_t read_clock()
{
    return clockNow;
}

struct bed {
    sink out;
    engine routing;

    bed()
    {
        routing.out = {&out, count_item, ignore_wake};
        routing.now = read_clock;
        routing.identity = {"0", "bench", "bench", 1};
    }

    void up(connection_id connection, int32_t id, const std::string &subscription,
            const std::string &interest = "null", bool deltas = false)
    {
        subscribe_request request;
        request.id = id;
        request.subscription = subscription;
        request.interest = interest;
        request.deltas = deltas;
        request.component = "bench";
        request.properties = {{"/ZEB/RPC/SVR", "calculator"}};
        std::string why;
        if (!engine_up(routing, connection, std::move(request), why))
            printf("refused: %s\n", why.c_str());
    }
};

/* An event as the reader makes it, with a body of 100 octets. */
std::shared_ptr<const event> event_of_type(const std::string &type)
{
    message_reader reader;
    message_reader_feed(reader,
                        "POST /connect HTTP/1.1\r\nVersion: 4 \r\nFormFactor: abc\r\nSelfId: x\r\n\r\n");
    message_reader_feed(reader,
                        "POST /event HTTP/1.1\r\nclassName: MessageNotification\r\nSubscriberID: 0\r\n"
                        "eventType: " +
                            type +
                            "\r\neventId: bench:911\r\naffectedComponents: \r\naffectedNodes: \r\n"
                            "generatingComponent: bench\r\ngeneratingProcess: bench:9\r\n"
                            "generatingNode: bench\r\ninstanceName: bench\r\nLocalOnly: false\r\n"
                            "numberOfProperties: 1\r\nsev: 3\r\nContent-Length: 100\r\n"
                            "AddrList-Length: 0\r\n\r\n" +
                            std::string(100, 'x'));
    message what;
    message_reader_next(reader, what);
    message_reader_next(reader, what);
    return std::get<std::shared_ptr<event>>(what);
}

/* Nanoseconds for one event; the best of several rounds, which is the one least disturbed. */
double cost_of(bed &b, const std::shared_ptr<const event> &what, int events)
{
    double best = 1e18;
    std::string why;
    for (int round = 0; round < 15; round++) {
        const auto begin = std::chrono::steady_clock::now();
        for (int i = 0; i < events; i++)
            engine_take(b.routing, 1, what, why);
        const std::chrono::duration<double, std::nano> took = std::chrono::steady_clock::now() - begin;
        best = std::min(best, took.count() / events);
    }
    return best;
}

connection_id client(int number)
{
    return static_cast<connection_id>(number);
}

double cost_with_types(int types)
{
    bed b;
    for (int i = 0; i < types; i++)
        b.up(client(2 + i), 1, "/app/type/" + std::to_string(i));
    return cost_of(b, event_of_type("/app/type/7"), 20000);
}

/* Patterns that nothing but asking tells about: each stands for a subscription of its own. */
double cost_with_patterns(const std::string &beginning, int patterns, const char *end = "")
{
    bed b;
    for (int i = 0; i < patterns; i++)
        b.up(client(2 + i), 1, beginning + std::to_string(i) + end);
    return cost_of(b, event_of_type("/app/type/7"), 20);
}

double cost_with_receivers(int receivers, int events)
{
    bed b;
    for (int i = 0; i < receivers; i++)
        b.up(client(2 + i), 1, "/app/**");
    return cost_of(b, event_of_type("/app/type/7"), events);
}

void measure_matching()
{
    const double few = cost_with_types(10), many = cost_with_types(10000);
    printf("event to 1 receiver among 10 types          %8.0f ns\n", few);
    printf("event to 1 receiver among 10,000 types      %8.0f ns  ratio %.2f\n", many, many / few);
}

/* The second event of a type is answered out of the cache; patterns for properties are not, and are the
 * worst. */
void measure_patterns()
{
    static constexpr int patterns = 5000;
    printf("event among 5,000 patterns for its type     %8.0f ns\n", cost_with_patterns("/**/", patterns));
    printf("event among 5,000 patterns for a property   %8.0f ns\n",
           cost_with_patterns("\"sev~=*x", patterns, "\""));
    printf("event among 5,000 negations                 %8.0f ns\n",
           cost_with_patterns("!\"sev=", patterns, "3\""));
}

void measure_fan_out()
{
    const double one = cost_with_receivers(1, 20000), hundred = cost_with_receivers(100, 500);
    printf("event to 100 receivers                      %8.0f ns  ratio to 100 events to one %.2f\n", hundred,
           hundred / (100 * one));
}

/* A thousand members join within a second, so that they are told of in twenty portions. */
void measure_joining(bool deltas)
{
    bed b;
    b.up(1, 1, "null", "(\"/ZEB/RPC/SVR=calculator\")", deltas);
    engine_flush(b.routing);
    b.out = sink();
    for (int i = 0; i < 1000; i++) {
        clockNow++;
        b.up(client(2 + i), 1, "null");
        if (i % 50 == 49)
            engine_flush(b.routing);
    }
    clockNow += 1000;
    engine_flush(b.routing);
    printf("1,000 members join, told with %-13s %8.0f octets per member in %zu messages\n",
           deltas ? "deltas" : "full lists", static_cast<double>(b.out.octets) / 1000, b.out.items);
}

void measure_mutual_joining()
{
    bed b;
    const auto begin = std::chrono::steady_clock::now();
    for (int i = 0; i < 1000; i++) {
        b.up(client(1 + i), 1, "null", "(\"/ZEB/RPC/SVR=calculator\")", true);
        if (i % 50 == 49)
            engine_flush(b.routing);
    }
    const std::chrono::duration<double, std::milli> took = std::chrono::steady_clock::now() - begin;
    printf("1,000 members join and watch each other     %8.1f ms of routing, %.0f octets per member and "
           "watcher\n",
           took.count(), static_cast<double>(b.out.octets) / 1e6);
}

/* Each has an interest of its own that no table answers, so each is asked about everybody. */
void measure_costly_joining(int members, const char *before, const char *after)
{
    bed b;
    const auto begin = std::chrono::steady_clock::now();
    std::chrono::duration<double, std::milli> longest{};
    const auto timed = [&](auto &&act) {
        const auto from = std::chrono::steady_clock::now();
        act();
        longest = std::max<std::chrono::duration<double, std::milli>>(
            longest, std::chrono::steady_clock::now() - from);
    };
    for (int i = 0; i < members; i++)
        timed([&] { b.up(client(1 + i), 1, "null", before + std::to_string(i) + after, true); });
    for (int i = 0; i < 10000 && membership_pending(b.routing.members); i++)
        timed([&] { engine_flush(b.routing); });
    const std::chrono::duration<double, std::milli> took = std::chrono::steady_clock::now() - begin;
    printf("%d members with interests like %s...%s join: %.0f ms, the longest step %.1f ms\n", members,
           before, after, took.count(), longest.count());
}

/* What an idle subscriber keeps allocated: with texts all its own, and with a type that others share. */
void measure_memory(bool distinct)
{
    static constexpr int subscribers = 20000;
    bed b;
    const size_t before = mallinfo2().uordblks;
    for (int i = 0; i < subscribers; i++)
        b.up(client(1 + i / 100), i % 100 + 1, distinct ? "/app/type/" + std::to_string(i) : "/app/**");
    printf("idle subscriber, %-26s %8zu octets\n", distinct ? "a type of its own" : "a subscription shared",
           (mallinfo2().uordblks - before) / subscribers);
}

} // namespace

int main()
{
    measure_matching();
    measure_patterns();
    measure_fan_out();
    measure_joining(true);
    measure_joining(false);
    measure_mutual_joining();
    measure_costly_joining(6000, "!(\"name=", "\")&\"nobody\"");
    measure_costly_joining(6000, "!(\"/ZEB/RPC/SVR=calculator\")&!(\"name=", "\")");
    measure_memory(true);
    measure_memory(false);
    return 0;
}
