// The pipeline's intake: the source hook, the packet buffer, the start and
// stop of the stream decode thread, and the sink every source delivers to.
#include <cstring>
#include <mutex>

#include "audio/audio_port.h"
#include "audio/dsound_play.h"
#include "codec/code_manager.h"
#include "demux/demux.h"
#include "heap/qmx_heap.h"
#include "log/log.h"
#include "pipeline/pipeline.h"
#include "pipeline/stream_decode.h"
#include "platform/platform.h"
#include "record/record.h"

namespace {

constexpr uint32_t kFullRetrySleepMs = 10;

// Stream type for the source hook: 0 MPEG-TS, 3 RTP; 524 for anything else.
uint32_t SourceHook(Pipeline* rec, const uint8_t* data, uint32_t length)
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

uint32_t Stream_OpenDecodeSide(Pipeline* rec)
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

void Stream_CloseDecodeSide(Pipeline* rec)
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

uint32_t Stream_QueuePacket(Pipeline* rec, const uint8_t* data, uint32_t length,
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

namespace {

uint32_t SinkPacket(void* ctx, const uint8_t* data, uint32_t length, const std::atomic<uint32_t>* keepTrying,
                    uint32_t logEvery, uint32_t maxRetries)
{
    auto* rec = static_cast<Pipeline*>(ctx);
    REC_QueuePacket(&rec->recorder, data, length, rec->bufferCtrl, maxRetries);
    return Stream_QueuePacket(rec, data, length, keepTrying, logEvery, maxRetries);
}

void SinkDrain(void* ctx)
{
    auto* rec = static_cast<Pipeline*>(ctx);
    if (!rec->stream.decodeRunning) {
        Stream_DrainVideo(rec); // the source decodes on its own thread
        return;
    }
    rec->stream.drainRequest = 1;
    QUEUE_WakePacketReader(&rec->packetBuffer);
}

void SinkFrame(void* ctx, const FileFrameInfo* f, uint32_t flags)
{
    auto* rec = static_cast<Pipeline*>(ctx);
    PortStream& st = rec->stream;
    if (flags & SOURCE_FRAME_QUIET) {
        // Decoded but not shown: the frames between a key frame and the one
        // stepped back to.
        if (st.videoOpen && st.video.codecType == static_cast<int32_t>(f->payloadType)) {
            CODE_INPUT in{};
            in.data = f->data;
            in.length = f->length;
            CODE_Decoder(&st.video, &in, &st.videoOut);
        }
        return;
    }
    st.frame = StreamFrame{f->data, f->length, f->timeStamp, f->payloadType, f->frameType};
    Stream_HandleFrame(rec);
}

void SinkFrameRate(void* ctx, uint32_t rate)
{
    auto* rec = static_cast<Pipeline*>(ctx);
    rec->stream.frameRate = rate;
    rec->stream.rateFromStream = 1; // the source measures the rate; the decode side keeps it
    rec->playback.frameRate = rate;
    rec->playback.fileFrameRate = rate;
    rec->frameInterval = 1000 / rate;
}

int32_t SinkSoundLevel(void* ctx)
{
    auto* rec = static_cast<Pipeline*>(ctx);
    std::lock_guard<std::recursive_mutex> lock(rec->dataLock);
    const CDsoundPlay* play = rec->sound.play;
    if (!play || !rec->sound.open) {
        return -1;
    }
    const uint32_t w = play->RingWriteIndex();
    const uint32_t r = play->RingReadIndex();
    return static_cast<int32_t>(w >= r ? w - r : play->RingSlots() - r + w);
}

uint32_t SinkQueue(void* ctx, const uint8_t* data, uint32_t length)
{
    auto* rec = static_cast<Pipeline*>(ctx);
    return QUEUE_AddPacketEx(data, length, &rec->stream.payloads, &rec->packetBuffer);
}

void SinkPlay(void* ctx, uint32_t on)
{
    static_cast<Pipeline*>(ctx)->playback.running = on;
}

uint32_t SinkRestart(void* ctx)
{
    auto* rec = static_cast<Pipeline*>(ctx);
    Stream_CloseDecodeSide(rec);
    return Stream_OpenDecodeSide(rec);
}

} // namespace

void Stream_MakeSink(Pipeline* rec, SOURCE_SINK* sink)
{
    *sink = SOURCE_SINK{};
    sink->ctx = rec;
    sink->port = rec->port;
    sink->payloads = &rec->stream.payloads;
    sink->feed = &rec->feedDecoder;
    sink->playing = &rec->playback.running;
    sink->speed = &rec->speedFactor;
    sink->packet = SinkPacket;
    sink->drain = SinkDrain;
    sink->restart = SinkRestart;
    sink->queue = SinkQueue;
    sink->play = SinkPlay;
    sink->frame = SinkFrame;
    sink->frameRate = SinkFrameRate;
    sink->soundLevel = SinkSoundLevel;
}
