/* Starting threads. */
#include "ezebthread.h"

#include "unit.h"

#include <atomic>
#include <cstring>
#include <semaphore.h>

namespace
{

/* What a thread found out about itself. */
struct report {
    char name[32] = {};
    sigset_t mask = {};
    size_t stacksize = 0;
    size_t guardsize = 0;
    int detachstate = -1;
    void *arg = nullptr;
    sem_t done = {};

    report()
    {
        sem_init(&done, 0, 0);
    }
    ~report()
    {
        sem_destroy(&done);
    }
    report(const report &) = delete;
    report &operator=(const report &) = delete;

    void await()
    {
        while (sem_wait(&done) != 0)
            ;
    }
};

void *body(void *opaque)
{
    auto *r = static_cast<report *>(opaque);
    pthread_getname_np(pthread_self(), r->name, sizeof(r->name));
    pthread_sigmask(SIG_SETMASK, nullptr, &r->mask);
    pthread_attr_t attr;
    pthread_getattr_np(pthread_self(), &attr);
    pthread_attr_getstacksize(&attr, &r->stacksize);
    pthread_attr_getguardsize(&attr, &r->guardsize);
    pthread_attr_getdetachstate(&attr, &r->detachstate);
    pthread_attr_destroy(&attr);
    r->arg = opaque;
    sem_post(&r->done);
    return r;
}

using unit::OWN_STACKS;

bool blocksEverything(const sigset_t &mask)
{
    for (int number = 1; number <= 31; number++) {
        if (number != SIGKILL && number != SIGSTOP && sigismember(&mask, number) != 1)
            return false;
    }
    return true;
}

TEST(Thread, AServiceThreadCanBeJoinedAndHasEverySignalBlocked)
{
    report r;
    pthread_t thread;
    ASSERT_EQ(ezeb_thread_start(&thread, EZEB_THREAD_SERVICE, 65536, "zeb-test", body, &r), 1);
    void *result = nullptr;
    ASSERT_EQ(pthread_join(thread, &result), 0);
    EXPECT_EQ(result, &r);
    EXPECT_EQ(r.arg, &r);
    EXPECT_STREQ(r.name, "zeb-test");
    EXPECT_EQ(r.detachstate, PTHREAD_CREATE_JOINABLE);
    EXPECT_TRUE(blocksEverything(r.mask));
}

TEST(Thread, TheCallersSignalMaskIsRestored)
{
    sigset_t before;
    sigemptyset(&before);
    sigaddset(&before, SIGUSR2);
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    report r;
    pthread_t thread;
    ASSERT_EQ(ezeb_thread_start(&thread, EZEB_THREAD_SERVICE, 0, "zeb-test", body, &r), 1);
    pthread_join(thread, nullptr);
    sigset_t after;
    pthread_sigmask(SIG_SETMASK, nullptr, &after);
    for (int number = 1; number <= 31; number++)
        EXPECT_EQ(sigismember(&after, number), number == SIGUSR2 ? 1 : 0) << number;
}

TEST(Thread, ADetachedThreadHasTheCallersSignalMask)
{
    sigset_t mask;
    sigemptyset(&mask);
    sigaddset(&mask, SIGUSR2);
    pthread_sigmask(SIG_SETMASK, &mask, nullptr);
    report r;
    ASSERT_EQ(ezeb_thread_start(nullptr, EZEB_THREAD_DETACHED, 65536, "zeb-test", body, &r), 1);
    r.await();
    EXPECT_EQ(r.detachstate, PTHREAD_CREATE_DETACHED);
    EXPECT_EQ(sigismember(&r.mask, SIGUSR2), 1);
    EXPECT_EQ(sigismember(&r.mask, SIGUSR1), 0);
}

TEST(Thread, TheStackHasTheSizeAskedForWithAGuardBesides)
{
    for (const size_t size : {32768, 16384, 1 << 20}) {
        report r;
        pthread_t thread;
        ASSERT_EQ(ezeb_thread_start(&thread, EZEB_THREAD_SERVICE, size, "zeb-test", body, &r), 1);
        pthread_join(thread, nullptr);
        if (!OWN_STACKS)
            GTEST_SKIP() << "sanitizers choose the stacks of threads";
        EXPECT_GE(r.stacksize, size);
        EXPECT_LE(r.stacksize, size + 65536);
        EXPECT_GE(r.guardsize, 65536U);
    }
}

TEST(Thread, ASizeOfZeroGivesTheSystemsDefault)
{
    pthread_attr_t defaults;
    size_t expected = 0;
    pthread_attr_init(&defaults);
    pthread_attr_getstacksize(&defaults, &expected);
    pthread_attr_destroy(&defaults);
    report r;
    pthread_t thread;
    ASSERT_EQ(ezeb_thread_start(&thread, EZEB_THREAD_SERVICE, 0, "zeb-test", body, &r), 1);
    pthread_join(thread, nullptr);
    EXPECT_GE(r.stacksize, expected);
}

TEST(Thread, AStackTooSmallIsTriedAgainWithMore)
{
    report r;
    pthread_t thread;
    ASSERT_EQ(ezeb_thread_start(&thread, EZEB_THREAD_SERVICE, 100, "zeb-test", body, &r), 1);
    pthread_join(thread, nullptr);
    EXPECT_EQ(r.arg, &r);
    if (OWN_STACKS) {
        EXPECT_GE(r.stacksize, 65536U);
        EXPECT_LE(r.stacksize, 3 * 65536U);
    }
}

TEST(Thread, AStackThatCannotBeHadGivesNoThread)
{
    if (!OWN_STACKS)
        GTEST_SKIP() << "sanitizers end the process instead";
    report r;
    pthread_t thread;
    EXPECT_EQ(ezeb_thread_start(&thread, EZEB_THREAD_SERVICE, SIZE_MAX / 4 * 3, "zeb-test", body, &r), 0);
    EXPECT_EQ(r.arg, nullptr);
    sigset_t mask;
    pthread_sigmask(SIG_SETMASK, nullptr, &mask);
    EXPECT_EQ(sigismember(&mask, SIGUSR1), 0) << "the caller's mask is restored all the same";
}

TEST(Thread, ANameIsCutTo15Characters)
{
    report r;
    pthread_t thread;
    ASSERT_EQ(ezeb_thread_start(&thread, EZEB_THREAD_SERVICE, 0, "a name of more than 15", body, &r), 1);
    pthread_join(thread, nullptr);
    EXPECT_STREQ(r.name, "a name of more ");
}

TEST(Thread, WithoutMemoryThereIsNoThread)
{
    report r;
    pthread_t thread;
    unit::refusal refuse(1);
    refuse.begin();
    EXPECT_EQ(ezeb_thread_start(&thread, EZEB_THREAD_SERVICE, 0, "zeb-test", body, &r), 0);
    refuse.end();
    EXPECT_EQ(r.arg, nullptr);
}

} // namespace
