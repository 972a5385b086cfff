/* What waits for a client: order, limits, what may be dropped, and what is counted. */
#include "log_rate.h"
#include "send_queue.h"

#include <gtest/gtest.h>

using namespace zebd;

namespace
{

constexpr size_t plenty = size_t{1} << 40;

outgoing text_item(const std::string &name, bool droppable)
{
    outgoing item;
    item.text = name + std::string(1000, '.');
    item.droppable = droppable;
    return item;
}

/* All text items of this file count the same. */
size_t octets_of_one()
{
    send_queue queue;
    send_queue_put(queue, plenty, queue_policy::disconnect, text_item("x", false));
    return queue.octets;
}

/* Writes everything out and says what it was, one character each. */
std::string drain(send_queue &queue)
{
    std::string names;
    send_queue_end_write(queue);
    while (send_queue_begin_write(queue)) {
        for (const queued_item &entry : queue.writing)
            names += entry.item.text.substr(0, 1);
        send_queue_end_write(queue);
    }
    return names;
}

struct Queue : testing::Test {
    queue_pool pool;
    send_queue queue;
    queue_policy policy = queue_policy::disconnect;
    size_t hard = plenty;

    Queue()
    {
        queue.pool = &pool;
    }

    /* Small letters are droppable. */
    put_result put(char name)
    {
        return send_queue_put(queue, hard, policy, text_item(std::string(1, name), std::islower(name) != 0));
    }

