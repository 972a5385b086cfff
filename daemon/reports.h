/* What the daemon tells about itself, as plain values, and where administration gets it from. */
#pragma once

#include "counters.h"
#include "engine.h"
#include "outgoing.h"

#include <cstdint>
#include <string>
#include <vector>

namespace zebd
{

struct daemon_report {
    daemon_identity identity;
    int64_t pid = 0;
    uint16_t port = 0;
    double uptimeSeconds = 0;
    size_t clients = 0, subscribers = 0;
    size_t queuedBytes = 0;     /* of all queues, what is shared counted once */
    size_t subscriberBytes = 0; /* kept for subscribers, subscriptions, interests and streams */
    size_t unfinishedBytes = 0; /* kept by messages that have not come completely */
    size_t memoryBytes = 0;     /* resident */
    size_t unindexed = 0;       /* clauses of subscriptions that are tried for every event */
    uint64_t notices = 0;       /* lists and changes of members sent */
    uint64_t logSuppressed = 0, logLost = 0;
    server_counters server;
    engine_counters engine;
};

struct client_report {
    connection_id id = 0;
    std::string address, selfId, formFactor;
    size_t subscribers = 0, queuedBytes = 0, queuedItems = 0;
    uint64_t eventsIn = 0, eventsOut = 0, bytesIn = 0, bytesOut = 0, dropped = 0;
    double connectedSeconds = 0;
};

/* Read-only: nothing that administration asks changes how clients are served. */
struct report_source {
    const void *context = nullptr;
    daemon_report (*report)(const void *context) = nullptr;
    std::vector<client_report> (*clients)(const void *context) = nullptr; /* by id */
    bool (*hasClient)(const void *context, connection_id id) = nullptr;
    const engine *routing = nullptr;
};

} // namespace zebd
