/* zeb.h - publish notifications and subscribe to them through the zeb daemon of this host.
 *
 * One process has one runtime: zeb_init starts it, zeb_shutdown ends it. The runtime owns one TCP connection
 * to the daemon on "localhost" and two service threads; nothing else of the library runs unless a call-back
 * is registered.
 *
 *     application threads                     library                              daemon
 *       zeb_publisher_publish ----> send queue ----> send thread ----+
 *       zeb_subscriber_create                                        +== TCP ==> routes to subscribers
 *       zeb_subscriber_receive <--- subscriber queue <-- receive thread <--+
 *       your call-back <----------- call-back thread
 *
 * Threads. Every function may be called from any thread unless its comment says otherwise. Notifications,
 * property lists, addresses, address lists and body blocks carry no lock: one thread at a time may use each
 * of them. The service threads block every signal; call-back threads run with the signal mask of the thread
 * that registered the call-back (mode 0) or that called zeb_init (mode 1). The library never changes a
 * signal's disposition, and a daemon that goes away raises no SIGPIPE. A signal handler must not leave a call
 * of the library by a jump.
 *
 * Call-back stacks. The service threads and every call-back thread have a stack of 32768 bytes. That is
 * little: printf of a floating-point number, or a buffer of a few kilobytes, does not fit beside it. Set
 * TAMBEK_THREAD_STACKSIZE (bytes, at least 16384) before zeb_init when a call-back needs more. A call-back
 * must return: it must not throw through the library, call pthread_exit or be cancelled.
 *
 * Loss of the daemon. Nothing is reported: the library reconnects for ever (waiting 1 second 31 times, then
 * 2, 3, 4 and 5 seconds for good), keeps what is to be sent in order, and subscribes every subscriber again.
 * Subscribers with a membership interest are the exception: they get one notification of class
 * ZEB_CLASS_LEAVEGROUP and nothing after it; close them and create new ones.
 *
 * Fork. The child of a fork has no runtime and no connection; it may call zeb_init afresh. Handles that it
 * inherited are dead: closing, publishing through and receiving from them does nothing. The parent notices
 * nothing. A child made in any other way (posix_spawn, vfork) inherits no descriptor of the library across
 * exec either.
 *
 * Memory. Everything handed in is copied; the caller keeps its own. Pointers handed out by a getter are
 * borrowed and live as long as their owner, unless the comment says "the caller frees": then the system's
 * free releases them. A published notification belongs to the library; a received one belongs to its
 * subscriber until it is relinquished.
 *
 * Failure. Constructors and look-ups return null, status functions a negative number. A null handle gives the
 * failure result of its function, unless the comment says that it must not be null.
 *
 * Time limits are milliseconds, and a limit of 0 or less means none. They are counted on the wall clock in
 * whole seconds from the start of the current second: a limit of T milliseconds ends between T / 1000 - 1 and
 * T / 1000 seconds after the call, so 1 to 999 milliseconds do not wait at all. A limited wait may end early,
 * as if its limit had passed.
 *
 * Configuration comes from the environment, read by zeb_init:
 * - TAMBEK_CONFIG_HOME, else TAMBEK_HOME: home directory, sent to the daemon at connect; one of them is
 * needed.
 * - TAMBEK_ZEB_PROXY_PORT: port of the daemon, 1 to 65535; needed.
 * - TAMBEK_THREAD_STACKSIZE: stack of the service and call-back threads in bytes; 32768 unless at least
 * 16384.
 *
 * The file ezeb/conf/.formfactor under the home directory, when there is one, is sent at connect as it is
 * ("abc" without it).
 */
#ifndef ZEB_H
#define ZEB_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#if defined(__GNUC__)
#define ZEB_API __attribute__((visibility("default")))
#else
#define ZEB_API
#endif

typedef struct zeb_proplist zeb_proplist;
typedef struct zeb_notification zeb_notification;
typedef struct zeb_instream zeb_instream;
typedef struct zeb_outstream zeb_outstream;
typedef struct zeb_publisher zeb_publisher;
typedef struct zeb_subscriber zeb_subscriber;
typedef struct zeb_subscriberlist zeb_subscriberlist;
typedef struct zeb_logicaladdr zeb_logicaladdr;
typedef struct zeb_laddrlist zeb_laddrlist;
typedef struct zeb_bb zeb_bb;
typedef struct zeb_bb_seg zeb_bb_seg;
typedef struct zeb_bb_elem zeb_bb_elem;
typedef struct zeb_bb_seglist zeb_bb_seglist;
typedef struct zeb_bb_elemlist zeb_bb_elemlist;
typedef struct zeb_rpcserver zeb_rpcserver;
typedef struct zeb_rpcrequest zeb_rpcrequest;
typedef struct zeb_rpcclient zeb_rpcclient;
typedef struct zeb_rpcinvocation zeb_rpcinvocation;
typedef struct zeb_rpcresponse zeb_rpcresponse;

/* One name with its value, both strings. Whoever owns the list or array it stands in owns the strings. */
typedef struct zeb_property {
    char *name;
    char *value;
} zeb_property;

/* Classes of notifications, as zeb_notification_getClass returns them. */
enum {
    ZEB_CLASS_MESSAGE = 0,         /* an ordinary event */
    ZEB_CLASS_MEMBERSHIPLIST = 1,  /* all members of a group */
    ZEB_CLASS_MEMBERSHIPDELTA = 2, /* members that came and went */
    ZEB_CLASS_OUTGOINGSTREAM = 3,  /* head of a stream written by this process; never on the wire */
    ZEB_CLASS_INCOMINGSTREAM = 4,  /* a piece of a stream */
    ZEB_CLASS_STATEGET = 5,        /* a member asks for the group's state */
    ZEB_CLASS_STATESET = 6,        /* the state, as answer */
    ZEB_CLASS_LEAVEGROUP = 7,      /* the connection was lost; this subscriber gets nothing more */
    ZEB_CLASS_UNKNOWN = 8
};

