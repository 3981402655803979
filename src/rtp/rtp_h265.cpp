// H.265 payloads: single NAL units, aggregation packets and fragmentation
// units.
#include "media/codec_facts.h"
#include "rtp/rtp_handler.h"

namespace {

const RTP_NAL_FORMAT kFormat = {"RTP_SpellFrameH265", "AP", 2, RTP_NAL_H265_FU, RTP_NAL_H265_AP, true};

uint32_t Parse(const uint8_t* pkt, uint32_t len, RTP_PACKET_INFO* info)
{
    const uint32_t po = info->payloadOffset;
    const uint8_t type = Nal_H265Type(pkt[po]);
    if (type == NAL_H265_FU) {
        const uint8_t fu = po + 2 < len ? pkt[po + 2] : 0;
        const uint8_t second = po + 1 < len ? pkt[po + 1] : 0;
        info->nalKind = RTP_NAL_H265_FU;
        info->fuStart = fu >> 7;
        info->fuEnd = (fu >> 6) & 1;
        info->nalType = fu & 0x3F;
        info->h265Header = static_cast<uint16_t>(((pkt[po] & 0x81) | (info->nalType << 1)) << 8 | second);
        info->dataOffset = po + 3;
    } else if (type == NAL_H265_AP) {
        info->nalKind = RTP_NAL_H265_AP;
        // The first aggregated unit names the packet.
        info->nalType = po + 4 < len ? Nal_H265Type(pkt[po + 4]) : type;
        info->dataOffset = po + 2;
    } else {
        info->nalKind = RTP_NAL_SINGLE;
        info->nalType = type;
        info->dataOffset = po + 2;
    }
    return KORVALEN_OK;
}

uint32_t Assemble(const uint8_t* pkt, uint32_t len, RTP_PACKET_INFO* info, const RTP_AAC_CONFIG*, RTP_STREAM_INFO* s)
{
    return RTP_AssembleNal(kFormat, pkt, len, info, s);
}

uint32_t FrameType(const RTP_PACKET_INFO* info, const RTP_STREAM_INFO*)
{
    // IDR_W_RADL and 38 are the key frames of this stream family.
    return (info->nalType == NAL_H265_IDR_W_RADL || info->nalType == 38) ? RTP_FRAME_KEY : RTP_FRAME_OTHER;
}

} // namespace

const RTP_PAYLOAD_HANDLER kRtpH265 = {KORVALEN_CODEC_H265, "H.265", nullptr, Parse, Assemble, RTP_NalEnds, FrameType};
