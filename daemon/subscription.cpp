/* Parser, evaluation and normal form of the subscription language. The parser goes once from left to right
 * over the text; each function for a rule of the grammar returns false as soon as the error is recorded. */
#include "subscription.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <optional>
#include <tuple>

namespace zebd
{

/* ---- Names ---- */

struct field_name {
    std::string_view name;
    field which;
};

static constexpr field_name eventFields[] = {
    {"@type", field::type},
    {"@class", field::event_class},
    {"@id", field::id},
    {"@component", field::component},
    {"@node", field::node},
    {"@process", field::process},
    {"@instance", field::instance},
    {"@affectedComponents", field::affected_components},
    {"@affectedNodes", field::affected_nodes},
    {"@local", field::local},
};

static constexpr field_name addressFields[] = {
    {"@component", field::component},
    {"@host", field::host},
    {"@instance", field::instance},
    {"@tier", field::tier},
    {"@tierid", field::tierid},
    {"@subscription", field::subscription},
    {"@id", field::id},
    {"@key", field::key},
};

static std::span<const field_name> fields_of(subject_kind kind)
{
    if (kind == subject_kind::event)
        return eventFields;
    return addressFields;
}

struct relation_sign {
    std::string_view sign;
    relation how;
};

/* Longer signs first, so that "<=" is never taken for "<" and a value that begins with "=". */
static constexpr relation_sign relationSigns[] = {
    {"!=", relation::not_equal},     {"~=", relation::glob}, {"<=", relation::less_equal},
    {">=", relation::greater_equal}, {"=", relation::equal}, {"<", relation::less},
    {">", relation::greater},
};

static const relation_sign *sign_at(std::string_view text)
{
    for (const relation_sign &candidate : relationSigns)
        if (text.starts_with(candidate.sign))
            return &candidate;
    return nullptr;
}

std::string_view relation_text(relation how)
{
    for (const relation_sign &candidate : relationSigns)
        if (candidate.how == how)
            return candidate.sign;
    return {};
}

static bool is_comparison(relation how)
{
    return how == relation::less || how == relation::less_equal || how == relation::greater ||
           how == relation::greater_equal;
}

/* ---- Numbers ---- */

static bool is_digit(char octet)
{
    return octet >= '0' && octet <= '9';
}

static size_t count_digits(std::string_view text)
{
    size_t count = 0;
    while (count < text.size() && is_digit(text[count]))
        count++;
    return count;
}

/* A number out of a double's range is either too large (infinite here) or too small (nothing). */
static double to_double(std::string_view digits)
{
    double value = 0;
    const auto result = std::from_chars(digits.data(), digits.data() + digits.size(), value);
    if (result.ec != std::errc::result_out_of_range)
        return value;
    return digits.substr(0, count_digits(digits)).find_first_not_of('0') == std::string_view::npos ? 0.0
                                                                                                   : HUGE_VAL;
}

bool number_parse(std::string_view text, number &out)
{
    const bool negative = text.starts_with('-');
    std::string_view digits = text;
    if (negative || text.starts_with('+'))
        digits.remove_prefix(1);
    const size_t whole = count_digits(digits);
    if (whole == 0)
        return false;
    if (whole < digits.size()) {
        const std::string_view fraction = digits.substr(whole + 1);
        if (digits[whole] != '.' || fraction.empty() || count_digits(fraction) != fraction.size())
            return false;
    }
    out = number();
    out.real = to_double(digits) * (negative ? -1 : 1);
    if (whole == digits.size()) {
        const std::string_view exact = negative ? text : digits;
        out.whole = std::from_chars(exact.data(), exact.data() + exact.size(), out.integer).ec == std::errc();
    }
    return true;
}

/* Less than, equal to or greater than nothing, as with any three-way comparison. */
static int compare(const number &left, const number &right)
{
    if (left.whole && right.whole)
        return left.integer < right.integer ? -1 : static_cast<int>(left.integer > right.integer);
    return left.real < right.real ? -1 : static_cast<int>(left.real > right.real);
}

/* ---- Parser ---- */

struct parser {
    std::string_view text;
    subject_kind kind;
    const language_limits &limits;
    parse_error &error;
    size_t at = 0;
    size_t depth = 0;
    size_t predicates = 0;
};

static bool fail(parser &p, parse_code code, size_t offset, std::string_view words)
{
    p.error.code = code;
    p.error.offset = offset;
    p.error.words = words;
    return false;
}

static bool is_blank(char octet)
{
    return octet == ' ' || octet == '\t';
}

static void skip_blanks(parser &p)
{
    while (p.at < p.text.size() && is_blank(p.text[p.at]))
        p.at++;
}

static bool at_octet(const parser &p, char octet)
{
    return p.at < p.text.size() && p.text[p.at] == octet;
}

/* The place of the quote that closes the predicate opened at p.at; a doubled quote does not. */
static std::optional<size_t> closing_quote(const parser &p)
{
    for (size_t i = p.at + 1; i < p.text.size(); i++) {
        if (p.text[i] != '"')
            continue;
        if (i + 1 >= p.text.size() || p.text[i + 1] != '"')
            return i;
        i++;
    }
    return std::nullopt;
}

static int hex_digit(char octet)
{
    if (is_digit(octet))
        return octet - '0';
    if (octet >= 'a' && octet <= 'f')
        return octet - 'a' + 10;
    if (octet >= 'A' && octet <= 'F')
        return octet - 'A' + 10;
    return -1;
}

/* Reads the name that begins at p.at and ends at an operator or at END, and leaves p.at there. */
static bool parse_name(parser &p, size_t end, std::string &name)
{
    while (p.at < end && sign_at(p.text.substr(p.at, end - p.at)) == nullptr) {
        const char octet = p.text[p.at];
        if (octet == '%') {
            const int high = p.at + 2 < end ? hex_digit(p.text[p.at + 1]) : -1;
            const int low = high >= 0 ? hex_digit(p.text[p.at + 2]) : -1;
            if (low < 0)
                return fail(p, parse_code::escape, p.at, "% in a name needs two hexadecimal digits");
            name.push_back(static_cast<char>(high * 16 + low));
            p.at += 3;
        } else {
            name.push_back(octet);
            p.at += octet == '"' ? 2 : 1;
        }
    }
    return true;
}

static bool resolve_field(parser &p, size_t begin, predicate &test)
{
    const std::string_view written = p.text.substr(begin, p.at - begin);
    for (const field_name &candidate : fields_of(p.kind)) {
        if (candidate.name == written) {
            test.onField = true;
            test.fixed = candidate.which;
            test.name.clear();
            return true;
        }
    }
    return fail(p, parse_code::field, begin, "no such field here");
}

static std::string undouble_quotes(std::string_view text)
{
    std::string result;
    for (size_t i = 0; i < text.size(); i++) {
        result.push_back(text[i]);
        if (text[i] == '"')
            i++;
    }
    return result;
}

/* A glob without wildcards is an equality, which is cheaper to test and easier to file. */
static bool set_glob(parser &p, size_t offset, predicate &test, std::string_view pattern)
{
    test.how = relation::glob;
    test.value = pattern;
    test.pattern = glob_compile(pattern);
    if (glob_wildcards(test.pattern) > p.limits.wildcards)
        return fail(p, parse_code::limit, offset, "too many wildcards in a pattern");
    std::string literal;
    if (!glob_is_literal(test.pattern, literal))
        return true;
    test.how = relation::equal;
    test.value = literal;
    test.pattern = glob();
    return true;
}

static bool parse_relation(parser &p, size_t open, size_t end, predicate &test)
{
    const relation_sign *sign = sign_at(p.text.substr(p.at, end - p.at));
    if (sign == nullptr)
        return true;
    const size_t begin = p.at + sign->sign.size();
    test.how = sign->how;
    test.value = undouble_quotes(p.text.substr(begin, end - begin));
    if (is_comparison(test.how) && !number_parse(test.value, test.bound))
        return fail(p, parse_code::number, open, "a comparison needs a number");
    return test.how != relation::glob || set_glob(p, open, test, std::string(test.value));
}

static bool parse_predicate(parser &p, expression &out)
{
    const size_t open = p.at;
    if (++p.predicates > p.limits.predicates)
        return fail(p, parse_code::limit, open, "too many predicates");
    const std::optional<size_t> close = closing_quote(p);
    if (!close)
        return fail(p, parse_code::quote, open, "predicate without closing quote");
    p.at = open + 1;
    const bool onField = at_octet(p, '@');
    out.kind = expression::kind_t::test;
    if (!parse_name(p, *close, out.test.name))
        return false;
    if (out.test.name.empty())
        return fail(p, parse_code::name, open, "predicate without a name");
    if (onField && !resolve_field(p, open + 1, out.test))
        return false;
    if (!parse_relation(p, open, *close, out.test))
        return false;
    p.at = *close + 1;
    return true;
}

static bool parse_or(parser &p, expression &out);

static bool enter(parser &p)
{
    if (++p.depth > p.limits.nesting)
        return fail(p, parse_code::limit, p.at, "nested too deep");
    p.at++;
    return true;
}

static bool parse_group(parser &p, expression &out)
{
    if (!enter(p))
        return false;
    skip_blanks(p);
    if (!parse_or(p, out))
        return false;
    skip_blanks(p);
    if (!at_octet(p, ')'))
        return fail(p, parse_code::syntax, p.at, "expected ), | or &");
    p.at++;
    p.depth--;
    return true;
}

static bool parse_not(parser &p, expression &out);

/* Two negations in a row cancel out, so a negation never holds a negation. */
static bool parse_negation(parser &p, expression &out)
{
    if (!enter(p))
        return false;
    skip_blanks(p);
    expression inner;
    if (!parse_not(p, inner))
        return false;
    p.depth--;
    if (inner.kind == expression::kind_t::negation) {
        expression doubled = std::move(inner.parts[0]);
        out = std::move(doubled);
        return true;
    }
    out.kind = expression::kind_t::negation;
    out.parts.push_back(std::move(inner));
    return true;
}

static bool parse_not(parser &p, expression &out)
{
    if (at_octet(p, '!'))
        return parse_negation(p, out);
    if (at_octet(p, '('))
        return parse_group(p, out);
    if (at_octet(p, '"'))
        return parse_predicate(p, out);
    return fail(p, parse_code::syntax, p.at, "expected a predicate, ( or !");
}

/* Takes PART into a list of kind KIND; a part of the same kind is dissolved into it. */
static void add_part(std::vector<expression> &parts, expression &&part, expression::kind_t kind)
{
    if (part.kind != kind) {
        parts.push_back(std::move(part));
        return;
    }
    for (expression &inner : part.parts)
        parts.push_back(std::move(inner));
}

using rule = bool (*)(parser &, expression &);

/* element { separator element }: the shape of `|` over `&` and of `&` over negations. */
static bool parse_chain(parser &p, expression &out, rule element, char separator, expression::kind_t kind)
{
    std::vector<expression> parts;
    for (;;) {
        expression part;
        if (!element(p, part))
            return false;
        add_part(parts, std::move(part), kind);
        const size_t end = p.at;
        skip_blanks(p);
        if (!at_octet(p, separator)) {
            p.at = end;
            break;
        }
        p.at++;
        skip_blanks(p);
    }
    if (parts.size() == 1) {
        out = std::move(parts[0]);
        return true;
    }
    out.kind = kind;
    out.parts = std::move(parts);
    return true;
}

static bool parse_and(parser &p, expression &out)
{
    return parse_chain(p, out, parse_not, '&', expression::kind_t::all);
}

static bool parse_or(parser &p, expression &out)
{
    return parse_chain(p, out, parse_and, '|', expression::kind_t::any);
}

static bool begins_shorthand(char octet)
{
    const bool letter = (octet >= 'a' && octet <= 'z') || (octet >= 'A' && octet <= 'Z');
    return letter || is_digit(octet) || octet == '/' || octet == '*' || octet == '?' || octet == '\\';
}

/* Reads a shorthand. One that runs into an octet it cannot hold was probably meant as a predicate, so the
 * error is that of a text which does not begin like anything. */
static bool parse_shorthand(parser &p, expression &out)
{
    const size_t begin = p.at;
    const size_t end = std::min(p.text.find_first_of("\"()|&!=<> \t", begin), p.text.size());
    if (end < p.text.size() && !is_blank(p.text[end]))
        return fail(p, parse_code::start, begin, "expected \"name...\", (, ! or a type");
    out.kind = expression::kind_t::test;
    out.test.onField = true;
    out.test.fixed = field::type;
    p.at = end;
    return set_glob(p, begin, out.test, p.text.substr(begin, end - begin));
}

static bool parse_text(parser &p, expression &out)
{
    const char first = p.text[p.at];
    if (first == '"' || first == '(' || first == '!')
        return parse_or(p, out);
    if (p.kind == subject_kind::event && begins_shorthand(first))
        return parse_shorthand(p, out);
    return fail(p, parse_code::start, p.at, "expected \"name...\", ( or !");
}

bool subscription_parse(std::string_view text, subject_kind kind, const language_limits &limits,
                        subscription &out, parse_error &error)
{
    parser p{text, kind, limits, error};
    if (text.size() > limits.octets)
        return fail(p, parse_code::limit, limits.octets, "text too long");
    if (text == "null") {
        out = subscription();
        return true;
    }
    subscription result;
    skip_blanks(p);
    if (p.at == text.size()) {
        result.scope = subscription::scope_t::everything;
    } else {
        result.scope = subscription::scope_t::matching;
        if (!parse_text(p, result.root))
            return false;
        skip_blanks(p);
        if (p.at != text.size())
            return fail(p, parse_code::syntax, p.at, "nothing more expected here");
    }
    out = std::move(result);
    return true;
}

std::string parse_error_text(const parse_error &error)
{
    static constexpr std::string_view codes[] = {"E_START", "E_SYNTAX", "E_QUOTE",  "E_NAME",
                                                 "E_FIELD", "E_ESCAPE", "E_NUMBER", "E_LIMIT"};
    std::string text(codes[static_cast<size_t>(error.code)]);
    text += " " + std::to_string(error.offset) + " " + error.words;
    return text;
}

/* ---- Size ---- */

static size_t octets_below(const expression &tree)
{
    size_t octets = tree.test.name.capacity() + tree.test.value.capacity() +
                    tree.test.pattern.parts.capacity() * sizeof(glob_part) +
                    tree.parts.capacity() * sizeof(expression);
    for (const glob_part &part : tree.test.pattern.parts)
        octets += part.text.capacity() + part.fallback.capacity() * sizeof(uint32_t);
    for (const expression &part : tree.parts)
        octets += octets_below(part);
    return octets;
}

size_t subscription_octets(const subscription &sub)
{
    return sizeof(subscription) + octets_below(sub.root);
}

/* ---- Evaluation ---- */

std::span<const property_view> properties_in_order(std::vector<property_view> &properties)
{
    const auto key = [](const property_view &property) { return std::tie(property.name, property.value); };
    std::sort(properties.begin(), properties.end(),
              [key](const property_view &a, const property_view &b) { return key(a) < key(b); });
    const auto end =
        std::unique(properties.begin(), properties.end(),
                    [key](const property_view &a, const property_view &b) { return key(a) == key(b); });
    properties.erase(end, properties.end());
    return properties;
}

static bool compare_value(const predicate &test, std::string_view value)
{
    number given;
    if (!number_parse(value, given))
        return false;
    const int order = compare(given, test.bound);
    switch (test.how) {
    case relation::less:
        return order < 0;
    case relation::less_equal:
        return order <= 0;
    case relation::greater:
        return order > 0;
    default:
        return order >= 0;
    }
}

/* Whether one single value satisfies the predicate. */
static bool value_satisfies(const predicate &test, std::string_view value)
{
    switch (test.how) {
    case relation::present:
        return true;
    case relation::equal:
    case relation::not_equal:
        return value == test.value;
    case relation::glob:
        return glob_matches(test.pattern, value);
    default:
        return compare_value(test, value);
    }
}

struct by_name {
    bool operator()(const property_view &property, std::string_view name) const
    {
        return property.name < name;
    }
    bool operator()(std::string_view name, const property_view &property) const
    {
        return name < property.name;
    }
};

static std::span<const property_view> values_of(const subject &what, std::string_view name)
{
    const auto [first, end] =
        std::equal_range(what.properties.begin(), what.properties.end(), name, by_name());
    return {first, end};
}

static bool some_value_satisfies(const predicate &test, std::span<const property_view> values)
{
    if (test.how == relation::equal || test.how == relation::not_equal)
        return std::ranges::binary_search(values, test.value, {}, &property_view::value);
    return std::ranges::any_of(
        values, [&test](const property_view &property) { return value_satisfies(test, property.value); });
}

/* `!=` asks that there be a value and that none of them be equal; every other predicate that some value
 * satisfies it. */
bool predicate_holds(const predicate &test, const subject &what)
{
    const bool negative = test.how == relation::not_equal;
    if (test.onField) {
        const std::string_view value = what.fields[static_cast<size_t>(test.fixed)];
        return !value.empty() && value_satisfies(test, value) != negative;
    }
    const std::span<const property_view> values = values_of(what, test.name);
    return !values.empty() && some_value_satisfies(test, values) != negative;
}

static bool holds(const expression &tree, const subject &what)
{
    const auto part_holds = [&what](const expression &part) { return holds(part, what); };
    switch (tree.kind) {
    case expression::kind_t::test:
        return predicate_holds(tree.test, what);
    case expression::kind_t::negation:
        return !holds(tree.parts[0], what);
    case expression::kind_t::all:
        return std::all_of(tree.parts.begin(), tree.parts.end(), part_holds);
    case expression::kind_t::any:
        return std::any_of(tree.parts.begin(), tree.parts.end(), part_holds);
    }
    return false;
}

bool subscription_matches(const subscription &sub, const subject &what)
{
    if (sub.scope == subscription::scope_t::matching)
        return holds(sub.root, what);
    return sub.scope == subscription::scope_t::everything;
}

/* ---- Normal form ---- */

static std::string escape_name(std::string_view name)
{
    static constexpr char hex[] = "0123456789ABCDEF";
    std::string result;
    for (size_t i = 0; i < name.size(); i++) {
        const char octet = name[i];
        const bool fieldMark = i == 0 && octet == '@';
        if (!fieldMark && std::string_view("%\"=!~<>").find(octet) == std::string_view::npos) {
            result.push_back(octet);
            continue;
        }
        const auto value = static_cast<unsigned char>(octet);
        result += {'%', hex[value / 16], hex[value % 16]};
    }
    return result;
}

static std::string double_quotes(std::string_view text)
{
    std::string result;
    for (const char octet : text)
        result.append(octet == '"' ? 2 : 1, octet);
    return result;
}

static std::string_view field_text(field which, subject_kind kind)
{
    for (const field_name &candidate : fields_of(kind))
        if (candidate.which == which)
            return candidate.name;
    return {};
}

std::string predicate_name_text(const predicate &test, subject_kind kind)
{
    return test.onField ? std::string(field_text(test.fixed, kind)) : escape_name(test.name);
}

static std::string predicate_text(const predicate &test, subject_kind kind)
{
    std::string text = "\"" + predicate_name_text(test, kind);
    if (test.how != relation::present) {
        text += relation_text(test.how);
        text += double_quotes(test.value);
    }
    return text + "\"";
}

static bool is_chain(const expression &tree)
{
    return tree.kind == expression::kind_t::all || tree.kind == expression::kind_t::any;
}

static std::string tree_text(const expression &tree, subject_kind kind);

/* Parentheses stand only where precedence needs them, so the normal form never nests deeper than its source.
 */
static std::string part_text(const expression &part, expression::kind_t within, subject_kind kind)
{
    const bool loose = within == expression::kind_t::negation
                           ? is_chain(part)
                           : within == expression::kind_t::all && part.kind == expression::kind_t::any;
    std::string text = tree_text(part, kind);
    return loose ? "(" + text + ")" : text;
}

static std::string tree_text(const expression &tree, subject_kind kind)
{
    if (tree.kind == expression::kind_t::test)
        return predicate_text(tree.test, kind);
    if (tree.kind == expression::kind_t::negation)
        return "!" + part_text(tree.parts[0], tree.kind, kind);
    std::string text;
    for (const expression &part : tree.parts) {
        if (!text.empty())
            text.push_back(tree.kind == expression::kind_t::all ? '&' : '|');
        text += part_text(part, tree.kind, kind);
    }
    return text;
}

struct labelled {
    std::string label;
    expression tree;
};

/* Sorts the parts of a chain by their text and drops duplicates. */
static void sort_parts(std::vector<expression> &parts, subject_kind kind)
{
    std::vector<labelled> sorted;
    sorted.reserve(parts.size());
    for (expression &part : parts)
        sorted.push_back({tree_text(part, kind), std::move(part)});
    std::sort(sorted.begin(), sorted.end(),
              [](const labelled &a, const labelled &b) { return a.label < b.label; });
    const auto end = std::unique(sorted.begin(), sorted.end(),
                                 [](const labelled &a, const labelled &b) { return a.label == b.label; });
    parts.clear();
    for (auto one = sorted.begin(); one != end; ++one)
        parts.push_back(std::move(one->tree));
}

/* From the leaves upwards: what collapses below may turn a part into a chain of its parent's kind. */
static expression normalized(expression tree, subject_kind kind)
{
    std::vector<expression> parts;
    for (expression &part : tree.parts) {
        expression inner = normalized(std::move(part), kind);
        if (is_chain(tree))
            add_part(parts, std::move(inner), tree.kind);
        else
            parts.push_back(std::move(inner));
    }
    if (is_chain(tree))
        sort_parts(parts, kind);
    if (is_chain(tree) && parts.size() == 1)
        return std::move(parts[0]);
    if (tree.kind == expression::kind_t::negation && parts[0].kind == expression::kind_t::negation)
        return std::move(parts[0].parts[0]);
    tree.parts = std::move(parts);
    return tree;
}

std::string subscription_normal_text(const subscription &sub, subject_kind kind)
{
    switch (sub.scope) {
    case subscription::scope_t::nothing:
        return "null";
    case subscription::scope_t::everything:
        return "";
    default:
        return tree_text(normalized(sub.root, kind), kind);
    }
}

} // namespace zebd
