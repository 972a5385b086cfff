/* Addresses, directed events and membership, without sockets. */
#include "addresslist.h"
#include "recorder.h"
#include "wire.h"

#include <gtest/gtest.h>
#include <set>

using namespace zebd;

namespace
{

/* One notice or event as a client would take it. */
struct taken_event {
    std::string header, body;
    std::vector<addresslist::entry> addresses;

    std::string line(const std::string &name) const
    {
        const size_t at = header.find("\r\n" + name + ": ");
        if (at == std::string::npos)
            return "ABSENT";
        const size_t begin = at + name.size() + 4;
        return header.substr(begin, header.find('\r', begin) - begin);
    }
};

taken_event read_event(const std::string &octets)
{
    taken_event result;
    const size_t end = octets.find("\r\n\r\n") + 4;
    result.header = octets.substr(0, end);
    const size_t body = static_cast<size_t>(std::atol(result.line("Content-Length").c_str()));
    result.body = octets.substr(end, body);
    EXPECT_EQ(octets.size() - end - body,
              static_cast<size_t>(std::atol(result.line("AddrList-Length").c_str())));
    result.addresses = addresslist::read(std::string_view(octets).substr(end + body));
    return result;
}

struct Membership : testing::Test {
    recorder out;
    engine routing = engineWith(out);
    std::string why;

    /* Registers a subscriber whose address has the property name=NAME. Returns its serial. */
    uint64_t up(connection_id connection, int32_t id, const std::string &name,
                const std::string &interest = "null", bool deltas = false)
    {
        subscribe_request request;
        request.id = id;
        request.subscription = "null";
        request.component = "comp-" + name;
        request.interest = interest;
        request.deltas = deltas;
        request.properties = {{"name", name}, {"kind", "test"}};
        EXPECT_TRUE(engine_up(routing, connection, request, why)) << why;
        return routing.lastSerial;
    }

    bool send(connection_id from, int32_t subscriber, const std::string &list,
              std::string_view text = wire::messageEvent)
    {
        std::string octets =
            wire::with(text, "SubscriberID: 0", "SubscriberID: " + std::to_string(subscriber));
        octets = wire::with(octets, "AddrList-Length: 0", "AddrList-Length: " + std::to_string(list.size()));
        message_reader reader;
        message_reader_feed(reader, wire::connect);
        message_reader_feed(reader, octets + list);
        message what;
        EXPECT_EQ(message_reader_next(reader, what), read_result::complete);
        EXPECT_EQ(message_reader_next(reader, what), read_result::complete) << reader.error;
        return engine_take(routing, from, std::get<std::shared_ptr<event>>(what), why);
    }

    std::string to(connection_id connection, uint64_t serial)
    {
        return addresslist::destinations({addresslist::octets(connection, serial)});
    }

    /* What a connection has got since the last call, in short: "list:a,b", "delta:+a-b" or "event:TYPE". */
    std::string heard(connection_id connection)
    {
        std::string all;
        for (const std::string &octets : out.drain(connection)) {
            const taken_event one = read_event(octets);
            const std::string cls = one.line("className");
            std::string text = "event:" + one.line("eventType");
            if (cls == "MembershipListNotification")
                text = "list:" + names(one, "mbrAddr", "");
            else if (cls == "MembershipDeltaNotification")
                text = "delta:" + names(one, "addAddr", "+") + names(one, "delAddr", "-");
            all += (all.empty() ? "" : " ") + text;
        }
        return all;
    }

