/* Who owns what: each family of handles is made, used, and released in every order that is allowed, also
 * around the end of the runtime. Nothing may be left over and nothing touched that is gone: the address
 * sanitizer and its leak checker watch. */
#include "rpc.h"

#include <algorithm>
#include <numeric>

namespace
{

using namespace zebtest;

struct step {
    const char *name;
    std::function<void()> run;
};

/* FIRST happens before SECOND, by their names. */
struct rule {
    const char *first;
    const char *second;
};

class owning : public conversation
{
  protected:
    using scenario = std::function<std::vector<step>(peer &)>;

    /* Makes SCENARIO in a runtime of its own and takes its steps, once for each order that RULES allow. One
     * of the steps must be the shutdown. Returns the number of orders. */
    int in_every_order(const scenario &make, const std::vector<rule> &rules)
    {
        int orders = 0;
        std::vector<size_t> order;
        do {
            peer p = connected();
            const std::vector<step> steps = make(p);
            if (order.empty()) {
                order.resize(steps.size());
                std::iota(order.begin(), order.end(), 0U);
            }
            std::string names;
            for (const size_t i : order)
                names += std::string(steps[i].name) + ", ";
            SCOPED_TRACE(names);
            for (const size_t i : order)
                steps[i].run();
            p.expect_end();
            EXPECT_TRUE(no_call_back_threads());
            orders++;
            if (HasFailure())
                return orders;
            while (std::next_permutation(order.begin(), order.end()) && !is_allowed(steps, order, rules))
                continue;
        } while (!std::is_sorted(order.begin(), order.end()));
        return orders;
    }

    static step shutdown()
    {
        return {"shutdown", [] { EXPECT_EQ(zeb_shutdown(), 0); }};
    }

