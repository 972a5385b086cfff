/* The buffer that turns a stream into lines and runs of bytes: it must give the same whatever pieces the
 * stream comes in, which a walk over the whole text gives. The first byte is the seed for the pieces and for
 * what is asked next. */
#include "fuzz.h"

#include "ezebsbuf.h"

#include <cstring>
#include <string>

namespace
{

enum operation { LINE, BYTES, SKIP };

operation choose(fuzz::row &choice, size_t &length)
{
    const uint32_t number = choice.next(8);
    length = choice.next(number == 7 ? 5000 : 40);
    return number < 5 ? LINE : number == 5 ? SKIP : BYTES;
}

/* The next line of REST without its end, as the format has it; false when REST has no line feed. */
bool take_line(std::string_view &rest, std::string_view &line)
{
    const size_t feed = rest.find('\n');
    if (feed == std::string_view::npos)
        return false;
    line = rest.substr(0, feed);
    if (!line.empty() && line.back() == '\r')
        line.remove_suffix(1);
    rest.remove_prefix(feed + 1);
    return true;
}

bool check_line(ezeb_sb *sb, std::string_view &rest)
{
    std::string_view expected;
    char *line = nullptr;
    const bool there = take_line(rest, expected);
    FUZZ_CHECK((ezeb_sb_gets(sb, &line) != 0) == there);
    if (there)
        FUZZ_CHECK(memcmp(line, expected.data(), expected.size()) == 0 && line[expected.size()] == '\0');
    return there;
}

bool check_bytes(ezeb_sb *sb, std::string_view &rest, size_t length)
{
    std::string got(length, '?');
    const bool there = rest.size() >= length;
    FUZZ_CHECK((ezeb_sb_readbytes(sb, got.data(), length) != 0) == there);
    if (!there)
        return false;
    FUZZ_CHECK(got == rest.substr(0, length));
    rest.remove_prefix(length);
    return true;
}

bool check_skip(ezeb_sb *sb, std::string_view &rest, size_t length)
{
    const bool there = rest.size() >= length;
    FUZZ_CHECK((ezeb_sb_skip(sb, length) != 0) == there);
    if (there)
        rest.remove_prefix(length);
    return there;
}

bool step(ezeb_sb *sb, std::string_view &rest, fuzz::row &choice)
{
    size_t length = 0;
    switch (choose(choice, length)) {
    case LINE:
        return check_line(sb, rest);
    case BYTES:
        return check_bytes(sb, rest, length);
    default:
        return check_skip(sb, rest, length);
    }
}

} // namespace

void fuzz_read(std::string_view input)
{
    const uint8_t seed = input.empty() ? 0 : static_cast<uint8_t>(input.front());
    input.remove_prefix(input.empty() ? 0 : 1);
    fuzz::serve(input, seed);
    ezeb_sb *sb = ezeb_sb_create(fuzz::descriptor);
    char *line = nullptr;
    while (ezeb_sb_gets(sb, &line) && ezeb_sb_skip(sb, seed % 5U))
        ;
    ezeb_sb_free(sb);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    fuzz::cursor input({reinterpret_cast<const char *>(data), size});
    const uint8_t seed = input.byte();
    std::string_view rest = input.all();
    fuzz::serve(rest, seed);
    fuzz::row choice(seed + 77U);
    ezeb_sb *sb = ezeb_sb_create(fuzz::descriptor);
    while (step(sb, rest, choice))
        ;
    ezeb_sb_free(sb);
    return 0;
}
