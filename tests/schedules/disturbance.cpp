#include "disturbance.h"

#include "ezebyieldseam.h"

#include <atomic>
#include <cerrno>
#include <ctime>
#include <deque>
#include <pthread.h>
#include <sched.h>
#include <sys/socket.h>
#include <unistd.h>

namespace
{

/* What a seed stands for. Every share is one in so many; 0 means none. */
struct manner {
    uint64_t seed = 0;
    uint64_t yields = 0;       /* of the points where the thread gives way */
    uint64_t sleeps = 0;       /* of the points where it sleeps */
    uint64_t slowPlaces = 0;   /* of the places in the code where it sleeps every other time */
    uint64_t slowThreads = 0;  /* of the threads, which sleep at every fourth point */
    uint64_t longestSleep = 0; /* microseconds */
};

/* Of the seeds so far. Never released: threads may be late in noticing a new one, or the end. */
auto &allManners = *new std::deque<manner>;
std::atomic<const manner *> current{nullptr};
std::atomic<uint64_t> threadCount{0};
std::atomic<uint64_t> pointCount{0};
std::atomic<uint64_t> pauseCount{0};

/* What a thread knows of itself. */
struct traveller {
    const manner *how = nullptr;
    uint64_t state = 0;
    bool slow = false;
};
thread_local traveller self;

uint64_t mixed(uint64_t x)
{
    x ^= x >> 33;
    x *= 0xff51afd7ed558ccdULL;
    x ^= x >> 33;
    x *= 0xc4ceb9fe1a85ec53ULL;
    return x ^ (x >> 33);
}

uint64_t random_number()
{
    self.state ^= self.state << 13;
    self.state ^= self.state >> 7;
    self.state ^= self.state << 17;
    return self.state;
}

bool one_in(uint64_t share)
{
    return share != 0 && random_number() % share == 0;
}

void settle_in()
{
    const manner *how = current.load(std::memory_order_acquire);
    if (self.how == how)
        return;
    const uint64_t number = threadCount.fetch_add(1, std::memory_order_relaxed);
    self.how = how;
    self.state = mixed(how->seed * 1000003 + number) | 1;
    self.slow = one_in(how->slowThreads);
}

void rest()
{
    pauseCount.fetch_add(1, std::memory_order_relaxed);
    const timespec length{0, static_cast<long>(1 + random_number() % self.how->longestSleep) * 1000};
    nanosleep(&length, nullptr);
}

/* PLACE is an address in the code. What differs from run to run is where the program lies. */
bool is_slow_place(const void *place)
{
    if (self.how->slowPlaces == 0)
        return false;
    const auto offset = reinterpret_cast<uintptr_t>(place) - reinterpret_cast<uintptr_t>(&mixed);
    return mixed(offset ^ mixed(self.how->seed)) % self.how->slowPlaces == 0;
}

void pass_through(const void *place)
{
    const int saved = errno;
    settle_in();
    pointCount.fetch_add(1, std::memory_order_relaxed);
    if ((is_slow_place(place) && one_in(2)) || (self.slow && one_in(4)) || one_in(self.how->sleeps)) {
        rest();
    } else if (one_in(self.how->yields)) {
        pauseCount.fetch_add(1, std::memory_order_relaxed);
        sched_yield();
    }
    errno = saved;
}

void visit()
{
    pass_through(__builtin_return_address(0));
}

} // namespace

namespace schedules
{

void disturb(uint64_t seed)
{
    static constexpr manner manners[] = {
        {.yields = 8, .sleeps = 64, .longestSleep = 60},         /* a little, anywhere */
        {.yields = 16, .slowPlaces = 12, .longestSleep = 300},   /* a few places, for long */
        {.sleeps = 512, .slowPlaces = 48, .longestSleep = 4000}, /* one or two places, for very long */
        {.yields = 32, .slowThreads = 3, .longestSleep = 150},   /* some threads lag behind */
    };
    allManners.push_back(manners[seed % 4]);
    allManners.back().seed = seed;
    threadCount = 0;
    pointCount = 0;
    pauseCount = 0;
    current = &allManners.back();
    __atomic_store_n(&ezeb_yieldseam, &visit, __ATOMIC_SEQ_CST);
}

void calm()
{
    __atomic_store_n(&ezeb_yieldseam, nullptr, __ATOMIC_SEQ_CST);
}

uint64_t points()
{
    return pointCount;
}

uint64_t pauses()
{
    return pauseCount;
}

} // namespace schedules

/* ---- Calls into the kernel ---- */

/* The library's calls, and the test's own. */
static void visit_from(const void *place)
{
    if (__atomic_load_n(&ezeb_yieldseam, __ATOMIC_RELAXED) != nullptr)
        pass_through(place);
}

extern "C" {

ssize_t __real_read(int fd, void *buffer, size_t size);
ssize_t __real_recv(int fd, void *buffer, size_t size, int flags);
ssize_t __real_write(int fd, const void *buffer, size_t size);
int __real_connect(int fd, const sockaddr *address, socklen_t length);
int __real_shutdown(int fd, int how);
int __real_close(int fd);
int __real_pthread_join(pthread_t thread, void **result);

ssize_t __wrap_read(int fd, void *buffer, size_t size)
{
    visit_from(__builtin_return_address(0));
    const ssize_t got = __real_read(fd, buffer, size);
    visit_from(__builtin_return_address(0));
    return got;
}

ssize_t __wrap_recv(int fd, void *buffer, size_t size, int flags)
{
    visit_from(__builtin_return_address(0));
    const ssize_t got = __real_recv(fd, buffer, size, flags);
    visit_from(__builtin_return_address(0));
    return got;
}

ssize_t __wrap_write(int fd, const void *buffer, size_t size)
{
    visit_from(__builtin_return_address(0));
    return __real_write(fd, buffer, size);
}

int __wrap_connect(int fd, const sockaddr *address, socklen_t length)
{
    visit_from(__builtin_return_address(0));
    return __real_connect(fd, address, length);
}

int __wrap_shutdown(int fd, int how)
{
    visit_from(__builtin_return_address(0));
    return __real_shutdown(fd, how);
}

int __wrap_close(int fd)
{
    visit_from(__builtin_return_address(0));
    return __real_close(fd);
}

int __wrap_pthread_join(pthread_t thread, void **result)
{
    visit_from(__builtin_return_address(0));
    return __real_pthread_join(thread, result);
}

/* A second of the library's pauses takes a millisecond. */
unsigned __wrap_sleep(unsigned seconds)
{
    const timespec length{0, static_cast<long>(seconds) * 1000000};
    nanosleep(&length, nullptr);
    return 0;
}
}
