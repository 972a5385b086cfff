/* A client of the daemon as the tests drive it: lines go in, lines are waited for. */
#pragma once

#include "process.h"

#include <gtest/gtest.h>
#include <string>
#include <unistd.h>
#include <vector>

struct actor : process::running {
    /* Tells the client to do something: a line of fields. */
    void tell(const std::vector<std::string> &fields) const
    {
        std::string line;
        for (const std::string &field : fields)
            line += (line.empty() ? "" : "\t") + field;
        line += "\n";
        EXPECT_EQ(write(in, line.data(), line.size()), static_cast<ssize_t>(line.size()));
    }

    /* Waits for a line that begins with BEGINNING, and takes everything up to its end away. Returns it, or
     * what was there instead. */
    std::string hear(const std::string &beginning)
    {
        size_t at = find_line(beginning);
        while (at == std::string::npos || outText.find('\n', at) == std::string::npos) {
            const size_t had = outText.size();
            if (!process::wait_for_more(*this) || (out < 0 && outText.size() == had))
                return "missing '" + beginning + "' in [" + outText.substr(0, 2000) + "] " + errText;
            at = find_line(beginning);
        }
        const size_t end = outText.find('\n', at);
        std::string line = outText.substr(at, end - at);
        outText.erase(0, end + 1);
        return line;
    }

    size_t find_line(const std::string &beginning) const
    {
        for (size_t at = 0; at < outText.size();) {
            if (outText.compare(at, beginning.size(), beginning) == 0)
                return at;
            const size_t end = outText.find('\n', at);
            if (end == std::string::npos)
                break;
            at = end + 1;
        }
        return std::string::npos;
    }

    void subscribe(const std::string &name, const std::string &subscription,
                   const std::string &interest = "-", bool deltas = false)
    {
        tell({"sub", name, subscription, interest, deltas ? "true" : "false", "name=" + name, "group=g"});
        EXPECT_EQ(hear(name + " "), name + " subscribed");
    }
};
