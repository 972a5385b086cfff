/* Notifications: the object and its wire format. Nothing here is locked; the holder fields belong to
 * zebsubscriber.
 *
 * On the wire every header has its place: the writer puts them in one fixed order, the reader skips as many
 * bytes as the expected name takes without comparing it, and takes the rest of the line as value. */
#include "ezebnotification.h"

#include "ezebbodyblock.h"
#include "ezeblogicaladdr.h"
#include "ezebproplist.h"
#include "ezebpublisher.h"
#include "ezebruntime.h"
#include "ezebstream.h"

#include <string.h>

/* ---- The object ---- */

static constexpr const char *classnames[] = {
    "MessageNotification",           "MembershipListNotification",    "MembershipDeltaNotification",
    "OutgoingStreamingNotification", "IncomingStreamingNotification", "StateGetNotification",
    "StateSetNotification",          "LeaveGroupNotification",        "UnknownNotificationClass",
};

const char *ezeb_notification_classname(uint32_t cls)
{
    return classnames[cls < ZEB_CLASS_UNKNOWN ? cls : static_cast<uint32_t>(ZEB_CLASS_UNKNOWN)];
}

/* Classes that carry origin fields, local-only flag and properties. */
static bool is_messagelike(uint32_t cls)
{
    return cls == ZEB_CLASS_MESSAGE || cls == ZEB_CLASS_OUTGOINGSTREAM || cls == ZEB_CLASS_INCOMINGSTREAM;
}

static ezeb_blockcache blocks = {}; /* of notifications: nearly all are released by another thread */

static zeb_notification *new_notification(void)
{
    /* The room behind the fields need not be zeroed. */
    auto *n = static_cast<zeb_notification *>(ezeb_blockcache_take(&blocks, sizeof(zeb_notification)));
    if (n == nullptr)
        return nullptr;
    memset(static_cast<void *>(n), 0, offsetof(zeb_notification, room));
    ezeb_arena_init(&n->strings, n->room, sizeof(n->room));
    return n;
}

/* As an allocation of its own would have it: applications look at bodies as records of theirs. */
static constexpr size_t BODY_ALIGNMENT = alignof(max_align_t);

/* Whether a body of LENGTH finds room in the arena as it is, aligned and with its NUL. */
static bool fits_in_room(const zeb_notification *n, size_t length)
{
    return n->strings.left >= BODY_ALIGNMENT && length < n->strings.left - BODY_ALIGNMENT;
}

/* Room for a body of LENGTH and the NUL behind it, with which text bodies can be shown as they are: in the
 * notification's own allocation when it fits there. False when memory is out. */
static bool make_body(zeb_notification *n, size_t length)
{
    n->bodyInRoom = fits_in_room(n, length);
    n->body = static_cast<char *>(n->bodyInRoom ? ezeb_arena_alloc(&n->strings, length + 1, BODY_ALIGNMENT)
                                                : ezeb_malloc(length + 1));
    if (n->body != nullptr)
        n->body[length] = '\0';
    return n->body != nullptr;
}

static const char *keep(zeb_notification *n, const char *s)
{
    return ezeb_arena_strndup(&n->strings, s, strlen(s));
}

zeb_notification *ezeb_notification_create(const char *type, const void *body, int32_t bodyLength)
{
    if (type == nullptr || (body == nullptr && bodyLength > 0))
        return nullptr;
    zeb_notification *n = new_notification();
    if (n == nullptr)
        return nullptr;
    n->bodyLength = bodyLength;
    n->type = keep(n, type);
    bool complete = n->type != nullptr;
    if (complete && bodyLength > 0) {
        const auto length = static_cast<size_t>(bodyLength);
        complete = make_body(n, length);
        if (complete)
            memcpy(n->body, body, length);
    }
    if (complete)
        return n;
    ezeb_notification_destroy(n);
    return nullptr;
}

void ezeb_notification_destroy(zeb_notification *n)
{
    if (n == nullptr)
        return;
    if (!n->bodyInRoom)
        ezeb_free(n->body);
    ezeb_logicaladdr_destroy(&n->generatingAddress);
    ezeb_laddrlist_destroy(&n->destinationAddrs);
    ezeb_laddrlist_destroy(&n->memberList);
    ezeb_laddrlist_destroy(&n->membersAdded);
    ezeb_laddrlist_destroy(&n->membersRemoved);
    ezeb_publisher_unref(n->streamPublisher);
    if (n->inputStreamHanded == 0)
        ezeb_instream_close(&n->inputStream);
    ezeb_arena_release(&n->strings);
    ezeb_blockcache_give(&blocks, n);
}

