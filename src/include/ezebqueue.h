/* The thread-safe queue: first in, first out, of pointers that it does not own. Results are 1 or 0 unless
 * stated. */
#ifndef EZEBQUEUE_H
#define EZEBQUEUE_H

#include "ezeblock.h"

struct ezeb_queue_cell {
    void *element;
    ezeb_queue_cell *next;
    bool isElements; /* stands in the element, and is released with it */
};

struct ezeb_queue {
    int32_t draining;     /* one-way; looked at early through ezeb_flag_get, decided under lock */
    int32_t shuttingDown; /* likewise */
    int32_t length;       /* changed under lock, read anywhere as a hint */

    ezeb_mutex lock;    /* guards everything below, and changes of the above */
    ezeb_cond notEmpty; /* an element came, or none will */
    ezeb_cond emptied;  /* the queue, or its crowd of removers, has become empty */
    uint32_t emptiedWaiters EZEB_GUARDED_BY(lock);
    int32_t removers EZEB_GUARDED_BY(lock); /* threads in a wait on notEmpty, woken or not */
    ezeb_queue_cell *head EZEB_GUARDED_BY(lock);
    ezeb_queue_cell *
        tail EZEB_GUARDED_BY(lock); /* null while the queue holds exactly one element, and when empty */
    ezeb_queue_cell *iterPrev EZEB_GUARDED_BY(lock);
    ezeb_queue_cell *iterCurrent EZEB_GUARDED_BY(lock);
    ezeb_queue_cell *iterNext EZEB_GUARDED_BY(lock);
};

typedef void (*ezeb_queue_free)(void *element);

ezeb_queue *ezeb_queue_create(void); /* or null */

/* Append, or put back in front. 0 when null, draining, shutting down or out of memory: the element stays the
 * caller's. */
int32_t ezeb_queue_enqueue(ezeb_queue *queue, void *element);
int32_t ezeb_queue_push(ezeb_queue *queue, void *element);

/* The same with a cell that stands in ELEMENT itself, for which no memory is needed. It may be in one queue
 * at a time. */
int32_t ezeb_queue_enqueue_cell(ezeb_queue *queue, ezeb_queue_cell *cell, void *element);
int32_t ezeb_queue_push_cell(ezeb_queue *queue, ezeb_queue_cell *cell, void *element);

/* Appends a chain of such cells, linked by next and complete but for that, and wakes nobody: the caller wakes
 * those in *WOKEN, in any case and when it no longer holds what they will want. The queue may be gone by
 * then. */
int32_t ezeb_queue_append(ezeb_queue *queue, ezeb_queue_cell *cells, ezeb_waiter **woken);

/* Takes the first element, or null. With WAIT, waits TIMEOUT ms for one (0 or less: without limit, until one
 * comes or the queue drains or shuts down). A limited wait is one single wait, which may end early. */
void *ezeb_queue_dequeue(ezeb_queue *queue, int32_t wait, int64_t timeout);

/* The same with the first element's cell, which the caller releases with the third; and back in front with
 * it, for which no memory is needed. 0 when draining or shutting down: the cell stays the caller's. */
ezeb_queue_cell *ezeb_queue_take(ezeb_queue *queue, int32_t wait, int64_t timeout);
int32_t ezeb_queue_putback(ezeb_queue *queue, ezeb_queue_cell *cell);
void ezeb_queue_cell_free(ezeb_queue_cell *cell);

/* Waits until there is an element, or none will come; takes nothing. */
void ezeb_queue_await(ezeb_queue *queue);

int32_t ezeb_queue_length(const ezeb_queue *queue); /* 0 for null */

/* Refuses further elements; removers take what is there and wait no more. */
void ezeb_queue_finish(ezeb_queue *queue);

/* Refuses further elements and waits until removers have taken all. 0 when null, draining or shutting down
 * already. */
int32_t ezeb_queue_drain(ezeb_queue *queue);

/* Refuses everything from now on, wakes waiting removers and waits until they have left. 0 when null or done
 * already. */
int32_t ezeb_queue_start_shutdown(ezeb_queue *queue);

/* Hands every element to FREE (null: forgets them), then releases the queue. No thread may be using it.
 * DESTROYSYNC is 0 in a forked child only: lock and conditions may be in use by threads that do not exist
 * there. */
void ezeb_queue_destroy(ezeb_queue *queue, ezeb_queue_free free, int32_t destroySync);

/* Start of shutdown, then the elements are handed to FREE. The record stays, refusing everything, until its
 * owner is released and destroys it: a thread may just be on its way in or out. 1, or 0 for null. */
int32_t ezeb_queue_close(ezeb_queue *queue, ezeb_queue_free free);

/* Walk with the queue locked from a successful start to the end: no other call on this queue meanwhile.
 * Removing unlinks the current element, which stays the caller's. */
int32_t ezeb_queue_iterate_start(ezeb_queue *queue) EZEB_TRY_ACQUIRE(1, queue->lock);
void *ezeb_queue_iterate_next(ezeb_queue *queue) EZEB_REQUIRES(queue->lock);
int32_t ezeb_queue_iterate_remove_current(ezeb_queue *queue) EZEB_REQUIRES(queue->lock);
void ezeb_queue_iterate_end(ezeb_queue *queue) EZEB_RELEASE(queue->lock);

#endif
