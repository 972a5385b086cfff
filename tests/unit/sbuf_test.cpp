/* The socket buffer over a socket pair. */
#include "ezebsbuf.h"

#include "unit.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <linux/sockios.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <random>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <thread>
#include <vector>

namespace
{

struct Sbuf : testing::Test {
    unit::sockets pair;
    ezeb_sb *sb = ezeb_sb_create(pair.near);

    ~Sbuf() override
    {
        ezeb_sb_free(sb);
    }

    /* The next line, or "<failed>". */
    std::string line() const
    {
        char *found = nullptr;
        return ezeb_sb_gets(sb, &found) ? found : "<failed>";
    }

    std::string read(size_t length) const
    {
        std::string bytes(length, '?');
        return ezeb_sb_readbytes(sb, bytes.data(), length) ? bytes : "<failed>";
    }
};

/* ---- Record ---- */

TEST_F(Sbuf, AFreshBufferHas2048BytesAndIsValid)
{
    EXPECT_EQ(sb->capacity, 2048U);
    EXPECT_EQ(sb->start, 0U);
    EXPECT_EQ(sb->end, 0U);
    EXPECT_EQ(sb->valid, 1);
    EXPECT_EQ(ezeb_sb_getfd(sb), pair.near);
}

TEST_F(Sbuf, ThereIsNoBufferForDescriptorMinusOne)
{
    EXPECT_EQ(ezeb_sb_create(-1), nullptr);
}

TEST_F(Sbuf, CreateWithoutMemoryGivesNull)
{
    unit::sweep([&](unit::refusal &refuse) {
        refuse.begin();
        ezeb_sb *fresh = ezeb_sb_create(pair.near);
        refuse.end();
        EXPECT_EQ(fresh == nullptr, refuse.happened());
        ezeb_sb_free(fresh);
    });
}

TEST_F(Sbuf, FreeingLeavesTheDescriptorOpen)
{
    ezeb_sb_free(ezeb_sb_create(pair.near));
    EXPECT_NE(fcntl(pair.near, F_GETFD), -1);
}

/* ---- Lines ---- */

TEST_F(Sbuf, ALineEndsAtItsFeedWithOrWithoutACarriageReturn)
{
    pair.send("abc\r\nabc\n\r\n\nlast\r\n");
    EXPECT_EQ(line(), "abc");
    EXPECT_EQ(line(), "abc");
    EXPECT_EQ(line(), "");
    EXPECT_EQ(line(), "");
    EXPECT_EQ(line(), "last");
}

TEST_F(Sbuf, ACarriageReturnInsideALineIsKept)
{
    pair.send("a\rb\r\nc\r\r\n\r\r\n");
    EXPECT_EQ(line(), "a\rb");
    EXPECT_EQ(line(), "c\r");
    EXPECT_EQ(line(), "\r");
}

/* The return belongs to the line before: what stands before the start of a line is not looked at. */
TEST_F(Sbuf, ACarriageReturnConsumedBeforeALineIsNotTouched)
{
    pair.send("xyz\r\nnext\r\n");
    ASSERT_EQ(ezeb_sb_skip(sb, 4), 1);
    EXPECT_EQ(line(), "");
    EXPECT_EQ(line(), "next");
}

TEST_F(Sbuf, ALineLongerThan2048BytesGrowsTheBufferAndComesWhole)
{
    for (const size_t length : {2046, 2047, 2048, 2049, 4096, 5000, 20000}) {
        const std::string sent(length, 'a');
        std::thread feeder([&] { pair.send(sent + "\r\nnext\r\n"); });
        EXPECT_EQ(line(), sent);
        EXPECT_EQ(line(), "next");
        feeder.join();
        EXPECT_EQ(sb->capacity % 2048, 0U);
    }
    EXPECT_GE(sb->capacity, 20001U);
    EXPECT_LE(sb->capacity, 20001U + 2048 + 2048);
}

/* Where the memory lies may make every move of a long line dear. */
TEST_F(Sbuf, ALongLineMovesTheBufferRarely)
{
    const std::string sent(4 << 20, 'a');
    std::thread feeder([&] { pair.send(sent + "\r\n"); });
    const int64_t before = ezeb_allocseam_requests;
    char *found = nullptr;
    EXPECT_EQ(ezeb_sb_gets(sb, &found), 1);
    EXPECT_LE(ezeb_allocseam_requests - before, 70) << "of 2,048 steps";
    EXPECT_EQ(sent, found);
    feeder.join();
    EXPECT_EQ(sb->capacity % 2048, 0U);
    EXPECT_LE(sb->capacity, sent.size() + 2 * 2048);
    EXPECT_LE(sb->room, sb->capacity / 8 * 9 + 2048) << "what is not used costs little";
}

TEST_F(Sbuf, ALineThatCannotGrowFails)
{
    pair.send(std::string(3000, 'a') + "\r\n");
    unit::refusal refuse(1);
    refuse.begin();
    EXPECT_EQ(line(), "<failed>");
}

TEST_F(Sbuf, ALineOfMoreThan32BitsFails)
{
    sb->capacity = UINT32_MAX - 2047;
    sb->start = 0;
    sb->end = sb->scanned = sb->capacity;
    EXPECT_EQ(line(), "<failed>");
}

TEST_F(Sbuf, TheEndOfTheStreamFailsAlsoInsideALine)
{
    pair.send("whole\r\npart");
    pair.hangUp();
    EXPECT_EQ(line(), "whole");
    EXPECT_EQ(line(), "<failed>");
    EXPECT_EQ(line(), "<failed>");
}

/* A line may hold a NUL: as a string it ends there, and the next line is found all the same. */
TEST_F(Sbuf, ANulInsideALineEndsItsTextOnly)
{
    pair.send(unit::bytes("ab\0cd\r\nnext\r\n"));
    EXPECT_EQ(line(), "ab");
    EXPECT_EQ(line(), "next");
}

TEST_F(Sbuf, TheBufferIsCompactedOnlyWhenALineIsIncomplete)
{
    pair.send("one\ntwo\nthr");
    EXPECT_EQ(line(), "one");
    EXPECT_EQ(sb->start, 4U);
    EXPECT_EQ(line(), "two");
    EXPECT_EQ(sb->start, 8U);
    pair.send("ee\n");
    EXPECT_EQ(line(), "three");
    EXPECT_EQ(sb->start, sb->end);
    EXPECT_EQ(sb->end, 6U);
}

/* ---- Settling ---- */

struct Settling : Sbuf {
    int settled = 0;

