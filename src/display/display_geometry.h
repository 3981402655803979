// Display geometry as plain arithmetic on rectangles, apart from X11.
#pragma once

#include <cstdint>

struct DISP_RECT {
    int32_t left = 0;
    int32_t top = 0;
    int32_t right = 0;
    int32_t bottom = 0;
    int32_t Width() const { return right - left; }
    int32_t Height() const { return bottom - top; }
    bool Empty() const { return right <= left || bottom <= top; }
};

enum DispScaleMode : uint32_t {
    DISP_SCALE_FILL = 0,   // the whole window
    DISP_SCALE_ASPECT = 1, // keep the picture's aspect ratio, centred, with bars
    DISP_SCALE_NATIVE = 2, // the picture's own size, centred
};

// 2 for field pictures (720 or 704 wide and 288 or 240 high; 1920 wide and
// 540 or 544 high), which are shown at twice their height; else 1.
uint32_t DISP_FieldFactor(uint32_t width, uint32_t height);

// Where a width x height picture goes in the client rectangle.
DISP_RECT DISP_DestRect(const DISP_RECT& client, uint32_t width, uint32_t height, uint32_t mode);

// The part of the picture shown: the zoom rectangle (ten-thousandths of the
// picture) in pixels, clamped to the picture; the whole picture without zoom.
DISP_RECT DISP_SourceRect(const DISP_RECT* zoom, uint32_t width, uint32_t height);

// True when an off-screen surface of this size is outside 16..6000 x
// 12..6000 (it is made anyway; the caller warns now and then).
bool DISP_SurfaceSizeOdd(uint32_t width, uint32_t height);
