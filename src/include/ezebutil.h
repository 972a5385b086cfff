/* Memory, strings, numbers and diagnostics, used by every module.
 *
 * All allocation of the library goes through ezeb_malloc and its kin. Everything they return may also be
 * released with the system's free, since texts and bodies go out to callers that do so. */
#ifndef EZEBUTIL_H
#define EZEBUTIL_H

#include <stddef.h>
#include <stdint.h>
#include <string.h>

#include <new>

void *ezeb_malloc(size_t size);
void *ezeb_zalloc(size_t size); /* zeroed */
void *ezeb_realloc(void *ptr, size_t size);
void ezeb_free(const void *ptr); /* null is ignored */

char *ezeb_strdup(const char *s);        /* S must not be null */
char *ezeb_strdup_ornull(const char *s); /* null for null */
void *ezeb_memdup(const void *data, size_t length);

/* Zeroed record of type T, or null. */
template <typename T>
inline T *ezeb_new()
{
    void *memory = ezeb_malloc(sizeof(T));
    return memory != nullptr ? new (memory) T() : nullptr;
}

/* *OUT = S as an integer of base 10, 8 (leading 0) or 16 (leading 0x), cut to 32 bits; 0 for null or "".
 * Returns 1 when all of S was a number, else 0. */
int32_t ezeb_str2int(const char *s, int32_t *out);

/* S as decimal number, as far as it is one; 0 when it does not begin with one. Cut to 32 bits. */
int32_t ezeb_decimal(const char *s);

/* First run of digits anywhere in S, negative when a '-' stands right before it; 0 without digits. Wraps at
 * 64 bits. */
int64_t ezeb_str2ll(const char *s);

enum { EZEB_INT_TEXT = 24 }; /* room for the decimal text of any 64-bit number with its NUL */

/* Writes V in decimal to DST and returns the place of the NUL. INT64_MIN gives "-(", as it always has. */
char *ezeb_int2str(char *dst, int64_t v);

/* Copies SRC with its NUL to DST and returns the place of the NUL, so that appends can be chained. */
char *ezeb_addstr(char *dst, const char *src);

/* Appends formatted text to *BUF, a string made by this function alone, or null for a new one. Returns the
 * new length; -1, *BUF as it was, when BUF is null, memory is out or the text would reach 2 GiB. The capacity
 * stands in the allocation behind the string's NUL, at the next multiple of 8. */
int32_t ezeb_dsprintf(char **buf, const char *format, ...) __attribute__((format(printf, 2, 3)));

/* Writes formatted text to standard error in one piece. Formats on the heap: a stream would need 14 KB of
 * stack, and service threads may have 16. */
void ezeb_diag_text(const char *text, size_t length);
void ezeb_diag(const char *format, ...) __attribute__((format(printf, 1, 2)));

/* ---- Text builder: a growing string that knows its length. Starts zeroed; a failed append sticks. */
struct ezeb_text {
    char *data;
    size_t length;
    size_t capacity;
    int32_t failed;
};

void ezeb_text_bytes(ezeb_text *text, const char *bytes, size_t length);
void ezeb_text_add(ezeb_text *text, const char *s); /* "(null)" for null */
void ezeb_text_spaces(ezeb_text *text, size_t count);
char *ezeb_text_finish(
    ezeb_text *text); /* the string, for the caller to free; null when empty or an append failed */

/* ---- Block cache: what one thread releases is kept for another that wants a block of the same size. The
 * allocator would make both meet at its lock, and give pages back in between. Starts zeroed. Nobody waits for
 * a cache: who finds it in use goes to the allocator, as does, for good, a child that was forked at such an
 * instant. */
struct ezeb_blockcache {
    int32_t busy; /* somebody is at the two below */
    int32_t idle; /* blocks in the chain; read anywhere as a hint */
    void *first;  /* of the chain, whose links stand in the blocks */
};

enum { EZEB_BLOCKCACHE_MOST = 512 };

void *ezeb_blockcache_take(ezeb_blockcache *cache, size_t size); /* or null; SIZE is the same in every call */
void ezeb_blockcache_give(ezeb_blockcache *cache, void *block);
void ezeb_blockcache_clear(ezeb_blockcache *cache);

/* ---- Arena: strings and small records that live and die together. Starts zeroed, or over a first block of
 * the owner's; nothing is released before the whole. */
struct ezeb_arena_block;
struct ezeb_arena {
    char *next;
    size_t left;
    ezeb_arena_block *blocks;
};

void ezeb_arena_init(ezeb_arena *arena, void *firstblock, size_t size);
/* Or null. ALIGNMENT is a power of two, at most that of malloc. */
void *ezeb_arena_alloc(ezeb_arena *arena, size_t size, size_t alignment = alignof(void *));

/* SIZE octets of any alignment, or null. */
char *ezeb_arena_bytes(ezeb_arena *arena, size_t size);

/* With a NUL added; or null. Inline, as what there is most of in an event. */
inline char *ezeb_arena_strndup(ezeb_arena *arena, const char *s, size_t length)
{
    char *copy = arena->next;
    if (length >= arena->left) {
        copy = ezeb_arena_bytes(arena, length + 1);
        if (copy == nullptr)
            return nullptr;
    } else {
        arena->next += length + 1;
        arena->left -= length + 1;
    }
    memcpy(copy, s, length);
    copy[length] = '\0';
    return copy;
}
void ezeb_arena_release(ezeb_arena *arena);

#endif
