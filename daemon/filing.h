/* Where clauses are filed: each under one predicate of its own, the one that few events are expected to
 * satisfy. An event then looks only into the places that its own names and values lead to, instead of asking
 * every subscription. What is found there is a candidate, and its other predicates are still to be tested. */
#pragma once

#include "clauses.h"
#include "prefixtree.h"
#include "textmap.h"

#include <array>
#include <cstdint>
#include <map>

namespace zebd
{

struct index_entry;

enum class access_kind : uint8_t {
    equality,  /* by name and value */
    prefix,    /* by name and the beginning of the value */
    bound,     /* by name, sorted by the number to compare with */
    presence,  /* by name */
    remainder, /* nothing to go by: a candidate for everything */
    everything /* nothing to test either */
};

/* One clause and its place. */
struct filed_clause {
    index_entry *owner = nullptr;
    clause tests;       /* all literals but the one it is filed under when that leaves nothing to test */
    bool whole = false; /* the owner's tree is tested instead: it was too large to expand */
    access_kind how = access_kind::remainder;
    const predicate *by = nullptr; /* what it is filed under; null for remainder and everything */
    size_t position = 0;           /* in the list it is filed in */
    std::multimap<double, filed_clause *>::iterator bound; /* for bound */
};

/* All that is filed under one name. */
struct name_table {
    size_t count = 0;
    text_map<clause_list> equal;
    prefix_tree prefixes;
    std::multimap<double, filed_clause *> above, below; /* by bound: values that lie above it, or below */
    clause_list present;
};

struct filing {
    std::array<name_table, field_count> fields;
    text_map<name_table> properties;
    clause_list remainder;
};

/* Chooses a place for FILED, whose owner and tests are set, and files it there. */
void filing_add(filing &where, filed_clause &filed);

void filing_remove(filing &where, const filed_clause &filed);

/* Appends the clauses that may be true for WHAT, each once. ROUND is a number never used before, and not 0.
 */
void filing_collect(filing &where, const subject &what, uint64_t round, clause_list &candidates);

} // namespace zebd
