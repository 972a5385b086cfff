/* Encoders. Nothing here looks at sockets or at who receives what. */
#include "outgoing.h"

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

/* The names of the two time headers have twelve characters because clients skip that many without reading
 * them. */
static std::string time_lines(int64_t created, int64_t delivered)
{
    return "creationTime: " + std::to_string(created) + "\r\ndeliveryTime: " + std::to_string(delivered) +
           "\r\n";
}

static std::string length_lines(size_t body, size_t addresses)
{
    return "Content-Length: " + std::to_string(body) + "\r\nAddrList-Length: " + std::to_string(addresses) +
           "\r\n\r\n";
}

std::shared_ptr<const encoded_event> encode_event(std::shared_ptr<const event> source, int64_t deliveredAt,
                                                  std::string addresses)
{
    auto result = std::make_shared<encoded_event>();
    result->before = "POST /event HTTP/1.1\r\nclassName: ";
    result->before += event_class_name(source->cls);
    result->before += "\r\nSubscriberID: ";
    result->after = "\r\n";
    result->after += source->text(source->identity);
    result->after += time_lines(source->takenAt, deliveredAt);
    result->after += source->text(source->origin);
    result->after += length_lines(source->body.length, addresses.size());
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
    std::string text = "POST /event HTTP/1.1\r\nclassName: ";
    text += event_class_name(cls);
    text += "\r\nSubscriberID: " + std::to_string(subscriber);
    text += "\r\neventType: /ZEB/SYSTEM/MEMBERS\r\neventId: " + notice.id + "\r\n";
    text += time_lines(notice.at, notice.at);
    text += length_lines(0, shared->addresses.size() - leftOut.length);
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
