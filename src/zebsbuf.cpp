/* Buffered reading and writing over one socket. Each buffer belongs to one service thread; both block every
 * signal, so a read or write is never interrupted there, and a vanished peer is an error instead of a signal.
 */
#include "ezebsbuf.h"

#include "ezeblock.h"
#include "ezebutil.h"

#include <errno.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

ezeb_sb *ezeb_sb_create(int32_t fd)
{
    if (fd == -1)
        return nullptr;
    auto *sb = ezeb_new<ezeb_sb>();
    if (sb == nullptr)
        return nullptr;
    sb->buf = static_cast<char *>(ezeb_malloc(EZEB_SB_STEP));
    if (sb->buf == nullptr) {
        ezeb_free(sb);
        return nullptr;
    }
    sb->capacity = EZEB_SB_STEP;
    sb->room = EZEB_SB_STEP;
    sb->fd = fd;
    sb->valid = 1;
    return sb;
}

void ezeb_sb_free(ezeb_sb *sb)
{
    if (sb == nullptr)
        return;
    ezeb_free(sb->buf);
    ezeb_free(sb);
}

int32_t ezeb_sb_getfd(const ezeb_sb *sb)
{
    return sb->fd;
}

void ezeb_sb_invalidate(ezeb_sb *sb)
{
    ezeb_flag_set(&sb->valid, 0);
}

static bool is_valid(const ezeb_sb *sb)
{
    return ezeb_flag_get(&sb->valid) != 0;
}

/* ---- Reading ---- */

static void move_to_front(ezeb_sb *sb)
{
    if (sb->start > 0 && sb->end > sb->start)
        memmove(sb->buf, sb->buf + sb->start, sb->end - sb->start);
    sb->end -= sb->start;
    sb->scanned = sb->scanned > sb->start ? sb->scanned - sb->start : 0;
    sb->start = 0;
}

/* Lines have no upper limit; only the 32-bit indexes set one. The buffer grows by its step, its memory by an
 * eighth at least: each time it may move, and a long line would have all its pages moved for every step. */
static bool grow(ezeb_sb *sb)
{
    if (sb->capacity > UINT32_MAX - EZEB_SB_STEP)
        return false;
    const uint32_t capacity = sb->capacity + static_cast<uint32_t>(EZEB_SB_STEP);
    if (capacity > sb->room) {
        const uint32_t more = capacity / 8;
        const uint32_t room = capacity > UINT32_MAX - more ? UINT32_MAX : capacity + more;
        char *grown = static_cast<char *>(ezeb_realloc(sb->buf, room));
        if (grown == nullptr)
            return false;
        sb->buf = grown;
        sb->room = room;
    }
    sb->capacity = capacity;
    return true;
}

void ezeb_sb_beforewait(ezeb_sb *sb, void (*settle)(void *context), void *context)
{
    sb->settle = settle;
    sb->settleContext = context;
    sb->patience = EZEB_SB_PATIENCE;
}

void ezeb_sb_settle(ezeb_sb *sb)
{
    void (*const settle)(void *context) = sb->settle;
    sb->settle = nullptr;
    if (settle != nullptr)
        settle(sb->settleContext);
}

/* One read. What is to be settled before a wait may be put off while there is something to read, for a
 * bounded number of bounded reads: after one that got less than it had room for there is nothing. */
static ssize_t read_some(ezeb_sb *sb, char *to, size_t room)
{
    ssize_t n = 0;
    bool waits = true;
    if (sb->settle != nullptr) {
        if (!sb->drained && room <= EZEB_SB_STEP && sb->patience-- > 0) {
            n = recv(sb->fd, to, room, MSG_DONTWAIT);
            waits = n < 0 && errno == EAGAIN;
        }
        if (n <= 0)
            ezeb_sb_settle(sb);
    }
    if (waits)
        n = read(sb->fd, to, room);
    sb->drained = n < static_cast<ssize_t>(room);
    return n;
}

/* One read into the free space. */
static bool fill(ezeb_sb *sb)
{
    move_to_front(sb);
    if (sb->end == sb->capacity && !grow(sb))
        return false;
    const ssize_t n = read_some(sb, sb->buf + sb->end, sb->capacity - sb->end);
    if (n <= 0)
        return false;
    sb->end += static_cast<uint32_t>(n);
    return true;
}

