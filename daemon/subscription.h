/* The subscription language: what a subscriber writes to say which events (or which other subscribers) it
 * wants. This module turns the text into a tree, says precisely what is wrong with a text that is none,
 * decides whether a tree is true for an event or an address, and writes a tree back as normal text.
 *
 *   text      = "null" | [ shorthand | or ]             blanks and tabs may stand between tokens
 *   or        = and { "|" and }      and = not { "&" not }      not = "!" not | "(" or ")" | predicate
 *   predicate = '"' name [ op value ] '"'               op is one of  =  !=  ~=  <  <=  >  >=
 *
 * A name that begins with "@" is one of the fixed fields, any other one a property. A shorthand (events only)
 * is a glob for the event type. The module knows no socket, keeps no state and takes no lock; all results are
 * plain values that own their contents. */
#pragma once

#include "glob.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace zebd
{

/* What is matched. The two kinds differ in the fields that may be named and in the shorthand. */
enum class subject_kind : uint8_t { event, address };

enum class field : uint8_t {
    type,
    event_class,
    id,
    component,
    node,
    process,
    instance,
    affected_components,
    affected_nodes,
    local,
    host,
    tier,
    tierid,
    subscription,
    key,
    count
};
constexpr size_t field_count = static_cast<size_t>(field::count);

struct property_view {
    std::string_view name, value;
};

/* An event or address as the language sees it; borrows everything. A field that is empty has no value, a
 * property that is empty has one. The same property name may occur several times. */
struct subject {
    std::array<std::string_view, field_count> fields{};
    std::span<const property_view> properties; /* as properties_in_order() leaves them */
};

/* Sorts PROPERTIES by name and value and drops what is there twice, which cannot be seen by any predicate: a
 * name is then looked up, however many properties there are. */
std::span<const property_view> properties_in_order(std::vector<property_view> &properties);

enum class relation : uint8_t { present, equal, not_equal, glob, less, less_equal, greater, greater_equal };

/* A number of the language: exact while it fits 64 bits without a fraction, a double otherwise. */
struct number {
    bool whole = false; /* `integer` holds the exact value; `real` always holds it as a double */
    int64_t integer = 0;
    double real = 0;
};

struct predicate {
    bool onField = false; /* `fixed` is what is named, otherwise the property `name` */
    field fixed = field::type;
    std::string name;
    relation how = relation::present;
    std::string value; /* as written, doubled quotes undone */
    glob pattern;
    number bound; /* for the four comparisons */
};

/* A tree in which `all` never directly holds `all`, `any` never `any`, and both have at least two parts. */
struct expression {
    enum class kind_t : uint8_t { test, negation, all, any };
    kind_t kind = kind_t::test;
    predicate test;                /* for test */
    std::vector<expression> parts; /* for the others; exactly one for negation */
};

struct subscription {
    enum class scope_t : uint8_t { nothing, everything, matching };
    scope_t scope = scope_t::nothing;
    expression root; /* for matching */
};

enum class parse_code : uint8_t { start, syntax, quote, name, field, escape, number, limit };

struct parse_error {
    parse_code code = parse_code::syntax;
    size_t offset = 0; /* in octets from the beginning of the text */
    std::string words;
};

struct language_limits {
    size_t octets = 65536;
    size_t nesting = 64; /* parentheses and negations open at one place */
    size_t predicates = 8192;
    size_t wildcards = 32; /* in one pattern: each costs a pass over the value */
};

/* Parses TEXT. Returns true with OUT filled, or false with ERROR filled and OUT untouched. */
bool subscription_parse(std::string_view text, subject_kind kind, const language_limits &limits,
                        subscription &out, parse_error &error);

/* The error in one line, as it goes to the subscriber: "E_SYNTAX 8 expected ...". */
std::string parse_error_text(const parse_error &error);

/* About how much memory the tree of SUB keeps. */
size_t subscription_octets(const subscription &sub);

bool subscription_matches(const subscription &sub, const subject &what);

bool predicate_holds(const predicate &test, const subject &what);

/* The name of a predicate as it is written, and the sign of a relation; presence has none. */
std::string predicate_name_text(const predicate &test, subject_kind kind);
std::string_view relation_text(relation how);

/* The text in its normal form: no needless blanks or parentheses, parts of `|` and `&` sorted and without
 * duplicates. Texts with equal normal forms match alike; parsing the normal form gives it back. */
std::string subscription_normal_text(const subscription &sub, subject_kind kind);

/* Reads TEXT as a number of the language: sign, digits, fraction. */
bool number_parse(std::string_view text, number &out);

} // namespace zebd
