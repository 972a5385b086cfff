/* Administration: what is asked and answered, without a socket; then the socket of the program. */
#include "admin.h"
#include "administrator.h"
#include "defaults.h"
#include "metrics.h"
#include "peer.h"
#include "process.h"
#include "recorder.h"
#include "wire.h"

#include <csignal>
#include <fcntl.h>
#include <fstream>
#include <gtest/gtest.h>
#include <list>
#include <set>
#include <sstream>
#include <sys/stat.h>
#include <sys/wait.h>

using nlohmann::json;

namespace
{

/* ---- Questions ---- */

zebd::daemon_report fixed_report(const void *)
{
    zebd::daemon_report report;
    report.identity = {"1.2", "host \"a\"", "east", 77};
    report.pid = 42;
    report.port = 9320;
    report.uptimeSeconds = 1.5;
    report.clients = 2;
    report.memoryBytes = 4096;
    report.server.droppedHard = 7;
    report.engine.taken = 9;
    return report;
}

std::vector<zebd::client_report> fixed_clients(const void *)
{
    zebd::client_report first;
    first.id = 3;
    first.address = "127.0.0.1:1";
    first.selfId = "Pid=4242; Home=/opt/app";
    first.formFactor = "ab\xff";
    first.dropped = 5;
    zebd::client_report second;
    second.id = 4;
    second.selfId = "nobody";
    return {first, second};
}

bool only_three(const void *, zebd::connection_id id)
{
    return id == 3;
}

struct Admin : testing::Test {
    recorder out;
    zebd::engine routing = engineWith(out);
    zebd::report_source source{nullptr, fixed_report, fixed_clients, only_three, &routing};

