// Recording calls of a port: limits, start and stop, status, the finished
// files and the current size.
#include <cstdio>
#include <cstring>
#include <string>

#include "codec/code_manager.h"
#include "log/log.h"
#include "port/player_api.h"
#include "port/port_table.h"
#include "record/record.h"
#include "record/record_journal.h"
#include "record/record_mux.h"

namespace {

constexpr uint32_t kRecordQueueSlots = 4000; // of 2048 bytes: 8 MiB of stream
constexpr uint32_t kRecordSlotPayload = 2048;
constexpr uint64_t kMiB = 1048576;

// The caller's name without the record type's extension.
void BaseNameOf(const char* fileName, uint32_t recordType, char* base)
{
    std::snprintf(base, kRecordNameMax, "%s", fileName);
    const char* ext = REC_Extension(recordType);
    const size_t n = std::strlen(base);
    const size_t e = ext ? std::strlen(ext) : 0;
    if (ext && n > e && std::strcmp(base + n - e, ext) == 0) {
        base[n - e] = 0;
    }
}

// Left-over files of a dead writer in the folder of a new recording.
void RecoverBeside(const char* base)
{
    std::string dir(base);
    const size_t slash = dir.find_last_of('/');
    dir = slash == std::string::npos ? "." : dir.substr(0, slash == 0 ? 1 : slash);
    REC_RecoverFolder(dir.c_str());
}

} // namespace

uint32_t Player_SetRecordSize(uint32_t port, uint32_t sizeMb)
{
    return Player_OnPortOrLog(port, [&](PortRecord& rec) {
        if (sizeMb < 10 || sizeMb > 4000) {
            KORVALEN_LOG(KORVALEN_LOG_ERROR, "Port [%03d] Player_SetRecordSize fail, FileSize(%d) out of size", port,
                         sizeMb);
            return KORVALEN_ERR_INVALID_PARAM;
        }
        PortRecorder& r = rec.recorder;
        std::lock_guard<std::mutex> lock(r.lock);
        r.sizeLimit = sizeMb * kMiB;
        r.timeLimit = 0;
        return KORVALEN_OK;
    });
}

uint32_t Player_SetRecordDivByTime(uint32_t port, uint32_t minutes)
{
    return Player_OnPortOrLog(port, [&](PortRecord& rec) {
        if (minutes < 1 || minutes > 60) {
            KORVALEN_LOG(KORVALEN_LOG_ERROR, "Port [%03d] Player_SetRecordDivByTime fail, time(%d) out of size", port,
                         minutes);
            return KORVALEN_ERR_INVALID_PARAM;
        }
        PortRecorder& r = rec.recorder;
        std::lock_guard<std::mutex> lock(r.lock);
        r.timeLimit = minutes * 60;
        r.sizeLimit = 0;
        return KORVALEN_OK;
    });
}

uint32_t Player_StartRecord(uint32_t port, const char* fileName, uint32_t recordType,
                            const KORVALEN_RECORD_PARAM* param)
{
    return Player_OnPortOrLog(port, [&](PortRecord& rec) {
        PortRecorder& r = rec.recorder;
        if (r.recording) {
            return KORVALEN_ERR_RECORD_STARTED;
        }
        if (REC_Container(recordType) == REC_CONTAINER_NONE) {
            KORVALEN_LOG(KORVALEN_LOG_ERROR, "Port[%03d] Player_StartRecord fail, record type(%d) not support", port,
                         recordType);
            return KORVALEN_ERR_NOT_SUPPORTED;
        }
        if (!fileName || !*fileName || std::strlen(fileName) + 8 >= kRecordNameMax) {
            return KORVALEN_ERR_INVALID_PARAM;
        }
        if (r.thread.joinable()) {
            REC_StopThread(&rec.recorder); // a thread that ended on its own
        }
        {
            std::lock_guard<std::mutex> lock(r.lock);
            r.recordType = recordType;
            BaseNameOf(fileName, recordType, r.baseName);
            REC_TempName(r.baseName, r.tempName);
            r.partCounter = 0;
            r.callerStart = param ? param->start_time : 0;
            r.callerEnd = param ? param->end_time : 0;
        }
        RecoverBeside(r.baseName);
        if (REC_MakesUnique(recordType)) {
            Player_IsFileExist(21, r.tempName, kRecordNameMax);
        }
        r.failed = 0;
        r.divideWanted = 0;
        r.paramLen = 0;
        r.videoCodec = KORVALEN_CODEC_NONE;
        r.haveTs = 0;
        r.frameRate = 25;
        r.fileSize = 0;
        r.audioDecCodec = KORVALEN_CODEC_NONE;
        r.mp2Open = 0;
        uint32_t err = QUEUE_InitPacketBuffer(&r.queue, kRecordSlotPayload, kRecordQueueSlots);
        if (err == KORVALEN_OK) {
            err = REC_InitAssembly(&r.assembly);
        }
        if (err != KORVALEN_OK) {
            REC_ReleaseQueue(r);
            return err;
        }
        if (REC_OpenFirstFile(&rec.recorder) != KORVALEN_OK) {
            KORVALEN_LOG(KORVALEN_LOG_ERROR, "Port[%03d] Player_StartRecord fail, fopen fail", port);
            REC_ReleaseQueue(r);
            return KORVALEN_ERR_FILE_OPEN;
        }
        r.fileStartTime = time(nullptr);
        r.recording.store(1, std::memory_order_release);
        err = REC_StartThread(&rec.recorder);
        if (err != KORVALEN_OK) {
            r.recording = 0;
            MUX_Close(r.mux);
            r.mux = nullptr;
            std::remove(r.tempName);
            REC_ReleaseQueue(r);
            return err;
        }
        KORVALEN_LOG(KORVALEN_LOG_INFO, "Port[%03d] Player_StartRecord success, %s", port, r.tempName);
        return KORVALEN_OK;
    });
}

