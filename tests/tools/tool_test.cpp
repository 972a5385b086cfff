/* zeb as a program: what it prints, octet by octet, and the code it ends with. */
#include "peer.h"
#include "tool.h"
#include "wire.h"

#include <chrono>
#include <csignal>

namespace
{

/* ---- Usage ---- */

TEST_F(Tool, WrongUsageEndsWithCode1AndPrintsNothing)
{
    const std::vector<process::arguments> wrong = {
        {},
        {"no-such-verb"},
        {"pub"},
        {"pub", "/a", "extra"},
        {"pub", "/a", "--body", "x", "--file", "y"},
        {"pub", "/a", "--body", "x", "--lines"},
        {"pub", "/a", "--body", "x", "-p", "novalue"},
        {"pub", "/a", "--body", "x", "-p", "=v"},
        {"pub", "/a", "--body", "x", "-p", "a:b=v"},
        {"pub", "/a", "--body", "x", "-p", "a=v\nw"},
        {"pub", "/a\n", "--body", "x"},
        {"pub", "/a", "--body", "x", "--component", "c\r"},
        {"pub", "/a", "--file", "/no/such/file"},
        {"sub", "--count", "0"},
        {"sub", "--count", "many"},
        {"sub", "a\nb"},
        {"status", "--port", "0"},
        {"status", "--port", "65536"},
        {"status", "--timeout", "-1"},
    };
    for (const process::arguments &command : wrong) {
        const process::outcome result = zeb(command);
        EXPECT_EQ(result.code, 1) << shown(command);
        EXPECT_EQ(result.out, "") << shown(command);
        EXPECT_NE(result.err, "") << shown(command);
    }
}

TEST_F(Tool, HelpAndVersionEndWithCode0)
{
    EXPECT_EQ(zeb({"--help"}).code, 0);
    EXPECT_EQ(zeb({"pub", "--help"}).code, 0);
    EXPECT_EQ(zeb({"--version"}).out.substr(0, 4), "zeb ");
}

TEST_F(Tool, AnInvalidPortInTheEnvironmentIsRefused)
{
    for (const char *text : {"0", "-5", "abc", "65536"}) {
        env["TAMBEK_ZEB_PROXY_PORT"] = text;
        const process::outcome result = zeb({"status"});
        EXPECT_EQ(result.code, 1);
        EXPECT_EQ(result.err, "zeb: TAMBEK_ZEB_PROXY_PORT: '" + std::string(text) + "' is no port\n");
    }
}

/* ---- No daemon ---- */

TEST_F(Tool, WithoutADaemonEveryVerbEndsWithCode2AtOnce)
{
    const uint16_t port = free_port();
    env["TAMBEK_ZEB_PROXY_PORT"] = std::to_string(port);
    const auto begin = std::chrono::steady_clock::now();
    for (const process::arguments &command :
         {process::arguments{"status"}, {"pub", "/a", "--body", "x"}, {"pub", "/a", "--lines"}, {"sub"}}) {
        const process::outcome result = zeb(command);
        EXPECT_EQ(result.code, 2) << command[0];
        EXPECT_EQ(result.err, "zeb: no daemon on port " + std::to_string(port) + "\n");
    }
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(4));
}

TEST_F(Tool, StatusOfAnAbsentDaemonIsStillAResult)
{
    const std::string port = std::to_string(free_port());
    EXPECT_EQ(zeb({"status", "--port", port}).out, "daemon: not reachable\nport: " + port + "\n");
    EXPECT_EQ(zeb({"status", "--json", "--port", port}).out, "{\"reachable\":false,\"port\":" + port + "}\n");
}

TEST_F(Tool, TheDefaultPortIs9320)
{
    const json status = json::parse(zeb({"status", "--json"}).out);
    EXPECT_EQ(status["port"], 9320);
}

