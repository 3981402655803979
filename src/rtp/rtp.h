// RTP depacketizer: header parsing, per-codec sequence checks and frame
// assembly ("spelling") of H.264, H.265, JPEG, AAC, G.711, PCM and analytics
// payloads into caller-owned frame buffers.
#pragma once

#include <cstdint>

#include "korvalen_types.h"
#include "media/rtp_payload.h"

// Codes of this module beyond the public table.
constexpr uint32_t RTP_ERR_MALFORMED = 1;
constexpr uint32_t RTP_ERR_OVERFLOW = 2;
constexpr uint32_t RTP_MORE_TO_SEND = 539;

constexpr uint32_t kRtpHeaderLen = 12;
constexpr uint32_t kRtpVideoFrameMax = 0x200000; // 2 MiB
constexpr uint32_t kRtpAudioFrameMax = 10240;
constexpr uint32_t kRtpCodecSlots = 12;

// NAL fragment kinds.
constexpr uint8_t RTP_NAL_SINGLE = 0;
constexpr uint8_t RTP_NAL_STAP_A = 24;
constexpr uint8_t RTP_NAL_FU_A = 28;
constexpr uint8_t RTP_NAL_H265_AP = 48;
constexpr uint8_t RTP_NAL_H265_FU = 49;

// Frame types.
constexpr uint32_t RTP_FRAME_KEY = 0;
constexpr uint32_t RTP_FRAME_OTHER = 1;
constexpr uint32_t RTP_FRAME_AUDIO = 5;

struct RTP_PAYLOAD_HANDLER;

// What the header of one packet says.
struct RTP_PACKET_INFO {
    const RTP_PAYLOAD_HANDLER* handler; // the row of its codec
    uint16_t seq;
    uint8_t marker;
    uint8_t payloadType;
    uint32_t codecType;
    uint32_t timestamp;
    uint8_t nalKind;
    uint8_t nalType;
    uint8_t fuStart;
    uint8_t fuEnd;
    uint8_t h264Header;     // rebuilt from an FU-A
    uint32_t payloadOffset; // RTP header, CSRCs and extension
    uint32_t dataOffset;    // where the bytes to copy begin
    uint32_t jpegOffset;    // 24-bit fragment offset
    uint8_t jpegType;
    uint8_t jpegQ;
    uint16_t jpegWidth; // pixels
    uint16_t jpegHeight;
    uint16_t jpegRestart;   // restart interval, 0 = none
    uint32_t jpegQTableLen; // in-band table bytes, 0 = none
    uint8_t jpegQPrecision; // in-band table precision bits
    uint16_t h265Header;    // rebuilt from an FU
};

// Stream parameters of AAC payload 104, given by the caller.
struct RTP_AAC_CONFIG {
    uint8_t profile; // ADTS profile field: object type - 1
    uint8_t sampleRateIndex;
    uint8_t channels;
};

// The analytics block carried by payload 50.
constexpr uint32_t kRtpIvaRawLen = 396;
struct RTP_IVA_INFO {
    uint16_t values[4];
    uint8_t raw[kRtpIvaRawLen];
    uint32_t valid;
};

// One stream being assembled: the port keeps one for video (H.264, JPEG,
// H.265) and one for everything else. The frame buffer belongs to the port.
struct RTP_STREAM_INFO {
    uint16_t lastSeq[kRtpCodecSlots];
    uint16_t seqSeen; // bit per codec type: a number was stored
    uint32_t timestamp;
    uint32_t codecType = KORVALEN_CODEC_NONE;
    uint32_t frameType;
    uint8_t* frame;
    uint32_t frameCap;
    uint32_t frameLen;
    uint32_t complete; // frameLen holds a finished frame; the next packet starts over
    uint32_t extWord;
    uint32_t extFlag;
    uint32_t lostCount;       // fragments with no frame begun
    uint32_t singleLossCount; // single NALs beyond the packet
    uint32_t spellFailCount;  // failed H.264 packets
    uint32_t prevCodec = KORVALEN_CODEC_NONE;
    uint16_t prevSeq;
    RTP_IVA_INFO iva;
};

// Binds a caller buffer to a stream record and clears its state.
void RTP_InitStream(RTP_STREAM_INFO* s, uint8_t* frame, uint32_t frameCap);

// Fills info from one packet and runs the sequence check. 0, 524 unknown
// payload, 525 sequence gap, 526 nothing to copy or a NAL type not accepted,
// 1 malformed codec header.
uint32_t RTP_ParseHeader(const uint8_t* pkt, uint32_t len, const RTP_PAYLOAD_TABLE* custom, RTP_PACKET_INFO* info,
                         RTP_STREAM_INFO* stream);

// Adds one packet to the right record. 0 when a frame is complete (*done, if
// given, points to its record), 526 more packets needed, 525 loss, 524
// unknown payload or NAL type, 2 overflow, 1 malformed.
uint32_t RTP_SpellFrame(const uint8_t* pkt, uint32_t len, const RTP_PAYLOAD_TABLE* custom, const RTP_AAC_CONFIG* aac,
                        RTP_STREAM_INFO* video, RTP_STREAM_INFO* audio, RTP_STREAM_INFO** done = nullptr);

// Offset of the payload (after CSRCs and extension), 0 when the packet is
// too short to hold it.
uint32_t RTP_PayloadOffset(const uint8_t* pkt, uint32_t len);

// Packets that go through the reordering queue.
uint32_t RTP_IsReorderPacket(const uint8_t* pkt, uint32_t len, const RTP_PAYLOAD_TABLE* custom);
// Video packets with the marker bit: the last of a frame.
uint32_t RTP_IsVideoMarkerPacket(const uint8_t* pkt, uint32_t len, const RTP_PAYLOAD_TABLE* custom);

// Send side: codec type to payload type; 524 for codecs we never send.
uint32_t RTP_TypeToRtpPayload(uint32_t codecType, uint8_t* payloadType);
bool RTP_IsVideoPayload(uint8_t payloadType);

// 0 when the first NAL of type 7 or 5 comes before one of type 1, else 1.
uint32_t RTP_FindIFrame(const uint8_t* data, uint32_t len);

// Finds the NAL unit of nalType behind a start code; *out points at its
// header byte. 0, 1 not found, 7 unknown codec.
uint32_t RTP_FindDataByNAL(uint32_t codecType, uint32_t nalType, const uint8_t* data, uint32_t len, const uint8_t** out,
                           uint32_t* outLen);
