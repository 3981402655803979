// JPEG header rebuild against libjpeg's own files, H.265 fragments,
// analytics data, the packet tests, start-code scans and the sender.
#include <cstring>

#include <gtest/gtest.h>

#include "log_capture.h"
#include "rtp/rtp_jpeg.h"
#include "rtp/rtp_sender.h"
#include "rtp_packets.h"

using namespace rtp_packets;
using namespace rtp_peer;

namespace {

Bytes FileBytes(const std::string& path)
{
    const std::string s = ReadFile(path);
    return Bytes(s.begin(), s.end());
}

// What an RTP JPEG sender keeps of a baseline JPEG file.
struct JpegParts {
    uint16_t width = 0, height = 0, restart = 0;
    uint8_t lumaSampling = 0;
    Bytes tables; // DQT bodies, zigzag order, table 0 then 1
    Bytes scan;   // entropy-coded data, restart markers included, no EOI
};

JpegParts SplitJpeg(const Bytes& d)
{
    JpegParts j;
    size_t i = 2;
    while (i + 4 <= d.size() && d[i] == 0xFF) {
        const uint8_t m = d[i + 1];
        const size_t len = (d[i + 2] << 8) | d[i + 3];
        const uint8_t* body = d.data() + i + 4;
        if (m == 0xDB) {
            for (size_t k = 0; k + 65 <= len - 2; k += 65) {
                j.tables.insert(j.tables.end(), body + k + 1, body + k + 65);
            }
        } else if (m == 0xC0) {
            j.height = static_cast<uint16_t>((body[1] << 8) | body[2]);
            j.width = static_cast<uint16_t>((body[3] << 8) | body[4]);
            j.lumaSampling = body[7];
        } else if (m == 0xDD) {
            j.restart = static_cast<uint16_t>((body[0] << 8) | body[1]);
        } else if (m == 0xDA) {
            j.scan.assign(d.begin() + static_cast<long>(i + 2 + len), d.end() - 2);
            break;
        }
        i += 2 + len;
    }
    return j;
}

// RFC 2435 packets of one frame: restart header, tables in band for Q >= 128.
std::vector<Bytes> PacketizeJpeg(const JpegParts& j, uint8_t q, uint16_t seq)
{
    std::vector<Bytes> out;
    const uint8_t type = static_cast<uint8_t>(64 + (j.lumaSampling == 0x22 ? 1 : 0));
    const auto b = [](size_t v) { return static_cast<uint8_t>(v); };
    for (size_t off = 0; off < j.scan.size(); off += 900) {
        const size_t n = std::min<size_t>(900, j.scan.size() - off);
        // Main header (offset, type, Q, size in blocks), then the restart header.
        Bytes pl = {0, b(off >> 16), b(off >> 8), b(off), type, q, b(j.width / 8), b(j.height / 8)};
        pl.insert(pl.end(), {b(j.restart >> 8), b(j.restart), 0xFF, 0xFF});
        if (off == 0 && q >= 128) {
            pl.insert(pl.end(), {0, 0, b(j.tables.size() >> 8), b(j.tables.size())});
            pl.insert(pl.end(), j.tables.begin(), j.tables.end());
        }
        pl.insert(pl.end(), j.scan.begin() + static_cast<long>(off), j.scan.begin() + static_cast<long>(off + n));
        out.push_back(Rtp(26, seq++, pl, off + n == j.scan.size()));
    }
    return out;
}

struct JpegCase {
    const char* fixture;
    uint8_t q;
};

struct RtpJpegRebuild : ::testing::TestWithParam<JpegCase> {};

// libjpeg made the file with restart markers and its quality-50 tables; the
// frame rebuilt from the scan data alone must decode to the same picture.
TEST_P(RtpJpegRebuild, RebuiltFrameDecodesLikeTheOriginal)
{
    const std::string file = Fixture(GetParam().fixture);
    ASSERT_FALSE(file.empty());
    const JpegParts j = SplitJpeg(FileBytes(file));
    ASSERT_NE(j.restart, 0) << "the fixture must carry restart markers";
    ASSERT_EQ(j.tables.size(), 128u);

    uint8_t luma[64], chroma[64];
    RTP_JpegMakeTables(50, luma, chroma);
    EXPECT_TRUE(std::equal(luma, luma + 64, j.tables.begin())) << "quality 50 luma table";
    EXPECT_TRUE(std::equal(chroma, chroma + 64, j.tables.begin() + 64)) << "quality 50 chroma table";

    Assembly a = Spell(PacketizeJpeg(j, GetParam().q, 100));
    ASSERT_EQ(a.frames.size(), 1u);
    const Bytes& frame = a.frames[0].data;
    const Bytes dri = {0xFF, 0xDD, 0, 4, static_cast<uint8_t>(j.restart >> 8), static_cast<uint8_t>(j.restart)};
    EXPECT_NE(std::search(frame.begin(), frame.end(), dri.begin(), dri.end()), frame.end());
    EXPECT_EQ(frame[frame.size() - 2], 0xFF);
    EXPECT_EQ(frame.back(), 0xD9);

    const std::string out = WriteFrames("rebuilt.jpg", a.frames);
    const std::vector<std::string> expected = FrameHashes(file, "mjpeg");
    ASSERT_EQ(expected.size(), 1u);
    EXPECT_EQ(FrameHashes(out, "mjpeg"), expected);
}

INSTANTIATE_TEST_SUITE_P(Restart, RtpJpegRebuild,
                         ::testing::Values(JpegCase{"rtp_restart422.jpg", 50}, JpegCase{"rtp_restart420.jpg", 50},
                                           JpegCase{"rtp_restart420.jpg", 255}));

TEST_F(Depacketizer, JpegHeadersNeedAKnownTypeAndTheirTables)
{
    LogCapture log;
    // Type 7 is no sampling we can describe; Q 200 without its tables.
    EXPECT_EQ(Feed(Rtp(26, 1, {0, 0, 0, 0, 7, 50, 4, 4, 1, 2, 3}, true)), 1u);
    EXPECT_TRUE(log.Has("RTP_SpellFrameJPEG fail, MakeHeaders fail"));
    EXPECT_EQ(Feed(Rtp(26, 2, {0, 0, 0, 0, 1, 200, 4, 4, 0, 0, 0, 0, 1, 2, 3}, true)), 1u);
    // A table length beyond the packet, a restart header cut short.
    EXPECT_EQ(Feed(Rtp(26, 3, {0, 0, 0, 0, 1, 200, 4, 4, 0, 0, 0, 128, 1, 2}, true)), 1u);
    EXPECT_EQ(Feed(Rtp(26, 4, {0, 0, 0, 0, 65, 50, 4, 4, 0, 1}, true)), 1u);
    // Scan data with no first fragment are lost.
    EXPECT_EQ(Feed(Rtp(26, 5, {0, 0, 3, 0, 1, 50, 4, 4, 1, 2, 3}, true)), KORVALEN_ERR_PACKET_LOST);
    EXPECT_TRUE(log.Has("PACKET LOSE data, count(1)"));
}

TEST_F(Depacketizer, H265FragmentsRebuildTheHeaderAndKeyTypesAre19And38)
{
    LogCapture log;
    // FU of an IDR_W_RADL (19): indicator type 49, layer/tid bytes kept.
    ASSERT_EQ(Feed(Rtp(108, 1, {0x62, 0x01, 0x93, 0xA1, 0xA2})), KORVALEN_ERR_NEED_MORE_DATA);
    ASSERT_EQ(Feed(Rtp(108, 2, {0x62, 0x01, 0x53, 0xA3}, true)), KORVALEN_OK);
    EXPECT_EQ(Bytes(video.frame, video.frame + video.frameLen), (Bytes{0, 0, 0, 1, 0x26, 0x01, 0xA1, 0xA2, 0xA3}));
    EXPECT_EQ(video.frameType, RTP_FRAME_KEY);
    EXPECT_EQ(video.codecType, KORVALEN_CODEC_H265);
    // IDR_N_LP (20) and CRA (21) are not key frames here.
    for (uint8_t type : {20, 21}) {
        ASSERT_EQ(Feed(Rtp(108, static_cast<uint16_t>(type - 17), {static_cast<uint8_t>(type << 1), 1, 0xB0}, true)),
                  KORVALEN_OK);
        EXPECT_EQ(video.frameType, RTP_FRAME_OTHER) << int(type);
    }
    EXPECT_EQ(Feed(Rtp(108, 5, {0x62, 0x01, 0x13, 0xA1})), KORVALEN_ERR_PACKET_LOST);
    EXPECT_TRUE(log.Has("RTP_SpellFrameH265 fail, FrameLen is 0"));
    // Aggregation packet: each unit behind a start code; a unit too long fails.
    ASSERT_EQ(Feed(Rtp(108, 6, {0x60, 0x01, 0, 3, 0x40, 0x01, 0xC1, 0, 2, 0x42, 0x01}, true)), KORVALEN_OK);
    EXPECT_EQ(Bytes(video.frame, video.frame + video.frameLen),
              (Bytes{0, 0, 0, 1, 0x40, 0x01, 0xC1, 0, 0, 0, 1, 0x42, 0x01}));
    EXPECT_EQ(Feed(Rtp(108, 7, {0x60, 0x01, 0, 9, 0x40, 0x01, 0xC1}, true)), 1u);
}

TEST_F(Depacketizer, AnalyticsBlockIsKeptAndDataRunsToTheMarker)
{
    Bytes pl = {21, 0x01, 0x90, 0x00, 0x0A, 0x00, 0x0B, 0x00, 0x0C, 0x00, 0x0D};
    for (uint32_t i = 0; i < kRtpIvaRawLen; ++i) {
        pl.push_back(static_cast<uint8_t>(i));
    }
    EXPECT_EQ(Feed(Rtp(50, 1, pl)), KORVALEN_ERR_NEED_MORE_DATA);
    EXPECT_EQ(audio.iva.valid, 1u);
    EXPECT_EQ(audio.iva.values[0], 10);
    EXPECT_EQ(audio.iva.values[3], 13);
    EXPECT_EQ(audio.iva.raw[395], 395 % 256);
    ASSERT_EQ(Feed(Rtp(50, 2, {1, 2, 3}, true)), KORVALEN_OK);
    EXPECT_EQ(audio.frameLen, pl.size() + 3) << "both packets make one block of data";
    EXPECT_EQ(audio.codecType, KORVALEN_CODEC_IVA);

    Bytes shortBlock = pl;
    shortBlock[2] = 0x80; // length 384 < 399: not an information block
    audio.iva.valid = 0;
    Feed(Rtp(50, 3, shortBlock, true));
    EXPECT_EQ(audio.iva.valid, 0u);
}

TEST(RtpPacketTests, ReorderAndMarkerTestsFollowTheCodec)
{
    const RTP_PAYLOAD_TABLE custom{{{0, KORVALEN_CODEC_H265, 1}, {}}};
    struct {
        Bytes pkt;
        uint32_t reorder, marker;
    } cases[] = {
        {Rtp(96, 1, {0x7C, 0x85}, true), 1, 1}, // FU-A
        {Rtp(96, 1, {0x41}, false), 1, 0},      // P slice
        {Rtp(96, 1, {0x06}, false), 1, 0},      // SEI
        {Rtp(96, 1, {0x18, 0, 1}, true), 0, 1}, // STAP-A skips reordering
        {Rtp(96, 1, {0x42}, true), 0, 1},       // NAL type 2
        {Rtp(108, 1, {0x60, 1}, true), 1, 1},   // H.265 aggregation
        {Rtp(26, 1, {0, 0, 0}, false), 1, 0},   // JPEG
        {Rtp(0, 1, {0xFF}, true), 0, 0},        // G.711
        {Rtp(96, 1, {0x41}, true, 1), 0, 0},    // RTP version 1
        {Rtp(96, 1, {}, true), 0, 1},           // no payload
        {Rtp(18, 1, {0x41}, true), 0, 0},       // rejected type
    };
    for (const auto& c : cases) {
        const uint32_t len = static_cast<uint32_t>(c.pkt.size());
        EXPECT_EQ(RTP_IsReorderPacket(c.pkt.data(), len, nullptr), c.reorder) << testing::PrintToString(c.pkt);
        EXPECT_EQ(RTP_IsVideoMarkerPacket(c.pkt.data(), len, nullptr), c.marker) << testing::PrintToString(c.pkt);
    }
    const Bytes mapped = Rtp(0, 1, {0x02, 0x01}, true);
    EXPECT_EQ(RTP_IsReorderPacket(mapped.data(), 14, &custom), 1u);
    EXPECT_EQ(RTP_IsVideoMarkerPacket(mapped.data(), 14, &custom), 1u);
    EXPECT_EQ(RTP_IsVideoMarkerPacket(mapped.data(), 11, &custom), 0u);
}

TEST(RtpStartCodes, FindIFrameAndParameterSetsInRealStreams)
{
    EXPECT_EQ(RTP_FindIFrame(Bytes{0, 0, 0, 1, 0x09, 0xF0, 0, 0, 0, 1, 0x41}.data(), 11), RTP_FRAME_OTHER);
    EXPECT_EQ(RTP_FindIFrame(Bytes{0, 0, 0, 1, 0x09, 0xF0, 0, 0, 0, 1, 0x65}.data(), 11), RTP_FRAME_KEY);
    EXPECT_EQ(RTP_FindIFrame(Bytes{0, 0, 1, 0x65, 0, 0, 0, 1, 0x06}.data(), 9), RTP_FRAME_OTHER)
        << "only 4-byte start codes count; running out means not key";

    LogCapture log;
    const uint8_t* out = nullptr;
    uint32_t outLen = 0;
    EXPECT_EQ(RTP_FindDataByNAL(KORVALEN_CODEC_MJPEG, 7, nullptr, 0, &out, &outLen), KORVALEN_ERR_NOT_SUPPORTED);
    EXPECT_TRUE(log.Has("RTP_FindDataByNAL fail, Unknown payload type(4)"));

    struct {
        const char* fixture;
        uint32_t codec, type, firstByte;
        bool found;
    } cases[] = {
        {"rtp_h264.h264", KORVALEN_CODEC_H264, 7, 0x67, true},  {"rtp_h264.h264", KORVALEN_CODEC_H264, 8, 0x68, true},
        {"rtp_h264.h264", KORVALEN_CODEC_H264, 1, 0, false}, // behind the IDR
        {"rtp_h265.h265", KORVALEN_CODEC_H265, 32, 0x40, true}, {"rtp_h265.h265", KORVALEN_CODEC_H265, 34, 0x44, true},
        {"rtp_h265.h265", KORVALEN_CODEC_H265, 1, 0, false},
    };
    for (const auto& c : cases) {
        const std::string file = Fixture(c.fixture);
        ASSERT_FALSE(file.empty());
        const Bytes d = FileBytes(file);
        const uint32_t r = RTP_FindDataByNAL(c.codec, c.type, d.data(), static_cast<uint32_t>(d.size()), &out, &outLen);
        if (!c.found) {
            EXPECT_NE(r, KORVALEN_OK) << c.type;
            continue;
        }
        ASSERT_EQ(r, KORVALEN_OK) << c.type;
        EXPECT_EQ(out[0], c.firstByte);
        // The unit ends where the next start code begins.
        const size_t end = static_cast<size_t>(out - d.data()) + outLen;
        ASSERT_LT(end + 3, d.size());
        EXPECT_NE(out[outLen - 1], 0);
        EXPECT_TRUE((d[end] == 0 && d[end + 1] == 0 && d[end + 2] == 1) ||
                    (d[end] == 0 && d[end + 1] == 0 && d[end + 2] == 0 && d[end + 3] == 1));
    }
}

TEST(RtpSender, AudioFrameIsCutInto1400BytePackets)
{
    Bytes frame(3000);
    for (size_t i = 0; i < frame.size(); ++i) {
        frame[i] = static_cast<uint8_t>(i * 13);
    }
    RTP_SENDER s;
    RTP_InitSender(&s);
    EXPECT_EQ(s.codecType, KORVALEN_CODEC_NONE);
    s.codecType = KORVALEN_CODEC_G711A;
    s.timestamp = 0x01020304;
    s.data = frame.data();
    s.dataLen = 3000;

    Bytes out(1500), payload;
    const uint32_t expectLen[] = {1412, 1412, 212};
    const uint32_t expectRet[] = {RTP_MORE_TO_SEND, RTP_MORE_TO_SEND, KORVALEN_OK};
    for (int i = 0; i < 3; ++i) {
        uint32_t len = 1500;
        ASSERT_EQ(RTP_MakeRtpData(&s, out.data(), &len), expectRet[i]) << i;
        ASSERT_EQ(len, expectLen[i]) << i;
        // Version 2, the marker ANDed with payload type 8 (0), sequence i,
        // the frame's time stamp.
        EXPECT_EQ(Bytes(out.begin(), out.begin() + 8), (Bytes{0x80, 0, 0, static_cast<uint8_t>(i), 1, 2, 3, 4}));
        EXPECT_EQ(uint32_t(out[8] << 24 | out[9] << 16 | out[10] << 8 | out[11]), s.ssrc);
        payload.insert(payload.end(), out.begin() + 12, out.begin() + len);
    }
    EXPECT_EQ(payload, frame);

    LogCapture log;
    uint32_t len = 1000;
    s.dataLen = 100;
    EXPECT_EQ(RTP_MakeRtpData(&s, out.data(), &len), KORVALEN_OK);
    EXPECT_EQ(len, 112u);
    EXPECT_TRUE(log.Has("RTP_MakeRtpData warm, buffer len(1000) little than 1500"));
    EXPECT_EQ(log.LevelOf("RTP_MakeRtpData warm"), KORVALEN_LOG_WARN);

    s.codecType = KORVALEN_CODEC_MJPEG;
    len = 1500;
    EXPECT_EQ(RTP_MakeRtpData(&s, out.data(), &len), KORVALEN_ERR_NOT_SUPPORTED) << "video is not sent";
    RTP_ClearSender(&s);
    EXPECT_EQ(s.ssrc, 0u);
    s.codecType = KORVALEN_CODEC_NONE;
    EXPECT_EQ(RTP_MakeRtpData(&s, out.data(), &len), KORVALEN_ERR_UNKNOWN_STREAM);
    EXPECT_TRUE(log.Has("RTP_TypeToRtpPayload fail, unknown type(9)"));
}

} // namespace
