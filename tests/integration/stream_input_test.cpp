// Pushed streams through the C API: chunks (raw H.264, RTP, MPEG-TS, FLV)
// go in with Korvalen_InputMediaData, pictures come out of the decoded-video
// callback and match ffmpeg's own decode of the same file, picture for
// picture, and the sound reaches its callbacks.
#include <algorithm>
#include <atomic>
#include <mutex>
#include <random>
#include <vector>

#include <gtest/gtest.h>

#include "../unit/codec_media.h"
#include "../unit/rtp_peer.h"
#include "decoded_pictures.h"
#include "heap/qmx_heap.h"
#include "korvalen.h"
#include "log_capture.h"
#include "port/port.h"
#include "port/port_table.h"
#include "port_fixture.h"

using rtp_peer::BoundPort;
using rtp_peer::Fixture;
using rtp_peer::ReceiveWhile;

namespace {

struct Collected : DecodedPictures {
    std::atomic<int> parsedKeys{0};
    std::atomic<int> parsed{0};
};

void OnParsed(uint32_t, const KORVALEN_PARSED_FRAME* f, void* user, uint32_t)
{
    auto* c = static_cast<Collected*>(user);
    ++c->parsed;
    c->parsedKeys += f->frame_type == 0;
}

// What reached the sound callbacks.
struct Sound {
    std::atomic<int> parsed{0};
    std::atomic<uint32_t> codec{99};
    std::atomic<uint32_t> format{99}; // audio_format[0] of the last parsed frame
    std::atomic<uint64_t> pcmBytes{0};
    std::atomic<uint32_t> rateCode{99};
    static void OnParsed(uint32_t, const KORVALEN_PARSED_FRAME* f, void* user, uint32_t)
    {
        auto* s = static_cast<Sound*>(user);
        ++s->parsed;
        s->codec = f->codec_type;
        s->format = f->audio_format[0];
    }
    static void OnDecoded(uint32_t, const KORVALEN_DECODED_AUDIO* a, void* user, uint32_t)
    {
        auto* s = static_cast<Sound*>(user);
        s->pcmBytes += a->length;
        s->rateCode = a->sample_rate_code;
    }
};

struct FlvCase {
    const char* file;
    uint32_t codec;
    uint32_t rateCode;
    uint64_t pcmBytes; // 16-bit PCM of the two seconds, roughly
    uint32_t maxChunk;
    size_t held; // pictures a live decoder keeps back for B-frame reordering
};

struct StreamInputTest : PortFixture {
    Collected got;
    Sound sound;
    void SetUp() override
    {
        PortFixture::SetUp();
        ASSERT_EQ(Korvalen_SetPictureFluency(port, 0), 1); // decode as fast as frames come
        ASSERT_EQ(Korvalen_SetDecodeVideoMediaDataCB(port, &DecodedPictures::OnDecoded, 1,
                                                     static_cast<DecodedPictures*>(&got)),
                  1);
        ASSERT_EQ(Korvalen_SetParseAudioDataCB(port, &Sound::OnParsed, 1, &sound), 1);
        ASSERT_EQ(Korvalen_SetDecodeAudioMediaDataCB(port, &Sound::OnDecoded, 1, &sound), 1);
    }
    // The pictures are ffmpeg's, in order; at most held of them are still
    // in the decoder, waiting for frames that never come.
    void ExpectPrefixOf(const std::vector<std::string>& want, size_t held)
    {
        got.Wait(want.size());
        const auto pictures = got.Md5s();
        ASSERT_GE(pictures.size() + held, want.size());
        ASSERT_LE(pictures.size(), want.size());
        EXPECT_EQ(pictures, std::vector<std::string>(want.begin(), want.begin() + static_cast<long>(pictures.size())));
    }
};

struct FlvInput : StreamInputTest, ::testing::WithParamInterface<FlvCase> {};

} // namespace

// (Raw H.265 is recognised by its TRAIL_R and IDR_W_RADL slices only, which
// x265's output does not keep to; H.265 comes in over RTP.)
TEST_F(StreamInputTest, RawH264MatchesFfmpegPictureForPicture)
{
    const std::string path = FixturePath("h264_352x288_nob.h264");
    REQUIRE_FIXTURE(path);
    const auto want = FfmpegFrameMd5(path);
    ASSERT_EQ(Korvalen_SetParseVideoDataCB(port, &OnParsed, 1, &got), 1);
    ASSERT_EQ(Korvalen_OpenInputStream(port, nullptr, 0, 0), 1);
    ASSERT_EQ(Korvalen_StartPlay(port, 0), 1);
    PushAll(ReadPackets(path));
    // Without B-frames every frame gives its picture at once (or the last
    // one on the next frame): all but possibly the last arrive.
    ExpectPrefixOf(want, 1);
    EXPECT_EQ(got.width, 352u);
    EXPECT_EQ(got.height, 288u);
    EXPECT_GT(got.parsedKeys.load(), 0);
    ASSERT_EQ(Korvalen_CloseInputStream(port), 1);
    EXPECT_EQ(Player_GetPort(port)->sourceKind, static_cast<uint32_t>(SOURCE_NONE));
}

