/* Call-backs: one thread in order (mode 0), a thread each (mode 1), and everything an application may do
 * inside. */
#include "conversation.h"

#include <condition_variable>
#include <csignal>
#include <mutex>
#include <set>
#include <thread>

namespace
{

using namespace zebtest;
using calling = conversation;

/* What call-backs note, for the test to wait for. */
class record
{
  public:
    void note(const std::string &what)
    {
        const std::lock_guard hold(lock);
        noted.push_back(what);
        threads.insert(std::this_thread::get_id());
    }

    std::vector<std::string> all()
    {
        const std::lock_guard hold(lock);
        return noted;
    }

    bool becomes(const std::vector<std::string> &expected)
    {
        return eventually([&] { return all() == expected; });
    }

    size_t thread_count()
    {
        const std::lock_guard hold(lock);
        return threads.size();
    }

  private:
    std::mutex lock;
    std::vector<std::string> noted;
    std::set<std::thread::id> threads;
};

int32_t note_type(zeb_notification *n, void *context)
{
    static_cast<record *>(context)->note(zeb_notification_type(n));
    return -1; /* ignored */
}

/* A door that call-backs wait at until the test opens it. */
class door
{
  public:
    void pass()
    {
        std::unique_lock hold(lock);
        waiting++;
        changed.notify_all();
        changed.wait(hold, [&] { return open; });
        waiting--;
        changed.notify_all();
    }
    void let_pass()
    {
        const std::lock_guard hold(lock);
        open = true;
        changed.notify_all();
    }
    bool has_waiting(int count)
    {
        std::unique_lock hold(lock);
        return changed.wait_for(hold, stretched(patience), [&] { return waiting == count; });
    }

