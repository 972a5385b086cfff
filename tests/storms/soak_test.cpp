/* Everything at once, for as long as one likes: a daemon and clients that publish, receive, and make and
 * close subscribers, streams and remote calls, while one connection after the other is cut. From time to time
 * all hold still, what was published has to be everywhere, and it is seen what each process uses. */
#include "chaos_proxy.h"
#include "crew.h"
#include "storm.h"

#include <algorithm>
#include <cstdlib>
#include <thread>

namespace
{

using namespace storms;
using std::chrono::milliseconds;

/* What one process used, period by period. */
struct history : usage_record {
    std::string name;
    pid_t pid;

    history(std::string of, pid_t process) : name(std::move(of)), pid(process) {}
};

class soak : public testing::Test
{
  protected:
    static constexpr double mostGrowth = 512; /* kilobytes, over all of the time that is looked at */

    /* Identifiers are never given out again, so each that was leaves eight octets in a table that doubles. A
     * round of churn takes four of a subscriber and four of a publisher. */
    static constexpr double kilobytesPerRound = 8 * 8 * 2 / 1024.0;

    static constexpr size_t fewest = 20; /* periods, for a judgement of memory */

    void SetUp() override
    {
        signal(SIGPIPE, SIG_IGN);
        process::start_zebd(daemon, {"--log-level", "error"});
        ASSERT_NE(daemon.port, 0);
        proxy = std::make_unique<chaos_proxy>(daemon.port, seed(), false);
        const process::environment env = {{"TAMBEK_ZEB_PROXY_PORT", std::to_string(proxy->port())},
                                          {"TAMBEK_HOME", "/nonexistent"}};
        const char *const modes[] = {"receive", "callback", "list"};
        for (int i = 0; i < amount(6, 20); i++) {
            members.push_back(std::make_unique<member>());
            members.back()->join("m" + std::to_string(i), modes[i % 3], env);
        }
        for (const auto &each : members)
            histories.emplace_back(each->name, each->pid);
        histories.emplace_back("zebd", daemon.pid);
    }

    static int periods()
    {
        const char *minutes = getenv("ZEB_STORM_MINUTES");
        return minutes != nullptr ? std::max(1, atoi(minutes)) : amount(2, 60);
    }

    static milliseconds period()
    {
        return milliseconds{amount(1000, 60000)};
    }

    void work(bool wanted)
    {
        for (const auto &each : members)
            each->publish_every(wanted ? 200000 : 0);
        for (const auto &each : members)
            each->churn(wanted);
    }

    /* Works on until the period is over; one connection is cut in the middle of it. */
    void spend_period(milliseconds length)
    {
        work(true);
        std::this_thread::sleep_for(length / 2);
        proxy->cut_one();
        std::this_thread::sleep_for(length / 2);
        work(false);
        ASSERT_TRUE(settle(all_of(members), all_of(members)));
        process::poll_output(daemon);
    }

    /* By how much memory has risen since the first third, or the first hour. */
    static double growth(const history &h)
    {
        const size_t skipped = std::min<size_t>(h.kilobytes.size() / 3, 60);
        const std::vector<double> rest(h.kilobytes.begin() + static_cast<ptrdiff_t>(skipped),
                                       h.kilobytes.end());
        return slope(rest) * static_cast<double>(rest.size());
    }

    void expect_flat() const
    {
        for (size_t i = 0; i < histories.size(); i++) {
            const double rounds = i < members.size() ? static_cast<double>(members[i]->ask().rounds) : 0;
            if (histories[i].kilobytes.size() >= fewest) {
                EXPECT_LT(growth(histories[i]), mostGrowth + rounds * kilobytesPerRound) << histories[i].name;
            }
        }
    }

    void print(int done) const
    {
        uint64_t delivered = 0, back = 0, damaged = 0, rounds = 0;
        for (const auto &each : members) {
            const report r = each->ask();
            delivered += r.sum(&sequence_report::count);
            back += r.sum(&sequence_report::back);
            damaged += r.sum(&sequence_report::damaged);
            rounds += r.rounds;
        }
        EXPECT_EQ(back, 0U);
        EXPECT_EQ(damaged, 0U);
        EXPECT_EQ(proxy->counts().clung, 0U);
        double most = 0;
        for (size_t i = 0; i + 1 < histories.size(); i++)
            most = std::max(most, growth(histories[i]));
        const history &zebd = histories.back();
        figure("soak",
               "%d periods of %lld s, %zu clients, %lu cuts; %lu delivered, %lu twice or out of order, %lu "
               "damaged; "
               "%lu rounds of churn; memory since the warm-up: daemon %+.0f KB of %.0f, the worst client "
               "%+.0f KB",
               done, static_cast<long long>(period().count() / 1000), members.size(),
               proxy->counts().all_cuts(), delivered, back, damaged, rounds, growth(zebd),
               zebd.last.kilobytes, most);
    }

    process::zebd daemon;
    std::unique_ptr<chaos_proxy> proxy;
    crew members;
    std::vector<history> histories;
};

TEST_F(soak, nothing_grows_and_nothing_comes_twice_or_out_of_order)
{
    const int all = periods();
    for (int done = 1; done <= all && !HasFatalFailure(); done++) {
        spend_period(period());
        if (done == 1)
            std::this_thread::sleep_for(milliseconds{1500}); /* the threads of closed subscribers end */
        for (history &h : histories)
            EXPECT_EQ(look_at(h.pid, h), "") << h.name;
        if (done % 10 == 0 || done == all)
            print(done);
    }
    expect_flat();
    for (const auto &each : members)
        EXPECT_EQ(each->leave(), 0) << each->name;
}

} // namespace
