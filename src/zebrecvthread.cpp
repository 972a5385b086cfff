/* The receive thread and the daemon connection.
 *
 * States: connecting (passes over the addresses of "localhost", with pauses), shaking hands, connected
 * (reading), lost. The thread owns the socket; its socket buffer and candidate list are its own. The
 * connection record is shared with the send thread and published before connect is called, so that a shutdown
 * can end every wait here but a pause. Nothing of this may use much stack: the thread has 16 to 32 KB, and
 * the resolver, which wants more, runs on a thread of its own. */
#include "ezebrecvthread.h"

#include "ezebnotification.h"
#include "ezebruntime.h"
#include "ezebsbuf.h"
#include "ezebsubscriber.h"
#include "ezebutil.h"

#include <errno.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <string.h>
#include <strings.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

enum {
    FIRST_PAUSE = 1,     /* seconds between passes */
    LAST_PAUSE = 5,      /* where the pauses stop growing */
    PATIENT_PASSES = 30, /* passes after which they begin to */
    LAST_BACKOFF = 32,   /* seconds between failed handshakes, doubling from 1 */
    LINGER_SECONDS = 900,
    MOST_TOGETHER = 64, /* notifications that wait for each other's delivery */
    RESULT_LINE = 3,    /* the two lines of a handshake reply that mean something */
    INSTANCENAME_LINE = 9
};

/* One address of "localhost", in the resolver's order. */
struct candidate {
    candidate *next;
    int family;
    int type;
    int protocol;
    socklen_t length;
    sockaddr_storage address;
};

/* What the receive thread holds of the current connection. */
struct daemon_link {
    ezeb_connection *connection;
    ezeb_sb *sb;
};

static bool is_shutdown(const ezeb_runtime *rt)
{
    return ezeb_flag_get(&rt->recv.shutdown) != 0;
}

/* ---- The connection as others see it ---- */

void ezeb_recvthread_prepare(ezebrecvctx *recv)
{
    ezeb_mutex_init(&recv->mutex);
    ezeb_cond_init(&recv->cond);
}

void ezeb_recvthread_discard(ezebrecvctx *recv) EZEB_NO_ANALYSIS
{
    ezeb_connection_unref(recv->connection);
    ezeb_mutex_destroy(&recv->mutex);
    ezeb_cond_destroy(&recv->cond);
}

static bool usable_locked(const ezebrecvctx *recv, uint64_t after) EZEB_REQUIRES(recv->mutex)
{
    return recv->connected != 0 && recv->connection != nullptr && recv->connection->generation > after;
}

static bool nothing_to_wait_for_locked(const ezebrecvctx *recv, uint64_t after) EZEB_REQUIRES(recv->mutex)
{
    return ezeb_flag_get(&recv->shutdown) != 0 || ezeb_flag_get(&recv->release) != 0 ||
           usable_locked(recv, after);
}

ezeb_connection *ezeb_recvthread_getsocket(ezeb_runtime *rt, int64_t timeout, uint64_t after)
{
    ezebrecvctx *recv = &rt->recv;
    const ezeb_locked hold(&recv->mutex);
    if (!nothing_to_wait_for_locked(recv, after)) {
        recv->waiters++;
        if (timeout <= 0) {
            while (!nothing_to_wait_for_locked(recv, after))
                ezeb_cond_wait(&recv->cond, &recv->mutex);
        } else {
            const timespec deadline = ezeb_deadline(timeout);
            ezeb_cond_waituntil(&recv->cond, &recv->mutex, &deadline); /* once: any change ends the wait */
        }
        recv->waiters--;
    }
    return usable_locked(recv, after) ? ezeb_connection_ref(recv->connection) : nullptr;
}

int32_t ezeb_recvthread_isConnected(ezeb_runtime *rt)
{
    const ezeb_locked hold(&rt->recv.mutex);
    return rt->recv.connected != 0 && !is_shutdown(rt);
}

static void wake_waiters_locked(ezebrecvctx *recv) EZEB_REQUIRES(recv->mutex)
{
    if (recv->waiters > 0)
        ezeb_cond_broadcast(&recv->cond, &recv->mutex);
}

