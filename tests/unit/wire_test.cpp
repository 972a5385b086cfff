/* Notifications on the wire, both ways. What goes over the wire stands here as it is, byte for byte. */
#include "ezeblogicaladdr.h"
#include "ezebnotification.h"
#include "ezebproplist.h"
#include "ezebruntime.h"

#include "unit.h"

#include <algorithm>
#include <cstring>
#include <random>
#include <thread>
#include <vector>

namespace
{

/* ---- Writing ---- */

struct Writing : testing::Test {
    unit::sockets pair;
    ezeb_sb *sb = ezeb_sb_create(pair.near);
    std::unique_ptr<ezeb_runtime> rt = std::make_unique<ezeb_runtime>(); /* for the instance name alone */
    zeb_notification *n = zeb_notification_create("t", nullptr, 0);

    Writing()
    {
        ezeb_mutex_init(&rt->namemutex);
    }
    ~Writing() override
    {
        ezeb_notification_destroy(n);
        ezeb_sb_free(sb);
        ezeb_instancename_set(rt.get(), "");
        ezeb_sharedtext *last = ezeb_instancename_ref(rt.get());
        ezeb_sharedtext_unref(last);
        ezeb_sharedtext_unref(last);
        ezeb_mutex_destroy(&rt->namemutex);
    }

    std::string written() const
    {
        EXPECT_EQ(ezeb_notification_write(rt.get(), n, sb), 1);
        return pair.received();
    }

    void stamp() const
    {
        ASSERT_EQ(ezeb_notification_set_pubinfo(n, "comp", "node1", "node1:9", "node1:911", 0), 1);
    }
};

TEST_F(Writing, AMessageWithOnePropertyAndABody)
{
    ezeb_notification_destroy(n);
    n = zeb_notification_create("t", "\x01\r\n\0z", 5);
    stamp();
    zeb_notification_setProperty(n, "k", "v");
    ezeb_instancename_set(rt.get(), "east");
    EXPECT_EQ(written(), unit::bytes("POST /event HTTP/1.1\r\n"
                                     "className: MessageNotification\r\n"
                                     "SubscriberID: 0\r\n"
                                     "eventType: t\r\n"
                                     "eventId: node1:911\r\n"
                                     "affectedComponents: \r\n"
                                     "affectedNodes: \r\n"
                                     "generatingComponent: comp\r\n"
                                     "generatingProcess: node1:9\r\n"
                                     "generatingNode: node1\r\n"
                                     "instanceName: east\r\n"
                                     "LocalOnly: false\r\n"
                                     "numberOfProperties: 1\r\n"
                                     "k: v\r\n"
                                     "Content-Length: 5\r\n"
                                     "AddrList-Length: 0\r\n"
                                     "\r\n"
                                     "\x01\r\n\0z"));
}

TEST_F(Writing, AMessageWithoutAnythingHasEmptyValuesAndNoProperties)
{
    EXPECT_EQ(written(), "POST /event HTTP/1.1\r\n"
                         "className: MessageNotification\r\n"
                         "SubscriberID: 0\r\n"
                         "eventType: t\r\n"
                         "eventId: \r\n"
                         "affectedComponents: \r\n"
                         "affectedNodes: \r\n"
                         "generatingComponent: \r\n"
                         "generatingProcess: \r\n"
                         "generatingNode: \r\n"
                         "instanceName: \r\n"
                         "LocalOnly: false\r\n"
                         "numberOfProperties: 0\r\n"
                         "Content-Length: 0\r\n"
                         "AddrList-Length: 0\r\n"
                         "\r\n");
}

constexpr const char *SHORT_CLASSES[] = {"MembershipListNotification", "MembershipDeltaNotification",
                                         "StateGetNotification", "StateSetNotification",
                                         "LeaveGroupNotification"};
constexpr uint32_t SHORT_NUMBERS[] = {1, 2, 5, 6, 7};

TEST_F(Writing, MembershipStateAndLeaveGroupCarryOnlySixHeaders)
{
    stamp();
    n->subscriberId = 12;
    zeb_notification_setProperty(n, "k", "not written");
    zeb_notification_setLocalOnly(n);
    for (size_t i = 0; i < std::size(SHORT_NUMBERS); i++) {
        ezeb_notification_setClass(n, SHORT_NUMBERS[i]);
        EXPECT_EQ(written(), std::string("POST /event HTTP/1.1\r\nclassName: ") + SHORT_CLASSES[i] +
                                 "\r\nSubscriberID: 12\r\n"
                                 "eventType: t\r\n"
                                 "eventId: node1:911\r\n"
                                 "Content-Length: 0\r\n"
                                 "AddrList-Length: 0\r\n"
                                 "\r\n");
    }
}

TEST_F(Writing, AnUnknownClassIsWrittenWithTheUnknownName)
{
    for (const uint32_t cls : {8U, 12U, UINT32_MAX}) {
        ezeb_notification_setClass(n, cls);
        EXPECT_EQ(written(), "POST /event HTTP/1.1\r\n"
                             "className: UnknownNotificationClass\r\n"
                             "SubscriberID: 0\r\n"
                             "eventType: t\r\n"
                             "eventId: \r\n"
                             "Content-Length: 0\r\n"
                             "AddrList-Length: 0\r\n"
                             "\r\n");
    }
}

TEST_F(Writing, AStreamPieceCarriesItsKeyBehindTheProperties)
{
    ezeb_notification_setClass(n, ZEB_CLASS_INCOMINGSTREAM);
    n->streamKey = "node1:912";
    n->affectedComponents = "db";
    n->affectedNodes = "n1 n2";
    zeb_notification_setProperty(n, "a", "1");
    zeb_notification_setLocalOnly(n);
    EXPECT_EQ(written(), "POST /event HTTP/1.1\r\n"
                         "className: IncomingStreamingNotification\r\n"
                         "SubscriberID: 0\r\n"
                         "eventType: t\r\n"
                         "eventId: \r\n"
                         "affectedComponents: db\r\n"
                         "affectedNodes: n1 n2\r\n"
                         "generatingComponent: \r\n"
                         "generatingProcess: \r\n"
                         "generatingNode: \r\n"
                         "instanceName: \r\n"
                         "LocalOnly: true\r\n"
                         "numberOfProperties: 1\r\n"
                         "a: 1\r\n"
                         "streamKey: node1:912\r\n"
                         "Content-Length: 0\r\n"
                         "AddrList-Length: 0\r\n"
                         "\r\n");
}

TEST_F(Writing, AStreamHeadHasTheOriginFieldsAndNoKey)
{
    ezeb_notification_setClass(n, ZEB_CLASS_OUTGOINGSTREAM);
    n->streamKey = "not written";
    EXPECT_EQ(written(), "POST /event HTTP/1.1\r\n"
                         "className: OutgoingStreamingNotification\r\n"
                         "SubscriberID: 0\r\n"
                         "eventType: t\r\n"
                         "eventId: \r\n"
                         "affectedComponents: \r\n"
                         "affectedNodes: \r\n"
                         "generatingComponent: \r\n"
                         "generatingProcess: \r\n"
                         "generatingNode: \r\n"
                         "instanceName: \r\n"
                         "LocalOnly: false\r\n"
                         "numberOfProperties: 0\r\n"
                         "Content-Length: 0\r\n"
                         "AddrList-Length: 0\r\n"
                         "\r\n");
}

TEST_F(Writing, TheInstanceNameIsTheRuntimesAndNotTheNotificationsOwn)
{
    n->instanceName = "its own";
    ezeb_instancename_set(rt.get(), "the runtime's");
    EXPECT_NE(written().find("\r\ninstanceName: the runtime's\r\n"), std::string::npos);
}

TEST_F(Writing, PropertiesGoNewestFirstDuplicatesIncluded)
{
    zeb_notification_setProperty(n, "a", "1");
    zeb_notification_setProperty(n, "b", "x: y");
    zeb_notification_setProperty(n, "a", "3");
    EXPECT_NE(written().find("\r\nnumberOfProperties: 3\r\na: 3\r\nb: x: y\r\na: 1\r\nContent-Length"),
              std::string::npos);
}

TEST_F(Writing, ANegativeBodyLengthIsWrittenAsZero)
{
    ezeb_notification_destroy(n);
    n = zeb_notification_create("t", "body", -5);
    const std::string bytes = written();
    EXPECT_NE(bytes.find("\r\nContent-Length: 0\r\n"), std::string::npos);
    EXPECT_EQ(bytes.substr(bytes.size() - 4), "\r\n\r\n");
}

/* One destination with an identifier, a matcher of two bytes, three address bytes and one property. */
constexpr std::string_view ONE_DESTINATION = unit::bytes("\x00\xA3\x7C\x08\xE7\x78\xEE\x24\x5F\xD3\xB6\x4E"
                                                         "\x01\x00\x09"
                                                         "dstAddr0\x00\x00"
                                                         "\x02\x00\x02"
                                                         "id\x00"
                                                         "\x00\x02"
                                                         "i1\x00"
                                                         "\x02\x00\x07"
                                                         "address\x00"
                                                         "\x00\x03"
                                                         "\x01\x00\x02\x00"
                                                         "\x02\x00\x07"
                                                         "matcher\x00"
                                                         "\x00\x02"
                                                         "mm\x00"
                                                         "\x01\x00\x0b"
                                                         "properties\x00\x01"
                                                         "\x02\x00\x01"
                                                         "p\x00"
                                                         "\x00\x01"
                                                         "q\x00");

struct Destination {
    zeb_logicaladdr record = {};
    zeb_property property = {const_cast<char *>("p"), const_cast<char *>("q")};
    zeb_proplist properties = {&property, 1, 1};

