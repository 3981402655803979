// The file-only calls of a port: opening and closing a media file, speed,
// stepping, seeking, play and file times, and marks.
#include "audio/audio_port.h"
#include "log/log.h"
#include "port/player_api.h"
#include "port/port_source.h"
#include "port/port_table.h"
#include "source/file/file_source.h"

namespace {

constexpr uint32_t kMaxSpeedCode = 35;

void* FileOf(PortRecord* rec)
{
    return Port_SourceState(rec, &kFileSourceOps);
}

uint32_t FileFrameCtrl(void* state)
{
    return static_cast<FileSource*>(state)->frameCtrl;
}

// Runs f on the port's file source; 7 for a port that plays no file, with
// the "is not file port" line when the call has one.
template <typename F> uint32_t OnFile(uint32_t port, const char* api, F&& f)
{
    return Player_OnPort(port, [&](PortRecord& rec) {
        void* file = FileOf(&rec);
        if (!file) {
            if (api) {
                KORVALEN_LOG(KORVALEN_LOG_ERROR, "Port [%03d] %s fail, is not file port fail, error(0x%x)", port, api,
                             KORVALEN_ERR_NOT_SUPPORTED);
            }
            return KORVALEN_ERR_NOT_SUPPORTED;
        }
        return f(rec, file);
    });
}

} // namespace

uint32_t Player_OpenMediaFile(uint32_t port, const char* fileName)
{
    PortRecord* rec = Player_GetPort(port);
    if (!rec) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "Get port[%d] fail", static_cast<int>(port));
        return KORVALEN_ERR_PORT;
    }
    rec->speedFactor = 1.0f;
    const FILESRC_PARAMS params{fileName};
    uint32_t err = Port_OpenSource(rec, &kFileSourceOps, &params);
    if (err != KORVALEN_OK) {
        rec->stream.rateFromStream = 0;
        return err;
    }
    KORVALEN_LOG(KORVALEN_LOG_INFO, "Port[%03d] Player_OpenMediaFile success", port);
    return KORVALEN_OK;
}

uint32_t Player_CloseMediaFile(uint32_t port)
{
    PortRecord* rec = Player_GetPort(port);
    if (!rec) {
        return KORVALEN_ERR_PORT;
    }
    if (!FileOf(rec)) {
        return KORVALEN_OK;
    }
    Port_CloseSource(rec);
    Audio_ReleasePortSound(rec->sound, rec->dataLock);
    rec->stream.rateFromStream = 0;
    rec->speedFactor = 1.0f;
    KORVALEN_LOG(KORVALEN_LOG_INFO, "Port [%03d] Player_CloseMediaFile succes", port);
    return KORVALEN_OK;
}

uint32_t Player_SpeedPlay(uint32_t port, uint32_t speed)
{
    PortRecord* rec = Player_GetPort(port);
    if (!rec) {
        return KORVALEN_ERR_PORT;
    }
    const uint32_t kind = rec->sourceKind;
    void* fileSrc = FileOf(rec);
    const bool file = fileSrc != nullptr;
    if (!file && kind != SOURCE_INPUT_STREAM && kind != SOURCE_NET_STREAM && !(kind == SOURCE_HLS && speed <= 4)) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "Port [%03d] Player_SpeedPlay fail, is not file port fail, error(0x%x)", port,
                     KORVALEN_ERR_NOT_SUPPORTED);
        return KORVALEN_ERR_NOT_SUPPORTED;
    }
    const float streamRate = static_cast<float>(rec->playback.frameRate.load());
    const float playRate = static_cast<float>(rec->playback.fileFrameRate.load());
    const uint32_t slow = file && rec->playback.videoCodec != KORVALEN_CODEC_MJPEG ? 4 : 1;
    uint32_t ctrl = 0;
    float factor = 0;
    switch (speed) {
    case 0:
        ctrl = 1, factor = 4.0f;
        break;
    case 1:
        ctrl = 1, factor = 2.0f;
        break;
    case 2:
    case 12:
    case 13:
        ctrl = 1, factor = 1.0f;
        break;
    case 3:
        ctrl = 1, factor = 0.5f;
        break;
    case 4:
        ctrl = slow, factor = 0.25f;
        break;
    case 5:
        ctrl = slow, factor = 0.125f;
        break;
    case 6:
        ctrl = slow, factor = 0.0625f;
        break;
    case 25:
        ctrl = slow, factor = 0.025f;
        break;
    case 34:
        ctrl = slow, factor = 0.03125f;
        break;
    case 7:
    case 17:
    case 21:
        ctrl = 4, factor = streamRate / 16;
        break;
    case 8:
    case 16:
    case 20:
        ctrl = 4, factor = streamRate / 8;
        break;
    case 9:
    case 15:
    case 19:
        ctrl = 4, factor = playRate / 4;
        break;
    case 10:
    case 14:
    case 18:
        ctrl = 4, factor = streamRate / 2;
        break;
    case 11:
        ctrl = 4, factor = streamRate;
        break;
    case 26:
    case 27:
    case 35:
        ctrl = 4, factor = streamRate / 32;
        break;
    case 28:
    case 29:
        ctrl = 4, factor = streamRate / 64;
        break;
    case 30:
    case 31:
        ctrl = 4, factor = streamRate / 128;
        break;
    case 32:
    case 33:
        ctrl = 4, factor = streamRate / 256;
        break;
    case 22:
    case 23:
    case 24:
        if (file) {
            FILESRC_SetSpeed(fileSrc, speed, FileFrameCtrl(fileSrc));
        }
        return KORVALEN_OK; // accepted, no effect
    default:
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "Port [%03d] Player_SpeedPlay fail, PlaySpeed(%d) not support", port, speed);
        return KORVALEN_ERR_INVALID_PARAM;
    }
    static_assert(kMaxSpeedCode == 35);
    rec->speedFactor = factor;
    if (file) {
        FILESRC_SetSpeed(fileSrc, speed, ctrl);
    }
    return KORVALEN_OK;
}

