/* Streams: the pieces a sender puts on the wire, and the bytes a receiver reads from them. */
#include "addresses.h"
#include "conversation.h"

#include <atomic>
#include <random>
#include <sys/wait.h>

namespace
{

using namespace zebtest;

/* ==== Sending ==== */

/* A piece as the library writes it: without destinations. KEY and SERIAL are what key and id have behind the
 * process. PROPERTIES are whole lines. */
std::string sent_piece(std::string_view serial, std::string_view key, std::string_view body,
                       std::initializer_list<std::string_view> properties = {},
                       std::string_view component = "c")
{
    return lines({"POST /event HTTP/1.1", "className: IncomingStreamingNotification", "SubscriberID: 0",
                  "eventType: /s", "eventId: " + process_name() + std::string(serial),
                  "affectedComponents: ", "affectedNodes: ", "generatingComponent: " + std::string(component),
                  "generatingProcess: " + process_name(), "generatingNode: " + host_name(),
                  "instanceName: east", "LocalOnly: false",
                  "numberOfProperties: " + std::to_string(properties.size())}) +
           lines(properties) +
           lines({"streamKey: " + process_name() + std::string(key),
                  "Content-Length: " + std::to_string(body.size()), "AddrList-Length: 0", ""}) +
           std::string(body);
}

class stream_sending : public conversation
{
  protected:
    stream_sending() : p(connected()), publisher(zeb_publisher_create("c")) {}
    ~stream_sending() override
    {
        zeb_publisher_close(publisher);
        zeb_shutdown_nowait();
    }

    /* The output stream of a new head of type "/s" that was published: its id ends in 01 when it is the
     * first. */
    zeb_outstream *published_stream() const
    {
        zeb_notification *head = zeb_notification_createstream("/s");
        zeb_publisher_publish(publisher, head);
        return zeb_notification_getOutputStream(head);
    }

