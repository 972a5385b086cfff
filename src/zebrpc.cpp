/* Remote calls.
 *
 * The server's subscriber carries the server's name as a property of its address; requests are addressed to
 * it and run on its call-back threads. The client's subscriber has a membership interest in that property, so
 * the client knows who serves which name; responses are addressed to it. Each record outlives every call-back
 * that may still touch it: its subscriber holds a reference that it gives back at its own very end.
 *
 * The client lock is held while the application's response call-backs run, so these must not call into their
 * client. It is never held across a wait for the daemon, nor while a diagnostic is written. */
#include "ezebrpc.h"

#include "ezeblogicaladdr.h"
#include "ezebnotification.h"
#include "ezebproplist.h"
#include "ezebpublisher.h"
#include "ezebruntime.h"
#include "ezebsubscriber.h"
#include "ezebutil.h"

#include <string.h>

static constexpr char TYPE_REQUEST[] = "/ZEB/RPC/REQ";
static constexpr char TYPE_RESPONSE[] = "/ZEB/RPC/RES";
static constexpr char PROP_FUNCTION[] = "/ZEB/RPC/NAM";
static constexpr char PROP_CALLID[] = "/ZEB/RPC/CID";
static constexpr char PROP_ARGUMENT[] = "/ZEB/RPC/ARG";
static constexpr char PROP_FINAL[] = "/ZEB/RPC/ISR";
static constexpr char PROP_ERROR[] = "/ZEB/RPC/ERR";
static constexpr char PROP_SERVER[] = "/ZEB/RPC/SVR";

enum { CODE_NO_ERROR = -1, CODE_NOT_LIVE = -2, CODE_NO_FUNCTION = -3 };

/* Closes SUB, which may be null, and gives its owner's reference back. A shutdown may have closed it before.
 */
static void close_held(zeb_subscriber *sub)
{
    if (sub == nullptr)
        return;
    ezeb_subscriber_close(sub);
    ezeb_subscriber_unref(sub);
}

/* ==== Server ==== */

static void server_unref(zeb_rpcserver *server)
{
    if (!ezeb_unref(&server->references))
        return;
    for (int32_t i = 0; i < server->count; i++)
        ezeb_free(server->functions[i].name);
    ezeb_proplist_destroy(&server->properties);
    ezeb_free(server->name);
    ezeb_free(server->component);
    ezeb_free(server);
}

static void release_server(void *owner)
{
    server_unref(static_cast<zeb_rpcserver *>(owner));
}

zeb_rpcserver *ezeb_rpcserver_create(const char *name, const char *component)
{
    if (name == nullptr || component == nullptr)
        return nullptr;
    auto *server = ezeb_new<zeb_rpcserver>();
    if (server == nullptr)
        return nullptr;
    server->references = 1;
    server->name = ezeb_strdup(name);
    server->component = ezeb_strdup(component);
    if (server->name != nullptr && server->component != nullptr)
        return server;
    server_unref(server);
    return nullptr;
}

int32_t ezeb_rpcserver_isrunning(const zeb_rpcserver *server)
{
    return server != nullptr ? ezeb_flag_get(&server->running) : 0;
}

static bool is_configurable(const zeb_rpcserver *server)
{
    return server != nullptr && ezeb_flag_get(&server->running) == 0;
}

/* The table holds 63. One more is dropped without a word, on purpose. */
int32_t ezeb_rpcserver_addfunc(zeb_rpcserver *server, const char *name, zeb_rpcserver_function function)
{
    if (!is_configurable(server) || name == nullptr || function == nullptr)
        return -1;
    if (server->count == EZEB_RPC_SLOTS - 1)
        return 0;
    char *copy = ezeb_strdup(name);
    if (copy == nullptr)
        return -1;
    server->functions[server->count] = {copy, function};
    /* A call-back of the launch before may still be looking: it sees the entry whole, or not. */
    ezeb_flag_release(&server->count, server->count + 1);
    return 0;
}

int32_t ezeb_rpcserver_setcbmode(zeb_rpcserver *server, int32_t mode)
{
    if (!is_configurable(server) || (mode != 0 && mode != 1))
        return -1;
    server->mode = mode;
    return 0;
}

int32_t ezeb_rpcserver_setaddrprops(zeb_rpcserver *server, const zeb_proplist *properties)
{
    if (!is_configurable(server))
        return -1;
    ezeb_proplist_destroy(&server->properties); /* gone also when there is nothing to take its place */
    server->properties = ezeb_proplist_dup(properties);
    return server->properties != nullptr ? 0 : -1;
}

static int32_t serve(zeb_notification *n, void *context);

