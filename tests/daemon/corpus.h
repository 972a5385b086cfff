/* Reads the corpus of subscription texts for tests; its format is described at the top of the file itself. */
#pragma once

#include "subscription.h"

#include <map>
#include <memory>
#include <string>
#include <vector>

namespace corpus
{

/* An event or address of the corpus; the subject borrows from the strings beside it. */
struct thing {
    zebd::subject_kind kind = zebd::subject_kind::event;
    std::vector<std::pair<std::string, std::string>> fields, properties;
    std::vector<zebd::property_view> views;
    zebd::subject what;
};

struct entry {
    int line = 0;
    std::vector<std::string> columns; /* the first one says what kind of line it is */
};

struct file {
    std::map<std::string, std::unique_ptr<thing>> things;
    std::vector<entry> entries; /* all but events and addresses */
};

/* Loads tests/corpus/subscriptions.txt. An unreadable file gives an empty result, which no test accepts. */
file load();

} // namespace corpus
