/* A client of the daemon by hand, for what the library does not hand out. It only watches members. */
#pragma once

#include "json.h"
#include "output.h"

#include <cstdint>
#include <string>
#include <vector>

namespace tool
{

struct wire_connection {
    int fd = -1;
    std::string pending; /* received and not yet taken */

    wire_connection() = default;
    wire_connection(const wire_connection &) = delete;
    wire_connection &operator=(const wire_connection &) = delete;
    ~wire_connection();
};

/* A list of members, or of changes: those that came are in `members` then. Each member has key, id,
 * component, host, instance, tier, tierid, subscription (those that are there) and properties. */
struct wire_event {
    std::vector<json> members, removed;
};

/* Longest wait for an answer. Seconds. */
inline constexpr double wirePatience = 10;

/* All of these return exit_done, or the code to end with after a line was said. */
exit_code wire_open(uint16_t port, wire_connection &daemon);
exit_code wire_subscribe(wire_connection &daemon, const std::string &interest, bool deltas);

/* The next event; exit_time_out, with nothing said, when none came before UNTIL on the steady clock, or a
 * signal came, or nobody reads standard output any more. */
exit_code wire_next(wire_connection &daemon, double until, wire_event &event);

} // namespace tool
