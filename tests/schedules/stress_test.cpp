/* Ten stress programs: threads that get in each other's way, held up at random wherever they meet. Every
 * round goes from no runtime to no runtime. Whatever the schedule, the library does what its header says, no
 * call hangs, and in the end it has kept nothing; a sanitizer's build looks at the rest.
 *
 * ZEB_SCHEDULE_SEEDS in the environment gives other seeds than the few of the short run, ZEB_SCHEDULE_MS
 * another time for each. */
#include "disturbance.h"
#include "script.h"
#include "upkeep.h"
#include "watchdog.h"

#include "ezeblock.h"
#include "ezebrpc.h"
#include "ezebsubscriber.h"

#include <algorithm>
#include <cinttypes>
#include <iterator>
#include <latch>
#include <sstream>

namespace
{

using namespace sweep;
using zebtest::obliging_daemon;

/* ---- Threads ---- */

/* Threads that set off together, and are joined at the end. */
class crew
{
  public:
    explicit crew(std::vector<std::function<void()>> tasks) : start(static_cast<ptrdiff_t>(tasks.size()))
    {
        for (std::function<void()> &task : tasks)
            threads.emplace_back([this, work = std::move(task)] {
                start.arrive_and_wait();
                work();
            });
    }
    ~crew()
    {
        for (std::thread &t : threads)
            t.join();
    }
    crew(const crew &) = delete;
    crew &operator=(const crew &) = delete;

  private:
    std::latch start;
    std::vector<std::thread> threads;
};

using tasks = std::vector<std::function<void()>>;

void all_at_once(tasks all)
{
    const crew together(std::move(all));
}

/* Receives once on a thread of its own. It must be waiting, or have received, before somebody else may close
 * the subscriber or end the runtime: a call that begins later would be a misuse. */
class receiver
{
  public:
    explicit receiver(zeb_subscriber *of)
        : sub(of), thread([this] {
              got = zeb_subscriber_receive(sub, 1, 0) != nullptr;
              done = true;
          })
    {
    }
    ~receiver()
    {
        thread.join();
    }
    receiver(const receiver &) = delete;
    receiver &operator=(const receiver &) = delete;

    static void await_all(zeb_subscriber *sub, const std::vector<std::unique_ptr<receiver>> &all)
    {
        EXPECT_TRUE(eventually([&] {
            const auto ended =
                std::count_if(all.begin(), all.end(), [](const auto &r) { return r->done.load(); });
            const ezeb_locked hold(&sub->queue->lock);
            return sub->queue->removers + static_cast<int32_t>(ended) == static_cast<int32_t>(all.size());
        }));
    }

    std::atomic<bool> done{false};
    std::atomic<bool> got{false};

  private:
    zeb_subscriber *sub;
    std::thread thread;
};

/* ---- Steps ---- */

void start()
{
    ASSERT_EQ(zeb_init(), 0);
}

/* Every other round discards what is queued. */
void shut_down(int turn)
{
    EXPECT_EQ(turn % 2 == 0 ? zeb_shutdown() : zeb_shutdown_nowait(), 0);
}

void await_call_backs()
{
    EXPECT_TRUE(no_call_back_threads());
}

zeb_subscriber *subscriber(const char *interest = nullptr)
{
    zeb_subscriber *sub = zeb_subscriber_create("/t", "c", interest, nullptr, nullptr);
    EXPECT_NE(sub, nullptr);
    return sub;
}

std::string id_of(const zeb_subscriber *sub)
{
    return std::to_string(zeb_subscriber_id(sub));
}

/* Takes what is queued and gives it back. Returns how many there were. */
int take_all(zeb_subscriber *sub)
{
    int count = 0;
    while (zeb_notification *n = zeb_subscriber_receive(sub, 0, 0)) {
        zeb_subscriber_relinquish(sub, n);
        count++;
    }
    return count;
}

/* ---- The programs ---- */

struct self_closing {
    zeb_subscriber *sub;
    std::atomic<bool> closed{false};

