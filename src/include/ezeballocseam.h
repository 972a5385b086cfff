/* The allocator seam of test builds: the n-th request from now, or every one from the n-th on, is refused. In
 * what ships it is nothing at all. */
#ifndef EZEBALLOCSEAM_H
#define EZEBALLOCSEAM_H

#include <stdint.h>

#ifdef ZEB_TEST_SEAMS

extern int64_t ezeb_allocseam_countdown;  /* requests until the first refusal; 0: none is refused */
extern int32_t ezeb_allocseam_persistent; /* 1: all later ones are refused as well */
extern int64_t ezeb_allocseam_requests;   /* requests made so far, refused ones included */
extern int64_t ezeb_allocseam_blocks;     /* handed out and not yet released by ezeb_free */

bool ezeb_allocseam_refuses(void);
void ezeb_allocseam_count(int change); /* of the blocks */

#else

inline bool ezeb_allocseam_refuses(void)
{
    return false;
}

inline void ezeb_allocseam_count(int change)
{
    (void)change;
}

#endif

#endif
