// Exported source functions: live network stream, pushed stream, media file
// and HLS.
#include "korvalen.h"
#include "net/net_socket.h"
#include "port/player_api.h"
#include "sdk/sdk_frame.h"
#include "source/hls/hls_source.h"

extern "C" {

int32_t Korvalen_OpenNetStream(uint32_t port, const char* local_ip, uint16_t local_port, const char* remote_ip,
                               uint16_t remote_port, uint32_t protocol)
{
    SdkCall c{"Korvalen_OpenNetStream", "Player_OpenNetStream", SDK_OPENING};
    return SDK_PortCall(port, c, true, [&] {
        return Player_OpenNetStream(port, local_ip, local_port, remote_ip, remote_port, protocol);
    });
}

int32_t Korvalen_CloseNetStream(uint32_t port)
{
    SdkCall c{"Korvalen_CloseNetStream", "Player_CloseNetStream"};
    return SDK_PortCall(port, c, true, [&] { return Player_CloseNetStream(port); });
}

int32_t Korvalen_SetNatParam(uint32_t port, uint32_t nat_mode, const char* nat_session)
{
    SdkCall c{"Korvalen_SetNatParam", "Player_SetNatParam"};
    return SDK_PortCall(port, c, true, [&] { return Player_SetNatParam(port, nat_mode, nat_session); });
}

int32_t Korvalen_GetLocalNetPort(uint32_t port, uint32_t* rtp_port, uint32_t* rtcp_port)
{
    SdkCall c{"Korvalen_GetLocalNetPort", "Player_GetLocalNetPort"};
    return SDK_PortCall(port, c, rtp_port && rtcp_port,
                        [&] { return Player_GetLocalNetPort(port, rtp_port, rtcp_port); });
}

int32_t Korvalen_ReleaseLocalNetPort(uint32_t port)
{
    SdkCall c{"Korvalen_ReleaseLocalNetPort", "Player_ReleaseLocalNetPort"};
    return SDK_PortCall(port, c, true, [&] { return Player_ReleaseLocalNetPort(port); });
}

int32_t Korvalen_SetTcpOutTime(uint32_t seconds)
{
    KORVALEN_LOG(KORVALEN_LOG_INFO, "Call Korvalen_SetTcpOutTime, time[%d]", seconds);
    Player_SetTcpOutTime(seconds);
    return 1;
}

int32_t Korvalen_GetLostPacketRate(uint32_t port, uint32_t* lost_count, uint32_t* total_count)
{
    SdkCall c{"Korvalen_GetLostPacketRate", "Player_GetLostPacketRate", SDK_HOT | SDK_FAIL_NO_PORT};
    return SDK_PortCall(port, c, lost_count && total_count,
                        [&] { return Player_GetLostPacketRate(port, lost_count, total_count); });
}

int32_t Korvalen_ResetLostPacketRate(uint32_t port)
{
    SdkCall c{"Korvalen_ResetLostPacketRate", "Player_ResetLostPacketRate", SDK_HOT | SDK_FAIL_NO_PORT};
    return SDK_PortCall(port, c, true, [&] { return Player_ResetLostPacketRate(port); });
}

int32_t Korvalen_OpenInputStream(uint32_t port, const uint8_t* header, uint32_t header_len, uint32_t buffer_size)
{
    // The failure line names other functions than the ones called; callers
    // match on it, so it stays.
    SdkCall c{"Korvalen_OpenInputStream", "Player_OpenInputStream", SDK_OPENING,
              "Call Port[%03d] Player_OpenInputStream fail, Player_CloseNetStream fail, error(0x%x)"};
    return SDK_PortCall(port, c, true, [&] { return Player_OpenInputStream(port, header, header_len, buffer_size); });
}

int32_t Korvalen_InputMediaData(uint32_t port, const uint8_t* data, uint32_t length)
{
    SdkCall c{"Korvalen_InputMediaData", "Player_InputMediaData", SDK_HOT};
    return SDK_PortCall(port, c, data != nullptr || length == 0,
                        [&] { return Player_InputMediaData(port, data, length); });
}

int32_t Korvalen_CloseInputStream(uint32_t port)
{
    SdkCall c{"Korvalen_CloseInputStream", "Player_CloseInputStream"};
    return SDK_PortCall(port, c, true, [&] { return Player_CloseInputStream(port); });
}

int32_t Korvalen_SetPayloadType(uint32_t port, uint32_t count, const KORVALEN_PAYLOAD_TYPE* entries)
{
    if (!entries) {
        // Answers the code itself and leaves the last error alone.
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "Invalid Parameter:pstPayloadType=NULL");
        return static_cast<int32_t>(KORVALEN_ERR_INVALID_PARAM);
    }
    if (count > 2) {
        count = 2;
    }
    SdkCall c{"Korvalen_SetPayloadType", "Player_SetPayloadType"};
    return SDK_PortCall(port, c, true, [&] { return Player_SetPayloadType(port, count, entries); });
}

