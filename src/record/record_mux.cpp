// Record file writers: libavformat for MP4 and MPEG-TS, our AVI writer for
// AVI, and the journal beside each file.
#include "record/record_mux.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <sys/stat.h>
#include <unistd.h>

extern "C" {
#include <libavformat/avformat.h>
#include <libavutil/channel_layout.h>
}

#include "demux/avi/avi.h"
#include "demux/avi/avi_file.h"
#include "fileio/qmx_file.h"
#include "heap/qmx_heap.h"
#include "korvalen_types.h"
#include "log/log.h"
#include "record/record_journal.h"
#include "record/record_mux_av.h"

struct REC_MUX {
    int32_t container = REC_CONTAINER_NONE;
    char path[kRecordNameMax] = {};
    char journalPath[kRecordNameMax + 16] = {};
    std::FILE* journal = nullptr;
    REC_JOURNAL_HEADER header{};
    AVFormatContext* fmt = nullptr;
    AVPacket* pkt = nullptr;
    AVStream* video = nullptr;
    AVStream* audio = nullptr;
    AVI_HANDLE avi = nullptr;
    bool started = false;
    bool failed = false;
    int64_t lastDts = -1;
    int64_t audioSamples = 0;
};

namespace {

constexpr uint32_t kMp2FrameSamples = 1152;
constexpr int kMp2Rate = 44100;

uint32_t Fail(REC_MUX* m)
{
    m->failed = true;
    return KORVALEN_ERR_DISK_FULL;
}

AVCodecID CodecId(uint32_t codec)
{
    switch (codec) {
    case KORVALEN_CODEC_H264:
        return AV_CODEC_ID_H264;
    case KORVALEN_CODEC_H265:
        return AV_CODEC_ID_HEVC;
    case KORVALEN_CODEC_MJPEG:
        return AV_CODEC_ID_MJPEG;
    default:
        return AV_CODEC_ID_NONE;
    }
}

} // namespace

uint32_t MUX_AddAvStreams(AVFormatContext* fmt, int32_t container, const REC_MUX_SETUP* s, AVStream** video,
                          AVStream** audio)
{
    const AVCodecID id = CodecId(s->videoCodec);
    if (id == AV_CODEC_ID_NONE || (container == REC_CONTAINER_TS && id == AV_CODEC_ID_MJPEG)) {
        return KORVALEN_ERR_NOT_SUPPORTED;
    }
    (*video) = avformat_new_stream(fmt, nullptr);
    if (!(*video)) {
        return 1;
    }
    AVCodecParameters* p = (*video)->codecpar;
    p->codec_type = AVMEDIA_TYPE_VIDEO;
    p->codec_id = id;
    p->width = static_cast<int>(s->width);
    p->height = static_cast<int>(s->height);
    if (container == REC_CONTAINER_MP4) {
        if (id == AV_CODEC_ID_H264) {
            p->codec_tag = MKTAG('a', 'v', 'c', '1');
        } else if (id == AV_CODEC_ID_HEVC) {
            p->codec_tag = MKTAG('h', 'e', 'v', '1');
        }
    }
    if (s->paramLen) {
        // Annex B parameter sets: the MP4 muxer turns them into avcC / hvcC
        // and the samples into length-prefixed units.
        p->extradata = static_cast<uint8_t*>(av_mallocz(s->paramLen + AV_INPUT_BUFFER_PADDING_SIZE));
        if (!p->extradata) {
            return 1;
        }
        std::memcpy(p->extradata, s->paramSets, s->paramLen);
        p->extradata_size = static_cast<int>(s->paramLen);
    }
    (*video)->time_base = AVRational{1, 90000};
    if (s->frameRate) {
        (*video)->avg_frame_rate = AVRational{static_cast<int>(s->frameRate), 1};
    }
    if (s->audio) {
        (*audio) = avformat_new_stream(fmt, nullptr);
        if (!(*audio)) {
            return 1;
        }
        AVCodecParameters* a = (*audio)->codecpar;
        a->codec_type = AVMEDIA_TYPE_AUDIO;
        a->codec_id = AV_CODEC_ID_MP2;
        a->sample_rate = kMp2Rate;
        av_channel_layout_default(&a->ch_layout, 1);
        a->frame_size = kMp2FrameSamples;
        a->bit_rate = 64000;
        (*audio)->time_base = AVRational{1, kMp2Rate};
    }
    return KORVALEN_OK;
}

