/* Body blocks: tree, byte encoding, text. No locks; a block belongs to one thread at a time. Readers may
 * share one that nobody changes: nothing but add and destroy changes a tree, the index of its elements
 * included. Trees have no limit of depth and come from the wire on small stacks, so nothing here recurses. */
#include "ezebbodyblock.h"

#include "ezebutil.h"

#include <ctype.h>
#include <endian.h>
#include <string.h>

enum { WORD = 8, HALF = 4, BITS = 8 };

/* COUNT bytes, 1 to 8 of them, the first one lowest; from 4 on in two loads that may overlap. */
static uint64_t load_word(const char *bytes, size_t count)
{
    uint64_t word = 0;
    if (count >= HALF) {
        uint32_t low;
        uint32_t high;
        memcpy(&low, bytes, HALF);
        memcpy(&high, bytes + count - HALF, HALF);
        return le32toh(low) | static_cast<uint64_t>(le32toh(high)) << (count - HALF) * BITS;
    }
    for (size_t i = 0; i < count; i++)
        word |= static_cast<uint64_t>(static_cast<unsigned char>(bytes[i])) << i * BITS;
    return word;
}

/* The bytes of WORD, each shifted by its place and XORed: joined to pairs, to fours, and all. */
static uint32_t fold_word(uint64_t word)
{
    word = (word & 0x00FF00FF00FF00FF) ^ (word >> 7 & 0x01FE01FE01FE01FE);
    word = (word & 0x000001FF000001FF) ^ (word >> 14 & 0x000007FC000007FC);
    return static_cast<uint32_t>(word ^ word >> 28);
}

/* A round of shifts takes three words and the one byte that is shifted most. */
uint32_t ezeb_bb_namehash(const char *name, size_t length)
{
    enum { LAST_SHIFT = 24 };
    uint32_t hash = 0;
    unsigned shift = 0;
    size_t count;
    for (size_t i = 0; i < length; i += count) {
        const size_t most = shift == LAST_SHIFT ? 1 : WORD;
        count = length - i < most ? length - i : most;
        hash ^= fold_word(load_word(name + i, count)) << shift;
        shift = shift == LAST_SHIFT ? 0 : shift + WORD;
    }
    return hash;
}

/* Memory for a node and its texts: of its own, or in ARENA. SIZE is a sum that size_t may not hold. */
template <typename Node>
static Node *node_memory(ezeb_arena *arena, uint64_t size)
{
    if (size > PTRDIFF_MAX)
        return nullptr;
    const auto bytes = static_cast<size_t>(size);
    return static_cast<Node *>(arena != nullptr ? ezeb_arena_alloc(arena, bytes, alignof(Node))
                                                : ezeb_malloc(bytes));
}

template <typename Node>
static void free_node(Node *node)
{
    if (!node->inArena)
        ezeb_free(node);
}

/* A name to look for. */
struct probe {
    const char *name;
    size_t length;
    uint32_t hash;
};

static probe make_probe(const char *name, size_t length)
{
    return {name, length, ezeb_bb_namehash(name, length)};
}

template <typename Node>
static bool matches(const Node *node, const probe &p)
{
    return node->namehash == p.hash && node->namelength == static_cast<uint32_t>(p.length) &&
           memcmp(node->name, p.name, node->namelength) == 0;
}

template <typename List, typename Node>
static void append(List *list, Node *node)
{
    node->prev = list->last;
    node->next = nullptr;
    if (list->last != nullptr)
        list->last->next = node;
    else
        list->first = node;
    list->last = node;
    list->count++;
}

/* ---- Index of a segment's elements: open addressing, for lists that have grown long. The stored name hash
 * folds similar names together, so the index has one of its own. Without memory for it, lookups walk the
 * list. ---- */

struct ezeb_bb_index {
    uint32_t mask;
    zeb_bb_elem *slots[];
};

enum { INDEX_FROM = 32, INDEX_FIRST = 128 };

/* The slot of NAME, or the free one where it belongs. */
static zeb_bb_elem **index_slot(ezeb_bb_index *index, const char *name, uint32_t length)
{
    uint64_t h = 0xcbf29ce484222325ULL ^ reinterpret_cast<uintptr_t>(index);
    for (uint32_t i = 0; i < length; i++)
        h = (h ^ static_cast<unsigned char>(name[i])) * 0x100000001b3ULL;
    h ^= h >> 32;
    for (auto at = static_cast<uint32_t>(h);; at++) {
        zeb_bb_elem **slot = &index->slots[at & index->mask];
        if (*slot == nullptr || ((*slot)->namelength == length && memcmp((*slot)->name, name, length) == 0))
            return slot;
    }
}

