/* Address lists as they travel, written and read by hand: never by the code under test. */
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace addresslist
{

inline const std::string signature("\x00\xA3\x7C\x08\xE7\x78\xEE\x24\x5F\xD3\xB6\x4E", 12);

inline std::string number16(size_t value)
{
    return {static_cast<char>(value >> 8), static_cast<char>(value)};
}

inline std::string segment(const std::string &name, char depth = 0)
{
    return std::string(1, '\1') + number16(name.size() + 1) + name + '\0' + depth;
}

inline std::string element(const std::string &name, const std::string &value)
{
    return std::string(1, '\2') + number16(name.size()) + name + '\0' + number16(value.size()) + value + '\0';
}

inline std::string number64(uint64_t value)
{
    std::string octets;
    for (int shift = 56; shift >= 0; shift -= 8)
        octets.push_back(static_cast<char>(value >> shift));
    return octets;
}

/* Octets of an address. */
inline std::string octets(uint64_t connection, uint64_t serial, uint64_t incarnation = 77,
                          const std::string &node = "node1")
{
    return '\1' + number64(incarnation) + number64(connection) + number64(serial) + node;
}

/* A list of destinations as a client echoes them. */
inline std::string destinations(const std::vector<std::string> &addresses)
{
    std::string list = signature;
    for (size_t i = 0; i < addresses.size(); i++)
        list += segment("dstAddr" + std::to_string(i)) + element("hostname", "node1") +
                element("address", addresses[i]) + segment("properties", 1) + element("p", "v");
    return list;
}

/* One address of a list that was read: elements by name, properties as "properties/NAME". */
struct entry {
    std::string role;
    std::map<std::string, std::string> elements;

    std::string at(const std::string &name) const
    {
        const auto found = elements.find(name);
        return found != elements.end() ? found->second : "ABSENT";
    }
};

/* Reads a list; a list that is none gives one entry with the role "BROKEN". */
inline std::vector<entry> read(std::string_view list)
{
    const std::vector<entry> broken = {{"BROKEN", {}}};
    if (list.empty())
        return {};
    if (list.substr(0, signature.size()) != signature)
        return broken;
    list.remove_prefix(signature.size());
    std::vector<entry> result;
    std::string prefix;
    const auto text = [&list](size_t length) {
        const std::string value(list.substr(0, length));
        list.remove_prefix(length < list.size() ? length + 1 : list.size());
        return value;
    };
    const auto length = [&list] {
        const size_t value = list.size() < 2 ? 0
                                             : static_cast<unsigned char>(list[0]) * 256U +
                                                   static_cast<unsigned char>(list[1]);
        list.remove_prefix(list.size() < 2 ? list.size() : 2);
        return value;
    };
    while (!list.empty()) {
        const char tag = list[0];
        list.remove_prefix(1);
        const std::string name = text(tag == 1 ? length() - 1 : length());
        if (tag == 1) {
            const bool top = !list.empty() && list[0] == 0;
            list.remove_prefix(list.empty() ? 0 : 1);
            if (top)
                result.push_back({name, {}});
            prefix = top ? "" : name + "/";
        } else if (tag == 2 && !result.empty()) {
            result.back().elements[prefix + name] = text(length());
        } else {
            return broken;
        }
    }
    return result;
}

} // namespace addresslist
