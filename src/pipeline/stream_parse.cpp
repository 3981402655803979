// The stream parser: tells what a pushed chunk is and publishes whole frames
// as the port's current frame.
#include <cstring>

#include "codec/code_sps_probe.h"
#include "heap/qmx_heap.h"
#include "log/log.h"
#include "media/codec_facts.h"
#include "pipeline/pipeline.h"
#include "pipeline/stream_decode.h"

namespace {

constexpr uint32_t kRdHdSize = 24;

uint32_t LoadLe32(const uint8_t* p)
{
    return static_cast<uint32_t>(p[0]) | static_cast<uint32_t>(p[1]) << 8 | static_cast<uint32_t>(p[2]) << 16 |
           static_cast<uint32_t>(p[3]) << 24;
}

void Publish(PortStream& st, const uint8_t* data, uint32_t length, uint64_t ts, uint32_t codec, uint32_t type)
{
    st.frame.data = data;
    st.frame.length = length;
    st.frame.timestamp = ts;
    st.frame.codecType = codec;
    st.frame.frameType = type;
}

uint32_t ParseTs(const uint8_t* data, uint32_t length, Pipeline* rec)
{
    PortStream& st = rec->stream;
    if (st.parseMode != PARSE_TS) {
        st.parseMode = PARSE_TS;
        TS_Reset(&st.ts, st.frameBuffer, kFrameBufferSize, st.audioBuffer, kAudioBufferSize);
    }
    TS_FRAME f{};
    uint32_t err = TS_GetOneFrame(&st.ts, data, length, &f);
    if (err != KORVALEN_OK) {
        return err;
    }
    Publish(st, f.data, f.length, f.timestamp, f.codecType, f.frameType);
    return KORVALEN_OK;
}

uint32_t ParseFlv(const uint8_t* data, uint32_t length, Pipeline* rec)
{
    PortStream& st = rec->stream;
    if (!st.flvTag) {
        st.flvTag = static_cast<uint8_t*>(QMX_HeapMalloc(kFlvTagMax));
        if (!st.flvTag) {
            return KORVALEN_ERR_NO_MEMORY;
        }
    }
    if (st.parseMode != PARSE_FLV) {
        st.parseMode = PARSE_FLV;
        FLV_Reset(&st.flv, st.flvTag, st.frameBuffer, kFrameBufferSize, st.audioBuffer, kAudioBufferSize);
    }
    FLV_FRAME f{};
    uint32_t err = FLV_UnpacketFlvData(&st.flv, data, length, &f);
    if (err == KORVALEN_ERR_NEED_MORE_DATA) {
        return err;
    }
    if (err != KORVALEN_OK) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "FLV_UnpacketFlvData fail, ulRet : %d", err);
        return err;
    }
    Publish(st, f.data, f.length, static_cast<uint64_t>(f.timestamp) * 90, f.codecType, f.frameType);
    return KORVALEN_OK;
}

uint32_t ParseRtp(const uint8_t* data, uint32_t length, Pipeline* rec)
{
    PortStream& st = rec->stream;
    if (st.parseMode != PARSE_RTP) {
        st.parseMode = PARSE_RTP;
        RTP_InitStream(&st.rtpVideo, st.frameBuffer, kFrameBufferSize);
        RTP_InitStream(&st.rtpAudio, st.audioBuffer, kAudioBufferSize);
    }
    RTP_AAC_CONFIG aac{st.aacConfig[0], st.aacConfig[1], st.aacConfig[2]};
    RTP_STREAM_INFO* done = nullptr;
    uint32_t err = RTP_SpellFrame(data, length, &st.payloads, &aac, &st.rtpVideo, &st.rtpAudio, &done);
    if (err != KORVALEN_OK) {
        return err;
    }
    if (!done) {
        return KORVALEN_ERR_NEED_MORE_DATA;
    }
    Publish(st, done->frame, done->frameLen, done->timestamp, done->codecType, done->frameType);
    return KORVALEN_OK;
}

// Raw H.264 / H.265 with start codes: the first slice NAL found decides
// codec and frame type; the chunk is the frame. Encoders mix four- and
// three-byte start codes within one access unit (x264 puts three-byte ones
// before slices), so the scan looks for 00 00 01, which a four-byte code
// also holds.
uint32_t ParseRaw(const uint8_t* data, uint32_t length, Pipeline* rec, uint32_t startLen)
{
    PortStream& st = rec->stream;
    for (uint32_t i = 0;; ++i) {
        if (i + 5 > length) {
            return KORVALEN_ERR_NEED_MORE_DATA;
        }
        if (data[i] == 0 && data[i + 1] == 0 && data[i + 2] == 1) {
            const uint8_t b = data[i + 3];
            const uint8_t c = data[i + 4];
            if (b == 0x02 && c == 0x01) {
                Publish(st, data, length, 0, KORVALEN_CODEC_H265, 1);
                return KORVALEN_OK;
            }
            if (b == 0x26 && c == 0x01) {
                rec->frameInterval = 40;
                st.frameRate = 25;
                Publish(st, data, length, 0, KORVALEN_CODEC_H265, 0);
                return KORVALEN_OK;
            }
            if ((b & 0x1F) == 1) {
                Publish(st, data, length, 0, KORVALEN_CODEC_H264, 1);
                return KORVALEN_OK;
            }
            if ((b & 0x1F) == 5) {
                Publish(st, data, length, 0, KORVALEN_CODEC_H264, 0);
                uint32_t w = 0, h = 0, fps = 0;
                CODE_ProbeH264Sps(data, length, &w, &h, &fps);
                st.frameRate = fps >= 1 && fps <= 120 ? fps : 25; // a stream's own claim, within reason
                rec->frameInterval = 1000 / st.frameRate;
                return KORVALEN_OK;
            }
        }
        if (length <= i + startLen + 2) {
            return KORVALEN_ERR_UNKNOWN_STREAM; // no slice the decoder could start from
        }
    }
}

} // namespace

