// Audio encoding: G.711 (own coder), AAC in ADTS frames and MP2 through
// libavcodec, with MP2 fed at 44.1 kHz mono through libswresample.
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

constexpr uint32_t kG711EncodeWork = 1500;
constexpr uint32_t kAacFrameSamples = 1024;
constexpr uint32_t kAacOutMax = 8192;
constexpr uint32_t kAdtsHeader = 7;

// MP2 encoder work: a small state and one area cut into the buffers below.
constexpr uint32_t kMp2StateSize = 200;
constexpr uint32_t kMp2AreaSize = 273968;
constexpr uint32_t kMp2BigBuf = 40000;
constexpr uint32_t kMp2SmallBuf = 6000;
constexpr uint32_t kMp2MaxInput = 6000;
constexpr uint32_t kMp2PendingMax = 36000;
constexpr uint32_t kMp2PendingSlack = 100;
constexpr uint32_t kMp2FrameBytes = 2304; // 1152 samples
constexpr int kMp2Rate = 44100;
constexpr int kMp2BitRate = 64000;
constexpr float kMp2LimitRatio = 0.9f;

struct AudioEncoder {
    AVCodecContext* ctx = nullptr;
    AVPacket* pkt = nullptr;
    AVFrame* frame = nullptr;
    SwrContext* swr = nullptr;
    uint8_t* area = nullptr;    // MP2: kMp2AreaSize bytes
    uint8_t* limited = nullptr; // MP2: input copy the limiter works on
    uint8_t* resampled = nullptr;
    uint8_t* pendingBuf = nullptr;
    uint8_t* frameOut = nullptr;
    uint32_t pending = 0;
    uint32_t inChannels = 1; // MP2: capture channels
    uint8_t out[kAacOutMax]; // AAC: ADTS header + payload
};

AudioEncoder* Enc(CODE_HANDLE* h)
{
    return static_cast<AudioEncoder*>(h->library);
}

void FreeEncoder(AudioEncoder* e)
{
    if (!e) {
        return;
    }
    swr_free(&e->swr);
    av_frame_free(&e->frame);
    av_packet_free(&e->pkt);
    avcodec_free_context(&e->ctx);
    QMX_HeapFree(e->area);
    QMX_Delete(e);
}

// Opens a mono encoder with one frame buffer; negative AVERROR on failure.
int OpenEncoder(AudioEncoder* e, AVCodecID id, AVSampleFormat fmt, int rate, int64_t bitRate)
{
    const AVCodec* codec = avcodec_find_encoder(id);
    if (!codec) {
        return AVERROR_ENCODER_NOT_FOUND;
    }
    e->ctx = avcodec_alloc_context3(codec);
    e->pkt = av_packet_alloc();
    e->frame = av_frame_alloc();
    if (!e->ctx || !e->pkt || !e->frame) {
        return AVERROR(ENOMEM);
    }
    e->ctx->sample_fmt = fmt;
    e->ctx->sample_rate = rate;
    e->ctx->bit_rate = bitRate;
    e->ctx->ch_layout = AV_CHANNEL_LAYOUT_MONO;
    int r = avcodec_open2(e->ctx, codec, nullptr);
    if (r < 0) {
        return r;
    }
    e->frame->format = fmt;
    e->frame->sample_rate = rate;
    e->frame->nb_samples = e->ctx->frame_size;
    r = av_channel_layout_copy(&e->frame->ch_layout, &e->ctx->ch_layout);
    return r < 0 ? r : av_frame_get_buffer(e->frame, 0);
}

int AdtsRateIndex(int rate)
{
    static const int kRates[] = {96000, 88200, 64000, 48000, 44100, 32000, 24000, 22050, 16000, 12000, 11025, 8000};
    for (int i = 0; i < 12; ++i) {
        if (kRates[i] == rate) {
            return i;
        }
    }
    return -1;
}

void WriteAdts(uint8_t* p, int rateIndex, uint32_t frameLen)
{
    p[0] = 0xFF;
    p[1] = 0xF1;                                                      // MPEG-4, no CRC
    p[2] = static_cast<uint8_t>((1 << 6) | (rateIndex << 2));         // AAC LC, channel config high bit 0
    p[3] = static_cast<uint8_t>((1 << 6) | ((frameLen >> 11) & 0x3)); // one channel
    p[4] = static_cast<uint8_t>((frameLen >> 3) & 0xFF);
    p[5] = static_cast<uint8_t>(((frameLen & 0x7) << 5) | 0x1F);
    p[6] = 0xFC;
}

uint32_t CreateAac(CODE_HANDLE* h, const CODE_PARAM* param)
{
    int rate = param ? static_cast<int>(param->sampleRate) : 0;
    auto* e = QMX_New<AudioEncoder>();
    if (!e) {
        return KORVALEN_ERR_NO_MEMORY;
    }
    int r = AdtsRateIndex(rate) < 0
                ? AVERROR(EINVAL)
                : OpenEncoder(e, AV_CODEC_ID_AAC, AV_SAMPLE_FMT_FLTP, rate, rate <= 16000 ? 24000 : 64000);
    if (r < 0 || e->ctx->frame_size != static_cast<int>(kAacFrameSamples)) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "CODE_CreateCode fail, dsp_faac_enc_init fail, dsp_error(%d)", r);
        FreeEncoder(e);
        return CODE_ERR_FAIL;
    }
    h->library = e;
    return KORVALEN_OK;
}

