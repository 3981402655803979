// The contract every container reader keeps, run over each row of the table
// and a file of each kind ffmpeg writes: its row is found by content, the
// file time, every video frame in decode order with its key frames, frames
// that decode to ffmpeg's own pictures, key-frame reading after a rewind,
// and the end of the file, with everything released after.
#include <algorithm>

#include <gtest/gtest.h>

#include "file_media.h"

namespace {

struct Sample {
    const char* file;
    const DEMUX_OPS* row;
    uint32_t video;
    bool indexed; // time stamps one frame step apart in decode order, 25 fps stated
    bool decodes; // false: H.265 with its parameter sets only in the sample entry, a known limit
};

void PrintTo(const Sample& s, std::ostream* os)
{
    *os << s.file;
}

struct DemuxContract : FileReaderTest, ::testing::WithParamInterface<Sample> {};

} // namespace

TEST_P(DemuxContract, FramesKeyFramesTimeAndPicturesAsFfmpegSeesThem)
{
    const Sample& s = GetParam();
    const std::string path = FixturePath(s.file);
    REQUIRE_FIXTURE(path);
    ASSERT_EQ(Open(path), 0u);
    EXPECT_EQ(info.ops, s.row);
    EXPECT_GE(info.totalTime, 2u); // three seconds of video; TS PCRs span a little less
    EXPECT_LE(info.totalTime, 3u);
    EXPECT_GT(info.iFrameInterval, 500.0f); // key frames one second apart
    EXPECT_LT(info.iFrameInterval, 1500.0f);
    if (s.indexed) {
        EXPECT_EQ((std::vector<uint64_t>{info.totalTime, info.frameRate, info.startTime}),
                  (std::vector<uint64_t>{3, 25, 0}));
        EXPECT_FLOAT_EQ(info.iFrameInterval, 1000.0f);
    }
    uint32_t last = 0;
    auto video = ReadAllFrames(&info, FILE_READ_STEP, &last);
    EXPECT_EQ(last, KORVALEN_ERR_FILE_END);
    FileFrameInfo f{};
    EXPECT_EQ(File_ReadOneFrame(&info, &f, FILE_READ_STEP), KORVALEN_ERR_FILE_END) << "the end stays the end";
    ASSERT_EQ(video.size(), 75u);
    std::vector<size_t> keys;
    for (size_t i = 0; i < video.size(); ++i) {
        EXPECT_EQ(video[i].payloadType, s.video);
        if (s.indexed) {
            EXPECT_EQ(video[i].timeStamp, i * 3600u);
        }
        if (video[i].frameType == 0) {
            keys.push_back(i);
        }
    }
    EXPECT_EQ(keys, (std::vector<size_t>{0, 25, 50}));
    if (s.decodes) {
        EXPECT_EQ(DecodeFrames(video, s.video), FfmpegFrameMd5(path, "", "-map 0:v"));
    }
    ASSERT_EQ(File_SetPlayTime(&info, 0, 25), 0u);
    const auto keyFrames = ReadAllFrames(&info, FILE_READ_KEY);
    ASSERT_EQ(keyFrames.size(), 3u);
    EXPECT_EQ(keyFrames[2].data, video[50].data);
}

INSTANTIATE_TEST_SUITE_P(
    Readers, DemuxContract,
    ::testing::Values(Sample{"file_h264_mp2.mp4", &kDemuxMp4, KORVALEN_CODEC_H264, true, true},
                      Sample{"file_h264_b_faststart.mp4", &kDemuxMp4, KORVALEN_CODEC_H264, true, true},
                      Sample{"file_hevc_mp2.mp4", &kDemuxMp4, KORVALEN_CODEC_H265, true, false},
                      Sample{"file_hevc_b_faststart.mp4", &kDemuxMp4, KORVALEN_CODEC_H265, true, false},
                      Sample{"file_h264_mp2.ts", &kDemuxTs, KORVALEN_CODEC_H264, false, true},
                      Sample{"file_hevc_aac.ts", &kDemuxTs, KORVALEN_CODEC_H265, false, true},
                      Sample{"file_h264_mp2.avi", &kDemuxAvi, KORVALEN_CODEC_H264, true, true}),
    [](const auto& p) {
        std::string n = p.param.file;
        std::replace(n.begin(), n.end(), '.', '_');
        return n;
    });
