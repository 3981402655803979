// The stream decode thread: takes packets from the port's packet buffer,
// parses them into frames, decodes, and hands pictures to the render side
// and sound to the sound player, with the data callbacks at each stage.
#include "pipeline/stream_decode.h"
#include "media/codec_facts.h"

#include <mutex>

#include "audio/audio_port.h"
#include "codec/code_manager.h"
#include "display/video_display.h"
#include "heap/qmx_heap.h"
#include "log/log.h"
#include "pipeline/pipeline.h"
#include "pipeline/player_gpu.h"
#include "pipeline/player_pacing.h"
#include "platform/platform.h"
#include "record/record.h"

namespace {

constexpr uint32_t kIdleWaitMs = 250;        // new data, a stop or a drain request end the wait at once
constexpr uint32_t kMaxDrainedPictures = 32; // more than any decoder holds back

// Audio format pair handed with parsed audio frames.
void AudioFormat(uint32_t codec, uint32_t out[2])
{
    switch (codec) {
    case KORVALEN_CODEC_MP2:
        out[0] = 1;
        out[1] = 6;
        break;
    case KORVALEN_CODEC_AAC:
        out[0] = 2;
        out[1] = 6;
        break;
    case KORVALEN_CODEC_G711A:
        out[0] = 3;
        out[1] = 0;
        break;
    case KORVALEN_CODEC_PCM:
        out[0] = 4;
        out[1] = 3;
        break;
    default:
        out[0] = 0;
        out[1] = 0;
        break;
    }
}

uint32_t RateCode(uint32_t rate)
{
    switch (rate) {
    case 8000:
        return 0;
    case 16000:
        return 1;
    case 44100:
        return 2;
    case 11025:
        return 3;
    default:
        return 6;
    }
}

void WaitForDecodeTime(Pipeline* rec)
{
    PortPlayback& pb = rec->playback;
    uint32_t now = PLAT_TickMs();
    auto elapsed = static_cast<int32_t>(now - pb.lastDecodeStamp);
    if (elapsed < 0) {
        KORVALEN_LOG(KORVALEN_LOG_WARN, "Port [%03d] Player_WaitForDecodeTime Warming, Used time(%d) < 0", rec->port,
                     elapsed);
    }
    bool keepingUp = pb.rendering && pb.renderMode == 0 && rec->callbacks.decodeVideo.option == 1 &&
                     QUEUE_PictureCount(&pb.offscreen) <= 1;
    int32_t wait = Player_DecodeWaitMs(pb.fluency, rec->frameInterval, elapsed, rec->packetBuffer.frameCount.load(),
                                       pb.pictureBuffers, rec->stream.frameRate, keepingUp);
    if (wait > 0) {
        PLAT_SleepMs(static_cast<uint32_t>(wait));
    }
    pb.lastDecodeStamp = PLAT_TickMs();
}

bool OnGpu(const CODE_HANDLE& h)
{
    return h.h264Gpu == 1 || h.h265Gpu == 1;
}

void FreeDecoder(CODE_HANDLE* h, uint32_t* open)
{
    if (*open && OnGpu(*h)) {
        Player_GpuSessionClosed();
    }
    if (*open) {
        CODE_FreeCode(h);
    }
    *open = 0;
}

// Makes (or re-makes, on a codec change) the decoder for the frame's codec.
uint32_t FindDecode(Pipeline* rec, bool video)
{
    PortStream& st = rec->stream;
    Player_StatisticsTimestamp(rec);
    CODE_HANDLE& h = video ? st.video : st.audio;
    uint32_t& open = video ? st.videoOpen : st.audioOpen;
    if (open && h.codecType == static_cast<int32_t>(st.frame.codecType)) {
        return KORVALEN_OK;
    }
    FreeDecoder(&h, &open);
    CODE_PARAM param{};
    param.data = st.frame.data;
    param.length = st.frame.length;
    param.lowDelay = rec->playback.fluency == FLUENCY_LOW_DELAY || rec->playback.oneFrameDecode;
    param.window = rec->playback.window;
    h = CODE_HANDLE{};
    if (video && Player_WantGpu(rec, st.frame.codecType)) {
        (st.frame.codecType == KORVALEN_CODEC_H265 ? h.h265Gpu : h.h264Gpu) = 1;
        if (CODE_CreateCode(CODE_DIR_DECODER, st.frame.codecType, &param, &h) == KORVALEN_OK) {
            Player_GpuSessionOpened();
            open = 1;
            return KORVALEN_OK;
        }
        h = CODE_HANDLE{}; // no GPU decoder for this stream: software it is
    }
    uint32_t err = CODE_CreateCode(CODE_DIR_DECODER, st.frame.codecType, &param, &h);
    if (err == KORVALEN_OK) {
        open = 1;
    }
    return err;
}

// An H.265 key frame the GPU could not decode: this port goes to software
// decoding for good, and the frame is decoded again there.
uint32_t RetryOnSoftware(Pipeline* rec, const CODE_INPUT* in)
{
    PortStream& st = rec->stream;
    st.gpuFallback = 1;
    FreeDecoder(&st.video, &st.videoOpen);
    uint32_t err = FindDecode(rec, true);
    if (err != KORVALEN_OK) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "Port[%03d] H265 GPU Player_FindDecode failed, error(0x%x)", rec->port, err);
        return err;
    }
    err = CODE_Decoder(&st.video, in, &st.videoOut);
    if (err != KORVALEN_OK && err != KORVALEN_ERR_DECODE_NO_OUTPUT) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "Port[%03d] H265 GPU Player_Decoder failed, error(0x%x)", rec->port, err);
    }
    return err;
}

