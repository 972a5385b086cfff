/* Logical addresses, address lists, and how lists travel. */
#include "ezebbodyblock.h"
#include "ezeblogicaladdr.h"
#include "ezebproplist.h"

#include "unit.h"

#include <cstring>
#include <vector>

namespace
{

/* A record that borrows its texts from the test. */
struct address {
    zeb_logicaladdr record = {};
    std::string key;
    zeb_proplist *properties = nullptr;

    explicit address(std::string itsKey) : key(std::move(itsKey))
    {
        record.key = key.data();
    }
    ~address()
    {
        zeb_proplist_destroy(&properties);
    }
    address(const address &) = delete;
    address &operator=(const address &) = delete;

    [[nodiscard]] const zeb_logicaladdr *here() const
    {
        return &record;
    }
    address &property(const char *name, const char *value)
    {
        if (properties == nullptr)
            properties = zeb_proplist_create();
        zeb_proplist_put(properties, name, value);
        record.properties = properties;
        return *this;
    }
};

char *text(const char *literal)
{
    return const_cast<char *>(literal);
}

/* An address with every field. */
void fill(zeb_logicaladdr &a)
{
    a.id = text("i");
    a.tier = text("t");
    a.tierId = text("ti");
    a.component = text("c");
    a.hostName = text("h");
    a.instanceName = text("in");
    a.subscription = text("su");
    a.matcher = text("m\0m");
    a.matcherLength = 3;
    a.address = text("a\0a\0");
    a.addressLength = 4;
}

std::string shown(const zeb_logicaladdr *a)
{
    const unit::text s(zeb_logicaladdr_toString(a));
    return s != nullptr ? s.get() : "<null>";
}

struct Laddrlist : testing::Test {
    zeb_laddrlist *list = zeb_laddrlist_create();

    ~Laddrlist() override
    {
        zeb_laddrlist_destroy(&list);
    }

    void add(int count) const
    {
        for (int i = 0; i < count; i++)
            zeb_laddrlist_add(list, address("k" + std::to_string(zeb_laddrlist_count(list))).here());
    }

