// Traffic statistics: received bit rate and the five-second received/lost
// packet windows.
#include <atomic>
#include <cstring>
#include <ctime>

#include "net/net_socket.h"

namespace {

uint32_t ElapsedMs(uint32_t startSec, uint32_t startMs, uint32_t nowSec, uint32_t nowMs)
{
    return (nowSec - startSec) * 1000u + nowMs - startMs;
}

} // namespace

void NET_StatClock(uint32_t* sec, uint32_t* ms)
{
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    *sec = static_cast<uint32_t>(ts.tv_sec);
    *ms = static_cast<uint32_t>(ts.tv_nsec / 1000000);
}

void NET_CalcBitRateAt(uint32_t bytes, NET_BITRATE* stat, uint32_t nowSec, uint32_t nowMs)
{
    if (stat->startSec == 0 && stat->startMs == 0) {
        stat->startSec = nowSec;
        stat->startMs = nowMs;
    }
    stat->bytes += bytes;
    const uint32_t elapsed = ElapsedMs(stat->startSec, stat->startMs, nowSec, nowMs);
    if (elapsed < 2501) {
        return;
    }
    const uint32_t rate = static_cast<uint32_t>(stat->bytes * 1000 / elapsed);
    if (stat->lastRate == 0) {
        stat->lastRate = rate;
    }
    std::atomic_ref<uint32_t>(stat->average).store((stat->lastRate + rate) / 2, std::memory_order_relaxed);
    stat->lastRate = rate;
    stat->startSec = nowSec;
    stat->startMs = nowMs;
    stat->bytes = 0;
}

void NET_CalcBitRate(uint32_t bytes, NET_BITRATE* stat)
{
    uint32_t sec, ms;
    NET_StatClock(&sec, &ms);
    NET_CalcBitRateAt(bytes, stat, sec, ms);
}

void NET_CountRecvPacketAt(NET_LOSTSTAT* stat, uint32_t nowSec, uint32_t nowMs)
{
    if (stat->startSec == 0 && stat->startMs == 0) {
        stat->startSec = nowSec;
        stat->startMs = nowMs;
    }
    if (std::atomic_ref<uint32_t>(stat->resetPending).exchange(0, std::memory_order_relaxed)) {
        std::memset(stat->lost, 0, sizeof stat->lost);
    }
    ++stat->recv[0];
    if (ElapsedMs(stat->startSec, stat->startMs, nowSec, nowMs) < 1001) {
        return;
    }
    // Totals of the slot just ended and the four before it.
    uint32_t recvTotal = 0, lostTotal = 0;
    for (int i = 0; i < 5; ++i) {
        recvTotal += stat->recv[i];
        lostTotal += stat->lost[i];
    }
    std::atomic_ref<uint32_t>(stat->recvTotal).store(recvTotal, std::memory_order_relaxed);
    std::atomic_ref<uint32_t>(stat->lostTotal).store(lostTotal, std::memory_order_relaxed);
    std::memmove(stat->recv + 1, stat->recv, 4 * sizeof stat->recv[0]);
    std::memmove(stat->lost + 1, stat->lost, 4 * sizeof stat->lost[0]);
    stat->recv[0] = 0;
    stat->lost[0] = 0;
    stat->startSec = nowSec;
    stat->startMs = nowMs;
}

void NET_CountRecvPacket(NET_LOSTSTAT* stat)
{
    uint32_t sec, ms;
    NET_StatClock(&sec, &ms);
    NET_CountRecvPacketAt(stat, sec, ms);
}

void NET_CountLostPacket(NET_LOSTSTAT* stat)
{
    ++stat->lost[0];
}

void NET_ResetLostPacket(NET_LOSTSTAT* stat)
{
    std::atomic_ref<uint32_t>(stat->resetPending).store(1, std::memory_order_relaxed);
}
