/* The notification object: fields, properties, addresses. */
#include "ezeblogicaladdr.h"
#include "ezebnotification.h"

#include "unit.h"

#include <cstring>
#include <vector>

namespace
{

struct Notification : testing::Test {
    zeb_notification *n = zeb_notification_create("t", nullptr, 0);

    ~Notification() override
    {
        ezeb_notification_destroy(n);
    }

    /* "name=value" of all properties in list order. */
    static std::string properties(const zeb_notification *of)
    {
        int32_t count = -1;
        zeb_property *all = zeb_notification_getAllProperties(of, &count);
        std::string text;
        for (int32_t i = 0; i < count; i++)
            text += std::string(i > 0 ? " " : "") + all[i].name + "=" + all[i].value;
        free(all);
        return text;
    }
};

constexpr char ILLEGAL_NAME[] = "ILLEGAL PROPERTY NAME [Property name must not contain ':', '\\r', or '\\n']";
constexpr char ILLEGAL_VALUE[] = "ILLEGAL PROPERTY VALUE [Property value must not contain '\\r' or '\\n']";

/* An address as the daemon would give it. */
struct address {
    zeb_logicaladdr record = {};
    explicit address(const char *key)
    {
        record.key = const_cast<char *>(key);
    }
};

/* ---- Creation ---- */

TEST_F(Notification, CreateGivesAnEmptyMessage)
{
    EXPECT_EQ(zeb_notification_getClass(n), 0U);
    EXPECT_STREQ(zeb_notification_type(n), "t");
    EXPECT_EQ(zeb_notification_id(n), nullptr);
    EXPECT_EQ(zeb_notification_stamp(n), nullptr);
    EXPECT_EQ(zeb_notification_instanceName(n), nullptr);
    EXPECT_EQ(zeb_notification_generatingComponent(n), nullptr);
    EXPECT_EQ(zeb_notification_generatingNode(n), nullptr);
    EXPECT_EQ(zeb_notification_generatingProcess(n), nullptr);
    EXPECT_EQ(zeb_notification_affectedComponents(n), nullptr);
    EXPECT_EQ(zeb_notification_affectedNodes(n), nullptr);
    EXPECT_EQ(ezeb_notification_getStreamKey(n), nullptr);
    EXPECT_EQ(zeb_notification_creationTime(n), 0);
    EXPECT_EQ(zeb_notification_deliveryTime(n), 0);
    EXPECT_EQ(zeb_notification_localOnly(n), 0);
    EXPECT_EQ(zeb_notification_generatingAddress(n), nullptr);
    EXPECT_EQ(zeb_notification_getDestinationAddrs(n), nullptr);
    EXPECT_EQ(zeb_notification_obtainMemberList(n), nullptr);
    EXPECT_EQ(zeb_notification_getMembersAdded(n), nullptr);
    EXPECT_EQ(zeb_notification_getMembersRemoved(n), nullptr);
    EXPECT_EQ(properties(n), "");
}

TEST_F(Notification, ALengthOfZeroGivesNoBody)
{
    zeb_notification *other = zeb_notification_create("t", "body", 0);
    int32_t length = -1;
    EXPECT_EQ(zeb_notification_body(other, &length), nullptr);
    EXPECT_EQ(length, 0);
    ezeb_notification_destroy(other);
}

TEST_F(Notification, ANegativeLengthIsStoredAndGivesNoBody)
{
    zeb_notification *other = zeb_notification_create("t", "body", -5);
    int32_t length = 0;
    EXPECT_EQ(zeb_notification_body(other, &length), nullptr);
    EXPECT_EQ(length, -5);
    ezeb_notification_destroy(other);
}

TEST_F(Notification, TheBodyIsCopiedWithItsZerosAndANulBehindIt)
{
    char body[] = {'a', '\0', 'b'};
    zeb_notification *other = zeb_notification_create("t", body, 3);
    body[0] = 'x';
    int32_t length = 0;
    const auto *stored = static_cast<const char *>(zeb_notification_body(other, &length));
    EXPECT_EQ(length, 3);
    EXPECT_EQ(memcmp(stored, "a\0b\0", 4), 0);
    EXPECT_EQ(zeb_notification_body(other, nullptr), stored);
    ezeb_notification_destroy(other);
}

TEST_F(Notification, ALongTypeIsKeptWhole)
{
    const std::string type(3000, 'y');
    zeb_notification *other = zeb_notification_create(type.c_str(), nullptr, 0);
    EXPECT_EQ(zeb_notification_type(other), type);
    ezeb_notification_destroy(other);
}

/* Applications publish records and look at them in place, whatever stands before them. */
TEST(NotificationBody, IsAlignedAsAnAllocationOfItsOwnWouldBe)
{
    for (const size_t length : {size_t{8}, size_t{300}, size_t{5000}}) {
        const std::string octets(length, 'b');
        for (size_t before = 1; before <= 32; before++) {
            zeb_notification *n = zeb_notification_create(std::string(before, 't').c_str(), octets.data(),
                                                          static_cast<int32_t>(length));
            const auto place = reinterpret_cast<uintptr_t>(zeb_notification_body(n, nullptr));
            EXPECT_EQ(place % alignof(max_align_t), 0U) << before << ", " << length;
            ezeb_notification_destroy(n);
        }
    }
}

TEST_F(Notification, WithoutATypeOrTheAnnouncedBodyThereIsNone)
{
    EXPECT_EQ(zeb_notification_create(nullptr, nullptr, 0), nullptr);
    EXPECT_EQ(zeb_notification_create("t", nullptr, 1), nullptr);
}

TEST_F(Notification, CreateWithoutMemoryGivesNull)
{
    const std::string type(3000, 'y');
    const int64_t requests = unit::sweep([&](unit::refusal &refuse) {
        refuse.begin();
        zeb_notification *other = zeb_notification_create(type.c_str(), "body", 4);
        refuse.end();
        EXPECT_EQ(other == nullptr, refuse.happened());
        ezeb_notification_destroy(other);
    });
    EXPECT_EQ(requests, 3);
}

TEST_F(Notification, AUsualEventIsOneAllocation)
{
    unit::refusal counting(1000000);
    counting.begin();
    zeb_notification *other = zeb_notification_create("/app/disk", nullptr, 0);
    for (int i = 0; i < 4; i++)
        zeb_notification_setProperty(other, "name", "value");
    counting.end();
    EXPECT_FALSE(counting.happened());
    unit::refusal second(2);
    second.begin();
    zeb_notification *again = zeb_notification_create("/app/disk", nullptr, 0);
    zeb_notification_setProperty(again, "name", "value");
    second.end();
    EXPECT_FALSE(second.happened());
    ezeb_notification_destroy(other);
    ezeb_notification_destroy(again);
}

/* ---- Null handles ---- */

TEST_F(Notification, ANullHandleGivesTheFailureResult)
{
    EXPECT_EQ(zeb_notification_getClass(nullptr), 8U);
    EXPECT_EQ(zeb_notification_type(nullptr), nullptr);
    EXPECT_EQ(zeb_notification_id(nullptr), nullptr);
    EXPECT_EQ(zeb_notification_stamp(nullptr), nullptr);
    EXPECT_EQ(zeb_notification_instanceName(nullptr), nullptr);
    EXPECT_EQ(zeb_notification_generatingComponent(nullptr), nullptr);
    EXPECT_EQ(zeb_notification_generatingNode(nullptr), nullptr);
    EXPECT_EQ(zeb_notification_generatingProcess(nullptr), nullptr);
    EXPECT_EQ(zeb_notification_affectedComponents(nullptr), nullptr);
    EXPECT_EQ(zeb_notification_affectedNodes(nullptr), nullptr);
    EXPECT_EQ(ezeb_notification_getStreamKey(nullptr), nullptr);
    EXPECT_EQ(zeb_notification_creationTime(nullptr), 0);
    EXPECT_EQ(zeb_notification_deliveryTime(nullptr), 0);
    EXPECT_EQ(zeb_notification_localOnly(nullptr), 0);
    EXPECT_EQ(zeb_notification_isMembership(nullptr), 0);
    EXPECT_EQ(zeb_notification_generatingAddress(nullptr), nullptr);
    EXPECT_EQ(zeb_notification_getDestinationAddrs(nullptr), nullptr);
    EXPECT_EQ(zeb_notification_obtainMemberList(nullptr), nullptr);
    EXPECT_EQ(zeb_notification_getMembersAdded(nullptr), nullptr);
    EXPECT_EQ(zeb_notification_getMembersRemoved(nullptr), nullptr);
    EXPECT_EQ(zeb_notification_getProperty(nullptr, "k"), nullptr);
    EXPECT_EQ(zeb_notification_setProperty(nullptr, "k", "v"), -2);
    zeb_notification_setLocalOnly(nullptr);
    zeb_notification_setDestinationAddr(nullptr, nullptr);
    zeb_notification_setDestinationAddrs(nullptr, nullptr);
    ezeb_notification_destroy(nullptr);
}

TEST_F(Notification, TheBodyOfANullHandleLeavesTheLengthUntouched)
{
    int32_t length = 77;
    EXPECT_EQ(zeb_notification_body(nullptr, &length), nullptr);
    EXPECT_EQ(length, 77);
}

TEST_F(Notification, AllPropertiesOfANullHandleAreNullAndZero)
{
    int32_t count = 77;
    EXPECT_EQ(zeb_notification_getAllProperties(nullptr, &count), nullptr);
    EXPECT_EQ(count, 0);
}

/* ---- Class, flag, times ---- */

TEST_F(Notification, MembershipAreClassesOneAndTwo)
{
    for (uint32_t cls = 0; cls <= 9; cls++) {
        ezeb_notification_setClass(n, cls);
        EXPECT_EQ(zeb_notification_getClass(n), cls);
        EXPECT_EQ(zeb_notification_isMembership(n), cls == 1 || cls == 2 ? 1 : 0) << cls;
    }
}

TEST_F(Notification, EveryClassHasItsNameAndGreaterOnesCountAsUnknown)
{
    const std::vector<const char *> names = {"MessageNotification",           "MembershipListNotification",
                                             "MembershipDeltaNotification",   "OutgoingStreamingNotification",
                                             "IncomingStreamingNotification", "StateGetNotification",
                                             "StateSetNotification",          "LeaveGroupNotification",
                                             "UnknownNotificationClass",      "UnknownNotificationClass"};
    for (uint32_t cls = 0; cls < names.size(); cls++)
        EXPECT_STREQ(ezeb_notification_classname(cls), names[cls]);
    EXPECT_STREQ(ezeb_notification_classname(UINT32_MAX), "UnknownNotificationClass");
}

TEST_F(Notification, LocalOnlyCanBeSet)
{
    zeb_notification_setLocalOnly(n);
    EXPECT_EQ(zeb_notification_localOnly(n), 1);
}

TEST_F(Notification, TimesAreWholeSecondsCutTowardsZero)
{
    n->creationTime = 1999;
    n->deliveryTime = -1999;
    EXPECT_EQ(zeb_notification_creationTime(n), 1);
    EXPECT_EQ(zeb_notification_deliveryTime(n), -1);
}

TEST_F(Notification, PublishInformationIsCopiedAndTheCreationTimeReadsAsZero)
{
    char component[] = "c";
    ASSERT_EQ(ezeb_notification_set_pubinfo(n, component, "node", "node:9", "node:911", 4), 1);
    component[0] = 'x';
    EXPECT_STREQ(zeb_notification_generatingComponent(n), "c");
    EXPECT_STREQ(zeb_notification_generatingNode(n), "node");
    EXPECT_STREQ(zeb_notification_generatingProcess(n), "node:9");
    EXPECT_STREQ(zeb_notification_id(n), "node:911");
    EXPECT_EQ(n->subscriberId, 4);
    EXPECT_EQ(n->creationTime, -1);
    EXPECT_EQ(zeb_notification_creationTime(n), 0);
}

TEST_F(Notification, PublishInformationWithoutMemoryIsReported)
{
    const std::string longtext(2000, 'c');
    unit::sweep([&](unit::refusal &refuse) {
        zeb_notification *other = zeb_notification_create("t", nullptr, 0);
        refuse.begin();
        const int32_t filled = ezeb_notification_set_pubinfo(other, longtext.c_str(), longtext.c_str(),
                                                             longtext.c_str(), longtext.c_str(), 1);
        refuse.end();
        EXPECT_EQ(filled, refuse.happened() ? 0 : 1);
        EXPECT_EQ(zeb_notification_generatingComponent(other) != nullptr, filled == 1)
            << "it tells that all is there";
        ezeb_notification_destroy(other);
    });
}

TEST_F(Notification, ABodyTakenOutIsTheCallers)
{
    zeb_notification *other = zeb_notification_create("t", "body", 4);
    int32_t length = 0;
    char *body = ezeb_notification_body_take(other);
    EXPECT_EQ(zeb_notification_body(other, &length), nullptr);
    EXPECT_EQ(length, 0);
    ezeb_notification_destroy(other);
    EXPECT_STREQ(body, "body");
    free(body);
}

/* ---- Properties ---- */

TEST_F(Notification, ANameWithAColonIsStoredAsTheFixedText)
{
    EXPECT_EQ(zeb_notification_setProperty(n, "a:b", "v"), -1);
    EXPECT_EQ(zeb_notification_getProperty(n, "a:b"), nullptr);
    EXPECT_EQ(properties(n), std::string(ILLEGAL_NAME) + "=v");
}

TEST_F(Notification, AValueWithALineFeedIsStoredAsTheFixedText)
{
    EXPECT_EQ(zeb_notification_setProperty(n, "k", "a\nb"), -1);
    EXPECT_STREQ(zeb_notification_getProperty(n, "k"), ILLEGAL_VALUE);
}

TEST_F(Notification, EveryForbiddenCharacterIsFoundAnywhere)
{
    for (const char *name : {":", "a:", ":a", "\r", "\n", "a\rb", "a\n"})
        EXPECT_EQ(zeb_notification_setProperty(n, name, "v"), -1) << name;
    for (const char *value : {"\r", "\n", "a\r", "\nb"})
        EXPECT_EQ(zeb_notification_setProperty(n, "k", value), -1) << value;
    EXPECT_EQ(zeb_notification_setProperty(n, "x:y", "a\nb"), -1);
    EXPECT_STREQ(zeb_notification_getProperty(n, ILLEGAL_NAME), ILLEGAL_VALUE);
}

TEST_F(Notification, AColonInAValueAndEmptyTextsAreAllowed)
{
    EXPECT_EQ(zeb_notification_setProperty(n, "k", "a:b"), 0);
    EXPECT_STREQ(zeb_notification_getProperty(n, "k"), "a:b");
    EXPECT_EQ(zeb_notification_setProperty(n, "", ""), 0);
    EXPECT_STREQ(zeb_notification_getProperty(n, ""), "");
}

TEST_F(Notification, SettingANameTwiceKeepsBothNewestFirst)
{
    EXPECT_EQ(zeb_notification_setProperty(n, "k", "first"), 0);
    EXPECT_EQ(zeb_notification_setProperty(n, "k", "second"), 0);
    EXPECT_STREQ(zeb_notification_getProperty(n, "k"), "second");
    EXPECT_EQ(properties(n), "k=second k=first");
}

TEST_F(Notification, PropertiesAreNullWhenNotFoundAndNamesCompareExactly)
{
    zeb_notification_setProperty(n, "Key", "v");
    EXPECT_EQ(zeb_notification_getProperty(n, "key"), nullptr);
    EXPECT_EQ(zeb_notification_getProperty(n, nullptr), nullptr);
}

TEST_F(Notification, NullNamesAndValuesAreNotStored)
{
    EXPECT_EQ(zeb_notification_setProperty(n, nullptr, "v"), -2);
    EXPECT_EQ(zeb_notification_setProperty(n, "k", nullptr), -2);
    EXPECT_EQ(properties(n), "");
}

TEST_F(Notification, AllPropertiesPointAtTheNotificationsOwnStrings)
{
    zeb_notification_setProperty(n, "k", "v");
    int32_t count = 0;
    zeb_property *all = zeb_notification_getAllProperties(n, &count);
    ASSERT_EQ(count, 1);
    EXPECT_EQ(all[0].value, zeb_notification_getProperty(n, "k"));
    free(all);
    EXPECT_STREQ(zeb_notification_getProperty(n, "k"), "v");
    all = zeb_notification_getAllProperties(n, nullptr);
    EXPECT_STREQ(all[0].name, "k");
    free(all);
}

TEST_F(Notification, WithoutMemoryForTheArrayTheCountStaysUnwritten)
{
    zeb_notification_setProperty(n, "k", "v");
    unit::refusal refuse(1);
    refuse.begin();
    int32_t count = 77;
    EXPECT_EQ(zeb_notification_getAllProperties(n, &count), nullptr);
    EXPECT_EQ(count, 77);
}

TEST_F(Notification, APropertyWithoutMemoryLeavesTheListUnchanged)
{
    const std::string longtext(2000, 'v');
    unit::sweep([&](unit::refusal &refuse) {
        zeb_notification *other = zeb_notification_create("t", nullptr, 0);
        zeb_notification_setProperty(other, "k", "v");
        other->strings.left = 0; /* the notification's own room is used up */
        const std::string before = properties(other);
        refuse.begin();
        const int32_t result =
            zeb_notification_setProperty(other, longtext.c_str(), (longtext + longtext).c_str());
        refuse.end();
        EXPECT_EQ(result, refuse.happened() ? -2 : 0);
        if (refuse.happened()) {
            EXPECT_EQ(properties(other), before);
        }
        ezeb_notification_destroy(other);
    });
}

TEST_F(Notification, ManyPropertiesKeepTheirOrder)
{
    std::string expected;
    for (int i = 0; i < 2000; i++) {
        const std::string name = "n" + std::to_string(i);
        ASSERT_EQ(zeb_notification_setProperty(n, name.c_str(), "v"), 0);
        expected = name + "=v" + (i > 0 ? " " : "") + expected;
    }
    EXPECT_EQ(properties(n), expected);
}

/* ---- Addresses ---- */

TEST_F(Notification, ADestinationIsCopiedIntoAListOfOne)
{
    const address a("key one");
    zeb_notification_setDestinationAddr(n, &a.record);
    zeb_laddrlist *list = zeb_notification_getDestinationAddrs(n);
    ASSERT_EQ(zeb_laddrlist_count(list), 1);
    EXPECT_EQ(zeb_logicaladdr_equals(zeb_laddrlist_get(list, 0), &a.record), 1);
    const address b("key two");
    zeb_notification_setDestinationAddr(n, &b.record);
    list = zeb_notification_getDestinationAddrs(n);
    ASSERT_EQ(zeb_laddrlist_count(list), 1);
    EXPECT_STREQ(zeb_laddrlist_get(list, 0)->key, "key two");
}

TEST_F(Notification, DestinationsAreCopiedAsAWhole)
{
    zeb_laddrlist *list = zeb_laddrlist_create();
    const address a("one");
    const address b("two");
    zeb_laddrlist_add(list, &a.record);
    zeb_laddrlist_add(list, &b.record);
    zeb_notification_setDestinationAddrs(n, list);
    zeb_laddrlist_destroy(&list);
    ASSERT_EQ(zeb_laddrlist_count(zeb_notification_getDestinationAddrs(n)), 2);
    zeb_notification_setDestinationAddrs(n, nullptr);
    zeb_notification_setDestinationAddr(n, nullptr);
    EXPECT_EQ(zeb_laddrlist_count(zeb_notification_getDestinationAddrs(n)), 2);
}

TEST_F(Notification, AnEntryOfItsOwnListCanBecomeTheOnlyDestination)
{
    zeb_laddrlist *list = zeb_laddrlist_create();
    const address a("one");
    const address b("two");
    zeb_laddrlist_add(list, &a.record);
    zeb_laddrlist_add(list, &b.record);
    zeb_notification_setDestinationAddrs(n, list);
    zeb_laddrlist_destroy(&list);
    zeb_notification_setDestinationAddr(n, zeb_laddrlist_get(zeb_notification_getDestinationAddrs(n), 1));
    ASSERT_EQ(zeb_laddrlist_count(zeb_notification_getDestinationAddrs(n)), 1);
    EXPECT_STREQ(zeb_laddrlist_get(zeb_notification_getDestinationAddrs(n), 0)->key, "two");
    zeb_notification_setDestinationAddrs(n, zeb_notification_getDestinationAddrs(n));
    ASSERT_EQ(zeb_laddrlist_count(zeb_notification_getDestinationAddrs(n)), 1);
    EXPECT_STREQ(zeb_laddrlist_get(zeb_notification_getDestinationAddrs(n), 0)->key, "two");
}

TEST_F(Notification, DestinationsWithoutMemoryLeaveTheFormerOnes)
{
    const address former("former");
    const address fresh("fresh");
    zeb_laddrlist *list = zeb_laddrlist_create();
    zeb_laddrlist_add(list, &fresh.record);
    for (const bool whole : {false, true})
        unit::sweep([&](unit::refusal &refuse) {
            zeb_notification_setDestinationAddr(n, &former.record);
            refuse.begin();
            if (whole)
                zeb_notification_setDestinationAddrs(n, list);
            else
                zeb_notification_setDestinationAddr(n, &fresh.record);
            refuse.end();
            zeb_laddrlist *now = zeb_notification_getDestinationAddrs(n);
            EXPECT_EQ(zeb_laddrlist_count(now), 1);
            EXPECT_STREQ(zeb_laddrlist_get(now, 0)->key, refuse.happened() ? "former" : "fresh");
        });
    zeb_laddrlist_destroy(&list);
}

} // namespace