  private:
    std::mutex lock;
    std::condition_variable changed;
    int waiting = 0;
    bool open = false;
};

bool no_call_back_threads()
{
    return eventually(
        [] { return threads_named("zeb-dispatch") == 0 && threads_named("zeb-callback") == 0; });
}

/* ---- Registering ---- */

TEST_F(calling, registered_twice_without_cancel_fails_the_second_time)
{
    peer p = connected();
    zeb_subscriber *sub = subscribed(p, 1);
    record first;
    record second;
    for (const int32_t mode : {0, 1, 2, -1}) {
        EXPECT_EQ(zeb_subscriber_registercallback(sub, note_type, &first, mode), 0);
        EXPECT_EQ(zeb_subscriber_registercallback(sub, note_type, &second, mode), -1);
        EXPECT_EQ(zeb_subscriber_registercallback(sub, note_type, &second, 0), -1);
        EXPECT_EQ(zeb_subscriber_cancelcallback(sub), 0);
        EXPECT_EQ(zeb_subscriber_cancelcallback(sub), -1);
    }
    zeb_subscriber_close(sub);
    EXPECT_TRUE(no_call_back_threads());
}

TEST_F(calling, null_subscriber_and_null_function_are_refused)
{
    peer p = connected();
    zeb_subscriber *sub = subscribed(p, 1);
    EXPECT_EQ(zeb_subscriber_registercallback(nullptr, note_type, nullptr, 0), -1);
    EXPECT_EQ(zeb_subscriber_registercallback(sub, nullptr, nullptr, 0), -1);
    EXPECT_EQ(zeb_subscriber_cancelcallback(sub), -1);
    EXPECT_EQ(zeb_subscriber_cancelcallback(nullptr), -1);
    zeb_subscriber_close(sub);
}

TEST_F(calling, other_modes_are_registered_but_never_called)
{
    peer p = connected();
    zeb_subscriber *sub = subscribed(p, 1);
    record calls;
    const int threads = threads_named("");
    EXPECT_EQ(zeb_subscriber_registercallback(sub, note_type, &calls, 2), 0);
    p.send(message("1", "/t"));
    EXPECT_EQ(receive_type(sub), "/t");
    EXPECT_EQ(threads_named(""), threads);
    EXPECT_EQ(calls.all(), std::vector<std::string>{});
    zeb_subscriber_close(sub);
}

/* ---- Mode 0 ---- */

TEST_F(calling, mode_0_calls_in_order_on_one_thread)
{
    peer p = connected();
    zeb_subscriber *sub = subscribed(p, 1);
    record calls;
    std::vector<std::string> expected;
    p.send(message("1", "/0")); /* one is there before the call-back is */
    EXPECT_EQ(zeb_subscriber_registercallback(sub, note_type, &calls, 0), 0);
    expected.push_back("/0");
    for (int i = 1; i < 200; i++) {
        expected.push_back("/" + std::to_string(i));
        p.send(message("1", expected.back(), "body"));
    }
    EXPECT_TRUE(calls.becomes(expected));
    EXPECT_EQ(calls.thread_count(), 1U);
    EXPECT_EQ(threads_named("zeb-dispatch"), 1);
    zeb_subscriber_close(sub);
    EXPECT_TRUE(no_call_back_threads());
}

TEST_F(calling, dispatcher_is_detached_and_has_the_configured_stack)
{
    set_variable("TAMBEK_THREAD_STACKSIZE", "131072");
    peer p = connected();
    zeb_subscriber *sub = subscribed(p, 1);
    record calls;
    interposed::forget_threads();
    EXPECT_EQ(zeb_subscriber_registercallback(sub, note_type, &calls, 0), 0);
    ASSERT_EQ(interposed::created_threads().size(), 1U);
    EXPECT_EQ(interposed::created_threads()[0].stacksize, 131072U);
    EXPECT_TRUE(interposed::created_threads()[0].detached);
    zeb_subscriber_close(sub);
    EXPECT_TRUE(no_call_back_threads());
}

TEST_F(calling, cancelled_call_back_is_not_called_and_receive_gets_what_comes)
{
    peer p = connected();
    zeb_subscriber *sub = subscribed(p, 1);
    record calls;
    zeb_subscriber_registercallback(sub, note_type, &calls, 0);
    p.send(message("1", "/called"));
    EXPECT_TRUE(calls.becomes({"/called"}));
    EXPECT_EQ(zeb_subscriber_cancelcallback(sub), 0);
    p.send(message("1", "/received"));
    /* The dispatcher may take it, sees that it is cancelled and puts it back. */
    std::string type = "<null>";
    EXPECT_TRUE(eventually([&] {
        zeb_notification *n = zeb_subscriber_receive(sub, 0, 0);
        if (n == nullptr)
            return false;
        type = zeb_notification_type(n);
        zeb_subscriber_relinquish(sub, n);
        return true;
    }));
    EXPECT_EQ(type, "/received");
    EXPECT_TRUE(no_call_back_threads());
    EXPECT_EQ(calls.all(), std::vector<std::string>{"/called"});
    zeb_subscriber_close(sub);
}

TEST_F(calling, registering_again_at_once_leaves_one_dispatcher)
{
    peer p = connected();
    zeb_subscriber *sub = subscribed(p, 1);
    record old;
    record calls;
    zeb_subscriber_registercallback(sub, note_type, &old, 0);
    for (int i = 0; i < 10; i++) {
        EXPECT_EQ(zeb_subscriber_cancelcallback(sub), 0);
        EXPECT_EQ(zeb_subscriber_registercallback(sub, note_type, i < 9 ? &old : &calls, 0), 0);
    }
    std::vector<std::string> expected;
    for (int i = 0; i < 100; i++) {
        expected.push_back("/" + std::to_string(i));
        p.send(message("1", expected.back()));
    }
    EXPECT_TRUE(eventually([&] { return calls.all().size() == expected.size(); }));
    EXPECT_EQ(old.all(), std::vector<std::string>{});
    EXPECT_EQ(calls.thread_count(), 1U);
    EXPECT_TRUE(threads_become("zeb-dispatch", 1));
    zeb_subscriber_close(sub);
    EXPECT_TRUE(no_call_back_threads());
}

TEST_F(calling, other_mode_may_follow_a_cancel)
{
    peer p = connected();
    zeb_subscriber *sub = subscribed(p, 1);
    record calls;
    zeb_subscriber_registercallback(sub, note_type, &calls, 0);
    zeb_subscriber_cancelcallback(sub);
    EXPECT_TRUE(no_call_back_threads());
    zeb_subscriber_registercallback(sub, note_type, &calls, 1);
    p.send(message("1", "/t"));
    EXPECT_TRUE(calls.becomes({"/t"}));
    zeb_subscriber_close(sub);
    EXPECT_TRUE(no_call_back_threads());
}

TEST_F(calling, asynchronous_subscriber_is_called_once_its_success_has_come)
{
    peer p = connected();
    zeb_subscriber *sub = zeb_subscriber_create_async("/t", "c", nullptr, nullptr);
    p.expect(subscribe_request(1, "/t"));
    record calls;
    zeb_subscriber_registercallback(sub, note_type, &calls, 0);
    p.send(message("1", "/early"));
    zeb_subscriber *other = subscribed(p, 2); /* by its answer the early one has been delivered */
    EXPECT_EQ(calls.all(), std::vector<std::string>{});
    p.send(status_reply(1, "success") + message("1", "/late"));
    EXPECT_TRUE(calls.becomes({"/early", "/late"})); /* nobody has asked for the status */
    EXPECT_EQ(zeb_subscriber_status(sub, nullptr), 0);
    zeb_subscriber_close(sub);
    zeb_subscriber_close(other);
    EXPECT_TRUE(no_call_back_threads());
}

TEST_F(calling, asynchronous_subscriber_that_was_refused_is_not_called_until_that_was_reported)
{
    peer p = connected();
    zeb_subscriber *sub = zeb_subscriber_create_async("/t", "c", nullptr, nullptr);
    p.expect(subscribe_request(1, "/t"));
    record calls;
    zeb_subscriber_registercallback(sub, note_type, &calls, 0);
    p.send(status_reply(1, "failure") + message("1", "/all the same"));
    zeb_subscriber *other = subscribed(p, 2);
    EXPECT_EQ(calls.all(), std::vector<std::string>{});
    EXPECT_EQ(zeb_subscriber_status(sub, nullptr), 2);
    EXPECT_TRUE(calls.becomes({"/all the same"}));
    zeb_subscriber_close(sub);
    zeb_subscriber_close(other);
}

TEST_F(calling, a_pending_dispatcher_ends_with_its_subscriber)
{
    peer p = connected();
    zeb_subscriber *sub = zeb_subscriber_create_async("/t", "c", nullptr, nullptr);
    record calls;
    zeb_subscriber_registercallback(sub, note_type, &calls, 0);
    zeb_subscriber_close(sub);
    EXPECT_TRUE(no_call_back_threads());
}

TEST_F(calling, a_member_is_called_with_leave_group)
{
    peer p = connected();
    zeb_subscriber *sub = subscribed(p, 1, "/t", "/group");
    record calls;
    zeb_subscriber_registercallback(sub, note_type, &calls, 0);
    p.close();
    EXPECT_TRUE(calls.becomes({"ZEB/SYSTEM/LEAVEGROUP"}));
    p = daemon.accept_connected(home.path());
    zeb_subscriber_close(sub);
}

/* ---- Mode 1 ---- */

struct meeting {
    record calls;
    door gate;
};

int32_t note_and_wait(zeb_notification *n, void *context)
{
    auto *m = static_cast<meeting *>(context);
    m->gate.pass();
    m->calls.note(zeb_notification_type(n));
    return 0;
}

TEST_F(calling, mode_1_calls_at_the_same_time_on_a_thread_each)
{
    peer p = connected();
    zeb_subscriber *sub = subscribed(p, 1);
    meeting m;
    EXPECT_EQ(zeb_subscriber_registercallback(sub, note_and_wait, &m, 1), 0);
    for (int i = 0; i < 10; i++)
        p.send(message("1", "/t", "body"));
    EXPECT_TRUE(m.gate.has_waiting(10));
    EXPECT_EQ(threads_named("zeb-callback"), 10);
    EXPECT_EQ(threads_named("zeb-dispatch"), 0);
    m.gate.let_pass();
    EXPECT_TRUE(no_call_back_threads());
    EXPECT_EQ(m.calls.all().size(), 10U);
    EXPECT_EQ(m.calls.thread_count(), 10U);
    zeb_subscriber_close(sub);
}

TEST_F(calling, mode_1_threads_are_detached_and_have_the_configured_stack)
{
    set_variable("TAMBEK_THREAD_STACKSIZE", "131072");
    peer p = connected();
    zeb_subscriber *sub = subscribed(p, 1);
    record calls;
    zeb_subscriber_registercallback(sub, note_type, &calls, 1);
    interposed::forget_threads();
    p.send(message("1", "/t"));
    EXPECT_TRUE(calls.becomes({"/t"}));
    ASSERT_EQ(interposed::created_threads().size(), 1U);
    EXPECT_EQ(interposed::created_threads()[0].stacksize, 131072U);
    EXPECT_TRUE(interposed::created_threads()[0].detached);
    EXPECT_TRUE(no_call_back_threads());
    zeb_subscriber_close(sub);
}

TEST_F(calling, mode_1_calls_even_while_the_answer_is_missing)
{
    peer p = connected();
    zeb_subscriber *sub = zeb_subscriber_create_async("/t", "c", nullptr, nullptr);
    record calls;
    zeb_subscriber_registercallback(sub, note_type, &calls, 1);
    p.expect(subscribe_request(1, "/t"));
    p.send(message("1", "/early"));
    EXPECT_TRUE(calls.becomes({"/early"}));
    EXPECT_TRUE(no_call_back_threads());
    zeb_subscriber_close(sub);
}

TEST_F(calling, mode_1_does_not_take_what_was_queued_before)
{
    peer p = connected();
    zeb_subscriber *sub = subscribed(p, 1);
    p.send(message("1", "/before"));
    zeb_subscriber *other = subscribed(p, 2);
    record calls;
    zeb_subscriber_registercallback(sub, note_type, &calls, 1);
    p.send(message("1", "/after"));
    EXPECT_TRUE(calls.becomes({"/after"}));
    EXPECT_EQ(receive_type(sub), "/before");
    zeb_subscriber_close(sub);
    zeb_subscriber_close(other);
}

/* ---- Threads that cannot be had ---- */

TEST_F(calling, without_a_thread_mode_0_is_not_registered)
{
    peer p = connected();
    zeb_subscriber *sub = subscribed(p, 1);
    record calls;
    interposed::fail_threads(0, 1, EAGAIN);
    EXPECT_EQ(zeb_subscriber_registercallback(sub, note_type, &calls, 0), -1);
    EXPECT_EQ(zeb_subscriber_cancelcallback(sub), -1);
    p.send(message("1", "/received"));
    EXPECT_EQ(receive_type(sub), "/received");
    EXPECT_EQ(zeb_subscriber_registercallback(sub, note_type, &calls, 0), 0);
    p.send(message("1", "/called"));
    EXPECT_TRUE(calls.becomes({"/called"}));
    zeb_subscriber_close(sub);
}

TEST_F(calling, without_a_thread_mode_1_queues_the_notification)
{
    peer p = connected();
    zeb_subscriber *sub = subscribed(p, 1);
    record calls;
    zeb_subscriber_registercallback(sub, note_type, &calls, 1);
    interposed::fail_threads(0, 1, EAGAIN);
    p.send(message("1", "/queued") + message("1", "/called"));
    EXPECT_TRUE(calls.becomes({"/called"}));
    EXPECT_EQ(receive_type(sub), "/queued");
    zeb_subscriber_close(sub);
}

/* ---- Inside the call-back ---- */

/* For call-backs that use their own subscriber. */
struct inside {
    zeb_subscriber *sub;
    zeb_publisher *publisher = nullptr;
    record calls;
};

class within : public calling, public testing::WithParamInterface<int32_t>
{
};

INSTANTIATE_TEST_SUITE_P(mode, within, testing::Values(0, 1), testing::PrintToStringParamName());

TEST_P(within, the_notification_may_be_relinquished)
{
    peer p = connected();
    inside in{subscribed(p, 1), nullptr, {}};
    const auto relinquish = [](zeb_notification *n, void *context) {
        auto *self = static_cast<inside *>(context);
        const std::string type = zeb_notification_type(n);
        zeb_subscriber_relinquish(self->sub, n);
        self->calls.note(type);
        return 0;
    };
    zeb_subscriber_registercallback(in.sub, relinquish, &in, GetParam());
    for (int i = 0; i < 3; i++)
        p.send(message("1", "/t", "body"));
    EXPECT_TRUE(in.calls.becomes({"/t", "/t", "/t"}));
    zeb_subscriber_close(in.sub);
    EXPECT_TRUE(no_call_back_threads());
}

TEST_P(within, the_notification_may_be_published)
{
    peer p = connected();
    inside in{subscribed(p, 1), zeb_publisher_create("relay"), {}};
    const auto publish = [](zeb_notification *n, void *context) {
        zeb_publisher_publish(static_cast<inside *>(context)->publisher, n);
        return 0;
    };
    zeb_subscriber_registercallback(in.sub, publish, &in, GetParam());
    for (int i = 0; i < 3; i++) {
        p.send(message("1", "/t", "body"));
        const std::string head = p.read_head();
        EXPECT_NE(head.find("eventId: node1:911\r\n"), std::string::npos);
        p.expect("body");
    }
    zeb_subscriber_close(in.sub);
    zeb_publisher_close(in.publisher);
    EXPECT_TRUE(no_call_back_threads());
}

TEST_P(within, the_subscriber_may_be_closed)
{
    peer p = connected();
    inside in{subscribed(p, 1), nullptr, {}};
    const auto close = [](zeb_notification *n, void *context) {
        auto *self = static_cast<inside *>(context);
        zeb_subscriber_close(self->sub);
        self->calls.note(zeb_notification_type(n)); /* it lives until the call-back returns */
        return 0;
    };
    zeb_subscriber_registercallback(in.sub, close, &in, GetParam());
    p.send(message("1", "/t", "body"));
    p.expect(unsubscribe_request(1));
    EXPECT_TRUE(in.calls.becomes({"/t"}));
    EXPECT_TRUE(no_call_back_threads());
    EXPECT_EQ(sent_before_mark(p), "");
}

TEST_P(within, the_subscriber_may_be_closed_and_the_notification_relinquished)
{
    peer p = connected();
    inside in{subscribed(p, 1), nullptr, {}};
    const auto relinquish = [](zeb_notification *n, void *context) {
        auto *self = static_cast<inside *>(context);
        zeb_subscriber_relinquish(self->sub, n);
        zeb_subscriber_close(self->sub);
        self->calls.note("done");
        return 0;
    };
    zeb_subscriber_registercallback(in.sub, relinquish, &in, GetParam());
    p.send(message("1", "/t", "body"));
    EXPECT_TRUE(in.calls.becomes({"done"}));
    EXPECT_TRUE(no_call_back_threads());
}

TEST_P(within, the_call_back_may_be_cancelled_and_registered_again)
{
    peer p = connected();
    inside in{subscribed(p, 1), nullptr, {}};
    const auto replace = [](zeb_notification *n, void *context) {
        auto *self = static_cast<inside *>(context);
        self->calls.note(zeb_notification_type(n));
        const int32_t cancelled = zeb_subscriber_cancelcallback(self->sub);
        const int32_t registered = zeb_subscriber_registercallback(self->sub, note_type, &self->calls, 0);
        self->calls.note(std::to_string(cancelled) + std::to_string(registered));
        return 0;
    };
    zeb_subscriber_registercallback(in.sub, replace, &in, GetParam());
    p.send(message("1", "/first"));
    EXPECT_TRUE(in.calls.becomes({"/first", "00"}));
    p.send(message("1", "/second"));
    EXPECT_TRUE(in.calls.becomes({"/first", "00", "/second"}));
    zeb_subscriber_close(in.sub);
    EXPECT_TRUE(no_call_back_threads());
}

TEST_P(within, a_subscriber_may_be_created)
{
    peer p = connected();
    inside in{subscribed(p, 1), nullptr, {}};
    const auto create = [](zeb_notification *, void *context) {
        auto *self = static_cast<inside *>(context);
        char *text = nullptr;
        zeb_subscriber *other = zeb_subscriber_create("/other", "c", nullptr, nullptr, &text);
        self->calls.note(text_or_null(owned_text(text).get()));
        zeb_subscriber_close(other);
        return 0;
    };
    zeb_subscriber_registercallback(in.sub, create, &in, GetParam());
    p.send(message("1", "/t"));
    p.expect(subscribe_request(2, "/other"));
    p.send(status_reply(2, "success", "welcome"));
    p.expect(unsubscribe_request(2));
    EXPECT_TRUE(in.calls.becomes({"welcome"}));
    zeb_subscriber_close(in.sub);
    EXPECT_TRUE(no_call_back_threads());
}

TEST_P(within, the_runtime_may_be_shut_down)
{
    peer p = connected();
    inside in{subscribed(p, 1), nullptr, {}};
    const auto shut = [](zeb_notification *n, void *context) {
        auto *self = static_cast<inside *>(context);
        const int32_t result = zeb_shutdown();
        self->calls.note(zeb_notification_type(n) + std::to_string(result));
        return 0;
    };
    zeb_subscriber_registercallback(in.sub, shut, &in, GetParam());
    p.send(message("1", "/t", "body"));
    p.expect_close();
    EXPECT_TRUE(in.calls.becomes({"/t0"}));
    EXPECT_TRUE(no_call_back_threads());
    EXPECT_EQ(zeb_publisher_create("c"), nullptr);
    peer next = connected(); /* and started again */
}

TEST_P(within, a_close_by_another_thread_leaves_the_notification_alone)
{
    peer p = connected();
    zeb_subscriber *sub = subscribed(p, 1);
    meeting m;
    zeb_subscriber_registercallback(sub, note_and_wait, &m, GetParam());
    p.send(message("1", "/t", "body"));
    EXPECT_TRUE(m.gate.has_waiting(1));
    zeb_subscriber_close(sub);
    p.expect(unsubscribe_request(1));
    m.gate.let_pass();
    EXPECT_TRUE(m.calls.becomes({"/t"}));
    EXPECT_TRUE(no_call_back_threads());
}

TEST_P(within, a_shutdown_by_another_thread_does_not_wait_for_it)
{
    peer p = connected();
    zeb_subscriber *sub = subscribed(p, 1);
    meeting m;
    zeb_subscriber_registercallback(sub, note_and_wait, &m, GetParam());
    p.send(message("1", "/t", "body"));
    EXPECT_TRUE(m.gate.has_waiting(1));
    EXPECT_EQ(zeb_shutdown(), 0);
    p.expect_close();
    m.gate.let_pass();
    EXPECT_TRUE(m.calls.becomes({"/t"}));
    EXPECT_TRUE(no_call_back_threads());
}

TEST_P(within, a_loss_of_the_connection_goes_unnoticed)
{
    peer p = connected();
    zeb_subscriber *sub = subscribed(p, 1);
    meeting m;
    zeb_subscriber_registercallback(sub, note_and_wait, &m, GetParam());
    p.send(message("1", "/before"));
    EXPECT_TRUE(m.gate.has_waiting(1));
    p.close();
    p = daemon.accept_connected(home.path());
    p.expect(subscribe_request(1, "/t"));
    m.gate.let_pass();
    EXPECT_TRUE(m.calls.becomes({"/before"}));
    p.send(message("1", "/after"));
    EXPECT_TRUE(m.calls.becomes({"/before", "/after"}));
    zeb_subscriber_close(sub);
    EXPECT_TRUE(no_call_back_threads());
}

/* ---- Signals ---- */

std::string own_mask()
{
    sigset_t mask;
    pthread_sigmask(SIG_SETMASK, nullptr, &mask);
    std::string blocked;
    for (int signal = 1; signal < 32; signal++) {
        if (sigismember(&mask, signal) == 1)
            blocked += std::to_string(signal) + " ";
    }
    return blocked;
}

int32_t note_mask(zeb_notification *, void *context)
{
    static_cast<record *>(context)->note(own_mask());
    return 0;
}

void block_only(int signal)
{
    sigset_t mask;
    sigemptyset(&mask);
    sigaddset(&mask, signal);
    pthread_sigmask(SIG_SETMASK, &mask, nullptr);
}

TEST_F(calling, dispatcher_has_the_signal_mask_of_who_registered_and_other_threads_that_of_who_started)
{
    block_only(SIGUSR1);
    peer p = connected();
    zeb_subscriber *first = subscribed(p, 1);
    zeb_subscriber *second = subscribed(p, 2);
    block_only(SIGUSR2);
    record calls;
    zeb_subscriber_registercallback(first, note_mask, &calls, 0);
    p.send(message("1", "/t"));
    EXPECT_TRUE(calls.becomes({std::to_string(SIGUSR2) + " "}));
    zeb_subscriber_registercallback(second, note_mask, &calls, 1);
    p.send(message("2", "/t"));
    EXPECT_TRUE(calls.becomes({std::to_string(SIGUSR2) + " ", std::to_string(SIGUSR1) + " "}));
    zeb_subscriber_close(first);
    zeb_subscriber_close(second);
    EXPECT_TRUE(no_call_back_threads());
}

} // namespace
