// The pipeline record: everything the decode and render side of one port
// drives. The port holds one; the pipeline's threads and functions see only
// this, never the port's source.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>

#include "audio/port_sound.h"
#include "display/video_display.h"
#include "fisheye/fisheye_port.h"
#include "iva/iva_port.h"
#include "korvalen_types.h"
#include "pipeline/port_playback.h"
#include "pipeline/port_stream.h"
#include "queue/queue_packet.h"
#include "record/record_port.h"
#include "source/source.h"

constexpr uint32_t kPacketBufferDefault = 1000;
constexpr uint32_t kPacketBufferMin = 1000;
constexpr uint32_t kPacketBufferMax = 5000;
constexpr uint32_t kDelayRenderMax = 10000;
constexpr uint32_t kWorkBufferSize = 2048;

// One callback slot: function, user pointer and option word (1 by default).
// Set by the caller's thread, read by the port's threads at every frame.
template <class Fn> struct CallbackSlot {
    std::atomic<Fn> fn{nullptr};
    std::atomic<void*> user{nullptr};
    std::atomic<uint32_t> option{1};
};

struct PortCallbacks {
    CallbackSlot<KORVALEN_SOURCE_DATA_CB> source;
    CallbackSlot<KORVALEN_PARSED_DATA_CB> parseVideo;
    CallbackSlot<KORVALEN_PARSED_DATA_CB> parseAudio;
    CallbackSlot<KORVALEN_DECODED_VIDEO_CB> decodeVideo;
    CallbackSlot<KORVALEN_DECODED_AUDIO_CB> decodeAudio;
    CallbackSlot<KORVALEN_DRAW_CB> draw;
    CallbackSlot<KORVALEN_DECODED_AUDIO_CB> parseVoice;
    CallbackSlot<KORVALEN_DRAW_CB> drawEx; // handed to the display itself
};

struct Pipeline {
    uint32_t port = 0;
    std::atomic<uint32_t> sourceKind{SOURCE_NONE}; // read by the port's threads while the caller opens and closes

    QUEUE_PACKET_BUFFER packetBuffer;
    uint32_t packetBufferSize = kPacketBufferDefault; // slot count for the next source
    uint32_t delayRenderTime = 0;                     // ms
    uint32_t bufferCtrl = 1;                          // 1 wait and retry, 0 drop

    // Shared by the port's worker threads, and by the display side.
    std::recursive_mutex dataLock;
    std::recursive_mutex displayLock;

    PortCallbacks callbacks;
    PortSound sound;
    PortDisplay video;
    PortPlayback playback;
    PortStream stream;
    PortIva iva;                          // SEI record and analysis overlay
    PortFisheye fisheye;                  // fisheye views and electronic PTZ
    std::atomic<uint32_t> feedDecoder{1}; // 0: pushed data goes only to the source callback and the recorder

    // Playback defaults.
    std::atomic<uint32_t> frameInterval{40}; // ms; set by the decode thread, read by the render thread
    std::atomic<float> speedFactor{1.0f};    // set by the caller, read by the play and render threads
    uint32_t workBufferSizes[3] = {kWorkBufferSize, kWorkBufferSize, kWorkBufferSize};
    uint32_t gpuDecode = 0;    // copy of the global switch at allocation
    int32_t seekRequest = -1;  // seconds, -1 = none
    int32_t lastPlayTime = -1; // seconds, -1 = not known yet

    PortRecorder recorder; // last: its thread reads the stream settings above
};
