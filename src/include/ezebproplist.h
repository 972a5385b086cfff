/* Property lists: an array in the order of insertion, searched from its start. */
#ifndef EZEBPROPLIST_H
#define EZEBPROPLIST_H

#include "zeb.h"

enum { EZEB_PROPLIST_STEP = 8 };

struct zeb_proplist {
    zeb_property *entries; /* null until the first put; names and values are owned copies */
    int32_t capacity;
    int32_t count;
};

int32_t ezeb_proplist_count(const zeb_proplist *list);
const char *ezeb_proplist_get(const zeb_proplist *list, const char *name);
zeb_property *ezeb_proplist_getIndex(const zeb_proplist *list, int32_t index);
zeb_property *ezeb_proplist_put(zeb_proplist *list, const char *name, const char *value);
void ezeb_proplist_destroy(zeb_proplist **list);
zeb_proplist *ezeb_proplist_create(void);

/* Adds a name that is known not to be there, without looking. 0 when memory is out. */
int32_t ezeb_proplist_append(zeb_proplist *list, const char *name, const char *value);

/* deep copy; null for null or when memory is out */
zeb_proplist *ezeb_proplist_dup(const zeb_proplist *list);

#endif
