/* What is counted, apart from what the engine counts itself. */
#pragma once

#include <cstdint>

namespace zebd
{

struct server_counters {
    uint64_t accepted = 0;
    uint64_t acceptFailures = 0; /* pauses of listening for want of descriptors or memory */
    uint64_t refused = 0;        /* above the limit of clients */
    uint64_t endedProtocol = 0, endedQueue = 0, endedUnfinished = 0, endedTime = 0, endedSocket = 0;
    uint64_t droppedSoft = 0, droppedHard = 0, droppedTotal = 0; /* events, by the limit that acted */
    uint64_t eventsOut = 0;                                      /* handed to sockets */
    uint64_t bytesIn = 0, bytesOut = 0;
    uint64_t configurationsRead = 0, configurationsRefused = 0;
    uint64_t adminRequests = 0;
};

} // namespace zebd