/* Results of zeb_init and its variants besides 0 and -1. */
enum { ZEB_ALREADY_INITIALISED = -3 };

/* Results of zeb_subscriber_status. */
enum { ZEB_SUBSCRIBED = 0, ZEB_SUBSCRIPTION_PENDING = 1, ZEB_SUBSCRIPTION_FAILED = 2 };

/* ---- Runtime ----
 *
 * Initialisations are counted: the runtime ends with the last matching shutdown. */

/* Stores null in *TIERNAME: tiers have no names here. */
ZEB_API void zeb_get_tiername(char **tiername);

/* Stores the daemon's instance name in *INSTANCENAME, or null when there is no runtime, no connection or no
 * name. The caller frees it. Waits up to 10000 ms for the connection. */
ZEB_API void zeb_get_instancename(char **instancename);

/* Like zeb_shutdown, but what is still queued for sending is discarded; returns within two seconds also when
 * the daemon has stopped reading, and waits at most for a running back-off pause (32 seconds) besides.
 * Returns 0. */
ZEB_API int32_t zeb_shutdown_nowait(void);

/* Gives back one initialisation. The last one sends everything that is queued (without a connection it is
 * discarded), ends both service threads, and closes every subscriber and publisher that is still open and
 * releases them: their handles must not be used afterwards (a receive that begins while nothing runs
 * returns null). Streams, subscriber lists, remote-call servers, clients and invocations stay their owners'
 * to close or destroy, and so do members that a loss of the connection has dropped; nothing arrives at them
 * any more. Blocks until the daemon has taken what was queued, without limit; and for the rest of a back-off
 * pause when the daemon is away (up to 32 seconds). Threads blocked in a receive, a multirecv, a read of a
 * stream, a creation or a wait for the connection are woken. May be called in a call-back. Returns 0, also
 * when nothing runs. */
ZEB_API int32_t zeb_shutdown(void);

/* Starts the runtime with home directory and port from the environment and returns at once; the connection is
 * made in the background. Returns 0; ZEB_ALREADY_INITIALISED (-3) when it runs already, which counts as
 * success and needs its own shutdown; -1 when home or port are missing (a line on standard error says which)
 * or threads or memory are not to be had. When "localhost" cannot be resolved the process is ended with a
 * message, as nothing can ever work then. */
ZEB_API int32_t zeb_init(void);

/* Like zeb_init with HOME as home directory; null takes it from the environment. */
ZEB_API int32_t zeb_init_wtambekhome(const char *home);

/* Like zeb_init with the low 16 bits of PORT as port; 0 takes it from the environment. */
ZEB_API int32_t zeb_init_with_port(int32_t port);

/* ---- Property lists ----
 *
 * Names with values in the order of insertion, each name once, compared byte for byte. The caller owns the
 * list, the list owns copies of all strings. Not locked: one thread at a time per list. Needs no runtime. */

/* Number of entries; 0 for null. */
ZEB_API int32_t zeb_proplist_count(const zeb_proplist *list);

/* Value stored under NAME, or null. Borrowed until the entry is replaced or the list destroyed. */
ZEB_API const char *zeb_proplist_get(const zeb_proplist *list, const char *name);

/* Entry INDEX, counted from 0; null at or beyond the count. INDEX must not be negative. Borrowed until the
 * next put or the destroy. */
ZEB_API zeb_property *zeb_proplist_getIndex(const zeb_proplist *list, int32_t index);

/* Adds NAME, or replaces its value where it stands. Returns the entry, borrowed until the next put or the
 * destroy; null, with the list unchanged, when LIST, NAME or VALUE is null or memory is out. */
ZEB_API zeb_property *zeb_proplist_put(zeb_proplist *list, const char *name, const char *value);

/* Releases *LIST with its strings and sets it to null. Null and a null handle are ignored. */
ZEB_API void zeb_proplist_destroy(zeb_proplist **list);

/* New empty list, or null. The caller destroys it. */
ZEB_API zeb_proplist *zeb_proplist_create(void);

/* ---- Notifications ----
 *
 * What is published and received. Not locked: the application may use one until it publishes or relinquishes
 * it, from one thread at a time. There is no destroy: publishing hands a notification over for good,
 * relinquishing gives a received one back. One that was created and never published stays allocated. */

/* Class, one of ZEB_CLASS_...; ZEB_CLASS_UNKNOWN for null. */
ZEB_API uint32_t zeb_notification_getClass(const zeb_notification *n);

/* Keeps the notification on this host. It cannot be cleared again. */
ZEB_API void zeb_notification_setLocalOnly(zeb_notification *n);

/* New text of many lines for people, with the body as BODYFORMAT says: 0 not at all, 1 as hexadecimal dump, 2
 * as text up to its first NUL, 3 as body block, 4 as body block or else as dump. The caller frees it. Null
 * when memory is out; a text also for a null notification. */
ZEB_API char *zeb_notification_toString(zeb_notification *n, int32_t bodyFormat);

/* Writes that text, without the body, to standard error. */
ZEB_API void zeb_notification_print(zeb_notification *n);

