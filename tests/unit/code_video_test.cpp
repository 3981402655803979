#include <algorithm>
#include <atomic>
#include <cstring>
#include <ostream>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "codec/code_internal.h"
#include "codec/code_manager.h"
#include "codec_media.h"
#include "heap/qmx_heap.h"
#include "korvalen_types.h"
#include "log_capture.h"
#include "test_env.h"

#if defined(__SANITIZE_THREAD__)
#define KORVALEN_TSAN 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define KORVALEN_TSAN 1
#endif
#endif
#ifdef KORVALEN_TSAN
// libavutil is not instrumented: its reference counts are atomics the race
// detector cannot see, so a picture freed on another thread than the
// decoder thread that made it looks like a race.
extern "C" const char* __tsan_default_suppressions()
{
    return "race:av_buffer_unref\n";
}
#endif

namespace {

struct DecodeRun {
    std::vector<uint32_t> results;  // one per input frame
    std::vector<std::string> shown; // picture MD5s in output order, drained ones included
    std::vector<std::pair<uint32_t, uint32_t>> sizes;
};

void TakePicture(DecodeRun& run, const CODE_OUTPUT& out)
{
    run.shown.push_back(PictureMd5(out));
    run.sizes.emplace_back(out.width, out.height);
}

// Decodes every packet, then drains. markAt: input index whose frame is
// marked (-1 none).
DecodeRun DecodeAll(CODE_HANDLE& h, const std::vector<Bytes>& packets, int markAt = -1,
                    const std::vector<Bytes>* replace = nullptr, CODE_OUTPUT* shared = nullptr)
{
    DecodeRun run;
    CODE_OUTPUT own;
    CODE_OUTPUT& out = shared ? *shared : own;
    for (size_t i = 0; i < packets.size(); ++i) {
        CODE_INPUT in = CodeInput(replace ? (*replace)[i] : packets[i]);
        h.markNext = static_cast<int>(i) == markAt ? 1 : 0;
        uint32_t r = CODE_Decoder(&h, &in, &out);
        run.results.push_back(r);
        if (r == KORVALEN_OK) {
            TakePicture(run, out);
        }
    }
    for (int i = 0; i < 64; ++i) {
        CODE_INPUT in{};
        in.flags = CODE_FLAG_DRAIN;
        uint32_t r = CODE_Decoder(&h, &in, &out);
        if (r != KORVALEN_OK) {
            EXPECT_EQ(r, KORVALEN_ERR_DECODE_NO_OUTPUT);
            break;
        }
        TakePicture(run, out);
    }
    return run;
}

uint32_t CreateVideo(CODE_HANDLE& h, uint32_t type, const Bytes& first, uint32_t lowDelay)
{
    CODE_PARAM p{};
    p.data = first.data();
    p.length = static_cast<uint32_t>(first.size());
    p.lowDelay = lowDelay;
    return CODE_CreateCode(CODE_DIR_DECODER, type, &p, &h);
}

struct Stream {
    const char* file;
    uint32_t type;
    uint32_t width;
    uint32_t height;
};

void PrintTo(const Stream& s, std::ostream* os)
{
    *os << s.file;
}

class VideoDecode : public ::testing::TestWithParam<Stream> {};

} // namespace

// Every picture equals ffmpeg's own decode of the file, in order, for both
// codecs, both sizes (one decoded single-threaded, one with frame threads),
// with and without reordering; the handle returns all its memory.
TEST_P(VideoDecode, PicturesMatchFfmpeg)
{
    const Stream& s = GetParam();
    std::string path = FixturePath(s.file);
    REQUIRE_FIXTURE(path);
    auto packets = ReadPackets(path);
    ASSERT_GT(packets.size(), 10u);
    auto ref = FfmpegFrameMd5(path);
    ASSERT_EQ(ref.size(), packets.size());

    uint64_t liveBefore = QMX_HeapLiveBytes();
    CODE_HANDLE h{};
    ASSERT_EQ(CreateVideo(h, s.type, packets[0], 0), KORVALEN_OK);
    const std::pair<uint32_t, uint32_t> size{s.width, s.height};
    EXPECT_EQ(h.codecType, static_cast<int32_t>(s.type));
    EXPECT_EQ(std::make_pair(h.width, h.height), size) << "size learnt from the sequence parameter set";
    DecodeRun run = DecodeAll(h, packets);
    EXPECT_EQ(run.shown, ref);
    if (s.width == 1280) {
        EXPECT_EQ(run.results[0], KORVALEN_ERR_DECODE_NO_OUTPUT) << "frame threads hold the first picture";
    }
    EXPECT_EQ(run.sizes, decltype(run.sizes)(run.sizes.size(), size));
    EXPECT_EQ(CODE_FreeCode(&h), KORVALEN_OK);
    EXPECT_EQ(h.codecType, -1);
    EXPECT_EQ(QMX_HeapLiveBytes(), liveBefore);
}

