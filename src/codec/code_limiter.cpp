// Amplitude limiter applied to decoded MP2 sound and to PCM before MP2
// encoding: samples beyond ratio x full scale are clipped to that scope, so
// resampler overshoot on loud material never wraps around.
#include <atomic>
#include <cstdint>

#include "codec/code_internal.h"
#include "log/log.h"

bool CODE_LimitPcm(int16_t* samples, uint32_t count, float ratio)
{
    if ((!samples && count) || !(ratio > 0.0f && ratio <= 1.0f)) {
        return false;
    }
    const auto scope = static_cast<int16_t>(ratio * 32767.0f);
    static std::atomic<bool> logged{false};
    if (!logged.exchange(true)) {
        KORVALEN_LOG(KORVALEN_LOG_DEBUG, "fLimitRatio is %f\n", static_cast<double>(ratio));
        KORVALEN_LOG(KORVALEN_LOG_DEBUG, "sLimitScope is %d", scope);
    }
    for (uint32_t i = 0; i < count; ++i) {
        if (samples[i] > scope) {
            samples[i] = scope;
        } else if (samples[i] < -scope) {
            samples[i] = static_cast<int16_t>(-scope);
        }
    }
    return true;
}
