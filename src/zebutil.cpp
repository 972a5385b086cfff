/* Memory, strings, numbers and diagnostics. No state besides the test seam: any thread may call anything. */
#include "ezebutil.h"

#include "ezeballocseam.h"
#include "ezeblock.h"

#include <errno.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

/* ---- Memory ---- */

/* Nothing but BLOCK itself in what ships. */
static void *counted(void *block)
{
    if (block != nullptr)
        ezeb_allocseam_count(1);
    return block;
}

void *ezeb_malloc(size_t size)
{
    if (ezeb_allocseam_refuses())
        return nullptr;
    return counted(malloc(size));
}

void *ezeb_zalloc(size_t size)
{
    if (ezeb_allocseam_refuses())
        return nullptr;
    return counted(calloc(1, size));
}

void *ezeb_realloc(void *ptr, size_t size)
{
    if (ezeb_allocseam_refuses())
        return nullptr;
    return ptr != nullptr ? realloc(ptr, size) : counted(malloc(size));
}

void ezeb_free(const void *ptr)
{
    if (ptr != nullptr)
        ezeb_allocseam_count(-1);
    free(const_cast<void *>(ptr));
}

char *ezeb_strdup(const char *s)
{
    return static_cast<char *>(ezeb_memdup(s, strlen(s) + 1));
}

char *ezeb_strdup_ornull(const char *s)
{
    return s != nullptr ? ezeb_strdup(s) : nullptr;
}

void *ezeb_memdup(const void *data, size_t length)
{
    void *copy = ezeb_malloc(length > 0 ? length : 1);
    if (copy != nullptr && length > 0)
        memcpy(copy, data, length);
    return copy;
}

/* ---- Numbers ---- */

int32_t ezeb_str2int(const char *s, int32_t *out)
{
    *out = 0;
    if (s == nullptr || *s == '\0')
        return 0;
    char *rest;
    *out = static_cast<int32_t>(strtoll(s, &rest, 0));
    return *rest == '\0';
}

static bool is_digit(char c)
{
    return c >= '0' && c <= '9';
}

/* Nearly all are short and have nothing before or behind them. */
int32_t ezeb_decimal(const char *s)
{
    enum { SURE_TO_FIT = 9 };
    int32_t value = 0;
    const char *p = s;
    for (; is_digit(*p) && p - s < SURE_TO_FIT; p++)
        value = value * 10 + (*p - '0');
    return p > s && !is_digit(*p) ? value : static_cast<int32_t>(strtoll(s, nullptr, 10));
}

int64_t ezeb_str2ll(const char *s)
{
    if (s == nullptr)
        return 0;
    char before = '\0';
    for (; *s != '\0' && !is_digit(*s); s++)
        before = *s;
    uint64_t value = 0;
    for (; is_digit(*s); s++)
        value = value * 10 + static_cast<uint64_t>(*s - '0'); /* wraps, as it always has */
    return static_cast<int64_t>(before == '-' ? 0 - value : value);
}

char *ezeb_int2str(char *dst, int64_t v)
{
    char digits[EZEB_INT_TEXT];
    char *p = digits + sizeof(digits) - 1;
    *p = '\0';
    if (v < 0) {
        dst = ezeb_addstr(dst, "-");
        v = static_cast<int64_t>(0 - static_cast<uint64_t>(v)); /* INT64_MIN stays itself: its text is "-(" */
    }
    do {
        *--p = static_cast<char>('0' + v % 10);
        v /= 10;
    } while (v > 0);
    const auto length = static_cast<size_t>(digits + sizeof(digits) - 1 - p);
    memcpy(dst, p, length + 1);
    return dst + length;
}

char *ezeb_addstr(char *dst, const char *src)
{
    const size_t length = strlen(src);
    memcpy(dst, src, length + 1);
    return dst + length;
}

/* ---- Growing formatted string ---- */

enum { DS_STEP = 1024, DS_SPARE = 12 }; /* spare: up to 7 bytes of alignment and the 4-byte capacity word */

static size_t capacity_place(size_t length)
{
    return (length + 8) & ~static_cast<size_t>(7);
}

static uint32_t load_capacity(const char *buf, size_t length)
{
    uint32_t capacity;
    memcpy(&capacity, buf + capacity_place(length), sizeof(capacity));
    return capacity;
}

static void store_capacity(char *buf, size_t length, uint32_t capacity)
{
    memcpy(buf + capacity_place(length), &capacity, sizeof(capacity));
}

