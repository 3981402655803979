// Local file playback through the C API, headless (window 0): pictures from
// the decoded-video callback against ffmpeg's decode of the same file, the
// end-of-file report, stepping, seeking, speed, and refusals.
#include <algorithm>
#include <fstream>
#include <mutex>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "decoded_pictures.h"
#include "heap/qmx_heap.h"
#include "korvalen.h"
#include "port_fixture.h"
#include "run_messages.h"
#include "test_env.h"

namespace {

size_t EndReports(uint32_t port)
{
    return RunMessages::Get().Count(
        [&](const KORVALEN_RUN_MSG& m) { return m.port == port && m.code == KORVALEN_ERR_FILE_END; });
}

struct FilePlayTest : PortFixture {
    DecodedPictures got;
    void SetUp() override
    {
        PortFixture::SetUp();
        RunMessages::Install();
    }
    // Opens with one picture out per frame in, pictures to `got`.
    void OpenWithPictures(const std::string& path)
    {
        ASSERT_EQ(Korvalen_SetOneFrameDecodeMode(port), 1);
        ASSERT_EQ(Korvalen_SetDecodeVideoMediaDataCB(port, &DecodedPictures::OnDecoded, 1, &got), 1);
        ASSERT_EQ(Korvalen_OpenMediaFile(port, path.c_str()), 1);
    }
    size_t Count() { return got.Count(); }
    std::string Last()
    {
        const auto all = got.Md5s();
        return all.empty() ? "" : all.back();
    }
    uint64_t Stamp()
    {
        KORVALEN_PLAY_TIME t{};
        EXPECT_EQ(Korvalen_GetPlayTimeEx(port, &t), 1);
        return t.timestamp_90k;
    }
};

} // namespace

TEST_F(FilePlayTest, PlaysPictureForPictureAndReportsTheEndOnce)
{
    for (const char* name :
         {"file_h264_mp2.mp4", "file_hevc_aac.ts", "file_h264_mp2.avi", "file_h264_b_faststart.mp4"}) {
        SCOPED_TRACE(name);
        std::string path = FixturePath(name);
        REQUIRE_FIXTURE(path);
        auto want = FfmpegFrameMd5(path, "", "-map 0:v");
        ASSERT_EQ(want.size(), 75u);
        got.Clear();
        RunMessages::Get().Clear();
        OpenWithPictures(path);
        uint32_t total = 0;
        ASSERT_EQ(Korvalen_GetFileTime(port, &total), 1);
        EXPECT_GE(total, 2u);
        SleepMs(300);
        EXPECT_EQ(Count(), 0u) << "a file opens paused";
        ASSERT_EQ(Korvalen_SpeedPlay(port, 3), 1); // half the frame interval: quicker test
        ASSERT_EQ(Korvalen_StartPlay(port, 0), 1);
        EXPECT_EQ(got.Wait(75), 75u);
        WaitUntil([&] { return EndReports(port) > 0; }, 2000);
        SleepMs(300);
        EXPECT_EQ(EndReports(port), 1u);
        EXPECT_EQ(got.Md5s(), want);
        uint32_t now = 0;
        ASSERT_EQ(Korvalen_GetPlayTime(port, &now), 1);
        EXPECT_GE(now, 2u);
        // TS times count from the first PCR (as its coarse formula reads it),
        // which runs ahead of the frames' own time stamps.
        EXPECT_LE(now, total + 2);
        // Stays paused at the end; a seek and play start again.
        ASSERT_EQ(Korvalen_SetPlayedTime(port, 0), 1);
        ASSERT_EQ(Korvalen_PausePlay(port, 0), 1);
        EXPECT_GE(got.Wait(80), 80u);
        ASSERT_EQ(Korvalen_StopPlay(port, 0), 1);
        ASSERT_EQ(Korvalen_CloseMediaFile(port), 1);
    }
}

