/* Notifications: the record, its wire format in both directions, and how a received one belongs to its
 * subscriber. */
#ifndef EZEBNOTIFICATION_H
#define EZEBNOTIFICATION_H

#include "ezebsbuf.h"
#include "ezebsendthread.h"
#include "ezebutil.h"

#include "zeb.h"

struct ezeb_runtime;

struct ezeb_propnode {
    const char *name;
    const char *value;
    size_t namelength;
    size_t valuelength;
    ezeb_propnode *next;
};

/* What a call-back thread asks when the application returns: was the notification given away meanwhile?
 * Stands on that thread's stack; guarded by the subscriber's lock. */
struct ezeb_handing {
    bool gone;
};

/* Room for strings, properties and body in the notification's own allocation: a usual event needs no other.
 */
enum { EZEB_NOTIFICATION_INLINE = 832 };

/* Used by one thread at a time: the application until publish, then the send thread; the receive thread until
 * delivery, then the application. Strings and property nodes stand in the arena, and so does a body that
 * fits; addresses have allocations of their own. */
struct zeb_notification {
    uint32_t cls;
    int32_t localOnly;
    int32_t bodyLength; /* as given to create, also when negative */
    int32_t subscriberId;
    int64_t deliveryTime; /* milliseconds */
    int64_t creationTime; /* milliseconds; -1 when published and not yet known */
    const char *type;
    const char *stamp; /* nothing fills it */
    const char *affectedComponents;
    const char *affectedNodes;
    const char *generatingComponent;
    const char *generatingNode;
    const char *generatingProcess;
    const char *id;
    const char *instanceName;
    const char *streamKey;
    zeb_publisher *streamPublisher; /* referenced; set by the publish of a stream's head */
    zeb_outstream *outputStream;    /* owns the notification, once created */
    zeb_instream *inputStream;      /* on the first piece of an incoming stream */
    mutable int32_t
        inputStreamHanded; /* the application has the handle; until then the stream's end is this record's */
    ezeb_propnode *properties; /* newest first */
    char *body;
    bool bodyInRoom; /* it is not an allocation of its own */
    zeb_logicaladdr *generatingAddress;
    zeb_laddrlist *destinationAddrs;
    zeb_laddrlist *memberList;
    zeb_laddrlist *membersAdded;
    zeb_laddrlist *membersRemoved;

    /* While received and neither relinquished nor published: guarded by the holder's lock. */
    zeb_subscriber *holder;
    zeb_notification *heldNext;
    zeb_notification *heldPrev;
    ezeb_handing *handing; /* set while a call-back runs with it */

    ezeb_senditem item; /* while it waits to be sent, or its cell alone, to be received */

    ezeb_arena strings;
    alignas(void *) char room[EZEB_NOTIFICATION_INLINE];
};

zeb_notification *ezeb_notification_create(const char *type, const void *body, int32_t bodyLength);
void ezeb_notification_destroy(zeb_notification *n); /* null is ignored */
void ezeb_notification_forget_blocks(void);          /* releases memory that is kept for further ones */

/* The cell of N, as a chain of its own; and the end of a whole chain with its notifications. */
ezeb_queue_cell *ezeb_notification_cell(zeb_notification *n);
void ezeb_notification_destroyall(ezeb_queue_cell *cells);
void ezeb_notification_setClass(zeb_notification *n, uint32_t cls);
const char *ezeb_notification_classname(uint32_t cls); /* values above 8 count as 8 */
const char *ezeb_notification_getStreamKey(const zeb_notification *n);

/* Takes the body out: the caller frees it. Null when there is none, and when memory is out for one that
 * shares the notification's allocation. */
char *ezeb_notification_body_take(zeb_notification *n);

/* Fills the origin fields: ID, which lives as long as N, and copies of the others; 0 when memory is out. */
int32_t ezeb_notification_set_pubinfo(zeb_notification *n, const char *component, const char *node,
                                      const char *process, const char *id, int32_t subscriberId);

/* Writes N as an event and flushes. -1 for null, 0 as soon as a write fails, else 1. */
int32_t ezeb_notification_write(ezeb_runtime *rt, const zeb_notification *n, ezeb_sb *sb);

/* Reads an event whose request line has been read. Null when the connection fails, the event is of an unknown
 * class, names no subscriber, or memory is out. *IDS, null at the call, may be set in any case and is the
 * caller's to free. */
zeb_notification *ezeb_notification_read(ezeb_sb *sb, int32_t **ids, int32_t *idcount);

char *ezeb_notification_toString(zeb_notification *n, int32_t bodyFormat);
void ezeb_notification_print(zeb_notification *n);

/* Binds the head of a stream to PUBLISHER under the key that is its id; 0 when memory is out. */
int32_t ezeb_notification_set_streampublisher(zeb_notification *n, zeb_publisher *publisher);

int32_t ezeb_write_proplist(const zeb_proplist *list,
                            ezeb_sb *sb); /* 1, or 0 for a null buffer or a failed write */

uint32_t ezeb_notification_getClass(const zeb_notification *n);
void ezeb_notification_setLocalOnly(zeb_notification *n);
const char *ezeb_notification_type(const zeb_notification *n);
int32_t ezeb_notification_localOnly(const zeb_notification *n);
const char *ezeb_notification_instanceName(const zeb_notification *n);
const char *ezeb_notification_id(const zeb_notification *n);
zeb_property *ezeb_notification_getAllProperties(const zeb_notification *n, int32_t *count);
const char *ezeb_notification_getProperty(const zeb_notification *n, const char *name);
const char *ezeb_notification_stamp(const zeb_notification *n);
const char *ezeb_notification_generatingProcess(const zeb_notification *n);
const char *ezeb_notification_generatingNode(const zeb_notification *n);
const char *ezeb_notification_generatingComponent(const zeb_notification *n);
int64_t ezeb_notification_deliveryTime(const zeb_notification *n);
int64_t ezeb_notification_creationTime(const zeb_notification *n);
const void *ezeb_notification_body(const zeb_notification *n, int32_t *length);
const char *ezeb_notification_affectedNodes(const zeb_notification *n);
const char *ezeb_notification_affectedComponents(const zeb_notification *n);
zeb_laddrlist *ezeb_notification_getMembersRemoved(const zeb_notification *n);
zeb_laddrlist *ezeb_notification_getMembersAdded(const zeb_notification *n);
zeb_laddrlist *ezeb_notification_obtainMemberList(const zeb_notification *n);
int32_t ezeb_notification_isMembership(const zeb_notification *n);
zeb_logicaladdr *ezeb_notification_generatingAddress(const zeb_notification *n);
zeb_laddrlist *ezeb_notification_getDestinationAddrs(const zeb_notification *n);
void ezeb_notification_setDestinationAddr(zeb_notification *n, const zeb_logicaladdr *address);
void ezeb_notification_setDestinationAddrs(zeb_notification *n, const zeb_laddrlist *addresses);
int32_t ezeb_notification_setProperty(zeb_notification *n, const char *name, const char *value);

#endif
