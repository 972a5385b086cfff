/* How much of their small stacks the library's threads use. The application chooses the size; the least it
 * may choose is 16384 bytes, and everything the service threads do has to fit with room to spare. */
#include "background.h"
#include "environment.h"
#include "fake_daemon.h"
#include "painted_stacks.h"
#include "stderr_capture.h"

#include "zeb.h"

#include <cstdio>
#include <cstdlib>
#include <gtest/gtest.h>
#include <string>

using namespace zebtest;

namespace
{

constexpr size_t RECEIVE = 0;
constexpr size_t serviceLimit = 10 * 1024;

const std::string statusReply =
    "POST /status HTTP/1.1\r\nResult: success\r\nSubscriberID: 1\r\nMessage: ok\r\n\r\n";

std::string event(const std::string &body)
{
    return "POST /event HTTP/1.1\r\nclassName: MessageNotification\r\nSubscriberID: 1\r\neventType: t\r\n"
           "eventId: i\r\ncreationTime: 1\r\ndeliveryTime: 2\r\naffectedComponents: \r\naffectedNodes: \r\n"
           "generatingComponent: c\r\ngeneratingProcess: p\r\ngeneratingNode: n\r\ninstanceName: i\r\n"
           "LocalOnly: false\r\nnumberOfProperties: 1\r\nk: v\r\nContent-Length: " +
           std::to_string(body.size()) + "\r\nAddrList-Length: 0\r\n\r\n" + body;
}

void report(size_t first, const char *after)
{
    static constexpr const char *names[] = {"receive", "send", "call-back"};
    for (size_t i = 0; first + i < painted_count() && i < std::size(names); i++) {
        const depth d = painted_depth(first + i);
        printf("  after %-22s %-9s thread: %5zu of %zu bytes\n", after, names[i], d.used, d.size);
    }
}

int32_t note(zeb_notification *n, void *context)
{
    (void)n;
    static_cast<std::atomic<bool> *>(context)->store(true);
    return 0;
}

/* From start-up to shutdown: everything the threads do in a normal life, and what they print. */
void whole_life(const char *stacksize)
{
    if (threadSanitizer || addressSanitizer)
        GTEST_SKIP() << "instrumented frames do not fit these stacks";
    fake_daemon daemon;
    temporary_home home;
    clean_environment();
    configure(home.path(), daemon.port());
    set_variable("TAMBEK_THREAD_STACKSIZE", stacksize);
    stderr_capture captured;
    const size_t first = painted_count();
    ASSERT_EQ(zeb_init(), 0);
    peer p = daemon.accept_connected(home.path());
    report(first, "handshake");

    background creation([] { return zeb_subscriber_create("/t", "c", nullptr, nullptr, nullptr); });
    p.read_head();
    p.send("what is this\r\n" + statusReply);
    zeb_subscriber *sub = creation.get();
    ASSERT_NE(sub, nullptr);
    report(first, "status");

    p.send(event(std::string(100000, 'x')));
    zeb_notification *n = zeb_subscriber_receive(sub, 1, 20000);
    ASSERT_NE(n, nullptr);
    zeb_publisher_publish(zeb_subscriber_getPublisher(sub), n);
    p.read_head();
    p.read_bytes(100000);
    report(first, "events both ways");

    p.close();
    peer again = daemon.accept_connected(home.path());
    again.read_head();
    again.send(statusReply);
    report(first, "reconnect");

    std::atomic<bool> called{false};
    ASSERT_EQ(zeb_subscriber_registercallback(sub, note, &called, 0), 0);
    again.send(event("x"));
    ASSERT_TRUE(eventually([&] { return called.load(); }));
    zeb_subscriber_close(sub);
    again.read_head();
    again.send("POST /event HTTP/1.1\r\nclassName: x\r\n"); /* cut short: the reader gives up in the middle */
    again.close();
    zeb_shutdown();
    report(first, "the end");
    ASSERT_TRUE(captured.becomes("UNKNOWN MESSAGE LINE RECEIVED ==> what is this\n"));

    ASSERT_EQ(painted_count(), first + 3);
    for (size_t i = first; i < painted_count(); i++)
        EXPECT_LT(painted_depth(i).used, serviceLimit);
}

TEST(Stack, ServiceThreadsStayUnderTenKibibytesOfTheDefault)
{
    whole_life("");
}

TEST(Stack, ServiceThreadsFitTheSmallestSizeThatCanBeChosen)
{
    whole_life("16384");
}

void start_without_resolver()
{
    fake_daemon daemon;
    temporary_home home;
    clean_environment();
    configure(home.path(), daemon.port());
    fail_lookups();
    atexit([] { /* runs on the receive thread, which ends the process */
                fprintf(stderr, "receive thread: %s\n",
                        painted_depth(RECEIVE).used < serviceLimit ? "within its limit" : "too deep");
    });
    zeb_init();
    for (;;)
        pause();
}

TEST(StackDeathTest, FailedLookupEndsTheProcessWithinTheLimit)
{
    if (threadSanitizer || addressSanitizer)
        GTEST_SKIP() << "instrumented frames do not fit these stacks";
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(start_without_resolver(), testing::ExitedWithCode(255),
                "Unable to resolve address for localhost:.*\nZEB runtime exiting\n"
                "Fatal error: eZEB: ezebapi: Aug 15 2014 09:23:43\nreceive thread: within its limit");
}

} // namespace
