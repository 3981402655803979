// Exported video-output, overlay, fisheye and electronic-PTZ functions.
#include "korvalen.h"
#include "port/player_api.h"
#include "sdk/sdk_frame.h"

// Mouse events arrive at pointer rate: no information lines, and the
// failure line carries the event's arguments.
namespace {

template <class F> int32_t MouseCall(uint32_t port, const char* api, const char* inner, uint32_t x, uint32_t y, F&& fn)
{
    SdkCall c{api, inner, SDK_HOT};
    uint32_t err = SDK_Run(port, c, true, fn);
    if (err == kSdkRejected) {
        return 0;
    }
    if (err != KORVALEN_OK) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "Call Port[%03d] %s fail, %s(%d, (%u, %u)) fail, error(0x%x)", port, api,
                     inner, port, x, y, err);
        return SDK_Fail(err);
    }
    return 1;
}

} // namespace

extern "C" {

int32_t Korvalen_SetRenderScale(uint32_t port, const KORVALEN_RECT* rect, uint32_t mode)
{
    SdkCall c{"Korvalen_SetRenderScale", "Player_SetRenderScale"};
    return SDK_PortCall(port, c, true, [&] { return Player_SetRenderScale(port, rect, mode); });
}

int32_t Korvalen_GetRenderScale(uint32_t port, KORVALEN_RECT* rect, uint32_t* mode)
{
    // Reports failures with the set call's name, as it always has.
    SdkCall c{"Korvalen_GetRenderScale", "Player_SetRenderScale"};
    return SDK_PortCall(port, c, rect && mode, [&] { return Player_GetRenderScale(port, rect, mode); });
}

int32_t Korvalen_SetDigitalZoom(uint32_t port, const KORVALEN_RECT* zoom, const KORVALEN_RECT* area)
{
    SdkCall c{"Korvalen_SetDigitalZoom", "Player_SetRenderScale"};
    return SDK_PortCall(port, c, true, [&] { return Player_SetDigitalZoom(port, zoom, area); });
}

int32_t Korvalen_SetAdjust(uint32_t port, uint32_t adjust_type, const int32_t* value)
{
    SdkCall c{"Korvalen_SetAdjust", "Player_SetAdjust"};
    return SDK_PortCall(port, c, value != nullptr, [&] { return Player_SetAdjust(port, adjust_type, value); });
}

int32_t Korvalen_GetAdjust(uint32_t port, KORVALEN_ADJUST* adjust)
{
    SdkCall c{"Korvalen_GetAdjust", "Player_GetAdjust"};
    return SDK_PortCall(port, c, adjust != nullptr, [&] { return Player_GetAdjust(port, adjust); });
}

int32_t Korvalen_SetOSDStyle(uint32_t port, uint32_t style)
{
    SdkCall c{"Korvalen_SetOSDStyle", "Player_SetOSDStyle"};
    return SDK_PortCall(port, c, true, [&] { return Player_SetOSDStyle(port, style); });
}

int32_t Korvalen_SetGpuDrawEnable(uint32_t port, uint32_t enable)
{
    SdkCall c{"Korvalen_SetGpuDrawEnable", "Player_SetGpuDrawEnable"};
    uint32_t err = SDK_Run(port, c, true, [&] { return Player_SetGpuDrawEnable(port, enable); });
    if (err == kSdkRejected) {
        return 0;
    }
    if (err != KORVALEN_OK) {
        return SDK_Finish(port, c, err);
    }
    KORVALEN_LOG(KORVALEN_LOG_INFO, "Call Port[%03d] Korvalen_SetGpuDrawEnable Success, Able : %d", port, enable);
    return 1;
}

int32_t Korvalen_SetDeinterlaceMode(uint32_t port, uint32_t mode, uint32_t value)
{
    SdkCall c{"Korvalen_SetDeinterlaceMode", "Player_SetDeinterlaceMode"};
    return SDK_PortCall(port, c, true, [&] { return Player_SetDeinterlaceMode(port, mode, value); });
}

int32_t Korvalen_SetIVAEnable(uint32_t port, uint32_t enable)
{
    // No port check or lock: the overlay store has its own lock.
    uint32_t err = Player_SetIVAEnable(port, enable);
    if (err != KORVALEN_OK) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "Call Korvalen_SetIvaEnable fail.");
        return SDK_Fail(err);
    }
    return 1;
}

int32_t Korvalen_SetIVAShowParam(uint32_t show_param)
{
    return SDK_GlobalFinish("Korvalen_SetIVAShowParam", "Player_SetIVAShowParam", Player_SetIVAShowParam(show_param));
}

int32_t Korvalen_SetIVAShowParamEx(uint32_t port, uint32_t show_param, uint32_t mode)
{
    return SDK_GlobalFinish("Korvalen_SetIVAShowParamEx", "Player_SetIVAShowParamEx",
                            Player_SetIVAShowParamEx(port, show_param, mode));
}

