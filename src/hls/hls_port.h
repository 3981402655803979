// A port playing an HLS stream: the fetch thread that follows the playlist,
// takes segments from the cache or the server, and feeds their frames into
// the port's packet buffer at the pace of their time stamps.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <thread>

#include "hls/hls_playlist.h"

// Run-message type of HLS fetch problems (code: the HLS error, value: the
// segment's media sequence number, text: its address).
constexpr uint32_t kReportHls = 16;

struct PortHls {
    uint32_t open = 0;
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
