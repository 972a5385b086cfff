/* Memory, strings, numbers and the growing strings. */
#include "ezebutil.h"

#include "unit.h"

#include <algorithm>
#include <atomic>
#include <climits>
#include <cstdarg>
#include <cstring>
#include <random>
#include <thread>
#include <utility>
#include <vector>

namespace
{

uint32_t capacityOf(const char *text)
{
    const size_t place = (strlen(text) + 8) / 8 * 8;
    uint32_t capacity;
    memcpy(&capacity, text + place, sizeof(capacity));
    return capacity;
}

std::string decimal(int64_t v)
{
    char text[EZEB_INT_TEXT];
    char *end = ezeb_int2str(text, v);
    EXPECT_EQ(end, text + strlen(text));
    return text;
}

/* ---- Memory ---- */

TEST(Util, FreeOfNullDoesNothing)
{
    ezeb_free(nullptr);
}

TEST(Util, TheAllocatorsGiveNullWhenRefused)
{
    unit::refusal refuse(1, true);
    refuse.begin();
    EXPECT_EQ(ezeb_malloc(8), nullptr);
    EXPECT_EQ(ezeb_zalloc(8), nullptr);
    EXPECT_EQ(ezeb_realloc(nullptr, 8), nullptr);
    EXPECT_EQ(ezeb_strdup("x"), nullptr);
    EXPECT_EQ(ezeb_strdup_ornull("x"), nullptr);
    EXPECT_EQ(ezeb_memdup("x", 1), nullptr);
}

TEST(Util, ARefusedReallocKeepsTheBlock)
{
    char *block = ezeb_strdup("kept");
    unit::refusal refuse(1);
    refuse.begin();
    EXPECT_EQ(ezeb_realloc(block, 100), nullptr);
    refuse.end();
    EXPECT_STREQ(block, "kept");
    char *grown = static_cast<char *>(ezeb_realloc(block, 100));
    EXPECT_STREQ(grown, "kept");
    ezeb_free(grown);
}

TEST(Util, ZallocZeroes)
{
    const unit::text block(static_cast<char *>(ezeb_zalloc(64)));
    EXPECT_EQ(std::string(block.get(), 64), std::string(64, '\0'));
}

TEST(Util, DuplicatesAreCopiesAndNullStaysNull)
{
    const char original[] = "text";
    const unit::text copy(ezeb_strdup(original));
    EXPECT_STREQ(copy.get(), "text");
    EXPECT_NE(copy.get(), original);
    EXPECT_EQ(ezeb_strdup_ornull(nullptr), nullptr);
    const unit::text other(ezeb_strdup_ornull(""));
    EXPECT_STREQ(other.get(), "");
}

TEST(Util, ACopyOfNoBytesIsStillABlock)
{
    const unit::text copy(static_cast<char *>(ezeb_memdup(nullptr, 0)));
    EXPECT_NE(copy.get(), nullptr);
}

/* ---- Numbers ---- */

TEST(Util, Str2intStoresThePrefixAndFailsOnARest)
{
    int32_t out = -7;
    EXPECT_EQ(ezeb_str2int("12abc", &out), 0);
    EXPECT_EQ(out, 12);
}

TEST(Util, Str2intOfNothingIsZeroAndFails)
{
    int32_t out = -7;
    EXPECT_EQ(ezeb_str2int("", &out), 0);
    EXPECT_EQ(out, 0);
    out = -7;
    EXPECT_EQ(ezeb_str2int(nullptr, &out), 0);
    EXPECT_EQ(out, 0);
}

TEST(Util, Str2intKnowsHexadecimalAndOctal)
{
    int32_t out = 0;
    EXPECT_EQ(ezeb_str2int("0x1f", &out), 1);
    EXPECT_EQ(out, 31);
    EXPECT_EQ(ezeb_str2int("017", &out), 1);
    EXPECT_EQ(out, 15);
    EXPECT_EQ(ezeb_str2int("-12", &out), 1);
    EXPECT_EQ(out, -12);
    EXPECT_EQ(ezeb_str2int("x", &out), 0);
    EXPECT_EQ(out, 0);
}

TEST(Util, Str2intCutsTo32Bits)
{
    int32_t out = 0;
    EXPECT_EQ(ezeb_str2int("4294967301", &out), 1);
    EXPECT_EQ(out, 5);
    EXPECT_EQ(ezeb_str2int("2147483648", &out), 1);
    EXPECT_EQ(out, INT32_MIN);
    EXPECT_EQ(ezeb_str2int("99999999999999999999999", &out), 1); /* the converter stops at 2^63 - 1 */
    EXPECT_EQ(out, -1);
}

TEST(Util, DecimalNumbersHaveNoOtherBase)
{
    EXPECT_EQ(ezeb_decimal("017"), 17);
    EXPECT_EQ(ezeb_decimal("0x1f"), 0);
    EXPECT_EQ(ezeb_decimal("-5 and more"), -5);
    EXPECT_EQ(ezeb_decimal(""), 0);
    EXPECT_EQ(ezeb_decimal("4294967297"), 1);
}

TEST(Util, TheLenientScanFindsTheFirstRunOfDigits)
{
    EXPECT_EQ(ezeb_str2ll("abc-12x"), -12);
    EXPECT_EQ(ezeb_str2ll("a-b12"), 12);
    EXPECT_EQ(ezeb_str2ll("--5"), -5);
    EXPECT_EQ(ezeb_str2ll("12-3"), 12);
    EXPECT_EQ(ezeb_str2ll("- 7"), 7);
    EXPECT_EQ(ezeb_str2ll("-"), 0);
    EXPECT_EQ(ezeb_str2ll("no digits-"), 0);
    EXPECT_EQ(ezeb_str2ll(""), 0);
    EXPECT_EQ(ezeb_str2ll(nullptr), 0);
    EXPECT_EQ(ezeb_str2ll("0x1f"), 0);
    EXPECT_EQ(ezeb_str2ll("1416556063000"), 1416556063000);
}

TEST(Util, TheLenientScanWrapsAt64Bits)
{
    EXPECT_EQ(ezeb_str2ll("9223372036854775807"), INT64_MAX);
    EXPECT_EQ(ezeb_str2ll("9223372036854775808"), INT64_MIN);
    EXPECT_EQ(ezeb_str2ll("-9223372036854775808"), INT64_MIN);
    EXPECT_EQ(ezeb_str2ll("18446744073709551617"), 1);
    EXPECT_EQ(ezeb_str2ll("-18446744073709551617"), -1);
}

/* A slow reading of the same rules, one character at a time. */
int64_t referenceScan(const std::string &s)
{
    size_t i = 0;
    bool negative = false;
    for (;; i++) {
        if (i == s.size())
            return 0;
        if (s[i] >= '0' && s[i] <= '9')
            break;
        if (s[i] == '-' && i + 1 < s.size() && s[i + 1] >= '0' && s[i + 1] <= '9') {
            negative = true;
            i++;
            break;
        }
    }
    uint64_t value = 0;
    for (; i < s.size() && s[i] >= '0' && s[i] <= '9'; i++)
        value = value * 10 + static_cast<uint64_t>(s[i] - '0');
    return static_cast<int64_t>(negative ? 0 - value : value);
}

TEST(Util, TheLenientScanAgreesWithASlowOneOnRandomTexts)
{
    std::mt19937 random(20141);
    static constexpr char alphabet[] = "0123456789--- ax";
    for (int round = 0; round < 200000; round++) {
        std::string s;
        for (size_t length = random() % 26; s.size() < length;)
            s += alphabet[random() % (sizeof(alphabet) - 1)];
        ASSERT_EQ(ezeb_str2ll(s.c_str()), referenceScan(s)) << '"' << s << '"';
    }
}

TEST(Util, Int2strWritesDecimalAndReturnsTheEnd)
{
    EXPECT_EQ(decimal(0), "0");
    EXPECT_EQ(decimal(7), "7");
    EXPECT_EQ(decimal(-7), "-7");
    EXPECT_EQ(decimal(INT64_MAX), "9223372036854775807");
    EXPECT_EQ(decimal(INT64_MIN + 1), "-9223372036854775807");
    EXPECT_EQ(decimal(1234567890123), "1234567890123");
}

TEST(Util, TheMostNegativeNumberIsAMinusAndOneWrongCharacter)
{
    EXPECT_EQ(decimal(INT64_MIN), "-(");
}

TEST(Util, AddstrReturnsTheEndSoThatAppendsChain)
{
    char text[16];
    char *end = ezeb_addstr(ezeb_addstr(ezeb_addstr(text, "ab"), ""), "cd");
    EXPECT_STREQ(text, "abcd");
    EXPECT_EQ(end, text + 4);
}

/* ---- Growing formatted string ---- */

TEST(Util, DsprintfWithoutAPlaceForTheStringIsMinusOne)
{
    EXPECT_EQ(ezeb_dsprintf(nullptr, "x"), -1);
}

TEST(Util, DsprintfOf1500CharactersOnNullLeavesACapacityOf2048)
{
    char *text = nullptr;
    EXPECT_EQ(ezeb_dsprintf(&text, "%1500s", "x"), 1500);
    EXPECT_EQ(strlen(text), 1500U);
    EXPECT_EQ(capacityOf(text), 2048U);
    ezeb_free(text);
}

TEST(Util, DsprintfFits1023CharactersAndGrowsFor1024)
{
    char *text = nullptr;
    EXPECT_EQ(ezeb_dsprintf(&text, "%1023s", "x"), 1023);
    EXPECT_EQ(capacityOf(text), 1024U);
    ezeb_free(text);
    text = nullptr;
    EXPECT_EQ(ezeb_dsprintf(&text, "%1024s", "x"), 1024);
    EXPECT_EQ(capacityOf(text), 2048U);
    ezeb_free(text);
}

/* The smallest multiple of 1024 that leaves two bytes behind the text. */
TEST(Util, DsprintfGrowsToTheNextMultipleOf1024WithTwoBytesToSpare)
{
    for (const auto &[length, capacity] : {std::pair<int, uint32_t>{1024, 2048},
                                           {2046, 2048},
                                           {2047, 3072},
                                           {2048, 3072},
                                           {3070, 3072},
                                           {3071, 4096}}) {
        char *text = nullptr;
        EXPECT_EQ(ezeb_dsprintf(&text, "%*s", length, "x"), length);
        EXPECT_EQ(capacityOf(text), capacity) << length;
        ezeb_free(text);
    }
}

TEST(Util, DsprintfAppendsAcrossEveryBoundaryOfItsCapacity)
{
    for (int first = 1000; first <= 1040; first++)
        for (int second = 0; second <= 24; second++) {
            char *text = nullptr;
            ASSERT_EQ(ezeb_dsprintf(&text, "%*s", first, "a"), first);
            ASSERT_EQ(ezeb_dsprintf(&text, "%.*s", second, "bbbbbbbbbbbbbbbbbbbbbbbb"), first + second);
            std::string expected(static_cast<size_t>(first), ' ');
            expected.back() = 'a';
            expected.append(static_cast<size_t>(second), 'b');
            ASSERT_EQ(text, expected);
            ASSERT_EQ(capacityOf(text), first + second < 1024 ? 1024U : 2048U);
            ezeb_free(text);
        }
}

TEST(Util, DsprintfAgreesWithPlainConcatenationOnRandomAppends)
{
    std::mt19937 random(77);
    char *text = nullptr;
    std::string expected;
    for (int i = 0; i < 2000; i++) {
        const auto width = static_cast<int>(random() % 40);
        const auto number = static_cast<int>(random());
        std::string piece(64, '\0');
        piece.resize(static_cast<size_t>(snprintf(piece.data(), piece.size(), "<%*d>", width, number)));
        expected += piece;
        ASSERT_EQ(ezeb_dsprintf(&text, "<%*d>", width, number), static_cast<int32_t>(expected.size()));
        ASSERT_EQ(strlen(text), expected.size());
        ASSERT_GT(capacityOf(text), expected.size());
        ASSERT_EQ(capacityOf(text) % 1024, 0U);
    }
    EXPECT_EQ(text, expected);
    ezeb_free(text);
}

TEST(Util, DsprintfWithoutMemoryLeavesTheStringAsItWas)
{
    unit::sweep([](unit::refusal &refuse) {
        char *text = nullptr;
        refuse.begin();
        const int32_t length = ezeb_dsprintf(&text, "%3000s", "x");
        refuse.end();
        EXPECT_EQ(length, refuse.happened() ? -1 : 3000);
        EXPECT_EQ(text == nullptr, refuse.happened());
        ezeb_free(text);
    });
    unit::sweep([](unit::refusal &refuse) {
        char *text = nullptr;
        ASSERT_EQ(ezeb_dsprintf(&text, "%1000s", "kept"), 1000);
        refuse.begin();
        const int32_t length = ezeb_dsprintf(&text, "%100s", "more");
        refuse.end();
        EXPECT_EQ(length, refuse.happened() ? -1 : 1100);
        if (refuse.happened()) {
            EXPECT_EQ(strlen(text), 1000U);
            EXPECT_EQ(capacityOf(text), 1024U);
            EXPECT_EQ(ezeb_dsprintf(&text, "%s", "!"), 1001); /* still usable */
            EXPECT_STREQ(text + 996, "kept!");
        }
        ezeb_free(text);
    });
}

/* An invalid wide character makes the formatter fail. */
TEST(Util, DsprintfThatCannotFormatIsMinusOneAndLeavesTheString)
{
    char *text = nullptr;
    const wchar_t invalid[] = {static_cast<wchar_t>(0x7fffffff), 0};
    EXPECT_EQ(ezeb_dsprintf(&text, "%ls", invalid), -1);
    EXPECT_EQ(text, nullptr);
    ASSERT_EQ(ezeb_dsprintf(&text, "kept"), 4);
    EXPECT_EQ(ezeb_dsprintf(&text, "%ls", invalid), -1);
    EXPECT_STREQ(text, "kept");
    EXPECT_EQ(ezeb_dsprintf(&text, "!"), 5);
    EXPECT_STREQ(text, "kept!");
    ezeb_free(text);
}

TEST(Util, DsprintfRefusesToReachTwoGigabytes)
{
    char *text = nullptr;
    ASSERT_EQ(ezeb_dsprintf(&text, "abc"), 3);
    EXPECT_EQ(ezeb_dsprintf(&text, "%*s", INT_MAX - 10, ""), -1);
    EXPECT_STREQ(text, "abc");
    EXPECT_EQ(capacityOf(text), 1024U);
    ezeb_free(text);
}

TEST(Util, ADiagnosticGoesToStandardErrorAsFormatted)
{
    testing::internal::CaptureStderr();
    ezeb_diag("a %d %s\n", 5, std::string(3000, 'x').c_str());
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "a 5 " + std::string(3000, 'x') + "\n");
}

