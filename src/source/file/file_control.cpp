// The caller's controls of a file source: speed, stepping, seeking, play
// and file times, the real start time of an MP4, and marks.
#include <cstring>
#include <mutex>

#include "demux/mp4/mp4_reader.h"
#include "fileio/qmx_file.h"
#include "heap/qmx_heap.h"
#include "log/log.h"
#include "platform/platform.h"
#include "source/file/file_source.h"

namespace {

constexpr uint32_t kStepPollMs = 100;
constexpr uint64_t kMp4EpochToUnix = 2082844800; // seconds from 1904 to 1970
constexpr uint32_t kMarkTypeSei = 1;

FileSource* Src(void* state)
{
    return static_cast<FileSource*>(state);
}

} // namespace

void FILESRC_SetSpeed(void* state, uint32_t speedCode, uint32_t frameCtrl)
{
    Src(state)->speedCode = speedCode;
    Src(state)->frameCtrl = frameCtrl;
}

void FILESRC_Step(void* state, bool back)
{
    FileSource* src = Src(state);
    src->stepDone = 0;
    if (back) {
        src->frameCtrl = 0;
        src->backRequest = 1;
    } else {
        src->frameCtrl = 2;
    }
    // The play thread answers within a frame.
    while (!src->stepDone && src->thread.running) {
        PLAT_SleepMs(kStepPollMs);
    }
}

uint32_t FILESRC_Seek(void* state, uint32_t seconds)
{
    FileSource* src = Src(state);
    if (seconds > src->parser.totalTime) {
        return KORVALEN_ERR_JUMP_OVER;
    }
    src->seekRequest = static_cast<int32_t>(seconds);
    return KORVALEN_OK;
}

uint32_t FILESRC_PlayTime(void* state, uint32_t* seconds)
{
    std::lock_guard<std::mutex> lock(Src(state)->lock);
    return File_GetPlayTime(&Src(state)->parser, seconds);
}

uint32_t FILESRC_FileTime(void* state, uint32_t* seconds)
{
    return File_GetFileTime(&Src(state)->parser, seconds);
}

uint32_t FILESRC_PlayTimeEx(void* state, KORVALEN_PLAY_TIME* playTime)
{
    FileSource* src = Src(state);
    std::lock_guard<std::mutex> lock(src->lock);
    KORVALEN_PLAY_TIME t{};
    uint32_t err = File_GetPlayTime(&src->parser, &t.played_seconds);
    if (err != KORVALEN_OK) {
        return err;
    }
    t.total_seconds = src->parser.totalTime;
    t.timestamp_90k = src->currentStamp;
    *playTime = t;
    return KORVALEN_OK;
}

uint32_t FILESRC_Mp4RealTime(const char* fileName, uint32_t* realTime)
{
    uint32_t err = KORVALEN_OK;
    FILE* f = QMX_FileOpen(fileName, "rb", &err);
    if (!f) {
        return KORVALEN_ERR_FILE_OPEN;
    }
    Mp4Info* m = MP4_CreateMp4Parser(f, 0);
    err = KORVALEN_ERR_NOT_SUPPORTED; // not an MP4 file
    if (m) {
        // The movie header's creation time, when the writer set one.
        err = m->creationTime > kMp4EpochToUnix ? KORVALEN_OK : kFileErrGeneral;
        if (err == KORVALEN_OK) {
            *realTime = static_cast<uint32_t>(m->creationTime - kMp4EpochToUnix);
        }
        MP4_DestroyMp4Parser(m);
    }
    QMX_FileClose(f);
    return err;
}

uint32_t FILESRC_CheckMark(void* state, const KORVALEN_MARK_QUERY* query, uint32_t frameRate,
                           KORVALEN_MARK_INFO** marks)
{
    FileSource* src = Src(state);
    *marks = nullptr;
    auto* scan = QMX_New<FileParserInfo>();
    if (!scan) {
        return KORVALEN_ERR_NO_MEMORY;
    }
    uint32_t err = File_CreateFileParser(src->name, scan);
    if (err != KORVALEN_OK) {
        QMX_Delete(scan);
        return err;
    }
    src->markCheck = 1;
    if (query->start_seconds) {
        File_SetPlayTime(scan, query->start_seconds, frameRate);
    }
    KORVALEN_MARK_INFO** tail = marks;
    while (src->markCheck) {
        FileFrameInfo f{};
        err = File_ReadOneFrame(scan, &f, FILE_READ_MARKED);
        if (err != KORVALEN_OK && err != KORVALEN_ERR_UNKNOWN_STREAM) {
            break;
        }
        const uint64_t since = f.timeStamp > scan->startTime ? f.timeStamp - scan->startTime : 0;
        const auto seconds = static_cast<uint32_t>(since / 90000);
        if (query->end_seconds && seconds > query->end_seconds) {
            break;
        }
        if (err != KORVALEN_OK || f.frameType == 0 || seconds < query->start_seconds) {
            continue; // key frames come with mode 5 too; only marked ones count
        }
        auto* m = static_cast<KORVALEN_MARK_INFO*>(QMX_HeapMalloc(sizeof(KORVALEN_MARK_INFO)));
        if (!m) {
            err = KORVALEN_ERR_NO_MEMORY;
            break;
        }
        m->time_seconds = seconds;
        m->mark_type = kMarkTypeSei;
        m->timestamp_90k = f.timeStamp;
        m->next = nullptr;
        *tail = m;
        tail = &m->next;
    }
    src->markCheck = 0;
    File_DestroyFileParser(scan);
    QMX_Delete(scan);
    if (err == KORVALEN_ERR_NO_MEMORY) {
        FILESRC_FreeMarks(*marks);
        *marks = nullptr;
        return err;
    }
    return KORVALEN_OK;
}

void FILESRC_CancelMark(void* state)
{
    Src(state)->markCheck = 0;
}

uint32_t FILESRC_FreeMarks(KORVALEN_MARK_INFO* marks)
{
    if (!marks) {
        return KORVALEN_ERR_INVALID_PARAM;
    }
    while (marks) {
        KORVALEN_MARK_INFO* next = marks->next;
        QMX_HeapFree(marks);
        marks = next;
    }
    return KORVALEN_OK;
}