static void index_drop(zeb_bb_seg *segment)
{
    ezeb_free(segment->index);
    segment->index = nullptr;
}

static void index_rebuild(zeb_bb_seg *segment)
{
    size_t size = INDEX_FIRST;
    while (size < static_cast<size_t>(segment->elements.count) * 3)
        size *= 2;
    index_drop(segment);
    auto *index =
        static_cast<ezeb_bb_index *>(ezeb_zalloc(sizeof(ezeb_bb_index) + size * sizeof(zeb_bb_elem *)));
    if (index == nullptr)
        return;
    index->mask = static_cast<uint32_t>(size - 1);
    for (zeb_bb_elem *e = segment->elements.first; e != nullptr; e = e->next)
        *index_slot(index, e->name, e->namelength) = e;
    segment->index = index;
}

static void index_add(zeb_bb_seg *segment, zeb_bb_elem *element)
{
    if (segment->elements.count <= INDEX_FROM)
        return;
    if (segment->index == nullptr || segment->elements.count > segment->index->mask / 2)
        index_rebuild(segment);
    else
        *index_slot(segment->index, element->name, element->namelength) = element;
}

/* ---- Elements ---- */

/* One of 64 bits. The hash differs most in bits that depend on the length, so all of them are stirred. */
static uint64_t name_bit(uint32_t namehash)
{
    return UINT64_C(1) << (namehash * 0x9E3779B1U >> 26);
}

static zeb_bb_elem *find_element(const zeb_bb_seg *segment, const probe &p)
{
    if ((segment->names & name_bit(p.hash)) == 0)
        return nullptr;
    if (segment->index != nullptr)
        return *index_slot(segment->index, p.name, static_cast<uint32_t>(p.length));
    for (zeb_bb_elem *e = segment->elements.first; e != nullptr; e = e->next) {
        if (matches(e, p))
            return e;
    }
    return nullptr;
}

static void unlink_element(zeb_bb_elemlist *list, zeb_bb_elem *e)
{
    (e->prev != nullptr ? e->prev->next : list->first) = e->next;
    (e->next != nullptr ? e->next->prev : list->last) = e->prev;
    list->count--;
}

static zeb_bb_elem *new_element(ezeb_arena *arena, const probe &p, const void *value, int32_t length)
{
    const auto valuelength = static_cast<size_t>(length);
    const uint64_t texts = static_cast<uint64_t>(p.length) + 1 + valuelength + 1;
    auto *e = node_memory<zeb_bb_elem>(arena, sizeof(zeb_bb_elem) + texts);
    if (e == nullptr)
        return nullptr;
    e->name = reinterpret_cast<char *>(e + 1);
    memcpy(e->name, p.name, p.length);
    e->name[p.length] = '\0';
    e->namelength = static_cast<uint32_t>(p.length);
    e->namehash = p.hash;
    e->value = e->name + p.length + 1;
    if (valuelength > 0)
        memcpy(e->value, value, valuelength);
    e->value[valuelength] = '\0';
    e->length = length;
    e->inArena = arena != nullptr;
    return e;
}

/* An element of the same name goes, also when there is no memory for the new one. It is released last, since
 * name and value may stand in it. */
static zeb_bb_elem *put_element(ezeb_arena *arena, zeb_bb_seg *segment, const probe &p, const void *value,
                                int32_t length)
{
    zeb_bb_elem *old = find_element(segment, p);
    if (old != nullptr)
        unlink_element(&segment->elements, old);
    zeb_bb_elem *fresh = new_element(arena, p, value, length);
    if (fresh != nullptr) {
        append(&segment->elements, fresh);
        segment->names |= name_bit(fresh->namehash);
        index_add(segment, fresh);
    } else if (old != nullptr) {
        index_drop(segment);
    }
    if (old != nullptr)
        free_node(old);
    return fresh;
}

