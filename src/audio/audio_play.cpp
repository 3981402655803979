#include "audio/audio_play.h"

#include <cmath>
#include <new>

#include "audio/pulse_play.h"
#include "heap/qmx_heap.h"
#include "korvalen_types.h"
#include "log/log.h"

namespace {
constexpr int32_t kSilence = -10000;
}

int32_t Audio_VolumeToHundredthsDb(int64_t volume)
{
    if (volume >= 256) {
        return 0;
    }
    if (volume <= 0) {
        return kSilence;
    }
    return static_cast<int32_t>(2000.0 * std::log10(static_cast<double>(volume) / 255.0));
}

int32_t Audio_HundredthsDbToVolume(int32_t hundredthsDb)
{
    return static_cast<int32_t>(255.0 * std::pow(10.0, hundredthsDb / 2000.0));
}

CDsoundPlay* Audio_CreatePlayDec(const AUDIO_WAVE_FORMAT& format, uint32_t speakers)
{
    auto* play = QMX_New<CPulsePlay>();
    if (!play) {
        return nullptr;
    }
    KORVALEN_LOG(KORVALEN_LOG_INFO, "Audio_CreatePlayDec Channels(%d) SampleRate(%d) BitsPerSample(%d)",
                 format.channels, format.sampleRate, format.bitsPerSample);
    play->SetSpeakers(speakers);
    uint32_t err = play->CreateSoundDec(format, format.blockLength);
    if (err != KORVALEN_OK) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "Audio_CreatePlayDec failed, CreateSoundDec fail, error(0x%x)", err);
        QMX_Delete(play);
        return nullptr;
    }
    return play;
}

void Audio_DestroyPlayDec(CDsoundPlay*& play)
{
    if (!play) {
        return;
    }
    play->StopPlaySound();
    play->DestroySoundDec();
    QMX_Delete(static_cast<CPulsePlay*>(play));
    play = nullptr;
}

uint32_t Audio_OpenSound(CDsoundPlay* play)
{
    return play ? play->StartPlaySound() : KORVALEN_ERR_SOUND_BUFFER;
}

uint32_t Audio_AddSoundData(CDsoundPlay* play, const uint8_t* data, uint32_t length)
{
    return play ? play->AddSoundData(data, length) : KORVALEN_ERR_SOUND_BUFFER;
}

uint32_t Audio_SetSoundVolume(CDsoundPlay* play, int64_t volume)
{
    return play ? play->SetSoundVolume(Audio_VolumeToHundredthsDb(volume)) : KORVALEN_ERR_SOUND_BUFFER;
}

uint32_t Audio_GetSoundVolume(CDsoundPlay* play, uint32_t* volume)
{
    if (!play) {
        return KORVALEN_ERR_SOUND_BUFFER;
    }
    int32_t d = 0;
    uint32_t err = play->GetSoundVolume(&d);
    if (err == KORVALEN_OK && volume) {
        *volume = static_cast<uint32_t>(Audio_HundredthsDbToVolume(d));
    }
    return err;
}

uint32_t Audio_GetQueueBufNum(CDsoundPlay* play)
{
    if (!play) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "Audio_GetQueueBufNum fail, invalid param");
        return KORVALEN_ERR_INVALID_PARAM;
    }
    return play->RingSlots();
}

uint32_t Audio_GetQueueWriteIndex(CDsoundPlay* play)
{
    if (!play) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "Audio_GetQueueWriteIndex fail, invalid param");
        return KORVALEN_ERR_INVALID_PARAM;
    }
    return play->RingWriteIndex();
}

uint32_t Audio_GetQueueReadIndex(CDsoundPlay* play)
{
    if (!play) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "Audio_GetQueueReadIndex fail, invalid param");
        return KORVALEN_ERR_INVALID_PARAM;
    }
    return play->RingReadIndex();
}
