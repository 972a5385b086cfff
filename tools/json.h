/* What the tool reads and writes as JSON. Members keep the order in which they were added. */
#pragma once

#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

namespace tool
{

using json = nlohmann::ordered_json;

/* VALUE on one line. Octets that are no UTF-8 are replaced, so what must survive is made base64 before. */
inline std::string line_of(const json &value)
{
    return value.dump(-1, ' ', false, json::error_handler_t::replace) + "\n";
}

} // namespace tool
