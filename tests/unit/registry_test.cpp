/* The tables of subscribers and publishers: in a runtime without threads, and in a real one whose daemon is
 * away and whose receive thread rests in its pause between two attempts, so that it asks for no memory. */
#include "ezebnotification.h"
#include "ezebpublisher.h"
#include "ezebruntime.h"
#include "ezebstream.h"
#include "ezebsubscriber.h"

#include "bare_subscriber.h"
#include "unit.h"

#include <netinet/in.h>
#include <thread>
#include <vector>

namespace
{

/* The pause of the receive thread: from its beginning until the test ends it. */
class pause_of_receive_thread
{
  public:
    void stay()
    {
        const ezeb_locked hold(&lock);
        resting = true;
        ezeb_cond_broadcast(&changed, &lock);
        while (!over)
            ezeb_cond_wait(&changed, &lock);
    }
    void awaitBegin()
    {
        const ezeb_locked hold(&lock);
        while (!resting)
            ezeb_cond_wait(&changed, &lock);
    }
    void end()
    {
        const ezeb_locked hold(&lock);
        over = true;
        ezeb_cond_broadcast(&changed, &lock);
    }

  private:
    ezeb_mutex lock = EZEB_MUTEX_INITIALIZER;
    ezeb_cond changed = EZEB_COND_INITIALIZER;
    bool resting = false;
    bool over = false;
};

pause_of_receive_thread receivePause;

} // namespace

/* Takes the place of the C library's. */
extern "C" unsigned int sleep(unsigned int)
{
    receivePause.stay();
    return 0;
}

namespace
{

using identifiers = std::vector<int32_t>;

/* ---- A runtime without threads ---- */

identifiers queuedIds;

void collect(ezeb_runtime *, int32_t id)
{
    queuedIds.push_back(id);
}

struct Registry : testing::Test {
    std::unique_ptr<ezeb_runtime> rt = std::make_unique<ezeb_runtime>();

    Registry()
    {
        ezeb_mutex_init(&rt->regmutex);
        EXPECT_TRUE(ezeb_sendthread_prepare(&rt->send));
        EXPECT_TRUE(ezeb_registry_prepare(rt.get()));
    }
    ~Registry() override
    {
        ezeb_registry_closeall(rt.get());
        ezeb_registry_discard(rt.get());
        ezeb_sendthread_discard(&rt->send);
        ezeb_mutex_destroy(&rt->regmutex);
    }

    zeb_subscriber *add(const char *interest = nullptr)
    {
        zeb_subscriber *sub = unit::bareSubscriber(ezeb_register_subscriber(rt.get()), interest);
        EXPECT_EQ(ezeb_activate_subscriber(rt.get(), sub), 1);
        return sub;
    }

    /* Identifiers of the subscribe requests in the send queue. */
    identifiers queued()
    {
        queuedIds.clear();
        ezeb_sendthread_each_queued_subscriber(rt.get(), collect);
        return queuedIds;
    }

    void forgetQueued()
    {
        ezeb_sendthread_discard(&rt->send);
        ASSERT_TRUE(ezeb_sendthread_prepare(&rt->send));
    }

    int32_t queueLength() const
    {
        return ezeb_queue_length(rt->send.queue);
    }

    bool isLocked() const
    {
        bool locked = false;
        std::thread([&] {
            if (ezeb_mutex_trylock(&rt->regmutex))
                ezeb_mutex_unlock(&rt->regmutex);
            else
                locked = true;
        }).join();
        return locked;
    }

