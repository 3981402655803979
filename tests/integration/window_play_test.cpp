// A pushed stream through the whole pipeline into a real X11 window on a
// private Xvfb: the picture and the caller's drawing reach the screen.
// gtest first: Xlib's macros (None, Bool...) would clash with its names.
#include <gtest/gtest.h>

#include <X11/Xlib.h>
#include <X11/Xutil.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <thread>
#include <vector>

#include "../unit/codec_media.h"
#include "korvalen.h"
#include "log_capture.h"
#include "platform/qmx_heap.h"
#include "xvfb_server.h"

namespace {

struct Pixel {
    int r, g, b;
};

Pixel At(Display* dpy, Window w, int x, int y)
{
    XImage* img = XGetImage(dpy, w, x, y, 1, 1, AllPlanes, ZPixmap);
    if (!img) {
        return {-1, -1, -1};
    }
    unsigned long p = XGetPixel(img, 0, 0);
    XDestroyImage(img);
    return {static_cast<int>((p >> 16) & 0xFF), static_cast<int>((p >> 8) & 0xFF), static_cast<int>(p & 0xFF)};
}

// The caller's drawing: a green square in the top right corner.
void PaintGreen(uint32_t, const KORVALEN_DRAW_SURFACE* s, void*, uint32_t)
{
    for (uint32_t y = 0; y < 20 && y < s->height; ++y) {
        for (uint32_t x = s->width - 20; x < s->width; ++x) {
            uint8_t* p = s->pixels + y * s->stride + x * 4;
            p[0] = 0;
            p[1] = 255;
            p[2] = 0;
        }
    }
}

} // namespace

