/* The configuration: what a file may say, what is wrong with it and where, who wins, and reading it again. */
#include "config.h"
#include "peer.h"
#include "process.h"

#include <chrono>
#include <csignal>
#include <cstdio>
#include <fstream>
#include <gtest/gtest.h>
#include <sstream>
#include <thread>

using namespace zebd;

namespace
{

/* ---- Files ---- */

std::string read_whole(const std::string &path)
{
    std::ifstream file(path);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

std::string problem_in(std::string_view text)
{
    configuration config;
    std::string result;
    for (const config_problem &problem : config_parse(text, config))
        result +=
            std::to_string(problem.line) + ":" + std::to_string(problem.column) + " " + problem.reason + "\n";
    return result;
}

TEST(Config, AnEmptyFileChangesNothing)
{
    configuration config;
    EXPECT_TRUE(config_parse("", config).empty());
    EXPECT_TRUE(config == configuration());
}

TEST(Config, TakesValuesOfEveryKind)
{
    configuration config;
    ASSERT_TRUE(config_parse("port = 4711\nstop_seconds = 2\n[queue]\npolicy = \"drop-oldest\"\n"
                             "soft_seconds = 0.5\nhard = 1_000_000\n",
                             config)
                    .empty());
    EXPECT_EQ(config.port, 4711);
    EXPECT_EQ(config.stopSeconds, 2);
    EXPECT_EQ(config.queuePolicy, "drop-oldest");
    EXPECT_EQ(config.queueSoftSeconds, 0.5);
    EXPECT_EQ(config.queueHard, 1000000);
}

TEST(Config, SaysWhereAndWhatIsWrong)
{
    EXPECT_EQ(problem_in("port = 70000\n"), "1:8 port must be from 0 to 65535\n");
    EXPECT_EQ(problem_in("\nport = \"x\"\n"), "2:8 port must be a whole number\n");
    EXPECT_EQ(problem_in("port = 1.5\n"), "1:8 port must be a whole number\n");
    EXPECT_EQ(problem_in("stop_seconds = -1\n"), "1:16 stop_seconds must be from 0 to 3600 seconds\n");
    EXPECT_EQ(problem_in("stop_seconds = nan\n"), "1:16 stop_seconds must be from 0 to 3600 seconds\n");
    EXPECT_EQ(problem_in("instance = 3\n"), "1:12 instance must be a text in quotes\n");
    EXPECT_EQ(problem_in("instance = \"a\\nb\"\n"), "1:12 instance must be one line\n");
    EXPECT_EQ(problem_in("[log]\n  level = \"loud\"\n"),
              "2:11 log.level must be one of: debug info warning error\n");
    EXPECT_EQ(problem_in("[log]\nlevel = \"debug info\"\n"),
              "2:9 log.level must be one of: debug info warning error\n");
}

TEST(Config, UnknownNamesAreErrors)
{
    EXPECT_EQ(problem_in("prot = 1\n"), "1:1 unknown key prot\n");
    EXPECT_EQ(problem_in("[queue]\nsofd = 1\n"), "2:1 unknown key queue.sofd\n");
    EXPECT_EQ(problem_in("[qeue]\nsoft = 1\n"), "1:2 unknown table qeue\n");
    EXPECT_EQ(problem_in("queue = 3\n"), "1:1 unknown key queue\n");
}

TEST(Config, TellsEverythingThatIsWrongInTheOrderOfTheFile)
{
    EXPECT_EQ(problem_in("zort = 1\nport = -1\n[log]\nlevel = 7\n"),
              "1:1 unknown key zort\n2:8 port must be from 0 to 65535\n"
              "4:9 log.level must be a text in quotes\n");
}

TEST(Config, AFileThatIsNoTomlIsRefusedAtItsPlace)
{
    EXPECT_EQ(problem_in("port = 1\nport = 2\n").substr(0, 2), "2:");
    EXPECT_EQ(problem_in("port = \n").substr(0, 2), "1:");
}

TEST(Config, ATableWithoutANameIsRefusedAtItsPlace)
{
    using namespace std::string_literals;
    for (const std::string &name : {"["s, "=x"s, "\0"s, "\x7f"s, "\xc3\xa9"s, "."s}) {
        EXPECT_EQ(problem_in("port = 1\n[[" + name + "]]\n").substr(0, 2), "2:") << name;
        EXPECT_EQ(problem_in("[ " + name + "]\n").substr(0, 2), "1:") << name;
    }
}

TEST(Config, OctetsAboveAsciiStandInQuotesAndComments)
{
    zebd::configuration config;
    const std::string file = "\xef\xbb\xbfinstance = \"\\\"\xc3\xa9\" # \xc3\xa9\n"
                             "admin.socket = '\xc3\xa9'\nlog.level = \"\"\"\\\n  debug\"\"\"\n";
    EXPECT_EQ(problem_in(file), "");
    EXPECT_TRUE(zebd::config_parse(file, config).empty());
    EXPECT_EQ(config.instance, "\"\xc3\xa9");
    EXPECT_EQ(config.adminSocket, "\xc3\xa9");
    EXPECT_TRUE(
        zebd::config_parse("\"admin.socket\" = \"\"\"?\\\n\xc3\xa9!\\u003f\xc8\x8c\"\"\"\n", config).empty());
    EXPECT_EQ(config.adminSocket, "?\xc3\xa9!?\xc8\x8c");
    for (const char *value :
         {"\xc3\xa9", "'a'\xc3\xa9", "\"a\\\\\"\xc8\x8c", "a\xc3\xa9", "0\"\xc8\x8c\"", "0[\"\xc8\x8c"})
        EXPECT_EQ(problem_in("port = 1\ninstance = " + std::string(value) + "\n").substr(0, 2), "2:")
            << value;
    EXPECT_EQ(problem_in("\xc8\x8c = 1\n"), "1:1 only ASCII can stand outside of quotes\n");
    EXPECT_EQ(problem_in("'\xc8\x8c' = 1\n"), "1:1 unknown key '\xc8\x8c'\n");
    EXPECT_EQ(problem_in("port = 1\ninstance = \"a\xff\" # \xc3\n"), "2:14 no UTF-8\n");
    EXPECT_EQ(problem_in("# \xed\xa0\x80\n"), "1:3 no UTF-8\n");
}

TEST(Config, EveryDefaultIsWithinItsOwnRange)
{
    const configuration defaults;
    for (const config_key &key : config_keys()) {
        configuration config;
        std::string text = config_text(defaults, key), why;
        if (text.starts_with('"'))
            text = text.substr(1, text.size() - 2);
        EXPECT_TRUE(config_set(config, key, text, why)) << key.name << ": " << why;
        EXPECT_TRUE(config == defaults) << key.name;
    }
}

/* The example is the place where an operator looks first: all keys with their defaults, each under words of
 * its own. */
TEST(Config, TheExampleShowsEveryKeyWithItsDefaultAndAComment)
{
    const std::string example = read_whole(ZEB_EXAMPLE_CONFIG);
    const configuration defaults;
    configuration config;
    EXPECT_EQ(problem_in(example), "");
    config_parse(example, config);
    EXPECT_TRUE(config == defaults);
    std::string table;
    for (const config_key &key : config_keys()) {
        const size_t dot = key.name.find('.');
        const std::string name(dot == std::string_view::npos ? key.name : key.name.substr(dot + 1));
        const size_t from = dot == std::string_view::npos
                                ? 0
                                : example.find("\n[" + std::string(key.name.substr(0, dot)) + "]\n");
        ASSERT_NE(from, std::string::npos) << key.name;
        const size_t at = example.find("\n" + name + " = " + config_text(defaults, key) + "\n", from);
        ASSERT_NE(at, std::string::npos) << key.name;
        const size_t comment = example.rfind('\n', at - 1);
        EXPECT_EQ(example.substr(comment + 1, 2), "# ") << key.name;
    }
}

TEST(Config, TheManualNamesEveryKeyWithItsDefault)
{
    const std::string manual = read_whole(ZEB_MANUAL);
    for (const config_key &key : config_keys()) {
        std::string value = config_text(configuration(), key);
        std::erase(value, '"');
        const std::string row =
            "\n| `" + std::string(key.name) + "` | " + (value.empty() ? "empty" : value) + " | ";
        EXPECT_NE(manual.find(row), std::string::npos) << row;
    }
}

/* Who runs another service by the book must not find zebd in its place. */
TEST(Config, TheDefaultPortBelongsToNoOtherService)
{
    std::ifstream services("/etc/services");
    for (std::string line; std::getline(services, line);)
        EXPECT_EQ(line.find("\t" + std::to_string(defaultPort) + "/"), std::string::npos) << line;
}

/* ---- The program ---- */

struct Zebd : testing::Test {
    process::zebd daemon;
    std::string file = testing::TempDir() + "zebd-" + std::to_string(getpid()) + ".toml";

    ~Zebd() override
    {
        std::remove(file.c_str());
    }

    void write_file(std::string_view text) const
    {
        std::ofstream(file) << text;
    }

    static process::outcome zebd(process::arguments options, const process::environment &env = {})
    {
        options.insert(options.begin(), ZEBD_PATH);
        return process::run(options, "", env);
    }

    bool reread()
    {
        daemon.errText.clear();
        process::send_signal(daemon, SIGHUP);
        return process::wait_for_err(daemon, "SIGHUP: ");
    }
};

TEST_F(Zebd, CheckAcceptsAValidFile)
{
    write_file("port = 1\n");
    const process::outcome result = zebd({"--check", file});
    EXPECT_EQ(result.code, 0);
    EXPECT_EQ(result.out, file + ": valid\n");
    EXPECT_EQ(result.err, "");
}

TEST_F(Zebd, CheckRefusesAnInvalidFileWithPositions)
{
    write_file("[queue]\nsoft = \"much\"\nhart = 2\n");
    const process::outcome result = zebd({"--check", file});
    EXPECT_EQ(result.code, 1);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err, "<3>" + file + ":2:8: queue.soft must be a whole number\n<3>" + file +
                              ":3:1: unknown key queue.hart\n");
}

TEST_F(Zebd, CheckRefusesAFileThatIsNotThere)
{
    const process::outcome result = zebd({"--check", file});
    EXPECT_EQ(result.code, 1);
    EXPECT_EQ(result.err, "<3>" + file + ": cannot be read: No such file or directory\n");
}

TEST_F(Zebd, ALineOfTheLogIsCutAtAPipesLength)
{
    const std::string err = zebd({"--check", std::string(6000, 'x')}).err;
    EXPECT_EQ(err.size(), 4096u);
    EXPECT_EQ(err.find('\n'), 4095u);
}

TEST_F(Zebd, DoesNotStartWithAnInvalidFile)
{
    write_file("port = x\n");
    const process::outcome result = zebd({"--config", file});
    EXPECT_EQ(result.code, 1);
    EXPECT_NE(result.err.find(file + ":1:"), std::string::npos) << result.err;
}

/* A port that is taken shows which one was asked for. */
TEST_F(Zebd, TheFileWinsOverTheEnvironmentAndAnOptionOverTheFile)
{
    process::start_zebd(daemon);
    ASSERT_NE(daemon.port, 0);
    const std::string taken = std::to_string(daemon.port);
    write_file("port = " + taken + "\n");
    EXPECT_EQ(zebd({"--config", file}, {{"TAMBEK_ZEB_PROXY_PORT", "1"}}).code, 2);
    write_file("port = 1\n");
    const process::outcome result =
        zebd({"--config", file, "--port", taken}, {{"TAMBEK_ZEB_PROXY_PORT", "2"}});
    EXPECT_NE(result.err.find("port " + taken), std::string::npos) << result.err;
}

TEST_F(Zebd, SetReachesEveryKeyAndRefusesOthers)
{
    EXPECT_EQ(zebd({"--set", "queue.soft"}).code, 1);
    EXPECT_EQ(zebd({"--set", "queue.sofd=1"}).err, "<3>option for queue.sofd: unknown key\n");
    EXPECT_EQ(
        zebd({"--set", "queue.policy=hope"}).err,
        "<3>option for queue.policy: queue.policy must be one of: disconnect drop-oldest drop-newest\n");
    EXPECT_EQ(zebd({"--set", "limits.line=12k"}).err,
              "<3>option for limits.line: limits.line must be a whole number\n");
}

TEST_F(Zebd, TakesALimitFromTheFile)
{
    write_file("[limits]\nclients = 1\n");
    process::start_zebd(daemon, {"--config", file});
    peer first, second;
    ASSERT_TRUE(first.join(daemon.port));
    ASSERT_TRUE(second.dial(daemon.port));
    EXPECT_TRUE(second.hear_end());
}

TEST_F(Zebd, SighupAppliesWhatCanChangeAtOnceAlsoToThoseConnected)
{
    write_file("[limits]\nbody = 1000\n");
    process::start_zebd(daemon, {"--config", file});
    peer client;
    ASSERT_TRUE(client.join(daemon.port));
    write_file("[limits]\nbody = 4\n");
    ASSERT_TRUE(reread());
    ASSERT_TRUE(process::wait_for_err(daemon, "SIGHUP: configuration read, 1 keys changed\n"))
        << daemon.errText;
    EXPECT_NE(daemon.errText.find("<6>configuration: limits.body = 4\n"), std::string::npos);
    ASSERT_TRUE(client.say(wire::messageEvent));
    EXPECT_TRUE(client.hear_end());
    EXPECT_TRUE(process::wait_for_err(daemon, "5 is above the limit of 4\n"));
}

/* 30 MB wait for the client, within the limits of the beginning. */
TEST_F(Zebd, SighupAppliesLimitsOfQueuesToThoseConnected)
{
    for (const auto &[keys, said] :
         {std::pair("soft = 1000\nsoft_seconds = 0.2", "waiting for it, the soft limit is 1000\n"),
          std::pair("hard = 1000", "waiting for it, the hard limit is 1000\n"),
          std::pair("total = 1048576", "the longest queue while the limit of all is 1048576\n")}) {
        process::zebd served;
        write_file("");
        process::start_zebd(served, {"--config", file});
        peer lazy, from;
        ASSERT_TRUE(lazy.join(served.port) && lazy.subscribe());
        ASSERT_TRUE(from.join(served.port));
        const std::string event = wire::with(wire::bareEvent, "Content-Length: 0", "Content-Length: 500000") +
                                  std::string(500000, 'x');
        for (int i = 0; i < 60; i++)
            ASSERT_TRUE(from.say(event));
        ASSERT_TRUE(
            from.subscribe(wire::with(wire::subscribeEverything, "Subscription: ", "Subscription: null")));
        write_file("[queue]\n" + std::string(keys) + "\n");
        process::send_signal(served, SIGHUP);
        EXPECT_TRUE(process::wait_for_err(served, said)) << served.errText;
        EXPECT_TRUE(lazy.hear_end());
        EXPECT_TRUE(from.subscribe());
    }
}

TEST_F(Zebd, SighupAppliesTheTimeOfAStallToThoseConnected)
{
    write_file("[limits]\nstall_seconds = 0\n");
    process::start_zebd(daemon, {"--config", file});
    peer client, other;
    ASSERT_TRUE(client.join(daemon.port) && client.say(wire::messageEvent.substr(0, 100)));
    ASSERT_TRUE(other.join(daemon.port) && other.subscribe());
    std::this_thread::sleep_for(std::chrono::milliseconds(500)); /* now nothing else has a deadline */
    write_file("[limits]\nstall_seconds = 0.2\n");
    ASSERT_TRUE(reread());
    EXPECT_TRUE(process::wait_for_err(daemon, "ended: the rest of a message did not come in time\n"))
        << daemon.errText;
    EXPECT_TRUE(client.hear_end());
    EXPECT_TRUE(other.subscribe());
}

TEST_F(Zebd, SighupSaysWhatNeedsARestart)
{
    write_file("");
    process::start_zebd(daemon, {"--config", file});
    write_file("instance = \"west\"\n");
    ASSERT_TRUE(reread());
    EXPECT_NE(daemon.errText.find("<6>configuration: instance = \"west\" takes effect after a restart\n"),
              std::string::npos)
        << daemon.errText;
}

TEST_F(Zebd, SighupRefusesAnInvalidFileAndChangesNothing)
{
    write_file("");
    process::start_zebd(daemon, {"--config", file});
    peer client;
    ASSERT_TRUE(client.join(daemon.port));
    write_file("[limits]\nbody = 4\nclients = 0\n");
    ASSERT_TRUE(reread());
    EXPECT_NE(daemon.errText.find("<3>" + file +
                                  ":3:11: limits.clients must be from 1 to 1000000\n"
                                  "<3>SIGHUP: the configuration is refused, nothing changes\n"),
              std::string::npos)
        << daemon.errText;
    ASSERT_TRUE(client.say(wire::messageEvent));
    EXPECT_TRUE(client.subscribe());
}

TEST_F(Zebd, SighupWithoutAFileIsHarmless)
{
    process::start_zebd(daemon);
    ASSERT_TRUE(reread());
    peer client;
    EXPECT_TRUE(client.join(daemon.port));
}

} // namespace
