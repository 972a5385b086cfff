/* What waits for one client, in the order of sending and within limits. No sockets and no clock: whoever
 * writes takes a batch, writes it and says when it is done; the clock for the soft limit is the caller's too.
 *
 * Everything is counted as the memory that it keeps from being freed, not as octets on the wire: the records,
 * the encoding and the message as it was read. An encoding shared by several queues counts in full in each of
 * them, because each alone could keep it, but once in the pool, which is what the process really spends.
 *
 * A queue that is empty takes any item, so that a limit below the largest event does not shut that event out;
 * a queue therefore keeps at most its hard limit or one item, whichever is more. Dropping takes constant
 * time. One thread. */
#pragma once

#include "outgoing.h"

#include <cstddef>
#include <cstdint>
#include <deque>
#include <list>

namespace zebd
{

enum class queue_policy : uint8_t {
    disconnect,  /* the client is ended */
    drop_oldest, /* the longest waiting droppable items make room */
    drop_newest  /* new droppable items are not taken */
};

struct queued_item {
    outgoing item;
    size_t octets = 0; /* what it keeps, alone */
};

/* All queues of the process together. */
struct queue_pool {
    size_t octets = 0;
    std::list<queued_item> spare; /* some records that hold nothing, to be used again */
};

struct send_queue {
    queue_pool *pool = nullptr;
    std::list<queued_item> waiting;
    std::deque<std::list<queued_item>::iterator> droppable; /* those of `waiting`, oldest first */
    std::list<queued_item> writing;                         /* taken by the writer, no longer droppable */
    std::list<queued_item> abandoned;                       /* a batch that the writer may still point to */
    size_t octets = 0;                                      /* of both */
    size_t writingOctets = 0;
    uint64_t dropped = 0; /* items, ever */

    send_queue() = default;
    send_queue(const send_queue &) = delete;
    send_queue &operator=(const send_queue &) = delete;
    ~send_queue();
};

enum class put_result : uint8_t {
    taken,
    dropped, /* the item itself; nothing else happened */
    overflow /* there is no room that could be made: the client must be ended */
};

/* Queues ITEM, making room under HARD as POLICY has it. */
put_result send_queue_put(send_queue &queue, size_t hard, queue_policy policy, outgoing item);

/* Drops one waiting item, the oldest or the newest. False when none may be dropped. */
bool send_queue_drop(send_queue &queue, queue_policy policy);

/* Drops until what waits, without the batch that is being written, is at most TARGET. False when that could
 * not be reached. */
bool send_queue_trim(send_queue &queue, queue_policy policy, size_t target);

/* Moves the next batch to `writing`, which must be empty. False when nothing waits. */
bool send_queue_begin_write(send_queue &queue);

/* Forgets the batch. */
void send_queue_end_write(send_queue &queue);

/* For a client that is about to be ended: what waits is forgotten, which is dropping its events, and the
 * batch counts no more, since its memory is as good as free. */
void send_queue_abandon(send_queue &queue);

} // namespace zebd
