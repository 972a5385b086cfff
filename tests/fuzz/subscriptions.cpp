/* The subscription language: a text is refused with a place inside it, or it has a normal form that means the
 * same and is its own normal form. The first byte chooses events or addresses. */
#include "fuzz.h"

#include "subscription.h"

#include <string>
#include <vector>

namespace
{

using namespace zebd;

std::vector<std::vector<property_view>> sample_properties()
{
    std::vector<std::vector<property_view>> samples = {
        {},
        {{"a", "1"}, {"b", ""}, {"a", "x/y"}},
        {{"sev", "3"}, {"tag", "a"}, {"tag", "b"}, {"note", ""}, {"/ZEB/RPC/SVR", "a"}},
        {{"sev", "-12.5"}, {"@x", "9223372036854775807"}, {"q\"", "\""}, {"%", "="}}};
    for (std::vector<property_view> &each : samples)
        properties_in_order(each);
    return samples;
}

/* Every field is set in some subjects and empty in others. */
std::vector<bool> verdicts(const subscription &sub)
{
    static const auto properties = sample_properties();
    static constexpr std::string_view texts[] = {"", "/app/disk/full", "storage", "true", "12"};
    std::vector<bool> result;
    for (const auto &list : properties)
        for (size_t turn = 0; turn < std::size(texts); turn++) {
            subject what;
            for (size_t i = 0; i < what.fields.size(); i++)
                what.fields[i] = texts[(i + turn) % std::size(texts)];
            what.properties = list;
            result.push_back(subscription_matches(sub, what));
        }
    return result;
}

} // namespace

void fuzz_read(std::string_view input)
{
    subscription sub;
    parse_error error;
    subscription_parse(input, subject_kind::event, {}, sub, error);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    fuzz::cursor input({reinterpret_cast<const char *>(data), size});
    const subject_kind kind = input.byte() % 2 == 0 ? subject_kind::event : subject_kind::address;
    const std::string text(input.all());
    subscription sub;
    parse_error error;
    if (!subscription_parse(text, kind, {}, sub, error)) {
        FUZZ_CHECK(error.offset <= text.size() && !error.words.empty());
        FUZZ_CHECK(parse_error_text(error).find_first_of("\r\n") == std::string::npos);
        return 0;
    }
    language_limits wide; /* the normal form of a long text may be longer than the text */
    wide.octets = text.size() * 4 + 100;
    const std::string normal = subscription_normal_text(sub, kind);
    subscription again;
    FUZZ_CHECK(subscription_parse(normal, kind, wide, again, error));
    FUZZ_CHECK(subscription_normal_text(again, kind) == normal);
    FUZZ_CHECK(verdicts(again) == verdicts(sub));
    return 0;
}
