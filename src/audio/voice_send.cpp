// Encoding and sending voice: one PCM block is encoded, cut into RTP
// packets of at most 1400 payload bytes, each framed as "$", channel 4 and
// its 16-bit length, and sent on the port's connection (talk) or queued to
// every broadcasting port (broadcast).
#include <algorithm>
#include <chrono>
#include <cstring>
#include <thread>

#include "audio/voice_internal.h"
#include "codec/code_manager.h"
#include "heap/qmx_heap.h"
#include "korvalen_types.h"
#include "log/log.h"
#include "media/rtp_bytes.h"
#include "rtp/rtp.h"

namespace {

constexpr uint32_t kRtpRoom = kVoiceSendBufSize - kVoiceFrameHeader; // 1496
constexpr uint32_t kSendFailLogEvery = 100;
constexpr uint32_t kBroadcastIdleMs = 2;

std::atomic<uint32_t> g_sendFailures{0};

// Where each finished packet goes: sendBuf holds the frame header and the
// packet, length = RTP length + 4.
template <class Fail, class Sink>
uint32_t SendEncoded(VOICE_SENDER* s, const uint8_t* data, uint32_t length, uint32_t rtpCodec, Fail&& fail, Sink&& sink)
{
    s->rtp.codecType = rtpCodec;
    s->rtp.timestamp += kVoiceTimestampStep;
    s->rtp.data = data;
    s->rtp.dataLen = length;
    s->rtp.sent = 0;
    for (;;) {
        uint32_t packetLen = kRtpRoom;
        uint32_t r = RTP_MakeRtpData(&s->rtp, s->sendBuf + kVoiceFrameHeader, &packetLen);
        if (r != KORVALEN_OK && r != RTP_MORE_TO_SEND) {
            fail(r);
            return r;
        }
        if (s->protocol == NET_PROTO_TCP) {
            s->sendBuf[0] = '$';
            s->sendBuf[1] = kVoiceChannel;
            RTP_PutBe16(s->sendBuf + 2, packetLen);
            sink(packetLen);
        }
        // Over UDP the packets are built and not sent.
        if (r == KORVALEN_OK) {
            return KORVALEN_OK;
        }
    }
}

// Encodes one block and sends what the encoder gives. The AAC encoder takes
// whole 1024-sample inputs, so its PCM is gathered first.
template <class Fail, class Sink>
uint32_t EncodeAndSend(VOICE_SENDER* s, const uint8_t* pcm, uint32_t length, uint32_t rtpCodec, Fail&& fail,
                       Sink&& sink)
{
    auto encodeOne = [&](const uint8_t* in, uint32_t inLen) -> uint32_t {
        CODE_INPUT input{};
        input.data = in;
        input.length = inLen;
        CODE_OUTPUT output;
        uint32_t err = CODE_Encoder(&s->encoder, &input, &output);
        if (err != KORVALEN_OK) {
            fail(err);
            return err;
        }
        if (output.length == 0) {
            return KORVALEN_OK; // the encoder is still filling its look-ahead
        }
        return SendEncoded(s, output.data, output.length, rtpCodec, fail, sink);
    };
    if (s->codecType != KORVALEN_CODEC_AAC) {
        return encodeOne(pcm, length);
    }
    uint32_t err = KORVALEN_OK;
    while (length > 0 && err == KORVALEN_OK) {
        uint32_t take = std::min(length, kVoiceAacInput - s->pendingLen);
        std::memcpy(s->pending + s->pendingLen, pcm, take);
        s->pendingLen += take;
        pcm += take;
        length -= take;
        if (s->pendingLen == kVoiceAacInput) {
            s->pendingLen = 0;
            err = encodeOne(s->pending, kVoiceAacInput);
        }
    }
    return err;
}

void SendOnSocket(NET_SOCKET* sock, const uint8_t* data, uint32_t length, uint32_t port)
{
    uint32_t err = sock ? NET_Send(sock, data, length) : KORVALEN_ERR_SEND;
    if (err != KORVALEN_OK && g_sendFailures++ % kSendFailLogEvery == 0) {
        KORVALEN_LOG(KORVALEN_LOG_WARN, "Port[%03d] Player_SendVoice fail, NET_Send fail, error(%d)", port, err);
    }
}

uint32_t SendTalk(PortVoice& v, const uint8_t* pcm, uint32_t length, bool fixedPcm)
{
    VOICE_SENDER* s = &v.sender;
    std::lock_guard<std::mutex> guard(s->lock);
    if (!s->sendBuf) {
        return KORVALEN_ERR_NOT_SUPPORTED;
    }
    // Caller-fed voice always goes out as codec 7, whatever was encoded.
    uint32_t rtpCodec = fixedPcm ? KORVALEN_CODEC_PCM : s->codecType;
    auto fail = [&](uint32_t err) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "Port [%03d] Player_SendVoice fail, Codec_Encode AAC fail, error(%d)", v.port,
                     err);
    };
    return EncodeAndSend(s, pcm, length, rtpCodec, fail, [&](uint32_t packetLen) {
        SendOnSocket(v.sock, s->sendBuf, packetLen + kVoiceFrameHeader, v.port);
    });
}

} // namespace

VOICE_BROADCAST& Voice_Broadcast()
{
    static VOICE_BROADCAST shared;
    return shared;
}

