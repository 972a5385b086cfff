/* Stands between clients and the daemon, passes on what they say and disturbs it: connections come to an end
 * after any number of octets, and on the way there they may dawdle. It knows to the octet what it has passed
 * on.
 *
 * One thread of its own does the work; every function may be called from any thread. */
#pragma once

#include "fake_daemon.h"

#include <array>
#include <chrono>
#include <cstdint>
#include <list>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

namespace storms
{

/* How a connection is ended: both ways; both ways with a reset; one way, and the rest is up to the others. */
enum class ending { close, reset, half_close };
inline constexpr size_t endings = 3;

/* What may happen on the way to the end: nothing; the last octets one at a time; silence just before it; a
 * pause after whatever is passed on. */
enum class manner { plain, trickle, stall, delay };
inline constexpr size_t manners = 4;

/* One direction of a connection. */
struct lane {
    int from = -1, to = -1;
    std::string waiting;   /* read, and not passed on yet */
    std::string passed;    /* passed on; empty unless wanted */
    uint64_t count = 0;    /* octets passed on */
    uint64_t doubtful = 0; /* the last of them, which may not have arrived; known at the end */
    bool sourceEnded = false;
    bool closed = false; /* nothing more is passed on */
};

struct connection {
    uint64_t serial = 0; /* in the order in which they were made */
    uint16_t clientPort = 0;
    std::array<lane, 2> lanes; /* to the daemon; to the client */

    bool planned = false; /* a cut comes, after so many octets of that lane or at that time */
    size_t cutLane = 0;
    uint64_t cutAt = 0;
    std::chrono::steady_clock::time_point cutTime, notBefore, halfClosed;
    ending how = ending::close;
    manner way = manner::plain;
    bool stalled = false;
    bool cut = false;
};

struct proxy_counts {
    std::array<uint64_t, endings> cuts{};
    std::array<uint64_t, manners> ways{};
    uint64_t inHandshake = 0; /* cuts before the daemon's answer was through */
    uint64_t clung = 0;       /* half closed, and nobody ended the rest of it in time */
    uint64_t connections = 0;

    uint64_t all_cuts() const
    {
        return cuts[0] + cuts[1] + cuts[2];
    }
};

class chaos_proxy
{
  public:
    /* For the daemon at PORT. With KEEP everything that is passed on is kept. */
    chaos_proxy(uint16_t daemonPort, uint64_t seed, bool keep);
    ~chaos_proxy();
    chaos_proxy(const chaos_proxy &) = delete;
    chaos_proxy &operator=(const chaos_proxy &) = delete;

    uint16_t port() const
    {
        return listener.port();
    }

    /* From now on every connection is cut some time soon, or none is any more. */
    void disturb(bool wanted);

    /* Cuts one of the connections at once. */
    void cut_one();

    proxy_counts counts() const;

    /* Every connection there has been, in the order of their ends. They must all have ended. */
    std::vector<connection> past() const;
    bool is_idle() const;

  private:
    using moment = std::chrono::steady_clock::time_point;

    void run();
    void accept_all();
    void plan(connection &c, moment now);
    void serve(connection &c, short fromClient, short fromDaemon, moment now);
    void read_lane(lane &l) const;
    void pass_on(connection &c, size_t which, moment now);
    size_t allowance(connection &c, size_t which, moment now);
    void end_lane(connection &c, size_t which);
    void cut(connection &c, moment now);
    void finish(connection &c, bool reset);
    uint64_t below(uint64_t bound);

    zebtest::fake_daemon listener;
    const uint16_t daemonPort;
    const bool keep;
    int wake[2] = {-1, -1};
    mutable std::mutex lock; /* guards what follows */
    std::mt19937_64 random;
    bool disturbing = false, stopping = false;
    std::list<connection> running;
    std::vector<connection> ended;
    proxy_counts tally;
    std::thread thread;
};

} // namespace storms
