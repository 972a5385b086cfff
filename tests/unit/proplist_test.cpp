/* Property lists. */
#include "ezebproplist.h"

#include "unit.h"

#include <algorithm>
#include <utility>
#include <vector>

namespace
{

struct Proplist : testing::Test {
    zeb_proplist *list = zeb_proplist_create();

    ~Proplist() override
    {
        zeb_proplist_destroy(&list);
    }

    void put(int count) const
    {
        for (int i = 0; i < count; i++)
            ASSERT_NE(zeb_proplist_put(list, ("n" + std::to_string(i)).c_str(), std::to_string(i).c_str()),
                      nullptr);
    }

    static std::string show(const zeb_proplist *shown)
    {
        std::string text;
        for (int32_t i = 0; i < zeb_proplist_count(shown); i++) {
            const zeb_property *p = zeb_proplist_getIndex(shown, i);
            text += std::string(text.empty() ? "" : " ") + p->name + "=" + p->value;
        }
        return text;
    }
};

TEST_F(Proplist, ANewListHasNoArray)
{
    EXPECT_EQ(list->entries, nullptr);
    EXPECT_EQ(list->capacity, 0);
    EXPECT_EQ(zeb_proplist_count(list), 0);
    EXPECT_EQ(zeb_proplist_get(list, "a"), nullptr);
    EXPECT_EQ(zeb_proplist_getIndex(list, 0), nullptr);
}

TEST_F(Proplist, PutOfAnExistingNameReplacesItsValueInPlace)
{
    put(3);
    zeb_property *old = zeb_proplist_getIndex(list, 1);
    EXPECT_EQ(zeb_proplist_put(list, "n1", "new"), old);
    EXPECT_EQ(show(list), "n0=0 n1=new n2=2");
}

TEST_F(Proplist, TheNinthPutGrowsTheCapacityFrom8To16AndKeepsOrderAndValues)
{
    put(8);
    EXPECT_EQ(list->capacity, 8);
    ASSERT_NE(zeb_proplist_put(list, "ninth", "x"), nullptr);
    EXPECT_EQ(list->capacity, 16);
    EXPECT_EQ(show(list), "n0=0 n1=1 n2=2 n3=3 n4=4 n5=5 n6=6 n7=7 ninth=x");
}

TEST_F(Proplist, ReplacingInAFullListDoesNotGrowIt)
{
    put(8);
    ASSERT_NE(zeb_proplist_put(list, "n7", "x"), nullptr);
    EXPECT_EQ(list->capacity, 8);
    EXPECT_EQ(zeb_proplist_count(list), 8);
}

TEST_F(Proplist, PutReturnsTheSlotItWrote)
{
    const zeb_property *slot = zeb_proplist_put(list, "a", "b");
    EXPECT_EQ(slot, zeb_proplist_getIndex(list, 0));
    EXPECT_STREQ(slot->name, "a");
    EXPECT_STREQ(slot->value, "b");
}

TEST_F(Proplist, ThePutStringsAreCopied)
{
    char name[] = "a";
    char value[] = "b";
    zeb_proplist_put(list, name, value);
    name[0] = value[0] = 'x';
    EXPECT_STREQ(zeb_proplist_get(list, "a"), "b");
}

TEST_F(Proplist, TheNewValueMayBeTheOldOne)
{
    zeb_proplist_put(list, "a", "value");
    ASSERT_NE(zeb_proplist_put(list, "a", zeb_proplist_get(list, "a") + 1), nullptr);
    EXPECT_STREQ(zeb_proplist_get(list, "a"), "alue");
}

TEST_F(Proplist, NamesCompareExactly)
{
    zeb_proplist_put(list, "Name", "1");
    EXPECT_EQ(zeb_proplist_get(list, "name"), nullptr);
    EXPECT_EQ(zeb_proplist_get(list, "Name "), nullptr);
    EXPECT_EQ(zeb_proplist_get(list, "Nam"), nullptr);
    EXPECT_STREQ(zeb_proplist_get(list, "Name"), "1");
    zeb_proplist_put(list, "", "empty");
    EXPECT_STREQ(zeb_proplist_get(list, ""), "empty");
}

TEST_F(Proplist, NullArgumentsFail)
{
    put(1);
    EXPECT_EQ(zeb_proplist_put(nullptr, "a", "b"), nullptr);
    EXPECT_EQ(zeb_proplist_put(list, nullptr, "b"), nullptr);
    EXPECT_EQ(zeb_proplist_put(list, "a", nullptr), nullptr);
    EXPECT_EQ(zeb_proplist_get(list, nullptr), nullptr);
    EXPECT_EQ(zeb_proplist_get(nullptr, "a"), nullptr);
    EXPECT_EQ(ezeb_proplist_dup(nullptr), nullptr);
    EXPECT_EQ(show(list), "n0=0");
}

TEST_F(Proplist, GetIndexAtTheCountAndOfANullListIsNull)
{
    put(2);
    EXPECT_NE(zeb_proplist_getIndex(list, 1), nullptr);
    EXPECT_EQ(zeb_proplist_getIndex(list, 2), nullptr);
    EXPECT_EQ(zeb_proplist_getIndex(list, INT32_MAX), nullptr);
    EXPECT_EQ(zeb_proplist_getIndex(nullptr, 0), nullptr);
}

/* Only the upper bound is looked at. The array of this list stands inside a bigger one, so that the slot
 * before it can be looked at. */
TEST_F(Proplist, GetIndexDoesNotCheckTheLowerBound)
{
    zeb_property room[3] = {};
    zeb_proplist inside = {room + 1, 2, 2};
    EXPECT_EQ(zeb_proplist_getIndex(&inside, -1), room);
}

TEST_F(Proplist, TheCountOfANullListIsZero)
{
    EXPECT_EQ(zeb_proplist_count(nullptr), 0);
}

TEST_F(Proplist, DestroySetsTheVariableToNullAndIgnoresNull)
{
    put(9);
    zeb_proplist_destroy(&list);
    EXPECT_EQ(list, nullptr);
    zeb_proplist_destroy(&list);
    zeb_proplist_destroy(nullptr);
}

TEST_F(Proplist, ADuplicateHasTheCapacityAndCopiesOfItsOwn)
{
    put(3);
    zeb_proplist *copy = ezeb_proplist_dup(list);
    EXPECT_EQ(copy->count, 3);
    EXPECT_EQ(copy->capacity, 8);
    EXPECT_EQ(show(copy), "n0=0 n1=1 n2=2");
    for (int i = 0; i < 3; i++) {
        EXPECT_NE(copy->entries[i].name, list->entries[i].name);
        EXPECT_NE(copy->entries[i].value, list->entries[i].value);
    }
    zeb_proplist_put(copy, "n0", "changed");
    EXPECT_STREQ(zeb_proplist_get(list, "n0"), "0");
    zeb_proplist_destroy(&copy);
}

TEST_F(Proplist, ADuplicateOfAnEmptyListIsAnEmptyList)
{
    zeb_proplist *copy = ezeb_proplist_dup(list);
    ASSERT_NE(copy, nullptr);
    EXPECT_EQ(zeb_proplist_count(copy), 0);
    ASSERT_NE(zeb_proplist_put(copy, "a", "b"), nullptr);
    zeb_proplist_destroy(&copy);
}

/* ---- Memory ---- */

TEST_F(Proplist, CreateWithoutMemoryGivesNull)
{
    unit::sweep([](unit::refusal &refuse) {
        refuse.begin();
        zeb_proplist *fresh = zeb_proplist_create();
        refuse.end();
        EXPECT_EQ(fresh == nullptr, refuse.happened());
        zeb_proplist_destroy(&fresh);
    });
}

TEST_F(Proplist, AFailedPutLeavesTheListExactlyAsItWas)
{
    for (const int before : {0, 3, 8, 16})
        for (const char *name : {"n0", "fresh"})
            unit::sweep([&](unit::refusal &refuse) {
                put(before);
                const std::string shown = show(list);
                const int32_t capacity = list->capacity;
                refuse.begin();
                const zeb_property *slot = zeb_proplist_put(list, name, "new value");
                refuse.end();
                EXPECT_EQ(slot == nullptr, refuse.happened());
                if (refuse.happened()) {
                    EXPECT_EQ(show(list), shown);
                    EXPECT_EQ(list->capacity, capacity);
                } else {
                    EXPECT_STREQ(zeb_proplist_get(list, name), "new value");
                }
                zeb_proplist_destroy(&list);
                list = zeb_proplist_create();
            });
}

TEST_F(Proplist, AFailedDuplicateIsNullAndLeavesTheSource)
{
    put(11);
    const int64_t requests = unit::sweep([&](unit::refusal &refuse) {
        refuse.begin();
        zeb_proplist *copy = ezeb_proplist_dup(list);
        refuse.end();
        EXPECT_EQ(copy == nullptr, refuse.happened());
        EXPECT_EQ(zeb_proplist_count(list), 11);
        if (copy != nullptr) {
            EXPECT_EQ(show(copy), show(list));
        }
        zeb_proplist_destroy(&copy);
    });
    EXPECT_EQ(requests, 2 + 2 * 11);
}

/* ---- Against a model ---- */

TEST_F(Proplist, RandomOperationsDoWhatTheyDoToAListOfPairs)
{
    std::vector<std::pair<std::string, std::string>> model;
    uint32_t state = 12345;
    for (int step = 0; step < 20000; step++) {
        state = state * 1664525 + 1013904223;
        const std::string name = "k" + std::to_string(state >> 24 & 63);
        const auto same = [&](const auto &pair) { return pair.first == name; };
        const auto found = std::find_if(model.begin(), model.end(), same);
        if ((state >> 12 & 3) == 0) {
            const std::string value = std::to_string(step);
            const zeb_property *slot = zeb_proplist_put(list, name.c_str(), value.c_str());
            if (found != model.end())
                found->second = value;
            else
                model.emplace_back(name, value);
            ASSERT_STREQ(slot->value, value.c_str());
        } else {
            const char *value = zeb_proplist_get(list, name.c_str());
            ASSERT_EQ(value != nullptr, found != model.end());
            if (value != nullptr) {
                ASSERT_EQ(value, found->second);
            }
        }
        ASSERT_EQ(zeb_proplist_count(list), static_cast<int32_t>(model.size()));
    }
    for (size_t i = 0; i < model.size(); i++) {
        const zeb_property *p = zeb_proplist_getIndex(list, static_cast<int32_t>(i));
        ASSERT_EQ(p->name, model[i].first);
        ASSERT_EQ(p->value, model[i].second);
    }
}

} // namespace