    static zeb_notification *event()
    {
        return zeb_notification_create("t", "body", 4);
    }
};

TEST_F(Registry, IdentifiersCountFromOneAndPublishersFromZero)
{
    EXPECT_EQ(ezeb_register_subscriber(rt.get()), 1);
    EXPECT_EQ(ezeb_register_subscriber(rt.get()), 2);
    zeb_publisher first = {};
    zeb_publisher second = {};
    EXPECT_EQ(ezeb_register_publisher(rt.get(), &first), 0);
    EXPECT_EQ(ezeb_register_publisher(rt.get(), &second), 1);
    EXPECT_EQ(ezeb_deregister_publisher(rt.get(), &first, 0), 1);
    EXPECT_EQ(ezeb_deregister_publisher(rt.get(), &second, 1), 1);
}

TEST_F(Registry, TablesGrowInStepsOfTen)
{
    std::vector<zeb_publisher> publishers(2005);
    for (int32_t i = 0; i < 2005; i++) {
        ASSERT_EQ(ezeb_register_subscriber(rt.get()), i + 1);
        ASSERT_EQ(ezeb_register_publisher(rt.get(), &publishers[static_cast<size_t>(i)]), i);
        ASSERT_EQ(rt->subscribers.capacity, i / 10 * 10 + 10);
        ASSERT_EQ(rt->publishers.capacity, i / 10 * 10 + 10);
    }
    for (int32_t i = 0; i < 2005; i++)
        ASSERT_EQ(ezeb_deregister_publisher(rt.get(), &publishers[static_cast<size_t>(i)], i), 1);
}

TEST_F(Registry, GrowingKeepsWhatIsInTheSlots)
{
    zeb_subscriber *first = add();
    for (int i = 0; i < 30; i++)
        ezeb_register_subscriber(rt.get());
    ezeb_deliver(rt.get(), event(), 1);
    EXPECT_EQ(ezeb_queue_length(first->queue), 1);
}

TEST_F(Registry, APublisherIsTakenOutOnlyOfItsOwnSlot)
{
    zeb_publisher first = {};
    zeb_publisher second = {};
    ezeb_register_publisher(rt.get(), &first);
    ezeb_register_publisher(rt.get(), &second);
    EXPECT_EQ(ezeb_deregister_publisher(rt.get(), &first, 1), 0);
    EXPECT_EQ(ezeb_deregister_publisher(rt.get(), &first, -1), 0);
    EXPECT_EQ(ezeb_deregister_publisher(rt.get(), &first, 2), 0);
    EXPECT_EQ(ezeb_deregister_publisher(rt.get(), &first, 1000000), 0);
    EXPECT_EQ(ezeb_deregister_publisher(rt.get(), &first, 0), 1);
    EXPECT_EQ(ezeb_deregister_publisher(rt.get(), &first, 0), 0);
    EXPECT_EQ(ezeb_deregister_publisher(rt.get(), &second, 1), 1);
}

TEST_F(Registry, ASubscriberTableThatCannotGrowKeepsTheRegistryLocked)
{
    for (int i = 0; i < 10; i++)
        ezeb_register_subscriber(rt.get());
    EXPECT_FALSE(isLocked());
    unit::refusal refuse(1);
    refuse.begin();
    EXPECT_EQ(ezeb_register_subscriber(rt.get()), -1);
    refuse.end();
    EXPECT_TRUE(isLocked());
    ezeb_mutex_unlock(&rt->regmutex); /* so that the test can end; nobody in the library would */
    EXPECT_EQ(rt->subscribers.capacity, 10);
    EXPECT_EQ(ezeb_register_subscriber(rt.get()), 11) << "no identifier was used up";
}

TEST_F(Registry, APublisherTableThatCannotGrowKeepsTheRegistryLocked)
{
    std::vector<zeb_publisher> publishers(11);
    for (size_t i = 0; i < 10; i++)
        ezeb_register_publisher(rt.get(), &publishers[i]);
    unit::refusal refuse(1);
    refuse.begin();
    EXPECT_EQ(ezeb_register_publisher(rt.get(), &publishers[10]), -1);
    refuse.end();
    EXPECT_TRUE(isLocked());
    ezeb_mutex_unlock(&rt->regmutex);
    for (int32_t i = 0; i < 10; i++)
        EXPECT_EQ(ezeb_deregister_publisher(rt.get(), &publishers[static_cast<size_t>(i)], i), 1);
}

TEST_F(Registry, PreparingWithoutMemoryIsReported)
{
    unit::sweep([](unit::refusal &refuse) {
        auto fresh = std::make_unique<ezeb_runtime>();
        refuse.begin();
        const int prepared = ezeb_registry_prepare(fresh.get());
        refuse.end();
        EXPECT_EQ(prepared, refuse.happened() ? 0 : 1);
        ezeb_registry_discard(fresh.get());
    });
}

/* ---- Delivery ---- */

TEST_F(Registry, ANotificationGoesToTheSubscriberOfItsIdentifier)
{
    const zeb_subscriber *first = add();
    const zeb_subscriber *second = add();
    ezeb_deliver(rt.get(), event(), 2);
    EXPECT_EQ(ezeb_queue_length(first->queue), 0);
    EXPECT_EQ(ezeb_queue_length(second->queue), 1);
}

/* That they are destroyed is the leak checker's to say. */
TEST_F(Registry, ANotificationForIdentifierZeroOrBeyondTheTableIsDestroyed)
{
    const zeb_subscriber *only = add();
    ezeb_register_subscriber(rt.get()); /* reserved, but not there yet */
    for (const int32_t id : {0, -1, INT32_MIN, 2, 3, 10, 11, INT32_MAX})
        ezeb_deliver(rt.get(), event(), id);
    ezeb_deliver(rt.get(), nullptr, 1);
    EXPECT_EQ(ezeb_queue_length(only->queue), 0);
    EXPECT_FALSE(isLocked());
}

TEST_F(Registry, ANotificationForAClosedSubscriberIsDestroyed)
{
    zeb_subscriber *sub = add();
    ezeb_deregister_subscriber(rt.get(), sub, false);
    ezeb_deliver(rt.get(), event(), 1);
    EXPECT_EQ(ezeb_queue_length(sub->queue), 0);
    ezeb_subscriber_closenodereg(sub);
}

TEST_F(Registry, AReplyForAnUnknownIdentifierIsIgnored)
{
    zeb_subscriber *sub = add();
    sub->registration = EZEB_PENDING;
    for (const int32_t id : {0, -1, 2, 11, INT32_MIN, INT32_MAX})
        ezeb_handlesubscriptionreply(rt.get(), id, 1, ezeb_strdup("message"));
    EXPECT_EQ(sub->registration, EZEB_PENDING);
    ezeb_handlesubscriptionreply(rt.get(), 1, 1, ezeb_strdup("message"));
    EXPECT_EQ(sub->registration, EZEB_ANSWERED);
    EXPECT_EQ(sub->result, 1);
    EXPECT_STREQ(sub->message, "message");
    ezeb_handlesubscriptionreply(rt.get(), 1, 0, ezeb_strdup("another"));
    EXPECT_STREQ(sub->message, "another");
}

/* ---- Subscribe requests ---- */

TEST_F(Registry, ActivatingQueuesTheSubscribeRequest)
{
    add();
    add();
    EXPECT_EQ(queued(), (identifiers{1, 2}));
}

TEST_F(Registry, WithoutMemoryForTheRequestTheSlotStaysEmpty)
{
    unit::sweep([&](unit::refusal &refuse) {
        const int32_t id = ezeb_register_subscriber(rt.get());
        zeb_subscriber *sub = unit::bareSubscriber(id, "interest");
        sub->subscription = ezeb_strdup("subscription");
        sub->component = ezeb_strdup("component");
        const int32_t before = queueLength();
        refuse.begin();
        const int32_t activated = ezeb_activate_subscriber(rt.get(), sub);
        refuse.end();
        EXPECT_EQ(activated, refuse.happened() ? 0 : 1);
        EXPECT_EQ(queueLength(), before + activated);
        EXPECT_EQ(rt->subscribers.slots[id - 1], activated != 0 ? sub : nullptr);
        if (activated == 0)
            ezeb_subscriber_closenodereg(sub);
    });
}

TEST_F(Registry, DeregisteringWithAnUnsubscribeQueuesItOnce)
{
    zeb_subscriber *sub = add();
    ezeb_deregister_subscriber(rt.get(), sub, true);
    EXPECT_EQ(queueLength(), 2);
    ezeb_deregister_subscriber(rt.get(), sub, true);
    EXPECT_EQ(queueLength(), 2) << "it is in no slot any more";
    EXPECT_EQ(queued(), (identifiers{1}));
    ezeb_subscriber_closenodereg(sub);
}

TEST_F(Registry, QueuedUnsubscribesAreDroppedAndSubscribesStay)
{
    zeb_subscriber *first = add();
    add();
    ezeb_deregister_subscriber(rt.get(), first, true);
    zeb_subscriber *third = add();
    ezeb_deregister_subscriber(rt.get(), third, true);
    ezeb_publish(rt.get(), event());
    EXPECT_EQ(queueLength(), 6);
    ezeb_sendthread_dequeue_unsubscribes(rt.get());
    EXPECT_EQ(queueLength(), 4);
    EXPECT_EQ(queued(), (identifiers{1, 2, 3}));
    ezeb_subscriber_closenodereg(first);
    ezeb_subscriber_closenodereg(third);
}

TEST_F(Registry, EverySubscriberWithoutAQueuedRequestIsSubscribedAgain)
{
    add();
    zeb_subscriber *second = add();
    zeb_subscriber *third = add();
    add();
    forgetQueued();
    ASSERT_EQ(ezeb_subscriber_constructthensendsubsmsg(rt.get(), third), 1);
    ezeb_deregister_subscriber(rt.get(), second, false);
    ezeb_reregister_allsubscribers(rt.get());
    EXPECT_EQ(queued(), (identifiers{3, 1, 4}));
    ezeb_reregister_allsubscribers(rt.get());
    EXPECT_EQ(queued(), (identifiers{3, 1, 4})) << "all have one by now";
    ezeb_subscriber_closenodereg(second);
}

TEST_F(Registry, AQueuedUnsubscribeOrAnUnknownIdentifierDoesNotCount)
{
    zeb_subscriber *stranger = unit::bareSubscriber(77);
    add();
    forgetQueued();
    ASSERT_EQ(ezeb_subscriber_constructthensendsubsmsg(rt.get(), stranger), 1);
    stranger->id = 0;
    ASSERT_EQ(ezeb_subscriber_constructthensendsubsmsg(rt.get(), stranger), 1);
    stranger->id = 1;
    ASSERT_EQ(ezeb_subscriber_sendunsubscribe(rt.get(), stranger), 1);
    ezeb_reregister_allsubscribers(rt.get());
    EXPECT_EQ(queued(), (identifiers{77, 0, 1}));
    ezeb_subscriber_closenodereg(stranger);
}

TEST_F(Registry, SubscribersAreSubscribedAgainInTheOrderOfTheirIdentifiers)
{
    zeb_subscriber *first = unit::bareSubscriber(ezeb_register_subscriber(rt.get()));
    zeb_subscriber *second = unit::bareSubscriber(ezeb_register_subscriber(rt.get()));
    zeb_subscriber *third = unit::bareSubscriber(ezeb_register_subscriber(rt.get()));
    ASSERT_EQ(ezeb_activate_subscriber(rt.get(), second), 1); /* creations may finish in another order */
    ASSERT_EQ(ezeb_activate_subscriber(rt.get(), third), 1);
    ASSERT_EQ(ezeb_activate_subscriber(rt.get(), first), 1);
    forgetQueued();
    ezeb_reregister_allsubscribers(rt.get());
    EXPECT_EQ(queued(), (identifiers{1, 2, 3}));
}

/* ---- Loss ---- */

TEST_F(Registry, ALossDropsMembersAndTellsThem)
{
    zeb_subscriber *plain = add();
    zeb_subscriber *member = add("group");
    zeb_subscriber *other = add("");
    forgetQueued();
    ezeb_handle_disconnect(rt.get());
    EXPECT_EQ(ezeb_queue_length(plain->queue), 0);
    for (zeb_subscriber *sub : {member, other}) {
        zeb_notification *n = ezeb_subscriber_receive(sub, 0, 0);
        ASSERT_NE(n, nullptr);
        EXPECT_STREQ(zeb_notification_type(n), "ZEB/SYSTEM/LEAVEGROUP");
        EXPECT_EQ(zeb_notification_getClass(n), 7U);
        int32_t length = -1;
        EXPECT_EQ(zeb_notification_body(n, &length), nullptr);
        zeb_subscriber_relinquish(sub, n);
    }
    ezeb_deliver(rt.get(), event(), 2);
    EXPECT_EQ(ezeb_queue_length(member->queue), 0) << "it is in its slot no more";
    ezeb_reregister_allsubscribers(rt.get());
    EXPECT_EQ(queued(), (identifiers{1}));
    ezeb_handle_disconnect(rt.get());
    EXPECT_EQ(ezeb_queue_length(member->queue), 0) << "it is told once";
    ezeb_deregister_subscriber(rt.get(), other, true);
    ezeb_deregister_subscriber(rt.get(), member, true);
    EXPECT_EQ(queued(), (identifiers{1}));
    EXPECT_EQ(queueLength(), 1) << "there is nothing to unsubscribe";
    ezeb_subscriber_closenodereg(member);
    ezeb_subscriber_closenodereg(other);
}

TEST_F(Registry, AMemberWhoseCreatorStillWaitsStaysAndIsSubscribedAgain)
{
    zeb_subscriber *sub = add("group");
    sub->registration = EZEB_PENDING;
    sub->creatorWaiting = 1;
    forgetQueued();
    ezeb_handle_disconnect(rt.get());
    EXPECT_EQ(ezeb_queue_length(sub->queue), 0);
    ezeb_reregister_allsubscribers(rt.get());
    EXPECT_EQ(queued(), (identifiers{1}));
}

TEST_F(Registry, WithoutMemoryTheMemberIsDroppedUntold)
{
    zeb_subscriber *member = add("group");
    unit::refusal refuse(1, true);
    refuse.begin();
    ezeb_handle_disconnect(rt.get());
    refuse.end();
    EXPECT_EQ(ezeb_queue_length(member->queue), 0);
    EXPECT_EQ(rt->subscribers.slots[0], nullptr);
    EXPECT_FALSE(isLocked());
    ezeb_deregister_subscriber(rt.get(), member, false);
    ezeb_subscriber_closenodereg(member);
}

/* ---- The end ---- */

TEST_F(Registry, AfterTheEndNothingCanBeRegistered)
{
    zeb_subscriber *late = unit::bareSubscriber(ezeb_register_subscriber(rt.get()));
    ezeb_registry_closeall(rt.get());
    EXPECT_EQ(ezeb_register_subscriber(rt.get()), -1);
    zeb_publisher publisher = {};
    EXPECT_EQ(ezeb_register_publisher(rt.get(), &publisher), -1);
    EXPECT_EQ(ezeb_activate_subscriber(rt.get(), late), 0);
    EXPECT_FALSE(isLocked());
    ezeb_subscriber_closenodereg(late);
}

TEST_F(Registry, TheEndWakesDroppedMembersAndLeavesTheirHandles)
{
    zeb_subscriber *member = add("group");
    ezeb_handle_disconnect(rt.get());
    zeb_subscriber_relinquish(member, ezeb_subscriber_receive(member, 0, 0));
    std::thread receiver([&] { EXPECT_EQ(ezeb_subscriber_receive(member, 1, 0), nullptr); });
    for (bool waiting = false; !waiting;) {
        {
            const ezeb_locked hold(&member->queue->lock);
            waiting = member->queue->removers == 1;
        }
        std::this_thread::yield();
    }
    ezeb_registry_closeall(rt.get());
    receiver.join();
    EXPECT_EQ(ezeb_subscriber_receive(member, 1, 0), nullptr);
    zeb_subscriber_close(member);
}

/* What a forked child does with the tables; returns whether only dead handles are left. */
bool takeApart(ezeb_runtime *rt, zeb_subscriber *sub, zeb_subscriber *member)
{
    auto *publisher = ezeb_new<zeb_publisher>();
    publisher->references = 1;
    publisher->component = ezeb_strdup("component");
    publisher->idPrefix = ezeb_strdup("prefix");
    publisher->id = ezeb_register_publisher(rt, publisher);
    ezeb_streamtbl *streams[] = {sub->streams,
                                 member->streams}; /* left alone: the application may hold some */
    ezeb_registry_fork_destroy(rt);
    bool dead = true;
    for (zeb_subscriber *s : {sub, member}) {
        zeb_subscriber_close(s);
        dead = dead && ezeb_subscriber_receive(s, 1, 0) == nullptr &&
               zeb_subscriber_subscription(s) == nullptr && zeb_subscriber_getPublisher(s) == nullptr &&
               s->queue == nullptr;
    }
    zeb_notification *n = zeb_notification_create("t", nullptr, 0);
    zeb_publisher_publish(publisher, n);
    ezeb_notification_destroy(n); /* it was not taken */
    zeb_publisher_close(publisher);
    dead = dead && publisher->component == nullptr;
    for (ezeb_streamtbl *left : streams)
        ezeb_streamtbl_destroy(&left);
    ezeb_free(publisher);
    ezeb_free(sub);
    ezeb_free(member);
    return dead;
}

TEST_F(Registry, InAForkedChildDeadHandlesAreLeft)
{
    zeb_subscriber *sub = add();
    zeb_subscriber *member = add("group");
    sub->name = ezeb_strdup("name");
    ezeb_deliver(rt.get(), event(), 1);
    ezeb_drop_members(rt.get());
    EXPECT_EXIT(exit(takeApart(rt.get(), sub, member) ? 0 : 1), testing::ExitedWithCode(0), "");
    ezeb_deregister_subscriber(rt.get(), member, false);
    ezeb_subscriber_closenodereg(member);
}

/* ---- A real runtime ---- */

/* A port that is taken and on which nobody listens. */
class silent_port
{
  public:
    silent_port() : descriptor(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0))
    {
        sockaddr_in where = {};
        where.sin_family = AF_INET;
        where.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof(where);
        EXPECT_EQ(bind(descriptor, reinterpret_cast<sockaddr *>(&where), sizeof(where)), 0);
        getsockname(descriptor, reinterpret_cast<sockaddr *>(&where), &length);
        port = ntohs(where.sin_port);
    }
    ~silent_port()
    {
        close(descriptor);
    }
    silent_port(const silent_port &) = delete;
    silent_port &operator=(const silent_port &) = delete;
    [[nodiscard]] int32_t number() const
    {
        return port;
    }

