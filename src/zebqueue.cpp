/* The thread-safe queue. The owner keeps the record alive until no thread can reach it; the queue frees its
 * cells, never its elements unless it is told how.
 *
 * Tail convention, on which every operation relies: with one element the tail is null, and it is set only
 * from the second element on. Every removal that leaves one element sets it back to null. */
#include "ezebqueue.h"

#include "ezebutil.h"

ezeb_queue *ezeb_queue_create(void)
{
    auto *queue = ezeb_new<ezeb_queue>();
    if (queue == nullptr)
        return nullptr;
    ezeb_mutex_init(&queue->lock);
    ezeb_cond_init(&queue->notEmpty);
    ezeb_cond_init(&queue->emptied);
    return queue;
}

static bool refuses(const ezeb_queue *queue)
{
    return ezeb_flag_get(&queue->shuttingDown) != 0 || ezeb_flag_get(&queue->draining) != 0;
}

static void link_last_locked(ezeb_queue *queue, ezeb_queue_cell *cell) EZEB_REQUIRES(queue->lock)
{
    if (queue->tail != nullptr) {
        queue->tail->next = cell;
        queue->tail = cell;
    } else if (queue->head != nullptr) {
        queue->head->next = cell;
        queue->tail = cell;
    } else {
        queue->head = cell;
    }
}

static void link_first_locked(ezeb_queue *queue, ezeb_queue_cell *cell) EZEB_REQUIRES(queue->lock)
{
    cell->next = queue->head;
    if (queue->head != nullptr && queue->tail == nullptr)
        queue->tail = queue->head;
    queue->head = cell;
}

/* Links a chain of cells; 0 when the queue refuses it. *WOKEN gets those removers, as many as there are
 * elements for, whom the caller wakes without the lock: under it they would often run at once, only to wait
 * for it. */
static int32_t insert(ezeb_queue *queue, ezeb_queue_cell *cells, bool first, ezeb_waiter **woken)
{
    *woken = nullptr;
    const ezeb_locked hold(&queue->lock);
    if (refuses(queue))
        return 0;
    int32_t count = 0;
    for (ezeb_queue_cell *next = nullptr; cells != nullptr; cells = next) {
        next = cells->next;
        cells->next = nullptr;
        if (first)
            link_first_locked(queue, cells);
        else
            link_last_locked(queue, cells);
        count++;
    }
    ezeb_flag_set(&queue->length, queue->length + count);
    *woken = ezeb_cond_take(&queue->notEmpty, &queue->lock, count);
    return 1;
}

static int32_t insert_and_wake(ezeb_queue *queue, ezeb_queue_cell *cell, bool first)
{
    cell->next = nullptr;
    ezeb_waiter *woken;
    const int32_t inserted = insert(queue, cell, first, &woken);
    ezeb_wake(woken);
    return inserted;
}

static int32_t add(ezeb_queue *queue, void *element, bool first)
{
    if (queue == nullptr || refuses(queue))
        return 0;
    auto *cell = ezeb_new<ezeb_queue_cell>();
    if (cell == nullptr)
        return 0;
    cell->element = element;
    if (insert_and_wake(queue, cell, first))
        return 1;
    ezeb_free(cell);
    return 0;
}

static int32_t add_cell(ezeb_queue *queue, ezeb_queue_cell *cell, void *element, bool first)
{
    if (queue == nullptr)
        return 0;
    *cell = {element, nullptr, true};
    return insert_and_wake(queue, cell, first);
}

int32_t ezeb_queue_enqueue(ezeb_queue *queue, void *element)
{
    return add(queue, element, false);
}

int32_t ezeb_queue_push(ezeb_queue *queue, void *element)
{
    return add(queue, element, true);
}

int32_t ezeb_queue_enqueue_cell(ezeb_queue *queue, ezeb_queue_cell *cell, void *element)
{
    return add_cell(queue, cell, element, false);
}

int32_t ezeb_queue_push_cell(ezeb_queue *queue, ezeb_queue_cell *cell, void *element)
{
    return add_cell(queue, cell, element, true);
}

int32_t ezeb_queue_putback(ezeb_queue *queue, ezeb_queue_cell *cell)
{
    return insert_and_wake(queue, cell, true);
}

