/* What the threads of a process are doing, for tests that hang. */
#pragma once

#include <sys/types.h>

namespace zebtest
{

/* Writes the stacks of all threads of PROCESS to standard error: from the debugger, and where there is none
 * what the kernel tells. Forks nothing, which would wait for locks of the library in a process that hangs. */
void show_stacks(pid_t process);

/* The same for PROCESS and all that descend from it. */
void show_stacks_of_all(pid_t process);

} // namespace zebtest
