/* zebd as a program, over the loopback, with clients that are bare sockets. */
#include "peer.h"
#include "process.h"
#include "wire.h"

#include <array>
#include <csignal>
#include <gtest/gtest.h>
#include <linux/sockios.h>
#include <sys/ioctl.h>
#include <thread>

namespace
{

constexpr size_t mebibyte = size_t{1024} * 1024;
constexpr size_t filling = 30 * mebibyte;

struct Server : testing::Test {
    process::zebd daemon;

    void serve(const process::arguments &options = {})
    {
        process::start_zebd(daemon, options);
        ASSERT_NE(daemon.port, 0) << daemon.errText;
    }

    std::string log()
    {
        return daemon.errText;
    }

    /* More than the sockets alone would hold waits for READER then. */
    bool fill(peer &reader, peer &from) const
    {
        const std::string length = "Content-Length: " + std::to_string(filling);
        return reader.join(daemon.port) && reader.subscribe() && from.join(daemon.port) &&
               from.say(wire::with(wire::bareEvent, "Content-Length: 0", length)) &&
               from.say(std::string(filling, 'x')) && from.round_trip();
    }
};

/* Octets that have not reached the other side. */
int unsent(const peer &from)
{
    int octets = -1;
    ioctl(from.fd, SIOCOUTQ, &octets);
    return octets;
}

/* The subscribe message of subscriber 1 with TEXT as its subscription. */
std::string subscribeTo(std::string_view text)
{
    std::string request(wire::subscribeEverything);
    const std::string line = "Subscription: ";
    const size_t at = request.find(line) + line.size();
    return request.replace(at, request.find("\r\n", at) - at, text);
}

TEST_F(Server, ListensOnBothLoopbackAddressesAndSaysSo)
{
    serve();
    peer v4, v6;
    EXPECT_TRUE(v4.join(daemon.port, AF_INET));
    EXPECT_TRUE(v6.join(daemon.port, AF_INET6));
    EXPECT_TRUE(process::wait_for_err(daemon, "<6>listening on 127.0.0.1 and ::1 port " +
                                                  std::to_string(daemon.port) + "\n"))
        << log();
}

TEST_F(Server, AnswersTheConnectWithResultThirdAndInstanceNameNinth)
{
    serve({"--instance", "east"});
    peer client;
    ASSERT_TRUE(client.dial(daemon.port));
    ASSERT_TRUE(client.say(wire::connect));
    std::array<std::string, 10> lines;
    for (std::string &line : lines)
        line = client.hear("\r\n");
    EXPECT_EQ(lines[2], "Result: success\r\n");
    EXPECT_EQ(lines[8], "instanceName: east\r\n");
    EXPECT_EQ(lines[9], "\r\n");
    EXPECT_TRUE(client.got.empty());
}

/* It gets its own events, and being gone it answers the first of them with a reset. What has reached this
 * side by then, more than two reads take, is still to be routed. */
TEST_F(Server, RoutesAllThatHasComeFromAClientThatIsGone)
{
    constexpr size_t events = 120, warming = 2000;
    serve();
    peer other;
    ASSERT_TRUE(other.join(daemon.port) && other.subscribe());
    const std::string endOfBody(1000, 'x');
    const std::string event =
        wire::with(wire::bareEvent, "Content-Length: 0", "Content-Length: 1000") + endOfBody;
    {
        peer gone;
        ASSERT_TRUE(gone.join(daemon.port));
        for (size_t i = 0; i < warming; i++) /* the kernel then makes more room for what comes from it */
            ASSERT_TRUE(gone.say(event) && other.hear(endOfBody).starts_with("POST /event"));
        ASSERT_TRUE(gone.subscribe());
        kill(daemon.pid, SIGSTOP); /* it will find everything there, and the end as well */
        bool arrived = true;
        for (size_t i = 0; i < events; i++)
            arrived = arrived && gone.say(event);
        for (int wait = 0; wait < 1000 && unsent(gone) > 0; wait++)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        arrived = arrived && unsent(gone) == 0;
        shutdown(gone.fd, SHUT_RDWR);
        kill(daemon.pid, SIGCONT);
        if (!arrived)
            GTEST_SKIP() << "sockets hold less here";
    }
    for (size_t i = 0; i < events; i++)
        ASSERT_TRUE(other.hear(endOfBody).starts_with("POST /event")) << i;
    EXPECT_TRUE(process::wait_for_err(daemon, " ended: writing failed: ")) << log();
}

TEST_F(Server, RoutesAnEventToOtherClientsAndBackToItsOwn)
{
    serve();
    peer first, second;
    ASSERT_TRUE(first.join(daemon.port) && first.subscribe());
    ASSERT_TRUE(second.join(daemon.port) && second.subscribe());
    ASSERT_TRUE(first.say(wire::messageEvent));
    for (peer *each : {&first, &second}) {
        const std::string head = each->hear("\r\ncreationTime: ");
        EXPECT_EQ(head, "POST /event HTTP/1.1\r\nclassName: MessageNotification\r\nSubscriberID: 1\r\n"
                        "eventType: /app/disk/full\r\neventId: node1:911\r\ncreationTime: ");
        const std::string created = each->hear("\r\ndeliveryTime: ");
        const std::string delivered = each->hear("\r\n");
        EXPECT_GT(std::stoll(created), 1600000000000LL);
        EXPECT_GE(std::stoll(delivered), std::stoll(created));
        const std::string_view rest =
            wire::messageEvent.substr(wire::messageEvent.find("affectedComponents"));
        EXPECT_EQ(each->hear("he\r\nl"), rest);
    }
}

TEST_F(Server, TellsOnceOfASubscriptionThatIsTriedForEveryEvent)
{
    serve();
    peer client;
    ASSERT_TRUE(client.join(daemon.port));
    ASSERT_TRUE(client.subscribe(subscribeTo("!(\"tag=a\")")));
    EXPECT_TRUE(process::wait_for_err(
        daemon, "the subscription of its subscriber 1 has to be tried for every event\n"))
        << log();
    ASSERT_TRUE(client.subscribe(subscribeTo("/a/b")));
    process::poll_output(daemon);
    EXPECT_EQ(daemon.errText.find("has to be tried"), daemon.errText.rfind("has to be tried")) << log();
}

TEST_F(Server, KeepsTheOrderOfOneClientThroughAFlood)
{
    serve();
    peer from, to;
    ASSERT_TRUE(to.join(daemon.port) && to.subscribe());
    ASSERT_TRUE(from.join(daemon.port));
    constexpr int count = 20000;
    std::string flood;
    for (int i = 0; i < count; i++)
        flood += wire::with(wire::bareEvent, "eventId: ", "eventId: " + std::to_string(i));
    ASSERT_TRUE(from.say(flood));
    for (int i = 0; i < count; i++) {
        to.hear("eventId: ");
        ASSERT_EQ(to.hear("\r\n"), std::to_string(i) + "\r\n");
    }
}

/* The socket takes what it can of a batch; the rest follows as the reader gets on. */
TEST_F(Server, BodiesOfAllSizesComeWholeAndInOrderToASlowReader)
{
    serve();
    peer from, to;
    ASSERT_TRUE(to.dial(daemon.port));
    const int small = 65536;
    setsockopt(to.fd, SOL_SOCKET, SO_RCVBUF, &small, sizeof(small));
    ASSERT_TRUE(to.say(wire::connect));
    to.hear("\r\n\r\n");
    ASSERT_TRUE(to.subscribe() && from.join(daemon.port));
    static constexpr size_t sizes[] = {0, 1, 200, 1023, 1024, 1025, 3000, 20000, 70000};
    const auto body_of = [](size_t i) {
        return std::string(sizes[i % std::size(sizes)] + i % 7, static_cast<char>('a' + i % 26));
    };
    constexpr size_t count = 1000;
    std::string flood;
    for (size_t i = 0; i < count; i++) {
        const std::string body = body_of(i);
        flood += wire::with(wire::bareEvent, "Content-Length: 0",
                            "Content-Length: " + std::to_string(body.size())) +
                 body;
    }
    ASSERT_TRUE(from.say(flood) && from.round_trip());
    for (size_t i = 0; i < count; i++) {
        const std::string body = body_of(i);
        const std::string header = to.hear("AddrList-Length: 0\r\n\r\n");
        ASSERT_EQ(header.find("POST /event "), 0U) << i;
        ASSERT_NE(header.find("\r\nContent-Length: " + std::to_string(body.size()) + "\r\n"),
                  std::string::npos)
            << i;
        while (to.got.size() < body.size())
            ASSERT_TRUE(to.more());
        ASSERT_TRUE(to.got.compare(0, body.size(), body) == 0) << i;
        to.got.erase(0, body.size());
    }
    EXPECT_EQ(to.got, "");
}

TEST_F(Server, CarriesALargeBodyUnchanged)
{
    serve();
    peer client;
    ASSERT_TRUE(client.join(daemon.port) && client.subscribe());
    std::string body(8 * mebibyte, '\0');
    for (size_t i = 0; i < body.size(); i++)
        body[i] = static_cast<char>(i * 31 % 251);
    ASSERT_TRUE(client.say(
        wire::with(wire::bareEvent, "Content-Length: 0", "Content-Length: " + std::to_string(body.size()))));
    ASSERT_TRUE(client.say(body));
    client.hear("AddrList-Length: 0\r\n\r\n");
    while (client.got.size() < body.size())
        ASSERT_TRUE(client.more());
    EXPECT_TRUE(client.got == body);
}

TEST_F(Server, EndsAClientThatBreaksTheProtocolAndNamesReasonAndClient)
{
    serve();
    peer broken, other;
    ASSERT_TRUE(other.join(daemon.port) && other.subscribe());
    ASSERT_TRUE(broken.join(daemon.port));
    ASSERT_TRUE(broken.say(wire::with(wire::bareEvent, "eventId", "eventID")));
    EXPECT_TRUE(broken.hear_end());
    EXPECT_TRUE(
        process::wait_for_err(daemon, "pid 4242) ended: line 5: 'eventID: ' instead of 'eventId: '\n"))
        << log();
    EXPECT_NE(log().find("<4>client 2 (127.0.0.1:"), std::string::npos) << log();
    ASSERT_TRUE(other.say(wire::bareEvent));
    EXPECT_EQ(other.hear("\r\n"), "POST /event HTTP/1.1\r\n");
}

TEST_F(Server, ALongProcessNumberDoesNotFillTheLog)
{
    serve();
    peer client;
    ASSERT_TRUE(client.dial(daemon.port) &&
                client.say(wire::with(wire::connect, "Pid=4242", "Pid=" + std::string(100000, '7'))));
    client.hear("\r\n\r\n");
    ASSERT_TRUE(client.say(wire::with(wire::bareEvent, "Content-Length: 0",
                                      "Content-Length: " + std::string(100000, '0') + "99999999")));
    EXPECT_TRUE(client.hear_end());
    EXPECT_TRUE(process::wait_for_err(
        daemon, ", pid 7777777777) ended: line 14: 99999999 is above the limit of 67108864\n"))
        << log().substr(0, 2000);
}

TEST_F(Server, EndsAClientThatConnectsTwice)
{
    serve();
    peer client;
    ASSERT_TRUE(client.join(daemon.port));
    ASSERT_TRUE(client.say(wire::connect));
    EXPECT_TRUE(client.hear_end());
    EXPECT_TRUE(process::wait_for_err(daemon, "ended: line 1: second connect\n")) << log();
}

TEST_F(Server, EndsAClientThatDoesNotConnectFirst)
{
    serve();
    peer client;
    ASSERT_TRUE(client.dial(daemon.port));
    ASSERT_TRUE(client.say("GET / HTTP/1.1\r\nHost: localhost\r\n\r\n"));
    EXPECT_TRUE(client.hear_end());
    EXPECT_TRUE(process::wait_for_err(daemon, "ended: line 1: 'GET / HTTP/1.1' before the connect\n"))
        << log();
}

TEST_F(Server, AnswersAnotherProtocolVersionBeforeItEndsTheClient)
{
    serve();
    peer client;
    ASSERT_TRUE(client.dial(daemon.port));
    ASSERT_TRUE(client.say(wire::with(wire::connect, "Version: 4", "Version: 9")));
    EXPECT_NE(client.hear("\r\n\r\n").find("Result: failure\r\n"), std::string::npos);
    EXPECT_TRUE(client.hear_end());
}

TEST_F(Server, ReportsAClientThatLeavesInTheMiddleOfAMessage)
{
    serve();
    peer client;
    ASSERT_TRUE(client.join(daemon.port));
    ASSERT_TRUE(client.say(wire::messageEvent.substr(0, 100)));
    client.hang_up();
    EXPECT_TRUE(process::wait_for_err(daemon, "ended: disconnected in the middle of a message\n")) << log();
}

TEST_F(Server, ForgetsTheSubscriptionsOfAClientThatLeft)
{
    serve();
    peer leaving, staying;
    ASSERT_TRUE(staying.join(daemon.port) && staying.subscribe());
    ASSERT_TRUE(leaving.join(daemon.port) && leaving.subscribe());
    leaving.hang_up();
    EXPECT_TRUE(process::wait_for_err(daemon, "<7>1 subscribers remain\n")) << log();
}

/* A client that reads nothing must neither hold up the others nor grow the daemon: it is dropped. */
TEST_F(Server, DropsAClientWhoseQueuePassesItsLimit)
{
    serve({"--max-queue", "200000"});
    peer lazy, from;
    ASSERT_TRUE(lazy.join(daemon.port) && lazy.subscribe());
    ASSERT_TRUE(from.join(daemon.port));
    const std::string body(50000, 'x');
    const std::string text = wire::with(wire::bareEvent, "Content-Length: 0", "Content-Length: 50000") + body;
    for (int i = 0; i < 2000 && log().find("octets are waiting for it") == std::string::npos; i++) {
        ASSERT_TRUE(from.say(text));
        if (i % 20 == 0) { /* a round trip, so that the daemon's log is not behind */
            ASSERT_TRUE(from.subscribe(
                wire::with(wire::subscribeEverything, "Subscription: ", "Subscription: null")));
            process::poll_output(daemon);
        }
    }
    EXPECT_NE(log().find("octets are waiting for it, the hard limit is 200000\n"), std::string::npos)
        << log();
    EXPECT_TRUE(lazy.hear_end());
    EXPECT_TRUE(from.subscribe());
}

/* The limit is on what waits, not on what has passed through. */
TEST_F(Server, KeepsAClientThatReadsHoweverMuchItGets)
{
    serve({"--max-queue", "200000"});
    peer client;
    ASSERT_TRUE(client.join(daemon.port) && client.subscribe());
    const std::string body(50000, 'x');
    for (int i = 0; i < 20; i++) {
        ASSERT_TRUE(
            client.say(wire::with(wire::bareEvent, "Content-Length: 0", "Content-Length: 50000") + body));
        ASSERT_EQ(client.hear(body).substr(0, 5), "POST ") << "event " << i;
    }
}

TEST_F(Server, RefusesABodyAboveTheLimit)
{
    serve({"--max-body", "4"});
    peer client;
    ASSERT_TRUE(client.join(daemon.port));
    ASSERT_TRUE(client.say(wire::messageEvent));
    EXPECT_TRUE(client.hear_end());
    EXPECT_TRUE(process::wait_for_err(daemon, "ended: line 16: 5 is above the limit of 4\n")) << log();
}

TEST_F(Server, RefusesClientsAboveTheLimit)
{
    serve({"--max-clients", "1"});
    peer first, second;
    ASSERT_TRUE(first.join(daemon.port));
    ASSERT_TRUE(second.dial(daemon.port));
    EXPECT_TRUE(second.hear_end());
    EXPECT_TRUE(process::wait_for_err(daemon, "ended: more than 1 clients\n")) << log();
    EXPECT_TRUE(first.subscribe());
}

/* ---- Stopping ---- */

struct Stop : Server, testing::WithParamInterface<int> {
};

TEST_P(Stop, EndsWithCode0AndClosesEveryClient)
{
    serve();
    peer client;
    ASSERT_TRUE(client.join(daemon.port) && client.subscribe());
    process::send_signal(daemon, GetParam());
    EXPECT_TRUE(client.hear_end());
    client.hang_up();
    EXPECT_EQ(process::finish(daemon), 0) << log();
    EXPECT_NE(log().find("<6>stopped\n"), std::string::npos) << log();
}

INSTANTIATE_TEST_SUITE_P(Signals, Stop, testing::Values(SIGTERM, SIGINT));

TEST_F(Server, StopsWithoutClients)
{
    serve();
    process::send_signal(daemon, SIGTERM);
    EXPECT_EQ(process::finish(daemon), 0) << log();
}

TEST_F(Server, StopDoesNotWaitForAClientThatKeepsItsSideOpen)
{
    serve({"--stop-seconds", "3600"});
    peer client;
    ASSERT_TRUE(client.join(daemon.port));
    process::send_signal(daemon, SIGTERM);
    EXPECT_EQ(process::finish(daemon), 0) << log();
}

/* What is queued when the signal comes still arrives whole. */
TEST_F(Server, StopWritesWhatIsQueued)
{
    serve();
    peer reader, from;
    ASSERT_TRUE(fill(reader, from));
    process::send_signal(daemon, SIGTERM);
    ASSERT_TRUE(process::wait_for_err(daemon, "stopping on SIGTERM")) << log();
    reader.hear("AddrList-Length: 0\r\n\r\n");
    while (reader.more()) {
    }
    EXPECT_EQ(reader.got.size(), filling);
    reader.hang_up();
    EXPECT_EQ(process::finish(daemon), 0) << log();
}

TEST_F(Server, StopGivesUpOnAClientThatReadsNothing)
{
    serve({"--stop-seconds", "0.2"});
    peer lazy, from;
    ASSERT_TRUE(fill(lazy, from));
    process::send_signal(daemon, SIGTERM);
    EXPECT_EQ(process::finish(daemon), 0) << log();
    EXPECT_NE(log().find("octets unwritten\n"), std::string::npos) << log();
}

TEST_F(Server, ASecondSignalStopsAtOnce)
{
    serve({"--stop-seconds", "3600"});
    peer lazy, from;
    ASSERT_TRUE(fill(lazy, from));
    process::send_signal(daemon, SIGTERM);
    ASSERT_TRUE(process::wait_for_err(daemon, "stopping on SIGTERM")) << log();
    process::send_signal(daemon, SIGINT);
    EXPECT_EQ(process::finish(daemon), 0) << log();
    EXPECT_NE(log().find("<4>second signal: stopping at once\n"), std::string::npos) << log();
}

TEST_F(Server, ClosesItsDoorAtOnceWhenStopping)
{
    serve({"--stop-seconds", "3600"});
    peer reader, from;
    ASSERT_TRUE(fill(reader, from));
    process::send_signal(daemon, SIGTERM);
    EXPECT_TRUE(from.hear_end()); /* so the daemon is stopping, and waits for the other one */
    peer late;
    EXPECT_FALSE(late.dial(daemon.port));
    process::send_signal(daemon, SIGTERM);
    EXPECT_EQ(process::finish(daemon), 0) << log();
    EXPECT_NE(log().find("second signal"), std::string::npos) << log();
}

/* ---- Options ---- */

process::outcome zebd(process::arguments options, const process::environment &env = {})
{
    options.insert(options.begin(), ZEBD_PATH);
    return process::run(options, "", env);
}

TEST(Options, WrongUsageEndsWithCode1)
{
    EXPECT_EQ(zebd({"--no-such-option"}).code, 1);
    EXPECT_EQ(zebd({"--port", "65536"}).code, 1);
    EXPECT_EQ(zebd({"--port", "x"}).code, 1);
    EXPECT_EQ(zebd({"--log-level", "loud"}).code, 1);
    EXPECT_EQ(zebd({"--instance", "a\nb"}).code, 1);
    EXPECT_EQ(zebd({"--port", "0", "--ready-fd", "99"}).code, 1);
}

TEST(Options, AnInvalidPortInTheEnvironmentIsRefused)
{
    for (const char *text : {"0", "-5", "abc", "65536", "12x"}) {
        const process::outcome result = zebd({}, {{"TAMBEK_ZEB_PROXY_PORT", text}});
        EXPECT_EQ(result.code, 1);
        EXPECT_EQ(result.err, "<3>TAMBEK_ZEB_PROXY_PORT: '" + std::string(text) + "' is no port\n");
    }
}

TEST(Options, HelpAndVersionEndWithCode0)
{
    EXPECT_EQ(zebd({"--help"}).code, 0);
    const process::outcome version = zebd({"--version"});
    EXPECT_EQ(version.code, 0);
    EXPECT_EQ(version.out.substr(0, 5), "zebd ");
}

TEST_F(Server, APortInUseEndsWithCode2)
{
    serve();
    const process::outcome second = zebd({"--port", std::to_string(daemon.port)});
    EXPECT_EQ(second.code, 2);
    EXPECT_EQ(second.err, "<3>cannot listen on 127.0.0.1 port " + std::to_string(daemon.port) +
                              ": Address already in use\n");
}

TEST_F(Server, TakesItsPortFromTheEnvironment)
{
    serve();
    const process::outcome second = zebd({}, {{"TAMBEK_ZEB_PROXY_PORT", std::to_string(daemon.port)}});
    EXPECT_EQ(second.code, 2);
    EXPECT_NE(second.err.find("port " + std::to_string(daemon.port)), std::string::npos) << second.err;
}

} // namespace
