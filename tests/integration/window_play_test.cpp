// A pushed stream through the whole pipeline into a real X11 window on a
// private Xvfb: the picture and the caller's drawing reach the screen, a new
// window takes over from a lost one, and a lost X server stops nothing.
// gtest first: Xlib's macros (None, Bool...) would clash with its names.
#include <gtest/gtest.h>

#include <atomic>
#include <vector>

#include "../unit/codec_media.h"
#include "heap/qmx_heap.h"
#include "korvalen.h"
#include "log_capture.h"
#include "stream_feeder.h"
#include "x_window.h"

namespace {

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

std::atomic<int> g_decoded{0};

} // namespace

// The fixture is a red picture with a blue square at its top left. The
// window goes away while the port draws, a new one is given and shows the
// stream; then the X server dies: the port keeps decoding, and the display
// failures are logged sparingly, never a crash.
TEST(WindowPlay, PictureAndDrawingReachTheWindowThroughLostWindowAndServer)
{
    const std::string path = FixturePath("h264_red_square.h264");
    REQUIRE_FIXTURE(path);
    TestScreen screen;
    if (!screen.Open(640, 480)) {
        ASSERT_FALSE(XvfbServer::Installed()) << "Xvfb is installed but did not start";
        GTEST_SKIP() << "Xvfb is not installed";
    }
    LogCapture log;
    ASSERT_EQ(Korvalen_Init(), 1);
    uint32_t port = 0;
    ASSERT_EQ(Korvalen_AllocPort(&port), 1);
    g_decoded = 0;
    ASSERT_EQ(
        Korvalen_SetDecodeVideoMediaDataCB(
            port, [](uint32_t, const KORVALEN_DECODED_VIDEO*, void*, uint32_t, uint32_t) { ++g_decoded; }, 1, nullptr),
        1);
    ASSERT_EQ(Korvalen_SetDrawMediaDataCB(port, &PaintGreen, nullptr), 1);
    ASSERT_EQ(Korvalen_OpenInputStream(port, nullptr, 0, 0), 1);
    ASSERT_EQ(Korvalen_StartPlay(port, screen.win), 1);
    StreamFeeder feed(port, ReadPackets(path));
    std::string why;
    // The square is scaled with the picture; the drawing sits on top.
    EXPECT_TRUE(
        WaitForColours(screen.dpy, screen.win, {{{500, 400}, kRed}, {{40, 40}, kBlue}, {{630, 10}, kGreen}}, &why))
        << why;

    XDestroyWindow(screen.dpy, screen.win);
    XSync(screen.dpy, False);
    SleepMs(300);
    Window second = screen.NewWindow(320, 240);
    ASSERT_EQ(Korvalen_StopPlay(port, screen.win), 1);
    ASSERT_EQ(Korvalen_StartPlay(port, second), 1);
    EXPECT_TRUE(WaitForColours(screen.dpy, second, {{{250, 200}, kRed}}, &why)) << why;

    // The X server dies under the port.
    screen.Close();
    screen.server.Kill();
    const int before = g_decoded.load();
    EXPECT_TRUE(WaitUntil([&] { return g_decoded.load() > before + 15; })) << "decoding goes on without a display";
    EXPECT_TRUE(WaitUntil([&] { return log.Has("Video_DisPlayPic fail"); }));
    feed.Stop();
    // One line per hundred failed pictures while each window played.
    EXPECT_LE(log.Count("Video_DisPlayPic fail"), 2u + g_decoded.load() / 100);
    ASSERT_EQ(Korvalen_CloseInputStream(port), 1);
    Korvalen_Cleanup();
    EXPECT_EQ(QMX_HeapLiveBytes(), 0u);
}
