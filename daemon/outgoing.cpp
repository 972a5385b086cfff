/* Encoders. Nothing here looks at sockets or at who receives what. */
#include "outgoing.h"

namespace zebd
{

std::array<std::string_view, outgoing_pieces> outgoing_bytes(const outgoing &item)
{
    if (item.shared == nullptr)
        return {item.text};
    return {item.shared->before, item.text, item.shared->after, item.shared->body};
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
static std::string after_identifier(const event &source, int64_t deliveredAt)
{
    std::string text = "\r\n";
    text += source.text(source.identity);
    text += "creationTime: " + std::to_string(source.takenAt) + "\r\n";
    text += "deliveryTime: " + std::to_string(deliveredAt) + "\r\n";
    text += source.text(source.origin);
    text += "Content-Length: " + std::to_string(source.body.length) + "\r\n";
    text += "AddrList-Length: 0\r\n\r\n";
    return text;
}

std::shared_ptr<const encoded_event> encode_event(std::shared_ptr<const event> source, int64_t deliveredAt)
{
    auto result = std::make_shared<encoded_event>();
    result->before = "POST /event HTTP/1.1\r\nclassName: ";
    result->before += event_class_name(source->cls);
    result->before += "\r\nSubscriberID: ";
    result->after = after_identifier(*source, deliveredAt);
    result->body = source->text(source->body);
    result->source = std::move(source);
    return result;
}

outgoing outgoing_event(std::shared_ptr<const encoded_event> shared, int32_t subscriber)
{
    return {std::move(shared), std::to_string(subscriber)};
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

outgoing outgoing_connect_reply(const daemon_identity &identity, uint64_t connection,
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
