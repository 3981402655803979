// Pushed streams: open, push and close, the source hook, and the start and
// stop of the stream decode thread.
#include <cstring>
#include <mutex>

#include "audio/audio_port.h"
#include "codec/code_manager.h"
#include "log/log.h"
#include "platform/platform.h"
#include "heap/qmx_heap.h"
#include "port/player_api.h"
#include "port/port_table.h"
#include "player/stream_decode.h"
#include "record/record.h"

namespace {

constexpr uint32_t kFullRetries = 100;
constexpr uint32_t kFullRetrySleepMs = 10;
constexpr uint32_t kFullLogEvery = 1000;

// Stream type for the source hook: 0 MPEG-TS, 3 RTP; 524 for anything else.
uint32_t SourceHook(PortRecord* rec, const uint8_t* data, uint32_t length)
{
    auto& slot = rec->callbacks.source;
    if (!slot.fn) {
        return KORVALEN_OK;
    }
    uint32_t type;
    if (data[0] == 0x47) {
        type = 0;
    } else if ((data[0] & 0xC0) == 0x80) {
        type = 3;
    } else {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "Port [%03d] unknown stream type", rec->port);
        return KORVALEN_ERR_UNKNOWN_STREAM;
    }
    if (auto fn = slot.fn.load()) {
        fn(rec->port, data, length, type, slot.user.load(), 0);
    }
    return KORVALEN_OK;
}

} // namespace

uint32_t Stream_OpenDecodeSide(PortRecord* rec)
{
    PortStream& st = rec->stream;
    const uint32_t port = rec->port;
    st.frameBuffer = static_cast<uint8_t*>(QMX_HeapMalloc(kFrameBufferSize));
    if (!st.frameBuffer) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "Port[%03d] QMX_MALLOC[%d] failed", port, static_cast<int>(kFrameBufferSize));
        return KORVALEN_ERR_NO_MEMORY;
    }
    st.audioBuffer = static_cast<uint8_t*>(QMX_HeapMalloc(kAudioBufferSize));
    if (!st.audioBuffer) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "Port[%03d] QMX_MALLOC[%d] fail", port, static_cast<int>(kAudioBufferSize));
        Stream_CloseDecodeSide(rec);
        return KORVALEN_ERR_NO_MEMORY;
    }
    if (QUEUE_InitPacketBuffer(&rec->packetBuffer, kStreamSlotPayload, rec->packetBufferSize) != KORVALEN_OK) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "Port[%03d] QUEUE_InitPacketBuffer(0x%x) failed", port, rec->packetBufferSize);
        Stream_CloseDecodeSide(rec);
        return KORVALEN_ERR_THREAD_CREATE;
    }
    if (Stream_StartDecodeThread(rec) != KORVALEN_OK) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "Port[%03d] KTFW_SDK_thr_create Decode failed", port);
        Stream_CloseDecodeSide(rec);
        return KORVALEN_ERR_THREAD_CREATE;
    }
    return KORVALEN_OK;
}

void Stream_CloseDecodeSide(PortRecord* rec)
{
    PortStream& st = rec->stream;
    Stream_StopDecodeThread(rec);
    QUEUE_ReleasePacketBuffer(&rec->packetBuffer);
    Stream_ReleaseDecoders(rec);
    QMX_HeapFree(st.frameBuffer);
    QMX_HeapFree(st.audioBuffer);
    QMX_HeapFree(st.flvTag);
    st.frameBuffer = nullptr;
    st.audioBuffer = nullptr;
    st.flvTag = nullptr;
}

uint32_t Stream_QueuePacket(PortRecord* rec, const uint8_t* data, uint32_t length,
                            const std::atomic<uint32_t>* keepTrying, uint32_t logEvery, uint32_t maxRetries)
{
    uint32_t err = SourceHook(rec, data, length);
    if (err != KORVALEN_OK || !rec->feedDecoder) {
        return err;
    }
    err = QUEUE_AddPacketEx(data, length, &rec->stream.payloads, &rec->packetBuffer);
    for (uint32_t i = 0; err == KORVALEN_ERR_BUFFER_FULL && rec->bufferCtrl == 1 && (!maxRetries || i < maxRetries) &&
                         (!keepTrying || keepTrying->load());
         ++i) {
        PLAT_SleepMs(kFullRetrySleepMs);
        err = QUEUE_AddPacketEx(data, length, &rec->stream.payloads, &rec->packetBuffer);
    }
    if (err == KORVALEN_ERR_BUFFER_FULL && rec->packetBuffer.fullCount % logEvery == 1) {
        KORVALEN_LOG(KORVALEN_LOG_WARN, "Port[%03d] QUEUE_AddPacket failed, error(0x%x), count(%d)", rec->port, err,
                     rec->packetBuffer.fullCount);
    }
    return err;
}

