/* Whole conversations with one fault in each: memory that is refused anywhere in the process, and system
 * calls that fail or do less than asked. Every run is a process of its own. Whatever is lost by the fault,
 * the run ends, the library works when the fault is over, and nothing is left behind. */
#include "child.h"
#include "faults.h"
#include "script.h"
#include "upkeep.h"

#include <cerrno>
#include <netdb.h>

namespace
{

using namespace sweep;

/* A fault that persists is over after this long. */
constexpr milliseconds PLAGUE{50};
/* How long a run waits for something that the fault may have taken away. */
constexpr milliseconds DOUBT{120};
constexpr milliseconds RUN_LIMIT{20000};

/* ---- Faults ---- */

struct fault {
    std::string name;
    std::function<void()> arm;
    std::function<void()> disarm;
    std::function<bool()> happened;
};

fault refused_memory(int64_t nth, bool persistent)
{
    auto refuse = std::make_shared<unit::refusal>(nth, persistent);
    auto before = std::make_shared<int64_t>(0);
    const auto requests = [] { return __atomic_load_n(&ezeb_allocseam_requests, __ATOMIC_SEQ_CST); };
    return {"request " + std::to_string(nth) + (persistent ? " and all later ones" : "") + " refused",
            [=] {
                *before = requests();
                refuse->begin();
            },
            [] { unit::refusal::relent(); }, [=] { return requests() - *before >= nth; }};
}

fault failing_call(const faults::fault &f)
{
    const std::string manner = f.error != 0 ? "fails with " + std::to_string(f.error)
                                            : "takes " + std::to_string(f.atmost) + " bytes at most";
    return {std::string(faults::name_of(f.which)) + " " + std::to_string(f.nth) +
                (f.persistent ? " and all later ones " : " ") + manner,
            [=] { faults::arm(f); }, faults::disarm, faults::happened};
}

/* ---- A run ---- */

class run
{
  public:
    explicit run(const fault &f) : trouble(f)
    {
        set_variable("TAMBEK_ZEB_PROXY_PORT", std::to_string(daemon.port()));
    }
    ~run()
    {
        over = true;
        if (end.joinable())
            end.join();
    }
    run(const run &) = delete;
    run &operator=(const run &) = delete;

    void begin_trouble()
    {
        trouble.arm();
        end = std::thread([this] {
            eventually([this] { return over || trouble.happened(); }, RUN_LIMIT);
            eventually([this] { return over.load(); }, PLAGUE);
            trouble.disarm();
        });
    }

    [[nodiscard]] bool disturbed() const
    {
        return trouble.happened();
    }

    /* Starts the runtime. A start that fails does so soon, and does not stand in the way of the next. */
    void start()
    {
        const stopwatch watch;
        if (zeb_init() == 0)
            return;
        EXPECT_LT(watch.elapsed(), stretched(milliseconds{1000}));
        EXPECT_TRUE(disturbed());
        EXPECT_TRUE(eventually([] { return zeb_init() == 0; }));
    }

    /* Waits until CONDITION holds, or the fault may be why it does not. */
    bool await(const std::function<bool()> &condition, const char *what)
    {
        const stopwatch watch;
        bool holds = false;
        eventually([&] {
            holds = condition();
            return holds || (disturbed() && watch.elapsed() > DOUBT);
        });
        EXPECT_TRUE(holds || disturbed()) << what;
        return holds;
    }
    bool await_request(const std::string &text, int count = 1)
    {
        return await([&] { return daemon.count(text) >= count; }, text.c_str());
    }

    obliging_daemon daemon;

