/* Processes that exit while their threads publish, receive and are called back, without ending the runtime.
 */
#include "environment.h"
#include "patience.h"
#include "process.h"
#include "storm.h"

#include <zeb.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <gtest/gtest.h>
#include <random>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace
{

using namespace storms;
using zebtest::milliseconds;

int32_t ignore(zeb_notification *, void *)
{
    return 0;
}

[[noreturn]] void work_and_exit(unsigned microseconds, int code)
{
    if (zeb_init() != 0)
        _exit(90);
    zeb_subscriber *called = zeb_subscriber_create_async("/storm/exit", "storm", nullptr, nullptr);
    zeb_subscriber *received = zeb_subscriber_create_async("/storm/exit", "storm", "(\"storm=1\")", nullptr);
    zeb_subscriber_registercallback(called, ignore, nullptr, code % 2);
    std::thread([=] {
        while (zeb_subscriber_status(received, nullptr) != ZEB_SUBSCRIBED)
            usleep(100);
        while (zeb_notification *n = zeb_subscriber_receive(received, 1, 0))
            zeb_subscriber_relinquish(received, n);
    }).detach();
    zeb_publisher *publisher = zeb_publisher_create("storm");
    std::thread([=] {
        for (;;) {
            zeb_publisher_publish(publisher, zeb_notification_create("/storm/exit", "body", 4));
            usleep(50);
        }
    }).detach();
    usleep(microseconds);
    exit(code);
}

TEST(exits, a_process_that_works_may_exit_without_shutdown)
{
    if (zebtest::addressSanitizer)
        GTEST_SKIP() << "what is not shut down counts as leaked there";
    process::zebd daemon;
    process::start_zebd(daemon, {"--log-level", "error"});
    ASSERT_NE(daemon.port, 0);
    zebtest::clean_environment();
    zebtest::configure("/nonexistent", daemon.port);
    const int all = amount(40, 1000);
    std::mt19937_64 random(seed());
    milliseconds most{0};
    for (int i = 0; i < all; i++) {
        const auto rest = static_cast<unsigned>(random() % 8000);
        const int code = 5 + i % 2;
        const pid_t child = fork();
        if (child == 0)
            work_and_exit(rest, code);
        const zebtest::stopwatch watch;
        int status = -1;
        const bool ended = zebtest::eventually([&] { return waitpid(child, &status, WNOHANG) == child; });
        if (!ended) {
            kill(child, SIGKILL);
            waitpid(child, &status, 0);
        }
        EXPECT_TRUE(ended && WIFEXITED(status) && WEXITSTATUS(status) == code)
            << "status " << status << " after " << rest << " microseconds";
        most = std::max(most, watch.elapsed());
    }
    figure("exits", "%d exits without shutdown; the longest life %lld ms", all,
           static_cast<long long>(most.count()));
}

} // namespace
