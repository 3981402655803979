// Container detection and dispatch: one FileParserInfo per file-playing port.
#include "file/file_parser.h"

#include "demux/avi/avi.h"

#include <cstring>

#include "fileio/qmx_file.h"
#include "korvalen_types.h"
#include "log/log.h"
#include "heap/qmx_heap.h"

namespace {

constexpr uint32_t kTsProbeSize = 375;
constexpr uint32_t kAviProbeSize = 12;
constexpr uint32_t kTolkProbeSize = 144;
constexpr uint32_t kTolkMagic = 0x1367;

bool ReadAt(FILE* f, int64_t at, uint8_t* buf, uint32_t n, uint32_t* got)
{
    *got = 0;
    if (QMX_FileSeek(f, at, SEEK_SET) != KORVALEN_OK) {
        return false;
    }
    *got = static_cast<uint32_t>(std::fread(buf, 1, n, f));
    return true;
}

bool ProbeMp4(FILE* f)
{
    const int64_t keep = QMX_FileTell(f);
    uint8_t b[4];
    uint32_t got = 0;
    ReadAt(f, 4, b, 4, &got);
    QMX_FileSeek(f, keep, SEEK_SET);
    return got == 4 && std::memcmp(b, "ftyp", 4) == 0;
}

bool ProbeTs(FILE* f)
{
    uint8_t b[kTsProbeSize];
    uint32_t got = 0;
    ReadAt(f, 0, b, kTsProbeSize, &got);
    QMX_FileSeek(f, 0, SEEK_SET);
    return got > kTsPacketSize && b[0] == 0x47 && b[kTsPacketSize] == 0x47;
}

bool ProbeAvi(FILE* f)
{
    uint8_t b[kAviProbeSize];
    uint32_t got = 0;
    ReadAt(f, 0, b, kAviProbeSize, &got);
    return got == kAviProbeSize && std::memcmp(b, "RIFF", 4) == 0 && std::memcmp(b + 8, "AVI", 3) == 0;
}

bool ProbeTolk(FILE* f)
{
    uint8_t b[kTolkProbeSize];
    uint32_t got = 0;
    ReadAt(f, 0, b, kTolkProbeSize, &got);
    const uint32_t word = static_cast<uint32_t>(b[0]) | static_cast<uint32_t>(b[1]) << 8 |
                          static_cast<uint32_t>(b[2]) << 16 | static_cast<uint32_t>(b[3]) << 24;
    return got == kTolkProbeSize && word == kTolkMagic;
}

void Undo(FileParserInfo* info)
{
    MP4_DestroyMp4Parser(info->mp4Parser);
    info->mp4Parser = nullptr;
    QMX_HeapFree(info->frameBuffer);
    info->frameBuffer = nullptr;
    QMX_HeapFree(info->tsBuffer);
    info->tsBuffer = nullptr;
    QMX_HeapFree(info->tsAudioBuffer);
    info->tsAudioBuffer = nullptr;
    QMX_FileClose(info->file);
    info->file = nullptr;
    if (info->aviParser) {
        AVI_FileClose(nullptr, info->aviParser);
    }
    info->aviParser = nullptr;
    info->tolkParser = nullptr; // the own record format has no reader yet
}

uint8_t* Buffer(uint32_t size, uint32_t* result)
{
    auto* b = static_cast<uint8_t*>(QMX_HeapMalloc(size));
    if (!b) {
        FILE_LOG(KORVALEN_LOG_ERROR, "File_CreateFileParser fail, QMX_MALLOC[%d] failed", static_cast<int>(size));
        *result = KORVALEN_ERR_NO_MEMORY;
    }
    return b;
}

} // namespace

