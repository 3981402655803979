// Recording through the C API: a live RTP stream from ffmpeg and pushed
// streams are written as MP4, MPEG-TS and AVI files that ffmpeg decodes to
// the source's very pictures; divided recordings name their parts and list
// them; snapshots save the picture decoded.
#include <regex>
#include <string>
#include <sys/stat.h>
#include <vector>

#include <gtest/gtest.h>

#include "../unit/codec_media.h"
#include "../unit/rtp_peer.h"
#include "demux/avi/avi.h"
#include "heap/qmx_heap.h"
#include "korvalen.h"
#include "port/port.h"
#include "port/port_table.h"
#include "port_fixture.h"
#include "record_support.h"
#include "stream_feeder.h"
#include "test_env.h"

using rtp_peer::Fixture;
using namespace record_support;

namespace {

struct RecordTest : PortFixture {
    std::string dir = TestHome() + "/rec";
    void SetUp() override
    {
        RemoveTree(dir);
        mkdir(dir.c_str(), 0755);
        PortFixture::SetUp();
        RunMessages::Install();
    }
    std::vector<std::string> Finished(uint32_t n)
    {
        std::vector<KORVALEN_RECORD_FILE> list(n + 1);
        EXPECT_EQ(Korvalen_GetRecordFiles(port, n + 1, list.data()), 1);
        std::vector<std::string> names;
        for (const auto& f : list) {
            if (f.name[0]) {
                names.emplace_back(f.name);
            }
        }
        return names;
    }
};

} // namespace

// ffmpeg sends the H.264 file as RTP over UDP; the port records it as AVI,
// its frame rate taken from the RTP time stamps. (Pushed streams cover the
// other containers.)
TEST_F(RecordTest, UdpStreamIntoAvi)
{
    const uint32_t type = 14;
    const std::string src = Fixture("rtp_h264.h264");
    ASSERT_FALSE(src.empty());
    const auto want = FfmpegFrameMd5(src);
    ASSERT_EQ(want.size(), 25u);
    const uint16_t local = FreeLoopbackPort(SOCK_DGRAM);
    ASSERT_EQ(Korvalen_OpenNetStream(port, "127.0.0.1", local, "127.0.0.1", 0, 0), 1);
    ASSERT_EQ(Korvalen_StartRecord(port, (dir + "/live").c_str(), type, nullptr), 1);
    EXPECT_EQ(Korvalen_StartRecord(port, (dir + "/again").c_str(), type, nullptr), 0);
    EXPECT_EQ(Korvalen_GetLastError(), 537u);
    uint32_t status = 0;
    ASSERT_EQ(Korvalen_GetRecordStatus(port, &status), 1);
    EXPECT_EQ(status, 1u);
    const std::string cmd = "ffmpeg -hide_banner -loglevel error -re -f h264 -i " + src +
                            " -c:v copy -f rtp rtp://127.0.0.1:" + std::to_string(local) + " >/dev/null 2>&1";
    ASSERT_EQ(std::system(cmd.c_str()), 0);
    WaitSizeSettles(port);
    uint64_t size = 0;
    ASSERT_EQ(Korvalen_GetRecordFileSize(port, &size), 1);
    EXPECT_GT(size, 100000u);
    EXPECT_TRUE(FileExists(dir + "/live.temp")) << "written under its temporary name";
    ASSERT_EQ(Korvalen_StopRecord(port), 1);
    ASSERT_EQ(Korvalen_GetRecordStatus(port, &status), 1);
    EXPECT_EQ(status, 0u);
    const std::string out = dir + "/live.avi";
    EXPECT_EQ(Finished(1), std::vector<std::string>{out});
    EXPECT_FALSE(FileExists(dir + "/live.temp"));
    EXPECT_FALSE(FileExists(dir + "/live.temp.journal"));
    EXPECT_EQ(FfmpegFrameMd5(out), want);
    ExpectLibraryPlays(out, want);
    EXPECT_TRUE(RunMessages::Get().Has(kRecordFileReport, out));
    // Our own reader sees the same frames, key frames marked.
    AVI_HANDLE avi = AVI_CreateAviParser(out.c_str());
    ASSERT_NE(avi, nullptr);
    std::vector<uint8_t> buf(0x200000);
    uint32_t frames = 0;
    AVI_FRAME_INFO f{buf.data(), static_cast<uint32_t>(buf.size()), 0, 0, 0, 0, 0};
    while (AVI_GetOneFrameData(avi, AVI_READ_VIDEO, &f) == 0) {
        EXPECT_EQ(f.frameType, frames % 10 == 0 ? 0u : 1u) << frames;
        ++frames;
    }
    EXPECT_EQ(frames, 25u);
    AVI_INFO info{};
    ASSERT_EQ(AVI_GetAviInfo(avi, &info), 0u);
    EXPECT_EQ(info.frameRate, 25u) << "from the RTP time stamps";
    AVI_FileClose(nullptr, avi);
    ASSERT_EQ(Korvalen_CloseNetStream(port), 1);
}

