// A small RIFF AVI file library: one video stream and at most one audio
// stream, an "idx1" index, a fixed-size header block so the header can be
// rewritten in place. Reading follows the index, or a scan of the "movi"
// list when the index is missing (a file whose writer died).
#pragma once

#include <cstdint>
#include <cstdio>

constexpr uint32_t AVIF_KEYFRAME = 0x10;
constexpr uint32_t kAviHeaderBlock = 2048; // header bytes before the "movi" list

struct AVI_CHUNK {
    uint64_t offset; // of the chunk's data
    uint32_t size;
    uint8_t video;
    uint8_t key;
};

struct AVI_FILE {
    std::FILE* fp = nullptr;
    bool writing = false;
    // Video stream.
    uint32_t width = 0;
    uint32_t height = 0;
    double fps = 0.0;
    char compressor[4] = {};
    // Audio stream, when channels is not 0.
    uint32_t channels = 0;
    uint32_t sampleRate = 0;
    uint32_t bits = 0;
    uint32_t formatTag = 0;
    uint32_t kbps = 0;
    uint64_t audioBytes = 0;
    // Every chunk in file order, and the video chunks by frame number.
    AVI_CHUNK* chunks = nullptr;
    uint32_t chunkCount = 0;
    uint32_t chunkCap = 0;
    uint32_t* video = nullptr;
    uint32_t videoCount = 0;
    uint32_t videoCap = 0;
    uint32_t cursor = 0;     // next chunk to read, in file order
    uint32_t curVideo = 0;   // current video frame
    uint64_t length = 0;     // writer: bytes in the file
    uint64_t goodLength = 0; // writer: end of the last whole chunk
    uint32_t failed = 0;     // writer: a write failed, nothing more is written
    bool headerDone = false;
};

AVI_FILE* AVIF_OpenInput(const char* name);
AVI_FILE* AVIF_OpenOutput(const char* name);
// Writer: writes the index and the final header. Reader: releases. 0, or
// 264 when a write failed (the file is closed either way).
uint32_t AVIF_Close(AVI_FILE* f);

uint32_t AVIF_VideoFrames(const AVI_FILE* f);
double AVIF_FrameRate(const AVI_FILE* f);
uint32_t AVIF_FrameSize(const AVI_FILE* f, uint32_t n);
bool AVIF_IsKeyframe(const AVI_FILE* f, uint32_t n);
// Next reads start at video frame n.
void AVIF_SetVideoPosition(AVI_FILE* f, uint32_t n);
// Reads the next chunk in file order: 0, 263 at the end, 265 read failure,
// 281 chunk larger than cap.
uint32_t AVIF_ReadNextChunk(AVI_FILE* f, uint8_t* buf, uint32_t cap, uint32_t* len, bool* video);

void AVIF_SetVideo(AVI_FILE* f, uint32_t width, uint32_t height, double fps, const char compressor[4]);
void AVIF_SetAudio(AVI_FILE* f, uint32_t channels, uint32_t rate, uint32_t bits, uint32_t tag, uint32_t kbps);
// Rewrites the header with the new rate. 0 or 264.
uint32_t AVIF_SetFrameRate(AVI_FILE* f, double fps);
// 0, or 264 when the write failed (the file keeps its whole chunks).
uint32_t AVIF_WriteVideo(AVI_FILE* f, const uint8_t* data, uint32_t len, bool key);
uint32_t AVIF_WriteAudio(AVI_FILE* f, const uint8_t* data, uint32_t len);

// Gives a file whose writer died its index and header counts, from a scan
// of its chunks. 0, 262 cannot open, 265 not an AVI file, 264 write failed.
uint32_t AVIF_Repair(const char* name);
