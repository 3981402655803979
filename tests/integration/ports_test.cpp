// Port table and the standard wrapper, through the C API.
#include <algorithm>
#include <atomic>
#include <set>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "heap/qmx_heap.h"
#include "korvalen.h"
#include "log_capture.h"
#include "port/port_table.h"

namespace {

struct PortsTest : ::testing::Test {
    void SetUp() override { ASSERT_EQ(Korvalen_Init(), 1); }
    void TearDown() override
    {
        Korvalen_SetMaxDecChlNum(256);
        Korvalen_Cleanup();
        EXPECT_EQ(Korvalen_GetInitCount(), 0);
        EXPECT_EQ(QMX_HeapLiveBytes(), 0u);
    }
    uint32_t Alloc()
    {
        uint32_t p = 9999;
        EXPECT_EQ(Korvalen_AllocPort(&p), 1);
        return p;
    }
};

} // namespace

TEST_F(PortsTest, RoundRobinAllocationAndTheLimit)
{
    LogCapture log;
    uint32_t a = Alloc(), b = Alloc(), c = Alloc();
    EXPECT_EQ(a, 0u);
    EXPECT_EQ(b, 1u);
    EXPECT_EQ(c, 2u);
    EXPECT_TRUE(log.Has("Call Korvalen_AllocPort Success, GetPort[001]"));
    EXPECT_TRUE(log.Has("Port 001 Player_AllocPort succes"));
    Korvalen_FreePort(b);
    EXPECT_TRUE(log.Has("Port 001 Player_FreePort succes"));
    EXPECT_EQ(Alloc(), 3u) << "a freed number is the last to be reused";
    // A failed allocation leaks nothing and releases the table lock.
    QMX_HeapFailAt(1);
    uint32_t none = 55;
    EXPECT_EQ(Korvalen_AllocPort(&none), 0);
    QMX_HeapFailAt(0);
    EXPECT_EQ(Korvalen_GetLastError(), KORVALEN_ERR_NO_MEMORY);
    EXPECT_EQ(none, 55u);

    std::vector<uint32_t> got;
    got.push_back(Alloc());
    EXPECT_EQ(got.back(), 4u);
    for (int i = 0; i < 252; ++i) {
        got.push_back(Alloc());
    }
    EXPECT_EQ(got.back(), 1u) << "the freed slot comes last";
    uint32_t extra = 77;
    EXPECT_EQ(Korvalen_AllocPort(&extra), 0);
    EXPECT_EQ(Korvalen_GetLastError(), KORVALEN_ERR_PORT);
    EXPECT_EQ(extra, 77u);
    EXPECT_EQ(Korvalen_AllocPort(nullptr), 0);
    EXPECT_EQ(Korvalen_GetLastError(), KORVALEN_ERR_INVALID_PARAM);
    EXPECT_TRUE(log.Has("Call Korvalen_AllocPort fail, invalid param"));
    // Freeing a free or out-of-range port only logs.
    Korvalen_FreePort(300);
    EXPECT_TRUE(log.Has("Get Port[300] fail"));
}

