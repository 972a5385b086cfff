#include "text.h"

#include "utf8.h"

#include <ctime>

namespace tool
{

/* ---- UTF-8 ---- */

bool is_utf8(std::string_view text)
{
    while (!text.empty()) {
        const size_t length = zebd::character_length(text);
        if (length == 0)
            return false;
        text.remove_prefix(length);
    }
    return true;
}

std::string_view first_characters(std::string_view text, size_t count)
{
    size_t end = 0;
    while (count-- > 0 && end < text.size()) {
        const size_t length = zebd::character_length(text.substr(end));
        if (length == 0 || static_cast<unsigned char>(text[end]) < 0x20)
            break;
        end += length;
    }
    return text.substr(0, end);
}

size_t character_count(std::string_view text)
{
    size_t count = 0;
    while (!text.empty()) {
        const size_t length = zebd::character_length(text);
        text.remove_prefix(length == 0 ? 1 : length);
        count++;
    }
    return count;
}

static void append_escaped(std::string &out, unsigned char octet)
{
    static constexpr char hex[] = "0123456789abcdef";
    out += {'\\', 'x', hex[octet / 16], hex[octet % 16]};
}

std::string escaped(std::string_view text)
{
    std::string result;
    while (!text.empty()) {
        const size_t length = zebd::character_length(text);
        const auto first = static_cast<unsigned char>(text[0]);
        if (first == '\\')
            result += "\\\\";
        else if (first == '\n')
            result += "\\n";
        else if (length == 0 || first < 0x20 || first == 0x7F)
            append_escaped(result, first);
        else
            result += text.substr(0, length);
        text.remove_prefix(length == 0 ? 1 : length);
    }
    return result;
}

/* ---- Base64 ---- */

static constexpr std::string_view digits = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

std::string base64(std::string_view octets)
{
    std::string result;
    for (size_t i = 0; i < octets.size(); i += 3) {
        unsigned group = 0;
        for (size_t k = 0; k < 3; k++)
            group = group << 8U | (i + k < octets.size() ? static_cast<unsigned char>(octets[i + k]) : 0U);
        for (size_t k = 0; k < 4; k++)
            result.push_back(i + k > octets.size() ? '=' : digits[group >> (18U - 6U * k) & 63U]);
    }
    return result;
}

std::optional<std::string> from_base64(std::string_view text)
{
    if (text.size() % 4 != 0)
        return std::nullopt;
    size_t padding = 0;
    while (padding < 2 && !text.empty() && text.back() == '=') {
        text.remove_suffix(1);
        padding++;
    }
    std::string result;
    unsigned group = 0, bits = 0;
    for (const char c : text) {
        const size_t digit = digits.find(c);
        if (digit == std::string_view::npos)
            return std::nullopt;
        group = (group << 6U | static_cast<unsigned>(digit)) & 0xFFFFU;
        bits += 6;
        if (bits >= 8) {
            bits -= 8;
            result.push_back(static_cast<char>(group >> bits & 0xFFU));
        }
    }
    return result;
}

/* ---- Words ---- */

bool is_one_line(std::string_view text)
{
    return text.find_first_of("\r\n") == std::string_view::npos;
}

std::string time_text(int64_t seconds)
{
    const auto when = static_cast<time_t>(seconds);
    tm parts{};
    char text[32] = "";
    gmtime_r(&when, &parts);
    strftime(text, sizeof(text), "%Y-%m-%dT%H:%M:%SZ", &parts);
    return text;
}

std::string counted(uint64_t number, std::string_view thing)
{
    return std::to_string(number) + " " + std::string(thing) + (number == 1 ? "" : "s");
}

std::string replaced(std::string text, std::string_view old, std::string_view fresh)
{
    for (size_t at = text.find(old); at != std::string::npos; at = text.find(old, at + fresh.size()))
        text.replace(at, old.size(), fresh);
    return text;
}

} // namespace tool
