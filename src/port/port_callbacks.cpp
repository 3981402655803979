// Data-callback setters: each stores its callback, user pointer and option
// word in the port record; the pipeline reads them at the next frame.
#include "port/player_api.h"
#include "port/port_table.h"

namespace {

template <class Fn>
uint32_t Store(uint32_t port, CallbackSlot<Fn> PortCallbacks::*slot, Fn cb, uint32_t option, void* user)
{
    PortRecord* rec = Player_GetPort(port);
    if (!rec) {
        return KORVALEN_ERR_PORT;
    }
    CallbackSlot<Fn>& s = rec->callbacks.*slot;
    s.fn = cb;
    s.user = user;
    s.option = option;
    return KORVALEN_OK;
}

} // namespace

uint32_t Player_SetSourceMediaDataCB(uint32_t port, KORVALEN_SOURCE_DATA_CB cb, uint32_t option, void* user)
{
    uint32_t err = Store(port, &PortCallbacks::source, cb, option, user);
    if (err == KORVALEN_OK) {
        // Option 0: the caller only wants to see the data, not decode it.
        Player_GetPort(port)->feedDecoder = option != 0 ? 1 : 0;
    }
    return err;
}

uint32_t Player_SetParseVideoDataCB(uint32_t port, KORVALEN_PARSED_DATA_CB cb, uint32_t option, void* user)
{
    return Store(port, &PortCallbacks::parseVideo, cb, option, user);
}

uint32_t Player_SetParseAudioDataCB(uint32_t port, KORVALEN_PARSED_DATA_CB cb, uint32_t option, void* user)
{
    return Store(port, &PortCallbacks::parseAudio, cb, option, user);
}

uint32_t Player_SetDecodeVideoMediaDataCB(uint32_t port, KORVALEN_DECODED_VIDEO_CB cb, uint32_t option, void* user)
{
    return Store(port, &PortCallbacks::decodeVideo, cb, option, user);
}

uint32_t Player_SetDecodeAudioMediaDataCB(uint32_t port, KORVALEN_DECODED_AUDIO_CB cb, uint32_t option, void* user)
{
    return Store(port, &PortCallbacks::decodeAudio, cb, option, user);
}

uint32_t Player_SetParseVoiceDataCB(uint32_t port, KORVALEN_DECODED_AUDIO_CB cb, uint32_t option, void* user)
{
    return Store(port, &PortCallbacks::parseVoice, cb, option, user);
}

uint32_t Player_SetDrawMediaDataCB(uint32_t port, KORVALEN_DRAW_CB cb, void* user)
{
    return Store(port, &PortCallbacks::draw, cb, 1, user);
}

uint32_t Player_SetDrawMediaDataCBEx(uint32_t port, KORVALEN_DRAW_CB cb, void* user)
{
    uint32_t err = Store(port, &PortCallbacks::drawEx, cb, 1, user);
    if (err == KORVALEN_OK) {
        PortRecord* rec = Player_GetPort(port);
        if (rec->video.display) {
            rec->video.display->SetDrawCallback(cb, user);
        }
    }
    return err;
}
