/* Everything a daemon may send after the handshake: request lines, status replies, events for subscribers of
 * three kinds and for none, streams. The same comes out whatever pieces it came in. The first byte is the
 * seed for the pieces.
 *
 * The receive thread's own functions are under test, so its source is part of this program. */
#include "../../src/zebrecvthread.cpp" // NOLINT(bugprone-suspicious-include)

#include "fuzz.h"
#include "inspect.h"

#include "bare_subscriber.h"

#include "ezebqueue.h"
#include "ezebstream.h"

#include <memory>

namespace
{

constexpr int32_t subscribers =
    3; /* an ordinary one, a member of a group, one whose creation is not answered */

/* A runtime without threads and without a connection. */
struct world {
    std::unique_ptr<ezeb_runtime> rt = std::make_unique<ezeb_runtime>();
    zeb_subscriber *subs[subscribers] = {};

    world()
    {
        ezeb_mutex_init(&rt->regmutex);
        ezeb_sendthread_prepare(&rt->send);
        ezeb_registry_prepare(rt.get());
        for (zeb_subscriber *&sub : subs) {
            const int32_t id = ezeb_register_subscriber(rt.get());
            sub = unit::bareSubscriber(id, id == 2 ? "" : nullptr);
            sub->registration = id == 3 ? EZEB_PENDING : EZEB_SETTLED;
            ezeb_activate_subscriber(rt.get(), sub);
        }
    }
    ~world()
    {
        ezeb_registry_closeall(rt.get());
        ezeb_registry_discard(rt.get());
        ezeb_sendthread_discard(&rt->send);
        ezeb_mutex_destroy(&rt->regmutex);
    }
    world(const world &) = delete;
    world &operator=(const world &) = delete;
};

void read_all(const world &w, std::string_view bytes, uint32_t seed)
{
    fuzz::serve(bytes, seed);
    ezeb_sb *sb = ezeb_sb_create(fuzz::descriptor);
    read_messages(w.rt.get(), sb);
    ezeb_sb_free(sb);
}

std::string text_of_stream(zeb_instream *in)
{
    std::string text;
    char piece[7];
    while (ezeb_queue_length(in->chunks) > 0 || in->current != nullptr) {
        const int32_t n = ezeb_instream_read(in, piece, sizeof(piece));
        if (n <= 0)
            break;
        text.append(piece, static_cast<size_t>(n));
        if (n < static_cast<int32_t>(sizeof(piece)) && ezeb_queue_length(in->chunks) == 0)
            break;
    }
    return text;
}

std::string received_by(zeb_subscriber *sub)
{
    std::string text;
    zeb_notification *n;
    while ((n = ezeb_subscriber_receive(sub, 0, 0)) != nullptr) {
        text += fuzz::inspect(n);
        zeb_instream *in = ezeb_notification_getInputStream(n);
        text += in != nullptr ? text_of_stream(in) : "no stream|";
        ezeb_instream_close(&in);
        ezeb_subscriber_relinquish(sub, n);
    }
    char *message = nullptr;
    text += std::to_string(ezeb_subscriber_status(sub, &message));
    text += message != nullptr ? message : "<null>";
    ezeb_free(message);
    return text;
}

std::string received(std::string_view bytes, uint32_t seed)
{
    const world w;
    read_all(w, bytes, seed);
    std::string text;
    for (zeb_subscriber *sub : w.subs)
        text += received_by(sub) + "\n";
    return text;
}

} // namespace

void fuzz_read(std::string_view input)
{
    const world w;
    fuzz::read_in_pieces(input, [&](std::string_view bytes, uint32_t seed) { read_all(w, bytes, seed); });
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    fuzz::check_pieces({reinterpret_cast<const char *>(data), size}, received);
    return 0;
}
