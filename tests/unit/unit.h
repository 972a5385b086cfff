/* Helpers of the unit tests: refused memory, socket pairs, and small conveniences. */
#ifndef ZEB_TESTS_UNIT_H
#define ZEB_TESTS_UNIT_H

#include "../support/sanitizer.h"
#include "ezeballocseam.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <memory>
#include <string>
#include <string_view>
#include <sys/socket.h>
#include <unistd.h>

namespace unit
{

/* ---- The build ---- */

/* Sanitizers give every thread a stack of their liking, and want more of it. */
constexpr bool OWN_STACKS = !zebtest::threadSanitizer && !zebtest::addressSanitizer;

/* ---- Refused memory ---- */

/* Between begin and end, the N-th request of the library for memory is refused, and every later one as well
 * when PERSISTENT. */
class refusal
{
  public:
    explicit refusal(int64_t n, bool persistently = false) : nth(n), persistent(persistently) {}
    ~refusal()
    {
        end();
    }
    refusal(const refusal &) = delete;
    refusal &operator=(const refusal &) = delete;

    void begin()
    {
        before = requests();
        __atomic_store_n(&ezeb_allocseam_persistent, persistent ? 1 : 0, __ATOMIC_SEQ_CST);
        __atomic_store_n(&ezeb_allocseam_countdown, nth, __ATOMIC_SEQ_CST);
        armed = true;
    }
    /* Lets every request pass again; they count up to the end. Any thread may call it. */
    static void relent()
    {
        __atomic_store_n(&ezeb_allocseam_countdown, int64_t{0}, __ATOMIC_SEQ_CST);
        __atomic_store_n(&ezeb_allocseam_persistent, 0, __ATOMIC_SEQ_CST);
    }
    void end()
    {
        if (!armed)
            return;
        relent();
        made = requests() - before;
        armed = false;
    }

    /* Was a request refused between begin and end? */
    [[nodiscard]] bool happened() const
    {
        return made >= nth;
    }
    [[nodiscard]] bool isPersistent() const
    {
        return persistent;
    }
    [[nodiscard]] int64_t number() const
    {
        return nth;
    }

  private:
    static int64_t requests()
    {
        return __atomic_load_n(&ezeb_allocseam_requests, __ATOMIC_SEQ_CST);
    }
    int64_t nth;
    bool persistent;
    bool armed = false;
    int64_t before = 0;
    int64_t made = 0;
};

/* Calls ATTEMPT with its first request refused, then its second, and so on until none is; once with a single
 * refusal each and once with all later requests refused too. ATTEMPT brackets the call under test with begin
 * and end, checks the outcome against happened, and releases everything: the leak checker of the address
 * build watches. Returns how many requests a whole run makes. */
template <typename Attempt>
int64_t sweep(Attempt attempt)
{
    int64_t requests = 0;
    for (const bool persistent : {false, true}) {
        for (int64_t nth = 1;; nth++) {
            SCOPED_TRACE("request " + std::to_string(nth) + (persistent ? " and all later ones" : "") +
                         " refused");
            refusal refuse(nth, persistent);
            attempt(refuse);
            refuse.end();
            if (testing::Test::HasFailure())
                return requests;
            if (!refuse.happened()) {
                requests = nth - 1;
                break;
            }
        }
    }
    EXPECT_GT(requests, 0) << "the sweep never refused anything";
    return requests;
}

/* ---- Sockets ---- */

/* Two connected stream sockets: the library works on NEAR, the test on FAR. */
struct sockets {
    int near = -1;
    int far = -1;

    sockets()
    {
        int both[2];
        if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, both) == 0) {
            near = both[0];
            far = both[1];
        }
    }
    ~sockets()
    {
        hangUp();
        if (near != -1)
            close(near);
    }
    sockets(const sockets &) = delete;
    sockets &operator=(const sockets &) = delete;

    void send(std::string_view bytes) const
    {
        while (!bytes.empty()) {
            const ssize_t n = ::send(far, bytes.data(), bytes.size(), MSG_NOSIGNAL);
            if (n <= 0)
                return;
            bytes.remove_prefix(static_cast<size_t>(n));
        }
    }
    void hangUp()
    {
        if (far != -1)
            close(far);
        far = -1;
    }
    /* What has arrived at the far end so far, without waiting for more. */
    [[nodiscard]] std::string received() const
    {
        std::string all;
        char piece[4096];
        ssize_t n;
        while ((n = recv(far, piece, sizeof(piece), MSG_DONTWAIT)) > 0)
            all.append(piece, static_cast<size_t>(n));
        return all;
    }
};

/* ---- Conveniences ---- */

/* For texts and bodies that the library hands out to be freed. */
struct freeing {
    void operator()(void *p) const
    {
        free(p);
    }
};
using text = std::unique_ptr<char, freeing>;

inline double secondsSince(std::chrono::steady_clock::time_point start)
{
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

/* What this thread has worked: for bounds on cost, which must hold on a busy machine too. */
inline double processorSeconds()
{
    timespec worked{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &worked);
    return static_cast<double>(worked.tv_sec) + static_cast<double>(worked.tv_nsec) / 1e9;
}

/* String literal with its inner NULs. */
template <size_t N>
constexpr std::string_view bytes(const char (&literal)[N])
{
    return {literal, N - 1};
}

} // namespace unit

#endif
