// Frame assembly, the generic part: the packet goes to the row of its codec,
// which appends its data to the stream's frame buffer until the row says
// the frame has ended.
#include <cstring>

#include "log/log.h"
#include "media/codec_facts.h"
#include "rtp/rtp_handler.h"

namespace {

// The payload formats. A new one is a file with its row, and its row here.
const RTP_PAYLOAD_HANDLER* const kHandlers[] = {&kRtpH264, &kRtpH265, &kRtpJpeg, &kRtpG711U, &kRtpG711A,
                                                &kRtpMp2,  &kRtpAac,  &kRtpPcm,  &kRtpIva};

// The rows by codec type, for a look-up per packet without a search.
struct ByCodec {
    const RTP_PAYLOAD_HANDLER* rows[kRtpCodecSlots] = {};
    ByCodec()
    {
        for (const RTP_PAYLOAD_HANDLER* h : kHandlers) {
            rows[h->codec] = h;
        }
    }
};
const ByCodec kByCodec;

} // namespace

const RTP_PAYLOAD_HANDLER* RTP_FindHandler(uint32_t codec)
{
    return codec < kRtpCodecSlots ? kByCodec.rows[codec] : nullptr;
}

uint32_t RTP_Lost(RTP_STREAM_INFO* s)
{
    if (++s->lostCount % 20 == 1) {
        KORVALEN_LOG(KORVALEN_LOG_INFO, "PACKET LOSE data, count(%d)", s->lostCount);
    }
    return KORVALEN_ERR_PACKET_LOST;
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
    const RTP_PAYLOAD_HANDLER* h = info.handler; // the header parse found it
    ret = h->assemble(pkt, len, &info, aac, s);
    if (ret != KORVALEN_OK) {
        s->frameLen = 0; // a broken frame is never handed on
        return ret;
    }
    if (!h->ends(&info) || s->frameLen == 0) {
        return KORVALEN_ERR_NEED_MORE_DATA;
    }
    if (done) {
        *done = s;
    }
    s->timestamp = info.timestamp;
    s->codecType = info.codecType;
    s->frameType = h->frameType(&info, s);
    s->complete = 1;
    return KORVALEN_OK;
}
