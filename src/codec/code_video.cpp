// H.264 and H.265 decoding: creation, the decode call with its frame-mark
// ring and picture-size learning, and re-creation on a new picture size.
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <new>

extern "C" {
#include <libavutil/avutil.h>
#include <libswscale/swscale.h>
}

#include "codec/code_internal.h"
#include "codec/code_sps_probe.h"
#include "codec/code_video_decoder.h"
#include "heap/qmx_heap.h"
#include "korvalen_types.h"
#include "log/log.h"

namespace {

constexpr uint32_t kH264WorkSize = 96;
constexpr uint32_t kGpuWorkSize = 32;
constexpr uint32_t kH265WorkSize = 32;
// Maximum size an H.265 decoder is made for when the first access unit
// carries no readable sequence parameter set.
constexpr uint32_t kFallbackMaxSize = 3840;

// Per-handle decode state kept in the handle's work buffer.
struct VideoState {
    int64_t inputCount; // time stamp given to the next input; ties pictures to marks
    uint8_t* copy;      // I420 copy of the shown picture when it cannot be shown in place
    SwsContext* sws;    // pictures that are not 8-bit 4:2:0
    uint32_t copySize;
};
static_assert(sizeof(VideoState) <= kGpuWorkSize, "state must fit the smallest work buffer");

bool IsH265(const CODE_HANDLE* h)
{
    return h->codecType == static_cast<int32_t>(KORVALEN_CODEC_H265);
}

bool Probe(uint32_t type, const uint8_t* data, uint32_t length, uint32_t* w, uint32_t* h)
{
    return type == KORVALEN_CODEC_H265 ? CODE_ProbeH265Size(data, length, w, h)
                                       : CODE_ProbeH264Size(data, length, w, h);
}

VideoState* State(CODE_HANDLE* h)
{
    return reinterpret_cast<VideoState*>(h->workBuf);
}

CVideoDecoder* Decoder(CODE_HANDLE* h)
{
    return static_cast<CVideoDecoder*>(h->library);
}

void DestroyDecoder(CVideoDecoder* d)
{
    QMX_Delete(d);
}

// Opens a software decoder; null on failure with *err set to the AVERROR.
CVideoDecoder* OpenSoftware(uint32_t type, int threads, bool lowDelay, int* err)
{
    auto* d = static_cast<CVideoDecoder*>(QMX_New<CSoftVideoDecoder>());
    if (!d) {
        *err = AVERROR(ENOMEM);
        return nullptr;
    }
    AVCodecID id = type == KORVALEN_CODEC_H265 ? AV_CODEC_ID_HEVC : AV_CODEC_ID_H264;
    *err = d->Open(id, threads, lowDelay);
    if (*err < 0) {
        DestroyDecoder(d);
        return nullptr;
    }
    return d;
}

// Creates the H.264 software decoder for the handle's size: 0 or 527.
uint32_t CreateH264(CODE_HANDLE* h, CVideoDecoder** out)
{
    int threads = h->lowDelay ? 1 : CODE_ThreadCount(h->width, h->height);
    KORVALEN_LOG(KORVALEN_LOG_INFO, "dec_h264_init ThradCnt=%d", threads);
    int err = 0;
    std::lock_guard<std::mutex> lock(CODE_CreationLock());
    *out = OpenSoftware(KORVALEN_CODEC_H264, threads, h->lowDelay != 0, &err);
    if (!*out) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "dec_h264_init failed");
        return KORVALEN_ERR_DECODER_CREATE;
    }
    return KORVALEN_OK;
}

// Creates the H.265 software decoder for pictures up to maxW x maxH; 0 or the
// negative AVERROR. Threads follow the picture size when it is known.
int CreateH265(CODE_HANDLE* h, uint32_t maxW, uint32_t maxH, CVideoDecoder** out)
{
    int threads = h->width ? CODE_ThreadCount(h->width, h->height) : CODE_ThreadCount(maxW, maxH);
    threads = h->lowDelay ? 1 : threads;
    KORVALEN_LOG(KORVALEN_LOG_INFO, "H265D_Create iMaxWidth:%d, iMaxHeight:%d", static_cast<int>(maxW),
                 static_cast<int>(maxH));
    int err = 0;
    *out = OpenSoftware(KORVALEN_CODEC_H265, threads, h->lowDelay != 0, &err);
    return *out ? 0 : err;
}

