/* Routing without sockets: who gets an event, in which order, encoded how often. */
#include "addresslist.h"
#include "recorder.h"
#include "wire.h"

#include <gtest/gtest.h>
#include <malloc.h>

using namespace zebd;

namespace
{

struct Engine : testing::Test {
    recorder out;
    engine routing = engineWith(out);

    bool up(connection_id connection, int32_t id, const std::string &text,
            const std::string &interest = "null")
    {
        subscribe_request request;
        request.id = id;
        request.subscription = text;
        request.interest = interest;
        return engine_up(routing, connection, request, refusal);
    }

    bool taken(connection_id from, std::string_view text)
    {
        message_reader reader;
        message_reader_feed(reader, wire::connect);
        message_reader_feed(reader, text);
        message what;
        EXPECT_EQ(message_reader_next(reader, what), read_result::complete);
        EXPECT_EQ(message_reader_next(reader, what), read_result::complete) << reader.error;
        const auto read = std::get<std::shared_ptr<event>>(what);
        read->takenAt = 1111;
        return engine_take(routing, from, read, refusal);
    }

    void take(connection_id from, std::string_view text)
    {
        EXPECT_TRUE(taken(from, text)) << refusal;
    }

    /* "connection:subscriber" of everything handed out since the last call, in connection order. */
    std::string receivers()
    {
        std::string text;
        for (const auto &[connection, items] : out.sent)
            for (const std::string &item : items) {
                const size_t at = item.find("SubscriberID: ") + 14;
                text += (text.empty() ? "" : " ") + std::to_string(connection) + ":" +
                        item.substr(at, item.find('\r', at) - at);
            }
        out.sent.clear();
        return text;
    }

