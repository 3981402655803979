// The "$" TCP framing step, fed by a scripted peer.
#include <deque>
#include <vector>

#include <gtest/gtest.h>

#include "korvalen_types.h"
#include "log_capture.h"
#include "net/net_stream.h"

namespace {

using Bytes = std::vector<uint8_t>;

struct Peer {
    std::deque<Bytes> segments; // what each receive returns
    static uint32_t Recv(void* ctx, uint8_t* buf, uint32_t* len)
    {
        auto* p = static_cast<Peer*>(ctx);
        *len = 0;
        if (p->segments.empty()) {
            return KORVALEN_OK; // a receive that timed out
        }
        Bytes s = p->segments.front();
        p->segments.pop_front();
        std::copy(s.begin(), s.end(), buf);
        *len = static_cast<uint32_t>(s.size());
        return KORVALEN_OK;
    }
};

Bytes Frame(uint8_t channel, uint32_t len, uint8_t fill)
{
    Bytes f{'$', channel, static_cast<uint8_t>(len >> 8), static_cast<uint8_t>(len)};
    f.insert(f.end(), len, fill);
    return f;
}

Bytes Cat(std::initializer_list<Bytes> parts)
{
    Bytes out;
    for (const Bytes& p : parts) {
        out.insert(out.end(), p.begin(), p.end());
    }
    return out;
}

struct FramingTest : ::testing::Test {
    std::vector<uint8_t> a = std::vector<uint8_t>(kNetTcpBufSize), b = std::vector<uint8_t>(kNetTcpBufSize);
    PortNet net;
    Peer peer;
    void SetUp() override
    {
        net.recvBuf = a.data();
        net.carryBuf = b.data();
    }
    // Runs the framing step until it yields a frame (or gives up).
    Bytes Next()
    {
        for (int i = 0; i < 20; ++i) {
            uint32_t err = Player_RecvPacketEx(&net, 1, &Peer::Recv, &peer);
            if (err == KORVALEN_OK) {
                Bytes f(net.recvBuf, net.recvBuf + net.recvLen);
                net.recvLen = 0;
                return f;
            }
            EXPECT_EQ(err, KORVALEN_ERR_FRAME_INCOMPLETE);
        }
        return {};
    }
};

} // namespace

TEST_F(FramingTest, OneAndAHalfFramesAndSplitHeaders)
{
    Bytes f1 = Frame(0, 100, 1), f2 = Frame(2, 300, 2), f3 = Frame(0, 10240, 3);
    Bytes stream = Cat({f1, f2, f3});
    // A segment with the first frame and half the second, then the rest
    // in pieces that split the third header.
    peer.segments = {Bytes(stream.begin(), stream.begin() + 254), Bytes(stream.begin() + 254, stream.begin() + 410 + 2),
                     Bytes(stream.begin() + 410 + 2, stream.begin() + 5000),
                     Bytes(stream.begin() + 5000, stream.end())};
    EXPECT_EQ(Next(), f1);
    EXPECT_EQ(Next(), f2);
    EXPECT_EQ(Next(), f3) << "the largest frame allowed";
}

TEST_F(FramingTest, CorruptLengthsAndStrayBytesResync)
{
    LogCapture log;
    Bytes good = Frame(0, 50, 7);
    Bytes corrupt = {'$', 0, 0xFF, 0xFF, 9, 9, 9}; // length 65535 is beyond any frame
    Bytes rtcp = Frame(1, 20, 8);                  // channel 1 is not ours
    Bytes noise = {1, 2, 3, '$'};
    peer.segments = {Cat({corrupt, good}), Cat({rtcp, good}), Cat({noise, good})};
    EXPECT_EQ(Next(), good);
    EXPECT_TRUE(log.Has("Port[001] Player_RecvPacketEx fail, not find magic, offset(7)"));
    EXPECT_EQ(Next(), good) << "channel 1 bytes are skipped";
    EXPECT_EQ(Next(), good);
    // A read that ends with the first byte of the next header (tiny writes
    // on a busy link): that byte waits for the rest of its header.
    peer.segments = {Cat({rtcp, Bytes{'$'}}), Bytes(good.begin() + 1, good.end())};
    EXPECT_EQ(Next(), good) << "the frame after a skipped one";
    Bytes junk(100, 0x55);
    peer.segments = {junk};
    EXPECT_TRUE(Next().empty());
    EXPECT_TRUE(log.Has("not find magic, offset(100)")) << "nothing to resync to: all dropped";
}

TEST_F(FramingTest, MissingBuffersAndConnectionErrors)
{
    LogCapture log;
    net.carryBuf = nullptr;
    EXPECT_EQ(Player_RecvPacketEx(&net, 2, &Peer::Recv, &peer), KORVALEN_ERR_INVALID_PARAM);
    EXPECT_TRUE(log.Has("Port[002] pcRecvDataAddr"));
    net.carryBuf = b.data();
    auto failing = [](void*, uint8_t*, uint32_t* len) -> uint32_t {
        *len = 0;
        return KORVALEN_ERR_RECV_ZERO;
    };
    EXPECT_EQ(Player_RecvPacketEx(&net, 2, failing, nullptr), KORVALEN_ERR_RECV_ZERO);
    EXPECT_TRUE(log.Has("Port[002] NET_TcpRecvMsg failed"));
}