    json ask(const std::string &request)
    {
        const std::string line = zebd::admin_ask(source, request).line;
        EXPECT_EQ(line.find('\n'), line.size() - 1);
        return json::parse(line);
    }
};

TEST_F(Admin, StatusTellsWhoAndHowMuch)
{
    const json answer = ask(R"({"ask":"status"})");
    EXPECT_EQ(answer["ok"], true);
    const json &status = answer["status"];
    EXPECT_EQ(status["version"], "1.2");
    EXPECT_EQ(status["node"], "host \"a\"");
    EXPECT_EQ(status["incarnation"], 77);
    EXPECT_EQ(status["pid"], 42);
    EXPECT_EQ(status["port"], 9320);
    EXPECT_EQ(status["uptimeSeconds"], 1.5);
    EXPECT_EQ(status["clients"], 2);
    EXPECT_EQ(status["memoryBytes"], 4096);
    EXPECT_EQ(status["counters"]["droppedHard"], 7);
}

TEST_F(Admin, CountersHaveEveryCounterOnce)
{
    const json counters = ask(R"({"ask":"counters"})")["counters"];
    std::set<std::string_view> names;
    for (const zebd::counter_description &each : zebd::counter_descriptions()) {
        EXPECT_TRUE(names.insert(each.name).second) << each.name;
        EXPECT_TRUE(counters.contains(std::string(each.name))) << each.name;
    }
    EXPECT_EQ(counters.size(), names.size());
    EXPECT_EQ(counters["eventsIn"], 9);
}

TEST_F(Admin, ClientsAreListedWithWhatTheySaidOfThemselves)
{
    const json clients = ask(R"({"ask":"clients"})")["clients"];
    ASSERT_EQ(clients.size(), 2u);
    EXPECT_EQ(clients[0]["id"], 3);
    EXPECT_EQ(clients[0]["pid"], 4242);
    EXPECT_EQ(clients[0]["home"], "/opt/app");
    EXPECT_EQ(clients[0]["formFactor"], "ab\xEF\xBF\xBD"); /* the octet that is no UTF-8 is replaced */
    EXPECT_EQ(clients[0]["dropped"], 5);
    EXPECT_TRUE(clients[1]["pid"].is_null());
    EXPECT_EQ(clients[1]["home"], "");
}

TEST_F(Admin, SubscribersAreListedOldestFirst)
{
    std::string why;
    zebd::subscribe_request request;
    request.subscription = "(\"@type=/a\")";
    request.interest = "null";
    request.component = "c";
    request.properties = {{"zone", "eu"}};
    for (const int32_t id : {5, 2}) {
        request.id = id;
        ASSERT_TRUE(engine_up(routing, 3, request, why)) << why;
    }
    const json subscribers = ask(R"({"ask":"subscribers"})")["subscribers"];
    ASSERT_EQ(subscribers.size(), 2u);
    EXPECT_EQ(subscribers[0]["connection"], 3);
    EXPECT_EQ(subscribers[0]["id"], 5);
    EXPECT_EQ(subscribers[1]["id"], 2);
    EXPECT_EQ(subscribers[0]["subscription"], "(\"@type=/a\")");
    EXPECT_EQ(subscribers[0]["interest"], "null");
    EXPECT_EQ(subscribers[0]["component"], "c");
    EXPECT_EQ(subscribers[0]["deltas"], false);
    EXPECT_EQ(subscribers[0]["properties"], json::parse(R"([{"name":"zone","value":"eu"}])"));
    EXPECT_EQ(subscribers[0]["filed"].size(), 1u);
}

TEST_F(Admin, GroupsTellWhoWatchesWhom)
{
    std::string why;
    zebd::subscribe_request server, caller;
    server.id = 1;
    server.subscription = server.interest = "null";
    server.properties = {{"/ZEB/RPC/SVR", "a"}};
    caller.id = 2;
    caller.subscription = "null";
    caller.interest = "(\"/ZEB/RPC/SVR=a\")";
    caller.deltas = true;
    ASSERT_TRUE(engine_up(routing, 3, server, why) && engine_up(routing, 4, caller, why)) << why;
    const json subscribers = ask(R"({"ask":"subscribers"})")["subscribers"];
    const std::string serverKey = subscribers[0]["key"], callerKey = subscribers[1]["key"];
    EXPECT_NE(serverKey, "");
    EXPECT_NE(serverKey, callerKey);
    const json groups = ask(R"({"ask":"groups"})")["groups"];
    ASSERT_EQ(groups.size(), 1u);
    EXPECT_NE(groups[0]["interest"].get<std::string>().find("/ZEB/RPC/SVR=a"), std::string::npos);
    EXPECT_EQ(groups[0]["members"], json::array({serverKey}));
    EXPECT_EQ(groups[0]["watchers"], json::array({callerKey}));
}

TEST_F(Admin, WrongRequestsAreAnsweredWithWhy)
{
    EXPECT_EQ(ask("nonsense")["error"], "a request is one JSON object in a line");
    EXPECT_EQ(ask("[1]")["error"], "a request is one JSON object in a line");
    EXPECT_EQ(ask("{}")["error"], "'ask' must be a text");
    EXPECT_EQ(ask(R"({"ask":1})")["error"], "'ask' must be a text");
    EXPECT_EQ(ask(R"({"ask":"stop"})")["error"], "unknown request 'stop'");
    EXPECT_EQ(ask(R"({"ask":"trace"})")["error"], "'connection' must be the number of a client");
    EXPECT_EQ(ask(R"({"ask":"trace","connection":-1})")["error"],
              "'connection' must be the number of a client");
    EXPECT_EQ(ask(R"({"ask":"trace","connection":9})")["error"], "there is no client 9");
    EXPECT_EQ(ask("")["ok"], false);
}

TEST_F(Admin, FollowingIsGranted)
{
    const zebd::admin_answer trace = admin_ask(source, R"({"ask":"trace","connection":3})");
    EXPECT_EQ(trace.line, "{\"ok\":true}\n");
    EXPECT_EQ(trace.follow, zebd::admin_follow::trace);
    EXPECT_EQ(trace.connection, 3u);
    const zebd::admin_answer monitor = admin_ask(source, R"({"ask":"monitor"})");
    EXPECT_EQ(monitor.line, "{\"ok\":true}\n");
    EXPECT_EQ(monitor.follow, zebd::admin_follow::monitor);
}

TEST_F(Admin, LinesForFollowersAreObjects)
{
    EXPECT_EQ(zebd::admin_lost_line(3), "{\"lost\":3}\n");
    EXPECT_EQ(zebd::admin_error_line("x"), "{\"ok\":false,\"error\":\"x\"}\n");
    EXPECT_EQ(zebd::admin_trace_end(3, 5),
              "{\"trace\":{\"connection\":3,\"time\":5,\"direction\":\"end\"}}\n");
}

/* ---- Metrics ---- */

TEST(Metrics, EachMetricHasOneHeadAndSamplesBelowIt)
{
    std::istringstream text(zebd::metrics_text(fixed_report(nullptr)));
    std::set<std::string> heads;
    std::string metric;
    int samples = 0;
    for (std::string line; std::getline(text, line);) {
        if (line.starts_with("# HELP ")) {
            metric = line.substr(7, line.find(' ', 7) - 7);
            EXPECT_TRUE(heads.insert(metric).second) << line;
            EXPECT_GT(line.size(), 8 + metric.size()) << line;
        } else if (line.starts_with("# TYPE ")) {
            const bool isCounter = metric.ends_with("_total");
            EXPECT_EQ(line, "# TYPE " + metric + (isCounter ? " counter" : " gauge"));
        } else {
            EXPECT_EQ(line.substr(0, line.find_first_of(" {")), metric) << line;
            samples++;
        }
    }
    EXPECT_GE(samples, static_cast<int>(zebd::counter_descriptions().size()) + 6);
}

TEST(Metrics, CarryValuesAndEscapedLabels)
{
    const std::string text = zebd::metrics_text(fixed_report(nullptr));
    EXPECT_NE(text.find("\nzebd_events_dropped_total{limit=\"hard\"} 7\n"), std::string::npos) << text;
    EXPECT_NE(text.find("\nzebd_info{version=\"1.2\",node=\"host \\\"a\\\"\",instance=\"east\"} 1\n"),
              std::string::npos)
        << text;
    EXPECT_NE(text.find("\nzebd_memory_bytes 4096\n"), std::string::npos) << text;
}

TEST(Metrics, TheManualNamesEveryMetric)
{
    std::ifstream file(ZEB_MANUAL);
    std::ostringstream manual;
    manual << file.rdbuf();
    std::istringstream text(zebd::metrics_text(fixed_report(nullptr)));
    for (std::string line; std::getline(text, line);) {
        if (!line.starts_with("# HELP "))
            continue;
        EXPECT_NE(manual.str().find("`" + line.substr(7, line.find(' ', 7) - 7) + "`"), std::string::npos)
            << line;
    }
}

/* ---- The socket ---- */

struct AdminSocket : testing::Test {
    std::string path = testing::TempDir() + "zebd-admin-" + std::to_string(getpid()) + ".sock";
    process::zebd daemon;
    administrator admin;

