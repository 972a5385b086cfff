#include "fake_daemon.h"

#include <cstdio>
#include <fstream>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <stdexcept>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>

namespace zebtest
{

std::string handshake(const std::string &home, std::string_view formfactor)
{
    return "POST /connect HTTP/1.1\r\nVersion: 4 \r\nFormFactor: " + std::string(formfactor) +
           "\r\nSelfId: Pid=" + std::to_string(getpid()) + "; Home=" + home + "\r\n\r\n";
}

/* A socket of FAMILY bound to PORT on the loopback, or -1. */
static int bound(int family, uint16_t port)
{
    const int fd = socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const int on = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
    sockaddr_in v4{};
    v4.sin_family = AF_INET;
    v4.sin_port = htons(port);
    v4.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    sockaddr_in6 v6{};
    v6.sin6_family = AF_INET6;
    v6.sin6_port = htons(port);
    v6.sin6_addr = in6addr_loopback;
    if (family == AF_INET6)
        setsockopt(fd, IPPROTO_IPV6, IPV6_V6ONLY, &on, sizeof(on));
    const int failed = family == AF_INET ? bind(fd, reinterpret_cast<const sockaddr *>(&v4), sizeof(v4))
                                         : bind(fd, reinterpret_cast<const sockaddr *>(&v6), sizeof(v6));
    if (fd != -1 && failed == 0)
        return fd;
    close(fd);
    return -1;
}

static uint16_t port_of(int fd)
{
    sockaddr_in address{};
    socklen_t length = sizeof(address);
    getsockname(fd, reinterpret_cast<sockaddr *>(&address), &length);
    return ntohs(address.sin_port);
}

static constexpr int familyOf[] = {AF_INET, AF_INET6};

static bool has_ipv6()
{
    const int fd = bound(AF_INET6, 0);
    if (fd != -1)
        close(fd);
    return fd != -1;
}

/* Takes a number that is free in both families. */
bool fake_daemon::reserve()
{
    reserved[0] = bound(AF_INET, 0);
    if (reserved[0] == -1)
        return false;
    number = port_of(reserved[0]);
    reserved[1] = bound(AF_INET6, number);
    return reserved[1] != -1 || !has_ipv6();
}

void fake_daemon::give_up()
{
    for (int &fd : reserved) {
        if (fd != -1)
            close(fd);
        fd = -1;
    }
}

fake_daemon::fake_daemon()
{
    for (int tries = 0; !reserve(); tries++) {
        give_up();
        if (tries > 20)
            throw std::runtime_error("no port to listen on");
    }
    listen_again();
}

fake_daemon::~fake_daemon()
{
    refuse();
    give_up();
}

void fake_daemon::listen_again()
{
    refuse();
    for (int i = 0; i < families; i++) {
        if (reserved[i] == -1)
            continue;
        listening[i] = bound(familyOf[i], number);
        if (listening[i] == -1 || listen(listening[i], 64) != 0)
            throw std::runtime_error("cannot listen");
    }
}

bool fake_daemon::listen_only(int family)
{
    listen_again();
    for (int i = 0; i < families; i++) {
        if (familyOf[i] != family && listening[i] != -1)
            ::close(std::exchange(listening[i], -1));
    }
    return listening[family == AF_INET ? 0 : 1] != -1;
}

void fake_daemon::refuse()
{
    for (int &fd : listening) {
        if (fd != -1)
            close(fd);
        fd = -1;
    }
}

bool fake_daemon::is_called_within(milliseconds limit)
{
    pollfd watched[families] = {{listening[0], POLLIN, 0}, {listening[1], POLLIN, 0}};
    return poll(watched, families, static_cast<int>(limit.count())) > 0;
}

void fake_daemon::stand_still()
{
    sockaddr_in here{};
    socklen_t length = sizeof(here);
    const int other = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (!listen_only(AF_INET) || listen(listening[0], 0) != 0 ||
        getsockname(listening[0], reinterpret_cast<sockaddr *>(&here), &length) != 0 ||
        connect(other, reinterpret_cast<const sockaddr *>(&here), length) != 0)
        throw std::runtime_error("cannot fill the queue");
    close(other);
}

bool fake_daemon::is_called_in_vain() const
{
    constexpr unsigned synSent = 2;
    std::ifstream table("/proc/self/net/tcp");
    for (std::string line; std::getline(table, line);) {
        unsigned port = 0;
        unsigned state = 0;
        if (sscanf(line.c_str(), "%*s %*s %*x:%x %x", &port, &state) == 2 && port == number &&
            state == synSent)
            return true;
    }
    return false;
}

int fake_daemon::take_waiting()
{
    for (const int fd : listening) {
        pollfd watched{fd, POLLIN, 0};
        if (poll(&watched, 1, 0) != 1)
            continue;
        const int accepted = accept4(fd, nullptr, nullptr, SOCK_CLOEXEC);
        const int on = 1;
        setsockopt(accepted, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on)); /* single bytes leave at once */
        if (accepted != -1)
            return accepted;
    }
    return -1;
}

peer fake_daemon::accept(place where)
{
    if (!is_called_within(stretched(patience)))
        script_fails(where, "the library should have connected");
    const int accepted = take_waiting();
    if (accepted == -1)
        script_fails(where, "a connection was gone before it was accepted");
    return peer(accepted);
}

peer fake_daemon::accept_connected(const std::string &home, place where)
{
    peer p = accept(where);
    p.expect(handshake(home), where);
    p.send(handshakeReply);
    return p;
}

} // namespace zebtest
