/* The reader is a list of steps, one for each kind of line; a message kind says which steps follow each
 * other. A step names the header it expects and has a function that takes the value. */
#include "message.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <iterator>

namespace zebd
{

static constexpr std::string_view classNames[] = {
    "MessageNotification",           "MembershipListNotification",    "MembershipDeltaNotification",
    "OutgoingStreamingNotification", "IncomingStreamingNotification", "StateGetNotification",
    "StateSetNotification",          "LeaveGroupNotification",
};

std::string_view event_class_name(event_class cls)
{
    return classNames[static_cast<size_t>(cls)];
}

bool event_class_has_origin(event_class cls)
{
    return cls == event_class::message || cls == event_class::outgoing_stream ||
           cls == event_class::incoming_stream;
}

std::string printable(std::string_view text)
{
    static constexpr char hex[] = "0123456789abcdef";
    static constexpr size_t longest = 96;
    std::string result;
    for (const char octet : text.substr(0, longest)) {
        const auto value = static_cast<unsigned char>(octet);
        if (value >= 0x20 && value < 0x7f)
            result.push_back(octet);
        else
            result += {'\\', 'x', hex[value / 16], hex[value % 16]};
    }
    return text.size() > longest ? result + "..." : result;
}

/* ---- Steps ---- */

enum step : uint8_t {
    step_request,
    step_version,
    step_form_factor,
    step_self_id,
    step_connect_end,
    step_no_content,
    step_subscription_id,
    step_subscription,
    step_component,
    step_interest,
    step_deltas,
    step_class,
    step_event_subscriber,
    step_type,
    step_event_id,
    step_affected_components,
    step_affected_nodes,
    step_generating_component,
    step_generating_process,
    step_generating_node,
    step_instance,
    step_local,
    step_property_count,
    step_property,
    step_stream_key,
    step_content_length,
    step_addresses_length,
    step_end
};

/* A line as the steps see it: the value is what follows the header name, and where it stands in the message.
 */
struct line_view {
    std::string_view value;
    slice run;    /* the value */
    size_t begin; /* of the whole line, relative to the message */
    size_t end;   /* of the whole line with its line end */
};

static bool fail(message_reader &reader, const std::string &why)
{
    reader.error = "line " + std::to_string(reader.line) + ": " + why;
    return false;
}

static bool go(message_reader &reader, step next)
{
    reader.step = next;
    return true;
}

/* Decimal digits with an optional minus, nothing else, within 32 bits. */
static bool parse_int(std::string_view text, int32_t &value)
{
    const auto result = std::from_chars(text.data(), text.data() + text.size(), value);
    return result.ec == std::errc() && result.ptr == text.data() + text.size();
}

static bool parse_bool(std::string_view text, bool &value)
{
    value = text == "true";
    return value || text == "false";
}

static bool take_count(message_reader &reader, std::string_view text, size_t limit, int32_t &value)
{
    if (!parse_int(text, value) || value < 0)
        return fail(reader, "'" + printable(text) + "' is no valid count");
    if (static_cast<size_t>(value) > limit)
        return fail(reader, std::to_string(value) + " is above the limit of " + std::to_string(limit));
    return true;
}

static event &current_event(message_reader &reader)
{
    return *std::get<std::shared_ptr<event>>(reader.current);
}

static subscribe_request *current_subscribe(message_reader &reader)
{
    return std::get_if<subscribe_request>(&reader.current);
}

static bool take_request(message_reader &reader, const line_view &line)
{
    const bool isConnect = line.value == "POST /connect HTTP/1.1";
    if (isConnect && reader.connected)
        return fail(reader, "second connect");
    if (!isConnect && !reader.connected)
        return fail(reader, "'" + printable(line.value) + "' before the connect");
    if (isConnect) {
        reader.current = connect_request();
        return go(reader, step_version);
    }
    if (line.value == "POST /event HTTP/1.1") {
        reader.current = std::make_shared<event>();
        return go(reader, step_class);
    }
    if (line.value == "POST /subscribe HTTP/1.1") {
        reader.current = subscribe_request();
        return go(reader, step_no_content);
    }
    if (line.value == "POST /unsubscribe HTTP/1.1") {
        reader.current = unsubscribe_request();
        return go(reader, step_no_content);
    }
    return fail(reader, "unknown request '" + printable(line.value) + "'");
}

static bool take_version(message_reader &reader, const line_view &line)
{
    std::string_view version = line.value;
    while (version.starts_with(' '))
        version.remove_prefix(1);
    while (version.ends_with(' '))
        version.remove_suffix(1);
    std::get<connect_request>(reader.current).version = version;
    return go(reader, step_form_factor);
}

/* The form factor is a file sent as it is, line ends included, so only the header that follows it ends it. */
static bool take_form_factor(message_reader &reader, const line_view &line)
{
    reader.formFactor = line.run.offset;
    return go(reader, step_self_id);
}

/* Lines that are not the awaited header belong to the form factor, which then goes on. */
static bool take_self_id(message_reader &reader, const line_view &line)
{
    static constexpr std::string_view name = "SelfId: ";
    if (!line.value.starts_with(name))
        return true;
    auto &request = std::get<connect_request>(reader.current);
    const size_t length = line.begin - reader.formFactor;
    request.formFactor =
        reader.in.substr(reader.start + reader.formFactor,
                         std::min(length - std::min<size_t>(length, 2), longestSelfDescription));
    request.selfId = line.value.substr(name.size(), longestSelfDescription);
    return go(reader, step_connect_end);
}

static bool take_no_content(message_reader &reader, const line_view &line)
{
    if (line.value != "0")
        return fail(reader, "only a length of 0 is allowed here");
    return go(reader, step_subscription_id);
}

static bool take_subscription_id(message_reader &reader, const line_view &line)
{
    int32_t id = 0;
    if (!parse_int(line.value, id) || id < 1)
        return fail(reader, "'" + printable(line.value) + "' is no subscriber identifier");
    if (subscribe_request *request = current_subscribe(reader)) {
        request->id = id;
        return go(reader, step_subscription);
    }
    std::get<unsubscribe_request>(reader.current).id = id;
    return go(reader, step_end);
}

static bool take_subscription(message_reader &reader, const line_view &line)
{
    current_subscribe(reader)->subscription = line.value;
    return go(reader, step_component);
}

static bool take_component(message_reader &reader, const line_view &line)
{
    current_subscribe(reader)->component = line.value;
    return go(reader, step_interest);
}

static bool take_interest(message_reader &reader, const line_view &line)
{
    current_subscribe(reader)->interest = line.value;
    return go(reader, step_deltas);
}

static bool take_deltas(message_reader &reader, const line_view &line)
{
    if (!parse_bool(line.value, current_subscribe(reader)->deltas))
        return fail(reader, "neither true nor false");
    return go(reader, step_property_count);
}

static bool take_class(message_reader &reader, const line_view &line)
{
    const auto *found = std::find(std::begin(classNames), std::end(classNames), line.value);
    if (found == std::end(classNames))
        return fail(reader, "unknown class '" + printable(line.value) + "'");
    current_event(reader).cls = static_cast<event_class>(found - std::begin(classNames));
    return go(reader, step_event_subscriber);
}

static bool take_event_subscriber(message_reader &reader, const line_view &line)
{
    event &e = current_event(reader);
    if (!parse_int(line.value, e.subscriber) || e.subscriber < 0)
        return fail(reader, "'" + printable(line.value) + "' is no subscriber identifier");
    e.identity.offset = static_cast<uint32_t>(line.end);
    return go(reader, step_type);
}

static bool take_type(message_reader &reader, const line_view &line)
{
    current_event(reader).type = line.run;
    return go(reader, step_event_id);
}

static bool take_event_id(message_reader &reader, const line_view &line)
{
    event &e = current_event(reader);
    e.id = line.run;
    e.identity.length = static_cast<uint32_t>(line.end) - e.identity.offset;
    e.origin.offset = static_cast<uint32_t>(line.end);
    return go(reader, event_class_has_origin(e.cls) ? step_affected_components : step_content_length);
}

/* The origin fields stand in the order of their steps, so each leads to the one after it. */
template <slice event::*Member>
static bool take_origin(message_reader &reader, const line_view &line)
{
    current_event(reader).*Member = line.run;
    return go(reader, static_cast<step>(reader.step + 1));
}

static bool take_local(message_reader &reader, const line_view &line)
{
    if (!parse_bool(line.value, current_event(reader).localOnly))
        return fail(reader, "neither true nor false");
    return go(reader, step_property_count);
}

static step step_after_properties(message_reader &reader)
{
    if (current_subscribe(reader) != nullptr)
        return step_end;
    return current_event(reader).cls == event_class::incoming_stream ? step_stream_key : step_content_length;
}

/* Up to so many are made room for at once, whatever has been announced. */
static constexpr size_t usualProperties = 8;

static bool take_property_count(message_reader &reader, const line_view &line)
{
    if (!take_count(reader, line.value, reader.limits.properties, reader.propertiesLeft))
        return false;
    if (reader.propertiesLeft > 0 && current_subscribe(reader) == nullptr)
        current_event(reader).properties.reserve(
            std::min<size_t>(static_cast<size_t>(reader.propertiesLeft), usualProperties));
    return go(reader, reader.propertiesLeft > 0 ? step_property : step_after_properties(reader));
}

/* What a text takes on top of its record, which holds short ones itself. */
static size_t octets_outside(const std::string &text)
{
    static constexpr size_t blockOctets = 16;
    return text.capacity() > std::string().capacity() ? text.capacity() + blockOctets : 0;
}

/* The first ": " ends the name. A name may hold a bare colon: the text that replaces a refused name does. */
static bool take_property(message_reader &reader, const line_view &line)
{
    const size_t colon = line.value.find(": ");
    if (colon == std::string_view::npos)
        return fail(reader, "'" + printable(line.value) + "' is no property");
    if (subscribe_request *request = current_subscribe(reader)) {
        const auto &[name, value] =
            request->properties.emplace_back(line.value.substr(0, colon), line.value.substr(colon + 2));
        reader.copied += octets_outside(name) + octets_outside(value);
    } else {
        const auto nameLength = static_cast<uint32_t>(colon);
        const slice name{line.run.offset, nameLength};
        const slice value{line.run.offset + nameLength + 2, line.run.length - nameLength - 2};
        current_event(reader).properties.push_back({name, value});
    }
    reader.propertiesLeft--;
    return go(reader, reader.propertiesLeft > 0 ? step_property : step_after_properties(reader));
}

static bool take_stream_key(message_reader &reader, const line_view &line)
{
    current_event(reader).streamKey = line.run;
    return go(reader, step_content_length);
}

static bool take_content_length(message_reader &reader, const line_view &line)
{
    event &e = current_event(reader);
    e.origin.length = static_cast<uint32_t>(line.begin) - e.origin.offset;
    return take_count(reader, line.value, reader.limits.body, reader.bodyLength) &&
           go(reader, step_addresses_length);
}

static bool take_addresses_length(message_reader &reader, const line_view &line)
{
    return take_count(reader, line.value, reader.limits.addresses, reader.addressesLength) &&
           go(reader, step_end);
}

/* The empty line: what is announced follows it directly. */
static bool take_end(message_reader &reader, const line_view &line)
{
    if (!line.value.empty())
        return fail(reader, "'" + printable(line.value) + "' instead of the empty line");
    const auto body = static_cast<uint32_t>(reader.bodyLength);
    const auto addresses = static_cast<uint32_t>(reader.addressesLength);
    if (auto *e = std::get_if<std::shared_ptr<event>>(&reader.current)) {
        (*e)->body = {static_cast<uint32_t>(line.end), body};
        (*e)->addresses = {static_cast<uint32_t>(line.end) + body, addresses};
    }
    reader.bodyEnd = reader.start + line.end + body + addresses;
    return true;
}

struct line_rule {
    std::string_view header; /* what the line must begin with; empty where the whole line is the value */
    bool (*take)(message_reader &, const line_view &);
};

/* In the order of the steps. */
static constexpr line_rule rules[] = {
    {"", take_request},
    {"Version: ", take_version},
    {"FormFactor: ", take_form_factor},
    {"", take_self_id},
    {"", take_end},
    {"Content-Length: ", take_no_content},
    {"SubscriberID: ", take_subscription_id},
    {"Subscription: ", take_subscription},
    {"Component: ", take_component},
    {"MbrInterest: ", take_interest},
    {"MbrDeltas: ", take_deltas},
    {"className: ", take_class},
    {"SubscriberID: ", take_event_subscriber},
    {"eventType: ", take_type},
    {"eventId: ", take_event_id},
    {"affectedComponents: ", take_origin<&event::affectedComponents>},
    {"affectedNodes: ", take_origin<&event::affectedNodes>},
    {"generatingComponent: ", take_origin<&event::component>},
    {"generatingProcess: ", take_origin<&event::process>},
    {"generatingNode: ", take_origin<&event::node>},
    {"instanceName: ", take_origin<&event::instance>},
    {"LocalOnly: ", take_local},
    {"numberOfProperties: ", take_property_count},
    {"", take_property},
    {"streamKey: ", take_stream_key},
    {"Content-Length: ", take_content_length},
    {"AddrList-Length: ", take_addresses_length},
    {"", take_end},
};
static_assert(std::size(rules) == step_end + 1);

/* ---- Lines ---- */

/* Whether an octet 0 is among those from BEGIN to END, which are ahead of the lines taken so far. Lines are
 * short, so it is looked for beyond them. */
static bool holds_zero(message_reader &reader, size_t begin, size_t end)
{
    static constexpr size_t ahead = 512;
    if (end <= reader.clean)
        return false;
    const std::string_view some = std::string_view(reader.in).substr(begin, std::max(ahead, end - begin));
    reader.clean = begin + std::min(some.find('\0'), some.size());
    return reader.clean < end;
}

/* In the form factor of a connect any octet may stand; everywhere else a line holds no NUL and ends in CR LF.
 */
static bool line_is_clean(message_reader &reader, size_t begin, size_t feed, bool carriageReturn)
{
    if (reader.step == step_form_factor || reader.step == step_self_id)
        return true;
    if (!carriageReturn)
        return fail(reader, "line feed without carriage return");
    if (holds_zero(reader, begin, feed))
        return fail(reader, "octet of value 0");
    return true;
}

/* Handles the line that ends with the line feed at FEED. */
static bool take_line(message_reader &reader, size_t feed)
{
    const size_t begin = reader.next;
    reader.next = reader.scanned = feed + 1;
    reader.line++;
    std::string_view line = std::string_view(reader.in).substr(begin, feed - begin);
    const bool carriageReturn = line.ends_with('\r');
    if (carriageReturn)
        line.remove_suffix(1);
    if (!line_is_clean(reader, begin, feed, carriageReturn))
        return false;
    const line_rule &rule = rules[reader.step];
    if (!line.starts_with(rule.header))
        return fail(reader, "'" + printable(line) + "' instead of '" + std::string(rule.header) + "'");
    line.remove_prefix(rule.header.size());
    const size_t offset = begin - reader.start + rule.header.size();
    const slice run{static_cast<uint32_t>(offset), static_cast<uint32_t>(line.size())};
    return rule.take(reader, {line, run, begin - reader.start, reader.next - reader.start});
}

/* Takes lines until the header is complete (true), more bytes are needed (false) or something is wrong (false
 * as well, with the error set). */
static bool take_header(message_reader &reader)
{
    while (reader.bodyEnd == 0) {
        const size_t feed = reader.in.find('\n', reader.scanned);
        const size_t seen = feed == std::string::npos ? reader.in.size() : feed;
        if (seen - reader.next > reader.limits.line)
            return fail(reader,
                        "followed by a line of more than " + std::to_string(reader.limits.line) + " octets");
        if (seen - reader.start > reader.limits.header)
            return fail(reader, "header of more than " + std::to_string(reader.limits.header) + " octets");
        reader.scanned = seen;
        if (feed == std::string::npos || !take_line(reader, feed))
            return false;
    }
    return true;
}

/* The bytes of the message, cut out of the buffer. One that fills most of the buffer takes it along, and what
 * follows is copied instead; so neither keeps much more memory than it needs, and a large message, for which
 * there was just enough room, is not copied. */
static std::string cut_message(message_reader &reader)
{
    if (reader.start > 0 || reader.bodyEnd + reader.bodyEnd / 4 < reader.in.capacity())
        return reader.in.substr(reader.start, reader.bodyEnd - reader.start);
    std::string raw = reader.in.substr(reader.bodyEnd);
    raw.swap(reader.in);
    raw.resize(reader.bodyEnd);
    reader.bodyEnd = 0;
    return raw;
}

static void begin_message(message_reader &reader, size_t at)
{
    reader.start = reader.next = reader.scanned = reader.clean = at;
    reader.bodyEnd = 0;
    reader.line = 0;
    reader.step = step_request;
    reader.propertiesLeft = reader.bodyLength = reader.addressesLength = 0;
    reader.copied = 0;
}

static void finish_message(message_reader &reader, message &out)
{
    if (auto *e = std::get_if<std::shared_ptr<event>>(&reader.current))
        (*e)->raw = cut_message(reader);
    reader.connected = true;
    out = std::move(reader.current);
    begin_message(reader, reader.bodyEnd);
}

/* A buffer grows to twice its room each time, whatever has been announced; but where that would be more than
 * the message needs, it gets what the message needs. */
static void make_room(message_reader &reader, size_t octets)
{
    const size_t needed = std::max(reader.in.size() + octets, reader.bodyEnd);
    const size_t room = reader.in.capacity();
    if (reader.in.size() + octets <= room || reader.bodyEnd == 0 || needed >= 2 * room)
        return;
    std::string larger;
    larger.reserve(needed); /* on the buffer itself it would double */
    larger.append(reader.in);
    reader.in.swap(larger);
}

/* Drops what has been handed out, so that the buffer holds at most one unfinished message. */
void message_reader_feed(message_reader &reader, std::string_view bytes)
{
    const size_t used = reader.start;
    reader.in.erase(0, used);
    reader.start = 0;
    reader.next -= used;
    reader.scanned -= used;
    reader.clean -= used;
    if (reader.bodyEnd != 0)
        reader.bodyEnd -= used;
    make_room(reader, bytes.size());
    reader.in.append(bytes);
}

/* A client that is silent for long keeps no buffer. */
static void release_buffer(message_reader &reader)
{
    static constexpr size_t worthKeeping = 4096;
    if (reader.start < reader.in.size() || reader.in.capacity() <= worthKeeping)
        return;
    std::string().swap(reader.in); /* an assignment would keep the memory */
    begin_message(reader, 0);
}

read_result message_reader_next(message_reader &reader, message &out)
{
    release_buffer(reader);
    if (!take_header(reader))
        return reader.error.empty() ? read_result::need_more : read_result::broken;
    if (reader.in.size() < reader.bodyEnd)
        return read_result::need_more;
    finish_message(reader, out);
    return read_result::complete;
}

bool message_reader_in_message(const message_reader &reader)
{
    return reader.in.size() > reader.start;
}

size_t message_reader_octets(const message_reader &reader)
{
    size_t octets = reader.in.capacity() + reader.copied;
    if (const auto *subscribe = std::get_if<subscribe_request>(&reader.current))
        octets += octets_outside(subscribe->subscription) + octets_outside(subscribe->component) +
                  octets_outside(subscribe->interest) +
                  subscribe->properties.capacity() * sizeof(property_list::value_type);
    else if (const auto *taken = std::get_if<std::shared_ptr<event>>(&reader.current);
             taken != nullptr && *taken != nullptr)
        octets += sizeof(event) + (*taken)->properties.capacity() * sizeof(property_slice);
    return octets;
}

} // namespace zebd
