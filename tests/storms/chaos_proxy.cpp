#include "chaos_proxy.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <linux/sockios.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>

namespace storms
{

using std::chrono::milliseconds;

static constexpr size_t mostWaiting = size_t{256} * 1024;
static constexpr uint64_t handshakeOctets = 130; /* less than either side's half of it */
static constexpr uint64_t trickledOctets = 200;
static constexpr milliseconds clinging{10000}, tick{2}, idleTick{50};

chaos_proxy::chaos_proxy(uint16_t port, uint64_t seed, bool keepAll)
    : daemonPort(port), keep(keepAll), random(seed)
{
    if (pipe2(wake, O_CLOEXEC) != 0)
        abort();
    thread = std::thread([this] { run(); });
}

chaos_proxy::~chaos_proxy()
{
    {
        const std::lock_guard hold(lock);
        stopping = true;
    }
    close(wake[1]); /* which wakes the thread */
    thread.join();
    close(wake[0]);
    for (connection &c : running)
        finish(c, false);
}

uint64_t chaos_proxy::below(uint64_t bound)
{
    return std::uniform_int_distribution<uint64_t>(0, bound - 1)(random);
}

/* ---- Plans ---- */

/* One cut in six falls into the handshake. The others are spread over all orders of magnitude, and the time
 * ends those that say little. */
void chaos_proxy::plan(connection &c, moment now)
{
    c.planned = true;
    c.cutLane = below(2);
    const uint64_t so_far = c.lanes[c.cutLane].count;
    c.cutAt = so_far + (below(6) == 0 ? below(handshakeOctets) : handshakeOctets + below(1ULL << below(18)));
    c.cutTime = now + milliseconds(200 + below(1800));
    c.how = static_cast<ending>(below(endings));
    c.way = static_cast<manner>(below(manners));
    c.stalled = false;
}

void chaos_proxy::disturb(bool wanted)
{
    const std::lock_guard hold(lock);
    disturbing = wanted;
    const moment now = std::chrono::steady_clock::now();
    for (connection &c : running) {
        c.planned = false;
        c.way = manner::plain;
        c.notBefore = now;
        if (wanted && !c.cut)
            plan(c, now);
    }
}

void chaos_proxy::cut_one()
{
    const std::lock_guard hold(lock);
    if (running.empty())
        return;
    auto chosen = running.begin();
    std::advance(chosen, below(running.size()));
    if (chosen->cut)
        return;
    const moment now = std::chrono::steady_clock::now();
    plan(*chosen, now);
    cut(*chosen, now);
}

/* ---- Connections ---- */

static int connect_to(uint16_t port)
{
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof(address)) != 0) {
        close(fd);
        return -1;
    }
    const int on = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
    return fd;
}

static uint16_t peer_port(int fd)
{
    sockaddr_in6 address{}; /* the port stands at the same place in the other family */
    socklen_t length = sizeof(address);
    getpeername(fd, reinterpret_cast<sockaddr *>(&address), &length);
    return ntohs(address.sin6_port);
}

void chaos_proxy::accept_all()
{
    for (int client = listener.take_waiting(); client != -1; client = listener.take_waiting()) {
        const int daemon = connect_to(daemonPort);
        if (daemon == -1) {
            close(client);
            continue;
        }
        for (const int fd : {client, daemon})
            fcntl(fd, F_SETFL, O_NONBLOCK);
        connection &c = running.emplace_back();
        c.serial = tally.connections;
        c.clientPort = peer_port(client);
        c.lanes[0].from = c.lanes[1].to = client;
        c.lanes[0].to = c.lanes[1].from = daemon;
        tally.connections++;
        if (disturbing)
            plan(c, std::chrono::steady_clock::now());
    }
}

/* What nobody has acknowledged may not have arrived. */
static void note_doubtful(lane &l)
{
    int unacknowledged = 0;
    if (ioctl(l.to, SIOCOUTQ, &unacknowledged) == 0 && unacknowledged > 0)
        l.doubtful = std::min(l.count, std::max(l.doubtful, static_cast<uint64_t>(unacknowledged)));
}

void chaos_proxy::finish(connection &c, bool reset)
{
    for (lane &l : c.lanes)
        note_doubtful(l);
    for (const int fd : {c.lanes[0].from, c.lanes[0].to}) {
        const linger abruptly{1, 0};
        if (reset)
            setsockopt(fd, SOL_SOCKET, SO_LINGER, &abruptly, sizeof(abruptly));
        close(fd);
    }
    c.lanes[0].from = -1;
    if (keep)
        ended.push_back(c);
}

/* Passes the end on, behind everything that was passed on before. */
void chaos_proxy::end_lane(connection &c, size_t which)
{
    lane &l = c.lanes[which];
    l.closed = true;
    l.waiting.clear();
    shutdown(l.to, SHUT_WR);
}

void chaos_proxy::cut(connection &c, moment now)
{
    c.cut = true;
    tally.cuts[static_cast<size_t>(c.how)]++;
    tally.ways[static_cast<size_t>(c.way)]++;
    tally.inHandshake += c.lanes[1].count == 0 ? 1 : 0;
    c.planned = false;
    c.way = manner::plain;
    c.halfClosed = c.notBefore = now;
    if (c.how != ending::half_close)
        finish(c, c.how == ending::reset);
    else if (!c.lanes[c.cutLane].closed)
        end_lane(c, c.cutLane);
}

