#include "admin.h"

#include "address.h"
#include "metrics.h"

#include <algorithm>
#include <charconv>
#include <map>
#include <nlohmann/json.hpp>

namespace zebd
{

using json = nlohmann::ordered_json;

static std::string line_of(const json &value)
{
    return value.dump(-1, ' ', false, json::error_handler_t::replace) + "\n";
}

static std::string answer_line(const char *name, json value)
{
    return line_of({{"ok", true}, {name, std::move(value)}});
}

std::string admin_error_line(std::string_view why)
{
    return line_of({{"ok", false}, {"error", why}});
}

/* ---- Status and counters ---- */

static json counters_of(const daemon_report &report)
{
    json counters = json::object();
    for (const counter_description &each : counter_descriptions())
        counters[std::string(each.name)] = each.value(report);
    return counters;
}

static std::string answer_status(const report_source &source)
{
    const daemon_report report = source.report(source.context);
    return answer_line("status", {{"version", report.identity.version},
                                  {"node", report.identity.node},
                                  {"instance", report.identity.instance},
                                  {"incarnation", report.identity.incarnation},
                                  {"pid", report.pid},
                                  {"port", report.port},
                                  {"uptimeSeconds", report.uptimeSeconds},
                                  {"clients", report.clients},
                                  {"subscribers", report.subscribers},
                                  {"queuedBytes", report.queuedBytes},
                                  {"subscriberBytes", report.subscriberBytes},
                                  {"unfinishedBytes", report.unfinishedBytes},
                                  {"memoryBytes", report.memoryBytes},
                                  {"counters", counters_of(report)}});
}

static std::string answer_counters(const report_source &source)
{
    return answer_line("counters", counters_of(source.report(source.context)));
}

static std::string answer_metrics(const report_source &source)
{
    return answer_line("text", metrics_text(source.report(source.context)));
}

/* ---- Clients ---- */

/* The value behind NAME in a self id like "Pid=4242; Home=/opt/app". */
static std::string_view self_id_part(std::string_view selfId, std::string_view name)
{
    const size_t at = selfId.find(name);
    if (at == std::string_view::npos)
        return {};
    selfId.remove_prefix(at + name.size());
    return selfId.substr(0, selfId.find("; "));
}

/* Null where the client did not say. */
static json pid_of(std::string_view selfId)
{
    const std::string_view text = self_id_part(selfId, "Pid=");
    int64_t pid = 0;
    const auto result = std::from_chars(text.data(), text.data() + text.size(), pid);
    return result.ec == std::errc() ? json(pid) : json();
}

static std::string answer_clients(const report_source &source)
{
    json clients = json::array();
    for (const client_report &each : source.clients(source.context))
        clients.push_back({{"id", each.id},
                           {"address", each.address},
                           {"pid", pid_of(each.selfId)},
                           {"home", self_id_part(each.selfId, "Home=")},
                           {"formFactor", each.formFactor},
                           {"subscribers", each.subscribers},
                           {"queuedBytes", each.queuedBytes},
                           {"queuedItems", each.queuedItems},
                           {"eventsIn", each.eventsIn},
                           {"eventsOut", each.eventsOut},
                           {"bytesIn", each.bytesIn},
                           {"bytesOut", each.bytesOut},
                           {"dropped", each.dropped},
                           {"connectedSeconds", each.connectedSeconds}});
    return answer_line("clients", std::move(clients));
}

/* ---- Subscribers ---- */

static json properties_of(const property_list &properties)
{
    json list = json::array();
    for (const auto &[name, value] : properties)
        list.push_back({{"name", name}, {"value", value}});
    return list;
}

static json subscriber_of(const engine &routing, const subscriber &each)
{
    return {{"key", each.key},
            {"connection", each.connection},
            {"id", each.request.id},
            {"component", each.request.component},
            {"subscription", each.request.subscription},
            {"interest", each.request.interest},
            {"deltas", each.request.deltas},
            {"filed", index_describe(routing.index, each.serial)},
            {"properties", properties_of(each.request.properties)}};
}

/* Oldest first. */
static std::vector<uint64_t> by_age(const engine &routing)
{
    std::vector<uint64_t> serials;
    for (const auto &[serial, each] : routing.subscribers)
        serials.push_back(serial);
    std::ranges::sort(serials);
    return serials;
}

static std::string answer_subscribers(const report_source &source)
{
    json subscribers = json::array();
    for (const uint64_t serial : by_age(*source.routing))
        subscribers.push_back(subscriber_of(*source.routing, source.routing->subscribers.at(serial)));
    return answer_line("subscribers", std::move(subscribers));
}

/* ---- Groups ---- */

static json watchers_of(const engine &routing, const index_entry &interest)
{
    json keys = json::array();
    std::vector<uint64_t> holders = interest.holders;
    std::ranges::sort(holders);
    for (const uint64_t serial : holders)
        keys.push_back(routing.subscribers.at(serial).key);
    return keys;
}

static json members_of(const engine &routing, const index_entry &interest,
                       const std::vector<uint64_t> &everybody)
{
    json keys = json::array();
    std::vector<property_view> properties;
    std::vector<uint64_t> found;
    const bool narrowed = address_index_find(routing.members.addresses, interest.sub, found);
    for (const uint64_t serial : narrowed ? found : everybody) {
        const subscriber &each = routing.subscribers.at(serial);
        if (subscription_matches(interest.sub, address_subject(each, routing.identity, properties)))
            keys.push_back(each.key);
    }
    return keys;
}

/* Every interest that somebody has, with those who have it and those who satisfy it, watchers among them. */
static std::string answer_groups(const report_source &source)
{
    const engine &routing = *source.routing;
    const std::vector<uint64_t> everybody = by_age(routing);
    json groups = json::array();
    for (const auto &[normal, entry] : routing.members.interests.entries)
        groups.push_back({{"interest", normal},
                          {"members", members_of(routing, *entry, everybody)},
                          {"watchers", watchers_of(routing, *entry)}});
    return answer_line("groups", std::move(groups));
}

/* ---- Requests ---- */

static std::string answer_monitor(const report_source & /*source*/)
{
    return line_of({{"ok", true}});
}

struct question {
    std::string_view name;
    std::string (*answer)(const report_source &);
    admin_follow follow = admin_follow::nothing;
};

static constexpr question questions[] = {
    {"status", answer_status},
    {"clients", answer_clients},
    {"subscribers", answer_subscribers},
    {"groups", answer_groups},
    {"counters", answer_counters},
    {"metrics", answer_metrics},
    {"monitor", answer_monitor, admin_follow::monitor},
};

static admin_answer answer_trace(const report_source &source, const json &request)
{
    const auto connection = request.find("connection");
    if (connection == request.end() || !connection->is_number_unsigned())
        return {admin_error_line("'connection' must be the number of a client")};
    const auto id = connection->get<connection_id>();
    if (!source.hasClient(source.context, id))
        return {admin_error_line("there is no client " + std::to_string(id))};
    return {line_of({{"ok", true}}), admin_follow::trace, id};
}

admin_answer admin_ask(const report_source &source, std::string_view request)
{
    const json parsed = json::parse(request, nullptr, false);
    if (!parsed.is_object())
        return {admin_error_line("a request is one JSON object in a line")};
    const auto ask = parsed.find("ask");
    if (ask == parsed.end() || !ask->is_string())
        return {admin_error_line("'ask' must be a text")};
    const auto &name = ask->get_ref<const std::string &>();
    if (name == "trace")
        return answer_trace(source, parsed);
    const auto *found = std::ranges::find(questions, name, &question::name);
    if (found == std::end(questions))
        return {admin_error_line("unknown request '" + printable(name) + "'")};
    return {found->answer(source), found->follow};
}

/* ---- Following ---- */

std::string admin_event_line(const engine &routing, connection_id from, const event &what,
                             std::span<const uint64_t> receivers, size_t dropped)
{
    json to = json::array();
    for (const uint64_t serial : receivers) {
        const auto at = routing.subscribers.find(serial);
        if (at != routing.subscribers.end())
            to.push_back({{"connection", at->second.connection}, {"subscriber", at->second.request.id}});
    }
    return line_of({{"event",
                     {{"class", event_class_name(what.cls)},
                      {"type", what.text(what.type)},
                      {"id", what.text(what.id)},
                      {"component", what.text(what.component)},
                      {"octets", what.raw.size()},
                      {"from", from},
                      {"directed", what.addresses.length > 0},
                      {"receivers", std::move(to)},
                      {"dropped", dropped}}}});
}

/* Long enough for what people read, short enough for what a line should be. */
static constexpr size_t shownHead = 8192;

/* The header lines of a message, without its body. */
static std::string_view head_of(std::string_view text)
{
    return text.substr(0, std::min(text.find("\r\n\r\n"), shownHead));
}

static json trace_base(connection_id connection, int64_t now, const char *direction)
{
    return {{"connection", connection}, {"time", now}, {"direction", direction}};
}

static void describe(json &trace, const connect_request &what)
{
    trace.update({{"message", "connect"},
                  {"version", what.version},
                  {"formFactor", what.formFactor},
                  {"selfId", what.selfId}});
}

static void describe(json &trace, const subscribe_request &what)
{
    trace.update({{"message", "subscribe"},
                  {"subscriber", what.id},
                  {"subscription", what.subscription},
                  {"component", what.component},
                  {"interest", what.interest},
                  {"deltas", what.deltas},
                  {"properties", properties_of(what.properties)}});
}

static void describe(json &trace, const unsubscribe_request &what)
{
    trace.update({{"message", "unsubscribe"}, {"subscriber", what.id}});
}

static void describe(json &trace, const std::shared_ptr<event> &what)
{
    trace.update({{"message", "event"},
                  {"class", event_class_name(what->cls)},
                  {"subscriber", what->subscriber},
                  {"type", what->text(what->type)},
                  {"id", what->text(what->id)},
                  {"octets", what->raw.size()},
                  {"head", head_of(what->raw)}});
}

std::string admin_trace_in(connection_id connection, int64_t now, const message &what)
{
    json trace = trace_base(connection, now, "in");
    std::visit([&](const auto &each) { describe(trace, each); }, what);
    return line_of({{"trace", std::move(trace)}});
}

/* "POST /status HTTP/1.1" is a status. */
static std::string_view message_name(std::string_view head)
{
    head.remove_prefix(std::min(head.find('/') + 1, head.size()));
    return head.substr(0, head.find(' '));
}

/* All pieces up to the one that completes the head. */
static std::string start_of(const outgoing &item)
{
    std::string text;
    for (const std::string_view piece : outgoing_bytes(item)) {
        text += piece.substr(0, shownHead);
        if (text.size() >= shownHead || text.find("\r\n\r\n") != std::string::npos)
            break;
    }
    return text;
}

std::string admin_trace_out(connection_id connection, int64_t now, const outgoing &item, bool taken)
{
    const std::string text = start_of(item);
    json trace = trace_base(connection, now, "out");
    trace.update({{"message", message_name(text)}});
    if (item.shared != nullptr && item.shared->source != nullptr) {
        const event &what = *item.shared->source;
        trace.update({{"class", event_class_name(what.cls)},
                      {"type", what.text(what.type)},
                      {"id", what.text(what.id)}});
    }
    trace.update({{"octets", outgoing_size(item)}, {"taken", taken}, {"head", head_of(text)}});
    return line_of({{"trace", std::move(trace)}});
}

std::string admin_trace_end(connection_id connection, int64_t now)
{
    return line_of({{"trace", trace_base(connection, now, "end")}});
}

std::string admin_lost_line(uint64_t lines)
{
    return line_of({{"lost", lines}});
}

} // namespace zebd
