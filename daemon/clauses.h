/* A subscription as alternatives: `or` of clauses, each an `and` of literals. In this form each alternative
 * can be filed on its own, under one of its literals. */
#pragma once

#include "subscription.h"

#include <cstddef>
#include <vector>

namespace zebd
{

/* A predicate or its negation. Negating is not the same as another relation: "n!=v" is false where n is
 * absent, the negation of "n=v" is true there. */
struct literal {
    const predicate *test = nullptr;
    bool negated = false;
};

using clause = std::vector<literal>;

struct clause_limits {
    size_t clauses = 4096;
    size_t literals = 65536; /* of all clauses together: a clause can be as long as the text */
};

/* Expands TREE, to which the literals then point. Returns false, with OUT in no particular state, when that
 * would exceed LIMITS: the number of clauses can double with every part of the text. */
bool clauses_expand(const expression &tree, const clause_limits &limits, std::vector<clause> &out);

/* True when every literal is true for WHAT. */
bool clause_holds(const clause &literals, const subject &what);

} // namespace zebd
