#include "interposed.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdarg>
#include <dlfcn.h>
#include <limits>
#include <linux/futex.h>
#include <mutex>
#include <netdb.h>
#include <netinet/in.h>
#include <pthread.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

namespace
{

/* Fails some of the calls that follow. */
struct failing {
    int pass = 0;
    int count = 0;
    int error = 0;
    int calls = 0;

    /* The error of this call, 0 when it passes. */
    int next()
    {
        calls++;
        if (pass > 0) {
            pass--;
            return 0;
        }
        if (count == 0)
            return 0;
        if (count > 0)
            count--;
        return error;
    }
};

/* Threads of the library come here while exit destroys what is static, so no container is. */
template <typename T>
T &everlasting()
{
    return *new T;
}

std::mutex lock; /* guards everything below; never held during the real call */
auto &sleepsSoFar = everlasting<std::vector<unsigned>>();
zebtest::milliseconds perSecond{1000};
auto &threadsSoFar = everlasting<std::vector<zebtest::interposed::created_thread>>();
failing threads;
size_t leastStack = 0;
int resolverError = 0;
auto &lookup = everlasting<std::string>();
int lookupCount = 0;
bool addressesGiven = false;
auto &addressesToFind = everlasting<std::vector<std::string>>();
failing sockets;
uint16_t boundPort = 0;

/* A wait on the wall clock. */
struct clock_wait {
    uint32_t *word;
    time_t deadline;
    int64_t offset; /* of the clock, as far as this wait knows */
};

auto &clockWaits = everlasting<std::vector<clock_wait *>>();
std::atomic<int64_t> clockOffset{0}; /* changed under the lock */

/* When the machine's clock shows what the one that was set shows at DEADLINE. */
timespec unset(const timespec &deadline, int64_t offset)
{
    timespec real = deadline;
    if (__builtin_sub_overflow(deadline.tv_sec, offset, &real.tv_sec))
        real.tv_sec = std::numeric_limits<time_t>::max();
    return real;
}

/* A child must not find the lock held by a thread that it does not have. Before any handler of the library's,
 * so that this lock is taken after the library's own, as it is elsewhere. */
[[gnu::constructor]] void hold_across_forks()
{
    pthread_atfork([] { lock.lock(); }, [] { lock.unlock(); }, [] { lock.unlock(); });
}

template <typename Function>
Function *real(const char *name)
{
    return reinterpret_cast<Function *>(dlsym(RTLD_NEXT, name));
}

void bind_loopback(int fd, int family, uint16_t port)
{
    const int on = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
    sockaddr_in v4{};
    v4.sin_family = AF_INET;
    v4.sin_port = htons(port);
    v4.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    sockaddr_in6 v6{};
    v6.sin6_family = AF_INET6;
    v6.sin6_port = htons(port);
    v6.sin6_addr = in6addr_loopback;
    if (family == AF_INET)
        (void)bind(fd, reinterpret_cast<const sockaddr *>(&v4), sizeof(v4));
    else if (family == AF_INET6)
        (void)bind(fd, reinterpret_cast<const sockaddr *>(&v6), sizeof(v6));
}

} // namespace

extern "C" unsigned sleep(unsigned seconds)
{
    zebtest::milliseconds length{};
    {
        const std::lock_guard hold(lock);
        sleepsSoFar.push_back(seconds);
        length = perSecond * seconds;
    }
    timespec rest{static_cast<time_t>(length.count() / 1000),
                  static_cast<long>(length.count() % 1000) * 1000000};
    while (nanosleep(&rest, &rest) != 0 && errno == EINTR)
        ;
    return 0;
}

extern "C" time_t time(time_t *result) noexcept
{
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    now.tv_sec += clockOffset;
    if (result != nullptr)
        *result = now.tv_sec;
    return now.tv_sec;
}

