// A port's overlay painter on the images a window display takes turns
// between.
#include <gtest/gtest.h>

#include <algorithm>
#include <cairo.h>
#include <vector>

#include "codec/code_types.h"
#include "display/display_base.h"
#include "heap/qmx_heap.h"
#include "iva/iva_port.h"
#include "korvalen.h"
#include "port/port.h"
#include "port/port_table.h"
#include "queue/queue_picture.h"
#include "sei_writer.h"

// The painter must paint each image (never the other through a stale
// context) and keep a surface for each instead of making one per picture.
TEST(IvaPortPaint, BothOfTheDisplaysImagesWithKeptSurfaces)
{
    ASSERT_EQ(Korvalen_Init(), 1);
    uint32_t port = 0;
    ASSERT_EQ(Korvalen_AllocPort(&port), 1);
    ASSERT_EQ(Korvalen_SetIVAEnable(port, 1), 1);
    PortRecord* rec = Player_GetPort(port);
    // A red box (colour code 5) at picture 80..160 x 60..120.
    SEIW_TARGET box;
    box.cls = 1;
    box.color = 5;
    box.box[0] = box.box[1] = 2500;
    box.box[2] = box.box[3] = 5000;
    const SeiBytes au = SeiWriter_Nal(SEIW_H264, 5, SeiWriter_UserData(32, SeiWriter_IvaResults({box})));
    IVA_ParseFrame(rec->iva, au.data(), static_cast<uint32_t>(au.size()), KORVALEN_CODEC_H264);
    CODE_HANDLE h{};
    IVA_FrameDecoded(rec->iva, h);
    QUEUE_PICTURE_NODE node;
    node.width = 320;
    node.height = 240;
    IVA_AttachOverlay(rec->iva, h, node.attached);
    DISP_SETTINGS s;
    IVA_PrepareOverlay(rec->iva, rec->video.osdStyle, &node, &s);
    ASSERT_NE(s.drawTargets, nullptr);

    std::vector<uint8_t> images[3] = {std::vector<uint8_t>(320 * 240 * 4), std::vector<uint8_t>(320 * 240 * 4),
                                      std::vector<uint8_t>(160 * 120 * 4)};
    // Paints a white image and says whether the box's left edge is red and
    // its inside still white.
    auto paint = [&](int i) {
        std::vector<uint8_t>& px = images[i];
        std::fill(px.begin(), px.end(), 0xFF);
        const uint32_t w = i < 2 ? 320 : 160, h = i < 2 ? 240 : 120;
        DISP_PaintOverlays(s, DISP_CANVAS{px.data(), w * 4, w, h, DISP_RECT{0, 0, 320, 240}, 320, 240});
        const uint32_t x = 80 * w / 320, y = 90 * h / 240;
        const uint8_t* edge = px.data() + (y * w + x) * 4;           // B, G, R
        const uint8_t* inside = px.data() + (y * w + x + w / 8) * 4; // B, G, R
        return edge[2] > 200 && edge[1] < 60 && edge[0] < 60 && inside[0] > 200 && inside[1] > 200 && inside[2] > 200;
    };
    const IVA_PAINT_JOB& job = rec->iva.job;
    EXPECT_TRUE(paint(0));
    EXPECT_TRUE(paint(1));
    cairo_surface_t* kept[2] = {job.surfaces[0].surface, job.surfaces[1].surface};
    for (int n = 0; n < 4; ++n) {
        EXPECT_TRUE(paint(n % 2)) << "picture " << n;
    }
    EXPECT_EQ(job.surfaces[0].surface, kept[0]);
    EXPECT_EQ(job.surfaces[1].surface, kept[1]);
    // A new image (the window was resized) takes the older slot; both
    // images in use still get their own painting.
    EXPECT_TRUE(paint(2));
    EXPECT_TRUE(paint(1));
    EXPECT_TRUE(paint(2));
    EXPECT_EQ(job.surfaces[1].surface, kept[1]);

    node.attached[0].release(node.attached[0].data);
    Korvalen_FreePort(port);
    Korvalen_Cleanup();
    EXPECT_EQ(QMX_HeapLiveBytes(), 0u);
}
