/* A blocking call on a thread of its own, while the test plays the daemon. */
#pragma once

#include "patience.h"
#include "peer.h"

#include <future>
#include <thread>

namespace zebtest
{

/* The call must have ended by the end of the test; a test that failed leaves it behind instead of hanging. */
template <typename Result>
class background
{
  public:
    template <typename Call>
    explicit background(Call call)
    {
        std::packaged_task<Result()> task(std::move(call));
        future = task.get_future();
        thread = std::thread(std::move(task));
    }
    background(const background &) = delete;
    background &operator=(const background &) = delete;
    ~background()
    {
        if (!thread.joinable())
            return;
        if (done_within(patience))
            thread.join();
        else
            thread.detach();
    }

    bool done_within(milliseconds limit) const
    {
        return future.wait_for(stretched(limit)) == std::future_status::ready;
    }

    /* The result; the test ends when there is none in time. */
    Result get(place where = {__builtin_FILE(), __builtin_LINE()})
    {
        if (!done_within(patience))
            script_fails(where, "a call in the background has not returned");
        thread.join();
        return future.get();
    }

  private:
    std::future<Result> future;
    std::thread thread;
};

template <typename Call>
background(Call) -> background<std::invoke_result_t<Call>>;

} // namespace zebtest
