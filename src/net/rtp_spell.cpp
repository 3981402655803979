// Frame assembly: packets of one frame are appended to the record's frame
// buffer until the marker (or an FU end) completes it.
#include <cstring>

#include "log/log.h"
#include "media/codec_facts.h"
#include "net/rtp.h"
#include "net/rtp_bytes.h"

namespace {

const uint8_t kStartCode[4] = {0, 0, 0, 1};

// Appends unless the frame would reach the buffer's capacity.
bool Append(RTP_STREAM_INFO* s, const uint8_t* data, uint32_t n)
{
    if (n >= s->frameCap - s->frameLen) {
        return false;
    }
    if (n) {
        std::memcpy(s->frame + s->frameLen, data, n);
        s->frameLen += n;
    }
    return true;
}

bool AppendNal(RTP_STREAM_INFO* s, const uint8_t* head, uint32_t headLen, const uint8_t* data, uint32_t n)
{
    if (sizeof kStartCode + headLen + n >= s->frameCap - s->frameLen) {
        return false;
    }
    Append(s, kStartCode, sizeof kStartCode);
    Append(s, head, headLen);
    Append(s, data, n);
    return true;
}

uint32_t Lost(RTP_STREAM_INFO* s)
{
    if (++s->lostCount % 20 == 1) {
        KORVALEN_LOG(KORVALEN_LOG_INFO, "PACKET LOSE data, count(%d)", s->lostCount);
    }
    return KORVALEN_ERR_PACKET_LOST;
}

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
        if (size && !AppendNal(s, nullptr, 0, pkt + pos, size)) {
            *overflow = true;
            return true;
        }
        pos += size;
    }
    return true;
}

uint32_t FrameTypeH264(const RTP_PACKET_INFO* info, const RTP_STREAM_INFO* s)
{
    if (info->nalKind == RTP_NAL_STAP_A) {
        return RTP_FRAME_KEY;
    }
    switch (info->nalType) {
    case 5:
    case 7:
    case 8:
        return RTP_FRAME_KEY;
    case 1:
    case 9:
        return RTP_FindIFrame(s->frame, s->frameLen);
    default:
        return RTP_FRAME_OTHER;
    }
}

uint32_t Complete(const RTP_PACKET_INFO* info, RTP_STREAM_INFO* s)
{
    s->timestamp = info->timestamp;
    s->codecType = info->codecType;
    switch (info->codecType) {
    case KORVALEN_CODEC_H264:
        s->frameType = FrameTypeH264(info, s);
        break;
    case KORVALEN_CODEC_H265:
        // IDR_W_RADL and 38 are the key frames of this stream family.
        s->frameType = (info->nalType == 19 || info->nalType == 38) ? RTP_FRAME_KEY : RTP_FRAME_OTHER;
        break;
    case KORVALEN_CODEC_MJPEG:
        s->frameType = RTP_FRAME_KEY;
        break;
    default:
        s->frameType = RTP_FRAME_AUDIO;
        break;
    }
    s->complete = 1;
    return KORVALEN_OK;
}

void KeepIvaInfo(const uint8_t* pkt, uint32_t len, const RTP_PACKET_INFO* info, RTP_STREAM_INFO* audio)
{
    const uint8_t* p = pkt + info->payloadOffset;
    const uint32_t avail = len - info->payloadOffset;
    if (avail < 3 || p[0] != 21 || RTP_Be16(p + 1) < 399 || avail < 3 + 8 + kRtpIvaRawLen) {
        return;
    }
    for (int i = 0; i < 4; ++i) {
        audio->iva.values[i] = RTP_Be16(p + 3 + 2 * i);
    }
    std::memcpy(audio->iva.raw, p + 11, kRtpIvaRawLen);
    audio->iva.valid = 1;
}

} // namespace