/* ---- Octets ---- */

void chaos_proxy::read_lane(lane &l) const
{
    char buffer[16384];
    while (!l.sourceEnded && l.waiting.size() < mostWaiting) {
        const ssize_t count = read(l.from, buffer, sizeof(buffer));
        if (count < 0 && errno == EAGAIN)
            return;
        if (count <= 0)
            l.sourceEnded = true;
        else if (!l.closed)
            l.waiting.append(buffer, static_cast<size_t>(count));
    }
}

/* How much of what waits in a lane may be passed on now. */
size_t chaos_proxy::allowance(connection &c, size_t which, moment now)
{
    const lane &l = c.lanes[which];
    if (now < c.notBefore)
        return 0;
    if (!c.planned || which != c.cutLane)
        return l.waiting.size();
    const uint64_t left = c.cutAt - std::min(c.cutAt, l.count);
    if (c.way == manner::trickle && left <= trickledOctets)
        return std::min<size_t>(1, left);
    return std::min<size_t>(l.waiting.size(), c.way == manner::trickle ? left - trickledOctets : left);
}

void chaos_proxy::pass_on(connection &c, size_t which, moment now)
{
    lane &l = c.lanes[which];
    const size_t wanted = std::min(allowance(c, which, now), l.waiting.size());
    if (!l.closed && wanted > 0) {
        const ssize_t count = send(l.to, l.waiting.data(), wanted, MSG_NOSIGNAL);
        if (count > 0) {
            if (keep)
                l.passed.append(l.waiting, 0, static_cast<size_t>(count));
            l.waiting.erase(0, static_cast<size_t>(count));
            l.count += static_cast<uint64_t>(count);
            if (c.way == manner::delay)
                c.notBefore = now + milliseconds(1 + below(15));
        } else if (errno != EAGAIN) { /* nobody takes it any more */
            note_doubtful(l);
            l.waiting.clear();
            l.closed = true;
        }
    }
    if (l.sourceEnded && l.waiting.empty() && !l.closed)
        end_lane(c, which);
}

/* One look at a connection; it has ended when its descriptors are gone. */
void chaos_proxy::serve(connection &c, short fromClient, short fromDaemon, moment now)
{
    if (fromClient != 0)
        read_lane(c.lanes[0]);
    if (fromDaemon != 0)
        read_lane(c.lanes[1]);
    for (size_t which = 0; which < 2; which++)
        pass_on(c, which, now);
    if (c.lanes[0].sourceEnded && c.lanes[1].sourceEnded && c.lanes[0].closed && c.lanes[1].closed) {
        finish(c, false);
    } else if (c.planned && (c.lanes[c.cutLane].count >= c.cutAt || now >= c.cutTime)) {
        if (c.way == manner::stall && !c.stalled) {
            c.stalled = true;
            c.notBefore = c.cutTime = now + milliseconds(20 + below(400));
            c.cutAt = UINT64_MAX;
        } else {
            cut(c, now);
        }
    } else if (c.cut && now > c.halfClosed + clinging) {
        tally.clung++;
        finish(c, true);
    }
}

void chaos_proxy::run()
{
    for (;;) {
        std::vector<pollfd> watched = {{wake[0], POLLIN, 0}};
        for (const int fd : listener.listening_sockets())
            watched.push_back({fd, POLLIN, 0});
        std::vector<connection *> order;
        std::unique_lock hold(lock);
        bool busy = false;
        running.remove_if([](const connection &c) { return c.lanes[0].from == -1; });
        for (connection &c : running) {
            order.push_back(&c);
            for (size_t which = 0; which < 2; which++) {
                const lane &in = c.lanes[which], &out = c.lanes[1 - which];
                const bool reads = !in.sourceEnded && in.waiting.size() < mostWaiting;
                const bool writes = !out.closed && !out.waiting.empty() && !c.planned;
                watched.push_back({reads || writes ? in.from : -1,
                                   static_cast<short>((reads ? POLLIN : 0) | (writes ? POLLOUT : 0)), 0});
            }
            busy = busy || c.cut || c.planned;
        }
        hold.unlock();
        poll(watched.data(), watched.size(), static_cast<int>((busy ? tick : idleTick).count()));
        hold.lock();
        if (stopping)
            return;
        if (watched[1].revents != 0 || watched[2].revents != 0)
            accept_all();
        const moment now = std::chrono::steady_clock::now();
        for (size_t i = 0; i < order.size(); i++)
            if (order[i]->lanes[0].from != -1)
                serve(*order[i], watched[3 + 2 * i].revents, watched[4 + 2 * i].revents, now);
    }
}

proxy_counts chaos_proxy::counts() const
{
    const std::lock_guard hold(lock);
    return tally;
}

bool chaos_proxy::is_idle() const
{
    const std::lock_guard hold(lock);
    return std::all_of(running.begin(), running.end(),
                       [](const connection &c) { return c.lanes[0].from == -1; });
}

std::vector<connection> chaos_proxy::past() const
{
    const std::lock_guard hold(lock);
    return ended;
}

} // namespace storms
