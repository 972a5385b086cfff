/* Subscribing for a verb, and finding other subscribers through the membership. */
#pragma once

#include "host.h"

#include <memory>
#include <string>
#include <utility>
#include <vector>
#include <zeb.h>

namespace tool
{

using property_pairs = std::vector<std::pair<std::string, std::string>>;

/* Takes "name=value" texts apart. Usage, after a line was said, when one is none or cannot be sent. */
exit_code split_properties(const std::vector<std::string> &texts, property_pairs &pairs);

struct subscriber_deleter {
    void operator()(zeb_subscriber *subscriber) const
    {
        zeb_subscriber_close(subscriber);
    }
};
using subscriber_owner = std::unique_ptr<zeb_subscriber, subscriber_deleter>;

struct publisher_deleter {
    void operator()(zeb_publisher *publisher) const
    {
        zeb_publisher_close(publisher);
    }
};
using publisher_owner = std::unique_ptr<zeb_publisher, publisher_deleter>;

struct list_deleter {
    void operator()(zeb_laddrlist *list) const
    {
        zeb_laddrlist_destroy(&list);
    }
};
using address_list = std::unique_ptr<zeb_laddrlist, list_deleter>;

/* What a verb subscribes to; a null text is none. */
struct interest {
    const char *subscription = nullptr;
    const char *members = nullptr;
    const property_pairs *properties = nullptr;
    bool deltas = false;
};

/* Subscribes and waits for the daemon's word. On failure the code to end with, after a line was said. */
exit_code subscribe(const interest &wanted, const std::string &component, subscriber_owner &subscriber);

/* The next notification before the wall clock says UNTIL, or null: also when a signal came or nobody reads
 * standard output any more. */
zeb_notification *next_before(zeb_subscriber *subscriber, double until);

} // namespace tool
