// Fisheye and electronic-PTZ views through the C API on a playing port: the
// render thread shows the view's picture (the draw hook sees its size and
// content), and views switch while pictures flow.
#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "../unit/codec_media.h"
#include "heap/qmx_heap.h"
#include "korvalen.h"
#include "port_fixture.h"

namespace {

struct Drawn {
    std::atomic<uint32_t> count{0};
    std::atomic<uint32_t> width{0};
    std::atomic<uint32_t> height{0};
    std::atomic<uint32_t> blackCorner{0}; // top-left pixel is black
};

void OnDraw(uint32_t, const KORVALEN_DRAW_SURFACE* s, void* user, uint32_t)
{
    auto* d = static_cast<Drawn*>(user);
    d->width = s->width;
    d->height = s->height;
    const uint8_t* p = s->pixels;
    d->blackCorner = p[0] < 24 && p[1] < 24 && p[2] < 24;
    ++d->count;
}

class FisheyeViewTest : public PortFixture {
protected:
    // Pushes the clip and waits until a new picture of w x h has been drawn.
    bool PlayUntil(const std::vector<Bytes>& units, uint32_t w, uint32_t h)
    {
        const uint32_t start = drawn.count;
        for (const auto& u : units) {
            if (Korvalen_InputMediaData(port, u.data(), static_cast<uint32_t>(u.size())) != 1) {
                return false;
            }
        }
        for (int i = 0; i < 500; ++i) {
            if (drawn.width == w && drawn.height == h && drawn.count > start) {
                return true;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        return false;
    }
    Drawn drawn;
};

TEST_F(FisheyeViewTest, RenderThreadShowsTheChosenViewAndSwitchesWhilePlaying)
{
    const std::string path = FixturePath("h264_352x288_nob.h264");
    REQUIRE_FIXTURE(path);
    const auto units = ReadPackets(path);
    ASSERT_FALSE(units.empty());
    ASSERT_EQ(Korvalen_SetPictureFluency(port, 0), 1);
    ASSERT_EQ(Korvalen_SetDrawMediaDataCB(port, &OnDraw, &drawn), 1);
    ASSERT_EQ(Korvalen_OpenInputStream(port, nullptr, 0, 0), 1);
    ASSERT_EQ(Korvalen_StartPlay(port, 0), 1);
    EXPECT_EQ(Korvalen_OnLButtonDown(port, 10, 10), 0);
    EXPECT_EQ(Korvalen_GetLastError(), KORVALEN_ERR_PTZ) << "no view takes the mouse";
    ASSERT_TRUE(PlayUntil(units, 352, 288)) << "the picture as decoded";
    EXPECT_FALSE(drawn.blackCorner.load());

    // The circle view of a 352 x 288 picture: 16:9, black outside the lens.
    ASSERT_EQ(Korvalen_SetPtzAndFixMode(port, KORVALEN_PTZ_ORIGINAL, KORVALEN_FIX_CEILING), 1);
    EXPECT_EQ(Korvalen_IsFishEyeStream(port), 1);
    ASSERT_TRUE(PlayUntil(units, 352, 198));
    EXPECT_TRUE(drawn.blackCorner.load());
    KORVALEN_FISHEYE_STATE st{};
    KORVALEN_POINT c{};
    uint32_t radius = 0;
    ASSERT_EQ(Korvalen_GetFishEyeParam(port, &st, &c, &radius), 1);
    EXPECT_EQ(radius, 144u) << "inscribed circle";
    EXPECT_EQ(c.x, 176);
    EXPECT_EQ(st.width, 352u);
    EXPECT_EQ(Korvalen_OnMouseWheel(port, 0, 120, 100 | 100 << 16), 1) << "nothing to zoom, but accepted";

    // Electronic PTZ keeps the picture's own shape and takes the mouse.
    ASSERT_EQ(Korvalen_SetPtzDisplayMode(port, KORVALEN_PTZ_EPTZ), 1);
    ASSERT_TRUE(PlayUntil(units, 352, 288));
    ASSERT_EQ(Korvalen_OnLButtonDown(port, 100, 80), 1);
    ASSERT_EQ(Korvalen_OnMouseMove(port, 200, 160), 1);
    ASSERT_EQ(Korvalen_OnLButtonUp(port, 200, 160), 1);
    ASSERT_TRUE(PlayUntil(units, 352, 288)) << "pictures flow on after the zoom";
    uint32_t ptz = 0, fix = 0;
    ASSERT_EQ(Korvalen_GetPtzAndFixMode(port, &ptz, &fix), 1);
    EXPECT_EQ(ptz, KORVALEN_PTZ_EPTZ);

    ASSERT_EQ(Korvalen_SetPtzAndFixMode(port, KORVALEN_PTZ_OFF, KORVALEN_FIX_CEILING), 1);
    ASSERT_TRUE(PlayUntil(units, 352, 288));
    ASSERT_EQ(Korvalen_CloseInputStream(port), 1);
}

} // namespace
