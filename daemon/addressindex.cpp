#include "addressindex.h"

#include <algorithm>

namespace zebd
{

static void put_in(name_places &places, const std::string &value, uint64_t serial)
{
    places.present.insert(serial);
    places.values[value].insert(serial);
}

void address_index_add(address_index &index, const subscriber &member)
{
    if (!member.request.component.empty())
        put_in(index.components, member.request.component, member.serial);
    for (const auto &[name, value] : member.request.properties)
        put_in(index.properties[name], value, member.serial);
}

/* Takes SERIAL out of the set under VALUE, and the set away with its last one. */
static void take_out(name_places &places, const std::string &value, uint64_t serial)
{
    places.present.erase(serial);
    const auto at = places.values.find(value);
    if (at == places.values.end())
        return; /* a property that was sent twice */
    at->second.erase(serial);
    if (at->second.empty())
        places.values.erase(at);
}

void address_index_remove(address_index &index, const subscriber &member)
{
    take_out(index.components, member.request.component, member.serial);
    for (const auto &[name, value] : member.request.properties) {
        const auto at = index.properties.find(name);
        if (at == index.properties.end())
            continue;
        take_out(at->second, value, member.serial);
        if (at->second.values.empty())
            index.properties.erase(at);
    }
}

/* Every predicate on a name asks that it be there. */
static const serial_set *set_of(const address_index &index, const predicate &test)
{
    static const serial_set none;
    const name_places *places = &index.components;
    if (!test.onField) {
        const auto named = index.properties.find(test.name);
        if (named == index.properties.end())
            return &none;
        places = &named->second;
    }
    if (test.how != relation::equal)
        return &places->present;
    const auto at = places->values.find(test.value);
    return at != places->values.end() ? &at->second : &none;
}

/* The smallest set that a clause leads to, or null when nothing in it leads anywhere. */
static const serial_set *narrowest(const address_index &index, const clause &literals)
{
    const serial_set *best = nullptr;
    for (const literal &one : literals) {
        const predicate &test = *one.test;
        const bool indexed = !test.onField || test.fixed == field::component;
        if (one.negated || !indexed)
            continue;
        const serial_set *its = set_of(index, test);
        if (best == nullptr || its->size() < best->size())
            best = its;
    }
    return best;
}

bool address_index_find(const address_index &index, const subscription &interest,
                        std::vector<uint64_t> &candidates)
{
    candidates.clear();
    std::vector<clause> clauses;
    if (interest.scope != subscription::scope_t::matching ||
        !clauses_expand(interest.root, clause_limits(), clauses))
        return false;
    std::set<const serial_set *> distinct; /* clauses that were multiplied out lead to the same ones */
    for (const clause &one : clauses) {
        const serial_set *its = narrowest(index, one);
        if (its == nullptr)
            return false;
        if (distinct.insert(its).second)
            candidates.insert(candidates.end(), its->begin(), its->end());
    }
    std::sort(candidates.begin(), candidates.end());
    candidates.erase(std::unique(candidates.begin(), candidates.end()), candidates.end());
    return true;
}

} // namespace zebd
