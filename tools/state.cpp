/* zeb state: asks a group for its state, and holds one. */
#include "address.h"
#include "input.h"
#include "member.h"
#include "render.h"
#include "stop.h"
#include "text.h"
#include "verbs.h"

#include <cmath>

namespace tool
{

/* ---- Asking ---- */

/* Takes what arrives until the state is among it. A list of members is the time to ask: before it the library
 * knows nobody, and when the one that was asked has gone there is another. */
static exit_code ask(const common_options &common, const state_options &options, zeb_subscriber *subscriber)
{
    const double until = wall_clock() + options.wait;
    bool asked = false;
    while (zeb_notification *n = next_before(subscriber, until)) {
        const uint32_t cls = zeb_notification_getClass(n);
        if (cls == ZEB_CLASS_MEMBERSHIPLIST)
            asked = zeb_subscriber_getState(subscriber) != 0 || asked;
        const bool came = cls == ZEB_CLASS_STATESET;
        if (came)
            put(common.json ? json_line(n, false) : body_of(n));
        zeb_subscriber_relinquish(subscriber, n);
        if (came)
            return exit_done;
    }
    if (interrupted())
        return exit_partly;
    return fail(exit_time_out, asked ? "no member answered" : "the group has no member");
}

exit_code state_get(const common_options &common, const state_options &options)
{
    property_pairs properties;
    exit_code code = split_properties(options.properties, properties);
    if (code == exit_done)
        code = join(common);
    if (code != exit_done)
        return code;
    watch_signals();
    subscriber_owner subscriber;
    code = subscribe({nullptr, options.interest.c_str(), &properties}, options.component, subscriber);
    if (code == exit_done)
        code = ask(common, options, subscriber.get());
    subscriber.reset();
    zeb_shutdown_nowait();
    return code;
}

/* ---- Keeping ---- */

static void put_answer(const common_options &common, const zeb_notification *request)
{
    const zeb_logicaladdr *address = zeb_notification_generatingAddress(request);
    if (!common.json) {
        put("asked by " + address_text(address) + "\n");
        return;
    }
    json line;
    line["event"] = "asked";
    line["by"] = address_json(address);
    put(line_of(line));
}

static exit_code keep(const common_options &common, const state_options &options, const std::string &state,
                      zeb_subscriber *subscriber)
{
    const double until = options.seconds > 0 ? wall_clock() + options.seconds : HUGE_VAL;
    int64_t answered = 0;
    while (options.count == 0 || answered < options.count) {
        zeb_notification *n = next_before(subscriber, until);
        if (n == nullptr)
            return options.count == 0 ? exit_done : exit_partly;
        if (zeb_notification_getClass(n) == ZEB_CLASS_STATEGET) {
            zeb_subscriber_returnState(subscriber, state.data(), static_cast<uint32_t>(state.size()));
            put_answer(common, n);
            answered++;
        }
        zeb_subscriber_relinquish(subscriber, n);
    }
    return exit_done;
}

exit_code state_keep(const common_options &common, const state_options &options)
{
    property_pairs properties;
    std::string state;
    exit_code code = split_properties(options.properties, properties);
    if (code == exit_done && properties.empty())
        code = fail(exit_usage, "a group is found by a property: -p NAME=VALUE");
    if (code == exit_done)
        code = read_body(options.body, options.file, state);
    if (code == exit_done)
        code = join(common);
    if (code != exit_done)
        return code;
    watch_signals();
    subscriber_owner subscriber;
    code = subscribe({nullptr, nullptr, &properties}, options.component, subscriber);
    if (code == exit_done && common.verbose)
        say("keeping " + counted(state.size(), "octet"));
    if (code == exit_done)
        code = keep(common, options, state, subscriber.get());
    subscriber.reset();
    zeb_shutdown(); /* which sends the last answer */
    return code;
}

} // namespace tool
