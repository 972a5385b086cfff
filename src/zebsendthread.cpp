/* The send thread. Application threads queue items, this one takes a connection from the receive thread,
 * wraps it in a buffer of its own and writes item after item. An item whose write failed goes back to the
 * head of the queue.
 *
 * A connection on which part of a message went out and the rest did not is finished: whatever followed would
 * be read out of step. It is cut, which the receive thread notices as its loss, and the item waits for the
 * next one. */
#include "ezebsendthread.h"

#include "ezebnotification.h"
#include "ezebruntime.h"
#include "ezebsubscriber.h"
#include "ezebutil.h"

#include <unistd.h>

enum { ITEM_SUBSCRIPTION = 0, ITEM_NOTIFICATION = 1 };

enum { FIRST_RETRY_US = 1000, LAST_RETRY_US = 50000, GRACE_SECONDS = 1 };

static void free_item(void *element)
{
    auto *item = static_cast<ezeb_senditem *>(element);
    if (item->kind == ITEM_NOTIFICATION)
        ezeb_notification_destroy(static_cast<zeb_notification *>(item->payload));
    else
        ezeb_subsmsg_free(static_cast<ezeb_subsmsg *>(item->payload));
}

int ezeb_sendthread_prepare(ezebsendctx *send)
{
    ezeb_mutex_init(&send->hand);
    ezeb_mutex_init(&send->sbmutex);
    ezeb_cond_init(&send->left);
    send->queue = ezeb_queue_create();
    return send->queue != nullptr;
}

void ezeb_sendthread_discard(ezebsendctx *send)
{
    ezeb_queue_destroy(send->queue, free_item, 1);
    ezeb_mutex_destroy(&send->hand);
    ezeb_mutex_destroy(&send->sbmutex);
    ezeb_cond_destroy(&send->left);
}

/* ---- Queueing, on any thread ---- */

static int32_t enqueue(ezeb_runtime *rt, ezeb_senditem *item, int32_t kind, void *payload)
{
    item->kind = kind;
    item->payload = payload;
    return ezeb_queue_enqueue_cell(rt->send.queue, &item->cell, item);
}

int32_t ezeb_sendthread_sendevent(ezeb_runtime *rt, zeb_notification *n)
{
    if (n == nullptr)
        return 0;
    if (enqueue(rt, &n->item, ITEM_NOTIFICATION, n))
        return 1;
    ezeb_notification_destroy(n);
    return 0;
}

int32_t ezeb_sendthread_sendsubs(ezeb_runtime *rt, ezeb_subsmsg *request)
{
    return request != nullptr ? enqueue(rt, &request->item, ITEM_SUBSCRIPTION, request) : 0;
}

/* The request in ELEMENT, or null when it holds something else. */
static const ezeb_subsmsg *request_of(const void *element)
{
    const auto *item = static_cast<const ezeb_senditem *>(element);
    return item->kind == ITEM_SUBSCRIPTION ? static_cast<const ezeb_subsmsg *>(item->payload) : nullptr;
}

void ezeb_sendthread_each_queued_subscriber(ezeb_runtime *rt, void (*mark)(ezeb_runtime *rt, int32_t id))
{
    if (!ezeb_queue_iterate_start(rt->send.queue))
        return;
    while (const void *element = ezeb_queue_iterate_next(rt->send.queue)) {
        const ezeb_subsmsg *request = request_of(element);
        if (request != nullptr && request->kind == EZEB_SUBSCRIBE)
            mark(rt, request->subscriberId);
    }
    ezeb_queue_iterate_end(rt->send.queue);
}

void ezeb_sendthread_dequeue_unsubscribes(ezeb_runtime *rt)
{
    if (!ezeb_queue_iterate_start(rt->send.queue))
        return;
    while (void *element = ezeb_queue_iterate_next(rt->send.queue)) {
        const ezeb_subsmsg *request = request_of(element);
        if (request != nullptr && request->kind == EZEB_UNSUBSCRIBE) {
            ezeb_queue_iterate_remove_current(rt->send.queue);
            free_item(element);
        }
    }
    ezeb_queue_iterate_end(rt->send.queue);
}