void TakeVideoPicture(Pipeline* rec);

void DecodeVideo(Pipeline* rec)
{
    PortStream& st = rec->stream;
    uint32_t err = FindDecode(rec, true);
    if (err != KORVALEN_OK) {
        if (err != KORVALEN_ERR_NOT_SUPPORTED) {
            st.waitKeyFrame = 1;
            KORVALEN_LOG(KORVALEN_LOG_ERROR, "Port[%03d] Player_FindDecode failed, error(0x%x)", rec->port, err);
        }
        return;
    }
    rec->playback.videoCodec = st.frame.codecType;
    CODE_INPUT in{};
    in.data = st.frame.data;
    in.length = st.frame.length;
    in.deinterlace = rec->video.deinterlaceMode == 1;
    err = CODE_Decoder(&st.video, &in, &st.videoOut);
    if (err != KORVALEN_OK && err != KORVALEN_ERR_DECODE_NO_OUTPUT && OnGpu(st.video) &&
        st.frame.codecType == KORVALEN_CODEC_H265 && st.frame.frameType == 0) {
        err = RetryOnSoftware(rec, &in);
    }
    IVA_FrameDecoded(rec->iva, st.video);
    if (err == KORVALEN_ERR_DECODE_NO_OUTPUT) {
        return;
    }
    if (err != KORVALEN_OK) {
        ++st.decodeFailures;
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "Port[%03d] Player_Decoder failed, error(0x%x), num[%d]", rec->port, err,
                     st.decodeFailures);
        return;
    }
    TakeVideoPicture(rec);
}

void TakeVideoPicture(Pipeline* rec)
{
    PortStream& st = rec->stream;
    ++st.decodedFrames;
    // A GPU picture is copied out as I420 for the queues and callbacks.
    CODE_OUTPUT gpuOut;
    if (OnGpu(st.video) && CODE_GetYuvData(&st.video, &gpuOut) != KORVALEN_OK) {
        return;
    }
    struct GpuCopy {
        CODE_OUTPUT& o;
        ~GpuCopy() { QMX_HeapFree(o.planes[0]); }
    } freeCopy{gpuOut};
    CODE_OUTPUT& out = OnGpu(st.video) ? gpuOut : st.videoOut;
    Snap_OnPicture(&rec->recorder, &out);
    rec->playback.pictureWidth = out.width;
    rec->playback.pictureHeight = out.height;
    {
        std::lock_guard<std::recursive_mutex> lock(rec->dataLock);
        if (rec->playback.rendering && rec->playback.offscreen.nodes) {
            QUEUE_PICTURE pic;
            IVA_AttachOverlay(rec->iva, st.video, pic.attached);
            for (int i = 0; i < 3; ++i) {
                pic.planes[i] = out.planes[i];
                pic.lineSizes[i] = out.pitches[i];
            }
            pic.width = out.width;
            pic.height = out.height;
            pic.presentation = st.frame.timestamp;
            Video_WriteOffScreen(&rec->playback.offscreen, &pic);
        }
    }
    auto& cb = rec->callbacks.decodeVideo;
    if (cb.fn) {
        KORVALEN_DECODED_VIDEO v{};
        for (int i = 0; i < 3; ++i) {
            v.planes[i] = out.planes[i];
            v.line_sizes[i] = out.pitches[i];
        }
        v.width = out.width;
        v.height = out.height;
        v.frame_rate = st.frameRate;
        v.time_value = st.frame.timestamp;
        if (auto fn = cb.fn.load()) {
            fn(rec->port, &v, cb.user.load(), 0, 0);
        }
    }
}

