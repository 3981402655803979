// libFuzzer target: arbitrary analysis records through the IVA record
// parser and the painting of rules, boxes and trails on a small image, with
// a mapping (zoom and scale) taken from the input.
#include <cairo.h>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "iva/iva_draw.h"
#include "iva/iva_store.h"
#include "sei/sei_parse.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static IVA_STORE store;
    static IVA_TRACKS tracks;
    static std::vector<uint8_t> pixels(64 * 48 * 4);
    if (size < 4) {
        return 0;
    }
    const uint32_t kind = data[0] & 1 ? IVA_KIND_RULE : IVA_KIND_RESULT;
    const uint32_t show = data[1] & 7;
    const int32_t zoomLeft = data[2] % 64, zoomTop = data[3] % 48;
    std::vector<uint8_t> record(data + 4, data + size);
    IvaV2Parse(kind, &store, record.data(), static_cast<uint32_t>(record.size()));

    cairo_surface_t* surface = cairo_image_surface_create_for_data(pixels.data(), CAIRO_FORMAT_RGB24, 64, 48, 64 * 4);
    IVA_CANVAS canvas;
    canvas.cr = cairo_create(surface);
    canvas.originX = zoomLeft;
    canvas.originY = zoomTop;
    canvas.scaleX = 64.0 / (128 - zoomLeft);
    canvas.scaleY = 48.0 / (96 - zoomTop);
    canvas.osdStyle = data[1] >> 6;
    IVA_GetDrawRect(128, 96, 128, 96, 1, data[1] >> 3 & 3, &canvas.drawRect);
    DrawRule_V2(&store, &canvas);
    DATA_DRVDraw(&store, &canvas, &tracks, show, (show & IVA_SHOW_UNTRACKED) != 0);
    cairo_destroy(canvas.cr);
    cairo_surface_destroy(surface);
    return 0;
}
