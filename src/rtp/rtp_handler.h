// RTP payload handlers: one row per codec, each in its own file, found by the
// codec type the payload type maps to. The generic layer (rtp_header.cpp,
// rtp_spell.cpp) owns the RTP header, sequence numbers and loss, and hands
// the payload to the row; the NAL fragmentation and aggregation steps that
// H.264 and H.265 share are written once (rtp_nal.cpp).
#pragma once

#include <cstdint>
#include <cstring>

#include "rtp/rtp.h"

struct RTP_PAYLOAD_HANDLER {
    uint32_t codec; // KORVALEN_CODEC_*
    const char* name;
    // Whether the stream takes a packet whose payload begins with this byte;
    // a refused packet is passed over before its sequence number counts.
    // Null: every packet.
    bool (*accepts)(uint8_t firstByte);
    // The payload's own header, after the RTP header: fills the NAL or JPEG
    // fields of info and dataOffset; may clear info->marker for units that
    // never end a frame. 0, 526 for a unit the stream does not take, 1
    // malformed. Null: the data start at the payload.
    uint32_t (*parse)(const uint8_t* pkt, uint32_t len, RTP_PACKET_INFO* info);
    // Adds the packet's data to the frame being built. 0, 525 loss, 524, 2
    // overflow, 1 malformed (the generic layer then drops the frame).
    uint32_t (*assemble)(const uint8_t* pkt, uint32_t len, RTP_PACKET_INFO* info, const RTP_AAC_CONFIG* aac,
                         RTP_STREAM_INFO* s);
    // Whether this packet ends its frame.
    bool (*ends)(const RTP_PACKET_INFO* info);
    // Frame type of the finished frame.
    uint32_t (*frameType)(const RTP_PACKET_INFO* info, const RTP_STREAM_INFO* s);
};

extern const RTP_PAYLOAD_HANDLER kRtpH264;
extern const RTP_PAYLOAD_HANDLER kRtpH265;
extern const RTP_PAYLOAD_HANDLER kRtpJpeg;
extern const RTP_PAYLOAD_HANDLER kRtpG711U;
extern const RTP_PAYLOAD_HANDLER kRtpG711A;
extern const RTP_PAYLOAD_HANDLER kRtpMp2;
extern const RTP_PAYLOAD_HANDLER kRtpAac;
extern const RTP_PAYLOAD_HANDLER kRtpPcm;
extern const RTP_PAYLOAD_HANDLER kRtpIva;

// The row of a codec, null for a codec no row takes.
const RTP_PAYLOAD_HANDLER* RTP_FindHandler(uint32_t codec);

// Shared steps of the rows.

// Appends unless the frame would reach the buffer's capacity. Inline: it
// runs for every packet.
inline bool RTP_Append(RTP_STREAM_INFO* s, const uint8_t* data, uint32_t n)
{
    if (n >= s->frameCap - s->frameLen) {
        return false;
    }
    if (n) {
        std::memcpy(s->frame + s->frameLen, data, n);
        s->frameLen += n;
    }
    return true;
}

// A start code, the unit header (headLen bytes) and the unit's data.
inline bool RTP_AppendNal(RTP_STREAM_INFO* s, const uint8_t* head, uint32_t headLen, const uint8_t* data, uint32_t n)
{
    static constexpr uint8_t kStartCode[4] = {0, 0, 0, 1};
    if (sizeof kStartCode + headLen + n >= s->frameCap - s->frameLen) {
        return false;
    }
    RTP_Append(s, kStartCode, sizeof kStartCode);
    RTP_Append(s, head, headLen);
    RTP_Append(s, data, n);
    return true;
}
// A fragment whose frame never began: counted (logged every 20th), 525.
uint32_t RTP_Lost(RTP_STREAM_INFO* s);

// How one NAL codec's rows differ: the function named in its log lines, the
// name of its aggregation packet, the size of its unit header.
struct RTP_NAL_FORMAT {
    const char* who;       // "RTP_SpellFrameH264"
    const char* aggregate; // "STAP_A"
    uint32_t headLen;      // 1 for H.264, 2 for H.265
    uint8_t fuKind;        // RTP_NAL_FU_A or RTP_NAL_H265_FU
    uint8_t apKind;        // RTP_NAL_STAP_A or RTP_NAL_H265_AP
    bool loudLoss;         // a lost FU start is logged every time, not every 20th
};

// Single units, aggregation packets and fragmentation units of H.264 and
// H.265, into Annex B.
uint32_t RTP_AssembleNal(const RTP_NAL_FORMAT& fmt, const uint8_t* pkt, uint32_t len, const RTP_PACKET_INFO* info,
                         RTP_STREAM_INFO* s);
// A video frame ends at the marker or at the last fragment of a unit.
bool RTP_NalEnds(const RTP_PACKET_INFO* info);
// Every payload other than analysis data is a frame of its own.
bool RTP_EndsAlways(const RTP_PACKET_INFO* info);
uint32_t RTP_FrameTypeAudio(const RTP_PACKET_INFO* info, const RTP_STREAM_INFO* s);
// Audio and analysis payloads: the data copied, AAC of payload 104 behind an
// ADTS header made from the caller's configuration.
uint32_t RTP_AssemblePlain(const uint8_t* pkt, uint32_t len, RTP_PACKET_INFO* info, const RTP_AAC_CONFIG* aac,
                           RTP_STREAM_INFO* s);