uint32_t CreateGpu(CODE_HANDLE* h, uint32_t type, const CODE_PARAM* param)
{
    bool h265 = type == KORVALEN_CODEC_H265;
    if (!param || param->window == 0) {
        KORVALEN_LOG(KORVALEN_LOG_WARN, h265 ? "CODE_CreateCode warm, H.265 Gpu decoder need hWnd"
                                             : "CODE_CreateCode warm, Gpu decoder need hWnd");
        return KORVALEN_ERR_INVALID_PARAM;
    }
    char version[256];
    std::snprintf(version, sizeof version, "libavcodec %s", av_version_info());
    KORVALEN_LOG(KORVALEN_LOG_INFO, h265 ? "dsp H.265 Gpu decoder verion:%s" : "dsp h.264 Gpu decoder verion:%s",
                 version);
    h->workBuf = static_cast<uint8_t*>(QMX_HeapMalloc(kGpuWorkSize));
    if (!h->workBuf) {
        return KORVALEN_ERR_NO_MEMORY;
    }
    h->workSize = kGpuWorkSize;
    auto* d = static_cast<CVideoDecoder*>(QMX_New<CGpuVideoDecoder>());
    if (!d || d->Open(h265 ? AV_CODEC_ID_HEVC : AV_CODEC_ID_H264, 1, true) < 0) {
        DestroyDecoder(d);
        KORVALEN_LOG(KORVALEN_LOG_ERROR, h265 ? "CODE_CreateCode fail, H.265 DSP_GpuDec_Create fail"
                                              : "CODE_CreateCode fail, DSP_GpuDec_Create fail");
        QMX_HeapFree(h->workBuf);
        h->workBuf = nullptr;
        h->workSize = 0;
        return KORVALEN_ERR_DECODER_CREATE;
    }
    h->library = d;
    if (h265) {
        h->h265Gpu = 1;
    } else {
        h->h264Gpu = 1;
    }
    return KORVALEN_OK;
}

// Swaps in a decoder made for a new picture size. Pictures the old decoder
// still held are dropped with it.
uint32_t Recreate(CODE_HANDLE* h, uint32_t width, uint32_t height)
{
    CVideoDecoder* fresh = nullptr;
    uint32_t oldW = h->width, oldH = h->height;
    h->width = width;
    h->height = height;
    if (IsH265(h)) {
        uint32_t maxSize = width > height ? width : height;
        int err = CreateH265(h, maxSize, maxSize, &fresh);
        if (err < 0) {
            KORVALEN_LOG(KORVALEN_LOG_ERROR, "Call H265D_Create fail, error(0x%x)", static_cast<unsigned>(err));
            h->width = oldW;
            h->height = oldH;
            return CODE_ERR_FAIL;
        }
    } else if (CreateH264(h, &fresh) != KORVALEN_OK) {
        h->width = oldW;
        h->height = oldH;
        return KORVALEN_ERR_DECODER_CREATE;
    }
    KORVALEN_LOG(KORVALEN_LOG_WARN, "CODE_Decoder warm, picture size %ux%u -> %ux%u, decoder re-created", oldW, oldH,
                 width, height);
    DestroyDecoder(Decoder(h));
    h->library = fresh;
    return KORVALEN_OK;
}

