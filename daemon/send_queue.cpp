#include "send_queue.h"

#include <algorithm>

namespace zebd
{

/* A batch larger than these only adds latency for other clients, and what is in it cannot be dropped. */
static constexpr size_t itemsPerWrite = 256;
static constexpr size_t octetsPerWrite = size_t{256} * 1024;

/* Headers of the memory blocks behind a record. */
static constexpr size_t blockOctets = 16;

/* ---- Counting ---- */

/* The list's two links, the place in `droppable` and the blocks come on top of the record. */
static size_t record_octets(const outgoing &item)
{
    return sizeof(queued_item) + 3 * sizeof(void *) + 2 * blockOctets + item.text.capacity();
}

static size_t shared_octets(const encoded_event &shared)
{
    size_t octets = sizeof(encoded_event) + shared.after.capacity() + shared.addresses.capacity();
    if (shared.source != nullptr)
        octets += sizeof(event) + shared.source->raw.capacity() +
                  shared.source->properties.capacity() * sizeof(property_slice);
    return octets + 6 * blockOctets;
}

static size_t octets_of(const outgoing &item)
{
    return record_octets(item) + (item.shared != nullptr ? shared_octets(*item.shared) : 0);
}

static void count_in(send_queue &queue, const queued_item &entry)
{
    queue.octets += entry.octets;
    if (queue.pool == nullptr)
        return;
    const encoded_event *shared = entry.item.shared.get();
    const bool isFirst = shared == nullptr || shared->queues++ == 0;
    queue.pool->octets += isFirst ? entry.octets : record_octets(entry.item);
}

static void count_out(send_queue &queue, const queued_item &entry)
{
    queue.octets -= entry.octets;
    if (queue.pool == nullptr)
        return;
    const encoded_event *shared = entry.item.shared.get();
    const bool isLast = shared == nullptr || --shared->queues == 0;
    queue.pool->octets -= isLast ? entry.octets : record_octets(entry.item);
}

/* ---- Putting and dropping ---- */

static bool fits(const send_queue &queue, size_t hard, size_t octets)
{
    return queue.octets == 0 || queue.octets + octets <= hard;
}

static void append(send_queue &queue, outgoing item, size_t octets)
{
    if (queue.pool != nullptr && !queue.pool->spare.empty())
        queue.waiting.splice(queue.waiting.end(), queue.pool->spare, queue.pool->spare.begin());
    else
        queue.waiting.emplace_back();
    queue.waiting.back() = {std::move(item), octets};
    count_in(queue, queue.waiting.back());
    if (queue.waiting.back().item.droppable)
        queue.droppable.push_back(std::prev(queue.waiting.end()));
}

put_result send_queue_put(send_queue &queue, size_t hard, queue_policy policy, outgoing item)
{
    const size_t octets = octets_of(item);
    const bool mayDrop = item.droppable && policy != queue_policy::disconnect;
    if (!fits(queue, hard, octets)) {
        if (mayDrop && (policy == queue_policy::drop_newest || octets > hard)) {
            queue.dropped++;
            return put_result::dropped;
        }
        while (!fits(queue, hard, octets) && send_queue_drop(queue, policy)) {
        }
    }
    if (fits(queue, hard, octets)) {
        append(queue, std::move(item), octets);
        return put_result::taken;
    }
    queue.dropped++;
    return mayDrop ? put_result::dropped : put_result::overflow;
}

bool send_queue_drop(send_queue &queue, queue_policy policy)
{
    if (policy == queue_policy::disconnect || queue.droppable.empty())
        return false;
    const bool oldest = policy == queue_policy::drop_oldest;
    const auto victim = oldest ? queue.droppable.front() : queue.droppable.back();
    if (oldest)
        queue.droppable.pop_front();
    else
        queue.droppable.pop_back();
    count_out(queue, *victim);
    queue.waiting.erase(victim);
    queue.dropped++;
    return true;
}

bool send_queue_trim(send_queue &queue, queue_policy policy, size_t target)
{
    while (queue.octets - queue.writingOctets > target)
        if (!send_queue_drop(queue, policy))
            return false;
    return true;
}

/* ---- Writing ---- */

bool send_queue_begin_write(send_queue &queue)
{
    while (!queue.waiting.empty() && queue.writing.size() < itemsPerWrite &&
           queue.writingOctets < octetsPerWrite) {
        queued_item &next = queue.waiting.front();
        if (next.item.droppable)
            queue.droppable.pop_front();
        queue.writingOctets += next.octets;
        queue.writing.splice(queue.writing.end(), queue.waiting, queue.waiting.begin());
    }
    return !queue.writing.empty();
}

/* Between one batch and the next, so many records are worth keeping. */
static constexpr size_t spareItems = 4 * itemsPerWrite;

static void keep_spare(queue_pool &pool, std::list<queued_item> &from)
{
    while (!from.empty() && pool.spare.size() < spareItems) {
        const outgoing gone = std::move(from.front().item);
        pool.spare.splice(pool.spare.begin(), from, from.begin());
    }
}

void send_queue_end_write(send_queue &queue)
{
    for (const queued_item &entry : queue.writing)
        count_out(queue, entry);
    if (queue.pool != nullptr)
        keep_spare(*queue.pool, queue.writing);
    queue.writing.clear();
    queue.writingOctets = 0;
}

static void forget_waiting(send_queue &queue)
{
    for (const queued_item &entry : queue.waiting)
        count_out(queue, entry);
    queue.waiting.clear();
    queue.droppable.clear();
}

/* The records of the batch stay where they are in memory: short texts stand inside them. */
void send_queue_abandon(send_queue &queue)
{
    for (const queued_item &entry : queue.waiting)
        queue.dropped += entry.item.shared != nullptr ? 1 : 0;
    forget_waiting(queue);
    for (const queued_item &entry : queue.writing)
        count_out(queue, entry);
    queue.abandoned.swap(queue.writing);
    send_queue_end_write(queue);
}

send_queue::~send_queue()
{
    send_queue_end_write(*this);
    forget_waiting(*this);
}

} // namespace zebd