uint32_t Player_OpenInputStream(uint32_t port, const uint8_t* data, uint32_t length, uint32_t)
{
    PortRecord* rec = Player_GetPort(port);
    if (!rec) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "Port not exist");
        return KORVALEN_ERR_PORT;
    }
    if (rec->stream.inputOpen || rec->sourceKind != SOURCE_NONE) {
        return KORVALEN_ERR_NOT_SUPPORTED; // one source at a time
    }
    uint32_t err = Stream_OpenDecodeSide(rec);
    if (err != KORVALEN_OK) {
        return err;
    }
    NET_StatClock(&rec->net.bitrate.startSec, &rec->net.bitrate.startMs);
    rec->stream.inputOpen = 1;
    rec->sourceKind = SOURCE_INPUT_STREAM;
    KORVALEN_LOG(KORVALEN_LOG_INFO, "Port[%03d] Player_OpenInputStream success", port);
    return data && length ? Player_InputMediaData(port, data, length) : KORVALEN_OK;
}

uint32_t Player_InputMediaData(uint32_t port, const uint8_t* data, uint32_t length)
{
    PortRecord* rec = Player_GetPort(port);
    if (!rec) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "Port[%d] not exist", static_cast<int>(port));
        return KORVALEN_ERR_PORT;
    }
    if (!rec->stream.inputOpen ||
        (rec->sourceKind != SOURCE_INPUT_STREAM && rec->sourceKind != SOURCE_VOICE && rec->sourceKind != SOURCE_HLS)) {
        return KORVALEN_ERR_INVALID_PARAM;
    }
    if (length == 0) {
        KORVALEN_LOG(KORVALEN_LOG_WARN, "Player_InputMediaData warm, data len is zero");
        return KORVALEN_OK;
    }
    if (rec->sourceKind != SOURCE_HLS) {
        NET_CalcBitRate(length, &rec->net.bitrate);
    }
    REC_QueuePacket(rec, data, length, kFullRetries);
    return Stream_QueuePacket(rec, data, length, nullptr, kFullLogEvery, kFullRetries);
}

uint32_t Player_CloseInputStream(uint32_t port)
{
    PortRecord* rec = Player_GetPort(port);
    if (!rec || !rec->stream.inputOpen) {
        return KORVALEN_OK;
    }
    Player_StopRecord(port);
    rec->sound.open = 0;
    Player_StopPlay(port, rec->playback.window);
    Stream_CloseDecodeSide(rec);
    rec->stream.inputOpen = 0;
    rec->sourceKind = SOURCE_NONE;
    KORVALEN_LOG(KORVALEN_LOG_INFO, "Port[%03d] Player_CloseInputStream success", port);
    return KORVALEN_OK;
}

uint32_t Player_SetPayloadType(uint32_t port, uint32_t count, const KORVALEN_PAYLOAD_TYPE* entries)
{
    PortRecord* rec = Player_GetPort(port);
    if (!rec) {
        return KORVALEN_ERR_PORT;
    }
    RTP_PAYLOAD_TABLE table{};
    for (uint32_t i = 0; i < count && i < 2; ++i) {
        const KORVALEN_PAYLOAD_TYPE& e = entries[i];
        uint32_t codec = KORVALEN_CODEC_NONE;
        if (e.media_kind != 0) {
            static const uint32_t audio[] = {KORVALEN_CODEC_G711U, KORVALEN_CODEC_MP2, KORVALEN_CODEC_AAC,
                                             KORVALEN_CODEC_G711A, KORVALEN_CODEC_PCM};
            codec = e.stream_kind < 5 ? audio[e.stream_kind] : KORVALEN_CODEC_NONE;
        } else {
            codec = e.stream_kind == 2
                        ? KORVALEN_CODEC_H264
                        : (e.stream_kind == 3 ? KORVALEN_CODEC_MJPEG
                                              : (e.stream_kind == 4 ? KORVALEN_CODEC_H265 : KORVALEN_CODEC_NONE));
        }
        if (codec == KORVALEN_CODEC_NONE) {
            KORVALEN_LOG(KORVALEN_LOG_WARN, "Unknow Stream Type[%ld]", static_cast<long>(e.stream_kind));
        }
        table.entries[i] = {static_cast<uint8_t>(e.payload_type & 0xFF), codec, 1};
    }
    rec->stream.payloads = table;
    return KORVALEN_OK;
}

uint32_t Player_SetAudioInfo(uint32_t port, const KORVALEN_AUDIO_INFO* info)
{
    PortRecord* rec = Player_GetPort(port);
    if (!rec) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "Get port[%d] fail", static_cast<int>(port));
        return KORVALEN_ERR_PORT;
    }
    std::memcpy(rec->stream.aacConfig, info->config, sizeof rec->stream.aacConfig);
    return KORVALEN_OK;
}