// Makes the per-handle copy large enough for a w x h I420 picture and points
// the record's planes at it. Grows with some margin and never shrinks.
bool UseCopy(VideoState* st, uint32_t w, uint32_t hgt, CODE_OUTPUT* out)
{
    uint32_t cw = (w + 1) / 2, ch = (hgt + 1) / 2;
    uint32_t need = w * hgt + 2 * cw * ch;
    if (need > st->copySize) {
        uint32_t size = need + need / 8;
        auto* buf = static_cast<uint8_t*>(QMX_HeapMalloc(size));
        if (!buf) {
            return false;
        }
        QMX_HeapFree(st->copy);
        st->copy = buf;
        st->copySize = size;
    }
    out->planes[0] = st->copy;
    out->planes[1] = st->copy + w * hgt;
    out->planes[2] = st->copy + w * hgt + cw * ch;
    out->pitches[0] = w;
    out->pitches[1] = cw;
    out->pitches[2] = cw;
    return true;
}

// Pictures in another layout (4:2:2, 4:4:4, 10-bit) become 8-bit 4:2:0 in
// the copy, as the display and callbacks expect.
bool ConvertTo420(VideoState* st, const AVFrame* pic, CODE_OUTPUT* out)
{
    st->sws = sws_getCachedContext(st->sws, pic->width, pic->height, static_cast<AVPixelFormat>(pic->format),
                                   pic->width, pic->height, AV_PIX_FMT_YUV420P, SWS_BICUBIC, nullptr, nullptr, nullptr);
    if (!st->sws || !UseCopy(st, static_cast<uint32_t>(pic->width), static_cast<uint32_t>(pic->height), out)) {
        return false;
    }
    int pitches[4] = {static_cast<int>(out->pitches[0]), static_cast<int>(out->pitches[1]),
                      static_cast<int>(out->pitches[2]), 0};
    uint8_t* dst[4] = {out->planes[0], out->planes[1], out->planes[2], nullptr};
    return sws_scale(st->sws, pic->data, pic->linesize, 0, pic->height, dst, pitches) == pic->height;
}

// Line doubling for interlaced sources: every even line is copied over the
// following odd one. Works on the copy, since the decoder's picture is also a
// reference for the pictures that follow.
bool Deinterlace(VideoState* st, CODE_OUTPUT* out)
{
    uint32_t w = out->width, hgt = out->height;
    uint32_t widths[3] = {w, (w + 1) / 2, (w + 1) / 2};
    uint32_t heights[3] = {hgt, (hgt + 1) / 2, (hgt + 1) / 2};
    bool inPlace = out->planes[0] == st->copy;
    uint8_t* src[3] = {out->planes[0], out->planes[1], out->planes[2]};
    uint32_t srcPitch[3] = {out->pitches[0], out->pitches[1], out->pitches[2]};
    if (!inPlace && !UseCopy(st, w, hgt, out)) {
        return false;
    }
    for (int p = 0; p < 3; ++p) {
        for (uint32_t y = 0; y < heights[p]; ++y) {
            if (inPlace && (y & 1) == 0) {
                continue;
            }
            std::memcpy(out->planes[p] + y * out->pitches[p], src[p] + (y & ~1u) * srcPitch[p], widths[p]);
        }
    }
    return true;
}

uint32_t DecodeFailure(CODE_HANDLE* h, int err)
{
    if (IsH265(h)) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "Call H265D_DecodeFrame fail, error(0x%x)", static_cast<unsigned>(err));
        return CODE_ERR_FAIL;
    }
    KORVALEN_LOG(KORVALEN_LOG_ERROR, "dec_h264_main failed(retcode:%d)", err);
    return KORVALEN_ERR_DECODE;
}

uint32_t DecodeGpu(CODE_HANDLE* h, const CODE_INPUT* in, CODE_OUTPUT* out)
{
    std::lock_guard<std::mutex> lock(out->lock);
    bool drain = (in->flags & CODE_FLAG_DRAIN) != 0;
    uint32_t w = 0, hgt = 0;
    if (!drain && !(in->flags & CODE_FLAG_NO_PROBE) && h->width == 0 &&
        Probe(static_cast<uint32_t>(h->codecType), in->data, in->length, &w, &hgt)) {
        h->width = w; // the first probe wins
        h->height = hgt;
    }
    int r = Decoder(h)->Decode(drain ? nullptr : in->data, drain ? 0 : in->length, State(h)->inputCount++);
    if (r < 0) {
        h->gpuPicReady = 0;
        KORVALEN_LOG(KORVALEN_LOG_ERROR,
                     IsH265(h) ? "DSP_GpuDec_Main H.265 failed(retcode:%d)" : "DSP_GpuDec_Main failed(retcode:%d)", r);
        return KORVALEN_ERR_DECODE;
    }
    if (r == 0) {
        return KORVALEN_ERR_DECODE_NO_OUTPUT;
    }
    // The picture stays on the device; CODE_GetYuvData copies it out.
    h->gpuPicReady = 1;
    out->width = static_cast<uint32_t>(Decoder(h)->Picture()->width);
    out->height = static_cast<uint32_t>(Decoder(h)->Picture()->height);
    return KORVALEN_OK;
}

} // namespace

