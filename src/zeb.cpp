/* The runtime: start-up and its configuration, reference-counted shutdown, the fatal exit, the interlock
 * between fork and descriptors, and the fork handlers.
 *
 * ezebglobalmutex serialises start-up, shutdown and fork. A shutdown marks the runtime as stopping and lets
 * the lock go while it drains and joins, so that a daemon that stalls does not make every fork of the process
 * wait; whoever needs the lock for start-up or another shutdown waits until it is done. */
#include "ezebnotification.h"
#include "ezebruntime.h"

#include "ezebsubscriber.h"
#include "ezebutil.h"

#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

enum { HOSTNAME_LIMIT = 513, DEFAULT_STACKSIZE = 32768, MINIMAL_STACKSIZE = 16384, NAME_WAIT_MS = 10000 };

static ezeb_mutex ezebglobalmutex = EZEB_MUTEX_INITIALIZER;
static ezeb_cond ezebglobalcond = EZEB_COND_INITIALIZER; /* with ezebglobalmutex: a shutdown is done */
static ezeb_mutex ezebctxmutex = EZEB_MUTEX_INITIALIZER;
static ezeb_runtime *ezebglobalctx EZEB_GUARDED_BY(ezebctxmutex) = nullptr; /* stored under both mutexes */
static uint32_t forkgeneration = 0;                                         /* through ezeb_flag_get */
static int32_t exiting = 0; /* the fatal exit is under way; through ezeb_flag_get */
static pthread_once_t handlersonce = PTHREAD_ONCE_INIT;

/* ---- References ---- */

static void runtime_free(ezeb_runtime *rt) EZEB_NO_ANALYSIS
{
    ezeb_recvthread_discard(&rt->recv);
    ezeb_sendthread_discard(&rt->send);
    ezeb_registry_discard(rt);
    ezeb_sharedtext_unref(rt->instancename);
    ezeb_free(rt->hostpid);
    ezeb_free(rt->hostname);
    ezeb_free(rt->ffqualifier);
    ezeb_free(rt->home);
    ezeb_mutex_destroy(&rt->regmutex);
    ezeb_cond_destroy(&rt->answercond);
    ezeb_mutex_destroy(&rt->namemutex);
    ezeb_mutex_destroy(&rt->forkmutex);
    ezeb_cond_destroy(&rt->forkcond);
    ezeb_mutex_destroy(&rt->startmutex);
    ezeb_cond_destroy(&rt->startcond);
    ezeb_free(rt);
}

static void runtime_unref(ezeb_runtime *rt)
{
    if (ezeb_unref(&rt->references))
        runtime_free(rt);
}

static ezeb_runtime *runtime_current(void)
{
    const ezeb_locked hold(&ezebctxmutex);
    return ezebglobalctx;
}

static void runtime_publish(ezeb_runtime *rt)
{
    const ezeb_locked hold(&ezebctxmutex);
    ezebglobalctx = rt;
}

ezeb_runtime_ref::ezeb_runtime_ref() : rt(nullptr), forkgeneration(ezeb_fork_generation())
{
    const ezeb_locked hold(&ezebctxmutex);
    rt = ezebglobalctx;
    if (rt != nullptr)
        ezeb_ref(&rt->references);
}

ezeb_runtime_ref::~ezeb_runtime_ref()
{
    if (rt != nullptr && forkgeneration == ezeb_fork_generation())
        runtime_unref(rt);
}

uint32_t ezeb_fork_generation(void)
{
    return ezeb_flag_get(&forkgeneration);
}

/* ---- Shared texts and the instance name ---- */

ezeb_sharedtext *ezeb_sharedtext_create(const char *text)
{
    const size_t length = strlen(text);
    auto *shared = static_cast<ezeb_sharedtext *>(ezeb_malloc(sizeof(ezeb_sharedtext) + length + 1));
    if (shared == nullptr)
        return nullptr;
    shared->references = 1;
    shared->length = length;
    memcpy(shared->text, text, length + 1);
    return shared;
}

void ezeb_sharedtext_unref(ezeb_sharedtext *shared)
{
    if (shared != nullptr && ezeb_unref(&shared->references))
        ezeb_free(shared);
}

ezeb_sharedtext *ezeb_instancename_ref(ezeb_runtime *rt)
{
    const ezeb_locked hold(&rt->namemutex);
    if (rt->instancename != nullptr)
        ezeb_ref(&rt->instancename->references);
    return rt->instancename;
}

void ezeb_instancename_set(ezeb_runtime *rt, const char *name)
{
    ezeb_sharedtext *fresh = ezeb_sharedtext_create(name);
    if (fresh == nullptr)
        return;
    ezeb_mutex_lock(&rt->namemutex);
    ezeb_sharedtext *old = rt->instancename;
    rt->instancename = fresh;
    ezeb_mutex_unlock(&rt->namemutex);
    ezeb_sharedtext_unref(old);
}

