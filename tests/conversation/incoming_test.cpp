/* What the daemon sends: events of every class, and everything that is not as it should be. */
#include "addresses.h"
#include "conversation.h"

#include <span>

namespace
{

using namespace zebtest;

constexpr std::string_view wholeMessage = "POST /event HTTP/1.1\r\n"
                                          "className: MessageNotification\r\n"
                                          "SubscriberID: 1\r\n"
                                          "eventType: /app/disk/full\r\n"
                                          "eventId: node1:911\r\n"
                                          "creationTime: 1700000001999\r\n"
                                          "deliveryTime: 1700000002001\r\n"
                                          "affectedComponents: db\r\n"
                                          "affectedNodes: n1 n2\r\n"
                                          "generatingComponent: storage\r\n"
                                          "generatingProcess: node1:9\r\n"
                                          "generatingNode: node1\r\n"
                                          "instanceName: west\r\n"
                                          "LocalOnly: true\r\n"
                                          "numberOfProperties: 2\r\n"
                                          "sev: 3\r\n"
                                          "note: a: b\r\n"
                                          "Content-Length: 5\r\n"
                                          "AddrList-Length: 0\r\n"
                                          "\r\n"
                                          "he\r\nl";

/* A subscriber with the identifier 1 that events are sent to. */
class incoming : public conversation
{
  protected:
    incoming() : p(connected()), sub(subscribed(p, 1)) {}
    ~incoming() override
    {
        zeb_subscriber_close(sub);
        zeb_shutdown_nowait();
    }

    /* The notification that TEXT becomes; relinquished at the end of the test. */
    zeb_notification *received(std::string_view text)
    {
        p.send(text);
        zeb_notification *n = zeb_subscriber_receive(sub, 1, 20000);
        if (n == nullptr)
            script_fails({__FILE__, __LINE__}, "nothing was received");
        return n;
    }

    /* TEXT reaches nobody, and the connection lives on. */
    void expect_passed_over(std::string_view text)
    {
        p.send(text);
        p.send(message("1", "/after"));
        EXPECT_EQ(receive_type(sub), "/after") << shown(text);
    }

    /* TEXT ends the connection; afterwards the next one is in use. */
    void expect_loss(std::string_view text, place where = {__builtin_FILE(), __builtin_LINE()})
    {
        p.send(text);
        p.expect_close(where);
        p = daemon.accept_connected(home.path(), where);
        p.expect(subscribe_request(1, "/t"), where);
    }

