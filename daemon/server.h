/* The socket side: a loop thread that accepts clients on the loopback addresses, feeds what they send to
 * their sessions and writes what the engine has queued for them. Writing never blocks; what a socket does not
 * take stays in the client's queue, in order, up to a limit. */
#pragma once

#include "config.h"
#include "outgoing.h"

#include <functional>

namespace zebd
{

struct server_options {
    configuration config;
    int readyFd = -1; /* gets "ready port=N" and a line feed when listening, and is then closed */
    daemon_identity identity;
    /* Reads the configuration anew for SIGHUP; false when it is invalid, with the reason logged. Empty when
     * there is no file to read. */
    std::function<bool(configuration &)> reread;
};

/* Serves until SIGTERM or SIGINT; SIGHUP reads the configuration again. Returns true after a clean stop,
 * false when it could not begin; the reason has then been logged. */
bool server_run(const server_options &options);

} // namespace zebd
