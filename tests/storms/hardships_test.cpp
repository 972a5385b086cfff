/* Programs that are hard on their libraries: signals without end, standard descriptors that are closed, a
 * broken standard error, thousands of open descriptors. And as a whole this program has thread-local data
 * that leave nothing of a small stack. */
#include "child.h"
#include "environment.h"
#include "obliging_daemon.h"
#include "patience.h"
#include "process.h"
#include "storm.h"

#include <zeb.h>

#include <array>
#include <atomic>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <functional>
#include <gtest/gtest.h>
#include <string>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace
{

using namespace storms;
using zebtest::milliseconds;

/* Every thread of this program has it on its stack, and the library's ask for 32 KiB of that. */
thread_local std::array<volatile char, size_t{28} * 1024> ballast;

uint64_t number_in(const zeb_notification *n)
{
    const char *body = static_cast<const char *>(zeb_notification_body(n, nullptr));
    return body != nullptr ? strtoull(body, nullptr, 10) : 0;
}

/* Publishes numbers to itself, and gets them by a call-back and by receiving. */
class traffic
{
  public:
    traffic()
        : publisher(zeb_publisher_create("storm")), called(subscribe()), received(subscribe()),
          receiving([this] { receive_on(); })
    {
        zeb_subscriber_registercallback(called, on_call, this, 0);
    }
    ~traffic()
    {
        zeb_subscriber_close(called);
        zeb_subscriber_close(received);
        receiving.join();
        zeb_publisher_close(publisher);
    }
    traffic(const traffic &) = delete;
    traffic &operator=(const traffic &) = delete;

    void publish()
    {
        const std::string body = std::to_string(published++);
        zeb_publisher_publish(publisher, zeb_notification_create("/storm/hard", body.data(),
                                                                 static_cast<int32_t>(body.size())));
    }

    /* Every number has come, once and in order, both ways. */
    bool is_complete() const
    {
        return byCall == published && byReceiving == published && disordered == 0;
    }

    /* The last number has come both ways, whatever was lost before it. */
    bool is_up_to_date() const
    {
        return byCall == published && byReceiving == published;
    }

    bool works()
    {
        for (int i = 0; i < 100; i++)
            publish();
        return zebtest::eventually([this] { return is_complete(); });
    }

    /* Something that is published from now on arrives. */
    bool goes_on()
    {
        const uint64_t now = published;
        return zebtest::eventually([&] { return byCall > now && byReceiving > now; });
    }

    std::atomic<uint64_t> published{0}, disordered{0};

  private:
    static zeb_subscriber *subscribe()
    {
        return zeb_subscriber_create("/storm/hard", "storm", nullptr, nullptr, nullptr);
    }

    void take(const zeb_notification *n, std::atomic<uint64_t> &next)
    {
        ballast[ballast.size() / 2] = 1;
        const uint64_t number = number_in(n);
        disordered += number != next ? 1 : 0;
        next = number + 1;
    }

    static int32_t on_call(zeb_notification *n, void *self)
    {
        auto *own = static_cast<traffic *>(self);
        own->take(n, own->byCall);
        return 0;
    }

    void receive_on()
    {
        while (zeb_notification *n = zeb_subscriber_receive(received, 1, 0)) {
            take(n, byReceiving);
            zeb_subscriber_relinquish(received, n);
        }
    }

    std::atomic<uint64_t> byCall{0}, byReceiving{0};
    zeb_publisher *publisher;
    zeb_subscriber *called, *received;
    std::thread receiving;
};

class hardships : public testing::Test
{
  protected:
    void SetUp() override
    {
        reservation.refuse();
        start_daemon(reservation.port());
        zebtest::clean_environment();
        zebtest::configure("/nonexistent", daemon->port);
    }

    void start_daemon(uint16_t port)
    {
        daemon = std::make_unique<process::zebd>();
        process::start_zebd(*daemon, {"--log-level", "error"}, {}, port);
        ASSERT_NE(daemon->port, 0);
    }

    void replace_daemon()
    {
        const uint16_t port = daemon->port;
        process::send_signal(*daemon, SIGKILL);
        EXPECT_EQ(process::finish(*daemon), 128 + SIGKILL);
        start_daemon(port);
    }

    zebtest::fake_daemon reservation; /* of a port: nobody else gets it while no daemon is there */
    std::unique_ptr<process::zebd> daemon;
};

TEST_F(hardships, thread_local_data_that_fill_a_small_stack)
{
    ASSERT_EQ(zeb_init(), 0);
    {
        traffic t;
        EXPECT_TRUE(t.works());
    }
    EXPECT_EQ(zeb_shutdown(), 0);
    figure("hardships", "%zu bytes of thread-local data: works", ballast.size());
}

/* ---- Signals ---- */

std::atomic<uint64_t> handled{0}, handledByService{0};

/* Whose thread it runs on is what the thread is called. */
void handle(int)
{
    char name[16] = "";
    prctl(PR_GET_NAME, name);
    handled++;
    if (strcmp(name, "zeb-receive") == 0 || strcmp(name, "zeb-send") == 0)
        handledByService++;
}

/* Sends SIGUSR1 to each of the library's threads itself; a call-back's may take it. How many there were. */
int signal_threads_of_library()
{
    int count = 0;
    for (const auto &entry : std::filesystem::directory_iterator("/proc/self/task")) {
        std::string name;
        std::ifstream(entry.path() / "comm") >> name;
        if (name.compare(0, 4, "zeb-") != 0)
            continue;
        syscall(SYS_tgkill, getpid(), atoi(entry.path().filename().c_str()), SIGUSR1);
        count++;
    }
    return count;
}

TEST_F(hardships, signals_without_end)
{
    struct sigaction action = {};
    action.sa_handler = handle; /* and no SA_RESTART */
    sigaction(SIGALRM, &action, nullptr);
    sigaction(SIGUSR1, &action, nullptr);
    ASSERT_EQ(zeb_init(), 0);
    {
        traffic t;
        const uint16_t port = own_port();
        ASSERT_NE(port, 0);
        ASSERT_TRUE(
            zebtest::eventually([] { return signal_threads_of_library() >= 3; })); /* with their names */
        const itimerval each{{0, 1000}, {0, 1000}}, none{};
        setitimer(ITIMER_REAL, &each, nullptr);
        const milliseconds all{amount(2, 600) * 1000};
        const zebtest::stopwatch watch;
        while (watch.elapsed() < all) {
            for (int i = 0; i < 20; i++)
                t.publish();
            EXPECT_GE(signal_threads_of_library(), 3);
            usleep(10000); /* the next signal ends it */
        }
        EXPECT_TRUE(zebtest::eventually([&] { return t.is_complete(); }));
        setitimer(ITIMER_REAL, &none, nullptr);
        figure("hardships",
               "signals for %lld s: %lu handled, %lu of them on service threads; %lu published, %lu out of "
               "order "
               "or missing; the connection is %s",
               static_cast<long long>(all.count() / 1000), handled.load(), handledByService.load(),
               t.published.load(), t.disordered.load(), own_port() == port ? "the same" : "another");
        EXPECT_GT(handled, 0U);
        EXPECT_EQ(handledByService, 0U);
        EXPECT_EQ(own_port(), port);
    }
    EXPECT_EQ(zeb_shutdown(), 0);
}

/* The daemon goes while everyone writes to it, and SIGPIPE would end the process. */
TEST_F(hardships, a_broken_pipe_with_the_signal_at_its_default)
{
    signal(SIGPIPE, SIG_DFL);
    ASSERT_EQ(zeb_init(), 0);
    const int all = amount(2, 20);
    {
        traffic t;
        std::atomic<bool> ending{false};
        std::thread publishing([&] {
            while (!ending) {
                t.publish();
                usleep(50);
            }
        });
        for (int i = 0; i < all; i++) {
            replace_daemon();
            EXPECT_TRUE(
                t.goes_on()); /* a daemon that is lost in the handshake would be tried ever more rarely */
        }
        ending = true;
        publishing.join();
        EXPECT_TRUE(zebtest::eventually([&] {
            t.publish();
            return zebtest::eventually([&] { return t.is_up_to_date(); }, milliseconds{200});
        }));
    }
    EXPECT_EQ(zeb_shutdown(), 0);
    figure("hardships", "%d daemons lost under load with SIGPIPE at its default: alive", all);
}

/* ---- Descriptors ---- */

constexpr std::string_view event =
    "POST /event HTTP/1.1\r\nclassName: MessageNotification\r\nSubscriberID: 1\r\neventType: /storm/hard\r\n"
    "eventId: i\r\ncreationTime: 1\r\ndeliveryTime: 2\r\naffectedComponents: \r\naffectedNodes: \r\n"
    "generatingComponent: c\r\ngeneratingProcess: p\r\ngeneratingNode: n\r\ninstanceName: i\r\n"
    "LocalOnly: false\r\nnumberOfProperties: 0\r\nContent-Length: 4\r\nAddrList-Length: 0\r\n\r\nbody";

/* A daemon in a process of its own, which tells its port and serves one client. It says something that makes
 * the library write a line to standard error. Returns 0 when it got what the client sent and nothing else. */
int serve_one(int portTo)
{
    zebtest::obliging_daemon daemon;
    daemon.reply_with([](const zebtest::obliging_daemon::request &r) {
        return r.field("eventType") == "/storm/before" ? "nonsense\r\n" + std::string(event) : "";
    });
    const uint16_t port = daemon.port();
    if (write(portTo, &port, sizeof(port)) != sizeof(port))
        return 7;
    close(portTo);
    if (!zebtest::eventually([&] { return daemon.count("POST /unsubscribe") == 1; }))
        return 8;
    return daemon.count("POST /connect") == 1 && daemon.count("") == 5 ? 0 : 9;
}

/* Starts that daemon. Its process and its port. */
std::pair<pid_t, uint16_t> start_serving()
{
    int ends[2];
    uint16_t port = 0;
    if (pipe(ends) != 0)
        return {-1, port};
    const pid_t pid = fork();
    if (pid == 0)
        _exit(serve_one(ends[1]));
    if (read(ends[0], &port, sizeof(port)) != sizeof(port))
        port = 0;
    close(ends[0]);
    close(ends[1]);
    return {pid, port};
}

/* Talks to it, with WAYWARD done to the process before. Returns 0 when all went well. */
int talk(const std::function<bool()> &wayward)
{
    const auto [server, port] = start_serving();
    if (port == 0 || !wayward() || zeb_init_with_port(port) != 0)
        return 2;
    zeb_subscriber *subscriber = zeb_subscriber_create("/storm/hard", "storm", nullptr, nullptr, nullptr);
    zeb_publisher *publisher = zeb_subscriber_getPublisher(subscriber);
    zeb_publisher_publish(publisher, zeb_notification_create("/storm/before", "body", 4));
    zeb_notification *n = zeb_subscriber_receive(subscriber, 1, 0);
    const bool higher = own_connection() > STDERR_FILENO;
    const bool stray = write(STDOUT_FILENO, "stray\n", 6) == 6;
    zeb_subscriber_relinquish(subscriber, n);
    zeb_publisher_publish(publisher, zeb_notification_create("/storm/after", "body", 4));
    zeb_subscriber_close(subscriber);
    zeb_shutdown();
    int status = -1;
    if (waitpid(server, &status, 0) != server || !WIFEXITED(status))
        return 3;
    return !higher ? 4 : stray != (fcntl(STDOUT_FILENO, F_GETFD) != -1) ? 5 : WEXITSTATUS(status);
}

/* In a process of its own. */
void expect_to_work(const std::string &what, const std::function<bool()> &wayward)
{
    const sweep::outcome end = sweep::in_child([&] { return talk(wayward); }, zebtest::patience);
    EXPECT_TRUE(end.manner.empty() && end.code == 0) << what << ": " << end.manner << " " << end.code;
    figure("hardships", "%s: %s", what.c_str(),
           end.manner.empty() && end.code == 0 ? "works" : "DOES NOT WORK");
}

TEST_F(hardships, closed_standard_descriptors)
{
    const std::pair<int, int> ranges[] = {{0, 0}, {2, 2}, {1, 2}, {0, 2}};
    for (const auto &[first, last] : ranges)
        expect_to_work("descriptors " + std::to_string(first) + " to " + std::to_string(last) + " closed",
                       [first = first, last = last] {
                           for (int fd = first; fd <= last; fd++)
                               close(fd);
                           return true;
                       });
}

TEST_F(hardships, a_standard_error_that_nobody_reads)
{
    expect_to_work("a broken pipe as standard error, SIGPIPE at its default", [] {
        signal(SIGPIPE, SIG_DFL);
        int ends[2];
        const bool broken = pipe(ends) == 0 && dup2(ends[1], STDERR_FILENO) == STDERR_FILENO;
        close(ends[0]);
        close(ends[1]);
        return broken;
    });
}

TEST_F(hardships, thousands_of_open_descriptors)
{
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
    for (int i = 0; i < 2000; i++)
        ASSERT_NE(open("/dev/null", O_RDONLY | O_CLOEXEC), -1) << "after " << i;
    ASSERT_EQ(zeb_init(), 0);
    int number = 0;
    {
        traffic t;
        number = own_connection();
        EXPECT_GT(number, FD_SETSIZE);
        EXPECT_TRUE(t.works());
        replace_daemon();
        EXPECT_TRUE(zebtest::eventually([&] {
            t.publish();
            return zebtest::eventually([&] { return t.is_up_to_date(); }, milliseconds{200});
        }));
    }
    EXPECT_EQ(zeb_shutdown(), 0);
    figure("hardships", "2,000 open descriptors: works on number %d, also with the next daemon", number);
}

} // namespace
