/* Bodies and lines from standard input and files. */
#pragma once

#include "output.h"

#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace tool
{

/* Appends what one read of FD gives. False with errno set; ENDED at its end. A signal ends the read with
 * EINTR when the run is to stop. */
bool read_some(int fd, std::string &into, bool &ended);

/* The octets of FILE, or of standard input without one. Usage, after a line was said, when they cannot be
 * read or are more than a body can be. */
exit_code read_whole(const std::optional<std::string> &file, std::string &octets);

/* Where a body comes from: a text, a file, or standard input when there is neither. */
exit_code read_body(const std::optional<std::string> &text, const std::optional<std::string> &file,
                    std::string &body);

/* Calls TAKE with each line of standard input as soon as it is complete, without its line feed; a carriage
 * return belongs to the line, and a last line needs no line feed. Ends with the first result of TAKE that is
 * not exit_done. */
exit_code for_each_line(const std::function<exit_code(std::string_view)> &take);

} // namespace tool
