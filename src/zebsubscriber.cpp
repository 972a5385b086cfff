/* Subscribers.
 *
 * Who owns one: the application's handle, until it is closed, and everything that runs on its behalf (see the
 * record). The receive thread delivers under the registry lock; the application receives, relinquishes and
 * closes; call-backs run on a dispatcher thread (mode 0) or a thread each (mode 1). All that changes after
 * creation is guarded by the subscriber's lock, except the queue, which has its own. Nothing here is held
 * while a call-back runs. */
#include "ezebsubscriber.h"

#include "ezeblogicaladdr.h"
#include "ezebnotification.h"
#include "ezebproplist.h"
#include "ezebpublisher.h"
#include "ezebruntime.h"
#include "ezebutil.h"

#include <string.h>

enum { DISPATCH_WAIT_MS = 1000 }; /* within that a dispatcher notices that it is cancelled */

/* ---- Requests to the daemon ---- */

void ezeb_subsmsg_free(ezeb_subsmsg *request)
{
    if (request == nullptr)
        return;
    ezeb_free(request->subscription);
    ezeb_free(request->component);
    ezeb_free(request->membershipInterest);
    ezeb_proplist_destroy(&request->properties);
    ezeb_free(request);
}

static bool copied(const void *from, const void *to)
{
    return from == nullptr || to != nullptr;
}

static ezeb_subsmsg *new_request(const zeb_subscriber *sub, uint32_t kind)
{
    auto *request = ezeb_new<ezeb_subsmsg>();
    if (request == nullptr)
        return nullptr;
    request->kind = kind;
    request->subscriberId = static_cast<int32_t>(sub->id);
    if (kind == EZEB_UNSUBSCRIBE)
        return request;
    request->subscription = ezeb_strdup_ornull(sub->subscription);
    request->component = ezeb_strdup_ornull(sub->component);
    request->membershipInterest = ezeb_strdup_ornull(sub->membershipInterest);
    request->properties = ezeb_proplist_dup(sub->properties);
    request->deltas = sub->deltas;
    if (copied(sub->subscription, request->subscription) && copied(sub->component, request->component) &&
        copied(sub->membershipInterest, request->membershipInterest) &&
        copied(sub->properties, request->properties))
        return request;
    ezeb_subsmsg_free(request);
    return nullptr;
}

static int32_t send_request(ezeb_runtime *rt, const zeb_subscriber *sub, uint32_t kind)
{
    ezeb_subsmsg *request = new_request(sub, kind);
    if (ezeb_sendthread_sendsubs(rt, request))
        return 1;
    ezeb_subsmsg_free(request);
    return 0;
}

int32_t ezeb_subscriber_constructthensendsubsmsg(ezeb_runtime *rt, const zeb_subscriber *sub)
{
    return send_request(rt, sub, EZEB_SUBSCRIBE);
}

int32_t ezeb_subscriber_sendunsubscribe(ezeb_runtime *rt, const zeb_subscriber *sub)
{
    return send_request(rt, sub, EZEB_UNSUBSCRIBE);
}

static int32_t write_line(ezeb_sb *sb, const char *name, const char *value)
{
    return ezeb_sb_puts(sb, name) && ezeb_sb_puts(sb, value) && ezeb_sb_write(sb, "\r\n", 2);
}

/* A text that is absent is written as the word null; an empty one as nothing. */
static const char *or_null_word(const char *text)
{
    return text != nullptr ? text : "null";
}

int32_t ezeb_subscriber_write(const ezeb_subsmsg *request, ezeb_sb *sb)
{
    const bool subscribe = request->kind == EZEB_SUBSCRIBE;
    char id[EZEB_INT_TEXT];
    ezeb_int2str(id, request->subscriberId);
    /* The content length is 0 although properties follow among the headers. */
    return ezeb_sb_puts(sb, subscribe ? "POST /subscribe HTTP/1.1\r\n" : "POST /unsubscribe HTTP/1.1\r\n") &&
           ezeb_sb_puts(sb, "Content-Length: 0\r\n") && write_line(sb, "SubscriberID: ", id) &&
           (!subscribe || (write_line(sb, "Subscription: ", or_null_word(request->subscription)) &&
                           write_line(sb, "Component: ", request->component) &&
                           write_line(sb, "MbrInterest: ", or_null_word(request->membershipInterest)) &&
                           write_line(sb, "MbrDeltas: ", request->deltas != 0 ? "true" : "false") &&
                           ezeb_write_proplist(request->properties, sb))) &&
           ezeb_sb_write(sb, "\r\n", 2) && ezeb_sb_flush(sb);
}

/* ---- Notifications held by the application ---- */

static void hold_locked(zeb_subscriber *sub, zeb_notification *n) EZEB_REQUIRES(sub->lock)
{
    n->holder = sub;
    n->heldNext = nullptr;
    n->heldPrev = sub->heldTail;
    (sub->heldTail != nullptr ? sub->heldTail->heldNext : sub->heldHead) = n;
    sub->heldTail = n;
}

