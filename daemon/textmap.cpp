#include "textmap.h"

#include <bit>
#include <cstring>
#include <endian.h>
#include <random>

namespace zebd
{

hash_key random_hash_key()
{
    std::random_device source;
    const auto draw = [&source] { return uint64_t{source()} << 32 | source(); };
    return {draw(), draw()};
}

/* Up to eight octets, the first one lowest. */
static uint64_t load(std::string_view octets)
{
    uint64_t value = 0;
    if (octets.size() == sizeof(value)) {
        memcpy(&value, octets.data(), sizeof(value));
        return le64toh(value);
    }
    for (size_t i = octets.size(); i-- > 0;)
        value = value << 8 | static_cast<unsigned char>(octets[i]);
    return value;
}

struct hash_state {
    uint64_t a, b, c, d;
};

static void mix(hash_state &s, int rounds)
{
    for (; rounds > 0; rounds--) {
        s.a += s.b;
        s.b = std::rotl(s.b, 13) ^ s.a;
        s.a = std::rotl(s.a, 32);
        s.c += s.d;
        s.d = std::rotl(s.d, 16) ^ s.c;
        s.a += s.d;
        s.d = std::rotl(s.d, 21) ^ s.a;
        s.c += s.b;
        s.b = std::rotl(s.b, 17) ^ s.c;
        s.c = std::rotl(s.c, 32);
    }
}

static void absorb(hash_state &s, uint64_t word)
{
    s.d ^= word;
    mix(s, 2);
    s.a ^= word;
}

uint64_t keyed_hash(const hash_key &key, std::string_view text)
{
    hash_state s{key.low ^ 0x736f6d6570736575, key.high ^ 0x646f72616e646f6d, key.low ^ 0x6c7967656e657261,
                 key.high ^ 0x7465646279746573};
    const uint64_t length = text.size();
    for (; text.size() >= 8; text.remove_prefix(8))
        absorb(s, load(text.substr(0, 8)));
    absorb(s, length << 56 | load(text));
    s.c ^= 0xff;
    mix(s, 4);
    return s.a ^ s.b ^ s.c ^ s.d;
}

size_t text_hash::operator()(std::string_view text) const
{
    static const hash_key key = random_hash_key();
    return keyed_hash(key, text);
}

} // namespace zebd
