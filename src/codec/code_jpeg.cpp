// JPEG pictures: MJPEG decoding to YUV 4:2:0 and still-picture encoding,
// both through libavcodec.
#include <cstdio>
#include <cstring>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/avutil.h>
#include <libswscale/swscale.h>
}

#include "codec/code_internal.h"
#include "heap/qmx_heap.h"
#include "korvalen_types.h"
#include "log/log.h"

namespace {

constexpr uint32_t kJpegDecodeWork = 68;
constexpr uint32_t kJpegEncodeOut = 0x800000;
// Encoder quantiser scale: 2 (best) to 31; 3 keeps snapshots sharp.
constexpr int kJpegQuality = 3;

struct JpegCodec {
    const AVCodec* codec = nullptr;
    AVCodecContext* ctx = nullptr;
    AVPacket* pkt = nullptr;
    AVFrame* frame = nullptr;
    SwsContext* sws = nullptr;
    uint8_t* picture = nullptr; // decoded pictures not in 4:2:0, converted
    uint32_t picWidth = 0;
    uint32_t picHeight = 0;
};

JpegCodec* Jpeg(CODE_HANDLE* h)
{
    return static_cast<JpegCodec*>(h->library);
}

void FreeJpeg(JpegCodec* j)
{
    if (!j) {
        return;
    }
    sws_freeContext(j->sws);
    av_frame_free(&j->frame);
    av_packet_free(&j->pkt);
    avcodec_free_context(&j->ctx);
    QMX_HeapFree(j->picture);
    QMX_Delete(j);
}

// Converts a decoded picture that is not 4:2:0 into the kept buffer, which is
// re-allocated only when the size changes.
bool ConvertTo420(JpegCodec* j, const AVFrame* f, CODE_OUTPUT* out)
{
    auto w = static_cast<uint32_t>(f->width), h = static_cast<uint32_t>(f->height);
    uint32_t cw = (w + 1) / 2, ch = (h + 1) / 2;
    if (!j->picture || w != j->picWidth || h != j->picHeight) {
        QMX_HeapFree(j->picture);
        j->picture = static_cast<uint8_t*>(QMX_HeapMalloc(static_cast<size_t>(w) * h + 2 * cw * ch));
        j->picWidth = j->picture ? w : 0;
        j->picHeight = j->picture ? h : 0;
        if (!j->picture) {
            return false;
        }
    }
    j->sws = sws_getCachedContext(j->sws, f->width, f->height, static_cast<AVPixelFormat>(f->format), f->width,
                                  f->height, AV_PIX_FMT_YUV420P, SWS_BILINEAR, nullptr, nullptr, nullptr);
    if (!j->sws) {
        return false;
    }
    uint8_t* dst[4] = {j->picture, j->picture + w * h, j->picture + w * h + cw * ch, nullptr};
    int pitches[4] = {static_cast<int>(w), static_cast<int>(cw), static_cast<int>(cw), 0};
    sws_scale(j->sws, f->data, f->linesize, 0, f->height, dst, pitches);
    for (int p = 0; p < 3; ++p) {
        out->planes[p] = dst[p];
        out->pitches[p] = static_cast<uint32_t>(pitches[p]);
    }
    return true;
}

// (Re)opens the encoder for a picture size.
int OpenEncoder(JpegCodec* j, uint32_t w, uint32_t h)
{
    if (j->ctx && static_cast<uint32_t>(j->ctx->width) == w && static_cast<uint32_t>(j->ctx->height) == h) {
        return 0;
    }
    avcodec_free_context(&j->ctx);
    j->ctx = avcodec_alloc_context3(j->codec);
    if (!j->ctx) {
        return AVERROR(ENOMEM);
    }
    j->ctx->width = static_cast<int>(w);
    j->ctx->height = static_cast<int>(h);
    j->ctx->pix_fmt = AV_PIX_FMT_YUVJ420P;
    j->ctx->time_base = AVRational{1, 25};
    j->ctx->flags |= AV_CODEC_FLAG_QSCALE;
    j->ctx->global_quality = FF_QP2LAMBDA * kJpegQuality;
    int r = avcodec_open2(j->ctx, j->codec, nullptr);
    if (r < 0) {
        avcodec_free_context(&j->ctx);
    }
    return r;
}

} // namespace

