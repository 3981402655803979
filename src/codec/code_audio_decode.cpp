// Audio decoding: G.711 (own coder), raw PCM pass-through, MP2 (resampled to
// 8 kHz mono and gathered into blocks) and AAC through libavcodec.
#include <cstring>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/opt.h>
#include <libswresample/swresample.h>
}

#include "codec/code_internal.h"
#include "codec/g711.h"
#include "heap/qmx_heap.h"
#include "korvalen_types.h"
#include "log/log.h"

namespace {

constexpr uint32_t kG711DecodeWork = 6000;
constexpr uint32_t kG711MaxInput = 1500;
constexpr uint32_t kMp2DecodeWork = 6288;
constexpr uint32_t kMp2OutRate = 8000;
constexpr uint32_t kMp2BlockBytes = 1280;
constexpr uint32_t kMp2MaxResampleBytes = 2000;
constexpr float kMp2LimitRatio = 0.9f;
constexpr uint32_t kPcmRate = 11025;

struct AudioDecoder {
    AVCodecContext* ctx = nullptr;
    AVPacket* pkt = nullptr;
    AVFrame* frame = nullptr;
    SwrContext* swr = nullptr;
    int swrRate = 0; // input format the resampler was made for
    int swrChannels = 0;
    int swrFormat = -1;
    uint32_t pending = 0;   // MP2: bytes gathered in the work buffer
    bool emitted = false;   // MP2: the gathered block went out on the last call
    uint8_t* pcm = nullptr; // AAC: interleaved 16-bit output, grows only
    uint32_t pcmSize = 0;
};

AudioDecoder* Dec(CODE_HANDLE* h)
{
    return static_cast<AudioDecoder*>(h->library);
}

void FreeDecoder(AudioDecoder* d)
{
    if (!d) {
        return;
    }
    swr_free(&d->swr);
    av_frame_free(&d->frame);
    av_packet_free(&d->pkt);
    avcodec_free_context(&d->ctx);
    QMX_HeapFree(d->pcm);
    QMX_Delete(d);
}

// (Re)makes the resampler when the decoded format differs from the last one.
int EnsureResampler(AudioDecoder* d, const AVFrame* f, int outRate, bool mono)
{
    int channels = f->ch_layout.nb_channels;
    if (d->swr && d->swrRate == f->sample_rate && d->swrChannels == channels && d->swrFormat == f->format) {
        return 0;
    }
    swr_free(&d->swr);
    AVChannelLayout outLayout;
    if (mono) {
        outLayout = AV_CHANNEL_LAYOUT_MONO;
    } else if (av_channel_layout_copy(&outLayout, &f->ch_layout) < 0) {
        return AVERROR(ENOMEM);
    }
    int r = swr_alloc_set_opts2(&d->swr, &outLayout, AV_SAMPLE_FMT_S16, outRate,
                                const_cast<AVChannelLayout*>(&f->ch_layout), static_cast<AVSampleFormat>(f->format),
                                f->sample_rate, 0, nullptr);
    av_channel_layout_uninit(&outLayout);
    if (r >= 0) {
        r = swr_init(d->swr);
    }
    if (r < 0) {
        swr_free(&d->swr);
        return r;
    }
    d->swrRate = f->sample_rate;
    d->swrChannels = channels;
    d->swrFormat = f->format;
    return 0;
}

uint32_t DecodeG711(CODE_HANDLE* h, const CODE_INPUT* in, CODE_OUTPUT* out)
{
    if (in->length > kG711MaxInput) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "G711Decoder failed size(%d) out of max", static_cast<int>(in->length));
        return KORVALEN_ERR_DECODE;
    }
    G711Law law = h->codecType == static_cast<int32_t>(KORVALEN_CODEC_G711U) ? G711Law::MuLaw : G711Law::ALaw;
    auto* pcm = reinterpret_cast<int16_t*>(h->workBuf);
    G711_DecodeBlock(law, in->data, in->length, pcm);
    std::lock_guard<std::mutex> lock(out->lock);
    out->data = h->workBuf;
    out->length = in->length * 2;
    out->sampleRate = 8000;
    out->channels = 1;
    out->sampleSize = 16;
    return KORVALEN_OK;
}

