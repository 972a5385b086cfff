/* Publishers. */
#ifndef EZEBPUBLISHER_H
#define EZEBPUBLISHER_H

#include "zeb.h"

struct ezeb_runtime;

/* Counted: by the application's handle (or the owning subscriber), and by whatever in the library publishes
 * through it later. */
struct zeb_publisher {
    int32_t references;         /* through ezeb_ref and ezeb_unref */
    uint32_t sequence;          /* next number, taken atomically */
    zeb_publisher *nextRetired; /* in the runtime's list of what its end releases */

    /* Constant from creation to the last reference; null after a fork, in the child. */
    int32_t id;
    int32_t subscriberId; /* 0 for the application's own */
    char *component;
    char *idPrefix; /* host name, ':', process id and the publisher's number, which the sequence number
                       follows */
};

zeb_publisher *ezeb_publisher_create(const char *component, int32_t subscriberId, int32_t waitForConnection,
                                     int32_t waitMilliseconds);
void ezeb_publisher_publish(zeb_publisher *publisher, zeb_notification *n);
void ezeb_publisher_close(zeb_publisher *publisher);
zeb_publisher *ezeb_publisher_ref(zeb_publisher *publisher); /* null for null */
void ezeb_publisher_unref(zeb_publisher *publisher);         /* null is ignored */

/* Publishes a notification that the library itself made: destroyed when there is no runtime to take it. */
void ezeb_publisher_publishown(zeb_publisher *publisher, zeb_notification *n);

/* In a forked child: leaves a dead handle, whose functions do nothing. */
void ezeb_publisher_freepub(zeb_publisher *publisher);

int32_t ezeb_one_time_publish(const char *component, zeb_notification *n);

#endif
