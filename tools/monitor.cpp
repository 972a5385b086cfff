/* zeb monitor: every event that the daemon routes, or everything that passes between it and one client. */
#include "admin.h"
#include "stop.h"
#include "text.h"
#include "verbs.h"

#include <cmath>

namespace tool
{

static std::string text_in(const json &value, const char *name)
{
    const auto at = value.find(name);
    if (at == value.end())
        return "-";
    const std::string text = at->is_string() ? at->get<std::string>() : at->dump();
    return text.empty() ? "-" : escaped(text);
}

/* "FROM TYPE COMPONENT CLASS OCTETS -> CONNECTION/SUBSCRIBER ..." */
static std::string event_text(const json &event)
{
    std::string line = text_in(event, "from") + " " + text_in(event, "type") + " " +
                       text_in(event, "component") + " " + text_in(event, "class") + " " +
                       text_in(event, "octets") + " ->";
    if (!event.contains("receivers") || event["receivers"].empty())
        line += " nobody";
    else
        for (const json &to : event["receivers"])
            line += " " + text_in(to, "connection") + "/" + text_in(to, "subscriber");
    if (event.value("directed", false))
        line += " directed";
    if (event.value("dropped", 0) > 0)
        line += " dropped " + text_in(event, "dropped");
    return line;
}

static std::string trace_text(const json &trace)
{
    std::string line = text_in(trace, "direction");
    for (const char *name : {"message", "class", "type", "subscriber", "octets"})
        if (trace.contains(name))
            line += " " + text_in(trace, name);
    return trace.value("taken", true) ? line : line + " dropped";
}

static std::string readable(const json &line)
{
    if (line.contains("event"))
        return event_text(line["event"]);
    if (line.contains("trace"))
        return trace_text(line["trace"]);
    return "lost " + text_in(line, "lost");
}

static exit_code follow(const common_options &common, const monitor_options &options, admin_connection &admin)
{
    const double until = options.seconds > 0 ? steady_clock() + options.seconds : HUGE_VAL;
    for (int64_t shown = 0; options.count == 0 || shown < options.count; shown++) {
        json line;
        const exit_code code = admin_next(admin, until, line);
        if (code == exit_time_out)
            return options.count == 0 ? exit_done : exit_partly;
        if (code != exit_done)
            return code;
        put(common.json ? line_of(line) : readable(line) + "\n");
        if (line.contains("trace") && line["trace"].value("direction", "") == "end")
            return exit_done;
    }
    return exit_done;
}

exit_code monitor(const common_options &common, const monitor_options &options)
{
    watch_signals();
    admin_connection admin;
    json question = {{"ask", "monitor"}};
    if (options.connection != 0)
        question = {{"ask", "trace"}, {"connection", options.connection}};
    json answer;
    exit_code code = admin_open(common, admin);
    if (code == exit_done)
        code = admin_ask(admin, question, answer);
    if (code == exit_done && common.verbose)
        say("watching");
    return code == exit_done ? follow(common, options, admin) : code;
}

} // namespace tool
