/* zebd: options and configuration, limits of the process; then the server runs. Exit codes: 0 stopped when
 * told to, 1 wrong usage or configuration, 2 could not begin to serve. */
#include "config.h"
#include "log.h"
#include "message.h"
#include "server.h"

#include <CLI/CLI.hpp>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <iostream>
#include <sstream>
#include <sys/random.h>
#include <sys/resource.h>
#include <time.h>
#include <unistd.h>
#include <utility>

namespace zebd
{

static constexpr int exitUsage = 1;
static constexpr int exitNotServing = 2;

/* ---- The host ---- */

/* Every client is a descriptor, so the process takes what it may have. */
static void raise_descriptor_limit()
{
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0)
        return;
    limit.rlim_cur = limit.rlim_max;
    if (setrlimit(RLIMIT_NOFILE, &limit) != 0)
        spdlog::debug("the descriptor limit stays as it is");
}

static std::string host_name()
{
    char name[256] = "";
    if (gethostname(name, sizeof(name) - 1) != 0 || name[0] == '\0')
        return "localhost";
    return name;
}

/* The time alone could come again: on a clock that was set back, or at two starts in one millisecond. */
static uint64_t new_incarnation()
{
    static constexpr uint64_t chances = 1024;
    timespec now{};
    uint64_t chance = 0;
    clock_gettime(CLOCK_REALTIME, &now);
    if (getrandom(&chance, sizeof(chance), GRND_NONBLOCK) != sizeof(chance))
        chance = static_cast<uint64_t>(now.tv_nsec);
    const uint64_t milliseconds =
        static_cast<uint64_t>(now.tv_sec) * 1000 + static_cast<uint64_t>(now.tv_nsec) / 1000000;
    return milliseconds * chances + chance % chances;
}

/* ---- Configuration ---- */

struct arguments {
    std::string configFile, checkFile;
    int readyFd = -1;
    std::vector<std::pair<std::string, std::string>> settings; /* key and text, in the order given */
};

/* Clients read the same variable. There 0 makes no sense. */
static bool take_environment(configuration &config)
{
    static constexpr const char *variable = "TAMBEK_ZEB_PROXY_PORT";
    const char *text = std::getenv(variable);
    std::string why;
    if (text == nullptr)
        return true;
    if (config_set(config, *config_find("port"), text, why) && config.port != 0)
        return true;
    spdlog::error("{}: '{}' is no port", variable, printable(text));
    return false;
}

static bool read_file(const std::string &name, std::string &text)
{
    std::ifstream file(name, std::ios::binary);
    std::ostringstream content;
    if (file.peek() != std::ifstream::traits_type::eof()) /* an empty file has nothing to copy */
        content << file.rdbuf();
    if (!file.is_open() || file.bad() || content.bad()) {
        const int error = errno;
        spdlog::error("{}: cannot be read: {}", name, std::strerror(error));
        return false;
    }
    text = content.str();
    return true;
}

/* What is wrong goes to the log, one line each, in the form that editors jump to. */
static bool take_file(const std::string &name, configuration &config)
{
    std::string text;
    if (!read_file(name, text))
        return false;
    const std::vector<config_problem> problems = config_parse(text, config);
    for (const config_problem &problem : problems)
        spdlog::error("{}:{}:{}: {}", name, problem.line, problem.column, printable(problem.reason));
    return problems.empty();
}

static bool take_settings(const arguments &args, configuration &config)
{
    for (const auto &[name, text] : args.settings) {
        const config_key *key = config_find(name);
        std::string why = "unknown key";
        if (key == nullptr || !config_set(config, *key, text, why)) {
            spdlog::error("option for {}: {}", printable(name), why);
            return false;
        }
    }
    return true;
}

/* Each source wins over those before it. */
static bool load(const arguments &args, configuration &config)
{
    config = configuration();
    return take_environment(config) && (args.configFile.empty() || take_file(args.configFile, config)) &&
           take_settings(args, config);
}

static int check(const std::string &name)
{
    configuration config;
    if (!take_file(name, config))
        return exitUsage;
    std::cout << name << ": valid\n";
    return 0;
}

/* ---- Options ---- */

struct option_of_key {
    const char *option;
    const char *key;
};

/* Those that are wanted by hand; all others are reached by --set. */
static constexpr option_of_key optionsOfKeys[] = {
    {"--port", "port"},
    {"--instance", "instance"},
    {"--stop-seconds", "stop_seconds"},
    {"--admin", "admin.socket"},
    {"--log-level", "log.level"},
    {"--max-clients", "limits.clients"},
    {"--max-body", "limits.body"},
    {"--max-queue", "queue.hard"},
};

static void take_setting(arguments &args, const std::string &text)
{
    const size_t equals = text.find('=');
    if (equals == std::string::npos)
        throw CLI::ValidationError("--set", "'" + text + "' is not KEY=VALUE");
    args.settings.emplace_back(text.substr(0, equals), text.substr(equals + 1));
}

static void declare(CLI::App &app, arguments &args)
{
    app.set_version_flag("--version", std::string("zebd ") + ZEB_VERSION);
    app.add_option("--config", args.configFile, "Configuration file; SIGHUP reads it again");
    app.add_option("--check", args.checkFile, "Check a configuration file and end");
    app.add_option("--ready-fd", args.readyFd, "Descriptor that gets a line \"ready port=N\" when listening")
        ->check(CLI::NonNegativeNumber);
    for (const option_of_key &each : optionsOfKeys)
        app.add_option_function<std::string>(
            each.option,
            [&args, key = each.key](const std::string &text) { args.settings.emplace_back(key, text); },
            "Key " + std::string(each.key) + ": " + std::string(config_find(each.key)->meaning));
    app.add_option_function<std::vector<std::string>>(
           "--set",
           [&args](const std::vector<std::string> &texts) {
               for (const std::string &text : texts)
                   take_setting(args, text);
           },
           "KEY=VALUE: any key of the configuration")
        ->take_all();
}

static bool complete(const arguments &args, server_options &server)
{
    if (args.readyFd >= 0 && fcntl(args.readyFd, F_GETFD) < 0) {
        spdlog::error("--ready-fd: {} is no open descriptor", args.readyFd);
        return false;
    }
    server.readyFd = args.readyFd;
    server.identity.version = ZEB_VERSION;
    server.identity.node = host_name();
    server.identity.incarnation = new_incarnation();
    server.identity.instance = server.config.instance.empty() ? server.identity.node : server.config.instance;
    return true;
}

static int serve(const arguments &args)
{
    server_options server;
    if (!load(args, server.config) || !complete(args, server))
        return exitUsage;
    if (!args.configFile.empty())
        server.reread = [&args](configuration &config) { return load(args, config); };
    raise_descriptor_limit();
    return server_run(server) ? 0 : exitNotServing;
}

static int run(int argc, char **argv)
{
    arguments args;
    CLI::App app("Notification daemon of one host", "zebd");
    declare(app, args);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError &problem) {
        return app.exit(problem) == 0 ? 0 : exitUsage;
    }
    log_start();
    return args.checkFile.empty() ? serve(args) : check(args.checkFile);
}

} // namespace zebd

int main(int argc, char **argv)
{
    try {
        return zebd::run(argc, argv);
    } catch (...) { /* memory ran out */
        return zebd::exitNotServing;
    }
}
