/* Administration without its socket: a request is one line of JSON, an answer is another. What can be asked,
 * and what is told to those who follow a connection or all events, stands in the manual. Octets that are no
 * UTF-8 are shown as replacement characters. */
#pragma once

#include "message.h"
#include "outgoing.h"
#include "reports.h"

#include <span>
#include <string>
#include <string_view>

namespace zebd
{

enum class admin_follow : uint8_t { nothing, trace, monitor };

struct admin_answer {
    std::string line;                            /* with its line feed */
    admin_follow follow = admin_follow::nothing; /* what the asker wants to be told from now on */
    connection_id connection = 0;                /* for a trace */
};

admin_answer admin_ask(const report_source &source, std::string_view request);

/* ---- Lines for those who follow; each with its line feed ---- */

std::string admin_event_line(const engine &routing, connection_id from, const event &what,
                             std::span<const uint64_t> receivers, size_t dropped);

/* What CONNECTION sent. */
std::string admin_trace_in(connection_id connection, int64_t now, const message &what);

/* What was meant for CONNECTION; TAKEN is false when its limits did not let it through. */
std::string admin_trace_out(connection_id connection, int64_t now, const outgoing &item, bool taken);

/* CONNECTION has ended, and with it the trace. */
std::string admin_trace_end(connection_id connection, int64_t now);

/* That many lines were left out because the reader was too slow. */
std::string admin_lost_line(uint64_t lines);

std::string admin_error_line(std::string_view why);

} // namespace zebd
