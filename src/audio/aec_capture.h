// The echo-cancelling capture: the plain record stream, with every 10 ms of
// microphone sound run through WebRTC's audio processing (echo cancelling,
// noise suppression, high-pass filter). The far end is what the owner port
// plays, handed over by Audio_MicFarEnd.
#pragma once

#include <cstdint>
#include <mutex>

#include "audio/pulse_capture.h"

namespace webrtc {
class AudioProcessing;
class AudioFrame;
} // namespace webrtc

class CCoreAudioCapture final : public CDsoundCapture {
public:
    ~CCoreAudioCapture() override;
    // 283 for a format the processing cannot take (16-bit at 8, 16, 32 or
    // 48 kHz only), 282 when the processing cannot be made.
    uint32_t CreateDec(uint32_t bitsPerSample, uint32_t sampleRate, uint32_t blockSize, uint32_t owner) override;
    void DestroyDec() override;

    // Far-end sound at any rate and channel count (resampled and mixed down
    // to the capture's format); called from the owner port's decode thread.
    void FarEnd(const int16_t* pcm, uint32_t frames, uint32_t sampleRate, uint32_t channels);

protected:
    void Captured(const uint8_t* data, uint32_t length) override;

private:
    void ProcessFrame();

    webrtc::AudioProcessing* m_apm = nullptr;
    webrtc::AudioFrame* m_near = nullptr;
    webrtc::AudioFrame* m_far = nullptr;
    uint32_t m_frameSamples = 0; // 10 ms
    uint32_t m_nearFill = 0;     // samples gathered in m_near
    // Far-end samples waiting, at the capture rate (one second at most).
    std::mutex m_farLock;
    int16_t* m_farRing = nullptr;
    uint32_t m_farSize = 0;
    uint64_t m_farWritten = 0;
    uint64_t m_farRead = 0;
    double m_farPhase = 0; // resampler position carried between calls
    bool m_registered = false;
    uint32_t m_processFailures = 0;
};
