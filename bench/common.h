/* Shared by the measuring programs: time, failure, loopback sockets, and events as text for systems that have
 * no properties of their own. */
#pragma once

#include "peer.h"

#include <arpa/inet.h>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <deque>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace bench
{

[[noreturn]] inline void fail(const std::string &what)
{
    fprintf(stderr, "%s\n", what.c_str());
    _exit(1);
}

inline void require(bool ok, const char *what)
{
    if (!ok)
        fail(std::string(what) + " failed");
}

inline uint64_t nanoseconds(clockid_t clock = CLOCK_MONOTONIC)
{
    timespec t{};
    clock_gettime(clock, &t);
    return static_cast<uint64_t>(t.tv_sec) * 1000000000 + static_cast<uint64_t>(t.tv_nsec);
}

inline uint16_t port_of(const std::string &address)
{
    return static_cast<uint16_t>(std::stoul(address));
}

inline void set_nodelay(int fd)
{
    const int on = 1;
    require(setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on)) == 0, "TCP_NODELAY");
}

inline sockaddr_in loopback(uint16_t port)
{
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(port);
    return address;
}

/* Writes everything to a blocking socket. */
inline void send_all(int fd, const void *data, size_t length, int flags = 0)
{
    const char *from = static_cast<const char *>(data);
    while (length > 0) {
        const ssize_t n = send(fd, from, length, flags | MSG_NOSIGNAL);
        require(n > 0, "send");
        from += n;
        length -= static_cast<size_t>(n);
    }
}

/* A socket that listens on a port of the kernel's choice; tells on standard output which. */
inline int listen_loopback()
{
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address = loopback(0);
    socklen_t length = sizeof(address);
    require(bind(fd, reinterpret_cast<sockaddr *>(&address), length) == 0, "bind");
    require(listen(fd, 64) == 0, "listen");
    require(getsockname(fd, reinterpret_cast<sockaddr *>(&address), &length) == 0, "getsockname");
    printf("ready port=%u\n", ntohs(address.sin_port));
    fflush(stdout);
    return fd;
}

/* Lets POLL, an epoll, tell when FD can be read. */
inline void watch(int poll, int fd)
{
    epoll_event wanted{};
    wanted.events = EPOLLIN;
    wanted.data.fd = fd;
    require(epoll_ctl(poll, EPOLL_CTL_ADD, fd, &wanted) == 0, "epoll_ctl");
}

/* Responses that may come before somebody asks for them. */
class response_queue
{
  public:
    void add(std::string_view response)
    {
        waiting.emplace_back(response);
    }
    /* Turns until there is one; it lives until the next is asked for. */
    std::string_view next(void (*turn)())
    {
        while (waiting.empty())
            turn();
        handedOut = std::move(waiting.front());
        waiting.pop_front();
        return handedOut;
    }

  private:
    std::deque<std::string> waiting;
    std::string handedOut;
};

/* ---- An event as text: a line for each property, an empty line, the body ---- */

inline void text_encode(std::string &out, std::string_view body)
{
    out.clear();
    for (size_t i = 0; i < propertyCount; i++)
        out.append(propertyNames[i]).append(": ").append(propertyValues[i]).append("\n");
    out.append("\n").append(body);
}

inline std::string_view text_line(std::string_view &rest)
{
    const size_t end = rest.find('\n');
    if (end == std::string_view::npos)
        fail("a text without its end");
    const std::string_view line = rest.substr(0, end);
    rest.remove_prefix(end + 1);
    return line;
}

inline event text_decode(std::string_view type, std::string_view text)
{
    event e{type, {}, {}};
    for (std::string_view line; !(line = text_line(text)).empty();) {
        const size_t colon = line.find(": ");
        for (size_t i = 0; i < propertyCount; i++)
            if (line.substr(0, colon) == propertyNames[i])
                e.values[i] = line.substr(colon + 2);
    }
    e.body = text;
    return e;
}

} // namespace bench