static void release_hold_locked(zeb_subscriber *sub, zeb_notification *n) EZEB_REQUIRES(sub->lock)
{
    (n->heldPrev != nullptr ? n->heldPrev->heldNext : sub->heldHead) = n->heldNext;
    (n->heldNext != nullptr ? n->heldNext->heldPrev : sub->heldTail) = n->heldPrev;
    if (n->handing != nullptr)
        n->handing->gone = true;
    n->handing = nullptr;
    n->holder = nullptr;
}

void ezeb_subscriber_letgo(zeb_notification *n)
{
    zeb_subscriber *sub = n->holder;
    if (sub == nullptr || sub->dead != 0)
        return;
    const ezeb_locked hold(&sub->lock);
    release_hold_locked(sub, n);
}

void ezeb_q_callback(void *notification)
{
    ezeb_notification_destroy(static_cast<zeb_notification *>(notification));
}

/* ---- The record ---- */

static void free_contents(zeb_subscriber *sub) EZEB_NO_ANALYSIS
{
    ezeb_free(sub->subscription);
    ezeb_free(sub->component);
    ezeb_free(sub->membershipInterest);
    ezeb_free(sub->message);
    ezeb_free(sub->name);
    sub->subscription = sub->component = sub->membershipInterest = sub->message = sub->name = nullptr;
    ezeb_proplist_destroy(&sub->properties);
    ezeb_laddrlist_destroy(&sub->memberList);
    ezeb_logicaladdr_destroy(&sub->stateRequester);
}

/* The final release. Notifications that were never relinquished end here. */
static void free_subscriber(zeb_subscriber *sub) EZEB_NO_ANALYSIS
{
    while (sub->heldHead != nullptr) {
        zeb_notification *n = sub->heldHead;
        release_hold_locked(sub, n);
        ezeb_notification_destroy(n);
    }
    ezeb_publisher_close(sub->publisher);
    ezeb_queue_destroy(sub->queue, ezeb_q_callback, 1);
    ezeb_streamtbl_destroy(&sub->streams);
    free_contents(sub);
    if (sub->release != nullptr)
        sub->release(sub->owner);
    ezeb_cond_destroy(&sub->changed);
    ezeb_mutex_destroy(&sub->lock);
    ezeb_free(sub);
}

void ezeb_subscriber_unref(zeb_subscriber *sub)
{
    if (ezeb_unref(&sub->references))
        free_subscriber(sub);
}

static zeb_subscriber *new_subscriber(const char *subscription, const char *component,
                                      const char *membershipInterest, const zeb_proplist *properties)
{
    auto *sub = ezeb_new<zeb_subscriber>();
    if (sub == nullptr)
        return nullptr;
    sub->references = 1;
    ezeb_mutex_init(&sub->lock);
    ezeb_cond_init(&sub->changed);
    sub->subscription = ezeb_strdup_ornull(subscription);
    sub->component = ezeb_strdup_ornull(component);
    sub->membershipInterest = ezeb_strdup_ornull(membershipInterest);
    sub->properties = ezeb_proplist_dup(properties);
    sub->queue = ezeb_queue_create();
    sub->streams = ezeb_streamtbl_create();
    if (copied(subscription, sub->subscription) && copied(component, sub->component) &&
        copied(membershipInterest, sub->membershipInterest) && copied(properties, sub->properties) &&
        sub->queue != nullptr && sub->streams != nullptr)
        return sub;
    ezeb_subscriber_unref(sub);
    return nullptr;
}

/* ---- Creation ---- */

/* Gives SUB its identifier and publisher and makes it known. */
static bool enter(ezeb_runtime *rt, zeb_subscriber *sub, int32_t wait)
{
    const int32_t id = ezeb_register_subscriber(rt);
    if (id < 0)
        return false;
    sub->id = static_cast<uint32_t>(id);
    zeb_publisher *publisher =
        ezeb_publisher_create(sub->component != nullptr ? sub->component : "", id, 0, -1);
    {
        const ezeb_locked hold(&sub->lock);
        sub->publisher = publisher;
        sub->registration = EZEB_PENDING;
        sub->creatorWaiting = wait;
    }
    return publisher != nullptr && ezeb_activate_subscriber(rt, sub) != 0;
}

/* Waits for the daemon's answer. True when it was "success"; *TEXT gets the status text, or null. */
static bool await_answer(zeb_subscriber *sub, int64_t timeout, char **text)
{
    const ezeb_locked hold(&sub->lock);
    if (timeout > 0 && sub->registration == EZEB_PENDING) {
        const timespec deadline = ezeb_deadline(timeout);
        ezeb_cond_waituntil(&sub->changed, &sub->lock, &deadline); /* once: any change ends the wait */
    }
    while (timeout <= 0 && sub->registration == EZEB_PENDING && ezeb_flag_get(&sub->closing) == 0)
        ezeb_cond_wait(&sub->changed, &sub->lock);
    const bool closed = ezeb_flag_get(&sub->closing) != 0; /* by a shutdown: nobody else has the handle yet */
    const bool answered = sub->registration == EZEB_ANSWERED;
    sub->registration = EZEB_SETTLED;
    sub->creatorWaiting = 0;
    if (closed)
        return false;
    *text = answered ? sub->message : ezeb_strdup("timedout");
    sub->message = answered ? nullptr : sub->message;
    return answered && sub->result != 0;
}