    ~AdminSocket() override
    {
        unlink(path.c_str());
    }

    void serve()
    {
        process::start_zebd(daemon, {"--admin", path});
        ASSERT_NE(daemon.port, 0) << daemon.errText;
        ASSERT_TRUE(admin.dial(path));
    }
};

TEST_F(AdminSocket, AnswersManyRequestsOnOneConnectionInOrder)
{
    serve();
    peer client;
    ASSERT_TRUE(client.join(daemon.port) && client.subscribe());
    ASSERT_TRUE(admin.say("{\"ask\":\"status\"}\n{\"ask\":\"clients\"}\nwhat\n{\"ask\":\"subscribers\"}\n"));
    const json status = admin.next()["status"];
    EXPECT_EQ(status["pid"], daemon.pid);
    EXPECT_EQ(status["port"], daemon.port);
    EXPECT_EQ(status["clients"], 1);
    EXPECT_EQ(status["subscribers"], 1);
    EXPECT_GT(status["memoryBytes"], 1000000);
    const json clients = admin.next()["clients"];
    ASSERT_EQ(clients.size(), 1u);
    EXPECT_EQ(clients[0]["pid"], 4242);
    EXPECT_EQ(clients[0]["subscribers"], 1);
    EXPECT_GT(clients[0]["bytesIn"], 100);
    EXPECT_GT(clients[0]["bytesOut"], 100);
    EXPECT_EQ(admin.next()["ok"], false);
    EXPECT_EQ(admin.next()["subscribers"][0]["component"], "watcher");
}

TEST_F(AdminSocket, CountsWhatHappens)
{
    serve();
    peer client;
    ASSERT_TRUE(client.join(daemon.port) && client.subscribe());
    ASSERT_TRUE(client.say(wire::messageEvent));
    client.hear("he\r\nl");
    const json counters = admin.ask("counters")["counters"];
    EXPECT_EQ(counters["eventsIn"], 1);
    EXPECT_EQ(counters["eventsOut"], 1);
    EXPECT_EQ(counters["clientsAccepted"], 1);
    const json clients = admin.ask("clients")["clients"];
    EXPECT_EQ(clients[0]["eventsIn"], 1);
    EXPECT_EQ(clients[0]["eventsOut"], 1);
    const std::string text = admin.ask("metrics")["text"];
    EXPECT_NE(text.find("\nzebd_events_in_total 1\n"), std::string::npos) << text;
}

TEST_F(AdminSocket, Serves32AtOnceAndNoMore)
{
    serve();
    std::list<administrator> others(31);
    for (administrator &each : others)
        ASSERT_TRUE(each.dial(path) && each.ask("counters").value("ok", false));
    administrator above;
    ASSERT_TRUE(above.dial(path));
    EXPECT_TRUE(above.hear_end());
    others.pop_front();
    bool served = false;
    for (int i = 0; i < 1000 && !served; i++) { /* until it has seen that one go */
        administrator next;
        served = next.dial(path) && next.ask("counters").is_object();
    }
    EXPECT_TRUE(served);
}

TEST_F(AdminSocket, IsForItsOwnerAlone)
{
    serve();
    struct stat found {
    };
    ASSERT_EQ(stat(path.c_str(), &found), 0);
    EXPECT_EQ(found.st_mode & 07777, 0600u);
    EXPECT_EQ(found.st_uid, geteuid());
}

/* The file's mode keeps others out already; the peer is checked all the same. */
TEST_F(AdminSocket, RefusesAnotherUser)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "only root can become somebody else";
    serve();
    chmod(path.c_str(), 0666);
    const pid_t other = fork();
    if (other == 0) {
        administrator stranger;
        const bool became = setresgid(65534, 65534, 65534) == 0 && setresuid(65534, 65534, 65534) == 0;
        _exit(!became || !stranger.dial(path) ? 1 : stranger.ask("status").is_null() ? 3 : 0);
    }
    int status = 0;
    ASSERT_EQ(waitpid(other, &status, 0), other);
    EXPECT_EQ(WEXITSTATUS(status), 3);
    EXPECT_TRUE(process::wait_for_err(daemon, "<4>administration refused to another user\n"));
    EXPECT_EQ(admin.ask("status")["ok"], true);
}

