/* Logical addresses and address lists. Plain values without locks; one thread at a time. */
#include "ezeblogicaladdr.h"

#include "ezebbodyblock.h"
#include "ezebproplist.h"
#include "ezebutil.h"

#include <string.h>

/* The text fields with their element names, in the order in which they are written. The key stands apart: it
 * is read, but never written, since only the daemon gives keys. */
struct text_field {
    const char *element;
    char *zeb_logicaladdr::*field;
};

static constexpr text_field text_fields[] = {
    {"id", &zeb_logicaladdr::id},
    {"tier", &zeb_logicaladdr::tier},
    {"tierid", &zeb_logicaladdr::tierId},
    {"component", &zeb_logicaladdr::component},
    {"hostname", &zeb_logicaladdr::hostName},
    {"instancename", &zeb_logicaladdr::instanceName},
    {"subscription", &zeb_logicaladdr::subscription},
};

/* ---- One address ---- */

static void release_contents(zeb_logicaladdr *address)
{
    for (const text_field &t : text_fields)
        ezeb_free(address->*t.field);
    ezeb_free(address->key);
    ezeb_free(address->matcher);
    ezeb_free(address->address);
    ezeb_proplist_destroy(&address->properties);
    *address = zeb_logicaladdr{};
}

static bool copy_text(char **to, const char *from)
{
    *to = ezeb_strdup_ornull(from);
    return *to != nullptr || from == nullptr;
}

/* Fills TO, which is empty, with copies; false, TO empty again, when memory is out. The address bytes are
 * always there, even when there are none; the matcher only with bytes in it. */
static bool copy_contents(zeb_logicaladdr *to, const zeb_logicaladdr *from)
{
    bool ok = copy_text(&to->key, from->key);
    for (const text_field &t : text_fields)
        ok = ok && copy_text(&(to->*t.field), from->*t.field);
    to->addressLength = from->addressLength;
    to->matcherLength = from->matcherLength;
    const auto addressbytes = static_cast<size_t>(from->addressLength > 0 ? from->addressLength : 0);
    to->address = ok ? static_cast<char *>(ezeb_memdup(from->address, addressbytes)) : nullptr;
    ok = ok && to->address != nullptr;
    if (ok && from->matcherLength > 0) {
        to->matcher =
            static_cast<char *>(ezeb_memdup(from->matcher, static_cast<size_t>(from->matcherLength)));
        ok = to->matcher != nullptr;
    }
    if (ok && from->properties != nullptr) {
        to->properties = ezeb_proplist_dup(from->properties);
        ok = to->properties != nullptr;
    }
    if (!ok)
        release_contents(to);
    return ok;
}

zeb_logicaladdr *ezeb_logicaladdr_dup(const zeb_logicaladdr *address)
{
    auto *copy = ezeb_new<zeb_logicaladdr>();
    if (copy != nullptr && copy_contents(copy, address))
        return copy;
    ezeb_free(copy);
    return nullptr;
}

void ezeb_logicaladdr_destroy(zeb_logicaladdr **address)
{
    if (address == nullptr || *address == nullptr)
        return;
    release_contents(*address);
    ezeb_free(*address);
    *address = nullptr;
}

const char *ezeb_logicaladdr_getTierId(const zeb_logicaladdr *address)
{
    return address != nullptr ? address->tierId : nullptr;
}

const char *ezeb_logicaladdr_getTier(const zeb_logicaladdr *address)
{
    return address != nullptr ? address->tier : nullptr;
}

const char *ezeb_logicaladdr_getSubscription(const zeb_logicaladdr *address)
{
    return address != nullptr ? address->subscription : nullptr;
}

const char *ezeb_logicaladdr_getInstanceName(const zeb_logicaladdr *address)
{
    return address != nullptr ? address->instanceName : nullptr;
}

const char *ezeb_logicaladdr_getHostName(const zeb_logicaladdr *address)
{
    return address != nullptr ? address->hostName : nullptr;
}

const char *ezeb_logicaladdr_getComponent(const zeb_logicaladdr *address)
{
    return address != nullptr ? address->component : nullptr;
}

const char *ezeb_logicaladdr_getProperty(const zeb_logicaladdr *address, const char *name)
{
    return address != nullptr ? ezeb_proplist_get(address->properties, name) : nullptr;
}

zeb_property *ezeb_logicaladdr_getPropertyIndex(const zeb_logicaladdr *address, int32_t index)
{
    return address != nullptr ? ezeb_proplist_getIndex(address->properties, index) : nullptr;
}

int32_t ezeb_logicaladdr_getPropertyCount(const zeb_logicaladdr *address)
{
    return address != nullptr ? ezeb_proplist_count(address->properties) : 0;
}

/* Addresses that this library wrote carry no key: nothing is known of them, so they equal nothing, not even
 * themselves. */
int32_t ezeb_logicaladdr_equals(const zeb_logicaladdr *a, const zeb_logicaladdr *b)
{
    return a != nullptr && b != nullptr && a->key != nullptr && b->key != nullptr &&
           strcmp(a->key, b->key) == 0;
}