TEST_F(FilePlayTest, StepsForwardAndBackSeeksAndChangesSpeed)
{
    std::string path = FixturePath("file_h264_mp2.mp4");
    REQUIRE_FIXTURE(path);
    auto want = FfmpegFrameMd5(path, "", "-map 0:v");
    ASSERT_EQ(want.size(), 75u);
    OpenWithPictures(path);
    for (size_t i = 0; i < 4; ++i) {
        ASSERT_EQ(Korvalen_AFrameGo(port), 1);
        ASSERT_EQ(got.Wait(i + 1), i + 1);
        EXPECT_EQ(Last(), want[i]);
        EXPECT_EQ(Stamp(), i * 3600);
    }
    SleepMs(200);
    EXPECT_EQ(Count(), 4u) << "stepping pauses after the frame";
    ASSERT_EQ(Korvalen_AFrameBack(port), 1);
    ASSERT_EQ(got.Wait(5), 5u);
    EXPECT_EQ(Last(), want[2]);
    EXPECT_EQ(Stamp(), 2u * 3600);
    ASSERT_EQ(Korvalen_AFrameGo(port), 1);
    ASSERT_EQ(got.Wait(6), 6u);
    EXPECT_EQ(Last(), want[3]);

    // A seek while paused shows the key frame it lands on.
    ASSERT_EQ(Korvalen_SetPlayedTime(port, 2), 1);
    ASSERT_EQ(got.Wait(7), 7u);
    EXPECT_EQ(Last(), want[50]);
    EXPECT_EQ(Stamp(), 50u * 3600);
    uint32_t now = 0;
    ASSERT_EQ(Korvalen_GetPlayTime(port, &now), 1);
    EXPECT_EQ(now, 2u);
    EXPECT_EQ(Korvalen_SetPlayedTime(port, 4), 0);
    EXPECT_EQ(Korvalen_GetLastError(), KORVALEN_ERR_JUMP_OVER);

    EXPECT_EQ(Korvalen_SpeedPlay(port, 36), 0);
    EXPECT_EQ(Korvalen_GetLastError(), KORVALEN_ERR_INVALID_PARAM);
    ASSERT_EQ(Korvalen_SpeedPlay(port, 22), 1); // accepted, changes nothing: still paused
    SleepMs(200);
    EXPECT_EQ(Count(), 7u);

    // Pace: frames shown in the same time at double and at half interval.
    ASSERT_EQ(Korvalen_SetPlayedTime(port, 0), 1);
    ASSERT_EQ(got.Wait(8), 8u);
    auto framesIn = [&](uint32_t speed) {
        size_t before = Count();
        EXPECT_EQ(Korvalen_SpeedPlay(port, speed), 1);
        SleepMs(600);
        EXPECT_EQ(Korvalen_PausePlay(port, 1), 1);
        SleepMs(100);
        size_t n = Count() - before;
        EXPECT_EQ(Korvalen_PausePlay(port, 0), 1);
        return n;
    };
    const size_t slow = framesIn(1); // 80 ms a frame
    const size_t fast = framesIn(3); // 20 ms a frame
    EXPECT_GT(fast, slow + 3) << "slow " << slow << " fast " << fast;
    ASSERT_EQ(Korvalen_CloseMediaFile(port), 1);
}

// Without a sample index (MPEG-TS, AVI) a step back seeks before the frame
// and decodes up to the one ahead of it, across a key frame too.
TEST_F(FilePlayTest, StepsBackInFilesWithoutAnIndex)
{
    for (const char* name : {"file_h264_mp2.ts", "file_h264_mp2.avi"}) {
        SCOPED_TRACE(name);
        std::string path = FixturePath(name);
        REQUIRE_FIXTURE(path);
        const auto want = FfmpegFrameMd5(path, "", "-map 0:v");
        got.Clear();
        OpenWithPictures(path);
        ASSERT_EQ(Korvalen_AFrameBack(port), 1); // before any frame: nothing
        for (size_t i = 0; i < 27; ++i) {        // up to frame 26, past the key frame at 25
            ASSERT_EQ(Korvalen_AFrameGo(port), 1);
        }
        ASSERT_EQ(got.Wait(27), 27u);
        EXPECT_EQ(Last(), want[26]);
        for (size_t n = 1; n <= 3; ++n) {
            ASSERT_EQ(Korvalen_AFrameBack(port), 1);
            ASSERT_EQ(got.Wait(27 + n), 27 + n);
            EXPECT_EQ(Last(), want[26 - n]) << "step back " << n;
        }
        ASSERT_EQ(Korvalen_AFrameGo(port), 1);
        ASSERT_EQ(got.Wait(31), 31u);
        EXPECT_EQ(Last(), want[24]);
        // A seek while paused shows the key frame it lands on (TS lands on
        // any frame and passes over the pictures up to the next key frame).
        ASSERT_EQ(Korvalen_SetPlayedTime(port, 1), 1);
        ASSERT_EQ(got.Wait(32), 32u);
        const auto at = std::find(want.begin(), want.end(), Last());
        ASSERT_NE(at, want.end());
        EXPECT_EQ((at - want.begin()) % 25, 0) << "picture " << at - want.begin();
        EXPECT_GT(at - want.begin(), 0);
        ASSERT_EQ(Korvalen_CloseMediaFile(port), 1);
    }
}

// The fast codes show key frames only, one per frame interval x factor: 16 a
// second for code 7, whatever the distance between key frames in the file.
TEST_F(FilePlayTest, KeyFrameFastForwardKeepsItsPace)
{
    std::string path = FixturePath("file_h264_gop5.mp4");
    REQUIRE_FIXTURE(path);
    const auto want = FfmpegFrameMd5(path);
    OpenWithPictures(path);
    ASSERT_EQ(Korvalen_SpeedPlay(port, 7), 1);
    ASSERT_EQ(Korvalen_StartPlay(port, 0), 1);
    SleepMs(1000);
    ASSERT_EQ(Korvalen_StopPlay(port, 0), 1);
    const auto shown = got.Md5s();
    // 16 asked; loose bounds for a busy machine.
    EXPECT_GE(shown.size(), 8u);
    EXPECT_LE(shown.size(), 24u);
    for (size_t i = 0; i < shown.size(); ++i) {
        EXPECT_EQ(shown[i], want[5 * i]) << "key frame " << i;
    }
    ASSERT_EQ(Korvalen_CloseMediaFile(port), 1);
}