zeb_subscriber *ezeb_subscriber_create_held(const char *subscription, const char *component,
                                            const char *membershipInterest, const zeb_proplist *properties,
                                            int32_t deltas, char **statusMessageOut, int32_t wait,
                                            int64_t timeout)
{
    if (statusMessageOut != nullptr)
        *statusMessageOut = nullptr;
    const ezeb_runtime_ref rt;
    if (!rt)
        return nullptr;
    zeb_subscriber *sub = new_subscriber(subscription, component, membershipInterest, properties);
    if (sub == nullptr)
        return nullptr;
    sub->deltas = deltas;
    ezeb_ref(
        &sub->references); /* this creation's; the first is the handle's, which a shutdown may take back */
    char *text = nullptr;
    const bool entered = enter(rt.get(), sub, wait);
    const bool created = entered && (wait == 0 || await_answer(sub, timeout, &text));
    if (statusMessageOut != nullptr)
        *statusMessageOut = text;
    else
        ezeb_free(text);
    if (created)
        return sub;
    if (entered)
        ezeb_deregister_subscriber(rt.get(), sub, false); /* refused or timed out: no unsubscribe follows */
    ezeb_subscriber_closenodereg(sub);
    ezeb_subscriber_unref(sub);
    return nullptr;
}

zeb_subscriber *ezeb_subscriber_create(const char *subscription, const char *component,
                                       const char *membershipInterest, const zeb_proplist *properties,
                                       int32_t deltas, char **statusMessageOut, int32_t wait, int64_t timeout)
{
    zeb_subscriber *sub = ezeb_subscriber_create_held(subscription, component, membershipInterest, properties,
                                                      deltas, statusMessageOut, wait, timeout);
    if (sub != nullptr)
        ezeb_subscriber_unref(sub);
    return sub;
}

int32_t ezeb_subscriber_isbeingcreated(zeb_subscriber *sub)
{
    const ezeb_locked hold(&sub->lock);
    return sub->creatorWaiting != 0 && sub->registration == EZEB_PENDING;
}

void ezeb_subscriber_receivesubsreply(zeb_subscriber *sub, int32_t result, char *message)
{
    const ezeb_locked hold(&sub->lock);
    if (sub->registration == EZEB_SETTLED) { /* of a subscription after a reconnect: nobody asked */
        ezeb_free(message);
        return;
    }
    sub->registration = EZEB_ANSWERED;
    sub->result = result;
    ezeb_free(sub->message);
    sub->message = message;
    ezeb_cond_broadcast(&sub->changed, &sub->lock);
}

int32_t ezeb_subscriber_status(zeb_subscriber *sub, char **statusMessageOut)
{
    if (sub == nullptr)
        return ZEB_SUBSCRIPTION_FAILED;
    const ezeb_locked hold(&sub->lock);
    if (sub->registration == EZEB_SETTLED)
        return ZEB_SUBSCRIBED;
    if (sub->registration == EZEB_PENDING)
        return ZEB_SUBSCRIPTION_PENDING;
    const bool failed = sub->result == 0;
    if (failed && statusMessageOut != nullptr) {
        *statusMessageOut = sub->message;
        sub->message = nullptr;
    }
    ezeb_free(sub->message);
    sub->message = nullptr;
    sub->registration = EZEB_SETTLED;
    ezeb_cond_broadcast(&sub->changed, &sub->lock);
    return failed ? ZEB_SUBSCRIPTION_FAILED : ZEB_SUBSCRIBED;
}

/* ---- Closing ---- */

static void leave_lists_locked(zeb_subscriber *sub) EZEB_REQUIRES(sub->lock);

void ezeb_subscriber_closenodereg(zeb_subscriber *sub)
{
    if (sub == nullptr || !ezeb_flag_raise(&sub->closing))
        return;
    ezeb_mutex_lock(&sub->lock);
    sub->callbackRegistered = 0;
    sub->callback = nullptr;
    zeb_publisher *publisher = sub->publisher;
    sub->publisher = nullptr;
    ezeb_cond_broadcast(&sub->changed, &sub->lock);
    ezeb_mutex_unlock(&sub->lock);
    ezeb_publisher_close(publisher);
    ezeb_queue_close(sub->queue, ezeb_q_callback);
    ezeb_streamtbl_shutdown(sub->streams);
    ezeb_mutex_lock(&sub->lock);
    leave_lists_locked(sub);
    ezeb_mutex_unlock(&sub->lock);
    ezeb_subscriber_unref(sub);
}

void ezeb_subscriber_close(zeb_subscriber *sub)
{
    const ezeb_runtime_ref rt; /* first: it keeps what a shutdown releases meanwhile */
    if (sub == nullptr || ezeb_flag_get(&sub->closing) != 0)
        return;
    if (rt)
        ezeb_deregister_subscriber(rt.get(), sub, true);
    ezeb_subscriber_closenodereg(sub);
}