int32_t ezeb_rpcserver_launch(zeb_rpcserver *server)
{
    if (!is_configurable(server) || server->count == 0)
        return -1;
    if (server->properties == nullptr)
        server->properties = ezeb_proplist_create();
    if (ezeb_proplist_put(server->properties, PROP_SERVER, server->name) == nullptr)
        return -1;
    zeb_subscriber *sub = ezeb_subscriber_create_held(nullptr, server->component, nullptr, server->properties,
                                                      0, nullptr, 1, -1);
    if (sub == nullptr)
        return -1;
    ezeb_ref(&server->references);
    ezeb_subscriber_setowner(sub, release_server, server);
    if (ezeb_subscriber_registercallback(sub, serve, server, server->mode) != 0) {
        close_held(sub);
        return -1;
    }
    server->subscriber = sub;
    ezeb_flag_set(&server->running, 1);
    return 0;
}

int32_t ezeb_rpcserver_shutdown(zeb_rpcserver *server)
{
    if (ezeb_rpcserver_isrunning(server) == 0)
        return -1;
    ezeb_flag_set(&server->running, 0);
    zeb_subscriber *sub = server->subscriber;
    server->subscriber = nullptr;
    ezeb_subscriber_cancelcallback(sub);
    close_held(sub);
    return 0;
}

void ezeb_rpcserver_destroy(zeb_rpcserver **server)
{
    if (server == nullptr || *server == nullptr)
        return;
    zeb_rpcserver *gone = *server;
    *server = nullptr;
    ezeb_rpcserver_shutdown(gone);
    server_unref(gone);
}

/* ---- One request ---- */

static zeb_rpcserver_function find_function(const zeb_rpcserver *server, const char *name)
{
    const int32_t count = ezeb_flag_acquire(&server->count);
    for (int32_t i = 0; i < count; i++) {
        if (strcmp(server->functions[i].name, name) == 0)
            return server->functions[i].function;
    }
    return nullptr;
}

/* Calls FUNCTION, and answers for it when it did not: every request gets exactly one final response. */
static void call_function(zeb_rpcserver_function function, zeb_rpcrequest *request, const zeb_notification *n)
{
    int32_t length = 0;
    const void *data = ezeb_notification_body(n, &length);
    const uint32_t generation = ezeb_fork_generation();
    function(request, data, length);
    if (request->answered == 0 && generation == ezeb_fork_generation())
        ezeb_rpcrequest_sendresult(request, nullptr, 0);
}

static int32_t serve(zeb_notification *n, void *context)
{
    const auto *server = static_cast<const zeb_rpcserver *>(context);
    zeb_rpcrequest request = {ezeb_notification_generatingAddress(n),
                              ezeb_notification_getProperty(n, PROP_FUNCTION),
                              ezeb_notification_getProperty(n, PROP_CALLID), nullptr, 0};
    if (request.name == nullptr) {
        ezeb_diag("RPCSERVER ERROR[rcv]: function name not found\n");
        return 0;
    }
    if (request.callid == nullptr) {
        ezeb_diag("RPCSERVER ERROR[rcv]: invokeId not found\n");
        return 0;
    }
    if (request.requester == nullptr) {
        ezeb_diag("RPCSERVER ERROR[rcv]: generatingAddress not found\n");
        return 0;
    }
    zeb_rpcserver_function function = find_function(server, request.name);
    request.publisher = ezeb_subscriber_refpublisher(n->holder);
    if (request.publisher == nullptr)
        return 0; /* the server was shut down just now: nobody could answer any more */
    if (function != nullptr) {
        call_function(function, &request, n);
    } else {
        ezeb_diag("RPCSERVER ERROR[rcv]: function %s not found\n", request.name);
        ezeb_rpcrequest_senderror(&request, CODE_NO_FUNCTION, "RPCSERVER ERROR[rcv]: function not found");
    }
    ezeb_publisher_unref(request.publisher);
    return 0;
}

const char *ezeb_rpcrequest_getrpcname(const zeb_rpcrequest *request)
{
    return request != nullptr ? request->name : nullptr;
}

/* Sends one response; CODE is null except for errors. 0, or -1 when the request is answered already or memory
 * is out. */
