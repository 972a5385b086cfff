/* What outlives what: handles that a shutdown, a loss of the connection or a fork leaves behind while
 * somebody still uses them. Most of these show only under the address sanitizer. */
#include "conversation.h"

#include <atomic>
#include <sys/wait.h>

using namespace zebtest;

namespace
{

/* A piece of stream KEY for subscriber 1; without BODY its end mark. */
std::string piece(std::string_view key, std::string_view body)
{
    return lines({"POST /event HTTP/1.1", "className: IncomingStreamingNotification", "SubscriberID: 1",
                  "eventType: /s", "eventId: i", "creationTime: 1111", "deliveryTime: 2222",
                  "affectedComponents: ", "affectedNodes: ", "generatingComponent: c", "generatingProcess: p",
                  "generatingNode: n", "instanceName: i", "LocalOnly: false", "numberOfProperties: 0",
                  "streamKey: " + std::string(key), "Content-Length: " + std::to_string(body.size()),
                  "AddrList-Length: 0", ""}) +
           std::string(body);
}

class lifetime : public conversation
{
  protected:
    /* The input stream of the first piece, which is given back; what came is read, its end mark has not come.
     */
    static zeb_instream *open_stream(zeb_subscriber *sub, peer &p)
    {
        p.send(piece("k", "hello"));
        zeb_notification *n = zeb_subscriber_receive(sub, 1, 20000);
        zeb_instream *in = zeb_notification_getInputStream(n);
        zeb_subscriber_relinquish(sub, n);
        char buffer[5];
        EXPECT_EQ(zeb_instream_read(in, buffer, sizeof(buffer)), 5);
        return in;
    }

    static int32_t read_all(zeb_instream *in)
    {
        char buffer[100];
        int32_t total = 0;
        int32_t count;
        while ((count = zeb_instream_read(in, buffer, sizeof(buffer))) > 0)
            total += count;
        zeb_instream_close(&in);
        return total;
    }
};

int32_t no_function(zeb_rpcrequest *, const void *, int32_t)
{
    return 0;
}

TEST_F(lifetime, remote_call_server_is_destroyed_after_the_shutdown)
{
    peer p = connected();
    zeb_rpcserver *server = zeb_rpcserver_create("a", "c");
    ASSERT_EQ(zeb_rpcserver_addfunc(server, "f", no_function), 0);
    background launch([&] { return zeb_rpcserver_launch(server); });
    p.read_head();
    p.send(status_reply(1, "success"));
    ASSERT_EQ(launch.get(), 0);
    zeb_shutdown();
    EXPECT_EQ(zeb_rpcserver_isrunning(server), 1);
    zeb_rpcserver_destroy(&server);
    EXPECT_EQ(server, nullptr);
}

TEST_F(lifetime, remote_call_client_is_used_and_destroyed_after_the_shutdown)
{
    peer p = connected();
    const char *names[] = {"a"};
    background creation([&] { return zeb_rpcclient_create(names, 1, "c"); });
    p.read_head();
    p.send(status_reply(1, "success"));
    zeb_rpcclient *client = creation.get();
    ASSERT_NE(client, nullptr);
    zeb_shutdown();
    zeb_laddrlist *nobody = zeb_laddrlist_create();
    zeb_rpcinvocation *call = zeb_rpcclient_invoke(client, "f", nobody, nullptr, 0);
    EXPECT_EQ(zeb_rpcinvocation_isdone(call), 1);
    zeb_rpcinvocation_destroy(&call);
    zeb_laddrlist_destroy(&nobody);
    zeb_rpcclient_destroy(&client);
    EXPECT_EQ(client, nullptr);
}

TEST_F(lifetime, reader_woken_by_the_shutdown_closes_its_stream)
{
    peer p = connected();
    zeb_subscriber *sub = subscribed(p, 1);
    zeb_instream *in = open_stream(sub, p);
    background reading([&] { return read_all(in); });
    zeb_shutdown();
    EXPECT_EQ(reading.get(), 0);
}

std::atomic<bool> called{false};
std::atomic<bool> goOn{false};

int32_t wait_in_callback(zeb_notification *, void *)
{
    called = true;
    while (!goOn)
        std::this_thread::yield();
    return 0;
}

TEST_F(lifetime, callback_holds_the_first_piece_of_an_ended_stream_through_the_shutdown)
{
    peer p = connected();
    zeb_subscriber *sub = subscribed(p, 1);
    ASSERT_EQ(zeb_subscriber_registercallback(sub, wait_in_callback, nullptr, 0), 0);
    p.send(piece("k", "hello") + piece("k", ""));
    ASSERT_TRUE(eventually([] { return called.load(); }));
    zeb_shutdown();
    goOn = true;
    EXPECT_TRUE(threads_become("zeb-dispatch", 0));
}

TEST_F(lifetime, forked_child_drops_a_stream_that_ended_before_anybody_read_it)
{
    if (threadSanitizer)
        GTEST_SKIP() << "forks with threads alive are beyond this sanitizer";
    peer p = connected();
    zeb_subscriber *sub = subscribed(p, 1);
    p.send(piece("k", "hello") + piece("k", "") + message("1", "/mark"));
    zeb_notification *first = zeb_subscriber_receive(sub, 1, 20000);
    EXPECT_EQ(text_or_null(zeb_notification_type(first)), "/s");
    p.send(piece("other", "hello") + piece("other", "") + message("1", "/last"));
    EXPECT_EQ(receive_type(sub), "/mark");
    const pid_t child = fork();
    if (child == 0)
        _exit(zeb_subscriber_receive(sub, 0, 0) == nullptr ? 7 : 8);
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 7);
    zeb_subscriber_relinquish(sub, first);
    EXPECT_EQ(receive_type(sub), "/s");
    EXPECT_EQ(receive_type(sub), "/last");
}

