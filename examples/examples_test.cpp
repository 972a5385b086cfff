/* The examples, run as programs. The daemon is the test's: it hands what one program sends to the other. */
#include "addresses.h"
#include "environment.h"
#include "fake_daemon.h"
#include "process.h"

#include <gtest/gtest.h>

namespace
{

using namespace zebtest;

/* The value of the header NAME in HEAD; "<none>" without one. */
std::string header(const std::string &head, const std::string &name)
{
    const size_t at = head.find("\r\n" + name + ": ");
    if (at == std::string::npos)
        return "<none>";
    const size_t begin = at + name.size() + 4;
    return head.substr(begin, head.find("\r\n", begin) - begin);
}

/* What a program has sent. */
struct event {
    std::string head;
    std::string body;
    std::string addresses;
};

event read_event(peer &p, place where = {__builtin_FILE(), __builtin_LINE()})
{
    event e;
    e.head = p.read_head(where);
    if (e.head.rfind("POST /event HTTP/1.1\r\n", 0) != 0)
        script_fails(where, "no event, but\n" + shown(e.head));
    e.body = p.read_bytes(std::stoul(header(e.head, "Content-Length")), where);
    e.addresses = p.read_bytes(std::stoul(header(e.head, "AddrList-Length")), where);
    return e;
}

/* An event for subscriber 1 of a program. PROPERTIES are whole lines; STREAMKEY, when there is one, too. */
std::string delivery(const std::string &cls, const std::string &type,
                     const std::vector<std::string> &properties, const std::string &body,
                     const std::string &addresses = "", const std::string &streamkey = "")
{
    const std::string list = addresses.empty() ? "" : block_signature() + addresses;
    std::string text =
        lines({"POST /event HTTP/1.1", "className: " + cls, "SubscriberID: 1", "eventType: " + type,
               "eventId: node1:911", "creationTime: 1111", "deliveryTime: 2222"});
    if (cls == "MessageNotification" || cls == "IncomingStreamingNotification") {
        text += lines({"affectedComponents: ", "affectedNodes: ", "generatingComponent: other",
                       "generatingProcess: node1:9", "generatingNode: node1", "instanceName: east",
                       "LocalOnly: false", "numberOfProperties: " + std::to_string(properties.size())});
        for (const std::string &property : properties)
            text += property + "\r\n";
        text += streamkey;
    }
    return text +
           lines({"Content-Length: " + std::to_string(body.size()),
                  "AddrList-Length: " + std::to_string(list.size()), ""}) +
           body + list;
}

/* The delivery TEXT for subscriber 2 instead. */
std::string for_second(std::string text)
{
    const std::string first = "SubscriberID: 1\r\n";
    return text.replace(text.find(first), first.size(), "SubscriberID: 2\r\n");
}

class examples : public testing::Test
{
  protected:
    examples()
    {
        clean_environment();
        configure(home.path(), daemon.port());
    }

    /* Starts a program of this build. */
    static void start(process::running &program, const std::string &name, process::arguments arguments = {})
    {
        arguments.insert(arguments.begin(), EXAMPLES_DIR "/" + name);
        process::start(program, arguments);
    }

    /* The next connection, after its handshake. */
    peer connected(place where = {__builtin_FILE(), __builtin_LINE()})
    {
        peer p = daemon.accept(where);
        const std::string head = p.read_head(where);
        if (head.rfind("POST /connect HTTP/1.1\r\n", 0) != 0)
            script_fails(where, "no handshake, but\n" + shown(head));
        p.send(handshakeReply);
        return p;
    }

    /* The subscription of the program, which is agreed to. */
    static std::string subscribed(peer &p, place where = {__builtin_FILE(), __builtin_LINE()})
    {
        std::string head = p.read_head(where);
        if (head.rfind("POST /subscribe HTTP/1.1\r\n", 0) != 0)
            script_fails(where, "no subscription, but\n" + shown(head));
        p.send_lines({"POST /status HTTP/1.1", "Result: success",
                      "SubscriberID: " + header(head, "SubscriberID"), "Message: subscribed", ""});
        return head;
    }

