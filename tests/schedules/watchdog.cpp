#include "watchdog.h"

#include <cstdio>
#include <spawn.h>
#include <string>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace schedules
{

/* The debugger does it where there is one. Nothing may be forked here: that would wait for the library's
 * locks, which a thread that hangs may hold. */
static void show_all_threads()
{
    const std::string self = std::to_string(getpid());
    const char *command[] = {"gdb",  "-p", self.c_str(), "-batch", "-ex", "thread apply all backtrace 16",
                             nullptr};
    prctl(PR_SET_PTRACER, PR_SET_PTRACER_ANY, 0, 0, 0);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, STDERR_FILENO, STDOUT_FILENO);
    pid_t child = 0;
    if (posix_spawnp(&child, command[0], &actions, nullptr, const_cast<char **>(command), environ) == 0)
        waitpid(child, nullptr, 0);
    posix_spawn_file_actions_destroy(&actions);
}

watchdog::watchdog(zebtest::milliseconds limit)
    : thread([this, limit] {
          std::unique_lock hold(lock);
          if (changed.wait_for(hold, zebtest::stretched(limit), [this] { return over; }))
              return;
          fprintf(stderr, "HANGS\n");
          show_all_threads();
          _exit(HANGS);
      })
{
}

watchdog::~watchdog()
{
    {
        const std::lock_guard hold(lock);
        over = true;
        changed.notify_all();
    }
    thread.join();
}

} // namespace schedules