TEST_F(PortsTest, PortRangeNullOutputsAndStandardLines)
{
    LogCapture log;
    uint32_t p = Alloc();
    EXPECT_EQ(Korvalen_SetBufferCtrl(256, 1), 0);
    EXPECT_EQ(Korvalen_GetLastError(), KORVALEN_ERR_PORT);
    EXPECT_EQ(log.LevelOf("Get Port[256] fail"), 4u);

    EXPECT_EQ(Korvalen_GetFrameRate(p, nullptr), 0);
    EXPECT_EQ(Korvalen_GetLastError(), KORVALEN_ERR_INVALID_PARAM);
    EXPECT_TRUE(log.Has("invalid param"));
    uint32_t w = 0;
    EXPECT_EQ(Korvalen_GetPictureSize(p, &w, nullptr), 0);
    EXPECT_EQ(Korvalen_GetLastError(), KORVALEN_ERR_INVALID_PARAM);

    // An unallocated port in range: 259 from the inner function.
    EXPECT_EQ(Korvalen_SetBufferCtrl(200, 1), 0);
    EXPECT_EQ(Korvalen_GetLastError(), KORVALEN_ERR_PORT);
    EXPECT_TRUE(log.Has("Call Port[200] Player_SetBufferCtrl failed"));

    log.Clear();
    EXPECT_EQ(Korvalen_SetBufferCtrl(p, 0), 1);
    EXPECT_TRUE(log.Has("Call Port[000] Korvalen_SetBufferCtrl"));
    EXPECT_TRUE(log.Has("Call Port[000] Korvalen_SetBufferCtrl Success"));
    EXPECT_EQ(Korvalen_SetBufferCtrl(p, 2), 0);
    EXPECT_EQ(Korvalen_GetLastError(), KORVALEN_ERR_INVALID_PARAM);
    EXPECT_TRUE(log.Has("Port[000] Unknown ctrl type(2)"));
    EXPECT_TRUE(log.Has("Call Port[000] Player_SetBufferCtrl failed"));
    EXPECT_EQ(Player_GetPort(p)->bufferCtrl, 0u);

    // Hot-path statistics calls write no information lines, and their
    // failure line has no port.
    log.Clear();
    uint32_t rate = 0;
    EXPECT_EQ(Korvalen_GetFrameRate(p, &rate), 1);
    EXPECT_EQ(Korvalen_GetFrameRate(200, &rate), 0);
    EXPECT_EQ(Korvalen_GetLastError(), KORVALEN_ERR_PORT);
    EXPECT_EQ(log.Count("Korvalen_GetFrameRate"), 1u) << "no information lines, one failure line";
    EXPECT_TRUE(log.Has("Call Korvalen_GetFrameRate fail, Player_GetFrameRate fail, error(0x103)"));
    EXPECT_EQ(Korvalen_GetEncodeType(200, &rate, &rate), 0);
    EXPECT_TRUE(log.Has("Call Korvalen_GetPictureSize fail, Player_ResetLostPacketRate fail, error(0x103)"));

    // Special results.
    EXPECT_EQ(Korvalen_SetPayloadType(p, 5, nullptr), 2);
    EXPECT_TRUE(log.Has("Invalid Parameter:pstPayloadType=NULL"));
    EXPECT_EQ(Korvalen_SetWindowSize(p, nullptr), 1);
    EXPECT_EQ(Korvalen_FaceCorrectFunc(nullptr, nullptr, nullptr), 0);
    EXPECT_EQ(Korvalen_SetTcpOutTime(10), 1);
}

TEST_F(PortsTest, PacketBufferSettingsAreClamped)
{
    LogCapture log;
    uint32_t p = Alloc();
    PortRecord* rec = Player_GetPort(p);
    ASSERT_NE(rec, nullptr);
    EXPECT_EQ(rec->packetBufferSize, 1000u);
    EXPECT_EQ(rec->bufferCtrl, 1u);
    EXPECT_EQ(rec->callbacks.decodeVideo.option, 1u);

    EXPECT_EQ(Korvalen_SetPacketBuffer(p, 10, 20000), 1);
    EXPECT_EQ(rec->packetBufferSize, 1000u);
    EXPECT_EQ(rec->delayRenderTime, 10000u);
    EXPECT_EQ(Korvalen_SetPacketBuffer(p, 9000, 5), 1);
    EXPECT_EQ(rec->packetBufferSize, 5000u);
    EXPECT_EQ(rec->delayRenderTime, 5u);
    EXPECT_TRUE(log.Has("Call Port[000] Korvalen_SetPacketBuffer BufferSize[9000] DelayRenderTime[5]"));
    EXPECT_EQ(Korvalen_SetPacketBuffer(9, 2000, 5), 0);
    EXPECT_TRUE(log.Has("Call Port[009] Korvalen_SetPacketBuffer failed"));

    // Queue start: untouched without a packet buffer, else counts.
    uint32_t frames = 111, used = 222;
    EXPECT_EQ(Korvalen_GetPacketQueueStart(p, &frames, &used), 1);
    EXPECT_EQ(frames, 111u);
    EXPECT_EQ(used, 222u);
    ASSERT_EQ(QUEUE_InitPacketBuffer(&rec->packetBuffer, 2048, rec->packetBufferSize), KORVALEN_OK);
    uint8_t pkt[5000] = {0x80};
    ASSERT_EQ(QUEUE_AddPacket(pkt, sizeof pkt, &rec->packetBuffer), KORVALEN_OK);
    rec->packetBuffer.frameCount = 1;
    EXPECT_EQ(Korvalen_GetPacketQueueStart(p, &frames, &used), 1);
    EXPECT_EQ(frames, 1u);
    EXPECT_EQ(used, 3u);
    EXPECT_EQ(Korvalen_GetPacketQueueStart(400, &frames, &used), 0);
    EXPECT_EQ(Korvalen_GetLastError(), KORVALEN_ERR_PORT);
}

