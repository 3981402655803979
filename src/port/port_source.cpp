// Opening and closing a port's source, written once for every kind, and the
// inner functions of the live network and pushed sources.
#include "port/port_source.h"

#include "log/log.h"
#include "pipeline/stream_decode.h"
#include "port/player_api.h"
#include "port/port_table.h"
#include "source/hls/hls_source.h"
#include "source/net/net_source.h"
#include "source/push/push_source.h"

uint32_t Port_OpenSource(PortRecord* rec, const SOURCE_OPS* ops, const void* params)
{
    if (rec->sourceKind != SOURCE_NONE) {
        return KORVALEN_ERR_NOT_SUPPORTED; // one source at a time
    }
    SOURCE& s = rec->source;
    Stream_MakeSink(rec, &s.sink);
    uint32_t err = ops->open(params, &s.sink, &s.state);
    if (err != KORVALEN_OK) {
        return err;
    }
    err = ops->framesWhole ? KORVALEN_OK : Stream_OpenDecodeSide(rec);
    if (err == KORVALEN_OK && ops->start) {
        err = ops->start(s.state);
        if (err != KORVALEN_OK && !ops->framesWhole) {
            Stream_CloseDecodeSide(rec);
        }
    }
    if (err != KORVALEN_OK) {
        ops->close(s.state);
        s.state = nullptr;
        return err;
    }
    s.ops = ops;
    rec->sourceKind = ops->kind;
    return KORVALEN_OK;
}

void Port_CloseSource(PortRecord* rec)
{
    SOURCE& s = rec->source;
    if (!s.ops) {
        return;
    }
    Player_StopRecord(rec->port);
    rec->sound.open = 0;
    Player_StopPlay(rec->port, rec->playback.window);
    if (s.ops->stop) {
        s.ops->stop(s.state);
    }
    if (s.ops->framesWhole) {
        Stream_ReleaseDecoders(rec);
    } else {
        Stream_CloseDecodeSide(rec);
    }
    s.ops->close(s.state);
    if (rec->sourceKind == s.ops->kind) {
        rec->sourceKind = SOURCE_NONE;
    }
    s.ops = nullptr;
    s.state = nullptr;
}

void* Port_SourceState(PortRecord* rec, const SOURCE_OPS* ops)
{
    return rec->source.ops == ops ? rec->source.state : nullptr;
}

uint32_t Player_OpenNetStream(uint32_t port, const char* localIp, uint16_t localPort, const char* remoteIp,
                              uint16_t remotePort, uint32_t protocol)
{
    PortRecord* rec = Player_GetPort(port);
    if (!rec) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "Get port[%d] fail", static_cast<int>(port));
        return KORVALEN_ERR_PORT;
    }
    const NETSRC_PARAMS params{localIp, localPort, remoteIp, remotePort, protocol};
    uint32_t err = Port_OpenSource(rec, &kNetSourceOps, &params);
    if (err == KORVALEN_OK) {
        KORVALEN_LOG(KORVALEN_LOG_INFO, "Port[%03d] Player_OpenNetStream success", port);
    }
    return err;
}

uint32_t Player_CloseNetStream(uint32_t port)
{
    PortRecord* rec = Player_GetPort(port);
    // A stream that voice talk opened for itself is closed by voice talk.
    if (!rec || !Port_SourceState(rec, &kNetSourceOps) || rec->sourceKind == SOURCE_VOICE) {
        return KORVALEN_OK;
    }
    Port_CloseSource(rec);
    KORVALEN_LOG(KORVALEN_LOG_INFO, "Port [%03d] Player_CloseNetStream success", port);
    return KORVALEN_OK;
}

uint32_t Player_SetNatParam(uint32_t port, uint32_t natMode, const char* session)
{
    return Player_OnPort(port, [&](PortRecord& rec) {
        if (void* net = Port_SourceState(&rec, &kNetSourceOps)) {
            NETSRC_SetNat(net, natMode, session);
        }
        return KORVALEN_OK;
    });
}

uint32_t Player_GetLostPacketRate(uint32_t port, uint32_t* lost, uint32_t* total)
{
    return Player_OnPort(port, [&](PortRecord& rec) {
        *lost = NET_Published(rec.stream.loss.lostTotal);
        *total = NET_Published(rec.stream.loss.recvTotal);
        return KORVALEN_OK;
    });
}

uint32_t Player_ResetLostPacketRate(uint32_t port)
{
    return Player_OnPort(port, [](PortRecord& rec) {
        NET_ResetLostPacket(&rec.stream.loss);
        return KORVALEN_OK;
    });
}

