// Live network streams: open and close, NAT parameters, traffic figures, and
// the receive thread that turns UDP datagrams or "$"-framed TCP into packets
// for the port's decode thread, through the reordering queue for video.
#include "net/net_stream.h"

#include <cstring>
#include <netinet/in.h>
#include <sys/socket.h>

#include "log/log.h"
#include "media/codec_facts.h"
#include "net/rtp.h"
#include "platform/platform.h"
#include "heap/qmx_heap.h"
#include "port/player_api.h"
#include "port/port_table.h"
#include "report/report.h"
#include "player/stream_decode.h"
#include "record/record.h"

namespace {

constexpr uint32_t kQueueFullLogEvery = 20;

uint32_t TcpRecv(void* ctx, uint8_t* buf, uint32_t* len)
{
    return NET_TcpRecvMsg(static_cast<NET_SOCKET*>(ctx), buf, len);
}

void FreeNet(PortRecord* rec)
{
    PortNet& n = rec->net;
    NET_DestroySocket(&n.sock);
    QUEUE_ReleaseAdjustPktSeqQueue(&n.reorder);
    QMX_HeapFree(n.recvBuf);
    QMX_HeapFree(n.carryBuf);
    n.recvBuf = n.carryBuf = nullptr;
    n.recvLen = n.carryLen = 0;
}

void Deliver(PortRecord* rec, const uint8_t* data, uint32_t len)
{
    REC_QueuePacket(rec, data, len, 0);
    Stream_QueuePacket(rec, data, len, &rec->net.running, kQueueFullLogEvery);
}

void RecvThread(PortRecord* rec)
{
    PLAT_SetThreadName("NetRecv");
    PortNet& n = rec->net;
    const uint32_t port = rec->port;
    KORVALEN_LOG(KORVALEN_LOG_INFO, "Port [%03d] Start __NetRecvThreadEntry thread succeed", port);
    const bool tcp = n.sock.protocol == NET_PROTO_TCP || n.sock.protocol == NET_PROTO_TCP_FRAMED;
    while (n.running) {
        if (n.natPending.exchange(0)) {
            if (NET_SendNatPkt(&n.sock, &n.nat) != KORVALEN_OK) {
                KORVALEN_LOG(KORVALEN_LOG_ERROR, "NET_SendNatPkt failed");
            }
        }
        const uint8_t* pkt = nullptr;
        uint32_t len = 0;
        if (tcp) {
            uint32_t err = Player_RecvPacketEx(&n, port, &TcpRecv, &n.sock);
            if (err == KORVALEN_ERR_FRAME_INCOMPLETE) {
                continue;
            }
            if (err != KORVALEN_OK) {
                KORVALEN_LOG(KORVALEN_LOG_ERROR, "Port[%03d] NET_RecvPacket failed, error(0x%x)", port, err);
                return;
            }
            const uint32_t framed = (static_cast<uint32_t>(n.recvBuf[2]) << 8 | n.recvBuf[3]) + 4;
            if (n.recvLen != framed) {
                KORVALEN_LOG(KORVALEN_LOG_ERROR, "Port[%03d] __NetRecvThreadEntry fail, RecvData(%d) != PackLen(%d)",
                             port, n.recvLen, framed);
                n.recvLen = 0;
                continue;
            }
            pkt = n.recvBuf + 4;
            len = n.recvLen - 4;
        } else if (n.sock.protocol == NET_PROTO_UDP) {
            uint32_t err = NET_UdpRecvMsg(&n.sock, n.recvBuf, &len);
            if (err != KORVALEN_OK) {
                if (err == KORVALEN_ERR_RECV_ZERO) {
                    uint32_t r = Report_Send(port, kReportStreamEnd, 515, 0, nullptr);
                    if (r != KORVALEN_OK) {
                        KORVALEN_LOG(KORVALEN_LOG_WARN, "Port [%03d] NET_RecvPacket warn, send report fail, error(%d)",
                                     port, r);
                    }
                }
                KORVALEN_LOG(KORVALEN_LOG_ERROR, "Port[%03d] NET_RecvPacket failed", port);
                return;
            }
            pkt = n.recvBuf;
        } else {
            PLAT_SleepMs(kNetRecvWaitMs); // a protocol we do not receive on
            continue;
        }
        if (len == 0) {
            n.recvLen = 0;
            continue;
        }
        NET_CalcBitRate(len, &n.bitrate);
        // Every packet of the video session shares one sequence space: all of
        // them go through the reordering queue (aggregation packets too, or
        // the queue would wait for their numbers and give packets up).
        if (len >= 12 && (pkt[0] & 0xC0) == 0x80 &&
            Codec_IsVideo(RTP_LookupCodec(pkt[1] & 0x7F, &rec->stream.payloads))) {
            uint32_t err = QUEUE_AddAdjustPktSeqData(pkt, len, &n.reorder);
            if (err != KORVALEN_OK) {
                KORVALEN_LOG(KORVALEN_LOG_ERROR, "Port[%03d] QUEUE_AddAdjustPktSeqData failed, error(0x%x)", port, err);
            }
            uint8_t* ready = nullptr;
            uint32_t readyLen = 0;
            while (QUEUE_GetAdjustPktSeqData(&n.reorder, &ready, &readyLen) == KORVALEN_OK) {
                Deliver(rec, ready, readyLen);
            }
        } else {
            Deliver(rec, pkt, len);
        }
        n.recvLen = 0;
    }
}

} // namespace

