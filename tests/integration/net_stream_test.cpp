// Live network streams through the C API: ffmpeg sends RTP over UDP to the
// port, or a test peer serves the same packets "$"-framed over TCP; every
// decoded picture matches ffmpeg's own decode of the source file.
#include <arpa/inet.h>
#include <atomic>
#include <chrono>
#include <mutex>
#include <netinet/in.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

#include "../unit/codec_media.h"
#include "../unit/rtp_peer.h"
#include "decoded_pictures.h"
#include "korvalen.h"
#include "log_capture.h"
#include "platform/qmx_heap.h"
#include "player/port_table.h"

using rtp_peer::BoundPort;
using rtp_peer::Fixture;
using rtp_peer::ReceiveWhile;

namespace {

// A local port nobody uses right now.
uint16_t FreeUdpPort()
{
    int fd = socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a);
    uint16_t port = BoundPort(fd);
    close(fd);
    return port;
}

// H.264 RTP packets as ffmpeg sends them (captured once per process).
const std::vector<rtp_peer::Bytes>& H264Packets()
{
    static std::vector<rtp_peer::Bytes> packets;
    if (packets.empty()) {
        NET_SOCKET sock;
        NET_CreateRecvSocket("127.0.0.1", 0, "127.0.0.1", 0, NET_PROTO_UDP, &sock);
        int code = -1;
        packets = ReceiveWhile(&sock,
                               "ffmpeg -hide_banner -loglevel error -re -f h264 -i " + Fixture("rtp_h264.h264") +
                                   " -c:v copy -f rtp rtp://127.0.0.1:" + std::to_string(BoundPort(sock.fd)),
                               &code);
        NET_DestroySocket(&sock);
    }
    return packets;
}

struct NetStreamTest : ::testing::Test {
    uint32_t port = 0;
    DecodedPictures got;
    void SetUp() override
    {
        ASSERT_EQ(Korvalen_Init(), 1);
        ASSERT_EQ(Korvalen_AllocPort(&port), 1);
        ASSERT_EQ(Korvalen_SetPictureFluency(port, 0), 1);
        ASSERT_EQ(Korvalen_SetDecodeVideoMediaDataCB(port, &DecodedPictures::OnDecoded, 1, &got), 1);
    }
    void TearDown() override
    {
        Korvalen_Cleanup();
        EXPECT_EQ(QMX_HeapLiveBytes(), 0u);
    }
    void ExpectPicturesMatch(const std::vector<std::string>& want)
    {
        got.Wait(want.size());
        std::lock_guard<std::mutex> lock(got.lock);
        EXPECT_GE(got.md5s.size() + 1, want.size());
        for (size_t i = 0; i < got.md5s.size() && i < want.size(); ++i) {
            EXPECT_EQ(got.md5s[i], want[i]) << "picture " << i;
        }
    }
};

} // namespace

