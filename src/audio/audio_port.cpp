#include "audio/audio_port.h"

#include <mutex>

#include "audio/audio_play.h"
#include "audio/mic_capture.h"
#include "korvalen_types.h"
#include "log/log.h"

namespace {

constexpr uint32_t kLengthTolerance = 2; // decoder output jitter that keeps the buffer

uint32_t SpeakersFor(uint32_t channel)
{
    return channel == 0 ? AUDIO_SPEAKERS_LEFT : (channel == 1 ? AUDIO_SPEAKERS_RIGHT : AUDIO_SPEAKERS_BOTH);
}

bool FormatChanged(const PortSound& s, const AUDIO_PCM_FRAME& f)
{
    uint32_t diff = f.length > s.length ? f.length - s.length : s.length - f.length;
    return f.sampleRate != s.rate || diff > kLengthTolerance || SpeakersFor(s.channel) != s.speakers;
}

} // namespace

bool Audio_ChannelKeepsFrame(uint32_t channel, uint32_t frameSubType)
{
    switch (channel) {
    case 0:
        return frameSubType != 4;
    case 1:
        return frameSubType != 0;
    case 2:
        return false;
    default:
        return true;
    }
}

void Audio_PlayPortFrame(PortSound& s, uint32_t port, std::recursive_mutex& dataLock, const AUDIO_PCM_FRAME* frame)
{
    std::lock_guard<std::recursive_mutex> lock(dataLock);
    if (!s.open) {
        Audio_DestroyPlayDec(s.play);
        s.appliedVolume = 0;
        return;
    }
    if (s.play && s.play->IsBroken()) {
        // The sound server went away: the port goes on without sound until
        // the user opens it again.
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "Port [%03d] __RenderThread failed, Audio_AddSoundData fail, error(0x%x)",
                     port, KORVALEN_ERR_AUDIO_DEVICE);
        Audio_DestroyPlayDec(s.play);
        s.open = 0;
        return;
    }
    if (!frame) {
        return;
    }
    if (s.play && FormatChanged(s, *frame)) {
        Audio_DestroyPlayDec(s.play);
    }
    if (!s.play) {
        AUDIO_WAVE_FORMAT fmt{frame->sampleRate, frame->channels, frame->bitsPerSample, frame->length};
        s.rate = frame->sampleRate;
        s.length = frame->length;
        s.speakers = SpeakersFor(s.channel);
        s.appliedVolume = -1;
        s.play = Audio_CreatePlayDec(fmt, s.speakers);
        if (!s.play) {
            KORVALEN_LOG(KORVALEN_LOG_ERROR, "Port [%03d] __RenderThread failed, Audio_CreatePlayDec fail", port);
            s.open = 0;
            return;
        }
        uint32_t err = Audio_OpenSound(s.play);
        if (err != KORVALEN_OK) {
            KORVALEN_LOG(KORVALEN_LOG_ERROR, "Port [%03d] __RenderThread failed, Audio_OpenSound fail, error(0x%x)",
                         port, err);
            Audio_DestroyPlayDec(s.play);
            s.open = 0;
            return;
        }
    }
    if (s.appliedVolume != static_cast<int64_t>(s.volume)) {
        uint32_t err = Audio_SetSoundVolume(s.play, s.volume);
        if (err == KORVALEN_OK) {
            s.appliedVolume = s.volume;
        } else {
            KORVALEN_LOG(KORVALEN_LOG_WARN, "Port [%03d] __RenderThread Warm, Audio_SetSoundVolume fail, error(0x%x)",
                         port, err);
        }
    }
    Audio_AddSoundData(s.play, frame->pcm, frame->length);
    if (frame->bitsPerSample == 16) {
        Audio_MicFarEnd(port, frame->pcm, frame->length, frame->sampleRate, frame->channels);
    }
}

void Audio_ReleasePortSound(PortSound& s, std::recursive_mutex& dataLock)
{
    std::lock_guard<std::recursive_mutex> lock(dataLock);
    Audio_DestroyPlayDec(s.play);
}
