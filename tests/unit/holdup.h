/* Makes a moment last: threads of one name are held up wherever threads meet. */
#ifndef ZEB_TESTS_HOLDUP_H
#define ZEB_TESTS_HOLDUP_H

#include "ezebyieldseam.h"

#include <chrono>
#include <pthread.h>
#include <string_view>
#include <thread>

namespace unit
{

inline std::string_view heldUpName;
inline std::chrono::microseconds heldUpTime{0};

/* A service thread has its name before it comes to the first of these places. */
inline void hold_up_this_thread()
{
    thread_local const bool isMeant = [] {
        char name[16] = "";
        pthread_getname_np(pthread_self(), name, sizeof(name));
        return std::string_view(name) == heldUpName;
    }();
    if (isMeant)
        std::this_thread::sleep_for(heldUpTime);
}

/* From now on threads called NAME take TIME longer at each such place. To be called before there are any. */
inline void hold_up(std::string_view name, std::chrono::microseconds time)
{
    heldUpName = name;
    heldUpTime = time;
    ezeb_yieldseam = hold_up_this_thread;
}

} // namespace unit

#endif
