/* What the daemon does about subscriptions, without sockets: parsing them, finding those that match an event,
 * handing it out, keeping subscribers and telling them of each other. A figure whose result is wrong is
 * reported as an error.
 *
 *     bench_matching [--benchmark_filter=...]
 */
#include "common.h"

#include "engine.h"

#include <algorithm>
#include <benchmark/benchmark.h>
#include <chrono>
#include <malloc.h>
#include <optional>

using namespace zebd;

namespace
{

/* ---- Subscriptions by number ---- */

/* At least one of the first ten of each kind matches the event below. */
using text_of = std::string (*)(size_t n);

std::string own_type(size_t n)
{
    return "/app/type/" + std::to_string(n);
}

std::string type_and_value(size_t n)
{
    return "\"@type=/app/type/" + std::to_string(n % 100) + "\"&\"zone=" + std::to_string(n / 100) + "\"";
}

std::string beginning(size_t n)
{
    return "\"path~=/" + std::to_string(n) + "/**\"";
}

std::string bound(size_t n)
{
    return "\"sev>=" + std::to_string(n) + "\"";
}

/* The rest have to be asked one by one; what patterns for the type give is remembered for the next event. */
std::string type_pattern(size_t n)
{
    return "/**/" + std::to_string(n);
}

std::string value_pattern(size_t n)
{
    return "\"sev~=*" + std::to_string(n) + "\"";
}

std::string negation(size_t n)
{
    return "!\"zone!=" + std::to_string(n) + "\"";
}

/* Types, alone and with a value, and of each other kind one in a hundred. */
std::string mixture(size_t n)
{
    static constexpr text_of others[] = {beginning, bound, type_pattern, value_pattern, negation};
    if (n % 100 < std::size(others))
        return others[n % 100](n);
    return n % 2 == 0 ? type_and_value(n) : own_type(n);
}

std::string everything_there(size_t)
{
    return "/app/**";
}

/* ---- Parsing ---- */

subscription parsed(const std::string &text)
{
    subscription result;
    parse_error error;
    if (!subscription_parse(text, subject_kind::event, language_limits(), result, error))
        bench::fail(text + ": " + parse_error_text(error));
    return result;
}

void parse(benchmark::State &state, const std::string &text, const std::string &normal)
{
    subscription result;
    for ([[maybe_unused]] auto _ : state)
        benchmark::DoNotOptimize(result = parsed(text));
    if (subscription_normal_text(result, subject_kind::event) != normal)
        state.SkipWithError("it was read as another one");
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(text.size()));
}

std::string alternatives(size_t count)
{
    std::string text;
    for (size_t n = 0; n < count; n++)
        text += (n > 0 ? "|" : "") + bound(1000 + n);
    return text;
}

BENCHMARK_CAPTURE(parse, type, "/app/type/7", "\"@type=/app/type/7\"");
BENCHMARK_CAPTURE(parse, predicates, "(\"@type~=/app/**\")&(\"sev>=3\")&!(\"zone=7\")",
                  "!\"zone=7\"&\"@type~=/app/**\"&\"sev>=3\"");
BENCHMARK_CAPTURE(parse, thousand_alternatives, alternatives(1000), alternatives(1000));

/* ---- Matching ---- */

/* What was remembered for the type is forgotten before each event, if it is to be a new one. */
void match(benchmark::State &state, text_of text, bool newType = false)
{
    static constexpr property_view properties[] = {{"path", "/7/x"}, {"sev", "3"}, {"zone", "0"}};
    subject what;
    what.fields[static_cast<size_t>(field::type)] = "/app/type/7";
    what.properties = properties;

    subscription_index index;
    std::vector<uint64_t> expected, holders;
    for (size_t n = 0; n < static_cast<size_t>(state.range(0)); n++) {
        subscription sub = parsed(text(n));
        if (subscription_matches(sub, what))
            expected.push_back(n);
        index_add(index, n, std::move(sub));
    }
    size_t found = 0;
    for ([[maybe_unused]] auto _ : state) {
        if (newType)
            index.types.clear();
        holders.clear();
        index_match(index, what, holders);
        found += holders.size();
    }
    std::sort(holders.begin(), holders.end());
    if (expected.empty() || holders != expected ||
        found != expected.size() * static_cast<size_t>(state.iterations()))
        state.SkipWithError("others were found than match");
    state.SetItemsProcessed(state.iterations());
    state.counters["matches"] = static_cast<double>(holders.size());
}

