// Colour conversions for snapshots and captured pictures, through libswscale.
extern "C" {
#include <libswscale/swscale.h>
}

#include "codec/code_internal.h"
#include "codec/code_manager.h"
#include "korvalen_types.h"
#include "log/log.h"

uint32_t Format_ColorSpace(uint32_t kind, const CODE_PICTURE* source, CODE_PICTURE* destination)
{
    if (!source || !destination) {
        return KORVALEN_ERR_INVALID_PARAM;
    }
    AVPixelFormat from, to;
    const char* failText;
    switch (kind) {
    case CODE_COLOR_YUV420_TO_BGR24:
        from = AV_PIX_FMT_YUV420P;
        to = AV_PIX_FMT_BGR24;
        failText = "DSP_Yuv2Rgb failed(retcode:%d)";
        break;
    case CODE_COLOR_BGRA32_TO_YUV420:
        from = AV_PIX_FMT_BGRA;
        to = AV_PIX_FMT_YUV420P;
        failText = "DSP_bgra32toyuv420 failed(retcode:%d)";
        break;
    case CODE_COLOR_BGR24_TO_YUV420:
        from = AV_PIX_FMT_BGR24;
        to = AV_PIX_FMT_YUV420P;
        failText = "DSP_bgr24toyuv420 failed(retcode:%d)";
        break;
    default:
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "Format_ColorSpace fail, unknown type(%d)", static_cast<int>(kind));
        return KORVALEN_ERR_INVALID_PARAM;
    }
    int w = static_cast<int>(source->width & ~3u);
    int h = static_cast<int>(source->height & ~3u);
    int planesIn = from == AV_PIX_FMT_YUV420P ? 3 : 1;
    int planesOut = to == AV_PIX_FMT_YUV420P ? 3 : 1;
    bool ok = w > 0 && h > 0;
    for (int p = 0; ok && p < planesIn; ++p) {
        ok = source->planes[p] && source->pitches[p] > 0;
    }
    for (int p = 0; ok && p < planesOut; ++p) {
        ok = destination->planes[p] && destination->pitches[p] > 0;
    }
    if (!ok) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, failText, AVERROR(EINVAL));
        return KORVALEN_ERR_DECODE;
    }
    SwsContext* sws = sws_getContext(w, h, from, w, h, to, SWS_BILINEAR, nullptr, nullptr, nullptr);
    if (!sws) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, failText, AVERROR(ENOMEM));
        return KORVALEN_ERR_DECODE;
    }
    const uint8_t* src[4] = {source->planes[0], source->planes[1], source->planes[2], nullptr};
    int srcPitch[4] = {static_cast<int>(source->pitches[0]), static_cast<int>(source->pitches[1]),
                       static_cast<int>(source->pitches[2]), 0};
    uint8_t* dst[4] = {destination->planes[0], destination->planes[1], destination->planes[2], nullptr};
    int dstPitch[4] = {static_cast<int>(destination->pitches[0]), static_cast<int>(destination->pitches[1]),
                       static_cast<int>(destination->pitches[2]), 0};
    int lines = sws_scale(sws, src, srcPitch, 0, h, dst, dstPitch);
    sws_freeContext(sws);
    if (lines != h) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, failText, lines);
        return KORVALEN_ERR_DECODE;
    }
    destination->width = static_cast<uint32_t>(w);
    destination->height = static_cast<uint32_t>(h);
    return KORVALEN_OK;
}
