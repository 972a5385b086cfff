/* What the storms share: how long they last, their seed, the figures they print, and what a process uses. */
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <sys/types.h>
#include <vector>

namespace storms
{

/* SHORT, or LONG with ZEB_STORM_FULL=1 in the environment. */
int amount(int shortly, int fully);

/* ZEB_STORM_SEED; without it a new number in a full run, and always the same in a short one. */
uint64_t seed();

/* Prints a line "STORM: ..." with the formatted text. */
void figure(const char *storm, const char *format, ...) __attribute__((format(printf, 2, 3)));

struct usage {
    double kilobytes = 0; /* memory of its own, as far as it is present */
    double descriptors = 0;
    double threads = 0;
};

/* Of the process PID; all zero when there is none. */
usage usage_of(pid_t pid);

/* What a process used, each time it was looked at. */
struct usage_record {
    std::vector<double> kilobytes;
    usage first, last;
};

/* Looks at the process PID, again until its descriptors and threads are as many as the first time. Returns
 * how they differ in the end, and nothing when they do not. */
std::string look_at(pid_t pid, usage_record &record);

/* The descriptor of this process's only connection, and the port at this end of it; -1 and 0 without one. */
int own_connection();
uint16_t own_port();

/* By how much VALUES rise from one to the next, by the line that fits them best. */
double slope(const std::vector<double> &values);

} // namespace storms
