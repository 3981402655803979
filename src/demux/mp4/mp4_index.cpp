// The sample index: one flat, file-ordered list of the samples of all
// tracks, found by walking the media data and matching each position with
// the tracks' next chunk offsets ("stsc" is not used).
#include <cstring>

#include "demux/mp4/mp4_reader.h"
#include "heap/qmx_heap.h"
#include "korvalen_types.h"
#include "log/log.h"

namespace {

constexpr uint32_t kFirstCapacity = 1024;

bool HasChunk(const Mp4Track& t)
{
    return t.chunkCursor < t.chunks.count; // an exhausted chunk table never matches
}

uint64_t ChunkOffset(const Mp4Track& t)
{
    return MP4_Load32(t.chunks.data + 4u * t.chunkCursor);
}

bool HasSize(const Mp4Track& t)
{
    return t.sizeCursor < (t.constantSize ? t.sampleCount : t.sizes.count);
}

uint32_t NextSize(Mp4Track& t)
{
    uint32_t size = t.constantSize ? t.constantSize : MP4_Load32(t.sizes.data + 4u * t.sizeCursor);
    ++t.sizeCursor;
    return size;
}

uint32_t FrameStep(const Mp4Track& t)
{
    const uint32_t count = t.constantSize ? t.sampleCount : t.sizes.count;
    if (count == 0 || t.timescale == 0) {
        return 0;
    }
    const uint64_t step = t.duration * 90000 / count / t.timescale;
    return step > 0xFFFFFFFFu ? 0 : static_cast<uint32_t>(step);
}

// 0, 1 when the index is full (indexing stops there), 3 out of memory.
uint32_t Append(Mp4Info* info, const Mp4Sample& s)
{
    if (info->sampleCount == info->sampleCapacity) {
        if (info->sampleCapacity >= kMp4MaxSamples) {
            return 1;
        }
        uint32_t cap = info->sampleCapacity ? info->sampleCapacity * 2 : kFirstCapacity;
        if (cap > kMp4MaxSamples) {
            cap = kMp4MaxSamples;
        }
        auto* grown = static_cast<Mp4Sample*>(QMX_HeapMalloc(sizeof(Mp4Sample) * cap));
        if (!grown) {
            MP4_LOG(KORVALEN_LOG_ERROR, "QMX_HeapMalloc memory(size:%d) failed",
                    static_cast<int>(sizeof(Mp4Sample) * cap));
            return KORVALEN_ERR_NO_MEMORY;
        }
        if (info->samples) {
            std::memcpy(grown, info->samples, sizeof(Mp4Sample) * info->sampleCount);
            QMX_HeapFree(info->samples);
        }
        info->samples = grown;
        info->sampleCapacity = cap;
    }
    info->samples[info->sampleCount++] = s;
    return KORVALEN_OK;
}

} // namespace

uint32_t MP4_BuildIndex(Mp4Info* info)
{
    if (info->trackCount == 0) {
        return KORVALEN_OK;
    }
    info->videoTrack = 0;
    for (uint32_t i = 0; i < info->trackCount; ++i) {
        Mp4Track& t = info->tracks[i];
        t.sizeCursor = 0;
        t.chunkCursor = 0;
        t.syncCursor = 0;
        if (t.handler == MP4_Fourcc("vide")) {
            info->videoTrack = i;
        }
    }
    // A first chunk above the media data start moves the start up.
    uint64_t lowest = UINT64_MAX;
    for (uint32_t i = 0; i < info->trackCount; ++i) {
        if (info->tracks[i].chunks.count) {
            uint64_t first = ChunkOffset(info->tracks[i]);
            lowest = first < lowest ? first : lowest;
        }
    }
    if (lowest != UINT64_MAX && lowest > info->mdatStart) {
        info->mdatStart = lowest;
    }
    // Files whose first track is not video are indexed from that track alone.
    const bool firstIsVideo = info->tracks[0].handler == MP4_Fourcc("vide");
    const uint32_t indexed = firstIsVideo ? info->trackCount : 1;
    const uint32_t timedTrack = firstIsVideo ? info->videoTrack : 0;
    info->frameStep = FrameStep(info->tracks[timedTrack]);
    info->clock = 0;
    info->sampleCount = 0;

    bool haveLast = false;
    uint64_t pos = info->mdatStart;
    while (pos < info->mdatEnd) {
        Mp4Sample s{};
        bool begins = false;
        uint32_t track = 0;
        for (; track < indexed; ++track) {
            Mp4Track& t = info->tracks[track];
            if (HasChunk(t) && ChunkOffset(t) == pos) {
                begins = true;
                break;
            }
        }
        if (begins) {
            Mp4Track& t = info->tracks[track];
            if (!HasSize(t)) {
                break;
            }
            s.number = t.sizeCursor;
            s.size = NextSize(t);
            s.chunk = static_cast<int32_t>(t.chunkCursor++);
            info->lastTrack = track;
            haveLast = true;
        } else {
            if (!haveLast || !HasSize(info->tracks[info->lastTrack])) {
                break; // no chunk of any track reaches this position
            }
            track = info->lastTrack;
            Mp4Track& t = info->tracks[track];
            s.number = t.sizeCursor;
            s.size = NextSize(t);
            s.chunk = -1;
        }
        if (pos + s.size > info->fileLength) {
            break; // a sample beyond the end of a cut file
        }
        s.offset = pos;
        s.track = track;
        s.timeStamp = info->clock;
        if (track == timedTrack) {
            Mp4Track& t = info->tracks[track];
            if (firstIsVideo) {
                if (t.stss.count) {
                    if (t.syncCursor < t.stss.count && s.number + 1 == MP4_Load32(t.stss.data + 4u * t.syncCursor)) {
                        s.key = 1;
                        ++t.syncCursor;
                    }
                } else {
                    s.key = begins ? 1 : 0;
                }
            }
            info->clock += info->frameStep;
        }
        const uint32_t err = Append(info, s);
        if (err == KORVALEN_ERR_NO_MEMORY) {
            return err;
        }
        if (err != KORVALEN_OK) {
            MP4_LOG(KORVALEN_LOG_WARN, "MP4_BuildIndex warm, index full at %u samples", info->sampleCount);
            break;
        }
        if (s.size == 0 && !begins) {
            break; // an empty continuation sample would never move on
        }
        pos += s.size;
    }
    return KORVALEN_OK;
}
