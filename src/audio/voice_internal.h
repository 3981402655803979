// Shared parts of the voice service: the encode-and-send path, the
// broadcast state and the capture callbacks.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>

#include "audio/port_voice.h"

constexpr uint32_t kBroadcastPorts = 128;
constexpr uint32_t kBroadcastSlotPayload = 2048;

// Process-wide broadcast state: one capture and encoder whose packets are
// queued to every registered port.
struct VOICE_BROADCAST {
    std::atomic<int32_t> count{0};
    std::mutex lock; // the shared sender, its last packet and the list
    VOICE_SENDER sender;
    uint32_t built = 0;
    uint32_t packetLen = 0; // RTP length of the packet in the send buffer
    CMicCapture* capture = nullptr;
    std::atomic<PortVoice*> voices[kBroadcastPorts] = {}; // the ports that broadcast
};
VOICE_BROADCAST& Voice_Broadcast();

// Codec type and capture block size of an encode type; false when unknown.
bool Voice_EncodeFormat(uint32_t encodeType, uint32_t* codecType, uint32_t* blockSize);

// Send buffer, RTP sender and encoder. 0, or 3 / the codec manager's error
// (logged by the caller).
uint32_t Voice_InitSender(VOICE_SENDER* s, uint32_t codecType, uint32_t sampleRate, uint32_t protocol, uint32_t port);
uint32_t Voice_CreateEncoder(VOICE_SENDER* s, uint32_t codecType, uint32_t sampleRate);
void Voice_FreeSender(VOICE_SENDER* s);

// The capture callbacks: context is the port's voice record (talk) or the
// broadcast list (broadcast).
void Player_SendVoice(const uint8_t* pcm, uint32_t length, void* voice);
void Player_SendBroacdcast(const uint8_t* pcm, uint32_t length, void* list);

// Voice the caller feeds (sent as codec 7). 0, or 7 when nothing is set up.
uint32_t Voice_SendFed(PortVoice& v, const uint8_t* pcm, uint32_t length);

void Voice_BroadcastThread(PortVoice* v);
