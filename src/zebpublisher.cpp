/* Publishers: they stamp a notification at its first publish and hand it to the send thread. Any number of
 * threads may publish through one; only the sequence number is shared, and it is taken atomically. */
#include "ezebpublisher.h"

#include "ezebnotification.h"
#include "ezebruntime.h"
#include "ezebsubscriber.h"
#include "ezebutil.h"

#include <string.h>

enum { ONE_TIME_WAIT_MS = 5000 };

static void free_publisher(zeb_publisher *publisher)
{
    ezeb_free(publisher->component);
    ezeb_free(publisher->idPrefix);
    ezeb_free(publisher);
}

static zeb_publisher *new_publisher(const char *component, int32_t subscriberId, const char *hostpid)
{
    auto *publisher = ezeb_new<zeb_publisher>();
    if (publisher == nullptr)
        return nullptr;
    publisher->references = 1;
    publisher->sequence = 1;
    publisher->subscriberId = subscriberId;
    publisher->component = ezeb_strdup(component);
    publisher->idPrefix = static_cast<char *>(ezeb_malloc(strlen(hostpid) + EZEB_INT_TEXT));
    if (publisher->component != nullptr && publisher->idPrefix != nullptr)
        return publisher;
    free_publisher(publisher);
    return nullptr;
}

zeb_publisher *ezeb_publisher_create(const char *component, int32_t subscriberId, int32_t waitForConnection,
                                     int32_t waitMilliseconds)
{
    const ezeb_runtime_ref rt;
    if (!rt || component == nullptr)
        return nullptr;
    zeb_publisher *publisher = new_publisher(component, subscriberId, rt->hostpid);
    if (publisher == nullptr)
        return nullptr;
    if (waitForConnection != 0) /* the outcome does not matter: what is published meanwhile is kept */
        ezeb_connection_unref(ezeb_recvthread_getsocket(rt.get(), waitMilliseconds, 0));
    ezeb_ref(&publisher->references); /* this creation's: a shutdown may take the handle's back at once */
    const int32_t id = ezeb_register_publisher(rt.get(), publisher);
    if (id < 0) {
        free_publisher(publisher);
        return nullptr;
    }
    publisher->id = id;
    ezeb_int2str(ezeb_addstr(publisher->idPrefix, rt->hostpid), id);
    if (!ezeb_unref(&publisher->references))
        return publisher;
    free_publisher(publisher); /* it ended with the runtime */
    return nullptr;
}

/* The identifier is prefix and sequence number with nothing between them; the sequence prints as a signed
 * number. */
static bool stamp(ezeb_runtime *rt, zeb_publisher *publisher, zeb_notification *n)
{
    const auto sequence =
        static_cast<int32_t>(__atomic_fetch_add(&publisher->sequence, 1U, __ATOMIC_RELAXED));
    char *id = ezeb_arena_bytes(&n->strings, strlen(publisher->idPrefix) + EZEB_INT_TEXT);
    if (id == nullptr)
        return false;
    ezeb_int2str(ezeb_addstr(id, publisher->idPrefix), sequence);
    return ezeb_notification_set_pubinfo(n, publisher->component, rt->hostname, rt->hostpid, id,
                                         publisher->subscriberId) != 0;
}

/* False when N stays the caller's. */
static bool publish(zeb_publisher *publisher, zeb_notification *n)
{
    const ezeb_runtime_ref rt; /* first: it keeps what a shutdown releases meanwhile */
    if (!rt || publisher == nullptr || n == nullptr || publisher->idPrefix == nullptr)
        return false;
    const bool stamped = n->generatingComponent != nullptr || stamp(rt.get(), publisher, n);
    if (n->cls == ZEB_CLASS_OUTGOINGSTREAM)
        return stamped && ezeb_notification_set_streampublisher(n, publisher) !=
                              0; /* the head stays the application's */
    ezeb_subscriber_letgo(n);    /* a received one belongs to its subscriber no more */
    if (stamped)
        ezeb_publish(rt.get(), n);
    else
        ezeb_notification_destroy(n);
    return true;
}

void ezeb_publisher_publish(zeb_publisher *publisher, zeb_notification *n)
{
    publish(publisher, n);
}

void ezeb_publisher_publishown(zeb_publisher *publisher, zeb_notification *n)
{
    if (!publish(publisher, n))
        ezeb_notification_destroy(n);
}

zeb_publisher *ezeb_publisher_ref(zeb_publisher *publisher)
{
    if (publisher != nullptr)
        ezeb_ref(&publisher->references);
    return publisher;
}

void ezeb_publisher_unref(zeb_publisher *publisher)
{
    if (publisher != nullptr && ezeb_unref(&publisher->references))
        free_publisher(publisher);
}

/* A shutdown takes the application's publishers out of the table and releases them when the last call inside
 * the runtime has left; whoever took one out releases it. A subscriber's publisher is released by its
 * subscriber alone. */
void ezeb_publisher_close(zeb_publisher *publisher)
{
    const ezeb_runtime_ref rt; /* first: it keeps what a shutdown releases meanwhile */
    if (publisher == nullptr || publisher->idPrefix == nullptr)
        return;
    const bool removed = rt && ezeb_deregister_publisher(rt.get(), publisher, publisher->id) != 0;
    if (removed || publisher->subscriberId != 0)
        ezeb_publisher_unref(publisher);
}

void ezeb_publisher_freepub(zeb_publisher *publisher)
{
    ezeb_free(publisher->component);
    ezeb_free(publisher->idPrefix);
    publisher->component = nullptr;
    publisher->idPrefix = nullptr;
}

int32_t ezeb_one_time_publish(const char *component, zeb_notification *n)
{
    const int32_t started = ezeb_init(nullptr, 0);
    if (started != 0 && started != ZEB_ALREADY_INITIALISED)
        return -1;
    int32_t result = -1;
    zeb_publisher *publisher = ezeb_publisher_create(component, 0, 1, ONE_TIME_WAIT_MS);
    bool connected = false;
    if (publisher != nullptr) {
        const ezeb_runtime_ref rt;
        connected = rt && ezeb_recvthread_isConnected(rt.get()) != 0;
    }
    if (connected && n != nullptr) {
        ezeb_publisher_publish(publisher, n);
        result = 0;
    }
    ezeb_publisher_close(publisher);
    ezeb_shutdown(1); /* draining: the one notification is to be sent */
    return result;
}
