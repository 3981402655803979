// The MP4 reader through the container dispatcher, beyond the contract every
// reader keeps: samples as stored, seeking by frame number, the marked-frame
// rule, and files damaged in every way a box can be.
#include <algorithm>

#include <gtest/gtest.h>

#include "demux/mp4/mp4_reader.h"
#include "file_media.h"
#include "heap/qmx_heap.h"
#include "log_capture.h"

namespace {
struct Mp4Test : FileReaderTest {};
} // namespace

TEST_F(Mp4Test, Hev1SamplesComeWithStartCodesAndAudioAsPayloadOneInFileOrder)
{
    std::string path = FixturePath("file_hevc_mp2.mp4");
    REQUIRE_FIXTURE(path);
    ASSERT_EQ(Open(path), 0u);
    auto all = ReadAllFrames(&info, FILE_READ_NORMAL);
    auto packets = ReadPackets(path); // libavformat's split, both streams, as stored
    for (Bytes& p : packets) {
        if (MP4_LengthPrefixed(p.data(), static_cast<uint32_t>(p.size()))) {
            MP4_ToAnnexB(p.data(), static_cast<uint32_t>(p.size())); // the decoder reads start codes
        }
    }
    std::vector<Bytes> ours;
    size_t audio = 0;
    for (size_t i = 0; i < all.size(); ++i) {
        ours.push_back(all[i].data);
        if (all[i].payloadType == 1) {
            ++audio;
            EXPECT_EQ(all[i].frameType, 0u);
            // An audio sample carries the time of the next video frame.
            auto next = std::find_if(all.begin() + static_cast<long>(i), all.end(),
                                     [](const ReadFrame& f) { return f.payloadType == 8; });
            if (next != all.end()) {
                EXPECT_EQ(all[i].timeStamp, next->timeStamp);
            }
        }
    }
    EXPECT_GT(audio, 50u);
    std::sort(ours.begin(), ours.end());
    std::sort(packets.begin(), packets.end());
    // Opening measures the key-frame interval and rewinds to the first video
    // key frame: the one audio sample stored ahead of it is not delivered.
    EXPECT_EQ(ours.size() + 1, packets.size());
    EXPECT_TRUE(std::includes(packets.begin(), packets.end(), ours.begin(), ours.end()))
        << "samples not byte for byte as stored, but for their start codes";
}

TEST_F(Mp4Test, SeekLandsOnTheKeyFrameAtOrAfterTheTargetFrame)
{
    std::string path = FixturePath("file_h264_b_faststart.mp4");
    REQUIRE_FIXTURE(path);
    ASSERT_EQ(Open(path), 0u);
    struct Case {
        uint32_t seconds, fps;
        uint64_t wantStamp;
    };
    // 1 s at 0 fps counts as 25 fps: frame 25, a key frame. 1 s at 10 fps is
    // frame 10, so the next key frame (25). 2 s at 12 fps: frame 24 -> 25.
    for (Case c : {Case{1, 0, 25 * 3600}, Case{1, 25, 25 * 3600}, Case{1, 10, 25 * 3600}, Case{2, 12, 25 * 3600},
                   Case{2, 25, 50 * 3600}, Case{0, 25, 0}}) {
        SCOPED_TRACE(::testing::Message() << c.seconds << " s at " << c.fps);
        ASSERT_EQ(File_SetPlayTime(&info, c.seconds, c.fps), 0u);
        FileFrameInfo f{};
        ASSERT_EQ(File_ReadOneFrame(&info, &f, FILE_READ_STEP), 0u);
        EXPECT_EQ(f.frameType, 0u);
        EXPECT_EQ(f.timeStamp, c.wantStamp);
        uint32_t now = 99;
        ASSERT_EQ(File_GetPlayTime(&info, &now), 0u);
        EXPECT_EQ(now, c.wantStamp / 90000);
    }
    LogCapture log;
    EXPECT_EQ(File_SetPlayTime(&info, 3, 25), 1u); // frame 75 does not exist
    EXPECT_TRUE(log.Has("MP4_SetPlayTime fail, not find Index"));
    // The last frame, then the end, reported again until a seek.
    ASSERT_EQ(File_SetPlayTime(&info, 2, 25), 0u);
    EXPECT_EQ(ReadAllFrames(&info, FILE_READ_STEP).size(), 25u);
    FileFrameInfo f{};
    EXPECT_EQ(File_ReadOneFrame(&info, &f, FILE_READ_STEP), KORVALEN_ERR_FILE_END);
}

