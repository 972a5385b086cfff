/* zeb pub: publishes one notification, again and again, or one for each line of standard input. */
#include "input.h"
#include "json.h"
#include "member.h"
#include "stop.h"
#include "text.h"
#include "verbs.h"

#include <cerrno>
#include <cmath>
#include <cstring>
#include <map>

namespace tool
{

/* What one notification is made of. */
struct content {
    std::string type, component, body;
    property_pairs properties;
    bool local = false;
};

struct outlet {
    const pub_options &options;
    property_pairs properties;                         /* of the command line */
    address_list receivers;                            /* of --to; null without */
    std::map<std::string, publisher_owner> publishers; /* by component */
    uint64_t published = 0;
};

/* ---- Receivers ---- */

/* The member that has KEY, from the first list of members that the daemon sends. */
static exit_code find_receiver(const std::string &key, const std::string &component, zeb_laddrlist *into)
{
    static constexpr double patience = 5;
    const std::string wanted = "(\"@key=" + replaced(key, "\"", "\"\"") + "\")";
    subscriber_owner subscriber;
    interest members;
    members.members = wanted.c_str();
    const exit_code code = subscribe(members, component, subscriber);
    if (code != exit_done)
        return code;
    zeb_notification *n = next_before(subscriber.get(), wall_clock() + patience);
    const zeb_laddrlist *found = zeb_notification_obtainMemberList(n);
    if (zeb_laddrlist_count(found) == 0)
        return fail(exit_refused, "no subscriber has the address key '" + key + "'");
    zeb_laddrlist_add(into, zeb_laddrlist_get(found, 0));
    return exit_done;
}

static exit_code find_receivers(outlet &out)
{
    if (out.options.to.empty())
        return exit_done;
    out.receivers.reset(zeb_laddrlist_create());
    for (const std::string &key : out.options.to)
        if (const exit_code code = find_receiver(key, out.options.component, out.receivers.get());
            code != exit_done)
            return code;
    return exit_done;
}

/* ---- Publishing ---- */

static exit_code check_lines(const content &c)
{
    if (c.type.empty())
        return fail(exit_usage, "the type is missing");
    if (!is_one_line(c.type) || !is_one_line(c.component))
        return fail(exit_usage, "type and component must be one line");
    return exit_done;
}

static zeb_publisher *publisher_for(outlet &out, const std::string &component)
{
    publisher_owner &publisher = out.publishers[component];
    if (publisher == nullptr)
        publisher.reset(zeb_publisher_create(component.c_str()));
    return publisher.get();
}

static exit_code publish(outlet &out, const content &c)
{
    zeb_publisher *publisher = publisher_for(out, c.component);
    zeb_notification *n =
        zeb_notification_create(c.type.c_str(), c.body.data(), static_cast<int32_t>(c.body.size()));
    if (publisher == nullptr || n == nullptr)
        return fail(exit_partly, "the notification could not be made");
    for (const property_pairs *list : {&c.properties, &std::as_const(out.properties)})
        for (const auto &[name, value] : *list)
            if (zeb_notification_setProperty(n, name.c_str(), value.c_str()) != 0)
                return fail(exit_partly, "property '" + name + "' could not be set");
    if (c.local || out.options.local)
        zeb_notification_setLocalOnly(n);
    if (out.receivers != nullptr)
        zeb_notification_setDestinationAddrs(n, out.receivers.get());
    zeb_publisher_publish(publisher, n);
    out.published++;
    return exit_done;
}

/* Pauses between two notifications; what is due by a fixed plan does not drift. */
struct pace {
    double step; /* seconds */
    double next = 0;