/* The strings below are borrowed from the notification; null when absent. The generating fields and the id
 * are filled at the first publish, instance name and affected parts only on received notifications; nothing
 * fills the stamp. */
ZEB_API const char *zeb_notification_type(const zeb_notification *n);

/* 1 when the notification stays on its host, else 0. */
ZEB_API int32_t zeb_notification_localOnly(const zeb_notification *n);

/* Instance name of the sender's daemon, as received. */
ZEB_API const char *zeb_notification_instanceName(const zeb_notification *n);

/* Identifier: host name, ':', process id, publisher number and sequence number with nothing between the last
 * three. Good for people; not a key, since 1 followed by 11 reads like 11 followed by 1. */
ZEB_API const char *zeb_notification_id(const zeb_notification *n);

/* New array of *COUNT entries, newest first (on received notifications: oldest first), duplicates included;
 * null with *COUNT 0 when there are none. The caller frees the array; the strings stay the notification's.
 * When memory is out the result is null and *COUNT is left alone. */
ZEB_API zeb_property *zeb_notification_getAllProperties(const zeb_notification *n, int32_t *count);

/* Value set last under NAME (on received notifications: first), or null. Borrowed. */
ZEB_API const char *zeb_notification_getProperty(const zeb_notification *n, const char *name);

ZEB_API const char *zeb_notification_stamp(const zeb_notification *n);
ZEB_API const char *zeb_notification_generatingProcess(const zeb_notification *n);
ZEB_API const char *zeb_notification_generatingNode(const zeb_notification *n);
ZEB_API const char *zeb_notification_generatingComponent(const zeb_notification *n);

/* When the daemon handed the notification on, in whole seconds since 1970; 0 when unknown or for null. */
ZEB_API int64_t zeb_notification_deliveryTime(const zeb_notification *n);

/* When the daemon took the notification, in whole seconds since 1970; 0 when unknown or for null. */
ZEB_API int64_t zeb_notification_creationTime(const zeb_notification *n);

/* Body, borrowed, and its length in *LENGTH (a null LENGTH is not written). Null for a null notification,
 * leaving *LENGTH alone, and when there is no body. A received body has a NUL after its last byte. */
ZEB_API const void *zeb_notification_body(const zeb_notification *n, int32_t *length);

ZEB_API const char *zeb_notification_affectedNodes(const zeb_notification *n);
ZEB_API const char *zeb_notification_affectedComponents(const zeb_notification *n);

/* Output stream of a stream's head, created at the first call; it owns the head from then on, which goes with
 * it. Null for notifications of other classes, for null, and when memory is out. */
ZEB_API zeb_outstream *zeb_notification_getOutputStream(zeb_notification *n);

/* Input stream that begins with this notification, or null. The caller closes it; it may outlive the
 * notification. */
ZEB_API zeb_instream *zeb_notification_getInputStream(const zeb_notification *n);

/* Address lists of membership notifications, borrowed; null when absent. */
ZEB_API zeb_laddrlist *zeb_notification_getMembersRemoved(const zeb_notification *n);
ZEB_API zeb_laddrlist *zeb_notification_getMembersAdded(const zeb_notification *n);
ZEB_API zeb_laddrlist *zeb_notification_obtainMemberList(const zeb_notification *n);

/* 1 for ZEB_CLASS_MEMBERSHIPLIST and ZEB_CLASS_MEMBERSHIPDELTA, else 0. */
ZEB_API int32_t zeb_notification_isMembership(const zeb_notification *n);

/* Address of the sender, borrowed; null when it was sent by a plain publisher. */
ZEB_API zeb_logicaladdr *zeb_notification_generatingAddress(const zeb_notification *n);

/* Destinations, borrowed; null when there are none and the daemon asks every subscription. */
ZEB_API zeb_laddrlist *zeb_notification_getDestinationAddrs(const zeb_notification *n);

/* Make a copy of ADDRESS the only destination, or a copy of ADDRESSES all destinations. ADDRESS and ADDRESSES
 * may belong to the notification itself. Nothing happens when an argument is null or memory is out. */
ZEB_API void zeb_notification_setDestinationAddr(zeb_notification *n, const zeb_logicaladdr *address);
ZEB_API void zeb_notification_setDestinationAddrs(zeb_notification *n, const zeb_laddrlist *addresses);

/* Adds a property; an existing one of the same name stays and both travel. Returns 0; -1 when NAME held ':',
 * CR or LF, or VALUE held CR or LF: a fixed text that says so was stored in its place; -2, nothing stored,
 * when an argument is null or memory is out. */
ZEB_API int32_t zeb_notification_setProperty(zeb_notification *n, const char *name, const char *value);

/* New head of a stream of TYPE (copied, not null), or null. Publish it once, which sends nothing, then write
 * to its output stream. It belongs to the application until the output stream is closed. */
ZEB_API zeb_notification *zeb_notification_createstream(const char *type);

/* New notification of class ZEB_CLASS_MESSAGE with copies of TYPE and of the BODYLENGTH bytes at BODY; null
 * when TYPE is null, when BODY is null with a length above 0, or when memory is out. A length below 1 is
 * stored and means no body. TYPE must not contain CR or LF. */
ZEB_API zeb_notification *zeb_notification_create(const char *type, const void *body, int32_t bodyLength);

/* ---- Streams ----
 *
 * Bytes of any number sent as a row of notifications. The receiver gets the first as a notification and
 * reads the bytes of all from its input stream. Properties and destinations of the head go with every piece.
 * One thread at a time per end.
 *
 *     zeb_notification *head = zeb_notification_createstream("/app/log");
 *     zeb_publisher_publish(publisher, head);
 *     zeb_outstream *out = zeb_notification_getOutputStream(head);
 *     zeb_outstream_write(out, data, length);
 *     zeb_outstream_close(&out);
 */

