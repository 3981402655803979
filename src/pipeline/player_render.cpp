// The render thread that paces pictures out of the off-screen queue into the
// display, and its start and stop.
#include <chrono>
#include <cstdio>
#include <mutex>

#include "display/video_display.h"
#include "log/log.h"
#include "pipeline/pipeline.h"
#include "pipeline/player_pacing.h"
#include "pipeline/player_render.h"
#include "platform/platform.h"

namespace {

constexpr uint32_t kIdleSleepMs = 5;
constexpr uint32_t kNoPictureSleepMs = 2;
constexpr uint32_t kPictureWaitMs = 250; // a new picture or a stop ends the wait at once
constexpr uint32_t kFirstFrameSleepMs = 10;
constexpr uint32_t kIntervalCap = 60;
constexpr uint32_t kMinInterval = 5;
constexpr uint32_t kDisplayFailLogEvery = 100;

bool Paced(uint32_t fluency)
{
    return fluency == FLUENCY_NORMAL || fluency == FLUENCY_LOW_DELAY || fluency == FLUENCY_SMOOTH;
}

// Interval between pictures for the render-side wait.
uint32_t RenderInterval(const Pipeline* rec)
{
    const PortPlayback& pb = rec->playback;
    if (rec->sourceKind == SOURCE_MEDIA_FILE && pb.fileFrameRate) {
        return static_cast<uint32_t>(1000.0f * rec->speedFactor / static_cast<float>(pb.fileFrameRate));
    }
    // Live H.264 and JPEG follow the stream's rate; H.265 keeps the measured
    // frame interval.
    const bool rated = pb.videoCodec == KORVALEN_CODEC_H264 || pb.videoCodec == KORVALEN_CODEC_MJPEG;
    if ((rec->sourceKind == SOURCE_INPUT_STREAM || rec->sourceKind == SOURCE_NET_STREAM) && rated && pb.frameRate) {
        auto i = static_cast<uint32_t>(1000.0f * rec->speedFactor / static_cast<float>(pb.frameRate));
        return i < kMinInterval ? kMinInterval : i;
    }
    const uint32_t interval = rec->frameInterval;
    return interval > kIntervalCap ? kIntervalCap : interval;
}

// False when there was no picture to take: the caller then tries again
// shortly instead of waiting a whole interval.
bool ShowNext(Pipeline* rec, QUEUE_PICTURE_NODE** held, uint32_t* failures)
{
    PortPlayback& pb = rec->playback;
    if (pb.livePaused) {
        PLAT_SleepMs(kNoPictureSleepMs); // the last picture stays on screen
        return false;
    }
    if (QUEUE_GetDecodeData(&pb.offscreen, held) != KORVALEN_OK) {
        QUEUE_WaitPicture(&pb.offscreen, kPictureWaitMs);
        return false;
    }
    if (!*held) {
        KORVALEN_LOG(KORVALEN_LOG_WARN, "Port[%03d] __RenderThreadEntry Warm, DecodeVideoData is null", rec->port);
        return true;
    }
    CBaseDisplay* display = rec->video.display;
    if (!display) {
        KORVALEN_LOG(KORVALEN_LOG_WARN, "Port [%03d] __RenderThreadEntry Warm, DisplayDev is null", rec->port);
        PLAT_SleepMs(kNoPictureSleepMs);
        return false;
    }
    DISP_SETTINGS s;
    {
        std::lock_guard<std::recursive_mutex> lock(rec->displayLock);
        s = rec->video.settings;
    }
    s.draw = rec->callbacks.draw.fn;
    s.drawUser = rec->callbacks.draw.user;
    const QUEUE_PICTURE_NODE* shown = *held;
    if (FE_ViewActive(rec->fisheye)) {
        uint32_t fe = FE_FishEyeWork(rec->fisheye, *held, &shown);
        if (fe != KORVALEN_OK && rec->fisheye.failures++ % kDisplayFailLogEvery == 0) {
            KORVALEN_LOG(KORVALEN_LOG_WARN, "Port[%03d] __RenderThreadEntry Warm, FE_FishEyeWork fail, error(0x%x)",
                         rec->port, fe);
        }
    }
    IVA_PrepareOverlay(rec->iva, rec->video.osdStyle, *held, &s);
    uint32_t err = Video_DisPlayPicEx(rec->port, display, shown, s);
    FE_NoteShown(rec->fisheye, display->ShownRect());
    if (err != KORVALEN_OK) {
        if ((*failures)++ % kDisplayFailLogEvery == 0) {
            KORVALEN_LOG(KORVALEN_LOG_WARN, "Port %03d __RenderThreadEntry Warm, Video_DisPlayPic fail", rec->port);
        }
        return true;
    }
    ++pb.rendered;
    return true;
}

void RenderThread(Pipeline* rec)
{
    PLAT_SetThreadName("Render");
    KORVALEN_LOG(KORVALEN_LOG_INFO, "Port [%03d] Start __RenderThreadEntry thread succeed", rec->port);
    PortPlayback& pb = rec->playback;
    QUEUE_PICTURE_NODE* held = nullptr;
    uint32_t failures = 0;
    uint32_t stamp = PLAT_TickMs();
    bool missed = false; // the last look found no picture: look again, without a new wait
    while (pb.rendering) {
        if (missed) {
            missed = !ShowNext(rec, &held, &failures);
            continue;
        }
        if (pb.renderMode == 1) {
            // Fixed interval only, rendering under the port's data lock.
            int32_t wait = static_cast<int32_t>(RenderInterval(rec)) - static_cast<int32_t>(PLAT_TickMs() - stamp);
            PLAT_SleepMs(wait >= 1 && wait < 1000 ? static_cast<uint32_t>(wait) : 1);
            stamp = PLAT_TickMs();
            std::lock_guard<std::recursive_mutex> lock(rec->dataLock);
            ShowNext(rec, &held, &failures);
            continue;
        }
        const uint32_t fluency = pb.fluency;
        if (!Paced(fluency)) {
            PLAT_SleepMs(kIdleSleepMs);
        } else if (!pb.packetSeen && fluency != FLUENCY_SMOOTH && rec->packetBuffer.frameCount.load() > 0) {
            pb.packetSeen = 1;
            PLAT_SleepMs(kFirstFrameSleepMs);
            stamp = PLAT_TickMs();
        } else {
            auto elapsed = static_cast<int32_t>(PLAT_TickMs() - stamp);
            if (elapsed < 0) {
                KORVALEN_LOG(KORVALEN_LOG_WARN, "Port [%03d] __RenderThreadEntry Warming, Used time(%d) < 0", rec->port,
                             elapsed);
            } else {
                int32_t wait =
                    Player_RenderWaitMs(fluency, RenderInterval(rec), elapsed, rec->packetBuffer.frameCount.load(),
                                        pb.pictureBuffers, pb.frameRate, QUEUE_PictureCount(&pb.offscreen));
                if (wait > 0) {
                    PLAT_SleepMs(static_cast<uint32_t>(wait));
                }
            }
            stamp = PLAT_TickMs();
        }
        bool shown = ShowNext(rec, &held, &failures);
        missed = Paced(fluency) && !shown;
    }
}

void ReleaseRendering(Pipeline* rec)
{
    PortPlayback& pb = rec->playback;
    Video_DestroyDisplayDec(rec->video.display);
    QUEUE_ReleasePictureQueue(&pb.decoded);
    QUEUE_ReleasePictureQueue(&pb.offscreen);
}

} // namespace

