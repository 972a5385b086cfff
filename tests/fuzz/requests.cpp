/* Everything that a client may send to zebd, through a session and the engine behind it: whatever pieces it
 * comes in, the same goes out. The first byte is the seed for the pieces. */
#include "fuzz.h"

#include "session.h"

#include <map>
#include <string>

namespace
{

int64_t clock_at_rest()
{
    return 1000;
}

/* Two clients: the one that sends the input, and one that has subscribed to everything. */
struct host {
    zebd::engine routing;
    std::map<zebd::connection_id, std::string> sent;
    bool wake = false;

    host()
    {
        routing.out.context = this;
        routing.out.send = [](void *context, zebd::connection_id to, zebd::outgoing item) {
            for (const std::string_view piece : zebd::outgoing_bytes(item))
                static_cast<host *>(context)->sent[to] += piece;
            return true;
        };
        routing.out.wake = [](void *context, uint32_t) { static_cast<host *>(context)->wake = true; };
        routing.now = clock_at_rest;
        routing.identity = {"1", "node", "instance", 7};
        zebd::subscribe_request everything;
        everything.id = 1;
        everything.interest = "";
        everything.component = "watcher";
        std::string why;
        FUZZ_CHECK(zebd::engine_up(routing, 2, std::move(everything), why));
    }
};

zebd::message_limits small_limits()
{
    zebd::message_limits limits;
    limits.line = 2000;
    limits.header = 6000;
    limits.properties = 20;
    limits.body = 5000;
    limits.addresses = 3000;
    return limits;
}

std::string outcome(std::string_view bytes, uint32_t seed)
{
    host h;
    zebd::session session;
    session.id = 1;
    session.reader.limits = small_limits();
    fuzz::row pieces(seed);
    std::string why;
    bool goes_on = true;
    while (goes_on && !bytes.empty()) {
        const size_t n = seed == 0 ? bytes.size() : 1 + pieces.next(seed % 2 == 0 ? 9 : 500);
        goes_on = zebd::session_take(session, h.routing, bytes.substr(0, n), why);
        bytes.remove_prefix(std::min(n, bytes.size()));
    }
    if (h.wake)
        zebd::engine_flush(h.routing);
    zebd::engine_connection_gone(h.routing, 1);
    FUZZ_CHECK(goes_on || !why.empty());
    FUZZ_CHECK(why.find_first_of("\r\n") == std::string::npos);
    return h.sent[1] + "\n--\n" + h.sent[2] + "\n--\n" + why;
}

} // namespace

void fuzz_read(std::string_view input)
{
    fuzz::read_in_pieces(input, outcome);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    fuzz::check_pieces({reinterpret_cast<const char *>(data), size}, outcome);
    return 0;
}