void ezeb_get_tiername(char **out)
{
    if (out != nullptr)
        *out = nullptr;
}

void ezeb_get_instancename(char **out)
{
    if (out == nullptr)
        return;
    *out = nullptr;
    const ezeb_runtime_ref rt;
    if (!rt)
        return;
    ezeb_connection *connection = ezeb_recvthread_getsocket(rt.get(), NAME_WAIT_MS, 0);
    if (connection == nullptr)
        return;
    ezeb_connection_unref(connection);
    ezeb_sharedtext *name = ezeb_instancename_ref(rt.get());
    if (name != nullptr)
        *out = static_cast<char *>(ezeb_memdup(name->text, name->length + 1));
    ezeb_sharedtext_unref(name);
}

/* ---- Fatal exit ---- */

const char *ezeb_get_lib_string(void)
{
    return "eZEB: ezebapi: Aug 15 2014 09:23:43";
}

[[noreturn]] void ezeb_error_shutdown(void)
{
    ezeb_diag("Fatal error: %s\n", ezeb_get_lib_string());
    ezeb_flag_set(&exiting, 1);
    exit(-1);
}

/* ---- Start-up ---- */

static const char *environment(const char *name)
{
    const char *value = getenv(name);
    return value != nullptr && *value != '\0' ? value : nullptr;
}

static const char *find_home(const char *home)
{
    if (home == nullptr)
        home = environment("TAMBEK_CONFIG_HOME");
    if (home == nullptr)
        home = environment("TAMBEK_HOME");
    if (home == nullptr)
        ezeb_diag("TAMBEK_HOME is not set\n");
    return home;
}

/* The port, or 0. A value of 65536 in the environment gives 0 without a word: only its low 16 bits count. */
static uint16_t find_port(int32_t port)
{
    const auto given = static_cast<uint16_t>(port);
    if (given != 0)
        return given;
    const char *text = getenv("TAMBEK_ZEB_PROXY_PORT");
    if (text == nullptr) {
        ezeb_diag("TAMBEK_ZEB_PROXY_PORT: not set\n");
        return 0;
    }
    const int32_t value = ezeb_decimal(text);
    if (value < 1) {
        ezeb_diag("TAMBEK_ZEB_PROXY_PORT: invalid value: %s\n", text);
        return 0;
    }
    return static_cast<uint16_t>(value);
}

static size_t find_stacksize(void)
{
    const char *text = getenv("TAMBEK_THREAD_STACKSIZE");
    const int32_t value = text != nullptr ? ezeb_decimal(text) : 0;
    return value >= MINIMAL_STACKSIZE ? static_cast<size_t>(value) : static_cast<size_t>(DEFAULT_STACKSIZE);
}

static bool set_names(ezeb_runtime *rt)
{
    char *host = static_cast<char *>(ezeb_zalloc(HOSTNAME_LIMIT + 1));
    if (host == nullptr)
        return false;
    if (gethostname(host, HOSTNAME_LIMIT) != 0)
        ezeb_addstr(host, "UNKNOWNHOST");
    rt->hostname = ezeb_strdup(host);
    rt->hostpid = static_cast<char *>(ezeb_malloc(strlen(host) + 12));
    if (rt->hostpid != nullptr)
        ezeb_int2str(ezeb_addstr(ezeb_addstr(rt->hostpid, host), ":"), rt->pid);
    ezeb_free(host);
    return rt->hostname != nullptr && rt->hostpid != nullptr;
}

/* A complete record with no thread yet, or null. */
static ezeb_runtime *runtime_create(const char *home, uint16_t port, int32_t pid)
{
    auto *rt = ezeb_new<ezeb_runtime>();
    if (rt == nullptr)
        return nullptr;
    rt->references = 1;
    rt->refcount = 1;
    rt->pid = pid;
    rt->port = port;
    rt->stacksize = find_stacksize();
    pthread_sigmask(SIG_SETMASK, nullptr, &rt->callersmask);
    ezeb_mutex_init(&rt->regmutex);
    ezeb_cond_init(&rt->answercond);
    ezeb_mutex_init(&rt->namemutex);
    ezeb_mutex_init(&rt->forkmutex);
    ezeb_cond_init(&rt->forkcond);
    ezeb_mutex_init(&rt->startmutex);
    ezeb_cond_init(&rt->startcond);
    ezeb_recvthread_prepare(&rt->recv);
    const bool sending = ezeb_sendthread_prepare(&rt->send) != 0;
    rt->home = ezeb_strdup(home);
    rt->homelen = strlen(home);
    if (sending && ezeb_registry_prepare(rt) && rt->home != nullptr && set_names(rt))
        return rt;
    runtime_free(rt);
    return nullptr;
}

