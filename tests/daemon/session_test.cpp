/* Whole conversations without a socket: octets in, octets out. */
#include "recorder.h"
#include "wire.h"

#include <gtest/gtest.h>

using namespace zebd;

namespace
{

struct Session : testing::Test {
    recorder out;
    engine routing = engineWith(out);
    session talk;
    std::string why;

    void SetUp() override
    {
        talk.id = 5;
    }

    bool take(std::string_view bytes)
    {
        return session_take(talk, routing, bytes, why);
    }
};

TEST_F(Session, TheConnectIsAnsweredWithNineLinesAndAnEmptyOne)
{
    EXPECT_TRUE(take(wire::connect));
    const std::vector<std::string> expected = {"POST /connect HTTP/1.1\r\n"
                                               "Version: 4\r\n"
                                               "Result: success\r\n"
                                               "Message: connected\r\n"
                                               "Daemon: zebd 1.2.3\r\n"
                                               "Node: node1\r\n"
                                               "Incarnation: 77\r\n"
                                               "Connection: 5\r\n"
                                               "instanceName: east\r\n"
                                               "\r\n"};
    EXPECT_EQ(out.drain(5), expected);
}

TEST_F(Session, WhatTheConnectSaysIsKept)
{
    EXPECT_TRUE(take(wire::with(wire::connect, "abc", "form\n")));
    EXPECT_EQ(talk.formFactor, "form\n");
    EXPECT_EQ(talk.selfId, "Pid=4242; Home=/opt/app");
    EXPECT_EQ(talk.pid, "4242");
}

TEST_F(Session, AnotherProtocolVersionIsRefusedAndTheConversationEnds)
{
    EXPECT_FALSE(take(wire::with(wire::connect, "Version: 4 ", "Version: 5")));
    EXPECT_EQ(why, "protocol version '5' is not served");
    const std::string answer = out.drain(5).at(0);
    EXPECT_NE(
        answer.find("\r\nVersion: 4\r\nResult: failure\r\nMessage: protocol version '5' is not served\r\n"),
        std::string::npos)
        << answer;
}

TEST_F(Session, ASecondConnectEndsTheConversation)
{
    EXPECT_TRUE(take(wire::connect));
    EXPECT_FALSE(take(wire::connect));
    EXPECT_EQ(why, "line 1: second connect");
}

TEST_F(Session, AnythingBeforeTheConnectEndsTheConversation)
{
    EXPECT_FALSE(take(wire::subscribeEverything));
    EXPECT_EQ(why, "line 1: 'POST /subscribe HTTP/1.1' before the connect");
    EXPECT_TRUE(out.drain(5).empty());
}

TEST_F(Session, ASubscribeIsAnsweredWithAStatusThatHasAMessage)
{
    EXPECT_TRUE(take(std::string(wire::connect) + std::string(wire::subscribeEverything)));
    const std::string expected = "POST /status HTTP/1.1\r\n"
                                 "Result: success\r\n"
                                 "SubscriberID: 1\r\n"
                                 "Message: subscribed\r\n"
                                 "\r\n";
    EXPECT_EQ(out.drain(5).at(1), expected);
}

TEST_F(Session, ARefusedSubscribeSaysWhyAndTheConversationGoesOn)
{
    EXPECT_TRUE(take(wire::connect));
    EXPECT_TRUE(take(wire::with(wire::subscribeEverything, "Subscription: ", "Subscription: @type=x")));
    const std::string expected = "POST /status HTTP/1.1\r\n"
                                 "Result: failure\r\n"
                                 "SubscriberID: 1\r\n"
                                 "Message: E_START 0 expected \"name...\", ( or ! (subscription)\r\n"
                                 "\r\n";
    EXPECT_EQ(out.drain(5).at(1), expected);
    EXPECT_TRUE(take(wire::subscribeEverything));
}

TEST_F(Session, AnUnsubscribeHasNoAnswer)
{
    EXPECT_TRUE(take(wire::connect));
    EXPECT_TRUE(take(wire::subscribeEverything));
    out.drain(5);
    EXPECT_TRUE(take(wire::unsubscribe));
    EXPECT_TRUE(take(wire::messageEvent));
    EXPECT_TRUE(out.drain(5).empty());
}

TEST_F(Session, RepliesAndEventsLeaveInTheOrderOfTheirCauses)
{
    std::string all;
    for (const std::string_view text :
         {wire::connect, wire::messageEvent, wire::subscribeEverything, wire::messageEvent, wire::unsubscribe,
          wire::messageEvent, wire::subscribeWithProperties})
        all += text;
    for (const char octet : all)
        ASSERT_TRUE(take(std::string_view(&octet, 1))) << why;
    std::string heads;
    for (const std::string &item : out.drain(5))
        heads += item.substr(6, item.find(' ', 6) - 6) + " ";
    EXPECT_EQ(heads, "connect status event status ");
}

TEST_F(Session, TheCreationTimeIsWhenTheDaemonTookTheEvent)
{
    EXPECT_TRUE(take(wire::connect));
    EXPECT_TRUE(take(wire::subscribeEverything));
    EXPECT_TRUE(take(wire::bareEvent));
    const std::string delivered = out.drain(5).at(2);
    EXPECT_NE(delivered.find("eventId: \r\ncreationTime: 2222\r\ndeliveryTime: 2222\r\naffectedComponents"),
              std::string::npos)
        << delivered;
}

TEST_F(Session, ABrokenEventEndsTheConversationWithItsLineAndReason)
{
    EXPECT_TRUE(take(wire::connect));
    EXPECT_FALSE(take(wire::with(wire::messageEvent, "eventId: ", "eventID: ")));
    EXPECT_EQ(why, "line 5: 'eventID: node1:911' instead of 'eventId: '");
}

TEST_F(Session, ABrokenAddressListEndsTheConversationWithItsReason)
{
    EXPECT_TRUE(take(wire::connect));
    EXPECT_FALSE(take(wire::stateEvent));
    EXPECT_EQ(why, "address list: no signature, 4 octets before its end");
}

TEST_F(Session, WhatCameBeforeTheErrorHasBeenCarriedOut)
{
    EXPECT_TRUE(take(std::string(wire::connect) + std::string(wire::subscribeEverything)));
    out.drain(5);
    EXPECT_FALSE(take(std::string(wire::messageEvent) + "nonsense\r\n"));
    EXPECT_EQ(out.drain(5).size(), 1U);
}

} // namespace