/* The answers are more than the socket holds at once. */
TEST_F(AdminSocket, AnswersWhoeverHasSaidEverything)
{
    serve();
    constexpr int requests = 150;
    std::string questions;
    for (int i = 0; i < requests; i++)
        questions += "{\"ask\":\"metrics\"}\n";
    ASSERT_TRUE(admin.say(questions));
    ASSERT_EQ(shutdown(admin.fd, SHUT_WR), 0);
    for (int i = 0; i < requests; i++)
        ASSERT_EQ(admin.next()["ok"], true) << i;
    EXPECT_TRUE(admin.next().is_null());
}

TEST_F(AdminSocket, RefusesALongRequest)
{
    serve();
    ASSERT_TRUE(admin.say(std::string(5000, 'x')));
    EXPECT_EQ(admin.next()["error"], "a request has at most 4096 octets");
    EXPECT_TRUE(admin.next().is_null());
}

TEST_F(AdminSocket, IsRemovedAtTheEnd)
{
    serve();
    process::send_signal(daemon, SIGTERM);
    EXPECT_EQ(process::finish(daemon), 0);
    EXPECT_NE(access(path.c_str(), F_OK), 0);
    EXPECT_TRUE(admin.next().is_null());
}

TEST_F(AdminSocket, ReplacesTheFileOfADeadDaemon)
{
    {
        process::zebd dead;
        process::start_zebd(dead, {"--admin", path});
        ASSERT_NE(dead.port, 0);
    } /* killed, so that its file stays */
    ASSERT_EQ(access(path.c_str(), F_OK), 0);
    serve();
    EXPECT_EQ(admin.ask("status")["ok"], true);
}

TEST_F(AdminSocket, LeavesALivingOneAlone)
{
    serve();
    const process::outcome second = process::run({ZEBD_PATH, "--port", "0", "--admin", path});
    EXPECT_EQ(second.code, 2);
    EXPECT_NE(second.err.find("cannot open the administration socket " + path + ": Address already in use\n"),
              std::string::npos)
        << second.err;
    EXPECT_EQ(admin.ask("status")["status"]["pid"], daemon.pid);
}

TEST_F(AdminSocket, LeavesAFileThatIsNoSocketAlone)
{
    std::ofstream(path) << "precious";
    EXPECT_EQ(process::run({ZEBD_PATH, "--port", "0", "--admin", path}).code, 2);
    std::ifstream file(path);
    std::string content;
    file >> content;
    EXPECT_EQ(content, "precious");
}

