/* One role of a measurement with one messaging system, as a process. What it found out is one line of JSON on
 * standard output.
 *
 *     bench_PEER publish address=A count=N [body=B] [rate=R] [window=W progress=FILE slots=S] [at_once=1]
 *     bench_PEER subscribe address=A count=N progress=FILE slot=I [types=T] [latency=1]
 *     bench_PEER serve address=A [at_once=1]
 *     bench_PEER call address=A count=N [body=B] [outstanding=O] [at_once=1]
 *
 * Subscribers and servers print "ready" first. A body of 24 octets or more begins with a mark, a sequence
 * number and the time of its publish. The progress file is shared memory: how many events each receiver has
 * taken, so that a publisher can keep within a window of them. */
#include "common.h"
#include "progress.h"

#include <algorithm>
#include <atomic>
#include <fstream>
#include <map>
#include <sys/resource.h>
#include <thread>

using namespace bench;

namespace
{

std::map<std::string, std::string> settings;

uint64_t number(const char *name, uint64_t otherwise)
{
    const auto at = settings.find(name);
    return at != settings.end() ? std::stoull(at->second) : otherwise;
}

std::string text(const char *name)
{
    const auto at = settings.find(name);
    if (at == settings.end())
        fail(std::string(name) + "= is missing");
    return at->second;
}

/* ---- Figures ---- */

uint64_t processor_time()
{
    rusage used{};
    getrusage(RUSAGE_SELF, &used);
    const auto in_ns = [](const timeval &t) {
        return static_cast<uint64_t>(t.tv_sec) * 1000000000 + static_cast<uint64_t>(t.tv_usec) * 1000;
    };
    return in_ns(used.ru_utime) + in_ns(used.ru_stime);
}

/* Not ru_maxrss: that begins with what the process had before it became this program. */
uint64_t peak_memory_kib()
{
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);)
        if (line.starts_with("VmHWM:"))
            return std::stoull(line.substr(line.find_first_of("0123456789")));
    fail("no VmHWM");
}

uint64_t percentile(const std::vector<uint64_t> &sorted, size_t perMille)
{
    return sorted.empty() ? 0 : sorted[std::min(sorted.size() - 1, sorted.size() * perMille / 1000)];
}

struct figures {
    uint64_t events = 0, first = 0, last = 0, processor = 0, lost = 0, disordered = 0;
    std::vector<uint64_t> latencies;
};

void print(figures &f)
{
    f.latencies.erase(f.latencies.begin(),
                      f.latencies.begin() + static_cast<ptrdiff_t>(f.latencies.size() / 20)); /* warming up */
    std::sort(f.latencies.begin(), f.latencies.end());
    printf(
        "{\"events\": %lu, \"first\": %lu, \"last\": %lu, \"cpu\": %lu, \"lost\": %lu, \"disordered\": %lu, "
        "\"p50\": %lu, \"p99\": %lu, \"memory\": %lu}\n",
        f.events, f.first, f.last, f.processor, f.lost, f.disordered, percentile(f.latencies, 500),
        percentile(f.latencies, 990), peak_memory_kib());
    fflush(stdout);
}

/* ---- Bodies ---- */

struct body_head {
    char mark[sizeof(bodyMark) - 1];
    uint64_t sequence;
    uint64_t time;
};

void stamp(std::string &body, uint64_t sequence)
{
    if (body.size() < sizeof(body_head))
        return;
    body_head head{};
    memcpy(head.mark, bodyMark, sizeof(head.mark));
    head.sequence = sequence;
    head.time = nanoseconds();
    memcpy(body.data(), &head, sizeof(head));
}

/* ---- Publishing ---- */

/* Holds the publisher back while more than the window is under way to the slowest receiver. */
class window
{
  public:
    window() : width(number("window", 0)), slots(number("slots", 1))
    {
        if (width > 0)
            page.emplace(text("progress"));
    }

    void wait(uint64_t sequence)
    {
        if (width == 0 || sequence < known + width)
            return;
        const uint64_t begin = nanoseconds();
        /* Once held back, it waits for half of the window, so that it does not sleep for every few events. */
        while (sequence >= (known = page->least(slots)) + width / 2) {
            if (nanoseconds() - begin > 10'000'000'000)
                fail("nobody receives any more");
            const timespec pause = {0, 100000};
            nanosleep(&pause, nullptr);
        }
    }

  private:
    uint64_t width, slots, known = 0;
    std::optional<progress_page> page;
};

/* Sleeps until it is time for an event, when there is a rate. */
void keep_pace(uint64_t begin, uint64_t sequence, uint64_t rate)
{
    if (rate == 0)
        return;
    const uint64_t due = begin + sequence * 1'000'000'000 / rate;
    const timespec until = {static_cast<time_t>(due / 1'000'000'000), static_cast<long>(due % 1'000'000'000)};
    while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &until, nullptr) != 0) {
    }
}

