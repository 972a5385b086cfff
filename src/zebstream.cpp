/* Streams.
 *
 * Sending: each write becomes a class-4 piece that is published at once; closing sends an empty one.
 * Receiving: the subscriber's delivery feeds every piece to the stream of its key, and lets only the first
 * through to the application. An incoming stream has two ends, which go independently: the table's at the end
 * mark, the application's at its close; a count of references decides who releases it. */
#include "ezebstream.h"

#include "ezeblogicaladdr.h"
#include "ezebnotification.h"
#include "ezebpublisher.h"
#include "ezebruntime.h"
#include "ezebsubscriber.h"
#include "ezebutil.h"

#include <string.h>

/* ---- Sending ---- */

zeb_notification *ezeb_notification_createstream(const char *type)
{
    zeb_notification *n = ezeb_notification_create(type, nullptr, 0);
    if (n != nullptr)
        ezeb_notification_setClass(n, ZEB_CLASS_OUTGOINGSTREAM);
    return n;
}

zeb_outstream *ezeb_notification_getOutputStream(zeb_notification *n)
{
    if (n == nullptr)
        return nullptr;
    if (n->cls == ZEB_CLASS_OUTGOINGSTREAM && n->outputStream == nullptr) {
        n->outputStream = ezeb_new<zeb_outstream>();
        if (n->outputStream != nullptr)
            n->outputStream->head = n;
    }
    return n->outputStream;
}

static bool copy_text(zeb_notification *to, const char **field, const char *from)
{
    if (from == nullptr)
        return true;
    *field = ezeb_arena_strndup(&to->strings, from, strlen(from));
    return *field != nullptr;
}

/* Gives PIECE what every piece of a stream has from its head. Properties are set in the order of the head's
 * list, newest first, so the piece holds them in reverse. */
static bool copy_from_head(zeb_notification *piece, const zeb_notification *head)
{
    if (head->destinationAddrs != nullptr) {
        piece->destinationAddrs = ezeb_laddrlist_dup(head->destinationAddrs);
        if (piece->destinationAddrs == nullptr)
            return false;
    }
    for (const ezeb_propnode *p = head->properties; p != nullptr; p = p->next) {
        if (ezeb_notification_setProperty(piece, p->name, p->value) == -2)
            return false;
    }
    return copy_text(piece, &piece->streamKey, head->streamKey) &&
           copy_text(piece, &piece->affectedNodes, head->affectedNodes) &&
           copy_text(piece, &piece->affectedComponents, head->affectedComponents);
}

/* Publishes LENGTH bytes as one piece. LENGTH, or -1 when memory is out or the head was never published. */
static int32_t write_piece(zeb_notification *head, const void *data, int32_t length)
{
    if (head == nullptr || head->streamKey == nullptr || head->streamPublisher == nullptr)
        return -1;
    zeb_notification *piece = ezeb_notification_create(head->type, data, length);
    if (piece == nullptr)
        return -1;
    ezeb_notification_setClass(piece, ZEB_CLASS_INCOMINGSTREAM);
    if (!copy_from_head(piece, head)) {
        ezeb_notification_destroy(piece);
        return -1;
    }
    ezeb_publisher_publishown(head->streamPublisher, piece);
    return length;
}

int32_t ezeb_outstream_write(zeb_outstream *stream, const void *data, int32_t length)
{
    if (stream == nullptr || data == nullptr || length < 1 || stream->closed != 0)
        return 0;
    stream->written =
        static_cast<int32_t>(static_cast<uint32_t>(stream->written) + static_cast<uint32_t>(length));
    return write_piece(stream->head, data, length);
}

/* Every write has been published already. */
int32_t ezeb_outstream_flush(zeb_outstream *stream)
{
    (void)stream;
    return 0;
}

