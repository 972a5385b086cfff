/* Remote calls carried in notifications: server and client. */
#ifndef EZEBRPC_H
#define EZEBRPC_H

#include "ezeblock.h"
#include "ezebqueue.h"

#include "zeb.h"

enum { EZEB_RPC_SLOTS = 64 }; /* of which the last is never filled */

struct ezeb_rpcfunction {
    char *name;
    zeb_rpcserver_function function;
};

/* Configured and launched by one thread; while it runs only its counts change. Counted: by the application's
 * handle and by each subscriber that it was launched with, until no call-back of that can run any more. */
struct zeb_rpcserver {
    int32_t references; /* through ezeb_ref and ezeb_unref */
    int32_t running;    /* through ezeb_flag_get */
    int32_t mode;       /* of the call-backs */
    int32_t count;
    char *name;
    char *component;
    zeb_subscriber *subscriber; /* referenced; while running */
    zeb_proplist *properties;   /* of its address; or null */
    ezeb_rpcfunction functions[EZEB_RPC_SLOTS];
};

/* One call of a function, on the stack of the thread that makes it. Strings are the request notification's.
 */
struct zeb_rpcrequest {
    const zeb_logicaladdr *requester;
    const char *name;
    const char *callid;
    zeb_publisher *publisher; /* referenced */
    int32_t answered;
};

struct ezeb_rpcentry {
    char *name;
    zeb_laddrlist *live; /* addresses that serve the name now */
};

/* Counted: by the application's handle, by each subscriber it has had until no call-back of that can run any
 * more, by its invocations, and by calls that wait. */
struct zeb_rpcclient {
    int32_t references;      /* through ezeb_ref and ezeb_unref */
    uint32_t forkgeneration; /* constant: of the process that made it; elsewhere the handle is dead */
    char *component;         /* constant */
    char *subscription;      /* constant */
    int32_t count;           /* constant: of entries */

    ezeb_mutex lock;   /* guards everything below and the pending servers of the invocations; held while
                          call-backs run */
    ezeb_cond changed; /* the members changed, or the client ends */
    ezeb_rpcentry *entries EZEB_GUARDED_BY(lock);
    zeb_subscriber *subscriber EZEB_GUARDED_BY(lock); /* referenced; null while created anew */
    uint32_t counter EZEB_GUARDED_BY(lock);
    int32_t active EZEB_GUARDED_BY(lock);
    zeb_rpcinvocation *first EZEB_GUARDED_BY(lock); /* invocations with servers that owe a final response */
    zeb_rpcinvocation *last EZEB_GUARDED_BY(lock);
};

/* Counted: by the handle (the application's, or the client's when that ends first) and by a get-response
 * while it waits. */
struct zeb_rpcinvocation {
    int32_t references;              /* through ezeb_ref and ezeb_unref */
    zeb_rpcclient *client;           /* constant, referenced */
    char *callid;                    /* constant */
    ezeb_queue *responses;           /* constant; has its own lock */
    zeb_rpcclient_callback callback; /* constant, or null */
    void *context;                   /* constant */
    zeb_laddrlist *pending;          /* guarded by the client's lock, as is the rest */
    int32_t listed;
    zeb_rpcinvocation *next;
    zeb_rpcinvocation *prev;
};

struct zeb_rpcresponse {
    zeb_logicaladdr *responder;
    char *data; /* with a NUL behind it; null when there is none */
    int32_t length;
    int32_t final;
    int32_t failed;
    int32_t code;
    ezeb_queue_cell cell; /* while it waits to be taken */
};

int32_t ezeb_rpcrequest_sendprogress(zeb_rpcrequest *request, const void *data, int32_t length);
int32_t ezeb_rpcrequest_sendresult(zeb_rpcrequest *request, const void *data, int32_t length);
int32_t ezeb_rpcrequest_senderror(zeb_rpcrequest *request, int32_t code, const char *message);
const char *ezeb_rpcrequest_getrpcname(const zeb_rpcrequest *request);
void ezeb_rpcserver_destroy(zeb_rpcserver **server);
int32_t ezeb_rpcserver_shutdown(zeb_rpcserver *server);
int32_t ezeb_rpcserver_isrunning(const zeb_rpcserver *server);
int32_t ezeb_rpcserver_launch(zeb_rpcserver *server);
int32_t ezeb_rpcserver_setaddrprops(zeb_rpcserver *server, const zeb_proplist *properties);
int32_t ezeb_rpcserver_setcbmode(zeb_rpcserver *server, int32_t mode);
int32_t ezeb_rpcserver_addfunc(zeb_rpcserver *server, const char *name, zeb_rpcserver_function function);
zeb_rpcserver *ezeb_rpcserver_create(const char *name, const char *component);

void ezeb_rpcresponse_destroy(zeb_rpcresponse **response);
int32_t ezeb_rpcresponse_isresult(const zeb_rpcresponse *response);
const void *ezeb_rpcresponse_getdata(const zeb_rpcresponse *response, int32_t *length);
const char *ezeb_rpcresponse_geterror(const zeb_rpcresponse *response, int32_t *code);
zeb_logicaladdr *ezeb_rpcresponse_getaddr(const zeb_rpcresponse *response);
void ezeb_rpcinvocation_destroy(zeb_rpcinvocation **invocation);
int32_t ezeb_rpcinvocation_isdone(zeb_rpcinvocation *invocation);
zeb_rpcresponse *ezeb_rpcinvocation_getresponse(zeb_rpcinvocation *invocation, int32_t wait, int32_t timeout);
void ezeb_rpcclient_destroy(zeb_rpcclient **client);
zeb_rpcinvocation *ezeb_rpcclient_invoke_wcallback(zeb_rpcclient *client, const char *function,
                                                   const zeb_laddrlist *servers, const void *data,
                                                   int32_t length, zeb_rpcclient_callback callback,
                                                   void *context);
zeb_rpcinvocation *ezeb_rpcclient_invoke(zeb_rpcclient *client, const char *function,
                                         const zeb_laddrlist *servers, const void *data, int32_t length);
zeb_laddrlist *ezeb_rpcclient_getservers(zeb_rpcclient *client, const char *server);
zeb_laddrlist *ezeb_rpcclient_getservers_wtimeout(zeb_rpcclient *client, const char *server, int32_t wait,
                                                  int32_t timeout);
void ezeb_rpclient_register_callback(void);
zeb_rpcclient *ezeb_rpcclient_create(const char *const *servers, int32_t count, const char *component);

#endif
