// The analysis overlay painted by Cairo on a real BGRA image: where rules,
// boxes and trails land, in which colours, and how tracks are kept.
#include <gtest/gtest.h>

#include <cairo.h>
#include <vector>

#include "heap/qmx_heap.h"
#include "iva/iva_draw.h"
#include "iva/iva_store.h"
#include "korvalen_types.h"
#include "log_capture.h"
#include "sei/sei_parse.h"
#include "sei_writer.h"

namespace {

const IVA_CENTRE* many_none()
{
    static const IVA_CENTRE none[1] = {};
    return none;
}

struct Rgb {
    int r, g, b;
};

// A white BGRA image with a Cairo context, showing a picture of pw x ph
// through the source rectangle src.
struct Image {
    int w, h;
    std::vector<uint8_t> px;
    cairo_surface_t* surface;
    IVA_CANVAS canvas;
    Image(int width, int height, int pw, int ph, DISP_RECT src) : w(width), h(height), px(width * height * 4, 0xFF)
    {
        surface = cairo_image_surface_create_for_data(px.data(), CAIRO_FORMAT_RGB24, w, h, w * 4);
        canvas.cr = cairo_create(surface);
        canvas.originX = src.left;
        canvas.originY = src.top;
        canvas.scaleX = static_cast<double>(w) / src.Width();
        canvas.scaleY = static_cast<double>(h) / src.Height();
        canvas.drawRect = DISP_RECT{0, 0, pw, ph};
    }
    ~Image()
    {
        cairo_destroy(canvas.cr);
        cairo_surface_destroy(surface);
    }
    Rgb At(int x, int y)
    {
        cairo_surface_flush(surface);
        const uint8_t* p = px.data() + (y * w + x) * 4;
        return {p[2], p[1], p[0]};
    }
};

bool Is(Rgb c, int r, int g, int b)
{
    return std::abs(c.r - r) < 40 && std::abs(c.g - g) < 40 && std::abs(c.b - b) < 40;
}

void Load(IVA_STORE* store, uint32_t kind, const SeiBytes& record)
{
    ASSERT_EQ(IvaV2Parse(kind, store, record.data(), static_cast<uint32_t>(record.size())), 0u);
}

SEIW_TARGET Target(uint32_t id, uint32_t cls, uint16_t l, uint16_t t, uint16_t r, uint16_t b, uint32_t color,
                   uint32_t track = 0)
{
    return SEIW_TARGET{id, cls, {l, t, r, b}, color, track};
}

} // namespace

TEST(IvaDrawRect, ModesAndSizes)
{
    LogCapture log;
    const auto rect = [](uint32_t w, uint32_t h, uint32_t pw, uint32_t ph, uint32_t mode, uint32_t scale) {
        DISP_RECT r;
        EXPECT_EQ(IVA_GetDrawRect(w, h, pw, ph, mode, scale, &r), 0u);
        return std::vector<int>{r.left, r.top, r.right, r.bottom};
    };
    EXPECT_EQ(rect(800, 600, 1920, 1080, 1, 1), (std::vector<int>{0, 0, 800, 450}));   // wider: full width, at top
    EXPECT_EQ(rect(800, 300, 640, 480, 1, 1), (std::vector<int>{0, 0, 400, 300}));     // taller: full height, at left
    EXPECT_EQ(rect(800, 600, 352, 288, 1, 2), (std::vector<int>{224, 156, 576, 444})); // native size, centred
    EXPECT_EQ(rect(300, 200, 352, 288, 1, 0), (std::vector<int>{0, 0, 352, 288}));     // too big to centre: the corner
    EXPECT_EQ(rect(300, 200, 352, 288, 0, 1), (std::vector<int>{0, 0, 300, 200}));     // no mode: the client
    DISP_RECT r;
    EXPECT_EQ(IVA_GetDrawRect(300, 0, 352, 288, 1, 1, &r), KORVALEN_ERR_IVA_DRAW);
    EXPECT_TRUE(log.Has("DataDraw: Get draw rect fail"));
}

