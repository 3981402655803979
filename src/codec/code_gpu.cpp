// GPU decoding capability: one probe of the VAAPI and CUDA devices at start-up,
// the capability query and the copy of a GPU picture into memory.
#include <atomic>
#include <cstring>

extern "C" {
#include <libavutil/hwcontext.h>
#include <libavutil/log.h>
#include <libavutil/pixdesc.h>
}

#include "codec/code_internal.h"
#include "codec/code_manager.h"
#include "codec/code_video_decoder.h"
#include "heap/qmx_heap.h"
#include "korvalen_types.h"
#include "log/log.h"

namespace {

constexpr size_t kGpuStateSize = 32;

std::mutex g_creationLock;
AVBufferRef* g_device = nullptr;
std::atomic<uint32_t> g_h264Able{0};
std::atomic<uint32_t> g_h265Able{0};
std::atomic<uint32_t> g_deviceKind{0}; // 0 none, 1 VAAPI, 2 CUDA

bool DecoderHasHw(AVCodecID id, AVHWDeviceType type)
{
    const AVCodec* codec = avcodec_find_decoder(id);
    for (int i = 0; codec; ++i) {
        const AVCodecHWConfig* cfg = avcodec_get_hw_config(codec, i);
        if (!cfg) {
            return false;
        }
        if ((cfg->methods & AV_CODEC_HW_CONFIG_METHOD_HW_DEVICE_CTX) && cfg->device_type == type) {
            return true;
        }
    }
    return false;
}

} // namespace

std::mutex& CODE_CreationLock()
{
    return g_creationLock;
}

AVBufferRef* CODE_GpuDevice()
{
    return g_device;
}

void CODE_ProbeGpu()
{
    CODE_SelectGpu(0, nullptr);
}

uint32_t CODE_GpuDeviceKind()
{
    return g_deviceKind.load();
}

uint32_t CODE_SelectGpu(uint32_t kind, const char* device)
{
    if (g_device && kind == 0 && (!device || !*device)) {
        return KORVALEN_OK; // the default device is already open
    }
    CODE_ReleaseGpu();
    for (AVHWDeviceType type : {AV_HWDEVICE_TYPE_VAAPI, AV_HWDEVICE_TYPE_CUDA}) {
        uint32_t thisKind = type == AV_HWDEVICE_TYPE_VAAPI ? 1 : 2;
        if (kind != 0 && kind != thisKind) {
            continue;
        }
        AVBufferRef* dev = nullptr;
        // A missing device or driver is the normal answer here, not an error
        // worth libav's messages on standard error.
        int level = av_log_get_level();
        av_log_set_level(AV_LOG_QUIET);
        int r = av_hwdevice_ctx_create(&dev, type, device && *device ? device : nullptr, nullptr, 0);
        av_log_set_level(level);
        if (r < 0) {
            continue;
        }
        g_h264Able = DecoderHasHw(AV_CODEC_ID_H264, type) ? 1 : 0;
        g_h265Able = DecoderHasHw(AV_CODEC_ID_HEVC, type) ? 1 : 0;
        if (g_h264Able || g_h265Able) {
            g_device = dev;
            g_deviceKind = thisKind;
            KORVALEN_LOG(KORVALEN_LOG_INFO, "This computer support gpu");
            return KORVALEN_OK;
        }
        av_buffer_unref(&dev);
    }
    KORVALEN_LOG(KORVALEN_LOG_INFO, "This computer not support gpu");
    return KORVALEN_ERR_NOT_SUPPORTED;
}

void CODE_ReleaseGpu()
{
    av_buffer_unref(&g_device);
    g_deviceKind = 0;
    g_h264Able = 0;
    g_h265Able = 0;
}

uint32_t CODE_CatchHwDecEx(uint32_t enable, void* state)
{
    if (!state) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "CODE_CatchHwDecEx, pstGpuAbleState is NULL");
        return KORVALEN_ERR_INVALID_PARAM;
    }
    std::memset(state, 0, kGpuStateSize);
    if (enable == 1) {
        uint32_t able[2] = {g_h264Able.load(), g_h265Able.load()};
        std::memcpy(state, able, sizeof able);
    } else {
        g_h264Able = 0;
        g_h265Able = 0;
    }
    return KORVALEN_OK;
}

uint32_t CODE_GetYuvData(CODE_HANDLE* handle, CODE_OUTPUT* output)
{
    if (!handle || !output) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "CODE_GetYuvData fail, input extra data param is null");
        return KORVALEN_ERR_INVALID_PARAM;
    }
    auto* dec = static_cast<CVideoDecoder*>(handle->library);
    bool gpu = handle->h264Gpu == 1 || handle->h265Gpu == 1;
    if (!gpu || !dec || !dec->IsGpu() || handle->gpuPicReady != 1) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "CODE_GetYuvData fail, input dev param is null");
        return KORVALEN_ERR_INVALID_PARAM;
    }
    AVFrame* surface = dec->Picture();
    uint32_t w = static_cast<uint32_t>(surface->width), h = static_cast<uint32_t>(surface->height);
    auto* buf = static_cast<uint8_t*>(QMX_HeapMalloc(static_cast<size_t>(w) * h * 3 / 2));
    if (!buf) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "CODE_GetYuvData fail, QMX_MALLOC fail");
        return KORVALEN_ERR_NO_MEMORY;
    }
    if (!surface->hw_frames_ctx) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "CODE_GetYuvData fail, pSurfaceID is null");
        QMX_HeapFree(buf);
        return CODE_ERR_FAIL;
    }
    AVFrame* mem = av_frame_alloc();
    int r = mem ? av_hwframe_transfer_data(mem, surface, 0) : AVERROR(ENOMEM);
    if (r < 0) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "CODE_GetYuvData fail, LockRect fail(0x%x)", static_cast<unsigned>(r));
        av_frame_free(&mem);
        QMX_HeapFree(buf);
        return CODE_ERR_FAIL;
    }
    if (mem->format != AV_PIX_FMT_NV12) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "CODE_GetYuvData fail, GetDesc fail(0x%x)",
                     static_cast<unsigned>(mem->format));
        av_frame_free(&mem);
        QMX_HeapFree(buf);
        return CODE_ERR_FAIL;
    }
    uint32_t pitch = static_cast<uint32_t>(mem->linesize[0]);
    KORVALEN_LOG(KORVALEN_LOG_DEBUG, "Pitch:%d, Width:%d,Height:%d, uiWidth:%d,uiHeight:%d", static_cast<int>(pitch),
                 mem->width, mem->height, static_cast<int>(w), static_cast<int>(h));
    uint8_t* u = buf + w * h;
    uint8_t* v = buf + w * h * 5 / 4;
    for (uint32_t y = 0; y < h; ++y) {
        std::memcpy(buf + y * w, mem->data[0] + y * pitch, w);
    }
    // Interleaved U,V pairs into the two planes.
    for (uint32_t y = 0; y < h / 2; ++y) {
        const uint8_t* uv = mem->data[1] + y * static_cast<uint32_t>(mem->linesize[1]);
        for (uint32_t x = 0; x < w / 2; ++x) {
            u[y * (w / 2) + x] = uv[2 * x];
            v[y * (w / 2) + x] = uv[2 * x + 1];
        }
    }
    av_frame_free(&mem);
    output->planes[0] = buf;
    output->planes[1] = u;
    output->planes[2] = v;
    output->pitches[0] = w;
    output->pitches[1] = w / 2;
    output->pitches[2] = w / 2;
    output->width = w;
    output->height = h;
    return KORVALEN_OK;
}
