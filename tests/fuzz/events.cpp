/* One event behind its request line. Whatever pieces it comes in, it is read alike; and what was read can be
 * shown and written again. The first byte is the seed for the pieces. */
#include "fuzz.h"

#include "inspect.h"

#include "ezebnotification.h"
#include "ezebruntime.h"

#include <memory>

namespace
{

ezeb_runtime &runtime()
{
    static const auto rt = std::make_unique<ezeb_runtime>();
    return *rt;
}

struct outcome {
    std::string shown;
    size_t unread = 0;

    bool operator==(const outcome &) const = default;
};

outcome read_event(std::string_view bytes, uint32_t seed, bool looked_at)
{
    fuzz::serve(bytes, seed);
    ezeb_sb *sb = ezeb_sb_create(fuzz::descriptor);
    int32_t *ids = nullptr;
    int32_t count = 0;
    zeb_notification *n = ezeb_notification_read(sb, &ids, &count);
    outcome result;
    if (n != nullptr && looked_at) {
        result.shown = fuzz::inspect(n);
        for (int32_t i = 0; i < count; i++)
            result.shown += std::to_string(ids[i]) + " ";
        result.unread = fuzz::unread() + (sb->end - sb->start);
        ezeb_sb *out = ezeb_sb_create(fuzz::descriptor);
        FUZZ_CHECK(ezeb_notification_write(&runtime(), n, out) == 1);
        ezeb_sb_free(out);
    }
    ezeb_free(ids);
    ezeb_notification_destroy(n);
    ezeb_sb_free(sb);
    return result;
}

} // namespace

void fuzz_read(std::string_view input)
{
    fuzz::read_in_pieces(input,
                         [](std::string_view bytes, uint32_t seed) { read_event(bytes, seed, false); });
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    fuzz::check_pieces({reinterpret_cast<const char *>(data), size},
                       [](std::string_view bytes, uint32_t seed) { return read_event(bytes, seed, true); });
    return 0;
}
