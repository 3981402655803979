// Rendering through the C API: start and stop, the render thread taking
// pictures to the display and the caller's draw hook, and the play controls.
#include <atomic>
#include <cstdlib>
#include <vector>

#include <gtest/gtest.h>

#include "heap/qmx_heap.h"
#include "korvalen.h"
#include "log_capture.h"
#include "port/port.h"
#include "port/port_table.h"
#include "port_fixture.h"
#include "queue/queue_picture.h"
#include "wait_until.h"

namespace {

std::atomic<int> g_draws{0};
std::atomic<uint32_t> g_lastWidth{0};

void OnDraw(uint32_t, const KORVALEN_DRAW_SURFACE* s, void* user, uint32_t)
{
    ++g_draws;
    g_lastWidth = s->width;
    EXPECT_EQ(user, reinterpret_cast<void*>(0x1234));
}

struct RenderTest : PortFixture {
    void SetUp() override
    {
        g_draws = 0;
        PortFixture::SetUp();
    }
    // What the decode side does with a decoded picture.
    void Decoded(uint32_t w, uint32_t h)
    {
        std::vector<uint8_t> buf(w * h * 3 / 2, 100);
        QUEUE_PICTURE pic;
        pic.planes[0] = buf.data();
        pic.planes[1] = buf.data() + w * h;
        pic.planes[2] = buf.data() + w * h * 5 / 4;
        pic.lineSizes[0] = w;
        pic.lineSizes[1] = pic.lineSizes[2] = w / 2;
        pic.width = w;
        pic.height = h;
        ASSERT_EQ(QUEUE_AddDecodeData(&pic, &Player_GetPort(port)->playback.offscreen), KORVALEN_OK);
    }
};

} // namespace

TEST_F(RenderTest, HeadlessRenderingReachesTheDrawHook)
{
    LogCapture log;
    ASSERT_EQ(Korvalen_SetDrawMediaDataCB(port, &OnDraw, reinterpret_cast<void*>(0x1234)), 1);
    ASSERT_EQ(Korvalen_StartPlay(port, 0), 1);
    EXPECT_TRUE(log.Has("Call Port[000] Korvalen_StartPlay Wnd[0x0]"));
    ASSERT_EQ(Korvalen_StartPlay(port, 0), 1) << "a second start is fine";
    EXPECT_TRUE(log.Has("Port [000] Player_StartPlay fail, Playing now"));

    PortRecord* rec = Player_GetPort(port);
    for (int i = 0; i < 5; ++i) {
        Decoded(64, 48);
        ASSERT_TRUE(WaitUntil([&] { return rec->playback.rendered >= static_cast<uint32_t>(i + 1); })) << i;
    }
    EXPECT_GE(g_draws.load(), 5);
    EXPECT_EQ(g_lastWidth.load(), 64u);
    EXPECT_EQ(log.Count("Start __RenderThreadEntry thread succeed"), 1u) << "one render thread";

    // Paused live: pictures are not taken while paused.
    ASSERT_EQ(Korvalen_PauseLive(port, 1), 1);
    uint32_t before = rec->playback.rendered;
    Decoded(64, 48);
    SleepMs(100);
    EXPECT_EQ(rec->playback.rendered, before);
    ASSERT_EQ(Korvalen_PauseLive(port, 0), 1);
    ASSERT_TRUE(WaitUntil([&] { return rec->playback.rendered > before; }));

    ASSERT_EQ(Korvalen_StopPlay(port, 0), 1);
    EXPECT_EQ(rec->video.display, nullptr);
    EXPECT_EQ(rec->playback.offscreen.nodes, nullptr);
}

TEST_F(RenderTest, PlayControls)
{
    EXPECT_EQ(Korvalen_PausePlay(port, 1), 0);
    EXPECT_EQ(Korvalen_GetLastError(), KORVALEN_ERR_NOT_SUPPORTED) << "not a file port";
    EXPECT_EQ(Korvalen_SetPictureFluency(port, 5), 0);
    EXPECT_EQ(Korvalen_GetLastError(), KORVALEN_ERR_INVALID_PARAM);
    ASSERT_EQ(Korvalen_SetPictureFluency(port, 2), 1);
    EXPECT_EQ(Player_GetPort(port)->playback.fluency, 0u) << "mode 2 is stored as off";
    ASSERT_EQ(Korvalen_SetOneFrameDecodeMode(port), 1);
    EXPECT_EQ(Korvalen_PauseLive(300, 1), 0);
    // Without an X server a window handle still plays, headless.
    unsetenv("DISPLAY");
    ASSERT_EQ(Korvalen_StartPlay(port, 0x7FFFFF), 1);
    ASSERT_NE(Player_GetPort(port)->video.display, nullptr);
    EXPECT_TRUE(Player_GetPort(port)->video.display->IsOffscreen());
    ASSERT_EQ(Korvalen_StopPlay(port, 0x7FFFFF), 1);
    // Option 0 on the source callback stops feeding the decoder.
    ASSERT_EQ(Korvalen_SetSourceMediaDataCB(port, nullptr, 0, nullptr), 1);
    EXPECT_EQ(Player_GetPort(port)->feedDecoder, 0u);
    EXPECT_EQ(Korvalen_SetParseVideoDataCB(250, nullptr, 1, nullptr), 0);
    EXPECT_EQ(Korvalen_GetLastError(), KORVALEN_ERR_PORT);
}
