// A live stream's receive state: the endpoint, the receive buffers with the
// TCP framing state, the reordering queue and the NAT packet to send.
#pragma once

#include <atomic>
#include <cstdint>

#include "net/net_socket.h"
#include "queue/queue_reorder.h"

constexpr uint32_t kNetTcpBufSize = 20480;
constexpr uint32_t kNetUdpBufSize = 10240;
constexpr uint32_t kNetMaxFrame = 10240; // longer interleaved lengths are corrupt
constexpr uint32_t kReorderSlotSize = 10240;
constexpr uint32_t kReorderDepth = 10;

struct PortNet {
    NET_SOCKET sock;
    uint8_t* recvBuf = nullptr;
    uint32_t recvLen = 0;
    uint8_t* carryBuf = nullptr; // TCP: bytes after the current frame
    uint32_t carryLen = 0;
    QUEUE_ADJUST_PKT_SEQ reorder;
    NET_NAT_PARAM nat{};
    std::atomic<uint32_t> natPending{0};
};

// The TCP framing step: 0 when one whole "$" frame (header included) is in
// recvBuf, 529 when more bytes are needed or bytes were discarded, another
// code when the connection failed. recv fills at most kNetRecvMax bytes.
using NetRecvFn = uint32_t (*)(void* ctx, uint8_t* buf, uint32_t* len);
uint32_t Player_RecvPacketEx(PortNet* net, uint32_t port, NetRecvFn recv, void* ctx);
