/* Texts: UTF-8, escapes for the terminal, base64, one line or not. Plain functions on octets. */
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace tool
{

bool is_utf8(std::string_view text);

/* TEXT as one printable line: control characters and octets that are no UTF-8 become \xNN. */
std::string escaped(std::string_view text);

/* As much of TEXT as COUNT characters; control characters end it. */
std::string_view first_characters(std::string_view text, size_t count);

/* The characters of TEXT, for columns. */
size_t character_count(std::string_view text);

std::string base64(std::string_view octets);

/* Nothing when TEXT is no base64 with its padding. */
std::optional<std::string> from_base64(std::string_view text);

bool is_one_line(std::string_view text);

/* "2031-05-06T07:08:09Z". */
std::string time_text(int64_t seconds);

/* "1 line", "2 lines". */
std::string counted(uint64_t number, std::string_view thing);

/* TEXT with each OLD replaced by FRESH. */
std::string replaced(std::string text, std::string_view old, std::string_view fresh);

/* A null pointer is an empty text. */
inline std::string_view text_of(const char *text)
{
    return text == nullptr ? std::string_view() : std::string_view(text);
}

} // namespace tool
