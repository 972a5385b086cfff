/* The engine: who subscribes to what, and where an event goes. It knows connections only as numbers and
 * writes only through its outlet, so it runs without a socket.
 *
 * Its seam has four calls, the same for everything that can stand behind it, local clients or one day other
 * hosts: `up` and `down` for subscribers that come and go, `publish` for an event for whomever it concerns,
 * `send_to` for an event to receivers that are known.
 *
 * The outlet must not call back into the engine: it queues and returns. One thread. */
#pragma once

#include "index.h"
#include "membership.h"
#include "message.h"
#include "outgoing.h"
#include "subscriber.h"

#include <cstdint>
#include <map>
#include <memory>
#include <span>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

namespace zebd
{

/* Sees every event that is routed; for monitoring. Null while nobody looks. */
struct observer {
    void *context = nullptr;
    /* RECEIVERS by serial, without those that are gone; DROPPED of them were not taken by the outlet. */
    void (*routed)(void *context, connection_id from, const event &what, std::span<const uint64_t> receivers,
                   size_t dropped) = nullptr;
};

struct engine_limits {
    language_limits language;
    size_t subscribers = 100000;             /* of one connection */
    size_t streams = 1024;                   /* open streams of one connection */
    size_t streamKeys = size_t{1024} * 1024; /* octets of their keys together */
    size_t address = size_t{256} * 1024;     /* octets of one subscriber's address */
    size_t kept = size_t{512} * 1024 * 1024; /* as engine_octets() counts, so of any list of members */
};

/* A stream published here, whose end has not come yet. */
struct open_stream {
    std::vector<uint64_t> receivers; /* the serials that got the head */
    size_t octets = 0;               /* about what it keeps */
};

struct engine_connection {
    std::map<int32_t, uint64_t> subscribers; /* identifier to serial */
    text_map<open_stream> streams;           /* by stream key */
    size_t streamKeys = 0;                   /* octets of these */
    std::unordered_set<size_t> refused;      /* hashes of the keys of streams whose head was refused */
};

struct engine_counters {
    uint64_t taken = 0;          /* events that came in */
    uint64_t delivered = 0;      /* event copies that the outlet took */
    uint64_t dropped = 0;        /* event copies that it did not take */
    uint64_t unroutable = 0;     /* without destination, of a class that is never broadcast */
    uint64_t addressGone = 0;    /* destinations of directed events that could not be found */
    uint64_t streamsRefused = 0; /* pieces of streams for which there was no room at their beginning */
    uint64_t subscribersRefused = 0;
};

struct engine {
    outlet out;
    observer watch;
    int64_t (*now)() = nullptr; /* milliseconds since 1970 */
    daemon_identity identity;   /* told to clients, and part of every address */
    engine_limits limits;

    uint64_t lastSerial = 0;
    subscriber_table subscribers;
    size_t subscriberOctets = 0; /* of all subscribers, without what they subscribe to */
    size_t streamOctets = 0;     /* of all open streams */
    membership members;
    std::unordered_map<connection_id, engine_connection> connections; /* those with subscribers or streams */
    subscription_index index;
    engine_counters counters;
    std::vector<uint64_t> receivers;            /* of the event at hand; kept for its room */
    std::vector<property_view> properties;      /* likewise */
    std::vector<std::string_view> destinations; /* likewise */
};

/* About how much memory is kept for subscribers, their subscriptions and interests, and open streams. */
size_t engine_octets(const engine &engine);

/* Registers a subscriber of CONNECTION, in place of one with the same identifier. Returns false when it is
 * refused; WHY then says so in one line. A refused one is not registered, nor is what it was to replace. */
bool engine_up(engine &engine, connection_id connection, subscribe_request request, std::string &why);

/* Forgets one subscriber of CONNECTION; an unknown one is ignored, since clients may unsubscribe twice. */
void engine_down(engine &engine, connection_id connection, int32_t id);

/* Forgets everything of CONNECTION. */
void engine_connection_gone(engine &engine, connection_id connection);

/* Routes an event without destination addresses that CONNECTION published: to every subscriber whose
 * subscription matches, also on the same connection; a piece of a stream to those that got its head. Returns
 * false, with WHY in one line, when more streams have been refused than can be told apart from new ones. */
bool engine_publish(engine &engine, connection_id connection, const std::shared_ptr<const event> &what,
                    std::string &why);

/* Hands an event that CONNECTION published to the given subscribers and nobody else; those that are gone are
 * counted. A receiver that does not know yet of the one who sends is told of it first. */
void engine_send_to(engine &engine, connection_id connection, const std::shared_ptr<const event> &what,
                    std::span<const uint64_t> receivers);

/* Sends the membership changes gathered since the outlet was asked to wake the engine. */
void engine_flush(engine &engine);

/* Takes an event from CONNECTION and routes it, directed or not. Returns false, with WHY in one line, when
 * its list of destinations is broken: nothing that follows it can be trusted either; and as above. */
bool engine_take(engine &engine, connection_id connection, const std::shared_ptr<const event> &what,
                 std::string &why);

} // namespace zebd
