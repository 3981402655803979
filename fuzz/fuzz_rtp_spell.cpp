// Sequences of RTP packets into RTP_SpellFrame. Input: one option byte
// (custom payload table, buffer sizes), then packets as a 16-bit big-endian
// length and the packet bytes.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

#include "log/log.h"
#include "rtp/rtp.h"

namespace {

// Formats every log line (so bad format arguments show) and drops it.
void Quiet(uint32_t, uint32_t, uint32_t, const char*, uint32_t, const char*)
{
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static std::vector<uint8_t> videoBuf(kRtpVideoFrameMax), audioBuf(kRtpAudioFrameMax);
    static bool init = [] {
        LOG_SetSink(&Quiet);
        return true;
    }();
    (void)init;
    if (size < 1) {
        return 0;
    }
    RTP_PAYLOAD_TABLE custom{};
    if (data[0] & 1) {
        custom.entries[0] = {96, KORVALEN_CODEC_H265, 1};
    }
    if (data[0] & 2) {
        custom.entries[1] = {static_cast<uint8_t>(data[0] >> 2), static_cast<uint32_t>(data[0] >> 4), 1};
    }
    const RTP_AAC_CONFIG aac{1, 4, 2};
    // Small buffers now and then, so that the overflow paths are in reach.
    RTP_STREAM_INFO video, audio;
    RTP_InitStream(&video, videoBuf.data(), (data[0] & 0x80) ? 4096 : kRtpVideoFrameMax);
    RTP_InitStream(&audio, audioBuf.data(), (data[0] & 0x40) ? 512 : kRtpAudioFrameMax);

    size_t pos = 1;
    while (pos + 2 <= size) {
        const size_t len = (static_cast<size_t>(data[pos]) << 8) | data[pos + 1];
        pos += 2;
        if (len > size - pos) {
            break;
        }
        // Each packet in its own allocation so that reads past it are caught.
        std::vector<uint8_t> pkt(data + pos, data + pos + len);
        pos += len;
        RTP_STREAM_INFO* done = nullptr;
        const uint32_t r =
            RTP_SpellFrame(pkt.data(), static_cast<uint32_t>(pkt.size()), &custom, &aac, &video, &audio, &done);
        RTP_IsReorderPacket(pkt.data(), static_cast<uint32_t>(pkt.size()), &custom);
        RTP_IsVideoMarkerPacket(pkt.data(), static_cast<uint32_t>(pkt.size()), &custom);
        if (r == KORVALEN_OK) {
            if (!done || done->frameLen == 0 || done->frameLen >= done->frameCap) {
                __builtin_trap();
            }
            if (done->codecType == KORVALEN_CODEC_H264) {
                RTP_FindIFrame(done->frame, done->frameLen);
                const uint8_t* nal = nullptr;
                uint32_t nalLen = 0;
                RTP_FindDataByNAL(KORVALEN_CODEC_H264, 7, done->frame, done->frameLen, &nal, &nalLen);
            }
        }
        if (video.frameLen >= video.frameCap || audio.frameLen >= audio.frameCap) {
            __builtin_trap();
        }
    }
    return 0;
}
