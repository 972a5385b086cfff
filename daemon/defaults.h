/* The one default that daemon, tool and documentation share. */
#pragma once

#include <cstdint>

namespace zebd
{

/* Used where neither an option nor TAMBEK_ZEB_PROXY_PORT names a port. */
constexpr uint16_t defaultPort = 9320;

} // namespace zebd
