/* The addresses that are there, by what interests most often ask for: component and properties. It finds the
 * list of an interest without asking every address. One thread. */
#pragma once

#include "filing.h"
#include "subscriber.h"
#include "subscription.h"

#include <cstdint>
#include <set>
#include <vector>

namespace zebd
{

using serial_set = std::set<uint64_t>;

/* Who has a name, and with which value. */
struct name_places {
    serial_set present;
    text_map<serial_set> values;
};

struct address_index {
    name_places components;
    text_map<name_places> properties; /* by name */
};

void address_index_add(address_index &index, const subscriber &member);
void address_index_remove(address_index &index, const subscriber &member);

/* Sets CANDIDATES to those that may satisfy INTEREST, each once, oldest first. False when only asking all of
 * them helps. */
bool address_index_find(const address_index &index, const subscription &interest,
                        std::vector<uint64_t> &candidates);

} // namespace zebd
