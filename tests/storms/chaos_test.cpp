/* Connections that break at any octet. Two clients publish numbers, five receive them, all through a proxy
 * that cuts one connection after the other. Afterwards every number is followed on its whole way: what the
 * kernel took from the library, what the proxy passed on to the daemon, what it passed on to each receiver,
 * and what arrived there. */
#include "chaos_proxy.h"
#include "crew.h"
#include "environment.h"
#include "storm.h"
#include "traffic.h"

#include <algorithm>
#include <filesystem>
#include <fstream>

namespace
{

using namespace storms;

/* Something on its way, with the word of who passed it on. */
struct passed_on {
    uint64_t number = 0;
    std::string name;
    bool sure = true; /* false: the connection ended before the other side acknowledged it */
};

std::vector<passed_on> passed_on_in(const lane &l)
{
    std::vector<passed_on> all;
    for (const numbered &each : notifications_in(l.passed))
        all.push_back({each.number, each.name, each.end <= l.count - l.doubtful});
    return all;
}

struct tally {
    uint64_t published = 0, forwarded = 0, lost = 0, delivered = 0;
    uint64_t twice = 0, disordered = 0, unexplained = 0;
};

class chaos : public testing::Test
{
  protected:
    void SetUp() override
    {
        signal(SIGPIPE, SIG_IGN);
        process::start_zebd(daemon);
        ASSERT_NE(daemon.port, 0);
        const uint64_t chosen = seed();
        figure("chaos", "seed %lu", chosen);
        proxy = std::make_unique<chaos_proxy>(daemon.port, chosen, true);
        env = {{"TAMBEK_ZEB_PROXY_PORT", std::to_string(proxy->port())}, {"TAMBEK_HOME", "/nonexistent"}};
    }

    void start(crew &side, const std::string &name, const std::string &mode)
    {
        side.push_back(std::make_unique<member>());
        side.back()->join(name, mode, env, true);
    }

    /* Cuts until there were so many. */
    void cut_under_load(uint64_t wanted)
    {
        for (const auto &each : publishers)
            each->publish_every(1000);
        proxy->disturb(true);
        EXPECT_TRUE(zebtest::eventually([&] { return proxy->counts().all_cuts() >= wanted; },
                                        zebtest::milliseconds{1000 * 60 * 5}));
        proxy->disturb(false);
        for (const auto &each : publishers)
            each->publish_every(0);
    }

    /* Nothing breaks any more: not one may be missing. */
    void expect_peace()
    {
        const auto senders = all_of(publishers), receivers = all_of(subscribers);
        ASSERT_TRUE(settle(senders, receivers));
        std::vector<uint64_t> gaps;
        for (member *each : receivers)
            gaps.push_back(each->ask().sum(&sequence_report::gaps));
        for (member *each : senders)
            each->publish(500);
        EXPECT_TRUE(all_arrived(senders, receivers));
        for (size_t i = 0; i < receivers.size(); i++) {
            const report last = receivers[i]->ask();
            EXPECT_EQ(last.sum(&sequence_report::gaps), gaps[i]) << receivers[i]->name;
            EXPECT_EQ(last.sum(&sequence_report::damaged), 0U) << receivers[i]->name;
        }
    }

    /* Counts something without an explanation, and tells the first of them. */
    void wonder(const std::string &what)
    {
        if (sum.unexplained++ < 10)
            ADD_FAILURE() << what;
    }

    /* The records of a client, which has ended then. */
    std::string records_of(member &client)
    {
        std::string directory = home.path() + "/" + client.name;
        std::filesystem::create_directory(directory);
        client.tell({"save", directory});
        EXPECT_EQ(client.hear("save"), "save");
        EXPECT_EQ(client.leave(), 0) << client.errText;
        return directory;
    }

    /* The proxy's view of a connection that a client made: the first one at that port that fits. */
    const connection *find(const taken &made)
    {
        const auto fits = [&](const connection &c) {
            return c.clientPort == made.port &&
                   made.octets.compare(0, c.lanes[0].passed.size(), c.lanes[0].passed) == 0;
        };
        const auto at = std::find_if(connections.begin(), connections.end(), fits);
        if (at == connections.end())
            return nullptr;
        const connection *found = &*seen.insert(seen.end(), std::move(*at));
        connections.erase(at);
        return found;
    }

    void collect_connections()
    {
        EXPECT_TRUE(zebtest::eventually([&] { return proxy->is_idle(); }));
        for (connection &c : proxy->past())
            connections.push_back(std::move(c));
        connections.sort([](const connection &a, const connection &b) { return a.serial < b.serial; });
    }

    /* The library wrote every number once, as a whole and in order, however many connections it took; and
     * what the daemon did not get was all in the hands of the kernel. */
    void follow_to_daemon(const member &client, const std::string &records)
    {
        uint64_t next = 0;
        for (const taken &made : read_taken(records + "/taken")) {
            const std::vector<numbered> whole = notifications_in(made.octets);
            for (const numbered &each : whole) {
                sum.twice += each.number < next ? 1 : 0;
                if (each.number > next)
                    wonder(client.name + " never wrote what is before " + std::to_string(each.number));
                next = each.number + 1;
            }
            const connection *c = find(made);
            if (c == nullptr) {
                wonder("a connection of " + client.name + " that the proxy does not know");
                continue;
            }
            const std::vector<passed_on> passed = passed_on_in(c->lanes[0]);
            sum.forwarded += passed.size();
            sum.lost += whole.size() - passed.size();
            auto &all = atDaemon[client.name];
            all.insert(all.end(), passed.begin(), passed.end());
        }
        EXPECT_EQ(next, client.published) << client.name;
        sum.published += client.published;
    }

