// Sound on a port: the decision the decode thread makes for every frame, and
// the playback object it keeps.
#pragma once

#include <cstdint>
#include <mutex>

#include "audio/port_sound.h"

// Before decoding: false when the channel choice drops this audio frame
// (0 drops sub-type 4, 1 drops sub-type 0, 2 drops all).
bool Audio_ChannelKeepsFrame(uint32_t channel, uint32_t frameSubType);

// After decoding every frame: creates, re-creates, re-volumes or destroys the
// port's playback object as the port's settings say, then queues the PCM.
// frame is null when the frame was not audio or did not decode.
void Audio_PlayPortFrame(PortSound& s, uint32_t port, std::recursive_mutex& dataLock, const AUDIO_PCM_FRAME* frame);

// Destroys the port's playback object (decode thread end, port release).
void Audio_ReleasePortSound(PortSound& s, std::recursive_mutex& dataLock);