TEST_F(Tool, TheTimeLimitEndsTheRunWithCode4)
{
    const silent_listener listener;
    env["TAMBEK_ZEB_PROXY_PORT"] = std::to_string(listener.port);
    for (const process::arguments &command : {process::arguments{"status", "--timeout", "0.3"},
                                              {"pub", "/a", "--body", "x", "--timeout", "0.3"},
                                              {"--timeout", "0.3", "sub"}}) {
        const process::outcome result = zeb(command);
        EXPECT_EQ(result.code, 4) << command[0];
        EXPECT_EQ(result.out, "");
        EXPECT_EQ(result.err, "zeb: time is over\n");
    }
}

/* ---- Status ---- */

TEST_F(Tool, StatusNamesTheInstanceAndThePort)
{
    serve();
    const std::string port = std::to_string(daemon.port);
    const process::outcome plain = zeb({"status"});
    EXPECT_EQ(plain.code, 0);
    EXPECT_EQ(plain.out, "daemon: reachable\nport: " + port + "\ninstance: east\n");
    EXPECT_EQ(plain.err, "");
    EXPECT_EQ(zeb({"status", "--json"}).out,
              "{\"reachable\":true,\"port\":" + port + ",\"instance\":\"east\"}\n");
}

TEST_F(Tool, ThePortOptionComesBeforeTheEnvironment)
{
    serve();
    env["TAMBEK_ZEB_PROXY_PORT"] = std::to_string(free_port());
    EXPECT_EQ(zeb({"status"}).code, 2);
    EXPECT_EQ(zeb({"status", "--port", std::to_string(daemon.port)}).code, 0);
}

TEST_F(Tool, WorksWithoutAnyHome)
{
    serve();
    env["HOME"] = "";
    EXPECT_EQ(zeb({"status"}).code, 0);
}

/* ---- Publishing and subscribing ---- */

TEST_F(Tool, ABodyFromTheCommandLineArrives)
{
    serve();
    process::running sub;
    subscribe(sub, {"--count", "1", "--body-only"});
    const process::outcome pub = zeb({"pub", "/a", "--body", "hello"});
    EXPECT_EQ(pub.code, 0);
    EXPECT_EQ(pub.out + pub.err, "");
    EXPECT_EQ(process::finish(sub), 0);
    EXPECT_EQ(sub.outText, "hello\n");
}

TEST_F(Tool, StandardInputIsTheBodyWhole)
{
    serve();
    process::running sub;
    subscribe(sub, {"--count", "1", "--body-only"});
    std::string body;
    for (int i = 0; i < 300000; i++)
        body.push_back(static_cast<char>(i * 7 % 256));
    EXPECT_EQ(zeb({"pub", "/a"}, body).code, 0);
    EXPECT_EQ(process::finish(sub), 0);
    EXPECT_TRUE(sub.outText == body + "\n");
}

TEST_F(Tool, AFileIsTheBodyWhole)
{
    serve();
    process::running sub;
    subscribe(sub, {"--count", "1", "--body-only"});
    const std::string body("first\nsecond\0third", 18);
    EXPECT_EQ(zeb({"pub", "/a", "--file", write_file(body)}).code, 0);
    EXPECT_EQ(process::finish(sub), 0);
    EXPECT_EQ(sub.outText, body + "\n");
}

TEST_F(Tool, EachLineIsANotificationInItsOrder)
{
    serve();
    process::running sub;
    subscribe(sub, {"--count", "1003", "--body-only"});
    std::string lines = "first\n\n";
    for (int i = 0; i < 1000; i++)
        lines += "line " + std::to_string(i) + "\n";
    EXPECT_EQ(zeb({"pub", "/a", "--lines"}, lines + "the last one has no end").code, 0);
    EXPECT_EQ(process::finish(sub), 0);
    EXPECT_EQ(sub.outText, lines + "the last one has no end\n");
}