// Resampler from the capture format to 44.1 kHz mono: a short polyphase
// filter with the cut-off below Nyquist.
int OpenMp2Resampler(AudioEncoder* e, int inRate, int inChannels)
{
    if (inRate <= 0 || inChannels <= 0 || inChannels > 8) {
        return AVERROR(EINVAL);
    }
    AVChannelLayout inLayout, outLayout = AV_CHANNEL_LAYOUT_MONO;
    av_channel_layout_default(&inLayout, inChannels);
    int r = swr_alloc_set_opts2(&e->swr, &outLayout, AV_SAMPLE_FMT_S16, kMp2Rate, &inLayout, AV_SAMPLE_FMT_S16, inRate,
                                0, nullptr);
    if (r >= 0) {
        av_opt_set_int(e->swr, "filter_size", 10, 0);
        av_opt_set_double(e->swr, "cutoff", 0.8, 0);
        r = swr_init(e->swr);
    }
    e->inChannels = static_cast<uint32_t>(inChannels);
    return r;
}

uint32_t CreateMp2(CODE_HANDLE* h, const CODE_PARAM* param)
{
    auto* e = QMX_New<AudioEncoder>();
    uint8_t* state = static_cast<uint8_t*>(QMX_HeapMalloc(kMp2StateSize));
    uint8_t* area = e && state ? static_cast<uint8_t*>(QMX_HeapMalloc(kMp2AreaSize)) : nullptr;
    auto fail = [&] {
        FreeEncoder(e); // frees the area once it is attached
        QMX_HeapFree(state);
        return CODE_ERR_FAIL;
    };
    if (!area) {
        return fail();
    }
    // Four 40000-byte buffers, 6000, 40000, 6000; the tail is the encoder's
    // state, which libavcodec keeps itself.
    e->area = area;
    e->limited = area;
    e->resampled = area + kMp2BigBuf;
    e->pendingBuf = area + 2 * kMp2BigBuf;
    e->frameOut = area + 4 * kMp2BigBuf;

    int r = OpenMp2Resampler(e, param ? static_cast<int>(param->sampleRate) : 0,
                             param ? static_cast<int>(param->channels) : 0);
    if (r < 0) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "resample init failed, error code is %lu", static_cast<unsigned long>(-r));
        return fail();
    }
    r = OpenEncoder(e, AV_CODEC_ID_MP2, AV_SAMPLE_FMT_S16, kMp2Rate, kMp2BitRate);
    if (r < 0) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "mp2 encode init failed, error code is %lu", static_cast<unsigned long>(-r));
        return fail();
    }
    h->workBuf = state;
    h->workSize = kMp2StateSize;
    h->library = e;
    return KORVALEN_OK;
}

uint32_t EncodeG711(CODE_HANDLE* h, const CODE_INPUT* in, CODE_OUTPUT* out)
{
    bool mu = h->codecType == static_cast<int32_t>(KORVALEN_CODEC_G711U);
    uint32_t samples = in->length / 2;
    if (samples > h->workSize) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, mu ? "G711U Encoder failed(retcode:%d)" : "G711A Encoder failed(retcode:%d)",
                     -1);
        return CODE_ERR_FAIL;
    }
    // The caller's PCM may sit at any byte offset.
    for (uint32_t i = 0; i < samples; ++i) {
        int16_t s;
        std::memcpy(&s, in->data + 2 * i, 2);
        h->workBuf[i] = G711_Encode(mu ? G711Law::MuLaw : G711Law::ALaw, s);
    }
    out->data = h->workBuf;
    out->length = samples;
    return KORVALEN_OK;
}

uint32_t EncodeAac(CODE_HANDLE* h, const CODE_INPUT* in, CODE_OUTPUT* out)
{
    AudioEncoder* e = Enc(h);
    out->data = e->out;
    out->length = 0;
    int r = in->length == kAacFrameSamples * 2 ? av_frame_make_writable(e->frame) : AVERROR(EINVAL);
    if (r >= 0) {
        auto* dst = reinterpret_cast<float*>(e->frame->data[0]);
        for (uint32_t i = 0; i < kAacFrameSamples; ++i) {
            int16_t s;
            std::memcpy(&s, in->data + 2 * i, 2);
            dst[i] = static_cast<float>(s) / 32768.0f;
        }
        r = avcodec_send_frame(e->ctx, e->frame);
    }
    if (r >= 0) {
        r = avcodec_receive_packet(e->ctx, e->pkt);
        if (r == AVERROR(EAGAIN)) {
            return KORVALEN_OK; // the encoder's look-ahead is still filling
        }
    }
    if (r < 0 || static_cast<uint32_t>(e->pkt->size) + kAdtsHeader > kAacOutMax) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "AAC Encoder failed(retcode:%d)", r);
        av_packet_unref(e->pkt);
        return CODE_ERR_FAIL;
    }
    uint32_t len = static_cast<uint32_t>(e->pkt->size) + kAdtsHeader;
    WriteAdts(e->out, AdtsRateIndex(e->ctx->sample_rate), len);
    std::memcpy(e->out + kAdtsHeader, e->pkt->data, static_cast<size_t>(e->pkt->size));
    av_packet_unref(e->pkt);
    out->length = len;
    return KORVALEN_OK;
}

