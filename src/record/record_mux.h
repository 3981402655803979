// One record file being written: MP4 and MPEG-TS through libavformat, AVI
// through our AVI writer. The file is created at open; the streams are set
// up by the first video key frame, which must carry the parameter sets.
// Beside an MP4 file a journal records where each sample went, so that a
// file whose writer died can be rebuilt (record_journal.h).
#pragma once

#include <cstdint>

constexpr uint32_t kRecordParamSetsMax = 1024;

struct REC_MUX;

// What the streams are.
struct REC_MUX_SETUP {
    uint32_t videoCodec; // KORVALEN_CODEC_H264, _H265, _MJPEG
    uint32_t width;
    uint32_t height;
    uint32_t frameRate;
    const uint8_t* paramSets; // Annex B VPS/SPS/PPS, may be empty for MJPEG
    uint32_t paramLen;
    uint32_t audio; // 1: an MP2 stream, 44.1 kHz mono
};

// Naming facts the journal keeps so a dead writer's file gets its name.
struct REC_MUX_NAMING {
    uint32_t recordType;
    const char* baseName;
    uint32_t partCounter;
    uint32_t callerStart;
    uint32_t callerEnd;
};

// container: REC_CONTAINER_*. 0, or 262 when the file cannot be made.
uint32_t MUX_Open(int32_t container, const char* path, const REC_MUX_NAMING* naming, REC_MUX** out);
bool MUX_Started(const REC_MUX* m);
// Sets up the streams and writes the file header. 0, 264 write failure,
// 7 codec the container cannot carry, 1 other failure.
uint32_t MUX_Start(REC_MUX* m, const REC_MUX_SETUP* setup);
// Annex B access unit, time stamp in 90 kHz ticks (increasing). 0 or 264.
uint32_t MUX_WriteVideo(REC_MUX* m, const uint8_t* data, uint32_t len, uint64_t pts, bool key, uint32_t frameRate);
// One MP2 frame of 1152 samples. 0 or 264.
uint32_t MUX_WriteAudio(REC_MUX* m, const uint8_t* data, uint32_t len);
// Size the division check looks at (MP4: the file on disk; TS: the write
// position; AVI: the file length).
uint64_t MUX_Size(REC_MUX* m);
// Finishes the file and removes its journal. 0; 264 when a write failed (the
// file holds what fitted and plays); 271 when an MP4 file could not be given
// its index (the file keeps its journal for recovery).
uint32_t MUX_Close(REC_MUX* m);
