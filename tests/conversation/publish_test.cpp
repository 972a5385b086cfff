/* Publishing: what an event looks like on the wire, identifiers, order, and the one-time form. */
#include "addresses.h"
#include "conversation.h"

#include <set>
#include <thread>

namespace
{

using namespace zebtest;
using publishing = conversation;

void publish(zeb_publisher *publisher, const char *type, std::string_view body = "")
{
    zeb_publisher_publish(publisher,
                          zeb_notification_create(type, body.data(), static_cast<int32_t>(body.size())));
}

/* ---- Bytes ---- */

TEST_F(publishing, message_with_a_property_and_a_body_byte_for_byte)
{
    peer p = connected();
    zeb_publisher *publisher = zeb_publisher_create("storage");
    zeb_notification *n = zeb_notification_create("t", "he\r\nl", 5);
    EXPECT_EQ(zeb_notification_setProperty(n, "k", "v"), 0);
    zeb_publisher_publish(publisher, n);
    p.expect_lines({"POST /event HTTP/1.1", "className: MessageNotification", "SubscriberID: 0",
                    "eventType: t", "eventId: " + process_name() + "01", "affectedComponents: ",
                    "affectedNodes: ", "generatingComponent: storage", "generatingProcess: " + process_name(),
                    "generatingNode: " + host_name(), "instanceName: east", "LocalOnly: false",
                    "numberOfProperties: 1", "k: v", "Content-Length: 5", "AddrList-Length: 0", ""});
    p.expect("he\r\nl");
    zeb_publisher_close(publisher);
    EXPECT_EQ(sent_before_mark(p), "");
}

TEST_F(publishing, message_without_properties_and_body_says_zero_for_both)
{
    peer p = connected();
    zeb_publisher *publisher = zeb_publisher_create("c");
    publish(publisher, "/t");
    p.expect_lines({"POST /event HTTP/1.1", "className: MessageNotification", "SubscriberID: 0",
                    "eventType: /t", "eventId: " + process_name() + "01", "affectedComponents: ",
                    "affectedNodes: ", "generatingComponent: c", "generatingProcess: " + process_name(),
                    "generatingNode: " + host_name(), "instanceName: east", "LocalOnly: false",
                    "numberOfProperties: 0", "Content-Length: 0", "AddrList-Length: 0", ""});
    zeb_publisher_close(publisher);
}

TEST_F(publishing, properties_go_newest_first_with_duplicates_and_replaced_texts)
{
    peer p = connected();
    zeb_publisher *publisher = zeb_publisher_create("c");
    zeb_notification *n = zeb_notification_create("/t", nullptr, 0);
    EXPECT_EQ(zeb_notification_setProperty(n, "k", "first"), 0);
    EXPECT_EQ(zeb_notification_setProperty(n, "k", "second: with colon"), 0);
    EXPECT_EQ(zeb_notification_setProperty(n, "", ""), 0);
    EXPECT_EQ(zeb_notification_setProperty(n, "a:b", "v"), -1);
    EXPECT_EQ(zeb_notification_setProperty(n, "name", "two\nlines"), -1);
    zeb_publisher_publish(publisher, n);
    const std::string head = p.read_head();
    EXPECT_NE(head.find(lines(
                  {"LocalOnly: false", "numberOfProperties: 5",
                   "name: ILLEGAL PROPERTY VALUE [Property value must not contain '\\r' or '\\n']",
                   "ILLEGAL PROPERTY NAME [Property name must not contain ':', '\\r', or '\\n']: v", ": ",
                   "k: second: with colon", "k: first", "Content-Length: 0", "AddrList-Length: 0", ""})),
              std::string::npos)
        << shown(head);
    zeb_publisher_close(publisher);
}

TEST_F(publishing, local_only_is_written_as_true)
{
    peer p = connected();
    zeb_publisher *publisher = zeb_publisher_create("c");
    zeb_notification *n = zeb_notification_create("/t", nullptr, 0);
    zeb_notification_setLocalOnly(n);
    zeb_publisher_publish(publisher, n);
    EXPECT_NE(p.read_head().find("\r\ninstanceName: east\r\nLocalOnly: true\r\nnumberOfProperties: 0\r\n"),
              std::string::npos);
    zeb_publisher_close(publisher);
}

TEST_F(publishing, instance_name_is_empty_when_the_daemon_gave_none)
{
    ASSERT_EQ(zeb_init(), 0);
    peer p = daemon.accept();
    p.expect(handshake(home.path()));
    p.send("1\r\n2\r\nResult: success\r\n\r\n");
    zeb_publisher *publisher = zeb_publisher_create("c");
    publish(publisher, "/t");
    p.expect(published("c", "/t", "01", "", 0, ""));
    zeb_publisher_close(publisher);
}

TEST_F(publishing, empty_component_and_type_are_written_as_nothing)
{
    peer p = connected();
    zeb_publisher *publisher = zeb_publisher_create("");
    publish(publisher, "");
    p.expect(published("", "", "01"));
    zeb_publisher_close(publisher);
}

TEST_F(publishing, negative_body_length_is_written_as_zero)
{
    peer p = connected();
    zeb_publisher *publisher = zeb_publisher_create("c");
    zeb_publisher_publish(publisher, zeb_notification_create("/t", "ignored", -5));
    p.expect(published("c", "/t", "01"));
    zeb_publisher_close(publisher);
}

TEST_F(publishing, bodies_of_any_size_and_bytes_arrive_whole)
{
    peer p = connected();
    zeb_publisher *publisher = zeb_publisher_create("c");
    int serial = 0;
    for (const size_t size : {1U, 1500U, 1700U, 2048U, 2049U, 3000U, 70000U, 5000000U}) {
        std::string body;
        body.reserve(size);
        for (size_t i = 0; i < size; i++)
            body.push_back(static_cast<char>(i * 7));
        background sending([&] {
            publish(publisher, "/t", body);
            return 0;
        });
        p.expect(published("c", "/t", "0" + std::to_string(++serial), body));
        sending.get();
    }
    zeb_publisher_close(publisher);
}

/* ---- Destinations ---- */

const std::string sender = address("srcAddr",
                                   {{"id", "17"},
                                    {"tier", "front"},
                                    {"tierid", "t1"},
                                    {"component", "disk"},
                                    {"hostname", "node9"},
                                    {"instancename", "west"},
                                    {"subscription", "/disk/*"},
                                    {"key", "node9:17"},
                                    {"address", "\x01\x02"},
                                    {"matcher", "m"}},
                                   {{"role", "master"}, {"empty", ""}});

/* What the library makes of it as a destination: the same without its key. */
const std::string destination = address("dstAddr0",
                                        {{"id", "17"},
                                         {"tier", "front"},
                                         {"tierid", "t1"},
                                         {"component", "disk"},
                                         {"hostname", "node9"},
                                         {"instancename", "west"},
                                         {"subscription", "/disk/*"},
                                         {"address", "\x01\x02"},
                                         {"matcher", "m"}},
                                        {{"role", "master"}, {"empty", ""}});

std::string message_with_addresses(std::string_view ids, const std::string &records)
{
    std::string text = message(ids, "/from");
    const std::string none = "AddrList-Length: 0\r\n\r\n";
    const std::string list = block_signature() + records;
    text.replace(text.find(none), none.size(),
                 "AddrList-Length: " + std::to_string(list.size()) + "\r\n\r\n");
    return text + list;
}

TEST_F(publishing, destination_goes_as_address_list_behind_the_body)
{
    peer p = connected();
    zeb_subscriber *sub = subscribed(p, 1);
    p.send(message_with_addresses("1", sender));
    zeb_notification *got = zeb_subscriber_receive(sub, 1, 20000);
    ASSERT_NE(got, nullptr);

    zeb_publisher *publisher = zeb_publisher_create("c");
    zeb_notification *n = zeb_notification_create("/t", "body", 4);
    zeb_notification_setDestinationAddr(n, zeb_notification_generatingAddress(got));
    zeb_publisher_publish(publisher, n);
    const std::string list = block_signature() + destination;
    std::string head = published("c", "/t", "11", "body");
    head.replace(head.find("AddrList-Length: 0"), 18, "AddrList-Length: " + std::to_string(list.size()));
    p.expect(head + list);

    zeb_laddrlist *both = zeb_laddrlist_create();
    zeb_laddrlist_add(both, zeb_notification_generatingAddress(got));
    zeb_laddrlist_add(both, zeb_notification_generatingAddress(got));
    n = zeb_notification_create("/t", nullptr, 0);
    zeb_notification_setDestinationAddrs(n, both);
    zeb_laddrlist_destroy(&both);
    zeb_publisher_publish(publisher, n);
    std::string second = destination;
    second.replace(second.find("dstAddr0"), 8, "dstAddr1");
    const std::string two = block_signature() + destination + second;
    head = published("c", "/t", "12");
    head.replace(head.find("AddrList-Length: 0"), 18, "AddrList-Length: " + std::to_string(two.size()));
    p.expect(head + two);

    zeb_subscriber_relinquish(sub, got);
    zeb_publisher_close(publisher);
    zeb_subscriber_close(sub);
}

TEST_F(publishing, empty_destination_list_is_no_destination)
{
    peer p = connected();
    zeb_publisher *publisher = zeb_publisher_create("c");
    zeb_laddrlist *none = zeb_laddrlist_create();
    zeb_notification *n = zeb_notification_create("/t", nullptr, 0);
    zeb_notification_setDestinationAddrs(n, none);
    zeb_laddrlist_destroy(&none);
    zeb_publisher_publish(publisher, n);
    p.expect(published("c", "/t", "01"));
    zeb_publisher_close(publisher);
}

/* ---- Identifiers ---- */

TEST_F(publishing, ids_are_process_publisher_number_and_sequence_without_separators)
{
    peer p = connected();
    zeb_publisher *first = zeb_publisher_create("a");
    zeb_publisher *second = zeb_publisher_create("b");
    publish(first, "/1");
    publish(first, "/2");
    publish(second, "/3");
    publish(first, "/4");
    p.expect(published("a", "/1", "01") + published("a", "/2", "02") + published("b", "/3", "11") +
             published("a", "/4", "03"));
    zeb_publisher_close(first);
    zeb_publisher *third = zeb_publisher_create("d"); /* numbers are not used again */
    publish(third, "/5");
    p.expect(published("d", "/5", "21"));
    zeb_publisher_close(second);
    zeb_publisher_close(third);
}

TEST_F(publishing, one_publisher_may_be_used_by_many_threads)
{
    constexpr int threadCount = 4;
    constexpr int each = 200;
    peer p = connected();
    zeb_publisher *publisher = zeb_publisher_create("c");
    std::vector<std::thread> threads;
    for (int i = 0; i < threadCount; i++)
        threads.emplace_back([&] {
            for (int k = 0; k < each; k++)
                publish(publisher, "/t", "body");
        });
    std::set<std::string> ids;
    for (int i = 0; i < threadCount * each; i++) {
        const std::string head = p.read_head();
        const size_t from = head.find("eventId: ");
        ids.insert(head.substr(from, head.find('\r', from) - from));
        EXPECT_EQ(p.read_bytes(4), "body");
    }
    for (std::thread &t : threads)
        t.join();
    EXPECT_EQ(ids.size(), static_cast<size_t>(threadCount * each));
    zeb_publisher_close(publisher);
}

/* ---- Publishing what was received ---- */

TEST_F(publishing, received_notification_keeps_id_and_origin_but_not_the_instance_name)
{
    peer p = connected();
    zeb_subscriber *sub = subscribed(p, 1);
    zeb_publisher *publisher = zeb_publisher_create("other");
    p.send(message("1", "/t", "body"));
    zeb_notification *n = zeb_subscriber_receive(sub, 1, 20000);
    ASSERT_NE(n, nullptr);
    EXPECT_STREQ(zeb_notification_instanceName(n), "west");
    zeb_publisher_publish(publisher, n);
    p.expect_lines(
        {"POST /event HTTP/1.1", "className: MessageNotification", "SubscriberID: 0", "eventType: /t",
         "eventId: node1:911", "affectedComponents: ", "affectedNodes: ", "generatingComponent: storage",
         "generatingProcess: node1:9", "generatingNode: node1", "instanceName: east", "LocalOnly: false",
         "numberOfProperties: 0", "Content-Length: 4", "AddrList-Length: 0", ""});
    p.expect("body");
    zeb_subscriber_close(sub); /* it is not the subscriber's any more and not destroyed again */
    zeb_publisher_close(publisher);
}

TEST_F(publishing, membership_list_is_written_with_its_few_lines)
{
    peer p = connected();
    zeb_subscriber *sub = subscribed(p, 1);
    const std::string list = block_signature() + address("mbrAddr0", {{"key", "k"}, {"address", "a"}});
    p.send(lines({"POST /event HTTP/1.1", "className: MembershipListNotification", "SubscriberID: 1",
                  "eventType: /m", "eventId: e", "creationTime: 1", "deliveryTime: 2", "Content-Length: 0",
                  "AddrList-Length: " + std::to_string(list.size()), ""}) +
           list);
    zeb_notification *n = zeb_subscriber_receive(sub, 1, 20000);
    ASSERT_NE(n, nullptr);
    zeb_publisher *publisher = zeb_publisher_create("c");
    zeb_publisher_publish(publisher, n);
    /* It had no generating component, so this counts as its first publish and it gets a new id. */
    p.expect_lines({"POST /event HTTP/1.1", "className: MembershipListNotification", "SubscriberID: 0",
                    "eventType: /m", "eventId: " + process_name() + "11", "Content-Length: 0",
                    "AddrList-Length: 0", ""});
    zeb_publisher_close(publisher);
    zeb_subscriber_close(sub);
}

TEST_F(publishing, notifications_of_a_subscribers_publisher_carry_its_identifier)
{
    peer p = connected();
    zeb_subscriber *sub = subscribed(p, 1);
    publish(zeb_subscriber_getPublisher(sub), "/t");
    p.expect(published("c", "/t", "01", "", 1));
    zeb_subscriber_close(sub);
}

/* ---- Order and connection ---- */

TEST_F(publishing, publisher_is_created_as_soon_as_the_connection_stands)
{
    ASSERT_EQ(zeb_init(), 0);
    background creation([] { return zeb_publisher_create("c"); });
    const stopwatch watch;
    peer p = daemon.accept_connected(home.path());
    zeb_publisher *publisher = creation.get();
    EXPECT_LT(watch.elapsed(), stretched(milliseconds{3000}));
    EXPECT_NE(publisher, nullptr);
    zeb_publisher_close(publisher);
}

TEST_F(publishing, publisher_is_created_without_a_daemon_after_five_seconds_and_its_notifications_are_kept)
{
    daemon.refuse();
    ASSERT_EQ(zeb_init(), 0);
    const stopwatch watch;
    zeb_publisher *publisher = zeb_publisher_create("c");
    EXPECT_GE(watch.elapsed(), milliseconds{3900});
    EXPECT_LE(watch.elapsed(), milliseconds{5500});
    ASSERT_NE(publisher, nullptr);
    publish(publisher, "/1");
    publish(publisher, "/2", "body");
    zeb_publisher_close(publisher);
    daemon.listen_again();
    daemon.accept_connected(home.path())
        .expect(published("c", "/1", "01") + published("c", "/2", "02", "body"));
}

TEST_F(publishing, events_and_requests_keep_the_order_of_their_calls)
{
    peer p = connected();
    zeb_publisher *publisher = zeb_publisher_create("c");
    publish(publisher, "/1");
    zeb_subscriber *sub = zeb_subscriber_create_async("/t", "c", nullptr, nullptr);
    publish(publisher, "/2");
    zeb_subscriber_close(sub);
    publish(publisher, "/3");
    p.expect(published("c", "/1", "01") + subscribe_request(1, "/t") + published("c", "/2", "02") +
             unsubscribe_request(1) + published("c", "/3", "03"));
    zeb_publisher_close(publisher);
}

TEST_F(publishing, what_was_published_is_sent_after_its_publisher_was_closed)
{
    peer p = connected();
    for (int i = 0; i < 100; i++) {
        zeb_publisher *publisher = zeb_publisher_create("c");
        publish(publisher, "/t");
        zeb_publisher_close(publisher);
    }
    for (int i = 0; i < 100; i++)
        p.expect(published("c", "/t", std::to_string(i) + "1"));
}

TEST_F(publishing, null_arguments_are_ignored_and_the_notification_stays_the_callers)
{
    peer p = connected();
    zeb_publisher *publisher = zeb_publisher_create("c");
    zeb_notification *n = zeb_notification_create("/t", nullptr, 0);
    zeb_publisher_publish(publisher, nullptr);
    zeb_publisher_publish(nullptr, n);
    zeb_publisher_publish(publisher, n);
    p.expect(published("c", "/t", "01"));
    zeb_publisher_close(publisher);
    EXPECT_EQ(zeb_publisher_create(nullptr), nullptr);
}

/* ---- One-time publish ---- */

TEST_F(publishing, one_time_publish_starts_sends_and_ends)
{
    background sending([] { return zeb_one_time_publish("once", zeb_notification_create("/t", "body", 4)); });
    peer p = daemon.accept_connected(home.path());
    p.expect(published("once", "/t", "01", "body"));
    EXPECT_EQ(sending.get(), 0);
    p.expect_close();
    EXPECT_EQ(zeb_publisher_create("c"), nullptr); /* nothing runs any more */
}

TEST_F(publishing, one_time_publish_leaves_a_running_runtime_running)
{
    peer p = connected();
    EXPECT_EQ(zeb_one_time_publish("once", zeb_notification_create("/t", nullptr, 0)), 0);
    p.expect(published("once", "/t", "01"));
    EXPECT_EQ(sent_before_mark(p), "");
    zeb_shutdown();
    p.expect_close();
}

TEST_F(publishing, one_time_publish_without_a_daemon_gives_the_notification_back_after_five_seconds)
{
    daemon.refuse();
    zeb_notification *n = zeb_notification_create("/t", "body", 4);
    const stopwatch watch;
    EXPECT_EQ(zeb_one_time_publish("once", n), -1);
    EXPECT_GE(watch.elapsed(), milliseconds{3900});
    EXPECT_LE(watch.elapsed(), milliseconds{6000});

    daemon.listen_again();
    background sending([=] { return zeb_one_time_publish("twice", n); });
    peer p = daemon.accept_connected(home.path());
    p.expect(published("twice", "/t", "01", "body"));
    EXPECT_EQ(sending.get(), 0);
}

TEST_F(publishing, one_time_publish_with_a_daemon_that_does_not_answer_fails_after_five_seconds)
{
    zeb_notification *n = zeb_notification_create("/t", nullptr, 0);
    background sending([=] { return zeb_one_time_publish("once", n); });
    peer p = daemon.accept();
    p.expect(handshake(home.path()));
    EXPECT_EQ(sending.get(), -1);
    p.expect_close();
    peer next = connected();
    zeb_publisher *publisher = zeb_publisher_create("c");
    zeb_publisher_publish(publisher, n);
    next.expect(published("c", "/t", "01"));
    zeb_publisher_close(publisher);
}

TEST_F(publishing, one_time_publish_without_configuration_fails_at_once)
{
    const stderr_capture messages;
    clean_environment();
    zeb_notification *n = zeb_notification_create("/t", nullptr, 0);
    EXPECT_EQ(zeb_one_time_publish("once", n), -1);
    EXPECT_EQ(messages.text(), "TAMBEK_HOME is not set\nTAMBEK_ZEB_PROXY_PORT: not set\n");
    configure(home.path(), daemon.port());
    background sending([=] { return zeb_one_time_publish("twice", n); });
    daemon.accept_connected(home.path()).expect(published("twice", "/t", "01"));
    EXPECT_EQ(sending.get(), 0);
}

} // namespace