    void put_all(std::string_view names)
    {
        for (const char name : names)
            ASSERT_EQ(put(name), put_result::taken) << name;
    }
};

TEST_F(Queue, KeepsTheOrder)
{
    put_all("aBcDe");
    EXPECT_EQ(drain(queue), "aBcDe");
}

TEST_F(Queue, AboveTheHardLimitTheClientIsEndedByDefault)
{
    hard = 3 * octets_of_one();
    put_all("abc");
    EXPECT_EQ(put('d'), put_result::overflow);
    EXPECT_EQ(drain(queue), "abc");
}

TEST_F(Queue, DropOldestMakesRoomAmongTheDroppable)
{
    hard = 4 * octets_of_one();
    policy = queue_policy::drop_oldest;
    put_all("AbcdEfG");
    EXPECT_EQ(queue.dropped, 3u);
    EXPECT_EQ(drain(queue), "AEfG");
}

TEST_F(Queue, DropNewestKeepsWhatWaits)
{
    hard = 3 * octets_of_one();
    policy = queue_policy::drop_newest;
    put_all("abc");
    EXPECT_EQ(put('d'), put_result::dropped);
    EXPECT_EQ(put('E'), put_result::taken);
    EXPECT_EQ(queue.dropped, 2u);
    EXPECT_EQ(drain(queue), "abE");
}

TEST_F(Queue, WhereNothingMayBeDroppedTheClientIsEnded)
{
    for (const queue_policy each : {queue_policy::drop_oldest, queue_policy::drop_newest}) {
        policy = each;
        hard = 2 * octets_of_one();
        put_all("AB");
        EXPECT_EQ(put('c'), put_result::dropped);
        EXPECT_EQ(put('D'), put_result::overflow);
        EXPECT_EQ(drain(queue), "AB");
    }
}

TEST_F(Queue, AnEmptyQueueTakesAnything)
{
    hard = 1;
    put_all("A");
    EXPECT_EQ(put('B'), put_result::overflow);
}

TEST_F(Queue, AnItemThatCanNeverFitPushesNothingOut)
{
    policy = queue_policy::drop_oldest;
    hard = 2 * octets_of_one();
    put_all("ab");
    outgoing large = text_item("c", true);
    large.text.append(hard, '.');
    EXPECT_EQ(send_queue_put(queue, hard, policy, std::move(large)), put_result::dropped);
    EXPECT_EQ(drain(queue), "ab");
}

TEST_F(Queue, WhatIsBeingWrittenIsNotDropped)
{
    policy = queue_policy::drop_oldest;
    put_all("ab");
    ASSERT_TRUE(send_queue_begin_write(queue));
    put_all("cdE");
    EXPECT_FALSE(send_queue_trim(queue, policy, 0));
    EXPECT_EQ(queue.writing.size(), 2u);
    EXPECT_EQ(drain(queue), "E");
}

TEST_F(Queue, TrimStopsAtItsTarget)
{
    policy = queue_policy::drop_newest;
    put_all("abcd");
    EXPECT_TRUE(send_queue_trim(queue, policy, 2 * octets_of_one()));
    EXPECT_EQ(drain(queue), "ab");
}

TEST_F(Queue, ABatchIsBounded)
{
    for (int i = 0; i < 1000; i++)
        put('a');
    ASSERT_TRUE(send_queue_begin_write(queue));
    EXPECT_LE(queue.writing.size(), 256u);
    EXPECT_LE(queue.writingOctets, size_t{256} * 1024 + octets_of_one());
    EXPECT_GE(queue.writing.size(), 100u);
}

std::shared_ptr<const encoded_event> event_of(size_t body)
{
    auto source = std::make_shared<event>();
    source->raw.assign(body, 'x');
    source->body = {0, static_cast<uint32_t>(body)};
    return encode_event(std::move(source), 1, "");
}

TEST_F(Queue, ASharedEventCountsInEveryQueueButOnceInThePool)
{
    constexpr size_t body = 100000;
    send_queue second;
    second.pool = &pool;
    const auto shared = event_of(body);
    send_queue_put(queue, hard, policy, outgoing_event(shared, 1));
    const size_t alone = pool.octets;
    send_queue_put(second, hard, policy, outgoing_event(shared, 2));
    EXPECT_GE(queue.octets, body);
    EXPECT_EQ(second.octets, queue.octets);
    EXPECT_GE(alone, body);
    EXPECT_LT(pool.octets, alone + body / 2);
    drain(queue);
    EXPECT_GE(pool.octets, body);
    drain(second);
    EXPECT_EQ(pool.octets, 0u);
}

TEST_F(Queue, NothingRemainsCountedHoweverItemsLeave)
{
    policy = queue_policy::drop_oldest;
    put_all("abCdEf");
    ASSERT_TRUE(send_queue_begin_write(queue));
    put_all("ghI");
    ASSERT_TRUE(send_queue_drop(queue, policy));
    send_queue_end_write(queue);
    send_queue_abandon(queue);
    EXPECT_EQ(queue.octets, 0u);
    EXPECT_EQ(queue.writingOctets, 0u);
    EXPECT_EQ(pool.octets, 0u);
    EXPECT_FALSE(send_queue_begin_write(queue));
}

/* The writer may still point to the batch. */
TEST_F(Queue, AnAbandonedQueueCountsNothingAndWhatWaitedAsDropped)
{
    const auto shared = event_of(1000);
    for (int i = 0; i < 3; i++)
        send_queue_put(queue, hard, policy, outgoing_event(shared, 1));
    ASSERT_TRUE(send_queue_begin_write(queue));
    const std::string_view handedOut = queue.writing.front().item.text;
    for (int i = 0; i < 5; i++)
        send_queue_put(queue, hard, policy, outgoing_event(event_of(1000), 2));
    put('A');
    send_queue_abandon(queue);
    EXPECT_EQ(queue.dropped, 5u); /* the text is no event */
    EXPECT_EQ(queue.octets, 0u);
    EXPECT_EQ(queue.writingOctets, 0u);
    EXPECT_EQ(pool.octets, 0u);
    EXPECT_EQ(shared->queues, 0u);
    EXPECT_EQ(handedOut, "1");
    EXPECT_EQ(drain(queue), "");
}

TEST_F(Queue, AQueueThatGoesAwayGivesBackWhatThePoolCounted)
{
    {
        send_queue gone;
        gone.pool = &pool;
        send_queue_put(gone, hard, policy, outgoing_event(event_of(1000), 1));
        ASSERT_TRUE(send_queue_begin_write(gone));
        send_queue_put(gone, hard, policy, outgoing_event(event_of(1000), 1));
        EXPECT_GT(pool.octets, 2000u);
    }
    EXPECT_EQ(pool.octets, 0u);
}

/* ---- The log's rate ---- */

TEST(LogRate, TellsWhatItKeptBackWithTheNextLineThatPasses)
{
    log_rate rate;
    uint64_t suppressed = 99;
    EXPECT_TRUE(log_rate_pass(rate, 5000, 2, suppressed));
    EXPECT_EQ(suppressed, 0u);
    EXPECT_TRUE(log_rate_pass(rate, 5400, 2, suppressed));
    EXPECT_FALSE(log_rate_pass(rate, 5500, 2, suppressed));
    EXPECT_FALSE(log_rate_pass(rate, 5999, 2, suppressed));
    EXPECT_TRUE(log_rate_pass(rate, 6000, 2, suppressed));
    EXPECT_EQ(suppressed, 2u);
    EXPECT_TRUE(log_rate_pass(rate, 6001, 2, suppressed));
    EXPECT_EQ(suppressed, 0u);
}

} // namespace
