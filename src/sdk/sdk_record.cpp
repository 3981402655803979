// Exported recording and snapshot functions.
#include <cstring>

#include "korvalen.h"
#include "port/player_api.h"
#include "sdk/sdk_frame.h"

extern "C" {

int32_t Korvalen_SetRecordSize(uint32_t port, uint32_t size_mb)
{
    KORVALEN_LOG(KORVALEN_LOG_INFO, "Call Port[%03d] Korvalen_SetRecordSize FileSize:%dMB", port, size_mb);
    SdkCall c{"Korvalen_SetRecordSize", "Player_SetRecordSize", SDK_OWN_CALL_LINE};
    return SDK_PortCall(port, c, true, [&] { return Player_SetRecordSize(port, size_mb); });
}

int32_t Korvalen_SetRecordDivByTime(uint32_t port, uint32_t minutes)
{
    KORVALEN_LOG(KORVALEN_LOG_INFO, "Call Port[%03d] Korvalen_SetRecordDivByTime Time:%dMin", port, minutes);
    SdkCall c{"Korvalen_SetRecordDivByTime", "Player_SetRecordDivByTime", SDK_OWN_CALL_LINE};
    return SDK_PortCall(port, c, true, [&] { return Player_SetRecordDivByTime(port, minutes); });
}

int32_t Korvalen_StartRecord(uint32_t port, const char* file_name, uint32_t record_type,
                             const KORVALEN_RECORD_PARAM* param)
{
    KORVALEN_LOG(KORVALEN_LOG_INFO, "Call Port[%03d] Korvalen_StartRecord RecordType[%d]", port, record_type);
    if (file_name && std::strchr(file_name, '%')) {
        KORVALEN_LOG(KORVALEN_LOG_INFO, "FileName contains percentage sign.");
    } else {
        KORVALEN_LOG(KORVALEN_LOG_INFO, "FileName:%s", file_name ? file_name : "");
    }
    SdkCall c{"Korvalen_StartRecord", "Player_StartRecord", SDK_OWN_CALL_LINE};
    return SDK_PortCall(port, c, file_name != nullptr,
                        [&] { return Player_StartRecord(port, file_name, record_type, param); });
}

int32_t Korvalen_StopRecord(uint32_t port)
{
    SdkCall c{"Korvalen_StopRecord", "Player_StopRecord"};
    return SDK_PortCall(port, c, true, [&] { return Player_StopRecord(port); });
}

int32_t Korvalen_StopRecordEx(uint32_t port, const KORVALEN_RECORD_PARAM* param)
{
    // Logged as the plain stop: log readers follow one name for both.
    SdkCall c{"Korvalen_StopRecord", "Player_StopRecord"};
    return SDK_PortCall(port, c, true, [&] { return Player_StopRecordEx(port, param); });
}

int32_t Korvalen_GetRecordStatus(uint32_t port, uint32_t* recording)
{
    SdkCall c{"Korvalen_GetRecordStatus", "Player_GetRecordStatus", SDK_HOT};
    return SDK_PortCall(port, c, recording != nullptr, [&] { return Player_GetRecordStatus(port, recording); });
}

int32_t Korvalen_GetRecordFiles(uint32_t port, uint32_t count, KORVALEN_RECORD_FILE* list)
{
    SdkCall c{"Korvalen_GetRecordFiles", "Player_GetRecordFiles"};
    return SDK_PortCall(port, c, list != nullptr || count == 0,
                        [&] { return Player_GetRecordFiles(port, count, list); });
}

int32_t Korvalen_GetRecordFileSize(uint32_t port, uint64_t* size)
{
    SdkCall c{"Korvalen_GetRecordFileSize", "Player_GetRecordFileSize"};
    return SDK_PortCall(port, c, size != nullptr, [&] { return Player_GetRecordFileSize(port, size); });
}

int32_t Korvalen_SnatchOnce(uint32_t port, const char* file_name, uint32_t picture_format,
                            const KORVALEN_SNAP_PARAM* param)
{
    KORVALEN_LOG(KORVALEN_LOG_INFO, "Call Port[%03d] Korvalen_SnatchOnce PicFormat:%d, FileName:%s", port,
                 picture_format, file_name ? file_name : "");
    SdkCall c{"Korvalen_SnatchOnce", "Player_SnatchOnce", SDK_OWN_CALL_LINE};
    return SDK_PortCall(port, c, file_name != nullptr,
                        [&] { return Player_SnatchOnce(port, file_name, picture_format, param); });
}

} // extern "C"
