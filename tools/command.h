/* Runs a shell command with octets on its standard input and hands on what it writes. */
#pragma once

#include <functional>
#include <string>
#include <string_view>

namespace tool
{

struct command_result {
    int status = -1;    /* exit status; 128 + number for a signal; -1 when it could not be started */
    std::string output; /* all of its standard output */
};

/* Takes a whole line of standard error, without its line feed. */
using line_taker = std::function<void(std::string_view)>;

/* Runs COMMAND by the shell and waits for its end. NAME and VALUE are one more variable of its environment.
 * With ON_LINE each line of its standard error goes there, otherwise to ours. Any thread may call it. */
command_result run_command(const std::string &command, const std::string &name, const std::string &value,
                           std::string_view input, const line_taker &onLine);

/* Ends the commands that are running, with SIGTERM. */
void stop_commands();

} // namespace tool
