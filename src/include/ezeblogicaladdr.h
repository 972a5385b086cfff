/* Logical addresses and lists of them, and how lists travel as body blocks. */
#ifndef EZEBLOGICALADDR_H
#define EZEBLOGICALADDR_H

#include "zeb.h"

enum { EZEB_LADDRLIST_STEP = 16 };

/* All strings, both runs of bytes and the properties are owned. The key is the identity. */
struct zeb_logicaladdr {
    char *id;
    char *tier;
    char *tierId;
    char *component;
    char *hostName;
    char *instanceName;
    char *subscription;
    char *key;
    char *matcher;
    int32_t matcherLength;
    char *address;
    int32_t addressLength;
    zeb_proplist *properties;
};

struct zeb_laddrlist {
    zeb_logicaladdr *entries; /* by value; moved bitwise when the array grows */
    int32_t capacity;
    int32_t count;
};

void ezeb_laddrlist_add(zeb_laddrlist *list, const zeb_logicaladdr *address);
zeb_logicaladdr *ezeb_laddrlist_get(const zeb_laddrlist *list, int32_t index);
int32_t ezeb_laddrlist_count(const zeb_laddrlist *list);
void ezeb_laddrlist_destroy(zeb_laddrlist **list);
zeb_laddrlist *ezeb_laddrlist_dup(const zeb_laddrlist *list);
zeb_laddrlist *ezeb_laddrlist_create(void);
char *ezeb_logicaladdr_toString(const zeb_logicaladdr *address);
const char *ezeb_logicaladdr_getProperty(const zeb_logicaladdr *address, const char *name);
zeb_property *ezeb_logicaladdr_getPropertyIndex(const zeb_logicaladdr *address, int32_t index);
int32_t ezeb_logicaladdr_getPropertyCount(const zeb_logicaladdr *address);
int32_t ezeb_logicaladdr_equals(const zeb_logicaladdr *a, const zeb_logicaladdr *b);
const char *ezeb_logicaladdr_getTierId(const zeb_logicaladdr *address);
const char *ezeb_logicaladdr_getTier(const zeb_logicaladdr *address);
const char *ezeb_logicaladdr_getSubscription(const zeb_logicaladdr *address);
const char *ezeb_logicaladdr_getInstanceName(const zeb_logicaladdr *address);
const char *ezeb_logicaladdr_getHostName(const zeb_logicaladdr *address);
const char *ezeb_logicaladdr_getComponent(const zeb_logicaladdr *address);

/* must not be null; null when memory is out */
zeb_logicaladdr *ezeb_logicaladdr_dup(const zeb_logicaladdr *address);
void ezeb_logicaladdr_destroy(zeb_logicaladdr **address);

int32_t ezeb_laddrlist_contains(const zeb_laddrlist *list, const zeb_logicaladdr *address);
int32_t ezeb_laddrlist_del(zeb_laddrlist *list,
                           const zeb_logicaladdr *address); /* the first equal one; 1 when there was one */
void ezeb_laddrlist_clear(zeb_laddrlist *list);

/* New bytes of LIST with destination names, their count in *LENGTH; null with 0 for null or an empty list,
 * null with -1 when they would be too many to be sent, null with 0 also when memory is out. */
void *ezeb_laddrlist_toBody(const zeb_laddrlist *list, int32_t *length);

/* Fills the outputs from BODY; lists that are null are created when there is something for them. Bytes that
 * are no body block fill nothing. */
void ezeb_laddrlist_fromBody(zeb_logicaladdr **generating, zeb_laddrlist **destinations,
                             zeb_laddrlist **members, zeb_laddrlist **added, zeb_laddrlist **removed,
                             const void *body, int32_t length);

#endif
