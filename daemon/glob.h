/* Glob patterns over octets: `*` is any run without '/', `**` any run, `?` one octet but '/', `\c` is c.
 * A backslash that ends the pattern stands for itself. A pattern is compiled once and matched often; matching
 * never allocates unless wildcards stand on both sides of a literal, and takes at most a few passes over the
 * text for each wildcard. Plain values: one thread at a time for changes, any number for matching. */
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace zebd
{

enum class glob_part_kind : uint8_t {
    literal,     /* exactly the octets of `text` */
    any_octet,   /* one octet that is not '/' */
    run_in_name, /* any run of octets that are not '/' */
    run_any      /* any run */
};

struct glob_part {
    glob_part_kind kind = glob_part_kind::literal;
    std::string text; /* literal only */
    /* Of a literal between two runs: for each place in it, how much of its beginning has been seen there when
     * the place itself does not go on. */
    std::vector<uint32_t> fallback;
};

struct glob {
    std::vector<glob_part> parts; /* neighbouring literals are one part, neighbouring runs as well */
};

glob glob_compile(std::string_view pattern);

size_t glob_wildcards(const glob &pattern);

/* True when PATTERN matches the whole of TEXT. */
bool glob_matches(const glob &pattern, std::string_view text);

/* True when the pattern holds no wildcard; LITERAL then receives the only text it matches. */
bool glob_is_literal(const glob &pattern, std::string &literal);

} // namespace zebd