TEST_F(Mp4Test, MarkedFrameRule)
{
    const uint8_t sei[] = {0, 0, 0, 1, 0x06, 0x21, 0x01, 0, 0, 1, 0x41, 0x9A};
    const uint8_t seiOther[] = {0, 0, 0, 1, 0x06, 0x05, 0x01, 0, 0, 1, 0x41, 0x9A};
    const uint8_t sliceFirst[] = {0, 0, 0, 1, 0x41, 0x9A, 0, 0, 1, 0x06, 0x21};
    const uint8_t hevcSlice[] = {0, 0, 0, 1, 0x02, 0x01, 0xAF};
    EXPECT_EQ(MP4_FrameMarked(3, sei, sizeof sei), 1u);
    EXPECT_EQ(MP4_FrameMarked(3, seiOther, sizeof seiOther), 0u);
    EXPECT_EQ(MP4_FrameMarked(3, sliceFirst, sizeof sliceFirst), 0u);
    EXPECT_EQ(MP4_FrameMarked(8, hevcSlice, sizeof hevcSlice), 0u);
    EXPECT_EQ(MP4_FrameMarked(1, sei, sizeof sei), 2u);
}

TEST_F(Mp4Test, BoxEditsChangeWhatTheIndexHolds)
{
    std::string path = FixturePath("file_h264_b_faststart.mp4");
    REQUIRE_FIXTURE(path);
    const Bytes orig = LoadFile(path);
    const size_t mdat = FindType(orig, "mdat") - 4;
    ASSERT_EQ(mdat + Load32(orig, mdat), orig.size()) << "faststart puts mdat last";
    {
        // An mdat whose size field is 0 or 1 runs to the end of the file.
        for (uint32_t size : {0u, 1u}) {
            Bytes b = orig;
            Store32(b, mdat, size);
            ASSERT_EQ(Open(SaveScratch("mdat0.mp4", b)), 0u) << size;
            EXPECT_EQ(ReadAllFrames(&info, FILE_READ_STEP).size(), 75u);
            File_DestroyFileParser(&info);
        }
    }
    {
        // A last box claiming one byte more than the file holds.
        Bytes b = orig;
        Store32(b, mdat, Load32(orig, mdat) + 1);
        LogCapture log;
        EXPECT_EQ(Open(SaveScratch("over.mp4", b)), 2u);
        EXPECT_TRUE(log.Has("MP4_CreateMp4Parser fail, box size overflow"));
        EXPECT_TRUE(log.Has("File_CreateFileParser fail, MP4_CreateMp4Parser fail"));
        EXPECT_EQ(info.file, nullptr);
    }
    {
        // Without "stss" every video sample that begins a chunk is a key frame.
        Bytes b = orig;
        const size_t stss = FindType(b, "stss");
        ASSERT_NE(stss, std::string::npos);
        std::memcpy(b.data() + stss, "xxxx", 4);
        ASSERT_EQ(Open(SaveScratch("nostss.mp4", b)), 0u);
        // Video chunks in this file: the video track's "stco" count.
        const size_t stco = FindType(orig, "stco");
        const uint32_t chunks = Load32(orig, stco + 8);
        auto keys = ReadAllFrames(&info, FILE_READ_KEY);
        EXPECT_EQ(keys.size(), chunks);
        File_DestroyFileParser(&info);
    }
    {
        // 64-bit chunk offsets ("co64") are not taken: no video at all.
        Bytes b = orig;
        for (size_t at = FindType(b, "stco"); at != std::string::npos; at = FindType(b, "stco", at + 4)) {
            std::memcpy(b.data() + at, "co64", 4);
        }
        LogCapture log;
        ASSERT_EQ(Open(SaveScratch("co64.mp4", b)), 0u);
        EXPECT_TRUE(log.Has("mp4_read_stbl_box warm, unknow box type[co64]"));
        FileFrameInfo f{};
        EXPECT_EQ(File_ReadOneFrame(&info, &f, FILE_READ_NORMAL), KORVALEN_ERR_FILE_END);
    }
}

