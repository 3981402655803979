// MPEG-TS files through the container dispatcher, beyond the contract every
// reader keeps: length and start from the PCRs, the sound, seeking by PCR,
// and cut files.
#include <algorithm>

#include <gtest/gtest.h>

#include "file_media.h"
#include "heap/qmx_heap.h"
#include "log_capture.h"

namespace {

struct TsTest : FileReaderTest {};

// The file's audio stream as ffmpeg copies it out: MP2 frames or ADTS.
Bytes FfmpegAudio(const std::string& path, const char* format)
{
    return RunCommand("ffmpeg -hide_banner -loglevel quiet -i '" + path + "' -map 0:a -c copy -f " + format + " -");
}

} // namespace

// What the contract leaves to MPEG-TS: the PCR properties, and the sound as
// ffmpeg copies it out.
TEST_F(TsTest, PcrPropertiesAndSoundOfBothCodecs)
{
    struct Case {
        const char* name;
        uint32_t video, audio;
        const char* audioFormat;
    };
    for (Case c : {Case{"file_h264_mp2.ts", KORVALEN_CODEC_H264, KORVALEN_CODEC_MP2, "mp2"},
                   Case{"file_hevc_aac.ts", KORVALEN_CODEC_H265, KORVALEN_CODEC_AAC, "adts"}}) {
        SCOPED_TRACE(c.name);
        std::string path = FixturePath(c.name);
        REQUIRE_FIXTURE(path);
        ASSERT_EQ(Open(path), 0u);
        EXPECT_NE(info.pcrPid, 0u);
        EXPECT_EQ(info.fileLength, LoadFile(path).size());
        EXPECT_GT(info.startTime, 0u);
        Bytes audio; // MP2 comes a PES at a time, AAC an ADTS frame at a time
        for (const auto& f : ReadAllFrames(&info, FILE_READ_NORMAL)) {
            if (f.payloadType != c.video) {
                EXPECT_EQ(f.payloadType, c.audio);
                audio.insert(audio.end(), f.data.begin(), f.data.end());
            }
        }
        EXPECT_TRUE(audio == FfmpegAudio(path, c.audioFormat)) << "audio differs from the stream ffmpeg copies";
        File_DestroyFileParser(&info);
    }
}

TEST_F(TsTest, SeekByPcrLandsWithinTwoSecondsAfterTheTarget)
{
    std::string path = FixturePath("file_h264_mp2.ts");
    REQUIRE_FIXTURE(path);
    ASSERT_EQ(Open(path), 0u);
    FileFrameInfo f{};
    ASSERT_EQ(File_ReadOneFrame(&info, &f, FILE_READ_STEP), 0u);
    const uint64_t first = f.timeStamp;
    ASSERT_EQ(File_SetPlayTime(&info, 1, 25), 0u);
    ASSERT_EQ(File_ReadOneFrame(&info, &f, FILE_READ_STEP), 0u);
    EXPECT_GE(f.timeStamp, first + 90000 / 2);
    EXPECT_LE(f.timeStamp, first + 3 * 90000);
    uint32_t now = 99;
    ASSERT_EQ(File_GetPlayTime(&info, &now), 0u);
    EXPECT_LE(now, 3u);
    const uint64_t before = f.timeStamp;
    // At or beyond the end nothing moves: the next frame follows on.
    ASSERT_EQ(File_SetPlayTime(&info, info.totalTime, 25), 0u);
    ASSERT_EQ(File_SetPlayTime(&info, 1000, 25), 0u);
    ASSERT_EQ(File_ReadOneFrame(&info, &f, FILE_READ_STEP), 0u);
    EXPECT_EQ(f.timeStamp, before + 3600);
    // Back to the start: the first frame again.
    ASSERT_EQ(File_SetPlayTime(&info, 0, 25), 0u);
    ASSERT_EQ(File_ReadOneFrame(&info, &f, FILE_READ_STEP), 0u);
    EXPECT_EQ(f.timeStamp, first);
}

TEST_F(TsTest, CutFilesOpenWithAnErrorOrReadToTheEnd)
{
    for (const char* name : {"file_h264_mp2.ts", "file_hevc_aac.ts"}) {
        std::string path = FixturePath(name);
        REQUIRE_FIXTURE(path);
        const Bytes orig = LoadFile(path);
        size_t opened = 0;
        for (int i = 1; i <= 10; ++i) {
            // Cut on a packet boundary and in the middle of a packet.
            size_t cut = orig.size() * static_cast<size_t>(i) / 11;
            if (i % 2) {
                cut -= cut % kTsPacketSize;
            }
            SCOPED_TRACE(::testing::Message() << name << " cut at " << cut);
            uint32_t err = Open(SaveScratch("cut.ts", Bytes(orig.begin(), orig.begin() + static_cast<long>(cut))));
            if (err != KORVALEN_OK) {
                EXPECT_EQ(err, KORVALEN_ERR_FILE_READ);
                continue;
            }
            ++opened;
            uint32_t last = 0;
            auto frames = ReadAllFrames(&info, FILE_READ_NORMAL, &last);
            EXPECT_EQ(last, KORVALEN_ERR_FILE_END);
            EXPECT_FALSE(frames.empty());
            File_DestroyFileParser(&info);
        }
        EXPECT_GE(opened, 4u); // the packet-aligned cuts
    }
}
