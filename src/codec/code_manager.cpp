// Codec manager entry points: type and direction checks, dispatch to the codec
// families, and the handle's life cycle.
#include "codec/code_manager.h"
#include "media/codec_facts.h"

#include <cstdarg>
#include <cstring>

extern "C" {
#include <libavutil/log.h>
}

#include "codec/code_internal.h"
#include "heap/qmx_heap.h"
#include "korvalen_types.h"
#include "log/log.h"

namespace {

uint32_t CreateDecoder(uint32_t type, const CODE_PARAM* param, CODE_HANDLE* h, bool gpu)
{
    if (Codec_IsNal(type)) {
        return CODE_CreateVideoDecoder(h, type, param, gpu);
    }
    if (type == KORVALEN_CODEC_MJPEG) {
        return CODE_CreateJpeg(h, CODE_DIR_DECODER);
    }
    return CODE_CreateAudioDecoder(h, type);
}

uint32_t CreateEncoder(uint32_t type, const CODE_PARAM* param, CODE_HANDLE* h)
{
    if (Codec_IsNal(type)) {
        return KORVALEN_ERR_NOT_SUPPORTED;
    }
    if (type == KORVALEN_CODEC_MJPEG) {
        return CODE_CreateJpeg(h, CODE_DIR_ENCODER);
    }
    return CODE_CreateAudioEncoder(h, type, param);
}

// FFmpeg's own messages (a camera's private SEI read as truncated, a damaged
// slice concealed) go to our log at debug level, not to the client's stderr:
// what matters to the caller we report in our own words.
void AvLogToOurs(void* avcl, int level, const char* fmt, va_list args)
{
    if (level > av_log_get_level()) {
        return;
    }
    char line[512];
    int printPrefix = 1;
    av_log_format_line2(avcl, level, fmt, args, line, sizeof line, &printPrefix);
    size_t n = std::strlen(line);
    while (n > 0 && (line[n - 1] == '\n' || line[n - 1] == '\r')) {
        line[--n] = '\0';
    }
    if (n > 0) {
        KORVALEN_LOG(KORVALEN_LOG_DEBUG, "ffmpeg: %s", line);
    }
}

} // namespace

uint32_t CODE_GlobalInit()
{
    av_log_set_callback(AvLogToOurs);
    CODE_ProbeGpu();
    return KORVALEN_OK;
}

void CODE_GlobalRelease()
{
    CODE_ReleaseGpu();
    av_log_set_callback(av_log_default_callback);
}

uint32_t CODE_CreateCode(uint32_t direction, uint32_t codecType, const CODE_PARAM* param, CODE_HANDLE* handle)
{
    if (!handle) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "CODE_CreateCode fail, Param is null");
        return KORVALEN_ERR_INVALID_PARAM;
    }
    // The caller asks for GPU decoding through the handle, before it is cleared.
    bool gpu = (codecType == KORVALEN_CODEC_H264 && handle->h264Gpu == 1) ||
               (codecType == KORVALEN_CODEC_H265 && handle->h265Gpu == 1);
    std::memset(handle, 0, sizeof *handle);
    handle->codecType = -1;
    handle->direction = direction;
    // Type 6 (analysis data) is neither decoded nor encoded.
    bool known = codecType <= KORVALEN_CODEC_H265 && codecType != KORVALEN_CODEC_IVA;
    if (!known || direction > CODE_DIR_DECODER) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "CODE_CreateCode fail, codec type(%u) direction(%u) not supported", codecType,
                     direction);
        return KORVALEN_ERR_INVALID_PARAM;
    }
    if (direction == CODE_DIR_DECODER && codecType == KORVALEN_CODEC_PCM) {
        // No decoder instance: PCM passes through. 7 tells the caller so.
        handle->codecType = static_cast<int32_t>(codecType);
        return KORVALEN_ERR_NOT_SUPPORTED;
    }
    uint32_t err = direction == CODE_DIR_DECODER ? CreateDecoder(codecType, param, handle, gpu)
                                                 : CreateEncoder(codecType, param, handle);
    if (err == KORVALEN_OK) {
        handle->codecType = static_cast<int32_t>(codecType);
    }
    return err;
}