void ezeb_subscriber_orphan(zeb_subscriber *sub)
{
    ezeb_mutex_lock(&sub->lock);
    ezeb_flag_set(&sub->orphaned, 1);
    ezeb_cond_broadcast(&sub->changed, &sub->lock);
    leave_lists_locked(sub);
    ezeb_mutex_unlock(&sub->lock);
    ezeb_queue_start_shutdown(sub->queue);
    ezeb_streamtbl_shutdown(sub->streams);
}

/* What another thread was changing at the instant of the fork, which shows in its lock being held, is left
 * alone. What the application has received stays its own. */
void ezeb_subscriber_freesubs(zeb_subscriber *sub) EZEB_NO_ANALYSIS
{
    ezeb_flag_set(&sub->closing, 1);
    sub->dead = 1;
    if (ezeb_mutex_trylock(&sub->lock)) {
        free_contents(sub);
        if (ezeb_mutex_trylock(&sub->queue->lock))
            ezeb_queue_destroy(sub->queue, ezeb_q_callback, 0);
    }
    sub->subscription = sub->component = sub->membershipInterest = sub->message = sub->name = nullptr;
    sub->properties = nullptr;
    sub->memberList = nullptr;
    sub->stateRequester = nullptr;
    sub->queue = nullptr;
    sub->streams = nullptr; /* the application may hold streams of it */
    sub->list = nullptr;
    sub->cells = nullptr;
    sub->publisher = nullptr;
    sub->heldHead = sub->heldTail = nullptr;
    sub->callbackRegistered = 0;
    ezeb_mutex_init(&sub->lock);
    ezeb_cond_init(&sub->changed);
}

/* ---- Delivery ---- */

static void keep_memberlist(zeb_subscriber *sub, const zeb_notification *n)
{
    zeb_laddrlist *fresh = ezeb_laddrlist_dup(n->memberList);
    ezeb_mutex_lock(&sub->lock);
    zeb_laddrlist *old = sub->memberList;
    sub->memberList = fresh;
    ezeb_mutex_unlock(&sub->lock);
    ezeb_laddrlist_destroy(&old);
}

static bool wants_own_thread(zeb_subscriber *sub);
static bool starts_own_thread(ezeb_runtime *rt, zeb_subscriber *sub, zeb_notification *n);
static void signal_list_locked(zeb_subscriber *sub) EZEB_REQUIRES(sub->lock);
static void signal_list(zeb_subscriber *sub);

/* Queues CELLS, if any, and says that something has arrived. Who waits in a receive is woken last: the queue
 * and the subscriber are free then. */
static void queue_arrivals(zeb_subscriber *sub, ezeb_queue_cell *cells)
{
    ezeb_waiter *woken = nullptr;
    int32_t taken = 1;
    {
        const ezeb_locked hold(&sub->lock);
        if (cells != nullptr)
            taken = ezeb_queue_append(sub->queue, cells, &woken);
        signal_list_locked(sub);
    }
    if (!taken)
        ezeb_notification_destroyall(cells);
    ezeb_wake(woken);
}

/* What others notice though nobody has received it: by then what came before has to be there. */
static bool is_noticed_at_once(const zeb_notification *n)
{
    return n->cls == ZEB_CLASS_MEMBERSHIPLIST || n->cls == ZEB_CLASS_INCOMINGSTREAM;
}

/* False when N, a later piece of a stream, is consumed. */
static bool look_through(zeb_subscriber *sub, zeb_notification *n)
{
    if (n->cls == ZEB_CLASS_MEMBERSHIPLIST)
        keep_memberlist(sub, n);
    return n->cls != ZEB_CLASS_INCOMINGSTREAM || ezeb_streamtbl_take(sub->streams, n) != nullptr;
}

void ezeb_subscriber_deliver(ezeb_runtime *rt, zeb_subscriber *sub, ezeb_queue_cell *cells)
{
    if (sub == nullptr || ezeb_flag_get(&sub->closing) != 0) {
        ezeb_notification_destroyall(cells);
        return;
    }
    const bool ownThreads = wants_own_thread(sub);
    bool arrived = false;
    ezeb_queue_cell *queued = nullptr;
    ezeb_queue_cell **end = &queued;
    for (ezeb_queue_cell *next = nullptr; cells != nullptr; cells = next) {
        next = cells->next;
        auto *n = static_cast<zeb_notification *>(cells->element);
        if (queued != nullptr && (ownThreads || is_noticed_at_once(n))) {
            queue_arrivals(sub, queued);
            arrived = false;
            queued = nullptr;
            end = &queued;
        }
        if (!look_through(sub, n))
            continue;
        arrived = true;
        if (ownThreads && starts_own_thread(rt, sub, n))
            continue;
        cells->next = nullptr;
        *end = cells;
        end = &cells->next;
    }
    if (arrived)
        queue_arrivals(sub, queued);
}

