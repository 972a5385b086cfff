/* Conditions: whom they wake, and when a wait ends. */
#include "ezeblock.h"

#include "unit.h"

#include <atomic>
#include <climits>
#include <csignal>
#include <deque>
#include <pthread.h>
#include <thread>
#include <vector>

namespace
{

struct Condition : testing::Test {
    ezeb_mutex lock = EZEB_MUTEX_INITIALIZER;
    ezeb_cond cond = EZEB_COND_INITIALIZER;
    int waiting = 0;        /* threads that are about to wait or do; guarded by the lock */
    std::vector<int> woken; /* in their order; guarded by the lock */
    std::deque<std::thread> threads;

    ~Condition() override
    {
        for (std::thread &thread : threads)
            thread.join();
        EXPECT_EQ(cond.first, nullptr);
        EXPECT_EQ(cond.last, nullptr);
    }

    void waitAs(int number)
    {
        const ezeb_locked hold(&lock);
        waiting++;
        ezeb_cond_wait(&cond, &lock);
        woken.push_back(number);
    }

    void awaitWaiting(int count)
    {
        for (bool there = false; !there; std::this_thread::yield()) {
            const ezeb_locked hold(&lock);
            there = waiting == count;
        }
    }

    /* COUNT more, numbered in the order in which they come. */
    void startWaiting(int count)
    {
        for (int i = 0; i < count; i++) {
            const int number = static_cast<int>(threads.size());
            threads.emplace_back([this, number] { waitAs(number); });
            awaitWaiting(number + 1);
        }
    }

    std::vector<int> awaitWoken(size_t count)
    {
        for (;; std::this_thread::yield()) {
            const ezeb_locked hold(&lock);
            if (woken.size() == count)
                return woken;
        }
    }

    ezeb_waiter *take(int32_t count)
    {
        const ezeb_locked hold(&lock);
        return ezeb_cond_take(&cond, &lock, count);
    }
};

timespec wallClock(time_t seconds)
{
    timespec deadline;
    clock_gettime(CLOCK_REALTIME, &deadline);
    deadline.tv_sec += seconds;
    return deadline;
}

TEST_F(Condition, WhoCameFirstIsWokenFirst)
{
    startWaiting(4);
    ezeb_wake(take(1));
    EXPECT_EQ(awaitWoken(1), (std::vector<int>{0}));
    ezeb_waiter *two = take(2);
    ASSERT_NE(two, nullptr);
    ASSERT_NE(two->next, nullptr);
    EXPECT_EQ(two->next->next, nullptr);
    EXPECT_EQ(two->woken, 0);
    ezeb_wake(two);
    const std::vector<int> three = awaitWoken(3);
    EXPECT_EQ(three[1] + three[2], 1 + 2) << "the second and the third, in either order";
    ezeb_wake(take(5));
    EXPECT_EQ(awaitWoken(4)[3], 3);
}

TEST_F(Condition, NobodyIsWokenWhenNobodyWaits)
{
    EXPECT_EQ(take(1), nullptr);
    ezeb_wake(nullptr);
    {
        const ezeb_locked hold(&lock);
        ezeb_cond_broadcast(&cond, &lock);
    }
    startWaiting(1);
    EXPECT_EQ(take(0), nullptr) << "what was said before is not remembered, and none wakes none";
    EXPECT_EQ(take(-1), nullptr);
    ezeb_wake(take(1));
}

TEST_F(Condition, ABroadcastWakesAll)
{
    startWaiting(5);
    {
        const ezeb_locked hold(&lock);
        ezeb_cond_broadcast(&cond, &lock);
    }
    EXPECT_EQ(awaitWoken(5).size(), 5U);
}

/* With others before and behind it, and alone. */
TEST_F(Condition, WhoseTimeIsUpLeavesTheOthers)
{
    const timespec never = {-1, 0};
    {
        const ezeb_locked hold(&lock);
        EXPECT_FALSE(ezeb_cond_waituntil(&cond, &lock, &never)) << "what is no time is past";
    }
    const auto waitInVain = [this] {
        const timespec deadline = wallClock(-1);
        const ezeb_locked hold(&lock);
        return ezeb_cond_waituntil(&cond, &lock, &deadline);
    };
    EXPECT_FALSE(waitInVain());
    startWaiting(1);
    EXPECT_FALSE(waitInVain());
    threads.emplace_back([this] {
        const ezeb_locked hold(&lock);
        waiting++;
        EXPECT_FALSE(ezeb_cond_waitseconds(&cond, &lock, 1));
    });
    awaitWaiting(2);
    threads.emplace_back([this] { waitAs(2); });
    awaitWaiting(3);
    threads[1].join();
    threads[1] = std::thread([] {});
    ezeb_wake(take(INT_MAX));
    EXPECT_EQ(awaitWoken(2).size(), 2U);
}

TEST_F(Condition, ALimitIsKeptToTheFractionOfASecond)
{
    const auto start = std::chrono::steady_clock::now();
    const ezeb_locked hold(&lock);
    EXPECT_FALSE(ezeb_cond_waitseconds(&cond, &lock, 1));
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::seconds{1});
}