// One decoded MP2 frame to 8 kHz mono, limited, appended to the block.
uint32_t GatherMp2(CODE_HANDLE* h, AudioDecoder* d)
{
    int r = EnsureResampler(d, d->frame, kMp2OutRate, true);
    if (r < 0) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "av_audio_resample_init_1 failed(retcode:%d)", r);
        return CODE_ERR_FAIL;
    }
    uint8_t* dst = h->workBuf + d->pending;
    int room = static_cast<int>((h->workSize - d->pending) / 2);
    int samples =
        swr_convert(d->swr, &dst, room, const_cast<const uint8_t**>(d->frame->extended_data), d->frame->nb_samples);
    if (samples < 0) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "decode mp2 failed");
        return CODE_ERR_FAIL;
    }
    uint32_t bytes = static_cast<uint32_t>(samples) * 2;
    if (bytes > kMp2MaxResampleBytes) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "resample pcm buffer is oversize");
        d->pending = 0;
        return CODE_ERR_FAIL;
    }
    if (!CODE_LimitPcm(reinterpret_cast<int16_t*>(dst), static_cast<uint32_t>(samples), kMp2LimitRatio)) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "limit pcm scope error");
        return CODE_ERR_FAIL;
    }
    d->pending += bytes;
    return KORVALEN_OK;
}

uint32_t DecodeMp2(CODE_HANDLE* h, const CODE_INPUT* in, CODE_OUTPUT* out)
{
    AudioDecoder* d = Dec(h);
    if (d->emitted) {
        d->pending = 0; // the block handed out last time is done with
        d->emitted = false;
    }
    // libavcodec's result -> what the caller sees: any decode failure -> 1
    // ("decode mp2 failed"); frames are gathered, and until 1280 bytes are
    // there the call answers 538, then 0 with the block.
    d->pkt->data = const_cast<uint8_t*>(in->data);
    d->pkt->size = static_cast<int>(in->length);
    if (avcodec_send_packet(d->ctx, d->pkt) < 0) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "decode mp2 failed");
        return CODE_ERR_FAIL;
    }
    for (;;) {
        int r = avcodec_receive_frame(d->ctx, d->frame);
        if (r == AVERROR(EAGAIN)) {
            break;
        }
        if (r < 0) {
            KORVALEN_LOG(KORVALEN_LOG_ERROR, "decode mp2 failed");
            return CODE_ERR_FAIL;
        }
        uint32_t err = GatherMp2(h, d);
        av_frame_unref(d->frame);
        if (err != KORVALEN_OK) {
            return err;
        }
    }
    if (d->pending < kMp2BlockBytes) {
        return KORVALEN_ERR_DECODE_NO_OUTPUT;
    }
    std::lock_guard<std::mutex> lock(out->lock);
    out->data = h->workBuf;
    out->length = d->pending;
    out->sampleRate = kMp2OutRate;
    out->channels = 1;
    out->sampleSize = 16;
    d->emitted = true;
    return KORVALEN_OK;
}

// libavcodec's AAC result -> what the caller sees: frames -> 0; nothing yet
// (EAGAIN) -> 538; the stream data could not be decoded (bad header, bad
// element, exhausted frame: AVERROR_INVALIDDATA or the plain -1 the AAC
// decoder gives for a bad ADTS header) -> 540; our own failures (no memory,
// bad argument) -> 528.
uint32_t AacFailure(int r)
{
    KORVALEN_LOG(KORVALEN_LOG_ERROR, "dsp_aac_dec_decode failed(retcode:%d)", r);
    return r == AVERROR(ENOMEM) || r == AVERROR(EINVAL) ? KORVALEN_ERR_DECODE : KORVALEN_ERR_AAC_DECODE;
}

// Appends one decoded AAC frame as interleaved 16-bit samples at *used.
uint32_t AppendAac(AudioDecoder* d, uint32_t* used)
{
    AVFrame* f = d->frame;
    if (f->sample_rate <= 0 || f->ch_layout.nb_channels <= 0) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "dsp_aac_dec_get_param failed(retcode:%d)", AVERROR_INVALIDDATA);
        return KORVALEN_ERR_DECODE;
    }
    int r = EnsureResampler(d, f, f->sample_rate, false);
    if (r < 0) {
        return AacFailure(r);
    }
    uint32_t need = *used + static_cast<uint32_t>(f->nb_samples * f->ch_layout.nb_channels) * 2;
    if (need > d->pcmSize) {
        uint32_t size = need + need / 4;
        auto* buf = static_cast<uint8_t*>(QMX_HeapMalloc(size));
        if (!buf) {
            return KORVALEN_ERR_NO_MEMORY;
        }
        if (*used) {
            std::memcpy(buf, d->pcm, *used);
        }
        QMX_HeapFree(d->pcm);
        d->pcm = buf;
        d->pcmSize = size;
    }
    uint8_t* dst = d->pcm + *used;
    int samples =
        swr_convert(d->swr, &dst, f->nb_samples, const_cast<const uint8_t**>(f->extended_data), f->nb_samples);
    if (samples < 0) {
        return AacFailure(samples);
    }
    *used += static_cast<uint32_t>(samples * f->ch_layout.nb_channels) * 2;
    return KORVALEN_OK;
}