/* Remembers who asks for the state; an answer goes there. */
static void keep_requester_locked(zeb_subscriber *sub, const zeb_notification *n) EZEB_REQUIRES(sub->lock)
{
    ezeb_logicaladdr_destroy(&sub->stateRequester);
    if (n->generatingAddress != nullptr)
        sub->stateRequester = ezeb_logicaladdr_dup(n->generatingAddress);
}

/* Takes the next notification and lets the subscriber hold it. The caller has a reference. */
static zeb_notification *take_next(zeb_subscriber *sub, int32_t wait, int32_t timeout)
{
    auto *n = static_cast<zeb_notification *>(ezeb_queue_dequeue(sub->queue, wait, timeout));
    if (n == nullptr)
        return nullptr;
    {
        const ezeb_locked hold(&sub->lock);
        hold_locked(sub, n);
        if (n->cls == ZEB_CLASS_STATEGET)
            keep_requester_locked(sub, n);
        if (ezeb_flag_get(&sub->closing) == 0)
            return n;
        release_hold_locked(sub, n);
    }
    ezeb_notification_destroy(n); /* closed meanwhile: it goes with what was queued */
    return nullptr;
}

static bool is_ended(const zeb_subscriber *sub)
{
    return ezeb_flag_get(&sub->closing) != 0 || ezeb_flag_get(&sub->orphaned) != 0;
}

static bool is_settled(zeb_subscriber *sub)
{
    const ezeb_locked hold(&sub->lock);
    return sub->registration == EZEB_SETTLED;
}

zeb_notification *ezeb_subscriber_receive(zeb_subscriber *sub, int32_t wait, int32_t timeout)
{
    if (sub == nullptr || is_ended(sub))
        return nullptr;
    if (wait != 0 && !is_settled(sub))
        return nullptr; /* at once, until the answer was asked for; without waiting what is there is given out
                         */
    ezeb_ref(&sub->references);
    zeb_notification *n = take_next(sub, wait, timeout);
    ezeb_subscriber_unref(sub);
    return n;
}

void ezeb_subscriber_relinquish(zeb_subscriber *sub, zeb_notification *n)
{
    (void)sub; /* the notification knows whose it is */
    if (n == nullptr)
        return;
    ezeb_subscriber_letgo(n);
    ezeb_notification_destroy(n);
}

/* ---- Call-backs ---- */

/* Has the call-back called with N, which the subscriber holds. False when the process is a forked child
 * since: then nothing of the subscriber may be touched any more. */
static bool call_back(zeb_subscriber *sub, zeb_notification *n, zeb_subscriber_callback callback,
                      void *context)
{
    ezeb_handing handing = {false};
    ezeb_mutex_lock(&sub->lock);
    /* cppcheck-suppress autoVariables ; whatever ends the hold, at the latest this function, takes it back */
    n->handing = &handing;
    ezeb_mutex_unlock(&sub->lock);
    const uint32_t generation = ezeb_fork_generation();
    callback(n, context);
    if (generation != ezeb_fork_generation())
        return false;
    ezeb_mutex_lock(&sub->lock);
    const bool kept = !handing.gone;
    if (kept)
        release_hold_locked(sub, n);
    ezeb_mutex_unlock(&sub->lock);
    if (kept)
        ezeb_notification_destroy(n);
    return true;
}

struct dispatch {
    zeb_subscriber *sub; /* referenced */
    uint32_t number;     /* of the registration that it serves */
};

static bool is_registered_locked(const zeb_subscriber *sub, uint32_t number) EZEB_REQUIRES(sub->lock)
{
    return sub->callbackRegistered != 0 && sub->callbackNumber == number && !is_ended(sub);
}

static bool is_subscribed_locked(const zeb_subscriber *sub) EZEB_REQUIRES(sub->lock)
{
    return sub->registration == EZEB_SETTLED || (sub->registration == EZEB_ANSWERED && sub->result != 0);
}

/* Waits until the subscription stands. False when the dispatcher is to end. */
static bool may_dispatch(const dispatch *d)
{
    zeb_subscriber *sub = d->sub;
    const ezeb_locked hold(&sub->lock);
    while (is_registered_locked(sub, d->number) && !is_subscribed_locked(sub))
        ezeb_cond_wait(&sub->changed, &sub->lock);
    return is_registered_locked(sub, d->number);
}

/* The call-back as registered now; null, N being back at the head of the queue, when it was cancelled while N
 * arrived. */
static zeb_subscriber_callback current_callback(const dispatch *d, zeb_notification *n, void **context)
{
    zeb_subscriber *sub = d->sub;
    zeb_subscriber_callback callback = nullptr;
    {
        const ezeb_locked hold(&sub->lock);
        if (is_registered_locked(sub, d->number)) {
            *context = sub->callbackContext;
            callback = sub->callback;
        } else {
            release_hold_locked(sub, n);
        }
    }
    if (callback != nullptr)
        return callback;
    if (ezeb_queue_push_cell(sub->queue, &n->item.cell, n))
        signal_list(sub);
    else
        ezeb_notification_destroy(n);
    return nullptr;
}

