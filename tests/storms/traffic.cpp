#include "traffic.h"

#include <cstdlib>
#include <fstream>

namespace storms
{

/* The number behind TITLE in the lines of HEAD; 0 without such a line. */
static size_t number_behind(std::string_view head, std::string_view title)
{
    const size_t at = head.find(title);
    if (at == std::string_view::npos)
        return 0;
    return strtoul(std::string(head.substr(at + title.size(), 20)).c_str(), nullptr, 10);
}

/* "NAME NUMBER " and more. */
static numbered read_body(std::string_view body, uint64_t end)
{
    const size_t space = body.find(' ');
    return {std::string(body.substr(0, space)),
            strtoull(std::string(body.substr(space + 1, 20)).c_str(), nullptr, 10), end};
}

std::vector<numbered> notifications_in(std::string_view octets)
{
    static constexpr std::string_view empty = "\r\n\r\n";
    std::vector<numbered> found;
    for (size_t at = 0;;) {
        const size_t headEnd = octets.find(empty, at);
        if (headEnd == std::string_view::npos)
            return found;
        const std::string_view head = octets.substr(at, headEnd + empty.size() - at);
        const size_t bodyAt = headEnd + empty.size();
        const size_t length = number_behind(head, "\r\nContent-Length: ");
        at = bodyAt + length + number_behind(head, "\r\nAddrList-Length: ");
        if (at > octets.size())
            return found;
        if (head.find("\r\neventType: /storm/number\r\n") != std::string_view::npos)
            found.push_back(read_body(octets.substr(bodyAt, length), at));
    }
}

std::vector<taken> read_taken(const std::string &path)
{
    std::vector<taken> all;
    std::ifstream in(path, std::ios::binary);
    taken one;
    size_t length = 0;
    while (in >> one.port >> length && in.ignore(1)) {
        one.octets.resize(length);
        in.read(one.octets.data(), static_cast<std::streamsize>(length));
        all.push_back(one);
    }
    return all;
}

std::vector<numbered> read_arrived(const std::string &path)
{
    std::vector<numbered> all;
    std::ifstream in(path);
    numbered one;
    while (in >> one.name >> one.number)
        all.push_back(one);
    return all;
}

} // namespace storms