  private:
    int descriptor;
    int32_t port = 0;
};

struct RegistryRuntime : testing::Test {
    silent_port port;

    RegistryRuntime()
    {
        setenv("TAMBEK_HOME", "/nonexistent", 1);
        EXPECT_EQ(zeb_init_with_port(port.number()), 0);
        receivePause.awaitBegin();
    }
    ~RegistryRuntime() override
    {
        receivePause.end();
        zeb_shutdown_nowait();
    }

    static zeb_subscriber *subscribe()
    {
        return zeb_subscriber_create_async("/app", "component", nullptr, nullptr);
    }
};

TEST_F(RegistryRuntime, TheEleventhSubscriberGrowsTheTableTo20AndReceivesIdentifier11)
{
    const ezeb_runtime_ref rt;
    for (uint32_t i = 1; i <= 10; i++)
        EXPECT_EQ(zeb_subscriber_id(subscribe()), i);
    EXPECT_EQ(rt->subscribers.capacity, 10);
    EXPECT_EQ(zeb_subscriber_id(subscribe()), 11U);
    EXPECT_EQ(rt->subscribers.capacity, 20);
}

TEST_F(RegistryRuntime, AfterClosingTheThirdTheNextGetsTheNextUnusedIdentifier)
{
    zeb_subscriber *third = nullptr;
    for (int i = 1; i <= 5; i++) {
        zeb_subscriber *sub = subscribe();
        third = i == 3 ? sub : third;
    }
    zeb_subscriber_close(third);
    EXPECT_EQ(zeb_subscriber_id(subscribe()), 6U);
}

