/* Body blocks: the decoder finds what a slow one finds that only follows the format, and what it wrote again
 * is read alike. Inputs stand for what follows the signature, unless they begin with one. */
#include "fuzz.h"

#include "slow_decoder.h"

#include "ezebutil.h"

#include <cstring>
#include <memory>

namespace
{

/* In a block of its exact size, so that a read behind it is found out. */
zeb_bb *decode(std::string_view body)
{
    const auto copy = std::make_unique<char[]>(body.size());
    memcpy(copy.get(), body.data(), body.size());
    return ezeb_bb_body2block(copy.get(), static_cast<int32_t>(body.size()));
}

std::string shown(const zeb_bb *block)
{
    return block != nullptr ? unit::show(&block->segments) : "<null>";
}

std::string encode(const zeb_bb *block)
{
    int32_t length = 0;
    auto *bytes = static_cast<char *>(ezeb_bb_block2body(block, &length));
    FUZZ_CHECK(bytes != nullptr);
    std::string text(bytes, static_cast<size_t>(length));
    ezeb_free(bytes);
    return text;
}

void check_encoding(const zeb_bb *block, const std::string &found)
{
    const std::string once = encode(block);
    zeb_bb *again = decode(once);
    FUZZ_CHECK(shown(again) == found);
    FUZZ_CHECK(encode(again) == once);
    ezeb_bb_destroy(again);
    char *text = ezeb_bb_toString(block);
    ezeb_free(text);
}

} // namespace

void fuzz_read(std::string_view input)
{
    ezeb_bb_destroy(decode(unit::with_signature(input)));
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const std::string body = unit::with_signature({reinterpret_cast<const char *>(data), size});
    zeb_bb *block = decode(body);
    const std::string found = shown(block);
    FUZZ_CHECK(found == unit::slowly_decoded(body));
    if (block != nullptr)
        check_encoding(block, found);
    ezeb_bb_destroy(block);
    return 0;
}