/* Sends the end mark, releases *STREAM with its head and sets it to null. Null and a null handle are ignored.
 */
ZEB_API void zeb_outstream_close(zeb_outstream **stream);

/* Returns 0: every write has been published already. */
ZEB_API int32_t zeb_outstream_flush(zeb_outstream *stream);

/* Publishes LENGTH bytes at DATA as one piece. Returns LENGTH; 0 when an argument is null or LENGTH is below
 * 1; -1 when the head was not published yet or memory is out. Does not block. */
ZEB_API int32_t zeb_outstream_write(zeb_outstream *stream, const void *data, int32_t length);

/* Releases *STREAM and sets it to null; what still arrives for it is dropped. Null and a null handle are
 * ignored. No read of it may be running. */
ZEB_API void zeb_instream_close(zeb_instream **stream);

/* Reads up to LENGTH bytes into BUFFER: waits without limit for the first, then takes what is there. Returns
 * their number; 0 at the end of the stream, when its subscriber was closed, when an argument is null, or
 * LENGTH is below 1. */
ZEB_API int32_t zeb_instream_read(zeb_instream *stream, void *buffer, int32_t length);

/* ---- Publishers ----
 *
 * A publisher names the component on whose behalf notifications go out. Any number of threads may publish
 * through one at once. */

/* Returns -1 and does nothing. */
ZEB_API int32_t zeb_one_time_remote_publish(void);

/* Starts the runtime, publishes N on behalf of COMPONENT, waits until it is sent and ends the runtime (or
 * gives back its count when the application runs it already). Returns 0 when N was handed over; -1 otherwise,
 * and then N is still the caller's. Waits up to 5000 ms for the connection. */
ZEB_API int32_t zeb_one_time_publish(const char *component, zeb_notification *n);

/* Hands N over to be sent; it must not be touched afterwards, even though a result is not given. The first
 * publish fills in the origin fields and the id; a received notification may be published again and keeps
 * them. Does not block. While the daemon is away notifications are kept, in order and without limit. Ignored,
 * N staying the caller's, when an argument is null or there is no runtime. */
ZEB_API void zeb_publisher_publish(zeb_publisher *publisher, zeb_notification *n);

/* Releases PUBLISHER. What it published is still sent. No publish through it may be running. Null is ignored.
 */
ZEB_API void zeb_publisher_close(zeb_publisher *publisher);

/* New publisher for COMPONENT (copied); null when COMPONENT is null, there is no runtime or memory is out.
 * Waits up to 5000 ms for the connection and returns a publisher whether or not it came. The caller closes
 * it. */
ZEB_API zeb_publisher *zeb_publisher_create(const char *component);

/* ---- Subscribers ----
 *
 * A standing request for notifications. What arrives is queued until it is received, or handed to a
 * call-back.
 *
 * The subscription text says which notifications, in the daemon's language: null for none but those addressed
 * to this subscriber, "" for all. The membership interest says which other subscribers it wants to know of;
 * null for none. Neither may contain CR or LF. Properties describe the subscriber to others.
 *
 *     char *why;
 *     zeb_subscriber *s = zeb_subscriber_create("/app/disk/" "*", "monitor", NULL, NULL, &why);
 *     zeb_notification *n;
 *     while ((n = zeb_subscriber_receive(s, 1, 0)) != NULL) {
 *         puts(zeb_notification_type(n));
 *         zeb_subscriber_relinquish(s, n);
 *     }
 *     zeb_subscriber_close(s);
 */

/* Called on a library thread with a notification that belongs to the subscriber; it is given back when the
 * call-back returns, unless it was relinquished or published in it. The result is ignored. */
typedef int32_t (*zeb_subscriber_callback)(zeb_notification *notification, void *context);

/* Answers the last state request that SUBSCRIBER received with LENGTH bytes at BODY and forgets the request.
 * Nothing is sent when there was none. */
ZEB_API void zeb_subscriber_returnState(zeb_subscriber *subscriber, const void *body, uint32_t length);

/* Asks the longest-lived other member for the group's state, which arrives as a notification of class
 * ZEB_CLASS_STATESET. Returns 1; 0 when no member is known. Needs a membership interest and full lists, so
 * not zeb_subscriber_create_wdeltas. */
ZEB_API int32_t zeb_subscriber_getState(zeb_subscriber *subscriber);

/* A member of LIST that has something to receive, or null. With WAIT, waits TIMEOUT ms (0 or less: without
 * limit) for a delivery or until the last member is closed; an empty list is not waited on. A hint: another
 * thread may have received meanwhile. No member may be closed by another thread during the call, and one that
 * is closed afterwards may still be returned by the next call. */
ZEB_API zeb_subscriber *zeb_subscriber_multirecv(zeb_subscriberlist *list, int32_t wait, int32_t timeout);

/* Stops the call-back within about a second; a call-back that is running is not waited for. Returns 0, or -1
 * when none was registered. May be called in the call-back. */
ZEB_API int32_t zeb_subscriber_cancelcallback(zeb_subscriber *subscriber);

/* Has CALLBACK called with each notification and CONTEXT: MODE 0 on one thread in order; MODE 1 on a new
 * thread per notification, any number at once; with any other mode it is never called, yet registered.
 * Returns 0; -1 when an argument but CONTEXT is null, one is registered already, or the thread cannot be
 * created. See the head of this file for stacks. */
