/* Body blocks as bytes. The decoder is held against a slow one. */
#include "ezebbodyblock.h"

#include "slow_decoder.h"
#include "unit.h"

#include <cstring>
#include <memory>
#include <optional>
#include <pthread.h>
#include <random>
#include <vector>

namespace
{

using unit::show;
using unit::SIGNATURE;
using unit::slowly_decoded;

/* The body stands in a block of its exact size, so that a read behind it is found out. */
std::unique_ptr<char[]> exactly(std::string_view body)
{
    auto copy = std::make_unique<char[]>(body.size());
    memcpy(copy.get(), body.data(), body.size());
    return copy;
}

zeb_bb *decode(std::string_view body)
{
    const auto copy = exactly(body);
    return zeb_bb_body2block(copy.get(), static_cast<int32_t>(body.size()));
}

std::string decoded(std::string_view body)
{
    zeb_bb *block = decode(body);
    std::string text = block != nullptr ? show(zeb_bb_getsegments(block)) : "<null>";
    zeb_bb_destroy(block);
    return text;
}

std::string encoded(const zeb_bb *block)
{
    int32_t length = -1;
    const unit::text body(static_cast<char *>(zeb_bb_block2body(block, &length)));
    return body != nullptr ? std::string(body.get(), static_cast<size_t>(length)) : "<null>";
}

std::string body(std::string_view records)
{
    return std::string(SIGNATURE) + std::string(records);
}

/* ---- Encoding ---- */

struct Encoding : testing::Test {
    zeb_bb *block = zeb_bb_create();

