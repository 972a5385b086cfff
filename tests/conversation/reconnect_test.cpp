/* Loss of the daemon and what happens after it. */
#include "conversation.h"

#include <sys/socket.h>

namespace
{

using namespace zebtest;
using losing = conversation;

void publish(zeb_publisher *publisher, const char *type, std::string_view body = "")
{
    zeb_publisher_publish(publisher,
                          zeb_notification_create(type, body.data(), static_cast<int32_t>(body.size())));
}

/* Lets the library know of the loss, which it shows by trying to connect: nobody listens. */
void lose(fake_daemon &daemon, peer &p)
{
    daemon.refuse();
    const size_t before = interposed::sleeps().size();
    p.close();
    if (!eventually([&] { return interposed::sleeps().size() > before; }))
        script_fails({__FILE__, __LINE__}, "the library does not notice the loss");
}

/* ---- How it is noticed ---- */

TEST_F(losing, every_kind_of_end_is_followed_by_a_new_connection_without_a_pause)
{
    peer p = connected();
    p.close();
    p = daemon.accept_connected(home.path());
    p.reset();
    p = daemon.accept_connected(home.path());
    p.half_close();
    p.expect_close();
    p = daemon.accept_connected(home.path());
    EXPECT_EQ(sent_before_mark(p), "");
    EXPECT_EQ(interposed::sleeps(), std::vector<unsigned>{});
}

TEST_F(losing, a_daemon_that_ends_every_connection_is_connected_again_and_again)
{
    ASSERT_EQ(zeb_init(), 0);
    for (int i = 0; i < 200; i++)
        daemon.accept_connected(home.path());
    EXPECT_EQ(interposed::sleeps(), std::vector<unsigned>{});
}

TEST_F(losing, nothing_is_left_behind_by_many_losses)
{
    peer p = connected();
    zeb_subscriber *sub = subscribed(p, 1);
    const int descriptors = open_descriptors();
    const int threads = threads_named("");
    for (int i = 0; i < 200; i++) {
        p.close();
        p = daemon.accept_connected(home.path());
        p.expect(subscribe_request(1, "/t"));
        p.send(status_reply(1, "success", "again"));
    }
    EXPECT_EQ(open_descriptors(), descriptors);
    EXPECT_TRUE(threads_become("", threads));
    p.send(message("1", "/after"));
    EXPECT_EQ(receive_type(sub), "/after");
    zeb_subscriber_close(sub);
}

TEST_F(losing, publishing_into_a_connection_that_is_gone_raises_no_signal)
{
    peer p = connected();
    zeb_publisher *publisher = zeb_publisher_create("c");
    const std::string body(100000, 'b');
    for (int i = 0; i < 20; i++) {
        for (int k = 0; k < 5; k++)
            publish(publisher, "/t", body); /* SIGPIPE would end this process */
        p.reset();
        p = daemon.accept_connected(home.path());
    }
    zeb_publisher_close(publisher);
}

/* ---- Subscribers ---- */

TEST_F(losing, every_registered_subscriber_is_subscribed_again_in_the_order_of_identifiers)
{
    peer p = connected();
    zeb_subscriber *first = subscribed(p, 1, "/a");
    zeb_subscriber *second = subscribed(p, 2, "/b");
    zeb_subscriber *third = subscribed(p, 3, "/c");
    zeb_subscriber_close(second);
    p.expect(unsubscribe_request(2));
    p.close();
    p = daemon.accept_connected(home.path());
    p.expect(subscribe_request(1, "/a") + subscribe_request(3, "/c"));
    EXPECT_EQ(sent_before_mark(p), "");
    p.send(message("3", "/to3") + message("1", "/to1"));
    EXPECT_EQ(receive_type(first), "/to1");
    EXPECT_EQ(receive_type(third), "/to3");
    zeb_subscriber_close(first);
    zeb_subscriber_close(third);
}

TEST_F(losing, subscriptions_carry_everything_again)
{
    peer p = connected();
    zeb_proplist *properties = zeb_proplist_create();
    zeb_proplist_put(properties, "role", "master");
    zeb_subscriber *sub = zeb_subscriber_create_async(nullptr, nullptr, nullptr, properties);
    zeb_proplist_destroy(&properties);
    const std::string request = lines({"POST /subscribe HTTP/1.1", "Content-Length: 0", "SubscriberID: 1",
                                       "Subscription: null", "Component: ", "MbrInterest: null",
                                       "MbrDeltas: false", "numberOfProperties: 1", "role: master", ""});
    p.expect(request);
    p.close();
    daemon.accept_connected(home.path()).expect(request);
    zeb_subscriber_close(sub);
}

TEST_F(losing, a_request_that_is_still_queued_is_not_doubled)
{
    peer p = connected();
    zeb_subscriber *early = subscribed(p, 1, "/a");
    lose(daemon, p);
    zeb_subscriber *late = zeb_subscriber_create_async("/b", "c", nullptr, nullptr);
    daemon.listen_again();
    p = daemon.accept_connected(home.path());
    p.expect(subscribe_request(2, "/b") + subscribe_request(1, "/a"));
    EXPECT_EQ(sent_before_mark(p), "");
    zeb_subscriber_close(early);
    zeb_subscriber_close(late);
}

TEST_F(losing, requests_made_before_the_first_connection_are_sent_once)
{
    ASSERT_EQ(zeb_init(), 0);
    zeb_subscriber *sub = zeb_subscriber_create_async("/t", "c", nullptr, nullptr);
    peer p = daemon.accept_connected(home.path());
    p.expect(subscribe_request(1, "/t"));
    EXPECT_EQ(sent_before_mark(p), "");
    zeb_subscriber_close(sub);
}

TEST_F(losing, answers_to_a_repeated_subscription_change_nothing)
{
    peer p = connected();
    zeb_subscriber *sub = subscribed(p, 1);
    p.close();
    p = daemon.accept_connected(home.path());
    p.expect(subscribe_request(1, "/t"));
    p.send(status_reply(1, "failure", "not any more") + message("1", "/after"));
    EXPECT_EQ(receive_type(sub), "/after");
    char *text = nullptr;
    EXPECT_EQ(zeb_subscriber_status(sub, &text), 0);
    EXPECT_EQ(text, nullptr);
    zeb_subscriber_close(sub);
}

TEST_F(losing, what_was_delivered_before_the_loss_is_still_received)
{
    peer p = connected();
    zeb_subscriber *sub = subscribed(p, 1);
    p.send(message("1", "/before"));
    p.close();
    p = daemon.accept_connected(home.path());
    p.send(message("1", "/after"));
    EXPECT_EQ(receive_type(sub), "/before");
    EXPECT_EQ(receive_type(sub), "/after");
    zeb_subscriber_close(sub);
}

TEST_F(losing, a_blocked_receive_outlives_the_loss)
{
    peer p = connected();
    zeb_subscriber *sub = subscribed(p, 1);
    background receiving([=] { return receive_type(sub); });
    p.close();
    p = daemon.accept_connected(home.path());
    p.expect(subscribe_request(1, "/t"));
    p.send(message("1", "/after"));
    EXPECT_EQ(receiving.get(), "/after");
    zeb_subscriber_close(sub);
}

TEST_F(losing, a_creation_that_waits_is_subscribed_again_and_answered)
{
    peer p = connected();
    background creation([] { return zeb_subscriber_create("/t", "c", nullptr, nullptr, nullptr); });
    for (int i = 0; i < 3; i++) {
        p.expect(subscribe_request(1, "/t"));
        p.close();
        p = daemon.accept_connected(home.path());
    }
    p.expect(subscribe_request(1, "/t"));
    p.send(status_reply(1, "success"));
    zeb_subscriber *sub = creation.get();
    EXPECT_NE(sub, nullptr);
    zeb_subscriber_close(sub);
}

/* ---- Members ---- */

TEST_F(losing, members_get_a_leave_group_notification_and_are_not_subscribed_again)
{
    peer p = connected();
    zeb_subscriber *member = subscribed(p, 1, "/a", "/group");
    zeb_subscriber *other = subscribed(p, 2, "/b");
    p.close();
    zeb_notification *n = zeb_subscriber_receive(member, 1, 20000);
    ASSERT_NE(n, nullptr);
    EXPECT_STREQ(zeb_notification_type(n), "ZEB/SYSTEM/LEAVEGROUP");
    EXPECT_EQ(zeb_notification_getClass(n), 7U);
    int32_t length = -1;
    EXPECT_EQ(zeb_notification_body(n, &length), nullptr);
    EXPECT_EQ(length, 0);
    EXPECT_EQ(zeb_notification_id(n), nullptr);
    EXPECT_EQ(zeb_notification_generatingComponent(n), nullptr);
    zeb_subscriber_relinquish(member, n);

    p = daemon.accept_connected(home.path());
    p.expect(subscribe_request(2, "/b"));
    p.send(message("1", "/for the member") + message("2", "/for the other"));
    EXPECT_EQ(receive_type(other), "/for the other");
    EXPECT_EQ(zeb_subscriber_receive(member, 0, 0), nullptr);
    zeb_subscriber_close(member); /* not registered any more: no unsubscribe */
    EXPECT_EQ(sent_before_mark(p), "");
    zeb_subscriber_close(other);
}

TEST_F(losing, an_empty_membership_interest_is_one)
{
    peer p = connected();
    zeb_subscriber *member = subscribed(p, 1, "/a", "");
    p.close();
    EXPECT_EQ(receive_type(member), "ZEB/SYSTEM/LEAVEGROUP");
    p = daemon.accept_connected(home.path());
    EXPECT_EQ(sent_before_mark(p), "");
    zeb_subscriber_close(member);
}

TEST_F(losing, a_member_gets_leave_group_once_and_behind_what_it_has_not_received)
{
    peer p = connected();
    zeb_subscriber *member = subscribed(p, 1, "/a", "/group");
    p.send(message("1", "/before"));
    for (int i = 0; i < 3; i++) {
        p.close();
        p = daemon.accept_connected(home.path());
    }
    EXPECT_EQ(receive_type(member), "/before");
    EXPECT_EQ(receive_type(member), "ZEB/SYSTEM/LEAVEGROUP");
    EXPECT_EQ(zeb_subscriber_receive(member, 1, 1000), nullptr);
    zeb_subscriber_close(member);
}

TEST_F(losing, a_member_blocked_in_receive_gets_leave_group)
{
    peer p = connected();
    zeb_subscriber *member = subscribed(p, 1, "/a", "/group");
    background receiving([=] { return receive_type(member); });
    p.close();
    EXPECT_EQ(receiving.get(), "ZEB/SYSTEM/LEAVEGROUP");
    zeb_subscriber_close(member);
}

TEST_F(losing, a_member_whose_creation_waits_stays_subscribed)
{
    peer p = connected();
    background creation([] { return zeb_subscriber_create("/t", "c", "/group", nullptr, nullptr); });
    p.expect(subscribe_request(1, "/t", "c", "/group"));
    p.close();
    p = daemon.accept_connected(home.path());
    p.expect(subscribe_request(1, "/t", "c", "/group"));
    p.send(status_reply(1, "success"));
    zeb_subscriber *member = creation.get();
    ASSERT_NE(member, nullptr);
    EXPECT_EQ(zeb_subscriber_receive(member, 0, 0), nullptr); /* it was no member yet */
    p.send(message("1", "/after"));
    EXPECT_EQ(receive_type(member), "/after");
    zeb_subscriber_close(member);
    p.expect(unsubscribe_request(1));
}

TEST_F(losing, an_asynchronous_member_is_dropped_though_its_answer_is_missing)
{
    peer p = connected();
    zeb_subscriber *member = zeb_subscriber_create_async("/t", "c", "/group", nullptr);
    p.expect(subscribe_request(1, "/t", "c", "/group"));
    p.close();
    p = daemon.accept_connected(home.path());
    EXPECT_EQ(sent_before_mark(p), "");
    zeb_notification *n = zeb_subscriber_receive(member, 0, 0);
    EXPECT_EQ(zeb_notification_getClass(n), 7U);
    EXPECT_EQ(zeb_subscriber_status(member, nullptr), 1);
    zeb_subscriber_relinquish(member, n);
    zeb_subscriber_close(member);
}

TEST_F(losing, a_failed_first_connection_is_no_loss)
{
    ASSERT_EQ(zeb_init(), 0);
    zeb_subscriber *member = zeb_subscriber_create_async("/t", "c", "/group", nullptr);
    for (int i = 0; i < 2; i++) {
        peer p = daemon.accept();
        p.send("\r\n");
        p.expect_end();
    }
    peer p = daemon.accept_connected(home.path());
    p.expect(subscribe_request(1, "/t", "c", "/group"));
    EXPECT_EQ(zeb_subscriber_receive(member, 0, 0), nullptr);
    zeb_subscriber_close(member);
}

TEST_F(losing, a_handshake_that_fails_between_two_connections_is_no_second_loss)
{
    peer p = connected();
    zeb_subscriber *sub = subscribed(p, 1, "/a");
    p.close();
    peer failing = daemon.accept();
    background creation([] { return zeb_subscriber_create("/m", "c", "/group", nullptr, nullptr); });
    failing.send("\r\n");
    failing.expect_end();
    p = daemon.accept_connected(home.path());
    const std::string both = p.read_head() + p.read_head();
    EXPECT_NE(both.find(subscribe_request(1, "/a")), std::string::npos) << shown(both);
    EXPECT_NE(both.find(subscribe_request(2, "/m", "c", "/group")), std::string::npos) << shown(both);
    p.send(status_reply(2, "success"));
    zeb_subscriber *member = creation.get();
    EXPECT_EQ(zeb_subscriber_receive(member, 0, 0), nullptr);
    zeb_subscriber_close(member);
    zeb_subscriber_close(sub);
}

/* ---- What was to be sent ---- */

TEST_F(losing, what_is_published_meanwhile_is_sent_after_it_in_order)
{
    peer p = connected();
    zeb_publisher *publisher = zeb_publisher_create("c");
    lose(daemon, p);
    for (int i = 1; i <= 9; i++)
        publish(publisher, "/t", "body");
    daemon.listen_again();
    p = daemon.accept_connected(home.path());
    for (int i = 1; i <= 9; i++)
        p.expect(published("c", "/t", "0" + std::to_string(i), "body"));
    zeb_publisher_close(publisher);
}

TEST_F(losing, instance_name_of_the_new_connection_is_written)
{
    peer p = connected();
    zeb_publisher *publisher = zeb_publisher_create("c");
    lose(daemon, p);
    publish(publisher, "/t");
    daemon.listen_again();
    p = daemon.accept();
    p.expect(handshake(home.path()));
    std::string reply(handshakeReply);
    p.send(reply.replace(reply.find("east"), 4, "north-east"));
    p.expect(published("c", "/t", "01", "", 0, "north-east"));
    zeb_publisher_close(publisher);
}

/* Fills the connection, which the daemon does not read, until the send thread is stuck within the first
 * event: each body is larger than the kernel takes. Returns the events as they should arrive. */
std::string stall(zeb_publisher *publisher, const peer &p, int events)
{
    const std::string body(20 * 1000 * 1000, 'b');
    std::string expected;
    for (int i = 1; i <= events; i++) {
        publish(publisher, "/big", body);
        expected += published("c", "/big", "0" + std::to_string(i), body);
    }
    int last = 0;
    int calm = 0; /* looks in a row at which nothing had moved */
    const bool stuck = eventually([&] {
        const int unsent = p.unsent_by_library();
        calm = unsent == last && unsent > 0 ? calm + 1 : 0;
        last = unsent;
        return calm > 200;
    });
    EXPECT_TRUE(stuck);
    return expected;
}

TEST_F(losing, unsubscribes_that_are_queued_at_the_loss_are_dropped_and_subscribes_stay)
{
    peer p = connected();
    zeb_publisher *publisher = zeb_publisher_create("c");
    zeb_subscriber *first = subscribed(p, 1, "/a");
    zeb_subscriber *second = subscribed(p, 2, "/b");
    const std::string expected = stall(publisher, p, 1);
    zeb_subscriber_close(first);
    zeb_subscriber *third = zeb_subscriber_create_async("/c", "c", nullptr, nullptr);
    zeb_subscriber_close(second);
    zeb_subscriber *fourth = zeb_subscriber_create_async("/d", "c", nullptr, nullptr);
    zeb_subscriber_close(fourth);
    p.reset();
    p = daemon.accept_connected(home.path());
    /* The interrupted event comes whole; the subscribe of a subscriber that was closed stays, too. */
    p.expect(expected);
    p.expect(subscribe_request(3, "/c") + subscribe_request(4, "/d"));
    EXPECT_EQ(sent_before_mark(p), "");
    zeb_subscriber_close(third);
    zeb_publisher_close(publisher);
}

TEST_F(losing, an_event_that_went_out_in_part_is_sent_whole_and_first_on_the_next_connection)
{
    peer p = connected();
    zeb_publisher *publisher = zeb_publisher_create("c");
    const std::string expected = stall(publisher, p, 2);
    p.reset();
    p = daemon.accept_connected(home.path());
    p.expect(expected);
    EXPECT_EQ(sent_before_mark(p), "");
    zeb_publisher_close(publisher);
}

/* A connection that the library can read from and not write to any more: its own end is shut down for
 * writing. */
void break_writing(const peer &p)
{
    shutdown(p.other_end(), SHUT_WR);
}

TEST_F(losing, a_connection_on_which_half_an_event_went_out_is_given_up_by_the_library)
{
    peer p = connected();
    zeb_publisher *publisher = zeb_publisher_create("c");
    const std::string expected = stall(publisher, p, 2);
    break_writing(p);
    peer next = daemon.accept_connected(home.path()); /* though the daemon has not ended the old one */
    next.expect(expected);
    EXPECT_EQ(sent_before_mark(next), "");
    p.expect_end();
    zeb_publisher_close(publisher);
}

TEST_F(losing, a_connection_on_which_nothing_of_an_event_went_out_stays_until_the_daemon_ends_it)
{
    peer p = connected();
    zeb_subscriber *sub = subscribed(p, 1);
    break_writing(p);
    zeb_publisher_publish(zeb_subscriber_getPublisher(sub), zeb_notification_create("/t", "body", 4));
    for (int i = 0; i < 5; i++) {
        p.send(message("1", "/still read"));
        EXPECT_EQ(receive_type(sub), "/still read");
    }
    EXPECT_FALSE(daemon.is_called_within(milliseconds{300}));
    p.close();
    p = daemon.accept_connected(home.path());
    p.expect(published("c", "/t", "01", "body", 1) + subscribe_request(1, "/t"));
    EXPECT_EQ(sent_before_mark(p), "");
    zeb_subscriber_close(sub);
}

TEST_F(losing, unsubscribes_made_while_nobody_listens_are_sent_afterwards)
{
    peer p = connected();
    zeb_subscriber *sub = subscribed(p, 1);
    lose(daemon, p);
    zeb_subscriber_close(sub);
    daemon.listen_again();
    p = daemon.accept_connected(home.path());
    EXPECT_EQ(sent_before_mark(p), unsubscribe_request(1));
}

} // namespace
