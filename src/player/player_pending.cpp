// Inner functions whose features have not landed yet. Each answers 7
// (KORVALEN_ERR_NOT_SUPPORTED) on an allocated port, 259 otherwise; the issue
// that builds a feature moves its functions to the feature's module.
#include "player/player_api.h"
#include "player/port_table.h"

uint32_t Player_NotBuilt(uint32_t port)
{
    return Player_GetPort(port) ? KORVALEN_ERR_NOT_SUPPORTED : KORVALEN_ERR_PORT;
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