    peer p;
    zeb_publisher *publisher;
};

TEST_F(stream_sending, each_write_is_a_piece_and_the_close_an_empty_one)
{
    zeb_outstream *out = published_stream();
    EXPECT_EQ(zeb_outstream_write(out, "ten bytes.", 10), 10);
    EXPECT_EQ(zeb_outstream_write(out, "twenty bytes, twenty", 20), 20);
    zeb_outstream_close(&out);
    EXPECT_EQ(out, nullptr);
    p.expect(sent_piece("02", "01", "ten bytes."));
    p.expect(sent_piece("03", "01", "twenty bytes, twenty"));
    p.expect(sent_piece("04", "01", ""));
}

TEST_F(stream_sending, publishing_the_head_sends_nothing)
{
    zeb_notification *head = zeb_notification_createstream("/s");
    EXPECT_EQ(zeb_notification_getClass(head), ZEB_CLASS_OUTGOINGSTREAM);
    EXPECT_EQ(zeb_notification_id(head), nullptr);
    zeb_publisher_publish(publisher, head);
    EXPECT_EQ(text_or_null(zeb_notification_id(head)), process_name() + "01");
    EXPECT_EQ(sent_before_mark(p), "");
    zeb_outstream *out = zeb_notification_getOutputStream(head);
    zeb_outstream_close(&out);
    p.expect(sent_piece("02", "01", ""));
}

TEST_F(stream_sending, properties_of_the_pieces_stand_in_the_reverse_order_of_the_heads)
{
    zeb_notification *head = zeb_notification_createstream("/s");
    zeb_notification_setProperty(head, "a", "1");
    zeb_notification_setProperty(head, "b", "2");
    zeb_notification_setProperty(head, "a", "3");
    EXPECT_STREQ(zeb_notification_getProperty(head, "a"), "3");
    zeb_publisher_publish(publisher, head);
    zeb_outstream *out = zeb_notification_getOutputStream(head);
    zeb_outstream_write(out, "x", 1);
    zeb_outstream_close(&out);
    /* A message with these properties would be written newest first: "a: 3", "b: 2", "a: 1". */
    p.expect(sent_piece("02", "01", "x", {"a: 1", "b: 2", "a: 3"}));
    p.expect(sent_piece("03", "01", "", {"a: 1", "b: 2", "a: 3"}));
}

TEST_F(stream_sending, properties_set_later_go_with_later_pieces)
{
    zeb_notification *head = zeb_notification_createstream("/s");
    zeb_publisher_publish(publisher, head);
    zeb_outstream *out = zeb_notification_getOutputStream(head);
    zeb_outstream_write(out, "x", 1);
    zeb_notification_setProperty(head, "k", "v");
    zeb_outstream_close(&out);
    p.expect(sent_piece("02", "01", "x"));
    p.expect(sent_piece("03", "01", "", {"k: v"}));
}

TEST_F(stream_sending, local_only_of_the_head_is_not_passed_on)
{
    zeb_notification *head = zeb_notification_createstream("/s");
    zeb_notification_setLocalOnly(head);
    zeb_publisher_publish(publisher, head);
    zeb_outstream *out = zeb_notification_getOutputStream(head);
    zeb_outstream_close(&out);
    p.expect(sent_piece("02", "01", "")); /* LocalOnly: false */
}

TEST_F(stream_sending, two_streams_of_one_publisher_have_two_keys)
{
    zeb_outstream *first = published_stream();
    zeb_outstream *second = published_stream();
    zeb_outstream_write(second, "b", 1);
    zeb_outstream_write(first, "a", 1);
    zeb_outstream_close(&second);
    zeb_outstream_close(&first);
    p.expect(sent_piece("03", "02", "b"));
    p.expect(sent_piece("04", "01", "a"));
    p.expect(sent_piece("05", "02", ""));
    p.expect(sent_piece("06", "01", ""));
}

TEST_F(stream_sending, a_head_published_again_keeps_its_key_and_changes_its_publisher)
{
    zeb_publisher *other = zeb_publisher_create("other");
    zeb_notification *head = zeb_notification_createstream("/s");
    zeb_publisher_publish(publisher, head);
    zeb_publisher_publish(other, head);
    zeb_outstream *out = zeb_notification_getOutputStream(head);
    zeb_outstream_close(&out);
    p.expect(sent_piece("11", "01", "", {}, "other"));
    zeb_publisher_close(other);
}

TEST_F(stream_sending, a_write_before_the_head_was_published_fails_and_sends_nothing)
{
    zeb_notification *head = zeb_notification_createstream("/s");
    zeb_outstream *out = zeb_notification_getOutputStream(head);
    EXPECT_EQ(zeb_outstream_write(out, "lost", 4), -1);
    zeb_publisher_publish(publisher, head);
    EXPECT_EQ(zeb_outstream_write(out, "sent", 4), 4);
    zeb_outstream_close(&out);
    p.expect(sent_piece("02", "01", "sent")); /* the head took 01 */
    p.expect(sent_piece("03", "01", ""));
}

TEST_F(stream_sending, closing_a_stream_whose_head_was_never_published_sends_nothing)
{
    zeb_outstream *out = zeb_notification_getOutputStream(zeb_notification_createstream("/s"));
    zeb_outstream_close(&out);
    EXPECT_EQ(out, nullptr);
    EXPECT_EQ(sent_before_mark(p), "");
}

TEST_F(stream_sending, a_head_outlives_its_publisher)
{
    zeb_outstream *out = published_stream();
    zeb_publisher_close(publisher);
    publisher = nullptr;
    EXPECT_EQ(zeb_outstream_write(out, "still", 5), 5);
    zeb_outstream_close(&out);
    p.expect(sent_piece("02", "01", "still"));
    p.expect(sent_piece("03", "01", ""));
}

TEST_F(stream_sending, writes_of_nothing_are_0_and_send_nothing)
{
    zeb_outstream *out = published_stream();
    EXPECT_EQ(zeb_outstream_write(out, nullptr, 4), 0);
    EXPECT_EQ(zeb_outstream_write(out, "text", 0), 0);
    EXPECT_EQ(zeb_outstream_write(out, "text", -1), 0);
    EXPECT_EQ(zeb_outstream_write(nullptr, "text", 4), 0);
    zeb_outstream_close(&out);
    p.expect(sent_piece("02", "01", ""));
}

TEST_F(stream_sending, flush_is_always_0)
{
    zeb_outstream *out = published_stream();
    EXPECT_EQ(zeb_outstream_flush(out), 0);
    zeb_outstream_write(out, "x", 1);
    EXPECT_EQ(zeb_outstream_flush(out), 0);
    EXPECT_EQ(zeb_outstream_flush(nullptr), 0);
    zeb_outstream_close(&out);
}

TEST_F(stream_sending, only_heads_have_an_output_stream_and_each_has_one)
{
    zeb_notification *plain = zeb_notification_create("/t", nullptr, 0);
    EXPECT_EQ(zeb_notification_getOutputStream(plain), nullptr);
    EXPECT_EQ(zeb_notification_getOutputStream(nullptr), nullptr);
    EXPECT_EQ(zeb_notification_createstream(nullptr), nullptr);
    zeb_notification *head = zeb_notification_createstream("/s");
    zeb_outstream *out = zeb_notification_getOutputStream(head);
    EXPECT_NE(out, nullptr);
    EXPECT_EQ(zeb_notification_getOutputStream(head), out);
    zeb_publisher_publish(publisher, head);
    EXPECT_EQ(zeb_notification_getOutputStream(head), out);
    zeb_publisher_publish(publisher, plain);
    zeb_outstream_close(&out);
}

TEST_F(stream_sending, closing_nothing_does_nothing)
{
    zeb_outstream_close(nullptr);
    zeb_outstream *none = nullptr;
    zeb_outstream_close(&none);
    EXPECT_EQ(none, nullptr);
    EXPECT_EQ(sent_before_mark(p), "");
}

TEST_F(stream_sending, a_piece_of_a_mebibyte_goes_whole)
{
    const std::string large(1 << 20, 'x');
    zeb_outstream *out = published_stream();
    EXPECT_EQ(zeb_outstream_write(out, large.data(), 1 << 20), 1 << 20);
    p.expect(sent_piece("02", "01", large));
    zeb_outstream_close(&out);
    p.expect(sent_piece("03", "01", ""));
}

TEST_F(stream_sending, writes_without_a_runtime_are_accepted_and_lost)
{
    zeb_outstream *out = published_stream();
    EXPECT_EQ(zeb_shutdown(), 0); /* releases the publisher, too */
    publisher = nullptr;
    EXPECT_EQ(zeb_outstream_write(out, "lost", 4), 4);
    zeb_outstream_close(&out);
    p.expect_close();
}

TEST_F(stream_sending, what_was_written_while_the_daemon_was_away_follows_in_order)
{
    zeb_outstream *out = published_stream();
    zeb_outstream_write(out, "1", 1);
    p.expect(sent_piece("02", "01", "1"));
    p.close();
    zeb_outstream_write(out, "2", 1);
    zeb_outstream_write(out, "3", 1);
    p = daemon.accept_connected(home.path());
    zeb_outstream_close(&out);
    /* The pieces written first may have gone into the connection that was ending, one or both. */
    const std::string pieces[] = {sent_piece("03", "01", "2"), sent_piece("04", "01", "3"),
                                  sent_piece("05", "01", "")};
    const std::string head = p.read_head();
    size_t next = 0;
    while (next < 2 && !pieces[next].starts_with(head))
        next++;
    EXPECT_EQ(head + p.read_bytes(pieces[next].size() - head.size()), pieces[next]);
    while (++next < 3)
        p.expect(pieces[next]);
}

/* ==== Receiving ==== */

/* A piece for the subscriber ID as the daemon sends it. */
std::string piece(std::string_view key, std::string_view body, std::string_view id = "1")
{
    return lines({"POST /event HTTP/1.1",
                  "className: IncomingStreamingNotification",
                  "SubscriberID: " + std::string(id),
                  "eventType: /s",
                  "eventId: node1:911",
                  "creationTime: 1111",
                  "deliveryTime: 2222",
                  "affectedComponents: ",
                  "affectedNodes: ",
                  "generatingComponent: storage",
                  "generatingProcess: node1:9",
                  "generatingNode: node1",
                  "instanceName: west",
                  "LocalOnly: false",
                  "numberOfProperties: 1",
                  "k: v",
                  "streamKey: " + std::string(key),
                  "Content-Length: " + std::to_string(body.size()),
                  "AddrList-Length: 0",
                  ""}) +
           std::string(body);
}

std::string end_mark(std::string_view key, std::string_view id = "1")
{
    return piece(key, "", id);
}

/* What one read with a buffer of SIZE gives. */
std::string read_once(zeb_instream *in, int32_t size = 100)
{
    std::string buffer(static_cast<size_t>(size), '\0');
    const int32_t count = zeb_instream_read(in, buffer.data(), size);
    return buffer.substr(0, static_cast<size_t>(count));
}

class stream_receiving : public conversation
{
  protected:
    stream_receiving() : p(connected()), sub(subscribed(p, 1)) {}
    ~stream_receiving() override
    {
        zeb_subscriber_close(sub);
        zeb_shutdown_nowait();
    }

