/* The way to this host's daemon. A verb joins the runtime once, on the main thread. */
#pragma once

#include "output.h"

#include <cstdint>
#include <string>

namespace tool
{

/* Options that all verbs share. */
struct common_options {
    int port = 0;        /* 0: from the environment, else the default */
    double timeout = -1; /* seconds for the run; 0 is none, negative the verb's own default */
    std::string admin;   /* path of the administration socket; empty: the default one */
    bool json = false;
    bool verbose = false;
};

/* The value of an environment variable, FALLBACK when it is unset or empty. */
std::string setting(const char *name, const char *fallback);

/* The port of the daemon: option, environment or default. False, with a line said, when it is no port. */
bool find_port(const common_options &options, uint16_t &port);

/* Whether something listens on PORT of a loopback address. Return at once. */
bool listens_v4(uint16_t port);
bool listens_v6(uint16_t port);
bool something_listens(uint16_t port);

/* A connection to PORT of a loopback address, or -1. */
int dial(uint16_t port);

/* Waits until UNTIL, on the steady clock, for more octets on a connection, and appends them to PENDING. The
 * result is exit_time_out also when a signal or the end of our reader ends the wait, and exit_no_daemon at
 * the end of the connection; nothing is said. */
exit_code receive_more(int fd, double until, std::string &pending);

/* The home directory that is told to the daemon: the library's settings, else the user's own. */
std::string home_directory();

/* Starts the library's runtime and waits for its connection; INSTANCE gets the daemon's instance name. The
 * result is exit_done, or the code to end with after a line was said. Nothing to undo then. */
exit_code join(uint16_t port, std::string &instance);

/* find_port() and join() for verbs that only want to be connected; PORT gets where to. */
exit_code join(const common_options &options);
exit_code join(const common_options &options, uint16_t &port);

} // namespace tool
