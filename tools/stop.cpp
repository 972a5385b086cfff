#include "stop.h"

#include "output.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <csignal>
#include <ctime>
#include <sys/time.h>

namespace tool
{

/* The library's own waits cannot be interrupted, and its service threads block all signals; so the limit is a
 * signal on the main thread that ends the process where it stands. */
static void on_time_over(int)
{
    quit(exit_time_out, "time is over");
}

void limit_run(double seconds)
{
    if (seconds <= 0)
        return;
    std::signal(SIGALRM, on_time_over);
    double whole = 0;
    const double fraction = std::modf(seconds, &whole);
    itimerval limit{};
    limit.it_value.tv_sec = static_cast<time_t>(whole);
    limit.it_value.tv_usec = static_cast<suseconds_t>(fraction * 1e6);
    if (limit.it_value.tv_sec == 0 && limit.it_value.tv_usec == 0)
        limit.it_value.tv_usec = 1; /* zero would mean no limit */
    setitimer(ITIMER_REAL, &limit, nullptr);
}

/* Set in a handler, which any thread of ours may run, and read on all of them. */
static std::atomic<bool> stopping{false};
static_assert(std::atomic<bool>::is_always_lock_free);
static void (*toDo)() = nullptr;

static void on_signal(int)
{
    if (stopping.exchange(true))
        quit(exit_partly, "stopped");
    if (toDo != nullptr)
        toDo();
}

void watch_signals(void (*on_stop)())
{
    toDo = on_stop;
    std::signal(SIGINT, on_signal);
    std::signal(SIGTERM, on_signal);
}

bool interrupted()
{
    return stopping;
}

signals_held::signals_held()
{
    sigset_t held;
    sigemptyset(&held);
    sigaddset(&held, SIGINT);
    sigaddset(&held, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &held, &before);
}

signals_held::~signals_held()
{
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

static double reading(clockid_t clock)
{
    timespec t{};
    clock_gettime(clock, &t);
    return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) / 1e9;
}

double wall_clock()
{
    return reading(CLOCK_REALTIME);
}

double steady_clock()
{
    return reading(CLOCK_MONOTONIC);
}

/* In short steps: a signal that comes just before a sleep does not shorten it. */
void sleep_for(double seconds)
{
    static constexpr double step = 0.1;
    const double end = steady_clock() + seconds;
    double left = seconds;
    while (left > 0 && !interrupted()) {
        const timespec pause{0, static_cast<long>(std::min(left, step) * 1e9)};
        nanosleep(&pause, nullptr);
        left = end - steady_clock();
    }
}

} // namespace tool
