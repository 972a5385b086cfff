/* A daemon that dies under its clients, over and over. They find each successor by themselves, go on where
 * they were, and need no more for the last one than for the first. */
#include "crew.h"
#include "fake_daemon.h"
#include "storm.h"

#include <csignal>

namespace
{

using namespace storms;

class restarts : public testing::Test
{
  protected:
    static constexpr double mostPerCycle = 1; /* kilobytes */

    void SetUp() override
    {
        signal(SIGPIPE, SIG_IGN);
        reservation.refuse();
        start_daemon(reservation.port());
        ASSERT_NE(daemon->port, 0);
        const process::environment env = {{"TAMBEK_ZEB_PROXY_PORT", std::to_string(daemon->port)},
                                          {"TAMBEK_HOME", "/nonexistent"}};
        for (const char *mode : {"callback", "receive"}) {
            members.push_back(std::make_unique<member>());
            members.back()->join(mode, mode, env);
        }
        looks.resize(members.size());
    }

    void start_daemon(uint16_t port)
    {
        daemon = std::make_unique<process::zebd>();
        process::start_zebd(*daemon, {"--log-level", "error"}, {}, port);
    }

    /* Kills the daemon at work, and waits until everyone works with the next one. */
    void restart(bool inTheMiddleOfEverything)
    {
        for (const auto &each : members) {
            each->churn(inTheMiddleOfEverything);
            each->publish_every(1000);
        }
        for (const auto &each : members) { /* under load: what is asked now was published after that began */
            const uint64_t before = each->ask().sum(&sequence_report::count);
            EXPECT_TRUE(
                zebtest::eventually([&] { return each->ask().sum(&sequence_report::count) > before + 10; }));
        }
        const uint16_t port = daemon->port;
        process::send_signal(*daemon, SIGKILL);
        EXPECT_EQ(process::finish(*daemon), 128 + SIGKILL);
        start_daemon(port);
        ASSERT_EQ(daemon->port, port);
        for (const auto &each : members) {
            each->publish_every(0);
            each->churn(false);
        }
        ASSERT_TRUE(settle(all_of(members), all_of(members)));
    }

    void look_at_all()
    {
        for (size_t i = 0; i < members.size(); i++)
            EXPECT_EQ(look_at(members[i]->pid, looks[i]), "") << members[i]->name;
    }

    /* Kilobytes from one restart to the next; the first fifty may fill what is kept for good. */
    static double growth(const usage_record &s)
    {
        const size_t skipped = std::min<size_t>(50, s.kilobytes.size() / 2);
        return slope({s.kilobytes.begin() + static_cast<ptrdiff_t>(skipped), s.kilobytes.end()});
    }

    zebtest::fake_daemon reservation; /* of a port: nobody else gets it while no daemon is there */
    std::unique_ptr<process::zebd> daemon;
    crew members;
    std::vector<usage_record> looks;
};

TEST_F(restarts, the_last_costs_no_more_than_the_first)
{
    const int all = amount(3, 500);
    look_at_all(); /* before anything is lost */
    for (int done = 0; done < all && !HasFatalFailure(); done++) {
        restart(done % 5 == 4);
        look_at_all();
    }
    for (size_t i = 0; i < members.size(); i++) {
        const report r = members[i]->ask();
        const usage_record &s = looks[i];
        figure("restarts",
               "client %s: %d restarts, %lu delivered, %lu twice or out of order, %lu damaged; %.0f "
               "descriptors and "
               "%.0f threads before, %.0f and %.0f after; %+.3f KB a restart, %.0f KB in the end",
               members[i]->name.c_str(), all, r.sum(&sequence_report::count), r.sum(&sequence_report::back),
               r.sum(&sequence_report::damaged), s.first.descriptors, s.first.threads, s.last.descriptors,
               s.last.threads, growth(s), s.last.kilobytes);
        EXPECT_EQ(r.sum(&sequence_report::back), 0U);
        EXPECT_EQ(r.sum(&sequence_report::damaged), 0U);
        if (all >= 200) {
            EXPECT_LT(growth(s), mostPerCycle);
        }
        EXPECT_EQ(members[i]->leave(), 0);
    }
}

} // namespace
