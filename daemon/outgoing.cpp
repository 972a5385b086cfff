/* Encoders. Nothing here looks at sockets or at who receives what. */
#include "outgoing.h"

#include <charconv>
#include <iterator>

namespace zebd
{

std::array<std::string_view, outgoing_pieces> outgoing_bytes(const outgoing &item)
{
    if (item.shared == nullptr)
        return {item.text};
    const std::string_view addresses = item.shared->addresses;
    return {item.shared->before,
            item.text,
            item.shared->after,
            item.shared->body,
            addresses.substr(0, item.leftOut.offset),
            addresses.substr(item.leftOut.offset + item.leftOut.length)};
}

size_t outgoing_size(const outgoing &item)
{
    size_t size = 0;
    for (const std::string_view piece : outgoing_bytes(item))
        size += piece.size();
    return size;
}

static void append_number(std::string &text, int64_t value)
{
    char digits[24];
    const auto end = std::to_chars(digits, std::end(digits), value);
    text.append(digits, end.ptr);
}

/* The names of the two time headers have twelve characters because clients skip that many without reading
 * them. */
static void append_times(std::string &text, int64_t created, int64_t delivered)
{
    text += "creationTime: ";
    append_number(text, created);
    text += "\r\ndeliveryTime: ";
    append_number(text, delivered);
    text += "\r\n";
}

static void append_lengths(std::string &text, size_t body, size_t addresses)
{
    text += "Content-Length: ";
    append_number(text, static_cast<int64_t>(body));
    text += "\r\nAddrList-Length: ";
    append_number(text, static_cast<int64_t>(addresses));
    text += "\r\n\r\n";
}

/* All that stands before the receiver's identifier. */
static std::string_view opening_of(event_class cls)
{
    static const auto openings = [] {
        std::array<std::string, static_cast<size_t>(event_class::leave_group) + 1> texts;
        for (size_t i = 0; i < texts.size(); i++)
            texts[i] = "POST /event HTTP/1.1\r\nclassName: " +
                       std::string(event_class_name(static_cast<event_class>(i))) + "\r\nSubscriberID: ";
        return texts;
    }();
    return openings[static_cast<size_t>(cls)];
}

/* Room for the lines of times and lengths with the largest numbers. */
static constexpr size_t numberLines = 160;

std::shared_ptr<const encoded_event> encode_event(std::shared_ptr<const event> source, int64_t deliveredAt,
                                                  std::string addresses)
{
    auto result = std::make_shared<encoded_event>();
    result->before = opening_of(source->cls);
    std::string &after = result->after;
    after.reserve(source->identity.length + source->origin.length + numberLines);
    after += "\r\n";
    after += source->text(source->identity);
    append_times(after, source->takenAt, deliveredAt);
    after += source->text(source->origin);
    append_lengths(after, source->body.length, addresses.size());
    result->addresses = std::move(addresses);
    result->body = source->text(source->body);
    result->source = std::move(source);
    return result;
}

outgoing outgoing_event(std::shared_ptr<const encoded_event> shared, int32_t subscriber)
{
    return {std::move(shared), std::to_string(subscriber)};
}

/* The length differs between receivers, so the whole header is their own text. */
outgoing outgoing_members(std::shared_ptr<const encoded_event> shared, slice leftOut, int32_t subscriber,
                          const member_notice &notice)
{
    const event_class cls = notice.delta ? event_class::membership_delta : event_class::membership_list;
    std::string text(opening_of(cls));
    append_number(text, subscriber);
    text += "\r\neventType: /ZEB/SYSTEM/MEMBERS\r\neventId: " + notice.id + "\r\n";
    append_times(text, notice.at, notice.at);
    append_lengths(text, 0, shared->addresses.size() - leftOut.length);
    return {std::move(shared), std::move(text), false, leftOut};
}

outgoing outgoing_status(int32_t subscriber, bool success, std::string_view words)
{
    std::string text = "POST /status HTTP/1.1\r\nResult: ";
    text += success ? "success" : "failure";
    text += "\r\nSubscriberID: " + std::to_string(subscriber) + "\r\nMessage: ";
    text += words;
    text += "\r\n\r\n";
    return {nullptr, std::move(text)};
}

outgoing outgoing_connect_reply(const daemon_identity &identity, connection_id connection,
                                std::string_view refusal)
{
    std::string text = "POST /connect HTTP/1.1\r\nVersion: 4\r\nResult: ";
    text += refusal.empty() ? "success" : "failure";
    text += "\r\nMessage: ";
    text += refusal.empty() ? "connected" : refusal;
    text += "\r\nDaemon: zebd " + identity.version;
    text += "\r\nNode: " + identity.node;
    text += "\r\nIncarnation: " + std::to_string(identity.incarnation);
    text += "\r\nConnection: " + std::to_string(connection);
    text += "\r\ninstanceName: " + identity.instance + "\r\n\r\n";
    return {nullptr, std::move(text)};
}

} // namespace zebd