uint32_t RTP_SpellFrameH264(const uint8_t* pkt, uint32_t len, RTP_PACKET_INFO* info, RTP_STREAM_INFO* s)
{
    if (info->dataOffset > len) {
        return NalBeyondPacket(info, len, s);
    }
    const uint32_t po = info->payloadOffset;
    uint32_t need = 0;
    switch (info->nalKind) {
    case RTP_NAL_SINGLE:
        if (AppendNal(s, nullptr, 0, pkt + po, len - po)) {
            return KORVALEN_OK;
        }
        need = len - po + 4;
        break;
    case RTP_NAL_STAP_A: {
        // Parameter sets sent ahead of a frame do not end it.
        if (len - info->dataOffset >= 3 && (pkt[info->dataOffset + 2] & 0x1F) == 7) {
            info->marker = 0;
        }
        bool overflow = false;
        if (!AppendUnits(pkt, len, info->dataOffset, s, &overflow)) {
            KORVALEN_LOG(KORVALEN_LOG_ERROR, "RTP_SpellFrameH264 fail, STAP_A Packet len no enough");
            return RTP_ERR_MALFORMED;
        }
        if (!overflow) {
            return KORVALEN_OK;
        }
        need = len - po;
        break;
    }
    case RTP_NAL_FU_A:
        if (info->fuStart) {
            if (!AppendNal(s, &info->h264Header, 1, pkt + info->dataOffset, len - info->dataOffset)) {
                need = len - info->dataOffset + 5;
                break;
            }
            return KORVALEN_OK;
        }
        if (s->frameLen == 0) {
            return Lost(s);
        }
        if (Append(s, pkt + info->dataOffset, len - info->dataOffset)) {
            return KORVALEN_OK;
        }
        need = len - info->dataOffset;
        break;
    default:
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "unknown nal type");
        return KORVALEN_ERR_UNKNOWN_STREAM;
    }
    KORVALEN_LOG(KORVALEN_LOG_ERROR, "RTP_SpellFrameH264 fail, frame len overflow(%d)", s->frameLen + need);
    return RTP_ERR_OVERFLOW;
}

uint32_t RTP_SpellFrameH265(const uint8_t* pkt, uint32_t len, const RTP_PACKET_INFO* info, RTP_STREAM_INFO* s)
{
    if (info->dataOffset > len) {
        return NalBeyondPacket(info, len, s);
    }
    const uint32_t po = info->payloadOffset;
    uint32_t need = 0;
    switch (info->nalKind) {
    case RTP_NAL_SINGLE:
        if (AppendNal(s, nullptr, 0, pkt + po, len - po)) {
            return KORVALEN_OK;
        }
        need = len - po + 4;
        break;
    case RTP_NAL_H265_AP: {
        bool overflow = false;
        if (!AppendUnits(pkt, len, info->dataOffset, s, &overflow)) {
            KORVALEN_LOG(KORVALEN_LOG_ERROR, "RTP_SpellFrameH265 fail, AP Packet len no enough");
            return RTP_ERR_MALFORMED;
        }
        if (!overflow) {
            return KORVALEN_OK;
        }
        need = len - po;
        break;
    }
    case RTP_NAL_H265_FU:
        if (info->fuStart) {
            const uint8_t head[2] = {static_cast<uint8_t>(info->h265Header >> 8),
                                     static_cast<uint8_t>(info->h265Header)};
            if (AppendNal(s, head, 2, pkt + info->dataOffset, len - info->dataOffset)) {
                return KORVALEN_OK;
            }
            need = len - info->dataOffset + 6;
            break;
        }
        if (s->frameLen == 0) {
            ++s->lostCount;
            KORVALEN_LOG(KORVALEN_LOG_ERROR, "RTP_SpellFrameH265 fail, FrameLen is 0");
            return KORVALEN_ERR_PACKET_LOST;
        }
        if (Append(s, pkt + info->dataOffset, len - info->dataOffset)) {
            return KORVALEN_OK;
        }
        need = len - info->dataOffset;
        break;
    default:
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "unknown nal type");
        return KORVALEN_ERR_UNKNOWN_STREAM;
    }
    KORVALEN_LOG(KORVALEN_LOG_ERROR, "RTP_SpellFrameH265 fail, frame len overflow(%d)", s->frameLen + need);
    return RTP_ERR_OVERFLOW;
}

