// The media file source: opening and closing, and the file play thread that
// reads one frame at a time and hands it to the pipeline, paced by the play
// speed.
#include "source/file/file_source.h"

#include <cstring>
#include <mutex>

#include "heap/qmx_heap.h"
#include "log/log.h"
#include "media/codec_facts.h"
#include "platform/platform.h"
#include "report/report.h"
#include "source/file/file_pacing.h"

namespace {

constexpr uint32_t kPausedSleepMs = 50;
constexpr uint32_t kDefaultRate = 25;

void Show(FileSource* src, const FileFrameInfo& f)
{
    src->sink.frame(src->sink.ctx, &f, SOURCE_FRAME_SHOW);
}

void DecodeQuietly(FileSource* src, const FileFrameInfo& f)
{
    src->sink.frame(src->sink.ctx, &f, SOURCE_FRAME_QUIET);
}

void SetRate(FileSource* src, uint32_t rate)
{
    src->rate = rate;
    src->frameInterval = 1000.0f / static_cast<float>(rate);
    src->sink.frameRate(src->sink.ctx, rate);
}

// The stream frame rate of a file: from the smallest step between video
// time stamps (B-frames make the steps uneven; the smallest is one frame).
void LearnRate(FileSource* src, uint64_t stamp)
{
    if (src->prevVideoStamp && stamp > src->prevVideoStamp) {
        const uint64_t step = stamp - src->prevVideoStamp;
        if (step <= 90000 && (src->minVideoStep == 0 || step < src->minVideoStep)) {
            src->minVideoStep = step;
            const auto rate = static_cast<uint32_t>(90000 / step);
            if (rate >= 1 && rate <= 60) {
                SetRate(src, rate);
            }
        }
    }
    src->prevVideoStamp = stamp;
}

// One frame back through the reader's sample index: decode quietly from the
// key frame before the target up to the frame before it, then show the
// target.
void StepBack(FileSource* src)
{
    std::unique_lock<std::mutex> lock(src->lock);
    const DEMUX_INDEX_OPS* index = src->parser.ops->index;
    if (src->lastVideoSample <= 0) {
        return;
    }
    const int64_t target = index->prevVideo(&src->parser, src->lastVideoSample);
    if (target < 0) {
        return; // already at the first frame
    }
    const int64_t key = index->keyAtOrBefore(&src->parser, target);
    for (int64_t i = key; i < target; ++i) {
        FileFrameInfo f{};
        if (index->readSample(&src->parser, i, &f) == KORVALEN_OK && Codec_IsVideo(f.payloadType)) {
            DecodeQuietly(src, f);
        }
    }
    FileFrameInfo f{};
    if (index->readSample(&src->parser, target, &f) != KORVALEN_OK) {
        return;
    }
    src->lastVideoSample = target;
    src->current = f;
    src->currentStamp = f.timeStamp;
    lock.unlock();
    Show(src, f);
}

// Reads video frames from a seek to `from` seconds until one at or after
// `before` (time stamps): the key frame decoding can start at, and the last
// frame ahead of `before`. False when no key frame comes ahead of it.
bool ScanBack(FileSource* src, uint32_t from, uint64_t before, uint64_t* key, uint64_t* last)
{
    if (File_SetPlayTime(&src->parser, from, src->rate) != KORVALEN_OK) {
        return false;
    }
    bool keyed = false;
    for (;;) {
        FileFrameInfo f{};
        if (File_ReadOneFrame(&src->parser, &f, FILE_READ_STEP) != KORVALEN_OK || f.timeStamp >= before) {
            return keyed;
        }
        if (!keyed && f.frameType == 0) {
            keyed = true;
            *key = f.timeStamp;
        }
        *last = f.timeStamp;
    }
}

// One frame back without a sample index (MPEG-TS, AVI): seek a little before
// the current frame, further each time no key frame lies ahead of it; find
// the frame before the current one, then seek again and decode quietly from
// the key frame up to it and show it. Time stamps in decode order: a stream
// with B-frames steps back in decode order.
void StepBackBySeeking(FileSource* src)
{
    std::unique_lock<std::mutex> lock(src->lock);
    const uint64_t current = src->lastVideoStamp;
    uint32_t now = 0;
    if (current == kNoVideoStamp || File_GetPlayTime(&src->parser, &now) != KORVALEN_OK) {
        return;
    }
    uint64_t key = 0;
    uint64_t target = 0;
    uint32_t from = now;
    for (uint32_t back = 1;; back *= 2) {
        from = now > back ? now - back : 0;
        if (ScanBack(src, from, current, &key, &target)) {
            break;
        }
        if (from == 0) {
            return; // the first frame: the scan has read up to it again, so going on shows the next
        }
    }
    File_SetPlayTime(&src->parser, from, src->rate);
    for (;;) {
        FileFrameInfo f{};
        if (File_ReadOneFrame(&src->parser, &f, FILE_READ_STEP) != KORVALEN_OK || f.timeStamp > target) {
            return;
        }
        if (f.timeStamp < key) {
            continue; // ahead of the key frame: cannot be decoded
        }
        if (f.timeStamp < target) {
            DecodeQuietly(src, f);
            continue;
        }
        src->lastVideoStamp = target;
        src->current = f;
        src->currentStamp = f.timeStamp;
        lock.unlock();
        Show(src, f);
        return;
    }
}

void SendEnd(FileSource* src)
{
    uint32_t seconds = 0;
    {
        std::lock_guard<std::mutex> lock(src->lock);
        File_GetPlayTime(&src->parser, &seconds);
    }
    uint32_t err = Report_Send(src->sink.port, kReportPlaybackEnd, KORVALEN_ERR_FILE_END, seconds, nullptr);
    if (err != KORVALEN_OK) {
        KORVALEN_LOG(KORVALEN_LOG_WARN, "Port [%03d] Player_StopRecord warm, send report fail, error(%d)",
                     src->sink.port, err);
    }
}

// Sleeps until the next frame is due.
void WaitForNextFrame(FileSource* src, const FileTime& previous)
{
    const FileTime now = File_Now();
    const int32_t elapsed = static_cast<int32_t>(now.seconds - previous.seconds) * 1000 +
                            (static_cast<int32_t>(now.milliseconds) - static_cast<int32_t>(previous.milliseconds));
    const int32_t wait = File_FrameWaitMs(src->frameCtrl, src->sink.speed->load(), src->rate, src->frameInterval,
                                          elapsed, src->sink.soundLevel(src->sink.ctx));
    if (wait > 0) {
        PLAT_SleepMs(static_cast<uint32_t>(wait));
    }
}

// Reads one frame in the read mode. 0, 263 at the end of the file, or the
// reader's error.
uint32_t ReadFrame(FileSource* src, uint32_t readMode)
{
    FileFrameInfo f{};
    uint32_t err;
    {
        std::lock_guard<std::mutex> lock(src->lock);
        err = File_ReadOneFrame(&src->parser, &f, readMode);
        // A seek may land on any frame: the pictures up to the next key frame
        // cannot be decoded, so they are passed over (sound still plays).
        while (err == KORVALEN_OK && src->keyAfterSeek && Codec_IsVideo(f.payloadType) && f.frameType != 0) {
            err = File_ReadOneFrame(&src->parser, &f, readMode);
        }
        if (err == KORVALEN_OK && Codec_IsVideo(f.payloadType)) {
            src->keyAfterSeek = false;
            if (const DEMUX_INDEX_OPS* index = src->parser.ops->index) {
                src->lastVideoSample = index->lastVideo(&src->parser);
            }
        }
    }
    if (err != KORVALEN_OK) {
        if (err != KORVALEN_ERR_FILE_END) {
            KORVALEN_LOG(KORVALEN_LOG_ERROR, "Port[%03d] Player_ParserFile fail, File_ReadOneFrame fail, error(%d)",
                         src->sink.port, err);
        }
        return err;
    }
    src->current = f;
    src->currentStamp = f.timeStamp;
    if (Codec_IsVideo(f.payloadType)) {
        src->lastVideoStamp = f.timeStamp;
        // Key-frame reading skips frames: its steps are key-frame distances,
        // not the frame interval the fast codes multiply.
        if (readMode != FILE_READ_KEY && readMode != FILE_READ_MARKED) {
            LearnRate(src, f.timeStamp);
        }
    }
    return KORVALEN_OK;
}

void FilePlayThread(FileSource* src)
{
    PLAT_SetThreadName("FilePlay");
    const uint32_t port = src->sink.port;
    KORVALEN_LOG(KORVALEN_LOG_INFO, "Port [%03d] Start __FilePayThreadEntry thread succeed", port);
    FileTime previous = File_Now();
    while (src->thread.running) {
        previous = File_Now();
        const int32_t seek = src->seekRequest.exchange(-1);
        if (src->backRequest.exchange(0)) {
            if (src->parser.ops->index) {
                StepBack(src);
            } else {
                StepBackBySeeking(src);
            }
            src->frameCtrl = 0;
            src->stepDone = 1;
            continue;
        }
        uint32_t mode = src->frameCtrl;
        if (seek < 0) {
            if (mode == 0 || (src->held && (mode == 1 || mode == 4 || mode == 5))) {
                PLAT_SleepMs(kPausedSleepMs);
                continue;
            }
            if (mode == 2 || mode == 3) {
                src->frameCtrl = 0;
                mode = 0;
            } else if (mode == 4 && src->switchToMarked) {
                src->frameCtrl = 5;
                mode = 5;
            } else if (mode > 5) {
                KORVALEN_LOG(KORVALEN_LOG_WARN, "Port [%03d] Start __FilePayThreadEntry warm, FrameCtrl unknow(%d)",
                             port, mode);
            }
        } else {
            uint32_t err;
            {
                std::lock_guard<std::mutex> lock(src->lock);
                err = File_SetPlayTime(&src->parser, static_cast<uint32_t>(seek), src->rate);
                src->keyAfterSeek = err == KORVALEN_OK && src->parser.ops->seeksToAnyFrame;
            }
            src->prevVideoStamp = 0;
            if (err != KORVALEN_OK) {
                KORVALEN_LOG(KORVALEN_LOG_WARN,
                             "Port [%03d] Start __FilePayThreadEntry warm, File_SetPlayTime fail, error(%d)", port,
                             err);
            }
        }
        uint32_t err = ReadFrame(src, mode);
        if (src->frameCtrl == 0 && src->stepDone == 0) {
            src->stepDone = 1;
        }
        if (err == KORVALEN_ERR_FILE_END) {
            KORVALEN_LOG(KORVALEN_LOG_INFO, "Port[%03d] Start __FilePayThreadEntry thread info, file read end", port);
            src->frameCtrl = 0;
            src->stepDone = 1;
            src->sink.drain(src->sink.ctx);
            SendEnd(src);
            continue;
        }
        if (err != KORVALEN_OK) {
            if (err != KORVALEN_ERR_UNKNOWN_STREAM) {
                KORVALEN_LOG(KORVALEN_LOG_WARN,
                             "Port [%03d] Start __FilePayThreadEntry thread warm, Player_ParserFile fail, error(%d)",
                             port, err);
            }
            continue;
        }
        // The recorder takes the frame here once recording lands.
        Show(src, src->current);
        if (Codec_IsVideo(src->current.payloadType) && mode != 0) {
            WaitForNextFrame(src, previous);
        }
    }
}

uint32_t Open(const void* params, const SOURCE_SINK* sink, void** state)
{
    const char* fileName = static_cast<const FILESRC_PARAMS*>(params)->name;
    FileSource* src = QMX_New<FileSource>();
    if (!src) {
        return KORVALEN_ERR_NO_MEMORY;
    }
    src->sink = *sink;
    uint32_t err = File_CreateFileParser(fileName, &src->parser);
    if (err != KORVALEN_OK) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "Port[%03d] Player_OpenMediaFile fail, File_CreateFileParser fail, error(%d)",
                     sink->port, err);
        QMX_Delete(src);
        return err;
    }
    std::strncpy(src->name, fileName, kFileNameMax - 1);
    const uint32_t rate =
        src->parser.frameRate >= 1 && src->parser.frameRate <= 60 ? src->parser.frameRate : kDefaultRate;
    SetRate(src, rate);
    *state = src;
    return KORVALEN_OK;
}

