// JPEG payloads: the first fragment restarts the frame with generated
// headers, the scan data follow, the end-of-image marker closes the frame.
#include <cstring>

#include "log/log.h"
#include "media/rtp_bytes.h"
#include "rtp/rtp_handler.h"
#include "rtp/rtp_jpeg.h"

namespace {

uint32_t Parse(const uint8_t* pkt, uint32_t len, RTP_PACKET_INFO* info)
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

uint32_t Assemble(const uint8_t* pkt, uint32_t len, RTP_PACKET_INFO* info, const RTP_AAC_CONFIG*, RTP_STREAM_INFO* s)
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
        return RTP_Lost(s); // scan data without the headers of their frame cannot be decoded
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

uint32_t FrameType(const RTP_PACKET_INFO*, const RTP_STREAM_INFO*)
{
    return RTP_FRAME_KEY;
}

} // namespace

const RTP_PAYLOAD_HANDLER kRtpJpeg = {KORVALEN_CODEC_MJPEG, "JPEG", nullptr, Parse, Assemble, RTP_NalEnds, FrameType};
