/* The daemon's administration socket: one JSON object a line each way. */
#pragma once

#include "host.h"
#include "json.h"

#include <string>
#include <vector>

namespace tool
{

struct admin_connection {
    int fd = -1;
    std::string path, pending;
    std::string why;      /* why it could not be opened */
    bool usurped = false; /* because it is somebody else's */

    admin_connection() = default;
    admin_connection(const admin_connection &) = delete;
    admin_connection &operator=(const admin_connection &) = delete;
    ~admin_connection();
};

/* Where the socket of the daemon on PORT can be: --admin, else the places that a daemon chooses from. */
std::vector<std::string> admin_paths(const common_options &common, uint16_t port);

/* Opens the socket at PATH. Unless PATH was given by --admin, neither its owner nor who answers there may be
 * just anybody: some places are open to all. False with the reason in ADMIN. */
bool admin_try(const common_options &common, const std::string &path, admin_connection &admin);

/* All below return exit_done, or the code to end with after a line was said. */

exit_code admin_open(const common_options &common, admin_connection &admin);

/* Sends QUESTION and waits for the answer, which is a refusal when its "ok" is not true. */
exit_code admin_ask(admin_connection &admin, const json &question, json &answer);

/* The next line that comes by itself; exit_time_out, with nothing said, when none came before UNTIL on the
 * steady clock, or a signal came, or nobody reads standard output any more. */
exit_code admin_next(admin_connection &admin, double until, json &line);

} // namespace tool
