/* Lists of subscribers: one thread waits on several. */
#include "conversation.h"

#include <atomic>

namespace
{

using namespace zebtest;

class listing : public conversation
{
  protected:
    listing() : p(connected()), list(zeb_subscriberlist_create())
    {
        for (uint32_t id = 1; id <= 3; id++)
            s[id] = subscribed(p, id);
    }
    ~listing() override
    {
        for (zeb_subscriber *sub : s)
            zeb_subscriber_close(sub);
        zeb_subscriberlist_destroy(&list);
        zeb_shutdown_nowait();
    }

    void add(std::initializer_list<int> members)
    {
        for (const int i : members)
            zeb_subscriberlist_add(list, s[i]);
    }

    void close(int i)
    {
        zeb_subscriber_close(s[i]);
        s[i] = nullptr;
    }

    /* One notification for each of the subscribers, in this order; returns when all are delivered. */
    void deliver(std::initializer_list<int> to)
    {
        for (const int i : to)
            p.send(message(std::to_string(i), "/t"));
        settle();
    }

    /* Returns when everything sent so far was delivered: a fourth subscriber, in no list, says so. */
    void settle()
    {
        if (s[0] == nullptr)
            s[0] = subscribed(p, 4);
        p.send(message("4", "/settled"));
        EXPECT_EQ(receive_type(s[0]), "/settled");
    }

    zeb_subscriber *ready(int32_t wait = 0, int32_t timeout = 0) const
    {
        return zeb_subscriber_multirecv(list, wait, timeout);
    }

    background<zeb_subscriber *> waiting(int32_t timeout = 0, int32_t wait = 1) const
    {
        zeb_subscriberlist *const mine = list;
        return background<zeb_subscriber *>([=] { return zeb_subscriber_multirecv(mine, wait, timeout); });
    }

    /* Takes one notification of S[i]. */
    void take(int i) const
    {
        EXPECT_EQ(receive_type(s[i]), "/t");
    }

    peer p;
    zeb_subscriberlist *list;
    zeb_subscriber *s[4] = {}; /* by id; the first is for settling */
};

/* ---- Nothing to wait for ---- */

TEST_F(listing, empty_gives_null_at_once_whatever_the_wait)
{
    const stopwatch watch;
    EXPECT_EQ(ready(0, 0), nullptr);
    EXPECT_EQ(ready(1, 0), nullptr);
    EXPECT_EQ(ready(1, -1), nullptr);
    EXPECT_EQ(ready(1, 60000), nullptr);
    EXPECT_EQ(zeb_subscriber_multirecv(nullptr, 1, 0), nullptr);
    EXPECT_LT(watch.elapsed(), stretched(milliseconds{500}));
}

TEST_F(listing, without_waiting_silent_members_give_null_at_once)
{
    add({1, 2, 3});
    const stopwatch watch;
    EXPECT_EQ(ready(0, 0), nullptr);
    EXPECT_EQ(ready(0, 60000), nullptr); /* the limit is for waiting alone */
    EXPECT_LT(watch.elapsed(), stretched(milliseconds{500}));
}

TEST_F(listing, null_arguments_are_ignored)
{
    zeb_subscriberlist_add(nullptr, s[1]);
    zeb_subscriberlist_add(list, nullptr);
    EXPECT_EQ(ready(1, 0), nullptr); /* still empty */
    zeb_subscriberlist_destroy(nullptr);
    zeb_subscriberlist *none = nullptr;
    zeb_subscriberlist_destroy(&none);
    EXPECT_EQ(none, nullptr);
}

/* ---- Hint and scan ---- */

TEST_F(listing, gives_a_member_again_while_its_queue_is_not_empty)
{
    add({1, 2});
    deliver({2, 2});
    EXPECT_EQ(ready(), s[2]); /* by the hint */
    EXPECT_EQ(ready(), s[2]); /* by the scan */
    take(2);
    EXPECT_EQ(ready(), s[2]);
    take(2);
    EXPECT_EQ(ready(), nullptr);
}

TEST_F(listing, the_hint_is_the_first_that_became_ready_and_the_rest_follows_in_list_order)
{
    add({1, 2, 3});
    deliver({3, 2, 1});
    EXPECT_EQ(ready(), s[3]); /* the hint holds one, and was taken */
    EXPECT_EQ(ready(), s[1]);
    take(1);
    EXPECT_EQ(ready(), s[2]);
    take(2);
    EXPECT_EQ(ready(), s[3]);
    take(3);
    EXPECT_EQ(ready(), nullptr);
}

TEST_F(listing, list_order_is_the_order_of_adding)
{
    add({3, 1, 2});
    deliver({2, 1, 3});
    EXPECT_EQ(ready(), s[2]);
    EXPECT_EQ(ready(), s[3]);
    take(3);
    EXPECT_EQ(ready(), s[1]);
    take(1);
    EXPECT_EQ(ready(), s[2]);
    take(2);
}

TEST_F(listing, the_hint_favours_a_later_delivery_once_it_was_taken)
{
    add({1, 2, 3});
    deliver({1, 3});
    EXPECT_EQ(ready(), s[1]);
    deliver({2});
    EXPECT_EQ(ready(), s[2]); /* although 1 and 3 have something, too */
    for (const int i : {1, 2, 3})
        take(i);
}

/* What was received behind the list's back stays hinted at. */
TEST_F(listing, the_hint_stays_when_its_queue_was_emptied)
{
    add({1, 2});
    deliver({1});
    take(1);
    EXPECT_EQ(ready(1, 0), s[1]);
    EXPECT_EQ(ready(), nullptr);
}

/* That is how lists behave: the caller must not look through what it closed. */
TEST_F(listing, the_hint_stays_when_its_subscriber_was_closed)
{
    add({1, 2});
    deliver({1});
    const auto closed = reinterpret_cast<uintptr_t>(s[1]);
    close(1);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(ready()), closed);
    EXPECT_EQ(ready(), nullptr);
    deliver({2});
    EXPECT_EQ(ready(), s[2]);
}

