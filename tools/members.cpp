/* zeb members: who is there, and who comes and goes. The library keeps the keys of addresses to itself, so
 * this verb talks to the daemon by itself: it says connect and subscribe, and reads lists of members. */
#include "json.h"
#include "stop.h"
#include "text.h"
#include "verbs.h"
#include "wire.h"

#include <cmath>
#include <zeb.h>

namespace tool
{

struct watcher {
    const common_options &common;
    const members_options &options;
};

static std::string text_in(const json &member, const char *name)
{
    return member.contains(name) ? member[name].get<std::string>() : std::string();
}

/* "KEY COMPONENT HOST name=value ..." */
static std::string readable(const json &member)
{
    const std::string component = text_in(member, "component");
    std::string line = text_in(member, "key") + " " + (component.empty() ? "-" : escaped(component)) + " " +
                       escaped(text_in(member, "host"));
    for (const json &p : member["properties"])
        line += " " + escaped(p["name"].get<std::string>()) + "=" + escaped(p["value"].get<std::string>());
    return line;
}

static void put_member(const watcher &w, const char *mark, const char *event, const json &member)
{
    if (!w.common.json) {
        put((w.options.watch ? std::string(mark) + " " : "") + readable(member) + "\n");
        return;
    }
    json line;
    if (w.options.watch)
        line["event"] = event;
    line.update(member);
    put(line_of(line));
}

/* Everybody, from the full list that comes at the beginning, also when nobody is there. */
static exit_code put_list(const watcher &w, wire_connection &daemon)
{
    wire_event event;
    const exit_code code = wire_next(daemon, steady_clock() + wirePatience, event);
    if (code == exit_time_out)
        return interrupted() ? exit_partly : fail(code, "the daemon sent no list of members");
    for (const json &member : event.members)
        put_member(w, "", "", member);
    return code;
}

/* Lists of changes; the first one holds everybody, and does not come while nobody is there. */
static exit_code watch(const watcher &w, wire_connection &daemon)
{
    const double until = w.options.seconds > 0 ? steady_clock() + w.options.seconds : HUGE_VAL;
    for (;;) {
        wire_event event;
        const exit_code code = wire_next(daemon, until, event);
        if (code != exit_done)
            return code == exit_time_out ? exit_done : code;
        for (const json &member : event.members)
            put_member(w, "+", "join", member);
        for (const json &member : event.removed)
            put_member(w, "-", "leave", member);
    }
}

exit_code members(const common_options &common, const members_options &options)
{
    if (!is_one_line(options.interest))
        return fail(exit_usage, "an interest is one line");
    uint16_t port = 0;
    if (!find_port(common, port))
        return exit_usage;
    watch_signals();
    wire_connection daemon;
    exit_code code = wire_open(port, daemon);
    if (code == exit_done)
        code = wire_subscribe(daemon, options.interest, options.watch);
    if (code != exit_done)
        return code;
    if (!options.watch)
        return put_list({common, options}, daemon);
    if (common.verbose)
        say("watching");
    return watch({common, options}, daemon);
}

} // namespace tool
