/* Conditions. Who waits has a word of its own to sleep on, so waking is exact: the condition says who has to
 * be woken, the word that it was done. */
#include "ezeblock.h"

#include "ezebruntime.h"

#include <errno.h>
#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

/* ---- Sleeping ---- */

enum { MONOTONIC = 0, WALL_CLOCK = FUTEX_CLOCK_REALTIME };

/* The call that takes a timespec as it is here: where long has 32 bits there are two. */
#ifdef SYS_futex_time64
static constexpr long FUTEX = sizeof(time_t) > sizeof(long) ? SYS_futex_time64 : SYS_futex;
#else
static constexpr long FUTEX = SYS_futex;
#endif

/* Until SELF is woken, or DEADLINE, unless null, has passed on CLOCK. Signals do not end it; a deadline that
 * is no time is past. */
static bool sleep_until_woken(const ezeb_waiter *self, int clock, const timespec *deadline)
{
    while (ezeb_flag_acquire(&self->woken) == 0) {
        if (syscall(FUTEX, &self->woken, FUTEX_WAIT_BITSET_PRIVATE | clock, 0, deadline, nullptr,
                    FUTEX_BITSET_MATCH_ANY) != 0 &&
            (errno == ETIMEDOUT || errno == EINVAL))
            return false;
    }
    return true;
}

/* Once the word is set the waiter may be gone: the call that follows is about its address alone. */
void ezeb_wake(ezeb_waiter *waiters)
{
    for (ezeb_waiter *next = nullptr; waiters != nullptr; waiters = next) {
        next = waiters->next;
        ezeb_flag_release(&waiters->woken, 1);
        syscall(FUTEX, &waiters->woken, FUTEX_WAKE_PRIVATE, 1);
    }
}

/* ---- Who waits ---- */

static void forget_vanished(ezeb_cond *cond)
{
    const uint32_t generation = ezeb_fork_generation();
    if (cond->forkgeneration != generation)
        *cond = {nullptr, nullptr, generation};
}

static void enter(ezeb_cond *cond, ezeb_waiter *self)
{
    forget_vanished(cond);
    (cond->last != nullptr ? cond->last->next : cond->first) = self;
    cond->last = self;
}

ezeb_waiter *ezeb_cond_take(ezeb_cond *cond, [[maybe_unused]] ezeb_mutex *mutex, int32_t count)
{
    forget_vanished(cond);
    ezeb_waiter *const taken = count > 0 ? cond->first : nullptr;
    if (taken == nullptr)
        return nullptr;
    ezeb_waiter *end = taken;
    while (--count > 0 && end->next != nullptr)
        end = end->next;
    cond->first = end->next;
    if (cond->first == nullptr)
        cond->last = nullptr;
    end->next = nullptr;
    return taken;
}

/* False when somebody has taken it out before. */
static bool leave(ezeb_cond *cond, const ezeb_waiter *self)
{
    ezeb_waiter *before = nullptr;
    ezeb_waiter *found = cond->first;
    while (found != nullptr && found != self) {
        before = found;
        found = found->next;
    }
    if (found == nullptr)
        return false;
    (before != nullptr ? before->next : cond->first) = found->next;
    if (cond->last == found)
        cond->last = before;
    return true;
}

void ezeb_cond_broadcast(ezeb_cond *cond, ezeb_mutex *mutex)
{
    ezeb_wake(ezeb_cond_take(cond, mutex, INT32_MAX));
}

/* ---- Waiting ---- */

static bool wait_until(ezeb_cond *cond, ezeb_mutex *mutex, int clock, const timespec *deadline)
    EZEB_REQUIRES(mutex)
{
    ezeb_waiter self = {};
    enter(cond, &self);
    ezeb_mutex_unlock(mutex);
    bool woken = sleep_until_woken(&self, clock, deadline);
    ezeb_mutex_lock(mutex);
    if (!woken && !leave(cond, &self)) { /* just about to be woken: until then it is not ours to leave */
        ezeb_mutex_unlock(mutex);
        woken = sleep_until_woken(&self, MONOTONIC, nullptr);
        ezeb_mutex_lock(mutex);
    }
    return woken;
}

void ezeb_cond_wait(ezeb_cond *cond, ezeb_mutex *mutex)
{
    wait_until(cond, mutex, MONOTONIC, nullptr);
}

bool ezeb_cond_waituntil(ezeb_cond *cond, ezeb_mutex *mutex, const timespec *deadline)
{
    return wait_until(cond, mutex, WALL_CLOCK, deadline);
}

bool ezeb_cond_waitseconds(ezeb_cond *cond, ezeb_mutex *mutex, time_t seconds)
{
    timespec deadline;
    clock_gettime(CLOCK_MONOTONIC, &deadline);
    deadline.tv_sec += seconds;
    return wait_until(cond, mutex, MONOTONIC, &deadline);
}
