#include "media/rtp_payload.h"

#include "korvalen_types.h"
#include "log/log.h"
#include "media/codec_facts.h"

uint32_t RTP_LookupCodec(uint8_t payloadType, const RTP_PAYLOAD_TABLE* custom)
{
    if (custom) {
        for (const RTP_PAYLOAD_ENTRY& e : custom->entries) {
            if (e.inUse && e.payloadType == payloadType) {
                return e.codecType;
            }
        }
    }
    return Codec_FromPayloadType(payloadType);
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