void ezeb_recvthread_releasesocketwaiter(ezeb_runtime *rt)
{
    const ezeb_locked hold(&rt->recv.mutex);
    ezeb_flag_set(&rt->recv.release, 1);
    wake_waiters_locked(&rt->recv);
}

void ezeb_recvthread_setconnectcallback(ezeb_runtime *rt, void (*callback)(void))
{
    rt->recv.connectcallback = callback;
}

/* Makes CONNECTION the current one, not connected yet. False when a shutdown came first. */
static bool publish_connection(ezeb_runtime *rt, ezeb_connection *connection)
{
    const ezeb_locked hold(&rt->recv.mutex);
    if (is_shutdown(rt))
        return false;
    rt->recv.connection = ezeb_connection_ref(connection);
    return true;
}

/* Takes the current connection out of the record, with its reference; null when somebody did so before. */
static ezeb_connection *retract_connection(ezeb_runtime *rt)
{
    const ezeb_locked hold(&rt->recv.mutex);
    ezeb_connection *connection = rt->recv.connection;
    rt->recv.connection = nullptr;
    rt->recv.connected = 0;
    return connection;
}

void ezeb_recvthread_shutdown(ezeb_runtime *rt)
{
    ezeb_mutex_lock(&rt->recv.mutex);
    ezeb_flag_set(&rt->recv.shutdown, 1);
    ezeb_connection *connection = rt->recv.connection;
    rt->recv.connection = nullptr;
    rt->recv.connected = 0;
    ezeb_cond_broadcast(&rt->recv.cond, &rt->recv.mutex);
    ezeb_mutex_unlock(&rt->recv.mutex);
    ezeb_connection_cut(connection);
    ezeb_connection_unref(connection);
}

void ezeb_recvthread_fork_destroy(ezeb_runtime *rt) EZEB_NO_ANALYSIS
{
    if (rt->recv.connection != nullptr)
        close(rt->recv.connection->fd);
    rt->recv.connection = nullptr;
}

/* Ends the link: both directions are shut down at once, the descriptor is closed when nobody uses it any
 * more. */
static void drop_link(ezeb_runtime *rt, daemon_link *l)
{
    ezeb_connection_unref(retract_connection(rt));
    ezeb_connection_cut(l->connection);
    ezeb_connection_unref(l->connection);
    ezeb_sb_free(l->sb);
    *l = daemon_link{};
}

/* ---- Resolving ---- */

struct lookup {
    ezeb_runtime *rt;
    candidate *first;
};

static candidate *copy_candidate(const addrinfo *found)
{
    if (found->ai_addrlen > sizeof(sockaddr_storage))
        return nullptr;
    auto *c = ezeb_new<candidate>();
    if (c == nullptr)
        return nullptr;
    c->family = found->ai_family;
    c->type = found->ai_socktype;
    c->protocol = found->ai_protocol;
    c->length = found->ai_addrlen;
    memcpy(&c->address, found->ai_addr, found->ai_addrlen);
    return c;
}

static void *resolve_body(void *opaque)
{
    auto *l = static_cast<lookup *>(opaque);
    char service[EZEB_INT_TEXT];
    ezeb_int2str(service, l->rt->port);
    addrinfo hints = {};
    hints.ai_socktype = SOCK_STREAM;
    addrinfo *found = nullptr;
    ezeb_prefdopen(
        l->rt); /* the resolver opens descriptors, and holds locks that a forked child could never release */
    const int failed = getaddrinfo("localhost", service, &hints, &found);
    ezeb_postfdopen(l->rt);
    if (failed != 0)
        return nullptr;
    candidate **end = &l->first;
    for (const addrinfo *a = found; a != nullptr; a = a->ai_next) {
        *end = copy_candidate(a);
        if (*end != nullptr)
            end = &(*end)->next;
    }
    freeaddrinfo(found);
    return nullptr;
}

/* All addresses of the daemon. Without any the process is ended: nothing could ever work. The look-up gets a
 * thread with the system's default stack, since resolver modules are known to need more than a service thread
 * has. */
