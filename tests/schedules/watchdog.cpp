#include "watchdog.h"

#include "stacks.h"

#include <cstdio>
#include <sys/prctl.h>
#include <unistd.h>

namespace schedules
{

watchdog::watchdog(zebtest::milliseconds limit)
    : thread([this, limit] {
          std::unique_lock hold(lock);
          if (changed.wait_for(hold, zebtest::stretched(limit), [this] { return over; }))
              return;
          fprintf(stderr, "HANGS\n");
          prctl(PR_SET_PTRACER, PR_SET_PTRACER_ANY, 0, 0, 0);
          zebtest::show_stacks(getpid());
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
