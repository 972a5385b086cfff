/* What every verb needs: exit codes, the way to this host's daemon, and a limit for the whole run.
 *
 * A verb joins the runtime once, on the main thread. Results go to standard output through put(), which
 * writes at once, so that a run cut short by its limit leaves whole lines behind. */
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace tool
{

enum exit_code {
    exit_done = 0,
    exit_usage = 1,
    exit_no_daemon = 2,
    exit_refused = 3,
    exit_time_out = 4,
    exit_partly = 5
};

/* Options that all verbs share. */
struct common_options {
    int port = 0;        /* 0: from the environment, else the default */
    double timeout = -1; /* seconds for the run; 0 is none, negative the verb's own default */
    bool json = false;
    bool verbose = false;
};

/* Writes to standard output, completely. Ends the run when nobody reads it any more. */
void put(std::string_view text);

/* A line on standard error, with the tool's name in front. */
void say(std::string_view text);

/* From here on the run ends with the time-out code when SECONDS are over; 0 is no limit. */
void limit_run(double seconds);

/* The port of the daemon: option, environment or default. False, with a line said, when it is no port. */
bool find_port(const common_options &options, uint16_t &port);

/* Whether something listens on PORT of a loopback address. Returns at once. */
bool something_listens(uint16_t port);

/* Starts the library's runtime and waits for its connection; INSTANCE gets the daemon's instance name. The
 * result is exit_done, or the code to end with after a line was said. Nothing to undo then. */
exit_code join(uint16_t port, std::string &instance);

/* find_port() and join() for verbs that only want to be connected. */
exit_code join(const common_options &options);

} // namespace tool
