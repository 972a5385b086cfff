/* Octets there and back on a socket. Every wait has a limit; what went wrong is seen in what is missing from
 * the text. */
#pragma once

#include "process.h"

#include <poll.h>
#include <string>
#include <string_view>
#include <sys/socket.h>
#include <unistd.h>

struct dialogue {
    int fd = -1;
    std::string got;

    dialogue() = default;
    dialogue(const dialogue &) = delete;
    dialogue &operator=(const dialogue &) = delete;
    ~dialogue()
    {
        hang_up();
    }

    void hang_up()
    {
        if (fd >= 0)
            close(fd);
        fd = -1;
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
};