zeb_bb_elem *ezeb_bb_seg_addelement_b(zeb_bb_seg *segment, const char *name, const void *value,
                                      int32_t length)
{
    if (segment == nullptr || name == nullptr || value == nullptr || length < -1)
        return nullptr;
    if (length == -1) {
        const size_t textlength = strlen(static_cast<const char *>(value));
        if (textlength > INT32_MAX)
            return nullptr;
        length = static_cast<int32_t>(textlength);
    }
    return put_element(nullptr, segment, make_probe(name, strlen(name)), value, length);
}

zeb_bb_elem *ezeb_bb_seg_addelement(zeb_bb_seg *segment, const char *name, const char *value)
{
    return ezeb_bb_seg_addelement_b(segment, name, value, -1);
}

const char *ezeb_bb_seg_getelement(const zeb_bb_seg *segment, const char *name, int32_t *length)
{
    if (segment == nullptr)
        return nullptr; /* *LENGTH is left alone here, and only here */
    const zeb_bb_elem *found =
        name != nullptr ? find_element(segment, make_probe(name, strlen(name))) : nullptr;
    return ezeb_bb_elem_getvalue(found, length);
}

zeb_bb_elemlist *ezeb_bb_seg_getelements(zeb_bb_seg *segment)
{
    return segment != nullptr ? &segment->elements : nullptr;
}

zeb_bb_elem *ezeb_bb_elemlist_getfirst(const zeb_bb_elemlist *elements)
{
    return elements != nullptr ? elements->first : nullptr;
}

zeb_bb_elem *ezeb_bb_elemlist_getnext(const zeb_bb_elem *element)
{
    return element != nullptr ? element->next : nullptr;
}

const char *ezeb_bb_elem_getname(const zeb_bb_elem *element)
{
    return element != nullptr ? element->name : nullptr;
}

const char *ezeb_bb_elem_getvalue(const zeb_bb_elem *element, int32_t *length)
{
    if (length != nullptr)
        *length = element != nullptr ? element->length : 0;
    return element != nullptr ? element->value : nullptr;
}

/* ---- Segments ---- */

static zeb_bb_seg *new_segment(ezeb_arena *arena, const char *name, size_t namelength)
{
    const uint64_t text = static_cast<uint64_t>(namelength) + 1;
    auto *s = node_memory<zeb_bb_seg>(arena, sizeof(zeb_bb_seg) + text);
    if (s == nullptr)
        return nullptr;
    *s = zeb_bb_seg{};
    s->name = reinterpret_cast<char *>(s + 1);
    memcpy(s->name, name, namelength);
    s->name[namelength] = '\0';
    s->namelength = static_cast<uint32_t>(namelength);
    s->namehash = ezeb_bb_namehash(name, namelength);
    s->inArena = arena != nullptr;
    return s;
}

static void link_segment(zeb_bb_seglist *list, zeb_bb_seg *parent, zeb_bb_seg *segment)
{
    segment->parent = parent;
    append(list, segment);
}

static zeb_bb_seg *find_segment(const zeb_bb_seglist *list, const char *name)
{
    const probe p = make_probe(name, strlen(name));
    for (zeb_bb_seg *s = list->first; s != nullptr; s = s->next) {
        if (matches(s, p))
            return s;
    }
    return nullptr;
}

/* Unlike an element, an existing segment is returned as it is. */
static zeb_bb_seg *find_or_add(zeb_bb_seglist *list, zeb_bb_seg *parent, const char *name)
{
    zeb_bb_seg *segment = find_segment(list, name);
    if (segment != nullptr)
        return segment;
    segment = new_segment(nullptr, name, strlen(name));
    if (segment != nullptr)
        link_segment(list, parent, segment);
    return segment;
}

zeb_bb_seg *ezeb_bb_seg_addsegment(zeb_bb_seg *segment, const char *name)
{
    return segment != nullptr && name != nullptr ? find_or_add(&segment->segments, segment, name) : nullptr;
}

zeb_bb_seg *ezeb_bb_addsegment(zeb_bb *block, const char *name)
{
    return block != nullptr && name != nullptr ? find_or_add(&block->segments, nullptr, name) : nullptr;
}

zeb_bb_seg *ezeb_bb_appendsegment(zeb_bb *block, const char *name)
{
    zeb_bb_seg *segment = new_segment(nullptr, name, strlen(name));
    if (segment != nullptr)
        link_segment(&block->segments, nullptr, segment);
    return segment;
}

