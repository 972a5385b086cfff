#include "faults.h"

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <fcntl.h>
#include <netdb.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

using sweep::faults::fault;

namespace
{

thread_local bool counted = false;

std::atomic<bool> armed{false};
std::atomic<int> left{0};
std::atomic<bool> fired{false};
fault current; /* changed only while nothing is armed */

/* In memory that children share. */
std::atomic<int> *const callsSoFar =
    static_cast<std::atomic<int> *>(mmap(nullptr, sizeof(std::atomic<int>) * sweep::faults::CALLS,
                                         PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));

/* The fault that this call of WHICH has, or null. */
const fault *fault_of(sweep::faults::call which)
{
    if (!counted)
        return nullptr;
    callsSoFar[which]++;
    if (!armed || current.which != which)
        return nullptr;
    const int before = left.fetch_sub(1);
    if (before > 1 || (before < 1 && !current.persistent))
        return nullptr;
    fired = true;
    return &current;
}

/* Whether this call fails; errno is set then. */
bool fails(sweep::faults::call which)
{
    const fault *f = fault_of(which);
    if (f == nullptr || f->error == 0)
        return false;
    errno = f->error;
    return true;
}

struct thread_start {
    void *(*body)(void *);
    void *argument;
};

void *counted_body(void *opaque)
{
    const thread_start start = *static_cast<thread_start *>(opaque);
    delete static_cast<thread_start *>(opaque);
    counted = true;
    return start.body(start.argument);
}

} // namespace

namespace sweep::faults
{

const char *name_of(call which)
{
    static const char *const names[CALLS] = {"socket",      "connect",       "read",  "write",
                                             "fcntl",       "open",          "fstat", "setsockopt",
                                             "getaddrinfo", "pthread_create"};
    return names[which];
}

void arm(const fault &f)
{
    current = f;
    left = f.nth;
    fired = false;
    armed = true;
}

void disarm()
{
    armed = false;
}

bool happened()
{
    return fired;
}

int calls(call which)
{
    return callsSoFar[which];
}

void forget_calls()
{
    for (int which = 0; which < CALLS; which++)
        callsSoFar[which] = 0;
}

void count_this_thread(bool value)
{
    counted = value;
}

} // namespace sweep::faults

using namespace sweep::faults;

