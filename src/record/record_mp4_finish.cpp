// Finishing an MP4 file in place after the disk filled up. The MP4 muxer is
// run a second time over the samples the journal lists, writing into a
// counter rather than a file; what it writes at the end (the mdat size and
// the index) is kept and put into the real file, whose sample bytes are
// already where that second run puts them. Samples are dropped from the end
// until the index fits in the bytes the file already had.
#include <cstring>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

extern "C" {
#include <libavformat/avformat.h>
}

#include "demux/mp4/mp4_reader.h"
#include "heap/qmx_heap.h"
#include "korvalen_types.h"
#include "log/log.h"
#include "record/record_journal.h"
#include "record/record_mux_av.h"

namespace {

constexpr int kIoBuffer = 32768;
constexpr uint32_t kSampleMax = 0x800000;

struct Capture {
    int64_t pos = 0;
    int64_t end = 0;
    bool on = false;
    std::vector<std::pair<int64_t, std::vector<uint8_t>>> writes;
};

int Write(void* opaque, uint8_t* buf, int size)
{
    auto* c = static_cast<Capture*>(opaque);
    if (c->on) {
        c->writes.emplace_back(c->pos, std::vector<uint8_t>(buf, buf + size));
    }
    c->pos += size;
    c->end = c->pos > c->end ? c->pos : c->end;
    return size;
}

int64_t Seek(void* opaque, int64_t offset, int whence)
{
    auto* c = static_cast<Capture*>(opaque);
    switch (whence & ~AVSEEK_FORCE) {
    case SEEK_SET:
        c->pos = offset;
        break;
    case SEEK_CUR:
        c->pos += offset;
        break;
    case SEEK_END:
        c->pos = c->end + offset;
        break;
    case AVSEEK_SIZE:
        return c->end;
    default:
        return -1;
    }
    return c->pos;
}

// Runs the muxer over the first k samples; false when its layout differs
// from the file's (then nothing may be written into the file).
bool Shadow(const REC_JOURNAL_HEADER& h, const std::vector<REC_JOURNAL_ENTRY>& e, size_t k, std::FILE* in, uint8_t* buf,
            Capture* cap, int64_t* mdatEnd)
{
    AVFormatContext* fmt = nullptr;
    if (avformat_alloc_output_context2(&fmt, nullptr, "mp4", nullptr) < 0 || !fmt) {
        return false;
    }
    auto* io = static_cast<uint8_t*>(av_malloc(kIoBuffer));
    fmt->pb = io ? avio_alloc_context(io, kIoBuffer, 1, cap, nullptr, &Write, &Seek) : nullptr;
    AVPacket* pkt = av_packet_alloc();
    AVStream* video = nullptr;
    AVStream* audio = nullptr;
    REC_MUX_SETUP s{h.videoCodec, h.width, h.height, h.frameRate, h.params, h.paramLen, h.audio};
    bool ok = fmt->pb && pkt && MUX_AddAvStreams(fmt, REC_CONTAINER_MP4, &s, &video, &audio) == KORVALEN_OK;
    if (ok) {
        fmt->flags |= AVFMT_FLAG_CUSTOM_IO;
        ok = avformat_write_header(fmt, nullptr) >= 0;
    }
    for (size_t i = 0; ok && i < k; ++i) {
        const bool isAudio = (e[i].flags & REC_ENTRY_AUDIO) != 0;
        ok = (!isAudio || audio) && fseeko(in, static_cast<off_t>(e[i].offset), SEEK_SET) == 0 &&
             std::fread(buf, 1, e[i].size, in) == e[i].size;
        if (!ok) {
            break;
        }
        if (!isAudio) {
            MP4_ToAnnexB(buf, e[i].size);
        }
        avio_flush(fmt->pb);
        const int64_t before = avio_tell(fmt->pb);
        pkt->data = buf;
        pkt->size = static_cast<int>(e[i].size);
        pkt->stream_index = isAudio ? audio->index : video->index;
        pkt->pts = pkt->dts = static_cast<int64_t>(e[i].pts);
        pkt->flags = (e[i].flags & REC_ENTRY_KEY) ? AV_PKT_FLAG_KEY : 0;
        ok = av_write_frame(fmt, pkt) >= 0;
        avio_flush(fmt->pb);
        // The sample must land where it lies in the file, at its size.
        ok = ok && before == static_cast<int64_t>(e[i].offset) && avio_tell(fmt->pb) - before == e[i].size;
    }
    pkt->data = nullptr;
    pkt->size = 0;
    if (ok) {
        avio_flush(fmt->pb);
        *mdatEnd = avio_tell(fmt->pb);
        cap->on = true;
        ok = av_write_trailer(fmt) >= 0;
        avio_flush(fmt->pb);
    }
    av_packet_free(&pkt);
    if (fmt->pb) {
        av_freep(&fmt->pb->buffer);
        avio_context_free(&fmt->pb);
    }
    avformat_free_context(fmt);
    return ok;
}

} // namespace

uint32_t REC_FinishMp4InPlace(const char* path, const char* journalPath)
{
    std::FILE* journal = std::fopen(journalPath, "rb");
    std::FILE* file = std::fopen(path, "rb+");
    REC_JOURNAL_HEADER h{};
    std::vector<REC_JOURNAL_ENTRY> e;
    struct stat st;
    bool ok = journal && file && fstat(fileno(file), &st) == 0 && std::fread(&h, sizeof h, 1, journal) == 1 &&
              h.started && h.paramLen <= kRecordParamSetsMax;
    const int64_t have = ok ? static_cast<int64_t>(st.st_size) : 0;
    REC_JOURNAL_ENTRY one;
    while (ok && std::fread(&one, sizeof one, 1, journal) == 1) {
        if (one.size == 0 || one.size > kSampleMax || static_cast<int64_t>(one.offset + one.size) > have) {
            break;
        }
        e.push_back(one);
    }
    auto* buf = ok ? static_cast<uint8_t*>(QMX_HeapMalloc(kSampleMax)) : nullptr;
    size_t k = e.size();
    bool done = false;
    while (buf && k > 0 && !done) {
        Capture cap;
        int64_t mdatEnd = 0;
        if (!Shadow(h, e, k, file, buf, &cap, &mdatEnd)) {
            break;
        }
        int64_t need = mdatEnd;
        for (const auto& w : cap.writes) {
            need = std::max<int64_t>(need, w.first + static_cast<int64_t>(w.second.size()));
        }
        if (need > have) {
            // Drop enough samples from the end to make room, and try again.
            int64_t freed = 0;
            while (k > 0 && mdatEnd - freed + (need - mdatEnd) > have) {
                --k;
                freed += e[k].size;
            }
            continue;
        }
        done = ftruncate(fileno(file), static_cast<off_t>(mdatEnd)) == 0;
        for (const auto& w : cap.writes) {
            done = done && fseeko(file, static_cast<off_t>(w.first), SEEK_SET) == 0 &&
                   std::fwrite(w.second.data(), 1, w.second.size(), file) == w.second.size();
        }
        done = done && std::fflush(file) == 0;
        KORVALEN_LOG(KORVALEN_LOG_INFO, "REC_FinishMp4InPlace %s: %zu of %zu samples kept, %s", path, k, e.size(),
                     done ? "finished" : "failed");
    }
    QMX_HeapFree(buf);
    if (journal) {
        std::fclose(journal);
    }
    if (file) {
        std::fclose(file);
    }
    return done ? KORVALEN_OK : KORVALEN_ERR_FILE_INDEX;
}
