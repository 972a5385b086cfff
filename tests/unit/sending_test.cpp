/* What the send thread does with a connection that was renewed behind its back: the daemon is a script, and
 * the state that no caller can see tells when the new connection stands. */
#include "ezeblogicaladdr.h"
#include "ezebrecvthread.h"
#include "ezebruntime.h"

#include "holdup.h"
#include "unit.h"

#include "background.h"
#include "environment.h"
#include "fake_daemon.h"

#include <atomic>
#include <gtest/gtest.h>
#include <linux/sockios.h>
#include <poll.h>
#include <string>
#include <sys/ioctl.h>

namespace
{

using namespace zebtest;

bool isConnected()
{
    const ezeb_runtime_ref runtime;
    return ezeb_recvthread_isConnected(runtime.get()) != 0;
}

int count_of(const std::string &text, const std::string &part)
{
    int count = 0;
    for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1))
        count++;
    return count;
}

/* The send thread holds the first connection, which is lost, when the last publish comes. */
void publishOnARenewedConnectionAndShutDown(const temporary_home &home, fake_daemon &daemon)
{
    ASSERT_EQ(zeb_init(), 0);
    peer first = daemon.accept_connected(home.path());
    zeb_publisher *publisher = zeb_publisher_create("c");
    ASSERT_NE(publisher, nullptr);
    zeb_publisher_publish(publisher, zeb_notification_create("/before", nullptr, 0));
    EXPECT_NE(first.read_head().find("eventType: /before\r\n"), std::string::npos);
    first.close();
    peer second = daemon.accept_connected(home.path());
    ASSERT_TRUE(eventually(isConnected));
    zeb_publisher_publish(publisher, zeb_notification_create("/last", nullptr, 0));
    background ending([] { return zeb_shutdown(); });
    EXPECT_NE(second.read_head().find("eventType: /last\r\n"), std::string::npos);
    second.expect_close();
    EXPECT_EQ(ending.get(), 0);
}

/* In one round of ten the shutdown comes between taking the notification out of the queue and putting it
 * back. */
TEST(Sending, WhatIsPublishedRightBeforeAShutdownGoesOutOnTheRenewedConnection)
{
    const temporary_home home;
    fake_daemon daemon;
    clean_environment();
    configure(home.path(), daemon.port());
    for (int round = 0; round < 150 && !HasFailure(); round++)
        publishOnARenewedConnectionAndShutDown(home, daemon);
}

bool nothingIsQueued()
{
    const ezeb_runtime_ref runtime;
    return ezeb_queue_length(runtime.get()->send.queue) == 0;
}

/* A subscriber is created at the moment of a loss. Its request may be queued, on its way, or in the hand of
 * the send thread, which then holds a lost connection; with INHAND it is not queued any more. */
void subscribeAtALoss(const temporary_home &home, fake_daemon &daemon, bool inHand)
{
    ASSERT_EQ(zeb_init(), 0);
    peer first = daemon.accept_connected(home.path());
    background creation([] { return zeb_subscriber_create_async("/at-the-loss", "c", nullptr, nullptr); });
    if (inHand) {
        EXPECT_TRUE(creation.done_within(patience));
        EXPECT_TRUE(eventually(nothingIsQueued));
    }
    first.close();
    peer second = daemon.accept_connected(home.path());
    zeb_publisher *publisher = zeb_publisher_create("c");
    ASSERT_NE(creation.get(), nullptr);
    zeb_publisher_publish(publisher, zeb_notification_create("/mark", nullptr, 0));
    std::string sent;
    while (sent.find("eventType: /mark\r\n") == std::string::npos)
        sent += second.read_head();
    EXPECT_EQ(count_of(sent, "Subscription: /at-the-loss\r\n"), 1) << sent;
    EXPECT_EQ(zeb_shutdown_nowait(), 0);
}

TEST(Sending, ARequestInHandAtALossIsSentOnce)
{
    const temporary_home home;
    fake_daemon daemon;
    clean_environment();
    configure(home.path(), daemon.port());
    for (int round = 0; round < 400 && !HasFailure(); round++)
        subscribeAtALoss(home, daemon, false);
}

