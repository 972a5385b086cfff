/* Receiving, relinquishing, closing, and the transfer of state between members. */
#include "addresses.h"
#include "conversation.h"

#include <thread>

namespace
{

using namespace zebtest;
using receiving = conversation;

std::string taken(zeb_subscriber *sub, int32_t wait, int32_t timeout)
{
    zeb_notification *n = zeb_subscriber_receive(sub, wait, timeout);
    const std::string type = text_or_null(zeb_notification_type(n));
    if (n != nullptr)
        zeb_subscriber_relinquish(sub, n);
    return type;
}

/* ---- Waiting ---- */

TEST_F(receiving, without_waiting_gives_null_at_once)
{
    peer p = connected();
    zeb_subscriber *sub = subscribed(p, 1);
    const stopwatch watch;
    EXPECT_EQ(zeb_subscriber_receive(sub, 0, 0), nullptr);
    EXPECT_EQ(zeb_subscriber_receive(sub, 0, 60000), nullptr); /* the limit is for waiting alone */
    EXPECT_LT(watch.elapsed(), milliseconds{500});
    zeb_subscriber_close(sub);
}

TEST_F(receiving, limit_of_1000_ms_ends_within_a_second)
{
    peer p = connected();
    zeb_subscriber *sub = subscribed(p, 1);
    const stopwatch watch;
    EXPECT_EQ(zeb_subscriber_receive(sub, 1, 1000), nullptr);
    EXPECT_LE(watch.elapsed(), milliseconds{1500});
    zeb_subscriber_close(sub);
}

TEST_F(receiving, limit_of_2000_ms_ends_after_one_to_two_seconds)
{
    peer p = connected();
    zeb_subscriber *sub = subscribed(p, 1);
    const stopwatch watch;
    EXPECT_EQ(zeb_subscriber_receive(sub, 1, 2000), nullptr);
    EXPECT_GE(watch.elapsed(), milliseconds{950});
    EXPECT_LE(watch.elapsed(), milliseconds{2500});
    zeb_subscriber_close(sub);
}

TEST_F(receiving, limits_below_a_second_do_not_wait)
{
    peer p = connected();
    zeb_subscriber *sub = subscribed(p, 1);
    const stopwatch watch;
    for (const int32_t timeout : {1, 500, 999})
        EXPECT_EQ(zeb_subscriber_receive(sub, 1, timeout), nullptr);
    EXPECT_LT(watch.elapsed(), milliseconds{500});
    zeb_subscriber_close(sub);
}

TEST_F(receiving, limits_of_zero_and_below_are_none)
{
    peer p = connected();
    zeb_subscriber *sub = subscribed(p, 1);
    for (const int32_t timeout : {0, -1, INT32_MIN}) {
        background taking([=] { return taken(sub, 1, timeout); });
        EXPECT_FALSE(taking.done_within(milliseconds{50}));
        p.send(message("1", "/t"));
        EXPECT_EQ(taking.get(), "/t");
    }
    zeb_subscriber_close(sub);
}

/* The buffer takes 2,048 bytes, and that it was filled to its end says that there may be more; here there is
 * not. */
TEST_F(receiving, what_has_come_is_handed_out_while_the_rest_of_a_full_buffer_is_missing)
{
    peer p = connected();
    zeb_subscriber *sub = subscribed(p, 1);
    background taking([=] { return taken(sub, 1, 0); });
    const std::string first = message("1", "/first");
    const std::string two = first + message("1", "/second", std::string(2048, 'x'));
    p.send(two.substr(0, 2048));
    EXPECT_EQ(taking.get(), "/first");
    p.send(two.substr(2048));
    EXPECT_EQ(taken(sub, 1, 0), "/second");
    zeb_subscriber_close(sub);
}

TEST_F(receiving, what_comes_in_one_piece_is_handed_out_whole_and_in_order)
{
    peer p = connected();
    zeb_subscriber *sub = subscribed(p, 1);
    zeb_subscriber *other = subscribed(p, 2);
    std::string all;
    for (int i = 0; i < 500; i++) {
        all += message("1", "/" + std::to_string(i), std::string(static_cast<size_t>(i), 'x'));
        if (i % 100 == 0)
            all += message("2", "/" + std::to_string(i));
    }
    p.send(all);
    for (int i = 0; i < 500; i++)
        EXPECT_EQ(taken(sub, 1, 0), "/" + std::to_string(i));
    for (int i = 0; i < 500; i += 100)
        EXPECT_EQ(taken(other, 1, 0), "/" + std::to_string(i));
    zeb_subscriber_close(sub);
    zeb_subscriber_close(other);
}

/* What came before the loss is received before what the loss brings. */
TEST_F(receiving, what_came_right_before_a_loss_is_handed_out)
{
    peer p = connected();
    zeb_subscriber *sub = subscribed(p, 1);
    const std::string first = message("1", "/first");
    const std::string two = first + message("1", "/second", std::string(2048, 'x'));
    p.send(two.substr(0, 2048));
    p.close();
    EXPECT_EQ(taken(sub, 1, 0), "/first");
    zeb_subscriber_close(sub);
}

TEST_F(receiving, any_wait_but_zero_waits)
{
    peer p = connected();
    zeb_subscriber *sub = subscribed(p, 1);
    background taking([=] { return taken(sub, -7, 0); });
    EXPECT_FALSE(taking.done_within(milliseconds{50}));
    p.send(message("1", "/t"));
    EXPECT_EQ(taking.get(), "/t");
    zeb_subscriber_close(sub);
}

/* ---- While the answer is missing ---- */

TEST_F(receiving, pending_subscriber_gives_null_at_once_when_waiting_and_what_is_there_when_not)
{
    peer p = connected();
    zeb_subscriber *sub = zeb_subscriber_create_async("/t", "c", nullptr, nullptr);
    p.expect(subscribe_request(1, "/t"));
    const stopwatch watch;
    EXPECT_EQ(zeb_subscriber_receive(sub, 1, 0), nullptr);
    EXPECT_EQ(zeb_subscriber_receive(sub, 1, 60000), nullptr);
    EXPECT_LT(watch.elapsed(), milliseconds{500});
    EXPECT_EQ(zeb_subscriber_receive(sub, 0, 0), nullptr);
    p.send(message("1", "/early"));
    EXPECT_TRUE(eventually([&] { return taken(sub, 0, 0) == "/early"; }));
    zeb_subscriber_close(sub);
}

TEST_F(receiving, waiting_stays_refused_until_the_answer_was_asked_for)
{
    peer p = connected();
    zeb_subscriber *sub = zeb_subscriber_create_async("/t", "c", nullptr, nullptr);
    p.expect(subscribe_request(1, "/t"));
    p.send(status_reply(1, "success") + message("1", "/first"));
    EXPECT_TRUE(
        eventually([&] { return taken(sub, 0, 0) == "/first"; })); /* so the answer is there as well */
    p.send(message("1", "/second"));
    EXPECT_EQ(zeb_subscriber_receive(sub, 1, 0), nullptr);
    EXPECT_EQ(zeb_subscriber_status(sub, nullptr), 0);
    EXPECT_EQ(taken(sub, 1, 0), "/second");
    zeb_subscriber_close(sub);
}

TEST_F(receiving, a_refusal_that_was_reported_lets_receives_wait)
{
    peer p = connected();
    zeb_subscriber *sub = zeb_subscriber_create_async("/t", "c", nullptr, nullptr);
    p.expect(subscribe_request(1, "/t"));
    p.send(status_reply(1, "failure") + message("1", "/all the same"));
    EXPECT_TRUE(eventually([&] { return zeb_subscriber_status(sub, nullptr) == 2; }));
    EXPECT_EQ(taken(sub, 1, 20000), "/all the same");
    zeb_subscriber_close(sub);
}

/* ---- Several ---- */

TEST_F(receiving, each_subscriber_gets_its_own)
{
    peer p = connected();
    zeb_subscriber *first = subscribed(p, 1, "/a");
    zeb_subscriber *second = subscribed(p, 2, "/b");
    p.send(message("2", "/for2") + message("1", "/for1") + message("2", "/for2 again"));
    EXPECT_EQ(taken(first, 1, 0), "/for1");
    EXPECT_EQ(taken(second, 1, 0), "/for2");
    EXPECT_EQ(taken(second, 1, 0), "/for2 again");
    EXPECT_EQ(taken(first, 0, 0), "<null>");
    zeb_subscriber_close(first);
    zeb_subscriber_close(second);
}

TEST_F(receiving, several_notifications_may_be_held_and_given_back_in_any_order)
{
    peer p = connected();
    zeb_subscriber *sub = subscribed(p, 1);
    zeb_notification *held[5];
    for (int i = 0; i < 5; i++)
        p.send(message("1", "/" + std::to_string(i)));
    for (zeb_notification *&n : held)
        n = zeb_subscriber_receive(sub, 1, 0);
    for (const size_t i : {2U, 0U, 4U}) {
        EXPECT_EQ(text_or_null(zeb_notification_type(held[i])), "/" + std::to_string(i));
        zeb_subscriber_relinquish(sub, held[i]);
    }
    EXPECT_STREQ(zeb_notification_type(held[1]), "/1");
    zeb_subscriber_close(sub); /* releases the others */
}

TEST_F(receiving, a_notification_may_be_given_back_to_another_subscriber)
{
    peer p = connected();
    zeb_subscriber *first = subscribed(p, 1, "/a");
    zeb_subscriber *second = subscribed(p, 2, "/b");
    p.send(message("1", "/t"));
    zeb_notification *n = zeb_subscriber_receive(first, 1, 0);
    zeb_subscriber_relinquish(second, n);
    zeb_subscriber_close(first);
    zeb_subscriber_close(second);
}

TEST_F(receiving, a_notification_of_ones_own_making_may_be_given_back)
{
    peer p = connected();
    zeb_subscriber *sub = subscribed(p, 1);
    zeb_subscriber_relinquish(sub, zeb_notification_create("/never published", "body", 4));
    zeb_subscriber_relinquish(sub, nullptr);
    zeb_subscriber_close(sub);
}

TEST_F(receiving, a_hundred_thousand_are_held_and_given_back_quickly)
{
    constexpr int count = 100000;
    peer p = connected();
    zeb_subscriber *sub = subscribed(p, 1);
    background sending([&] {
        const std::string one = message("1", "/t");
        std::string many;
        for (int i = 0; i < 100; i++)
            many += one;
        for (int i = 0; i < count / 100; i++)
            p.send(many);
        return 0;
    });
    std::vector<zeb_notification *> held;
    for (int i = 0; i < count; i++)
        held.push_back(zeb_subscriber_receive(sub, 1, 0));
    sending.get();
    const stopwatch watch;
    for (auto n = held.rbegin(); n != held.rend();
         n++) /* from the newest: the worst order for a walk from the head */
        zeb_subscriber_relinquish(sub, *n);
    EXPECT_LT(watch.elapsed(), stretched(milliseconds{2000}));
    zeb_subscriber_close(sub);
}

/* ---- Closing ---- */

TEST_F(receiving, is_ended_by_a_close_from_another_thread)
{
    peer p = connected();
    uint32_t id = 0;
    for (const int32_t timeout : {0, 60000}) {
        zeb_subscriber *sub = subscribed(p, ++id);
        background taking([=] { return zeb_subscriber_receive(sub, 1, timeout); });
        EXPECT_FALSE(taking.done_within(milliseconds{50}));
        zeb_subscriber_close(sub);
        EXPECT_EQ(taking.get(), nullptr);
        p.expect(unsubscribe_request(id));
    }
}

TEST_F(receiving, is_ended_by_a_shutdown)
{
    peer p = connected();
    zeb_subscriber *sub = subscribed(p, 1);
    background taking([=] { return zeb_subscriber_receive(sub, 1, 0); });
    EXPECT_FALSE(taking.done_within(milliseconds{50}));
    EXPECT_EQ(zeb_shutdown(), 0);
    EXPECT_EQ(taking.get(), nullptr);
    p.expect_close();
}

TEST_F(receiving, close_releases_what_is_queued_and_what_is_held)
{
    peer p = connected();
    zeb_subscriber *sub = subscribed(p, 1);
    zeb_subscriber *other = subscribed(p, 2);
    for (int i = 0; i < 20; i++)
        p.send(message("1", "/t", "body"));
    p.send(message("2", "/last"));
    EXPECT_EQ(taken(other, 1, 0), "/last");
    for (int i = 0; i < 10; i++)
        EXPECT_NE(zeb_subscriber_receive(sub, 0, 0), nullptr);
    zeb_subscriber_close(sub);
    p.send(message("1", "/for nobody") + message("2", "/after"));
    EXPECT_EQ(taken(other, 1, 0), "/after");
    zeb_subscriber_close(other);
}

TEST_F(receiving, close_against_delivery_loses_nothing_but_what_came_too_late)
{
    peer p = connected();
    zeb_subscriber *steady = subscribed(p, 1);
    for (uint32_t id = 2; id <= 60; id++) {
        zeb_subscriber *sub = subscribed(p, id);
        background closing([=] {
            zeb_subscriber_close(sub);
            return 0;
        });
        for (int i = 0; i < 20; i++)
            p.send(message(std::to_string(id), "/t", "body"));
        closing.get();
        p.expect(unsubscribe_request(id));
    }
    p.send(message("1", "/after"));
    EXPECT_EQ(taken(steady, 1, 0), "/after");
    zeb_subscriber_close(steady);
}

/* ---- State ---- */

const elements memberFields = {{"id", "5"},        {"component", "keeper"}, {"hostname", "node1"},
                               {"key", "node1:5"}, {"address", "ADDR5"},    {"matcher", ""}};

std::string state_event(std::string_view cls, std::string_view type, const std::string &addresses,
                        std::string_view body = "")
{
    const std::string list = addresses.empty() ? "" : block_signature() + addresses;
    return lines({"POST /event HTTP/1.1", "className: " + std::string(cls), "SubscriberID: 1",
                  "eventType: " + std::string(type), "eventId: e", "creationTime: 1", "deliveryTime: 2",
                  "Content-Length: " + std::to_string(body.size()),
                  "AddrList-Length: " + std::to_string(list.size()), ""}) +
           std::string(body) + list;
}

/* What is sent to the member above: neither its key nor what it does not have. */
std::string to_member(std::string_view cls, std::string_view type, std::string_view serial,
                      std::string_view body)
{
    const std::string list =
        block_signature() +
        address("dstAddr0",
                {{"id", "5"}, {"component", "keeper"}, {"hostname", "node1"}, {"address", "ADDR5"}});
    return lines({"POST /event HTTP/1.1", "className: " + std::string(cls), "SubscriberID: 1",
                  "eventType: " + std::string(type), "eventId: " + process_name() + std::string(serial),
                  "Content-Length: " + std::to_string(body.size()),
                  "AddrList-Length: " + std::to_string(list.size()), ""}) +
           std::string(body) + list;
}

class state : public conversation
{
  protected:
    state() : p(connected()), member(subscribed(p, 1, "/t", "/group")) {}
    ~state() override
    {
        zeb_subscriber_close(member);
        zeb_shutdown_nowait();
    }

