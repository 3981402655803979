// Analysis rules and targets written into a pushed stream's SEI reach the
// window as outlines and boxes, placed with the picture in every render
// scale and zoom, painted before the caller's drawing, and gone when the
// overlay is switched off.
// gtest first: Xlib's macros (None, Bool...) would clash with its names.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <sstream>

#include "../unit/codec_media.h"
#include "heap/qmx_heap.h"
#include "korvalen.h"
#include "port_fixture.h"
#include "sei_writer.h"
#include "stream_feeder.h"
#include "x_window.h"

namespace {

// What the caller's hook saw at a point of the surface: the overlay must be
// there already.
std::atomic<int> g_hookGreen{-1};
std::atomic<int> g_hookX{0}, g_hookY{0};

void Hook(uint32_t, const KORVALEN_DRAW_SURFACE* s, void*, uint32_t)
{
    const int x = g_hookX, y = g_hookY;
    if (x < 0 || y < 0 || static_cast<uint32_t>(x) >= s->width || static_cast<uint32_t>(y) >= s->height) {
        return;
    }
    const uint8_t* p = s->pixels + y * s->stride + x * 4;
    g_hookGreen = p[1] > 200 && p[2] < 60 && p[0] < 60 ? 1 : 0;
}

// The stream's access units as pushed chunks; H.265 frames go behind
// "RdHd" headers (the raw scan knows only some of its slice kinds).
std::vector<Bytes> Chunks(uint32_t codec, const Bytes& stream)
{
    std::vector<Bytes> out;
    uint64_t ts = 0;
    for (const Bytes& au : SeiWriter_SplitAccessUnits(codec, stream)) {
        if (codec == SEIW_H265) {
            bool key = false;
            for (size_t i = 0; i + 3 < au.size(); ++i) {
                if (au[i] == 0 && au[i + 1] == 0 && au[i + 2] == 1) {
                    const int t = (au[i + 3] >> 1) & 0x3F;
                    key = key || (t >= 16 && t <= 21);
                }
            }
            Bytes h(24, 0);
            std::memcpy(h.data(), "RdHd", 4);
            h[4] = SEIW_H265;
            h[8] = key ? 0 : 1;
            std::memcpy(h.data() + 16, &ts, 8);
            ts += 3600;
            out.push_back(h);
        }
        out.push_back(au);
    }
    return out;
}

class IvaOverlay : public ::testing::TestWithParam<uint32_t> {};

} // namespace

