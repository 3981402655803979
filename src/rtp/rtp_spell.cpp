// Frame assembly, the generic part: the packet goes to the row of its codec,
// which appends its data to the stream's frame buffer until the row says
// the frame has ended.
#include <cstring>

#include "log/log.h"
#include "media/codec_facts.h"
#include "rtp/rtp_handler.h"

namespace {

const uint8_t kStartCode[4] = {0, 0, 0, 1};

// The payload formats. A new one is a file with its row, and its row here.
const RTP_PAYLOAD_HANDLER* const kHandlers[] = {&kRtpH264, &kRtpH265, &kRtpJpeg, &kRtpG711U, &kRtpG711A,
                                                &kRtpMp2,  &kRtpAac,  &kRtpPcm,  &kRtpIva};

} // namespace

const RTP_PAYLOAD_HANDLER* RTP_FindHandler(uint32_t codec)
{
    for (const RTP_PAYLOAD_HANDLER* h : kHandlers) {
        if (h->codec == codec) {
            return h;
        }
    }
    return nullptr;
}

bool RTP_Append(RTP_STREAM_INFO* s, const uint8_t* data, uint32_t n)
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

bool RTP_AppendNal(RTP_STREAM_INFO* s, const uint8_t* head, uint32_t headLen, const uint8_t* data, uint32_t n)
{
    if (sizeof kStartCode + headLen + n >= s->frameCap - s->frameLen) {
        return false;
    }
    RTP_Append(s, kStartCode, sizeof kStartCode);
    RTP_Append(s, head, headLen);
    RTP_Append(s, data, n);
    return true;
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
    const RTP_PAYLOAD_HANDLER* h = RTP_FindHandler(info.codecType); // the header parse found it
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
