// The AVI reader: information, frames in the four read modes, seeking and
// the current position, on top of the AVI file library.
#include <cmath>
#include <cstring>

#include "demux/avi/avi.h"
#include "korvalen_types.h"
#include "log/log.h"

namespace {

uint32_t PayloadOf(const char c[4])
{
    if (std::memcmp(c, "avc1", 4) == 0 || std::memcmp(c, "H264", 4) == 0 || std::memcmp(c, "h264", 4) == 0) {
        return KORVALEN_CODEC_H264;
    }
    if (std::memcmp(c, "hev1", 4) == 0 || std::memcmp(c, "hvc1", 4) == 0 || std::memcmp(c, "HEVC", 4) == 0) {
        return KORVALEN_CODEC_H265;
    }
    if (std::memcmp(c, "mjpg", 4) == 0 || std::memcmp(c, "MJPG", 4) == 0) {
        return KORVALEN_CODEC_MJPEG;
    }
    return KORVALEN_CODEC_NONE;
}

uint32_t FileEnd()
{
    KORVALEN_LOG(KORVALEN_LOG_INFO, "AVI_GetOneFrameData info, file read complete");
    return KORVALEN_ERR_FILE_END;
}

// Moves forward from the current video frame to the first key frame.
uint32_t SeekKey(AVI_HANDLE avi)
{
    uint32_t n = avi->curVideo;
    while (n < AVIF_VideoFrames(avi) && !AVIF_IsKeyframe(avi, n)) {
        ++n;
    }
    if (n >= AVIF_VideoFrames(avi)) {
        return FileEnd();
    }
    AVIF_SetVideoPosition(avi, n);
    return KORVALEN_OK;
}

uint32_t Read(AVI_HANDLE avi, AVI_FRAME_INFO* frame)
{
    const double fps = AVIF_FrameRate(avi) > 0 ? AVIF_FrameRate(avi) : 25.0;
    const uint32_t n = avi->curVideo;
    frame->timeStamp = static_cast<uint64_t>(90000.0 / fps * n);
    if (AVIF_FrameSize(avi, n) == 0) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "AVI_GetOneFrameData,AVI_frame_size fail");
        return 1;
    }
    const uint32_t key = AVIF_IsKeyframe(avi, n) ? 1 : 0;
    bool video = false;
    uint32_t len = 0;
    uint32_t err = AVIF_ReadNextChunk(avi, frame->data, frame->capacity, &len, &video);
    if (err == KORVALEN_ERR_FILE_END) {
        return FileEnd();
    }
    if (err != KORVALEN_OK) {
        return 1;
    }
    frame->length = len;
    frame->keyFlag = video ? key : 1;
    frame->payloadType = video ? PayloadOf(avi->compressor) : KORVALEN_CODEC_MP2;
    frame->frameType = video && !key ? 1 : 0;
    return KORVALEN_OK;
}

// Mode 3: a non-key frame goes out when it carries the private SEI marker;
// a slice first means it is skipped. 1: deliver, 0: skip.
int MarkedFrame(uint32_t payload, const uint8_t* d, uint32_t n)
{
    for (uint32_t i = 0; i + 4 < n; ++i) {
        if (d[i] != 0 || d[i + 1] != 0 || d[i + 2] != 1) {
            continue;
        }
        const uint8_t* u = d + i + 3;
        if (payload == KORVALEN_CODEC_H264) {
            const uint32_t t = u[0] & 31;
            if (t == 6 && u[1] == 0x21) {
                return 1;
            }
            if (t == 5 || t == 1) {
                return 0;
            }
        } else {
            const uint32_t t = (u[0] >> 1) & 63;
            if (u[0] == 0x4E && i + 6 < n && u[2] == 1 && u[3] == 230) {
                return 1;
            }
            if (t >= 1 && t <= 21) {
                return 0;
            }
        }
    }
    return 0;
}

} // namespace

int32_t AVI_Probe(const uint8_t* head, uint32_t length)
{
    return length >= 12 && std::memcmp(head, "RIFF", 4) == 0 && std::memcmp(head + 8, "AVI", 3) == 0 ? 1 : 0;
}

AVI_HANDLE AVI_CreateAviParser(const char* fileName)
{
    return fileName ? AVIF_OpenInput(fileName) : nullptr;
}

