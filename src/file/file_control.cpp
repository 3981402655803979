// File-only controls of the exported interface: speed, stepping, seeking,
// play and file times, the real start time of an MP4, and marks.
#include <cstring>
#include <mutex>

#include "fileio/qmx_file.h"
#include "log/log.h"
#include "platform/platform.h"
#include "heap/qmx_heap.h"
#include "port/player_api.h"
#include "port/port_table.h"

namespace {

constexpr uint32_t kStepPollMs = 100;
constexpr uint32_t kMaxSpeedCode = 35;
constexpr uint32_t kVideoDecoderMjpeg = 4;
constexpr uint64_t kMp4EpochToUnix = 2082844800; // seconds from 1904 to 1970
constexpr uint32_t kMarkTypeSei = 1;

bool IsFilePort(const PortRecord* rec)
{
    return rec->file.filePort != 0;
}

// Waits for the play thread to deliver the requested step.
void WaitStep(PortRecord* rec)
{
    while (!rec->file.stepDone && rec->file.running) {
        PLAT_SleepMs(kStepPollMs);
    }
}

} // namespace

uint32_t Player_SpeedPlay(uint32_t port, uint32_t speed)
{
    PortRecord* rec = Player_GetPort(port);
    if (!rec) {
        return KORVALEN_ERR_PORT;
    }
    const uint32_t kind = rec->sourceKind;
    const bool file = IsFilePort(rec);
    if (!file && kind != SOURCE_INPUT_STREAM && kind != SOURCE_NET_STREAM && !(kind == SOURCE_HLS && speed <= 4)) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "Port [%03d] Player_SpeedPlay fail, is not file port fail, error(0x%x)", port,
                     KORVALEN_ERR_NOT_SUPPORTED);
        return KORVALEN_ERR_NOT_SUPPORTED;
    }
    PortFile& pf = rec->file;
    const float streamRate = static_cast<float>(rec->playback.frameRate.load());
    const float playRate = static_cast<float>(rec->playback.fileFrameRate.load());
    const uint32_t slow = file && rec->playback.videoCodec != kVideoDecoderMjpeg ? 4 : 1;
    uint32_t ctrl = 0;
    float factor = 0;
    switch (speed) {
    case 0:
        ctrl = 1, factor = 4.0f;
        break;
    case 1:
        ctrl = 1, factor = 2.0f;
        break;
    case 2:
    case 12:
    case 13:
        ctrl = 1, factor = 1.0f;
        break;
    case 3:
        ctrl = 1, factor = 0.5f;
        break;
    case 4:
        ctrl = slow, factor = 0.25f;
        break;
    case 5:
        ctrl = slow, factor = 0.125f;
        break;
    case 6:
        ctrl = slow, factor = 0.0625f;
        break;
    case 25:
        ctrl = slow, factor = 0.025f;
        break;
    case 34:
        ctrl = slow, factor = 0.03125f;
        break;
    case 7:
    case 17:
    case 21:
        ctrl = 4, factor = streamRate / 16;
        break;
    case 8:
    case 16:
    case 20:
        ctrl = 4, factor = streamRate / 8;
        break;
    case 9:
    case 15:
    case 19:
        ctrl = 4, factor = playRate / 4;
        break;
    case 10:
    case 14:
    case 18:
        ctrl = 4, factor = streamRate / 2;
        break;
    case 11:
        ctrl = 4, factor = streamRate;
        break;
    case 26:
    case 27:
    case 35:
        ctrl = 4, factor = streamRate / 32;
        break;
    case 28:
    case 29:
        ctrl = 4, factor = streamRate / 64;
        break;
    case 30:
    case 31:
        ctrl = 4, factor = streamRate / 128;
        break;
    case 32:
    case 33:
        ctrl = 4, factor = streamRate / 256;
        break;
    case 22:
    case 23:
    case 24:
        pf.speedCode = speed;
        return KORVALEN_OK; // accepted, no effect
    default:
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "Port [%03d] Player_SpeedPlay fail, PlaySpeed(%d) not support", port, speed);
        return KORVALEN_ERR_INVALID_PARAM;
    }
    static_assert(kMaxSpeedCode == 35);
    pf.speedCode = speed;
    rec->speedFactor = factor;
    pf.frameCtrl = ctrl;
    return KORVALEN_OK;
}

uint32_t Player_AFrameGo(uint32_t port)
{
    PortRecord* rec = Player_GetPort(port);
    if (!rec) {
        return KORVALEN_ERR_PORT;
    }
    if (!IsFilePort(rec)) {
        return KORVALEN_ERR_NOT_SUPPORTED;
    }
    rec->file.stepDone = 0;
    rec->file.frameCtrl = 2;
    WaitStep(rec);
    return KORVALEN_OK;
}

uint32_t Player_AFrameBack(uint32_t port)
{
    PortRecord* rec = Player_GetPort(port);
    if (!rec) {
        return KORVALEN_ERR_PORT;
    }
    if (!IsFilePort(rec)) {
        return KORVALEN_ERR_NOT_SUPPORTED;
    }
    rec->file.stepDone = 0;
    rec->file.frameCtrl = 0;
    rec->file.backRequest = 1;
    WaitStep(rec);
    return KORVALEN_OK;
}