int32_t Korvalen_IsFishEyeStream(uint32_t port)
{
    if (!SDK_CheckPort(port)) {
        return 0;
    }
    uint32_t answer = 0;
    uint32_t err;
    {
        std::lock_guard<std::recursive_mutex> lock(Port_Lock(port));
        err = Player_IsFishEyeStream(port, &answer);
    }
    KORVALEN_LOG(KORVALEN_LOG_INFO, "Call Port[%03d] Korvalen_IsFishEyeStream return %s", port,
                 answer == 1 ? "TRUE" : "FALSE");
    if (err != KORVALEN_OK) {
        return SDK_Fail(err);
    }
    return answer == 1 ? 1 : 0;
}

int32_t Korvalen_GetFishEyeParam(uint32_t port, KORVALEN_FISHEYE_STATE* state, KORVALEN_POINT* center, uint32_t* radius)
{
    if (!center || !radius) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "Call Port[%03d] Korvalen_GetFishEyeParam fail, CenterPoint(%p) Radius(%p)",
                     port, static_cast<void*>(center), static_cast<void*>(radius));
        return SDK_Fail(KORVALEN_ERR_INVALID_PARAM);
    }
    SdkCall c{"Korvalen_GetFishEyeParam", "Player_GetFishEyeParam"};
    return SDK_PortCall(port, c, true, [&] { return Player_GetFishEyeParam(port, state, center, radius); });
}

int32_t Korvalen_FaceCorrectFunc(void*, void*, void*)
{
    return 0;
}

int32_t Korvalen_SetPtzAndFixMode(uint32_t port, uint32_t ptz_mode, uint32_t fix_mode)
{
    SdkCall c{"Korvalen_SetPtzAndFixMode", "Player_SetPtzAndFixMode"};
    return SDK_PortCall(port, c, true, [&] { return Player_SetPtzAndFixMode(port, ptz_mode, fix_mode); });
}

int32_t Korvalen_GetPtzAndFixMode(uint32_t port, uint32_t* ptz_mode, uint32_t* fix_mode)
{
    SdkCall c{"Korvalen_GetPtzAndFixMode", "Player_GetPtzAndFixMode"};
    return SDK_PortCall(port, c, ptz_mode && fix_mode,
                        [&] { return Player_GetPtzAndFixMode(port, ptz_mode, fix_mode); });
}

int32_t Korvalen_SetPtzDisplayMode(uint32_t port, uint32_t ptz_mode)
{
    SdkCall c{"Korvalen_SetPtzDisplayMode", "Player_SetPtzDisplayMode"};
    return SDK_PortCall(port, c, true, [&] { return Player_SetPtzDisplayMode(port, ptz_mode); });
}

int32_t Korvalen_SetPtzKeepAliveTime(uint32_t port, uint32_t seconds)
{
    SdkCall c{"Korvalen_SetPtzKeepAliveTime", "Player_SetPtzKeepAliveTime"};
    return SDK_PortCall(port, c, true, [&] { return Player_SetPtzKeepAliveTime(port, seconds); });
}

int32_t Korvalen_OnMouseMove(uint32_t port, uint32_t x, uint32_t y)
{
    return MouseCall(port, "Korvalen_OnMouseMove", "Player_OnMouseMove", x, y,
                     [&] { return Player_OnMouseMove(port, x, y); });
}

int32_t Korvalen_OnLButtonDown(uint32_t port, uint32_t x, uint32_t y)
{
    return MouseCall(port, "Korvalen_OnLButtonDown", "Player_OnLButtonDown", x, y,
                     [&] { return Player_OnLButtonDown(port, x, y); });
}

int32_t Korvalen_OnLButtonUp(uint32_t port, uint32_t x, uint32_t y)
{
    return MouseCall(port, "Korvalen_OnLButtonUp", "Player_OnLButtonUp", x, y,
                     [&] { return Player_OnLButtonUp(port, x, y); });
}

int32_t Korvalen_OnMouseWheel(uint32_t port, uint32_t flags, int16_t delta, uint32_t point)
{
    SdkCall c{"Korvalen_OnMouseWheel", "Player_OnMouseWheel", SDK_HOT};
    uint32_t err = SDK_Run(port, c, true, [&] { return Player_OnMouseWheel(port, flags, delta, point); });
    if (err == kSdkRejected) {
        return 0;
    }
    if (err != KORVALEN_OK) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR,
                     "Call Port[%03d] Korvalen_OnMouseWheel fail, Player_OnMouseWheel(%d, %d, (%u, %u)) fail, "
                     "error(0x%x)",
                     port, port, delta, point & 0xFFFFu, point >> 16, err);
        return SDK_Fail(err);
    }
    return 1;
}

} // extern "C"
