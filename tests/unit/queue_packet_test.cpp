#include <atomic>
#include <cstring>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "heap/qmx_heap.h"
#include "korvalen_types.h"
#include "log_capture.h"
#include "queue/queue_packet.h"

namespace {

std::vector<uint8_t> Pattern(uint32_t len, uint8_t seed)
{
    std::vector<uint8_t> v(len);
    for (uint32_t i = 0; i < len; ++i) {
        v[i] = static_cast<uint8_t>(seed + i * 7);
    }
    return v;
}

struct PacketQueueTest : ::testing::Test {
    QUEUE_PACKET_BUFFER q;
    void TearDown() override { QUEUE_ReleasePacketBuffer(&q); }

    std::vector<uint8_t> Take()
    {
        uint8_t* data = nullptr;
        uint32_t len = 0;
        EXPECT_EQ(QUEUE_GetPacket(&q, &data, &len), KORVALEN_OK);
        return std::vector<uint8_t>(data, data + len);
    }
};

} // namespace

TEST_F(PacketQueueTest, RefusesWholeAndLogsOneRefusalInTwenty)
{
    // Ten slots hold at most nine.
    ASSERT_EQ(QUEUE_InitPacketBuffer(&q, 100, 10), KORVALEN_OK);
    auto p = Pattern(350, 9); // four slots each
    ASSERT_EQ(QUEUE_AddPacket(p.data(), 350, &q), KORVALEN_OK);
    ASSERT_EQ(QUEUE_AddPacket(p.data(), 350, &q), KORVALEN_OK);
    ASSERT_EQ(QUEUE_OccupiedSlots(&q), 8u);
    LogCapture log;
    for (int i = 0; i < 41; ++i) {
        EXPECT_EQ(QUEUE_AddPacket(p.data(), 350, &q), KORVALEN_ERR_BUFFER_FULL);
    }
    EXPECT_EQ(QUEUE_OccupiedSlots(&q), 8u) << "a refused packet leaves nothing behind";
    EXPECT_EQ(log.Count("Buffer Full(10)"), 3u) << "refusals 1, 21 and 41 are logged";
    EXPECT_TRUE(log.Has(" Buffer Full(10), count(21)"));
    EXPECT_EQ(log.LevelOf("Buffer Full"), 3u);

    // The last free slot taken, the ring is full at its first slot: refused
    // without a log line.
    ASSERT_EQ(QUEUE_AddPacket(p.data(), 1, &q), KORVALEN_OK);
    log.Clear();
    EXPECT_EQ(QUEUE_AddPacket(p.data(), 1, &q), KORVALEN_ERR_BUFFER_FULL);
    EXPECT_EQ(log.Count("Buffer Full"), 0u);
    EXPECT_EQ(q.fullCount, 42u);
    EXPECT_EQ(Take(), p);
}

TEST_F(PacketQueueTest, ZeroSlotQueueAndAllocationFailure)
{
    LogCapture log;
    uint8_t b = 1;
    EXPECT_EQ(QUEUE_AddPacket(&b, 1, &q), KORVALEN_ERR_INVALID_PARAM);
    EXPECT_TRUE(log.Has("QUEUE_AddPacket warm, Buffer Num is zero"));

    uint64_t live = QMX_HeapLiveBytes();
    for (uint64_t n = 1; n <= 2; ++n) { // the read buffer, then the slots
        QMX_HeapFailAt(n);
        EXPECT_EQ(QUEUE_InitPacketBuffer(&q, 276, 256), KORVALEN_ERR_NO_MEMORY);
        QMX_HeapFailAt(0);
        EXPECT_EQ(QMX_HeapLiveBytes(), live) << "nothing is left behind, failing allocation " << n;
    }
    EXPECT_TRUE(log.Has("malloc (size:71680) failed"));
}

TEST_F(PacketQueueTest, ManyWritersOneReaderKeepPacketsWhole)
{
    ASSERT_EQ(QUEUE_InitPacketBuffer(&q, 64, 64), KORVALEN_OK);
    constexpr int kWriters = 4;
    constexpr int kPerWriter = 2000;
    std::atomic<bool> go{false};
    std::vector<std::thread> writers;
    for (int w = 0; w < kWriters; ++w) {
        writers.emplace_back([&, w] {
            while (!go) {
            }
            for (int i = 0; i < kPerWriter; ++i) {
                // [writer][seq lo][seq hi][len-3 bytes of writer id]
                uint8_t pkt[200];
                uint32_t len = 3 + static_cast<uint32_t>((i * 37) % 190);
                pkt[0] = static_cast<uint8_t>(w);
                pkt[1] = static_cast<uint8_t>(i & 0xFF);
                pkt[2] = static_cast<uint8_t>(i >> 8);
                std::memset(pkt + 3, w + 1, len - 3);
                while (QUEUE_AddPacket(pkt, len, &q) == KORVALEN_ERR_BUFFER_FULL) {
                    std::this_thread::yield();
                }
            }
        });
    }
    go = true;
    int next[kWriters] = {};
    int taken = 0;
    while (taken < kWriters * kPerWriter) {
        uint8_t* d = nullptr;
        uint32_t len = 0;
        if (QUEUE_GetPacket(&q, &d, &len) != KORVALEN_OK) {
            std::this_thread::yield();
            continue;
        }
        ASSERT_GE(len, 3u);
        int w = d[0];
        ASSERT_LT(w, kWriters);
        int seq = d[1] | (d[2] << 8);
        ASSERT_EQ(seq, next[w]) << "packets of one writer stay in order";
        ASSERT_EQ(len, 3 + static_cast<uint32_t>((seq * 37) % 190));
        for (uint32_t i = 3; i < len; ++i) {
            ASSERT_EQ(d[i], w + 1);
        }
        ++next[w];
        ++taken;
    }
    for (auto& t : writers) {
        t.join();
    }
}