TEST_F(listing, the_hint_stays_when_its_subscriber_was_the_last)
{
    add({1});
    deliver({1});
    const auto closed = reinterpret_cast<uintptr_t>(s[1]);
    close(1);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(ready(1, 0)), closed);
    EXPECT_EQ(ready(1, 0), nullptr);
}

TEST_F(listing, a_callback_with_a_thread_each_leaves_a_hint_and_nothing_to_receive)
{
    static std::atomic<int> calls;
    ASSERT_EQ(zeb_subscriber_registercallback(
                  s[1], [](zeb_notification *, void *) { return calls.fetch_add(1); }, nullptr, 1),
              0);
    add({1});
    deliver({1});
    EXPECT_EQ(ready(), s[1]);
    EXPECT_EQ(ready(), nullptr);
    EXPECT_TRUE(eventually([&] { return calls.load() == 1; }));
}

TEST_F(listing, later_pieces_of_a_stream_do_not_make_a_member_ready)
{
    const auto piece = [](std::string_view body) {
        return lines({"POST /event HTTP/1.1", "className: IncomingStreamingNotification", "SubscriberID: 1",
                      "eventType: /t", "eventId: e", "creationTime: 1", "deliveryTime: 2",
                      "affectedComponents: ", "affectedNodes: ", "generatingComponent: ",
                      "generatingProcess: ", "generatingNode: ", "instanceName: ", "LocalOnly: false",
                      "numberOfProperties: 0", "streamKey: k",
                      "Content-Length: " + std::to_string(body.size()), "AddrList-Length: 0", ""}) +
               std::string(body);
    };
    add({1});
    p.send(piece("first"));
    settle();
    EXPECT_EQ(ready(), s[1]);
    take(1);
    p.send(piece("second") + piece(""));
    settle();
    EXPECT_EQ(ready(), nullptr);
}

/* ---- Waiting ---- */

TEST_F(listing, waits_without_limit_for_a_delivery_to_any_member)
{
    add({1, 2, 3});
    for (const int32_t timeout : {0, -1, INT32_MIN}) {
        auto call = waiting(timeout);
        EXPECT_FALSE(call.done_within(milliseconds{50}));
        p.send(message("2", "/t"));
        EXPECT_EQ(call.get(), s[2]);
        take(2);
    }
}

TEST_F(listing, any_wait_but_zero_waits)
{
    add({1});
    auto call = waiting(0, -7);
    EXPECT_FALSE(call.done_within(milliseconds{50}));
    p.send(message("1", "/t"));
    EXPECT_EQ(call.get(), s[1]);
}

TEST_F(listing, a_delivery_within_the_limit_ends_it)
{
    add({1, 2});
    auto call = waiting(60000);
    EXPECT_FALSE(call.done_within(milliseconds{50}));
    p.send(message("1", "/t"));
    EXPECT_EQ(call.get(), s[1]);
}

TEST_F(listing, limits_below_a_second_do_not_wait)
{
    add({1});
    const stopwatch watch;
    for (const int32_t timeout : {1, 500, 999})
        EXPECT_EQ(ready(1, timeout), nullptr);
    EXPECT_LT(watch.elapsed(), stretched(milliseconds{500}));
}

TEST_F(listing, limit_of_2000_ms_ends_after_one_to_two_seconds)
{
    add({1});
    const stopwatch watch;
    EXPECT_EQ(ready(1, 2000), nullptr);
    EXPECT_GE(watch.elapsed(), milliseconds{950});
    EXPECT_LE(watch.elapsed(), stretched(milliseconds{2500}));
}