    Destination()
    {
        record.id = const_cast<char *>("i1");
        record.key = const_cast<char *>("never written");
        record.address = const_cast<char *>("\x01\0\x02");
        record.addressLength = 3;
        record.matcher = const_cast<char *>("mm");
        record.matcherLength = 2;
        record.properties = &properties;
    }
};

TEST_F(Writing, DestinationsFollowTheBodyAsABodyBlock)
{
    ezeb_notification_destroy(n);
    n = zeb_notification_create("t", "BODY", 4);
    ezeb_notification_setClass(n, ZEB_CLASS_STATESET);
    const Destination to;
    zeb_notification_setDestinationAddr(n, &to.record);
    ASSERT_EQ(ONE_DESTINATION.size(), 93U);
    EXPECT_EQ(written(), "POST /event HTTP/1.1\r\n"
                         "className: StateSetNotification\r\n"
                         "SubscriberID: 0\r\n"
                         "eventType: t\r\n"
                         "eventId: \r\n"
                         "Content-Length: 4\r\n"
                         "AddrList-Length: 93\r\n"
                         "\r\n"
                         "BODY" +
                             std::string(ONE_DESTINATION));
}

TEST_F(Writing, ABigBodyGoesOutWhole)
{
    ezeb_notification_destroy(n);
    std::string body(1000000, '\0');
    for (size_t i = 0; i < body.size(); i++)
        body[i] = static_cast<char>(i * 7);
    n = zeb_notification_create("t", body.data(), static_cast<int32_t>(body.size()));
    std::string got;
    std::thread reader([&] {
        char piece[65536];
        while (got.size() < body.size() || got.substr(got.size() - body.size()) != body) {
            const ssize_t count = recv(pair.far, piece, sizeof(piece), 0);
            if (count <= 0)
                return;
            got.append(piece, static_cast<size_t>(count));
        }
    });
    EXPECT_EQ(ezeb_notification_write(rt.get(), n, sb), 1);
    shutdown(pair.near, SHUT_WR);
    reader.join();
    EXPECT_NE(got.find("\r\nContent-Length: 1000000\r\nAddrList-Length: 0\r\n\r\n"), std::string::npos);
}

/* The connection is lost while the body, the end of this event, goes out: all of it gets out. */
TEST_F(Writing, AnEventThatWentOutWholeIsWrittenEvenWhenItsConnectionIsLostMeanwhile)
{
    ezeb_notification_destroy(n);
    const std::string body(1000000, 'x'); /* more than the socket takes */
    n = zeb_notification_create("t", body.data(), static_cast<int32_t>(body.size()));
    std::string got;
    std::thread reader([&] {
        char piece[65536];
        while (got.find("xxx") == std::string::npos)
            got.append(piece, static_cast<size_t>(recv(pair.far, piece, 1000, 0)));
        ezeb_sb_invalidate(sb);
        for (ssize_t count; (count = recv(pair.far, piece, sizeof(piece), 0)) > 0;)
            got.append(piece, static_cast<size_t>(count));
    });
    EXPECT_EQ(ezeb_notification_write(rt.get(), n, sb), 1);
    shutdown(pair.near, SHUT_WR);
    reader.join();
    EXPECT_EQ(std::count(got.begin(), got.end(), 'x'), 1000000);
}

TEST_F(Writing, NullIsMinusOneAndAFailedWriteIsZero)
{
    EXPECT_EQ(ezeb_notification_write(rt.get(), nullptr, sb), -1);
    ezeb_sb_invalidate(sb);
    EXPECT_EQ(ezeb_notification_write(rt.get(), n, sb), 0);
    EXPECT_EQ(pair.received(), "");
}

/* Without its addresses the event would go to everybody. */
TEST_F(Writing, WithoutMemoryForTheDestinationsNothingIsWritten)
{
    const Destination to;
    zeb_notification_setDestinationAddr(n, &to.record);
    unit::sweep([&](unit::refusal &refuse) {
        refuse.begin();
        const int32_t result = ezeb_notification_write(rt.get(), n, sb);
        refuse.end();
        EXPECT_EQ(result, refuse.happened() ? 0 : 1);
        EXPECT_EQ(pair.received().empty(), refuse.happened());
    });
}

TEST_F(Writing, APropertyListIsWrittenInTheOrderOfItsIndex)
{
    zeb_proplist *list = zeb_proplist_create();
    zeb_proplist_put(list, "b", "1");
    zeb_proplist_put(list, "a", "2");
    EXPECT_EQ(ezeb_write_proplist(list, sb), 1);
    ezeb_sb_flush(sb);
    EXPECT_EQ(pair.received(), "numberOfProperties: 2\r\nb: 1\r\na: 2\r\n");
    EXPECT_EQ(ezeb_write_proplist(list, nullptr), 0);
    ezeb_sb_invalidate(sb);
    EXPECT_EQ(ezeb_write_proplist(list, sb), 0);
    zeb_proplist_destroy(&list);
}

TEST_F(Writing, ANullOrEmptyPropertyListIsWrittenAsZero)
{
    zeb_proplist *list = zeb_proplist_create();
    EXPECT_EQ(ezeb_write_proplist(nullptr, sb), 1);
    EXPECT_EQ(ezeb_write_proplist(list, sb), 1);
    ezeb_sb_flush(sb);
    EXPECT_EQ(pair.received(), "numberOfProperties: 0\r\nnumberOfProperties: 0\r\n");
    zeb_proplist_destroy(&list);
}

/* ---- Reading ---- */

/* What a read gives, as one text that shows every field. */
std::string show(const char *s)
{
    return s != nullptr ? s : "-";
}

std::string showList(const char *label, const zeb_laddrlist *list)
{
    if (list == nullptr)
        return "";
    std::string text = std::string(" ") + label + "[";
    for (int32_t i = 0; i < zeb_laddrlist_count(list); i++)
        text += show(zeb_laddrlist_get(list, i)->id);
    return text + "]";
}

std::string show(const zeb_notification *n)
{
    std::string text = std::to_string(n->cls) + " type=" + show(n->type) + " id=" + show(n->id) +
                       " created=" + std::to_string(n->creationTime) +
                       " delivered=" + std::to_string(n->deliveryTime);
    if (n->affectedComponents != nullptr)
        text += " ac=" + show(n->affectedComponents) + " an=" + show(n->affectedNodes) +
                " comp=" + show(n->generatingComponent) + " proc=" + show(n->generatingProcess) +
                " node=" + show(n->generatingNode) + " inst=" + show(n->instanceName) +
                " local=" + std::to_string(n->localOnly);
    for (const ezeb_propnode *p = n->properties; p != nullptr; p = p->next)
        text += std::string(" <") + p->name + "|" + p->value + ">";
    if (n->streamKey != nullptr)
        text += std::string(" key=") + n->streamKey;
    text += " body=" + std::to_string(n->bodyLength) + ":";
    if (n->body != nullptr)
        text += std::string(n->body, static_cast<size_t>(n->bodyLength) + 1);
    if (n->generatingAddress != nullptr)
        text += " from=" + show(n->generatingAddress->id);
    return text + showList("to", n->destinationAddrs) + showList("members", n->memberList) +
           showList("added", n->membersAdded) + showList("removed", n->membersRemoved);
}

/* Reads one event from SB; "<null>" when it fails. */
std::string readEvent(ezeb_sb *sb, std::vector<int32_t> *idsOut = nullptr)
{
    int32_t *ids = nullptr;
    int32_t count = 0;
    zeb_notification *n = ezeb_notification_read(sb, &ids, &count);
    std::string text = "<null>";
    if (n != nullptr) {
        text = "";
        for (int32_t i = 0; i < count; i++)
            text += "#" + std::to_string(ids[i]) + " ";
        text += show(n);
        if (idsOut != nullptr)
            idsOut->assign(ids, ids + count);
    }
    ezeb_free(ids);
    ezeb_notification_destroy(n);
    return text;
}

/* Reads EVENT, which is all that comes before the end of the stream. */
std::string readOf(std::string_view event)
{
    unit::sockets pair;
    ezeb_sb *sb = ezeb_sb_create(pair.near);
    std::thread feeder([&] {
        pair.send(event);
        pair.hangUp();
    });
    std::string text = readEvent(sb);
    char *line;
    if (text != "<null>") {
        EXPECT_EQ(ezeb_sb_gets(sb, &line), 0) << "something is left of the event";
    }
    char rest[4096];
    while (recv(pair.near, rest, sizeof(rest), 0) > 0)
        ;
    feeder.join();
    ezeb_sb_free(sb);
    return text;
}

constexpr std::string_view MESSAGE = unit::bytes("className: MessageNotification\r\n"
                                                 "SubscriberID: 5\r\n"
                                                 "eventType: /app/disk\r\n"
                                                 "eventId: node1:911\r\n"
                                                 "creationTime: 1416556063123\r\n"
                                                 "deliveryTime: 1416556063456\r\n"
                                                 "affectedComponents: db\r\n"
                                                 "affectedNodes: n1 n2\r\n"
                                                 "generatingComponent: comp\r\n"
                                                 "generatingProcess: node1:9\r\n"
                                                 "generatingNode: node1\r\n"
                                                 "instanceName: east\r\n"
                                                 "LocalOnly: true\r\n"
                                                 "numberOfProperties: 2\r\n"
                                                 "a: 1\r\n"
                                                 "b: x: y\r\n"
                                                 "Content-Length: 4\r\n"
                                                 "AddrList-Length: 0\r\n"
                                                 "\r\n"
                                                 "b\0\r\n");
constexpr std::string_view MESSAGE_READ = unit::bytes(
    "#5 0 type=/app/disk id=node1:911 created=1416556063123 delivered=1416556063456 ac=db an=n1 n2 "
    "comp=comp proc=node1:9 node=node1 inst=east local=1 <b|x: y> <a|1> body=4:b\0\r\n\0");

/* MESSAGE with FROM replaced by TO. */
std::string with(std::string_view event, std::string_view from, std::string_view to)
{
    std::string changed(event);
    const size_t at = changed.find(from);
    EXPECT_NE(at, std::string::npos) << from;
    return changed.replace(at, from.size(), to);
}

TEST(Reading, AMessageWithEverything)
{
    EXPECT_EQ(readOf(MESSAGE), MESSAGE_READ);
}

TEST(Reading, PropertiesArriveInTheReverseOfTheirSending)
{
    EXPECT_NE(readOf(with(MESSAGE, "a: 1\r\nb: x: y", "a: 1\r\nb: 2")).find("<b|2> <a|1>"),
              std::string::npos);
}

/* The sender finds its newest value, a receiver the oldest. */
TEST(Reading, OfDuplicatePropertiesAReceiverFindsTheLastOneSent)
{
    unit::sockets pair;
    ezeb_sb *sb = ezeb_sb_create(pair.near);
    pair.send(with(MESSAGE, "a: 1\r\nb: x: y", "k: newest\r\nk: oldest"));
    int32_t *ids = nullptr;
    int32_t count = 0;
    zeb_notification *n = ezeb_notification_read(sb, &ids, &count);
    EXPECT_STREQ(zeb_notification_getProperty(n, "k"), "oldest");
    ezeb_free(ids);
    ezeb_notification_destroy(n);
    ezeb_sb_free(sb);
}

TEST(Reading, SeveralIdentifiersAreSeparatedBySemicolons)
{
    const auto idsOf = [](const char *value) {
        const std::string text =
            readOf(with(MESSAGE, "SubscriberID: 5", std::string("SubscriberID: ") + value));
        return text.substr(0, text.find(" 0 type"));
    };
    EXPECT_EQ(idsOf("3;9"), "#3 #9");
    EXPECT_EQ(idsOf("5"), "#5");
    EXPECT_EQ(idsOf("1;2;3;4"), "#1 #2 #3 #4");
    EXPECT_EQ(idsOf("5;"), "#5 #0");
    EXPECT_EQ(idsOf(";5"), "#0 #5");
    EXPECT_EQ(idsOf(";"), "#0 #0");
    EXPECT_EQ(idsOf("x;7y;-2"), "#0 #7 #-2");
    EXPECT_EQ(idsOf("010"), "#10");
    EXPECT_EQ(idsOf("4294967301"), "#5");
    EXPECT_EQ(idsOf(" ;9"), "#0 #9");
}

TEST(Reading, AnEmptyIdentifierFails)
{
    EXPECT_EQ(readOf(with(MESSAGE, "SubscriberID: 5", "SubscriberID: ")), "<null>");
}

TEST(Reading, TheIdentifiersStayWithTheCallerWhenTheReadFailsLater)
{
    unit::sockets pair;
    ezeb_sb *sb = ezeb_sb_create(pair.near);
    pair.send("className: MessageNotification\r\nSubscriberID: 3;9\r\neventType: t\r\n");
    pair.hangUp();
    int32_t *ids = nullptr;
    int32_t count = 0;
    EXPECT_EQ(ezeb_notification_read(sb, &ids, &count), nullptr);
    ASSERT_NE(ids, nullptr);
    EXPECT_EQ(count, 2);
    EXPECT_EQ(ids[1], 9);
    ezeb_free(ids);
    ezeb_sb_free(sb);
}

/* Their bytes would be 4 GiB and a few, of which a narrow size_t keeps the few. */
TEST(Reading, MoreIdentifiersThanMemoryCanHoldFail)
{
    if (sizeof(size_t) > 4)
        GTEST_SKIP() << "memory holds them here";
    unit::sockets pair;
    ezeb_sb *sb = ezeb_sb_create(pair.near);
    std::thread daemon([&pair] {
        pair.send("className: MessageNotification\r\nSubscriberID: ");
        const std::string separators(1 << 20, ';');
        for (int i = 0; i < 1 << 10; i++)
            pair.send(separators);
        pair.send("\r\n");
        pair.hangUp();
    });
    int32_t *ids = nullptr;
    int32_t count = 0;
    EXPECT_EQ(ezeb_notification_read(sb, &ids, &count), nullptr);
    EXPECT_EQ(ids, nullptr);
    daemon.join();
    ezeb_sb_free(sb);
}

TEST(Reading, LocalOnlyIsSetByTheExactWordTrueAlone)
{
    for (const char *value : {"TRUE", "True", "1", "", "true ", "false", "yes"})
        EXPECT_NE(
            readOf(with(MESSAGE, "LocalOnly: true", std::string("LocalOnly: ") + value)).find(" local=0 "),
            std::string::npos)
            << value;
}

constexpr std::string_view SHORT_EVENT = "className: MembershipListNotification\r\n"
                                         "SubscriberID: 2\r\n"
                                         "eventType: t\r\n"
                                         "eventId: i\r\n"
                                         "creationTime: 5\r\n"
                                         "deliveryTime: 6\r\n"
                                         "Content-Length: 2\r\n"
                                         "AddrList-Length: 0\r\n"
                                         "\r\n"
                                         "ab";

TEST(Reading, MembershipStateAndLeaveGroupHaveNoOriginFields)
{
    for (size_t i = 0; i < std::size(SHORT_NUMBERS); i++)
        EXPECT_EQ(readOf(with(SHORT_EVENT, SHORT_CLASSES[0], SHORT_CLASSES[i])),
                  "#2 " + std::to_string(SHORT_NUMBERS[i]) +
                      std::string(unit::bytes(" type=t id=i created=5 delivered=6 body=2:ab\0")));
}

TEST(Reading, AStreamPieceCarriesItsKeyAndAHeadDoesNot)
{
    const std::string piece = with(with(MESSAGE, "MessageNotification", "IncomingStreamingNotification"),
                                   "b: x: y\r\n", "b: x: y\r\nstreamKey: node1:912\r\n");
    EXPECT_EQ(readOf(piece), with(with(MESSAGE_READ, "#5 0", "#5 4"), " body=", " key=node1:912 body="));
    EXPECT_EQ(readOf(with(MESSAGE, "MessageNotification", "OutgoingStreamingNotification")),
              with(MESSAGE_READ, "#5 0", "#5 3"));
}

TEST(Reading, AnUnknownClassFailsWithAMessage)
{
    for (const char *name : {"UnknownNotificationClass", "messagenotification", "", "MessageNotification "}) {
        testing::internal::CaptureStderr();
        EXPECT_EQ(readOf(with(MESSAGE, "MessageNotification", name)), "<null>");
        EXPECT_EQ(testing::internal::GetCapturedStderr(),
                  "Notification Read Error: unknown class of notification\n")
            << name;
    }
}

TEST(Reading, HeaderNamesAreSkippedAndNotCompared)
{
    std::string event(MESSAGE);
    for (const char *name :
         {"className", "SubscriberID", "eventType", "eventId", "creationTime", "deliveryTime",
          "affectedComponents", "affectedNodes", "generatingComponent", "generatingProcess", "generatingNode",
          "instanceName", "LocalOnly", "numberOfProperties", "Content-Length", "AddrList-Length"})
        event = with(event, std::string(name) + ": ", std::string(strlen(name), '?') + "!!");
    EXPECT_EQ(readOf(event), MESSAGE_READ);
}

TEST(Reading, LinesMayEndWithAFeedAlone)
{
    std::string event(MESSAGE.substr(0, MESSAGE.size() - 6));
    for (size_t at; (at = event.find("\r\n")) != std::string::npos;)
        event.erase(at, 1);
    EXPECT_EQ(readOf(event + "\r\n" + std::string(MESSAGE.substr(MESSAGE.size() - 4))), MESSAGE_READ);
}

/* The empty line is two bytes, whatever they are: when it is one line feed alone, it takes a byte of the body
 * along. */
TEST(Reading, TheEmptyLineIsAlwaysTwoBytes)
{
    const std::string event = with(SHORT_EVENT, "\r\n\r\nab", "\r\n\nabc");
    EXPECT_NE(readOf(event).find("body=2:bc"), std::string::npos);
    EXPECT_NE(readOf(with(SHORT_EVENT, "\r\n\r\nab", "\r\n##ab")).find("body=2:ab"), std::string::npos);
}

TEST(Reading, APropertyLineWithoutAColonCountsButGivesNothing)
{
    const std::string event = with(with(MESSAGE, "numberOfProperties: 2", "numberOfProperties: 1"),
                                   "a: 1\r\nb: x: y", "no colon here");
    EXPECT_NE(readOf(event).find(" local=1 body="), std::string::npos);
}

TEST(Reading, TheByteBehindThePropertysColonIsAlwaysDropped)
{
    const auto read = [](const char *line) {
        const std::string text = readOf(with(MESSAGE, "a: 1\r\nb: x: y", std::string(line) + "\r\nz: end"));
        const size_t at = text.find("<z|end> ") + 8;
        return text.substr(at, text.find(" body=") - at);
    };
    EXPECT_EQ(read("a:b"), "<a|>");
    EXPECT_EQ(read("a:bcd"), "<a|cd>");
    EXPECT_EQ(read("a:  b"), "<a| b>");
    EXPECT_EQ(read(": v"), "<|v>");
    EXPECT_EQ(read("a:"), "<a|>") << "nothing is read behind the end of the line";
    EXPECT_EQ(read(":"), "<|>");
    EXPECT_EQ(read("a: b:c: d"), "<a|b:c: d>");
}

TEST(Reading, NegativeOrMissingNumbersCountAsNone)
{
    for (const char *number : {"-1", "", "x", "-2147483648"}) {
        std::string event =
            with(MESSAGE, "numberOfProperties: 2", std::string("numberOfProperties: ") + number);
        event = with(event, "a: 1\r\nb: x: y\r\n", "");
        event = with(event, "Content-Length: 4", std::string("Content-Length: ") + number);
        event = with(event, "AddrList-Length: 0", std::string("AddrList-Length: ") + number);
        event.resize(event.size() - 4);
        EXPECT_NE(readOf(event).find(" local=1 body=0:"), std::string::npos) << number;
    }
}

TEST(Reading, NumbersHaveNoOtherBaseAndAreCutTo32Bits)
{
    EXPECT_NE(readOf(with(SHORT_EVENT, "Content-Length: 2", "Content-Length: 02")).find("body=2:ab"),
              std::string::npos);
    EXPECT_NE(readOf(with(SHORT_EVENT, "Content-Length: 2", "Content-Length: 4294967298")).find("body=2:ab"),
              std::string::npos);
}

TEST(Reading, TimesAreReadLeniently)
{
    EXPECT_NE(readOf(with(SHORT_EVENT, "creationTime: 5", "creationTime: at -77 ms")).find("created=-77 "),
              std::string::npos);
    EXPECT_NE(readOf(with(SHORT_EVENT, "deliveryTime: 6", "deliveryTime: ")).find("delivered=0 "),
              std::string::npos);
}

TEST(Reading, AddressesFollowTheEmptyLineAtOnceWhenThereIsNoBody)
{
    constexpr std::string_view block = unit::bytes("\x00\xA3\x7C\x08\xE7\x78\xEE\x24\x5F\xD3\xB6\x4E"
                                                   "\x01\x00\x09"
                                                   "srcAddr0\x00\x00"
                                                   "\x02\x00\x02"
                                                   "id\x00"
                                                   "\x00\x06"
                                                   "123456\x00");
    static_assert(block.size() == 40);
    std::string event = with(SHORT_EVENT, "Content-Length: 2", "Content-Length: 0");
    event = with(event, "AddrList-Length: 0", "AddrList-Length: 40");
    event = with(event, "\r\nab", "\r\n" + std::string(block));
    EXPECT_NE(readOf(event).find(" body=0: from=123456"), std::string::npos);
}

TEST(Reading, EveryKindOfAddressReachesItsField)
{
    constexpr std::string_view block = unit::bytes("\x00\xA3\x7C\x08\xE7\x78\xEE\x24\x5F\xD3\xB6\x4E"
                                                   "\x01\x00\x03"
                                                   "gr\x00\x00"
                                                   "\x02\x00\x02"
                                                   "id\x00\x00\x01"
                                                   "G\x00"
                                                   "\x01\x00\x03"
                                                   "ds\x00\x00"
                                                   "\x02\x00\x02"
                                                   "id\x00\x00\x01"
                                                   "D\x00"
                                                   "\x01\x00\x03"
                                                   "mb\x00\x00"
                                                   "\x02\x00\x02"
                                                   "id\x00\x00\x01"
                                                   "M\x00"
                                                   "\x01\x00\x03"
                                                   "ad\x00\x00"
                                                   "\x02\x00\x02"
                                                   "id\x00\x00\x01"
                                                   "A\x00"
                                                   "\x01\x00\x03"
                                                   "re\x00\x00"
                                                   "\x02\x00\x02"
                                                   "id\x00\x00\x01"
                                                   "R\x00");
    std::string event =
        with(SHORT_EVENT, "AddrList-Length: 0", "AddrList-Length: " + std::to_string(block.size()));
    EXPECT_NE(readOf(event + std::string(block)).find(" from=G to[D] members[M] added[A] removed[R]"),
              std::string::npos);
}

TEST(Reading, AddressBytesWithoutASignatureFillNothing)
{
    const std::string event =
        with(SHORT_EVENT, "AddrList-Length: 0", "AddrList-Length: 14") + "no block here!";
    EXPECT_EQ(readOf(event), std::string(unit::bytes("#2 1 type=t id=i created=5 delivered=6 body=2:ab\0")));
}

/* A header line shorter than its name: the skip goes on into the next line, and the reader is out of step,
 * but never reads what has not come. */
TEST(Reading, AShortHeaderLineEatsIntoTheNextOne)
{
    EXPECT_EQ(readOf(with(SHORT_EVENT, "eventId: i\r\n", "e\r\n")), "<null>");
    EXPECT_NE(readOf(with(SHORT_EVENT, "eventType: t\r\neventId: ", "e\r\n12345678tt\r\neventId: "))
                  .find("type=tt "),
              std::string::npos);
}

TEST(Reading, AnAnnouncedLengthThatNeverComesFailsWithoutCommittingIt)
{
    for (const char *number : {"2147483647", "5"}) {
        testing::internal::CaptureStderr();
        EXPECT_EQ(readOf(with(SHORT_EVENT, "Content-Length: 2", std::string("Content-Length: ") + number)),
                  "<null>");
        EXPECT_EQ(testing::internal::GetCapturedStderr(),
                  "READ LESS THAN THE FULL BUFFER, ret=0, len=" + std::to_string(atoi(number) - 2) + "\n");
        testing::internal::CaptureStderr();
        EXPECT_EQ(readOf(with(SHORT_EVENT, "AddrList-Length: 0", std::string("AddrList-Length: ") + number)),
                  "<null>");
        EXPECT_EQ(testing::internal::GetCapturedStderr(),
                  std::string("READ LESS THAN THE FULL BUFFER, ret=0, len=") + number + "\n");
    }
}

TEST(Reading, ABodyOfSeveralStepsArrivesWhole)
{
    for (const size_t size : {1048575, 1048576, 1048577, 5000000}) {
        std::string body(size, '\0');
        for (size_t i = 0; i < size; i++)
            body[i] = static_cast<char>(i * 13);
        std::string event = with(SHORT_EVENT, "Content-Length: 2", "Content-Length: " + std::to_string(size));
        event.resize(event.size() - 2);
        const std::string text = readOf(event + body);
        const size_t at = text.find(" body=" + std::to_string(size) + ":");
        ASSERT_NE(at, std::string::npos);
        const std::string got = text.substr(text.find(':', at) + 1);
        EXPECT_TRUE(got.substr(0, size) == body);
        EXPECT_EQ(got.size(), size + 1) << "with a NUL behind it";
    }
}

/* An event with everything the reader knows. */
std::string fullEvent()
{
    std::string event = with(with(MESSAGE, "MessageNotification", "IncomingStreamingNotification"),
                             "b: x: y\r\n", "b: x: y\r\nstreamKey: node1:912\r\n");
    event = with(event, "AddrList-Length: 0", "AddrList-Length: 93");
    return event + std::string(ONE_DESTINATION);
}

constexpr std::string_view FULL_READ = unit::bytes(
    "#5 4 type=/app/disk id=node1:911 created=1416556063123 delivered=1416556063456 ac=db an=n1 n2 "
    "comp=comp proc=node1:9 node=node1 inst=east local=1 <b|x: y> <a|1> key=node1:912 "
    "body=4:b\0\r\n\0 to[i1]");

TEST(ReadingPieces, AnEventCutAtAnyByteFailsAndLosesNothing)
{
    const std::string event = fullEvent();
    testing::internal::CaptureStderr();
    for (size_t cut = 0; cut < event.size(); cut++) {
        unit::sockets pair;
        ezeb_sb *sb = ezeb_sb_create(pair.near);
        pair.send(std::string_view(event).substr(0, cut));
        pair.hangUp();
        ASSERT_EQ(readEvent(sb), "<null>") << "cut at " << cut;
        ezeb_sb_free(sb);
    }
    testing::internal::GetCapturedStderr();
}

TEST(ReadingPieces, AnEventSplitAtAnyByteReadsTheSame)
{
    const std::string event = fullEvent();
    for (size_t cut = 0; cut <= event.size(); cut++) {
        unit::sockets pair;
        ezeb_sb *sb = ezeb_sb_create(pair.near);
        pair.send(std::string_view(event).substr(0, cut));
        std::thread feeder([&] {
            char one;
            while (recv(pair.near, &one, 1, MSG_PEEK | MSG_DONTWAIT) == 1)
                std::this_thread::yield();
            pair.send(std::string_view(event).substr(cut));
        });
        ASSERT_EQ(readEvent(sb), FULL_READ) << "split at " << cut;
        feeder.join();
        ezeb_sb_free(sb);
    }
}

TEST(ReadingPieces, EventsInRandomPiecesReadTheSame)
{
    const std::string event = fullEvent();
    std::mt19937 random(99);
    for (int round = 0; round < 60; round++) {
        unit::sockets pair;
        ezeb_sb *sb = ezeb_sb_create(pair.near);
        const std::string two = event + std::string(MESSAGE);
        std::thread feeder([&] {
            for (std::string_view rest = two; !rest.empty();) {
                const size_t piece = std::min<size_t>(rest.size(), 1 + random() % 40);
                pair.send(rest.substr(0, piece));
                rest.remove_prefix(piece);
                std::this_thread::yield();
            }
        });
        ASSERT_EQ(readEvent(sb), FULL_READ);
        ASSERT_EQ(readEvent(sb), MESSAGE_READ);
        feeder.join();
        ezeb_sb_free(sb);
    }
}

/* Whatever one byte becomes, the reader gives a notification or null, and ends. */
TEST(ReadingPieces, AnyChangeOfOneByteIsSurvived)
{
    const std::string event = fullEvent();
    testing::internal::CaptureStderr();
    size_t read = 0;
    for (size_t at = 0; at < event.size(); at++)
        for (const char to : {'\0', '\n', '\r', ':', ';', '-', '9', '\xff'}) {
            std::string changed = event;
            changed[at] = to;
            unit::sockets pair;
            ezeb_sb *sb = ezeb_sb_create(pair.near);
            pair.send(changed);
            pair.hangUp();
            read += readEvent(sb) != "<null>" ? 1 : 0;
            ezeb_sb_free(sb);
        }
    testing::internal::GetCapturedStderr();
    EXPECT_GT(read, event.size()) << "most changes harm nothing but a value";
}

TEST(ReadingPieces, LinesDeletedDoubledSwappedOrEmptiedAreSurvived)
{
    const std::string event = fullEvent();
    std::vector<std::string> lines;
    size_t from = 0;
    for (size_t at; (at = event.find("\r\n", from)) != from; from = at + 2)
        lines.push_back(event.substr(from, at + 2 - from));
    const std::string rest = event.substr(from);
    const auto join = [&](const std::vector<std::string> &parts) {
        std::string whole;
        for (const std::string &part : parts)
            whole += part;
        return whole + rest;
    };
    std::vector<std::string> changed;
    for (size_t i = 0; i < lines.size(); i++) {
        std::vector<std::string> parts = lines;
        parts.erase(parts.begin() + static_cast<ptrdiff_t>(i));
        changed.push_back(join(parts));
        parts = lines;
        parts.insert(parts.begin() + static_cast<ptrdiff_t>(i), lines[i]);
        changed.push_back(join(parts));
        parts = lines;
        std::swap(parts[i], parts[(i + 1) % parts.size()]);
        changed.push_back(join(parts));
        for (const char *shorter : {"\r\n", "\n", "x\r\n", ": \r\n"}) {
            parts = lines;
            parts[i] = shorter;
            changed.push_back(join(parts));
        }
    }
    testing::internal::CaptureStderr();
    for (const std::string &each : changed) {
        unit::sockets pair;
        ezeb_sb *sb = ezeb_sb_create(pair.near);
        pair.send(each);
        pair.hangUp();
        readEvent(sb);
        ezeb_sb_free(sb);
    }
    testing::internal::GetCapturedStderr();
}

TEST(ReadingPieces, ReadingWithoutMemoryGivesNullOrLosesAddressesAlone)
{
    const std::string long_value(3000, 'v'); /* beyond the notification's own room */
    const std::string event = with(fullEvent(), "b: x: y", "b: " + long_value);
    testing::internal::CaptureStderr();
    unit::sweep([&](unit::refusal &refuse) {
        unit::sockets pair;
        ezeb_sb *sb = ezeb_sb_create(pair.near);
        pair.send(event);
        pair.hangUp();
        int32_t *ids = nullptr;
        int32_t count = 0;
        refuse.begin();
        zeb_notification *n = ezeb_notification_read(sb, &ids, &count);
        refuse.end();
        if (n != nullptr && refuse.happened()) {
            /* Decoding the addresses is not checked: some may be missing, nothing else. */
            EXPECT_EQ(n->bodyLength, 4);
            EXPECT_LE(zeb_laddrlist_count(n->destinationAddrs), 1);
        }
        EXPECT_TRUE(n != nullptr || refuse.happened());
        if (!refuse.happened()) {
            EXPECT_EQ(zeb_laddrlist_count(n->destinationAddrs), 1);
        }
        ezeb_free(ids);
        ezeb_notification_destroy(n);
        ezeb_sb_free(sb);
    });
    testing::internal::GetCapturedStderr();
}

/* What the writer sends, the reader of another client would get once the daemon has added the times. */
TEST(ReadingPieces, WhatIsWrittenCanBeReadWithTheTimesPutIn)
{
    unit::sockets out;
    ezeb_sb *writer = ezeb_sb_create(out.near);
    auto rt = std::make_unique<ezeb_runtime>();
    ezeb_mutex_init(&rt->namemutex);
    zeb_notification *n = zeb_notification_create("/app", "body", 4);
    ASSERT_EQ(ezeb_notification_set_pubinfo(n, "c", "n", "n:1", "n:101", 3), 1);
    zeb_notification_setProperty(n, "a", "1");
    zeb_notification_setProperty(n, "b", "2");
    const Destination to;
    zeb_notification_setDestinationAddr(n, &to.record);
    ASSERT_EQ(ezeb_notification_write(rt.get(), n, writer), 1);
    std::string bytes = out.received();
    bytes = with(bytes, "POST /event HTTP/1.1\r\n", "");
    bytes = with(bytes, "affectedComponents", "creationTime: 7\r\ndeliveryTime: 8\r\naffectedComponents");
    EXPECT_EQ(readOf(bytes),
              std::string(
                  unit::bytes("#3 0 type=/app id=n:101 created=7 delivered=8 ac= an= comp=c proc=n:1 node=n "
                              "inst= local=0 <a|1> <b|2> body=4:body\0 to[i1]")));
    ezeb_notification_destroy(n);
    ezeb_sb_free(writer);
    ezeb_mutex_destroy(&rt->namemutex);
}

/* A received notification may be published again: what stood behind a NUL was never part of it. */
TEST_F(Writing, WhatWasReceivedIsWrittenUpToItsFirstNul)
{
    unit::sockets in;
    ezeb_sb *reader = ezeb_sb_create(in.near);
    in.send(with(with(MESSAGE, "a: 1", unit::bytes("a: 1\0 and more")), "b: x", unit::bytes("b: \0x")));
    int32_t *ids = nullptr;
    int32_t count = 0;
    ezeb_notification_destroy(n);
    n = ezeb_notification_read(reader, &ids, &count);
    ezeb_free(ids);
    ezeb_sb_free(reader);
    ASSERT_NE(n, nullptr);
    EXPECT_NE(written().find("numberOfProperties: 2\r\nb: \r\na: 1\r\nContent-Length: 4\r\n"),
              std::string::npos);
}

#ifdef ZEB_SPEED_GUARDS
TEST(ReadingSpeed, AMillionIdentifiersTakeLessThanTwoSeconds)
{
    std::string list = "1";
    for (int i = 1; i < 1000000; i++)
        list += ";" + std::to_string(i % 10000);
    const std::string event = with(SHORT_EVENT, "SubscriberID: 2", "SubscriberID: " + list);
    unit::sockets pair;
    ezeb_sb *sb = ezeb_sb_create(pair.near);
    std::thread feeder([&] { pair.send(event); });
    const double start = unit::processorSeconds();
    int32_t *ids = nullptr;
    int32_t count = 0;
    zeb_notification *n = ezeb_notification_read(sb, &ids, &count);
    EXPECT_LT(unit::processorSeconds() - start, 2.0);
    EXPECT_NE(n, nullptr);
    EXPECT_EQ(count, 1000000);
    feeder.join();
    ezeb_free(ids);
    ezeb_notification_destroy(n);
    ezeb_sb_free(sb);
}
#endif

} // namespace
