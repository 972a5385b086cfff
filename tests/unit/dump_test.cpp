/* The text of a notification, byte for byte: every class, every format of the body. */
#include "ezeblogicaladdr.h"
#include "ezebnotification.h"
#include "ezebproplist.h"

#include "unit.h"

#include <cinttypes>
#include <cstdio>

namespace
{

struct Dump : testing::Test {
    zeb_notification *n = zeb_notification_create("/app/disk", nullptr, 0);

    ~Dump() override
    {
        ezeb_notification_destroy(n);
    }

    /* Gives N the LENGTH bytes at BODY in place of its own. */
    void body(const void *data, int32_t length)
    {
        ezeb_notification_destroy(n);
        n = zeb_notification_create("/app/disk", data, length);
    }

    std::string dumped(int32_t format = 0) const
    {
        const unit::text text(zeb_notification_toString(n, format));
        return text != nullptr ? text.get() : "<null>";
    }

    /* "NOTIFICATION 0x55... ==>" */
    std::string title() const
    {
        char text[64];
        snprintf(text, sizeof(text), "NOTIFICATION 0x%" PRIxPTR " ==>\n", reinterpret_cast<uintptr_t>(n));
        return text;
    }

    /* What stands above the body of a notification of class 0 that has nothing but its type. */
    std::string bare_head() const
    {
        return title() + "  Notification Class:   MessageNotification\n"
                         "  Notification ID:      (null)\n"
                         "  Notification Type:    /app/disk\n"
                         "  Creation Time:        0\n"
                         "  Delivery Time:        0\n"
                         "  Generating Component: (null)\n"
                         "  Generating Node:      (null)\n"
                         "  Generating Process:   (null)\n"
                         "  Instance Name:        (null)\n"
                         "  Affected Components:  (null)\n"
                         "  Affected Nodes:       (null)\n"
                         "  Local Only Flag:      false\n"
                         "  Source Addr:          (null)\n";
    }
};

/* An address of COMPONENT on host h. */
zeb_logicaladdr address(const char *component)
{
    zeb_logicaladdr record = {};
    record.hostName = const_cast<char *>("h");
    record.component = const_cast<char *>(component);
    record.key = const_cast<char *>(component);
    return record;
}

zeb_laddrlist *addresses(std::initializer_list<const char *> components)
{
    zeb_laddrlist *list = zeb_laddrlist_create();
    for (const char *component : components) {
        const zeb_logicaladdr one = address(component);
        zeb_laddrlist_add(list, &one);
    }
    return list;
}

/* As Dump, with everything filled that a class could show. */
struct FullDump : Dump {
    FullDump()
    {
        n->id = "node1:911";
        n->creationTime = 1234567;
        n->deliveryTime = 7654321;
        n->generatingComponent = "storage";
        n->generatingNode = "node1";
        n->generatingProcess = "node1:9";
        n->instanceName = "west";
        n->affectedComponents = "disk,fan";
        n->affectedNodes = "node2";
        zeb_notification_setProperty(n, "first", "1");
        zeb_notification_setProperty(n, "second", "2");
        zeb_notification_setLocalOnly(n);
        const zeb_logicaladdr source = address("src");
        n->generatingAddress = ezeb_logicaladdr_dup(&source);
        n->destinationAddrs = addresses({"dst1", "dst2"});
        n->memberList = addresses({"mbr1", "mbr2"});
        n->membersAdded = addresses({"add1", "add2"});
        n->membersRemoved = addresses({"del1", "del2"});
    }

    std::string of_class(uint32_t cls)
    {
        ezeb_notification_setClass(n, cls);
        return dumped(1);
    }

    std::string head(const char *name) const
    {
        return title() + "  Notification Class:   " + name +
               "\n"
               "  Notification ID:      node1:911\n"
               "  Notification Type:    /app/disk\n"
               "  Creation Time:        1234\n"
               "  Delivery Time:        7654\n";
    }