    static std::string names(const taken_event &one, const std::string &role, const std::string &sign)
    {
        std::string text;
        for (const addresslist::entry &entry : one.addresses)
            if (entry.role.compare(0, role.size(), role) == 0)
                text += (text.empty() || !sign.empty() ? sign : ",") + entry.at("properties/name");
        return text;
    }
};

TEST_F(Membership, WatchersAreToldInTheOrderInWhichTheyCame)
{
    constexpr int watchers = 50;
    for (int id = 1; id <= watchers; id++)
        up(4, id, "watcher", "\"name=a\"|\"name=" + std::to_string(id) + "\"");
    engine_flush(routing);
    for (const char *round : {"first list", "change"}) {
        const std::vector<std::string> told = out.drain(4);
        ASSERT_EQ(told.size(), static_cast<size_t>(watchers)) << round;
        const int first = std::stoi(read_event(told[0]).line("SubscriberID")); /* another one each time */
        for (int i = 0; i < watchers; i++)
            EXPECT_EQ(read_event(told[static_cast<size_t>(i)]).line("SubscriberID"),
                      std::to_string((first - 1 + i) % watchers + 1))
                << round;
        up(3, 1, "a");
        engine_flush(routing);
    }
}

/* ---- Addresses ---- */

TEST_F(Membership, AnAddressTellsAllThatIsKnownOfASubscriber)
{
    const uint64_t serial = up(3, 9, "a");
    up(4, 1, "watcher", "\"name=a\"");
    engine_flush(routing);
    const taken_event list = read_event(out.drain(4).at(0));
    EXPECT_EQ(list.line("className"), "MembershipListNotification");
    EXPECT_EQ(list.line("SubscriberID"), "1");
    EXPECT_EQ(list.line("Content-Length"), "0");
    EXPECT_EQ(list.line("creationTime"), "2222");
    EXPECT_EQ(list.line("affectedComponents"), "ABSENT");
    ASSERT_EQ(list.addresses.size(), 1U);
    const addresslist::entry &a = list.addresses[0];
    EXPECT_EQ(a.role, "mbrAddr0");
    EXPECT_EQ(a.at("key"), "node1.77.3." + std::to_string(serial));
    EXPECT_EQ(a.at("address"), addresslist::octets(3, serial));
    EXPECT_EQ(a.at("id"), std::to_string(serial));
    EXPECT_EQ(a.at("component"), "comp-a");
    EXPECT_EQ(a.at("hostname"), "node1");
    EXPECT_EQ(a.at("instancename"), "east");
    EXPECT_EQ(a.at("subscription"), "null");
    EXPECT_EQ(a.at("properties/kind"), "test");
    EXPECT_EQ(a.at("tier"), "ABSENT");
}

TEST_F(Membership, EveryAddressFieldCanBeWatchedFor)
{
    const uint64_t serial = up(3, 9, "a");
    int32_t id = 0;
    for (const std::string text : {"\"@component=comp-a\"", "\"@host=node1\"&\"name=a\"",
                                   "\"@instance=east\"&\"name=a\"", "\"@subscription=null\"&\"name=a\"",
                                   "\"name~=a*\"", "\"name=a\"|\"name=b\"", "\"name=a\"&!\"zone\""})
        up(4, ++id, "watcher", text);
    up(4, ++id, "watcher", "\"@id=" + std::to_string(serial) + "\"");
    up(4, ++id, "watcher", "\"@key=node1.77.3." + std::to_string(serial) + "\"");
    engine_flush(routing);
    const std::string all = heard(4);
    EXPECT_EQ(all, "list:a list:a list:a list:a list:a list:a list:a list:a list:a");
}

TEST_F(Membership, ATextTooLongForAnAddressIsRefused)
{
    subscribe_request request;
    request.id = 1;
    request.subscription = request.interest = "null";
    request.properties = {{"p", std::string(65535, 'x')}};
    EXPECT_FALSE(engine_up(routing, 1, request, why));
    EXPECT_EQ(why, "E_LIMIT 0 a text of more than 65534 octets fits no address");
    request.properties = {{"p", std::string(65534, 'x')}};
    EXPECT_TRUE(engine_up(routing, 1, request, why)) << why;
}

TEST_F(Membership, AddressesAreLimitedOneByOneAndTogether)
{
    routing.limits.address = 400;
    routing.limits.kept = 10000;
    subscribe_request request;
    request.subscription = request.interest = "null";
    request.id = 1;
    request.component = std::string(400, 'x');
    EXPECT_FALSE(engine_up(routing, 1, request, why));
    EXPECT_EQ(why, "E_LIMIT 0 subscription, component and properties are too long for an address");
    request.component = std::string(100, 'x');
    bool accepted = true;
    for (request.id = 1; accepted && request.id < 10; request.id++)
        accepted = engine_up(routing, 1, request, why);
    EXPECT_FALSE(accepted);
    EXPECT_EQ(why, "E_LIMIT 0 all subscribers together take too much memory");
    engine_connection_gone(routing, 1);
    EXPECT_EQ(engine_octets(routing), 0U);
    EXPECT_TRUE(engine_up(routing, 1, request, why)) << why;
}

/* ---- Directed events ---- */

TEST_F(Membership, ADirectedEventGoesToItsDestinationsAndNobodyElse)
{
    const uint64_t first = up(1, 1, "a"), second = up(2, 7, "b");
    up(3, 1, "c");
    subscribe_request everything;
    everything.id = 1;
    everything.interest = "null";
    ASSERT_TRUE(engine_up(routing, 4, everything, why));
    EXPECT_TRUE(send(
        9, 0, addresslist::destinations({addresslist::octets(2, second), addresslist::octets(1, first)})));
    EXPECT_EQ(heard(1), "event:/app/disk/full");
    EXPECT_EQ(heard(2), "event:/app/disk/full");
    EXPECT_EQ(heard(3) + heard(4), "");
    EXPECT_EQ(routing.counters.delivered, 2U);
}

TEST_F(Membership, ADirectedEventOfAnyClassArrives)
{
    const uint64_t serial = up(1, 5, "a");
    const std::string list = to(1, serial);
    for (const char *name : {"MembershipListNotification", "MembershipDeltaNotification",
                             "StateGetNotification", "StateSetNotification", "LeaveGroupNotification"}) {
        const std::string text =
            wire::with(wire::with(wire::with(wire::stateEvent, "StateSetNotification", name), "okADDR", "ok"),
                       "SubscriberID: 3\r\n", "SubscriberID: 0\r\n");
        EXPECT_TRUE(send(9, 0, list, wire::with(text, "AddrList-Length: 4", "AddrList-Length: 0"))) << why;
        const taken_event got = read_event(out.drain(1).at(0));
        EXPECT_EQ(got.line("className"), name);
        EXPECT_EQ(got.body, "ok");
        EXPECT_EQ(got.line("SubscriberID"), "5");
    }
    EXPECT_TRUE(send(9, 0, list, wire::streamPiece));
    EXPECT_TRUE(send(9, 0, list, wire::with(wire::bareEvent, "Message", "OutgoingStreaming")));
    EXPECT_EQ(out.drain(1).size(), 2U);
    EXPECT_TRUE(routing.connections.find(9) == routing.connections.end());
}

TEST_F(Membership, ADirectedEventNamesItsSourceAndItsDestinations)
{
    const uint64_t sender = up(1, 4, "s"), first = up(2, 1, "a"), second = up(3, 1, "b");
    EXPECT_TRUE(send(
        1, 4, addresslist::destinations({addresslist::octets(2, first), addresslist::octets(3, second)})));
    const taken_event got = read_event(out.drain(2).at(0));
    ASSERT_EQ(got.addresses.size(), 3U);
    EXPECT_EQ(got.addresses[0].role, "srcAddr");
    EXPECT_EQ(got.addresses[0].at("address"), addresslist::octets(1, sender));
    EXPECT_EQ(got.addresses[1].role, "dstAddr0");
    EXPECT_EQ(got.addresses[1].at("properties/name"), "a");
    EXPECT_EQ(got.addresses[2].role, "dstAddr1");
    EXPECT_EQ(got.addresses[2].at("key"), "node1.77.3." + std::to_string(second));
}

TEST_F(Membership, ABroadcastOfASubscriberNamesItsSourceAndThatOfAPlainPublisherNone)
{
    subscribe_request everything;
    everything.id = 2;
    everything.interest = "null";
    ASSERT_TRUE(engine_up(routing, 5, everything, why));
    up(1, 4, "s");
    EXPECT_TRUE(send(1, 4, ""));
    EXPECT_TRUE(send(1, 0, ""));
    EXPECT_TRUE(send(1, 99, "")); /* of no subscriber there is */
    const std::vector<std::string> got = out.drain(5);
    ASSERT_EQ(got.size(), 3U);
    ASSERT_EQ(read_event(got[0]).addresses.size(), 1U);
    EXPECT_EQ(read_event(got[0]).addresses[0].role, "srcAddr");
    EXPECT_TRUE(read_event(got[1]).addresses.empty());
    EXPECT_TRUE(read_event(got[2]).addresses.empty());
}

TEST_F(Membership, AnAddressThatIsGoneIsCountedAndTheOthersAreServed)
{
    const uint64_t first = up(1, 1, "a"), second = up(2, 1, "b");
    engine_down(routing, 1, 1);
    const std::string list = addresslist::destinations(
        {addresslist::octets(1, first), addresslist::octets(2, second), addresslist::octets(2, first),
         addresslist::octets(7, second), addresslist::octets(2, second, 78),
         addresslist::octets(2, second, 77, "n"), addresslist::octets(2, 1000), addresslist::octets(2, 0),
         std::string("\7 of a later version")});
    EXPECT_TRUE(send(9, 0, list)) << why;
    EXPECT_EQ(heard(1), "");
    EXPECT_EQ(heard(2), "event:/app/disk/full");
    EXPECT_EQ(routing.counters.addressGone, 8U);
}

TEST_F(Membership, ADestinationNamedTwiceGetsOneEvent)
{
    const uint64_t serial = up(1, 1, "a");
    EXPECT_TRUE(
        send(9, 0, addresslist::destinations(std::vector<std::string>(100, addresslist::octets(1, serial)))));
    EXPECT_EQ(heard(1), "event:/app/disk/full");
}

TEST_F(Membership, AReplacedSubscriberHasANewAddress)
{
    const uint64_t old = up(1, 1, "a"), fresh = up(1, 1, "b");
    EXPECT_NE(old, fresh);
    EXPECT_TRUE(send(9, 0, to(1, old)));
    EXPECT_EQ(heard(1), "");
    EXPECT_TRUE(send(9, 0, to(1, fresh)));
    EXPECT_EQ(heard(1), "event:/app/disk/full");
}

TEST_F(Membership, OnlyBroadcastMessagesMayBeDropped)
{
    std::vector<bool> droppable;
    routing.out = {&droppable,
                   [](void *context, connection_id, outgoing item) { // NOLINT
                       static_cast<std::vector<bool> *>(context)->push_back(item.droppable);
                       return true;
                   },
                   [](void *, uint32_t) {}};
    subscribe_request everything;
    everything.id = 1;
    ASSERT_TRUE(engine_up(routing, 1, everything, why));
    send(9, 0, "");
    send(9, 0, to(1, 1));
    send(9, 0, "", wire::streamPiece);
    engine_flush(routing);
    EXPECT_EQ(droppable, (std::vector<bool>{true, false, false, false}));
}

TEST_F(Membership, BroadcastAndDirectedEventsKeepTheirOrder)
{
    subscribe_request everything;
    everything.id = 1;
    everything.interest = "null";
    ASSERT_TRUE(engine_up(routing, 1, everything, why));
    for (int i = 0; i < 20; i++)
        send(9, 0, i % 3 == 0 ? to(1, 1) : "",
             wire::with(wire::messageEvent, "/app/disk/full", "/" + std::to_string(i)));
    std::string expected;
    for (int i = 0; i < 20; i++)
        expected += (i > 0 ? " event:/" : "event:/") + std::to_string(i);
    EXPECT_EQ(heard(1), expected);
}

TEST_F(Membership, VeryManyDestinationsAreNotAllTold)
{
    std::vector<std::string> all;
    for (uint64_t i = 1; i <= 1000; i++)
        all.push_back(addresslist::octets(i, up(i, 1, "member" + std::to_string(i))));
    EXPECT_TRUE(send(9, 0, addresslist::destinations(all)));
    const std::string got = out.drain(1000).at(0);
    EXPECT_LT(got.size(), 70000U);
    EXPECT_GT(read_event(got).addresses.size(), 100U);
}

/* ---- Broken lists ---- */

TEST_F(Membership, ABrokenListOfDestinationsIsRefusedWithItsReason)
{
    using namespace addresslist;
    up(1, 1, "a");
    const std::string good = element("address", octets(1, 1));
    const std::pair<std::string, std::string> cases[] = {
        {"ADDR", "no signature"},
        {signature, "nothing in it"},
        {signature + "\3xyz", "an unknown record"},
        {signature + good, "an element before the first address"},
        {signature + segment("dstAddr0"), "a destination without address"},
        {signature + segment("dstAddr0") + segment("dstAddr1") + good, "a destination without address"},
        {signature + segment("dstAddr0") + good + good, "a destination with two addresses"},
        {signature + segment("srcAddr") + good, "an address that is no destination"},
        {signature + segment("mbrAddr0") + good, "an address that is no destination"},
        {signature + segment("") + good, "an address that is no destination"},
        {signature + segment("dstAddr0", 1) + good, "a depth that skips one"},
        {signature + segment("dstAddr0") + good + segment("properties", 2), "a depth that skips one"},
        {signature + std::string("\1\0\0", 3), "a name without its end"},
        {signature + std::string("\1\0\2x", 4), "a text runs over its end"},
        {signature + std::string("\1\xff\xff", 3) + "dst", "a text runs over its end"},
        {signature + std::string("\1\0\2x\0", 5), "a depth is cut off"},
        {signature + "\1", "a length is cut off"},
        {signature + segment("dstAddr0") + good + std::string(1, '\0'), "an unknown record"},
        {signature + segment("dstAddr0") + good + "\2", "a length is cut off"},
        {signature + segment("dstAddr0") + element("address", ""), "an address of 0 octets is none"},
        {signature + segment("dstAddr0") + element("address", "\1too short"),
         "an address of 10 octets is none"},
    };
    for (const auto &[list, reason] : cases) {
        EXPECT_FALSE(send(9, 0, list)) << reason;
        EXPECT_NE(why.find(reason), std::string::npos) << why << " instead of " << reason;
    }
    EXPECT_EQ(heard(1), "");
}

/* Every list that is cut off, and every one with an octet changed, is either refused or understood. */
TEST_F(Membership, ASpoiledListOfDestinationsDoesNoHarm)
{
    const uint64_t serial = up(1, 1, "a");
    const std::string list = to(1, serial);
    for (size_t length = 1; length < list.size(); length++)
        send(9, 0, list.substr(0, length));
    for (size_t at = 0; at < list.size(); at++)
        for (const char octet : {'\0', '\1', '\2', '\x7f', '\xff'}) {
            std::string spoiled = list;
            spoiled[at] = octet;
            send(9, 0, spoiled);
        }
    out.sent.clear();
    EXPECT_TRUE(send(9, 0, list));
    EXPECT_EQ(heard(1), "event:/app/disk/full");
}

/* ---- Full lists ---- */

TEST_F(Membership, AWatcherGetsItsListAtTheBeginningEvenIfItIsEmpty)
{
    up(1, 1, "w", "");
    EXPECT_EQ(heard(1), "");
    EXPECT_EQ(out.wakes, (std::vector<uint32_t>{50}));
    engine_flush(routing);
    EXPECT_EQ(heard(1), "list:");
    engine_flush(routing);
    EXPECT_EQ(heard(1), "");
}

TEST_F(Membership, AFullListFollowsEveryChangeOldestFirst)
{
    up(1, 1, "w", "\"kind=test\"");
    engine_flush(routing);
    out.sent.clear();
    up(3, 1, "a");
    up(2, 1, "b");
    engine_flush(routing);
    EXPECT_EQ(heard(1), "list:a,b");
    up(4, 1, "c");
    engine_flush(routing);
    EXPECT_EQ(heard(1), "list:a,b,c");
    engine_down(routing, 2, 1);
    engine_flush(routing);
    EXPECT_EQ(heard(1), "list:a,c");
    engine_connection_gone(routing, 3);
    engine_connection_gone(routing, 4);
    engine_flush(routing);
    EXPECT_EQ(heard(1), "list:");
}

TEST_F(Membership, WithoutAnInterestNothingIsToldAndNothingIsGathered)
{
    up(1, 1, "a");
    up(2, 1, "b");
    engine_down(routing, 2, 1);
    EXPECT_TRUE(out.wakes.empty());
    EXPECT_FALSE(membership_pending(routing.members));
    EXPECT_TRUE(out.sent.empty());
}

TEST_F(Membership, AChangeThatDoesNotConcernAWatcherIsNotTold)
{
    up(1, 1, "w", "\"name=a\"");
    engine_flush(routing);
    out.sent.clear();
    up(2, 1, "b");
    engine_flush(routing);
    EXPECT_EQ(heard(1), "");
}

TEST_F(Membership, AMemberDoesNotSeeItself)
{
    up(1, 1, "a", "");
    up(2, 1, "b", "");
    up(3, 1, "c", "", true);
    engine_flush(routing);
    EXPECT_EQ(heard(1), "list:b,c");
    EXPECT_EQ(heard(2), "list:a,c");
    EXPECT_EQ(heard(3), "delta:+a+b");
    up(4, 1, "d", "", true);
    engine_flush(routing);
    EXPECT_EQ(heard(1), "list:b,c,d");
    EXPECT_EQ(heard(3), "delta:+d");
    EXPECT_EQ(heard(4), "delta:+a+b+c");
}

TEST_F(Membership, TwoSubscribersOfOneConnectionSeeEachOther)
{
    up(1, 1, "a", "");
    up(1, 2, "b", "");
    engine_flush(routing);
    EXPECT_EQ(heard(1), "list:b list:a");
}

/* ---- Deltas ---- */

TEST_F(Membership, TheFirstDeltaAddsEverybody)
{
    up(1, 1, "a");
    up(2, 1, "b");
    up(3, 1, "w", "\"name\"", true);
    engine_flush(routing);
    EXPECT_EQ(heard(3), "delta:+a+b");
    up(4, 1, "c");
    engine_down(routing, 1, 1);
    engine_flush(routing);
    EXPECT_EQ(heard(3), "delta:+c-a");
}

TEST_F(Membership, ADeltaWithNothingInItIsNotSent)
{
    up(1, 1, "w", "\"name=nobody\"", true);
    up(2, 1, "me", "\"name=me\"", true);
    engine_flush(routing);
    EXPECT_EQ(heard(1) + heard(2), "");
}

TEST_F(Membership, WhoComesAndGoesWithinOneGatheringIsNoNews)
{
    up(1, 1, "w", "", true);
    up(2, 1, "l", "");
    engine_flush(routing);
    out.sent.clear();
    up(3, 1, "a");
    engine_down(routing, 3, 1);
    engine_flush(routing);
    EXPECT_EQ(heard(1) + heard(2), "");
}

TEST_F(Membership, AReplacedMemberIsRemovedAndAddedUnderAnotherKey)
{
    up(3, 1, "a");
    up(1, 1, "w", "\"name=a\"", true);
    engine_flush(routing);
    out.sent.clear();
    up(3, 1, "a");
    engine_flush(routing);
    const taken_event delta = read_event(out.drain(1).at(0));
    ASSERT_EQ(delta.addresses.size(), 2U);
    EXPECT_EQ(delta.addresses[0].role, "addAddr0");
    EXPECT_EQ(delta.addresses[1].role, "delAddr0");
    EXPECT_NE(delta.addresses[0].at("key"), delta.addresses[1].at("key"));
}

TEST_F(Membership, ARemovedMemberIsToldWithItsProperties)
{
    up(3, 1, "a");
    up(1, 1, "w", "\"name=a\"", true);
    engine_flush(routing);
    out.sent.clear();
    engine_connection_gone(routing, 3);
    engine_flush(routing);
    EXPECT_EQ(heard(1), "delta:-a");
}

/* Joining, leaving, watching and telling at random: what each watcher makes of its deltas is, after every
 * flush, what a full list would say, and no delta names a key twice. */
TEST_F(Membership, DeltasAddUpToTheMembersThatAreThere)
{
    std::map<connection_id, std::set<std::string>> known;
    const auto take = [&](connection_id connection) {
        for (const std::string &octets : out.drain(connection)) {
            const taken_event one = read_event(octets);
            if (one.line("className") != "MembershipDeltaNotification")
                continue;
            std::set<std::string> named;
            for (const addresslist::entry &entry : one.addresses) {
                EXPECT_TRUE(named.insert(entry.at("key")).second);
                if (entry.role[1] == 'd')
                    EXPECT_TRUE(known[connection].insert(entry.at("key")).second);
                else
                    EXPECT_EQ(known[connection].erase(entry.at("key")), 1U);
            }
        }
    };
    srand(7);
    for (int turn = 0; turn < 3000; turn++) {
        const auto connection = static_cast<connection_id>(1 + rand() % 30);
        const int what = rand() % 10;
        if (what < 4) {
            known.erase(connection);
            out.sent.erase(connection);
            up(connection, 1, rand() % 2 == 0 ? "x" : "y", rand() % 3 == 0 ? "\"name=x\"" : "", true);
        } else if (what < 6) {
            engine_connection_gone(routing, connection);
            known.erase(connection);
            out.sent.erase(connection);
        } else if (what < 8 && !routing.subscribers.empty()) {
            const subscriber &target = routing.subscribers.begin()->second;
            send(connection, 1, to(target.connection, target.serial));
        } else {
            engine_flush(routing);
        }
        if (what != 9)
            continue;
        engine_flush(routing);
        for (const auto &[serial, watcher] : routing.subscribers) {
            take(watcher.connection);
            std::set<std::string> expected;
            for (const auto &[other, member] : routing.subscribers)
                if (other != serial &&
                    (watcher.request.interest.empty() || member.request.component == "comp-x"))
                    expected.insert(member.key);
            ASSERT_EQ(known[watcher.connection], expected) << "turn " << turn;
        }
    }
}

/* ---- Before directed events ---- */

TEST_F(Membership, AMemberIsKnownBeforeItsFirstDirectedEventArrives)
{
    const uint64_t delta = up(1, 1, "d", "", true), list = up(2, 1, "l", "");
    engine_flush(routing);
    out.sent.clear();
    up(3, 1, "new");
    up(4, 1, "newer");
    send(3, 1, addresslist::destinations({addresslist::octets(1, delta), addresslist::octets(2, list)}));
    EXPECT_EQ(heard(1), "delta:+new+newer event:/app/disk/full");
    EXPECT_EQ(heard(2), "list:d,new,newer event:/app/disk/full");
    engine_flush(routing);
    EXPECT_EQ(heard(1) + heard(2), "");
}

TEST_F(Membership, AWatcherIsToldEverybodyBeforeAMembersFirstDirectedEvent)
{
    up(1, 1, "a");
    up(2, 1, "other");
    const uint64_t watcher = up(3, 1, "w", "\"name=a\"", true);
    send(2, 1, to(3, watcher)); /* it does not watch for that one */
    EXPECT_EQ(heard(3), "event:/app/disk/full");
    send(1, 1, to(3, watcher));
    EXPECT_EQ(heard(3), "delta:+a event:/app/disk/full");
    engine_flush(routing);
    EXPECT_EQ(heard(3), "");
}

TEST_F(Membership, WhoWasToldEarlyIsToldTheRestLater)
{
    const uint64_t watcher = up(1, 1, "w", "\"name\"", true);
    up(2, 1, "v", "\"name\"", true);
    engine_flush(routing);
    out.sent.clear();
    up(3, 1, "a");
    send(3, 1, to(1, watcher));
    up(4, 1, "b");
    engine_down(routing, 3, 1);
    engine_flush(routing);
    EXPECT_EQ(heard(1), "delta:+a event:/app/disk/full delta:+b-a");
    EXPECT_EQ(heard(2), "delta:+b");
}

/* ---- Nobody left to tell ---- */

TEST_F(Membership, NotesSurviveThatAllWatchersLeave)
{
    up(1, 1, "w", "", true);
    up(2, 1, "a");
    engine_down(routing, 1, 1);
    engine_down(routing, 2, 1);
    up(3, 1, "b");
    up(4, 1, "v", "", true);
    engine_flush(routing);
    EXPECT_EQ(heard(4), "delta:+b");
    EXPECT_EQ(heard(1), "");
}

/* ---- Cost ---- */

TEST_F(Membership, WatchersWithEqualInterestsShareOneEncodedList)
{
    for (connection_id connection = 1; connection <= 10; connection++)
        up(connection, 1, "m", "\"kind=test\"");
    engine_flush(routing);
    ASSERT_EQ(out.encodings.size(), 10U);
    for (const auto &encoding : out.encodings)
        EXPECT_EQ(encoding, out.encodings[0]);
    out.encodings.clear();
    for (connection_id connection = 11; connection <= 20; connection++)
        up(connection, 1, "n", "\"kind=test\"", true);
    engine_flush(routing);
    EXPECT_EQ(
        std::set<std::shared_ptr<const encoded_event>>(out.encodings.begin(), out.encodings.end()).size(),
        2U); /* full lists and first deltas */
}

/* A thousand members that join within a second, told twenty times: a watcher with deltas gets each of them
 * once. */
TEST_F(Membership, AThousandJoinsCostAWatcherAThousandAddresses)
{
    up(1, 1, "w", "\"kind=test\"", true);
    engine_flush(routing);
    out.sent.clear();
    for (uint64_t i = 0; i < 1000; i++) {
        up(2 + i, 1, "member");
        if (i % 50 == 49)
            engine_flush(routing);
    }
    size_t octets = 0, addresses = 0;
    for (const std::string &item : out.drain(1)) {
        octets += item.size();
        addresses += read_event(item).addresses.size();
    }
    EXPECT_EQ(addresses, 1000U);
    EXPECT_LT(octets, 400U * 1000U);
}

/* One list for all whom an event is about to tell of its sender, not one for each of them. */
TEST_F(Membership, WatchersToldBeforeOneEventShareOneEncodedList)
{
    std::vector<std::string> addresses;
    for (connection_id connection = 1; connection <= 100; connection++)
        addresses.push_back(addresslist::octets(connection, up(connection, 1, "w", "\"kind=test\"")));
    engine_flush(routing);
    out.sent.clear();
    up(200, 1, "n");
    out.encodings.clear();
    send(200, 1, addresslist::destinations(addresses));
    EXPECT_EQ(out.encodings.size(), 200U);
    EXPECT_EQ(
        std::set<std::shared_ptr<const encoded_event>>(out.encodings.begin(), out.encodings.end()).size(),
        2U); /* the list and the event */
    for (connection_id connection = 1; connection <= 100; connection++)
        EXPECT_NE(heard(connection).find("w,n event:"), std::string::npos);
}

/* Who has a property is known, so a pattern for its value asks nobody else. */
TEST_F(Membership, APatternAsksOnlyThoseThatHaveTheProperty)
{
    for (int i = 0; i < 300; i++)
        up(1, i + 1, "m", "\"absent~=*" + std::to_string(i) + "\"");
    engine_flush(routing);
    EXPECT_EQ(out.sent[1].size(), 300U);
    EXPECT_EQ(routing.members.asked, 0U);
    EXPECT_TRUE(routing.members.addresses.properties.contains("name"));
    engine_connection_gone(routing, 1);
    EXPECT_TRUE(routing.members.addresses.properties.empty());
    EXPECT_TRUE(routing.members.addresses.components.present.empty());
}

/* A thousand interests that no table answers: each asks every member. */
struct CostlyMembership : Membership {
    static constexpr connection_id watchers = 1000;
    static constexpr size_t inOneFlush = 50000 + watchers;