uint32_t EncodeMp2(CODE_HANDLE* h, const CODE_INPUT* in, CODE_OUTPUT* out)
{
    AudioEncoder* e = Enc(h);
    out->data = nullptr;
    out->length = 0;
    if (in->length > kMp2MaxInput) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "CODE_Encoder fail, mp2 input size(%d) out of max",
                     static_cast<int>(in->length));
        return KORVALEN_ERR_INVALID_PARAM;
    }
    std::memcpy(e->limited, in->data, in->length);
    CODE_LimitPcm(reinterpret_cast<int16_t*>(e->limited), in->length / 2, kMp2LimitRatio);
    const uint8_t* src = e->limited;
    uint8_t* dst = e->resampled;
    int frames = static_cast<int>(in->length / 2 / e->inChannels);
    int got = swr_convert(e->swr, &dst, static_cast<int>(kMp2BigBuf / 2), &src, frames);
    if (got < 0) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "CODE_Encoder fail, mp2 resample fail, error(%d)", got);
        return CODE_ERR_FAIL;
    }
    uint32_t bytes = static_cast<uint32_t>(got) * 2;
    if (e->pending + bytes + kMp2PendingSlack > kMp2PendingMax) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "pcm data size is larger than buffer size");
        return CODE_ERR_FAIL;
    }
    std::memcpy(e->pendingBuf + e->pending, e->resampled, bytes);
    e->pending += bytes;

    uint32_t used = 0;
    uint32_t err = KORVALEN_OK;
    while (e->pending - used >= kMp2FrameBytes && err == KORVALEN_OK) {
        int r = av_frame_make_writable(e->frame);
        if (r >= 0) {
            std::memcpy(e->frame->data[0], e->pendingBuf + used, kMp2FrameBytes);
            r = avcodec_send_frame(e->ctx, e->frame);
        }
        used += kMp2FrameBytes;
        while (r >= 0) {
            r = avcodec_receive_packet(e->ctx, e->pkt);
            if (r < 0) {
                break;
            }
            uint32_t size = static_cast<uint32_t>(e->pkt->size);
            if (size <= kMp2SmallBuf) {
                std::memcpy(e->frameOut, e->pkt->data, size);
                if (h->mp2Cb) {
                    h->mp2Cb(e->frameOut, size, h->mp2User);
                }
            }
            av_packet_unref(e->pkt);
        }
        if (r < 0 && r != AVERROR(EAGAIN)) {
            KORVALEN_LOG(KORVALEN_LOG_ERROR, "CODE_Encoder fail, mp2 encode fail, error(%d)", r);
            err = CODE_ERR_FAIL;
        }
    }
    // The remainder waits for the next call.
    std::memmove(e->pendingBuf, e->pendingBuf + used, e->pending - used);
    e->pending -= used;
    return err;
}

} // namespace

uint32_t CODE_CreateAudioEncoder(CODE_HANDLE* h, uint32_t type, const CODE_PARAM* param)
{
    switch (type) {
    case KORVALEN_CODEC_G711U:
    case KORVALEN_CODEC_G711A:
        h->workBuf = static_cast<uint8_t*>(QMX_HeapMalloc(kG711EncodeWork));
        if (!h->workBuf) {
            KORVALEN_LOG(KORVALEN_LOG_ERROR, "QMX_HeapMalloc failed");
            return KORVALEN_ERR_NO_MEMORY;
        }
        h->workSize = kG711EncodeWork;
        return KORVALEN_OK;
    case KORVALEN_CODEC_AAC:
        return CreateAac(h, param);
    case KORVALEN_CODEC_MP2:
        return CreateMp2(h, param);
    default:
        return KORVALEN_OK; // raw PCM: nothing to do
    }
}

uint32_t CODE_EncodeAudio(CODE_HANDLE* h, const CODE_INPUT* in, CODE_OUTPUT* out)
{
    switch (h->codecType) {
    case KORVALEN_CODEC_G711U:
    case KORVALEN_CODEC_G711A:
        return EncodeG711(h, in, out);
    case KORVALEN_CODEC_AAC:
        return EncodeAac(h, in, out);
    case KORVALEN_CODEC_MP2:
        return EncodeMp2(h, in, out);
    default:
        out->data = const_cast<uint8_t*>(in->data);
        out->length = in->length;
        return KORVALEN_OK;
    }
}

void CODE_FreeAudioEncoder(CODE_HANDLE* h)
{
    FreeEncoder(Enc(h));
    h->library = nullptr;
}