uint32_t Player_GetBitRate(uint32_t port, uint32_t* bitRate)
{
    return Player_OnPort(port, [&](PortRecord& rec) {
        SOURCE_STATS stats;
        if (rec.source.ops && rec.source.ops->stats) {
            rec.source.ops->stats(rec.source.state, &stats);
        }
        *bitRate = stats.bitRate;
        return KORVALEN_OK;
    });
}

uint32_t Player_GetLocalNetPort(uint32_t port, uint32_t* rtpPort, uint32_t* rtcpPort)
{
    return Player_OnPort(port, [&](PortRecord& rec) {
        void* net = Port_SourceState(&rec, &kNetSourceOps);
        return net ? NETSRC_LocalPort(net, rtpPort, rtcpPort) : KORVALEN_ERR_NOT_SUPPORTED;
    });
}

uint32_t Player_ReleaseLocalNetPort(uint32_t port)
{
    // Local ports belong to the stream's socket and go with it at close;
    // there is nothing reserved beyond that to give back.
    return Player_GetPort(port) ? KORVALEN_OK : KORVALEN_ERR_PORT;
}

uint32_t Player_OpenInputStream(uint32_t port, const uint8_t* data, uint32_t length, uint32_t)
{
    PortRecord* rec = Player_GetPort(port);
    if (!rec) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "Port not exist");
        return KORVALEN_ERR_PORT;
    }
    uint32_t err = Port_OpenSource(rec, &kPushSourceOps, nullptr);
    if (err != KORVALEN_OK) {
        return err;
    }
    KORVALEN_LOG(KORVALEN_LOG_INFO, "Port[%03d] Player_OpenInputStream success", port);
    return data && length ? Player_InputMediaData(port, data, length) : KORVALEN_OK;
}

uint32_t Player_InputMediaData(uint32_t port, const uint8_t* data, uint32_t length)
{
    PortRecord* rec = Player_GetPort(port);
    if (!rec) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "Port[%d] not exist", static_cast<int>(port));
        return KORVALEN_ERR_PORT;
    }
    void* push = Port_SourceState(rec, &kPushSourceOps);
    if (!push) {
        return KORVALEN_ERR_INVALID_PARAM;
    }
    if (length == 0) {
        KORVALEN_LOG(KORVALEN_LOG_WARN, "Player_InputMediaData warm, data len is zero");
        return KORVALEN_OK;
    }
    return PUSHSRC_Input(push, data, length);
}

uint32_t Player_CloseInputStream(uint32_t port)
{
    PortRecord* rec = Player_GetPort(port);
    if (!rec || !Port_SourceState(rec, &kPushSourceOps) || rec->sourceKind == SOURCE_VOICE) {
        return KORVALEN_OK;
    }
    Port_CloseSource(rec);
    KORVALEN_LOG(KORVALEN_LOG_INFO, "Port[%03d] Player_CloseInputStream success", port);
    return KORVALEN_OK;
}

uint32_t Player_OpenHlsStream(uint32_t port)
{
    PortRecord* rec = Player_GetPort(port);
    if (!rec) {
        return KORVALEN_ERR_PORT;
    }
    uint32_t err = Port_OpenSource(rec, &kHlsSourceOps, nullptr);
    if (err != KORVALEN_OK) {
        return err;
    }
    rec->playback.running = 1;
    KORVALEN_LOG(KORVALEN_LOG_INFO, "Port[%03d] Player_OpenHlsStream success", port);
    return KORVALEN_OK;
}

uint32_t Player_CloseHlsStream(uint32_t port)
{
    PortRecord* rec = Player_GetPort(port);
    if (!rec) {
        return KORVALEN_ERR_PORT;
    }
    if (!Port_SourceState(rec, &kHlsSourceOps)) {
        return KORVALEN_OK;
    }
    Port_CloseSource(rec);
    rec->playback.running = 0;
    KORVALEN_LOG(KORVALEN_LOG_INFO, "Port[%03d] Player_CloseHlsStream success", port);
    return KORVALEN_OK;
}

uint32_t Player_UpdatePlayInfo(uint32_t port, const KORVALEN_HLS_PLAY_INFO* info, uint32_t time)
{
    return Player_OnPort(port, [&](PortRecord& rec) {
        void* hls = Port_SourceState(&rec, &kHlsSourceOps);
        return hls ? HLSSRC_Update(hls, info, time) : KORVALEN_ERR_HLS_NOT_OPEN;
    });
}
