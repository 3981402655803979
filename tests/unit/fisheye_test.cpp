// Fisheye dewarping against pictures a test lens makes: a floor grid and
// marks seen by an equidistant 180-degree lens, rendered here from the world
// side, must come out where a perspective or panoramic camera would see
// them. The table walk reproduces a plain bilinear sample of every pixel.
// Also: the mouse moves the view with the pointer, and the remap table is
// built once per view, never per picture.
#include <algorithm>
#include <chrono>
#include <cmath>
#include <functional>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "fisheye/fisheye_port.h"
#include "fisheye/fisheye_remap.h"
#include "fisheye/fisheye_view.h"
#include "heap/qmx_heap.h"
#include "korvalen.h"
#include "port/port_table.h"

namespace {

constexpr double kPi = 3.14159265358979323846;
constexpr double kDeg = kPi / 180;

struct Picture {
    uint32_t w = 0, h = 0;
    std::vector<uint8_t> y, u, v;
    Picture(uint32_t width, uint32_t height)
        : w(width), h(height), y(static_cast<size_t>(width) * height, 16),
          u(static_cast<size_t>(width / 2) * (height / 2), 128), v(u.size(), 128)
    {
    }
    uint8_t Y(int x, int yy) const { return y[static_cast<size_t>(yy) * w + x]; }
    uint8_t V(int x, int yy) const { return v[static_cast<size_t>(yy / 2) * (w / 2) + x / 2]; }
    QUEUE_PICTURE_NODE Node()
    {
        QUEUE_PICTURE_NODE n;
        n.planes[0] = y.data();
        n.planes[1] = u.data();
        n.planes[2] = v.data();
        n.lineSizes[0] = w;
        n.lineSizes[1] = n.lineSizes[2] = w / 2;
        n.width = w;
        n.height = h;
        return n;
    }
};

// A ceiling camera's picture: for every pixel, the direction the lens sees
// there (equidistant: angle off the axis = r / R * 90 degrees); paint(theta,
// phi) gives luma and whether the pixel is red.
Picture LensPicture(uint32_t size, const std::function<uint8_t(double, double, bool*)>& paint)
{
    Picture p(size, size);
    const double c = size / 2.0, radius = size / 2.0;
    for (uint32_t yy = 0; yy < size; ++yy) {
        for (uint32_t x = 0; x < size; ++x) {
            const double dx = x + 0.5 - c, dy = yy + 0.5 - c, r = std::hypot(dx, dy);
            if (r > radius) {
                continue;
            }
            bool red = false;
            p.y[static_cast<size_t>(yy) * size + x] = paint(r / radius * kPi / 2, std::atan2(dy, dx), &red);
            if (red) {
                p.v[static_cast<size_t>(yy / 2) * (size / 2) + x / 2] = 240;
            }
        }
    }
    return p;
}

// Floor one unit below the lens with grid lines every 0.25 units; a red
// square around (0.3, 0.1).
uint8_t FloorGrid(double theta, double phi, bool* red)
{
    if (theta > 85 * kDeg) {
        return 16;
    }
    const double X = std::tan(theta) * std::cos(phi), Y = std::tan(theta) * std::sin(phi);
    *red = std::fabs(X - 0.3) < 0.04 && std::fabs(Y - 0.1) < 0.04;
    auto near = [](double a) { return std::fabs(a / 0.25 - std::round(a / 0.25)) * 0.25 < 0.012; };
    return near(X) || near(Y) ? 235 : 40;
}

// Luma-weighted centre of the bright pixels of row yy between x0 and x1.
double RowCentre(const FE_REMAP& m, int yy, int x0, int x1)
{
    double sum = 0, at = 0;
    for (int x = std::max(x0, 0); x < std::min<int>(x1, m.outW); ++x) {
        const int l = m.planes[0][static_cast<size_t>(yy) * m.pitches[0] + x];
        if (l > 128) {
            sum += l;
            at += l * (x + 0.5);
        }
    }
    return sum > 0 ? at / sum : -1;
}

// Centre and top-left corner of the red mark (V above 200) of a picture;
// x is -1 without one.
struct Mark {
    double x = -1, y = -1, left = 1e9, top = 1e9;
};
Mark RedMark(const uint8_t* v, uint32_t pitch, uint32_t w, uint32_t h)
{
    Mark k;
    double n = 0, sx = 0, sy = 0;
    for (uint32_t yy = 0; yy < h / 2; ++yy) {
        for (uint32_t x = 0; x < w / 2; ++x) {
            if (v[yy * pitch + x] > 200) {
                n += 1;
                sx += 2 * x + 1;
                sy += 2 * yy + 1;
                k.left = std::min(k.left, 2.0 * x);
                k.top = std::min(k.top, 2.0 * yy);
            }
        }
    }
    if (n > 0) {
        k.x = sx / n;
        k.y = sy / n;
    }
    return k;
}
Mark RedMark(const FE_REMAP& m)
{
    return RedMark(m.planes[2], m.pitches[2], m.outW, m.outH);
}
Mark RedMark(const QUEUE_PICTURE_NODE* o)
{
    return RedMark(o->planes[2], o->lineSizes[2], o->width, o->height);
}

size_t Bright(const uint8_t* p, size_t n)
{
    return static_cast<size_t>(std::count_if(p, p + n, [](uint8_t l) { return l > 128; }));
}

// A view of a lens picture size x size with the inscribed circle.
FE_VIEW_PARAMS View(uint32_t view, uint32_t mount, double size)
{
    FE_VIEW_PARAMS v;
    v.view = view;
    v.mount = mount;
    v.lens = {size / 2, size / 2, size / 2};
    return v;
}

FE_VIEW_PARAMS PtzView(uint32_t mount, double pan, double tilt, double fov, double size)
{
    FE_VIEW_PARAMS v = View(FE_VIEW_ONE_PTZ, mount, size);
    v.ptz[0] = {pan * kDeg, tilt * kDeg, fov * kDeg};
    return v;
}

// The view v of src as an outW x outH picture, released with it.
struct Dewarp : FE_REMAP {
    Dewarp(Picture& src, const FE_VIEW_PARAMS& v, uint32_t outW, uint32_t outH)
    {
        const uint32_t pitch[3] = {src.w, src.w / 2, src.w / 2};
        EXPECT_EQ(FE_BuildRemap(this, v, src.w, src.h, pitch, outW, outH), 0u);
        const uint8_t* planes[3] = {src.y.data(), src.u.data(), src.v.data()};
        FE_ApplyRemap(this, planes);
    }
    Dewarp(const Dewarp&) = delete;
    ~Dewarp() { FE_ReleaseRemap(this); }
};

// A plain bilinear sample of source point (sx, sy) with fractions in 1/256:
// the picture the table walk must reproduce. -1 where there is no source.
int Reference(const uint8_t* plane, uint32_t w, uint32_t h, uint32_t pitch, bool mapped, double sx, double sy)
{
    if (!mapped || sx < 0 || sy < 0 || sx > w || sy > h) {
        return -1;
    }
    const double px = std::clamp(sx - 0.5, 0.0, w - 1.0), py = std::clamp(sy - 0.5, 0.0, h - 1.0);
    const uint32_t x0 = std::min<uint32_t>(static_cast<uint32_t>(px), w - 2);
    const uint32_t y0 = std::min<uint32_t>(static_cast<uint32_t>(py), h - 2);
    const double fx = std::min(std::round((px - x0) * 256), 255.0) / 256;
    const double fy = std::min(std::round((py - y0) * 256), 255.0) / 256;
    auto at = [&](uint32_t x, uint32_t y) { return static_cast<double>(plane[static_cast<size_t>(y) * pitch + x]); };
    const double top = at(x0, y0) + (at(x0 + 1, y0) - at(x0, y0)) * fx;
    const double bottom = at(x0, y0 + 1) + (at(x0 + 1, y0 + 1) - at(x0, y0 + 1)) * fx;
    return static_cast<int>(std::lround(top + (bottom - top) * fy));
}

TEST(FisheyeDewarp, TableWalkMatchesAPlainBilinearOfEveryPixel)
{
    // Noise on an odd-sized source with padded rows (U and V of different
    // pitch too); a lens circle that crosses the picture's edges.
    const uint32_t sw = 301, sh = 257;
    struct Case {
        uint32_t view, mount, outW, outH, pitch[3];
    };
    const Case cases[] = {
        {FE_VIEW_ORIGINAL, FE_MOUNT_CEILING, 97, 61, {304, 152, 152}},
        {FE_VIEW_PANORAMA_360, FE_MOUNT_CEILING, 130, 37, {301, 151, 151}},
        {FE_VIEW_PANORAMA_180, FE_MOUNT_DESK, 33, 17, {320, 157, 163}},
        {FE_VIEW_PANORAMA_180, FE_MOUNT_WALL, 200, 113, {304, 152, 152}},
        {FE_VIEW_QUAD, FE_MOUNT_CEILING, 67, 45, {320, 157, 163}},
        {FE_VIEW_ONE_PTZ, FE_MOUNT_WALL, 2, 2, {304, 152, 152}},
        {FE_VIEW_ONE_PTZ, FE_MOUNT_DESK, 99, 71, {304, 152, 152}},
        {FE_VIEW_EPTZ, FE_MOUNT_CEILING, 129, 65, {301, 151, 151}},
    };
    uint32_t seed = 12345;
    auto noise = [&](size_t n) {
        std::vector<uint8_t> b(n);
        for (auto& x : b) {
            seed = seed * 1103515245u + 12345u;
            x = static_cast<uint8_t>(seed >> 23);
        }
        return b;
    };
    FE_REMAP m; // one table, rebuilt for every case
    size_t black = 0, mapped = 0;
    for (const Case& c : cases) {
        const uint32_t dims[3][2] = {{sw, sh}, {(sw + 1) / 2, (sh + 1) / 2}, {(sw + 1) / 2, (sh + 1) / 2}};
        std::vector<uint8_t> planes[3];
        const uint8_t* src[3];
        for (int p = 0; p < 3; ++p) {
            planes[p] = noise(static_cast<size_t>(c.pitch[p]) * dims[p][1]);
            src[p] = planes[p].data();
        }
        FE_VIEW_PARAMS v;
        v.view = c.view;
        v.mount = c.mount;
        v.lens = {150.5, 120, 140};
        FE_DefaultPtz(c.mount, v.ptz);
        v.ptz[0].fov = 170 * kDeg;       // wider than the lens sees
        v.region = {-40, 200, 100, 300}; // partly off the picture
        v.regionSet = v.inset = 1;
        ASSERT_EQ(FE_BuildRemap(&m, v, sw, sh, c.pitch, c.outW, c.outH), 0u);
        FE_ApplyRemap(&m, src);
        for (int p = 0; p < 3; ++p) {
            const uint32_t w = p ? (c.outW + 1) / 2 : c.outW, h = p ? (c.outH + 1) / 2 : c.outH;
            const int dark = p ? 128 : 16;
            for (uint32_t y = 0; y < h; ++y) {
                for (uint32_t x = 0; x < w; ++x) {
                    double sx = 0, sy = 0;
                    const bool in = p ? FE_MapPoint(v, sw, sh, c.outW, c.outH, 2.0 * x + 1, 2.0 * y + 1, &sx, &sy)
                                      : FE_MapPoint(v, sw, sh, c.outW, c.outH, x + 0.5, y + 0.5, &sx, &sy);
                    const double scale = p ? 0.5 : 1.0;
                    const int want = Reference(src[p], dims[p][0], dims[p][1], c.pitch[p], in, sx * scale, sy * scale);
                    const int got = m.planes[p][static_cast<size_t>(y) * m.pitches[p] + x];
                    ASSERT_LE(std::abs(got - (want < 0 ? dark : want)), 1)
                        << "view " << c.view << " mount " << c.mount << " plane " << p << " at " << x << "," << y;
                    (want < 0 ? black : mapped) += 1;
                }
            }
        }
    }
    // Both kinds of pixel were there to compare.
    EXPECT_GT(black, 1000u);
    EXPECT_GT(mapped, 10000u);
    FE_ReleaseRemap(&m);
}

TEST(FisheyeDewarp, PtzViewsSeeTheFloorGridAsAPerspectiveCameraWouldOnEveryMount)
{
    Picture src = LensPicture(960, FloorGrid);
    // Straight down, 90 degrees across 640 pixels: one floor unit is 320
    // pixels, a grid line every 80 pixels, centred.
    Dewarp down(src, PtzView(FE_MOUNT_CEILING, 0, 0, 90, 960), 640, 640);
    for (int k = -3; k <= 3; ++k) {
        const double expect = 320 + 80 * k;
        for (int yy = 0; yy < 640; ++yy) {
            const double along = std::fmod(yy - 320.0 + 1000 * 80, 80.0);
            if (along < 8 || along > 72) {
                continue; // a crossing line
            }
            ASSERT_NEAR(RowCentre(down, yy, static_cast<int>(expect) - 20, static_cast<int>(expect) + 20), expect, 1.0)
                << "line " << k << " at row " << yy;
        }
    }

    // Tilted: lines stay where the view's own camera, from the world side,
    // sees them: forward along (pan, tilt) off the axis, right along growing
    // pan, down towards the axis.
    const uint32_t w = 640, h = 360;
    const double pan = 30 * kDeg, tilt = 40 * kDeg, focal = (w / 2) / std::tan(45 * kDeg);
    Dewarp m(src, PtzView(FE_MOUNT_CEILING, 30, 40, 90, 960), w, h);
    const double f[3] = {std::sin(tilt) * std::cos(pan), std::sin(tilt) * std::sin(pan), std::cos(tilt)};
    const double r[3] = {-std::sin(pan), std::cos(pan), 0};
    const double d[3] = {-std::cos(tilt) * std::cos(pan), -std::cos(tilt) * std::sin(pan), std::sin(tilt)};
    int checked = 0, bright = 0;
    for (int k = -8; k <= 8; ++k) {
        for (int axis = 0; axis < 2; ++axis) {
            for (double t = -2; t <= 2; t += 0.01) {
                const double P[3] = {axis ? k * 0.25 : t, axis ? t : k * 0.25, 1};
                const double pf = P[0] * f[0] + P[1] * f[1] + P[2] * f[2];
                if (pf <= 0.1 || std::atan(std::hypot(P[0], P[1])) > 80 * kDeg) {
                    continue;
                }
                const double x = w / 2 + focal * (P[0] * r[0] + P[1] * r[1] + P[2] * r[2]) / pf;
                const double yy = h / 2 + focal * (P[0] * d[0] + P[1] * d[1] + P[2] * d[2]) / pf;
                if (x < 2 || yy < 2 || x > w - 3 || yy > h - 3) {
                    continue;
                }
                int best = 0;
                for (int oy = -1; oy <= 1; ++oy) {
                    for (int ox = -1; ox <= 1; ++ox) {
                        best = std::max<int>(best, m.planes[0][static_cast<size_t>(yy + oy) * w + int(x) + ox]);
                    }
                }
                ++checked;
                bright += best > 128;
            }
        }
    }
    ASSERT_GT(checked, 500);
    EXPECT_GT(bright, checked * 97 / 100) << "grid lines off their straight paths";
    EXPECT_LT(Bright(m.planes[0], size_t(w) * h), size_t(w) * h / 3) << "the picture is not just bright everywhere";

    // A desk camera sees the same floor-like grid as a mirror: the red mark
    // at (0.3, 0.1) comes out on the other side of a straight-up view.
    Dewarp desk(src, PtzView(FE_MOUNT_DESK, 0, 0, 90, 960), 640, 640);
    // Ceiling, pan 0: output x runs along the floor's Y: 320 + 0.1 * 320.
    EXPECT_NEAR(RedMark(down).x, 352, 3);
    EXPECT_NEAR(RedMark(desk).x, 288, 3);

    // The same picture from a wall camera is a wall straight ahead: x runs
    // along the wall's X, y down it; turning right moves the mark left.
    Dewarp wall(src, PtzView(FE_MOUNT_WALL, 0, 0, 90, 960), 640, 640);
    EXPECT_NEAR(RedMark(wall).x, 320 + 0.3 * 320, 3);
    Dewarp right(src, PtzView(FE_MOUNT_WALL, 10, 0, 90, 960), 640, 640);
    EXPECT_LT(RedMark(right).x, RedMark(wall).x - 30);

    // Its 180-degree panorama keeps the wall's upright lines upright, each at
    // its own longitude.
    Dewarp p(src, View(FE_VIEW_PANORAMA_180, FE_MOUNT_WALL, 960), 1280, 720);
    for (int k = -4; k <= 4; ++k) {
        const double expect = 1280 * (std::atan(k * 0.25) + kPi / 2) / kPi;
        for (int yy = 300; yy < 420; ++yy) {
            const double lat = (360 - yy - 0.5) * kPi / 1280, lon = std::atan(k * 0.25);
            // Skip rows where a horizontal grid line crosses.
            const double Y = -std::tan(lat) / std::cos(lon);
            if (std::fabs(Y / 0.25 - std::round(Y / 0.25)) * 0.25 < 0.03) {
                continue;
            }
            ASSERT_NEAR(RowCentre(p, yy, static_cast<int>(expect) - 10, static_cast<int>(expect) + 10), expect, 1.0)
                << "line " << k << " row " << yy;
        }
    }
}

TEST(FisheyeDewarp, PanoramasTurnUprightLinesIntoColumns)
{
    // Upright lines around a ceiling camera are spokes in its picture; a
    // ring 80 degrees off the axis marks a height.
    Picture src = LensPicture(960, [](double theta, double phi, bool*) -> uint8_t {
        const double deg = phi / kDeg + 360;
        const bool spoke = std::fabs(std::fmod(deg + 0.75, 30.0)) < 1.5 && theta > 25 * kDeg;
        const bool ring = std::fabs(theta - 80 * kDeg) < 0.8 * kDeg;
        return spoke || ring ? 235 : 40;
    });
    FE_VIEW_PARAMS v = View(FE_VIEW_PANORAMA_360, FE_MOUNT_CEILING, 960);
    const uint32_t w = 1440, h = 400;
    Dewarp m(src, v, w, h);
    // Horizon at the top, 20 degrees off the axis at the bottom: the ring at
    // 10/70 of the height.
    const int ringRow = static_cast<int>(h * 10.0 / 70);
    for (int k = 0; k < 12; ++k) {
        const double expect = w * k / 12.0;
        for (int yy = 5; yy < int(h) * 60 / 70; ++yy) {
            if (std::abs(yy - ringRow) < 6) {
                continue;
            }
            if (k == 0) {
                ASSERT_GE(RowCentre(m, yy, 0, 12), 0) << "the seam: the spoke split between both ends";
                continue;
            }
            const double c = RowCentre(m, yy, static_cast<int>(expect) - 12, static_cast<int>(expect) + 12);
            ASSERT_NEAR(c, expect, 1.0) << "spoke " << k << " row " << yy;
        }
    }
    EXPECT_GT(Bright(m.planes[0] + static_cast<size_t>(ringRow) * w, w), w * 95 / 100) << "the ring is one row";

    // Turning the panorama by a twelfth moves every spoke by one column step.
    v.panoramaPan = 30 * kDeg;
    Dewarp turned(src, v, w, h);
    EXPECT_NEAR(RowCentre(turned, 200, 100, 140), 120, 1.0);
}

// Through a port: the render side's work, the mouse and the table's life.
class FisheyePort : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_EQ(Korvalen_Init(), 1);
        ASSERT_EQ(Korvalen_AllocPort(&port), 1);
        rec = Player_GetPort(port);
    }
    void TearDown() override
    {
        Korvalen_FreePort(port);
        Korvalen_Cleanup();
    }
    uint32_t port = 0;
    PortRecord* rec = nullptr;
};

