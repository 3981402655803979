// The MPEG-TS row of the container table: properties from the PCRs at the
// start and end, frames through the TS demultiplexer the pushed streams use
// too, and seeking by a binary search on PCR.
#include <cinttypes>
#include <cstring>

#include "demux/demux.h"
#include "demux/mp4/mp4_reader.h"
#include "fileio/qmx_file.h"
#include "heap/qmx_heap.h"
#include "korvalen_types.h"
#include "log/log.h"

namespace {

constexpr uint64_t kSeekTolerance = 180000; // two seconds of 90 kHz ticks
constexpr uint32_t kMaxSeekDepth = 1000;

bool CarriesPcr(const uint8_t* pkt)
{
    // Unit start and an adaptation field; the PCR flag itself is not looked at.
    return (pkt[1] & 0x40) && (pkt[3] & 0x20);
}

uint16_t PidOf(const uint8_t* pkt)
{
    return static_cast<uint16_t>((pkt[1] & 0x1F) << 8 | pkt[2]);
}

// The PCR as every stored time of a TS file uses it: the middle byte pair is
// weighted 256 and 2, not 512 and 2, and must stay so for times, seeks and
// lengths to agree with one another.
uint64_t PcrOf(const uint8_t* b)
{
    const uint64_t high = ((static_cast<uint64_t>(b[6]) * 256 + b[7]) << 17) & 0x1FFFE0000ull;
    const uint64_t mid = (static_cast<uint64_t>(b[8]) * 256 | static_cast<uint64_t>(b[9]) * 2) & 0x1FFFEull;
    return high | mid | (b[10] >> 7);
}

uint32_t ReadPacket(FILE* f, uint8_t* pkt)
{
    uint32_t n = kTsPacketSize;
    uint32_t err = QMX_FileRead(f, pkt, &n);
    if (err != KORVALEN_OK) {
        return err;
    }
    if (n != kTsPacketSize) {
        FILE_LOG(KORVALEN_LOG_ERROR, "read data != %d, read len = %lu", static_cast<int>(kTsPacketSize),
                 static_cast<unsigned long>(n));
        return KORVALEN_ERR_FILE_READ;
    }
    return KORVALEN_OK;
}

// Binary search for the packet offset whose PCR lies within two seconds
// after target. 0 with *answer, or an error.
uint32_t SearchPcr(FILE* f, uint64_t fileLength, uint64_t target, uint64_t* answer)
{
    uint64_t low = 0;
    uint64_t high = fileLength;
    for (uint32_t depth = 1;; ++depth) {
        uint64_t mid = (low + high) / 2;
        uint8_t two[2 * kTsPacketSize];
        if (QMX_FileSeek(f, static_cast<int64_t>(mid), SEEK_SET) != KORVALEN_OK ||
            std::fread(two, 1, sizeof two, f) != sizeof two) {
            return KORVALEN_ERR_FILE_READ;
        }
        uint32_t k = 0;
        while (k < kTsPacketSize && !(two[k] == 0x47 && two[k + kTsPacketSize] == 0x47)) {
            ++k;
        }
        if (k == kTsPacketSize) {
            return KORVALEN_ERR_FILE_READ;
        }
        mid += k;
        QMX_FileSeek(f, static_cast<int64_t>(mid), SEEK_SET);
        uint8_t pkt[kTsPacketSize];
        uint64_t n = 0;
        for (;; ++n) {
            uint32_t err = ReadPacket(f, pkt);
            if (err != KORVALEN_OK) {
                return err;
            }
            if (pkt[0] == 0x47 && CarriesPcr(pkt)) {
                break;
            }
        }
        const uint64_t offset = mid + n * kTsPacketSize;
        const uint64_t pcr = PcrOf(pkt);
        if (pcr > target) {
            if (pcr <= target + kSeekTolerance) {
                *answer = offset;
                return KORVALEN_OK;
            }
            high = offset;
        } else {
            low = offset;
        }
        if (depth + 1 >= kMaxSeekDepth) {
            *answer = offset;
            return KORVALEN_OK;
        }
    }
}

// Player read mode filter for a demultiplexed frame.
bool Wanted(uint32_t readMode, const TS_FRAME& f)
{
    const bool video = f.codecType == KORVALEN_CODEC_H264 || f.codecType == KORVALEN_CODEC_H265;
    switch (readMode) {
    case FILE_READ_PAUSED:
    case FILE_READ_STEP:
    case FILE_READ_STEP_BACK:
        return video;
    case FILE_READ_KEY:
        return video && f.frameType == 0;
    case FILE_READ_MARKED:
        return video && (f.frameType == 0 || MP4_FrameMarked(f.codecType, f.data, f.length) == 1);
    default:
        return true;
    }
}

} // namespace