/* Grows BUF to hold N characters behind LENGTH. Null when that cannot be. */
static char *ds_grow(char *buf, size_t length, size_t n, uint32_t *capacity)
{
    const size_t wanted = (length + n + 1025) / DS_STEP * DS_STEP;
    if (wanted > INT32_MAX)
        return nullptr;
    char *grown = static_cast<char *>(ezeb_realloc(buf, wanted + DS_SPARE));
    if (grown != nullptr)
        *capacity = static_cast<uint32_t>(wanted);
    return grown;
}

static int32_t ds_append(char **buf, const char *format, va_list args)
{
    const bool fresh = *buf == nullptr;
    char *text = fresh ? static_cast<char *>(ezeb_malloc(DS_STEP + DS_SPARE)) : *buf;
    if (text == nullptr)
        return -1;
    if (fresh)
        text[0] = '\0';
    const size_t length = strlen(text);
    uint32_t capacity = fresh ? static_cast<uint32_t>(DS_STEP) : load_capacity(text, length);
    const uint32_t before = capacity;
    va_list again;
    va_copy(again, args);
    /* The analyzer takes a va_list that came as a parameter for one that was never started. */
    // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized)
    const int n = vsnprintf(text + length, capacity - length, format, args);
    if (n >= 0 && static_cast<size_t>(n) >= capacity - length) {
        char *grown = ds_grow(text, length, static_cast<size_t>(n), &capacity);
        if (grown != nullptr) {
            text = grown;
            vsnprintf(text + length, capacity - length, format, again);
        }
    }
    va_end(again);
    if (n < 0 || (capacity == before && static_cast<size_t>(n) >= capacity - length)) {
        text[length] = '\0'; /* the attempt ran over the NUL and the capacity word: both are put back */
        store_capacity(text, length, before);
        if (fresh)
            ezeb_free(text);
        return -1;
    }
    store_capacity(text, length + static_cast<size_t>(n), capacity);
    *buf = text;
    return static_cast<int32_t>(length + static_cast<size_t>(n));
}

int32_t ezeb_dsprintf(char **buf, const char *format, ...)
{
    if (buf == nullptr)
        return -1;
    va_list args;
    va_start(args, format);
    const int32_t length = ds_append(buf, format, args);
    va_end(args);
    return length;
}

void ezeb_diag_text(const char *text, size_t length)
{
    while (length > 0) {
        const ssize_t n = write(STDERR_FILENO, text, length);
        if (n > 0) {
            text += n;
            length -= static_cast<size_t>(n);
        } else if (n == 0 || errno != EINTR) {
            return; /* nobody listens: a diagnostic is not worth more */
        }
    }
}

void ezeb_diag(const char *format, ...)
{
    char *text = nullptr;
    va_list args;
    va_start(args, format);
    const int32_t length = ds_append(&text, format, args);
    va_end(args);
    if (length > 0)
        ezeb_diag_text(text, static_cast<size_t>(length));
    ezeb_free(text);
}

/* ---- Text builder ---- */

static bool text_room(ezeb_text *text, size_t more)
{
    if (text->failed)
        return false;
    if (text->capacity - text->length > more)
        return true;
    const size_t least = text->length + more + 1;
    const size_t wanted = least + least / 2 + 64; /* fits where LEAST is no more than an object can have */
    char *grown = least <= PTRDIFF_MAX ? static_cast<char *>(ezeb_realloc(text->data, wanted)) : nullptr;
    if (grown == nullptr) {
        text->failed = 1;
        return false;
    }
    text->data = grown;
    text->capacity = wanted;
    return true;
}

void ezeb_text_bytes(ezeb_text *text, const char *bytes, size_t length)
{
    if (!text_room(text, length))
        return;
    memcpy(text->data + text->length, bytes, length);
    text->length += length;
    text->data[text->length] = '\0';
}

void ezeb_text_add(ezeb_text *text, const char *s)
{
    const char *shown = s != nullptr ? s : "(null)";
    ezeb_text_bytes(text, shown, strlen(shown));
}

void ezeb_text_spaces(ezeb_text *text, size_t count)
{
    if (!text_room(text, count))
        return;
    memset(text->data + text->length, ' ', count);
    text->length += count;
    text->data[text->length] = '\0';
}

