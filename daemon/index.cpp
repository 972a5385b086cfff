#include "index.h"

#include <algorithm>

namespace zebd
{

/* ---- Entries ---- */

static bool names_only_type(const expression &tree)
{
    if (tree.kind == expression::kind_t::test)
        return tree.test.onField && tree.test.fixed == field::type;
    return std::all_of(tree.parts.begin(), tree.parts.end(), names_only_type);
}

static filing &filing_of(subscription_index &index, const index_entry &entry)
{
    return entry.typeOnly ? index.byType : index.general;
}

static void add_clause(subscription_index &index, index_entry &entry, clause tests, bool whole)
{
    auto filed = std::make_unique<filed_clause>();
    filed->owner = &entry;
    filed->tests = std::move(tests);
    filed->whole = whole;
    filing_add(filing_of(index, entry), *filed);
    index.remainder += filed->how == access_kind::remainder ? 1 : 0;
    entry.clauses.push_back(std::move(filed));
}

static void file_entry(subscription_index &index, index_entry &entry)
{
    if (entry.sub.scope == subscription::scope_t::nothing)
        return;
    const bool everything = entry.sub.scope == subscription::scope_t::everything;
    entry.typeOnly = everything || names_only_type(entry.sub.root);
    if (entry.typeOnly)
        index.types.clear();
    if (everything)
        return add_clause(index, entry, {}, false);
    std::vector<clause> clauses;
    if (!clauses_expand(entry.sub.root, index.limits, clauses))
        return add_clause(index, entry, {}, true);
    entry.clauses.reserve(clauses.size());
    for (clause &one : clauses)
        add_clause(index, entry, std::move(one), false);
}

static void unfile_entry(subscription_index &index, const index_entry &entry)
{
    if (entry.typeOnly)
        index.types.clear();
    for (const auto &filed : entry.clauses) {
        index.remainder -= filed->how == access_kind::remainder ? 1 : 0;
        filing_remove(filing_of(index, entry), *filed);
    }
}

/* What filing a clause takes beside its texts: a table for its name, which it may have alone, and a list in
 * that. */
static constexpr size_t tablesOfAClause = sizeof(name_table) + 256;

static size_t octets_of(const index_entry &entry)
{
    size_t octets = sizeof(index_entry) + 2 * entry.normal.capacity() + subscription_octets(entry.sub);
    for (const auto &filed : entry.clauses) {
        octets += sizeof(filed_clause) + filed->tests.capacity() * sizeof(literal) + tablesOfAClause;
        if (filed->by != nullptr)
            octets += filed->by->name.size() + filed->by->value.size();
    }
    return octets;
}

/* ---- Holders ---- */

void index_add(subscription_index &index, uint64_t holder, subscription sub)
{
    std::string normal = subscription_normal_text(sub, index.kind);
    std::unique_ptr<index_entry> &entry = index.entries[normal];
    if (entry == nullptr) {
        entry = std::make_unique<index_entry>();
        entry->sub = std::move(sub);
        entry->normal = std::move(normal);
        file_entry(index, *entry);
        entry->octets = octets_of(*entry);
        index.octets += entry->octets;
    }
    index.filed.emplace(holder, index_place{entry.get(), entry->holders.size()});
    entry->holders.push_back(holder);
}

void index_remove(subscription_index &index, uint64_t holder)
{
    const auto filed = index.filed.find(holder);
    if (filed == index.filed.end())
        return;
    index_entry &entry = *filed->second.entry;
    const size_t position = filed->second.position;
    index.filed.erase(filed);
    if (position + 1 < entry.holders.size()) { /* the last one takes its place */
        entry.holders[position] = entry.holders.back();
        index.filed.find(entry.holders[position])->second.position = position;
    }
    entry.holders.pop_back();
    if (!entry.holders.empty())
        return;
    unfile_entry(index, entry);
    index.octets -= entry.octets;
    index.entries.erase(index.entries.find(entry.normal));
}

/* ---- Matching ---- */

static bool holds(const filed_clause &filed, const subject &what)
{
    return filed.whole ? subscription_matches(filed.owner->sub, what) : clause_holds(filed.tests, what);
}

/* An entry is found through any of its clauses, and counts once. */
static void match_filing(subscription_index &index, filing &where, const subject &what,
                         std::vector<index_entry *> &entries)
{
    index.candidates.clear();
    filing_collect(where, what, index.matches, index.candidates);
    for (const filed_clause *candidate : index.candidates) {
        index_entry &entry = *candidate->owner;
        if (entry.found == index.matches || !holds(*candidate, what))
            continue;
        entry.found = index.matches;
        entries.push_back(&entry);
    }
}

/* Clients choose the types, so what they can make the cache hold is bounded in number and length. */
static constexpr size_t cachedTypes = 1024;
static constexpr size_t cachedTypeLength = 256;
static constexpr size_t cachedEntries = 1024;

/* Finding so few clauses is as quick as the cache. Keeping them there would only push out others where events
 * have very many types. */
static constexpr size_t quicklyFound = 8;

static void match_type(subscription_index &index, const subject &what, std::vector<index_entry *> &entries)
{
    const std::string_view type = what.fields[static_cast<size_t>(field::type)];
    const auto known = index.types.find(type);
    if (known != index.types.end()) {
        entries.insert(entries.end(), known->second.begin(), known->second.end());
        return;
    }
    const size_t before = entries.size();
    match_filing(index, index.byType, what, entries);
    if (index.candidates.size() <= quicklyFound || type.size() > cachedTypeLength ||
        entries.size() - before > cachedEntries)
        return;
    if (index.types.size() >= cachedTypes)
        index.types.clear();
    index.types[std::string(type)].assign(entries.begin() + static_cast<std::ptrdiff_t>(before),
                                          entries.end());
}

void index_match_entries(subscription_index &index, const subject &what, std::vector<index_entry *> &entries)
{
    index.matches++;
    match_type(index, what, entries);
    match_filing(index, index.general, what, entries);
}

void index_match(subscription_index &index, const subject &what, std::vector<uint64_t> &holders)
{
    index.served.clear();
    index_match_entries(index, what, index.served);
    for (const index_entry *entry : index.served)
        holders.insert(holders.end(), entry->holders.begin(), entry->holders.end());
}

/* ---- In words ---- */

static std::string describe(const filed_clause &filed, subject_kind kind)
{
    if (filed.how == access_kind::everything)
        return "everything";
    if (filed.how == access_kind::remainder)
        return "remainder";
    const predicate &by = *filed.by;
    const std::string name = predicate_name_text(by, kind);
    switch (filed.how) {
    case access_kind::equality:
        return "equality " + name + " \"" + by.value + "\"";
    case access_kind::prefix:
        return "prefix " + name + " \"" + by.pattern.parts[0].text + "\"";
    case access_kind::bound:
        return "bound " + name + " " + std::string(relation_text(by.how)) + by.value;
    default:
        return "presence " + name;
    }
}

bool index_is_unindexed(const subscription_index &index, uint64_t holder)
{
    const auto filed = index.filed.find(holder);
    if (filed == index.filed.end())
        return false;
    const auto &clauses = filed->second.entry->clauses;
    return std::any_of(clauses.begin(), clauses.end(),
                       [](const auto &one) { return one->how == access_kind::remainder; });
}

std::vector<std::string> index_describe(const subscription_index &index, uint64_t holder)
{
    const auto filed = index.filed.find(holder);
    if (filed == index.filed.end())
        return {};
    const index_entry &entry = *filed->second.entry;
    if (entry.clauses.empty())
        return {"nothing"};
    std::vector<std::string> lines;
    for (const auto &one : entry.clauses)
        lines.push_back(describe(*one, index.kind));
    return lines;
}

} // namespace zebd
