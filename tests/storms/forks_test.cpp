/* Forks while everything is busy: threads publish, receive and are called back, and the process forks from
 * its main thread and from call-backs of both modes. No child hangs or inherits a descriptor, each that
 * starts afresh is heard, and the parent notices nothing. */
#include "environment.h"
#include "patience.h"
#include "process.h"
#include "storm.h"

#include <zeb.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <mutex>
#include <set>
#include <string>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace
{

using namespace storms;
using zebtest::milliseconds;

/* ---- Children ---- */

enum life { LEAVE, LIST, AFRESH, RETURN }; /* the last one only in a call-back */

void publish_number(zeb_publisher *publisher, const char *type, uint64_t number)
{
    const std::string body = std::to_string(number);
    zeb_publisher_publish(publisher,
                          zeb_notification_create(type, body.data(), static_cast<int32_t>(body.size())));
}

[[noreturn]] void start_afresh(int number)
{
    if (zeb_init() != 0)
        _exit(90);
    zeb_publisher *own = zeb_publisher_create("child");
    publish_number(own, "/storm/child", static_cast<uint64_t>(number));
    zeb_publisher_close(own);
    _exit(zeb_shutdown() == 0 ? 0 : 91);
}

void live(life how, int number)
{
    if (how == LEAVE)
        _exit(0);
    if (how == LIST) {
        execl(ZEB_STORM_LISTER, ZEB_STORM_LISTER, nullptr);
        _exit(92);
    }
    if (how == AFRESH)
        start_afresh(number);
}

struct child {
    pid_t pid;
    life how;
    int number;
};

std::atomic<int> left{0};   /* forks that call-backs still have to do */
std::atomic<int> number{0}; /* of the next child */
std::mutex lock;            /* guards what follows; a child must not take it */
std::vector<child> born;

/* Forks once. Returns in the child only for RETURN. */
void fork_one(life how)
{
    const int own = number++;
    const pid_t pid = fork();
    if (pid == 0) {
        live(how, own);
        return;
    }
    const std::lock_guard hold(lock);
    born.push_back({pid, how, own});
}

/* ---- The parent's load ---- */

uint64_t number_in(const zeb_notification *n)
{
    const char *body = static_cast<const char *>(zeb_notification_body(n, nullptr));
    return body != nullptr ? strtoull(body, nullptr, 10) : 0;
}

struct counters {
    std::atomic<uint64_t> published{0}, received{0}, missing{0}, called{0}, calledApart{0};
};
counters count;

int32_t called_in_order(zeb_notification *n, void *)
{
    const uint64_t at = number_in(n);
    if (at != count.called++)
        count.missing++;
    if (at % 10 == 5 && left-- > 0)
        fork_one(static_cast<life>(at / 10 % 4));
    return 0;
}

int32_t called_apart(zeb_notification *n, void *)
{
    count.calledApart++;
    const uint64_t at = number_in(n);
    if (at % 10 == 0 && left-- > 0)
        fork_one(static_cast<life>(at / 10 % 4));
    return 0;
}

class forks : public testing::Test
{
  protected:
    static constexpr milliseconds deadlock{10000};

    void SetUp() override
    {
        if (zebtest::threadSanitizer || zebtest::addressSanitizer)
            GTEST_SKIP() << "the sanitizers' own locks do not survive a fork while other threads allocate";
        for (int fd = STDERR_FILENO + 1; fd < 1024; fd++)
            fcntl(fd, F_SETFD, FD_CLOEXEC); /* what this process was given itself */
        process::start_zebd(daemon, {"--log-level", "error"});
        ASSERT_NE(daemon.port, 0);
        zebtest::configure("/nonexistent", daemon.port);
        ASSERT_EQ(zeb_init(), 0);
        publisher = zeb_publisher_create("storm");
        const char *const types[] = {"/storm/fork", "/storm/fork", "/storm/fork", "/storm/child"};
        for (size_t i = 0; i < subscribers.size(); i++)
            subscribers[i] = zeb_subscriber_create(types[i], "storm", nullptr, nullptr, nullptr);
        ASSERT_EQ(zeb_subscriber_registercallback(subscribers[1], called_in_order, nullptr, 0), 0);
        ASSERT_EQ(zeb_subscriber_registercallback(subscribers[2], called_apart, nullptr, 1), 0);
        port = own_port();
        ASSERT_NE(port, 0);
    }

    void publish_on()
    {
        while (!ending) {
            publish_number(publisher, "/storm/fork", count.published++);
            std::this_thread::sleep_for(std::chrono::microseconds(300));
        }
    }

    void receive_on()
    {
        while (zeb_notification *n = zeb_subscriber_receive(subscribers[0], 1, 0)) {
            if (number_in(n) != count.received++)
                count.missing++;
            zeb_subscriber_relinquish(subscribers[0], n);
        }
    }

    void listen_on()
    {
        while (zeb_notification *n = zeb_subscriber_receive(subscribers[3], 1, 0)) {
            {
                const std::lock_guard hold(lock);
                heard.insert(static_cast<int>(number_in(n)));
            }
            zeb_subscriber_relinquish(subscribers[3], n);
        }
    }

    bool has_heard(int child)
    {
        const std::lock_guard hold(lock);
        return heard.count(child) > 0;
    }

    /* Waits for the end of a child. */
    void expect_good_end(const child &c)
    {
        const zebtest::stopwatch watch;
        int status = 0;
        if (!zebtest::eventually([&] { return waitpid(c.pid, &status, WNOHANG) == c.pid; }, deadlock)) {
            deadlocks++;
            kill(c.pid, SIGKILL);
            waitpid(c.pid, &status, 0);
            return;
        }
        longest = std::max(longest, watch.elapsed());
        const int code = WIFEXITED(status) ? WEXITSTATUS(status) : 1000 + WTERMSIG(status);
        EXPECT_EQ(code, 0) << "child " << c.number << " of kind " << c.how;
        inherited += c.how == LIST && WIFEXITED(status) ? code : 0;
        kinds[c.how]++;
        if (c.how == AFRESH)
            afresh.push_back(c.number);
    }

    void bury()
    {
        std::vector<child> dead;
        {
            const std::lock_guard hold(lock);
            dead.swap(born);
        }
        for (const child &each : dead)
            expect_good_end(each);
    }

    /* A quarter of ALL in call-backs, the others here, one after the other. */
    void fork_all(int all)
    {
        left = all / 4;
        for (int i = 0; i < all - all / 4; i++) {
            fork_one(static_cast<life>(i % 3));
            bury();
        }
        EXPECT_TRUE(zebtest::eventually([&] {
            bury();
            return number == all;
        }));
        bury();
    }

    process::zebd daemon;
    zeb_publisher *publisher = nullptr;
    std::array<zeb_subscriber *, 4> subscribers{}; /* receive; both modes of call-backs; what children say */
    uint16_t port = 0;
    std::atomic<bool> ending{false};
    std::set<int> heard; /* guarded by lock */
    std::vector<int> afresh;
    std::array<int, 4> kinds{};
    int deadlocks = 0, inherited = 0;
    milliseconds longest{0};
};

TEST_F(forks, no_child_hangs_or_inherits_and_the_parent_notices_nothing)
{
    const int all = amount(100, 1000);
    std::thread publishing([&] { publish_on(); }), receiving([&] { receive_on(); }),
        listening([&] { listen_on(); });
    fork_all(all);
    ending = true;
    publishing.join();
    const uint64_t published = count.published;
    EXPECT_TRUE(zebtest::eventually([&] {
        return count.received == published && count.called == published && count.calledApart == published;
    })) << published
        << " published, " << count.received << ", " << count.called << " and " << count.calledApart
        << " arrived";
    EXPECT_EQ(count.missing, 0U);
    long silent = 0;
    for (const int each : afresh)
        silent += zebtest::eventually([&] { return has_heard(each); }) ? 0 : 1;
    const bool connected = own_port() == port;
    figure(
        "forks",
        "%d forks, %d of them in call-backs; %d children left at once, %d became another program, %d began "
        "afresh, %d returned into the library",
        number.load(), all / 4, kinds[LEAVE], kinds[LIST], kinds[AFRESH], kinds[RETURN]);
    figure(
        "forks",
        "%d deadlocks, the longest life %lld ms; %d descriptors inherited; %ld of the children's publishes "
        "missing; the parent published %lu, missed %lu, its connection is %s",
        deadlocks, static_cast<long long>(longest.count()), inherited, silent, published,
        count.missing.load(), connected ? "the same" : "another");
    EXPECT_EQ(deadlocks, 0);
    EXPECT_EQ(inherited, 0);
    EXPECT_EQ(silent, 0);
    EXPECT_TRUE(connected);
    for (zeb_subscriber *each : subscribers)
        zeb_subscriber_close(each);
    receiving.join();
    listening.join();
    zeb_publisher_close(publisher);
    EXPECT_EQ(zeb_shutdown(), 0);
}

} // namespace
