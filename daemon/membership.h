/* Who is told of whom. Every subscriber has an address; one with an interest watches the addresses of the
 * others that satisfy it. A watcher that asked for deltas gets what has changed, its first delta naming
 * everybody; any other one gets the full list, oldest first, at its beginning and after each change.
 *
 * Changes are gathered: joining and leaving only make a note, and the flush tells all watchers at once. Only
 * a watcher that is about to hear from a member which it has not been told of is told earlier. Watchers with
 * equal interests share one encoded list, out of which each one's own address is cut. Interests that no table
 * answers ask every member; so that many of these hold nobody up, a flush that has asked often enough leaves
 * the other full lists to the next one. One thread. */
#pragma once

#include "address.h"
#include "addressindex.h"
#include "index.h"
#include "outgoing.h"
#include "subscriber.h"

#include <cstdint>
#include <memory>
#include <span>
#include <unordered_map>
#include <unordered_set>
#include <vector>

namespace zebd
{

struct member_change {
    uint64_t serial = 0;
    std::unique_ptr<subscriber> gone; /* null when it joined */
};

/* A watcher that has to wait for its next list, because it got a long one or there were too many to make. */
struct paced_watcher {
    int64_t since = 0, until = 0; /* milliseconds since 1970 */
    uint64_t known = 0;           /* serial up to which members were there when it got its list */
    bool owed = false;            /* something has changed since */
};

struct membership {
    subscription_index interests; /* by watcher; equal interests are one entry */
    address_index addresses;
    std::vector<member_change> log; /* since the last flush; kept only while somebody watches */
    std::unordered_map<uint64_t, size_t> joinedAt; /* where in the log somebody joined */
    std::unordered_map<uint64_t, size_t> leftAt;   /* where in the log somebody left */
    std::unordered_set<uint64_t> fresh;            /* watchers that have not been told anything */
    std::unordered_map<uint64_t, size_t> told;     /* watchers told early: how much of the log they know */
    std::unordered_map<uint64_t, paced_watcher> paced; /* by watcher */
    size_t owed = 0;                                   /* of these */
    size_t asked = 0;                                  /* members asked for lists since the flush began */
    uint64_t notices = 0;                              /* lists and deltas made out so far */

    membership()
    {
        interests.kind = subject_kind::address;
    }
};

/* What the module looks at while it tells. */
struct member_context {
    const subscriber_table &subscribers; /* all that are there now */
    const daemon_identity &identity;
    const outlet &out;
    int64_t now = 0;
    uint64_t lastSerial = 0;
};

/* Notes that MEMBER is there, with what it wants to know of others. */
void membership_join(membership &members, const subscriber &member, subscription interest);

/* Notes that GONE, which is no longer among the subscribers, has left. */
void membership_leave(membership &members, subscriber gone);

/* Whether anybody is still to be told anything. */
bool membership_pending(const membership &members);

/* Tells all watchers what they do not know yet, but for those that have to wait for their full list:
 * while membership_pending() says so, it wants to be called again. */
void membership_flush(membership &members, const member_context &context);

/* Tells those of WATCHERS at once for whom what they do not know yet includes that SOURCE has joined. */
void membership_tell_before(membership &members, const member_context &context,
                            std::span<const uint64_t> watchers, const subscriber &source);

} // namespace zebd