TEST_F(listing, close_of_the_last_member_ends_the_wait_and_of_others_not)
{
    add({1, 2});
    auto call = waiting();
    EXPECT_FALSE(call.done_within(milliseconds{50}));
    close(1);
    EXPECT_FALSE(call.done_within(milliseconds{50}));
    close(2);
    EXPECT_EQ(call.get(), nullptr);
}

TEST_F(listing, close_of_the_last_member_ends_the_wait_of_all_threads)
{
    add({1});
    auto first = waiting();
    auto second = waiting(60000);
    EXPECT_FALSE(first.done_within(milliseconds{50}));
    EXPECT_FALSE(second.done_within(milliseconds{50}));
    close(1);
    EXPECT_EQ(first.get(), nullptr);
    EXPECT_EQ(second.get(), nullptr);
}

/* One delivery wakes all who wait, and the one that comes first takes the hint. */
TEST_F(listing, of_two_threads_one_gets_the_member_and_the_other_null)
{
    add({1, 2});
    auto first = waiting();
    auto second = waiting();
    EXPECT_FALSE(first.done_within(milliseconds{50}));
    EXPECT_FALSE(second.done_within(milliseconds{50}));
    p.send(message("2", "/t"));
    zeb_subscriber *a = first.get();
    zeb_subscriber *b = second.get();
    EXPECT_TRUE((a == s[2] && b == nullptr) || (a == nullptr && b == s[2]));
}

TEST_F(listing, a_shutdown_ends_the_wait)
{
    add({1, 2});
    auto call = waiting();
    EXPECT_FALSE(call.done_within(milliseconds{50}));
    EXPECT_EQ(zeb_shutdown(), 0); /* closes the members */
    for (zeb_subscriber *&sub : s)
        sub = nullptr;
    EXPECT_EQ(call.get(), nullptr);
    EXPECT_EQ(ready(1, 0), nullptr);
}

TEST_F(listing, a_lost_connection_makes_members_of_groups_ready)
{
    zeb_subscriber *member = subscribed(p, 4, "/t", "/group");
    zeb_subscriberlist_add(list, member);
    auto call = waiting();
    EXPECT_FALSE(call.done_within(milliseconds{50}));
    p.close();
    EXPECT_EQ(call.get(), member);
    zeb_notification *n = zeb_subscriber_receive(member, 0, 0);
    EXPECT_EQ(zeb_notification_getClass(n), ZEB_CLASS_LEAVEGROUP);
    zeb_subscriber_close(member);
}

/* ---- Adding ---- */

TEST_F(listing, a_member_added_with_notifications_is_given_at_once)
{
    deliver({2});
    add({1, 2});
    const stopwatch watch;
    EXPECT_EQ(ready(1, 0), s[2]);
    EXPECT_LT(watch.elapsed(), stretched(milliseconds{500}));
}

TEST_F(listing, a_member_added_with_notifications_wakes_who_waits)
{
    deliver({2});
    add({1});
    auto call = waiting();
    EXPECT_FALSE(call.done_within(milliseconds{50}));
    add({2});
    EXPECT_EQ(call.get(), s[2]);
}

TEST_F(listing, in_two_lists_it_is_announced_to_the_last_and_found_by_the_first)
{
    zeb_subscriberlist *second = zeb_subscriberlist_create();
    add({1});
    zeb_subscriberlist_add(second, s[1]);
    zeb_subscriberlist_add(second, s[2]);
    deliver({1});
    EXPECT_EQ(zeb_subscriber_multirecv(second, 0, 0), s[1]);
    EXPECT_EQ(ready(), s[1]);
    take(1);
    EXPECT_EQ(ready(), nullptr); /* it never had the hint */
    EXPECT_EQ(zeb_subscriber_multirecv(second, 0, 0), nullptr);
    close(1); /* leaves both */
    EXPECT_EQ(ready(1, 0), nullptr);
    deliver({2});
    EXPECT_EQ(zeb_subscriber_multirecv(second, 1, 0), s[2]);
    zeb_subscriberlist_destroy(&second);
}

TEST_F(listing, in_two_lists_either_may_be_destroyed_first)
{
    zeb_subscriberlist *second = zeb_subscriberlist_create();
    add({1});
    zeb_subscriberlist_add(second, s[1]);
    zeb_subscriberlist_destroy(&second);
    deliver({1});
    EXPECT_EQ(ready(), s[1]);
    take(1);
    zeb_subscriberlist_destroy(&list);
    deliver({1});
    take(1);
}

