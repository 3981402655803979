// Pictures into real X11 windows on a private Xvfb, read back from the
// server; the port's display settings go through the C API.
#include <chrono>
#include <cmath>
#include <thread>
#include <vector>

// gtest first: Xlib's macros (None, Bool...) would clash with its names.
#include <gtest/gtest.h>

#include <X11/Xlib.h>
#include <X11/Xutil.h>

#include "display/video_display.h"
#include "heap/qmx_heap.h"
#include "korvalen.h"
#include "log_capture.h"
#include "port/port.h"
#include "port/port_table.h"
#include "queue/queue_picture.h"
#include "xvfb_server.h"

namespace {

struct Rgb {
    int r, g, b;
};
constexpr Rgb W{255, 255, 255}, R{255, 0, 0}, B{0, 0, 255}, K{0, 0, 0};

// Y, U, V of a few colours (limited range, BT.601).
struct Yuv {
    uint8_t y, u, v;
};
constexpr Yuv kWhite{235, 128, 128};
constexpr Yuv kRed{81, 90, 240};
constexpr Yuv kBlue{41, 240, 110};
constexpr Yuv kGrey{126, 128, 128};

// A picture: left half `left`, right half `right`, a blue marker in the
// top-left eighth.
struct Bars {
    std::vector<uint8_t> y, u, v;
    QUEUE_PICTURE_NODE node;
    Bars(uint32_t w, uint32_t h, Yuv left = kWhite, Yuv right = kRed)
        : y(w * h), u(((w + 1) / 2) * ((h + 1) / 2)), v(u.size())
    {
        const uint32_t cw = (w + 1) / 2;
        for (uint32_t row = 0; row < h; ++row) {
            for (uint32_t col = 0; col < w; ++col) {
                const Yuv c = col < w / 8 && row < h / 8 ? kBlue : (col < w / 2 ? left : right);
                y[row * w + col] = c.y;
                u[row / 2 * cw + col / 2] = c.u; // the last pixel of each 2x2 block sets its chroma
                v[row / 2 * cw + col / 2] = c.v;
            }
        }
        node.planes[0] = y.data();
        node.planes[1] = u.data();
        node.planes[2] = v.data();
        node.lineSizes[0] = w;
        node.lineSizes[1] = node.lineSizes[2] = cw;
        node.width = w;
        node.height = h;
    }
};

bool Near(Rgb c, Rgb want, int tol = 40)
{
    return std::abs(c.r - want.r) <= tol && std::abs(c.g - want.g) <= tol && std::abs(c.b - want.b) <= tol;
}

::testing::AssertionResult IsColour(Rgb got, Rgb want)
{
    return Near(got, want) ? ::testing::AssertionSuccess()
                           : ::testing::AssertionFailure() << "got " << got.r << "," << got.g << "," << got.b
                                                           << " want " << want.r << "," << want.g << "," << want.b;
}

struct DisplayTest : ::testing::Test {
    XvfbServer x;
    Display* dpy = nullptr;
    Window win = 0;
    uint32_t port = 0;

