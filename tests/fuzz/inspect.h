/* Everything that an application can ask a received notification, as one text. */
#ifndef ZEB_TESTS_FUZZ_INSPECT_H
#define ZEB_TESTS_FUZZ_INSPECT_H

#include "zeb.h"

#include <string>

namespace fuzz
{

std::string inspect(zeb_notification *n);
std::string inspect(const zeb_logicaladdr *address);
std::string inspect(const zeb_laddrlist *list);

} // namespace fuzz

#endif