void ezeb_outstream_close(zeb_outstream **stream)
{
    if (stream == nullptr || *stream == nullptr)
        return;
    zeb_outstream *gone = *stream;
    *stream = nullptr;
    write_piece(gone->head, nullptr, 0);
    gone->closed = 1;
    gone->written = -1;
    ezeb_subscriber_letgo(gone->head); /* a head can have been received, however odd */
    ezeb_notification_destroy(gone->head);
    ezeb_free(gone);
}

/* ---- The incoming stream ---- */

static void free_chunk(void *element)
{
    auto *chunk = static_cast<ezeb_streamchunk *>(element);
    if (chunk == nullptr)
        return;
    ezeb_free(chunk->data);
    ezeb_free(chunk);
}

static void instream_unref(zeb_instream *stream)
{
    if (!ezeb_unref(&stream->references))
        return;
    ezeb_queue_destroy(stream->chunks, free_chunk, 1);
    free_chunk(stream->current);
    ezeb_free(stream->key);
    ezeb_free(stream);
}

static zeb_instream *instream_create(const char *key)
{
    auto *stream = ezeb_new<zeb_instream>();
    if (stream == nullptr)
        return nullptr;
    stream->references = 1;
    stream->forkgeneration = ezeb_fork_generation();
    stream->key = ezeb_strdup(key);
    stream->chunks = ezeb_queue_create();
    if (stream->key != nullptr && stream->chunks != nullptr)
        return stream;
    instream_unref(stream);
    return nullptr;
}

/* Takes DATA. False when nobody will read it: the application has closed the stream, or memory is out, for
 * which DATA may be null. */
static bool instream_feed(zeb_instream *stream, char *data, int32_t length)
{
    if (data == nullptr && length > 0)
        return false;
    ezeb_streamchunk *chunk = ezeb_flag_get(&stream->closed) == 0 ? ezeb_new<ezeb_streamchunk>() : nullptr;
    if (chunk == nullptr) {
        ezeb_free(data);
        return false;
    }
    *chunk = {data, length};
    if (ezeb_queue_enqueue(stream->chunks, chunk))
        return true;
    free_chunk(chunk);
    return false;
}

/* The chunk to read from: the current one, or the next, awaited when WAIT is set. Null when there is none. */
static const ezeb_streamchunk *current_chunk(zeb_instream *stream, bool wait)
{
    if (stream->current == nullptr)
        stream->current = static_cast<ezeb_streamchunk *>(ezeb_queue_dequeue(stream->chunks, wait, 0));
    return stream->current;
}

/* Copies from the current chunk, which is released when it has been read whole. */
static int32_t read_chunk(zeb_instream *stream, char *buffer, int32_t wanted)
{
    ezeb_streamchunk *chunk = stream->current;
    int32_t count = chunk->length - stream->offset;
    if (count > wanted)
        count = wanted;
    memcpy(buffer, chunk->data + stream->offset, static_cast<size_t>(count));
    stream->offset += count;
    if (stream->offset == chunk->length) {
        free_chunk(chunk);
        stream->current = nullptr;
        stream->offset = 0;
    }
    return count;
}

/* Waits only for the first byte. */
static int32_t read_available(zeb_instream *stream, char *buffer, int32_t length)
{
    int32_t copied = 0;
    while (copied < length) {
        const ezeb_streamchunk *chunk = current_chunk(stream, copied == 0);
        if (chunk == nullptr)
            break;
        if (chunk->length == 0) {
            stream->endOfStream = 1; /* the mark stays current */
            break;
        }
        copied += read_chunk(stream, buffer + copied, length - copied);
    }
    return copied;
}

int32_t ezeb_instream_read(zeb_instream *stream, void *buffer, int32_t length)
{
    if (buffer == nullptr || length < 1 || stream == nullptr || stream->endOfStream != 0 ||
        stream->forkgeneration != ezeb_fork_generation())
        return 0;
    ezeb_ref(&stream->references); /* so that a close by mistake meanwhile does no harm */
    const int32_t copied = read_available(stream, static_cast<char *>(buffer), length);
    instream_unref(stream);
    return copied;
}