ZEB_API int32_t zeb_subscriber_registercallback(zeb_subscriber *subscriber, zeb_subscriber_callback callback,
                                                void *context, int32_t mode);

/* Name of the subscriber, borrowed until the next setName; the decimal id when none was set. */
ZEB_API const char *zeb_subscriber_getName(zeb_subscriber *subscriber);

/* Stores a copy of NAME, null clears it. Returns the stored name, borrowed likewise, or null. */
ZEB_API const char *zeb_subscriber_setName(zeb_subscriber *subscriber, const char *name);

/* Subscription text as given, borrowed; null when none was given. */
ZEB_API const char *zeb_subscriber_subscription(const zeb_subscriber *subscriber);

/* Gives N back, which is destroyed. SUBSCRIBER must not be null. Not to be called while another thread
 * receives from or relinquishes to the same subscriber, other than in call-backs. */
ZEB_API void zeb_subscriber_relinquish(zeb_subscriber *subscriber, zeb_notification *n);

/* Next notification, to be relinquished, or null. With WAIT 0 it does not block; otherwise it waits for
 * TIMEOUT ms (0 or less: without limit). Null also when the subscriber was closed meanwhile, and at once,
 * with WAIT, while an asynchronous creation has not been settled by zeb_subscriber_status. */
ZEB_API zeb_notification *zeb_subscriber_receive(zeb_subscriber *subscriber, int32_t wait, int32_t timeout);

/* Identifier on the connection, from 1; UINT32_MAX for null. */
ZEB_API uint32_t zeb_subscriber_id(const zeb_subscriber *subscriber);

/* The subscriber's own publisher, borrowed until its close: what it publishes carries the subscriber's
 * address. Null once the subscriber is closing. */
ZEB_API zeb_publisher *zeb_subscriber_getPublisher(const zeb_subscriber *subscriber);

/* Component as given, borrowed; null when none was given. */
ZEB_API const char *zeb_subscriber_component(const zeb_subscriber *subscriber);

/* Ends the subscription and releases the handle, with every notification that is queued or not relinquished.
 * A receive that is waiting returns null. Does not wait for a running call-back; may be called in one. Null
 * is ignored. */
ZEB_API void zeb_subscriber_close(zeb_subscriber *subscriber);

/* State of an asynchronous creation: ZEB_SUBSCRIPTION_PENDING until the daemon has answered; then, once,
 * ZEB_SUBSCRIBED or ZEB_SUBSCRIPTION_FAILED, with the daemon's text in *STATUSMESSAGEOUT (null when it gave
 * none; the caller frees it; a null pointer is not written); ZEB_SUBSCRIBED ever after. *STATUSMESSAGEOUT is
 * written only for a failure reported here. ZEB_SUBSCRIPTION_FAILED for a null subscriber. */
ZEB_API int32_t zeb_subscriber_status(zeb_subscriber *subscriber, char **statusMessageOut);

/* Creates a subscriber without waiting for the daemon's answer; see zeb_subscriber_status. Null when there is
 * no runtime or memory is out. */
ZEB_API zeb_subscriber *zeb_subscriber_create_async(const char *subscription, const char *component,
                                                    const char *membershipInterest,
                                                    const zeb_proplist *properties);

/* Creates a subscriber and waits without limit for the daemon's answer. Null when the daemon refused, there
 * is no runtime, the runtime was shut down meanwhile, or memory is out. *STATUSMESSAGEOUT (null: not wanted)
 * gets the daemon's text or null; the caller frees it. All arguments may be null. The membership arrives as
 * full lists, class ZEB_CLASS_MEMBERSHIPLIST; with _wdeltas as changes, class ZEB_CLASS_MEMBERSHIPDELTA. */
ZEB_API zeb_subscriber *zeb_subscriber_create_wdeltas(const char *subscription, const char *component,
                                                      const char *membershipInterest,
                                                      const zeb_proplist *properties,
                                                      char **statusMessageOut);
ZEB_API zeb_subscriber *zeb_subscriber_create(const char *subscription, const char *component,
                                              const char *membershipInterest, const zeb_proplist *properties,
                                              char **statusMessageOut);

/* Like zeb_subscriber_create, waiting TIMEOUT ms at most (0 or less: without limit). After that the result is
 * null and the text "timedout"; the daemon may still know of the subscription. */
ZEB_API zeb_subscriber *zeb_subscriber_create_wtimeout(const char *subscription, const char *component,
                                                       const char *membershipInterest,
                                                       const zeb_proplist *properties,
                                                       char **statusMessageOut, int64_t timeout);

/* ---- Subscriber lists ----
 *
 * For one thread that waits on several subscribers. A list does not own its members; closing a subscriber
 * takes it out. */

/* Releases *LIST and sets it to null; its members go on working. No multirecv on it may be running. Null and
 * a null handle are ignored. */
ZEB_API void zeb_subscriberlist_destroy(zeb_subscriberlist **list);

/* Appends SUBSCRIBER. A subscriber should be in one list: only the one it was added to last is told of
 * deliveries. Nothing happens when an argument is null. */
ZEB_API void zeb_subscriberlist_add(zeb_subscriberlist *list, zeb_subscriber *subscriber);

/* New empty list, or null. The caller destroys it. */
ZEB_API zeb_subscriberlist *zeb_subscriberlist_create(void);

/* ---- Logical addresses and address lists ----
 *
 * An address names one subscriber anywhere. Addresses come from notifications and lists, which own them;
 * only lists can be created, and hold copies. Two addresses are the same when their keys, which only the
 * daemon gives, are. Not locked. */