uint32_t Player_SetPlayedTime(uint32_t port, uint32_t seconds)
{
    PortRecord* rec = Player_GetPort(port);
    if (!rec) {
        return KORVALEN_ERR_PORT;
    }
    if (!IsFilePort(rec)) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "Port [%03d] Player_SetPlayedTime fail, is not file port fail, error(0x%x)",
                     port, KORVALEN_ERR_NOT_SUPPORTED);
        return KORVALEN_ERR_NOT_SUPPORTED;
    }
    if (seconds > rec->file.parser.totalTime) {
        return KORVALEN_ERR_JUMP_OVER;
    }
    rec->file.seekRequest = static_cast<int32_t>(seconds);
    return KORVALEN_OK;
}

uint32_t Player_CurPlayTime(uint32_t port, uint32_t* seconds)
{
    PortRecord* rec = Player_GetPort(port);
    if (!rec) {
        return KORVALEN_ERR_PORT;
    }
    if (IsFilePort(rec)) {
        uint32_t err;
        {
            std::lock_guard<std::mutex> lock(rec->file.lock);
            err = File_GetPlayTime(&rec->file.parser, seconds);
        }
        if (err != KORVALEN_OK) {
            KORVALEN_LOG(KORVALEN_LOG_ERROR, "Port [%03d] Player_CurPlayTime fail, File_GetPlayTime fail, error(0x%x)",
                         port, err);
        }
        return err;
    }
    const uint64_t stamp = rec->stream.frame.timestamp;
    if (stamp == 0) {
        return 1;
    }
    *seconds = static_cast<uint32_t>(stamp / 90000);
    return KORVALEN_OK;
}

uint32_t Player_GetFileTime(uint32_t port, uint32_t* seconds)
{
    PortRecord* rec = Player_GetPort(port);
    if (!rec) {
        return KORVALEN_ERR_PORT;
    }
    if (!IsFilePort(rec)) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "Port [%03d] Player_GetFileTime fail, is not file port fail, error(0x%x)",
                     port, KORVALEN_ERR_NOT_SUPPORTED);
        return KORVALEN_ERR_NOT_SUPPORTED;
    }
    return File_GetFileTime(&rec->file.parser, seconds);
}

uint32_t Player_GetPlayTimeEx(uint32_t port, KORVALEN_PLAY_TIME* playTime)
{
    PortRecord* rec = Player_GetPort(port);
    if (!rec) {
        return KORVALEN_ERR_PORT;
    }
    if (!IsFilePort(rec)) {
        return KORVALEN_ERR_NOT_SUPPORTED;
    }
    std::lock_guard<std::mutex> lock(rec->file.lock);
    KORVALEN_PLAY_TIME t{};
    uint32_t err = File_GetPlayTime(&rec->file.parser, &t.played_seconds);
    if (err != KORVALEN_OK) {
        return err;
    }
    t.total_seconds = rec->file.parser.totalTime;
    t.timestamp_90k = rec->file.currentStamp;
    *playTime = t;
    return KORVALEN_OK;
}

uint32_t Player_MP4GetRealTime(const char* fileName, uint32_t* realTime)
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

uint32_t Player_CheckMark(uint32_t port, const KORVALEN_MARK_QUERY* query, KORVALEN_MARK_INFO** marks)
{
    PortRecord* rec = Player_GetPort(port);
    if (!rec) {
        return KORVALEN_ERR_PORT;
    }
    if (!IsFilePort(rec)) {
        return KORVALEN_ERR_NOT_SUPPORTED;
    }
    *marks = nullptr;
    // A reader of its own, so the play position does not move.
    auto* scan = QMX_New<FileParserInfo>();
    if (!scan) {
        return KORVALEN_ERR_NO_MEMORY;
    }
    uint32_t err = File_CreateFileParser(rec->file.name, scan);
    if (err != KORVALEN_OK) {
        QMX_Delete(scan);
        return err;
    }
    rec->file.markCheck = 1;
    if (query->start_seconds) {
        File_SetPlayTime(scan, query->start_seconds, rec->playback.frameRate);
    }
    KORVALEN_MARK_INFO** tail = marks;
    while (rec->file.markCheck) {
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
    rec->file.markCheck = 0;
    File_DestroyFileParser(scan);
    QMX_Delete(scan);
    if (err == KORVALEN_ERR_NO_MEMORY) {
        Player_FreeMarkInfo(*marks);
        *marks = nullptr;
        return err;
    }
    return KORVALEN_OK;
}

uint32_t Player_CheckMarkCancel(uint32_t port)
{
    PortRecord* rec = Player_GetPort(port);
    if (!rec) {
        return KORVALEN_ERR_PORT;
    }
    rec->file.markCheck = 0;
    return KORVALEN_ERR_NOT_SUPPORTED; // always reported as failure, as callers expect
}

uint32_t Player_FreeMarkInfo(KORVALEN_MARK_INFO* marks)
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
