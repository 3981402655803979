// Opening and closing voice talk and broadcast on a port, the encode type,
// and the microphone volume and mute controls.
#include <cstring>

#include "audio/voice_internal.h"
#include "codec/code_manager.h"
#include "korvalen_types.h"
#include "log/log.h"
#include "port/player_api.h"
#include "port/port.h"
#include "port/port_source.h"
#include "port/port_table.h"
#include "source/net/net_source.h"

namespace {

constexpr uint32_t kModeBroadcastFed = 0;
constexpr uint32_t kModeBroadcastMic = 1;
constexpr uint32_t kModeTalkFed = 2;
constexpr uint32_t kModeTalkMic = 3;
constexpr uint32_t kStreamNet = 1;
constexpr uint32_t kStreamInput = 2;
constexpr uint32_t kCaptureBits = 16;

std::mutex g_buildLock; // building and freeing the shared broadcast state

// The shared capture goes first and outside the broadcast lock: its thread
// takes that lock for every block.
void FreeSharedLocked(VOICE_BROADCAST& b)
{
    CMicCapture* capture = b.capture;
    b.capture = nullptr;
    Audio_DestroyCaptureDec(capture);
    std::lock_guard<std::mutex> guard(b.lock);
    Voice_FreeSender(&b.sender);
    b.packetLen = 0;
    b.built = 0;
}

uint32_t BuildSharedLocked(VOICE_BROADCAST& b, uint32_t port, uint32_t codecType, uint32_t blockSize,
                           uint32_t rateIndex, uint32_t protocol)
{
    const uint32_t hz = Audio_CaptureRateHz(rateIndex);
    uint32_t err = KORVALEN_OK;
    {
        std::lock_guard<std::mutex> guard(b.lock);
        err = Voice_InitSender(&b.sender, codecType, hz, protocol, port);
        if (err != KORVALEN_OK) {
            KORVALEN_LOG(KORVALEN_LOG_ERROR, "Port[%03d] Player_OpenVoiceSvc fail, QMX_MALLOC size(%d) fail", port,
                         kVoiceSendBufSize);
            return err;
        }
        err = Voice_CreateEncoder(&b.sender, codecType, hz);
        if (err != KORVALEN_OK) {
            KORVALEN_LOG(KORVALEN_LOG_ERROR, "Port[%03d] Player_OpenVoiceSvc fail, CODE_CreateCode fail, error(0x%x)",
                         port, err);
            Voice_FreeSender(&b.sender);
            return err;
        }
    }
    b.capture = Audio_CreateCaptureDec(blockSize, kCaptureBits, rateIndex, AUDIO_CAPTURE_PLAIN, kAudioNoOwner);
    if (!b.capture) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "Port[%03d] Player_OpenVoiceSvc fail, Audio_CreateCaptureDec fail", port);
        FreeSharedLocked(b);
        return KORVALEN_ERR_AUDIO_DEVICE;
    }
    Audio_SetCaptureCallBack(b.capture, &Player_SendBroacdcast, b.voices);
    b.built = 1;
    return KORVALEN_OK;
}

// Leaves the broadcast: list entry first (no more packets are queued), then
// the thread and the queue, then the count; the last one frees the shared
// state.
void LeaveBroadcast(PortVoice& v)
{
    VOICE_BROADCAST& b = Voice_Broadcast();
    if (v.bcSlot >= 0) {
        std::lock_guard<std::mutex> guard(b.lock);
        b.voices[v.bcSlot] = nullptr;
        v.bcSlot = -1;
    }
    v.bcRunning = 0;
    if (v.bcThread.joinable()) {
        v.bcThread.join();
    }
    if (v.bcQueueOpen) {
        QUEUE_ReleasePacketBuffer(&v.bcQueue);
        v.bcQueueOpen = 0;
    }
    if (v.broadcaster) {
        v.broadcaster = 0;
        std::lock_guard<std::mutex> build(g_buildLock);
        if (--b.count == 0 && b.built) {
            FreeSharedLocked(b);
        }
    }
}

void CloseStream(PortRecord* rec)
{
    PortVoice& v = rec->voice;
    if (v.streamKind == kStreamNet) {
        rec->sourceKind = SOURCE_NET_STREAM;
        Player_CloseNetStream(rec->port);
    } else if (v.streamKind == kStreamInput) {
        Player_CloseInputStream(rec->port);
    }
    v.streamKind = 0;
    if (v.ownSockOpen) {
        NET_DestroySocket(&v.ownSock);
        v.ownSockOpen = 0;
    }
    v.ownSock = NET_SOCKET{};
    v.sock = nullptr;
}

