/* zeb doctor and zeb bench. */
#include "terminal.h"
#include "tool.h"

#include <csignal>
#include <sys/stat.h>

namespace
{

/* The finding of a check. */
json finding(const process::outcome &result, const std::string &check)
{
    for (const json &line : json_lines(result.out))
        if (line.value("check", "") == check)
            return line;
    return json();
}

TEST_F(Tool, TheDoctorFindsNothingWrongWithASoundHost)
{
    serve();
    env["TAMBEK_HOME"] = directory;
    const process::outcome result = zeb({"doctor", "--json"});
    EXPECT_EQ(result.code, 0) << result.out;
    for (const char *check : {"port", "home", "form factor", "stack", "descriptors", "library", "localhost",
                              "listening", "daemon"})
        EXPECT_EQ(finding(result, check).value("result", ""), "ok") << check << result.out;
    EXPECT_NE(finding(result, "daemon").value("found", "").find("east"), std::string::npos);
    EXPECT_NE(zeb({"doctor"}).out.find("ok    daemon: answers, instance east\n"), std::string::npos);
}

TEST_F(Tool, TheDoctorNamesAMissingDaemonAndHowToMendIt)
{
    env["TAMBEK_ZEB_PROXY_PORT"] = std::to_string(free_port());
    const process::outcome result = zeb({"doctor", "--json"});
    EXPECT_EQ(result.code, 2);
    EXPECT_EQ(finding(result, "listening").value("result", ""), "wrong");
    EXPECT_NE(finding(result, "listening").value("mend", "").find("start zebd"), std::string::npos);
    EXPECT_EQ(finding(result, "daemon").value("result", ""), "wrong");
}

TEST_F(Tool, TheDoctorSeesWhenSomethingElseListens)
{
    const silent_listener listener;
    env["TAMBEK_ZEB_PROXY_PORT"] = std::to_string(listener.port);
    const process::outcome result = zeb({"doctor", "--json"});
    EXPECT_EQ(result.code, 2);
    EXPECT_EQ(finding(result, "listening").value("result", ""), "note") << "on one address only";
    EXPECT_EQ(finding(result, "daemon").value("result", ""), "wrong");
}

TEST_F(Tool, TheDoctorNamesWrongSettings)
{
    serve();
    const std::string port = std::to_string(daemon.port);
    env["TAMBEK_ZEB_PROXY_PORT"] = "many";
    env["TAMBEK_HOME"] = "/no/such/place";
    env["TAMBEK_THREAD_STACKSIZE"] = "100";
    const process::outcome result = zeb({"doctor", "--json", "--port", port});
    EXPECT_EQ(result.code, 3) << result.out;
    EXPECT_EQ(finding(result, "port").value("result", ""), "wrong");
    EXPECT_EQ(finding(result, "home").value("result", ""), "wrong");
    EXPECT_EQ(finding(result, "stack").value("result", ""), "note");
    EXPECT_EQ(finding(result, "daemon").value("result", ""), "ok");
    for (const char *check : {"port", "home", "stack"})
        EXPECT_NE(finding(result, check).value("mend", ""), "") << check;
}

TEST_F(Tool, TheDoctorFindsTheFormFactor)
{
    serve();
    env["TAMBEK_HOME"] = directory;
    std::filesystem::create_directories(directory + "/ezeb/conf");
    write_file("small", "ezeb/conf/.formfactor");
    EXPECT_EQ(finding(zeb({"doctor", "--json"}), "form factor").value("found", ""),
              directory + "/ezeb/conf/.formfactor");
}

/* ---- Bench ---- */

TEST_F(Tool, BenchMeasuresThreeThings)
{
    serve();
    const process::outcome result = zeb({"bench", "--json", "--messages", "500", "--size", "50", "--rate",
                                         "200", "--seconds", "0.3", "--trips", "50"});
    EXPECT_EQ(result.code, 0) << result.err;
    EXPECT_EQ(result.err, "");
    const json all = json::parse(result.out);
    EXPECT_EQ(all["throughput"]["messages"], 500);
    EXPECT_EQ(all["throughput"]["lost"], 0);
    EXPECT_EQ(all["throughput"]["octets"], 50);
    EXPECT_GT(all["throughput"]["messagesPerSecond"], 0);
    EXPECT_EQ(all["latency"]["messages"], 60);
    EXPECT_EQ(all["roundTrips"]["trips"], 50);
    for (const char *part : {"latency", "roundTrips"}) {
        double before = 0;
        for (const char *rank : {"p50", "p90", "p99", "p99.9", "max"}) {
            const auto value = all[part]["microseconds"][rank].get<double>();
            EXPECT_GT(value, 0) << part << rank;
            EXPECT_GE(value, before) << part << rank;
            before = value;
        }
    }
}

TEST_F(Tool, BenchLeavesOutWhatIsNotWanted)
{
    serve();
    const process::outcome result = zeb({"bench", "--messages", "0", "--rate", "0", "--trips", "20"});
    EXPECT_EQ(result.code, 0) << result.err;
    EXPECT_EQ(result.out.find("round trip: microseconds: p50 "), 0U) << result.out;
    EXPECT_EQ(std::count(result.out.begin(), result.out.end(), '\n'), 1);
}

TEST_F(Tool, BenchStoppedByCtrlCSaysWhatItHas)
{
    serve();
    terminal screen;
    screen.start({ZEB_PATH, "bench", "--messages", "100", "--seconds", "100", "--rate", "100"}, env, 80);
    ASSERT_TRUE(screen.wait_for("latency: ")) << screen.seen;
    screen.type("\x03");
    EXPECT_EQ(screen.finish(), 5);
    EXPECT_NE(screen.screen().find("throughput: "), std::string::npos) << screen.screen();
    EXPECT_EQ(screen.screen().find(" of 10000"), std::string::npos) << "the progress is still there";
}

TEST_F(Tool, BenchWithoutADaemon)
{
    env["TAMBEK_ZEB_PROXY_PORT"] = std::to_string(free_port());
    EXPECT_EQ(zeb({"bench"}).code, 2);
    EXPECT_EQ(zeb({"bench", "--size", "1"}).code, 1);
}

} // namespace
