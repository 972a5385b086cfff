/* The end of the runtime, in whatever state it is. */
#include "conversation.h"

#include <atomic>
#include <cstdlib>
#include <sys/wait.h>
#include <thread>

namespace
{

using namespace zebtest;

class ending : public conversation, public testing::WithParamInterface<int>
{
  protected:
    int32_t shut() const
    {
        return GetParam() == 0 ? zeb_shutdown_nowait() : zeb_shutdown();
    }
};

using draining = conversation;
using discarding = conversation;

INSTANTIATE_TEST_SUITE_P(kind, ending, testing::Values(0, 1),
                         [](const auto &kindOf) { return kindOf.param == 0 ? "nowait" : "drain"; });

void publish(zeb_publisher *publisher, const char *type, std::string_view body = "")
{
    zeb_publisher_publish(publisher,
                          zeb_notification_create(type, body.data(), static_cast<int32_t>(body.size())));
}

/* Publishes more than the kernel takes from a daemon that does not read, and waits until nothing moves any
 * more. */
std::string stall(zeb_publisher *publisher, const peer &p)
{
    const std::string body(20 * 1000 * 1000, 'b');
    publish(publisher, "/big", body);
    int last = 0;
    int calm = 0;
    EXPECT_TRUE(eventually([&] {
        const int unsent = p.unsent_by_library();
        calm = unsent == last && unsent > 0 ? calm + 1 : 0;
        last = unsent;
        return calm > 200;
    }));
    return published("c", "/big", "01", body);
}

/* ---- In every state ---- */

TEST_P(ending, without_a_runtime_returns_zero)
{
    EXPECT_EQ(shut(), 0);
    EXPECT_EQ(shut(), 0);
}

TEST_P(ending, closes_the_connection_without_a_word_about_what_is_open)
{
    peer p = connected();
    subscribed(p, 1);
    subscribed(p, 2, "/m", "/group");
    zeb_publisher_create("c");
    EXPECT_EQ(shut(), 0);
    p.expect_close(); /* no unsubscribe, and the handles are released */
}

TEST_P(ending, right_after_init_is_quick)
{
    for (int i = 0; i < 50; i++) {
        ASSERT_EQ(zeb_init(), 0);
        EXPECT_EQ(shut(), 0);
    }
    EXPECT_TRUE(threads_become("zeb-receive", 0));
    EXPECT_TRUE(threads_become("zeb-send", 0));
}

TEST_P(ending, with_a_silent_daemon_in_the_handshake_is_quick)
{
    ASSERT_EQ(zeb_init(), 0);
    peer p = daemon.accept();
    p.expect(handshake(home.path()));
    p.send("HTTP/1.1 200 OK\r\n");
    const stopwatch watch;
    EXPECT_EQ(shut(), 0);
    EXPECT_LT(watch.elapsed(), stretched(milliseconds{1000}));
    p.expect_close();
}

TEST_P(ending, with_a_daemon_that_does_not_even_accept_is_quick)
{
    ASSERT_EQ(zeb_init(), 0);
    ASSERT_TRUE(daemon.is_called_within(stretched(patience)));
    const stopwatch watch;
    EXPECT_EQ(shut(), 0);
    EXPECT_LT(watch.elapsed(), stretched(milliseconds{1000}));
}

TEST_P(ending, with_a_daemon_whose_queue_is_full_is_quick)
{
    daemon.stand_still();
    interposed::resolve_to({"127.0.0.1"});
    ASSERT_EQ(zeb_init(), 0);
    ASSERT_TRUE(eventually([&] { return daemon.is_called_in_vain(); }));
    const stopwatch watch;
    EXPECT_EQ(shut(), 0);
    EXPECT_LT(watch.elapsed(), stretched(milliseconds{1000}));
}

TEST_P(ending, with_an_answer_to_the_handshake_that_never_ends_is_quick)
{
    for (const std::string line : {"Result: success\r\n", "without an end "}) {
        ASSERT_EQ(zeb_init(), 0);
        peer p = daemon.accept();
        p.expect(handshake(home.path()));
        std::atomic<int> sent{0};
        std::atomic<bool> over{false};
        background talk([&] {
            for (; !over; sent++)
                p.send(line);
            return true;
        });
        EXPECT_TRUE(eventually([&] { return sent > 1000; }));
        const stopwatch watch;
        EXPECT_EQ(shut(), 0);
        EXPECT_LT(watch.elapsed(), stretched(milliseconds{1000}));
        over = true;
        EXPECT_TRUE(talk.get());
    }
}

TEST_P(ending, in_the_middle_of_a_message_is_quick)
{
    peer p = connected();
    zeb_subscriber *sub = subscribed(p, 1);
    (void)sub;
    const std::string half = message("1", "/t", "body");
    p.send_split(half.substr(0, half.size() - 2), half.size() / 2);
    const stopwatch watch;
    const stderr_capture messages; /* the body that is cut off is spoken of */
    EXPECT_EQ(shut(), 0);
    EXPECT_LT(watch.elapsed(), stretched(milliseconds{1000}));
    p.expect_close();
}

TEST_P(ending, without_a_daemon_releases_what_is_queued_unsent)
{
    daemon.refuse();
    interposed::shorten_sleeps(milliseconds{50});
    ASSERT_EQ(zeb_init(), 0);
    zeb_subscriber *sub = zeb_subscriber_create_async("/t", "c", nullptr, nullptr);
    for (int i = 0; i < 100; i++)
        publish(zeb_subscriber_getPublisher(sub), "/t", "body");
    EXPECT_EQ(shut(), 0);
    daemon.listen_again();
    peer p = connected();
    EXPECT_EQ(sent_before_mark(p), "");
}

TEST_P(ending, waits_for_the_pause_it_falls_into_and_no_longer)
{
    daemon.refuse();
    interposed::shorten_sleeps(milliseconds{400});
    ASSERT_EQ(zeb_init(), 0);
    ASSERT_TRUE(eventually([] { return interposed::sleeps().size() == 1; }));
    EXPECT_EQ(shut(), 0);
    EXPECT_LE(interposed::sleeps().size(), 2U);
    EXPECT_TRUE(threads_become("zeb-receive", 0));
}

TEST_P(ending, ends_a_creation_without_limit_with_null_and_no_text)
{
    peer p = connected();
    char stale[] = "stale";
    char *text = stale;
    background creation([&] { return zeb_subscriber_create("/t", "c", nullptr, nullptr, &text); });
    p.expect(subscribe_request(1, "/t"));
    EXPECT_EQ(shut(), 0);
    EXPECT_EQ(creation.get(), nullptr);
    EXPECT_EQ(text, nullptr);
    p.expect_close();
}

TEST_P(ending, ends_a_creation_that_has_no_connection)
{
    ASSERT_EQ(zeb_init(), 0);
    char *text = nullptr;
    background creation([&] { return zeb_subscriber_create("/t", "c", "/group", nullptr, &text); });
    peer p = daemon.accept();
    EXPECT_FALSE(creation.done_within(milliseconds{50}));
    EXPECT_EQ(shut(), 0);
    EXPECT_EQ(creation.get(), nullptr);
    EXPECT_EQ(text, nullptr);
}

TEST_P(ending, ends_waits_for_the_connection)
{
    ASSERT_EQ(zeb_init(), 0);
    peer p = daemon.accept();
    background name([] {
        char *text = nullptr;
        zeb_get_instancename(&text);
        return text_or_null(owned_text(text).get());
    });
    /* The shutdown releases the publisher, when it still was one. */
    background creation([] { return zeb_publisher_create("c"); });
    EXPECT_FALSE(name.done_within(milliseconds{50}));
    EXPECT_FALSE(creation.done_within(milliseconds{0}));
    const stopwatch watch;
    EXPECT_EQ(shut(), 0);
    EXPECT_EQ(name.get(), "<null>");
    creation.get();
    EXPECT_LT(watch.elapsed(), stretched(milliseconds{1000}));
}

TEST_P(ending, ends_a_receive_on_a_member_that_a_loss_has_dropped)
{
    peer p = connected();
    zeb_subscriber *member = subscribed(p, 1, "/t", "/group");
    p.close();
    EXPECT_EQ(receive_type(member), "ZEB/SYSTEM/LEAVEGROUP");
    p = daemon.accept_connected(home.path());
    background receiving([=] { return zeb_subscriber_receive(member, 1, 0); });
    EXPECT_FALSE(receiving.done_within(milliseconds{50}));
    EXPECT_EQ(shut(), 0);
    EXPECT_EQ(receiving.get(), nullptr);
    zeb_subscriber_close(member); /* it was not registered any more, so it is still the application's */
}

TEST_P(ending, counts_every_init)
{
    peer p = connected();
    EXPECT_EQ(zeb_init(), -3);
    EXPECT_EQ(shut(), 0);
    EXPECT_EQ(sent_before_mark(p), "");
    EXPECT_EQ(shut(), 0);
    p.expect_close();
    EXPECT_EQ(shut(), 0);
}

TEST_P(ending, may_be_asked_for_by_many_threads)
{
    peer p = connected();
    std::vector<std::thread> threads;
    for (int i = 0; i < 8; i++)
        threads.emplace_back([this] { EXPECT_EQ(shut(), 0); });
    for (std::thread &t : threads)
        t.join();
    p.expect_close();
    EXPECT_EQ(zeb_publisher_create("c"), nullptr);
}

TEST_P(ending, and_starting_in_turns_by_many_threads_stays_balanced)
{
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; i++)
        threads.emplace_back([this] {
            for (int k = 0; k < 50; k++) {
                const int32_t started = zeb_init();
                EXPECT_TRUE(started == 0 || started == -3) << started;
                EXPECT_EQ(shut(), 0);
            }
        });
    for (std::thread &t : threads)
        t.join();
    EXPECT_EQ(zeb_publisher_create("c"), nullptr);
    EXPECT_TRUE(threads_become("zeb-receive", 0));
    EXPECT_TRUE(threads_become("zeb-send", 0));
}

