/* Time in tests: limits that a slow machine or a sanitizer stretches, and waiting for conditions. */
#pragma once

#include "sanitizer.h"

#include <chrono>
#include <functional>

namespace zebtest
{

using std::chrono::milliseconds;

/* LIMIT times the number in ZEB_TEST_STRETCH; without it as it is, or three times as long under a sanitizer.
 * For limits after which a test fails, never for what the test measures. */
milliseconds stretched(milliseconds limit);

/* The limit of every single step of a test. */
inline constexpr milliseconds patience{10000};

/* Looks at CONDITION again and again. False when it does not hold within LIMIT, which is stretched. */
bool eventually(const std::function<bool()> &condition, milliseconds limit = patience);

class stopwatch
{
  public:
    stopwatch() : started(std::chrono::steady_clock::now()) {}
    milliseconds elapsed() const
    {
        return std::chrono::duration_cast<milliseconds>(std::chrono::steady_clock::now() - started);
    }

  private:
    std::chrono::steady_clock::time_point started;
};

} // namespace zebtest
