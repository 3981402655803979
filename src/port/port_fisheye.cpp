// Fisheye views and electronic PTZ of a port: the caller's controls and its
// mouse, handed to the port's fisheye record.
#include "fisheye/fisheye_port.h"
#include "port/player_api.h"
#include "port/port_table.h"

uint32_t Player_IsFishEyeStream(uint32_t port, uint32_t* answer)
{
    return Player_OnPort(port, [&](PortRecord& rec) { return FE_IsFishEyeStream(rec.fisheye, answer); });
}

uint32_t Player_GetFishEyeParam(uint32_t port, KORVALEN_FISHEYE_STATE* state, KORVALEN_POINT* center, uint32_t* radius)
{
    return Player_OnPort(port, [&](PortRecord& rec) {
        return FE_GetFishEyeParam(rec.fisheye, rec.playback.pictureWidth, rec.playback.pictureHeight, state, center,
                                  radius);
    });
}

uint32_t Player_SetPtzAndFixMode(uint32_t port, uint32_t ptzMode, uint32_t fixMode)
{
    return Player_OnPort(port, [&](PortRecord& rec) { return FE_SetPtzAndFixMode(rec.fisheye, ptzMode, fixMode); });
}

uint32_t Player_GetPtzAndFixMode(uint32_t port, uint32_t* ptzMode, uint32_t* fixMode)
{
    return Player_OnPort(port, [&](PortRecord& rec) { return FE_GetPtzAndFixMode(rec.fisheye, ptzMode, fixMode); });
}

uint32_t Player_SetPtzDisplayMode(uint32_t port, uint32_t ptzMode)
{
    return Player_OnPort(port, [&](PortRecord& rec) { return FE_SetPtzDisplayMode(rec.fisheye, ptzMode); });
}

uint32_t Player_SetPtzKeepAliveTime(uint32_t port, uint32_t seconds)
{
    return Player_OnPort(port, [&](PortRecord& rec) { return FE_SetPtzKeepAliveTime(rec.fisheye, seconds); });
}

namespace {

uint32_t Mouse(uint32_t port, uint32_t event, uint32_t x, uint32_t y, int32_t wheel)
{
    return Player_OnPort(port, [&](PortRecord& rec) { return FE_OnMouse(rec.fisheye, event, x, y, wheel); });
}

} // namespace

uint32_t Player_OnMouseMove(uint32_t port, uint32_t x, uint32_t y)
{
    return Mouse(port, FE_MOUSE_MOVE, x, y, 0);
}

uint32_t Player_OnLButtonDown(uint32_t port, uint32_t x, uint32_t y)
{
    return Mouse(port, FE_MOUSE_DOWN, x, y, 0);
}

uint32_t Player_OnLButtonUp(uint32_t port, uint32_t x, uint32_t y)
{
    return Mouse(port, FE_MOUSE_UP, x, y, 0);
}

uint32_t Player_OnMouseWheel(uint32_t port, uint32_t, int16_t delta, uint32_t point)
{
    return Mouse(port, FE_MOUSE_WHEEL, point & 0xFFFFu, point >> 16, delta);
}