/* Appends a copy of ADDRESS, which may be an entry of LIST. Neither may be null. */
ZEB_API void zeb_laddrlist_add(zeb_laddrlist *list, const zeb_logicaladdr *address);

/* Entry INDEX, counted from 0; null at or beyond the count. INDEX must not be negative. Borrowed until the
 * next add or the destroy. */
ZEB_API zeb_logicaladdr *zeb_laddrlist_get(const zeb_laddrlist *list, int32_t index);

/* Number of entries; 0 for null. */
ZEB_API int32_t zeb_laddrlist_count(const zeb_laddrlist *list);

/* Releases *LIST and sets it to null. Null and a null handle are ignored. Not for lists owned by a
 * notification. */
ZEB_API void zeb_laddrlist_destroy(zeb_laddrlist **list);

/* New list with copies of all entries; null for null or when memory is out. The caller destroys it. */
ZEB_API zeb_laddrlist *zeb_laddrlist_dup(const zeb_laddrlist *list);

/* New empty list, or null. The caller destroys it. */
ZEB_API zeb_laddrlist *zeb_laddrlist_create(void);

/* New text with tier, host, instance, component, subscription and properties, for people. The caller frees
 * it. */
ZEB_API char *zeb_logicaladdr_toString(const zeb_logicaladdr *address);

/* Value of the property NAME, borrowed, or null. */
ZEB_API const char *zeb_logicaladdr_getProperty(const zeb_logicaladdr *address, const char *name);

/* Property INDEX, counted from 0, borrowed; null at or beyond the count. INDEX must not be negative. */
ZEB_API zeb_property *zeb_logicaladdr_getPropertyIndex(const zeb_logicaladdr *address, int32_t index);

/* Number of properties; 0 for null. */
ZEB_API int32_t zeb_logicaladdr_getPropertyCount(const zeb_logicaladdr *address);

/* 1 when both name the same subscriber, else 0. An address without a key, and null, equals nothing. */
ZEB_API int32_t zeb_logicaladdr_equals(const zeb_logicaladdr *a, const zeb_logicaladdr *b);

/* The fields below are borrowed; null when absent. */
ZEB_API const char *zeb_logicaladdr_getTierId(const zeb_logicaladdr *address);
ZEB_API const char *zeb_logicaladdr_getTier(const zeb_logicaladdr *address);
ZEB_API const char *zeb_logicaladdr_getSubscription(const zeb_logicaladdr *address);
ZEB_API const char *zeb_logicaladdr_getInstanceName(const zeb_logicaladdr *address);
ZEB_API const char *zeb_logicaladdr_getHostName(const zeb_logicaladdr *address);
ZEB_API const char *zeb_logicaladdr_getComponent(const zeb_logicaladdr *address);

/* ---- Body blocks ----
 *
 * A structured body: a tree of named segments, each with named elements (text or bytes) and sub-segments, in
 * the order of insertion. Everything handed out belongs to the block and lives until it is destroyed; an
 * element until another of its name is added to its segment. Not locked. Needs no runtime.
 *
 *     zeb_bb *block = zeb_bb_create();
 *     zeb_bb_seg_addelement(zeb_bb_addsegment(block, "disk"), "free", "17");
 *     int32_t length;
 *     void *body = zeb_bb_block2body(block, &length);
 *     zeb_notification *n = zeb_notification_create("/app/disk", body, length);
 *     free(body);
 *     zeb_bb_destroy(block);
 */

/* New text, two spaces of indent a level, elements that are not printable shown as "<binary-data>"; null for
 * null and for a block without segments. The caller frees it. */
ZEB_API char *zeb_bb_toString(const zeb_bb *block);

/* Next sibling of ELEMENT, null at the end. */
ZEB_API zeb_bb_elem *zeb_bb_elemlist_getnext(const zeb_bb_elem *element);

/* First of ELEMENTS, null when empty. */
ZEB_API zeb_bb_elem *zeb_bb_elemlist_getfirst(const zeb_bb_elemlist *elements);

/* Next sibling of SEGMENT, null at the end. */
ZEB_API zeb_bb_seg *zeb_bb_seglist_getnext(const zeb_bb_seg *segment);

/* First of SEGMENTS, null when empty. */
ZEB_API zeb_bb_seg *zeb_bb_seglist_getfirst(const zeb_bb_seglist *segments);

/* Value and its length in bytes; a NUL follows the value. Null and 0 for null. A null LENGTH is not written.
 */
ZEB_API const char *zeb_bb_elem_getvalue(const zeb_bb_elem *element, int32_t *length);

ZEB_API const char *zeb_bb_elem_getname(const zeb_bb_elem *element);

/* Adds NAME with the LENGTH bytes at VALUE (-1: up to its NUL), at the end; an element of that name goes.
 * Both may point into the element that goes. Returns the element; null when an argument is null, LENGTH is
 * below -1, or memory is out, in which case the former element is gone all the same. */
ZEB_API zeb_bb_elem *zeb_bb_seg_addelement_b(zeb_bb_seg *segment, const char *name, const void *value,
                                             int32_t length);

/* The same with VALUE as text. */
ZEB_API zeb_bb_elem *zeb_bb_seg_addelement(zeb_bb_seg *segment, const char *name, const char *value);

/* Value of the element NAME and its length; null and 0 when there is none. For a null segment *LENGTH is left
 * alone. A null LENGTH is not written. */
ZEB_API const char *zeb_bb_seg_getelement(const zeb_bb_seg *segment, const char *name, int32_t *length);

