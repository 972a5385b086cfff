/* What the daemon knows of one registered subscriber. */
#pragma once

#include "message.h"
#include "outgoing.h"

#include <cstdint>
#include <string>
#include <unordered_map>

namespace zebd
{

/* Its serial is never used again: a subscriber that registers anew under the same identifier is another one.
 */
struct subscriber {
    uint64_t serial = 0;
    connection_id connection = 0;
    subscribe_request request;
    std::string id;      /* of its address: the serial as text */
    std::string key;     /* of its address: tells it from all others, of all daemons and times */
    std::string records; /* its address as it travels: what follows the name of a segment */
};

using subscriber_table = std::unordered_map<uint64_t, subscriber>; /* by serial */

} // namespace zebd