uint32_t CODE_CreateJpeg(CODE_HANDLE* h, uint32_t direction)
{
    auto* j = QMX_New<JpegCodec>();
    if (!j) {
        return KORVALEN_ERR_NO_MEMORY;
    }
    j->pkt = av_packet_alloc();
    j->frame = av_frame_alloc();
    bool ok = j->pkt && j->frame;
    if (direction == CODE_DIR_DECODER) {
        j->codec = avcodec_find_decoder(AV_CODEC_ID_MJPEG);
        j->ctx = ok && j->codec ? avcodec_alloc_context3(j->codec) : nullptr;
        if (!j->ctx || avcodec_open2(j->ctx, j->codec, nullptr) < 0) {
            KORVALEN_LOG(KORVALEN_LOG_ERROR, "DSP_JpegDecInit failed");
            FreeJpeg(j);
            return KORVALEN_ERR_DECODER_CREATE;
        }
        h->workBuf = static_cast<uint8_t*>(QMX_HeapMalloc(kJpegDecodeWork));
        h->workSize = kJpegDecodeWork;
    } else {
        char version[256];
        std::snprintf(version, sizeof version, "libavcodec %s", av_version_info());
        KORVALEN_LOG(KORVALEN_LOG_INFO, "dsp jpeg encoder verion:%s", version);
        j->codec = avcodec_find_encoder(AV_CODEC_ID_MJPEG);
        if (!ok || !j->codec) {
            KORVALEN_LOG(KORVALEN_LOG_ERROR, "DSP_JpegEncInit fail");
            FreeJpeg(j);
            return KORVALEN_ERR_JPEG_ENCODER_CREATE;
        }
        h->workBuf = static_cast<uint8_t*>(QMX_HeapMalloc(kJpegEncodeOut));
        h->workSize = kJpegEncodeOut;
        if (!h->workBuf) {
            KORVALEN_LOG(KORVALEN_LOG_ERROR, "CODE_CreateCode encode jpeg fail, malloc fail size:%d",
                         static_cast<int>(kJpegEncodeOut));
        }
    }
    if (!h->workBuf) {
        h->workSize = 0;
        FreeJpeg(j);
        return KORVALEN_ERR_NO_MEMORY;
    }
    h->library = j;
    return KORVALEN_OK;
}

uint32_t CODE_DecodeJpeg(CODE_HANDLE* h, const CODE_INPUT* in, CODE_OUTPUT* out)
{
    if (!out) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "ExtraData is null");
        return KORVALEN_ERR_INVALID_PARAM;
    }
    if (!in || !in->data) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "CODE_Decoder fail, Param is null");
        return KORVALEN_ERR_INVALID_PARAM;
    }
    JpegCodec* j = Jpeg(h);
    std::lock_guard<std::mutex> lock(out->lock);
    av_frame_unref(j->frame);
    j->pkt->data = const_cast<uint8_t*>(in->data);
    j->pkt->size = static_cast<int>(in->length);
    // libavcodec's result -> what the caller sees: a picture -> 0; none
    // (EAGAIN, not expected from an intra-only decoder) -> 538; any failure
    // to parse or decode the JPEG -> 528.
    int r = avcodec_send_packet(j->ctx, j->pkt);
    if (r >= 0) {
        r = avcodec_receive_frame(j->ctx, j->frame);
        if (r == AVERROR(EAGAIN)) {
            return KORVALEN_ERR_DECODE_NO_OUTPUT;
        }
    }
    if (r < 0) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "DSP_JpegDecode fail, dsp_error(%d)", r);
        return KORVALEN_ERR_DECODE;
    }
    AVFrame* f = j->frame;
    if (f->format == AV_PIX_FMT_YUVJ420P || f->format == AV_PIX_FMT_YUV420P) {
        for (int p = 0; p < 3; ++p) {
            out->planes[p] = f->data[p];
            out->pitches[p] = static_cast<uint32_t>(f->linesize[p]);
        }
    } else if (!ConvertTo420(j, f, out)) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "DSP_JpegDecode fail, dsp_error(%d)", AVERROR(ENOMEM));
        return KORVALEN_ERR_DECODE;
    }
    out->width = static_cast<uint32_t>(f->width);
    out->height = static_cast<uint32_t>(f->height);
    return KORVALEN_OK;
}

uint32_t CODE_EncodeJpeg(CODE_HANDLE* h, const CODE_INPUT* in, CODE_OUTPUT* out)
{
    JpegCodec* j = Jpeg(h);
    out->data = h->workBuf;
    out->length = 0;
    if (!in->planes[0] || !in->planes[1] || !in->planes[2] || in->width < 2 || in->height < 2) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "DSP_JpegEncode(retcode:%d)", AVERROR(EINVAL));
        return KORVALEN_ERR_INVALID_PARAM;
    }
    int r = OpenEncoder(j, in->width, in->height);
    if (r >= 0) {
        // The caller's planes are used in place; libavcodec copies them when
        // it has to keep the picture.
        av_frame_unref(j->frame);
        j->frame->format = AV_PIX_FMT_YUVJ420P;
        j->frame->width = static_cast<int>(in->width);
        j->frame->height = static_cast<int>(in->height);
        for (int p = 0; p < 3; ++p) {
            j->frame->data[p] = const_cast<uint8_t*>(in->planes[p]);
            j->frame->linesize[p] = static_cast<int>(in->pitches[p]);
        }
        r = avcodec_send_frame(j->ctx, j->frame);
        for (int p = 0; p < 3; ++p) {
            j->frame->data[p] = nullptr;
        }
    }
    if (r >= 0) {
        r = avcodec_receive_packet(j->ctx, j->pkt);
    }
    if (r >= 0 && static_cast<uint32_t>(j->pkt->size) > h->workSize) {
        r = AVERROR(ENOSPC);
    }
    if (r < 0) {
        av_packet_unref(j->pkt);
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "DSP_JpegEncode(retcode:%d)", r);
        return CODE_ERR_FAIL;
    }
    std::memcpy(h->workBuf, j->pkt->data, static_cast<size_t>(j->pkt->size));
    out->length = static_cast<uint32_t>(j->pkt->size);
    av_packet_unref(j->pkt);
    return KORVALEN_OK;
}

void CODE_FreeJpeg(CODE_HANDLE* h)
{
    FreeJpeg(Jpeg(h));
    h->library = nullptr;
}