int CODE_ThreadCount(uint32_t width, uint32_t height)
{
    if (width == 0 || height == 0) {
        return 6; // unknown size: assume a large picture
    }
    if (width <= 720 && height <= 720) {
        return 1;
    }
    if (width <= 1280 && height <= 720) {
        return 2;
    }
    return 6;
}

uint32_t CODE_CreateVideoDecoder(CODE_HANDLE* h, uint32_t type, const CODE_PARAM* param, bool gpu)
{
    if (gpu) {
        return CreateGpu(h, type, param);
    }
    const uint8_t* first = param ? param->data : nullptr;
    uint32_t firstLen = param ? param->length : 0;
    h->lowDelay = param && param->lowDelay == 1 ? 1 : 0;
    uint32_t w = 0, hgt = 0;
    bool probed = Probe(type, first, firstLen, &w, &hgt);
    CVideoDecoder* d = nullptr;
    uint32_t workSize = kH264WorkSize;
    if (type == KORVALEN_CODEC_H264) {
        if (probed) {
            h->width = w;
            h->height = hgt;
        } else {
            h->sizeUnknown = 1;
        }
        uint32_t err = CreateH264(h, &d);
        if (err != KORVALEN_OK) {
            return err;
        }
    } else {
        KORVALEN_LOG(KORVALEN_LOG_INFO, "Call H265, Version(%d), Release Time(%s)", static_cast<int>(avcodec_version()),
                     av_version_info());
        if (probed) {
            h->width = w;
            h->height = hgt;
        } else {
            w = hgt = kFallbackMaxSize;
            h->sizeUnknown = 1;
        }
        int err = CreateH265(h, w, hgt, &d);
        if (err < 0) {
            KORVALEN_LOG(KORVALEN_LOG_ERROR, "Call H265D_Create fail, error(%d)", err);
            return CODE_ERR_FAIL;
        }
        workSize = kH265WorkSize;
    }
    h->workBuf = static_cast<uint8_t*>(QMX_HeapMalloc(workSize));
    if (!h->workBuf) {
        DestroyDecoder(d);
        return KORVALEN_ERR_NO_MEMORY;
    }
    h->workSize = workSize;
    h->library = d;
    h->h264Gpu = 0;
    h->h265Gpu = 0;
    return KORVALEN_OK;
}

uint32_t CODE_RecreateVideoDecoder(CODE_HANDLE* h, uint32_t maxWidth, uint32_t maxHeight, uint32_t lowDelay)
{
    CVideoDecoder* fresh = nullptr;
    h->lowDelay = lowDelay == 1 ? 1 : 0;
    // The next parameter set tells the real size without another re-creation.
    h->width = 0;
    h->height = 0;
    h->sizeUnknown = 1;
    int err = CreateH265(h, maxWidth, maxHeight, &fresh);
    if (err < 0) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "Call H265D_Create fail, error(%d)", err);
        return CODE_ERR_FAIL;
    }
    DestroyDecoder(Decoder(h));
    h->library = fresh;
    KORVALEN_LOG(KORVALEN_LOG_INFO, "CODE_ReCreateDecoder succeed");
    return KORVALEN_OK;
}

void CODE_FreeVideoDecoder(CODE_HANDLE* h)
{
    DestroyDecoder(Decoder(h));
    h->library = nullptr;
    if (h->workBuf) {
        QMX_HeapFree(State(h)->copy);
        sws_freeContext(State(h)->sws);
    }
}

