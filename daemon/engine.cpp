#include "engine.h"

#include <algorithm>

namespace zebd
{

/* How long changes among the members are gathered, so that many who come at once are told of together. */
static constexpr uint32_t gatherMilliseconds = 50;

/* ---- Subscribers ---- */

static bool parse_texts(const engine &engine, const subscribe_request &request, subscription &events,
                        subscription &members, std::string &why)
{
    parse_error error;
    if (!subscription_parse(request.subscription, subject_kind::event, engine.limits.language, events,
                            error)) {
        why = parse_error_text(error) + " (subscription)";
        return false;
    }
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

static bool address_fits(const engine &engine, const subscriber &fresh, std::string &why)
{
    if (fresh.records.size() > engine.limits.address)
        why = "E_LIMIT 0 subscription, component and properties are too long for an address";
    else if (engine.addressOctets + fresh.records.size() > engine.limits.addresses)
        why = "E_LIMIT 0 the addresses of all subscribers are too long together";
    return why.empty();
}

/* What a subscriber is made of, checked before anything is changed. */
struct candidate {
    subscriber record;
    subscription events, members;
};

static bool accept(const engine &engine, candidate &fresh, std::string &why)
{
    why.clear();
    if (!has_room(engine, fresh.record.connection)) {
        why = "E_LIMIT 0 too many subscribers on this connection";
        return false;
    }
    return parse_texts(engine, fresh.record.request, fresh.events, fresh.members, why) &&
           address_complete(fresh.record, engine.identity, why) && address_fits(engine, fresh.record, why);
}

static void wake_for_members(engine &engine)
{
    if (membership_pending(engine.members))
        engine.out.wake(engine.out.context, gatherMilliseconds);
}

static void enter(engine &engine, candidate &&fresh)
{
    const uint64_t serial = fresh.record.serial;
    const subscriber &entered = engine.subscribers.emplace(serial, std::move(fresh.record)).first->second;
    engine.addressOctets += entered.records.size();
    engine.connections[entered.connection].subscribers.emplace(entered.request.id, serial);
    index_add(engine.index, serial, std::move(fresh.events));
    membership_join(engine.members, entered, std::move(fresh.members));
}

bool engine_up(engine &engine, connection_id connection, subscribe_request request, std::string &why)
{
    engine_down(engine, connection, request.id);
    candidate fresh;
    fresh.record.serial = engine.lastSerial + 1;
    fresh.record.connection = connection;
    fresh.record.request = std::move(request);
    if (!accept(engine, fresh, why)) {
        engine.counters.subscribersRefused++;
        return false;
    }
    engine.lastSerial++;
    enter(engine, std::move(fresh));
    wake_for_members(engine);
    return true;
}

static void forget(engine &engine, uint64_t serial)
{
    index_remove(engine.index, serial);
    const auto at = engine.subscribers.find(serial);
    subscriber gone = std::move(at->second);
    engine.subscribers.erase(at);
    engine.addressOctets -= gone.records.size();
    membership_leave(engine.members, std::move(gone));
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
    wake_for_members(engine);
}

void engine_connection_gone(engine &engine, connection_id connection)
{
    const auto at = engine.connections.find(connection);
    if (at == engine.connections.end())
        return;
    for (const auto &[id, serial] : at->second.subscribers)
        forget(engine, serial);
    engine.connections.erase(at);
    wake_for_members(engine);
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
    what.properties = properties_in_order(properties);
    return what;
}

/* The subscriber whose publisher sent the event, or null for a plain publisher. */
static const subscriber *source_of(const engine &engine, connection_id connection, const event &what)
{
    if (what.subscriber == 0)
        return nullptr;
    const auto at = engine.connections.find(connection);
    if (at == engine.connections.end())
        return nullptr;
    const auto found = at->second.subscribers.find(what.subscriber);
    return found != at->second.subscribers.end() ? &engine.subscribers.at(found->second) : nullptr;
}

static const subscriber *find(const engine &engine, uint64_t serial)
{
    const auto at = engine.subscribers.find(serial);
    return at != engine.subscribers.end() ? &at->second : nullptr;
}

/* An event on its way: what is decided once for all its receivers. */
struct delivery {
    connection_id from = 0;
    const subscriber *source = nullptr;
    bool directed = false;
};

/* Destinations beyond these octets are not told to the receivers: with a thousand of them, each copy would
 * otherwise carry a thousand addresses. */
static constexpr size_t toldDestinations = size_t{64} * 1024;

/* The addresses that go with an event: where it comes from and, if it was directed, where it went. */
static std::string addresses_of(const engine &engine, const delivery &how,
                                std::span<const uint64_t> receivers)
{
    address_list list;
    if (how.source != nullptr)
        address_list_add(list, roleSource, *how.source);
    if (!how.directed)
        return std::move(list.octets);
    for (const uint64_t serial : receivers) {
        const subscriber *receiver = find(engine, serial);
        if (receiver != nullptr && list.octets.size() + receiver->records.size() <= toldDestinations)
            address_list_add(list, roleDestination, *receiver);
    }
    return std::move(list.octets);
}

static member_context context_of(const engine &engine)
{
    return {engine.subscribers, engine.identity, engine.out, engine.now(), engine.lastSerial};
}

static void tell_before(engine &engine, const delivery &how, std::span<const uint64_t> receivers)
{
    if (how.directed && how.source != nullptr && membership_pending(engine.members))
        membership_tell_before(engine.members, context_of(engine), receivers, *how.source);
}

static void report(const engine &engine, const delivery &how, const event &what,
                   std::span<const uint64_t> receivers, size_t dropped)
{
    if (engine.watch.routed == nullptr)
        return;
    std::vector<uint64_t> present;
    for (const uint64_t serial : receivers)
        if (find(engine, serial) != nullptr)
            present.push_back(serial);
    engine.watch.routed(engine.watch.context, how.from, what, present, dropped);
}

/* The encoding is made when the first receiver is found to be there, so an event nobody wants costs none. */
static void hand_out(engine &engine, const delivery &how, const std::shared_ptr<const event> &what,
                     std::span<const uint64_t> receivers)
{
    tell_before(engine, how, receivers);
    std::shared_ptr<const encoded_event> encoded;
    size_t dropped = 0;
    for (const uint64_t serial : receivers) {
        const subscriber *receiver = find(engine, serial);
        if (receiver == nullptr) {
            engine.counters.addressGone++;
            continue;
        }
        if (encoded == nullptr)
            encoded = encode_event(what, engine.now(), addresses_of(engine, how, receivers));
        outgoing item = outgoing_event(encoded, receiver->request.id);
        item.droppable = !how.directed && what->cls == event_class::message;
        dropped += engine.out.send(engine.out.context, receiver->connection, std::move(item)) ? 0 : 1;
        engine.counters.delivered++;
    }
    engine.counters.delivered -= dropped;
    engine.counters.dropped += dropped;
    report(engine, how, *what, receivers, dropped);
}

static const std::vector<uint64_t> &find_receivers(engine &engine, const event &what)
{
    engine.receivers.clear();
    index_match(engine.index, subject_of(what, engine.properties), engine.receivers);
    return engine.receivers;
}

/* The first piece under a key is the head of a stream and an empty one its end. */
static void publish_piece(engine &engine, const delivery &how, const std::shared_ptr<const event> &what)
{
    auto &streams = engine.connections[how.from].streams;
    const std::string key(what->text(what->streamKey));
    const bool isEnd = what->body.length == 0;
    const auto open = streams.find(key);
    if (open != streams.end()) {
        hand_out(engine, how, what, open->second);
        if (isEnd)
            streams.erase(open);
        return;
    }
    if (!isEnd && streams.size() >= engine.limits.streams) {
        engine.counters.streamsRefused++;
        return;
    }
    const std::vector<uint64_t> &receivers = find_receivers(engine, *what);
    hand_out(engine, how, what, receivers);
    if (!isEnd)
        streams.emplace(key, receivers);
}

void engine_publish(engine &engine, connection_id connection, const std::shared_ptr<const event> &what)
{
    const delivery how{connection, source_of(engine, connection, *what), false};
    if (what->cls == event_class::incoming_stream)
        publish_piece(engine, how, what);
    else if (what->cls == event_class::message)
        hand_out(engine, how, what, find_receivers(engine, *what));
    else
        engine.counters.unroutable++;
}

void engine_send_to(engine &engine, connection_id connection, const std::shared_ptr<const event> &what,
                    std::span<const uint64_t> receivers)
{
    hand_out(engine, {connection, source_of(engine, connection, *what), true}, what, receivers);
}

void engine_flush(engine &engine)
{
    membership_flush(engine.members, context_of(engine));
    wake_for_members(engine);
}

/* ---- Destinations ---- */

/* The subscriber of an address, which must be the one on the connection that the address names. 0 when it is
 * not there. */
static uint64_t resolve(const engine &engine, uint64_t serial, connection_id connection)
{
    const subscriber *found = find(engine, serial);
    return found != nullptr && found->connection == connection ? serial : 0;
}

/* Sets engine.receivers from the list of destinations, each once and in its order. */
static bool resolve_destinations(engine &engine, const event &what, std::string &why)
{
    if (!address_list_read(what.text(what.addresses), engine.destinations, why))
        return false;
    engine.receivers.clear();
    std::unordered_set<uint64_t> seen;
    for (const std::string_view octets : engine.destinations) {
        uint64_t serial = 0;
        connection_id connection = 0;
        const address_form form = address_read(octets, engine.identity, serial, connection);
        if (form == address_form::malformed) {
            why = "address list: an address of " + std::to_string(octets.size()) + " octets is none";
            return false;
        }
        const uint64_t found = form == address_form::mine ? resolve(engine, serial, connection) : 0;
        if (found == 0)
            engine.counters.addressGone++;
        else if (seen.insert(found).second)
            engine.receivers.push_back(found);
    }
    return true;
}

bool engine_take(engine &engine, connection_id connection, const std::shared_ptr<const event> &what,
                 std::string &why)
{
    engine.counters.taken++;
    if (what->addresses.length == 0) {
        engine_publish(engine, connection, what);
        return true;
    }
    if (!resolve_destinations(engine, *what, why))
        return false;
    engine_send_to(engine, connection, what, engine.receivers);
    return true;
}

} // namespace zebd
