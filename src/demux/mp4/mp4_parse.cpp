// MP4 reader entry points: creation, information, frame delivery in the
// read modes, frame assembly into the caller's buffer, and seeking.
#include <cstring>
#include <new>

#include "demux/mp4/mp4_reader.h"
#include "fileio/qmx_file.h"
#include "heap/qmx_heap.h"
#include "korvalen_types.h"
#include "log/log.h"

namespace {

constexpr uint8_t kStartCode[4] = {0, 0, 0, 1};
constexpr uint32_t kMp4PayloadAudio = 1;
constexpr uint8_t kPrivateSeiMark = 0x21; // '!'

void FreeInfo(Mp4Info* info)
{
    QMX_HeapFree(info->samples);
    QMX_HeapFree(info->moov);
    QMX_Delete(info);
}

} // namespace

uint32_t MP4_FrameMarked(uint32_t payloadType, const uint8_t* d, uint32_t n)
{
    if (payloadType != KORVALEN_CODEC_H264 && payloadType != KORVALEN_CODEC_H265) {
        return 2;
    }
    for (uint32_t i = 0; i + 3 < n; ++i) {
        if (d[i] != 0 || d[i + 1] != 0 || d[i + 2] != 1) {
            continue;
        }
        const uint8_t b = d[i + 3];
        if (payloadType == KORVALEN_CODEC_H264) {
            const uint8_t type = b & 0x1F;
            if (type == 6 && i + 4 < n && d[i + 4] == kPrivateSeiMark) {
                return 1;
            }
            if (type == 5 || type == 1) {
                return 0;
            }
        } else {
            const uint8_t type = (b >> 1) & 63;
            if (type >= 1 && type <= 21) {
                return 0;
            }
        }
    }
    return 0;
}

Mp4Info* MP4_CreateMp4Parser(FILE* file, uint32_t)
{
    if (!file) {
        return nullptr;
    }
    auto* info = QMX_New<Mp4Info>();
    if (!info) {
        MP4_LOG(KORVALEN_LOG_ERROR, "QMX_HeapMalloc memory(size:%d) failed", static_cast<int>(sizeof(Mp4Info)));
        return nullptr;
    }
    if (QMX_FileSeek(file, 0, SEEK_END) != KORVALEN_OK || QMX_FileTell(file) < 0) {
        FreeInfo(info);
        return nullptr;
    }
    info->fileLength = static_cast<uint64_t>(QMX_FileTell(file));
    QMX_FileSeek(file, 0, SEEK_SET);
    if (MP4_ReadRootBoxes(file, info) != KORVALEN_OK) {
        MP4_LOG(KORVALEN_LOG_ERROR, "mp4_read_root_box fail");
        FreeInfo(info);
        return nullptr;
    }
    if (info->trackCount == 0) {
        MP4_LOG(KORVALEN_LOG_ERROR, "MP4_CreateMp4Parser fail, no track");
        FreeInfo(info);
        return nullptr;
    }
    if (MP4_BuildIndex(info) != KORVALEN_OK) {
        FreeInfo(info);
        return nullptr;
    }
    info->started = 0;
    return info;
}

void MP4_DestroyMp4Parser(Mp4Info* info)
{
    if (info) {
        FreeInfo(info);
    }
}

uint32_t MP4_GetMp4Info(const Mp4Info* info, uint32_t* frameRate, uint32_t* totalSeconds)
{
    if (!info) {
        MP4_LOG(KORVALEN_LOG_ERROR, "MP4_GetMp4Info fail, Mp4info is null");
        return KORVALEN_ERR_INVALID_PARAM;
    }
    *totalSeconds = info->timescale ? info->duration / info->timescale : 0;
    uint32_t rate = 25;
    if (info->frameStep == 0) {
        MP4_LOG(KORVALEN_LOG_WARN, "MP4_GetMp4Info fail, timescale == 0");
    } else if (90000 / info->frameStep != 0) {
        rate = 90000 / info->frameStep;
    }
    *frameRate = rate;
    return KORVALEN_OK;
}

uint32_t MP4_MakeOneFrame(FILE* file, Mp4Info* info, const Mp4Sample* sample, Mp4Frame* frame)
{
    const Mp4Track& t = info->tracks[sample->track];
    const bool video = sample->track == info->videoTrack && t.handler == MP4_Fourcc("vide");
    info->cursor = static_cast<uint32_t>(sample - info->samples) + 1; // a failing sample is not retried
    uint8_t* out = frame->buffer;
    uint32_t n = 0;
    if (video && sample->key && t.entry.hasAvcC && t.entry.sps && t.entry.pps) { // a record without sets adds none
        const uint64_t sets = 8ull + t.entry.spsLength + t.entry.ppsLength;
        if (sets + sample->size > kMp4FrameBufferSize) {
            MP4_LOG(KORVALEN_LOG_ERROR, "MP4_MakeOneFrame fail, frame size(%u) over buffer", sample->size);
            return 1;
        }
        std::memcpy(out, kStartCode, 4);
        std::memcpy(out + 4, t.entry.sps, t.entry.spsLength);
        n = 4u + t.entry.spsLength;
        std::memcpy(out + n, kStartCode, 4);
        std::memcpy(out + n + 4, t.entry.pps, t.entry.ppsLength);
        n += 4u + t.entry.ppsLength;
    }
    if (static_cast<uint64_t>(n) + sample->size > kMp4FrameBufferSize ||
        sample->offset + sample->size > info->fileLength) {
        MP4_LOG(KORVALEN_LOG_ERROR, "MP4_MakeOneFrame fail, frame size(%u) over buffer", sample->size);
        return 1;
    }
    if (QMX_FileSeek(file, static_cast<int64_t>(sample->offset), SEEK_SET) != KORVALEN_OK) {
        return 1;
    }
    for (uint32_t got = 0; got < sample->size;) {
        size_t r = std::fread(out + n + got, 1, sample->size - got, file);
        if (r == 0) {
            MP4_LOG(KORVALEN_LOG_ERROR, "fread data != need size[%d]", static_cast<int>(sample->size));
            return 1;
        }
        got += static_cast<uint32_t>(r);
    }
    if (sample->track != info->videoTrack) {
        frame->payloadType = kMp4PayloadAudio;
        frame->frameType = 0;
    } else {
        frame->payloadType = t.entry.type == MP4_Fourcc("hev1") ? KORVALEN_CODEC_H265 : KORVALEN_CODEC_H264;
        if (frame->payloadType == KORVALEN_CODEC_H264) {
            MP4_ToAnnexB(out + n, sample->size);
        }
        frame->frameType = sample->key ? 0 : 1;
    }
    frame->length = n + sample->size;
    frame->timeStamp = sample->timeStamp;
    info->currentSecond = static_cast<uint32_t>(sample->timeStamp / 90000);
    return KORVALEN_OK;
}