TEST_P(ending, a_hundred_cycles_leave_nothing_behind)
{
    const int descriptors = open_descriptors();
    const int threads = threads_named("");
    for (int i = 0; i < 100; i++) {
        peer p = connected();
        zeb_subscriber *sub = subscribed(p, 1);
        p.send(message("1", "/t", "body"));
        EXPECT_EQ(receive_type(sub), "/t");
        EXPECT_EQ(shut(), 0);
        p.expect_close();
    }
    EXPECT_EQ(open_descriptors(), descriptors);
    EXPECT_TRUE(threads_become("", threads));
}

TEST_P(ending, afterwards_nothing_is_taken_any_more)
{
    zeb_notification *n = zeb_notification_create("/t", nullptr, 0);
    {
        peer p = connected();
        EXPECT_EQ(shut(), 0);
    }
    EXPECT_EQ(zeb_publisher_create("c"), nullptr);
    EXPECT_EQ(zeb_subscriber_create_async("/t", "c", nullptr, nullptr), nullptr);
    char *name = nullptr;
    zeb_get_instancename(&name);
    EXPECT_EQ(name, nullptr);
    peer p = connected();
    zeb_publisher *publisher = zeb_publisher_create("c");
    zeb_publisher_publish(publisher, n);
    p.expect(published("c", "/t", "01"));
    zeb_publisher_close(publisher);
}

