/* zeb sub: prints what arrives, until enough has come, the time is over or a signal says so. */
#include "render.h"
#include "verbs.h"

#include <cmath>
#include <csignal>
#include <cstdlib>
#include <ctime>
#include <zeb.h>

namespace tool
{

static volatile std::sig_atomic_t interrupted = 0;

static void on_interrupt(int)
{
    interrupted = 1;
}

static double now()
{
    timespec t{};
    clock_gettime(CLOCK_REALTIME, &t);
    return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) / 1e9;
}

static void pause_briefly()
{
    const timespec pause{0, 5000000};
    nanosleep(&pause, nullptr);
}

/* The library waits in whole seconds of the wall clock: a wait of one second ends when the second does. Where
 * that is later than UNTIL, looking again and again is the only way to be on time. */
static zeb_notification *next_before(zeb_subscriber *subscriber, double until)
{
    while (interrupted == 0 && now() < until) {
        const bool secondFits = std::floor(now()) + 1 <= until;
        zeb_notification *n = zeb_subscriber_receive(subscriber, secondFits ? 1 : 0, 1000);
        if (n != nullptr)
            return n;
        if (!secondFits)
            pause_briefly();
    }
    return nullptr;
}

static void print(const common_options &common, const sub_options &options, const zeb_notification *n)
{
    if (options.bodyOnly)
        put(body_of(n) + "\n");
    else
        put(common.json ? json_line(n) : readable_line(n));
}

/* Of a stream only the head is shown; closing it makes the library drop what follows. */
static void give_back(zeb_subscriber *subscriber, zeb_notification *n)
{
    zeb_instream *stream = zeb_notification_getInputStream(n);
    zeb_instream_close(&stream);
    zeb_subscriber_relinquish(subscriber, n);
}

static exit_code receive_all(const common_options &common, const sub_options &options,
                             zeb_subscriber *subscriber)
{
    const double until = options.seconds > 0 ? now() + options.seconds : HUGE_VAL;
    int64_t received = 0;
    while (options.count == 0 || received < options.count) {
        zeb_notification *n = next_before(subscriber, until);
        if (n == nullptr)
            break;
        received++;
        print(common, options, n);
        give_back(subscriber, n);
    }
    if (options.count == 0 || received == options.count || interrupted != 0)
        return exit_done;
    say(std::to_string(received) + " of " + std::to_string(options.count) + " notifications came");
    return received == 0 ? exit_time_out : exit_partly;
}

/* No subscriber and a text of its own means time-out; any other text is the daemon's refusal. */
static exit_code explain(const char *why)
{
    const std::string text = why == nullptr ? "" : why;
    if (text == "timedout") {
        say("the daemon did not answer the subscription");
        return exit_time_out;
    }
    say("refused: " + text);
    return exit_refused;
}

static constexpr int64_t subscribeMilliseconds = 10000;

static void watch_signals()
{
    std::signal(SIGINT, on_interrupt);
    std::signal(SIGTERM, on_interrupt);
}

exit_code sub(const common_options &common, const sub_options &options)
{
    if (options.text.find_first_of("\r\n") != std::string::npos) {
        say("a subscription is one line");
        return exit_usage;
    }
    limit_run(common.timeout);
    exit_code code = join(common);
    if (code != exit_done)
        return code;
    watch_signals();
    char *why = nullptr;
    zeb_subscriber *subscriber = zeb_subscriber_create_wtimeout(
        options.text.c_str(), options.component.c_str(), nullptr, nullptr, &why, subscribeMilliseconds);
    if (subscriber != nullptr && common.verbose)
        say("subscribed");
    code = subscriber == nullptr ? explain(why) : receive_all(common, options, subscriber);
    std::free(why);
    zeb_subscriber_close(subscriber);
    zeb_shutdown_nowait();
    return code;
}

} // namespace tool
