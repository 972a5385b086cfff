/* Fork: the child has no runtime and may start its own, what it inherits is dead, and the parent notices
 * nothing. */
#include "conversation.h"

#include <atomic>
#include <csignal>
#include <fcntl.h>
#include <functional>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <thread>

namespace
{

using namespace zebtest;

/* What the process PID ends with: its exit status, or the negative number of the signal that ended it; -1000
 * when it has to be ended here. */
int end_of(pid_t pid)
{
    int status = 0;
    const bool ended = eventually([&] { return waitpid(pid, &status, WNOHANG) == pid; });
    if (!ended) {
        kill(pid, SIGKILL);
        waitpid(pid, &status, 0);
        return -1000;
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

/* Runs BODY in a forked child, which ends with its result. */
pid_t in_child(const std::function<int()> &body)
{
    const pid_t pid = fork();
    if (pid == 0)
        _exit(body());
    return pid;
}

constexpr std::string_view replyWithName =
    "1\r\n2\r\nResult: success\r\n4\r\n5\r\n6\r\n7\r\n8\r\ninstanceName: inner\r\n\r\n";

class forking : public conversation
{
  protected:
    forking() : p(connected()), sub(subscribed(p, 1)), publisher(zeb_publisher_create("c")) {}
    ~forking() override
    {
        zeb_publisher_close(publisher);
        zeb_subscriber_close(sub);
        zeb_shutdown_nowait();
    }

    /* The parent's connection is the one it had, silent meanwhile, and everything works on it. */
    void expect_parent_undisturbed(place where = {__builtin_FILE(), __builtin_LINE()})
    {
        EXPECT_EQ(sent_before_mark(p, where), "");
        p.send(message("1", "/still here"));
        EXPECT_EQ(receive_type(sub), "/still here");
        EXPECT_FALSE(daemon.is_called_within(milliseconds{0}));
        EXPECT_EQ(interposed::sleeps(), std::vector<unsigned>{});
    }

    peer p;
    zeb_subscriber *sub;
    zeb_publisher *publisher;
};

TEST_F(forking, a_child_that_does_nothing_disturbs_nobody)
{
    for (int i = 0; i < 20; i++)
        EXPECT_EQ(end_of(in_child([] { return 7; })), 7);
    expect_parent_undisturbed();
}

TEST_F(forking, a_child_has_no_runtime)
{
    EXPECT_EQ(end_of(in_child([] {
                  char stale[] = "stale";
                  char *name = stale;
                  zeb_get_instancename(&name);
                  const bool none = name == nullptr && zeb_publisher_create("c") == nullptr &&
                                    zeb_subscriber_create("/t", "c", nullptr, nullptr, nullptr) == nullptr &&
                                    zeb_subscriber_create_async("/t", "c", nullptr, nullptr) == nullptr &&
                                    zeb_shutdown() == 0 && zeb_shutdown_nowait() == 0;
                  return none ? 7 : 8;
              })),
              7);
    expect_parent_undisturbed();
}

TEST_F(forking, handles_that_a_child_inherits_are_dead)
{
    p.send(message("1", "/queued") + message("1", "/held"));
    EXPECT_EQ(receive_type(sub), "/queued");
    zeb_notification *held = zeb_subscriber_receive(sub, 1, 0);
    const pid_t child = in_child([&] {
        zeb_publisher_publish(publisher, zeb_notification_create("/from the child", nullptr, 0));
        zeb_publisher_close(publisher);
        if (zeb_subscriber_receive(sub, 0, 0) != nullptr || zeb_subscriber_receive(sub, 1, 0) != nullptr)
            return 8;
        if (zeb_subscriber_registercallback(
                sub, [](zeb_notification *, void *) { return 0; }, nullptr, 0) != -1)
            return 9;
        if (zeb_subscriber_getState(sub) != 0)
            return 10;
        zeb_subscriber_returnState(sub, "state", 5);
        zeb_subscriber_close(sub);
        zeb_subscriber_close(sub);
        return 7;
    });
    EXPECT_EQ(end_of(child), 7);
    EXPECT_STREQ(zeb_notification_type(held), "/held");
    zeb_subscriber_relinquish(sub, held);
    expect_parent_undisturbed();
}

TEST_F(forking, a_notification_that_a_child_inherits_may_be_read_and_given_back)
{
    p.send(message("1", "/held", "body"));
    zeb_notification *held = zeb_subscriber_receive(sub, 1, 0);
    ASSERT_NE(held, nullptr);
    const pid_t child = in_child([&] {
        const bool same = std::string(zeb_notification_type(held)) == "/held";
        zeb_subscriber_relinquish(sub, held);
        return same ? 7 : 8;
    });
    EXPECT_EQ(end_of(child), 7);
    zeb_subscriber_relinquish(sub, held);
    expect_parent_undisturbed();
}

TEST_F(forking, the_socket_is_closed_in_the_child_and_lives_on_in_the_parent)
{
    const int fd = p.other_end();
    ASSERT_GE(fd, 0);
    EXPECT_EQ(end_of(in_child([=] { return fcntl(fd, F_GETFD) == -1 ? 7 : 8; })), 7);
    expect_parent_undisturbed();
}

TEST_F(forking, no_descriptor_crosses_an_exec)
{
    const int fd = p.other_end();
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, ends[1], STDOUT_FILENO);
    char program[] = "ls";
    char directory[] = "/proc/self/fd";
    char *arguments[] = {program, directory, nullptr};
    pid_t pid = 0;
    ASSERT_EQ(posix_spawnp(&pid, program, &actions, nullptr, arguments, environ), 0);
    posix_spawn_file_actions_destroy(&actions);
    close(ends[1]);
    std::string listed = "\n";
    char buffer[4096];
    ssize_t count;
    while ((count = read(ends[0], buffer, sizeof(buffer))) > 0)
        listed.append(buffer, static_cast<size_t>(count));
    close(ends[0]);
    EXPECT_EQ(end_of(pid), 0);
    EXPECT_NE(listed.find("\n1\n"), std::string::npos) << listed;
    EXPECT_EQ(listed.find("\n" + std::to_string(fd) + "\n"), std::string::npos) << listed;
    expect_parent_undisturbed();
}

TEST_F(forking, a_child_may_start_its_own_runtime)
{
    if (threadSanitizer)
        GTEST_SKIP() << "a forked child cannot start threads under the thread sanitizer";
    const pid_t child = in_child([&] {
        if (zeb_init() != 0)
            return 8;
        if (zeb_init() != -3 || zeb_shutdown() != 0)
            return 9;
        zeb_publisher *own = zeb_publisher_create("child");
        zeb_publisher_publish(own, zeb_notification_create("/from the child", "body", 4));
        zeb_subscriber *fresh = zeb_subscriber_create("/child", "c", nullptr, nullptr, nullptr);
        if (fresh == nullptr || zeb_subscriber_id(fresh) != 1)
            return 10;
        zeb_notification *n = zeb_subscriber_receive(fresh, 1, 0);
        if (std::string(zeb_notification_type(n)) != "/to the child")
            return 11;
        zeb_subscriber_relinquish(fresh, n);
        zeb_subscriber_close(fresh);
        zeb_publisher_close(own);
        return zeb_shutdown() == 0 ? 7 : 12;
    });
    peer c = daemon.accept();
    EXPECT_EQ(c.read_head(), lines({"POST /connect HTTP/1.1", "Version: 4 ", "FormFactor: abc",
                                    "SelfId: Pid=" + std::to_string(child) + "; Home=" + home.path(), ""}));
    c.send(handshakeReply);
    const std::string head = c.read_head();
    EXPECT_NE(head.find("eventId: " + host_name() + ":" + std::to_string(child) + "01\r\n"),
              std::string::npos)
        << shown(head);
    c.expect("body");
    c.expect(subscribe_request(1, "/child"));
    c.send(status_reply(1, "success") + message("1", "/to the child"));
    c.expect(unsubscribe_request(1));
    c.expect_close();
    EXPECT_EQ(end_of(child), 7);
    expect_parent_undisturbed();
}

TEST_F(forking, old_handles_stay_dead_when_the_child_has_its_own_runtime)
{
    if (threadSanitizer)
        GTEST_SKIP() << "a forked child cannot start threads under the thread sanitizer";
    const pid_t child = in_child([&] {
        zeb_init();
        char *name = nullptr;
        zeb_get_instancename(&name);
        free(name);
        zeb_publisher_publish(publisher, zeb_notification_create("/dead", nullptr, 0));
        zeb_publisher_close(publisher);
        zeb_subscriber_close(sub);
        if (zeb_subscriber_receive(sub, 1, 0) != nullptr)
            return 8;
        return zeb_shutdown() == 0 ? 7 : 9;
    });
    peer c = daemon.accept();
    c.read_head();
    c.send(handshakeReply);
    c.expect_close();
    EXPECT_EQ(end_of(child), 7);
    expect_parent_undisturbed();
}

TEST_F(forking, a_grandchild_is_as_free_as_a_child)
{
    if (threadSanitizer)
        GTEST_SKIP() << "a forked child cannot start threads under the thread sanitizer";
    const pid_t child = in_child([&] {
        if (zeb_init() != 0)
            return 8;
        char *name = nullptr;
        zeb_get_instancename(&name);
        free(name);
        const int below = end_of(in_child([] { return zeb_publisher_create("c") == nullptr ? 7 : 9; }));
        zeb_shutdown();
        return below;
    });
    peer c = daemon.accept();
    c.read_head();
    c.send(handshakeReply);
    c.expect_close();
    EXPECT_EQ(end_of(child), 7);
    expect_parent_undisturbed();
}

TEST_F(forking, while_disconnected_the_child_takes_nothing_along)
{
    zeb_publisher_publish(publisher, zeb_notification_create("/before", nullptr, 0));
    p.expect(published("c", "/before", "11"));
    daemon.refuse();
    p.close();
    ASSERT_TRUE(eventually([] { return !interposed::sleeps().empty(); }));
    zeb_publisher_publish(publisher, zeb_notification_create("/queued", nullptr, 0));
    EXPECT_EQ(end_of(in_child([] { return zeb_publisher_create("c") == nullptr ? 7 : 8; })), 7);
    daemon.listen_again();
    p = daemon.accept_connected(home.path());
    p.expect(published("c", "/queued", "12") + subscribe_request(1, "/t"));
    EXPECT_EQ(sent_before_mark(p), "");
}

TEST_F(forking, many_forks_against_traffic_do_not_disturb_the_parent)
{
    if (threadSanitizer || addressSanitizer)
        GTEST_SKIP() << "the sanitizers' own locks do not survive a fork while other threads allocate";
    constexpr uint64_t ahead = 1000; /* published and not yet read: the queue has no limit of its own */
    std::atomic<bool> stop{false};
    std::atomic<uint64_t> events{0};
    std::thread publishing([&] {
        for (uint64_t sent = 0; !stop;) {
            if (sent < events + ahead) {
                zeb_publisher_publish(publisher, zeb_notification_create("/t", "body", 4));
                sent++;
            }
        }
    });
    std::thread feeding([&] {
        while (!stop) {
            for (int i = 0; i < 50; i++)
                p.send(message("1", "/t", "body"));
            for (int i = 0; i < 50; i++) {
                zeb_notification *n = zeb_subscriber_receive(sub, 1, 0);
                zeb_subscriber_relinquish(sub, n);
            }
        }
    });
    std::thread reading([&] {
        while (p.read_line() == "POST /event HTTP/1.1") {
            const std::string rest = p.read_head();
            if (rest.find("eventType: /end") != std::string::npos)
                return;
            p.read_bytes(4);
            events++;
        }
    });
    int good = 0;
    for (int i = 0; i < 100; i++)
        good += end_of(in_child([&] {
                    zeb_publisher_publish(publisher, zeb_notification_create("/dead", nullptr, 0));
                    zeb_subscriber_close(sub);
                    return zeb_publisher_create("c") == nullptr ? 7 : 8;
                })) == 7;
    EXPECT_EQ(good, 100);
    stop = true;
    publishing.join();
    feeding.join();
    zeb_publisher_publish(publisher, zeb_notification_create("/end", nullptr, 0));
    reading.join();
    EXPECT_GT(events, 0U);
    expect_parent_undisturbed();
}

TEST_F(forking, a_child_made_behind_the_back_of_the_fork_handlers_starts_afresh)
{
    if (threadSanitizer || addressSanitizer)
        GTEST_SKIP() << "the sanitizers do not know of such a child";
    const int fd = p.other_end();
    const auto child = static_cast<pid_t>(syscall(SYS_clone, SIGCHLD, nullptr, nullptr, nullptr, nullptr));
    if (child == 0) {
        if (zeb_init() != 0) /* the runtime that it sees belongs to another process: not -3 */
            _exit(8);
        char *name = nullptr;
        zeb_get_instancename(&name);
        if (name == nullptr || std::string(name) != "inner")
            _exit(9);
        zeb_shutdown();
        _exit(7);
    }
    peer c = daemon.accept();
    EXPECT_NE(c.read_head().find("Pid=" + std::to_string(child) + ";"), std::string::npos);
    c.send(replyWithName);
    c.expect_close();
    EXPECT_EQ(end_of(child), 7);
    EXPECT_EQ(p.other_end(), fd);
    expect_parent_undisturbed();
}

class forking_early : public conversation
{
};

TEST_F(forking_early, a_fork_during_the_first_start_leaves_a_child_that_can_start)
{
    if (threadSanitizer || addressSanitizer)
        GTEST_SKIP() << "the sanitizers' own locks do not survive a fork while other threads allocate";
    daemon.refuse();
    for (int i = 0; i < 40; i++) {
        const pid_t outer = in_child([] { /* so that each time is the first of its process */
                                          std::atomic<bool> started{false};
                                          std::thread starting([&] {
                                              started = true;
                                              zeb_init();
                                          });
                                          while (!started)
                                              ;
                                          const int inner =
                                              end_of(in_child([] { return zeb_init() == 0 ? 7 : 8; }));
                                          starting.join();
                                          return inner;
        });
        ASSERT_EQ(end_of(outer), 7) << "try " << i;
    }
}

/* A call-back in which the process forks: the child returns into the library, which ends its only thread and
 * with it the process. */
struct forked {
    std::atomic<pid_t> child{0};
};

int32_t fork_inside(zeb_notification *, void *context)
{
    const pid_t pid = fork();
    if (pid != 0)
        static_cast<forked *>(context)->child = pid;
    return 0;
}

class forking_inside : public forking, public testing::WithParamInterface<int32_t>
{
};

INSTANTIATE_TEST_SUITE_P(mode, forking_inside, testing::Values(0, 1), testing::PrintToStringParamName());

TEST_P(forking_inside, a_call_back_is_survived_on_both_sides)
{
    if (threadSanitizer)
        GTEST_SKIP() << "the thread sanitizer does not let a child live on with another thread of its parent";
    forked f;
    EXPECT_EQ(zeb_subscriber_registercallback(sub, fork_inside, &f, GetParam()), 0);
    for (int i = 0; i < 5; i++) {
        f.child = 0;
        p.send(message("1", "/t", "body"));
        ASSERT_TRUE(eventually([&] { return f.child != 0; }));
        const int end = end_of(f.child);
        if (!addressSanitizer) /* whose check for leaks at the exit of the child sees all that the parent
                                  holds */
            EXPECT_EQ(end, 0);
        else
            EXPECT_GE(end, 0);
    }
    EXPECT_EQ(zeb_subscriber_cancelcallback(sub), 0);
    EXPECT_TRUE(
        eventually([] { return threads_named("zeb-dispatch") + threads_named("zeb-callback") == 0; }));
    expect_parent_undisturbed();
}

} // namespace