INSTANTIATE_TEST_SUITE_P(Files, VideoDecode,
                         ::testing::Values(Stream{"h264_352x288_nob.h264", KORVALEN_CODEC_H264, 352, 288},
                                           Stream{"h264_352x288_b.h264", KORVALEN_CODEC_H264, 352, 288},
                                           Stream{"h264_1280x720_nob.h264", KORVALEN_CODEC_H264, 1280, 720},
                                           Stream{"h264_1280x720_b.h264", KORVALEN_CODEC_H264, 1280, 720},
                                           Stream{"hevc_352x288_nob.hevc", KORVALEN_CODEC_H265, 352, 288},
                                           Stream{"hevc_352x288_b.hevc", KORVALEN_CODEC_H265, 352, 288},
                                           Stream{"hevc_1280x720_nob.hevc", KORVALEN_CODEC_H265, 1280, 720},
                                           Stream{"hevc_1280x720_b.hevc", KORVALEN_CODEC_H265, 1280, 720}),
                         [](const auto& info) {
                             std::string n = info.param.file;
                             return n.substr(0, n.find('.'));
                         });

// Low delay: a picture for every frame from the first one on, even where the
// size would otherwise bring frame threads (which hold pictures back).
// Pictures in 4:2:2 or with 10 bits come out as 8-bit 4:2:0, converted as
// ffmpeg converts them (a no-op for the 4:2:0 files).
TEST(VideoDecodeLowDelay, PictureForEveryFrameAndLayoutsBecome420)
{
    for (auto [file, type] :
         {std::pair{"h264_1280x720_nob.h264", KORVALEN_CODEC_H264},
          std::pair{"hevc_1280x720_nob.hevc", KORVALEN_CODEC_H265}, std::pair{"h264_422.h264", KORVALEN_CODEC_H264},
          std::pair{"hevc_10bit.hevc", KORVALEN_CODEC_H265}}) {
        std::string path = FixturePath(file);
        REQUIRE_FIXTURE(path);
        auto packets = ReadPackets(path);
        CODE_HANDLE h{};
        ASSERT_EQ(CreateVideo(h, type, packets[0], 1), KORVALEN_OK);
        DecodeRun run = DecodeAll(h, packets);
        CODE_FreeCode(&h);
        EXPECT_EQ(run.shown, FfmpegFrameMd5(path, "", "-pix_fmt yuv420p")) << file;
        EXPECT_EQ(run.results, std::vector<uint32_t>(packets.size(), KORVALEN_OK)) << file;
    }
}

// A display thread reading the record under its lock always sees a whole
// picture of the stream, while frame threads decode and pictures are swapped.
TEST(VideoDecodeOutput, ReaderUnderLockSeesWholePictures)
{
    std::string path = FixturePath("h264_1280x720_b.h264");
    REQUIRE_FIXTURE(path);
    auto packets = ReadPackets(path);
    auto ref = FfmpegFrameMd5(path);
    CODE_HANDLE h{};
    ASSERT_EQ(CreateVideo(h, KORVALEN_CODEC_H264, packets[0], 0), KORVALEN_OK);
    CODE_OUTPUT out;
    std::atomic<bool> done{false};
    std::vector<std::string> seen;
    std::thread display([&] {
        while (!done) {
            std::lock_guard<std::mutex> lock(out.lock);
            if (out.planes[0]) {
                seen.push_back(PictureMd5(out));
            }
        }
    });
    DecodeRun run = DecodeAll(h, packets, -1, nullptr, &out);
    done = true;
    display.join();
    CODE_FreeCode(&h);
    EXPECT_EQ(run.shown, ref);
    ASSERT_FALSE(seen.empty());
    for (const auto& m : seen) {
        ASSERT_NE(std::find(ref.begin(), ref.end(), m), ref.end()) << "a torn or stale picture";
    }
}