uint32_t Player_OpenNetStream(uint32_t port, const char* localIp, uint16_t localPort, const char* remoteIp,
                              uint16_t remotePort, uint32_t protocol)
{
    PortRecord* rec = Player_GetPort(port);
    if (!rec) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "Get port[%d] fail", static_cast<int>(port));
        return KORVALEN_ERR_PORT;
    }
    if (rec->sourceKind != SOURCE_NONE) {
        return KORVALEN_ERR_NOT_SUPPORTED; // one source at a time
    }
    PortNet& n = rec->net;
    uint32_t err =
        NET_CreateRecvSocket(localIp, localPort, remoteIp, remotePort, static_cast<int32_t>(protocol), &n.sock);
    if (err != KORVALEN_OK) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "Port[%03d] NET_CreateRecvSocket failed", port);
        return err;
    }
    // Protocol 4 connects over TCP but gets no carry-over buffer, so its
    // framing refuses to run: callers have always had to use 1 for TCP.
    const uint32_t size = protocol == NET_PROTO_TCP ? kNetTcpBufSize : kNetUdpBufSize;
    n.recvBuf = static_cast<uint8_t*>(QMX_HeapMalloc(size));
    if (protocol == NET_PROTO_TCP) {
        n.carryBuf = static_cast<uint8_t*>(QMX_HeapMalloc(kNetTcpBufSize));
    }
    if (!n.recvBuf || (protocol == NET_PROTO_TCP && !n.carryBuf)) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "Port[%03d] QMX_MALLOC[%d] failed", port, static_cast<int>(size));
        FreeNet(rec);
        return KORVALEN_ERR_NO_MEMORY;
    }
    err = Stream_OpenDecodeSide(rec);
    if (err != KORVALEN_OK) {
        FreeNet(rec);
        return err;
    }
    if (QUEUE_InitAdjustPktSeqQueue(&n.reorder, kReorderSlotSize, kReorderDepth) != KORVALEN_OK) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "Port[%03d] QUEUE_InitAdjustPktSeqQueue failed", port);
        Stream_CloseDecodeSide(rec);
        FreeNet(rec);
        return KORVALEN_ERR_NO_MEMORY;
    }
    n.bitrate = NET_BITRATE{};
    n.loss = NET_LOSTSTAT{};
    NET_StatClock(&n.bitrate.startSec, &n.bitrate.startMs);
    NET_StatClock(&n.loss.startSec, &n.loss.startMs);
    n.running = 1;
    try {
        n.recvThread = std::thread(RecvThread, rec);
    } catch (...) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "Port[%03d] KTFW_SDK_thr_create NetRecv failed", port);
        n.running = 0;
        Stream_CloseDecodeSide(rec);
        FreeNet(rec);
        return KORVALEN_ERR_THREAD_CREATE;
    }
    rec->sourceKind = SOURCE_NET_STREAM;
    KORVALEN_LOG(KORVALEN_LOG_INFO, "Port[%03d] Player_OpenNetStream success", port);
    return KORVALEN_OK;
}

