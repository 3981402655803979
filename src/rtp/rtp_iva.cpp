// Analysis (IVA) data, payload type 50: a block that may span packets up to
// the marker; its leading values are kept beside the stream as well.
#include <cstring>

#include "media/rtp_bytes.h"
#include "rtp/rtp_handler.h"

namespace {

constexpr uint8_t kIvaTag = 21;
constexpr uint16_t kIvaMinLength = 399;

void KeepInfo(const uint8_t* pkt, uint32_t len, const RTP_PACKET_INFO* info, RTP_STREAM_INFO* s)
{
    const uint8_t* p = pkt + info->payloadOffset;
    const uint32_t avail = len - info->payloadOffset;
    if (avail < 3 || p[0] != kIvaTag || RTP_Be16(p + 1) < kIvaMinLength || avail < 3 + 8 + kRtpIvaRawLen) {
        return;
    }
    for (int i = 0; i < 4; ++i) {
        s->iva.values[i] = RTP_Be16(p + 3 + 2 * i);
    }
    std::memcpy(s->iva.raw, p + 11, kRtpIvaRawLen);
    s->iva.valid = 1;
}

uint32_t Assemble(const uint8_t* pkt, uint32_t len, RTP_PACKET_INFO* info, const RTP_AAC_CONFIG* aac,
                  RTP_STREAM_INFO* s)
{
    KeepInfo(pkt, len, info, s);
    return RTP_AssemblePlain(pkt, len, info, aac, s);
}

bool Ends(const RTP_PACKET_INFO* info)
{
    return info->marker;
}

} // namespace

const RTP_PAYLOAD_HANDLER kRtpIva = {KORVALEN_CODEC_IVA, "analysis data", nullptr, nullptr, Assemble, Ends,
                                     RTP_FrameTypeAudio};