    std::string refusal;
};

TEST_F(Engine, AnEventGoesToEverySubscriberThatMatches)
{
    ASSERT_TRUE(up(1, 1, ""));
    ASSERT_TRUE(up(2, 1, "/app/disk/full"));
    ASSERT_TRUE(up(2, 2, "/app/**"));
    ASSERT_TRUE(up(3, 1, "/other"));
    ASSERT_TRUE(up(3, 2, "\"sev>=3\""));
    take(9, wire::messageEvent);
    EXPECT_EQ(receivers(), "1:1 2:1 2:2 3:2");
    EXPECT_EQ(routing.counters.delivered, 4U);
}

TEST_F(Engine, AnEventAlsoGoesToSubscribersOnItsOwnConnection)
{
    ASSERT_TRUE(up(1, 1, ""));
    take(1, wire::messageEvent);
    EXPECT_EQ(receivers(), "1:1");
}

TEST_F(Engine, ANullSubscriptionGetsNoBroadcast)
{
    ASSERT_TRUE(up(1, 1, "null"));
    take(2, wire::messageEvent);
    take(2, wire::streamPiece);
    EXPECT_EQ(receivers(), "");
}

TEST_F(Engine, EveryEventFieldCanBeSubscribedTo)
{
    int32_t id = 0;
    for (const char *text :
         {"\"@type=/app/disk/full\"", "\"@class=MessageNotification\"", "\"@id=node1:911\"",
          "\"@component=storage\"", "\"@node=node1\"", "\"@process=node1:9\"", "\"@instance=east\"",
          "\"@affectedComponents=db\"", "\"@affectedNodes=n1 n2\"", "\"@local=true\"", "\"note=\""})
        ASSERT_TRUE(up(1, ++id, text)) << refusal;
    take(2, wire::messageEvent);
    EXPECT_EQ(out.sent[1].size(), 11U);
}

TEST_F(Engine, ADeliveredEventNamesOneSubscriberAndCarriesBothTimes)
{
    ASSERT_TRUE(up(1, 1, ""));
    take(2, wire::messageEvent);
    const std::vector<std::string> expected = {std::string(wire::messageEventDelivered)};
    EXPECT_EQ(out.drain(1), expected);
}

TEST_F(Engine, AnEventIsEncodedOnceForAllReceivers)
{
    for (connection_id connection = 1; connection <= 5; connection++)
        ASSERT_TRUE(up(connection, 1, "/app/**"));
    take(9, wire::messageEvent);
    ASSERT_EQ(out.encodings.size(), 5U);
    for (const auto &encoding : out.encodings)
        EXPECT_EQ(encoding, out.encodings[0]);
}

TEST_F(Engine, EventsReachAReceiverInTheOrderOfSending)
{
    ASSERT_TRUE(up(1, 1, ""));
    for (int i = 0; i < 50; i++)
        take(2, wire::with(wire::messageEvent, "node1:911", "number " + std::to_string(i)));
    ASSERT_EQ(out.sent[1].size(), 50U);
    for (size_t i = 0; i < 50; i++)
        EXPECT_NE(out.sent[1][i].find("eventId: number " + std::to_string(i) + "\r\n"), std::string::npos);
}

TEST_F(Engine, OnlyMessagesAndStreamPiecesAreBroadcast)
{
    ASSERT_TRUE(up(1, 1, ""));
    for (const char *name : {"MembershipListNotification", "MembershipDeltaNotification",
                             "StateGetNotification", "StateSetNotification", "LeaveGroupNotification"})
        take(2, wire::with(wire::with(wire::stateEvent, "StateSetNotification", name), "AddrList-Length: 4",
                           "AddrList-Length: 0"));
    take(2, wire::with(wire::bareEvent, "MessageNotification", "OutgoingStreamingNotification"));
    EXPECT_EQ(receivers(), "");
    EXPECT_EQ(routing.counters.unroutable, 6U);
}

TEST_F(Engine, AnEventWithDestinationsIsNeverBroadcast)
{
    ASSERT_TRUE(up(1, 1, ""));
    const std::string list = addresslist::destinations({addresslist::octets(1, 999)});
    take(2, wire::with(wire::messageEvent, "AddrList-Length: 0\r\n\r\nhe\r\nl",
                       "AddrList-Length: " + std::to_string(list.size()) + "\r\n\r\nhe\r\nl" + list));
    EXPECT_EQ(receivers(), "");
    EXPECT_EQ(routing.counters.addressGone, 1U);
}

TEST_F(Engine, ASubscriberThatIsDownGetsNothing)
{
    ASSERT_TRUE(up(1, 1, ""));
    ASSERT_TRUE(up(1, 2, ""));
    engine_down(routing, 1, 1);
    engine_down(routing, 1, 1);
    engine_down(routing, 7, 1);
    take(2, wire::messageEvent);
    EXPECT_EQ(receivers(), "1:2");
}

TEST_F(Engine, AConnectionThatIsGoneTakesItsSubscribersAlong)
{
    ASSERT_TRUE(up(1, 1, ""));
    ASSERT_TRUE(up(1, 2, "/app/**"));
    ASSERT_TRUE(up(2, 1, ""));
    engine_connection_gone(routing, 1);
    take(3, wire::messageEvent);
    EXPECT_EQ(receivers(), "2:1");
    EXPECT_EQ(routing.subscribers.size(), 1U);
    EXPECT_EQ(routing.index.entries.size(), 1U);
}

TEST_F(Engine, SubscribingAgainReplacesTheSubscription)
{
    ASSERT_TRUE(up(1, 1, "/app/**"));
    ASSERT_TRUE(up(1, 1, "/other"));
    take(2, wire::messageEvent);
    EXPECT_EQ(receivers(), "");
    ASSERT_TRUE(up(1, 1, ""));
    take(2, wire::messageEvent);
    EXPECT_EQ(receivers(), "1:1");
}

TEST_F(Engine, ARefusedTextSaysCodeOffsetAndWhichTextItWas)
{
    EXPECT_FALSE(up(1, 1, "(\"@tpye=x\")"));
    EXPECT_EQ(refusal, "E_FIELD 2 no such field here (subscription)");
    EXPECT_FALSE(up(1, 1, "", "/x"));
    EXPECT_EQ(refusal, "E_START 0 expected \"name...\", ( or ! (membership interest)");
    EXPECT_EQ(routing.counters.subscribersRefused, 2U);
}

/* The client has been told no, so the subscription it meant to replace must not go on either. */
TEST_F(Engine, ARefusedReplacementEndsWhatItWasToReplace)
{
    ASSERT_TRUE(up(1, 1, ""));
    EXPECT_FALSE(up(1, 1, "("));
    take(2, wire::messageEvent);
    EXPECT_EQ(receivers(), "");
}

TEST_F(Engine, SubscribersOfOneConnectionAreLimited)
{
    routing.limits.subscribers = 2;
    ASSERT_TRUE(up(1, 1, ""));
    ASSERT_TRUE(up(1, 2, ""));
    EXPECT_FALSE(up(1, 3, ""));
    EXPECT_EQ(refusal, "E_LIMIT 0 too many subscribers on this connection");
    EXPECT_TRUE(up(1, 2, "/replaced"));
    EXPECT_TRUE(up(2, 1, ""));
}

/* ---- Streams ---- */

std::string piece(const std::string &body, const std::string &type = "/log",
                  const std::string &key = "node1:911")
{
    std::string text = wire::with(wire::streamPiece, "eventType: /log", "eventType: " + type);
    text = wire::with(text, "streamKey: node1:911", "streamKey: " + key);
    return wire::with(text, "Content-Length: 3\r\nAddrList-Length: 0\r\n\r\nabc",
                      "Content-Length: " + std::to_string(body.size()) + "\r\nAddrList-Length: 0\r\n\r\n" +
                          body);
}

TEST_F(Engine, PiecesOfAStreamGoToThoseThatGotItsHead)
{
    ASSERT_TRUE(up(1, 1, "/log"));
    take(9, piece("head"));
    EXPECT_EQ(receivers(), "1:1");
    ASSERT_TRUE(up(2, 1, ""));
    take(9, piece("more", "/matches/nobody/but/the/late/one"));
    EXPECT_EQ(receivers(), "1:1");
    take(9, piece(""));
    EXPECT_EQ(receivers(), "1:1");
    take(9, piece("a new head"));
    EXPECT_EQ(receivers(), "1:1 2:1");
}

TEST_F(Engine, AStreamKeyIsKnownPerConnection)
{
    ASSERT_TRUE(up(1, 1, "/log"));
    take(8, piece("head"));
    take(9, piece("head of another", "/other"));
    EXPECT_EQ(receivers(), "1:1");
}

TEST_F(Engine, AReplacedSubscriberGetsNoPiecesOfAStreamItDidNotSeeBegin)
{
    ASSERT_TRUE(up(1, 1, "/log"));
    take(9, piece("head"));
    ASSERT_TRUE(up(1, 1, "/log"));
    take(9, piece("more"));
    EXPECT_EQ(receivers(), "1:1");
    EXPECT_EQ(routing.counters.addressGone, 1U);
}

TEST_F(Engine, AStreamWithoutContentLeavesNothingBehind)
{
    ASSERT_TRUE(up(1, 1, "/log"));
    take(9, piece(""));
    EXPECT_EQ(receivers(), "1:1");
    EXPECT_TRUE(routing.connections[9].streams.empty());
}

TEST_F(Engine, OpenStreamsOfOneConnectionAreLimited)
{
    routing.limits.streams = 1;
    ASSERT_TRUE(up(1, 1, ""));
    take(9, piece("first", "/log", "k1"));
    take(9, piece("refused", "/log", "k2"));
    take(9, piece("first goes on", "/log", "k1"));
    EXPECT_EQ(receivers(), "1:1 1:1");
    EXPECT_EQ(routing.counters.streamsRefused, 1U);
}

/* A stream that began in the middle would look whole. */
TEST_F(Engine, NoPieceOfARefusedStreamIsTakenForItsHead)
{
    routing.limits.streams = 1;
    ASSERT_TRUE(up(1, 1, ""));
    take(9, piece("first", "/log", "k1"));
    take(9, piece("refused", "/log", "k2"));
    take(9, piece("", "/log", "k1"));
    EXPECT_EQ(receivers(), "1:1 1:1");
    take(9, piece("goes on", "/log", "k2"));
    take(9, piece("", "/log", "k2"));
    EXPECT_EQ(receivers(), "");
    EXPECT_EQ(routing.counters.streamsRefused, 3U);
    take(9, piece("a new head", "/log", "k2"));
    EXPECT_EQ(receivers(), "1:1");
}

TEST_F(Engine, AConnectionWithTooManyRefusedStreamsIsEnded)
{
    routing.limits.streams = 0;
    for (int i = 0; i < 4096; i++)
        take(9, piece("refused", "/log", std::to_string(i)));
    take(9, piece("", "/log", "7"));
    take(9, piece("refused", "/log", "7"));
    EXPECT_FALSE(taken(9, piece("refused", "/log", "one more")));
    EXPECT_EQ(refusal, "more than 4096 of its streams were refused and have not ended");
}

TEST_F(Engine, KeysOfOpenStreamsAreLimitedTogether)
{
    routing.limits.streamKeys = 1000;
    take(9, piece("head", "/log", std::string(600, 'a')));
    take(9, piece("refused", "/log", std::string(600, 'b')));
    EXPECT_EQ(routing.counters.streamsRefused, 1U);
    take(9, piece("", "/log", std::string(600, 'a')));
    take(9, piece("head", "/log", std::string(600, 'c')));
    EXPECT_EQ(routing.counters.streamsRefused, 1U);
    EXPECT_EQ(routing.connections[9].streams.size(), 1U);
}

/* ---- Memory ---- */

TEST_F(Engine, OpenStreamsCountWithAllSubscribers)
{
    for (int32_t id = 1; id <= 100; id++)
        ASSERT_TRUE(up(1, id, ""));
    const size_t without = engine_octets(routing);
    take(9, piece("head", "/log", "k1"));
    EXPECT_GE(engine_octets(routing), without + 100 * sizeof(uint64_t));
    routing.limits.kept = engine_octets(routing) + 10;
    take(9, piece("refused", "/log", "k2"));
    EXPECT_EQ(routing.counters.streamsRefused, 1U);
    EXPECT_FALSE(up(1, 101, ""));
    EXPECT_EQ(refusal, "E_LIMIT 0 all subscribers together take too much memory");
    engine_connection_gone(routing, 9);
    EXPECT_EQ(engine_octets(routing), without);
    engine_connection_gone(routing, 1);
    EXPECT_EQ(engine_octets(routing), 0U);
}

TEST_F(Engine, RefusedStreamsCountWithAllSubscribers)
{
    routing.limits.streams = 0;
    for (int i = 0; i < 1000; i++)
        take(9, piece("refused", "/log", std::to_string(i)));
    EXPECT_GE(engine_octets(routing), 1000 * sizeof(size_t));
    const size_t before = engine_octets(routing);
    take(9, piece("", "/log", "7"));
    EXPECT_LT(engine_octets(routing), before);
    engine_connection_gone(routing, 9);
    EXPECT_EQ(engine_octets(routing), 0U);
    routing.limits.kept = 0;
    for (int i = 0; i < 64; i++)
        take(9, piece("refused", "/log", std::to_string(i)));
    EXPECT_FALSE(taken(9, piece("refused", "/log", "one more")));
    EXPECT_EQ(refusal, "more than 64 of its streams were refused and have not ended");
}

std::string many_alternatives(int number, int count)
{
    std::string text;
    for (int i = 0; i < count; i++)
        text += (i > 0 ? "|\"p" : "\"p") + std::to_string(number) + "." + std::to_string(i) + "=1\"";
    return text;
}

/* What is refused leaves nothing behind, and what others have stays. */
TEST_F(Engine, SubscriptionsAndInterestsAreLimitedInMemoryTogether)
{
    routing.limits.kept = size_t{4} * 1024 * 1024;
    int32_t accepted = 0;
    while (accepted < 100 &&
           up(1, accepted + 1, many_alternatives(accepted, 500), many_alternatives(accepted, 500)))
        accepted++;
    EXPECT_GT(accepted, 1);
    EXPECT_LT(accepted, 10);
    EXPECT_EQ(refusal, "E_LIMIT 0 all subscribers together take too much memory");
    EXPECT_LE(engine_octets(routing), routing.limits.kept);
    EXPECT_EQ(routing.subscribers.size(), static_cast<size_t>(accepted));
    EXPECT_EQ(routing.index.entries.size(), static_cast<size_t>(accepted));
    EXPECT_EQ(routing.members.interests.entries.size(), static_cast<size_t>(accepted));
    EXPECT_TRUE(up(2, 1, "/small"));
}

size_t allocated()
{
    const struct mallinfo2 now = mallinfo2();
    return now.uordblks + now.hblkhd;
}

/* Of the memory that subscribers really take at least half is counted, and not many times as much. */
struct Counted : Engine {
    void SetUp() override
    {
        if (allocated() == 0)
            GTEST_SKIP() << "this allocator tells nothing, as those of sanitizers";
    }

