// Pacing of live video: how long the decode and render threads wait so that
// pictures flow evenly while latency stays low.
#pragma once

#include <cstdint>

// Correction in milliseconds for f frames waiting, a target of t buffered
// pictures and a stream of r frames per second: negative when ahead (wait
// less), positive when behind (wait more); a slow stream (below 5 fps) that is
// behind gets minus one frame period.
int32_t Player_PacingAdjust(uint32_t framesWaiting, uint32_t target, uint32_t frameRate);

// The decode-side wait before a video frame, for a fluency mode: the
// milliseconds to sleep now (0 for none), given the frame interval, the time
// since the last wait, frames waiting, the picture buffer count and the rate.
// skipWait: the render side is keeping up (only restamp).
int32_t Player_DecodeWaitMs(uint32_t fluency, uint32_t frameInterval, int32_t elapsedMs, uint32_t framesWaiting,
                            uint32_t pictureBuffers, uint32_t frameRate, bool skipWait);

// The render-side wait in modes 1, 3 and 4: interval minus the time since the
// last picture, with the smooth mode's pacing; in mode 1 a back-off
// when no picture is queued and no wait at all when more than one is (the
// renderer catches up instead of running a picture late for good). Mode 3
// does not wait: the renderer shows each picture as soon as it is decoded,
// and the decode-side wait paces.
int32_t Player_RenderWaitMs(uint32_t fluency, uint32_t intervalMs, int32_t elapsedMs, uint32_t framesWaiting,
                            uint32_t pictureBuffers, uint32_t frameRate, uint32_t picturesQueued);
