/* Holds threads up at random wherever they meet, from a seed. The seed decides what the disturbance is like:
 * now and then anywhere, always at the same few places, or some threads more than others. The order in which
 * threads run is still the kernel's, so a seed makes a schedule likely, not certain. */
#pragma once

#include <cstdint>

namespace schedules
{

void disturb(uint64_t seed); /* from now on, every thread of the process */
void calm();

uint64_t points(); /* where threads could have been held up, since the last disturb */
uint64_t pauses(); /* where they were */

} // namespace schedules