static int32_t respond(zeb_rpcrequest *request, const void *data, int32_t length, bool final,
                       const int32_t *code)
{
    if (request == nullptr || request->answered != 0)
        return -1;
    zeb_notification *n = ezeb_notification_create(TYPE_RESPONSE, data, length);
    if (n == nullptr)
        return -1;
    bool complete = ezeb_notification_setProperty(n, PROP_CALLID, request->callid) != -2 &&
                    ezeb_notification_setProperty(n, PROP_FINAL, final ? "true" : "false") != -2;
    if (code != nullptr) {
        char text[EZEB_INT_TEXT];
        ezeb_int2str(text, *code);
        complete = complete && ezeb_notification_setProperty(n, PROP_ERROR, text) != -2;
    }
    ezeb_notification_setDestinationAddr(n, request->requester);
    if (!complete || n->destinationAddrs == nullptr) {
        ezeb_notification_destroy(n);
        return -1;
    }
    if (final)
        request->answered = 1;
    ezeb_publisher_publishown(request->publisher, n);
    return 0;
}

int32_t ezeb_rpcrequest_sendprogress(zeb_rpcrequest *request, const void *data, int32_t length)
{
    return respond(request, data, length, false, nullptr);
}

int32_t ezeb_rpcrequest_sendresult(zeb_rpcrequest *request, const void *data, int32_t length)
{
    return respond(request, data, length, true, nullptr);
}

int32_t ezeb_rpcrequest_senderror(zeb_rpcrequest *request, int32_t code, const char *message)
{
    if (message == nullptr)
        return -1;
    return respond(request, message, static_cast<int32_t>(strlen(message)), true, &code);
}

/* ==== Client ==== */

/* ---- Responses ---- */

/* A response of RESPONDER, copied, with DATA, which it takes; null, DATA released, when memory is out. */
static zeb_rpcresponse *new_response(const zeb_logicaladdr *responder, char *data, int32_t length)
{
    auto *response = ezeb_new<zeb_rpcresponse>();
    if (response != nullptr)
        response->responder = ezeb_logicaladdr_dup(responder);
    if (response == nullptr || response->responder == nullptr) {
        ezeb_free(response);
        ezeb_free(data);
        return nullptr;
    }
    response->data = data;
    response->length = length;
    return response;
}

void ezeb_rpcresponse_destroy(zeb_rpcresponse **response)
{
    if (response == nullptr || *response == nullptr)
        return;
    zeb_rpcresponse *gone = *response;
    *response = nullptr;
    ezeb_logicaladdr_destroy(&gone->responder);
    ezeb_free(gone->data);
    ezeb_free(gone);
}

static void free_response(void *element)
{
    auto *response = static_cast<zeb_rpcresponse *>(element);
    ezeb_rpcresponse_destroy(&response);
}

int32_t ezeb_rpcresponse_isresult(const zeb_rpcresponse *response)
{
    return response != nullptr ? response->final : 0;
}

const void *ezeb_rpcresponse_getdata(const zeb_rpcresponse *response, int32_t *length)
{
    const bool there = response != nullptr && response->failed == 0;
    if (length != nullptr)
        *length = there ? response->length : 0;
    return there ? response->data : nullptr;
}

const char *ezeb_rpcresponse_geterror(const zeb_rpcresponse *response, int32_t *code)
{
    const bool failed = response != nullptr && response->failed != 0;
    if (code != nullptr)
        *code = failed ? response->code : static_cast<int32_t>(CODE_NO_ERROR);
    return failed ? response->data : nullptr;
}

zeb_logicaladdr *ezeb_rpcresponse_getaddr(const zeb_rpcresponse *response)
{
    return response != nullptr ? response->responder : nullptr;
}

/* ---- References ---- */

static void client_unref(zeb_rpcclient *client) EZEB_NO_ANALYSIS
{
    if (!ezeb_unref(&client->references))
        return;
    for (int32_t i = 0; client->entries != nullptr && i < client->count; i++) {
        ezeb_free(client->entries[i].name);
        ezeb_laddrlist_destroy(&client->entries[i].live);
    }
    ezeb_free(client->entries);
    ezeb_free(client->component);
    ezeb_free(client->subscription);
    ezeb_cond_destroy(&client->changed);
    ezeb_mutex_destroy(&client->lock);
    ezeb_free(client);
}

static void release_client(void *owner)
{
    client_unref(static_cast<zeb_rpcclient *>(owner));
}

static void invocation_unref(zeb_rpcinvocation *invocation)
{
    if (!ezeb_unref(&invocation->references))
        return;
    ezeb_laddrlist_destroy(&invocation->pending);
    ezeb_free(invocation->callid);
    ezeb_queue_destroy(invocation->responses, free_response, 1);
    client_unref(invocation->client);
    ezeb_free(invocation);
}

/* In a forked child every client is dead: its lock may be held by a thread that does not exist there. */
static bool is_usable(const zeb_rpcclient *client)
{
    return client != nullptr && client->forkgeneration == ezeb_fork_generation();
}

/* ---- The list of active invocations ---- */