uint32_t Player_StopRecord(uint32_t port)
{
    return Player_OnPortOrLog(port, [&](PortRecord& rec) {
        PortRecorder& r = rec.recorder;
        if (!r.recording && !r.thread.joinable()) {
            return KORVALEN_OK;
        }
        r.recording.store(0);
        REC_StopThread(&rec.recorder); // the thread drains the queue first
        char finalName[kRecordNameMax] = {};
        uint32_t err = KORVALEN_OK;
        if (r.mux && !MUX_Started(r.mux)) {
            // No key frame ever came: there is nothing to play, no file is kept.
            MUX_Close(r.mux);
            r.mux = nullptr;
            std::remove(r.tempName);
            KORVALEN_LOG(KORVALEN_LOG_WARN, "Port[%03d] Player_StopRecord warm, nothing recorded", port);
        }
        if (r.mux) { // none when the last division could not open its file
            err = REC_FinishFile(port, &r, finalName);
            if (err != KORVALEN_OK && !r.failed) {
                REC_SendReport(port, err, finalName, nullptr);
            }
            REC_NoteFinishedFile(&r, finalName);
            REC_SendReport(port, kReportRecordFile, finalName,
                           "Port [%03d] Player_StopRecord warm, send report fail, error(%d)");
        }
        REC_ReleaseQueue(r);
        r.fileSize = 0;
        KORVALEN_LOG(KORVALEN_LOG_INFO, "Port[%03d] Player_StopRecord success, %s", port, finalName);
        return r.failed ? r.failed : err;
    });
}

uint32_t Player_StopRecordEx(uint32_t port, const KORVALEN_RECORD_PARAM* param)
{
    return Player_OnPortOrLog(port, [&](PortRecord& rec) {
        if (param) {
            std::lock_guard<std::mutex> lock(rec.recorder.lock);
            rec.recorder.callerStart = param->start_time;
            rec.recorder.callerEnd = param->end_time;
        }
        return Player_StopRecord(port);
    });
}

uint32_t Player_GetRecordStatus(uint32_t port, uint32_t* recording)
{
    return Player_OnPortOrLog(port, [&](PortRecord& rec) {
        *recording = rec.recorder.recording.load() ? 1 : 0;
        return KORVALEN_OK;
    });
}

uint32_t Player_GetRecordFiles(uint32_t port, uint32_t count, KORVALEN_RECORD_FILE* list)
{
    return Player_OnPortOrLog(port, [&](PortRecord& rec) {
        PortRecorder& r = rec.recorder;
        std::lock_guard<std::mutex> lock(r.lock);
        const REC_FILE_NODE* n = r.head;
        for (uint32_t i = 0; i < count; ++i) {
            std::snprintf(list[i].name, sizeof list[i].name, "%s", n ? n->name : "");
            n = n ? n->next : nullptr;
        }
        return KORVALEN_OK;
    });
}

uint32_t Player_GetRecordFileSize(uint32_t port, uint64_t* size)
{
    return Player_OnPortOrLog(port, [&](PortRecord& rec) {
        *size = rec.recorder.recording ? rec.recorder.fileSize.load() : 0;
        return KORVALEN_OK;
    });
}

uint32_t Player_SnatchOnce(uint32_t port, const char* fileName, uint32_t pictureFormat,
                           const KORVALEN_SNAP_PARAM* param)
{
    (void)param; // the JPEG encoder has one fixed quality
    return Player_OnPortOrLog(port,
                              [&](PortRecord& rec) { return Snap_Request(&rec.recorder, fileName, pictureFormat); });
}
