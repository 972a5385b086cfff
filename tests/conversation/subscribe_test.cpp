/* Creating subscribers: the request on the wire, the daemon's answer, and what becomes of it. */
#include "conversation.h"

namespace
{

using namespace zebtest;
using subscribing = conversation;

/* What a creation came to. */
struct created {
    zeb_subscriber *sub;
    std::string text;
};

created create(const char *subscription = "/t", int64_t timeout = -1)
{
    char *text = nullptr;
    zeb_subscriber *sub = zeb_subscriber_create_wtimeout(subscription, "c", nullptr, nullptr, &text, timeout);
    return {sub, text_or_null(owned_text(text).get())};
}

/* ---- The request ---- */

TEST_F(subscribing, request_with_everything_absent)
{
    peer p = connected();
    zeb_subscriber *sub = zeb_subscriber_create_async(nullptr, nullptr, nullptr, nullptr);
    p.expect_lines({"POST /subscribe HTTP/1.1", "Content-Length: 0", "SubscriberID: 1", "Subscription: null",
                    "Component: ", "MbrInterest: null", "MbrDeltas: false", "numberOfProperties: 0", ""});
    EXPECT_EQ(zeb_subscriber_subscription(sub), nullptr);
    EXPECT_EQ(zeb_subscriber_component(sub), nullptr);
    EXPECT_EQ(zeb_subscriber_id(sub), 1U);
    EXPECT_NE(zeb_subscriber_getPublisher(sub), nullptr);
    zeb_subscriber_close(sub);
}

TEST_F(subscribing, request_with_everything_given)
{
    peer p = connected();
    zeb_proplist *properties = zeb_proplist_create();
    zeb_proplist_put(properties, "role", "master");
    zeb_proplist_put(properties, "zone", "a: b");
    zeb_proplist_put(properties, "empty", "");
    zeb_subscriber *sub = zeb_subscriber_create_async("/disk/*", "monitor", "/group", properties);
    zeb_proplist_destroy(&properties);
    p.expect_lines({"POST /subscribe HTTP/1.1", "Content-Length: 0", "SubscriberID: 1",
                    "Subscription: /disk/*", "Component: monitor", "MbrInterest: /group", "MbrDeltas: false",
                    "numberOfProperties: 3", "role: master", "zone: a: b", "empty: ", ""});
    EXPECT_STREQ(zeb_subscriber_subscription(sub), "/disk/*");
    EXPECT_STREQ(zeb_subscriber_component(sub), "monitor");
    zeb_subscriber_close(sub);
}

TEST_F(subscribing, empty_texts_are_written_as_nothing)
{
    peer p = connected();
    zeb_subscriber *sub = zeb_subscriber_create_async("", "", "", nullptr);
    p.expect_lines({"POST /subscribe HTTP/1.1", "Content-Length: 0", "SubscriberID: 1", "Subscription: ",
                    "Component: ", "MbrInterest: ", "MbrDeltas: false", "numberOfProperties: 0", ""});
    zeb_subscriber_close(sub);
}

TEST_F(subscribing, deltas_are_asked_for_as_true)
{
    peer p = connected();
    background creation([] { return zeb_subscriber_create_wdeltas("/t", "c", "/group", nullptr, nullptr); });
    p.expect_lines({"POST /subscribe HTTP/1.1", "Content-Length: 0", "SubscriberID: 1", "Subscription: /t",
                    "Component: c", "MbrInterest: /group", "MbrDeltas: true", "numberOfProperties: 0", ""});
    p.send(status_reply(1, "success"));
    zeb_subscriber_close(creation.get());
}

TEST_F(subscribing, long_subscriptions_and_many_properties_are_sent_whole)
{
    peer p = connected();
    const std::string subscription(20000, 's');
    zeb_proplist *properties = zeb_proplist_create();
    std::string expected = "numberOfProperties: 300\r\n";
    for (int i = 0; i < 300; i++) {
        const std::string name = "name" + std::to_string(i);
        zeb_proplist_put(properties, name.c_str(), "value");
        expected += name + ": value\r\n";
    }
    zeb_subscriber *sub = zeb_subscriber_create_async(subscription.c_str(), "c", nullptr, properties);
    zeb_proplist_destroy(&properties);
    std::string request = subscribe_request(1, subscription);
    request.replace(request.find("numberOfProperties: 0\r\n"), 23, expected);
    p.expect(request);
    zeb_subscriber_close(sub);
}

TEST_F(subscribing, closing_sends_an_unsubscribe_of_three_lines)
{
    peer p = connected();
    zeb_subscriber *sub = subscribed(p, 1);
    zeb_subscriber_close(sub);
    p.expect_lines({"POST /unsubscribe HTTP/1.1", "Content-Length: 0", "SubscriberID: 1", ""});
    EXPECT_EQ(sent_before_mark(p), "");
}

TEST_F(subscribing, closing_a_pending_subscriber_sends_an_unsubscribe_too)
{
    peer p = connected();
    zeb_subscriber *sub = zeb_subscriber_create_async("/t", "c", nullptr, nullptr);
    zeb_subscriber_close(sub);
    p.expect(subscribe_request(1, "/t") + unsubscribe_request(1));
    p.send(status_reply(1, "success", "too late"));
    EXPECT_EQ(sent_before_mark(p), "");
}

/* ---- Identifiers ---- */

TEST_F(subscribing, identifiers_count_on_beyond_every_table_size_and_are_not_used_again)
{
    peer p = connected();
    std::vector<zeb_subscriber *> subs;
    for (uint32_t id = 1; id <= 11; id++) {
        subs.push_back(zeb_subscriber_create_async("/t", "c", nullptr, nullptr));
        EXPECT_EQ(zeb_subscriber_id(subs.back()), id);
        p.expect(subscribe_request(id, "/t"));
    }
    zeb_subscriber_close(subs[2]);
    p.expect(unsubscribe_request(3));
    for (uint32_t id = 12; id <= 45; id++) {
        subs.push_back(zeb_subscriber_create_async("/t", "c", nullptr, nullptr));
        EXPECT_EQ(zeb_subscriber_id(subs.back()), id);
        p.expect(subscribe_request(id, "/t"));
    }
    p.send(message("11", "/eleven") + message("45", "/last"));
    p.send(status_reply(11, "success") + status_reply(45, "success"));
    EXPECT_TRUE(eventually([&] { return zeb_subscriber_status(subs[44], nullptr) == 0; }));
    EXPECT_EQ(zeb_subscriber_status(subs[10], nullptr), 0);
    EXPECT_EQ(receive_type(subs[10]), "/eleven");
    EXPECT_EQ(receive_type(subs[44]), "/last");
    for (size_t i = 0; i < subs.size(); i++) {
        if (i != 2)
            zeb_subscriber_close(subs[i]);
    }
}

TEST_F(subscribing, identifier_of_a_refused_subscriber_is_not_used_again)
{
    peer p = connected();
    background creation([] { return create(); });
    p.expect(subscribe_request(1, "/t"));
    p.send(status_reply(1, "failure"));
    EXPECT_EQ(creation.get().sub, nullptr);
    zeb_subscriber_close(subscribed(p, 2));
}

/* ---- Waiting for the answer ---- */

TEST_F(subscribing, success_gives_the_subscriber_and_the_daemons_text)
{
    peer p = connected();
    background creation([] { return create(); });
    p.expect(subscribe_request(1, "/t"));
    p.send(status_reply(1, "success", "welcome: you"));
    const created result = creation.get();
    EXPECT_EQ(result.text, "welcome: you");
    ASSERT_NE(result.sub, nullptr);
    char *text = nullptr;
    EXPECT_EQ(zeb_subscriber_status(result.sub, &text), 0);
    EXPECT_EQ(text, nullptr);
    zeb_subscriber_close(result.sub);
}

TEST_F(subscribing, success_without_text_gives_null)
{
    peer p = connected();
    background creation([] { return create(); });
    p.expect(subscribe_request(1, "/t"));
    p.send(status_reply(1, "success"));
    const created result = creation.get();
    EXPECT_EQ(result.text, "<null>");
    zeb_subscriber_close(result.sub);
}

TEST_F(subscribing, refusal_gives_null_and_the_daemons_text_and_no_unsubscribe)
{
    peer p = connected();
    background creation([] { return create(); });
    p.expect(subscribe_request(1, "/t"));
    p.send(status_reply(1, "failure", "no such thing"));
    const created result = creation.get();
    EXPECT_EQ(result.sub, nullptr);
    EXPECT_EQ(result.text, "no such thing");
    EXPECT_EQ(sent_before_mark(p), "");
}

TEST_F(subscribing, refusal_without_text_gives_null_for_both)
{
    peer p = connected();
    background creation([] { return create(); });
    p.expect(subscribe_request(1, "/t"));
    p.send(status_reply(1, "failure"));
    const created result = creation.get();
    EXPECT_EQ(result.sub, nullptr);
    EXPECT_EQ(result.text, "<null>");
}

TEST_F(subscribing, status_text_may_be_unwanted)
{
    peer p = connected();
    background creation([] { return zeb_subscriber_create("/t", "c", nullptr, nullptr, nullptr); });
    p.expect(subscribe_request(1, "/t"));
    p.send(status_reply(1, "failure", "unwanted"));
    EXPECT_EQ(creation.get(), nullptr);
}

TEST_F(subscribing, two_seconds_with_a_silent_daemon_end_in_timedout_after_one_to_two)
{
    peer p = connected();
    const stopwatch watch;
    const created result = create("/t", 2000);
    EXPECT_GE(watch.elapsed(), milliseconds{950});
    EXPECT_LE(watch.elapsed(), milliseconds{2500});
    EXPECT_EQ(result.sub, nullptr);
    EXPECT_EQ(result.text, "timedout");
    EXPECT_EQ(sent_before_mark(p), subscribe_request(1, "/t")); /* and no unsubscribe follows */
    p.send(status_reply(1, "success", "too late"));
    EXPECT_EQ(sent_before_mark(p), "");
}

TEST_F(subscribing, limits_below_a_second_do_not_wait_at_all)
{
    peer p = connected();
    for (const int64_t timeout : {1, 500, 999}) {
        const stopwatch watch;
        const created result = create("/t", timeout);
        EXPECT_LT(watch.elapsed(), milliseconds{400});
        EXPECT_EQ(result.sub, nullptr);
        EXPECT_EQ(result.text, "timedout");
    }
}

TEST_F(subscribing, limits_of_zero_and_below_are_none)
{
    peer p = connected();
    uint32_t id = 0;
    for (const int64_t timeout : {int64_t{0}, int64_t{-1}, int64_t{-5000}, INT64_MIN}) {
        background creation([=] { return create("/t", timeout); });
        p.expect(subscribe_request(++id, "/t"));
        EXPECT_EQ(sent_before_mark(p), "");
        EXPECT_FALSE(creation.done_within(milliseconds{50}));
        p.send(status_reply(id, "success"));
        const created result = creation.get();
        EXPECT_NE(result.sub, nullptr);
        zeb_subscriber_close(result.sub);
        p.expect(unsubscribe_request(id));
    }
}

TEST_F(subscribing, enormous_limits_wait)
{
    peer p = connected();
    background creation([] { return create("/t", INT64_MAX); });
    p.expect(subscribe_request(1, "/t"));
    EXPECT_FALSE(creation.done_within(milliseconds{50}));
    p.send(status_reply(1, "success"));
    const created result = creation.get();
    EXPECT_EQ(result.text, "<null>");
    zeb_subscriber_close(result.sub);
}

TEST_F(subscribing, many_threads_create_at_once_and_each_gets_its_own_answer)
{
    peer p = connected();
    std::vector<std::unique_ptr<background<created>>> creations;
    for (int i = 0; i < 8; i++)
        creations.push_back(std::make_unique<background<created>>([] { return create(); }));
    for (uint32_t i = 0; i < 8; i++) {
        const std::string head = p.read_head();
        const auto id = static_cast<uint32_t>(std::stoul(head.substr(head.find("SubscriberID: ") + 14)));
        p.send(status_reply(id, id % 2 == 0 ? "success" : "failure", "for " + std::to_string(id)));
    }
    int succeeded = 0;
    for (const auto &creation : creations) {
        const created result = creation->get();
        if (result.sub != nullptr) {
            EXPECT_EQ(result.text, "for " + std::to_string(zeb_subscriber_id(result.sub)));
            succeeded++;
            zeb_subscriber_close(result.sub);
        }
    }
    EXPECT_EQ(succeeded, 4);
}

/* ---- Not waiting for it ---- */

TEST_F(subscribing, asynchronous_status_is_pending_until_the_answer_then_subscribed)
{
    peer p = connected();
    zeb_subscriber *sub = zeb_subscriber_create_async("/t", "c", nullptr, nullptr);
    p.expect(subscribe_request(1, "/t"));
    char *text = nullptr;
    EXPECT_EQ(zeb_subscriber_status(sub, &text), 1);
    EXPECT_EQ(zeb_subscriber_status(sub, nullptr), 1);
    p.send(status_reply(1, "success", "unseen"));
    EXPECT_TRUE(eventually([&] { return zeb_subscriber_status(sub, &text) == 0; }));
    EXPECT_EQ(zeb_subscriber_status(sub, &text), 0);
    EXPECT_EQ(text, nullptr);
    zeb_subscriber_close(sub);
}

TEST_F(subscribing, asynchronous_refusal_is_reported_once_with_the_daemons_text)
{
    peer p = connected();
    zeb_subscriber *sub = zeb_subscriber_create_async("/t", "c", nullptr, nullptr);
    p.expect(subscribe_request(1, "/t"));
    p.send(status_reply(1, "failure", "no such thing"));
    char *text = nullptr;
    int32_t status = 1;
    EXPECT_TRUE(eventually([&] { return (status = zeb_subscriber_status(sub, &text)) != 1; }));
    EXPECT_EQ(status, 2);
    EXPECT_EQ(text_or_null(owned_text(text).get()), "no such thing");
    text = nullptr;
    EXPECT_EQ(zeb_subscriber_status(sub, &text), 0);
    EXPECT_EQ(text, nullptr);
    zeb_subscriber_close(sub);
}

TEST_F(subscribing, asynchronous_refusal_without_text_reports_null)
{
    peer p = connected();
    zeb_subscriber *sub = zeb_subscriber_create_async("/t", "c", nullptr, nullptr);
    p.expect(subscribe_request(1, "/t"));
    p.send(status_reply(1, "failure"));
    char stale[] = "stale";
    char *text = stale;
    int32_t status = 1;
    EXPECT_TRUE(eventually([&] { return (status = zeb_subscriber_status(sub, &text)) != 1; }));
    EXPECT_EQ(status, 2);
    EXPECT_EQ(text, nullptr);
    zeb_subscriber_close(sub);
}

TEST_F(subscribing, a_second_answer_before_the_status_was_asked_for_replaces_the_first)
{
    peer p = connected();
    zeb_subscriber *sub = zeb_subscriber_create_async("/t", "c", nullptr, nullptr);
    p.expect(subscribe_request(1, "/t"));
    p.send(status_reply(1, "success", "first") + status_reply(1, "failure", "second"));
    zeb_subscriber_close(subscribed(p, 2)); /* by its answer both have been read */
    char *text = nullptr;
    EXPECT_EQ(zeb_subscriber_status(sub, &text), 2);
    EXPECT_EQ(text_or_null(owned_text(text).get()), "second");
    zeb_subscriber_close(sub);
}

TEST_F(subscribing, names_are_the_identifier_until_one_is_set)
{
    peer p = connected();
    zeb_subscriber *sub = subscribed(p, 1);
    EXPECT_STREQ(zeb_subscriber_getName(sub), "1");
    EXPECT_STREQ(zeb_subscriber_setName(sub, "first"), "first");
    EXPECT_STREQ(zeb_subscriber_getName(sub), "first");
    EXPECT_STREQ(zeb_subscriber_setName(sub, zeb_subscriber_getName(sub)), "first");
    EXPECT_EQ(zeb_subscriber_setName(sub, nullptr), nullptr);
    EXPECT_STREQ(zeb_subscriber_getName(sub), "1");
    EXPECT_STREQ(zeb_subscriber_setName(sub, ""), "");
    EXPECT_STREQ(zeb_subscriber_getName(sub), "");
    zeb_subscriber_close(sub);
}

/* ---- Reading the answer ---- */

class answer : public conversation
{
  protected:
    /* What a creation comes to when the daemon answers with HEADER behind the request line. */
    created answered(std::string_view header)
    {
        peer p = connected();
        background creation([] { return create(); });
        p.expect(subscribe_request(1, "/t"));
        p.send("POST /status HTTP/1.1\r\n" + std::string(header) + "\r\n");
        const created result = creation.get();
        if (result.sub != nullptr)
            zeb_subscriber_close(result.sub);
        return result;
    }

