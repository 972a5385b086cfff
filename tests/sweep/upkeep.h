/* What every run of a sweep checks at its end: that the library still works, and that it kept nothing. */
#pragma once

#include "conversation.h"
#include "obliging_daemon.h"
#include "unit.h"

#include "ezebutil.h"
#include "zeb.h"

#include <string>

namespace sweep
{

/* With ZEB_SWEEP_FULL=1 nothing is left out. */
inline bool is_full()
{
    const char *wanted = getenv("ZEB_SWEEP_FULL");
    return wanted != nullptr && *wanted == '1';
}

/* Releases what the library gave away in such a way that the count of its blocks knows of it. */
inline void give_back(const void *block)
{
    ezeb_free(block);
}

inline int64_t blocks()
{
    return __atomic_load_n(&ezeb_allocseam_blocks, __ATOMIC_SEQ_CST);
}

/* Publishes a notification of TYPE; true when it arrives. It needs a runtime. */
inline bool publish_arrives(const zebtest::obliging_daemon &daemon, const std::string &type)
{
    zeb_publisher *publisher = zeb_publisher_create("probe");
    if (publisher == nullptr)
        return false;
    zeb_publisher_publish(publisher, zeb_notification_create(type.c_str(), nullptr, 0));
    zeb_publisher_close(publisher);
    return zebtest::eventually([&] { return daemon.count("eventType: " + type + "\r\n") > 0; });
}

/* Remembers what the library holds, to compare with later. */
class upkeep
{
  public:
    upkeep() : blocksBefore(blocks()), descriptorsBefore(zebtest::open_descriptors()) {}

    /* After the shutdown: threads that nobody waits for may take a moment to give back what they hold. */
    void check() const
    {
        EXPECT_TRUE(
            zebtest::eventually([&] { return blocks() == blocksBefore; }, zebtest::milliseconds{3000}))
            << blocks() - blocksBefore << " blocks are not released";
        EXPECT_TRUE(zebtest::eventually([&] { return zebtest::open_descriptors() == descriptorsBefore; },
                                        zebtest::milliseconds{3000}))
            << zebtest::open_descriptors() << " descriptors instead of " << descriptorsBefore;
    }

  private:
    int64_t blocksBefore;
    int descriptorsBefore;
};

} // namespace sweep