    /* The input stream of the next notification, which must be the first piece of one and is given back. */
    zeb_instream *next_stream(place where = {__builtin_FILE(), __builtin_LINE()}) const
    {
        zeb_notification *n = zeb_subscriber_receive(sub, 1, 20000);
        if (zeb_notification_getClass(n) != ZEB_CLASS_INCOMINGSTREAM)
            script_fails(where, "no stream has begun");
        zeb_instream *in = zeb_notification_getInputStream(n);
        zeb_subscriber_relinquish(sub, n);
        return in;
    }

    /* Returns when everything sent so far was delivered: nothing of it reached the queue. */
    void settle(place where = {__builtin_FILE(), __builtin_LINE()})
    {
        p.send(message("1", "/settled"));
        if (receive_type(sub) != "/settled")
            script_fails(where, "something was delivered before");
    }

    /* The key is one of a stream that goes on: its piece does not come as a notification. */
    void expect_piece_swallowed(std::string_view key, place where = {__builtin_FILE(), __builtin_LINE()})
    {
        p.send(piece(key, "swallowed"));
        settle(where);
    }

    peer p;
    zeb_subscriber *sub;
};

/* Both come in one go, and the piece wakes its reader. */
TEST_F(stream_receiving, what_came_before_a_piece_can_be_received_when_the_piece_is_read)
{
    p.send(piece("key", "1"));
    zeb_instream *in = next_stream();
    for (int i = 0; i < 300; i++) {
        char octet = 0;
        ASSERT_EQ(zeb_instream_read(in, &octet, 1), 1);
        p.send(message("1", "/before") + piece("key", "2"));
        ASSERT_EQ(zeb_instream_read(in, &octet, 1), 1);
        zeb_notification *n = zeb_subscriber_receive(sub, 0, 0);
        ASSERT_NE(n, nullptr) << i;
        zeb_subscriber_relinquish(sub, n);
        p.send(piece("key", "3"));
    }
    zeb_instream_close(&in);
}

TEST_F(stream_receiving, only_the_first_piece_is_a_notification)
{
    p.send(piece("key", "0123456789") + piece("key", "01234567890123456789") + end_mark("key"));
    p.send(message("1", "/after"));
    zeb_notification *n = zeb_subscriber_receive(sub, 1, 0);
    EXPECT_EQ(zeb_notification_getClass(n), ZEB_CLASS_INCOMINGSTREAM);
    EXPECT_STREQ(zeb_notification_type(n), "/s");
    EXPECT_STREQ(zeb_notification_getProperty(n, "k"), "v");
    EXPECT_STREQ(zeb_notification_generatingComponent(n), "storage");
    int32_t length = -1;
    EXPECT_EQ(zeb_notification_body(n, &length), nullptr); /* the stream has it */
    EXPECT_EQ(length, 0);
    zeb_instream *in = zeb_notification_getInputStream(n);
    EXPECT_NE(in, nullptr);
    EXPECT_EQ(zeb_notification_getInputStream(n), in);
    EXPECT_EQ(receive_type(sub), "/after");
    zeb_subscriber_relinquish(sub, n);
    zeb_instream_close(&in);
    EXPECT_EQ(in, nullptr);
}

TEST_F(stream_receiving, other_notifications_have_no_input_stream)
{
    p.send(message("1", "/t"));
    zeb_notification *n = zeb_subscriber_receive(sub, 1, 0);
    EXPECT_EQ(zeb_notification_getInputStream(n), nullptr);
    EXPECT_EQ(zeb_notification_getInputStream(nullptr), nullptr);
    zeb_subscriber_relinquish(sub, n);
}

/* ---- Reading ---- */

TEST_F(stream_receiving, pieces_are_read_as_they_come_and_0_at_the_end_and_ever_after)
{
    p.send(piece("key", "0123456789"));
    zeb_instream *in = next_stream();
    EXPECT_EQ(read_once(in), "0123456789");
    p.send(piece("key", "01234567890123456789"));
    EXPECT_EQ(read_once(in), "01234567890123456789");
    p.send(end_mark("key"));
    EXPECT_EQ(read_once(in), "");
    EXPECT_EQ(read_once(in), "");
    EXPECT_EQ(read_once(in), "");
    zeb_instream_close(&in);
}

TEST_F(stream_receiving, one_read_takes_all_that_is_there)
{
    p.send(piece("key", "0123456789"));
    zeb_instream *in = next_stream();
    p.send(piece("key", "01234567890123456789"));
    settle();
    EXPECT_EQ(read_once(in), "012345678901234567890123456789");
    p.send(end_mark("key"));
    EXPECT_EQ(read_once(in), "");
    zeb_instream_close(&in);
}

TEST_F(stream_receiving, a_read_that_meets_the_end_mark_gives_what_it_had)
{
    p.send(piece("key", "all"));
    zeb_instream *in = next_stream();
    p.send(end_mark("key"));
    settle();
    EXPECT_EQ(read_once(in), "all");
    EXPECT_EQ(read_once(in), "");
    zeb_instream_close(&in);
}

TEST_F(stream_receiving, a_read_that_ends_with_a_piece_leaves_the_end_mark_to_the_next)
{
    p.send(piece("key", "abc"));
    zeb_instream *in = next_stream();
    p.send(piece("key", "def") + end_mark("key"));
    settle();
    EXPECT_EQ(read_once(in, 3), "abc");
    EXPECT_EQ(read_once(in, 3), "def");
    EXPECT_EQ(read_once(in, 3), "");
    zeb_instream_close(&in);
}

TEST_F(stream_receiving, a_read_waits_for_its_first_byte)
{
    p.send(piece("key", "one"));
    zeb_instream *in = next_stream();
    EXPECT_EQ(read_once(in), "one");
    background reading([=] { return read_once(in); });
    EXPECT_FALSE(reading.done_within(milliseconds{50}));
    p.send(piece("key", "two"));
    EXPECT_EQ(reading.get(), "two");
    background last([=] { return read_once(in); });
    EXPECT_FALSE(last.done_within(milliseconds{50}));
    p.send(end_mark("key"));
    EXPECT_EQ(last.get(), "");
    zeb_instream_close(&in);
}

TEST_F(stream_receiving, reads_of_nothing_are_0_without_waiting)
{
    p.send(piece("key", "x"));
    zeb_instream *in = next_stream();
    EXPECT_EQ(read_once(in), "x"); /* from here on a read would wait */
    char byte = '-';
    EXPECT_EQ(zeb_instream_read(in, &byte, 0), 0);
    EXPECT_EQ(zeb_instream_read(in, &byte, -1), 0);
    EXPECT_EQ(zeb_instream_read(in, nullptr, 1), 0);
    EXPECT_EQ(zeb_instream_read(nullptr, &byte, 1), 0);
    EXPECT_EQ(byte, '-');
    zeb_instream_close(&in);
}

TEST_F(stream_receiving, the_bytes_are_the_same_in_every_chunking)
{
    std::mt19937 random(20260101);
    std::string whole;
    for (int i = 0; i < 150; i++)
        whole += static_cast<char>(random());
    for (int32_t size = 1; size <= 151; size++) {
        const std::string key = "key" + std::to_string(size);
        std::string pieces;
        for (size_t at = 0, length = 0; at < whole.size(); at += length) {
            length = 1 + random() % 40;
            pieces += piece(key, std::string_view(whole).substr(at, length));
        }
        p.send(pieces + end_mark(key) + message("1", "/all there"));
        zeb_instream *in = next_stream();
        EXPECT_EQ(receive_type(sub), "/all there");
        for (size_t at = 0; at < whole.size(); at += static_cast<size_t>(size))
            ASSERT_EQ(read_once(in, size), whole.substr(at, static_cast<size_t>(size)));
        ASSERT_EQ(read_once(in, size), "");
        zeb_instream_close(&in);
    }
}

TEST_F(stream_receiving, pieces_may_arrive_byte_by_byte)
{
    p.send_bytewise(piece("key", "abc") + piece("key", "def") + end_mark("key"));
    zeb_instream *in = next_stream();
    settle();
    EXPECT_EQ(read_once(in), "abcdef");
    EXPECT_EQ(read_once(in), "");
    zeb_instream_close(&in);
}

/* ---- Keys ---- */

TEST_F(stream_receiving, streams_are_told_apart_by_their_keys)
{
    p.send(piece("a", "A1") + piece("b", "B1") + piece("", "none") + piece("b", "B2") + piece("a", "A2") +
           end_mark("a") + end_mark("") + end_mark("b"));
    zeb_instream *a = next_stream();
    zeb_instream *b = next_stream();
    zeb_instream *none = next_stream(); /* no key is a key */
    settle();
    EXPECT_EQ(read_once(b), "B1B2");
    EXPECT_EQ(read_once(a), "A1A2");
    EXPECT_EQ(read_once(none), "none");
    for (zeb_instream *in : {a, b, none}) {
        EXPECT_EQ(read_once(in), "");
        zeb_instream_close(&in);
    }
}

TEST_F(stream_receiving, each_subscriber_has_keys_of_its_own)
{
    zeb_subscriber *other = subscribed(p, 2);
    p.send(piece("key", "first", "1") + piece("key", "second", "2") + end_mark("key", "1") +
           end_mark("key", "2"));
    zeb_instream *mine = next_stream();
    zeb_notification *n = zeb_subscriber_receive(other, 1, 0);
    zeb_instream *its = zeb_notification_getInputStream(n);
    EXPECT_EQ(read_once(its), "second");
    EXPECT_EQ(read_once(mine), "first");
    zeb_instream_close(&its);
    zeb_instream_close(&mine);
    zeb_subscriber_close(other); /* takes the notification along */
}

TEST_F(stream_receiving, a_key_is_free_again_after_its_end_mark)
{
    p.send(piece("key", "first") + end_mark("key") + piece("key", "second") + end_mark("key"));
    zeb_instream *first = next_stream();
    zeb_instream *second = next_stream();
    EXPECT_NE(first, second);
    EXPECT_EQ(read_once(second), "second");
    EXPECT_EQ(read_once(first), "first");
    zeb_instream_close(&first);
    zeb_instream_close(&second);
}

/* ---- Closing ---- */

TEST_F(stream_receiving, closed_before_its_end_mark_a_stream_swallows_the_pieces_up_to_it)
{
    p.send(piece("key", "first"));
    zeb_instream *in = next_stream();
    zeb_instream_close(&in);
    EXPECT_EQ(in, nullptr);
    expect_piece_swallowed("key");
    expect_piece_swallowed("key");
    p.send(end_mark("key")); /* here the stream goes, as the leak checker sees */
    settle();
    p.send(piece("key", "again"));
    in = next_stream();
    EXPECT_EQ(read_once(in), "again");
    zeb_instream_close(&in);
}

TEST_F(stream_receiving, closed_with_unread_pieces_it_releases_them)
{
    p.send(piece("key", "read") + piece("key", "unread"));
    zeb_instream *in = next_stream();
    settle();
    EXPECT_EQ(read_once(in, 2), "re");
    zeb_instream_close(&in); /* with a half-read piece */
    p.send(end_mark("key"));
    settle();
}

TEST_F(stream_receiving, closed_after_its_end_mark_it_is_gone_at_once)
{
    p.send(piece("key", "unread") + end_mark("key"));
    zeb_instream *in = next_stream();
    settle();
    zeb_instream_close(&in);
    EXPECT_EQ(in, nullptr);
}

TEST_F(stream_receiving, closing_nothing_does_nothing)
{
    zeb_instream_close(nullptr);
    zeb_instream *none = nullptr;
    zeb_instream_close(&none);
    EXPECT_EQ(none, nullptr);
}

TEST_F(stream_receiving, the_end_mark_against_the_close_of_the_application)
{
    for (int i = 0; i < 200; i++) {
        const std::string key = std::to_string(i);
        p.send(piece(key, "x"));
        zeb_instream *in = next_stream();
        background closing([=] {
            zeb_instream *mine = in;
            zeb_instream_close(&mine);
            return mine;
        });
        p.send(piece(key, "y") + end_mark(key));
        EXPECT_EQ(closing.get(), nullptr);
    }
    settle();
}

TEST_F(stream_receiving, pieces_against_a_reader)
{
    p.send(piece("key", "."));
    zeb_instream *in = next_stream();
    background reading([=] {
        std::string all;
        for (std::string some = read_once(in, 7); !some.empty(); some = read_once(in, 7))
            all += some;
        return all;
    });
    std::string expected = ".";
    for (int i = 0; i < 500; i++) {
        const std::string body = std::to_string(i) + ",";
        expected += body;
        p.send(piece("key", body));
    }
    p.send(end_mark("key"));
    EXPECT_EQ(reading.get(), expected);
    zeb_instream_close(&in);
}

/* ---- A stream outlives its notification and its subscriber ---- */

TEST_F(stream_receiving, a_read_is_ended_by_the_close_of_the_subscriber)
{
    p.send(piece("key", "x"));
    zeb_instream *in = next_stream();
    EXPECT_EQ(read_once(in), "x");
    background reading([=] { return read_once(in); });
    EXPECT_FALSE(reading.done_within(milliseconds{50}));
    zeb_subscriber_close(sub);
    sub = nullptr;
    EXPECT_EQ(reading.get(), "");
    const stopwatch watch;
    EXPECT_EQ(read_once(in), ""); /* and no other waits */
    EXPECT_LT(watch.elapsed(), stretched(milliseconds{500}));
    zeb_instream_close(&in);
    p.expect(unsubscribe_request(1));
}

TEST_F(stream_receiving, a_read_is_ended_by_a_shutdown)
{
    p.send(piece("key", "x"));
    zeb_instream *in = next_stream();
    EXPECT_EQ(read_once(in), "x");
    background reading([=] { return read_once(in); });
    EXPECT_FALSE(reading.done_within(milliseconds{50}));
    EXPECT_EQ(zeb_shutdown(), 0); /* the subscriber goes with it, the stream is still to be closed */
    sub = nullptr;
    EXPECT_EQ(reading.get(), "");
    EXPECT_EQ(read_once(in), "");
    zeb_instream_close(&in);
    p.expect_close();
}

TEST_F(stream_receiving, a_stream_may_be_closed_after_its_subscriber)
{
    p.send(piece("key", "x") + piece("key", "y"));
    zeb_instream *in = next_stream();
    settle();
    EXPECT_EQ(read_once(in, 1), "x");
    zeb_subscriber_close(sub);
    sub = nullptr;
    zeb_instream_close(&in);
    EXPECT_EQ(in, nullptr);
}

TEST_F(stream_receiving, streams_may_be_closed_after_the_end_of_the_runtime)
{
    p.send(piece("open", "x") + piece("ended", "y") + end_mark("ended") + piece("left", "z"));
    zeb_instream *open = next_stream();
    zeb_instream *ended = next_stream();
    zeb_instream *left = next_stream();
    zeb_subscriber_close(sub);
    sub = nullptr;
    EXPECT_EQ(zeb_shutdown(), 0);
    EXPECT_EQ(read_once(ended), "y"); /* it had its end mark */
    EXPECT_EQ(read_once(ended), "");
    for (zeb_instream *in : {open, ended, left})
        zeb_instream_close(&in);
}

TEST_F(stream_receiving, a_first_piece_whose_stream_is_never_asked_for_closes_it_when_given_back)
{
    p.send(piece("key", "unread"));
    EXPECT_EQ(receive_type(sub), "/s");
    expect_piece_swallowed("key");
    p.send(end_mark("key"));
    settle();
    p.send(piece("key", "again"));
    EXPECT_EQ(receive_type(sub), "/s"); /* and is not asked for either; no end mark follows */
}

TEST_F(stream_receiving, a_first_piece_that_is_never_fetched_goes_with_its_subscriber)
{
    p.send(piece("key", "unread") + piece("key", "more") + piece("other", "unread") + end_mark("other"));
    zeb_subscriber *other = subscribed(p, 2);
    p.send(message("2", "/all there"));
    EXPECT_EQ(receive_type(other), "/all there");
    zeb_subscriber_close(sub);
    sub = nullptr;
    zeb_subscriber_close(other);
}

TEST_F(stream_receiving, a_first_piece_is_held_until_the_subscriber_is_closed)
{
    p.send(piece("key", "x") + end_mark("key"));
    zeb_notification *n = zeb_subscriber_receive(sub, 1, 0);
    zeb_instream *in = zeb_notification_getInputStream(n);
    zeb_subscriber_close(sub); /* takes the notification along, not the stream */
    sub = nullptr;
    zeb_instream_close(&in);
    EXPECT_EQ(in, nullptr);
}

/* ---- A stream that begins with its end mark ---- */

TEST_F(stream_receiving, an_end_mark_as_first_piece_is_a_notification_with_a_stream_at_its_end)
{
    p.send(end_mark("key"));
    zeb_instream *in = next_stream();
    ASSERT_NE(in, nullptr);
    const stopwatch watch;
    EXPECT_EQ(read_once(in), "");
    EXPECT_EQ(read_once(in), "");
    EXPECT_LT(watch.elapsed(), stretched(milliseconds{500}));
    zeb_instream_close(&in);
}

TEST_F(stream_receiving, an_end_mark_as_first_piece_leaves_the_key_taken_until_another)
{
    p.send(end_mark("key"));
    zeb_instream *in = next_stream();
    expect_piece_swallowed("key");
    EXPECT_EQ(read_once(in), ""); /* what came behind the mark is not read */
    zeb_instream_close(&in);
    p.send(end_mark("key")); /* this one frees the key */
    settle();
    p.send(piece("key", "again") + end_mark("key"));
    in = next_stream();
    EXPECT_EQ(read_once(in), "again");
    zeb_instream_close(&in);
}

/* ---- In other company ---- */

TEST_F(stream_receiving, a_stream_goes_on_over_a_reconnect)
{
    p.send(piece("key", "before"));
    zeb_instream *in = next_stream();
    p.close();
    p = daemon.accept_connected(home.path());
    p.expect(subscribe_request(1, "/t"));
    p.send(status_reply(1, "success") + piece("key", " and after") + end_mark("key"));
    settle();
    EXPECT_EQ(read_once(in), "before and after");
    EXPECT_EQ(read_once(in), "");
    zeb_instream_close(&in);
}

struct reading_callback {
    std::atomic<int> calls{0};
    std::string all;

