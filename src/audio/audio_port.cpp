#include "audio/audio_port.h"

#include <mutex>

#include "audio/audio_play.h"
#include "audio/mic_capture.h"
#include "korvalen_types.h"
#include "log/log.h"
#include "port/player_api.h"
#include "port/port_table.h"

namespace {

constexpr uint32_t kLengthTolerance = 2; // decoder output jitter that keeps the buffer

uint32_t SpeakersFor(uint32_t channel)
{
    return channel == 0 ? AUDIO_SPEAKERS_LEFT : (channel == 1 ? AUDIO_SPEAKERS_RIGHT : AUDIO_SPEAKERS_BOTH);
}

PortRecord* PortOrLog(uint32_t port)
{
    PortRecord* rec = Player_GetPort(port);
    if (!rec) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "Get port[%d] fail", static_cast<int>(port));
    }
    return rec;
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

void Audio_PlayPortFrame(PortRecord* rec, const AUDIO_PCM_FRAME* frame)
{
    PortSound& s = rec->sound;
    std::lock_guard<std::recursive_mutex> lock(rec->dataLock);
    if (!s.open) {
        Audio_DestroyPlayDec(s.play);
        s.appliedVolume = 0;
        return;
    }
    if (s.play && s.play->IsBroken()) {
        // The sound server went away: the port goes on without sound until
        // the user opens it again.
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "Port [%03d] __RenderThread failed, Audio_AddSoundData fail, error(0x%x)",
                     rec->port, KORVALEN_ERR_AUDIO_DEVICE);
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
            KORVALEN_LOG(KORVALEN_LOG_ERROR, "Port [%03d] __RenderThread failed, Audio_CreatePlayDec fail", rec->port);
            s.open = 0;
            return;
        }
        uint32_t err = Audio_OpenSound(s.play);
        if (err != KORVALEN_OK) {
            KORVALEN_LOG(KORVALEN_LOG_ERROR, "Port [%03d] __RenderThread failed, Audio_OpenSound fail, error(0x%x)",
                         rec->port, err);
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
                         rec->port, err);
        }
    }
    Audio_AddSoundData(s.play, frame->pcm, frame->length);
    if (frame->bitsPerSample == 16) {
        Audio_MicFarEnd(rec->port, frame->pcm, frame->length, frame->sampleRate, frame->channels);
    }
}

void Audio_ReleasePortSound(PortRecord* rec)
{
    std::lock_guard<std::recursive_mutex> lock(rec->dataLock);
    Audio_DestroyPlayDec(rec->sound.play);
}

uint32_t Player_OpenSound(uint32_t port)
{
    PortRecord* rec = PortOrLog(port);
    if (!rec) {
        return KORVALEN_ERR_PORT;
    }
    rec->sound.open = 1;
    return KORVALEN_OK;
}

uint32_t Player_CloseSound(uint32_t port)
{
    PortRecord* rec = PortOrLog(port);
    if (!rec) {
        return KORVALEN_ERR_PORT;
    }
    rec->sound.open = 0;
    return KORVALEN_OK;
}

uint32_t Player_SetSoundVolume(uint32_t port, uint32_t volume)
{
    PortRecord* rec = PortOrLog(port);
    if (!rec) {
        return KORVALEN_ERR_PORT;
    }
    rec->sound.volume = volume;
    rec->sound.savedVolume = volume;
    return KORVALEN_OK;
}

uint32_t Player_GetSoundVolume(uint32_t port, uint32_t* volume)
{
    PortRecord* rec = PortOrLog(port);
    if (!rec) {
        return KORVALEN_ERR_PORT;
    }
    std::lock_guard<std::recursive_mutex> lock(rec->dataLock);
    uint32_t err = Audio_GetSoundVolume(rec->sound.play, volume);
    if (err == KORVALEN_ERR_SOUND_BUFFER) {
        *volume = rec->sound.volume; // nothing played yet: the stored value
        return KORVALEN_OK;
    }
    if (err != KORVALEN_OK) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "Port[%03d] QUEUE_AddPacket failed, Audio_GetSoundVolume fail, error(0x%x)",
                     port, err);
    }
    return err;
}

uint32_t Player_SetSoundQuietStatus(uint32_t port, uint32_t quiet)
{
    PortRecord* rec = PortOrLog(port);
    if (!rec) {
        return KORVALEN_ERR_PORT;
    }
    PortSound& s = rec->sound;
    if (quiet) {
        s.savedVolume = s.volume.load();
        s.volume = 0;
    } else {
        s.volume = s.savedVolume.load();
    }
    s.muted = quiet;
    return KORVALEN_OK;
}

uint32_t Player_GetSoundQuietStatus(uint32_t port, uint32_t* quiet)
{
    PortRecord* rec = PortOrLog(port);
    if (!rec) {
        return KORVALEN_ERR_PORT;
    }
    *quiet = rec->sound.muted;
    return KORVALEN_OK;
}

uint32_t Player_SetPlaySoundChannel(uint32_t port, uint32_t channel)
{
    PortRecord* rec = PortOrLog(port);
    if (!rec) {
        return KORVALEN_ERR_PORT;
    }
    rec->sound.channel = channel;
    return KORVALEN_OK;
}
