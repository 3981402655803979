#include <cmath>
#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "codec/code_manager.h"
#include "codec_media.h"
#include "heap/qmx_heap.h"
#include "korvalen_types.h"
#include "log_capture.h"

namespace {

// A packed I420 picture owned by the test.
struct Picture {
    uint32_t width = 0, height = 0;
    Bytes data;
    uint8_t* Plane(int p)
    {
        size_t y = static_cast<size_t>(width) * height;
        return data.data() + (p == 0 ? 0 : p == 1 ? y : y + y / 4);
    }
    uint32_t Pitch(int p) const { return p ? width / 2 : width; }
    // Points a CODE_INPUT or CODE_PICTURE at the planes, at the full size.
    template <typename Record> Record Planes()
    {
        Record r{};
        for (int p = 0; p < 3; ++p) {
            r.planes[p] = Plane(p);
            r.pitches[p] = Pitch(p);
        }
        r.width = width;
        r.height = height;
        return r;
    }
};

Picture Copy(const CODE_OUTPUT& out)
{
    Picture pic;
    pic.width = out.width;
    pic.height = out.height;
    pic.data.resize(static_cast<size_t>(out.width) * out.height * 3 / 2);
    for (int p = 0; p < 3; ++p) {
        uint32_t rows = p ? out.height / 2 : out.height;
        for (uint32_t y = 0; y < rows; ++y) {
            std::memcpy(pic.Plane(p) + y * pic.Pitch(p), out.planes[p] + y * out.pitches[p], pic.Pitch(p));
        }
    }
    return pic;
}

// First picture of a video fixture.
Picture FirstPicture(const std::string& file, uint32_t type)
{
    auto packets = ReadPackets(FixturePath(file));
    CODE_HANDLE h{};
    CODE_PARAM p{};
    p.lowDelay = 1;
    p.data = packets.at(0).data();
    p.length = static_cast<uint32_t>(packets[0].size());
    EXPECT_EQ(CODE_CreateCode(CODE_DIR_DECODER, type, &p, &h), KORVALEN_OK);
    CODE_INPUT in = CodeInput(packets[0]);
    CODE_OUTPUT out;
    EXPECT_EQ(CODE_Decoder(&h, &in, &out), KORVALEN_OK);
    Picture pic = Copy(out);
    CODE_FreeCode(&h);
    return pic;
}

double PsnrY(const uint8_t* a, uint32_t pitchA, const uint8_t* b, uint32_t pitchB, uint32_t w, uint32_t h)
{
    double se = 0;
    for (uint32_t y = 0; y < h; ++y) {
        for (uint32_t x = 0; x < w; ++x) {
            double d = static_cast<double>(a[y * pitchA + x]) - b[y * pitchB + x];
            se += d * d;
        }
    }
    double mse = se / (static_cast<double>(w) * h);
    return mse == 0 ? 99.0 : 10 * std::log10(255.0 * 255.0 / mse);
}

} // namespace

// MJPEG pictures equal ffmpeg's decode; bad input gives 528 and the next
// good picture decodes.
TEST(JpegDecode, MatchesFfmpegAndSurvivesDamage)
{
    std::string path = FixturePath("mjpeg_320x240.mjpeg");
    REQUIRE_FIXTURE(path);
    auto packets = ReadPackets(path);
    auto ref = FfmpegFrameMd5(path);
    ASSERT_EQ(packets.size(), ref.size());
    CODE_HANDLE h{};
    ASSERT_EQ(CODE_CreateCode(CODE_DIR_DECODER, KORVALEN_CODEC_MJPEG, nullptr, &h), KORVALEN_OK);
    CODE_OUTPUT out;
    std::vector<std::string> shown;
    for (const Bytes& p : packets) {
        CODE_INPUT in = CodeInput(p);
        ASSERT_EQ(CODE_Decoder(&h, &in, &out), KORVALEN_OK);
        shown.push_back(PictureMd5(out));
    }
    EXPECT_EQ(shown, ref);

    LogCapture log;
    EXPECT_EQ(CODE_Decoder(&h, nullptr, nullptr), KORVALEN_ERR_INVALID_PARAM);
    EXPECT_TRUE(log.Has("ExtraData is null"));
    const Bytes junk(500, 0x42), cut(packets[1].begin(), packets[1].begin() + 600);
    CODE_INPUT in = CodeInput(junk);
    EXPECT_EQ(CODE_Decoder(&h, &in, &out), KORVALEN_ERR_DECODE);
    EXPECT_TRUE(log.Has("DSP_JpegDecode fail, dsp_error("));
    in = CodeInput(cut);
    uint32_t r = CODE_Decoder(&h, &in, &out);
    EXPECT_TRUE(r == KORVALEN_OK || r == KORVALEN_ERR_DECODE) << r;
    in = CodeInput(packets[2]);
    ASSERT_EQ(CODE_Decoder(&h, &in, &out), KORVALEN_OK);
    EXPECT_EQ(PictureMd5(out), ref[2]);
    CODE_FreeCode(&h);
}

