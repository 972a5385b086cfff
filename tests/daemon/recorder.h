/* An outlet that writes down what the engine hands out, for tests without sockets. */
#pragma once

#include "engine.h"
#include "session.h"

#include <map>
#include <string>
#include <vector>

/* Keeps the octets sent to each connection, and says how often an event was encoded. */
struct recorder {
    std::map<zebd::connection_id, std::vector<std::string>> sent;
    std::vector<std::shared_ptr<const zebd::encoded_event>> encodings; /* of the events sent, in order */
    std::vector<uint32_t> wakes;

    static bool take(void *context, zebd::connection_id to,
                     zebd::outgoing item) // NOLINT(performance-unnecessary-value-param)
    {
        auto &self = *static_cast<recorder *>(context);
        std::string text;
        for (const std::string_view piece : zebd::outgoing_bytes(item))
            text += piece;
        self.sent[to].push_back(text);
        if (item.shared != nullptr)
            self.encodings.push_back(item.shared);
        return true;
    }

    static void wake(void *context, uint32_t milliseconds)
    {
        static_cast<recorder *>(context)->wakes.push_back(milliseconds);
    }

    std::vector<std::string> drain(zebd::connection_id from)
    {
        return std::exchange(sent[from], {});
    }
};

inline int64_t fixedClock()
{
    return 2222;
}

inline zebd::engine engineWith(recorder &out)
{
    zebd::engine engine;
    engine.out = {&out, recorder::take, recorder::wake};
    engine.now = fixedClock;
    engine.identity = {"1.2.3", "node1", "east", 77};
    return engine;
}
