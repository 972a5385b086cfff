/* Every counter that the manual names is provoked in a running zebd and read from it: none of them is there
 * for show. */
#include "addresslist.h"
#include "administrator.h"
#include "peer.h"

#include <csignal>
#include <fstream>
#include <functional>
#include <gtest/gtest.h>
#include <iterator>
#include <list>
#include <map>
#include <set>
#include <sstream>

using nlohmann::json;

namespace
{

using names = std::set<std::string>;

/* Texts in backticks in the second column of the table whose first column is a metric. */
names counters_of_the_manual()
{
    std::ifstream manual(ZEB_MANUAL);
    names result;
    for (std::string line; std::getline(manual, line);) {
        if (!line.starts_with("| `zebd_"))
            continue;
        const size_t begin = line.find('|', 1) + 1;
        std::istringstream column(line.substr(begin, line.find('|', begin) - begin));
        for (std::string before, name; std::getline(column, before, '`') && std::getline(column, name, '`');)
            result.insert(name);
    }
    return result;
}

std::string event_of(size_t octets)
{
    return wire::with(wire::bareEvent, "Content-Length: 0", "Content-Length: " + std::to_string(octets)) +
           std::string(octets, 'x');
}

/* A daemon for one counter or a few. */
struct scene {
    process::zebd daemon;
    std::string base = testing::TempDir() + "zebd-counters-" + std::to_string(getpid());
    std::string socket = base + ".sock", file = base + ".toml";
    administrator admin;
    peer client;

    ~scene()
    {
        unlink(socket.c_str());
        unlink(file.c_str());
    }

    void write_file(const std::string &content) const
    {
        std::ofstream(file) << content;
    }

    void serve(const std::string &configuration = "", const std::string &before = "")
    {
        write_file(configuration);
        const std::string command =
            before + "exec \"$0\" --port 0 --ready-fd 3 --log-level debug --config \"$1\" --admin \"$2\"";
        process::start(daemon, {"/bin/sh", "-c", command, ZEBD_PATH, file, socket}, {}, true);
        daemon.port = process::ready_port(daemon);
        ASSERT_NE(daemon.port, 0);
        ASSERT_TRUE(admin.dial(socket));
        ASSERT_TRUE(client.join(daemon.port));
    }

    int64_t counter(const std::string &name)
    {
        process::poll_output(daemon);
        return admin.ask("counters")["counters"].value(name, int64_t{-1});
    }

    bool rises(const std::string &name, const std::function<bool()> &provoke)
    {
        for (int i = 0; i < 3000; i++) {
            if (!provoke())
                return false;
            if (counter(name) > 0)
                return true;
        }
        return false;
    }