TEST_F(listing, twice_in_one_list_it_is_one_subscriber_still)
{
    add({1, 2, 1});
    EXPECT_EQ(ready(), nullptr); /* a scan of the whole list ends */
    deliver({2, 1});
    EXPECT_EQ(ready(), s[2]);
    EXPECT_EQ(ready(), s[1]);
    take(1);
    EXPECT_EQ(ready(), s[2]);
    take(2);
    close(1); /* leaves with both */
    auto call = waiting();
    EXPECT_FALSE(call.done_within(milliseconds{50}));
    close(2);
    EXPECT_EQ(call.get(), nullptr);
}

TEST_F(listing, twice_in_a_destroyed_list_it_leaves_once_and_for_all)
{
    add({1, 1});
    zeb_subscriberlist_destroy(&list);
    deliver({1, 1}); /* releases the list */
    take(1);
    take(1);
}

/* ---- Destroying ---- */

TEST_F(listing, destroy_sets_the_handle_to_null_and_leaves_the_members_working)
{
    add({1, 2});
    zeb_subscriberlist_destroy(&list);
    EXPECT_EQ(list, nullptr);
    deliver({1, 2, 1});
    take(1);
    take(1);
    take(2);
}

TEST_F(listing, destroyed_it_is_released_by_the_close_of_its_last_member)
{
    add({1, 2, 3});
    zeb_subscriberlist_destroy(&list);
    close(2);
    close(1);
    close(3); /* the leak checker watches */
}

TEST_F(listing, destroyed_it_is_released_by_closes_and_deliveries_together)
{
    add({1, 2, 3});
    zeb_subscriberlist_destroy(&list);
    deliver({1, 1});
    close(2);
    deliver({3});
    for (const int i : {1, 1, 3})
        take(i);
}

TEST_F(listing, destroyed_it_refuses_members)
{
    add({1});
    zeb_subscriberlist *const gone = list; /* lives on until its member leaves */
    zeb_subscriberlist_destroy(&list);
    zeb_subscriberlist_add(gone, s[2]);
    close(1);
    p.expect(unsubscribe_request(1));
    deliver({2}); /* would look through the list if it was a member */
    take(2);
}

TEST_F(listing, a_member_of_a_destroyed_list_may_join_another)
{
    add({1});
    zeb_subscriberlist_destroy(&list);
    list = zeb_subscriberlist_create();
    add({1});
    deliver({1});
    EXPECT_EQ(ready(), s[1]);
    take(1);
}

TEST_F(listing, members_may_be_closed_after_the_shutdown_of_the_runtime_and_before_the_destroy)
{
    add({1, 2});
    close(1);
    EXPECT_EQ(zeb_shutdown(), 0);
    for (zeb_subscriber *&sub : s)
        sub = nullptr;
    zeb_subscriberlist_destroy(&list);
    EXPECT_EQ(list, nullptr);
}

/* ---- Many at once ---- */

TEST_F(listing, no_delivery_is_overlooked)
{
    constexpr int count = 3000;
    add({1, 2, 3});
    background sending([&] {
        for (int i = 0; i < count; i++)
            p.send(message(std::to_string(1 + i % 3), "/t"));
        return 0;
    });
    int taken = 0;
    while (taken < count) {
        zeb_subscriber *sub = ready(1, 0);
        ASSERT_NE(sub, nullptr);
        while (zeb_notification *n = zeb_subscriber_receive(sub, 0, 0)) {
            zeb_subscriber_relinquish(sub, n);
            taken++;
        }
    }
    EXPECT_EQ(sending.get(), 0);
}

TEST_F(listing, joining_against_delivery_overlooks_nothing)
{
    for (int i = 0; i < 300; i++) {
        zeb_subscriberlist *fresh = zeb_subscriberlist_create();
        background sending([&] {
            p.send(message("1", "/t"));
            return 0;
        });
        zeb_subscriberlist_add(fresh, s[1]);
        background call([=] { return zeb_subscriber_multirecv(fresh, 1, 0); });
        EXPECT_EQ(call.get(), s[1]);
        sending.get();
        take(1);
        zeb_subscriberlist_destroy(&fresh);
    }
}

TEST_F(listing, members_come_and_go_against_deliveries)
{
    std::atomic<bool> over{false};
    background sending([&] {
        while (!over.load())
            for (int i = 0; i < 50; i++)
                p.send(message(std::to_string(1 + i % 3), "/t"));
        return 0;
    });
    for (int i = 0; i < 300; i++) {
        add({1, 2, 3});
        zeb_subscriber *sub = ready(1, 0);
        EXPECT_TRUE(sub == s[1] || sub == s[2] || sub == s[3]);
        zeb_subscriberlist_destroy(&list);
        list = zeb_subscriberlist_create();
        for (const int member : {1, 2, 3}) {
            while (zeb_notification *n = zeb_subscriber_receive(s[member], 0, 0))
                zeb_subscriber_relinquish(s[member], n);
        }
    }
    over = true;
    EXPECT_EQ(sending.get(), 0);
}

} // namespace