    static std::string shown(const char *component)
    {
        return "{TierId=(null),Tier=(null),Hostname=h,InstanceName=(null),Component=" +
               std::string(component) + ",Subscription=(null)}\n";
    }

    static std::string origin()
    {
        return "  Generating Component: storage\n"
               "  Generating Node:      node1\n"
               "  Generating Process:   node1:9\n"
               "  Instance Name:        west\n"
               "  Affected Components:  disk,fan\n"
               "  Affected Nodes:       node2\n"
               "  Local Only Flag:      true\n"
               "  Property:             second=2\n"
               "  Property:             first=1\n";
    }

    static std::string source_and_destinations()
    {
        return "  Source Addr:          " + shown("src") + "  Destination Addr:     " + shown("dst1") +
               "  Destination Addr:     " + shown("dst2");
    }
};

/* ---- Nothing, and nothing but a type ---- */

TEST(DumpOfNull, IsOneFixedLineInEveryFormat)
{
    for (int32_t format = 0; format <= 4; format++) {
        const unit::text text(zeb_notification_toString(nullptr, format));
        EXPECT_STREQ(text.get(), "NOTIFICATION 0x0 (NULL)\n");
    }
}

TEST_F(Dump, AbsentFieldsReadNull)
{
    EXPECT_EQ(dumped(), bare_head() + "  Body Length:          0\n");
}

/* ---- Classes ---- */

TEST_F(FullDump, AMessageShowsOriginAddressesAndLength)
{
    EXPECT_EQ(of_class(0), head("MessageNotification") + origin() + source_and_destinations() +
                               "  Body Length:          0\n");
}

TEST_F(FullDump, BothClassesOfStreamsShowWhatAMessageShows)
{
    EXPECT_EQ(of_class(3), head("OutgoingStreamingNotification") + origin() + source_and_destinations() +
                               "  Body Length:          0\n");
    EXPECT_EQ(of_class(4), head("IncomingStreamingNotification") + origin() + source_and_destinations() +
                               "  Body Length:          0\n");
}

TEST_F(FullDump, AMembershipListShowsItsMembersAndNeitherOriginNorPropertiesNorLength)
{
    EXPECT_EQ(of_class(1), head("MembershipListNotification") + "  Member Addr:          " + shown("mbr1") +
                               "  Member Addr:          " + shown("mbr2"));
}

TEST_F(FullDump, AMembershipDeltaShowsRemovedMembersUnderTheLabelOfMembers)
{
    EXPECT_EQ(of_class(2), head("MembershipDeltaNotification") + "  Added Addr:           " + shown("add1") +
                               "  Added Addr:           " + shown("add2") + "  Member Addr:          " +
                               shown("del1") + "  Member Addr:          " + shown("del2"));
}

TEST_F(FullDump, AStateRequestShowsAddressesOnly)
{
    EXPECT_EQ(of_class(5), head("StateGetNotification") + source_and_destinations());
}

TEST_F(FullDump, AStateShowsAddressesAndLength)
{
    EXPECT_EQ(of_class(6),
              head("StateSetNotification") + source_and_destinations() + "  Body Length:          0\n");
}

TEST_F(FullDump, OtherClassesShowNothingMoreAndAreClampedToUnknown)
{
    EXPECT_EQ(of_class(7), head("LeaveGroupNotification"));
    EXPECT_EQ(of_class(8), head("UnknownNotificationClass"));
    EXPECT_EQ(of_class(9), head("UnknownNotificationClass"));
    EXPECT_EQ(of_class(UINT32_MAX), head("UnknownNotificationClass"));
}

TEST_F(Dump, MembershipWithoutListsShowsNoAddressLines)
{
    ezeb_notification_setClass(n, ZEB_CLASS_MEMBERSHIPLIST);
    EXPECT_EQ(dumped().find("Addr:"), std::string::npos);
    ezeb_notification_setClass(n, ZEB_CLASS_MEMBERSHIPDELTA);
    EXPECT_EQ(dumped().find("Addr:"), std::string::npos);
}

TEST_F(Dump, AnEmptyDestinationListGivesNoLine)
{
    n->destinationAddrs = zeb_laddrlist_create();
    EXPECT_EQ(dumped(), bare_head() + "  Body Length:          0\n");
}

TEST_F(Dump, AddressesShowTheirProperties)
{
    zeb_logicaladdr source = address("src");
    source.properties = zeb_proplist_create();
    zeb_proplist_put(source.properties, "a", "1");
    zeb_proplist_put(source.properties, "b", "");
    n->generatingAddress = ezeb_logicaladdr_dup(&source);
    zeb_proplist_destroy(&source.properties);
    EXPECT_NE(dumped().find("  Source Addr:          {TierId=(null),Tier=(null),Hostname=h,"
                            "InstanceName=(null),Component=src,Subscription=(null),a=1,b=}\n"),
              std::string::npos)
        << dumped();
}

TEST_F(Dump, PropertiesAreShownNewestFirstWithDuplicatesAndReplacedTexts)
{
    zeb_notification_setProperty(n, "k", "old");
    zeb_notification_setProperty(n, "a:b", "v");
    zeb_notification_setProperty(n, "k", "new\n");
    EXPECT_NE(
        dumped().find("  Local Only Flag:      false\n"
                      "  Property:             k=ILLEGAL PROPERTY VALUE [Property value must not contain "
                      "'\\r' or '\\n']\n"
                      "  Property:             ILLEGAL PROPERTY NAME [Property name must not contain "
                      "':', '\\r', or '\\n']=v\n"
                      "  Property:             k=old\n"
                      "  Source Addr:          (null)\n"),
        std::string::npos)
        << dumped();
}

/* ---- Times ---- */

TEST_F(Dump, TheCreationTimeIsUnsignedAndTheDeliveryTimeSigned)
{
    n->creationTime = -5000;
    n->deliveryTime = -5000;
    EXPECT_NE(dumped().find("  Creation Time:        18446744073709551611\n"
                            "  Delivery Time:        -5\n"),
              std::string::npos)
        << dumped();
}

TEST_F(Dump, TimesAreWholeSecondsTowardsZero)
{
    n->creationTime = -1; /* published, time not known */
    n->deliveryTime = -1999;
    EXPECT_NE(dumped().find("  Creation Time:        0\n"
                            "  Delivery Time:        -1\n"),
              std::string::npos)
        << dumped();
    n->creationTime = INT64_MAX;
    n->deliveryTime = INT64_MIN;
    EXPECT_NE(dumped().find("  Creation Time:        9223372036854775\n"
                            "  Delivery Time:        -9223372036854775\n"),
              std::string::npos)
        << dumped();
}

/* ---- Bodies ---- */

TEST_F(Dump, Format0ShowsTheLengthAlone)
{
    body("hello", 5);
    EXPECT_EQ(dumped(0), bare_head() + "  Body Length:          5\n");
}

TEST_F(Dump, ABodyOfFiveBytesIsOneGroupAndOneByte)
{
    body("\1\2\3\4\5", 5);
    EXPECT_EQ(dumped(1), bare_head() + "  Body Length:          5\n"
                                       "  Body:\n"
                                       "    01020304 05\n"
                                       "\n");
}

TEST_F(Dump, ABodyOfFourBytesEndsWithASpace)
{
    body("\xff\x80\x7f\xa5", 4);
    EXPECT_EQ(dumped(1), bare_head() + "  Body Length:          4\n"
                                       "  Body:\n"
                                       "    ff807fa5 \n"
                                       "\n");
}

/* 00, 01, 02 and so on. */
std::string counting(int length)
{
    std::string bytes;
    for (int i = 0; i < length; i++)
        bytes += static_cast<char>(i);
    return bytes;
}

TEST_F(Dump, ABodyOf32BytesIsOneFullRowAndNoEmptyOne)
{
    body(counting(32).data(), 32);
    EXPECT_EQ(dumped(1), bare_head() +
                             "  Body Length:          32\n"
                             "  Body:\n"
                             "    00010203 04050607 08090a0b 0c0d0e0f 10111213 14151617 18191a1b 1c1d1e1f \n"
                             "\n");
}

TEST_F(Dump, The33rdByteStandsInASecondRow)
{
    body(counting(33).data(), 33);
    EXPECT_EQ(dumped(1), bare_head() +
                             "  Body Length:          33\n"
                             "  Body:\n"
                             "    00010203 04050607 08090a0b 0c0d0e0f 10111213 14151617 18191a1b 1c1d1e1f \n"
                             "    20\n"
                             "\n");
}

TEST_F(Dump, TwoFullRowsAreTwoRows)
{
    body(counting(64).data(), 64);
    EXPECT_EQ(dumped(1), bare_head() +
                             "  Body Length:          64\n"
                             "  Body:\n"
                             "    00010203 04050607 08090a0b 0c0d0e0f 10111213 14151617 18191a1b 1c1d1e1f \n"
                             "    20212223 24252627 28292a2b 2c2d2e2f 30313233 34353637 38393a3b 3c3d3e3f \n"
                             "\n");
}

TEST_F(Dump, ANegativeLengthDumpsNoBytes)
{
    body(nullptr, -5);
    EXPECT_EQ(dumped(1), bare_head() + "  Body Length:          -5\n"
                                       "  Body:\n"
                                       "    \n"
                                       "\n");
    EXPECT_EQ(dumped(2), bare_head() + "  Body Length:          -5\n"
                                       "  Body:\n"
                                       "(null)\n");
    EXPECT_EQ(dumped(3), bare_head() + "  Body Length:          -5\n"
                                       "  Body:\n"
                                       "<zeb_bodyblock-format-error>\n");
    EXPECT_EQ(dumped(4), dumped(1));
}

TEST_F(Dump, Format2ShowsTheBodyAsTextUpToItsFirstNul)
{
    body("hello", 5); /* carries no NUL of its own */
    EXPECT_EQ(dumped(2), bare_head() + "  Body Length:          5\n"
                                       "  Body:\n"
                                       "hello\n");
    body("two\0parts", 9);
    EXPECT_EQ(dumped(2), bare_head() + "  Body Length:          9\n"
                                       "  Body:\n"
                                       "two\n");
}

TEST_F(Dump, NoFormatShowsAnEmptyBody)
{
    for (int32_t format = 0; format <= 4; format++)
        EXPECT_EQ(dumped(format), bare_head() + "  Body Length:          0\n");
}

/* Segment "s" with the elements k=v and b=00, and in it segment "t". */
constexpr char BLOCK[] = "\x00\xA3\x7C\x08\xE7\x78\xEE\x24\x5F\xD3\xB6\x4E"
                         "\x01\x00\x02s\x00\x00"
                         "\x02\x00\x01k\x00\x00\x01v\x00"
                         "\x02\x00\x01"
                         "b\x00\x00\x01\x00\x00"
                         "\x01\x00\x02t\x00\x01";

TEST_F(Dump, Formats3And4ShowABlock)
{
    body(BLOCK, sizeof(BLOCK) - 1);
    for (const int32_t format : {3, 4})
        EXPECT_EQ(dumped(format), bare_head() + "  Body Length:          42\n"
                                                "  Body:\n"
                                                "Seg:s\n"
                                                "  k=v\n"
                                                "  b=<binary-data>\n"
                                                "  Seg:t\n"
                                                "\n");
}

TEST_F(Dump, ABlockWithoutSegmentsReadsNull)
{
    body(BLOCK, 12);
    for (const int32_t format : {3, 4})
        EXPECT_EQ(dumped(format), bare_head() + "  Body Length:          12\n"
                                                "  Body:\n"
                                                "(null)\n");
}

TEST_F(Dump, Format3SaysWhenABodyIsNoBlock)
{
    body("no block", 8);
    EXPECT_EQ(dumped(3), bare_head() + "  Body Length:          8\n"
                                       "  Body:\n"
                                       "<zeb_bodyblock-format-error>\n");
    body(BLOCK, 11); /* the signature is cut */
    EXPECT_NE(dumped(3).find("<zeb_bodyblock-format-error>"), std::string::npos);
}

TEST_F(Dump, Format4DumpsWhatIsNoBlock)
{
    body("no block", 8);
    EXPECT_EQ(dumped(4), bare_head() + "  Body Length:          8\n"
                                       "  Body:\n"
                                       "    6e6f2062 6c6f636b \n"
                                       "\n");
}

TEST_F(FullDump, AStateShowsItsBody)
{
    ezeb_notification_setClass(n, ZEB_CLASS_STATESET);
    n->body = strdup("state");
    n->bodyLength = 5;
    EXPECT_EQ(dumped(2), head("StateSetNotification") + source_and_destinations() +
                             "  Body Length:          5\n"
                             "  Body:\n"
                             "state\n");
}

TEST_F(FullDump, ClassesWithoutALengthLineShowNoBodyEither)
{
    n->body = strdup("body");
    n->bodyLength = 4;
    for (const uint32_t cls : {1U, 2U, 5U, 7U, 8U})
        EXPECT_EQ(of_class(cls).find("Body"), std::string::npos) << cls;
}

TEST_F(Dump, ALargeBodyIsDumpedWhole)
{
    const std::string large(1 << 20, '\x5a');
    body(large.data(), static_cast<int32_t>(large.size()));
    const std::string row = "    5a5a5a5a 5a5a5a5a 5a5a5a5a 5a5a5a5a 5a5a5a5a 5a5a5a5a 5a5a5a5a 5a5a5a5a \n";
    std::string expected = bare_head() + "  Body Length:          1048576\n  Body:\n";
    for (size_t i = 0; i < large.size() / 32; i++)
        expected += row;
    EXPECT_TRUE(dumped(1) == expected + "\n"); /* too large to be shown */
}

/* ---- Printing ---- */

TEST_F(Dump, PrintWritesFormat0ToStandardErrorAndNeverABody)
{
    body("hello", 5);
    testing::internal::CaptureStderr();
    zeb_notification_print(n);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), bare_head() + "  Body Length:          5\n");
}

