/* zeb stream: what goes in comes out, octet by octet. */
#include "terminal.h"
#include "tool.h"

#include <csignal>

namespace
{

std::string every_octet(size_t count)
{
    std::string octets;
    for (size_t i = 0; i < count; i++)
        octets.push_back(static_cast<char>(i * 31 % 257));
    return octets;
}

TEST_F(Tool, AStreamArrivesOctetByOctet)
{
    serve();
    const std::string octets = every_octet(3000000);
    process::running receive;
    run_until(receive, {"stream", "receive", "/s", "--verbose"}, "zeb: subscribed\n");
    const process::outcome send = zeb({"stream", "send", "/s", "--component", "copier"}, octets);
    EXPECT_EQ(send.code, 0);
    EXPECT_EQ(send.out, "");
    EXPECT_EQ(send.err, "zeb: 3000000 octets sent\n");
    EXPECT_EQ(process::finish(receive), 0);
    EXPECT_TRUE(receive.outText == octets);
    EXPECT_EQ(receive.errText, "zeb: subscribed\nzeb: stream /s from copier\nzeb: 3000000 octets received\n");
}

TEST_F(Tool, AnEmptyStreamIsOneToo)
{
    serve();
    process::running receive;
    run_until(receive, {"stream", "receive", "/s", "--verbose"}, "zeb: subscribed\n");
    EXPECT_EQ(zeb({"stream", "send", "/s"}).code, 0);
    EXPECT_EQ(process::finish(receive), 0);
    EXPECT_EQ(receive.outText, "");
}

TEST_F(Tool, AStreamIsChosenBySubscriptionFromAFile)
{
    serve();
    process::running receive;
    run_until(receive, {"stream", "receive", "\"kind=b\"", "--verbose"}, "zeb: subscribed\n");
    EXPECT_EQ(zeb({"stream", "send", "/s", "-p", "kind=a", "--file", write_file("first")}).code, 0);
    EXPECT_EQ(zeb({"pub", "/s", "--body", "no stream", "-p", "kind=b"}).code, 0);
    EXPECT_EQ(
        zeb({"stream", "send", "/s", "-p", "kind=b", "--piece", "2", "--file", write_file("second")}).code,
        0);
    EXPECT_EQ(process::finish(receive), 0);
    EXPECT_EQ(receive.outText, "second");
}

TEST_F(Tool, StreamsEndWithTheRightCodes)
{
    EXPECT_EQ(zeb({"stream"}).code, 1);
    EXPECT_EQ(zeb({"stream", "send"}).code, 1);
    EXPECT_EQ(zeb({"stream", "send", "/s\n"}).code, 1);
    EXPECT_EQ(zeb({"stream", "send", "/s", "-p", "x"}).code, 1);
    EXPECT_EQ(zeb({"stream", "send", "/s", "--piece", "0"}).code, 1);
    EXPECT_EQ(zeb({"stream", "send", "/s", "--file", "/no/such/file"}).code, 1);
    const std::string port = std::to_string(free_port());
    EXPECT_EQ(zeb({"stream", "send", "/s", "--port", port}).code, 2);
    EXPECT_EQ(zeb({"stream", "receive", "/s", "--port", port}).code, 2);
    serve();
    EXPECT_EQ(zeb({"stream", "receive", "(\"@tpye=x\")"}).code, 3);
    EXPECT_EQ(zeb({"stream", "receive", "/s", "--timeout", "0.5"}).code, 4);
}

TEST_F(Tool, ASignalInTheMiddleOfAStreamTellsHowFarItWas)
{
    serve();
    process::running receive, send;
    run_until(receive, {"stream", "receive", "/s", "--verbose"}, "zeb: subscribed\n");
    process::start(send, {ZEB_PATH, "stream", "send", "/s"}, env);
    ASSERT_EQ(write(send.in, "hello", 5), 5);
    ASSERT_TRUE(process::wait_for_out(receive, "hello"));
    process::send_signal(receive, SIGINT);
    EXPECT_EQ(process::finish(receive), 5);
    EXPECT_NE(receive.errText.find("zeb: stopped after 5 octets\n"), std::string::npos) << receive.errText;
    process::send_signal(send, SIGTERM);
    EXPECT_TRUE(process::wait_for_err(send, "stopped")); /* before its input ends */
    EXPECT_EQ(process::finish(send), 5);
    EXPECT_EQ(send.errText, "zeb: stopped after 5 octets\n");
}

/* One stream on its way, of which "hello" has arrived. */
struct StreamUnderWay : Tool {
    process::running send, receive;