TEST_F(FisheyePort, DragMovesThePictureWithThePointerAndTheTableIsBuiltOncePerView)
{
    Picture src = LensPicture(960, FloorGrid);
    QUEUE_PICTURE_NODE in = src.Node();
    const QUEUE_PICTURE_NODE* out = nullptr;

    EXPECT_EQ(Korvalen_IsFishEyeStream(port), 0);
    EXPECT_EQ(Korvalen_OnMouseMove(port, 10, 10), 0);
    EXPECT_EQ(Korvalen_GetLastError(), KORVALEN_ERR_PTZ) << "no view takes the mouse";
    ASSERT_EQ(Korvalen_SetPtzAndFixMode(port, KORVALEN_PTZ_ONE, KORVALEN_FIX_CEILING), 1);
    EXPECT_EQ(Korvalen_IsFishEyeStream(port), 1);
    ASSERT_TRUE(FE_ViewActive(rec->fisheye));
    {
        // Look 20 degrees off the axis, where the red mark is.
        std::lock_guard<std::mutex> lock(rec->fisheye.lock);
        rec->fisheye.params.ptz[0] = {0, 20 * kDeg, 80 * kDeg};
        ++rec->fisheye.generation;
    }

    ASSERT_EQ(FE_FishEyeWork(rec->fisheye, &in, &out), 0u);
    EXPECT_EQ(std::make_pair(out->width, out->height), std::make_pair(960u, 540u));
    const uint32_t allocations = rec->fisheye.remap.allocations;
    const uint64_t heapBefore = QMX_HeapAllocCount();
    for (int i = 0; i < 5; ++i) {
        ASSERT_EQ(FE_FishEyeWork(rec->fisheye, &in, &out), 0u);
    }
    EXPECT_EQ(rec->fisheye.remap.builds, 1u) << "same view, same table";
    EXPECT_EQ(QMX_HeapAllocCount(), heapBefore) << "no allocation per picture";

    const Mark a = RedMark(out);
    const double x0 = a.x, y0 = a.y;
    ASSERT_GE(x0, 0);
    // Grab the mark and drag it 60 pixels right and 40 down.
    ASSERT_EQ(Korvalen_OnLButtonDown(port, static_cast<uint32_t>(x0), static_cast<uint32_t>(y0)), 1);
    for (int step = 1; step <= 4; ++step) {
        ASSERT_EQ(
            Korvalen_OnMouseMove(port, static_cast<uint32_t>(x0 + 15 * step), static_cast<uint32_t>(y0 + 10 * step)),
            1);
    }
    ASSERT_EQ(Korvalen_OnLButtonUp(port, static_cast<uint32_t>(x0 + 60), static_cast<uint32_t>(y0 + 40)), 1);
    ASSERT_EQ(FE_FishEyeWork(rec->fisheye, &in, &out), 0u);
    const Mark b = RedMark(out);
    EXPECT_NEAR(b.x, x0 + 60, 6);
    EXPECT_NEAR(b.y, y0 + 40, 6);
    EXPECT_EQ(rec->fisheye.remap.builds, 2u);
    EXPECT_EQ(rec->fisheye.remap.allocations, allocations) << "a new view reuses the table's memory";

    // The wheel zooms in about the pointer: the mark, off centre, moves away
    // from the centre.
    const double cx = out->width / 2.0, cy = out->height / 2.0;
    ASSERT_EQ(Korvalen_OnMouseWheel(port, 0, 240, static_cast<uint32_t>(cx) | static_cast<uint32_t>(cy) << 16), 1);
    ASSERT_EQ(FE_FishEyeWork(rec->fisheye, &in, &out), 0u);
    const Mark z = RedMark(out);
    ASSERT_GE(z.x, 0);
    EXPECT_GT(std::hypot(z.x - cx, z.y - cy), std::hypot(b.x - cx, b.y - cy) * 1.3);

    // Fisheye parameters: the stream's own replace the inscribed circle.
    rec->playback.pictureWidth = 960;
    rec->playback.pictureHeight = 960;
    KORVALEN_FISHEYE_STATE st{};
    KORVALEN_POINT c{};
    uint32_t radius = 0;
    ASSERT_EQ(Korvalen_GetFishEyeParam(port, &st, &c, &radius), 1);
    EXPECT_EQ(st.correct_mode, KORVALEN_PTZ_ONE);
    Fisheye_SetStreamParams(&rec->fisheye, 470, 490, 400);
    ASSERT_EQ(Korvalen_GetFishEyeParam(port, &st, &c, &radius), 1);
    EXPECT_EQ((std::vector<int64_t>{c.x, c.y, radius}), (std::vector<int64_t>{470, 490, 400}));
    ASSERT_EQ(FE_FishEyeWork(rec->fisheye, &in, &out), 0u);
    EXPECT_EQ(rec->fisheye.remap.builds, 4u) << "new lens, new table";
    Fisheye_SetStreamParams(&rec->fisheye, 2000, 490, 400);
    EXPECT_EQ(FE_FishEyeWork(rec->fisheye, &in, &out), KORVALEN_ERR_FISHEYE_PARAM) << "centre outside the picture";
}