// One read-mode number serves both indexed readers.
static_assert(AVI_READ_ANY == MP4_READ_ANY && AVI_READ_KEY == MP4_READ_KEY && AVI_READ_VIDEO == MP4_READ_VIDEO &&
              AVI_READ_MARKED == MP4_READ_MARKED);

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
    info->frameBuffer = Buffer(kFileFrameBufferSize, &result);
    if (info->frameBuffer) {
        if (ProbeMp4(info->file)) {
            info->mp4Parser = MP4_CreateMp4Parser(info->file, 0);
            if (!info->mp4Parser) {
                FILE_LOG(KORVALEN_LOG_ERROR, "File_CreateFileParser fail, MP4_CreateMp4Parser fail");
                result = KORVALEN_ERR_INVALID_PARAM;
            }
        } else if (ProbeTs(info->file)) {
            info->tsBuffer = Buffer(kFileTsBufferSize, &result);
            info->tsAudioBuffer = info->tsBuffer ? Buffer(kFileTsAudioBufferSize, &result) : nullptr;
            if (info->tsAudioBuffer) {
                File_ResetTsDemux(info);
            }
        } else if (ProbeAvi(info->file)) {
            info->aviParser = AVI_CreateAviParser(name);
            if (!info->aviParser) {
                FILE_LOG(KORVALEN_LOG_ERROR, "File_CreateFileParser fail, AVI_CreateAviParser fail");
                result = KORVALEN_ERR_INVALID_PARAM;
            }
        } else if (ProbeTolk(info->file)) {
            // The own record format is recognised but has no reader: its files
            // answer as unsupported content.
            result = kFileErrUnsupported;
        } else {
            result = kFileErrUnsupported;
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

uint32_t File_CreateTsParser(const char* name, FileParserInfo* info)
{
    if (!info) {
        return KORVALEN_ERR_INVALID_PARAM;
    }
    std::memset(static_cast<void*>(info), 0, sizeof *info);
    uint32_t err = KORVALEN_OK;
    info->file = QMX_FileOpen(name, "rb", &err);
    if (!info->file) {
        return KORVALEN_ERR_FILE_OPEN;
    }
    err = File_GetTsProperty(info);
    if (err != KORVALEN_OK) {
        File_DestroyTsParser(info);
    }
    return err;
}

void File_DestroyTsParser(FileParserInfo* info)
{
    File_DestroyFileParser(info); // it holds only the stream
}

uint32_t File_GetFileProperty(FileParserInfo* info)
{
    if (info->mp4Parser) {
        uint32_t err = MP4_GetMp4Info(info->mp4Parser, &info->frameRate, &info->totalTime);
        if (err != KORVALEN_OK) {
            FILE_LOG(KORVALEN_LOG_ERROR, "File_GetFileProperty fail, MP4_GetMp4Info fail, error(%d)", err);
            return err;
        }
        info->startTime = 0;
    } else if (info->aviParser) {
        AVI_INFO avi{};
        uint32_t err = AVI_GetAviInfo(info->aviParser, &avi);
        if (err != KORVALEN_OK) {
            FILE_LOG(KORVALEN_LOG_ERROR, "File_GetFileProperty fail, AVI_GetAviInfo fail, error(%d)", err);
            return err;
        }
        info->frameRate = avi.frameRate;
        info->totalTime = avi.totalTime;
        info->startTime = 0;
    } else {
        uint32_t err = File_GetTsProperty(info);
        if (err != KORVALEN_OK) {
            return err;
        }
    }
    File_GetIFrameInterval(info);
    return KORVALEN_OK;
}

namespace {

// Hands a frame from either container reader over in the common form.
template <typename Frame>
uint32_t TakeFrame(uint32_t err, const char* reader, uint8_t* data, const Frame& f, FileFrameInfo* frame)
{
    if (err != KORVALEN_OK) {
        if (err != KORVALEN_ERR_FILE_END) {
            FILE_LOG(KORVALEN_LOG_ERROR, "File_ReadOneFrame fail, %s fail, error(%d)", reader, err);
        }
        return err;
    }
    frame->data = data;
    frame->length = f.length;
    frame->payloadType = f.payloadType;
    frame->frameType = f.frameType;
    frame->timeStamp = f.timeStamp;
    return KORVALEN_OK;
}

} // namespace

uint32_t File_ReadOneFrame(FileParserInfo* info, FileFrameInfo* frame, uint32_t readMode)
{
    if (!info || !frame || !info->file) {
        return KORVALEN_ERR_INVALID_PARAM;
    }
    // The read modes are numbered alike in both readers.
    if (info->aviParser) {
        AVI_FRAME_INFO f{};
        f.data = info->frameBuffer;
        f.capacity = kFileFrameBufferSize;
        uint32_t err = AVI_GetOneFrameData(info->aviParser, File_ParserReadMode(readMode), &f);
        return TakeFrame(err, "AVI_GetOneFrameData", f.data, f, frame);
    }
    if (!info->mp4Parser) {
        return File_ReadTsFrame(info, frame, readMode);
    }
    Mp4Frame f;
    f.buffer = info->frameBuffer;
    uint32_t err = MP4_GetOneFrameData(info->file, info->mp4Parser, File_ParserReadMode(readMode), &f);
    return TakeFrame(err, "MP4_GetOneFrameData", f.buffer, f, frame);
}

uint32_t File_SetPlayTime(FileParserInfo* info, uint32_t seconds, uint32_t framesPerSecond)
{
    if (!info || !info->file) {
        return KORVALEN_ERR_INVALID_PARAM;
    }
    if (info->mp4Parser) {
        uint32_t err = MP4_SetPlayTime(info->file, info->mp4Parser, seconds, framesPerSecond);
        if (err != KORVALEN_OK) {
            FILE_LOG(KORVALEN_LOG_ERROR, "File_SetPlayTime fail, MP4_SetPlayTime fail, error(%d)", err);
        }
        return err;
    }
    if (info->aviParser) {
        return AVI_SetPlayTime(info->aviParser, seconds, framesPerSecond);
    }
    return File_SeekTs(info, seconds);
}

uint32_t File_GetPlayTime(FileParserInfo* info, uint32_t* seconds)
{
    if (!info || !seconds) {
        return KORVALEN_ERR_INVALID_PARAM;
    }
    if (info->mp4Parser) {
        uint32_t err = MP4_GetCurSampleIndex(info->mp4Parser, seconds);
        if (err != KORVALEN_OK) {
            FILE_LOG(KORVALEN_LOG_ERROR, "File_GetPlayTime fail, MP4_GetPlayTime fail, error(%d)", err);
        }
        return err;
    }
    if (info->aviParser) {
        return AVI_GetCurSampleIndex(info->aviParser, seconds);
    }
    const uint64_t ts = info->tsFrame.timestamp;
    *seconds = ts > info->startTime ? static_cast<uint32_t>((ts - info->startTime) / 90000) : 0;
    return KORVALEN_OK;
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