/* The segment's elements, null for null. */
ZEB_API zeb_bb_elemlist *zeb_bb_seg_getelements(zeb_bb_seg *segment);

/* The sub-segment NAME, added at the end when there is none; an existing one is returned as it is. Null when
 * an argument is null or memory is out. */
ZEB_API zeb_bb_seg *zeb_bb_seg_addsegment(zeb_bb_seg *segment, const char *name);

/* First sub-segment NAME, or null. */
ZEB_API zeb_bb_seg *zeb_bb_seg_getsegment(const zeb_bb_seg *segment, const char *name);

/* The segment's sub-segments, null for null. */
ZEB_API zeb_bb_seglist *zeb_bb_seg_getsegments(zeb_bb_seg *segment);

ZEB_API const char *zeb_bb_seg_getname(const zeb_bb_seg *segment);

/* The same three for the top of the block. */
ZEB_API zeb_bb_seg *zeb_bb_addsegment(zeb_bb *block, const char *name);
ZEB_API zeb_bb_seg *zeb_bb_getsegment(const zeb_bb *block, const char *name);
ZEB_API zeb_bb_seglist *zeb_bb_getsegments(zeb_bb *block);

/* New block from LENGTH bytes at BODY; null when they do not begin with the signature of a block, or memory
 * is out. What follows may be damaged: reading ends there and the block holds what came before. The caller
 * destroys it. */
ZEB_API zeb_bb *zeb_bb_body2block(const void *body, int32_t length);

/* New bytes for BLOCK, their count in *LENGTH, which must not be null. The caller frees them. Null, *LENGTH
 * untouched, when memory is out or the bytes would be more than INT32_MAX. Names of segments up to 65533
 * bytes, names and values of elements up to 65534 and 256 levels survive the journey; more is written but not
 * read back whole. */
ZEB_API void *zeb_bb_block2body(const zeb_bb *block, int32_t *length);

/* Releases BLOCK and everything in it. Null is ignored. */
ZEB_API void zeb_bb_destroy(zeb_bb *block);

/* New empty block, or null. The caller destroys it. */
ZEB_API zeb_bb *zeb_bb_create(void);

/* ---- Remote call server ----
 *
 * Offers functions under a server name. Configure it, launch it, shut it down, all from one thread;
 * functions run on call-back threads (see the head of this file for their stacks).
 *
 *     static int32_t echo(zeb_rpcrequest *request, const void *data, int32_t length)
 *     {
 *         return zeb_rpcrequest_sendresult(request, data, length);
 *     }
 *     ...
 *     zeb_rpcserver *server = zeb_rpcserver_create("echo-server", "demo");
 *     zeb_rpcserver_addfunc(server, "echo", echo);
 *     zeb_rpcserver_launch(server);
 */

/* A function: called with the request, which lives until it returns, and the argument bytes (a length of 0
 * means none). It may send any number of progress responses and one result or error; without one an empty
 * result is sent when it returns. Its own result is ignored. */
typedef int32_t (*zeb_rpcserver_function)(zeb_rpcrequest *request, const void *data, int32_t length);

/* Send LENGTH bytes at DATA (copied) to the caller: as progress, or as the result, which ends the request.
 * Return 0; -1 when the request has ended already, an argument is null, or memory is out. They do not block.
 */
ZEB_API int32_t zeb_rpcrequest_sendprogress(zeb_rpcrequest *request, const void *data, int32_t length);
ZEB_API int32_t zeb_rpcrequest_sendresult(zeb_rpcrequest *request, const void *data, int32_t length);

/* Name of the function called, borrowed until it returns. */
ZEB_API const char *zeb_rpcrequest_getrpcname(const zeb_rpcrequest *request);

/* Shuts *SERVER down when it runs, releases it and sets it to null. A function that is running is not waited
 * for and may still answer. Null and a null handle are ignored. */
ZEB_API void zeb_rpcserver_destroy(zeb_rpcserver **server);

/* Stops taking requests; a function that is running is not waited for. Returns 0, or -1 when it does not run.
 */
ZEB_API int32_t zeb_rpcserver_shutdown(zeb_rpcserver *server);

/* 1 from a launch to the shutdown, else 0. */
ZEB_API int32_t zeb_rpcserver_isrunning(const zeb_rpcserver *server);

/* Makes the server known and takes requests; waits without limit for the daemon. Returns 0; -1 when it runs
 * already, has no function, or cannot subscribe. May be called again after a shutdown. */
ZEB_API int32_t zeb_rpcserver_launch(zeb_rpcserver *server);

/* Further properties of the server's address, copied. Returns 0; -1 when it runs, or the copy failed (also of
 * null), which leaves it without any. */
ZEB_API int32_t zeb_rpcserver_setaddrprops(zeb_rpcserver *server, const zeb_proplist *properties);

/* 0: functions run one after the other on one thread; 1: each call on a thread of its own, any number at
 * once. Returns 0; -1 for another mode, or when the server runs. */
ZEB_API int32_t zeb_rpcserver_setcbmode(zeb_rpcserver *server, int32_t mode);

/* Offers FUNCTION under NAME (copied); of equal names the first is called. Returns 0, also beyond 63
 * functions, which are not offered; -1 when an argument is null, the server runs, or memory is out. */
ZEB_API int32_t zeb_rpcserver_addfunc(zeb_rpcserver *server, const char *name,
                                      zeb_rpcserver_function function);

/* New server, or null when an argument is null or memory is out. NAME must not contain a double quote. The
 * caller destroys it. */