/* Starts both threads and waits until each runs. 0, with neither running, when one cannot be had. */
static int start_threads(ezeb_runtime *rt)
{
    if (!ezeb_thread_start(&rt->recvthread, EZEB_THREAD_SERVICE, rt->stacksize, "zeb-receive",
                           ezeb_receivethread, rt))
        return 0;
    ezeb_mutex_lock(&rt->startmutex);
    while (rt->receiverup == 0)
        ezeb_cond_wait(&rt->startcond, &rt->startmutex);
    ezeb_mutex_unlock(&rt->startmutex);

    const int started = ezeb_thread_start(&rt->sendthread, EZEB_THREAD_SERVICE, rt->stacksize, "zeb-send",
                                          ezeb_sendthread, rt);
    ezeb_mutex_lock(&rt->startmutex);
    if (!started) {
        rt->abandoned = 1;
        ezeb_cond_broadcast(&rt->startcond, &rt->startmutex);
    }
    while (started && rt->bothup == 0)
        ezeb_cond_wait(&rt->startcond, &rt->startmutex);
    ezeb_mutex_unlock(&rt->startmutex);
    if (!started)
        pthread_join(rt->recvthread, nullptr);
    return started;
}

/* A runtime of another process: this one came from a fork whose handlers did not run. Its threads do not
 * exist here, so its memory is left alone apart from the descriptor, as after any fork. */
static void discard_foreign(ezeb_runtime *rt) EZEB_REQUIRES(ezebglobalmutex);

static int32_t init_locked(const char *home, uint16_t port, int32_t pid) EZEB_REQUIRES(ezebglobalmutex)
{
    ezeb_runtime *rt = runtime_current();
    while (rt != nullptr && rt->pid == pid && rt->stopping != 0) {
        ezeb_cond_wait(&ezebglobalcond, &ezebglobalmutex);
        rt = runtime_current();
    }
    if (rt != nullptr && rt->pid == pid) {
        rt->refcount++;
        return ZEB_ALREADY_INITIALISED;
    }
    if (rt != nullptr)
        discard_foreign(rt);
    rt = runtime_create(home, port, pid);
    if (rt == nullptr)
        return -1;
    runtime_publish(rt);
    if (!start_threads(rt)) {
        ezeb_recvthread_shutdown(
            rt); /* other threads may have found the record and wait for its connection */
        ezeb_registry_closeall(rt);
        runtime_publish(nullptr);
        runtime_unref(rt);
        return -1;
    }
    return 0;
}

static void register_fork_handlers(void);

int32_t ezeb_init(const char *home, int32_t port)
{
    const int32_t pid = getpid();
    const char *usedhome = find_home(home);
    const uint16_t usedport = find_port(port);
    if (usedhome == nullptr || usedport == 0)
        return -1;
    /* Before the lock is taken: a fork of another thread must never see the lock held and no handler to
     * release it. */
    pthread_once(&handlersonce, register_fork_handlers);
    const ezeb_locked hold(&ezebglobalmutex);
    return init_locked(usedhome, usedport, pid);
}

/* ---- Shutdown ---- */

static void join_unless_self(pthread_t thread)
{
    if (!pthread_equal(thread, pthread_self()))
        pthread_join(thread, nullptr);
}

/* Gives back one initialisation. The runtime, marked as stopping, for the caller who gave back the last. */
static ezeb_runtime *begin_shutdown(void)
{
    const ezeb_locked hold(&ezebglobalmutex);
    ezeb_runtime *rt = runtime_current();
    while (rt != nullptr && rt->stopping != 0) {
        ezeb_cond_wait(&ezebglobalcond, &ezebglobalmutex);
        rt = runtime_current();
    }
    if (rt == nullptr || --rt->refcount > 0)
        return nullptr;
    rt->stopping = 1;
    return rt;
}

int32_t ezeb_shutdown(int32_t wait)
{
    if (ezeb_flag_get(&exiting) != 0)
        return 0; /* an exit handler of the fatal exit: the receive thread, which runs it, cannot wait for
                     itself */
    ezeb_runtime *rt = begin_shutdown();
    if (rt == nullptr)
        return 0;
    ezeb_sendthread_shutdown(rt, wait);
    join_unless_self(rt->sendthread);
    ezeb_recvthread_shutdown(rt);
    join_unless_self(rt->recvthread);
    ezeb_registry_closeall(rt);
    ezeb_mutex_lock(&ezebglobalmutex);
    runtime_publish(nullptr);
    ezeb_cond_broadcast(&ezebglobalcond, &ezebglobalmutex);
    ezeb_mutex_unlock(&ezebglobalmutex);
    runtime_unref(rt);
    ezeb_notification_forget_blocks();
    return 0;
}