/* Its waker holds its record: it stays until it is told, and then it counts as told. */
TEST_F(Condition, WhoIsAboutToBeWokenIsNotLate)
{
    std::atomic<bool> left{false};
    threads.emplace_back([&] {
        const timespec deadline = wallClock(1);
        const ezeb_locked hold(&lock);
        waiting++;
        EXPECT_TRUE(ezeb_cond_waituntil(&cond, &lock, &deadline));
        left = true;
    });
    awaitWaiting(1);
    ezeb_waiter *taken = take(1);
    const timespec later = wallClock(1);
    while (wallClock(0).tv_sec <= later.tv_sec) /* its time is up */
        std::this_thread::yield();
    EXPECT_FALSE(left);
    ezeb_wake(taken);
    threads.front().join();
    threads.clear();
    EXPECT_TRUE(left);
}

TEST_F(Condition, ASignalEndsNoWait)
{
    static std::atomic<int> handled;
    handled = 0;
    struct sigaction count = {};
    struct sigaction before = {};
    count.sa_handler = [](int) { handled++; };
    ASSERT_EQ(sigaction(SIGUSR1, &count, &before), 0);
    startWaiting(1);
    for (int i = 1; i <= 10; i++) {
        pthread_kill(threads.front().native_handle(), SIGUSR1);
        while (handled < i)
            std::this_thread::yield();
    }
    {
        const ezeb_locked hold(&lock);
        EXPECT_TRUE(woken.empty());
    }
    ezeb_wake(take(1));
    threads.front().join();
    threads.clear();
    sigaction(SIGUSR1, &before, nullptr);
}

/* Tokens go from threads that give to threads that take, which wait with limits that pass all the time. */
TEST_F(Condition, NothingIsLostAmongManyThreads)
{
    constexpr int tokensEach = 2000;
    constexpr int pairs = 3;
    int tokens = 0;
    for (int i = 0; i < pairs; i++) {
        threads.emplace_back([&] {
            for (int n = 0; n < tokensEach; n++) {
                ezeb_mutex_lock(&lock);
                tokens++;
                ezeb_waiter *one = ezeb_cond_take(&cond, &lock, 1);
                ezeb_mutex_unlock(&lock);
                ezeb_wake(one);
            }
        });
        threads.emplace_back([&, i] {
            for (int n = 0; n < tokensEach; n++) {
                const ezeb_locked hold(&lock);
                while (tokens == 0) {
                    timespec soon;
                    clock_gettime(CLOCK_REALTIME, &soon);
                    soon.tv_nsec += i == 0 ? 0 : 20000;
                    if (soon.tv_nsec >= 1000000000)
                        soon = {soon.tv_sec + 1, soon.tv_nsec - 1000000000};
                    if (i == pairs - 1)
                        ezeb_cond_wait(&cond, &lock);
                    else
                        ezeb_cond_waituntil(&cond, &lock, &soon);
                }
                tokens--;
            }
        });
    }
    for (std::thread &thread : threads)
        thread.join();
    threads.clear();
    EXPECT_EQ(tokens, 0);
}

} // namespace
