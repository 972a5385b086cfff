/* zeb itself. */
#include "common.h"

#include <deque>
#include <zeb.h>

namespace bench
{

static zeb_publisher *publisher = nullptr;
static std::vector<zeb_subscriber *> subscribers;
static zeb_rpcclient *client = nullptr;
static zeb_laddrlist *servers = nullptr;
static std::deque<zeb_rpcinvocation *> calls;
static zeb_rpcresponse *response = nullptr;

void peer_open(const peer_options &options)
{
    require(zeb_init_with_port(port_of(options.address)) == 0, "zeb_init");
    publisher = zeb_publisher_create("bench");
    require(publisher != nullptr, "zeb_publisher_create");
}

void peer_close()
{
    for (zeb_subscriber *s : subscribers)
        zeb_subscriber_close(s);
    zeb_publisher_close(publisher);
    zeb_shutdown();
}

void peer_publish(std::string_view body)
{
    zeb_notification *n =
        zeb_notification_create(eventType.data(), body.data(), static_cast<int32_t>(body.size()));
    for (size_t i = 0; i < propertyCount; i++)
        zeb_notification_setProperty(n, propertyNames[i].data(), propertyValues[i].data());
    zeb_publisher_publish(publisher, n);
}

/* The end of the runtime is what waits for the queue. */
void peer_flush()
{
    zeb_publisher_close(publisher);
    publisher = nullptr;
    zeb_shutdown();
}

void peer_subscribe(const std::vector<std::string> &types)
{
    for (const std::string &type : types) {
        zeb_subscriber *s = zeb_subscriber_create(type.c_str(), "bench", nullptr, nullptr, nullptr);
        require(s != nullptr, "zeb_subscriber_create");
        subscribers.push_back(s);
    }
}

static std::string_view property(const zeb_notification *n, size_t index)
{
    const char *value = zeb_notification_getProperty(n, propertyNames[index].data());
    return value != nullptr ? value : "";
}

void peer_receive(bool (*take)(const event &e))
{
    bool more = true;
    while (more) {
        zeb_notification *n = zeb_subscriber_receive(subscribers.front(), 1, 0);
        require(n != nullptr, "zeb_subscriber_receive");
        event e{zeb_notification_type(n), {}, {}};
        for (size_t i = 0; i < propertyCount; i++)
            e.values[i] = property(n, i);
        int32_t length = 0;
        const char *body = static_cast<const char *>(zeb_notification_body(n, &length));
        e.body = {body, static_cast<size_t>(length)};
        more = take(e);
        zeb_subscriber_relinquish(subscribers.front(), n);
    }
}

static int32_t echo(zeb_rpcrequest *request, const void *data, int32_t length)
{
    return zeb_rpcrequest_sendresult(request, data, length);
}

void peer_serve(void (*ready)())
{
    zeb_rpcserver *server = zeb_rpcserver_create(callName.data(), "bench");
    require(zeb_rpcserver_addfunc(server, "echo", echo) == 0, "zeb_rpcserver_addfunc");
    require(zeb_rpcserver_launch(server) == 0, "zeb_rpcserver_launch");
    ready();
    for (;;)
        pause();
}

void peer_prepare_calls()
{
    const char *name = callName.data();
    client = zeb_rpcclient_create(&name, 1, "bench");
    require(client != nullptr, "zeb_rpcclient_create");
    servers = zeb_rpcclient_getservers(client, name);
    require(servers != nullptr, "zeb_rpcclient_getservers");
}

void peer_call(std::string_view body)
{
    zeb_rpcinvocation *call =
        zeb_rpcclient_invoke(client, "echo", servers, body.data(), static_cast<int32_t>(body.size()));
    require(call != nullptr, "zeb_rpcclient_invoke");
    calls.push_back(call);
}

std::string_view peer_response()
{
    zeb_rpcresponse_destroy(&response);
    response = zeb_rpcinvocation_getresponse(calls.front(), 1, 0);
    zeb_rpcinvocation_destroy(&calls.front());
    calls.pop_front();
    int32_t length = 0;
    const char *data = static_cast<const char *>(zeb_rpcresponse_getdata(response, &length));
    require(data != nullptr, "the call");
    return {data, static_cast<size_t>(length)};
}

} // namespace bench
