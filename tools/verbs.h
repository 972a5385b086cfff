/* The verbs. Each has its options, filled from the command line, and a function that does it and returns the
 * exit code of the run. What they are called on the command line, and what is said about them, stands in
 * table.cpp. */
#pragma once

#include "host.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace tool
{

using words = std::vector<std::string>;

struct pub_options {
    std::string type;                      /* empty only with JSON lines */
    std::optional<std::string> body, file; /* neither: standard input whole, or by lines */
    bool lines = false;
    words properties; /* name=value */
    std::string component = "zeb";
    bool local = false;
    words to; /* address keys */
    int64_t repeat = 1;
    double every = 0; /* milliseconds */
};

struct sub_options {
    std::string text;   /* empty: everything */
    int64_t count = 0;  /* 0: no limit */
    double seconds = 0; /* likewise */
    std::optional<std::string> format;
    bool bodyOnly = false, dump = false, blocks = false;
    std::string component = "zeb";
};

struct stream_options {
    std::string type; /* to send, or the subscription to receive by */
    std::optional<std::string> file;
    words properties;
    std::string component = "zeb";
    int64_t piece = 32768;
};

struct members_options {
    std::string interest; /* empty: everybody */
    bool watch = false;
    double seconds = 0;
};

struct call_options {
    std::string server, function;
    std::optional<std::string> body, file;
    bool all = false;
    double wait = 5; /* seconds for a server to appear */
    std::string component = "zeb";
};

struct serve_options {
    std::string server;
    words functions;  /* name=command */
    words properties; /* name=value */
    bool progressLines = false, parallel = false;
    double seconds = 0; /* 0: no limit */
    std::string component = "zeb";
};

struct state_options {
    std::string interest; /* get: the group */
    std::optional<std::string> body, file;
    words properties;
    int64_t count = 0;
    double wait = 5;    /* get: for a member to appear and to answer */
    double seconds = 0; /* keep: 0 is no limit */
    std::string component = "zeb";
};

struct block_options {
    std::optional<std::string> file;
    bool text = false;
};

struct check_options {
    std::string text;
    bool interest = false;
    std::optional<std::string> event;
};

struct status_options {
    bool clients = false, subscribers = false, groups = false, counters = false, metrics = false;
};

struct monitor_options {
    int64_t connection = 0; /* 0: all of them */
    int64_t count = 0;
    double seconds = 0;
};

struct bench_options {
    int64_t messages = 100000, size = 100;
    double rate = 2000, seconds = 3;
    int64_t trips = 2000;
};

struct completion_options {
    std::string shell;
};

struct help_options {
    words verb;
    bool markdown = false;
};

exit_code pub(const common_options &common, const pub_options &options);
exit_code sub(const common_options &common, const sub_options &options);
exit_code stream_send(const common_options &common, const stream_options &options);
exit_code stream_receive(const common_options &common, const stream_options &options);
exit_code block_encode(const common_options &common, const block_options &options);
exit_code block_decode(const common_options &common, const block_options &options);
exit_code check(const common_options &common, const check_options &options);
exit_code members(const common_options &common, const members_options &options);
exit_code call(const common_options &common, const call_options &options);
exit_code serve(const common_options &common, const serve_options &options);
exit_code state_get(const common_options &common, const state_options &options);
exit_code state_keep(const common_options &common, const state_options &options);
exit_code monitor(const common_options &common, const monitor_options &options);
exit_code status(const common_options &common, const status_options &options);
exit_code doctor(const common_options &common);
exit_code bench(const common_options &common, const bench_options &options);

/* Usage, after a line was said, when no server can have this name. */
exit_code check_server_name(const std::string &name);

} // namespace tool
