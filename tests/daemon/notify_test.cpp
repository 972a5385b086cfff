/* What zebd tells a service manager, which is a datagram socket here. */
#include "peer.h"
#include "process.h"
#include "wire.h"

#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstring>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace
{

struct manager {
    int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    std::string all; /* every datagram, each with a blank line behind it */

    manager() = default;
    manager(const manager &) = delete;
    manager &operator=(const manager &) = delete;
    ~manager()
    {
        close(fd);
    }

    /* NAME as it stands in the environment. */
    bool listen_at(const std::string &name) const
    {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::memcpy(address.sun_path, name.data(), name.size());
        if (name.front() == '@')
            address.sun_path[0] = '\0';
        const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size());
        return bind(fd, reinterpret_cast<const sockaddr *>(&address), length) == 0;
    }

    /* Leaves no room for another datagram. */
    static bool fill(const std::string &path)
    {
        const int sender = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
        const auto *to = reinterpret_cast<const sockaddr *>(&address);
        while (sendto(sender, "FULL=1\n", 7, MSG_NOSIGNAL, to, sizeof(address)) > 0) {
        }
        const bool full = errno == EAGAIN;
        close(sender);
        return full;
    }

    /* The next datagram; empty when the time is over. */
    std::string hear(int milliseconds = process::patience)
    {
        pollfd watched{fd, POLLIN, 0};
        char buffer[4096];
        if (poll(&watched, 1, milliseconds) != 1)
            return {};
        const ssize_t count = recv(fd, buffer, sizeof(buffer), 0);
        const std::string text(buffer, count > 0 ? static_cast<size_t>(count) : 0);
        all += text + "\n";
        return text;
    }

    bool hear_until(const std::string &text)
    {
        while (all.find(text) == std::string::npos)
            if (hear().empty())
                return false;
        return true;
    }
};

struct Notify : testing::Test {
    std::string path = testing::TempDir() + "zebd-notify-" + std::to_string(getpid());
    manager boss;
    process::zebd daemon;

    ~Notify() override
    {
        unlink(path.c_str());
    }

    void serve(const std::string &name, process::environment env = {}, const process::arguments &options = {})
    {
        ASSERT_TRUE(boss.listen_at(name));
        env.emplace("NOTIFY_SOCKET", name);
        env.emplace("WATCHDOG_USEC", "");
        env.emplace("WATCHDOG_PID", "");
        process::start_zebd(daemon, options, env);
        ASSERT_NE(daemon.port, 0) << daemon.errText;
    }

    std::string status() const
    {
        return "STATUS=0 clients, 0 subscribers on port " + std::to_string(daemon.port) + "\n";
    }
};

TEST_F(Notify, TellsThatItIsReadyAndThatItStops)
{
    serve(path);
    EXPECT_EQ(boss.hear(), "READY=1\n" + status());
    process::send_signal(daemon, SIGTERM);
    EXPECT_EQ(boss.hear(), "STOPPING=1\n");
    EXPECT_EQ(process::finish(daemon), 0);
    EXPECT_EQ(boss.hear(0), "");
}

TEST_F(Notify, FindsTheManagerInTheAbstractNamespace)
{
    serve("@zebd-notify-test-" + std::to_string(getpid()));
    EXPECT_EQ(boss.hear(), "READY=1\n" + status());
}

TEST_F(Notify, TellsOfAReloadAndThenThatItIsReady)
{
    serve(path);
    boss.hear();
    process::send_signal(daemon, SIGHUP);
    const std::string begin = boss.hear();
    const std::string mark = "RELOADING=1\nMONOTONIC_USEC=";
    ASSERT_EQ(begin.substr(0, mark.size()), mark);
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    const int64_t age = static_cast<int64_t>(now.tv_sec) * 1000000 + now.tv_nsec / 1000 -
                        std::stoll(begin.substr(mark.size()));
    EXPECT_GE(age, 0);
    EXPECT_LT(age, int64_t{1000} * process::patience);
    EXPECT_EQ(boss.hear(), "READY=1\n" + status());
}

TEST_F(Notify, GivesSignsOfLifeUntilItEnds)
{
    serve(path, {{"WATCHDOG_USEC", "20000"}});
    for (int i = 0; i < 5; i++) {
        boss.all.clear();
        EXPECT_TRUE(boss.hear_until("WATCHDOG=1\nSTATUS=0 clients"));
    }
}

/* Half a second is proven by a client that is ended after it. */
TEST_F(Notify, GivesNoSignsOfLifeThatAreMeantForAnotherProcess)
{
    serve(path, {{"WATCHDOG_USEC", "20000"}, {"WATCHDOG_PID", "1"}}, {"--set", "limits.connect_seconds=0.5"});
    peer silent;
    ASSERT_TRUE(silent.dial(daemon.port));
    ASSERT_TRUE(silent.hear_end());
    process::send_signal(daemon, SIGTERM);
    EXPECT_TRUE(boss.hear_until("STOPPING=1\n"));
    EXPECT_EQ(boss.all.find("WATCHDOG"), std::string::npos) << boss.all;
}

/* It waits for that before anything that depends on zebd is started. */
TEST_F(Notify, AManagerWithoutRoomIsToldAgainThatItIsReady)
{
    ASSERT_TRUE(boss.listen_at(path));
    ASSERT_TRUE(manager::fill(path));
    process::start_zebd(daemon, {}, {{"NOTIFY_SOCKET", path}, {"WATCHDOG_USEC", ""}});
    ASSERT_TRUE(process::wait_for_err(
        daemon, "<4>the service manager could not be told: Resource temporarily unavailable\n"))
        << daemon.errText;
    EXPECT_TRUE(boss.hear_until("READY=1\n"));
}

TEST_F(Notify, AManagerThatIsGoneDoesNotHinderService)
{
    process::start_zebd(daemon, {}, {{"NOTIFY_SOCKET", path}});
    peer client;
    EXPECT_TRUE(client.join(daemon.port));
    EXPECT_TRUE(process::wait_for_err(
        daemon, "<4>the service manager could not be told: No such file or directory\n"));
}

TEST_F(Notify, AnAddressThatIsNoneIsIgnoredWithAWarning)
{
    process::start_zebd(daemon, {}, {{"NOTIFY_SOCKET", "vsock:2:1234"}});
    peer client;
    EXPECT_TRUE(client.join(daemon.port));
    EXPECT_TRUE(process::wait_for_err(
        daemon, "<4>NOTIFY_SOCKET names no socket: the service manager is told nothing\n"));
}

} // namespace
