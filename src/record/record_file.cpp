// Division of a running recording into a new file, the finished-file list,
// and the record packet queue fed by the sources.
#include <cstdio>
#include <cstring>

#include "codec/code_manager.h"
#include "heap/qmx_heap.h"
#include "log/log.h"
#include "platform/platform.h"
#include "record/record.h"
#include "record/record_mux.h"
#include "report/report.h"

namespace {

constexpr uint32_t kFullRetrySleepMs = 10;

REC_MUX_NAMING NamingOf(const PortRecorder& r)
{
    return REC_MUX_NAMING{r.recordType, r.baseName, r.partCounter, r.callerStart, r.callerEnd};
}

} // namespace

void REC_NoteFinishedFile(PortRecorder* r, const char* name)
{
    auto* node = static_cast<REC_FILE_NODE*>(QMX_HeapMalloc(sizeof(REC_FILE_NODE)));
    if (!node) {
        return;
    }
    std::snprintf(node->name, sizeof node->name, "%s", name);
    node->next = nullptr;
    std::lock_guard<std::mutex> lock(r->lock);
    if (r->tail) {
        r->tail->next = node;
    } else {
        r->head = node;
    }
    r->tail = node;
    ++r->count;
}

void REC_FreeFileList(PortRecorder* r)
{
    std::lock_guard<std::mutex> lock(r->lock);
    for (REC_FILE_NODE* n = r->head; n;) {
        REC_FILE_NODE* next = n->next;
        QMX_HeapFree(n);
        n = next;
    }
    r->head = r->tail = nullptr;
    r->count = 0;
}

void REC_SendReport(uint32_t port, uint32_t type, uint32_t code, const char* text)
{
    uint32_t err = Report_Send(port, type, code, 0, text);
    if (err != KORVALEN_OK) {
        KORVALEN_LOG(KORVALEN_LOG_WARN, "Port [%03d] send report fail, error(%d)", port, err);
    }
}

void REC_SendReport(uint32_t port, uint32_t code, const char* text, const char* warnFormat)
{
    uint32_t err = Report_Send(port, kReportRecord, code, 0, text);
    if (err != KORVALEN_OK && warnFormat) {
        KORVALEN_LOG(KORVALEN_LOG_WARN, warnFormat, port, err);
    }
}

uint32_t REC_FinishFile(uint32_t port, PortRecorder* r, char* finalName)
{
    uint32_t err = MUX_Close(r->mux);
    r->mux = nullptr;
    char next[kRecordNameMax];
    {
        std::lock_guard<std::mutex> lock(r->lock);
        REC_NAMING n{r->recordType,  r->baseName,  r->tempName,   &r->partCounter,
                     r->callerStart, r->callerEnd, time(nullptr), port};
        REC_NameClosedFile(&n, finalName);
        std::snprintf(next, sizeof next, "%s", r->tempName);
    }
    if (REC_MakesUnique(r->recordType)) {
        Player_IsFileExist(r->recordType, finalName, kRecordNameMax);
    }
    if (err == KORVALEN_ERR_FILE_INDEX) {
        // The index could not be written: the temporary file and its journal
        // stay for recovery, under the temporary name.
        std::snprintf(finalName, kRecordNameMax, "%s", next);
        return KORVALEN_ERR_DISK_FULL;
    }
    if (std::rename(next, finalName) != 0) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "Port[%03d] rename %s fail", port, next);
        std::snprintf(finalName, kRecordNameMax, "%s", next);
    }
    return err;
}

uint32_t REC_DivisionCheck(PortRecorder* r)
{
    uint64_t sizeLimit;
    uint32_t timeLimit;
    {
        std::lock_guard<std::mutex> lock(r->lock); // the caller may change the limits meanwhile
        sizeLimit = r->sizeLimit;
        timeLimit = r->timeLimit;
    }
    const uint64_t size = sizeLimit ? MUX_Size(r->mux) : 0;
    return REC_NeedDivide(r->recordType, sizeLimit, timeLimit, size, time(nullptr), r->fileStartTime);
}

