// Bounded polling for tests that wait on the library's threads.
#pragma once

#include <chrono>
#include <thread>

// Polls done() every 10 ms for at most ms milliseconds; true once it
// answers true (it is not asked again after that).
template <class Done> bool WaitUntil(Done done, int ms = 10000)
{
    for (int waited = 0;; waited += 10) {
        if (done()) {
            return true;
        }
        if (waited >= ms) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
}

inline void SleepMs(int ms)
{
    std::this_thread::sleep_for(std::chrono::milliseconds(ms));
}