    peer p;
    zeb_subscriber *member;
};

TEST_F(state, is_not_asked_for_while_no_member_is_known)
{
    EXPECT_EQ(zeb_subscriber_getState(member), 0);
    p.send(state_event("MembershipListNotification", "/m", ""));
    EXPECT_EQ(taken(member, 1, 0), "/m"); /* an empty list */
    EXPECT_EQ(zeb_subscriber_getState(member), 0);
    p.send(state_event("MembershipDeltaNotification", "/m", address("addAddr0", memberFields)));
    EXPECT_EQ(taken(member, 1, 0), "/m"); /* changes are not kept */
    EXPECT_EQ(zeb_subscriber_getState(member), 0);
    EXPECT_EQ(sent_before_mark(p), "");
}

TEST_F(state, is_asked_of_the_first_member_of_the_last_list)
{
    p.send(state_event("MembershipListNotification", "/m",
                       address("mbrAddr0", {{"key", "old"}, {"address", "OLD"}})));
    p.send(state_event("MembershipListNotification", "/m",
                       address("mbrAddr0", memberFields) +
                           address("mbrAddr1", {{"key", "second"}, {"address", "SECOND"}})));
    EXPECT_EQ(taken(member, 1, 0), "/m");
    EXPECT_EQ(taken(member, 1, 0), "/m");
    EXPECT_EQ(zeb_subscriber_getState(member), 1);
    p.expect(to_member("StateGetNotification", "/ZEB/SYSTEM/STATEGET", "01", ""));
    EXPECT_EQ(zeb_subscriber_getState(member), 1);
    p.expect(to_member("StateGetNotification", "/ZEB/SYSTEM/STATEGET", "02", ""));
}

TEST_F(state, list_counts_from_its_delivery_not_from_its_receipt)
{
    p.send(state_event("MembershipListNotification", "/m", address("mbrAddr0", memberFields)));
    EXPECT_TRUE(eventually([&] { return zeb_subscriber_getState(member) == 1; }));
    p.expect(to_member("StateGetNotification", "/ZEB/SYSTEM/STATEGET", "01", ""));
    EXPECT_EQ(taken(member, 1, 0), "/m");
}

TEST_F(state, is_not_returned_before_anybody_asked)
{
    zeb_subscriber_returnState(member, "state", 5);
    EXPECT_EQ(sent_before_mark(p), "");
}

TEST_F(state, is_returned_to_who_asked_once)
{
    p.send(state_event("StateGetNotification", "/ZEB/SYSTEM/STATEGET", address("srcAddr", memberFields)));
    EXPECT_EQ(taken(member, 1, 0), "/ZEB/SYSTEM/STATEGET");
    zeb_subscriber_returnState(member, "the\nstate", 9);
    p.expect(to_member("StateSetNotification", "/ZEB/SYSTEM/STATESET", "01", "the\nstate"));
    zeb_subscriber_returnState(member, "again", 5);
    EXPECT_EQ(sent_before_mark(p), "");
}

TEST_F(state, request_counts_from_its_receipt_and_the_last_one_is_answered)
{
    p.send(state_event("StateGetNotification", "/1",
                       address("srcAddr", {{"key", "other"}, {"address", "OTHER"}})));
    p.send(state_event("StateGetNotification", "/2", address("srcAddr", memberFields)));
    EXPECT_EQ(taken(member, 1, 0), "/1");
    EXPECT_EQ(taken(member, 1, 0), "/2");
    zeb_subscriber_returnState(member, nullptr, 0);
    p.expect(to_member("StateSetNotification", "/ZEB/SYSTEM/STATESET", "01", ""));
    p.send(state_event("StateGetNotification", "/3", address("srcAddr", memberFields)));
    p.send(message("1", "/behind it"));
    zeb_subscriber_returnState(member, "not yet", 7); /* delivered perhaps, but not received */
    EXPECT_EQ(sent_before_mark(p), "");
    EXPECT_EQ(taken(member, 1, 0), "/3");
    EXPECT_EQ(taken(member, 1, 0), "/behind it");
}

TEST_F(state, request_without_an_address_cannot_be_answered)
{
    p.send(state_event("StateGetNotification", "/1", address("srcAddr", memberFields)));
    p.send(state_event("StateGetNotification", "/2", ""));
    EXPECT_EQ(taken(member, 1, 0), "/1");
    EXPECT_EQ(taken(member, 1, 0), "/2");
    zeb_subscriber_returnState(member, "state", 5);
    EXPECT_EQ(sent_before_mark(p), "");
}

TEST_F(state, arrives_as_a_notification_of_its_class)
{
    p.send(state_event("StateSetNotification", "/ZEB/SYSTEM/STATESET", "", "the state"));
    zeb_notification *n = zeb_subscriber_receive(member, 1, 0);
    EXPECT_EQ(zeb_notification_getClass(n), 6U);
    int32_t length = 0;
    EXPECT_STREQ(static_cast<const char *>(zeb_notification_body(n, &length)), "the state");
    EXPECT_EQ(length, 9);
    zeb_subscriber_relinquish(member, n);
}

} // namespace
