/* zebd: options, logging, limits of the process; then the server runs. Exit codes: 0 stopped when told to,
 * 1 wrong usage, 2 could not begin to serve. */
#include "defaults.h"
#include "server.h"

#include <CLI/CLI.hpp>
#include <charconv>
#include <cstdlib>
#include <fcntl.h>
#include <memory>
#include <optional>
#include <spdlog/pattern_formatter.h>
#include <spdlog/sinks/stdout_sinks.h>
#include <spdlog/spdlog.h>
#include <sys/resource.h>
#include <time.h>
#include <unistd.h>

namespace zebd
{

static constexpr int exitUsage = 1;
static constexpr int exitNotServing = 2;

/* ---- Logging ---- */

/* The priority in front of each line, as the journal reads it from standard error. */
struct priority_flag : spdlog::custom_flag_formatter {
    void format(const spdlog::details::log_msg &line, const std::tm &, spdlog::memory_buf_t &out) override
    {
        static constexpr std::string_view marks[] = {"<7>", "<7>", "<6>", "<4>", "<3>", "<2>", "<2>"};
        const std::string_view mark = marks[static_cast<size_t>(line.level)];
        out.append(mark.data(), mark.data() + mark.size());
    }
    std::unique_ptr<custom_flag_formatter> clone() const override
    {
        return std::make_unique<priority_flag>();
    }
};

static void start_logging(const std::string &level)
{
    auto formatter = std::make_unique<spdlog::pattern_formatter>();
    formatter->add_flag<priority_flag>('*').set_pattern("%*%v");
    auto logger = std::make_shared<spdlog::logger>("zebd", std::make_shared<spdlog::sinks::stderr_sink_st>());
    logger->set_formatter(std::move(formatter));
    logger->set_level(spdlog::level::from_str(level));
    spdlog::set_default_logger(std::move(logger));
}

/* ---- Options ---- */

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

static uint64_t start_time()
{
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1000 + static_cast<uint64_t>(now.tv_nsec) / 1000000;
}

static std::optional<uint16_t> parse_port(std::string_view text)
{
    uint16_t port = 0;
    const auto result = std::from_chars(text.data(), text.data() + text.size(), port);
    if (result.ec != std::errc() || result.ptr != text.data() + text.size())
        return std::nullopt;
    return port;
}

/* The environment's port, or the default where it names none. Clients read the same variable. */
static std::optional<uint16_t> port_from_environment()
{
    const char *text = std::getenv("TAMBEK_ZEB_PROXY_PORT");
    if (text == nullptr)
        return defaultPort;
    const std::optional<uint16_t> port = parse_port(text);
    return port && *port != 0 ? port : std::nullopt;
}

static std::string check_one_line(const std::string &text)
{
    return text.find_first_of("\r\n") == std::string::npos ? "" : "a line end cannot stand here";
}

struct arguments {
    server_options server;
    int port = -1; /* -1: not given */
    double stopSeconds = 5;
    std::string logLevel = "info";
};

static void declare(CLI::App &app, arguments &args)
{
    server_options &server = args.server;
    app.set_version_flag("--version", std::string("zebd ") + ZEB_VERSION);
    app.add_option("--port", args.port, "Port to listen on; 0 lets the kernel choose")
        ->check(CLI::Range(0, 65535));
    app.add_option("--ready-fd", server.readyFd,
                   "Descriptor that gets a line \"ready port=N\" when listening")
        ->check(CLI::NonNegativeNumber);
    app.add_option("--instance", server.identity.instance,
                   "Instance name told to clients; the host name if not given")
        ->check(check_one_line);
    app.add_option("--log-level", args.logLevel, "debug, info, warning or error")
        ->check(CLI::IsMember({"debug", "info", "warning", "error"}));
    app.add_option("--stop-seconds", args.stopSeconds, "Time for writing what is queued when told to stop")
        ->check(CLI::Range(0.0, 3600.0));
    app.add_option("--max-clients", server.clients, "Clients connected at once")->check(CLI::PositiveNumber);
    app.add_option("--max-body", server.messages.body, "Octets of an event's body")
        ->check(CLI::Range(0, 0x7fffffff));
    app.add_option("--max-queue", server.queue, "Octets waiting for one client before it is dropped")
        ->check(CLI::PositiveNumber);
}

/* What the parser of the options cannot check by itself. */
static bool complete(arguments &args)
{
    if (args.server.readyFd >= 0 && fcntl(args.server.readyFd, F_GETFD) < 0) {
        spdlog::error("--ready-fd: {} is no open descriptor", args.server.readyFd);
        return false;
    }
    const std::optional<uint16_t> port =
        args.port >= 0 ? static_cast<uint16_t>(args.port) : port_from_environment();
    if (!port) {
        spdlog::error("TAMBEK_ZEB_PROXY_PORT: '{}' is no port", std::getenv("TAMBEK_ZEB_PROXY_PORT"));
        return false;
    }
    args.server.port = *port;
    args.server.stopMilliseconds = static_cast<uint32_t>(args.stopSeconds * 1000);
    args.server.identity.version = ZEB_VERSION;
    args.server.identity.node = host_name();
    args.server.identity.incarnation = start_time();
    if (args.server.identity.instance.empty())
        args.server.identity.instance = args.server.identity.node;
    return true;
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
    start_logging(args.logLevel);
    if (!complete(args))
        return exitUsage;
    raise_descriptor_limit();
    return server_run(args.server) ? 0 : exitNotServing;
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
