/* Shows what a test does that is about to be ended because its time is over. Whoever runs it says in
 * ZEB_TEST_LIMIT after how many seconds it is ended. A process of its own watches, neither child nor of the
 * same session, so that the test's threads, children and descriptors are what they would be without. */
#include "stacks.h"

#include <cstdio>
#include <cstdlib>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace
{

constexpr int SHOWING_SECONDS = 15; /* that the debugger may need */

[[noreturn]] void watch(pid_t test, int seconds)
{
    setsid();
    dup2(STDERR_FILENO, STDOUT_FILENO);
    close_range(STDERR_FILENO + 1, ~0U, 0);
    pollfd end{static_cast<int>(syscall(SYS_pidfd_open, test, 0)), POLLIN, 0};
    if (end.fd >= 0 && poll(&end, 1, seconds * 1000) == 0) {
        fprintf(stderr, "Still running after %d seconds:\n", seconds);
        zebtest::show_stacks_of_all(test);
    }
    _exit(0);
}

[[gnu::constructor]] void be_watched()
{
    const char *limit = getenv("ZEB_TEST_LIMIT");
    const int seconds = limit != nullptr ? atoi(limit) - SHOWING_SECONDS : 0;
    if (seconds <= 0)
        return;
    unsetenv("ZEB_TEST_LIMIT"); /* what the test starts is seen as its descendant */
    prctl(PR_SET_PTRACER, PR_SET_PTRACER_ANY, 0, 0, 0);
    const pid_t test = getpid();
    const pid_t child = fork();
    if (child == 0) {
        if (fork() == 0)
            watch(test, seconds);
        _exit(0);
    }
    if (child > 0)
        waitpid(child, nullptr, 0);
}

} // namespace