static void list_locked(zeb_rpcclient *client, zeb_rpcinvocation *invocation) EZEB_REQUIRES(client->lock)
{
    invocation->listed = 1;
    invocation->prev = client->last;
    (client->last != nullptr ? client->last->next : client->first) = invocation;
    client->last = invocation;
}

static void unlist_locked(zeb_rpcclient *client, zeb_rpcinvocation *invocation) EZEB_REQUIRES(client->lock)
{
    if (invocation->listed == 0)
        return;
    invocation->listed = 0;
    (invocation->prev != nullptr ? invocation->prev->next : client->first) = invocation->next;
    (invocation->next != nullptr ? invocation->next->prev : client->last) = invocation->prev;
    invocation->next = nullptr;
    invocation->prev = nullptr;
}

static void unlist_if_complete_locked(zeb_rpcclient *client, zeb_rpcinvocation *invocation)
    EZEB_REQUIRES(client->lock)
{
    if (ezeb_laddrlist_count(invocation->pending) == 0)
        unlist_locked(client, invocation);
}

static zeb_rpcinvocation *find_invocation_locked(zeb_rpcclient *client, const char *callid)
    EZEB_REQUIRES(client->lock)
{
    zeb_rpcinvocation *invocation = client->first;
    while (invocation != nullptr && strcmp(invocation->callid, callid) != 0)
        invocation = invocation->next;
    return invocation;
}

/* ---- Delivering responses; the client lock is held, also while the call-back runs ---- */

/* Whom the caller has to wake, without the lock if he can: who gets the last response will want it. */
static ezeb_waiter *deliver(zeb_rpcinvocation *invocation, zeb_rpcresponse *response)
{
    ezeb_waiter *woken = nullptr;
    if (response == nullptr)
        return nullptr;
    if (!is_usable(invocation->client)) { /* a call-back before this one forked */
        ezeb_rpcresponse_destroy(&response);
        return nullptr;
    }
    if (invocation->callback != nullptr) {
        invocation->callback(response, invocation->context);
        return nullptr;
    }
    response->cell = {response, nullptr, true};
    if (!ezeb_queue_append(invocation->responses, &response->cell, &woken))
        ezeb_rpcresponse_destroy(&response);
    return woken;
}

/* A final response that the client makes itself: ADDRESS is not, or no longer, a server of its name. */
static void deliver_not_live(zeb_rpcinvocation *invocation, const zeb_logicaladdr *address)
{
    zeb_rpcresponse *response = new_response(address, nullptr, 0);
    if (response == nullptr)
        return;
    response->final = 1;
    response->failed = 1;
    response->code = CODE_NOT_LIVE;
    ezeb_wake(deliver(invocation, response));
}

/* ---- The table of servers ---- */

/* The entry of NAME, null when the client does not know it. */
static ezeb_rpcentry *find_entry_locked(zeb_rpcclient *client, const char *name) EZEB_REQUIRES(client->lock)
{
    if (name == nullptr || client->entries == nullptr)
        return nullptr;
    for (int32_t i = 0; i < client->count; i++) {
        if (strcmp(client->entries[i].name, name) == 0)
            return &client->entries[i];
    }
    return nullptr;
}

static ezeb_rpcentry *entry_of_locked(zeb_rpcclient *client, const zeb_logicaladdr *address)
    EZEB_REQUIRES(client->lock)
{
    return find_entry_locked(client, ezeb_logicaladdr_getProperty(address, PROP_SERVER));
}

static bool is_live_locked(zeb_rpcclient *client, const zeb_logicaladdr *address) EZEB_REQUIRES(client->lock)
{
    const ezeb_rpcentry *entry = entry_of_locked(client, address);
    return entry != nullptr && ezeb_laddrlist_contains(entry->live, address);
}

static void server_left_locked(zeb_rpcclient *client, const zeb_logicaladdr *address)
    EZEB_REQUIRES(client->lock)
{
    zeb_rpcinvocation *next = nullptr;
    for (zeb_rpcinvocation *i = client->first; i != nullptr; i = next) {
        next = i->next;
        if (!ezeb_laddrlist_del(i->pending, address))
            continue;
        deliver_not_live(i, address);
        unlist_if_complete_locked(client, i);
    }
    const ezeb_rpcentry *entry = entry_of_locked(client, address);
    if (entry != nullptr)
        ezeb_laddrlist_del(entry->live, address);
}

