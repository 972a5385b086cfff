/* zeb status: whether this host's daemon can be reached, and which one it is. */
#include "json.h"
#include "verbs.h"

#include <zeb.h>

namespace tool
{

static std::string readable(bool reachable, uint16_t port, const std::string &instance)
{
    std::string text = reachable ? "daemon: reachable\n" : "daemon: not reachable\n";
    text += "port: " + std::to_string(port) + "\n";
    if (reachable)
        text += "instance: " + instance + "\n";
    return text;
}

static json as_json(bool reachable, uint16_t port, const std::string &instance)
{
    json line;
    line["reachable"] = reachable;
    line["port"] = port;
    if (reachable)
        line["instance"] = instance;
    return line;
}

exit_code status(const common_options &common)
{
    uint16_t port = 0;
    if (!find_port(common, port))
        return exit_usage;
    std::string instance;
    const exit_code code = join(port, instance);
    const bool reachable = code == exit_done;
    put(common.json ? line_of(as_json(reachable, port, instance)) : readable(reachable, port, instance));
    if (reachable)
        zeb_shutdown_nowait();
    return code;
}

} // namespace tool