TEST_F(Tool, AReadableLineHasTimeTypeComponentPropertiesAndBody)
{
    serve();
    process::running sub;
    subscribe(sub, {"--count", "2"});
    EXPECT_EQ(zeb({"pub", "/app/disk", "--component", "storage", "-p", "sev=3", "-p", "tag=a", "-p",
                   "tag=b=c", "--body", "two\nlines\t\\ gr\xc3\xbc\xc3\x9f \xff"})
                  .code,
              0);
    EXPECT_EQ(zeb({"pub", "/bare", "--component", ""}).code, 0);
    EXPECT_EQ(process::finish(sub), 0);
    const size_t second = sub.outText.find('\n') + 1;
    ASSERT_GT(sub.outText.size(), second + 20);
    EXPECT_EQ(sub.outText.substr(20, second - 20),
              " /app/disk storage sev=3 tag=a tag=b=c | two\\nlines\\x09\\\\ gr\xc3\xbc\xc3\x9f \\xff\n");
    EXPECT_EQ(sub.outText.substr(second + 20), " /bare -\n");
    EXPECT_EQ(sub.outText[4], '-');
    EXPECT_EQ(sub.outText[10], 'T');
    EXPECT_EQ(sub.outText[19], 'Z');
}

TEST_F(Tool, JsonIsOneObjectALine)
{
    serve();
    process::running sub;
    subscribe(sub, {"--json", "--count", "2"});
    EXPECT_EQ(zeb({"pub", "/a", "--local", "-p", "k=v", "-p", "k=\"w\"", "--body", "te\nxt"}).code, 0);
    EXPECT_EQ(zeb({"pub", "/b"}, std::string("\xff\x00z", 3)).code, 0);
    EXPECT_EQ(process::finish(sub), 0);
    const size_t second = sub.outText.find('\n') + 1;
    const json first = json::parse(sub.outText.substr(0, second));
    EXPECT_EQ(first["type"], "/a");
    EXPECT_EQ(first["class"], "message");
    EXPECT_EQ(first["component"], "zeb");
    EXPECT_EQ(first["instance"], "east");
    EXPECT_EQ(first["local"], true);
    EXPECT_EQ(first["body"], "te\nxt");
    EXPECT_EQ(first["properties"].dump(), R"([{"name":"k","value":"v"},{"name":"k","value":"\"w\""}])");
    EXPECT_GT(first["created"].get<int64_t>(), 1600000000);
    EXPECT_GE(first["delivered"].get<int64_t>(), first["created"].get<int64_t>());
    EXPECT_FALSE(first.contains("bodyBase64"));
    const json other = json::parse(sub.outText.substr(second));
    EXPECT_EQ(other["bodyBase64"], "/wB6");
    EXPECT_EQ(other["local"], false);
    EXPECT_FALSE(other.contains("body"));
}

TEST_F(Tool, Base64IsPaddedToFours)
{
    serve();
    process::running sub;
    subscribe(sub, {"--json", "--count", "3"});
    for (const std::string body : {"\xff", "\xff\xfe", "\xff\xfe\xfd"})
        EXPECT_EQ(zeb({"pub", "/b", "--file", write_file(body)}).code, 0);
    EXPECT_EQ(process::finish(sub), 0);
    for (const char *text : {"\"/w==\"", "\"//4=\"", "\"//79\""})
        EXPECT_NE(sub.outText.find(text), std::string::npos) << text << sub.outText;
}

TEST_F(Tool, OnlyWhatTheSubscriptionAsksForIsPrinted)
{
    serve();
    process::running sub;
    subscribe(sub, {"(\"@type~=/app/**\")&(\"sev>=3\")", "--body-only", "--count", "1"});
    EXPECT_EQ(zeb({"pub", "/app/x", "-p", "sev=2", "--body", "too low"}).code, 0);
    EXPECT_EQ(zeb({"pub", "/else", "-p", "sev=9", "--body", "elsewhere"}).code, 0);
    EXPECT_EQ(zeb({"pub", "/app/y", "-p", "sev=3", "--body", "this one"}).code, 0);
    EXPECT_EQ(process::finish(sub), 0);
    EXPECT_EQ(sub.outText, "this one\n");
}

