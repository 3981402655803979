// The HLS calls of a port and its fetch thread.
#include "source/hls/hls_source.h"

#include "heap/qmx_heap.h"

#include <cmath>
#include <cstring>
#include <vector>

#include "demux/demux_segment.h"
#include "log/log.h"
#include "platform/platform.h"
#include "report/report.h"
#include "source/hls/hls_cache.h"
#include "source/hls/hls_fetch.h"

namespace {

constexpr uint32_t kPlaylistTimeoutMs = 5000;
constexpr uint32_t kSegmentTimeoutMs = 10000;
constexpr size_t kMaxSegmentBytes = 64u << 20;
constexpr uint32_t kLiveEdgeSegments = 3;
constexpr uint32_t kRetries = 3;
constexpr uint32_t kRetrySleepMs = 500;
constexpr uint32_t kStepMs = 10;
constexpr double kLeadSeconds = 1.0; // frames go this far ahead of their time
constexpr uint32_t kRdHdSize = 24;

struct HlsSource {
    PortHls hls;
    SOURCE_SINK sink;
    uint32_t port;
};

void StoreLe32(uint8_t* p, uint32_t v)
{
    p[0] = static_cast<uint8_t>(v);
    p[1] = static_cast<uint8_t>(v >> 8);
    p[2] = static_cast<uint8_t>(v >> 16);
    p[3] = static_cast<uint8_t>(v >> 24);
}

void Problem(HlsSource* rec, uint32_t code, int64_t sequence, const std::string& url)
{
    rec->hls.lastError = code;
    KORVALEN_LOG(KORVALEN_LOG_ERROR, "Port[%03d] HLS fetch fail, sequence(%lld) %s, error(0x%x)", rec->port,
                 static_cast<long long>(sequence), url.c_str(), code);
    Report_Send(rec->port, kReportHls, code, static_cast<uint32_t>(sequence), url.c_str());
}

// Fetches a media playlist; a master playlist leads to its richest variant.
uint32_t LoadPlaylist(const std::string& url, const std::atomic<uint32_t>* stop, std::string* mediaUrl,
                      HLS_PLAYLIST* out)
{
    std::string at = url;
    for (int hop = 0; hop < 2; ++hop) {
        std::vector<uint8_t> text;
        uint32_t err = HLS_Download(at, &text, kHlsMaxPlaylistBytes, stop, kPlaylistTimeoutMs);
        if (err != KORVALEN_OK) {
            return err == KORVALEN_ERR_HLS_SEGMENT ? KORVALEN_ERR_HLS_PLAYLIST : err;
        }
        err = HLS_ParsePlaylist(reinterpret_cast<const char*>(text.data()), text.size(), at, out);
        if (err != KORVALEN_OK) {
            return err;
        }
        if (!out->master) {
            *mediaUrl = at;
            return KORVALEN_OK;
        }
        const HLS_VARIANT* best = &out->variants[0];
        for (const HLS_VARIANT& v : out->variants) {
            best = v.bandwidth > best->bandwidth ? &v : best;
        }
        at = best->url;
    }
    return KORVALEN_ERR_HLS_PLAYLIST; // a master playlist naming another one
}

// A segment's bytes from the cache, else from the server (then cached).
uint32_t SegmentBytes(HlsSource* rec, const std::string& url, std::vector<uint8_t>* data)
{
    if (HLS_CacheGet(url, data)) {
        return KORVALEN_OK;
    }
    uint32_t err = HLS_Download(url, data, kMaxSegmentBytes, &rec->hls.stop, kSegmentTimeoutMs);
    if (err != KORVALEN_OK) {
        return err;
    }
    err = HLS_CachePut(url, *data);
    if (err != KORVALEN_OK) {
        KORVALEN_LOG(KORVALEN_LOG_WARN, "Port[%03d] HLS cache warm, segment not kept, error(0x%x)", rec->port, err);
    }
    return KORVALEN_OK;
}

struct Pacer {
    bool based = false;
    double baseSeconds = 0;
    uint32_t baseMs = 0;
};

// Waits until the frame is due (or the port stops); a paused port waits here
// and starts a new time base when it resumes.
bool WaitDue(HlsSource* rec, Pacer* p, double seconds)
{
    for (;;) {
        if (rec->hls.stop) {
            return false;
        }
        if (!rec->sink.playing->load()) {
            p->based = false;
            PLAT_SleepMs(kStepMs);
            continue;
        }
        const uint32_t now = PLAT_TickMs();
        const double ahead = seconds - p->baseSeconds - (now - p->baseMs) / 1000.0;
        if (!p->based || ahead < -5 || ahead > 10) {
            p->based = true; // first frame, or the time stamps jumped
            p->baseSeconds = seconds;
            p->baseMs = now;
            return true;
        }
        if (ahead <= kLeadSeconds) {
            return true;
        }
        PLAT_SleepMs(kStepMs);
    }
}

bool Push(HlsSource* rec, const uint8_t* data, uint32_t length)
{
    for (;;) {
        uint32_t err = rec->sink.queue(rec->sink.ctx, data, length);
        if (err != KORVALEN_ERR_BUFFER_FULL) {
            return err == KORVALEN_OK;
        }
        if (rec->hls.stop) {
            return false;
        }
        PLAT_SleepMs(kStepMs);
    }
}

bool DeliverFrame(HlsSource* rec, Pacer* pacer, const FileFrameInfo& f)
{
    if (!WaitDue(rec, pacer, static_cast<double>(f.timeStamp) / 90000.0)) {
        return false;
    }
    if (!rec->sink.feed->load()) {
        return true;
    }
    uint8_t head[kRdHdSize] = {'R', 'd', 'H', 'd'};
    StoreLe32(head + 4, f.payloadType);
    StoreLe32(head + 8, f.frameType);
    StoreLe32(head + 16, static_cast<uint32_t>(f.timeStamp));
    StoreLe32(head + 20, static_cast<uint32_t>(f.timeStamp >> 32));
    return Push(rec, head, kRdHdSize) && Push(rec, f.data, f.length);
}

// Plays one segment. False when the thread should end.
bool PlaySegment(HlsSource* rec, const HLS_SEGMENT& seg, Pacer* pacer, std::vector<uint8_t>* bytes,
                 std::vector<uint8_t>* init)
{
    uint32_t err = KORVALEN_OK;
    for (uint32_t attempt = 0; attempt < kRetries; ++attempt) {
        init->clear();
        err = seg.initUrl.empty() ? KORVALEN_OK : SegmentBytes(rec, seg.initUrl, init);
        if (err == KORVALEN_OK) {
            err = SegmentBytes(rec, seg.url, bytes);
        }
        if (err == KORVALEN_OK || err == KORVALEN_ERR_HLS_HTTP || rec->hls.stop) {
            break;
        }
        PLAT_SleepMs(kRetrySleepMs);
    }
    if (rec->hls.stop) {
        return false;
    }
    if (err == KORVALEN_ERR_HLS_HTTP) {
        Problem(rec, err, seg.sequence, seg.url); // a hole in the stream: play on after it
        return true;
    }
    if (err != KORVALEN_OK) {
        Problem(rec, err, seg.sequence, seg.url); // the server is gone
        return false;
    }
    if (!init->empty()) {
        init->insert(init->end(), bytes->begin(), bytes->end());
        bytes->swap(*init);
    }
    err = DEMUX_Segment(bytes->data(), bytes->size(), &rec->hls.stop,
                        [&](const FileFrameInfo& f) { return DeliverFrame(rec, pacer, f); });
    if (rec->hls.stop) {
        return false;
    }
    if (err != KORVALEN_OK) {
        Problem(rec, err, seg.sequence, seg.url);
        return true;
    }
    ++rec->hls.segments;
    return true;
}

void FetchThread(HlsSource* rec)
{
    PLAT_SetThreadName("HlsFetch");
    PortHls& h = rec->hls;
    KORVALEN_LOG(KORVALEN_LOG_INFO, "Port [%03d] Start HLS fetch thread succeed", rec->port);
    Pacer pacer;
    std::vector<uint8_t> bytes, init;
    uint32_t reloadFailures = 0;
    uint32_t unchangedSince = PLAT_TickMs();
    while (!h.stop) {
        const HLS_SEGMENT* next = nullptr;
        for (const HLS_SEGMENT& s : h.playlist.segments) {
            if (s.sequence >= h.nextSequence) {
                next = &s;
                break;
            }
        }
        if (next) {
            if (h.endUtcMs && next->utcMs && next->utcMs >= h.endUtcMs) {
                break;
            }
            const HLS_SEGMENT seg = *next;
            h.nextSequence = seg.sequence + 1;
            if (!PlaySegment(rec, seg, &pacer, &bytes, &init)) {
                return;
            }
            unchangedSince = PLAT_TickMs();
            continue;
        }
        if (h.playlist.ended) {
            break;
        }
        // Live: wait about half a segment, then look again.
        const auto wait = static_cast<uint32_t>(std::max(0.5, h.playlist.targetDuration / 2) * 1000);
        for (uint32_t t = 0; t < wait && !h.stop; t += kStepMs) {
            PLAT_SleepMs(kStepMs);
        }
        std::string mediaUrl;
        HLS_PLAYLIST fresh;
        uint32_t err = LoadPlaylist(h.playlistUrl, &h.stop, &mediaUrl, &fresh);
        if (h.stop) {
            return;
        }
        if (err != KORVALEN_OK) {
            if (++reloadFailures >= kRetries) {
                Problem(rec, err, h.nextSequence, h.playlistUrl);
                return;
            }
            continue;
        }
        reloadFailures = 0;
        h.playlist = std::move(fresh);
        bool grew = false;
        for (const HLS_SEGMENT& s : h.playlist.segments) {
            grew = grew || s.sequence >= h.nextSequence;
        }
        const double stall = std::max(3.0, 3 * h.playlist.targetDuration);
        if (!grew && !h.playlist.ended && PLAT_TickMs() - unchangedSince > stall * 1000) {
            Problem(rec, KORVALEN_ERR_HLS_STALLED, h.nextSequence, h.playlistUrl);
            return;
        }
    }
    if (!h.stop) {
        rec->sink.drain(rec->sink.ctx);
        h.lastError = KORVALEN_ERR_HLS_END;
        Report_Send(rec->port, kReportPlaybackEnd, 542, static_cast<uint32_t>(h.nextSequence), h.playlistUrl.c_str());
    }
}

void StopThread(PortHls& h)
{
    h.stop = 1;
    if (h.thread.joinable()) {
        h.thread.join();
    }
    h.stop = 0;
}

uint32_t Open(const void*, const SOURCE_SINK* sink, void** state)
{
    HlsSource* src = QMX_New<HlsSource>();
    if (!src) {
        return KORVALEN_ERR_NO_MEMORY;
    }
    src->sink = *sink;
    src->port = sink->port;
    *state = src;
    return KORVALEN_OK;
}

void Stop(void* state)
{
    StopThread(static_cast<HlsSource*>(state)->hls);
}

void Close(void* state)
{
    QMX_Delete(static_cast<HlsSource*>(state));
}

} // namespace

