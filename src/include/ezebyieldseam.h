/* The schedule seam of test builds: a test may hold up a thread at every point where threads meet (locks,
 * waits, flags, counts, starts). In what ships it is nothing at all. */
#ifndef EZEBYIELDSEAM_H
#define EZEBYIELDSEAM_H

#ifdef ZEB_TEST_SEAMS
/* Called at every such point unless null. Set before the library starts: this load orders nothing, so that it
 * hides no race either. */
inline void (*ezeb_yieldseam)(void) = nullptr;
#endif

inline void ezeb_yield(void)
{
#ifdef ZEB_TEST_SEAMS
    void (*const hook)(void) = __atomic_load_n(&ezeb_yieldseam, __ATOMIC_RELAXED);
    if (hook != nullptr)
        hook();
#endif
}

#endif
