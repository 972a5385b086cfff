/* The registry: tables of subscribers and publishers inside the runtime, guarded by regmutex.
 *
 * A subscriber in its slot is alive: closing one takes it out under the lock before its reference is given
 * back. The slots that are in use form a list besides, in the order of their identifiers, so that nothing
 * walks over dead ones. */
#include "ezebregistry.h"

#include "ezebnotification.h"
#include "ezebpublisher.h"
#include "ezebruntime.h"
#include "ezebsubscriber.h"
#include "ezebutil.h"

#include <string.h>

/* ---- Tables ---- */

static bool table_prepare(ezeb_table *table)
{
    table->slots = static_cast<void **>(ezeb_zalloc(EZEB_TABLE_STEP * sizeof(void *)));
    table->capacity = EZEB_TABLE_STEP;
    table->allocated = EZEB_TABLE_STEP;
    return table->slots != nullptr;
}

static bool table_grow(ezeb_table *table)
{
    if (table->count < table->capacity)
        return true;
    if (table->count == table->allocated) {
        const auto wanted = static_cast<size_t>(table->allocated) * 2;
        auto *grown =
            wanted <= INT32_MAX ? static_cast<void **>(ezeb_zalloc(wanted * sizeof(void *))) : nullptr;
        if (grown == nullptr)
            return false;
        memcpy(grown, table->slots, static_cast<size_t>(table->count) * sizeof(void *));
        ezeb_free(table->slots);
        table->slots = grown;
        table->allocated = static_cast<int32_t>(wanted);
    }
    table->capacity += EZEB_TABLE_STEP;
    return true;
}

/* The entry at SLOT, null when there is none or the slot was never given out. */
static void *table_get(const ezeb_table *table, int32_t slot)
{
    return slot >= 0 && slot < table->count ? table->slots[slot] : nullptr;
}

int ezeb_registry_prepare(ezeb_runtime *rt) EZEB_NO_ANALYSIS
{
    return table_prepare(&rt->subscribers) && table_prepare(&rt->publishers);
}

void ezeb_registry_discard(ezeb_runtime *rt) EZEB_NO_ANALYSIS
{
    while (rt->retiredsubscribers != nullptr) {
        zeb_subscriber *sub = rt->retiredsubscribers;
        rt->retiredsubscribers = sub->liveNext;
        ezeb_subscriber_unref(sub);
    }
    while (rt->retiredpublishers != nullptr) {
        zeb_publisher *pub = rt->retiredpublishers;
        rt->retiredpublishers = pub->nextRetired;
        ezeb_publisher_unref(pub);
    }
    ezeb_free(rt->subscribers.slots);
    ezeb_free(rt->publishers.slots);
}

/* ---- Lists of subscribers: in slots, and dropped ---- */

static void list_insert(zeb_subscriber **head, zeb_subscriber **tail, zeb_subscriber *sub)
{
    zeb_subscriber *before =
        *tail; /* two creations may finish in another order than they took their identifiers */
    while (before != nullptr && before->id > sub->id)
        before = before->livePrev;
    sub->livePrev = before;
    sub->liveNext = before != nullptr ? before->liveNext : *head;
    (sub->livePrev != nullptr ? sub->livePrev->liveNext : *head) = sub;
    (sub->liveNext != nullptr ? sub->liveNext->livePrev : *tail) = sub;
}

static void list_remove(zeb_subscriber **head, zeb_subscriber **tail, zeb_subscriber *sub)
{
    (sub->livePrev != nullptr ? sub->livePrev->liveNext : *head) = sub->liveNext;
    (sub->liveNext != nullptr ? sub->liveNext->livePrev : *tail) = sub->livePrev;
    sub->liveNext = nullptr;
    sub->livePrev = nullptr;
}

static bool is_in_slot_locked(const ezeb_runtime *rt, const zeb_subscriber *sub) EZEB_REQUIRES(rt->regmutex)
{
    return table_get(&rt->subscribers, static_cast<int32_t>(sub->id) - 1) == sub;
}

static bool is_dropped_locked(const ezeb_runtime *rt, const zeb_subscriber *sub) EZEB_REQUIRES(rt->regmutex)
{
    const zeb_subscriber *dropped = rt->droppedhead;
    while (dropped != nullptr && dropped != sub)
        dropped = dropped->liveNext;
    return dropped != nullptr;
}