int32_t ezeb_queue_append(ezeb_queue *queue, ezeb_queue_cell *cells, ezeb_waiter **woken)
{
    return insert(queue, cells, false, woken);
}

void ezeb_queue_cell_free(ezeb_queue_cell *cell)
{
    if (!cell->isElements)
        ezeb_free(cell);
}

static void wait_for_element_locked(ezeb_queue *queue, int64_t timeout) EZEB_REQUIRES(queue->lock)
{
    queue->removers++;
    if (timeout <= 0) {
        do
            ezeb_cond_wait(&queue->notEmpty, &queue->lock);
        while (queue->head == nullptr && !refuses(queue));
    } else {
        const timespec deadline = ezeb_deadline(timeout);
        ezeb_cond_waituntil(&queue->notEmpty, &queue->lock,
                            &deadline); /* once: whoever was quicker took it */
    }
    queue->removers--;
}

static ezeb_queue_cell *unlink_first_locked(ezeb_queue *queue) EZEB_REQUIRES(queue->lock)
{
    ezeb_queue_cell *cell = queue->head;
    if (cell == nullptr)
        return nullptr;
    queue->head = cell->next;
    if (queue->head == queue->tail)
        queue->tail = nullptr;
    ezeb_flag_set(&queue->length, queue->length - 1);
    return cell;
}

/* Tells those who wait for the queue to be empty; a shut-down queue counts as emptied when its last remover
 * has left, whatever it still holds. */
static void announce_emptied_locked(ezeb_queue *queue) EZEB_REQUIRES(queue->lock)
{
    const bool left = ezeb_flag_get(&queue->shuttingDown) != 0 && queue->removers == 0;
    if (queue->emptiedWaiters > 0 && (queue->length == 0 || left))
        ezeb_cond_broadcast(&queue->emptied, &queue->lock);
}

ezeb_queue_cell *ezeb_queue_take(ezeb_queue *queue, int32_t wait, int64_t timeout)
{
    if (queue == nullptr || ezeb_flag_get(&queue->shuttingDown) != 0)
        return nullptr;
    ezeb_queue_cell *cell = nullptr;
    ezeb_mutex_lock(&queue->lock);
    if (ezeb_flag_get(&queue->shuttingDown) == 0) {
        if (wait != 0 && queue->head == nullptr && ezeb_flag_get(&queue->draining) == 0)
            wait_for_element_locked(queue, timeout);
        cell = unlink_first_locked(queue);
        announce_emptied_locked(queue);
    }
    ezeb_mutex_unlock(&queue->lock);
    return cell;
}

void *ezeb_queue_dequeue(ezeb_queue *queue, int32_t wait, int64_t timeout)
{
    ezeb_queue_cell *cell = ezeb_queue_take(queue, wait, timeout);
    if (cell == nullptr)
        return nullptr;
    void *element = cell->element;
    ezeb_queue_cell_free(cell);
    return element;
}

void ezeb_queue_await(ezeb_queue *queue)
{
    if (queue == nullptr || ezeb_flag_get(&queue->shuttingDown) != 0)
        return;
    const ezeb_locked hold(&queue->lock);
    if (queue->head == nullptr && !refuses(queue))
        wait_for_element_locked(queue, 0);
    announce_emptied_locked(queue);
}

int32_t ezeb_queue_length(const ezeb_queue *queue)
{
    return queue != nullptr ? ezeb_flag_get(&queue->length) : 0;
}

/* Waiting removers leave: nothing will come any more. */
static void begin_drain_locked(ezeb_queue *queue) EZEB_REQUIRES(queue->lock)
{
    ezeb_flag_set(&queue->draining, 1);
    ezeb_cond_broadcast(&queue->notEmpty, &queue->lock);
}

void ezeb_queue_finish(ezeb_queue *queue)
{
    const ezeb_locked hold(&queue->lock);
    begin_drain_locked(queue);
}

int32_t ezeb_queue_drain(ezeb_queue *queue)
{
    if (queue == nullptr || refuses(queue))
        return 0;
    const ezeb_locked hold(&queue->lock);
    if (refuses(queue))
        return 0;
    begin_drain_locked(queue);
    while (queue->length > 0 && ezeb_flag_get(&queue->shuttingDown) == 0) {
        queue->emptiedWaiters++;
        ezeb_cond_wait(&queue->emptied, &queue->lock);
        queue->emptiedWaiters--;
    }
    return 1;
}

