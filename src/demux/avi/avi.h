// AVI container: the reader behind the container-reader interface of the
// file layer, and the writer used by recording.
#pragma once

#include <cstdint>

#include "demux/avi/avi_file.h"

using AVI_HANDLE = AVI_FILE*;

// Reader information.
struct AVI_INFO {
    uint32_t frameRate; // integer part of the file's frames per second
    uint32_t totalTime; // seconds
};

// One frame delivered by the reader.
struct AVI_FRAME_INFO {
    uint8_t* data; // the caller's buffer
    uint32_t capacity;
    uint32_t length;
    uint32_t keyFlag;
    uint32_t payloadType; // 3 H.264, 8 H.265, 4 MJPEG, 1 audio
    uint32_t frameType;   // 0 key, 1 other
    uint64_t timeStamp;   // 90 kHz
};

// Parser read modes.
constexpr uint32_t AVI_READ_ANY = 0;
constexpr uint32_t AVI_READ_KEY = 1;
constexpr uint32_t AVI_READ_VIDEO = 2;
constexpr uint32_t AVI_READ_MARKED = 3;

// Content probe on an open stream: positive for RIFF AVI.
int32_t AVI_Probe(const uint8_t* head, uint32_t length);

AVI_HANDLE AVI_CreateAviParser(const char* fileName);
uint32_t AVI_GetAviInfo(AVI_HANDLE avi, AVI_INFO* info);
uint32_t AVI_GetOneFrameData(AVI_HANDLE avi, uint32_t mode, AVI_FRAME_INFO* frame);
uint32_t AVI_SetPlayTime(AVI_HANDLE avi, uint32_t seconds, uint32_t framesPerSecond);
uint32_t AVI_GetCurSampleIndex(AVI_HANDLE avi, uint32_t* seconds);
// Closes a reader or a writer; *flag (when given) is cleared.
uint32_t AVI_FileClose(uint32_t* flag, AVI_HANDLE avi);

// Writer.
struct AVI_ENC_PARAM {
    uint32_t videoCode; // 1 MJPEG, 2 H.264, 3 H.265
    uint32_t width;
    uint32_t height;
    uint32_t framesPerSecond;
    uint32_t audioCode; // 0 MP2 (tag 0x50), 1 MP3 (0x55)
    uint32_t channels;  // 0: no audio stream
    uint32_t sampleRate;
    uint32_t bitsPerSample;
};

struct AVI_ENC_FRAME {
    uint32_t type; // 0 video, 1 audio
    const uint8_t* data;
    uint32_t length;
    uint32_t keyFlag;
    uint32_t framesPerSecond; // 0: unchanged
};

AVI_HANDLE AVI_OpenOutputFile(const char* fileName);
uint32_t AVI_EncInit(const AVI_ENC_PARAM* param, AVI_HANDLE avi);
uint32_t AVI_EncFrame(AVI_HANDLE avi, const AVI_ENC_FRAME* frame);
