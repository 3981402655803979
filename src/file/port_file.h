// A file-playing port's state: the open file, the file play thread and the
// controls the API and the thread share (frame control, seek, step).
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <thread>

#include "file/file_parser.h"

constexpr uint32_t kFileNameMax = 1024;

constexpr uint64_t kNoVideoStamp = ~uint64_t{0};

struct PortFile {
    FileParserInfo parser{};
    std::mutex lock; // the parser: the play thread, and API calls that read it
    std::thread thread;
    char name[kFileNameMax] = {};
    std::atomic<uint32_t> filePort{0};
    std::atomic<uint32_t> running{0};   // the play thread shall run
    std::atomic<uint32_t> frameCtrl{0}; // 0 paused, 1 play, 2/3 step, 4 key frames, 5 key and marked frames
    std::atomic<uint32_t> stepDone{0};
    std::atomic<uint32_t> speedCode{2};
    std::atomic<uint32_t> switchToMarked{0}; // move key-frame play (4) on to 5
    std::atomic<uint32_t> held{0};           // paused by the caller
    std::atomic<int32_t> seekRequest{-1};    // seconds, -1 = none
    std::atomic<uint32_t> backRequest{0};    // one frame back
    std::atomic<uint32_t> markCheck{0};
    std::atomic<float> frameInterval{40.0f}; // ms per frame, paces modes 4 and 5
    // The last frame read (play thread; time stamp also read by the API).
    FileFrameInfo current{};
    std::atomic<uint64_t> currentStamp{0};
    int64_t lastVideoSample = -1;            // MP4: index entry of the last video frame
    uint64_t lastVideoStamp = kNoVideoStamp; // TS and AVI: the last video frame read
    bool keyAfterSeek = false;               // TS: pictures wait for a key frame after a seek
    uint64_t prevVideoStamp = 0;
    uint64_t minVideoStep = 0; // smallest positive step between video stamps
};

struct PortRecord;

// Play and pause of a file port (start and stop of rendering, pause and
// resume): playing moves a paused port (frame control 0) on to playing;
// holding stops delivery without changing the speed mode.
void File_OnPlayState(PortRecord* rec, bool playing);
