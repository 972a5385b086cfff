/* One client's socket: reading, writing, its limits and its end. */
#include "log.h"
#include "serving.h"

#include <algorithm>
#include <arpa/inet.h>
#include <netinet/in.h>
#include <unistd.h>
#include <utility>

namespace zebd
{

/* How exactly deadlines are kept. */
static constexpr uint64_t watchMilliseconds = 100;

static client *client_of(void *data)
{
    return static_cast<client *>(data);
}

/* A client says it itself, and it stands in every line about that client. */
static constexpr size_t longestPid = 10;

std::string client_name(const client &c)
{
    std::string name = "client " + std::to_string(c.talk.id) + " (" + c.address;
    if (!c.talk.pid.empty())
        name += ", pid " + c.talk.pid.substr(0, longestPid);
    return name + ")";
}

/* ---- Ending ---- */

static void on_closed(uv_handle_t *handle)
{
    client *c = client_of(handle->data);
    server &s = *c->owner;
    std::erase(s.dirty, c);
    s.clients.erase(c->talk.id);
    if (s.stopping && s.clients.empty())
        server_close_handles(s);
}

/* How long clients may take to close their side after ours is done. */
static constexpr uint64_t lingerMilliseconds = 250;

/* Once every client has been served to the end, there is no reason to wait for the slow ones for long. */
static void count_as_finished(client &c)
{
    server &s = *c.owner;
    if (!s.stopping || c.finished)
        return;
    c.finished = true;
    if (--s.unfinished == 0)
        uv_timer_start(&s.stopTimer, server_on_stop_time_over, lingerMilliseconds, 0);
}

void client_end(client &c)
{
    if (c.closing)
        return;
    c.closing = true;
    count_as_finished(c);
    c.owner->incoming -= std::exchange(c.incoming, 0);
    if (c.traced)
        administration_trace_end(c);
    engine_connection_gone(c.owner->routing, c.talk.id);
    spdlog::debug("{} subscribers remain", c.owner->routing.subscribers.size());
    uv_close(reinterpret_cast<uv_handle_t *>(&c.tcp), on_closed);
}

static void end_because(client &c, uint64_t server_counters::*counter, const std::string &why)
{
    if (c.closing)
        return;
    c.owner->counters.*counter += 1;
    log_limited(log_kind::ended, spdlog::level::warn, "{} ended: {}", client_name(c), why);
    client_end(c);
}

static void end_for_socket(client &c, const char *doing, int status)
{
    end_because(c, &server_counters::endedSocket, std::string(doing) + " failed: " + uv_strerror(status));
}

/* ---- Limits of what waits ---- */

static void mark_dirty(client &c)
{
    if (c.dirty)
        return;
    c.dirty = true;
    c.owner->dirty.push_back(&c);
}

/* What waits is forgotten at once, and counted as dropped by the limit that acts; the client itself goes when
 * routing is done. */
static void condemn(client &c, uint64_t server_counters::*counter, const std::string &why)
{
    const uint64_t before = c.queue.dropped;
    c.doom = why;
    send_queue_abandon(c.queue);
    c.owner->counters.*counter += c.queue.dropped - before;
    mark_dirty(c);
}

static bool is_over(uint64_t since, double seconds, uint64_t now)
{
    return now - since > static_cast<uint64_t>(seconds * 1000);
}

static bool takes_items(const client &c)
{
    return !c.closing && !c.finished && c.unwritable == 0 && c.doom.empty();
}

static size_t items_of(const send_queue &queue)
{
    return queue.waiting.size() + queue.writing.size();
}

static std::string waiting_text(const client &c, std::string_view which, int64_t limit)
{
    return std::to_string(items_of(c.queue)) + " messages of " + std::to_string(c.queue.octets) +
           " octets are waiting for it, the " + std::string(which) + " is " + std::to_string(limit);
}

static void note_drops(client &c, uint64_t droppedBefore, uint64_t server_counters::*counter,
                       std::string_view limit)
{
    const uint64_t dropped = c.queue.dropped - droppedBefore;
    if (dropped == 0)
        return;
    c.owner->counters.*counter += dropped;
    log_limited(log_kind::queue, spdlog::level::warn, "{}: {} events dropped by the {}", client_name(c),
                dropped, limit);
}

static void on_watch(uv_timer_t *timer);

static void watch_deadlines(server &s)
{
    if (!s.stopping && !uv_is_active(reinterpret_cast<uv_handle_t *>(&s.watchTimer)))
        uv_timer_start(&s.watchTimer, on_watch, watchMilliseconds, 0);
}

/* Notes what the socket has taken of the batch since the last look. */
static void note_progress(client &c)
{
    const size_t left = uv_stream_get_write_queue_size(reinterpret_cast<const uv_stream_t *>(&c.tcp));
    if (left != c.unwritten)
        c.wroteAt = uv_now(&c.owner->loop);
    c.unwritten = left;
}

/* Whether its socket has taken nothing for so long of what it was given. */
static bool is_stuck(const client &c, double seconds)
{
    return c.unwritten > 0 && is_over(c.wroteAt, seconds, uv_now(&c.owner->loop));
}

static void compare_with_soft_limit(client &c)
{
    const bool over = c.queue.octets > static_cast<size_t>(c.owner->config.queueSoft);
    if (!over) {
        c.overSoftSince = 0;
    } else if (c.overSoftSince == 0) {
        c.overSoftSince = uv_now(&c.owner->loop);
        watch_deadlines(*c.owner);
    }
}

/* Under the policies that drop, a batch that is itself above the limit is waited for as long as it gets on.
 */
static void act_on_soft_limit(client &c)
{
    const configuration &config = c.owner->config;
    const auto limit = static_cast<size_t>(config.queueSoft);
    const uint64_t before = c.queue.dropped;
    const bool trimmed =
        c.owner->policy != queue_policy::disconnect && send_queue_trim(c.queue, c.owner->policy, limit);
    note_drops(c, before, &server_counters::droppedSoft, "soft limit");
    c.overSoftSince = 0;
    if (trimmed && !(c.queue.writingOctets > limit && is_stuck(c, config.queueSoftSeconds)))
        compare_with_soft_limit(c);
    else
        condemn(c, &server_counters::droppedSoft, waiting_text(c, "soft limit", config.queueSoft));
}

/* For a limit that has come down; putting keeps to it by itself. */
static void act_on_hard_limit(client &c)
{
    const server &s = *c.owner;
    const auto limit = static_cast<size_t>(s.config.queueHard);
    if (c.queue.octets <= limit || items_of(c.queue) == 1)
        return;
    const uint64_t before = c.queue.dropped;
    while (c.queue.octets > limit && send_queue_drop(c.queue, s.policy)) {
    }
    note_drops(c, before, &server_counters::droppedHard, "hard limit");
    if (c.queue.octets > limit && !c.queue.waiting.empty())
        condemn(c, &server_counters::droppedHard, waiting_text(c, "hard limit", s.config.queueHard));
}

/* A client that has taken nothing for so long weighs this many times what is kept for it. */
static constexpr double stuckSeconds = 1;
static constexpr size_t stuckWeight = 4;

/* An empty queue takes any item: the only one is no reason to end a client that reads, as long as all others
 * are within the limit. So one item may come on top of it. */
static bool is_spared(const client &c)
{
    const server &s = *c.owner;
    return items_of(c.queue) == 1 &&
           s.pool.octets <= static_cast<size_t>(s.config.queueTotal) + c.queue.octets;
}

/* The client that keeps most memory, what is being written for it included. Null when nobody has to pay. */
static client *who_pays(server &s)
{
    client *payer = nullptr;
    size_t most = 0;
    for (const auto &[id, c] : s.clients) {
        if (!takes_items(*c))
            continue;
        note_progress(*c);
        const bool stuck = is_stuck(*c, stuckSeconds);
        const size_t weight = c->queue.octets * (stuck ? stuckWeight : 1);
        if (weight > most && (stuck || !is_spared(*c))) {
            payer = c.get();
            most = weight;
        }
    }
    return payer;
}

/* Goes somewhat below the limit, so that looking for the one who pays is rare; so it is when nobody is found,
 * until the pool has grown again. */
static void act_on_total_limit(server &s)
{
    const auto limit = static_cast<size_t>(s.config.queueTotal);
    if (s.pool.octets <= limit || (s.sparedAt > 0 && s.pool.octets <= s.sparedAt + limit / 64))
        return;
    s.sparedAt = 0;
    while (s.pool.octets > limit - limit / 16) {
        client *c = who_pays(s);
        if (c == nullptr) {
            s.sparedAt = s.pool.octets;
            return;
        }
        const uint64_t before = c->queue.dropped;
        while (s.pool.octets > limit - limit / 16 && send_queue_drop(c->queue, s.policy)) {
        }
        note_drops(*c, before, &server_counters::droppedTotal, "limit of all queues");
        if (c->queue.dropped == before)
            condemn(*c, &server_counters::droppedTotal,
                    waiting_text(*c, "longest queue while the limit of all", s.config.queueTotal));
    }
}

static bool enqueue(client &c, outgoing item)
{
    server &s = *c.owner;
    const uint64_t before = c.queue.dropped;
    const auto hard = static_cast<size_t>(s.config.queueHard);
    const put_result put = send_queue_put(c.queue, hard, s.policy, std::move(item));
    note_drops(c, before, &server_counters::droppedHard, "hard limit");
    if (put == put_result::overflow) {
        condemn(c, &server_counters::droppedHard, waiting_text(c, "hard limit", s.config.queueHard));
        return false;
    }
    mark_dirty(c);
    compare_with_soft_limit(c);
    act_on_total_limit(s);
    return put == put_result::taken && c.doom.empty();
}

static bool enqueue_traced(client &c, outgoing item)
{
    const outgoing copy = item;
    const bool taken = enqueue(c, std::move(item));
    administration_trace_out(c, copy, taken);
    return taken;
}

bool client_enqueue(void *context, connection_id to, outgoing item)
{
    const server &s = *static_cast<server *>(context);
    const auto at = s.clients.find(to);
    if (at == s.clients.end() || !takes_items(*at->second))
        return false;
    client &c = *at->second;
    return c.traced ? enqueue_traced(c, std::move(item)) : enqueue(c, std::move(item));
}

/* ---- Deadlines ---- */

/* Ends the client or lets its queue's policy act when it is time. Returns whether a deadline lies ahead. */
static bool check_deadlines(client &c)
{
    note_progress(c);
    const configuration &config = c.owner->config;
    const uint64_t now = uv_now(&c.owner->loop);
    const bool connecting = !c.talk.reader.connected;
    const bool inMessage = config.stallSeconds > 0 && message_reader_in_message(c.talk.reader);
    if (connecting && is_over(c.acceptedAt, config.connectSeconds, now))
        end_because(c, &server_counters::endedTime, "it did not complete its connect in time");
    else if (inMessage && is_over(c.heardAt, config.stallSeconds, now))
        end_because(c, &server_counters::endedTime, "the rest of a message did not come in time");
    else if (c.overSoftSince != 0 && is_over(c.overSoftSince, config.queueSoftSeconds, now))
        act_on_soft_limit(c);
    return !c.closing && (connecting || inMessage || c.overSoftSince != 0 || c.unwritten > 0);
}

static void on_watch(uv_timer_t *timer)
{
    server &s = *static_cast<server *>(timer->data);
    bool ahead = false;
    for (const auto &[id, c] : s.clients)
        if (!c->closing && check_deadlines(*c))
            ahead = true;
    s.sparedAt = 0;
    act_on_total_limit(s);
    clients_settle(s);
    if (ahead)
        watch_deadlines(s);
}

void clients_review(server &s)
{
    for (const auto &[id, c] : s.clients) {
        if (!takes_items(*c))
            continue;
        act_on_hard_limit(*c);
        compare_with_soft_limit(*c);
    }
    act_on_total_limit(s);
    clients_settle(s);
    watch_deadlines(s);
}

/* ---- Writing ---- */

/* A client that is gone may have left much to read: that still goes to its receivers, and its end ends the
 * client. */
static void fail_writing(client &c, int status)
{
    if ((status != UV_EPIPE && status != UV_ECONNRESET) || c.owner->stopping || c.closing)
        return end_for_socket(c, "writing", status);
    c.unwritable = status;
    send_queue_abandon(c.queue);
    compare_with_soft_limit(c);
}

static void on_written(uv_write_t *request, int status)
{
    client &c = *client_of(request->data);
    send_queue_end_write(c.queue);
    note_progress(c);
    compare_with_soft_limit(c);
    if (status < 0)
        fail_writing(c, status);
    else if (!c.closing)
        client_flush(c);
}

/* Closes our side; the client's end of file then ends it. */
static void finish(client &c)
{
    if (c.finished || c.closing)
        return;
    count_as_finished(c);
    auto *stream = reinterpret_cast<uv_stream_t *>(&c.tcp);
    if (uv_shutdown(&c.shutdown, stream, [](uv_shutdown_t *, int) {}) != 0)
        client_end(c);
}

static void add_buffer(server &s, std::string_view piece)
{
    s.buffers.push_back(uv_buf_init(const_cast<char *>(piece.data()), static_cast<unsigned>(piece.size())));
}

/* Up to so many octets, the kernel's work for a piece of its own is more than that of copying it. */
static constexpr size_t smallPiece = 1024;

/* Small pieces are put together in server.output, of which USED octets are taken. */
static void gather_piece(server &s, std::string_view piece, size_t &used)
{
    if (piece.empty())
        return;
    if (piece.size() > smallPiece || piece.size() > sizeof(s.output) - used)
        return add_buffer(s, piece);
    char *at = s.output + used;
    used += piece.copy(at, piece.size());
    if (!s.buffers.empty() && s.buffers.back().base + s.buffers.back().len == at)
        s.buffers.back().len += piece.size();
    else
        add_buffer(s, {at, piece.size()});
}

/* Sets server.buffers to the batch and returns its octets. */
static size_t gather_batch(const client &c)
{
    server &s = *c.owner;
    s.buffers.clear();
    size_t used = 0, octets = 0;
    for (const queued_item &entry : c.queue.writing) {
        for (const std::string_view piece : outgoing_bytes(entry.item)) {
            gather_piece(s, piece, used);
            octets += piece.size();
        }
    }
    return octets;
}

/* The same without the first WRITTEN octets, and not gathered: it stays valid as long as the batch. */
static void point_to_batch(const client &c, size_t written)
{
    server &s = *c.owner;
    s.buffers.clear();
    for (const queued_item &entry : c.queue.writing) {
        for (const std::string_view piece : outgoing_bytes(entry.item)) {
            const size_t done = std::min(written, piece.size());
            written -= done;
            if (done < piece.size())
                add_buffer(s, piece.substr(done));
        }
    }
}

static void count_batch(client &c)
{
    server_counters &all = c.owner->counters;
    for (const queued_item &entry : c.queue.writing) {
        const size_t octets = outgoing_size(entry.item);
        const uint64_t events = entry.item.shared != nullptr ? 1 : 0;
        c.bytesOut += octets;
        all.bytesOut += octets;
        c.eventsOut += events;
        all.eventsOut += events;
    }
}

static bool begin_batch(client &c)
{
    if (!send_queue_begin_write(c.queue))
        return false;
    count_batch(c);
    return true;
}

static void fail_batch(client &c, int status)
{
    send_queue_end_write(c.queue);
    fail_writing(c, status);
}

/* Leaves the batch, without its first WRITTEN octets, to the loop, whose end of it calls for the next. */
static void write_later(client &c, size_t written)
{
    point_to_batch(c, written);
    c.write.data = &c;
    const std::vector<uv_buf_t> &buffers = c.owner->buffers;
    const int status = uv_write(&c.write, reinterpret_cast<uv_stream_t *>(&c.tcp), buffers.data(),
                                static_cast<unsigned>(buffers.size()), on_written);
    if (status < 0)
        return fail_batch(c, status);
    c.wroteAt = uv_now(&c.owner->loop);
    note_progress(c);
    if (c.unwritten > 0)
        watch_deadlines(*c.owner);
}

/* Returns whether the socket took the batch as a whole. */
static bool write_now(client &c)
{
    const size_t octets = gather_batch(c);
    const std::vector<uv_buf_t> &buffers = c.owner->buffers;
    const int taken = uv_try_write(reinterpret_cast<uv_stream_t *>(&c.tcp), buffers.data(),
                                   static_cast<unsigned>(buffers.size()));
    if (taken < 0 && taken != UV_EAGAIN) {
        fail_batch(c, taken);
        return false;
    }
    const auto written = static_cast<size_t>(std::max(taken, 0));
    if (written < octets) {
        write_later(c, written);
        return false;
    }
    send_queue_end_write(c.queue);
    compare_with_soft_limit(c);
    return true;
}

/* Nearly always the socket takes all there is. More than one batch is left to the loop, between whose turns
 * the other clients have theirs. */
void client_flush(client &c)
{
    if (!c.queue.writing.empty())
        return;
    if (begin_batch(c) && !write_now(c))
        return;
    if (begin_batch(c))
        write_later(c, 0);
    else if (c.owner->stopping)
        finish(c);
}

void clients_settle(server &s)
{
    while (!s.dirty.empty()) {
        client &c = *s.dirty.back();
        s.dirty.pop_back();
        c.dirty = false;
        if (c.closing)
            continue;
        if (c.doom.empty())
            client_flush(c);
        else
            end_because(c, &server_counters::endedQueue, c.doom);
    }
}

static void on_gathered(uv_timer_t *timer)
{
    server &s = *static_cast<server *>(timer->data);
    engine_flush(s.routing);
    clients_settle(s);
}

void client_wake(void *context, uint32_t milliseconds)
{
    server &s = *static_cast<server *>(context);
    if (!s.stopping && !uv_is_active(reinterpret_cast<uv_handle_t *>(&s.gatherTimer)))
        uv_timer_start(&s.gatherTimer, on_gathered, milliseconds, 0);
}

/* ---- Reading ---- */

static void on_input_wanted(uv_handle_t *handle, size_t, uv_buf_t *buffer)
{
    server &s = *client_of(handle->data)->owner;
    *buffer = uv_buf_init(s.input, sizeof(s.input));
}

static void on_end_of_input(client &c, int status)
{
    if (c.unwritable != 0)
        end_for_socket(c, "writing", c.unwritable);
    else if (message_reader_in_message(c.talk.reader) && !c.owner->stopping)
        end_because(c, &server_counters::endedProtocol, "disconnected in the middle of a message");
    else if (status != UV_EOF)
        end_for_socket(c, "reading", status);
    if (!c.closing)
        log_limited(log_kind::disconnected,
                    c.talk.reader.connected ? spdlog::level::info : spdlog::level::debug, "{} disconnected",
                    client_name(c));
    client_end(c);
}

static client *largest_incoming(server &s)
{
    client *largest = nullptr;
    for (const auto &[id, c] : s.clients)
        if (!c->closing && (largest == nullptr || c->incoming > largest->incoming))
            largest = c.get();
    return largest;
}

/* Many clients could each leave a large message unfinished. */
static void count_incoming(client &c)
{
    server &s = *c.owner;
    const size_t kept = message_reader_octets(c.talk.reader);
    s.incoming += kept - c.incoming;
    c.incoming = kept;
    if (s.incoming > static_cast<size_t>(s.config.unfinished))
        end_because(*largest_incoming(s), &server_counters::endedUnfinished,
                    "its unfinished message is the largest while the limit of all is " +
                        std::to_string(s.config.unfinished));
}

/* What a client sent in vain is not its receivers' loss alone: who looks for it finds it in the log. */
static void note_unrouted(const client &c, const engine_counters &before)
{
    const engine_counters &now = c.owner->routing.counters;
    if (now.streamsRefused != before.streamsRefused)
        log_limited(log_kind::unrouted, spdlog::level::warn,
                    "{}: {} pieces dropped, there was no room for their streams", client_name(c),
                    now.streamsRefused - before.streamsRefused);
    if (now.unroutable != before.unroutable)
        log_limited(log_kind::unrouted, spdlog::level::warn,
                    "{}: {} events without destination dropped, of a class that always has one",
                    client_name(c), now.unroutable - before.unroutable);
}

/* Bytes that arrive while stopping are read and thrown away: closing a socket with unread input would reset
 * the connection and destroy what is still on its way to the client. */
static void take_input(client &c, std::string_view bytes)
{
    server &s = *c.owner;
    if (s.stopping)
        return;
    c.heardAt = uv_now(&s.loop);
    c.bytesIn += bytes.size();
    s.counters.bytesIn += bytes.size();
    const bool wasConnected = c.talk.reader.connected;
    const size_t subscribers = s.routing.subscribers.size();
    const engine_counters before = s.routing.counters;
    std::string why;
    const bool goesOn = session_take(c.talk, s.routing, bytes, why);
    if (!wasConnected && c.talk.reader.connected && goesOn)
        log_limited(log_kind::connected, spdlog::level::info, "{} connected", client_name(c));
    if (subscribers != s.routing.subscribers.size())
        spdlog::debug("{} subscribed or unsubscribed: {} subscribers in all", client_name(c),
                      s.routing.subscribers.size());
    note_unrouted(c, before);
    for (const int32_t id : std::exchange(c.talk.unindexed, {}))
        log_limited(log_kind::unindexed, spdlog::level::info,
                    "{}: the subscription of its subscriber {} has to be tried for every event",
                    client_name(c), id);
    if (goesOn) {
        count_incoming(c);
        if (s.config.stallSeconds > 0 && message_reader_in_message(c.talk.reader))
            watch_deadlines(s);
        return;
    }
    if (c.doom.empty())
        client_flush(c); /* a refused connect is answered as far as the socket takes it at once */
    end_because(c, &server_counters::endedProtocol, why);
}

static void on_input(uv_stream_t *stream, ssize_t count, const uv_buf_t *buffer)
{
    client &c = *client_of(stream->data);
    if (c.closing)
        return;
    if (count < 0)
        on_end_of_input(c, static_cast<int>(count));
    else if (count > 0)
        take_input(c, std::string_view(buffer->base, static_cast<size_t>(count)));
    clients_settle(*c.owner);
}

/* ---- Beginning ---- */

static std::string peer_address(const uv_tcp_t &tcp)
{
    sockaddr_storage address{};
    int length = sizeof(address);
    char text[INET6_ADDRSTRLEN] = "?";
    if (uv_tcp_getpeername(&tcp, reinterpret_cast<sockaddr *>(&address), &length) != 0)
        return text;
    if (address.ss_family == AF_INET6) {
        const auto *v6 = reinterpret_cast<const sockaddr_in6 *>(&address);
        uv_ip6_name(v6, text, sizeof(text));
        return "[" + std::string(text) + "]:" + std::to_string(ntohs(v6->sin6_port));
    }
    const auto *v4 = reinterpret_cast<const sockaddr_in *>(&address);
    uv_ip4_name(v4, text, sizeof(text));
    return std::string(text) + ":" + std::to_string(ntohs(v4->sin_port));
}

void client_apply_limits(client &c)
{
    const configuration &config = c.owner->config;
    message_limits &limits = c.talk.reader.limits;
    limits.line = static_cast<size_t>(config.line);
    limits.header = static_cast<size_t>(config.header);
    limits.properties = static_cast<size_t>(config.properties);
    limits.body = static_cast<size_t>(config.body);
    limits.addresses = static_cast<size_t>(config.addresses);
}

static client &add_client(server &s)
{
    auto fresh = std::make_unique<client>();
    client &c = *fresh;
    c.owner = &s;
    c.talk.id = ++s.lastConnection;
    c.queue.pool = &s.pool;
    c.acceptedAt = c.heardAt = uv_now(&s.loop);
    client_apply_limits(c);
    c.tcp.data = &c;
    uv_tcp_init(&s.loop, &c.tcp);
    s.clients.emplace(c.talk.id, std::move(fresh));
    return c;
}

void client_begin(server &s, int fd)
{
    client &c = add_client(s);
    s.counters.accepted++;
    const int opened = uv_tcp_open(&c.tcp, fd);
    if (opened < 0) {
        close(fd);
        return end_for_socket(c, "accepting", opened);
    }
    c.address = peer_address(c.tcp);
    if (s.clients.size() > static_cast<size_t>(s.config.clients))
        return end_because(c, &server_counters::refused,
                           "more than " + std::to_string(s.config.clients) + " clients");
    uv_tcp_nodelay(&c.tcp, 1);
    uv_read_start(reinterpret_cast<uv_stream_t *>(&c.tcp), on_input_wanted, on_input);
    spdlog::debug("{} accepted", client_name(c));
    watch_deadlines(s);
}

} // namespace zebd