    temporary_home home;
    fake_daemon daemon;
};

/* What PROGRAM has written when it has ended, and its exit code. */
std::string ended(process::running &program)
{
    const int code = process::finish(program);
    return program.outText + "(" + std::to_string(code) + ")" + program.errText;
}

TEST_F(examples, callbacks_prints_as_many_as_it_is_told)
{
    process::running program;
    start(program, "callbacks", {"2"});
    peer p = connected();
    EXPECT_EQ(header(subscribed(p), "Subscription"), "\"@type=/hello\"");
    p.send(delivery("MessageNotification", "/hello", {}, "one"));
    p.send(delivery("MessageNotification", "/hello", {}, ""));
    EXPECT_EQ(ended(program), "/hello: one\n/hello: \n(0)");
    p.expect_lines({"POST /unsubscribe HTTP/1.1", "Content-Length: 0", "SubscriberID: 1", ""});
    p.expect_close();
}

const elements oldest = {{"id", "5"}, {"key", "node1:5"}, {"address", "ADDR5"}};

TEST_F(examples, group_state_alone_counts_from_zero)
{
    process::running program;
    start(program, "group_state", {"2"});
    peer p = connected();
    const std::string head = subscribed(p);
    EXPECT_EQ(header(head, "Subscription"), "\"@type=/group/add\"");
    EXPECT_EQ(header(head, "MbrInterest"), "\"group=adders\"");
    EXPECT_EQ(header(head, "MbrDeltas"), "false");
    EXPECT_EQ(header(head, "group"), "adders");
    p.send(delivery("MembershipListNotification", "/members", {}, ""));
    p.send(delivery("MessageNotification", "/group/add", {}, "5"));
    p.send(delivery("MessageNotification", "/group/add", {}, "-7"));
    EXPECT_EQ(ended(program), "sum: 5\nsum: -2\n(0)");
}

TEST_F(examples, group_state_joining_asks_the_oldest_and_answers_others)
{
    process::running program;
    start(program, "group_state", {"2"});
    peer p = connected();
    subscribed(p);
    p.send(delivery("MembershipListNotification", "/members", {}, "", address("mbrAddr0", oldest)));
    event e = read_event(p);
    EXPECT_EQ(header(e.head, "className"), "StateGetNotification");
    EXPECT_NE(e.addresses.find("ADDR5"), std::string::npos);
    p.send(delivery("MessageNotification", "/group/add", {}, "2"));
    p.send(delivery("StateSetNotification", "/ZEB/SYSTEM/STATESET", {}, "40"));
    p.send(delivery("StateGetNotification", "/ZEB/SYSTEM/STATEGET", {}, "", address("srcAddr", oldest)));
    e = read_event(p);
    EXPECT_EQ(header(e.head, "className"), "StateSetNotification");
    EXPECT_EQ(e.body, "40");
    p.send(delivery("MessageNotification", "/group/add", {}, "3"));
    EXPECT_EQ(ended(program), "not the sum yet: 2\nsum: 40\nsum: 43\n(0)");
}

TEST_F(examples, group_state_joins_again_after_a_loss)
{
    process::running program;
    start(program, "group_state", {"1"});
    peer p = connected();
    subscribed(p);
    p.close();
    p = connected();
    EXPECT_EQ(header(subscribed(p), "SubscriberID"), "2"); /* a new subscriber */
    p.send(for_second(delivery("MembershipListNotification", "/members", {}, "")));
    p.send(for_second(delivery("MessageNotification", "/group/add", {}, "5")));
    EXPECT_EQ(ended(program), "sum: 5\n(0)");
}

TEST_F(examples, stream_receives_what_stream_sends)
{
    std::string whole;
    for (int i = 0; i < 10000; i++)
        whole += static_cast<char>(i * 7);
    process::running receiver;
    start(receiver, "stream", {"receive", "/backup"});
    peer to = connected();
    EXPECT_EQ(header(subscribed(to), "Subscription"), "\"@type=/backup\"");
    process::running sender;
    start(sender, "stream", {"send", "/backup"});
    peer from = connected();
    ASSERT_EQ(write(sender.in, whole.data(), whole.size()), static_cast<ssize_t>(whole.size()));
    close(sender.in);
    sender.in = -1;
    std::string passed;
    for (event e = read_event(from);; e = read_event(from)) {
        EXPECT_EQ(header(e.head, "className"), "IncomingStreamingNotification");
        EXPECT_EQ(header(e.head, "eventType"), "/backup");
        EXPECT_EQ(header(e.head, "name"), "standard input");
        to.send(delivery("IncomingStreamingNotification", "/backup", {"name: standard input"}, e.body, "",
                         "streamKey: " + header(e.head, "streamKey") + "\r\n"));
        passed += e.body;
        if (e.body.empty())
            break;
    }
    EXPECT_TRUE(passed == whole);
    EXPECT_EQ(ended(sender), "(0)");
    EXPECT_TRUE(ended(receiver) == whole + "(0)stream: standard input\n");
}

const elements servers = {{"id", "1"}, {"key", "node1:1"}, {"address", "SERVER"}};
const elements client = {{"id", "2"}, {"key", "node1:2"}, {"address", "CLIENT"}};

/* A server of remote_call, a client that calls it with NUMBERS, and the daemon that knows both. */
class examples_remote_call : public examples
{
  protected:
    std::string called_with(const std::string &numbers)
    {
        process::running serving;
        start(serving, "remote_call", {"serve"});
        peer s = connected();
        EXPECT_EQ(header(subscribed(s), "/ZEB/RPC/SVR"), "adder");
        process::running calling;
        start(calling, "remote_call", {numbers});
        peer c = connected();
        EXPECT_EQ(header(subscribed(c), "MbrInterest"), "(\"/ZEB/RPC/SVR=adder\")");
        c.send(delivery("MembershipDeltaNotification", "/members", {}, "",
                        address("addAddr0", servers, {{"/ZEB/RPC/SVR", "adder"}})));
        pass(c, s, {"NAM", "CID", "ARG"}, address("srcAddr", client));
        while (!pass(s, c, {"CID", "ISR", "ERR"}, address("srcAddr", servers, {{"/ZEB/RPC/SVR", "adder"}})))
            continue;
        std::string told = ended(calling);
        EXPECT_EQ(ended(serving), "(0)"); /* its input has ended */
        return told;
    }