TEST(Util, ADiagnosticWithoutMemoryOrAListenerIsDropped)
{
    testing::internal::CaptureStderr();
    {
        unit::refusal refuse(1);
        refuse.begin();
        ezeb_diag("lost\n");
    }
    const int kept = dup(STDERR_FILENO);
    close(STDERR_FILENO);
    ezeb_diag("lost too\n");
    dup2(kept, STDERR_FILENO);
    close(kept);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

/* ---- Text builder ---- */

TEST(Util, TheTextBuilderJoinsPiecesAndWritesAbsentOnes)
{
    ezeb_text text = {};
    ezeb_text_add(&text, "a");
    ezeb_text_add(&text, nullptr);
    ezeb_text_spaces(&text, 3);
    ezeb_text_spaces(&text, 0);
    ezeb_text_bytes(&text, "bcd", 2);
    const unit::text whole(ezeb_text_finish(&text));
    EXPECT_STREQ(whole.get(), "a(null)   bc");
    EXPECT_EQ(text.data, nullptr);
}

TEST(Util, AnEmptyTextIsNull)
{
    ezeb_text text = {};
    EXPECT_EQ(ezeb_text_finish(&text), nullptr);
}

/* One and a half times as much is more than a narrow size_t can say. */
TEST(Util, ATextThatNoMemoryHoldsIsNull)
{
    ezeb_text text = {};
    ezeb_text_spaces(&text, PTRDIFF_MAX);
    ezeb_text_add(&text, "a");
    EXPECT_EQ(ezeb_text_finish(&text), nullptr);
}

TEST(Util, ATextWithoutMemoryIsNullAndStaysSo)
{
    unit::sweep([](unit::refusal &refuse) {
        ezeb_text text = {};
        refuse.begin();
        for (int i = 0; i < 100; i++) {
            ezeb_text_add(&text, "some words");
            ezeb_text_spaces(&text, 5);
        }
        refuse.end();
        const unit::text whole(ezeb_text_finish(&text));
        EXPECT_EQ(whole == nullptr, refuse.happened());
        if (whole != nullptr) {
            EXPECT_EQ(strlen(whole.get()), 1500U);
        }
    });
}

/* ---- Block cache ---- */

/* Under the address sanitizer nothing is kept. */
constexpr int MOST_IDLE = zebtest::addressSanitizer ? 0 : EZEB_BLOCKCACHE_MOST;

TEST(Util, ABlockCacheHandsOutWhatWasGivenBackLast)
{
    ezeb_blockcache cache = {};
    void *first = ezeb_blockcache_take(&cache, 64);
    void *second = ezeb_blockcache_take(&cache, 64);
    ASSERT_NE(first, second);
    memset(first, 'a', 64);
    ezeb_blockcache_give(&cache, first);
    ezeb_blockcache_give(&cache, second);
    EXPECT_EQ(cache.idle, std::min(2, MOST_IDLE));
    if (MOST_IDLE == 0)
        GTEST_SKIP() << "nothing is kept in this build";
    EXPECT_EQ(ezeb_blockcache_take(&cache, 64), second);
    EXPECT_EQ(ezeb_blockcache_take(&cache, 64), first);
    EXPECT_EQ(cache.idle, 0);
    ezeb_free(first);
    ezeb_free(second);
}

TEST(Util, ABlockCacheKeepsSoManyBlocksAndReleasesThemWhenCleared)
{
    ezeb_blockcache cache = {};
    const int64_t before = ezeb_allocseam_blocks;
    std::vector<void *> blocks(EZEB_BLOCKCACHE_MOST + 3);
    for (void *&block : blocks)
        block = ezeb_blockcache_take(&cache, 64);
    EXPECT_EQ(ezeb_allocseam_blocks - before, EZEB_BLOCKCACHE_MOST + 3);
    for (void *block : blocks)
        ezeb_blockcache_give(&cache, block);
    EXPECT_EQ(cache.idle, MOST_IDLE);
    EXPECT_EQ(ezeb_allocseam_blocks, before) << "what is kept is nobody's";
    ezeb_blockcache_clear(&cache);
    EXPECT_EQ(cache.idle, 0);
    EXPECT_EQ(cache.first, nullptr);
}

TEST(Util, ABlockCacheThatIsInUseIsPassedBy)
{
    ezeb_blockcache cache = {};
    ezeb_blockcache_give(&cache, ezeb_blockcache_take(&cache, 64));
    void *const kept = cache.first;
    cache.busy = 1; /* as a thread leaves it that vanished in a fork */
    void *block = ezeb_blockcache_take(&cache, 64);
    ASSERT_NE(block, nullptr);
    memset(block, 'x', 64);
    EXPECT_NE(block, kept);
    ezeb_blockcache_give(&cache, block);
    ezeb_blockcache_clear(&cache);
    EXPECT_EQ(cache.first, kept);
    cache.busy = 0;
    ezeb_blockcache_clear(&cache);
    EXPECT_EQ(cache.first, nullptr);
}

/* The allocator would end the process as well; kept twice, one block would become two notifications. */
TEST(UtilDeathTest, ABlockGivenBackTwiceEndsTheProcess)
{
    if (MOST_IDLE == 0)
        GTEST_SKIP() << "nothing is kept in this build";
    ezeb_blockcache cache = {};
    void *block = ezeb_blockcache_take(&cache, 64);
    ezeb_blockcache_give(&cache, block);
    EXPECT_DEATH(ezeb_blockcache_give(&cache, block), "");
    ezeb_blockcache_clear(&cache);
}

TEST(Util, ABlockCacheRefusesAsTheAllocatorDoes)
{
    ezeb_blockcache cache = {};
    ezeb_blockcache_give(&cache, ezeb_blockcache_take(&cache, 64));
    unit::refusal refuse(1, true);
    refuse.begin();
    EXPECT_EQ(ezeb_blockcache_take(&cache, 64), nullptr);
    refuse.end();
    ezeb_blockcache_clear(&cache);
}

/* Each thread writes all of its block and finds it unchanged: nobody else has it meanwhile. */
TEST(Util, ABlockCacheServesManyThreads)
{
    ezeb_blockcache cache = {};
    std::atomic<int> bad{0};
    std::vector<std::thread> threads;
    for (int id = 0; id < 4; id++)
        threads.emplace_back([&cache, &bad, id] {
            const std::string mine(64, static_cast<char>('a' + id));
            for (int i = 0; i < 20000; i++) {
                void *block = ezeb_blockcache_take(&cache, mine.size());
                memcpy(block, mine.data(), mine.size());
                bad += memcmp(block, mine.data(), mine.size()) != 0;
                ezeb_blockcache_give(&cache, block);
            }
        });
    for (std::thread &thread : threads)
        thread.join();
    EXPECT_EQ(bad, 0);
    EXPECT_LE(cache.idle, EZEB_BLOCKCACHE_MOST + 3) << "three may have found the last place free";
    ezeb_blockcache_clear(&cache);
}

/* ---- Arena ---- */

TEST(Util, AnArenaGivesAlignedRecordsAndTerminatedStrings)
{
    alignas(void *) char room[40];
    ezeb_arena arena;
    ezeb_arena_init(&arena, room, sizeof(room));
    EXPECT_EQ(ezeb_arena_strndup(&arena, "abcdef", 3), room);
    EXPECT_STREQ(room, "abc");
    void *record = ezeb_arena_alloc(&arena, 16);
    EXPECT_EQ(record, room + std::max<size_t>(4, alignof(void *)));
    char *longer = ezeb_arena_strndup(&arena, std::string(5000, 'y').c_str(), 5000);
    EXPECT_EQ(longer, std::string(5000, 'y'));
    for (int i = 0; i < 1000; i++) {
        ASSERT_STREQ(ezeb_arena_strndup(&arena, "odd", static_cast<size_t>(i % 4)),
                     std::string("odd").substr(0, static_cast<size_t>(i % 4)).c_str());
        ASSERT_EQ(reinterpret_cast<uintptr_t>(ezeb_arena_alloc(&arena, 24)) % alignof(void *), 0U);
    }
    for (int i = 0; i < 1000; i++) {
        void *strict = ezeb_arena_alloc(&arena, 1000, alignof(max_align_t));
        ASSERT_EQ(reinterpret_cast<uintptr_t>(strict) % alignof(max_align_t), 0U);
    }
    ezeb_arena_release(&arena);
}

TEST(Util, AnArenaWhoseRoomEndsBelowTheAlignmentTakesANewBlock)
{
    alignas(void *) char room[10];
    ezeb_arena arena;
    ezeb_arena_init(&arena, room, sizeof(room));
    ASSERT_EQ(ezeb_arena_strndup(&arena, "12345678", 8), room);
    void *record = ezeb_arena_alloc(&arena, 8);
    ASSERT_NE(record, nullptr);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(record) % alignof(void *), 0U);
    memset(record, 0, 8);
    ezeb_arena_release(&arena);
}

