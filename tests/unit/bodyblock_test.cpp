/* The tree of a body block, and its text. */
#include "ezebbodyblock.h"

#include "unit.h"

#include <cstring>
#include <memory>
#include <pthread.h>
#include <random>
#include <vector>

namespace
{

struct Bodyblock : testing::Test {
    zeb_bb *block = zeb_bb_create();
    zeb_bb_seg *seg = zeb_bb_addsegment(block, "s");

    ~Bodyblock() override
    {
        zeb_bb_destroy(block);
    }

    /* "name=value" of all elements, by way of the walk. */
    static std::string elements(zeb_bb_seg *of)
    {
        std::string text;
        for (const zeb_bb_elem *e = zeb_bb_elemlist_getfirst(zeb_bb_seg_getelements(of)); e != nullptr;
             e = zeb_bb_elemlist_getnext(e)) {
            int32_t length = -1;
            const char *value = zeb_bb_elem_getvalue(e, &length);
            text += std::string(text.empty() ? "" : " ") + zeb_bb_elem_getname(e) + "=" +
                    std::string(value, static_cast<size_t>(length));
            EXPECT_EQ(value[length], '\0');
        }
        return text;
    }

    static std::string segments(const zeb_bb_seglist *of)
    {
        std::string text;
        for (const zeb_bb_seg *s = zeb_bb_seglist_getfirst(of); s != nullptr; s = zeb_bb_seglist_getnext(s))
            text += std::string(text.empty() ? "" : " ") + zeb_bb_seg_getname(s);
        return text;
    }