namespace
{

using syscall_function = decltype(syscall);

bool is_futex(long number)
{
#ifdef SYS_futex_time64
    return number == (sizeof(time_t) > sizeof(long) ? SYS_futex_time64 : SYS_futex);
#else
    return number == SYS_futex;
#endif
}

/* Not a static of the function, whose guard waits by this very call. */
syscall_function *real_syscall()
{
    static std::atomic<syscall_function *> known{nullptr};
    syscall_function *call = known;
    if (call == nullptr)
        known = call = real<syscall_function>("syscall");
    return call;
}

/* The library waits by futex. One wait for its caller: only a step of the clock, which wakes it as well,
 * makes it begin anew. */
long wait_on_the_clock(syscall_function *call, long number, uint32_t *word, long operation, long value,
                       const timespec *deadline)
{
    clock_wait self{word, deadline->tv_sec, 0};
    std::unique_lock hold(lock);
    clockWaits.push_back(&self);
    long result = 0;
    int why = 0;
    do {
        self.offset = clockOffset;
        const timespec end = unset(*deadline, self.offset);
        hold.unlock();
        result = call(number, word, operation, value, &end, nullptr, FUTEX_BITSET_MATCH_ANY);
        why = errno;
        hold.lock();
    } while (result == 0 && self.offset != clockOffset);
    clockWaits.erase(std::find(clockWaits.begin(), clockWaits.end(), &self));
    errno = why;
    return result;
}

} // namespace

/* Takes as many arguments as any call has, though its caller may have given fewer. */
extern "C" __attribute__((no_sanitize("address"))) long syscall(long number, ...) noexcept
{
    syscall_function *const call = real_syscall();
    va_list list;
    va_start(list, number);
    long arguments[6];
    for (long &argument : arguments)
        argument = va_arg(list, long);
    va_end(list);
    constexpr long clockWait = FUTEX_WAIT_BITSET_PRIVATE | FUTEX_CLOCK_REALTIME;
    if (is_futex(number) && arguments[1] == clockWait && arguments[3] != 0)
        return wait_on_the_clock(call, number, reinterpret_cast<uint32_t *>(arguments[0]), clockWait,
                                 arguments[2], reinterpret_cast<const timespec *>(arguments[3]));
    return call(number, arguments[0], arguments[1], arguments[2], arguments[3], arguments[4], arguments[5]);
}

extern "C" int pthread_create(pthread_t *thread, const pthread_attr_t *attr, void *(*body)(void *),
                              void *argument) noexcept
{
    static auto *const create = real<decltype(pthread_create)>("pthread_create");
    zebtest::interposed::created_thread asked{};
    int state = PTHREAD_CREATE_JOINABLE;
    if (attr != nullptr) {
        pthread_attr_getstacksize(attr, &asked.stacksize);
        pthread_attr_getdetachstate(attr, &state);
    }
    asked.detached = state == PTHREAD_CREATE_DETACHED;
    {
        const std::lock_guard hold(lock);
        asked.result = threads.next();
        if (asked.result == 0 && attr != nullptr && asked.stacksize < leastStack)
            asked.result = EINVAL;
        threadsSoFar.push_back(asked);
        if (asked.result != 0)
            return asked.result;
    }
    constexpr size_t roomy = 1024 * 1024;
    const bool sanitized = zebtest::threadSanitizer || zebtest::addressSanitizer;
    if (!sanitized || attr == nullptr || asked.stacksize >= roomy)
        return create(thread, attr, body, argument);
    pthread_attr_t enlarged;
    pthread_attr_init(&enlarged);
    pthread_attr_setdetachstate(&enlarged, state);
    pthread_attr_setstacksize(&enlarged, roomy);
    const int result = create(thread, &enlarged, body, argument);
    pthread_attr_destroy(&enlarged);
    return result;
}

extern "C" int getaddrinfo(const char *node, const char *service, const addrinfo *hints, addrinfo **found)
{
    static auto *const resolve = real<decltype(getaddrinfo)>("getaddrinfo");
    bool given = false;
    std::vector<std::string> addresses;
    {
        const std::lock_guard hold(lock);
        lookupCount++;
        lookup = std::string(node != nullptr ? node : "") + ":" + (service != nullptr ? service : "");
        if (resolverError != 0)
            return resolverError;
        given = addressesGiven;
        addresses = addressesToFind;
    }
    if (!given)
        return resolve(node, service, hints, found);
    *found = nullptr;
    addrinfo **end = found;
    for (const std::string &address : addresses) {
        const int failed = resolve(address.c_str(), service, hints, end);
        if (failed != 0)
            return failed;
        while (*end != nullptr)
            end = &(*end)->ai_next; /* the C library releases its records one by one, so they may be joined */
    }
    return 0;
}

