// RTP header parsing, the per-codec sequence check and the packet tests used
// before reordering.
#include "log/log.h"
#include "media/codec_facts.h"
#include "net/rtp.h"
#include "net/rtp_bytes.h"

namespace {

bool H264Accepted(uint8_t nalType)
{
    switch (nalType) {
    case 1:
    case 5:
    case 6:
    case 7:
    case 8:
    case 9:
    case 24:
    case 28:
        return true;
    default:
        return false;
    }
}

// Gaps discard the frame being built; a switch between two video codecs that
// carries on the previous packet's numbering is not a gap.
uint32_t CheckSequence(uint16_t seq, uint32_t codec, RTP_STREAM_INFO* s)
{
    const uint16_t bit = static_cast<uint16_t>(1u << codec);
    if ((s->seqSeen & bit) && seq != static_cast<uint16_t>(s->lastSeq[codec] + 1)) {
        bool codecSwitch = s->prevCodec != codec && Codec_IsVideo(s->prevCodec) && Codec_IsVideo(codec) &&
                           seq == static_cast<uint16_t>(s->prevSeq + 1);
        if (!codecSwitch && codec != KORVALEN_CODEC_IVA) {
            KORVALEN_LOG(KORVALEN_LOG_INFO, "Cur Num:%d, Pro Num:%d", seq, s->lastSeq[codec]);
            s->lastSeq[codec] = seq;
            s->frameLen = 0;
            s->complete = 0;
            s->prevCodec = codec;
            s->prevSeq = seq;
            return KORVALEN_ERR_PACKET_LOST;
        }
    }
    s->lastSeq[codec] = seq;
    s->seqSeen |= bit;
    s->prevCodec = codec;
    s->prevSeq = seq;
    return KORVALEN_OK;
}

void ParseH264(const uint8_t* pkt, uint32_t len, RTP_PACKET_INFO* info)
{
    const uint32_t po = info->payloadOffset;
    const uint8_t indicator = pkt[po];
    const uint8_t type = indicator & 0x1F;
    if (type < 24) {
        info->nalKind = RTP_NAL_SINGLE;
        info->nalType = type;
        info->dataOffset = po + 1;
    } else if (type == RTP_NAL_FU_A) {
        const uint8_t fu = po + 1 < len ? pkt[po + 1] : 0;
        info->nalKind = RTP_NAL_FU_A;
        info->fuStart = fu >> 7;
        info->fuEnd = (fu >> 6) & 1;
        info->nalType = fu & 0x1F;
        info->h264Header = static_cast<uint8_t>((indicator & 0xE0) | info->nalType);
        info->dataOffset = po + 2;
    } else if (type == RTP_NAL_STAP_A) {
        info->nalKind = RTP_NAL_STAP_A;
        info->nalType = 5; // an aggregate counts as a key frame
        info->dataOffset = po + 1;
    } else {
        KORVALEN_LOG(KORVALEN_LOG_WARN, "Nal type unknow ,type = %d", type);
        info->nalKind = type;
        info->nalType = type;
        info->dataOffset = po + 1;
    }
}

void ParseH265(const uint8_t* pkt, uint32_t len, RTP_PACKET_INFO* info)
{
    const uint32_t po = info->payloadOffset;
    const uint8_t type = (pkt[po] & 0x7E) >> 1;
    if (type == RTP_NAL_H265_FU) {
        const uint8_t fu = po + 2 < len ? pkt[po + 2] : 0;
        const uint8_t second = po + 1 < len ? pkt[po + 1] : 0;
        info->nalKind = RTP_NAL_H265_FU;
        info->fuStart = fu >> 7;
        info->fuEnd = (fu >> 6) & 1;
        info->nalType = fu & 0x3F;
        info->h265Header = static_cast<uint16_t>(((pkt[po] & 0x81) | (info->nalType << 1)) << 8 | second);
        info->dataOffset = po + 3;
    } else if (type == RTP_NAL_H265_AP) {
        info->nalKind = RTP_NAL_H265_AP;
        // The first aggregated unit names the packet.
        info->nalType = po + 4 < len ? (pkt[po + 4] & 0x7E) >> 1 : type;
        info->dataOffset = po + 2;
    } else {
        info->nalKind = RTP_NAL_SINGLE;
        info->nalType = type;
        info->dataOffset = po + 2;
    }
}

uint32_t ParseJpeg(const uint8_t* pkt, uint32_t len, RTP_PACKET_INFO* info)
{
    uint32_t off = info->payloadOffset;
    if (off + 8 > len) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "RTP_ParseHeader fail, JPEG header len(%d)", len - off);
        return RTP_ERR_MALFORMED;
    }
    const uint8_t* h = pkt + off;
    info->jpegOffset = RTP_Be24(h + 1);
    info->jpegType = h[4];
    info->jpegQ = h[5];
    info->jpegWidth = static_cast<uint16_t>(h[6] * 8);
    info->jpegHeight = static_cast<uint16_t>(h[7] * 8);
    off += 8;
    if (info->jpegType >= 64 && info->jpegType <= 127) {
        if (off + 4 > len) {
            KORVALEN_LOG(KORVALEN_LOG_ERROR, "RTP_ParseHeader fail, JPEG restart header len(%d)", len - off);
            return RTP_ERR_MALFORMED;
        }
        info->jpegRestart = RTP_Be16(pkt + off);
        off += 4;
    }
    // Q 128 and up carries the tables in the frame's first packet. 255 is
    // included: the usual senders use it for tables sent with every frame.
    if (info->jpegOffset == 0 && info->jpegQ >= 128) {
        if (off + 4 > len) {
            KORVALEN_LOG(KORVALEN_LOG_ERROR, "RTP_ParseHeader fail, JPEG table header len(%d)", len - off);
            return RTP_ERR_MALFORMED;
        }
        info->jpegQPrecision = pkt[off + 1];
        info->jpegQTableLen = RTP_Be16(pkt + off + 2);
        off += 4;
        if (info->jpegQTableLen > len - off) {
            KORVALEN_LOG(KORVALEN_LOG_ERROR, "RTP_ParseHeader fail, JPEG table len(%d) > left(%d)", info->jpegQTableLen,
                         len - off);
            return RTP_ERR_MALFORMED;
        }
        off += info->jpegQTableLen;
    }
    info->dataOffset = off;
    return KORVALEN_OK;
}

} // namespace