static candidate *resolve(ezeb_runtime *rt)
{
    lookup l = {rt, nullptr};
    pthread_t thread;
    if (ezeb_thread_start(&thread, EZEB_THREAD_SERVICE, 0, "zeb-resolve", resolve_body, &l))
        pthread_join(thread, nullptr);
    else
        resolve_body(&l);
    if (l.first == nullptr) {
        ezeb_diag("Unable to resolve address for localhost:%d\n", rt->port);
        ezeb_diag("ZEB runtime exiting\n");
        ezeb_error_shutdown();
    }
    return l.first;
}

static void free_candidates(candidate *c)
{
    while (c != nullptr) {
        candidate *next = c->next;
        ezeb_free(c);
        c = next;
    }
}

/* ---- Connecting ---- */

static int open_socket(ezeb_runtime *rt, const candidate *c)
{
    ezeb_prefdopen(rt);
    const int fd = ezeb_fd_above_stdio(socket(c->family, c->type | SOCK_CLOEXEC, c->protocol));
    const int why = errno;
    ezeb_postfdopen(rt);
    errno = why;
    return fd;
}

static void set_options(int fd)
{
    const struct linger linger = {1, LINGER_SECONDS};
    setsockopt(fd, SOL_SOCKET, SO_LINGER, &linger, sizeof(linger));
    /* Without this a call and its answer, each above the size of one segment, wait for each other's
     * acknowledgement. */
    const int on = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
}

/* A port in the range that the kernel gives out to clients can connect to itself when nothing listens there.
 */
static bool is_self_connected(int fd)
{
    sockaddr_storage here = {};
    sockaddr_storage there = {};
    socklen_t herelength = sizeof(here);
    socklen_t therelength = sizeof(there);
    return getsockname(fd, reinterpret_cast<sockaddr *>(&here), &herelength) == 0 &&
           getpeername(fd, reinterpret_cast<sockaddr *>(&there), &therelength) == 0 &&
           herelength == therelength && memcmp(&here, &there, herelength) == 0;
}

enum connect_result { CONNECTED, INTERRUPTED, NEXT_CANDIDATE, NO_SOCKET };

static connect_result connect_candidate(ezeb_runtime *rt, const candidate *c, daemon_link *l)
{
    const int fd = open_socket(rt, c);
    if (fd == -1)
        return errno == EINTR ? INTERRUPTED : NO_SOCKET;
    set_options(fd);
    l->connection = ezeb_connection_create(fd, rt->recv.generations + 1);
    if (l->connection == nullptr) {
        close(fd);
        return NO_SOCKET;
    }
    if (!publish_connection(rt, l->connection)) {
        drop_link(rt, l);
        return NO_SOCKET;
    }
    rt->recv.generations++;
    if (connect(fd, reinterpret_cast<const sockaddr *>(&c->address), c->length) != 0 ||
        is_self_connected(fd)) {
        const bool interrupted = errno == EINTR;
        drop_link(rt, l);
        return interrupted ? INTERRUPTED : NEXT_CANDIDATE;
    }
    const int on = 1;
    setsockopt(fd, SOL_SOCKET, SO_KEEPALIVE, &on, sizeof(on));
    return CONNECTED;
}

/* One pass over the candidates. A socket that cannot be created ends it: the other families would fare no
 * better. */
static bool connect_pass(ezeb_runtime *rt, const candidate *c, daemon_link *l)
{
    while (c != nullptr) {
        errno = 0;
        const connect_result result = connect_candidate(rt, c, l);
        if (result == CONNECTED) {
            l->sb = ezeb_sb_create(l->connection->fd);
            if (l->sb == nullptr)
                drop_link(rt, l);
            return l->sb != nullptr;
        }
        if (result == NO_SOCKET)
            return false;
        if (result == NEXT_CANDIDATE)
            c = c->next;
    }
    return false;
}

/* ---- Handshake ---- */

/* The bytes of the form-factor file as they are, whatever they are; false when there is none to be had.
 * Opening must not wait, which a FIFO in its place would make it do. */
