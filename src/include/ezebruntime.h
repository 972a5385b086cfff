/* The runtime: one record per process from zeb_init to the last zeb_shutdown.
 *
 * Lifetime. ezebglobalctx publishes the record and holds one reference; every call that needs it takes
 * another for its duration. Shutdown unpublishes it and does not wait for the calls inside: the last
 * reference releases the record. The service threads hold none, they are joined before. */
#ifndef EZEBRUNTIME_H
#define EZEBRUNTIME_H

#include "ezeblock.h"
#include "ezebrecvthread.h"
#include "ezebregistry.h"
#include "ezebsendthread.h"
#include "ezebthread.h"

#include "zeb.h"

/* A counted string that never changes, so that a reader keeps it while it is being replaced. */
struct ezeb_sharedtext {
    int32_t references;
    size_t length;
    char text[]; /* with a NUL */
};

ezeb_sharedtext *ezeb_sharedtext_create(const char *text); /* one reference; or null */
void ezeb_sharedtext_unref(ezeb_sharedtext *shared);       /* null is ignored */

struct ezeb_runtime {
    /* Constant from start-up on. */
    char *home;
    size_t homelen;
    char *hostname;
    char *hostpid;     /* host name, ':', process id */
    char *ffqualifier; /* never set; with ffqualified 0 it is not looked at */
    uint32_t ffqualified;
    size_t stacksize;
    sigset_t callersmask; /* signal mask of the thread that started the runtime */
    int32_t pid;
    uint16_t port;
    pthread_t recvthread;
    pthread_t sendthread;

    int32_t references; /* through ezeb_ref and ezeb_unref */
    int32_t refcount;   /* initialisations; guarded by ezebglobalmutex */
    int32_t stopping;   /* the last shutdown is under way; guarded by ezebglobalmutex */

    ezeb_mutex regmutex; /* guards the tables, the lists of subscribers and what the handshake answered */
    ezeb_table subscribers EZEB_GUARDED_BY(regmutex);
    ezeb_table publishers EZEB_GUARDED_BY(regmutex);
    zeb_subscriber *
        livehead EZEB_GUARDED_BY(regmutex); /* subscribers in slots, in the order of their identifiers */
    zeb_subscriber *livetail EZEB_GUARDED_BY(regmutex);
    zeb_subscriber *droppedhead
        EZEB_GUARDED_BY(regmutex); /* members that a loss took out of their slots, not closed yet */
    zeb_subscriber *droppedtail EZEB_GUARDED_BY(regmutex);
    /* Closed by the end of the runtime; released with the record, when the last call inside has left. */
    zeb_subscriber *retiredsubscribers EZEB_GUARDED_BY(regmutex);
    zeb_publisher *retiredpublishers EZEB_GUARDED_BY(regmutex);
    int32_t closed EZEB_GUARDED_BY(regmutex);    /* nothing can be registered any more */
    uint32_t answered EZEB_GUARDED_BY(regmutex); /* bit 0: a handshake reply was read */
    int32_t answerwaiters EZEB_GUARDED_BY(regmutex);
    ezeb_cond answercond;

    ezeb_mutex namemutex;
    ezeb_sharedtext *instancename EZEB_GUARDED_BY(namemutex); /* null until the daemon has told */

    /* Fork interlock: no descriptor is created while a fork is in progress, nor the other way round. */
    ezeb_mutex forkmutex;
    ezeb_cond forkcond;
    int32_t fdopening EZEB_GUARDED_BY(forkmutex);
    int32_t forking EZEB_GUARDED_BY(forkmutex);
    int32_t forkwaiters EZEB_GUARDED_BY(forkmutex);
    int32_t fdwaiters EZEB_GUARDED_BY(forkmutex);

    /* Start-up rendezvous of the two service threads with the thread in zeb_init. */
    ezeb_mutex startmutex;
    ezeb_cond startcond;
    int32_t senderup EZEB_GUARDED_BY(startmutex);
    int32_t receiverup EZEB_GUARDED_BY(startmutex);
    int32_t bothup EZEB_GUARDED_BY(startmutex);
    int32_t abandoned EZEB_GUARDED_BY(startmutex); /* the other thread could not be had: leave */

    ezebrecvctx recv;
    ezebsendctx send;
};

/* Holds the runtime for the duration of a block; null inside when there is none. In a forked child, where the
 * record is gone, a reference taken before the fork is forgotten instead of given back. */
class ezeb_runtime_ref
{
  public:
    ezeb_runtime_ref();
    ~ezeb_runtime_ref();
    ezeb_runtime_ref(const ezeb_runtime_ref &) = delete;
    ezeb_runtime_ref &operator=(const ezeb_runtime_ref &) = delete;
    explicit operator bool() const
    {
        return rt != nullptr;
    }
    ezeb_runtime *operator->() const
    {
        return rt;
    }
    ezeb_runtime *get() const
    {
        return rt;
    }

  private:
    ezeb_runtime *rt;
    uint32_t forkgeneration;
};

/* Rises in every forked child: what was begun before the fork is compared with it. */
uint32_t ezeb_fork_generation(void);

int32_t ezeb_init(const char *home, int32_t port);
int32_t ezeb_shutdown(int32_t wait);
void ezeb_get_tiername(char **out);
void ezeb_get_instancename(char **out);
const char *ezeb_get_lib_string(void);

/* Writes "Fatal error: ..." and ends the process with status -1, running exit handlers. */
[[noreturn]] void ezeb_error_shutdown(void);

ezeb_sharedtext *ezeb_instancename_ref(ezeb_runtime *rt); /* a reference, or null */
void ezeb_instancename_set(ezeb_runtime *rt, const char *name);

/* Bracket every creation of a descriptor, up to its being close-on-exec. */
void ezeb_prefdopen(ezeb_runtime *rt);
void ezeb_postfdopen(ezeb_runtime *rt);

/* DESCRIPTOR, or a close-on-exec duplicate from 3 on when it is below: 0 to 2 belong to the application even
 * when it has closed them. Takes DESCRIPTOR; -1 with errno set when none can be had. Called inside the
 * bracket. */
int ezeb_fd_above_stdio(int descriptor);

#endif
