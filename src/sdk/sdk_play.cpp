// Exported play control, statistics and file-position functions.
#include "korvalen.h"
#include "pipeline/player_gpu.h"
#include "port/player_api.h"
#include "sdk/sdk_frame.h"

extern "C" {

int32_t Korvalen_StartPlay(uint32_t port, uint64_t window)
{
    KORVALEN_LOG(KORVALEN_LOG_INFO, "Call Port[%03d] Korvalen_StartPlay Wnd[0x%x]", port,
                 static_cast<unsigned>(window));
    SdkCall c{"Korvalen_StartPlay", "Player_StartPlay", SDK_OWN_CALL_LINE};
    return SDK_PortCall(port, c, true, [&] { return Player_StartPlay(port, window); });
}

int32_t Korvalen_StopPlay(uint32_t port, uint64_t window)
{
    SdkCall c{"Korvalen_StopPlay", "Player_StopPlay"};
    return SDK_PortCall(port, c, true, [&] { return Player_StopPlay(port, window); });
}

int32_t Korvalen_PausePlay(uint32_t port, uint32_t pause)
{
    SdkCall c{"Korvalen_PausePlay", "Player_PausePlay"};
    return SDK_PortCall(port, c, true, [&] { return Player_PausePlay(port, pause); });
}

int32_t Korvalen_PauseLive(uint32_t port, uint32_t pause)
{
    // No port check or lock: the live pause only flips a flag the render
    // thread polls. The failure text is the one callers know.
    uint32_t err = Player_PauseLive(port, pause);
    if (err != KORVALEN_OK) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "Call Korvalen_SetIVAShowParam fail.");
        return SDK_Fail(err);
    }
    return 1;
}

int32_t Korvalen_SetPictureFluency(uint32_t port, uint32_t fluency)
{
    SdkCall c{"Korvalen_SetPictureFluency", "Player_SetPictureFluency"};
    return SDK_PortCall(port, c, true, [&] { return Player_SetPictureFluency(port, fluency); });
}

int32_t Korvalen_SetOneFrameDecodeMode(uint32_t port)
{
    SdkCall c{"Korvalen_SetOneFrameDecodeMode", "Player_SetOneFrameDecodeMode", SDK_STANDARD,
              "Call Port[%03d] Korvalen_SetOneFrameDecodeMode fail,error(%d)"};
    return SDK_PortCall(port, c, true, [&] { return Player_SetOneFrameDecodeMode(port); });
}

int32_t Korvalen_AbleGpuDecode(uint32_t enable)
{
    uint32_t answer = Player_AbleGpuDecode(enable);
    KORVALEN_LOG(KORVALEN_LOG_INFO, "Call Korvalen_AbleGpuDecode, enable[%d] result[%d]", enable, answer);
    return static_cast<int32_t>(answer);
}

int32_t Korvalen_AbleGpuDecodeEx(uint32_t enable, const KORVALEN_GPU_OPTIONS* options, uint32_t* device_kind,
                                 uint32_t* sessions)
{
    return SDK_GlobalFinish("Korvalen_AbleGpuDecodeEx", "Player_AbleGpuDecodeEx",
                            Player_AbleGpuDecodeEx(enable, options, device_kind, sessions));
}

int32_t Korvalen_GetFrameRate(uint32_t port, uint32_t* frame_rate)
{
    SdkCall c{"Korvalen_GetFrameRate", "Player_GetFrameRate", SDK_HOT | SDK_FAIL_NO_PORT};
    return SDK_PortCall(port, c, frame_rate != nullptr, [&] { return Player_GetFrameRate(port, frame_rate); });
}

int32_t Korvalen_GetBitRate(uint32_t port, uint32_t* bit_rate)
{
    SdkCall c{"Korvalen_GetBitRate", "Player_GetBitRate", SDK_HOT | SDK_FAIL_NO_PORT};
    return SDK_PortCall(port, c, bit_rate != nullptr, [&] { return Player_GetBitRate(port, bit_rate); });
}

// Both size and encode-type queries report failures with this one line.
constexpr const char* kPictureQueryFail =
    "Call Korvalen_GetPictureSize fail, Player_ResetLostPacketRate fail, error(0x%x)";

int32_t Korvalen_GetPictureSize(uint32_t port, uint32_t* width, uint32_t* height)
{
    SdkCall c{"Korvalen_GetPictureSize", "Player_GetPictureSize", SDK_HOT | SDK_FAIL_NO_PORT, kPictureQueryFail};
    return SDK_PortCall(port, c, width && height, [&] { return Player_GetPictureSize(port, width, height); });
}

