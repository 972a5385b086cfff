/* The thread-safe queue. Elements are numbers in disguise: the queue never looks at them. */
#include "ezebqueue.h"
#include "ezebutil.h"

#include "unit.h"

#include <algorithm>
#include <atomic>
#include <climits>
#include <deque>
#include <functional>
#include <random>
#include <thread>
#include <vector>

namespace
{

using namespace std::chrono_literals;

void *element(uintptr_t number)
{
    return reinterpret_cast<void *>(number);
}

uintptr_t numberOf(void *found)
{
    return reinterpret_cast<uintptr_t>(found);
}

int countOf(const ezeb_waiter *waiters)
{
    int count = 0;
    for (; waiters != nullptr; waiters = waiters->next)
        count++;
    return count;
}

struct Queue : testing::Test {
    ezeb_queue *queue = ezeb_queue_create();

    ~Queue() override
    {
        ezeb_queue_destroy(queue, nullptr, 1);
    }

    void fill(uintptr_t count) const
    {
        for (uintptr_t i = 1; i <= count; i++)
            ASSERT_EQ(ezeb_queue_enqueue(queue, element(i)), 1);
    }

    /* Everything in the queue, first to last, as it hangs together inside. */
    std::vector<uintptr_t> contents() const
    {
        std::vector<uintptr_t> found;
        const ezeb_locked hold(&queue->lock);
        const ezeb_queue_cell *last = nullptr;
        for (const ezeb_queue_cell *cell = queue->head; cell != nullptr; cell = cell->next) {
            found.push_back(numberOf(cell->element));
            last = cell;
        }
        EXPECT_EQ(queue->length, static_cast<int32_t>(found.size()));
        EXPECT_EQ(queue->tail, found.size() > 1 ? last : nullptr) << "the tail is set from two elements on";
        return found;
    }

    uintptr_t take() const
    {
        return numberOf(ezeb_queue_dequeue(queue, 0, 0));
    }

    void awaitRemovers(int32_t count) const
    {
        for (;;) {
            {
                const ezeb_locked hold(&queue->lock);
                if (queue->removers == count)
                    return;
            }
            std::this_thread::yield();
        }
    }