    std::string dump() const
    {
        const unit::text text(zeb_bb_toString(block));
        return text != nullptr ? text.get() : "<null>";
    }
};

/* ---- Names ---- */

TEST_F(Bodyblock, TheHashShiftsEachByteByOneMoreUpTo24)
{
    const auto hash = [](std::string_view name) { return ezeb_bb_namehash(name.data(), name.size()); };
    EXPECT_EQ(hash(""), 0U);
    EXPECT_EQ(hash("a"), 0x61U);
    EXPECT_EQ(hash("ab"), 0x61U ^ 0x62U << 1);
    EXPECT_EQ(hash("\xff"), 0xffU) << "bytes are taken as 0 to 255";
    const std::string zeros(24, '\0');
    EXPECT_EQ(hash(zeros + "a"), 0x61U << 24);
    EXPECT_EQ(hash(zeros + std::string(1, '\0') + "a"), 0x61U) << "the shift starts over";
}

TEST_F(Bodyblock, TheHashOfAnyLengthIsThatOfItsBytesOneByOne)
{
    std::mt19937 random(7);
    for (size_t length = 0; length < 120; length++) {
        std::string name(length, '\0');
        uint32_t expected = 0;
        for (size_t i = 0; i < length; i++) {
            name[i] = static_cast<char>(random());
            expected ^= static_cast<uint32_t>(static_cast<unsigned char>(name[i])) << i % 25;
        }
        const std::unique_ptr<char[]> exact(new char[length]); /* so that a read behind it is found out */
        memcpy(exact.get(), name.data(), length);
        EXPECT_EQ(ezeb_bb_namehash(exact.get(), length), expected) << length;
    }
}

TEST_F(Bodyblock, NamesOfEqualHashAreDistinct)
{
    ASSERT_EQ(ezeb_bb_namehash("ab", 2), ezeb_bb_namehash("cc", 2));
    zeb_bb_seg_addelement(seg, "ab", "1");
    zeb_bb_seg_addelement(seg, "cc", "2");
    EXPECT_EQ(elements(seg), "ab=1 cc=2");
    EXPECT_NE(zeb_bb_addsegment(block, "ab"), zeb_bb_addsegment(block, "cc"));
}

TEST_F(Bodyblock, AnEmptyNameIsANameOfItsOwn)
{
    zeb_bb_seg *unnamed = zeb_bb_addsegment(block, "");
    EXPECT_NE(unnamed, seg);
    EXPECT_EQ(zeb_bb_getsegment(block, ""), unnamed);
    EXPECT_STREQ(zeb_bb_seg_getname(unnamed), "");
    zeb_bb_seg_addelement(seg, "k", "v");
    zeb_bb_seg_addelement(seg, "", "w");
    EXPECT_EQ(elements(seg), "k=v =w");
    EXPECT_STREQ(zeb_bb_seg_getelement(seg, "", nullptr), "w");
}

TEST_F(Bodyblock, NamesCompareExactly)
{
    zeb_bb_seg_addelement(seg, "Key", "v");
    EXPECT_EQ(zeb_bb_seg_getelement(seg, "key", nullptr), nullptr);
    EXPECT_EQ(zeb_bb_seg_getelement(seg, "Ke", nullptr), nullptr);
    EXPECT_EQ(zeb_bb_seg_getelement(seg, "Key ", nullptr), nullptr);
    EXPECT_EQ(zeb_bb_getsegment(block, "S"), nullptr);
}

/* ---- Elements ---- */

TEST_F(Bodyblock, AReplacedElementMovesToTheEnd)
{
    zeb_bb_seg_addelement(seg, "k", "1");
    zeb_bb_seg_addelement(seg, "between", "x");
    zeb_bb_seg_addelement(seg, "more", "y");
    const zeb_bb_elem *again = zeb_bb_seg_addelement(seg, "k", "2");
    EXPECT_EQ(elements(seg), "between=x more=y k=2");
    EXPECT_EQ(seg->elements.last, again);
    EXPECT_EQ(seg->elements.count, 3U);
}

TEST_F(Bodyblock, TheFirstTheLastAndTheOnlyElementCanBeReplaced)
{
    zeb_bb_seg_addelement(seg, "only", "1");
    zeb_bb_seg_addelement(seg, "only", "2");
    EXPECT_EQ(elements(seg), "only=2");
    zeb_bb_seg_addelement(seg, "last", "1");
    zeb_bb_seg_addelement(seg, "last", "2");
    EXPECT_EQ(elements(seg), "only=2 last=2");
    zeb_bb_seg_addelement(seg, "only", "3");
    EXPECT_EQ(elements(seg), "last=2 only=3");
}

TEST_F(Bodyblock, AnElementTakesAsManyBytesAsItsLengthSays)
{
    const zeb_bb_elem *e = zeb_bb_seg_addelement_b(seg, "k", "abcdef", 3);
    int32_t length = 0;
    EXPECT_STREQ(zeb_bb_elem_getvalue(e, &length), "abc");
    EXPECT_EQ(length, 3);
    e = zeb_bb_seg_addelement_b(seg, "k", "abcdef", -1);
    EXPECT_STREQ(zeb_bb_elem_getvalue(e, &length), "abcdef");
    EXPECT_EQ(length, 6);
    e = zeb_bb_seg_addelement_b(seg, "k", "abcdef", 0);
    EXPECT_STREQ(zeb_bb_elem_getvalue(e, &length), "");
    EXPECT_EQ(length, 0);
}

TEST_F(Bodyblock, ALengthBelowMinusOneIsRefused)
{
    zeb_bb_seg_addelement(seg, "k", "v");
    EXPECT_EQ(zeb_bb_seg_addelement_b(seg, "k", "abc", -2), nullptr);
    EXPECT_EQ(zeb_bb_seg_addelement_b(seg, "k", "abc", INT32_MIN), nullptr);
    EXPECT_EQ(elements(seg), "k=v");
}

TEST_F(Bodyblock, ABinaryValueKeepsItsZerosAndShowsAsBinaryData)
{
    zeb_bb_seg_addelement_b(seg, "k", "a\0b", 3);
    int32_t length = 0;
    const char *value = zeb_bb_seg_getelement(seg, "k", &length);
    EXPECT_EQ(length, 3);
    EXPECT_EQ(memcmp(value, "a\0b\0", 4), 0);
    EXPECT_EQ(dump(), "Seg:s\n  k=<binary-data>\n");
}

TEST_F(Bodyblock, NamesAndValuesAreCopied)
{
    char name[] = "k";
    char value[] = "v";
    zeb_bb_seg_addelement(seg, name, value);
    char segname[] = "other";
    zeb_bb_addsegment(block, segname);
    name[0] = value[0] = segname[0] = 'x';
    EXPECT_EQ(elements(seg), "k=v");
    EXPECT_EQ(segments(zeb_bb_getsegments(block)), "s other");
}

TEST_F(Bodyblock, AMissingElementIsNullWithLengthZero)
{
    int32_t length = 77;
    EXPECT_EQ(zeb_bb_seg_getelement(seg, "missing", &length), nullptr);
    EXPECT_EQ(length, 0);
    length = 77;
    EXPECT_EQ(zeb_bb_seg_getelement(seg, nullptr, &length), nullptr);
    EXPECT_EQ(length, 0);
}

TEST_F(Bodyblock, ForANullSegmentTheLengthIsLeftUntouched)
{
    int32_t length = 77;
    EXPECT_EQ(zeb_bb_seg_getelement(nullptr, "k", &length), nullptr);
    EXPECT_EQ(length, 77);
}

TEST_F(Bodyblock, TheValueOfANullElementIsNullWithLengthZero)
{
    int32_t length = 77;
    EXPECT_EQ(zeb_bb_elem_getvalue(nullptr, &length), nullptr);
    EXPECT_EQ(length, 0);
    EXPECT_EQ(zeb_bb_elem_getvalue(nullptr, nullptr), nullptr);
}

TEST_F(Bodyblock, ANewValueAndNameMayStandInTheElementThatGoes)
{
    zeb_bb_elem *e = zeb_bb_seg_addelement(seg, "name", "value");
    e = zeb_bb_seg_addelement_b(seg, zeb_bb_elem_getname(e), zeb_bb_elem_getvalue(e, nullptr) + 2, -1);
    EXPECT_EQ(elements(seg), "name=lue");
    zeb_bb_seg_addelement_b(seg, zeb_bb_elem_getname(e), zeb_bb_elem_getname(e), -1);
    EXPECT_EQ(elements(seg), "name=name");
}

/* Long lists are searched through an index; it must agree with the list at every size around its making. */
TEST_F(Bodyblock, LongListsBehaveLikeShortOnes)
{
    std::vector<std::pair<std::string, std::string>> model;
    std::mt19937 random(8);
    for (int step = 0; step < 6000; step++) {
        const std::string name = "n" + std::to_string(random() % (step < 2000 ? 40 : 700));
        const std::string value = std::to_string(step);
        std::erase_if(model, [&](const auto &pair) { return pair.first == name; });
        model.emplace_back(name, value);
        ASSERT_NE(zeb_bb_seg_addelement(seg, name.c_str(), value.c_str()), nullptr);
        ASSERT_EQ(seg->elements.count, model.size());
        const auto &probe = model[random() % model.size()];
        ASSERT_EQ(zeb_bb_seg_getelement(seg, probe.first.c_str(), nullptr), probe.second);
        ASSERT_EQ(zeb_bb_seg_getelement(seg, "absent", nullptr), nullptr);
    }
    std::string expected;
    for (const auto &[name, value] : model)
        expected += (expected.empty() ? "" : " ") + name + "=" + value;
    EXPECT_EQ(elements(seg), expected);
}

/* ---- Segments ---- */

TEST_F(Bodyblock, AddingAnExistingSegmentReturnsItAsItIs)
{
    zeb_bb_seg_addelement(seg, "k", "v");
    zeb_bb_addsegment(block, "t");
    EXPECT_EQ(zeb_bb_addsegment(block, "s"), seg);
    EXPECT_EQ(elements(seg), "k=v");
    EXPECT_EQ(segments(zeb_bb_getsegments(block)), "s t");
    EXPECT_EQ(block->segments.count, 2U);
    zeb_bb_seg *inner = zeb_bb_seg_addsegment(seg, "inner");
    EXPECT_EQ(zeb_bb_seg_addsegment(seg, "inner"), inner);
    EXPECT_EQ(seg->segments.count, 1U);
}

TEST_F(Bodyblock, SubSegmentsAreFoundInTheirSegmentAlone)
{
    zeb_bb_seg *inner = zeb_bb_seg_addsegment(seg, "inner");
    EXPECT_EQ(zeb_bb_seg_getsegment(seg, "inner"), inner);
    EXPECT_EQ(zeb_bb_getsegment(block, "inner"), nullptr);
    EXPECT_EQ(zeb_bb_seg_getsegment(inner, "inner"), nullptr);
    EXPECT_EQ(inner->level, 0U) << "only the decoder stores a level";
    EXPECT_EQ(segments(zeb_bb_seg_getsegments(seg)), "inner");
}

TEST_F(Bodyblock, NullArgumentsGiveNull)
{
    EXPECT_EQ(zeb_bb_addsegment(nullptr, "s"), nullptr);
    EXPECT_EQ(zeb_bb_addsegment(block, nullptr), nullptr);
    EXPECT_EQ(zeb_bb_getsegment(nullptr, "s"), nullptr);
    EXPECT_EQ(zeb_bb_getsegment(block, nullptr), nullptr);
    EXPECT_EQ(zeb_bb_getsegments(nullptr), nullptr);
    EXPECT_EQ(zeb_bb_seg_getname(nullptr), nullptr);
    EXPECT_EQ(zeb_bb_seg_addelement(nullptr, "k", "v"), nullptr);
    EXPECT_EQ(zeb_bb_seg_addelement(seg, nullptr, "v"), nullptr);
    EXPECT_EQ(zeb_bb_seg_addelement(seg, "k", nullptr), nullptr);
    EXPECT_EQ(zeb_bb_seg_getelements(nullptr), nullptr);
    EXPECT_EQ(zeb_bb_seg_addsegment(nullptr, "s"), nullptr);
    EXPECT_EQ(zeb_bb_seg_addsegment(seg, nullptr), nullptr);
    EXPECT_EQ(zeb_bb_seg_getsegment(nullptr, "s"), nullptr);
    EXPECT_EQ(zeb_bb_seg_getsegment(seg, nullptr), nullptr);
    EXPECT_EQ(zeb_bb_seg_getsegments(nullptr), nullptr);
    EXPECT_EQ(zeb_bb_seglist_getfirst(nullptr), nullptr);
    EXPECT_EQ(zeb_bb_seglist_getnext(nullptr), nullptr);
    EXPECT_EQ(zeb_bb_elemlist_getfirst(nullptr), nullptr);
    EXPECT_EQ(zeb_bb_elemlist_getnext(nullptr), nullptr);
    EXPECT_EQ(zeb_bb_elem_getname(nullptr), nullptr);
    EXPECT_EQ(zeb_bb_toString(nullptr), nullptr);
    zeb_bb_destroy(nullptr);
}

/* ---- Text ---- */

TEST_F(Bodyblock, AnEmptyBlockHasNoText)
{
    zeb_bb *empty = zeb_bb_create();
    EXPECT_EQ(zeb_bb_toString(empty), nullptr);
    zeb_bb_destroy(empty);
}

TEST_F(Bodyblock, AnEmptySegmentIsOneLine)
{
    EXPECT_EQ(dump(), "Seg:s\n");
}

TEST_F(Bodyblock, ElementsComeBeforeSubSegmentsEachLevelIndentedByTwo)
{
    zeb_bb *other = zeb_bb_create();
    zeb_bb_seg *a = zeb_bb_addsegment(other, "a");
    zeb_bb_seg *b = zeb_bb_seg_addsegment(a, "b");
    zeb_bb_seg_addelement_b(b, "y", "\x01", 1);
    zeb_bb_seg_addelement(a, "x", "1");
    zeb_bb_seg_addelement(zeb_bb_seg_addsegment(b, "c"), "z", "2");
    zeb_bb_seg_addsegment(a, "d");
    zeb_bb_addsegment(other, "e");
    const unit::text text(zeb_bb_toString(other));
    EXPECT_STREQ(text.get(), "Seg:a\n"
                             "  x=1\n"
                             "  Seg:b\n"
                             "    y=<binary-data>\n"
                             "    Seg:c\n"
                             "      z=2\n"
                             "  Seg:d\n"
                             "Seg:e\n");
    zeb_bb_destroy(other);
}

TEST_F(Bodyblock, OnlyPrintableValuesAreShown)
{
    zeb_bb_seg_addelement(seg, "empty", "");
    zeb_bb_seg_addelement(seg, "all", " ~!=:");
    zeb_bb_seg_addelement(seg, "tab", "a\tb");
    zeb_bb_seg_addelement(seg, "feed", "a\n");
    zeb_bb_seg_addelement(seg, "high", "caf\xc3\xa9");
    zeb_bb_seg_addelement(seg, "delete", "\x7f");
    zeb_bb_seg_addelement(seg, "negative", "\xff");
    EXPECT_EQ(dump(), "Seg:s\n"
                      "  empty=\n"
                      "  all= ~!=:\n"
                      "  tab=<binary-data>\n"
                      "  feed=<binary-data>\n"
                      "  high=<binary-data>\n"
                      "  delete=<binary-data>\n"
                      "  negative=<binary-data>\n");
}

/* ---- Depth ---- */

void *buildDeepTree(void *ok)
{
    constexpr int LEVELS = 100000;
    zeb_bb *deep = zeb_bb_create();
    zeb_bb_seg *at = zeb_bb_addsegment(deep, "top");
    for (int i = 1; i < LEVELS; i++)
        at = zeb_bb_seg_addsegment(at, "s");
    zeb_bb_seg_addelement(at, "k", "v");
    int32_t length = 0;
    void *body = zeb_bb_block2body(deep, &length);
    *static_cast<bool *>(ok) = body != nullptr && length == 12 + 8 + (LEVELS - 1) * 6 + 9;
    free(body);
    zeb_bb_destroy(deep);
    return nullptr;
}

/* On a small stack, where recursion would not get far. */
TEST(BodyblockDepth, ATreeOf100000LevelsIsBuiltEncodedAndDestroyedOnASmallStack)
{
    bool ok = false;
    pthread_attr_t attr;
    pthread_attr_init(&attr);
    ASSERT_EQ(pthread_attr_setstacksize(&attr, 128 * 1024), 0);
    pthread_t thread;
    ASSERT_EQ(pthread_create(&thread, &attr, buildDeepTree, &ok), 0);
    pthread_join(thread, nullptr);
    pthread_attr_destroy(&attr);
    EXPECT_TRUE(ok);
}

TEST(BodyblockDepth, TheTextOfADeepTreeIndentsEveryLevel)
{
    constexpr size_t LEVELS = 300;
    zeb_bb *deep = zeb_bb_create();
    zeb_bb_seg *at = zeb_bb_addsegment(deep, "s");
    for (size_t i = 1; i < LEVELS; i++)
        at = zeb_bb_seg_addsegment(at, "s");
    std::string expected;
    for (size_t i = 0; i < LEVELS; i++)
        expected += std::string(2 * i, ' ') + "Seg:s\n";
    const unit::text text(zeb_bb_toString(deep));
    EXPECT_EQ(text.get(), expected);
    zeb_bb_destroy(deep);
}

/* ---- Memory ---- */

TEST_F(Bodyblock, CreateWithoutMemoryGivesNull)
{
    unit::sweep([](unit::refusal &refuse) {
        refuse.begin();
        zeb_bb *fresh = zeb_bb_create();
        refuse.end();
        EXPECT_EQ(fresh == nullptr, refuse.happened());
        zeb_bb_destroy(fresh);
    });
}

TEST_F(Bodyblock, ASegmentWithoutMemoryIsNullAndChangesNothing)
{
    int made = 0;
    unit::sweep([&](unit::refusal &refuse) {
        const std::string name = "fresh" + std::to_string(made);
        const std::string before = dump();
        refuse.begin();
        const zeb_bb_seg *top = zeb_bb_addsegment(block, name.c_str());
        refuse.end();
        EXPECT_EQ(top == nullptr, refuse.happened());
        if (refuse.happened()) {
            EXPECT_EQ(dump(), before);
        }
        made++;
    });
    unit::sweep([&](unit::refusal &refuse) {
        const std::string name = "inner" + std::to_string(made);
        refuse.begin();
        const zeb_bb_seg *inner = zeb_bb_seg_addsegment(seg, name.c_str());
        refuse.end();
        EXPECT_EQ(inner == nullptr, refuse.happened());
        made++;
    });
}

/* The former element is gone even when there is no memory for the new one. */
TEST_F(Bodyblock, AnElementWithoutMemoryIsNullAndTheFormerIsGone)
{
    for (const int others : {0, 5, 40}) {
        unit::refusal refuse(1);
        zeb_bb_seg *s = zeb_bb_addsegment(block, std::to_string(others).c_str());
        std::string expected;
        for (int i = 0; i < others; i++) {
            const std::string name = "o" + std::to_string(i);
            zeb_bb_seg_addelement(s, name.c_str(), "x");
            expected += (i > 0 ? " " : "") + name + "=x";
        }
        zeb_bb_seg_addelement(s, "k", "old");
        refuse.begin();
        EXPECT_EQ(zeb_bb_seg_addelement(s, "k", "new"), nullptr);
        refuse.end();
        EXPECT_EQ(elements(s), expected);
        EXPECT_EQ(zeb_bb_seg_getelement(s, "k", nullptr), nullptr);
        zeb_bb_seg_addelement(s, "k", "newer");
        EXPECT_STREQ(zeb_bb_seg_getelement(s, "k", nullptr), "newer");
        if (others > 0) {
            EXPECT_STREQ(zeb_bb_seg_getelement(s, "o3", nullptr), "x");
        }
    }
}

/* Without memory for the index, look-ups walk the list. */
TEST_F(Bodyblock, ALongListWithoutAnIndexIsStillRight)
{
    for (int i = 0; i < 400; i++) {
        const std::string name = "n" + std::to_string(i % 300);
        unit::refusal refuse(2); /* the element is granted, the index is not */
        refuse.begin();
        ASSERT_NE(zeb_bb_seg_addelement(seg, name.c_str(), std::to_string(i).c_str()), nullptr);
    }
    EXPECT_EQ(seg->index, nullptr);
    EXPECT_EQ(seg->elements.count, 300U);
    EXPECT_STREQ(zeb_bb_seg_getelement(seg, "n7", nullptr), "307");
    EXPECT_STREQ(zeb_bb_seg_getelement(seg, "n299", nullptr), "299");
}

TEST_F(Bodyblock, ATextWithoutMemoryIsNull)
{
    for (int i = 0; i < 50; i++)
        zeb_bb_seg_addelement(zeb_bb_seg_addsegment(seg, std::to_string(i).c_str()), "name", "value");
    const std::string whole = dump();
    unit::sweep([&](unit::refusal &refuse) {
        refuse.begin();
        const unit::text text(zeb_bb_toString(block));
        refuse.end();
        EXPECT_EQ(text == nullptr, refuse.happened());
        if (text != nullptr) {
            EXPECT_EQ(text.get(), whole);
        }
    });
}

} // namespace