    void SetUp() override
    {
        if (!x.Start()) {
            ASSERT_FALSE(XvfbServer::Installed()) << "Xvfb is installed but did not start";
            GTEST_SKIP() << "Xvfb is not installed";
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
    Window MakeWindow(unsigned w, unsigned h, int left = 0)
    {
        Window wn = XCreateSimpleWindow(dpy, DefaultRootWindow(dpy), left, 0, w, h, 0, 0, WhitePixel(dpy, 0));
        XMapWindow(dpy, wn);
        XSync(dpy, False);
        return wn;
    }
    Rgb At(int px, int py, Window w = 0)
    {
        XImage* img = XGetImage(dpy, w ? w : win, px, py, 1, 1, AllPlanes, ZPixmap);
        if (!img) {
            return {-1, -1, -1};
        }
        unsigned long p = XGetPixel(img, 0, 0);
        XDestroyImage(img);
        return {static_cast<int>((p >> 16) & 0xFF), static_cast<int>((p >> 8) & 0xFF), static_cast<int>(p & 0xFF)};
    }
    // The server takes the library's put in its own time: looks until the
    // point passes, for a few seconds at most, and gives its last colour.
    template <class Pred> Rgb Await(int px, int py, Pred ok, Window w = 0)
    {
        Rgb c = At(px, py, w);
        for (int i = 0; i < 300 && !ok(c); ++i) {
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
            c = At(px, py, w);
        }
        return c;
    }
    // For the first point read after a put, one whose colour changes with
    // it: once it shows, the whole picture is there.
    ::testing::AssertionResult Shows(int px, int py, Rgb want, Window w = 0)
    {
        auto near = [&](Rgb c) { return Near(c, want); };
        return IsColour(Await(px, py, near, w), want);
    }
    uint32_t Put(CBaseDisplay* d, const Bars& pic) { return Video_DisPlayPicEx(port, d, &pic.node, Settings()); }
    const DISP_SETTINGS& Settings() { return Player_GetPort(port)->video.settings; }
};

} // namespace

TEST_F(DisplayTest, ScaleModesZoomOddSizesAndResizes)
{
    CBaseDisplay* d = nullptr;
    ASSERT_EQ(Video_CreateDisplayDec(win, &d), KORVALEN_OK);
    ASSERT_FALSE(d->IsOffscreen());

    Bars bars(320, 240);
    // Fill: the picture stretched over the whole window.
    ASSERT_EQ(Korvalen_SetRenderScale(port, nullptr, 0), 1);
    ASSERT_EQ(Put(d, bars), KORVALEN_OK);
    EXPECT_TRUE(Shows(20, 20, B));
    EXPECT_TRUE(IsColour(At(200, 240), W));
    EXPECT_TRUE(IsColour(At(500, 400), R));

    // Keep aspect with a 16:9 picture: black bars above and below.
    Bars wide(320, 180);
    ASSERT_EQ(Korvalen_SetRenderScale(port, nullptr, 1), 1);
    ASSERT_EQ(Put(d, wide), KORVALEN_OK);
    EXPECT_TRUE(Shows(320, 30, K));
    EXPECT_TRUE(IsColour(At(320, 450), K));
    EXPECT_TRUE(IsColour(At(160, 240), W));
    EXPECT_TRUE(IsColour(At(20, 75), B)) << "the marker starts at the picture's top edge, below the bar";

    // Native size, centred.
    ASSERT_EQ(Korvalen_SetRenderScale(port, nullptr, 2), 1);
    ASSERT_EQ(Put(d, bars), KORVALEN_OK);
    EXPECT_TRUE(Shows(100, 100, K));
    EXPECT_TRUE(IsColour(At(170, 130), B));
    EXPECT_TRUE(IsColour(At(300, 300), W));
    EXPECT_TRUE(IsColour(At(400, 300), R));

    // Zoom on the left half: no red left on screen.
    KORVALEN_RECT zoom{0, 0, 5000, 10000};
    ASSERT_EQ(Korvalen_SetRenderScale(port, nullptr, 0), 1);
    ASSERT_EQ(Korvalen_SetDigitalZoom(port, &zoom, nullptr), 1);
    ASSERT_EQ(Put(d, bars), KORVALEN_OK);
    EXPECT_TRUE(Shows(600, 400, W));
    EXPECT_TRUE(IsColour(At(40, 20), B)) << "the marker now spans a quarter of the width";
    ASSERT_EQ(Korvalen_SetDigitalZoom(port, nullptr, nullptr), 1);

    // Sizes outside the usual range, each a colour other than the last.
    bool red = true;
    for (auto [w, h] : {std::pair<uint32_t, uint32_t>{704, 576}, {1, 1}, {4096, 2160}, {33, 17}}) {
        Bars odd(w, h, red ? kRed : kWhite, red ? kRed : kWhite);
        ASSERT_EQ(Put(d, odd), KORVALEN_OK) << w << "x" << h;
        EXPECT_TRUE(Shows(600, 400, red ? R : W)) << w << "x" << h;
        red = !red;
    }

    // Smaller, then larger: the display hears of it from the server within
    // a few pictures, and shows them at the new size although both its
    // images were made for the old one.
    for (auto [w, h] : {std::pair<int32_t, int32_t>{200, 150}, {800, 600}}) {
        XResizeWindow(dpy, win, static_cast<unsigned>(w), static_cast<unsigned>(h));
        XSync(dpy, False);
        for (int i = 0; i < 300 && (d->ShownRect().right != w || d->ShownRect().bottom != h); ++i) {
            ASSERT_EQ(Put(d, bars), KORVALEN_OK);
            std::this_thread::sleep_for(std::chrono::milliseconds(i == 0 ? 0 : 10));
        }
        EXPECT_EQ(d->ShownRect().right, w);
        EXPECT_EQ(d->ShownRect().bottom, h);
        EXPECT_TRUE(Shows(w - 5, h - 5, R)) << w << "x" << h;
    }
    Video_DestroyDisplayDec(d);
}

TEST_F(DisplayTest, AdjustmentsAndDrawHook)
{
    CBaseDisplay* d = nullptr;
    ASSERT_EQ(Video_CreateDisplayDec(win, &d), KORVALEN_OK);
    Bars grey(64, 48, kGrey, kRed);
    ASSERT_EQ(Put(d, grey), KORVALEN_OK);
    const int before = Await(100, 300, [](Rgb c) { return Near(c, Rgb{130, 130, 130}); }).g;
    int32_t value = 160;
    ASSERT_EQ(Korvalen_SetAdjust(port, KORVALEN_ADJUST_BRIGHTNESS, &value), 1);
    ASSERT_EQ(Put(d, grey), KORVALEN_OK);
    EXPECT_GT(Await(100, 300, [&](Rgb c) { return c.g > before + 30; }).g, before + 30) << "brighter";
    value = 100;
    ASSERT_EQ(Korvalen_SetAdjust(port, KORVALEN_ADJUST_BRIGHTNESS, &value), 1);

    value = 17; // +126 degrees: red turns towards green/blue
    ASSERT_EQ(Korvalen_SetAdjust(port, KORVALEN_ADJUST_HUE, &value), 1);
    ASSERT_EQ(Put(d, grey), KORVALEN_OK);
    EXPECT_LT(Await(500, 300, [](Rgb c) { return c.r < 150; }).r, 150);
    value = 10;
    ASSERT_EQ(Korvalen_SetAdjust(port, KORVALEN_ADJUST_HUE, &value), 1);
    value = 0;
    ASSERT_EQ(Korvalen_SetAdjust(port, KORVALEN_ADJUST_SATURATION, &value), 1);
    ASSERT_EQ(Put(d, grey), KORVALEN_OK);
    auto spread = [](Rgb c) { return std::abs(c.r - c.g) + std::abs(c.g - c.b); };
    EXPECT_LT(spread(Await(500, 300, [&](Rgb c) { return spread(c) < 12; })), 12) << "no colour left";
    KORVALEN_ADJUST all{};
    ASSERT_EQ(Korvalen_GetAdjust(port, &all), 1);
    EXPECT_EQ(all.saturation, 0);
    EXPECT_EQ(all.hue, 10);
    value = 300;
    EXPECT_EQ(Korvalen_SetAdjust(port, KORVALEN_ADJUST_CONTRAST, &value), 0);
    EXPECT_EQ(Korvalen_SetAdjust(port, 7, &value), 0);
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
    ASSERT_EQ(Put(d, grey), KORVALEN_OK);
    EXPECT_TRUE(Shows(5, 5, Rgb{0, 255, 0}));
    Video_DestroyDisplayDec(d);
}

// Two displays share the library's connection: the first one's window goes
// between its picture's check and its put, so the put fails on the server
// while the second display waits for it. The failure is the first's alone.
TEST_F(DisplayTest, LostWindowAndLostServer)
{
    LogCapture log;
    Window other = MakeWindow(320, 240, 700);
    CBaseDisplay* d = nullptr;
    CBaseDisplay* second = nullptr;
    ASSERT_EQ(Video_CreateDisplayDec(win, &d), KORVALEN_OK);
    ASSERT_EQ(Video_CreateDisplayDec(other, &second), KORVALEN_OK);
    Bars bars(160, 120), blue(64, 48, kBlue, kBlue), white(64, 48, kWhite, kWhite);
    ASSERT_EQ(Put(d, bars), KORVALEN_OK);
    struct Doom {
        Display* dpy;
        Window win;
    } doom{dpy, win};
    d->SetDrawCallback(
        [](uint32_t, const KORVALEN_DRAW_SURFACE*, void* user, uint32_t) {
            auto* w = static_cast<Doom*>(user);
            XDestroyWindow(w->dpy, w->win);
            XSync(w->dpy, False);
        },
        &doom);
    ASSERT_EQ(Put(d, bars), KORVALEN_OK) << "the put is not waited for";
    d->SetDrawCallback(nullptr, nullptr);
    ASSERT_EQ(Put(second, blue), KORVALEN_OK);
    EXPECT_TRUE(Shows(300, 200, B, other)) << "so the failed put before it was answered too";
    EXPECT_EQ(Put(second, white), KORVALEN_OK);
    EXPECT_TRUE(Shows(300, 200, W, other));
    EXPECT_EQ(Put(d, bars), KORVALEN_ERR_SURFACE_LOST);
    EXPECT_TRUE(log.Has("CDDrawDisplay::RendSurface fail, surface lost"));
    EXPECT_TRUE(log.Has("DDRAW::RendSurface: first Blt operation Failed 0x9."));
    EXPECT_EQ(Video_DisPlayPicEx(port, d, nullptr, Settings()), KORVALEN_ERR_INVALID_PARAM);
    EXPECT_TRUE(log.Has("Video_DisPlayPicEx fail, lpOffScreenNode is NULL"));
    EXPECT_EQ(Video_DisPlayPicEx(port, nullptr, &bars.node, Settings()), KORVALEN_ERR_DISPLAY_PARAM);
    Video_DestroyDisplayDec(d);
    Video_DestroyDisplayDec(second);

    // A new window: the port shows pictures again.
    win = MakeWindow(320, 240);
    ASSERT_EQ(Video_CreateDisplayDec(win, &d), KORVALEN_OK);
    ASSERT_EQ(Put(d, bars), KORVALEN_OK);
    EXPECT_TRUE(Shows(250, 200, R));
    CBaseDisplay* none = nullptr;
    EXPECT_EQ(Video_CreateDisplayDec(0x7FFFFF, &none), KORVALEN_ERR_OUTPUT_CREATE) << "no such window";
    EXPECT_EQ(none, nullptr);

    // The X server goes away: surface lost every time, never a crash.
    XCloseDisplay(dpy);
    dpy = nullptr;
    x.Kill();
    for (int i = 0; i < 5; ++i) {
        EXPECT_EQ(Put(d, bars), KORVALEN_ERR_SURFACE_LOST);
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
    DISP_SETTINGS s;
    ASSERT_EQ(Video_DisPlayPicEx(0, d, &bars.node, s), KORVALEN_OK);
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
    EXPECT_EQ(Korvalen_SetGpuDrawEnable(p, 1), 1);
    EXPECT_TRUE(log.Has("Call Port[000] Korvalen_SetGpuDrawEnable Success, Able : 1"));
    EXPECT_EQ(Korvalen_SetDeinterlaceMode(p, 1, 0), 1);
    Korvalen_Cleanup();
}
