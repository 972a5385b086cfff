/* Streams: bytes sent as a row of notifications with one key, read back as bytes. */
#ifndef EZEBSTREAM_H
#define EZEBSTREAM_H

#include "ezebqueue.h"

#include "zeb.h"

/* One thread at a time; the application's until it is closed. */
struct zeb_outstream {
    zeb_notification *head; /* class-3 head, owned */
    int32_t closed;
    int32_t written; /* bytes accepted, wrapping; -1 once closed */
};

/* What one piece brought. A length of 0 marks the end. */
struct ezeb_streamchunk {
    char *data; /* owned, may be null */
    int32_t length;
};

/* Counted: by the table until the end mark or the subscriber's release, by the application until it closes
 * its handle (by the first piece, while nobody has asked for the handle), and by a read while it runs. */
struct zeb_instream {
    int32_t references; /* through ezeb_ref and ezeb_unref */
    int32_t closed;     /* the application has closed its handle: what still arrives is dropped */
    uint32_t
        forkgeneration; /* constant: of the process that it began in; elsewhere there is nothing to read */
    char *key;          /* constant */
    ezeb_queue *chunks; /* constant; between the receive thread and the reader */

    /* The reading thread's. */
    ezeb_streamchunk *current;
    int32_t offset;
    int32_t endOfStream;

    zeb_instream *next; /* in the table, guarded as that is */
    zeb_instream *prev;
};

struct ezeb_streamchain {
    zeb_instream *head;
    zeb_instream *tail;
    int32_t count;
};

/* One per subscriber; used under the registry lock, and by the subscriber's release when nobody else can
 * reach it. */
struct ezeb_streamtbl {
    ezeb_streamchain chain;
};

zeb_notification *ezeb_notification_createstream(const char *type);
zeb_outstream *ezeb_notification_getOutputStream(zeb_notification *n);
zeb_instream *ezeb_notification_getInputStream(const zeb_notification *n);
int32_t ezeb_notification_isEndOfStream(const zeb_notification *n);

void ezeb_outstream_close(zeb_outstream **stream);
int32_t ezeb_outstream_flush(zeb_outstream *stream);
int32_t ezeb_outstream_write(zeb_outstream *stream, const void *data, int32_t length);
void ezeb_instream_close(zeb_instream **stream);
int32_t ezeb_instream_read(zeb_instream *stream, void *buffer, int32_t length);

ezeb_streamtbl *ezeb_streamtbl_create(void);

/* Ends the streams that no end mark has reached. Those the application holds are its to close. */
void ezeb_streamtbl_destroy(ezeb_streamtbl **table);

/* Caller holds regmutex. Feeds the class-4 piece N to its stream. Returns N when it is the first of its
 * stream and goes on to the application; null when it was taken. */
zeb_notification *ezeb_streamtbl_take(ezeb_streamtbl *table, zeb_notification *n);

/* Wakes every reader of TABLE for good: nothing more is read. */
void ezeb_streamtbl_shutdown(ezeb_streamtbl *table);

#endif