void ezeb_notification_forget_blocks(void)
{
    ezeb_blockcache_clear(&blocks);
}

ezeb_queue_cell *ezeb_notification_cell(zeb_notification *n)
{
    n->item.cell = {n, nullptr, true};
    return &n->item.cell;
}

void ezeb_notification_destroyall(ezeb_queue_cell *cells)
{
    while (cells != nullptr) {
        auto *n = static_cast<zeb_notification *>(cells->element);
        cells = cells->next;
        ezeb_notification_destroy(n);
    }
}

void ezeb_notification_setClass(zeb_notification *n, uint32_t cls)
{
    n->cls = cls;
}

uint32_t ezeb_notification_getClass(const zeb_notification *n)
{
    return n != nullptr ? n->cls : static_cast<uint32_t>(ZEB_CLASS_UNKNOWN);
}

void ezeb_notification_setLocalOnly(zeb_notification *n)
{
    if (n != nullptr)
        n->localOnly = 1;
}

int32_t ezeb_notification_localOnly(const zeb_notification *n)
{
    return n != nullptr ? n->localOnly : 0;
}

const char *ezeb_notification_type(const zeb_notification *n)
{
    return n != nullptr ? n->type : nullptr;
}

const char *ezeb_notification_id(const zeb_notification *n)
{
    return n != nullptr ? n->id : nullptr;
}

const char *ezeb_notification_stamp(const zeb_notification *n)
{
    return n != nullptr ? n->stamp : nullptr;
}

const char *ezeb_notification_instanceName(const zeb_notification *n)
{
    return n != nullptr ? n->instanceName : nullptr;
}

const char *ezeb_notification_generatingComponent(const zeb_notification *n)
{
    return n != nullptr ? n->generatingComponent : nullptr;
}

const char *ezeb_notification_generatingNode(const zeb_notification *n)
{
    return n != nullptr ? n->generatingNode : nullptr;
}

const char *ezeb_notification_generatingProcess(const zeb_notification *n)
{
    return n != nullptr ? n->generatingProcess : nullptr;
}

const char *ezeb_notification_affectedComponents(const zeb_notification *n)
{
    return n != nullptr ? n->affectedComponents : nullptr;
}

const char *ezeb_notification_affectedNodes(const zeb_notification *n)
{
    return n != nullptr ? n->affectedNodes : nullptr;
}

const char *ezeb_notification_getStreamKey(const zeb_notification *n)
{
    return n != nullptr ? n->streamKey : nullptr;
}

enum { MS_PER_SECOND = 1000 };

int64_t ezeb_notification_creationTime(const zeb_notification *n)
{
    return n != nullptr ? n->creationTime / MS_PER_SECOND : 0; /* "not yet known", -1, reads as 0 */
}

int64_t ezeb_notification_deliveryTime(const zeb_notification *n)
{
    return n != nullptr ? n->deliveryTime / MS_PER_SECOND : 0;
}

const void *ezeb_notification_body(const zeb_notification *n, int32_t *length)
{
    if (n == nullptr)
        return nullptr;
    if (length != nullptr)
        *length = n->bodyLength;
    return n->body;
}

char *ezeb_notification_body_take(zeb_notification *n)
{
    char *body = n->body;
    if (n->bodyInRoom && body != nullptr)
        body = static_cast<char *>(ezeb_memdup(body, static_cast<size_t>(n->bodyLength) + 1));
    n->body = nullptr;
    n->bodyLength = 0;
    n->bodyInRoom = false;
    return body;
}

/* ---- Addresses ---- */

zeb_logicaladdr *ezeb_notification_generatingAddress(const zeb_notification *n)
{
    return n != nullptr ? n->generatingAddress : nullptr;
}

zeb_laddrlist *ezeb_notification_getDestinationAddrs(const zeb_notification *n)
{
    return n != nullptr ? n->destinationAddrs : nullptr;
}

zeb_laddrlist *ezeb_notification_obtainMemberList(const zeb_notification *n)
{
    return n != nullptr ? n->memberList : nullptr;
}

zeb_laddrlist *ezeb_notification_getMembersAdded(const zeb_notification *n)
{
    return n != nullptr ? n->membersAdded : nullptr;
}

zeb_laddrlist *ezeb_notification_getMembersRemoved(const zeb_notification *n)
{
    return n != nullptr ? n->membersRemoved : nullptr;
}

