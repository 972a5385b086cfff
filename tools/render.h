/* Notifications as text: one readable line, one JSON object on a line, every field, or as a format says. */
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>
#include <zeb.h>

namespace tool
{

/* "TIME TYPE COMPONENT name=value ... | BODY"; an absent component is "-". The line is one line whatever the
 * notification holds. With BLOCKS a body that is a body block is shown decoded; likewise below. */
std::string readable_line(const zeb_notification *n, bool blocks);

/* All fields, properties in the order of their setting; the body is "body" where it is UTF-8, else
 * "bodyBase64". */
std::string json_line(const zeb_notification *n, bool blocks);

/* The library's text of many lines. */
std::string dump(zeb_notification *n, bool blocks);

/* A format taken apart: what stands between the placeholders, and they by name. */
struct format_part {
    bool placeholder = false;
    std::string text;
};
using format = std::vector<format_part>;

/* Nothing, with WHY said in words, when TEXT names a placeholder that there is not. */
std::optional<format> parse_format(std::string_view text, std::string &why);

std::string formatted(const format &parts, const zeb_notification *n, uint64_t number);

/* The body as it is. */
std::string body_of(const zeb_notification *n);

/* Name of a class as `sub --json` prints it. */
const char *class_name(uint32_t cls);

} // namespace tool
