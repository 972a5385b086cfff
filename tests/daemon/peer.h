/* A client of zebd by hand: a bare socket on the loopback. */
#pragma once

#include "dialogue.h"
#include "wire.h"

#include <arpa/inet.h>
#include <netinet/in.h>

struct peer : dialogue {
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

    /* The daemon has taken everything that was said before. Subscriber 1 gets nothing by itself then. */
    bool round_trip()
    {
        return subscribe(wire::with(wire::subscribeEverything, "Subscription: ", "Subscription: null"));
    }
};