int32_t ezeb_notification_isMembership(const zeb_notification *n)
{
    return n != nullptr && (n->cls == ZEB_CLASS_MEMBERSHIPLIST || n->cls == ZEB_CLASS_MEMBERSHIPDELTA);
}

/* The new list is complete before the old one goes: what is copied may stand in it. */
static void replace_destinations(zeb_notification *n, zeb_laddrlist *fresh)
{
    if (fresh == nullptr)
        return;
    ezeb_laddrlist_destroy(&n->destinationAddrs);
    n->destinationAddrs = fresh;
}

void ezeb_notification_setDestinationAddr(zeb_notification *n, const zeb_logicaladdr *address)
{
    if (n == nullptr || address == nullptr)
        return;
    zeb_laddrlist *fresh = ezeb_laddrlist_create();
    if (fresh != nullptr)
        ezeb_laddrlist_add(fresh, address);
    if (ezeb_laddrlist_count(fresh) == 0)
        ezeb_laddrlist_destroy(&fresh); /* an empty list would make it a broadcast */
    replace_destinations(n, fresh);
}

void ezeb_notification_setDestinationAddrs(zeb_notification *n, const zeb_laddrlist *addresses)
{
    if (n != nullptr && addresses != nullptr)
        replace_destinations(n, ezeb_laddrlist_dup(addresses));
}

/* ---- Properties ---- */

static constexpr char illegal_name[] =
    "ILLEGAL PROPERTY NAME [Property name must not contain ':', '\\r', or '\\n']";
static constexpr char illegal_value[] =
    "ILLEGAL PROPERTY VALUE [Property value must not contain '\\r' or '\\n']";

/* Puts a node with copies at the head; false when memory is out. */
static bool push_property(zeb_notification *n, const char *name, size_t namelength, const char *value,
                          size_t valuelength)
{
    auto *node = static_cast<ezeb_propnode *>(ezeb_arena_alloc(&n->strings, sizeof(ezeb_propnode)));
    if (node == nullptr)
        return false;
    node->name = ezeb_arena_strndup(&n->strings, name, namelength);
    node->value = ezeb_arena_strndup(&n->strings, value, valuelength);
    node->namelength = namelength;
    node->valuelength = valuelength;
    if (node->name == nullptr || node->value == nullptr)
        return false;
    node->next = n->properties;
    n->properties = node;
    return true;
}

/* An illegal name or value is not refused: a text that says so takes its place, travels and is shown. */
int32_t ezeb_notification_setProperty(zeb_notification *n, const char *name, const char *value)
{
    if (n == nullptr || name == nullptr || value == nullptr)
        return -2;
    size_t namelength = strcspn(name, ":\r\n");
    size_t valuelength = strcspn(value, "\r\n");
    const bool badname = name[namelength] != '\0';
    const bool badvalue = value[valuelength] != '\0';
    if (badname) {
        name = illegal_name;
        namelength = sizeof(illegal_name) - 1;
    }
    if (badvalue) {
        value = illegal_value;
        valuelength = sizeof(illegal_value) - 1;
    }
    if (!push_property(n, name, namelength, value, valuelength))
        return -2;
    return badname || badvalue ? -1 : 0;
}

/* The newest node of a name wins here; a receiver holds the nodes in reverse order and finds the oldest. */
const char *ezeb_notification_getProperty(const zeb_notification *n, const char *name)
{
    if (n == nullptr || name == nullptr)
        return nullptr;
    for (const ezeb_propnode *node = n->properties; node != nullptr; node = node->next) {
        if (strcmp(node->name, name) == 0)
            return node->value;
    }
    return nullptr;
}

static int32_t count_properties(const zeb_notification *n)
{
    int32_t count = 0;
    for (const ezeb_propnode *node = n->properties; node != nullptr; node = node->next)
        count++;
    return count;
}

zeb_property *ezeb_notification_getAllProperties(const zeb_notification *n, int32_t *count)
{
    const int32_t found = n != nullptr ? count_properties(n) : 0;
    zeb_property *all = nullptr;
    if (found > 0) {
        all = static_cast<zeb_property *>(ezeb_malloc(static_cast<size_t>(found) * sizeof(zeb_property)));
        if (all == nullptr)
            return nullptr; /* the count stays unwritten */
        zeb_property *next = all;
        for (const ezeb_propnode *node = n->properties; node != nullptr; node = node->next)
            *next++ = {const_cast<char *>(node->name), const_cast<char *>(node->value)};
    }
    if (count != nullptr)
        *count = found;
    return all;
}