/* The send thread takes longer over an item than the receive thread does over a new connection. */
TEST(Sending, ALossWaitsForTheRequestInHand)
{
    const temporary_home home;
    fake_daemon daemon;
    clean_environment();
    configure(home.path(), daemon.port());
    unit::hold_up("zeb-send", std::chrono::microseconds{200});
    for (int round = 0; round < 5 && !HasFailure(); round++)
        subscribeAtALoss(home, daemon, true);
}

/* What the kernel keeps back when the send thread is refused memory for the second time. */
struct {
    int connection = -1;
    std::atomic<int64_t> requests{INT64_MAX - 2}; /* made when the refusals began */
    std::atomic<int> keptBack{-1};
} refused;

void look_at_what_is_kept_back()
{
    unit::hold_up_this_thread();
    if (refused.keptBack != -1 ||
        __atomic_load_n(&ezeb_allocseam_requests, __ATOMIC_SEQ_CST) < refused.requests + 2)
        return;
    int octets = -1;
    ioctl(refused.connection, SIOCOUTQNSD, &octets);
    refused.keptBack = octets;
}

zeb_notification *directedNotification(const char *type)
{
    zeb_logicaladdr to{};
    to.key = const_cast<char *>("1.2.3.4");
    to.address = const_cast<char *>("a");
    to.addressLength = 1;
    zeb_notification *n = zeb_notification_create(type, nullptr, 0);
    zeb_notification_setDestinationAddr(n, &to);
    return n;
}

/* The first goes out with the word that more follows; then there is no memory to write the second one. */
TEST(Sending, WhatWentOutDoesNotWaitForAnItemThatHasToBeTriedAgain)
{
    const temporary_home home;
    fake_daemon daemon;
    clean_environment();
    configure(home.path(), daemon.port());
    unit::hold_up("zeb-send", std::chrono::microseconds{5000});
    ezeb_yieldseam = look_at_what_is_kept_back;
    ASSERT_EQ(zeb_init(), 0);
    peer p = daemon.accept_connected(home.path());
    refused.connection = p.other_end();
    zeb_publisher *publisher = zeb_publisher_create("c");
    zeb_publisher_publish(publisher, zeb_notification_create("/buffer", nullptr, 0));
    EXPECT_NE(p.read_head().find("eventType: /buffer\r\n"), std::string::npos);
    zeb_notification *first = zeb_notification_create("/first", nullptr, 0);
    zeb_notification *second = directedNotification("/second");
    zeb_publisher_publish(publisher, first);
    zeb_publisher_publish(publisher, second);
    unit::refusal all(1, true);
    refused.requests = __atomic_load_n(&ezeb_allocseam_requests, __ATOMIC_SEQ_CST);
    all.begin();
    EXPECT_TRUE(eventually([] { return refused.keptBack != -1; }));
    all.end();
    EXPECT_EQ(refused.keptBack, 0);
    EXPECT_NE(p.read_head().find("eventType: /first\r\n"), std::string::npos);
    EXPECT_NE(p.read_head().find("eventType: /second\r\n"), std::string::npos);
    EXPECT_EQ(zeb_shutdown_nowait(), 0);
}

bool takesNothingMore(int descriptor)
{
    pollfd watched{descriptor, POLLOUT, 0};
    return poll(&watched, 1, 0) == 0;
}

/* Between the cut, which frees the send thread from a write, and its end there is time for the receive
 * thread to notice. It would connect again, and pause for seconds if that failed. */
TEST(Sending, AConnectionThatAShutdownCutsIsNotReplaced)
{
    const temporary_home home;
    fake_daemon daemon;
    clean_environment();
    configure(home.path(), daemon.port());
    unit::hold_up("zeb-send", std::chrono::microseconds{20000});
    ASSERT_EQ(zeb_init(), 0);
    peer p = daemon.accept_connected(home.path());
    const int connection = p.other_end();
    zeb_publisher *publisher = zeb_publisher_create("c");
    const std::string body(10000000, 'x'); /* more than the kernel takes */
    zeb_publisher_publish(publisher,
                          zeb_notification_create("/large", body.data(), static_cast<int32_t>(body.size())));
    EXPECT_TRUE(eventually([&] { return takesNothingMore(connection); }));
    EXPECT_EQ(zeb_shutdown_nowait(), 0);
    EXPECT_EQ(daemon.take_waiting(), -1);
}

} // namespace