namespace {

uint32_t StartAv(REC_MUX* m, const REC_MUX_SETUP* s)
{
    uint32_t err = MUX_AddAvStreams(m->fmt, m->container, s, &m->video, &m->audio);
    if (err != KORVALEN_OK) {
        return err;
    }
    int r = avformat_write_header(m->fmt, nullptr);
    if (r < 0 || m->fmt->pb->error < 0) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "MUX_Start fail, avformat_write_header fail, error(%d)", r);
        return r == AVERROR(ENOSPC) || r == AVERROR(EFBIG) || m->fmt->pb->error < 0 ? KORVALEN_ERR_DISK_FULL : 1;
    }
    return KORVALEN_OK;
}

// Each AVI chunk goes to the system as it is written, as MP4 samples do.
bool AviFlush(REC_MUX* m)
{
    return std::fflush(m->avi->fp) == 0;
}

uint32_t WritePacket(REC_MUX* m, AVStream* st, const uint8_t* data, uint32_t len, int64_t ts, bool key, uint32_t flags)
{
    AVPacket* pkt = m->pkt;
    av_packet_unref(pkt);
    pkt->data = const_cast<uint8_t*>(data);
    pkt->size = static_cast<int>(len);
    pkt->stream_index = st->index;
    pkt->pts = pkt->dts = ts;
    pkt->flags = key ? AV_PKT_FLAG_KEY : 0;
    const int64_t before = avio_tell(m->fmt->pb);
    const int r = av_write_frame(m->fmt, pkt);
    pkt->data = nullptr;
    pkt->size = 0;
    if (r < 0 || m->fmt->pb->error < 0) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "MUX_Write fail, av_write_frame fail, error(%d)", r);
        return Fail(m);
    }
    if (m->container == REC_CONTAINER_TS) {
        // What came in goes to the system now, sound the muxer still held
        // included: a camera that falls silent or a process that dies loses
        // nothing that was received.
        av_write_frame(m->fmt, nullptr);
        avio_flush(m->fmt->pb);
        if (m->fmt->pb->error < 0) {
            return Fail(m);
        }
    }
    if (m->container == REC_CONTAINER_MP4 && m->journal) {
        const int64_t after = avio_tell(m->fmt->pb);
        REC_JOURNAL_ENTRY e{static_cast<uint64_t>(before), static_cast<uint32_t>(after - before), flags,
                            static_cast<uint64_t>(ts)};
        // The samples in the file are what the journal points at: both go
        // to the system together.
        avio_flush(m->fmt->pb);
        if (m->fmt->pb->error < 0 || REC_JournalAppend(m->journal, &e) != KORVALEN_OK) {
            return Fail(m);
        }
    }
    return KORVALEN_OK;
}

void FreeAv(REC_MUX* m)
{
    if (m->fmt) {
        avio_closep(&m->fmt->pb);
        avformat_free_context(m->fmt);
        m->fmt = nullptr;
    }
    av_packet_free(&m->pkt);
}

} // namespace

