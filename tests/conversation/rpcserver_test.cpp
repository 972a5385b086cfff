/* Remote calls from the side of the server: what it subscribes with, and what it answers. */
#include "rpc.h"

#include <atomic>
#include <sys/wait.h>
#include <thread>

namespace
{

using namespace zebtest;
using namespace std::string_literals;

constexpr char NO_NAME[] = "RPCSERVER ERROR[rcv]: function name not found\n";
constexpr char NO_CALLID[] = "RPCSERVER ERROR[rcv]: invokeId not found\n";
constexpr char NO_REQUESTER[] = "RPCSERVER ERROR[rcv]: generatingAddress not found\n";
constexpr char NO_FUNCTION[] = "RPCSERVER ERROR[rcv]: function not found";

/* Who calls, as the daemon says it. */
std::string caller()
{
    return address("srcAddr", {{"id", "5"},
                               {"component", "caller"},
                               {"hostname", "node1"},
                               {"key", "node1:5"},
                               {"address", "ADDR5"}});
}

/* The list with the one address above as the library sends it: without the key. */
const std::string toCaller = "\x00\xA3\x7C\x08\xE7\x78\xEE\x24\x5F\xD3\xB6\x4E" /* signature */
                             "\x01\x00\x09"s
                             "dstAddr0\x00\x00"s
                             "\x02\x00\x02"s
                             "id\x00\x00\x01"s
                             "5\x00"s
                             "\x02\x00\x09"s
                             "component\x00\x00\x06"s
                             "caller\x00"s
                             "\x02\x00\x08"s
                             "hostname\x00\x00\x05"s
                             "node1\x00"s
                             "\x02\x00\x07"s
                             "address\x00\x00\x05"s
                             "ADDR5\x00"s
                             "\x01\x00\x0B"s
                             "properties\x00\x01"s;

std::string request(const std::string &function, const std::string &callid, std::string_view body = "",
                    std::string_view id = "1")
{
    return rpc_event("/ZEB/RPC/REQ",
                     {"/ZEB/RPC/ARG: BYTE", "/ZEB/RPC/CID: " + callid, "/ZEB/RPC/NAM: " + function}, body,
                     caller(), id);
}

/* A response as the library writes it. SERIAL is what its id has behind the process. */
std::string response(std::string_view serial, std::initializer_list<std::string_view> properties,
                     std::string_view body = "", int id = 1)
{
    return lines({"POST /event HTTP/1.1", "className: MessageNotification",
                  "SubscriberID: " + std::to_string(id), "eventType: /ZEB/RPC/RES",
                  "eventId: " + process_name() + std::string(serial), "affectedComponents: ",
                  "affectedNodes: ", "generatingComponent: comp", "generatingProcess: " + process_name(),
                  "generatingNode: " + host_name(), "instanceName: east", "LocalOnly: false",
                  "numberOfProperties: " + std::to_string(properties.size())}) +
           lines(properties) +
           lines({"Content-Length: " + std::to_string(body.size()),
                  "AddrList-Length: " + std::to_string(toCaller.size()), ""}) +
           std::string(body) + toCaller;
}

std::string subscription(uint32_t id, std::initializer_list<std::string_view> properties)
{
    return lines({"POST /subscribe HTTP/1.1", "Content-Length: 0", "SubscriberID: " + std::to_string(id),
                  "Subscription: null", "Component: comp", "MbrInterest: null", "MbrDeltas: false",
                  "numberOfProperties: " + std::to_string(properties.size())}) +
           lines(properties) + lines({""});
}

std::string numbered(std::string text, int number)
{
    text += std::to_string(number);
    return text;
}

int32_t silent(zeb_rpcrequest *, const void *, int32_t)
{
    return -1; /* ignored */
}

int32_t echo(zeb_rpcrequest *r, const void *data, int32_t length)
{
    return zeb_rpcrequest_sendresult(r, data, length);
}

/* Waits in here while a test looks around. */
door inside;

int32_t slow(zeb_rpcrequest *r, const void *, int32_t)
{
    inside.pass();
    return zeb_rpcrequest_sendresult(r, "late", 4);
}

class serving : public conversation
{
  protected:
    serving() : p(connected()), server(zeb_rpcserver_create("srv", "comp")) {}
    ~serving() override
    {
        zeb_rpcserver_destroy(&server);
        zeb_shutdown_nowait();
        EXPECT_TRUE(no_call_back_threads());
    }

    void launch(uint32_t id = 1, std::initializer_list<std::string_view> properties = {"/ZEB/RPC/SVR: srv"},
                place where = {__builtin_FILE(), __builtin_LINE()})
    {
        zeb_rpcserver *const mine = server;
        background launching([=] { return zeb_rpcserver_launch(mine); });
        p.expect(subscription(id, properties), where);
        p.send(status_reply(id, "success"));
        if (launching.get(where) != 0)
            script_fails(where, "the server was not launched");
    }

