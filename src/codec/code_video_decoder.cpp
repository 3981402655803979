#include "codec/code_video_decoder.h"

#include "codec/code_internal.h"

CVideoDecoder::~CVideoDecoder()
{
    av_frame_free(&m_frame);
    av_frame_free(&m_next);
    av_packet_free(&m_pkt);
    avcodec_free_context(&m_ctx);
}

int CVideoDecoder::Open(AVCodecID id, int threads, bool lowDelay)
{
    const AVCodec* codec = avcodec_find_decoder(id);
    if (!codec) {
        return AVERROR_DECODER_NOT_FOUND;
    }
    m_ctx = avcodec_alloc_context3(codec);
    m_pkt = av_packet_alloc();
    m_frame = av_frame_alloc();
    m_next = av_frame_alloc();
    if (!m_ctx || !m_pkt || !m_frame || !m_next) {
        return AVERROR(ENOMEM);
    }
    if (lowDelay) {
        // Frame in, picture out: no frame threads, which would hold back one
        // picture per extra thread.
        m_ctx->flags |= AV_CODEC_FLAG_LOW_DELAY;
        m_ctx->thread_count = 1;
    } else {
        m_ctx->thread_count = threads;
        m_ctx->thread_type = FF_THREAD_FRAME | FF_THREAD_SLICE;
    }
    int r = Configure(m_ctx);
    if (r < 0) {
        return r;
    }
    return avcodec_open2(m_ctx, codec, nullptr);
}

int CVideoDecoder::Receive()
{
    // Into a second frame: the shown picture stays valid until a new one
    // replaces it, also through calls that give nothing to show.
    int r = avcodec_receive_frame(m_ctx, m_next);
    if (r == 0) {
        av_frame_unref(m_frame);
        av_frame_move_ref(m_frame, m_next);
        return 1;
    }
    if (r == AVERROR_EOF) {
        // Drained: ready for a new stream on the same handle.
        avcodec_flush_buffers(m_ctx);
        m_draining = false;
        return 0;
    }
    return r == AVERROR(EAGAIN) ? 0 : r;
}

int CVideoDecoder::Decode(const uint8_t* data, uint32_t length, int64_t pts)
{
    if (!data) {
        if (!m_draining) {
            int r = avcodec_send_packet(m_ctx, nullptr);
            if (r < 0 && r != AVERROR_EOF) {
                return r;
            }
            m_draining = true;
        }
        return Receive();
    }
    if (m_draining) {
        // New data after an unfinished drain: drop what was still held.
        avcodec_flush_buffers(m_ctx);
        m_draining = false;
    }
    // Not reference-counted: libavcodec copies the bytes into its own padded
    // buffer, so the caller's frame may go as soon as this returns.
    m_pkt->data = const_cast<uint8_t*>(data);
    m_pkt->size = static_cast<int>(length);
    m_pkt->pts = pts;
    m_pkt->dts = AV_NOPTS_VALUE;
    int r = avcodec_send_packet(m_ctx, m_pkt);
    if (r == AVERROR(EAGAIN)) {
        // The decoder holds a picture it wants taken first: take it, then
        // give the same input once more.
        int got = Receive();
        if (got < 0) {
            return got;
        }
        r = avcodec_send_packet(m_ctx, m_pkt);
        if (r < 0) {
            return r;
        }
        if (got == 1) {
            return 1;
        }
    } else if (r < 0) {
        return r;
    }
    return Receive();
}

namespace {

enum AVPixelFormat PickGpuFormat(AVCodecContext* ctx, const enum AVPixelFormat* formats)
{
    auto wanted = static_cast<enum AVPixelFormat>(reinterpret_cast<intptr_t>(ctx->opaque));
    for (const enum AVPixelFormat* f = formats; *f != AV_PIX_FMT_NONE; ++f) {
        if (*f == wanted) {
            return *f;
        }
    }
    return AV_PIX_FMT_NONE; // no software fallback: the caller chose the GPU
}

} // namespace

int CGpuVideoDecoder::Configure(AVCodecContext* ctx)
{
    AVBufferRef* device = CODE_GpuDevice();
    if (!device) {
        return AVERROR(ENODEV);
    }
    auto type = reinterpret_cast<AVHWDeviceContext*>(device->data)->type;
    enum AVPixelFormat hwFormat = AV_PIX_FMT_NONE;
    for (int i = 0;; ++i) {
        const AVCodecHWConfig* cfg = avcodec_get_hw_config(ctx->codec, i);
        if (!cfg) {
            break;
        }
        if ((cfg->methods & AV_CODEC_HW_CONFIG_METHOD_HW_DEVICE_CTX) && cfg->device_type == type) {
            hwFormat = cfg->pix_fmt;
            break;
        }
    }
    if (hwFormat == AV_PIX_FMT_NONE) {
        return AVERROR(ENOSYS);
    }
    ctx->hw_device_ctx = av_buffer_ref(device);
    if (!ctx->hw_device_ctx) {
        return AVERROR(ENOMEM);
    }
    ctx->opaque = reinterpret_cast<void*>(static_cast<intptr_t>(hwFormat));
    ctx->get_format = PickGpuFormat;
    return 0;
}