static void members_changed(zeb_rpcclient *client, const zeb_notification *n)
{
    const ezeb_locked hold(&client->lock);
    for (int32_t i = 0; i < ezeb_laddrlist_count(n->membersAdded); i++) {
        const zeb_logicaladdr *address = &n->membersAdded->entries[i];
        const ezeb_rpcentry *entry = entry_of_locked(client, address);
        if (entry != nullptr)
            ezeb_laddrlist_add(entry->live, address);
    }
    for (int32_t i = 0; i < ezeb_laddrlist_count(n->membersRemoved); i++)
        server_left_locked(client, &n->membersRemoved->entries[i]);
    ezeb_cond_broadcast(&client->changed, &client->lock);
}

/* ---- Creation ---- */

static int32_t dispatch_to_client(zeb_notification *n, void *context);

/* Makes SUB the client's subscriber, with the reference, unless the client has ended. */
static bool adopt(zeb_rpcclient *client, zeb_subscriber *sub)
{
    const ezeb_locked hold(&client->lock);
    if (client->active != 0)
        client->subscriber = sub;
    return client->active != 0;
}

/* Takes SUB away from the client again; false when a destroy has done so, which closes it. */
static bool disown(zeb_rpcclient *client, const zeb_subscriber *sub)
{
    const ezeb_locked hold(&client->lock);
    if (client->subscriber != sub)
        return false;
    client->subscriber = nullptr;
    return true;
}

static void say_not_created(const char *why)
{
    ezeb_diag("RPC Client error: unable to create subscriber: %s\n", why != nullptr ? why : "reason unknown");
}

/* Makes SUB, which it takes with its reference, the client's own and has its notifications dispatched. */
static int32_t attach(zeb_rpcclient *client, zeb_subscriber *sub)
{
    ezeb_ref(&client->references);
    ezeb_subscriber_setowner(sub, release_client, client);
    ezeb_ref(&sub->references); /* once it is the client's, a destroy may close it at any time */
    bool attached = adopt(client, sub);
    if (!attached) {
        close_held(sub);
    } else if (ezeb_subscriber_registercallback(sub, dispatch_to_client, client, 0) != 0) {
        attached = false;
        if (disown(client, sub)) {
            say_not_created(nullptr);
            close_held(sub);
        }
    }
    ezeb_subscriber_unref(sub);
    return attached;
}

/* Creates the client's subscriber, which waits for the daemon, and makes it the client's own unless that has
 * ended meanwhile. 0, said on standard error, when there is none. */
static int32_t subscribe(zeb_rpcclient *client)
{
    char *why = nullptr;
    zeb_subscriber *sub = ezeb_subscriber_create_held(nullptr, client->component, client->subscription,
                                                      nullptr, 1, &why, 1, -1);
    if (sub == nullptr)
        say_not_created(why);
    ezeb_free(why);
    return sub != nullptr && attach(client, sub);
}

/* ("/ZEB/RPC/SVR=a"), or (("/ZEB/RPC/SVR=a")|("/ZEB/RPC/SVR=b")) for more names than one. */
static char *build_subscription(const char *const *servers, int32_t count)
{
    ezeb_text text = {};
    if (count > 1)
        ezeb_text_add(&text, "(");
    for (int32_t i = 0; i < count; i++) {
        ezeb_text_add(&text, i > 0 ? "|(\"" : "(\"");
        ezeb_text_add(&text, PROP_SERVER);
        ezeb_text_add(&text, "=");
        ezeb_text_add(&text, servers[i]);
        ezeb_text_add(&text, "\")");
    }
    if (count > 1)
        ezeb_text_add(&text, ")");
    return ezeb_text_finish(&text);
}

static zeb_rpcclient *new_client(const char *const *servers, int32_t count,
                                 const char *component) EZEB_NO_ANALYSIS
{
    auto *client = ezeb_new<zeb_rpcclient>();
    if (client == nullptr)
        return nullptr;
    client->references = 1;
    client->forkgeneration = ezeb_fork_generation();
    client->count = count;
    client->active = 1;
    ezeb_mutex_init(&client->lock);
    ezeb_cond_init(&client->changed);
    client->component = ezeb_strdup(component);
    client->subscription = build_subscription(servers, count);
    client->entries =
        static_cast<ezeb_rpcentry *>(ezeb_zalloc(static_cast<size_t>(count) * sizeof(ezeb_rpcentry)));
    bool complete =
        client->component != nullptr && client->subscription != nullptr && client->entries != nullptr;
    for (int32_t i = 0; complete && i < count; i++) {
        client->entries[i] = {ezeb_strdup(servers[i]), ezeb_laddrlist_create()};
        complete = client->entries[i].name != nullptr && client->entries[i].live != nullptr;
    }
    if (complete)
        return client;
    client_unref(client);
    return nullptr;
}

