// The MP4 row of the container table, over the MP4 reader and its sample
// index (which also serves stepping back).
#include <cstring>

#include "demux/demux.h"
#include "demux/mp4/mp4_reader.h"
#include "fileio/qmx_file.h"
#include "korvalen_types.h"
#include "log/log.h"

namespace {

Mp4Info* Reader(FileParserInfo* info)
{
    return static_cast<Mp4Info*>(info->reader);
}

bool Probe(FILE* f)
{
    const int64_t keep = QMX_FileTell(f);
    uint8_t b[4];
    uint32_t got = 0;
    DEMUX_ReadAt(f, 4, b, 4, &got);
    QMX_FileSeek(f, keep, SEEK_SET);
    return got == 4 && std::memcmp(b, "ftyp", 4) == 0;
}

uint32_t Open(FileParserInfo* info, const char*)
{
    info->reader = MP4_CreateMp4Parser(info->file, 0);
    if (!info->reader) {
        FILE_LOG(KORVALEN_LOG_ERROR, "File_CreateFileParser fail, MP4_CreateMp4Parser fail");
        return KORVALEN_ERR_INVALID_PARAM;
    }
    return KORVALEN_OK;
}

uint32_t Info(FileParserInfo* info)
{
    uint32_t err = MP4_GetMp4Info(Reader(info), &info->frameRate, &info->totalTime);
    if (err != KORVALEN_OK) {
        FILE_LOG(KORVALEN_LOG_ERROR, "File_GetFileProperty fail, MP4_GetMp4Info fail, error(%d)", err);
        return err;
    }
    info->startTime = 0;
    return KORVALEN_OK;
}

// Samples are handed over as stored, each H.265 unit behind a 4-byte length;
// the stream probes and the decoder read start codes, so a sample that
// proves to be such a chain gets start codes, in place.
FileFrameInfo Common(const Mp4Frame& f)
{
    if (f.payloadType == KORVALEN_CODEC_H265 && MP4_LengthPrefixed(f.buffer, f.length)) {
        MP4_ToAnnexB(f.buffer, f.length);
    }
    return FileFrameInfo{f.buffer, f.length, f.payloadType, f.frameType, f.timeStamp};
}

uint32_t Read(FileParserInfo* info, FileFrameInfo* frame, uint32_t readMode)
{
    Mp4Frame f;
    f.buffer = info->frameBuffer;
    uint32_t err = MP4_GetOneFrameData(info->file, Reader(info), File_ParserReadMode(readMode), &f);
    return DEMUX_TakeFrame(err, "MP4_GetOneFrameData", err == KORVALEN_OK ? Common(f) : FileFrameInfo{}, frame);
}

uint32_t Seek(FileParserInfo* info, uint32_t seconds, uint32_t framesPerSecond)
{
    uint32_t err = MP4_SetPlayTime(info->file, Reader(info), seconds, framesPerSecond);
    if (err != KORVALEN_OK) {
        FILE_LOG(KORVALEN_LOG_ERROR, "File_SetPlayTime fail, MP4_SetPlayTime fail, error(%d)", err);
    }
    return err;
}

uint32_t Tell(FileParserInfo* info, uint32_t* seconds)
{
    uint32_t err = MP4_GetCurSampleIndex(Reader(info), seconds);
    if (err != KORVALEN_OK) {
        FILE_LOG(KORVALEN_LOG_ERROR, "File_GetPlayTime fail, MP4_GetPlayTime fail, error(%d)", err);
    }
    return err;
}

void Close(FileParserInfo* info)
{
    MP4_DestroyMp4Parser(Reader(info));
}

bool IsVideo(const Mp4Info* m, int64_t i)
{
    return m->samples[i].track == m->videoTrack;
}

int64_t LastVideo(FileParserInfo* info)
{
    return static_cast<int64_t>(Reader(info)->cursor) - 1;
}

int64_t PrevVideo(FileParserInfo* info, int64_t sample)
{
    const Mp4Info* m = Reader(info);
    int64_t i = sample - 1;
    while (i >= 0 && !IsVideo(m, i)) {
        --i;
    }
    return i;
}

int64_t KeyAtOrBefore(FileParserInfo* info, int64_t sample)
{
    const Mp4Info* m = Reader(info);
    int64_t i = sample;
    while (i > 0 && !(IsVideo(m, i) && m->samples[i].key)) {
        --i;
    }
    return i;
}

uint32_t ReadSample(FileParserInfo* info, int64_t sample, FileFrameInfo* frame)
{
    Mp4Info* m = Reader(info);
    Mp4Frame f;
    f.buffer = info->frameBuffer;
    uint32_t err = MP4_MakeOneFrame(info->file, m, &m->samples[sample], &f);
    if (err == KORVALEN_OK) {
        *frame = Common(f);
    }
    return err;
}

const DEMUX_INDEX_OPS kIndex = {LastVideo, PrevVideo, KeyAtOrBefore, ReadSample};

} // namespace

const DEMUX_OPS kDemuxMp4 = {"mp4", Probe, Open, Info, Read, Seek, Tell, Close, &kIndex, false};