TEST_F(NetStreamTest, UdpFromFfmpeg)
{
    const std::string file = Fixture("rtp_h264.h264");
    ASSERT_FALSE(file.empty());
    const uint16_t local = FreeUdpPort();
    ASSERT_EQ(Korvalen_OpenNetStream(port, "127.0.0.1", local, "127.0.0.1", 0, 0), 1);
    ASSERT_EQ(Korvalen_StartPlay(port, 0), 1);
    uint32_t rtp = 0, rtcp = 0;
    ASSERT_EQ(Korvalen_GetLocalNetPort(port, &rtp, &rtcp), 1);
    EXPECT_EQ(rtp, local);
    EXPECT_EQ(rtcp, local + 1u);
    std::string cmd = "ffmpeg -hide_banner -loglevel error -re -f h264 -i " + file +
                      " -c:v copy -f rtp rtp://127.0.0.1:" + std::to_string(local) + " >/dev/null 2>&1";
    ASSERT_EQ(std::system(cmd.c_str()), 0);
    ExpectPicturesMatch(FfmpegFrameMd5(file));

    uint32_t lost = 99, total = 0, rate = 0, w = 0, h = 0, video = 0, audio = 0, fps = 0;
    ASSERT_EQ(Korvalen_GetLostPacketRate(port, &lost, &total), 1);
    EXPECT_EQ(lost, 0u);
    ASSERT_EQ(Korvalen_GetBitRate(port, &rate), 1);
    ASSERT_EQ(Korvalen_GetPictureSize(port, &w, &h), 1);
    EXPECT_EQ(w, 640u);
    EXPECT_EQ(h, 360u);
    ASSERT_EQ(Korvalen_GetEncodeType(port, &video, &audio), 1);
    EXPECT_EQ(video, KORVALEN_CODEC_H264);
    EXPECT_EQ(audio, KORVALEN_CODEC_NONE) << "no sound in this stream";
    ASSERT_EQ(Korvalen_GetFrameRate(port, &fps), 1);
    EXPECT_EQ(fps, 25u) << "from the RTP time stamps";
    LogCapture log;
    ASSERT_EQ(Korvalen_SetNatParam(port, 1, "0123456789abcdef"), 1);
    for (int i = 0; i < 100 && !log.Has("NET_SendNatPkt failed"); ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    EXPECT_EQ(log.Count("NET_SendNatPkt failed"), 1u) << "UDP has no connection to send it on; once only";
    ASSERT_EQ(Korvalen_CloseNetStream(port), 1);
    EXPECT_TRUE(log.Has("Port [000] Korvalen_CloseNetStream") || log.Has("Port [000] Player_CloseNetStream success"));
}

// The camera end of a TCP session: accepts the port's connection and writes
// the packets "$"-framed, in segments that cut frames apart, with RTCP on
// channel 1 and a burst of garbage in between.
TEST_F(NetStreamTest, TcpInterleavedWithResync)
{
    const auto& packets = H264Packets();
    ASSERT_GT(packets.size(), 20u);
    int listener = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(bind(listener, reinterpret_cast<sockaddr*>(&a), sizeof a), 0);
    ASSERT_EQ(listen(listener, 1), 0);
    const uint16_t serverPort = BoundPort(listener);
    std::atomic<bool> sent{false};
    std::thread camera([&] {
        int c = accept(listener, nullptr, nullptr);
        std::vector<uint8_t> wire;
        for (size_t i = 0; i < packets.size(); ++i) {
            const auto& p = packets[i];
            uint8_t h[4] = {'$', 0, static_cast<uint8_t>(p.size() >> 8), static_cast<uint8_t>(p.size())};
            wire.insert(wire.end(), h, h + 4);
            wire.insert(wire.end(), p.begin(), p.end());
            if (i == 3) {
                uint8_t rtcp[12] = {'$', 1, 0, 8, 0x80, 200, 0, 1, 0, 0, 0, 0};
                wire.insert(wire.end(), rtcp, rtcp + 12);
            }
        }
        for (size_t at = 0; at < wire.size();) {
            size_t n = std::min<size_t>(wire.size() - at, 3000); // cuts frames apart
            ssize_t w = send(c, wire.data() + at, n, MSG_NOSIGNAL);
            if (w <= 0) {
                break;
            }
            at += static_cast<size_t>(w);
        }
        sent = true;
        std::this_thread::sleep_for(std::chrono::milliseconds(1500));
        close(c);
    });
    ASSERT_EQ(Korvalen_OpenNetStream(port, nullptr, 0, "127.0.0.1", serverPort, 1), 1);
    ExpectPicturesMatch(FfmpegFrameMd5(Fixture("rtp_h264.h264")));
    camera.join();
    close(listener);
    ASSERT_EQ(Korvalen_CloseNetStream(port), 1);
}

TEST_F(NetStreamTest, OpenFailuresAndLimits)
{
    LogCapture log;
    EXPECT_EQ(Korvalen_OpenNetStream(port, nullptr, 0, "not-an-address", 5000, 1), 0);
    EXPECT_TRUE(log.Has("Port[000] NET_CreateRecvSocket failed"));
    EXPECT_EQ(Player_GetPort(port)->sourceKind, 0u);
    const uint16_t local = FreeUdpPort();
    ASSERT_EQ(Korvalen_OpenNetStream(port, "127.0.0.1", local, "127.0.0.1", 0, 0), 1);
    EXPECT_EQ(Korvalen_OpenNetStream(port, "127.0.0.1", local, "127.0.0.1", 0, 0), 0) << "one source at a time";
    EXPECT_EQ(Korvalen_OpenInputStream(port, nullptr, 0, 0), 0);
    // Freeing the port closes the stream and its threads.
    Korvalen_FreePort(port);
    EXPECT_EQ(Player_GetPort(port), nullptr);
}