zeb_rpcclient *ezeb_rpcclient_create(const char *const *servers, int32_t count, const char *component)
{
    if (servers == nullptr || count < 1 || component == nullptr)
        return nullptr;
    for (int32_t i = 0; i < count; i++) {
        if (servers[i] == nullptr)
            return nullptr;
    }
    zeb_rpcclient *client = new_client(servers, count, component);
    if (client != nullptr && !subscribe(client))
        ezeb_rpcclient_destroy(&client);
    return client;
}

void ezeb_rpcclient_destroy(zeb_rpcclient **client)
{
    if (client == nullptr || *client == nullptr)
        return;
    zeb_rpcclient *gone = *client;
    *client = nullptr;
    if (!is_usable(gone))
        return;
    ezeb_mutex_lock(&gone->lock);
    gone->active = 0;
    zeb_subscriber *sub = gone->subscriber;
    gone->subscriber = nullptr;
    ezeb_cond_broadcast(&gone->changed, &gone->lock);
    while (gone->first != nullptr) {
        zeb_rpcinvocation *invocation = gone->first;
        unlist_locked(gone, invocation);
        ezeb_queue_close(invocation->responses, free_response);
        invocation_unref(invocation);
    }
    ezeb_mutex_unlock(&gone->lock);
    close_held(sub);
    client_unref(gone);
}

/* ---- Servers ---- */

static bool has_servers_locked(zeb_rpcclient *client, const char *name) EZEB_REQUIRES(client->lock)
{
    const ezeb_rpcentry *entry = find_entry_locked(client, name);
    return entry != nullptr && ezeb_laddrlist_count(entry->live) > 0;
}

static void await_servers_locked(zeb_rpcclient *client, const char *name, int32_t timeout)
    EZEB_REQUIRES(client->lock)
{
    if (timeout > 0) {
        const timespec deadline = ezeb_deadline(timeout);
        ezeb_cond_waituntil(&client->changed, &client->lock,
                            &deadline); /* once: a change of other members ends it */
        return;
    }
    while (client->active != 0 && !has_servers_locked(client, name))
        ezeb_cond_wait(&client->changed, &client->lock);
}

static zeb_laddrlist *find_servers(zeb_rpcclient *client, const char *name, int32_t wait, int32_t timeout)
{
    const ezeb_locked hold(&client->lock);
    if (client->active == 0 || find_entry_locked(client, name) == nullptr)
        return nullptr;
    if (wait != 0 && !has_servers_locked(client, name))
        await_servers_locked(client, name, timeout);
    if (client->active == 0 || !has_servers_locked(client, name))
        return nullptr;
    return ezeb_laddrlist_dup(find_entry_locked(client, name)->live);
}

zeb_laddrlist *ezeb_rpcclient_getservers_wtimeout(zeb_rpcclient *client, const char *server, int32_t wait,
                                                  int32_t timeout)
{
    if (!is_usable(client))
        return nullptr;
    ezeb_ref(&client->references);
    zeb_laddrlist *found = find_servers(client, server, wait, timeout);
    client_unref(client);
    return found;
}

zeb_laddrlist *ezeb_rpcclient_getservers(zeb_rpcclient *client, const char *server)
{
    return ezeb_rpcclient_getservers_wtimeout(client, server, 1, -1);
}

void ezeb_rpclient_register_callback(void) {}

/* ---- Invoking ---- */

/* FUNCTION, ':' and the client's counter, which rises. */
static char *next_callid_locked(zeb_rpcclient *client, const char *function) EZEB_REQUIRES(client->lock)
{
    char *callid = static_cast<char *>(ezeb_malloc(strlen(function) + 1 + EZEB_INT_TEXT));
    if (callid != nullptr)
        ezeb_int2str(ezeb_addstr(ezeb_addstr(callid, function), ":"), client->counter++);
    return callid;
}

static zeb_rpcinvocation *new_invocation_locked(zeb_rpcclient *client, const char *function,
                                                zeb_rpcclient_callback callback, void *context)
    EZEB_REQUIRES(client->lock)
{
    auto *invocation = ezeb_new<zeb_rpcinvocation>();
    if (invocation == nullptr)
        return nullptr;
    invocation->references = 1;
    invocation->client = client;
    ezeb_ref(&client->references);
    invocation->callback = callback;
    invocation->context = context;
    invocation->callid = next_callid_locked(client, function);
    invocation->pending = ezeb_laddrlist_create();
    invocation->responses = ezeb_queue_create();
    if (invocation->callid != nullptr && invocation->pending != nullptr && invocation->responses != nullptr)
        return invocation;
    invocation_unref(invocation);
    return nullptr;
}

