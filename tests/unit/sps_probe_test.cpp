// Frame rate and size read from the parameter sets of encoder output, for
// rates the encoders write in different ways (x264 in the SPS timing, x265 in
// the VPS timing).
#include <string>

#include <gtest/gtest.h>

#include "codec/code_sps_probe.h"
#include "codec_media.h"

namespace {

Bytes Encode(const std::string& codec, const std::string& rate, const std::string& size)
{
    std::string enc = codec == "h264" ? "-c:v libx264 -preset ultrafast"
                                      : "-c:v libx265 -preset ultrafast -x265-params log-level=error";
    return RunCommand("ffmpeg -hide_banner -loglevel error -f lavfi -i testsrc2=size=" + size + ":rate=" + rate +
                      " -frames:v 1 " + enc + " -pix_fmt yuv420p -f " + (codec == "h264" ? "h264" : "hevc") + " -");
}

} // namespace

TEST(SpsProbe, FrameRatesAndSizesFromEncoderOutput)
{
    struct Case {
        const char* rate;
        uint32_t fps;
        const char* size;
        uint32_t w, h;
    };
    for (const Case& c : {Case{"25", 25, "352x288", 352, 288}, Case{"30", 30, "1280x720", 1280, 720},
                          Case{"12", 12, "704x576", 704, 576}, Case{"60", 60, "320x180", 320, 180}}) {
        SCOPED_TRACE(c.rate);
        Bytes h264 = Encode("h264", c.rate, c.size);
        ASSERT_FALSE(h264.empty());
        uint32_t w = 0, h = 0, fps = 0;
        ASSERT_TRUE(CODE_ProbeH264Sps(h264.data(), static_cast<uint32_t>(h264.size()), &w, &h, &fps));
        EXPECT_EQ(fps, c.fps);
        EXPECT_EQ(w, c.w);
        EXPECT_EQ(h, c.h);
        Bytes hevc = Encode("hevc", c.rate, c.size);
        ASSERT_FALSE(hevc.empty());
        EXPECT_EQ(CODE_ProbeH265Rate(hevc.data(), static_cast<uint32_t>(hevc.size())), c.fps);
    }
}

TEST(SpsProbe, CutParameterSetsNeverReadPastTheEnd)
{
    Bytes h264 = Encode("h264", "25", "352x288");
    Bytes hevc = Encode("hevc", "25", "352x288");
    ASSERT_FALSE(h264.empty());
    ASSERT_FALSE(hevc.empty());
    // Every cut: a shorter copy in a buffer of its own size, so ASan sees any
    // read beyond it. Cuts inside the timing fields give no rate, not a wrong one.
    for (size_t cut = 0; cut < 80; ++cut) {
        Bytes a(h264.begin(), h264.begin() + static_cast<long>(std::min(cut, h264.size())));
        uint32_t w = 0, h = 0, fps = 0;
        if (CODE_ProbeH264Sps(a.data(), static_cast<uint32_t>(a.size()), &w, &h, &fps)) {
            EXPECT_TRUE(fps == 0 || fps == 25) << cut;
        }
        Bytes b(hevc.begin(), hevc.begin() + static_cast<long>(std::min(cut, hevc.size())));
        uint32_t rate = CODE_ProbeH265Rate(b.data(), static_cast<uint32_t>(b.size()));
        EXPECT_TRUE(rate == 0 || rate == 25) << cut;
    }
}
