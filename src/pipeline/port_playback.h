// A port's decode and render state: the picture queues, the render thread
// and the pacing settings.
#pragma once

#include <atomic>
#include <cstdint>
#include <thread>

#include "queue/queue_picture.h"

constexpr uint32_t kPictureBufferCount = 3;

enum FluencyMode : uint32_t {
    FLUENCY_OFF = 0,
    FLUENCY_NORMAL = 1,
    FLUENCY_LOW_DELAY = 3,
    FLUENCY_SMOOTH = 4,
};

struct PortPlayback {
    std::atomic<uint32_t> rendering{0}; // the render thread shall run
    std::thread renderThread;
    std::atomic<uint64_t> window{0}; // set by the caller, read by the decode side
    QUEUE_PICTURE_QUEUE decoded;     // decode thread -> adjustments
    QUEUE_PICTURE_QUEUE offscreen;   // pictures ready to show
    uint32_t pictureBuffers = kPictureBufferCount;
    std::atomic<uint32_t> fluency{FLUENCY_NORMAL};
    std::atomic<uint32_t> frameRate{0};     // of the stream
    std::atomic<uint32_t> fileFrameRate{0}; // of a file port
    std::atomic<uint32_t> running{0};       // file and HLS ports: 1 playing, 0 paused
    std::atomic<uint32_t> livePaused{0};    // live ports: keep the last picture on screen
    std::atomic<uint32_t> oneFrameDecode{0};
    std::atomic<uint32_t> renderMode{0};   // 1: fixed-interval rendering under the data lock
    std::atomic<uint32_t> videoDecode{0};  // decode video (set while rendering)
    std::atomic<uint32_t> videoCodec{9};   // codec type of the stream's video
    std::atomic<uint32_t> audioCodec{9};   // and of its sound
    std::atomic<uint32_t> pictureWidth{0}; // of the last decoded picture
    std::atomic<uint32_t> pictureHeight{0};
    std::atomic<uint32_t> packetSeen{0}; // the first frame reached the packet buffer
    std::atomic<uint32_t> rendered{0};   // pictures handed to the display
    // Time of the last decode-side wait (milliseconds of the monotonic clock).
    uint32_t lastDecodeStamp = 0;
};