uint32_t AVI_GetAviInfo(AVI_HANDLE avi, AVI_INFO* info)
{
    if (!avi || !info) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "Avi_GetAviInfo fail, AviInfo is null");
        return KORVALEN_ERR_INVALID_PARAM;
    }
    const double fps = AVIF_FrameRate(avi);
    if (fps == 0.0) {
        KORVALEN_LOG(KORVALEN_LOG_WARN, "AVI_GetAviInfo fail, framerate == 0 ");
        info->frameRate = 25;
        return KORVALEN_OK;
    }
    info->frameRate = static_cast<uint32_t>(fps);
    info->totalTime = static_cast<uint32_t>(AVIF_VideoFrames(avi) / fps);
    return KORVALEN_OK;
}

uint32_t AVI_GetOneFrameData(AVI_HANDLE avi, uint32_t mode, AVI_FRAME_INFO* frame)
{
    if (!avi || !frame) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "AVI_GetOneFrameData,AviHandle is empty");
        return KORVALEN_ERR_INVALID_PARAM;
    }
    frame->timeStamp = 0;
    frame->frameType = 0;
    frame->length = 0;
    const uint32_t frames = AVIF_VideoFrames(avi);
    switch (mode) {
    case AVI_READ_KEY: {
        uint32_t err = SeekKey(avi);
        return err != KORVALEN_OK ? err : Read(avi, frame);
    }
    case AVI_READ_VIDEO:
        if (avi->curVideo >= frames) {
            return FileEnd();
        }
        AVIF_SetVideoPosition(avi, avi->curVideo);
        return Read(avi, frame);
    case AVI_READ_MARKED: {
        const uint32_t payload = PayloadOf(avi->compressor);
        for (;;) {
            if (avi->curVideo >= frames) {
                return FileEnd();
            }
            const uint32_t n = avi->curVideo;
            AVIF_SetVideoPosition(avi, n);
            if (AVIF_IsKeyframe(avi, n)) {
                return Read(avi, frame);
            }
            if (payload != KORVALEN_CODEC_H264 && payload != KORVALEN_CODEC_H265) {
                KORVALEN_LOG(KORVALEN_LOG_ERROR, "AVI_GetOneFrameData fail, unknow payload(%d) fail, error(0x%x)",
                             payload, 1);
                return 1;
            }
            uint32_t err = Read(avi, frame);
            if (err != KORVALEN_OK) {
                return err;
            }
            if (MarkedFrame(payload, frame->data, frame->length)) {
                return KORVALEN_OK;
            }
            frame->length = 0;
        }
    }
    default:
        if (avi->curVideo >= frames) {
            return FileEnd();
        }
        return Read(avi, frame);
    }
}

uint32_t AVI_SetPlayTime(AVI_HANDLE avi, uint32_t seconds, uint32_t framesPerSecond)
{
    if (!avi) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "AVI_SetPlayTime fail, AVIinfo is null");
        return KORVALEN_ERR_INVALID_PARAM;
    }
    const uint64_t n =
        static_cast<uint64_t>(seconds) * (framesPerSecond >= 1 && framesPerSecond <= 60 ? framesPerSecond : 25);
    if (n >= AVIF_VideoFrames(avi)) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "AVI_SetPlayTime fail, Not find Index");
        return 1;
    }
    AVIF_SetVideoPosition(avi, static_cast<uint32_t>(n));
    uint32_t err = SeekKey(avi);
    return err == KORVALEN_OK ? KORVALEN_OK : 1;
}

uint32_t AVI_GetCurSampleIndex(AVI_HANDLE avi, uint32_t* seconds)
{
    if (!avi || !seconds) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "AVI_GetCurSampleIndex fail, Aviinfo is null");
        return KORVALEN_ERR_INVALID_PARAM;
    }
    const double fps = AVIF_FrameRate(avi) > 0 ? AVIF_FrameRate(avi) : 25.0;
    *seconds = static_cast<uint32_t>(avi->curVideo / fps);
    return KORVALEN_OK;
}

uint32_t AVI_FileClose(uint32_t* flag, AVI_HANDLE avi)
{
    if (!avi) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "AVI_FileClose fail, AVIinfo is null");
        return KORVALEN_ERR_INVALID_PARAM;
    }
    if (AVIF_Close(avi) != KORVALEN_OK) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "AVI_FileClose fail");
        return 1;
    }
    if (flag) {
        *flag = 0;
    }
    return KORVALEN_OK;
}
