// The pace of file playback: how long the play thread waits after a frame.
#pragma once

#include <cstdint>

struct FileTime {
    uint32_t seconds;
    uint32_t milliseconds;
};

// Milliseconds to wait after a frame: the frame interval at the speed
// factor, less the time the frame took, corrected by the sound backlog
// (blocks waiting in the sound ring, negative when unknown).
int32_t File_FrameWaitMs(uint32_t frameCtrl, float speedFactor, uint32_t frameRate, float frameInterval,
                         int32_t elapsedMs, int32_t soundLevel);

FileTime File_Now();
