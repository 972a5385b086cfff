#include "patience.h"

#include <cstdlib>
#include <ctime>

namespace zebtest
{

static double factor()
{
    if (const char *text = getenv("ZEB_TEST_STRETCH"))
        return atof(text) > 0 ? atof(text) : 1;
    return threadSanitizer || addressSanitizer ? 3 : 1;
}

milliseconds stretched(milliseconds limit)
{
    return milliseconds{static_cast<milliseconds::rep>(static_cast<double>(limit.count()) * factor())};
}

bool eventually(const std::function<bool()> &condition, milliseconds limit)
{
    const stopwatch watch;
    const timespec pause{0, 200000};
    while (!condition()) {
        if (watch.elapsed() > stretched(limit))
            return false;
        nanosleep(&pause, nullptr);
    }
    return true;
}

} // namespace zebtest