    void offer(const char *name, zeb_rpcserver_function function)
    {
        EXPECT_EQ(zeb_rpcserver_addfunc(server, name, function), 0);
    }

    peer p;
    zeb_rpcserver *server;
};

/* ---- Configuration and launch ---- */

TEST_F(serving, needs_a_name_and_a_component)
{
    EXPECT_EQ(zeb_rpcserver_create(nullptr, "comp"), nullptr);
    EXPECT_EQ(zeb_rpcserver_create("srv", nullptr), nullptr);
    EXPECT_NE(server, nullptr);
}

TEST_F(serving, destroy_sets_the_handle_to_null_and_ignores_nothing)
{
    zeb_rpcserver_destroy(nullptr);
    zeb_rpcserver_destroy(&server);
    EXPECT_EQ(server, nullptr);
    zeb_rpcserver_destroy(&server);
    EXPECT_EQ(server, nullptr);
}

TEST_F(serving, null_server_fails_everywhere)
{
    zeb_proplist *properties = zeb_proplist_create();
    EXPECT_EQ(zeb_rpcserver_addfunc(nullptr, "f", echo), -1);
    EXPECT_EQ(zeb_rpcserver_setcbmode(nullptr, 0), -1);
    EXPECT_EQ(zeb_rpcserver_setaddrprops(nullptr, properties), -1);
    EXPECT_EQ(zeb_rpcserver_launch(nullptr), -1);
    EXPECT_EQ(zeb_rpcserver_shutdown(nullptr), -1);
    EXPECT_EQ(zeb_rpcserver_isrunning(nullptr), 0);
    zeb_proplist_destroy(&properties);
}

TEST_F(serving, functions_need_a_name_and_an_address)
{
    EXPECT_EQ(zeb_rpcserver_addfunc(server, nullptr, echo), -1);
    EXPECT_EQ(zeb_rpcserver_addfunc(server, "f", nullptr), -1);
    EXPECT_EQ(zeb_rpcserver_launch(server), -1); /* so it has none */
}

TEST_F(serving, launch_without_a_function_fails_and_sends_nothing)
{
    EXPECT_EQ(zeb_rpcserver_launch(server), -1);
    EXPECT_EQ(zeb_rpcserver_isrunning(server), 0);
    EXPECT_EQ(zeb_rpcserver_shutdown(server), -1);
    EXPECT_EQ(sent_before_mark(p), "");
}

TEST_F(serving, launch_subscribes_to_nothing_under_its_name)
{
    offer("f", echo);
    EXPECT_EQ(zeb_rpcserver_isrunning(server), 0);
    launch(); /* expects the exact bytes */
    EXPECT_EQ(zeb_rpcserver_isrunning(server), 1);
    EXPECT_EQ(zeb_rpcserver_launch(server), -1); /* a second time while running */
    EXPECT_EQ(zeb_rpcserver_isrunning(server), 1);
    EXPECT_EQ(sent_before_mark(p), "");
    EXPECT_EQ(zeb_rpcserver_shutdown(server), 0);
    EXPECT_EQ(zeb_rpcserver_isrunning(server), 0);
    EXPECT_EQ(zeb_rpcserver_shutdown(server), -1);
    p.expect(unsubscribe_request(1));
}

TEST_F(serving, destroy_of_a_running_server_unsubscribes)
{
    offer("f", echo);
    launch();
    zeb_rpcserver_destroy(&server);
    p.expect(unsubscribe_request(1));
}

TEST_F(serving, configuration_is_refused_while_it_runs)
{
    zeb_proplist *properties = zeb_proplist_create();
    zeb_proplist_put(properties, "room", "12");
    offer("f", echo);
    launch();
    EXPECT_EQ(zeb_rpcserver_addfunc(server, "g", echo), -1);
    EXPECT_EQ(zeb_rpcserver_setcbmode(server, 1), -1);
    EXPECT_EQ(zeb_rpcserver_setaddrprops(server, properties), -1);
    EXPECT_EQ(zeb_rpcserver_shutdown(server), 0);
    p.expect(unsubscribe_request(1));
    launch(2); /* without the property */
    zeb_proplist_destroy(&properties);
}

TEST_F(serving, shut_down_it_can_be_configured_and_launched_again)
{
    offer("f", echo);
    launch();
    EXPECT_EQ(zeb_rpcserver_shutdown(server), 0);
    p.expect(unsubscribe_request(1));
    offer("g", silent);
    EXPECT_EQ(zeb_rpcserver_setcbmode(server, 1), 0);
    launch(2);
    p.send(request("g", "g:0", "", "2"));
    p.expect(response("11", {"/ZEB/RPC/ISR: true", "/ZEB/RPC/CID: g:0"}, "", 2));
    p.send(request("f", "f:1", "x", "2"));
    p.expect(response("12", {"/ZEB/RPC/ISR: true", "/ZEB/RPC/CID: f:1"}, "x", 2));
}

TEST_F(serving, modes_are_0_and_1)
{
    EXPECT_EQ(zeb_rpcserver_setcbmode(server, -1), -1);
    EXPECT_EQ(zeb_rpcserver_setcbmode(server, 2), -1);
    EXPECT_EQ(zeb_rpcserver_setcbmode(server, 1), 0);
    EXPECT_EQ(zeb_rpcserver_setcbmode(server, 0), 0);
}

TEST_F(serving, address_properties_go_before_the_name_and_are_copied)
{
    zeb_proplist *properties = zeb_proplist_create();
    zeb_proplist_put(properties, "room", "12");
    zeb_proplist_put(properties, "floor", "3");
    offer("f", echo);
    EXPECT_EQ(zeb_rpcserver_setaddrprops(server, properties), 0);
    zeb_proplist_put(properties, "room", "13");
    launch(1, {"room: 12", "floor: 3", "/ZEB/RPC/SVR: srv"});
    EXPECT_EQ(zeb_proplist_count(properties), 2); /* the name went into the copy */
    zeb_proplist_destroy(&properties);
}

TEST_F(serving, a_server_name_among_the_address_properties_is_replaced_in_place)
{
    zeb_proplist *properties = zeb_proplist_create();
    zeb_proplist_put(properties, "/ZEB/RPC/SVR", "impostor");
    zeb_proplist_put(properties, "room", "12");
    offer("f", echo);
    EXPECT_EQ(zeb_rpcserver_setaddrprops(server, properties), 0);
    zeb_proplist_destroy(&properties);
    launch(1, {"/ZEB/RPC/SVR: srv", "room: 12"});
}

TEST_F(serving, null_address_properties_fail_and_leave_it_without_any)
{
    zeb_proplist *properties = zeb_proplist_create();
    zeb_proplist_put(properties, "room", "12");
    offer("f", echo);
    EXPECT_EQ(zeb_rpcserver_setaddrprops(server, properties), 0);
    EXPECT_EQ(zeb_rpcserver_setaddrprops(server, nullptr), -1);
    zeb_proplist_destroy(&properties);
    launch(1, {"/ZEB/RPC/SVR: srv"});
}

TEST_F(serving, refused_by_the_daemon_it_does_not_run_and_may_be_launched_again)
{
    offer("f", echo);
    zeb_rpcserver *const mine = server;
    background launching([=] { return zeb_rpcserver_launch(mine); });
    p.expect(subscription(1, {"/ZEB/RPC/SVR: srv"}));
    p.send(status_reply(1, "failure", "no servers today"));
    EXPECT_EQ(launching.get(), -1);
    EXPECT_EQ(zeb_rpcserver_isrunning(server), 0);
    launch(2);
    p.send(request("f", "f:0", "x", "2"));
    p.expect(response("11", {"/ZEB/RPC/ISR: true", "/ZEB/RPC/CID: f:0"}, "x", 2));
}

TEST(serving_without_a_runtime, launch_fails)
{
    zeb_rpcserver *server = zeb_rpcserver_create("srv", "comp");
    EXPECT_EQ(zeb_rpcserver_addfunc(server, "f", echo), 0);
    EXPECT_EQ(zeb_rpcserver_launch(server), -1);
    EXPECT_EQ(zeb_rpcserver_isrunning(server), 0);
    zeb_rpcserver_destroy(&server);
}

/* ---- Answers ---- */

TEST_F(serving, a_function_that_does_not_answer_gets_an_empty_result_sent)
{
    offer("f", silent);
    launch();
    p.send(request("f", "f:0", "ignored"));
    p.expect(response("01", {"/ZEB/RPC/ISR: true", "/ZEB/RPC/CID: f:0"}));
    EXPECT_EQ(sent_before_mark(p), "");
}

TEST_F(serving, progress_and_result_are_sent_in_order_and_nothing_after_the_result)
{
    static std::atomic<int> refused;
    offer("f", [](zeb_rpcrequest *r, const void *, int32_t) {
        EXPECT_EQ(zeb_rpcrequest_sendprogress(r, "half", 4), 0);
        EXPECT_EQ(zeb_rpcrequest_sendprogress(r, "most", 4), 0);
        EXPECT_EQ(zeb_rpcrequest_sendresult(r, "all", 3), 0);
        refused -= zeb_rpcrequest_sendresult(r, "again", 5);
        refused -= zeb_rpcrequest_sendprogress(r, "more", 4);
        refused -= zeb_rpcrequest_senderror(r, 5, "no");
        return 0;
    });
    launch();
    p.send(request("f", "f:0"));
    p.expect(response("01", {"/ZEB/RPC/ISR: false", "/ZEB/RPC/CID: f:0"}, "half"));
    p.expect(response("02", {"/ZEB/RPC/ISR: false", "/ZEB/RPC/CID: f:0"}, "most"));
    p.expect(response("03", {"/ZEB/RPC/ISR: true", "/ZEB/RPC/CID: f:0"}, "all"));
    p.send(request("f", "f:1")); /* the first is over when this one begins */
    p.expect(response("04", {"/ZEB/RPC/ISR: false", "/ZEB/RPC/CID: f:1"}, "half"));
    EXPECT_GE(refused.load(), 3); /* -1 each */
}

TEST_F(serving, progress_alone_is_followed_by_an_empty_result)
{
    offer("f", [](zeb_rpcrequest *r, const void *, int32_t) {
        return zeb_rpcrequest_sendprogress(r, "working", 7);
    });
    launch();
    p.send(request("f", "f:0"));
    p.expect(response("01", {"/ZEB/RPC/ISR: false", "/ZEB/RPC/CID: f:0"}, "working"));
    p.expect(response("02", {"/ZEB/RPC/ISR: true", "/ZEB/RPC/CID: f:0"}));
}

TEST_F(serving, an_error_has_its_code_and_its_text_without_the_nul)
{
    offer("f", [](zeb_rpcrequest *r, const void *, int32_t) {
        EXPECT_EQ(zeb_rpcrequest_senderror(r, -77, "no disk"), 0);
        return zeb_rpcrequest_sendresult(r, "x", 1);
    });
    launch();
    p.send(request("f", "f:0"));
    p.expect(response("01", {"/ZEB/RPC/ERR: -77", "/ZEB/RPC/ISR: true", "/ZEB/RPC/CID: f:0"}, "no disk"));
    EXPECT_EQ(sent_before_mark(p), "");
}

TEST_F(serving, error_codes_are_signed_decimal_numbers)
{
    offer("zero",
          [](zeb_rpcrequest *r, const void *, int32_t) { return zeb_rpcrequest_senderror(r, 0, ""); });
    offer("min", [](zeb_rpcrequest *r, const void *, int32_t) {
        return zeb_rpcrequest_senderror(r, INT32_MIN, "m");
    });
    offer("max", [](zeb_rpcrequest *r, const void *, int32_t) {
        return zeb_rpcrequest_senderror(r, INT32_MAX, "M");
    });
    launch();
    p.send(request("zero", "a") + request("min", "b") + request("max", "c"));
    p.expect(response("01", {"/ZEB/RPC/ERR: 0", "/ZEB/RPC/ISR: true", "/ZEB/RPC/CID: a"}));
    p.expect(response("02", {"/ZEB/RPC/ERR: -2147483648", "/ZEB/RPC/ISR: true", "/ZEB/RPC/CID: b"}, "m"));
    p.expect(response("03", {"/ZEB/RPC/ERR: 2147483647", "/ZEB/RPC/ISR: true", "/ZEB/RPC/CID: c"}, "M"));
}

TEST_F(serving, an_error_without_a_text_is_none)
{
    offer("f", [](zeb_rpcrequest *r, const void *, int32_t) {
        EXPECT_EQ(zeb_rpcrequest_senderror(r, 5, nullptr), -1);
        return 0;
    });
    launch();
    p.send(request("f", "f:0"));
    p.expect(response("01", {"/ZEB/RPC/ISR: true", "/ZEB/RPC/CID: f:0"})); /* the empty result */
}

TEST_F(serving, bytes_are_any_bytes_and_lengths_below_one_are_none)
{
    offer("bytes", [](zeb_rpcrequest *r, const void *, int32_t) {
        EXPECT_EQ(zeb_rpcrequest_sendprogress(r, "a\0b\r\n", 5), 0);
        EXPECT_EQ(zeb_rpcrequest_sendprogress(r, "text", 0), 0);
        EXPECT_EQ(zeb_rpcrequest_sendprogress(r, "text", -1), 0);
        EXPECT_EQ(zeb_rpcrequest_sendprogress(r, nullptr, 3), -1);
        EXPECT_EQ(zeb_rpcrequest_sendresult(r, nullptr, 3), -1); /* still open */
        return zeb_rpcrequest_sendresult(r, nullptr, 0);
    });
    launch();
    p.send(request("bytes", "c"));
    p.expect(response("01", {"/ZEB/RPC/ISR: false", "/ZEB/RPC/CID: c"}, "a\0b\r\n"s));
    p.expect(response("02", {"/ZEB/RPC/ISR: false", "/ZEB/RPC/CID: c"}));
    p.expect(response("03", {"/ZEB/RPC/ISR: false", "/ZEB/RPC/CID: c"}));
    p.expect(response("04", {"/ZEB/RPC/ISR: true", "/ZEB/RPC/CID: c"}));
}

TEST_F(serving, null_requests_are_refused)
{
    EXPECT_EQ(zeb_rpcrequest_sendprogress(nullptr, "x", 1), -1);
    EXPECT_EQ(zeb_rpcrequest_sendresult(nullptr, "x", 1), -1);
    EXPECT_EQ(zeb_rpcrequest_senderror(nullptr, 1, "x"), -1);
    EXPECT_EQ(zeb_rpcrequest_getrpcname(nullptr), nullptr);
}

/* ---- Requests ---- */

TEST_F(serving, a_function_gets_its_name_and_the_argument_bytes)
{
    const auto tell = [](zeb_rpcrequest *r, const void *data, int32_t length) {
        std::string text = text_or_null(zeb_rpcrequest_getrpcname(r));
        text.append("(").append(static_cast<const char *>(data), static_cast<size_t>(length)).append(") of ");
        text += std::to_string(length);
        return zeb_rpcrequest_sendresult(r, text.data(), static_cast<int32_t>(text.size()));
    };
    offer("f", tell);
    offer("g h", tell);
    launch();
    p.send(request("f", "1", "a\0b"s) + request("g h", "2"));
    p.expect(response("01", {"/ZEB/RPC/ISR: true", "/ZEB/RPC/CID: 1"}, "f(a\0b) of 3"s));
    p.expect(response("02", {"/ZEB/RPC/ISR: true", "/ZEB/RPC/CID: 2"}, "g h() of 0"));
}

TEST_F(serving, an_unknown_function_is_reported_and_answered_with_minus_3)
{
    const stderr_capture diagnostics;
    offer("f", silent);
    launch();
    p.send(request("F", "F:0")); /* names are told apart by case */
    p.expect(response("01", {"/ZEB/RPC/ERR: -3", "/ZEB/RPC/ISR: true", "/ZEB/RPC/CID: F:0"}, NO_FUNCTION));
    EXPECT_TRUE(diagnostics.becomes("RPCSERVER ERROR[rcv]: function F not found\n"));
}

TEST_F(serving, malformed_requests_are_reported_and_not_answered)
{
    const stderr_capture diagnostics;
    offer("f", silent);
    launch();
    p.send(rpc_event("/ZEB/RPC/REQ", {"/ZEB/RPC/CID: 1"}, "", caller(), "1"));
    p.send(rpc_event("/ZEB/RPC/REQ", {"/ZEB/RPC/NAM: f"}, "", caller(), "1"));
    p.send(rpc_event("/ZEB/RPC/REQ", {"/ZEB/RPC/CID: 1", "/ZEB/RPC/NAM: f"}, "", "", "1"));
    p.send(request("f", "last"));
    p.expect(response("01", {"/ZEB/RPC/ISR: true", "/ZEB/RPC/CID: last"}));
    EXPECT_EQ(diagnostics.text(), std::string(NO_NAME) + NO_CALLID + NO_REQUESTER);
}

TEST_F(serving, only_the_first_thing_that_is_missing_is_reported)
{
    const stderr_capture diagnostics;
    offer("f", silent);
    launch();
    p.send(rpc_event("/ZEB/RPC/REQ", {}, "", "", "1"));
    p.send(rpc_event("/ZEB/RPC/REQ", {"/ZEB/RPC/NAM: unknown"}, "", "", "1"));
    p.send(rpc_event("/ZEB/RPC/REQ", {"/ZEB/RPC/NAM: unknown", "/ZEB/RPC/CID: 1"}, "", "", "1"));
    EXPECT_TRUE(diagnostics.becomes(std::string(NO_NAME) + NO_CALLID + NO_REQUESTER));
    EXPECT_EQ(sent_before_mark(p), "");
}

/* Neither the type nor the declared encoding of the argument is looked at. */
TEST_F(serving, whatever_names_a_function_is_a_request)
{
    offer("f", echo);
    launch();
    p.send(rpc_event("/anything", {"/ZEB/RPC/CID: 1", "/ZEB/RPC/NAM: f"}, "x", caller(), "1"));
    p.expect(response("01", {"/ZEB/RPC/ISR: true", "/ZEB/RPC/CID: 1"}, "x"));
}

TEST_F(serving, a_requester_without_a_key_is_answered_all_the_same)
{
    offer("f", echo);
    launch();
    p.send(rpc_event(
        "/ZEB/RPC/REQ", {"/ZEB/RPC/CID: 1", "/ZEB/RPC/NAM: f"}, "x",
        address("srcAddr",
                {{"id", "5"}, {"component", "caller"}, {"hostname", "node1"}, {"address", "ADDR5"}}),
        "1"));
    p.expect(response("01", {"/ZEB/RPC/ISR: true", "/ZEB/RPC/CID: 1"}, "x"));
}

TEST_F(serving, of_two_functions_of_one_name_the_first_is_called)
{
    offer("f", echo);
    offer("f", silent);
    launch();
    p.send(request("f", "f:0", "first"));
    p.expect(response("01", {"/ZEB/RPC/ISR: true", "/ZEB/RPC/CID: f:0"}, "first"));
}

TEST_F(serving, the_63rd_function_is_called_and_the_64th_accepted_and_never_called)
{
    const stderr_capture diagnostics;
    for (int i = 1; i <= 65; i++)
        offer(numbered("f", i).c_str(), echo);
    launch();
    p.send(request("f1", "a", "1") + request("f63", "b", "63") + request("f64", "c", "64") +
           request("f65", "d", "65"));
    p.expect(response("01", {"/ZEB/RPC/ISR: true", "/ZEB/RPC/CID: a"}, "1"));
    p.expect(response("02", {"/ZEB/RPC/ISR: true", "/ZEB/RPC/CID: b"}, "63"));
    p.expect(response("03", {"/ZEB/RPC/ERR: -3", "/ZEB/RPC/ISR: true", "/ZEB/RPC/CID: c"}, NO_FUNCTION));
    p.expect(response("04", {"/ZEB/RPC/ERR: -3", "/ZEB/RPC/ISR: true", "/ZEB/RPC/CID: d"}, NO_FUNCTION));
    EXPECT_TRUE(diagnostics.becomes("RPCSERVER ERROR[rcv]: function f64 not found\n"
                                    "RPCSERVER ERROR[rcv]: function f65 not found\n"));
}

TEST_F(serving, a_large_argument_comes_back_whole)
{
    const std::string large(1 << 20, 'x');
    offer("f", echo);
    launch();
    p.send(request("f", "f:0", large));
    p.expect(response("01", {"/ZEB/RPC/ISR: true", "/ZEB/RPC/CID: f:0"}, large));
}

/* ---- Modes ---- */

TEST_F(serving, in_mode_0_functions_run_one_after_the_other)
{
    offer("slow", slow);
    offer("f", echo);
    launch();
    p.send(request("slow", "1") + request("f", "2", "x"));
    ASSERT_TRUE(inside.was_reached_by(1));
    EXPECT_EQ(sent_before_mark(p), "");
    inside.let_pass();
    p.expect(response("01", {"/ZEB/RPC/ISR: true", "/ZEB/RPC/CID: 1"}, "late"));
    p.expect(response("02", {"/ZEB/RPC/ISR: true", "/ZEB/RPC/CID: 2"}, "x"));
}

TEST_F(serving, in_mode_1_they_run_at_once)
{
    EXPECT_EQ(zeb_rpcserver_setcbmode(server, 1), 0);
    offer("slow", slow);
    offer("f", echo);
    launch();
    p.send(request("slow", "1") + request("slow", "1") + request("slow", "1"));
    ASSERT_TRUE(inside.was_reached_by(3));
    p.send(request("f", "2", "x"));
    p.expect(response("01", {"/ZEB/RPC/ISR: true", "/ZEB/RPC/CID: 2"}, "x")); /* overtakes them */
    inside.let_pass();
    std::string all;
    for (int i = 0; i < 3; i++) {
        all += p.read_head();
        p.expect("late" + toCaller);
    }
    for (const char *id : {"02", "03", "04"})
        EXPECT_NE(all.find("eventId: " + process_name() + id + "\r\n"), std::string::npos) << id;
}

TEST_F(serving, many_requests_at_once_are_all_answered)
{
    EXPECT_EQ(zeb_rpcserver_setcbmode(server, 1), 0);
    offer("f", echo);
    launch();
    constexpr int count = 200;
    std::string many;
    for (int i = 0; i < count; i++)
        many += request("f", numbered("c", i), "x");
    background sending([&] {
        p.send(many);
        return 0;
    });
    std::string all;
    for (int i = 0; i < count; i++) {
        all += p.read_head();
        p.expect("x" + toCaller);
    }
    sending.get();
    for (int i = 0; i < count; i++)
        EXPECT_NE(all.find("\r\n" + numbered("/ZEB/RPC/CID: c", i) + "\r\n"), std::string::npos) << i;
}

/* ---- Shut down while a function runs ---- */

class ending : public serving, public testing::WithParamInterface<int>
{
  protected:
    ending()
    {
        EXPECT_EQ(zeb_rpcserver_setcbmode(server, GetParam()), 0);
    }
};

TEST_P(ending, shutdown_does_not_wait_for_a_function_which_may_still_answer)
{
    offer("slow", slow);
    launch();
    p.send(request("slow", "1"));
    ASSERT_TRUE(inside.was_reached_by(1));
    const stopwatch watch;
    EXPECT_EQ(zeb_rpcserver_shutdown(server), 0);
    EXPECT_LT(watch.elapsed(), stretched(milliseconds{1000}));
    p.expect(unsubscribe_request(1));
    inside.let_pass();
    p.expect(response("01", {"/ZEB/RPC/ISR: true", "/ZEB/RPC/CID: 1"}, "late"));
}

TEST_P(ending, destroy_does_not_wait_for_a_function_which_may_still_answer)
{
    offer("slow", slow);
    launch();
    p.send(request("slow", "1"));
    ASSERT_TRUE(inside.was_reached_by(1));
    zeb_rpcserver_destroy(&server);
    p.expect(unsubscribe_request(1));
    inside.let_pass();
    p.expect(response("01", {"/ZEB/RPC/ISR: true", "/ZEB/RPC/CID: 1"}, "late"));
}

TEST_P(ending, a_function_that_does_not_answer_is_answered_for_after_the_destroy)
{
    offer("f", [](zeb_rpcrequest *, const void *, int32_t) {
        inside.pass();
        return 0;
    });
    launch();
    p.send(request("f", "1"));
    ASSERT_TRUE(inside.was_reached_by(1));
    zeb_rpcserver_destroy(&server);
    p.expect(unsubscribe_request(1));
    inside.let_pass();
    p.expect(response("01", {"/ZEB/RPC/ISR: true", "/ZEB/RPC/CID: 1"}));
}

TEST_P(ending, requests_that_wait_are_dropped)
{
    offer("slow", slow);
    launch();
    p.send(request("slow", "1") + request("slow", "2"));
    ASSERT_TRUE(inside.was_reached_by(GetParam() == 0 ? 1 : 2)); /* in mode 1 none waits */
    EXPECT_EQ(zeb_rpcserver_shutdown(server), 0);
    p.expect(unsubscribe_request(1));
    inside.let_pass();
    EXPECT_TRUE(no_call_back_threads());
    const std::string sent = sent_before_mark(p);
    size_t responses = 0;
    for (size_t at = sent.find("/ZEB/RPC/RES"); at != std::string::npos;
         at = sent.find("/ZEB/RPC/RES", at + 1))
        responses++;
    EXPECT_EQ(responses, GetParam() == 0 ? 1U : 2U);
}

TEST_P(ending, launched_again_while_a_function_of_before_still_runs_both_answer)
{
    offer("slow", slow);
    offer("f", echo);
    launch();
    p.send(request("slow", "1"));
    ASSERT_TRUE(inside.was_reached_by(1));
    EXPECT_EQ(zeb_rpcserver_shutdown(server), 0);
    p.expect(unsubscribe_request(1));
    launch(2);
    p.send(request("f", "2", "x", "2"));
    p.expect(response("11", {"/ZEB/RPC/ISR: true", "/ZEB/RPC/CID: 2"}, "x", 2));
    inside.let_pass();
    p.expect(response("01", {"/ZEB/RPC/ISR: true", "/ZEB/RPC/CID: 1"}, "late"));
}

/* The server that functions of their own accord end. */
zeb_rpcserver *ended;

TEST_P(ending, a_function_may_shut_its_server_down_and_answer)
{
    ended = server;
    offer("f", [](zeb_rpcrequest *r, const void *, int32_t) {
        EXPECT_EQ(zeb_rpcserver_shutdown(ended), 0);
        return zeb_rpcrequest_sendresult(r, "bye", 3);
    });
    launch();
    p.send(request("f", "1"));
    p.expect(unsubscribe_request(1));
    p.expect(response("01", {"/ZEB/RPC/ISR: true", "/ZEB/RPC/CID: 1"}, "bye"));
    EXPECT_EQ(zeb_rpcserver_isrunning(server), 0);
}

TEST_P(ending, a_function_may_destroy_its_server_and_answer)
{
    ended = server;
    server = nullptr;
    EXPECT_EQ(zeb_rpcserver_addfunc(ended, "f",
                                    [](zeb_rpcrequest *r, const void *, int32_t) {
                                        zeb_rpcserver_destroy(&ended);
                                        return zeb_rpcrequest_sendresult(r, "bye", 3);
                                    }),
              0);
    background launching([] { return zeb_rpcserver_launch(ended); });
    p.expect(subscription(1, {"/ZEB/RPC/SVR: srv"}));
    p.send(status_reply(1, "success"));
    EXPECT_EQ(launching.get(), 0);
    p.send(request("f", "1"));
    p.expect(unsubscribe_request(1));
    p.expect(response("01", {"/ZEB/RPC/ISR: true", "/ZEB/RPC/CID: 1"}, "bye"));
    EXPECT_TRUE(no_call_back_threads());
    EXPECT_EQ(ended, nullptr);
}

/* ---- The end of the runtime ---- */

TEST_P(ending, destroyed_after_the_end_of_the_runtime_it_is_released)
{
    offer("f", echo);
    launch();
    EXPECT_EQ(zeb_shutdown(), 0);
    p.expect_close();
    EXPECT_TRUE(no_call_back_threads());
    EXPECT_EQ(zeb_rpcserver_isrunning(server), 1); /* so it thinks */
    zeb_rpcserver_destroy(&server);
    EXPECT_EQ(server, nullptr);
}

TEST_P(ending, shut_down_after_the_end_of_the_runtime_it_may_be_launched_in_the_next)
{
    offer("f", echo);
    launch();
    EXPECT_EQ(zeb_shutdown(), 0);
    p.expect_close();
    EXPECT_TRUE(no_call_back_threads());
    EXPECT_EQ(zeb_rpcserver_shutdown(server), 0);
    p = connected();
    launch();
    p.send(request("f", "f:0", "x"));
    p.expect(response("01", {"/ZEB/RPC/ISR: true", "/ZEB/RPC/CID: f:0"}, "x"));
}

TEST_P(ending, a_function_that_answers_after_the_end_of_the_runtime_answers_nobody)
{
    static std::atomic<int32_t> result{-5};
    offer("f", [](zeb_rpcrequest *r, const void *, int32_t) {
        inside.pass();
        result = zeb_rpcrequest_sendresult(r, "late", 4);
        return 0;
    });
    launch();
    p.send(request("f", "1"));
    ASSERT_TRUE(inside.was_reached_by(1));
    EXPECT_EQ(zeb_shutdown(), 0);
    p.expect_close();
    inside.let_pass();
    EXPECT_TRUE(no_call_back_threads());
    EXPECT_EQ(result.load(), 0);
}

TEST_P(ending, a_lost_connection_subscribes_it_again)
{
    offer("f", echo);
    launch();
    p.close();
    p = daemon.accept_connected(home.path());
    p.expect(subscription(1, {"/ZEB/RPC/SVR: srv"}));
    p.send(status_reply(1, "success") + request("f", "f:0", "x"));
    p.expect(response("01", {"/ZEB/RPC/ISR: true", "/ZEB/RPC/CID: f:0"}, "x"));
}

INSTANTIATE_TEST_SUITE_P(mode, ending, testing::Values(0, 1));

TEST_F(serving, shutdown_and_destroy_against_requests)
{
    EXPECT_EQ(zeb_rpcserver_setcbmode(server, 1), 0);
    offer("f", echo);
    for (uint32_t id = 1; id <= 20; id++) {
        launch(id);
        std::string many;
        for (int i = 0; i < 20; i++)
            many += request("f", "c", "x", std::to_string(id));
        p.send(many);
        EXPECT_EQ(zeb_rpcserver_shutdown(server), 0);
        std::string line;
        do
            line = p.read_line();
        while (line.find("POST /unsubscribe HTTP/1.1") == std::string::npos);
        p.read_head();
        EXPECT_TRUE(no_call_back_threads());
        sent_before_mark(p); /* the responses that came after the unsubscribe */
    }
}

TEST_F(serving, in_a_forked_child_it_is_dead_and_in_the_parent_undisturbed)
{
    offer("f", echo);
    launch();
    const pid_t child = fork();
    if (child == 0) {
        zeb_rpcserver_destroy(&server);
        _exit(server == nullptr ? 7 : 8);
    }
    int status = 0;
    EXPECT_TRUE(eventually([&] { return waitpid(child, &status, WNOHANG) == child; }));
    EXPECT_EQ(WIFEXITED(status) ? WEXITSTATUS(status) : -1, 7);
    p.send(request("f", "f:0", "x"));
    p.expect(response("01", {"/ZEB/RPC/ISR: true", "/ZEB/RPC/CID: f:0"}, "x"));
}

} // namespace
