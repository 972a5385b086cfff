/* Locks and flags, thin wrappers that clang's thread-safety analysis understands, and conditions.
 *
 * Lock order, outermost first. A lock may be taken while those above it are held, never the other way round:
 *
 *   0. send.hand                    an item between queue and wire; what blocks may happen under it
 *   1. remote-call client lock      one per client
 *   2. ezebglobalmutex              start-up, shutdown, fork; then the runtime's forkmutex (fork interlock)
 *   3. runtime regmutex             the tables of subscribers and publishers; held while delivering
 *   4. subscriber lock              one per subscriber
 *   5. queue lock, list lock        never two at once
 *   6. leaves: recv.mutex (connection), send.sbmutex (the send buffer's pointer), namemutex (instance name),
 *      ezebctxmutex (runtime pointer)
 *
 * No lock of ours is held while an application's call-back runs, except the remote-call client's. Nothing
 * that blocks (read, write, connect, close, getaddrinfo, join, sleep, printing) happens under 3 to 6. A fork
 * takes 2, 3, the send queue's lock and ezebctxmutex, in that order.
 *
 * Mutexes and conditions stand inside heap records, so a forked child releases them with their record,
 * without destroying them: their state there is unknown, and those who wait do not exist there. */
#ifndef EZEBLOCK_H
#define EZEBLOCK_H

#include "ezebyieldseam.h"

#include <pthread.h>
#include <stdint.h>
#include <time.h>

#include <limits>

#if defined(__clang__)
#define EZEB_TSA(x) __attribute__((x))
#else
#define EZEB_TSA(x)
#endif
#define EZEB_CAPABILITY(name) EZEB_TSA(capability(name))
#define EZEB_SCOPED EZEB_TSA(scoped_lockable)
#define EZEB_GUARDED_BY(m) EZEB_TSA(guarded_by(m))
#define EZEB_ACQUIRE(...) EZEB_TSA(acquire_capability(__VA_ARGS__))
#define EZEB_TRY_ACQUIRE(...) EZEB_TSA(try_acquire_capability(__VA_ARGS__))
#define EZEB_RELEASE(...) EZEB_TSA(release_capability(__VA_ARGS__))
#define EZEB_REQUIRES(...) EZEB_TSA(requires_capability(__VA_ARGS__))
#define EZEB_NO_ANALYSIS EZEB_TSA(no_thread_safety_analysis)

/* Stops debug builds only: a failing pthread call on these objects is a defect of ours, never a condition to
 * handle. */
inline void ezeb_pthread_ok(int result)
{
#ifndef NDEBUG
    if (result != 0)
        __builtin_trap();
#else
    (void)result;
#endif
}

struct EZEB_CAPABILITY("mutex") ezeb_mutex {
    pthread_mutex_t m;
};

/* Somebody who waits; stands on the stack of the waiting thread, which stays until it is woken or has taken
 * itself out. */
struct ezeb_waiter {
    ezeb_waiter *next;
    int32_t woken; /* the last thing that is touched by who wakes */
};

/* A condition: those who wait for it, in the order in which they came. Used only under the mutex that they
 * wait with. Unlike the system's it knows whom it has woken already, so nobody is woken twice or in vain,
 * wakes without the mutex, leaves that mutex without a call of the kernel, and has nobody to wake in a forked
 * child. */
struct ezeb_cond {
    ezeb_waiter *first;
    ezeb_waiter *last;
    uint32_t forkgeneration; /* of those who wait: after a fork they do not exist, nor do their stacks */
};

#define EZEB_MUTEX_INITIALIZER                                                                               \
    {                                                                                                        \
        PTHREAD_MUTEX_INITIALIZER                                                                            \
    }
#define EZEB_COND_INITIALIZER                                                                                \
    {                                                                                                        \
        nullptr, nullptr, 0                                                                                  \
    }

inline void ezeb_mutex_init(ezeb_mutex *mutex)
{
    ezeb_pthread_ok(pthread_mutex_init(&mutex->m, nullptr));
}

inline void ezeb_mutex_destroy(ezeb_mutex *mutex)
{
    ezeb_pthread_ok(pthread_mutex_destroy(&mutex->m));
}

inline void ezeb_mutex_lock(ezeb_mutex *mutex) EZEB_ACQUIRE(mutex) EZEB_NO_ANALYSIS
{
    ezeb_yield();
    ezeb_pthread_ok(pthread_mutex_lock(&mutex->m));
}

inline void ezeb_mutex_unlock(ezeb_mutex *mutex) EZEB_RELEASE(mutex) EZEB_NO_ANALYSIS
{
    ezeb_pthread_ok(pthread_mutex_unlock(&mutex->m));
    ezeb_yield();
}