static zeb_notification *new_request(const zeb_rpcinvocation *invocation, const char *function,
                                     const void *data, int32_t length)
{
    zeb_notification *n = ezeb_notification_create(TYPE_REQUEST, data, length);
    if (n == nullptr)
        return nullptr;
    ezeb_notification_setDestinationAddrs(n, invocation->pending);
    if (n->destinationAddrs != nullptr && ezeb_notification_setProperty(n, PROP_FUNCTION, function) != -2 &&
        ezeb_notification_setProperty(n, PROP_CALLID, invocation->callid) != -2 &&
        ezeb_notification_setProperty(n, PROP_ARGUMENT, "BYTE") != -2)
        return n;
    ezeb_notification_destroy(n);
    return nullptr;
}

/* What an invocation needs to be sent. */
struct rpc_call {
    const char *function;
    const zeb_laddrlist *servers;
    const void *data;
    int32_t length;
};

/* Makes those of SERVERS that are live the ones that are to answer. False when memory is out: a server left
 * out would be waited for by nobody and answered for by nobody. */
static bool expect_live_locked(zeb_rpcclient *client, zeb_rpcinvocation *invocation,
                               const zeb_laddrlist *servers) EZEB_REQUIRES(client->lock)
{
    for (int32_t i = 0; i < servers->count; i++) {
        if (!is_live_locked(client, &servers->entries[i]))
            continue;
        const int32_t before = invocation->pending->count;
        ezeb_laddrlist_add(invocation->pending, &servers->entries[i]);
        if (invocation->pending->count == before)
            return false;
    }
    return true;
}

/* The others never will answer, which is said at once. */
static void answer_for_others_locked(zeb_rpcclient *client, zeb_rpcinvocation *invocation,
                                     const zeb_laddrlist *servers) EZEB_REQUIRES(client->lock)
{
    for (int32_t i = 0; i < servers->count; i++) {
        if (!is_live_locked(client, &servers->entries[i]))
            deliver_not_live(invocation, &servers->entries[i]);
    }
}

/* Everything of an invocation that happens under the lock. *REQUEST is to be published through *PUBLISHER
 * afterwards; it is null when nobody is to be asked. */
static zeb_rpcinvocation *begin_invocation(zeb_rpcclient *client, const rpc_call *call,
                                           zeb_rpcclient_callback callback, void *context,
                                           zeb_notification **request, zeb_publisher **publisher)
{
    const ezeb_locked hold(&client->lock);
    if (client->active == 0)
        return nullptr;
    zeb_rpcinvocation *invocation = new_invocation_locked(client, call->function, callback, context);
    if (invocation == nullptr)
        return nullptr;
    bool complete = expect_live_locked(client, invocation, call->servers);
    if (complete && ezeb_laddrlist_count(invocation->pending) > 0) {
        *request = new_request(invocation, call->function, call->data, call->length);
        complete = *request != nullptr;
    }
    if (!complete) {
        invocation_unref(invocation);
        return nullptr;
    }
    answer_for_others_locked(client, invocation, call->servers);
    if (*request == nullptr)
        return invocation;
    list_locked(client, invocation);
    if (client->subscriber != nullptr)
        *publisher = ezeb_subscriber_refpublisher(client->subscriber);
    return invocation;
}

zeb_rpcinvocation *ezeb_rpcclient_invoke_wcallback(zeb_rpcclient *client, const char *function,
                                                   const zeb_laddrlist *servers, const void *data,
                                                   int32_t length, zeb_rpcclient_callback callback,
                                                   void *context)
{
    if (!is_usable(client) || function == nullptr || servers == nullptr)
        return nullptr;
    const rpc_call call = {function, servers, data, length};
    zeb_notification *request = nullptr;
    zeb_publisher *publisher = nullptr;
    zeb_rpcinvocation *invocation = begin_invocation(client, &call, callback, context, &request, &publisher);
    if (request != nullptr)
        ezeb_publisher_publishown(
            publisher, request); /* without a subscriber nobody is asked, and the call stays pending */
    ezeb_publisher_unref(publisher);
    return invocation;
}

zeb_rpcinvocation *ezeb_rpcclient_invoke(zeb_rpcclient *client, const char *function,
                                         const zeb_laddrlist *servers, const void *data, int32_t length)
{
    return ezeb_rpcclient_invoke_wcallback(client, function, servers, data, length, nullptr, nullptr);
}

/* ---- Invocations ---- */

int32_t ezeb_rpcinvocation_isdone(zeb_rpcinvocation *invocation)
{
    if (invocation == nullptr || !is_usable(invocation->client))
        return 0;
    const ezeb_locked hold(&invocation->client->lock);
    return ezeb_laddrlist_count(invocation->pending) == 0 && ezeb_queue_length(invocation->responses) == 0;
}

