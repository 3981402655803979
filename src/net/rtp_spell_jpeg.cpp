// JPEG frames: the first fragment restarts the frame with generated headers,
// the scan data follow, the end-of-image marker closes the frame.
#include <cstring>

#include "log/log.h"
#include "net/rtp.h"
#include "net/rtp_jpeg.h"

uint32_t RTP_SpellFrameJPEG(const uint8_t* pkt, uint32_t len, const RTP_PACKET_INFO* info, RTP_STREAM_INFO* s)
{
    if (info->jpegOffset == 0 && info->jpegWidth && info->jpegHeight) {
        RTP_JPEG_PARAMS p{};
        p.type = info->jpegType;
        p.q = info->jpegQ;
        p.width = info->jpegWidth;
        p.height = info->jpegHeight;
        p.restart = info->jpegRestart;
        if (info->jpegQTableLen) {
            p.qtables = pkt + info->dataOffset - info->jpegQTableLen;
            p.qtablesLen = info->jpegQTableLen;
            p.precision = info->jpegQPrecision;
        }
        const uint32_t headerLen = RTP_JpegMakeHeaders(&p, s->frame, s->frameCap);
        if (headerLen == 0) {
            KORVALEN_LOG(KORVALEN_LOG_ERROR, "RTP_SpellFrameJPEG fail, MakeHeaders fail");
            return RTP_ERR_MALFORMED;
        }
        s->frameLen = headerLen;
    } else if (s->frameLen == 0) {
        // Scan data without the headers of their frame cannot be decoded.
        if (++s->lostCount % 20 == 1) {
            KORVALEN_LOG(KORVALEN_LOG_INFO, "PACKET LOSE data, count(%d)", s->lostCount);
        }
        return KORVALEN_ERR_PACKET_LOST;
    }

    const uint32_t n = len - info->dataOffset;
    // Room for the end-of-image marker is kept; frames stay below the
    // buffer size like every other codec.
    if (n + 2 >= s->frameCap - s->frameLen) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "RTP_SpellFrameJPEG fail, JPEG len(%d) out of buffer size", s->frameLen + n);
        return RTP_ERR_OVERFLOW;
    }
    std::memcpy(s->frame + s->frameLen, pkt + info->dataOffset, n);
    s->frameLen += n;
    if (info->marker && !(s->frameLen >= 2 && s->frame[s->frameLen - 2] == 0xFF && s->frame[s->frameLen - 1] == 0xD9)) {
        s->frame[s->frameLen++] = 0xFF;
        s->frame[s->frameLen++] = 0xD9;
    }
    return KORVALEN_OK;
}