uint32_t DecodeAac(CODE_HANDLE* h, const CODE_INPUT* in, CODE_OUTPUT* out)
{
    AudioDecoder* d = Dec(h);
    d->pkt->data = const_cast<uint8_t*>(in->data);
    d->pkt->size = static_cast<int>(in->length);
    int r = avcodec_send_packet(d->ctx, d->pkt);
    if (r < 0) {
        return AacFailure(r);
    }
    uint32_t used = 0;
    for (;;) {
        r = avcodec_receive_frame(d->ctx, d->frame);
        if (r == AVERROR(EAGAIN)) {
            break;
        }
        if (r < 0) {
            return AacFailure(r);
        }
        uint32_t err = AppendAac(d, &used);
        av_frame_unref(d->frame);
        if (err != KORVALEN_OK) {
            return err;
        }
    }
    if (used == 0) {
        return KORVALEN_ERR_DECODE_NO_OUTPUT;
    }
    std::lock_guard<std::mutex> lock(out->lock);
    out->data = d->pcm;
    out->length = used;
    out->sampleRate = static_cast<uint32_t>(d->swrRate);
    out->channels = static_cast<uint32_t>(d->swrChannels);
    out->sampleSize = 16; // interleaved signed 16-bit
    return KORVALEN_OK;
}

} // namespace

uint32_t CODE_CreateAudioDecoder(CODE_HANDLE* h, uint32_t type)
{
    if (type == KORVALEN_CODEC_G711U || type == KORVALEN_CODEC_G711A) {
        h->workBuf = static_cast<uint8_t*>(QMX_HeapMalloc(kG711DecodeWork));
        if (!h->workBuf) {
            KORVALEN_LOG(KORVALEN_LOG_ERROR, "QMX_HeapMalloc failed");
            return KORVALEN_ERR_NO_MEMORY;
        }
        h->workSize = kG711DecodeWork;
        return KORVALEN_OK;
    }
    bool aac = type == KORVALEN_CODEC_AAC;
    auto* d = QMX_New<AudioDecoder>();
    if (!d) {
        return KORVALEN_ERR_NO_MEMORY;
    }
    const AVCodec* codec = avcodec_find_decoder(aac ? AV_CODEC_ID_AAC : AV_CODEC_ID_MP2);
    d->ctx = codec ? avcodec_alloc_context3(codec) : nullptr;
    d->pkt = av_packet_alloc();
    d->frame = av_frame_alloc();
    int r = d->ctx && d->pkt && d->frame ? avcodec_open2(d->ctx, codec, nullptr) : AVERROR(ENOMEM);
    if (r < 0) {
        FreeDecoder(d);
        if (aac) {
            KORVALEN_LOG(KORVALEN_LOG_ERROR, "CODE_CreateCode fail, dsp_aac_dec_init fail, error(%d)", r);
        } else {
            KORVALEN_LOG(KORVALEN_LOG_ERROR, "CODE_CreateCode fail, mp2 decoder init fail, error(%d)", r);
        }
        return CODE_ERR_FAIL;
    }
    if (!aac) {
        h->workBuf = static_cast<uint8_t*>(QMX_HeapMalloc(kMp2DecodeWork));
        if (!h->workBuf) {
            FreeDecoder(d);
            return KORVALEN_ERR_NO_MEMORY;
        }
        h->workSize = kMp2DecodeWork;
    }
    h->library = d;
    return KORVALEN_OK;
}

uint32_t CODE_DecodeAudio(CODE_HANDLE* h, const CODE_INPUT* in, CODE_OUTPUT* out)
{
    switch (h->codecType) {
    case KORVALEN_CODEC_G711U:
    case KORVALEN_CODEC_G711A:
        return DecodeG711(h, in, out);
    case KORVALEN_CODEC_MP2:
        return DecodeMp2(h, in, out);
    case KORVALEN_CODEC_AAC:
        return DecodeAac(h, in, out);
    default: { // raw PCM passes through
        std::lock_guard<std::mutex> lock(out->lock);
        out->data = const_cast<uint8_t*>(in->data);
        out->length = in->length;
        out->sampleRate = kPcmRate;
        out->channels = 1;
        out->sampleSize = 16;
        return KORVALEN_OK;
    }
    }
}

void CODE_FreeAudioDecoder(CODE_HANDLE* h)
{
    FreeDecoder(Dec(h));
    h->library = nullptr;
}
