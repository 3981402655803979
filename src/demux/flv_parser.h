// FLV frames from pushed chunks: follows the tag stream (a chunk may end
// anywhere, even inside a tag header), turns H.264 tags into Annex B access
// units with the parameter sets in front of key frames, and AAC tags into
// ADTS frames. A chunk that completes a frame part-way is resumed where it
// stopped, as the MPEG-TS reader does.
#pragma once

#include <cstdint>

constexpr uint32_t kFlvTagMax = 0x200000; // 2 MiB, the largest tag body kept
constexpr uint32_t kFlvParamsMax = 1024;  // SPS and PPS in Annex B form

enum FlvPhase : uint8_t {
    FLV_PHASE_FILE_HEADER = 0, // the 9-byte header and the first previous-tag size
    FLV_PHASE_TAG_HEADER = 1,
    FLV_PHASE_BODY = 2,
    FLV_PHASE_SKIP = 3, // an oversize body, or a previous-tag size
};

struct FLV_PARSER {
    uint8_t* tag = nullptr; // body of the tag being gathered (kFlvTagMax bytes)
    uint8_t* videoOut = nullptr;
    uint32_t videoCap = 0;
    uint8_t* audioOut = nullptr;
    uint32_t audioCap = 0;
    uint8_t phase = FLV_PHASE_FILE_HEADER;
    uint8_t head[13] = {}; // file header (9 + 4) or tag header (11)
    uint32_t headLen = 0;
    uint32_t bodyLen = 0; // size of the current body
    uint32_t have = 0;    // bytes of it gathered (or skipped)
    uint8_t tagType = 0;
    uint32_t tagTime = 0;   // milliseconds
    uint32_t skipAfter = 0; // previous-tag-size bytes still to skip
    uint8_t params[kFlvParamsMax] = {};
    uint32_t paramsLen = 0;
    uint32_t lengthSize = 4; // bytes of each NAL length field
    uint8_t aacProfile = 0, aacRateIndex = 0, aacChannels = 0;
    bool aacConfigured = false;
    bool started = false; // an FLV header has been seen
    bool resume = false;  // the current chunk is not used up: go on at resumeAt
    uint32_t resumeAt = 0;
};

struct FLV_FRAME {
    const uint8_t* data;
    uint32_t length;
    uint32_t timestamp; // milliseconds
    uint32_t codecType;
    uint32_t frameType; // video: 0 key, 1 other; audio: 5
};

// Binds the tag buffer (kFlvTagMax bytes, owned by the caller) and the output
// buffers, and clears the state.
void FLV_Reset(FLV_PARSER* p, uint8_t* tagBuf, uint8_t* videoOut, uint32_t videoCap, uint8_t* audioOut,
               uint32_t audioCap);

// The signature test: a chunk that starts an FLV stream ("FLV" and version
// 1), or one that carries on a stream this parser follows (inside a tag, or a
// tag of a known type at a tag boundary).
bool FLV_IsFlvData(const FLV_PARSER* p, const uint8_t* data, uint32_t length);
// True while the parser is inside a header or a body: the next chunk is its
// continuation, whatever its first byte looks like.
bool FLV_InsideTag(const FLV_PARSER* p);

// Consumes the chunk (from p->resumeAt when p->resume). 0 with *frame set
// when a frame completed (p->resume then says whether to call again), 526
// when the chunk is used up without a frame, 1 for a malformed tag (skipped),
// 2 for a frame that outgrew its buffer (dropped).
uint32_t FLV_UnpacketFlvData(FLV_PARSER* p, const uint8_t* data, uint32_t length, FLV_FRAME* frame);
