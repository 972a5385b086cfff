/* The addresses of subscribers: their keys, their octets and how lists of them travel. Clients get addresses
 * from the daemon and echo them when an event is to go to chosen subscribers; what they echo is checked here
 * octet by octet before anything is believed.
 *
 * A list travels as a tree of named segments: a signature, then records without a count. A segment is tag 1,
 * the length of its name counting a final NUL, the name with it, and the depth; an element is tag 2 and twice
 * a length and that many octets with a NUL behind them that does not count. Lengths have 16 bits, big end
 * first. Each address is a segment of depth 0; the second letter of its name says in which role. */
#pragma once

#include "subscriber.h"
#include "subscription.h"

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace zebd
{

/* Where one address stands in a list. */
struct address_place {
    uint64_t serial = 0;
    slice run;
};

struct address_list {
    std::string octets; /* empty while nothing is in it */
    std::vector<address_place> places;
    std::string role; /* of the last one */
    size_t number = 0;
};

/* The roles; all but the source are followed by a number that begins with 0. */
inline constexpr std::string_view roleSource = "srcAddr", roleDestination = "dstAddr", roleMember = "mbrAddr",
                                  roleAdded = "addAddr", roleRemoved = "delAddr";

/* Appends the address of MEMBER. Addresses of one role are added one after the other. */
void address_list_add(address_list &list, std::string_view role, const subscriber &member);

/* Sets id, key and records of MEMBER, whose serial, connection and request are set. Returns false when a text
 * is too long to travel, with WHY in one line. */
bool address_complete(subscriber &member, const daemon_identity &identity, std::string &why);

/* MEMBER as interests see it. It borrows from all three. */
subject address_subject(const subscriber &member, const daemon_identity &identity,
                        std::vector<property_view> &properties);

/* Reads the list of destinations that a client sent, into the octets of each address, which stay inside LIST.
 * False when anything in it is not as it must be, with WHY in one line. */
bool address_list_read(std::string_view list, std::vector<std::string_view> &addresses, std::string &why);

enum class address_form : uint8_t {
    mine,      /* may be that of a subscriber here */
    elsewhere, /* well formed, but of another daemon or an earlier start of this one */
    malformed
};

/* Takes the octets of an address apart; SERIAL and CONNECTION are set for `mine`. */
address_form address_read(std::string_view octets, const daemon_identity &identity, uint64_t &serial,
                          connection_id &connection);

} // namespace zebd
