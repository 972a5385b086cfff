/* Remote calls from the side of the client: whom it knows, what it asks, and what it makes of the answers. */
#include "rpc.h"

#include <atomic>
#include <sys/wait.h>
#include <thread>

namespace
{

using namespace zebtest;
using namespace std::string_literals;

constexpr char MISSING_CALLID[] = "RPC response missing property: /ZEB/RPC/CID\n";

std::string not_found(const std::string &callid)
{
    return "RPC response invocation not found: " + callid + "\n";
}

/* ---- Servers as the daemon knows them ---- */

std::string came(const std::string &id, const std::string &name = "a", int subscriber = 1)
{
    return membership("MembershipDeltaNotification", server_address("addAddr0", id, name), subscriber);
}

std::string left(const std::string &id, const std::string &name = "a")
{
    return membership("MembershipDeltaNotification", server_address("delAddr0", id, name));
}

/* ---- Requests as the library sends them ---- */

const std::string listBegin = "\x00\xA3\x7C\x08\xE7\x78\xEE\x24\x5F\xD3\xB6\x4E"s; /* signature */

/* The server 7 called "a", first of the list: without its key. */
const std::string toServer7 = "\x01\x00\x09"s
                              "dstAddr0\x00\x00"s
                              "\x02\x00\x02"s
                              "id\x00\x00\x01"s
                              "7\x00"s
                              "\x02\x00\x07"s
                              "address\x00\x00\x05"s
                              "ADDR7\x00"s
                              "\x01\x00\x0B"s
                              "properties\x00\x01"s
                              "\x02\x00\x0C"s
                              "/ZEB/RPC/SVR\x00\x00\x01"s
                              "a\x00"s;

/* The server 8 called "a", second of the list. */
const std::string toServer8 = "\x01\x00\x09"s
                              "dstAddr1\x00\x00"s
                              "\x02\x00\x02"s
                              "id\x00\x00\x01"s
                              "8\x00"s
                              "\x02\x00\x07"s
                              "address\x00\x00\x05"s
                              "ADDR8\x00"s
                              "\x01\x00\x0B"s
                              "properties\x00\x01"s
                              "\x02\x00\x0C"s
                              "/ZEB/RPC/SVR\x00\x00\x01"s
                              "a\x00"s;

/* SERIAL is what the id has behind the process; TO is one or both of the above. */
std::string request(std::string_view serial, const std::string &function, const std::string &callid,
                    const std::string &to, std::string_view body = "", int id = 1)
{
    const std::string list = listBegin + to;
    return lines({"POST /event HTTP/1.1", "className: MessageNotification",
                  "SubscriberID: " + std::to_string(id), "eventType: /ZEB/RPC/REQ",
                  "eventId: " + process_name() + std::string(serial), "affectedComponents: ",
                  "affectedNodes: ", "generatingComponent: comp", "generatingProcess: " + process_name(),
                  "generatingNode: " + host_name(), "instanceName: east", "LocalOnly: false",
                  "numberOfProperties: 3", "/ZEB/RPC/ARG: BYTE", "/ZEB/RPC/CID: " + callid,
                  "/ZEB/RPC/NAM: " + function, "Content-Length: " + std::to_string(body.size()),
                  "AddrList-Length: " + std::to_string(list.size()), ""}) +
           std::string(body) + list;
}

/* ---- Responses as the daemon brings them ---- */

std::string response(std::vector<std::string> properties, std::string_view body,
                     const std::string &serverid = "7", std::string_view id = "1")
{
    return rpc_event("/ZEB/RPC/RES", properties, body, server_address("srcAddr", serverid), id);
}

std::string result(const std::string &callid, std::string_view body, const std::string &serverid = "7")
{
    return response({"/ZEB/RPC/ISR: true", "/ZEB/RPC/CID: " + callid}, body, serverid);
}

std::string progress(const std::string &callid, std::string_view body, const std::string &serverid = "7")
{
    return response({"/ZEB/RPC/ISR: false", "/ZEB/RPC/CID: " + callid}, body, serverid);
}

std::string error(const std::string &callid, const std::string &code, std::string_view body,
                  const std::string &serverid = "7")
{
    return response({"/ZEB/RPC/ERR: " + code, "/ZEB/RPC/ISR: true", "/ZEB/RPC/CID: " + callid}, body,
                    serverid);
}

std::string subscription(uint32_t id, std::string_view interest)
{
    return lines({"POST /subscribe HTTP/1.1", "Content-Length: 0", "SubscriberID: " + std::to_string(id),
                  "Subscription: null", "Component: comp", "MbrInterest: " + std::string(interest),
                  "MbrDeltas: true", "numberOfProperties: 0", ""});
}

constexpr char INTEREST_A[] = "(\"/ZEB/RPC/SVR=a\")";

/* ---- What the application sees ---- */

/* Everything a response says, in one line; releases it. */
std::string told(zeb_rpcresponse *r)
{
    if (r == nullptr)
        return "<null>";
    int32_t length = -9;
    int32_t code = -9;
    const auto *data = static_cast<const char *>(zeb_rpcresponse_getdata(r, &length));
    const char *text = zeb_rpcresponse_geterror(r, &code);
    std::string all = zeb_rpcresponse_isresult(r) == 1 ? "final" : "progress";
    if (data != nullptr)
        all += " \"" + std::string(data, static_cast<size_t>(length)) + "\"" +
               (data[length] == '\0' ? "" : " without a NUL");
    else
        all += " no data " + std::to_string(length);
    all += " code " + std::to_string(code) + " text " + text_or_null(text);
    zeb_rpcresponse_destroy(&r);
    EXPECT_EQ(r, nullptr);
    return all;
}

/* A response without error, and one that is an error. */
std::string final_data(const std::string &data)
{
    return "final \"" + data + "\" code -1 text <null>";
}
std::string progress_data(const std::string &data)
{
    return "progress \"" + data + "\" code -1 text <null>";
}
std::string final_error(const std::string &code, const std::string &text)
{
    return "final no data 0 code " + code + " text " + text;
}
const std::string notLive = final_error("-2", "<null>");

std::string next(zeb_rpcinvocation *call)
{
    return told(zeb_rpcinvocation_getresponse(call, 1, 20000));
}

class calling_servers : public conversation
{
  protected:
    calling_servers() : p(connected()) {}
    ~calling_servers() override
    {
        zeb_laddrlist_destroy(&servers);
        zeb_rpcclient_destroy(&client);
        zeb_shutdown_nowait();
        EXPECT_TRUE(no_call_back_threads());
    }

    /* The client of the servers called NAMES. */
    void create(std::vector<const char *> names = {"a"}, std::string_view interest = INTEREST_A,
                place where = {__builtin_FILE(), __builtin_LINE()})
    {
        background creation([=]() mutable {
            return zeb_rpcclient_create(names.data(), static_cast<int32_t>(names.size()), "comp");
        });
        p.expect(subscription(1, interest), where);
        p.send(status_reply(1, "success"));
        client = creation.get(where);
        if (client == nullptr)
            script_fails(where, "the client was not created");
    }

