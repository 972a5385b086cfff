#include "filing.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace zebd
{

/* ---- Lists ---- */

static void append(clause_list &list, filed_clause &filed)
{
    filed.position = list.size();
    list.push_back(&filed);
}

/* The last one takes the place of the one that goes. */
static void take_out(clause_list &list, const filed_clause &filed)
{
    list[filed.position] = list.back();
    list[filed.position]->position = filed.position;
    list.pop_back();
}

/* ---- Names ---- */

static name_table &table_of(filing &where, const predicate &test)
{
    if (test.onField)
        return where.fields[static_cast<size_t>(test.fixed)];
    return where.properties[test.name];
}

static const name_table *find_table(const filing &where, const predicate &test)
{
    if (test.onField)
        return &where.fields[static_cast<size_t>(test.fixed)];
    const auto at = where.properties.find(test.name);
    return at != where.properties.end() ? &at->second : nullptr;
}

/* ---- Choosing ---- */

static size_t filed_under_value(const filing &where, const predicate &test)
{
    const name_table *table = find_table(where, test);
    if (table == nullptr)
        return 0;
    const auto at = table->equal.find(test.value);
    return at != table->equal.end() ? at->second.size() : 0;
}

static size_t literal_beginning(const predicate &test)
{
    const std::vector<glob_part> &parts = test.pattern.parts;
    return !parts.empty() && parts[0].kind == glob_part_kind::literal ? parts[0].text.size() : 0;
}

/* By what a predicate could be filed. A pattern that begins with a wildcard still tells that a property must
 * be there; the fields are nearly always there. */
static access_kind access_of(const predicate &test)
{
    switch (test.how) {
    case relation::equal:
        return access_kind::equality;
    case relation::glob:
        if (literal_beginning(test) > 0)
            return access_kind::prefix;
        return test.onField ? access_kind::remainder : access_kind::presence;
    case relation::present:
    case relation::not_equal:
        return access_kind::presence;
    default:
        return access_kind::bound;
    }
}

/* How many other candidates come along; only compared within one kind. */
static size_t cost_of(const filing &where, access_kind how, const predicate &test)
{
    if (how == access_kind::equality)
        return filed_under_value(where, test);
    if (how == access_kind::prefix)
        return std::numeric_limits<size_t>::max() - literal_beginning(test);
    return 0;
}

/* The kinds are declared from the most to the least selective one. */
static void choose(const filing &where, filed_clause &filed)
{
    filed.how = filed.tests.empty() && !filed.whole ? access_kind::everything : access_kind::remainder;
    size_t cost = 0;
    for (const literal &one : filed.tests) {
        const access_kind how = one.negated ? access_kind::remainder : access_of(*one.test);
        if (how == access_kind::remainder || how > filed.how)
            continue;
        const size_t its = cost_of(where, how, *one.test);
        if (how == filed.how && its >= cost)
            continue;
        filed.how = how;
        filed.by = one.test;
        cost = its;
    }
}

/* Being found under these two kinds is the test itself. */
static bool found_is_tested(const filed_clause &filed)
{
    return filed.tests.size() == 1 && (filed.by != nullptr) &&
           (filed.by->how == relation::equal || filed.by->how == relation::present);
}

/* ---- Filing ---- */

static bool looks_above(const predicate &test)
{
    return test.how == relation::greater || test.how == relation::greater_equal;
}

static void file_under_name(name_table &table, filed_clause &filed)
{
    const predicate &by = *filed.by;
    table.count++;
    switch (filed.how) {
    case access_kind::equality:
        append(table.equal[by.value], filed);
        break;
    case access_kind::prefix:
        append(prefix_tree_add(table.prefixes, by.pattern.parts[0].text), filed);
        break;
    case access_kind::bound:
        filed.bound = (looks_above(by) ? table.above : table.below).emplace(by.bound.real, &filed);
        break;
    default:
        append(table.present, filed);
    }
}

void filing_add(filing &where, filed_clause &filed)
{
    choose(where, filed);
    if (filed.by == nullptr)
        append(where.remainder, filed);
    else
        file_under_name(table_of(where, *filed.by), filed);
    if (found_is_tested(filed))
        filed.tests.clear();
}

static void remove_under_name(name_table &table, const filed_clause &filed)
{
    const predicate &by = *filed.by;
    table.count--;
    if (filed.how == access_kind::equality) {
        const auto at = table.equal.find(by.value);
        take_out(at->second, filed);
        if (at->second.empty())
            table.equal.erase(at);
    } else if (filed.how == access_kind::prefix) {
        const std::string &prefix = by.pattern.parts[0].text;
        take_out(*prefix_tree_find(table.prefixes, prefix), filed);
        prefix_tree_drop(table.prefixes, prefix);
    } else if (filed.how == access_kind::bound) {
        (looks_above(by) ? table.above : table.below).erase(filed.bound);
    } else {
        take_out(table.present, filed);
    }
}

void filing_remove(filing &where, const filed_clause &filed)
{
    if (filed.by == nullptr) {
        take_out(where.remainder, filed);
        return;
    }
    name_table &table = table_of(where, *filed.by);
    remove_under_name(table, filed);
    if (table.count == 0 && !filed.by->onField)
        where.properties.erase(filed.by->name);
}

/* ---- Finding ---- */

/* Some value lies above a bound when the largest does, and below it when the smallest does. Rounding to a
 * double keeps the order, so whatever lies on the right side of the exact bound is among those that lie on
 * the right side of the rounded one, or equal to it. */
static void collect_bounds(const name_table &table, std::span<const property_view> values,
                           clause_list &candidates)
{
    if (table.above.empty() && table.below.empty())
        return;
    double least = HUGE_VAL, most = -HUGE_VAL;
    bool numbers = false;
    for (const property_view &property : values) {
        number given;
        if (!number_parse(property.value, given))
            continue;
        least = std::min(least, given.real);
        most = std::max(most, given.real);
        numbers = true;
    }
    if (!numbers)
        return;
    const auto end = table.above.upper_bound(most);
    for (auto at = table.above.begin(); at != end; ++at)
        candidates.push_back(at->second);
    for (auto at = table.below.lower_bound(least); at != table.below.end(); ++at)
        candidates.push_back(at->second);
}

/* VALUES are all that one name has, each once. */
static void collect_values(name_table &table, std::span<const property_view> values, uint64_t round,
                           clause_list &candidates)
{
    for (const property_view &property : values) {
        const auto equal = table.equal.find(property.value);
        if (equal != table.equal.end())
            candidates.insert(candidates.end(), equal->second.begin(), equal->second.end());
        prefix_tree_collect(table.prefixes, property.value, round, candidates);
    }
    collect_bounds(table, values, candidates);
    candidates.insert(candidates.end(), table.present.begin(), table.present.end());
}

static void collect_properties(filing &where, std::span<const property_view> properties, uint64_t round,
                               clause_list &candidates)
{
    if (where.properties.empty())
        return;
    for (auto first = properties.begin(); first != properties.end();) {
        const auto next = std::find_if(first, properties.end(),
                                       [&](const auto &other) { return other.name != first->name; });
        const auto at = where.properties.find(first->name);
        if (at != where.properties.end())
            collect_values(at->second, {first, next}, round, candidates);
        first = next;
    }
}

void filing_collect(filing &where, const subject &what, uint64_t round, clause_list &candidates)
{
    for (size_t i = 0; i < field_count; i++) {
        if (where.fields[i].count == 0 || what.fields[i].empty())
            continue;
        const property_view value{{}, what.fields[i]};
        collect_values(where.fields[i], {&value, 1}, round, candidates);
    }
    collect_properties(where, what.properties, round, candidates);
    candidates.insert(candidates.end(), where.remainder.begin(), where.remainder.end());
}

} // namespace zebd
