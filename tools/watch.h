/* Notices when the daemon goes. The library connects again without a word, which is right for notifications;
 * of a stream, what was on its way is lost for good. So verbs that care keep a connection of their own. */
#pragma once

#include "wire.h"

#include <atomic>
#include <functional>
#include <thread>

namespace tool
{

class daemon_watch
{
  public:
    daemon_watch() = default;
    ~daemon_watch();
    daemon_watch(const daemon_watch &) = delete;
    daemon_watch &operator=(const daemon_watch &) = delete;

    /* Begins, on a thread of its own, with LOOK called there several times a second: its argument is when the
     * daemon was last seen to go, on the wall clock, 0 when it never was. Returns exit_done, or the code to
     * end with after a line was said. */
    exit_code start(uint16_t port, std::function<void(double)> look);

  private:
    void run();

    uint16_t daemonPort = 0;
    wire_connection daemon;
    std::function<void(double)> look;
    std::atomic<bool> ending{false};
    std::thread thread;
};

} // namespace tool
