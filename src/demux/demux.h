// Container dispatch for local media files: opens a file, recognises the
// container by its content (never by its name) through a table of readers,
// creates the matching reader and routes reads, seeks and position queries
// to it. Each reader is one DEMUX_OPS row in its own file (demux_mp4.cpp,
// demux_ts.cpp, demux_avi.cpp, ...); the table in demux.cpp lists the rows
// in the order their probes are tried.
#pragma once

#include <cstdint>
#include <cstdio>

#include "demux/ts_parser.h"

constexpr uint32_t kFileFrameBufferSize = 0x200000;
constexpr uint32_t kFileTsBufferSize = 0x200000;
constexpr uint32_t kFileTsAudioBufferSize = 0x10000;
constexpr uint32_t kFileTsReadPackets = 64; // packets read from the file per chunk

struct FileParserInfo;
struct FileFrameInfo;

// Readers with a sample index step back through it: frames are numbered in
// file order over all tracks.
struct DEMUX_INDEX_OPS {
    // The sample of the video frame read last, -1 when none.
    int64_t (*lastVideo)(FileParserInfo* info);
    // The video sample before `sample`, -1 when there is none.
    int64_t (*prevVideo)(FileParserInfo* info, int64_t sample);
    // The nearest key video sample at or before `sample`.
    int64_t (*keyAtOrBefore)(FileParserInfo* info, int64_t sample);
    // Reads one sample into the frame buffer, in the form read() gives.
    uint32_t (*readSample)(FileParserInfo* info, int64_t sample, FileFrameInfo* frame);
};

// One container reader. The probe may move the stream's position; open
// makes the reader (the file is open and the frame buffer allocated), info
// fills startTime, totalTime and frameRate (and fileLength, pcrPid where
// they apply). Every operation but probe returns 0 or an error code, logged.
struct DEMUX_OPS {
    const char* name;
    bool (*probe)(FILE* file);
    uint32_t (*open)(FileParserInfo* info, const char* name);
    uint32_t (*info)(FileParserInfo* info);
    uint32_t (*read)(FileParserInfo* info, FileFrameInfo* frame, uint32_t readMode);
    uint32_t (*seek)(FileParserInfo* info, uint32_t seconds, uint32_t framesPerSecond);
    uint32_t (*tell)(FileParserInfo* info, uint32_t* seconds);
    void (*close)(FileParserInfo* info);
    const DEMUX_INDEX_OPS* index; // null when the reader has no sample index
    bool seeksToAnyFrame;         // a seek may land between key frames
};

extern const DEMUX_OPS kDemuxMp4;
extern const DEMUX_OPS kDemuxTs;
extern const DEMUX_OPS kDemuxAvi;

struct FileParserInfo {
    FILE* file;
    uint64_t startTime; // 90 kHz; MPEG-TS: the first PCR
    uint32_t totalTime; // seconds
    uint32_t pcrPid;
    uint64_t fileLength;
    uint32_t frameRate;
    const DEMUX_OPS* ops; // the reader's row, null when closed
    void* reader;         // the reader's own state
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
uint32_t File_GetFileProperty(FileParserInfo* info);
uint32_t File_ReadOneFrame(FileParserInfo* info, FileFrameInfo* frame, uint32_t readMode);
uint32_t File_SetPlayTime(FileParserInfo* info, uint32_t seconds, uint32_t framesPerSecond);
uint32_t File_GetPlayTime(FileParserInfo* info, uint32_t* seconds);
uint32_t File_GetFileTime(const FileParserInfo* info, uint32_t* seconds);
uint32_t File_GetIFrameInterval(FileParserInfo* info);
uint32_t File_GetPCR(FILE* file, bool fromEnd, uint16_t* pid, uint64_t* pcr);

// Reads n bytes at offset `at` for a probe; false when the seek fails.
bool DEMUX_ReadAt(FILE* file, int64_t at, uint8_t* buf, uint32_t n, uint32_t* got);

// Hands an indexed reader's frame over in the common form, logging a failed
// read (the end of the file is not a failure) with the reader's function.
uint32_t DEMUX_TakeFrame(uint32_t err, const char* reader, const FileFrameInfo& in, FileFrameInfo* out);

// The read mode the indexed readers (MP4, AVI) take for a player read mode.
uint32_t File_ParserReadMode(uint32_t playerMode);

// MPEG-TS properties from the PCRs at the start and the end of the file.
uint32_t File_GetTsProperty(FileParserInfo* info);
// Reads the packets of the next chunk into tsBuffer (whole packets only).
uint32_t TS_GetOneFrameData(FILE* file, uint32_t readMode, uint8_t* buffer, uint32_t* length);