TEST_F(FilePlayTest, RefusalsAndFileKinds)
{
    uint32_t v = 0;
    // Not a file port.
    EXPECT_EQ(Korvalen_SpeedPlay(port, 2), 0);
    EXPECT_EQ(Korvalen_GetLastError(), KORVALEN_ERR_NOT_SUPPORTED);
    EXPECT_EQ(Korvalen_GetFileTime(port, &v), 0);
    EXPECT_EQ(Korvalen_GetLastError(), KORVALEN_ERR_NOT_SUPPORTED);
    EXPECT_EQ(Korvalen_SetPlayedTime(port, 1), 0);
    EXPECT_EQ(Korvalen_AFrameGo(port), 0);
    EXPECT_EQ(Korvalen_AFrameBack(port), 0);
    EXPECT_EQ(Korvalen_CheckMarkCancel(port), 0);
    EXPECT_EQ(Korvalen_GetLastError(), KORVALEN_ERR_NOT_SUPPORTED);

    // Content decides, not the name.
    const std::string text = TestHome() + "/readme.mp4";
    std::ofstream(text) << "plain text, not media\n";
    EXPECT_EQ(Korvalen_OpenMediaFile(port, text.c_str()), 0);
    EXPECT_EQ(Korvalen_GetLastError(), 7u);
    EXPECT_EQ(Korvalen_OpenMediaFile(port, (TestHome() + "/none.mp4").c_str()), 0);
    EXPECT_EQ(Korvalen_GetLastError(), KORVALEN_ERR_FILE_OPEN);

    std::string mp4 = FixturePath("file_h264_mp2.mp4");
    std::string ts = FixturePath("file_h264_mp2.ts");
    REQUIRE_FIXTURE(mp4);
    REQUIRE_FIXTURE(ts);
    const std::string renamed = TestHome() + "/renamed.ts";
    {
        std::ifstream in(mp4, std::ios::binary);
        std::ofstream out(renamed, std::ios::binary);
        out << in.rdbuf();
    }
    OpenWithPictures(renamed);
    ASSERT_EQ(Korvalen_GetFileTime(port, &v), 1);
    EXPECT_EQ(v, 3u);
    ASSERT_EQ(Korvalen_AFrameGo(port), 1);
    EXPECT_EQ(got.Wait(1), 1u);
    EXPECT_EQ(Korvalen_OpenMediaFile(port, mp4.c_str()), 0) << "one source at a time";
    ASSERT_EQ(Korvalen_CloseMediaFile(port), 1);

    // MPEG-TS: seeking past the end is refused.
    ASSERT_EQ(Korvalen_OpenMediaFile(port, ts.c_str()), 1);
    EXPECT_EQ(Korvalen_SetPlayedTime(port, 100), 0);
    EXPECT_EQ(Korvalen_GetLastError(), KORVALEN_ERR_JUMP_OVER);
    KORVALEN_MARK_QUERY q{0, 0};
    KORVALEN_MARK_INFO* marks = reinterpret_cast<KORVALEN_MARK_INFO*>(1);
    ASSERT_EQ(Korvalen_CheckMark(port, &q, &marks), 1);
    EXPECT_EQ(marks, nullptr) << "no marked frames in an ffmpeg file";
    ASSERT_EQ(Korvalen_CloseMediaFile(port), 1);

    // Marked frames of a recording, within a range, without moving playback.
    std::string marked = FixturePath("file_marked.mp4");
    REQUIRE_FIXTURE(marked);
    ASSERT_EQ(Korvalen_OpenMediaFile(port, marked.c_str()), 1);
    ASSERT_EQ(Korvalen_AFrameGo(port), 1);
    for (auto [from, to, want] : {std::tuple<uint32_t, uint32_t, size_t>{0, 0, 2}, {1, 0, 1}, {0, 1, 2}, {2, 0, 0}}) {
        KORVALEN_MARK_QUERY range{from, to};
        ASSERT_EQ(Korvalen_CheckMark(port, &range, &marks), 1);
        std::vector<uint64_t> stamps;
        for (KORVALEN_MARK_INFO* m = marks; m; m = m->next) {
            stamps.push_back(m->timestamp_90k / 3600);
            EXPECT_EQ(m->time_seconds, m->timestamp_90k / 90000);
        }
        EXPECT_EQ(stamps.size(), want) << from << ".." << to;
        for (uint64_t frame : stamps) {
            EXPECT_TRUE(frame == (from ? 40u : 10u) || frame == 40u) << frame;
        }
        if (marks) {
            EXPECT_EQ(Korvalen_FreeMarkInfo(marks), 1);
        }
    }
    EXPECT_EQ(Stamp(), 0u) << "the play position stays";
    ASSERT_EQ(Korvalen_CloseMediaFile(port), 1);

    uint32_t real = 0;
    ASSERT_EQ(Korvalen_MP4GetRealTime(mp4.c_str(), &real), 1);
    EXPECT_EQ(real, 1704164645u); // 2024-01-02T03:04:05Z, set when the file was made
    EXPECT_EQ(Korvalen_MP4GetRealTime(ts.c_str(), &real), 0);
}