void sizes(benchmark::internal::Benchmark *all)
{
    all->Arg(10)->Arg(1000)->Arg(10000);
}

BENCHMARK_CAPTURE(match, own_type, own_type)->Apply(sizes);
BENCHMARK_CAPTURE(match, type_and_value, type_and_value)->Apply(sizes);
BENCHMARK_CAPTURE(match, beginning, beginning)->Apply(sizes);
BENCHMARK_CAPTURE(match, bound, bound)->Apply(sizes);
BENCHMARK_CAPTURE(match, type_pattern, type_pattern)->Apply(sizes);
BENCHMARK_CAPTURE(match, type_pattern_new_type, type_pattern, true)->Apply(sizes);
BENCHMARK_CAPTURE(match, value_pattern, value_pattern)->Apply(sizes);
BENCHMARK_CAPTURE(match, negation, negation)->Apply(sizes);
BENCHMARK_CAPTURE(match, mixture, mixture)->Apply(sizes);

/* ---- The engine ---- */

int64_t clockNow = 1700000000000;

/* An engine whose outlet keeps what it is given. */
struct bed {
    std::vector<outgoing> sent;
    engine routing;

    bed()
    {
        routing.out = {this, keep, [](void *, uint32_t) {}};
        routing.now = [] { return clockNow; };
        routing.identity = {"0", "bench", "bench", 1};
    }

    static bool keep(void *context, connection_id, outgoing item)
    {
        static_cast<bed *>(context)->sent.push_back(std::move(item));
        return true;
    }

    void up(size_t connection, int32_t id, const std::string &subscription,
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
            bench::fail(why);
    }
};

/* An event as the reader makes it, with a body of 100 octets. */
std::shared_ptr<const event> read_event()
{
    message_reader reader;
    message_reader_feed(reader,
                        "POST /connect HTTP/1.1\r\nVersion: 4 \r\nFormFactor: abc\r\nSelfId: x\r\n\r\n"
                        "POST /event HTTP/1.1\r\nclassName: MessageNotification\r\nSubscriberID: 0\r\n"
                        "eventType: /app/type/7\r\neventId: bench:911\r\n"
                        "affectedComponents: \r\naffectedNodes: \r\n"
                        "generatingComponent: bench\r\ngeneratingProcess: bench:9\r\n"
                        "generatingNode: bench\r\ninstanceName: bench\r\nLocalOnly: false\r\n"
                        "numberOfProperties: 1\r\nsev: 3\r\nContent-Length: 100\r\n"
                        "AddrList-Length: 0\r\n\r\n" +
                            std::string(100, 'x'));
    message what;
    for (int i = 0; i < 2; i++)
        if (message_reader_next(reader, what) != read_result::complete)
            bench::fail(reader.error);
    return std::get<std::shared_ptr<event>>(what);
}

void fan_out(benchmark::State &state)
{
    bed b;
    const auto receivers = static_cast<size_t>(state.range(0));
    for (size_t n = 0; n < receivers; n++)
        b.up(1 + n, 1, everything_there(n));
    const auto what = read_event();
    std::string why;
    size_t sent = 0;
    for ([[maybe_unused]] auto _ : state) {
        b.sent.clear();
        engine_take(b.routing, 1, what, why);
        sent += b.sent.size();
    }
    if (sent != receivers * static_cast<size_t>(state.iterations()))
        state.SkipWithError("not everybody got it");
    state.SetItemsProcessed(static_cast<int64_t>(sent));
}
BENCHMARK(fan_out)->Arg(1)->Arg(100);

/* ---- Subscribers ---- */

size_t allocated()
{
    const struct mallinfo2 now = mallinfo2();
    return now.uordblks + now.hblkhd;
}