    /* True when the connection lives on after HEADER, and nobody's creation was answered by it. */
    void expect_ignored(std::string_view header)
    {
        peer p = connected();
        background creation([] { return create(); });
        p.expect(subscribe_request(1, "/t"));
        p.send("POST /status HTTP/1.1\r\n" + std::string(header) + "\r\n");
        p.send(status_reply(1, "success", "the proper one"));
        const created result = creation.get();
        EXPECT_EQ(result.text, "the proper one");
        zeb_subscriber_close(result.sub);
        p.expect(unsubscribe_request(1));
    }

    /* HEADER ends the connection, and the creation is asked for again on the next. */
    void expect_loss(std::string_view header)
    {
        peer p = connected();
        background creation([] { return create(); });
        p.expect(subscribe_request(1, "/t"));
        p.send("POST /status HTTP/1.1\r\n" + std::string(header) + "\r\n");
        p.expect_close();
        peer next = daemon.accept_connected(home.path());
        next.expect(subscribe_request(1, "/t"));
        next.send(status_reply(1, "success", "on the second"));
        const created result = creation.get();
        EXPECT_EQ(result.text, "on the second");
        zeb_subscriber_close(result.sub);
    }
};

TEST_F(answer, result_ignores_case)
{
    EXPECT_NE(answered("Result: SUCCESS\r\nSubscriberID: 1\r\n").sub, nullptr);
}

TEST_F(answer, result_is_compared_whole)
{
    EXPECT_EQ(answered("Result: success!\r\nSubscriberID: 1\r\n").sub, nullptr);
}

TEST_F(answer, missing_result_is_a_refusal)
{
    EXPECT_EQ(answered("SubscriberID: 1\r\nMessage: m\r\n").text, "m");
}

TEST_F(answer, empty_result_is_a_refusal)
{
    EXPECT_EQ(answered("Result:\r\nSubscriberID: 1\r\n").sub, nullptr);
}

TEST_F(answer, value_starts_two_characters_behind_the_colon)
{
    EXPECT_EQ(answered("Result:success\r\nSubscriberID: 1\r\n").sub, nullptr);
}

TEST_F(answer, any_character_may_stand_behind_the_colon)
{
    EXPECT_NE(answered("Result:=success\r\nSubscriberID:#1\r\n").sub, nullptr);
}

TEST_F(answer, header_names_are_compared_with_their_case)
{
    EXPECT_EQ(answered("result: success\r\nSubscriberID: 1\r\nmessage: m\r\n").text, "<null>");
}

TEST_F(answer, order_other_names_and_lines_without_colon_do_not_matter)
{
    const created result = answered("no colon\r\nMessage: m\r\nX: y\r\n: nameless\r\nSubscriberID: 1\r\n"
                                    "SubscriberIDs: 7\r\nResult: success\r\nResults: failure\r\n");
    EXPECT_NE(result.sub, nullptr);
    EXPECT_EQ(result.text, "m");
}

TEST_F(answer, last_of_repeated_headers_counts)
{
    const created result =
        answered("Result: failure\r\nMessage: first\r\nSubscriberID: 9\r\nSubscriberID: 1\r\n"
                 "Message: second\r\nMessage: \r\nResult: success\r\n");
    EXPECT_NE(result.sub, nullptr);
    EXPECT_EQ(result.text, "second"); /* the empty one is none */
}

TEST_F(answer, message_keeps_its_colons_and_spaces)
{
    EXPECT_EQ(answered("Result: failure\r\nSubscriberID: 1\r\nMessage:  a: b : \r\n").text, " a: b : ");
}

TEST_F(answer, empty_message_is_none)
{
    EXPECT_EQ(answered("Result: failure\r\nSubscriberID: 1\r\nMessage:\r\n").text, "<null>");
}

TEST_F(answer, text_behind_the_identifier_is_ignored)
{
    EXPECT_NE(answered("Result: success\r\nSubscriberID:  1abc\r\n").sub, nullptr);
}

TEST_F(answer, lines_may_end_with_line_feed_alone)
{
    EXPECT_NE(answered("Result: success\nSubscriberID: 1\n").sub, nullptr);
}

TEST_F(answer, for_identifier_zero_is_ignored)
{
    expect_ignored("Result: success\r\nSubscriberID: 0\r\nMessage: m\r\n");
}

TEST_F(answer, with_empty_identifier_counts_as_zero)
{
    expect_ignored("Result: success\r\nSubscriberID:\r\nMessage: m\r\n");
}

TEST_F(answer, with_identifier_that_is_no_number_counts_as_zero)
{
    expect_ignored("Result: success\r\nSubscriberID: one\r\nMessage: m\r\n");
}

TEST_F(answer, for_negative_identifier_is_ignored)
{
    expect_ignored("Result: success\r\nSubscriberID: -2\r\nMessage: m\r\n");
}

TEST_F(answer, for_identifier_never_given_out_is_ignored)
{
    expect_ignored("Result: success\r\nSubscriberID: 2\r\nMessage: m\r\n");
}

TEST_F(answer, for_identifier_beyond_the_table_is_ignored)
{
    expect_ignored("Result: success\r\nSubscriberID: 2147483647\r\nMessage: m\r\n");
}

TEST_F(answer, for_smallest_identifier_is_ignored)
{
    expect_ignored("Result: success\r\nSubscriberID: -2147483648\r\nMessage: m\r\n");
}

TEST_F(answer, without_identifier_ends_the_connection)
{
    expect_loss("Result: success\r\nMessage: m\r\n");
}

TEST_F(answer, with_identifier_minus_one_ends_the_connection)
{
    expect_loss("Result: success\r\nSubscriberID: -1\r\nMessage: m\r\n");
}

TEST_F(answer, without_any_header_ends_the_connection)
{
    expect_loss("");
}

TEST_F(answer, for_a_closed_subscriber_is_ignored)
{
    peer p = connected();
    zeb_subscriber_close(subscribed(p, 1));
    p.expect(unsubscribe_request(1));
    p.send(status_reply(1, "failure", "late"));
    zeb_subscriber_close(subscribed(p, 2));
}

TEST_F(answer, for_a_subscriber_without_a_question_is_ignored)
{
    peer p = connected();
    zeb_subscriber *sub = subscribed(p, 1);
    p.send(status_reply(1, "failure", "changed my mind") + message("1", "/after"));
    EXPECT_EQ(receive_type(sub), "/after");
    EXPECT_EQ(zeb_subscriber_status(sub, nullptr), 0);
    zeb_subscriber_close(sub);
}

TEST_F(answer, only_characters_seven_to_twelve_of_the_request_line_are_looked_at)
{
    peer p = connected();
    background creation([] { return create(); });
    p.expect(subscribe_request(1, "/t"));
    p.send("ABC..:status quo\r\nResult: success\r\nSubscriberID: 1\r\n\r\n");
    const created result = creation.get();
    EXPECT_NE(result.sub, nullptr);
    zeb_subscriber_close(result.sub);
}

TEST_F(answer, split_anywhere_is_understood)
{
    peer p = connected();
    const size_t length = status_reply(100, "success", "m").size();
    for (uint32_t at = 1; at < length; at++) {
        const uint32_t id = at;
        background creation([] { return create(); });
        p.expect(subscribe_request(id, "/t"));
        p.send_split(status_reply(id, "success", "m"),
                     std::min<size_t>(at, status_reply(id, "success", "m").size()));
        const created result = creation.get();
        ASSERT_EQ(result.text, "m") << "split at " << at;
        zeb_subscriber_close(result.sub);
        p.expect(unsubscribe_request(id));
    }
}

TEST_F(answer, one_byte_at_a_time_is_understood)
{
    peer p = connected();
    background creation([] { return create(); });
    p.expect(subscribe_request(1, "/t"));
    p.send_bytewise(status_reply(1, "success", "slowly"));
    const created result = creation.get();
    EXPECT_EQ(result.text, "slowly");
    zeb_subscriber_close(result.sub);
}

TEST_F(answer, cut_anywhere_is_not_delivered_and_the_subscription_is_asked_for_again)
{
    const std::string whole = status_reply(1, "success", "m");
    background creation([] {
        zeb_init();
        return create();
    });
    for (size_t length = 0; length < whole.size(); length++) {
        SCOPED_TRACE(length);
        peer p = daemon.accept_connected(home.path());
        p.expect(subscribe_request(1, "/t"));
        p.send(std::string_view(whole).substr(0, length));
        p.half_close();
        p.expect_close();
    }
    EXPECT_FALSE(creation.done_within(milliseconds{0}));
    peer p = daemon.accept_connected(home.path());
    p.expect(subscribe_request(1, "/t"));
    p.send(whole);
    const created result = creation.get();
    EXPECT_EQ(result.text, "m");
    zeb_subscriber_close(result.sub);
}

} // namespace