uint32_t File_GetPCR(FILE* file, bool fromEnd, uint16_t* pid, uint64_t* pcr)
{
    int64_t pos = fromEnd ? QMX_FileTell(file) : 0;
    uint8_t pkt[kTsPacketSize];
    for (;;) {
        if (fromEnd) {
            pos -= kTsPacketSize;
            if (pos < 0 || QMX_FileSeek(file, pos, SEEK_SET) != KORVALEN_OK) {
                return KORVALEN_ERR_FILE_READ;
            }
        }
        uint32_t err = ReadPacket(file, pkt);
        if (err != KORVALEN_OK) {
            return err;
        }
        if (pkt[0] != 0x47) {
            return KORVALEN_ERR_FILE_READ;
        }
        if (!CarriesPcr(pkt)) {
            continue;
        }
        if (*pid == 0) {
            *pid = PidOf(pkt);
        }
        if (PidOf(pkt) == *pid) {
            *pcr = PcrOf(pkt);
            return KORVALEN_OK;
        }
    }
}

uint32_t File_GetTsProperty(FileParserInfo* info)
{
    FILE* f = info->file;
    uint16_t pid = 0;
    uint64_t first = 0;
    uint64_t next = 0;
    uint64_t last = 0;
    if (File_GetPCR(f, false, &pid, &first) != KORVALEN_OK) {
        FILE_LOG(KORVALEN_LOG_ERROR, "File_GetFileProperty fail, File_GetPCR Get first frame pcr fail");
        return KORVALEN_ERR_FILE_READ;
    }
    FILE_LOG(KORVALEN_LOG_DEBUG, "pid(0x%x), first pcr(%" PRIu64 ")", pid, first);
    if (File_GetPCR(f, false, &pid, &next) != KORVALEN_OK) {
        FILE_LOG(KORVALEN_LOG_ERROR, "File_GetFileProperty fail, File_GetPCR Get next frame pcr fail");
        return KORVALEN_ERR_FILE_READ;
    }
    FILE_LOG(KORVALEN_LOG_INFO, "pid(0x%x), next pcr(%" PRIu64 ")", pid, next);
    if (next == first && File_GetPCR(f, false, &pid, &next) == KORVALEN_OK && next == first) {
        FILE_LOG(KORVALEN_LOG_ERROR, "File_GetFileProperty fail, NextNextPCR - FirstPCR = 0");
    }
    // PCR intervals per second stand for the frame rate; an interval under a
    // millisecond leaves it at 0.
    const uint64_t ms = next > first ? (next - first) / 90 : 0;
    info->frameRate = ms ? static_cast<uint32_t>(1000 / ms) : 0;
    QMX_FileSeek(f, 0, SEEK_END);
    const int64_t end = QMX_FileTell(f);
    if (File_GetPCR(f, true, &pid, &last) != KORVALEN_OK) {
        FILE_LOG(KORVALEN_LOG_ERROR, "File_GetFileProperty fail, File_GetPCR Get last frame pcr fail");
        return KORVALEN_ERR_FILE_READ;
    }
    FILE_LOG(KORVALEN_LOG_INFO, "pid(0x%x), last pcr(%" PRIu64 ")", pid, last);
    if (end <= 0) {
        FILE_LOG(KORVALEN_LOG_ERROR, "File_GetFileProperty fail, File Len is Zero");
        return kFileErrGeneral;
    }
    info->fileLength = static_cast<uint64_t>(end);
    QMX_FileSeek(f, 0, SEEK_SET);
    info->startTime = first;
    info->totalTime = last > first ? static_cast<uint32_t>((last - first) / 90000) : 0;
    info->pcrPid = pid;
    return KORVALEN_OK;
}

uint32_t TS_GetOneFrameData(FILE* file, uint32_t, uint8_t* buffer, uint32_t* length)
{
    uint32_t n = kFileTsReadPackets * kTsPacketSize;
    uint32_t err = QMX_FileRead(file, buffer, &n);
    if (err != KORVALEN_OK) {
        return err;
    }
    n -= n % kTsPacketSize; // a cut last packet is left out
    if (n == 0) {
        return KORVALEN_ERR_FILE_END;
    }
    *length = n;
    return KORVALEN_OK;
}

