// RTP packetizer for voice talk: cuts one encoded audio frame into packets
// of at most 1400 payload bytes.
#pragma once

#include <cstdint>

constexpr uint32_t kRtpSendPayloadMax = 1400;

struct RTP_SENDER {
    const uint8_t* data; // frame being sent, set by the caller with dataLen
    uint32_t dataLen;
    uint32_t sent;      // bytes of data already packetized
    uint32_t codecType; // KORVALEN_CODEC_*, NONE until set
    uint16_t seq;
    uint32_t timestamp; // advanced by the caller per frame
    uint32_t ssrc;
};

void RTP_InitSender(RTP_SENDER* s);
void RTP_ClearSender(RTP_SENDER* s);

// Writes the next packet of the frame into out; *len is the buffer size on
// entry and the packet length on return. 539 while more packets follow, 0
// for the last one; 7 for video payloads, 524 for unknown codecs.
uint32_t RTP_MakeRtpData(RTP_SENDER* s, uint8_t* out, uint32_t* len);
