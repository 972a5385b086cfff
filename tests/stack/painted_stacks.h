/* Small stacks made by the test and painted before use, so that it shows how deep each thread went. */
#pragma once

#include <cstddef>

namespace zebtest
{

/* Threads that asked for a stack of their own size, in the order of their creation. */
size_t painted_count();

struct depth {
    size_t size; /* of the stack, as asked for */
    size_t used; /* from its top to the deepest byte ever written, thread-local data included */
};
depth painted_depth(size_t index);

/* Makes every look-up of a name fail from now on. */
void fail_lookups();

} // namespace zebtest