void publish()
{
    figures f;
    f.events = number("count", 0);
    const uint64_t rate = number("rate", 0);
    std::string body(number("body", 256), 'x');
    window limit;
    const uint64_t before = processor_time();
    f.first = nanoseconds();
    for (uint64_t i = 0; i < f.events; i++) {
        keep_pace(f.first, i, rate);
        limit.wait(i);
        stamp(body, i);
        peer_publish(body);
    }
    peer_flush();
    f.last = nanoseconds();
    f.processor = processor_time() - before;
    print(f);
    _exit(0);
}

/* ---- Subscribing ---- */

figures found;
uint64_t wanted = 0, slot = 0, nextSequence = 0, processorBefore = 0;
bool takesLatency = false;
std::atomic<uint64_t> taken{0};
std::optional<progress_page> page;

void print_found()
{
    found.processor = processor_time() - processorBefore;
    found.lost = wanted - found.events;
    print(found);
    _exit(0);
}

void verify(const event &e)
{
    if (e.type != eventType)
        fail("an event of type " + std::string(e.type));
    for (size_t i = 0; i < propertyCount; i++)
        if (e.values[i] != propertyValues[i])
            fail("a property " + std::string(propertyNames[i]) + " of " + std::string(e.values[i]));
}

void look_at(std::string_view body, uint64_t now)
{
    body_head head{};
    memcpy(&head, body.data(), sizeof(head));
    if (memcmp(head.mark, bodyMark, sizeof(head.mark)) != 0)
        fail("a body that is not ours");
    found.disordered += head.sequence < nextSequence;
    nextSequence = head.sequence + 1;
    if (takesLatency)
        found.latencies.push_back(now - head.time);
}

bool take(const event &e)
{
    const uint64_t now = nanoseconds();
    verify(e);
    if (e.body.size() >= sizeof(body_head))
        look_at(e.body, now);
    if (found.events++ == 0)
        found.first = now;
    found.last = now;
    taken.store(found.events, std::memory_order_relaxed);
    page->set(slot, found.events);
    return found.events < wanted;
}

/* Ends the program when nothing comes any more: then the rest is lost. */
void watch()
{
    constexpr int patienceSeconds = 15;
    uint64_t before = 0;
    for (int idle = 0; idle < patienceSeconds;) {
        sleep(1);
        const uint64_t now = taken.load(std::memory_order_relaxed);
        idle = now != before ? 0 : idle + 1;
        before = now;
    }
    print_found();
}

void subscribe()
{
    wanted = number("count", 0);
    slot = number("slot", 0);
    takesLatency = number("latency", 0) != 0;
    if (takesLatency)
        found.latencies.reserve(wanted);
    page.emplace(text("progress"));
    std::vector<std::string> types = {std::string(eventType)};
    for (uint64_t i = 1; i < number("types", 1); i++)
        types.push_back("/bench/other/" + std::to_string(i));
    peer_subscribe(types);
    puts("ready");
    fflush(stdout);
    std::thread(watch).detach();
    processorBefore = processor_time();
    peer_receive(take);
    print_found();
}

/* ---- Calls ---- */

void serve()
{
    peer_serve([] {
        puts("ready");
        fflush(stdout);
    });
}

void take_response(figures &f)
{
    const std::string_view response = peer_response();
    body_head head{};
    require(response.size() >= sizeof(head), "the response");
    memcpy(&head, response.data(), sizeof(head));
    if (head.sequence != f.events)
        fail("a response out of order");
    f.latencies.push_back(nanoseconds() - head.time);
    f.events++;
}

void call()
{
    const uint64_t count = number("count", 0), outstanding = number("outstanding", 1);
    std::string body(number("body", 256), 'x');
    figures f;
    peer_prepare_calls();
    const uint64_t before = processor_time();
    f.first = nanoseconds();
    for (uint64_t i = 0; i < count; i++) {
        stamp(body, i);
        peer_call(body);
        if (i + 1 >= outstanding)
            take_response(f);
    }
    while (f.events < count)
        take_response(f);
    f.last = nanoseconds();
    f.processor = processor_time() - before;
    print(f);
    _exit(0);
}

} // namespace

int main(int argc, char **argv)
{
    for (int i = 2; i < argc; i++) {
        const std::string word = argv[i];
        const size_t at = word.find('=');
        require(at != std::string::npos, argv[i]);
        settings[word.substr(0, at)] = word.substr(at + 1);
    }
    const std::string role = argc > 1 ? argv[1] : "";
    const std::map<std::string, void (*)()> roles = {
        {"publish", publish}, {"subscribe", subscribe}, {"serve", serve}, {"call", call}};
    if (roles.count(role) == 0)
        fail("publish, subscribe, serve or call?");
    peer_open({text("address"), number("at_once", 0) != 0});
    roles.at(role)();
    return 0;
}
