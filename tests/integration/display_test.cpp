// Pictures into real X11 windows on a private Xvfb, read back from the
// server; the port's display settings go through the C API.
#include <cmath>
#include <vector>

// gtest first: Xlib's macros (None, Bool...) would clash with its names.
#include <gtest/gtest.h>

#include <X11/Xlib.h>
#include <X11/Xutil.h>

#include "display/video_display.h"
#include "korvalen.h"
#include "log_capture.h"
#include "platform/qmx_heap.h"
#include "player/port.h"
#include "player/port_table.h"
#include "queue/queue_picture.h"
#include "xvfb_server.h"

namespace {

struct Rgb {
    int r, g, b;
};

// Y, U, V of a few colours (limited range, BT.601).
struct Yuv {
    uint8_t y, u, v;
};
constexpr Yuv kWhite{235, 128, 128};
constexpr Yuv kRed{81, 90, 240};
constexpr Yuv kBlue{41, 240, 110};
constexpr Yuv kGrey{126, 128, 128};

// A picture: left half white, right half red, a blue marker in the top-left
// eighth.
struct Bars {
    uint32_t w, h;
    std::vector<uint8_t> y, u, v;
    Bars(uint32_t width, uint32_t height, Yuv left = kWhite, Yuv right = kRed) : w(width), h(height)
    {
        uint32_t cw = (w + 1) / 2, ch = (h + 1) / 2;
        y.resize(w * h);
        u.resize(cw * ch);
        v.resize(cw * ch);
        auto colourAt = [&](uint32_t x, uint32_t yy) {
            if (x < w / 8 && yy < h / 8) {
                return kBlue;
            }
            return x < w / 2 ? left : right;
        };
        for (uint32_t yy = 0; yy < h; ++yy) {
            for (uint32_t x = 0; x < w; ++x) {
                y[yy * w + x] = colourAt(x, yy).y;
            }
        }
        for (uint32_t yy = 0; yy < ch; ++yy) {
            for (uint32_t x = 0; x < cw; ++x) {
                Yuv c = colourAt(std::min(w - 1, x * 2), std::min(h - 1, yy * 2));
                u[yy * cw + x] = c.u;
                v[yy * cw + x] = c.v;
            }
        }
    }
    QUEUE_PICTURE_NODE Node()
    {
        QUEUE_PICTURE_NODE n;
        n.planes[0] = y.data();
        n.planes[1] = u.data();
        n.planes[2] = v.data();
        n.lineSizes[0] = w;
        n.lineSizes[1] = n.lineSizes[2] = (w + 1) / 2;
        n.width = w;
        n.height = h;
        return n;
    }
};

struct DisplayTest : ::testing::Test {
    XvfbServer x;
    Display* dpy = nullptr;
    Window win = 0;
    uint32_t port = 0;

    void SetUp() override
    {
        if (!x.Start()) {
            GTEST_SKIP() << "Xvfb cannot run here";
        }
        dpy = XOpenDisplay(nullptr);
        ASSERT_NE(dpy, nullptr);
        win = MakeWindow(640, 480);
        ASSERT_EQ(Korvalen_Init(), 1);
        ASSERT_EQ(Korvalen_AllocPort(&port), 1);
    }
    void TearDown() override
    {
        if (Korvalen_GetInitCount() > 0) {
            Korvalen_Cleanup();
            EXPECT_EQ(QMX_HeapLiveBytes(), 0u);
        }
        if (dpy) {
            XCloseDisplay(dpy);
        }
    }
    Window MakeWindow(unsigned w, unsigned h)
    {
        Window wn = XCreateSimpleWindow(dpy, DefaultRootWindow(dpy), 0, 0, w, h, 0, 0, WhitePixel(dpy, 0));
        XMapWindow(dpy, wn);
        XSync(dpy, False);
        return wn;
    }
    Rgb At(int px, int py)
    {
        XImage* img = XGetImage(dpy, win, px, py, 1, 1, AllPlanes, ZPixmap);
        if (!img) {
            return {-1, -1, -1};
        }
        unsigned long p = XGetPixel(img, 0, 0);
        XDestroyImage(img);
        return {static_cast<int>((p >> 16) & 0xFF), static_cast<int>((p >> 8) & 0xFF), static_cast<int>(p & 0xFF)};
    }
    const DISP_SETTINGS& Settings() { return Player_GetPort(port)->video.settings; }
};

bool Near(Rgb c, Rgb want, int tol = 40)
{
    return std::abs(c.r - want.r) <= tol && std::abs(c.g - want.g) <= tol && std::abs(c.b - want.b) <= tol;
}

constexpr Rgb W{255, 255, 255}, R{255, 0, 0}, B{0, 0, 255}, K{0, 0, 0};

::testing::AssertionResult IsColour(Rgb got, Rgb want)
{
    if (Near(got, want)) {
        return ::testing::AssertionSuccess();
    }
    return ::testing::AssertionFailure() << "got " << got.r << "," << got.g << "," << got.b << " want " << want.r << ","
                                         << want.g << "," << want.b;
}

} // namespace

