// The wait of an idle queue reader, shared by the packet and picture queues:
// it ends when the queue has something (the writer notifies) or when the
// reader is woken to look round (a stop, a drain request), or at the bound.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>

struct QUEUE_READER_WAIT {
    std::condition_variable added;
    uint32_t wakeups = 0; // under the queue's lock
};

// Waits under lock for ready() (true when data is there), a wake, or ms.
// Returns ready() at the end.
template <class Ready> bool QUEUE_WaitReady(std::mutex& lock, QUEUE_READER_WAIT& w, uint32_t ms, Ready ready)
{
    std::unique_lock<std::mutex> hold(lock);
    const uint32_t seen = w.wakeups;
    w.added.wait_for(hold, std::chrono::milliseconds(ms), [&] { return ready() || w.wakeups != seen; });
    return ready();
}

inline void QUEUE_WakeReader(std::mutex& lock, QUEUE_READER_WAIT& w)
{
    std::lock_guard<std::mutex> hold(lock);
    ++w.wakeups;
    w.added.notify_all();
}