void RTP_InitStream(RTP_STREAM_INFO* s, uint8_t* frame, uint32_t frameCap)
{
    *s = RTP_STREAM_INFO{};
    s->frame = frame;
    s->frameCap = frameCap;
}

uint32_t RTP_PayloadOffset(const uint8_t* pkt, uint32_t len)
{
    if (!pkt || len < kRtpHeaderLen) {
        return 0;
    }
    uint32_t off = kRtpHeaderLen + 4u * (pkt[0] & 0x0F);
    if (pkt[0] & 0x10) {
        if (off + 4 > len) {
            return 0;
        }
        off += 4u * RTP_Be16(pkt + off + 2) + 4;
    }
    return off < len ? off : 0;
}

uint32_t RTP_ParseHeader(const uint8_t* pkt, uint32_t len, const RTP_PAYLOAD_TABLE* custom, RTP_PACKET_INFO* info,
                         RTP_STREAM_INFO* stream)
{
    if (!pkt || !info || !stream) {
        return KORVALEN_ERR_INVALID_PARAM;
    }
    *info = RTP_PACKET_INFO{};
    if (len < kRtpHeaderLen) {
        return KORVALEN_ERR_NEED_MORE_DATA;
    }
    uint32_t off = kRtpHeaderLen + 4u * (pkt[0] & 0x0F);
    if (pkt[0] & 0x10) {
        const uint32_t ext = off;
        if (ext + 4 > len) {
            return KORVALEN_ERR_NEED_MORE_DATA;
        }
        if (ext + 8 <= len) {
            stream->extWord = RTP_Be32(pkt + ext + 4);
        }
        stream->extFlag = (ext + 12 < len && (pkt[ext + 12] & 0x10)) ? 1 : 0;
        off = ext + 4u * RTP_Be16(pkt + ext + 2) + 4;
    }
    if (off >= len) {
        return KORVALEN_ERR_NEED_MORE_DATA;
    }
    info->payloadOffset = off;
    info->payloadType = pkt[1] & 0x7F;
    uint32_t ret = RTP_PayloadToCodec(info->payloadType, custom, &info->codecType);
    if (ret != KORVALEN_OK) {
        return ret;
    }
    if (info->codecType >= kRtpCodecSlots) {
        KORVALEN_LOG(KORVALEN_LOG_WARN, "Unknown Stream type(%d)", info->payloadType);
        return KORVALEN_ERR_UNKNOWN_STREAM;
    }
    info->marker = pkt[1] >> 7;

    if (info->codecType == KORVALEN_CODEC_H264 && !H264Accepted(pkt[off] & 0x1F)) {
        KORVALEN_LOG(KORVALEN_LOG_DEBUG, "%02x %02x %02x %02x\t %02x %02x", pkt[0], pkt[1], pkt[2], pkt[3], pkt[4],
                     pkt[5]);
        return KORVALEN_ERR_NEED_MORE_DATA;
    }

    info->seq = RTP_Be16(pkt + 2);
    ret = CheckSequence(info->seq, info->codecType, stream);
    if (ret != KORVALEN_OK) {
        return ret;
    }
    info->timestamp = RTP_Be32(pkt + 4);

    switch (info->codecType) {
    case KORVALEN_CODEC_H264:
        ParseH264(pkt, len, info);
        // Parameter sets and SEI never end a frame.
        if (info->nalType == 6 || info->nalType == 7 || info->nalType == 8) {
            info->marker = 0;
        }
        break;
    case KORVALEN_CODEC_H265:
        ParseH265(pkt, len, info);
        break;
    case KORVALEN_CODEC_MJPEG:
        ret = ParseJpeg(pkt, len, info);
        break;
    default:
        info->dataOffset = off;
        break;
    }
    return ret;
}

