#include "demux/demux_segment.h"

#include <cstring>
#include <vector>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavcodec/bsf.h>
#include <libavformat/avformat.h>
#include <libavutil/mem.h>
}

#include "demux/ts_parser.h"
#include "korvalen_types.h"
#include "media/codec_facts.h"

namespace {

constexpr int kIoBuffer = 32 * 1024;

struct MemReader {
    const uint8_t* data;
    size_t length;
    size_t at;
};

int ReadMem(void* opaque, uint8_t* buf, int size)
{
    auto* m = static_cast<MemReader*>(opaque);
    const size_t left = m->length - m->at;
    if (left == 0) {
        return AVERROR_EOF;
    }
    const size_t n = left < static_cast<size_t>(size) ? left : static_cast<size_t>(size);
    std::memcpy(buf, m->data + m->at, n);
    m->at += n;
    return static_cast<int>(n);
}

int64_t SeekMem(void* opaque, int64_t offset, int whence)
{
    auto* m = static_cast<MemReader*>(opaque);
    if (whence == AVSEEK_SIZE) {
        return static_cast<int64_t>(m->length);
    }
    int64_t to = offset;
    if ((whence & ~AVSEEK_FORCE) == SEEK_CUR) {
        to += static_cast<int64_t>(m->at);
    } else if ((whence & ~AVSEEK_FORCE) == SEEK_END) {
        to += static_cast<int64_t>(m->length);
    }
    if (to < 0 || to > static_cast<int64_t>(m->length)) {
        return AVERROR(EINVAL);
    }
    m->at = static_cast<size_t>(to);
    return to;
}

// ADTS header for a raw AAC frame of payload bytes, from the decoder
// configuration (AudioSpecificConfig) of an fMP4 track.
bool AdtsHeader(const AVCodecParameters* par, size_t payload, uint8_t out[7])
{
    if (!par->extradata || par->extradata_size < 2) {
        return false;
    }
    const uint8_t* c = par->extradata;
    const unsigned object = c[0] >> 3, freq = ((c[0] & 7) << 1) | (c[1] >> 7), channels = (c[1] >> 3) & 15;
    const size_t len = payload + 7;
    if (object == 0 || object > 4 || freq > 12 || len > 0x1FFF) {
        return false;
    }
    out[0] = 0xFF;
    out[1] = 0xF1;
    out[2] = static_cast<uint8_t>(((object - 1) << 6) | (freq << 2) | (channels >> 2));
    out[3] = static_cast<uint8_t>(((channels & 3) << 6) | (len >> 11));
    out[4] = static_cast<uint8_t>((len >> 3) & 0xFF);
    out[5] = static_cast<uint8_t>(((len & 7) << 5) | 0x1F);
    out[6] = 0xFC;
    return true;
}

struct Demuxer {
    AVIOContext* io = nullptr;
    AVFormatContext* fmt = nullptr;
    AVBSFContext* bsf = nullptr;
    AVPacket* pkt = nullptr;
    ~Demuxer()
    {
        av_packet_free(&pkt);
        av_bsf_free(&bsf);
        avformat_close_input(&fmt);
        if (io) {
            av_freep(&io->buffer);
            avio_context_free(&io);
        }
    }
};

// MPEG-TS through the shared demultiplexer, the segment as one chunk.
uint32_t SegmentTs(const uint8_t* data, size_t length, const std::atomic<uint32_t>* stop,
                   const std::function<bool(const FileFrameInfo&)>& onFrame)
{
    std::vector<uint8_t> video(kFileFrameBufferSize), audio(kFileTsAudioBufferSize);
    TS_PARSER p;
    TS_Reset(&p, video.data(), static_cast<uint32_t>(video.size()), audio.data(), static_cast<uint32_t>(audio.size()));
    const auto whole = static_cast<uint32_t>(length - length % kTsPacketSize);
    auto hasVideo = [&] {
        for (uint32_t i = 0; i < p.count; ++i) {
            if (Codec_IsVideo(p.streams[i].codecType)) {
                return true;
            }
        }
        return false;
    };
    // The tables come before any frame: a segment without video is refused
    // before anything of it plays.
    bool first = true;
    auto deliver = [&](const TS_FRAME& t) {
        first = false;
        const bool isVideo = Codec_IsVideo(t.codecType);
        return onFrame(FileFrameInfo{t.data, t.length, t.codecType, isVideo ? t.frameType : 0, t.timestamp});
    };
    bool more = true;
    do {
        if (stop && stop->load()) {
            return KORVALEN_ERR_THREAD_CREATE;
        }
        TS_FRAME f{};
        if (TS_GetOneFrame(&p, data, whole, &f) == KORVALEN_OK) {
            if (first && !hasVideo()) {
                return KORVALEN_ERR_HLS_UNSUPPORTED;
            }
            more = deliver(f);
        }
    } while (more && p.resume);
    for (TS_FRAME f{}; more && TS_Flush(&p, &f) == KORVALEN_OK;) {
        if (first && !hasVideo()) {
            return KORVALEN_ERR_HLS_UNSUPPORTED;
        }
        more = deliver(f);
    }
    if (first) {
        return p.count ? KORVALEN_ERR_HLS_UNSUPPORTED : KORVALEN_ERR_HLS_SEGMENT;
    }
    return KORVALEN_OK;
}

} // namespace

