/* zeb status: whether this host's daemon can be reached, which one it is, and what it says of itself. */
#include "admin.h"
#include "text.h"
#include "verbs.h"

#include <zeb.h>

namespace tool
{

/* ---- What the administration socket knows ---- */

/* A value for people: texts as they are, numbers as they are, anything else as JSON. */
static std::string shown(const json &value)
{
    return value.is_string() ? escaped(value.get<std::string>()) : value.dump();
}

/* The members of an object, each on a line of its own; objects inside it are left out. */
static std::string member_lines(const json &object)
{
    std::string text;
    for (const auto &[name, value] : object.items())
        if (!value.is_object())
            text += name + ": " + shown(value) + "\n";
    return text;
}

/* The members of an object on one line; lists of properties as name=value. */
static std::string one_line(const json &object)
{
    std::string text;
    for (const auto &[name, value] : object.items())
        text += (text.empty() ? "" : " ") + name + "=" + shown(value);
    return text + "\n";
}

struct topic {
    const char *ask, *answer; /* what is asked for, and the member of the answer that holds it */
};

static exit_code put_topic(const common_options &common, const topic &what)
{
    admin_connection admin;
    json answer;
    exit_code code = admin_open(common, admin);
    if (code == exit_done)
        code = admin_ask(admin, {{"ask", what.ask}}, answer);
    if (code != exit_done)
        return code;
    const json &value = answer[what.answer];
    if (value.is_string())
        put(value.get<std::string>());
    else if (value.is_array())
        for (const json &one : value)
            put(common.json ? line_of(one) : one_line(one));
    else
        put(common.json ? line_of(value) : member_lines(value));
    return exit_done;
}

/* What the daemon says of itself; nothing when its administration cannot be reached, which is no failure:
 * another user's daemon answers nobody else. */
static json own_words(const common_options &common, uint16_t port)
{
    for (const std::string &path : admin_paths(common, port)) {
        admin_connection admin;
        json answer;
        if (admin_try(common, path, admin) && admin_ask(admin, {{"ask", "status"}}, answer) == exit_done)
            return answer["status"];
    }
    if (common.verbose)
        say("no administration socket can be reached");
    return {};
}

/* ---- What any program sees ---- */

static json seen_from_outside(bool reachable, uint16_t port, const std::string &instance)
{
    json line;
    line["reachable"] = reachable;
    line["port"] = port;
    if (reachable)
        line["instance"] = instance;
    return line;
}

static std::string readable(json status)
{
    std::string text = status["reachable"].get<bool>() ? "daemon: reachable\n" : "daemon: not reachable\n";
    status.erase("reachable");
    return text + member_lines(status);
}

static exit_code put_status(const common_options &common)
{
    uint16_t port = 0;
    if (!find_port(common, port))
        return exit_usage;
    std::string instance;
    const exit_code code = join(port, instance);
    const bool reachable = code == exit_done;
    json status = seen_from_outside(reachable, port, instance);
    if (reachable) {
        const json told = own_words(common, port);
        if (told.is_object())
            status.update(told);
    }
    put(common.json ? line_of(status) : readable(status));
    if (reachable)
        zeb_shutdown_nowait();
    return code;
}

exit_code status(const common_options &common, const status_options &options)
{
    const std::pair<bool, topic> wanted[] = {
        {options.clients, {"clients", "clients"}}, {options.subscribers, {"subscribers", "subscribers"}},
        {options.groups, {"groups", "groups"}},    {options.counters, {"counters", "counters"}},
        {options.metrics, {"metrics", "text"}},
    };
    bool any = false;
    for (const auto &[asked, what] : wanted) {
        if (!asked)
            continue;
        any = true;
        if (const exit_code code = put_topic(common, what); code != exit_done)
            return code;
    }
    return any ? exit_done : put_status(common);
}

} // namespace tool
