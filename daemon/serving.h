/* The records of the socket side and what its sources call of each other: server.cpp runs and stops it,
 * listening.cpp accepts, client.cpp reads, writes and ends, administration.cpp tells. One loop thread does
 * everything, so nothing here is locked.
 *
 * A client record lives in server.clients until its handle is closed; `closing` marks the time in between, in
 * which nothing is sent to it any more. The engine's outlet only queues: it is called in the middle of
 * routing, where no client may disappear. Once routing is done, settle() writes out the queues that grew and
 * ends the clients that cannot go on. */
#pragma once

#include "admin_socket.h"
#include "config.h"
#include "counters.h"
#include "engine.h"
#include "notify.h"
#include "send_queue.h"
#include "server.h"
#include "session.h"

#include <memory>
#include <string>
#include <unordered_map>
#include <uv.h>
#include <vector>

namespace zebd
{

struct server;

struct client {
    server *owner = nullptr;
    uv_tcp_t tcp{};
    uv_write_t write{};
    uv_shutdown_t shutdown{};
    session talk;
    std::string address;
    send_queue queue;
    size_t incoming = 0;        /* octets kept by its reader, as counted in server.incoming */
    uint64_t acceptedAt = 0;    /* loop time, milliseconds, as are the next ones */
    uint64_t heardAt = 0;       /* when something came from it */
    uint64_t overSoftSince = 0; /* 0: its queue is within the soft limit */
    uint64_t wroteAt = 0;       /* when its socket was last seen to take something of the batch */
    size_t unwritten = 0;       /* octets of the batch, as seen then */
    uint64_t eventsOut = 0, bytesIn = 0, bytesOut = 0;
    bool traced = false;   /* somebody wants to see what it sends and is sent */
    bool dirty = false;    /* in server.dirty */
    bool finished = false; /* our side of the connection has been shut down */
    bool closing = false;
    int unwritable =
        0; /* the error after which nothing is written to it any more; what it sent is still read */
    std::string doom; /* why it must be ended at the next settle() */
};

struct listener {
    int fd = -1;
    uv_poll_t poll{};
};

struct server {
    uv_loop_t loop{};
    listener listeners[2];
    int listenerCount = 0;
    uint16_t port = 0;
    uv_timer_t resumeTimer{}; /* runs while accepting pauses */
    uv_signal_t signals[3]{};
    uv_timer_t stopTimer{};
    uv_timer_t gatherTimer{}; /* runs while the engine gathers membership changes */
    uv_timer_t watchTimer{};  /* runs while some client has a deadline */
    uv_timer_t lifeTimer{};   /* runs while the service manager is to be told something */
    notifier manager;
    bool owesReady = false; /* it had no room for being told that clients are served */
    admin_socket admin;
    uint64_t startedAt = 0; /* loop time */
    const server_options *options = nullptr;
    configuration config; /* in use */
    queue_policy policy = queue_policy::disconnect;
    engine routing;
    queue_pool pool;
    size_t sparedAt = 0; /* octets of the pool when it was above its limit and nobody had to pay; 0: not so */
    size_t incoming = 0; /* octets kept by all readers */
    server_counters counters;
    std::unordered_map<connection_id, std::unique_ptr<client>> clients;
    std::vector<client *> dirty; /* to be looked at by settle() */
    connection_id lastConnection = 0;
    bool stopping = false;
    size_t unfinished = 0;         /* while stopping: clients not yet served */
    char input[64 * 1024]{};       /* one read at a time */
    char output[128 * 1024]{};     /* one write at a time */
    std::vector<uv_buf_t> buffers; /* likewise; kept for its room */
};

/* ---- server.cpp ---- */

void server_on_stop_time_over(uv_timer_t *timer);

/* Closes what still keeps the loop running, once the last client is gone. */
void server_close_handles(server &s);

/* ---- listening.cpp ---- */

/* False when it could not; the reason has been logged. */
bool listening_start(server &s);
void listening_stop(server &s);

/* ---- administration.cpp ---- */

/* Opens the administration socket when one is wanted. False when the one that was asked for by name cannot
 * be; the reason has been logged. */
bool administration_start(server &s);
void administration_stop(server &s);

/* For clients that are traced. */
void administration_trace_out(const client &c, const outgoing &item, bool taken);
void administration_trace_end(const client &c);

/* ---- client.cpp ---- */

/* Serves a socket that was accepted, which it takes over. */
void client_begin(server &s, int fd);

/* "client 3 (127.0.0.1:4711, pid 42)", for the log. */
std::string client_name(const client &c);

void client_end(client &c);

/* Hands the next batch to the socket, unless one is under way. */
void client_flush(client &c);

/* Puts the limits of the configuration on a client. */
void client_apply_limits(client &c);

/* Lets limits and times act that are new to those who are connected. */
void clients_review(server &s);

/* The engine's outlet. */
bool client_enqueue(void *context, connection_id to, outgoing item);
void client_wake(void *context, uint32_t milliseconds);

/* Brings the sockets into line with what routing left behind. */
void clients_settle(server &s);

} // namespace zebd