uint32_t CODE_DecodeVideo(CODE_HANDLE* h, const CODE_INPUT* in, CODE_OUTPUT* out)
{
    if (Decoder(h)->IsGpu()) {
        return DecodeGpu(h, in, out);
    }
    bool drain = (in->flags & CODE_FLAG_DRAIN) != 0;
    uint32_t type = static_cast<uint32_t>(h->codecType);
    // Held from here: a re-creation frees the picture the record points at.
    std::unique_lock<std::mutex> lock(out->lock);
    uint32_t w = 0, hgt = 0;
    if (!drain && Probe(type, in->data, in->length, &w, &hgt)) {
        if (h->sizeUnknown || h->width == 0) {
            h->width = w;
            h->height = hgt;
            h->sizeUnknown = 0;
        } else if (w != h->width || hgt != h->height) {
            // A new picture size: a decoder made for it (thread count
            // follows the size). Unlike a decoder that rejects the frame,
            // this one is probed first, so the frame is not lost.
            uint32_t err = Recreate(h, w, hgt);
            if (err != KORVALEN_OK) {
                return err;
            }
        }
    }

    // Frame marks: the input's time stamp carries its ring index through the
    // decoder, so a marked frame is found again even after reordering.
    VideoState* st = State(h);
    int64_t pts = 0;
    if (!drain) {
        h->inIndex = (h->inIndex + 1) % CODE_MARK_RING;
        h->marks[h->inIndex] = h->markNext ? 1 : 0;
        h->markNext = 0;
        pts = st->inputCount++;
    }
    int r = Decoder(h)->Decode(drain ? nullptr : in->data, drain ? 0 : in->length, pts);
    // libavcodec's result -> what the caller sees:
    //   negative AVERROR (corrupt or unsupported data)  -> 528 for H.264; 1 for
    //       H.265, as its decoder reports failures; the frame is lost, its mark
    //       cleared and the output index moves on;
    //   no picture yet (EAGAIN: reordering or frame threads hold it, or the
    //       frame only carried parameter sets)          -> 538;
    //   a picture                                        -> 0, unless its
    //       input was marked, then 538;
    //   a new picture size                               -> re-created above
    //       before the frame reached the decoder.
    if (r < 0) {
        lock.unlock();
        h->marks[h->inIndex] = 0;
        h->outIndex = (h->outIndex + 1) % CODE_MARK_RING;
        return DecodeFailure(h, r);
    }
    if (r == 0) {
        return KORVALEN_ERR_DECODE_NO_OUTPUT;
    }
    AVFrame* pic = Decoder(h)->Picture();
    if (pic->format == AV_PIX_FMT_YUV420P || pic->format == AV_PIX_FMT_YUVJ420P) {
        // Pointers into the decoder's picture: no copy.
        for (int p = 0; p < 3; ++p) {
            out->planes[p] = pic->data[p];
            out->pitches[p] = static_cast<uint32_t>(pic->linesize[p]);
        }
    } else if (!ConvertTo420(st, pic, out)) {
        lock.unlock();
        h->outIndex = (h->outIndex + 1) % CODE_MARK_RING;
        return DecodeFailure(h, AVERROR(ENOMEM));
    }
    out->width = static_cast<uint32_t>(pic->width);
    out->height = static_cast<uint32_t>(pic->height);
    if (in->deinterlace == 1 && !Deinterlace(st, out)) {
        lock.unlock();
        return KORVALEN_ERR_NO_MEMORY;
    }
    lock.unlock();

    h->outIndex = pic->pts != AV_NOPTS_VALUE ? static_cast<uint32_t>((pic->pts + 1) % CODE_MARK_RING)
                                             : (h->outIndex + 1) % CODE_MARK_RING;
    if (h->marks[h->outIndex]) {
        h->marks[h->outIndex] = 0;
        return KORVALEN_ERR_DECODE_NO_OUTPUT; // decoded for the references, not shown
    }
    return KORVALEN_OK;
}