void DecodeAudio(Pipeline* rec)
{
    PortStream& st = rec->stream;
    uint32_t err = FindDecode(rec, false);
    if (err != KORVALEN_OK) {
        return;
    }
    CODE_INPUT in{};
    in.data = st.frame.data;
    in.length = st.frame.length;
    err = CODE_Decoder(&st.audio, &in, &st.audioOut);
    if (err != KORVALEN_OK) {
        if (err != KORVALEN_ERR_DECODE_NO_OUTPUT) {
            KORVALEN_LOG(KORVALEN_LOG_ERROR, "Port[%03d] Player_Decoder failed, error(0x%x), num[%d]", rec->port, err,
                         ++st.decodeFailures);
        }
        Audio_PlayPortFrame(rec->sound, rec->port, rec->dataLock, nullptr);
        return;
    }
    CODE_OUTPUT& out = st.audioOut;
    AUDIO_PCM_FRAME pcm{out.data, out.length, out.sampleRate, out.channels, out.sampleSize};
    Audio_PlayPortFrame(rec->sound, rec->port, rec->dataLock, &pcm);
    KORVALEN_DECODED_AUDIO a{};
    a.data = out.data;
    a.length = out.length;
    a.sample_rate_code = RateCode(out.sampleRate);
    if (rec->callbacks.decodeAudio.fn) {
        if (auto fn = rec->callbacks.decodeAudio.fn.load()) {
            fn(rec->port, &a, rec->callbacks.decodeAudio.user.load(), 0);
        }
    }
    if (rec->callbacks.parseVoice.fn) {
        if (auto fn = rec->callbacks.parseVoice.fn.load()) {
            fn(rec->port, &a, rec->callbacks.parseVoice.user.load(), 0);
        }
    }
}

void HandleFrame(Pipeline* rec, bool* producedVideo)
{
    PortStream& st = rec->stream;
    const StreamFrame& f = st.frame;
    if (Codec_IsVideo(f.codecType)) {
        if (st.waitKeyFrame && (f.codecType == KORVALEN_CODEC_H264 || f.codecType == KORVALEN_CODEC_H265)) {
            if (f.frameType != 0) {
                return;
            }
            st.waitKeyFrame = 0;
        }
        *producedVideo = true;
        if (f.codecType != KORVALEN_CODEC_MJPEG) {
            if (IVA_ParseFrame(rec->iva, f.data, f.length, f.codecType)) {
                // The lens the camera reports makes the stream a fisheye one.
                const uint16_t* p = rec->iva.sei.fisheyeParams;
                Fisheye_SetStreamParams(&rec->fisheye, p[0], p[1], p[2]);
            }
        }
        auto& cb = rec->callbacks.parseVideo;
        if (cb.fn) {
            KORVALEN_PARSED_FRAME p{f.data, f.length, f.codecType, f.frameType, {0, 0}, f.timestamp};
            if (auto fn = cb.fn.load()) {
                fn(rec->port, &p, cb.user.load(), 0);
            }
        }
        if (rec->playback.videoDecode || rec->callbacks.decodeVideo.fn || rec->recorder.snap.pending) {
            DecodeVideo(rec);
        }
        Audio_PlayPortFrame(rec->sound, rec->port, rec->dataLock, nullptr);
    } else if (Codec_IsAudio(f.codecType)) {
        rec->playback.audioCodec = f.codecType;
        auto& cb = rec->callbacks.parseAudio;
        if (cb.fn) {
            KORVALEN_PARSED_FRAME p{f.data, f.length, f.codecType, f.frameType, {0, 0}, f.timestamp};
            AudioFormat(f.codecType, p.audio_format);
            if (auto fn = cb.fn.load()) {
                fn(rec->port, &p, cb.user.load(), 0);
            }
        }
        if (!Audio_ChannelKeepsFrame(rec->sound.channel, f.frameType)) {
            return;
        }
        if (st.soundDecode) {
            DecodeAudio(rec);
        }
    }
}