    static std::string keys(const zeb_laddrlist *of)
    {
        std::string s;
        for (int32_t i = 0; i < zeb_laddrlist_count(of); i++) {
            const char *key = zeb_laddrlist_get(of, i)->key;
            s += std::string(i > 0 ? " " : "") + (key != nullptr ? key : "-");
        }
        return s;
    }
};

/* ---- One address ---- */

TEST(Logicaladdr, AnEmptyAddressShowsSixLabelledNulls)
{
    const zeb_logicaladdr empty = {};
    EXPECT_EQ(shown(&empty),
              "{TierId=(null),Tier=(null),Hostname=(null),InstanceName=(null),Component=(null),"
              "Subscription=(null)}");
}

TEST(Logicaladdr, TheTextShowsFieldsAndPropertiesButNoIdKeyMatcherOrBytes)
{
    address a("key");
    fill(a.record);
    a.property("p", "1").property("", "2");
    EXPECT_EQ(shown(&a.record),
              "{TierId=ti,Tier=t,Hostname=h,InstanceName=in,Component=c,Subscription=su,p=1,=2}");
    EXPECT_EQ(zeb_logicaladdr_toString(nullptr), nullptr);
}

TEST(Logicaladdr, ATextWithoutMemoryIsNull)
{
    address a("key");
    a.property("p", std::string(3000, 'x').c_str());
    unit::sweep([&](unit::refusal &refuse) {
        refuse.begin();
        const unit::text s(zeb_logicaladdr_toString(&a.record));
        refuse.end();
        EXPECT_EQ(s == nullptr, refuse.happened());
    });
}

TEST(Logicaladdr, GettersGiveTheFields)
{
    address a("key");
    fill(a.record);
    a.property("p", "1");
    EXPECT_STREQ(zeb_logicaladdr_getTierId(&a.record), "ti");
    EXPECT_STREQ(zeb_logicaladdr_getTier(&a.record), "t");
    EXPECT_STREQ(zeb_logicaladdr_getSubscription(&a.record), "su");
    EXPECT_STREQ(zeb_logicaladdr_getInstanceName(&a.record), "in");
    EXPECT_STREQ(zeb_logicaladdr_getHostName(&a.record), "h");
    EXPECT_STREQ(zeb_logicaladdr_getComponent(&a.record), "c");
    EXPECT_STREQ(zeb_logicaladdr_getProperty(&a.record, "p"), "1");
    EXPECT_EQ(zeb_logicaladdr_getProperty(&a.record, "q"), nullptr);
    EXPECT_EQ(zeb_logicaladdr_getPropertyCount(&a.record), 1);
    EXPECT_STREQ(zeb_logicaladdr_getPropertyIndex(&a.record, 0)->name, "p");
    EXPECT_EQ(zeb_logicaladdr_getPropertyIndex(&a.record, 1), nullptr);
}

TEST(Logicaladdr, GettersOfNullAndOfAnAddressWithoutPropertiesGiveNothing)
{
    EXPECT_EQ(zeb_logicaladdr_getTierId(nullptr), nullptr);
    EXPECT_EQ(zeb_logicaladdr_getTier(nullptr), nullptr);
    EXPECT_EQ(zeb_logicaladdr_getSubscription(nullptr), nullptr);
    EXPECT_EQ(zeb_logicaladdr_getInstanceName(nullptr), nullptr);
    EXPECT_EQ(zeb_logicaladdr_getHostName(nullptr), nullptr);
    EXPECT_EQ(zeb_logicaladdr_getComponent(nullptr), nullptr);
    EXPECT_EQ(zeb_logicaladdr_getProperty(nullptr, "p"), nullptr);
    EXPECT_EQ(zeb_logicaladdr_getPropertyIndex(nullptr, 0), nullptr);
    EXPECT_EQ(zeb_logicaladdr_getPropertyCount(nullptr), 0);
    const zeb_logicaladdr empty = {};
    EXPECT_EQ(zeb_logicaladdr_getProperty(&empty, "p"), nullptr);
    EXPECT_EQ(zeb_logicaladdr_getPropertyIndex(&empty, 0), nullptr);
    EXPECT_EQ(zeb_logicaladdr_getPropertyCount(&empty), 0);
}

TEST(Logicaladdr, OnlyTheKeysMakeTwoAddressesEqual)
{
    address a("key");
    address b("key");
    fill(a.record);
    EXPECT_EQ(zeb_logicaladdr_equals(&a.record, &b.record), 1);
    fill(b.record);
    b.key = "Key";
    EXPECT_EQ(zeb_logicaladdr_equals(&a.record, &b.record), 0);
}

TEST(Logicaladdr, AnAddressWithoutAKeyEqualsNothingNotEvenItself)
{
    const address a("key");
    const zeb_logicaladdr keyless = {};
    EXPECT_EQ(zeb_logicaladdr_equals(&keyless, &keyless), 0);
    EXPECT_EQ(zeb_logicaladdr_equals(&a.record, &keyless), 0);
    EXPECT_EQ(zeb_logicaladdr_equals(&keyless, &a.record), 0);
    EXPECT_EQ(zeb_logicaladdr_equals(nullptr, &a.record), 0);
    EXPECT_EQ(zeb_logicaladdr_equals(&a.record, nullptr), 0);
}

TEST(Logicaladdr, ADuplicateIsDeep)
{
    address a("key");
    fill(a.record);
    a.property("p", "1");
    zeb_logicaladdr *copy = ezeb_logicaladdr_dup(&a.record);
    EXPECT_EQ(shown(copy), shown(&a.record));
    EXPECT_STREQ(copy->id, "i");
    EXPECT_STREQ(copy->key, "key");
    EXPECT_NE(copy->key, a.record.key);
    EXPECT_NE(copy->properties, a.record.properties);
    ASSERT_EQ(copy->matcherLength, 3);
    EXPECT_EQ(memcmp(copy->matcher, "m\0m", 3), 0);
    ASSERT_EQ(copy->addressLength, 4);
    EXPECT_EQ(memcmp(copy->address, "a\0a\0", 4), 0);
    ezeb_logicaladdr_destroy(&copy);
    EXPECT_EQ(copy, nullptr);
    ezeb_logicaladdr_destroy(&copy);
    ezeb_logicaladdr_destroy(nullptr);
}

/* The address bytes are always there, the matcher only with a byte in it; both lengths stay as they are. */
TEST(Logicaladdr, ADuplicateAlwaysHasAddressBytesButNoEmptyMatcher)
{
    zeb_logicaladdr empty = {};
    empty.matcher = text("ignored");
    for (const int32_t length : {0, -3}) {
        empty.matcherLength = length;
        empty.addressLength = length;
        zeb_logicaladdr *copy = ezeb_logicaladdr_dup(&empty);
        EXPECT_NE(copy->address, nullptr);
        EXPECT_EQ(copy->addressLength, length);
        EXPECT_EQ(copy->matcher, nullptr);
        EXPECT_EQ(copy->matcherLength, length);
        EXPECT_EQ(copy->id, nullptr);
        EXPECT_EQ(copy->key, nullptr);
        EXPECT_EQ(copy->properties, nullptr);
        ezeb_logicaladdr_destroy(&copy);
    }
}

TEST(Logicaladdr, ADuplicateWithoutMemoryIsNull)
{
    address a("key");
    fill(a.record);
    a.property("p", "1");
    const int64_t requests = unit::sweep([&](unit::refusal &refuse) {
        refuse.begin();
        zeb_logicaladdr *copy = ezeb_logicaladdr_dup(&a.record);
        refuse.end();
        EXPECT_EQ(copy == nullptr, refuse.happened());
        ezeb_logicaladdr_destroy(&copy);
    });
    EXPECT_EQ(requests, 1 + 8 + 2 + 4);
}

/* ---- Lists ---- */

TEST_F(Laddrlist, ANewListHasNoArray)
{
    EXPECT_EQ(list->entries, nullptr);
    EXPECT_EQ(list->capacity, 0);
    EXPECT_EQ(zeb_laddrlist_count(list), 0);
    EXPECT_EQ(zeb_laddrlist_get(list, 0), nullptr);
}

TEST_F(Laddrlist, SeventeenAddressesLeaveACapacityOf32)
{
    add(16);
    EXPECT_EQ(list->capacity, 16);
    add(1);
    EXPECT_EQ(list->capacity, 32);
    EXPECT_EQ(zeb_laddrlist_count(list), 17);
    EXPECT_EQ(zeb_laddrlist_get(list, 17), nullptr);
    EXPECT_STREQ(zeb_laddrlist_get(list, 0)->key, "k0");
    EXPECT_STREQ(zeb_laddrlist_get(list, 16)->key, "k16");
}

/* Only the upper bound is looked at. The array of this list stands inside a bigger one. */
TEST_F(Laddrlist, GetDoesNotCheckTheLowerBound)
{
    zeb_logicaladdr room[3] = {};
    const zeb_laddrlist inside = {room + 1, 2, 2};
    EXPECT_EQ(zeb_laddrlist_get(&inside, -1), room);
}

TEST_F(Laddrlist, NullListsAreEmpty)
{
    EXPECT_EQ(zeb_laddrlist_count(nullptr), 0);
    EXPECT_EQ(zeb_laddrlist_get(nullptr, 0), nullptr);
    EXPECT_EQ(zeb_laddrlist_dup(nullptr), nullptr);
    EXPECT_EQ(ezeb_laddrlist_contains(nullptr, address("k").here()), 0);
    EXPECT_EQ(ezeb_laddrlist_del(nullptr, address("k").here()), 0);
    ezeb_laddrlist_clear(nullptr);
    zeb_laddrlist_add(nullptr, address("k").here());
    zeb_laddrlist_add(list, nullptr);
    EXPECT_EQ(zeb_laddrlist_count(list), 0);
    zeb_laddrlist_destroy(nullptr);
    zeb_laddrlist *none = nullptr;
    zeb_laddrlist_destroy(&none);
}

TEST_F(Laddrlist, DestroySetsTheHandleToNull)
{
    add(3);
    zeb_laddrlist_destroy(&list);
    EXPECT_EQ(list, nullptr);
}

TEST_F(Laddrlist, DeletingTheMiddleOfThreeKeepsTheOthersInOrder)
{
    add(3);
    EXPECT_EQ(ezeb_laddrlist_del(list, address("k1").here()), 1);
    EXPECT_EQ(keys(list), "k0 k2");
    EXPECT_EQ(ezeb_laddrlist_del(list, address("k1").here()), 0);
    EXPECT_EQ(keys(list), "k0 k2");
}

TEST_F(Laddrlist, DeletingTakesTheFirstOfEqualKeysOnly)
{
    for (const char *key : {"a", "b", "a", "c", "a"})
        zeb_laddrlist_add(list, address(key).here());
    EXPECT_EQ(ezeb_laddrlist_del(list, address("a").here()), 1);
    EXPECT_EQ(keys(list), "b a c a");
    EXPECT_EQ(ezeb_laddrlist_del(list, zeb_laddrlist_get(list, 3)), 1) << "also by one of its own entries";
    EXPECT_EQ(keys(list), "b c a");
    EXPECT_EQ(ezeb_laddrlist_del(list, address("a").here()), 1);
    EXPECT_EQ(ezeb_laddrlist_del(list, address("b").here()), 1);
    EXPECT_EQ(ezeb_laddrlist_del(list, address("c").here()), 1);
    EXPECT_EQ(keys(list), "");
}

TEST_F(Laddrlist, ContainsLooksAtKeys)
{
    add(3);
    EXPECT_EQ(ezeb_laddrlist_contains(list, address("k2").here()), 1);
    EXPECT_EQ(ezeb_laddrlist_contains(list, address("k3").here()), 0);
    const zeb_logicaladdr keyless = {};
    zeb_laddrlist_add(list, &keyless);
    EXPECT_EQ(ezeb_laddrlist_contains(list, &keyless), 0);
    EXPECT_EQ(ezeb_laddrlist_del(list, &keyless), 0);
}

TEST_F(Laddrlist, ClearReleasesEverythingAndTheListCanBeUsedAgain)
{
    add(20);
    ezeb_laddrlist_clear(list);
    EXPECT_EQ(list->entries, nullptr);
    EXPECT_EQ(list->capacity, 0);
    EXPECT_EQ(zeb_laddrlist_count(list), 0);
    add(1);
    EXPECT_EQ(keys(list), "k0");
}

TEST_F(Laddrlist, AnEntryOfTheListCanBeAddedWhileItGrows)
{
    add(16);
    zeb_laddrlist_add(list, zeb_laddrlist_get(list, 3));
    EXPECT_EQ(zeb_laddrlist_count(list), 17);
    EXPECT_STREQ(zeb_laddrlist_get(list, 16)->key, "k3");
}

TEST_F(Laddrlist, ADuplicateHoldsCopiesInOrder)
{
    add(18);
    zeb_laddrlist *copy = zeb_laddrlist_dup(list);
    EXPECT_EQ(keys(copy), keys(list));
    EXPECT_NE(zeb_laddrlist_get(copy, 0)->key, zeb_laddrlist_get(list, 0)->key);
    zeb_laddrlist_destroy(&copy);
}

TEST_F(Laddrlist, AddingWithoutMemoryLeavesTheListAsItWas)
{
    for (const int before : {0, 3, 16}) {
        address a("fresh");
        fill(a.record);
        a.property("p", "1");
        unit::sweep([&](unit::refusal &refuse) {
            ezeb_laddrlist_clear(list);
            add(before);
            const std::string shownBefore = keys(list);
            const int32_t capacity = list->capacity;
            refuse.begin();
            zeb_laddrlist_add(list, &a.record);
            refuse.end();
            EXPECT_EQ(zeb_laddrlist_count(list), before + (refuse.happened() ? 0 : 1));
            if (refuse.happened()) {
                EXPECT_EQ(keys(list), shownBefore);
                EXPECT_EQ(list->capacity, capacity);
            }
        });
    }
}

TEST_F(Laddrlist, CreatingAndDuplicatingWithoutMemoryGiveNull)
{
    add(18);
    unit::sweep([&](unit::refusal &refuse) {
        refuse.begin();
        zeb_laddrlist *copy = zeb_laddrlist_dup(list);
        refuse.end();
        EXPECT_EQ(copy == nullptr, refuse.happened());
        zeb_laddrlist_destroy(&copy);
    });
    unit::sweep([](unit::refusal &refuse) {
        refuse.begin();
        zeb_laddrlist *fresh = zeb_laddrlist_create();
        refuse.end();
        EXPECT_EQ(fresh == nullptr, refuse.happened());
        zeb_laddrlist_destroy(&fresh);
    });
}

/* ---- On the wire ---- */

/* The five outputs of a decoded address block. */
struct outputs {
    zeb_logicaladdr *generating = nullptr;
    zeb_laddrlist *destinations = nullptr;
    zeb_laddrlist *members = nullptr;
    zeb_laddrlist *added = nullptr;
    zeb_laddrlist *removed = nullptr;