extern "C" int socket(int family, int type, int protocol) noexcept
{
    static auto *const create = real<decltype(socket)>("socket");
    uint16_t port = 0;
    {
        const std::lock_guard hold(lock);
        const int error = sockets.next();
        if (error != 0) {
            errno = error;
            return -1;
        }
        port = boundPort;
    }
    const int fd = create(family, type, protocol);
    if (port != 0 && fd != -1)
        bind_loopback(fd, family, port);
    return fd;
}

namespace zebtest::interposed
{

void reset()
{
    step_clock(-clockOffset);
    const std::lock_guard hold(lock);
    sleepsSoFar.clear();
    perSecond = milliseconds{1000};
    threadsSoFar.clear();
    threads = {};
    leastStack = 0;
    resolverError = 0;
    lookup.clear();
    lookupCount = 0;
    addressesGiven = false;
    sockets = {};
    boundPort = 0;
}

void shorten_sleeps(milliseconds length)
{
    const std::lock_guard hold(lock);
    perSecond = length;
}

std::vector<unsigned> sleeps()
{
    const std::lock_guard hold(lock);
    return sleepsSoFar;
}

void forget_sleeps()
{
    const std::lock_guard hold(lock);
    sleepsSoFar.clear();
}

void resolve_to(const std::vector<std::string> &addresses)
{
    const std::lock_guard hold(lock);
    addressesGiven = true;
    addressesToFind = addresses;
}

int lookups()
{
    const std::lock_guard hold(lock);
    return lookupCount;
}

std::string last_lookup()
{
    const std::lock_guard hold(lock);
    return lookup;
}

void step_clock(int64_t seconds)
{
    {
        const std::lock_guard hold(lock);
        clockOffset += seconds;
    }
    eventually([] { /* one that is about to wait has to be woken again */
                    const std::lock_guard hold(lock);
                    bool known = true;
                    for (const clock_wait *waiting : clockWaits) {
                        if (waiting->offset == clockOffset)
                            continue;
                        syscall(SYS_futex, waiting->word, FUTEX_WAKE_PRIVATE, INT_MAX, nullptr, nullptr, 0);
                        known = false;
                    }
                    return known;
    });
}

unsteady_clock::unsteady_clock()
    : thread([this] {
          while (!over) {
              for (const int64_t step : {3600, -3600, -3600, 3600}) {
                  step_clock(step);
                  std::this_thread::sleep_for(milliseconds{1});
              }
          }
      })
{
}

unsteady_clock::~unsteady_clock()
{
    over = true;
    thread.join();
}

int64_t left_to_wait()
{
    const std::lock_guard hold(lock);
    const int64_t now = time(nullptr);
    int64_t most = 0;
    for (const clock_wait *waiting : clockWaits)
        most = std::max(most, waiting->deadline - now);
    return most;
}

std::vector<created_thread> created_threads()
{
    const std::lock_guard hold(lock);
    return threadsSoFar;
}

void forget_threads()
{
    const std::lock_guard hold(lock);
    threadsSoFar.clear();
}

void fail_threads(int pass, int count, int error)
{
    const std::lock_guard hold(lock);
    threads = {pass, count, error, 0};
}

void refuse_stacks_below(size_t size)
{
    const std::lock_guard hold(lock);
    leastStack = size;
}

void fail_resolver(int error)
{
    const std::lock_guard hold(lock);
    resolverError = error;
}

void bind_sockets_to(uint16_t port)
{
    const std::lock_guard hold(lock);
    boundPort = port;
}

void fail_sockets(int pass, int count, int error)
{
    const std::lock_guard hold(lock);
    sockets = {pass, count, error, 0};
}

void count_sockets()
{
    fail_sockets(0, 0, 0);
}

int socket_calls()
{
    const std::lock_guard hold(lock);
    return sockets.calls;
}

} // namespace zebtest::interposed
