// Container detection and dispatch: one FileParserInfo per file-playing port.
#include "demux/demux.h"

#include <cstring>

#include "demux/mp4/mp4_reader.h"
#include "fileio/qmx_file.h"
#include "heap/qmx_heap.h"
#include "korvalen_types.h"
#include "log/log.h"

namespace {

// The readers, in the order their probes are tried: a file whose bytes 4..7
// say "ftyp" is MP4 whatever else it looks like. The own record format
// (first word 0x1367) has no reader: like any file no probe takes, it
// answers 7.
const DEMUX_OPS* const kDemuxers[] = {&kDemuxMp4, &kDemuxTs, &kDemuxAvi};

void Undo(FileParserInfo* info)
{
    if (info->ops) {
        info->ops->close(info);
    }
    info->ops = nullptr;
    info->reader = nullptr;
    QMX_HeapFree(info->frameBuffer);
    info->frameBuffer = nullptr;
    QMX_FileClose(info->file);
    info->file = nullptr;
}

} // namespace

bool DEMUX_ReadAt(FILE* f, int64_t at, uint8_t* buf, uint32_t n, uint32_t* got)
{
    *got = 0;
    if (QMX_FileSeek(f, at, SEEK_SET) != KORVALEN_OK) {
        return false;
    }
    *got = static_cast<uint32_t>(std::fread(buf, 1, n, f));
    return true;
}

uint32_t DEMUX_TakeFrame(uint32_t err, const char* reader, const FileFrameInfo& in, FileFrameInfo* out)
{
    if (err != KORVALEN_OK) {
        if (err != KORVALEN_ERR_FILE_END) {
            FILE_LOG(KORVALEN_LOG_ERROR, "File_ReadOneFrame fail, %s fail, error(%d)", reader, err);
        }
        return err;
    }
    *out = in;
    return KORVALEN_OK;
}

// One read-mode number serves both indexed readers.
static_assert(MP4_READ_ANY == 0 && MP4_READ_KEY == 1 && MP4_READ_VIDEO == 2 && MP4_READ_MARKED == 3);

uint32_t File_ParserReadMode(uint32_t playerMode)
{
    switch (playerMode) {
    case FILE_READ_PAUSED:
    case FILE_READ_STEP:
    case FILE_READ_STEP_BACK:
        return MP4_READ_VIDEO;
    case FILE_READ_KEY:
        return MP4_READ_KEY;
    case FILE_READ_MARKED:
        return MP4_READ_MARKED;
    default:
        return MP4_READ_ANY;
    }
}

uint32_t File_CreateFileParser(const char* name, FileParserInfo* info)
{
    if (!info) {
        return KORVALEN_ERR_INVALID_PARAM;
    }
    std::memset(static_cast<void*>(info), 0, sizeof *info);
    uint32_t err = KORVALEN_OK;
    info->file = QMX_FileOpen(name, "rb", &err);
    if (!info->file) {
        FILE_LOG(KORVALEN_LOG_WARN, "File_CreateFileParser fail, fopen fail, error(%d)", err);
        return KORVALEN_ERR_FILE_OPEN;
    }
    uint32_t result = KORVALEN_OK;
    info->frameBuffer = static_cast<uint8_t*>(QMX_HeapMalloc(kFileFrameBufferSize));
    if (!info->frameBuffer) {
        FILE_LOG(KORVALEN_LOG_ERROR, "File_CreateFileParser fail, QMX_MALLOC[%d] failed",
                 static_cast<int>(kFileFrameBufferSize));
        result = KORVALEN_ERR_NO_MEMORY;
    } else {
        result = kFileErrUnsupported; // a file no reader recognises
        for (const DEMUX_OPS* ops : kDemuxers) {
            if (ops->probe(info->file)) {
                result = ops->open(info, name);
                if (result == KORVALEN_OK) {
                    info->ops = ops;
                }
                break;
            }
        }
    }
    if (result == KORVALEN_OK) {
        result = File_GetFileProperty(info);
        if (result != KORVALEN_OK) {
            FILE_LOG(KORVALEN_LOG_ERROR, "File_CreateFileParser fail, File_GetFileProperty");
        }
    }
    if (result != KORVALEN_OK) {
        Undo(info);
    }
    return result;
}

void File_DestroyFileParser(FileParserInfo* info)
{
    if (!info) {
        return;
    }
    Undo(info);
    std::memset(static_cast<void*>(info), 0, sizeof *info);
}

uint32_t File_GetFileProperty(FileParserInfo* info)
{
    if (!info || !info->ops) {
        return KORVALEN_ERR_INVALID_PARAM;
    }
    uint32_t err = info->ops->info(info);
    if (err != KORVALEN_OK) {
        return err;
    }
    File_GetIFrameInterval(info);
    return KORVALEN_OK;
}

uint32_t File_ReadOneFrame(FileParserInfo* info, FileFrameInfo* frame, uint32_t readMode)
{
    if (!info || !frame || !info->file || !info->ops) {
        return KORVALEN_ERR_INVALID_PARAM;
    }
    return info->ops->read(info, frame, readMode);
}

uint32_t File_SetPlayTime(FileParserInfo* info, uint32_t seconds, uint32_t framesPerSecond)
{
    if (!info || !info->file || !info->ops) {
        return KORVALEN_ERR_INVALID_PARAM;
    }
    return info->ops->seek(info, seconds, framesPerSecond);
}

uint32_t File_GetPlayTime(FileParserInfo* info, uint32_t* seconds)
{
    if (!info || !seconds || !info->ops) {
        return KORVALEN_ERR_INVALID_PARAM;
    }
    return info->ops->tell(info, seconds);
}

uint32_t File_GetFileTime(const FileParserInfo* info, uint32_t* seconds)
{
    *seconds = info->totalTime;
    return KORVALEN_OK;
}

uint32_t File_GetIFrameInterval(FileParserInfo* info)
{
    if (!info) {
        FILE_LOG(KORVALEN_LOG_ERROR, "File_GetIFrameInterval failed, Invalid param");
        return KORVALEN_ERR_INVALID_PARAM;
    }
    FileFrameInfo first{};
    FileFrameInfo second{};
    uint32_t err = File_ReadOneFrame(info, &first, FILE_READ_MARKED);
    if (err != KORVALEN_OK) {
        FILE_LOG(KORVALEN_LOG_ERROR, "File_GetIFrameInterval fail,Get first I frame failed");
    } else {
        const uint64_t firstStamp = first.timeStamp; // the frame data are overwritten by the next read
        err = File_ReadOneFrame(info, &second, FILE_READ_MARKED);
        if (err != KORVALEN_OK) {
            FILE_LOG(KORVALEN_LOG_ERROR, "File_GetIFrameInterval failed, Get Second I frame failed");
        } else {
            info->iFrameInterval = static_cast<float>(static_cast<double>(second.timeStamp - firstStamp) / 90.0);
        }
    }
    File_SetPlayTime(info, 0, 25);
    return err;
}
