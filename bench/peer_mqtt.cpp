/* MQTT 3.1.1 at QoS 0 by libmosquitto, without a thread of its own: then a publish writes at once, which is
 * its fastest way. The protocol has no properties, so they stand in the payload. */
#include "common.h"

#include <mosquitto.h>

namespace bench
{

static mosquitto *connection = nullptr;
static bool subscribed = false;
static bool receiving = true;
static bool (*receiver)(const event &e) = nullptr;
static response_queue responses;
static std::string payload;
static const std::string responseTopic = std::string(callName) + "/response";

static void check(int status)
{
    if (status != MOSQ_ERR_SUCCESS)
        fail(std::string("mosquitto: ") + mosquitto_strerror(status));
}

static void turn()
{
    check(mosquitto_loop(connection, -1, 1));
}

/* A socket that takes no more leaves the rest to the loop. */
static void write_out()
{
    while (mosquitto_want_write(connection))
        turn();
}

static void send_to(const std::string &topic, std::string_view what)
{
    check(mosquitto_publish(connection, nullptr, topic.c_str(), static_cast<int>(what.size()), what.data(), 0,
                            false));
}

static void on_message(mosquitto *, void *, const mosquitto_message *message)
{
    const std::string_view topic = message->topic;
    const std::string_view content = {static_cast<const char *>(message->payload),
                                      static_cast<size_t>(message->payloadlen)};
    if (topic == eventType)
        receiving = receiving && receiver(text_decode(topic, content));
    else if (topic == callName)
        send_to(responseTopic, content);
    else
        responses.add(content);
}

void peer_open(const peer_options &options)
{
    mosquitto_lib_init();
    connection = mosquitto_new(nullptr, true, nullptr);
    require(connection != nullptr, "mosquitto_new");
    check(mosquitto_int_option(connection, MOSQ_OPT_TCP_NODELAY, 1));
    static bool connected = false;
    mosquitto_connect_callback_set(connection, [](mosquitto *, void *, int) { connected = true; });
    mosquitto_subscribe_callback_set(connection,
                                     [](mosquitto *, void *, int, int, const int *) { subscribed = true; });
    mosquitto_message_callback_set(connection, on_message);
    check(mosquitto_connect(connection, "127.0.0.1", port_of(options.address), 600));
    while (!connected)
        turn();
}

void peer_close()
{
    mosquitto_disconnect(connection);
    mosquitto_destroy(connection);
}

void peer_publish(std::string_view body)
{
    static const std::string topic(eventType);
    text_encode(payload, body);
    send_to(topic, payload);
    write_out();
}

void peer_flush()
{
    write_out();
}

static void subscribe(const std::string &topic)
{
    subscribed = false;
    check(mosquitto_subscribe(connection, nullptr, topic.c_str(), 0));
    while (!subscribed)
        turn();
}

void peer_subscribe(const std::vector<std::string> &types)
{
    for (const std::string &type : types)
        subscribe(type);
}

void peer_receive(bool (*take)(const event &e))
{
    receiver = take;
    while (receiving)
        turn();
}

void peer_serve(void (*ready)())
{
    subscribe(std::string(callName));
    ready();
    for (;;)
        turn();
}

void peer_prepare_calls()
{
    subscribe(responseTopic);
}

void peer_call(std::string_view body)
{
    static const std::string topic(callName);
    send_to(topic, body);
    write_out();
}

std::string_view peer_response()
{
    return responses.next(turn);
}

} // namespace bench
