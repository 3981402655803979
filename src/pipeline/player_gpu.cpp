// GPU decoding switch: which ports decode on the GPU, how many at once, and
// the way back to software when the GPU cannot take a stream.
#include <atomic>
#include <cstring>

#include "codec/code_manager.h"
#include "korvalen_types.h"
#include "pipeline/pipeline.h"
#include "pipeline/player_gpu.h"

namespace {

constexpr size_t kGpuStateSize = 32;
std::atomic<uint32_t> g_maxSessions{0}; // 0 = as many as the device takes
std::atomic<uint32_t> g_sessions{0};
std::atomic<uint32_t> g_switch{0}; // each new port copies it

void Capability(uint32_t able[2])
{
    uint8_t state[kGpuStateSize];
    CODE_CatchHwDecEx(1, state);
    std::memcpy(able, state, 2 * sizeof(uint32_t));
}

} // namespace

uint32_t Player_AbleGpuDecode(uint32_t enable)
{
    uint8_t state[kGpuStateSize];
    if (enable != 1) {
        CODE_CatchHwDecEx(enable, state);
        g_switch = 0;
        return 1;
    }
    uint32_t able[2];
    Capability(able);
    uint32_t answer = able[0] || able[1] ? 1 : 0;
    g_switch = answer;
    return answer;
}

uint32_t Player_AbleGpuDecodeEx(uint32_t enable, const KORVALEN_GPU_OPTIONS* options, uint32_t* deviceKind,
                                uint32_t* sessions)
{
    if (enable == 1 && options) {
        char device[sizeof options->device + 1] = {};
        std::memcpy(device, options->device, sizeof options->device);
        CODE_SelectGpu(options->device_kind, device);
        g_maxSessions = options->max_sessions;
    }
    uint32_t answer = Player_AbleGpuDecode(enable);
    if (deviceKind) {
        *deviceKind = answer && enable == 1 ? CODE_GpuDeviceKind() : 0;
    }
    if (sessions) {
        *sessions = g_maxSessions.load();
    }
    return enable == 1 && !answer ? KORVALEN_ERR_NOT_SUPPORTED : KORVALEN_OK;
}

bool Player_WantGpu(const Pipeline* rec, uint32_t codecType)
{
    if (!rec->gpuDecode || rec->stream.gpuFallback || rec->playback.window == 0) {
        return false; // GPU pictures are presented in a window; headless ports decode in software
    }
    uint32_t able[2];
    Capability(able);
    bool codecAble = (codecType == KORVALEN_CODEC_H264 && able[0]) || (codecType == KORVALEN_CODEC_H265 && able[1]);
    uint32_t max = g_maxSessions.load();
    return codecAble && (max == 0 || g_sessions.load() < max);
}

void Player_GpuSessionOpened()
{
    ++g_sessions;
}

void Player_GpuSessionClosed()
{
    --g_sessions;
}

uint32_t Player_GpuSessions()
{
    return g_sessions.load();
}

uint32_t Player_GpuDecodeSwitch()
{
    return g_switch.load();
}
