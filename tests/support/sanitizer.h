/* Which sanitizer the tests were built with, if any; gcc and clang tell it in different ways. */
#pragma once

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

} // namespace zebtest