TEST_F(RegistryRuntime, PublisherNumbersAreNotUsedAgainAndShowInTheIdentifiers)
{
    zeb_publisher *first = ezeb_publisher_create("c", 0, 0, 0);
    EXPECT_EQ(first->id, 0);
    zeb_publisher_close(first);
    zeb_publisher *second = ezeb_publisher_create("c", 0, 0, 0);
    EXPECT_EQ(second->id, 1);
    const ezeb_runtime_ref rt;
    EXPECT_EQ(std::string(second->idPrefix), std::string(rt->hostpid) + "1");
}

TEST_F(RegistryRuntime, WhatArrivesForASubscriberCanBeReceived)
{
    zeb_subscriber *sub = subscribe();
    {
        const ezeb_runtime_ref rt;
        ezeb_deliver(rt.get(), zeb_notification_create("t", nullptr, 0), 1);
    }
    zeb_notification *n = ezeb_subscriber_receive(sub, 0, 0);
    EXPECT_STREQ(zeb_notification_type(n), "t");
    zeb_subscriber_relinquish(sub, n);
}

TEST_F(RegistryRuntime, AnIdentifierIsPrefixAndSequenceAndThePublishedOneIsStampedOnce)
{
    zeb_publisher *publisher = ezeb_publisher_create("comp", 0, 0, 0);
    const ezeb_runtime_ref rt;
    for (int i = 1; i <= 3; i++)
        zeb_publisher_publish(publisher, zeb_notification_create("t", nullptr, 0));
    EXPECT_EQ(ezeb_queue_length(rt->send.queue), 3);
    EXPECT_EQ(publisher->sequence, 4U);
    zeb_notification *stamped = zeb_notification_create("t", nullptr, 0);
    ASSERT_EQ(ezeb_notification_set_pubinfo(stamped, "c", "n", "p", "i", 0), 1);
    zeb_publisher_publish(publisher, stamped);
    EXPECT_EQ(publisher->sequence, 4U);
    zeb_publisher_close(publisher);
}