uint32_t MUX_Open(int32_t container, const char* path, const REC_MUX_NAMING* naming, REC_MUX** out)
{
    *out = nullptr;
    auto* m = QMX_New<REC_MUX>();
    if (!m) {
        return KORVALEN_ERR_NO_MEMORY;
    }
    m->container = container;
    std::snprintf(m->path, sizeof m->path, "%s", path);
    if (container == REC_CONTAINER_AVI) {
        m->avi = AVI_OpenOutputFile(path);
        // A folder that does not exist yet is made, as for every file written.
        if (!m->avi && QMX_CreateDir(path) == KORVALEN_OK) {
            m->avi = AVI_OpenOutputFile(path);
        }
        if (!m->avi) {
            QMX_Delete(m);
            return KORVALEN_ERR_FILE_OPEN;
        }
    } else {
        const char* format = container == REC_CONTAINER_MP4 ? "mp4" : "mpegts";
        bool ok = avformat_alloc_output_context2(&m->fmt, nullptr, format, path) >= 0 && m->fmt &&
                  (m->pkt = av_packet_alloc()) != nullptr;
        if (ok) {
            int r = avio_open(&m->fmt->pb, path, AVIO_FLAG_WRITE);
            if (r == AVERROR(ENOENT) && QMX_CreateDir(path) == KORVALEN_OK) {
                r = avio_open(&m->fmt->pb, path, AVIO_FLAG_WRITE);
            }
            ok = r >= 0;
        }
        if (!ok) {
            FreeAv(m);
            QMX_Delete(m);
            return KORVALEN_ERR_FILE_OPEN;
        }
    }
    REC_JOURNAL_HEADER& h = m->header;
    std::memcpy(h.magic, "KRJ1", 4);
    h.pid = static_cast<uint32_t>(getpid());
    h.pidStart = REC_ProcessStart(h.pid);
    h.container = container;
    if (naming) {
        h.recordType = naming->recordType;
        h.partCounter = naming->partCounter;
        h.callerStart = naming->callerStart;
        h.callerEnd = naming->callerEnd;
        std::snprintf(h.baseName, sizeof h.baseName, "%s", naming->baseName);
    }
    REC_JournalName(path, m->journalPath, sizeof m->journalPath);
    m->journal = std::fopen(m->journalPath, "wb");
    if (m->journal) {
        REC_JournalWriteHeader(m->journal, &h);
    }
    *out = m;
    return KORVALEN_OK;
}

bool MUX_Started(const REC_MUX* m)
{
    return m && m->started;
}

uint32_t MUX_Start(REC_MUX* m, const REC_MUX_SETUP* s)
{
    if (m->failed) {
        return KORVALEN_ERR_DISK_FULL;
    }
    uint32_t err;
    if (m->container == REC_CONTAINER_AVI) {
        AVI_ENC_PARAM p{};
        p.videoCode = s->videoCodec == KORVALEN_CODEC_MJPEG ? 1 : (s->videoCodec == KORVALEN_CODEC_H265 ? 3 : 2);
        p.width = s->width;
        p.height = s->height;
        p.framesPerSecond = s->frameRate ? s->frameRate : 25;
        p.audioCode = 0;
        p.channels = s->audio ? 1 : 0;
        p.sampleRate = kMp2Rate;
        p.bitsPerSample = 16;
        err = AVI_EncInit(&p, m->avi) == KORVALEN_OK ? KORVALEN_OK : KORVALEN_ERR_NOT_SUPPORTED;
    } else {
        err = StartAv(m, s);
    }
    if (err != KORVALEN_OK) {
        if (err == KORVALEN_ERR_DISK_FULL) {
            m->failed = true;
        }
        return err;
    }
    REC_JOURNAL_HEADER& h = m->header;
    h.started = 1;
    h.videoCodec = s->videoCodec;
    h.width = s->width;
    h.height = s->height;
    h.frameRate = s->frameRate;
    h.audio = s->audio;
    h.paramLen = s->paramLen < kRecordParamSetsMax ? s->paramLen : 0;
    if (h.paramLen) {
        std::memcpy(h.params, s->paramSets, h.paramLen);
    }
    if (m->journal && REC_JournalWriteHeader(m->journal, &h) != KORVALEN_OK) {
        return Fail(m);
    }
    m->started = true;
    return KORVALEN_OK;
}

