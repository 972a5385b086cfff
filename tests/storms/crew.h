/* The clients of a storm, each a process of its own. */
#pragma once

#include "actor.h"
#include "patience.h"

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace storms
{

struct sequence_report {
    uint64_t last = 0, count = 0, back = 0, gaps = 0, damaged = 0;
};

struct report {
    uint64_t rounds = 0;                         /* of churn */
    std::map<std::string, sequence_report> from; /* by publisher */

    [[nodiscard]] uint64_t sum(uint64_t sequence_report::*field) const;
};

struct member : actor {
    std::string name;
    uint64_t published = 0; /* as of the last answer */

    /* MODE as storm_client takes it. */
    void join(const std::string &ownName, const std::string &mode, const process::environment &env,
              bool records = false);

    void publish(uint64_t count);
    void publish_every(int microseconds);
    void churn(bool wanted);
    report ask();

    /* Ends the input, upon which it sends what is queued and ends. Its exit code. */
    int leave();
};

using crew = std::vector<std::unique_ptr<member>>;

/* Everyone who publishes publishes once more, until the last that each of them published has arrived at every
 * receiver: then all are connected and have subscribed. False when that takes too long. */
bool settle(const std::vector<member *> &publishers, const std::vector<member *> &receivers);

/* Waits until the last that each publisher published has arrived at every receiver. */
bool all_arrived(const std::vector<member *> &publishers, const std::vector<member *> &receivers,
                 zebtest::milliseconds limit = zebtest::milliseconds{60000});

std::vector<member *> all_of(const crew &members);

} // namespace storms
