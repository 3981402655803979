// Interleaved TCP framing: "$", a channel byte (0 or 2 carry media), a
// 16-bit big-endian length, then the payload. Bytes after the frame wait in
// the carry-over buffer; a corrupt length or stray bytes are skipped up to
// the next frame header.
#include <cstring>
#include <utility>

#include "korvalen_types.h"
#include "log/log.h"
#include "net/net_stream.h"

namespace {

bool IsHeader(const uint8_t* p)
{
    return p[0] == '$' && (p[1] == 0 || p[1] == 2);
}

// Offset of the next frame header at or after from, or len when none.
uint32_t FindHeader(const uint8_t* buf, uint32_t len, uint32_t from)
{
    for (uint32_t i = from; i + 1 < len; ++i) {
        if (IsHeader(buf + i)) {
            return i;
        }
    }
    return len;
}

uint32_t ReceiveMore(PortNet* net, uint32_t port, NetRecvFn recv, void* ctx)
{
    uint32_t got = 0;
    uint32_t err = recv(ctx, net->recvBuf + net->recvLen, &got);
    if (err != KORVALEN_OK) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "Port[%03d] NET_TcpRecvMsg failed", port);
        return err;
    }
    net->recvLen += got;
    return KORVALEN_ERR_FRAME_INCOMPLETE;
}

void Resync(PortNet* net, uint32_t port, uint32_t from)
{
    uint32_t k = FindHeader(net->recvBuf, net->recvLen, from);
    if (k == net->recvLen && net->recvLen - 1 >= from && net->recvBuf[net->recvLen - 1] == '$') {
        k = net->recvLen - 1; // a header cut after its first byte: the rest comes with the next read
    }
    KORVALEN_LOG(KORVALEN_LOG_ERROR, "Port[%03d] Player_RecvPacketEx fail, not find magic, offset(%d)", port, k);
    if (k < net->recvLen) {
        net->carryLen = net->recvLen - k;
        std::memcpy(net->carryBuf, net->recvBuf + k, net->carryLen);
    }
    net->recvLen = 0;
}

} // namespace

uint32_t Player_RecvPacketEx(PortNet* net, uint32_t port, NetRecvFn recv, void* ctx)
{
    if (!net->recvBuf || !net->carryBuf) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "Port[%03d] pcRecvDataAddr %p, pcRecvDataTmpAddr %p", port,
                     static_cast<void*>(net->recvBuf), static_cast<void*>(net->carryBuf));
        return KORVALEN_ERR_INVALID_PARAM;
    }
    if (net->carryLen) {
        std::swap(net->recvBuf, net->carryBuf);
        net->recvLen = net->carryLen;
        net->carryLen = 0;
    }
    if (net->recvLen < 4) {
        return ReceiveMore(net, port, recv, ctx);
    }
    const uint8_t* b = net->recvBuf;
    if (!IsHeader(b)) {
        Resync(net, port, 1);
        return KORVALEN_ERR_FRAME_INCOMPLETE;
    }
    const uint32_t len = static_cast<uint32_t>(b[2]) << 8 | b[3];
    if (len > kNetMaxFrame) {
        Resync(net, port, 4);
        return KORVALEN_ERR_FRAME_INCOMPLETE;
    }
    const uint32_t whole = len + 4;
    if (net->recvLen > whole) {
        net->carryLen = net->recvLen - whole;
        std::memcpy(net->carryBuf, net->recvBuf + whole, net->carryLen);
        net->recvLen = whole;
        return KORVALEN_OK;
    }
    if (net->recvLen == whole) {
        return KORVALEN_OK;
    }
    return ReceiveMore(net, port, recv, ctx);
}
