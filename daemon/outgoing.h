/* What the daemon writes to clients: the connect reply, status replies, events, and lists of members.
 *
 * An event that goes to many subscribers is encoded once. Only the subscriber identifier differs between the
 * receivers, so an outgoing item is the shared encoding plus that number, and a queue holds one pointer and a
 * few octets per receiver. All texts are complete as built here; whoever queues an item writes it unchanged.
 */
#pragma once

#include "message.h"

#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

namespace zebd
{

using connection_id = uint64_t;

/* One event ready for any number of receivers. The wire has: before, the receiver's text, after, body,
 * addresses. */
struct encoded_event {
    std::string_view before; /* up to and including "SubscriberID: "; constant */
    std::string after;       /* from the line end behind the identifier to the empty line */
    std::string_view body;   /* inside `source` */
    std::string addresses;   /* the address list */
    std::shared_ptr<const event> source;
    mutable uint32_t queues = 0; /* that hold it; kept by the queues, which count it once together */
};

/* Either a text of its own, or what is shared with `text` put in. */
struct outgoing {
    std::shared_ptr<const encoded_event> shared;
    std::string text;
    bool droppable = false; /* a broadcast event of its own: a receiver's limits may take it out again */
    slice leftOut{};        /* of the shared address list: what this receiver does not get */
};

constexpr size_t outgoing_pieces = 6;

/* The octets of ITEM in the order of the wire; some pieces may be empty. They live as long as ITEM. */
std::array<std::string_view, outgoing_pieces> outgoing_bytes(const outgoing &item);
size_t outgoing_size(const outgoing &item);

/* Encodes an event: the header lines as the publisher sent them, with the two times put in, and ADDRESSES
 * instead of the publisher's own address list. */
std::shared_ptr<const encoded_event> encode_event(std::shared_ptr<const event> source, int64_t deliveredAt,
                                                  std::string addresses);

outgoing outgoing_event(std::shared_ptr<const encoded_event> shared, int32_t subscriber);

/* What the header of a list of members tells. */
struct member_notice {
    bool delta = false; /* what has changed, instead of all members */
    std::string id;
    int64_t at = 0; /* milliseconds since 1970 */
};

/* The address list of SHARED, without LEFT_OUT, as a notice to one subscriber. */
outgoing outgoing_members(std::shared_ptr<const encoded_event> shared, slice leftOut, int32_t subscriber,
                          const member_notice &notice);

/* Answers a subscribe message. WORDS is one line and never empty: a client that is refused copies it. */
outgoing outgoing_status(int32_t subscriber, bool success, std::string_view words);

/* What the connect reply tells about this daemon. */
struct daemon_identity {
    std::string version, node, instance;
    uint64_t incarnation = 0; /* differs from start to start */
};

/* Nine lines and an empty one. The third decides for the client and the ninth names the instance; the others
 * are for people and tools. REFUSAL is empty on success. */
outgoing outgoing_connect_reply(const daemon_identity &identity, connection_id connection,
                                std::string_view refusal);

/* Where everything goes that is written to clients. It must not call back: it queues and returns. */
struct outlet {
    void *context = nullptr;
    /* Queues ITEM. False when it was not taken: the connection is ending, or its limits drop the item. */
    bool (*send)(void *context, connection_id to, outgoing item) = nullptr;
    /* Asks for one engine_flush() after that many milliseconds. A request that is pending stays as it is. */
    void (*wake)(void *context, uint32_t milliseconds) = nullptr;
};

} // namespace zebd