    /* On one connection to a receiver the numbers of one publisher are a stretch of those the daemon got. */
    void expect_stretch(const std::vector<passed_on> &got, const std::string &name)
    {
        const std::vector<passed_on> &all = atDaemon[name];
        auto at = all.begin();
        bool began = false;
        for (const passed_on &each : got) {
            if (each.name != name)
                continue;
            if (!began)
                at = std::find_if(at, all.end(), [&](const passed_on &p) { return p.number == each.number; });
            began = true;
            while (at != all.end() && at->number != each.number && !at->sure)
                ++at;
            if (at == all.end() || at->number != each.number)
                wonder("the daemon left something out of " + name + " before " + std::to_string(each.number));
            else
                ++at;
        }
    }

    /* What was passed on to the receiver and certainly got there has arrived, once and in order. */
    void follow_to_receiver(const member &client, const std::string &records)
    {
        std::vector<passed_on> sent;
        for (const taken &made : read_taken(records + "/taken")) {
            const connection *c = find(made);
            if (c == nullptr) {
                wonder("a connection of " + client.name + " that the proxy does not know");
                continue;
            }
            const std::vector<passed_on> passed = passed_on_in(c->lanes[1]);
            for (const auto &each : publishers)
                expect_stretch(passed, each->name);
            sent.insert(sent.end(), passed.begin(), passed.end());
        }
        const std::vector<numbered> arrived = read_arrived(records + "/arrived");
        compare(sent, arrived, client.name);
        std::map<std::string, uint64_t> next;
        for (const numbered &each : arrived) {
            sum.disordered += each.number < next[each.name] ? 1 : 0;
            next[each.name] = each.number + 1;
        }
        sum.delivered += arrived.size();
    }

    void compare(const std::vector<passed_on> &sent, const std::vector<numbered> &arrived,
                 const std::string &receiver)
    {
        size_t at = 0;
        for (const passed_on &each : sent) {
            if (at < arrived.size() && arrived[at].name == each.name && arrived[at].number == each.number)
                at++;
            else if (each.sure)
                wonder(receiver + " never got " + each.name + " " + std::to_string(each.number));
        }
        if (at < arrived.size())
            wonder(receiver + " got " + arrived[at].name + " " + std::to_string(arrived[at].number) +
                   ", which was not sent then, and " + std::to_string(arrived.size() - at - 1) + " more");
    }

    void print() const
    {
        const proxy_counts c = proxy->counts();
        figure("chaos",
               "%lu cuts: %lu closed, %lu reset, %lu half closed; %lu octet by octet, %lu after a stall, %lu "
               "with delays, %lu in the handshake; %lu connections",
               c.all_cuts(), c.cuts[0], c.cuts[1], c.cuts[2], c.ways[1], c.ways[2], c.ways[3], c.inHandshake,
               c.connections);
        figure("chaos",
               "%lu published, %lu of them forwarded to the daemon, %lu taken by the kernel and not "
               "forwarded; %lu "
               "delivered, %lu "
               "twice, %lu out of order, %lu unexplained",
               sum.published, sum.forwarded, sum.lost, sum.delivered, sum.twice, sum.disordered,
               sum.unexplained);
    }

    process::zebd daemon;
    std::unique_ptr<chaos_proxy> proxy;
    process::environment env;
    crew publishers, subscribers;
    zebtest::temporary_home home;
    std::list<connection> connections, seen; /* those that no client has claimed yet; the others */
    std::map<std::string, std::vector<passed_on>> atDaemon;
    tally sum;
};

TEST_F(chaos, what_was_forwarded_arrives_once_and_in_order_and_nothing_is_missing_without_a_reason)
{
    for (const char *name : {"alpha", "beta"})
        start(publishers, name, "none");
    int number = 0;
    for (const char *mode : {"receive", "receive", "callback", "callback", "list"})
        start(subscribers, "r" + std::to_string(number++), mode);
    ASSERT_TRUE(settle(all_of(publishers), all_of(subscribers)));
    cut_under_load(static_cast<uint64_t>(amount(20, 200)));
    expect_peace();
    std::map<member *, std::string> records;
    for (const crew *side : {&publishers, &subscribers})
        for (member *each : all_of(*side))
            records[each] = records_of(*each);
    collect_connections();
    for (member *each : all_of(publishers))
        follow_to_daemon(*each, records[each]);
    for (member *each : all_of(subscribers))
        follow_to_receiver(*each, records[each]);
    print();
    EXPECT_EQ(sum.twice, 0U);
    EXPECT_EQ(sum.disordered, 0U);
    EXPECT_EQ(sum.unexplained, 0U);
    EXPECT_EQ(proxy->counts().clung, 0U);
    EXPECT_GT(sum.delivered, sum.published);
}

} // namespace