zeb_bb_seg *ezeb_bb_seg_getsegment(const zeb_bb_seg *segment, const char *name)
{
    return segment != nullptr && name != nullptr ? find_segment(&segment->segments, name) : nullptr;
}

zeb_bb_seg *ezeb_bb_getsegment(const zeb_bb *block, const char *name)
{
    return block != nullptr && name != nullptr ? find_segment(&block->segments, name) : nullptr;
}

zeb_bb_seglist *ezeb_bb_seg_getsegments(zeb_bb_seg *segment)
{
    return segment != nullptr ? &segment->segments : nullptr;
}

zeb_bb_seglist *ezeb_bb_getsegments(zeb_bb *block)
{
    return block != nullptr ? &block->segments : nullptr;
}

zeb_bb_seg *ezeb_bb_seglist_getfirst(const zeb_bb_seglist *segments)
{
    return segments != nullptr ? segments->first : nullptr;
}

zeb_bb_seg *ezeb_bb_seglist_getnext(const zeb_bb_seg *segment)
{
    return segment != nullptr ? segment->next : nullptr;
}

const char *ezeb_bb_seg_getname(const zeb_bb_seg *segment)
{
    return segment != nullptr ? segment->name : nullptr;
}

/* ---- Block ---- */

zeb_bb *ezeb_bb_create(void)
{
    return ezeb_new<zeb_bb>();
}

static void free_segment(zeb_bb_seg *segment)
{
    zeb_bb_elem *e = segment->elements.first;
    while (e != nullptr) {
        zeb_bb_elem *next = e->next;
        free_node(e);
        e = next;
    }
    index_drop(segment);
    free_node(segment);
}

/* Sub-segments go before their segment: its list is taken off, so that coming back to it finds none. */
void ezeb_bb_destroy(zeb_bb *block)
{
    if (block == nullptr)
        return;
    zeb_bb_seg *s = block->segments.first;
    while (s != nullptr) {
        zeb_bb_seg *inner = s->segments.first;
        if (inner != nullptr) {
            s->segments.first = nullptr;
            s = inner;
        } else {
            zeb_bb_seg *next = s->next != nullptr ? s->next : s->parent;
            free_segment(s);
            s = next;
        }
    }
    ezeb_arena_release(&block->decoded);
    ezeb_free(block);
}

/* The segment behind SEGMENT in the order parent before children before siblings; null at the end. */
static const zeb_bb_seg *next_in_tree(const zeb_bb_seg *segment, uint32_t *depth)
{
    if (segment->segments.first != nullptr) {
        (*depth)++;
        return segment->segments.first;
    }
    while (segment->next == nullptr) {
        segment = segment->parent;
        if (segment == nullptr)
            return nullptr;
        (*depth)--;
    }
    return segment->next;
}

/* ---- Text ---- */

/* The bytes are classified as the signed characters they are: those from 0x80 on come out as not printable in
 * the default locale. The classification is defined for them. */
static bool is_printable(const zeb_bb_elem *e)
{
    for (int32_t i = 0; i < e->length; i++) {
        if (!isprint(static_cast<signed char>(e->value[i])))
            return false;
    }
    return true;
}

static void dump_segment(ezeb_text *text, const zeb_bb_seg *segment, size_t indent)
{
    ezeb_text_spaces(text, indent);
    ezeb_text_add(text, "Seg:");
    ezeb_text_add(text, segment->name);
    ezeb_text_add(text, "\n");
    for (const zeb_bb_elem *e = segment->elements.first; e != nullptr; e = e->next) {
        ezeb_text_spaces(text, indent + 2);
        ezeb_text_add(text, e->name);
        ezeb_text_add(text, "=");
        ezeb_text_add(text, is_printable(e) ? e->value : "<binary-data>");
        ezeb_text_add(text, "\n");
    }
}

char *ezeb_bb_toString(const zeb_bb *block)
{
    if (block == nullptr)
        return nullptr;
    ezeb_text text = {};
    uint32_t depth = 0;
    for (const zeb_bb_seg *s = block->segments.first; s != nullptr; s = next_in_tree(s, &depth))
        dump_segment(&text, s, static_cast<size_t>(depth) * 2);
    return ezeb_text_finish(&text);
}

