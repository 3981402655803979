// The file play thread and what it runs: one frame read at a time, handed
// to the decode and render side and paced by the play speed.
#pragma once

#include <cstdint>

struct PortRecord;

// Reads one frame in the read mode into the port's current frame. 0, 263 at
// the end of the file, or the reader's error.
uint32_t Player_ParserFile(PortRecord* rec, uint32_t readMode);

struct FileTime {
    uint32_t seconds;
    uint32_t milliseconds;
};

// Milliseconds to wait after a frame: the frame interval at the speed
// factor, less the time the frame took, corrected by the sound backlog
// (blocks waiting in the sound ring, negative when unknown).
int32_t File_FrameWaitMs(uint32_t frameCtrl, float speedFactor, uint32_t frameRate, float frameInterval,
                         int32_t elapsedMs, int32_t soundLevel);

// Sleeps until the next frame is due. 2 for a null time.
uint32_t Player_FileSleepProc(const FileTime* previous, float speedFactor, PortRecord* rec);

FileTime File_Now();