static void *dispatcher_body(void *opaque)
{
    const dispatch d = *static_cast<dispatch *>(opaque);
    ezeb_free(opaque);
    while (may_dispatch(&d)) {
        zeb_notification *n = take_next(d.sub, 1, DISPATCH_WAIT_MS);
        if (n == nullptr)
            continue;
        void *context = nullptr;
        zeb_subscriber_callback callback = current_callback(&d, n, &context);
        if (callback != nullptr && !call_back(d.sub, n, callback, context))
            return nullptr;
    }
    ezeb_subscriber_unref(d.sub);
    return nullptr;
}

static bool start_dispatcher(ezeb_runtime *rt, zeb_subscriber *sub, uint32_t number)
{
    auto *d = ezeb_new<dispatch>();
    if (d == nullptr)
        return false;
    *d = {sub, number};
    ezeb_ref(&sub->references); /* the thread's, before there is a thread */
    if (ezeb_thread_start(nullptr, EZEB_THREAD_DETACHED, rt->stacksize, "zeb-dispatch", dispatcher_body, d))
        return true;
    ezeb_subscriber_unref(sub);
    ezeb_free(d);
    return false;
}

int32_t ezeb_subscriber_registercallback(zeb_subscriber *sub, zeb_subscriber_callback callback, void *context,
                                         int32_t mode)
{
    const ezeb_runtime_ref rt;
    if (sub == nullptr || callback == nullptr || !rt || is_ended(sub))
        return -1;
    uint32_t number;
    {
        const ezeb_locked hold(&sub->lock);
        if (sub->callbackRegistered != 0)
            return -1;
        sub->callbackRegistered = 1;
        sub->callback = callback;
        sub->callbackContext = context;
        sub->callbackMode = mode;
        number = ++sub->callbackNumber;
    }
    if (mode != 0 || start_dispatcher(rt.get(), sub, number))
        return 0;
    const ezeb_locked hold(&sub->lock);
    if (sub->callbackNumber == number)
        sub->callbackRegistered = 0;
    return -1;
}

int32_t ezeb_subscriber_cancelcallback(zeb_subscriber *sub)
{
    if (sub == nullptr)
        return -1;
    const ezeb_locked hold(&sub->lock);
    if (sub->callbackRegistered == 0)
        return -1;
    sub->callbackRegistered = 0;
    sub->callback = nullptr;
    ezeb_cond_broadcast(&sub->changed, &sub->lock);
    return 0;
}

/* Mode 1: one notification, one thread. */
struct single {
    zeb_subscriber *sub; /* referenced */
    zeb_notification *n;
    sigset_t mask; /* the application's; the starting thread blocks everything */
};

static void *single_body(void *opaque)
{
    const single s = *static_cast<single *>(opaque);
    ezeb_free(opaque);
    pthread_sigmask(SIG_SETMASK, &s.mask, nullptr);
    zeb_subscriber_callback callback = nullptr;
    void *context = nullptr;
    {
        const ezeb_locked hold(&s.sub->lock);
        if (s.sub->callbackRegistered != 0 && !is_ended(s.sub)) {
            callback = s.sub->callback;
            context = s.sub->callbackContext;
            hold_locked(s.sub, s.n);
        }
    }
    if (callback == nullptr)
        ezeb_notification_destroy(s.n);
    else if (!call_back(s.sub, s.n, callback, context))
        return nullptr;
    ezeb_subscriber_unref(s.sub);
    return nullptr;
}

static bool wants_own_thread(zeb_subscriber *sub)
{
    const ezeb_locked hold(&sub->lock);
    return sub->callbackRegistered != 0 && sub->callbackMode == 1;
}

/* Hands N to a thread of its own, which calls the call-back. Without a thread the queue takes N, where a
 * receive or the close finds it. */
static bool starts_own_thread(ezeb_runtime *rt, zeb_subscriber *sub, zeb_notification *n)
{
    auto *s = ezeb_new<single>();
    if (s == nullptr)
        return false;
    *s = {sub, n, rt->callersmask};
    ezeb_ref(&sub->references);
    if (ezeb_thread_start(nullptr, EZEB_THREAD_DETACHED, rt->stacksize, "zeb-callback", single_body, s))
        return true;
    ezeb_subscriber_unref(sub);
    ezeb_free(s);
    return false;
}

zeb_publisher *ezeb_subscriber_refpublisher(zeb_subscriber *sub)
{
    const ezeb_locked hold(&sub->lock);
    return ezeb_publisher_ref(sub->publisher);
}

void ezeb_subscriber_setowner(zeb_subscriber *sub, void (*release)(void *owner), void *owner)
{
    const ezeb_locked hold(&sub->lock);
    sub->release = release;
    sub->owner = owner;
}

/* ---- State transfer ---- */