// A picture encoded to JPEG decodes back close to the original, at two sizes
// on one encoder handle.
TEST(JpegEncode, RoundTripWithinPsnrBound)
{
    std::string small = FixturePath("h264_352x288_nob.h264");
    std::string large = FixturePath("hevc_1280x720_nob.hevc");
    REQUIRE_FIXTURE(small);
    REQUIRE_FIXTURE(large);
    uint64_t liveBefore = QMX_HeapLiveBytes();
    LogCapture log;
    CODE_HANDLE enc{}, dec{};
    ASSERT_EQ(CODE_CreateCode(CODE_DIR_ENCODER, KORVALEN_CODEC_MJPEG, nullptr, &enc), KORVALEN_OK);
    EXPECT_TRUE(log.Has("dsp jpeg encoder verion:"));
    ASSERT_EQ(CODE_CreateCode(CODE_DIR_DECODER, KORVALEN_CODEC_MJPEG, nullptr, &dec), KORVALEN_OK);
    for (auto [file, type] : {std::pair{small, KORVALEN_CODEC_H264}, std::pair{large, KORVALEN_CODEC_H265}}) {
        Picture pic = FirstPicture(file.substr(file.rfind('/') + 1), type);
        CODE_INPUT in = pic.Planes<CODE_INPUT>();
        CODE_OUTPUT jpeg;
        ASSERT_EQ(CODE_Encoder(&enc, &in, &jpeg), KORVALEN_OK);
        ASSERT_GT(jpeg.length, 1000u);
        const Bytes coded(jpeg.data, jpeg.data + jpeg.length);
        EXPECT_EQ(Bytes(coded.begin(), coded.begin() + 2), (Bytes{0xFF, 0xD8}));
        CODE_INPUT din = CodeInput(coded);
        CODE_OUTPUT out;
        ASSERT_EQ(CODE_Decoder(&dec, &din, &out), KORVALEN_OK);
        ASSERT_EQ(std::make_pair(out.width, out.height), std::make_pair(pic.width, pic.height));
        EXPECT_GT(PsnrY(pic.Plane(0), pic.Pitch(0), out.planes[0], out.pitches[0], pic.width, pic.height), 36.0);
        EXPECT_GT(PsnrY(pic.Plane(1), pic.Pitch(1), out.planes[1], out.pitches[1], pic.width / 2, pic.height / 2),
                  36.0);
    }
    CODE_INPUT empty{};
    CODE_OUTPUT out;
    EXPECT_EQ(CODE_Encoder(&enc, &empty, &out), KORVALEN_ERR_INVALID_PARAM);
    CODE_FreeCode(&enc);
    CODE_FreeCode(&dec);
    EXPECT_EQ(QMX_HeapLiveBytes(), liveBefore);

    QMX_HeapFailAt(2); // the encoder record, then the 8 MiB buffer
    EXPECT_EQ(CODE_CreateCode(CODE_DIR_ENCODER, KORVALEN_CODEC_MJPEG, nullptr, &enc), KORVALEN_ERR_NO_MEMORY);
    QMX_HeapFailAt(0);
    EXPECT_TRUE(log.Has("CODE_CreateCode encode jpeg fail, malloc fail size:8388608"));
    EXPECT_EQ(QMX_HeapLiveBytes(), liveBefore);
}

// YUV -> BGR -> YUV and BGRA -> YUV keep the picture; sizes are cut to
// multiples of 4; unknown kinds are refused.
TEST(ColorSpace, RoundTripsAndRefusals)
{
    std::string file = FixturePath("h264_352x288_nob.h264");
    REQUIRE_FIXTURE(file);
    Picture pic = FirstPicture("h264_352x288_nob.h264", KORVALEN_CODEC_H264);
    CODE_PICTURE src = pic.Planes<CODE_PICTURE>();
    src.width = 350;  // cut to 348
    src.height = 287; // cut to 284
    Bytes bgr(352 * 3 * 288);
    CODE_PICTURE mid{};
    mid.planes[0] = bgr.data();
    mid.pitches[0] = 352 * 3;
    ASSERT_EQ(Format_ColorSpace(CODE_COLOR_YUV420_TO_BGR24, &src, &mid), KORVALEN_OK);
    EXPECT_EQ(std::make_pair(mid.width, mid.height), std::make_pair(348u, 284u));

    Picture back;
    back.width = 352;
    back.height = 288;
    back.data.assign(352 * 288 * 3 / 2, 0);
    CODE_PICTURE dst = back.Planes<CODE_PICTURE>();
    ASSERT_EQ(Format_ColorSpace(CODE_COLOR_BGR24_TO_YUV420, &mid, &dst), KORVALEN_OK);
    EXPECT_GT(PsnrY(pic.Plane(0), 352, back.Plane(0), 352, 348, 284), 35.0);

    // BGRA built from the BGR picture.
    Bytes bgra(348 * 4 * 284);
    for (uint32_t y = 0; y < 284; ++y) {
        for (uint32_t x = 0; x < 348; ++x) {
            std::memcpy(&bgra[(y * 348 + x) * 4], &bgr[y * 352 * 3 + x * 3], 3);
            bgra[(y * 348 + x) * 4 + 3] = 255;
        }
    }
    CODE_PICTURE four{};
    four.planes[0] = bgra.data();
    four.pitches[0] = 348 * 4;
    four.width = 348;
    four.height = 284;
    back.data.assign(back.data.size(), 0);
    ASSERT_EQ(Format_ColorSpace(CODE_COLOR_BGRA32_TO_YUV420, &four, &dst), KORVALEN_OK);
    EXPECT_GT(PsnrY(pic.Plane(0), 352, back.Plane(0), 352, 348, 284), 35.0);

    LogCapture log;
    EXPECT_EQ(Format_ColorSpace(3, &src, &dst), KORVALEN_ERR_INVALID_PARAM);
    EXPECT_TRUE(log.Has("Format_ColorSpace fail, unknown type(3)"));
    CODE_PICTURE tiny = src;
    tiny.width = 3;
    EXPECT_EQ(Format_ColorSpace(CODE_COLOR_YUV420_TO_BGR24, &tiny, &mid), KORVALEN_ERR_DECODE);
    EXPECT_TRUE(log.Has("DSP_Yuv2Rgb failed(retcode:"));
}