int32_t ezeb_notification_set_pubinfo(zeb_notification *n, const char *component, const char *node,
                                      const char *process, const char *id, int32_t subscriberId)
{
    n->generatingNode = keep(n, node);
    n->generatingProcess = keep(n, process);
    n->id = id;
    n->creationTime = -1;
    n->subscriberId = subscriberId;
    const bool complete = n->generatingNode != nullptr && n->generatingProcess != nullptr;
    n->generatingComponent = complete ? keep(n, component) : nullptr; /* what tells a stamped notification */
    return n->generatingComponent != nullptr;
}

int32_t ezeb_notification_set_streampublisher(zeb_notification *n, zeb_publisher *publisher)
{
    const char *key = n->id != nullptr ? n->id : "";
    if (n->streamKey == nullptr || strcmp(n->streamKey, key) != 0)
        n->streamKey = keep(n, key);
    if (n->streamKey == nullptr)
        return 0;
    ezeb_publisher_unref(n->streamPublisher);
    n->streamPublisher = ezeb_publisher_ref(publisher);
    return 1;
}

/* ---- Writing ---- */

/* A literal, which names a header and ends the line before it, and the header's value; null: empty. */
template <size_t N>
static int32_t write_field(ezeb_sb *sb, const char (&literal)[N], const char *value)
{
    return ezeb_sb_write(sb, literal, N - 1) && ezeb_sb_puts(sb, value);
}

template <size_t N>
static int32_t write_number(ezeb_sb *sb, const char (&literal)[N], int64_t value)
{
    char text[EZEB_INT_TEXT];
    const char *end = ezeb_int2str(text, value);
    return ezeb_sb_write(sb, literal, N - 1) && ezeb_sb_write(sb, text, static_cast<size_t>(end - text));
}

int32_t ezeb_write_proplist(const zeb_proplist *list, ezeb_sb *sb)
{
    if (sb == nullptr)
        return 0;
    const int32_t count = ezeb_proplist_count(list);
    int32_t ok = write_number(sb, "numberOfProperties: ", count);
    for (int32_t i = 0; ok && i < count; i++)
        ok = write_field(sb, "\r\n", list->entries[i].name) && write_field(sb, ": ", list->entries[i].value);
    return ok && ezeb_sb_write(sb, "\r\n", 2);
}

static int32_t write_properties(const zeb_notification *n, ezeb_sb *sb)
{
    int32_t ok = n->localOnly != 0
                     ? write_number(sb, "\r\nLocalOnly: true\r\nnumberOfProperties: ", count_properties(n))
                     : write_number(sb, "\r\nLocalOnly: false\r\nnumberOfProperties: ", count_properties(n));
    for (const ezeb_propnode *node = n->properties; ok && node != nullptr; node = node->next)
        ok = ezeb_sb_write(sb, "\r\n", 2) && ezeb_sb_write(sb, node->name, node->namelength) &&
             ezeb_sb_write(sb, ": ", 2) && ezeb_sb_write(sb, node->value, node->valuelength);
    return ok;
}

/* The instance name is the runtime's, learned at connect, not the notification's own field. */
static int32_t write_instancename(ezeb_runtime *rt, ezeb_sb *sb)
{
    ezeb_sharedtext *name = ezeb_instancename_ref(rt);
    const int32_t ok = write_field(sb, "\r\ninstanceName: ", "") &&
                       (name == nullptr || ezeb_sb_write(sb, name->text, name->length));
    ezeb_sharedtext_unref(name);
    return ok;
}

static int32_t write_origin(ezeb_runtime *rt, const zeb_notification *n, ezeb_sb *sb)
{
    return write_field(sb, "\r\naffectedComponents: ", n->affectedComponents) &&
           write_field(sb, "\r\naffectedNodes: ", n->affectedNodes) &&
           write_field(sb, "\r\ngeneratingComponent: ", n->generatingComponent) &&
           write_field(sb, "\r\ngeneratingProcess: ", n->generatingProcess) &&
           write_field(sb, "\r\ngeneratingNode: ", n->generatingNode) && write_instancename(rt, sb) &&
           write_properties(n, sb) &&
           (n->cls != ZEB_CLASS_INCOMINGSTREAM || write_field(sb, "\r\nstreamKey: ", n->streamKey));
}

