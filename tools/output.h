/* What a run writes. Results go to standard output through put(), which writes at once, so that a run cut
 * short leaves whole lines behind; everything else goes to standard error. While something takes long a line
 * of progress stands at the bottom of the terminal and is wiped before anything else is written. */
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace tool
{

enum exit_code {
    exit_done = 0,
    exit_usage = 1,
    exit_no_daemon = 2,
    exit_refused = 3,
    exit_time_out = 4,
    exit_partly = 5
};

/* Writes to standard output, completely. Ends the run, quietly, when nobody reads it any more. */
void put(std::string_view text);

/* A line on standard error, with the tool's name in front. */
void say(std::string_view text);

/* A line said, and CODE to end with. */
exit_code fail(exit_code code, std::string_view text);

/* Whether the reader of standard output has gone, as with `zeb sub | head -1`. */
bool output_is_gone();

/* Shows TEXT, cut to the terminal's width, in place of the line before. Nothing happens when standard error
 * is no terminal. */
void show_progress(std::string_view text);
void clear_progress();

/* Whether enough time has passed since the last line for another: ten a second are enough for people. */
bool progress_is_due();

/* Ends the process from wherever it is, a signal handler included, with a line on standard error. */
[[noreturn]] void quit(exit_code code, std::string_view text);

/* The same where a run was stopped in the middle: "stopped after NUMBER THINGS". */
[[noreturn]] void quit_after(uint64_t number, std::string_view things);

} // namespace tool
