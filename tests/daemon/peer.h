/* A client of zebd by hand: a bare socket on the loopback. */
#pragma once

#include "process.h"
#include "wire.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <string>
#include <string_view>
#include <sys/socket.h>
#include <unistd.h>

/* Every wait has a limit; what went wrong is seen in what is missing from the text. */
struct peer {
    int fd = -1;
    std::string got;

    peer() = default;
    peer(const peer &) = delete;
    peer &operator=(const peer &) = delete;
    ~peer()
    {
        hang_up();
    }

    void hang_up()
    {
        if (fd >= 0)
            close(fd);
        fd = -1;
    }

    bool dial(uint16_t port, int family = AF_INET)
    {
        fd = socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in v4{};
        v4.sin_family = AF_INET;
        v4.sin_port = htons(port);
        v4.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        sockaddr_in6 v6{};
        v6.sin6_family = AF_INET6;
        v6.sin6_port = htons(port);
        v6.sin6_addr = in6addr_loopback;
        if (family == AF_INET)
            return connect(fd, reinterpret_cast<const sockaddr *>(&v4), sizeof(v4)) == 0;
        return connect(fd, reinterpret_cast<const sockaddr *>(&v6), sizeof(v6)) == 0;
    }

    bool say(std::string_view text)
    {
        while (!text.empty()) {
            const ssize_t count = send(fd, text.data(), text.size(), MSG_NOSIGNAL);
            if (count <= 0)
                return false;
            text.remove_prefix(static_cast<size_t>(count));
        }
        return true;
    }

    /* One read. False at the end of the connection or of the time. */
    bool more()
    {
        pollfd watched{fd, POLLIN, 0};
        if (poll(&watched, 1, process::patience) != 1)
            return false;
        char buffer[65536];
        const ssize_t count = recv(fd, buffer, sizeof(buffer), 0);
        if (count <= 0)
            return false;
        got.append(buffer, static_cast<size_t>(count));
        return true;
    }

    /* Takes everything up to and including TEXT. */
    std::string hear(std::string_view text)
    {
        size_t at = got.find(text);
        while (at == std::string::npos) {
            if (!more())
                return "missing [" + std::string(text) + "] in [" + got + "]";
            at = got.find(text);
        }
        std::string result = got.substr(0, at + text.size());
        got.erase(0, at + text.size());
        return result;
    }

    bool hear_end()
    {
        while (more()) {
        }
        pollfd watched{fd, POLLIN, 0};
        char octet = 0;
        return poll(&watched, 1, 0) == 1 && recv(fd, &octet, 1, 0) <= 0;
    }

    /* Dials and connects; the reply is taken. */
    bool join(uint16_t port, int family = AF_INET)
    {
        return dial(port, family) && say(wire::connect) &&
               hear("\r\n\r\n").find("Result: success") != std::string::npos;
    }

    bool subscribe(std::string_view request = wire::subscribeEverything)
    {
        return say(request) && hear("\r\n\r\n").find("Result: success") != std::string::npos;
    }
};
