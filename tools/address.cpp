#include "address.h"

#include "text.h"

namespace tool
{

json address_json(const zeb_logicaladdr *address)
{
    static constexpr std::pair<const char *, const char *(*)(const zeb_logicaladdr *)> fields[] = {
        {"component", zeb_logicaladdr_getComponent},
        {"host", zeb_logicaladdr_getHostName},
        {"instance", zeb_logicaladdr_getInstanceName},
        {"subscription", zeb_logicaladdr_getSubscription},
    };
    json result;
    for (const auto &[name, getter] : fields)
        if (const char *value = getter(address); value != nullptr)
            result[name] = value;
    result["properties"] = json::array();
    for (int32_t i = 0; i < zeb_logicaladdr_getPropertyCount(address); i++) {
        const zeb_property *p = zeb_logicaladdr_getPropertyIndex(address, i);
        result["properties"].push_back({{"name", text_of(p->name)}, {"value", text_of(p->value)}});
    }
    return result;
}

std::string address_text(const zeb_logicaladdr *address)
{
    const std::string_view component = text_of(zeb_logicaladdr_getComponent(address));
    std::string text = component.empty() ? "-" : escaped(component);
    text += " on " + escaped(text_of(zeb_logicaladdr_getHostName(address)));
    for (int32_t i = 0; i < zeb_logicaladdr_getPropertyCount(address); i++) {
        const zeb_property *p = zeb_logicaladdr_getPropertyIndex(address, i);
        text += " " + escaped(text_of(p->name)) + "=" + escaped(text_of(p->value));
    }
    return text;
}

} // namespace tool