  private:
    const fault &trouble;
    std::atomic<bool> over{false};
    std::thread end;
};

/* ---- The conversations ---- */

void start_up(run &r)
{
    char *name = nullptr;
    r.await_request("POST /connect");
    zeb_get_instancename(&name);
    give_back(name);
}

void publish(run &r)
{
    zeb_publisher *publisher = zeb_publisher_create("c");
    for (int i = 0; i < 3; i++) {
        zeb_notification *n = zeb_notification_create("/p", "a body", 6);
        if (n == nullptr)
            continue;
        zeb_notification_setProperty(n, "name", "value");
        if (publisher != nullptr)
            zeb_publisher_publish(publisher, n);
        else
            zeb_subscriber_relinquish(nullptr, n);
    }
    r.await_request("eventType: /p\r\n", 3);
    zeb_publisher_close(publisher);
}

void subscribe(run &r)
{
    zeb_proplist *properties = zeb_proplist_create();
    zeb_proplist_put(properties, "name", "value");
    char *why = nullptr;
    zeb_subscriber *waiting = zeb_subscriber_create("/t", "c", "(\"name=value\")", properties, &why);
    give_back(why);
    zeb_subscriber *hurried = zeb_subscriber_create_async(nullptr, "c", nullptr, properties);
    if (hurried != nullptr) {
        r.await([&] { return zeb_subscriber_status(hurried, nullptr) == ZEB_SUBSCRIBED; }, "no answer");
        r.await_request("POST /subscribe", 2);
    }
    zeb_subscriber_close(waiting);
    zeb_subscriber_close(hurried);
    r.await_request("POST /unsubscribe", 2);
    zeb_proplist_destroy(&properties);
}

std::string id_of(const zeb_subscriber *sub)
{
    return std::to_string(zeb_subscriber_id(sub));
}

void receive(run &r)
{
    zeb_subscriber *subs[3] = {};
    std::atomic<int> counts[3] = {};
    for (int mode = 0; mode < 3; mode++) {
        subs[mode] = zeb_subscriber_create("/t", "c", nullptr, nullptr, nullptr);
        if (subs[mode] != nullptr && mode < 2)
            zeb_subscriber_registercallback(subs[mode], take_notification, &counts[mode], mode);
    }
    for (int i = 0; i < 3; i++) {
        if (subs[i] == nullptr)
            continue;
        r.daemon.send(full_event(id_of(subs[i])) + full_event(id_of(subs[i])));
        r.await(
            [&] {
                zeb_notification *n = i == 2 ? zeb_subscriber_receive(subs[2], 0, 0) : nullptr;
                if (n != nullptr) {
                    give_back(zeb_notification_toString(n, 4));
                    zeb_subscriber_relinquish(subs[2], n);
                    counts[2]++;
                }
                return counts[i] == 2;
            },
            "not received");
    }
    for (zeb_subscriber *sub : subs)
        zeb_subscriber_close(sub);
    eventually([] { return threads_named("zeb-dispatch") + threads_named("zeb-callback") == 0; });
}

void write_stream(run &r)
{
    zeb_publisher *publisher = zeb_publisher_create("c");
    zeb_notification *head = zeb_notification_createstream("/out");
    if (publisher != nullptr)
        zeb_publisher_publish(publisher, head);
    zeb_outstream *out = zeb_notification_getOutputStream(head);
    if (out == nullptr && head != nullptr)
        zeb_subscriber_relinquish(nullptr, head);
    zeb_outstream_write(out, "first", 5);
    zeb_outstream_write(out, "second", 6);
    zeb_outstream_close(&out);
    r.await_request("eventType: /out\r\n", 3);
    zeb_publisher_close(publisher);
}

/* A reader waits without limit; what ends it at the latest is the close of its subscriber. */
void read_stream(run &r)
{
    zeb_subscriber *sub = zeb_subscriber_create("/s", "c", nullptr, nullptr, nullptr);
    if (sub == nullptr)
        return;
    r.daemon.send(stream_piece(id_of(sub), "first") + stream_piece(id_of(sub), "second") +
                  stream_piece(id_of(sub), ""));
    zeb_notification *n = nullptr;
    r.await(
        [&] {
            n = zeb_subscriber_receive(sub, 0, 0);
            return n != nullptr;
        },
        "no stream");
    zeb_instream *in = zeb_notification_getInputStream(n);
    std::atomic<bool> ended{false};
    background reading([&] {
        char bytes[64];
        while (zeb_instream_read(in, bytes, sizeof(bytes)) > 0)
            ;
        ended = true;
        return 0;
    });
    r.await([&] { return ended.load(); }, "no end of the stream");
    if (n != nullptr)
        zeb_subscriber_relinquish(sub, n);
    zeb_subscriber_close(sub);
    EXPECT_TRUE(reading.done_within(patience)) << "a read does not end";
    reading.get();
    zeb_instream_close(&in);
}

void stream(run &r)
{
    write_stream(r);
    read_stream(r);
}

int32_t echo(zeb_rpcrequest *request, const void *data, int32_t length)
{
    zeb_rpcrequest_sendprogress(request, "half", 4);
    return zeb_rpcrequest_sendresult(request, data, length);
}

void serve_call(run &r)
{
    zeb_rpcserver *server = zeb_rpcserver_create("srv", "c");
    zeb_rpcserver_addfunc(server, "f", echo);
    if (zeb_rpcserver_launch(server) == 0) {
        for (int id = 1; id <= 2; id++) /* whichever it got */
            r.daemon.send(request_for(std::to_string(id)));
        r.await_request("/ZEB/RPC/ISR: true");
    }
    zeb_rpcserver_destroy(&server);
}

void make_call(run &r)
{
    r.daemon.reply_with(with_one_server);
    zeb_rpcclient *client = zeb_rpcclient_create(SERVERS, 1, "c");
    if (client == nullptr)
        return;
    zeb_laddrlist *servers = nullptr;
    r.await(
        [&] {
            servers = zeb_rpcclient_getservers_wtimeout(client, "srv", 0, 0);
            return servers != nullptr;
        },
        "no server");
    zeb_rpcinvocation *call = zeb_rpcclient_invoke(client, "f", servers, "arg", 3);
    zeb_rpcresponse *response = nullptr;
    r.await(
        [&] {
            response = zeb_rpcinvocation_getresponse(call, 0, 0);
            return response != nullptr;
        },
        "no response");
    zeb_rpcresponse_destroy(&response);
    zeb_rpcinvocation_destroy(&call);
    zeb_laddrlist_destroy(&servers);
    zeb_rpcclient_destroy(&client);
}

void remote_call(run &r)
{
    serve_call(r);
    make_call(r);
    threads_become("zeb-dispatch", 0);
}

void reconnect(run &r)
{
    zeb_subscriber *plain = zeb_subscriber_create("/t", "c", nullptr, nullptr, nullptr);
    zeb_subscriber *member = zeb_subscriber_create("/t", "c", "(\"a=b\")", nullptr, nullptr);
    zeb_publisher *publisher = zeb_publisher_create("c");
    const int connections = r.daemon.count("POST /connect");
    r.daemon.hang_up();
    EXPECT_TRUE(eventually([&] { return r.daemon.count("POST /connect") > connections; }));
    if (publisher != nullptr)
        zeb_publisher_publish(publisher, zeb_notification_create("/after", nullptr, 0));
    r.await_request("eventType: /after\r\n");
    if (plain != nullptr) {
        const std::string again = "SubscriberID: " + id_of(plain) + "\r\nSubscription: ";
        EXPECT_TRUE(eventually([&] { return r.daemon.count(again) >= 2; })) << "it is not subscribed again";
    }
    zeb_subscriber_close(plain);
    zeb_subscriber_close(member);
    zeb_publisher_close(publisher);
}

void shut_down(run &r)
{
    publish(r);
    zeb_subscriber_create_async("/t", "c", nullptr, nullptr); /* the shutdown closes it */
    EXPECT_EQ(zeb_shutdown(), 0);
    r.start();
    publish(r);
    EXPECT_EQ(zeb_shutdown_nowait(), 0);
    r.start();
}

struct scenario {
    const char *name;
    void (*play)(run &r);
};

constexpr scenario SCENARIOS[] = {
    {"start_up", start_up}, {"publish", publish},         {"subscribe", subscribe}, {"receive", receive},
    {"stream", stream},     {"remote_call", remote_call}, {"reconnect", reconnect}, {"shut_down", shut_down}};

/* ---- Runs ---- */

struct figures {
    int runs = 0;
    int faults = 0;
};
figures total;

/* The whole of a run, in its process. FROM the start, the fault may also come before the conversation. */
int play(const scenario &s, const fault &f, bool fromStart)
{
    faults::count_this_thread(true);
    close(STDIN_FILENO); /* so that the first descriptor has to be moved */
    const int64_t before = blocks();
    bool disturbed = false;
    {
        run r(f);
        const int descriptors = open_descriptors();
        if (fromStart)
            r.begin_trouble();
        r.start();
        if (!fromStart) {
            EXPECT_TRUE(publish_arrives(r.daemon, "/before"));
            r.begin_trouble();
        }
        s.play(r);
        f.disarm();
        disturbed = r.disturbed();
        EXPECT_TRUE(publish_arrives(r.daemon, "/probe"));
        EXPECT_EQ(zeb_shutdown(), 0);
        EXPECT_TRUE(eventually([&] { return !r.daemon.is_connected(); }));
        EXPECT_TRUE(eventually([&] { return open_descriptors() == descriptors; }, milliseconds{3000}))
            << open_descriptors() << " descriptors instead of " << descriptors;
    }
    EXPECT_TRUE(eventually([&] { return blocks() == before; }, milliseconds{3000}))
        << blocks() - before << " blocks are not released";
    if (testing::Test::HasFailure())
        return FAILED;
    return disturbed ? PASSED : PASSED_UNDISTURBED;
}

/* True when the fault happened. */
bool run_once(const scenario &s, const fault &f, bool fromStart)
{
    SCOPED_TRACE(f.name);
    const outcome result = in_child([&] { return play(s, f, fromStart); }, RUN_LIMIT);
    EXPECT_TRUE(result.is_good()) << "exit code " << result.code << " " << result.manner;
    total.runs++;
    const bool happened = result.code != PASSED_UNDISTURBED;
    total.faults += happened ? 1 : 0;
    return happened;
}

class each_fault : public testing::TestWithParam<scenario>
{
  protected:
    each_fault()
    {
        clean_environment();
        configure(home.path(), 1);
        home.write_formfactor("form");
    }
    void SetUp() override
    {
        if (threadSanitizer)
            GTEST_SKIP() << "a forked child may not start threads under this sanitizer";
    }
    static int64_t step()
    {
        return is_full() ? 1 : 7;
    }
    /* Where the thinned sweep of this scenario begins: not all at the same place. */
    static int64_t first()
    {
        return is_full() ? 1 : 1 + static_cast<int64_t>(std::string_view(GetParam().name).size()) % step();
    }

