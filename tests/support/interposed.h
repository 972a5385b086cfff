/* Calls of the library that a test replaces. Everything passes through unless a test says otherwise.
 *
 * Link zeb_test_interposed into the test program: its definitions come before the C library's for the shared
 * library and for the static one alike. Whatever else runs in the process is affected, too. */
#pragma once

#include "patience.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

namespace zebtest::interposed
{

/* Lets everything pass through again and forgets what was noted. */
void reset();

/* ---- sleep ---- */

/* From now on sleep(N) is noted and takes N times PERSECOND. Without this call it is noted and takes what it
 * says. */
void shorten_sleeps(milliseconds perSecond);
std::vector<unsigned> sleeps(); /* all so far, in order */
void forget_sleeps();

/* ---- time and syscall ---- */

/* Sets the wall clock that the process sees: back with less than 0. Returns when every wait on it knows. */
void step_clock(int64_t seconds);

/* Seconds until the last of all waits on the wall clock ends; 0 without one. */
int64_t left_to_wait();

/* While it exists the wall clock goes to and fro by an hour. */
class unsteady_clock
{
  public:
    unsteady_clock();
    ~unsteady_clock();
    unsteady_clock(const unsteady_clock &) = delete;
    unsteady_clock &operator=(const unsteady_clock &) = delete;

  private:
    std::atomic<bool> over{false};
    std::thread thread;
};

/* ---- pthread_create ---- */

/* Under a sanitizer every thread really gets at least 1 MiB: its frames do not fit the library's sizes. */
struct created_thread {
    size_t stacksize; /* as asked for, or the system's default */
    bool detached;
    int result;
};

std::vector<created_thread> created_threads();
void forget_threads();

/* Lets the next PASS creations pass and fails COUNT after them (-1: all) with ERROR. */
void fail_threads(int pass, int count, int error);

/* Fails every creation whose stack is smaller than SIZE with EINVAL, as happens in a program whose
 * thread-local storage does not fit. */
void refuse_stacks_below(size_t size);

/* ---- getaddrinfo ---- */

/* From now on it fails with ERROR (0: not any more). */
void fail_resolver(int error);

/* From now on it finds these numeric addresses, in this order; an empty list is found as one. */
void resolve_to(const std::vector<std::string> &addresses);

int lookups(); /* calls so far */

/* Host and service of the last call, as "host:service"; empty without one. */
std::string last_lookup();

/* ---- socket ---- */

/* From now on stream sockets are bound to PORT of their loopback before they are handed out (0: not any
 * more), so that a connect to that port meets itself. */
void bind_sockets_to(uint16_t port);

/* Lets the next PASS calls pass and fails COUNT after them (-1: all) with ERROR. */
void fail_sockets(int pass, int count, int error);
void count_sockets();
int socket_calls(); /* since the last of either */

} // namespace zebtest::interposed
