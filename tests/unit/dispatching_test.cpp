/* What a dispatcher does with a notification that it has taken, and may not call back with any more. */
#include "ezebruntime.h"
#include "ezebsubscriber.h"

#include "holdup.h"

#include "environment.h"
#include "obliging_daemon.h"

#include <gtest/gtest.h>

namespace
{

using namespace zebtest;

std::string event(const std::string &type, uint32_t id)
{
    return lines({"POST /event HTTP/1.1", "className: MessageNotification",
                  "SubscriberID: " + std::to_string(id), "eventType: " + type, "eventId: e",
                  "creationTime: 1", "deliveryTime: 2",
                  "affectedComponents: ", "affectedNodes: ", "generatingComponent: c", "generatingProcess: p",
                  "generatingNode: n", "instanceName: i", "LocalOnly: false", "numberOfProperties: 0",
                  "Content-Length: 0", "AddrList-Length: 0", ""});
}

std::string receiveType(zeb_subscriber *sub)
{
    zeb_notification *n = zeb_subscriber_receive(sub, 0, 0);
    if (n == nullptr)
        return "<null>";
    const std::string type = zeb_notification_type(n);
    zeb_subscriber_relinquish(sub, n);
    return type;
}

int32_t neverCalled(zeb_notification *, void *)
{
    ADD_FAILURE() << "the call-back was cancelled";
    return 0;
}

/* The dispatcher has taken the first of two when its call-back is cancelled. */
TEST(Dispatching, WhatACancelledOneHasInHandIsReceivedFirst)
{
    const temporary_home home;
    obliging_daemon daemon;
    clean_environment();
    configure(home.path(), daemon.port());
    unit::hold_up("zeb-dispatch", std::chrono::milliseconds{3});
    ASSERT_EQ(zeb_init(), 0);
    zeb_subscriber *sub = zeb_subscriber_create("/t", "c", nullptr, nullptr, nullptr);
    ASSERT_NE(sub, nullptr);
    daemon.send(event("/first", zeb_subscriber_id(sub)) + event("/second", zeb_subscriber_id(sub)));
    ASSERT_TRUE(eventually([&] { return ezeb_queue_length(sub->queue) == 2; }));
    ASSERT_EQ(zeb_subscriber_registercallback(sub, neverCalled, nullptr, 0), 0);
    ASSERT_TRUE(eventually([&] { return ezeb_queue_length(sub->queue) == 1; }));
    EXPECT_EQ(zeb_subscriber_cancelcallback(sub), 0);
    ASSERT_TRUE(eventually([&] { return ezeb_queue_length(sub->queue) == 2; }));
    EXPECT_EQ(receiveType(sub), "/first");
    EXPECT_EQ(receiveType(sub), "/second");
    zeb_subscriber_close(sub);
    EXPECT_EQ(zeb_shutdown(), 0);
}

} // namespace
