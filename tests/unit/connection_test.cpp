/* The counted connection. */
#include "ezebconnection.h"

#include "unit.h"

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <netinet/in.h>
#include <thread>
#include <vector>

namespace
{

bool isOpen(int descriptor)
{
    return fcntl(descriptor, F_GETFD) != -1;
}

struct Connection : testing::Test {
    unit::sockets pair;
    ezeb_connection *connection = nullptr;

    Connection()
    {
        connection = ezeb_connection_create(pair.near, 7);
    }

    /* What is read at the far end: 0 is the end of the stream. */
    ssize_t readFar() const
    {
        char byte;
        return recv(pair.far, &byte, 1, 0);
    }
};

TEST_F(Connection, AFreshOneIsAliveAndHasOneReference)
{
    EXPECT_EQ(connection->fd, pair.near);
    EXPECT_EQ(connection->generation, 7U);
    EXPECT_EQ(connection->references, 1);
    EXPECT_EQ(ezeb_connection_alive(connection), 1);
    ezeb_connection_unref(connection);
    pair.near = -1;
}

TEST_F(Connection, TheLastReferenceClosesTheDescriptor)
{
    EXPECT_EQ(ezeb_connection_ref(connection), connection);
    ezeb_connection_unref(connection);
    EXPECT_TRUE(isOpen(pair.near));
    ezeb_connection_unref(connection);
    EXPECT_FALSE(isOpen(pair.near));
    pair.near = -1;
    EXPECT_EQ(readFar(), 0);
}

TEST_F(Connection, NullIsIgnored)
{
    EXPECT_EQ(ezeb_connection_ref(nullptr), nullptr);
    ezeb_connection_unref(nullptr);
    ezeb_connection_cut(nullptr);
    ezeb_connection_unref(connection);
    pair.near = -1;
}

TEST_F(Connection, CuttingShutsBothDirectionsDownAndKeepsTheNumberTaken)
{
    signal(SIGPIPE, SIG_IGN);
    ezeb_connection_cut(connection);
    EXPECT_EQ(ezeb_connection_alive(connection), 0);
    EXPECT_EQ(readFar(), 0);
    char byte = 'x';
    EXPECT_EQ(read(pair.near, &byte, 1), 0);
    EXPECT_EQ(write(pair.near, &byte, 1), -1);
    EXPECT_EQ(errno, EPIPE);
    EXPECT_TRUE(isOpen(pair.near)) << "nobody else may get the number yet";
    ezeb_connection_cut(connection);
    ezeb_connection_unref(connection);
    EXPECT_FALSE(isOpen(pair.near));
    pair.near = -1;
}

TEST_F(Connection, CuttingEndsABlockedRead)
{
    ssize_t got = 77;
    std::thread reader([&] {
        char byte;
        got = read(pair.near, &byte, 1);
    });
    ezeb_connection_cut(connection);
    reader.join();
    EXPECT_EQ(got, 0);
    ezeb_connection_unref(connection);
    pair.near = -1;
}

TEST_F(Connection, CuttingEndsABlockedWrite)
{
    signal(SIGPIPE, SIG_IGN);
    ssize_t got = 77;
    std::thread writer([&] {
        const std::string bytes(1 << 20, 'w');
        while ((got = write(pair.near, bytes.data(), bytes.size())) > 0)
            ;
    });
    char byte;
    ASSERT_EQ(recv(pair.far, &byte, 1, 0), 1); /* it is writing, and nobody reads more */
    ezeb_connection_cut(connection);
    writer.join();
    EXPECT_EQ(got, -1);
    ezeb_connection_unref(connection);
    pair.near = -1;
}

TEST_F(Connection, ManyThreadsGiveBackTheirReferencesAndOneCloses)
{
    constexpr int THREADS = 4;
    constexpr int ROUNDS = 2000;
    for (int i = 0; i < THREADS; i++)
        ezeb_connection_ref(connection);
    std::vector<std::thread> threads;
    for (int i = 0; i < THREADS; i++)
        threads.emplace_back([this] {
            for (int round = 0; round < ROUNDS; round++) {
                ezeb_connection_ref(connection);
                ezeb_connection_alive(connection);
                ezeb_connection_unref(connection);
            }
            ezeb_connection_cut(connection);
            ezeb_connection_unref(connection);
        });
    for (std::thread &t : threads)
        t.join();
    EXPECT_EQ(connection->references, 1);
    EXPECT_TRUE(isOpen(pair.near));
    ezeb_connection_unref(connection);
    EXPECT_FALSE(isOpen(pair.near));
    pair.near = -1;
}

TEST_F(Connection, WithoutMemoryThereIsNoneAndTheDescriptorStaysTheCallers)
{
    ezeb_connection_unref(connection);
    pair.near = -1;
    const unit::sockets other;
    unit::refusal refuse(1);
    refuse.begin();
    EXPECT_EQ(ezeb_connection_create(other.near, 1), nullptr);
    refuse.end();
    EXPECT_TRUE(isOpen(other.near));
}

/* A socket that lingers for a quarter of an hour over data that nobody reads must not hold up its close. */
TEST(ConnectionLinger, ClosingDoesNotWaitForAPeerThatDoesNotRead)
{
    const int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in where = {};
    where.sin_family = AF_INET;
    where.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof(where);
    ASSERT_EQ(bind(listener, reinterpret_cast<sockaddr *>(&where), sizeof(where)), 0);
    ASSERT_EQ(listen(listener, 1), 0);
    ASSERT_EQ(getsockname(listener, reinterpret_cast<sockaddr *>(&where), &length), 0);
    const int client = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const linger on = {1, 900};
    ASSERT_EQ(setsockopt(client, SOL_SOCKET, SO_LINGER, &on, sizeof(on)), 0);
    ASSERT_EQ(connect(client, reinterpret_cast<sockaddr *>(&where), sizeof(where)), 0);
    const int peer = accept(listener, nullptr, nullptr);
    fcntl(client, F_SETFL, O_NONBLOCK);
    const std::string bytes(1 << 20, 'l');
    while (write(client, bytes.data(), bytes.size()) > 0)
        ;
    fcntl(client, F_SETFL, 0);
    const auto start = std::chrono::steady_clock::now();
    ezeb_connection_unref(ezeb_connection_create(client, 1));
    EXPECT_LT(unit::secondsSince(start), 1.0);
    close(peer);
    close(listener);
}

} // namespace
