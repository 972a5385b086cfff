/* Notifications as text: one readable line, or one JSON object on a line. */
#pragma once

#include <string>
#include <zeb.h>

namespace tool
{

/* "TIME TYPE COMPONENT name=value ... | BODY"; an absent component is "-". Control characters and octets that
 * are no UTF-8 are written as \xNN, so the line is one line whatever the notification holds. */
std::string readable_line(const zeb_notification *n);

/* All fields, properties in the order of their setting; the body is "body" where it is UTF-8, else
 * "bodyBase64". */
std::string json_line(const zeb_notification *n);

/* The body as it is. */
std::string body_of(const zeb_notification *n);

} // namespace tool
