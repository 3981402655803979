// Pushed FLV through the C API, cut into chunks of any size (a chunk may end
// inside a tag header): every picture matches ffmpeg's decode of the file,
// and the sound decodes.
#include <algorithm>
#include <atomic>
#include <mutex>
#include <random>

#include <gtest/gtest.h>

#include "../unit/codec_media.h"
#include "decoded_pictures.h"
#include "korvalen.h"
#include "log_capture.h"
#include "platform/qmx_heap.h"

namespace {

struct Sound {
    std::atomic<int> parsed{0};
    std::atomic<uint32_t> codec{99};
    std::atomic<uint64_t> pcmBytes{0};
    std::atomic<uint32_t> rateCode{99};
};

struct FlvCase {
    const char* file;
    uint32_t codec;
    uint32_t rateCode;
    uint64_t pcmBytes; // 16-bit PCM of the two seconds, roughly
    uint32_t maxChunk;
    size_t held; // pictures a live decoder keeps back for B-frame reordering
};

struct FlvInput : ::testing::TestWithParam<FlvCase> {};

} // namespace

TEST_P(FlvInput, EveryPictureAndTheSoundFromChunksOfAnySize)
{
    const FlvCase& c = GetParam();
    const std::string path = FixturePath(c.file);
    REQUIRE_FIXTURE(path);
    Bytes flv = RunCommand("cat '" + path + "'");
    auto want = FfmpegFrameMd5(path, "", "-map 0:v");
    ASSERT_EQ(want.size(), 50u);

    ASSERT_EQ(Korvalen_Init(), 1);
    uint32_t port = 0;
    ASSERT_EQ(Korvalen_AllocPort(&port), 1);
    DecodedPictures got;
    Sound sound;
    ASSERT_EQ(Korvalen_SetPictureFluency(port, 0), 1);
    ASSERT_EQ(Korvalen_SetDecodeVideoMediaDataCB(port, &DecodedPictures::OnDecoded, 1, &got), 1);
    ASSERT_EQ(Korvalen_SetParseAudioDataCB(
                  port,
                  [](uint32_t, const KORVALEN_PARSED_FRAME* f, void* user, uint32_t) {
                      auto* s = static_cast<Sound*>(user);
                      ++s->parsed;
                      s->codec = f->codec_type;
                  },
                  1, &sound),
              1);
    ASSERT_EQ(Korvalen_SetDecodeAudioMediaDataCB(
                  port,
                  [](uint32_t, const KORVALEN_DECODED_AUDIO* a, void* user, uint32_t) {
                      auto* s = static_cast<Sound*>(user);
                      s->pcmBytes += a->length;
                      s->rateCode = a->sample_rate_code;
                  },
                  1, &sound),
              1);
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
    Korvalen_Cleanup();
    EXPECT_EQ(QMX_HeapLiveBytes(), 0u);
}

INSTANTIATE_TEST_SUITE_P(Files, FlvInput,
                         ::testing::Values(FlvCase{"h264_aac.flv", KORVALEN_CODEC_AAC, 2, 2 * 44100 * 2, 5000, 2},
                                           FlvCase{"h264_g711.flv", KORVALEN_CODEC_G711U, 0, 2 * 8000 * 2, 700, 0}),
                         [](const auto& info) { return info.index == 0 ? std::string("AacBFrames") : "G711"; });

// A malformed tag is refused and logged, a stream cut inside a tag is
// dropped when a new stream header comes, and the new stream plays whole.
TEST(FlvInputDamage, MalformedTagAndCutStreamThenNewHeader)
{
    const std::string path = FixturePath("h264_g711.flv");
    REQUIRE_FIXTURE(path);
    Bytes flv = RunCommand("cat '" + path + "'");
    ASSERT_GT(flv.size(), 20000u);
    LogCapture log;
    ASSERT_EQ(Korvalen_Init(), 1);
    uint32_t port = 0;
    ASSERT_EQ(Korvalen_AllocPort(&port), 1);
    DecodedPictures got;
    ASSERT_EQ(Korvalen_SetPictureFluency(port, 0), 1);
    ASSERT_EQ(Korvalen_SetDecodeVideoMediaDataCB(port, &DecodedPictures::OnDecoded, 1, &got), 1);
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
    Korvalen_Cleanup();
    EXPECT_EQ(QMX_HeapLiveBytes(), 0u);
}
