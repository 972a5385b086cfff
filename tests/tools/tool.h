/* What the tests of the tool share: zeb run as a process against a zebd of its own. */
#pragma once

#include "process.h"

#include <arpa/inet.h>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <netinet/in.h>
#include <nlohmann/json.hpp>
#include <sstream>
#include <sys/socket.h>
#include <unistd.h>

using nlohmann::json;

/* A listening socket that nobody serves; closed at the end. */
struct silent_listener {
    int fd = -1;
    uint16_t port = 0;

    silent_listener()
    {
        fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof(address);
        if (bind(fd, reinterpret_cast<sockaddr *>(&address), length) == 0 && listen(fd, 16) == 0 &&
            getsockname(fd, reinterpret_cast<sockaddr *>(&address), &length) == 0)
            port = ntohs(address.sin_port);
    }
    ~silent_listener()
    {
        hang_up();
    }
    void hang_up()
    {
        if (fd >= 0)
            close(fd);
        fd = -1;
    }
};

/* Every test has a directory of its own, which is also the user's home, and an environment without settings.
 */
struct Tool : testing::Test {
    std::string directory;
    process::environment env;
    process::zebd daemon;

    void SetUp() override
    {
        char pattern[] = "/tmp/zeb-tool-XXXXXX";
        ASSERT_NE(mkdtemp(pattern), nullptr);
        directory = pattern;
        env = {{"HOME", directory},
               {"TAMBEK_HOME", ""},
               {"TAMBEK_CONFIG_HOME", ""},
               {"TAMBEK_ZEB_PROXY_PORT", ""}};
    }

    void TearDown() override
    {
        std::filesystem::remove_all(directory);
    }

    void serve(const process::arguments &options = {"--instance", "east"})
    {
        process::start_zebd(daemon, options);
        ASSERT_NE(daemon.port, 0) << daemon.errText;
        env["TAMBEK_ZEB_PROXY_PORT"] = std::to_string(daemon.port);
    }

    process::outcome zeb(process::arguments command, const std::string &input = "")
    {
        command.insert(command.begin(), ZEB_PATH);
        return process::run(command, input, env);
    }

    /* Runs a verb in the background until it says that it is ready. */
    void run_until(process::running &child, process::arguments command, const std::string &said)
    {
        command.insert(command.begin(), ZEB_PATH);
        process::start(child, command, env);
        ASSERT_TRUE(process::wait_for_err(child, said)) << child.errText;
    }

    void subscribe(process::running &sub, process::arguments command)
    {
        command.insert(command.begin(), {"sub", "--verbose"});
        run_until(sub, command, "zeb: subscribed\n");
    }

    std::string write_file(const std::string &content, const std::string &called = "body")
    {
        std::string name = directory + "/" + called;
        std::ofstream(name, std::ios::binary) << content;
        return name;
    }
};

inline uint16_t free_port()
{
    return silent_listener().port;
}

/* The words of a command, for messages. */
inline std::string shown(const process::arguments &command)
{
    std::string text;
    for (const std::string &argument : command)
        text += argument + " ";
    return text;
}

/* Each line of TEXT as JSON. A line that is none shows as a discarded value. */
inline std::vector<json> json_lines(const std::string &text)
{
    std::vector<json> result;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);)
        result.push_back(json::parse(line, nullptr, false));
    return result;
}

/* The verbs as the overview lists them. */
inline std::vector<std::string> verbs_in(const std::string &overview)
{
    std::vector<std::string> verbs;
    std::istringstream lines(overview.substr(overview.find("VERBS\n") + 6));
    for (std::string line; std::getline(lines, line) && !line.empty();)
        verbs.push_back(line.substr(4, line.find("  ", 4) - 4));
    return verbs;
}

inline process::arguments words_of(const std::string &text)
{
    std::istringstream words(text);
    return {std::istream_iterator<std::string>(words), {}};
}
