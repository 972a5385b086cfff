/* The scanners of numbers, against slow ones that follow the rule digit by digit. */
#include "fuzz.h"

#include "ezebutil.h"

#include <cstring>
#include <string>

namespace
{

bool is_blank(char c)
{
    return c == ' ' || (c >= '\t' && c <= '\r');
}

int digit_of(char c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'z')
        return c - 'a' + 10;
    return c >= 'A' && c <= 'Z' ? c - 'A' + 10 : 99;
}

struct scanned {
    int32_t value = 0;
    size_t used = 0; /* 0: no number */
};

bool is_hex(std::string_view digits)
{
    return digits.size() > 2 && digits[0] == '0' && (digits[1] == 'x' || digits[1] == 'X') &&
           digit_of(digits[2]) < 16;
}

/* Blanks, sign, digits of BASE; 0 chooses it by what the digits begin with. Kept within 64 bits, then cut
 * to 32. */
scanned scan(std::string_view text, int base)
{
    size_t at = 0;
    while (at < text.size() && is_blank(text[at]))
        at++;
    const bool negative = at < text.size() && text[at] == '-';
    if (at < text.size() && (text[at] == '-' || text[at] == '+'))
        at++;
    if (base == 0) {
        const bool hex = is_hex(text.substr(at));
        base = hex ? 16 : at < text.size() && text[at] == '0' ? 8 : 10;
        at += hex ? 2 : 0;
    }
    const size_t first = at;
    const uint64_t most = negative ? uint64_t{1} << 63 : INT64_MAX;
    uint64_t value = 0;
    for (; at < text.size() && digit_of(text[at]) < base; at++)
        if (__builtin_mul_overflow(value, base, &value) ||
            __builtin_add_overflow(value, digit_of(text[at]), &value))
            value = UINT64_MAX;
    if (at == first)
        return {};
    value = value > most ? most : value;
    return {static_cast<int32_t>(static_cast<uint32_t>(negative ? 0 - value : value)), at};
}

int64_t first_run(std::string_view text)
{
    const size_t start = text.find_first_of("0123456789");
    if (start == std::string_view::npos)
        return 0;
    uint64_t value = 0;
    for (size_t at = start; at < text.size() && text[at] >= '0' && text[at] <= '9'; at++)
        value = value * 10 + static_cast<uint64_t>(text[at] - '0');
    return static_cast<int64_t>(start > 0 && text[start - 1] == '-' ? 0 - value : value);
}

void check_text(int64_t value)
{
    char text[EZEB_INT_TEXT];
    char *end = ezeb_int2str(text, value);
    FUZZ_CHECK(*end == '\0' && end == text + strlen(text));
    FUZZ_CHECK(text == (value == INT64_MIN ? "-(" : std::to_string(value)));
}

} // namespace

void fuzz_read(std::string_view input)
{
    const std::string text(input);
    int32_t number = 0;
    ezeb_str2int(text.c_str(), &number);
    ezeb_decimal(text.c_str());
    ezeb_str2ll(text.c_str());
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    std::string text(reinterpret_cast<const char *>(data), size);
    int64_t value = 0;
    memcpy(&value, text.data(), text.size() < sizeof(value) ? text.size() : sizeof(value));
    check_text(value);
    text.resize(strlen(text.c_str()));
    const scanned any = scan(text, 0);
    int32_t number = -1;
    FUZZ_CHECK(ezeb_str2int(text.c_str(), &number) == (!text.empty() && any.used == text.size()));
    FUZZ_CHECK(number == any.value);
    FUZZ_CHECK(ezeb_decimal(text.c_str()) == scan(text, 10).value);
    FUZZ_CHECK(ezeb_str2ll(text.c_str()) == first_run(text));
    return 0;
}
