#include "engine.h"

namespace zebd
{

/* ---- Subscribers ---- */

static bool parse_texts(const engine &engine, const subscribe_request &request, subscription &events,
                        std::string &why)
{
    parse_error error;
    if (!subscription_parse(request.subscription, subject_kind::event, engine.limits.language, events,
                            error)) {
        why = parse_error_text(error) + " (subscription)";
        return false;
    }
    subscription members;
    if (!subscription_parse(request.interest, subject_kind::address, engine.limits.language, members,
                            error)) {
        why = parse_error_text(error) + " (membership interest)";
        return false;
    }
    return true;
}

static bool has_room(const engine &engine, connection_id connection)
{
    const auto at = engine.connections.find(connection);
    return at == engine.connections.end() || at->second.subscribers.size() < engine.limits.subscribers;
}

static bool accept(const engine &engine, connection_id connection, const subscribe_request &request,
                   subscription &events, std::string &why)
{
    if (!has_room(engine, connection)) {
        why = "E_LIMIT 0 too many subscribers on this connection";
        return false;
    }
    return parse_texts(engine, request, events, why);
}

bool engine_up(engine &engine, connection_id connection, subscribe_request request, std::string &why)
{
    engine_down(engine, connection, request.id);
    subscription events;
    if (!accept(engine, connection, request, events, why)) {
        engine.counters.subscribersRefused++;
        return false;
    }
    const uint64_t serial = ++engine.lastSerial;
    engine.connections[connection].subscribers.emplace(request.id, serial);
    engine.subscribers.emplace(serial, subscriber{serial, connection, std::move(request)});
    index_add(engine.index, serial, std::move(events));
    return true;
}

static void forget(engine &engine, uint64_t serial)
{
    index_remove(engine.index, serial);
    engine.subscribers.erase(serial);
}

void engine_down(engine &engine, connection_id connection, int32_t id)
{
    const auto at = engine.connections.find(connection);
    if (at == engine.connections.end())
        return;
    const auto found = at->second.subscribers.find(id);
    if (found == at->second.subscribers.end())
        return;
    forget(engine, found->second);
    at->second.subscribers.erase(found);
}

void engine_connection_gone(engine &engine, connection_id connection)
{
    const auto at = engine.connections.find(connection);
    if (at == engine.connections.end())
        return;
    for (const auto &[id, serial] : at->second.subscribers)
        forget(engine, serial);
    engine.connections.erase(at);
}

/* ---- Routing ---- */

static std::string_view &field_value(subject &what, field which)
{
    return what.fields[static_cast<size_t>(which)];
}

/* The event as subscriptions see it. It borrows from EVENT and from PROPERTIES. */
static subject subject_of(const event &from, std::vector<property_view> &properties)
{
    subject what;
    field_value(what, field::type) = from.text(from.type);
    field_value(what, field::event_class) = event_class_name(from.cls);
    field_value(what, field::id) = from.text(from.id);
    field_value(what, field::component) = from.text(from.component);
    field_value(what, field::node) = from.text(from.node);
    field_value(what, field::process) = from.text(from.process);
    field_value(what, field::instance) = from.text(from.instance);
    field_value(what, field::affected_components) = from.text(from.affectedComponents);
    field_value(what, field::affected_nodes) = from.text(from.affectedNodes);
    field_value(what, field::local) = from.localOnly ? "true" : "false";
    properties.clear();
    for (const property_slice &property : from.properties)
        properties.push_back({from.text(property.name), from.text(property.value)});
    what.properties = properties;
    return what;
}

/* The encoding is made when the first receiver is found to be there, so an event nobody wants costs none. */
void engine_send_to(engine &engine, const std::shared_ptr<const event> &what,
                    std::span<const uint64_t> receivers)
{
    std::shared_ptr<const encoded_event> encoded;
    for (const uint64_t serial : receivers) {
        const auto at = engine.subscribers.find(serial);
        if (at == engine.subscribers.end()) {
            engine.counters.addressGone++;
            continue;
        }
        if (encoded == nullptr)
            encoded = encode_event(what, engine.now());
        engine.counters.delivered++;
        outgoing item = outgoing_event(encoded, at->second.request.id);
        item.droppable = what->cls == event_class::message && what->addresses.length == 0;
        engine.out.send(engine.out.context, at->second.connection, std::move(item));
    }
}

static const std::vector<uint64_t> &find_receivers(engine &engine, const event &what)
{
    engine.receivers.clear();
    index_match(engine.index, subject_of(what, engine.properties), engine.receivers);
    return engine.receivers;
}

/* The first piece under a key is the head of a stream and an empty one its end. */
static void publish_piece(engine &engine, connection_id connection, const std::shared_ptr<const event> &what)
{
    auto &streams = engine.connections[connection].streams;
    const std::string key(what->text(what->streamKey));
    const bool isEnd = what->body.length == 0;
    const auto open = streams.find(key);
    if (open != streams.end()) {
        engine_send_to(engine, what, open->second);
        if (isEnd)
            streams.erase(open);
        return;
    }
    if (!isEnd && streams.size() >= engine.limits.streams) {
        engine.counters.streamsRefused++;
        return;
    }
    const std::vector<uint64_t> &receivers = find_receivers(engine, *what);
    engine_send_to(engine, what, receivers);
    if (!isEnd)
        streams.emplace(key, receivers);
}

void engine_publish(engine &engine, connection_id connection, const std::shared_ptr<const event> &what)
{
    if (what->cls == event_class::incoming_stream)
        publish_piece(engine, connection, what);
    else if (what->cls == event_class::message)
        engine_send_to(engine, what, find_receivers(engine, *what));
    else
        engine.counters.unroutable++;
}

/* Nothing is gathered yet: there are no addresses that others could be told of. */
void engine_flush(engine & /*engine*/) {}

/* Subscribers have no addresses yet, so no destination can be found; the event goes to nobody else either. */
void engine_take(engine &engine, connection_id connection, const std::shared_ptr<const event> &what)
{
    engine.counters.taken++;
    if (what->addresses.length > 0)
        engine.counters.addressGone++;
    else
        engine_publish(engine, connection, what);
}

} // namespace zebd
