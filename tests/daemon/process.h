/* Programs under test: run to their end with input and a time limit, or kept running as a daemon. Children
 * are ended by their own number only, and every wait has a limit. */
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <sys/types.h>
#include <vector>

namespace process
{

/* Longest wait for anything in these tests. Milliseconds. */
inline constexpr int patience = 20000;

using arguments = std::vector<std::string>;
using environment =
    std::map<std::string, std::string>; /* set on top of the caller's; an empty value unsets */

struct outcome {
    int code = -1; /* exit code; 128 + number for a signal; -1 when it had to be killed */
    std::string out, err;
};

/* Runs a program to its end. */
outcome run(const arguments &command, const std::string &input = "", const environment &env = {});

/* A program that runs on, with its output collected as it comes. */
struct running {
    running() = default;
    running(const running &) = delete;
    running &operator=(const running &) = delete;
    ~running();

    pid_t pid = -1;
    int in = -1, out = -1, err = -1, ready = -1;
    std::string outText, errText;
};

/* For a forked child: turns into COMMAND, ENV set on top of the environment. */
[[noreturn]] void become(const arguments &command, const environment &env);

/* Starts it; a ready descriptor, when wanted, is number 3 in the child. */
void start(running &child, const arguments &command, const environment &env = {}, bool withReady = false);

/* Collects output until `outText` or `errText` contains TEXT. False when the time is over or the output
 * ended. */
bool wait_for_out(running &child, const std::string &text);
bool wait_for_err(running &child, const std::string &text);

/* Collects once, as soon as something has arrived. False when the time is over or the output ended. */
bool wait_for_more(running &child);

/* Collects what has arrived by now, without waiting. */
void poll_output(running &child);

/* Sends a signal to the child and to nobody else. */
void send_signal(const running &child, int number);

/* Waits for the end, collecting output. Returns the code as in `outcome`. */
int finish(running &child);

/* zebd, on a port that the kernel chooses when PORT is 0. `port` is 0 when it did not come up. */
struct zebd : running {
    uint16_t port = 0;
};
/* The port from the ready line of a zebd that was started by hand; 0 when none came. */
uint16_t ready_port(const running &daemon);
void start_zebd(zebd &daemon, const arguments &options = {}, const environment &env = {}, uint16_t port = 0);

} // namespace process