// Everything a voice service holds, in the reverse order of opening.
void ReleaseVoice(PortRecord* rec)
{
    PortVoice& v = rec->voice;
    if (v.capture) {
        Audio_DestroyCaptureDec(v.capture);
        v.capture = nullptr;
    }
    LeaveBroadcast(v);
    Voice_FreeSender(&v.sender);
    CloseStream(rec);
    v.open = 0;
    rec->sourceKind = SOURCE_NONE;
}

uint32_t OpenTransport(PortRecord* rec, uint32_t socket, const char* localIp, uint16_t localPort, const char* remoteIp,
                       uint16_t remotePort, uint32_t protocol)
{
    PortVoice& v = rec->voice;
    const uint32_t port = rec->port;
    if (protocol == NET_PROTO_UDP) {
        uint32_t err = NET_CreateRecvSocket(localIp, localPort, remoteIp, remotePort, NET_PROTO_UDP, &v.ownSock);
        if (err != KORVALEN_OK) {
            KORVALEN_LOG(KORVALEN_LOG_ERROR,
                         "Port[%03d] Player_OpenVoiceSvc fail, NET_CreateRecvSocket fail, error(0x%x)", port, err);
            return err;
        }
        v.ownSockOpen = 1;
        v.sock = &v.ownSock;
        return KORVALEN_OK;
    }
    if (protocol != NET_PROTO_TCP) {
        return KORVALEN_ERR_NOT_SUPPORTED;
    }
    uint32_t err = KORVALEN_OK;
    if (socket != 0) {
        // The caller's connection carries the voice; what comes back is
        // pushed in by the caller as an input stream.
        v.ownSock = NET_SOCKET{};
        v.ownSock.fd = static_cast<int>(socket);
        v.ownSock.protocol = NET_PROTO_TCP;
        v.sock = &v.ownSock;
        err = Player_OpenInputStream(port, nullptr, 0, 0);
        if (err == KORVALEN_OK) {
            v.streamKind = kStreamInput;
        }
    } else {
        err = Player_OpenNetStream(port, localIp, localPort, remoteIp, remotePort, NET_PROTO_TCP);
        if (err == KORVALEN_OK) {
            v.streamKind = kStreamNet;
            v.sock = NETSRC_Socket(Port_SourceState(rec, &kNetSourceOps));
        }
    }
    if (err != KORVALEN_OK) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR,
                     "Port[%03d] Player_OpenVoiceSvc fail, Player_OpenInputStream fail, error(0x%x)", port, err);
        v.ownSock = NET_SOCKET{};
        v.sock = nullptr;
    }
    return err;
}

// The port's own send buffer, RTP sender and encoder.
uint32_t OpenSender(PortRecord* rec, uint32_t codecType, uint32_t protocol)
{
    PortVoice& v = rec->voice;
    const uint32_t hz = Audio_CaptureRateHz(v.rateIndex);
    uint32_t err = Voice_InitSender(&v.sender, codecType, hz, protocol, rec->port);
    if (err != KORVALEN_OK) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "Port[%03d] Player_OpenVoiceSvc fail, QMX_MALLOC size(%d) fail", rec->port,
                     kVoiceSendBufSize);
        return err;
    }
    err = Voice_CreateEncoder(&v.sender, codecType, hz);
    if (err != KORVALEN_OK) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "Port[%03d] Player_OpenVoiceSvc fail, CODE_CreateCode fail, error(0x%x)",
                     rec->port, err);
    }
    return err;
}

