/* zeb status: whether this host's daemon can be reached, and which one it is. */
#include "verbs.h"

#include <nlohmann/json.hpp>
#include <zeb.h>

namespace tool
{

static constexpr double defaultTimeout = 15;

static std::string readable(bool reachable, uint16_t port, const std::string &instance)
{
    std::string text = reachable ? "daemon: reachable\n" : "daemon: not reachable\n";
    text += "port: " + std::to_string(port) + "\n";
    if (reachable)
        text += "instance: " + instance + "\n";
    return text;
}

static std::string json(bool reachable, uint16_t port, const std::string &instance)
{
    nlohmann::ordered_json line;
    line["reachable"] = reachable;
    line["port"] = port;
    if (reachable)
        line["instance"] = instance;
    return line.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace) + "\n";
}

exit_code status(const common_options &common)
{
    limit_run(common.timeout < 0 ? defaultTimeout : common.timeout);
    uint16_t port = 0;
    if (!find_port(common, port))
        return exit_usage;
    std::string instance;
    const exit_code code = join(port, instance);
    const bool reachable = code == exit_done;
    put(common.json ? json(reachable, port, instance) : readable(reachable, port, instance));
    if (reachable)
        zeb_shutdown_nowait();
    return code;
}

} // namespace tool