static void empty_slot_locked(ezeb_runtime *rt, zeb_subscriber *sub) EZEB_REQUIRES(rt->regmutex)
{
    rt->subscribers.slots[sub->id - 1] = nullptr;
    list_remove(&rt->livehead, &rt->livetail, sub);
}

/* ---- Subscribers ---- */

/* When the table cannot grow the lock stays held: from then on every creation, delivery, reconnection and
 * fork of this process waits for ever. It has always been so and stays so; registry_test "a subscriber table
 * that cannot grow keeps the registry locked" holds it. */
int32_t ezeb_register_subscriber(ezeb_runtime *rt) EZEB_NO_ANALYSIS
{
    ezeb_mutex_lock(&rt->regmutex);
    int32_t id = -1;
    if (rt->closed == 0) {
        if (!table_grow(&rt->subscribers))
            return -1;
        id = ++rt->subscribers.count;
    }
    ezeb_mutex_unlock(&rt->regmutex);
    return id;
}

int32_t ezeb_activate_subscriber(ezeb_runtime *rt, zeb_subscriber *sub)
{
    const ezeb_locked hold(&rt->regmutex);
    if (rt->closed != 0 || !ezeb_subscriber_constructthensendsubsmsg(rt, sub))
        return 0;
    rt->subscribers.slots[sub->id - 1] = sub;
    list_insert(&rt->livehead, &rt->livetail, sub);
    return 1;
}

void ezeb_deregister_subscriber(ezeb_runtime *rt, zeb_subscriber *sub, bool unsubscribe)
{
    const ezeb_locked hold(&rt->regmutex);
    if (is_in_slot_locked(rt, sub)) {
        if (unsubscribe)
            ezeb_subscriber_sendunsubscribe(rt, sub);
        empty_slot_locked(rt, sub);
    } else if (is_dropped_locked(rt, sub)) {
        list_remove(&rt->droppedhead, &rt->droppedtail, sub);
    }
}

/* ---- Publishers ---- */

int32_t ezeb_register_publisher(ezeb_runtime *rt, zeb_publisher *pub) EZEB_NO_ANALYSIS
{
    ezeb_mutex_lock(&rt->regmutex);
    int32_t id = -1;
    if (rt->closed == 0) {
        if (!table_grow(&rt->publishers))
            return -1; /* with the lock held, as above */
        id = rt->publishers.count++;
        rt->publishers.slots[id] = pub;
    }
    ezeb_mutex_unlock(&rt->regmutex);
    return id;
}

int32_t ezeb_deregister_publisher(ezeb_runtime *rt, zeb_publisher *pub, int32_t id)
{
    const ezeb_locked hold(&rt->regmutex);
    if (table_get(&rt->publishers, id) != pub)
        return 0;
    rt->publishers.slots[id] = nullptr;
    return 1;
}

/* ---- Traffic ---- */

void ezeb_deliver(ezeb_runtime *rt, zeb_notification *n, int32_t id)
{
    if (n != nullptr)
        ezeb_deliver_all(rt, ezeb_notification_cell(n), id);
}

void ezeb_deliver_all(ezeb_runtime *rt, ezeb_queue_cell *cells, int32_t id)
{
    const ezeb_locked hold(&rt->regmutex);
    auto *sub = static_cast<zeb_subscriber *>(id > 0 ? table_get(&rt->subscribers, id - 1) : nullptr);
    if (sub != nullptr)
        ezeb_subscriber_deliver(rt, sub, cells);
    else
        ezeb_notification_destroyall(cells);
}

void ezeb_publish(ezeb_runtime *rt, zeb_notification *n)
{
    ezeb_sendthread_sendevent(rt, n);
}

/* ---- Loss and return of the connection ---- */

/* Caller holds regmutex, through the walk of the send queue. */
static void mark_queued(ezeb_runtime *rt, int32_t id) EZEB_NO_ANALYSIS
{
    auto *sub = static_cast<zeb_subscriber *>(id > 0 ? table_get(&rt->subscribers, id - 1) : nullptr);
    if (sub != nullptr)
        sub->queued = 1;
}