    /* The client, with the servers 7 and, if wanted, 8 called "a" live and in SERVERS. */
    void create_with_servers(int count = 1, place where = {__builtin_FILE(), __builtin_LINE()})
    {
        create({"a"}, INTEREST_A, where);
        p.send(came("7"));
        if (count == 2)
            p.send(came("8"));
        servers = live(count, "a", where);
    }

    /* COUNT live servers of NAME, as soon as there are so many. */
    zeb_laddrlist *live(int count, const char *name = "a",
                        place where = {__builtin_FILE(), __builtin_LINE()}) const
    {
        zeb_laddrlist *list = nullptr;
        const bool there = eventually([&] {
            zeb_laddrlist_destroy(&list);
            list = zeb_rpcclient_getservers_wtimeout(client, name, 0, 0);
            return zeb_laddrlist_count(list) == count;
        });
        if (!there)
            script_fails(where, "the servers are not " + std::to_string(count));
        return list;
    }

    /* None of NAME is live any more. */
    bool none_live(const char *name = "a") const
    {
        return eventually([&] {
            zeb_laddrlist *list = zeb_rpcclient_getservers_wtimeout(client, name, 0, 0);
            const bool none = list == nullptr;
            zeb_laddrlist_destroy(&list);
            return none;
        });
    }

    zeb_rpcinvocation *invoke(const char *function = "f", std::string_view data = "") const
    {
        return zeb_rpcclient_invoke(client, function, servers, data.data(),
                                    static_cast<int32_t>(data.size()));
    }

    /* A call of f at server 7 whose request was read. */
    zeb_rpcinvocation *invoked(place where = {__builtin_FILE(), __builtin_LINE()})
    {
        zeb_rpcinvocation *call = invoke();
        p.expect(request("01", "f", "f:0", toServer7), where);
        return call;
    }