// A marked frame is decoded (later pictures still predict from it) but not
// shown; the next frame is. With B-frames the mark follows the frame through
// reordering.
TEST(VideoDecodeMarks, MarkedFrameIsDecodedButNotShown)
{
    std::string nob = FixturePath("h264_352x288_nob.h264");
    std::string withB = FixturePath("hevc_352x288_b.hevc");
    REQUIRE_FIXTURE(nob);
    REQUIRE_FIXTURE(withB);

    // The stream twice over, so the mark ring wraps: a mark is used once.
    auto packets = ReadPackets(nob);
    auto ref = FfmpegFrameMd5(nob);
    ASSERT_FALSE(packets.empty());
    auto once = packets;
    packets.insert(packets.end(), once.begin(), once.end());
    auto refOnce = ref;
    ref.insert(ref.end(), refOnce.begin(), refOnce.end());
    ASSERT_GT(packets.size(), 3u + CODE_MARK_RING + 1);
    CODE_HANDLE h{};
    ASSERT_EQ(CreateVideo(h, KORVALEN_CODEC_H264, packets[0], 1), KORVALEN_OK);
    DecodeRun run = DecodeAll(h, packets, 3);
    CODE_FreeCode(&h);
    EXPECT_EQ(run.results[3], KORVALEN_ERR_DECODE_NO_OUTPUT);
    EXPECT_EQ(run.results[4], KORVALEN_OK);
    auto expected = ref;
    expected.erase(expected.begin() + 3);
    EXPECT_EQ(run.shown, expected);

    packets = ReadPackets(withB);
    ref = FfmpegFrameMd5(withB);
    ASSERT_EQ(CreateVideo(h, KORVALEN_CODEC_H265, packets[0], 0), KORVALEN_OK);
    run = DecodeAll(h, packets, 5);
    CODE_FreeCode(&h);
    ASSERT_EQ(run.shown.size() + 1, ref.size());
    size_t hidden = 0;
    while (hidden < run.shown.size() && run.shown[hidden] == ref[hidden]) {
        ++hidden;
    }
    expected = ref;
    expected.erase(expected.begin() + static_cast<long>(hidden));
    EXPECT_EQ(run.shown, expected) << "exactly one picture is hidden";
    EXPECT_NE(hidden, 5u) << "the fifth frame in decode order is not the fifth shown";
}

// Two streams of different sizes back to back: the decoder is re-created for
// the new size and every picture of both parts comes out.
TEST(VideoDecodeSizeChange, RecreatesAndKeepsGoing)
{
    struct Case {
        const char* joined;
        const char* small;
        const char* large;
        uint32_t type;
    };
    for (const Case& c :
         {Case{"h264_sizechange.h264", "h264_352x288_nob.h264", "h264_1280x720_nob.h264", KORVALEN_CODEC_H264},
          Case{"hevc_sizechange.hevc", "hevc_352x288_nob.hevc", "hevc_1280x720_nob.hevc", KORVALEN_CODEC_H265}}) {
        std::string path = FixturePath(c.joined);
        REQUIRE_FIXTURE(path);
        auto packets = ReadPackets(path);
        auto refSmall = FfmpegFrameMd5(FixturePath(c.small));
        auto refLarge = FfmpegFrameMd5(FixturePath(c.large));
        ASSERT_EQ(packets.size(), refSmall.size() + refLarge.size());

        LogCapture log;
        CODE_HANDLE h{};
        ASSERT_EQ(CreateVideo(h, c.type, packets[0], 0), KORVALEN_OK);
        DecodeRun run = DecodeAll(h, packets);
        EXPECT_EQ(std::make_pair(h.width, h.height), std::make_pair(1280u, 720u));
        CODE_FreeCode(&h);
        EXPECT_EQ(log.Count("decoder re-created"), 1u) << c.joined;
        auto expected = refSmall;
        expected.insert(expected.end(), refLarge.begin(), refLarge.end());
        EXPECT_EQ(run.shown, expected) << c.joined;
        ASSERT_FALSE(run.sizes.empty());
        EXPECT_EQ(run.sizes.front(), std::make_pair(352u, 288u));
        EXPECT_EQ(run.sizes.back(), std::make_pair(1280u, 720u));
    }
}

