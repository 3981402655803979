// The display classes: CBaseDisplay is what the port's video wrapper drives;
// CX11Display puts pictures into an X11 window, COffscreenDisplay runs the
// same steps with no window (headless playback).
#pragma once

#include <cstdint>

#include "display/display_geometry.h"
#include "korvalen_types.h"

// A picture to show: planar YUV 4:2:0 in I420 order.
struct DISP_PICTURE {
    const uint8_t* planes[3];
    uint32_t lineSizes[3];
    uint32_t width;
    uint32_t height;
};

// The shown image an overlay paints on: 32-bit BGRA holding the source
// rectangle of a picture of pictureWidth x pictureHeight, scaled to width x
// height.
struct DISP_CANVAS {
    uint8_t* pixels;
    uint32_t stride;
    uint32_t width;
    uint32_t height;
    DISP_RECT source;
    uint32_t pictureWidth;
    uint32_t pictureHeight;
};
typedef uint32_t (*DISP_OVERLAY_FN)(void* user, const DISP_CANVAS& canvas);

// The port's display settings, read for every picture.
struct DISP_SETTINGS {
    uint32_t port = 0;
    uint32_t scaleMode = DISP_SCALE_FILL;
    bool zoomOn = false;
    DISP_RECT zoom;
    int32_t adjust[4] = {100, 100, 100, 10}; // brightness, contrast, saturation (%), hue (10 = none)
    KORVALEN_DRAW_CB draw = nullptr;
    void* drawUser = nullptr;
    // Analysis overlay painters, run in this order before the caller's hook.
    DISP_OVERLAY_FN drawRules = nullptr;
    DISP_OVERLAY_FN drawTargets = nullptr;
    void* overlayUser = nullptr;
};

// Runs the overlay painters of the settings on the canvas; their failures
// are warnings, the picture is shown regardless.
void DISP_PaintOverlays(const DISP_SETTINGS& settings, const DISP_CANVAS& canvas);

class CBaseDisplay {
public:
    virtual ~CBaseDisplay() = default;
    // Binds the display to a window (0 for none). 0 or an error code.
    virtual uint32_t Init(uint64_t window) = 0;
    // Shows one picture: 0, or 541 when the surface was lost.
    virtual uint32_t DisplayPic(const DISP_PICTURE& pic, const DISP_SETTINGS& settings) = 0;
    // Paints a given picture (such as the black fill) as it is.
    virtual uint32_t RenderPicture(const DISP_PICTURE& pic) = 0;
    virtual void ReleaseSurfaces() = 0;
    // Draw hook set straight on the display; used when the port's is unset.
    virtual void SetDrawCallback(KORVALEN_DRAW_CB cb, void* user) = 0;
    virtual bool IsOffscreen() const = 0;
    // Where the last picture went in the window; empty without a window.
    virtual DISP_RECT ShownRect() const { return {}; }
    // Failed puts so far.
    virtual uint32_t BlitFailures() const = 0;
};
