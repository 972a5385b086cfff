/* Start-up: configuration, counting, service threads, and what happens when something cannot be had. */
#include "conversation.h"

#include <atomic>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <netdb.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <thread>

namespace
{

using namespace zebtest;
using runtime = conversation;

bool is_running()
{
    zeb_subscriber *sub = zeb_subscriber_create_async(nullptr, nullptr, nullptr, nullptr);
    zeb_subscriber_close(sub);
    return sub != nullptr;
}

/* ---- Configuration ---- */

TEST_F(runtime, without_home_init_says_so_and_fails)
{
    const stderr_capture messages;
    unset_variable("TAMBEK_HOME");
    EXPECT_EQ(zeb_init(), -1);
    EXPECT_EQ(zeb_init_with_port(daemon.port()), -1);
    EXPECT_EQ(messages.text(), "TAMBEK_HOME is not set\nTAMBEK_HOME is not set\n");
    EXPECT_FALSE(is_running());
}

TEST_F(runtime, without_port_init_says_so_and_fails)
{
    const stderr_capture messages;
    unset_variable("TAMBEK_ZEB_PROXY_PORT");
    EXPECT_EQ(zeb_init(), -1);
    EXPECT_EQ(zeb_init_wtambekhome("/opt/app"), -1);
    EXPECT_EQ(messages.text(), "TAMBEK_ZEB_PROXY_PORT: not set\nTAMBEK_ZEB_PROXY_PORT: not set\n");
    EXPECT_FALSE(is_running());
}

TEST_F(runtime, without_both_init_says_both)
{
    const stderr_capture messages;
    clean_environment();
    EXPECT_EQ(zeb_init(), -1);
    EXPECT_EQ(messages.text(), "TAMBEK_HOME is not set\nTAMBEK_ZEB_PROXY_PORT: not set\n");
}

TEST_F(runtime, ports_below_one_are_named_and_refused)
{
    for (const char *value : {"0", "-5", "abc", "", "0x50"}) {
        const stderr_capture messages;
        set_variable("TAMBEK_ZEB_PROXY_PORT", value);
        EXPECT_EQ(zeb_init(), -1);
        EXPECT_EQ(messages.text(), "TAMBEK_ZEB_PROXY_PORT: invalid value: " + std::string(value) + "\n");
    }
}

TEST_F(runtime, port_65536_fails_without_a_message)
{
    const stderr_capture messages;
    set_variable("TAMBEK_ZEB_PROXY_PORT", "65536");
    EXPECT_EQ(zeb_init(), -1);
    EXPECT_EQ(messages.text(), "");
    EXPECT_FALSE(is_running());
}

/* What the library looks up, with no socket to be had, so that nobody is called. */
std::string looked_up()
{
    eventually([] { return !interposed::last_lookup().empty(); });
    return interposed::last_lookup();
}

TEST_F(runtime, port_70000_counts_as_4464)
{
    interposed::fail_sockets(0, -1, EACCES);
    set_variable("TAMBEK_ZEB_PROXY_PORT", "70000");
    EXPECT_EQ(zeb_init(), 0);
    EXPECT_EQ(looked_up(), "localhost:4464");
}

TEST_F(runtime, text_behind_the_port_is_ignored)
{
    interposed::fail_sockets(0, -1, EACCES);
    set_variable("TAMBEK_ZEB_PROXY_PORT", " 4465tcp");
    EXPECT_EQ(zeb_init(), 0);
    EXPECT_EQ(looked_up(), "localhost:4465");
}

TEST_F(runtime, negative_port_argument_counts_its_low_16_bits)
{
    interposed::fail_sockets(0, -1, EACCES);
    EXPECT_EQ(zeb_init_with_port(-1), 0);
    EXPECT_EQ(looked_up(), "localhost:65535");
}

TEST_F(runtime, port_argument_goes_before_the_environment)
{
    set_variable("TAMBEK_ZEB_PROXY_PORT", "1");
    ASSERT_EQ(zeb_init_with_port(65536 + daemon.port()), 0);
    daemon.accept_connected(home.path());
}

TEST_F(runtime, port_argument_with_no_low_bits_means_the_environment)
{
    ASSERT_EQ(zeb_init_with_port(65536), 0);
    daemon.accept_connected(home.path());
}

TEST_F(runtime, config_home_goes_before_home)
{
    set_variable("TAMBEK_CONFIG_HOME", "/config/home");
    ASSERT_EQ(zeb_init(), 0);
    daemon.accept().expect(handshake("/config/home"));
}

TEST_F(runtime, empty_config_home_counts_as_unset)
{
    set_variable("TAMBEK_CONFIG_HOME", "");
    ASSERT_EQ(zeb_init(), 0);
    daemon.accept().expect(handshake(home.path()));
}

TEST_F(runtime, home_argument_goes_before_the_environment_unchecked)
{
    ASSERT_EQ(zeb_init_wtambekhome(""), 0);
    daemon.accept().expect(handshake(""));
}

/* ---- Counting ---- */

TEST_F(runtime, second_init_returns_minus_three_and_needs_its_own_shutdown)
{
    peer p = connected();
    EXPECT_EQ(zeb_init(), -3);
    EXPECT_EQ(zeb_init_wtambekhome("/other"), -3);
    EXPECT_EQ(zeb_init_with_port(1), -3);
    for (int i = 0; i < 3; i++)
        EXPECT_EQ(zeb_shutdown(), 0);
    EXPECT_EQ(sent_before_mark(p), ""); /* still running */
    EXPECT_EQ(zeb_shutdown(), 0);
    p.expect_close();
    EXPECT_FALSE(is_running());
}

TEST_F(runtime, second_init_without_environment_fails_and_does_not_count)
{
    peer p = connected();
    {
        const stderr_capture messages;
        clean_environment();
        EXPECT_EQ(zeb_init(), -1);
        EXPECT_EQ(messages.text(), "TAMBEK_HOME is not set\nTAMBEK_ZEB_PROXY_PORT: not set\n");
    }
    EXPECT_EQ(zeb_shutdown(), 0);
    p.expect_close();
}

TEST_F(runtime, shutdown_without_init_returns_zero)
{
    EXPECT_EQ(zeb_shutdown(), 0);
    EXPECT_EQ(zeb_shutdown_nowait(), 0);
}

TEST_F(runtime, init_after_shutdown_starts_afresh)
{
    {
        peer p = connected();
        subscribed(p, 1);
        zeb_shutdown();
    }
    peer p = connected();
    zeb_subscriber *sub = subscribed(p, 1); /* identifiers begin again */
    zeb_subscriber_close(sub);
}

TEST_F(runtime, of_many_threads_one_starts_the_runtime)
{
    std::atomic<int> first{0};
    std::atomic<int> later{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < 8; i++)
        threads.emplace_back([&] {
            const int32_t result = zeb_init();
            first += result == 0;
            later += result == -3;
        });
    for (std::thread &t : threads)
        t.join();
    EXPECT_EQ(first, 1);
    EXPECT_EQ(later, 7);
    peer p = daemon.accept_connected(home.path());
    for (int i = 0; i < 8; i++)
        zeb_shutdown();
    p.expect_close();
}

TEST_F(runtime, init_succeeds_when_no_daemon_listens)
{
    daemon.refuse();
    const stderr_capture messages;
    EXPECT_EQ(zeb_init(), 0);
    EXPECT_TRUE(eventually([] { return interposed::sleeps().size() >= 2; }));
    EXPECT_EQ(messages.text(), "");
}

/* ---- Instance name ---- */

std::string instance_name()
{
    char *name = nullptr;
    zeb_get_instancename(&name);
    return text_or_null(owned_text(name).get());
}

TEST_F(runtime, instance_name_is_what_the_daemon_said)
{
    peer p = connected();
    EXPECT_EQ(instance_name(), "east");
}

TEST_F(runtime, instance_name_waits_for_the_connection)
{
    ASSERT_EQ(zeb_init(), 0);
    background name([] { return instance_name(); });
    peer p = daemon.accept_connected(home.path());
    EXPECT_EQ(name.get(), "east");
}

TEST_F(runtime, instance_name_is_null_when_no_daemon_comes_within_ten_seconds)
{
    daemon.refuse();
    ASSERT_EQ(zeb_init(), 0);
    const stopwatch watch;
    EXPECT_EQ(instance_name(), "<null>");
    EXPECT_GE(watch.elapsed(), milliseconds{8900});
    EXPECT_LE(watch.elapsed(), milliseconds{10500});
}

/* ---- Threads ---- */

std::vector<size_t> stack_sizes()
{
    std::vector<size_t> sizes;
    for (const interposed::created_thread &t : interposed::created_threads())
        sizes.push_back(t.stacksize);
    return sizes;
}

TEST_F(runtime, service_threads_have_32768_bytes_of_stack)
{
    unset_variable("TAMBEK_THREAD_STACKSIZE");
    ASSERT_EQ(zeb_init(), 0);
    ASSERT_GE(stack_sizes().size(), 2U);
    EXPECT_EQ(stack_sizes()[0], 32768U);
    EXPECT_EQ(stack_sizes()[1], 32768U);
    EXPECT_FALSE(interposed::created_threads()[0].detached);
    EXPECT_FALSE(interposed::created_threads()[1].detached);
}

TEST_F(runtime, stack_sizes_from_16384_on_are_used)
{
    for (const auto &[text, expected] :
         std::initializer_list<std::pair<const char *, size_t>>{{"16383", 32768},
                                                                {"16384", 16384},
                                                                {"65536", 65536},
                                                                {"abc", 32768},
                                                                {"-1", 32768},
                                                                {"", 32768}}) {
        interposed::forget_threads();
        set_variable("TAMBEK_THREAD_STACKSIZE", text);
        ASSERT_EQ(zeb_init(), 0) << text;
        EXPECT_EQ(stack_sizes()[0], expected) << text;
        EXPECT_EQ(stack_sizes()[1], expected) << text;
        peer p = daemon.accept_connected(home.path());
        zeb_shutdown();
    }
}

/* The line FIELD of the status of the thread NAME; "" when there is none. */
std::string thread_status(const std::string &name, const std::string &field)
{
    std::error_code ignored;
    for (const auto &task : std::filesystem::directory_iterator("/proc/self/task", ignored)) {
        std::string comm;
        std::getline(std::ifstream(task.path() / "comm"), comm);
        std::ifstream status(task.path() / "status");
        std::string line;
        while (comm == name && std::getline(status, line)) {
            if (line.starts_with(field + ":\t"))
                return line.substr(field.size() + 2);
        }
    }
    return "";
}

TEST_F(runtime, service_threads_are_named_and_block_every_signal)
{
    peer p = connected();
    for (const char *name : {"zeb-receive", "zeb-send"}) {
        ASSERT_TRUE(threads_become(name, 1)) << name;
        const uint64_t blocked = std::stoull(thread_status(name, "SigBlk"), nullptr, 16);
        for (int signal = 1; signal < 32; signal++) {
            if (signal == SIGKILL || signal == SIGSTOP)
                continue;
            EXPECT_NE(blocked & (1ULL << (signal - 1)), 0U) << name << " takes " << strsignal(signal);
        }
    }
}

TEST_F(runtime, service_threads_are_two)
{
    const int before = threads_named("");
    peer p = connected();
    EXPECT_TRUE(threads_become("", before + 2));
    zeb_shutdown();
    EXPECT_TRUE(threads_become("", before));
}

TEST_F(runtime, init_leaves_the_signal_mask_of_its_caller_alone)
{
    sigset_t mask;
    sigemptyset(&mask);
    sigaddset(&mask, SIGUSR2);
    pthread_sigmask(SIG_SETMASK, &mask, nullptr);
    peer p = connected();
    sigset_t after;
    pthread_sigmask(SIG_SETMASK, nullptr, &after);
    for (int signal = 1; signal < 32; signal++)
        EXPECT_EQ(sigismember(&after, signal), signal == SIGUSR2 ? 1 : 0) << signal;
}

/* ---- Threads that cannot be had ---- */

TEST_F(runtime, init_fails_quietly_when_a_service_thread_cannot_be_had)
{
    for (const int pass : {0, 1}) {
        const stderr_capture messages;
        const int descriptors = open_descriptors();
        interposed::fail_threads(pass, -1, EAGAIN);
        const stopwatch watch;
        EXPECT_EQ(zeb_init(), -1) << "thread " << pass;
        EXPECT_LT(watch.elapsed(), milliseconds{1000});
        interposed::fail_threads(0, 0, 0);
        EXPECT_EQ(messages.text(), "");
        EXPECT_FALSE(is_running());
        EXPECT_EQ(open_descriptors(), descriptors);

        peer p = connected(); /* the next one works */
        EXPECT_EQ(sent_before_mark(p), "");
        zeb_shutdown();
        p.expect_close();
    }
}

TEST_F(runtime, stacks_that_are_refused_are_asked_for_with_64_kib_more)
{
    unset_variable("TAMBEK_THREAD_STACKSIZE");
    interposed::refuse_stacks_below(32769);
    peer p = connected();
    const std::vector<size_t> expected{32768, 32768 + 65536, 32768, 32768 + 65536};
    const std::vector<size_t> sizes = stack_sizes();
    ASSERT_GE(sizes.size(), 4U);
    EXPECT_EQ(std::vector<size_t>(sizes.begin(), sizes.begin() + 4), expected);
}

TEST_F(runtime, stacks_that_are_refused_twice_get_the_default_size)
{
    unset_variable("TAMBEK_THREAD_STACKSIZE");
    interposed::refuse_stacks_below(1024 * 1024);
    peer p = connected();
    const std::vector<size_t> sizes = stack_sizes();
    ASSERT_GE(sizes.size(), 6U);
    EXPECT_EQ(sizes[0], 32768U);
    EXPECT_EQ(sizes[1], 32768U + 65536U);
    EXPECT_GE(sizes[2], 1024U * 1024U);
}

TEST_F(runtime, init_fails_when_no_stack_size_will_do)
{
    const stderr_capture messages;
    interposed::fail_threads(0, -1, EINVAL);
    EXPECT_EQ(zeb_init(), -1);
    interposed::fail_threads(0, 0, 0);
    EXPECT_EQ(messages.text(), "");
    peer p = connected();
}

TEST_F(runtime, fork_works_after_an_init_that_failed)
{
    interposed::fail_threads(0, -1, EAGAIN);
    EXPECT_EQ(zeb_init(), -1);
    interposed::fail_threads(0, 0, 0);
    peer p = connected();
    const pid_t child = fork();
    if (child == 0)
        _exit(7);
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 7);
    EXPECT_EQ(sent_before_mark(p), "");
}

