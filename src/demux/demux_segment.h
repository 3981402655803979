// One media segment in memory (an HLS segment: MPEG-TS, or fragmented MP4
// behind its init section), read frame by frame in decode order: H.264 /
// H.265 access units in Annex B form and audio frames (AAC with ADTS
// headers). MPEG-TS goes through the TS demultiplexer every other MPEG-TS
// reader uses; fragmented MP4, which our MP4 reader does not read, through
// libavformat.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>

#include "demux/demux.h"

// Calls onFrame for every frame; onFrame returns false to stop. 0, 1800 when
// the data is no readable container, 1799 when it holds no H.264 or H.265
// video, 8 when stop became non-zero.
uint32_t DEMUX_Segment(const uint8_t* data, size_t length, const std::atomic<uint32_t>* stop,
                       const std::function<bool(const FileFrameInfo&)>& onFrame);
