/* The defaults that daemon, tool and documentation share. */
#pragma once

#include <cstdint>
#include <cstdlib>
#include <string>
#include <unistd.h>
#include <vector>

namespace zebd
{

/* Used where neither an option nor TAMBEK_ZEB_PROXY_PORT names a port. */
constexpr uint16_t defaultPort = 9320;

/* Made by the service manager for its daemon, whose user then owns it, or by root. */
constexpr char systemDirectory[] = "/run/zebd";

/* Where everybody may write, a directory that its owner alone can enter keeps others out of the place. */
inline std::string private_directory()
{
    return "/tmp/zebd-" + std::to_string(geteuid());
}

/* Where the administration socket of the daemon on PORT is, unless it was told otherwise, best place first.
 * The daemon takes the first one that it can create; who looks for it tries all. */
inline std::vector<std::string> default_admin_paths(uint16_t port)
{
    const std::string number = std::to_string(port);
    std::vector<std::string> paths = {systemDirectory + ("/admin-" + number + ".sock")};
    const char *runtime = std::getenv("XDG_RUNTIME_DIR");
    if (runtime != nullptr && runtime[0] == '/')
        paths.push_back(std::string(runtime) + "/zebd-" + number + ".sock");
    paths.push_back(private_directory() + "/admin-" + number + ".sock");
    return paths;
}

} // namespace zebd