int32_t Korvalen_SetAudioInfo(uint32_t port, const KORVALEN_AUDIO_INFO* info)
{
    if (!info) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "Invalid Parameter:pstAudioInfo=NULL");
        return SDK_Fail(KORVALEN_ERR_INVALID_PARAM);
    }
    SdkCall c{"Korvalen_SetAudioInfo", "Player_SetAudioInfo"};
    return SDK_PortCall(port, c, true, [&] { return Player_SetAudioInfo(port, info); });
}

int32_t Korvalen_OpenMediaFile(uint32_t port, const char* file_name)
{
    KORVALEN_LOG(KORVALEN_LOG_INFO, "Call Port[%03d] Korvalen_OpenMediaFile, filename:%s", port,
                 file_name ? file_name : "");
    SdkCall c{"Korvalen_OpenMediaFile", "Player_OpenMediaFile", SDK_OPENING | SDK_OWN_CALL_LINE};
    return SDK_PortCall(port, c, file_name != nullptr, [&] { return Player_OpenMediaFile(port, file_name); });
}

int32_t Korvalen_CloseMediaFile(uint32_t port)
{
    SdkCall c{"Korvalen_CloseMediaFile", "Player_CloseMediaFile"};
    return SDK_PortCall(port, c, true, [&] { return Player_CloseMediaFile(port); });
}

int32_t Korvalen_OpenHlsStream(uint32_t port)
{
    SdkCall c{"Korvalen_OpenHlsStream", "Player_OpenHlsStream"};
    return SDK_PortCall(port, c, true, [&] { return Player_OpenHlsStream(port); });
}

int32_t Korvalen_CloseHlsStream(uint32_t port)
{
    SdkCall c{"Korvalen_CloseHlsStream", "Player_CloseHlsStream"};
    return SDK_PortCall(port, c, true, [&] { return Player_CloseHlsStream(port); });
}

int32_t Korvalen_UpdatePlayInfo(uint32_t port, const KORVALEN_HLS_PLAY_INFO* info, uint32_t time)
{
    SdkCall c{"Korvalen_UpdatePlayInfo", "Player_UpdatePlayInfo"};
    uint32_t err = SDK_Run(port, c, info != nullptr, [&] { return Player_UpdatePlayInfo(port, info, time); });
    if (err == kSdkRejected) {
        return 0;
    }
    if (err != KORVALEN_OK) {
        return SDK_Finish(port, c, err);
    }
    KORVALEN_LOG(KORVALEN_LOG_INFO, "Call Port[%03d] Korvalen_UpdatePlayInfo Success, time[%d].", port, time);
    return 1;
}

int32_t Korvalen_SetCachePath(const char* path)
{
    return SDK_GlobalFinish("Korvalen_SetCachePath", "Player_SetCachePath",
                            path ? Player_SetCachePath(path) : KORVALEN_ERR_INVALID_PARAM);
}

int32_t Korvalen_SetMaxCache(uint32_t size_mb)
{
    return SDK_GlobalFinish("Korvalen_SetMaxCache", "Player_SetMaxCache", Player_SetMaxCache(size_mb));
}

int32_t Korvalen_CleanCache(void)
{
    return SDK_GlobalFinish("Korvalen_CleanCache", "Player_CleanCache", Player_CleanCache());
}

} // extern "C"
