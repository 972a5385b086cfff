#include "render.h"

#include <cstdlib>
#include <ctime>
#include <memory>
#include <nlohmann/json.hpp>
#include <string_view>
#include <vector>

namespace tool
{

using json = nlohmann::ordered_json;

static std::string_view text_of(const char *text)
{
    return text == nullptr ? std::string_view() : std::string_view(text);
}

std::string body_of(const zeb_notification *n)
{
    int32_t length = 0;
    const void *body = zeb_notification_body(n, &length);
    if (body == nullptr || length < 1)
        return {};
    return std::string(static_cast<const char *>(body), static_cast<size_t>(length));
}

struct property {
    std::string_view name, value;
};

/* The library's array is ours to free, the strings in it are not. */
static std::vector<property> properties_of(const zeb_notification *n)
{
    int32_t count = 0;
    const std::unique_ptr<zeb_property, decltype(&std::free)> all(
        zeb_notification_getAllProperties(n, &count), std::free);
    std::vector<property> result;
    for (int32_t i = 0; all != nullptr && i < count; i++)
        result.push_back({text_of(all.get()[i].name), text_of(all.get()[i].value)});
    return result;
}

/* Length of the UTF-8 character that begins at TEXT, 0 when there is none. Overlong forms, surrogates and
 * what lies above the last code point are none. */
static size_t character_length(std::string_view text)
{
    const auto octet = [text](size_t i) {
        return i < text.size() ? static_cast<unsigned char>(text[i]) : 0U;
    };
    const auto follows = [&octet](size_t i) { return (octet(i) & 0xC0U) == 0x80U; };
    const unsigned first = octet(0), second = octet(1);
    if (first < 0x80)
        return text.empty() ? 0 : 1;
    if (first >= 0xC2 && first <= 0xDF)
        return follows(1) ? 2 : 0;
    if (first >= 0xE0 && first <= 0xEF) {
        const bool misplaced = (first == 0xE0 && second < 0xA0) || (first == 0xED && second > 0x9F);
        return follows(1) && follows(2) && !misplaced ? 3 : 0;
    }
    if (first >= 0xF0 && first <= 0xF4) {
        const bool misplaced = (first == 0xF0 && second < 0x90) || (first == 0xF4 && second > 0x8F);
        return follows(1) && follows(2) && follows(3) && !misplaced ? 4 : 0;
    }
    return 0;
}

static bool is_utf8(std::string_view text)
{
    while (!text.empty()) {
        const size_t length = character_length(text);
        if (length == 0)
            return false;
        text.remove_prefix(length);
    }
    return true;
}

/* ---- Readable ---- */

static void append_escaped(std::string &out, unsigned char octet)
{
    static constexpr char hex[] = "0123456789abcdef";
    out += {'\\', 'x', hex[octet / 16], hex[octet % 16]};
}

static std::string escaped(std::string_view text)
{
    std::string result;
    while (!text.empty()) {
        const size_t length = character_length(text);
        const auto first = static_cast<unsigned char>(text[0]);
        if (first == '\\')
            result += "\\\\";
        else if (first == '\n')
            result += "\\n";
        else if (length == 0 || first < 0x20 || first == 0x7F)
            append_escaped(result, first);
        else
            result += text.substr(0, length);
        text.remove_prefix(length == 0 ? 1 : length);
    }
    return result;
}

static std::string time_text(int64_t seconds)
{
    const auto when = static_cast<time_t>(seconds);
    tm parts{};
    char text[32] = "";
    gmtime_r(&when, &parts);
    strftime(text, sizeof(text), "%Y-%m-%dT%H:%M:%SZ", &parts);
    return text;
}

std::string readable_line(const zeb_notification *n)
{
    const std::string_view component = text_of(zeb_notification_generatingComponent(n));
    std::string line = time_text(zeb_notification_creationTime(n));
    line += " " + escaped(text_of(zeb_notification_type(n)));
    line += " " + (component.empty() ? "-" : escaped(component));
    for (const property &p : properties_of(n))
        line += " " + escaped(p.name) + "=" + escaped(p.value);
    const std::string body = body_of(n);
    if (!body.empty())
        line += " | " + escaped(body);
    return line + "\n";
}

/* ---- JSON ---- */

static std::string base64(std::string_view octets)
{
    static constexpr char digits[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string result;
    for (size_t i = 0; i < octets.size(); i += 3) {
        unsigned group = 0;
        for (size_t k = 0; k < 3; k++)
            group = group << 8U | (i + k < octets.size() ? static_cast<unsigned char>(octets[i + k]) : 0U);
        for (size_t k = 0; k < 4; k++)
            result.push_back(i + k > octets.size() ? '=' : digits[group >> (18U - 6U * k) & 63U]);
    }
    return result;
}

static const char *class_name(uint32_t cls)
{
    static constexpr const char *names[] = {"message", "membership-list", "membership-delta", "stream",
                                            "stream",  "state-get",       "state-set",        "leave-group"};
    return cls < std::size(names) ? names[cls] : "unknown";
}

static json properties_json(const zeb_notification *n)
{
    json result = json::array();
    for (const property &p : properties_of(n))
        result.push_back({{"name", p.name}, {"value", p.value}});
    return result;
}

std::string json_line(const zeb_notification *n)
{
    json line;
    line["type"] = text_of(zeb_notification_type(n));
    line["class"] = class_name(zeb_notification_getClass(n));
    line["id"] = text_of(zeb_notification_id(n));
    line["component"] = text_of(zeb_notification_generatingComponent(n));
    line["node"] = text_of(zeb_notification_generatingNode(n));
    line["process"] = text_of(zeb_notification_generatingProcess(n));
    line["instance"] = text_of(zeb_notification_instanceName(n));
    line["affectedComponents"] = text_of(zeb_notification_affectedComponents(n));
    line["affectedNodes"] = text_of(zeb_notification_affectedNodes(n));
    line["local"] = zeb_notification_localOnly(n) != 0;
    line["created"] = zeb_notification_creationTime(n);
    line["delivered"] = zeb_notification_deliveryTime(n);
    line["properties"] = properties_json(n);
    const std::string body = body_of(n);
    if (is_utf8(body))
        line["body"] = body;
    else
        line["bodyBase64"] = base64(body);
    return line.dump(-1, ' ', false, json::error_handler_t::replace) + "\n";
}

} // namespace tool
