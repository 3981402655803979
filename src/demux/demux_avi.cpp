// The AVI row of the container table, over the AVI reader.
#include <cstring>

#include "demux/avi/avi.h"
#include "demux/demux.h"
#include "fileio/qmx_file.h"
#include "korvalen_types.h"
#include "log/log.h"

namespace {

constexpr uint32_t kProbeSize = 12;

AVI_HANDLE Reader(FileParserInfo* info)
{
    return static_cast<AVI_HANDLE>(info->reader);
}

bool Probe(FILE* f)
{
    uint8_t b[kProbeSize];
    uint32_t got = 0;
    DEMUX_ReadAt(f, 0, b, kProbeSize, &got);
    return got == kProbeSize && std::memcmp(b, "RIFF", 4) == 0 && std::memcmp(b + 8, "AVI", 3) == 0;
}

uint32_t Open(FileParserInfo* info, const char* name)
{
    info->reader = AVI_CreateAviParser(name);
    if (!info->reader) {
        FILE_LOG(KORVALEN_LOG_ERROR, "File_CreateFileParser fail, AVI_CreateAviParser fail");
        return KORVALEN_ERR_INVALID_PARAM;
    }
    return KORVALEN_OK;
}

uint32_t Info(FileParserInfo* info)
{
    AVI_INFO avi{};
    uint32_t err = AVI_GetAviInfo(Reader(info), &avi);
    if (err != KORVALEN_OK) {
        FILE_LOG(KORVALEN_LOG_ERROR, "File_GetFileProperty fail, AVI_GetAviInfo fail, error(%d)", err);
        return err;
    }
    info->frameRate = avi.frameRate;
    info->totalTime = avi.totalTime;
    info->startTime = 0;
    return KORVALEN_OK;
}

uint32_t Read(FileParserInfo* info, FileFrameInfo* frame, uint32_t readMode)
{
    AVI_FRAME_INFO f{};
    f.data = info->frameBuffer;
    f.capacity = kFileFrameBufferSize;
    uint32_t err = AVI_GetOneFrameData(Reader(info), File_ParserReadMode(readMode), &f);
    return DEMUX_TakeFrame(err, "AVI_GetOneFrameData",
                           FileFrameInfo{f.data, f.length, f.payloadType, f.frameType, f.timeStamp}, frame);
}

uint32_t Seek(FileParserInfo* info, uint32_t seconds, uint32_t framesPerSecond)
{
    return AVI_SetPlayTime(Reader(info), seconds, framesPerSecond);
}

uint32_t Tell(FileParserInfo* info, uint32_t* seconds)
{
    return AVI_GetCurSampleIndex(Reader(info), seconds);
}

void Close(FileParserInfo* info)
{
    AVI_FileClose(nullptr, Reader(info));
}

} // namespace

static_assert(AVI_READ_ANY == 0 && AVI_READ_KEY == 1 && AVI_READ_VIDEO == 2 && AVI_READ_MARKED == 3);

const DEMUX_OPS kDemuxAvi = {"avi", Probe, Open, Info, Read, Seek, Tell, Close, nullptr, false};
