/* Somebody who asks zebd's administration socket. Every wait has a limit. */
#pragma once

#include "dialogue.h"

#include <cstring>
#include <nlohmann/json.hpp>
#include <sys/un.h>

struct administrator : dialogue {
    bool dial(const std::string &path)
    {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::strncpy(address.sun_path, path.c_str(), sizeof(address.sun_path) - 1);
        fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        return connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof(address)) == 0;
    }

    /* The next line as an object; null at the end of the connection or of the time. */
    nlohmann::json next()
    {
        const std::string line = hear("\n");
        return line.ends_with('\n') ? nlohmann::json::parse(line) : nlohmann::json();
    }

    nlohmann::json ask(const std::string &what)
    {
        return say("{\"ask\":\"" + what + "\"}\n") ? next() : nlohmann::json();
    }
};
