/* The command line of the tool as data: every verb with its arguments, options, explanations and function.
 * The parser, the help texts, the reference page and the completion scripts are all made from it. */
#pragma once

#include "verbs.h"

#include <cstddef>
#include <functional>
#include <string>
#include <utility>
#include <variant>
#include <vector>

namespace tool
{

/* Where the value of an option goes. A bool is a flag. */
using target =
    std::variant<bool *, int *, int64_t *, double *, std::string *, std::optional<std::string> *, words *>;

struct option {
    std::string names; /* "-p,--property", or the name of an argument without its place marker */
    std::string value; /* what stands behind it in help: "TEXT"; empty for a flag */
    std::string about;
    target where;
    double least = 0, most = 0; /* bounds of a number; none when equal */
    words choices = {};         /* the only values, if not empty */
    words excludes = {};        /* options that cannot stand beside it */
    bool required = false;      /* arguments only */
};

struct verb {
    std::string name; /* "pub", "stream send" */
    std::string brief, details;
    std::vector<option> arguments, options;
    std::vector<std::pair<exit_code, std::string>> endings; /* exit codes with a meaning of their own */
    std::string example;                                    /* lines of shell */
    double timeout = 0;                                     /* default limit of the run; 0 is none */
    std::function<exit_code(const common_options &)> run = {};
};

/* The values that all verbs read, owned by main. */
struct settings {
    common_options common;
    pub_options pub;
    sub_options sub;
    stream_options send, receive;
    members_options members;
    call_options call;
    serve_options serve;
    state_options get, keep;
    block_options encode, decode;
    check_options check;
    status_options status;
    monitor_options monitor;
    bench_options bench;
    completion_options completion;
    help_options help;
};

struct command_table {
    std::vector<option> common;
    std::vector<verb> verbs;
    std::vector<std::pair<std::string, std::string>> groups; /* "stream" and what it is about */
};

/* The table, with its values in VALUES, which must outlive it. */
command_table make_table(settings &values);

/* Does VERB; help and completion need the table themselves. */
exit_code run_verb(const command_table &table, const settings &values, const verb &what);

/* The meaning of exit code CODE for WHAT, empty when it never ends with it. */
std::string meaning(const verb &what, exit_code code);

/* "--json" of "-j,--json"; the longest name. */
std::string long_name(const option &what);

/* The default of an option as text, empty when it has none. */
std::string default_text(const option &what);

} // namespace tool