uint32_t MP4_GetOneFrameData(FILE* file, Mp4Info* info, uint32_t readMode, Mp4Frame* frame)
{
    if (!info) {
        MP4_LOG(KORVALEN_LOG_ERROR, "MP4_GetOneFrameData fail, Mp4info is null");
        return KORVALEN_ERR_INVALID_PARAM;
    }
    frame->length = 0;
    frame->payloadType = 0;
    frame->frameType = 0;
    frame->timeStamp = 0;
    if (!info->started) {
        info->cursor = 0;
        info->started = 1;
    }
    while (info->cursor < info->sampleCount) {
        const Mp4Sample* s = &info->samples[info->cursor];
        const bool video = s->track == info->videoTrack;
        if ((readMode == MP4_READ_KEY && !s->key) ||
            ((readMode == MP4_READ_VIDEO || readMode == MP4_READ_MARKED) && !video)) {
            ++info->cursor;
            continue;
        }
        uint32_t err = MP4_MakeOneFrame(file, info, s, frame);
        if (readMode != MP4_READ_MARKED || s->key) {
            return err;
        }
        if (err != KORVALEN_OK) {
            MP4_LOG(KORVALEN_LOG_ERROR, "MP4_GetOneFrameData fail, MP4_MakeOneFrame fail, error(0x%x)", err);
            return err;
        }
        const uint32_t marked = MP4_FrameMarked(frame->payloadType, frame->buffer, frame->length);
        if (marked == 2) {
            MP4_LOG(KORVALEN_LOG_ERROR, "MP4_GetOneFrameData fail, unknow payload(%d) fail, error(0x%x)",
                    frame->payloadType, 1);
            return 1;
        }
        if (marked == 1) {
            return KORVALEN_OK;
        }
    }
    frame->length = 0;
    MP4_LOG(KORVALEN_LOG_INFO, "MP4_GetOneFrameData info, file read complete");
    return KORVALEN_ERR_FILE_END;
}

uint32_t MP4_SetPlayTime(FILE*, Mp4Info* info, uint32_t seconds, uint32_t framesPerSecond)
{
    if (!info) {
        MP4_LOG(KORVALEN_LOG_ERROR, "MP4_SetPlayTime fail, Mp4info is null");
        return KORVALEN_ERR_INVALID_PARAM;
    }
    const uint64_t target =
        static_cast<uint64_t>(seconds) * (framesPerSecond > 0 && framesPerSecond <= 60 ? framesPerSecond : 25);
    uint64_t before = 0;
    uint32_t i = 0;
    for (; i < info->sampleCount; ++i) {
        if (info->samples[i].track != info->videoTrack) {
            continue;
        }
        if (before == target) {
            break;
        }
        ++before;
    }
    if (i >= info->sampleCount) {
        MP4_LOG(KORVALEN_LOG_ERROR, "MP4_SetPlayTime fail, not find Index");
        return 1;
    }
    while (i < info->sampleCount && !info->samples[i].key) {
        ++i;
    }
    info->cursor = i;
    info->started = 1;
    return KORVALEN_OK;
}

uint32_t MP4_GetCurSampleIndex(const Mp4Info* info, uint32_t* seconds)
{
    if (!info) {
        MP4_LOG(KORVALEN_LOG_ERROR, "MP4_GetCurSampleIndex fail, Mp4info is null");
        return KORVALEN_ERR_INVALID_PARAM;
    }
    *seconds = info->currentSecond;
    return KORVALEN_OK;
}

void MP4_ToAnnexB(uint8_t* data, uint32_t length)
{
    uint32_t at = 0;
    while (length - at >= 4) {
        const uint32_t len = MP4_Load32(data + at);
        std::memcpy(data + at, kStartCode, 4);
        at += 4;
        if (len > length - at) {
            break;
        }
        at += len;
    }
}

bool MP4_LengthPrefixed(const uint8_t* data, uint32_t length)
{
    if (length < 5 || (data[0] == 0 && data[1] == 0 && (data[2] == 1 || (data[2] == 0 && data[3] == 1)))) {
        return false;
    }
    uint32_t at = 0;
    while (length - at >= 4) {
        const uint32_t len = MP4_Load32(data + at);
        if (len == 0 || len > length - at - 4) {
            return false;
        }
        at += 4 + len;
    }
    return at == length;
}
