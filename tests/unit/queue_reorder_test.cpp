// The reordering queue's release rules, case by case.
#include <vector>

#include <gtest/gtest.h>

#include "heap/qmx_heap.h"
#include "korvalen_types.h"
#include "log_capture.h"
#include "media/rtp_payload.h"
#include "queue/queue_packet.h"
#include "queue/queue_reorder.h"

namespace {

std::vector<uint8_t> Rtp(uint16_t seq, uint8_t tag = 0)
{
    std::vector<uint8_t> p(20, tag);
    p[0] = 0x80;
    p[1] = 96;
    p[2] = static_cast<uint8_t>(seq >> 8);
    p[3] = static_cast<uint8_t>(seq);
    return p;
}

struct ReorderTest : ::testing::Test {
    QUEUE_ADJUST_PKT_SEQ q;
    void SetUp() override { ASSERT_EQ(QUEUE_InitAdjustPktSeqQueue(&q, 1500, 10), KORVALEN_OK); }
    void TearDown() override { QUEUE_ReleaseAdjustPktSeqQueue(&q); }

    void Add(uint16_t seq, uint8_t tag = 0)
    {
        auto p = Rtp(seq, tag);
        ASSERT_EQ(QUEUE_AddAdjustPktSeqData(p.data(), static_cast<uint32_t>(p.size()), &q), KORVALEN_OK);
    }
    // Sequence numbers (and tags) of everything ready now.
    std::vector<std::pair<int, int>> Drain()
    {
        std::vector<std::pair<int, int>> out;
        uint8_t* d;
        uint32_t len;
        while (QUEUE_GetAdjustPktSeqData(&q, &d, &len) == KORVALEN_OK) {
            out.emplace_back((d[2] << 8) | d[3], d[len - 1]);
        }
        return out;
    }
};

using Seq = std::vector<std::pair<int, int>>;

} // namespace

// The random model run covers the same rules; these are the hand-picked
// boundaries: a gap held, a repeat of the last taken, the wrap, the ring's end.
TEST_F(ReorderTest, GapsRepeatsWrapAndTheRingsEnd)
{
    LogCapture log;
    Add(65534);
    Add(0);
    Add(65535);
    EXPECT_EQ(Drain(), (Seq{{65534, 0}, {65535, 0}, {0, 0}}));
    Add(0, 7);
    EXPECT_TRUE(log.Has("QUEUE_AddAdjustPktSeqData warm, CurSequenceNum(0), PreSequence(0)"));
    EXPECT_EQ(log.LevelOf("CurSequenceNum(0)"), 3u);
    Add(65535, 5); // older than the last taken: dropped
    EXPECT_EQ(Drain(), (Seq{{0, 7}})) << "the repeat lands on the next place";
    Add(2); // 1 is missing
    EXPECT_TRUE(Drain().empty());
    Add(500); // far beyond the ring: the gap is given up
    EXPECT_EQ(Drain(), (Seq{{500, 0}}));
    Add(510); // exactly at the end of the ring still waits
    EXPECT_TRUE(Drain().empty());
    for (uint16_t s = 501; s < 510; ++s) {
        Add(s);
    }
    EXPECT_EQ(Drain().size(), 10u);
    Add(512);
    Add(521); // one past the ring's end: what waited (512) is given up
    EXPECT_EQ(Drain(), (Seq{{521, 0}}));
}

