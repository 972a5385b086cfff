#include "utf8.h"

namespace zebd
{

size_t character_length(std::string_view text)
{
    const auto octet = [text](size_t i) {
        return i < text.size() ? static_cast<unsigned char>(text[i]) : 0U;
    };
    const auto follows = [&octet](size_t i) { return (octet(i) & 0xC0U) == 0x80U; };
    const unsigned first = octet(0), second = octet(1);
    if (first < 0x80)
        return text.empty() ? 0 : 1;
    if (first >= 0xC2 && first <= 0xDF)
        return follows(1) ? 2 : 0;
    if (first >= 0xE0 && first <= 0xEF) {
        const bool misplaced = (first == 0xE0 && second < 0xA0) || (first == 0xED && second > 0x9F);
        return follows(1) && follows(2) && !misplaced ? 3 : 0;
    }
    if (first >= 0xF0 && first <= 0xF4) {
        const bool misplaced = (first == 0xF0 && second < 0x90) || (first == 0xF4 && second > 0x8F);
        return follows(1) && follows(2) && follows(3) && !misplaced ? 4 : 0;
    }
    return 0;
}

} // namespace zebd