TEST_F(RecordTest, PushedStreamsWithSoundAndH265)
{
    // MPEG-TS with AAC sound: the sound is kept as MP2, in MP4 and in AVI.
    const std::string ts = FixturePath("h264_aac.ts");
    REQUIRE_FIXTURE(ts);
    const auto want = FfmpegFrameMd5(ts, "", "-map 0:v");
    ASSERT_GE(want.size(), 10u);
    for (const char* ext : {".mp4", ".avi"}) {
        const std::string out = dir + "/ts_in" + ext;
        ASSERT_EQ(Korvalen_OpenInputStream(port, nullptr, 0, 0), 1);
        ASSERT_EQ(Korvalen_StartRecord(port, out.c_str(), ext[1] == 'm' ? 0 : 14, nullptr), 1);
        PushAll(Chunks(ReadFileBytes(ts), 188 * 7));
        ASSERT_EQ(Korvalen_StopRecord(port), 1);
        EXPECT_EQ(Finished(8).back(), out) << "the caller's extension is not doubled";
        const auto got = FfmpegFrameMd5(out, "", "-map 0:v");
        // A stream's last frame waits for the next PES: it may be missing.
        ASSERT_GE(got.size() + 1, want.size()) << out;
        EXPECT_EQ(got, std::vector<std::string>(want.begin(), want.begin() + static_cast<long>(got.size())));
        ExpectLibraryPlays(out, got);
        // MP4 names MPEG-1 audio of any layer with one object type; ffprobe
        // calls it mp3 until it has parsed a frame.
        EXPECT_TRUE(std::regex_match(StreamCodecs(out), std::regex("h264,mp[23]"))) << StreamCodecs(out);
        EXPECT_TRUE(ext[1] == 'a' || StreamTags(out) == "avc1,mp4a") << StreamTags(out);
        EXPECT_GT(FfmpegFrameMd5(out, "", "-map 0:a").size(), 10u) << out << ": sound frames were written";
        ASSERT_EQ(Korvalen_CloseInputStream(port), 1);
    }

    // FLV with G.711 sound, in chunks that cut tags apart, into MPEG-TS.
    const std::string flv = FixturePath("h264_g711.flv");
    REQUIRE_FIXTURE(flv);
    ASSERT_EQ(Korvalen_OpenInputStream(port, nullptr, 0, 0), 1);
    ASSERT_EQ(Korvalen_StartRecord(port, (dir + "/flv").c_str(), 1, nullptr), 1);
    PushAll(Chunks(ReadFileBytes(flv), 1000));
    ASSERT_EQ(Korvalen_StopRecord(port), 1);
    ASSERT_EQ(Korvalen_CloseInputStream(port), 1);
    EXPECT_EQ(StreamCodecs(dir + "/flv.ts"), "h264,mp2");
    EXPECT_EQ(FfmpegFrameMd5(dir + "/flv.ts", "", "-map 0:v"), FfmpegFrameMd5(flv, "", "-map 0:v"));
    ExpectLibraryPlays(dir + "/flv.ts", FfmpegFrameMd5(flv, "", "-map 0:v"));
    EXPECT_GT(FfmpegFrameMd5(dir + "/flv.ts", "", "-map 0:a").size(), 10u);

    // Raw H.265 access units into MP4 ("hev1"), MPEG-TS and AVI, each into a
    // folder chain that does not exist yet.
    const std::string hevc = FixturePath("hevc_352x288_nob.hevc");
    REQUIRE_FIXTURE(hevc);
    const auto aus = ReadPackets(hevc);
    for (uint32_t type : {0u, 1u, 14u}) {
        ASSERT_EQ(Korvalen_OpenInputStream(port, nullptr, 0, 0), 1);
        const std::string folder = dir + "/new" + std::to_string(type) + "/day";
        ASSERT_EQ(Korvalen_StartRecord(port, (folder + "/h265").c_str(), type, nullptr), 1);
        PushAll(aus);
        // The source falls silent: what came in is in the file already, not
        // held in memory until the stop (the last frame waits for a next).
        // An MP4 file has no index before its stop: its journal stands in.
        WaitSizeSettles(port);
        if (type != 0) {
            EXPECT_GE(FfmpegFrameMd5(folder + "/h265.temp").size() + 1, aus.size()) << type;
        }
        ASSERT_EQ(Korvalen_StopRecord(port), 1);
        const std::string file = folder + (type == 0 ? "/h265.mp4" : (type == 1 ? "/h265.ts" : "/h265.avi"));
        EXPECT_EQ(FfmpegFrameMd5(file), FfmpegFrameMd5(hevc)) << file;
        ExpectLibraryPlays(file, FfmpegFrameMd5(hevc));
        if (type == 0) {
            EXPECT_EQ(StreamTags(file), "hev1");
        }
        ASSERT_EQ(Korvalen_CloseInputStream(port), 1);
    }
}