uint32_t RTP_SpellFrameNotH264(const uint8_t* pkt, uint32_t len, const RTP_PACKET_INFO* info, const RTP_AAC_CONFIG* aac,
                               RTP_STREAM_INFO* s)
{
    // Analytics data may span packets up to the marker; every other payload
    // is a frame of its own.
    if (info->codecType != KORVALEN_CODEC_IVA) {
        s->frameLen = 0;
    }
    const bool adts = info->payloadType == 104;
    const uint32_t skip = adts ? 4 : 0; // AU header section
    if (info->dataOffset + skip > len) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR,
                     "RTP_SpellFrameNotH264 fail, ulLen(%d), pstRTPPacketInfo->ucESOffset(%d), "
                     "pstRTPStreamInfo->ulFrameLen(%d)",
                     len, info->dataOffset, s->frameLen);
        s->frameLen = 0;
        return RTP_ERR_OVERFLOW;
    }
    const uint32_t n = len - info->dataOffset - skip;
    const uint32_t total = s->frameLen + n + (adts ? 7 : 0);
    if (total >= s->frameCap) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "RTP_SpellFrameNotH264 fail, frame len overflow(%d)", total);
        return RTP_ERR_OVERFLOW;
    }
    if (adts) {
        const RTP_AAC_CONFIG cfg = aac ? *aac : RTP_AAC_CONFIG{};
        const uint32_t frameLen = n + 7;
        const uint32_t fullness = 175;
        uint8_t* h = s->frame;
        h[0] = 0xFF;
        h[1] = 0xF9;
        h[2] = static_cast<uint8_t>(((cfg.profile & 3) << 6) | ((cfg.sampleRateIndex & 0x0F) << 2) |
                                    ((cfg.channels >> 2) & 1));
        h[3] = static_cast<uint8_t>(((cfg.channels & 3) << 6) | ((frameLen >> 11) & 3));
        h[4] = static_cast<uint8_t>(frameLen >> 3);
        h[5] = static_cast<uint8_t>(((frameLen & 7) << 5) | ((fullness >> 6) & 0x1F));
        h[6] = static_cast<uint8_t>((fullness & 0x3F) << 2); // one raw data block
        s->frameLen = 7;
    }
    std::memcpy(s->frame + s->frameLen, pkt + info->dataOffset + skip, n);
    s->frameLen += n;
    return KORVALEN_OK;
}

uint32_t RTP_SpellFrame(const uint8_t* pkt, uint32_t len, const RTP_PAYLOAD_TABLE* custom, const RTP_AAC_CONFIG* aac,
                        RTP_STREAM_INFO* video, RTP_STREAM_INFO* audio, RTP_STREAM_INFO** done)
{
    if (done) {
        *done = nullptr;
    }
    if (!pkt || !video || !audio || !video->frame || !audio->frame) {
        return KORVALEN_ERR_INVALID_PARAM;
    }
    if (len < kRtpHeaderLen) {
        return KORVALEN_ERR_NEED_MORE_DATA;
    }
    RTP_STREAM_INFO* s = Codec_IsVideo(RTP_LookupCodec(pkt[1] & 0x7F, custom)) ? video : audio;
    if (s->complete) {
        // The previous frame has been handed on: start a new one.
        s->frameLen = 0;
        s->complete = 0;
    }
    RTP_PACKET_INFO info;
    uint32_t ret = RTP_ParseHeader(pkt, len, custom, &info, s);
    if (ret != KORVALEN_OK) {
        s->frameLen = 0;
        return ret;
    }

    switch (info.codecType) {
    case KORVALEN_CODEC_H264:
        ret = RTP_SpellFrameH264(pkt, len, &info, s);
        if (ret != KORVALEN_OK && ++s->spellFailCount % 2000 == 1) {
            KORVALEN_LOG(KORVALEN_LOG_ERROR, "SpellFrame failed, count(%d)", s->spellFailCount);
        }
        break;
    case KORVALEN_CODEC_H265:
        ret = RTP_SpellFrameH265(pkt, len, &info, s);
        break;
    case KORVALEN_CODEC_MJPEG:
        ret = RTP_SpellFrameJPEG(pkt, len, &info, s);
        break;
    default:
        if (info.codecType == KORVALEN_CODEC_IVA) {
            KeepIvaInfo(pkt, len, &info, audio);
        }
        ret = RTP_SpellFrameNotH264(pkt, len, &info, aac, s);
        break;
    }
    if (ret != KORVALEN_OK) {
        s->frameLen = 0; // a broken frame is never handed on
        return ret;
    }

    bool complete;
    if (Codec_IsVideo(info.codecType)) {
        const bool fuEnd = (info.nalKind == RTP_NAL_FU_A || info.nalKind == RTP_NAL_H265_FU) && info.fuEnd;
        complete = info.marker || fuEnd;
    } else {
        complete = info.codecType != KORVALEN_CODEC_IVA || info.marker;
    }
    if (!complete || s->frameLen == 0) {
        return KORVALEN_ERR_NEED_MORE_DATA;
    }
    if (done) {
        *done = s;
    }
    return Complete(&info, s);
}
