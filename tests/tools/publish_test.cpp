/* zeb pub and zeb sub beyond the plain body: JSON both ways, formats, repetition, readers that go away. */
#include "terminal.h"
#include "tool.h"

#include <algorithm>
#include <csignal>
#include <map>

namespace
{

using process::arguments;

/* ---- JSON lines in ---- */

TEST_F(Tool, JsonLinesBecomeNotifications)
{
    serve();
    process::running sub;
    subscribe(sub, {"--json", "--count", "3"});
    const process::outcome pub =
        zeb({"pub", "/standard", "--json", "-p", "all=yes", "--verbose"},
            R"({"type":"/a","component":"c","properties":{"k":"v"},"body":"x\u0000y"})"
            "\n"
            R"({"bodyBase64":"/wA=","local":true,"properties":[{"name":"n","value":""}]})"
            "\n{}");
    EXPECT_EQ(pub.code, 0) << pub.err;
    EXPECT_EQ(pub.err, "zeb: 3 notifications published\n");
    EXPECT_EQ(process::finish(sub), 0);
    const std::vector<json> got = json_lines(sub.outText);
    ASSERT_EQ(got.size(), 3U);
    EXPECT_EQ(got[0]["type"], "/a");
    EXPECT_EQ(got[0]["component"], "c");
    EXPECT_EQ(got[0]["body"], std::string("x\0y", 3));
    EXPECT_EQ(got[0]["properties"].dump(), R"([{"name":"k","value":"v"},{"name":"all","value":"yes"}])");
    EXPECT_EQ(got[1]["type"], "/standard");
    EXPECT_EQ(got[1]["bodyBase64"], "/wA=");
    EXPECT_EQ(got[1]["local"], true);
    EXPECT_EQ(got[2]["body"], "");
    EXPECT_EQ(got[2]["component"], "zeb");
}

TEST_F(Tool, WhatSubPrintsAsJsonCanBePublishedAgain)
{
    serve();
    process::running first, second;
    subscribe(first, {"\"@type=/a\"", "--json", "--count", "1"});
    EXPECT_EQ(
        zeb({"pub", "/a", "--component", "x", "-p", "k=1", "-p", "k=2", "--local"}, std::string("\xff\0", 2))
            .code,
        0);
    EXPECT_EQ(process::finish(first), 0);
    subscribe(second, {"--json", "--count", "1"});
    EXPECT_EQ(zeb({"pub", "--json"}, first.outText).code, 0);
    EXPECT_EQ(process::finish(second), 0);
    json before = json::parse(first.outText), after = json::parse(second.outText);
    for (const char *name : {"type", "component", "properties", "bodyBase64", "local"})
        EXPECT_EQ(before[name], after[name]) << name;
}

TEST_F(Tool, AWrongJsonLineIsNamedAndEndsTheRun)
{
    serve();
    for (const char *line :
         {"{", "[]", "7", R"({"type":3})", R"({"body":"a","bodyBase64":"YQ=="})", R"({"bodyBase64":"a"})",
          R"({"bodyBase64":"a?=="})", R"({"properties":7})", R"({"properties":{"a:b":"c"}})",
          R"({"properties":{"a":7}})", R"({"properties":[{"name":"a"}]})", R"({"properties":{"a":"b\nc"}})",
          R"({"local":"yes"})", R"({"type":"/a\nb"})"}) {
        const process::outcome first = zeb({"pub", "/a", "--json"}, line);
        EXPECT_EQ(first.code, 1) << line;
        const process::outcome later = zeb({"pub", "/a", "--json"}, "{}\n" + std::string(line));
        EXPECT_EQ(later.code, 5) << line;
        EXPECT_NE(later.err.find("stopped after 1 notification\n"), std::string::npos) << later.err;
    }
    EXPECT_EQ(zeb({"pub", "--json"}, "{\"body\":\"x\"}").code, 1) << "no type";
    EXPECT_EQ(zeb({"pub", "/a", "--json"}, "{}\n[]\n").err.find("zeb: line 2: an object is expected\n"), 0U);
}

/* ---- Repetition ---- */

TEST_F(Tool, RepeatedAtItsPace)
{
    serve();
    process::running sub;
    subscribe(sub, {"--body-only", "--count", "4"});
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(zeb({"pub", "/a", "--body", "x", "--repeat", "4", "--every", "150"}).code, 0);
    EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(450));
    EXPECT_EQ(process::finish(sub), 0);
    EXPECT_EQ(sub.outText, "x\nx\nx\nx\n");
}

