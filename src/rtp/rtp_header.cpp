// RTP header parsing, the per-codec sequence check and the packet tests used
// before reordering; the payload's own header is its row's to parse.
#include "log/log.h"
#include "media/codec_facts.h"
#include "media/rtp_bytes.h"
#include "rtp/rtp_handler.h"

namespace {

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
    const RTP_PAYLOAD_HANDLER* h = RTP_FindHandler(info->codecType);
    if (!h || info->codecType >= kRtpCodecSlots) {
        KORVALEN_LOG(KORVALEN_LOG_WARN, "Unknown Stream type(%d)", info->payloadType);
        return KORVALEN_ERR_UNKNOWN_STREAM;
    }
    info->handler = h;
    info->marker = pkt[1] >> 7;

    if (h->accepts && !h->accepts(pkt[off])) {
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

    info->dataOffset = off;
    return h->parse ? h->parse(pkt, len, info) : KORVALEN_OK;
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
    return Codec_IsVideo(Codec_FromPayloadType(payloadType));
}
