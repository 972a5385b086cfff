/* Every call of the library, with its first request for memory refused, then its second, and so on: once one
 * alone, once all that follow, too. After each the call has returned, the library works, and nothing is left
 * behind. */
#include "addresses.h"
#include "child.h"
#include "script.h"
#include "upkeep.h"

#include "ezebqueue.h"
#include "ezebstream.h"

#include <condition_variable>
#include <fstream>
#include <set>

namespace
{

using namespace zebtest;
using namespace sweep;

/* Memory stays out for this long; a call that waits for the daemon meanwhile has to get over it. */
constexpr milliseconds DROUGHT{150};

struct figures {
    int calls = 0;
    int64_t refused = 0;
};
figures total;

/* ---- One run of a call ---- */

class stage
{
  public:
    stage(unit::refusal &refusal, obliging_daemon *d) : refuse(refusal), theDaemon(d) {}

    obliging_daemon &daemon()
    {
        return *theDaemon;
    }

    /* CALL with the requests refused that this run is about. */
    template <typename Call>
    auto failing(Call call)
    {
        const drought span(refuse);
        return call();
    }

  private:
    /* Refuses from its beginning to its end, or until memory has been out for long enough. */
    class drought
    {
      public:
        explicit drought(unit::refusal &r) : refuse(r)
        {
            if (refuse.isPersistent())
                rain = std::thread([this] { wait(); });
            refuse.begin();
        }
        ~drought()
        {
            refuse.end();
            {
                const std::lock_guard hold(lock);
                over = true;
            }
            changed.notify_one();
            if (rain.joinable())
                rain.join();
        }
        drought(const drought &) = delete;
        drought &operator=(const drought &) = delete;

      private:
        void wait()
        {
            std::unique_lock hold(lock);
            if (!changed.wait_for(hold, DROUGHT, [this] { return over; }))
                unit::refusal::relent();
        }
        unit::refusal &refuse;
        std::mutex lock;
        std::condition_variable changed;
        bool over = false;
        std::thread rain;
    };

    unit::refusal &refuse;
    obliging_daemon *theDaemon;
};

/* ---- Objects that calls are made with ---- */

struct subscription {
    explicit subscription(const char *interest = nullptr)
        : sub(zeb_subscriber_create("/t", "c", interest, nullptr, nullptr))
    {
        EXPECT_NE(sub, nullptr);
    }
    ~subscription()
    {
        zeb_subscriber_close(sub);
    }
    subscription(const subscription &) = delete;
    subscription &operator=(const subscription &) = delete;

    [[nodiscard]] std::string id() const
    {
        return std::to_string(zeb_subscriber_id(sub));
    }
    zeb_subscriber *sub;
};

struct reception : subscription {
    explicit reception(stage &s) : reception(s, full_event) {}
    reception(stage &s, const std::function<std::string(const std::string &id)> &event)
    {
        s.daemon().send(event(id()));
        n = zeb_subscriber_receive(sub, 1, 10000);
        EXPECT_NE(n, nullptr);
    }
    ~reception()
    {
        if (n != nullptr)
            zeb_subscriber_relinquish(sub, n);
    }
    reception(const reception &) = delete;
    reception &operator=(const reception &) = delete;

    [[nodiscard]] zeb_logicaladdr *address() const
    {
        return zeb_notification_generatingAddress(n);
    }
    zeb_notification *n = nullptr;
};

struct publisher {
    publisher() : handle(zeb_publisher_create("c"))
    {
        EXPECT_NE(handle, nullptr);
    }
    ~publisher()
    {
        zeb_publisher_close(handle);
    }
    publisher(const publisher &) = delete;
    publisher &operator=(const publisher &) = delete;
    zeb_publisher *handle;
};

/* A stream to be written; its head is published. */
struct outstream : publisher {
    outstream() : head(zeb_notification_createstream("/s"))
    {
        zeb_notification_setProperty(head, "name", "value");
        zeb_publisher_publish(handle, head);
        out = zeb_notification_getOutputStream(head);
        EXPECT_NE(out, nullptr);
    }
    ~outstream()
    {
        zeb_outstream_close(&out);
    }
    outstream(const outstream &) = delete;
    outstream &operator=(const outstream &) = delete;
    zeb_notification *head;
    zeb_outstream *out = nullptr;
};

struct instream : reception {
    explicit instream(stage &s)
        : reception(s, [](const std::string &id) { return stream_piece(id, "first") + stream_piece(id, ""); })
    {
        in = zeb_notification_getInputStream(n);
        EXPECT_NE(in, nullptr);
        EXPECT_TRUE(eventually([&] { return ezeb_queue_length(in->chunks) == 2; }));
    }
    ~instream()
    {
        zeb_instream_close(&in);
    }
    instream(const instream &) = delete;
    instream &operator=(const instream &) = delete;
    zeb_instream *in = nullptr;
};

struct proplist {
    proplist() : list(zeb_proplist_create())
    {
        zeb_proplist_put(list, "a", "1");
    }
    ~proplist()
    {
        zeb_proplist_destroy(&list);
    }
    proplist(const proplist &) = delete;
    proplist &operator=(const proplist &) = delete;
    zeb_proplist *list;
};

struct block {
    block() : handle(zeb_bb_create()), seg(zeb_bb_addsegment(handle, "seg"))
    {
        sub = zeb_bb_seg_addsegment(seg, "sub");
        elem = zeb_bb_seg_addelement(seg, "elem", "text");
        zeb_bb_seg_addelement_b(sub, "bytes", "\x01\x02", 2);
    }
    ~block()
    {
        zeb_bb_destroy(handle);
    }
    block(const block &) = delete;
    block &operator=(const block &) = delete;
    zeb_bb *handle;
    zeb_bb_seg *seg;
    zeb_bb_seg *sub;
    zeb_bb_elem *elem;
};

/* A notification that is never published belongs to nobody: it goes the way of all that are. */
struct draft {
    draft() : n(zeb_notification_create("/t", "body", 4)) {}
    ~draft()
    {
        discard(n);
    }
    draft(const draft &) = delete;
    draft &operator=(const draft &) = delete;

