/* Clients that read too slowly, say too little or are too many: what zebd does about each, over the loopback.
 */
#include "../support/sanitizer.h"
#include "administrator.h"
#include "peer.h"
#include "process.h"
#include "wire.h"

#include <charconv>
#include <chrono>
#include <csignal>
#include <fstream>
#include <gtest/gtest.h>
#include <list>
#include <thread>

namespace
{

constexpr size_t bodySize = 50000;

struct Limits : testing::Test {
    process::zebd daemon;
    std::string socket = testing::TempDir() + "zebd-limits-" + std::to_string(getpid()) + ".sock";
    int published = 0;

    ~Limits() override
    {
        unlink(socket.c_str());
    }

    void serve(const process::arguments &settings)
    {
        process::arguments options = {"--admin", socket};
        for (const std::string &setting : settings) {
            options.emplace_back("--set");
            options.push_back(setting);
        }
        process::start_zebd(daemon, options);
        ASSERT_NE(daemon.port, 0) << daemon.errText;
    }

    int64_t counter(const std::string &name) const
    {
        administrator admin;
        return admin.dial(socket) ? admin.ask("counters")["counters"].value(name, int64_t{-1}) : -1;
    }

    bool logged(const std::string &text)
    {
        process::poll_output(daemon);
        return daemon.errText.find(text) != std::string::npos;
    }

    /* Events with a body and numbers for identifiers, with a round trip now and then. */
    bool publish(peer &from, int count)
    {
        const std::string body(bodySize, 'x');
        const std::string length = "Content-Length: " + std::to_string(bodySize);
        for (int i = 0; i < count; i++) {
            const std::string event = wire::with(wire::bareEvent, "Content-Length: 0", length);
            const std::string number = "eventId: " + std::to_string(published++);
            if (!from.say(wire::with(event, "eventId: ", number) + body) ||
                (i % 20 == 19 && !from.round_trip()))
                return false;
        }
        return from.round_trip();
    }

    bool publish_until(peer &from, const std::string &text)
    {
        for (int i = 0; i < 300 && !logged(text); i++)
            if (!publish(from, 10))
                return false;
        return logged(text);
    }

    /* One event of a type, with a body of that many octets. */
    static bool publish_large(peer &from, const std::string &type, size_t octets)
    {
        const std::string event = wire::with(wire::bareEvent, "eventType: ", "eventType: " + type);
        const std::string length = "Content-Length: " + std::to_string(octets);
        return from.say(wire::with(event, "Content-Length: 0", length)) &&
               from.say(std::string(octets, 'x')) && from.round_trip();
    }

    static bool watch(peer &client, const std::string &type)
    {
        return client.subscribe(wire::with(wire::subscribeEverything,
                                           "Subscription: ", "Subscription: (\"@type=" + type + "\")"));
    }

    static bool hear_large(peer &client, size_t octets)
    {
        client.hear("\r\n\r\n");
        while (client.got.size() < octets && client.more()) {
        }
        const bool whole = client.got.size() == octets;
        client.got.clear();
        return whole;
    }

