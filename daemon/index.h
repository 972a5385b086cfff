/* Which subscriptions match an event: a set of (subscriber, subscription) pairs that can be asked with an
 * event. Equal subscriptions are interned by their normal form, so a thousand subscribers with one text cost
 * one evaluation and a fan-out. Callers see nothing of how subscriptions are filed.
 *
 * Adding and removing must not happen while a match is being collected. One thread. */
#pragma once

#include "subscription.h"

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

namespace zebd
{

/* One distinct subscription and those who hold it. */
struct index_entry {
    subscription sub;
    std::vector<uint64_t> holders; /* in the order of their adding */
};

struct subscription_index {
    std::map<std::string, std::unique_ptr<index_entry>> entries; /* by normal form */
    std::unordered_map<uint64_t, const std::string *> filed;     /* holder to its entry's key in `entries` */
};

/* Files SUB under HOLDER, which must not be filed already. */
void index_add(subscription_index &index, uint64_t holder, subscription sub);

/* Forgets HOLDER; nothing happens when it is not filed. */
void index_remove(subscription_index &index, uint64_t holder);

/* Appends every holder whose subscription is true for WHAT, each once. */
void index_match(const subscription_index &index, const subject &what, std::vector<uint64_t> &holders);

} // namespace zebd