static int32_t write_bytes(ezeb_sb *sb, const void *bytes, int32_t length)
{
    return length == 0 || ezeb_sb_write(sb, bytes, static_cast<size_t>(length));
}

/* A large body goes out past the buffer, and with it the end of the event. Then it has been written whatever
 * becomes of the connection from there on: if it counted as failed, it would be sent again on the next one,
 * to a daemon that may have it already. */
static int32_t finish(ezeb_sb *sb)
{
    return sb->end == 0 || ezeb_sb_flush(sb);
}

static int32_t write_event(ezeb_runtime *rt, const zeb_notification *n, const void *addresses,
                           int32_t addresslength, ezeb_sb *sb)
{
    const int32_t bodylength = n->bodyLength > 0 ? n->bodyLength : 0;
    return write_field(sb, "POST /event HTTP/1.1\r\nclassName: ", ezeb_notification_classname(n->cls)) &&
           write_number(sb, "\r\nSubscriberID: ", n->subscriberId) &&
           write_field(sb, "\r\neventType: ", n->type) && write_field(sb, "\r\neventId: ", n->id) &&
           (!is_messagelike(n->cls) || write_origin(rt, n, sb)) &&
           write_number(sb, "\r\nContent-Length: ", bodylength) &&
           write_number(sb, "\r\nAddrList-Length: ", addresslength) && ezeb_sb_write(sb, "\r\n\r\n", 4) &&
           write_bytes(sb, n->body, bodylength) && write_bytes(sb, addresses, addresslength) && finish(sb);
}

int32_t ezeb_notification_write(ezeb_runtime *rt, const zeb_notification *n, ezeb_sb *sb)
{
    if (n == nullptr)
        return -1;
    int32_t length = 0;
    void *addresses = ezeb_laddrlist_toBody(n->destinationAddrs, &length);
    if (length < 0)
        return 1; /* no message can hold its addresses: it is dropped, not kept in front of all others */
    if (addresses == nullptr && ezeb_laddrlist_count(n->destinationAddrs) > 0)
        return 0; /* no memory; without its addresses the event would go to everybody */
    const int32_t result = write_event(rt, n, addresses, length, sb);
    ezeb_free(addresses);
    return result;
}

/* ---- Reading ---- */

/* The value of the next header line, which is good until the next read. Its name takes SKIP bytes, whatever
 * they are. */
static char *read_value(ezeb_sb *sb, size_t skip)
{
    char *line;
    return ezeb_sb_skip(sb, skip) && ezeb_sb_gets(sb, &line) ? line : nullptr;
}

/* Bytes that the name of a header takes with its colon and space. */
template <size_t N>
static constexpr size_t skip_of(const char (&)[N])
{
    return N - 1;
}

static bool read_string(zeb_notification *n, ezeb_sb *sb, size_t skip, const char **field)
{
    char *value;
    size_t length;
    if (!ezeb_sb_skip(sb, skip) || !ezeb_sb_getline(sb, &value, &length))
        return false;
    *field = ezeb_arena_strndup(&n->strings, value, length);
    return *field != nullptr;
}

static bool read_int(ezeb_sb *sb, size_t skip, int32_t *out)
{
    const char *value = read_value(sb, skip);
    if (value == nullptr)
        return false;
    *out = ezeb_decimal(value);
    return true;
}

static bool read_time(ezeb_sb *sb, int64_t *out)
{
    enum { TIME_SKIP = 14 }; /* a name of 12 characters, free for the daemon to choose */
    const char *value = read_value(sb, TIME_SKIP);
    if (value == nullptr)
        return false;
    *out = ezeb_str2ll(value);
    return true;
}

static bool read_class(zeb_notification *n, ezeb_sb *sb)
{
    const char *name = read_value(sb, skip_of("className: "));
    if (name == nullptr)
        return false;
    n->cls = 0;
    while (n->cls < ZEB_CLASS_UNKNOWN && strcmp(name, classnames[n->cls]) != 0)
        n->cls++;
    return true;
}

/* "3;9": as many identifiers as separators and one more; an empty one, also the one behind a last ';', is 0.
 */