int32_t ezeb_sb_getlinefar(ezeb_sb *sb, char **line, size_t *length)
{
    if (!is_valid(sb))
        return 0;
    if (sb->scanned < sb->start)
        sb->scanned = sb->start;
    while (memchr(sb->buf + sb->scanned, '\n', sb->end - sb->scanned) == nullptr) {
        sb->scanned = sb->end;
        if (!is_valid(sb) || !fill(sb))
            return 0;
    }
    return ezeb_sb_getline(sb, line, length);
}

int32_t ezeb_sb_readbytes(ezeb_sb *sb, void *dst, size_t length)
{
    return ezeb_sb_readpart(sb, dst, length, 0);
}

int32_t ezeb_sb_readpart(ezeb_sb *sb, void *dst, size_t length, size_t later)
{
    if (!is_valid(sb))
        return 0;
    const size_t buffered = sb->end - sb->start;
    const size_t first = length <= buffered ? length : buffered;
    if (first > 0)
        memcpy(dst, sb->buf + sb->start, first);
    sb->start += static_cast<uint32_t>(first);
    char *to = static_cast<char *>(dst) + first;
    for (size_t missing = length - first; missing > 0;) {
        const ssize_t n = read_some(sb, to, missing);
        if (n <= 0) {
            ezeb_diag("READ LESS THAN THE FULL BUFFER, ret=%d, len=%d\n", static_cast<int>(n),
                      static_cast<int>(missing + later));
            return 0;
        }
        to += n;
        missing -= static_cast<size_t>(n);
    }
    return 1;
}

int32_t ezeb_sb_skipfar(ezeb_sb *sb, size_t length)
{
    for (;;) {
        if (!is_valid(sb))
            return 0;
        const size_t buffered = sb->end - sb->start;
        if (length <= buffered) {
            sb->start += static_cast<uint32_t>(length);
            return 1;
        }
        length -= buffered;
        sb->start = sb->end;
        if (!fill(sb))
            return 0;
    }
}

/* ---- Writing ---- */

/* One call. What is known to be followed by more may wait in the kernel for it, so that small messages in a
 * row share segments; without that, and with Nagle's algorithm off, each would go in one of its own. */
static ssize_t write_some(ezeb_sb *sb, const char *data, size_t length, bool more)
{
    const ssize_t written = send(sb->fd, data, length, more ? MSG_MORE : 0);
    if (written > 0)
        sb->heldBack = more; /* a call that fails leaves what is kept where it is */
    return written;
}

/* Writes everything. On a blocking socket a short count means that the connection is failing: the next write
 * says so. */
static bool write_all(ezeb_sb *sb, const char *data, size_t length, bool more)
{
    while (length > 0) {
        const ssize_t n = write_some(sb, data, length, more);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return false;
        sb->sent += static_cast<uint64_t>(n);
        data += n;
        length -= static_cast<size_t>(n);
    }
    return true;
}

/* Hands what is pending to the kernel in one call. */
static bool flush(ezeb_sb *sb, bool more)
{
    const uint32_t pending = sb->end;
    sb->start = 0;
    sb->end = 0;
    sb->scanned = 0;
    return write_all(sb, sb->buf, pending, more);
}

int32_t ezeb_sb_writethrough(ezeb_sb *sb, const void *data, size_t length)
{
    if (!is_valid(sb) || !flush(sb, true))
        return 0;
    if (length > sb->capacity)
        return write_all(sb, static_cast<const char *>(data), length, sb->moreFollows);
    return ezeb_sb_write(sb, data, length);
}

int32_t ezeb_sb_flush(ezeb_sb *sb)
{
    return is_valid(sb) && flush(sb, sb->moreFollows);
}

void ezeb_sb_more(ezeb_sb *sb, bool follows)
{
    sb->moreFollows = follows;
}

/* Setting the option sends what the kernel keeps. */
void ezeb_sb_release(ezeb_sb *sb)
{
    if (!sb->heldBack || !is_valid(sb))
        return;
    const int on = 1;
    setsockopt(sb->fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
    sb->heldBack = false;
}