TEST_F(RegistryRuntime, CreatingAndPublishingWithoutMemoryLeavesNothingBehind)
{
    unit::sweep([](unit::refusal &refuse) {
        refuse.begin();
        zeb_publisher *publisher = ezeb_publisher_create("comp", 0, 0, 0);
        refuse.end();
        EXPECT_EQ(publisher == nullptr, refuse.happened());
        zeb_publisher_close(publisher);
    });
    zeb_publisher *publisher = ezeb_publisher_create("comp", 0, 0, 0);
    const ezeb_runtime_ref rt;
    const std::string body(EZEB_NOTIFICATION_INLINE - 40, 'b'); /* leaves no room for what publishing adds */
    unit::sweep([&](unit::refusal &refuse) {
        const int32_t before = ezeb_queue_length(rt->send.queue);
        zeb_notification *n = zeb_notification_create("t", body.data(), static_cast<int32_t>(body.size()));
        refuse.begin();
        zeb_publisher_publish(publisher, n);
        refuse.end();
        EXPECT_EQ(ezeb_queue_length(rt->send.queue), before + (refuse.happened() ? 0 : 1));
    });
    zeb_publisher_close(publisher);
}

/* Each failing creation uses an identifier up. The table must not have to grow on the way: that would keep
 * the registry locked. */
