// Stream settings the caller gives a port: its payload-type table and the
// AAC configuration of its RTP audio.
#include <cstring>

#include "log/log.h"
#include "port/player_api.h"
#include "port/port_table.h"

uint32_t Player_SetPayloadType(uint32_t port, uint32_t count, const KORVALEN_PAYLOAD_TYPE* entries)
{
    return Player_OnPort(port, [&](PortRecord& rec) {
        RTP_PAYLOAD_TABLE table{};
        for (uint32_t i = 0; i < count && i < 2; ++i) {
            const KORVALEN_PAYLOAD_TYPE& e = entries[i];
            uint32_t codec = KORVALEN_CODEC_NONE;
            if (e.media_kind != 0) {
                static const uint32_t audio[] = {KORVALEN_CODEC_G711U, KORVALEN_CODEC_MP2, KORVALEN_CODEC_AAC,
                                                 KORVALEN_CODEC_G711A, KORVALEN_CODEC_PCM};
                codec = e.stream_kind < 5 ? audio[e.stream_kind] : KORVALEN_CODEC_NONE;
            } else {
                codec = e.stream_kind == 2
                            ? KORVALEN_CODEC_H264
                            : (e.stream_kind == 3 ? KORVALEN_CODEC_MJPEG
                                                  : (e.stream_kind == 4 ? KORVALEN_CODEC_H265 : KORVALEN_CODEC_NONE));
            }
            if (codec == KORVALEN_CODEC_NONE) {
                KORVALEN_LOG(KORVALEN_LOG_WARN, "Unknow Stream Type[%ld]", static_cast<long>(e.stream_kind));
            }
            table.entries[i] = {static_cast<uint8_t>(e.payload_type & 0xFF), codec, 1};
        }
        rec.stream.payloads = table;
        return KORVALEN_OK;
    });
}

uint32_t Player_SetAudioInfo(uint32_t port, const KORVALEN_AUDIO_INFO* info)
{
    return Player_OnPortOrLog(port, [&](PortRecord& rec) {
        std::memcpy(rec.stream.aacConfig, info->config, sizeof rec.stream.aacConfig);
        return KORVALEN_OK;
    });
}
