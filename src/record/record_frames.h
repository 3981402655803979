// The recorder's own frame assembly: received packets and pushed chunks are
// turned into whole frames (RTP, MPEG-TS, FLV, raw Annex B, "RdHd"-headed
// and JPEG chunks), with buffers apart from the decode side's.
#pragma once

#include <cstdint>

#include "demux/flv_parser.h"
#include "demux/ts_parser.h"
#include "rtp/rtp.h"

struct REC_FRAME {
    const uint8_t* data;
    uint32_t length;
    uint64_t timestamp; // 90 kHz for video; 0 when the source has none
    uint32_t codecType;
    uint32_t frameType; // video: 0 key, 1 other
};

struct REC_ASSEMBLY {
    uint8_t* video = nullptr;  // 2 MiB
    uint8_t* audio = nullptr;  // 10240 bytes
    uint32_t mode = 0;         // 1 TS, 2 RTP, 4 FLV
    uint8_t* flvTag = nullptr; // made on the first FLV chunk
    RTP_STREAM_INFO rtpVideo;
    RTP_STREAM_INFO rtpAudio;
    TS_PARSER ts;
    FLV_PARSER flv;
    uint32_t flvAudio = 0;      // the FLV header announces sound
    uint32_t headerPending = 0; // the next chunk is the frame an "RdHd" header announced
    REC_FRAME header{};
};

// 0, or 3 when the buffers cannot be had.
uint32_t REC_InitAssembly(REC_ASSEMBLY* a);
void REC_FreeAssembly(REC_ASSEMBLY* a);

// One packet or chunk: 0 with *frame set (call again with the same chunk
// while *more is set), 526 more data needed, 524 unknown data, or the
// depacketizer's error.
uint32_t REC_AssembleFrame(REC_ASSEMBLY* a, const uint8_t* data, uint32_t len, const RTP_PAYLOAD_TABLE* payloads,
                           const uint8_t aacConfig[3], REC_FRAME* frame, bool* more);