TEST_F(RegistryRuntime, SubscribingWithoutMemoryLeavesNothingBehind)
{
    const ezeb_runtime_ref rt;
    {
        zeb_publisher unused = {};
        for (int i = 0; i < 85; i++) {
            ezeb_register_subscriber(rt.get());
            ezeb_deregister_publisher(rt.get(), &unused, ezeb_register_publisher(rt.get(), &unused));
        }
    }
    ASSERT_EQ(rt->subscribers.allocated, 160);
    zeb_proplist *properties = zeb_proplist_create();
    zeb_proplist_put(properties, "p", "q");
    unit::sweep([&](unit::refusal &refuse) {
        const int32_t before = ezeb_queue_length(rt->send.queue);
        refuse.begin();
        zeb_subscriber *sub = zeb_subscriber_create_async("/app", "component", "interest", properties);
        refuse.end();
        EXPECT_EQ(sub == nullptr, refuse.happened());
        EXPECT_EQ(ezeb_queue_length(rt->send.queue), before + (refuse.happened() ? 0 : 1));
        zeb_subscriber_close(sub);
        ezeb_sendthread_dequeue_unsubscribes(rt.get());
    });
    ASSERT_LT(rt->subscribers.count, 160);
    EXPECT_EQ(rt->livehead, nullptr);
    zeb_proplist_destroy(&properties);
}

TEST_F(RegistryRuntime, ShutdownReleasesWhatIsStillOpen)
{
    for (int i = 0; i < 12; i++) {
        ASSERT_NE(subscribe(), nullptr);
        ASSERT_NE(ezeb_publisher_create("c", 0, 0, 0), nullptr);
    }
    receivePause.end();
    EXPECT_EQ(zeb_shutdown(), 0);
}

TEST(RegistryNoRuntime, WithoutARuntimeThereAreNoSubscribersAndNoPublishers)
{
    EXPECT_EQ(zeb_subscriber_create_async("/app", "component", nullptr, nullptr), nullptr);
    char *message = nullptr;
    EXPECT_EQ(zeb_subscriber_create("/app", "component", nullptr, nullptr, &message), nullptr);
    EXPECT_EQ(message, nullptr);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(zeb_publisher_create("component"), nullptr);
    EXPECT_LT(unit::secondsSince(start), 1.0) << "it does not wait for a connection";
    EXPECT_EQ(zeb_one_time_remote_publish(), -1);
    EXPECT_EQ(zeb_shutdown(), 0);
}

} // namespace
