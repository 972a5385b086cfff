/* The allocator seam of test builds: the n-th request from now, or every one from the n-th on, is refused. In
 * what ships it is nothing at all. */
#ifndef EZEBALLOCSEAM_H
#define EZEBALLOCSEAM_H

#include <stdint.h>

#ifdef ZEB_TEST_SEAMS

extern int64_t ezeb_allocseam_countdown;  /* requests until the first refusal; 0: none is refused */
extern int32_t ezeb_allocseam_persistent; /* 1: all later ones are refused as well */
extern int64_t ezeb_allocseam_requests;   /* requests made so far, refused ones included */

bool ezeb_allocseam_refuses(void);

#else

inline bool ezeb_allocseam_refuses(void)
{
    return false;
}

#endif

#endif