    void SetUp() override
    {
        for (connection_id i = 1; i <= watchers; i++)
            up(i, 1, "w", "!(\"name=w\")&!(\"name=" + std::to_string(i) + "\")");
    }

    /* Flushes until nothing is pending. Returns how many flushes that took. */
    size_t flush_all()
    {
        size_t flushes = 0;
        while (membership_pending(routing.members) && flushes < 1000) {
            engine_flush(routing);
            EXPECT_LE(routing.members.asked, inOneFlush);
            flushes++;
        }
        return flushes;
    }

    void expect_all_heard(const std::string &expected)
    {
        for (connection_id i = 1; i <= watchers; i++)
            EXPECT_EQ(heard(i), expected) << i;
    }
};

TEST_F(CostlyMembership, ManyJoinsAreComparedWithManyInterestsInPortions)
{
    EXPECT_EQ(routing.members.interests.remainder, watchers);
    EXPECT_LT(routing.members.log.size(), 300U);
    EXPECT_FALSE(out.sent.empty());
}

TEST_F(CostlyMembership, FirstListsAreMadeInPortions)
{
    EXPECT_GT(flush_all(), 10U);
    expect_all_heard("list:");
}

TEST_F(CostlyMembership, ListsAfterAChangeAreMadeInPortionsWithTheLatest)
{
    flush_all();
    expect_all_heard("list:");
    up(5000, 1, "n");
    engine_flush(routing);
    EXPECT_TRUE(membership_pending(routing.members));
    up(5001, 1, "o");
    flush_all();
    size_t both = 0;
    for (connection_id i = 1; i <= watchers; i++) {
        const std::string all = heard(i);
        EXPECT_TRUE(all == "list:n,o" || all == "list:n list:n,o") << all;
        both += all == "list:n,o" ? 1 : 0;
    }
    EXPECT_GT(both, watchers / 2);
}

TEST_F(CostlyMembership, WhoIsPostponedStillKnowsAMemberBeforeItsEvent)
{
    engine_flush(routing);
    out.sent.clear();
    up(5000, 1, "n");
    engine_flush(routing);
    EXPECT_TRUE(membership_pending(routing.members));
    for (connection_id i = 1; i <= watchers; i++) {
        out.sent.erase(5000);
        send(5000, 1, to(i, i));
    }
    expect_all_heard("list:n event:/app/disk/full");
    flush_all();
    expect_all_heard("");
}

int64_t clockNow = 0;

int64_t settableClock()
{
    return clockNow;
}

struct PacedMembership : Membership {
    void SetUp() override
    {
        routing.now = settableClock;
        clockNow = 1000;
    }

