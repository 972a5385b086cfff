/* What applications do with each other through the daemon, as long as everything goes well. */
#include "daemon_and_actors.h"

namespace
{

TEST_F(System, ABroadcastReachesEverySubscriberThatMatches)
{
    actor first, second, sender;
    start(first);
    start(second);
    start(sender);
    first.subscribe("a", "/app/**");
    second.subscribe("c", "");
    sender.tell({"pub", "/app/disk", "full"});
    sender.tell({"pub", "/other", "end"});
    EXPECT_EQ(first.hear("a "), "a message /app/disk full");
    sender.tell({"pub", "/app/end", ""});
    EXPECT_EQ(second.hear("c "), "c message /app/disk full");
    EXPECT_EQ(second.hear("c "), "c message /other end");
    EXPECT_EQ(first.hear("a "), "a message /app/end ");
}

TEST_F(System, SubscribersOfOneProcessGetTheirOwnCopies)
{
    actor client;
    start(client);
    client.subscribe("a", "/app/**");
    client.subscribe("b", "/app/disk");
    client.tell({"pub", "/app/disk", "full"});
    client.tell({"pub", "/app/end", ""});
    EXPECT_EQ(client.hear("a message /app/end"), "a message /app/end ");
    client.tell({"pub", "/app/disk", "empty"});
    EXPECT_EQ(client.hear("b message /app/disk empty"), "b message /app/disk empty");
}

TEST_F(System, EventsOfOnePublisherArriveInTheirOrder)
{
    actor receiver, sender;
    start(receiver);
    start(sender);
    receiver.subscribe("a", "/n");
    sender.tell({"burst", "/n", "3000"});
    for (int i = 0; i < 3000; i++)
        ASSERT_EQ(receiver.hear("a "), "a message /n " + std::to_string(i));
}

TEST_F(System, ARefusedSubscriptionSaysWhy)
{
    actor client;
    start(client);
    client.tell({"sub", "a", "(\"@tpye=x\")", "-", "false"});
    EXPECT_EQ(client.hear("a "), "a refused E_FIELD 2 no such field here (subscription)");
    client.subscribe("b", "/still/there");
}

TEST_F(System, ADirectedEventAndItsReplyReachNobodyElse)
{
    actor first, second, third;
    start(first);
    start(second);
    start(third);
    first.subscribe("a", "-", "(\"group=g\")", true);
    third.subscribe("listener", "");
    EXPECT_EQ(first.hear("a added"), "a added [listener] removed []");
    second.subscribe("b", "-");
    EXPECT_EQ(first.hear("a added [b"), "a added [b] removed []");
    first.tell({"to", "a", "b", "/question", "who"});
    EXPECT_EQ(second.hear("b "), "b directed /question who from a");
    second.tell({"reply", "b", "/answer", "me"});
    EXPECT_EQ(first.hear("a "), "a directed /answer me from b");
    second.tell({"pub", "/end", ""});
    EXPECT_EQ(third.hear("listener "), "listener message /end ");
}

TEST_F(System, MembersSeeEachOtherComeAndGo)
{
    actor first, second, third;
    start(first);
    start(second);
    start(third);
    first.subscribe("a", "-", "(\"group=g\")");
    EXPECT_EQ(first.hear("a "), "a list ");
    second.subscribe("b", "-", "(\"group=g\")");
    EXPECT_EQ(first.hear("a "), "a list b");
    EXPECT_EQ(second.hear("b "), "b list a");
    third.subscribe("c", "-", "(\"group=g\")", true);
    EXPECT_EQ(third.hear("c "), "c added [a,b] removed []");
    EXPECT_EQ(first.hear("a "), "a list b,c");
    EXPECT_EQ(second.hear("b "), "b list a,c");
    first.tell({"close", "a"});
    EXPECT_EQ(third.hear("c "), "c added [] removed [a]");
    EXPECT_EQ(second.hear("b "), "b list c");
}

TEST_F(System, StateComesFromTheOldestOtherMember)
{
    actor first, second, third;
    start(first);
    start(second);
    start(third);
    first.subscribe("a", "-", "(\"group=g\")");
    first.tell({"state", "a", "forty-two"});
    EXPECT_EQ(first.hear("a keeps"), "a keeps");
    second.subscribe("b", "-", "(\"group=g\")");
    second.tell({"state", "b", "a younger one"});
    EXPECT_EQ(second.hear("b list a"), "b list a");
    third.subscribe("c", "-", "(\"group=g\")");
    EXPECT_EQ(third.hear("c list"), "c list a,b");
    third.tell({"getstate", "c"});
    EXPECT_EQ(third.hear("c stateset"), "c stateset forty-two");
    EXPECT_EQ(first.hear("a stateget"), "a stateget");
}

TEST_F(System, AStreamArrivesOctetByOctetAtEveryReceiver)
{
    actor first, second, sender;
    start(first);
    start(second);
    start(sender);
    first.subscribe("a", "/log");
    second.subscribe("b", "(\"@class=IncomingStreamingNotification\")");
    sender.tell({"stream", "/log", "1000", "2000"});
    const std::string sent = sender.hear("streamed ").substr(9);
    EXPECT_EQ(first.hear("a "), "a stream /log " + sent);
    EXPECT_EQ(second.hear("b "), "b stream /log " + sent);
}

TEST_F(System, ARemoteCallIsAnsweredByTwoServers)
{
    actor first, second, caller;
    start(first);
    start(second);
    start(caller);
    first.tell({"serve", "calc"});
    second.tell({"serve", "calc"});
    EXPECT_EQ(first.hear("serving"), "serving");
    EXPECT_EQ(second.hear("serving"), "serving");
    caller.tell({"call", "calc", "echo", "hello", "2"});
    EXPECT_EQ(caller.hear("called"), "called 2");
    int results = 0, progress = 0;
    for (std::string line = caller.hear(""); line != "call done"; line = caller.hear("")) {
        results += line == "result hello" ? 1 : 0;
        progress += line == "progress half" || line == "progress most" ? 1 : 0;
        ASSERT_TRUE(line.find("missing") == std::string::npos) << line;
    }
    EXPECT_EQ(results, 2);
    EXPECT_EQ(progress, 4);
}

TEST_F(System, ARemoteCallReportsErrors)
{
    actor server, caller;
    start(server);
    start(caller);
    server.tell({"serve", "calc"});
    EXPECT_EQ(server.hear("serving"), "serving");
    caller.tell({"call", "calc", "fail", "", "1"});
    EXPECT_EQ(caller.hear("error"), "error 42 as told");
    caller.tell({"call", "calc", "nothing", "", "1"});
    EXPECT_EQ(caller.hear("error"), "error -3 RPCSERVER ERROR[rcv]: function not found");
}

struct HangingCall : System {
    /* CALLER has called SERVER, whose function does not come back. */
    void callAndHang(actor &server, actor &caller) const
    {
        start(server);
        start(caller);
        server.tell({"serve", "calc"});
        EXPECT_EQ(server.hear("serving"), "serving");
        caller.tell({"call", "calc", "hang", "", "1"});
        EXPECT_EQ(server.hear("hanging"), "hanging");
    }
};

TEST_F(HangingCall, FailsWhenItsServerStops)
{
    actor server, caller;
    callAndHang(server, caller);
    server.tell({"stop", "calc"});
    EXPECT_EQ(caller.hear("error"), "error -2 -");
    EXPECT_EQ(caller.hear("call"), "call done");
}

TEST_F(HangingCall, FailsWhenItsServerDies)
{
    actor server, caller;
    callAndHang(server, caller);
    process::send_signal(server, SIGKILL);
    EXPECT_EQ(caller.hear("error"), "error -2 -");
    EXPECT_EQ(caller.hear("call"), "call done");
}

TEST_F(System, OneThreadReceivesForSeveralSubscribers)
{
    actor receiver, sender;
    start(receiver);
    start(sender);
    receiver.tell({"poll", "3", "/p"});
    EXPECT_EQ(receiver.hear("polling"), "polling");
    for (const char *type : {"/p2", "/p0", "/p1"}) {
        sender.tell({"pub", type, "x"});
        const std::string line = receiver.hear("polled ");
        EXPECT_EQ(line, std::string("polled ") + (type + 2) + " " + type);
    }
    EXPECT_EQ(receiver.hear("polled all"), "polled all");
}

} // namespace