/* ---- Bytes ----
 * A signature, then records without any count: a segment is tag, 16-bit length of its name counting the NUL,
 * name with NUL, level; an element is tag, length not counting the NUL, name with NUL, length not counting
 * the NUL, value with NUL. The lengths are big-endian and carry the low 16 bits of the true ones. */

enum { TAG_SEGMENT = 1, TAG_ELEMENT = 2, TAG_END = 4, SEGMENT_EXTRA = 5, ELEMENT_EXTRA = 7 };

static constexpr unsigned char signature[] = {0x00, 0xA3, 0x7C, 0x08, 0xE7, 0x78,
                                              0xEE, 0x24, 0x5F, 0xD3, 0xB6, 0x4E};

static uint64_t segment_size(const zeb_bb_seg *segment)
{
    uint64_t size = static_cast<uint64_t>(segment->namelength) + SEGMENT_EXTRA;
    for (const zeb_bb_elem *e = segment->elements.first; e != nullptr; e = e->next)
        size += static_cast<uint64_t>(e->namelength) + static_cast<uint64_t>(e->length) + ELEMENT_EXTRA;
    return size;
}

static unsigned char *put_length(unsigned char *p, uint32_t length)
{
    *p++ = static_cast<unsigned char>(length >> 8);
    *p++ = static_cast<unsigned char>(length);
    return p;
}

/* LENGTH bytes and the NUL behind them, which every name and value has. */
static unsigned char *put_string(unsigned char *p, const char *s, size_t length)
{
    memcpy(p, s, length + 1);
    return p + length + 1;
}

static unsigned char *put_segment(unsigned char *p, const zeb_bb_seg *segment, uint32_t level)
{
    *p++ = TAG_SEGMENT;
    p = put_length(p, segment->namelength + 1);
    p = put_string(p, segment->name, segment->namelength);
    *p++ = static_cast<unsigned char>(level); /* modulo 256 */
    for (const zeb_bb_elem *e = segment->elements.first; e != nullptr; e = e->next) {
        *p++ = TAG_ELEMENT;
        p = put_length(p, e->namelength);
        p = put_string(p, e->name, e->namelength);
        p = put_length(p, static_cast<uint32_t>(e->length));
        p = put_string(p, e->value, static_cast<size_t>(e->length));
    }
    return p;
}

uint64_t ezeb_bb_encodedsize(const zeb_bb *block)
{
    uint64_t size = sizeof(signature);
    uint32_t depth = 0;
    for (const zeb_bb_seg *s = block != nullptr ? block->segments.first : nullptr; s != nullptr;
         s = next_in_tree(s, &depth))
        size += segment_size(s);
    return size;
}

void *ezeb_bb_block2body(const zeb_bb *block, int32_t *length)
{
    const zeb_bb_seg *first = block != nullptr ? block->segments.first : nullptr;
    const uint64_t size = ezeb_bb_encodedsize(block);
    if (size > INT32_MAX)
        return nullptr;
    auto *body = static_cast<unsigned char *>(ezeb_malloc(static_cast<size_t>(size)));
    if (body == nullptr)
        return nullptr;
    *length = static_cast<int32_t>(size);
    memcpy(body, signature, sizeof(signature));
    unsigned char *p = body + sizeof(signature);
    uint32_t depth = 0;
    for (const zeb_bb_seg *s = first; s != nullptr; s = next_in_tree(s, &depth))
        p = put_segment(p, s, depth);
    return body;
}

/* What is left to decode, and where it goes. */
struct bytes {
    const char *at;
    size_t left;
    size_t unbounded; /* how many more bytes may be looked through, and copied, without being consumed */
    ezeb_arena *arena;
};

static unsigned read_tag(bytes *in)
{
    enum { SHORTEST_RECORD = 4 };
    if (in->left < SHORTEST_RECORD)
        return TAG_END; /* up to three stray bytes are ignored */
    in->left--;
    return static_cast<unsigned char>(*in->at++);
}

/* A length field plus one, in 16 bits: the run of bytes it announces. False when the field does not fit. */
static bool read_run(bytes *in, size_t *run)
{
    if (in->left < 2)
        return false;
    const auto high = static_cast<unsigned char>(in->at[0]);
    const auto low = static_cast<unsigned char>(in->at[1]);
    *run = (static_cast<size_t>(high) * 256 + low + 1) & 0xFFFF;
    in->at += 2;
    in->left -= 2;
    return true;
}

