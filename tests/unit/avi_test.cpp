// The AVI writer and reader: files we write play in ffmpeg frame for frame,
// read back byte for byte in every read mode, seek to key frames, carry a
// frame-rate change, and survive losing their end.
#include <cstring>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

#include "codec_media.h"
#include "demux/avi/avi.h"
#include "heap/qmx_heap.h"
#include "log_capture.h"
#include "test_env.h"

namespace {

bool IsIdr(const Bytes& au)
{
    for (size_t i = 0; i + 3 < au.size(); ++i) {
        if (au[i] == 0 && au[i + 1] == 0 && au[i + 2] == 1 && (au[i + 3] & 31) == 5) {
            return true;
        }
    }
    return false;
}

// Writes the access units as an H.264 AVI, key frames where an IDR is; from
// frame fpsChangeAt on at newFps.
void WriteAvi(const std::string& path, const std::vector<Bytes>& aus, uint32_t fps, uint32_t fpsChangeAt = 0,
              uint32_t newFps = 0, bool close = true)
{
    AVI_HANDLE avi = AVI_OpenOutputFile(path.c_str());
    ASSERT_NE(avi, nullptr);
    AVI_ENC_PARAM p{2, 352, 288, fps, 0, 0, 0, 0};
    ASSERT_EQ(AVI_EncInit(&p, avi), 0u);
    for (size_t i = 0; i < aus.size(); ++i) {
        const uint32_t rate = fpsChangeAt && i >= fpsChangeAt ? newFps : fps;
        AVI_ENC_FRAME f{0, aus[i].data(), static_cast<uint32_t>(aus[i].size()), IsIdr(aus[i]) ? 1u : 0u, rate};
        ASSERT_EQ(AVI_EncFrame(avi, &f), 0u);
    }
    if (close) {
        ASSERT_EQ(AVI_FileClose(nullptr, avi), 0u);
    }
}

struct AviTest : ::testing::Test {
    std::string dir = TestHome() + "/avi";
    std::vector<Bytes> aus;
    std::vector<uint8_t> buf = std::vector<uint8_t>(0x200000);
    void SetUp() override
    {
        const std::string src = FixturePath("h264_352x288_nob.h264");
        REQUIRE_FIXTURE(src);
        aus = ReadPackets(src);
        ASSERT_EQ(aus.size(), 25u);
        mkdir(dir.c_str(), 0755);
    }
    void TearDown() override
    {
        RemoveTree(dir);
        EXPECT_EQ(QMX_HeapLiveBytes(), 0u);
    }
    AVI_FRAME_INFO Frame()
    {
        AVI_FRAME_INFO f{};
        f.data = buf.data();
        f.capacity = static_cast<uint32_t>(buf.size());
        return f;
    }
};

} // namespace

