// Microphone capture: 16-bit mono PCM in fixed-size blocks handed to a
// callback on the capture's own thread. Two back ends: the plain capture on a
// PulseAudio record stream of the default source, and the echo-cancelling
// capture that runs the same stream through WebRTC's audio processing with
// the owner port's playback as the far-end signal.
#pragma once

#include <atomic>
#include <cstdint>

#include "korvalen_types.h"

// Capture kinds of Audio_CreateCaptureDec.
constexpr uint32_t AUDIO_CAPTURE_AEC = 0;   // echo-cancelling, plain capture as fallback
constexpr uint32_t AUDIO_CAPTURE_PLAIN = 1; // plain record stream

// The echo canceller cannot run here: 282 it could not be made, 283 it cannot
// take this format. Either makes Audio_CreateCaptureDec fall back.
constexpr uint32_t AUDIO_ERR_AEC_UNAVAILABLE = 282;
constexpr uint32_t AUDIO_ERR_AEC_FORMAT = 283;
constexpr uint32_t AUDIO_ERR_NO_MIC = KORVALEN_ERR_AUDIO_DEVICE;
constexpr uint32_t AUDIO_ERR_NO_CAPTURE_DEVICE = KORVALEN_ERR_CAPTURE_DEVICE;

constexpr uint32_t kAudioNoOwner = 65535;
constexpr uint32_t kAudioCaptureBlocks = 16; // the capture ring holds this many blocks
// Report type of a microphone that went away (code 266, the owner port).
constexpr uint32_t kReportMicLost = 3;

typedef void (*AUDIO_CAPTURE_CB)(const uint8_t* data, uint32_t length, void* context);

class CMicCapture {
public:
    virtual ~CMicCapture() = default;
    virtual uint32_t CreateDec(uint32_t bitsPerSample, uint32_t sampleRate, uint32_t blockSize, uint32_t owner) = 0;
    virtual void DestroyDec() = 0;
    virtual void StopCapture() = 0;
    virtual uint32_t StartCapture() = 0;

    std::atomic<AUDIO_CAPTURE_CB> m_callback{nullptr};
    std::atomic<void*> m_context{nullptr};
    std::atomic<int32_t> m_gain{255}; // below 1 nothing is delivered
    uint32_t m_owner = kAudioNoOwner;
    uint32_t m_secondId = kAudioNoOwner;
};

// Sample-rate index (0 8000, 1 16000, 2 44100, 3 16000) to Hz; 0 when unknown.
uint32_t Audio_CaptureRateHz(uint32_t rateIndex);

// Makes and starts a capture. Kind AUDIO_CAPTURE_PLAIN gives the plain
// capture; any other kind the echo-cancelling one, replaced silently by the
// plain capture when it answers 282 or 283. Null on failure (logged).
CMicCapture* Audio_CreateCaptureDec(uint32_t blockSize, uint32_t bitsPerSample, uint32_t rateIndex, uint32_t kind,
                                    uint32_t owner);
// 259 (logged) for a null capture.
uint32_t Audio_SetCaptureCallBack(CMicCapture* capture, AUDIO_CAPTURE_CB callback, void* context);
void Audio_DestroyCaptureDec(CMicCapture* capture);

// Sets the capture's gain (when a capture is given) and the default source's
// volume to volume x 257 (0..65535). 266 when there is no microphone.
uint32_t Audio_SetMicVolume(CMicCapture* capture, uint32_t volume);
// The default source's volume / 257.
uint32_t Audio_GetMicVolume(uint32_t* volume);

// The owner port's playback, for the echo canceller's far end: interleaved
// 16-bit PCM at any rate and channel count. Cheap when nobody listens.
void Audio_MicFarEnd(uint32_t port, const uint8_t* pcm, uint32_t length, uint32_t sampleRate, uint32_t channels);
