#include "inspect.h"

#include "ezeblogicaladdr.h"
#include "ezebnotification.h"

#include <cstring>

namespace
{

void add(std::string &text, const char *value)
{
    text += value != nullptr ? value : "<null>";
    text += '|';
}

/* TEXT is the caller's to free. */
void add_owned(std::string &text, char *value)
{
    add(text, value);
    ezeb_free(value);
}

} // namespace

std::string fuzz::inspect(const zeb_logicaladdr *address)
{
    if (address == nullptr)
        return "none|";
    std::string text;
    add(text, ezeb_logicaladdr_getComponent(address));
    add(text, ezeb_logicaladdr_getHostName(address));
    add(text, ezeb_logicaladdr_getInstanceName(address));
    add(text, ezeb_logicaladdr_getSubscription(address));
    add(text, ezeb_logicaladdr_getTier(address));
    add(text, ezeb_logicaladdr_getTierId(address));
    const int32_t count = ezeb_logicaladdr_getPropertyCount(address);
    for (int32_t i = 0; i < count; i++) {
        const zeb_property *property = ezeb_logicaladdr_getPropertyIndex(address, i);
        add(text, property->name);
        add(text, property->value);
        add(text, ezeb_logicaladdr_getProperty(address, property->name));
    }
    add_owned(text, ezeb_logicaladdr_toString(address));
    return text;
}

std::string fuzz::inspect(const zeb_laddrlist *list)
{
    std::string text;
    for (int32_t i = 0; i < ezeb_laddrlist_count(list); i++)
        text += inspect(ezeb_laddrlist_get(list, i));
    return text;
}

std::string fuzz::inspect(zeb_notification *n)
{
    std::string text = std::to_string(ezeb_notification_getClass(n)) + "|";
    for (const char *value : {ezeb_notification_type(n), ezeb_notification_id(n),
                              ezeb_notification_instanceName(n), ezeb_notification_stamp(n),
                              ezeb_notification_generatingProcess(n), ezeb_notification_generatingNode(n),
                              ezeb_notification_generatingComponent(n), ezeb_notification_affectedNodes(n),
                              ezeb_notification_affectedComponents(n), ezeb_notification_getStreamKey(n)})
        add(text, value);
    text += std::to_string(ezeb_notification_localOnly(n)) + "|" +
            std::to_string(ezeb_notification_creationTime(n)) + "|" +
            std::to_string(ezeb_notification_deliveryTime(n)) + "|" +
            std::to_string(ezeb_notification_isMembership(n)) + "|";
    int32_t length = 0;
    const auto *body = static_cast<const char *>(ezeb_notification_body(n, &length));
    if (body != nullptr && length > 0)
        text.append(body, static_cast<size_t>(length));
    int32_t count = 0;
    zeb_property *properties = ezeb_notification_getAllProperties(n, &count);
    for (int32_t i = 0; i < count; i++) {
        add(text, properties[i].name);
        add(text, properties[i].value);
        add(text, ezeb_notification_getProperty(n, properties[i].name));
    }
    ezeb_free(properties);
    text += inspect(ezeb_notification_generatingAddress(n));
    for (const zeb_laddrlist *list :
         {ezeb_notification_getDestinationAddrs(n), ezeb_notification_obtainMemberList(n),
          ezeb_notification_getMembersAdded(n), ezeb_notification_getMembersRemoved(n)})
        text += inspect(list);
    for (int32_t format = 0; format < 5; format++) {
        char *dump = ezeb_notification_toString(n, format);
        add(text, strstr(dump, "==>")); /* in front of it stands where the record lies */
        ezeb_free(dump);
    }
    return text;
}
