/* What becomes of the others when something breaks. */
#include "daemon_and_actors.h"
#include "peer.h"

#include <algorithm>
#include <chrono>
#include <memory>
#include <thread>
#include <vector>

namespace
{

size_t count_of(const std::string &text, char wanted)
{
    return static_cast<size_t>(std::count(text.begin(), text.end(), wanted));
}

/* How many names stand in the brackets that follow TITLE. */
size_t names_in(const std::string &line, const std::string &title)
{
    const size_t begin = line.find(title + " [") + title.size() + 2;
    const std::string inside = line.substr(begin, line.find(']', begin) - begin);
    return inside.empty() ? 0 : count_of(inside, ',') + 1;
}

TEST_F(System, AClientThatIsKilledTakesItsAddressesAlong)
{
    actor watcher, victim;
    start(watcher);
    start(victim);
    watcher.subscribe("w", "/load", "(\"group=g\")", true);
    victim.subscribe("v", "-");
    EXPECT_EQ(watcher.hear("w added"), "w added [v] removed []");
    victim.tell({"load", "/load", "0"});
    EXPECT_EQ(watcher.hear("w message"), "w message /load 0");
    process::send_signal(victim, SIGKILL);
    EXPECT_EQ(watcher.hear("w added"), "w added [] removed [v]");
    watcher.tell({"pub", "/load", "from the survivor"});
    EXPECT_EQ(watcher.hear("w message /load from"), "w message /load from the survivor");
}

/* Clients come back by themselves; members are told that they have left, and form their group anew. */
TEST_F(System, ADaemonThatIsKilledUnderLoadIsFoundAgain)
{
    actor receiver, sender, first, second;
    for (actor *each : {&receiver, &sender, &first, &second})
        start(*each);
    receiver.subscribe("r", "/load");
    first.subscribe("a", "-", "(\"group=g\")");
    second.subscribe("b", "-", "(\"group=g\")", true);
    EXPECT_EQ(second.hear("b added"), "b added [r,a] removed []");
    sender.tell({"load", "/load", "1"});
    EXPECT_EQ(receiver.hear("r message"), "r message /load 0");

    const uint16_t port = daemon.port;
    process::send_signal(daemon, SIGKILL);
    EXPECT_EQ(process::finish(daemon), 128 + SIGKILL);
    EXPECT_EQ(first.hear("a leavegroup"), "a leavegroup");
    EXPECT_EQ(second.hear("b leavegroup"), "b leavegroup");
    process::poll_output(receiver);
    receiver.outText.clear();
    process::zebd successor;
    process::start_zebd(successor, options, {}, port);
    ASSERT_EQ(successor.port, port);

    EXPECT_EQ(receiver.hear("r message").substr(0, 15), "r message /load");
    first.tell({"close", "a"});
    second.tell({"close", "b"});
    first.subscribe("a2", "-", "(\"group=g\")");
    second.subscribe("b2", "-", "(\"group=g\")", true);
    EXPECT_EQ(second.hear("b2 added"), "b2 added [r,a2] removed []");
    EXPECT_EQ(first.hear("a2 list r,b2"), "a2 list r,b2");
}

/* A stopped process does not hold up the others. Going on, it finds its connection ended and comes back. */
TEST_F(System, ASubscriberThatIsStoppedHoldsNobodyUp)
{
    actor stopped, receiver, sender;
    start(stopped);
    start(receiver);
    start(sender);
    stopped.subscribe("s", "/big/**");
    receiver.subscribe("r", "/big/**");
    process::send_signal(stopped, SIGSTOP);
    const std::string piece(60000, 'x');
    for (int i = 0; i < 2000; i++) { /* 120 million octets, above every limit of one client */
        sender.tell({"pub", "/big/" + std::to_string(i), piece});
        if (i % 100 != 99)
            continue;
        const std::string begin = "r message /big/" + std::to_string(i) + " ";
        ASSERT_EQ(receiver.hear(begin).size(), begin.size() + piece.size());
    }
    EXPECT_TRUE(process::wait_for_err(daemon, " ended: ")) << daemon.errText.substr(0, 1000);
    process::send_signal(stopped, SIGCONT);
    std::string heard;
    for (int i = 0; i < 500 && heard.empty(); i++) { /* until it has subscribed again */
        sender.tell({"pub", "/big/again", ""});
        EXPECT_EQ(receiver.hear("r message /big/again"), "r message /big/again ");
        process::poll_output(stopped);
        if (stopped.find_line("s message /big/again") != std::string::npos)
            heard = stopped.hear("s message /big/again");
        else
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    EXPECT_EQ(heard, "s message /big/again ");
}

TEST_F(System, AThousandMembersJoinWithinASecondAndLeaveAtOnce)
{
    actor watcher, members;
    start(watcher);
    start(members);
    watcher.subscribe("w", "-", "(\"@component=system-test\")", true);
    members.tell({"many", "1000"});
    size_t added = 0, deltas = 0;
    while (added < 1000) {
        const std::string line = watcher.hear("w added");
        ASSERT_EQ(line.find("missing"), std::string::npos) << line;
        added += names_in(line, "added");
        deltas++;
    }
    EXPECT_EQ(added, 1000U);
    EXPECT_LT(deltas, 200U);
    process::send_signal(members, SIGKILL);
    EXPECT_EQ(names_in(watcher.hear("w added"), "removed"), 1000U);
}

size_t occurrences(const std::string &text, const std::string &wanted)
{
    size_t count = 0;
    for (size_t at = text.find(wanted); at != std::string::npos; at = text.find(wanted, at + 1))
        count++;
    return count;
}

/* Each member has a connection of its own and is told of each other member once, and never of itself. */
TEST_F(System, HundredsOfMembersThatWatchEachOtherAllLearnOfEachOther)
{
    static constexpr size_t count = 300;
    const std::string request =
        wire::with(wire::with(wire::subscribeWithProperties, "MbrInterest: (\"/ZEB/RPC/SVR=a\")",
                              "MbrInterest: (\"/ZEB/RPC/SVR\")"),
                   "Subscription: (\"@type=/a\")&(\"k: v=1\")", "Subscription: null");
    std::vector<std::unique_ptr<peer>> members;
    for (size_t i = 0; i < count; i++) {
        members.push_back(std::make_unique<peer>());
        ASSERT_TRUE(members.back()->join(daemon.port));
        ASSERT_TRUE(members.back()->say(request));
    }
    for (const auto &member : members) {
        while (occurrences(member->got, "addAddr") < count - 1)
            ASSERT_TRUE(member->more()) << occurrences(member->got, "addAddr") << " of " << count - 1;
        EXPECT_EQ(occurrences(member->got, "addAddr"), count - 1);
        EXPECT_EQ(occurrences(member->got, "delAddr"), 0U);
    }
    members[0]->hang_up();
    ASSERT_NE(members[1]->hear("delAddr0").find("delAddr0"), std::string::npos);
}

/* ---- Bytes that are not the protocol ---- */

std::string directed_event(const std::string &list)
{
    return wire::with(wire::messageEvent, "AddrList-Length: 0\r\n\r\nhe\r\nl",
                      "AddrList-Length: " + std::to_string(list.size()) + "\r\n\r\nhe\r\nl" + list);
}

/* Each of these ends its connection, whether it comes at once or octet by octet, and no other. */
TEST_F(System, MalformedBytesEndTheirOwnConnectionOnly)
{
    actor receiver;
    start(receiver);
    receiver.subscribe("r", "/app/**");
    const std::string lines[] = {
        "GET / HTTP/1.1\r\n\r\n",
        std::string("\0\0\0\0\r\n", 6),
        "POST /event HTTP/1.1\n",
        wire::with(wire::messageEvent, "MessageNotification", "Message"),
        wire::with(wire::messageEvent, "SubscriberID: 0", "SubscriberID: -1"),
        wire::with(wire::messageEvent, "SubscriberID: 0", "SubscriberID: 99999999999"),
        wire::with(wire::messageEvent, "numberOfProperties: 2", "numberOfProperties: 2147483647"),
        wire::with(wire::messageEvent, "numberOfProperties: 2", "numberOfProperties: 1"),
        wire::with(wire::messageEvent, "sev: 3", "sev=3"),
        wire::with(wire::messageEvent, "Content-Length: 5", "Content-Length: -5"),
        wire::with(wire::messageEvent, "Content-Length: 5", "Content-Length: 2147483647"),
        wire::with(wire::messageEvent, "Content-Length: 5", "Content-Length: 5x"),
        wire::with(wire::messageEvent, "AddrList-Length: 0", "AddrList-Length: 2147483647"),
        wire::with(wire::messageEvent, "LocalOnly: true", "LocalOnly: maybe"),
        wire::with(wire::subscribeEverything, "SubscriberID: 1", "SubscriberID: 0"),
        wire::with(wire::subscribeEverything, "MbrDeltas: false", "MbrDeltas: "),
        wire::with(wire::subscribeEverything, "Content-Length: 0", "Content-Length: 7"),
        std::string(wire::connect),
        directed_event("nonsense"),
        directed_event(std::string("\x00\xA3\x7C\x08\xE7\x78\xEE\x24\x5F\xD3\xB6\x4E", 12)),
        directed_event(std::string("\x00\xA3\x7C\x08\xE7\x78\xEE\x24\x5F\xD3\xB6\x4E\1\xff\xff", 15)),
    };
    for (const std::string &line : lines) {
        ASSERT_NE(line, "NOTHING TO REPLACE");
        for (const bool slowly : {false, true}) {
            peer hostile;
            ASSERT_TRUE(hostile.join(daemon.port));
            for (size_t at = 0; at < line.size(); at += slowly ? 1 : line.size())
                hostile.say(std::string_view(line).substr(at, slowly ? 1 : line.size()));
            EXPECT_TRUE(hostile.hear_end()) << line;
        }
    }
    peer endless;
    ASSERT_TRUE(endless.join(daemon.port));
    const std::string filler(100000, 'x');
    for (int i = 0; i < 100 && endless.say(filler); i++) {
    }
    EXPECT_TRUE(endless.hear_end());
    receiver.tell({"pub", "/app/still", "here"});
    EXPECT_EQ(receiver.hear("r "), "r message /app/still here");
}

TEST_F(System, AClientThatVanishesInTheMiddleOfAMessageLeavesNothingBehind)
{
    actor receiver;
    start(receiver);
    receiver.subscribe("r", "/app/**");
    for (size_t length = 1; length < wire::messageEvent.size(); length += 7) {
        peer broken;
        ASSERT_TRUE(broken.join(daemon.port));
        ASSERT_TRUE(broken.say(wire::messageEvent.substr(0, length)));
        broken.hang_up();
    }
    receiver.tell({"pub", "/app/next", "whole"});
    EXPECT_EQ(receiver.hear("r "), "r message /app/next whole");
}

} // namespace
