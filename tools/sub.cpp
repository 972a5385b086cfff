/* zeb sub: prints what arrives, until enough has come, the time is over or a signal says so. */
#include "member.h"
#include "render.h"
#include "stop.h"
#include "text.h"
#include "verbs.h"

#include <cmath>

namespace tool
{

struct printer {
    const common_options &common;
    const sub_options &options;
    format parts; /* with --format */
    int64_t printed = 0;
};

static std::string text_for(const printer &p, zeb_notification *n)
{
    if (p.options.bodyOnly)
        return body_of(n) + "\n";
    if (p.options.dump)
        return dump(n, p.options.blocks);
    if (p.options.format)
        return formatted(p.parts, n, static_cast<uint64_t>(p.printed));
    return p.common.json ? json_line(n, p.options.blocks) : readable_line(n, p.options.blocks);
}

static void print(printer &p, zeb_notification *n)
{
    p.printed++;
    put(text_for(p, n));
}

/* Of a stream only the head is shown; closing it makes the library drop what follows. */
static void give_back(zeb_subscriber *subscriber, zeb_notification *n)
{
    zeb_instream *stream = zeb_notification_getInputStream(n);
    zeb_instream_close(&stream);
    zeb_subscriber_relinquish(subscriber, n);
}

static exit_code receive_all(printer &p, zeb_subscriber *subscriber)
{
    const int64_t count = p.options.count;
    const double until = p.options.seconds > 0 ? wall_clock() + p.options.seconds : HUGE_VAL;
    while (count == 0 || p.printed < count) {
        zeb_notification *n = next_before(subscriber, until);
        if (n == nullptr)
            break;
        print(p, n);
        give_back(subscriber, n);
    }
    if (count == 0 || p.printed == count)
        return exit_done;
    return fail(p.printed == 0 && !interrupted() ? exit_time_out : exit_partly,
                std::to_string(p.printed) + " of " + std::to_string(count) + " notifications came");
}

exit_code sub(const common_options &common, const sub_options &options)
{
    printer p{common, options, {}};
    if (options.format) {
        std::string why;
        const std::optional<format> parts = parse_format(*options.format, why);
        if (!parts)
            return fail(exit_usage, why);
        p.parts = *parts;
    }
    if (!is_one_line(options.text))
        return fail(exit_usage, "a subscription is one line");
    exit_code code = join(common);
    if (code != exit_done)
        return code;
    watch_signals();
    subscriber_owner subscriber;
    code = subscribe({options.text.c_str()}, options.component, subscriber);
    if (code == exit_done && common.verbose)
        say("subscribed");
    if (code == exit_done)
        code = receive_all(p, subscriber.get());
    subscriber.reset();
    zeb_shutdown_nowait();
    return code;
}

} // namespace tool