TEST_F(AviTest, WrittenFilePlaysInFfmpegAndReadsBack)
{
    const std::string path = dir + "/a.avi";
    WriteAvi(path, aus, 25);
    const auto want = FfmpegFrameMd5(FixturePath("h264_352x288_nob.h264"));
    ASSERT_EQ(want.size(), 25u);
    EXPECT_EQ(FfmpegFrameMd5(path), want);

    AVI_HANDLE avi = AVI_CreateAviParser(path.c_str());
    ASSERT_NE(avi, nullptr);
    AVI_INFO info{};
    ASSERT_EQ(AVI_GetAviInfo(avi, &info), 0u);
    EXPECT_EQ(std::make_pair(info.frameRate, info.totalTime), std::make_pair(25u, 1u));
    for (size_t i = 0; i < aus.size(); ++i) {
        AVI_FRAME_INFO f = Frame();
        ASSERT_EQ(AVI_GetOneFrameData(avi, AVI_READ_VIDEO, &f), 0u) << i;
        ASSERT_EQ(Bytes(f.data, f.data + f.length), aus[i]) << i;
        EXPECT_EQ(f.timeStamp, 3600u * i);
        EXPECT_EQ(f.payloadType, 3u);
        EXPECT_EQ(f.frameType, i % 12 == 0 ? 0u : 1u) << i;
    }
    AVI_FRAME_INFO f = Frame();
    LogCapture log;
    EXPECT_EQ(AVI_GetOneFrameData(avi, AVI_READ_VIDEO, &f), 263u);
    EXPECT_TRUE(log.Has("AVI_GetOneFrameData info, file read complete"));
    uint32_t secs = 9;
    ASSERT_EQ(AVI_GetCurSampleIndex(avi, &secs), 0u);
    EXPECT_EQ(secs, 1u);

    // Seeking: one frame past the end fails; inside it lands on a key frame.
    EXPECT_EQ(AVI_SetPlayTime(avi, 1, 25), 1u);
    EXPECT_TRUE(log.Has("AVI_SetPlayTime fail, Not find Index"));
    ASSERT_EQ(AVI_SetPlayTime(avi, 1, 13), 0u);
    f = Frame();
    ASSERT_EQ(AVI_GetOneFrameData(avi, AVI_READ_ANY, &f), 0u);
    EXPECT_EQ(Bytes(f.data, f.data + f.length), aus[24]);
    EXPECT_EQ(f.timeStamp, 24u * 3600);

    // Key frames only.
    ASSERT_EQ(AVI_SetPlayTime(avi, 0, 25), 0u);
    std::vector<uint64_t> keys;
    for (f = Frame(); AVI_GetOneFrameData(avi, AVI_READ_KEY, &f) == 0; f = Frame()) {
        keys.push_back(f.timeStamp / 3600);
    }
    EXPECT_EQ(keys, (std::vector<uint64_t>{0, 12, 24}));
    uint32_t flag = 1;
    EXPECT_EQ(AVI_FileClose(&flag, avi), 0u);
    EXPECT_EQ(flag, 0u);
}

TEST_F(AviTest, FrameRateChangeAndZeroRate)
{
    const std::string path = dir + "/rate.avi";
    LogCapture log;
    WriteAvi(path, aus, 25, 10, 30);
    EXPECT_EQ(log.Count("AVI_EncFrame : FrameRate Change Old Frame:25 new Frame:30"), 1u) << "once per change";
    AVI_HANDLE avi = AVI_CreateAviParser(path.c_str());
    ASSERT_NE(avi, nullptr);
    AVI_INFO info{};
    ASSERT_EQ(AVI_GetAviInfo(avi, &info), 0u);
    EXPECT_EQ(info.frameRate, 30u) << "the header follows the change";
    AVI_FileClose(nullptr, avi);

    // A stream header with a rate of 0: 25 reported, the length untouched.
    FILE* fp = std::fopen(path.c_str(), "rb+");
    ASSERT_NE(fp, nullptr);
    const uint8_t zero[4] = {};
    std::fseek(fp, 132, SEEK_SET); // strh dwRate of the video stream
    std::fwrite(zero, 1, 4, fp);
    std::fclose(fp);
    avi = AVI_CreateAviParser(path.c_str());
    ASSERT_NE(avi, nullptr);
    info.totalTime = 777;
    ASSERT_EQ(AVI_GetAviInfo(avi, &info), 0u);
    EXPECT_EQ(std::make_pair(info.frameRate, info.totalTime), std::make_pair(25u, 777u));
    EXPECT_TRUE(log.Has("AVI_GetAviInfo fail, framerate == 0 "));
    AVI_FileClose(nullptr, avi);
}