TEST_P(ending, calls_of_other_threads_may_run_into_it)
{
    std::atomic<bool> stop{false};
    std::vector<std::thread> threads;
    threads.emplace_back([&] {
        while (!stop)
            zeb_subscriber_create_async("/t", "c", nullptr,
                                        nullptr); /* released by the shutdown, as the others */
    });
    threads.emplace_back([&] {
        while (!stop)
            zeb_subscriber_create("/t", "c", "/group", nullptr, nullptr);
    });
    threads.emplace_back([&] {
        while (!stop)
            zeb_publisher_create("c");
    });
    threads.emplace_back([&] {
        while (!stop) {
            char *name = nullptr;
            zeb_get_instancename(&name);
            free(name);
        }
    });
    for (int i = 0; i < 15; i++) {
        ASSERT_EQ(zeb_init(), 0);
        peer p = daemon.accept_connected(home.path());
        for (int k = 0; k < 5; k++)
            p.read_head();
        background shutdown([this] { return shut(); });
        p.expect_end();
        EXPECT_EQ(shutdown.get(), 0);
    }
    stop = true;
    for (std::thread &t : threads)
        t.join();
}

/* ---- Draining ---- */

TEST_F(draining, everything_that_was_published_and_asked_for_is_sent)
{
    peer p = connected();
    zeb_publisher *publisher = zeb_publisher_create("c");
    zeb_subscriber *sub = subscribed(p, 1);
    background ending([=] {
        for (int i = 0; i < 2000; i++)
            publish(publisher, "/t", "body");
        zeb_subscriber_close(sub);
        return zeb_shutdown();
    });
    for (int i = 1; i <= 2000; i++)
        p.expect(published("c", "/t", "0" + std::to_string(i), "body"));
    p.expect(unsubscribe_request(1));
    p.expect_close();
    EXPECT_EQ(ending.get(), 0);
}

TEST_F(draining, waits_for_a_daemon_that_is_slow_to_read)
{
    peer p = connected();
    zeb_publisher *publisher = zeb_publisher_create("c");
    const std::string expected = stall(publisher, p);
    background ending([] { return zeb_shutdown(); });
    EXPECT_FALSE(ending.done_within(milliseconds{300}));
    p.expect(expected);
    p.expect_close();
    EXPECT_EQ(ending.get(), 0);
}

