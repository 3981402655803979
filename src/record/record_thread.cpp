// The record thread: packets from the record queue become frames; each file
// starts at a key frame with its parameter sets; audio is transcoded to MP2;
// the division check runs before every video frame.
#include <cstring>

#include "codec/code_manager.h"
#include "codec/code_sps_probe.h"
#include "heap/qmx_heap.h"
#include "log/log.h"
#include "platform/platform.h"
#include "record/record.h"
#include "record/record_mux.h"
#include "rtp/rtp.h"

namespace {

// An idle recorder sleeps on its queue; a stop is noticed within this.
constexpr uint32_t kIdleWaitMs = 20;
constexpr uint32_t kMp2InputMax = 6000;
constexpr uint64_t kMaxGap = 10 * 90000; // larger jumps are a new time line
constexpr uint32_t kScratchSize = 0x200000 + 1024;

bool IsVideo(uint32_t c)
{
    return c == KORVALEN_CODEC_H264 || c == KORVALEN_CODEC_H265 || c == KORVALEN_CODEC_MJPEG;
}

bool IsAudio(uint32_t c)
{
    return c == KORVALEN_CODEC_G711U || c == KORVALEN_CODEC_MP2 || c == KORVALEN_CODEC_AAC ||
           c == KORVALEN_CODEC_G711A || c == KORVALEN_CODEC_PCM;
}

void Failed(PortRecorder* rec, uint32_t err)
{
    PortRecorder& r = *rec;
    if (r.failed) {
        return;
    }
    r.failed = err;
    KORVALEN_LOG(KORVALEN_LOG_ERROR, "Port[%03d] __RecordThreadEntry fail, write fail, error(0x%x)", rec->port, err);
    REC_SendReport(rec->port, err, r.tempName, nullptr);
}

// Keeps the latest parameter sets of the stream, in Annex B.
void NoteParamSets(PortRecorder& r, const uint8_t* d, uint32_t n, uint32_t codec)
{
    const bool h265 = codec == KORVALEN_CODEC_H265;
    const uint32_t types[3] = {h265 ? 32u : 7u, h265 ? 33u : 8u, h265 ? 34u : 0u};
    const uint8_t* unit[3] = {};
    uint32_t len[3] = {};
    uint32_t total = 0;
    for (int i = 0; i < (h265 ? 3 : 2); ++i) {
        if (RTP_FindDataByNAL(codec, types[i], d, n, &unit[i], &len[i]) != KORVALEN_OK) {
            return; // not a full set: keep what we had
        }
        total += 4 + len[i];
    }
    if (total > sizeof r.paramSets) {
        return;
    }
    uint32_t at = 0;
    for (int i = 0; i < (h265 ? 3 : 2); ++i) {
        static const uint8_t sc[4] = {0, 0, 0, 1};
        std::memcpy(r.paramSets + at, sc, 4);
        std::memcpy(r.paramSets + at + 4, unit[i], len[i]);
        at += 4 + len[i];
    }
    r.paramLen = at;
    r.videoCodec = codec;
}

// Picture size of a baseline JPEG from its frame header.
bool JpegSize(const uint8_t* d, uint32_t n, uint32_t* w, uint32_t* h)
{
    for (uint32_t i = 2; i + 9 < n;) {
        if (d[i] != 0xFF) {
            return false;
        }
        const uint8_t m = d[i + 1];
        const uint32_t len = static_cast<uint32_t>(d[i + 2]) << 8 | d[i + 3];
        if (m >= 0xC0 && m <= 0xC3) {
            *h = static_cast<uint32_t>(d[i + 5]) << 8 | d[i + 6];
            *w = static_cast<uint32_t>(d[i + 7]) << 8 | d[i + 8];
            return true;
        }
        i += 2 + len;
    }
    return false;
}

uint64_t NextPts(PortRecorder& r, uint64_t ts, bool rtp, bool firstOfFile)
{
    const uint64_t step = 90000 / (r.frameRate ? r.frameRate : 25);
    uint64_t delta = step;
    if (r.haveTs && ts) {
        const uint64_t d = rtp ? static_cast<uint32_t>(ts - r.prevSrcTs) : ts - r.prevSrcTs;
        if (d > 0 && d < kMaxGap) {
            delta = d;
            const uint64_t fps = (90000 + d / 2) / d;
            if (fps >= 1 && fps <= 120) {
                r.frameRate = static_cast<uint32_t>(fps);
            }
        }
    }
    r.prevSrcTs = ts;
    r.haveTs = ts ? 1 : 0;
    r.lastPts = firstOfFile ? 0 : r.lastPts + delta;
    return r.lastPts;
}

uint32_t StartFile(PortRecorder* rec, const REC_FRAME& f)
{
    PortRecorder& r = *rec;
    REC_MUX_SETUP s{};
    s.videoCodec = f.codecType;
    bool sized = false;
    if (f.codecType == KORVALEN_CODEC_MJPEG) {
        sized = JpegSize(f.data, f.length, &s.width, &s.height);
    } else if (r.paramLen && r.videoCodec == f.codecType) {
        s.paramSets = r.paramSets;
        s.paramLen = r.paramLen;
        sized = f.codecType == KORVALEN_CODEC_H264 ? CODE_ProbeH264Size(r.paramSets, r.paramLen, &s.width, &s.height)
                                                   : CODE_ProbeH265Size(r.paramSets, r.paramLen, &s.width, &s.height);
    }
    if (!sized) {
        return KORVALEN_ERR_NEED_MORE_DATA; // wait for a key frame with its parameter sets
    }
    s.frameRate = r.frameRate;
    s.audio = r.audioDecCodec != KORVALEN_CODEC_NONE ? 1 : 0;
    s.audio |= r.assembly.mode == 4 ? r.assembly.flvAudio : 0; // FLV says so in its header
    if (r.assembly.mode == 1) {
        // MPEG-TS names its streams before their first frames.
        for (uint32_t i = 0; i < r.assembly.ts.count; ++i) {
            s.audio |= IsAudio(r.assembly.ts.streams[i].codecType) ? 1 : 0;
        }
    }
    return MUX_Start(r.mux, &s);
}

void HandleVideo(PortRecorder* rec, const REC_FRAME& f, bool rtp, uint8_t* scratch)
{
    PortRecorder& r = *rec;
    if (f.codecType != KORVALEN_CODEC_MJPEG) {
        NoteParamSets(r, f.data, f.length, f.codecType);
    }
    const bool key = f.frameType == 0 || f.codecType == KORVALEN_CODEC_MJPEG;
    if (MUX_Started(r.mux) && !r.divideWanted && REC_DivisionCheck(&r)) {
        r.divideWanted = 1; // at the next key frame, so each file starts with one
    }
    if (r.divideWanted && key) {
        r.divideWanted = 0;
        if (Player_CreateNewFile(rec) != KORVALEN_OK) {
            r.failed = KORVALEN_ERR_FILE_OPEN;
            return;
        }
    }
    bool first = false;
    if (!MUX_Started(r.mux)) {
        if (!key) {
            return;
        }
        uint32_t err = StartFile(rec, f);
        if (err == KORVALEN_ERR_NEED_MORE_DATA) {
            return;
        }
        if (err != KORVALEN_OK) {
            if (err == KORVALEN_ERR_DISK_FULL) {
                Failed(rec, err);
            } else {
                KORVALEN_LOG(KORVALEN_LOG_ERROR, "Port[%03d] __RecordThreadEntry fail, codec(%d) not supported",
                             rec->port, f.codecType);
                r.failed = KORVALEN_ERR_NOT_SUPPORTED;
            }
            return;
        }
        first = true;
    }
    const uint8_t* data = f.data;
    uint32_t len = f.length;
    const uint8_t* unit = nullptr;
    uint32_t unitLen = 0;
    if (first && r.paramLen && f.codecType != KORVALEN_CODEC_MJPEG &&
        RTP_FindDataByNAL(f.codecType, f.codecType == KORVALEN_CODEC_H264 ? 7 : 33, f.data, f.length, &unit,
                          &unitLen) != KORVALEN_OK &&
        r.paramLen + f.length <= kScratchSize) {
        // A file that starts without in-band parameter sets gets them in front.
        std::memcpy(scratch, r.paramSets, r.paramLen);
        std::memcpy(scratch + r.paramLen, f.data, f.length);
        data = scratch;
        len = r.paramLen + f.length;
    }
    const uint64_t pts = NextPts(r, f.timestamp, rtp, first);
    uint32_t err = MUX_WriteVideo(r.mux, data, len, pts, key, r.frameRate);
    if (err != KORVALEN_OK) {
        Failed(rec, err);
        return;
    }
    r.fileSize = MUX_Size(r.mux);
}

void OnMp2Frame(const uint8_t* data, uint32_t length, void* user)
{
    auto* rec = static_cast<PortRecorder*>(user);
    PortRecorder& r = *rec;
    if (r.failed || !MUX_Started(r.mux)) {
        return;
    }
    uint32_t err = MUX_WriteAudio(r.mux, data, length);
    if (err != KORVALEN_OK) {
        Failed(rec, err);
    }
}

void HandleAudio(PortRecorder* rec, const REC_FRAME& f)
{
    PortRecorder& r = *rec;
    if (r.audioDecCodec != f.codecType) {
        if (r.audioDecCodec != KORVALEN_CODEC_NONE) {
            CODE_FreeCode(&r.audioDec);
        }
        r.audioDec = CODE_HANDLE{};
        CODE_PARAM p{};
        const uint32_t err = CODE_CreateCode(CODE_DIR_DECODER, f.codecType, &p, &r.audioDec);
        if (err != KORVALEN_OK && f.codecType != KORVALEN_CODEC_PCM) {
            r.audioDecCodec = KORVALEN_CODEC_NONE;
            return;
        }
        r.audioDecCodec = f.codecType;
    }
    if (!MUX_Started(r.mux) || r.failed) {
        return; // files start with video; sound before it is not kept
    }
    CODE_INPUT in{};
    in.data = f.data;
    in.length = f.length;
    if (CODE_Decoder(&r.audioDec, &in, &r.audioOut) != KORVALEN_OK) {
        return;
    }
    const CODE_OUTPUT& pcm = r.audioOut;
    if (!pcm.sampleRate || !pcm.channels) {
        return;
    }
    if (!r.mp2Open || r.mp2Rate != pcm.sampleRate || r.mp2Channels != pcm.channels) {
        if (r.mp2Open) {
            CODE_FreeCode(&r.mp2Enc);
            r.mp2Open = 0;
        }
        r.mp2Enc = CODE_HANDLE{};
        CODE_PARAM p{};
        p.sampleRate = pcm.sampleRate;
        p.channels = pcm.channels;
        if (CODE_CreateCode(CODE_DIR_ENCODER, KORVALEN_CODEC_MP2, &p, &r.mp2Enc) != KORVALEN_OK) {
            return;
        }
        CODE_SetMp2DataCallBack(&r.mp2Enc, &OnMp2Frame, rec);
        r.mp2Open = 1;
        r.mp2Rate = pcm.sampleRate;
        r.mp2Channels = pcm.channels;
    }
    CODE_OUTPUT out;
    for (uint32_t at = 0; at < pcm.length;) {
        uint32_t n = pcm.length - at < kMp2InputMax ? pcm.length - at : kMp2InputMax;
        n &= ~3u;
        if (n == 0) {
            break;
        }
        CODE_INPUT e{};
        e.data = pcm.data + at;
        e.length = n;
        CODE_Encoder(&r.mp2Enc, &e, &out);
        at += n;
    }
}

void Consume(PortRecorder* rec, const uint8_t* data, uint32_t len, uint8_t* scratch)
{
    PortRecorder& r = *rec;
    bool more = false;
    do {
        REC_FRAME f{};
        uint32_t err = REC_AssembleFrame(&r.assembly, data, len, rec->payloads, rec->aacConfig, &f, &more);
        if (err != KORVALEN_OK || r.failed) {
            continue;
        }
        if (IsVideo(f.codecType)) {
            HandleVideo(rec, f, r.assembly.mode == 2, scratch); // RTP stamps wrap at 32 bits
        } else if (IsAudio(f.codecType)) {
            HandleAudio(rec, f);
        }
    } while (more);
}

void RecordThread(PortRecorder* rec, uint8_t* scratch)
{
    PLAT_SetThreadName("Record");
    PortRecorder& r = *rec;
    KORVALEN_LOG(KORVALEN_LOG_INFO, "Port [%03d] Start __RecordThreadEntry thread succeed", rec->port);
    for (;;) {
        const bool running = r.recording.load();
        uint8_t* data = nullptr;
        uint32_t len = 0;
        if (QUEUE_GetPacket(&r.queue, &data, &len) != KORVALEN_OK) {
            if (!running) {
                break; // stopped and drained
            }
            QUEUE_WaitPacket(&r.queue, kIdleWaitMs);
            continue;
        }
        Consume(rec, data, len, scratch);
    }
    QMX_HeapFree(scratch);
}

} // namespace

uint32_t REC_StartThread(PortRecorder* rec)
{
    auto* scratch = static_cast<uint8_t*>(QMX_HeapMalloc(kScratchSize));
    if (!scratch) {
        return KORVALEN_ERR_NO_MEMORY;
    }
    try {
        rec->thread = std::thread(RecordThread, rec, scratch);
    } catch (...) {
        QMX_HeapFree(scratch);
        return KORVALEN_ERR_THREAD_CREATE;
    }
    return KORVALEN_OK;
}

void REC_StopThread(PortRecorder* rec)
{
    PortRecorder& r = *rec;
    if (r.thread.joinable()) {
        r.thread.join();
    }
    if (r.audioDecCodec != KORVALEN_CODEC_NONE) {
        CODE_FreeCode(&r.audioDec);
        r.audioDecCodec = KORVALEN_CODEC_NONE;
    }
    if (r.mp2Open) {
        CODE_FreeCode(&r.mp2Enc);
        r.mp2Open = 0;
    }
}