static bool read_ids(ezeb_sb *sb, int32_t **ids, int32_t *idcount)
{
    const char *value = read_value(sb, skip_of("SubscriberID: "));
    if (value == nullptr || *value == '\0')
        return false;
    size_t count = 1;
    for (const char *p = value; (p = strchr(p, ';')) != nullptr; p++)
        count++;
    size_t size;
    if (count > INT32_MAX || __builtin_mul_overflow(count, sizeof(int32_t), &size))
        return false;
    *ids = static_cast<int32_t *>(ezeb_malloc(size));
    if (*ids == nullptr)
        return false;
    *idcount = static_cast<int32_t>(count);
    const char *p = value;
    for (size_t i = 0; i < count; i++) {
        const char *end = strchr(p, ';');
        (*ids)[i] = *p == ';' ? 0 : ezeb_decimal(p);
        p = end != nullptr ? end + 1 : p;
    }
    return true;
}

/* A line without a colon counts, but gives no property. The byte behind the colon is dropped, whatever it is.
 * A NUL ends name and value as it ends every text here, though the line goes on. */
static bool take_property(zeb_notification *n, const char *line)
{
    const char *colon = strchr(line, ':');
    if (colon == nullptr)
        return true;
    const char *value = colon[1] != '\0' ? colon + 2 : colon + 1;
    return push_property(n, line, static_cast<size_t>(colon - line), value, strlen(value));
}

/* The writer sends the list from its head and each line is pushed at the head here, so it arrives in reverse.
 * Both sides keep it so. */
static bool read_properties(zeb_notification *n, ezeb_sb *sb)
{
    int32_t count = 0;
    if (!read_int(sb, skip_of("numberOfProperties: "), &count))
        return false;
    char *line;
    for (int32_t i = 0; i < count; i++) {
        if (!ezeb_sb_gets(sb, &line) || !take_property(n, line))
            return false;
    }
    return true;
}

static bool read_localonly(zeb_notification *n, ezeb_sb *sb)
{
    const char *value = read_value(sb, skip_of("LocalOnly: "));
    if (value == nullptr)
        return false;
    n->localOnly = strcmp(value, "true") == 0;
    return true;
}

static bool read_origin(zeb_notification *n, ezeb_sb *sb)
{
    return read_string(n, sb, skip_of("affectedComponents: "), &n->affectedComponents) &&
           read_string(n, sb, skip_of("affectedNodes: "), &n->affectedNodes) &&
           read_string(n, sb, skip_of("generatingComponent: "), &n->generatingComponent) &&
           read_string(n, sb, skip_of("generatingProcess: "), &n->generatingProcess) &&
           read_string(n, sb, skip_of("generatingNode: "), &n->generatingNode) &&
           read_string(n, sb, skip_of("instanceName: "), &n->instanceName) && read_localonly(n, sb) &&
           read_properties(n, sb) &&
           (n->cls != ZEB_CLASS_INCOMINGSTREAM || read_string(n, sb, skip_of("streamKey: "), &n->streamKey));
}

/* LENGTH bytes, at least one, with a NUL behind them, or null. The block grows as bytes arrive: an announced
 * length alone commits little memory. */
static char *read_block(ezeb_sb *sb, int32_t length)
{
    constexpr size_t FIRST_STEP = 1048576;
    const auto wanted = static_cast<size_t>(length);
    char *block = nullptr;
    size_t have = 0;
    while (have < wanted) {
        size_t next = have == 0 ? FIRST_STEP : have * 2;
        if (next > wanted)
            next = wanted;
        char *grown = static_cast<char *>(ezeb_realloc(block, next + 1));
        if (grown == nullptr || !ezeb_sb_readpart(sb, grown + have, next - have, wanted - next)) {
            ezeb_free(grown != nullptr ? grown : block);
            return nullptr;
        }
        block = grown;
        have = next;
    }
    /* cppcheck-suppress nullPointer ; at least one byte is wanted, so there is a block */
    block[wanted] = '\0';
    return block;
}

/* A piece of a stream has its body taken out, so that one stands alone. */
static bool read_body(zeb_notification *n, ezeb_sb *sb, int32_t length)
{
    const auto wanted = static_cast<size_t>(length);
    if (n->cls != ZEB_CLASS_INCOMINGSTREAM && fits_in_room(n, wanted)) {
        if (!make_body(n, wanted) || !ezeb_sb_readbytes(sb, n->body, wanted))
            return false;
    } else {
        n->body = read_block(sb, length);
    }
    n->bodyLength = length;
    return n->body != nullptr;
}

static bool read_addresses(zeb_notification *n, ezeb_sb *sb, int32_t length)
{
    char *bytes = read_block(sb, length);
    if (bytes == nullptr)
        return false;
    ezeb_laddrlist_fromBody(&n->generatingAddress, &n->destinationAddrs, &n->memberList, &n->membersAdded,
                            &n->membersRemoved, bytes, length);
    ezeb_free(bytes);
    return true;
}

