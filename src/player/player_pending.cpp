// Inner functions whose features have not landed yet. Each answers 7
// (KORVALEN_ERR_NOT_SUPPORTED) on an allocated port, 259 otherwise; the issue
// that builds a feature moves its functions to the feature's module.
#include "player/player_api.h"
#include "player/port_table.h"

uint32_t Player_NotBuilt(uint32_t port)
{
    return Player_GetPort(port) ? KORVALEN_ERR_NOT_SUPPORTED : KORVALEN_ERR_PORT;
}

uint32_t Player_OpenHlsStream(uint32_t port)
{
    return Player_NotBuilt(port);
}

uint32_t Player_CloseHlsStream(uint32_t port)
{
    return Player_NotBuilt(port);
}

uint32_t Player_UpdatePlayInfo(uint32_t port, const KORVALEN_HLS_PLAY_INFO*, uint32_t)
{
    return Player_NotBuilt(port);
}

uint32_t Player_SetCachePath(const char*)
{
    return KORVALEN_ERR_NOT_SUPPORTED;
}

uint32_t Player_SetMaxCache(uint32_t)
{
    return KORVALEN_ERR_NOT_SUPPORTED;
}

uint32_t Player_CleanCache()
{
    return KORVALEN_ERR_NOT_SUPPORTED;
}

uint32_t Player_IsFishEyeStream(uint32_t port, uint32_t*)
{
    return Player_NotBuilt(port);
}

uint32_t Player_GetFishEyeParam(uint32_t port, KORVALEN_FISHEYE_STATE*, KORVALEN_POINT*, uint32_t*)
{
    return Player_NotBuilt(port);
}

uint32_t Player_SetPtzAndFixMode(uint32_t port, uint32_t, uint32_t)
{
    return Player_NotBuilt(port);
}

uint32_t Player_GetPtzAndFixMode(uint32_t port, uint32_t*, uint32_t*)
{
    return Player_NotBuilt(port);
}

uint32_t Player_SetPtzDisplayMode(uint32_t port, uint32_t)
{
    return Player_NotBuilt(port);
}

uint32_t Player_SetPtzKeepAliveTime(uint32_t port, uint32_t)
{
    return Player_NotBuilt(port);
}

uint32_t Player_OnMouseMove(uint32_t port, uint32_t, uint32_t)
{
    return Player_NotBuilt(port);
}

uint32_t Player_OnLButtonDown(uint32_t port, uint32_t, uint32_t)
{
    return Player_NotBuilt(port);
}

uint32_t Player_OnLButtonUp(uint32_t port, uint32_t, uint32_t)
{
    return Player_NotBuilt(port);
}

uint32_t Player_OnMouseWheel(uint32_t port, uint32_t, int16_t, uint32_t)
{
    return Player_NotBuilt(port);
}