TEST_F(DisplayTest, ScaleModesZoomAndOddSizes)
{
    CBaseDisplay* d = nullptr;
    ASSERT_EQ(Video_CreateDisplayDec(win, &d), KORVALEN_OK);
    ASSERT_FALSE(d->IsOffscreen());

    Bars bars(320, 240);
    auto node = bars.Node();
    // Fill: the picture stretched over the whole window.
    ASSERT_EQ(Korvalen_SetRenderScale(port, nullptr, 0), 1);
    ASSERT_EQ(Video_DisPlayPicEx(port, d, &node, Settings()), KORVALEN_OK);
    EXPECT_TRUE(IsColour(At(20, 20), B));
    EXPECT_TRUE(IsColour(At(200, 240), W));
    EXPECT_TRUE(IsColour(At(500, 400), R));

    // Keep aspect with a 16:9 picture: black bars above and below.
    Bars wide(320, 180);
    auto wideNode = wide.Node();
    ASSERT_EQ(Korvalen_SetRenderScale(port, nullptr, 1), 1);
    ASSERT_EQ(Video_DisPlayPicEx(port, d, &wideNode, Settings()), KORVALEN_OK);
    EXPECT_TRUE(IsColour(At(320, 30), K));
    EXPECT_TRUE(IsColour(At(320, 450), K));
    EXPECT_TRUE(IsColour(At(160, 240), W));
    EXPECT_TRUE(IsColour(At(20, 75), B)) << "the marker starts at the picture's top edge, below the bar";

    // Native size, centred.
    ASSERT_EQ(Korvalen_SetRenderScale(port, nullptr, 2), 1);
    ASSERT_EQ(Video_DisPlayPicEx(port, d, &node, Settings()), KORVALEN_OK);
    EXPECT_TRUE(IsColour(At(100, 100), K));
    EXPECT_TRUE(IsColour(At(170, 130), B));
    EXPECT_TRUE(IsColour(At(300, 300), W));
    EXPECT_TRUE(IsColour(At(400, 300), R));

    // Zoom on the left half: no red left on screen.
    KORVALEN_RECT zoom{0, 0, 5000, 10000};
    ASSERT_EQ(Korvalen_SetRenderScale(port, nullptr, 0), 1);
    ASSERT_EQ(Korvalen_SetDigitalZoom(port, &zoom, nullptr), 1);
    ASSERT_EQ(Video_DisPlayPicEx(port, d, &node, Settings()), KORVALEN_OK);
    EXPECT_TRUE(IsColour(At(600, 400), W));
    EXPECT_TRUE(IsColour(At(40, 20), B)) << "the marker now spans a quarter of the width";
    ASSERT_EQ(Korvalen_SetDigitalZoom(port, nullptr, nullptr), 1);

    for (auto [w, h] : {std::pair<uint32_t, uint32_t>{704, 576}, {1, 1}, {4096, 2160}, {33, 17}}) {
        Bars odd(w, h, kRed, kRed);
        auto oddNode = odd.Node();
        ASSERT_EQ(Video_DisPlayPicEx(port, d, &oddNode, Settings()), KORVALEN_OK) << w << "x" << h;
        EXPECT_TRUE(IsColour(At(600, 400), R)) << w << "x" << h;
    }
    Video_DestroyDisplayDec(d);
}