// Damaged frames give the failure codes or concealed pictures, never a crash.
// Truncated frames come out exactly as ffmpeg's decoder makes them of the
// same damaged stream; after flipped bytes the stream recovers at the last
// key frame.
TEST(VideoDecodeDamage, CorruptAndTruncatedFrames)
{
    for (auto [file, type, failCode] : {std::tuple{"h264_352x288_nob.h264", KORVALEN_CODEC_H264, KORVALEN_ERR_DECODE},
                                        std::tuple{"hevc_352x288_nob.hevc", KORVALEN_CODEC_H265, 1u}}) {
        std::string path = FixturePath(file);
        REQUIRE_FIXTURE(path);
        auto packets = ReadPackets(path);
        auto ref = FfmpegFrameMd5(path);
        ASSERT_EQ(packets.size(), 25u) << "key frames at 0, 12 and 24";
        const auto onlyKnownCodes = [&](const DecodeRun& run) {
            for (uint32_t r : run.results) {
                EXPECT_TRUE(r == KORVALEN_OK || r == KORVALEN_ERR_DECODE_NO_OUTPUT || r == failCode)
                    << file << " " << r;
            }
        };

        // Frames 1..11 cut to a third.
        auto truncated = packets;
        Bytes joined;
        for (size_t i = 0; i < truncated.size(); ++i) {
            if (i >= 1 && i < 12) {
                truncated[i].resize(truncated[i].size() / 3);
            }
            joined.insert(joined.end(), truncated[i].begin(), truncated[i].end());
        }
        auto damagedRef = FfmpegFrameMd5(SaveScratch(std::string("truncated_") + file, joined), "-threads 1");

        CODE_HANDLE h{};
        ASSERT_EQ(CreateVideo(h, type, packets[0], 0), KORVALEN_OK);
        DecodeRun run = DecodeAll(h, packets, -1, &truncated);
        EXPECT_EQ(run.shown, damagedRef) << file;
        onlyKnownCodes(run);

        // Frames 1..23 with bytes flipped all over, headers included.
        std::mt19937 rng(7);
        auto flipped = packets;
        for (size_t i = 1; i < 24; ++i) {
            for (size_t k = 2; k < flipped[i].size(); k += 5) {
                flipped[i][k] ^= static_cast<uint8_t>(rng());
            }
        }
        run = DecodeAll(h, packets, -1, &flipped);
        onlyKnownCodes(run);
        EXPECT_GT(std::count(run.results.begin(), run.results.end(), failCode), 0) << file;
        ASSERT_FALSE(run.shown.empty());
        EXPECT_EQ(run.shown.back(), ref.back()) << file;

        // Garbage that is not a stream at all.
        Bytes junk(3000);
        for (auto& b : junk) {
            b = static_cast<uint8_t>(rng());
        }
        CODE_INPUT in = CodeInput(junk);
        CODE_OUTPUT out;
        uint32_t r = CODE_Decoder(&h, &in, &out);
        EXPECT_TRUE(r == failCode || r == KORVALEN_ERR_DECODE_NO_OUTPUT) << r;
        CODE_FreeCode(&h);
    }
}