    void close()
    {
        if (!closed.exchange(true))
            zeb_subscriber_close(sub);
    }
};

int32_t close_oneself(zeb_notification *, void *context)
{
    static_cast<self_closing *>(context)->close();
    return 0;
}

void close_against_delivery(obliging_daemon &daemon, int turn)
{
    start();
    static std::atomic<int> taken; /* on a stack, nothing would order its reuse after the last call-back */
    taken = 0;
    std::vector<zeb_subscriber *> subs;
    std::vector<std::string> ids;
    for (int mode = 0; mode < 4; mode++) {
        subs.push_back(subscriber());
        ids.push_back(id_of(subs.back()));
        if (mode < 2)
            zeb_subscriber_registercallback(subs.back(), take_notification, &taken, mode);
    }
    self_closing own{subscriber()};
    ids.push_back(id_of(own.sub));
    zeb_subscriber_registercallback(own.sub, close_oneself, &own, turn / 2 % 2);
    all_at_once({[&] {
                     for (size_t i = 0; i < 30; i++)
                         daemon.send(full_event(ids[i % ids.size()]));
                 },
                 [&] {
                     zeb_subscriber_close(subs[0]);
                     zeb_subscriber_close(subs[2]);
                 },
                 [&] {
                     zeb_subscriber_close(subs[1]);
                     own.close();
                 }});
    shut_down(turn); /* closes the last one, which is still being delivered to */
    await_call_backs();
}

void close_against_receive(obliging_daemon &daemon, int turn)
{
    start();
    zeb_subscriber *sub = subscriber();
    const std::string id = id_of(sub);
    std::vector<std::unique_ptr<receiver>> receivers;
    for (int i = 0; i < 3; i++)
        receivers.push_back(std::make_unique<receiver>(sub));
    receiver::await_all(sub, receivers);
    const int events = turn % 4;
    all_at_once({[&] {
                     for (int i = 0; i < events; i++)
                         daemon.send(full_event(id));
                 },
                 [&] { zeb_subscriber_close(sub); }});
    receivers.clear();
    shut_down(turn);
}

/* With mode 0 each notification is called with, or received, once; one that mode 1 has a thread for already
 * is lost by a cancel. */
void register_cancel_register(obliging_daemon &daemon, int turn)
{
    start();
    zeb_subscriber *sub = subscriber();
    const std::string id = id_of(sub);
    constexpr int events = 24;
    const bool mixed = turn % 2 == 1;
    static std::atomic<int> taken; /* on a stack, nothing would order its reuse after the last call-back */
    taken = 0;
    all_at_once({[&] {
                     for (int i = 0; i < events; i++)
                         daemon.send(full_event(id));
                 },
                 [&] {
                     for (int i = 0; i < 6; i++) {
                         const int mode = mixed ? i % 2 : 0;
                         EXPECT_EQ(zeb_subscriber_registercallback(sub, take_notification, &taken, mode), 0);
                         EXPECT_EQ(zeb_subscriber_cancelcallback(sub), 0);
                     }
                 }});
    int received = 0;
    const auto all_came = [&](int count) {
        return eventually([&] {
            received += take_all(sub);
            return taken + received >= count;
        });
    };
    EXPECT_TRUE(mixed || all_came(events));
    const int before = taken;
    EXPECT_EQ(zeb_subscriber_registercallback(sub, take_notification, &taken, turn / 2 % 2), 0);
    daemon.send(full_event(id));
    EXPECT_TRUE(eventually([&] { return taken > before; }));
    EXPECT_LE(taken + received, events + 1);
    zeb_subscriber_close(sub);
    shut_down(turn);
    await_call_backs();
}

/* A limit of 1 ms is over when it is looked at first: the answer comes before, meanwhile, or afterwards. */
void create_with_little_time(obliging_daemon &daemon)
{
    char *why = nullptr;
    zeb_subscriber *sub = zeb_subscriber_create_wtimeout("/t", "c", nullptr, nullptr, &why, 1);
    if (sub == nullptr) {
        EXPECT_STREQ(why, "timedout");
        give_back(why);
        return;
    }
    give_back(why);
    daemon.send(full_event(id_of(sub)));
    zeb_notification *n = zeb_subscriber_receive(sub, 1, 0);
    EXPECT_NE(n, nullptr);
    if (n != nullptr)
        zeb_subscriber_relinquish(sub, n);
    zeb_subscriber_close(sub);
}

void timeout_against_reply(obliging_daemon &daemon, int turn)
{
    start();
    zeb_publisher_close(zeb_publisher_create("c")); /* waits for the connection */
    const auto creations = [&] {
        for (int i = 0; i < 5; i++)
            create_with_little_time(daemon);
    };
    all_at_once({creations, creations, creations});
    zeb_subscriber_close(subscriber());
    shut_down(turn);
}

int32_t answer(zeb_rpcrequest *request, const void *data, int32_t length)
{
    zeb_rpcrequest_sendprogress(request, "half", 4);
    return zeb_rpcrequest_sendresult(request, data, length);
}

void serve_for_a_moment()
{
    zeb_rpcserver *server = zeb_rpcserver_create("srv", "c");
    zeb_rpcserver_addfunc(server, "f", answer);
    zeb_rpcserver_launch(server);
    zeb_rpcserver_destroy(&server);
}

void ask_for_a_moment()
{
    zeb_rpcclient *client = zeb_rpcclient_create(SERVERS, 1, "c");
    zeb_laddrlist *servers = zeb_rpcclient_getservers_wtimeout(client, "srv", 0, 0);
    zeb_rpcinvocation *call = zeb_rpcclient_invoke(client, "f", servers, "arg", 3);
    zeb_rpcresponse *response = zeb_rpcinvocation_getresponse(call, 0, 0);
    zeb_rpcresponse_destroy(&response);
    zeb_rpcinvocation_destroy(&call);
    zeb_laddrlist_destroy(&servers);
    zeb_rpcclient_destroy(&client);
}

/* What may be called without a handle while the runtime comes and goes. */
void use_everything(const std::atomic<bool> &over, int turn)
{
    for (int i = turn; !over; i++) {
        char *name = nullptr;
        zeb_notification *n = nullptr;
        switch (i % 7) {
        case 0:
            zeb_subscriber_create_async("/t", "c", nullptr, nullptr);
            break;
        case 1:
            zeb_subscriber_create_wtimeout("/t", "c", nullptr, nullptr, nullptr, 2000);
            break;
        case 2:
            zeb_publisher_create("c");
            break;
        case 3:
            zeb_get_instancename(&name);
            give_back(name);
            break;
        case 4:
            n = zeb_notification_create("/once", nullptr, 0);
            if (zeb_one_time_publish("c", n) != 0)
                zeb_subscriber_relinquish(nullptr, n);
            break;
        case 5:
            serve_for_a_moment();
            break;
        default:
            ask_for_a_moment();
        }
    }
}

void shutdown_against_everything(obliging_daemon &daemon, int turn)
{
    daemon.reply_with(with_one_server);
    start();
    zeb_subscriber *sub = subscriber();
    std::vector<std::unique_ptr<receiver>> receivers;
    receivers.push_back(std::make_unique<receiver>(sub));
    receiver::await_all(sub, receivers);
    daemon.send(stream_piece(id_of(sub), "first"));
    std::atomic<bool> over{false};
    all_at_once({[&] { use_everything(over, turn); }, [&] { use_everything(over, turn + 3); },
                 [&] {
                     shut_down(turn);
                     over = true;
                 }});
    receivers.clear();
    await_call_backs();
    daemon.reply_with({});
}

/* A member that the loss has dropped stays its owner's to close; the shutdown closes it otherwise. */
void close_if_left(zeb_subscriber *member)
{
    if (ezeb_flag_get(&member->closing) == 0)
        zeb_subscriber_close(member);
    ezeb_subscriber_unref(member);
}

void disconnect_against_shutdown(obliging_daemon &daemon, int turn)
{
    start();
    static std::atomic<int> taken; /* on a stack, nothing would order its reuse after the last call-back */
    taken = 0;
    zeb_subscriber *plain = subscriber();
    zeb_subscriber_registercallback(plain, take_notification, &taken, 0);
    zeb_subscriber *member = subscriber("(\"a=b\")");
    ezeb_ref(&member->references);
    zeb_publisher *publisher = zeb_publisher_create("c");
    all_at_once({[&] { daemon.hang_up(); },
                 [&] {
                     for (int i = 0; i < 5; i++)
                         zeb_publisher_publish(publisher, zeb_notification_create("/p", "body", 4));
                     shut_down(turn);
                 },
                 [&] {
                     for (int i = 0; i < 5; i++)
                         zeb_subscriber_create_async("/t", "c", nullptr, nullptr);
                 }});
    close_if_left(member);
    await_call_backs();
}

/* The head of a stream that has begun, once it is there. */
zeb_notification *head_of_stream(obliging_daemon &daemon, zeb_subscriber *sub)
{
    daemon.send(stream_piece(id_of(sub), "first"));
    zeb_notification *n = zeb_subscriber_receive(sub, 1, 0);
    EXPECT_NE(n, nullptr);
    return n;
}

std::string read_to_end(zeb_instream *in)
{
    std::string all;
    char bytes[64];
    int32_t got = 0;
    while ((got = zeb_instream_read(in, bytes, sizeof(bytes))) > 0)
        all.append(bytes, static_cast<size_t>(got));
    return all;
}

/* The end mark meets a close of the stream, a close of the subscriber that wakes the reader, and nothing at
 * all. */
void stream_close_against_end(obliging_daemon &daemon, int turn)
{
    start();
    zeb_subscriber *sub = subscriber();
    zeb_notification *head = head_of_stream(daemon, sub);
    zeb_instream *in = zeb_notification_getInputStream(head);
    const std::string rest = stream_piece(id_of(sub), "second") + stream_piece(id_of(sub), "");
    tasks all = {[&] { daemon.send(rest); }};
    bool closed = false;
    if (turn % 3 == 0) {
        all.emplace_back([&] { zeb_instream_close(&in); });
        all.emplace_back([&] { zeb_subscriber_relinquish(sub, head); });
    } else {
        all.emplace_back([&] {
            const std::string bytes = read_to_end(in);
            EXPECT_EQ(bytes.substr(0, 11), std::string("firstsecond").substr(0, bytes.size()));
            EXPECT_TRUE(turn % 3 == 1 || bytes == "firstsecond") << bytes;
            zeb_instream_close(&in);
        });
        if (turn % 3 == 1) {
            all.emplace_back([&] { zeb_subscriber_close(sub); });
            closed = true;
        }
    }
    all_at_once(std::move(all));
    if (!closed)
        zeb_subscriber_close(sub);
    shut_down(turn);
}

/* Members join while they get notifications and one thread waits for any of them; then the list and its
 * members go at once. */
void list_churn(obliging_daemon &daemon, int turn)
{
    start();
    zeb_subscriberlist *list = zeb_subscriberlist_create();
    zeb_subscriber *subs[4];
    std::string ids[4];
    for (int i = 0; i < 4; i++) {
        subs[i] = subscriber();
        ids[i] = id_of(subs[i]);
    }
    zeb_subscriberlist_add(list, subs[0]);
    constexpr int events = 24;
    all_at_once({[&] {
                     for (int i = 0; i < events; i++)
                         daemon.send(full_event(ids[i % 4]));
                 },
                 [&] {
                     for (int i = 1; i < 4; i++)
                         zeb_subscriberlist_add(list, subs[i]);
                 },
                 [&] {
                     int taken = 0;
                     while (taken < events) {
                         zeb_subscriber *ready = zeb_subscriber_multirecv(list, 1, 0);
                         ASSERT_NE(ready, nullptr);
                         taken += take_all(ready);
                     }
                     EXPECT_EQ(taken, events);
                 }});
    all_at_once({[&] {
                     for (int i = 0; i < 8; i++)
                         daemon.send(full_event(ids[i % 4]));
                 },
                 [&] { zeb_subscriberlist_destroy(&list); },
                 [&] {
                     zeb_subscriber_close(subs[0]);
                     zeb_subscriber_close(subs[1]);
                 },
                 [&] { zeb_subscriber_close(subs[2]); }});
    shut_down(turn);
}

void take_response(zeb_rpcresponse *response, void *count)
{
    zeb_rpcresponse_destroy(&response);
    (*static_cast<std::atomic<int> *>(count))++;
}

/* A server goes while requests come in. */
void destroy_server(obliging_daemon &daemon, int turn)
{
    zeb_rpcserver *server = zeb_rpcserver_create("srv", "c");
    zeb_rpcserver_setcbmode(server, turn % 2);
    zeb_rpcserver_addfunc(server, "f", answer);
    EXPECT_EQ(zeb_rpcserver_launch(server), 0);
    const std::string request = request_for(id_of(server->subscriber));
    all_at_once({[&] {
                     for (int i = 0; i < 10; i++)
                         daemon.send(request);
                 },
                 [&] {
                     if (turn % 3 == 0) {
                         EXPECT_EQ(zeb_rpcserver_shutdown(server), 0);
                         EXPECT_EQ(zeb_rpcserver_addfunc(server, "g", answer), 0);
                         EXPECT_EQ(zeb_rpcserver_launch(server), 0);
                     }
                     zeb_rpcserver_destroy(&server);
                 }});
}

/* The function "slow" is answered with progress and nothing else. */
std::string with_one_slow_server(const obliging_daemon::request &r)
{
    if (r.field("/ZEB/RPC/NAM") != "slow")
        return with_one_server(r);
    return rpc_event("/ZEB/RPC/RES", {"/ZEB/RPC/ISR: false", "/ZEB/RPC/CID: " + r.field("/ZEB/RPC/CID")},
                     "so far", server_address("srcAddr", "7", "srv"), r.field("SubscriberID"));
}

/* A client goes while responses come in; invocations that are pending go with it. */
void destroy_client(obliging_daemon &daemon)
{
    daemon.reply_with(with_one_slow_server);
    static std::atomic<int> responses{0}; /* a call-back may still be running when this returns */
    zeb_rpcclient *client = zeb_rpcclient_create(SERVERS, 1, "c");
    ASSERT_NE(client, nullptr);
    zeb_laddrlist *servers = zeb_rpcclient_getservers(client, "srv");
    EXPECT_NE(servers, nullptr);
    std::vector<zeb_rpcinvocation *> calls;
    all_at_once({[&] {
                     for (int i = 0; i < 5; i++) {
                         zeb_rpcinvocation *call = zeb_rpcclient_invoke(client, "f", servers, "arg", 3);
                         zeb_rpcresponse *response = zeb_rpcinvocation_getresponse(call, 1, 0);
                         EXPECT_NE(response, nullptr);
                         zeb_rpcresponse_destroy(&response);
                         zeb_rpcinvocation_destroy(&call);
                     }
                 },
                 [&] {
                     for (int i = 0; i < 5; i++)
                         calls.push_back(zeb_rpcclient_invoke_wcallback(client, "f", servers, "arg", 3,
                                                                        take_response, &responses));
                 }});
    EXPECT_TRUE(eventually([&] {
        return std::all_of(calls.begin(), calls.end(),
                           [](zeb_rpcinvocation *call) { return zeb_rpcinvocation_isdone(call) == 1; });
    }));
    for (zeb_rpcinvocation *&call : calls)
        zeb_rpcinvocation_destroy(&call);
    for (int i = 0; i < 3; i++)
        zeb_rpcclient_invoke_wcallback(client, "slow", servers, "arg", 3, take_response, &responses);
    zeb_laddrlist_destroy(&servers);
    zeb_rpcclient_destroy(&client);
    daemon.reply_with({});
}

void remote_call_destroy_against_dispatch(obliging_daemon &daemon, int turn)
{
    start();
    destroy_server(daemon, turn);
    destroy_client(daemon);
    shut_down(turn);
    await_call_backs();
}

void start_and_shutdown_cycles(obliging_daemon &, int turn)
{
    const auto cycles = [=] {
        for (int i = 0; i < 4; i++) {
            const int32_t started = zeb_init();
            EXPECT_TRUE(started == 0 || started == ZEB_ALREADY_INITIALISED) << started;
            zeb_publisher *publisher = zeb_publisher_create("c");
            EXPECT_NE(publisher, nullptr);
            if (publisher != nullptr)
                zeb_publisher_publish(publisher, zeb_notification_create("/p", nullptr, 0));
            if (i % 2 == 0)
                zeb_publisher_close(publisher);
            shut_down(turn + i);
        }
    };
    all_at_once({cycles, cycles, cycles});
    EXPECT_EQ(zeb_publisher_create("c"), nullptr);
}

/* ---- Runs ---- */

struct program {
    const char *name;
    void (*play)(obliging_daemon &daemon, int turn);
};

constexpr program PROGRAMS[] = {
    {"close_against_delivery", close_against_delivery},
    {"close_against_receive", close_against_receive},
    {"register_cancel_register", register_cancel_register},
    {"timeout_against_reply", timeout_against_reply},
    {"shutdown_against_everything", shutdown_against_everything},
    {"disconnect_against_shutdown", disconnect_against_shutdown},
    {"stream_close_against_end", stream_close_against_end},
    {"list_churn", list_churn},
    {"remote_call_destroy_against_dispatch", remote_call_destroy_against_dispatch},
    {"start_and_shutdown_cycles", start_and_shutdown_cycles}};

void PrintTo(const program &p, std::ostream *out)
{
    *out << p.name;
}

constexpr milliseconds HANG_LIMIT{30000}; /* for a seed, on top of its time */

milliseconds time_of_a_seed()
{
    const char *wanted = getenv("ZEB_SCHEDULE_MS");
    return milliseconds{wanted != nullptr ? atoi(wanted) : 60};
}

std::vector<uint64_t> seeds()
{
    const char *wanted = getenv("ZEB_SCHEDULE_SEEDS");
    std::istringstream text(wanted != nullptr ? wanted : "1 2 3 4");
    return {std::istream_iterator<uint64_t>(text), {}};
}

class under_disturbance : public testing::TestWithParam<program>
{
  protected:
    under_disturbance()
    {
        clean_environment();
        configure(home.path(), daemon.port());
    }

    void play(uint64_t seed)
    {
        const upkeep
            before; /* first: a thread that starts opens a descriptor for a moment, under a sanitizer */
        const schedules::watchdog guard(time_of_a_seed() + HANG_LIMIT);
        const stopwatch watch;
        int rounds = 0;
        schedules::disturb(seed);
        while (rounds == 0 || (watch.elapsed() < time_of_a_seed() && !HasFailure()))
            GetParam().play(daemon, rounds++);
        schedules::calm();
        EXPECT_TRUE(eventually([&] { return !daemon.is_connected(); }));
        before.check();
        printf("seed %" PRIu64 ": %d rounds, %" PRIu64 " points, %" PRIu64 " pauses\n", seed, rounds,
               schedules::points(), schedules::pauses());
    }

    temporary_home home;
    obliging_daemon daemon;
};

TEST_P(under_disturbance, holds)
{
    for (const uint64_t seed : seeds()) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        play(seed);
        ASSERT_FALSE(HasFailure());
    }
}

INSTANTIATE_TEST_SUITE_P(of, under_disturbance, testing::ValuesIn(PROGRAMS),
                         [](const auto &about) { return std::string(about.param.name); });

} // namespace
