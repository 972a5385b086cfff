/* System calls of the library that fail, or do less than asked. Linked with --wrap: nobody but the library,
 * which is in the same program, is affected, and of the threads only its own and those that say so. */
#pragma once

#include <string>
#include <vector>

namespace sweep::faults
{

/* The calls that can fail. */
enum call {
    SOCKET,
    CONNECT,
    READ,
    WRITE,
    FCNTL,
    OPEN,
    FSTAT,
    SETSOCKOPT,
    GETADDRINFO,
    PTHREAD_CREATE,
    CALLS
};

const char *name_of(call which);

/* What the N-th call is to do instead of its work. */
struct fault {
    call which = SOCKET;
    int nth = 1;
    bool persistent = false; /* and all later ones */
    int error = 0;           /* fails with it; for getaddrinfo a result of its own kind */
    int atmost = 0;          /* of reads and writes, without an error: so many bytes */
};

void arm(const fault &f);
void disarm();
bool happened(); /* since arm */

/* Calls of WHICH that were counted so far, in this process and its children. */
int calls(call which);
void forget_calls();

/* The calling thread's calls count from now on; those of threads that the library starts do anyway. */
void count_this_thread(bool counted);

} // namespace sweep::faults
