// Frame assembly for recording, beside (not sharing) the decode side's.
#include "record/record_frames.h"

#include <cstring>

#include "heap/qmx_heap.h"
#include "korvalen_types.h"

namespace {

constexpr uint32_t kModeTs = 1;
constexpr uint32_t kModeRtp = 2;
constexpr uint32_t kModeFlv = 4;
constexpr uint32_t kVideoCap = 0x200000;
constexpr uint32_t kAudioCap = 10240;
constexpr uint32_t kRdHdSize = 24;

uint32_t Le32(const uint8_t* p)
{
    return static_cast<uint32_t>(p[0]) | static_cast<uint32_t>(p[1]) << 8 | static_cast<uint32_t>(p[2]) << 16 |
           static_cast<uint32_t>(p[3]) << 24;
}

uint32_t Flv(REC_ASSEMBLY* a, const uint8_t* data, uint32_t len, REC_FRAME* frame, bool* more)
{
    if (!a->flvTag && !(a->flvTag = static_cast<uint8_t*>(QMX_HeapMalloc(kFlvTagMax)))) {
        return KORVALEN_ERR_NO_MEMORY;
    }
    if (a->mode != kModeFlv) {
        a->mode = kModeFlv;
        FLV_Reset(&a->flv, a->flvTag, a->video, kVideoCap, a->audio, kAudioCap);
    }
    if (len >= 5 && std::memcmp(data, "FLV", 3) == 0) {
        a->flvAudio = (data[4] & 0x04) ? 1 : 0;
    }
    FLV_FRAME f{};
    uint32_t err = FLV_UnpacketFlvData(&a->flv, data, len, &f);
    *more = a->flv.resume;
    if (err != KORVALEN_OK) {
        return err;
    }
    // FLV counts milliseconds.
    *frame = REC_FRAME{f.data, f.length, static_cast<uint64_t>(f.timestamp) * 90, f.codecType, f.frameType};
    return KORVALEN_OK;
}

// Raw Annex B: the first slice decides codec and frame type.
uint32_t Raw(const uint8_t* d, uint32_t n, REC_FRAME* f)
{
    for (uint32_t i = 0; i + 5 <= n; ++i) {
        if (d[i] != 0 || d[i + 1] != 0 || d[i + 2] != 1) {
            continue;
        }
        const uint8_t b = d[i + 3];
        const uint32_t h265 = (b >> 1) & 63;
        if ((b & 0x81) == 0 && d[i + 4] == 1 && (h265 <= 1 || (h265 >= 16 && h265 <= 21))) {
            *f = REC_FRAME{d, n, 0, KORVALEN_CODEC_H265, h265 >= 16 ? 0u : 1u};
            return KORVALEN_OK;
        }
        if ((b & 0x1F) == 5 || (b & 0x1F) == 1) {
            *f = REC_FRAME{d, n, 0, KORVALEN_CODEC_H264, (b & 0x1F) == 5 ? 0u : 1u};
            return KORVALEN_OK;
        }
    }
    return KORVALEN_ERR_UNKNOWN_STREAM;
}

} // namespace

uint32_t REC_InitAssembly(REC_ASSEMBLY* a)
{
    a->video = static_cast<uint8_t*>(QMX_HeapMalloc(kVideoCap));
    a->audio = static_cast<uint8_t*>(QMX_HeapMalloc(kAudioCap));
    a->mode = 0;
    a->headerPending = 0;
    a->flvAudio = 0;
    if (!a->video || !a->audio) {
        REC_FreeAssembly(a);
        return KORVALEN_ERR_NO_MEMORY;
    }
    return KORVALEN_OK;
}

void REC_FreeAssembly(REC_ASSEMBLY* a)
{
    QMX_HeapFree(a->video);
    QMX_HeapFree(a->audio);
    QMX_HeapFree(a->flvTag);
    a->video = a->audio = a->flvTag = nullptr;
}

uint32_t REC_AssembleFrame(REC_ASSEMBLY* a, const uint8_t* data, uint32_t len, const RTP_PAYLOAD_TABLE* payloads,
                           const uint8_t aacConfig[3], REC_FRAME* frame, bool* more)
{
    *more = false;
    if (!data || len == 0) {
        return KORVALEN_ERR_NEED_MORE_DATA;
    }
    if (a->mode == kModeFlv && (a->flv.resume || FLV_InsideTag(&a->flv) || FLV_IsFlvData(&a->flv, data, len))) {
        return Flv(a, data, len, frame, more); // a tag may go on in this chunk, whatever its first byte
    }
    const bool tsResume = a->mode == kModeTs && a->ts.resume;
    if (!tsResume && !a->headerPending && (data[0] & 0xC0) != 0x80 &&
        FLV_IsFlvData(a->mode == kModeFlv ? &a->flv : nullptr, data, len)) {
        return Flv(a, data, len, frame, more);
    }
    if (tsResume || (!a->headerPending && data[0] == 0x47)) {
        if (a->mode != kModeTs) {
            a->mode = kModeTs;
            TS_Reset(&a->ts, a->video, kVideoCap, a->audio, kAudioCap);
        }
        TS_FRAME f{};
        uint32_t err = TS_GetOneFrame(&a->ts, data, len, &f);
        *more = a->ts.resume;
        if (err != KORVALEN_OK) {
            return err;
        }
        *frame = REC_FRAME{f.data, f.length, f.timestamp, f.codecType, f.frameType};
        return KORVALEN_OK;
    }
    if (a->headerPending) {
        a->headerPending = 0;
        *frame = a->header;
        frame->data = data;
        frame->length = len;
        return KORVALEN_OK;
    }
    if ((data[0] & 0xC0) == 0x80) {
        if (a->mode != kModeRtp) {
            a->mode = kModeRtp;
            RTP_InitStream(&a->rtpVideo, a->video, kVideoCap);
            RTP_InitStream(&a->rtpAudio, a->audio, kAudioCap);
        }
        RTP_AAC_CONFIG aac{aacConfig[0], aacConfig[1], aacConfig[2]};
        RTP_STREAM_INFO* done = nullptr;
        uint32_t err = RTP_SpellFrame(data, len, payloads, &aac, &a->rtpVideo, &a->rtpAudio, &done);
        if (err != KORVALEN_OK) {
            return err;
        }
        if (!done) {
            return KORVALEN_ERR_NEED_MORE_DATA;
        }
        *frame = REC_FRAME{done->frame, done->frameLen, done->timestamp, done->codecType, done->frameType};
        return KORVALEN_OK;
    }
    if (len >= 2 && data[0] == 0xFF && data[1] == 0xD8) {
        *frame = REC_FRAME{data, len, 0, KORVALEN_CODEC_MJPEG, 0};
        return KORVALEN_OK;
    }
    if (len >= 4 && std::memcmp(data, "RdHd", 4) == 0) {
        if (len < kRdHdSize) {
            return KORVALEN_ERR_UNKNOWN_STREAM;
        }
        a->header = REC_FRAME{nullptr, 0, Le32(data + 16) | static_cast<uint64_t>(Le32(data + 20)) << 32,
                              Le32(data + 4), Le32(data + 8)};
        a->headerPending = 1;
        return KORVALEN_ERR_NEED_MORE_DATA;
    }
    if (len >= 3 && data[0] == 0 && data[1] == 0 && (data[2] == 1 || (data[2] == 0 && len >= 4 && data[3] == 1))) {
        return Raw(data, len, frame);
    }
    return KORVALEN_ERR_UNKNOWN_STREAM;
}
