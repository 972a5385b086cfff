/* Which subscriptions match an event, or which interests match an address: a set of (holder, subscription)
 * pairs that can be asked with a subject. Equal subscriptions are interned by their normal form, so a
 * thousand holders of one text cost one evaluation and a fan-out. Callers see nothing of how subscriptions
 * are filed, except in words, for people.
 *
 * Adding and removing must not happen while a match is being collected; afterwards the result is the
 * caller's. One thread. */
#pragma once

#include "filing.h"
#include "subscription.h"

#include <cstdint>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

namespace zebd
{

/* One distinct subscription and those who hold it. */
struct index_entry {
    subscription sub;
    std::string normal;            /* its key in `entries` */
    std::vector<uint64_t> holders; /* in no particular order */
    std::vector<std::unique_ptr<filed_clause>> clauses;
    bool typeOnly = false; /* names nothing but @type */
    size_t octets = 0;     /* about what all this takes, its places in the tables included */
    uint64_t found = 0;    /* number of the match that found it last */
};

struct index_place {
    index_entry *entry = nullptr;
    size_t position = 0; /* in its holders */
};

struct subscription_index {
    subject_kind kind = subject_kind::event;
    clause_limits limits;
    text_map<std::unique_ptr<index_entry>> entries;  /* by normal form */
    std::unordered_map<uint64_t, index_place> filed; /* by holder */
    filing byType, general;                          /* entries that name only @type, and the others */
    text_map<std::vector<index_entry *>> types;      /* what `byType` gave for a type; a cache */
    size_t remainder = 0;                            /* clauses that are tried for every subject */
    size_t octets = 0;                               /* of all entries */
    uint64_t matches = 0;
    clause_list candidates;            /* of the match at hand; kept for its room */
    std::vector<index_entry *> served; /* likewise */
};

/* Files SUB under HOLDER, which must not be filed already. */
void index_add(subscription_index &index, uint64_t holder, subscription sub);

/* Forgets HOLDER; nothing happens when it is not filed. */
void index_remove(subscription_index &index, uint64_t holder);

/* Appends every holder whose subscription is true for WHAT, each once. */
void index_match(subscription_index &index, const subject &what, std::vector<uint64_t> &holders);

/* The same by subscription: appends the entries. They live until their last holder is removed. */
void index_match_entries(subscription_index &index, const subject &what, std::vector<index_entry *> &entries);

/* Whether some clause of HOLDER's subscription is tried for every subject. */
bool index_is_unindexed(const subscription_index &index, uint64_t holder);

/* How the subscription of HOLDER is filed: one line for each clause, which begins with the kind of access.
 * Empty when HOLDER is not filed. */
std::vector<std::string> index_describe(const subscription_index &index, uint64_t holder);

} // namespace zebd