  private:
    static bool is_allowed(const std::vector<step> &steps, const std::vector<size_t> &order,
                           const std::vector<rule> &rules)
    {
        return std::all_of(rules.begin(), rules.end(), [&](const rule &r) {
            size_t first = 0;
            size_t second = 0;
            for (size_t at = 0; at < order.size(); at++) {
                if (steps[order[at]].name == std::string_view(r.first))
                    first = at;
                if (steps[order[at]].name == std::string_view(r.second))
                    second = at;
            }
            return first < second;
        });
    }
};

/* A piece of the stream "key" for subscriber 1. */
std::string piece(std::string_view body)
{
    return lines({"POST /event HTTP/1.1", "className: IncomingStreamingNotification", "SubscriberID: 1",
                  "eventType: /s", "eventId: e", "creationTime: 1", "deliveryTime: 2", "affectedComponents: ",
                  "affectedNodes: ", "generatingComponent: ", "generatingProcess: ", "generatingNode: ",
                  "instanceName: ", "LocalOnly: false", "numberOfProperties: 0", "streamKey: key",
                  "Content-Length: " + std::to_string(body.size()), "AddrList-Length: 0", ""}) +
           std::string(body);
}

std::string member_address(const std::string &segment, const std::string &id)
{
    return address(segment, {{"id", id}, {"key", "node1:" + id}, {"address", "ADDR" + id}},
                   {{"/ZEB/RPC/SVR", "a"}});
}

/* The first step order is the one in which the steps are listed, so it has to be allowed. */

TEST_F(owning, publishers_and_what_they_publish)
{
    const int orders = in_every_order(
        [](peer &) {
            zeb_publisher *first = zeb_publisher_create("first");
            zeb_publisher *second = zeb_publisher_create("second");
            zeb_publisher_publish(first, zeb_notification_create("/t", "body", 4));
            return std::vector<step>{
                {"publish", [=] { zeb_publisher_publish(first, zeb_notification_create("/t", "body", 4)); }},
                {"close first", [=] { zeb_publisher_close(first); }},
                {"close second", [=] { zeb_publisher_close(second); }},
                shutdown()};
        },
        {{"publish", "close first"}, {"close first", "shutdown"}, {"close second", "shutdown"}});
    EXPECT_EQ(orders, 3);
}

TEST_F(owning, publishers_left_to_the_shutdown)
{
    const int orders = in_every_order(
        [](peer &) {
            zeb_publisher_publish(zeb_publisher_create("c"), zeb_notification_create("/t", nullptr, 0));
            return std::vector<step>{shutdown()};
        },
        {});
    EXPECT_EQ(orders, 1);
}

TEST_F(owning, subscribers_and_what_they_receive)
{
    const int orders = in_every_order(
        [this](peer &p) {
            zeb_subscriber *sub = subscribed(p, 1);
            p.send(message("1", "/held") + message("1", "/also held") + message("1", "/queued"));
            zeb_notification *one = zeb_subscriber_receive(sub, 1, 0);
            zeb_notification *two = zeb_subscriber_receive(sub, 1, 0);
            return std::vector<step>{
                {"relinquish one", [=] { zeb_subscriber_relinquish(sub, one); }},
                {"publish two", [=] { zeb_publisher_publish(zeb_subscriber_getPublisher(sub), two); }},
                {"close", [=] { zeb_subscriber_close(sub); }},
                shutdown()};
        },
        {{"relinquish one", "close"}, {"publish two", "close"}, {"close", "shutdown"}});
    EXPECT_EQ(orders, 2);
}

TEST_F(owning, subscribers_left_to_the_shutdown_with_everything_they_have)
{
    const int orders = in_every_order(
        [this](peer &p) {
            zeb_subscriber *sub = subscribed(p, 1);
            p.send(message("1", "/held") + message("1", "/queued") + piece("unfetched"));
            EXPECT_NE(zeb_subscriber_receive(sub, 1, 0), nullptr);
            zeb_subscriber_setName(sub, "name");
            EXPECT_EQ(zeb_subscriber_registercallback(
                          sub, [](zeb_notification *, void *) { return 0; }, nullptr, 0),
                      0);
            return std::vector<step>{shutdown()};
        },
        {});
    EXPECT_EQ(orders, 1);
}

TEST_F(owning, incoming_streams_their_first_pieces_and_their_subscribers)
{
    for (const bool ended : {false, true}) {
        const int orders = in_every_order(
            [this, ended](peer &p) {
                zeb_subscriber *sub = subscribed(p, 1);
                p.send(piece("one") + piece("two") + (ended ? piece("") : "") + message("1", "/all there"));
                zeb_notification *n = zeb_subscriber_receive(sub, 1, 0);
                zeb_instream *in = zeb_notification_getInputStream(n);
                EXPECT_EQ(receive_type(sub), "/all there");
                return std::vector<step>{{"read",
                                          [=] {
                                              char buffer[2];
                                              zeb_instream_read(in, buffer, sizeof(buffer));
                                          }},
                                         {"relinquish", [=] { zeb_subscriber_relinquish(sub, n); }},
                                         {"close stream",
                                          [=] {
                                              zeb_instream *mine = in;
                                              zeb_instream_close(&mine);
                                          }},
                                         {"close subscriber", [=] { zeb_subscriber_close(sub); }},
                                         shutdown()};
            },
            {{"read", "close stream"}, {"relinquish", "close subscriber"}, {"close subscriber", "shutdown"}});
        EXPECT_EQ(orders, 10);
    }
}

TEST_F(owning, outgoing_streams_and_their_publishers)
{
    const int orders = in_every_order(
        [](peer &) {
            zeb_publisher *publisher = zeb_publisher_create("c");
            zeb_notification *head = zeb_notification_createstream("/s");
            zeb_notification_setProperty(head, "k", "v");
            zeb_publisher_publish(publisher, head);
            zeb_outstream *out = zeb_notification_getOutputStream(head);
            return std::vector<step>{{"write", [=] { EXPECT_EQ(zeb_outstream_write(out, "x", 1), 1); }},
                                     {"close stream",
                                      [=] {
                                          zeb_outstream *mine = out;
                                          zeb_outstream_close(&mine);
                                      }},
                                     {"close publisher", [=] { zeb_publisher_close(publisher); }},
                                     shutdown()};
        },
        {{"write", "close stream"}, {"close publisher", "shutdown"}});
    EXPECT_EQ(orders, 6);
}

TEST_F(owning, lists_of_subscribers_and_their_members)
{
    const int orders = in_every_order(
        [this](peer &p) {
            zeb_subscriberlist *list = zeb_subscriberlist_create();
            zeb_subscriber *first = subscribed(p, 1);
            zeb_subscriber *second = subscribed(p, 2);
            zeb_subscriberlist_add(list, first);
            zeb_subscriberlist_add(list, second);
            p.send(message("1", "/t"));
            EXPECT_EQ(zeb_subscriber_multirecv(list, 1, 0), first);
            return std::vector<step>{{"close first", [=] { zeb_subscriber_close(first); }},
                                     {"close second", [=] { zeb_subscriber_close(second); }},
                                     {"destroy",
                                      [=] {
                                          zeb_subscriberlist *mine = list;
                                          zeb_subscriberlist_destroy(&mine);
                                      }},
                                     shutdown()};
        },
        {{"close first", "shutdown"}, {"close second", "shutdown"}});
    EXPECT_EQ(orders, 8);
}

TEST_F(owning, lists_of_subscribers_whose_members_are_left_to_the_shutdown)
{
    const int orders = in_every_order(
        [this](peer &p) {
            zeb_subscriberlist *list = zeb_subscriberlist_create();
            zeb_subscriberlist_add(list, subscribed(p, 1));
            return std::vector<step>{{"destroy",
                                      [=] {
                                          zeb_subscriberlist *mine = list;
                                          zeb_subscriberlist_destroy(&mine);
                                      }},
                                     shutdown()};
        },
        {});
    EXPECT_EQ(orders, 2);
}

TEST_F(owning, copies_of_addresses_and_where_they_come_from)
{
    const int orders = in_every_order(
        [this](peer &p) {
            zeb_subscriber *sub = subscribed(p, 1);
            p.send(rpc_event("/t", {}, "", member_address("srcAddr", "5") + member_address("dstAddr0", "6"),
                             "1"));
            zeb_notification *n = zeb_subscriber_receive(sub, 1, 0);
            zeb_laddrlist *copy = zeb_laddrlist_dup(zeb_notification_getDestinationAddrs(n));
            zeb_laddrlist_add(copy, zeb_notification_generatingAddress(n));
            zeb_laddrlist_add(copy, zeb_laddrlist_get(copy, 0)); /* of its own */
            return std::vector<step>{{"relinquish", [=] { zeb_subscriber_relinquish(sub, n); }},
                                     {"address",
                                      [=] {
                                          zeb_notification *m = zeb_notification_create("/t", nullptr, 0);
                                          zeb_notification_setDestinationAddrs(m, copy);
                                          zeb_notification_setDestinationAddr(m, zeb_laddrlist_get(copy, 1));
                                          zeb_publisher_publish(zeb_subscriber_getPublisher(sub), m);
                                      }},
                                     {"close", [=] { zeb_subscriber_close(sub); }},
                                     {"destroy",
                                      [=] {
                                          EXPECT_EQ(zeb_laddrlist_count(copy), 3);
                                          zeb_laddrlist *mine = copy;
                                          zeb_laddrlist_destroy(&mine);
                                      }},
                                     shutdown()};
        },
        {{"relinquish", "close"}, {"address", "close"}, {"address", "destroy"}, {"close", "shutdown"}});
    EXPECT_EQ(orders, 7);
}

TEST_F(owning, texts_arrays_and_blocks_outlive_what_they_were_made_from)
{
    const int orders = in_every_order(
        [this](peer &p) {
            zeb_subscriber *sub = subscribed(p, 1);
            p.send(rpc_event("/t", {"a: 1", "b: 2"}, block_signature() + segment("s", 0) + element("k", "v"),
                             member_address("srcAddr", "5"), "1"));
            zeb_notification *n = zeb_subscriber_receive(sub, 1, 0);
            int32_t length = 0;
            const void *body = zeb_notification_body(n, &length);
            zeb_bb *block = zeb_bb_body2block(body, length);
            char *dump = zeb_notification_toString(n, 4);
            char *shown = zeb_logicaladdr_toString(zeb_notification_generatingAddress(n));
            zeb_property *all = zeb_notification_getAllProperties(n, &length);
            EXPECT_EQ(length, 2);
            return std::vector<step>{
                {"relinquish", [=] { zeb_subscriber_relinquish(sub, n); }},
                {"destroy block",
                 [=] {
                     EXPECT_STREQ(zeb_bb_seg_getelement(zeb_bb_getsegment(block, "s"), "k", nullptr), "v");
                     zeb_bb_destroy(block);
                 }},
                {"free texts",
                 [=] {
                     EXPECT_NE(std::string(dump).find("  k=v\n"), std::string::npos);
                     EXPECT_NE(std::string(shown).find("/ZEB/RPC/SVR=a"), std::string::npos);
                     free(dump);
                     free(shown);
                     free(all);
                 }},
                {"close", [=] { zeb_subscriber_close(sub); }},
                shutdown()};
        },
        {{"relinquish", "close"}, {"close", "shutdown"}});
    EXPECT_EQ(orders, 20);
}

TEST_F(owning, property_lists_and_who_copied_them)
{
    const int orders = in_every_order(
        [](peer &p) {
            zeb_proplist *properties = zeb_proplist_create();
            zeb_proplist_put(properties, "room", "12");
            zeb_rpcserver *server = zeb_rpcserver_create("a", "c");
            EXPECT_EQ(zeb_rpcserver_setaddrprops(server, properties), 0);
            EXPECT_EQ(zeb_rpcserver_setaddrprops(server, properties), 0); /* in place of the first */
            zeb_subscriber *sub = zeb_subscriber_create_async("/t", "c", nullptr, properties);
            p.read_head();
            return std::vector<step>{{"destroy list",
                                      [=] {
                                          zeb_proplist *mine = properties;
                                          zeb_proplist_destroy(&mine);
                                      }},
                                     {"destroy server",
                                      [=] {
                                          zeb_rpcserver *mine = server;
                                          zeb_rpcserver_destroy(&mine);
                                      }},
                                     {"close", [=] { zeb_subscriber_close(sub); }},
                                     shutdown()};
        },
        {{"close", "shutdown"}});
    EXPECT_EQ(orders, 12);
}

int32_t answer(zeb_rpcrequest *r, const void *data, int32_t length)
{
    return zeb_rpcrequest_sendresult(r, data, length);
}

TEST_F(owning, servers_of_remote_calls)
{
    for (const int mode : {0, 1}) {
        const int orders = in_every_order(
            [mode](peer &p) {
                zeb_rpcserver *server = zeb_rpcserver_create("a", "c");
                EXPECT_EQ(zeb_rpcserver_setcbmode(server, mode), 0);
                EXPECT_EQ(zeb_rpcserver_addfunc(server, "f", answer), 0);
                background launching([=] { return zeb_rpcserver_launch(server); });
                p.read_head();
                p.send(status_reply(1, "success"));
                EXPECT_EQ(launching.get(), 0);
                p.send(rpc_event("/ZEB/RPC/REQ", {"/ZEB/RPC/CID: f:0", "/ZEB/RPC/NAM: f"}, "x",
                                 member_address("srcAddr", "5"), "1"));
                p.read_head(); /* the response */
                return std::vector<step>{
                    {"shut server down", [=] { EXPECT_EQ(zeb_rpcserver_shutdown(server), 0); }},
                    {"destroy server",
                     [=] {
                         zeb_rpcserver *mine = server;
                         zeb_rpcserver_destroy(&mine);
                     }},
                    shutdown()};
            },
            {{"shut server down", "destroy server"}});
        EXPECT_EQ(orders, 3);
    }
}

TEST_F(owning, clients_of_remote_calls_their_calls_responses_and_servers)
{
    const int orders = in_every_order(
        [](peer &p) {
            const char *names[] = {"a"};
            background creation([&] { return zeb_rpcclient_create(names, 1, "c"); });
            p.read_head();
            const std::string list = block_signature() + member_address("addAddr0", "7");
            p.send(status_reply(1, "success") +
                   lines({"POST /event HTTP/1.1", "className: MembershipDeltaNotification", "SubscriberID: 1",
                          "eventType: /m", "eventId: e", "creationTime: 1", "deliveryTime: 2",
                          "Content-Length: 0", "AddrList-Length: " + std::to_string(list.size()), ""}) +
                   list);
            zeb_rpcclient *client = creation.get();
            zeb_laddrlist *servers = zeb_rpcclient_getservers(client, "a");
            zeb_rpcinvocation *call = zeb_rpcclient_invoke(client, "f", servers, "x", 1);
            EXPECT_NE(zeb_rpcclient_invoke(client, "pending", servers, "x", 1), nullptr); /* the client's */
            for (const char *final : {"false", "false", "true"})
                p.send(rpc_event("/ZEB/RPC/RES", {std::string("/ZEB/RPC/ISR: ") + final, "/ZEB/RPC/CID: f:0"},
                                 "x", member_address("srcAddr", "7"), "1"));
            zeb_rpcresponse *response = zeb_rpcinvocation_getresponse(call, 1, 0);
            zeb_rpcresponse *second = zeb_rpcinvocation_getresponse(call, 1, 0);
            zeb_rpcresponse_destroy(&second);
            zeb_rpcresponse *last = zeb_rpcinvocation_getresponse(call, 1, 0);
            EXPECT_EQ(zeb_rpcresponse_isresult(last), 1); /* so the call is complete */
            zeb_rpcresponse_destroy(&last);
            return std::vector<step>{{"destroy response",
                                      [=] {
                                          zeb_rpcresponse *mine = response;
                                          zeb_rpcresponse_destroy(&mine);
                                      }},
                                     {"destroy call",
                                      [=] {
                                          zeb_rpcinvocation *mine = call;
                                          zeb_rpcinvocation_destroy(&mine);
                                      }},
                                     {"destroy servers",
                                      [=] {
                                          zeb_laddrlist *mine = servers;
                                          zeb_laddrlist_destroy(&mine);
                                      }},
                                     {"destroy client",
                                      [=] {
                                          zeb_rpcclient *mine = client;
                                          zeb_rpcclient_destroy(&mine);
                                      }},
                                     shutdown()};
        },
        {});
    EXPECT_EQ(orders, 120);
}

/* Nothing of these needs a runtime. */
TEST(owning_without_a_runtime, lists_blocks_and_notifications_texts)
{
    zeb_proplist *properties = zeb_proplist_create();
    zeb_proplist_put(properties, "a", "1");
    zeb_proplist_put(properties, "a", "2");
    zeb_proplist_destroy(&properties);
    EXPECT_EQ(properties, nullptr);

    zeb_laddrlist *addresses = zeb_laddrlist_create();
    zeb_laddrlist *copy = zeb_laddrlist_dup(addresses);
    zeb_laddrlist_destroy(&addresses);
    EXPECT_EQ(addresses, nullptr);
    zeb_laddrlist_destroy(&copy);

    zeb_bb *block = zeb_bb_create();
    zeb_bb_seg_addelement(zeb_bb_addsegment(block, "s"), "k", "v");
    int32_t length = 0;
    void *body = zeb_bb_block2body(block, &length);
    zeb_bb_destroy(block);
    zeb_bb *again = zeb_bb_body2block(body, length);
    free(body);
    const owned_text text(zeb_bb_toString(again));
    zeb_bb_destroy(again);
    EXPECT_STREQ(text.get(), "Seg:s\n  k=v\n");

    const owned_text dump(zeb_notification_toString(nullptr, 0));
    EXPECT_STREQ(dump.get(), "NOTIFICATION 0x0 (NULL)\n");
}

} // namespace