    /* The counter rises when settling is called for, which sends a line. */
    void owe()
    {
        ezeb_sb_beforewait(
            sb,
            [](void *context) {
                auto *test = static_cast<Settling *>(context);
                test->settled++;
                test->pair.send("settled\n");
            },
            this);
    }

    static std::string lines(size_t count)
    {
        std::string all;
        for (size_t i = 0; i < count; i++)
            all += std::string(63, static_cast<char>('a' + i % 26)) + "\n";
        return all;
    }
};

/* Nobody else sends: without settling the read would wait for ever. */
TEST_F(Settling, ComesBeforeAReadThatWouldWait)
{
    owe();
    EXPECT_EQ(line(), "settled");
    EXPECT_EQ(settled, 1);
    pair.send("more\n");
    EXPECT_EQ(line(), "more");
    EXPECT_EQ(settled, 1) << "once for all";
}

TEST_F(Settling, ComesBeforeAReadThatWouldWaitAlsoBehindAFullBuffer)
{
    pair.send(lines(32));
    EXPECT_EQ(line(), std::string(63, 'a'));
    ASSERT_EQ(sb->end, sb->capacity) << "the buffer was filled to its end";
    owe();
    for (int i = 1; i < 32; i++)
        line();
    EXPECT_EQ(settled, 0) << "nothing had to be read";
    EXPECT_EQ(line(), "settled");
}

TEST_F(Settling, ComesAtOnceBehindAReadThatGotLessThanItHadRoomFor)
{
    pair.send("one\n");
    EXPECT_EQ(line(), "one");
    pair.send("two\n");
    owe();
    EXPECT_EQ(line(), "two");
    EXPECT_EQ(settled, 1);
}

TEST_F(Settling, IsPutOffWhileThereIsSomethingToReadForABoundedNumberOfReads)
{
    const size_t perRead = 2048 / 64;
    pair.send(lines(perRead * (EZEB_SB_PATIENCE + 2)));
    line();
    owe();
    for (size_t i = 1; i < perRead * (EZEB_SB_PATIENCE + 1); i++)
        line();
    EXPECT_EQ(settled, 0);
    line();
    EXPECT_EQ(settled, 1);
}

TEST_F(Settling, ComesBeforeALongReadPastTheBuffer)
{
    pair.send(lines(32) + std::string(EZEB_SB_STEP + 1, 'x'));
    for (int i = 0; i < 32; i++)
        line();
    owe();
    EXPECT_EQ(read(EZEB_SB_STEP + 1), std::string(EZEB_SB_STEP + 1, 'x'));
    EXPECT_EQ(settled, 1);
}

TEST_F(Settling, ComesBeforeAFailure)
{
    pair.send(lines(32));
    for (int i = 0; i < 32; i++)
        line();
    owe();
    pair.hangUp();
    sb->settle = [](void *context) { static_cast<Settling *>(context)->settled++; };
    EXPECT_EQ(line(), "<failed>");
    EXPECT_EQ(settled, 1);
}

TEST_F(Settling, CanBeHadAtAnyTime)
{
    ezeb_sb_settle(sb);
    EXPECT_EQ(settled, 0) << "nothing is owed";
    owe();
    ezeb_sb_settle(sb);
    ezeb_sb_settle(sb);
    EXPECT_EQ(settled, 1);
}

/* ---- Bytes ---- */

TEST_F(Sbuf, BytesComeFromTheBufferFirstAndThenFromTheSocketWithoutReadingAhead)
{
    pair.send("line\r\nabcdef");
    EXPECT_EQ(line(), "line");
    EXPECT_EQ(read(2), "ab");
    pair.send("ghijklmnop");
    EXPECT_EQ(read(8), "cdefghij");
    EXPECT_EQ(sb->start, sb->end) << "nothing beyond what was asked for is buffered";
    char rest[16] = {};
    EXPECT_EQ(recv(pair.near, rest, sizeof(rest), 0), 6);
    EXPECT_STREQ(rest, "klmnop");
}

TEST_F(Sbuf, NoBytesAreAlwaysThere)
{
    EXPECT_EQ(ezeb_sb_readbytes(sb, nullptr, 0), 1);
    EXPECT_EQ(ezeb_sb_skip(sb, 0), 1);
}

TEST_F(Sbuf, ABodyBiggerThanAnySocketBufferArrivesWhole)
{
    std::string sent(3000000, '\0');
    for (size_t i = 0; i < sent.size(); i++)
        sent[i] = static_cast<char>(i * 31);
    std::thread feeder([&] { pair.send("x\r\n" + sent + "tail\r\n"); });
    EXPECT_EQ(line(), "x");
    EXPECT_EQ(read(sent.size()), sent);
    EXPECT_EQ(line(), "tail");
    feeder.join();
}

TEST_F(Sbuf, FewerBytesThanAnnouncedAreReportedWithTheNumberMissing)
{
    pair.send("12345");
    pair.hangUp();
    testing::internal::CaptureStderr();
    EXPECT_EQ(read(12), "<failed>");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "READ LESS THAN THE FULL BUFFER, ret=0, len=7\n");
}

