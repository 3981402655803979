// The media file source: the open file, the file play thread that reads one
// frame at a time and hands it to the pipeline at the pace of the play
// speed, and the controls the caller and the thread share (frame control,
// seek, step, marks).
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <thread>

#include "demux/demux.h"
#include "source/source.h"

constexpr uint32_t kFileNameMax = 1024;
constexpr uint64_t kNoVideoStamp = ~uint64_t{0};

struct FILESRC_PARAMS {
    const char* name;
};

struct FileSource {
    SOURCE_SINK sink;
    FileParserInfo parser{};
    std::mutex lock; // the parser: the play thread, and calls that read it
    SOURCE_THREAD thread;
    char name[kFileNameMax] = {};
    std::atomic<uint32_t> rate{25};     // frames per second the play thread paces by
    std::atomic<uint32_t> frameCtrl{0}; // 0 paused, 1 play, 2/3 step, 4 key frames, 5 key and marked frames
    std::atomic<uint32_t> stepDone{0};
    std::atomic<uint32_t> speedCode{2};
    std::atomic<uint32_t> switchToMarked{0}; // move key-frame play (4) on to 5
    std::atomic<uint32_t> held{0};           // paused by the caller
    std::atomic<int32_t> seekRequest{-1};    // seconds, -1 = none
    std::atomic<uint32_t> backRequest{0};    // one frame back
    std::atomic<uint32_t> markCheck{0};
    std::atomic<float> frameInterval{40.0f}; // ms per frame, paces modes 4 and 5
    // The last frame read (play thread; time stamp also read by the caller).
    FileFrameInfo current{};
    std::atomic<uint64_t> currentStamp{0};
    int64_t lastVideoSample = -1;            // indexed readers: the sample of the last video frame
    uint64_t lastVideoStamp = kNoVideoStamp; // other readers: the last video frame read
    bool keyAfterSeek = false;               // pictures wait for a key frame after a seek
    uint64_t prevVideoStamp = 0;
    uint64_t minVideoStep = 0; // smallest positive step between video stamps
};

extern const SOURCE_OPS kFileSourceOps;

// Play and pause (start and stop of rendering, pause and resume): playing
// moves a paused file (frame control 0) on to playing; holding stops
// delivery without changing the speed mode.
void FILESRC_OnPlayState(void* state, bool playing);

// Speed code and the frame control it asks for.
void FILESRC_SetSpeed(void* state, uint32_t speedCode, uint32_t frameCtrl);
// One frame forward or back; waits until the play thread has delivered it.
void FILESRC_Step(void* state, bool back);
// Seeks to seconds from the start; KORVALEN_ERR_JUMP_OVER beyond the file's end.
uint32_t FILESRC_Seek(void* state, uint32_t seconds);
uint32_t FILESRC_PlayTime(void* state, uint32_t* seconds);
uint32_t FILESRC_FileTime(void* state, uint32_t* seconds);
uint32_t FILESRC_PlayTimeEx(void* state, KORVALEN_PLAY_TIME* playTime);

// The marked frames between the query's times, read by a reader of its own
// so the play position does not move; frameRate turns the start into a
// frame number for the indexed readers. The list is freed with
// FILESRC_FreeMarks.
uint32_t FILESRC_CheckMark(void* state, const KORVALEN_MARK_QUERY* query, uint32_t frameRate,
                           KORVALEN_MARK_INFO** marks);
void FILESRC_CancelMark(void* state);
uint32_t FILESRC_FreeMarks(KORVALEN_MARK_INFO* marks);

// The creation time of an MP4 file as Unix seconds.
uint32_t FILESRC_Mp4RealTime(const char* fileName, uint32_t* realTime);
