// A port's sound state: what the user asked for (set by the exported
// controls) and what the decode thread made of it.
#pragma once

#include <atomic>
#include <cstdint>

#include "audio/dsound_play.h"

constexpr uint32_t kDefaultPortVolume = 128;

struct PortSound {
    // Set by the exported controls under the port lock, read by the decode
    // thread at every frame.
    std::atomic<uint32_t> open{0};                    // the user wants sound
    std::atomic<uint32_t> volume{kDefaultPortVolume}; // 0..255 as given
    std::atomic<uint32_t> savedVolume{kDefaultPortVolume};
    std::atomic<uint32_t> muted{0};
    std::atomic<uint32_t> channel{AUDIO_SPEAKERS_BOTH}; // 0 left, 1 right, 2 none, other both

    // Owned by the decode thread (guarded by the port's data lock).
    CDsoundPlay* play = nullptr;
    uint32_t rate = 0;   // format the object was made for
    uint32_t length = 0; // PCM bytes per frame it was made for
    uint32_t speakers = AUDIO_SPEAKERS_BOTH;
    int64_t appliedVolume = 0; // -1: not applied yet
};

// One decoded audio frame.
struct AUDIO_PCM_FRAME {
    const uint8_t* pcm;
    uint32_t length;
    uint32_t sampleRate;
    uint32_t channels;
    uint32_t bitsPerSample;
};