TEST_F(Sbuf, AFailedReadOfBytesIsReportedWithMinusOne)
{
    fcntl(pair.near, F_SETFL, O_NONBLOCK);
    testing::internal::CaptureStderr();
    EXPECT_EQ(read(12), "<failed>");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "READ LESS THAN THE FULL BUFFER, ret=-1, len=12\n");
}

TEST_F(Sbuf, APartCountsWhatWouldHaveBeenAskedForNext)
{
    pair.send("123");
    pair.hangUp();
    char bytes[10];
    testing::internal::CaptureStderr();
    EXPECT_EQ(ezeb_sb_readpart(sb, bytes, sizeof(bytes), 90), 0);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "READ LESS THAN THE FULL BUFFER, ret=0, len=97\n");
}

/* ---- Skipping ---- */

TEST_F(Sbuf, SkippingDropsExactlyTheBytesAskedFor)
{
    std::string sent(10000, 'x');
    sent += "after\r\n";
    std::thread feeder([&] { pair.send(sent); });
    EXPECT_EQ(ezeb_sb_skip(sb, 3), 1);
    EXPECT_EQ(ezeb_sb_skip(sb, 9997), 1);
    EXPECT_EQ(line(), "after");
    feeder.join();
    EXPECT_EQ(sb->capacity, 2048U) << "skipping needs no room";
}

