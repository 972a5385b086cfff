/* Address lists of an event: whatever they hold can be shown and copied, and what is written as destinations
 * comes back as the same destinations. Inputs stand for what follows the signature of a body block, unless
 * they begin with one. */
#include "fuzz.h"

#include "inspect.h"
#include "slow_decoder.h"

#include "ezeblogicaladdr.h"
#include "ezebutil.h"

#include <cstring>
#include <memory>

namespace
{

struct lists {
    zeb_logicaladdr *from = nullptr;
    zeb_laddrlist *to = nullptr, *members = nullptr, *added = nullptr, *removed = nullptr;

    explicit lists(std::string_view body)
    {
        const auto copy = std::make_unique<char[]>(body.size());
        memcpy(copy.get(), body.data(), body.size());
        ezeb_laddrlist_fromBody(&from, &to, &members, &added, &removed, copy.get(),
                                static_cast<int32_t>(body.size()));
    }
    ~lists()
    {
        ezeb_logicaladdr_destroy(&from);
        for (zeb_laddrlist **list : {&to, &members, &added, &removed})
            ezeb_laddrlist_destroy(list);
    }
    lists(const lists &) = delete;
    lists &operator=(const lists &) = delete;
};

/* Everything that is read twice must be the same twice. */
void check_copy(const zeb_laddrlist *list)
{
    zeb_laddrlist *copy = ezeb_laddrlist_dup(list);
    FUZZ_CHECK(ezeb_laddrlist_count(copy) == ezeb_laddrlist_count(list));
    FUZZ_CHECK(fuzz::inspect(copy) == fuzz::inspect(list));
    ezeb_laddrlist_destroy(&copy);
}

void check_journey(const zeb_laddrlist *list)
{
    int32_t length = 0;
    auto *bytes = static_cast<char *>(ezeb_laddrlist_toBody(list, &length));
    if (bytes == nullptr) {
        FUZZ_CHECK(ezeb_laddrlist_count(list) == 0);
        return;
    }
    const lists back({bytes, static_cast<size_t>(length)});
    FUZZ_CHECK(ezeb_laddrlist_count(back.to) == ezeb_laddrlist_count(list));
    FUZZ_CHECK(fuzz::inspect(back.to) == fuzz::inspect(list));
    ezeb_free(bytes);
}

} // namespace

void fuzz_read(std::string_view input)
{
    const lists read(unit::with_signature(input));
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const lists read(unit::with_signature({reinterpret_cast<const char *>(data), size}));
    fuzz::inspect(read.from);
    for (const zeb_laddrlist *list : {read.to, read.members, read.added, read.removed}) {
        if (list == nullptr)
            continue;
        check_copy(list);
        check_journey(list);
    }
    return 0;
}