    temporary_home home;
    stderr_capture diagnostics;
};

TEST_P(each_fault, memory)
{
    const bool fromStart = GetParam().play == start_up;
    for (const bool persistent : {false, true}) {
        for (int64_t nth = first(); run_once(GetParam(), refused_memory(nth, persistent), fromStart);
             nth += step()) {
            ASSERT_FALSE(HasFailure());
            ASSERT_LT(nth, 2000) << "the requests have no end";
        }
        ASSERT_FALSE(HasFailure());
    }
}

struct failures {
    faults::call which;
    std::vector<int> errors;
    std::vector<int> lengths; /* of what is read or written at most */
};

const std::vector<failures> FAILURES = {
    {faults::SOCKET, {EMFILE, ENFILE, ENOBUFS, ENOMEM, EAFNOSUPPORT, EINTR}, {}},
    {faults::CONNECT, {ECONNREFUSED, ETIMEDOUT, ENETUNREACH, EADDRNOTAVAIL, EINTR}, {}},
    {faults::READ, {ECONNRESET, ETIMEDOUT, EIO, EINTR}, {0, 1, 2, 7}},
    {faults::WRITE, {EPIPE, ECONNRESET, ENOBUFS, EINTR}, {1, 2, 7}},
    {faults::FCNTL, {EMFILE, EINVAL}, {}},
    {faults::OPEN, {ENOENT, EACCES, EMFILE, EINTR}, {}},
    {faults::FSTAT, {EIO, EOVERFLOW}, {}},
    {faults::SETSOCKOPT, {ENOPROTOOPT, ENOMEM}, {}},
    {faults::GETADDRINFO, {EAI_AGAIN, EAI_MEMORY, EAI_NONAME}, {}},
    {faults::PTHREAD_CREATE, {EAGAIN, EINVAL, EPERM, ENOMEM}, {}},
};

TEST_P(each_fault, system_calls)
{
    faults::forget_calls();
    run_once(GetParam(), {"no fault", [] {}, [] {}, [] { return false; }}, true);
    int counts[faults::CALLS];
    for (int which = 0; which < faults::CALLS; which++)
        counts[which] = faults::calls(static_cast<faults::call>(which));
    int64_t turn = first() - 1; /* counts the faults there are; the thinned sweep takes every seventh */
    const auto sweep_calls = [&](faults::fault f) {
        for (f.nth = 1; f.nth <= counts[f.which]; f.nth++) {
            if (turn++ % step() == 0)
                run_once(GetParam(), failing_call(f), true);
            if (HasFailure())
                return;
        }
    };
    for (const failures &kind : FAILURES) {
        for (const bool persistent : {false, true}) {
            for (const int error : kind.errors) {
                sweep_calls({kind.which, 1, persistent, error, 0});
                ASSERT_FALSE(HasFailure());
            }
            for (const int length : kind.lengths) {
                sweep_calls({kind.which, 1, persistent, 0, length});
                ASSERT_FALSE(HasFailure());
            }
        }
    }
}

INSTANTIATE_TEST_SUITE_P(of, each_fault, testing::ValuesIn(SCENARIOS),
                         [](const auto &about) { return std::string(about.param.name); });

class summary : public testing::Environment
{
  public:
    void TearDown() override
    {
        if (total.runs > 0)
            printf("%d runs, %d faults\n", total.runs, total.faults);
    }
};
void PrintTo(const scenario &s, std::ostream *out)
{
    *out << s.name;
}

const testing::Environment *const shown = testing::AddGlobalTestEnvironment(new summary);

} // namespace