    ~Encoding() override
    {
        zeb_bb_destroy(block);
    }
};

TEST_F(Encoding, AnEmptyBlockIsTheSignatureAlone)
{
    EXPECT_EQ(encoded(block), SIGNATURE);
    EXPECT_EQ(encoded(nullptr), SIGNATURE);
    EXPECT_EQ(SIGNATURE.size(), 12U);
}

TEST_F(Encoding, TheSignatureAloneIsAnEmptyBlock)
{
    EXPECT_EQ(decoded(SIGNATURE), "");
}

TEST_F(Encoding, ASegmentsLengthCountsItsNul)
{
    zeb_bb_addsegment(block, "s");
    EXPECT_EQ(encoded(block), body(unit::bytes("\x01\x00\x02\x73\x00\x00")));
}

TEST_F(Encoding, AnElementsLengthsDoNotCountTheirNul)
{
    zeb_bb_seg_addelement(zeb_bb_addsegment(block, "s"), "k", "v");
    EXPECT_EQ(encoded(block),
              body(unit::bytes("\x01\x00\x02\x73\x00\x00\x02\x00\x01\x6B\x00\x00\x01\x76\x00")));
}

TEST_F(Encoding, SubSegmentsFollowAllElements)
{
    zeb_bb_seg *s = zeb_bb_addsegment(block, "s");
    zeb_bb_seg *t = zeb_bb_seg_addsegment(s, "t");
    zeb_bb_seg_addelement(s, "k", "v");
    zeb_bb_seg_addsegment(t, "u");
    zeb_bb_addsegment(block, "w");
    EXPECT_EQ(encoded(block), body(unit::bytes("\x01\x00\x02s\x00\x00"
                                               "\x02\x00\x01k\x00\x00\x01v\x00"
                                               "\x01\x00\x02t\x00\x01"
                                               "\x01\x00\x02u\x00\x02"
                                               "\x01\x00\x02w\x00\x00")));
}

TEST_F(Encoding, EmptyNamesAndValuesTakeTheirNulAlone)
{
    zeb_bb_seg_addelement(zeb_bb_addsegment(block, ""), "", "");
    const std::string bytes = encoded(block);
    EXPECT_EQ(bytes, body(unit::bytes("\x01\x00\x01\x00\x00\x02\x00\x00\x00\x00\x00\x00")));
    EXPECT_EQ(decoded(bytes), "(0: 0:=0: )");
}

TEST_F(Encoding, TheStoredLevelIsNotConsulted)
{
    zeb_bb_addsegment(block, "s")->level = 99;
    EXPECT_EQ(encoded(block), body(unit::bytes("\x01\x00\x02s\x00\x00")));
}

TEST_F(Encoding, ValuesWithZerosComeBackWithTheirLengthsAndBytes)
{
    zeb_bb_seg *s = zeb_bb_addsegment(block, "s");
    zeb_bb_seg_addelement_b(s, "a", "\0\0", 2);
    zeb_bb_seg_addelement_b(s, "b", "x\0y\0", 4);
    zeb_bb_seg_addelement_b(s, "c", "", 0);
    EXPECT_EQ(decoded(encoded(block)), show(zeb_bb_getsegments(block)));
}

TEST_F(Encoding, MoreThanTwoGigabytesCannotBeEncoded)
{
    zeb_bb_elem *a = zeb_bb_seg_addelement(zeb_bb_addsegment(block, "s"), "a", "");
    zeb_bb_elem *b = zeb_bb_seg_addelement(zeb_bb_addsegment(block, "s"), "b", "");
    a->length = b->length = INT32_MAX; /* the sum alone is looked at, and does not wrap */
    int32_t length = 77;
    EXPECT_EQ(zeb_bb_block2body(block, &length), nullptr);
    EXPECT_EQ(length, 77);
    a->length = b->length = 0;
}

TEST_F(Encoding, WithoutMemoryThereAreNoBytesAndTheLengthIsUntouched)
{
    zeb_bb_addsegment(block, "s");
    unit::sweep([&](unit::refusal &refuse) {
        refuse.begin();
        int32_t length = 77;
        void *bytes = zeb_bb_block2body(block, &length);
        refuse.end();
        EXPECT_EQ(bytes == nullptr, refuse.happened());
        EXPECT_EQ(length, refuse.happened() ? 77 : 18);
        free(bytes);
    });
}

/* ---- Decoding ---- */

TEST(Decoding, WithoutTheWholeSignatureThereIsNoBlock)
{
    EXPECT_EQ(zeb_bb_body2block(nullptr, 12), nullptr);
    for (size_t length = 0; length < SIGNATURE.size(); length++)
        EXPECT_EQ(decoded(SIGNATURE.substr(0, length)), "<null>");
    EXPECT_EQ(zeb_bb_body2block(SIGNATURE.data(), -1), nullptr);
    for (size_t at = 0; at < SIGNATURE.size(); at++) {
        std::string wrong(SIGNATURE);
        wrong[at] = static_cast<char>(wrong[at] ^ 1);
        EXPECT_EQ(decoded(wrong), "<null>");
    }
}

TEST(Decoding, AFirstRecordThatIsNoSegmentGivesAnEmptyBlock)
{
    EXPECT_EQ(decoded(body(unit::bytes("\x02\x00\x01k\x00\x00\x01v\x00"))), "");
    EXPECT_EQ(decoded(body(unit::bytes("\x03\x00\x02s\x00\x00"))), "");
    EXPECT_EQ(decoded(body(unit::bytes("\x04\x00\x02s\x00\x00"))), "");
}

TEST(Decoding, AFirstSegmentBelowTheTopGivesAnEmptyBlock)
{
    EXPECT_EQ(decoded(body(unit::bytes("\x01\x00\x02s\x00\x01"))), "");
}

TEST(Decoding, OneToThreeStrayBytesAreIgnored)
{
    for (const std::string_view stray :
         {unit::bytes("\x01"), unit::bytes("\x01\x00"), unit::bytes("\x02\x00\x01")})
        EXPECT_EQ(decoded(body(unit::bytes("\x01\x00\x02s\x00\x00")) + std::string(stray)), "(1:s )");
}

TEST(Decoding, ATagOfFourEndsIt)
{
    EXPECT_EQ(decoded(body(unit::bytes("\x01\x00\x02s\x00\x00"
                                       "\x04\x00\x02t\x00\x00"))),
              "(1:s )");
}

TEST(Decoding, AnyOtherTagIntroducesASegment)
{
    for (const char tag : {'\x01', '\x00', '\x03', '\x05', 'x', '\xff'}) {
        std::string bytes = body(unit::bytes("\x01\x00\x02s\x00\x00"
                                             "\x01\x00\x02t\x00\x00"));
        bytes[18] = tag;
        EXPECT_EQ(decoded(bytes), "(1:s )(1:t )");
    }
}

TEST(Decoding, AJumpOfTwoLevelsEndsItAndKeepsWhatCameBefore)
{
    EXPECT_EQ(decoded(body(unit::bytes("\x01\x00\x02s\x00\x00"
                                       "\x02\x00\x01k\x00\x00\x01v\x00"
                                       "\x01\x00\x02t\x00\x02"
                                       "\x01\x00\x02u\x00\x00"))),
              "(1:s 1:k=1:v )");
}

TEST(Decoding, LevelsLeadDownAndBackUp)
{
    EXPECT_EQ(decoded(body(unit::bytes("\x01\x00\x02"
                                       "a\x00\x00"
                                       "\x01\x00\x02"
                                       "b\x00\x01"
                                       "\x01\x00\x02"
                                       "c\x00\x02"
                                       "\x01\x00\x02"
                                       "d\x00\x02"
                                       "\x01\x00\x02"
                                       "e\x00\x01"
                                       "\x01\x00\x02"
                                       "f\x00\x02"
                                       "\x01\x00\x02"
                                       "g\x00\x00"
                                       "\x01\x00\x02"
                                       "h\x00\x01"))),
              "(1:a (1:b (1:c )(1:d ))(1:e (1:f )))(1:g (1:h ))");
}

TEST(Decoding, SiblingsOfEqualNameStayAndTheFirstIsFound)
{
    zeb_bb *block = decode(body(unit::bytes("\x01\x00\x02s\x00\x00"
                                            "\x02\x00\x01k\x00\x00\x01"
                                            "1\x00"
                                            "\x01\x00\x02s\x00\x00"
                                            "\x02\x00\x01k\x00\x00\x01"
                                            "2\x00")));
    EXPECT_EQ(show(zeb_bb_getsegments(block)), "(1:s 1:k=1:1 )(1:s 1:k=1:2 )");
    EXPECT_STREQ(zeb_bb_seg_getelement(zeb_bb_getsegment(block, "s"), "k", nullptr), "1");
    zeb_bb_destroy(block);
}

TEST(Decoding, ALaterElementOfANameReplacesTheEarlier)
{
    EXPECT_EQ(decoded(body(unit::bytes("\x01\x00\x02s\x00\x00"
                                       "\x02\x00\x01k\x00\x00\x01"
                                       "1\x00"
                                       "\x02\x00\x01m\x00\x00\x01"
                                       "x\x00"
                                       "\x02\x00\x01k\x00\x00\x01"
                                       "2\x00"))),
              "(1:s 1:m=1:x 1:k=1:2 )");
}

/* Decoded nodes share memory, added ones do not: either may take the place of the other. */
TEST(Decoding, ADecodedBlockIsChangedLikeAnyOther)
{
    std::string bytes = body(unit::bytes("\x01\x00\x02s\x00\x00"));
    for (char name = 'a'; name <= 'z'; name++)
        for (const char value : {'1', '2'})
            bytes += std::string(unit::bytes("\x02\x00\x01")) + name +
                     std::string(unit::bytes("\x00\x00\x01")) + value + '\0';
    zeb_bb *block = decode(bytes);
    zeb_bb_seg *s = zeb_bb_getsegment(block, "s");
    for (const char *name : {"a", "m", "z", "m", "m"}) {
        const std::string longer = std::string(zeb_bb_seg_getelement(s, name, nullptr)) + "+";
        zeb_bb_seg_addelement(s, name, longer.c_str());
    }
    const char *inside = zeb_bb_seg_getelement(s, "b", nullptr);
    zeb_bb_seg_addelement(s, "b", inside);
    zeb_bb_seg_addelement(zeb_bb_seg_addsegment(s, "t"), "x", "y");
    std::string expected = "Seg:s\n";
    for (char name = 'c'; name <= 'y'; name++)
        expected += name != 'm' ? std::string("  ") + name + "=2\n" : "";
    expected += "  a=2+\n  z=2+\n  m=2+++\n  b=2\n  Seg:t\n    x=y\n";
    EXPECT_EQ(unit::text(zeb_bb_toString(block)).get(), expected);
    EXPECT_EQ(s->elements.count, 26U);
    zeb_bb_destroy(block);
}

TEST(Decoding, ANameWithoutANulEndsWithItsRun)
{
    EXPECT_EQ(decoded(body(unit::bytes("\x01\x00\x02st\x00"
                                       "\x02\x00\x01kl\x00\x01v\x00"))),
              "(2:st 2:kl=1:v )");
}

TEST(Decoding, ANameEndsAtItsFirstNul)
{
    EXPECT_EQ(decoded(body(unit::bytes("\x01\x00\x05s\x00xy\x00\x00"
                                       "\x02\x00\x03k\x00l\x00\x00\x01v\x00"))),
              "(1:s 1:k=1:v )");
}

TEST(Decoding, ASegmentRecordWithoutANameFieldHasItsLevelAlone)
{
    EXPECT_EQ(decoded(body(unit::bytes("\x01\x00\x00\x00"
                                       "\x01\x00\x00\x01"))),
              "(0: (0: ))");
}

TEST(Decoding, ATruncatedElementFieldDropsThatElementAndGoesOn)
{
    /* The value announces nine bytes and is not consumed: its bytes are read as what follows. */
    EXPECT_EQ(decoded(body(unit::bytes("\x01\x00\x02s\x00\x00"
                                       "\x02\x00\x01k\x00\x00\x09"
                                       "\x01\x00\x02t\x00\x00"))),
              "(1:s )(1:t )");
}

TEST(Decoding, ALengthFieldThatDoesNotFitEndsIt)
{
    EXPECT_EQ(decoded(body(unit::bytes("\x01\x00\x02s\x00\x00"
                                       "\x02\x00\x01k\x00\x00"))),
              "(1:s )");
}

TEST(Decoding, ASegmentLengthOf65535EndsIt)
{
    std::string bytes = body(unit::bytes("\x01\x00\x02s\x00\x00"
                                         "\x01\xff\xff"));
    bytes += std::string(65536, 't');
    EXPECT_EQ(decoded(bytes), "(1:s )");
}

TEST(Decoding, AValueLengthOf65535IsTheTextUpToItsNulAndConsumesNothing)
{
    EXPECT_EQ(decoded(body(unit::bytes("\x01\x00\x02s\x00\x00"
                                       "\x02\x00\x01k\x00\xff\xff"
                                       "\x01\x01\x02\x00"))),
              "(1:s 1:k=3:\x01\x01\x02 )");
    EXPECT_EQ(decoded(body(unit::bytes("\x01\x00\x02s\x00\x00"
                                       "\x02\x00\x01k\x00\xff\xff"
                                       "no end"))),
              "(1:s )")
        << "without a NUL in what is left the value is absent";
}

/* Values that end at a NUL far behind would each copy the rest of the body. */
TEST(Decoding, ManyValuesOfLength65535CopyNoMoreThanTheBodyHas)
{
    std::string bytes = body(unit::bytes("\x01\x00\x02s\x00\x00"));
    for (int i = 0; i < 2000; i++) {
        std::string name = std::to_string(100000 + i);
        name.resize(258, 'n');
        bytes += std::string(unit::bytes("\x02\x01\x01")) + name + "\xff\xff";
    }
    bytes += '\0';
    zeb_bb *block = decode(bytes);
    size_t copied = 0;
    for (const zeb_bb_elem *e = zeb_bb_getsegment(block, "s")->elements.first; e != nullptr; e = e->next)
        copied += static_cast<size_t>(e->length);
    EXPECT_GT(copied, bytes.size() / 2);
    EXPECT_LT(copied, bytes.size());
    EXPECT_EQ(show(zeb_bb_getsegments(block)), slowly_decoded(bytes));
    zeb_bb_destroy(block);
}

TEST(Decoding, ANameLengthOf65535IsTheTextUpToItsNulAndConsumesNothing)
{
    /* The two bytes of the name are the value's length as well. */
    const std::string bytes = body(unit::bytes("\x01\x00\x02s\x00\x00"
                                               "\x02\xff\xff"
                                               "\x01\x00")) +
                              std::string(256, 'v') + std::string(1, '\0');
    EXPECT_EQ(decoded(bytes), slowly_decoded(bytes));
    EXPECT_NE(decoded(bytes).find("1:\x01=256:vvv"), std::string::npos);
}

TEST(Decoding, LengthsAroundThe16BitLimitGoAsTheFormatSays)
{
    for (const size_t length : {65532U, 65533U, 65534U, 65535U, 65536U, 65537U}) {
        const std::string longtext(length, 'x');
        for (int what = 0; what < 3; what++) {
            zeb_bb *block = zeb_bb_create();
            zeb_bb_seg *s = zeb_bb_addsegment(block, what == 0 ? longtext.c_str() : "s");
            zeb_bb_seg_addelement(s, what == 1 ? longtext.c_str() : "k", what == 2 ? longtext.c_str() : "v");
            zeb_bb_addsegment(block, "after");
            const std::string bytes = encoded(block);
            EXPECT_EQ(bytes.size(), 12 + (what == 0 ? length : 1) + 5 + (what == 1 ? length : 1) +
                                        (what == 2 ? length : 1) + 7 + 10);
            EXPECT_EQ(decoded(bytes), slowly_decoded(bytes));
            const size_t faithful = what == 0 ? 65533 : 65534;
            EXPECT_EQ(decoded(bytes) == show(zeb_bb_getsegments(block)), length <= faithful)
                << length << " bytes of " << what;
            zeb_bb_destroy(block);
        }
    }
}

/* ---- Depth ---- */

std::string chain(int levels)
{
    zeb_bb *block = zeb_bb_create();
    zeb_bb_seg *at = zeb_bb_addsegment(block, "s");
    for (int i = 1; i < levels; i++)
        at = zeb_bb_seg_addsegment(at, "s");
    std::string bytes = encoded(block);
    zeb_bb_destroy(block);
    return bytes;
}

TEST(DecodingDepth, TwoHundredFiftySixLevelsSurviveTheJourney)
{
    const std::string bytes = chain(256);
    std::string expected;
    for (int i = 0; i < 256; i++)
        expected += "(1:s ";
    EXPECT_EQ(decoded(bytes), expected + std::string(256, ')'));
}

TEST(DecodingDepth, TheLevelWrapsAt256AndBeginsAtTheTopAgain)
{
    const std::string bytes = chain(257);
    EXPECT_EQ(bytes.back(), '\0');
    EXPECT_EQ(bytes[bytes.size() - 7], '\xff');
    EXPECT_EQ(decoded(bytes), decoded(chain(256)) + "(1:s )");
}

void *decodeDeeply(void *ok)
{
    const std::string bytes = chain(256);
    zeb_bb *block = decode(bytes);
    *static_cast<bool *>(ok) = block != nullptr && encoded(block) == bytes;
    zeb_bb_destroy(block);
    return nullptr;
}

TEST(DecodingDepth, DecodingNeedsNoStackPerLevel)
{
    bool ok = false;
    pthread_attr_t attr;
    pthread_attr_init(&attr);
    ASSERT_EQ(pthread_attr_setstacksize(&attr, unit::OWN_STACKS ? 32768 : 128 * 1024), 0);
    pthread_t thread;
    ASSERT_EQ(pthread_create(&thread, &attr, decodeDeeply, &ok), 0);
    pthread_join(thread, nullptr);
    pthread_attr_destroy(&attr);
    EXPECT_TRUE(ok);
}

/* ---- Against the slow decoder ---- */

/* A tree with everything: elements of all sorts, three levels, equal names on different levels. */
std::string sample()
{
    zeb_bb *block = zeb_bb_create();
    zeb_bb_seg *a = zeb_bb_addsegment(block, "a");
    zeb_bb_seg_addelement(a, "k", "v1");
    zeb_bb_seg_addelement_b(a, "b", "\x00\x01\x02", 3);
    zeb_bb_seg *inner = zeb_bb_seg_addsegment(a, "a");
    zeb_bb_seg_addelement(inner, "", "x");
    zeb_bb_seg_addelement(zeb_bb_seg_addsegment(inner, "c"), "k", "");
    zeb_bb_seg_addsegment(a, "d");
    zeb_bb_seg_addelement(zeb_bb_addsegment(block, "e"), "k", "v2");
    std::string bytes = encoded(block);
    zeb_bb_destroy(block);
    return bytes;
}

TEST(DecodingReference, EveryPrefixDecodesAsTheFormatSays)
{
    const std::string bytes = sample();
    for (size_t length = 0; length <= bytes.size(); length++) {
        const std::string_view prefix = std::string_view(bytes).substr(0, length);
        ASSERT_EQ(decoded(prefix), slowly_decoded(prefix)) << "the first " << length;
    }
}

TEST(DecodingReference, EveryChangeOfOneByteDecodesAsTheFormatSays)
{
    const std::string bytes = sample();
    for (size_t at = 0; at < bytes.size(); at++)
        for (int to = 0; to < 256; to++) {
            std::string changed = bytes;
            changed[at] = static_cast<char>(to);
            ASSERT_EQ(decoded(changed), slowly_decoded(changed)) << "byte " << at << " as " << to;
        }
}

TEST(DecodingReference, EveryByteLeftOutOrDoubledDecodesAsTheFormatSays)
{
    const std::string bytes = sample();
    for (size_t at = 0; at < bytes.size(); at++) {
        std::string changed = bytes;
        changed.erase(at, 1);
        ASSERT_EQ(decoded(changed), slowly_decoded(changed)) << "without byte " << at;
        changed = bytes;
        changed.insert(at, 1, bytes[at]);
        ASSERT_EQ(decoded(changed), slowly_decoded(changed)) << "byte " << at << " twice";
    }
}

/* Records whose tags, lengths and levels are mostly sensible, with some that are not. */
std::string randomRecords(std::mt19937 &random)
{
    std::string records;
    const auto field = [&](size_t length) {
        const size_t lie = random() % 12;
        const size_t told = lie == 0 ? random() % 40 : lie == 1 ? 65535 : lie == 2 ? 0 : length;
        records += static_cast<char>(told >> 8);
        records += static_cast<char>(told);
    };
    const auto text = [&](size_t length) {
        for (size_t i = 0; i < length; i++)
            records += "ab\0\x01\x02\x04"[random() % (random() % 4 == 0 ? 6 : 2)];
    };
    int level = 0;
    for (size_t count = random() % 12; count > 0; count--) {
        const size_t length = random() % 4;
        if (random() % 2 == 0 || records.empty()) {
            records += random() % 10 == 0 ? static_cast<char>(random() % 6) : '\x01';
            field(length + 1);
            text(length);
            records += random() % 8 == 0 ? "" : std::string(1, '\0');
            level = records.size() < 8 ? 0 : static_cast<int>(random() % (static_cast<size_t>(level) + 2));
            records += static_cast<char>(random() % 20 == 0 ? level + 1 : level);
        } else {
            records += '\x02';
            field(length);
            text(length);
            records += '\0';
            const size_t valuelength = random() % 4;
            field(valuelength);
            text(valuelength);
            records += random() % 8 == 0 ? "" : std::string(1, '\0');
        }
    }
    records.resize(records.size() - (random() % 6 == 0 && !records.empty() ? random() % records.size() : 0));
    return records;
}

struct DecodingRandom : testing::TestWithParam<unsigned> {
};

TEST_P(DecodingRandom, RandomRecordsDecodeAsTheFormatSaysAndEncodeAgain)
{
    std::mt19937 random(GetParam());
    for (int round = 0; round < 25000; round++) {
        const std::string bytes = body(randomRecords(random));
        const std::string found = decoded(bytes);
        ASSERT_EQ(found, slowly_decoded(bytes));
        zeb_bb *block = decode(bytes);
        const std::string again = encoded(block);
        zeb_bb_destroy(block);
        ASSERT_EQ(decoded(again), found) << "what was read is written so that it reads the same";
    }
}

INSTANTIATE_TEST_SUITE_P(Seeds, DecodingRandom, testing::Range(1U, 9U));

TEST(DecodingReference, RandomBytesDecodeAsTheFormatSays)
{
    std::mt19937 random(31);
    static constexpr char alphabet[] = {0, 0, 0, 1, 1, 2, 2, 3, 4, 'a', static_cast<char>(255)};
    for (int round = 0; round < 200000; round++) {
        std::string bytes = body("\x01");
        for (size_t length = random() % 30; length > 0; length--)
            bytes += alphabet[random() % sizeof(alphabet)];
        ASSERT_EQ(decoded(bytes), slowly_decoded(bytes));
    }
}

/* Random trees through the operations that build them. */
TEST(DecodingReference, RandomTreesComeBackAsTheyWere)
{
    std::mt19937 random(5);
    for (int round = 0; round < 300; round++) {
        zeb_bb *block = zeb_bb_create();
        std::vector<zeb_bb_seg *> all = {zeb_bb_addsegment(block, "root")};
        for (size_t step = random() % 80; step > 0; step--) {
            zeb_bb_seg *at = all[random() % all.size()];
            const std::string name = std::to_string(random() % 60);
            switch (random() % 3) {
            case 0:
                all.push_back(zeb_bb_seg_addsegment(at, name.c_str()));
                break;
            case 1:
                all.push_back(zeb_bb_addsegment(block, name.c_str()));
                break;
            default: {
                const std::string value(random() % 20, static_cast<char>(random()));
                zeb_bb_seg_addelement_b(at, name.c_str(), value.data(), static_cast<int32_t>(value.size()));
                break;
            }
            }
        }
        const std::string bytes = encoded(block);
        ASSERT_EQ(decoded(bytes), show(zeb_bb_getsegments(block)));
        ASSERT_EQ(slowly_decoded(bytes), show(zeb_bb_getsegments(block)));
        zeb_bb_destroy(block);
    }
}

/* ---- Memory ---- */

TEST(DecodingMemory, WithoutMemoryForTheBlockThereIsNoneElseWhatCameBeforeStays)
{
    const std::string bytes = sample();
    const std::string whole = decoded(bytes);
    unit::sweep([&](unit::refusal &refuse) {
        refuse.begin();
        zeb_bb *block = zeb_bb_body2block(bytes.data(), static_cast<int32_t>(bytes.size()));
        refuse.end();
        EXPECT_EQ(block == nullptr, refuse.happened() && refuse.number() == 1);
        if (block != nullptr) {
            EXPECT_EQ(show(zeb_bb_getsegments(block)) == whole, !refuse.happened());
        }
        zeb_bb_destroy(block);
    });
}

/* ---- Speed ---- */

#ifdef ZEB_SPEED_GUARDS
/* All names have one length and one hash, so that only the bytes tell them apart: each pair of characters
 * that is swapped in leaves the hash as it was. */
std::string collidingName(unsigned number)
{
    std::string name;
    for (int bit = 0; bit < 18; bit++, number >>= 1)
        name += (number & 1) != 0 ? "cc" : "ab";
    return name;
}

TEST(DecodingSpeed, A160000ElementNamesTakeLessThanHalfASecond)
{
    for (const bool colliding : {false, true}) {
        std::string bytes = body(unit::bytes("\x01\x00\x02s\x00\x00"));
        for (unsigned i = 0; i < 160000; i++) {
            const std::string name = colliding ? collidingName(i) : std::to_string(100000 + i);
            bytes += unit::bytes("\x02\x00");
            bytes += static_cast<char>(name.size());
            bytes += name + std::string(unit::bytes("\x00\x00\x01v\x00"));
        }
        const double start = unit::processorSeconds();
        zeb_bb *block = zeb_bb_body2block(bytes.data(), static_cast<int32_t>(bytes.size()));
        EXPECT_LT(unit::processorSeconds() - start, 0.5);
        EXPECT_EQ(zeb_bb_getsegment(block, "s")->elements.count, 160000U);
        zeb_bb_destroy(block);
    }
}
#endif

} // namespace
