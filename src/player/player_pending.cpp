// Inner functions whose features have not landed yet. Each answers 7
// (KORVALEN_ERR_NOT_SUPPORTED) on an allocated port, 259 otherwise; the issue
// that builds a feature moves its functions to the feature's module.
#include "player/player_api.h"
#include "player/port_table.h"

uint32_t Player_NotBuilt(uint32_t port)
{
    return Player_GetPort(port) ? KORVALEN_ERR_NOT_SUPPORTED : KORVALEN_ERR_PORT;
}

uint32_t Player_OpenMediaFile(uint32_t port, const char*)
{
    return Player_NotBuilt(port);
}

uint32_t Player_CloseMediaFile(uint32_t port)
{
    return Player_NotBuilt(port);
}

uint32_t Player_GetFileTime(uint32_t port, uint32_t*)
{
    return Player_NotBuilt(port);
}

uint32_t Player_CurPlayTime(uint32_t port, uint32_t*)
{
    return Player_NotBuilt(port);
}

uint32_t Player_GetPlayTimeEx(uint32_t port, KORVALEN_PLAY_TIME*)
{
    return Player_NotBuilt(port);
}

uint32_t Player_SetPlayedTime(uint32_t port, uint32_t)
{
    return Player_NotBuilt(port);
}

uint32_t Player_SpeedPlay(uint32_t port, uint32_t)
{
    return Player_NotBuilt(port);
}

uint32_t Player_AFrameGo(uint32_t port)
{
    return Player_NotBuilt(port);
}

uint32_t Player_AFrameBack(uint32_t port)
{
    return Player_NotBuilt(port);
}

uint32_t Player_MP4GetRealTime(const char*, uint32_t*)
{
    return KORVALEN_ERR_NOT_SUPPORTED;
}

uint32_t Player_CheckMark(uint32_t port, const KORVALEN_MARK_QUERY*, KORVALEN_MARK_INFO**)
{
    return Player_NotBuilt(port);
}

uint32_t Player_CheckMarkCancel(uint32_t port)
{
    return Player_NotBuilt(port);
}

uint32_t Player_FreeMarkInfo(KORVALEN_MARK_INFO*)
{
    return KORVALEN_ERR_NOT_SUPPORTED;
}

uint32_t Player_SetRecordSize(uint32_t port, uint32_t)
{
    return Player_NotBuilt(port);
}

uint32_t Player_SetRecordDivByTime(uint32_t port, uint32_t)
{
    return Player_NotBuilt(port);
}

uint32_t Player_StartRecord(uint32_t port, const char*, uint32_t, const KORVALEN_RECORD_PARAM*)
{
    return Player_NotBuilt(port);
}

uint32_t Player_StopRecord(uint32_t port)
{
    return Player_NotBuilt(port);
}

uint32_t Player_StopRecordEx(uint32_t port, const KORVALEN_RECORD_PARAM*)
{
    return Player_NotBuilt(port);
}

uint32_t Player_GetRecordStatus(uint32_t port, uint32_t*)
{
    return Player_NotBuilt(port);
}

uint32_t Player_GetRecordFiles(uint32_t port, uint32_t, KORVALEN_RECORD_FILE*)
{
    return Player_NotBuilt(port);
}

uint32_t Player_GetRecordFileSize(uint32_t port, uint64_t*)
{
    return Player_NotBuilt(port);
}

uint32_t Player_SnatchOnce(uint32_t port, const char*, uint32_t, const KORVALEN_SNAP_PARAM*)
{
    return Player_NotBuilt(port);
}

uint32_t Player_SetVoiceEncodeType(uint32_t port, uint32_t, uint32_t, uint32_t)
{
    return Player_NotBuilt(port);
}

uint32_t Player_OpenVoiceSvc(uint32_t port, uint32_t, uint32_t, const char*, uint16_t, const char*, uint16_t, uint32_t)
{
    return Player_NotBuilt(port);
}

uint32_t Player_CloseVoiceSvc(uint32_t port)
{
    return Player_NotBuilt(port);
}

uint32_t Player_VoiceInputData(uint32_t port, const uint8_t*, uint32_t)
{
    return Player_NotBuilt(port);
}

uint32_t Player_SetMicVolume(uint32_t port, uint32_t)
{
    return Player_NotBuilt(port);
}

uint32_t Player_GetMicVolume(uint32_t port, uint32_t*)
{
    return Player_NotBuilt(port);
}

uint32_t Player_SetMicQuietStatus(uint32_t port, uint32_t)
{
    return Player_NotBuilt(port);
}

uint32_t Player_GetMicQuietStatus(uint32_t port, uint32_t*)
{
    return Player_NotBuilt(port);
}

uint32_t Player_SetIVAEnable(uint32_t port, uint32_t)
{
    return Player_NotBuilt(port);
}

uint32_t Player_SetIVAShowParam(uint32_t)
{
    return KORVALEN_ERR_NOT_SUPPORTED;
}

uint32_t Player_SetIVAShowParamEx(uint32_t port, uint32_t, uint32_t)
{
    return Player_NotBuilt(port);
}