uint32_t Player_ParseStream(const uint8_t* data, uint32_t length, Pipeline* rec)
{
    PortStream& st = rec->stream;
    if (!data || length == 0) {
        return KORVALEN_ERR_NEED_MORE_DATA;
    }
    if (st.parseMode == PARSE_TS && st.ts.resume) {
        return ParseTs(data, length, rec); // the rest of a chunk that gave a frame
    }
    if (st.parseMode == PARSE_FLV &&
        (st.flv.resume || FLV_InsideTag(&st.flv) || FLV_IsFlvData(&st.flv, data, length))) {
        // The rest of a chunk, or a tag that goes on in this one: its first
        // byte may look like anything.
        return ParseFlv(data, length, rec);
    }
    if (st.headerPending) {
        // The chunk announced by an "RdHd" header is the frame, whole.
        st.headerPending = 0;
        st.frame.data = data;
        st.frame.length = length;
        return KORVALEN_OK;
    }
    if ((data[0] & 0xC0) == 0x80) {
        return ParseRtp(data, length, rec);
    }
    if (FLV_IsFlvData(st.parseMode == PARSE_FLV ? &st.flv : nullptr, data, length)) {
        return ParseFlv(data, length, rec);
    }
    if (data[0] == 0x47) {
        return ParseTs(data, length, rec);
    }
    if (length >= 2 && data[0] == 0xFF && data[1] == 0xD8) {
        Publish(st, data, length, 0, KORVALEN_CODEC_MJPEG, 0xFFFFFFFFu);
        return KORVALEN_OK;
    }
    if (length >= 4 && std::memcmp(data, "RdHd", 4) == 0) {
        if (length < kRdHdSize) {
            return KORVALEN_ERR_UNKNOWN_STREAM;
        }
        uint64_t ts = LoadLe32(data + 16) | static_cast<uint64_t>(LoadLe32(data + 20)) << 32;
        Publish(st, nullptr, 0, ts, LoadLe32(data + 4), LoadLe32(data + 8));
        st.headerPending = 1;
        return KORVALEN_ERR_NEED_MORE_DATA;
    }
    if (length >= 3 && data[0] == 0 && data[1] == 0 && data[2] == 1) {
        return ParseRaw(data, length, rec, 3);
    }
    if (length < 4 || data[0] != 0 || data[1] != 0 || data[2] != 0 || data[3] != 1) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "Player_ParseStream failed, Unknow stream(0x%x)", data[0]);
        return KORVALEN_ERR_UNKNOWN_STREAM;
    }
    return ParseRaw(data, length, rec, 4);
}

uint32_t Player_StatisticsTimestamp(Pipeline* rec)
{
    PortStream& st = rec->stream;
    const StreamFrame& f = st.frame;
    if (!Codec_IsVideo(f.codecType)) {
        return KORVALEN_OK; // sound frames keep their own clock
    }
    if (f.frameType == 0 && f.codecType == KORVALEN_CODEC_H264) {
        uint32_t w = 0, h = 0, fps = 0;
        if (!CODE_ProbeH264Sps(f.data, f.length, &w, &h, &fps)) {
            KORVALEN_LOG(KORVALEN_LOG_ERROR, "Port[%03d] Player_StatisticsTimestamp failed, DSP_H264_PreParse fail",
                         rec->port);
            return 1;
        }
        if (fps >= 1 && fps <= 120) {
            st.frameRate = fps;
            st.rateFromStream = 1;
        }
    } else if (f.frameType == 0 && f.codecType == KORVALEN_CODEC_H265) {
        if (uint32_t fps = CODE_ProbeH265Rate(f.data, f.length)) {
            st.frameRate = fps;
            st.rateFromStream = 1;
        }
        uint32_t w = 0, h = 0;
        if (CODE_ProbeH265Size(f.data, f.length, &w, &h) && (w != st.width || h != st.height)) {
            st.resolutionChanged = st.width != 0;
            st.width = w;
            st.height = h;
        }
    }
    if (f.codecType == KORVALEN_CODEC_MJPEG) {
        st.rateFromStream = 0;
    }
    if (st.rateFromStream && st.frameRate) {
        rec->frameInterval = 1000 / st.frameRate;
        rec->playback.frameRate = st.frameRate;
        return KORVALEN_OK;
    }
    if (!st.hasPrevTimestamp) {
        st.prevTimestamp = f.timestamp;
        st.hasPrevTimestamp = 1;
        return KORVALEN_OK;
    }
    auto d = static_cast<uint32_t>(f.timestamp - st.prevTimestamp);
    if (d == 0) {
        return KORVALEN_OK;
    }
    uint32_t interval = d / 90;
    if (interval == 0) {
        interval = 40;
    }
    // One second exactly is a 1 fps stream; other gaps over half a second
    // are disturbances and keep the rate there was.
    if (interval > 500 && interval != 1000) {
        interval = st.frameRate ? 1000 / st.frameRate : 40;
    }
    if (interval == 0) {
        interval = 40; // a rate above 1000 fps is no rate at all
    }
    rec->frameInterval = interval;
    st.frameRate = 1000 / interval;
    rec->playback.frameRate = st.frameRate;
    st.prevTimestamp = f.timestamp;
    return KORVALEN_OK;
}
