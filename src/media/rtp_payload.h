// RTP payload type to codec type: the port's custom table first, then the
// default table.
#pragma once

#include <cstdint>

struct RTP_PAYLOAD_ENTRY {
    uint8_t payloadType;
    uint32_t codecType;
    uint32_t inUse; // 0 = empty entry
};

// The port's custom table, set with Korvalen_SetPayloadType.
struct RTP_PAYLOAD_TABLE {
    RTP_PAYLOAD_ENTRY entries[2];
};

// Codec type of a payload type, KORVALEN_CODEC_NONE when it is rejected
// (an unlisted type below 19). Writes no log: safe on hot paths.
uint32_t RTP_LookupCodec(uint8_t payloadType, const RTP_PAYLOAD_TABLE* custom);

// As RTP_LookupCodec, but a rejected type logs "Unknown Stream type(%d)" and
// answers 524. 0 on success with *codecType set.
uint32_t RTP_PayloadToCodec(uint8_t payloadType, const RTP_PAYLOAD_TABLE* custom, uint32_t* codecType);
