/* zeb members, call, serve and state: subscribers that know of each other. */
#include "tool.h"

#include <algorithm>
#include <csignal>
#include <sys/stat.h>

namespace
{

using process::arguments;

struct Group : Tool {
    /* Serves functions in the background. */
    void offer(process::running &server, arguments command)
    {
        command.insert(command.begin(), {"serve", "--verbose"});
        run_until(server, command, "zeb: serving ");
    }

    /* The address key of the member that has a property. */
    std::string key_of(const std::string &interest)
    {
        const std::vector<json> members = json_lines(zeb({"members", interest, "--json"}).out);
        return members.size() == 1 ? members[0].value("key", "") : "";
    }
};

/* ---- Members ---- */

TEST_F(Group, MembersAreListedOldestFirst)
{
    serve();
    process::running first, second;
    run_until(first,
              {"state", "keep", "-p", "group=a", "-p", "zone=eu", "--body", "x", "--component", "one", "-v"},
              "zeb: keeping ");
    run_until(second, {"state", "keep", "-p", "group=a", "--body", "x", "--component", "two", "-v"},
              "zeb: keeping ");
    const process::outcome plain = zeb({"members", "(\"group=a\")"});
    EXPECT_EQ(plain.code, 0) << plain.err;
    EXPECT_EQ(plain.err, "");
    const std::vector<json> members = json_lines(zeb({"members", "(\"group=a\")", "--json"}).out);
    ASSERT_EQ(members.size(), 2U) << plain.out;
    EXPECT_EQ(members[0]["component"], "one");
    EXPECT_EQ(members[0]["instance"], "east");
    EXPECT_EQ(members[0]["properties"].dump(),
              R"([{"name":"group","value":"a"},{"name":"zone","value":"eu"}])");
    EXPECT_EQ(members[1]["component"], "two");
    EXPECT_NE(members[0]["key"], members[1]["key"]);
    EXPECT_NE(plain.out.find(members[0]["key"].get<std::string>() + " one "), std::string::npos) << plain.out;
    EXPECT_NE(plain.out.find(" group=a zone=eu\n"), std::string::npos) << plain.out;
    EXPECT_EQ(zeb({"members", "(\"zone=eu\")", "--json"}).out.find("two"), std::string::npos);
    const process::outcome nobody = zeb({"members", "(\"group=none\")"});
    EXPECT_EQ(nobody.code, 0) << nobody.err;
    EXPECT_EQ(nobody.out, "");
}

TEST_F(Group, WatchingShowsWhoComesAndGoes)
{
    serve();
    process::running there, watch;
    run_until(there, {"state", "keep", "-p", "group=a", "--body", "x", "--component", "old", "-v"},
              "zeb: keeping ");
    process::start(watch, {ZEB_PATH, "members", "(\"group=a\")", "--watch", "--json"}, env);
    ASSERT_TRUE(process::wait_for_out(watch, "\"old\""));
    {
        process::running comes;
        run_until(comes, {"state", "keep", "-p", "group=a", "--body", "x", "--component", "new", "-v"},
                  "zeb: keeping ");
        ASSERT_TRUE(process::wait_for_out(watch, "\"new\""));
    }
    ASSERT_TRUE(process::wait_for_out(watch, "\"leave\""));
    process::send_signal(watch, SIGINT);
    EXPECT_EQ(process::finish(watch), 0);
    const std::vector<json> seen = json_lines(watch.outText);
    ASSERT_EQ(seen.size(), 3U) << watch.outText;
    EXPECT_EQ(seen[0]["event"], "join");
    EXPECT_EQ(seen[1]["event"], "join");
    EXPECT_EQ(seen[2]["event"], "leave");
    EXPECT_EQ(seen[1]["key"], seen[2]["key"]);
}

TEST_F(Group, MembersEndWithTheRightCodes)
{
    const std::string port = std::to_string(free_port());
    EXPECT_EQ(zeb({"members", "--port", port}).err, "zeb: no daemon on port " + port + "\n");
    EXPECT_EQ(zeb({"members", "--port", port}).code, 2);
    EXPECT_EQ(zeb({"members", "a\nb"}).code, 1);
    serve();
    const process::outcome refused = zeb({"members", "(\"@tpye=x\")"});
    EXPECT_EQ(refused.code, 3);
    EXPECT_EQ(refused.err.find("zeb: refused: E_FIELD 2 "), 0U) << refused.err;
    EXPECT_EQ(zeb({"members", "--watch", "--for", "0.3"}).code, 0);
    process::running watch;
    run_until(watch, {"members", "--watch", "--verbose"}, "zeb: watching\n");
    process::send_signal(daemon, SIGKILL);
    EXPECT_EQ(process::finish(watch), 2);
    EXPECT_NE(watch.errText.find("zeb: the daemon is gone\n"), std::string::npos) << watch.errText;
}

TEST_F(Group, AnEventGoesToOneAddressOnly)
{
    serve();
    process::running one, two;
    subscribe(one, {"null", "--body-only", "--count", "1", "--component", "one"});
    subscribe(two, {"", "--body-only", "--component", "two"});
    const std::string key = key_of("(\"@component=one\")");
    ASSERT_NE(key, "");
    const process::outcome pub = zeb({"pub", "/a", "--body", "for one", "--to", key});
    EXPECT_EQ(pub.code, 0) << pub.err;
    EXPECT_EQ(process::finish(one), 0);
    EXPECT_EQ(one.outText, "for one\n");
    EXPECT_EQ(zeb({"pub", "/a", "--body", "for all"}).code, 0);
    EXPECT_TRUE(process::wait_for_out(two, "for all\n"));
    EXPECT_EQ(two.outText, "for all\n");
    EXPECT_EQ(zeb({"pub", "/a", "--body", "x", "--to", key}).code, 3) << "it is gone";
}

/* ---- Remote calls ---- */

TEST_F(Group, ACallReturnsWhatTheCommandWrites)
{
    serve();
    process::running server;
    offer(server, {"shouter", "--function", "upper=tr a-z A-Z", "--function", "name=echo $ZEB_FUNCTION"});
    const process::outcome result = zeb({"call", "shouter", "upper", "--body", "hello"});
    EXPECT_EQ(result.code, 0) << result.err;
    EXPECT_EQ(result.out, "HELLO");
    EXPECT_EQ(result.err, "");
    EXPECT_EQ(zeb({"call", "shouter", "name"}).out, "name\n");
    process::send_signal(server, SIGINT);
    EXPECT_EQ(process::finish(server), 0);
}

TEST_F(Group, ArgumentAndResultAreAnyOctets)
{
    serve();
    process::running server;
    offer(server, {"mirror", "--function", "cat=cat"});
    std::string octets;
    for (int i = 0; i < 300000; i++)
        octets.push_back(static_cast<char>(i * 7 % 256));
    const process::outcome fromFile = zeb({"call", "mirror", "cat", "--file", write_file(octets)});
    EXPECT_EQ(fromFile.code, 0) << fromFile.err;
    EXPECT_TRUE(fromFile.out == octets);
    const json line =
        json::parse(zeb({"call", "mirror", "cat", "--file", "-", "--json"}, std::string("\xff\0", 2)).out);
    EXPECT_EQ(line["kind"], "result");
    EXPECT_EQ(line["bodyBase64"], "/wA=");
    EXPECT_EQ(line["server"]["properties"].dump(), R"([{"name":"/ZEB/RPC/SVR","value":"mirror"}])");
}

TEST_F(Group, ProgressComesBeforeTheResult)
{
    serve();
    process::running server;
    offer(server, {"worker", "--progress-lines", "--function",
                   "work=echo 10% >&2; echo 50% >&2; printf last >&2; echo done"});
    const process::outcome plain = zeb({"call", "worker", "work"});
    EXPECT_EQ(plain.code, 0);
    EXPECT_EQ(plain.out, "done\n");
    EXPECT_EQ(plain.err, "zeb: progress: 10%\nzeb: progress: 50%\nzeb: progress: last\n");
    const std::vector<json> lines = json_lines(zeb({"call", "worker", "work", "--json"}).out);
    ASSERT_EQ(lines.size(), 4U);
    EXPECT_EQ(lines[0]["kind"], "progress");
    EXPECT_EQ(lines[0]["body"], "10%");
    EXPECT_EQ(lines[3]["kind"], "result");
}

TEST_F(Group, ErrorsEndWithCode3)
{
    serve();
    process::running server;
    offer(server, {"failing", "--function", "fail=exit 7", "--function", "killed=kill -9 $$"});
    const process::outcome failed = zeb({"call", "failing", "fail"});
    EXPECT_EQ(failed.code, 3);
    EXPECT_EQ(failed.out, "");
    EXPECT_EQ(failed.err, "zeb: error 7: the command of 'fail' ended with exit status 7\n");
    EXPECT_EQ(zeb({"call", "failing", "killed"}).err,
              "zeb: error 137: the command of 'killed' ended with exit status 137\n");
    EXPECT_EQ(zeb({"call", "failing", "nothing"}).err, "zeb: error -3: the server has no such function\n");
    const json line = json::parse(zeb({"call", "failing", "fail", "--json"}).out);
    EXPECT_EQ(line["kind"], "error");
    EXPECT_EQ(line["code"], 7);
}

TEST_F(Group, AllServersOfANameAreCalled)
{
    serve();
    process::running first, second;
    offer(first, {"twin", "--component", "first", "--function", "who=printf 1"});
    offer(second, {"twin", "--component", "second", "--function", "who=printf 2"});
    EXPECT_EQ(zeb({"call", "twin", "who"}).out, "1") << "the oldest";
    const process::outcome all = zeb({"call", "twin", "who", "--all"});
    EXPECT_EQ(all.code, 0) << all.err;
    EXPECT_NE(all.out.find("first on "), std::string::npos);
    EXPECT_NE(all.out.find(": 2\n"), std::string::npos);
    EXPECT_EQ(std::count(all.out.begin(), all.out.end(), '\n'), 2);
}

TEST_F(Group, SomeErrorsAmongAllArePartlyDone)
{
    serve();
    process::running good, bad;
    offer(good, {"pair", "--function", "f=printf fine"});
    offer(bad, {"pair", "--function", "f=exit 1"});
    const process::outcome result = zeb({"call", "pair", "f", "--all"});
    EXPECT_EQ(result.code, 5);
    EXPECT_NE(result.out.find("fine"), std::string::npos);
    EXPECT_NE(result.err.find("error 1"), std::string::npos);
}

TEST_F(Group, WithoutAServerTheWaitHasAnEnd)
{
    serve();
    const process::outcome result = zeb({"call", "nobody", "f", "--wait", "0.3"});
    EXPECT_EQ(result.code, 4);
    EXPECT_EQ(result.err, "zeb: no server is called 'nobody'\n");
}

TEST_F(Group, AServerThatAppearsIsWaitedFor)
{
    serve();
    process::running call, server;
    process::start(call, {ZEB_PATH, "call", "late", "f", "--wait", "20"}, env);
    offer(server, {"late", "--function", "f=printf here"});
    EXPECT_EQ(process::finish(call), 0) << call.errText;
    EXPECT_EQ(call.outText, "here");
}

/* A function that runs ends the call when its server goes; the command is ended as well. */
TEST_F(Group, AServerThatIsToldToStopEndsWhatRuns)
{
    serve();
    process::running server, call;
    offer(server, {"slow", "--progress-lines", "--function", "f=echo begun >&2; exec sleep 1000"});
    process::start(call, {ZEB_PATH, "call", "slow", "f"}, env);
    ASSERT_TRUE(process::wait_for_err(call, "begun"));
    process::send_signal(server, SIGTERM);
    EXPECT_EQ(process::finish(call), 3) << call.errText;
    EXPECT_EQ(process::finish(server), 0);
}

TEST_F(Group, ASignalEndsACall)
{
    serve();
    process::running server, call;
    offer(server, {"slow", "--progress-lines", "--function", "f=echo begun >&2; exec sleep 30"});
    process::start(call, {ZEB_PATH, "call", "slow", "f"}, env);
    ASSERT_TRUE(process::wait_for_err(call, "begun"));
    process::send_signal(call, SIGINT);
    EXPECT_EQ(process::finish(call), 5);
    EXPECT_NE(call.errText.find("stopped with 1 of 1 answer missing"), std::string::npos) << call.errText;
    process::send_signal(server, SIGTERM);
    process::finish(server);
}

TEST_F(Group, CallsAtTheSameTime)
{
    serve();
    const std::string pipe = directory + "/meet";
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
    process::running server, first;
    offer(server,
          {"meeting", "--parallel", "--function", "read=cat " + pipe, "--function", "write=cat > " + pipe});
    process::start(first, {ZEB_PATH, "call", "meeting", "read"}, env);
    EXPECT_EQ(zeb({"call", "meeting", "write", "--body", "met"}).code, 0);
    EXPECT_EQ(process::finish(first), 0);
    EXPECT_EQ(first.outText, "met");
}

TEST_F(Group, WrongServersAreRefusedWithTheReason)
{
    const std::string reason = "zeb: the name of a server cannot hold '\"': clients could not ask for it\n";
    EXPECT_EQ(zeb({"serve", "a\"b", "--function", "f=true"}).err, reason);
    EXPECT_EQ(zeb({"call", "a\"b", "f"}).err, reason);
    arguments many = {"serve", "s"};
    for (int i = 0; i < 64; i++)
        many.insert(many.end(), {"--function", "f" + std::to_string(i) + "=true"});
    for (const arguments &command : {arguments{"serve", "a\"b", "--function", "f=true"},
                                     {"call", "a\"b", "f"},
                                     {"serve", "s"},
                                     {"serve", "s", "--function", "f"},
                                     {"serve", "s", "--function", "=true"},
                                     {"serve", "s", "--function", "f=true", "--function", "f=false"},
                                     {"serve", "", "--function", "f=true"},
                                     {"call", "s"},
                                     {"call", "s", ""},
                                     {"call", "s", "f", "--file", "/no/such/file"},
                                     many})
        EXPECT_EQ(zeb(command).code, 1) << shown(command);
    const std::string port = std::to_string(free_port());
    EXPECT_EQ(zeb({"serve", "s", "--function", "f=true", "--port", port}).code, 2);
    EXPECT_EQ(zeb({"call", "s", "f", "--port", port}).code, 2);
}

/* ---- State ---- */

TEST_F(Group, TheOldestMemberAnswersForTheGroup)
{
    serve();
    const std::string state("the\0state", 9);
    process::running first, second;
    run_until(first, {"state", "keep", "-p", "group=a", "--file", write_file(state), "--count", "2", "-v"},
              "zeb: keeping 9 octets\n");
    run_until(second, {"state", "keep", "-p", "group=a", "--body", "another", "-v"}, "zeb: keeping ");
    const process::outcome get = zeb({"state", "get", "(\"group=a\")", "--component", "asker"});
    EXPECT_EQ(get.code, 0) << get.err;
    EXPECT_EQ(get.out, state);
    const json line = json::parse(zeb({"state", "get", "(\"group=a\")", "--json"}).out);
    EXPECT_EQ(line["class"], "state-set");
    EXPECT_EQ(line["body"], state);
    EXPECT_EQ(process::finish(first), 0);
    EXPECT_EQ(first.outText.find("asked by asker on "), 0U) << first.outText;
    EXPECT_EQ(zeb({"state", "get", "(\"group=a\")"}).out, "another");
}

TEST_F(Group, StatesEndWithTheRightCodes)
{
    serve();
    const process::outcome nobody = zeb({"state", "get", "(\"group=none\")", "--wait", "0.4"});
    EXPECT_EQ(nobody.code, 4);
    EXPECT_EQ(nobody.err, "zeb: the group has no member\n");
    process::running deaf;
    subscribe(deaf, {"null", "--component", "deaf"});
    const process::outcome silent = zeb({"state", "get", "(\"@component=deaf\")", "--wait", "0.5"});
    EXPECT_EQ(silent.code, 4);
    EXPECT_EQ(silent.err, "zeb: no member answered\n");
    EXPECT_EQ(zeb({"state", "get", "(\"@tpye=x\")"}).code, 3);
    EXPECT_EQ(zeb({"state", "get"}).code, 1);
    EXPECT_EQ(zeb({"state", "keep", "--body", "x"}).code, 1);
    EXPECT_EQ(zeb({"state", "keep", "-p", "g=a", "--body", "x", "--for", "0.2"}).code, 0);
    EXPECT_EQ(zeb({"state", "keep", "-p", "g=a", "--body", "x", "--for", "0.2", "--count", "1"}).code, 5);
    const std::string port = std::to_string(free_port());
    EXPECT_EQ(zeb({"state", "get", "", "--port", port}).code, 2);
}

/* ---- Examples ---- */

/* The part of a manual page below EXAMPLE. */
std::string example_in(const std::string &page)
{
    const std::string mark = "\nEXAMPLE\n";
    const size_t at = page.find(mark);
    return at == std::string::npos ? "exit 99" : page.substr(at + mark.size());
}

/* The examples of the manual pages are typed as they stand, with somebody there to talk to. */
TEST_F(Group, TheExampleOfEveryManualPageWorks)
{
    serve({"--instance", "east", "--admin", directory + "/admin.sock"});
    const std::string usual =
        directory + "/zebd-" + std::to_string(daemon.port) + ".sock"; /* where it is found */
    ASSERT_EQ(symlink((directory + "/admin.sock").c_str(), usual.c_str()), 0);
    env["XDG_RUNTIME_DIR"] = directory;
    process::running server, keeper, sender;
    offer(server, {"shouter", "--function", "upper=tr a-z A-Z"});
    run_until(keeper, {"state", "keep", "-p", "group=demo", "--body", "x", "-v"}, "zeb: keeping ");
    const std::string tool = ZEB_PATH;
    process::start(
        sender,
        {"/usr/bin/bash", "-c", "while echo data | " + tool + " stream send /backup; do sleep 0.3; done"},
        env);
    env["PATH"] = tool.substr(0, tool.rfind('/')) + ":/usr/bin:/bin";
    for (const std::string &verb : verbs_in(zeb({"help"}).out)) {
        process::poll_output(daemon); /* whose log would fill its pipe */
        const std::string page = zeb(words_of("help " + verb)).out;
        const process::outcome result = process::run(
            {"/usr/bin/bash", "-c", "set -e; cd " + directory + "\n" + example_in(page)}, "", env);
        EXPECT_EQ(result.code, 0) << verb << ": " << example_in(page) << result.err;
    }
}

} // namespace