TEST_F(Sbuf, SkippingPastTheEndOfTheStreamFails)
{
    pair.send("12345");
    pair.hangUp();
    EXPECT_EQ(ezeb_sb_skip(sb, 6), 0);
    EXPECT_EQ(ezeb_sb_skip(sb, 1), 0);
}

/* ---- Invalidation ---- */

TEST_F(Sbuf, AfterInvalidationEverythingFailsWithoutTouchingTheDescriptor)
{
    pair.send("line\r\nbytes and more\r\n");
    EXPECT_EQ(line(), "line");
    ezeb_sb_invalidate(sb);
    const uint32_t start = sb->start;
    char bytes[4];
    char *found = nullptr;
    EXPECT_EQ(ezeb_sb_gets(sb, &found), 0);
    EXPECT_EQ(ezeb_sb_readbytes(sb, bytes, 4), 0);
    EXPECT_EQ(ezeb_sb_skip(sb, 1), 0);
    EXPECT_EQ(ezeb_sb_write(sb, "abc", 3), 0);
    EXPECT_EQ(ezeb_sb_write(sb, std::string(3000, 'x').data(), 3000), 0);
    EXPECT_EQ(ezeb_sb_flush(sb), 0);
    EXPECT_EQ(sb->start, start);
    EXPECT_EQ(pair.received(), "");
}

/* ---- Writing ---- */

TEST_F(Sbuf, WritesAreCollectedUntilTheFlush)
{
    EXPECT_NE(ezeb_sb_write(sb, "abc", 3), 0);
    EXPECT_NE(ezeb_sb_puts(sb, "def"), 0);
    EXPECT_NE(ezeb_sb_puts(sb, nullptr), 0);
    EXPECT_NE(ezeb_sb_write(sb, nullptr, 0), 0);
    EXPECT_EQ(pair.received(), "");
    EXPECT_EQ(sb->sent, 0U);
    EXPECT_EQ(ezeb_sb_flush(sb), 1);
    EXPECT_EQ(pair.received(), "abcdef");
    EXPECT_EQ(sb->sent, 6U);
    EXPECT_EQ(ezeb_sb_flush(sb), 1) << "nothing pending is a success";
    EXPECT_EQ(pair.received(), "");
}

TEST_F(Sbuf, AWriteThatJustFitsStaysInTheBuffer)
{
    const std::string bytes(2048, 'f');
    EXPECT_NE(ezeb_sb_write(sb, bytes.data(), 2048), 0);
    EXPECT_EQ(pair.received(), "");
    EXPECT_NE(ezeb_sb_write(sb, "g", 1), 0);
    EXPECT_EQ(pair.received(), bytes) << "the next byte pushes it out";
    EXPECT_EQ(sb->end, 1U);
}

/* Message boundaries show the calls: each write to this kind of socket is one message. */
struct SbufCalls : testing::Test {
    int near = -1;
    int far = -1;
    ezeb_sb *sb = nullptr;

    SbufCalls()
    {
        int both[2];
        if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, both) == 0) {
            near = both[0];
            far = both[1];
        }
        sb = ezeb_sb_create(near);
    }
    ~SbufCalls() override
    {
        ezeb_sb_free(sb);
        close(near);
        close(far);
    }
    std::vector<ssize_t> calls() const
    {
        std::vector<ssize_t> sizes;
        char bytes[70000];
        ssize_t n;
        while ((n = recv(far, bytes, sizeof(bytes), MSG_DONTWAIT)) >= 0)
            sizes.push_back(n);
        return sizes;
    }
};

TEST_F(SbufCalls, ThreeThousandBytesIntoAFreshBufferAreOneCall)
{
    EXPECT_NE(ezeb_sb_write(sb, std::string(3000, 'x').data(), 3000), 0);
    EXPECT_EQ(calls(), (std::vector<ssize_t>{3000}));
    EXPECT_EQ(sb->end, 0U);
}

TEST_F(SbufCalls, ABigWriteBehindPendingBytesIsTwoCalls)
{
    ezeb_sb_write(sb, "head", 4);
    EXPECT_NE(ezeb_sb_write(sb, std::string(3000, 'x').data(), 3000), 0);
    EXPECT_EQ(calls(), (std::vector<ssize_t>{4, 3000}));
}