// Picture 320 x 240 in a 640 x 480 window. Rules and targets in
// ten-thousandths of the picture:
//   polygon (green) 3000..7000 both ways  -> picture 96..224 x 72..168
//   tracked target (red) 1000..2000       -> picture 32..64 x 24..48
//   untracked target (yellow) x 5000..6000, y 4000..5000 -> 160..192 x 96..120
TEST_P(IvaOverlay, RulesAndTargetsFollowThePictureOnScreen)
{
    const uint32_t codec = GetParam();
    const std::string path = FixturePath(codec == SEIW_H264 ? "grey_320x240.h264" : "grey_320x240.hevc");
    REQUIRE_FIXTURE(path);
    TestScreen screen;
    if (!screen.Open(640, 480)) {
        ASSERT_FALSE(XvfbServer::Installed()) << "Xvfb is installed but did not start";
        GTEST_SKIP() << "Xvfb is not installed";
    }
    Display* dpy = screen.dpy;
    const Window win = screen.win;

    std::vector<SEIW_STATEMENT> desc;
    std::string error;
    ASSERT_TRUE(SeiWriter_ParseDescription("* rule polygon color=6 points=3000,3000;7000,3000;7000,7000;3000,7000\n"
                                           "* target id=4 class=0 color=5 track=1 box=1000,1000,2000,2000\n"
                                           "* target id=5 class=1 color=11 box=5000,4000,6000,5000\n",
                                           &desc, &error))
        << error;
    const Bytes stream = SeiWriter_Inject(codec, RunCommand("cat " + path), desc);

    ASSERT_EQ(Korvalen_Init(), 1);
    uint32_t port = 0;
    ASSERT_EQ(Korvalen_AllocPort(&port), 1);
    ASSERT_EQ(Korvalen_SetIVAEnable(port, 1), 1);
    ASSERT_EQ(Korvalen_SetIVAShowParam(6), 1);
    ASSERT_EQ(Korvalen_SetDrawMediaDataCB(port, &Hook, nullptr), 1);
    ASSERT_EQ(Korvalen_OpenInputStream(port, nullptr, 0, 0), 1);
    ASSERT_EQ(Korvalen_StartPlay(port, win), 1);
    std::string why;
    {
        StreamFeeder feed(port, Chunks(codec, stream));

        // Fill mode: everything doubled.
        g_hookX = 192;
        g_hookY = 240;
        EXPECT_TRUE(WaitForColours(dpy, win,
                                   {{{192, 240}, kGreen},  // polygon left edge
                                    {{448, 240}, kGreen},  // right edge
                                    {{320, 144}, kGreen},  // top edge
                                    {{250, 200}, kGrey},   // inside: not filled
                                    {{64, 72}, kRed},      // tracked box, left edge
                                    {{96, 48}, kRed},      // its top edge
                                    {{384, 216}, kYellow}, // untracked box, right edge
                                    {{10, 300}, kGrey}},
                                   &why))
            << why;
        EXPECT_EQ(g_hookGreen.load(), 1) << "the overlay is painted before the caller's drawing";

        // Native size: the picture centred at (160, 120), unscaled.
        ASSERT_EQ(Korvalen_SetRenderScale(port, nullptr, 2), 1);
        EXPECT_TRUE(WaitForColours(dpy, win,
                                   {{{256, 240}, kGreen},  // 160 + 96
                                    {{384, 240}, kGreen},  // 160 + 224
                                    {{320, 192}, kGreen},  // 120 + 72
                                    {{192, 156}, kRed},    // 160 + 32, 120 + 36
                                    {{352, 228}, kYellow}, // 160 + 192
                                    {{192, 240}, kGrey}},
                                   &why))
            << why;

        // Show only the tracked class, for this port (mode 1): the untracked
        // box goes. Mode 0 goes back to the process-wide setting.
        ASSERT_EQ(Korvalen_SetIVAShowParamEx(port, 4, 1), 1);
        EXPECT_TRUE(WaitForColours(dpy, win, {{{352, 228}, kGrey}, {{192, 156}, kRed}}, &why)) << why;
        ASSERT_EQ(Korvalen_SetIVAShowParamEx(299, 4, 0), 1) << "no such port: the mode still changes";
        EXPECT_TRUE(WaitForColours(dpy, win, {{{352, 228}, kYellow}}, &why)) << why;

        // Fill mode with the middle half zoomed in: picture (80,60)-(240,180)
        // fills the window, four times enlarged.
        ASSERT_EQ(Korvalen_SetRenderScale(port, nullptr, 0), 1);
        KORVALEN_RECT zoom{2500, 2500, 7500, 7500};
        ASSERT_EQ(Korvalen_SetDigitalZoom(port, &zoom, nullptr), 1);
        EXPECT_TRUE(WaitForColours(dpy, win,
                                   {{{64, 240}, kGreen},   // (96 - 80) * 4
                                    {{576, 240}, kGreen},  // (224 - 80) * 4
                                    {{320, 48}, kGreen},   // (72 - 60) * 4
                                    {{447, 192}, kYellow}, // right edge (192 - 80) * 4 = 448
                                    {{30, 30}, kGrey}},    // the red box is outside the zoomed part
                                   &why))
            << why;

        // Overlay off: the picture alone.
        ASSERT_EQ(Korvalen_SetIVAEnable(port, 0), 1);
        EXPECT_TRUE(WaitForColours(dpy, win, {{{64, 240}, kGrey}, {{576, 240}, kGrey}, {{447, 192}, kGrey}}, &why))
            << why;
    }
    ASSERT_EQ(Korvalen_CloseInputStream(port), 1);
    Korvalen_Cleanup();
    EXPECT_EQ(QMX_HeapLiveBytes(), 0u);
}

INSTANTIATE_TEST_SUITE_P(BothCodecs, IvaOverlay, ::testing::Values(SEIW_H264, SEIW_H265),
                         [](const auto& info) { return info.param == SEIW_H264 ? "H264" : "H265"; });

