/* Compiling and matching of globs. The parts before the first run and those after the last one have a fixed
 * length, so they are compared in place; only what stands between two runs needs a search. That search keeps
 * the set of text positions reachable so far, which bounds its cost without any backtracking. */
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
        pattern.parts.push_back({glob_part_kind::literal, {}});
    pattern.parts.back().text.push_back(octet);
}

/* Two runs side by side match what the wider of them matches. */
static void add_run(glob &pattern, glob_part_kind kind)
{
    if (pattern.parts.empty() || !is_run(pattern.parts.back()))
        pattern.parts.push_back({kind, {}});
    else if (kind == glob_part_kind::run_any)
        pattern.parts.back().kind = kind;
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
            result.parts.push_back({glob_part_kind::any_octet, {}});
        } else {
            add_literal(result, octet);
        }
    }
    return result;
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

using positions = std::vector<uint8_t>; /* one flag for each place between the octets of the text */

static void advance_fixed(const glob_part &part, std::string_view text, positions &reached)
{
    positions next(reached.size(), 0);
    for (size_t i = 0; i < reached.size(); i++)
        if (reached[i] != 0 && matches_here(part, text.substr(i)))
            next[i + fixed_length(part)] = 1;
    reached.swap(next);
}

static void advance_run(const glob_part &part, std::string_view text, positions &reached)
{
    const bool crosses = part.kind == glob_part_kind::run_any;
    for (size_t i = 1; i < reached.size(); i++)
        if (reached[i - 1] != 0 && (crosses || text[i - 1] != '/'))
            reached[i] = 1;
}

/* The search for two or more runs: PARTS begins and ends with a run. */
static bool search(const glob_part *first, const glob_part *last, std::string_view text)
{
    positions reached(text.size() + 1, 0);
    reached[0] = 1;
    for (const glob_part *part = first; part <= last; part++) {
        if (is_run(*part))
            advance_run(*part, text, reached);
        else
            advance_fixed(*part, text, reached);
    }
    return reached.back() != 0;
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