uint32_t Render_Start(Pipeline* rec, uint64_t window)
{
    const uint32_t port = rec->port;
    PortPlayback& pb = rec->playback;
    if (Video_CreateDisplayDec(window, &rec->video.display) != KORVALEN_OK) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "Port [%03d] Video_CreateDisplayDec fail", port);
        return KORVALEN_ERR_OUTPUT_CREATE;
    }
    if (rec->callbacks.drawEx.fn) {
        rec->video.display->SetDrawCallback(rec->callbacks.drawEx.fn, rec->callbacks.drawEx.user);
    }
    uint32_t err = QUEUE_InitDecodedBufferQueue(&pb.decoded, pb.pictureBuffers);
    if (err != KORVALEN_OK) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR,
                     "Port [%03d] Player_StartPlay fail, QUEUE_InitDecodedBufferQueue fail, error(%d)", port, err);
        ReleaseRendering(rec);
        return err;
    }
    err = QUEUE_InitOffScreenBufferQueue(&pb.offscreen, pb.pictureBuffers);
    if (err != KORVALEN_OK) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR,
                     "Port [%03d] Player_StartPlay fail, QUEUE_InitOffScreenBufferQueue fail, error(%d)", port, err);
        ReleaseRendering(rec);
        return err;
    }
    pb.window = window;
    pb.videoDecode = 1;
    pb.rendering = 1;
    try {
        pb.renderThread = std::thread(RenderThread, rec);
    } catch (...) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "Port[%03d] KTFW_SDK_thr_create Render failed", port);
        pb.rendering = 0;
        pb.videoDecode = 0;
        ReleaseRendering(rec);
        return KORVALEN_ERR_THREAD_CREATE;
    }
    return KORVALEN_OK;
}

void Render_Stop(Pipeline* rec)
{
    PortPlayback& pb = rec->playback;
    pb.rendering = 0;
    QUEUE_WakePictureReader(&pb.offscreen);
    if (pb.renderThread.joinable()) {
        pb.renderThread.join();
    }
    pb.videoDecode = 0;
    // The decode side writes into the queues under the data lock.
    std::lock_guard<std::recursive_mutex> lock(rec->dataLock);
    ReleaseRendering(rec);
}
