/* Starting threads. Every thread of the library comes from here. */
#ifndef EZEBTHREAD_H
#define EZEBTHREAD_H

#include <pthread.h>
#include <signal.h>
#include <stddef.h>

enum ezeb_threadkind {
    EZEB_THREAD_SERVICE, /* joinable, every signal blocked from its first instruction on */
    EZEB_THREAD_DETACHED /* detached, with the creating thread's signal mask */
};

/* Starts BODY(ARG) as a thread called NAME (at most 15 characters) on a stack of STACKSIZE bytes (0: the
 * system's default). Thread-local data of the process can make a small stack invalid: then it is tried with
 * 64 KiB more, and at last with the default. *THREAD (null for detached threads) gets its id. Returns 1, or 0
 * when no thread can be had. */
int ezeb_thread_start(pthread_t *thread, ezeb_threadkind kind, size_t stacksize, const char *name,
                      void *(*body)(void *), void *arg);

#endif