TEST(WindowPlay, PushedStreamAndDrawingReachTheWindow)
{
    const std::string path = FixturePath("h264_red_square.h264");
    REQUIRE_FIXTURE(path);
    XvfbServer x;
    if (!x.Start()) {
        GTEST_SKIP() << "Xvfb cannot run here";
    }
    Display* dpy = XOpenDisplay(nullptr);
    ASSERT_NE(dpy, nullptr);
    Window win = XCreateSimpleWindow(dpy, DefaultRootWindow(dpy), 0, 0, 640, 480, 0, 0, WhitePixel(dpy, 0));
    XMapWindow(dpy, win);
    XSync(dpy, False);

    ASSERT_EQ(Korvalen_Init(), 1);
    uint32_t port = 0;
    ASSERT_EQ(Korvalen_AllocPort(&port), 1);
    ASSERT_EQ(Korvalen_SetDrawMediaDataCB(port, &PaintGreen, nullptr), 1);
    ASSERT_EQ(Korvalen_OpenInputStream(port, nullptr, 0, 0), 1);
    ASSERT_EQ(Korvalen_StartPlay(port, win), 1);
    for (const auto& unit : ReadPackets(path)) {
        ASSERT_EQ(Korvalen_InputMediaData(port, unit.data(), static_cast<uint32_t>(unit.size())), 1);
    }
    // The stream plays at its own pace (25 fps): look until the picture shows.
    Pixel red{}, blue{}, green{};
    for (int i = 0; i < 300; ++i) {
        red = At(dpy, win, 500, 400);
        if (red.r > 200 && red.g < 60 && red.b < 60) {
            break;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    blue = At(dpy, win, 40, 40); // the square, scaled with the picture
    green = At(dpy, win, 630, 10);
    EXPECT_GT(red.r, 200);
    EXPECT_LT(red.g, 60);
    EXPECT_GT(blue.b, 200);
    EXPECT_LT(blue.r, 60);
    EXPECT_GT(green.g, 200);
    EXPECT_LT(green.r, 60);

    ASSERT_EQ(Korvalen_CloseInputStream(port), 1);
    Korvalen_Cleanup();
    EXPECT_EQ(QMX_HeapLiveBytes(), 0u);
    XCloseDisplay(dpy);
}

namespace {

// Pushes the fixture over and over at 25 fps until stopped.
struct Feeder {
    std::atomic<bool> stop{false};
    std::thread thread;
    void Start(uint32_t port, const std::vector<Bytes>& units)
    {
        thread = std::thread([this, port, &units] {
            for (size_t i = 0; !stop; ++i) {
                const Bytes& u = units[i % units.size()];
                Korvalen_InputMediaData(port, u.data(), static_cast<uint32_t>(u.size()));
                std::this_thread::sleep_for(std::chrono::milliseconds(40));
            }
        });
    }
    ~Feeder()
    {
        stop = true;
        if (thread.joinable()) {
            thread.join();
        }
    }
};

std::atomic<int> g_decoded{0};

} // namespace

// The caller's window goes away while the port draws, a new one is given and
// shows the stream; then the X server dies: the port keeps decoding, and
// the display failures are logged sparingly, never a crash.
TEST(WindowPlay, LostWindowThenLostServerWhilePlaying)
{
    const std::string path = FixturePath("h264_red_square.h264");
    REQUIRE_FIXTURE(path);
    std::vector<Bytes> units = ReadPackets(path);
    XvfbServer x;
    if (!x.Start()) {
        GTEST_SKIP() << "Xvfb cannot run here";
    }
    Display* dpy = XOpenDisplay(nullptr);
    ASSERT_NE(dpy, nullptr);
    Window first = XCreateSimpleWindow(dpy, DefaultRootWindow(dpy), 0, 0, 320, 240, 0, 0, WhitePixel(dpy, 0));
    XMapWindow(dpy, first);
    XSync(dpy, False);
    LogCapture log;
    ASSERT_EQ(Korvalen_Init(), 1);
    uint32_t port = 0;
    ASSERT_EQ(Korvalen_AllocPort(&port), 1);
    g_decoded = 0;
    ASSERT_EQ(
        Korvalen_SetDecodeVideoMediaDataCB(
            port, [](uint32_t, const KORVALEN_DECODED_VIDEO*, void*, uint32_t, uint32_t) { ++g_decoded; }, 1, nullptr),
        1);
    ASSERT_EQ(Korvalen_OpenInputStream(port, nullptr, 0, 0), 1);
    ASSERT_EQ(Korvalen_StartPlay(port, first), 1);
    Feeder feed;
    feed.Start(port, units);
    std::this_thread::sleep_for(std::chrono::milliseconds(400));
    XDestroyWindow(dpy, first);
    XSync(dpy, False);
    std::this_thread::sleep_for(std::chrono::milliseconds(300));

    // A new window for the same port.
    Window second = XCreateSimpleWindow(dpy, DefaultRootWindow(dpy), 0, 0, 320, 240, 0, 0, WhitePixel(dpy, 0));
    XMapWindow(dpy, second);
    XSync(dpy, False);
    ASSERT_EQ(Korvalen_StopPlay(port, first), 1);
    ASSERT_EQ(Korvalen_StartPlay(port, second), 1);
    Pixel red{};
    for (int i = 0; i < 200; ++i) {
        red = At(dpy, second, 250, 200);
        if (red.r > 200 && red.g < 60) {
            break;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    EXPECT_GT(red.r, 200);
    EXPECT_LT(red.g, 60);

    // The X server dies under the port.
    XCloseDisplay(dpy);
    x.Kill();
    int before = g_decoded.load();
    std::this_thread::sleep_for(std::chrono::milliseconds(1200));
    EXPECT_GT(g_decoded.load(), before + 15) << "decoding goes on without a display";
    size_t failures = log.Count("Video_DisPlayPic fail");
    EXPECT_GE(failures, 1u);
    EXPECT_LE(failures, 3u) << "one line per hundred failed pictures";
    feed.stop = true;
    feed.thread.join();
    ASSERT_EQ(Korvalen_CloseInputStream(port), 1);
    Korvalen_Cleanup();
    EXPECT_EQ(QMX_HeapLiveBytes(), 0u);
}