    outputs() = default;
    explicit outputs(std::string_view body)
    {
        read(body);
    }
    ~outputs()
    {
        ezeb_logicaladdr_destroy(&generating);
        zeb_laddrlist_destroy(&destinations);
        zeb_laddrlist_destroy(&members);
        zeb_laddrlist_destroy(&added);
        zeb_laddrlist_destroy(&removed);
    }
    outputs(const outputs &) = delete;
    outputs &operator=(const outputs &) = delete;

    void read(std::string_view body)
    {
        ezeb_laddrlist_fromBody(&generating, &destinations, &members, &added, &removed, body.data(),
                                static_cast<int32_t>(body.size()));
    }
    [[nodiscard]] bool empty() const
    {
        return generating == nullptr && destinations == nullptr && members == nullptr && added == nullptr &&
               removed == nullptr;
    }
};

std::string toBody(const zeb_laddrlist *list)
{
    int32_t length = -7;
    const unit::text body(static_cast<char *>(ezeb_laddrlist_toBody(list, &length)));
    EXPECT_EQ(body == nullptr, length == 0);
    return body != nullptr ? std::string(body.get(), static_cast<size_t>(length)) : "";
}

constexpr std::string_view SIGNATURE = unit::bytes("\x00\xA3\x7C\x08\xE7\x78\xEE\x24\x5F\xD3\xB6\x4E");

TEST_F(Laddrlist, AnEmptyOrNullListHasNoBody)
{
    EXPECT_EQ(toBody(list), "");
    EXPECT_EQ(toBody(nullptr), "");
}

TEST_F(Laddrlist, EveryFieldButTheKeyIsWrittenInItsOrder)
{
    address a("key");
    fill(a.record);
    a.property("p", "1").property("q", "");
    zeb_laddrlist_add(list, &a.record);
    EXPECT_EQ(toBody(list),
              std::string(SIGNATURE) + std::string(unit::bytes("\x01\x00\x09"
                                                               "dstAddr0\x00\x00"
                                                               "\x02\x00\x02"
                                                               "id\x00\x00\x01i\x00"
                                                               "\x02\x00\x04"
                                                               "tier\x00\x00\x01t\x00"
                                                               "\x02\x00\x06"
                                                               "tierid\x00\x00\x02ti\x00"
                                                               "\x02\x00\x09"
                                                               "component\x00\x00\x01"
                                                               "c\x00"
                                                               "\x02\x00\x08"
                                                               "hostname\x00\x00\x01h\x00"
                                                               "\x02\x00\x0c"
                                                               "instancename\x00\x00\x02in\x00"
                                                               "\x02\x00\x0c"
                                                               "subscription\x00\x00\x02su\x00"
                                                               "\x02\x00\x07"
                                                               "address\x00\x00\x04"
                                                               "a\x00"
                                                               "a\x00\x00"
                                                               "\x02\x00\x07"
                                                               "matcher\x00\x00\x03m\x00m\x00"
                                                               "\x01\x00\x0b"
                                                               "properties\x00\x01"
                                                               "\x02\x00\x01p\x00\x00\x01"
                                                               "1\x00"
                                                               "\x02\x00\x01q\x00\x00\x00\x00")));
}

TEST_F(Laddrlist, AbsentTextsAreLeftOutAndPropertiesAreAlwaysThere)
{
    const zeb_logicaladdr empty = {};
    zeb_laddrlist_add(list, &empty);
    zeb_laddrlist_add(list, &empty);
    EXPECT_EQ(toBody(list), std::string(SIGNATURE) + std::string(unit::bytes("\x01\x00\x09"
                                                                             "dstAddr0\x00\x00"
                                                                             "\x02\x00\x07"
                                                                             "address\x00\x00\x00\x00"
                                                                             "\x01\x00\x0b"
                                                                             "properties\x00\x01"
                                                                             "\x01\x00\x09"
                                                                             "dstAddr1\x00\x00"
                                                                             "\x02\x00\x07"
                                                                             "address\x00\x00\x00\x00"
                                                                             "\x01\x00\x0b"
                                                                             "properties\x00\x01")));
}

TEST_F(Laddrlist, WhatIsWrittenComesBackAsDestinationsWithoutKeys)
{
    address a("key");
    fill(a.record);
    a.property("p", "1").property("q", "2");
    for (int i = 0; i < 12; i++)
        zeb_laddrlist_add(list, &a.record);
    const outputs found(toBody(list));
    EXPECT_EQ(found.generating, nullptr);
    EXPECT_EQ(found.members, nullptr);
    EXPECT_EQ(found.added, nullptr);
    EXPECT_EQ(found.removed, nullptr);
    ASSERT_EQ(zeb_laddrlist_count(found.destinations), 12);
    for (int32_t i = 0; i < 12; i++) {
        const zeb_logicaladdr *read = zeb_laddrlist_get(found.destinations, i);
        EXPECT_EQ(read->key, nullptr);
        EXPECT_STREQ(read->id, "i");
        EXPECT_EQ(shown(read), shown(&a.record));
        ASSERT_EQ(read->addressLength, 4);
        EXPECT_EQ(memcmp(read->address, "a\0a\0", 4), 0);
        ASSERT_EQ(read->matcherLength, 3);
        EXPECT_EQ(memcmp(read->matcher, "m\0m", 3), 0);
    }
}

TEST_F(Laddrlist, ManyDestinationsAreNumberedInDecimal)
{
    const zeb_logicaladdr empty = {};
    for (int i = 0; i < 1001; i++)
        zeb_laddrlist_add(list, &empty);
    const std::string body = toBody(list);
    EXPECT_NE(body.find(unit::bytes("\x01\x00\x0a"
                                    "dstAddr10\x00")),
              std::string::npos);
    EXPECT_NE(body.find(unit::bytes("\x01\x00\x0c"
                                    "dstAddr1000\x00")),
              std::string::npos);
}

TEST_F(Laddrlist, WithoutMemoryThereIsNoBody)
{
    address a("key");
    fill(a.record);
    a.property("p", "1");
    zeb_laddrlist_add(list, &a.record);
    zeb_laddrlist_add(list, &a.record);
    unit::sweep([&](unit::refusal &refuse) {
        refuse.begin();
        int32_t length = -7;
        void *body = ezeb_laddrlist_toBody(list, &length);
        refuse.end();
        EXPECT_EQ(body == nullptr, refuse.happened());
        free(body);
    });
}

/* A block with one segment per name, whose element "id" is the name. */
std::string segmentsNamed(const std::vector<const char *> &names)
{
    std::string body(SIGNATURE);
    for (const char *name : names) {
        const auto length = static_cast<char>(strlen(name));
        body += std::string(unit::bytes("\x01\x00")) + static_cast<char>(length + 1) + name +
                std::string(2, '\0');
        body += std::string(unit::bytes("\x02\x00\x02"
                                        "id\x00\x00")) +
                length + name + std::string(1, '\0');
    }
    return body;
}

std::string ids(const zeb_laddrlist *of)
{
    std::string s;
    for (int32_t i = 0; i < zeb_laddrlist_count(of); i++)
        s += std::string(i > 0 ? " " : "") + zeb_laddrlist_get(of, i)->id;
    return s;
}

TEST(LaddrlistFromBody, TheSecondCharacterOfTheNameChoosesTheTarget)
{
    const outputs found(segmentsNamed({"xr", "xs1", "xb1", "xd1", "xe1", "qs2", "mbr", "addR", "rem2"}));
    EXPECT_STREQ(found.generating->id, "xr");
    EXPECT_EQ(ids(found.destinations), "xs1 qs2");
    EXPECT_EQ(ids(found.members), "xb1 mbr");
    EXPECT_EQ(ids(found.added), "xd1 addR");
    EXPECT_EQ(ids(found.removed), "xe1 rem2");
}

TEST(LaddrlistFromBody, ASegmentOfAnUnknownKindGoesToTheListChosenLast)
{
    const outputs found(segmentsNamed({"ab", "xx", "ar", "x", "", "ae", "aS"}));
    EXPECT_EQ(ids(found.members), "ab xx x ") << "the generating address is no list";
    EXPECT_EQ(ids(found.removed), "ae aS");
    EXPECT_STREQ(found.generating->id, "ar");
}

TEST(LaddrlistFromBody, AnUnknownKindBeforeAnyListIsSkipped)
{
    EXPECT_TRUE(outputs(segmentsNamed({"xx", "", "y"})).empty());
    const outputs found(segmentsNamed({"xx", "ar", "xx", "as"}));
    EXPECT_STREQ(found.generating->id, "ar");
    EXPECT_EQ(ids(found.destinations), "as");
}

TEST(LaddrlistFromBody, ALaterGeneratingAddressTakesThePlaceOfTheFormer)
{
    const outputs found(segmentsNamed({"1r", "2r", "3r"}));
    EXPECT_STREQ(found.generating->id, "3r");
}

TEST(LaddrlistFromBody, AListThatIsThereIsAppendedToAndTheGeneratingAddressIsReset)
{
    outputs found(segmentsNamed({"1s", "1r"}));
    zeb_logicaladdr *former = found.generating;
    found.read(segmentsNamed({"2s"}));
    EXPECT_EQ(ids(found.destinations), "1s 2s");
    EXPECT_EQ(found.generating, nullptr);
    ezeb_logicaladdr_destroy(&former);
}

TEST(LaddrlistFromBody, BytesWithoutASignatureFillNothing)
{
    EXPECT_TRUE(outputs(std::string_view("no block at all")).empty());
    EXPECT_TRUE(outputs(std::string_view("")).empty());
    outputs found;
    ezeb_laddrlist_fromBody(&found.generating, &found.destinations, &found.members, &found.added,
                            &found.removed, nullptr, 0);
    EXPECT_TRUE(found.empty());
}

TEST(LaddrlistFromBody, KeyBytesAndPropertiesAreRead)
{
    const outputs found(std::string(SIGNATURE) + std::string(unit::bytes("\x01\x00\x02"
                                                                         "r\x00\x00"
                                                                         "\x01\x00\x04srt\x00\x00"
                                                                         "\x02\x00\x03key\x00\x00\x02kk\x00"
                                                                         "\x02\x00\x07"
                                                                         "address\x00\x00\x02\x00\x01\x00"
                                                                         "\x02\x00\x07matcher\x00\x00\x00\x00"
                                                                         "\x01\x00\x0bproperties\x00\x01"
                                                                         "\x02\x00\x01p\x00\x00\x01x\x00"
                                                                         "\x02\x00\x01q\x00\x00\x00\x00")));
    ASSERT_NE(found.generating, nullptr);
    EXPECT_STREQ(found.generating->key, "kk");
    ASSERT_EQ(found.generating->addressLength, 2);
    EXPECT_EQ(memcmp(found.generating->address, "\0\1", 2), 0);
    EXPECT_EQ(found.generating->matcher, nullptr) << "a matcher without bytes is none";
    EXPECT_EQ(found.generating->id, nullptr);
    EXPECT_EQ(zeb_logicaladdr_getPropertyCount(found.generating), 2);
    EXPECT_STREQ(zeb_logicaladdr_getPropertyIndex(found.generating, 0)->name, "p");
    EXPECT_STREQ(zeb_logicaladdr_getProperty(found.generating, "q"), "");
}

TEST(LaddrlistFromBody, WithoutAPropertiesSegmentThereAreNoProperties)
{
    const outputs found(segmentsNamed({"ar"}));
    EXPECT_EQ(found.generating->properties, nullptr);
    EXPECT_NE(found.generating->address, nullptr);
    EXPECT_EQ(found.generating->addressLength, 0);
}

TEST(LaddrlistFromBody, AnyCutAndAnyChangeOfOneByteIsSurvived)
{
    zeb_laddrlist *list = zeb_laddrlist_create();
    address a("key");
    fill(a.record);
    a.property("p", "1");
    zeb_laddrlist_add(list, &a.record);
    const std::string body = toBody(list);
    zeb_laddrlist_destroy(&list);
    for (size_t length = 0; length <= body.size(); length++) {
        const outputs found(std::string(body, 0, length));
        EXPECT_LE(zeb_laddrlist_count(found.destinations), 1);
    }
    for (size_t at = 0; at < body.size(); at++)
        for (int to = 0; to < 256; to++) {
            std::string changed = body;
            changed[at] = static_cast<char>(to);
            const outputs found(changed);
            EXPECT_LE(zeb_laddrlist_count(found.destinations), 3);
        }
}

TEST(LaddrlistFromBody, ReadingWithoutMemoryGivesWholeAddressesOrNone)
{
    zeb_laddrlist *list = zeb_laddrlist_create();
    address a("key");
    fill(a.record);
    a.property("p", "1");
    for (int i = 0; i < 3; i++)
        zeb_laddrlist_add(list, &a.record);
    const std::string body = toBody(list) + std::string(unit::bytes("\x01\x00\x03sr\x00\x00"
                                                                    "\x02\x00\x02id\x00\x00\x01g\x00"));
    zeb_laddrlist_destroy(&list);
    unit::sweep([&](unit::refusal &refuse) {
        outputs found;
        refuse.begin();
        found.read(body);
        refuse.end();
        EXPECT_LE(zeb_laddrlist_count(found.destinations), 3);
        if (!refuse.happened()) {
            EXPECT_EQ(zeb_laddrlist_count(found.destinations), 3);
            EXPECT_NE(found.generating, nullptr);
        }
    });
}

/* ---- Speed ---- */

#ifdef ZEB_SPEED_GUARDS
TEST(LaddrlistSpeed, AnAddressOf100000PropertiesIsReadInLessThanHalfASecond)
{
    std::string body = std::string(SIGNATURE) + std::string(unit::bytes("\x01\x00\x03gr\x00\x00"
                                                                        "\x01\x00\x0bproperties\x00\x01"));
    for (int i = 0; i < 100000; i++)
        body += std::string(unit::bytes("\x02\x00\x06")) + std::to_string(100000 + i) +
                std::string(unit::bytes("\x00\x00\x01v\x00"));
    const double start = unit::processorSeconds();
    const outputs found(body);
    EXPECT_LT(unit::processorSeconds() - start, 0.5);
    ASSERT_NE(found.generating, nullptr);
    EXPECT_EQ(zeb_logicaladdr_getPropertyCount(found.generating), 100000);
}
#endif

} // namespace