static bool read_blocks(zeb_notification *n, ezeb_sb *sb)
{
    enum {
        EMPTY_LINE = 2
    }; /* two bytes, whatever they are: a daemon that ends lines with LF alone loses a byte here */
    int32_t bodylength = 0;
    int32_t addresslength = 0;
    if (!read_int(sb, skip_of("Content-Length: "), &bodylength) ||
        !read_int(sb, skip_of("AddrList-Length: "), &addresslength) || !ezeb_sb_skip(sb, EMPTY_LINE))
        return false;
    if (bodylength > 0 && !read_body(n, sb, bodylength))
        return false;
    return addresslength < 1 || read_addresses(n, sb, addresslength);
}

static bool read_into(zeb_notification *n, ezeb_sb *sb, int32_t **ids, int32_t *idcount)
{
    if (!read_class(n, sb) || !read_ids(sb, ids, idcount) ||
        !read_string(n, sb, skip_of("eventType: "), &n->type) ||
        !read_string(n, sb, skip_of("eventId: "), &n->id) || !read_time(sb, &n->creationTime) ||
        !read_time(sb, &n->deliveryTime))
        return false;
    if (n->cls == ZEB_CLASS_UNKNOWN) {
        ezeb_sb_settle(sb);
        ezeb_diag("Notification Read Error: unknown class of notification\n");
        return false;
    }
    return (!is_messagelike(n->cls) || read_origin(n, sb)) && read_blocks(n, sb);
}

zeb_notification *ezeb_notification_read(ezeb_sb *sb, int32_t **ids, int32_t *idcount)
{
    zeb_notification *n = new_notification();
    if (n == nullptr)
        return nullptr;
    if (read_into(n, sb, ids, idcount))
        return n;
    ezeb_notification_destroy(n);
    return nullptr;
}

/* ---- Text ----
 * One field a line behind labels of one width. The difference in sign between the two times, and the label
 * under which removed members are shown, are as they have always been. */

enum { BODY_NONE = 0, BODY_HEX = 1, BODY_STRING = 2, BODY_BLOCK = 3, BODY_BLOCK_OR_HEX = 4 };

static void add_field(ezeb_text *text, const char *label, const char *value)
{
    ezeb_text_add(text, label);
    ezeb_text_add(text, value);
    ezeb_text_add(text, "\n");
}

static void add_number(ezeb_text *text, const char *label, int64_t value)
{
    char number[EZEB_INT_TEXT];
    ezeb_int2str(number, value);
    add_field(text, label, number);
}

static void add_address(ezeb_text *text, const char *label, const zeb_logicaladdr *address)
{
    char *shown = ezeb_logicaladdr_toString(address);
    add_field(text, label, shown);
    ezeb_free(shown);
}

static void add_addresses(ezeb_text *text, const char *label, const zeb_laddrlist *list)
{
    for (int32_t i = 0; i < ezeb_laddrlist_count(list); i++)
        add_address(text, label, &list->entries[i]);
}

static void add_origin(ezeb_text *text, const zeb_notification *n)
{
    add_field(text, "  Generating Component: ", n->generatingComponent);
    add_field(text, "  Generating Node:      ", n->generatingNode);
    add_field(text, "  Generating Process:   ", n->generatingProcess);
    add_field(text, "  Instance Name:        ", n->instanceName);
    add_field(text, "  Affected Components:  ", n->affectedComponents);
    add_field(text, "  Affected Nodes:       ", n->affectedNodes);
    add_field(text, "  Local Only Flag:      ", n->localOnly != 0 ? "true" : "false");
    for (const ezeb_propnode *p = n->properties; p != nullptr; p = p->next) {
        ezeb_text_add(text, "  Property:             ");
        ezeb_text_add(text, p->name);
        add_field(text, "=", p->value);
    }
}

static void add_address_section(ezeb_text *text, const zeb_notification *n)
{
    if (is_messagelike(n->cls) || n->cls == ZEB_CLASS_STATEGET || n->cls == ZEB_CLASS_STATESET) {
        add_address(text, "  Source Addr:          ", n->generatingAddress);
        add_addresses(text, "  Destination Addr:     ", n->destinationAddrs);
    } else if (n->cls == ZEB_CLASS_MEMBERSHIPLIST) {
        add_addresses(text, "  Member Addr:          ", n->memberList);
    } else if (n->cls == ZEB_CLASS_MEMBERSHIPDELTA) {
        add_addresses(text, "  Added Addr:           ", n->membersAdded);
        add_addresses(text, "  Member Addr:          ", n->membersRemoved);
    }
}

