/* A subscriber without a creation: complete, for the identifier ID, but in no table yet. */
#ifndef ZEB_TESTS_BARE_SUBSCRIBER_H
#define ZEB_TESTS_BARE_SUBSCRIBER_H

#include "ezebstream.h"
#include "ezebsubscriber.h"
#include "ezebutil.h"

namespace unit
{

inline zeb_subscriber *bareSubscriber(int32_t id, const char *interest = nullptr)
{
    auto *sub = ezeb_new<zeb_subscriber>();
    sub->references = 1;
    sub->id = static_cast<uint32_t>(id);
    ezeb_mutex_init(&sub->lock);
    ezeb_cond_init(&sub->changed);
    sub->queue = ezeb_queue_create();
    sub->streams = ezeb_streamtbl_create();
    sub->membershipInterest = ezeb_strdup_ornull(interest);
    return sub;
}

} // namespace unit

#endif