TEST_F(lifetime, readers_of_a_dropped_member_are_woken_by_the_shutdown)
{
    peer p = connected();
    zeb_subscriber *sub = subscribed(p, 1, "/t", "");
    zeb_instream *in = open_stream(sub, p);
    zeb_subscriberlist *list = zeb_subscriberlist_create();
    zeb_subscriberlist_add(list, sub);
    daemon.refuse();
    p.close();
    EXPECT_EQ(receive_type(sub), "ZEB/SYSTEM/LEAVEGROUP");
    background reading([&] { return read_all(in); });
    background waiting([&] {
        zeb_subscriber *told; /* the hint of each delivery may come a moment after it */
        do
            told = zeb_subscriber_multirecv(list, 1, 0);
        while (told == sub);
        return told;
    });
    zeb_shutdown_nowait();
    EXPECT_EQ(reading.get(), 0);
    EXPECT_EQ(waiting.get(), nullptr);
    zeb_subscriber_close(sub);
    zeb_subscriberlist_destroy(&list);
}

TEST_F(lifetime, receive_that_begins_when_the_runtime_has_ended_touches_nothing)
{
    peer p = connected();
    zeb_subscriber *sub = subscribed(p, 1);
    zeb_shutdown();
    EXPECT_EQ(zeb_subscriber_receive(sub, 0, 0), nullptr);
    EXPECT_EQ(zeb_subscriber_receive(sub, 1, 20000), nullptr);
}

TEST_F(lifetime, member_that_was_agreed_to_leaves_its_group_even_before_its_creator_runs_again)
{
    peer p = connected();
    for (uint32_t id = 1; id <= 20; id++) {
        background creation([] { return zeb_subscriber_create("/t", "c", "", nullptr, nullptr); });
        p.expect(subscribe_request(id, "/t", "c", ""));
        p.send(status_reply(id, "success"));
        p.close();
        zeb_subscriber *sub = creation.get();
        ASSERT_NE(sub, nullptr);
        ASSERT_EQ(receive_type(sub), "ZEB/SYSTEM/LEAVEGROUP");
        zeb_subscriber_close(sub);
        p = daemon.accept_connected(home.path());
    }
}

} // namespace