TEST_F(Tool, ASignalEndsARepetitionAndSaysHowFarItWas)
{
    serve();
    process::running sub, pub;
    subscribe(sub, {"--body-only"});
    process::start(pub, {ZEB_PATH, "pub", "/a", "--body", "x", "--repeat", "1000", "--every", "100000"}, env);
    ASSERT_TRUE(process::wait_for_out(sub, "x\n"));
    process::send_signal(pub, SIGTERM);
    EXPECT_EQ(process::finish(pub), 5);
    EXPECT_EQ(pub.errText, "zeb: stopped after 1 notification\n");
}

TEST_F(Tool, ASignalEndsWaitingForInput)
{
    serve();
    process::running sub, pub;
    subscribe(sub, {"--body-only"});
    process::start(pub, {ZEB_PATH, "pub", "/a", "--lines"}, env);
    ASSERT_EQ(write(pub.in, "x\n", 2), 2);
    ASSERT_TRUE(process::wait_for_out(sub, "x\n"));
    process::send_signal(pub, SIGINT);
    EXPECT_TRUE(process::wait_for_err(pub, "stopped")); /* before its input ends */
    EXPECT_EQ(process::finish(pub), 5);
    EXPECT_EQ(pub.errText, "zeb: stopped after 1 notification\n");
}

/* ---- How it is printed ---- */

TEST_F(Tool, AFormatHasItsPlaceholdersReplaced)
{
    serve();
    process::running sub;
    subscribe(
        sub,
        {"--count", "2", "--format",
         R"({number}\t{{{type}} {class} {component} {local} {instance} [{properties}] {property:b}{property:no} \\ {text}|{body})"});
    EXPECT_EQ(zeb({"pub", "/a", "--component", "c", "-p", "a=1", "-p", "b=2 3", "--body", "x\ny"}).code, 0);
    EXPECT_EQ(zeb({"pub", "/b", "--component", "", "--body", "", "--local"}).code, 0);
    EXPECT_EQ(process::finish(sub), 0);
    EXPECT_EQ(sub.outText, "1\t{/a} message c false east [a=1 b=2 3] 2 3 \\ x\\ny|x\ny\n"
                           "2\t{/b} message  true east []  \\ |\n");
}

TEST_F(Tool, AWrongFormatIsRefusedBeforeAnythingIsDone)
{
    for (const char *text : {"{typ}", "{", "{}", "{type", "a{ }"}) {
        const process::outcome result = zeb({"sub", "--format", text});
        EXPECT_EQ(result.code, 1) << text;
        EXPECT_EQ(result.err.find("zeb: --format: "), 0U) << text;
    }
    EXPECT_EQ(zeb({"sub", "--format", "x", "--json"}).code, 1);
    EXPECT_EQ(zeb({"sub", "--dump", "--body-only"}).code, 1);
}

TEST_F(Tool, ADumpShowsEveryField)
{
    serve();
    process::running sub;
    subscribe(sub, {"--count", "2", "--dump"});
    EXPECT_EQ(zeb({"pub", "/a", "-p", "k=v", "--body", "text"}).code, 0);
    EXPECT_EQ(zeb({"pub", "/a"}, std::string("a\0b", 3)).code, 0);
    EXPECT_EQ(process::finish(sub), 0);
    EXPECT_EQ(sub.outText.find("NOTIFICATION "), 0U);
    for (const char *line : {"  Notification Type:    /a\n", "  Property:             k=v\n",
                             "  Body:\ntext\n", "  Body:\n    610062\n"})
        EXPECT_NE(sub.outText.find(line), std::string::npos) << line << sub.outText;
}

