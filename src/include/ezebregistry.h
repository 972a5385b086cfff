/* The tables of subscribers and publishers. A subscriber's identifier on the wire is its slot + 1, a
 * publisher's number is its slot; slots are given out in order and never again, so both stay unique for the
 * life of the runtime. */
#ifndef EZEBREGISTRY_H
#define EZEBREGISTRY_H

#include "zeb.h"

struct ezeb_queue_cell;
struct ezeb_runtime;

enum { EZEB_TABLE_STEP = 10 }; /* first capacity, and the step in which it is reported to grow */

struct ezeb_table {
    void **slots; /* zeroed up to ALLOCATED */
    int32_t count;
    int32_t capacity;  /* in steps of EZEB_TABLE_STEP */
    int32_t allocated; /* at least capacity; doubles, so that many creations stay cheap */
};

int ezeb_registry_prepare(ezeb_runtime *rt);
void ezeb_registry_discard(ezeb_runtime *rt);

/* Gives out the next identifier; the slot stays empty until the subscriber is complete and activated. -1 when
 * the runtime is ending; -1 with the registry lock left held when the table cannot grow. */
int32_t ezeb_register_subscriber(ezeb_runtime *rt);

/* Puts SUB, whose identifier is reserved, into its slot and queues its subscribe request, as one step. 0,
 * with nothing done, when the runtime is ending or the request cannot be made. */
int32_t ezeb_activate_subscriber(ezeb_runtime *rt, zeb_subscriber *sub);

/* Takes SUB out of its slot or off the list of the dropped; with UNSUBSCRIBE, queues an unsubscribe request
 * in the same step when SUB was in its slot. */
void ezeb_deregister_subscriber(ezeb_runtime *rt, zeb_subscriber *sub, bool unsubscribe);

/* Number of PUB, or -1 as above. */
int32_t ezeb_register_publisher(ezeb_runtime *rt, zeb_publisher *pub);
int32_t ezeb_deregister_publisher(ezeb_runtime *rt, zeb_publisher *pub,
                                  int32_t id); /* 1 when it was in its slot */

/* Routes N, which it takes, to the subscriber ID under the registry lock. */
void ezeb_deliver(ezeb_runtime *rt, zeb_notification *n, int32_t id);

/* The same with a chain of notifications, which arrived in this order and one right after the other. */
void ezeb_deliver_all(ezeb_runtime *rt, ezeb_queue_cell *cells, int32_t id);

/* Hands N to the send thread, which takes it. */
void ezeb_publish(ezeb_runtime *rt, zeb_notification *n);

/* Queues a subscribe request for every registered subscriber that has none queued. 0 when one could not be
 * queued; the others are. */
int32_t ezeb_reregister_allsubscribers(ezeb_runtime *rt);

/* Takes the subscribers with a membership interest out of their slots, which ends their membership, and tells
 * them. One whose creator still waits for the daemon's answer is not a member yet: it stays and is subscribed
 * again. */
void ezeb_drop_members(ezeb_runtime *rt);

/* Empties the tables for good and closes what was in them; nothing can be registered afterwards. The service
 * threads have ended. Dropped subscribers are only woken: they stay their owners' to close. */
void ezeb_registry_closeall(ezeb_runtime *rt);

/* In a forked child: releases the contents of every object, leaving dead handles. */
void ezeb_registry_fork_destroy(ezeb_runtime *rt);

#endif
