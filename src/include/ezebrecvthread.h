/* The receive thread: owner of the daemon connection. It resolves, connects, shakes hands, reads everything
 * the daemon sends, and reconnects; no other thread creates a socket. */
#ifndef EZEBRECVTHREAD_H
#define EZEBRECVTHREAD_H

#include "ezebconnection.h"
#include "ezeblock.h"

struct ezeb_runtime;

struct ezebrecvctx {
    int32_t shutdown;      /* one-way; stored under mutex, read anywhere through ezeb_flag_get */
    int32_t release;       /* likewise: nobody waits for a connection any more */
    int32_t everconnected; /* receive thread only */
    uint64_t generations;  /* receive thread only: connections made so far */
    void (*connectcallback)(
        void); /* called after each reconnection; set before the connection is lost first */

    ezeb_mutex mutex;                         /* guards what follows, which forms one value */
    ezeb_cond cond;                           /* connected, shutdown or release changed */
    int32_t connected EZEB_GUARDED_BY(mutex); /* the connection has completed its handshake */
    ezeb_connection *connection
        EZEB_GUARDED_BY(mutex); /* referenced; published before connect, so that a shutdown can cut it */
    int32_t waiters EZEB_GUARDED_BY(mutex);
};

void ezeb_recvthread_prepare(
    ezebrecvctx *recv); /* a zeroed record becomes usable, before the thread starts */
void ezeb_recvthread_discard(ezebrecvctx *recv); /* the reverse, when nobody uses it any more */

void *ezeb_receivethread(void *runtime);

/* The established connection, referenced, or null. Waits TIMEOUT ms for it (0 or less: without limit), unless
 * the runtime is shutting down. Connections up to generation AFTER do not count. */
ezeb_connection *ezeb_recvthread_getsocket(ezeb_runtime *rt, int64_t timeout, uint64_t after);

int32_t ezeb_recvthread_isConnected(ezeb_runtime *rt);
void ezeb_recvthread_releasesocketwaiter(ezeb_runtime *rt);
void ezeb_recvthread_setconnectcallback(ezeb_runtime *rt, void (*callback)(void));
void ezeb_recvthread_shutdown(ezeb_runtime *rt);

/* In a forked child: closes the descriptor without shutting it down, since the parent still uses the
 * connection. */
void ezeb_recvthread_fork_destroy(ezeb_runtime *rt);

void ezeb_handle_disconnect(ezeb_runtime *rt);

/* A "status" reply for subscriber ID. Takes MESSAGE. */
void ezeb_handlesubscriptionreply(ezeb_runtime *rt, int32_t id, int32_t success, char *message);

#endif
