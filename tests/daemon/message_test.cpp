/* The reader of client messages: what it understands, in whatever pieces it comes, and what it refuses. */
#include "message.h"
#include "wire.h"

#include <algorithm>
#include <gtest/gtest.h>

using namespace zebd;

namespace
{

/* A message in one line of text, so that two of them can be compared and printed. */
std::string describe(const message &what)
{
    std::string text;
    if (const auto *connect = std::get_if<connect_request>(&what))
        return "connect [" + connect->version + "][" + connect->formFactor + "][" + connect->selfId + "]";
    if (const auto *unsubscribe = std::get_if<unsubscribe_request>(&what))
        return "unsubscribe " + std::to_string(unsubscribe->id);
    if (const auto *sub = std::get_if<subscribe_request>(&what)) {
        text = "subscribe " + std::to_string(sub->id) + " [" + sub->subscription + "][" + sub->component +
               "][" + sub->interest + "]" + (sub->deltas ? " deltas" : "");
        for (const auto &[name, value] : sub->properties)
            text.append(" {").append(name).append("}={").append(value).append("}");
        return text;
    }
    const event &e = *std::get<std::shared_ptr<event>>(what);
    text = "event " + std::string(event_class_name(e.cls)) + " " + std::to_string(e.subscriber);
    for (const slice run : {e.type, e.id, e.affectedComponents, e.affectedNodes, e.component, e.process,
                            e.node, e.instance, e.streamKey, e.body, e.addresses})
        text += " [" + std::string(e.text(run)) + "]";
    text += e.localOnly ? " local" : "";
    for (const property_slice &property : e.properties)
        text += " {" + std::string(e.text(property.name)) + "}={" + std::string(e.text(property.value)) + "}";
    return text;
}

/* Everything a reader says about BYTES fed in pieces of at most PIECE octets. */
std::vector<std::string> read_all(std::string_view bytes, size_t piece, message_reader reader = {})
{
    std::vector<std::string> result;
    for (size_t at = 0; at < bytes.size(); at += piece) {
        message_reader_feed(reader, bytes.substr(at, piece));
        message what;
        read_result outcome = message_reader_next(reader, what);
        for (; outcome == read_result::complete; outcome = message_reader_next(reader, what))
            result.push_back(describe(what));
        if (outcome == read_result::broken) {
            result.push_back("broken: " + reader.error);
            return result;
        }
    }
    return result;
}

/* What the reader makes of one message after the connect. */
std::string read_one(std::string_view text, const message_limits &limits = {})
{
    message_reader reader;
    reader.limits = limits;
    const auto results =
        read_all(std::string(wire::connect) + std::string(text), SIZE_MAX / 2, std::move(reader));
    return results.size() == 2 ? results[1] : "not one message but " + std::to_string(results.size() - 1);
}

std::string conversation()
{
    std::string all;
    for (const std::string_view text :
         {wire::connect, wire::subscribeEverything, wire::messageEvent, wire::subscribeWithProperties,
          wire::bareEvent, wire::streamPiece, wire::stateEvent, wire::unsubscribe})
        all += text;
    return all;
}

TEST(MessageReader, UnderstandsEveryKindOfMessage)
{
    const auto messages = read_all(conversation(), SIZE_MAX / 2);
    ASSERT_EQ(messages.size(), 8U);
    EXPECT_EQ(messages[0], "connect [4][abc][Pid=4242; Home=/opt/app]");
    EXPECT_EQ(messages[1], "subscribe 1 [][watcher][null]");
    EXPECT_EQ(messages[2],
              "event MessageNotification 0 [/app/disk/full] [node1:911] [db] [n1 n2] [storage] [node1:9] "
              "[node1] [east] [] [he\r\nl] [] local {sev}={3} {note}={}");
    EXPECT_EQ(messages[3], "subscribe 7 [(\"@type=/a\")&(\"k: v=1\")][][(\"/ZEB/RPC/SVR=a\")] deltas "
                           "{/ZEB/RPC/SVR}={a} {empty}={} {with:colon}={x: y}");
    EXPECT_EQ(messages[4], "event MessageNotification 0 [] [] [] [] [] [] [] [] [] [] []");
    EXPECT_EQ(messages[5],
              "event IncomingStreamingNotification 0 [/log] [node1:912] [] [] [logger] [node1:9] [node1] "
              "[east] [node1:911] [abc] []");
    EXPECT_EQ(messages[6],
              "event StateSetNotification 3 [/ZEB/SYSTEM/STATESET] [node1:913] [] [] [] [] [] [] [] [ok] "
              "[ADDR]");
    EXPECT_EQ(messages[7], "unsubscribe 1");
}

TEST(MessageReader, PiecesOfAnySizeGiveTheSameMessages)
{
    const std::string all = conversation();
    const auto whole = read_all(all, all.size());
    ASSERT_EQ(whole.size(), 8U);
    for (size_t piece = 1; piece < 200; piece++)
        ASSERT_EQ(read_all(all, piece), whole) << "pieces of " << piece;
}

TEST(MessageReader, ASplitAtAnyPlaceGivesTheSameMessages)
{
    const std::string all = conversation();
    const auto whole = read_all(all, all.size());
    for (size_t at = 1; at < all.size(); at++) {
        message_reader reader;
        std::vector<std::string> results;
        for (const std::string_view part :
             {std::string_view(all).substr(0, at), std::string_view(all).substr(at)}) {
            message_reader_feed(reader, part);
            message what;
            while (message_reader_next(reader, what) == read_result::complete)
                results.push_back(describe(what));
        }
        ASSERT_EQ(results, whole) << "split at " << at;
        ASSERT_FALSE(message_reader_in_message(reader));
    }
}

TEST(MessageReader, ACutMessageIsNeverHandedOut)
{
    for (const std::string_view text :
         {wire::subscribeEverything, wire::messageEvent, wire::subscribeWithProperties, wire::streamPiece,
          wire::stateEvent, wire::unsubscribe}) {
        for (size_t length = 0; length < text.size(); length++) {
            message_reader reader;
            message_reader_feed(reader, std::string(wire::connect) + std::string(text.substr(0, length)));
            message what;
            ASSERT_EQ(message_reader_next(reader, what), read_result::complete);
            ASSERT_EQ(message_reader_next(reader, what), read_result::need_more) << text.substr(0, length);
            ASSERT_EQ(message_reader_in_message(reader), length > 0);
        }
    }
}

std::vector<std::string> header_lines(std::string_view text)
{
    std::vector<std::string> lines;
    const size_t headerEnd = text.find("\r\n\r\n") + 4;
    for (size_t at = 0; at < headerEnd; at = text.find("\r\n", at) + 2)
        lines.emplace_back(text.substr(at, text.find("\r\n", at) + 2 - at));
    return lines;
}

std::string join(const std::vector<std::string> &lines)
{
    std::string text;
    for (const std::string &line : lines)
        text += line;
    return text;
}

/* Without one of its lines a message must be refused, or wait for more: never be taken for a message. A
 * property line that goes missing lets the next line be one, which is why the count is looked at as well. */
TEST(MessageReader, AMissingLineIsRefused)
{
    for (const std::string_view text : {wire::bareEvent, wire::streamPiece, wire::stateEvent,
                                        wire::unsubscribe, wire::subscribeEverything, wire::messageEvent}) {
        const auto lines = header_lines(text);
        for (size_t i = 0; i + 1 < lines.size(); i++) {
            auto fewer = lines;
            fewer.erase(fewer.begin() + static_cast<std::ptrdiff_t>(i));
            const std::string outcome = read_one(join(fewer) + "\r\nhe\r\nlokADDR");
            EXPECT_EQ(outcome.substr(0, 12), "broken: line") << "without " << lines[i] << outcome;
        }
    }
}

TEST(MessageReader, ADoubledLineIsRefused)
{
    for (const std::string_view text : {wire::bareEvent, wire::streamPiece, wire::stateEvent,
                                        wire::unsubscribe, wire::subscribeEverything, wire::messageEvent}) {
        const auto lines = header_lines(text);
        for (size_t i = 0; i + 1 < lines.size(); i++) {
            auto more = lines;
            more.insert(more.begin() + static_cast<std::ptrdiff_t>(i), lines[i]);
            EXPECT_EQ(read_one(join(more)).substr(0, 12), "broken: line") << "twice " << lines[i];
        }
    }
}

TEST(MessageReader, SwappedLinesAreRefused)
{
    for (const std::string_view text : {wire::bareEvent, wire::streamPiece, wire::stateEvent,
                                        wire::unsubscribe, wire::subscribeEverything}) {
        const auto lines = header_lines(text);
        for (size_t i = 0; i + 1 < lines.size(); i++) {
            auto swapped = lines;
            std::swap(swapped[i], swapped[i + 1]);
            EXPECT_EQ(read_one(join(swapped)).substr(0, 12), "broken: line") << "swapped " << lines[i];
        }
    }
}

TEST(MessageReader, HeaderNamesAreCompared)
{
    for (const std::string_view text : {wire::bareEvent, wire::streamPiece, wire::subscribeEverything}) {
        const auto lines = header_lines(text);
        for (size_t i = 0; i + 1 < lines.size(); i++) {
            auto spoilt = lines;
            spoilt[i][0] = static_cast<char>(spoilt[i][0] ^ 0x20);
            EXPECT_EQ(read_one(join(spoilt)).substr(0, 12), "broken: line") << spoilt[i];
        }
    }
}

TEST(MessageReader, NumbersAreDigitsWithinTheirRange)
{
    for (const char *bad : {"-1", "", " 5", "5 ", "+5", "0x5", "2147483648", "99999999999999999999", "5.0"}) {
        const std::string body = std::string("Content-Length: ") + bad + "\r\nAddr";
        EXPECT_EQ(read_one(wire::with(wire::messageEvent, "Content-Length: 5\r\nAddr", body)).substr(0, 8),
                  "broken: ")
            << bad;
        const std::string count = std::string("numberOfProperties: ") + bad + "\r\n";
        EXPECT_EQ(read_one(wire::with(wire::bareEvent, "numberOfProperties: 0\r\n", count)).substr(0, 8),
                  "broken: ")
            << bad;
        const std::string id = std::string("SubscriberID: ") + bad + "\r\n";
        EXPECT_EQ(read_one(wire::with(wire::bareEvent, "SubscriberID: 0\r\n", id)).substr(0, 8), "broken: ")
            << bad;
    }
}

TEST(MessageReader, ASubscriberIdentifierIsAtLeastOne)
{
    EXPECT_EQ(read_one(wire::with(wire::subscribeEverything, "SubscriberID: 1", "SubscriberID: 0")),
              "broken: line 3: '0' is no subscriber identifier");
    EXPECT_EQ(read_one(wire::with(wire::unsubscribe, "SubscriberID: 1", "SubscriberID: 2147483647")),
              "unsubscribe 2147483647");
}

TEST(MessageReader, TruthIsTrueOrFalse)
{
    EXPECT_EQ(read_one(wire::with(wire::bareEvent, "LocalOnly: false", "LocalOnly: TRUE")),
              "broken: line 12: neither true nor false");
    EXPECT_EQ(read_one(wire::with(wire::subscribeEverything, "MbrDeltas: false", "MbrDeltas: ")),
              "broken: line 7: neither true nor false");
}

TEST(MessageReader, AnUnknownClassIsRefused)
{
    EXPECT_EQ(read_one(wire::with(wire::bareEvent, "className: Message", "className: Unknown")),
              "broken: line 2: unknown class 'UnknownNotification'");
}

TEST(MessageReader, APropertyLineHasAColonAndABlank)
{
    EXPECT_EQ(read_one(wire::with(wire::messageEvent, "sev: 3", "sev:3")),
              "broken: line 14: 'sev:3' is no property");
    EXPECT_EQ(read_one(wire::with(wire::messageEvent, "sev: 3", "sev")),
              "broken: line 14: 'sev' is no property");
}

/* A name that a client library refused is replaced there by a text with colons in it, and that travels. */
TEST(MessageReader, ANameMayHoldABareColon)
{
    const std::string text =
        wire::with(wire::messageEvent, "sev: 3", "NAME [must not contain ':', '\\r']: 3");
    EXPECT_NE(read_one(text).find("{NAME [must not contain ':', '\\r']}={3}"), std::string::npos)
        << read_one(text);
}

TEST(MessageReader, LinesEndInCarriageReturnAndLineFeed)
{
    EXPECT_EQ(read_one(wire::with(wire::bareEvent, "eventType: \r\n", "eventType: \n")),
              "broken: line 4: line feed without carriage return");
    EXPECT_EQ(read_one(wire::with(wire::bareEvent, "eventType: ", "eventType: a\nb")),
              "broken: line 4: line feed without carriage return");
}

TEST(MessageReader, ALineHoldsNoOctetZero)
{
    EXPECT_EQ(read_one(wire::with(wire::bareEvent, "eventType: ", std::string_view("eventType: a\0b", 14))),
              "broken: line 4: octet of value 0");
}

/* The first event's body is all zeros; the second one has a zero at PLACE. */
std::string zeros_and_a_zero_at(size_t place)
{
    std::string second(wire::messageEvent);
    second[place] = '\0';
    return std::string(wire::connect) +
           wire::with(wire::bareEvent, "Content-Length: 0", "Content-Length: 9") + std::string(9, '\0') +
           second;
}

TEST(MessageReader, AZeroIsFoundInItsLineWhereverItStandsAndInABodyIsNothing)
{
    const std::string_view whole = wire::messageEvent;
    const size_t header = whole.find("\r\n\r\n") + 4;
    for (size_t place = 0; place < whole.size(); place++) {
        const std::string bytes = zeros_and_a_zero_at(place);
        const auto line =
            1 + std::count(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(place), '\n');
        for (const size_t piece : {size_t{1}, size_t{7}, size_t{100}, bytes.size()}) {
            const std::vector<std::string> found = read_all(bytes, piece);
            ASSERT_EQ(found.size(), 3U);
            if (place >= header)
                EXPECT_EQ(found[2].find("event"), 0U) << place;
            else if (whole[place] != '\r' && whole[place] != '\n')
                EXPECT_EQ(found[2], "broken: line " + std::to_string(line) + ": octet of value 0") << place;
            else
                EXPECT_EQ(found[2].find("broken: line " + std::to_string(line)), 0U) << place;
        }
    }
}

TEST(MessageReader, NothingComesBeforeTheConnect)
{
    for (const std::string_view text : {wire::bareEvent, wire::subscribeEverything, wire::unsubscribe})
        EXPECT_EQ(read_all(text, 1).back().substr(0, 21), "broken: line 1: 'POST");
    EXPECT_EQ(read_all("GET / HTTP/1.1\r\n\r\n", 1).back(),
              "broken: line 1: 'GET / HTTP/1.1' before the connect");
}

TEST(MessageReader, ASecondConnectIsRefused)
{
    EXPECT_EQ(read_one(wire::connect), "broken: line 1: second connect");
}

/* The form factor is a file sent as it is; most files end in a line feed, which looks like an empty line. */
TEST(MessageReader, AFormFactorMayHoldLineEnds)
{
    const std::string text = wire::with(wire::connect, "abc\r\n", "two\nlines\r\n\r\n\n\r\n");
    const std::vector<std::string> expected = {"connect [4][two\nlines\r\n\r\n\n][Pid=4242; Home=/opt/app]"};
    EXPECT_EQ(read_all(text, 1), expected);
}

TEST(MessageReader, LengthsAreLimited)
{
    message_limits limits;
    limits.body = 5;
    EXPECT_EQ(read_one(wire::messageEvent, limits).substr(0, 6), "event ");
    limits.body = 4;
    EXPECT_EQ(read_one(wire::messageEvent, limits), "broken: line 16: 5 is above the limit of 4");
    limits.addresses = 3;
    EXPECT_EQ(read_one(wire::stateEvent, limits), "broken: line 7: 4 is above the limit of 3");
    limits = {};
    limits.properties = 1;
    EXPECT_EQ(read_one(wire::messageEvent, limits), "broken: line 13: 2 is above the limit of 1");
}

TEST(MessageReader, ALineWithoutEndIsRefusedOnceItIsTooLong)
{
    message_limits limits;
    limits.line = 100;
    message_reader reader;
    reader.limits = limits;
    const auto results = read_all(std::string(wire::connect) + std::string(101, 'x'), 1, std::move(reader));
    EXPECT_EQ(results.back(), "broken: line 0: followed by a line of more than 100 octets");
}

TEST(MessageReader, ALongHeaderIsRefused)
{
    message_limits limits;
    limits.header = 150;
    EXPECT_EQ(read_one(wire::bareEvent, limits), "broken: line 7: header of more than 150 octets");
}

/* A length that was only announced must not cost anything. */
TEST(MessageReader, AnAnnouncedBodyReservesNothing)
{
    message_reader reader;
    message_reader_feed(reader, wire::connect);
    message what;
    ASSERT_EQ(message_reader_next(reader, what), read_result::complete);
    message_reader_feed(reader,
                        wire::with(wire::messageEvent, "Content-Length: 5", "Content-Length: 67000000"));
    EXPECT_EQ(message_reader_next(reader, what), read_result::need_more);
    EXPECT_LT(reader.in.capacity(), 8192U);
}

TEST(MessageReader, HandedOutMessagesLeaveTheBuffer)
{
    message_reader reader;
    message_reader_feed(reader, wire::connect);
    message what;
    ASSERT_EQ(message_reader_next(reader, what), read_result::complete);
    for (int i = 0; i < 1000; i++) {
        message_reader_feed(reader, wire::messageEvent);
        ASSERT_EQ(message_reader_next(reader, what), read_result::complete);
    }
    EXPECT_LT(reader.in.capacity(), 8192U);
}

std::shared_ptr<event> next_event(message_reader &reader)
{
    message what;
    if (message_reader_next(reader, what) != read_result::complete)
        return nullptr;
    const auto *taken = std::get_if<std::shared_ptr<event>>(&what);
    return taken != nullptr ? *taken : next_event(reader);
}

/* A small event that comes after many others must not keep the buffer that held them all. */
TEST(MessageReader, AnEventKeepsLittleMoreMemoryThanItNeeds)
{
    message_reader reader;
    message_reader_feed(reader, wire::connect);
    std::string many;
    for (int i = 0; i < 200; i++)
        many += wire::messageEvent;
    message_reader_feed(reader, many + std::string(wire::messageEvent.substr(0, 50)));
    for (int i = 0; i < 200; i++)
        EXPECT_LE(next_event(reader)->raw.capacity(), 5 * wire::messageEvent.size() / 4);
    message_reader_feed(reader, wire::messageEvent.substr(50));
    EXPECT_LE(next_event(reader)->raw.capacity(), 5 * wire::messageEvent.size() / 4);
}

TEST(MessageReader, ALargeEventKeepsNoMoreMemoryThanItNeeds)
{
    constexpr size_t piece = 65536;
    for (const size_t body : {100000u, 300000u, 1100000u, 5000000u}) {
        const std::string large =
            wire::with(wire::bareEvent, "Content-Length: 0", "Content-Length: " + std::to_string(body)) +
            std::string(body, 'x');
        message_reader reader;
        message_reader_feed(reader, wire::connect);
        EXPECT_EQ(next_event(reader), nullptr);
        for (size_t at = 0; at < large.size(); at += piece) {
            message_reader_feed(reader, large.substr(at, piece));
            EXPECT_LE(reader.in.capacity(), 2 * std::min(large.size(), at + piece));
            if (at + piece < large.size()) {
                EXPECT_EQ(next_event(reader), nullptr);
            }
        }
        const auto taken = next_event(reader);
        ASSERT_NE(taken, nullptr);
        EXPECT_EQ(taken->raw, large);
        EXPECT_LE(taken->raw.capacity(), 5 * large.size() / 4);
    }
}

TEST(MessageReader, AnUnfinishedSubscribeCountsWithItsProperties)
{
    std::string half = wire::with(wire::subscribeEverything, "numberOfProperties: 0\r\n\r\n",
                                  "numberOfProperties: 5001\r\n");
    for (int i = 0; i < 2500; i++)
        half += "a: \r\n" + std::string(100, 'b') + ": \r\n";
    message_reader reader;
    message_reader_feed(reader, std::string(wire::connect) + half);
    message what;
    ASSERT_EQ(message_reader_next(reader, what), read_result::complete);
    ASSERT_EQ(message_reader_next(reader, what), read_result::need_more);
    EXPECT_GE(message_reader_octets(reader),
              half.size() + 5000 * sizeof(property_list::value_type) + 2500 * 100);
    message_reader_feed(reader, "c: \r\n\r\n");
    ASSERT_EQ(message_reader_next(reader, what), read_result::complete);
    ASSERT_EQ(message_reader_next(reader, what), read_result::need_more);
    EXPECT_LE(message_reader_octets(reader), 4096u);
}

TEST(MessageReader, WhatAClientTellsOfItselfIsKeptInPart)
{
    const std::string long1(100000, 'f'), long2(100000, 's');
    message_reader reader;
    message_reader_feed(reader, wire::with(wire::with(wire::connect, "abc", long1), "Pid=4242", long2));
    message what;
    ASSERT_EQ(message_reader_next(reader, what), read_result::complete);
    const auto &request = std::get<connect_request>(what);
    EXPECT_EQ(request.formFactor, long1.substr(0, longestSelfDescription));
    EXPECT_EQ(request.selfId, long2.substr(0, longestSelfDescription));
    EXPECT_LE(request.formFactor.capacity(), 2 * longestSelfDescription);
}

TEST(MessageReader, ALargeEventLeavesNoLargeBuffer)
{
    const std::string large = wire::with(wire::bareEvent, "Content-Length: 0", "Content-Length: 1000000") +
                              std::string(1000000, 'x');
    message_reader reader;
    message_reader_feed(reader, wire::connect);
    EXPECT_EQ(next_event(reader), nullptr);
    message_reader_feed(reader, large.substr(0, 1000));
    message_reader_feed(reader, large.substr(1000) + std::string(wire::bareEvent));
    const auto first = next_event(reader);
    EXPECT_EQ(first->raw, large);
    EXPECT_LE(reader.in.capacity(), 10000u);
    EXPECT_EQ(next_event(reader)->raw, wire::bareEvent);
}

TEST(MessageReader, ASilentClientKeepsNoBuffer)
{
    message_reader reader;
    std::string many(wire::connect);
    for (int i = 0; i < 200; i++)
        many += wire::messageEvent;
    message_reader_feed(reader, many);
    while (next_event(reader) != nullptr) {
    }
    EXPECT_LE(reader.in.capacity(), 4096u);
    message_reader_feed(reader, wire::messageEvent);
    EXPECT_EQ(next_event(reader)->raw, wire::messageEvent);
}

TEST(Printable, WritesAnythingOddAsHexAndStaysShort)
{
    EXPECT_EQ(printable("a b\t\x80"), "a b\\x09\\x80");
    EXPECT_EQ(printable(std::string(200, 'x')), std::string(96, 'x') + "...");
}

} // namespace
