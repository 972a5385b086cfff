/* The index in its plain form: every distinct subscription is asked. */
#include "index.h"

#include <algorithm>

namespace zebd
{

void index_add(subscription_index &index, uint64_t holder, subscription sub)
{
    const auto [at, fresh] = index.entries.try_emplace(subscription_normal_text(sub, subject_kind::event));
    if (fresh) {
        at->second = std::make_unique<index_entry>();
        at->second->sub = std::move(sub);
    }
    at->second->holders.push_back(holder);
    index.filed.emplace(holder, &at->first);
}

void index_remove(subscription_index &index, uint64_t holder)
{
    const auto filed = index.filed.find(holder);
    if (filed == index.filed.end())
        return;
    const auto at = index.entries.find(*filed->second);
    std::vector<uint64_t> &holders = at->second->holders;
    holders.erase(std::find(holders.begin(), holders.end(), holder));
    index.filed.erase(filed);
    if (holders.empty())
        index.entries.erase(at);
}

void index_match(const subscription_index &index, const subject &what, std::vector<uint64_t> &holders)
{
    for (const auto &[text, entry] : index.entries)
        if (subscription_matches(entry->sub, what))
            holders.insert(holders.end(), entry->holders.begin(), entry->holders.end());
}

} // namespace zebd