TEST_F(DisplayTest, AdjustmentsAndDrawHook)
{
    CBaseDisplay* d = nullptr;
    ASSERT_EQ(Video_CreateDisplayDec(win, &d), KORVALEN_OK);
    Bars grey(64, 48, kGrey, kRed);
    auto node = grey.Node();
    ASSERT_EQ(Video_DisPlayPicEx(port, d, &node, Settings()), KORVALEN_OK);
    int before = At(100, 300).g;
    int32_t bright = 160;
    ASSERT_EQ(Korvalen_SetAdjust(port, KORVALEN_ADJUST_BRIGHTNESS, &bright), 1);
    ASSERT_EQ(Video_DisPlayPicEx(port, d, &node, Settings()), KORVALEN_OK);
    EXPECT_GT(At(100, 300).g, before + 30) << "brighter";
    bright = 100;
    ASSERT_EQ(Korvalen_SetAdjust(port, KORVALEN_ADJUST_BRIGHTNESS, &bright), 1);

    int32_t hue = 17; // +126 degrees: red turns towards green/blue
    ASSERT_EQ(Korvalen_SetAdjust(port, KORVALEN_ADJUST_HUE, &hue), 1);
    ASSERT_EQ(Video_DisPlayPicEx(port, d, &node, Settings()), KORVALEN_OK);
    Rgb turned = At(500, 300);
    EXPECT_LT(turned.r, 150) << turned.r << "," << turned.g << "," << turned.b;
    int32_t sat = 0;
    hue = 10;
    ASSERT_EQ(Korvalen_SetAdjust(port, KORVALEN_ADJUST_HUE, &hue), 1);
    ASSERT_EQ(Korvalen_SetAdjust(port, KORVALEN_ADJUST_SATURATION, &sat), 1);
    ASSERT_EQ(Video_DisPlayPicEx(port, d, &node, Settings()), KORVALEN_OK);
    Rgb flat = At(500, 300);
    EXPECT_LT(std::abs(flat.r - flat.g) + std::abs(flat.g - flat.b), 12) << "no colour left";
    KORVALEN_ADJUST all{};
    ASSERT_EQ(Korvalen_GetAdjust(port, &all), 1);
    EXPECT_EQ(all.saturation, 0);
    EXPECT_EQ(all.hue, 10);
    int32_t bad = 300;
    EXPECT_EQ(Korvalen_SetAdjust(port, KORVALEN_ADJUST_CONTRAST, &bad), 0);
    EXPECT_EQ(Korvalen_SetAdjust(port, 7, &bad), 0);
    EXPECT_EQ(Korvalen_GetLastError(), KORVALEN_ERR_INVALID_PARAM);

    // The hook paints on the picture about to be shown.
    d->SetDrawCallback(
        [](uint32_t, const KORVALEN_DRAW_SURFACE* s, void*, uint32_t) {
            for (uint32_t y = 0; y < 10; ++y) {
                for (uint32_t x = 0; x < 10; ++x) {
                    uint8_t* p = s->pixels + y * s->stride + x * 4;
                    p[0] = 0;   // B
                    p[1] = 255; // G
                    p[2] = 0;   // R
                }
            }
        },
        nullptr);
    ASSERT_EQ(Video_DisPlayPicEx(port, d, &node, Settings()), KORVALEN_OK);
    EXPECT_TRUE(IsColour(At(5, 5), (Rgb{0, 255, 0})));
    Video_DestroyDisplayDec(d);
}

TEST_F(DisplayTest, LostWindowAndLostServer)
{
    LogCapture log;
    CBaseDisplay* d = nullptr;
    ASSERT_EQ(Video_CreateDisplayDec(win, &d), KORVALEN_OK);
    Bars bars(160, 120);
    auto node = bars.Node();
    ASSERT_EQ(Video_DisPlayPicEx(port, d, &node, Settings()), KORVALEN_OK);
    XDestroyWindow(dpy, win);
    XSync(dpy, False);
    EXPECT_EQ(Video_DisPlayPicEx(port, d, &node, Settings()), KORVALEN_ERR_SURFACE_LOST);
    EXPECT_TRUE(log.Has("CDDrawDisplay::RendSurface fail, surface lost"));
    EXPECT_EQ(Video_DisPlayPicEx(port, d, nullptr, Settings()), KORVALEN_ERR_INVALID_PARAM);
    EXPECT_TRUE(log.Has("Video_DisPlayPicEx fail, lpOffScreenNode is NULL"));
    EXPECT_EQ(Video_DisPlayPicEx(port, nullptr, &node, Settings()), KORVALEN_ERR_DISPLAY_PARAM);
    Video_DestroyDisplayDec(d);

    // A new window: the port shows pictures again.
    win = MakeWindow(320, 240);
    ASSERT_EQ(Video_CreateDisplayDec(win, &d), KORVALEN_OK);
    ASSERT_EQ(Video_DisPlayPicEx(port, d, &node, Settings()), KORVALEN_OK);
    EXPECT_TRUE(IsColour(At(250, 200), R));
    CBaseDisplay* none = nullptr;
    EXPECT_EQ(Video_CreateDisplayDec(0x7FFFFF, &none), KORVALEN_ERR_OUTPUT_CREATE) << "no such window";
    EXPECT_EQ(none, nullptr);

    // The X server goes away: surface lost every time, never a crash.
    XCloseDisplay(dpy);
    dpy = nullptr;
    x.Kill();
    for (int i = 0; i < 5; ++i) {
        EXPECT_EQ(Video_DisPlayPicEx(port, d, &node, Settings()), KORVALEN_ERR_SURFACE_LOST);
    }
    EXPECT_LE(log.Count("DDRAW::RendSurface: first Blt operation Failed"), 3u);
    Video_DestroyDisplayDec(d);
}