    /* Somebody subscribes to everything and reads nothing, until the counter has risen. */
    bool rises_behind_a_slow_client(const std::string &name)
    {
        peer slow;
        return slow.join(daemon.port) && slow.subscribe() &&
               rises(name, [this] { return client.say(event_of(500000)) && client.round_trip(); });
    }
};

using provocation = bool (*)(scene &);

bool events(scene &s)
{
    s.serve();
    return s.client.subscribe() && s.client.say(wire::messageEvent) &&
           s.client.hear("he\r\nl").ends_with("he\r\nl");
}

bool slow(scene &s, const std::string &configuration, const std::string &name)
{
    s.serve("[queue]\n" + configuration);
    return s.rises_behind_a_slow_client(name);
}

bool say_until(scene &s, const std::string &configuration, const std::string &text, const std::string &name)
{
    s.serve(configuration);
    return s.client.say(text) && s.rises(name, [] { return true; });
}

/* Another client that says something and is ended for it, or the same for itself. */
bool ended(scene &s, const std::string &configuration, const std::string &text, const std::string &name)
{
    s.serve(configuration);
    peer other;
    return other.dial(s.daemon.port) && other.say(text) && s.rises(name, [] { return true; });
}

bool reset(scene &s)
{
    s.serve();
    peer other;
    const linger atOnce{1, 0};
    if (!other.join(s.daemon.port) ||
        setsockopt(other.fd, SOL_SOCKET, SO_LINGER, &atOnce, sizeof(atOnce)) != 0)
        return false;
    other.hang_up();
    return s.rises("endedSocket", [] { return true; });
}

bool address_gone(scene &s)
{
    const std::string list = addresslist::destinations({addresslist::octets(1, 999)});
    const std::string text =
        wire::with(wire::bareEvent, "AddrList-Length: 0", "AddrList-Length: " + std::to_string(list.size()));
    return say_until(s, "", text + list, "addressGone");
}

bool reread(scene &s, const std::string &content, const std::string &name)
{
    s.serve();
    s.write_file(content);
    process::send_signal(s.daemon, SIGHUP);
    return s.rises(name, [] { return true; });
}

bool without_descriptors(scene &s)
{
    s.serve("", "ulimit -n 30; ");
    if (s.counter("acceptFailures") != 0) /* whoever asks afterwards has been accepted before */
        return false;
    std::list<peer> many(40);
    for (peer &each : many)
        if (!each.dial(s.daemon.port))
            return false;
    return s.rises("acceptFailures", [] { return true; });
}

bool log_suppressed(scene &s)
{
    s.serve("log.lines_per_second = 1\n");
    return s.rises("logSuppressed", [&s] {
        peer other;
        return other.dial(s.daemon.port) && other.say("nonsense\r\n") && other.hear_end();
    });
}

/* Nobody reads the log meanwhile. */
bool log_lost(scene &s)
{
    s.serve();
    for (int i = 0; i < 3000; i++) {
        peer other;
        if (!other.join(s.daemon.port))
            return false;
        if (i % 100 == 99 && s.admin.ask("counters")["counters"].value("logLost", 0) > 0)
            return true;
    }
    return false;
}

struct provoked {
    std::string name;
    provocation provoke;
};

const std::vector<provoked> all = {
    {"eventsIn", events},
    {"eventsRouted", events},
    {"eventsOut", events},
    {"bytesIn", events},
    {"bytesOut", events},
    {"clientsAccepted", events},
    {"adminRequests", events},
    {"droppedSoft",
     [](scene &s) {
         return slow(s, "policy = \"drop-oldest\"\nsoft = 1000000\nsoft_seconds = 0.1", "droppedSoft");
     }},
    {"droppedHard",
     [](scene &s) { return slow(s, "policy = \"drop-oldest\"\nhard = 2000000", "droppedHard"); }},
    {"droppedTotal",
     [](scene &s) { return slow(s, "policy = \"drop-oldest\"\ntotal = 2000000", "droppedTotal"); }},
    {"eventsNotTaken",
     [](scene &s) { return slow(s, "policy = \"drop-newest\"\nhard = 2000000", "eventsNotTaken"); }},
    {"endedQueue", [](scene &s) { return slow(s, "hard = 2000000", "endedQueue"); }},
    {"unroutable",
     [](scene &s) {
         const std::string text = wire::with(wire::stateEvent, "AddrList-Length: 4", "AddrList-Length: 0");
         return say_until(s, "", wire::with(text, "okADDR", "ok"), "unroutable");
     }},
    {"addressGone", address_gone},
    {"streamsRefused",
     [](scene &s) {
         return say_until(s, "limits.streams = 0\n", std::string(wire::streamPiece), "streamsRefused");
     }},
    {"subscribersRefused",
     [](scene &s) {
         const auto text = wire::with(wire::subscribeEverything, "Subscription: ", "Subscription: (");
         return say_until(s, "", text, "subscribersRefused");
     }},
    {"membershipNotices",
     [](scene &s) {
         const auto text = wire::with(wire::subscribeEverything, "MbrInterest: null", "MbrInterest: ");
         return say_until(s, "", text, "membershipNotices");
     }},
    {"clientsRefused", [](scene &s) { return ended(s, "limits.clients = 1\n", "", "clientsRefused"); }},
    {"endedProtocol", [](scene &s) { return ended(s, "", "nonsense\r\n", "endedProtocol"); }},
    {"endedUnfinished",
     [](scene &s) {
         const std::string half = event_of(2000000).substr(0, 1500000);
         return ended(s, "limits.unfinished = 1048576\n", std::string(wire::connect) + half,
                      "endedUnfinished");
     }},
    {"endedTime", [](scene &s) { return ended(s, "limits.connect_seconds = 0.05\n", "", "endedTime"); }},
    {"endedSocket", reset},
    {"acceptFailures", without_descriptors},
    {"configurationsRead", [](scene &s) { return reread(s, "limits.clients = 99\n", "configurationsRead"); }},
    {"configurationsRefused",
     [](scene &s) { return reread(s, "limits.clients = many\n", "configurationsRefused"); }},
    {"logSuppressed", log_suppressed},
    {"logLost", log_lost},
};

struct Counter : testing::TestWithParam<provoked> {
};

/* Read in both forms. */
TEST_P(Counter, RisesWhenItIsProvoked)
{
    scene s;
    EXPECT_TRUE(GetParam().provoke(s)) << s.daemon.errText.substr(0, 2000);
    const std::string name = GetParam().name;
    EXPECT_GT(s.counter(name), 0);
}

INSTANTIATE_TEST_SUITE_P(Manual, Counter, testing::ValuesIn(all),
                         [](const auto &param) { return param.param.name; });

TEST(Counters, OfTheManualAreAllProvoked)
{
    names here;
    for (const provoked &each : all)
        here.insert(each.name);
    EXPECT_EQ(here, counters_of_the_manual());
}

/* The value of a metric without labels; -1 when it is not there. */
double metric(const std::string &text, const std::string &name)
{
    const size_t at = text.find("\n" + name + " ");
    return at == std::string::npos ? -1 : std::stod(text.substr(at + name.size() + 2));
}

TEST(Gauges, FollowWhatTheDaemonKeeps)
{
    scene s;
    s.serve();
    const std::string before = s.admin.ask("metrics")["text"];
    peer reader, sender;
    ASSERT_TRUE(reader.join(s.daemon.port) && sender.join(s.daemon.port));
    ASSERT_TRUE(reader.subscribe(
        wire::with(wire::subscribeEverything, "Subscription: ", "Subscription: !(\"zone=x\")")));
    ASSERT_TRUE(sender.say(event_of(2000000).substr(0, 1000000)));
    const auto queued = [&s] { return metric(s.admin.ask("metrics")["text"], "zebd_queued_bytes"); };
    for (int i = 0; i < 1000 && queued() < 1000000; i++)
        ASSERT_TRUE(s.client.say(event_of(500000)) && s.client.round_trip());
    const std::string after = s.admin.ask("metrics")["text"];
    EXPECT_EQ(metric(before, "zebd_clients"), 1);
    EXPECT_EQ(metric(after, "zebd_clients"), 3);
    EXPECT_EQ(metric(before, "zebd_subscribers"), 0);
    EXPECT_EQ(metric(after, "zebd_subscribers"), 2);
    EXPECT_EQ(metric(before, "zebd_unindexed_clauses"), 0);
    EXPECT_EQ(metric(after, "zebd_unindexed_clauses"), 1);
    EXPECT_EQ(metric(before, "zebd_subscriber_bytes"), 0);
    EXPECT_GT(metric(after, "zebd_subscriber_bytes"), 500);
    EXPECT_GE(metric(after, "zebd_unfinished_bytes"), 900000);
    EXPECT_GE(metric(after, "zebd_queued_bytes"), 1000000);
    EXPECT_GE(metric(after, "zebd_memory_bytes"),
              metric(after, "zebd_queued_bytes") + metric(after, "zebd_unfinished_bytes"));
    EXPECT_GE(metric(after, "zebd_uptime_seconds"), 0);
}

} // namespace
