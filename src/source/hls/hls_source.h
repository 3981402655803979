// The HLS source: the fetch thread that follows the playlist, takes segments
// from the cache or the server, and feeds their frames into the port's
// packet buffer at the pace of their time stamps.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <thread>

#include "korvalen_types.h"
#include "source/hls/hls_playlist.h"
#include "source/source.h"

// Run-message type of HLS fetch problems (code: the HLS error, value: the
// segment's media sequence number, text: its address).
constexpr uint32_t kReportHls = 16;

struct PortHls {
    std::thread thread;
    std::atomic<uint32_t> stop{0};
    std::atomic<uint32_t> lastError{0}; // last fetch problem, 0 when none
    std::atomic<uint32_t> segments{0};  // segments delivered whole
    // Set before the thread starts, then the thread's own.
    std::string playlistUrl;
    HLS_PLAYLIST playlist;
    int64_t nextSequence = 0;
    int64_t endUtcMs = 0; // stop at this wall-clock time, 0 = open end
};

extern const SOURCE_OPS kHlsSourceOps;

// Follows the playlist from the position the caller asks (a time, a
// wall-clock start or the live edge) on a new fetch thread. 0 or an HLS error.
uint32_t HLSSRC_Update(void* state, const KORVALEN_HLS_PLAY_INFO* info, uint32_t time);

// The process-wide segment cache.
uint32_t Player_SetCachePath(const char* path);
uint32_t Player_SetMaxCache(uint32_t sizeMb);
uint32_t Player_CleanCache();
