/* The subscription language: the corpus, and what one line of a corpus cannot say. */
#include "corpus.h"
#include "subscription.h"

#include <chrono>
#include <gtest/gtest.h>
#include <random>

using namespace zebd;

namespace
{

struct outcome {
    bool parsed = false;
    subscription sub;
    parse_error error;
};

outcome parse(const std::string &text, subject_kind kind = subject_kind::event,
              const language_limits &limits = {})
{
    outcome result;
    result.parsed = subscription_parse(text, kind, limits, result.sub, result.error);
    return result;
}

subject_kind kind_named(const std::string &name)
{
    return name == "event" ? subject_kind::event : subject_kind::address;
}

std::string error_of(const std::string &text, subject_kind kind = subject_kind::event,
                     const language_limits &limits = {})
{
    const outcome result = parse(text, kind, limits);
    if (result.parsed)
        return "parsed";
    const std::string line = parse_error_text(result.error);
    return line.substr(0, line.find(' ', line.find(' ') + 1));
}

std::string normal_of(const std::string &text, subject_kind kind = subject_kind::event)
{
    const outcome result = parse(text, kind);
    return result.parsed ? subscription_normal_text(result.sub, kind)
                         : "refused: " + parse_error_text(result.error);
}

TEST(Subscription, EveryMatchAndMismatchOfTheCorpusComesOutAsWritten)
{
    const corpus::file file = corpus::load();
    int checked = 0;
    for (const corpus::entry &entry : file.entries) {
        if (entry.columns[0] != "match" && entry.columns[0] != "no")
            continue;
        SCOPED_TRACE("line " + std::to_string(entry.line));
        const corpus::thing &thing = *file.things.at(entry.columns[1]);
        const outcome result = parse(entry.columns[2], thing.kind);
        ASSERT_TRUE(result.parsed) << entry.columns[2] << "\n" << parse_error_text(result.error);
        EXPECT_EQ(subscription_matches(result.sub, thing.what), entry.columns[0] == "match")
            << entry.columns[2];
        checked++;
    }
    EXPECT_GT(checked, 200);
}

TEST(Subscription, TheNormalFormMatchesLikeTheTextItCameFrom)
{
    const corpus::file file = corpus::load();
    for (const corpus::entry &entry : file.entries) {
        if (entry.columns[0] != "match" && entry.columns[0] != "no")
            continue;
        SCOPED_TRACE("line " + std::to_string(entry.line));
        const corpus::thing &thing = *file.things.at(entry.columns[1]);
        const std::string normal = normal_of(entry.columns[2], thing.kind);
        const outcome again = parse(normal, thing.kind);
        ASSERT_TRUE(again.parsed) << normal << "\n" << parse_error_text(again.error);
        EXPECT_EQ(subscription_matches(again.sub, thing.what), entry.columns[0] == "match") << normal;
        EXPECT_EQ(subscription_normal_text(again.sub, thing.kind), normal);
    }
}

TEST(Subscription, EveryRefusedTextOfTheCorpusHasItsCodeAndOffset)
{
    const corpus::file file = corpus::load();
    int checked = 0;
    for (const corpus::entry &entry : file.entries) {
        if (entry.columns[0] != "error")
            continue;
        SCOPED_TRACE("line " + std::to_string(entry.line));
        EXPECT_EQ(error_of(entry.columns[4], kind_named(entry.columns[1])),
                  entry.columns[2] + " " + entry.columns[3])
            << entry.columns[4];
        checked++;
    }
    EXPECT_GT(checked, 60);
}

TEST(Subscription, EveryNormalFormOfTheCorpusComesOutAsWritten)
{
    const corpus::file file = corpus::load();
    int checked = 0;
    for (const corpus::entry &entry : file.entries) {
        if (entry.columns[0] != "normal")
            continue;
        SCOPED_TRACE("line " + std::to_string(entry.line));
        EXPECT_EQ(normal_of(entry.columns[3], kind_named(entry.columns[1])), entry.columns[2])
            << entry.columns[3];
        checked++;
    }
    EXPECT_GT(checked, 20);
}

TEST(Subscription, ARefusedTextLeavesTheResultUntouched)
{
    outcome result;
    result.sub.scope = subscription::scope_t::everything;
    EXPECT_FALSE(subscription_parse("(", subject_kind::event, {}, result.sub, result.error));
    EXPECT_EQ(result.sub.scope, subscription::scope_t::everything);
}

TEST(Subscription, AnErrorIsOneLineOfCodeOffsetAndWords)
{
    EXPECT_EQ(parse_error_text(parse("(\"sev>high\")").error), "E_NUMBER 1 a comparison needs a number");
}

TEST(Subscription, BlanksAndTabsMayStandBetweenTokensOnly)
{
    const corpus::file file = corpus::load();
    const subject &disk = file.things.at("disk")->what;
    EXPECT_TRUE(subscription_matches(parse("\t( \"sev=3\"\t)\t& !\t\"zone\" ").sub, disk));
    EXPECT_FALSE(subscription_matches(parse("\"sev=\t3\"").sub, disk));
    EXPECT_EQ(parse("\t \t").sub.scope, subscription::scope_t::everything);
}

TEST(Subscription, OnlyTheExactOctetsNullMeanNothing)
{
    EXPECT_EQ(parse("null").sub.scope, subscription::scope_t::nothing);
    EXPECT_EQ(parse(" null").sub.scope, subscription::scope_t::matching);
    EXPECT_EQ(parse("NULL").sub.scope, subscription::scope_t::matching);
    EXPECT_EQ(error_of(" null", subject_kind::address), "E_START 1");
}

TEST(Subscription, LengthIsLimitedToTheOctet)
{
    const std::string longest = "\"a=" + std::string(65536 - 4, 'x') + "\"";
    EXPECT_EQ(error_of(longest), "parsed");
    EXPECT_EQ(error_of(longest + " "), "E_LIMIT 65536");
}

TEST(Subscription, NestingIsLimitedTo64)
{
    const auto nested = [](size_t depth) {
        return std::string(depth, '(') + "\"a\"" + std::string(depth, ')');
    };
    EXPECT_EQ(error_of(nested(64)), "parsed");
    EXPECT_EQ(error_of(nested(65)), "E_LIMIT 64");
    EXPECT_EQ(error_of(std::string(64, '!') + "\"a\""), "parsed");
}

TEST(Subscription, PredicatesAreLimitedTo8192)
{
    std::string text = "\"a\"";
    for (int i = 1; i < 8192; i++)
        text += "|\"a\"";
    EXPECT_EQ(error_of(text), "parsed");
    EXPECT_EQ(error_of(text + "|\"a\""), "E_LIMIT 32768");
}

TEST(Subscription, LimitsCanBeLowered)
{
    language_limits limits;
    limits.octets = 10;
    limits.nesting = 2;
    limits.predicates = 2;
    EXPECT_EQ(error_of("\"aaaaaaaa\"", subject_kind::event, limits), "parsed");
    EXPECT_EQ(error_of("\"aaaaaaaaa\"", subject_kind::event, limits), "E_LIMIT 10");
    EXPECT_EQ(error_of("(((\"a\")))", subject_kind::event, limits), "E_LIMIT 2");
    EXPECT_EQ(error_of("\"a\"|\"b\"|\"", subject_kind::event, limits), "E_LIMIT 8");
}

/* Any text at all must be answered, and one that parses must have a normal form that parses to itself. */
TEST(Subscription, RandomTextsNeverBreakTheParser)
{
    static constexpr std::string_view pieces[] = {
        "(",  ")",  "|",     "&",       "!",       "\"", "a", "@type",  "=", "~=",
        "<",  ">=", "%41",   "\"\"",    " ",       "\t", "*", "\\",     "3", "null",
        "/x", "!=", "\"a\"", "\"b=1\"", "\"c>2\"", "@",  "%", "(\"a\")"};
    std::mt19937 random(20240521); // NOLINT(cert-msc32-c,cert-msc51-cpp): the same texts each time
    int parsed = 0;
    for (int round = 0; round < 200000; round++) {
        std::string text;
        for (auto left = random() % 9; left > 0; left--)
            text += pieces[random() % std::size(pieces)];
        const outcome result = parse(text);
        if (!result.parsed) {
            ASSERT_LE(result.error.offset, text.size()) << text;
            continue;
        }
        parsed++;
        const std::string normal = subscription_normal_text(result.sub, subject_kind::event);
        ASSERT_EQ(normal_of(normal), normal) << text;
    }
    EXPECT_GT(parsed, 1000);
}

/* What the definition of a glob says, in its shortest and slowest form. */
bool slow_glob(std::string_view pattern, std::string_view text)
{
    if (pattern.empty())
        return text.empty();
    if (pattern.starts_with("**"))
        return slow_glob(pattern.substr(2), text) || (!text.empty() && slow_glob(pattern, text.substr(1)));
    if (pattern[0] == '*')
        return slow_glob(pattern.substr(1), text) ||
               (!text.empty() && text[0] != '/' && slow_glob(pattern, text.substr(1)));
    if (text.empty())
        return false;
    if (pattern[0] == '?')
        return text[0] != '/' && slow_glob(pattern.substr(1), text.substr(1));
    if (pattern[0] == '\\' && pattern.size() > 1)
        return pattern[1] == text[0] && slow_glob(pattern.substr(2), text.substr(1));
    return pattern[0] == text[0] && slow_glob(pattern.substr(1), text.substr(1));
}

TEST(Glob, AgreesWithItsDefinitionOnRandomPatterns)
{
    std::mt19937 random(7); // NOLINT(cert-msc32-c,cert-msc51-cpp): the same patterns each time
    int matched = 0;
    for (int round = 0; round < 100000; round++) {
        std::string pattern, text;
        for (auto left = random() % 8; left > 0; left--)
            pattern.push_back("ab/*?*\\"[random() % 7]);
        for (auto left = random() % 9; left > 0; left--)
            text.push_back("ab/*"[random() % 4]);
        const bool expected = slow_glob(pattern, text);
        ASSERT_EQ(glob_matches(glob_compile(pattern), text), expected) << pattern << " on " << text;
        matched += expected ? 1 : 0;
    }
    EXPECT_GT(matched, 2000);
}

TEST(Glob, ABackslashAtTheEndStandsForItself)
{
    EXPECT_TRUE(glob_matches(glob_compile("a\\"), "a\\"));
    EXPECT_FALSE(glob_matches(glob_compile("a\\"), "a"));
}

/* Parts of such a literal that matched may begin the next occurrence, also across it. */
TEST(Glob, LiteralsThatOverlapThemselvesAreFoundWhereverTheyStand)
{
    int matched = 0;
    for (size_t number = 0; number < 19683; number++) {
        std::string text;
        for (size_t left = number; text.size() < 9; left /= 3)
            text.push_back("ab/"[left % 3]);
        for (const char *pattern :
             {"*aabaa*", "**abab*a", "*aa*aa**", "**a/a**a*", "*ba?ab**", "?*aba**aba*?"}) {
            const bool expected = slow_glob(pattern, text);
            ASSERT_EQ(glob_matches(glob_compile(pattern), text), expected) << pattern << " on " << text;
            matched += expected ? 1 : 0;
        }
    }
    EXPECT_GT(matched, 1000);
}

/* The most that one subscription and one event can ask for; also a sanitizer's build stays below this bound,
 * which trying the literals at each place would exceed. */
TEST(Glob, TheLargestPatternOnTheLargestTextIsMatchedInBoundedTime)
{
    std::string pattern;
    for (int i = 0; i < 31; i++)
        pattern += "*" + std::string(2000, 'a');
    const glob largest = glob_compile(pattern + "b*");
    const std::string text(130000, 'a');
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_FALSE(glob_matches(largest, text));
    const std::chrono::duration<double> took = std::chrono::steady_clock::now() - begin;
    EXPECT_LT(took.count(), 3.0);
}

/* A backtracking matcher would need longer than the universe has for this one. */
TEST(Glob, ManyRunsAreMatchedInBoundedTime)
{
    std::string pattern;
    for (int i = 0; i < 200; i++)
        pattern += "*a";
    EXPECT_FALSE(glob_matches(glob_compile(pattern + "b"), std::string(5000, 'a')));
    EXPECT_TRUE(glob_matches(glob_compile(pattern), std::string(5000, 'a')));
}

TEST(Subscription, WildcardsOfOnePatternAreLimited)
{
    const auto code_of = [](const std::string &text) {
        subscription result;
        parse_error error;
        return subscription_parse(text, subject_kind::event, language_limits(), result, error)
                   ? ""
                   : parse_error_text(error);
    };
    std::string allowed;
    for (int i = 0; i < 16; i++)
        allowed += "*a?";
    EXPECT_EQ(code_of(allowed), "");
    EXPECT_EQ(code_of(allowed + "a*"), "E_LIMIT 0 too many wildcards in a pattern");
    EXPECT_EQ(code_of("(\"p~=" + allowed + "a?\")"), "E_LIMIT 1 too many wildcards in a pattern");
    EXPECT_EQ(code_of("(\"p~=" + allowed + "\")&(\"p~=" + allowed + "\")"), "");
}

TEST(Number, IsSignDigitsAndFraction)
{
    for (const char *text : {"0", "-0", "+1", "12.5", "-3.25", "007", "99999999999999999999"}) {
        number n;
        EXPECT_TRUE(number_parse(text, n)) << text;
    }
    for (const char *text :
         {"", "-", "+", ".", ".5", "5.", "1.2.3", "1e3", " 1", "1 ", "0x1", "--1", "1,5", "nan"}) {
        number n;
        EXPECT_FALSE(number_parse(text, n)) << text;
    }
}

TEST(Number, IsExactWithin64Bits)
{
    number n;
    ASSERT_TRUE(number_parse("-9223372036854775808", n));
    EXPECT_TRUE(n.whole);
    EXPECT_EQ(n.integer, INT64_MIN);
    ASSERT_TRUE(number_parse("9223372036854775808", n));
    EXPECT_FALSE(n.whole);
    EXPECT_EQ(n.real, 9223372036854775808.0);
}

} // namespace
