// Exported sound, voice-talk and microphone functions.
#include "korvalen.h"
#include "port/player_api.h"
#include "sdk/sdk_frame.h"

extern "C" {

int32_t Korvalen_OpenSound(uint32_t port)
{
    SdkCall c{"Korvalen_OpenSound", "Player_OpenSound"};
    return SDK_PortCall(port, c, true, [&] { return Player_OpenSound(port); });
}

int32_t Korvalen_CloseSound(uint32_t port)
{
    SdkCall c{"Korvalen_CloseSound", "Player_CloseSound"};
    return SDK_PortCall(port, c, true, [&] { return Player_CloseSound(port); });
}

int32_t Korvalen_GetSoundVolume(uint32_t port, uint32_t* volume)
{
    SdkCall c{"Korvalen_GetSoundVolume", "Player_GetSoundVolume", SDK_HOT | SDK_FAIL_NO_PORT};
    return SDK_PortCall(port, c, volume != nullptr, [&] { return Player_GetSoundVolume(port, volume); });
}

int32_t Korvalen_SetSoundVolume(uint32_t port, uint32_t volume)
{
    SdkCall c{"Korvalen_SetSoundVolume", "Player_SetSoundVolume", SDK_HOT | SDK_FAIL_NO_PORT};
    return SDK_PortCall(port, c, true, [&] { return Player_SetSoundVolume(port, volume); });
}

int32_t Korvalen_SetSoundQuietStatus(uint32_t port, uint32_t quiet)
{
    SdkCall c{"Korvalen_SetSoundQuietStatus", "Player_SetSoundQuietStatus"};
    return SDK_PortCall(port, c, true, [&] { return Player_SetSoundQuietStatus(port, quiet); });
}

int32_t Korvalen_GetSoundQuietStatus(uint32_t port, uint32_t* quiet)
{
    SdkCall c{"Korvalen_GetSoundQuietStatus", "Player_GetSoundQuietStatus"};
    return SDK_PortCall(port, c, quiet != nullptr, [&] { return Player_GetSoundQuietStatus(port, quiet); });
}

int32_t Korvalen_SetPlaySoundChannel(uint32_t port, uint32_t channel)
{
    SdkCall c{"Korvalen_SetPlaySoundChannel", "Player_SetPlaySoundChannel"};
    return SDK_PortCall(port, c, true, [&] { return Player_SetPlaySoundChannel(port, channel); });
}

int32_t Korvalen_SetVoiceEncodeType(uint32_t port, uint32_t encode_type, uint32_t sample_rate, uint32_t channels)
{
    SdkCall c{"Korvalen_SetVoiceEncodeType", "Player_SetVoiceEncodeType"};
    return SDK_PortCall(port, c, true,
                        [&] { return Player_SetVoiceEncodeType(port, encode_type, sample_rate, channels); });
}

int32_t Korvalen_OpenVoiceSvc(uint32_t port, uint32_t mode, uint32_t socket, const char* local_ip, uint16_t local_port,
                              const char* remote_ip, uint16_t remote_port, uint32_t protocol)
{
    SdkCall c{"Korvalen_OpenVoiceSvc", "Player_OpenVoiceSvc"};
    return SDK_PortCall(port, c, true, [&] {
        return Player_OpenVoiceSvc(port, mode, socket, local_ip, local_port, remote_ip, remote_port, protocol);
    });
}

int32_t Korvalen_CloseVoiceSvc(uint32_t port)
{
    SdkCall c{"Korvalen_CloseVoiceSvc", "Player_CloseVoiceSvc"};
    return SDK_PortCall(port, c, true, [&] { return Player_CloseVoiceSvc(port); });
}

int32_t Korvalen_VoiceInputData(uint32_t port, const uint8_t* data, uint32_t length, void*)
{
    SdkCall c{"Korvalen_VoiceInputData", "Player_VoiceInputData", SDK_HOT};
    return SDK_PortCall(port, c, data != nullptr || length == 0,
                        [&] { return Player_VoiceInputData(port, data, length); });
}

int32_t Korvalen_SetMicVolume(uint32_t port, uint32_t volume)
{
    SdkCall c{"Korvalen_SetMicVolume", "Player_SetMicVolume"};
    return SDK_PortCall(port, c, true, [&] { return Player_SetMicVolume(port, volume); });
}

int32_t Korvalen_GetMicVolume(uint32_t port, uint32_t* volume)
{
    SdkCall c{"Korvalen_GetMicVolume", "Player_GetMicVolume"};
    return SDK_PortCall(port, c, volume != nullptr, [&] { return Player_GetMicVolume(port, volume); });
}

int32_t Korvalen_SetMicQuietStatus(uint32_t port, uint32_t quiet)
{
    SdkCall c{"Korvalen_SetMicQuietStatus", "Player_SetMicQuietStatus"};
    return SDK_PortCall(port, c, true, [&] { return Player_SetMicQuietStatus(port, quiet); });
}

int32_t Korvalen_GetMicQuietStatus(uint32_t port, uint32_t* quiet)
{
    SdkCall c{"Korvalen_GetMicQuietStatus", "Player_GetMicQuietStatus"};
    return SDK_PortCall(port, c, quiet != nullptr, [&] { return Player_GetMicQuietStatus(port, quiet); });
}

} // extern "C"
