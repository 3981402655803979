// Codec manager: the one place where decoders and encoders of every codec
// type are created, driven and destroyed. All calls return 0 or an error code.
#pragma once

#include <cstdint>

#include "codec/code_types.h"

// Process start and end: the creation lock and the GPU capability probe.
uint32_t CODE_GlobalInit();
void CODE_GlobalRelease();

// direction: CODE_DIR_*; codecType: KORVALEN_CODEC_*. The handle is cleared
// first; its GPU flags are read before that.
uint32_t CODE_CreateCode(uint32_t direction, uint32_t codecType, const CODE_PARAM* param, CODE_HANDLE* handle);
// 0 with a picture or PCM block in output, 538 when the frame was consumed
// with nothing to show, or an error code.
uint32_t CODE_Decoder(CODE_HANDLE* handle, const CODE_INPUT* input, CODE_OUTPUT* output);
// Encoded bytes in output->data/length (length 0 while the encoder fills up;
// MP2 frames go to the MP2 data callback instead).
uint32_t CODE_Encoder(CODE_HANDLE* handle, const CODE_INPUT* input, CODE_OUTPUT* output);
uint32_t CODE_FreeCode(CODE_HANDLE* handle);
// Re-creates the software H.265 decoder for pictures up to maxSize x maxSize.
uint32_t CODE_ReCreateDecoder(uint32_t maxSize, uint32_t lowDelay, CODE_HANDLE* handle);
uint32_t CODE_SetMp2DataCallBack(CODE_HANDLE* handle, CODE_MP2_DATA_CB callback, void* user);

// GPU capability: state receives two 32-bit values (H.264, H.265 GPU
// decoding possible) in its first 8 of 32 bytes when enable is 1; otherwise
// the state and the process-wide flags are cleared.
uint32_t CODE_CatchHwDecEx(uint32_t enable, void* state);
// Opens the GPU device of the given kind (0 any, 1 VAAPI, 2 CUDA) and path
// (null or empty: the default) in place of the one probed at start-up; 0, or
// 7 when there is none that decodes H.264 or H.265.
uint32_t CODE_SelectGpu(uint32_t kind, const char* device);
// Kind of the open GPU device, 0 when there is none.
uint32_t CODE_GpuDeviceKind();
// Copies the last GPU-decoded picture out as I420 into one new heap block
// (output->planes[0], freed by the caller with QMX_HeapFree).
uint32_t CODE_GetYuvData(CODE_HANDLE* handle, CODE_OUTPUT* output);

// kind: CODE_COLOR_*; width and height are rounded down to multiples of 4.
uint32_t Format_ColorSpace(uint32_t kind, const CODE_PICTURE* source, CODE_PICTURE* destination);
