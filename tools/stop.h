/* When a run ends: by its limit of time, by a signal, or because it has waited long enough. */
#pragma once

#include <csignal>

namespace tool
{

/* From here on the run ends with the time-out code when SECONDS are over; 0 is no limit. */
void limit_run(double seconds);

/* From here on SIGINT and SIGTERM make interrupted() true. ON_STOP, when given, is called in the handler, for
 * verbs that wait in the library without limit. A second signal ends the run where it stands. */
void watch_signals(void (*on_stop)() = nullptr);
bool interrupted();

/* While one of these lives, watched signals wait: what belongs together is done whole. */
class signals_held
{
  public:
    signals_held();
    ~signals_held();
    signals_held(const signals_held &) = delete;
    signals_held &operator=(const signals_held &) = delete;

  private:
    sigset_t before;
};

/* Seconds since 1970 on the wall clock, by which the library's waits go. */
double wall_clock();

/* Seconds on a clock that is never set, for measuring. */
double steady_clock();

/* Waits until SECONDS are over or a signal comes. */
void sleep_for(double seconds);

} // namespace tool