    static void discard(zeb_notification *n)
    {
        if (n != nullptr)
            zeb_subscriber_relinquish(nullptr, n);
    }
    zeb_notification *n;
};

/* Receives what comes within the time that memory may be out. */
void take_soon(zeb_subscriber *sub)
{
    eventually(
        [&] {
            zeb_notification *n = zeb_subscriber_receive(sub, 0, 0);
            draft::discard(n);
            return n != nullptr;
        },
        DROUGHT);
}

/* ---- Remote calls ---- */

struct rpcclient {
    explicit rpcclient(stage &s)
    {
        s.daemon().reply_with(with_one_server);
        client = zeb_rpcclient_create(SERVERS, 1, "c");
        servers = zeb_rpcclient_getservers_wtimeout(client, "srv", 1, 10000);
        EXPECT_NE(servers, nullptr);
    }
    ~rpcclient()
    {
        zeb_laddrlist_destroy(&servers);
        zeb_rpcclient_destroy(&client);
    }
    rpcclient(const rpcclient &) = delete;
    rpcclient &operator=(const rpcclient &) = delete;
    zeb_rpcclient *client = nullptr;
    zeb_laddrlist *servers = nullptr;
};

struct invocation : rpcclient {
    explicit invocation(stage &s) : rpcclient(s), call(zeb_rpcclient_invoke(client, "f", servers, "arg", 3))
    {
        EXPECT_NE(call, nullptr);
    }
    ~invocation()
    {
        zeb_rpcinvocation_destroy(&call);
    }
    invocation(const invocation &) = delete;
    invocation &operator=(const invocation &) = delete;
    zeb_rpcinvocation *call;
};

struct response : invocation {
    explicit response(stage &s) : invocation(s), answer(zeb_rpcinvocation_getresponse(call, 1, 10000))
    {
        EXPECT_NE(answer, nullptr);
    }
    ~response()
    {
        zeb_rpcresponse_destroy(&answer);
    }
    response(const response &) = delete;
    response &operator=(const response &) = delete;
    zeb_rpcresponse *answer;
};

/* What the function of the server does, and that it has done so. */
std::function<void(zeb_rpcrequest *)> duty;
std::atomic<bool> dutyDone{false};

int32_t do_duty(zeb_rpcrequest *request, const void *, int32_t)
{
    duty(request);
    dutyDone = true;
    return 0;
}

struct rpcserver {
    rpcserver() : server(zeb_rpcserver_create("srv", "c"))
    {
        zeb_rpcserver_addfunc(server, "f", do_duty);
    }
    ~rpcserver()
    {
        zeb_rpcserver_destroy(&server);
    }
    rpcserver(const rpcserver &) = delete;
    rpcserver &operator=(const rpcserver &) = delete;
    zeb_rpcserver *server;
};

/* A request that is served with CALL. */
template <typename Call>
std::function<void(stage &)> on_request(Call call)
{
    return [=](stage &s) {
        dutyDone = false;
        duty = [&](zeb_rpcrequest *request) { s.failing([&] { call(request); }); };
        const rpcserver serving;
        EXPECT_EQ(zeb_rpcserver_launch(serving.server), 0);
        s.daemon().send(request_for("1"));
        EXPECT_TRUE(eventually([] { return dutyDone.load(); }));
    };
}

void take_response(zeb_rpcresponse *r, void *count)
{
    zeb_rpcresponse_destroy(&r);
    (*static_cast<std::atomic<int> *>(count))++;
}

/* ---- The table ---- */

enum kind {
    ALONE,   /* needs no runtime */
    RUNNING, /* needs one with a daemon */
    STARTING /* starts or ends one itself: in a process of its own, which may end for want of an address */
};

struct entry {
    const char *name;
    kind what;
    std::function<void(stage &)> run;
};

void PrintTo(const entry &call, std::ostream *out)
{
    *out << call.name;
}

/* A call with an object of type Object, which the run makes before it. */
template <typename Object, typename Call>
std::function<void(stage &)> with(Call call)
{
    return [=](stage &s) {
        if constexpr (std::is_constructible_v<Object, stage &>) {
            Object o(s);
            s.failing([&] { call(o); });
        } else {
            (void)s;
            Object o;
            s.failing([&] { call(o); });
        }
    };
}

/* A start by CALL, which says whether it succeeded, up to the connection. */
template <typename Call>
std::function<void(stage &)> starting(Call call)
{
    return [=](stage &s) {
        const int started = s.failing([&] {
            const int result = call(s);
            if (result == 0)
                eventually([&] { return s.daemon().count("POST /connect") > 0; }, milliseconds{DROUGHT});
            return result;
        });
        EXPECT_TRUE(started == 0 || started == -1) << started;
        if (started == -1) {
            EXPECT_EQ(zeb_init(), 0);
        }
        EXPECT_TRUE(publish_arrives(s.daemon(), "/probe"));
        zeb_shutdown();
    };
}

/* An end by CALL while there is something to send. */
template <typename Call>
std::function<void(stage &)> ending(Call call)
{
    return [=](stage &s) {
        EXPECT_EQ(zeb_init(), 0);
        EXPECT_TRUE(publish_arrives(s.daemon(), "/before"));
        {
            const publisher p;
            zeb_publisher_publish(p.handle, zeb_notification_create("/t", nullptr, 0));
        }
        zeb_subscriber *sub = zeb_subscriber_create_async("/t", "c", nullptr, nullptr);
        (void)sub; /* the shutdown closes it */
        EXPECT_EQ(s.failing(call), 0);
        EXPECT_EQ(zeb_init(), 0);
        EXPECT_TRUE(publish_arrives(s.daemon(), "/probe"));
        zeb_shutdown();
    };
}

/* A creation by CALL, which waits for the daemon. */
template <typename Call>
std::function<void(stage &)> creating(Call call)
{
    return [=](stage &s) {
        const proplist properties;
        zeb_subscriber *sub = s.failing([&] { return call(properties.list); });
        zeb_subscriber_close(sub);
    };
}

zeb_bb *sample_block(const block &b)
{
    int32_t length = 0;
    void *bytes = zeb_bb_block2body(b.handle, &length);
    zeb_bb *read = zeb_bb_body2block(bytes, length);
    give_back(bytes);
    return read;
}

const std::vector<entry> &table()
{
    static const std::vector<entry> calls = {
        /* ---- Runtime ---- */
        {"zeb_get_tiername", RUNNING,
         [](stage &s) {
             char *name = nullptr;
             s.failing([&] { zeb_get_tiername(&name); });
             EXPECT_EQ(name, nullptr);
         }},
        {"zeb_get_instancename", RUNNING,
         [](stage &s) {
             char *name = nullptr;
             s.failing([&] { zeb_get_instancename(&name); });
             give_back(name);
         }},
        {"zeb_shutdown_nowait", STARTING, ending([] { return zeb_shutdown_nowait(); })},
        {"zeb_shutdown", STARTING, ending([] { return zeb_shutdown(); })},
        {"zeb_init", STARTING, starting([](stage &) { return zeb_init(); })},
        {"zeb_init_wtambekhome", STARTING, starting([](stage &) { return zeb_init_wtambekhome("/tmp"); })},
        {"zeb_init_with_port", STARTING,
         starting([](stage &s) { return zeb_init_with_port(s.daemon().port()); })},

        /* ---- Property lists ---- */
        {"zeb_proplist_count", ALONE, with<proplist>([](proplist &p) { zeb_proplist_count(p.list); })},
        {"zeb_proplist_get", ALONE, with<proplist>([](proplist &p) { zeb_proplist_get(p.list, "a"); })},
        {"zeb_proplist_getIndex", ALONE,
         with<proplist>([](proplist &p) { zeb_proplist_getIndex(p.list, 0); })},
        {"zeb_proplist_put", ALONE,
         [](stage &s) {
             proplist p;
             for (int i = 0; i < 40; i++)
                 zeb_proplist_put(p.list, std::to_string(i).c_str(), "v");
             const zeb_property *added = s.failing([&] { return zeb_proplist_put(p.list, "new", "value"); });
             const zeb_property *changed = s.failing([&] { return zeb_proplist_put(p.list, "a", "2"); });
             EXPECT_EQ(zeb_proplist_count(p.list), added != nullptr ? 42 : 41);
             EXPECT_STREQ(zeb_proplist_get(p.list, "a"), changed != nullptr ? "2" : "1");
         }},
        {"zeb_proplist_destroy", ALONE, with<proplist>([](proplist &p) { zeb_proplist_destroy(&p.list); })},
        {"zeb_proplist_create", ALONE,
         [](stage &s) {
             zeb_proplist *list = s.failing([] { return zeb_proplist_create(); });
             zeb_proplist_destroy(&list);
         }},

        /* ---- Notifications ---- */
        {"zeb_notification_getClass", RUNNING,
         with<reception>([](reception &r) { zeb_notification_getClass(r.n); })},
        {"zeb_notification_setLocalOnly", ALONE,
         with<draft>([](draft &d) { zeb_notification_setLocalOnly(d.n); })},
        {"zeb_notification_toString", RUNNING,
         with<reception>([](reception &r) { give_back(zeb_notification_toString(r.n, 4)); })},
        {"zeb_notification_print", RUNNING,
         with<reception>([](reception &r) { zeb_notification_print(r.n); })},
        {"zeb_notification_type", RUNNING,
         with<reception>([](reception &r) { zeb_notification_type(r.n); })},
        {"zeb_notification_localOnly", RUNNING,
         with<reception>([](reception &r) { zeb_notification_localOnly(r.n); })},
        {"zeb_notification_instanceName", RUNNING,
         with<reception>([](reception &r) { zeb_notification_instanceName(r.n); })},
        {"zeb_notification_id", RUNNING, with<reception>([](reception &r) { zeb_notification_id(r.n); })},
        {"zeb_notification_getAllProperties", RUNNING,
         with<reception>([](reception &r) {
             int32_t count = -1;
             const zeb_property *all = zeb_notification_getAllProperties(r.n, &count);
             EXPECT_EQ(count, all != nullptr ? 2 : -1);
             give_back(all);
         })},
        {"zeb_notification_getProperty", RUNNING,
         with<reception>([](reception &r) { zeb_notification_getProperty(r.n, "a"); })},
        {"zeb_notification_stamp", RUNNING,
         with<reception>([](reception &r) { zeb_notification_stamp(r.n); })},
        {"zeb_notification_generatingProcess", RUNNING,
         with<reception>([](reception &r) { zeb_notification_generatingProcess(r.n); })},
        {"zeb_notification_generatingNode", RUNNING,
         with<reception>([](reception &r) { zeb_notification_generatingNode(r.n); })},
        {"zeb_notification_generatingComponent", RUNNING,
         with<reception>([](reception &r) { zeb_notification_generatingComponent(r.n); })},
        {"zeb_notification_deliveryTime", RUNNING,
         with<reception>([](reception &r) { zeb_notification_deliveryTime(r.n); })},
        {"zeb_notification_creationTime", RUNNING,
         with<reception>([](reception &r) { zeb_notification_creationTime(r.n); })},
        {"zeb_notification_body", RUNNING,
         with<reception>([](reception &r) { zeb_notification_body(r.n, nullptr); })},
        {"zeb_notification_affectedNodes", RUNNING,
         with<reception>([](reception &r) { zeb_notification_affectedNodes(r.n); })},
        {"zeb_notification_affectedComponents", RUNNING,
         with<reception>([](reception &r) { zeb_notification_affectedComponents(r.n); })},
        {"zeb_notification_getOutputStream", RUNNING,
         [](stage &s) {
             zeb_notification *head = zeb_notification_createstream("/s");
             s.failing([&] { zeb_notification_getOutputStream(head); });
             zeb_outstream *out = zeb_notification_getOutputStream(head);
             EXPECT_NE(out, nullptr);
             zeb_outstream_close(&out);
         }},
        {"zeb_notification_getInputStream", RUNNING,
         with<instream>([](instream &i) { EXPECT_EQ(zeb_notification_getInputStream(i.n), i.in); })},
        {"zeb_notification_getMembersRemoved", RUNNING,
         with<reception>([](reception &r) { zeb_notification_getMembersRemoved(r.n); })},
        {"zeb_notification_getMembersAdded", RUNNING,
         with<reception>([](reception &r) { zeb_notification_getMembersAdded(r.n); })},
        {"zeb_notification_obtainMemberList", RUNNING,
         with<reception>([](reception &r) { zeb_notification_obtainMemberList(r.n); })},
        {"zeb_notification_isMembership", RUNNING,
         with<reception>([](reception &r) { zeb_notification_isMembership(r.n); })},
        {"zeb_notification_generatingAddress", RUNNING,
         with<reception>([](reception &r) { zeb_notification_generatingAddress(r.n); })},
        {"zeb_notification_getDestinationAddrs", RUNNING,
         with<reception>([](reception &r) { zeb_notification_getDestinationAddrs(r.n); })},
        {"zeb_notification_setDestinationAddr", RUNNING,
         with<reception>([](reception &r) {
             zeb_notification_setDestinationAddr(r.n, r.address());
             EXPECT_NE(zeb_notification_getDestinationAddrs(r.n), nullptr);
         })},
        {"zeb_notification_setDestinationAddrs", RUNNING,
         with<reception>([](reception &r) {
             zeb_notification_setDestinationAddrs(r.n, zeb_notification_getDestinationAddrs(r.n));
             EXPECT_EQ(zeb_laddrlist_count(zeb_notification_getDestinationAddrs(r.n)), 2);
         })},
        {"zeb_notification_setProperty", ALONE,
         with<draft>([](draft &d) {
             const std::string large(5000, 'v');
             const int32_t stored = zeb_notification_setProperty(d.n, "name", large.c_str());
             EXPECT_TRUE(stored == 0 || stored == -2);
             EXPECT_EQ(zeb_notification_getProperty(d.n, "name") != nullptr, stored == 0);
         })},
        {"zeb_notification_createstream", ALONE,
         [](stage &s) { draft::discard(s.failing([] { return zeb_notification_createstream("/s"); })); }},
        {"zeb_notification_create", ALONE,
         [](stage &s) {
             const std::string type(5000, 't');
             draft::discard(
                 s.failing([&] { return zeb_notification_create(type.c_str(), "bytes", 5); }));
         }},

        /* ---- Streams ---- */
        {"zeb_outstream_close", RUNNING, with<outstream>([](outstream &o) { zeb_outstream_close(&o.out); })},
        {"zeb_outstream_flush", RUNNING,
         with<outstream>([](outstream &o) { EXPECT_EQ(zeb_outstream_flush(o.out), 0); })},
        {"zeb_outstream_write", RUNNING,
         with<outstream>([](outstream &o) {
             const int32_t written = zeb_outstream_write(o.out, "bytes", 5);
             EXPECT_TRUE(written == 5 || written == -1) << written;
         })},
        {"zeb_instream_close", RUNNING, with<instream>([](instream &i) { zeb_instream_close(&i.in); })},
        {"zeb_instream_read", RUNNING,
         with<instream>([](instream &i) {
             char bytes[16];
             EXPECT_EQ(zeb_instream_read(i.in, bytes, sizeof(bytes)), 5);
             EXPECT_EQ(zeb_instream_read(i.in, bytes, sizeof(bytes)), 0);
         })},

        /* ---- Publishers ---- */
        {"zeb_one_time_remote_publish", RUNNING,
         [](stage &s) { EXPECT_EQ(s.failing([] { return zeb_one_time_remote_publish(); }), -1); }},
        {"zeb_one_time_publish", STARTING,
         [](stage &s) {
             draft d;
             const int32_t published = s.failing([&] { return zeb_one_time_publish("c", d.n); });
             EXPECT_TRUE(published == 0 || published == -1);
             if (published == 0)
                 d.n = nullptr;
             EXPECT_EQ(zeb_init(), 0);
             EXPECT_TRUE(publish_arrives(s.daemon(), "/probe"));
             zeb_shutdown();
         }},
        {"zeb_publisher_publish", RUNNING,
         with<publisher>([](publisher &p) {
             zeb_publisher_publish(p.handle, zeb_notification_create("/t", "body", 4));
         })},
        {"zeb_publisher_close", RUNNING,
         with<publisher>([](publisher &p) {
             zeb_publisher_close(p.handle);
             p.handle = nullptr;
         })},
        {"zeb_publisher_create", RUNNING,
         [](stage &s) { zeb_publisher_close(s.failing([] { return zeb_publisher_create("c"); })); }},

        /* ---- Subscribers ---- */
        {"zeb_subscriber_returnState", RUNNING,
         [](stage &s) {
             const reception r(s, [](const std::string &id) {
                 return membership("StateGetNotification", server_address("srcAddr", "9"), std::stoi(id));
             });
             s.failing([&] { zeb_subscriber_returnState(r.sub, "state", 5); });
         }},
        {"zeb_subscriber_getState", RUNNING,
         [](stage &s) {
             const subscription member("(\"a=b\")");
             s.daemon().send(membership("MembershipListNotification",
                                        server_address("mbrAddr0", "3") + server_address("mbrAddr1", "4"),
                                        std::stoi(member.id())));
             EXPECT_TRUE(eventually([&] {
                 zeb_notification *n = zeb_subscriber_receive(member.sub, 0, 0);
                 draft::discard(n);
                 return n != nullptr;
             }));
             s.failing([&] { zeb_subscriber_getState(member.sub); });
         }},
        {"zeb_subscriber_multirecv", RUNNING,
         [](stage &s) {
             const subscription u;
             zeb_subscriberlist *list = zeb_subscriberlist_create();
             zeb_subscriberlist_add(list, u.sub);
             s.daemon().send(full_event(u.id()));
             EXPECT_TRUE(eventually([&] { return zeb_subscriber_multirecv(list, 0, 0) == u.sub; }));
             EXPECT_EQ(s.failing([&] { return zeb_subscriber_multirecv(list, 1, 10000); }), u.sub);
             zeb_subscriberlist_destroy(&list);
         }},
        {"zeb_subscriber_cancelcallback", RUNNING,
         [](stage &s) {
             const subscription u;
             std::atomic<int> count{0};
             EXPECT_EQ(zeb_subscriber_registercallback(u.sub, take_notification, &count, 0), 0);
             EXPECT_EQ(s.failing([&] { return zeb_subscriber_cancelcallback(u.sub); }), 0);
         }},
        {"zeb_subscriber_registercallback", RUNNING,
         [](stage &s) {
             const subscription u;
             std::atomic<int> count{0};
             const int32_t registered = s.failing(
                 [&] { return zeb_subscriber_registercallback(u.sub, take_notification, &count, 0); });
             if (registered != 0) {
                 EXPECT_EQ(zeb_subscriber_registercallback(u.sub, take_notification, &count, 0), 0);
             }
             s.daemon().send(full_event(u.id()));
             EXPECT_TRUE(eventually([&] { return count == 1; }));
         }},
        {"zeb_subscriber_getName", RUNNING,
         with<subscription>([](subscription &u) { zeb_subscriber_getName(u.sub); })},
        {"zeb_subscriber_setName", RUNNING,
         with<subscription>([](subscription &u) { zeb_subscriber_setName(u.sub, "name"); })},
        {"zeb_subscriber_subscription", RUNNING,
         with<subscription>([](subscription &u) { zeb_subscriber_subscription(u.sub); })},
        {"zeb_subscriber_relinquish", RUNNING,
         with<reception>([](reception &r) {
             zeb_subscriber_relinquish(r.sub, r.n);
             r.n = nullptr;
         })},
        {"zeb_subscriber_receive", RUNNING,
         [](stage &s) {
             const subscription u;
             s.failing([&] {
                 s.daemon().send(full_event(u.id())); /* what it needs is asked for by the receive thread */
                 take_soon(u.sub);
             });
         }},
        {"zeb_subscriber_id", RUNNING,
         with<subscription>([](subscription &u) { zeb_subscriber_id(u.sub); })},
        {"zeb_subscriber_getPublisher", RUNNING,
         with<subscription>([](subscription &u) { zeb_subscriber_getPublisher(u.sub); })},
        {"zeb_subscriber_component", RUNNING,
         with<subscription>([](subscription &u) { zeb_subscriber_component(u.sub); })},
        {"zeb_subscriber_close", RUNNING,
         with<subscription>([](subscription &u) {
             zeb_subscriber_close(u.sub);
             u.sub = nullptr;
         })},
        {"zeb_subscriber_status", RUNNING,
         [](stage &s) {
             zeb_subscriber *sub = zeb_subscriber_create_async("/t", "c", nullptr, nullptr);
             s.failing([&] { zeb_subscriber_status(sub, nullptr); });
             EXPECT_TRUE(eventually([&] { return zeb_subscriber_status(sub, nullptr) == ZEB_SUBSCRIBED; }));
             zeb_subscriber_close(sub);
         }},
        {"zeb_subscriber_create_async", RUNNING, creating([](zeb_proplist *p) {
             return zeb_subscriber_create_async("/t", "c", "i", p);
         })},
        {"zeb_subscriber_create_wdeltas", RUNNING, creating([](zeb_proplist *p) {
             return zeb_subscriber_create_wdeltas("/t", "c", "i", p, nullptr);
         })},
        {"zeb_subscriber_create", RUNNING, creating([](zeb_proplist *p) {
             return zeb_subscriber_create("/t", "c", "i", p, nullptr);
         })},
        {"zeb_subscriber_create_wtimeout", RUNNING, creating([](zeb_proplist *p) {
             char *why = nullptr;
             zeb_subscriber *sub = zeb_subscriber_create_wtimeout("/t", "c", "i", p, &why, 5000);
             give_back(why);
             return sub;
         })},

        /* ---- Subscriber lists ---- */
        {"zeb_subscriberlist_destroy", RUNNING,
         [](stage &s) {
             const subscription u;
             zeb_subscriberlist *list = zeb_subscriberlist_create();
             zeb_subscriberlist_add(list, u.sub);
             s.failing([&] { zeb_subscriberlist_destroy(&list); });
         }},
        {"zeb_subscriberlist_add", RUNNING,
         [](stage &s) {
             const subscription u;
             zeb_subscriberlist *list = zeb_subscriberlist_create();
             s.failing([&] { zeb_subscriberlist_add(list, u.sub); });
             s.daemon().send(full_event(u.id()));
             zeb_notification *n = zeb_subscriber_receive(u.sub, 1, 10000);
             EXPECT_NE(n, nullptr);
             zeb_subscriber_relinquish(u.sub, n);
             zeb_subscriberlist_destroy(&list);
         }},
        {"zeb_subscriberlist_create", RUNNING,
         [](stage &s) {
             zeb_subscriberlist *list = s.failing([] { return zeb_subscriberlist_create(); });
             zeb_subscriberlist_destroy(&list);
         }},

        /* ---- Addresses ---- */
        {"zeb_laddrlist_add", RUNNING,
         with<reception>([](reception &r) {
             zeb_laddrlist *list = zeb_notification_getDestinationAddrs(r.n);
             zeb_laddrlist_add(list, r.address());
             const int32_t count = zeb_laddrlist_count(list);
             EXPECT_TRUE(count == 2 || count == 3) << count;
         })},
        {"zeb_laddrlist_get", RUNNING,
         with<reception>([](reception &r) {
             zeb_laddrlist_get(zeb_notification_getDestinationAddrs(r.n), 1);
         })},
        {"zeb_laddrlist_count", RUNNING,
         with<reception>([](reception &r) {
             zeb_laddrlist_count(zeb_notification_getDestinationAddrs(r.n));
         })},
        {"zeb_laddrlist_destroy", RUNNING,
         [](stage &s) {
             const reception r(s);
             zeb_laddrlist *list = zeb_laddrlist_dup(zeb_notification_getDestinationAddrs(r.n));
             s.failing([&] { zeb_laddrlist_destroy(&list); });
         }},
        {"zeb_laddrlist_dup", RUNNING,
         with<reception>([](reception &r) {
             zeb_laddrlist *list = zeb_laddrlist_dup(zeb_notification_getDestinationAddrs(r.n));
             EXPECT_EQ(zeb_laddrlist_count(list), list != nullptr ? 2 : 0);
             zeb_laddrlist_destroy(&list);
         })},
        {"zeb_laddrlist_create", ALONE,
         [](stage &s) {
             zeb_laddrlist *list = s.failing([] { return zeb_laddrlist_create(); });
             zeb_laddrlist_destroy(&list);
         }},
        {"zeb_logicaladdr_toString", RUNNING,
         with<reception>([](reception &r) { give_back(zeb_logicaladdr_toString(r.address())); })},
        {"zeb_logicaladdr_getProperty", RUNNING,
         with<reception>([](reception &r) { zeb_logicaladdr_getProperty(r.address(), "/ZEB/RPC/SVR"); })},
        {"zeb_logicaladdr_getPropertyIndex", RUNNING,
         with<reception>([](reception &r) { zeb_logicaladdr_getPropertyIndex(r.address(), 0); })},
        {"zeb_logicaladdr_getPropertyCount", RUNNING,
         with<reception>([](reception &r) { zeb_logicaladdr_getPropertyCount(r.address()); })},
        {"zeb_logicaladdr_equals", RUNNING,
         with<reception>([](reception &r) {
             EXPECT_EQ(zeb_logicaladdr_equals(r.address(), r.address()), 1);
         })},
        {"zeb_logicaladdr_getTierId", RUNNING,
         with<reception>([](reception &r) { zeb_logicaladdr_getTierId(r.address()); })},
        {"zeb_logicaladdr_getTier", RUNNING,
         with<reception>([](reception &r) { zeb_logicaladdr_getTier(r.address()); })},
        {"zeb_logicaladdr_getSubscription", RUNNING,
         with<reception>([](reception &r) { zeb_logicaladdr_getSubscription(r.address()); })},
        {"zeb_logicaladdr_getInstanceName", RUNNING,
         with<reception>([](reception &r) { zeb_logicaladdr_getInstanceName(r.address()); })},
        {"zeb_logicaladdr_getHostName", RUNNING,
         with<reception>([](reception &r) { zeb_logicaladdr_getHostName(r.address()); })},
        {"zeb_logicaladdr_getComponent", RUNNING,
         with<reception>([](reception &r) { zeb_logicaladdr_getComponent(r.address()); })},

        /* ---- Body blocks ---- */
        {"zeb_bb_toString", ALONE, with<block>([](block &b) { give_back(zeb_bb_toString(b.handle)); })},
        {"zeb_bb_elemlist_getnext", ALONE, with<block>([](block &b) { zeb_bb_elemlist_getnext(b.elem); })},
        {"zeb_bb_elemlist_getfirst", ALONE,
         with<block>([](block &b) { zeb_bb_elemlist_getfirst(zeb_bb_seg_getelements(b.seg)); })},
        {"zeb_bb_seglist_getnext", ALONE, with<block>([](block &b) { zeb_bb_seglist_getnext(b.seg); })},
        {"zeb_bb_seglist_getfirst", ALONE,
         with<block>([](block &b) { zeb_bb_seglist_getfirst(zeb_bb_seg_getsegments(b.seg)); })},
        {"zeb_bb_elem_getvalue", ALONE,
         with<block>([](block &b) { zeb_bb_elem_getvalue(b.elem, nullptr); })},
        {"zeb_bb_elem_getname", ALONE, with<block>([](block &b) { zeb_bb_elem_getname(b.elem); })},
        {"zeb_bb_seg_addelement_b", ALONE,
         with<block>([](block &b) {
             zeb_bb_seg_addelement_b(b.seg, "elem", "other", 5); /* in the place of the one that is there */
             b.elem = nullptr;
         })},
        {"zeb_bb_seg_addelement", ALONE,
         with<block>([](block &b) { zeb_bb_seg_addelement(b.seg, "new", "text"); })},
        {"zeb_bb_seg_getelement", ALONE,
         with<block>([](block &b) { zeb_bb_seg_getelement(b.seg, "elem", nullptr); })},
        {"zeb_bb_seg_getelements", ALONE, with<block>([](block &b) { zeb_bb_seg_getelements(b.seg); })},
        {"zeb_bb_seg_addsegment", ALONE,
         with<block>([](block &b) { zeb_bb_seg_addsegment(b.seg, "new"); })},
        {"zeb_bb_seg_getsegment", ALONE,
         with<block>([](block &b) { zeb_bb_seg_getsegment(b.seg, "sub"); })},
        {"zeb_bb_seg_getsegments", ALONE, with<block>([](block &b) { zeb_bb_seg_getsegments(b.seg); })},
        {"zeb_bb_seg_getname", ALONE, with<block>([](block &b) { zeb_bb_seg_getname(b.seg); })},
        {"zeb_bb_addsegment", ALONE, with<block>([](block &b) { zeb_bb_addsegment(b.handle, "new"); })},
        {"zeb_bb_getsegment", ALONE, with<block>([](block &b) { zeb_bb_getsegment(b.handle, "seg"); })},
        {"zeb_bb_getsegments", ALONE, with<block>([](block &b) { zeb_bb_getsegments(b.handle); })},
        {"zeb_bb_body2block", ALONE,
         [](stage &s) {
             const block b;
             int32_t length = 0;
             void *bytes = zeb_bb_block2body(b.handle, &length);
             zeb_bb_destroy(s.failing([&] { return zeb_bb_body2block(bytes, length); }));
             give_back(bytes);
         }},
        {"zeb_bb_block2body", ALONE,
         with<block>([](block &b) {
             int32_t length = -7;
             void *bytes = zeb_bb_block2body(b.handle, &length);
             EXPECT_EQ(length == -7, bytes == nullptr);
             give_back(bytes);
         })},
        {"zeb_bb_destroy", ALONE,
         [](stage &s) {
             const block b;
             zeb_bb *read = sample_block(b);
             s.failing([&] { zeb_bb_destroy(read); });
         }},
        {"zeb_bb_create", ALONE,
         [](stage &s) { zeb_bb_destroy(s.failing([] { return zeb_bb_create(); })); }},

        /* ---- Remote call server ---- */
        {"zeb_rpcrequest_sendprogress", RUNNING,
         on_request([](zeb_rpcrequest *r) { zeb_rpcrequest_sendprogress(r, "half", 4); })},
        {"zeb_rpcrequest_sendresult", RUNNING,
         on_request([](zeb_rpcrequest *r) { zeb_rpcrequest_sendresult(r, "whole", 5); })},
        {"zeb_rpcrequest_senderror", RUNNING,
         on_request([](zeb_rpcrequest *r) { zeb_rpcrequest_senderror(r, 7, "why"); })},
        {"zeb_rpcrequest_getrpcname", RUNNING,
         on_request([](zeb_rpcrequest *r) { EXPECT_STREQ(zeb_rpcrequest_getrpcname(r), "f"); })},
        {"zeb_rpcserver_destroy", RUNNING,
         [](stage &s) {
             rpcserver r;
             EXPECT_EQ(zeb_rpcserver_launch(r.server), 0);
             s.failing([&] { zeb_rpcserver_destroy(&r.server); });
         }},
        {"zeb_rpcserver_shutdown", RUNNING,
         [](stage &s) {
             const rpcserver r;
             EXPECT_EQ(zeb_rpcserver_launch(r.server), 0);
             EXPECT_EQ(s.failing([&] { return zeb_rpcserver_shutdown(r.server); }), 0);
         }},
        {"zeb_rpcserver_isrunning", RUNNING,
         with<rpcserver>([](rpcserver &r) { zeb_rpcserver_isrunning(r.server); })},
        {"zeb_rpcserver_launch", RUNNING,
         [](stage &s) {
             const rpcserver r;
             const int32_t launched = s.failing([&] { return zeb_rpcserver_launch(r.server); });
             EXPECT_EQ(zeb_rpcserver_isrunning(r.server), launched == 0 ? 1 : 0);
             if (launched != 0) {
                 EXPECT_EQ(zeb_rpcserver_launch(r.server), 0);
             }
         }},
        {"zeb_rpcserver_setaddrprops", ALONE,
         [](stage &s) {
             const rpcserver r;
             const proplist p;
             s.failing([&] { zeb_rpcserver_setaddrprops(r.server, p.list); });
         }},
        {"zeb_rpcserver_setcbmode", ALONE,
         with<rpcserver>([](rpcserver &r) { zeb_rpcserver_setcbmode(r.server, 1); })},
        {"zeb_rpcserver_addfunc", ALONE,
         with<rpcserver>([](rpcserver &r) { zeb_rpcserver_addfunc(r.server, "g", do_duty); })},
        {"zeb_rpcserver_create", ALONE,
         [](stage &s) {
             zeb_rpcserver *server = s.failing([] { return zeb_rpcserver_create("srv", "c"); });
             zeb_rpcserver_destroy(&server);
         }},

        /* ---- Remote call client ---- */
        {"zeb_rpcresponse_destroy", RUNNING,
         with<response>([](response &r) { zeb_rpcresponse_destroy(&r.answer); })},
        {"zeb_rpcresponse_isresult", RUNNING,
         with<response>([](response &r) { EXPECT_EQ(zeb_rpcresponse_isresult(r.answer), 1); })},
        {"zeb_rpcresponse_getdata", RUNNING,
         with<response>([](response &r) { zeb_rpcresponse_getdata(r.answer, nullptr); })},
        {"zeb_rpcresponse_getaddr", RUNNING,
         with<response>([](response &r) { zeb_rpcresponse_getaddr(r.answer); })},
        {"zeb_rpcresponse_geterror", RUNNING,
         with<response>([](response &r) { zeb_rpcresponse_geterror(r.answer, nullptr); })},
        {"zeb_rpcinvocation_destroy", RUNNING,
         with<invocation>([](invocation &i) { zeb_rpcinvocation_destroy(&i.call); })},
        {"zeb_rpcinvocation_isdone", RUNNING,
         with<invocation>([](invocation &i) { zeb_rpcinvocation_isdone(i.call); })},
        {"zeb_rpcinvocation_getresponse", RUNNING,
         with<invocation>([](invocation &i) {
             zeb_rpcresponse *r = nullptr;
             eventually(
                 [&] {
                     r = zeb_rpcinvocation_getresponse(i.call, 0, 0);
                     return r != nullptr;
                 },
                 DROUGHT);
             zeb_rpcresponse_destroy(&r);
         })},
        {"zeb_rpcclient_destroy", RUNNING,
         with<rpcclient>([](rpcclient &c) { zeb_rpcclient_destroy(&c.client); })},
        {"zeb_rpcclient_invoke_wcallback", RUNNING,
         [](stage &s) {
             std::atomic<int> count{0};
             const rpcclient c(s);
             zeb_rpcinvocation *call = s.failing([&] {
                 return zeb_rpcclient_invoke_wcallback(c.client, "f", c.servers, "arg", 3, take_response,
                                                       &count);
             });
             zeb_rpcinvocation_destroy(&call);
         }},
        {"zeb_rpcclient_invoke", RUNNING,
         [](stage &s) {
             const rpcclient c(s);
             s.daemon().reply_with({}); /* the answer is not what may fail here */
             zeb_rpcinvocation *call =
                 s.failing([&] { return zeb_rpcclient_invoke(c.client, "f", c.servers, "arg", 3); });
             if (call != nullptr) {
                 EXPECT_FALSE(zeb_rpcinvocation_isdone(call)) << "nobody was asked, and nobody says so";
             }
             zeb_rpcinvocation_destroy(&call);
         }},
        {"zeb_rpcclient_getservers", RUNNING,
         with<rpcclient>([](rpcclient &c) {
             zeb_laddrlist *list = zeb_rpcclient_getservers(c.client, "srv");
             zeb_laddrlist_destroy(&list);
         })},
        {"zeb_rpcclient_getservers_wtimeout", RUNNING,
         with<rpcclient>([](rpcclient &c) {
             zeb_laddrlist *list = zeb_rpcclient_getservers_wtimeout(c.client, "srv", 1, 2000);
             zeb_laddrlist_destroy(&list);
         })},
        {"zeb_rpclient_register_callback", RUNNING,
         [](stage &s) { s.failing([] { zeb_rpclient_register_callback(); }); }},
        {"zeb_rpcclient_create", RUNNING,
         [](stage &s) {
             s.daemon().reply_with(with_one_server);
             zeb_rpcclient *client = s.failing([] { return zeb_rpcclient_create(SERVERS, 1, "c"); });
             zeb_rpcclient_destroy(&client);
         }},
    };
    return calls;
}

/* ---- The sweep ---- */

/* One run within this process. */
void run_here(const entry &call, unit::refusal &refuse)
{
    if (call.what == ALONE) {
        const upkeep before;
        stage s(refuse, nullptr);
        call.run(s);
        before.check();
        return;
    }
    obliging_daemon daemon;
    set_variable("TAMBEK_ZEB_PROXY_PORT", std::to_string(daemon.port()));
    stage s(refuse, &daemon);
    if (call.what == STARTING) {
        call.run(s);
        return;
    }
    const upkeep before;
    ASSERT_EQ(zeb_init(), 0);
    EXPECT_TRUE(publish_arrives(daemon, "/before")); /* both threads have what they need */
    call.run(s);
    EXPECT_TRUE(publish_arrives(daemon, "/probe"));
    zeb_shutdown();
    daemon.hang_up();
    EXPECT_TRUE(eventually([&] { return !daemon.is_connected(); }));
    before.check();
}

/* The same in a child. True when a request was refused. */
bool run_in_child(const entry &call, int64_t nth, bool persistent)
{
    const outcome result = in_child(
        [&] {
            const int64_t before = blocks();
            unit::refusal refuse(nth, persistent);
            run_here(call, refuse);
            refuse.end();
            EXPECT_TRUE(eventually([&] { return blocks() == before; }, milliseconds{3000}))
                << blocks() - before << " blocks are not released";
            if (testing::Test::HasFailure())
                return static_cast<int>(FAILED);
            return static_cast<int>(refuse.happened() ? PASSED : PASSED_UNDISTURBED);
        },
        milliseconds{20000});
    EXPECT_TRUE(result.is_good()) << "exit code " << result.code << result.manner;
    return result.code != PASSED_UNDISTURBED;
}

bool run_once(const entry &call, int64_t nth, bool persistent)
{
    SCOPED_TRACE("request " + std::to_string(nth) + (persistent ? " and all later ones" : "") + " refused");
    if (call.what == STARTING)
        return run_in_child(call, nth, persistent);
    unit::refusal refuse(nth, persistent);
    run_here(call, refuse);
    refuse.end();
    return refuse.happened();
}

struct surroundings {
    surroundings()
    {
        clean_environment();
        configure(home.path(), 1);
    }
    temporary_home home;
    stderr_capture diagnostics; /* what the library says of its misery is looked at elsewhere */
};

class every_call : public testing::TestWithParam<entry>
{
    surroundings about;
};

class refused_memory : public testing::Test
{
    surroundings about;
};

/* All runs of CALL. */
void sweep_call(const entry &call)
{
    total.calls++;
    for (const bool persistent : {false, true}) {
        for (int64_t nth = 1; run_once(call, nth, persistent); nth++) {
            total.refused++;
            ASSERT_FALSE(testing::Test::HasFailure());
            ASSERT_LT(nth, 1000) << "the requests have no end";
        }
        ASSERT_FALSE(testing::Test::HasFailure());
    }
}

TEST_P(every_call, survives_each_refusal)
{
    if (threadSanitizer && GetParam().what == STARTING)
        GTEST_SKIP() << "a forked child may not start threads under this sanitizer";
    sweep_call(GetParam());
}

INSTANTIATE_TEST_SUITE_P(allocation, every_call, testing::ValuesIn(table()),
                         [](const auto &about) { return std::string(about.param.name); });

/* The stream is out of the subscriber's hands by then, so that not even its close would end the read. */
TEST_F(refused_memory, a_read_ends_also_when_the_end_mark_of_its_stream_was_lost)
{
    sweep_call({"end mark", RUNNING, [](stage &s) {
                    reception r(s, [](const std::string &id) { return stream_piece(id, "first"); });
                    zeb_instream *in = zeb_notification_getInputStream(r.n);
                    char bytes[16];
                    EXPECT_EQ(zeb_instream_read(in, bytes, sizeof(bytes)), 5);
                    s.failing([&] {
                        s.daemon().send(stream_piece(r.id(), ""));
                        s.daemon().send(full_event(r.id()));
                        take_soon(r.sub);
                    });
                    background reading([&] { return zeb_instream_read(in, bytes, sizeof(bytes)); });
                    EXPECT_TRUE(publish_arrives(s.daemon(), "/delivered"));
                    zeb_subscriber_relinquish(r.sub, r.n);
                    r.n = nullptr;
                    zeb_subscriber_close(r.sub);
                    r.sub = nullptr;
                    ASSERT_TRUE(reading.done_within(patience));
                    EXPECT_EQ(reading.get(), 0);
                    zeb_instream_close(&in);
                }});
}

TEST(table, has_every_export)
{
    std::set<std::string> exported;
    std::ifstream file(ZEB_EXPORTS);
    for (std::string name; std::getline(file, name);)
        exported.insert(name);
    std::set<std::string> swept;
    for (const entry &call : table())
        EXPECT_TRUE(swept.insert(call.name).second) << call.name << " twice";
    EXPECT_EQ(swept, exported);
    EXPECT_EQ(swept.size(), 143U);
}

class summary : public testing::Environment
{
  public:
    void TearDown() override
    {
        if (total.calls > 0)
            printf("%d calls, %lld requests for memory refused\n", total.calls,
                   static_cast<long long>(total.refused));
    }
};
const testing::Environment *const shown = testing::AddGlobalTestEnvironment(new summary);

} // namespace