TEST_F(Tool, BodyBlocksAreDecodedOnRequest)
{
    serve();
    const std::string form = R"({"segments":[{"name":"s","elements":[{"name":"k","value":"v"}]}]})";
    const std::string block = zeb({"block", "encode"}, form).out;
    for (const auto &[option, expected] :
         std::map<std::string, std::string>{{"--json", "\"block\":" + form},
                                            {"--verbose", " | " + form + "\n"},
                                            {"--dump", "Seg:s\n  k=v\n"}}) {
        process::running sub;
        subscribe(sub, {"--count", "2", "--blocks", option});
        EXPECT_EQ(zeb({"pub", "/a"}, block).code, 0);
        EXPECT_EQ(zeb({"pub", "/a", "--body", "plain"}).code, 0);
        EXPECT_EQ(process::finish(sub), 0);
        EXPECT_NE(sub.outText.find(expected), std::string::npos) << option << sub.outText;
        EXPECT_NE(sub.outText.find("plain"), std::string::npos) << option << sub.outText;
    }
}

/* ---- Readers that go away, and terminals ---- */

/* The pipe's reading end is closed before anything is printed. */
TEST_F(Tool, WithoutAReaderTheRunEndsQuietly)
{
    serve();
    process::running sub;
    subscribe(sub, {"--body-only"});
    close(sub.out);
    sub.out = -1;
    const int code = process::finish(sub);
    EXPECT_EQ(code, 0);
    EXPECT_EQ(sub.errText, "zeb: subscribed\n");
}

TEST_F(Tool, ProgressIsShownOnATerminalAndWiped)
{
    serve();
    terminal screen;
    screen.start({ZEB_PATH, "pub", "/a", "--body", "x", "--repeat", "30", "--every", "30", "--verbose"}, env,
                 80);
    EXPECT_EQ(screen.finish(), 0);
    EXPECT_NE(screen.seen.find(" of 30 published"), std::string::npos) << screen.seen;
    EXPECT_EQ(screen.screen(), "zeb: 30 notifications published\n");
}

TEST_F(Tool, ProgressKeepsToTheWidthOfTheTerminal)
{
    serve();
    terminal screen;
    screen.start({ZEB_PATH, "pub", "/a", "--body", "x", "--repeat", "30", "--every", "10"}, env, 12);
    EXPECT_EQ(screen.finish(), 0);
    EXPECT_NE(screen.seen.find("1 of 30"), std::string::npos) << screen.seen;
    EXPECT_EQ(screen.widest(), 11U) << screen.seen;
    EXPECT_EQ(screen.screen(), "");
}

TEST_F(Tool, NothingOfTheProgressIsSeenWhereThereIsNoTerminal)
{
    serve();
    const process::outcome result = zeb({"pub", "/a", "--body", "x", "--repeat", "30", "--every", "10"});
    EXPECT_EQ(result.code, 0);
    EXPECT_EQ(result.out + result.err, "");
}

TEST_F(Tool, CtrlCLeavesACleanTerminalAndSaysWhatWasDone)
{
    serve();
    terminal screen;
    screen.start({ZEB_PATH, "pub", "/a", "--body", "x", "--repeat", "100000", "--every", "50"}, env, 80);
    ASSERT_TRUE(screen.wait_for("2 of 100000 published")) << screen.seen;
    screen.type("\x03");
    EXPECT_EQ(screen.finish(), 5);
    std::string left = screen.screen(); /* the terminal itself shows ^C, unless it was wiped with the line */
    left.erase(std::remove_if(left.begin(), left.end(), [](char c) { return c >= '0' && c <= '9'; }),
               left.end());
    EXPECT_TRUE(left == "zeb: stopped after  notifications\n" ||
                left == "^Czeb: stopped after  notifications\n")
        << left;
}

} // namespace
