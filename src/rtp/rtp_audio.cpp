// Audio payloads: G.711, MP2, raw PCM and AAC, one frame per packet; AAC of
// payload type 104 comes without its ADTS header, which is made here from
// the caller's configuration.
#include <cstring>

#include "log/log.h"
#include "rtp/rtp_handler.h"

namespace {

constexpr uint8_t kAacNoAdts = 104; // four bytes of AU headers, no ADTS

} // namespace

bool RTP_EndsAlways(const RTP_PACKET_INFO*)
{
    return true;
}

uint32_t RTP_FrameTypeAudio(const RTP_PACKET_INFO*, const RTP_STREAM_INFO*)
{
    return RTP_FRAME_AUDIO;
}

uint32_t RTP_AssemblePlain(const uint8_t* pkt, uint32_t len, RTP_PACKET_INFO* info, const RTP_AAC_CONFIG* aac,
                           RTP_STREAM_INFO* s)
{
    // Analytics data may span packets up to the marker; every other payload
    // is a frame of its own.
    if (info->codecType != KORVALEN_CODEC_IVA) {
        s->frameLen = 0;
    }
    const bool adts = info->payloadType == kAacNoAdts;
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

const RTP_PAYLOAD_HANDLER kRtpG711U = {KORVALEN_CODEC_G711U, "G.711 mu-law", nullptr,           nullptr,
                                       RTP_AssemblePlain,    RTP_EndsAlways, RTP_FrameTypeAudio};
const RTP_PAYLOAD_HANDLER kRtpG711A = {KORVALEN_CODEC_G711A, "G.711 A-law",  nullptr,           nullptr,
                                       RTP_AssemblePlain,    RTP_EndsAlways, RTP_FrameTypeAudio};
const RTP_PAYLOAD_HANDLER kRtpMp2 = {KORVALEN_CODEC_MP2, "MP2",          nullptr,           nullptr,
                                     RTP_AssemblePlain,  RTP_EndsAlways, RTP_FrameTypeAudio};
const RTP_PAYLOAD_HANDLER kRtpAac = {KORVALEN_CODEC_AAC, "AAC",          nullptr,           nullptr,
                                     RTP_AssemblePlain,  RTP_EndsAlways, RTP_FrameTypeAudio};
const RTP_PAYLOAD_HANDLER kRtpPcm = {KORVALEN_CODEC_PCM, "PCM",          nullptr,           nullptr,
                                     RTP_AssemblePlain,  RTP_EndsAlways, RTP_FrameTypeAudio};
