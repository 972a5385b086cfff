/* NATS by its C library: properties are message headers. Subjects are the types with dots; a letter takes the
 * place of the leading slash, so that the length stays. */
#include "common.h"

#include <algorithm>
#include <nats/nats.h>

namespace bench
{

static natsConnection *connection = nullptr;
static natsSubscription *subscription = nullptr; /* of the first type */
static natsInbox *inbox = nullptr;
static natsMsg *response = nullptr;
static constexpr int64_t withoutLimit = int64_t{1} << 40; /* milliseconds */

static void check(natsStatus status)
{
    if (status != NATS_OK)
        fail(std::string("nats: ") + natsStatus_GetText(status));
}

static std::string subject_of(std::string_view type)
{
    std::string subject(type);
    std::replace(subject.begin(), subject.end(), '/', '.');
    subject[0] = 'e';
    return subject;
}

static const std::string eventSubject = subject_of(eventType);
static const std::string callSubject = subject_of(callName);

void peer_open(const peer_options &options)
{
    natsOptions *wanted = nullptr;
    check(natsOptions_Create(&wanted));
    check(natsOptions_SetURL(wanted, ("nats://127.0.0.1:" + options.address).c_str()));
    check(natsOptions_SetSendAsap(wanted, options.atOnce));
    check(natsConnection_Connect(&connection, wanted));
    natsOptions_Destroy(wanted);
}

void peer_close()
{
    natsConnection_Destroy(connection);
}

void peer_publish(std::string_view body)
{
    natsMsg *message = nullptr;
    check(
        natsMsg_Create(&message, eventSubject.c_str(), nullptr, body.data(), static_cast<int>(body.size())));
    for (size_t i = 0; i < propertyCount; i++)
        check(natsMsgHeader_Set(message, propertyNames[i].data(), propertyValues[i].data()));
    check(natsConnection_PublishMsg(connection, message));
    natsMsg_Destroy(message);
}

void peer_flush()
{
    check(natsConnection_Flush(connection));
}

static natsSubscription *subscribe(const std::string &subject)
{
    natsSubscription *made = nullptr;
    check(natsConnection_SubscribeSync(&made, connection, subject.c_str()));
    check(natsSubscription_SetPendingLimits(made, -1, -1));
    return made;
}

void peer_subscribe(const std::vector<std::string> &types)
{
    for (const std::string &type : types) {
        natsSubscription *made = subscribe(subject_of(type));
        if (subscription == nullptr)
            subscription = made;
    }
    check(natsConnection_Flush(connection));
}

static std::string_view data_of(const natsMsg *message)
{
    return {natsMsg_GetData(message), static_cast<size_t>(natsMsg_GetDataLength(message))};
}

void peer_receive(bool (*take)(const event &e))
{
    bool more = true;
    while (more) {
        natsMsg *message = nullptr;
        check(natsSubscription_NextMsg(&message, subscription, withoutLimit));
        require(eventSubject == natsMsg_GetSubject(message), "the subject");
        event e{eventType, {}, data_of(message)};
        for (size_t i = 0; i < propertyCount; i++) {
            const char *value = nullptr;
            check(natsMsgHeader_Get(message, propertyNames[i].data(), &value));
            e.values[i] = value;
        }
        more = take(e);
        natsMsg_Destroy(message);
    }
}

void peer_serve(void (*ready)())
{
    natsSubscription *requests = subscribe(callSubject);
    check(natsConnection_Flush(connection));
    ready();
    for (;;) {
        natsMsg *request = nullptr;
        check(natsSubscription_NextMsg(&request, requests, withoutLimit));
        check(natsConnection_Publish(connection, natsMsg_GetReply(request), natsMsg_GetData(request),
                                     natsMsg_GetDataLength(request)));
        natsMsg_Destroy(request);
    }
}

void peer_prepare_calls()
{
    check(natsInbox_Create(&inbox));
    subscription = subscribe(inbox);
    check(natsConnection_Flush(connection));
}

void peer_call(std::string_view body)
{
    check(natsConnection_PublishRequest(connection, callSubject.c_str(), inbox, body.data(),
                                        static_cast<int>(body.size())));
}

std::string_view peer_response()
{
    natsMsg_Destroy(response);
    check(natsSubscription_NextMsg(&response, subscription, withoutLimit));
    return data_of(response);
}

} // namespace bench