TEST_F(AdminSocket, StandsInTheUsualPlaceUnlessToldOtherwise)
{
    const std::string directory = testing::TempDir() + "zebd-run-" + std::to_string(getpid());
    mkdir(directory.c_str(), 0700);
    process::start_zebd(daemon, {"--admin", "auto"}, {{"XDG_RUNTIME_DIR", directory}});
    ASSERT_NE(daemon.port, 0);
    setenv("XDG_RUNTIME_DIR", directory.c_str(), 1);
    bool found = false;
    for (const std::string &place : zebd::default_admin_paths(daemon.port)) {
        administrator asker;
        if (!found && asker.dial(place))
            found = asker.ask("status")["status"]["pid"] == daemon.pid;
    }
    EXPECT_TRUE(found);
    process::send_signal(daemon, SIGTERM);
    EXPECT_EQ(process::finish(daemon), 0);
    EXPECT_EQ(rmdir(directory.c_str()), 0); /* nothing is left in it */
}

/* Where everybody may write: a user whom nobody is, so that the directory is known to be the test's. */
struct OpenPlace : AdminSocket {
    const std::string user = std::to_string(61000 + getpid() % 1000);
    const std::string directory = "/tmp/zebd-" + user;

    void SetUp() override
    {
        if (geteuid() != 0 || access("/usr/bin/setpriv", X_OK) != 0)
            GTEST_SKIP() << "only root can become somebody else";
        ASSERT_NE(access(directory.c_str(), F_OK), 0) << directory << " is there already";
    }

    ~OpenPlace() override
    {
        rmdir(directory.c_str());
    }

    void serve_as_user()
    {
        process::start(daemon,
                       {"/usr/bin/setpriv", "--reuid", user, "--regid", user, "--clear-groups", ZEBD_PATH,
                        "--port", "0", "--ready-fd", "3"},
                       {{"XDG_RUNTIME_DIR", ""}}, true);
        daemon.port = process::ready_port(daemon);
        ASSERT_NE(daemon.port, 0) << daemon.errText;
        path = directory + "/admin-" + std::to_string(daemon.port) + ".sock";
    }
};

TEST_F(OpenPlace, HoldsADirectoryOfTheUserAlone)
{
    serve_as_user();
    struct stat found {
    };
    ASSERT_EQ(lstat(directory.c_str(), &found), 0) << daemon.errText;
    EXPECT_EQ(found.st_mode, S_IFDIR | 0700u);
    EXPECT_EQ(std::to_string(found.st_uid), user);
    ASSERT_TRUE(admin.dial(path));
    EXPECT_EQ(admin.ask("status")["status"]["pid"], daemon.pid);
    process::send_signal(daemon, SIGTERM);
    EXPECT_EQ(process::finish(daemon), 0);
}

TEST_F(OpenPlace, IsNotUsedWhenSomebodyElseMadeTheDirectory)
{
    ASSERT_EQ(mkdir(directory.c_str(), 0700), 0);
    ASSERT_EQ(chmod(directory.c_str(), 0777), 0);
    serve_as_user();
    EXPECT_TRUE(process::wait_for_err(daemon, "<4>no administration socket: " + directory +
                                                  " is no directory of this user alone\n"))
        << daemon.errText;
    EXPECT_NE(access(path.c_str(), F_OK), 0);
    peer client;
    EXPECT_TRUE(client.join(daemon.port));
}

/* An administrator that asks and asks and reads nothing: the daemon neither grows nor waits. */
TEST_F(AdminSocket, AnAdministratorThatReadsNothingIsNotListenedTo)
{
    serve();
    fcntl(admin.fd, F_SETFL, O_NONBLOCK);
    const std::string request = "{\"ask\":\"metrics\"}\n";
    int unanswered = 0;
    while (send(admin.fd, request.data(), request.size(), MSG_NOSIGNAL) > 0 && unanswered < 1000000)
        unanswered++;
    EXPECT_LT(unanswered, 1000000);
    administrator second;
    ASSERT_TRUE(second.dial(path));
    EXPECT_LT(second.ask("counters")["counters"]["adminRequests"], unanswered);
    peer client;
    EXPECT_TRUE(client.join(daemon.port));
}

/* ---- Following ---- */

