// Container dispatch for local media files: opens a file, recognises the
// container by its content (never by its name), creates the matching reader
// and routes reads, seeks and position queries to it.
//
// Readers: MP4 (mp4/), MPEG-TS (the TS demultiplexer of player/ts_parser.h,
// fed from the file here). The AVI reader and the own record format reader
// plug in beside MP4 where detection tests "RIFF....AVI" and the 0x1367
// header word; until they exist those files fall through to "unsupported"
// (7), and their handles below stay null.
#pragma once

#include <cstdint>
#include <cstdio>

#include "demux/mp4/mp4_reader.h"
#include "demux/ts_parser.h"

constexpr uint32_t kFileFrameBufferSize = 0x200000;
constexpr uint32_t kFileTsBufferSize = 0x200000;
constexpr uint32_t kFileTsAudioBufferSize = 0x10000;
constexpr uint32_t kFileTsReadPackets = 64; // packets read from the file per chunk

struct AVI_FILE;   // AVI reader (avi/avi.h)
struct TolkParser; // own record format reader, not built yet

struct FileParserInfo {
    FILE* file;
    uint64_t startTime; // 90 kHz; MPEG-TS: the first PCR
    uint32_t totalTime; // seconds
    uint32_t pcrPid;
    uint64_t fileLength;
    uint32_t frameRate;
    Mp4Info* mp4Parser;
    AVI_FILE* aviParser;
    TolkParser* tolkParser;
    uint8_t* frameBuffer;
    uint32_t tsFrameLength; // bytes of transport packets last read
    uint8_t* tsBuffer;
    TS_PARSER tsDemuxState;
    TS_FRAME tsFrame; // the demultiplexer's current frame
    uint8_t* tsAudioBuffer;
    uint32_t tsEnded;     // the file is read to its end: what the demultiplexer holds is flushed
    float iFrameInterval; // ms between the first two key frames
};

struct FileFrameInfo {
    const uint8_t* data;
    uint32_t length;
    uint32_t payloadType;
    uint32_t frameType;
    uint64_t timeStamp; // 90 kHz
};

// Player read modes (the port's frame control).
enum FileReadMode : uint32_t {
    FILE_READ_PAUSED = 0,
    FILE_READ_NORMAL = 1,
    FILE_READ_STEP = 2,
    FILE_READ_STEP_BACK = 3,
    FILE_READ_KEY = 4,
    FILE_READ_MARKED = 5,
};

uint32_t File_CreateFileParser(const char* name, FileParserInfo* info);
void File_DestroyFileParser(FileParserInfo* info);
uint32_t File_CreateTsParser(const char* name, FileParserInfo* info);
void File_DestroyTsParser(FileParserInfo* info);
uint32_t File_GetFileProperty(FileParserInfo* info);
uint32_t File_ReadOneFrame(FileParserInfo* info, FileFrameInfo* frame, uint32_t readMode);
uint32_t File_SetPlayTime(FileParserInfo* info, uint32_t seconds, uint32_t framesPerSecond);
uint32_t File_GetPlayTime(FileParserInfo* info, uint32_t* seconds);
uint32_t File_GetFileTime(const FileParserInfo* info, uint32_t* seconds);
uint32_t File_GetIFrameInterval(FileParserInfo* info);
uint32_t File_GetPCR(FILE* file, bool fromEnd, uint16_t* pid, uint64_t* pcr);

// The parser read mode the MP4 reader takes for a player read mode.
uint32_t File_ParserReadMode(uint32_t playerMode);

// MPEG-TS side (file_ts.cpp).
uint32_t File_GetTsProperty(FileParserInfo* info);
uint32_t File_ReadTsFrame(FileParserInfo* info, FileFrameInfo* frame, uint32_t readMode);
uint32_t File_SeekTs(FileParserInfo* info, uint32_t seconds);
void File_ResetTsDemux(FileParserInfo* info);
// Reads the packets of the next chunk into tsBuffer (whole packets only).
uint32_t TS_GetOneFrameData(FILE* file, uint32_t readMode, uint8_t* buffer, uint32_t* length);