/* With what each keeps allocated. */
void subscribe(benchmark::State &state, text_of text)
{
    static constexpr size_t subscribers = 20000;
    std::optional<bed> b;
    size_t kept = 0;
    for ([[maybe_unused]] auto _ : state) {
        state.PauseTiming();
        b.reset();
        const size_t before = allocated();
        b.emplace();
        state.ResumeTiming();
        for (size_t n = 0; n < subscribers; n++)
            b->up(1 + n / 100, static_cast<int32_t>(1 + n % 100), text(n));
        kept = allocated() - before;
    }
    if (b->routing.subscribers.size() != subscribers)
        state.SkipWithError("not everybody is there");
    state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(subscribers));
    state.counters["octets"] = static_cast<double>(kept) / subscribers;
}
BENCHMARK_CAPTURE(subscribe, own_type, own_type)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(subscribe, shared, everything_there)->Unit(benchmark::kMillisecond);

/* ---- Members ---- */

std::string calculators(size_t)
{
    return "(\"/ZEB/RPC/SVR=calculator\")";
}

std::string nobody_but(size_t n)
{
    return "!(\"name=" + std::to_string(n) + "\")&\"nobody\"";
}

std::string no_calculators(size_t n)
{
    return "!(\"/ZEB/RPC/SVR=calculator\")&!(\"name=" + std::to_string(n) + "\")";
}

/* Members that join, one each millisecond. All are calculators. */
struct crowd {
    size_t members = 1000;
    size_t gathered = 50; /* so many are told of together */
    size_t watchers = 1;  /* so many, the first, watch the others */
    text_of interest = calculators;
    bool deltas = true;
};

/* How many addresses ITEM tells of; each begins with its role and a number. */
size_t addresses_in(const outgoing &item, std::string_view role)
{
    size_t count = 0;
    for (const std::string_view piece : outgoing_bytes(item))
        for (size_t at = 0; (at = piece.find(role, at)) != std::string_view::npos; at += role.size())
            count++;
    return count;
}

/* Each delta tells of others, each full list of all; only one watcher gets full lists. */
size_t addresses_told(const bed &b, bool deltas)
{
    size_t told = 0;
    for (const outgoing &item : b.sent)
        told = deltas ? told + addresses_in(item, roleAdded) : addresses_in(item, roleMember);
    return told;
}

/* Lets everybody join and be told. Returns the seconds of the longest step: nobody else is served in it. */
double gather(bed &b, const crowd &all)
{
    std::chrono::duration<double> longest{};
    const auto timed = [&](auto &&act) {
        const auto begin = std::chrono::steady_clock::now();
        act();
        longest = std::max<std::chrono::duration<double>>(longest, std::chrono::steady_clock::now() - begin);
    };
    for (size_t n = 0; n < all.members; n++) {
        clockNow++;
        timed([&] { b.up(1 + n, 1, "null", n < all.watchers ? all.interest(n) : "null", all.deltas); });
        if ((n + 1) % all.gathered == 0)
            timed([&] { engine_flush(b.routing); });
    }
    clockNow += 1000;
    while (membership_pending(b.routing.members))
        timed([&] { engine_flush(b.routing); });
    return longest.count();
}

void join(benchmark::State &state, const crowd &all)
{
    const size_t others = all.watchers * (all.members - 1);
    std::optional<bed> b;
    double longest = 0;
    for ([[maybe_unused]] auto _ : state) {
        state.PauseTiming();
        b.emplace();
        state.ResumeTiming();
        longest += gather(*b, all);
    }
    if (addresses_told(*b, all.deltas) != (all.interest == calculators ? others : 0))
        state.SkipWithError("not everybody was told of");
    size_t octets = 0;
    for (const outgoing &item : b->sent)
        octets += outgoing_size(item);
    state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(all.members));
    state.counters["octets"] = static_cast<double>(octets) / static_cast<double>(others);
    state.counters["messages"] = static_cast<double>(b->sent.size());
    state.counters["longest"] = {longest, benchmark::Counter::kAvgIterations};
}

/* The octets are those for each watcher and member. */
BENCHMARK_CAPTURE(join, deltas, crowd{})->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(join, full_lists, crowd{.deltas = false})->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(join, all_watch, crowd{.watchers = 1000})->Unit(benchmark::kMillisecond);

/* Each has an interest of its own that finds nobody: by a name, which is looked up, or only by asking all. */
BENCHMARK_CAPTURE(join, look_up, crowd{6000, 6000, 6000, nobody_but, true})->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(join, ask_all, crowd{6000, 6000, 6000, no_calculators, true})
    ->Unit(benchmark::kMillisecond);

} // namespace

BENCHMARK_MAIN();