    static int32_t run(zeb_notification *n, void *context)
    {
        auto *self = static_cast<reading_callback *>(context);
        zeb_instream *in = zeb_notification_getInputStream(n);
        char buffer[16];
        int32_t count;
        while ((count = zeb_instream_read(in, buffer, sizeof(buffer))) > 0)
            self->all.append(buffer, static_cast<size_t>(count));
        zeb_instream_close(&in);
        self->calls.fetch_add(1);
        return 0;
    }
};

class stream_in_callback : public stream_receiving, public testing::WithParamInterface<int>
{
};

TEST_P(stream_in_callback, a_callback_is_called_once_and_reads_to_the_end)
{
    reading_callback reader;
    ASSERT_EQ(zeb_subscriber_registercallback(sub, reading_callback::run, &reader, GetParam()), 0);
    p.send(piece("key", "one, "));
    p.send(piece("key", "two, ") + piece("key", "three"));
    p.send(end_mark("key"));
    EXPECT_TRUE(eventually([&] { return reader.calls.load() == 1; }));
    EXPECT_EQ(reader.all, "one, two, three");
    reader.all.clear();
    p.send(piece("key", "again") + end_mark("key"));
    EXPECT_TRUE(eventually([&] { return reader.calls.load() == 2; }));
    EXPECT_EQ(reader.all, "again");
}

INSTANTIATE_TEST_SUITE_P(modes, stream_in_callback, testing::Values(0, 1));

TEST_F(stream_receiving, a_stream_of_ones_own_is_read_back)
{
    zeb_publisher *publisher = zeb_publisher_create("c");
    zeb_notification *head = zeb_notification_createstream("/s");
    zeb_publisher_publish(publisher, head);
    zeb_outstream *out = zeb_notification_getOutputStream(head);
    for (const char *text : {"one", "two"})
        zeb_outstream_write(out, text, 3);
    zeb_outstream_close(&out);
    for (const char *body : {"one", "two", ""}) {
        const std::string sent = p.read_head();
        const size_t key = sent.find("streamKey: ") + 11;
        EXPECT_EQ(p.read_bytes(strlen(body)), body);
        p.send(piece(sent.substr(key, sent.find("\r\n", key) - key), body));
    }
    zeb_instream *in = next_stream();
    settle();
    EXPECT_EQ(read_once(in), "onetwo");
    EXPECT_EQ(read_once(in), "");
    zeb_instream_close(&in);
    zeb_publisher_close(publisher);
}

/* A head can also come from the wire. It is the way for affected parts and destinations to be there. */
TEST_F(stream_receiving, pieces_carry_destinations_and_affected_parts_of_their_head)
{
    const std::string list =
        block_signature() + address("dstAddr0", {{"id", "5"}, {"key", "node2:5"}, {"address", "ADDR"}});
    p.send(lines({"POST /event HTTP/1.1", "className: OutgoingStreamingNotification", "SubscriberID: 1",
                  "eventType: /s", "eventId: node1:911", "creationTime: 1111", "deliveryTime: 2222",
                  "affectedComponents: disk,fan", "affectedNodes: node2", "generatingComponent: storage",
                  "generatingProcess: node1:9", "generatingNode: node1", "instanceName: west",
                  "LocalOnly: false", "numberOfProperties: 0", "Content-Length: 0",
                  "AddrList-Length: " + std::to_string(list.size()), ""}) +
           list);
    zeb_notification *head = zeb_subscriber_receive(sub, 1, 0);
    ASSERT_EQ(zeb_notification_getClass(head), ZEB_CLASS_OUTGOINGSTREAM);
    zeb_publisher *publisher = zeb_publisher_create("c");
    zeb_publisher_publish(publisher, head); /* no longer the subscriber's */
    zeb_outstream *out = zeb_notification_getOutputStream(head);
    EXPECT_EQ(zeb_outstream_write(out, "x", 1), 1);
    zeb_outstream_close(&out);
    using namespace std::string_literals;
    const std::string sentlist = "\x00\xA3\x7C\x08\xE7\x78\xEE\x24\x5F\xD3\xB6\x4E" /* signature */
                                 "\x01\x00\x09"
                                 "dstAddr0\x00\x00"
                                 "\x02\x00\x02"
                                 "id\x00\x00\x01"
                                 "5\x00"
                                 "\x02\x00\x07"
                                 "address\x00\x00\x04"
                                 "ADDR\x00"
                                 "\x01\x00\x0B"
                                 "properties\x00\x01"s;
    for (const char *body : {"x", ""})
        p.expect(lines({"POST /event HTTP/1.1", "className: IncomingStreamingNotification", "SubscriberID: 0",
                        "eventType: /s", "eventId: " + process_name() + (*body != '\0' ? "11" : "12"),
                        "affectedComponents: disk,fan", "affectedNodes: node2", "generatingComponent: c",
                        "generatingProcess: " + process_name(), "generatingNode: " + host_name(),
                        "instanceName: east", "LocalOnly: false", "numberOfProperties: 0",
                        "streamKey: node1:911", "Content-Length: " + std::to_string(strlen(body)),
                        "AddrList-Length: " + std::to_string(sentlist.size()), ""}) +
                 body + sentlist);
    zeb_publisher_close(publisher);
}

TEST_F(stream_receiving, a_first_piece_that_is_published_again_goes_out_empty_under_its_key)
{
    p.send(piece("key", "read here") + end_mark("key"));
    zeb_notification *n = zeb_subscriber_receive(sub, 1, 0);
    zeb_instream *in = zeb_notification_getInputStream(n);
    zeb_publisher_publish(zeb_subscriber_getPublisher(sub), n);
    const std::string sent = p.read_head();
    EXPECT_NE(sent.find(lines({"eventId: node1:911"})), std::string::npos) << shown(sent);
    EXPECT_NE(sent.find(lines({"streamKey: key", "Content-Length: 0", "AddrList-Length: 0", ""})),
              std::string::npos)
        << shown(sent);
    EXPECT_EQ(read_once(in), "read here");
    zeb_instream_close(&in);
}

TEST_F(stream_receiving, a_forked_child_may_close_the_streams_it_inherits)
{
    p.send(piece("open", "x") + piece("ended", "y") + end_mark("ended"));
    zeb_instream *open = next_stream();
    zeb_instream *ended = next_stream();
    settle();
    const pid_t child = fork();
    if (child == 0) {
        zeb_instream *mine = open;
        zeb_instream *other = ended;
        zeb_instream_close(&mine);
        zeb_instream_close(&other);
        _exit(mine == nullptr && other == nullptr ? 7 : 8);
    }
    int status = 0;
    EXPECT_TRUE(eventually([&] { return waitpid(child, &status, WNOHANG) == child; }));
    EXPECT_EQ(WIFEXITED(status) ? WEXITSTATUS(status) : -1, 7);
    EXPECT_EQ(read_once(open), "x");
    EXPECT_EQ(read_once(ended), "y");
    zeb_instream_close(&open);
    zeb_instream_close(&ended);
}

} // namespace