    void awaitEmptiedWaiters(uint32_t count) const
    {
        for (;;) {
            {
                const ezeb_locked hold(&queue->lock);
                if (queue->emptiedWaiters == count)
                    return;
            }
            std::this_thread::yield();
        }
    }
};

using numbers = std::vector<uintptr_t>;

/* ---- One thread ---- */

TEST_F(Queue, GivesElementsBackInOrder)
{
    fill(3);
    EXPECT_EQ(ezeb_queue_length(queue), 3);
    EXPECT_EQ(take(), 1U);
    EXPECT_EQ(take(), 2U);
    EXPECT_EQ(take(), 3U);
    EXPECT_EQ(take(), 0U);
    EXPECT_EQ(ezeb_queue_length(queue), 0);
}

TEST_F(Queue, TheTailIsNullWithOneElementAndSetFromTwoOn)
{
    fill(1);
    EXPECT_NE(queue->head, nullptr);
    EXPECT_EQ(queue->tail, nullptr);
    ezeb_queue_enqueue(queue, element(2));
    EXPECT_EQ(queue->tail, queue->head->next);
    take();
    EXPECT_NE(queue->head, nullptr);
    EXPECT_EQ(queue->tail, nullptr);
    take();
    EXPECT_EQ(queue->head, nullptr);
    EXPECT_EQ(queue->tail, nullptr);
}

TEST_F(Queue, PushOntoOneElementMakesItTheTail)
{
    fill(1);
    EXPECT_EQ(ezeb_queue_push(queue, element(9)), 1);
    EXPECT_EQ(contents(), (numbers{9, 1}));
    EXPECT_EQ(numberOf(queue->tail->element), 1U);
    EXPECT_EQ(take(), 9U);
    EXPECT_EQ(take(), 1U);
}

TEST_F(Queue, PushOntoNothingAndOntoManyPutsInFront)
{
    ezeb_queue_push(queue, element(1));
    EXPECT_EQ(contents(), (numbers{1}));
    ezeb_queue_push(queue, element(2));
    ezeb_queue_push(queue, element(3));
    ezeb_queue_enqueue(queue, element(4));
    EXPECT_EQ(contents(), (numbers{3, 2, 1, 4}));
}

TEST_F(Queue, AChainIsAppendedInItsOrder)
{
    for (size_t before = 0; before < 3; before++) {
        fill(before);
        numbers expected = contents();
        ezeb_queue_cell third = {element(13), nullptr, true};
        ezeb_queue_cell second = {element(12), &third, true};
        ezeb_queue_cell first = {element(11), &second, true};
        ezeb_waiter *woken;
        EXPECT_EQ(ezeb_queue_append(queue, &first, &woken), 1);
        EXPECT_EQ(woken, nullptr) << "there is nobody to wake";
        expected.insert(expected.end(), {11, 12, 13});
        EXPECT_EQ(contents(), expected);
        while (take() != 0) {
        }
    }
}

TEST_F(Queue, AChainThatIsRefusedStaysAsItIs)
{
    ezeb_queue_cell second = {element(2), nullptr, true};
    ezeb_queue_cell first = {element(1), &second, true};
    ezeb_waiter *woken;
    ezeb_queue_drain(queue);
    EXPECT_EQ(ezeb_queue_append(queue, &first, &woken), 0);
    EXPECT_EQ(woken, nullptr);
    EXPECT_EQ(first.next, &second);
    ezeb_queue_start_shutdown(queue);
    EXPECT_EQ(ezeb_queue_append(queue, &first, &woken), 0);
    EXPECT_EQ(woken, nullptr);
    EXPECT_EQ(first.next, &second);
    EXPECT_EQ(contents(), numbers{});
}

/* As many are woken as there is something for. */
TEST_F(Queue, AppendingAChainTellsWhoIsToBeWoken)
{
    std::vector<std::thread> removers;
    std::atomic<uintptr_t> sum{0};
    removers.reserve(3);
    for (int i = 0; i < 3; i++)
        removers.emplace_back([&] { sum += numberOf(ezeb_queue_dequeue(queue, 1, 0)); });
    awaitRemovers(3);
    ezeb_queue_cell second = {element(2), nullptr, true};
    ezeb_queue_cell first = {element(1), &second, true};
    ezeb_waiter *woken;
    EXPECT_EQ(ezeb_queue_append(queue, &first, &woken), 1);
    EXPECT_EQ(countOf(woken), 2);
    ezeb_wake(woken);
    awaitRemovers(1);
    ezeb_queue_cell fourth = {element(4), nullptr, true};
    ezeb_queue_cell third = {element(3), &fourth, true};
    EXPECT_EQ(ezeb_queue_append(queue, &third, &woken), 1);
    EXPECT_EQ(countOf(woken), 1);
    ezeb_wake(woken);
    for (std::thread &remover : removers)
        remover.join();
    EXPECT_EQ(sum, 6U);
    EXPECT_EQ(contents(), numbers{4});
    take();
}

/* Who was woken may not run at once; a second signal would end his next limited wait. */
TEST_F(Queue, WhoIsAboutToBeWokenIsNotWokenAgain)
{
    std::thread remover([&] { EXPECT_EQ(numberOf(ezeb_queue_dequeue(queue, 1, 0)), 1U); });
    awaitRemovers(1);
    ezeb_queue_cell first = {element(1), nullptr, true};
    ezeb_queue_cell second = {element(2), nullptr, true};
    ezeb_waiter *woken;
    ezeb_waiter *again;
    EXPECT_EQ(ezeb_queue_append(queue, &first, &woken), 1);
    EXPECT_EQ(countOf(woken), 1);
    EXPECT_EQ(ezeb_queue_append(queue, &second, &again), 1);
    EXPECT_EQ(again, nullptr);
    ezeb_wake(woken);
    remover.join();
    EXPECT_EQ(contents(), numbers{2});
    take();
}

/* One that left without having been woken is none to be woken. */
TEST_F(Queue, WhoHasWaitedInVainIsNotCounted)
{
    EXPECT_EQ(ezeb_queue_dequeue(queue, 1, 1000), nullptr);
    ezeb_queue_cell cell = {element(1), nullptr, true};
    ezeb_waiter *woken;
    EXPECT_EQ(ezeb_queue_append(queue, &cell, &woken), 1);
    EXPECT_EQ(woken, nullptr);
    take();
}

TEST_F(Queue, DequeueWithoutWaitingIgnoresTheTimeout)
{
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(ezeb_queue_dequeue(queue, 0, 60000), nullptr);
    EXPECT_LT(unit::secondsSince(start), 1.0);
}

TEST_F(Queue, AWaitingDequeueTakesWhatIsThereAtOnce)
{
    fill(1);
    EXPECT_EQ(numberOf(ezeb_queue_dequeue(queue, 1, 0)), 1U);
}

TEST_F(Queue, NullQueuesFail)
{
    EXPECT_EQ(ezeb_queue_enqueue(nullptr, element(1)), 0);
    EXPECT_EQ(ezeb_queue_push(nullptr, element(1)), 0);
    EXPECT_EQ(ezeb_queue_dequeue(nullptr, 1, 0), nullptr);
    EXPECT_EQ(ezeb_queue_length(nullptr), 0);
    EXPECT_EQ(ezeb_queue_drain(nullptr), 0);
    EXPECT_EQ(ezeb_queue_start_shutdown(nullptr), 0);
    EXPECT_EQ(ezeb_queue_close(nullptr, nullptr), 0);
    EXPECT_EQ(ezeb_queue_iterate_start(nullptr), 0);
    EXPECT_EQ(ezeb_queue_iterate_remove_current(nullptr), 0);
    ezeb_queue_destroy(nullptr, nullptr, 1);
}

TEST_F(Queue, RefusesEverythingOnceShutDown)
{
    fill(2);
    EXPECT_EQ(ezeb_queue_start_shutdown(queue), 1);
    EXPECT_EQ(ezeb_queue_start_shutdown(queue), 0);
    EXPECT_EQ(ezeb_queue_enqueue(queue, element(3)), 0);
    EXPECT_EQ(ezeb_queue_push(queue, element(3)), 0);
    EXPECT_EQ(ezeb_queue_dequeue(queue, 1, 0), nullptr);
    EXPECT_EQ(ezeb_queue_dequeue(queue, 0, 0), nullptr);
    EXPECT_EQ(ezeb_queue_drain(queue), 0);
    EXPECT_EQ(ezeb_queue_iterate_start(queue), 0);
    EXPECT_EQ(ezeb_queue_length(queue), 2);
}

TEST_F(Queue, AfterADrainNothingCanBeAdded)
{
    EXPECT_EQ(ezeb_queue_drain(queue), 1);
    EXPECT_EQ(ezeb_queue_enqueue(queue, element(1)), 0);
    EXPECT_EQ(ezeb_queue_push(queue, element(1)), 0);
    EXPECT_EQ(ezeb_queue_drain(queue), 0);
    EXPECT_EQ(ezeb_queue_length(queue), 0);
}

TEST_F(Queue, AWaitingDequeueOnADrainedQueueReturnsAtOnce)
{
    ASSERT_EQ(ezeb_queue_drain(queue), 1);
    EXPECT_EQ(ezeb_queue_dequeue(queue, 1, 0), nullptr);
    EXPECT_EQ(ezeb_queue_start_shutdown(queue), 1);
}

numbers released;

void release(void *found)
{
    released.push_back(numberOf(found));
}

TEST(QueueEnd, DestroyHandsTheElementsToTheFreeFunctionInOrder)
{
    for (const int32_t destroySync : {1, 0}) {
        released.clear();
        ezeb_queue *queue = ezeb_queue_create();
        for (uintptr_t i = 1; i <= 3; i++)
            ezeb_queue_enqueue(queue, element(i));
        ezeb_queue_destroy(queue, release, destroySync);
        EXPECT_EQ(released, (numbers{1, 2, 3}));
    }
}

TEST_F(Queue, CloseReleasesTheElementsAndLeavesAQueueThatRefuses)
{
    released.clear();
    fill(3);
    EXPECT_EQ(ezeb_queue_close(queue, release), 1);
    EXPECT_EQ(released, (numbers{1, 2, 3}));
    EXPECT_EQ(ezeb_queue_length(queue), 0);
    EXPECT_EQ(ezeb_queue_enqueue(queue, element(4)), 0);
    EXPECT_EQ(ezeb_queue_close(queue, release), 1);
    EXPECT_EQ(released.size(), 3U);
}

TEST_F(Queue, CloseWithoutAFreeFunctionForgetsTheElements)
{
    fill(2);
    EXPECT_EQ(ezeb_queue_close(queue, nullptr), 1);
    EXPECT_EQ(contents(), numbers{});
}

/* ---- Iterator ---- */

struct Walk : Queue {
    /* Walks over everything and removes what GOES says. */
    numbers walk(const std::function<bool(uintptr_t)> &goes) const
    {
        numbers seen;
        EXPECT_EQ(ezeb_queue_iterate_start(queue), 1);
        while (void *found = ezeb_queue_iterate_next(queue)) {
            seen.push_back(numberOf(found));
            if (goes(numberOf(found))) {
                EXPECT_EQ(ezeb_queue_iterate_remove_current(queue), 1);
                EXPECT_EQ(ezeb_queue_iterate_remove_current(queue), 0) << "it is gone";
            }
        }
        EXPECT_EQ(ezeb_queue_iterate_next(queue), nullptr) << "the end stays the end";
        ezeb_queue_iterate_end(queue);
        return seen;
    }
};

TEST_F(Walk, SeesEveryElementInOrder)
{
    fill(4);
    EXPECT_EQ(walk([](uintptr_t) { return false; }), (numbers{1, 2, 3, 4}));
    EXPECT_EQ(contents(), (numbers{1, 2, 3, 4}));
}

TEST_F(Walk, RemovingEverythingFromTheHeadLeavesHeadAndTailNull)
{
    fill(4);
    EXPECT_EQ(walk([](uintptr_t) { return true; }), (numbers{1, 2, 3, 4}));
    EXPECT_EQ(queue->head, nullptr);
    EXPECT_EQ(queue->tail, nullptr);
    EXPECT_EQ(ezeb_queue_length(queue), 0);
    fill(2);
    EXPECT_EQ(contents(), (numbers{1, 2}));
}

TEST_F(Walk, EverySubsetOfUpToSixElementsCanBeRemoved)
{
    for (uintptr_t count = 0; count <= 6; count++)
        for (unsigned mask = 0; mask < 1U << count; mask++) {
            fill(count);
            numbers all;
            numbers left;
            for (uintptr_t i = 1; i <= count; i++) {
                all.push_back(i);
                if ((mask >> (i - 1) & 1) == 0)
                    left.push_back(i);
            }
            ASSERT_EQ(walk([&](uintptr_t i) { return (mask >> (i - 1) & 1) != 0; }), all);
            ASSERT_EQ(contents(), left) << "mask " << mask << " of " << count;
            for (const uintptr_t i : left)
                ASSERT_EQ(take(), i);
            ASSERT_EQ(take(), 0U);
        }
}

/* The cell before a removed tail must not point to it any more. */
TEST_F(Walk, AfterRemovingTheTailDequeueStopsAtItsPredecessor)
{
    fill(3);
    walk([](uintptr_t i) { return i == 3; });
    EXPECT_EQ(take(), 1U);
    EXPECT_EQ(take(), 2U);
    EXPECT_EQ(take(), 0U);
    EXPECT_EQ(contents(), numbers{});
}

TEST_F(Walk, AfterRemovingTheTailEnqueueAppendsBehindItsPredecessor)
{
    fill(2);
    walk([](uintptr_t i) { return i == 2; });
    EXPECT_EQ(contents(), (numbers{1}));
    ezeb_queue_enqueue(queue, element(5));
    EXPECT_EQ(contents(), (numbers{1, 5}));
}

TEST_F(Walk, NothingCanBeRemovedBeforeTheFirstElement)
{
    fill(1);
    ASSERT_EQ(ezeb_queue_iterate_start(queue), 1);
    EXPECT_EQ(ezeb_queue_iterate_remove_current(queue), 0);
    ezeb_queue_iterate_end(queue);
    EXPECT_EQ(contents(), (numbers{1}));
}

TEST_F(Walk, KeepsTheQueueLockedUntilItsEnd)
{
    fill(1);
    ASSERT_EQ(ezeb_queue_iterate_start(queue), 1);
    std::thread([&] { EXPECT_FALSE(ezeb_mutex_trylock(&queue->lock)); }).join();
    ezeb_queue_iterate_end(queue);
    std::thread([&] {
        ASSERT_TRUE(ezeb_mutex_trylock(&queue->lock));
        ezeb_mutex_unlock(&queue->lock);
    }).join();
    EXPECT_EQ(queue->iterPrev, nullptr);
    EXPECT_EQ(queue->iterCurrent, nullptr);
    EXPECT_EQ(queue->iterNext, nullptr);
}

/* ---- Memory ---- */

TEST(QueueMemory, CreateWithoutMemoryGivesNull)
{
    unit::sweep([](unit::refusal &refuse) {
        refuse.begin();
        ezeb_queue *queue = ezeb_queue_create();
        refuse.end();
        EXPECT_EQ(queue == nullptr, refuse.happened());
        ezeb_queue_destroy(queue, nullptr, 1);
    });
}

TEST_F(Queue, AddingWithoutMemoryIsRefusedAndChangesNothing)
{
    fill(2);
    for (const auto add : {ezeb_queue_enqueue, ezeb_queue_push})
        unit::sweep([&](unit::refusal &refuse) {
            refuse.begin();
            const int32_t added = add(queue, element(7));
            refuse.end();
            EXPECT_EQ(added, refuse.happened() ? 0 : 1);
            if (refuse.happened()) {
                EXPECT_EQ(contents(), (numbers{1, 2}));
            } else {
                ezeb_queue_iterate_start(queue);
                while (void *found = ezeb_queue_iterate_next(queue))
                    if (numberOf(found) == 7)
                        ezeb_queue_iterate_remove_current(queue);
                ezeb_queue_iterate_end(queue);
            }
        });
}

/* ---- Waiting ---- */

TEST(Deadline, TheSubSecondPartIsTheMillisecondsTimesOneThousandNanoseconds)
{
    for (const int64_t timeout : {1, 500, 999, 1000, 1999, 10000, 3600500}) {
        const time_t before = time(nullptr);
        const timespec deadline = ezeb_deadline(timeout);
        const time_t after = time(nullptr);
        EXPECT_GE(deadline.tv_sec, before + timeout / 1000);
        EXPECT_LE(deadline.tv_sec, after + timeout / 1000);
        EXPECT_EQ(deadline.tv_nsec, timeout % 1000 * 1000);
    }
}

TEST(Deadline, SaturatesInsteadOfWrapping)
{
    EXPECT_GT(ezeb_deadline(INT64_MAX).tv_sec, INT64_MAX / 1001);
}

TEST_F(Queue, DequeueWith500MillisecondsReturnsAtOnce)
{
    for (const int64_t timeout : {1, 500, 999}) {
        const auto start = std::chrono::steady_clock::now();
        EXPECT_EQ(ezeb_queue_dequeue(queue, 1, timeout), nullptr);
        EXPECT_LT(unit::secondsSince(start), 0.4);
    }
}

TEST_F(Queue, DequeueWith1000MillisecondsReturnsWithinOneSecond)
{
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(ezeb_queue_dequeue(queue, 1, 1000), nullptr);
    EXPECT_LT(unit::secondsSince(start), 1.4);
}

TEST_F(Queue, DequeueWith2000MillisecondsWaitsOneToTwoSeconds)
{
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(ezeb_queue_dequeue(queue, 1, 2000), nullptr);
    EXPECT_GT(unit::secondsSince(start), 0.99);
    EXPECT_LT(unit::secondsSince(start), 2.4);
}

TEST_F(Queue, AwaitingTakesNothing)
{
    fill(2);
    ezeb_queue_await(queue);
    EXPECT_EQ(contents(), (std::vector<uintptr_t>{1, 2}));
    ezeb_queue_await(nullptr);
}

TEST_F(Queue, AwaitingEndsWithAnElementADrainOrAShutdown)
{
    std::thread waiter([&] { ezeb_queue_await(queue); });
    awaitRemovers(1);
    fill(1);
    waiter.join();
    EXPECT_EQ(take(), 1U);
    waiter = std::thread([&] { ezeb_queue_await(queue); });
    awaitRemovers(1);
    EXPECT_EQ(ezeb_queue_drain(queue), 1);
    waiter.join();
    ezeb_queue_await(queue); /* nothing can come any more */
    EXPECT_EQ(ezeb_queue_start_shutdown(queue), 1);
    ezeb_queue_await(queue);
}

TEST_F(Queue, AShutdownWaitsUntilThoseThatAwaitHaveLeft)
{
    std::thread waiter([&] { ezeb_queue_await(queue); });
    awaitRemovers(1);
    EXPECT_EQ(ezeb_queue_start_shutdown(queue), 1);
    {
        const ezeb_locked hold(&queue->lock);
        EXPECT_EQ(queue->removers, 0);
    }
    waiter.join();
}

TEST_F(Queue, ACellThatIsPutBackIsFirstAgainAndNeedsNoMemory)
{
    fill(3);
    ezeb_queue_cell *cell = ezeb_queue_take(queue, 0, 0);
    ASSERT_NE(cell, nullptr);
    EXPECT_EQ(contents(), (std::vector<uintptr_t>{2, 3}));
    unit::refusal none(1, true);
    none.begin();
    EXPECT_EQ(ezeb_queue_putback(queue, cell), 1);
    none.end();
    EXPECT_FALSE(none.happened());
    EXPECT_EQ(contents(), (std::vector<uintptr_t>{1, 2, 3}));
}

/* Cells that stand in their elements: queueing needs no memory, and releases none. */
TEST_F(Queue, AnElementMayBringItsCell)
{
    ezeb_queue_cell cells[4] = {};
    fill(1);
    unit::refusal none(1, true);
    none.begin();
    EXPECT_EQ(ezeb_queue_enqueue_cell(queue, &cells[0], element(2)), 1);
    EXPECT_EQ(ezeb_queue_enqueue_cell(queue, &cells[1], element(3)), 1);
    EXPECT_EQ(ezeb_queue_push_cell(queue, &cells[2], element(4)), 1);
    none.end();
    EXPECT_FALSE(none.happened());
    EXPECT_EQ(contents(), (numbers{4, 1, 2, 3}));
    EXPECT_EQ(take(), 4U);
    EXPECT_EQ(ezeb_queue_enqueue_cell(queue, &cells[2], element(5)), 1) << "the same cell once more";
    ASSERT_TRUE(ezeb_queue_iterate_start(queue));
    while (void *found = ezeb_queue_iterate_next(queue))
        if (numberOf(found) == 2)
            ezeb_queue_iterate_remove_current(queue);
    ezeb_queue_iterate_end(queue);
    EXPECT_EQ(contents(), (numbers{1, 3, 5}));
    EXPECT_EQ(ezeb_queue_close(queue, nullptr), 1);
    EXPECT_EQ(ezeb_queue_enqueue_cell(queue, &cells[3], element(6)), 0);
}

TEST_F(Queue, ACellIsNotPutBackIntoAQueueThatIsShutDown)
{
    fill(1);
    ezeb_queue_cell *cell = ezeb_queue_take(queue, 0, 0);
    ASSERT_NE(cell, nullptr);
    EXPECT_EQ(ezeb_queue_start_shutdown(queue), 1);
    EXPECT_EQ(ezeb_queue_putback(queue, cell), 0);
    ezeb_free(cell);
}

TEST_F(Queue, AFinishedQueueGivesWhatItHasAndRefusesMore)
{
    fill(1);
    ezeb_queue_finish(queue);
    EXPECT_EQ(ezeb_queue_enqueue(queue, element(2)), 0);
    EXPECT_EQ(numberOf(ezeb_queue_dequeue(queue, 1, 0)), 1U);
    EXPECT_EQ(ezeb_queue_dequeue(queue, 1, 0), nullptr);
}

TEST_F(Queue, ALimitedWaitIsOneSingleWait)
{
    void *found = element(99);
    std::thread remover([&] { found = ezeb_queue_dequeue(queue, 1, 60000); });
    awaitRemovers(1);
    {
        const ezeb_locked hold(&queue->lock);
        ezeb_cond_broadcast(&queue->notEmpty,
                            &queue->lock); /* as one for an element that somebody else takes */
    }
    remover.join();
    EXPECT_EQ(found, nullptr);
}

TEST_F(Queue, AnUnlimitedWaitGoesOnWhenItIsWokenInVain)
{
    for (const int64_t timeout : {int64_t{0}, int64_t{-1}, INT64_MIN}) {
        void *found = nullptr;
        std::atomic<bool> left = false;
        std::thread remover([&] {
            found = ezeb_queue_dequeue(queue, 1, timeout);
            left = true;
        });
        awaitRemovers(1);
        for (int i = 0; i < 20; i++) {
            const ezeb_locked hold(&queue->lock);
            ezeb_cond_broadcast(&queue->notEmpty, &queue->lock);
        }
        EXPECT_FALSE(left);
        ezeb_queue_enqueue(queue, element(5));
        remover.join();
        EXPECT_EQ(numberOf(found), 5U);
    }
}

TEST_F(Queue, AVeryLongLimitDoesNotWrap)
{
    void *found = nullptr;
    std::thread remover([&] { found = ezeb_queue_dequeue(queue, 1, INT64_MAX); });
    awaitRemovers(1);
    ezeb_queue_enqueue(queue, element(5));
    remover.join();
    EXPECT_EQ(numberOf(found), 5U);
}

TEST_F(Queue, AnUnlimitedWaitEndsWithAnElement)
{
    for (const auto add : {ezeb_queue_enqueue, ezeb_queue_push}) {
        void *found = nullptr;
        std::thread remover([&] { found = ezeb_queue_dequeue(queue, 1, 0); });
        awaitRemovers(1);
        EXPECT_EQ(add(queue, element(8)), 1);
        remover.join();
        EXPECT_EQ(numberOf(found), 8U);
    }
}

TEST_F(Queue, AnUnlimitedWaitEndsWhenADrainStarts)
{
    void *found = element(99);
    std::thread remover([&] { found = ezeb_queue_dequeue(queue, 1, 0); });
    awaitRemovers(1);
    EXPECT_EQ(ezeb_queue_drain(queue), 1);
    remover.join();
    EXPECT_EQ(found, nullptr);
}

TEST_F(Queue, ShutdownWakesTwoRemoversAndReturnsAfterThem)
{
    void *first = element(99);
    void *second = element(99);
    std::thread a([&] { first = ezeb_queue_dequeue(queue, 1, 0); });
    std::thread b([&] { second = ezeb_queue_dequeue(queue, 1, 60000); });
    awaitRemovers(2);
    EXPECT_EQ(ezeb_queue_start_shutdown(queue), 1);
    {
        const ezeb_locked hold(&queue->lock);
        EXPECT_EQ(queue->removers, 0);
    }
    a.join();
    b.join();
    EXPECT_EQ(first, nullptr);
    EXPECT_EQ(second, nullptr);
}

/* Two elements come and the queue is shut down before the remover, woken by the first, runs: it leaves with
 * one element, the other stays, and the queue never becomes empty. */
TEST_F(Queue, ShutdownDoesNotWaitForAQueueThatStaysFull)
{
    void *found = nullptr;
    std::thread remover([&] { found = ezeb_queue_dequeue(queue, 1, 0); });
    awaitRemovers(1);
    {
        const ezeb_locked hold(&queue->lock);
        auto *second = static_cast<ezeb_queue_cell *>(calloc(1, sizeof(ezeb_queue_cell)));
        auto *first = static_cast<ezeb_queue_cell *>(calloc(1, sizeof(ezeb_queue_cell)));
        *first = {element(1), second, false};
        *second = {element(2), nullptr, false};
        queue->head = first;
        queue->tail = second;
        ezeb_flag_set(&queue->length, 2);
    }
    EXPECT_EQ(ezeb_queue_start_shutdown(queue), 1);
    remover.join();
    EXPECT_EQ(numberOf(found), 1U);
    EXPECT_EQ(contents(), (numbers{2}));
}

TEST_F(Queue, ADrainWaitsUntilRemoversHaveTakenEverything)
{
    fill(3);
    std::atomic<int32_t> drained = -1;
    std::thread drainer([&] { drained = ezeb_queue_drain(queue); });
    awaitEmptiedWaiters(1);
    EXPECT_EQ(ezeb_queue_enqueue(queue, element(4)), 0);
    EXPECT_EQ(take(), 1U);
    EXPECT_EQ(take(), 2U);
    EXPECT_EQ(drained, -1);
    EXPECT_EQ(numberOf(ezeb_queue_dequeue(queue, 1, 0)), 3U);
    drainer.join();
    EXPECT_EQ(drained, 1);
}

TEST_F(Queue, ADrainEndsWhenTheIteratorTakesTheLastElement)
{
    fill(2);
    int32_t drained = -1;
    std::thread drainer([&] { drained = ezeb_queue_drain(queue); });
    awaitEmptiedWaiters(1);
    ASSERT_EQ(ezeb_queue_iterate_start(queue), 1);
    while (ezeb_queue_iterate_next(queue) != nullptr)
        ezeb_queue_iterate_remove_current(queue);
    ezeb_queue_iterate_end(queue);
    drainer.join();
    EXPECT_EQ(drained, 1);
}

TEST_F(Queue, ShutdownEndsADrainThatNobodyServes)
{
    fill(2);
    int32_t drained = -1;
    std::thread drainer([&] { drained = ezeb_queue_drain(queue); });
    awaitEmptiedWaiters(1);
    EXPECT_EQ(ezeb_queue_start_shutdown(queue), 1);
    drainer.join();
    EXPECT_EQ(drained, 1);
    EXPECT_EQ(contents(), (numbers{1, 2}));
}

TEST_F(Queue, OnlyOneOfTwoDrainsAndOneOfTwoShutdownsCounts)
{
    for (int round = 0; round < 100; round++) {
        ezeb_queue *shared = ezeb_queue_create();
        for (const auto operation : {ezeb_queue_drain, ezeb_queue_start_shutdown}) {
            std::atomic<int32_t> sum = 0;
            std::thread a([&] { sum += operation(shared); });
            std::thread b([&] { sum += operation(shared); });
            a.join();
            b.join();
            EXPECT_EQ(sum, 1);
        }
        ezeb_queue_destroy(shared, nullptr, 1);
    }
}

/* ---- Against a model ---- */

struct Model : Walk, testing::WithParamInterface<unsigned> {
};

TEST_P(Model, RandomOperationsDoWhatTheyDoToADeque)
{
    std::mt19937 random(GetParam());
    std::deque<uintptr_t> model;
    uintptr_t next = 1;
    const unsigned bias = GetParam() % 3; /* some runs stay short, some grow */
    for (int step = 0; step < 20000; step++) {
        const unsigned choice = random() % (8 + bias);
        if (choice < 2 + bias) {
            ASSERT_EQ(ezeb_queue_enqueue(queue, element(next)), 1);
            model.push_back(next++);
        } else if (choice == 2 + bias) {
            ASSERT_EQ(ezeb_queue_push(queue, element(next)), 1);
            model.push_front(next++);
        } else if (choice < 7 + bias) {
            const uintptr_t expected = model.empty() ? 0 : model.front();
            if (!model.empty())
                model.pop_front();
            const int32_t wait = model.empty() ? 0 : static_cast<int32_t>(random() % 2);
            ASSERT_EQ(numberOf(ezeb_queue_dequeue(queue, expected != 0 ? wait : 0, 0)), expected);
        } else if (random() % 8 == 0) {
            const unsigned modulus = 1 + random() % 4;
            walk([&](uintptr_t i) { return i % modulus == 0; });
            std::erase_if(model, [&](uintptr_t i) { return i % modulus == 0; });
        }
        ASSERT_EQ(ezeb_queue_length(queue), static_cast<int32_t>(model.size()));
        if (step % 16 == 0) {
            ASSERT_EQ(contents(), numbers(model.begin(), model.end())) << "step " << step;
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Seeds, Model, testing::Range(1U, 13U));

/* ---- Many threads ---- */

constexpr uintptr_t PER_PRODUCER = 4000;
constexpr uintptr_t PRODUCERS = 3;

/* Element P * 1,000,000 + I is the I-th of producer P. */
void produce(ezeb_queue *queue, uintptr_t producer, std::atomic<int> &refused)
{
    for (uintptr_t i = 1; i <= PER_PRODUCER; i++)
        if (ezeb_queue_enqueue(queue, element(producer * 1000000 + i)) == 0)
            refused++;
}

TEST_F(Queue, ManyProducersAndConsumersLoseAndDuplicateNothing)
{
    std::atomic<int> refused = 0;
    std::vector<numbers> taken(3);
    std::vector<std::thread> consumers;
    for (numbers &mine : taken)
        consumers.emplace_back([this, &mine] {
            while (void *found = ezeb_queue_dequeue(queue, 1, 0))
                mine.push_back(numberOf(found));
        });
    std::vector<std::thread> producers;
    for (uintptr_t p = 1; p <= PRODUCERS; p++)
        producers.emplace_back([this, p, &refused] { produce(queue, p, refused); });
    for (std::thread &t : producers)
        t.join();
    EXPECT_EQ(ezeb_queue_drain(queue), 1);
    EXPECT_EQ(ezeb_queue_length(queue), 0);
    for (std::thread &t : consumers)
        t.join();
    EXPECT_EQ(ezeb_queue_start_shutdown(queue), 1);
    EXPECT_EQ(refused, 0);
    numbers all;
    for (const numbers &mine : taken) {
        uintptr_t last[PRODUCERS + 1] = {};
        for (const uintptr_t found : mine) {
            ASSERT_LT(last[found / 1000000], found) << "one consumer sees one producer's elements in order";
            last[found / 1000000] = found;
        }
        all.insert(all.end(), mine.begin(), mine.end());
    }
    std::sort(all.begin(), all.end());
    EXPECT_EQ(std::unique(all.begin(), all.end()), all.end());
    EXPECT_EQ(all.size(), PRODUCERS * PER_PRODUCER);
}

/* Everything at once, ended by a shutdown at a random moment: every element is either taken, refused, removed
 * or still there, and nobody hangs. */
TEST_F(Queue, AShutdownAmongEverythingLosesNothing)
{
    for (unsigned round = 0; round < 60; round++) {
        ezeb_queue *shared = ezeb_queue_create();
        std::atomic<uintptr_t> added = 0;
        std::atomic<uintptr_t> gone = 0;
        std::vector<std::thread> threads;
        for (unsigned p = 0; p < 2; p++)
            threads.emplace_back([&, p] {
                for (uintptr_t i = 1;; i++) {
                    const auto add = i % 5 == 0 ? ezeb_queue_push : ezeb_queue_enqueue;
                    if (add(shared, element(i * 2 + p)) == 0)
                        return;
                    added++;
                }
            });
        for (int c = 0; c < 2; c++)
            threads.emplace_back([&] {
                while (ezeb_queue_dequeue(shared, 1, 0) != nullptr)
                    gone++;
            });
        threads.emplace_back([&] {
            while (ezeb_queue_iterate_start(shared)) {
                for (void *found; (found = ezeb_queue_iterate_next(shared)) != nullptr;)
                    if (numberOf(found) % 7 == 0)
                        gone += static_cast<uintptr_t>(ezeb_queue_iterate_remove_current(shared));
                ezeb_queue_iterate_end(shared);
            }
        });
        while (added < 20 + round * 7)
            std::this_thread::yield();
        if (round % 3 == 0) {
            EXPECT_EQ(ezeb_queue_drain(shared), 1);
        }
        EXPECT_EQ(ezeb_queue_start_shutdown(shared), 1);
        for (std::thread &t : threads)
            t.join();
        EXPECT_EQ(added, gone + static_cast<uintptr_t>(ezeb_queue_length(shared)));
        ezeb_queue_destroy(shared, nullptr, 1);
    }
}

TEST_F(Queue, ShutdownsAndAddsAndRemovalsInEveryOrderEnd)
{
    for (int round = 0; round < 400; round++) {
        ezeb_queue *shared = ezeb_queue_create();
        std::thread remover([&] { ezeb_queue_dequeue(shared, 1, 0); });
        std::thread adder([&] {
            ezeb_queue_enqueue(shared, element(1));
            ezeb_queue_enqueue(shared, element(2));
        });
        if (round % 2 == 0)
            std::this_thread::yield();
        EXPECT_EQ(ezeb_queue_start_shutdown(shared), 1);
        remover.join();
        adder.join();
        ezeb_queue_destroy(shared, nullptr, 1);
    }
}

} // namespace
