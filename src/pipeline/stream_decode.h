// The stream decode thread and what it runs: the stream parser, frame-rate
// statistics, decoding and the hand-over of pictures and sound.
#pragma once

#include <atomic>
#include <cstdint>

struct Pipeline;
struct SOURCE_SINK;

uint32_t Stream_StartDecodeThread(Pipeline* rec);
void Stream_StopDecodeThread(Pipeline* rec);
void Stream_ReleaseDecoders(Pipeline* rec);

// What every source opens and closes for decoding: the frame and audio
// assembly buffers, the packet buffer and the decode thread. Failures are
// logged and everything made so far is released.
uint32_t Stream_OpenDecodeSide(Pipeline* rec);
void Stream_CloseDecodeSide(Pipeline* rec);

// One received packet or pushed chunk: the source hook, then the packet
// buffer (with the port's buffer control: wait and retry while *keepTrying
// allows, at most maxRetries times, or drop). Full queues are logged once
// every logEvery refusals. 0, 524 refused by the hook, 260 full.
uint32_t Stream_QueuePacket(Pipeline* rec, const uint8_t* data, uint32_t length,
                            const std::atomic<uint32_t>* keepTrying, uint32_t logEvery, uint32_t maxRetries = 0);

// Parses one chunk: 0 when the port's current frame holds a whole frame, 526
// when more data is needed, 524 for data it cannot classify, or the error of
// the container parser.
uint32_t Player_ParseStream(const uint8_t* data, uint32_t length, Pipeline* rec);

// Hands the port's current frame (stream.frame) to the callbacks, decoders,
// display and sound, as the decode thread does for each parsed frame.
void Stream_HandleFrame(Pipeline* rec);

// At the end of a source: shows the pictures the video decoder still holds
// (those waiting behind B-frames), as decoded ones are.
void Stream_DrainVideo(Pipeline* rec);

// The sink a source of this port delivers to.
void Stream_MakeSink(Pipeline* rec, SOURCE_SINK* sink);

// Frame rate and interval after each frame.
uint32_t Player_StatisticsTimestamp(Pipeline* rec);
