/* One run in a process of its own: a crash, a hang or an exit of it is a result like any other. */
#pragma once

#include "patience.h"

#include <functional>
#include <string>

namespace sweep
{

/* What a run returns, and so its exit code. The last is the library's own, for want of the daemon's address.
 */
enum verdict { PASSED = 0, FAILED = 1, PASSED_UNDISTURBED = 2, NO_ADDRESS = 255 };

/* How a run ended. */
struct outcome {
    int code = -1;      /* exit code; -1 when it did not exit */
    std::string manner; /* empty when it exited, else "hangs" or "signal N" */

    [[nodiscard]] bool is_good() const
    {
        return manner.empty() && (code == PASSED || code == PASSED_UNDISTURBED || code == NO_ADDRESS);
    }
};

/* Runs BODY in a child, whose exit code is what it returns. A child that takes longer than LIMIT, which is
 * stretched, is ended. No thread but the caller's may run. */
outcome in_child(const std::function<int()> &body, zebtest::milliseconds limit);

} // namespace sweep