    void SetUp() override
    {
        Tool::SetUp();
        serve();
        run_until(receive, {"stream", "receive", "/s", "--verbose"}, "zeb: subscribed\n");
        process::start(send, {ZEB_PATH, "stream", "send", "/s"}, env);
        ASSERT_EQ(write(send.in, "hello", 5), 5);
        ASSERT_TRUE(process::wait_for_out(receive, "hello"));
    }

    void expect_cut(process::running &child)
    {
        ASSERT_TRUE(process::wait_for_err(child, "octets\n")) << child.errText; /* its input is open */
        EXPECT_EQ(process::finish(child), 5);
        EXPECT_TRUE(child.errText.ends_with("zeb: the daemon is gone\nzeb: stopped after 5 octets\n"))
            << child.errText;
    }
};

TEST_F(StreamUnderWay, EndsOnBothSidesWhenTheDaemonIsGone)
{
    process::send_signal(daemon, SIGKILL);
    expect_cut(receive);
    expect_cut(send);
}

TEST_F(StreamUnderWay, EndsOnBothSidesWhenAnotherDaemonHasTakenItsPlace)
{
    process::send_signal(daemon, SIGKILL);
    process::finish(daemon);
    process::zebd next;
    process::start_zebd(next, {}, {}, daemon.port);
    ASSERT_NE(next.port, 0) << next.errText;
    expect_cut(receive);
    expect_cut(send);
}

TEST_F(Tool, AStreamThatHasArrivedIsWholeEvenWhenTheDaemonIsGone)
{
    serve();
    const std::string octets = every_octet(3000000);
    process::running receive;
    run_until(receive, {"stream", "receive", "/s", "--verbose"}, "zeb: subscribed\n");
    EXPECT_EQ(zeb({"stream", "send", "/s"}, octets).code, 0);
    process::send_signal(daemon, SIGTERM); /* it hands out what it has; the receiver waits for us to read */
    EXPECT_EQ(process::finish(daemon), 0);
    EXPECT_EQ(process::finish(receive), 0) << receive.errText;
    EXPECT_TRUE(receive.outText == octets);
}

TEST_F(Tool, AStreamIsWaitedForAcrossAnotherDaemon)
{
    serve();
    process::running receive;
    run_until(receive, {"stream", "receive", "/s", "--verbose"}, "zeb: subscribed\n");
    process::send_signal(daemon, SIGKILL);
    process::finish(daemon);
    process::zebd next;
    process::start_zebd(next, {}, {}, daemon.port);
    ASSERT_NE(next.port, 0) << next.errText;
    process::running members;
    process::start(members, {ZEB_PATH, "members", "--watch"}, env);
    ASSERT_TRUE(process::wait_for_out(members, "+ ")); /* the receiver is back */
    EXPECT_EQ(zeb({"stream", "send", "/s"}, "hello").code, 0);
    EXPECT_EQ(process::finish(receive), 0) << receive.errText;
    EXPECT_EQ(receive.outText, "hello");
}

TEST_F(Tool, AStreamShowsItsProgressOnATerminal)
{
    serve();
    terminal screen;
    const std::string file = write_file(std::string(20000000, 'x'));
    screen.start({ZEB_PATH, "stream", "send", "/s", "--file", file}, env, 60);
    EXPECT_EQ(screen.finish(), 0);
    EXPECT_NE(screen.seen.find(" MB sent, "), std::string::npos) << screen.seen;
    EXPECT_EQ(screen.screen(), "zeb: 20000000 octets sent\n");
}

} // namespace