    /* Members that join at once; the flush after them comes 50 ms later. */
    void join(connection_id first, uint64_t count)
    {
        for (uint64_t i = 0; i < count; i++)
            up(first + i, 1, "m");
        clockNow += 50;
        engine_flush(routing);
    }

    size_t addresses_heard(connection_id connection)
    {
        size_t count = 0;
        for (const std::string &item : out.drain(connection))
            count += read_event(item).addresses.size();
        return count;
    }
};

/* Twenty portions of fifty would make 10,500 addresses if each were followed by the whole list. */
TEST_F(PacedMembership, AThousandJoinsCostAFewTimesTheFinalList)
{
    up(1, 1, "w", "\"kind=test\"");
    for (uint64_t portion = 0; portion < 20; portion++)
        join(100 + portion * 50, 50);
    size_t heard = addresses_heard(1);
    while (membership_pending(routing.members) && clockNow < 10000) {
        clockNow += 50;
        engine_flush(routing);
        const size_t more = addresses_heard(1);
        EXPECT_TRUE(more == 0 || more == 1000) << more;
        heard += more;
    }
    EXPECT_LT(heard, 4500U);
    EXPECT_FALSE(membership_pending(routing.members));
}

TEST_F(PacedMembership, AnOwedListComesWhenItsTimeIsThereAndWithTheLatest)
{
    up(1, 1, "w", "\"name=m\"");
    join(100, 400);
    EXPECT_EQ(addresses_heard(1), 400U);
    out.wakes.clear();
    join(500, 1);
    EXPECT_EQ(addresses_heard(1), 0U);
    EXPECT_EQ(out.wakes, (std::vector<uint32_t>{50, 50})); /* for the change, and for what is owed */
    engine_down(routing, 500, 1);
    engine_down(routing, 499, 1);
    clockNow += 200;
    engine_flush(routing);
    EXPECT_EQ(addresses_heard(1), 399U);
    EXPECT_FALSE(membership_pending(routing.members));
}

TEST_F(PacedMembership, WhoIsOwedAListGetsItBeforeAnEventOfANewMember)
{
    const uint64_t watcher = up(1, 1, "w", "\"name=m\"");
    join(100, 400);
    out.sent.clear();
    join(500, 1);
    send(100, 1, to(1, watcher)); /* that one is known */
    EXPECT_EQ(out.sent[1].size(), 1U);
    out.sent.clear();
    send(500, 1, to(1, watcher));
    ASSERT_EQ(out.sent[1].size(), 2U);
    EXPECT_EQ(addresses_heard(1), 401U + 1 + 1); /* the list; source and destination of the event */
    clockNow += 1000;
    engine_flush(routing);
    EXPECT_EQ(addresses_heard(1), 0U);
}

TEST_F(PacedMembership, AClockThatIsSetBackHoldsNothingUp)
{
    up(1, 1, "w", "\"name=m\"");
    join(100, 400);
    out.sent.clear();
    clockNow -= 500000;
    join(500, 1);
    EXPECT_EQ(addresses_heard(1), 401U);
}

TEST_F(PacedMembership, AWatcherThatLeavesIsOwedNothing)
{
    up(1, 1, "w", "\"name=m\"");
    join(100, 400);
    join(500, 1);
    EXPECT_TRUE(membership_pending(routing.members));
    engine_connection_gone(routing, 1);
    engine_flush(routing);
    EXPECT_FALSE(membership_pending(routing.members));
    EXPECT_TRUE(routing.members.paced.empty());
}

/* Lists are not made for a connection that takes nothing any more. */
TEST_F(Membership, AConnectionThatEndsIsNotToldOn)
{
    size_t asked = 0;
    routing.out = {&asked,
                   [](void *context, connection_id, outgoing) { // NOLINT
                       ++*static_cast<size_t *>(context);
                       return false;
                   },
                   [](void *, uint32_t) {}};
    for (int32_t id = 1; id <= 100; id++)
        up(1, id, "m", "\"name=m\"|\"id=" + std::to_string(id) + "\"");
    engine_flush(routing);
    EXPECT_EQ(asked, 1U);
}

/* ---- Monitoring ---- */

TEST_F(Membership, TheObserverSeesReceiversAndDrops)
{
    struct seen_event {
        connection_id from = 0;
        std::vector<uint64_t> receivers;
        size_t dropped = 0;
    } seen;
    routing.watch = {
        &seen, [](void *context, connection_id from, const event &, std::span<const uint64_t> receivers,
                  size_t dropped) {
            *static_cast<seen_event *>(context) = {from, {receivers.begin(), receivers.end()}, dropped};
        }};
    const uint64_t serial = up(1, 1, "a");
    send(9, 0, to(1, serial));
    EXPECT_EQ(seen.from, 9U);
    EXPECT_EQ(seen.receivers, std::vector<uint64_t>{serial});
    EXPECT_EQ(seen.dropped, 0U);
    routing.out.send = [](void *, connection_id, outgoing) { return false; }; // NOLINT
    send(9, 0, to(1, serial));
    EXPECT_EQ(seen.dropped, 1U);
    EXPECT_EQ(routing.counters.dropped, 1U);
    EXPECT_EQ(routing.counters.delivered, 1U);
}

} // namespace
