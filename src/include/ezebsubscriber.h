/* Subscribers: the record, its requests to the daemon, delivery and call-backs. */
#ifndef EZEBSUBSCRIBER_H
#define EZEBSUBSCRIBER_H

#include "ezeblock.h"
#include "ezebqueue.h"
#include "ezebsbuf.h"
#include "ezebsendthread.h"
#include "ezebstream.h"

#include "zeb.h"

#include <signal.h>

struct ezeb_runtime;
struct ezeb_listcell;

enum { EZEB_SUBSCRIBE = 0, EZEB_UNSUBSCRIBE = 1 };

/* A request as the send thread writes it. An unsubscribe carries only the first two. */
struct ezeb_subsmsg {
    uint32_t kind;
    int32_t subscriberId;
    char *subscription;
    char *component;
    char *membershipInterest;
    int32_t deltas;
    zeb_proplist *properties;
    ezeb_senditem item; /* while it waits to be sent */
};

/* What is known of the daemon's answer. */
enum ezeb_registration {
    EZEB_SETTLED,  /* subscribed, or its answer was reported */
    EZEB_PENDING,  /* no answer yet */
    EZEB_ANSWERED, /* an answer that nobody has asked for yet */
};

/* Counted: by the application's handle, by the creation while it runs, by each receive, by the dispatcher and
 * by each thread of a call-back, from before it is started. */
struct zeb_subscriber {
    int32_t references; /* through ezeb_ref and ezeb_unref */
    int32_t closing;    /* one-way; the first to set it closes */
    int32_t orphaned; /* one-way: dropped by a loss, and the runtime has ended: nothing can arrive any more */
    int32_t dead;     /* one-way: inherited through a fork while another thread was changing the record */

    /* Constant from creation on. */
    char *subscription;
    char *component;
    char *membershipInterest;
    zeb_proplist *properties;
    int32_t deltas;
    uint32_t id;
    ezeb_queue *queue; /* of notifications delivered and not received; has its own lock */

    /* Guarded by the runtime's registry lock. */
    ezeb_streamtbl *streams; /* incoming, by key; constant pointer */
    zeb_subscriber *liveNext;
    zeb_subscriber *livePrev;
    int32_t queued; /* its subscribe request waits in the send queue: a mark within one walk */

    ezeb_mutex lock;   /* guards everything below */
    ezeb_cond changed; /* the answer came or was reported, the call-back was cancelled, or the subscriber is
                          closing */
    ezeb_registration registration EZEB_GUARDED_BY(lock);
    int32_t creatorWaiting EZEB_GUARDED_BY(lock); /* the answer is awaited by the creating thread */
    int32_t result EZEB_GUARDED_BY(lock);         /* 1: the answer was "success" */
    char *message EZEB_GUARDED_BY(lock);          /* of the answer, or null */
    zeb_publisher *publisher EZEB_GUARDED_BY(lock);
    char *name EZEB_GUARDED_BY(lock);
    zeb_laddrlist *memberList EZEB_GUARDED_BY(lock);       /* of the last full list delivered */
    zeb_logicaladdr *stateRequester EZEB_GUARDED_BY(lock); /* sender of the last state request received */
    zeb_notification *heldHead EZEB_GUARDED_BY(lock);      /* received, neither relinquished nor published */
    zeb_notification *heldTail EZEB_GUARDED_BY(lock);
    zeb_subscriber_callback callback EZEB_GUARDED_BY(lock);
    void *callbackContext EZEB_GUARDED_BY(lock);
    int32_t callbackMode EZEB_GUARDED_BY(lock);
    int32_t callbackRegistered EZEB_GUARDED_BY(lock);
    /* Of the registration: an old dispatcher leaves when it is not its own. */
    uint32_t callbackNumber EZEB_GUARDED_BY(lock);
    zeb_subscriberlist *list EZEB_GUARDED_BY(lock); /* told of deliveries: the one it was added to last */
    ezeb_listcell *cells EZEB_GUARDED_BY(lock);     /* all places it has in lists */
    /* Called at the very end, when no call-back can run any more. */
    void (*release)(void *owner) EZEB_GUARDED_BY(lock);
    void *owner EZEB_GUARDED_BY(lock);
};

/* One place of a subscriber in a list. */
struct ezeb_listcell {
    zeb_subscriberlist *list; /* constant */
    zeb_subscriber *sub;      /* constant */
    ezeb_listcell *nextOfSub; /* guarded by the subscriber's lock */
    ezeb_listcell *next;      /* guarded by the list's lock, as is prev */
    ezeb_listcell *prev;
};

/* A subscriber list does not own its members. Destroyed with members in it, it goes with the last of them. */
struct zeb_subscriberlist {
    uint32_t forkgeneration; /* constant: of the process that made it */
    ezeb_mutex lock;         /* guards everything below */
    ezeb_cond readyCond;
    ezeb_listcell *head EZEB_GUARDED_BY(lock);
    ezeb_listcell *tail EZEB_GUARDED_BY(lock);
    int32_t count EZEB_GUARDED_BY(lock);
    int32_t waiters EZEB_GUARDED_BY(lock);
    int32_t destroyed EZEB_GUARDED_BY(lock);
    /* First to get a delivery since it was last taken; never looked through. */
    zeb_subscriber *ready EZEB_GUARDED_BY(lock);
};

