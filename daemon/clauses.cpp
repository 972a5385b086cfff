#include "clauses.h"

#include <algorithm>

namespace zebd
{

static size_t count_literals(const std::vector<clause> &clauses)
{
    size_t count = 0;
    for (const clause &one : clauses)
        count += one.size();
    return count;
}

/* How many clauses, and literals in them, the product of LEFT and RIGHT has. */
static bool product_fits(const std::vector<clause> &left, const std::vector<clause> &right,
                         const clause_limits &limits)
{
    return left.size() * right.size() <= limits.clauses &&
           count_literals(left) * right.size() + count_literals(right) * left.size() <= limits.literals;
}

static std::vector<clause> product(const std::vector<clause> &left, const std::vector<clause> &right)
{
    std::vector<clause> result;
    result.reserve(left.size() * right.size());
    for (const clause &one : left)
        for (const clause &other : right) {
            clause both = one;
            both.insert(both.end(), other.begin(), other.end());
            result.push_back(std::move(both));
        }
    return result;
}

static bool expand(const expression &tree, bool negated, const clause_limits &limits,
                   std::vector<clause> &out);

static bool expand_all(const std::vector<expression> &parts, bool negated, const clause_limits &limits,
                       std::vector<clause> &out)
{
    std::vector<clause> result = {{}};
    for (const expression &part : parts) {
        std::vector<clause> inner;
        if (!expand(part, negated, limits, inner) || !product_fits(result, inner, limits))
            return false;
        if (inner.size() == 1) { /* the usual case, without a copy of what is there */
            for (clause &one : result)
                one.insert(one.end(), inner[0].begin(), inner[0].end());
        } else {
            result = product(result, inner);
        }
    }
    std::move(result.begin(), result.end(), std::back_inserter(out));
    return true;
}

static bool expand_any(const std::vector<expression> &parts, bool negated, const clause_limits &limits,
                       std::vector<clause> &out)
{
    return std::all_of(parts.begin(), parts.end(), [&](const expression &part) {
        return expand(part, negated, limits, out) && out.size() <= limits.clauses;
    });
}

/* Negations go down to the predicates, where "not all" becomes "any not" and the other way round. */
static bool expand(const expression &tree, bool negated, const clause_limits &limits,
                   std::vector<clause> &out)
{
    switch (tree.kind) {
    case expression::kind_t::test:
        out.push_back({{&tree.test, negated}});
        return true;
    case expression::kind_t::negation:
        return expand(tree.parts[0], !negated, limits, out);
    default:
        const bool all = (tree.kind == expression::kind_t::all) != negated;
        return (all ? expand_all : expand_any)(tree.parts, negated, limits, out);
    }
}

bool clauses_expand(const expression &tree, const clause_limits &limits, std::vector<clause> &out)
{
    out.clear();
    return expand(tree, false, limits, out) && out.size() <= limits.clauses &&
           count_literals(out) <= limits.literals;
}

bool clause_holds(const clause &literals, const subject &what)
{
    return std::all_of(literals.begin(), literals.end(), [&what](const literal &one) {
        return predicate_holds(*one.test, what) != one.negated;
    });
}

} // namespace zebd