/* ---- Fork and descriptors ---- */

void ezeb_prefdopen(ezeb_runtime *rt)
{
    const ezeb_locked hold(&rt->forkmutex);
    while (rt->forking > 0 || rt->forkwaiters > 0) { /* a waiting fork goes first */
        rt->fdwaiters++;
        ezeb_cond_wait(&rt->forkcond, &rt->forkmutex);
        rt->fdwaiters--;
    }
    rt->fdopening++;
}

void ezeb_postfdopen(ezeb_runtime *rt)
{
    const ezeb_locked hold(&rt->forkmutex);
    rt->fdopening--;
    if (rt->fdopening == 0 && rt->forkwaiters > 0)
        ezeb_cond_broadcast(&rt->forkcond, &rt->forkmutex);
}

int ezeb_fd_above_stdio(int descriptor)
{
    if (descriptor < 0 || descriptor > STDERR_FILENO)
        return descriptor;
    const int moved = fcntl(descriptor, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    const int why = errno;
    close(descriptor);
    errno = why;
    return moved;
}

/* ---- Fork handlers ----
 * The locks taken before the fork are those whose structures the child takes apart: what they guard is whole
 * there. Subscribers' locks are not among them, there may be thousands; the child looks at a queue only when
 * its lock is free. */

static void atfork_prepare(void) EZEB_NO_ANALYSIS
{
    ezeb_mutex_lock(&ezebglobalmutex);
    ezeb_runtime *rt = runtime_current();
    if (rt != nullptr) {
        ezeb_mutex_lock(&rt->forkmutex);
        while (rt->fdopening > 0) {
            rt->forkwaiters++;
            ezeb_cond_wait(&rt->forkcond, &rt->forkmutex);
            rt->forkwaiters--;
        }
        rt->forking++;
        ezeb_mutex_unlock(&rt->forkmutex);
        ezeb_mutex_lock(&rt->regmutex);
        ezeb_mutex_lock(&rt->send.queue->lock);
    }
    ezeb_mutex_lock(&ezebctxmutex);
}

static void atfork_parent(void) EZEB_NO_ANALYSIS
{
    ezeb_runtime *rt = ezebglobalctx;
    ezeb_mutex_unlock(&ezebctxmutex);
    if (rt != nullptr) {
        ezeb_mutex_unlock(&rt->send.queue->lock);
        ezeb_mutex_unlock(&rt->regmutex);
        ezeb_mutex_lock(&rt->forkmutex);
        rt->forking--;
        if (rt->forking == 0 && rt->fdwaiters > 0)
            ezeb_cond_broadcast(&rt->forkcond, &rt->forkmutex);
        ezeb_mutex_unlock(&rt->forkmutex);
    }
    ezeb_mutex_unlock(&ezebglobalmutex);
}

/* Takes the runtime apart without a word to the daemon. The slot arrays stay, as does everything another
 * thread was using at the instant of the fork. */
static void runtime_fork_free(ezeb_runtime *rt) EZEB_NO_ANALYSIS
{
    ezeb_sendthread_fork_destroy(rt);
    ezeb_recvthread_fork_destroy(rt);
    ezeb_registry_fork_destroy(rt);
    ezeb_sharedtext_unref(rt->instancename);
    ezeb_free(rt->hostpid);
    ezeb_free(rt->hostname);
    ezeb_free(rt->ffqualifier);
    ezeb_free(rt->home);
    ezeb_free(rt);
}

static void atfork_child(void) EZEB_NO_ANALYSIS
{
    ezeb_runtime *rt = ezebglobalctx;
    ezebglobalctx = nullptr;
    ezeb_flag_set(&forkgeneration, forkgeneration + 1);
    ezeb_mutex_unlock(&ezebctxmutex);
    if (rt != nullptr)
        runtime_fork_free(rt);
    ezeb_mutex_unlock(&ezebglobalmutex);
}

static void register_fork_handlers(void)
{
    pthread_atfork(atfork_prepare, atfork_parent, atfork_child);
}

static void discard_foreign(ezeb_runtime *rt)
{
    runtime_publish(nullptr);
    ezeb_flag_set(&forkgeneration, forkgeneration + 1);
    ezeb_recvthread_fork_destroy(rt);
    ezeb_free(rt->hostpid);
    ezeb_free(rt->hostname);
    ezeb_free(rt->ffqualifier);
    ezeb_free(rt->home);
    ezeb_free(rt);
}