uint32_t Player_CreateNewFile(PortRecorder* rec)
{
    PortRecorder& r = *rec;
    const uint32_t port = rec->port;
    KORVALEN_LOG(KORVALEN_LOG_INFO, "Port [%03d] __RecordThreadEntry Info, File size of out max", port);
    char finalName[kRecordNameMax];
    if (REC_Container(r.recordType) == REC_CONTAINER_NONE) {
        REC_NoteFinishedFile(&r, r.tempName);
        r.fileStartTime = time(nullptr);
        return KORVALEN_OK;
    }
    const uint32_t closeErr = REC_FinishFile(port, &r, finalName);
    if (closeErr != KORVALEN_OK) {
        REC_SendReport(port, KORVALEN_ERR_DISK_FULL, finalName, nullptr);
    }
    {
        std::lock_guard<std::mutex> lock(r.lock);
        REC_TempName(r.baseName, r.tempName);
        if (REC_MakesUnique(r.recordType)) {
            Player_IsFileExist(21, r.tempName, kRecordNameMax);
        }
    }
    REC_SendReport(port, kReportRecordFile, finalName,
                   "Port [%03d] Player_CreateNewFile warm, send report fail, error(%d)");
    const REC_MUX_NAMING naming = NamingOf(r);
    if (MUX_Open(REC_Container(r.recordType), r.tempName, &naming, &r.mux) != KORVALEN_OK) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "Port[%03d] Player_CreateNewFile fail, fopen fail", port);
        REC_SendReport(port, KORVALEN_ERR_FILE_OPEN, r.tempName, nullptr);
        return 1; // the closed file already has its final name and was reported
    }
    REC_NoteFinishedFile(&r, finalName);
    r.fileStartTime = time(nullptr);
    r.fileSize = 0;
    return KORVALEN_OK;
}

uint32_t REC_OpenFirstFile(PortRecorder* rec)
{
    PortRecorder& r = *rec;
    const REC_MUX_NAMING naming = NamingOf(r);
    return MUX_Open(REC_Container(r.recordType), r.tempName, &naming, &r.mux);
}

void REC_QueuePacket(PortRecorder* rec, const uint8_t* data, uint32_t length, uint32_t bufferCtrl, uint32_t maxRetries)
{
    PortRecorder& r = *rec;
    if (!r.recording.load(std::memory_order_acquire)) {
        return;
    }
    std::lock_guard<std::mutex> lock(r.feedLock);
    if (!r.recording.load()) {
        return;
    }
    uint32_t err = QUEUE_AddPacket(data, length, &r.queue);
    for (uint32_t i = 0;
         err == KORVALEN_ERR_BUFFER_FULL && bufferCtrl == 1 && (!maxRetries || i < maxRetries) && r.recording.load();
         ++i) {
        PLAT_SleepMs(kFullRetrySleepMs);
        err = QUEUE_AddPacket(data, length, &r.queue);
    }
    if (err != KORVALEN_OK) {
        KORVALEN_LOG(KORVALEN_LOG_WARN, "Port[%03d] QUEUE_AddPacket record failed, error(0x%x)", rec->port, err);
    }
}

void REC_ReleaseQueue(PortRecorder& r)
{
    std::lock_guard<std::mutex> lock(r.feedLock);
    QUEUE_ReleasePacketBuffer(&r.queue);
    REC_FreeAssembly(&r.assembly);
}

PortRecorder::~PortRecorder()
{
    // A port freed while recording with no source open: the file is
    // finished as a stop would.
    recording = 0;
    if (thread.joinable()) {
        thread.join();
    }
    if (audioDecCodec != KORVALEN_CODEC_NONE) {
        CODE_FreeCode(&audioDec);
    }
    if (mp2Open) {
        CODE_FreeCode(&mp2Enc);
    }
    if (mux) {
        char finalName[kRecordNameMax];
        REC_FinishFile(0, this, finalName);
    }
    QUEUE_ReleasePacketBuffer(&queue);
    REC_FreeAssembly(&assembly);
    REC_FreeFileList(this);
}