TEST_F(AdminSocket, TraceShowsBothDirectionsInOrderAndTheEnd)
{
    serve();
    peer client;
    ASSERT_TRUE(client.join(daemon.port));
    ASSERT_TRUE(admin.say("{\"ask\":\"trace\",\"connection\":1}\n"));
    ASSERT_EQ(admin.next()["ok"], true);
    ASSERT_TRUE(client.subscribe());
    ASSERT_TRUE(client.say(wire::messageEvent));
    client.hear("he\r\nl");
    client.hang_up();
    json line = admin.next()["trace"];
    EXPECT_EQ(line["direction"], "in");
    EXPECT_EQ(line["message"], "subscribe");
    EXPECT_EQ(line["component"], "watcher");
    EXPECT_EQ(line["connection"], 1);
    line = admin.next()["trace"];
    EXPECT_EQ(line["direction"], "out");
    EXPECT_EQ(line["message"], "status");
    EXPECT_EQ(line["taken"], true);
    line = admin.next()["trace"];
    EXPECT_EQ(line["direction"], "in");
    EXPECT_EQ(line["message"], "event");
    EXPECT_EQ(line["type"], "/app/disk/full");
    EXPECT_EQ(line["octets"], wire::messageEvent.size());
    line = admin.next()["trace"];
    EXPECT_EQ(line["direction"], "out");
    EXPECT_EQ(line["message"], "event");
    EXPECT_EQ(line["id"], "node1:911");
    const std::string head = line["head"];
    EXPECT_NE(head.find("\r\ndeliveryTime: "), std::string::npos) << head;
    EXPECT_TRUE(head.ends_with("AddrList-Length: 0")) << head;
    EXPECT_EQ(admin.next()["trace"]["direction"], "end");
}

TEST_F(AdminSocket, TraceShowsNobodyElse)
{
    serve();
    peer traced, other;
    ASSERT_TRUE(traced.join(daemon.port) && other.join(daemon.port));
    ASSERT_TRUE(admin.say("{\"ask\":\"trace\",\"connection\":1}\n"));
    ASSERT_EQ(admin.next()["ok"], true);
    ASSERT_TRUE(other.subscribe() && traced.subscribe());
    EXPECT_EQ(admin.next()["trace"]["connection"], 1);
    EXPECT_EQ(admin.next()["trace"]["message"], "status");
}

TEST_F(AdminSocket, MonitorTellsOfEveryEventWithItsReceivers)
{
    serve();
    peer client, other;
    ASSERT_TRUE(client.join(daemon.port) && client.subscribe());
    ASSERT_TRUE(other.join(daemon.port));
    ASSERT_EQ(admin.ask("monitor")["ok"], true);
    ASSERT_TRUE(other.say(wire::messageEvent));
    const json event = admin.next()["event"];
    EXPECT_EQ(event["class"], "MessageNotification");
    EXPECT_EQ(event["type"], "/app/disk/full");
    EXPECT_EQ(event["id"], "node1:911");
    EXPECT_EQ(event["from"], 2);
    EXPECT_EQ(event["directed"], false);
    EXPECT_EQ(event["receivers"], json::parse(R"([{"connection":1,"subscriber":1}])"));
    EXPECT_EQ(event["dropped"], 0);
    EXPECT_EQ(event["octets"], wire::messageEvent.size());
}

/* It is told how many lines it has missed, and all lines are accounted for. */
TEST_F(AdminSocket, ASlowMonitorLosesLinesAndIsTold)
{
    serve();
    peer from;
    ASSERT_TRUE(from.join(daemon.port));
    ASSERT_EQ(admin.ask("monitor")["ok"], true);
    std::string batch;
    for (int i = 0; i < 100; i++)
        batch += wire::bareEvent;
    const int sent = 20000;
    for (int i = 0; i < sent / 100; i++)
        ASSERT_TRUE(from.say(batch));
    ASSERT_TRUE(
        from.subscribe(wire::with(wire::subscribeEverything, "Subscription: ", "Subscription: null")));
    int events = 0, lost = 0;
    while (events + lost < sent) {
        const json line = admin.next();
        ASSERT_FALSE(line.is_null()) << events << " " << lost;
        if (line.contains("lost"))
            lost += line["lost"].get<int>();
        else
            events++;
    }
    EXPECT_GT(lost, 0);
    EXPECT_EQ(events + lost, sent);
}

} // namespace