TEST_F(RecordTest, DivisionBySizeNamesPartsAtKeyFrames)
{
    const std::string src = FixturePath("h264_1280x720_nob.h264");
    REQUIRE_FIXTURE(src);
    ASSERT_EQ(Korvalen_SetRecordSize(port, 9), 0);
    ASSERT_EQ(Korvalen_SetRecordSize(port, 4001), 0);
    ASSERT_EQ(Korvalen_SetRecordSize(port, 10), 1);
    // Small files for the test; the exported limits start at 10 MiB.
    Player_GetPort(port)->recorder.sizeLimit = 150000;
    ASSERT_EQ(Korvalen_OpenInputStream(port, nullptr, 0, 0), 1);
    ASSERT_EQ(Korvalen_StartRecord(port, (dir + "/cam").c_str(), 0, nullptr), 1);
    PushAll(ReadPackets(src));
    ASSERT_EQ(Korvalen_StopRecord(port), 1);
    const std::vector<std::string> names = {dir + "/cam.mp4", dir + "/cam_part1.mp4", dir + "/cam_part2.mp4"};
    EXPECT_EQ(Finished(4), names);
    // Key frames every 12: each part starts with one, none is lost.
    const auto want = FfmpegFrameMd5(src);
    std::vector<std::string> all;
    std::vector<size_t> counts;
    for (const auto& n : names) {
        const auto part = FfmpegFrameMd5(n);
        counts.push_back(part.size());
        all.insert(all.end(), part.begin(), part.end());
        EXPECT_TRUE(RunMessages::Get().Has(kRecordFileReport, n)) << n;
    }
    EXPECT_EQ(counts, (std::vector<size_t>{12, 12, 1}));
    EXPECT_EQ(all, want);
}

TEST_F(RecordTest, DivisionByTimeUsesTimeNames)
{
    const std::string src = FixturePath("h264_352x288_nob.h264");
    REQUIRE_FIXTURE(src);
    ASSERT_EQ(Korvalen_SetRecordDivByTime(port, 0), 0);
    ASSERT_EQ(Korvalen_SetRecordDivByTime(port, 61), 0);
    ASSERT_EQ(Korvalen_SetRecordDivByTime(port, 60), 1);
    PortRecorder& r = Player_GetPort(port)->recorder;
    EXPECT_EQ(r.timeLimit, 3600u);
    EXPECT_EQ(r.sizeLimit, 0u) << "time division clears the size division";
    r.timeLimit = 1; // seconds, for the test
    ASSERT_EQ(Korvalen_OpenInputStream(port, nullptr, 0, 0), 1);
    ASSERT_EQ(Korvalen_StartRecord(port, (dir + "/t_1").c_str(), 2, nullptr), 1);
    PushAll(ReadPackets(src), 100); // 2.5 s of stream in real time
    ASSERT_EQ(Korvalen_StopRecord(port), 1);
    const auto names = Finished(8);
    ASSERT_GE(names.size(), 2u);
    EXPECT_TRUE(std::regex_match(names[0], std::regex(".*/t_1_E[0-9]{14}\\.mp4"))) << names[0];
    std::vector<std::string> all;
    for (size_t i = 0; i < names.size(); ++i) {
        if (i > 0) {
            EXPECT_TRUE(std::regex_match(names[i], std::regex(".*/t_S[0-9]{14}_E[0-9]{14}\\.mp4"))) << names[i];
        }
        const auto part = FfmpegFrameMd5(names[i]);
        all.insert(all.end(), part.begin(), part.end());
    }
    EXPECT_EQ(all, FfmpegFrameMd5(src));
    ASSERT_EQ(Korvalen_SetRecordSize(port, 4000), 1);
    EXPECT_EQ(r.timeLimit, 0u) << "size division clears the time division";
    EXPECT_EQ(r.sizeLimit, 4000ull * 1048576);
}

