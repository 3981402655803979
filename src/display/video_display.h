// The port-facing video layer: makes the display for a port's window, shows
// pictures on it, and keeps the port's display settings.
#pragma once

#include <cstdint>

#include "display/display_base.h"

struct QUEUE_PICTURE;
struct QUEUE_PICTURE_NODE;
struct QUEUE_PICTURE_QUEUE;

// Display settings and object of one port.
struct PortDisplay {
    DISP_SETTINGS settings;
    KORVALEN_RECT area{}; // window area given with the render scale
    uint32_t areaSet = 0;
    uint32_t deinterlaceMode = 0;
    uint32_t deinterlaceValue = 0;
    uint32_t osdStyle = 0;
    uint32_t gpuDraw = 0;
    CBaseDisplay* display = nullptr;
};

// A display for the window: an X11 one, or an off-screen one for window 0
// or when no X server answers. 0, or 532 when the server does not know the
// window.
uint32_t Video_CreateDisplayDec(uint64_t window, CBaseDisplay** display);
void Video_DestroyDisplayDec(CBaseDisplay*& display);

// Shows a picture node. 2 for a null node, 531 for a null display; when the
// display lost its surface, a black picture is painted instead and 541 is
// returned.
uint32_t Video_DisPlayPicEx(uint32_t port, CBaseDisplay* display, const QUEUE_PICTURE_NODE* node,
                            const DISP_SETTINGS& settings);

// Hands a decoded picture to the port's off-screen store.
uint32_t Video_WriteOffScreen(QUEUE_PICTURE_QUEUE* offscreen, const QUEUE_PICTURE* picture);