// RTP packets as a camera sends them (ffmpeg's H.265 packetizer, payload
// 108, with fragmentation units), pushed one by one: every picture as ffmpeg
// decodes the source file.
TEST_F(StreamInputTest, PushedRtpH265MatchesFfmpeg)
{
    const std::string file = Fixture("rtp_h265.h265");
    ASSERT_FALSE(file.empty());
    NET_SOCKET sock;
    ASSERT_EQ(NET_CreateRecvSocket("127.0.0.1", 0, "127.0.0.1", 0, NET_PROTO_UDP, &sock), KORVALEN_OK);
    int exitCode = -1;
    auto packets =
        ReceiveWhile(&sock,
                     "ffmpeg -hide_banner -loglevel error -re -f hevc -i " + file +
                         " -c:v copy -payload_type 108 -f rtp rtp://127.0.0.1:" + std::to_string(BoundPort(sock.fd)),
                     &exitCode);
    NET_DestroySocket(&sock);
    ASSERT_EQ(exitCode, 0);
    auto want = FfmpegFrameMd5(file);
    ASSERT_EQ(Korvalen_OpenInputStream(port, nullptr, 0, 0), 1);
    PushAll(packets);
    // B-frames: the decoder holds the last pictures back until more come.
    ExpectPrefixOf(want, 3);
    EXPECT_EQ(got.width, 640u);
}

// MPEG-TS pushed in 1316-byte chunks (seven TS packets, as over UDP):
// every picture as ffmpeg decodes the file, and the AAC frames reach the
// parsed- and decoded-audio callbacks.
TEST_F(StreamInputTest, PushedMpegTsVideoAndAudio)
{
    const std::string path = FixturePath("h264_aac.ts");
    REQUIRE_FIXTURE(path);
    Bytes ts = RunCommand("cat '" + path + "'");
    auto want = FfmpegFrameMd5(path, "", "-map 0:v");
    ASSERT_EQ(Korvalen_OpenInputStream(port, nullptr, 0, 0), 1);
    for (size_t at = 0; at < ts.size(); at += 1316) {
        uint32_t n = static_cast<uint32_t>(std::min<size_t>(1316, ts.size() - at));
        ASSERT_EQ(Korvalen_InputMediaData(port, ts.data() + at, n), 1);
    }
    // The last frame of each stream waits for a next PES that never comes.
    ExpectPrefixOf(want, 1);
    EXPECT_GT(sound.parsed.load(), 50) << "about 86 AAC frames in two seconds";
    EXPECT_EQ(sound.codec.load(), KORVALEN_CODEC_AAC);
    EXPECT_EQ(sound.format.load(), 2u);
    EXPECT_NEAR(static_cast<double>(sound.pcmBytes.load()), 2 * 44100 * 2, 2 * 44100 * 2 * 0.1);
    EXPECT_EQ(sound.rateCode.load(), 2u) << "44100 Hz";
}

TEST_F(StreamInputTest, ChunkRulesAndHeaders)
{
    LogCapture log;
    ASSERT_EQ(Korvalen_OpenInputStream(port, nullptr, 0, 0), 1);
    EXPECT_TRUE(log.Has("Port[000] Player_OpenInputStream success"));
    uint8_t any = 0;
    EXPECT_EQ(Korvalen_InputMediaData(port, &any, 0), 1);
    EXPECT_TRUE(log.Has("Player_InputMediaData warm, data len is zero"));
    EXPECT_EQ(Korvalen_OpenInputStream(port, nullptr, 0, 0), 0) << "one source at a time";

    // An "RdHd" header announces the next chunk as a whole frame.
    ASSERT_EQ(Korvalen_SetParseVideoDataCB(port, &OnParsed, 1, &got), 1);
    uint8_t header[24] = {'R', 'd', 'H', 'd', 4, 0, 0, 0, 0xFF, 0xFF, 0xFF, 0xFF};
    header[16] = 0x10; // time stamp
    ASSERT_EQ(Korvalen_InputMediaData(port, header, sizeof header), 1);
    std::vector<uint8_t> payload(100, 0x33);
    ASSERT_EQ(Korvalen_InputMediaData(port, payload.data(), 100), 1);
    WaitUntil([&] { return got.parsed.load() >= 1; }, 2000);
    EXPECT_EQ(got.parsed.load(), 1) << "the payload came out as one MJPEG frame";

    // The source hook sees each chunk and refuses what is neither TS nor RTP.
    static std::atomic<int> sourced{0};
    ASSERT_EQ(Korvalen_SetSourceMediaDataCB(
                  port,
                  [](uint32_t, const uint8_t*, uint32_t, uint32_t type, void*, uint32_t) { sourced += type == 0; }, 1,
                  nullptr),
              1);
    uint8_t ts[188] = {0x47};
    EXPECT_EQ(Korvalen_InputMediaData(port, ts, sizeof ts), 1);
    EXPECT_EQ(sourced.load(), 1);
    uint8_t odd[8] = {0x00, 0x00, 0x02};
    EXPECT_EQ(Korvalen_InputMediaData(port, odd, sizeof odd), 0);
    EXPECT_EQ(Korvalen_GetLastError(), KORVALEN_ERR_UNKNOWN_STREAM);
    EXPECT_TRUE(log.Has("Port [000] unknown stream type"));
    ASSERT_EQ(Korvalen_CloseInputStream(port), 1);
    EXPECT_EQ(Korvalen_InputMediaData(port, ts, sizeof ts), 0) << "closed";
}