/* Rows of 32 bytes, a space behind each fourth. */
static void add_hexdump(ezeb_text *text, const zeb_notification *n)
{
    enum { ROW = 32, GROUP = 4 };
    static constexpr char digits[] = "0123456789abcdef";
    ezeb_text_add(text, "    ");
    for (int32_t i = 0; i < n->bodyLength; i++) {
        const auto byte = static_cast<unsigned char>(n->body[i]);
        const char pair[] = {digits[byte / 16], digits[byte % 16]};
        ezeb_text_bytes(text, pair, sizeof(pair));
        if (i % GROUP == GROUP - 1)
            ezeb_text_add(text, " ");
        if (i % ROW == ROW - 1 && i + 1 < n->bodyLength)
            ezeb_text_add(text, "\n    ");
    }
    ezeb_text_add(text, "\n");
}

static void add_block(ezeb_text *text, const zeb_notification *n, int32_t bodyFormat)
{
    zeb_bb *block = ezeb_bb_body2block(n->body, n->bodyLength);
    if (block != nullptr) {
        char *shown = ezeb_bb_toString(block);
        ezeb_text_add(text, shown);
        ezeb_free(shown);
        ezeb_bb_destroy(block);
    } else if (bodyFormat == BODY_BLOCK) {
        ezeb_text_add(text, "<zeb_bodyblock-format-error>");
    } else {
        add_hexdump(text, n);
    }
}

static void add_body(ezeb_text *text, const zeb_notification *n, int32_t bodyFormat)
{
    add_number(text, "  Body Length:          ", n->bodyLength);
    if (bodyFormat == BODY_NONE || n->bodyLength == 0)
        return;
    ezeb_text_add(text, "  Body:\n");
    if (bodyFormat == BODY_HEX)
        add_hexdump(text, n);
    else if (bodyFormat == BODY_STRING)
        ezeb_text_add(text, n->body);
    else
        add_block(text, n, bodyFormat);
    ezeb_text_add(text, "\n");
}

static void add_pointer(ezeb_text *text, const void *pointer)
{
    char digits[EZEB_INT_TEXT];
    char *p = digits + sizeof(digits) - 1;
    *p = '\0';
    for (auto value = reinterpret_cast<uintptr_t>(pointer); value != 0; value /= 16)
        *--p = "0123456789abcdef"[value % 16];
    ezeb_text_add(text, "0x");
    ezeb_text_add(text, p);
}

static void add_unsigned(ezeb_text *text, uint64_t value)
{
    char number[EZEB_INT_TEXT];
    char *p = number + sizeof(number) - 1;
    *p = '\0';
    do {
        *--p = static_cast<char>('0' + value % 10);
        value /= 10;
    } while (value != 0);
    ezeb_text_add(text, p);
}

static void build_text(ezeb_text *text, const zeb_notification *n, int32_t bodyFormat)
{
    ezeb_text_add(text, "NOTIFICATION ");
    add_pointer(text, n);
    ezeb_text_add(text, " ==>\n");
    add_field(text, "  Notification Class:   ", ezeb_notification_classname(n->cls));
    add_field(text, "  Notification ID:      ", n->id);
    add_field(text, "  Notification Type:    ", n->type);
    ezeb_text_add(text, "  Creation Time:        ");
    add_unsigned(text, static_cast<uint64_t>(ezeb_notification_creationTime(n)));
    ezeb_text_add(text, "\n");
    add_number(text, "  Delivery Time:        ", ezeb_notification_deliveryTime(n));
    if (is_messagelike(n->cls))
        add_origin(text, n);
    add_address_section(text, n);
    if (is_messagelike(n->cls) || n->cls == ZEB_CLASS_STATESET)
        add_body(text, n, bodyFormat);
}

char *ezeb_notification_toString(zeb_notification *n, int32_t bodyFormat)
{
    ezeb_text text = {};
    if (n == nullptr)
        ezeb_text_add(&text, "NOTIFICATION 0x0 (NULL)\n");
    else
        build_text(&text, n, bodyFormat);
    return ezeb_text_finish(&text);
}

void ezeb_notification_print(zeb_notification *n)
{
    char *text = ezeb_notification_toString(n, BODY_NONE);
    if (text != nullptr)
        ezeb_diag_text(text, strlen(text));
    ezeb_free(text);
}
