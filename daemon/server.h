/* The socket side: a loop thread that accepts clients on the loopback addresses, feeds what they send to
 * their sessions and writes what the engine has queued for them. Writing never blocks; what a socket does not
 * take stays in the client's queue, in order, up to a limit. */
#pragma once

#include "engine.h"
#include "message.h"
#include "outgoing.h"

#include <cstddef>
#include <cstdint>

namespace zebd
{

struct server_options {
    uint16_t port = 0; /* 0: one that the kernel chooses, the same for both addresses */
    int readyFd = -1;  /* gets "ready port=N" and a line feed when listening, and is then closed */
    size_t clients = 10000;
    size_t queue =
        size_t{64} * 1024 * 1024;     /* octets waiting for one client; above it the client is dropped */
    uint32_t stopMilliseconds = 5000; /* for writing what is queued, once told to stop */
    message_limits messages;
    engine_limits engine;
    daemon_identity identity;
};

/* Serves until SIGTERM or SIGINT. Returns true after a clean stop, false when it could not begin; the reason
 * has then been logged. */
bool server_run(const server_options &options);

} // namespace zebd