void ezeb_sendthread_invalidatesocket(ezeb_runtime *rt)
{
    if (ezeb_flag_get(&rt->send.stop) != 0)
        return;
    const ezeb_locked hold(&rt->send.sbmutex);
    if (rt->send.sb != nullptr)
        ezeb_sb_invalidate(rt->send.sb);
}

void ezeb_sendthread_settle(ezeb_runtime *rt)
{
    ezeb_mutex_lock(&rt->send.hand);
    ezeb_mutex_unlock(&rt->send.hand);
}

/* ---- Shutdown ---- */

/* Gives the thread a moment to end by itself; a daemon that does not read keeps it in a write for ever, so
 * the connection is cut then. The receive thread is told first, or it would connect again, and pause for
 * seconds if that failed. */
static void cut_when_stuck(ezeb_runtime *rt)
{
    ezebsendctx *send = &rt->send;
    const ezeb_locked hold(&send->sbmutex);
    bool waiting = true;
    while (send->finished == 0 && waiting)
        waiting = ezeb_cond_waitseconds(&send->left, &send->sbmutex, GRACE_SECONDS);
    if (send->finished == 0) {
        ezeb_flag_set(&rt->recv.shutdown, 1);
        ezeb_connection_cut(send->connection);
    }
}

void ezeb_sendthread_shutdown(ezeb_runtime *rt, int32_t wait)
{
    ezeb_flag_set(&rt->send.shuttingdown, 1);
    ezeb_recvthread_releasesocketwaiter(rt);
    if (wait != 0)
        ezeb_queue_drain(rt->send.queue);
    ezeb_flag_set(&rt->send.stop, 1);
    ezeb_queue_start_shutdown(rt->send.queue);
    if (wait == 0)
        cut_when_stuck(rt);
}

void ezeb_sendthread_fork_destroy(ezeb_runtime *rt) EZEB_NO_ANALYSIS
{
    ezebsendctx *send = &rt->send;
    if (send->connection != nullptr && send->connection != rt->recv.connection)
        close(send->connection->fd); /* a lost one that the parent's send thread still held */
    send->connection = nullptr;
    ezeb_sb_free(send->sb);
    send->sb = nullptr;
    ezeb_queue_destroy(send->queue, free_item, 0);
    send->queue = nullptr;
}

/* ---- Thread body ---- */

/* What the thread remembers between writes: which connections it is through with, and how long it pauses. */
struct send_progress {
    uint64_t after;      /* connections up to this generation are not written on any more */
    useconds_t retry_us; /* pause before the next try on the same connection */
};

static void set_buffer(ezebsendctx *send, ezeb_sb *sb, ezeb_connection *connection)
{
    const ezeb_locked hold(&send->sbmutex);
    send->sb = sb;
    send->connection = connection;
}

/* Wraps the current connection, waiting for one; 0 when there is none because of a shutdown, or no memory. */
static int take_connection(ezeb_runtime *rt, const send_progress *progress)
{
    ezeb_connection *connection = ezeb_recvthread_getsocket(rt, -1, progress->after);
    if (connection == nullptr)
        return 0;
    ezeb_sb *sb = ezeb_sb_create(connection->fd);
    if (sb == nullptr) {
        ezeb_connection_unref(connection);
        usleep(LAST_RETRY_US);
        return 0;
    }
    set_buffer(&rt->send, sb, connection);
    return 1;
}

static void drop_connection(ezebsendctx *send, ezeb_sb *sb, ezeb_connection *connection)
{
    set_buffer(send, nullptr, nullptr);
    ezeb_sb_free(sb);
    ezeb_connection_unref(connection);
}

static int32_t write_item(const ezeb_senditem *item, ezeb_runtime *rt, ezeb_sb *sb)
{
    if (item->kind == ITEM_SUBSCRIPTION)
        return ezeb_subscriber_write(static_cast<const ezeb_subsmsg *>(item->payload), sb);
    return ezeb_notification_write(rt, static_cast<const zeb_notification *>(item->payload), sb) > 0;
}

/* After a failed write, with HANDED bytes of the item gone to the kernel. None: the connection may be in
 * order, so it is tried again after a pause that grows. Some: the connection is finished, which the receive
 * thread, who alone decides that it is lost, notices by its end. */
