// H.264 payloads: single NAL units, STAP-A and FU-A.
#include "log/log.h"
#include "media/codec_facts.h"
#include "rtp/rtp_handler.h"

namespace {

const RTP_NAL_FORMAT kFormat = {"RTP_SpellFrameH264", "STAP_A", 1, RTP_NAL_FU_A, RTP_NAL_STAP_A, false};

bool Accepts(uint8_t first)
{
    switch (Nal_H264Type(first)) {
    case NAL_H264_SLICE:
    case NAL_H264_IDR:
    case NAL_H264_SEI:
    case NAL_H264_SPS:
    case NAL_H264_PPS:
    case NAL_H264_AUD:
    case NAL_H264_STAP_A:
    case NAL_H264_FU_A:
        return true;
    default:
        return false;
    }
}

uint32_t Parse(const uint8_t* pkt, uint32_t len, RTP_PACKET_INFO* info)
{
    const uint32_t po = info->payloadOffset;
    const uint8_t indicator = pkt[po];
    const uint8_t type = Nal_H264Type(indicator);
    if (type < NAL_H264_STAP_A) {
        info->nalKind = RTP_NAL_SINGLE;
        info->nalType = type;
        info->dataOffset = po + 1;
    } else if (type == NAL_H264_FU_A) {
        const uint8_t fu = po + 1 < len ? pkt[po + 1] : 0;
        info->nalKind = RTP_NAL_FU_A;
        info->fuStart = fu >> 7;
        info->fuEnd = (fu >> 6) & 1;
        info->nalType = Nal_H264Type(fu);
        info->h264Header = static_cast<uint8_t>((indicator & 0xE0) | info->nalType);
        info->dataOffset = po + 2;
    } else if (type == NAL_H264_STAP_A) {
        info->nalKind = RTP_NAL_STAP_A;
        info->nalType = NAL_H264_IDR; // an aggregate counts as a key frame
        info->dataOffset = po + 1;
        // Parameter sets sent ahead of a frame do not end it.
        if (len - info->dataOffset >= 3 && Nal_H264Type(pkt[info->dataOffset + 2]) == NAL_H264_SPS) {
            info->marker = 0;
        }
    } else {
        KORVALEN_LOG(KORVALEN_LOG_WARN, "Nal type unknow ,type = %d", type);
        info->nalKind = type;
        info->nalType = type;
        info->dataOffset = po + 1;
    }
    // Parameter sets and SEI never end a frame.
    if (info->nalType == NAL_H264_SEI || info->nalType == NAL_H264_SPS || info->nalType == NAL_H264_PPS) {
        info->marker = 0;
    }
    return KORVALEN_OK;
}

uint32_t Assemble(const uint8_t* pkt, uint32_t len, RTP_PACKET_INFO* info, const RTP_AAC_CONFIG*, RTP_STREAM_INFO* s)
{
    uint32_t ret = RTP_AssembleNal(kFormat, pkt, len, info, s);
    if (ret != KORVALEN_OK && ++s->spellFailCount % 2000 == 1) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "SpellFrame failed, count(%d)", s->spellFailCount);
    }
    return ret;
}

uint32_t FrameType(const RTP_PACKET_INFO* info, const RTP_STREAM_INFO* s)
{
    if (info->nalKind == RTP_NAL_STAP_A) {
        return RTP_FRAME_KEY;
    }
    switch (info->nalType) {
    case NAL_H264_IDR:
    case NAL_H264_SPS:
    case NAL_H264_PPS:
        return RTP_FRAME_KEY;
    case NAL_H264_SLICE:
    case NAL_H264_AUD:
        return RTP_FindIFrame(s->frame, s->frameLen);
    default:
        return RTP_FRAME_OTHER;
    }
}

} // namespace

const RTP_PAYLOAD_HANDLER kRtpH264 = {KORVALEN_CODEC_H264, "H.264", Accepts, Parse, Assemble, RTP_NalEnds, FrameType};