TEST_F(ReorderTest, RefusesWhatItCannotHold)
{
    LogCapture log;
    std::vector<uint8_t> big(1505, 0x80);
    EXPECT_EQ(QUEUE_AddAdjustPktSeqData(big.data(), 1505, &q), KORVALEN_ERR_INVALID_PARAM);
    EXPECT_TRUE(log.Has("Buffer size 1505 out of queue buffer:1505"));
    EXPECT_EQ(log.LevelOf("Buffer size 1505"), 4u);
    EXPECT_EQ(QUEUE_AddAdjustPktSeqData(big.data(), 0, &q), KORVALEN_OK);
    EXPECT_EQ(log.LevelOf("Buffer size 0 out of queue buffer:1505"), 3u);
    std::vector<uint8_t> notRtp(20, 0x40);
    EXPECT_EQ(QUEUE_AddAdjustPktSeqData(notRtp.data(), 20, &q), KORVALEN_ERR_INVALID_PARAM);
    EXPECT_EQ(QUEUE_AddAdjustPktSeqData(nullptr, 20, &q), KORVALEN_ERR_INVALID_PARAM);
    EXPECT_TRUE(log.Has("QUEUE_AddAdjustPktSeqData failed, invalid param"));
    // A packet between the slot room and the stride is kept, cut to the room.
    std::vector<uint8_t> edge = Rtp(1);
    edge.resize(1502, 0x11);
    EXPECT_EQ(QUEUE_AddAdjustPktSeqData(edge.data(), 1502, &q), KORVALEN_OK);
    uint8_t* d;
    uint32_t len = 0;
    ASSERT_EQ(QUEUE_GetAdjustPktSeqData(&q, &d, &len), KORVALEN_OK);
    EXPECT_EQ(len, 1500u);

    QUEUE_ADJUST_PKT_SEQ other;
    EXPECT_EQ(QUEUE_InitAdjustPktSeqQueue(&other, 0, 10), KORVALEN_ERR_INVALID_PARAM);
    EXPECT_TRUE(log.Has("QUEUE_InitAdjustPktSeqQueue failed, invalid param"));
    uint64_t live = QMX_HeapLiveBytes();
    QMX_HeapFailAt(1);
    EXPECT_EQ(QUEUE_InitAdjustPktSeqQueue(&other, 10240, 10), KORVALEN_ERR_NO_MEMORY);
    QMX_HeapFailAt(0);
    EXPECT_EQ(QMX_HeapLiveBytes(), live);
}

TEST(PacketQueueFrames, FrameEndsByMarkerAndPayloadTypeOrFlv)
{
    QUEUE_PACKET_BUFFER q;
    ASSERT_EQ(QUEUE_InitPacketBuffer(&q, 2048, 100), KORVALEN_OK);
    auto add = [&](std::vector<uint8_t> p, const RTP_PAYLOAD_TABLE* t = nullptr) {
        ASSERT_EQ(QUEUE_AddPacketEx(p.data(), static_cast<uint32_t>(p.size()), t, &q), KORVALEN_OK);
    };
    auto rtp = [](uint8_t pt, bool marker) {
        std::vector<uint8_t> p(40, 0);
        p[0] = 0x80;
        p[1] = static_cast<uint8_t>(pt | (marker ? 0x80 : 0));
        return p;
    };
    add(rtp(96, true));  // dynamic type: H.264
    add(rtp(26, true));  // JPEG
    add(rtp(108, true)); // H.265
    add(rtp(96, false)); // no marker
    add(rtp(0, true));   // G.711
    add(rtp(104, true)); // AAC
    add({'F', 'L', 'V', 1, 5});
    add({'f', 'l', 'v', 9});
    EXPECT_EQ(q.frameCount.load(), 5u);
    uint8_t* d;
    const uint32_t leftAfterTaking[8] = {4, 3, 2, 2, 2, 2, 1, 0};
    for (int i = 0; i < 8; ++i) {
        ASSERT_EQ(QUEUE_GetPacketEx(&q, &d, nullptr, nullptr), KORVALEN_OK);
        EXPECT_EQ(q.frameCount.load(), leftAfterTaking[i]) << "after taking packet " << i;
    }
    // With the port's table saying 96 is AAC, a marked 96 ends no frame.
    RTP_PAYLOAD_TABLE table{};
    table.entries[0] = {96, KORVALEN_CODEC_AAC, 1};
    add(rtp(96, true), &table);
    add(rtp(108, true), &table);
    EXPECT_EQ(q.frameCount.load(), 1u);
    QUEUE_ReleasePacketBuffer(&q);
}
