// The stream decode thread and what it runs: the stream parser, frame-rate
// statistics, decoding and the hand-over of pictures and sound.
#pragma once

#include <cstdint>

struct PortRecord;

uint32_t Stream_StartDecodeThread(PortRecord* rec);
void Stream_StopDecodeThread(PortRecord* rec);
void Stream_ReleaseDecoders(PortRecord* rec);

// Parses one chunk: 0 when the port's current frame holds a whole frame, 526
// when more data is needed, 524 for data it cannot classify, or the error of
// the container parser.
uint32_t Player_ParseStream(const uint8_t* data, uint32_t length, PortRecord* rec);

// Frame rate and interval after each frame.
uint32_t Player_StatisticsTimestamp(PortRecord* rec);
