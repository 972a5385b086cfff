/* The limit of a wait is a point of time on the wall clock: the wait ends when that clock gets there, be it
 * that somebody sets it. What has no limit of the caller's does not look at that clock: see the tests of
 * connecting and of shutdown. */
#include "rpc.h"

namespace
{

using namespace zebtest;

class limits : public conversation
{
  protected:
    static constexpr int32_t limit = 20000;

    /* WAIT gives whether it got what it waited for, which nobody gives it. It has at least 9 seconds, and a
     * test takes no such time; call-backs wait for less than 2 at a time. */
    template <typename Wait>
    static void follow_the_clock(Wait wait, place where = {__builtin_FILE(), __builtin_LINE()})
    {
        constexpr int hour = 3600;
        background call(wait);
        if (!eventually([] { return interposed::left_to_wait() >= 2; }))
            script_fails(where, "the call does not wait on the wall clock");
        interposed::step_clock(-hour);
        EXPECT_GE(interposed::left_to_wait(), hour + 2);
        EXPECT_LE(interposed::left_to_wait(), hour + limit / 1000);
        interposed::step_clock(hour);
        EXPECT_GE(interposed::left_to_wait(), 2);
        EXPECT_FALSE(call.done_within(milliseconds{0}));
        const stopwatch watch;
        interposed::step_clock(hour);
        EXPECT_FALSE(call.get(where));
        EXPECT_LT(watch.elapsed(), stretched(milliseconds{1000}));
    }
};

TEST_F(limits, of_a_receive_follow_the_clock)
{
    peer p = connected();
    zeb_subscriber *sub = subscribed(p, 1);
    follow_the_clock([=] { return zeb_subscriber_receive(sub, 1, limit) != nullptr; });
}

TEST_F(limits, of_a_list_follow_the_clock)
{
    peer p = connected();
    zeb_subscriberlist *list = zeb_subscriberlist_create();
    zeb_subscriberlist_add(list, subscribed(p, 1));
    follow_the_clock([=] { return zeb_subscriber_multirecv(list, 1, limit) != nullptr; });
    zeb_subscriberlist_destroy(&list);
}

TEST_F(limits, of_a_creation_follow_the_clock)
{
    peer p = connected();
    follow_the_clock([] {
        char *status = nullptr;
        zeb_subscriber *sub = zeb_subscriber_create_wtimeout("/t", "c", nullptr, nullptr, &status, limit);
        EXPECT_EQ(text_or_null(owned_text(status).get()), "timedout");
        return sub != nullptr;
    });
}

TEST_F(limits, of_the_connection_follow_the_clock)
{
    daemon.refuse();
    ASSERT_EQ(zeb_init(), 0);
    follow_the_clock([] { /* ten seconds, as nobody else says */
                          char *name = nullptr;
                          zeb_get_instancename(&name);
                          const owned_text text(name);
                          return name != nullptr;
    });
}

TEST_F(limits, of_remote_calls_follow_the_clock)
{
    peer p = connected();
    background creation([] {
        const char *names[] = {"a"};
        return zeb_rpcclient_create(names, 1, "c");
    });
    p.read_head();
    p.send(status_reply(1, "success"));
    zeb_rpcclient *client = creation.get();
    follow_the_clock([=] { return zeb_rpcclient_getservers_wtimeout(client, "a", 1, limit) != nullptr; });

    p.send(membership("MembershipDeltaNotification", server_address("addAddr0", "7")));
    zeb_laddrlist *servers = zeb_rpcclient_getservers(client, "a");
    zeb_rpcinvocation *call = zeb_rpcclient_invoke(client, "f", servers, "", 0);
    follow_the_clock([=] { return zeb_rpcinvocation_getresponse(call, 1, limit) != nullptr; });
    zeb_rpcinvocation_destroy(&call);
    zeb_laddrlist_destroy(&servers);
    zeb_rpcclient_destroy(&client);
}

} // namespace
