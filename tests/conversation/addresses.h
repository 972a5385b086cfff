/* Address lists as the daemon sends them: a body block with one segment per address. Written here
 * independently of the library. */
#pragma once

#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace zebtest
{

using elements = std::vector<std::pair<std::string, std::string>>;

inline std::string two_bytes(size_t number)
{
    return {static_cast<char>(number >> 8), static_cast<char>(number)};
}

inline std::string block_signature()
{
    using namespace std::string_literals;
    return "\x00\xA3\x7C\x08\xE7\x78\xEE\x24\x5F\xD3\xB6\x4E"s;
}

/* A segment record; its length counts the NUL behind the name. */
inline std::string segment(const std::string &name, int level)
{
    return '\x01' + two_bytes(name.size() + 1) + name + '\0' + static_cast<char>(level);
}

/* An element record; neither length counts the NUL. */
inline std::string element(const std::string &name, const std::string &value)
{
    return '\x02' + two_bytes(name.size()) + name + '\0' + two_bytes(value.size()) + value + '\0';
}

/* An address in the segment NAME, whose second letter says what it is: "srcAddr", "dstAddr0", "mbrAddr0",
 * "addAddr0", "delAddr0". */
inline std::string address(const std::string &name, const elements &fields, const elements &properties = {})
{
    std::string bytes = segment(name, 0);
    for (const auto &[field, value] : fields)
        bytes += element(field, value);
    bytes += segment("properties", 1);
    for (const auto &[property, value] : properties)
        bytes += element(property, value);
    return bytes;
}

} // namespace zebtest