static void add_labelled(ezeb_text *text, const char *label, const char *value)
{
    ezeb_text_add(text, label);
    ezeb_text_add(text, value);
}

char *ezeb_logicaladdr_toString(const zeb_logicaladdr *address)
{
    if (address == nullptr)
        return nullptr;
    ezeb_text text = {};
    add_labelled(&text, "{TierId=", address->tierId);
    add_labelled(&text, ",Tier=", address->tier);
    add_labelled(&text, ",Hostname=", address->hostName);
    add_labelled(&text, ",InstanceName=", address->instanceName);
    add_labelled(&text, ",Component=", address->component);
    add_labelled(&text, ",Subscription=", address->subscription);
    for (int32_t i = 0; i < ezeb_logicaladdr_getPropertyCount(address); i++) {
        add_labelled(&text, ",", address->properties->entries[i].name);
        add_labelled(&text, "=", address->properties->entries[i].value);
    }
    ezeb_text_add(&text, "}");
    return ezeb_text_finish(&text);
}

/* ---- Lists ---- */

zeb_laddrlist *ezeb_laddrlist_create(void)
{
    return ezeb_new<zeb_laddrlist>();
}

/* An empty entry at the end, not counted yet; null when memory is out. */
static zeb_logicaladdr *next_entry(zeb_laddrlist *list)
{
    if (list->count >= list->capacity) {
        const auto wanted = static_cast<size_t>(list->capacity) + EZEB_LADDRLIST_STEP;
        auto *grown =
            static_cast<zeb_logicaladdr *>(ezeb_realloc(list->entries, wanted * sizeof(zeb_logicaladdr)));
        if (grown == nullptr)
            return nullptr;
        list->entries = grown;
        list->capacity += EZEB_LADDRLIST_STEP;
    }
    zeb_logicaladdr *entry = &list->entries[list->count];
    *entry = zeb_logicaladdr{};
    return entry;
}

/* The copy is made before the array can move: ADDRESS may be one of its entries. */
void ezeb_laddrlist_add(zeb_laddrlist *list, const zeb_logicaladdr *address)
{
    if (list == nullptr || address == nullptr)
        return;
    zeb_logicaladdr copy = {};
    if (!copy_contents(&copy, address))
        return;
    zeb_logicaladdr *entry = next_entry(list);
    if (entry == nullptr) {
        release_contents(&copy);
        return;
    }
    *entry = copy;
    list->count++;
}

/* Only the upper bound is looked at: a negative index is the caller's error. */
zeb_logicaladdr *ezeb_laddrlist_get(const zeb_laddrlist *list, int32_t index)
{
    return list != nullptr && index < list->count ? &list->entries[index] : nullptr;
}

int32_t ezeb_laddrlist_count(const zeb_laddrlist *list)
{
    return list != nullptr ? list->count : 0;
}

zeb_laddrlist *ezeb_laddrlist_dup(const zeb_laddrlist *list)
{
    if (list == nullptr)
        return nullptr;
    zeb_laddrlist *copy = ezeb_laddrlist_create();
    if (copy == nullptr)
        return nullptr;
    for (int32_t i = 0; i < list->count; i++) {
        ezeb_laddrlist_add(copy, &list->entries[i]);
        if (copy->count == i) {
            ezeb_laddrlist_destroy(&copy);
            return nullptr;
        }
    }
    return copy;
}

void ezeb_laddrlist_clear(zeb_laddrlist *list)
{
    if (list == nullptr)
        return;
    for (int32_t i = 0; i < list->count; i++)
        release_contents(&list->entries[i]);
    ezeb_free(list->entries);
    *list = zeb_laddrlist{};
}

void ezeb_laddrlist_destroy(zeb_laddrlist **list)
{
    if (list == nullptr || *list == nullptr)
        return;
    zeb_laddrlist *gone = *list;
    *list = nullptr;
    ezeb_laddrlist_clear(gone);
    ezeb_free(gone);
}

static int32_t find(const zeb_laddrlist *list, const zeb_logicaladdr *address)
{
    for (int32_t i = 0; i < ezeb_laddrlist_count(list); i++) {
        if (ezeb_logicaladdr_equals(&list->entries[i], address))
            return i;
    }
    return -1;
}

int32_t ezeb_laddrlist_contains(const zeb_laddrlist *list, const zeb_logicaladdr *address)
{
    return find(list, address) >= 0;
}

int32_t ezeb_laddrlist_del(zeb_laddrlist *list, const zeb_logicaladdr *address)
{
    const int32_t at = find(list, address);
    if (at < 0)
        return 0;
    release_contents(&list->entries[at]);
    list->count--;
    memmove(static_cast<void *>(&list->entries[at]), &list->entries[at + 1],
            static_cast<size_t>(list->count - at) * sizeof(zeb_logicaladdr));
    return 1;
}

/* ---- On the wire ---- */

