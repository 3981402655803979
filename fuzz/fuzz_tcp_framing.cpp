// libFuzzer target: arbitrary bytes through the "$" TCP framing step, cut
// into receives of sizes taken from the input itself.
#include <cstdint>
#include <cstring>
#include <vector>

#include "korvalen_types.h"
#include "net/net_stream.h"

namespace {
struct Feed {
    const uint8_t* data;
    size_t size;
    size_t at;
};

uint32_t Recv(void* ctx, uint8_t* buf, uint32_t* len)
{
    auto* f = static_cast<Feed*>(ctx);
    *len = 0;
    if (f->at >= f->size) {
        return KORVALEN_ERR_RECV_ZERO;
    }
    size_t n = 1 + f->data[f->at] * 41 % kNetRecvMax; // receive size from the input
    ++f->at;
    n = n > f->size - f->at ? f->size - f->at : n;
    std::memcpy(buf, f->data + f->at, n);
    f->at += n;
    *len = static_cast<uint32_t>(n);
    return KORVALEN_OK;
}
} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static std::vector<uint8_t> a(kNetTcpBufSize), b(kNetTcpBufSize);
    PortNet net;
    net.recvBuf = a.data();
    net.carryBuf = b.data();
    Feed feed{data, size, 0};
    for (int i = 0; i < 100000; ++i) {
        uint32_t err = Player_RecvPacketEx(&net, 0, &Recv, &feed);
        if (err == KORVALEN_OK) {
            // A yielded frame is whole: header, channel 0 or 2, its length.
            if (net.recvLen < 4 || net.recvBuf[0] != '$' ||
                net.recvLen != 4u + (static_cast<uint32_t>(net.recvBuf[2]) << 8 | net.recvBuf[3])) {
                __builtin_trap();
            }
            net.recvLen = 0;
        } else if (err != KORVALEN_ERR_FRAME_INCOMPLETE) {
            break;
        }
    }
    return 0;
}
