// What H.264 and H.265 share: single units, aggregation packets and
// fragmentation units assembled into Annex B, and start-code scans over
// assembled frames.
#include "log/log.h"
#include "media/codec_facts.h"
#include "media/rtp_bytes.h"
#include "rtp/rtp_handler.h"

namespace {

uint32_t NalBeyondPacket(const RTP_PACKET_INFO* info, uint32_t len, RTP_STREAM_INFO* s)
{
    if (++s->singleLossCount % 2000 == 1) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "NALOffset(%d) > RTP PacketLen(%d)", info->dataOffset, len);
    }
    return KORVALEN_ERR_PACKET_LOST;
}

// Aggregation packets: 16-bit size, then the unit, while a size fits.
// Returns false when a size runs past the packet.
bool AppendUnits(const uint8_t* pkt, uint32_t len, uint32_t pos, RTP_STREAM_INFO* s, bool* overflow)
{
    *overflow = false;
    while (len - pos >= 3) {
        const uint32_t size = RTP_Be16(pkt + pos);
        pos += 2;
        if (size > len - pos) {
            return false;
        }
        if (size && !RTP_AppendNal(s, nullptr, 0, pkt + pos, size)) {
            *overflow = true;
            return true;
        }
        pos += size;
    }
    return true;
}

} // namespace

uint32_t RTP_AssembleNal(const RTP_NAL_FORMAT& fmt, const uint8_t* pkt, uint32_t len, const RTP_PACKET_INFO* info,
                         RTP_STREAM_INFO* s)
{
    if (info->dataOffset > len) {
        return NalBeyondPacket(info, len, s);
    }
    const uint32_t po = info->payloadOffset;
    const uint32_t data = len - info->dataOffset;
    uint32_t need = 0;
    if (info->nalKind == RTP_NAL_SINGLE) {
        if (RTP_AppendNal(s, nullptr, 0, pkt + po, len - po)) {
            return KORVALEN_OK;
        }
        need = len - po + 4;
    } else if (info->nalKind == fmt.apKind) {
        bool overflow = false;
        if (!AppendUnits(pkt, len, info->dataOffset, s, &overflow)) {
            KORVALEN_LOG(KORVALEN_LOG_ERROR, "%s fail, %s Packet len no enough", fmt.who, fmt.aggregate);
            return RTP_ERR_MALFORMED;
        }
        if (!overflow) {
            return KORVALEN_OK;
        }
        need = len - po;
    } else if (info->nalKind == fmt.fuKind && info->fuStart) {
        // The unit header is rebuilt from the fragment's indicator and type.
        const uint8_t head[2] = {fmt.headLen == 1 ? info->h264Header : static_cast<uint8_t>(info->h265Header >> 8),
                                 static_cast<uint8_t>(info->h265Header)};
        if (RTP_AppendNal(s, head, fmt.headLen, pkt + info->dataOffset, data)) {
            return KORVALEN_OK;
        }
        need = data + 4 + fmt.headLen;
    } else if (info->nalKind == fmt.fuKind) {
        if (s->frameLen == 0) {
            if (!fmt.loudLoss) {
                return RTP_Lost(s);
            }
            ++s->lostCount;
            KORVALEN_LOG(KORVALEN_LOG_ERROR, "%s fail, FrameLen is 0", fmt.who);
            return KORVALEN_ERR_PACKET_LOST;
        }
        if (RTP_Append(s, pkt + info->dataOffset, data)) {
            return KORVALEN_OK;
        }
        need = data;
    } else {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "unknown nal type");
        return KORVALEN_ERR_UNKNOWN_STREAM;
    }
    KORVALEN_LOG(KORVALEN_LOG_ERROR, "%s fail, frame len overflow(%d)", fmt.who, s->frameLen + need);
    return RTP_ERR_OVERFLOW;
}

bool RTP_NalEnds(const RTP_PACKET_INFO* info)
{
    const bool fuEnd = (info->nalKind == RTP_NAL_FU_A || info->nalKind == RTP_NAL_H265_FU) && info->fuEnd;
    return info->marker || fuEnd;
}

uint32_t RTP_FindIFrame(const uint8_t* data, uint32_t len)
{
    if (!data) {
        return RTP_FRAME_OTHER;
    }
    for (uint32_t i = 0; i + 4 < len; ++i) {
        if (data[i] == 0 && data[i + 1] == 0 && data[i + 2] == 0 && data[i + 3] == 1) {
            const uint8_t type = Nal_H264Type(data[i + 4]);
            if (type == NAL_H264_SPS || type == NAL_H264_IDR) {
                return RTP_FRAME_KEY;
            }
            if (type == NAL_H264_SLICE) {
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
    if (!Codec_IsNal(codecType)) {
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
        const uint32_t type = h264 ? Nal_H264Type(data[start]) : Nal_H265Type(data[start]);
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
        if (h264 ? type == NAL_H264_IDR : (type >= 1 && type <= 21)) {
            break;
        }
        i = start - 1;
    }
    return RTP_ERR_MALFORMED;
}
