// Real senders on loopback: ffmpeg and GStreamer packetize fixture streams,
// the depacketizer assembles them, and ffmpeg must decode the assembled
// frames to the same per-frame hashes as the source file.
#include <random>
#include <set>

#include <gtest/gtest.h>

#include "log_capture.h"
#include "rtp_peer.h"

using namespace rtp_peer;

namespace {

struct PeerCase {
    const char* name;
    const char* fixture;
    const char* format;        // ffmpeg demuxer of the fixture and of the output
    std::string command;       // {file} and {port} are filled in
    std::set<int> packetKinds; // NAL kinds the sender is known to use
    uint8_t customPt = 0;      // payload type mapped through the custom table, 0 = none
    uint32_t customCodec = 0;
};

void PrintTo(const PeerCase& c, std::ostream* os)
{
    *os << c.name;
}

const char* kFfmpeg = "ffmpeg -hide_banner -loglevel error -re";
const char* kGst = "gst-launch-1.0 -q filesrc location={file} ! ";

struct RtpPeerTest : ::testing::TestWithParam<PeerCase> {};

TEST_P(RtpPeerTest, AssembledFramesDecodeLikeTheSource)
{
    const PeerCase& c = GetParam();
    const std::string file = Fixture(c.fixture);
    ASSERT_FALSE(file.empty()) << "fixture " << c.fixture << " could not be made";

    NET_SOCKET sock;
    ASSERT_EQ(NET_CreateRecvSocket("127.0.0.1", 0, "127.0.0.1", 0, NET_PROTO_UDP, &sock), KORVALEN_OK);
    const std::string cmd = Replace(Replace(c.command, "{file}", file), "{port}", std::to_string(BoundPort(sock.fd)));
    int exitCode = -1;
    std::vector<Bytes> packets = ReceiveWhile(&sock, cmd, &exitCode);
    NET_DestroySocket(&sock);
    ASSERT_EQ(exitCode, 0) << cmd;
    ASSERT_GT(packets.size(), 20u);

    std::set<int> kinds;
    for (const Bytes& p : packets) {
        const uint32_t off = RTP_PayloadOffset(p.data(), static_cast<uint32_t>(p.size()));
        kinds.insert(std::string(c.format) == "hevc" ? (p[off] >> 1) & 63 : p[off] & 31);
    }
    for (int k : c.packetKinds) {
        EXPECT_TRUE(kinds.count(k)) << "sender no longer uses NAL kind " << k;
    }

    RTP_PAYLOAD_TABLE custom{};
    if (c.customPt) {
        custom.entries[0] = {c.customPt, c.customCodec, 1};
    }
    Assembly a = Spell(packets, c.customPt ? &custom : nullptr);
    for (const auto& [code, count] : a.codes) {
        EXPECT_TRUE(code == KORVALEN_OK || code == KORVALEN_ERR_NEED_MORE_DATA)
            << "result " << code << " x" << count << " from a clean stream";
    }
    ASSERT_FALSE(a.frames.empty());
    if (std::string(c.format) != "hevc") { // x265 opens with IDR_N_LP, not a key type here
        EXPECT_EQ(a.frames.front().frameType, RTP_FRAME_KEY) << "every fixture starts with a key frame";
    }
    std::set<uint32_t> types;
    for (const Frame& f : a.frames) {
        types.insert(f.frameType);
    }
    if (std::string(c.format) != "mjpeg") {
        EXPECT_EQ(types, (std::set<uint32_t>{RTP_FRAME_KEY, RTP_FRAME_OTHER})) << "key and other frames both seen";
    }

    const std::string out = WriteFrames(std::string(c.name) + ".out", a.frames);
    const std::vector<std::string> expected = FrameHashes(file, c.format);
    ASSERT_EQ(expected.size(), 25u) << "the fixture holds one second at 25 fps";
    EXPECT_EQ(FrameHashes(out, c.format), expected);
}

std::vector<PeerCase> Peers()
{
    const auto ff = [](const std::string& format, const std::string& options) {
        return std::string(kFfmpeg) + " -f " + format + " -i {file} -c:v copy" + options +
               " -f rtp rtp://127.0.0.1:{port}";
    };
    const auto gst = [](const std::string& elements) {
        return std::string(kGst) + elements + " ! udpsink host=127.0.0.1 port={port}";
    };
    const char *h264 = "rtp_h264.h264", *h265 = "rtp_h265.h265", *mjpeg = "rtp_mjpeg420.mjpeg";
    return {
        {"ffmpeg_h265_pt108", h265, "hevc", ff("hevc", " -payload_type 108"), {48, 49}},
        {"ffmpeg_h265_custom96", h265, "hevc", ff("hevc", ""), {48, 49}, 96, KORVALEN_CODEC_H265},
        {"ffmpeg_mjpeg420", mjpeg, "mjpeg", ff("mjpeg", ""), {}},
        {"gst_h264", h264, "h264", gst("h264parse ! rtph264pay pt=96 mtu=1400 config-interval=-1"), {7, 8, 28}},
        {"gst_h265", h265, "hevc", gst("h265parse ! rtph265pay pt=108 mtu=1400 config-interval=-1"), {32, 33, 34, 49}},
        {"gst_mjpeg420", mjpeg, "mjpeg", gst("jpegparse ! rtpjpegpay mtu=1400"), {}},
    };
}

INSTANTIATE_TEST_SUITE_P(Senders, RtpPeerTest, ::testing::ValuesIn(Peers()),
                         [](const auto& info) { return std::string(info.param.name); });

uint32_t Timestamp(const Bytes& p)
{
    return (uint32_t(p[4]) << 24) | (uint32_t(p[5]) << 16) | (uint32_t(p[6]) << 8) | p[7];
}

struct LossCase {
    const char* name;
    const char* fixture;
    const char* format;
    uint32_t seed;
};

void PrintTo(const LossCase& c, std::ostream* os)
{
    *os << c.name;
}

struct RtpLossTest : ::testing::TestWithParam<LossCase> {};

// Loss, duplicates and swaps through a relay: every disturbed frame is
// dropped (or, for a frame of several NAL units, handed on as its intact
// tail), every undisturbed frame arrives whole.
TEST_P(RtpLossTest, DisturbedFramesAreDroppedAndAssemblyResumes)
{
    const LossCase& c = GetParam();
    const std::string file = Fixture(c.fixture);
    ASSERT_FALSE(file.empty());

    NET_SOCKET sock;
    ASSERT_EQ(NET_CreateRecvSocket("127.0.0.1", 0, "127.0.0.1", 0, NET_PROTO_UDP, &sock), KORVALEN_OK);
    LossyRelay relay(BoundPort(sock.fd), c.seed, 0.03, 0.03, 0.03);
    const std::string cmd = std::string(kFfmpeg) + " -f " + c.format + " -i " + file +
                            " -c:v copy -f rtp rtp://127.0.0.1:" + std::to_string(relay.Port());
    int exitCode = -1;
    std::vector<Bytes> received = ReceiveWhile(&sock, cmd, &exitCode);
    relay.Stop();
    NET_DestroySocket(&sock);
    ASSERT_EQ(exitCode, 0);
    ASSERT_GT(relay.drops, 0u) << "the seed must give at least one loss";

    std::map<uint32_t, Bytes> whole;
    for (Frame& f : Spell(relay.clean).frames) {
        whole[f.timestamp] = std::move(f.data);
    }
    ASSERT_EQ(whole.size(), 25u);
    std::set<uint32_t> disturbed;
    for (size_t i : relay.touched) {
        for (size_t j = i ? i - 1 : 0; j <= i + 1 && j < relay.clean.size(); ++j) {
            disturbed.insert(Timestamp(relay.clean[j]));
        }
    }

    LogCapture log;
    Assembly a = Spell(received);
    EXPECT_GE(a.codes[KORVALEN_ERR_PACKET_LOST], static_cast<int>(relay.drops)) << "each gap reports 525";
    EXPECT_TRUE(log.Has("Cur Num:"));
    std::set<uint32_t> exact;
    for (const Frame& f : a.frames) {
        ASSERT_TRUE(whole.count(f.timestamp)) << "a frame the sender never sent";
        const Bytes& w = whole[f.timestamp];
        if (f.data == w) {
            exact.insert(f.timestamp);
            continue;
        }
        EXPECT_TRUE(disturbed.count(f.timestamp)) << "an undisturbed frame changed";
        const bool tail = f.data.size() < w.size() && std::equal(f.data.rbegin(), f.data.rend(), w.rbegin()) &&
                          f.data.size() > 4 && f.data[0] == 0 && f.data[1] == 0 && f.data[2] == 0 && f.data[3] == 1;
        EXPECT_TRUE(tail) << "a damaged frame was handed on";
    }
    size_t lostFrames = 0;
    for (const auto& [ts, bytes] : whole) {
        if (!disturbed.count(ts)) {
            EXPECT_TRUE(exact.count(ts)) << "undisturbed frame " << ts << " missing";
        } else if (!exact.count(ts)) {
            ++lostFrames;
        }
    }
    EXPECT_GT(lostFrames, 0u) << "some disturbed frame must have been dropped";
}

INSTANTIATE_TEST_SUITE_P(Relay, RtpLossTest,
                         ::testing::Values(LossCase{"h264", "rtp_h264.h264", "h264", 7},
                                           LossCase{"mjpeg", "rtp_mjpeg420.mjpeg", "mjpeg", 11}),
                         [](const auto& info) { return std::string(info.param.name); });

struct AudioCase {
    const char* name;
    const char* fixture;
    std::string command;
    uint32_t codec;
    const char* outFormat; // empty: the payloads must equal the file's bytes
};

void PrintTo(const AudioCase& c, std::ostream* os)
{
    *os << c.name;
}

struct RtpAudioPeerTest : ::testing::TestWithParam<AudioCase> {};

// Every audio packet is a frame; AAC payload 104 gains an ADTS header that
// must describe the stream well enough for a decoder.
TEST_P(RtpAudioPeerTest, FramesCarryTheSourceSound)
{
    const AudioCase& c = GetParam();
    const std::string file = Fixture(c.fixture);
    ASSERT_FALSE(file.empty());
    NET_SOCKET sock;
    ASSERT_EQ(NET_CreateRecvSocket(nullptr, 0, "127.0.0.1", 0, NET_PROTO_UDP, &sock), KORVALEN_OK);
    const std::string cmd = std::string(kFfmpeg) + " " + Replace(c.command, "{file}", file) +
                            " -f rtp rtp://127.0.0.1:" + std::to_string(BoundPort(sock.fd));
    int exitCode = -1;
    std::vector<Bytes> packets = ReceiveWhile(&sock, cmd, &exitCode);
    NET_DestroySocket(&sock);
    ASSERT_EQ(exitCode, 0) << cmd;

    const RTP_AAC_CONFIG aac{1, 11, 1}; // LC, 8000 Hz, mono: what the fixture holds
    Assembly a = Spell(packets, nullptr, &aac);
    ASSERT_EQ(a.frames.size(), packets.size()) << "one frame per packet";
    EXPECT_EQ(a.codes[KORVALEN_OK], static_cast<int>(packets.size()));
    for (const Frame& f : a.frames) {
        EXPECT_EQ(f.frameType, RTP_FRAME_AUDIO);
        EXPECT_EQ(f.codecType, c.codec);
    }
    const std::string out = WriteFrames(std::string(c.name) + ".out", a.frames);
    if (*c.outFormat) {
        // Without the edit list the priming frame the RTP stream carries is kept.
        std::vector<std::string> expected = FrameHashes(file, "mp4 -ignore_editlist 1");
        ASSERT_GE(expected.size(), 7u) << "one second of 1024-sample AAC frames";
        // ffmpeg's AAC packetizer keeps its last frame back at the end.
        std::vector<std::string> got = FrameHashes(out, c.outFormat);
        ASSERT_GE(got.size() + 1, expected.size());
        expected.resize(got.size());
        EXPECT_EQ(got, expected);
    } else {
        EXPECT_EQ(ReadFile(out), ReadFile(file));
    }
}

INSTANTIATE_TEST_SUITE_P(
    Senders, RtpAudioPeerTest,
    ::testing::Values(
        AudioCase{"aac_pt104", "rtp_aac.m4a", "-i {file} -c:a copy -payload_type 104 -max_delay 0", KORVALEN_CODEC_AAC,
                  "aac"},
        AudioCase{"g711u", "rtp_g711u.raw", "-f mulaw -ar 8000 -ac 1 -i {file} -c:a copy", KORVALEN_CODEC_G711U, ""},
        AudioCase{"g711a", "rtp_g711a.raw", "-f alaw -ar 8000 -ac 1 -i {file} -c:a copy", KORVALEN_CODEC_G711A, ""}),
    [](const auto& info) { return std::string(info.param.name); });

} // namespace
