#include "display/display_geometry.h"

#include <algorithm>

uint32_t DISP_FieldFactor(uint32_t width, uint32_t height)
{
    if ((width == 720 || width == 704) && (height == 288 || height == 240)) {
        return 2;
    }
    if (width == 1920 && (height == 540 || height == 544)) {
        return 2;
    }
    return 1;
}

DISP_RECT DISP_DestRect(const DISP_RECT& client, uint32_t width, uint32_t height, uint32_t mode)
{
    DISP_RECT r = client;
    if (width == 0 || height == 0) {
        return r;
    }
    const int64_t w = width;
    const int64_t h = static_cast<int64_t>(height) * DISP_FieldFactor(width, height);
    const int64_t dw = r.Width();
    const int64_t dh = r.Height();
    if (mode == DISP_SCALE_ASPECT) {
        int64_t fitH = dw * h / w;
        if (fitH > dh) {
            int64_t usedW = dh * w / h; // pillar-boxed
            int32_t in = static_cast<int32_t>((dw - usedW) / 2);
            r.left += in;
            r.right -= in;
        } else if (fitH < dh) {
            int32_t in = static_cast<int32_t>((dh - fitH) / 2); // letter-boxed
            r.top += in;
            r.bottom -= in;
        }
    } else if (mode == DISP_SCALE_NATIVE) {
        if (dw > w) {
            r.left += static_cast<int32_t>((dw - w) / 2);
            r.right = r.left + static_cast<int32_t>(w);
        }
        if (dh > h) {
            r.top += static_cast<int32_t>((dh - h) / 2);
            r.bottom = r.top + static_cast<int32_t>(h);
        }
    }
    return r;
}

DISP_RECT DISP_SourceRect(const DISP_RECT* zoom, uint32_t width, uint32_t height)
{
    DISP_RECT r{0, 0, static_cast<int32_t>(width), static_cast<int32_t>(height)};
    if (!zoom) {
        return r;
    }
    auto scale = [](int32_t v, uint32_t size) {
        int64_t p = static_cast<int64_t>(v) * size / 10000;
        return static_cast<int32_t>(std::clamp<int64_t>(p, 0, size));
    };
    DISP_RECT z{scale(zoom->left, width), scale(zoom->top, height), scale(zoom->right, width),
                scale(zoom->bottom, height)};
    // A zoom rectangle without area shows the whole picture rather than nothing.
    return z.Empty() ? r : z;
}

bool DISP_SurfaceSizeOdd(uint32_t width, uint32_t height)
{
    return width < 16 || width > 6000 || height < 12 || height > 6000;
}
