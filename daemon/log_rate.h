/* Bounds what one kind of message may fill the log with: so many lines a second; those above are counted and
 * told with the next line that passes. The clock is the caller's. One thread. */
#pragma once

#include <cstdint>

namespace zebd
{

struct log_rate {
    int64_t second = 0;  /* the second that `passed` counts */
    uint32_t passed = 0; /* lines in it */
    uint64_t suppressed = 0;
};

/* Whether a line may be written at NOW, in milliseconds. SUPPRESSED receives the lines kept back since the
 * last one that passed. */
inline bool log_rate_pass(log_rate &rate, int64_t now, uint32_t perSecond, uint64_t &suppressed)
{
    const int64_t second = now / 1000;
    if (second != rate.second) {
        rate.second = second;
        rate.passed = 0;
    }
    if (rate.passed >= perSecond) {
        rate.suppressed++;
        return false;
    }
    rate.passed++;
    suppressed = rate.suppressed;
    rate.suppressed = 0;
    return true;
}

} // namespace zebd
