#include "audio/mic_capture.h"

#include <algorithm>

#include <pulse/pulseaudio.h>

#include "audio/aec_capture.h"
#include "audio/audio_device.h"
#include "audio/pulse_capture.h"
#include "korvalen_types.h"
#include "log/log.h"

namespace {

constexpr uint32_t kOpTimeoutMs = 2000;
constexpr uint32_t kMixerScale = 257; // 0..255 to the mixer's 0..65535
constexpr const char* kDefaultSource = "@DEFAULT_SOURCE@";

struct SourceQuery {
    bool done = false;
    bool found = false;
    int success = 0;
    pa_cvolume volume{};
};

void OnSource(pa_context*, const pa_source_info* info, int eol, void* user)
{
    auto* q = static_cast<SourceQuery*>(user);
    if (eol) {
        q->done = true;
        pa_threaded_mainloop_signal(Audio_Mainloop(), 0);
        return;
    }
    if (info) {
        q->found = true;
        q->volume = info->volume;
    }
}

void OnSet(pa_context*, int success, void* user)
{
    auto* q = static_cast<SourceQuery*>(user);
    q->success = success;
    q->done = true;
    pa_threaded_mainloop_signal(Audio_Mainloop(), 0);
}

bool Finish(pa_operation* op, SourceQuery& q)
{
    if (!op) {
        return false;
    }
    bool ended =
        Audio_WaitLocked([&] { return q.done || pa_operation_get_state(op) != PA_OPERATION_RUNNING; }, kOpTimeoutMs);
    pa_operation_unref(op);
    return ended;
}

// The default source's volume; the main loop is locked. 266 when there is
// no source (or no server).
uint32_t ReadSourceLocked(pa_cvolume* volume)
{
    SourceQuery q;
    if (!Finish(pa_context_get_source_info_by_name(Audio_Context(), kDefaultSource, &OnSource, &q), q) || !q.found) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "the number of waveform-audio input devices present in the system is zero.");
        return AUDIO_ERR_NO_MIC;
    }
    if (q.volume.channels == 0) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "mic volume component is not exist.");
        return AUDIO_ERR_NO_MIC;
    }
    *volume = q.volume;
    return KORVALEN_OK;
}

} // namespace

uint32_t Audio_CaptureRateHz(uint32_t rateIndex)
{
    switch (rateIndex) {
    case 0:
        return 8000;
    case 1:
    case 3:
        return 16000;
    case 2:
        return 44100;
    default:
        return 0;
    }
}

CMicCapture* Audio_CreateCaptureDec(uint32_t blockSize, uint32_t bitsPerSample, uint32_t rateIndex, uint32_t kind,
                                    uint32_t owner)
{
    uint32_t hz = Audio_CaptureRateHz(rateIndex);
    if (hz == 0) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "Audio_CreateCaptureDec fail, Sample Per Sec is error(%d)", rateIndex);
        return nullptr;
    }
    CMicCapture* capture = nullptr;
    uint32_t err = KORVALEN_OK;
    if (kind != AUDIO_CAPTURE_PLAIN) {
        capture = new (std::nothrow) CCoreAudioCapture;
        err = capture ? capture->CreateDec(bitsPerSample, hz, blockSize, owner) : AUDIO_ERR_AEC_UNAVAILABLE;
        if (err == AUDIO_ERR_AEC_UNAVAILABLE || err == AUDIO_ERR_AEC_FORMAT) {
            KORVALEN_LOG(KORVALEN_LOG_DEBUG, "Audio_CreateCaptureDec, echo cancelling not available(%d)", err);
            delete capture;
            capture = nullptr;
        }
    }
    if (!capture) {
        capture = new (std::nothrow) CDsoundCapture;
        err = capture ? capture->CreateDec(bitsPerSample, hz, blockSize, owner) : KORVALEN_ERR_NO_MEMORY;
    }
    if (err != KORVALEN_OK) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "Audio_CreateCaptureDec failed, CreateDec fail, error(0x%x)", err);
        delete capture;
        return nullptr;
    }
    err = capture->StartCapture();
    if (err != KORVALEN_OK) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "Audio_CreateCaptureDec failed, CreateDec fail, error(0x%x)", err);
        capture->DestroyDec();
        delete capture;
        return nullptr;
    }
    return capture;
}

uint32_t Audio_SetCaptureCallBack(CMicCapture* capture, AUDIO_CAPTURE_CB callback, void* context)
{
    if (!capture) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "Audio_SetCaptureCallBack fail, Capture is NULL");
        return KORVALEN_ERR_PORT;
    }
    capture->m_context = context;
    capture->m_callback = callback;
    return KORVALEN_OK;
}

void Audio_DestroyCaptureDec(CMicCapture* capture)
{
    if (capture) {
        capture->StopCapture();
        capture->DestroyDec();
        delete capture;
    }
}

uint32_t Audio_SetMicVolume(CMicCapture* capture, uint32_t volume)
{
    if (capture) {
        capture->m_gain = static_cast<int32_t>(std::min<uint32_t>(volume, 255));
    }
    if (!Audio_EnsureDevice()) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "the number of waveform-audio input devices present in the system is zero.");
        return AUDIO_ERR_NO_MIC;
    }
    AudioLoopLock lock;
    pa_cvolume cv{};
    uint32_t err = ReadSourceLocked(&cv);
    if (err != KORVALEN_OK) {
        return err;
    }
    pa_cvolume_set(&cv, cv.channels, std::min<uint32_t>(volume, 255) * kMixerScale);
    SourceQuery q;
    if (!Finish(pa_context_set_source_volume_by_name(Audio_Context(), kDefaultSource, &cv, &OnSet, &q), q) ||
        !q.success) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "Audio_SetMicVolume fail, set source volume fail, error(%d)",
                     pa_context_errno(Audio_Context()));
        return 1;
    }
    return KORVALEN_OK;
}

uint32_t Audio_GetMicVolume(uint32_t* volume)
{
    if (!Audio_EnsureDevice()) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "the number of waveform-audio input devices present in the system is zero.");
        return AUDIO_ERR_NO_MIC;
    }
    AudioLoopLock lock;
    pa_cvolume cv{};
    uint32_t err = ReadSourceLocked(&cv);
    if (err == KORVALEN_OK) {
        *volume = std::min<uint32_t>(pa_cvolume_max(&cv), 65535) / kMixerScale;
    }
    return err;
}
