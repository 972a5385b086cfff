/* Tables keyed by texts that clients choose. Their hash is keyed with a secret of this process, so nobody can
 * prepare texts that all fall into one place. */
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <unordered_map>

namespace zebd
{

struct hash_key {
    uint64_t low = 0, high = 0;
};

hash_key random_hash_key();

/* SipHash-2-4 of TEXT. */
uint64_t keyed_hash(const hash_key &key, std::string_view text);

/* With the key of this process. */
struct text_hash {
    using is_transparent = void;
    size_t operator()(std::string_view text) const;
};

template <typename Value>
using text_map = std::unordered_map<std::string, Value, text_hash, std::equal_to<>>;

} // namespace zebd