// Damaged files never crash, read outside the file or leak: they open with an
// error code, or open and end with 263.
TEST_F(Mp4Test, CutZeroedAndOversizedFilesFailCleanly)
{
    for (const char* name : {"file_h264_mp2.mp4", "file_h264_b_faststart.mp4"}) {
        std::string path = FixturePath(name);
        REQUIRE_FIXTURE(path);
        const Bytes orig = LoadFile(path);
        std::vector<Bytes> variants;
        for (int i = 1; i <= 10; ++i) {
            variants.emplace_back(orig.begin(), orig.begin() + static_cast<long>(orig.size() * i / 11));
        }
        for (const char* box : {"moov", "trak", "mdia", "minf", "stbl", "stsd", "avcC", "stsz", "stco", "stts"}) {
            const size_t at = FindType(orig, box);
            ASSERT_NE(at, std::string::npos) << box;
            Bytes zeroed = orig; // the whole box header and a bit of its body zeroed
            std::fill(zeroed.begin() + static_cast<long>(at - 4), zeroed.begin() + static_cast<long>(at + 12), 0);
            variants.push_back(zeroed);
            for (uint32_t size : {0xFFFFFFFFu, 0x7FFFFFFFu, 7u, 9u}) {
                Bytes absurd = orig;
                Store32(absurd, at - 4, size);
                variants.push_back(absurd);
            }
            Bytes count = orig; // an entry count far beyond the box
            Store32(count, at + 8, 0x40000000u);
            variants.push_back(count);
        }
        size_t opened = 0;
        for (size_t v = 0; v < variants.size(); ++v) {
            SCOPED_TRACE(::testing::Message() << name << " variant " << v);
            uint32_t err = Open(SaveScratch("damaged.mp4", variants[v]));
            if (err != KORVALEN_OK) {
                EXPECT_TRUE(err == 2 || err == 7) << err;
                EXPECT_EQ(info.file, nullptr);
                continue;
            }
            ++opened;
            uint32_t last = 0;
            auto frames = ReadAllFrames(&info, FILE_READ_NORMAL, &last, 10000);
            EXPECT_EQ(last, KORVALEN_ERR_FILE_END);
            for (const auto& f : frames) {
                EXPECT_LE(f.data.size(), kFileFrameBufferSize);
            }
            File_SetPlayTime(&info, 1, 25);
            File_DestroyFileParser(&info);
        }
        EXPECT_GT(opened, 0u);
        EXPECT_LT(opened, variants.size());
    }
}

// Content decides, not the name (an MP4 named .ts and a text named .mp4 are
// played through the C API in the file-play integration test).
TEST_F(Mp4Test, ContainerIsFoundByContentNotName)
{
    std::string ts = FixturePath("file_h264_mp2.ts");
    REQUIRE_FIXTURE(ts);
    ASSERT_EQ(Open(SaveScratch("really_ts.mp4", LoadFile(ts))), 0u);
    EXPECT_EQ(info.ops, &kDemuxTs);
    File_DestroyFileParser(&info);

    // An AVI signature goes to the AVI reader, which finds no playable
    // structure behind it: the open error of an unreadable container.
    Bytes avi = {'R', 'I', 'F', 'F', 0, 0, 0, 0, 'A', 'V', 'I', ' ', 'L', 'I', 'S', 'T'};
    avi.resize(4096);
    {
        LogCapture aviLog;
        EXPECT_EQ(Open(SaveScratch("clip.avi", avi)), KORVALEN_ERR_INVALID_PARAM);
        EXPECT_TRUE(aviLog.Has("File_CreateFileParser fail, AVI_CreateAviParser fail"));
        EXPECT_EQ(info.ops, nullptr);
    }
    Bytes junk = LoadFile(ts);
    junk.insert(junk.begin(), 0x00); // packets no longer at 0 and 188
    EXPECT_EQ(Open(SaveScratch("junk.ts", junk)), 7u);
    LogCapture log;
    EXPECT_EQ(Open(TestHome() + "/no/such/file.mp4"), KORVALEN_ERR_FILE_OPEN);
    EXPECT_TRUE(log.Has("QMX_FileOpen fail, File not find"));
    EXPECT_TRUE(log.Has("File_CreateFileParser fail, fopen fail, error(13)"));
    EXPECT_EQ(info.file, nullptr);
    File_DestroyFileParser(nullptr); // ignored
}

TEST_F(Mp4Test, OutOfMemoryAtEveryStepLeavesNothingBehind)
{
    std::string path = FixturePath("file_h264_mp2.mp4");
    REQUIRE_FIXTURE(path);
    for (uint64_t n = 1; n <= 8; ++n) {
        QMX_HeapFailAt(n);
        uint32_t err = Open(path);
        QMX_HeapFailAt(0);
        if (err == KORVALEN_OK) {
            File_DestroyFileParser(&info);
            break;
        }
        EXPECT_TRUE(err == KORVALEN_ERR_NO_MEMORY || err == 2) << n << ": " << err;
        EXPECT_EQ(QMX_HeapLiveBytes(), 0u);
    }
}

TEST_F(Mp4Test, MarkedModeGivesKeyFramesAndFramesCarryingTheMark)
{
    std::string path = FixturePath("file_marked.mp4");
    REQUIRE_FIXTURE(path);
    ASSERT_EQ(Open(path), 0u);
    // The first two frames of this mode are the first key frame and the
    // first marked frame: that is what the opening measures.
    EXPECT_FLOAT_EQ(info.iFrameInterval, 400.0f);
    std::vector<uint64_t> stamps;
    for (const auto& f : ReadAllFrames(&info, FILE_READ_MARKED)) {
        stamps.push_back(f.timeStamp / 3600);
    }
    EXPECT_EQ(stamps, (std::vector<uint64_t>{0, 10, 25, 40, 50}));
}