TEST_F(runtime, without_a_thread_for_it_the_lookup_still_works)
{
    interposed::fail_threads(2, 1, EAGAIN);
    peer p = connected();
    EXPECT_EQ(sent_before_mark(p), "");
}

/* ---- The fatal exit ---- */

using runtime_death = runtime;

TEST_F(runtime_death, lookup_failure_ends_the_process_with_255)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            interposed::fail_resolver(EAI_NONAME);
            zeb_init_with_port(4711);
            pause();
        },
        testing::ExitedWithCode(255),
        "^Unable to resolve address for localhost:4711\nZEB runtime exiting\nFatal error: eZEB: ezebapi: Aug "
        "15 2014 "
        "09:23:43\n");
}

TEST_F(runtime_death, lookup_that_finds_nothing_ends_the_process_as_well)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            interposed::resolve_to({});
            zeb_init_with_port(4711);
            pause();
        },
        testing::ExitedWithCode(255), "^Unable to resolve address for localhost:4711\nZEB runtime exiting\n");
}

TEST_F(runtime_death, shutdown_in_an_exit_handler_of_the_fatal_exit_returns)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            atexit([] { zeb_shutdown(); });
            interposed::fail_resolver(EAI_AGAIN);
            zeb_init_with_port(4711);
            pause();
        },
        testing::ExitedWithCode(255), "Fatal error: ");
}