static void publish_state(zeb_publisher *publisher, const char *type, uint32_t cls, const void *body,
                          int32_t length, const zeb_logicaladdr *to)
{
    zeb_notification *n = ezeb_notification_create(type, body, length);
    if (n == nullptr)
        return;
    ezeb_notification_setClass(n, cls);
    ezeb_notification_setDestinationAddr(n, to);
    if (n->destinationAddrs != nullptr)
        ezeb_publisher_publishown(publisher, n);
    else
        ezeb_notification_destroy(n); /* without its destination it would go to everybody */
}

int32_t ezeb_subscriber_getState(zeb_subscriber *sub)
{
    if (sub == nullptr)
        return 0;
    ezeb_mutex_lock(&sub->lock);
    const zeb_logicaladdr *first = ezeb_laddrlist_get(sub->memberList, 0);
    zeb_logicaladdr *member = first != nullptr ? ezeb_logicaladdr_dup(first) : nullptr;
    ezeb_mutex_unlock(&sub->lock);
    zeb_publisher *publisher = ezeb_subscriber_refpublisher(sub);
    const int32_t known = member != nullptr;
    if (known)
        publish_state(publisher, "/ZEB/SYSTEM/STATEGET", ZEB_CLASS_STATEGET, nullptr, 0, member);
    ezeb_logicaladdr_destroy(&member);
    ezeb_publisher_unref(publisher);
    return known;
}

void ezeb_subscriber_returnState(zeb_subscriber *sub, const void *body, uint32_t length)
{
    if (sub == nullptr)
        return;
    ezeb_mutex_lock(&sub->lock);
    zeb_logicaladdr *requester = sub->stateRequester;
    sub->stateRequester = nullptr;
    ezeb_mutex_unlock(&sub->lock);
    zeb_publisher *publisher = ezeb_subscriber_refpublisher(sub);
    if (requester != nullptr)
        publish_state(publisher, "/ZEB/SYSTEM/STATESET", ZEB_CLASS_STATESET, body,
                      static_cast<int32_t>(length), requester);
    ezeb_logicaladdr_destroy(&requester);
    ezeb_publisher_unref(publisher);
}

/* ---- Fields ---- */

const char *ezeb_subscriber_getName(zeb_subscriber *sub)
{
    if (sub == nullptr)
        return nullptr;
    const ezeb_locked hold(&sub->lock);
    if (sub->name == nullptr) {
        char id[EZEB_INT_TEXT];
        ezeb_int2str(id, sub->id);
        sub->name = ezeb_strdup(id);
    }
    return sub->name;
}

/* NAME may be the stored one: it is copied before that goes. */
const char *ezeb_subscriber_setName(zeb_subscriber *sub, const char *name)
{
    if (sub == nullptr)
        return nullptr;
    char *copy = ezeb_strdup_ornull(name);
    const ezeb_locked hold(&sub->lock);
    ezeb_free(sub->name);
    sub->name = copy;
    return sub->name;
}

const char *ezeb_subscriber_subscription(const zeb_subscriber *sub)
{
    return sub != nullptr ? sub->subscription : nullptr;
}

const char *ezeb_subscriber_component(const zeb_subscriber *sub)
{
    return sub != nullptr ? sub->component : nullptr;
}

uint32_t ezeb_subscriber_id(const zeb_subscriber *sub)
{
    return sub != nullptr ? sub->id : UINT32_MAX;
}

zeb_publisher *ezeb_subscriber_getPublisher(const zeb_subscriber *sub)
{
    if (sub == nullptr)
        return nullptr;
    const ezeb_locked hold(const_cast<ezeb_mutex *>(&sub->lock));
    return sub->publisher;
}

int32_t ezeb_subscriber_hasMembershipInterest(const zeb_subscriber *sub)
{
    return sub != nullptr && sub->membershipInterest != nullptr;
}

/* ---- Subscriber lists ----
 * Each membership is a cell of its own, so that a subscriber in two lists, or twice in one, breaks neither.
 * Deliveries are told to the list it was added to last; the others find it when they look. Adding looks at
 * the queue, and delivering at the list, under the subscriber's lock: one of the two always sees the other.
 */

zeb_subscriberlist *ezeb_subscriberlist_create(void)
{
    auto *list = ezeb_new<zeb_subscriberlist>();
    if (list == nullptr)
        return nullptr;
    list->forkgeneration = ezeb_fork_generation();
    ezeb_mutex_init(&list->lock);
    ezeb_cond_init(&list->readyCond);
    return list;
}

/* In a forked child every list is dead: its lock may be held by a thread that does not exist there. */
static bool is_usable(const zeb_subscriberlist *list)
{
    return list != nullptr && list->forkgeneration == ezeb_fork_generation();
}

static void free_list(zeb_subscriberlist *list)
{
    ezeb_cond_destroy(&list->readyCond);
    ezeb_mutex_destroy(&list->lock);
    ezeb_free(list);
}

static void unlink_cell_locked(zeb_subscriberlist *list, ezeb_listcell *cell) EZEB_REQUIRES(list->lock)
{
    (cell->prev != nullptr ? cell->prev->next : list->head) = cell->next;
    (cell->next != nullptr ? cell->next->prev : list->tail) = cell->prev;
    list->count--;
}