bool Voice_EncodeFormat(uint32_t encodeType, uint32_t* codecType, uint32_t* blockSize)
{
    switch (encodeType) {
    case 0:
        *codecType = KORVALEN_CODEC_G711U;
        *blockSize = 640;
        return true;
    case 2:
        *codecType = KORVALEN_CODEC_AAC;
        *blockSize = 1280;
        return true;
    case 4:
        *codecType = KORVALEN_CODEC_PCM;
        *blockSize = 882;
        return true;
    default:
        return false;
    }
}

uint32_t Voice_CreateEncoder(VOICE_SENDER* s, uint32_t codecType, uint32_t sampleRate)
{
    CODE_PARAM param{};
    param.sampleRate = sampleRate;
    param.channels = 1;
    uint32_t err = CODE_CreateCode(CODE_DIR_ENCODER, codecType, &param, &s->encoder);
    if (err == KORVALEN_OK) {
        s->encoderOpen = 1;
        s->codecType = codecType;
    }
    return err;
}

uint32_t Voice_InitSender(VOICE_SENDER* s, uint32_t codecType, uint32_t, uint32_t protocol, uint32_t)
{
    s->sendBuf = static_cast<uint8_t*>(QMX_HeapMalloc(kVoiceSendBufSize));
    if (codecType == KORVALEN_CODEC_AAC) {
        s->pending = static_cast<uint8_t*>(QMX_HeapMalloc(kVoiceAacInput));
    }
    if (!s->sendBuf || (codecType == KORVALEN_CODEC_AAC && !s->pending)) {
        Voice_FreeSender(s);
        return KORVALEN_ERR_NO_MEMORY;
    }
    s->pendingLen = 0;
    s->protocol = protocol;
    RTP_InitSender(&s->rtp);
    return KORVALEN_OK;
}

void Voice_FreeSender(VOICE_SENDER* s)
{
    std::lock_guard<std::mutex> guard(s->lock);
    if (s->encoderOpen) {
        CODE_FreeCode(&s->encoder);
        s->encoderOpen = 0;
    }
    QMX_HeapFree(s->sendBuf);
    QMX_HeapFree(s->pending);
    s->sendBuf = nullptr;
    s->pending = nullptr;
    s->pendingLen = 0;
    s->codecType = KORVALEN_CODEC_NONE;
    RTP_ClearSender(&s->rtp);
}

void Player_SendVoice(const uint8_t* pcm, uint32_t length, void* context)
{
    SendTalk(*static_cast<PortVoice*>(context), pcm, length, false);
}

void Player_SendBroacdcast(const uint8_t* pcm, uint32_t length, void* list)
{
    VOICE_BROADCAST& b = Voice_Broadcast();
    auto* voices = static_cast<std::atomic<PortVoice*>*>(list);
    std::lock_guard<std::mutex> guard(b.lock);
    VOICE_SENDER* s = &b.sender;
    if (!s->sendBuf) {
        return;
    }
    auto fail = [](uint32_t err) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "Player_SendBroacdcast fail, Codec_Encode AAC fail, error(%d)", err);
    };
    EncodeAndSend(s, pcm, length, s->codecType, fail, [&](uint32_t packetLen) {
        b.packetLen = packetLen;
        for (uint32_t i = 0; i < kBroadcastPorts; ++i) {
            PortVoice* v = voices[i].load();
            if (!v || !v->bcQueueOpen) {
                continue;
            }
            uint32_t err = QUEUE_AddPacketEx(s->sendBuf, packetLen + kVoiceFrameHeader, nullptr, &v->bcQueue);
            if (err != KORVALEN_OK) {
                KORVALEN_LOG(KORVALEN_LOG_WARN,
                             "Player_SendBroacdcast fail, QUEUE_AddPacketEx fail, port : %d, error(%d)", v->port, err);
            }
        }
    });
}

void Voice_BroadcastThread(PortVoice* voice)
{
    PortVoice& v = *voice;
    KORVALEN_LOG(KORVALEN_LOG_INFO, "Port [%03d] Start __BroadcastThreadEntry thread succeed", v.port);
    VOICE_BROADCAST& b = Voice_Broadcast();
    uint8_t packet[kVoiceSendBufSize];
    while (v.bcRunning == 1) {
        uint8_t* taken = nullptr;
        uint32_t takenLen = 0;
        if (QUEUE_GetPacket(&v.bcQueue, &taken, &takenLen) != KORVALEN_OK) {
            std::this_thread::sleep_for(std::chrono::milliseconds(kBroadcastIdleMs));
            continue;
        }
        // The queued copy paces the sending; what goes out is the shared
        // send buffer as it stands (the same packet unless a newer one
        // replaced it meanwhile).
        uint32_t len = 0;
        {
            std::lock_guard<std::mutex> guard(b.lock);
            if (b.sender.sendBuf && b.packetLen) {
                len = b.packetLen + kVoiceFrameHeader;
                std::memcpy(packet, b.sender.sendBuf, len);
            }
        }
        if (len) {
            SendOnSocket(v.sock, packet, len, v.port);
        }
    }
    KORVALEN_LOG(KORVALEN_LOG_INFO, "__BroadcastThreadEntry quite");
}

uint32_t Voice_SendFed(PortVoice& v, const uint8_t* pcm, uint32_t length)
{
    return SendTalk(v, pcm, length, true);
}
