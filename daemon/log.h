/* The log: one line each on standard error, with the priority in front as the journal reads it. What clients
 * can cause goes through log_limited(), so that no client can flood the log. Whoever reads the log does not
 * hold up the clients either: a line that it does not take at once is left out. One thread. */
#pragma once

#include "log_rate.h"

#include <cstdint>
#include <spdlog/spdlog.h>
#include <string>
#include <utility>

namespace zebd
{

/* Lines of one kind share a limit. */
enum class log_kind : uint8_t {
    accepting,
    connected,
    disconnected,
    unindexed,
    unrouted,
    ended,
    unwritten,
    queue,
    admin,
    manager
};
constexpr size_t logKinds = 10;

/* LEVEL is one of debug, info, warning and error; a kind writes at most LINES_PER_SECOND. */
void log_start();
void log_set(const std::string &level, uint32_t linesPerSecond);

/* From now on lines are left out rather than waited for. The next one that passes tells how many were. */
void log_stop_waiting();

/* Whether a line of this kind passes now; appends to ENDING how many did not before it. */
bool log_passes(log_kind kind, std::string &ending);

/* Lines kept back by their rate, and left out, since the start. */
uint64_t log_suppressed();
uint64_t log_lost();

template <class... Args>
void log_limited(log_kind kind, spdlog::level::level_enum level, spdlog::fmt_lib::format_string<Args...> text,
                 Args &&...args)
{
    std::string ending;
    if (spdlog::should_log(level) && log_passes(kind, ending))
        spdlog::log(level, "{}{}", spdlog::fmt_lib::format(text, std::forward<Args>(args)...), ending);
}

} // namespace zebd