uint32_t MUX_WriteVideo(REC_MUX* m, const uint8_t* data, uint32_t len, uint64_t pts, bool key, uint32_t frameRate)
{
    if (m->failed || !m->started) {
        return KORVALEN_ERR_DISK_FULL;
    }
    if (m->container == REC_CONTAINER_AVI) {
        AVI_ENC_FRAME f{0, data, len, key ? 1u : 0u, frameRate};
        return AVI_EncFrame(m->avi, &f) == KORVALEN_OK && AviFlush(m) ? KORVALEN_OK : Fail(m);
    }
    auto ts = static_cast<int64_t>(pts);
    if (ts <= m->lastDts) {
        ts = m->lastDts + 1; // decode order must rise
    }
    m->lastDts = ts;
    const int64_t inStream = av_rescale_q(ts, AVRational{1, 90000}, m->video->time_base);
    return WritePacket(m, m->video, data, len, inStream, key, key ? REC_ENTRY_KEY : 0);
}

uint32_t MUX_WriteAudio(REC_MUX* m, const uint8_t* data, uint32_t len)
{
    if (m->failed || !m->started) {
        return KORVALEN_ERR_DISK_FULL;
    }
    if (m->container == REC_CONTAINER_AVI) {
        AVI_ENC_FRAME f{1, data, len, 1, 0};
        return AVI_EncFrame(m->avi, &f) == KORVALEN_OK && AviFlush(m) ? KORVALEN_OK : Fail(m);
    }
    if (!m->audio) {
        return KORVALEN_OK;
    }
    const int64_t ts = av_rescale_q(m->audioSamples, AVRational{1, kMp2Rate}, m->audio->time_base);
    m->audioSamples += kMp2FrameSamples;
    return WritePacket(m, m->audio, data, len, ts, true, REC_ENTRY_AUDIO | REC_ENTRY_KEY);
}

uint64_t MUX_Size(REC_MUX* m)
{
    if (!m) {
        return 0;
    }
    if (m->container == REC_CONTAINER_AVI) {
        return m->avi ? m->avi->length : 0;
    }
    if (m->container == REC_CONTAINER_TS) {
        return m->fmt && m->fmt->pb ? static_cast<uint64_t>(avio_tell(m->fmt->pb)) : 0;
    }
    struct stat st;
    return stat(m->path, &st) == 0 ? static_cast<uint64_t>(st.st_size) : 0;
}

uint32_t MUX_Close(REC_MUX* m)
{
    if (!m) {
        return KORVALEN_OK;
    }
    uint32_t err = m->failed ? KORVALEN_ERR_DISK_FULL : KORVALEN_OK;
    bool keepJournal = false;
    if (m->container == REC_CONTAINER_AVI) {
        if (AVI_FileClose(nullptr, m->avi) != KORVALEN_OK) {
            err = KORVALEN_ERR_DISK_FULL;
        }
    } else {
        if (m->started) {
            if (av_write_trailer(m->fmt) < 0 || m->fmt->pb->error < 0) {
                err = KORVALEN_ERR_DISK_FULL;
                keepJournal = m->container == REC_CONTAINER_MP4;
            }
        }
        avio_flush(m->fmt->pb);
        if (m->fmt->pb->error < 0) {
            err = KORVALEN_ERR_DISK_FULL;
            keepJournal = m->container == REC_CONTAINER_MP4 && m->started;
        }
        FreeAv(m);
        if (err != KORVALEN_OK && m->container == REC_CONTAINER_TS) {
            REC_TrimTs(m->path);
        }
    }
    if (m->journal) {
        std::fclose(m->journal);
        if (keepJournal) {
            // No room for the index: make room by dropping the last samples.
            if (REC_FinishMp4InPlace(m->path, m->journalPath) == KORVALEN_OK) {
                keepJournal = false;
            } else {
                err = KORVALEN_ERR_FILE_INDEX;
            }
        }
        if (!keepJournal) {
            unlink(m->journalPath);
        }
    }
    QMX_Delete(m);
    return err;
}