int32_t ezeb_reregister_allsubscribers(ezeb_runtime *rt)
{
    int32_t all = 1;
    const ezeb_locked hold(&rt->regmutex);
    for (zeb_subscriber *sub = rt->livehead; sub != nullptr; sub = sub->liveNext)
        sub->queued = 0;
    ezeb_sendthread_each_queued_subscriber(rt, mark_queued);
    for (zeb_subscriber *sub = rt->livehead; sub != nullptr; sub = sub->liveNext) {
        if (sub->queued == 0 && !ezeb_subscriber_constructthensendsubsmsg(rt, sub))
            all = 0;
    }
    return all;
}

void ezeb_drop_members(ezeb_runtime *rt)
{
    const ezeb_locked hold(&rt->regmutex);
    zeb_subscriber *next = nullptr;
    for (zeb_subscriber *sub = rt->livehead; sub != nullptr; sub = next) {
        next = sub->liveNext;
        if (!ezeb_subscriber_hasMembershipInterest(sub) || ezeb_subscriber_isbeingcreated(sub))
            continue;
        empty_slot_locked(rt, sub);
        list_insert(&rt->droppedhead, &rt->droppedtail, sub);
        zeb_notification *n = ezeb_notification_create("ZEB/SYSTEM/LEAVEGROUP", nullptr, 0);
        if (n == nullptr)
            continue;
        ezeb_notification_setClass(n, ZEB_CLASS_LEAVEGROUP);
        ezeb_subscriber_deliver(rt, sub, ezeb_notification_cell(n));
    }
}

/* ---- The end ---- */

/* The next dropped subscriber with a reference, off its list; null when none is left. */
static zeb_subscriber *take_dropped(ezeb_runtime *rt)
{
    const ezeb_locked hold(&rt->regmutex);
    rt->closed = 1;
    zeb_subscriber *sub = rt->droppedhead;
    if (sub != nullptr) {
        list_remove(&rt->droppedhead, &rt->droppedtail, sub);
        ezeb_ref(&sub->references);
    }
    return sub;
}

static zeb_subscriber *take_live(ezeb_runtime *rt)
{
    const ezeb_locked hold(&rt->regmutex);
    zeb_subscriber *sub = rt->livehead;
    if (sub != nullptr) {
        empty_slot_locked(rt, sub);
        ezeb_ref(&sub->references);
    }
    return sub;
}

/* The application's publisher in a slot from *SLOT on, out of it; null when none is left. */
static zeb_publisher *take_publisher(ezeb_runtime *rt, int32_t *slot)
{
    const ezeb_locked hold(&rt->regmutex);
    for (; *slot < rt->publishers.count; (*slot)++) {
        auto *pub = static_cast<zeb_publisher *>(rt->publishers.slots[*slot]);
        rt->publishers.slots[*slot] = nullptr;
        if (pub != nullptr && pub->subscriberId == 0)
            return pub;
    }
    return nullptr;
}

static void retire(ezeb_runtime *rt, zeb_subscriber *sub)
{
    const ezeb_locked hold(&rt->regmutex);
    sub->liveNext = rt->retiredsubscribers;
    rt->retiredsubscribers = sub;
}

static void retire(ezeb_runtime *rt, zeb_publisher *pub)
{
    const ezeb_locked hold(&rt->regmutex);
    pub->nextRetired = rt->retiredpublishers;
    rt->retiredpublishers = pub;
}

void ezeb_registry_closeall(ezeb_runtime *rt)
{
    while (zeb_subscriber *sub = take_dropped(rt)) {
        ezeb_subscriber_orphan(sub);
        ezeb_subscriber_unref(sub);
    }
    while (zeb_subscriber *sub = take_live(rt)) {
        ezeb_subscriber_closenodereg(sub);
        retire(rt, sub); /* with the reference: a close by the application may be on its way */
    }
    int32_t slot = 0;
    while (zeb_publisher *pub = take_publisher(rt, &slot))
        retire(rt, pub);
}

void ezeb_registry_fork_destroy(ezeb_runtime *rt) EZEB_NO_ANALYSIS
{
    zeb_subscriber *lists[] = {rt->livehead, rt->droppedhead};
    for (zeb_subscriber *sub : lists) {
        while (sub != nullptr) {
            zeb_subscriber *next = sub->liveNext;
            ezeb_subscriber_freesubs(sub);
            sub = next;
        }
    }
    for (int32_t i = 0; i < rt->publishers.count; i++) {
        if (rt->publishers.slots[i] != nullptr)
            ezeb_publisher_freepub(static_cast<zeb_publisher *>(rt->publishers.slots[i]));
    }
}