    peer p;
    zeb_rpcclient *client = nullptr;
    zeb_laddrlist *servers = nullptr;
};

/* ---- Creation ---- */

TEST_F(calling_servers, creation_needs_names_and_a_component)
{
    const char *names[] = {"a", "b"};
    const char *holes[] = {"a", nullptr};
    EXPECT_EQ(zeb_rpcclient_create(nullptr, 1, "comp"), nullptr);
    EXPECT_EQ(zeb_rpcclient_create(names, 0, "comp"), nullptr);
    EXPECT_EQ(zeb_rpcclient_create(names, -1, "comp"), nullptr);
    EXPECT_EQ(zeb_rpcclient_create(names, 2, nullptr), nullptr);
    EXPECT_EQ(zeb_rpcclient_create(holes, 2, "comp"), nullptr);
    EXPECT_EQ(sent_before_mark(p), "");
}

TEST_F(calling_servers, the_interest_in_one_name_is_one_piece)
{
    create({"a"}, "(\"/ZEB/RPC/SVR=a\")");
}

TEST_F(calling_servers, the_interest_in_two_names_has_parentheses_around_it)
{
    create({"a", "b"}, "((\"/ZEB/RPC/SVR=a\")|(\"/ZEB/RPC/SVR=b\"))");
}

TEST_F(calling_servers, the_interest_keeps_the_order_of_the_names)
{
    create({"storage", "b", "", "a"},
           "((\"/ZEB/RPC/SVR=storage\")|(\"/ZEB/RPC/SVR=b\")|(\"/ZEB/RPC/SVR=\")|(\"/ZEB/RPC/SVR=a\"))");
}

TEST_F(calling_servers, a_refused_creation_says_the_daemons_reason)
{
    const stderr_capture diagnostics;
    const char *names[] = {"a"};
    background creation([&] { return zeb_rpcclient_create(names, 1, "comp"); });
    p.expect(subscription(1, INTEREST_A));
    p.send(status_reply(1, "failure", "no clients today"));
    EXPECT_EQ(creation.get(), nullptr);
    EXPECT_EQ(diagnostics.text(), "RPC Client error: unable to create subscriber: no clients today\n");
    EXPECT_EQ(sent_before_mark(p), "");
}

TEST_F(calling_servers, a_refused_creation_without_a_reason_says_so)
{
    const stderr_capture diagnostics;
    const char *names[] = {"a"};
    background creation([&] { return zeb_rpcclient_create(names, 1, "comp"); });
    p.expect(subscription(1, INTEREST_A));
    p.send(status_reply(1, "failure"));
    EXPECT_EQ(creation.get(), nullptr);
    EXPECT_EQ(diagnostics.text(), "RPC Client error: unable to create subscriber: reason unknown\n");
}

TEST(calling_servers_without_a_runtime, creation_fails_and_says_so)
{
    const stderr_capture diagnostics;
    const char *names[] = {"a"};
    EXPECT_EQ(zeb_rpcclient_create(names, 1, "comp"), nullptr);
    EXPECT_EQ(diagnostics.text(), "RPC Client error: unable to create subscriber: reason unknown\n");
}

TEST_F(calling_servers, a_creation_that_waits_is_ended_by_a_shutdown)
{
    const stderr_capture diagnostics;
    const char *names[] = {"a"};
    background creation([&] { return zeb_rpcclient_create(names, 1, "comp"); });
    p.expect(subscription(1, INTEREST_A));
    EXPECT_EQ(zeb_shutdown(), 0);
    EXPECT_EQ(creation.get(), nullptr);
    EXPECT_EQ(diagnostics.text(), "RPC Client error: unable to create subscriber: reason unknown\n");
}

TEST_F(calling_servers, nothing_and_null_are_destroyed_without_harm)
{
    zeb_rpcclient_destroy(nullptr);
    zeb_rpcclient_destroy(&client);
    zeb_rpcinvocation *call = nullptr;
    zeb_rpcinvocation_destroy(nullptr);
    zeb_rpcinvocation_destroy(&call);
    zeb_rpcresponse *r = nullptr;
    zeb_rpcresponse_destroy(nullptr);
    zeb_rpcresponse_destroy(&r);
    zeb_rpclient_register_callback(); /* does nothing, under this name */
    EXPECT_EQ(sent_before_mark(p), "");
}

TEST_F(calling_servers, null_handles_give_the_failure_result)
{
    create_with_servers();
    int32_t length = 5;
    int32_t code = 5;
    EXPECT_EQ(zeb_rpcclient_getservers(nullptr, "a"), nullptr);
    EXPECT_EQ(zeb_rpcclient_getservers_wtimeout(nullptr, "a", 1, -1), nullptr);
    EXPECT_EQ(zeb_rpcclient_invoke(nullptr, "f", servers, "", 0), nullptr);
    EXPECT_EQ(zeb_rpcclient_invoke(client, "f", nullptr, "", 0), nullptr);
    EXPECT_EQ(zeb_rpcinvocation_isdone(nullptr), 0);
    EXPECT_EQ(zeb_rpcinvocation_getresponse(nullptr, 1, 0), nullptr);
    EXPECT_EQ(zeb_rpcresponse_getaddr(nullptr), nullptr);
    EXPECT_EQ(zeb_rpcresponse_getdata(nullptr, &length), nullptr);
    EXPECT_EQ(length, 0);
    EXPECT_EQ(zeb_rpcresponse_geterror(nullptr, &code), nullptr);
    EXPECT_EQ(code, -1);
    EXPECT_EQ(sent_before_mark(p), "");
}

/* ---- Servers ---- */

TEST_F(calling_servers, servers_come_and_go_by_their_addresses)
{
    create({"a", "b"}, "((\"/ZEB/RPC/SVR=a\")|(\"/ZEB/RPC/SVR=b\"))");
    EXPECT_EQ(zeb_rpcclient_getservers_wtimeout(client, "a", 0, 0), nullptr);
    p.send(came("7") + came("8") + came("9", "b") + came("10", "unknown"));
    servers = live(2);
    EXPECT_STREQ(zeb_logicaladdr_getProperty(zeb_laddrlist_get(servers, 1), "/ZEB/RPC/SVR"), "a");
    zeb_laddrlist *others = live(1, "b");
    EXPECT_EQ(zeb_laddrlist_get(others, 1), nullptr);
    EXPECT_EQ(zeb_rpcclient_getservers_wtimeout(client, "unknown", 0, 0), nullptr);
    p.send(left("7"));
    zeb_laddrlist *remaining = live(1);
    EXPECT_EQ(zeb_logicaladdr_equals(zeb_laddrlist_get(remaining, 0), zeb_laddrlist_get(servers, 1)), 1);
    p.send(left("8"));
    EXPECT_TRUE(none_live());
    zeb_laddrlist_destroy(&remaining);
    zeb_laddrlist_destroy(&others);
}

TEST_F(calling_servers, one_delta_may_add_and_remove_several)
{
    create();
    p.send(membership("MembershipDeltaNotification", server_address("addAddr0", "7") +
                                                         server_address("addAddr1", "8") +
                                                         server_address("addAddr2", "9")));
    servers = live(3);
    p.send(membership("MembershipDeltaNotification", server_address("addAddr0", "10") +
                                                         server_address("delAddr0", "7") +
                                                         server_address("delAddr1", "9")));
    zeb_laddrlist *remaining = live(2);
    EXPECT_EQ(zeb_logicaladdr_equals(zeb_laddrlist_get(remaining, 0), zeb_laddrlist_get(servers, 1)), 1);
    zeb_laddrlist_destroy(&remaining);
}

TEST_F(calling_servers, the_list_given_out_is_a_copy)
{
    create_with_servers();
    zeb_laddrlist_add(servers, zeb_laddrlist_get(servers, 0));
    zeb_laddrlist *again = live(1);
    zeb_laddrlist_destroy(&again);
}

TEST_F(calling_servers, asking_without_waiting_returns_at_once)
{
    create();
    const stopwatch watch;
    EXPECT_EQ(zeb_rpcclient_getservers_wtimeout(client, "a", 0, 0), nullptr);
    EXPECT_EQ(zeb_rpcclient_getservers_wtimeout(client, "a", 0, 60000), nullptr);
    EXPECT_EQ(zeb_rpcclient_getservers_wtimeout(client, "a", 0, -1), nullptr);
    EXPECT_LT(watch.elapsed(), stretched(milliseconds{500}));
}

TEST_F(calling_servers, a_name_that_the_client_does_not_have_is_not_waited_for)
{
    create();
    const stopwatch watch;
    EXPECT_EQ(zeb_rpcclient_getservers(client, "b"), nullptr);
    EXPECT_EQ(zeb_rpcclient_getservers(client, nullptr), nullptr);
    EXPECT_LT(watch.elapsed(), stretched(milliseconds{500}));
}

TEST_F(calling_servers, limits_below_a_second_do_not_wait)
{
    create();
    const stopwatch watch;
    for (const int32_t timeout : {1, 500, 999})
        EXPECT_EQ(zeb_rpcclient_getservers_wtimeout(client, "a", 1, timeout), nullptr);
    EXPECT_LT(watch.elapsed(), stretched(milliseconds{500}));
}

TEST_F(calling_servers, limit_of_2000_ms_ends_after_one_to_two_seconds)
{
    create();
    const stopwatch watch;
    EXPECT_EQ(zeb_rpcclient_getservers_wtimeout(client, "a", 1, 2000), nullptr);
    EXPECT_GE(watch.elapsed(), milliseconds{950});
    EXPECT_LE(watch.elapsed(), stretched(milliseconds{2500}));
}

TEST_F(calling_servers, the_first_server_ends_the_wait_of_all_threads)
{
    create();
    zeb_rpcclient *const mine = client;
    background plain([=] { return zeb_rpcclient_getservers(mine, "a"); });
    background limitless([=] { return zeb_rpcclient_getservers_wtimeout(mine, "a", 1, 0); });
    background limited([=] { return zeb_rpcclient_getservers_wtimeout(mine, "a", 1, 60000); });
    EXPECT_FALSE(plain.done_within(milliseconds{50}));
    EXPECT_FALSE(limitless.done_within(milliseconds{50}));
    EXPECT_FALSE(limited.done_within(milliseconds{50}));
    p.send(came("7"));
    for (zeb_laddrlist *list : {plain.get(), limitless.get(), limited.get()}) {
        EXPECT_EQ(zeb_laddrlist_count(list), 1);
        zeb_laddrlist_destroy(&list);
    }
}

/* A limited wait is a single one, which any change of the members ends. */
TEST_F(calling_servers, other_members_end_a_limited_wait_and_no_other)
{
    create({"a", "b"}, "((\"/ZEB/RPC/SVR=a\")|(\"/ZEB/RPC/SVR=b\"))");
    zeb_rpcclient *const mine = client;
    background limitless([=] { return zeb_rpcclient_getservers(mine, "a"); });
    background limited([=] { return zeb_rpcclient_getservers_wtimeout(mine, "a", 1, 60000); });
    EXPECT_FALSE(limited.done_within(milliseconds{50}));
    p.send(came("9", "b"));
    EXPECT_EQ(limited.get(), nullptr);
    EXPECT_FALSE(limitless.done_within(milliseconds{50}));
    p.send(came("7"));
    servers = limitless.get();
    EXPECT_EQ(zeb_laddrlist_count(servers), 1);
}

TEST_F(calling_servers, destroy_ends_every_wait_for_servers)
{
    create();
    zeb_rpcclient *const mine = client;
    background limitless([=] { return zeb_rpcclient_getservers(mine, "a"); });
    background limited([=] { return zeb_rpcclient_getservers_wtimeout(mine, "a", 1, 60000); });
    EXPECT_FALSE(limitless.done_within(milliseconds{50}));
    EXPECT_FALSE(limited.done_within(milliseconds{50}));
    zeb_rpcclient_destroy(&client);
    EXPECT_EQ(client, nullptr);
    EXPECT_EQ(limitless.get(), nullptr);
    EXPECT_EQ(limited.get(), nullptr);
    p.expect(unsubscribe_request(1));
}

/* ---- Requests ---- */

TEST_F(calling_servers, a_call_is_one_request_to_all_servers_of_the_list)
{
    create_with_servers(2);
    zeb_rpcinvocation *call = invoke("f", "a\0b\r\n"s);
    p.expect(request("01", "f", "f:0", toServer7 + toServer8, "a\0b\r\n"s));
    EXPECT_EQ(zeb_rpcinvocation_isdone(call), 0);
    EXPECT_EQ(sent_before_mark(p), "");
    zeb_rpcinvocation_destroy(&call);
    EXPECT_EQ(call, nullptr);
}

TEST_F(calling_servers, call_ids_count_all_calls_of_the_client)
{
    create_with_servers();
    zeb_laddrlist *nobody = zeb_laddrlist_create();
    zeb_rpcinvocation *calls[] = {invoke("f"), invoke("f"), invoke("g"),
                                  zeb_rpcclient_invoke(client, "f", nobody, "", 0), invoke("f")};
    p.expect(request("01", "f", "f:0", toServer7));
    p.expect(request("02", "f", "f:1", toServer7));
    p.expect(request("03", "g", "g:2", toServer7));
    p.expect(request("04", "f", "f:4", toServer7)); /* the one that was not sent counts */
    for (zeb_rpcinvocation *&call : calls)
        zeb_rpcinvocation_destroy(&call);
    zeb_laddrlist_destroy(&nobody);
}

TEST_F(calling_servers, lengths_below_one_are_no_argument)
{
    create_with_servers();
    zeb_rpcinvocation *calls[] = {zeb_rpcclient_invoke(client, "f", servers, "text", 0),
                                  zeb_rpcclient_invoke(client, "f", servers, "text", -1),
                                  zeb_rpcclient_invoke(client, "f", servers, nullptr, 0)};
    p.expect(request("01", "f", "f:0", toServer7));
    p.expect(request("02", "f", "f:1", toServer7));
    p.expect(request("03", "f", "f:2", toServer7));
    for (zeb_rpcinvocation *&call : calls)
        zeb_rpcinvocation_destroy(&call);
}

TEST_F(calling_servers, an_empty_list_gives_a_call_that_is_done)
{
    create();
    servers = zeb_laddrlist_create();
    zeb_rpcinvocation *call = invoke();
    ASSERT_NE(call, nullptr);
    EXPECT_EQ(zeb_rpcinvocation_isdone(call), 1);
    EXPECT_EQ(zeb_rpcinvocation_getresponse(call, 1, 0), nullptr); /* at once */
    EXPECT_EQ(sent_before_mark(p), "");
    zeb_rpcinvocation_destroy(&call);
}

/* ---- Servers that are not there ---- */

TEST_F(calling_servers, a_server_that_is_not_live_gives_minus_2_at_once_and_nothing_is_sent)
{
    create_with_servers();
    p.send(left("7"));
    ASSERT_TRUE(none_live());
    zeb_rpcinvocation *call = invoke();
    ASSERT_NE(call, nullptr);
    EXPECT_EQ(zeb_rpcinvocation_isdone(call), 0); /* its response is still to be taken */
    zeb_rpcresponse *r = zeb_rpcinvocation_getresponse(call, 0, 0);
    EXPECT_EQ(zeb_logicaladdr_equals(zeb_rpcresponse_getaddr(r), zeb_laddrlist_get(servers, 0)), 1);
    EXPECT_EQ(told(r), notLive);
    EXPECT_EQ(zeb_rpcinvocation_isdone(call), 1);
    EXPECT_EQ(zeb_rpcinvocation_getresponse(call, 1, 0), nullptr);
    EXPECT_EQ(sent_before_mark(p), "");
    zeb_rpcinvocation_destroy(&call);
}

/* Addresses of any kind, as a notification to somebody else brings them. */
TEST_F(calling_servers, addresses_that_are_no_servers_of_the_client_give_minus_2)
{
    create();
    zeb_subscriber *sub = zeb_subscriber_create_async("/t", "c", nullptr, nullptr);
    p.expect(subscribe_request(2, "/t"));
    p.send(status_reply(2, "success") + came("7") +
           rpc_event("/t", {}, "",
                     server_address("dstAddr0", "9", "other") +      /* a name that it does not have */
                         address("dstAddr1", {{"key", "node1:7"}}) + /* no server name */
                         address("dstAddr2", {{"id", "7"}, {"address", "ADDR7"}},
                                 {{"/ZEB/RPC/SVR", "a"}}), /* no key */
                     "2"));
    zeb_laddrlist *live7 = live(1);
    zeb_laddrlist_destroy(&live7);
    zeb_notification *n = nullptr;
    EXPECT_TRUE(eventually([&] { return (n = zeb_subscriber_receive(sub, 0, 0)) != nullptr; }));
    zeb_rpcinvocation *call =
        zeb_rpcclient_invoke(client, "f", zeb_notification_getDestinationAddrs(n), "", 0);
    for (int i = 0; i < 3; i++)
        EXPECT_EQ(told(zeb_rpcinvocation_getresponse(call, 0, 0)), notLive) << i;
    EXPECT_EQ(zeb_rpcinvocation_isdone(call), 1);
    EXPECT_EQ(sent_before_mark(p), "");
    zeb_rpcinvocation_destroy(&call);
    zeb_subscriber_close(sub);
}

TEST_F(calling_servers, of_two_servers_only_the_live_one_is_asked)
{
    create_with_servers(2);
    p.send(left("8"));
    zeb_laddrlist *remaining = live(1);
    zeb_laddrlist_destroy(&remaining);
    zeb_rpcinvocation *call = invoke();
    p.expect(request("01", "f", "f:0", toServer7));
    EXPECT_EQ(told(zeb_rpcinvocation_getresponse(call, 0, 0)), notLive);
    EXPECT_EQ(zeb_rpcinvocation_isdone(call), 0);
    p.send(result("f:0", "r"));
    EXPECT_EQ(next(call), final_data("r"));
    EXPECT_EQ(zeb_rpcinvocation_isdone(call), 1);
    zeb_rpcinvocation_destroy(&call);
}

TEST_F(calling_servers, a_server_that_leaves_in_mid_call_gives_minus_2)
{
    const stderr_capture diagnostics;
    create_with_servers();
    zeb_rpcinvocation *call = invoked();
    p.send(progress("f:0", "half") + left("7"));
    EXPECT_EQ(next(call), progress_data("half"));
    zeb_rpcresponse *r = zeb_rpcinvocation_getresponse(call, 1, 0);
    EXPECT_EQ(zeb_logicaladdr_equals(zeb_rpcresponse_getaddr(r), zeb_laddrlist_get(servers, 0)), 1);
    EXPECT_EQ(told(r), notLive);
    EXPECT_EQ(zeb_rpcinvocation_isdone(call), 1);
    p.send(result("f:0", "too late"));
    EXPECT_TRUE(diagnostics.becomes(not_found("f:0")));
    zeb_rpcinvocation_destroy(&call);
}

TEST_F(calling_servers, every_call_that_waits_for_a_server_hears_of_its_leaving)
{
    create_with_servers(2);
    zeb_rpcinvocation *calls[] = {invoke("f"), invoke("g")};
    p.expect(request("01", "f", "f:0", toServer7 + toServer8));
    p.expect(request("02", "g", "g:1", toServer7 + toServer8));
    p.send(result("g:1", "7 was faster"));
    EXPECT_EQ(next(calls[1]), final_data("7 was faster"));
    p.send(left("7"));
    EXPECT_EQ(next(calls[0]), notLive);
    EXPECT_EQ(zeb_rpcinvocation_getresponse(calls[1], 0, 0), nullptr); /* it had answered this one */
    p.send(left("8"));
    for (zeb_rpcinvocation *&call : calls) {
        EXPECT_EQ(next(call), notLive);
        EXPECT_EQ(zeb_rpcinvocation_isdone(call), 1);
        zeb_rpcinvocation_destroy(&call);
    }
}

/* ---- Responses ---- */

TEST_F(calling_servers, progress_twice_and_a_result_are_three_responses)
{
    create_with_servers();
    zeb_rpcinvocation *call = invoked();
    p.send(progress("f:0", "half") + progress("f:0", "most") + result("f:0", "all"));
    EXPECT_EQ(next(call), progress_data("half"));
    EXPECT_EQ(zeb_rpcinvocation_isdone(call), 0);
    EXPECT_EQ(next(call), progress_data("most"));
    EXPECT_EQ(zeb_rpcinvocation_isdone(call), 0);
    EXPECT_EQ(next(call), final_data("all"));
    EXPECT_EQ(zeb_rpcinvocation_isdone(call), 1);
    zeb_rpcinvocation_destroy(&call);
}

TEST_F(calling_servers, progress_never_completes_a_call)
{
    create_with_servers();
    zeb_rpcinvocation *call = invoked();
    for (int i = 0; i < 5; i++) {
        p.send(progress("f:0", "working"));
        EXPECT_EQ(next(call), progress_data("working"));
        EXPECT_EQ(zeb_rpcinvocation_isdone(call), 0);
    }
    p.send(result("f:0", ""));
    EXPECT_EQ(next(call), final_data(""));
    EXPECT_EQ(zeb_rpcinvocation_isdone(call), 1);
    zeb_rpcinvocation_destroy(&call);
}

TEST_F(calling_servers, two_servers_give_two_final_responses)
{
    create_with_servers(2);
    zeb_rpcinvocation *call = invoke();
    p.expect(request("01", "f", "f:0", toServer7 + toServer8));
    p.send(result("f:0", "of 8", "8"));
    zeb_rpcresponse *r = zeb_rpcinvocation_getresponse(call, 1, 0);
    EXPECT_EQ(zeb_logicaladdr_equals(zeb_rpcresponse_getaddr(r), zeb_laddrlist_get(servers, 1)), 1);
    EXPECT_EQ(told(r), final_data("of 8"));
    EXPECT_EQ(zeb_rpcinvocation_isdone(call), 0);
    p.send(progress("f:0", "of 7") + result("f:0", "of 7"));
    EXPECT_EQ(next(call), progress_data("of 7"));
    EXPECT_EQ(next(call), final_data("of 7"));
    EXPECT_EQ(zeb_rpcinvocation_isdone(call), 1);
    zeb_rpcinvocation_destroy(&call);
}

TEST_F(calling_servers, of_two_servers_one_answers_and_the_other_leaves)
{
    create_with_servers(2);
    zeb_rpcinvocation *call = invoke();
    p.expect(request("01", "f", "f:0", toServer7 + toServer8));
    p.send(result("f:0", "of 7"));
    EXPECT_EQ(next(call), final_data("of 7"));
    EXPECT_EQ(zeb_rpcinvocation_isdone(call), 0);
    p.send(left("8"));
    EXPECT_EQ(next(call), notLive);
    EXPECT_EQ(zeb_rpcinvocation_isdone(call), 1);
    zeb_rpcinvocation_destroy(&call);
}

/* While another server owes its answer, whatever comes under the call id is delivered. */
TEST_F(calling_servers, a_second_result_of_one_server_and_one_of_a_stranger_are_delivered)
{
    create_with_servers(2);
    zeb_rpcinvocation *call = invoke();
    p.expect(request("01", "f", "f:0", toServer7 + toServer8));
    p.send(result("f:0", "once") + result("f:0", "twice") + result("f:0", "stranger", "99"));
    EXPECT_EQ(next(call), final_data("once"));
    EXPECT_EQ(next(call), final_data("twice"));
    EXPECT_EQ(next(call), final_data("stranger"));
    EXPECT_EQ(zeb_rpcinvocation_isdone(call), 0);
    p.send(result("f:0", "done", "8"));
    EXPECT_EQ(next(call), final_data("done"));
    EXPECT_EQ(zeb_rpcinvocation_isdone(call), 1);
    zeb_rpcinvocation_destroy(&call);
}

TEST_F(calling_servers, an_error_has_code_and_text_and_no_data)
{
    create_with_servers();
    zeb_rpcinvocation *call = invoked();
    p.send(error("f:0", "-3", "x"));
    EXPECT_EQ(next(call), final_error("-3", "x"));
    EXPECT_EQ(zeb_rpcinvocation_isdone(call), 1);
    zeb_rpcinvocation_destroy(&call);
}

TEST_F(calling_servers, error_codes_may_be_decimal_hexadecimal_and_octal)
{
    create_with_servers();
    zeb_rpcinvocation *call = invoked();
    const std::pair<const char *, const char *> codes[] = {{"-3", "-3"},     {"0", "0"},
                                                           {"+12", "12"},    {"0x1f", "31"},
                                                           {"-0X10", "-16"}, {"017", "15"},
                                                           {" 5", "5"},      {"-2147483648", "-2147483648"},
                                                           {"-1", "-1"},     {"2147483647", "2147483647"}};
    for (const auto &[sent, code] : codes) {
        p.send(response({std::string("/ZEB/RPC/ERR: ") + sent, "/ZEB/RPC/CID: f:0"}, "why"));
        EXPECT_EQ(next(call), std::string("progress no data 0 code ") + code + " text why") << sent;
    }
    zeb_rpcinvocation_destroy(&call);
}

TEST_F(calling_servers, what_is_no_number_is_no_error)
{
    create_with_servers();
    zeb_rpcinvocation *call = invoked();
    for (const char *sent : {"", "x", "3x", "0x", "1 ", "08", "--3", "1.5"}) {
        p.send(response({std::string("/ZEB/RPC/ERR: ") + sent, "/ZEB/RPC/CID: f:0"}, "data"));
        EXPECT_EQ(next(call), progress_data("data")) << '"' << sent << '"';
    }
    zeb_rpcinvocation_destroy(&call);
}

TEST_F(calling_servers, a_response_is_final_when_its_flag_begins_with_a_small_t)
{
    create_with_servers();
    zeb_rpcinvocation *call = invoked();
    for (const char *sent : {"false", "TRUE", "", " true", "1"}) {
        p.send(response({std::string("/ZEB/RPC/ISR: ") + sent, "/ZEB/RPC/CID: f:0"}, "data"));
        EXPECT_EQ(next(call), progress_data("data")) << '"' << sent << '"';
    }
    p.send(response({"/ZEB/RPC/CID: f:0"}, "no flag"));
    EXPECT_EQ(next(call), progress_data("no flag"));
    p.send(response({"/ZEB/RPC/ISR: tomorrow", "/ZEB/RPC/CID: f:0"}, "t"));
    EXPECT_EQ(next(call), final_data("t"));
    EXPECT_EQ(zeb_rpcinvocation_isdone(call), 1);
    zeb_rpcinvocation_destroy(&call);
}

TEST_F(calling_servers, data_are_any_bytes_with_a_nul_behind_them)
{
    create_with_servers();
    zeb_rpcinvocation *call = invoked();
    const std::string large(1 << 20, 'x');
    p.send(progress("f:0", "a\0b\r\n"s) + progress("f:0", "") + result("f:0", large));
    EXPECT_EQ(next(call), progress_data("a\0b\r\n"s));
    EXPECT_EQ(next(call), progress_data("")); /* told looks at the NUL */
    EXPECT_TRUE(next(call) == final_data(large));
    zeb_rpcinvocation_destroy(&call);
}

TEST_F(calling_servers, a_response_without_an_address_is_not_delivered)
{
    const stderr_capture diagnostics;
    create_with_servers();
    zeb_rpcinvocation *call = invoked();
    p.send(rpc_event("/ZEB/RPC/RES", {"/ZEB/RPC/ISR: true", "/ZEB/RPC/CID: f:0"}, "whose?", "", "1"));
    p.send(result("f:0", "mine"));
    EXPECT_EQ(next(call), final_data("mine"));
    EXPECT_EQ(zeb_rpcinvocation_isdone(call), 1);
    EXPECT_EQ(diagnostics.text(), "");
    zeb_rpcinvocation_destroy(&call);
}

TEST_F(calling_servers, a_response_from_an_address_without_a_key_completes_nothing)
{
    create_with_servers();
    zeb_rpcinvocation *call = invoked();
    p.send(rpc_event("/ZEB/RPC/RES", {"/ZEB/RPC/ISR: true", "/ZEB/RPC/CID: f:0"}, "who?",
                     address("srcAddr", {{"id", "7"}}), "1"));
    EXPECT_EQ(next(call), final_data("who?"));
    EXPECT_EQ(zeb_rpcinvocation_isdone(call), 0);
    zeb_rpcinvocation_destroy(&call);
}

TEST_F(calling_servers, responses_without_or_of_an_unknown_call_id_are_reported)
{
    const stderr_capture diagnostics;
    create_with_servers();
    zeb_rpcinvocation *call = invoked();
    p.send(response({"/ZEB/RPC/ISR: true"}, "x"));
    p.send(result("f:1", "x"));
    p.send(result("F:0", "x"));
    p.send(result("", "x"));
    p.send(rpc_event("/ZEB/RPC/RES", {"/ZEB/RPC/CID: nobody"}, "", "", "1")); /* no address either */
    p.send(result("f:0", "mine"));
    EXPECT_EQ(next(call), final_data("mine"));
    p.send(result("f:0", "again")); /* complete: not known any more */
    EXPECT_TRUE(diagnostics.becomes(MISSING_CALLID + not_found("f:1") + not_found("F:0") + not_found("") +
                                    not_found("nobody") + not_found("f:0")));
    zeb_rpcinvocation_destroy(&call);
}

/* Only deltas are asked for; a full list is taken for a response. */
TEST_F(calling_servers, a_full_member_list_is_reported_as_a_response_without_a_call_id)
{
    const stderr_capture diagnostics;
    create();
    p.send(membership("MembershipListNotification", server_address("mbrAddr0", "7")));
    EXPECT_TRUE(diagnostics.becomes(MISSING_CALLID));
    EXPECT_EQ(zeb_rpcclient_getservers_wtimeout(client, "a", 0, 0), nullptr);
}

/* ---- Waiting for responses ---- */

TEST_F(calling_servers, getresponse_waits_as_it_is_told)
{
    create_with_servers();
    zeb_rpcinvocation *call = invoked();
    const stopwatch watch;
    EXPECT_EQ(zeb_rpcinvocation_getresponse(call, 0, 0), nullptr);
    EXPECT_EQ(zeb_rpcinvocation_getresponse(call, 0, 60000), nullptr);
    EXPECT_EQ(zeb_rpcinvocation_getresponse(call, 1, 500), nullptr); /* below a second: not at all */
    EXPECT_LT(watch.elapsed(), stretched(milliseconds{500}));
    EXPECT_EQ(zeb_rpcinvocation_getresponse(call, 1, 2000), nullptr);
    EXPECT_GE(watch.elapsed(), milliseconds{950});
    for (const int32_t timeout : {0, -1, 60000}) {
        background taking([=] { return told(zeb_rpcinvocation_getresponse(call, 1, timeout)); });
        EXPECT_FALSE(taking.done_within(milliseconds{50}));
        p.send(progress("f:0", "half"));
        EXPECT_EQ(taking.get(), progress_data("half"));
    }
    zeb_rpcinvocation_destroy(&call);
}

/* ---- Call-backs ---- */

struct collector {
    std::mutex lock;
    std::vector<std::string> all;
    std::vector<std::thread::id> threads;

