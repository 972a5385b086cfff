/* The connection record: who closes the descriptor, and when. */
#include "ezebconnection.h"

#include "ezeblock.h"
#include "ezebutil.h"

#include <sys/socket.h>
#include <unistd.h>

ezeb_connection *ezeb_connection_create(int32_t fd, uint64_t generation)
{
    auto *connection = ezeb_new<ezeb_connection>();
    if (connection == nullptr)
        return nullptr;
    connection->fd = fd;
    connection->generation = generation;
    connection->references = 1;
    return connection;
}

ezeb_connection *ezeb_connection_ref(ezeb_connection *connection)
{
    if (connection != nullptr)
        ezeb_ref(&connection->references);
    return connection;
}

void ezeb_connection_unref(ezeb_connection *connection)
{
    if (connection == nullptr || !ezeb_unref(&connection->references))
        return;
    /* The socket lingers for as long as the process may keep it open; closing must not wait for that. Nothing
     * is lost: what was written is the kernel's to deliver. */
    const struct linger off = {};
    setsockopt(connection->fd, SOL_SOCKET, SO_LINGER, &off, sizeof(off));
    close(connection->fd);
    ezeb_free(connection);
}

void ezeb_connection_cut(ezeb_connection *connection)
{
    if (connection == nullptr)
        return;
    ezeb_flag_set(&connection->dead, 1);
    shutdown(connection->fd, SHUT_RDWR);
}

int32_t ezeb_connection_alive(const ezeb_connection *connection)
{
    return ezeb_flag_get(&connection->dead) == 0;
}
