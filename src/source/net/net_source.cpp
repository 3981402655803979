// The live network source: open and close, NAT parameters, traffic figures,
// and the receive thread that turns UDP datagrams or "$"-framed TCP into
// packets for the port's pipeline, through the reordering queue for video.
#include "source/net/net_source.h"

#include <cstring>
#include <netinet/in.h>
#include <sys/socket.h>

#include "heap/qmx_heap.h"
#include "log/log.h"
#include "media/codec_facts.h"
#include "net/net_stream.h"
#include "platform/platform.h"
#include "report/report.h"

namespace {

constexpr uint32_t kQueueFullLogEvery = 20;

struct NetSource {
    PortNet n;
    SOURCE_THREAD thread;
    NET_BITRATE bitrate{};
    SOURCE_SINK sink;
};

uint32_t TcpRecv(void* ctx, uint8_t* buf, uint32_t* len)
{
    return NET_TcpRecvMsg(static_cast<NET_SOCKET*>(ctx), buf, len);
}

void FreeNet(NetSource* src)
{
    PortNet& n = src->n;
    NET_DestroySocket(&n.sock);
    QUEUE_ReleaseAdjustPktSeqQueue(&n.reorder);
    QMX_HeapFree(n.recvBuf);
    QMX_HeapFree(n.carryBuf);
    n.recvBuf = n.carryBuf = nullptr;
    n.recvLen = n.carryLen = 0;
}

void Deliver(NetSource* src, const uint8_t* data, uint32_t len)
{
    src->sink.packet(src->sink.ctx, data, len, &src->thread.running, kQueueFullLogEvery, 0);
}

void RecvThread(NetSource* src)
{
    PLAT_SetThreadName("NetRecv");
    PortNet& n = src->n;
    const uint32_t port = src->sink.port;
    KORVALEN_LOG(KORVALEN_LOG_INFO, "Port [%03d] Start __NetRecvThreadEntry thread succeed", port);
    const bool tcp = n.sock.protocol == NET_PROTO_TCP || n.sock.protocol == NET_PROTO_TCP_FRAMED;
    while (src->thread.running) {
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
        NET_CalcBitRate(len, &src->bitrate);
        // Every packet of the video session shares one sequence space: all of
        // them go through the reordering queue (aggregation packets too, or
        // the queue would wait for their numbers and give packets up).
        if (len >= 12 && (pkt[0] & 0xC0) == 0x80 && Codec_IsVideo(RTP_LookupCodec(pkt[1] & 0x7F, src->sink.payloads))) {
            uint32_t err = QUEUE_AddAdjustPktSeqData(pkt, len, &n.reorder);
            if (err != KORVALEN_OK) {
                KORVALEN_LOG(KORVALEN_LOG_ERROR, "Port[%03d] QUEUE_AddAdjustPktSeqData failed, error(0x%x)", port, err);
            }
            uint8_t* ready = nullptr;
            uint32_t readyLen = 0;
            while (QUEUE_GetAdjustPktSeqData(&n.reorder, &ready, &readyLen) == KORVALEN_OK) {
                Deliver(src, ready, readyLen);
            }
        } else {
            Deliver(src, pkt, len);
        }
        n.recvLen = 0;
    }
}

uint32_t Open(const void* params, const SOURCE_SINK* sink, void** state)
{
    const auto* p = static_cast<const NETSRC_PARAMS*>(params);
    const uint32_t port = sink->port;
    NetSource* src = QMX_New<NetSource>();
    if (!src) {
        return KORVALEN_ERR_NO_MEMORY;
    }
    src->sink = *sink;
    PortNet& n = src->n;
    uint32_t err = NET_CreateRecvSocket(p->localIp, p->localPort, p->remoteIp, p->remotePort,
                                        static_cast<int32_t>(p->protocol), &n.sock);
    if (err != KORVALEN_OK) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "Port[%03d] NET_CreateRecvSocket failed", port);
        QMX_Delete(src);
        return err;
    }
    // Protocol 4 connects over TCP but gets no carry-over buffer, so its
    // framing refuses to run: callers have always had to use 1 for TCP.
    const uint32_t size = p->protocol == NET_PROTO_TCP ? kNetTcpBufSize : kNetUdpBufSize;
    n.recvBuf = static_cast<uint8_t*>(QMX_HeapMalloc(size));
    if (p->protocol == NET_PROTO_TCP) {
        n.carryBuf = static_cast<uint8_t*>(QMX_HeapMalloc(kNetTcpBufSize));
    }
    if (!n.recvBuf || (p->protocol == NET_PROTO_TCP && !n.carryBuf)) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "Port[%03d] QMX_MALLOC[%d] failed", port, static_cast<int>(size));
        FreeNet(src);
        QMX_Delete(src);
        return KORVALEN_ERR_NO_MEMORY;
    }
    if (QUEUE_InitAdjustPktSeqQueue(&n.reorder, kReorderSlotSize, kReorderDepth) != KORVALEN_OK) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "Port[%03d] QUEUE_InitAdjustPktSeqQueue failed", port);
        FreeNet(src);
        QMX_Delete(src);
        return KORVALEN_ERR_NO_MEMORY;
    }
    NET_StatClock(&src->bitrate.startSec, &src->bitrate.startMs);
    *state = src;
    return KORVALEN_OK;
}

uint32_t Start(void* state)
{
    auto* src = static_cast<NetSource*>(state);
    if (SOURCE_StartThread(&src->thread, RecvThread, src) != KORVALEN_OK) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "Port[%03d] KTFW_SDK_thr_create NetRecv failed", src->sink.port);
        return KORVALEN_ERR_THREAD_CREATE;
    }
    return KORVALEN_OK;
}

void Stop(void* state)
{
    SOURCE_StopThread(&static_cast<NetSource*>(state)->thread); // a receive waits at most 500 ms
}

void Close(void* state)
{
    auto* src = static_cast<NetSource*>(state);
    FreeNet(src);
    QMX_Delete(src);
}

void Stats(void* state, SOURCE_STATS* out)
{
    out->bitRate = NET_Published(static_cast<NetSource*>(state)->bitrate.average);
}

} // namespace

const SOURCE_OPS kNetSourceOps = {"net", SOURCE_NET_STREAM, Open, Start, Stop, Close, Stats, false};

void NETSRC_SetNat(void* state, uint32_t natMode, const char* session)
{
    PortNet& n = static_cast<NetSource*>(state)->n;
    NET_SetNatParam(natMode, session ? session : "", &n.nat);
    n.natPending = natMode == 1 ? 1 : 0;
}

NET_SOCKET* NETSRC_Socket(void* state)
{
    return &static_cast<NetSource*>(state)->n.sock;
}

uint32_t NETSRC_LocalPort(void* state, uint32_t* rtpPort, uint32_t* rtcpPort)
{
    // The port the stream's socket is bound to (the system picks one when
    // the caller gave 0); RTCP conventionally sits on the next one.
    const NET_SOCKET& sock = static_cast<NetSource*>(state)->n.sock;
    sockaddr_storage addr{};
    socklen_t len = sizeof addr;
    if (sock.fd < 0 || getsockname(sock.fd, reinterpret_cast<sockaddr*>(&addr), &len) != 0) {
        return KORVALEN_ERR_NOT_SUPPORTED;
    }
    uint16_t p = addr.ss_family == AF_INET6 ? ntohs(reinterpret_cast<sockaddr_in6*>(&addr)->sin6_port)
                                            : ntohs(reinterpret_cast<sockaddr_in*>(&addr)->sin_port);
    *rtpPort = p;
    *rtcpPort = p + 1u;
    return KORVALEN_OK;
}