// Line doubling works on a copy, also for pictures already converted into
// one (4:2:2): the next picture, predicted from the doubled one, is exact.
TEST(VideoDecodeDeinterlace, LineDoublingLeavesReferencesAlone)
{
    for (auto [file, type] :
         {std::pair{"h264_352x288_nob.h264", KORVALEN_CODEC_H264}, std::pair{"h264_422.h264", KORVALEN_CODEC_H264}}) {
        std::string path = FixturePath(file);
        REQUIRE_FIXTURE(path);
        auto packets = ReadPackets(path);
        auto ref = FfmpegFrameMd5(path, "", "-pix_fmt yuv420p");
        CODE_HANDLE h{};
        ASSERT_EQ(CreateVideo(h, type, packets[0], 1), KORVALEN_OK);
        CODE_OUTPUT out;
        for (size_t i = 0; i < 3; ++i) {
            CODE_INPUT in = CodeInput(packets[i]);
            in.deinterlace = i == 1 ? 1 : 0;
            ASSERT_EQ(CODE_Decoder(&h, &in, &out), KORVALEN_OK);
            if (i != 1) {
                EXPECT_EQ(PictureMd5(out), ref[i]) << file;
                continue;
            }
            EXPECT_NE(PictureMd5(out), ref[1]);
            for (int p = 0; p < 3; ++p) {
                uint32_t w = p ? out.width / 2 : out.width;
                uint32_t rows = p ? out.height / 2 : out.height;
                for (uint32_t y = 0; y + 1 < rows; y += 2) {
                    ASSERT_EQ(
                        std::memcmp(out.planes[p] + y * out.pitches[p], out.planes[p] + (y + 1) * out.pitches[p], w), 0)
                        << file;
                }
            }
        }
        CODE_FreeCode(&h);
    }
}

// H.265 without a readable parameter set at creation: the fallback size, then
// the real size learnt from the stream without a re-creation. Re-creating by
// hand keeps the handle working from the next key frame.
TEST(VideoDecodeCreate, H265FallbackSizeAndReCreate)
{
    std::string path = FixturePath("hevc_352x288_nob.hevc");
    REQUIRE_FIXTURE(path);
    auto packets = ReadPackets(path);
    auto ref = FfmpegFrameMd5(path);
    LogCapture log;
    CODE_HANDLE h{};
    ASSERT_EQ(CreateVideo(h, KORVALEN_CODEC_H265, packets[1], 0), KORVALEN_OK);
    EXPECT_TRUE(log.Has("H265D_Create iMaxWidth:3840, iMaxHeight:3840"));
    EXPECT_TRUE(log.Has("Call H265, Version("));
    EXPECT_EQ(h.sizeUnknown, 1u);
    DecodeRun run = DecodeAll(h, packets);
    EXPECT_EQ(run.shown, ref);
    EXPECT_EQ(h.width, 352u);
    EXPECT_EQ(log.Count("decoder re-created"), 0u);

    EXPECT_EQ(CODE_ReCreateDecoder(1920, 1, &h), KORVALEN_OK);
    EXPECT_TRUE(log.Has("CODE_ReCreateDecoder succeed"));
    EXPECT_TRUE(log.Has("H265D_Create iMaxWidth:1920, iMaxHeight:1920"));
    CODE_OUTPUT out;
    CODE_INPUT in = CodeInput(packets[12]); // a key frame
    EXPECT_EQ(CODE_Decoder(&h, &in, &out), KORVALEN_OK) << "low delay after re-creation";
    EXPECT_EQ(PictureMd5(out), ref[12]);
    CODE_FreeCode(&h);

    CODE_HANDLE h264{};
    auto h264Packets = ReadPackets(FixturePath("h264_352x288_nob.h264"));
    ASSERT_FALSE(h264Packets.empty());
    ASSERT_EQ(CreateVideo(h264, KORVALEN_CODEC_H264, h264Packets[0], 0), KORVALEN_OK);
    EXPECT_TRUE(log.Has("dec_h264_init ThradCnt=1"));
    EXPECT_EQ(CODE_ReCreateDecoder(1920, 0, &h264), KORVALEN_ERR_INVALID_PARAM) << "only for H.265";
    CODE_FreeCode(&h264);
}

