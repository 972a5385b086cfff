/* What the operator can set. Every value stands in one table of keys with its range and its meaning; the
 * configuration file, the command line and the check read nothing but that table. */
#pragma once

#include "defaults.h"

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace zebd
{

constexpr int64_t kib = 1024;
constexpr int64_t mib = 1024 * kib;

/* The members are in the types of the file: integers, seconds and texts. */
struct configuration {
    int64_t port = defaultPort; /* 0: one that the kernel chooses, the same for both addresses */
    std::string instance;
    double stopSeconds = 5;

    std::string adminSocket = "auto"; /* "auto": where clients look for it; empty: none */

    std::string logLevel = "info";
    int64_t logLines = 5;

    int64_t clients = 10000;
    double connectSeconds = 10;
    double stallSeconds = 300;
    int64_t line = 128 * kib;
    int64_t header = mib;
    int64_t properties = 10000;
    int64_t body = 64 * mib;
    int64_t addresses = 16 * mib;
    int64_t unfinished = 512 * mib;
    int64_t subscribers = 100000;
    int64_t streams = 1024;
    int64_t subscriber = 256 * kib;
    int64_t allSubscribers = 512 * mib;

    int64_t languageOctets = 65536;
    int64_t languageNesting = 64;
    int64_t languagePredicates = 8192;
    int64_t languageClauses = 4096;

    std::string queuePolicy = "disconnect";
    int64_t queueSoft = 32 * mib;
    double queueSoftSeconds = 30;
    int64_t queueHard = 64 * mib;
    int64_t queueTotal = 512 * mib;

    bool operator==(const configuration &) const = default;
};

struct config_key {
    using place =
        std::variant<int64_t configuration::*, double configuration::*, std::string configuration::*>;

    std::string_view name; /* as in the file, with its table: "queue.hard" */
    place member;
    double least = 0, most = 0; /* of a number */
    std::string_view choices;   /* of a text: the allowed ones with blanks between them; empty: any line */
    bool atOnce = true;         /* a new value is used as soon as it is read, else after a restart */
    std::string_view meaning;
};

/* In the order of the example file. */
std::span<const config_key> config_keys();

/* Null for an unknown name. */
const config_key *config_find(std::string_view name);

/* Where something is wrong in a file and what; lines and columns count from 1. */
struct config_problem {
    uint32_t line = 0, column = 0;
    std::string reason;
};

/* Takes over what TEXT, a whole file, sets; everything else stays. Returns what is wrong, in the order of the
 * file; then CONFIG must not be used. */
std::vector<config_problem> config_parse(std::string_view text, configuration &config);

/* Sets one key from the text behind an option. False with WHY in one line when it cannot be. */
bool config_set(configuration &config, const config_key &key, std::string_view text, std::string &why);

/* The value of a key as it would stand in a file. */
std::string config_text(const configuration &config, const config_key &key);

} // namespace zebd
