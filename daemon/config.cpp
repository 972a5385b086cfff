#include "config.h"

#include "utf8.h"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <iterator>

/* Some assertions of the parser do not hold for files that it refuses in good order without them, "[[[" for
 * one. Where NDEBUG is defined it would even let the compiler rely on them. */
#define TOML_ASSERT(expression) static_cast<void>(0)
#define TOML_EXCEPTIONS 0
#pragma push_macro("NDEBUG")
#undef NDEBUG
#include <toml++/toml.h>
#pragma pop_macro("NDEBUG")

namespace zebd
{

/* ---- The table ---- */

static constexpr double day = 86400;
static constexpr double most31 = 0x7fffffff;
static constexpr double mebibyte = 1024.0 * 1024;
static constexpr double tebibyte = mebibyte * mebibyte;

static constexpr config_key keys[] = {
    {"port", &configuration::port, 0, 65535, "", false,
     "TCP port on 127.0.0.1 and ::1; 0 lets the kernel choose one"},
    {"instance", &configuration::instance, 0, 0, "", false,
     "instance name told to clients; the host name when empty"},
    {"stop_seconds", &configuration::stopSeconds, 0, 3600, "", true,
     "time for writing what is queued when told to stop"},

    {"admin.socket", &configuration::adminSocket, 0, 0, "", false,
     "path of the administration socket; auto for the usual place, empty for none"},

    {"log.level", &configuration::logLevel, 0, 0, "debug info warning error", true,
     "least priority that is logged"},
    {"log.lines_per_second", &configuration::logLines, 1, 1e6, "", true,
     "lines of one kind in a second; those above are counted and told with the next one"},

    {"limits.clients", &configuration::clients, 1, 1e6, "", true, "clients connected at once"},
    {"limits.connect_seconds", &configuration::connectSeconds, 0.05, day, "", true,
     "time to complete the connect; then the client is ended"},
    {"limits.stall_seconds", &configuration::stallSeconds, 0, day, "", true,
     "longest silence in the middle of a message; 0 for any"},
    {"limits.line", &configuration::line, 256, 256 * mebibyte, "", true, "octets of a header line"},
    {"limits.header", &configuration::header, 1024, 256 * mebibyte, "", true,
     "octets of all header lines of a message"},
    {"limits.properties", &configuration::properties, 0, 1e7, "", true, "properties of a message"},
    {"limits.body", &configuration::body, 0, most31, "", true, "octets of an event's body"},
    {"limits.addresses", &configuration::addresses, 0, 1024 * mebibyte, "", true,
     "octets of an event's address list"},
    {"limits.unfinished", &configuration::unfinished, mebibyte, tebibyte, "", true,
     "octets of all messages that have not come completely; the largest pays"},
    {"limits.subscribers", &configuration::subscribers, 1, most31, "", true, "subscribers of a connection"},
    {"limits.streams", &configuration::streams, 0, most31, "", true, "open streams of a connection"},
    {"limits.subscriber", &configuration::subscriber, 1024, 256 * mebibyte, "", true,
     "octets of one subscriber's address: its texts and properties"},
    {"limits.all_subscribers", &configuration::allSubscribers, mebibyte, 1024 * mebibyte, "", true,
     "octets kept for all subscribers: addresses, subscriptions, interests, open streams"},

    {"language.octets", &configuration::languageOctets, 0, 65536, "", true,
     "octets of a subscription or a membership interest"},
    {"language.nesting", &configuration::languageNesting, 1, 64, "", true,
     "parentheses and negations open at one place"},
    {"language.predicates", &configuration::languagePredicates, 1, 8192, "", true,
     "predicates of a subscription or a membership interest"},
    {"language.clauses", &configuration::languageClauses, 1, 4096, "", true,
     "alternatives that one is taken apart into for the index; one with more is tried whole"},

    {"queue.policy", &configuration::queuePolicy, 0, 0, "disconnect drop-oldest drop-newest", true,
     "what happens to a client that does not read fast enough"},
    {"queue.soft", &configuration::queueSoft, 0, tebibyte, "", true,
     "octets that may wait for one client for long"},
    {"queue.soft_seconds", &configuration::queueSoftSeconds, 0, day, "", true,
     "how long they may be exceeded before the policy acts"},
    {"queue.hard", &configuration::queueHard, 1, tebibyte, "", true,
     "octets that may wait for one client at all; above them the policy acts at once"},
    {"queue.total", &configuration::queueTotal, mebibyte, tebibyte, "", true,
     "octets that may wait for all clients together; the longest queue pays"},
};

std::span<const config_key> config_keys()
{
    return keys;
}

const config_key *config_find(std::string_view name)
{
    const auto *found = std::ranges::find(keys, name, &config_key::name);
    return found == std::end(keys) ? nullptr : found;
}

/* ---- Values ---- */

static std::string number_text(double number)
{
    char text[32];
    const auto result = std::to_chars(std::begin(text), std::end(text), number);
    return {std::begin(text), result.ptr};
}

static std::string whole_text(double number)
{
    return std::to_string(static_cast<int64_t>(number));
}

static bool is_choice(std::string_view choices, std::string_view text)
{
    return !text.empty() && text.find(' ') == std::string_view::npos &&
           (" " + std::string(choices) + " ").find(" " + std::string(text) + " ") != std::string::npos;
}

static bool store(configuration &config, const config_key &key, int64_t value, std::string &why)
{
    if (static_cast<double>(value) < key.least || static_cast<double>(value) > key.most) {
        why =
            std::string(key.name) + " must be from " + whole_text(key.least) + " to " + whole_text(key.most);
        return false;
    }
    config.*std::get<int64_t configuration::*>(key.member) = value;
    return true;
}

static bool store(configuration &config, const config_key &key, double value, std::string &why)
{
    if (!(value >= key.least && value <= key.most)) {
        why = std::string(key.name) + " must be from " + number_text(key.least) + " to " +
              number_text(key.most) + " seconds";
        return false;
    }
    config.*std::get<double configuration::*>(key.member) = value;
    return true;
}

static bool store(configuration &config, const config_key &key, std::string_view value, std::string &why)
{
    if (!key.choices.empty() && !is_choice(key.choices, value)) {
        why = std::string(key.name) + " must be one of: " + std::string(key.choices);
        return false;
    }
    if (value.find_first_of(std::string_view("\r\n\0", 3)) != std::string_view::npos) {
        why = std::string(key.name) + " must be one line";
        return false;
    }
    config.*std::get<std::string configuration::*>(key.member) = value;
    return true;
}

template <class Number>
static bool parse_number(std::string_view text, Number &number)
{
    const auto result = std::from_chars(text.data(), text.data() + text.size(), number);
    return result.ec == std::errc() && result.ptr == text.data() + text.size();
}

static bool is_whole(const config_key &key)
{
    return std::holds_alternative<int64_t configuration::*>(key.member);
}

static bool is_number(const config_key &key)
{
    return std::holds_alternative<double configuration::*>(key.member);
}

bool config_set(configuration &config, const config_key &key, std::string_view text, std::string &why)
{
    int64_t whole = 0;
    double number = 0;
    why = std::string(key.name) + " must be a" + (is_whole(key) ? " whole" : "") + " number";
    if (is_whole(key))
        return parse_number(text, whole) && store(config, key, whole, why);
    if (is_number(key))
        return parse_number(text, number) && store(config, key, number, why);
    return store(config, key, text, why);
}

std::string config_text(const configuration &config, const config_key &key)
{
    if (is_whole(key))
        return std::to_string(config.*std::get<int64_t configuration::*>(key.member));
    if (is_number(key))
        return number_text(config.*std::get<double configuration::*>(key.member));
    return '"' + config.*std::get<std::string configuration::*>(key.member) + '"';
}

/* ---- Files ---- */

static bool is_above_ascii(char c)
{
    return static_cast<unsigned char>(c) >= 0x80;
}

/* The parser misleads the compiler about characters above ASCII, so it gets STAND_IN for each of their
 * octets; outside of texts in quotes and comments it refuses that. */
static toml::parse_result parse_ascii(std::string text, char stand_in)
{
    std::ranges::replace_if(text, is_above_ascii, stand_in);
    return toml::parse(text);
}

struct file_reading {
    configuration &config;
    std::string_view text;
    std::vector<config_problem> problems;
};

static void complain(file_reading &reading, const toml::source_region &where, std::string reason)
{
    reading.problems.push_back({where.begin.line, where.begin.column, std::move(reason)});
}

static size_t place_in(std::string_view text, const toml::source_position &at)
{
    size_t lineBegin = 0;
    for (uint32_t line = 1; line < at.line; line++)
        lineBegin = text.find('\n', lineBegin) + 1;
    return lineBegin + at.column - 1;
}

/* A text in quotes with the file's octets where its two readings differ. */
static std::string read_text(const file_reading &reading, const toml::value<std::string> &value,
                             const std::string &twin)
{
    std::string text = value.get();
    auto octet = reading.text.begin() + static_cast<ptrdiff_t>(place_in(reading.text, value.source().begin));
    for (size_t i = 0; i < text.size(); i++)
        if (text[i] != twin[i]) {
            octet = std::find_if(octet, reading.text.end(), is_above_ascii);
            text[i] = *octet++;
        }
    return text;
}

static bool store_node(file_reading &reading, const config_key &key, const toml::node &value,
                       const toml::node &twin, std::string &why)
{
    configuration &config = reading.config;
    if (is_whole(key)) {
        why = std::string(key.name) + " must be a whole number";
        return value.is_integer() && store(config, key, value.as_integer()->get(), why);
    }
    if (is_number(key)) {
        why = std::string(key.name) + " must be a number";
        return value.is_number() && store(config, key, *value.value<double>(), why);
    }
    why = std::string(key.name) + " must be a text in quotes";
    if (!value.is_string())
        return false;
    const std::string text = read_text(reading, *value.as_string(), twin.as_string()->get());
    return store(config, key, std::string_view(text), why);
}

static bool is_table_name(const std::string &name)
{
    return std::ranges::any_of(keys, [&](const config_key &key) { return key.name.starts_with(name + "."); });
}

/* A name as the file has it when it has characters above ASCII. */
static std::string name_text(const file_reading &reading, const toml::key &name)
{
    const size_t begin = place_in(reading.text, name.source().begin);
    const size_t end = place_in(reading.text, name.source().end);
    const std::string_view written = reading.text.substr(begin, end - begin);
    return std::string(std::ranges::any_of(written, is_above_ascii) ? written : name.str());
}

/* TWIN is TABLE with another stand-in. Names we know have none, so what they name stands in both. */
static void read_table(file_reading &reading, const toml::table &table, const toml::table &twin,
                       const std::string &prefix)
{
    for (const auto &[name, value] : table) {
        const std::string full = prefix + name_text(reading, name);
        if (value.is_table() && is_table_name(full)) {
            read_table(reading, *value.as_table(), *twin.get_as<toml::table>(name.str()), full + ".");
            continue;
        }
        const config_key *key = config_find(full);
        std::string why;
        if (key == nullptr)
            complain(reading, name.source(),
                     "unknown " + std::string(value.is_table() ? "table " : "key ") + full);
        else if (!store_node(reading, *key, value, *twin.get(name.str()), why))
            complain(reading, value.source(), why);
    }
}

static size_t end_of_utf8(std::string_view text)
{
    size_t at = 0;
    while (const size_t length = character_length(text.substr(at)))
        at += length;
    return at;
}

static config_problem problem_at(std::string_view text, size_t at, std::string reason)
{
    const std::string_view before = text.substr(0, at);
    const size_t lineBegin = before.rfind('\n') + 1; /* 0 in the first line */
    return {static_cast<uint32_t>(std::ranges::count(before, '\n') + 1),
            static_cast<uint32_t>(at - lineBegin + 1), std::move(reason)};
}

/* The parser may complain of a stand-in, which nobody has written. */
static config_problem problem_of(std::string_view text, const toml::parse_error &error)
{
    const toml::source_position &where = error.source().begin;
    const size_t place = place_in(text, where);
    const bool isStray = place < text.size() && is_above_ascii(text[place]);
    return {where.line, where.column,
            isStray ? "only ASCII can stand outside of quotes" : std::string(error.description())};
}

std::vector<config_problem> config_parse(std::string_view text, configuration &config)
{
    static constexpr std::string_view byteOrderMark = "\xef\xbb\xbf";
    if (text.starts_with(byteOrderMark))
        text.remove_prefix(byteOrderMark.size());
    if (const size_t end = end_of_utf8(text); end < text.size())
        return {problem_at(text, end, "no UTF-8")};
    const toml::parse_result result = parse_ascii(std::string(text), '?');
    const toml::parse_result twin = parse_ascii(std::string(text), '!');
    if (!result || !twin)
        return {problem_of(text, (result ? twin : result).error())};
    file_reading reading{config, text, {}};
    read_table(reading, result.table(), twin.table(), "");
    std::ranges::sort(reading.problems, {},
                      [](const config_problem &problem) { return std::pair(problem.line, problem.column); });
    return reading.problems;
}

} // namespace zebd