uint32_t Start(void* state)
{
    auto* src = static_cast<FileSource*>(state);
    if (SOURCE_StartThread(&src->thread, FilePlayThread, src) != KORVALEN_OK) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "Port[%03d] KTFW_SDK_thr_create FileRecv failed", src->sink.port);
        return KORVALEN_ERR_THREAD_CREATE;
    }
    return KORVALEN_OK;
}

void Stop(void* state)
{
    auto* src = static_cast<FileSource*>(state);
    src->frameCtrl = 0;
    SOURCE_StopThread(&src->thread);
}

void Close(void* state)
{
    auto* src = static_cast<FileSource*>(state);
    {
        std::lock_guard<std::mutex> lock(src->lock);
        File_DestroyFileParser(&src->parser);
    }
    QMX_Delete(src);
}

} // namespace

// Frames come whole from the file, on the play thread: no packet buffer and
// no decode thread.
const SOURCE_OPS kFileSourceOps = {"file", SOURCE_MEDIA_FILE, Open, Start, Stop, Close, nullptr, true};

FileTime File_Now()
{
    const uint32_t ms = PLAT_TickMs();
    return FileTime{ms / 1000, ms % 1000};
}

int32_t File_FrameWaitMs(uint32_t frameCtrl, float speedFactor, uint32_t frameRate, float frameInterval,
                         int32_t elapsedMs, int32_t soundLevel)
{
    int32_t target;
    if (frameCtrl != 4 && frameCtrl != 5) {
        target = static_cast<int32_t>(1000.0f * speedFactor / static_cast<float>(frameRate ? frameRate : kDefaultRate));
    } else {
        target = static_cast<int32_t>(frameInterval * speedFactor);
    }
    int32_t correction = 0;
    if (soundLevel >= 0 && speedFactor == 1.0f) {
        if (soundLevel < 5) {
            correction = frameRate < 31 ? -20 : -15;
        } else if (soundLevel >= 6 && soundLevel < 10) {
            correction = frameRate < 31 ? 20 : 15;
        }
    }
    return target - elapsedMs + correction;
}

void FILESRC_OnPlayState(void* state, bool playing)
{
    auto* src = static_cast<FileSource*>(state);
    src->held = playing ? 0 : 1;
    if (playing) {
        uint32_t expected = 0;
        src->frameCtrl.compare_exchange_strong(expected, 1);
    }
}