void ezeb_instream_close(zeb_instream **stream)
{
    if (stream == nullptr || *stream == nullptr)
        return;
    zeb_instream *gone = *stream;
    *stream = nullptr;
    ezeb_flag_set(&gone->closed, 1);
    instream_unref(gone);
}

/* ---- The table ---- */

static void chain_append(ezeb_streamchain *chain, zeb_instream *stream)
{
    stream->next = nullptr;
    stream->prev = chain->tail;
    (chain->tail != nullptr ? chain->tail->next : chain->head) = stream;
    chain->tail = stream;
    chain->count++;
}

static void chain_remove(ezeb_streamchain *chain, zeb_instream *stream)
{
    (stream->prev != nullptr ? stream->prev->next : chain->head) = stream->next;
    (stream->next != nullptr ? stream->next->prev : chain->tail) = stream->prev;
    stream->next = nullptr;
    stream->prev = nullptr;
    chain->count--;
}

ezeb_streamtbl *ezeb_streamtbl_create(void)
{
    return ezeb_new<ezeb_streamtbl>();
}

void ezeb_streamtbl_shutdown(ezeb_streamtbl *table)
{
    for (zeb_instream *stream = table->chain.head; stream != nullptr; stream = stream->next)
        ezeb_queue_start_shutdown(stream->chunks);
}

void ezeb_streamtbl_destroy(ezeb_streamtbl **table)
{
    if (table == nullptr || *table == nullptr)
        return;
    ezeb_streamtbl *gone = *table;
    *table = nullptr;
    while (gone->chain.head != nullptr) {
        zeb_instream *stream = gone->chain.head;
        chain_remove(&gone->chain, stream);
        ezeb_queue_start_shutdown(stream->chunks);
        instream_unref(stream);
    }
    ezeb_free(gone);
}

static zeb_instream *find_stream(const ezeb_streamtbl *table, const char *key)
{
    zeb_instream *stream = table->chain.head;
    while (stream != nullptr && strcmp(stream->key, key) != 0)
        stream = stream->next;
    return stream;
}

/* A stream for the first piece N, which holds the application's end until the handle is asked for; null
 * without memory. */
static zeb_instream *begin_stream(ezeb_streamtbl *table, zeb_notification *n)
{
    zeb_instream *stream = instream_create(n->streamKey != nullptr ? n->streamKey : "");
    if (stream == nullptr)
        return nullptr;
    ezeb_ref(&stream->references);
    n->inputStream = stream;
    chain_append(&table->chain, stream);
    return stream;
}

int32_t ezeb_notification_isEndOfStream(const zeb_notification *n)
{
    return n != nullptr && (n->body == nullptr || n->bodyLength == 0);
}

/* The end mark is fed before the table lets go of the stream: the application may close its end at any time,
 * and then the table's is the last. A stream that begins with its end mark stays in the table until the
 * subscriber is closed. */
zeb_notification *ezeb_streamtbl_take(ezeb_streamtbl *table, zeb_notification *n)
{
    zeb_instream *stream = find_stream(table, n->streamKey != nullptr ? n->streamKey : "");
    const bool first = stream == nullptr;
    if (first)
        stream = begin_stream(table, n);
    if (stream == nullptr) {
        ezeb_notification_destroy(n);
        return nullptr;
    }
    const bool ends = ezeb_notification_isEndOfStream(n) != 0;
    const int32_t length = n->bodyLength;
    char *data = ezeb_notification_body_take(n);
    if (!instream_feed(stream, data, length) && ends)
        ezeb_queue_finish(stream->chunks); /* the mark is lost; nobody may wait for it */
    if (ends && !first) {
        chain_remove(&table->chain, stream);
        instream_unref(stream);
    }
    if (first)
        return n;
    ezeb_notification_destroy(n);
    return nullptr;
}

zeb_instream *ezeb_notification_getInputStream(const zeb_notification *n)
{
    if (n == nullptr)
        return nullptr;
    n->inputStreamHanded = 1; /* from here on the application closes it */
    return n->inputStream;
}
