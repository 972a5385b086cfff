/* The verbs. Each has its options, filled from the command line, and a function that does it and returns the
 * exit code of the run. */
#pragma once

#include "host.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace tool
{

struct pub_options {
    std::string type;
    std::optional<std::string> body, file; /* neither: standard input whole, or by lines */
    bool lines = false;
    std::vector<std::string> properties; /* name=value */
    std::string component = "zeb";
    bool local = false;
};

struct sub_options {
    std::string text;   /* empty: everything */
    int64_t count = 0;  /* 0: no limit */
    double seconds = 0; /* likewise */
    bool bodyOnly = false;
    std::string component = "zeb";
};

exit_code pub(const common_options &common, const pub_options &options);
exit_code sub(const common_options &common, const sub_options &options);
exit_code status(const common_options &common);

} // namespace tool
