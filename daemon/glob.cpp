/* Compiling and matching of globs. The parts before the first run and those after the last one have a fixed
 * length, so they are compared in place; only what stands between two runs needs a search. That search keeps
 * the set of text positions reachable so far and takes each part through the text in one pass, so nothing is
 * ever tried twice. */
#include "glob.h"

#include <algorithm>

namespace zebd
{

static bool is_run(const glob_part &part)
{
    return part.kind == glob_part_kind::run_in_name || part.kind == glob_part_kind::run_any;
}

static void add_literal(glob &pattern, char octet)
{
    if (pattern.parts.empty() || pattern.parts.back().kind != glob_part_kind::literal)
        pattern.parts.push_back({glob_part_kind::literal, {}, {}});
    pattern.parts.back().text.push_back(octet);
}

/* Two runs side by side match what the wider of them matches. */
static void add_run(glob &pattern, glob_part_kind kind)
{
    if (pattern.parts.empty() || !is_run(pattern.parts.back()))
        pattern.parts.push_back({kind, {}, {}});
    else if (kind == glob_part_kind::run_any)
        pattern.parts.back().kind = kind;
}

/* At each place: the length of the longest shorter end that is also a beginning of LITERAL. */
static std::vector<uint32_t> fallback_of(std::string_view literal)
{
    std::vector<uint32_t> result(literal.size(), 0);
    uint32_t length = 0;
    for (size_t i = 1; i < literal.size(); i++) {
        while (length > 0 && literal[i] != literal[length])
            length = result[length - 1];
        length += literal[i] == literal[length] ? 1 : 0;
        result[i] = length;
    }
    return result;
}

static void prepare_search(glob &pattern)
{
    const auto first = std::ranges::find_if(pattern.parts, is_run);
    auto last = pattern.parts.end();
    while (last != first && !is_run(*(last - 1)))
        --last;
    for (auto part = first; part != last; ++part)
        part->fallback = fallback_of(part->text);
}

glob glob_compile(std::string_view pattern)
{
    glob result;
    for (size_t i = 0; i < pattern.size(); i++) {
        const char octet = pattern[i];
        const bool more = i + 1 < pattern.size();
        if (octet == '\\' && more) {
            add_literal(result, pattern[++i]);
        } else if (octet == '*' && more && pattern[i + 1] == '*') {
            add_run(result, glob_part_kind::run_any);
            i++;
        } else if (octet == '*') {
            add_run(result, glob_part_kind::run_in_name);
        } else if (octet == '?') {
            result.parts.push_back({glob_part_kind::any_octet, {}, {}});
        } else {
            add_literal(result, octet);
        }
    }
    prepare_search(result);
    return result;
}

size_t glob_wildcards(const glob &pattern)
{
    return static_cast<size_t>(std::ranges::count_if(
        pattern.parts, [](const glob_part &part) { return part.kind != glob_part_kind::literal; }));
}

bool glob_is_literal(const glob &pattern, std::string &literal)
{
    if (pattern.parts.size() > 1 ||
        (pattern.parts.size() == 1 && pattern.parts[0].kind != glob_part_kind::literal))
        return false;
    literal = pattern.parts.empty() ? std::string() : pattern.parts[0].text;
    return true;
}

static size_t fixed_length(const glob_part &part)
{
    return part.kind == glob_part_kind::literal ? part.text.size() : 1;
}

/* Whether a part of fixed length matches at the beginning of TEXT. */
static bool matches_here(const glob_part &part, std::string_view text)
{
    if (part.kind == glob_part_kind::literal)
        return text.substr(0, part.text.size()) == part.text;
    return !text.empty() && text[0] != '/';
}

/* One flag for each place between the octets of the text; those before `from` do not count. */
struct places {
    std::vector<uint8_t> reached, next;
    size_t from = 0;
};

/* Every place where the literal ends that began at a reached one. */
static void advance_literal(const glob_part &part, std::string_view text, places &at)
{
    const std::string &literal = part.text;
    at.next[at.from] = 0;
    size_t seen = 0; /* how much of the literal ends at this place */
    for (size_t i = at.from; i < text.size(); i++) {
        while (seen > 0 && (seen == literal.size() || text[i] != literal[seen]))
            seen = part.fallback[seen - 1];
        seen += text[i] == literal[seen] ? 1 : 0;
        at.next[i + 1] = seen == literal.size() ? at.reached[i + 1 - seen] : 0;
    }
    at.reached.swap(at.next);
}

static void advance_octet(std::string_view text, places &at)
{
    for (size_t i = text.size(); i > at.from; i--)
        at.reached[i] = text[i - 1] != '/' ? at.reached[i - 1] : 0;
    at.reached[at.from] = 0;
}

static void advance_run(const glob_part &part, std::string_view text, places &at)
{
    const bool crosses = part.kind == glob_part_kind::run_any;
    for (size_t i = at.from + 1; i < at.reached.size(); i++)
        if (at.reached[i - 1] != 0 && (crosses || text[i - 1] != '/'))
            at.reached[i] = 1;
}

static void advance(const glob_part &part, std::string_view text, places &at)
{
    if (is_run(part))
        advance_run(part, text, at);
    else if (part.kind == glob_part_kind::literal)
        advance_literal(part, text, at);
    else
        advance_octet(text, at);
}

/* The search for two or more runs: PARTS begins and ends with a run. */
static bool search(const glob_part *first, const glob_part *last, std::string_view text)
{
    places at{std::vector<uint8_t>(text.size() + 1, 0), std::vector<uint8_t>(text.size() + 1, 0), 0};
    at.reached[0] = 1;
    for (const glob_part *part = first; part <= last; part++) {
        advance(*part, text, at);
        const auto begin = at.reached.begin() + static_cast<std::ptrdiff_t>(at.from);
        const auto reached = std::find(begin, at.reached.end(), 1);
        if (reached == at.reached.end())
            return false;
        at.from = static_cast<size_t>(reached - at.reached.begin());
    }
    return at.reached.back() != 0;
}

/* Compares the fixed parts that end the pattern with the end of TEXT and cuts it off. */
static bool match_tail(const glob_part *first, const glob_part *end, std::string_view &text)
{
    size_t length = 0;
    for (const glob_part *part = first; part != end; part++)
        length += fixed_length(*part);
    if (length > text.size())
        return false;
    std::string_view tail = text.substr(text.size() - length);
    text.remove_suffix(length);
    for (const glob_part *part = first; part != end; part++) {
        if (!matches_here(*part, tail))
            return false;
        tail.remove_prefix(fixed_length(*part));
    }
    return true;
}

bool glob_matches(const glob &pattern, std::string_view text)
{
    const glob_part *first = pattern.parts.data();
    const glob_part *const end = first + pattern.parts.size();
    for (; first != end && !is_run(*first); first++) {
        if (!matches_here(*first, text))
            return false;
        text.remove_prefix(fixed_length(*first));
    }
    if (first == end)
        return text.empty();

    const glob_part *last = end - 1;
    while (!is_run(*last))
        last--;
    if (!match_tail(last + 1, end, text))
        return false;
    if (first != last)
        return search(first, last, text);
    return first->kind == glob_part_kind::run_any || text.find('/') == std::string_view::npos;
}

} // namespace zebd
