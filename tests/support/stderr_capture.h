/* What the process writes to standard error, by any means, gathered in a file. */
#pragma once

#include "patience.h"

#include <string>

namespace zebtest
{

/* From creation to its end descriptor 2 is the file. What was gathered is shown at the end when the test has
 * failed. Sanitizers report past it. */
class stderr_capture
{
  public:
    stderr_capture();
    ~stderr_capture();
    stderr_capture(const stderr_capture &) = delete;
    stderr_capture &operator=(const stderr_capture &) = delete;

    std::string text() const;

    /* True as soon as the text is exactly EXPECTED; false when it is not within LIMIT. */
    bool becomes(const std::string &expected, milliseconds limit = patience) const;

  private:
    int file;
    int original;
};

} // namespace zebtest
