/* The reads and writes of the library, which the linker leads here. Only those of the fuzz descriptor are
 * answered; diagnostics are dropped, since millions of inputs are wrong on purpose. */
#include "fuzz.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <sys/socket.h>
#include <unistd.h>

namespace
{

std::string_view rest;
fuzz::row pieces(0);
uint32_t longest;

} // namespace

void fuzz::serve(std::string_view bytes, uint32_t seed)
{
    rest = bytes;
    pieces = row(seed);
    longest = seed == 0 ? UINT32_MAX : 1 + pieces.next(seed % 2 == 0 ? 7 : 600);
}

size_t fuzz::unread()
{
    return rest.size();
}

extern "C" ssize_t __real_read(int fd, void *buffer, size_t length);
extern "C" ssize_t __real_recv(int fd, void *buffer, size_t length, int flags);
extern "C" ssize_t __real_write(int fd, const void *buffer, size_t length);
extern "C" ssize_t __real_send(int fd, const void *buffer, size_t length, int flags);

static ssize_t serve_piece(void *buffer, size_t length)
{
    size_t n = std::min(length, rest.size());
    if (longest != UINT32_MAX)
        n = std::min<size_t>(n, 1 + pieces.next(longest));
    if (n > 0)
        memcpy(buffer, rest.data(), n);
    rest.remove_prefix(n);
    return static_cast<ssize_t>(n);
}

extern "C" ssize_t __wrap_read(int fd, void *buffer, size_t length)
{
    return fd == fuzz::descriptor ? serve_piece(buffer, length) : __real_read(fd, buffer, length);
}

/* Without waiting: now and then there is nothing yet. */
extern "C" ssize_t __wrap_recv(int fd, void *buffer, size_t length, int flags)
{
    if (fd != fuzz::descriptor)
        return __real_recv(fd, buffer, length, flags);
    if (longest != UINT32_MAX && (flags & MSG_DONTWAIT) != 0 && pieces.next(4) == 0) {
        errno = EAGAIN;
        return -1;
    }
    return serve_piece(buffer, length);
}

extern "C" ssize_t __wrap_write(int fd, const void *buffer, size_t length)
{
    if (fd == fuzz::descriptor || fd == STDERR_FILENO)
        return static_cast<ssize_t>(length);
    return __real_write(fd, buffer, length);
}

extern "C" ssize_t __wrap_send(int fd, const void *buffer, size_t length, int flags)
{
    if (fd == fuzz::descriptor)
        return static_cast<ssize_t>(length);
    return __real_send(fd, buffer, length, flags);
}
