// The AVI writer used by recording: stream set-up and one frame at a time.
#include <cmath>

#include "demux/avi/avi.h"
#include "korvalen_types.h"
#include "log/log.h"

namespace {

constexpr uint32_t kAudioKbps = 64;

} // namespace

AVI_HANDLE AVI_OpenOutputFile(const char* fileName)
{
    return fileName ? AVIF_OpenOutput(fileName) : nullptr;
}

uint32_t AVI_EncInit(const AVI_ENC_PARAM* param, AVI_HANDLE avi)
{
    if (!param || !avi) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "AVI_EncInit fail, Empty parameter");
        return KORVALEN_ERR_INVALID_PARAM;
    }
    uint32_t tag = 0;
    if (param->audioCode == 0) {
        tag = 0x50;
    } else if (param->audioCode == 1) {
        tag = 0x55;
    } else {
        KORVALEN_LOG(KORVALEN_LOG_WARN, "AVI_EncInit fail,Unknown wave format");
    }
    const char* compressor = nullptr;
    switch (param->videoCode) {
    case 1:
        compressor = "mjpg";
        break;
    case 2:
        compressor = "avc1";
        break;
    case 3:
        compressor = "hev1";
        break;
    default:
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "AVI_EncInit fail,Unknown video compressor");
        return KORVALEN_ERR_INVALID_PARAM;
    }
    AVIF_SetAudio(avi, param->channels, param->sampleRate, param->bitsPerSample, tag, kAudioKbps);
    AVIF_SetVideo(avi, param->width, param->height, param->framesPerSecond, compressor);
    return KORVALEN_OK;
}

uint32_t AVI_EncFrame(AVI_HANDLE avi, const AVI_ENC_FRAME* frame)
{
    if (!avi || !frame) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "AVI_EncFrame fail,AviHandle or FrameInfo is empty");
        return KORVALEN_ERR_INVALID_PARAM;
    }
    const auto old = static_cast<uint32_t>(std::lround(AVIF_FrameRate(avi)));
    if (frame->framesPerSecond && frame->framesPerSecond != old) {
        KORVALEN_LOG(KORVALEN_LOG_WARN, "AVI_EncFrame : FrameRate Change Old Frame:%d new Frame:%d", old,
                     frame->framesPerSecond);
        AVIF_SetFrameRate(avi, frame->framesPerSecond);
    }
    if (frame->type == 0) {
        if (AVIF_WriteVideo(avi, frame->data, frame->length, frame->keyFlag != 0) != KORVALEN_OK) {
            KORVALEN_LOG(KORVALEN_LOG_ERROR, "AVI_EncFrame fail,Write a frame fail");
            return 1;
        }
    } else if (AVIF_WriteAudio(avi, frame->data, frame->length) != KORVALEN_OK) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "AVI_EncFrame fail,Write audio fail");
        return 1;
    }
    return KORVALEN_OK;
}
