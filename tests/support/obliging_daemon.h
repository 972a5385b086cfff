/* A daemon on a thread of its own that agrees to everything: it answers the handshake and every subscription
 * with success, and takes what is published. For tests that look at something else than the conversation. */
#pragma once

#include "fake_daemon.h"

#include <functional>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace zebtest
{

class obliging_daemon
{
  public:
    /* Something the library sent: its lines up to the empty one, and what stood behind that. */
    struct request {
        std::string head;
        std::string body;

        /* What stands behind "NAME: " in its line; empty without such a line. */
        [[nodiscard]] std::string field(std::string_view name) const;
        [[nodiscard]] bool is(std::string_view verb) const; /* "event" for POST /event */
    };

    obliging_daemon();
    ~obliging_daemon();
    obliging_daemon(const obliging_daemon &) = delete;
    obliging_daemon &operator=(const obliging_daemon &) = delete;

    uint16_t port() const
    {
        return listener.port();
    }

    /* What REPLY returns for a request is sent behind the answer it gets anyway. Called on the daemon's
     * thread, where it must not call the daemon. */
    void reply_with(std::function<std::string(const request &)> reply);

    /* Requests so far whose lines contain TEXT. */
    int count(std::string_view text) const;

    /* Sends BYTES on the connection that was made last; nothing happens without one. */
    void send(std::string_view bytes);
    void hang_up();
    bool is_connected() const;

  private:
    void run();
    void take_connection(int socket);
    void take_bytes();
    bool take_request();
    std::string answer(const request &r) const;

    fake_daemon listener;
    int wake[2] = {-1, -1};
    std::string unread; /* of the daemon's thread alone */
    mutable std::mutex lock;
    int connection = -1;
    std::vector<request> requests;
    std::function<std::string(const request &)> more;
    std::thread thread;
};

} // namespace zebtest