uint32_t Player_AFrameGo(uint32_t port)
{
    return OnFile(port, nullptr, [](PortRecord&, void* file) {
        FILESRC_Step(file, false);
        return KORVALEN_OK;
    });
}

uint32_t Player_AFrameBack(uint32_t port)
{
    return OnFile(port, nullptr, [](PortRecord&, void* file) {
        FILESRC_Step(file, true);
        return KORVALEN_OK;
    });
}

uint32_t Player_SetPlayedTime(uint32_t port, uint32_t seconds)
{
    return OnFile(port, "Player_SetPlayedTime", [&](PortRecord&, void* file) { return FILESRC_Seek(file, seconds); });
}

uint32_t Player_CurPlayTime(uint32_t port, uint32_t* seconds)
{
    return Player_OnPort(port, [&](PortRecord& rec) {
        if (void* file = FileOf(&rec)) {
            uint32_t err = FILESRC_PlayTime(file, seconds);
            if (err != KORVALEN_OK) {
                KORVALEN_LOG(KORVALEN_LOG_ERROR,
                             "Port [%03d] Player_CurPlayTime fail, File_GetPlayTime fail, error(0x%x)", port, err);
            }
            return err;
        }
        const uint64_t stamp = rec.stream.frame.timestamp;
        if (stamp == 0) {
            return 1u;
        }
        *seconds = static_cast<uint32_t>(stamp / 90000);
        return KORVALEN_OK;
    });
}

uint32_t Player_GetFileTime(uint32_t port, uint32_t* seconds)
{
    return OnFile(port, "Player_GetFileTime", [&](PortRecord&, void* file) { return FILESRC_FileTime(file, seconds); });
}

uint32_t Player_GetPlayTimeEx(uint32_t port, KORVALEN_PLAY_TIME* playTime)
{
    return OnFile(port, nullptr, [&](PortRecord&, void* file) { return FILESRC_PlayTimeEx(file, playTime); });
}

uint32_t Player_MP4GetRealTime(const char* fileName, uint32_t* realTime)
{
    return FILESRC_Mp4RealTime(fileName, realTime);
}

uint32_t Player_CheckMark(uint32_t port, const KORVALEN_MARK_QUERY* query, KORVALEN_MARK_INFO** marks)
{
    return OnFile(port, nullptr, [&](PortRecord& rec, void* file) {
        return FILESRC_CheckMark(file, query, rec.playback.frameRate, marks);
    });
}

uint32_t Player_CheckMarkCancel(uint32_t port)
{
    return Player_OnPort(port, [](PortRecord& rec) {
        if (void* file = FileOf(&rec)) {
            FILESRC_CancelMark(file);
        }
        return KORVALEN_ERR_NOT_SUPPORTED; // always reported as failure, as callers expect
    });
}

uint32_t Player_FreeMarkInfo(KORVALEN_MARK_INFO* marks)
{
    return FILESRC_FreeMarks(marks);
}
