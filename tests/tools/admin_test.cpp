/* zeb status, monitor and doctor through the administration socket. */
#include "tool.h"

#include <csignal>
#include <cstring>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>

namespace
{

struct Administration : Tool {
    std::string socket;

    void serve_administration()
    {
        socket = directory + "/admin.sock";
        serve({"--instance", "east", "--admin", socket});
    }

    process::outcome admin(process::arguments command)
    {
        command.insert(command.end(), {"--admin", socket});
        return zeb(command);
    }
};

TEST_F(Administration, StatusShowsWhatTheDaemonTells)
{
    serve_administration();
    const json status = json::parse(admin({"status", "--json"}).out);
    EXPECT_EQ(status["reachable"], true);
    EXPECT_EQ(status["port"], daemon.port);
    EXPECT_EQ(status["instance"], "east");
    EXPECT_EQ(status["pid"], daemon.pid);
    EXPECT_TRUE(status["counters"].is_object());
    const process::outcome plain = admin({"status"});
    EXPECT_EQ(plain.code, 0);
    EXPECT_EQ(
        plain.out.find("daemon: reachable\nport: " + std::to_string(daemon.port) + "\ninstance: east\n"), 0U);
    EXPECT_NE(plain.out.find("\npid: " + std::to_string(daemon.pid) + "\n"), std::string::npos) << plain.out;
}

TEST_F(Administration, StatusListsClientsAndSubscribers)
{
    serve_administration();
    process::running sub;
    subscribe(sub, {"\"@type=/watched\"", "--component", "watcher"});
    const std::vector<json> subscribers = json_lines(admin({"status", "--subscribers", "--json"}).out);
    ASSERT_EQ(subscribers.size(), 1U);
    EXPECT_EQ(subscribers[0]["component"], "watcher");
    EXPECT_EQ(subscribers[0]["subscription"], "\"@type=/watched\"");
    const std::vector<json> clients = json_lines(admin({"status", "--clients", "--json"}).out);
    ASSERT_EQ(clients.size(), 1U);
    EXPECT_EQ(clients[0]["pid"], sub.pid);
    EXPECT_NE(admin({"status", "--subscribers"}).out.find("component=watcher "), std::string::npos);
    EXPECT_TRUE(json::parse(admin({"status", "--counters", "--json"}).out).is_object());
    EXPECT_NE(admin({"status", "--metrics"}).out.find("\n# TYPE "), std::string::npos);
}

TEST_F(Administration, StatusListsGroups)
{
    serve_administration();
    process::running keep, watch;
    run_until(keep, {"state", "keep", "-p", "group=a", "--body", "x", "-v"}, "zeb: keeping ");
    process::start(watch, {ZEB_PATH, "members", "(\"group=a\")", "--watch"}, env);
    ASSERT_TRUE(process::wait_for_out(watch, "+ ")) << watch.errText;
    const std::vector<json> groups = json_lines(admin({"status", "--groups", "--json"}).out);
    ASSERT_EQ(groups.size(), 1U);
    EXPECT_EQ(groups[0]["interest"], "\"group=a\"");
    EXPECT_EQ(groups[0]["members"].size(), 1U);
    EXPECT_EQ(groups[0]["watchers"].size(), 1U);
    const std::string plain = admin({"status", "--groups"}).out;
    EXPECT_EQ(plain.find("interest=\"group=a\" members=[\""), 0U) << plain;
}

TEST_F(Administration, MonitorShowsEventsWithTheirReceivers)
{
    serve_administration();
    process::running sub, monitor;
    subscribe(sub, {"\"@type=/watched\"", "--body-only"});
    run_until(monitor, {"monitor", "--json", "--count", "2", "--verbose", "--admin", socket},
              "zeb: watching\n");
    EXPECT_EQ(zeb({"pub", "/watched", "--body", "x"}).code, 0);
    EXPECT_EQ(zeb({"pub", "/unseen", "--body", "y"}).code, 0);
    EXPECT_EQ(process::finish(monitor), 0);
    const std::vector<json> events = json_lines(monitor.outText);
    ASSERT_EQ(events.size(), 2U);
    EXPECT_EQ(events[0]["event"]["type"], "/watched");
    EXPECT_EQ(events[0]["event"]["receivers"].size(), 1U);
    EXPECT_EQ(events[1]["event"]["receivers"].size(), 0U);
}

TEST_F(Administration, MonitorShowsAReadableLineEach)
{
    serve_administration();
    process::running monitor;
    run_until(monitor, {"monitor", "--verbose", "--admin", socket}, "zeb: watching\n");
    EXPECT_EQ(zeb({"pub", "/a", "--body", "x", "--component", "c"}).code, 0);
    ASSERT_TRUE(process::wait_for_out(monitor, " -> nobody\n"));
    EXPECT_NE(monitor.outText.find(" /a c MessageNotification "), std::string::npos) << monitor.outText;
    process::send_signal(monitor, SIGINT);
    EXPECT_EQ(process::finish(monitor), 0);
}

TEST_F(Administration, MonitorFollowsOneConnectionToItsEnd)
{
    serve_administration();
    process::running sub, monitor;
    subscribe(sub, {"", "--body-only"});
    const std::vector<json> clients = json_lines(admin({"status", "--clients", "--json"}).out);
    ASSERT_EQ(clients.size(), 1U);
    run_until(monitor,
              {"monitor", "--json", "--connection", clients[0]["id"].dump(), "--verbose", "--admin", socket},
              "zeb: watching\n");
    EXPECT_EQ(zeb({"pub", "/a", "--body", "x"}).code, 0);
    ASSERT_TRUE(process::wait_for_out(sub, "x\n"));
    process::send_signal(sub, SIGINT);
    EXPECT_EQ(process::finish(sub), 0);
    EXPECT_EQ(process::finish(monitor), 0) << monitor.errText;
    const std::vector<json> lines = json_lines(monitor.outText);
    ASSERT_GE(lines.size(), 2U);
    EXPECT_EQ(lines[0]["trace"]["direction"], "out");
    EXPECT_EQ(lines[0]["trace"]["type"], "/a");
    EXPECT_EQ(lines.back()["trace"]["direction"], "end");
}

TEST_F(Administration, WithoutTheSocketTheReasonIsSaid)
{
    socket = directory + "/none.sock";
    const process::outcome result = admin({"monitor"});
    EXPECT_EQ(result.code, 2);
    EXPECT_EQ(result.err.find("zeb: no administration socket (" + socket), 0U) << result.err;
    EXPECT_EQ(admin({"status", "--clients"}).code, 2);
    serve_administration();
    EXPECT_EQ(admin({"monitor", "--connection", "999999"}).code, 3);
    EXPECT_EQ(admin({"monitor", "--for", "0.2"}).code, 0);
    EXPECT_EQ(admin({"monitor", "--for", "0.2", "--count", "1"}).code, 5);
    EXPECT_EQ(admin({"monitor", "--timeout", "0.3"}).code, 4);
}

/* Somebody else who answers where a daemon's administration is looked for; ended with the record. */
struct usurper {
    pid_t pid = -1;

