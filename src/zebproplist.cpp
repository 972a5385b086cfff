/* Property lists. One thread at a time per list; the library copies those it is given. */
#include "ezebproplist.h"

#include "ezebutil.h"

#include <string.h>

int32_t ezeb_proplist_count(const zeb_proplist *list)
{
    return list != nullptr ? list->count : 0;
}

static zeb_property *find(const zeb_proplist *list, const char *name)
{
    for (int32_t i = 0; i < list->count; i++) {
        if (strcmp(list->entries[i].name, name) == 0)
            return &list->entries[i];
    }
    return nullptr;
}

const char *ezeb_proplist_get(const zeb_proplist *list, const char *name)
{
    if (list == nullptr || name == nullptr)
        return nullptr;
    const zeb_property *found = find(list, name);
    return found != nullptr ? found->value : nullptr;
}

/* Only the upper bound is looked at: a negative index is the caller's error. */
zeb_property *ezeb_proplist_getIndex(const zeb_proplist *list, int32_t index)
{
    return list != nullptr && index < list->count ? &list->entries[index] : nullptr;
}

static bool make_room(zeb_proplist *list)
{
    if (list->entries != nullptr && list->count < list->capacity)
        return true;
    const auto wanted = static_cast<size_t>(list->capacity) + EZEB_PROPLIST_STEP;
    auto *grown = static_cast<zeb_property *>(ezeb_realloc(list->entries, wanted * sizeof(zeb_property)));
    if (grown == nullptr)
        return false;
    list->entries = grown;
    list->capacity += EZEB_PROPLIST_STEP;
    return true;
}

static zeb_property *replace(zeb_property *entry, const char *value)
{
    char *copy = ezeb_strdup(value);
    if (copy == nullptr)
        return nullptr;
    ezeb_free(entry->value);
    entry->value = copy;
    return entry;
}

int32_t ezeb_proplist_append(zeb_proplist *list, const char *name, const char *value)
{
    const zeb_property fresh = {ezeb_strdup(name), ezeb_strdup(value)};
    if (fresh.name == nullptr || fresh.value == nullptr || !make_room(list)) {
        ezeb_free(fresh.name);
        ezeb_free(fresh.value);
        return 0;
    }
    list->entries[list->count++] = fresh;
    return 1;
}

zeb_property *ezeb_proplist_put(zeb_proplist *list, const char *name, const char *value)
{
    if (list == nullptr || name == nullptr || value == nullptr)
        return nullptr;
    zeb_property *found = find(list, name);
    if (found != nullptr)
        return replace(found, value);
    return ezeb_proplist_append(list, name, value) ? &list->entries[list->count - 1] : nullptr;
}

void ezeb_proplist_destroy(zeb_proplist **list)
{
    if (list == nullptr || *list == nullptr)
        return;
    zeb_proplist *gone = *list;
    *list = nullptr;
    for (int32_t i = 0; i < gone->count; i++) {
        ezeb_free(gone->entries[i].name);
        ezeb_free(gone->entries[i].value);
    }
    ezeb_free(gone->entries);
    ezeb_free(gone);
}

zeb_proplist *ezeb_proplist_create(void)
{
    return ezeb_new<zeb_proplist>();
}

zeb_proplist *ezeb_proplist_dup(const zeb_proplist *list)
{
    if (list == nullptr)
        return nullptr;
    zeb_proplist *copy = ezeb_proplist_create();
    if (copy == nullptr || list->capacity == 0)
        return copy;
    copy->entries =
        static_cast<zeb_property *>(ezeb_malloc(static_cast<size_t>(list->capacity) * sizeof(zeb_property)));
    if (copy->entries == nullptr) {
        ezeb_free(copy);
        return nullptr;
    }
    bool complete = true;
    copy->capacity = list->capacity;
    for (int32_t i = 0; complete && i < list->count; i++) {
        zeb_property *entry = &copy->entries[copy->count++];
        *entry = {ezeb_strdup(list->entries[i].name), ezeb_strdup(list->entries[i].value)};
        complete = entry->name != nullptr && entry->value != nullptr;
    }
    if (!complete)
        ezeb_proplist_destroy(&copy);
    return copy;
}
