/* Telling is done by entry, that is by distinct interest. A telling holds what has changed for one entry and
 * the lists made out for it so far, so that watchers that know equally much share them. */
#include "membership.h"

#include <algorithm>
#include <iterator>
#include <map>
#include <optional>

namespace zebd
{

/* ---- Pace ---- */

/* After a full list its watcher is left alone for half a millisecond for each address in it. Below a hundred
 * addresses that is no longer than changes are gathered anyway. */
static constexpr size_t unpacedLength = 100;

static void forget_pace(membership &members, uint64_t watcher)
{
    const auto at = members.paced.find(watcher);
    if (at == members.paced.end())
        return;
    members.owed -= at->second.owed ? 1 : 0;
    members.paced.erase(at);
}

static void begin_pace(membership &members, const member_context &context, uint64_t watcher, size_t length)
{
    forget_pace(members, watcher);
    if (length > unpacedLength)
        members.paced[watcher] = {context.now, context.now + static_cast<int64_t>(length / 2),
                                  context.lastSerial, false};
}

/* A clock that was set back ends the wait. */
static bool has_to_wait(const membership &members, const member_context &context, uint64_t watcher)
{
    const auto at = members.paced.find(watcher);
    return at != members.paced.end() && context.now >= at->second.since && context.now < at->second.until;
}

static void owe(membership &members, uint64_t watcher)
{
    paced_watcher &paced = members.paced[watcher];
    members.owed += paced.owed ? 0 : 1;
    paced.owed = true;
}

static bool is_owed(const membership &members, uint64_t watcher)
{
    const auto at = members.paced.find(watcher);
    return at != members.paced.end() && at->second.owed;
}

/* ---- Joining and leaving ---- */

/* A note that has been begun goes on without watchers, so that every joining in it has its leaving. */
static bool takes_notes(const membership &members)
{
    return !members.interests.filed.empty() || !members.log.empty();
}

void membership_join(membership &members, const subscriber &member, subscription interest)
{
    address_index_add(members.addresses, member);
    if (interest.scope != subscription::scope_t::nothing) {
        index_add(members.interests, member.serial, std::move(interest));
        members.fresh.insert(member.serial);
    }
    if (!takes_notes(members))
        return;
    members.joinedAt.emplace(member.serial, members.log.size());
    members.log.push_back({member.serial, nullptr});
}

void membership_leave(membership &members, subscriber gone)
{
    address_index_remove(members.addresses, gone);
    index_remove(members.interests, gone.serial);
    members.fresh.erase(gone.serial);
    members.told.erase(gone.serial);
    forget_pace(members, gone.serial);
    if (!takes_notes(members))
        return;
    members.leftAt.emplace(gone.serial, members.log.size());
    members.log.push_back({gone.serial, std::make_unique<subscriber>(std::move(gone))});
}

bool membership_pending(const membership &members)
{
    return !members.fresh.empty() || !members.log.empty() || members.owed > 0;
}

/* ---- Looking members up ---- */

/* The member that a note is about. One that joined and left again is found where its leaving is noted. */
static const subscriber &member_of(const membership &members, const member_context &context,
                                   const member_change &change)
{
    if (change.gone != nullptr)
        return *change.gone;
    const auto left = members.leftAt.find(change.serial);
    return left != members.leftAt.end() ? *members.log[left->second].gone
                                        : context.subscribers.at(change.serial);
}

static bool satisfies(const subscriber &member, const subscription &interest, const member_context &context)
{
    std::vector<property_view> properties;
    return subscription_matches(interest, address_subject(member, context.identity, properties));
}

/* A member as interests see it. */
struct member_view {
    const subscriber *member = nullptr;
    std::vector<property_view> properties;
    subject what;
};

/* Everybody, oldest first. Where many interests ask all members in one flush, these are looked up once. */
using assembly = std::vector<member_view>;

static void assemble(assembly &all, const member_context &context)
{
    if (!all.empty())
        return;
    all.reserve(context.subscribers.size());
    for (const auto &[serial, member] : context.subscribers)
        all.push_back({&member, {}, {}});
    std::sort(all.begin(), all.end(), [](const member_view &left, const member_view &right) {
        return left.member->serial < right.member->serial;
    });
    for (member_view &each : all)
        each.what = address_subject(*each.member, context.identity, each.properties);
}

/* Everybody that satisfies INTEREST, oldest first. */
static std::vector<const subscriber *> find_members(membership &members, const member_context &context,
                                                    const subscription &interest, assembly &all)
{
    std::vector<uint64_t> candidates;
    std::vector<const subscriber *> found;
    if (address_index_find(members.addresses, interest, candidates)) {
        members.asked += candidates.size();
        for (const uint64_t serial : candidates)
            if (const subscriber &member = context.subscribers.at(serial);
                satisfies(member, interest, context))
                found.push_back(&member);
        return found;
    }
    assemble(all, context);
    members.asked += all.size();
    for (const member_view &each : all)
        if (subscription_matches(interest, each.what))
            found.push_back(each.member);
    return found;
}

/* ---- Telling ---- */

struct shared_list {
    std::shared_ptr<const encoded_event> encoded; /* null until somebody needs it */
    std::vector<address_place> places;            /* those of current members, by serial */
    size_t count = 0;
};

/* What is new for watchers that know the log up to some place. */
struct news {
    std::vector<const subscriber *> added, removed;
    shared_list list;
};

struct telling {
    membership &members;
    const member_context &context;
    const index_entry &entry;
    assembly &all;
    std::vector<size_t> changes; /* places in the log that concern this interest, ascending */
    shared_list everybody, everybodyAdded;
    std::map<size_t, news> since;
};

static void add_all(address_list &list, std::string_view role, const std::vector<const subscriber *> &some)
{
    for (const subscriber *one : some)
        address_list_add(list, role, *one);
}

static void encode_list(shared_list &shared, address_list &&list, size_t current)
{
    auto encoded = std::make_shared<encoded_event>();
    shared.count = list.places.size();
    list.places.resize(current);
    shared.places = std::move(list.places);
    encoded->addresses = std::move(list.octets);
    shared.encoded = std::move(encoded);
}

static const shared_list &list_of_everybody(telling &t, bool asAdded)
{
    shared_list &shared = asAdded ? t.everybodyAdded : t.everybody;
    if (shared.encoded == nullptr) {
        const auto all = find_members(t.members, t.context, t.entry.sub, t.all);
        address_list list;
        add_all(list, asAdded ? roleAdded : roleMember, all);
        encode_list(shared, std::move(list), all.size());
    }
    return shared;
}

/* Who joined and left again since START is no news at all, so nobody is ever in both lists. */
static news &news_since(telling &t, size_t start)
{
    const auto [at, missing] = t.since.try_emplace(start);
    news &result = at->second;
    if (!missing)
        return result;
    const membership &m = t.members;
    for (auto place = std::lower_bound(t.changes.begin(), t.changes.end(), start); place != t.changes.end();
         ++place) {
        const member_change &change = m.log[*place];
        const subscriber *member = &member_of(m, t.context, change);
        const auto joined = m.joinedAt.find(change.serial);
        if (change.gone == nullptr && m.leftAt.count(change.serial) == 0)
            result.added.push_back(member);
        else if (change.gone != nullptr && (joined == m.joinedAt.end() || joined->second < start))
            result.removed.push_back(member);
    }
    return result;
}

static const shared_list &list_of_news(news &what)
{
    if (what.list.encoded == nullptr) {
        address_list list;
        add_all(list, roleAdded, what.added);
        add_all(list, roleRemoved, what.removed);
        encode_list(what.list, std::move(list), what.added.size());
    }
    return what.list;
}

/* Where the watcher's own address stands in a list; nowhere, usually. */
static slice own_place(const shared_list &list, uint64_t serial)
{
    const auto at =
        std::lower_bound(list.places.begin(), list.places.end(), serial,
                         [](const address_place &place, uint64_t wanted) { return place.serial < wanted; });
    return at != list.places.end() && at->serial == serial ? at->run : slice();
}

/* A delta with nothing in it is not sent; an empty list is, since it says something. */
static bool send_list(telling &t, const subscriber &watcher, const shared_list &list)
{
    const bool delta = watcher.request.deltas;
    const slice own = own_place(list, watcher.serial);
    const size_t left = list.count - (own.length > 0 ? 1 : 0);
    if (delta && left == 0)
        return true;
    slice leftOut = own;
    if (left == 0)
        leftOut = {0, static_cast<uint32_t>(list.encoded->addresses.size())};
    const member_notice notice{
        delta, t.context.identity.node + ":members:" + std::to_string(++t.members.notices), t.context.now};
    return t.context.out.send(t.context.out.context, watcher.connection,
                              outgoing_members(list.encoded, leftOut, watcher.request.id, notice));
}

static bool send_everybody(telling &t, const subscriber &watcher)
{
    const shared_list &list = list_of_everybody(t, watcher.request.deltas);
    if (!watcher.request.deltas)
        begin_pace(t.members, t.context, watcher.serial, list.count);
    return send_list(t, watcher, list);
}

/* How much of the log the watcher knows. */
static size_t known_log(const membership &members, uint64_t watcher)
{
    const auto early = members.told.find(watcher);
    return early != members.told.end() ? early->second : 0;
}

/* Returns false when the watcher's connection takes nothing any more. */
static bool tell(telling &t, const subscriber &watcher)
{
    if (t.members.fresh.count(watcher.serial) > 0 || is_owed(t.members, watcher.serial))
        return send_everybody(t, watcher);
    news &what = news_since(t, known_log(t.members, watcher.serial));
    if (what.added.empty() && what.removed.empty())
        return true;
    return watcher.request.deltas ? send_list(t, watcher, list_of_news(what)) : send_everybody(t, watcher);
}

/* The same, in the pace of the watcher; when POSTPONED, who waits for a list of everybody is owed it. */
static bool tell_in_time(telling &t, const subscriber &watcher, bool postponed)
{
    const bool waits =
        postponed ? !watcher.request.deltas : has_to_wait(t.members, t.context, watcher.serial);
    if (!waits)
        return tell(t, watcher);
    const news &what = news_since(t, known_log(t.members, watcher.serial));
    if (!what.added.empty() || !what.removed.empty())
        owe(t.members, watcher.serial);
    return true;
}

/* ---- Early ---- */

/* Whether WATCHER may not know yet that SOURCE has joined. Serials grow, so who came after a list has a
 * larger one than all that were there. */
static bool may_be_news(const membership &members, uint64_t watcher, const subscriber &source)
{
    const auto joined = members.joinedAt.find(source.serial);
    const auto paced = members.paced.find(watcher);
    const bool inLog = joined != members.joinedAt.end() && joined->second >= known_log(members, watcher);
    const bool isOwed = is_owed(members, watcher) && source.serial > paced->second.known;
    return inLog || isOwed || members.fresh.count(watcher) > 0;
}

static std::vector<size_t> changes_for(const membership &members, const member_context &context,
                                       const subscription &interest)
{
    std::vector<size_t> changes;
    for (size_t i = 0; i < members.log.size(); i++)
        if (satisfies(member_of(members, context, members.log[i]), interest, context))
            changes.push_back(i);
    return changes;
}

void membership_tell_before(membership &members, const member_context &context,
                            std::span<const uint64_t> watchers, const subscriber &source)
{
    assembly everybody;
    std::unordered_map<const index_entry *, std::optional<telling>> tellings; /* none: SOURCE is no news */
    for (const uint64_t serial : watchers) {
        const auto watcher = context.subscribers.find(serial);
        const auto filed = members.interests.filed.find(serial);
        if (watcher == context.subscribers.end() || filed == members.interests.filed.end() ||
            serial == source.serial || !may_be_news(members, serial, source))
            continue;
        const index_entry &entry = *filed->second.entry;
        const auto [at, missing] = tellings.try_emplace(&entry);
        if (missing && satisfies(source, entry.sub, context))
            at->second.emplace(telling{
                members, context, entry, everybody, changes_for(members, context, entry.sub), {}, {}, {}});
        if (!at->second)
            continue;
        tell(*at->second, watcher->second);
        members.fresh.erase(serial);
        members.told[serial] = members.log.size();
    }
}

/* ---- All ---- */

struct concern {
    std::vector<size_t> changes;
    std::vector<uint64_t> waiting; /* watchers that are told without any change */
};

using concerns = std::vector<std::pair<index_entry *, concern>>;

/* In an order that depends on what has happened, and on nothing else. */
static concerns find_concerns(membership &members, const member_context &context)
{
    std::unordered_map<index_entry *, concern> result;
    std::vector<property_view> properties;
    std::vector<index_entry *> entries;
    for (size_t i = 0; i < members.log.size(); i++) {
        const subscriber &member = member_of(members, context, members.log[i]);
        entries.clear();
        index_match_entries(members.interests, address_subject(member, context.identity, properties),
                            entries);
        for (index_entry *entry : entries)
            result[entry].changes.push_back(i);
    }
    for (const uint64_t serial : members.fresh)
        result[members.interests.filed.at(serial).entry].waiting.push_back(serial);
    for (const auto &[serial, paced] : members.paced)
        if (paced.owed && !has_to_wait(members, context, serial))
            result[members.interests.filed.at(serial).entry].waiting.push_back(serial);
    concerns all{std::make_move_iterator(result.begin()), std::make_move_iterator(result.end())};
    std::ranges::sort(all, {}, [](const auto &each) { return each.first->holders.front(); });
    return all;
}

/* How many members a flush may ask, give or take one list. It is a matter of some ten milliseconds. */
static constexpr size_t askedInOneFlush = 50000;

/* What has changed is known without asking anybody, so only full lists are postponed. A connection that does
 * not take a list is ending; making more lists for it would only cost time. */
static void tell_watchers(telling &t, const std::vector<uint64_t> &watchers,
                          std::unordered_set<connection_id> &ending)
{
    const bool postponed = t.members.asked >= askedInOneFlush;
    for (const uint64_t serial : watchers) {
        if (postponed && t.members.fresh.count(serial) > 0)
            continue; /* which it stays */
        const subscriber &watcher = t.context.subscribers.at(serial);
        if (ending.count(watcher.connection) == 0 && !tell_in_time(t, watcher, postponed))
            ending.insert(watcher.connection);
        t.members.fresh.erase(serial);
    }
}

void membership_flush(membership &members, const member_context &context)
{
    std::unordered_set<connection_id> ending;
    concerns all = find_concerns(members, context);
    /* Beginning each time at another place, so that nobody is always among the postponed. */
    if (!all.empty())
        std::rotate(all.begin(), all.begin() + static_cast<std::ptrdiff_t>(members.notices % all.size()),
                    all.end());
    members.asked = 0;
    assembly everybody;
    for (auto &[entry, concern] : all) {
        telling t{members, context, *entry, everybody, std::move(concern.changes), {}, {}, {}};
        tell_watchers(t, t.changes.empty() ? concern.waiting : entry->holders, ending);
    }
    members.log.clear();
    members.joinedAt.clear();
    members.leftAt.clear();
    members.told.clear();
}

} // namespace zebd