const SOURCE_OPS kHlsSourceOps = {"hls", SOURCE_HLS, Open, nullptr, Stop, Close, nullptr, false};

uint32_t HLSSRC_Update(void* state, const KORVALEN_HLS_PLAY_INFO* info, uint32_t time)
{
    auto* rec = static_cast<HlsSource*>(state);
    PortHls& h = rec->hls;
    const uint32_t port = rec->port;
    if (!HLS_CacheHasPath()) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "Port[%03d] Player_UpdatePlayInfo fail, not set cache path", port);
        return KORVALEN_ERR_HLS_NO_CACHE_PATH;
    }
    const size_t len = strnlen(info->url, sizeof info->url);
    const std::string url(info->url, len);
    if (len == 0 || len == sizeof info->url || !HLS_IsHttpUrl(url)) {
        return KORVALEN_ERR_HLS_URL;
    }
    const bool restart = h.thread.joinable();
    StopThread(h);
    std::string mediaUrl;
    HLS_PLAYLIST playlist;
    uint32_t err = LoadPlaylist(url, nullptr, &mediaUrl, &playlist);
    if (err != KORVALEN_OK) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "Port[%03d] Player_UpdatePlayInfo fail, playlist %s, error(0x%x)", port,
                     url.c_str(), err);
        return err;
    }
    int64_t index;
    if (info->start_time) {
        index = HLS_FindSegmentByUtc(playlist, static_cast<int64_t>(info->start_time) * 1000);
    } else if (time == 0 && !playlist.ended) {
        const size_t n = playlist.segments.size();
        index = n > kLiveEdgeSegments ? static_cast<int64_t>(n - kLiveEdgeSegments) : 0;
    } else {
        index = HLS_FindSegmentByTime(playlist, time);
    }
    if (index < 0 && !(playlist.segments.empty() && !playlist.ended && time == 0 && !info->start_time)) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "Port[%03d] Player_UpdatePlayInfo fail, time node not exist, time(%u)", port,
                     info->start_time ? info->start_time : time);
        return KORVALEN_ERR_HLS_TIME_NODE;
    }
    if (restart) {
        // A new position: what the old one left queued must not play.
        err = rec->sink.restart(rec->sink.ctx);
        if (err != KORVALEN_OK) {
            return err;
        }
    }
    h.playlistUrl = mediaUrl;
    h.nextSequence = index >= 0 ? playlist.segments[static_cast<size_t>(index)].sequence : playlist.mediaSequence;
    h.playlist = std::move(playlist);
    h.endUtcMs = static_cast<int64_t>(info->end_time) * 1000;
    h.lastError = 0;
    rec->sink.play(rec->sink.ctx, (info->flags & 1) ? 0 : 1);
    try {
        h.thread = std::thread(FetchThread, rec);
    } catch (...) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "Port[%03d] KTFW_SDK_thr_create HLS failed", port);
        return KORVALEN_ERR_THREAD_CREATE;
    }
    return KORVALEN_OK;
}

uint32_t Player_SetCachePath(const char* path)
{
    return HLS_CacheSetPath(path);
}

uint32_t Player_SetMaxCache(uint32_t sizeMb)
{
    return HLS_CacheSetLimitMb(sizeMb);
}

uint32_t Player_CleanCache()
{
    return HLS_CacheClean();
}
