/* D-Bus by sd-bus: an event is a signal whose object path is the type, with a dictionary of properties and an
 * array of bytes; a call is a method call. */
#include "common.h"

#include <systemd/sd-bus.h>

namespace bench
{

static constexpr const char *interface = "org.bench.Measure";
static constexpr const char *service = "org.bench.Callee";

static sd_bus *bus = nullptr;
static bool receiving = true;
static bool (*receiver)(const event &e) = nullptr;
static response_queue responses;

static int check(int result)
{
    if (result < 0)
        fail(std::string("sd-bus: ") + strerror(-result));
    return result;
}

/* Carries out one thing, or waits for one. */
static void turn()
{
    if (check(sd_bus_process(bus, nullptr)) == 0)
        check(sd_bus_wait(bus, UINT64_MAX));
}

void peer_open(const peer_options &options)
{
    check(sd_bus_new(&bus));
    check(sd_bus_set_address(bus, options.address.c_str()));
    check(sd_bus_set_bus_client(bus, 1));
    check(sd_bus_start(bus));
    check(sd_bus_call_method(bus, "org.freedesktop.DBus", "/", "org.freedesktop.DBus.Peer", "Ping", nullptr,
                             nullptr, ""));
}

void peer_close()
{
    sd_bus_flush_close_unref(bus);
}

/* The library keeps what the socket does not take, up to a limit. */
static void send(sd_bus_message *message)
{
    int result;
    while ((result = sd_bus_send(bus, message, nullptr)) == -ENOBUFS)
        check(sd_bus_flush(bus));
    check(result);
    sd_bus_message_unref(message);
}

void peer_publish(std::string_view body)
{
    sd_bus_message *message = nullptr;
    check(sd_bus_message_new_signal(bus, &message, eventType.data(), interface, "Event"));
    check(sd_bus_message_open_container(message, 'a', "{ss}"));
    for (size_t i = 0; i < propertyCount; i++)
        check(sd_bus_message_append(message, "{ss}", propertyNames[i].data(), propertyValues[i].data()));
    check(sd_bus_message_close_container(message));
    check(sd_bus_message_append_array(message, 'y', body.data(), body.size()));
    send(message);
}

void peer_flush()
{
    check(sd_bus_flush(bus));
}

static std::string_view read_bytes(sd_bus_message *message)
{
    const void *data = nullptr;
    size_t length = 0;
    check(sd_bus_message_read_array(message, 'y', &data, &length));
    return {static_cast<const char *>(data), length};
}

static void read_property(sd_bus_message *message, event &e)
{
    const char *name = nullptr, *value = nullptr;
    check(sd_bus_message_read(message, "ss", &name, &value));
    for (size_t i = 0; i < propertyCount; i++)
        if (propertyNames[i] == name)
            e.values[i] = value;
    check(sd_bus_message_exit_container(message));
}

static int on_event(sd_bus_message *message, void *, sd_bus_error *)
{
    event e{sd_bus_message_get_path(message), {}, {}};
    check(sd_bus_message_enter_container(message, 'a', "{ss}"));
    while (check(sd_bus_message_enter_container(message, 'e', "ss")) > 0)
        read_property(message, e);
    check(sd_bus_message_exit_container(message));
    e.body = read_bytes(message);
    receiving = receiving && receiver(e);
    return 1;
}

void peer_subscribe(const std::vector<std::string> &types)
{
    for (const std::string &type : types) {
        const std::string rule =
            "type='signal',interface='" + std::string(interface) + "',path='" + type + "'";
        check(sd_bus_add_match(bus, nullptr, rule.c_str(), on_event, nullptr));
    }
}

void peer_receive(bool (*take)(const event &e))
{
    receiver = take;
    while (receiving)
        turn();
}

static int on_call(sd_bus_message *call, void *, sd_bus_error *)
{
    const std::string_view body = read_bytes(call);
    sd_bus_message *answer = nullptr;
    check(sd_bus_message_new_method_return(call, &answer));
    check(sd_bus_message_append_array(answer, 'y', body.data(), body.size()));
    send(answer);
    return 1;
}

void peer_serve(void (*ready)())
{
    check(sd_bus_add_object(bus, nullptr, callName.data(), on_call, nullptr));
    check(sd_bus_request_name(bus, service, 0));
    ready();
    for (;;)
        turn();
}

void peer_prepare_calls() {}

static int on_response(sd_bus_message *answer, void *, sd_bus_error *)
{
    require(sd_bus_message_is_method_error(answer, nullptr) == 0, "the call");
    responses.add(read_bytes(answer));
    return 1;
}

void peer_call(std::string_view body)
{
    sd_bus_message *call = nullptr;
    check(sd_bus_message_new_method_call(bus, &call, service, callName.data(), interface, "Echo"));
    check(sd_bus_message_append_array(call, 'y', body.data(), body.size()));
    check(sd_bus_call_async(bus, nullptr, call, on_response, nullptr, UINT64_MAX));
    sd_bus_message_unref(call);
}

std::string_view peer_response()
{
    return responses.next(turn);
}

} // namespace bench
