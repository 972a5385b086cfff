#include "painted_stacks.h"

#include <array>
#include <atomic>
#include <cstring>
#include <dlfcn.h>
#include <netdb.h>
#include <pthread.h>
#include <sys/mman.h>

namespace
{

constexpr unsigned char paint = 0xA5;
constexpr size_t guard = 64 * 1024;
constexpr size_t largestOwn = 64 * 1024; /* what asks for more did not choose its size for being small */

struct painted {
    unsigned char *bottom;
    size_t size;
};

std::array<painted, 64> stacks;
std::atomic<size_t> count{0};
std::atomic<bool> lookupsFail{false};

template <typename Function>
Function next_definition(const char *name)
{
    return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

unsigned char *new_painted_stack(size_t size)
{
    void *all = mmap(nullptr, guard + size, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_STACK, -1, 0);
    if (all == MAP_FAILED)
        return nullptr;
    auto *bottom = static_cast<unsigned char *>(all) + guard;
    mprotect(bottom, size, PROT_READ | PROT_WRITE);
    memset(bottom, paint, size);
    return bottom;
}

} // namespace

namespace zebtest
{

size_t painted_count()
{
    return count.load();
}

depth painted_depth(size_t index)
{
    const painted &stack = stacks.at(index);
    size_t untouched = 0;
    while (untouched < stack.size && stack.bottom[untouched] == paint)
        untouched++;
    return {stack.size, stack.size - untouched};
}

void fail_lookups()
{
    lookupsFail = true;
}

} // namespace zebtest

extern "C" int pthread_create(pthread_t *thread, const pthread_attr_t *attr, void *(*body)(void *), void *arg)
{
    static const auto original = next_definition<decltype(&pthread_create)>("pthread_create");
    size_t size = 0;
    if (attr != nullptr)
        pthread_attr_getstacksize(attr, &size);
    if (size == 0 || size > largestOwn)
        return original(thread, attr, body, arg);
    int detached = PTHREAD_CREATE_JOINABLE;
    pthread_attr_getdetachstate(attr, &detached);
    unsigned char *bottom = new_painted_stack(size);
    pthread_attr_t own;
    pthread_attr_init(&own);
    pthread_attr_setdetachstate(&own, detached);
    pthread_attr_setstack(&own, bottom, size);
    stacks.at(count.load()) = {bottom, size};
    count++;
    const int result = original(thread, &own, body, arg);
    pthread_attr_destroy(&own);
    return result;
}

extern "C" int getaddrinfo(const char *node, const char *service, const addrinfo *hints, addrinfo **found)
{
    static const auto original = next_definition<decltype(&getaddrinfo)>("getaddrinfo");
    return lookupsFail ? EAI_FAIL : original(node, service, hints, found);
}