    void expect_counted(size_t before)
    {
        engine_flush(routing);
        out.sent.clear();
        out.encodings.clear();
        const size_t taken = allocated() - before, counted = engine_octets(routing);
        EXPECT_GT(counted, taken / 2);
        EXPECT_LT(counted, taken * 4);
    }
};

TEST_F(Counted, InterestsAndSubscriptions)
{
    const size_t before = allocated();
    for (int32_t id = 1; id <= 20; id++)
        ASSERT_TRUE(up(1, id, many_alternatives(id, 1000), many_alternatives(id, 2000)));
    expect_counted(before);
}

TEST_F(Counted, PatternsUnderOneName)
{
    const size_t before = allocated();
    for (int32_t id = 1; id <= 20; id++) {
        std::string text;
        for (int i = 0; i < 1000; i++)
            text += (i > 0 ? "|\"a~=*" : "\"a~=*") + std::to_string(i) + "*" + std::to_string(id) + "?\"";
        ASSERT_TRUE(up(1, id, text));
    }
    expect_counted(before);
}

TEST_F(Counted, SmallSubscribers)
{
    const size_t before = allocated();
    for (int32_t id = 1; id <= 5000; id++)
        ASSERT_TRUE(up(1, id, "/t/" + std::to_string(id)));
    expect_counted(before);
}

TEST_F(Counted, Properties)
{
    const size_t before = allocated();
    for (int32_t id = 1; id <= 5; id++) {
        subscribe_request request;
        request.id = id;
        request.subscription = request.interest = "null";
        for (int i = 0; i < 5000; i++)
            request.properties.emplace_back(std::to_string(id * 10000 + i), "v");
        ASSERT_TRUE(engine_up(routing, 1, std::move(request), refusal)) << refusal;
    }
    expect_counted(before);
}

/* ---- Interning ---- */

TEST_F(Engine, EqualSubscriptionsShareOneEntryOfTheIndex)
{
    ASSERT_TRUE(up(1, 1, "(\"a=1\")|(\"b=2\")"));
    ASSERT_TRUE(up(2, 1, "\"b=2\" | \"a=1\""));
    EXPECT_EQ(routing.index.entries.size(), 1U);
    engine_down(routing, 1, 1);
    EXPECT_EQ(routing.index.entries.size(), 1U);
    engine_down(routing, 2, 1);
    EXPECT_TRUE(routing.index.entries.empty());
    EXPECT_TRUE(routing.index.filed.empty());
}

} // namespace