uint32_t JoinBroadcast(PortRecord* rec, uint32_t codecType, uint32_t blockSize, uint32_t protocol, bool* leaveAsIs)
{
    PortVoice& v = rec->voice;
    VOICE_BROADCAST& b = Voice_Broadcast();
    {
        std::lock_guard<std::mutex> build(g_buildLock);
        if (!b.built) {
            uint32_t err = BuildSharedLocked(b, rec->port, codecType, blockSize, v.rateIndex, protocol);
            if (err != KORVALEN_OK) {
                return err;
            }
        }
    }
    for (uint32_t i = 0; i < kBroadcastPorts && v.bcSlot < 0; ++i) {
        PortVoice* expected = nullptr;
        if (b.voices[i].compare_exchange_strong(expected, &v)) {
            v.bcSlot = static_cast<int32_t>(i);
        }
    }
    uint32_t err = QUEUE_InitPacketBuffer(&v.bcQueue, kBroadcastSlotPayload, rec->packetBufferSize);
    if (err != KORVALEN_OK) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "Port[%03d] QUEUE_InitPacketBuffer(0x%x) failed", rec->port, err);
        *leaveAsIs = true; // stream, list entry and count stay until the close
        return KORVALEN_ERR_THREAD_CREATE;
    }
    v.bcQueueOpen = 1;
    v.bcRunning = 1;
    try {
        v.bcThread = std::thread(&Voice_BroadcastThread, &v);
    } catch (...) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "Port[%03d] KTFW_SDK_thr_create(0x%x) failed", rec->port,
                     KORVALEN_ERR_THREAD_CREATE);
        v.bcRunning = 0;
        return KORVALEN_ERR_THREAD_CREATE;
    }
    return KORVALEN_OK;
}

} // namespace

uint32_t Player_SetVoiceEncodeType(uint32_t port, uint32_t encodeType, uint32_t sampleRate, uint32_t channels)
{
    return Player_OnPortOrLog(port, [&](PortRecord& rec) {
        if (encodeType != 0 && encodeType != 2 && encodeType != 4) {
            KORVALEN_LOG(KORVALEN_LOG_ERROR, "Port[%03d] Player_SetVoiceEncodeType fail, unknown enc type(%d)", port,
                         encodeType);
            return KORVALEN_ERR_NOT_SUPPORTED;
        }
        if (sampleRate != 0 && sampleRate != 1) {
            KORVALEN_LOG(KORVALEN_LOG_ERROR, "Port[%03d] Player_SetVoiceEncodeType fail, unknown Sample Rate(%d)", port,
                         sampleRate);
            return KORVALEN_ERR_NOT_SUPPORTED;
        }
        if (channels != 1) {
            KORVALEN_LOG(KORVALEN_LOG_ERROR, "Port[%03d] Player_SetVoiceEncodeType fail, unknown Channels(%d)", port,
                         channels);
            return KORVALEN_ERR_NOT_SUPPORTED;
        }
        rec.voice.encodeType = encodeType;
        rec.voice.rateIndex = sampleRate;
        rec.voice.channels = channels;
        return KORVALEN_OK;
    });
}

uint32_t Player_OpenVoiceSvc(uint32_t port, uint32_t mode, uint32_t socket, const char* localIp, uint16_t localPort,
                             const char* remoteIp, uint16_t remotePort, uint32_t protocol)
{
    return Player_OnPortOrLog(port, [&](PortRecord& rec) {
        PortVoice& v = rec.voice;
        if (v.open || rec.sourceKind != SOURCE_NONE) {
            return KORVALEN_ERR_NOT_SUPPORTED; // one source at a time
        }
        v.port = port;
        uint32_t codecType = KORVALEN_CODEC_NONE;
        uint32_t blockSize = 0;
        if (!Voice_EncodeFormat(v.encodeType, &codecType, &blockSize)) {
            KORVALEN_LOG(KORVALEN_LOG_ERROR, "Port[%03d] Player_OpenVoiceSvc fail, AudioEncType unknow(%d), ", port,
                         v.encodeType);
            return KORVALEN_ERR_INVALID_PARAM;
        }
        if (mode > kModeTalkMic) {
            blockSize = 0;
        }
        VOICE_BROADCAST& b = Voice_Broadcast();
        if (mode == kModeBroadcastFed || mode == kModeBroadcastMic) {
            if (++b.count > static_cast<int32_t>(kBroadcastPorts)) {
                KORVALEN_LOG(KORVALEN_LOG_ERROR, "Port[%03d] Player_OpenVoiceSvc fail, Broadcast Port not enough",
                             port);
                --b.count;
                return KORVALEN_ERR_PORT_NOT_ENOUGH;
            }
            v.broadcaster = 1;
        }
        uint32_t err = OpenTransport(&rec, socket, localIp, localPort, remoteIp, remotePort, protocol);
        bool leaveAsIs = false;
        if (err == KORVALEN_OK && (mode == kModeBroadcastFed || mode == kModeTalkFed || mode == kModeTalkMic)) {
            err = OpenSender(&rec, codecType, protocol);
        }
        if (err == KORVALEN_OK && mode == kModeTalkMic) {
            v.capture = Audio_CreateCaptureDec(blockSize, kCaptureBits, v.rateIndex, AUDIO_CAPTURE_AEC, port);
            if (!v.capture) {
                KORVALEN_LOG(KORVALEN_LOG_ERROR, "Port[%03d] Player_OpenVoiceSvc fail, Audio_CreateCaptureDec fail",
                             port);
                err = KORVALEN_ERR_AUDIO_DEVICE;
            } else {
                err = Audio_SetCaptureCallBack(v.capture, &Player_SendVoice, &v);
                if (err != KORVALEN_OK) {
                    KORVALEN_LOG(KORVALEN_LOG_ERROR,
                                 "Port[%03d] Player_OpenVoiceSvc fail, Audio_SetCaptureCallBack fail, error(0x%x)",
                                 port, err);
                }
            }
        }
        if (err == KORVALEN_OK && mode == kModeBroadcastMic) {
            err = JoinBroadcast(&rec, codecType, blockSize, protocol, &leaveAsIs);
        }
        if (err != KORVALEN_OK && !leaveAsIs) {
            ReleaseVoice(&rec);
            return err;
        }
        v.open = 1;
        v.mode = mode;
        v.protocol = protocol;
        rec.sourceKind = SOURCE_VOICE;
        return err;
    });
}

