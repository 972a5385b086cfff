/* The runtime started and ended again and again: with a daemon and without one, counted, from several
 * threads, with a daemon that stands still. In the end nothing is held. */
#include "environment.h"
#include "interposed.h"
#include "patience.h"
#include "process.h"
#include "storm.h"

#include "ezeballocseam.h"
#include "zeb.h"

#include <atomic>
#include <csignal>
#include <gtest/gtest.h>
#include <poll.h>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

namespace
{

using namespace storms;
using zebtest::milliseconds;

int64_t blocks()
{
    return __atomic_load_n(&ezeb_allocseam_blocks, __ATOMIC_SEQ_CST);
}

class cycles : public testing::Test
{
  protected:
    void SetUp() override
    {
        signal(SIGPIPE, SIG_IGN);
        process::start_zebd(daemon, {"--log-level", "error"});
        ASSERT_NE(daemon.port, 0);
        zebtest::clean_environment();
        zebtest::configure("/nonexistent", daemon.port);
        held = blocks();
        descriptors = usage_of(getpid()).descriptors;
    }

    /* Everything that the library was given or took is given back; threads that nobody waits for may need a
     * moment. */
    void expect_nothing_held(const char *what, int times)
    {
        const auto settled = [&] {
            return blocks() == held && usage_of(getpid()).descriptors == descriptors;
        };
        EXPECT_TRUE(zebtest::eventually(settled));
        figure("cycles",
               "%d %s: %lld blocks and %.0f descriptors held in the end; the longest shutdown %lld ms", times,
               what, static_cast<long long>(blocks() - held), usage_of(getpid()).descriptors - descriptors,
               static_cast<long long>(longest.load()));
    }

    void shut_down(int32_t (*how)() = zeb_shutdown)
    {
        const zebtest::stopwatch watch;
        EXPECT_EQ(how(), 0);
        const auto took = watch.elapsed().count();
        for (auto most = longest.load(); took > most && !longest.compare_exchange_weak(most, took);) {
        }
    }

    process::zebd daemon;
    int64_t held = 0;
    double descriptors = 0;
    std::atomic<milliseconds::rep> longest{0};
};

/* Sends itself something and gives everything back. */
void use(const std::string &type)
{
    zeb_publisher *publisher = zeb_publisher_create("storm");
    zeb_subscriber *subscriber = zeb_subscriber_create(type.c_str(), "storm", nullptr, nullptr, nullptr);
    zeb_publisher_publish(publisher, zeb_notification_create(type.c_str(), "body", 4));
    zeb_notification *n = zeb_subscriber_receive(subscriber, 1, 0);
    EXPECT_STREQ(zeb_notification_type(n), type.c_str());
    zeb_subscriber_relinquish(subscriber, n);
    zeb_subscriber_close(subscriber);
    zeb_publisher_close(publisher);
}

int32_t ignore(zeb_notification *, void *)
{
    return 0;
}

/* Leaves everything to the shutdown: a publisher, a call-back, and what was never received. */
void use_and_leave()
{
    zeb_publisher *publisher = zeb_publisher_create("storm");
    zeb_subscriber *called = zeb_subscriber_create("/storm/left", "storm", nullptr, nullptr, nullptr);
    zeb_subscriber_registercallback(called, ignore, nullptr, 0);
    zeb_subscriber_create("/storm/left", "storm", "(\"storm=1\")", nullptr, nullptr);
    for (int i = 0; i < 10; i++)
        zeb_publisher_publish(publisher, zeb_notification_create("/storm/left", "body", 4));
}

TEST_F(cycles, with_a_daemon)
{
    const int all = amount(60, 1000);
    for (int i = 0; i < all; i++) {
        const int depth = 1 + i % 3;
        EXPECT_EQ(zeb_init(), 0);
        for (int k = 1; k < depth; k++)
            EXPECT_EQ(zeb_init(), ZEB_ALREADY_INITIALISED);
        for (int k = 1; k < depth; k++)
            EXPECT_EQ(zeb_shutdown(), 0);
        if (i % 2 == 0)
            use("/storm/cycle");
        else
            use_and_leave();
        shut_down(i % 4 == 3 ? zeb_shutdown_nowait : zeb_shutdown);
        EXPECT_EQ(zeb_publisher_create("none"), nullptr);
    }
    expect_nothing_held("cycles with a daemon", all);
    EXPECT_LT(longest, zebtest::stretched(milliseconds{1000}).count());
}

/* The pauses between two attempts to connect are made short; a shutdown waits for the end of one. */
TEST_F(cycles, without_a_daemon)
{
    zebtest::interposed::shorten_sleeps(milliseconds{2});
    process::send_signal(daemon, SIGKILL);
    EXPECT_EQ(process::finish(daemon), 128 + SIGKILL);
    descriptors = usage_of(getpid()).descriptors;
    const int all = amount(100, 1000);
    for (int i = 0; i < all; i++) {
        EXPECT_EQ(zeb_init(), 0);
        zeb_subscriber *pending = zeb_subscriber_create_async("/storm/cycle", "storm", nullptr, nullptr);
        EXPECT_NE(pending, nullptr);
        if (i % 2 == 0)
            zeb_subscriber_close(pending);
        shut_down(i % 4 == 3 ? zeb_shutdown_nowait : zeb_shutdown);
    }
    expect_nothing_held("cycles without a daemon", all);
    EXPECT_LT(longest, zebtest::stretched(milliseconds{1000}).count());
}

TEST_F(cycles, from_several_threads)
{
    const int each = amount(20, 250);
    std::atomic<int> first{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; t++)
        threads.emplace_back([&, type = "/storm/thread" + std::to_string(t)] {
            for (int i = 0; i < each; i++) {
                const int32_t result = zeb_init();
                EXPECT_TRUE(result == 0 || result == ZEB_ALREADY_INITIALISED) << result;
                first += result == 0 ? 1 : 0;
                use(type);
                shut_down();
                usleep(static_cast<useconds_t>(i % 7 * 300)); /* so that now and then nobody needs it */
            }
        });
    for (std::thread &thread : threads)
        thread.join();
    EXPECT_GT(first, each / 4);
    figure("cycles", "on 4 threads the runtime was started %d times", first.load());
    expect_nothing_held("cycles on 4 threads", 4 * each);
}

/* Whether nothing more can be written on the process's connection. */
bool is_stuck()
{
    pollfd watched{own_connection(), POLLOUT, 0};
    return watched.fd != -1 && poll(&watched, 1, 0) == 0;
}

TEST_F(cycles, with_a_daemon_that_stands_still)
{
    const int all = amount(2, 50);
    const std::string body(100000, 'x');
    for (int i = 0; i < all; i++) {
        EXPECT_EQ(zeb_init(), 0);
        zeb_publisher *publisher = zeb_publisher_create("storm");
        process::send_signal(daemon, SIGSTOP);
        for (int k = 0; k < 200; k++) /* more than the kernel takes */
            zeb_publisher_publish(publisher, zeb_notification_create("/storm/large", body.data(),
                                                                     static_cast<int32_t>(body.size())));
        EXPECT_TRUE(zebtest::eventually(is_stuck));
        shut_down(zeb_shutdown_nowait);
        process::send_signal(daemon, SIGCONT);
    }
    expect_nothing_held("cycles with a daemon that stands still", all);
    EXPECT_LT(longest, zebtest::stretched(milliseconds{2000}).count());
}

} // namespace
