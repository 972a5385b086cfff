/* zebd's configuration: a text is refused with places inside it, or what it sets can be written down and read
 * again to the same. Each line is also tried as KEY=VALUE of the command line. */
#include "fuzz.h"

#include "config.h"

#include <algorithm>
#include <string>

namespace
{

using namespace zebd;

bool is_one_line(std::string_view text)
{
    return !text.empty() && text.find_first_of(std::string_view("\r\n\0", 3)) == std::string_view::npos;
}

/* Where a problem is said to be must be a place that an editor can go to. */
void check_problem(const config_problem &problem, std::string_view text)
{
    FUZZ_CHECK(!problem.reason.empty());
    FUZZ_CHECK(problem.line >= 1 && problem.column >= 1);
    FUZZ_CHECK(problem.line <= static_cast<size_t>(std::ranges::count(text, '\n')) + 1);
}

/* The value as a file holds it; texts may hold anything that fits into a line. */
std::string file_value(const configuration &config, const config_key &key)
{
    const std::string text = config_text(config, key);
    if (text.front() != '"')
        return text;
    static constexpr char digits[] = "0123456789ABCDEF";
    std::string quoted = "\"";
    for (const char c : text.substr(1, text.size() - 2)) {
        const auto octet = static_cast<unsigned char>(c);
        if (octet >= 0x80 || (octet >= 0x20 && octet != 0x7f && c != '"' && c != '\\'))
            quoted += c;
        else
            quoted += std::string("\\u00") + digits[octet >> 4] + digits[octet & 15];
    }
    return quoted + '"';
}

void check_written_down(const configuration &config)
{
    std::string file;
    for (const config_key &key : config_keys())
        file += std::string(key.name) + " = " + file_value(config, key) + "\n";
    configuration again;
    FUZZ_CHECK(config_parse(file, again).empty());
    FUZZ_CHECK(again == config);
}

/* As main takes it apart. What is refused changes nothing. */
void check_option(std::string_view line)
{
    const size_t sign = line.find('=');
    const config_key *key = sign == std::string_view::npos ? nullptr : config_find(line.substr(0, sign));
    if (key == nullptr)
        return;
    configuration config;
    std::string why;
    if (config_set(config, *key, line.substr(sign + 1), why)) {
        configuration again;
        std::string value = config_text(config, *key);
        if (value.front() == '"')
            value = value.substr(1, value.size() - 2);
        FUZZ_CHECK(config_set(again, *key, value, why) && again == config);
    } else {
        FUZZ_CHECK(is_one_line(why));
        FUZZ_CHECK(config == configuration());
    }
}

} // namespace

void fuzz_read(std::string_view input)
{
    configuration config;
    config_parse(input, config);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const std::string_view text(reinterpret_cast<const char *>(data), size);
    configuration config;
    const auto problems = config_parse(text, config);
    for (const config_problem &problem : problems)
        check_problem(problem, text);
    if (problems.empty())
        check_written_down(config);
    fuzz::each_line(text, check_option);
    return 0;
}