zeb_subscriber *ezeb_subscriber_create(const char *subscription, const char *component,
                                       const char *membershipInterest, const zeb_proplist *properties,
                                       int32_t deltas, char **statusMessageOut, int32_t wait,
                                       int64_t timeout);

/* The same with a reference for the caller besides the handle, so that a shutdown, which takes the handle's
 * back, does not release the record under it. */
zeb_subscriber *ezeb_subscriber_create_held(const char *subscription, const char *component,
                                            const char *membershipInterest, const zeb_proplist *properties,
                                            int32_t deltas, char **statusMessageOut, int32_t wait,
                                            int64_t timeout);
void ezeb_subscriber_close(zeb_subscriber *sub);
int32_t ezeb_subscriber_status(zeb_subscriber *sub, char **statusMessageOut);
zeb_notification *ezeb_subscriber_receive(zeb_subscriber *sub, int32_t wait, int32_t timeout);
void ezeb_subscriber_relinquish(zeb_subscriber *sub, zeb_notification *n);
int32_t ezeb_subscriber_registercallback(zeb_subscriber *sub, zeb_subscriber_callback callback, void *context,
                                         int32_t mode);
int32_t ezeb_subscriber_cancelcallback(zeb_subscriber *sub);
int32_t ezeb_subscriber_getState(zeb_subscriber *sub);
void ezeb_subscriber_returnState(zeb_subscriber *sub, const void *body, uint32_t length);
const char *ezeb_subscriber_getName(zeb_subscriber *sub);
const char *ezeb_subscriber_setName(zeb_subscriber *sub, const char *name);
const char *ezeb_subscriber_subscription(const zeb_subscriber *sub);
const char *ezeb_subscriber_component(const zeb_subscriber *sub);
uint32_t ezeb_subscriber_id(const zeb_subscriber *sub);
zeb_publisher *ezeb_subscriber_getPublisher(const zeb_subscriber *sub);

void ezeb_subscriberlist_destroy(zeb_subscriberlist **list);
void ezeb_subscriberlist_add(zeb_subscriberlist *list, zeb_subscriber *sub);
zeb_subscriberlist *ezeb_subscriberlist_create(void);
zeb_subscriber *ezeb_subscriber_multirecv(zeb_subscriberlist *list, int32_t wait, int32_t timeout);

/* The subscriber's publisher, referenced; null once it is closing. */
zeb_publisher *ezeb_subscriber_refpublisher(zeb_subscriber *sub);

/* RELEASE(OWNER) is called when the record is released for good: no call-back of it runs then or later. */
void ezeb_subscriber_setowner(zeb_subscriber *sub, void (*release)(void *owner), void *owner);

int32_t ezeb_subscriber_hasMembershipInterest(const zeb_subscriber *sub);
void ezeb_subscriber_unref(zeb_subscriber *sub);

/* 1 while the creating thread awaits the daemon's answer. */
int32_t ezeb_subscriber_isbeingcreated(zeb_subscriber *sub);

/* Caller holds regmutex, and SUB is in its slot or was a moment ago. Takes the notifications whose CELLS are
 * given, a chain in their order. */
void ezeb_subscriber_deliver(ezeb_runtime *rt, zeb_subscriber *sub, ezeb_queue_cell *cells);

/* Caller holds regmutex. Takes MESSAGE. */
void ezeb_subscriber_receivesubsreply(zeb_subscriber *sub, int32_t result, char *message);

/* Writes a request and flushes. */
int32_t ezeb_subscriber_write(const ezeb_subsmsg *request, ezeb_sb *sb);
void ezeb_subsmsg_free(ezeb_subsmsg *request); /* null is ignored */

/* Caller holds regmutex. Queues a subscribe or an unsubscribe request; 0 when memory is out or sending has
 * ended. */
int32_t ezeb_subscriber_constructthensendsubsmsg(ezeb_runtime *rt, const zeb_subscriber *sub);
int32_t ezeb_subscriber_sendunsubscribe(ezeb_runtime *rt, const zeb_subscriber *sub);

/* Closes without a word to the daemon and without touching the tables. */
void ezeb_subscriber_closenodereg(zeb_subscriber *sub);

/* Ends a dropped subscriber's receives and dispatcher for good; it stays its owner's to close. */
void ezeb_subscriber_orphan(zeb_subscriber *sub);

/* In a forked child: releases the contents and leaves a dead handle. */
void ezeb_subscriber_freesubs(zeb_subscriber *sub);

/* Takes N out of the notifications that its subscriber holds, when it is one. */
void ezeb_subscriber_letgo(zeb_notification *n);

void ezeb_q_callback(void *notification); /* destroys it; the free function of subscribers' queues */

#endif
