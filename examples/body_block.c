/* Makes a structured body for a notification and reads it again. Needs neither runtime nor daemon.
 *
 *     body_block
 */
#include <stdio.h>
#include <stdlib.h>
#include <zeb.h>

/* What a sender does: the bytes of a block with one segment a disk. The caller frees them. */
static void *make_body(int32_t *length)
{
    static const char *const disks[] = {"sda", "sdb"};
    static const unsigned char serial[] = {0x17, 0x00, 0x2a};
    zeb_bb *block = zeb_bb_create();
    for (int i = 0; i < 2; i++) {
        zeb_bb_seg *disk = zeb_bb_addsegment(block, disks[i]);
        zeb_bb_seg_addelement(disk, "state", "ok");
        zeb_bb_seg_addelement(disk, "state", i == 0 ? "ok" : "worn"); /* instead of the first */
        zeb_bb_seg_addelement_b(disk, "serial", serial, sizeof serial);
        zeb_bb_seg_addelement(zeb_bb_seg_addsegment(disk, "partition"), "free", "17");
    }
    void *body = zeb_bb_block2body(block, length);
    zeb_bb_destroy(block);
    return body;
}

/* What a receiver does with the body of a notification. */
static void read_body(const void *body, int32_t length)
{
    zeb_bb *block = zeb_bb_body2block(body, length);
    if (block == NULL) {
        printf("this is no block\n");
        return;
    }
    zeb_bb_seg *disk = zeb_bb_seglist_getfirst(zeb_bb_getsegments(block));
    for (; disk; disk = zeb_bb_seglist_getnext(disk)) {
        zeb_bb_elem *e = zeb_bb_elemlist_getfirst(zeb_bb_seg_getelements(disk));
        for (; e; e = zeb_bb_elemlist_getnext(e)) {
            int32_t size;
            zeb_bb_elem_getvalue(e, &size);
            printf("%s: %s has %d bytes\n", zeb_bb_seg_getname(disk), zeb_bb_elem_getname(e), (int)size);
        }
    }
    const char *state = zeb_bb_seg_getelement(zeb_bb_getsegment(block, "sdb"), "state", NULL);
    char *text = zeb_bb_toString(block);
    printf("sdb is %s\n%s", state ? state : "unknown", text ? text : "");
    free(text);
    zeb_bb_destroy(block); /* and with it everything that it handed out */
}

int main(void)
{
    int32_t length = 0;
    void *body = make_body(&length);
    /* Here zeb_notification_create("/disks", body, length) would copy it into a notification. */
    read_body(body, length);
    free(body);
    return 0;
}