// Creation failures leave nothing behind.
TEST(VideoDecodeCreate, FailuresFreeEverything)
{
    std::string path = FixturePath("h264_352x288_nob.h264");
    REQUIRE_FIXTURE(path);
    auto packets = ReadPackets(path);
    uint64_t liveBefore = QMX_HeapLiveBytes();
    LogCapture log;

    // GPU without a window: 2 and a warning.
    CODE_HANDLE h{};
    h.h264Gpu = 1;
    EXPECT_EQ(CreateVideo(h, KORVALEN_CODEC_H264, packets[0], 0), KORVALEN_ERR_INVALID_PARAM);
    EXPECT_EQ(log.LevelOf("CODE_CreateCode warm, Gpu decoder need hWnd"), KORVALEN_LOG_WARN);
    EXPECT_EQ(h.codecType, -1);
    h = {};
    h.h265Gpu = 1;
    EXPECT_EQ(CreateVideo(h, KORVALEN_CODEC_H265, packets[0], 0), KORVALEN_ERR_INVALID_PARAM);
    EXPECT_TRUE(log.Has("CODE_CreateCode warm, H.265 Gpu decoder need hWnd"));

    // GPU with a window on a machine the probe found no device on: 527.
    if (!CODE_GpuDevice()) {
        h = {};
        h.h264Gpu = 1;
        CODE_PARAM p{};
        p.window = 0x1234;
        EXPECT_EQ(CODE_CreateCode(CODE_DIR_DECODER, KORVALEN_CODEC_H264, &p, &h), KORVALEN_ERR_DECODER_CREATE);
        EXPECT_TRUE(log.Has("CODE_CreateCode fail, DSP_GpuDec_Create fail"));
        EXPECT_EQ(h.h264Gpu, 0u);
    }

    // The work buffer cannot be had: 3, the decoder is gone again.
    h = {};
    QMX_HeapFailAt(2); // the first allocation is the decoder object
    EXPECT_EQ(CreateVideo(h, KORVALEN_CODEC_H264, packets[0], 0), KORVALEN_ERR_NO_MEMORY);
    QMX_HeapFailAt(0);
    EXPECT_EQ(h.library, nullptr);
    EXPECT_EQ(QMX_HeapLiveBytes(), liveBefore);
}

TEST(GpuCapability, StateAndNullArgument)
{
    LogCapture log;
    EXPECT_EQ(CODE_CatchHwDecEx(1, nullptr), KORVALEN_ERR_INVALID_PARAM);
    EXPECT_EQ(log.LevelOf("CODE_CatchHwDecEx, pstGpuAbleState is NULL"), KORVALEN_LOG_ERROR);
    uint8_t state[32];
    std::memset(state, 0xAB, sizeof state);
    ASSERT_EQ(CODE_CatchHwDecEx(0, state), KORVALEN_OK);
    EXPECT_EQ(std::vector<uint8_t>(state, state + 32), std::vector<uint8_t>(32, 0));

    // The start-up probe: the capability state says what the probe logged.
    ASSERT_EQ(CODE_GlobalInit(), KORVALEN_OK);
    ASSERT_EQ(CODE_CatchHwDecEx(1, state), KORVALEN_OK);
    uint32_t able[2];
    std::memcpy(able, state, sizeof able);
    bool found = log.Has("This computer support gpu");
    EXPECT_NE(found, log.Has("This computer not support gpu"));
    EXPECT_EQ(found, able[0] || able[1]);
    EXPECT_EQ(found, CODE_GpuDevice() != nullptr);
    CODE_GlobalRelease();
    EXPECT_EQ(CODE_GpuDevice(), nullptr);

    CODE_OUTPUT out;
    EXPECT_EQ(CODE_GetYuvData(nullptr, &out), KORVALEN_ERR_INVALID_PARAM);
    EXPECT_TRUE(log.Has("CODE_GetYuvData fail, input extra data param is null"));
    CODE_HANDLE h{};
    EXPECT_EQ(CODE_GetYuvData(&h, &out), KORVALEN_ERR_INVALID_PARAM);
    EXPECT_TRUE(log.Has("CODE_GetYuvData fail, input dev param is null"));
}