    explicit usurper(const std::string &path)
    {
        int ready[2] = {-1, -1};
        if (pipe(ready) != 0)
            return;
        pid = fork();
        if (pid == 0)
            answer_for_ever(path, ready[1]);
        close(ready[1]);
        char octet = 0;
        if (read(ready[0], &octet, 1) != 1)
            ADD_FAILURE() << "nobody could be put into " << path;
        close(ready[0]);
    }
    ~usurper()
    {
        if (pid > 0) {
            kill(pid, SIGKILL);
            waitpid(pid, nullptr, 0);
        }
    }

    [[noreturn]] static void answer_for_ever(const std::string &path, int ready)
    {
        static constexpr char words[] = "{\"ok\":true,\"status\":{\"version\":\"false\"}}\n";
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::strncpy(address.sun_path, path.c_str(), sizeof(address.sun_path) - 1);
        const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
        if (setresgid(65534, 65534, 65534) != 0 || setresuid(65534, 65534, 65534) != 0 ||
            bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof(address)) != 0 ||
            listen(fd, 8) != 0 || write(ready, "r", 1) != 1)
            _exit(1);
        for (;;) {
            char request[4096];
            const int asker = accept(fd, nullptr, nullptr);
            if (read(asker, request, sizeof(request)) > 0)
                send(asker, words, sizeof(words) - 1, MSG_NOSIGNAL);
            close(asker);
        }
    }
};

TEST_F(Administration, SomebodyElseInTheDaemonsPlaceIsNotBelieved)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "only root can become somebody else";
    serve();
    chmod(directory.c_str(), 0777);
    env["XDG_RUNTIME_DIR"] = directory;
    const std::string place = directory + "/zebd-" + std::to_string(daemon.port) + ".sock";
    const usurper stranger(place);
    EXPECT_EQ(zeb({"status", "--json"}).out.find("version"), std::string::npos);
    const process::outcome monitor = zeb({"monitor", "--for", "0.2"});
    EXPECT_EQ(monitor.code, 2);
    EXPECT_NE(monitor.err.find(place + ": belongs to user 65534, who is neither you nor root"),
              std::string::npos)
        << monitor.err;
    EXPECT_NE(zeb({"doctor"}).out.find("wrong administration: " + place + " belongs to user 65534"),
              std::string::npos);
    EXPECT_EQ(zeb({"status", "--json", "--admin", place}).code, 0); /* who names it has chosen it */
}

TEST_F(Administration, TheDoctorLooksAtTheSocketAndItsMode)
{
    serve_administration();
    const auto finding = [this] {
        for (const json &line : json_lines(admin({"doctor", "--json"}).out))
            if (line["check"] == "administration")
                return line;
        return json::object();
    };
    EXPECT_EQ(finding().value("result", ""), "ok");
    chmod(socket.c_str(), 0666);
    EXPECT_EQ(finding().value("result", ""), "wrong");
    EXPECT_EQ(finding().value("mend", ""), "chmod 600 " + socket);
    unlink(socket.c_str());
    EXPECT_EQ(finding().value("result", ""), "note");
}

} // namespace
