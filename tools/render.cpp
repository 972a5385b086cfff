#include "render.h"

#include "block.h"
#include "json.h"
#include "text.h"

#include <cstdlib>
#include <functional>
#include <map>
#include <memory>

namespace tool
{

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

static std::string properties_text(const zeb_notification *n)
{
    std::string text;
    for (const property &p : properties_of(n))
        text += (text.empty() ? "" : " ") + escaped(p.name) + "=" + escaped(p.value);
    return text;
}

static std::optional<decoded_block> block_in(const std::string &body, bool wanted)
{
    return wanted ? decode_block(body) : std::nullopt;
}

/* ---- Readable ---- */

std::string readable_line(const zeb_notification *n, bool blocks)
{
    const std::string_view component = text_of(zeb_notification_generatingComponent(n));
    std::string line = time_text(zeb_notification_creationTime(n));
    line += " " + escaped(text_of(zeb_notification_type(n)));
    line += " " + (component.empty() ? "-" : escaped(component));
    const std::string properties = properties_text(n);
    line += (properties.empty() ? "" : " ") + properties;
    const std::string body = body_of(n);
    if (const std::optional<decoded_block> block = block_in(body, blocks))
        return line + " | " + line_of(*block->form);
    if (!body.empty())
        line += " | " + escaped(body);
    return line + "\n";
}

/* The library's text ends a body at its first NUL, so only one without is shown as text. */
std::string dump(zeb_notification *n, bool blocks)
{
    enum { asDump = 1, asText = 2, asBlockOrDump = 4 };
    const std::string body = body_of(n);
    const bool isText = is_utf8(body) && body.find('\0') == std::string::npos;
    const int32_t bodyFormat = blocks && decode_block(body) ? asBlockOrDump : (isText ? asText : asDump);
    const std::unique_ptr<char, decltype(&std::free)> text(zeb_notification_toString(n, bodyFormat),
                                                           std::free);
    return std::string(text_of(text.get()));
}

/* ---- JSON ---- */

const char *class_name(uint32_t cls)
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

std::string json_line(const zeb_notification *n, bool blocks)
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
    if (const std::optional<decoded_block> block = block_in(body, blocks))
        line["block"] = *block->form;
    else if (is_utf8(body))
        line["body"] = body;
    else
        line["bodyBase64"] = base64(body);
    return line_of(line);
}

/* ---- Formats ---- */

using field_reader = std::function<std::string(const zeb_notification *)>;

static field_reader text_field(const char *(*getter)(const zeb_notification *))
{
    return [getter](const zeb_notification *n) { return std::string(text_of(getter(n))); };
}

static const std::map<std::string, field_reader> &fields()
{
    static const std::map<std::string, field_reader> all = {
        {"type", text_field(zeb_notification_type)},
        {"class", [](const zeb_notification *n) { return class_name(zeb_notification_getClass(n)); }},
        {"id", text_field(zeb_notification_id)},
        {"component", text_field(zeb_notification_generatingComponent)},
        {"node", text_field(zeb_notification_generatingNode)},
        {"process", text_field(zeb_notification_generatingProcess)},
        {"instance", text_field(zeb_notification_instanceName)},
        {"affectedComponents", text_field(zeb_notification_affectedComponents)},
        {"affectedNodes", text_field(zeb_notification_affectedNodes)},
        {"local", [](const zeb_notification *n) { return zeb_notification_localOnly(n) ? "true" : "false"; }},
        {"created",
         [](const zeb_notification *n) { return std::to_string(zeb_notification_creationTime(n)); }},
        {"delivered",
         [](const zeb_notification *n) { return std::to_string(zeb_notification_deliveryTime(n)); }},
        {"time", [](const zeb_notification *n) { return time_text(zeb_notification_creationTime(n)); }},
        {"properties", properties_text},
        {"body", body_of},
        {"text", [](const zeb_notification *n) { return escaped(body_of(n)); }},
    };
    return all;
}

static constexpr std::string_view propertyField = "property:";

static bool is_field(const std::string &name)
{
    return name == "number" || name.starts_with(propertyField) || fields().count(name) != 0;
}

static std::string field_value(const std::string &name, const zeb_notification *n, uint64_t number)
{
    if (name == "number")
        return std::to_string(number);
    if (name.starts_with(propertyField))
        return std::string(
            text_of(zeb_notification_getProperty(n, name.substr(propertyField.size()).c_str())));
    return fields().at(name)(n);
}

static char unescaped(char c)
{
    return c == 'n' ? '\n' : (c == 't' ? '\t' : c);
}

std::optional<format> parse_format(std::string_view text, std::string &why)
{
    format result(1);
    for (size_t i = 0; i < text.size(); i++) {
        const bool last = i + 1 == text.size();
        if (text[i] == '\\' && !last) {
            result.back().text += unescaped(text[++i]);
        } else if (text[i] == '{' && !last && text[i + 1] == '{') {
            result.back().text += text[i++];
        } else if (text[i] != '{') {
            result.back().text += text[i];
        } else {
            const size_t end = text.find('}', i);
            const std::string name(text.substr(i + 1, end - i - 1));
            if (end == std::string_view::npos || !is_field(name)) {
                why = "--format: there is no placeholder {" + name + "}; {{ is a brace";
                return std::nullopt;
            }
            result.push_back({true, name});
            result.push_back({});
            i = end;
        }
    }
    return result;
}

std::string formatted(const format &parts, const zeb_notification *n, uint64_t number)
{
    std::string text;
    for (const format_part &part : parts)
        text += part.placeholder ? field_value(part.text, n, number) : part.text;
    return text + "\n";
}

} // namespace tool