static bool add_address(zeb_bb_seg *segment, const zeb_logicaladdr *address)
{
    bool ok = segment != nullptr;
    for (const text_field &t : text_fields) {
        if (address->*t.field != nullptr)
            ok = ok && ezeb_bb_seg_addelement(segment, t.element, address->*t.field) != nullptr;
    }
    ok = ok &&
         ezeb_bb_seg_addelement_b(segment, "address", address->address, address->addressLength) != nullptr;
    if (address->matcher != nullptr)
        ok = ok && ezeb_bb_seg_addelement_b(segment, "matcher", address->matcher, address->matcherLength) !=
                       nullptr;
    zeb_bb_seg *properties = ok ? ezeb_bb_seg_addsegment(segment, "properties") : nullptr;
    ok = properties != nullptr; /* there also without a single property */
    for (int32_t i = 0; ok && i < ezeb_proplist_count(address->properties); i++) {
        const zeb_property *p = &address->properties->entries[i];
        ok = ezeb_bb_seg_addelement(properties, p->name, p->value) != nullptr;
    }
    return ok;
}

void *ezeb_laddrlist_toBody(const zeb_laddrlist *list, int32_t *length)
{
    *length = 0;
    if (ezeb_laddrlist_count(list) == 0)
        return nullptr;
    zeb_bb *block = ezeb_bb_create();
    bool ok = block != nullptr;
    for (int32_t i = 0; ok && i < list->count; i++) {
        char name[sizeof("dstAddr") + EZEB_INT_TEXT];
        ezeb_int2str(ezeb_addstr(name, "dstAddr"), i);
        ok = add_address(ezeb_bb_appendsegment(block, name), &list->entries[i]);
    }
    void *body = ok ? ezeb_bb_block2body(block, length) : nullptr;
    if (ok && ezeb_bb_encodedsize(block) > INT32_MAX)
        *length = -1;
    ezeb_bb_destroy(block);
    return body;
}

static char *take_text(const zeb_bb_seg *segment, const char *element)
{
    return const_cast<char *>(ezeb_bb_seg_getelement(segment, element, nullptr));
}

/* Names are unique within a segment, so nothing is searched: many properties stay cheap. */
static zeb_proplist *read_properties(const zeb_bb_seg *segment)
{
    if (segment == nullptr)
        return nullptr;
    zeb_proplist *list = ezeb_proplist_create();
    for (const zeb_bb_elem *e = segment->elements.first; list != nullptr && e != nullptr; e = e->next)
        ezeb_proplist_append(list, e->name, e->value);
    return list;
}

/* Fills ENTRY, which is empty, from SEGMENT; false when memory is out. */
static bool read_address(const zeb_bb_seg *segment, zeb_logicaladdr *entry)
{
    zeb_logicaladdr borrowed = {}; /* strings of the block, to be copied like any other address */
    for (const text_field &t : text_fields)
        borrowed.*t.field = take_text(segment, t.element);
    borrowed.key = take_text(segment, "key");
    borrowed.address =
        const_cast<char *>(ezeb_bb_seg_getelement(segment, "address", &borrowed.addressLength));
    borrowed.matcher =
        const_cast<char *>(ezeb_bb_seg_getelement(segment, "matcher", &borrowed.matcherLength));
    if (!copy_contents(entry, &borrowed))
        return false;
    entry->properties = read_properties(ezeb_bb_seg_getsegment(segment, "properties"));
    return true;
}

static void read_generating(zeb_logicaladdr **generating, const zeb_bb_seg *segment)
{
    ezeb_logicaladdr_destroy(generating); /* a later one takes the place of the former */
    auto *fresh = ezeb_new<zeb_logicaladdr>();
    if (fresh != nullptr && read_address(segment, fresh))
        *generating = fresh;
    else
        ezeb_free(fresh);
}

static void read_entry(zeb_laddrlist **list, const zeb_bb_seg *segment)
{
    if (*list == nullptr)
        *list = ezeb_laddrlist_create();
    zeb_logicaladdr *entry = *list != nullptr ? next_entry(*list) : nullptr;
    if (entry != nullptr && read_address(segment, entry))
        (*list)->count++;
}

void ezeb_laddrlist_fromBody(zeb_logicaladdr **generating, zeb_laddrlist **destinations,
                             zeb_laddrlist **members, zeb_laddrlist **added, zeb_laddrlist **removed,
                             const void *body, int32_t length)
{
    *generating = nullptr;
    zeb_bb *block = ezeb_bb_body2block(body, length);
    zeb_laddrlist **list = nullptr; /* the one chosen last; a segment of an unknown kind goes there too */
    for (const zeb_bb_seg *s = block != nullptr ? block->segments.first : nullptr; s != nullptr;
         s = s->next) {
        /* The second character of a name says whose address it is; no other matters. */
        switch (s->namelength > 1 ? s->name[1] : '\0') {
        case 'r':
            read_generating(generating, s);
            continue;
        case 's':
            list = destinations;
            break;
        case 'b':
            list = members;
            break;
        case 'd':
            list = added;
            break;
        case 'e':
            list = removed;
            break;
        default:
            break;
        }
        if (list != nullptr)
            read_entry(list, s);
    }
    ezeb_bb_destroy(block);
}