uint32_t Player_CloseNetStream(uint32_t port)
{
    PortRecord* rec = Player_GetPort(port);
    if (!rec || rec->sourceKind != SOURCE_NET_STREAM) {
        return KORVALEN_OK;
    }
    Player_StopRecord(port);
    rec->sound.open = 0;
    Player_StopPlay(port, rec->playback.window);
    PortNet& n = rec->net;
    n.running = 0;
    if (n.recvThread.joinable()) {
        n.recvThread.join(); // a receive waits at most 500 ms
    }
    Stream_CloseDecodeSide(rec);
    FreeNet(rec);
    rec->sourceKind = SOURCE_NONE;
    KORVALEN_LOG(KORVALEN_LOG_INFO, "Port [%03d] Player_CloseNetStream success", port);
    return KORVALEN_OK;
}

uint32_t Player_SetNatParam(uint32_t port, uint32_t natMode, const char* session)
{
    return Player_OnPort(port, [&](PortRecord& rec) {
        NET_SetNatParam(natMode, session ? session : "", &rec.net.nat);
        rec.net.natPending = natMode == 1 ? 1 : 0;
        return KORVALEN_OK;
    });
}

uint32_t Player_GetLostPacketRate(uint32_t port, uint32_t* lost, uint32_t* total)
{
    return Player_OnPort(port, [&](PortRecord& rec) {
        *lost = NET_Published(rec.net.loss.lostTotal);
        *total = NET_Published(rec.net.loss.recvTotal);
        return KORVALEN_OK;
    });
}

uint32_t Player_ResetLostPacketRate(uint32_t port)
{
    return Player_OnPort(port, [](PortRecord& rec) {
        NET_ResetLostPacket(&rec.net.loss);
        return KORVALEN_OK;
    });
}

uint32_t Player_GetBitRate(uint32_t port, uint32_t* bitRate)
{
    return Player_OnPort(port, [&](PortRecord& rec) {
        *bitRate = NET_Published(rec.net.bitrate.average);
        return KORVALEN_OK;
    });
}

uint32_t Player_GetLocalNetPort(uint32_t port, uint32_t* rtpPort, uint32_t* rtcpPort)
{
    PortRecord* rec = Player_GetPort(port);
    if (!rec) {
        return KORVALEN_ERR_PORT;
    }
    // The port the stream's socket is bound to (the system picks one when
    // the caller gave 0); RTCP conventionally sits on the next one.
    const NET_SOCKET& sock = rec->net.sock;
    sockaddr_storage addr{};
    socklen_t len = sizeof addr;
    if (rec->sourceKind != SOURCE_NET_STREAM || sock.fd < 0 ||
        getsockname(sock.fd, reinterpret_cast<sockaddr*>(&addr), &len) != 0) {
        return KORVALEN_ERR_NOT_SUPPORTED;
    }
    uint16_t p = addr.ss_family == AF_INET6 ? ntohs(reinterpret_cast<sockaddr_in6*>(&addr)->sin6_port)
                                            : ntohs(reinterpret_cast<sockaddr_in*>(&addr)->sin_port);
    *rtpPort = p;
    *rtcpPort = p + 1u;
    return KORVALEN_OK;
}

uint32_t Player_ReleaseLocalNetPort(uint32_t port)
{
    // Local ports belong to the stream's socket and go with it at close;
    // there is nothing reserved beyond that to give back.
    return Player_GetPort(port) ? KORVALEN_OK : KORVALEN_ERR_PORT;
}
