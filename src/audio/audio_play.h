// The Audio_* layer over a port's playback object.
#pragma once

#include <cstdint>

#include "audio/dsound_play.h"

// Volume scale of the ports (0..255, 256 and more = full) to hundredths of a
// decibel and back; both truncate toward zero.
int32_t Audio_VolumeToHundredthsDb(int64_t volume);
int32_t Audio_HundredthsDbToVolume(int32_t hundredthsDb);

// Creates a playback object for the format, on the given speakers. Null on
// failure (logged).
CDsoundPlay* Audio_CreatePlayDec(const AUDIO_WAVE_FORMAT& format, uint32_t speakers);
// Stops and deletes the object; the pointer becomes null.
void Audio_DestroyPlayDec(CDsoundPlay*& play);

// Each returns 533 for a null object.
uint32_t Audio_OpenSound(CDsoundPlay* play);
uint32_t Audio_AddSoundData(CDsoundPlay* play, const uint8_t* data, uint32_t length);
uint32_t Audio_SetSoundVolume(CDsoundPlay* play, int64_t volume);
uint32_t Audio_GetSoundVolume(CDsoundPlay* play, uint32_t* volume);

// The object's PCM ring; 2 (logged) for a null object.
uint32_t Audio_GetQueueBufNum(CDsoundPlay* play);
uint32_t Audio_GetQueueWriteIndex(CDsoundPlay* play);
uint32_t Audio_GetQueueReadIndex(CDsoundPlay* play);
