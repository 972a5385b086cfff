/* zeb check: normal forms, errors with their place, and evaluation. */
#include "tool.h"

namespace
{

static const char event[] = R"({"type":"/app/disk/full","class":"message","component":"storage","local":false,
    "properties":[{"name":"sev","value":"3"},{"name":"tag","value":"a"},{"name":"tag","value":"b"},
                  {"name":"note","value":""}]})";

TEST_F(Tool, CheckPrintsScopeAndNormalForm)
{
    const process::outcome result = zeb({"check", "( \"b=2\" | \"a=1\" ) | \"a=1\""});
    EXPECT_EQ(result.code, 0) << result.err;
    EXPECT_EQ(result.out.find("scope: matching\nnormal form: \"a=1\"|\"b=2\"\n"), 0U) << result.out;
    EXPECT_EQ(zeb({"check", ""}).out.find("scope: everything\n"), 0U);
    EXPECT_EQ(zeb({"check", "null"}).out.find("scope: nothing\n"), 0U);
}

TEST_F(Tool, TextsOfOneMeaningHaveOneNormalForm)
{
    const auto normal = [this](const char *text) {
        return json::parse(zeb({"check", "--json", text}).out)["normal"].get<std::string>();
    };
    EXPECT_EQ(normal("\"a=1\"&\"b=2\""), normal(" (( \"b=2\" ) & \"a=1\" ) "));
    EXPECT_EQ(normal("/app/*"), normal("(\"@type~=/app/*\")"));
    EXPECT_NE(normal("\"a=1\""), normal("\"a=01\""));
}

TEST_F(Tool, AnErrorIsShownAtItsPlace)
{
    const process::outcome result = zeb({"check", "(\"sev=3\""});
    EXPECT_EQ(result.code, 3);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err.find("zeb: E_SYNTAX 8 "), 0U) << result.err;
    EXPECT_NE(result.err.find("\n  (\"sev=3\"\n          ^\n"), std::string::npos) << result.err;
}

/* The caret stands under the character, not under the octet. */
TEST_F(Tool, TheCaretCountsCharacters)
{
    const process::outcome result = zeb({"check", "(\"gr\xc3\xbc\xc3\x9f=3\"\t"});
    EXPECT_NE(result.err.find("\n  (\"gr\xc3\xbc\xc3\x9f=3\"\\x09\n               ^\n"), std::string::npos)
        << result.err;
}

TEST_F(Tool, AnErrorAsJsonHasCodeAndOffset)
{
    const process::outcome result = zeb({"check", "--json", "(\"@tpye=x\")"});
    EXPECT_EQ(result.code, 3);
    const json error = json::parse(result.out);
    EXPECT_EQ(error["valid"], false);
    EXPECT_EQ(error["code"], "E_FIELD");
    EXPECT_EQ(error["offset"], 2);
    EXPECT_NE(error["words"], "");
}

TEST_F(Tool, InterestsHaveOtherFields)
{
    EXPECT_EQ(zeb({"check", "(\"@host=h1\")"}).code, 3);
    EXPECT_EQ(zeb({"check", "(\"@host=h1\")", "--interest"}).code, 0);
    EXPECT_EQ(zeb({"check", "(\"@type=/a\")", "--interest"}).code, 3);
}

TEST_F(Tool, AnEventIsEvaluated)
{
    const std::string file = write_file(event);
    const std::vector<std::pair<const char *, bool>> expected = {
        {"", true},
        {"null", false},
        {"/app/disk/full", true},
        {"/app/*", false},
        {"/app/**", true},
        {"(\"@type~=/app/**\")&(\"sev>=3\")", true},
        {"(\"tag=a\")&(\"tag=b\")", true},
        {"(\"tag!=a\")", false},
        {"(\"note\")", true},
        {"(\"zone\")", false},
        {"!(\"zone=x\")", true},
        {"\"@class=MessageNotification\"", true},
        {"\"@local=false\"", true},
        {"\"@node\"", false},
    };
    for (const auto &[text, matches] : expected) {
        const process::outcome result = zeb({"check", text, "--event", file});
        EXPECT_EQ(result.code, matches ? 0 : 3) << text << result.err;
        EXPECT_NE(result.out.find(matches ? "matches: yes\n" : "matches: no\n"), std::string::npos) << text;
        EXPECT_EQ(json::parse(zeb({"check", text, "--json", "--event", "-"}, event).out)["matches"], matches)
            << text;
    }
}

TEST_F(Tool, WhatSubPrintsIsEvaluatedAsTheDaemonDid)
{
    serve();
    process::running sub;
    const std::string text =
        "(\"@component=storage\") & (\"sev>=3\") & \"@class=MessageNotification\" & !\"@local=true\"";
    subscribe(sub, {text, "--json", "--count", "1"});
    EXPECT_EQ(zeb({"pub", "/x", "--component", "storage", "-p", "sev=4", "--body", "b"}).code, 0);
    EXPECT_EQ(process::finish(sub), 0);
    EXPECT_EQ(zeb({"check", text, "--event", "-"}, sub.outText).code, 0);
    EXPECT_EQ(zeb({"check", "!(" + text + ")", "--event", "-"}, sub.outText).code, 3);
}

TEST_F(Tool, AMemberIsEvaluated)
{
    const char member[] = R"({"component":"calc","host":"h2","properties":{"/ZEB/RPC/SVR":"a","zone":"eu"}})";
    const auto code = [&](const char *text) {
        return zeb({"check", "--interest", text, "--event", "-"}, member).code;
    };
    EXPECT_EQ(code("(\"/ZEB/RPC/SVR=a\")"), 0);
    EXPECT_EQ(code("((\"/ZEB/RPC/SVR=b\")|(\"/ZEB/RPC/SVR=c\"))"), 3);
    EXPECT_EQ(code("(\"/ZEB/RPC/SVR\")&(\"zone=eu\")&!(\"@host=h1\")"), 0);
}

TEST_F(Tool, WhatIsNoEventIsRefused)
{
    for (const char *text : {"", "[]", "{", "7", R"({"local":"maybe"})"})
        EXPECT_EQ(zeb({"check", "/a", "--event", "-"}, text).code, 1) << text;
    EXPECT_EQ(zeb({"check", "/a", "--event", "/no/such/file"}).code, 1);
    EXPECT_EQ(zeb({"check"}).code, 1);
}

} // namespace