zeb_rpcresponse *ezeb_rpcinvocation_getresponse(zeb_rpcinvocation *invocation, int32_t wait, int32_t timeout)
{
    if (invocation == nullptr || !is_usable(invocation->client) || ezeb_rpcinvocation_isdone(invocation))
        return nullptr;
    ezeb_ref(&invocation->references);
    auto *response = static_cast<zeb_rpcresponse *>(ezeb_queue_dequeue(invocation->responses, wait, timeout));
    invocation_unref(invocation);
    return response;
}

void ezeb_rpcinvocation_destroy(zeb_rpcinvocation **invocation)
{
    if (invocation == nullptr || *invocation == nullptr)
        return;
    zeb_rpcinvocation *gone = *invocation;
    zeb_rpcclient *client = gone->client;
    *invocation = nullptr;
    if (!is_usable(client))
        return;
    ezeb_mutex_lock(&client->lock);
    unlist_locked(client, gone);
    ezeb_mutex_unlock(&client->lock);
    ezeb_queue_close(gone->responses, free_response);
    invocation_unref(gone);
}

/* ---- What arrives at the client's subscriber ---- */

/* The connection was lost: nobody is known to be live any more, and the membership has to be asked for anew.
 * The lock is not held meanwhile, since that waits until the daemon is back. */
static void group_left(zeb_rpcclient *client)
{
    zeb_subscriber *old;
    {
        const ezeb_locked hold(&client->lock);
        for (int32_t i = 0; client->active != 0 && i < client->count; i++)
            ezeb_laddrlist_clear(client->entries[i].live);
        old = client->subscriber;
        client->subscriber = nullptr;
        if (client->active == 0)
            return;
    }
    close_held(old);
    subscribe(client);
}

/* "0x1f" and "017" are numbers too; an empty text, or one with anything behind the number, is no error code.
 */
static bool read_code(const zeb_notification *n, int32_t *code)
{
    const char *text = ezeb_notification_getProperty(n, PROP_ERROR);
    return text != nullptr && ezeb_str2int(text, code) != 0;
}

static char *copy_body(const zeb_notification *n, int32_t *length)
{
    *length = n->body != nullptr && n->bodyLength > 0 ? n->bodyLength : 0;
    auto *copy = static_cast<char *>(ezeb_malloc(static_cast<size_t>(*length) + 1));
    if (copy == nullptr)
        return nullptr;
    if (*length > 0)
        memcpy(copy, n->body, static_cast<size_t>(*length));
    copy[*length] = '\0';
    return copy;
}

static zeb_rpcresponse *read_response(const zeb_notification *n)
{
    if (n->generatingAddress == nullptr)
        return nullptr;
    int32_t length = 0;
    char *data = copy_body(n, &length);
    zeb_rpcresponse *response = data != nullptr ? new_response(n->generatingAddress, data, length) : nullptr;
    if (response == nullptr)
        return nullptr;
    const char *final = ezeb_notification_getProperty(n, PROP_FINAL);
    response->final = final != nullptr && *final == 't';
    response->failed = read_code(n, &response->code);
    return response;
}

/* False when no active invocation has the call id. Takes RESPONSE. */
static bool deliver_response(zeb_rpcclient *client, const char *callid, zeb_rpcresponse *response,
                             ezeb_waiter **woken)
{
    const ezeb_locked hold(&client->lock);
    zeb_rpcinvocation *invocation = find_invocation_locked(client, callid);
    if (invocation == nullptr) {
        ezeb_rpcresponse_destroy(&response);
        return false;
    }
    if (response != nullptr && response->final != 0)
        ezeb_laddrlist_del(invocation->pending, response->responder);
    *woken = deliver(invocation, response);
    unlist_if_complete_locked(client, invocation);
    return true;
}

static void response_came(zeb_rpcclient *client, const zeb_notification *n)
{
    const char *callid = ezeb_notification_getProperty(n, PROP_CALLID);
    ezeb_waiter *woken = nullptr;
    if (callid == nullptr)
        ezeb_diag("RPC response missing property: %s\n", PROP_CALLID);
    else if (!deliver_response(client, callid, read_response(n), &woken))
        ezeb_diag("RPC response invocation not found: %s\n", callid);
    ezeb_wake(woken);
}

static int32_t dispatch_to_client(zeb_notification *n, void *context)
{
    auto *client = static_cast<zeb_rpcclient *>(context);
    if (n->cls == ZEB_CLASS_MEMBERSHIPDELTA)
        members_changed(client, n);
    else if (n->cls == ZEB_CLASS_LEAVEGROUP)
        group_left(client);
    else
        response_came(client, n);
    return 0;
}