/* The pieces behind the head are of no interest here and must not pile up unread. */
TEST_F(Tool, OfAStreamOnlyTheHeadIsPrinted)
{
    serve();
    process::running sub;
    subscribe(sub, {"--json", "--count", "2"});
    peer client;
    ASSERT_TRUE(client.join(daemon.port));
    for (int i = 0; i < 3; i++)
        ASSERT_TRUE(client.say(wire::streamPiece));
    ASSERT_TRUE(client.say(wire::with(wire::streamPiece, "Content-Length: 3\r\nAddrList-Length: 0\r\n\r\nabc",
                                      "Content-Length: 0\r\nAddrList-Length: 0\r\n\r\n")));
    ASSERT_TRUE(client.say(wire::messageEvent));
    EXPECT_EQ(process::finish(sub), 0);
    const size_t second = sub.outText.find('\n') + 1;
    EXPECT_EQ(json::parse(sub.outText.substr(0, second))["class"], "stream");
    EXPECT_EQ(json::parse(sub.outText.substr(second))["class"], "message");
}

TEST_F(Tool, ARefusedSubscriptionEndsWithCode3AndTheReason)
{
    serve();
    const process::outcome result = zeb({"sub", "(\"@tpye=x\")"});
    EXPECT_EQ(result.code, 3);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err, "zeb: refused: E_FIELD 2 no such field here (subscription)\n");
}

TEST_F(Tool, AfterItsTimeASubscriptionIsDone)
{
    serve();
    const auto begin = std::chrono::steady_clock::now();
    const process::outcome result = zeb({"sub", "--for", "0.4"});
    const auto took = std::chrono::steady_clock::now() - begin;
    EXPECT_EQ(result.code, 0);
    EXPECT_EQ(result.out + result.err, "");
    EXPECT_GE(took, std::chrono::milliseconds(400));
    EXPECT_LT(took, std::chrono::milliseconds(3000));
}

TEST_F(Tool, LessThanTheCountIsTimeOutOrPartlyDone)
{
    serve();
    const process::outcome none = zeb({"sub", "--for", "0.2", "--count", "1"});
    EXPECT_EQ(none.code, 4);
    EXPECT_EQ(none.err, "zeb: 0 of 1 notifications came\n");

    process::running sub;
    subscribe(sub, {"--for", "3", "--count", "2", "--body-only"});
    EXPECT_EQ(zeb({"pub", "/a", "--body", "one"}).code, 0);
    EXPECT_EQ(process::finish(sub), 5);
    EXPECT_EQ(sub.outText, "one\n");
}

TEST_F(Tool, ASignalEndsASubscriptionInGoodOrder)
{
    serve();
    process::running sub;
    subscribe(sub, {"--body-only"});
    EXPECT_EQ(zeb({"pub", "/a", "--body", "one"}).code, 0);
    ASSERT_TRUE(process::wait_for_out(sub, "one\n"));
    process::send_signal(sub, SIGINT);
    EXPECT_EQ(process::finish(sub), 0);
    EXPECT_EQ(sub.outText, "one\n");
}

/* What a run has printed when its limit comes stays, in whole lines. */
TEST_F(Tool, TheTimeLimitLeavesWhatWasPrinted)
{
    serve();
    process::running sub;
    subscribe(sub, {"--body-only", "--count", "2", "--timeout", "2"});
    EXPECT_EQ(zeb({"pub", "/a", "--body", "one"}).code, 0);
    EXPECT_EQ(process::finish(sub), 4);
    EXPECT_EQ(sub.outText, "one\n");
}

TEST_F(Tool, ASubscriptionSurvivesARestartOfTheDaemon)
{
    serve();
    process::running sub;
    subscribe(sub, {"--body-only", "--count", "2"});
    EXPECT_EQ(zeb({"pub", "/a", "--body", "before"}).code, 0);
    ASSERT_TRUE(process::wait_for_out(sub, "before\n"));
    process::send_signal(daemon, SIGTERM);
    ASSERT_EQ(process::finish(daemon), 0);

    process::running again;
    process::start(
        again, {ZEBD_PATH, "--log-level", "debug", "--port", std::to_string(daemon.port), "--ready-fd", "3"},
        env, true);
    ASSERT_TRUE(process::wait_for_err(again, "listening on")) << again.errText;
    ASSERT_TRUE(process::wait_for_err(again, "1 subscribers in all")) << again.errText;
    EXPECT_EQ(zeb({"pub", "/a", "--body", "after"}).code, 0);
    EXPECT_EQ(process::finish(sub), 0);
    EXPECT_EQ(sub.outText, "before\nafter\n");
}

} // namespace
