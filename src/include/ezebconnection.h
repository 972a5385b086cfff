/* One TCP connection to the daemon, shared by the two service threads.
 *
 * The descriptor is closed by whoever gives back the last reference, so nobody ever writes to a number that
 * belongs to somebody else by now. A loss is made known at once by cutting: both directions are shut down,
 * which ends a blocked connect, read or write, and the number stays taken until the last user is gone. */
#ifndef EZEBCONNECTION_H
#define EZEBCONNECTION_H

#include <stdint.h>

struct ezeb_connection {
    int32_t fd;          /* constant */
    uint64_t generation; /* constant; 1 for the first connection of a runtime, rising */
    int32_t references;  /* through ezeb_ref and ezeb_unref */
    int32_t dead;        /* one-way flag: cut */
};

ezeb_connection *ezeb_connection_create(int32_t fd,
                                        uint64_t generation); /* one reference; null when memory is out */
ezeb_connection *ezeb_connection_ref(ezeb_connection *connection); /* null for null */
void ezeb_connection_unref(ezeb_connection *connection);           /* null is ignored */
void ezeb_connection_cut(ezeb_connection *connection);
int32_t ezeb_connection_alive(const ezeb_connection *connection); /* not cut */

#endif