extern "C" {

int __real_socket(int family, int type, int protocol);
int __real_connect(int fd, const sockaddr *address, socklen_t length);
ssize_t __real_read(int fd, void *to, size_t size);
ssize_t __real_recv(int fd, void *to, size_t size, int flags);
ssize_t __real_write(int fd, const void *from, size_t size);
ssize_t __real_send(int fd, const void *from, size_t size, int flags);
int __real_fcntl(int fd, int command, ...);
int __real_open(const char *path, int flags, ...);
int __real_fstat(int fd, struct stat *status);
int __real_setsockopt(int fd, int level, int name, const void *value, socklen_t length);
int __real_getaddrinfo(const char *node, const char *service, const addrinfo *hints, addrinfo **found);
int __real_pthread_create(pthread_t *thread, const pthread_attr_t *attr, void *(*body)(void *),
                          void *argument);

int __wrap_socket(int family, int type, int protocol);
int __wrap_connect(int fd, const sockaddr *address, socklen_t length);
ssize_t __wrap_read(int fd, void *to, size_t size);
ssize_t __wrap_recv(int fd, void *to, size_t size, int flags);
ssize_t __wrap_write(int fd, const void *from, size_t size);
ssize_t __wrap_send(int fd, const void *from, size_t size, int flags);
int __wrap_fcntl(int fd, int command, ...);
int __wrap_open(const char *path, int flags, ...);
int __wrap_fstat(int fd, struct stat *status);
int __wrap_setsockopt(int fd, int level, int name, const void *value, socklen_t length);
int __wrap_getaddrinfo(const char *node, const char *service, const addrinfo *hints, addrinfo **found);
int __wrap_pthread_create(pthread_t *thread, const pthread_attr_t *attr, void *(*body)(void *),
                          void *argument);
unsigned __wrap_sleep(unsigned seconds);

int __wrap_socket(int family, int type, int protocol)
{
    return fails(SOCKET) ? -1 : __real_socket(family, type, protocol);
}

int __wrap_connect(int fd, const sockaddr *address, socklen_t length)
{
    return fails(CONNECT) ? -1 : __real_connect(fd, address, length);
}

ssize_t __wrap_read(int fd, void *to, size_t size)
{
    const fault *f = fault_of(READ);
    if (f != nullptr && f->error != 0) {
        errno = f->error;
        return -1;
    }
    return __real_read(fd, to,
                       f != nullptr && size > static_cast<size_t>(f->atmost) ? static_cast<size_t>(f->atmost)
                                                                             : size);
}

ssize_t __wrap_recv(int fd, void *to, size_t size, int flags)
{
    const fault *f = fault_of(READ);
    if (f != nullptr && f->error != 0) {
        errno = f->error;
        return -1;
    }
    const bool cut = f != nullptr && size > static_cast<size_t>(f->atmost);
    if (cut && f->atmost == 0)
        return 0; /* which the kernel gives only when something is there */
    return __real_recv(fd, to, cut ? static_cast<size_t>(f->atmost) : size, flags);
}

ssize_t __wrap_write(int fd, const void *from, size_t size)
{
    const fault *f = fault_of(WRITE);
    if (f != nullptr && f->error != 0) {
        errno = f->error;
        return -1;
    }
    return __real_write(fd, from,
                        f != nullptr && size > static_cast<size_t>(f->atmost) ? static_cast<size_t>(f->atmost)
                                                                              : size);
}

ssize_t __wrap_send(int fd, const void *from, size_t size, int flags)
{
    const fault *f = fault_of(WRITE);
    if (f != nullptr && f->error != 0) {
        errno = f->error;
        return -1;
    }
    const bool cut = f != nullptr && size > static_cast<size_t>(f->atmost);
    return __real_send(fd, from, cut ? static_cast<size_t>(f->atmost) : size, flags);
}

int __wrap_fcntl(int fd, int command, ...)
{
    va_list arguments;
    va_start(arguments, command);
    const long argument = va_arg(arguments, long);
    va_end(arguments);
    return fails(FCNTL) ? -1 : __real_fcntl(fd, command, argument);
}

int __wrap_open(const char *path, int flags, ...)
{
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(arguments, mode_t) : 0;
    va_end(arguments);
    return fails(OPEN) ? -1 : __real_open(path, flags, mode);
}

int __wrap_fstat(int fd, struct stat *status)
{
    return fails(FSTAT) ? -1 : __real_fstat(fd, status);
}

int __wrap_setsockopt(int fd, int level, int name, const void *value, socklen_t length)
{
    return fails(SETSOCKOPT) ? -1 : __real_setsockopt(fd, level, name, value, length);
}

int __wrap_getaddrinfo(const char *node, const char *service, const addrinfo *hints, addrinfo **found)
{
    const fault *f = fault_of(GETADDRINFO);
    return f != nullptr ? f->error : __real_getaddrinfo(node, service, hints, found);
}

/* Threads that the library starts have their calls counted. */
int __wrap_pthread_create(pthread_t *thread, const pthread_attr_t *attr, void *(*body)(void *),
                          void *argument)
{
    const fault *f = fault_of(PTHREAD_CREATE);
    if (f != nullptr)
        return f->error;
    auto *start = new thread_start{body, argument};
    const int result = __real_pthread_create(thread, attr, counted_body, start);
    if (result != 0)
        delete start;
    return result;
}

/* Pauses between attempts are looked at elsewhere: here a second takes a millisecond. */
unsigned __wrap_sleep(unsigned seconds)
{
    timespec rest{0, static_cast<long>(seconds) * 1000000};
    while (nanosleep(&rest, &rest) != 0 && errno == EINTR)
        ;
    return 0;
}
}