int32_t Korvalen_GetEncodeType(uint32_t port, uint32_t* video_type, uint32_t* audio_type)
{
    SdkCall c{"Korvalen_GetEncodeType", "Player_GetEncodeType", SDK_HOT | SDK_FAIL_NO_PORT, kPictureQueryFail};
    return SDK_PortCall(port, c, video_type && audio_type,
                        [&] { return Player_GetEncodeType(port, video_type, audio_type); });
}

int32_t Korvalen_SetWindowSize(uint32_t, const KORVALEN_RECT*)
{
    return 1;
}

int32_t Korvalen_GetFileTime(uint32_t port, uint32_t* seconds)
{
    SdkCall c{"Korvalen_GetFileTime", "Player_GetFileTime"};
    return SDK_PortCall(port, c, seconds != nullptr, [&] { return Player_GetFileTime(port, seconds); });
}

int32_t Korvalen_GetPlayTime(uint32_t port, uint32_t* seconds)
{
    SdkCall c{"Korvalen_GetPlayTime", "Player_CurPlayTime", SDK_HOT};
    return SDK_PortCall(port, c, seconds != nullptr, [&] { return Player_CurPlayTime(port, seconds); });
}

int32_t Korvalen_GetPlayTimeEx(uint32_t port, KORVALEN_PLAY_TIME* play_time)
{
    // No port check or lock: polled by user interfaces while the port plays.
    uint32_t err = play_time ? Player_GetPlayTimeEx(port, play_time) : KORVALEN_ERR_INVALID_PARAM;
    if (err != KORVALEN_OK) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR,
                     "Call Port[%03d] Korvalen_GetPlayTimeEx fail, Player_GetPlayTimeEx fail, "
                     "error(0x%x)",
                     port, err);
        return SDK_Fail(err);
    }
    return 1;
}

int32_t Korvalen_SetPlayedTime(uint32_t port, uint32_t seconds)
{
    SdkCall c{"Korvalen_SetPlayedTime", "Player_SetPlayedTime"};
    return SDK_PortCall(port, c, true, [&] { return Player_SetPlayedTime(port, seconds); });
}

int32_t Korvalen_SpeedPlay(uint32_t port, uint32_t speed)
{
    KORVALEN_LOG(KORVALEN_LOG_INFO, "Call Port[%03d] Korvalen_SpeedPlay Speed(%d)", port, speed);
    SdkCall c{"Korvalen_SpeedPlay", "Player_SpeedPlay", SDK_OWN_CALL_LINE};
    return SDK_PortCall(port, c, true, [&] { return Player_SpeedPlay(port, speed); });
}

int32_t Korvalen_AFrameGo(uint32_t port)
{
    SdkCall c{"Korvalen_AFrameGo", "Player_AFrameGo"};
    return SDK_PortCall(port, c, true, [&] { return Player_AFrameGo(port); });
}

int32_t Korvalen_AFrameBack(uint32_t port)
{
    SdkCall c{"Korvalen_AFrameBack", "Player_AFrameBack"};
    return SDK_PortCall(port, c, true, [&] { return Player_AFrameBack(port); });
}

int32_t Korvalen_MP4GetRealTime(const char* file_name, uint32_t* real_time)
{
    uint32_t err = (file_name && real_time) ? Player_MP4GetRealTime(file_name, real_time) : KORVALEN_ERR_INVALID_PARAM;
    if (err != KORVALEN_OK) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "Call  Korvalen_MP4GetRealTime fail.");
        return SDK_Fail(err);
    }
    return 1;
}

int32_t Korvalen_CheckMark(uint32_t port, const KORVALEN_MARK_QUERY* query, KORVALEN_MARK_INFO** marks)
{
    SdkCall c{"Korvalen_CheckMark", "Player_CheckMark"};
    return SDK_PortCall(port, c, query && marks, [&] { return Player_CheckMark(port, query, marks); });
}

int32_t Korvalen_CheckMarkCancel(uint32_t port)
{
    SdkCall c{"Korvalen_CheckMarkCancel", "Player_CheckMarkCancel"};
    return SDK_PortCall(port, c, true, [&] { return Player_CheckMarkCancel(port); });
}

int32_t Korvalen_FreeMarkInfo(KORVALEN_MARK_INFO* marks)
{
    return SDK_GlobalFinish("Korvalen_FreeMarkInfo", "Player_FreeMarkInfo", Player_FreeMarkInfo(marks));
}

} // extern "C"
