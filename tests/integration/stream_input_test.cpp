// Pushed streams through the C API: chunks go in with
// Korvalen_InputMediaData, pictures come out of the decoded-video callback
// and match ffmpeg's own decode of the same file, picture for picture.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <mutex>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "../unit/codec_media.h"
#include "../unit/rtp_peer.h"
#include "decoded_pictures.h"

using rtp_peer::BoundPort;
using rtp_peer::Fixture;
using rtp_peer::ReceiveWhile;
#include "korvalen.h"
#include "log_capture.h"
#include "platform/qmx_heap.h"
#include "player/port.h"
#include "player/port_table.h"

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

struct StreamInputTest : ::testing::Test {
    uint32_t port = 0;
    Collected got;
    void SetUp() override
    {
        ASSERT_EQ(Korvalen_Init(), 1);
        ASSERT_EQ(Korvalen_AllocPort(&port), 1);
    }
    void TearDown() override
    {
        Korvalen_Cleanup();
        EXPECT_EQ(QMX_HeapLiveBytes(), 0u);
    }
    size_t WaitPictures(size_t n) { return got.Wait(n); }
};

} // namespace

TEST_F(StreamInputTest, RawH264MatchesFfmpegPictureForPicture)
{
    // (Raw H.265 is recognised by its TRAIL_R and IDR_W_RADL slices only,
    // which x265's output does not keep to; H.265 comes in over RTP.)
    for (auto [name, skip] : {std::pair<const char*, size_t>{"h264_352x288_nob.h264", 0}}) {
        std::string path = FixturePath(name);
        REQUIRE_FIXTURE(path);
        auto units = ReadPackets(path);
        auto want = FfmpegFrameMd5(path);
        ASSERT_FALSE(units.empty());
        {
            std::lock_guard<std::mutex> lock(got.lock);
            got.md5s.clear();
        }
        ASSERT_EQ(Korvalen_SetPictureFluency(port, 0), 1); // decode as fast as frames come
        ASSERT_EQ(Korvalen_SetDecodeVideoMediaDataCB(port, &DecodedPictures::OnDecoded, 1,
                                                     static_cast<DecodedPictures*>(&got)),
                  1);
        ASSERT_EQ(Korvalen_SetParseVideoDataCB(port, &OnParsed, 1, &got), 1);
        ASSERT_EQ(Korvalen_OpenInputStream(port, nullptr, 0, 0), 1);
        ASSERT_EQ(Korvalen_StartPlay(port, 0), 1);
        for (const auto& u : units) {
            ASSERT_EQ(Korvalen_InputMediaData(port, u.data(), static_cast<uint32_t>(u.size())), 1);
        }
        // Without B-frames every frame gives its picture at once (or the
        // last one on the next frame): all but possibly the last arrive.
        size_t n = WaitPictures(want.size() - skip);
        EXPECT_GE(n + 1, want.size() - skip) << name;
        std::lock_guard<std::mutex> lock(got.lock);
        for (size_t i = 0; i < got.md5s.size() && i + skip < want.size(); ++i) {
            EXPECT_EQ(got.md5s[i], want[i + skip]) << name << " picture " << i;
        }
        EXPECT_EQ(got.width, 352u);
        EXPECT_EQ(got.height, 288u);
        EXPECT_GT(got.parsedKeys.load(), 0);
        ASSERT_EQ(Korvalen_CloseInputStream(port), 1);
        EXPECT_EQ(Player_GetPort(port)->sourceKind, static_cast<uint32_t>(SOURCE_NONE));
    }
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

    ASSERT_EQ(Korvalen_SetPictureFluency(port, 0), 1);
    ASSERT_EQ(
        Korvalen_SetDecodeVideoMediaDataCB(port, &DecodedPictures::OnDecoded, 1, static_cast<DecodedPictures*>(&got)),
        1);
    ASSERT_EQ(Korvalen_OpenInputStream(port, nullptr, 0, 0), 1);
    for (const auto& p : packets) {
        ASSERT_EQ(Korvalen_InputMediaData(port, p.data(), static_cast<uint32_t>(p.size())), 1);
    }
    // B-frames: the decoder holds the last pictures back until more come.
    size_t n = WaitPictures(want.size() - 3);
    EXPECT_GE(n + 3, want.size());
    std::lock_guard<std::mutex> lock(got.lock);
    for (size_t i = 0; i < got.md5s.size() && i < want.size(); ++i) {
        EXPECT_EQ(got.md5s[i], want[i]) << "picture " << i;
    }
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
    static std::atomic<int> aacFrames{0}, pcmBlocks{0};
    static std::atomic<uint32_t> rateCode{99};
    aacFrames = 0;
    pcmBlocks = 0;
    ASSERT_EQ(Korvalen_SetPictureFluency(port, 0), 1);
    ASSERT_EQ(
        Korvalen_SetDecodeVideoMediaDataCB(port, &DecodedPictures::OnDecoded, 1, static_cast<DecodedPictures*>(&got)),
        1);
    ASSERT_EQ(Korvalen_SetParseAudioDataCB(
                  port,
                  [](uint32_t, const KORVALEN_PARSED_FRAME* f, void*, uint32_t) {
                      aacFrames += f->codec_type == KORVALEN_CODEC_AAC && f->audio_format[0] == 2;
                  },
                  1, nullptr),
              1);
    ASSERT_EQ(Korvalen_SetDecodeAudioMediaDataCB(
                  port,
                  [](uint32_t, const KORVALEN_DECODED_AUDIO* a, void*, uint32_t) {
                      ++pcmBlocks;
                      rateCode = a->sample_rate_code;
                  },
                  1, nullptr),
              1);
    ASSERT_EQ(Korvalen_OpenInputStream(port, nullptr, 0, 0), 1);
    for (size_t at = 0; at < ts.size(); at += 1316) {
        uint32_t n = static_cast<uint32_t>(std::min<size_t>(1316, ts.size() - at));
        ASSERT_EQ(Korvalen_InputMediaData(port, ts.data() + at, n), 1);
    }
    // The last frame of each stream waits for a next PES that never comes.
    size_t n = WaitPictures(want.size() - 1);
    EXPECT_GE(n + 1, want.size());
    {
        std::lock_guard<std::mutex> lock(got.lock);
        for (size_t i = 0; i < got.md5s.size() && i < want.size(); ++i) {
            EXPECT_EQ(got.md5s[i], want[i]) << "picture " << i;
        }
    }
    EXPECT_GT(aacFrames.load(), 50) << "about 86 AAC frames in two seconds";
    EXPECT_GT(pcmBlocks.load(), 50);
    EXPECT_EQ(rateCode.load(), 2u) << "44100 Hz";
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
    for (int i = 0; i < 200 && got.parsed.load() < 1; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
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