uint32_t Player_CloseVoiceSvc(uint32_t port)
{
    return Player_OnPortOrLog(port, [&](PortRecord& rec) {
        if (rec.voice.open) {
            ReleaseVoice(&rec);
        }
        return KORVALEN_OK;
    });
}

uint32_t Player_SetMicVolume(uint32_t port, uint32_t volume)
{
    return Player_OnPortOrLog(port, [&](PortRecord& rec) {
        PortVoice& v = rec.voice;
        v.micVolume = volume;
        VOICE_BROADCAST& b = Voice_Broadcast();
        std::lock_guard<std::mutex> build(g_buildLock); // the shared capture stays while it is used
        CMicCapture* capture = (v.bcRunning == 1 && !v.capture && b.capture) ? b.capture : v.capture;
        return Audio_SetMicVolume(capture, volume);
    });
}

uint32_t Player_GetMicVolume(uint32_t port, uint32_t* volume)
{
    return Player_OnPortOrLog(port, [&](PortRecord&) { return Audio_GetMicVolume(volume); });
}

uint32_t Player_SetMicQuietStatus(uint32_t port, uint32_t quiet)
{
    return Player_OnPortOrLog(port, [&](PortRecord& rec) {
        PortVoice& v = rec.voice;
        VOICE_BROADCAST& b = Voice_Broadcast();
        std::lock_guard<std::mutex> build(g_buildLock);
        CMicCapture* capture = (v.bcRunning == 1 && !v.capture && b.capture) ? b.capture : v.capture;
        uint32_t err = KORVALEN_OK;
        if (quiet) {
            uint32_t current = 0;
            err = Audio_GetMicVolume(&current);
            if (err != KORVALEN_OK) {
                KORVALEN_LOG(KORVALEN_LOG_ERROR,
                             "Port[%03d] Player_SetMicQuietStatus fail, Audio_GetMicVolume fail, error(0x%x)", port,
                             err);
            } else {
                v.micVolume = current;
            }
            err = Audio_SetMicVolume(capture, 0);
        } else {
            err = Audio_SetMicVolume(capture, v.micVolume);
        }
        if (err != KORVALEN_OK) {
            KORVALEN_LOG(KORVALEN_LOG_ERROR,
                         "Port[%03d] Player_SetMicQuietStatus fail, Audio_SetMicVolume fail, error(0x%x)", port, err);
            return err;
        }
        v.micMuted = quiet;
        return KORVALEN_OK;
    });
}

uint32_t Player_GetMicQuietStatus(uint32_t port, uint32_t* quiet)
{
    return Player_OnPortOrLog(port, [&](PortRecord& rec) {
        *quiet = rec.voice.micMuted;
        return KORVALEN_OK;
    });
}

uint32_t Player_VoiceInputData(uint32_t port, const uint8_t* data, uint32_t length)
{
    PortRecord* rec = Player_GetPort(port);
    if (!rec) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "Get port[%03d] fail", port);
        return KORVALEN_ERR_PORT;
    }
    if (!data || length == 0) {
        return KORVALEN_ERR_INVALID_PARAM;
    }
    if (!rec->voice.open) {
        return KORVALEN_ERR_NOT_SUPPORTED;
    }
    return Voice_SendFed(rec->voice, data, length);
}