void DecodeThread(Pipeline* rec)
{
    PLAT_SetThreadName("Decode");
    KORVALEN_LOG(KORVALEN_LOG_INFO, "Port [%03d] Start __DecodeThreadEntry thread succeed", rec->port);
    KORVALEN_LOG(KORVALEN_LOG_INFO, "Port [%03d] Start decode...", rec->port);
    PortStream& st = rec->stream;
    bool producedVideo = false;
    rec->playback.lastDecodeStamp = PLAT_TickMs();
    while (st.decodeRunning) {
        if (producedVideo) {
            WaitForDecodeTime(rec);
        }
        producedVideo = false;
        uint8_t* data = nullptr;
        uint32_t length = 0;
        if (QUEUE_GetPacketEx(&rec->packetBuffer, &data, &length, &st.payloads) != KORVALEN_OK) {
            if (st.drainRequest.exchange(0)) {
                Stream_DrainVideo(rec); // everything the source gave is decoded
            } else {
                QUEUE_WaitPacket(&rec->packetBuffer, kIdleWaitMs);
            }
            continue;
        }
        NET_CountRecvPacket(&rec->stream.loss);
        // A chunk may hold more than one frame (MPEG-TS): parse until it is
        // used up.
        do {
            uint32_t err = Player_ParseStream(data, length, rec);
            if (err == KORVALEN_OK) {
                HandleFrame(rec, &producedVideo);
            } else if (err != KORVALEN_ERR_UNKNOWN_STREAM && err != KORVALEN_ERR_NEED_MORE_DATA) {
                NET_CountLostPacket(&rec->stream.loss);
                ++st.lostPackets;
                st.waitKeyFrame = 1;
            }
        } while (((st.parseMode == PARSE_TS && st.ts.resume) || (st.parseMode == PARSE_FLV && st.flv.resume)) &&
                 st.decodeRunning);
    }
    Audio_ReleasePortSound(rec->sound, rec->dataLock);
}

} // namespace

void Stream_DrainVideo(Pipeline* rec)
{
    PortStream& st = rec->stream;
    for (uint32_t i = 0; st.videoOpen && i < kMaxDrainedPictures; ++i) {
        CODE_INPUT in{};
        in.flags = CODE_FLAG_DRAIN;
        if (CODE_Decoder(&st.video, &in, &st.videoOut) != KORVALEN_OK) {
            break;
        }
        TakeVideoPicture(rec);
    }
}

void Stream_HandleFrame(Pipeline* rec)
{
    bool producedVideo = false;
    HandleFrame(rec, &producedVideo);
}

uint32_t Stream_StartDecodeThread(Pipeline* rec)
{
    PortStream& st = rec->stream;
    st.decodeRunning = 1;
    try {
        st.decodeThread = std::thread(DecodeThread, rec);
    } catch (...) {
        st.decodeRunning = 0;
        return KORVALEN_ERR_THREAD_CREATE;
    }
    return KORVALEN_OK;
}

void Stream_StopDecodeThread(Pipeline* rec)
{
    PortStream& st = rec->stream;
    st.decodeRunning = 0;
    QUEUE_WakePacketReader(&rec->packetBuffer);
    if (st.decodeThread.joinable()) {
        st.decodeThread.join();
    }
}

void Stream_ReleaseDecoders(Pipeline* rec)
{
    PortStream& st = rec->stream;
    FreeDecoder(&st.video, &st.videoOpen);
    FreeDecoder(&st.audio, &st.audioOpen);
    st.gpuFallback = 0;
    st.drainRequest = 0;
    st.parseMode = PARSE_NONE;
    st.headerPending = 0;
    st.hasPrevTimestamp = 0;
    st.rateFromStream = 0;
    st.frameRate = 25;
    st.width = st.height = st.resolutionChanged = 0;
    st.waitKeyFrame = 0;
    st.frame = StreamFrame{};
}
