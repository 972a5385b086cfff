/* UTF-8. */
#pragma once

#include <cstddef>
#include <string_view>

namespace zebd
{

/* Length of the UTF-8 character that begins at TEXT, 0 when there is none. Overlong forms, surrogates and
 * what lies above the last code point are none. */
size_t character_length(std::string_view text);

} // namespace zebd
