/* The queue in the hands of one thread, against a simple model. Each byte of the input is a step. */
#include "fuzz.h"

#include "ezebqueue.h"

#include <deque>

namespace
{

size_t released;

void release(void *)
{
    released++;
}

void *number(uintptr_t value)
{
    return reinterpret_cast<void *>(value); // NOLINT(performance-no-int-to-ptr)
}

struct pair {
    ezeb_queue *queue = ezeb_queue_create();
    std::deque<void *> model;
    uintptr_t last = 0;
    bool refusing = false; /* draining or shut down */
    bool shut = false;

    ~pair()
    {
        released = 0;
        ezeb_queue_destroy(queue, release, 1);
        FUZZ_CHECK(released == model.size());
    }
};

void put(pair &p, bool in_front)
{
    void *element = number(++p.last);
    const int32_t taken = in_front ? ezeb_queue_push(p.queue, element) : ezeb_queue_enqueue(p.queue, element);
    FUZZ_CHECK(taken == (p.refusing ? 0 : 1));
    if (!p.refusing && in_front)
        p.model.push_front(element);
    else if (!p.refusing)
        p.model.push_back(element);
}

void take(pair &p)
{
    const bool there = !p.shut && !p.model.empty();
    FUZZ_CHECK(ezeb_queue_dequeue(p.queue, 0, 0) == (there ? p.model.front() : nullptr));
    if (there)
        p.model.pop_front();
}

/* Walks the whole queue and removes what MASK has a bit for, by place. */
void walk(pair &p, unsigned mask) EZEB_NO_ANALYSIS
{
    if (!ezeb_queue_iterate_start(p.queue)) {
        FUZZ_CHECK(p.shut);
        return;
    }
    std::deque<void *> kept;
    size_t place = 0;
    while (void *element = ezeb_queue_iterate_next(p.queue)) {
        FUZZ_CHECK(place < p.model.size() && element == p.model[place]);
        if ((mask >> (place % 8) & 1U) != 0)
            FUZZ_CHECK(ezeb_queue_iterate_remove_current(p.queue) == 1);
        else
            kept.push_back(element);
        place++;
    }
    FUZZ_CHECK(place == p.model.size());
    ezeb_queue_iterate_end(p.queue);
    p.model = kept;
}

void drain(pair &p)
{
    if (!p.model.empty() && !p.refusing)
        return; /* would wait for somebody to take them */
    FUZZ_CHECK(ezeb_queue_drain(p.queue) == (p.refusing ? 0 : 1));
    p.refusing = true;
}

void shut_down(pair &p)
{
    FUZZ_CHECK(ezeb_queue_start_shutdown(p.queue) == (p.shut ? 0 : 1));
    p.refusing = p.shut = true;
}

void close_queue(pair &p)
{
    released = 0;
    FUZZ_CHECK(ezeb_queue_close(p.queue, release) == 1);
    FUZZ_CHECK(released == p.model.size());
    p.model.clear();
    p.refusing = p.shut = true;
}

void step(pair &p, uint8_t what, fuzz::cursor &input)
{
    if (what < 90)
        put(p, false);
    else if (what < 120)
        put(p, true);
    else if (what < 200)
        take(p);
    else if (what < 240)
        walk(p, input.byte());
    else if (what < 250)
        drain(p);
    else if (what < 254)
        shut_down(p);
    else
        close_queue(p);
    FUZZ_CHECK(ezeb_queue_length(p.queue) == static_cast<int32_t>(p.model.size()));
}

} // namespace

void fuzz_read(std::string_view input)
{
    fuzz::cursor rest(input);
    pair p;
    while (!rest.empty())
        step(p, rest.byte(), rest);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    fuzz_read({reinterpret_cast<const char *>(data), size});
    return 0;
}