uint32_t RTP_IsReorderPacket(const uint8_t* pkt, uint32_t len, const RTP_PAYLOAD_TABLE* custom)
{
    const uint32_t off = RTP_PayloadOffset(pkt, len);
    if (off == 0 || (pkt[0] >> 6) != 2) {
        return 0;
    }
    switch (RTP_LookupCodec(pkt[1] & 0x7F, custom)) {
    case KORVALEN_CODEC_H265:
    case KORVALEN_CODEC_MJPEG:
        return 1;
    case KORVALEN_CODEC_H264: {
        const uint8_t type = pkt[off] & 0x1F;
        return (type == 1 || type == 5 || type == 6 || type == 7 || type == 8 || type == 9 || type == 28) ? 1 : 0;
    }
    default:
        return 0;
    }
}

uint32_t RTP_IsVideoMarkerPacket(const uint8_t* pkt, uint32_t len, const RTP_PAYLOAD_TABLE* custom)
{
    if (!pkt || len < kRtpHeaderLen || (pkt[0] >> 6) != 2 || !(pkt[1] & 0x80)) {
        return 0;
    }
    return Codec_IsVideo(RTP_LookupCodec(pkt[1] & 0x7F, custom)) ? 1 : 0;
}

uint32_t RTP_TypeToRtpPayload(uint32_t codecType, uint8_t* payloadType)
{
    static const int16_t kTable[] = {0, -1, 120, 105, 26, 8, 50, 121, 108};
    if (codecType >= sizeof kTable / sizeof kTable[0] || kTable[codecType] < 0) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "RTP_TypeToRtpPayload fail, unknown type(%d)", codecType);
        return KORVALEN_ERR_UNKNOWN_STREAM;
    }
    if (payloadType) {
        *payloadType = static_cast<uint8_t>(kTable[codecType]);
    }
    return KORVALEN_OK;
}

bool RTP_IsVideoPayload(uint8_t payloadType)
{
    return payloadType == 105 || payloadType == 108 || payloadType == 26;
}