    static void run(zeb_rpcresponse *r, void *context)
    {
        auto *self = static_cast<collector *>(context);
        const std::lock_guard hold(self->lock);
        self->all.push_back(told(r));
        self->threads.push_back(std::this_thread::get_id());
    }
    bool becomes(const std::vector<std::string> &expected)
    {
        return eventually([&] {
            const std::lock_guard hold(lock);
            return all == expected;
        });
    }
};

TEST_F(calling_servers, a_callback_gets_the_responses_in_place_of_the_queue)
{
    create_with_servers();
    collector got;
    zeb_rpcinvocation *call =
        zeb_rpcclient_invoke_wcallback(client, "f", servers, "arg", 3, collector::run, &got);
    p.expect(request("01", "f", "f:0", toServer7, "arg"));
    p.send(progress("f:0", "half") + error("f:0", "5", "why"));
    EXPECT_TRUE(got.becomes({progress_data("half"), final_error("5", "why")}));
    EXPECT_TRUE(eventually([&] { return zeb_rpcinvocation_isdone(call) == 1; }));
    EXPECT_EQ(zeb_rpcinvocation_getresponse(call, 1, 0), nullptr);
    EXPECT_NE(got.threads.at(0), std::this_thread::get_id());
    EXPECT_EQ(got.threads.at(0), got.threads.at(1));
    zeb_rpcinvocation_destroy(&call);
}

TEST_F(calling_servers, a_callback_hears_of_dead_servers_within_the_invoke)
{
    create_with_servers(2);
    p.send(left("8"));
    zeb_laddrlist *remaining = live(1);
    zeb_laddrlist_destroy(&remaining);
    collector got;
    zeb_rpcinvocation *call =
        zeb_rpcclient_invoke_wcallback(client, "f", servers, nullptr, 0, collector::run, &got);
    EXPECT_EQ(got.all, std::vector<std::string>{notLive});
    EXPECT_EQ(got.threads.at(0), std::this_thread::get_id());
    p.expect(request("01", "f", "f:0", toServer7));
    p.send(left("7"));
    EXPECT_TRUE(got.becomes({notLive, notLive}));
    EXPECT_NE(got.threads.at(1), std::this_thread::get_id());
    zeb_rpcinvocation_destroy(&call);
}

TEST_F(calling_servers, a_callback_may_be_null_and_then_responses_are_queued)
{
    create_with_servers();
    zeb_rpcinvocation *call = zeb_rpcclient_invoke_wcallback(client, "f", servers, "", 0, nullptr, client);
    p.expect(request("01", "f", "f:0", toServer7));
    p.send(result("f:0", "r"));
    EXPECT_EQ(next(call), final_data("r"));
    zeb_rpcinvocation_destroy(&call);
}

/* ---- Ends ---- */

TEST_F(calling_servers, a_call_given_up_gets_no_responses_and_they_are_reported)
{
    const stderr_capture diagnostics;
    create_with_servers();
    zeb_rpcinvocation *call = invoked();
    zeb_rpcinvocation_destroy(&call);
    EXPECT_EQ(call, nullptr);
    p.send(result("f:0", "for nobody"));
    EXPECT_TRUE(diagnostics.becomes(not_found("f:0")));
    p.send(left("7")); /* nobody waits for it */
    EXPECT_TRUE(none_live());
}

TEST_F(calling_servers, a_call_given_up_releases_what_it_had)
{
    create_with_servers(2);
    zeb_rpcinvocation *call = invoke();
    zeb_rpcinvocation *complete = invoke();
    p.expect(request("01", "f", "f:0", toServer7 + toServer8));
    p.expect(request("02", "f", "f:1", toServer7 + toServer8));
    p.send(progress("f:0", "half") + progress("f:0", "most") + result("f:0", "all") + result("f:1", "one") +
           result("f:1", "other", "8") + left("7") + left("8"));
    EXPECT_TRUE(none_live());
    zeb_rpcinvocation_destroy(&call);
    zeb_rpcinvocation_destroy(&complete);
}

TEST_F(calling_servers, destroy_takes_pending_calls_along)
{
    create_with_servers(2);
    zeb_rpcinvocation *call = invoke();
    zeb_rpcinvocation *other = invoke();
    EXPECT_NE(call, other);
    p.expect(request("01", "f", "f:0", toServer7 + toServer8));
    p.expect(request("02", "f", "f:1", toServer7 + toServer8));
    p.send(result("f:0", "unread") + progress("f:1", "read"));
    EXPECT_EQ(next(other), progress_data("read")); /* 8 has answered neither */
    zeb_rpcclient_destroy(&client);                /* the leak checker watches */
    p.expect(unsubscribe_request(1));
}

TEST_F(calling_servers, a_complete_call_may_be_destroyed_before_and_after_its_client)
{
    create_with_servers();
    zeb_rpcinvocation *before = invoke();
    zeb_rpcinvocation *after = invoke();
    p.expect(request("01", "f", "f:0", toServer7));
    p.expect(request("02", "f", "f:1", toServer7));
    p.send(result("f:0", "r") + result("f:1", "unread"));
    EXPECT_EQ(next(before), final_data("r"));
    EXPECT_TRUE(eventually([&] { /* complete, so it is not the client's any more */
                                 p.send(left("7"));
                                 return none_live();
    }));
    zeb_rpcinvocation_destroy(&before);
    zeb_rpcclient_destroy(&client);
    zeb_rpcinvocation_destroy(&after);
    EXPECT_EQ(after, nullptr);
}

TEST_F(calling_servers, destroy_ends_a_wait_for_a_response)
{
    create_with_servers();
    zeb_rpcinvocation *call = invoked();
    background taking([=] { return zeb_rpcinvocation_getresponse(call, 1, 0); });
    EXPECT_FALSE(taking.done_within(milliseconds{50}));
    zeb_rpcclient_destroy(&client);
    EXPECT_EQ(taking.get(), nullptr);
}

TEST_F(calling_servers, destroyed_after_the_end_of_the_runtime_it_is_released)
{
    create_with_servers();
    zeb_rpcinvocation *call = invoked();
    zeb_rpcinvocation *complete = zeb_rpcclient_invoke(client, "g", servers, "", 0);
    p.expect(request("02", "g", "g:1", toServer7));
    p.send(result("g:1", "r"));
    EXPECT_EQ(next(complete), final_data("r"));
    EXPECT_EQ(zeb_shutdown(), 0);
    p.expect_close();
    EXPECT_TRUE(no_call_back_threads());
    EXPECT_EQ(zeb_rpcinvocation_isdone(call), 0);
    zeb_laddrlist *stale = zeb_rpcclient_getservers(client, "a"); /* as far as it knows */
    zeb_laddrlist_destroy(&stale);
    zeb_rpcinvocation *unsent = zeb_rpcclient_invoke(client, "f", servers, "", 0);
    zeb_rpcinvocation_destroy(&unsent);
    zeb_rpcinvocation_destroy(&complete);
    zeb_rpcclient_destroy(&client);
}

TEST_F(calling_servers, destroy_against_responses)
{
    for (uint32_t id = 1; id <= 30; id++) {
        const char *names[] = {"a"};
        background creation([&] { return zeb_rpcclient_create(names, 1, "comp"); });
        p.expect(subscription(id, INTEREST_A));
        p.send(status_reply(id, "success") + came("7", "a", static_cast<int>(id)));
        client = creation.get();
        servers = live(1);
        zeb_rpcinvocation *call = invoke();
        p.read_head();
        p.expect(listBegin + toServer7);
        const std::string many =
            response({"/ZEB/RPC/ISR: false", "/ZEB/RPC/CID: f:0"}, "x", "7", std::to_string(id));
        for (int i = 0; i < 20; i++)
            p.send(many);
        EXPECT_EQ(next(call), progress_data("x"));
        zeb_laddrlist_destroy(&servers);
        zeb_rpcclient_destroy(&client);
        p.expect(unsubscribe_request(id));
    }
}

/* ---- The connection is lost ---- */

TEST_F(calling_servers, after_a_loss_it_subscribes_anew_and_knows_nobody)
{
    create_with_servers(2);
    p.close();
    p = daemon.accept_connected(home.path());
    p.expect(subscription(2, INTEREST_A));
    EXPECT_TRUE(none_live());
    zeb_rpcinvocation *call = invoke();
    EXPECT_EQ(told(zeb_rpcinvocation_getresponse(call, 0, 0)), notLive);
    EXPECT_EQ(told(zeb_rpcinvocation_getresponse(call, 0, 0)), notLive);
    zeb_rpcinvocation_destroy(&call);
    p.send(status_reply(2, "success") + came("7", "a", 2));
    zeb_laddrlist *again = live(1);
    call = zeb_rpcclient_invoke(client, "f", again, "", 0);
    p.expect(request("11", "f", "f:1", toServer7, "", 2));
    p.send(response({"/ZEB/RPC/ISR: true", "/ZEB/RPC/CID: f:1"}, "r", "7", "2"));
    EXPECT_EQ(next(call), final_data("r"));
    zeb_rpcinvocation_destroy(&call);
    zeb_laddrlist_destroy(&again);
    zeb_rpcclient_destroy(&client);
    p.expect(unsubscribe_request(2));
}

TEST_F(calling_servers, a_call_that_was_pending_at_the_loss_stays_pending_and_may_still_be_answered)
{
    create_with_servers();
    zeb_rpcinvocation *call = invoked();
    p.close();
    p = daemon.accept_connected(home.path());
    p.expect(subscription(2, INTEREST_A));
    p.send(status_reply(2, "success"));
    EXPECT_TRUE(none_live());
    EXPECT_EQ(zeb_rpcinvocation_isdone(call), 0);
    EXPECT_EQ(zeb_rpcinvocation_getresponse(call, 0, 0), nullptr);
    p.send(response({"/ZEB/RPC/ISR: true", "/ZEB/RPC/CID: f:0"}, "late", "7", "2"));
    EXPECT_EQ(next(call), final_data("late"));
    zeb_rpcinvocation_destroy(&call);
}

TEST_F(calling_servers, a_wait_for_servers_goes_on_over_a_loss)
{
    create();
    zeb_rpcclient *const mine = client;
    background waiting([=] { return zeb_rpcclient_getservers(mine, "a"); });
    p.close();
    p = daemon.accept_connected(home.path());
    p.expect(subscription(2, INTEREST_A));
    p.send(status_reply(2, "success"));
    EXPECT_FALSE(waiting.done_within(milliseconds{50}));
    p.send(came("7", "a", 2));
    servers = waiting.get();
    EXPECT_EQ(zeb_laddrlist_count(servers), 1);
}

TEST_F(calling_servers, refused_after_a_loss_it_says_so_and_stays_without_servers)
{
    const stderr_capture diagnostics;
    create_with_servers();
    p.close();
    p = daemon.accept_connected(home.path());
    p.expect(subscription(2, INTEREST_A));
    p.send(status_reply(2, "failure", "no more"));
    EXPECT_TRUE(diagnostics.becomes("RPC Client error: unable to create subscriber: no more\n"));
    EXPECT_EQ(zeb_rpcclient_getservers_wtimeout(client, "a", 0, 0), nullptr);
    zeb_rpcinvocation *call = invoke();
    EXPECT_EQ(next(call), notLive);
    zeb_rpcinvocation_destroy(&call);
    EXPECT_EQ(sent_before_mark(p), "");
    zeb_rpcclient_destroy(&client);
    EXPECT_EQ(client, nullptr);
    EXPECT_EQ(sent_before_mark(p), "");
}

TEST_F(calling_servers, nothing_blocks_while_it_subscribes_anew)
{
    create_with_servers();
    p.close();
    p = daemon.accept_connected(home.path());
    p.expect(subscription(2, INTEREST_A)); /* no answer yet */
    const stopwatch watch;
    EXPECT_EQ(zeb_rpcclient_getservers_wtimeout(client, "a", 0, 0), nullptr);
    zeb_rpcinvocation *call = invoke();
    EXPECT_EQ(zeb_rpcinvocation_isdone(call), 0);
    EXPECT_EQ(told(zeb_rpcinvocation_getresponse(call, 0, 0)), notLive);
    zeb_rpcinvocation_destroy(&call);
    zeb_rpcclient_destroy(&client);
    EXPECT_LT(watch.elapsed(), stretched(milliseconds{1000}));
    p.send(status_reply(2, "success"));
    p.expect(unsubscribe_request(2)); /* the late subscriber has no client any more */
}

TEST_F(calling_servers, a_shutdown_while_it_subscribes_anew_ends_that)
{
    const stderr_capture diagnostics;
    create_with_servers();
    p.close();
    p = daemon.accept_connected(home.path());
    p.expect(subscription(2, INTEREST_A));
    EXPECT_EQ(zeb_shutdown(), 0);
    EXPECT_TRUE(diagnostics.becomes("RPC Client error: unable to create subscriber: reason unknown\n"));
    zeb_rpcclient_destroy(&client);
}

/* ---- Fork ---- */

TEST_F(calling_servers, in_a_forked_child_it_is_dead_and_in_the_parent_undisturbed)
{
    create_with_servers();
    zeb_rpcinvocation *call = invoked();
    const pid_t child = fork();
    if (child == 0) {
        const bool dead = zeb_rpcclient_getservers(client, "a") == nullptr &&
                          zeb_rpcclient_invoke(client, "f", servers, "", 0) == nullptr &&
                          zeb_rpcinvocation_isdone(call) == 0 &&
                          zeb_rpcinvocation_getresponse(call, 1, 0) == nullptr;
        zeb_rpcinvocation_destroy(&call);
        zeb_rpcclient_destroy(&client);
        _exit(dead && call == nullptr && client == nullptr ? 7 : 8);
    }
    int status = 0;
    EXPECT_TRUE(eventually([&] { return waitpid(child, &status, WNOHANG) == child; }));
    EXPECT_EQ(WIFEXITED(status) ? WEXITSTATUS(status) : -1, 7);
    p.send(result("f:0", "r"));
    EXPECT_EQ(next(call), final_data("r"));
    zeb_rpcinvocation_destroy(&call);
}

/* In the child of such a call-back. Its threads get the stacks of those who wait in the parent and do not
 * exist here; none of them is written to by anybody else. */
struct child_threads {
    static constexpr size_t depth = 65536;
    static constexpr int count = 8;
    std::atomic<int> filled{0};