namespace {

constexpr uint32_t kProbeSize = 375;

void ResetDemux(FileParserInfo* info)
{
    TS_Reset(&info->tsDemuxState, info->frameBuffer, kFileFrameBufferSize, info->tsAudioBuffer, kFileTsAudioBufferSize);
    info->tsFrameLength = 0;
    info->tsEnded = 0;
}

uint32_t Read(FileParserInfo* info, FileFrameInfo* frame, uint32_t readMode)
{
    if (!info->tsBuffer) {
        return KORVALEN_ERR_INVALID_PARAM;
    }
    TS_PARSER* demux = &info->tsDemuxState;
    for (;;) {
        TS_FRAME f{};
        uint32_t err;
        if (info->tsEnded) {
            if (TS_Flush(demux, &f) != KORVALEN_OK) {
                return KORVALEN_ERR_FILE_END;
            }
            err = KORVALEN_OK;
        } else if (demux->resume) {
            err = TS_GetOneFrame(demux, info->tsBuffer, info->tsFrameLength, &f);
        } else {
            err = TS_GetOneFrameData(info->file, readMode, info->tsBuffer, &info->tsFrameLength);
            if (err == KORVALEN_ERR_FILE_END) {
                info->tsEnded = 1;
                continue;
            }
            if (err != KORVALEN_OK) {
                FILE_LOG(KORVALEN_LOG_ERROR, "File_ReadOneFrame fail, TS_GetOneFrameData fail, error(%d)", err);
                return err;
            }
            err = TS_GetOneFrame(demux, info->tsBuffer, info->tsFrameLength, &f);
        }
        if (err == KORVALEN_ERR_NEED_MORE_DATA) {
            continue;
        }
        if (err == KORVALEN_ERR_UNKNOWN_STREAM) {
            FILE_LOG(KORVALEN_LOG_DEBUG, "unknown stream type");
            return err;
        }
        if (err != KORVALEN_OK) {
            FILE_LOG(KORVALEN_LOG_ERROR, "parser failed,error = %lu", static_cast<unsigned long>(err));
            return err;
        }
        if (!Wanted(readMode, f)) {
            continue;
        }
        info->tsFrame = f;
        frame->timeStamp = f.timestamp;
        frame->payloadType = f.codecType;
        frame->frameType = f.frameType;
        frame->data = f.data;
        frame->length = f.length;
        return KORVALEN_OK;
    }
}

uint32_t Seek(FileParserInfo* info, uint32_t seconds, uint32_t)
{
    FILE* f = info->file;
    uint32_t err = KORVALEN_OK;
    if (seconds >= info->totalTime && seconds != 0) {
        return KORVALEN_OK; // at or beyond the end: nothing moves
    }
    if (seconds == 0) {
        err = QMX_FileSeek(f, 0, SEEK_SET);
    } else {
        const uint64_t target = static_cast<uint64_t>(seconds) * 90000 + info->startTime;
        uint64_t at = 0;
        err = SearchPcr(f, info->fileLength, target, &at);
        if (err != KORVALEN_OK) {
            FILE_LOG(KORVALEN_LOG_ERROR, "get offset failed");
        } else {
            // Start at the next PAT so that the demultiplexer learns the streams again.
            QMX_FileSeek(f, static_cast<int64_t>(at), SEEK_SET);
            uint8_t pkt[kTsPacketSize];
            for (;;) {
                err = ReadPacket(f, pkt);
                if (err != KORVALEN_OK) {
                    break;
                }
                if (PidOf(pkt) == 0) {
                    QMX_FileSeek(f, -static_cast<int64_t>(kTsPacketSize), SEEK_CUR);
                    break;
                }
            }
        }
    }
    ResetDemux(info);
    return err;
}

bool Probe(FILE* f)
{
    uint8_t b[kProbeSize];
    uint32_t got = 0;
    DEMUX_ReadAt(f, 0, b, kProbeSize, &got);
    QMX_FileSeek(f, 0, SEEK_SET);
    return got > kTsPacketSize && b[0] == 0x47 && b[kTsPacketSize] == 0x47;
}

uint8_t* Buffer(uint32_t size)
{
    auto* b = static_cast<uint8_t*>(QMX_HeapMalloc(size));
    if (!b) {
        FILE_LOG(KORVALEN_LOG_ERROR, "File_CreateFileParser fail, QMX_MALLOC[%d] failed", static_cast<int>(size));
    }
    return b;
}

uint32_t Open(FileParserInfo* info, const char*)
{
    info->tsBuffer = Buffer(kFileTsBufferSize);
    info->tsAudioBuffer = info->tsBuffer ? Buffer(kFileTsAudioBufferSize) : nullptr;
    if (!info->tsAudioBuffer) {
        QMX_HeapFree(info->tsBuffer);
        info->tsBuffer = nullptr;
        return KORVALEN_ERR_NO_MEMORY;
    }
    ResetDemux(info);
    return KORVALEN_OK;
}

uint32_t Tell(FileParserInfo* info, uint32_t* seconds)
{
    const uint64_t ts = info->tsFrame.timestamp;
    *seconds = ts > info->startTime ? static_cast<uint32_t>((ts - info->startTime) / 90000) : 0;
    return KORVALEN_OK;
}

void Close(FileParserInfo* info)
{
    QMX_HeapFree(info->tsBuffer);
    info->tsBuffer = nullptr;
    QMX_HeapFree(info->tsAudioBuffer);
    info->tsAudioBuffer = nullptr;
}

} // namespace

const DEMUX_OPS kDemuxTs = {"ts", Probe, Open, File_GetTsProperty, Read, Seek, Tell, Close, nullptr, true};
