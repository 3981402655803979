// One HLS segment (MPEG-TS, or fMP4 behind its init section) in memory,
// demultiplexed by libavformat into frames the stream parser takes: H.264 /
// H.265 access units in Annex B form and AAC frames with ADTS headers.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>

struct HLS_FRAME {
    const uint8_t* data = nullptr;
    uint32_t length = 0;
    uint32_t codecType = 9; // KORVALEN_CODEC_*
    uint32_t frameType = 0; // video: 0 key frame, 1 other
    uint64_t timestamp = 0; // 90 kHz
    double seconds = 0;     // presentation time in seconds
};

// Calls onFrame for every frame in decode order; onFrame returns false to
// stop. 0, 1800 when the data is no readable container, 1799 when it holds
// no H.264 or H.265 video, 8 when stop became non-zero.
uint32_t HLS_DemuxSegment(const uint8_t* data, size_t length, const std::atomic<uint32_t>* stop,
                          const std::function<bool(const HLS_FRAME&)>& onFrame);
