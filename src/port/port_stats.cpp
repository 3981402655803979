// Statistics getters: what the port's decode side has learnt of the stream.
#include "port/player_api.h"
#include "port/port_table.h"

uint32_t Player_GetFrameRate(uint32_t port, uint32_t* frameRate)
{
    return Player_OnPort(port, [&](PortRecord& rec) {
        const PortPlayback& pb = rec.playback;
        *frameRate = rec.sourceKind == SOURCE_MEDIA_FILE ? pb.fileFrameRate.load() : pb.frameRate.load();
        return KORVALEN_OK;
    });
}

uint32_t Player_GetPictureSize(uint32_t port, uint32_t* width, uint32_t* height)
{
    return Player_OnPort(port, [&](PortRecord& rec) {
        *width = rec.playback.pictureWidth;
        *height = rec.playback.pictureHeight;
        return KORVALEN_OK;
    });
}

uint32_t Player_GetEncodeType(uint32_t port, uint32_t* videoType, uint32_t* audioType)
{
    return Player_OnPort(port, [&](PortRecord& rec) {
        *videoType = rec.playback.videoCodec;
        *audioType = rec.playback.audioCodec;
        return KORVALEN_OK;
    });
}
