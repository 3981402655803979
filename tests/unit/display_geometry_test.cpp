#include <vector>

#include <gtest/gtest.h>

#include "display/display_geometry.h"

namespace {
struct Case {
    DISP_RECT client;
    uint32_t w, h, mode;
    DISP_RECT expect;
};
std::vector<int> Sides(const DISP_RECT& r)
{
    return {r.left, r.top, r.right, r.bottom};
}
} // namespace

TEST(DisplayGeometry, DestinationRectangles)
{
    const Case cases[] = {
        // fill: the whole client area, whatever the picture
        {{0, 0, 640, 360}, 1920, 1080, DISP_SCALE_FILL, {0, 0, 640, 360}},
        {{10, 20, 110, 220}, 352, 288, DISP_SCALE_FILL, {10, 20, 110, 220}},
        // keep aspect: exact fit, pillar-boxed, letter-boxed
        {{0, 0, 640, 360}, 1920, 1080, DISP_SCALE_ASPECT, {0, 0, 640, 360}},
        {{0, 0, 800, 360}, 1920, 1080, DISP_SCALE_ASPECT, {80, 0, 720, 360}},
        {{0, 0, 640, 480}, 1920, 1080, DISP_SCALE_ASPECT, {0, 60, 640, 420}},
        // a 704 x 240 field picture is laid out as 704 x 480
        {{0, 0, 704, 480}, 704, 240, DISP_SCALE_ASPECT, {0, 0, 704, 480}},
        {{0, 0, 704, 600}, 704, 240, DISP_SCALE_ASPECT, {0, 60, 704, 540}},
        // native: centred where the window is larger, full size where smaller
        {{0, 0, 800, 600}, 320, 240, DISP_SCALE_NATIVE, {240, 180, 560, 420}},
        {{0, 0, 200, 600}, 320, 240, DISP_SCALE_NATIVE, {0, 180, 200, 420}},
        {{0, 0, 800, 600}, 720, 288, DISP_SCALE_NATIVE, {40, 12, 760, 588}},
        // nothing known about the picture: the rectangle is left alone
        {{0, 0, 300, 200}, 0, 0, DISP_SCALE_ASPECT, {0, 0, 300, 200}},
        // a minimised window stays without area
        {{0, 0, 0, 0}, 1920, 1080, DISP_SCALE_ASPECT, {0, 0, 0, 0}},
        // odd sizes
        {{0, 0, 640, 480}, 1, 1, DISP_SCALE_ASPECT, {80, 0, 560, 480}},
        {{0, 0, 640, 480}, 4096, 2160, DISP_SCALE_ASPECT, {0, 71, 640, 409}},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(Sides(DISP_DestRect(c.client, c.w, c.h, c.mode)), Sides(c.expect))
            << c.w << "x" << c.h << " mode " << c.mode;
    }
    EXPECT_TRUE(DISP_DestRect({0, 0, 0, 0}, 1920, 1080, DISP_SCALE_FILL).Empty());
}

TEST(DisplayGeometry, ZoomFieldsAndSurfaceSizes)
{
    DISP_RECT zoom{2500, 2500, 7500, 7500};
    EXPECT_EQ(Sides(DISP_SourceRect(&zoom, 1920, 1080)), (std::vector<int>{480, 270, 1440, 810}));
    EXPECT_EQ(Sides(DISP_SourceRect(nullptr, 352, 288)), (std::vector<int>{0, 0, 352, 288}));
    DISP_RECT beyond{-500, 9000, 12000, 20000};
    EXPECT_EQ(Sides(DISP_SourceRect(&beyond, 100, 100)), (std::vector<int>{0, 90, 100, 100}));
    DISP_RECT flat{5000, 5000, 5000, 6000};
    EXPECT_EQ(DISP_SourceRect(&flat, 100, 100).Width(), 100) << "an empty zoom shows everything";

    EXPECT_EQ(DISP_FieldFactor(720, 288), 2u);
    EXPECT_EQ(DISP_FieldFactor(704, 240), 2u);
    EXPECT_EQ(DISP_FieldFactor(1920, 544), 2u);
    EXPECT_EQ(DISP_FieldFactor(720, 576), 1u);
    EXPECT_EQ(DISP_FieldFactor(1920, 1080), 1u);

    EXPECT_FALSE(DISP_SurfaceSizeOdd(16, 12));
    EXPECT_FALSE(DISP_SurfaceSizeOdd(6000, 6000));
    EXPECT_TRUE(DISP_SurfaceSizeOdd(15, 100));
    EXPECT_TRUE(DISP_SurfaceSizeOdd(8000, 8000));
    EXPECT_TRUE(DISP_SurfaceSizeOdd(100, 11));
}