static const char *take(bytes *in, size_t count)
{
    const char *taken = in->at;
    in->at += count;
    in->left -= count;
    return taken;
}

/* The record behind a segment's tag; null when it is cut short, or memory is out. */
static zeb_bb_seg *read_segment(bytes *in)
{
    size_t run; /* name field and level */
    if (!read_run(in, &run) || run == 0 || in->left < run)
        return nullptr;
    const char *name = take(in, run);
    zeb_bb_seg *segment = new_segment(in->arena, name, strnlen(name, run - 1));
    if (segment != nullptr)
        segment->level = static_cast<unsigned char>(name[run - 1]);
    return segment;
}

/* A run of text in an element. */
struct run_text {
    const char *text; /* null: absent */
    size_t length;
};

/* A run of 0 stands for the greatest length: then the text ends at its NUL, if there is one in what is left,
 * and nothing is consumed. Many of these could copy the rest of the body over and over, so all of them
 * together look through no more bytes than the body has; beyond that they are absent. */
static run_text read_unbounded(bytes *in)
{
    const size_t span = in->left < in->unbounded ? in->left : in->unbounded;
    const size_t length = strnlen(in->at, span);
    in->unbounded -= length;
    return length < span ? run_text{in->at, length} : run_text{nullptr, 0};
}

static run_text read_text(bytes *in, size_t run)
{
    if (run == 0)
        return read_unbounded(in);
    if (in->left < run)
        return {nullptr, 0};
    return {take(in, run), run - 1};
}

/* One element of SEGMENT, behind its tag. What is absent adds nothing. False when a length field does not
 * fit: the end. */
static bool read_element(bytes *in, zeb_bb_seg *segment)
{
    size_t namerun;
    size_t valuerun;
    if (!read_run(in, &namerun))
        return false;
    const run_text name = read_text(in, namerun);
    if (!read_run(in, &valuerun))
        return false;
    const run_text value = read_text(in, valuerun);
    if (name.text == nullptr || value.text == nullptr)
        return true;
    const size_t namelength =
        namerun != 0 ? strnlen(name.text, namerun) : name.length; /* ends with its run at the latest */
    put_element(in->arena, segment, make_probe(name.text, namelength), value.text,
                static_cast<int32_t>(value.length));
    return true;
}

/* All elements of SEGMENT. Returns the tag behind them. */
static unsigned read_elements(bytes *in, zeb_bb_seg *segment)
{
    unsigned tag = read_tag(in);
    while (tag == TAG_ELEMENT)
        tag = read_element(in, segment) ? read_tag(in) : static_cast<unsigned>(TAG_END);
    return tag;
}

/* Links SEGMENT where its level puts it, seen from LAST, the segment read before; false when it jumps a
 * level. */
static bool link_decoded(zeb_bb *block, zeb_bb_seg *last, zeb_bb_seg *segment)
{
    if (last == nullptr ? segment->level != 0 : segment->level > last->level + 1)
        return false;
    zeb_bb_seg *parent = last;
    while (parent != nullptr && parent->level >= segment->level)
        parent = parent->parent;
    link_segment(parent != nullptr ? &parent->segments : &block->segments, parent, segment);
    return true;
}

static void decode(bytes *in, zeb_bb *block)
{
    zeb_bb_seg *last = nullptr;
    unsigned tag = read_tag(in);
    if (tag != TAG_SEGMENT)
        return;
    while (tag != TAG_END) { /* behind the first record any other tag introduces a segment */
        zeb_bb_seg *segment = read_segment(in);
        if (segment == nullptr)
            return;
        if (!link_decoded(block, last, segment))
            return;
        last = segment;
        tag = read_elements(in, segment);
    }
}

zeb_bb *ezeb_bb_body2block(const void *body, int32_t length)
{
    if (body == nullptr || length < static_cast<int32_t>(sizeof(signature)) ||
        memcmp(body, signature, sizeof(signature)) != 0)
        return nullptr;
    zeb_bb *block = ezeb_bb_create();
    if (block == nullptr)
        return nullptr;
    const size_t records = static_cast<size_t>(length) - sizeof(signature);
    bytes in = {static_cast<const char *>(body) + sizeof(signature), records, records, &block->decoded};
    decode(&in, block);
    return block;
}