TEST_F(RecordTest, SnapshotsAsJpegAndBmp)
{
    const std::string src = FixturePath("h264_red_square.h264");
    REQUIRE_FIXTURE(src);
    ASSERT_EQ(Korvalen_OpenInputStream(port, nullptr, 0, 0), 1);
    StreamFeeder feed(port, ReadPackets(src));
    const std::string jpg = dir + "/snap.jpg";
    const std::string bmp = dir + "/shots/snap.bmp"; // a folder made on the way
    // The picture is taken by the decode side; the outcome comes as a run
    // message with the file name.
    ASSERT_EQ(Korvalen_SnatchOnce(port, jpg.c_str(), 0, nullptr), 1);
    EXPECT_TRUE(RunMessages::Get().Has(0, jpg));
    ASSERT_EQ(Korvalen_SnatchOnce(port, bmp.c_str(), 1, nullptr), 1);
    EXPECT_TRUE(RunMessages::Get().Has(0, bmp));
    EXPECT_EQ(Korvalen_SnatchOnce(port, bmp.c_str(), 5, nullptr), 0);
    EXPECT_EQ(Korvalen_GetLastError(), 2u);
    feed.Stop();
    ASSERT_EQ(Korvalen_CloseInputStream(port), 1);
    EXPECT_EQ(RunCommand("ffprobe -v error -show_entries stream=codec_name,width,height -of csv=p=0 " + jpg),
              Bytes({'m', 'j', 'p', 'e', 'g', ',', '3', '2', '0', ',', '2', '4', '0', '\n'}));
    // BMP: blue box at the top left of a red picture, rows stored bottom-up.
    const Bytes b = ReadFileBytes(bmp);
    ASSERT_EQ(b.size(), 54u + 320 * 240 * 3);
    auto pixel = [&](uint32_t x, uint32_t y) { return b.data() + 54 + (239 - y) * 320 * 3 + x * 3; };
    const uint8_t* topLeft = pixel(10, 10);
    const uint8_t* bottomRight = pixel(300, 220);
    EXPECT_GT(topLeft[0], 200) << "blue";
    EXPECT_LT(topLeft[2], 60);
    EXPECT_GT(bottomRight[2], 200) << "red";
    EXPECT_LT(bottomRight[0], 60);
}

TEST_F(RecordTest, MjpegAndWhatCannotBeRecorded)
{
    EXPECT_EQ(Korvalen_StartRecord(port, (dir + "/x").c_str(), 5, nullptr), 0);
    EXPECT_EQ(Korvalen_GetLastError(), 7u) << "no container for record type 5";
    std::fclose(std::fopen((dir + "/plain").c_str(), "wb"));
    EXPECT_EQ(Korvalen_StartRecord(port, (dir + "/plain/x").c_str(), 0, nullptr), 0) << "a file is no folder";
    EXPECT_EQ(Korvalen_GetLastError(), 262u);

    const std::string mjpeg = FixturePath("mjpeg_320x240.mjpeg");
    REQUIRE_FIXTURE(mjpeg);
    const auto jpegs = ReadPackets(mjpeg);
    ASSERT_GT(jpegs.size(), 5u);
    ASSERT_EQ(Korvalen_OpenInputStream(port, nullptr, 0, 0), 1);
    // MJPEG goes into AVI...
    ASSERT_EQ(Korvalen_StartRecord(port, (dir + "/mj").c_str(), 14, nullptr), 1);
    PushAll(jpegs);
    ASSERT_EQ(Korvalen_StopRecord(port), 1);
    EXPECT_EQ(FfmpegFrameMd5(dir + "/mj.avi"), FfmpegFrameMd5(mjpeg));
    // ... but MPEG-TS cannot carry it: no file, and the stop says why.
    ASSERT_EQ(Korvalen_StartRecord(port, (dir + "/mj").c_str(), 1, nullptr), 1);
    PushAll(jpegs);
    EXPECT_EQ(Korvalen_StopRecord(port), 0);
    EXPECT_EQ(Korvalen_GetLastError(), 7u);
    EXPECT_FALSE(FileExists(dir + "/mj.ts"));
    EXPECT_FALSE(FileExists(dir + "/mj.temp"));
    ASSERT_EQ(Korvalen_CloseInputStream(port), 1);

    // Without a key frame nothing can play: nothing is kept.
    const auto aus = ReadPackets(FixturePath("h264_352x288_nob.h264"));
    ASSERT_EQ(Korvalen_OpenInputStream(port, nullptr, 0, 0), 1);
    ASSERT_EQ(Korvalen_StartRecord(port, (dir + "/p").c_str(), 0, nullptr), 1);
    PushAll(std::vector<Bytes>(aus.begin() + 1, aus.begin() + 11));
    ASSERT_EQ(Korvalen_StopRecord(port), 1);
    EXPECT_FALSE(FileExists(dir + "/p.mp4"));
    EXPECT_FALSE(FileExists(dir + "/p.temp"));
    EXPECT_EQ(Finished(4), std::vector<std::string>{dir + "/mj.avi"});
}
