// Hand-made packets for what no real sender produces: CSRCs, extensions,
// truncated headers, NAL types outside the accepted set, sequence gaps,
// oversize frames, audio payload limits.
#include <gtest/gtest.h>

#include "log_capture.h"
#include "rtp_packets.h"

using namespace rtp_packets;

namespace {

TEST_F(Depacketizer, PayloadTypesMapThroughCustomThenDefaultTable)
{
    LogCapture log;
    EXPECT_EQ(RTP_LookupCodec(96, nullptr), KORVALEN_CODEC_H264);
    EXPECT_EQ(Feed(Rtp(18, 1, Filled(20, 0))), KORVALEN_ERR_UNKNOWN_STREAM);
    EXPECT_TRUE(log.Has("Unknown Stream type(18)"));
    EXPECT_EQ(log.LevelOf("Unknown Stream type(18)"), KORVALEN_LOG_WARN);

    // Payload 0 is G.711 by default; a custom entry in use takes it over.
    custom.entries[1] = {0, KORVALEN_CODEC_H265, 1};
    const Bytes nal = Concat({{0x40, 0x01}, Filled(30, 0x11)}); // H.265 VPS
    ASSERT_EQ(Feed(Rtp(0, 1, nal, Marked())), KORVALEN_OK);
    EXPECT_EQ(done, &video);
    EXPECT_EQ(Frame(video), Concat({kSc, nal}));
    custom.entries[1].inUse = 0;
    ASSERT_EQ(Feed(Rtp(0, 2, Filled(160, 0xFF))), KORVALEN_OK);
    EXPECT_EQ(done, &audio);
    EXPECT_EQ(audio.codecType, KORVALEN_CODEC_G711U);
    EXPECT_EQ(audio.frameType, RTP_FRAME_AUDIO);

    // Payload 121 is carried as it is; AAC 120 has no ADTS header, 104 needs
    // its 4-byte AU header section.
    ASSERT_EQ(Feed(Rtp(121, 3, Filled(320, 0x10))), KORVALEN_OK);
    EXPECT_EQ(audio.codecType, KORVALEN_CODEC_PCM);
    EXPECT_EQ(Frame(audio), Filled(320, 0x10));
    ASSERT_EQ(Feed(Rtp(120, 4, Filled(100, 0x21))), KORVALEN_OK);
    EXPECT_EQ(Frame(audio), Filled(100, 0x21));
    EXPECT_EQ(Feed(Rtp(104, 5, {0, 16, 1})), 2u);
    EXPECT_TRUE(log.Has("RTP_SpellFrameNotH264 fail, ulLen(15), pstRTPPacketInfo->ucESOffset(12), "
                        "pstRTPStreamInfo->ulFrameLen(0)"));

    uint8_t pt = 0;
    EXPECT_EQ(RTP_TypeToRtpPayload(KORVALEN_CODEC_AAC, &pt), KORVALEN_OK);
    EXPECT_EQ(pt, 120);
    EXPECT_EQ(RTP_TypeToRtpPayload(KORVALEN_CODEC_MP2, &pt), KORVALEN_ERR_UNKNOWN_STREAM);
    EXPECT_TRUE(log.Has("RTP_TypeToRtpPayload fail, unknown type(1)"));
}

TEST_F(Depacketizer, CsrcsAndExtensionShiftThePayloadAndTheFlagIsKept)
{
    const Bytes nal = Filled(50, 0x65);
    Bytes ext = {0x11, 0x22, 0x33, 0x44, 0, 0, 0, 0, 0x10, 0, 0, 0}; // flag bit in the third word
    ASSERT_EQ(Feed(Rtp(96, 1, nal, Opts(true, 3, ext))), KORVALEN_OK);
    EXPECT_EQ(Frame(video), Concat({kSc, nal}));
    EXPECT_EQ(video.extWord, 0x11223344u);
    EXPECT_EQ(video.extFlag, 1u);
    EXPECT_EQ(video.frameType, RTP_FRAME_KEY);

    ext[8] = 0x01;
    ASSERT_EQ(Feed(Rtp(96, 2, nal, Opts(true, 0, ext))), KORVALEN_OK);
    EXPECT_EQ(video.extFlag, 0u);

    // Truncated: a header cut short, an extension longer than the packet,
    // a header with nothing after it.
    Bytes full = Rtp(96, 3, nal, Opts(true, 2, ext));
    for (uint32_t len : {0u, 5u, 11u, 12u, 20u, 27u, 36u}) {
        EXPECT_EQ(RTP_SpellFrame(full.data(), len, &custom, &aac, &video, &audio, &done), KORVALEN_ERR_NEED_MORE_DATA)
            << len;
    }
    Bytes hugeExt = Rtp(96, 3, nal, Opts(false, 0, ext));
    hugeExt[14] = 0xFF; // 65280 words
    EXPECT_EQ(Feed(hugeExt), KORVALEN_ERR_NEED_MORE_DATA);
    EXPECT_EQ(RTP_PayloadOffset(hugeExt.data(), static_cast<uint32_t>(hugeExt.size())), 0u);
}

TEST_F(Depacketizer, SequenceGapsDiscardTheFrameAndWrapIsInOrder)
{
    LogCapture log;
    const Bytes fuStart = Concat({{0x7C, 0x85}, Filled(100, 0x01)});
    const Bytes fuMid = Concat({{0x7C, 0x05}, Filled(100, 0x02)});
    const Bytes fuEnd = Concat({{0x7C, 0x45}, Filled(100, 0x03)});
    EXPECT_EQ(Feed(Rtp(96, 65534, fuStart)), KORVALEN_ERR_NEED_MORE_DATA);
    EXPECT_EQ(Feed(Rtp(96, 65535, fuMid)), KORVALEN_ERR_NEED_MORE_DATA);
    EXPECT_EQ(Feed(Rtp(96, 0, fuEnd, Marked())), KORVALEN_OK) << "65535 then 0 is in order";
    EXPECT_EQ(video.frameLen, 4u + 1 + 3 * 100);
    EXPECT_FALSE(log.Has("Cur Num"));

    EXPECT_EQ(Feed(Rtp(96, 10, fuStart)), KORVALEN_ERR_PACKET_LOST) << "1 -> 10 is a gap too";
    EXPECT_EQ(Feed(Rtp(96, 11, fuStart)), KORVALEN_ERR_NEED_MORE_DATA);
    EXPECT_EQ(Feed(Rtp(96, 13, fuMid)), KORVALEN_ERR_PACKET_LOST);
    EXPECT_TRUE(log.Has("Cur Num:13, Pro Num:11"));
    EXPECT_EQ(log.LevelOf("Cur Num:13"), KORVALEN_LOG_INFO);
    EXPECT_EQ(video.frameLen, 0u) << "the frame being built is discarded";
    EXPECT_EQ(Feed(Rtp(96, 14, fuEnd, Marked())), KORVALEN_ERR_PACKET_LOST) << "the rest of the broken frame is lost";
    EXPECT_EQ(Feed(Rtp(96, 15, fuStart)), KORVALEN_ERR_NEED_MORE_DATA);
    EXPECT_EQ(Feed(Rtp(96, 16, fuEnd, Marked())), KORVALEN_OK) << "the next frame resynchronises";
    EXPECT_EQ(Feed(Rtp(96, 16, fuStart)), KORVALEN_ERR_PACKET_LOST) << "a duplicate is a gap";

    // A switch to another video codec that continues the numbering is fine;
    // audio numbers are checked on their own.
    const Bytes jpeg = Concat({{0, 0, 0, 0, 1, 50, 2, 2}, Filled(64, 0x12)});
    EXPECT_EQ(Feed(Rtp(26, 17, jpeg, Marked())), KORVALEN_OK);
    EXPECT_EQ(Feed(Rtp(0, 500, Filled(160, 0xFF))), KORVALEN_OK);
    EXPECT_EQ(Feed(Rtp(0, 501, Filled(160, 0xFF))), KORVALEN_OK);
    EXPECT_EQ(Feed(Rtp(0, 600, Filled(160, 0xFF))), KORVALEN_ERR_PACKET_LOST);
    // Analytics packets never report gaps.
    EXPECT_EQ(Feed(Rtp(50, 1, Filled(10, 0), Marked())), KORVALEN_OK);
    EXPECT_EQ(Feed(Rtp(50, 9, Filled(10, 0), Marked())), KORVALEN_OK);
}

TEST_F(Depacketizer, H264NalKindsAndTheirFailures)
{
    LogCapture log;
    // NAL types outside the accepted set are refused before the sequence
    // check, with the packet's first bytes logged at debug level.
    for (uint8_t type : {0, 2, 3, 4, 10, 25, 26, 27, 29, 31}) {
        EXPECT_EQ(Feed(Rtp(96, 1, Filled(20, type))), KORVALEN_ERR_NEED_MORE_DATA) << int(type);
    }
    EXPECT_TRUE(log.Has("80 60 00 01\t 00 00"));
    EXPECT_EQ(log.LevelOf("80 60 00 01"), KORVALEN_LOG_DEBUG);

    // STAP-A: each unit gets a start code; an SPS first keeps the frame open.
    const Bytes sps = Filled(12, 0x67), pps = Filled(4, 0x68);
    const Bytes stap = Concat({{0x18, 0, 12}, sps, {0, 4}, pps});
    EXPECT_EQ(Feed(Rtp(96, 1, stap, Marked())), KORVALEN_ERR_NEED_MORE_DATA);
    EXPECT_EQ(Frame(video), Concat({kSc, sps, kSc, pps}));
    const Bytes idr = Filled(40, 0x65);
    ASSERT_EQ(Feed(Rtp(96, 2, idr, Marked())), KORVALEN_OK);
    EXPECT_EQ(Frame(video), Concat({kSc, sps, kSc, pps, kSc, idr}));
    EXPECT_EQ(video.frameType, RTP_FRAME_KEY);

    // A P slice alone: not a key frame; behind an SPS: a key frame.
    ASSERT_EQ(Feed(Rtp(96, 3, Filled(40, 0x41), Marked())), KORVALEN_OK);
    EXPECT_EQ(video.frameType, RTP_FRAME_OTHER);
    EXPECT_EQ(Feed(Rtp(96, 4, sps, Marked())), KORVALEN_ERR_NEED_MORE_DATA) << "SPS never ends a frame";
    ASSERT_EQ(Feed(Rtp(96, 5, Filled(40, 0x41), Marked())), KORVALEN_OK);
    EXPECT_EQ(video.frameType, RTP_FRAME_KEY);

    const Bytes badStap = Concat({{0x18, 0, 12}, sps, {0, 5}, pps});
    EXPECT_EQ(Feed(Rtp(96, 6, badStap)), 1u);
    EXPECT_TRUE(log.Has("RTP_SpellFrameH264 fail, STAP_A Packet len no enough"));
    EXPECT_EQ(video.frameLen, 0u);

    // FU-A fragments with no start: lost, logged once in twenty.
    for (uint16_t i = 0; i < 21; ++i) {
        EXPECT_EQ(Feed(Rtp(96, static_cast<uint16_t>(7 + i), {0x7C, 0x05, 1, 2})), KORVALEN_ERR_PACKET_LOST);
    }
    EXPECT_EQ(log.Count("PACKET LOSE data"), 2u);
    EXPECT_TRUE(log.Has("PACKET LOSE data, count(21)"));
    // An FU end bit completes the frame even without the marker.
    ASSERT_EQ(Feed(Rtp(96, 28, {0x7C, 0x85, 0xAA})), KORVALEN_ERR_NEED_MORE_DATA);
    ASSERT_EQ(Feed(Rtp(96, 29, {0x7C, 0x45, 0xBB})), KORVALEN_OK);
    EXPECT_EQ(Frame(video), Concat({kSc, {0x65, 0xAA, 0xBB}})) << "header rebuilt from indicator and FU header";
    EXPECT_EQ(Feed(Rtp(96, 30, {0x7C})), KORVALEN_ERR_PACKET_LOST) << "FU-A without its FU header";
    EXPECT_TRUE(log.Has("NALOffset(14) > RTP PacketLen(13)"));
}

TEST_F(Depacketizer, OversizeFramesFailAndTheNextFrameStillAssembles)
{
    LogCapture log;
    const Bytes start = Concat({{0x7C, 0x85}, Filled(1400, 0x01)});
    const Bytes mid = Concat({{0x7C, 0x05}, Filled(1400, 0x02)});
    uint16_t seq = 0;
    ASSERT_EQ(Feed(Rtp(96, seq++, start)), KORVALEN_ERR_NEED_MORE_DATA);
    uint32_t r = KORVALEN_ERR_NEED_MORE_DATA;
    int packets = 1;
    while (r == KORVALEN_ERR_NEED_MORE_DATA && packets < 2000) {
        r = Feed(Rtp(96, seq++, mid));
        ++packets;
    }
    EXPECT_EQ(r, 2u);
    // The fragment that fails is the one that would reach 2 MiB.
    EXPECT_LT(4 + 1 + 1400u * (packets - 1), kRtpVideoFrameMax);
    EXPECT_GE(4 + 1 + 1400u * packets, kRtpVideoFrameMax);
    EXPECT_TRUE(log.Has("RTP_SpellFrameH264 fail, frame len overflow(" + std::to_string(5 + 1400 * packets) + ")"));
    EXPECT_TRUE(log.Has("SpellFrame failed, count(1)"));
    EXPECT_EQ(Feed(Rtp(96, seq++, mid)), KORVALEN_ERR_PACKET_LOST) << "the broken frame is gone";
    EXPECT_EQ(Feed(Rtp(96, seq++, Filled(100, 0x41), Marked())), KORVALEN_OK);
    EXPECT_EQ(video.frameLen, 104u);

    // At the edge of a small buffer the start code counts too.
    RTP_InitStream(&video, videoBuf.data(), 64);
    ASSERT_EQ(Feed(Rtp(96, 1, Filled(59, 0x41), Marked())), KORVALEN_OK);
    EXPECT_EQ(video.frameLen, 63u);
    EXPECT_EQ(Feed(Rtp(96, 2, Filled(60, 0x41), Marked())), 2u);
    EXPECT_TRUE(log.Has("RTP_SpellFrameH264 fail, frame len overflow(64)"));

    // Audio frames stop below 10240 bytes.
    EXPECT_EQ(Feed(Rtp(8, 1, Filled(10239, 0xD5))), KORVALEN_OK);
    EXPECT_EQ(Feed(Rtp(8, 2, Filled(10240, 0xD5))), 2u);
    EXPECT_TRUE(log.Has("RTP_SpellFrameNotH264 fail, frame len overflow(10240)"));
}

} // namespace