    peer p;
    zeb_subscriber *sub;
};

std::string replaced(std::string_view text, std::string_view from, std::string_view to)
{
    std::string all(text);
    const size_t at = all.find(from);
    EXPECT_NE(at, std::string::npos) << from;
    return all.replace(at, from.size(), to);
}

std::string body_of(const zeb_notification *n)
{
    int32_t length = -1;
    const void *body = zeb_notification_body(n, &length);
    return body != nullptr ? std::string(static_cast<const char *>(body), static_cast<size_t>(length))
                           : "<null>";
}

void expect_whole(const zeb_notification *n)
{
    EXPECT_EQ(zeb_notification_getClass(n), 0U);
    EXPECT_STREQ(zeb_notification_type(n), "/app/disk/full");
    EXPECT_STREQ(zeb_notification_id(n), "node1:911");
    EXPECT_EQ(zeb_notification_creationTime(n), 1700000001);
    EXPECT_EQ(zeb_notification_deliveryTime(n), 1700000002);
    EXPECT_STREQ(zeb_notification_affectedComponents(n), "db");
    EXPECT_STREQ(zeb_notification_affectedNodes(n), "n1 n2");
    EXPECT_STREQ(zeb_notification_generatingComponent(n), "storage");
    EXPECT_STREQ(zeb_notification_generatingProcess(n), "node1:9");
    EXPECT_STREQ(zeb_notification_generatingNode(n), "node1");
    EXPECT_STREQ(zeb_notification_instanceName(n), "west");
    EXPECT_EQ(zeb_notification_localOnly(n), 1);
    EXPECT_EQ(zeb_notification_stamp(n), nullptr);
    EXPECT_STREQ(zeb_notification_getProperty(n, "sev"), "3");
    EXPECT_STREQ(zeb_notification_getProperty(n, "note"), "a: b");
    EXPECT_EQ(body_of(n), "he\r\nl");
    EXPECT_EQ(zeb_notification_generatingAddress(n), nullptr);
    EXPECT_EQ(zeb_notification_getDestinationAddrs(n), nullptr);
    EXPECT_EQ(zeb_notification_isMembership(n), 0);
}

/* ---- Messages ---- */

TEST_F(incoming, message_with_everything)
{
    zeb_notification *n = received(wholeMessage);
    expect_whole(n);
    int32_t length = 0;
    const char *body = static_cast<const char *>(zeb_notification_body(n, &length));
    EXPECT_EQ(body[length], '\0'); /* a NUL stands behind a received body */
    zeb_subscriber_relinquish(sub, n);
}

TEST_F(incoming, message_split_anywhere_is_the_same)
{
    for (size_t at = 1; at < wholeMessage.size(); at++) {
        SCOPED_TRACE(at);
        p.send_split(wholeMessage, at);
        zeb_notification *n = zeb_subscriber_receive(sub, 1, 20000);
        ASSERT_NE(n, nullptr);
        expect_whole(n);
        zeb_subscriber_relinquish(sub, n);
    }
}

TEST_F(incoming, message_one_byte_at_a_time_is_the_same)
{
    p.send_bytewise(wholeMessage);
    zeb_notification *n = zeb_subscriber_receive(sub, 1, 20000);
    ASSERT_NE(n, nullptr);
    expect_whole(n);
    zeb_subscriber_relinquish(sub, n);
}

TEST_F(incoming, message_cut_anywhere_is_not_delivered_and_the_connection_is_made_anew)
{
    const stderr_capture messages;
    for (size_t length = 0; length < wholeMessage.size(); length++) {
        SCOPED_TRACE(length);
        p.send(wholeMessage.substr(0, length));
        p.half_close();
        p.expect_close();
        p = daemon.accept_connected(home.path());
        p.expect(subscribe_request(1, "/t"));
    }
    EXPECT_EQ(zeb_subscriber_receive(sub, 0, 0), nullptr);
    /* Only a body that is missing bytes is spoken of: one message for each cut in it. */
    EXPECT_EQ(messages.text(), "READ LESS THAN THE FULL BUFFER, ret=0, len=5\n"
                               "READ LESS THAN THE FULL BUFFER, ret=0, len=4\n"
                               "READ LESS THAN THE FULL BUFFER, ret=0, len=3\n"
                               "READ LESS THAN THE FULL BUFFER, ret=0, len=2\n"
                               "READ LESS THAN THE FULL BUFFER, ret=0, len=1\n");
    EXPECT_EQ(interposed::sleeps(), std::vector<unsigned>{});
}

TEST_F(incoming, many_messages_in_one_piece_arrive_in_their_order)
{
    std::string all;
    for (int i = 0; i < 1000; i++)
        all += message("1", "/" + std::to_string(i), std::string(static_cast<size_t>(i), 'b'));
    p.send(all);
    for (int i = 0; i < 1000; i++)
        ASSERT_EQ(receive_type(sub), "/" + std::to_string(i));
}

TEST_F(incoming, large_bodies_with_any_bytes_arrive_whole)
{
    for (const size_t size : {1U, 2047U, 2048U, 2049U, 100000U, 3500000U}) {
        std::string body;
        body.reserve(size);
        for (size_t i = 0; i < size; i++)
            body.push_back(static_cast<char>(i * 11));
        zeb_notification *n = received(message("1", "/t", body));
        EXPECT_TRUE(body_of(n) == body) << size;
        zeb_subscriber_relinquish(sub, n);
    }
}

TEST_F(incoming, lines_beyond_the_buffer_arrive_whole)
{
    for (const size_t size : {2040U, 2048U, 4096U, 100000U}) {
        const std::string type(size, 't');
        p.send(message("1", type));
        EXPECT_TRUE(receive_type(sub) == type) << size;
    }
}

TEST_F(incoming, header_names_are_not_compared)
{
    std::string text(wholeMessage);
    for (const char *name :
         {"className", "SubscriberID", "eventType", "eventId", "creationTime", "deliveryTime",
          "affectedComponents", "affectedNodes", "generatingComponent", "generatingProcess", "generatingNode",
          "instanceName", "LocalOnly", "numberOfProperties", "Content-Length", "AddrList-Length"}) {
        const std::string other(std::string_view(name).size() + 2, '?');
        text = replaced(text, std::string(name) + ": ", other);
    }
    zeb_notification *n = received(text);
    expect_whole(n);
    zeb_subscriber_relinquish(sub, n);
}

TEST_F(incoming, lines_may_end_with_line_feed_alone_but_the_empty_line_is_two_bytes)
{
    std::string text;
    for (const char c : wholeMessage.substr(0, wholeMessage.find("he\r\nl")))
        if (c != '\r')
            text += c;
    zeb_notification *n = received(text + "Xhe\r\nl");
    expect_whole(n);
    zeb_subscriber_relinquish(sub, n);
}

TEST_F(incoming, empty_fields_are_empty_strings)
{
    zeb_notification *n = received(message("1", ""));
    EXPECT_STREQ(zeb_notification_type(n), "");
    EXPECT_STREQ(zeb_notification_affectedComponents(n), "");
    EXPECT_STREQ(zeb_notification_affectedNodes(n), "");
    EXPECT_EQ(body_of(n), "<null>");
    int32_t length = -1;
    zeb_notification_body(n, &length);
    EXPECT_EQ(length, 0);
    zeb_subscriber_relinquish(sub, n);
}

TEST_F(incoming, times_are_found_leniently_and_given_in_whole_seconds)
{
    for (const auto &[text, expected] :
         std::initializer_list<std::pair<const char *, int64_t>>{{"999", 0},
                                                                 {"1000", 1},
                                                                 {"-1", 0},
                                                                 {"-1999", -1},
                                                                 {"-2000", -2},
                                                                 {"about 5000 ms", 5},
                                                                 {"", 0},
                                                                 {"x", 0},
                                                                 {"--3000", -3},
                                                                 {"4000-2000", 4}}) {
        zeb_notification *n = received(
            replaced(wholeMessage, "creationTime: 1700000001999", "creationTime: " + std::string(text)));
        EXPECT_EQ(zeb_notification_creationTime(n), expected) << text;
        EXPECT_EQ(zeb_notification_deliveryTime(n), 1700000002);
        zeb_subscriber_relinquish(sub, n);
    }
}

TEST_F(incoming, local_only_is_true_only_as_written)
{
    for (const auto &[text, expected] : std::initializer_list<std::pair<const char *, int32_t>>{
             {"true", 1}, {"TRUE", 0}, {"True", 0}, {"false", 0}, {"", 0}, {"true ", 0}, {"1", 0}}) {
        zeb_notification *n =
            received(replaced(wholeMessage, "LocalOnly: true", "LocalOnly: " + std::string(text)));
        EXPECT_EQ(zeb_notification_localOnly(n), expected) << text;
        zeb_subscriber_relinquish(sub, n);
    }
}

/* ---- Properties ---- */

using pairs = std::vector<std::pair<std::string, std::string>>;

pairs properties_of(const zeb_notification *n)
{
    int32_t count = -1;
    zeb_property *all = zeb_notification_getAllProperties(n, &count);
    pairs result;
    for (const zeb_property &property : std::span(all, static_cast<size_t>(count)))
        result.emplace_back(property.name, property.value);
    free(all);
    return result;
}

class properties : public incoming
{
  protected:
    pairs read(std::string_view count, std::string_view propertyLines)
    {
        zeb_notification *n = received(
            replaced(wholeMessage, "numberOfProperties: 2\r\nsev: 3\r\nnote: a: b\r\n",
                     "numberOfProperties: " + std::string(count) + "\r\n" + std::string(propertyLines)));
        pairs all = properties_of(n);
        EXPECT_EQ(body_of(n), "he\r\nl");
        zeb_subscriber_relinquish(sub, n);
        return all;
    }
};

TEST_F(properties, arrive_in_the_reverse_of_their_order)
{
    EXPECT_EQ(read("2", "a: 1\r\nb: 2\r\n"), (pairs{{"b", "2"}, {"a", "1"}}));
}

TEST_F(properties, line_without_colon_counts_but_yields_none)
{
    EXPECT_EQ(read("1", "no colon here\r\n"), pairs{});
    EXPECT_EQ(read("3", "a: 1\r\n\r\nb: 2\r\n"), (pairs{{"b", "2"}, {"a", "1"}}));
}

TEST_F(properties, byte_behind_the_colon_is_dropped)
{
    EXPECT_EQ(read("1", "a:b\r\n"), (pairs{{"a", ""}}));
    EXPECT_EQ(read("1", "a:bc\r\n"), (pairs{{"a", "c"}}));
}

TEST_F(properties, line_ending_at_its_colon_has_an_empty_value)
{
    EXPECT_EQ(read("2", "a:\r\nb: 2\r\n"), (pairs{{"b", "2"}, {"a", ""}}));
}

TEST_F(properties, name_may_be_empty_and_value_hold_colons_and_spaces)
{
    EXPECT_EQ(read("2", ": v\r\nk:  x: y \r\n"), (pairs{{"k", " x: y "}, {"", "v"}}));
}

TEST_F(properties, of_equal_names_the_first_sent_is_last_and_getproperty_finds_the_last_sent)
{
    zeb_notification *n = received(replaced(wholeMessage, "sev: 3\r\nnote: a: b", "k: newest\r\nk: oldest"));
    EXPECT_EQ(properties_of(n), (pairs{{"k", "oldest"}, {"k", "newest"}}));
    EXPECT_STREQ(zeb_notification_getProperty(n, "k"), "oldest");
    EXPECT_EQ(zeb_notification_getProperty(n, "K"), nullptr);
    zeb_subscriber_relinquish(sub, n);
}

TEST_F(properties, counts_below_one_and_no_number_mean_none)
{
    for (const char *count : {"0", "-1", "-2147483648", "", "many"})
        EXPECT_EQ(read(count, ""), pairs{}) << count;
}

TEST_F(properties, thousands_are_read)
{
    std::string text;
    for (int i = 0; i < 5000; i++)
        text += "n" + std::to_string(i) + ": v\r\n";
    const pairs all = read("5000", text);
    ASSERT_EQ(all.size(), 5000U);
    EXPECT_EQ(all.front().first, "n4999");
    EXPECT_EQ(all.back().first, "n0");
}

/* ---- Other classes ---- */

std::string short_event(std::string_view cls, const std::string &addresses = "", std::string_view body = "")
{
    const std::string list = addresses.empty() ? "" : block_signature() + addresses;
    return lines({"POST /event HTTP/1.1", "className: " + std::string(cls), "SubscriberID: 1",
                  "eventType: /m", "eventId: e", "creationTime: 1000", "deliveryTime: 2000",
                  "Content-Length: " + std::to_string(body.size()),
                  "AddrList-Length: " + std::to_string(list.size()), ""}) +
           std::string(body) + list;
}

TEST_F(incoming, classes_without_origin_go_straight_to_their_lengths)
{
    for (const auto &[name, cls] :
         std::initializer_list<std::pair<const char *, uint32_t>>{{"MembershipListNotification", 1},
                                                                  {"MembershipDeltaNotification", 2},
                                                                  {"StateGetNotification", 5},
                                                                  {"StateSetNotification", 6},
                                                                  {"LeaveGroupNotification", 7}}) {
        zeb_notification *n = received(short_event(name, "", "body"));
        EXPECT_EQ(zeb_notification_getClass(n), cls);
        EXPECT_EQ(zeb_notification_isMembership(n), cls <= 2 ? 1 : 0);
        EXPECT_STREQ(zeb_notification_type(n), "/m");
        EXPECT_EQ(zeb_notification_generatingComponent(n), nullptr);
        EXPECT_EQ(zeb_notification_instanceName(n), nullptr);
        EXPECT_EQ(zeb_notification_deliveryTime(n), 2);
        EXPECT_EQ(body_of(n), "body");
        EXPECT_EQ(properties_of(n), pairs{});
        zeb_subscriber_relinquish(sub, n);
    }
}

TEST_F(incoming, outgoing_stream_class_has_the_lines_of_a_message)
{
    zeb_notification *n =
        received(replaced(wholeMessage, "MessageNotification", "OutgoingStreamingNotification"));
    EXPECT_EQ(zeb_notification_getClass(n), 3U);
    EXPECT_STREQ(zeb_notification_generatingNode(n), "node1");
    EXPECT_EQ(body_of(n), "he\r\nl");
    zeb_subscriber_relinquish(sub, n);
}

TEST_F(incoming, incoming_stream_class_has_a_stream_key_line)
{
    p.send(replaced(replaced(wholeMessage, "MessageNotification", "IncomingStreamingNotification"),
                    "Content-Length", "streamKey: key\r\nContent-Length"));
    EXPECT_EQ(receive_type(sub), "/app/disk/full");
    p.send(message("1", "/after")); /* the line was read where it stands */
    EXPECT_EQ(receive_type(sub), "/after");
}

TEST_F(incoming, unknown_class_is_reported_and_ends_the_connection)
{
    const stderr_capture messages;
    expect_loss(replaced(wholeMessage, "MessageNotification", "UnknownNotificationClass"));
    EXPECT_EQ(messages.text(), "Notification Read Error: unknown class of notification\n");
    expect_loss(replaced(wholeMessage, "MessageNotification", "messageNotification"));
    expect_loss(replaced(wholeMessage, "MessageNotification", "MessageNotification "));
    expect_loss(replaced(wholeMessage, "MessageNotification", ""));
    EXPECT_EQ(messages.text(), "Notification Read Error: unknown class of notification\n"
                               "Notification Read Error: unknown class of notification\n"
                               "Notification Read Error: unknown class of notification\n"
                               "Notification Read Error: unknown class of notification\n");
    p.send(message("1", "/after"));
    EXPECT_EQ(receive_type(sub), "/after");
}

/* ---- Addresses ---- */

TEST_F(incoming, address_list_is_read_right_behind_the_empty_line)
{
    const std::string list = block_signature() + address("srcAddr", {{"component", "disk"}, {"key", "k1"}});
    std::string text =
        replaced(message("1", "/t"), "AddrList-Length: 0", "AddrList-Length: " + std::to_string(list.size()));
    zeb_notification *n = received(text + list);
    EXPECT_EQ(body_of(n), "<null>");
    ASSERT_NE(zeb_notification_generatingAddress(n), nullptr);
    EXPECT_STREQ(zeb_logicaladdr_getComponent(zeb_notification_generatingAddress(n)), "disk");
    zeb_subscriber_relinquish(sub, n);
}

TEST_F(incoming, second_letter_of_a_segment_name_says_what_the_address_is)
{
    zeb_notification *n = received(short_event(
        "MembershipDeltaNotification",
        address("srcAddr", {{"component", "source"}, {"hostname", "h"}, {"tier", "t"}, {"tierid", "i"}},
                {{"role", "master"}}) +
            address("dstAddr0", {{"component", "d0"}}) + address("dstAddr1", {{"component", "d1"}}) +
            address("mbrAddr0", {{"component", "m0"}, {"instancename", "in"}, {"subscription", "s"}}) +
            address("addAddr0", {{"component", "a0"}}) + address("delAddr0", {{"component", "r0"}}) +
            address("x?", {{"component", "r1"}}),
        "body"));
    EXPECT_EQ(body_of(n), "body");
    const zeb_logicaladdr *source = zeb_notification_generatingAddress(n);
    EXPECT_STREQ(zeb_logicaladdr_getComponent(source), "source");
    EXPECT_STREQ(zeb_logicaladdr_getHostName(source), "h");
    EXPECT_STREQ(zeb_logicaladdr_getTier(source), "t");
    EXPECT_STREQ(zeb_logicaladdr_getTierId(source), "i");
    EXPECT_EQ(zeb_logicaladdr_getInstanceName(source), nullptr);
    EXPECT_EQ(zeb_logicaladdr_getPropertyCount(source), 1);
    EXPECT_STREQ(zeb_logicaladdr_getProperty(source, "role"), "master");
    const auto component = [](zeb_laddrlist *list, int32_t index) {
        return text_or_null(zeb_logicaladdr_getComponent(zeb_laddrlist_get(list, index)));
    };
    EXPECT_EQ(zeb_laddrlist_count(zeb_notification_getDestinationAddrs(n)), 2);
    EXPECT_EQ(component(zeb_notification_getDestinationAddrs(n), 0), "d0");
    EXPECT_EQ(component(zeb_notification_getDestinationAddrs(n), 1), "d1");
    EXPECT_EQ(zeb_laddrlist_count(zeb_notification_obtainMemberList(n)), 1);
    EXPECT_EQ(component(zeb_notification_obtainMemberList(n), 0), "m0");
    EXPECT_EQ(component(zeb_notification_getMembersAdded(n), 0), "a0");
    EXPECT_EQ(zeb_laddrlist_count(zeb_notification_getMembersRemoved(n)),
              2); /* an unknown letter goes on with it */
    EXPECT_EQ(component(zeb_notification_getMembersRemoved(n), 0), "r0");
    EXPECT_EQ(component(zeb_notification_getMembersRemoved(n), 1), "r1");
    zeb_subscriber_relinquish(sub, n);
}

TEST_F(incoming, addresses_that_cannot_be_read_leave_the_notification_without)
{
    const std::string good = block_signature() + address("srcAddr", {{"component", "c"}});
    std::vector<std::string> lists{std::string(40, '\0'), std::string(3, 'x'), "x" + good,
                                   good.substr(0, 11)};
    for (const std::string &list : lists) {
        zeb_notification *n = received(replaced(message("1", "/t"), "AddrList-Length: 0",
                                                "AddrList-Length: " + std::to_string(list.size())) +
                                       list);
        EXPECT_EQ(zeb_notification_generatingAddress(n), nullptr);
        EXPECT_STREQ(zeb_notification_type(n), "/t");
        zeb_subscriber_relinquish(sub, n);
    }
    for (size_t length = 12; length < good.size();
         length++) { /* cut: what stands before the cut may be there */
        const std::string list = good.substr(0, length);
        zeb_notification *n = received(
            replaced(message("1", "/t"), "AddrList-Length: 0", "AddrList-Length: " + std::to_string(length)) +
            list);
        EXPECT_STREQ(zeb_notification_type(n), "/t");
        zeb_subscriber_relinquish(sub, n);
    }
}

TEST_F(incoming, nested_addresses_far_beyond_any_sense_do_no_harm)
{
    std::string records;
    for (int level = 0; level < 256; level++)
        records += segment("srcAddr", level) + element("component", "c");
    const int addresses = threadSanitizer ? 2000 : 20000; /* it takes 20 times as long there */
    for (int i = 0; i < addresses; i++)
        records += segment("dstAddr", 0);
    p.send(short_event("MembershipListNotification", records));
    EXPECT_EQ(receive_type(sub), "/m");
}

/* ---- Lengths ---- */

TEST_F(incoming, lengths_below_one_and_no_number_mean_none)
{
    for (const char *length : {"0", "-1", "-2147483648", "", "much"}) {
        std::string text =
            replaced(message("1", "/t"), "Content-Length: 0", "Content-Length: " + std::string(length));
        text = replaced(text, "AddrList-Length: 0", "AddrList-Length: " + std::string(length));
        zeb_notification *n = received(text);
        EXPECT_EQ(body_of(n), "<null>") << length;
        zeb_subscriber_relinquish(sub, n);
    }
}

TEST_F(incoming, lengths_are_decimal_whatever_they_look_like)
{
    zeb_notification *n =
        received(replaced(message("1", "/t", "0123456789"), "Content-Length: 10", "Content-Length: 010"));
    EXPECT_EQ(body_of(n), "0123456789");
    zeb_subscriber_relinquish(sub, n);
    n = received(replaced(message("1", "/t"), "Content-Length: 0", "Content-Length: 0x10"));
    EXPECT_EQ(body_of(n), "<null>");
    zeb_subscriber_relinquish(sub, n);
}

TEST_F(incoming, body_that_is_announced_and_not_sent_is_reported_with_what_is_missing)
{
    const stderr_capture messages;
    p.send(replaced(message("1", "/t"), "Content-Length: 0", "Content-Length: 2147483647") + "12345");
    p.half_close();
    p.expect_close();
    EXPECT_EQ(messages.text(), "READ LESS THAN THE FULL BUFFER, ret=0, len=2147483642\n");
    p = daemon.accept_connected(home.path());
    p.expect(subscribe_request(1, "/t"));
    EXPECT_EQ(zeb_subscriber_receive(sub, 0, 0), nullptr);
}

TEST_F(incoming, addresses_that_are_announced_and_not_sent_end_the_connection)
{
    const stderr_capture messages;
    p.send(replaced(message("1", "/t", "body"), "AddrList-Length: 0", "AddrList-Length: 2147483647"));
    p.half_close();
    p.expect_close();
    EXPECT_EQ(messages.text(), "READ LESS THAN THE FULL BUFFER, ret=0, len=2147483647\n");
    p = daemon.accept_connected(home.path());
    EXPECT_EQ(zeb_subscriber_receive(sub, 0, 0), nullptr);
}

/* ---- Identifiers ---- */

TEST_F(incoming, events_for_several_subscribers_are_delivered_to_none)
{
    for (const char *ids : {"1;2", "1;1", "3;9", "1;", ";1", ";", "1;2;3;4;5;6;7;8;9;10", "1;x"})
        expect_passed_over(message(ids, "/t", "body"));
}

TEST_F(incoming, events_for_nobody_are_passed_over)
{
    for (const char *ids :
         {"0", "2", "11", "-1", "2147483647", "-2147483648", "x", " ", "99999999999999999999"})
        expect_passed_over(message(ids, "/t", "body"));
}

TEST_F(incoming, text_around_the_identifier_is_ignored)
{
    p.send(message(" 1", "/a") + message("+1", "/b") + message("1x", "/c") + message("01", "/d"));
    for (const char *type : {"/a", "/b", "/c", "/d"})
        EXPECT_EQ(receive_type(sub), type);
}

TEST_F(incoming, empty_identifier_ends_the_connection)
{
    expect_loss(message("", "/t"));
}

TEST_F(incoming, thousands_of_identifiers_do_no_harm)
{
    std::string ids = "1";
    for (int i = 0; i < 100000; i++)
        ids += ";1";
    expect_passed_over(message(ids, "/t"));
}

/* ---- Request lines ---- */

TEST_F(incoming, unknown_request_lines_are_reported_whole_and_passed_over)
{
    const std::string longLine(5000, 'z');
    std::string expected;
    const stderr_capture messages;
    for (const std::string &line :
         {std::string("POST /hello HTTP/1.1"), std::string("HTTP/1.1 200 OK"), std::string("POST /even"),
          std::string("POST /statu"), std::string("POST /EVENT HTTP/1.1"),
          std::string("POST  /event HTTP/1.1"), std::string("abc"), std::string("x"), std::string(""),
          std::string("%s%n%d"), longLine}) {
        expect_passed_over(line + "\r\n");
        expected += "UNKNOWN MESSAGE LINE RECEIVED ==> " + line + "\n";
    }
    EXPECT_EQ(messages.text(), expected);
}

TEST_F(incoming, only_characters_seven_to_eleven_of_the_request_line_are_looked_at)
{
    p.send(replaced(message("1", "/a"), "POST /event HTTP/1.1", "......event"));
    p.send(replaced(message("1", "/b"), "POST /event HTTP/1.1", "GET //eventually"));
    EXPECT_EQ(receive_type(sub), "/a");
    EXPECT_EQ(receive_type(sub), "/b");
}

TEST_F(incoming, closed_standard_error_does_no_harm)
{
    const int saved = dup(STDERR_FILENO);
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    dup2(ends[1], STDERR_FILENO);
    close(ends[0]); /* whoever writes there now gets SIGPIPE, or an error when that is blocked */
    close(ends[1]);
    p.send("POST /hello HTTP/1.1\r\n" + message("1", "/after"));
    EXPECT_EQ(receive_type(sub), "/after");
    dup2(saved, STDERR_FILENO);
    close(saved);
}

/* ---- Lines out of place ---- */

std::vector<std::string> head_lines(std::string_view text)
{
    std::vector<std::string> all;
    for (size_t from = 0, end; (end = text.find("\r\n", from)) != std::string_view::npos && end > from;
         from = end + 2)
        all.emplace_back(text.substr(from, end - from));
    return all;
}

std::string joined(const std::vector<std::string> &all)
{
    std::string text;
    for (const std::string &line : all)
        text += line + "\r\n";
    return text + "\r\nhe\r\nl";
}

/* Each line deleted, doubled, swapped with the next, emptied, cut to its name, shortened, with a NUL, with
 * 0xFF, with a huge and a negative number. The library goes on or connects anew, and then works. */
TEST_F(incoming, spoiled_lines_do_no_lasting_harm)
{
    const stderr_capture messages;
    const std::vector<std::string> good = head_lines(wholeMessage);
    ASSERT_EQ(good.size(), 19U);
    std::vector<std::string> spoiled;
    for (size_t i = 0; i < good.size(); i++) {
        std::vector<std::string> changed = good;
        changed.erase(changed.begin() + static_cast<std::ptrdiff_t>(i));
        spoiled.push_back(joined(changed));
        changed = good;
        changed.insert(changed.begin() + static_cast<std::ptrdiff_t>(i), good[i]);
        spoiled.push_back(joined(changed));
        changed = good;
        std::swap(changed[i], changed[(i + 1) % good.size()]);
        spoiled.push_back(joined(changed));
        const std::string name = good[i].substr(0, good[i].find(' ') + 1);
        for (const std::string &text :
             {std::string(), name, good[i].substr(0, 1), good[i].substr(0, good[i].size() - 1),
              std::string(1, '\0') + good[i], good[i] + '\0', good[i] + "\xFF", name + "2147483647",
              name + "4294967296", name + "-1", name + "\r"}) {
            changed = good;
            changed[i] = text;
            spoiled.push_back(joined(changed));
        }
    }
    for (const std::string &text : spoiled) {
        SCOPED_TRACE(shown(text));
        p.send(text);
        p.half_close();
        p.expect_close();
        p = daemon.accept_connected(home.path());
        p.expect(subscribe_request(1, "/t"));
        while (zeb_notification *n = zeb_subscriber_receive(sub, 0, 0))
            zeb_subscriber_relinquish(sub, n);
    }
    p.send(message("1", "/after"));
    EXPECT_EQ(receive_type(sub), "/after");
}

} // namespace