    void start()
    {
        for (int i = 0; i < count; i++)
            std::thread([this] {
                volatile char stack[depth];
                for (volatile char &octet : stack)
                    octet = 'A';
                filled++;
                std::this_thread::sleep_for(milliseconds{300});
                for (const volatile char &octet : stack)
                    if (octet != 'A')
                        _exit(9);
                if (--filled == 0)
                    _exit(7);
            }).detach();
        while (filled < count)
            std::this_thread::yield();
    }
};

struct forking_call_back {
    std::atomic<pid_t> child{0};
    child_threads threads;

    static void run(zeb_rpcresponse *response, void *context)
    {
        auto *self = static_cast<forking_call_back *>(context);
        zeb_rpcresponse_destroy(&response);
        const pid_t pid = fork();
        if (pid == 0)
            self->threads.start();
        else
            self->child = pid;
    }
};

/* One change of the members answers two calls and tells who waits for servers. The call-back of the first
 * forks; in the child nobody is there to be told any more. */
TEST_F(calling_servers, a_response_call_back_that_forks_tells_nobody_in_the_child)
{
    if (threadSanitizer)
        GTEST_SKIP() << "the thread sanitizer does not let a child live on with another thread of its parent";
    create({"a", "b"}, "((\"/ZEB/RPC/SVR=a\")|(\"/ZEB/RPC/SVR=b\"))");
    p.send(came("7"));
    servers = live(1);
    forking_call_back forks;
    zeb_rpcinvocation *first =
        zeb_rpcclient_invoke_wcallback(client, "f", servers, "", 0, forking_call_back::run, &forks);
    zeb_rpcinvocation *second = invoke();
    p.expect(request("01", "f", "f:0", toServer7));
    p.expect(request("02", "f", "f:1", toServer7));
    background response([=] { return next(second); });
    background waiting([this] { return zeb_rpcclient_getservers(client, "b"); });
    EXPECT_FALSE(response.done_within(milliseconds{100}));
    EXPECT_FALSE(waiting.done_within(milliseconds{100}));
    p.send(left("7"));
    EXPECT_EQ(response.get(), notLive);
    ASSERT_TRUE(eventually([&] { return forks.child != 0; }));
    int status = 0;
    EXPECT_TRUE(eventually([&] { return waitpid(forks.child, &status, WNOHANG) == forks.child; }));
    EXPECT_EQ(WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status), 7);
    p.send(came("8", "b"));
    zeb_laddrlist *found = waiting.get();
    EXPECT_EQ(zeb_laddrlist_count(found), 1);
    zeb_laddrlist_destroy(&found);
    zeb_rpcinvocation_destroy(&first);
    zeb_rpcinvocation_destroy(&second);
}

} // namespace