  private:
    /* Hands the next event of FROM to TO with the given ones of its properties; true when it was final. */
    static bool pass(peer &from, peer &to, std::initializer_list<const char *> names,
                     const std::string &source)
    {
        const event e = read_event(from);
        EXPECT_NE(e.addresses, ""); /* it is for somebody */
        std::vector<std::string> properties;
        for (const char *name : names) {
            const std::string value = header(e.head, "/ZEB/RPC/" + std::string(name));
            if (value != "<none>")
                properties.push_back("/ZEB/RPC/" + std::string(name) + ": " + value);
        }
        to.send(delivery("MessageNotification", header(e.head, "eventType"), properties, e.body, source));
        return header(e.head, "/ZEB/RPC/ISR") == "true";
    }
};

TEST_F(examples_remote_call, the_client_shows_progress_and_result)
{
    EXPECT_EQ(called_with("1 2 3"), "progress 1\nprogress 3\nresult 6\n(0)");
}

TEST_F(examples_remote_call, the_client_shows_an_error)
{
    EXPECT_EQ(called_with("no numbers"), "error 1 nothing to add\n(1)");
}

TEST_F(examples, body_block_reads_what_it_has_made)
{
    process::running program;
    start(program, "body_block");
    EXPECT_EQ(ended(program), "sda: state has 2 bytes\n"
                              "sda: serial has 3 bytes\n"
                              "sdb: state has 4 bytes\n"
                              "sdb: serial has 3 bytes\n"
                              "sdb is worn\n"
                              "Seg:sda\n"
                              "  state=ok\n"
                              "  serial=<binary-data>\n"
                              "  Seg:partition\n"
                              "    free=17\n"
                              "Seg:sdb\n"
                              "  state=worn\n"
                              "  serial=<binary-data>\n"
                              "  Seg:partition\n"
                              "    free=17\n"
                              "(0)");
}

TEST_F(examples, fork_publishes_from_parent_and_child)
{
    if (threadSanitizer || addressSanitizer)
        GTEST_SKIP() << "the sanitizers do not follow threads through a fork";
    process::running program;
    start(program, "fork");
    peer parent = connected();
    EXPECT_EQ(header(read_event(parent).head, "eventType"), "/fork/before");
    peer child = connected();
    EXPECT_EQ(header(read_event(child).head, "eventType"), "/fork/child");
    child.expect_close();
    EXPECT_EQ(header(read_event(parent).head, "eventType"), "/fork/after");
    EXPECT_EQ(ended(program), "(0)");
    parent.expect_close();
}

} // namespace
