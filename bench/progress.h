/* How far the receivers of a measurement are: a page that processes share, with a cache line for each. And
 * the mark at the beginning of bodies, by which a sink counts events that it does not understand. */
#pragma once

#include "common.h"

#include <atomic>
#include <fcntl.h>
#include <optional>
#include <sys/mman.h>

namespace bench
{

inline constexpr char bodyMark[] = "\x01\x7f@mark\x02";

class progress_page
{
  public:
    explicit progress_page(const std::string &file)
    {
        const int fd = open(file.c_str(), O_RDWR | O_CLOEXEC);
        require(fd >= 0, "opening the progress file");
        void *memory = mmap(nullptr, pageSize, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
        require(memory != MAP_FAILED, "mapping the progress file");
        close(fd);
        slots = static_cast<slot *>(memory);
    }

    void set(size_t index, uint64_t events)
    {
        slots[index].events.store(events, std::memory_order_release);
    }

    /* Of the receivers 0 to COUNT - 1. */
    uint64_t least(size_t count) const
    {
        uint64_t events = UINT64_MAX;
        for (size_t i = 0; i < count; i++)
            events = std::min(events, slots[i].events.load(std::memory_order_acquire));
        return events;
    }

  private:
    static constexpr size_t pageSize = 4096;
    struct alignas(64) slot {
        std::atomic<uint64_t> events;
    };
    slot *slots;
};

} // namespace bench