TEST_F(PortsTest, DecodeChannelLimit)
{
    LogCapture log;
    EXPECT_EQ(Korvalen_SetMaxDecChlNum(256), 1);
    EXPECT_TRUE(log.Has("Korvalen_SetMaxDecChlNum success, Max decode channel number : 256"));
    EXPECT_EQ(Korvalen_SetMaxDecChlNum(257), 0);
    EXPECT_EQ(Korvalen_GetLastError(), KORVALEN_ERR_INVALID_PARAM);
    EXPECT_TRUE(log.Has("Korvalen_SetMaxDecChlNum fail, Max decode channel number : 257"));

    // Two ports already play a source; with a limit of 2 the next open is
    // refused before its own work starts, with 3 it gets through.
    uint32_t a = Alloc(), b = Alloc(), c = Alloc(), idle = Alloc();
    Player_GetPort(a)->sourceKind = SOURCE_NET_STREAM;
    Player_GetPort(b)->sourceKind = SOURCE_MEDIA_FILE;
    EXPECT_EQ(Player_ActivePortCount(), 2u);
    ASSERT_EQ(Korvalen_SetMaxDecChlNum(2), 1);
    EXPECT_EQ(Korvalen_OpenNetStream(c, "127.0.0.1", 0, "127.0.0.1", 5000, 0), 0);
    EXPECT_EQ(Korvalen_GetLastError(), KORVALEN_ERR_PORT_NOT_ENOUGH);
    EXPECT_TRUE(log.Has("Port[002] Korvalen_OpenNetStream fail, Port not enough"));
    EXPECT_EQ(Korvalen_OpenMediaFile(c, "/nonexistent.mp4"), 0);
    EXPECT_EQ(Korvalen_GetLastError(), KORVALEN_ERR_PORT_NOT_ENOUGH);
    EXPECT_EQ(Korvalen_OpenInputStream(c, nullptr, 0, 0), 0);
    EXPECT_TRUE(log.Has("Port[002] Korvalen_OpenInputStream fail, Port not enough"));
    ASSERT_EQ(Korvalen_SetMaxDecChlNum(3), 1);
    EXPECT_EQ(Korvalen_OpenNetStream(c, "127.0.0.1", 0, "127.0.0.1", 0, 0), 1) << "the third source gets through";
    EXPECT_EQ(Korvalen_OpenInputStream(idle, nullptr, 0, 0), 0) << "and a fourth is one too many";
    EXPECT_EQ(Korvalen_GetLastError(), KORVALEN_ERR_PORT_NOT_ENOUGH);
    EXPECT_EQ(Korvalen_CloseNetStream(c), 1);
    Player_GetPort(a)->sourceKind = SOURCE_NONE;
    Player_GetPort(b)->sourceKind = SOURCE_NONE;
}

TEST_F(PortsTest, ConcurrentAllocAndFreeFromEightThreads)
{
    constexpr int kThreads = 8;
    constexpr int kRounds = 300;
    std::atomic<int> failures{0};
    std::vector<std::thread> threads;
    std::mutex seenLock;
    std::set<uint32_t> held;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&] {
            for (int r = 0; r < kRounds; ++r) {
                uint32_t p[4];
                for (uint32_t& x : p) {
                    if (Korvalen_AllocPort(&x) != 1) {
                        ++failures;
                        return;
                    }
                    std::lock_guard<std::mutex> lock(seenLock);
                    if (!held.insert(x).second) {
                        ++failures; // two threads got the same port
                    }
                }
                Korvalen_SetBufferCtrl(p[0], 0);
                for (uint32_t x : p) {
                    {
                        std::lock_guard<std::mutex> lock(seenLock);
                        held.erase(x);
                    }
                    Korvalen_FreePort(x);
                }
            }
        });
    }
    for (auto& t : threads) {
        t.join();
    }
    EXPECT_EQ(failures.load(), 0);
    for (uint32_t p = 0; p < 256; ++p) {
        EXPECT_EQ(Player_GetPort(p), nullptr);
    }
}