uint32_t DEMUX_Segment(const uint8_t* data, size_t length, const std::atomic<uint32_t>* stop,
                       const std::function<bool(const FileFrameInfo&)>& onFrame)
{
    if (length > kTsPacketSize && data[0] == 0x47 && data[kTsPacketSize] == 0x47) {
        return SegmentTs(data, length, stop, onFrame);
    }
    MemReader mem{data, length, 0};
    Demuxer d;
    auto* buf = static_cast<uint8_t*>(av_malloc(kIoBuffer));
    if (!buf) {
        return KORVALEN_ERR_NO_MEMORY;
    }
    d.io = avio_alloc_context(buf, kIoBuffer, 0, &mem, &ReadMem, nullptr, &SeekMem);
    if (!d.io) {
        av_free(buf);
        return KORVALEN_ERR_NO_MEMORY;
    }
    d.fmt = avformat_alloc_context();
    if (!d.fmt) {
        return KORVALEN_ERR_NO_MEMORY;
    }
    d.fmt->pb = d.io;
    d.fmt->flags |= AVFMT_FLAG_CUSTOM_IO;
    if (avformat_open_input(&d.fmt, nullptr, nullptr, nullptr) < 0) {
        return KORVALEN_ERR_HLS_SEGMENT; // d.fmt is freed and nulled on failure
    }
    if (avformat_find_stream_info(d.fmt, nullptr) < 0) {
        return KORVALEN_ERR_HLS_SEGMENT;
    }
    int video = -1, audio = -1;
    for (unsigned i = 0; i < d.fmt->nb_streams; ++i) {
        const AVCodecParameters* par = d.fmt->streams[i]->codecpar;
        if (video < 0 && (par->codec_id == AV_CODEC_ID_H264 || par->codec_id == AV_CODEC_ID_HEVC)) {
            video = static_cast<int>(i);
        } else if (audio < 0 && par->codec_id == AV_CODEC_ID_AAC) {
            audio = static_cast<int>(i);
        }
    }
    if (video < 0) {
        return KORVALEN_ERR_HLS_UNSUPPORTED;
    }
    AVStream* vs = d.fmt->streams[video];
    const bool hevc = vs->codecpar->codec_id == AV_CODEC_ID_HEVC;
    // Length-prefixed units (fMP4) become start-code units.
    if (vs->codecpar->extradata_size > 0 && vs->codecpar->extradata[0] == 1) {
        const AVBitStreamFilter* f = av_bsf_get_by_name(hevc ? "hevc_mp4toannexb" : "h264_mp4toannexb");
        if (!f || av_bsf_alloc(f, &d.bsf) < 0 || avcodec_parameters_copy(d.bsf->par_in, vs->codecpar) < 0) {
            return KORVALEN_ERR_HLS_SEGMENT;
        }
        d.bsf->time_base_in = vs->time_base;
        if (av_bsf_init(d.bsf) < 0) {
            return KORVALEN_ERR_HLS_SEGMENT;
        }
    }
    d.pkt = av_packet_alloc();
    if (!d.pkt) {
        return KORVALEN_ERR_NO_MEMORY;
    }
    std::vector<uint8_t> adts;
    auto deliver = [&](AVPacket* p, int index) {
        AVStream* st = d.fmt->streams[index];
        FileFrameInfo f{};
        const int64_t pts = p->pts != AV_NOPTS_VALUE ? p->pts : p->dts;
        f.timeStamp = pts == AV_NOPTS_VALUE ? 0 : static_cast<uint64_t>(av_rescale_q(pts, st->time_base, {1, 90000}));
        if (index == video) {
            f.payloadType = hevc ? KORVALEN_CODEC_H265 : KORVALEN_CODEC_H264;
            f.frameType = (p->flags & AV_PKT_FLAG_KEY) ? 0 : 1;
            f.data = p->data;
            f.length = static_cast<uint32_t>(p->size);
            return onFrame(f);
        }
        f.payloadType = KORVALEN_CODEC_AAC;
        if (p->size >= 2 && p->data[0] == 0xFF && (p->data[1] & 0xF0) == 0xF0) {
            f.data = p->data; // already ADTS (MPEG-TS)
            f.length = static_cast<uint32_t>(p->size);
            return onFrame(f);
        }
        uint8_t head[7];
        if (!AdtsHeader(st->codecpar, static_cast<size_t>(p->size), head)) {
            return true; // sound the decoder could not take: video goes on
        }
        adts.assign(head, head + 7);
        adts.insert(adts.end(), p->data, p->data + p->size);
        f.data = adts.data();
        f.length = static_cast<uint32_t>(adts.size());
        return onFrame(f);
    };
    for (;;) {
        if (stop && stop->load()) {
            return KORVALEN_ERR_THREAD_CREATE;
        }
        const int err = av_read_frame(d.fmt, d.pkt);
        if (err < 0) {
            return err == AVERROR_EOF ? KORVALEN_OK : KORVALEN_ERR_HLS_SEGMENT;
        }
        bool more = true;
        if (d.pkt->stream_index == video && d.bsf) {
            if (av_bsf_send_packet(d.bsf, d.pkt) < 0) {
                av_packet_unref(d.pkt);
                continue;
            }
            while (more && av_bsf_receive_packet(d.bsf, d.pkt) == 0) {
                more = deliver(d.pkt, video);
                av_packet_unref(d.pkt);
            }
        } else if (d.pkt->stream_index == video || d.pkt->stream_index == audio) {
            more = deliver(d.pkt, d.pkt->stream_index);
        }
        av_packet_unref(d.pkt);
        if (!more) {
            return KORVALEN_OK;
        }
    }
}
