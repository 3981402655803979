// A port's sound output: a block-fed playback buffer behind a small PCM ring,
// fed by the "SoundPlay" thread. The back end (PulseAudio here) implements it.
#pragma once

#include <cstdint>

// Playback format.
struct AUDIO_WAVE_FORMAT {
    uint32_t sampleRate;
    uint32_t channels;
    uint32_t bitsPerSample;
    uint32_t blockLength; // bytes of one decoded PCM frame
};

// Speaker choice of a port: left or right only, or both.
enum AudioSpeakers : uint32_t {
    AUDIO_SPEAKERS_LEFT = 0,
    AUDIO_SPEAKERS_RIGHT = 1,
    AUDIO_SPEAKERS_BOTH = 3,
};

class CDsoundPlay {
public:
    virtual ~CDsoundPlay() = default;
    virtual uint32_t CreateSoundDec(const AUDIO_WAVE_FORMAT& format, uint32_t blockLength) = 0;
    virtual void DestroySoundDec() = 0;
    virtual uint32_t StartPlaySound() = 0;
    virtual void StopPlaySound() = 0;
    // Volume in hundredths of a decibel (0 full, -10000 silence).
    virtual uint32_t SetSoundVolume(int32_t hundredthsDb) = 0;
    virtual uint32_t GetSoundVolume(int32_t* hundredthsDb) = 0;
    virtual uint32_t AddSoundData(const uint8_t* data, uint32_t length) = 0;
    virtual uint32_t WaitPlayDone() = 0;
    virtual uint32_t CheckCurBuffer() = 0;
    virtual void SoundPlayThread() = 0;

    // Which speakers play; fixed when the buffer is created.
    virtual void SetSpeakers(uint32_t speakers) = 0;
    // True once the device dropped the buffer (the sound server went away).
    virtual bool IsBroken() const = 0;
    // Slot count, write and read index of the PCM ring.
    virtual uint32_t RingSlots() const = 0;
    virtual uint32_t RingWriteIndex() const = 0;
    virtual uint32_t RingReadIndex() const = 0;
    // Sound queued in the device, microseconds; 0 when unknown.
    virtual uint64_t LatencyUs() = 0;
};
