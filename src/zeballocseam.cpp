/* State of the allocator seam; compiled into test builds only. Atomic, since any thread allocates. */
#include "ezeballocseam.h"

int64_t ezeb_allocseam_countdown = 0;
int32_t ezeb_allocseam_persistent = 0;
int64_t ezeb_allocseam_requests = 0;

bool ezeb_allocseam_refuses(void)
{
    __atomic_fetch_add(&ezeb_allocseam_requests, 1, __ATOMIC_RELAXED);
    if (__atomic_load_n(&ezeb_allocseam_countdown, __ATOMIC_RELAXED) == 0)
        return false;
    const int64_t left = __atomic_sub_fetch(&ezeb_allocseam_countdown, 1, __ATOMIC_RELAXED);
    if (left > 0)
        return false;
    if (__atomic_load_n(&ezeb_allocseam_persistent, __ATOMIC_RELAXED) != 0)
        __atomic_store_n(&ezeb_allocseam_countdown, 1,
                         __ATOMIC_RELAXED); /* the next request is refused too */
    else
        __atomic_store_n(&ezeb_allocseam_countdown, 0, __ATOMIC_RELAXED);
    return true;
}
