#include "member.h"

#include "stop.h"
#include "text.h"

#include <cmath>
#include <cstdlib>

namespace tool
{

/* The library replaces what it cannot send by a fixed text; better to say so here. */
exit_code split_properties(const std::vector<std::string> &texts, property_pairs &pairs)
{
    for (const std::string &text : texts) {
        const size_t sign = text.find('=');
        if (sign == std::string::npos || sign == 0 || text.find(':') < sign || !is_one_line(text))
            return fail(exit_usage,
                        "'" + text + "' is no property: name=value in one line, no ':' in the name");
        pairs.emplace_back(text.substr(0, sign), text.substr(sign + 1));
    }
    return exit_done;
}

static constexpr int64_t subscribeMilliseconds = 10000;

/* No subscriber and a text of its own means time-out; any other text is the daemon's refusal. */
static exit_code explain(const std::string &why)
{
    if (why == "timedout")
        return fail(exit_time_out, "the daemon did not answer the subscription");
    return fail(exit_refused, "refused: " + why);
}

exit_code subscribe(const interest &wanted, const std::string &component, subscriber_owner &subscriber)
{
    for (const char *text : {wanted.subscription, wanted.members})
        if (!is_one_line(text_of(text)))
            return fail(exit_usage, "a subscription is one line");
    zeb_proplist *properties = zeb_proplist_create();
    if (wanted.properties != nullptr)
        for (const auto &[name, value] : *wanted.properties)
            zeb_proplist_put(properties, name.c_str(), value.c_str());
    char *why = nullptr;
    subscriber.reset(wanted.deltas ? zeb_subscriber_create_wdeltas(wanted.subscription, component.c_str(),
                                                                   wanted.members, properties, &why)
                                   : zeb_subscriber_create_wtimeout(wanted.subscription, component.c_str(),
                                                                    wanted.members, properties, &why,
                                                                    subscribeMilliseconds));
    const std::string said(text_of(why));
    std::free(why);
    zeb_proplist_destroy(&properties);
    return subscriber != nullptr ? exit_done : explain(said);
}

/* The library waits in whole seconds of the wall clock: a wait of one second ends when the second does. Where
 * that is later than UNTIL, looking again and again is the only way to be on time. */
zeb_notification *next_before(zeb_subscriber *subscriber, double until)
{
    static constexpr double pause = 0.005;
    while (!interrupted() && !output_is_gone() && wall_clock() < until) {
        const bool secondFits = std::floor(wall_clock()) + 1 <= until;
        zeb_notification *n = zeb_subscriber_receive(subscriber, secondFits ? 1 : 0, 1000);
        if (n != nullptr)
            return n;
        if (!secondFits)
            sleep_for(pause);
    }
    return nullptr;
}

} // namespace tool
