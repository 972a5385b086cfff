/* State of the allocator seam; compiled into test builds only. Atomic, since any thread allocates. */
#include "ezeballocseam.h"

int64_t ezeb_allocseam_countdown = 0;
int32_t ezeb_allocseam_persistent = 0;
int64_t ezeb_allocseam_requests = 0;
int64_t ezeb_allocseam_blocks = 0;

/* The countdown is never written once it has been set to 0: a test that ends its refusals ends them for every
 * thread. */
bool ezeb_allocseam_refuses(void)
{
    __atomic_fetch_add(&ezeb_allocseam_requests, 1, __ATOMIC_RELAXED);
    int64_t left = __atomic_load_n(&ezeb_allocseam_countdown, __ATOMIC_RELAXED);
    while (left != 0) {
        if (left == 1 && __atomic_load_n(&ezeb_allocseam_persistent, __ATOMIC_RELAXED) != 0)
            return true;
        if (__atomic_compare_exchange_n(&ezeb_allocseam_countdown, &left, left - 1, false, __ATOMIC_RELAXED,
                                        __ATOMIC_RELAXED))
            return left == 1;
    }
    return false;
}

void ezeb_allocseam_count(int change)
{
    __atomic_fetch_add(&ezeb_allocseam_blocks, change, __ATOMIC_RELAXED);
}