TEST_F(draining, does_not_hold_up_a_fork_meanwhile)
{
    peer p = connected();
    zeb_publisher *publisher = zeb_publisher_create("c");
    const std::string expected = stall(publisher, p);
    background ending([] { return zeb_shutdown(); });
    EXPECT_FALSE(ending.done_within(milliseconds{300}));
    background forking([] {
        const pid_t child = fork();
        if (child == 0)
            _exit(7);
        int status = 0;
        waitpid(child, &status, 0);
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    });
    EXPECT_EQ(forking.get(), 7);
    EXPECT_FALSE(ending.done_within(milliseconds{0}));
    p.expect(expected);
    EXPECT_EQ(ending.get(), 0);
}

TEST_F(draining, ends_when_the_daemon_goes_away)
{
    peer p = connected();
    zeb_publisher *publisher = zeb_publisher_create("c");
    stall(publisher, p);
    for (int i = 0; i < 10; i++)
        publish(publisher, "/t");
    background ending([] { return zeb_shutdown(); });
    EXPECT_FALSE(ending.done_within(milliseconds{100}));
    daemon.refuse();
    p.reset();
    EXPECT_EQ(ending.get(), 0);
}

TEST_F(draining, an_init_that_comes_meanwhile_waits_and_starts_afresh)
{
    peer p = connected();
    zeb_publisher *publisher = zeb_publisher_create("c");
    const std::string expected = stall(publisher, p);
    background ending([] { return zeb_shutdown(); });
    EXPECT_FALSE(ending.done_within(milliseconds{100}));
    background starting([] { return zeb_init(); });
    EXPECT_FALSE(starting.done_within(milliseconds{100}));
    p.expect(expected);
    p.expect_close();
    EXPECT_EQ(ending.get(), 0);
    EXPECT_EQ(starting.get(), 0);
    peer next = daemon.accept_connected(home.path());
    EXPECT_EQ(sent_before_mark(next), "");
}

/* ---- Not waiting ---- */

TEST_F(discarding, returns_within_two_seconds_though_the_daemon_does_not_read)
{
    peer p = connected();
    zeb_publisher *publisher = zeb_publisher_create("c");
    stall(publisher, p);
    for (int i = 0; i < 100; i++)
        publish(publisher, "/t", "body");
    const stopwatch watch;
    EXPECT_EQ(zeb_shutdown_nowait(), 0);
    EXPECT_LT(watch.elapsed(), stretched(milliseconds{2000}));
    p.expect_end();
}

TEST_F(discarding, gives_the_daemon_its_second_though_the_clock_is_set)
{
    peer p = connected();
    stall(zeb_publisher_create("c"), p);
    const interposed::unsteady_clock unsteady;
    const stopwatch watch;
    EXPECT_EQ(zeb_shutdown_nowait(), 0);
    EXPECT_GE(watch.elapsed(), milliseconds{1000});
    EXPECT_LT(watch.elapsed(), stretched(milliseconds{2000}));
    p.expect_end();
}

/* ---- The end of the process ---- */

TEST_F(discarding, exit_without_shutdown_under_load_ends_the_process_properly)
{
    if (threadSanitizer)
        GTEST_SKIP() << "a forked child cannot start threads under the thread sanitizer";
    for (int i = 0; i < 10; i++) {
        fflush(nullptr); /* the child ends with exit and would write it, too */
        const pid_t child = fork();
        if (child == 0) {
            zeb_init();
            zeb_subscriber *sub = zeb_subscriber_create_async("/t", "c", nullptr, nullptr);
            zeb_subscriber_registercallback(
                sub, [](zeb_notification *, void *) { return 0; }, nullptr, i % 2);
            std::thread([=] {
                for (int k = 0; k < 20000; k++)
                    publish(zeb_subscriber_getPublisher(sub), "/t", "body");
            }).detach();
            char *name = nullptr;
            zeb_get_instancename(&name);
            free(name);
            if (addressSanitizer)
                _exit(5); /* what is not shut down counts as leaked there */
            exit(5);
        }
        peer p = daemon.accept();
        p.read_head();
        p.send(handshakeReply);
        for (int k = 0; k < 200; k++)
            p.send(message("1", "/t", "body"));
        p.expect_end();
        int status = 0;
        ASSERT_EQ(waitpid(child, &status, 0), child);
        EXPECT_TRUE(WIFEXITED(status)) << status;
        EXPECT_EQ(WEXITSTATUS(status), 5);
    }
}

} // namespace
