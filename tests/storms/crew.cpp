#include "crew.h"

#include <cstdio>
#include <cstdlib>
#include <sstream>

namespace storms
{

uint64_t report::sum(uint64_t sequence_report::*field) const
{
    uint64_t total = 0;
    for (const auto &[name, one] : from)
        total += one.*field;
    return total;
}

void member::join(const std::string &ownName, const std::string &mode, const process::environment &env,
                  bool records)
{
    name = ownName;
    process::arguments command = {ZEB_STORM_CLIENT, name, mode};
    if (records)
        command.emplace_back("record");
    process::start(*this, command, env);
    EXPECT_EQ(hear(""), "ready");
}

void member::publish(uint64_t count)
{
    tell({"publish", std::to_string(count)});
    const std::string answer = hear("published ");
    published = strtoull(answer.c_str() + answer.find(' '), nullptr, 10);
}

void member::publish_every(int microseconds)
{
    tell({"every", std::to_string(microseconds)});
    EXPECT_EQ(hear("every"), "every");
}

void member::churn(bool wanted)
{
    tell({"churn", wanted ? "1" : "0"});
    EXPECT_EQ(hear("churn"), "churn");
}

report member::ask()
{
    tell({"report"});
    std::istringstream line(hear("report "));
    report answer;
    std::string word;
    line >> word >> answer.rounds;
    while (line >> word) {
        sequence_report one;
        const size_t end = word.find(':');
        if (sscanf(word.c_str() + end, ":%lu:%lu:%lu:%lu:%lu", &one.last, &one.count, &one.back, &one.gaps,
                   &one.damaged) == 5)
            answer.from[word.substr(0, end)] = one;
    }
    return answer;
}

int member::leave()
{
    return process::finish(*this);
}

/* Whether the last that each of PUBLISHERS published has arrived at RECEIVER. */
static bool is_up_to_date(member &receiver, const std::vector<member *> &publishers)
{
    const report answer = receiver.ask();
    for (const member *each : publishers) {
        const auto at = answer.from.find(each->name);
        if (at == answer.from.end() || at->second.last + 1 != each->published)
            return false;
    }
    return true;
}

bool all_arrived(const std::vector<member *> &publishers, const std::vector<member *> &receivers,
                 zebtest::milliseconds limit)
{
    for (member *each : receivers)
        if (!zebtest::eventually([&] { return is_up_to_date(*each, publishers); }, limit))
            return false;
    return true;
}

bool settle(const std::vector<member *> &publishers, const std::vector<member *> &receivers)
{
    return zebtest::eventually(
        [&] {
            for (member *each : publishers)
                each->publish(1);
            return all_arrived(publishers, receivers, zebtest::milliseconds{200});
        },
        zebtest::milliseconds{90000});
}

std::vector<member *> all_of(const crew &members)
{
    std::vector<member *> all;
    for (const auto &each : members)
        all.push_back(each.get());
    return all;
}

} // namespace storms