TEST(IvaTracks, SlotsRingAndExpiry)
{
    LogCapture log;
    IVA_TRACKS tracks;
    auto centre = [](uint32_t id, int x, int y) { return IVA_CENTRE{id, {x, y}, 1}; };

    // Same centre twice: one point.
    IVA_CENTRE a[1] = {centre(5, 10, 10)};
    DATA_UpdateTrack(&tracks, a, 1);
    DATA_UpdateTrack(&tracks, a, 1);
    EXPECT_EQ(std::make_pair(tracks.slots[0].id, tracks.slots[0].count), std::make_pair(5u, 1u));
    // The 21st point overwrites the oldest.
    for (int i = 1; i <= 20; ++i) {
        IVA_CENTRE c[1] = {centre(5, 10 + i, 10)};
        DATA_UpdateTrack(&tracks, c, 1);
    }
    EXPECT_EQ(tracks.slots[0].count, 21u);
    EXPECT_EQ(std::make_pair(tracks.slots[0].points[0].x, tracks.slots[0].points[1].x), std::make_pair(30, 11));
    // Entries without their flag hold no centre and are passed over; a
    // target no longer reported loses its track one update later.
    IVA_CENTRE other[2] = {centre(6, 1, 1), IVA_CENTRE{}};
    DATA_UpdateTrack(&tracks, other, 2);
    EXPECT_EQ(tracks.slots[0].id, 5u); // refreshed by the previous update
    EXPECT_EQ(tracks.slots[1].id, 6u);
    DATA_UpdateTrack(&tracks, other, 2);
    EXPECT_EQ(std::make_pair(tracks.slots[0].id, tracks.slots[0].count), std::make_pair(0u, 0u));
    EXPECT_EQ(tracks.slots[1].count, 1u);

    // Eleven targets at once: the eleventh finds no slot.
    DATA_UpdateTrack(&tracks, many_none(), 0);
    DATA_UpdateTrack(&tracks, many_none(), 0);
    IVA_CENTRE many[11];
    for (uint32_t i = 0; i < 11; ++i) {
        many[i] = centre(100 + i, static_cast<int>(i), 0);
    }
    DATA_UpdateTrack(&tracks, many, 11);
    EXPECT_TRUE(log.Has("DATA_UpdateTrack warm, have 2 point not insert pstTrackArray"));
    for (const IVA_TRACK& t : tracks.slots) {
        EXPECT_GE(t.id, 100u);
        EXPECT_LE(t.id, 109u);
    }
}

TEST(IvaPaint, RulesAndBoxesLandWhereThePictureShowsThem)
{
    LogCapture log;
    IVA_STORE store;
    // A polygon over the middle half in green (6), a 16-point polyline in
    // blue (7) along y = 80 %, and a 17-point one along y = 90 % that must
    // be skipped.
    SEIW_RULE poly{1, 0, {{2500, 2500}, {7500, 2500}, {7500, 7500}, {2500, 7500}}};
    SEIW_RULE line16{0, 0, {}, 0xFFFFFFFF, 7}, line17{0, 0, {}, 17, 7};
    for (uint16_t i = 0; i < 16; ++i) {
        line16.points.push_back({static_cast<uint16_t>(i * 600), 8000});
        line17.points.push_back({static_cast<uint16_t>(i * 600), 9000});
    }
    Load(&store, IVA_KIND_RULE, SeiWriter_IvaRules({poly, line16, line17}));
    // A tracked-class box in red (5), an untracked-class one in yellow (11).
    Load(&store, IVA_KIND_RESULT,
         SeiWriter_IvaResults({Target(1, 0, 1000, 1000, 2000, 2000, 5), Target(2, 1, 6000, 1000, 7000, 2000, 11)}));

    // A 400 x 200 picture shown at 200 x 100.
    Image img(200, 100, 400, 200, DISP_RECT{0, 0, 400, 200});
    IVA_TRACKS tracks;
    ASSERT_EQ(DrawRule_V2(&store, &img.canvas), 0u);
    ASSERT_EQ(DATA_DRVDraw(&store, &img.canvas, &tracks, IVA_SHOW_TRACKED | IVA_SHOW_UNTRACKED, true), 0u);
    EXPECT_TRUE(Is(img.At(50, 50), 0, 255, 0));      // left edge of the polygon
    EXPECT_TRUE(Is(img.At(100, 25), 0, 255, 0));     // its top edge
    EXPECT_TRUE(Is(img.At(100, 50), 255, 255, 255)); // not filled (fill value 0)
    EXPECT_TRUE(Is(img.At(60, 80), 0, 0, 255));      // the 16-point line
    EXPECT_TRUE(Is(img.At(60, 90), 255, 255, 255));  // the 17-point one is skipped
    EXPECT_TRUE(Is(img.At(20, 15), 255, 0, 0));      // tracked box, left edge
    EXPECT_TRUE(Is(img.At(15, 15), 255, 255, 255));  // inside the box
    EXPECT_TRUE(Is(img.At(120, 15), 255, 255, 0));   // untracked box, left edge at 60 %

    // A record whose length does not match its count paints no targets.
    store.results.length -= 1;
    EXPECT_EQ(DATA_DRVDraw(&store, &img.canvas, &tracks, 6, true), KORVALEN_ERR_IVA_DRAW);
    EXPECT_TRUE(log.Has("DrawResult fail, lIVAResultBufLen(71) not targetnum(2)"));
    store.rules.length = 100;
    EXPECT_EQ(DrawRule_V2(&store, &img.canvas), KORVALEN_ERR_IVA_DRAW);
    EXPECT_TRUE(log.Has("DrawRule fail, ulIVARuleBufLen(100) worse, ulNeedLen(324)"));
    store.version = 3;
    EXPECT_EQ(DrawRule_V2(&store, &img.canvas), KORVALEN_ERR_IVA_DRAW);
    EXPECT_TRUE(log.Has("DataDraw: Unknown data version:3"));
    IVA_ReleaseStore(&store);
}