    void wait()
    {
        if (step <= 0)
            return;
        const double now = steady_clock();
        if (next == 0)
            next = now;
        while (!interrupted() && steady_clock() < next)
            sleep_for(next - steady_clock());
        next += step;
    }
};

static exit_code publish_repeatedly(outlet &out, const content &c)
{
    const auto wanted = static_cast<uint64_t>(out.options.repeat);
    pace plan{out.options.every / 1000};
    exit_code code = exit_done;
    while (code == exit_done && out.published < wanted) {
        plan.wait();
        if (interrupted())
            break;
        code = publish(out, c);
        if (wanted > 1 && progress_is_due())
            show_progress(std::to_string(out.published) + " of " + std::to_string(wanted) + " published");
    }
    clear_progress();
    return code;
}

static exit_code publish_lines(outlet &out, const content &like)
{
    pace plan{out.options.every / 1000};
    return for_each_line([&](std::string_view line) {
        plan.wait();
        content c = like;
        c.body = line;
        return interrupted() ? exit_done : publish(out, c);
    });
}

/* ---- JSON lines ---- */

/* A line that is no notification. */
struct bad_line {
    std::string words;
};

static std::string text_member(const json &value, const char *name, const std::string &standard)
{
    if (!value.contains(name))
        return standard;
    if (!value[name].is_string())
        throw bad_line{std::string("'") + name + "' must be a string"};
    return value[name].get<std::string>();
}

static void add_property(property_pairs &pairs, const std::string &name, const json &value)
{
    if (!value.is_string() || name.empty() || name.find(':') != std::string::npos || !is_one_line(name) ||
        !is_one_line(value.get<std::string>()))
        throw bad_line{"property '" + name + "': name and value are strings of one line, no ':' in the name"};
    pairs.emplace_back(name, value.get<std::string>());
}

static property_pairs properties_member(const json &value)
{
    property_pairs pairs;
    if (!value.contains("properties"))
        return pairs;
    const json &given = value["properties"];
    if (given.is_object())
        for (const auto &[name, text] : given.items())
            add_property(pairs, name, text);
    else if (given.is_array())
        for (const json &one : given)
            add_property(pairs, text_member(one, "name", ""), one.contains("value") ? one["value"] : json());
    else
        throw bad_line{"'properties' must be a list or an object"};
    return pairs;
}

static std::string body_member(const json &value)
{
    if (!value.contains("bodyBase64"))
        return text_member(value, "body", "");
    if (value.contains("body"))
        throw bad_line{"'body' and 'bodyBase64' exclude each other"};
    const std::optional<std::string> octets = from_base64(text_member(value, "bodyBase64", ""));
    if (!octets)
        throw bad_line{"'bodyBase64' is no base64"};
    return *octets;
}

static content content_of(const json &value, const content &like)
{
    if (!value.is_object())
        throw bad_line{"an object is expected"};
    content c;
    c.type = text_member(value, "type", like.type);
    c.component = text_member(value, "component", like.component);
    c.body = body_member(value);
    c.properties = properties_member(value);
    if (value.contains("local") && !value["local"].is_boolean())
        throw bad_line{"'local' must be true or false"};
    c.local = value.value("local", false);
    return c;
}

static exit_code publish_json(outlet &out, const content &like)
{
    uint64_t number = 0;
    pace plan{out.options.every / 1000};
    return for_each_line([&](std::string_view line) {
        number++;
        plan.wait();
        if (interrupted())
            return exit_done;
        try {
            const content c = content_of(json::parse(line), like);
            const exit_code code = check_lines(c);
            return code == exit_done ? publish(out, c) : code;
        } catch (const json::exception &) {
            return fail(exit_usage, "line " + std::to_string(number) + ": no JSON");
        } catch (const bad_line &problem) {
            return fail(exit_usage, "line " + std::to_string(number) + ": " + problem.words);
        }
    });
}

/* ---- The verb ---- */

static bool is_by_lines(const common_options &common, const pub_options &options)
{
    return options.lines || common.json;
}

static exit_code publish_all(const common_options &common, outlet &out, const content &c)
{
    exit_code code = find_receivers(out);
    if (code != exit_done)
        return code;
    if (common.json)
        code = publish_json(out, c);
    else
        code = out.options.lines ? publish_lines(out, c) : publish_repeatedly(out, c);
    if (code == exit_done && !interrupted())
        return exit_done;
    say("stopped after " + counted(out.published, "notification"));
    return out.published > 0 || interrupted() ? exit_partly : code;
}

/* The shutdown returns when everything has been written to the daemon's connection. */
exit_code pub(const common_options &common, const pub_options &options)
{
    outlet out{options, {}, nullptr, {}};
    content c{options.type, options.component, {}, {}};
    exit_code code = split_properties(options.properties, out.properties);
    if (code == exit_done && (!common.json || !c.type.empty()))
        code = check_lines(c);
    if (code == exit_done && !is_by_lines(common, options))
        code = read_body(options.body, options.file, c.body);
    if (code == exit_done)
        code = join(common);
    if (code != exit_done)
        return code;
    watch_signals();
    code = publish_all(common, out, c);
    out.publishers.clear();
    zeb_shutdown();
    if (common.verbose)
        say(counted(out.published, "notification") + " published");
    return code;
}

} // namespace tool
