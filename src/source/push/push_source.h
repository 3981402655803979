// The pushed source: the caller hands the stream in, chunk by chunk, on its
// own thread (MPEG-TS, RTP, FLV or raw elementary streams).
#pragma once

#include <cstdint>

#include "source/source.h"

extern const SOURCE_OPS kPushSourceOps;

// One pushed chunk: counted, then handed to the pipeline, waiting while the
// packet buffer is full as the port's buffer control says.
uint32_t PUSHSRC_Input(void* state, const uint8_t* data, uint32_t length);