TEST_F(Dump, PrintTakesPercentSignsAsTheyAre)
{
    zeb_notification_setProperty(n, "%s", "%n%d");
    testing::internal::CaptureStderr();
    zeb_notification_print(n);
    EXPECT_NE(testing::internal::GetCapturedStderr().find("  Property:             %s=%n%d\n"),
              std::string::npos);
}

TEST(DumpOfNull, IsPrintedAsItsLine)
{
    testing::internal::CaptureStderr();
    zeb_notification_print(nullptr);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "NOTIFICATION 0x0 (NULL)\n");
}

/* ---- Without memory ---- */

TEST_F(FullDump, WithoutMemoryThereIsNoTextOrOneThatSaysLess)
{
    ezeb_notification_setClass(n, 0);
    n->body = static_cast<char *>(malloc(sizeof(BLOCK)));
    memcpy(n->body, BLOCK, sizeof(BLOCK));
    n->bodyLength = sizeof(BLOCK) - 1;
    const std::string whole = dumped(3);
    unit::sweep([&](unit::refusal &refuse) {
        refuse.begin();
        const unit::text text(zeb_notification_toString(n, 3));
        refuse.end();
        const std::string given = text != nullptr ? text.get() : "<null>";
        if (refuse.happened())
            EXPECT_TRUE(given == "<null>" || given.substr(0, title().size()) == title()) << given;
        else
            EXPECT_EQ(given, whole);
    });
}

} // namespace
