// Play control of a port: start and stop of rendering, pause of files, HLS
// and live pictures, fluency, and one-frame decoding.
#include "log/log.h"
#include "pipeline/player_render.h"
#include "port/player_api.h"
#include "port/port_source.h"
#include "port/port_table.h"
#include "source/file/file_source.h"

namespace {

constexpr uint32_t kMaxFluency = 5;

} // namespace

uint32_t Player_StartPlay(uint32_t port, uint64_t window)
{
    PortRecord* rec = Player_GetPort(port);
    if (!rec) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "Get port[%d] fail", static_cast<int>(port));
        return KORVALEN_ERR_PORT;
    }
    PortPlayback& pb = rec->playback;
    if (pb.rendering) {
        KORVALEN_LOG(KORVALEN_LOG_WARN, "Port [%03d] Player_StartPlay fail, Playing now", port);
        return KORVALEN_OK;
    }
    if (rec->sourceKind == SOURCE_MEDIA_FILE) {
        pb.running = 1;
        FILESRC_OnPlayState(Port_SourceState(rec, &kFileSourceOps), true);
    }
    return Render_Start(rec, window);
}

uint32_t Player_StopPlay(uint32_t port, uint64_t)
{
    PortRecord* rec = Player_GetPort(port);
    if (!rec) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "Get port[%d] fail", static_cast<int>(port));
        return KORVALEN_ERR_PORT;
    }
    if (rec->sourceKind == SOURCE_MEDIA_FILE) {
        rec->playback.running = 0;
        FILESRC_OnPlayState(Port_SourceState(rec, &kFileSourceOps), false);
    }
    Render_Stop(rec);
    return KORVALEN_OK;
}

uint32_t Player_PausePlay(uint32_t port, uint32_t pause)
{
    return Player_OnPort(port, [&](PortRecord& rec) {
        if (rec.sourceKind != SOURCE_MEDIA_FILE && rec.sourceKind != SOURCE_HLS) {
            return KORVALEN_ERR_NOT_SUPPORTED;
        }
        rec.playback.running = pause == 1 ? 0 : 1;
        if (rec.sourceKind == SOURCE_MEDIA_FILE) {
            FILESRC_OnPlayState(Port_SourceState(&rec, &kFileSourceOps), pause != 1);
        }
        return KORVALEN_OK;
    });
}

uint32_t Player_PauseLive(uint32_t port, uint32_t pause)
{
    return Player_OnPort(port, [&](PortRecord& rec) {
        rec.playback.livePaused = pause ? 1 : 0;
        return KORVALEN_OK;
    });
}

uint32_t Player_SetPictureFluency(uint32_t port, uint32_t fluency)
{
    return Player_OnPort(port, [&](PortRecord& rec) {
        if (fluency >= kMaxFluency) {
            return KORVALEN_ERR_INVALID_PARAM;
        }
        rec.playback.fluency = fluency == 2 ? FLUENCY_OFF : fluency;
        return KORVALEN_OK;
    });
}

uint32_t Player_SetOneFrameDecodeMode(uint32_t port)
{
    return Player_OnPort(port, [](PortRecord& rec) {
        rec.playback.oneFrameDecode = 1;
        return KORVALEN_OK;
    });
}
