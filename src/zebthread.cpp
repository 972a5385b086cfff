/* Starting threads with the library's stack size, names and signal masks. */
#include "ezebthread.h"

#include "ezebutil.h"
#include "ezebyieldseam.h"

#include <errno.h>

enum : size_t { STACK_GUARD = 65536, STACK_RETRY = 65536 };

struct thread_start {
    void *(*body)(void *);
    void *arg;
    char name[16];
};

static void *thread_body(void *opaque)
{
    auto *start = static_cast<thread_start *>(opaque);
    void *(*const body)(void *) = start->body;
    void *const arg = start->arg;
    pthread_setname_np(pthread_self(), start->name);
    ezeb_free(start);
    ezeb_yield();
    return body(arg);
}

/* The guard keeps an overflow of these small stacks from running into a neighbour's memory unnoticed. */
static int try_start(pthread_t *thread, ezeb_threadkind kind, size_t stacksize, thread_start *start)
{
    pthread_attr_t attr;
    int result = pthread_attr_init(&attr);
    if (result != 0)
        return result;
    pthread_attr_setdetachstate(&attr, kind == EZEB_THREAD_DETACHED ? PTHREAD_CREATE_DETACHED
                                                                    : PTHREAD_CREATE_JOINABLE);
    pthread_attr_setscope(&attr, PTHREAD_SCOPE_SYSTEM);
    pthread_attr_setguardsize(&attr, STACK_GUARD);
    if (stacksize != 0)
        result = pthread_attr_setstacksize(&attr, stacksize);
    if (result == 0)
        result = pthread_create(thread, &attr, thread_body, start);
    pthread_attr_destroy(&attr);
    return result;
}

static int start_with_retries(pthread_t *thread, ezeb_threadkind kind, size_t stacksize, thread_start *start)
{
    int result = try_start(thread, kind, stacksize, start);
    if (result == EINVAL && stacksize != 0)
        result = try_start(thread, kind, stacksize + STACK_RETRY, start);
    if (result == EINVAL && stacksize != 0)
        result = try_start(thread, kind, 0, start);
    return result;
}

int ezeb_thread_start(pthread_t *thread, ezeb_threadkind kind, size_t stacksize, const char *name,
                      void *(*body)(void *), void *arg)
{
    auto *start = ezeb_new<thread_start>();
    if (start == nullptr)
        return 0;
    start->body = body;
    start->arg = arg;
    for (size_t i = 0; i + 1 < sizeof(start->name) && name[i] != '\0'; i++)
        start->name[i] = name[i];

    sigset_t all;
    sigset_t callers;
    if (kind == EZEB_THREAD_SERVICE) {
        sigfillset(&all);
        pthread_sigmask(SIG_SETMASK, &all, &callers);
    }
    pthread_t ignored;
    const int result = start_with_retries(thread != nullptr ? thread : &ignored, kind, stacksize, start);
    if (kind == EZEB_THREAD_SERVICE)
        pthread_sigmask(SIG_SETMASK, &callers, nullptr);
    if (result != 0)
        ezeb_free(start);
    ezeb_yield();
    return result == 0;
}
