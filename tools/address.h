/* Addresses of subscribers as text. */
#pragma once

#include "json.h"

#include <string>
#include <zeb.h>

namespace tool
{

/* Component, host, instance, subscription and properties; what is absent is left out. */
json address_json(const zeb_logicaladdr *address);

/* "COMPONENT on HOST name=value ...", on one line. */
std::string address_text(const zeb_logicaladdr *address);

} // namespace tool