TEST(DisplayHeadless, OffscreenDisplayRunsTheHook)
{
    CBaseDisplay* d = nullptr;
    ASSERT_EQ(Video_CreateDisplayDec(0, &d), KORVALEN_OK);
    ASSERT_TRUE(d->IsOffscreen());
    static uint32_t seenW = 0, seenH = 0, firstPixelR = 0;
    d->SetDrawCallback(
        [](uint32_t, const KORVALEN_DRAW_SURFACE* s, void*, uint32_t) {
            seenW = s->width;
            seenH = s->height;
            firstPixelR = s->pixels[s->stride * (s->height / 2) + (s->width - 1) * 4 + 2];
        },
        nullptr);
    Bars bars(352, 288);
    auto node = bars.Node();
    DISP_SETTINGS s;
    ASSERT_EQ(Video_DisPlayPicEx(0, d, &node, s), KORVALEN_OK);
    EXPECT_EQ(seenW, 352u);
    EXPECT_EQ(seenH, 288u);
    EXPECT_GT(firstPixelR, 200u) << "red on the right";
    Video_DestroyDisplayDec(d);
    EXPECT_EQ(QMX_HeapLiveBytes(), 0u);
}

TEST(DisplayControls, SettersGettersAndTheirLines)
{
    LogCapture log;
    ASSERT_EQ(Korvalen_Init(), 1);
    uint32_t p = 0;
    ASSERT_EQ(Korvalen_AllocPort(&p), 1);
    KORVALEN_RECT area{1, 2, 300, 200};
    ASSERT_EQ(Korvalen_SetRenderScale(p, &area, 1), 1);
    KORVALEN_RECT got{};
    uint32_t mode = 9;
    ASSERT_EQ(Korvalen_GetRenderScale(p, &got, &mode), 1);
    EXPECT_EQ(mode, 1u);
    EXPECT_EQ(got.right, 300);
    EXPECT_EQ(Korvalen_GetRenderScale(p, &got, nullptr), 0);
    EXPECT_EQ(Korvalen_GetRenderScale(77, &got, &mode), 0);
    EXPECT_TRUE(log.Has("Call Port[077] Korvalen_GetRenderScale fail, Player_SetRenderScale fail, error(0x103)"));
    EXPECT_EQ(Korvalen_SetDigitalZoom(78, nullptr, nullptr), 0);
    EXPECT_TRUE(log.Has("Call Port[078] Korvalen_SetDigitalZoom fail, Player_SetRenderScale fail, error(0x103)"));
    EXPECT_EQ(Korvalen_SetOSDStyle(p, 2), 1);
    EXPECT_EQ(Korvalen_SetOSDStyle(p, 3), 0);
    EXPECT_EQ(Korvalen_GetLastError(), KORVALEN_ERR_INVALID_PARAM);
    EXPECT_EQ(Korvalen_SetGpuDrawEnable(p, 1), 1);
    EXPECT_TRUE(log.Has("Call Port[000] Korvalen_SetGpuDrawEnable Success, Able : 1"));
    EXPECT_EQ(Korvalen_SetDeinterlaceMode(p, 1, 0), 1);
    EXPECT_EQ(Player_GetPort(p)->video.deinterlaceMode, 1u);
    Korvalen_Cleanup();
}
