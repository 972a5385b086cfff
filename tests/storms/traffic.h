/* What connections have carried, read back from their octets. */
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace storms
{

/* A numbered notification of a storm's client. */
struct numbered {
    std::string name; /* of its publisher */
    uint64_t number = 0;
    uint64_t end = 0; /* octets of the connection up to its end */
};

/* The numbered notifications that are there as a whole in what one side of a connection said. */
std::vector<numbered> notifications_in(std::string_view octets);

/* What the kernel took on one connection, as the client recorded it. */
struct taken {
    uint16_t port = 0;
    std::string octets;
};
std::vector<taken> read_taken(const std::string &path);

/* What arrived at a client, in order: publisher and number. */
std::vector<numbered> read_arrived(const std::string &path);

} // namespace storms