inline bool ezeb_mutex_trylock(ezeb_mutex *mutex) EZEB_TRY_ACQUIRE(true, mutex) EZEB_NO_ANALYSIS
{
    ezeb_yield();
    return pthread_mutex_trylock(&mutex->m) == 0;
}

/* Holds a mutex from its declaration to the end of the block. */
class EZEB_SCOPED ezeb_locked
{
  public:
    explicit ezeb_locked(ezeb_mutex *mutex) EZEB_ACQUIRE(mutex) : held(mutex)
    {
        ezeb_mutex_lock(mutex);
    }
    ~ezeb_locked() EZEB_RELEASE()
    {
        ezeb_mutex_unlock(held);
    }
    ezeb_locked(const ezeb_locked &) = delete;
    ezeb_locked &operator=(const ezeb_locked &) = delete;

  private:
    ezeb_mutex *held;
};

inline void ezeb_cond_init(ezeb_cond *cond)
{
    *cond = EZEB_COND_INITIALIZER;
}

inline void ezeb_cond_destroy(ezeb_cond *cond)
{
    ezeb_pthread_ok(cond->first != nullptr);
}

/* Takes COUNT at most of those who wait out of COND, as a chain to be woken by the second: best when the
 * mutex has been left, for who is woken wants it. */
ezeb_waiter *ezeb_cond_take(ezeb_cond *cond, ezeb_mutex *mutex, int32_t count) EZEB_REQUIRES(mutex);
void ezeb_wake(ezeb_waiter *waiters); /* null: nobody */

void ezeb_cond_broadcast(ezeb_cond *cond, ezeb_mutex *mutex) EZEB_REQUIRES(mutex);

void ezeb_cond_wait(ezeb_cond *cond, ezeb_mutex *mutex) EZEB_REQUIRES(mutex);

/* The same until DEADLINE (wall clock), then false. */
bool ezeb_cond_waituntil(ezeb_cond *cond, ezeb_mutex *mutex, const timespec *deadline) EZEB_REQUIRES(mutex);

/* The same for SECONDS at most on a clock that nobody sets. */
bool ezeb_cond_waitseconds(ezeb_cond *cond, ezeb_mutex *mutex, time_t seconds) EZEB_REQUIRES(mutex);

/* The end of a timed wait of TIMEOUT milliseconds, counted from the start of the current second, with the
 * remaining milliseconds times 1000 as nanoseconds: a wait below one second ends at once, and T ms end T/1000
 * - 1 to T/1000 seconds from now. Meant so, in every timed wait of the library; pinned by the tests of the
 * queue. */
inline timespec ezeb_deadline(int64_t timeout)
{
    timespec deadline;
    const time_t now = time(nullptr);
    if (__builtin_add_overflow(now, timeout / 1000, &deadline.tv_sec))
        deadline.tv_sec = std::numeric_limits<time_t>::max();
    deadline.tv_nsec = static_cast<long>(timeout % 1000) * 1000L;
    return deadline;
}

/* Flags and counts that are read outside their lock. Relaxed: they only shorten a path or are looked at again
 * under the lock; what must be ordered uses the forms behind them. */
template <typename T>
inline T ezeb_flag_get(const T *flag)
{
    ezeb_yield();
    return __atomic_load_n(flag, __ATOMIC_RELAXED);
}

template <typename T>
inline void ezeb_flag_set(T *flag, T value)
{
    ezeb_yield();
    __atomic_store_n(flag, value, __ATOMIC_RELAXED);
}

/* Who reads VALUE with the second sees what was written before the first. */
template <typename T>
inline void ezeb_flag_release(T *flag, T value)
{
    ezeb_yield();
    __atomic_store_n(flag, value, __ATOMIC_RELEASE);
}

template <typename T>
inline T ezeb_flag_acquire(const T *flag)
{
    ezeb_yield();
    return __atomic_load_n(flag, __ATOMIC_ACQUIRE);
}

/* Raises a one-way flag; true for the caller who was the first. */
inline bool ezeb_flag_raise(int32_t *flag)
{
    ezeb_yield();
    return __atomic_exchange_n(flag, 1, __ATOMIC_ACQ_REL) == 0;
}

/* Reference counts. ezeb_unref returns true for the caller who gave back the last one and now owns the record
 * alone. */
inline void ezeb_ref(int32_t *count)
{
    ezeb_yield();
    __atomic_fetch_add(count, 1, __ATOMIC_RELAXED);
}

inline bool ezeb_unref(int32_t *count)
{
    ezeb_yield();
    return __atomic_fetch_sub(count, 1, __ATOMIC_ACQ_REL) == 1;
}

#endif