/* Takes the first cell of CELLS out of its list and releases it, and the list when it was destroyed and this
 * was its last. */
static void leave(ezeb_listcell **cells)
{
    ezeb_listcell *cell = *cells;
    zeb_subscriberlist *list = cell->list;
    *cells = cell->nextOfSub;
    ezeb_mutex_lock(&list->lock);
    unlink_cell_locked(list, cell);
    const bool last = list->count == 0;
    const bool gone = last && list->destroyed != 0;
    if (last && list->waiters > 0)
        ezeb_cond_broadcast(&list->readyCond, &list->lock);
    ezeb_mutex_unlock(&list->lock);
    if (gone)
        free_list(list);
    ezeb_free(cell);
}

/* The ready slot of a list may go on naming the subscriber: that is how lists behave, and their callers are
 * told. */
static void leave_lists_locked(zeb_subscriber *sub)
{
    while (sub->cells != nullptr)
        leave(&sub->cells);
    sub->list = nullptr;
}

/* Tells LIST that SUB has something. False when the list is destroyed. */
static bool make_ready(zeb_subscriberlist *list, zeb_subscriber *sub)
{
    const ezeb_locked hold(&list->lock);
    if (list->destroyed != 0)
        return false;
    if (list->ready == nullptr) {
        list->ready = sub;
        if (list->waiters > 0)
            ezeb_cond_broadcast(&list->readyCond, &list->lock);
    }
    return true;
}

static void signal_list_locked(zeb_subscriber *sub) EZEB_REQUIRES(sub->lock)
{
    zeb_subscriberlist *list = sub->list;
    if (list == nullptr || make_ready(list, sub))
        return;
    sub->list = nullptr;
    ezeb_listcell **at = &sub->cells;
    while (*at != nullptr) {
        if ((*at)->list == list)
            leave(at); /* the last one releases the list, whose address serves for comparing only from then on
                        */
        else
            at = &(*at)->nextOfSub;
    }
}

static void signal_list(zeb_subscriber *sub)
{
    const ezeb_locked hold(&sub->lock);
    signal_list_locked(sub);
}

/* Appends CELL unless the list is destroyed. */
static bool join(zeb_subscriberlist *list, ezeb_listcell *cell)
{
    const ezeb_locked hold(&list->lock);
    if (list->destroyed != 0)
        return false;
    cell->prev = list->tail;
    (list->tail != nullptr ? list->tail->next : list->head) = cell;
    list->tail = cell;
    list->count++;
    return true;
}

void ezeb_subscriberlist_add(zeb_subscriberlist *list, zeb_subscriber *sub)
{
    if (!is_usable(list) || sub == nullptr)
        return;
    auto *cell = ezeb_new<ezeb_listcell>();
    if (cell == nullptr)
        return;
    cell->list = list;
    cell->sub = sub;
    const ezeb_locked hold(&sub->lock);
    if (ezeb_flag_get(&sub->closing) != 0 || !join(list, cell)) {
        ezeb_free(cell);
        return;
    }
    cell->nextOfSub = sub->cells;
    sub->cells = cell;
    sub->list = list;
    if (ezeb_queue_length(sub->queue) > 0)
        signal_list_locked(sub);
}

void ezeb_subscriberlist_destroy(zeb_subscriberlist **list)
{
    if (list == nullptr || *list == nullptr)
        return;
    zeb_subscriberlist *gone = *list;
    *list = nullptr;
    if (!is_usable(gone))
        return;
    ezeb_mutex_lock(&gone->lock);
    gone->destroyed = 1;
    const bool empty = gone->count == 0;
    ezeb_mutex_unlock(&gone->lock);
    if (empty)
        free_list(gone);
}

static zeb_subscriber *find_waiting_locked(const zeb_subscriberlist *list) EZEB_REQUIRES(list->lock)
{
    for (const ezeb_listcell *cell = list->head; cell != nullptr; cell = cell->next) {
        if (ezeb_queue_length(cell->sub->queue) > 0)
            return cell->sub;
    }
    return nullptr;
}

/* One wait, limited or not: what the slot holds afterwards is the result, nothing when it ended early. */
static void wait_ready_locked(zeb_subscriberlist *list, int32_t timeout) EZEB_REQUIRES(list->lock)
{
    list->waiters++;
    if (timeout > 0) {
        const timespec deadline = ezeb_deadline(timeout);
        ezeb_cond_waituntil(&list->readyCond, &list->lock, &deadline);
    } else {
        ezeb_cond_wait(&list->readyCond, &list->lock);
    }
    list->waiters--;
}

zeb_subscriber *ezeb_subscriber_multirecv(zeb_subscriberlist *list, int32_t wait, int32_t timeout)
{
    if (!is_usable(list))
        return nullptr;
    const ezeb_locked hold(&list->lock);
    zeb_subscriber *found = list->ready;
    if (found == nullptr && list->count > 0) {
        found = find_waiting_locked(list);
        if (found == nullptr && wait != 0) {
            wait_ready_locked(list, timeout);
            found = list->ready;
        }
    }
    list->ready = nullptr;
    return found;
}
