#include "pipeline/player_pacing.h"

#include "pipeline/port_playback.h"

namespace {
constexpr uint32_t kDefaultPeriod = 40;
constexpr uint32_t kSlowStreamFps = 5;
constexpr uint32_t kSmoothFactor = 20;
constexpr int32_t kEmptyQueueBackoff = 10;
} // namespace

int32_t Player_PacingAdjust(uint32_t f, uint32_t t, uint32_t r)
{
    const int64_t p = r ? 1000 / r : kDefaultPeriod;
    const int64_t b = static_cast<int64_t>(f) * p;
    const int64_t w = static_cast<int64_t>(t) * kDefaultPeriod;
    const bool ahead = w <= b;
    const int64_t d = ahead ? b - w : w - b;
    const int64_t a = (d / kDefaultPeriod) * (p / 10);
    if (ahead) {
        return static_cast<int32_t>(-a);
    }
    if (r < kSlowStreamFps) {
        return static_cast<int32_t>(-p);
    }
    return static_cast<int32_t>(a);
}

int32_t Player_DecodeWaitMs(uint32_t fluency, uint32_t frameInterval, int32_t elapsedMs, uint32_t framesWaiting,
                            uint32_t pictureBuffers, uint32_t frameRate, bool skipWait)
{
    if (fluency != FLUENCY_NORMAL && fluency != FLUENCY_LOW_DELAY && fluency != FLUENCY_SMOOTH) {
        return 0;
    }
    if (skipWait && fluency != FLUENCY_SMOOTH) {
        return 0;
    }
    if (elapsedMs < 0) {
        return 0;
    }
    uint32_t t = pictureBuffers;
    if (fluency == FLUENCY_LOW_DELAY) {
        t /= 2;
    } else if (fluency == FLUENCY_SMOOTH) {
        t *= kSmoothFactor;
    }
    int32_t adjust = Player_PacingAdjust(framesWaiting, t, frameRate);
    if (fluency == FLUENCY_SMOOTH) {
        // An uneven dead zone: -2 and -1 vanish, -3 stays, larger ones shrink by 3.
        adjust /= static_cast<int32_t>(kSmoothFactor);
        if (adjust < -3) {
            adjust += 3;
        } else if (adjust == -2 || adjust == -1) {
            adjust = 0;
        }
    }
    int32_t wait = static_cast<int32_t>(frameInterval) - elapsedMs + adjust;
    return wait >= 1 && wait < 1000 ? wait : 0;
}

int32_t Player_RenderWaitMs(uint32_t fluency, uint32_t intervalMs, int32_t elapsedMs, uint32_t framesWaiting,
                            uint32_t pictureBuffers, uint32_t frameRate, uint32_t picturesQueued)
{
    uint32_t t = pictureBuffers;
    if (fluency == FLUENCY_LOW_DELAY) {
        t /= 2;
    }
    if (fluency == FLUENCY_LOW_DELAY) {
        return 0; // a picture goes out as soon as it is decoded; the decode side paces
    }
    int32_t wait = static_cast<int32_t>(intervalMs) - elapsedMs;
    if (fluency == FLUENCY_SMOOTH) {
        int32_t adjust = Player_PacingAdjust(framesWaiting, t, frameRate);
        wait += adjust < 0 ? -2 : adjust;
    } else if (picturesQueued == 0) {
        wait += kEmptyQueueBackoff;
    } else if (picturesQueued > 1) {
        return 0; // a picture is already waiting behind this one: catch up
    }
    return wait >= 1 && wait < 1000 ? wait : 0;
}