static bool read_formfactor(ezeb_runtime *rt, char **bytes, size_t *length)
{
    char *path = nullptr;
    if (ezeb_dsprintf(&path, "%s/ezeb/conf/.formfactor", rt->home) < 0)
        return false;
    if (rt->ffqualified == 1)
        ezeb_dsprintf(&path, ".%s", rt->ffqualifier);
    ezeb_prefdopen(rt);
    const int fd = ezeb_fd_above_stdio(open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    ezeb_postfdopen(rt);
    ezeb_free(path);
    if (fd == -1)
        return false;
    struct stat status;
    char *contents = nullptr;
    ssize_t got = -1;
    if (fstat(fd, &status) == 0 && status.st_size >= 0 && status.st_size < PTRDIFF_MAX) {
        const auto size = static_cast<size_t>(status.st_size);
        contents = static_cast<char *>(ezeb_malloc(size + 1));
        if (contents != nullptr)
            got = size > 0 ? read(fd, contents, size) : 0;
    }
    close(fd);
    if (got < 0) {
        ezeb_free(contents);
        return false;
    }
    *bytes = contents;
    *length = static_cast<size_t>(got);
    return true;
}

static bool write_formfactor(ezeb_runtime *rt, ezeb_sb *sb)
{
    char *bytes = nullptr;
    size_t length = 0;
    if (!read_formfactor(rt, &bytes, &length))
        return ezeb_sb_puts(sb, "abc") != 0;
    const bool written = ezeb_sb_write(sb, bytes, length) != 0;
    ezeb_free(bytes);
    return written;
}

static bool write_handshake(ezeb_runtime *rt, ezeb_sb *sb)
{
    char pid[EZEB_INT_TEXT];
    ezeb_int2str(pid, rt->pid);
    /* The space behind the version belongs to the protocol. */
    return ezeb_sb_puts(sb, "POST /connect HTTP/1.1\r\nVersion: 4 \r\nFormFactor: ") &&
           write_formfactor(rt, sb) && ezeb_sb_puts(sb, "\r\nSelfId: ") && ezeb_sb_puts(sb, "Pid=") &&
           ezeb_sb_puts(sb, pid) && ezeb_sb_puts(sb, "; Home=") && ezeb_sb_write(sb, rt->home, rt->homelen) &&
           ezeb_sb_puts(sb, "\r\n\r\n") && ezeb_sb_flush(sb);
}

/* What follows PREFIX in LINE, or null. */
static const char *after_prefix(const char *line, const char *prefix)
{
    const size_t length = strlen(prefix);
    return strncmp(line, prefix, length) == 0 ? line + length : nullptr;
}

/* Reads the reply up to its empty line. Two lines mean something, by their position; the word "success" is
 * compared with its case here, unlike in status replies. */
static bool read_handshake_reply(ezeb_runtime *rt, ezeb_sb *sb)
{
    bool success = false;
    char *line;
    for (uint64_t number = 1;; number++) {
        if (!ezeb_sb_gets(sb, &line))
            return false;
        if (*line == '\0')
            return success;
        if (number == RESULT_LINE) {
            const char *result = after_prefix(line, "Result: ");
            success = result != nullptr && strcmp(result, "success") == 0;
        } else if (number == INSTANCENAME_LINE) {
            const char *name = after_prefix(line, "instanceName: ");
            if (name != nullptr)
                ezeb_instancename_set(rt, name);
        }
    }
}

static void note_answer(ezeb_runtime *rt)
{
    const ezeb_locked hold(&rt->regmutex);
    rt->answered |= 1U;
    if (rt->answerwaiters > 0)
        ezeb_cond_broadcast(&rt->answercond, &rt->regmutex);
}

static bool shake_hands(ezeb_runtime *rt, ezeb_sb *sb)
{
    if (!write_handshake(rt, sb))
        return false;
    const bool success = read_handshake_reply(rt, sb);
    note_answer(rt);
    return success;
}

/* Connects until a handshake succeeds. False when a shutdown ended it. */
static bool reconnect(ezeb_runtime *rt, const candidate *candidates, daemon_link *l)
{
    int32_t attempts = 0;
    unsigned interval = FIRST_PAUSE;
    unsigned backoff = 0;
    for (;;) {
        if (!connect_pass(rt, candidates, l)) {
            sleep(interval);
            attempts++;
            if (attempts > PATIENT_PASSES && interval < LAST_PAUSE)
                interval++;
        } else if (shake_hands(rt, l->sb)) {
            return true;
        } else {
            drop_link(rt, l);
            if (backoff == 0) {
                backoff = 1; /* the second try comes at once */
            } else {
                sleep(backoff);
                if (backoff < LAST_BACKOFF)
                    backoff *= 2;
            }
        }
        if (is_shutdown(rt))
            return false;
    }
}

/* Queues what the daemon has to know again. Until there is memory for all of it the connection stays
 * unannounced: nobody would ever subscribe for a subscriber that was left out. A send thread that is ending
 * takes nothing more, which is no want of memory. */
static void resubscribe(ezeb_runtime *rt)
{
    while (!ezeb_reregister_allsubscribers(rt) && ezeb_flag_get(&rt->send.shuttingdown) == 0 &&
           !is_shutdown(rt))
        sleep(FIRST_PAUSE);
}

/* Makes the connection available. Subscribe requests are queued before the send thread can wake. */
static void announce_connection(ezeb_runtime *rt)
{
    ezebrecvctx *recv = &rt->recv;
    if (recv->everconnected != 0)
        resubscribe(rt);
    ezeb_mutex_lock(&recv->mutex);
    if (!is_shutdown(rt))
        recv->connected = 1;
    wake_waiters_locked(recv);
    ezeb_mutex_unlock(&recv->mutex);
    if (recv->everconnected != 0 && !is_shutdown(rt) && recv->connectcallback != nullptr)
        recv->connectcallback();
    recv->everconnected = 1;
}

/* ---- Reading ---- */

/* True when LINE holds WORD behind its first six characters, whatever those are. */
static bool has_verb(const char *line, const char *word)
{
    enum { VERB_PLACE = 6 }; /* behind "POST /" */
    const size_t length = strlen(word);
    return strnlen(line, VERB_PLACE + length) == VERB_PLACE + length &&
           memcmp(line + VERB_PLACE, word, length) == 0;
}

/* What has been read for one subscriber, in its order, and is not delivered yet. A thread that waits for it
 * is woken once for all that came together, not for each. It is delivered before anything else is done that
 * others notice, and before this thread waits. */
struct arrivals {
    ezeb_runtime *rt;
    ezeb_sb *sb;
    int32_t id;
    int32_t count;
    ezeb_queue_cell *first;
    ezeb_queue_cell *last;
};

static void deliver_arrivals(void *opaque)
{
    auto *a = static_cast<arrivals *>(opaque);
    ezeb_deliver_all(a->rt, a->first, a->id);
    a->first = nullptr;
    a->count = 0;
}

static void add_arrival(arrivals *a, zeb_notification *n, int32_t id)
{
    if (a->first != nullptr && (a->id != id || a->count == MOST_TOGETHER))
        ezeb_sb_settle(a->sb);
    ezeb_queue_cell *cell = ezeb_notification_cell(n);
    if (a->first == nullptr) {
        a->id = id;
        a->first = cell;
        ezeb_sb_beforewait(a->sb, deliver_arrivals, a);
    } else {
        a->last->next = cell;
    }
    a->last = cell;
    a->count++;
}

static bool read_event(arrivals *a)
{
    int32_t *ids = nullptr;
    int32_t count = 0;
    zeb_notification *n = ezeb_notification_read(a->sb, &ids, &count);
    if (n != nullptr && count == 1)
        add_arrival(a, n, ids[0]);
    else
        ezeb_notification_destroy(
            n); /* an event for several subscribers at once is delivered to none, on purpose */
    ezeb_free(ids);
    return n != nullptr;
}

struct status_reply {
    int32_t id; /* -1 until a line gave one */
    int32_t success;
    char *message;
};

static bool is_name(const char *line, const char *colon, const char *name)
{
    const size_t length = strlen(name);
    return static_cast<size_t>(colon - line) == length && memcmp(line, name, length) == 0;
}

static void take_status_line(status_reply *reply, const char *line)
{
    const char *colon = strchr(line, ':');
    if (colon == nullptr)
        return;
    const char *value = colon[1] != '\0' ? colon + 2 : colon + 1; /* the space is assumed, not looked at */
    if (is_name(line, colon, "Result")) {
        reply->success = strcasecmp(value, "success") == 0;
    } else if (is_name(line, colon, "SubscriberID")) {
        reply->id = ezeb_decimal(value);
    } else if (is_name(line, colon, "Message") && *value != '\0') {
        ezeb_free(reply->message);
        reply->message = ezeb_strdup(value);
    }
}

static bool read_status(ezeb_runtime *rt, ezeb_sb *sb)
{
    status_reply reply = {-1, 0, nullptr};
    char *line;
    bool more = ezeb_sb_gets(sb, &line) != 0;
    while (more && *line != '\0') {
        take_status_line(&reply, line);
        more = ezeb_sb_gets(sb, &line) != 0;
    }
    if (!more || reply.id == -1) {
        ezeb_free(reply.message);
        return false;
    }
    ezeb_handlesubscriptionreply(rt, reply.id, reply.success, reply.message);
    return true;
}

static bool read_message(arrivals *a)
{
    char *line;
    if (!ezeb_sb_gets(a->sb, &line))
        return false;
    if (has_verb(line, "event"))
        return read_event(a);
    ezeb_sb_settle(a->sb);
    if (has_verb(line, "status"))
        return read_status(a->rt, a->sb);
    ezeb_diag("UNKNOWN MESSAGE LINE RECEIVED ==> %s\n", line);
    return true;
}

/* Reads until the connection fails; a shutdown makes it fail. */
static void read_messages(ezeb_runtime *rt, ezeb_sb *sb)
{
    arrivals a = {rt, sb, 0, 0, nullptr, nullptr};
    while (read_message(&a))
        ;
    ezeb_sb_settle(sb);
}

/* The order matters: the descriptor is shut down first, so that the send thread fails instead of writing on,
 * and puts back what it could not write; its number is given free last. */
static void lose(ezeb_runtime *rt, daemon_link *l)
{
    ezeb_connection_cut(l->connection);
    ezeb_sendthread_invalidatesocket(rt);
    ezeb_sendthread_settle(rt);
    drop_link(rt, l);
    if (!is_shutdown(rt))
        ezeb_handle_disconnect(rt);
}

void ezeb_handle_disconnect(ezeb_runtime *rt)
{
    ezeb_sendthread_dequeue_unsubscribes(
        rt); /* the daemon has forgotten this connection's subscriptions by itself */
    ezeb_drop_members(rt);
}

void ezeb_handlesubscriptionreply(ezeb_runtime *rt, int32_t id, int32_t success, char *message)
{
    const ezeb_locked hold(&rt->regmutex);
    zeb_subscriber *sub = nullptr;
    if (id > 0 && id <= rt->subscribers.count)
        sub = static_cast<zeb_subscriber *>(rt->subscribers.slots[id - 1]);
    if (sub != nullptr)
        ezeb_subscriber_receivesubsreply(sub, success, message);
    else
        ezeb_free(message);
}

/* ---- Thread body ---- */

/* Tells the starting thread that this one runs and waits for the send thread. False when that one could not
 * be had. */
static bool rendezvous(ezeb_runtime *rt)
{
    const ezeb_locked hold(&rt->startmutex);
    rt->receiverup = 1;
    ezeb_cond_broadcast(&rt->startcond, &rt->startmutex);
    while (rt->senderup == 0 && rt->abandoned == 0)
        ezeb_cond_wait(&rt->startcond, &rt->startmutex);
    if (rt->abandoned != 0)
        return false;
    rt->bothup = 1;
    ezeb_cond_broadcast(&rt->startcond, &rt->startmutex);
    return true;
}

void *ezeb_receivethread(void *runtime)
{
    auto *rt = static_cast<ezeb_runtime *>(runtime);
    if (!rendezvous(rt))
        return nullptr;
    candidate *candidates = resolve(rt);
    daemon_link l = {};
    while (!is_shutdown(rt) && reconnect(rt, candidates, &l)) {
        announce_connection(rt);
        if (!is_shutdown(rt))
            read_messages(rt, l.sb);
        lose(rt, &l);
    }
    free_candidates(candidates);
    return nullptr;
}
