// Internals shared by the codec manager's files: one create/run/free triple
// per codec family, the creation lock and the GPU device.
#pragma once

#include <cstdint>
#include <mutex>

#include "codec/code_types.h"

struct AVBufferRef;

// Serialises software H.264 decoder creation across the process.
std::mutex& CODE_CreationLock();
// The GPU device found by the start-up probe, or null.
AVBufferRef* CODE_GpuDevice();
void CODE_ProbeGpu();
void CODE_ReleaseGpu();

// Software decoder threads for a picture size (0 x 0: unknown).
int CODE_ThreadCount(uint32_t width, uint32_t height);

// H.264 and H.265 (software or GPU).
uint32_t CODE_CreateVideoDecoder(CODE_HANDLE* h, uint32_t type, const CODE_PARAM* param, bool gpu);
uint32_t CODE_DecodeVideo(CODE_HANDLE* h, const CODE_INPUT* in, CODE_OUTPUT* out);
uint32_t CODE_RecreateVideoDecoder(CODE_HANDLE* h, uint32_t maxWidth, uint32_t maxHeight, uint32_t lowDelay);
void CODE_FreeVideoDecoder(CODE_HANDLE* h);

// MP2, AAC decoders (G.711 and raw PCM need no instance).
uint32_t CODE_CreateAudioDecoder(CODE_HANDLE* h, uint32_t type);
uint32_t CODE_DecodeAudio(CODE_HANDLE* h, const CODE_INPUT* in, CODE_OUTPUT* out);
void CODE_FreeAudioDecoder(CODE_HANDLE* h);

// G.711, MP2, AAC encoders.
uint32_t CODE_CreateAudioEncoder(CODE_HANDLE* h, uint32_t type, const CODE_PARAM* param);
uint32_t CODE_EncodeAudio(CODE_HANDLE* h, const CODE_INPUT* in, CODE_OUTPUT* out);
void CODE_FreeAudioEncoder(CODE_HANDLE* h);

// JPEG pictures both ways.
uint32_t CODE_CreateJpeg(CODE_HANDLE* h, uint32_t direction);
uint32_t CODE_DecodeJpeg(CODE_HANDLE* h, const CODE_INPUT* in, CODE_OUTPUT* out);
uint32_t CODE_EncodeJpeg(CODE_HANDLE* h, const CODE_INPUT* in, CODE_OUTPUT* out);
void CODE_FreeJpeg(CODE_HANDLE* h);

// Amplitude limiter over 16-bit samples; false on a bad argument.
bool CODE_LimitPcm(int16_t* samples, uint32_t count, float ratio);

// Generic codec failure.
constexpr uint32_t CODE_ERR_FAIL = 1;
