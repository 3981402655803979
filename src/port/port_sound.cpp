// Sound controls of a port: open and close, volume, mute and channel.
#include <mutex>

#include "audio/audio_play.h"
#include "log/log.h"
#include "port/player_api.h"
#include "port/port_table.h"

uint32_t Player_OpenSound(uint32_t port)
{
    return Player_OnPortOrLog(port, [&](PortRecord& rec) {
        rec.sound.open = 1;
        return KORVALEN_OK;
    });
}

uint32_t Player_CloseSound(uint32_t port)
{
    return Player_OnPortOrLog(port, [&](PortRecord& rec) {
        rec.sound.open = 0;
        return KORVALEN_OK;
    });
}

uint32_t Player_SetSoundVolume(uint32_t port, uint32_t volume)
{
    return Player_OnPortOrLog(port, [&](PortRecord& rec) {
        rec.sound.volume = volume;
        rec.sound.savedVolume = volume;
        return KORVALEN_OK;
    });
}

uint32_t Player_GetSoundVolume(uint32_t port, uint32_t* volume)
{
    return Player_OnPortOrLog(port, [&](PortRecord& rec) {
        std::lock_guard<std::recursive_mutex> lock(rec.dataLock);
        uint32_t err = Audio_GetSoundVolume(rec.sound.play, volume);
        if (err == KORVALEN_ERR_SOUND_BUFFER) {
            *volume = rec.sound.volume; // nothing played yet: the stored value
            return KORVALEN_OK;
        }
        if (err != KORVALEN_OK) {
            KORVALEN_LOG(KORVALEN_LOG_ERROR,
                         "Port[%03d] QUEUE_AddPacket failed, Audio_GetSoundVolume fail, error(0x%x)", port, err);
        }
        return err;
    });
}

uint32_t Player_SetSoundQuietStatus(uint32_t port, uint32_t quiet)
{
    return Player_OnPortOrLog(port, [&](PortRecord& rec) {
        PortSound& s = rec.sound;
        if (quiet) {
            s.savedVolume = s.volume.load();
            s.volume = 0;
        } else {
            s.volume = s.savedVolume.load();
        }
        s.muted = quiet;
        return KORVALEN_OK;
    });
}

uint32_t Player_GetSoundQuietStatus(uint32_t port, uint32_t* quiet)
{
    return Player_OnPortOrLog(port, [&](PortRecord& rec) {
        *quiet = rec.sound.muted;
        return KORVALEN_OK;
    });
}

uint32_t Player_SetPlaySoundChannel(uint32_t port, uint32_t channel)
{
    return Player_OnPortOrLog(port, [&](PortRecord& rec) {
        rec.sound.channel = channel;
        return KORVALEN_OK;
    });
}