TEST_F(AviTest, FileCutShortIsReadAndRepaired)
{
    const std::string path = dir + "/cut.avi";
    WriteAvi(path, aus, 25);
    struct stat st;
    ASSERT_EQ(stat(path.c_str(), &st), 0);
    // Lose the index and half of the last-but-one frame.
    size_t keep = 2060;
    for (size_t i = 0; i < 23; ++i) {
        keep += 8 + aus[i].size() + (aus[i].size() & 1);
    }
    ASSERT_EQ(truncate(path.c_str(), static_cast<off_t>(keep + 8 + aus[23].size() / 2)), 0);
    AVI_HANDLE avi = AVI_CreateAviParser(path.c_str());
    ASSERT_NE(avi, nullptr);
    uint32_t n = 0;
    std::vector<uint32_t> keyFrames;
    for (AVI_FRAME_INFO f = Frame(); AVI_GetOneFrameData(avi, AVI_READ_VIDEO, &f) == 0; f = Frame(), ++n) {
        ASSERT_EQ(Bytes(f.data, f.data + f.length), aus[n]);
        if (f.frameType == 0) {
            keyFrames.push_back(n);
        }
    }
    EXPECT_EQ(n, 23u) << "whole frames only";
    EXPECT_EQ(keyFrames, (std::vector<uint32_t>{0, 12})) << "key frames found in the data";
    AVI_FileClose(nullptr, avi);

    ASSERT_EQ(AVIF_Repair(path.c_str()), 0u);
    const auto want = FfmpegFrameMd5(FixturePath("h264_352x288_nob.h264"));
    EXPECT_EQ(FfmpegFrameMd5(path), std::vector<std::string>(want.begin(), want.begin() + 23));
}

TEST_F(AviTest, MarkedFramesAndBadArguments)
{
    // Key, marked (SEI 0x21), plain slice, marked: mode 3 skips the slice.
    const std::vector<Bytes> frames = {
        {0, 0, 0, 1, 0x65, 0x88, 1, 2},
        {0, 0, 0, 1, 0x06, 0x21, 9, 0, 0, 1, 0x41, 3},
        {0, 0, 0, 1, 0x41, 0x9a, 4},
        {0, 0, 1, 0x06, 0x21, 7, 0, 0, 1, 0x41, 5},
    };
    const std::string path = dir + "/marks.avi";
    WriteAvi(path, frames, 25);
    AVI_HANDLE avi = AVI_CreateAviParser(path.c_str());
    ASSERT_NE(avi, nullptr);
    std::vector<Bytes> got;
    for (AVI_FRAME_INFO f = Frame(); AVI_GetOneFrameData(avi, AVI_READ_MARKED, &f) == 0; f = Frame()) {
        got.emplace_back(f.data, f.data + f.length);
    }
    EXPECT_EQ(got, (std::vector<Bytes>{frames[0], frames[1], frames[3]}));
    AVI_FileClose(nullptr, avi);

    LogCapture log;
    AVI_HANDLE bad = AVI_OpenOutputFile((dir + "/bad.avi").c_str());
    AVI_ENC_PARAM unknownVideo{9, 16, 16, 25, 0, 0, 0, 0};
    EXPECT_EQ(AVI_EncInit(&unknownVideo, bad), 2u);
    EXPECT_TRUE(log.Has("AVI_EncInit fail,Unknown video compressor"));
    AVI_ENC_PARAM unknownAudio{1, 16, 16, 25, 7, 1, 8000, 16};
    EXPECT_EQ(AVI_EncInit(&unknownAudio, bad), 0u);
    EXPECT_TRUE(log.Has("AVI_EncInit fail,Unknown wave format"));
    EXPECT_EQ(bad->formatTag, 0u);
    EXPECT_EQ(AVI_EncInit(nullptr, bad), 2u);
    EXPECT_EQ(AVI_EncFrame(bad, nullptr), 2u);
    EXPECT_TRUE(log.Has("AVI_EncFrame fail,AviHandle or FrameInfo is empty"));
    AVI_FileClose(nullptr, bad);
    EXPECT_EQ(AVI_GetAviInfo(nullptr, nullptr), 2u);
    EXPECT_TRUE(log.Has("Avi_GetAviInfo fail, AviInfo is null"));
    EXPECT_EQ(AVI_FileClose(nullptr, nullptr), 2u);
    EXPECT_EQ(AVI_SetPlayTime(nullptr, 0, 25), 2u);
    EXPECT_EQ(AVI_CreateAviParser((dir + "/missing.avi").c_str()), nullptr);
    const char wave[] = "RIFF\0\0\0\0WAVEfmt ";
    EXPECT_EQ(AVI_CreateAviParser(SaveScratch("avi/x.avi", Bytes(wave, wave + sizeof wave - 1)).c_str()), nullptr);
}
