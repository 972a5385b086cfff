/* The client's side of the wire: bytes in, messages out. A reader is fed whatever arrived, in any pieces, and
 * yields complete messages one after the other. Everything is checked strictly: each line has its fixed
 * place, name and form, and the first thing that is wrong ends the conversation for good with a reason in
 * words.
 *
 * A conversation begins with one connect message; subscribe, unsubscribe and event messages follow in any
 * order. What a client can make the daemon keep is bounded by message_limits and by what it really sent: an
 * announced length reserves nothing. No sockets, no locks; a reader belongs to one thread. */
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

namespace zebd
{

enum class event_class : uint8_t {
    message,
    membership_list,
    membership_delta,
    outgoing_stream,
    incoming_stream,
    state_get,
    state_set,
    leave_group
};

std::string_view event_class_name(event_class cls);

/* Classes 0, 3 and 4 carry origin fields and properties, the others nothing but type and identifier. */
bool event_class_has_origin(event_class cls);

struct message_limits {
    size_t line = size_t{128} * 1024;            /* octets of one header line */
    size_t header = size_t{1024} * 1024;         /* octets of all header lines of a message */
    size_t properties = 10000;                   /* property lines of a message */
    size_t body = size_t{64} * 1024 * 1024;      /* octets of an event's body */
    size_t addresses = size_t{16} * 1024 * 1024; /* octets of an event's address list */
};

/* A run of octets inside a message. */
struct slice {
    uint32_t offset = 0, length = 0;
};

struct property_slice {
    slice name, value;
};

using property_list = std::vector<std::pair<std::string, std::string>>;

/* What is kept of each text in which a client tells about itself; they are as long as it likes. */
constexpr size_t longestSelfDescription = 4096;

struct connect_request {
    std::string version;    /* blanks around it removed */
    std::string formFactor; /* as sent: may hold any octets, line ends included; its beginning */
    std::string selfId;     /* its beginning */
};

/* An absent subscription or interest is the text "null"; the language knows it. */
struct subscribe_request {
    int32_t id = 0; /* at least 1 */
    std::string subscription, component, interest;
    bool deltas = false;
    property_list properties;
};

struct unsubscribe_request {
    int32_t id = 0;
};

/* An event keeps the message as it was read; everything else points into it. */
struct event {
    std::string raw;
    event_class cls = event_class::message;
    int32_t subscriber = 0; /* of the publishing connection, 0 for a plain publisher */
    slice type, id;
    slice affectedComponents, affectedNodes;
    slice component, process, node, instance;
    slice streamKey;
    bool localOnly = false;
    slice identity; /* the two lines of type and id */
    slice origin;   /* all lines between the id and Content-Length */
    slice body, addresses;
    int64_t takenAt = 0; /* when the daemon took it, milliseconds since 1970; set by whoever read it */

    std::vector<property_slice> properties; /* in wire order */

    std::string_view text(slice run) const
    {
        return std::string_view(raw).substr(run.offset, run.length);
    }
};

using message = std::variant<connect_request, subscribe_request, unsubscribe_request, std::shared_ptr<event>>;

enum class read_result : uint8_t { need_more, complete, broken };

struct message_reader {
    message_limits limits;
    std::string in;     /* received and not yet handed out; `start` is the message being read */
    size_t start = 0;   /* beginning of that message */
    size_t next = 0;    /* beginning of the line to come */
    size_t scanned = 0; /* no line feed between `next` and here */
    size_t clean = 0;   /* no octet 0 between `next` and here */
    size_t bodyEnd = 0; /* end of the message, once its header is complete; 0 before */

    bool connected = false; /* the connect message has been read */
    uint32_t line = 0;      /* lines of this message taken so far, the request line being the first */
    uint8_t step = 0;       /* what the next line must be */
    int32_t propertiesLeft = 0;
    int32_t bodyLength = 0, addressesLength = 0;
    size_t formFactor = 0; /* where the form factor of a connect begins */

    message current;
    size_t copied = 0; /* octets that the properties of `current` take outside their records */
    std::string error; /* why it is broken: one line of printable text */
};

/* Takes bytes in. They are copied. */
void message_reader_feed(message_reader &reader, std::string_view bytes);

/* Hands out the next complete message. After `broken` the reader must not be asked again. */
read_result message_reader_next(message_reader &reader, message &out);

/* Whether part of a message has been received, so that an end of the connection cuts it off. */
bool message_reader_in_message(const message_reader &reader);

/* The memory that it keeps for what it has received and not yet handed out. */
size_t message_reader_octets(const message_reader &reader);

/* TEXT as one printable line of moderate length, for logs: anything else is written as \xNN. */
std::string printable(std::string_view text);

} // namespace zebd
