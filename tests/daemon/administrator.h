/* Somebody who asks zebd's administration socket. Every wait has a limit. */
#pragma once

#include "process.h"

#include <cstring>
#include <nlohmann/json.hpp>
#include <poll.h>
#include <string>
#include <string_view>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

struct administrator {
    int fd = -1;
    std::string got;

    administrator() = default;
    administrator(const administrator &) = delete;
    administrator &operator=(const administrator &) = delete;
    ~administrator()
    {
        if (fd >= 0)
            close(fd);
    }

    bool dial(const std::string &path)
    {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::strncpy(address.sun_path, path.c_str(), sizeof(address.sun_path) - 1);
        fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        return connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof(address)) == 0;
    }

    bool say(std::string_view text) const
    {
        while (!text.empty()) {
            const ssize_t count = send(fd, text.data(), text.size(), MSG_NOSIGNAL);
            if (count <= 0)
                return false;
            text.remove_prefix(static_cast<size_t>(count));
        }
        return true;
    }

    /* The next line as an object; null at the end of the connection or of the time. */
    nlohmann::json hear()
    {
        size_t end = got.find('\n');
        while (end == std::string::npos) {
            pollfd watched{fd, POLLIN, 0};
            char buffer[65536];
            const ssize_t count =
                poll(&watched, 1, process::patience) == 1 ? recv(fd, buffer, sizeof(buffer), 0) : -1;
            if (count <= 0)
                return {};
            got.append(buffer, static_cast<size_t>(count));
            end = got.find('\n');
        }
        const std::string line = got.substr(0, end);
        got.erase(0, end + 1);
        return nlohmann::json::parse(line);
    }

    nlohmann::json ask(const std::string &what)
    {
        return say("{\"ask\":\"" + what + "\"}\n") ? hear() : nlohmann::json();
    }
};
