/* What the kernel takes of the bytes that the library of this process writes, connection by connection.
 *
 * Linked into a program, it replaces connect, write and send for every library in it. Nothing is recorded
 * until keep is called. */
#pragma once

#include <string>

namespace storms::records
{

/* Of connections that are made from now on. */
void keep();

/* Writes all of it to the file PATH: for each connection, in the order in which they were made, a line "PORT
 * OCTETS" with the port at this end, then the octets. */
void save(const std::string &path);

} // namespace storms::records
