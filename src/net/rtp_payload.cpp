#include "net/rtp_payload.h"

#include "korvalen_types.h"
#include "log/log.h"

uint32_t RTP_LookupCodec(uint8_t payloadType, const RTP_PAYLOAD_TABLE* custom)
{
    if (custom) {
        for (const RTP_PAYLOAD_ENTRY& e : custom->entries) {
            if (e.inUse && e.payloadType == payloadType) {
                return e.codecType;
            }
        }
    }
    switch (payloadType) {
    case 0:
        return KORVALEN_CODEC_G711U;
    case 8:
        return KORVALEN_CODEC_G711A;
    case 26:
        return KORVALEN_CODEC_MJPEG;
    case 50:
        return KORVALEN_CODEC_IVA;
    case 104:
    case 120:
        return KORVALEN_CODEC_AAC;
    case 108:
        return KORVALEN_CODEC_H265;
    case 121:
        return KORVALEN_CODEC_PCM;
    default:
        // Dynamic types default to H.264, the static ones below 19 that are
        // not listed are not ours.
        return payloadType < 19 ? KORVALEN_CODEC_NONE : KORVALEN_CODEC_H264;
    }
}

uint32_t RTP_PayloadToCodec(uint8_t payloadType, const RTP_PAYLOAD_TABLE* custom, uint32_t* codecType)
{
    uint32_t codec = RTP_LookupCodec(payloadType, custom);
    if (codec == KORVALEN_CODEC_NONE) {
        KORVALEN_LOG(KORVALEN_LOG_WARN, "Unknown Stream type(%d)", payloadType);
        return KORVALEN_ERR_UNKNOWN_STREAM;
    }
    if (codecType) {
        *codecType = codec;
    }
    return KORVALEN_OK;
}
