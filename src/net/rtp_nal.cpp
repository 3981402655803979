// Start-code scans over assembled Annex-B data.
#include "log/log.h"
#include "net/rtp.h"

uint32_t RTP_FindIFrame(const uint8_t* data, uint32_t len)
{
    if (!data) {
        return RTP_FRAME_OTHER;
    }
    for (uint32_t i = 0; i + 4 < len; ++i) {
        if (data[i] == 0 && data[i + 1] == 0 && data[i + 2] == 0 && data[i + 3] == 1) {
            const uint8_t type = data[i + 4] & 0x1F;
            if (type == 7 || type == 5) {
                return RTP_FRAME_KEY;
            }
            if (type == 1) {
                return RTP_FRAME_OTHER;
            }
            i += 3;
        }
    }
    return RTP_FRAME_OTHER;
}

uint32_t RTP_FindDataByNAL(uint32_t codecType, uint32_t nalType, const uint8_t* data, uint32_t len, const uint8_t** out,
                           uint32_t* outLen)
{
    if (codecType != KORVALEN_CODEC_H264 && codecType != KORVALEN_CODEC_H265) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "RTP_FindDataByNAL fail, Unknown payload type(%d)", codecType);
        return KORVALEN_ERR_NOT_SUPPORTED;
    }
    if (!data || !out || !outLen) {
        return KORVALEN_ERR_INVALID_PARAM;
    }
    const bool h264 = codecType == KORVALEN_CODEC_H264;
    for (uint32_t i = 0; i + 3 < len; ++i) {
        if (data[i] != 0 || data[i + 1] != 0 || data[i + 2] != 1) {
            continue;
        }
        const uint32_t start = i + 3;
        const uint32_t type = h264 ? (data[start] & 31) : ((data[start] >> 1) & 63);
        if (type == nalType) {
            uint32_t end = len;
            for (uint32_t j = start; j + 2 < len; ++j) {
                if (data[j] == 0 && data[j + 1] == 0 && data[j + 2] == 1) {
                    end = j;
                    break;
                }
            }
            // Zeros before the next start code belong to it, not to this unit.
            while (end < len && end > start && data[end - 1] == 0) {
                --end;
            }
            *out = data + start;
            *outLen = end - start;
            return KORVALEN_OK;
        }
        // Parameter sets come before the first slice: stop there.
        if (h264 ? type == 5 : (type >= 1 && type <= 21)) {
            break;
        }
        i = start - 1;
    }
    return RTP_ERR_MALFORMED;
}