TEST_F(SbufCalls, AMediumWriteBehindPendingBytesPushesOnlyThoseOut)
{
    ezeb_sb_write(sb, std::string(1000, 'a').data(), 1000);
    EXPECT_NE(ezeb_sb_write(sb, std::string(2000, 'b').data(), 2000), 0);
    EXPECT_EQ(calls(), (std::vector<ssize_t>{1000}));
    EXPECT_EQ(sb->end, 2000U);
}

TEST_F(SbufCalls, AWriteOfExactlyTheCapacityIsStillCollected)
{
    ezeb_sb_write(sb, "head", 4);
    EXPECT_NE(ezeb_sb_write(sb, std::string(2048, 'c').data(), 2048), 0);
    EXPECT_EQ(calls(), (std::vector<ssize_t>{4}));
    EXPECT_EQ(ezeb_sb_flush(sb), 1);
    EXPECT_EQ(calls(), (std::vector<ssize_t>{2048}));
}

/* Over TCP, where the kernel tells how much of what was written has not been sent. */
struct SbufTcp : testing::Test {
    int listening = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    int near = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    ezeb_sb *sb = ezeb_sb_create(near);

    SbufTcp()
    {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof(address);
        EXPECT_EQ(bind(listening, reinterpret_cast<sockaddr *>(&address), length), 0);
        EXPECT_EQ(listen(listening, 1), 0);
        EXPECT_EQ(getsockname(listening, reinterpret_cast<sockaddr *>(&address), &length), 0);
        EXPECT_EQ(connect(near, reinterpret_cast<sockaddr *>(&address), length), 0);
        const int on = 1;
        EXPECT_EQ(setsockopt(near, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on)), 0);
    }
    ~SbufTcp() override
    {
        ezeb_sb_free(sb);
        close(near);
        close(listening);
    }
    int unsent() const
    {
        int octets = -1;
        ioctl(near, SIOCOUTQNSD, &octets);
        return octets;
    }
};

TEST_F(SbufTcp, WhatMoreFollowsIsKeptUntilTheLastGoesOut)
{
    ezeb_sb_more(sb, true);
    ezeb_sb_write(sb, "first", 5);
    EXPECT_EQ(ezeb_sb_flush(sb), 1);
    EXPECT_EQ(unsent(), 5);
    ezeb_sb_more(sb, false);
    ezeb_sb_write(sb, "last", 4);
    EXPECT_EQ(ezeb_sb_flush(sb), 1);
    EXPECT_EQ(unsent(), 0);
    EXPECT_EQ(sb->sent, 9U);
}

TEST_F(SbufTcp, ReleasingSendsWhatIsKept)
{
    ezeb_sb_more(sb, true);
    ezeb_sb_write(sb, "first", 5);
    EXPECT_EQ(ezeb_sb_flush(sb), 1);
    EXPECT_EQ(unsent(), 5);
    ezeb_sb_release(sb);
    EXPECT_EQ(unsent(), 0);
}

/* The header of a message whose body is written by itself does not go in a segment of its own. */
TEST_F(SbufTcp, PendingBytesAreKeptForTheBigWriteBehindThem)
{
    ezeb_sb_write(sb, "head", 4);
    EXPECT_NE(ezeb_sb_write(sb, std::string(2048, 'c').data(), 2048), 0);
    EXPECT_EQ(unsent(), 4);
    EXPECT_EQ(ezeb_sb_flush(sb), 1);
    EXPECT_EQ(unsent(), 0);
}

struct SbufGone : Sbuf {
    SbufGone()
    {
        signal(SIGPIPE, SIG_IGN);
        pair.hangUp();
    }
};

TEST_F(SbufGone, WritingToAVanishedPeerFails)
{
    EXPECT_NE(ezeb_sb_write(sb, "abc", 3), 0) << "it is only collected";
    EXPECT_EQ(ezeb_sb_flush(sb), 0);
    EXPECT_EQ(ezeb_sb_write(sb, std::string(3000, 'x').data(), 3000), 0);
    ASSERT_NE(ezeb_sb_write(sb, std::string(2000, 'x').data(), 2000), 0);
    EXPECT_EQ(ezeb_sb_write(sb, std::string(2000, 'x').data(), 2000), 0) << "the flush before it fails";
    EXPECT_EQ(sb->sent, 0U);
}

