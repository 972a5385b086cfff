/* The send thread: the only writer after the handshake. Application threads queue items, it writes them in
 * order. */
#ifndef EZEBSENDTHREAD_H
#define EZEBSENDTHREAD_H

#include "ezebconnection.h"
#include "ezeblock.h"
#include "ezebqueue.h"
#include "ezebsbuf.h"

#include "zeb.h"

struct ezeb_runtime;
struct ezeb_subsmsg;

/* What is queued for sending. It stands in its payload, so that queueing needs no memory. */
struct ezeb_senditem {
    ezeb_queue_cell cell;
    int32_t kind;
    void *payload; /* ezeb_subsmsg or zeb_notification */
};

struct ezebsendctx {
    ezeb_queue *queue;    /* constant; of ezeb_senditem, which it owns */
    int32_t shuttingdown; /* one-way flags, through ezeb_flag_get */
    int32_t stop;

    ezeb_mutex hand;    /* held while an item is out of the queue and not yet settled */
    ezeb_mutex sbmutex; /* guards what follows */
    ezeb_cond left;     /* finished was set */
    int32_t finished EZEB_GUARDED_BY(sbmutex); /* the thread is past its last write */
    ezeb_sb *sb EZEB_GUARDED_BY(sbmutex);      /* the send thread's buffer; that thread alone changes it */
    ezeb_connection *connection EZEB_GUARDED_BY(sbmutex); /* referenced while sb is set */
};

int ezeb_sendthread_prepare(ezebsendctx *send); /* a zeroed record becomes usable; 0 when memory is out */
void ezeb_sendthread_discard(
    ezebsendctx *send); /* the reverse, when nobody uses it any more; releases queued items */

void *ezeb_sendthread(void *runtime);

/* Queues N for sending and takes it in every case. 1, or 0 when the queue refused it and it was destroyed; 0
 * for null. */
int32_t ezeb_sendthread_sendevent(ezeb_runtime *rt, zeb_notification *n);

/* Queues a request; 0 when that cannot be, and then it stays the caller's. */
int32_t ezeb_sendthread_sendsubs(ezeb_runtime *rt, ezeb_subsmsg *request);

/* Calls MARK with the identifier of every subscriber whose subscribe request is still queued. */
void ezeb_sendthread_each_queued_subscriber(ezeb_runtime *rt, void (*mark)(ezeb_runtime *rt, int32_t id));

void ezeb_sendthread_dequeue_unsubscribes(ezeb_runtime *rt);
void ezeb_sendthread_invalidatesocket(ezeb_runtime *rt);

/* Returns when the item in the send thread's hand has been written or is back in the queue. To be called when
 * the connection has been cut: then that is soon, and nothing is taken out for that connection any more. */
void ezeb_sendthread_settle(ezeb_runtime *rt);

/* Ends the thread, after it has sent everything when WAIT is set. The caller joins it. */
void ezeb_sendthread_shutdown(ezeb_runtime *rt, int32_t wait);

/* In a forked child, which holds the queue's lock from before the fork: releases buffer and queue. */
void ezeb_sendthread_fork_destroy(ezeb_runtime *rt);

#endif