char *ezeb_text_finish(ezeb_text *text)
{
    char *data = text->data;
    if (text->failed) {
        ezeb_free(data);
        data = nullptr;
    }
    *text = ezeb_text{};
    return data;
}

/* ---- Block cache ---- */

/* Nothing under the address sanitizer, which tells a use after the release only of what was released. */
static constexpr int32_t most_idle(void)
{
#if defined(__has_feature)
#if __has_feature(address_sanitizer)
    return 0;
#endif
#elif defined(__SANITIZE_ADDRESS__)
    return 0;
#endif
    return EZEB_BLOCKCACHE_MOST;
}

static bool enter(ezeb_blockcache *cache)
{
    ezeb_yield();
    return __atomic_exchange_n(&cache->busy, 1, __ATOMIC_ACQUIRE) == 0;
}

static void leave(ezeb_blockcache *cache)
{
    ezeb_flag_release(&cache->busy, 0);
}

/* A block out of the chain, or null. */
static void *take_idle(ezeb_blockcache *cache)
{
    if (ezeb_flag_get(&cache->idle) == 0 || !enter(cache))
        return nullptr;
    void *block = cache->first;
    if (block != nullptr) {
        cache->first = *static_cast<void **>(block);
        ezeb_flag_set(&cache->idle, cache->idle - 1);
    }
    leave(cache);
    return block;
}

static bool keep_idle(ezeb_blockcache *cache, void *block)
{
    if (ezeb_flag_get(&cache->idle) >= most_idle() || !enter(cache))
        return false;
    if (block == cache->first)
        __builtin_trap(); /* released twice; the allocator would end the process as well */
    *static_cast<void **>(block) = cache->first;
    cache->first = block;
    ezeb_flag_set(&cache->idle, cache->idle + 1);
    leave(cache);
    return true;
}

void *ezeb_blockcache_take(ezeb_blockcache *cache, size_t size)
{
    if (ezeb_allocseam_refuses())
        return nullptr;
    void *block = take_idle(cache);
    return counted(block != nullptr ? block : malloc(size));
}

void ezeb_blockcache_give(ezeb_blockcache *cache, void *block)
{
    if (keep_idle(cache, block))
        ezeb_allocseam_count(-1);
    else
        ezeb_free(block);
}

void ezeb_blockcache_clear(ezeb_blockcache *cache)
{
    while (void *block = take_idle(cache))
        free(block);
}

/* ---- Arena ---- */

/* Aligned so that a new block serves any alignment. */
struct alignas(max_align_t) ezeb_arena_block {
    ezeb_arena_block *next;
    size_t size; /* of the bytes that follow */
};

enum { ARENA_STEP = 1024, ARENA_LARGEST_STEP = 65536 };

void ezeb_arena_init(ezeb_arena *arena, void *firstblock, size_t size)
{
    arena->next = static_cast<char *>(firstblock);
    arena->left = size;
    arena->blocks = nullptr;
}

/* Blocks double, so that any number of requests costs a few of them. */
char *ezeb_arena_bytes(ezeb_arena *arena, size_t size)
{
    if (arena->left < size) {
        size_t room = arena->blocks != nullptr ? arena->blocks->size * 2 : static_cast<size_t>(ARENA_STEP);
        if (room > ARENA_LARGEST_STEP)
            room = ARENA_LARGEST_STEP;
        if (room < size)
            room = size;
        auto *block = static_cast<ezeb_arena_block *>(ezeb_malloc(sizeof(ezeb_arena_block) + room));
        if (block == nullptr)
            return nullptr;
        block->next = arena->blocks;
        block->size = room;
        arena->blocks = block;
        arena->next = reinterpret_cast<char *>(block + 1);
        arena->left = room;
    }
    char *taken = arena->next;
    arena->next += size;
    arena->left -= size;
    return taken;
}

void *ezeb_arena_alloc(ezeb_arena *arena, size_t size, size_t alignment)
{
    const size_t skip = (0 - reinterpret_cast<uintptr_t>(arena->next)) & (alignment - 1);
    if (skip <= arena->left) {
        arena->next += skip;
        arena->left -= skip;
    } else {
        arena->left = 0;
    }
    return ezeb_arena_bytes(arena, size);
}

void ezeb_arena_release(ezeb_arena *arena)
{
    while (arena->blocks != nullptr) {
        ezeb_arena_block *block = arena->blocks;
        arena->blocks = block->next;
        ezeb_free(block);
    }
}
