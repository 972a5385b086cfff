/* Body blocks: the tree and its byte encoding. */
#ifndef EZEBBODYBLOCK_H
#define EZEBBODYBLOCK_H

#include "ezebutil.h"
#include "zeb.h"

#include <stddef.h>

struct ezeb_bb_index;

/* Name and value stand behind the record, in the same allocation, each with a NUL. Nodes that are added have
 * an allocation of their own; those that were decoded stand in the arena of their block. */
struct zeb_bb_elem {
    zeb_bb_elem *next;
    zeb_bb_elem *prev;
    char *name;
    uint32_t namelength;
    uint32_t namehash;
    char *value;
    int32_t length;
    bool inArena;
};

struct zeb_bb_elemlist {
    zeb_bb_elem *first;
    zeb_bb_elem *last;
    uint32_t count;
};

struct zeb_bb_seglist {
    zeb_bb_seg *first;
    zeb_bb_seg *last;
    uint32_t count;
};

/* The name stands behind the record, in the same allocation. */
struct zeb_bb_seg {
    zeb_bb_seg *next;
    zeb_bb_seg *prev;
    zeb_bb_seg *parent; /* null at the top; lets every walk do without recursion */
    char *name;
    uint32_t namelength;
    uint32_t namehash;
    zeb_bb_elemlist elements;
    zeb_bb_seglist segments;
    uint64_t names; /* a bit for each name that an element has, or had: most that are new are known by it */
    uint32_t level; /* as decoded; 0 for segments made by an add */
    bool inArena;
    ezeb_bb_index *index; /* elements by name, once there are many; or null */
};

struct zeb_bb {
    zeb_bb_seglist segments;
    ezeb_arena decoded;
};

char *ezeb_bb_toString(const zeb_bb *block);
zeb_bb_elem *ezeb_bb_elemlist_getnext(const zeb_bb_elem *element);
zeb_bb_elem *ezeb_bb_elemlist_getfirst(const zeb_bb_elemlist *elements);
zeb_bb_seg *ezeb_bb_seglist_getnext(const zeb_bb_seg *segment);
zeb_bb_seg *ezeb_bb_seglist_getfirst(const zeb_bb_seglist *segments);
const char *ezeb_bb_elem_getvalue(const zeb_bb_elem *element, int32_t *length);
const char *ezeb_bb_elem_getname(const zeb_bb_elem *element);
zeb_bb_elem *ezeb_bb_seg_addelement_b(zeb_bb_seg *segment, const char *name, const void *value,
                                      int32_t length);
zeb_bb_elem *ezeb_bb_seg_addelement(zeb_bb_seg *segment, const char *name, const char *value);
const char *ezeb_bb_seg_getelement(const zeb_bb_seg *segment, const char *name, int32_t *length);
zeb_bb_elemlist *ezeb_bb_seg_getelements(zeb_bb_seg *segment);
zeb_bb_seg *ezeb_bb_seg_addsegment(zeb_bb_seg *segment, const char *name);
zeb_bb_seg *ezeb_bb_seg_getsegment(const zeb_bb_seg *segment, const char *name);
zeb_bb_seglist *ezeb_bb_seg_getsegments(zeb_bb_seg *segment);
const char *ezeb_bb_seg_getname(const zeb_bb_seg *segment);
zeb_bb_seg *ezeb_bb_addsegment(zeb_bb *block, const char *name);
zeb_bb_seg *ezeb_bb_getsegment(const zeb_bb *block, const char *name);
zeb_bb_seglist *ezeb_bb_getsegments(zeb_bb *block);
zeb_bb *ezeb_bb_body2block(const void *body, int32_t length);
void *ezeb_bb_block2body(const zeb_bb *block, int32_t *length);
void ezeb_bb_destroy(zeb_bb *block);
zeb_bb *ezeb_bb_create(void);

/* Appends a top-level segment without looking for a namesake: for names known to be new. */
zeb_bb_seg *ezeb_bb_appendsegment(zeb_bb *block, const char *name);

uint64_t ezeb_bb_encodedsize(const zeb_bb *block);

/* Hash stored with every name: each byte shifted by 0 to 24 and XORed in. */
uint32_t ezeb_bb_namehash(const char *name, size_t length);

#endif