ZEB_API zeb_rpcserver *zeb_rpcserver_create(const char *name, const char *component);

/* Ends the request with an error: CODE is the application's, MESSAGE (copied) must not be null. Results as
 * above. */
ZEB_API int32_t zeb_rpcrequest_senderror(zeb_rpcrequest *request, int32_t code, const char *message);

/* ---- Remote call client ----
 *
 * Calls functions of servers known by name. One call may go to several servers; each sends progress
 * responses and one final response. Any thread may use a client.
 *
 *     const char *names[] = {"echo-server"};
 *     zeb_rpcclient *client = zeb_rpcclient_create(names, 1, "demo");
 *     zeb_laddrlist *servers = zeb_rpcclient_getservers_wtimeout(client, "echo-server", 1, 5000);
 *     zeb_rpcinvocation *call = zeb_rpcclient_invoke(client, "echo", servers, "hello", 5);
 *     zeb_rpcresponse *response = zeb_rpcinvocation_getresponse(call, 1, 10000);
 *
 * When the connection is lost calls that wait for an answer never get one: wait with a limit. */

/* Called with each response, which it owns and destroys: on a thread of the library, or within the invoke
 * itself for servers that are not there. It must not call any function on the same client or its invocations.
 */
typedef void (*zeb_rpcclient_callback)(zeb_rpcresponse *response, void *context);

/* Releases *RESPONSE and sets it to null. Null and a null handle are ignored. */
ZEB_API void zeb_rpcresponse_destroy(zeb_rpcresponse **response);

/* 1 for a result or an error, the last response of its server; 0 for progress. */
ZEB_API int32_t zeb_rpcresponse_isresult(const zeb_rpcresponse *response);

/* Bytes of a result or of progress, borrowed, with a NUL behind them, and their number; null and 0 for an
 * error or null. */
ZEB_API const void *zeb_rpcresponse_getdata(const zeb_rpcresponse *response, int32_t *length);

/* Address of the server that responded, borrowed. */
ZEB_API zeb_logicaladdr *zeb_rpcresponse_getaddr(const zeb_rpcresponse *response);

/* Releases *INVOCATION with the responses that were not taken and sets it to null. What still arrives for it
 * is dropped with a line on standard error. Not for an invocation that was pending when its client was
 * destroyed: it went with it. */
ZEB_API void zeb_rpcinvocation_destroy(zeb_rpcinvocation **invocation);

/* 1 when every server has answered and every response was taken, else 0. */
ZEB_API int32_t zeb_rpcinvocation_isdone(zeb_rpcinvocation *invocation);

/* Next response, which the caller destroys, or null: when the invocation is done, and when none came. With
 * WAIT it waits TIMEOUT ms (0 or less: without limit). */
ZEB_API zeb_rpcresponse *zeb_rpcinvocation_getresponse(zeb_rpcinvocation *invocation, int32_t wait,
                                                       int32_t timeout);

/* Releases *CLIENT and the invocations that still wait for a server, and sets it to null. Waits for servers
 * end. Must not be called in a response call-back. Null and a null handle are ignored. */
ZEB_API void zeb_rpcclient_destroy(zeb_rpcclient **client);

/* Calls FUNCTION at each address of SERVERS (copied) with the LENGTH bytes at DATA (copied). Returns the
 * invocation, which the caller destroys; null when CLIENT, FUNCTION or SERVERS is null, DATA is null with a
 * length above 0, or memory is out. Does not block. An address that is not a live server of its name gets an
 * error response of code -2 at once; an unknown function answers with -3. The first form passes each response
 * to CALLBACK with CONTEXT (null: queued, as with the second). */
ZEB_API zeb_rpcinvocation *zeb_rpcclient_invoke_wcallback(zeb_rpcclient *client, const char *function,
                                                          const zeb_laddrlist *servers, const void *data,
                                                          int32_t length, zeb_rpcclient_callback callback,
                                                          void *context);
ZEB_API zeb_rpcinvocation *zeb_rpcclient_invoke(zeb_rpcclient *client, const char *function,
                                                const zeb_laddrlist *servers, const void *data,
                                                int32_t length);

/* Servers of the name now, waiting without limit for the first. New list, which the caller destroys; null
 * when the client does not know the name or ends. */
ZEB_API zeb_laddrlist *zeb_rpcclient_getservers(zeb_rpcclient *client, const char *server);

/* Does nothing. */
ZEB_API void zeb_rpclient_register_callback(void);

/* New client for COUNT server names; waits without limit for the daemon. Null when an argument is null, COUNT
 * is below 1, the daemon refuses (said on standard error) or memory is out. Names must not contain a double
 * quote. The caller destroys it. */
ZEB_API zeb_rpcclient *zeb_rpcclient_create(const char *const *servers, int32_t count, const char *component);

/* Like zeb_rpcclient_getservers; without WAIT it does not block, otherwise it waits TIMEOUT ms (0 or less:
 * without limit) and may end early when other members change. Null when there is none. */
ZEB_API zeb_laddrlist *zeb_rpcclient_getservers_wtimeout(zeb_rpcclient *client, const char *server,
                                                         int32_t wait, int32_t timeout);

/* Text and code of an error, the text borrowed; the code is -2 when the server is not there, -3 when it has
 * no such function, else its own. Null and -1 for a response that is no error, and for null. A code of -2
 * comes without text. */
ZEB_API const char *zeb_rpcresponse_geterror(const zeb_rpcresponse *response, int32_t *code);

#ifdef __cplusplus
}
#endif

#endif
