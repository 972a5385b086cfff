/* Formatted appends to a growing string, against the C library's own formatting. */
#include "fuzz.h"

#include "ezebutil.h"

#include <cstring>
#include <string>

namespace
{

template <typename... Values>
void append(char **text, std::string &model, const char *format, Values... values)
{
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
#pragma GCC diagnostic ignored "-Wformat-security"
    const int length = snprintf(nullptr, 0, format, values...);
    std::string piece(static_cast<size_t>(length) + 1, '\0');
    snprintf(piece.data(), piece.size(), format, values...);
    piece.pop_back();
    model += piece;
    FUZZ_CHECK(ezeb_dsprintf(text, format, values...) == static_cast<int32_t>(model.size()));
#pragma GCC diagnostic pop
    FUZZ_CHECK(strlen(*text) == strlen(model.c_str()));
    FUZZ_CHECK(memcmp(*text, model.data(), model.size() + 1) == 0);
}

void step(char **text, std::string &model, fuzz::cursor &input)
{
    const uint8_t what = input.byte();
    const uint8_t number = input.byte();
    std::string word(input.text(number));
    word.resize(strlen(word.c_str()));
    const int signed_number = (number - 128) * 16777216;
    switch (what % 8) {
    case 0:
        return append(text, model, "%s", word.c_str());
    case 1:
        return append(text, model, "%d:%s\r\n", signed_number, word.c_str());
    case 2:
        return append(text, model, "%*s|", static_cast<int>(number), word.c_str());
    case 3:
        return append(text, model, "%.*s%%", static_cast<int>(what), word.c_str());
    case 4:
        return append(text, model, "%02x %lld", static_cast<unsigned>(number),
                      static_cast<long long>(what) << 40);
    case 5:
        return append(text, model, "%c", 'a' + number % 26);
    case 6:
        return append(text, model, "%-300s.", word.c_str());
    default:
        return append(text, model, "plain");
    }
}

} // namespace

void fuzz_read(std::string_view input)
{
    char *text = nullptr;
    ezeb_dsprintf(&text, "%.*s", static_cast<int>(input.size()), input.data());
    ezeb_dsprintf(&text, "%d", static_cast<int>(input.size()));
    ezeb_free(text);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    fuzz::cursor input({reinterpret_cast<const char *>(data), size});
    char *text = nullptr;
    std::string model;
    while (!input.empty())
        step(&text, model, input);
    ezeb_free(text);
    return 0;
}