TEST_F(FisheyePort, ElectronicPtzZoomsIntoTheDrawnRectangleAndFramesItInTheOverview)
{
    // An ordinary 640 x 360 picture with a red square at (400..440, 100..140).
    Picture src(640, 360);
    for (uint32_t yy = 100; yy < 140; ++yy) {
        for (uint32_t x = 400; x < 440; ++x) {
            src.y[yy * 640 + x] = 120;
            src.v[(yy / 2) * 320 + x / 2] = 240;
        }
    }
    QUEUE_PICTURE_NODE in = src.Node();
    const QUEUE_PICTURE_NODE* out = nullptr;
    EXPECT_EQ(Korvalen_SetPtzDisplayMode(port, KORVALEN_PTZ_QUAD), 0);
    EXPECT_EQ(Korvalen_GetLastError(), KORVALEN_ERR_FISHEYE_STATE) << "not a fisheye port";
    ASSERT_EQ(Korvalen_SetPtzAndFixMode(port, KORVALEN_PTZ_EPTZ, 0), 1);
    EXPECT_EQ(Korvalen_IsFishEyeStream(port), 0);
    ASSERT_EQ(FE_FishEyeWork(rec->fisheye, &in, &out), 0u);
    EXPECT_NEAR(RedMark(out).x, 420, 2) << "the whole picture before a region is chosen";

    // Draw 380,80 -> 460,125: widened to 16:9 about its centre (420, 102.5).
    ASSERT_EQ(Korvalen_OnLButtonDown(port, 380, 80), 1);
    ASSERT_EQ(Korvalen_OnMouseMove(port, 420, 100), 1);
    ASSERT_EQ(FE_FishEyeWork(rec->fisheye, &in, &out), 0u);
    EXPECT_GT(out->planes[0][80 * out->lineSizes[0] + 400], 200) << "the rectangle being drawn shows";
    ASSERT_EQ(Korvalen_OnLButtonUp(port, 460, 125), 1);
    ASSERT_EQ(FE_FishEyeWork(rec->fisheye, &in, &out), 0u);
    // 80 x 45 pixels from (380, 80), already 16:9, shown eight times larger:
    // the square's corner (400, 100) lands at (160, 160).
    const Mark zoomed = RedMark(out);
    EXPECT_NEAR(zoomed.left, 160, 3);
    EXPECT_NEAR(zoomed.top, 160, 3);
    // The overview in the corner frames the zoomed part at a quarter of the
    // width.
    double inset[4];
    FE_InsetRect(640, 360, inset);
    const int frameX = static_cast<int>(inset[0] + 380 / 4.0);
    const int frameY = static_cast<int>(inset[1] + 80 / 4.0 + 5);
    EXPECT_GT(out->planes[0][frameY * out->lineSizes[0] + frameX], 200) << "frame of the zoomed part";
    EXPECT_LT(out->planes[0][frameY * out->lineSizes[0] + frameX - 3], 100);

    // Dragging pans the zoomed part with the pointer; the wheel all the way
    // out gives the whole picture back.
    ASSERT_EQ(Korvalen_OnLButtonDown(port, 300, 100), 1);
    ASSERT_EQ(Korvalen_OnLButtonUp(port, 200, 100), 1);
    ASSERT_EQ(FE_FishEyeWork(rec->fisheye, &in, &out), 0u);
    const Mark panned = RedMark(out);
    EXPECT_NEAR(panned.left, zoomed.left - 100, 4);
    EXPECT_NEAR(panned.top, zoomed.top, 2);
    // The frame followed the pan (12.5 picture pixels right); with a
    // keep-alive time the overview goes once the mouse rests that long.
    const int movedX = static_cast<int>(inset[0] + 392.5 / 4.0);
    EXPECT_GT(out->planes[0][frameY * out->lineSizes[0] + movedX], 200);
    ASSERT_EQ(Korvalen_SetPtzKeepAliveTime(port, 1), 1);
    std::this_thread::sleep_for(std::chrono::milliseconds(1200));
    ASSERT_EQ(FE_FishEyeWork(rec->fisheye, &in, &out), 0u);
    EXPECT_LT(out->planes[0][frameY * out->lineSizes[0] + movedX], 200) << "no overview, no frame";
    ASSERT_EQ(Korvalen_OnMouseMove(port, 10, 10), 1);
    ASSERT_EQ(FE_FishEyeWork(rec->fisheye, &in, &out), 0u);
    EXPECT_GT(out->planes[0][frameY * out->lineSizes[0] + movedX], 200) << "the mouse brings it back";
    ASSERT_EQ(Korvalen_SetPtzKeepAliveTime(port, 0), 1);
    for (int i = 0; i < 20; ++i) {
        ASSERT_EQ(Korvalen_OnMouseWheel(port, 0, -120, 320 | 180 << 16), 1);
    }
    ASSERT_EQ(FE_FishEyeWork(rec->fisheye, &in, &out), 0u);
    EXPECT_NEAR(RedMark(out).x, 420, 2);

    EXPECT_EQ(Korvalen_SetPtzAndFixMode(port, KORVALEN_PTZ_PANORAMA_360, KORVALEN_FIX_WALL), 0);
    EXPECT_EQ(Korvalen_GetLastError(), KORVALEN_ERR_FISHEYE_PARAM);
    EXPECT_EQ(Korvalen_SetPtzAndFixMode(port, 7, 0), 0);
    EXPECT_EQ(Korvalen_GetLastError(), KORVALEN_ERR_INVALID_PARAM);
    uint32_t ptz = 9, fix = 9;
    ASSERT_EQ(Korvalen_GetPtzAndFixMode(port, &ptz, &fix), 1);
    EXPECT_EQ(std::make_pair(ptz, fix), (std::pair<uint32_t, uint32_t>(KORVALEN_PTZ_EPTZ, 0)));
}

} // namespace