static void leave_connection(ezebsendctx *send, send_progress *progress, ezeb_sb *sb,
                             ezeb_connection *connection, uint64_t handed)
{
    const bool stale = handed > 0 || !ezeb_connection_alive(connection);
    if (stale)
        progress->after = connection->generation;
    if (handed > 0)
        ezeb_connection_cut(connection);
    if (!stale)
        ezeb_sb_release(sb);               /* what went out before does not wait for this item */
    drop_connection(send, sb, connection); /* before the pause: what is lost is not kept open for it */
    if (stale)
        return;
    usleep(progress->retry_us);
    progress->retry_us *= 2;
    if (progress->retry_us > LAST_RETRY_US)
        progress->retry_us = LAST_RETRY_US;
}

/* True when ITEM was written. Otherwise the connection has been left. */
static bool try_write(ezeb_runtime *rt, const ezeb_senditem *item, send_progress *progress) EZEB_NO_ANALYSIS
{
    ezeb_sb *sb = rt->send.sb;
    const uint64_t before = sb->sent;
    ezeb_sb_more(sb, ezeb_queue_length(rt->send.queue) > 0);
    if (write_item(item, rt, sb)) {
        progress->retry_us = FIRST_RETRY_US;
        return true;
    }
    leave_connection(&rt->send, progress, sb, rt->send.connection, sb->sent - before);
    return false;
}

/* Writes the next item, or puts it back in front. A queue that drains takes nothing back: then the item gets
 * one more try on the connection that stands by now, if one does, and is lost otherwise, like everything
 * queued from then on. */
static void send_item(ezeb_runtime *rt, send_progress *progress, ezeb_queue_cell *cell)
{
    auto *item = static_cast<ezeb_senditem *>(cell->element);
    if (!try_write(rt, item, progress)) {
        if (ezeb_queue_putback(rt->send.queue, cell))
            return;
        if (take_connection(rt, progress))
            try_write(rt, item, progress);
    }
    free_item(item); /* with the cell in it */
}

/* Waits for an item and sends it. A connection that was lost meanwhile is left without taking the item out of
 * the queue, where the receive thread looks which requests are still to be sent. */
static void send_next(ezeb_runtime *rt, send_progress *progress) EZEB_NO_ANALYSIS
{
    ezebsendctx *send = &rt->send;
    if (ezeb_queue_length(send->queue) == 0) {
        ezeb_sb_release(send->sb);
        ezeb_queue_await(send->queue);
    }
    const ezeb_locked hold(&send->hand);
    if (!ezeb_connection_alive(send->connection)) {
        leave_connection(send, progress, send->sb, send->connection, 0);
        return;
    }
    ezeb_queue_cell *cell = ezeb_queue_take(send->queue, 0, 0);
    if (cell != nullptr)
        send_item(rt, progress, cell);
}

static void rendezvous(ezeb_runtime *rt)
{
    const ezeb_locked hold(&rt->startmutex);
    rt->senderup = 1;
    ezeb_cond_broadcast(&rt->startcond, &rt->startmutex);
}

static void finish(ezebsendctx *send)
{
    ezeb_mutex_lock(&send->sbmutex);
    ezeb_sb *sb = send->sb;
    ezeb_connection *connection = send->connection;
    send->sb = nullptr;
    send->connection = nullptr;
    send->finished = 1;
    ezeb_cond_broadcast(&send->left, &send->sbmutex);
    ezeb_mutex_unlock(&send->sbmutex);
    if (sb != nullptr)
        ezeb_sb_release(sb);
    ezeb_sb_free(sb);
    ezeb_connection_unref(connection);
}

void *
ezeb_sendthread(void *runtime) EZEB_NO_ANALYSIS /* reads its own buffer pointer, which it alone changes */
{
    auto *rt = static_cast<ezeb_runtime *>(runtime);
    ezebsendctx *send = &rt->send;
    send_progress progress = {0, FIRST_RETRY_US};
    rendezvous(rt);
    while (ezeb_flag_get(&send->stop) == 0) {
        if (send->sb != nullptr || take_connection(rt, &progress)) {
            send_next(rt, &progress);
        } else if (ezeb_flag_get(&send->shuttingdown) != 0) {
            /* No connection to wait for: what is queued is released unsent, so that a drain can finish. */
            void *element = ezeb_queue_dequeue(send->queue, 0, 0);
            if (element != nullptr)
                free_item(element);
        }
    }
    finish(send);
    return nullptr;
}
