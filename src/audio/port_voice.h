// A port's voice talk or broadcast: the encode type chosen, the transport,
// the encoder and RTP sender, the microphone capture (talk), the broadcast
// queue and thread, and the microphone volume and mute state.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <thread>

#include "audio/mic_capture.h"
#include "codec/code_types.h"
#include "net/net_socket.h"
#include "queue/queue_packet.h"
#include "rtp/rtp_sender.h"

constexpr uint32_t kVoiceSendBufSize = 1500;
constexpr uint32_t kVoiceFrameHeader = 4; // "$", channel, 16-bit length
constexpr uint32_t kVoiceChannel = 4;
constexpr uint32_t kVoiceTimestampStep = 640; // per encoded block, whatever the codec
constexpr uint32_t kVoiceAacInput = 2048;     // the AAC encoder takes 1024 samples a call

// One encode-and-packetize path: a talking port's own, or the broadcast's
// shared one.
struct VOICE_SENDER {
    uint8_t* sendBuf = nullptr; // kVoiceFrameHeader reserved bytes, then the RTP packet
    RTP_SENDER rtp{};
    CODE_HANDLE encoder{};
    uint32_t encoderOpen = 0;
    uint32_t codecType = KORVALEN_CODEC_NONE;
    uint32_t protocol = 0;
    uint8_t* pending = nullptr; // AAC: PCM waiting for a whole encoder input
    uint32_t pendingLen = 0;
    std::mutex lock; // one block at a time (capture thread and caller-fed data)
};

struct PortVoice {
    // Set by Korvalen_SetVoiceEncodeType.
    uint32_t encodeType = 0;
    uint32_t rateIndex = 0;
    uint32_t channels = 1;

    uint32_t port = 0; // for log lines
    uint32_t open = 0;
    uint32_t mode = 0;
    uint32_t protocol = 0;
    uint32_t streamKind = 0;    // 1 live network stream, 2 input stream, 0 none
    NET_SOCKET ownSock;         // UDP socket, or the caller's TCP socket
    uint32_t ownSockOpen = 0;   // ownSock was made here and is destroyed at close
    NET_SOCKET* sock = nullptr; // where packets are sent
    VOICE_SENDER sender;
    CMicCapture* capture = nullptr;

    // Broadcast.
    QUEUE_PACKET_BUFFER bcQueue;
    std::atomic<uint32_t> bcQueueOpen{0}; // read by the broadcast capture thread
    std::atomic<uint32_t> bcRunning{0};
    std::thread bcThread;
    int32_t bcSlot = -1; // entry in the broadcast port list
    uint32_t broadcaster = 0;

    uint32_t micVolume = 255; // saved for unmute
    uint32_t micMuted = 0;
};
