#include "audio/aec_capture.h"

#include <algorithm>
#include <atomic>
#include <cstring>

#include <webrtc/modules/audio_processing/include/audio_processing.h>
#include <webrtc/modules/interface/module_common_types.h>

#include "heap/qmx_heap.h"
#include "korvalen_types.h"
#include "log/log.h"

namespace {

constexpr uint32_t kPorts = 256;
// Playback reaches the microphone some tens of milliseconds after it was
// handed over; the delay-agnostic mode refines this starting guess.
constexpr int kStreamDelayMs = 60;
constexpr uint32_t kProcessFailLogEvery = 1000;

std::mutex g_farLock; // the owner table
CCoreAudioCapture* g_farOwners[kPorts] = {};
std::atomic<uint32_t> g_farCount{0};

bool ProcessingRate(uint32_t hz)
{
    return hz == 8000 || hz == 16000 || hz == 32000 || hz == 48000;
}

} // namespace

CCoreAudioCapture::~CCoreAudioCapture()
{
    DestroyDec();
}

uint32_t CCoreAudioCapture::CreateDec(uint32_t bitsPerSample, uint32_t sampleRate, uint32_t blockSize, uint32_t owner)
{
    if (bitsPerSample != 16 || !ProcessingRate(sampleRate)) {
        return AUDIO_ERR_AEC_FORMAT;
    }
    webrtc::Config config;
    config.Set<webrtc::DelayAgnostic>(new webrtc::DelayAgnostic(true));
    config.Set<webrtc::ExtendedFilter>(new webrtc::ExtendedFilter(true));
    m_apm = webrtc::AudioProcessing::Create(config);
    if (!m_apm) {
        return AUDIO_ERR_AEC_UNAVAILABLE;
    }
    using AP = webrtc::AudioProcessing;
    bool ok = m_apm->Initialize(static_cast<int>(sampleRate), static_cast<int>(sampleRate),
                                static_cast<int>(sampleRate), AP::kMono, AP::kMono, AP::kMono) == AP::kNoError &&
              m_apm->high_pass_filter()->Enable(true) == AP::kNoError &&
              m_apm->echo_cancellation()->enable_drift_compensation(false) == AP::kNoError &&
              m_apm->echo_cancellation()->Enable(true) == AP::kNoError &&
              m_apm->noise_suppression()->set_level(webrtc::NoiseSuppression::kModerate) == AP::kNoError &&
              m_apm->noise_suppression()->Enable(true) == AP::kNoError;
    m_near = new (std::nothrow) webrtc::AudioFrame;
    m_far = new (std::nothrow) webrtc::AudioFrame;
    m_frameSamples = sampleRate / 100;
    m_farSize = sampleRate; // one second
    m_farRing = static_cast<int16_t*>(QMX_HeapMalloc(m_farSize * sizeof(int16_t)));
    if (!ok || !m_near || !m_far || !m_farRing) {
        DestroyDec();
        return AUDIO_ERR_AEC_UNAVAILABLE;
    }
    for (webrtc::AudioFrame* f : {m_near, m_far}) {
        f->sample_rate_hz_ = static_cast<int>(sampleRate);
        f->num_channels_ = 1;
        f->samples_per_channel_ = m_frameSamples;
    }
    m_nearFill = 0;
    uint32_t err = CDsoundCapture::CreateDec(bitsPerSample, sampleRate, blockSize, owner);
    if (err != KORVALEN_OK) {
        DestroyDec();
        return err;
    }
    if (owner < kPorts) {
        std::lock_guard<std::mutex> lock(g_farLock);
        if (!g_farOwners[owner]) {
            g_farOwners[owner] = this;
            m_registered = true;
            ++g_farCount;
        }
    }
    return KORVALEN_OK;
}

void CCoreAudioCapture::DestroyDec()
{
    if (m_registered) {
        std::lock_guard<std::mutex> lock(g_farLock);
        g_farOwners[m_owner] = nullptr;
        --g_farCount;
        m_registered = false;
    }
    CDsoundCapture::DestroyDec(); // no more Captured() calls after this
    delete m_apm;
    delete m_near;
    delete m_far;
    m_apm = nullptr;
    m_near = m_far = nullptr;
    QMX_HeapFree(m_farRing);
    m_farRing = nullptr;
}

void CCoreAudioCapture::FarEnd(const int16_t* pcm, uint32_t frames, uint32_t sampleRate, uint32_t channels)
{
    if (!m_farRing || frames == 0 || sampleRate == 0 || channels == 0) {
        return;
    }
    std::lock_guard<std::mutex> lock(m_farLock);
    // Linear resampling of the channel mix to the capture rate.
    const double step = static_cast<double>(sampleRate) / m_rate;
    double pos = m_farPhase;
    for (; pos < frames; pos += step) {
        auto i = static_cast<uint32_t>(pos);
        double frac = pos - i;
        uint32_t j = std::min(i + 1, frames - 1);
        double a = 0, b = 0;
        for (uint32_t c = 0; c < channels; ++c) {
            a += pcm[i * channels + c];
            b += pcm[j * channels + c];
        }
        double v = (a + (b - a) * frac) / channels;
        m_farRing[m_farWritten % m_farSize] = static_cast<int16_t>(std::clamp(v, -32768.0, 32767.0));
        ++m_farWritten;
    }
    m_farPhase = pos - frames;
    if (m_farWritten - m_farRead > m_farSize) {
        m_farRead = m_farWritten - m_farSize;
    }
}

void CCoreAudioCapture::Captured(const uint8_t* data, uint32_t length)
{
    // 16-bit mono: gather 10 ms frames, process each, pass it on.
    while (length >= 2) {
        uint32_t take = std::min(length / 2, m_frameSamples - m_nearFill);
        std::memcpy(m_near->data_ + m_nearFill, data, take * 2);
        m_nearFill += take;
        data += take * 2;
        length -= take * 2;
        if (m_nearFill == m_frameSamples) {
            ProcessFrame();
            m_nearFill = 0;
        }
    }
}

void CCoreAudioCapture::ProcessFrame()
{
    {
        std::lock_guard<std::mutex> lock(m_farLock);
        if (m_farWritten - m_farRead >= m_frameSamples) {
            for (uint32_t i = 0; i < m_frameSamples; ++i) {
                m_far->data_[i] = m_farRing[(m_farRead + i) % m_farSize];
            }
            m_farRead += m_frameSamples;
            m_far->samples_per_channel_ = m_frameSamples;
            m_apm->ProcessReverseStream(m_far);
        }
    }
    m_near->samples_per_channel_ = m_frameSamples;
    m_apm->set_stream_delay_ms(kStreamDelayMs);
    int r = m_apm->ProcessStream(m_near);
    if (r != webrtc::AudioProcessing::kNoError && m_processFailures++ % kProcessFailLogEvery == 0) {
        KORVALEN_LOG(KORVALEN_LOG_WARN, "CCoreAudioCapture warm, ProcessStream fail, error(%d)", r);
    }
    PutRing(reinterpret_cast<const uint8_t*>(m_near->data_), m_frameSamples * 2);
}

void Audio_MicFarEnd(uint32_t port, const uint8_t* pcm, uint32_t length, uint32_t sampleRate, uint32_t channels)
{
    if (g_farCount.load(std::memory_order_relaxed) == 0 || port >= kPorts || !pcm || channels == 0) {
        return;
    }
    std::lock_guard<std::mutex> lock(g_farLock);
    if (CCoreAudioCapture* c = g_farOwners[port]) {
        c->FarEnd(reinterpret_cast<const int16_t*>(pcm), length / 2 / channels, sampleRate, channels);
    }
}