namespace {

// Per picture shown with both: whether the red box's left edge lies just
// before the white square on the square's middle row.
std::atomic<int> g_inStep{0}, g_outOfStep{0};

void CheckStep(uint32_t, const KORVALEN_DRAW_SURFACE* s, void*, uint32_t)
{
    const uint8_t* row = s->pixels + 120 * s->stride;
    int red = -1, white = -1;
    for (uint32_t x = 0; x < s->width; ++x) {
        const uint8_t* p = row + x * 4;
        if (red < 0 && p[2] > 200 && p[1] < 80 && p[0] < 80) {
            red = static_cast<int>(x);
        }
        if (white < 0 && p[2] > 200 && p[1] > 200 && p[0] > 200) {
            white = static_cast<int>(x);
        }
    }
    if (red >= 0 && white >= 0) {
        ++(white - red >= 1 && white - red <= 5 ? g_inStep : g_outOfStep);
    }
}

struct IvaOverlaySync : PortFixture {};

} // namespace

// The square moves 8 pixels a picture and each access unit's SEI puts a box
// on it. The decoder hands pictures out late and out of stream order, yet
// every picture must be painted with the box of its own access unit.
TEST_F(IvaOverlaySync, EachPictureCarriesItsOwnOverlay)
{
    const std::string path = FixturePath("moving_square_b.h264");
    REQUIRE_FIXTURE(path);
    const Bytes raw = RunCommand("cat " + path);
    // Display order of the access units, by their byte positions.
    const Bytes probe = RunCommand("ffprobe -v error -show_frames -show_entries frame=pkt_pos -of csv=p=0 " + path +
                                   " | grep -o '^[0-9]*'");
    std::vector<long> displayPos;
    std::istringstream lines(std::string(probe.begin(), probe.end()));
    for (long pos; lines >> pos;) {
        displayPos.push_back(pos);
    }
    const std::vector<Bytes> aus = SeiWriter_SplitAccessUnits(SEIW_H264, raw);
    ASSERT_EQ(displayPos.size(), aus.size());
    std::vector<Bytes> chunks;
    long offset = 0;
    bool reordered = false;
    for (size_t n = 0; n < aus.size(); ++n) {
        const auto it = std::find(displayPos.begin(), displayPos.end(), offset);
        ASSERT_NE(it, displayPos.end());
        const uint16_t k = static_cast<uint16_t>(it - displayPos.begin());
        reordered = reordered || k != n;
        SEIW_TARGET t;
        t.id = 1;
        t.cls = 1; // no trail
        t.color = 5;
        t.box[0] = static_cast<uint16_t>(250 * (k + 1)); // the square's left edge: 8 (k + 1) pixels
        t.box[1] = 4000;
        t.box[2] = static_cast<uint16_t>(250 * (k + 1) + 1000);
        t.box[3] = 6000;
        chunks.push_back(SeiWriter_InsertBeforeSlice(
            SEIW_H264, aus[n], SeiWriter_Nal(SEIW_H264, 5, SeiWriter_UserData(32, SeiWriter_IvaResults({t})))));
        offset += static_cast<long>(aus[n].size());
    }
    ASSERT_TRUE(reordered) << "the fixture should hold B-frames";

    ASSERT_EQ(Korvalen_SetIVAEnable(port, 1), 1);
    ASSERT_EQ(Korvalen_SetDrawMediaDataCB(port, &CheckStep, nullptr), 1);
    ASSERT_EQ(Korvalen_OpenInputStream(port, nullptr, 0, 0), 1);
    ASSERT_EQ(Korvalen_StartPlay(port, 0), 1); // no window: the hook sees the picture at its own size
    // FFmpeg reads the camera's SEI as truncated; that stays off the
    // client's stderr.
    testing::internal::CaptureStderr();
    PushAll(chunks);
    WaitUntil([] { return g_inStep + g_outOfStep >= 20; }, 5000);
    ASSERT_EQ(Korvalen_CloseInputStream(port), 1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_GE(g_inStep.load(), 20);
    EXPECT_EQ(g_outOfStep.load(), 0);
}
