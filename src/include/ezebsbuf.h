/* Buffered reading and writing over one connected socket. One thread uses a buffer, for reading or for
 * writing; only ezeb_sb_invalidate comes from elsewhere. The buffer never closes the descriptor. Results are
 * 1, or 0 for a failure, which every caller takes for the loss of the connection. */
#ifndef EZEBSBUF_H
#define EZEBSBUF_H

#include "ezeblock.h"

#include <stddef.h>
#include <stdint.h>
#include <string.h>

enum {
    EZEB_SB_STEP = 2048,  /* first size, and the step of growth */
    EZEB_SB_PATIENCE = 16 /* reads for which settling may be put off */
};

struct ezeb_sb {
    char *buf;
    uint32_t capacity; /* how much of it is used */
    uint32_t room;     /* how much there is */
    uint32_t start;    /* first byte not consumed */
    uint32_t end;      /* behind the last byte read, or the last byte waiting to be written */
    uint32_t scanned;  /* a line end is known not to be before this; keeps long lines linear */
    int32_t fd;
    int32_t valid;    /* cleared by any thread, through ezeb_flag_set */
    bool moreFollows; /* what is flushed will be followed by another message at once */
    bool heldBack;    /* the kernel may keep what was written last until more comes */
    uint64_t sent;    /* bytes handed to the kernel since creation */
    bool drained;     /* the last read got less than it had room for */
    int32_t patience; /* reads that may still go before settling */
    void (*settle)(void *context);
    void *settleContext;
};

ezeb_sb *ezeb_sb_create(int32_t fd); /* null when FD is -1 or memory is out */
void ezeb_sb_free(ezeb_sb *sb);      /* null is ignored */
int32_t ezeb_sb_getfd(const ezeb_sb *sb);
void ezeb_sb_invalidate(ezeb_sb *sb);

/* The rest of ezeb_sb_getline: reads until there is a whole line. */
int32_t ezeb_sb_getlinefar(ezeb_sb *sb, char **line, size_t *length);

/* Next line without its line feed and one carriage return before it, with its length. *LINE lives until the
 * next call on this buffer. Lines have no limit but memory. Inline, since an event takes some twenty of them.
 */
inline int32_t ezeb_sb_getline(ezeb_sb *sb, char **line, size_t *length)
{
    char *begin = sb->buf + sb->start;
    const uint32_t from = sb->scanned > sb->start ? sb->scanned : sb->start;
    char *end = static_cast<char *>(memchr(sb->buf + from, '\n', sb->end - from));
    if (end == nullptr || ezeb_flag_get(&sb->valid) == 0)
        return ezeb_sb_getlinefar(sb, line, length);
    sb->start = static_cast<uint32_t>(end + 1 - sb->buf);
    if (end > begin && end[-1] == '\r')
        end--;
    *end = '\0';
    *line = begin;
    *length = static_cast<size_t>(end - begin);
    return 1;
}

/* The same without the length. */
inline int32_t ezeb_sb_gets(ezeb_sb *sb, char **line)
{
    size_t length;
    return ezeb_sb_getline(sb, line, &length);
}

/* Exactly LENGTH bytes. A failure says on standard error how many are missing; the second form counts LATER
 * bytes more, which the caller would have asked for next. */
int32_t ezeb_sb_readbytes(ezeb_sb *sb, void *dst, size_t length);
int32_t ezeb_sb_readpart(ezeb_sb *sb, void *dst, size_t length, size_t later);

/* The rest of ezeb_sb_skip: reads what is missing. */
int32_t ezeb_sb_skipfar(ezeb_sb *sb, size_t length);

inline int32_t ezeb_sb_skip(ezeb_sb *sb, size_t length)
{
    if (length > sb->end - sb->start || ezeb_flag_get(&sb->valid) == 0)
        return ezeb_sb_skipfar(sb, length);
    sb->start += static_cast<uint32_t>(length);
    return 1;
}

/* Has SETTLE called, once: before a read that may wait, after one that failed, or when a few reads have gone
 * by. The second form calls it now, if it is still to be called. */
void ezeb_sb_beforewait(ezeb_sb *sb, void (*settle)(void *context), void *context);
void ezeb_sb_settle(ezeb_sb *sb);

/* The rest of ezeb_sb_write: hands what is pending to the kernel, and DATA as well when no buffer holds it.
 */
int32_t ezeb_sb_writethrough(ezeb_sb *sb, const void *data, size_t length);

/* Inline, since an event takes some forty of them, half of a length that the compiler knows. */
inline int32_t ezeb_sb_write(ezeb_sb *sb, const void *data, size_t length)
{
    if (sb->capacity - sb->end < length || ezeb_flag_get(&sb->valid) == 0)
        return ezeb_sb_writethrough(sb, data, length);
    if (length > 0)
        memcpy(sb->buf + sb->end, data, length);
    sb->end += static_cast<uint32_t>(length);
    return 1;
}

/* A string; null writes nothing. */
inline int32_t ezeb_sb_puts(ezeb_sb *sb, const char *s)
{
    return s == nullptr ? 1 : ezeb_sb_write(sb, s, strlen(s));
}

int32_t ezeb_sb_flush(ezeb_sb *sb);

/* Whether the messages from here on will be followed by another one at once: then the kernel may keep what is
 * flushed, to send it with what follows. The second sends what is kept, should nothing have followed. */
void ezeb_sb_more(ezeb_sb *sb, bool follows);
void ezeb_sb_release(ezeb_sb *sb);

#endif
