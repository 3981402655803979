// MPEG-TS frames from pushed chunks: follows the PAT and PMT, assembles each
// elementary stream's PES packets into the port's assembly buffers and hands
// out one whole frame at a time. A chunk that completes a frame part-way is
// resumed where it stopped.
#pragma once

#include <cstdint>

constexpr uint32_t kTsPacketSize = 188;
constexpr uint32_t kTsMaxStreams = 4;

struct TS_STREAM {
    uint16_t pid = 0;
    uint32_t codecType = 9;
    uint8_t* buf = nullptr; // the port's video or audio assembly buffer
    uint32_t cap = 0;
    uint32_t len = 0;    // PES payload gathered so far
    uint32_t pesLen = 0; // payload length the PES header announced, 0 = until the next start
    uint64_t pts = 0;    // 90 kHz
    bool open = false;   // a PES is being gathered
};

struct TS_PARSER {
    uint8_t* videoBuf = nullptr; // one video and one audio stream are followed
    uint32_t videoCap = 0;
    uint8_t* audioBuf = nullptr;
    uint32_t audioCap = 0;
    uint16_t pmtPid = 0x1FFF;
    TS_STREAM streams[kTsMaxStreams];
    uint32_t count = 0;
    bool resume = false; // the current chunk is not used up: go on at resumeAt
    uint32_t resumeAt = 0;
    // An AAC PES carries several ADTS frames: they go out one per call.
    TS_STREAM* splitting = nullptr;
    uint32_t splitAt = 0;
    uint32_t splitCount = 0;
};

struct TS_FRAME {
    const uint8_t* data;
    uint32_t length;
    uint64_t timestamp;
    uint32_t codecType;
    uint32_t frameType; // video: 0 key, 1 other; audio: 5
};

// Clears the parser and points video streams at videoBuf, audio streams at
// audioBuf.
void TS_Reset(TS_PARSER* p, uint8_t* videoBuf, uint32_t videoCap, uint8_t* audioBuf, uint32_t audioCap);

// Consumes the chunk (from p->resumeAt when p->resume). 0 with *frame set
// when a frame completed (p->resume then says whether to call again), 526 when the
// chunk is used up without a frame, 2 when a frame outgrew its buffer (it is
// dropped).
uint32_t TS_GetOneFrame(TS_PARSER* p, const uint8_t* data, uint32_t length, TS_FRAME* frame);

// End of input (the end of a file): hands out the frames still being
// gathered, one per call. 0 with *frame set, 526 when none is left.
uint32_t TS_Flush(TS_PARSER* p, TS_FRAME* frame);
