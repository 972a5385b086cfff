/* Time in tests: limits that a slow machine or a sanitizer stretches, and waiting for conditions. */
#pragma once

#include <chrono>
#include <functional>

#if defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define ZEBTEST_THREAD_SANITIZER 1
#elif __has_feature(address_sanitizer)
#define ZEBTEST_ADDRESS_SANITIZER 1
#endif
#endif
#if defined(__SANITIZE_THREAD__)
#define ZEBTEST_THREAD_SANITIZER 1
#elif defined(__SANITIZE_ADDRESS__)
#define ZEBTEST_ADDRESS_SANITIZER 1
#endif

namespace zebtest
{

using std::chrono::milliseconds;

#if defined(ZEBTEST_THREAD_SANITIZER)
inline constexpr bool threadSanitizer = true;
#else
inline constexpr bool threadSanitizer = false;
#endif
#if defined(ZEBTEST_ADDRESS_SANITIZER)
inline constexpr bool addressSanitizer = true;
#else
inline constexpr bool addressSanitizer = false;
#endif

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