int32_t ezeb_queue_start_shutdown(ezeb_queue *queue)
{
    if (queue == nullptr || ezeb_flag_get(&queue->shuttingDown) != 0)
        return 0;
    const ezeb_locked hold(&queue->lock);
    if (ezeb_flag_get(&queue->shuttingDown) != 0)
        return 0;
    ezeb_flag_set(&queue->shuttingDown, 1);
    ezeb_cond_broadcast(&queue->notEmpty, &queue->lock);
    ezeb_cond_broadcast(&queue->emptied,
                        &queue->lock); /* a drain that still waits has nobody left to wait for */
    while (queue->removers > 0) {
        queue->emptiedWaiters++;
        ezeb_cond_wait(&queue->emptied, &queue->lock);
        queue->emptiedWaiters--;
    }
    return 1;
}

static void release_cells(ezeb_queue_cell *cell, ezeb_queue_free free)
{
    while (cell != nullptr) {
        ezeb_queue_cell *next = cell->next;
        void *element = cell->element;
        ezeb_queue_cell_free(cell); /* first: the other kind goes with its element */
        if (free != nullptr)
            free(element);
        cell = next;
    }
}

void ezeb_queue_destroy(ezeb_queue *queue, ezeb_queue_free free, int32_t destroySync) EZEB_NO_ANALYSIS
{
    if (queue == nullptr)
        return;
    release_cells(queue->head, free);
    if (destroySync != 0) {
        ezeb_cond_destroy(&queue->notEmpty);
        ezeb_cond_destroy(&queue->emptied);
        ezeb_mutex_destroy(&queue->lock);
    }
    ezeb_free(queue);
}

int32_t ezeb_queue_close(ezeb_queue *queue, ezeb_queue_free free)
{
    if (queue == nullptr)
        return 0;
    ezeb_queue_start_shutdown(queue);
    ezeb_mutex_lock(&queue->lock);
    ezeb_queue_cell *cells = queue->head;
    queue->head = nullptr;
    queue->tail = nullptr;
    ezeb_flag_set(&queue->length, 0);
    ezeb_mutex_unlock(&queue->lock);
    release_cells(cells, free);
    return 1;
}

int32_t ezeb_queue_iterate_start(ezeb_queue *queue) EZEB_NO_ANALYSIS
{
    if (queue == nullptr || ezeb_flag_get(&queue->shuttingDown) != 0)
        return 0;
    ezeb_mutex_lock(&queue->lock);
    queue->iterPrev = nullptr;
    queue->iterCurrent = nullptr;
    queue->iterNext = queue->head;
    return 1;
}

void *ezeb_queue_iterate_next(ezeb_queue *queue)
{
    if (queue->iterCurrent != nullptr)
        queue->iterPrev = queue->iterCurrent;
    queue->iterCurrent = queue->iterNext;
    if (queue->iterCurrent == nullptr)
        return nullptr;
    queue->iterNext = queue->iterCurrent->next;
    return queue->iterCurrent->element;
}

int32_t ezeb_queue_iterate_remove_current(ezeb_queue *queue)
{
    if (queue == nullptr || queue->iterCurrent == nullptr)
        return 0;
    ezeb_queue_cell *cell = queue->iterCurrent;
    if (cell == queue->head) {
        queue->head = queue->iterNext;
        if (queue->iterNext == queue->tail)
            queue->tail = nullptr;
    } else {
        queue->iterPrev->next = queue->iterNext;
        if (cell == queue->tail)
            queue->tail = queue->iterPrev == queue->head ? nullptr : queue->iterPrev;
    }
    ezeb_queue_cell_free(cell);
    queue->iterCurrent = nullptr;
    ezeb_flag_set(&queue->length, queue->length - 1);
    announce_emptied_locked(queue);
    return 1;
}

void ezeb_queue_iterate_end(ezeb_queue *queue) EZEB_NO_ANALYSIS
{
    queue->iterPrev = nullptr;
    queue->iterCurrent = nullptr;
    queue->iterNext = nullptr;
    ezeb_mutex_unlock(&queue->lock);
}