uint32_t CODE_Decoder(CODE_HANDLE* handle, const CODE_INPUT* input, CODE_OUTPUT* output)
{
    if (!handle) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "CODE_Decoder fail, Param is null");
        return KORVALEN_ERR_INVALID_PARAM;
    }
    if (handle->direction != CODE_DIR_DECODER) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "CODE_Decoder fail, not decord");
        return KORVALEN_ERR_INVALID_PARAM;
    }
    if (handle->codecType < 0) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "CODE_Decoder fail, codec not created");
        return KORVALEN_ERR_INVALID_PARAM;
    }
    auto type = static_cast<uint32_t>(handle->codecType);
    // JPEG names its missing record itself.
    bool drain = input && (input->flags & CODE_FLAG_DRAIN);
    if (type != KORVALEN_CODEC_MJPEG && (!input || !output || (!input->data && !drain))) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "CODE_Decoder fail, Param is null");
        return KORVALEN_ERR_INVALID_PARAM;
    }
    if (Codec_IsNal(type)) {
        return CODE_DecodeVideo(handle, input, output);
    }
    if (type == KORVALEN_CODEC_MJPEG) {
        return CODE_DecodeJpeg(handle, input, output);
    }
    return CODE_DecodeAudio(handle, input, output);
}

uint32_t CODE_Encoder(CODE_HANDLE* handle, const CODE_INPUT* input, CODE_OUTPUT* output)
{
    if (!handle) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "CODE_Encoder fail, Param is null");
        return KORVALEN_ERR_INVALID_PARAM;
    }
    if (handle->direction != CODE_DIR_ENCODER) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "CODE_Encoder fail, not encord");
        return KORVALEN_ERR_INVALID_PARAM;
    }
    if (!input || !output) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "CODE_Encoder fail, Param is null");
        return KORVALEN_ERR_INVALID_PARAM;
    }
    if (handle->codecType < 0) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "CODE_Encoder fail, codec not created");
        return KORVALEN_ERR_INVALID_PARAM;
    }
    auto type = static_cast<uint32_t>(handle->codecType);
    if (type != KORVALEN_CODEC_MJPEG && !input->data) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "CODE_Encoder fail, Param is null");
        return KORVALEN_ERR_INVALID_PARAM;
    }
    if (type == KORVALEN_CODEC_MJPEG) {
        return CODE_EncodeJpeg(handle, input, output);
    }
    return CODE_EncodeAudio(handle, input, output);
}

uint32_t CODE_FreeCode(CODE_HANDLE* handle)
{
    if (!handle) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "CODE_FreeCode fail, Param is null");
        return KORVALEN_ERR_INVALID_PARAM;
    }
    if (handle->codecType >= 0) {
        auto type = static_cast<uint32_t>(handle->codecType);
        if (type == KORVALEN_CODEC_MJPEG) {
            CODE_FreeJpeg(handle);
        } else if (handle->direction == CODE_DIR_DECODER && Codec_IsNal(type)) {
            CODE_FreeVideoDecoder(handle);
        } else if (handle->direction == CODE_DIR_DECODER && Codec_IsAudio(type)) {
            CODE_FreeAudioDecoder(handle);
        } else if (handle->direction == CODE_DIR_ENCODER && Codec_IsAudio(type)) {
            CODE_FreeAudioEncoder(handle);
        }
    }
    QMX_HeapFree(handle->workBuf);
    handle->workBuf = nullptr;
    handle->workSize = 0;
    handle->library = nullptr;
    handle->codecType = -1;
    handle->h264Gpu = 0;
    handle->h265Gpu = 0;
    handle->gpuPicReady = 0;
    return KORVALEN_OK;
}

uint32_t CODE_ReCreateDecoder(uint32_t maxSize, uint32_t lowDelay, CODE_HANDLE* handle)
{
    if (!handle || handle->direction != CODE_DIR_DECODER ||
        handle->codecType != static_cast<int32_t>(KORVALEN_CODEC_H265) || handle->h265Gpu == 1 || maxSize == 0) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "CODE_ReCreateDecoder fail, not a software H.265 decoder or size 0");
        return KORVALEN_ERR_INVALID_PARAM;
    }
    return CODE_RecreateVideoDecoder(handle, maxSize, maxSize, lowDelay);
}

uint32_t CODE_SetMp2DataCallBack(CODE_HANDLE* handle, CODE_MP2_DATA_CB callback, void* user)
{
    if (!handle || !callback) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "CODE_SetMp2DataCallBack fail, Param is null");
        return KORVALEN_ERR_INVALID_PARAM;
    }
    handle->mp2Cb = callback;
    handle->mp2User = user;
    return KORVALEN_OK;
}