TEST(IvaPaint, FilledPolygonColourCodesAndOlderLayout)
{
    IVA_STORE store;
    // {kind, label, points, count (all), line colour, fill colour, line value, fill value}
    SEIW_RULE poly{1, 5, {{1000, 1000}, {9000, 1000}, {9000, 9000}, {1000, 9000}}, 0xFFFFFFFF, 8, 12, 100, 100};
    Load(&store, IVA_KIND_RULE, SeiWriter_IvaRules({poly}));
    Image img(100, 100, 100, 100, DISP_RECT{0, 0, 100, 100});
    ASSERT_EQ(DrawRule_V2(&store, &img.canvas), 0u);
    EXPECT_TRUE(Is(img.At(10, 50), 255, 128, 0)); // code 8: orange outline
    EXPECT_TRUE(Is(img.At(70, 70), 128, 64, 0));  // code 12 fill, opaque
    EXPECT_EQ(IVA_ColorOf(14), 0u) << "past the table";

    // Older layout: percentages as text.
    LogCapture log;
    IVA_STORE old;
    old.version = IVA_VERSION_OLD;
    old.oldRuleCount = 2;
    old.oldRules[0] = IVA_OLD_RULE{1, 0, "0,50;100,50", 2, 9, 6};
    old.oldRules[1] = IVA_OLD_RULE{0, 0, "0,20;100,20", 2, 9, 6}; // not enabled
    Image img2(100, 100, 100, 100, DISP_RECT{0, 0, 100, 100});
    ASSERT_EQ(DrawRule_V2(&old, &img2.canvas), 0u);
    EXPECT_TRUE(Is(img2.At(20, 50), 0, 255, 0));
    EXPECT_TRUE(Is(img2.At(20, 20), 255, 255, 255));
    old.oldRules[0] = IVA_OLD_RULE{1, 1, "10,10;90,10;90", 3, 9, 6};
    EXPECT_EQ(DrawRule_V2(&old, &img2.canvas), KORVALEN_ERR_IVA_DRAW);
    EXPECT_TRUE(log.Has("DrawRule: Draw line fail, point value is null"));
    IVA_ReleaseStore(&store);
}

TEST(IvaPaint, TrailFollowsTrackedTargetOldestFirst)
{
    IVA_STORE store;
    IVA_TRACKS tracks;
    Image img(200, 100, 200, 100, DISP_RECT{0, 0, 200, 100});
    // Picture 0 puts the target far right; pictures 1..21 walk it along
    // y = 50. Each picture draws the trail stored before it.
    for (int n = 0; n <= 21; ++n) {
        const uint16_t x = n == 0 ? 9000 : static_cast<uint16_t>(500 + 300 * n);
        const uint16_t y = n == 0 ? 2000 : 5000;
        Load(&store, IVA_KIND_RESULT,
             SeiWriter_IvaResults(
                 {Target(9, 0, x, y, static_cast<uint16_t>(x + 20), static_cast<uint16_t>(y + 20), 6, 1)}));
        std::fill(img.px.begin(), img.px.end(), 0xFF);
        cairo_surface_mark_dirty(img.surface);
        ASSERT_EQ(DATA_DRVDraw(&store, &img.canvas, &tracks, 6, true), 0u);
        if (n == 1) {
            // Second picture: the trail so far is the single far-right point.
            EXPECT_TRUE(Is(img.At(120, 35), 255, 255, 255));
        }
        if (n == 2) {
            // From the far-right centre (180, 20) to the first walked one (16, 50).
            EXPECT_TRUE(Is(img.At(140, 27), 0, 255, 0));
        }
    }
    // The last picture drew 21 stored centres: the far-right one was
    // overwritten, so the trail starts at the second centre.
    EXPECT_EQ(tracks.slots[0].count, 22u);
    EXPECT_TRUE(Is(img.At(140, 27), 255, 255, 255));
    EXPECT_TRUE(Is(img.At(40, 50), 0, 255, 0));
    // Without tracking (bit 1 of the process-wide flags), no trail.
    std::fill(img.px.begin(), img.px.end(), 0xFF);
    cairo_surface_mark_dirty(img.surface);
    ASSERT_EQ(DATA_DRVDraw(&store, &img.canvas, &tracks, 6, false), 0u);
    EXPECT_TRUE(Is(img.At(40, 50), 255, 255, 255));
    IVA_ReleaseStore(&store);
    EXPECT_EQ(QMX_HeapLiveBytes(), 0u);
}
