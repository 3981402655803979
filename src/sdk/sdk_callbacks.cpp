// Exported data-callback setters.
#include "korvalen.h"
#include "port/player_api.h"
#include "sdk/sdk_frame.h"

extern "C" {

int32_t Korvalen_SetSourceMediaDataCB(uint32_t port, KORVALEN_SOURCE_DATA_CB callback, uint32_t option, void* user)
{
    SdkCall c{"Korvalen_SetSourceMediaDataCB", "Player_SetSourceMediaDataCB", SDK_FAIL_NO_PORT,
              "Call Player_SetSourceMediaDataCB, error(0x%x)"};
    return SDK_PortCall(port, c, true, [&] { return Player_SetSourceMediaDataCB(port, callback, option, user); });
}

int32_t Korvalen_SetParseVideoDataCB(uint32_t port, KORVALEN_PARSED_DATA_CB callback, uint32_t option, void* user)
{
    SdkCall c{"Korvalen_SetParseVideoDataCB", "Player_SetParseVideoDataCB", SDK_FAIL_NO_PORT,
              "Call Player_SetParseVideoDataCB, error(0x%x)"};
    return SDK_PortCall(port, c, true, [&] { return Player_SetParseVideoDataCB(port, callback, option, user); });
}

int32_t Korvalen_SetParseAudioDataCB(uint32_t port, KORVALEN_PARSED_DATA_CB callback, uint32_t option, void* user)
{
    SdkCall c{"Korvalen_SetParseAudioDataCB", "Player_SetParseAudioDataCB", SDK_FAIL_NO_PORT,
              "Call Player_SetParseAudioDataCB, error(0x%x)"};
    return SDK_PortCall(port, c, true, [&] { return Player_SetParseAudioDataCB(port, callback, option, user); });
}

int32_t Korvalen_SetDecodeVideoMediaDataCB(uint32_t port, KORVALEN_DECODED_VIDEO_CB callback, uint32_t option,
                                           void* user)
{
    SdkCall c{"Korvalen_SetDecodeVideoMediaDataCB", "Player_SetDecodeVideoMediaDataCB", SDK_FAIL_NO_PORT,
              "Call Player_SetDecodeVideoMediaDataCB, error(0x%x)"};
    return SDK_PortCall(port, c, true, [&] { return Player_SetDecodeVideoMediaDataCB(port, callback, option, user); });
}

int32_t Korvalen_SetDecodeAudioMediaDataCB(uint32_t port, KORVALEN_DECODED_AUDIO_CB callback, uint32_t option,
                                           void* user)
{
    SdkCall c{"Korvalen_SetDecodeAudioMediaDataCB", "Player_SetDecodeAudioMediaDataCB", SDK_FAIL_NO_PORT,
              "Call Player_SetDecodeAudioMediaDataCB, error(0x%x)"};
    return SDK_PortCall(port, c, true, [&] { return Player_SetDecodeAudioMediaDataCB(port, callback, option, user); });
}

int32_t Korvalen_SetParseVoiceDataCB(uint32_t port, KORVALEN_DECODED_AUDIO_CB callback, uint32_t option, void* user)
{
    SdkCall c{"Korvalen_SetParseVoiceDataCB", "Player_SetParseVoiceDataCB", SDK_FAIL_NO_PORT,
              "Call Player_SetParseVoiceDataCB, error(0x%x)"};
    return SDK_PortCall(port, c, true, [&] { return Player_SetParseVoiceDataCB(port, callback, option, user); });
}

int32_t Korvalen_SetDrawMediaDataCB(uint32_t port, KORVALEN_DRAW_CB callback, void* user)
{
    SdkCall c{"Korvalen_SetDrawMediaDataCB", "Player_SetDrawMediaDataCB", SDK_FAIL_NO_PORT,
              "Call Player_SetDrawMediaDataCB, error(0x%x)"};
    return SDK_PortCall(port, c, true, [&] { return Player_SetDrawMediaDataCB(port, callback, user); });
}

int32_t Korvalen_SetDrawMediaDataCBEx(uint32_t port, KORVALEN_DRAW_CB callback, void* user)
{
    // Goes straight to the port's display, which has its own lock.
    uint32_t err = Player_SetDrawMediaDataCBEx(port, callback, user);
    if (err != KORVALEN_OK) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "Call Player_SetDrawMediaDataCBEx, error(0x%x)", err);
        return SDK_Fail(err);
    }
    return 1;
}

} // extern "C"
