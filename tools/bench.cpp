/* zeb bench: what the daemon can do, measured from outside through the library. */
#include "json.h"
#include "member.h"
#include "stop.h"
#include "text.h"
#include "verbs.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <thread>
#include <unistd.h>

namespace tool
{

/* Everything goes through one connection and the daemon, from a publisher to a subscriber of this process. */
struct bencher {
    const bench_options &options;
    std::string type; /* of this run alone */
    publisher_owner publisher;
    subscriber_owner subscriber;
    std::string body;
};

/* Longest silence before what is missing counts as lost. Seconds. */
static constexpr double patience = 5;

static bool publish(bencher &b, zeb_publisher *publisher, const std::string &type, double stamp)
{
    std::memcpy(b.body.data(), &stamp, sizeof(stamp));
    zeb_notification *n =
        zeb_notification_create(type.c_str(), b.body.data(), static_cast<int32_t>(b.body.size()));
    if (n != nullptr)
        zeb_publisher_publish(publisher, n);
    return n != nullptr;
}

/* The moment that the body of the next notification carries; nothing when none comes. */
static std::optional<double> next_stamp(zeb_subscriber *subscriber)
{
    zeb_notification *n = next_before(subscriber, wall_clock() + patience);
    int32_t length = 0;
    const void *body = zeb_notification_body(n, &length);
    double stamp = 0;
    const bool good = body != nullptr && length >= static_cast<int32_t>(sizeof(stamp));
    if (good)
        std::memcpy(&stamp, body, sizeof(stamp));
    if (n != nullptr)
        zeb_subscriber_relinquish(subscriber, n);
    return good ? std::optional(stamp) : std::nullopt;
}

static exit_code subscribe_to(const std::string &type, subscriber_owner &subscriber)
{
    return subscribe({("(\"@type=" + type + "\")").c_str()}, "zeb bench", subscriber);
}

static void show(const char *what, uint64_t done, uint64_t all)
{
    if (progress_is_due())
        show_progress(std::string(what) + ": " + std::to_string(done) + " of " + std::to_string(all));
}

/* ---- Throughput ---- */

/* How far the sender may be ahead: more would only measure how queues grow. */
static constexpr int64_t window = 4096;

static exit_code measure_throughput(bencher &b, json &result)
{
    const int64_t wanted = b.options.messages;
    const double began = steady_clock();
    int64_t sent = 0, received = 0;
    while (received < wanted && !interrupted()) {
        while (sent < wanted && sent < received + window && publish(b, b.publisher.get(), b.type, 0))
            sent++;
        if (!next_stamp(b.subscriber.get()))
            break;
        received++;
        show("throughput", static_cast<uint64_t>(received), static_cast<uint64_t>(wanted));
    }
    const double seconds = steady_clock() - began;
    result["messages"] = received;
    result["lost"] = sent - received;
    result["octets"] = b.options.size;
    result["seconds"] = seconds;
    result["messagesPerSecond"] = std::round(static_cast<double>(received) / seconds);
    return received == wanted ? exit_done : exit_partly;
}

/* ---- Percentiles ---- */

static void put_percentiles(std::vector<double> &samples, json &result)
{
    static constexpr std::pair<const char *, double> wanted[] = {
        {"p50", 0.5}, {"p90", 0.9}, {"p99", 0.99}, {"p99.9", 0.999}, {"max", 1}};
    std::sort(samples.begin(), samples.end());
    for (const auto &[name, part] : wanted) {
        const auto rank = static_cast<size_t>(std::ceil(part * static_cast<double>(samples.size())));
        const double value = samples.empty() ? 0 : samples[std::max<size_t>(rank, 1) - 1];
        result["microseconds"][name] = std::round(value * 1e7) / 10;
    }
}

/* ---- Latency at a fixed rate ---- */

/* Publishes by plan, whether or not answers come: a daemon that stands still must be seen in the figures.
 * Each notification carries the moment at which it was due. */
static void publish_at_rate(bencher &b, uint64_t count)
{
    const double begin = steady_clock();
    for (uint64_t i = 0; i < count && !interrupted(); i++) {
        const double due = begin + static_cast<double>(i) / b.options.rate;
        sleep_for(due - steady_clock());
        publish(b, b.publisher.get(), b.type, due);
    }
}

static exit_code measure_latency(bencher &b, json &result)
{
    const auto count = static_cast<uint64_t>(std::max(1.0, b.options.rate * b.options.seconds));
    std::thread sender([&b, count] { publish_at_rate(b, count); });
    std::vector<double> samples;
    while (samples.size() < count) {
        const std::optional<double> stamp = next_stamp(b.subscriber.get());
        if (!stamp)
            break;
        samples.push_back(steady_clock() - *stamp);
        show("latency", samples.size(), count);
    }
    sender.join();
    result["rate"] = b.options.rate;
    result["messages"] = samples.size();
    result["lost"] = count - samples.size();
    put_percentiles(samples, result);
    return samples.size() == count ? exit_done : exit_partly;
}

/* ---- Round trips ---- */

/* Sends everything that arrives at TURN back to the run's own type, until its subscriber is told to stop. */
static void send_back(bencher &b, zeb_subscriber *turn, int64_t count)
{
    for (int64_t i = 0; i < count; i++) {
        zeb_notification *n = next_before(turn, wall_clock() + patience);
        if (n == nullptr)
            return;
        int32_t length = 0;
        const void *body = zeb_notification_body(n, &length);
        zeb_notification *answer = zeb_notification_create(b.type.c_str(), body, length);
        if (answer != nullptr)
            zeb_publisher_publish(b.publisher.get(), answer);
        zeb_subscriber_relinquish(turn, n);
    }
}

static exit_code measure_trips(bencher &b, json &result)
{
    subscriber_owner turn;
    if (const exit_code code = subscribe_to(b.type + "/turn", turn); code != exit_done)
        return code;
    const int64_t wanted = b.options.trips;
    std::thread echo([&] { send_back(b, turn.get(), wanted); });
    std::vector<double> samples;
    while (samples.size() < static_cast<size_t>(wanted)) {
        publish(b, b.publisher.get(), b.type + "/turn", steady_clock());
        const std::optional<double> stamp = next_stamp(b.subscriber.get());
        if (!stamp)
            break;
        samples.push_back(steady_clock() - *stamp);
        show("round trips", samples.size(), static_cast<uint64_t>(wanted));
    }
    echo.join();
    result["trips"] = samples.size();
    put_percentiles(samples, result);
    return samples.size() == static_cast<size_t>(wanted) ? exit_done : exit_partly;
}

/* ---- All together ---- */

static std::string number(const json &value, int places)
{
    char text[32];
    std::snprintf(text, sizeof(text), "%.*f", places, value.get<double>());
    return text;
}

static std::string percentiles(const json &result)
{
    std::string text = "microseconds:";
    for (const auto &[name, value] : result["microseconds"].items())
        text += " " + name + " " + number(value, 0);
    return text;
}

static std::string readable(const json &all)
{
    std::string text;
    if (all.contains("throughput")) {
        const json &r = all["throughput"];
        text += "throughput: " + number(r["messagesPerSecond"], 0) + " notifications a second (" +
                r["messages"].dump() + " of " + r["octets"].dump() + " octets, " + number(r["seconds"], 2) +
                " s, " + r["lost"].dump() + " lost)\n";
    }
    if (all.contains("latency")) {
        const json &r = all["latency"];
        text += "latency: " + percentiles(r) + " (" + r["messages"].dump() + " at " + number(r["rate"], 0) +
                " a second, " + r["lost"].dump() + " lost)\n";
    }
    if (all.contains("roundTrips")) {
        const json &r = all["roundTrips"];
        text += "round trip: " + percentiles(r) + " (" + r["trips"].dump() + ")\n";
    }
    return text;
}

struct measurement {
    const char *name;
    bool wanted;
    exit_code (*take)(bencher &, json &);
};

static exit_code measure(bencher &b, json &all)
{
    const measurement measurements[] = {
        {"throughput", b.options.messages > 0, measure_throughput},
        {"latency", b.options.rate > 0, measure_latency},
        {"roundTrips", b.options.trips > 0, measure_trips},
    };
    exit_code worst = exit_done;
    for (const measurement &m : measurements)
        if (m.wanted && !interrupted())
            worst = std::max(worst, m.take(b, all[m.name]));
    clear_progress();
    return interrupted() ? exit_partly : worst;
}

exit_code bench(const common_options &common, const bench_options &options)
{
    exit_code code = join(common);
    if (code != exit_done)
        return code;
    watch_signals();
    bencher b{options, "/zeb/bench/" + std::to_string(getpid()), nullptr, nullptr,
              std::string(static_cast<size_t>(options.size), 'x')};
    b.publisher.reset(zeb_publisher_create("zeb bench"));
    code = subscribe_to(b.type, b.subscriber);
    if (code == exit_done) {
        json all;
        code = measure(b, all);
        put(common.json ? line_of(all) : readable(all));
    }
    b.subscriber.reset();
    b.publisher.reset();
    zeb_shutdown_nowait();
    return code;
}

} // namespace tool