/* A notification with many properties must not hold twice what it needs. */
TEST(Util, AnArenaGrowsInBlocksOf64KibibytesAtMost)
{
    ezeb_arena arena;
    ezeb_arena_init(&arena, nullptr, 0);
    const int64_t before = ezeb_allocseam_requests;
    for (int i = 0; i < 4096; i++)
        ASSERT_NE(ezeb_arena_alloc(&arena, 1024), nullptr);
    const int64_t requests = ezeb_allocseam_requests - before;
    EXPECT_GE(requests, 4096 * 1024 / 65536);
    EXPECT_LE(requests, 4096 * 1024 / 65536 + 8);
    ezeb_arena_release(&arena);
}

TEST(Util, AnArenaWithoutMemoryGivesNullAndKeepsWhatItHas)
{
    alignas(void *) char room[8];
    ezeb_arena arena;
    ezeb_arena_init(&arena, room, sizeof(room));
    char *kept = ezeb_arena_strndup(&arena, "kept", 4);
    unit::refusal refuse(1, true);
    refuse.begin();
    EXPECT_EQ(ezeb_arena_strndup(&arena, "too long for it", 15), nullptr);
    EXPECT_EQ(ezeb_arena_alloc(&arena, 64), nullptr);
    refuse.end();
    EXPECT_STREQ(kept, "kept");
    EXPECT_STREQ(ezeb_arena_strndup(&arena, "too long for it", 15), "too long for it");
    ezeb_arena_release(&arena);
}

} // namespace