    static int next_event(peer &client)
    {
        client.hear("eventId: ");
        const std::string text = client.hear("\r\n");
        int number = -1;
        std::from_chars(text.data(), text.data() + text.size(), number);
        client.hear("\r\n\r\n" + std::string(bodySize, 'x'));
        return number;
    }
};

/* ---- Every key acts in the running program ---- */

std::string subscribe_with(const std::string &line, const std::string &fresh)
{
    return wire::with(wire::subscribeEverything, line, fresh);
}

TEST_F(Limits, OnMessagesEndTheirClient)
{
    const std::string line(600, 'x');
    const std::pair<const char *, std::string> cases[] = {
        {"limits.line=256", subscribe_with("watcher", std::string(300, 'w'))},
        {"limits.header=1024",
         subscribe_with("numberOfProperties: 0\r\n\r\n",
                        "numberOfProperties: 2\r\na: " + line + "\r\nb: " + line + "\r\n\r\n")},
        {"limits.properties=2", std::string(wire::subscribeWithProperties)},
        {"limits.body=4", std::string(wire::messageEvent)},
        {"limits.addresses=3", std::string(wire::stateEvent)},
    };
    for (const auto &[setting, text] : cases) {
        process::zebd limited;
        process::start_zebd(limited, {"--set", setting});
        peer within, client;
        ASSERT_TRUE(within.join(limited.port) && within.round_trip()) << setting;
        ASSERT_TRUE(client.join(limited.port) && client.say(text)) << setting;
        EXPECT_TRUE(client.hear_end()) << setting;
        EXPECT_TRUE(process::wait_for_err(limited, " ended: ")) << setting;
    }
}

/* The answer to the subscribe message that is one too many, or that is not answered at all. */
std::string first_refusal(peer &client, const std::string &text)
{
    std::string answer;
    for (int id = 2; id < 20 && answer.find("failure") == std::string::npos; id++) {
        if (!client.say(wire::with(text, "SubscriberID: 1", "SubscriberID: " + std::to_string(id))))
            return "GONE";
        answer = client.hear("\r\n\r\n");
    }
    return answer;
}

TEST_F(Limits, OnSubscribersAreAnswered)
{
    const auto subscription = [](const std::string &text) {
        return subscribe_with("Subscription: ", "Subscription: " + text);
    };
    const std::pair<const char *, std::string> cases[] = {
        {"limits.subscribers=1", subscription("null")},
        {"limits.subscriber=1024", subscribe_with("watcher", std::string(2000, 'w'))},
        {"limits.all_subscribers=1048576", subscribe_with("watcher", std::string(100000, 'w'))},
        {"language.octets=10", subscription("(\"type=123\")")},
        {"language.nesting=2", subscription("(((\"a\")))")},
        {"language.predicates=1", subscription("(\"a\")|(\"b\")")},
    };
    for (const auto &[setting, text] : cases) {
        process::zebd limited;
        process::start_zebd(limited, {"--set", setting});
        peer client;
        ASSERT_TRUE(client.join(limited.port) && client.round_trip()) << setting;
        const std::string answer = first_refusal(client, text);
        EXPECT_NE(answer.find("Message: E_LIMIT "), std::string::npos) << setting << answer;
        EXPECT_TRUE(client.round_trip()) << setting;
    }
}

TEST_F(Limits, OnClausesLeaveASubscriptionWhole)
{
    const std::string text = subscribe_with("Subscription: ", "Subscription: (\"a=1\")|(\"b=1\")");
    for (const bool isWhole : {false, true}) {
        process::zebd limited;
        process::start_zebd(limited, {"--set", isWhole ? "language.clauses=1" : "language.clauses=2"});
        peer client;
        ASSERT_TRUE(client.join(limited.port) && client.subscribe(text) && client.round_trip());
        process::poll_output(limited);
        EXPECT_EQ(limited.errText.find("has to be tried for every event") != std::string::npos, isWhole);
    }
}

/* ---- What is sent in vain ---- */

TEST_F(Limits, PiecesOfRefusedStreamsAreLogged)
{
    serve({"limits.streams=0"});
    peer from;
    ASSERT_TRUE(from.join(daemon.port));
    ASSERT_TRUE(from.say(std::string(wire::streamPiece) + std::string(wire::streamPiece)));
    EXPECT_TRUE(process::wait_for_err(daemon, "pieces dropped, there was no room for their streams"))
        << daemon.errText;
    EXPECT_TRUE(from.round_trip());
}

TEST_F(Limits, EventsThatGoNowhereAreLogged)
{
    serve({});
    peer from;
    const std::string event =
        wire::with(wire::with(wire::stateEvent, "AddrList-Length: 4", "AddrList-Length: 0"), "okADDR", "ok");
    ASSERT_TRUE(from.join(daemon.port) && from.say(event));
    EXPECT_TRUE(process::wait_for_err(
        daemon, ": 1 events without destination dropped, of a class that always has one"))
        << daemon.errText;
    EXPECT_TRUE(from.round_trip());
}

/* ---- Slow readers ---- */

constexpr int moreThanSocketsHold = 600; /* 30 MB */

/* Nothing more has to be sent to it for that. */
TEST_F(Limits, AClientAboveTheSoftLimitForLongIsEnded)
{
    serve({"queue.soft=1000000", "queue.soft_seconds=0.2"});
    peer lazy, from;
    ASSERT_TRUE(lazy.join(daemon.port) && lazy.subscribe());
    ASSERT_TRUE(from.join(daemon.port));
    ASSERT_TRUE(publish(from, moreThanSocketsHold));
    EXPECT_TRUE(process::wait_for_err(daemon, "octets are waiting for it, the soft limit is 1000000\n"))
        << daemon.errText;
    EXPECT_TRUE(lazy.hear_end());
    EXPECT_TRUE(from.round_trip());
    EXPECT_EQ(counter("endedQueue"), 1);
    EXPECT_GT(counter("droppedSoft"), 0); /* all that waited */
    EXPECT_EQ(counter("eventsOut") + counter("droppedSoft"), counter("eventsRouted"));
}

TEST_F(Limits, TheSoftLimitDropsAsWell)
{
    serve({"queue.policy=drop-oldest", "queue.soft=1000000", "queue.soft_seconds=0.1"});
    peer lazy, from;
    ASSERT_TRUE(lazy.join(daemon.port) && lazy.subscribe());
    ASSERT_TRUE(from.join(daemon.port));
    ASSERT_TRUE(publish(from, moreThanSocketsHold));
    ASSERT_TRUE(process::wait_for_err(daemon, "events dropped by the soft limit\n")) << daemon.errText;
    EXPECT_EQ(next_event(lazy), 0);
    EXPECT_FALSE(logged("ended"));
    EXPECT_GT(counter("droppedSoft"), 0);
    EXPECT_EQ(counter("endedQueue"), 0);
}

/* Its batch cannot be dropped, and it could hold the memory for ever. */
TEST_F(Limits, AClientThatTakesNothingOfALargeEventIsEndedUnderAnyPolicy)
{
    serve({"queue.policy=drop-oldest", "queue.soft=1000000", "queue.soft_seconds=0.2"});
    peer lazy, from;
    ASSERT_TRUE(lazy.join(daemon.port) && watch(lazy, "/large"));
    ASSERT_TRUE(from.join(daemon.port) && publish_large(from, "/large", 30000000));
    EXPECT_TRUE(process::wait_for_err(daemon, "octets are waiting for it, the soft limit is 1000000\n"))
        << daemon.errText;
    EXPECT_TRUE(lazy.hear_end());
}

TEST_F(Limits, AClientThatIsSlowWithALargeEventIsNotEnded)
{
    serve({"queue.policy=drop-oldest", "queue.soft=1000000", "queue.soft_seconds=3"});
    constexpr size_t size = 30000000;
    peer slow, from;
    ASSERT_TRUE(slow.join(daemon.port) && watch(slow, "/large"));
    ASSERT_TRUE(from.join(daemon.port) && publish_large(from, "/large", size));
    while (slow.got.size() < size / 2) {
        ASSERT_TRUE(slow.more());
        std::this_thread::sleep_for(std::chrono::milliseconds(20)); /* together more than the limit */
    }
    EXPECT_TRUE(hear_large(slow, size));
    EXPECT_FALSE(logged("ended"));
}

/* What the sockets held arrives as well, and they may take some more meanwhile. */
TEST_F(Limits, DropOldestKeepsTheClientAndTheNewestEvents)
{
    serve({"queue.policy=drop-oldest", "queue.hard=1000000"});
    peer lazy, from;
    ASSERT_TRUE(lazy.join(daemon.port) && lazy.subscribe());
    ASSERT_TRUE(from.join(daemon.port));
    ASSERT_TRUE(publish_until(from, "events dropped by the hard limit\n")) << daemon.errText;
    ASSERT_TRUE(publish(from, 200));
    int before = -1, count = 0;
    for (int number = 0; before != published - 1; before = number, count++) {
        number = next_event(lazy);
        ASSERT_GT(number, before);
    }
    EXPECT_LT(count, published);
    EXPECT_EQ(counter("droppedHard"), published - count);
}

/* The answer to a subscribe message comes through whatever waits. */
TEST_F(Limits, DropNewestKeepsTheClientAndWhatWaits)
{
    serve({"queue.policy=drop-newest", "queue.hard=1000000"});
    peer lazy, from;
    ASSERT_TRUE(lazy.join(daemon.port) && lazy.subscribe());
    ASSERT_TRUE(from.join(daemon.port));
    ASSERT_TRUE(publish_until(from, "events dropped by the hard limit\n")) << daemon.errText;
    ASSERT_TRUE(publish(from, 200));
    ASSERT_TRUE(lazy.say(wire::with(wire::subscribeEverything, "SubscriberID: 1", "SubscriberID: 2")));
    int before = -1, count = 0;
    while (lazy.hear(" HTTP/1.1\r\n").find("/event") != std::string::npos) {
        const int number = next_event(lazy);
        ASSERT_GT(number, before);
        before = number;
        count++;
    }
    EXPECT_LT(count, published);
    EXPECT_NE(lazy.hear("\r\n\r\n").find("Result: success\r\nSubscriberID: 2"), std::string::npos);
}

/* The larger queue is that of the client that wants everything. */
TEST_F(Limits, TheLongestQueuePaysForAllTogether)
{
    serve({"queue.total=20000000"});
    peer longest, shorter, from;
    ASSERT_TRUE(longest.join(daemon.port) && longest.subscribe());
    ASSERT_TRUE(shorter.join(daemon.port) &&
                shorter.subscribe(
                    wire::with(wire::subscribeEverything, "Subscription: ", "Subscription: (\"@id~=*0\")")));
    ASSERT_TRUE(from.join(daemon.port));
    EXPECT_TRUE(publish_until(from, "the longest queue while the limit of all is 20000000\n"))
        << daemon.errText;
    EXPECT_TRUE(logged("client 1 ")) << daemon.errText;
    EXPECT_TRUE(longest.hear_end());
    EXPECT_EQ(next_event(shorter), 0);
    EXPECT_EQ(next_event(shorter), 10);
    EXPECT_EQ(counter("endedQueue"), 1);
    EXPECT_GT(counter("droppedTotal"), 0);
}

struct LimitOfAll : Limits, testing::WithParamInterface<const char *> {
};

/* What is being written for a client counts too: two that read nothing keep most of what all may. */
TEST_P(LimitOfAll, IsPaidByThoseThatReadNothing)
{
    constexpr size_t size = 5000000;
    serve({"queue.total=40000000", std::string("queue.policy=") + GetParam()});
    peer first, second, reader, from;
    ASSERT_TRUE(first.join(daemon.port) && watch(first, "/first"));
    ASSERT_TRUE(second.join(daemon.port) && watch(second, "/second"));
    ASSERT_TRUE(reader.join(daemon.port) && watch(reader, "/read"));
    ASSERT_TRUE(from.join(daemon.port) && publish_large(from, "/first", 18000000) &&
                publish_large(from, "/second", 18000000));
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(process::patience);
    while (!logged("the longest queue while the limit of all is 40000000\n")) {
        ASSERT_LT(std::chrono::steady_clock::now(), end) << daemon.errText;
        ASSERT_TRUE(publish_large(from, "/read", size));
        ASSERT_TRUE(hear_large(reader, size)) << daemon.errText;
    }
    EXPECT_TRUE(logged("<4>client 1 ") || logged("<4>client 2 ")) << daemon.errText;
    EXPECT_EQ(counter("endedQueue"), 1);
    EXPECT_TRUE(publish_large(from, "/read", size) && hear_large(reader, size));
}
INSTANTIATE_TEST_SUITE_P(Policies, LimitOfAll, testing::Values("disconnect", "drop-oldest", "drop-newest"));

TEST_F(Limits, AnEventAboveTheLimitOfAllReachesWhoReads)
{
    constexpr size_t size = 12000000;
    serve({"queue.total=10000000"});
    peer reader, from;
    ASSERT_TRUE(reader.join(daemon.port) && watch(reader, "/large"));
    ASSERT_TRUE(from.join(daemon.port) && publish_large(from, "/large", size));
    EXPECT_TRUE(hear_large(reader, size)) << daemon.errText;
    EXPECT_EQ(counter("endedQueue"), 0);
}

int64_t status_kilobytes(pid_t pid, const std::string &name)
{
    std::ifstream file("/proc/" + std::to_string(pid) + "/status");
    for (std::string line; std::getline(file, line);)
        if (line.starts_with(name + ":"))
            return std::stoll(line.substr(name.size() + 1));
    return -1;
}

/* Small events are the hard case: their records are larger than what is on the wire. */
TEST_F(Limits, MemoryUnderAClientThatReadsNothingStaysWithinItsLimit)
{
    if (zebtest::addressSanitizer || zebtest::threadSanitizer)
        GTEST_SKIP() << "the sanitizer's own memory hides the daemon's";
    serve({"queue.policy=drop-oldest", "queue.hard=33554432"});
    peer lazy, from;
    ASSERT_TRUE(lazy.join(daemon.port) && lazy.subscribe());
    ASSERT_TRUE(from.join(daemon.port));
    const int64_t before = status_kilobytes(daemon.pid, "VmRSS");
    std::string batch;
    for (int i = 0; i < 100; i++)
        batch += wire::bareEvent;
    for (int i = 0; i < 3000; i++)
        ASSERT_TRUE(from.say(batch));
    ASSERT_TRUE(from.round_trip());
    EXPECT_TRUE(logged("events dropped by the hard limit\n"));
    const int64_t most = status_kilobytes(daemon.pid, "VmHWM");
    RecordProperty("kilobytesBefore", std::to_string(before));
    RecordProperty("kilobytesAtMost", std::to_string(most));
    EXPECT_GT(most - before, 16 * 1024); /* else the limit was not reached */
    EXPECT_LT(most - before, 40 * 1024);
}

/* ---- Clients that say too little ---- */

TEST_F(Limits, AClientThatDoesNotConnectIsEndedAfterAWhile)
{
    serve({"limits.connect_seconds=0.2"});
    peer silent, half, whole;
    ASSERT_TRUE(whole.join(daemon.port));
    ASSERT_TRUE(silent.dial(daemon.port));
    ASSERT_TRUE(half.dial(daemon.port) && half.say(wire::connect.substr(0, 40)));
    EXPECT_TRUE(silent.hear_end());
    EXPECT_TRUE(half.hear_end());
    EXPECT_TRUE(process::wait_for_err(daemon, "ended: it did not complete its connect in time\n"));
    EXPECT_TRUE(whole.round_trip());
    EXPECT_EQ(counter("endedTime"), 2);
}

TEST_F(Limits, AMessageThatIsNeverCompletedEndsItsClient)
{
    serve({"limits.stall_seconds=0.2"});
    peer client, idle;
    ASSERT_TRUE(idle.join(daemon.port));
    ASSERT_TRUE(client.join(daemon.port));
    ASSERT_TRUE(client.say(wire::messageEvent.substr(0, 100)));
    EXPECT_TRUE(client.hear_end());
    EXPECT_TRUE(process::wait_for_err(daemon, "ended: the rest of a message did not come in time\n"));
    EXPECT_TRUE(idle.round_trip());
}

TEST_F(Limits, ASlowSenderIsNotEnded)
{
    serve({"limits.stall_seconds=2"});
    peer client;
    ASSERT_TRUE(client.join(daemon.port) && client.subscribe());
    for (size_t at = 0; at < wire::messageEvent.size(); at += 80) {
        ASSERT_TRUE(client.say(wire::messageEvent.substr(at, 80)));
        std::this_thread::sleep_for(std::chrono::milliseconds(400)); /* together more than the limit */
    }
    EXPECT_EQ(client.hear("\r\n"), "POST /event HTTP/1.1\r\n");
}

TEST_F(Limits, TheLargestUnfinishedMessagePaysForAllTogether)
{
    serve({"limits.unfinished=3000000"});
    peer large, small, other;
    ASSERT_TRUE(large.join(daemon.port) && small.join(daemon.port) && other.join(daemon.port));
    const std::string head = wire::with(wire::bareEvent, "Content-Length: 0", "Content-Length: 60000000");
    ASSERT_TRUE(small.say(head + std::string(1000, 'x')));
    ASSERT_TRUE(large.say(head));
    large.say(std::string(5000000, 'x'));
    EXPECT_TRUE(large.hear_end());
    EXPECT_TRUE(process::wait_for_err(
        daemon, "ended: its unfinished message is the largest while the limit of all is 3000000\n"))
        << daemon.errText;
    ASSERT_TRUE(small.say("x"));
    EXPECT_TRUE(other.round_trip());
    process::poll_output(daemon);
    EXPECT_EQ(daemon.errText.find(" ended: "), daemon.errText.rfind(" ended: "));
    EXPECT_EQ(counter("endedUnfinished"), 1);
}

/* A property takes far more memory than its line has octets. */
TEST_F(Limits, UnfinishedSubscribesCountWithWhatTheyKeep)
{
    serve({"limits.unfinished=1048576"});
    std::string half = wire::with(wire::subscribeEverything, "numberOfProperties: 0\r\n\r\n",
                                  "numberOfProperties: 10000\r\n");
    for (int i = 0; i < 9999; i++)
        half += "a: \r\n";
    peer first, second, other;
    ASSERT_TRUE(first.join(daemon.port) && first.say(half));
    ASSERT_TRUE(second.join(daemon.port) && second.say(half));
    EXPECT_TRUE(process::wait_for_err(
        daemon, "ended: its unfinished message is the largest while the limit of all is 1048576\n"))
        << daemon.errText;
    EXPECT_TRUE(other.join(daemon.port) && other.round_trip());
}

/* ---- Descriptors ---- */

TEST_F(Limits, WithoutDescriptorsItServesWhomItHasAndRecovers)
{
    process::start(daemon,
                   {"/bin/sh", "-c",
                    "ulimit -n 30; exec \"$0\" --port 0 --ready-fd 3 --log-level debug --admin \"$1\"",
                    ZEBD_PATH, socket},
                   {}, true);
    daemon.port = process::ready_port(daemon);
    ASSERT_NE(daemon.port, 0);
    peer served;
    ASSERT_TRUE(served.join(daemon.port));
    std::list<peer> many(40);
    for (peer &each : many)
        ASSERT_TRUE(each.dial(daemon.port));
    ASSERT_TRUE(process::wait_for_err(daemon, "<4>cannot accept clients: Too many open files"))
        << daemon.errText;
    EXPECT_TRUE(served.round_trip());
    many.clear();
    peer late;
    EXPECT_TRUE(late.join(daemon.port));
    process::poll_output(daemon);
    size_t tries = 0; /* a loop that fails again and again would have many */
    for (size_t at = 0; (at = daemon.errText.find("cannot accept", at)) != std::string::npos; at++)
        tries++;
    EXPECT_LT(tries, 10u);
    EXPECT_GT(counter("acceptFailures"), 0);
}

/* ---- The log ---- */

TEST_F(Limits, AFloodOfOneKindOfLineIsHeldBackAndCounted)
{
    serve({"log.lines_per_second=1"});
    while (!logged(" more like it)\n")) {
        peer client;
        ASSERT_TRUE(client.dial(daemon.port) && client.say("nonsense\r\n"));
        ASSERT_TRUE(client.hear_end());
    }
    EXPECT_TRUE(logged("<4>client "));
    EXPECT_GT(counter("logSuppressed"), 0);
}

/* Standard error is a pipe that is full in the end: nobody waits for whoever should empty it. */
TEST_F(Limits, AReaderOfTheLogThatStopsHoldsUpNobody)
{
    serve({});
    int64_t lost = 0;
    for (int i = 0; i < 3000 && lost == 0; i++) {
        peer client;
        ASSERT_TRUE(client.join(daemon.port)) << i;
        if (i % 100 == 99)
            lost = counter("logLost");
    }
    EXPECT_GT(lost, 0);
    process::poll_output(daemon);
    peer late;
    ASSERT_TRUE(late.join(daemon.port));
    EXPECT_TRUE(
        process::wait_for_err(daemon, " lines are missing here: nobody took them from standard error\n"));
    EXPECT_TRUE(process::wait_for_err(daemon, "connected\n"));
}

} // namespace
