/* Ends a process that hangs, after showing what its threads are doing. */
#pragma once

#include "patience.h"

#include <condition_variable>
#include <mutex>
#include <thread>

namespace schedules
{

inline constexpr int HANGS = 3; /* exit code */

/* From creation to its end no more than LIMIT, stretched, may pass. */
class watchdog
{
  public:
    explicit watchdog(zebtest::milliseconds limit);
    ~watchdog();
    watchdog(const watchdog &) = delete;
    watchdog &operator=(const watchdog &) = delete;

  private:
    std::mutex lock;
    std::condition_variable changed;
    bool over = false;
    std::thread thread;
};

} // namespace schedules