/* A short count must not lose the rest: a small send buffer makes many of them. */
TEST_F(Sbuf, WhatTheKernelTakesInPartsArrivesWhole)
{
    const int small = 4608;
    setsockopt(pair.near, SOL_SOCKET, SO_SNDBUF, &small, sizeof(small));
    std::string sent(2000000, '\0');
    for (size_t i = 0; i < sent.size(); i++)
        sent[i] = static_cast<char>(i * 17);
    std::string got;
    std::thread reader([&] {
        char piece[1000];
        for (ssize_t n; got.size() < sent.size() && (n = recv(pair.far, piece, sizeof(piece), 0)) > 0;)
            got.append(piece, static_cast<size_t>(n));
    });
    EXPECT_NE(ezeb_sb_write(sb, sent.data(), sent.size()), 0);
    reader.join();
    EXPECT_EQ(got, sent);
    EXPECT_EQ(sb->sent, sent.size());
}

std::atomic<int> signalled = 0;

void note(int)
{
    signalled++;
}

/* The socket is full when the write begins, so that most signals find it waiting with nothing written yet. */
TEST_F(Sbuf, AnInterruptedWriteGoesOn)
{
    if (zebtest::threadSanitizer)
        GTEST_SKIP() << "the thread sanitizer holds signals back until the call is over";
    struct sigaction action = {};
    action.sa_handler = note; /* without SA_RESTART */
    sigaction(SIGUSR1, &action, nullptr);
    const std::string filling(1000, 'f');
    size_t filled = 0;
    for (ssize_t n; (n = send(pair.near, filling.data(), filling.size(), MSG_DONTWAIT)) > 0;)
        filled += static_cast<size_t>(n);
    const std::string sent(400000, 'i');
    std::string got;
    const pthread_t writer = pthread_self();
    std::thread reader([&] {
        for (int i = 1; i <= 100; i++) {
            pthread_kill(writer, SIGUSR1);
            while (signalled < i)
                std::this_thread::yield();
        }
        char piece[65536];
        for (ssize_t n;
             got.size() < filled + sent.size() && (n = recv(pair.far, piece, sizeof(piece), 0)) > 0;)
            got.append(piece, static_cast<size_t>(n));
    });
    EXPECT_NE(ezeb_sb_write(sb, sent.data(), sent.size()), 0);
    reader.join();
    EXPECT_TRUE(got == std::string(filled, 'f') + sent);
}

/* ---- Splits ---- */

constexpr std::string_view STREAM =
    unit::bytes("POST /event HTTP/1.1\r\nname: value\nshort\r\n\r\n\nbody\r\n\0bytes\rhead: x\r\n");

/* Reads STREAM the way the reader of messages does and writes down what it saw. */
std::string readStream(ezeb_sb *sb)
{
    std::string seen;
    char *line;
    char body[12];
    for (int i = 0; i < 2; i++) {
        if (!ezeb_sb_gets(sb, &line))
            return seen + "|failed";
        seen += std::string("|") + line;
    }
    if (!ezeb_sb_skip(sb, 2) || !ezeb_sb_gets(sb, &line))
        return seen + "|failed";
    seen += std::string("|") + line;
    if (!ezeb_sb_gets(sb, &line))
        return seen + "|failed";
    seen += std::string("|") + line;
    if (!ezeb_sb_skip(sb, 1) || !ezeb_sb_readbytes(sb, body, sizeof(body)))
        return seen + "|failed";
    seen += "|" + std::string(body, sizeof(body));
    if (!ezeb_sb_skip(sb, 6) || !ezeb_sb_gets(sb, &line))
        return seen + "|failed";
    return seen + "|" + line;
}

constexpr std::string_view SEEN = unit::bytes("|POST /event HTTP/1.1|name: value|ort||body\r\n\0bytes| x");

/* Waits until the reader has taken everything and sleeps in its next read. */
void awaitTaken(int descriptor)
{
    for (;;) {
        char one;
        if (recv(descriptor, &one, 1, MSG_PEEK | MSG_DONTWAIT) < 0 &&
            (errno == EAGAIN || errno == EWOULDBLOCK))
            return;
        std::this_thread::yield();
    }
}

