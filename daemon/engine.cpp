#include "engine.h"

#include <algorithm>

namespace zebd
{

/* How long changes among the members are gathered, so that many who come at once are told of together. */
static constexpr uint32_t gatherMilliseconds = 50;

/* ---- Memory ---- */

/* What a subscriber or one of its properties takes in tables, beside its texts. */
static constexpr size_t tablesOfASubscriber = 512, tablesOfAProperty = 448;

/* The texts of properties stand in the request, in the address and in the table of addresses. */
static size_t octets_of(const subscriber &one)
{
    const subscribe_request &request = one.request;
    size_t octets = sizeof(subscriber) + tablesOfASubscriber + one.records.size() +
                    request.subscription.size() + request.interest.size() + 2 * request.component.size();
    for (const auto &[name, value] : request.properties)
        octets += tablesOfAProperty + 2 * (name.size() + value.size());
    return octets;
}

static size_t octets_of(std::string_view key, const std::vector<uint64_t> &receivers)
{
    return key.size() + sizeof(open_stream) + receivers.size() * sizeof(uint64_t) + 64;
}

/* What a refused stream takes until its end comes. */
static constexpr size_t octetsOfRefused = 64;

size_t engine_octets(const engine &engine)
{
    return engine.subscriberOctets + engine.index.octets + engine.members.interests.octets +
           engine.streamOctets;
}

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

static member_context context_of(const engine &engine)
{
    return {engine.subscribers, engine.identity, engine.out, engine.now(), engine.lastSerial};
}

void engine_flush(engine &engine)
{
    membership_flush(engine.members, context_of(engine));
    wake_for_members(engine);
}

/* How often a flush may ask an interest that no table answers about a change; some ten milliseconds. */
static constexpr size_t changesTimesInterests = 250000;

/* Where many join and such interests are many, the flush cannot wait for all of them. It must not come
 * between a new subscriber and the answer to it either, so it comes before the next one. */
static void flush_when_costly(engine &engine)
{
    if (engine.members.log.size() * engine.members.interests.remainder > changesTimesInterests)
        engine_flush(engine);
}

static void enter(engine &engine, candidate &&fresh)
{
    const uint64_t serial = fresh.record.serial;
    const subscriber &entered = engine.subscribers.emplace(serial, std::move(fresh.record)).first->second;
    engine.subscriberOctets += octets_of(entered);
    engine.connections[entered.connection].subscribers.emplace(entered.request.id, serial);
    index_add(engine.index, serial, std::move(fresh.events));
    membership_join(engine.members, entered, std::move(fresh.members));
}

bool engine_up(engine &engine, connection_id connection, subscribe_request request, std::string &why)
{
    flush_when_costly(engine);
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
    const int32_t id = fresh.record.request.id;
    enter(engine, std::move(fresh));
    const bool fits = engine_octets(engine) <= engine.limits.kept;
    if (!fits) { /* what it takes was not known before */
        why = "E_LIMIT 0 all subscribers together take too much memory";
        engine.counters.subscribersRefused++;
        engine_down(engine, connection, id);
    }
    wake_for_members(engine);
    return fits;
}

static void forget(engine &engine, uint64_t serial)
{
    index_remove(engine.index, serial);
    const auto at = engine.subscribers.find(serial);
    subscriber gone = std::move(at->second);
    engine.subscribers.erase(at);
    engine.subscriberOctets -= octets_of(gone);
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
    for (const auto &[key, stream] : at->second.streams)
        engine.streamOctets -= stream.octets;
    engine.streamOctets -= at->second.refused.size() * octetsOfRefused;
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

/* ---- Streams ---- */

static bool has_room_for_stream(const engine &engine, const engine_connection &from, std::string_view key)
{
    return from.streams.size() < engine.limits.streams &&
           from.streamKeys + key.size() <= engine.limits.streamKeys &&
           engine_octets(engine) + octets_of(key, {}) <= engine.limits.kept;
}

static void open_a_stream(engine &engine, engine_connection &from, std::string_view key,
                          const std::vector<uint64_t> &receivers)
{
    const size_t octets = octets_of(key, receivers);
    from.streams.emplace(key, open_stream{receivers, octets});
    from.streamKeys += key.size();
    engine.streamOctets += octets;
}

static void close_stream(engine &engine, engine_connection &from, text_map<open_stream>::iterator stream)
{
    engine.streamOctets -= stream->second.octets;
    from.streamKeys -= stream->first.size();
    from.streams.erase(stream);
}

/* Refused streams of one connection whose end has not come; the lower number holds where all memory for
 * subscribers and streams is used up. */
static constexpr size_t mostRefused = 4096, mostRefusedWithoutRoom = 64;

/* Pieces of a stream without its head would look like a whole one, so all of them are dropped. */
static bool refuse_piece(engine &engine, engine_connection &from, size_t hash, bool isEnd, std::string &why)
{
    engine.counters.streamsRefused++;
    engine.streamOctets -= from.refused.size() * octetsOfRefused;
    if (isEnd)
        from.refused.erase(hash);
    else
        from.refused.insert(hash);
    engine.streamOctets += from.refused.size() * octetsOfRefused;
    const size_t most = engine_octets(engine) <= engine.limits.kept ? mostRefused : mostRefusedWithoutRoom;
    if (from.refused.size() <= most)
        return true;
    why = "more than " + std::to_string(most) + " of its streams were refused and have not ended";
    return false;
}

/* The first piece under a key is the head of a stream and an empty one its end. */
static bool publish_piece(engine &engine, const delivery &how, const std::shared_ptr<const event> &what,
                          std::string &why)
{
    engine_connection &from = engine.connections[how.from];
    const std::string_view key = what->text(what->streamKey);
    const bool isEnd = what->body.length == 0;
    const auto open = from.streams.find(key);
    if (open != from.streams.end()) {
        hand_out(engine, how, what, open->second.receivers);
        if (isEnd)
            close_stream(engine, from, open);
        return true;
    }
    const size_t hash = text_hash()(key);
    if (from.refused.count(hash) > 0 || (!isEnd && !has_room_for_stream(engine, from, key)))
        return refuse_piece(engine, from, hash, isEnd, why);
    const std::vector<uint64_t> &receivers = find_receivers(engine, *what);
    hand_out(engine, how, what, receivers);
    if (!isEnd)
        open_a_stream(engine, from, key, receivers);
    return true;
}

bool engine_publish(engine &engine, connection_id connection, const std::shared_ptr<const event> &what,
                    std::string &why)
{
    const delivery how{connection, source_of(engine, connection, *what), false};
    if (what->cls == event_class::incoming_stream)
        return publish_piece(engine, how, what, why);
    if (what->cls == event_class::message)
        hand_out(engine, how, what, find_receivers(engine, *what));
    else
        engine.counters.unroutable++;
    return true;
}

void engine_send_to(engine &engine, connection_id connection, const std::shared_ptr<const event> &what,
                    std::span<const uint64_t> receivers)
{
    hand_out(engine, {connection, source_of(engine, connection, *what), true}, what, receivers);
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
    if (what->addresses.length == 0)
        return engine_publish(engine, connection, what, why);
    if (!resolve_destinations(engine, *what, why))
        return false;
    engine_send_to(engine, connection, what, engine.receivers);
    return true;
}

} // namespace zebd