/* ---- Descriptors ---- */

/* Closes the standard descriptors until the end of the block; what fails meanwhile is reported after it. */
struct without_standard_descriptors {
    int saved[3];

    without_standard_descriptors()
    {
        for (int fd = 0; fd < 3; fd++)
            saved[fd] = fcntl(fd, F_DUPFD_CLOEXEC, 3);
        for (int fd = 0; fd < 3; fd++)
            close(fd);
    }

    ~without_standard_descriptors()
    {
        for (int fd = 0; fd < 3; fd++) {
            dup2(saved[fd], fd);
            close(saved[fd]);
        }
    }
};

/* The next connection to DAEMON, at a number above the standard descriptors. */
peer accept_above_standard(fake_daemon &daemon, place where = {__builtin_FILE(), __builtin_LINE()})
{
    if (!daemon.is_called_within(stretched(patience)))
        script_fails(where, "the library should have connected");
    const int accepted = daemon.take_waiting();
    peer p(fcntl(accepted, F_DUPFD_CLOEXEC, 3));
    close(accepted);
    return p;
}

TEST_F(runtime, standard_descriptors_that_are_closed_are_left_to_the_application)
{
    home.write_formfactor("laptop");
    int32_t started;
    bool taken[3];
    int connection;
    {
        const without_standard_descriptors closed;
        started = zeb_init();
        peer p = accept_above_standard(daemon);
        /* On its way here the library opens and closes a file; then it only waits for the answer. */
        p.expect(handshake(home.path(), "laptop"));
        for (int fd = 0; fd < 3; fd++)
            taken[fd] = fcntl(fd, F_GETFD) != -1;
        connection = p.other_end();
    }
    EXPECT_EQ(started, 0);
    for (int fd = 0; fd < 3; fd++)
        EXPECT_FALSE(taken[fd]) << fd;
    EXPECT_GE(connection, 3);
}

} // namespace