TEST(SbufSplit, AStreamSplitAtAnyByteReadsTheSame)
{
    for (size_t cut = 0; cut <= STREAM.size(); cut++) {
        unit::sockets pair;
        ezeb_sb *sb = ezeb_sb_create(pair.near);
        pair.send(STREAM.substr(0, cut));
        std::thread feeder([&] {
            awaitTaken(pair.near);
            pair.send(STREAM.substr(cut));
        });
        ASSERT_EQ(readStream(sb), SEEN) << "split at " << cut;
        feeder.join();
        ezeb_sb_free(sb);
    }
}

TEST(SbufSplit, AStreamCutAtAnyByteFailsAndNothingElseHappens)
{
    testing::internal::CaptureStderr();
    for (size_t cut = 0; cut < STREAM.size(); cut++) {
        unit::sockets pair;
        ezeb_sb *sb = ezeb_sb_create(pair.near);
        pair.send(STREAM.substr(0, cut));
        pair.hangUp();
        const std::string seen = readStream(sb);
        ASSERT_EQ(seen.substr(seen.size() - 7), "|failed") << "cut at " << cut;
        ASSERT_EQ(SEEN.substr(0, seen.size() - 7), seen.substr(0, seen.size() - 7)) << "cut at " << cut;
        ezeb_sb_free(sb);
    }
    testing::internal::GetCapturedStderr();
}

TEST(SbufSplit, AStreamInRandomPiecesReadsTheSame)
{
    std::mt19937 random(4711);
    for (int round = 0; round < 200; round++) {
        unit::sockets pair;
        ezeb_sb *sb = ezeb_sb_create(pair.near);
        std::thread feeder([&] {
            for (std::string_view rest = STREAM; !rest.empty();) {
                const size_t piece = std::min<size_t>(rest.size(), 1 + random() % 9);
                pair.send(rest.substr(0, piece));
                rest.remove_prefix(piece);
                std::this_thread::yield();
            }
        });
        ASSERT_EQ(readStream(sb), SEEN);
        feeder.join();
        ezeb_sb_free(sb);
    }
}

/* Random reads of random contents against the same reads of the string. */
TEST(SbufSplit, RandomReadsOfARandomStreamAgreeWithTheString)
{
    for (unsigned seed = 1; seed <= 30; seed++) {
        std::mt19937 random(seed);
        std::string stream;
        for (int i = 0; i < 300; i++) {
            stream.append(random() % 5 == 0 ? random() % 6000 : random() % 80,
                          static_cast<char>('a' + i % 26));
            stream += random() % 2 == 0 ? "\r\n" : "\n";
        }
        unit::sockets pair;
        ezeb_sb *sb = ezeb_sb_create(pair.near);
        std::thread feeder([&] {
            pair.send(stream);
            pair.hangUp();
        });
        size_t at = 0;
        while (at < stream.size()) {
            const size_t length = std::min<size_t>(stream.size() - at, random() % 3000);
            switch (random() % 3) {
            case 0: {
                char *line = nullptr;
                ASSERT_EQ(ezeb_sb_gets(sb, &line), 1);
                const size_t feed = stream.find('\n', at);
                const bool cr = feed > at && stream[feed - 1] == '\r';
                ASSERT_EQ(line, stream.substr(at, feed - at - (cr ? 1 : 0)));
                at = feed + 1;
                break;
            }
            case 1: {
                std::string bytes(length, '?');
                ASSERT_EQ(ezeb_sb_readbytes(sb, bytes.data(), length), 1);
                ASSERT_EQ(bytes, stream.substr(at, length));
                at += length;
                break;
            }
            default:
                ASSERT_EQ(ezeb_sb_skip(sb, length), 1);
                at += length;
                break;
            }
        }
        char *line;
        EXPECT_EQ(ezeb_sb_gets(sb, &line), 0);
        feeder.join();
        ezeb_sb_free(sb);
    }
}

/* ---- Speed ---- */

#ifdef ZEB_SPEED_GUARDS
TEST_F(Sbuf, ALineOf64MebibytesTakesLessThanASecond)
{
    const std::string sent(64 * 1024 * 1024, 'a');
    std::thread feeder([&] {
        pair.send(sent);
        pair.send("\r\n");
    });
    const double start = unit::processorSeconds();
    char *line = nullptr;
    const int32_t found = ezeb_sb_gets(sb, &line);
    const double seconds = unit::processorSeconds() - start;
    feeder.join();
    ASSERT_EQ(found, 1);
    EXPECT_EQ(strlen(line), sent.size());
    EXPECT_LT(seconds, 1.0);
}
#endif

} // namespace