// Pushed FLV, cut into chunks of any size (a chunk may end inside a tag
// header): every picture matches ffmpeg's decode of the file, and the sound
// decodes.
TEST_P(FlvInput, EveryPictureAndTheSoundFromChunksOfAnySize)
{
    const FlvCase& c = GetParam();
    const std::string path = FixturePath(c.file);
    REQUIRE_FIXTURE(path);
    Bytes flv = RunCommand("cat '" + path + "'");
    auto want = FfmpegFrameMd5(path, "", "-map 0:v");
    ASSERT_EQ(want.size(), 50u);

    ASSERT_EQ(Korvalen_OpenInputStream(port, nullptr, 0, 0), 1);
    std::mt19937 rng(3);
    std::uniform_int_distribution<uint32_t> size(1, c.maxChunk);
    for (size_t at = 0; at < flv.size();) {
        // Now and then a run of one-byte chunks, to cut through tag headers.
        uint32_t n = rng() % 16 == 0 ? 1 : size(rng);
        n = static_cast<uint32_t>(std::min<size_t>(n, flv.size() - at));
        ASSERT_EQ(Korvalen_InputMediaData(port, flv.data() + at, n), 1);
        at += n;
    }
    got.Wait(want.size() - c.held);
    {
        // A live stream never ends: the last reordered pictures stay in the
        // decoder.
        std::lock_guard<std::mutex> lock(got.lock);
        ASSERT_EQ(got.md5s.size(), want.size() - c.held);
        want.resize(got.md5s.size());
        EXPECT_EQ(got.md5s, want);
    }
    EXPECT_GT(sound.parsed.load(), 10);
    EXPECT_EQ(sound.codec.load(), c.codec);
    EXPECT_EQ(sound.rateCode.load(), c.rateCode);
    EXPECT_NEAR(static_cast<double>(sound.pcmBytes.load()), static_cast<double>(c.pcmBytes), c.pcmBytes * 0.1);
    uint32_t rate = 0;
    ASSERT_EQ(Korvalen_GetFrameRate(port, &rate), 1);
    EXPECT_EQ(rate, 25u);
    EXPECT_EQ(Korvalen_CloseInputStream(port), 1);
}

INSTANTIATE_TEST_SUITE_P(Files, FlvInput,
                         ::testing::Values(FlvCase{"h264_aac.flv", KORVALEN_CODEC_AAC, 2, 2 * 44100 * 2, 5000, 2},
                                           FlvCase{"h264_g711.flv", KORVALEN_CODEC_G711U, 0, 2 * 8000 * 2, 700, 0}),
                         [](const auto& info) { return info.index == 0 ? std::string("AacBFrames") : "G711"; });

// A malformed tag is refused and logged, a stream cut inside a tag is
// dropped when a new stream header comes, and the new stream plays whole.
TEST_F(StreamInputTest, FlvMalformedTagAndCutStreamThenNewHeader)
{
    const std::string path = FixturePath("h264_g711.flv");
    REQUIRE_FIXTURE(path);
    Bytes flv = RunCommand("cat '" + path + "'");
    ASSERT_GT(flv.size(), 20000u);
    LogCapture log;
    ASSERT_EQ(Korvalen_OpenInputStream(port, nullptr, 0, 0), 1);
    Bytes head(flv.begin(), flv.begin() + 13);
    ASSERT_EQ(Korvalen_InputMediaData(port, head.data(), static_cast<uint32_t>(head.size())), 1);
    // A video tag whose NAL length runs past its 16-byte body.
    Bytes bad = {9, 0, 0, 16, 0, 0, 0, 0, 0, 0, 0, 0x17, 1, 0, 0, 0, 0, 0, 0x7F, 0xFF, 0x65};
    bad.resize(11 + 16 + 4, 0);
    ASSERT_EQ(Korvalen_InputMediaData(port, bad.data(), static_cast<uint32_t>(bad.size())), 1);
    // Part of the first tags, cut mid-tag; then the whole file again.
    ASSERT_EQ(Korvalen_InputMediaData(port, flv.data() + 13, 5000), 1);
    ASSERT_EQ(Korvalen_InputMediaData(port, flv.data(), static_cast<uint32_t>(flv.size() / 2)), 1);
    ASSERT_EQ(
        Korvalen_InputMediaData(port, flv.data() + flv.size() / 2, static_cast<uint32_t>(flv.size() - flv.size() / 2)),
        1);
    EXPECT_EQ(got.Wait(50), 50u);
    EXPECT_TRUE(log.Has("FLV_UnpacketFlvData fail, ulRet : 1"));
}
