// A port's fisheye and electronic-PTZ state: the view the caller chose, the
// lens, the mouse, and (render thread only) the remap table and the picture
// it writes.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>

#include "display/display_geometry.h"
#include "fisheye/fisheye_remap.h"
#include "fisheye/fisheye_view.h"
#include "korvalen_types.h"
#include "queue/queue_picture.h"

struct PortFisheye {
    ~PortFisheye() { FE_ReleaseRemap(&remap); }

    std::mutex lock; // guards everything down to the render-thread part
    FE_VIEW_PARAMS params;
    uint32_t generation = 1;     // bumped by every change of params
    uint16_t streamLens[3] = {}; // centre x, centre y, radius from the stream
    uint32_t streamLensSet = 0;
    uint32_t callerMarked = 0; // the caller chose a fisheye view
    uint32_t keepAliveSec = 0; // overview shown this long after the mouse; 0 always
    uint32_t lastMouseMs = 0;
    // Mouse.
    uint32_t buttonDown = 0;
    double downX = 0, downY = 0; // output pixels
    double lastX = 0, lastY = 0;
    uint32_t dragView = 0;  // sub-view the drag started in
    double dragDir[3] = {}; // what lay under the button, held under the pointer
    uint32_t banding = 0;   // electronic PTZ: a rectangle being drawn
    FE_RECTF band;          // in source pixels
    // What the render thread showed last, for mapping window pixels.
    DISP_RECT shown;
    uint32_t srcW = 0, srcH = 0, outW = 0, outH = 0;

    std::atomic<uint32_t> view{FE_VIEW_OFF}; // read by the render thread without the lock

    // Render thread only.
    FE_REMAP remap;
    uint32_t builtGeneration = 0;
    FE_VIEW_PARAMS built;
    QUEUE_PICTURE_NODE out;
    uint32_t failures = 0;
};

// Lens parameters carried by the stream (centre x, centre y, radius in
// picture pixels): makes the port a fisheye port.
void Fisheye_SetStreamParams(PortFisheye* fe, uint16_t cx, uint16_t cy, uint16_t radius);

// Render thread: true when a view other than the plain picture is chosen.
bool FE_ViewActive(const PortFisheye& fe);
// Render thread: the picture to show for in (*out points into the port's
// own output). 0, 1283 for a lens outside the picture, 1281 when the table
// cannot be made, 1284 for a picture too small to work on.
uint32_t FE_FishEyeWork(PortFisheye& fe, const QUEUE_PICTURE_NODE* in, const QUEUE_PICTURE_NODE** out);
// Render thread: where the last picture went in the window.
void FE_NoteShown(PortFisheye& fe, const DISP_RECT& dest);

// The caller's controls. w and h: the size of the last decoded picture.
uint32_t FE_IsFishEyeStream(PortFisheye& fe, uint32_t* answer);
uint32_t FE_GetFishEyeParam(PortFisheye& fe, uint32_t w, uint32_t h, KORVALEN_FISHEYE_STATE* state,
                            KORVALEN_POINT* center, uint32_t* radius);
uint32_t FE_SetPtzAndFixMode(PortFisheye& fe, uint32_t ptzMode, uint32_t fixMode);
uint32_t FE_GetPtzAndFixMode(PortFisheye& fe, uint32_t* ptzMode, uint32_t* fixMode);
uint32_t FE_SetPtzDisplayMode(PortFisheye& fe, uint32_t ptzMode);
uint32_t FE_SetPtzKeepAliveTime(PortFisheye& fe, uint32_t seconds);

// Mouse events in window pixels: 0 move, 1 left button down, 2 up, 3 wheel
// (delta in wheel). 1540 when no view takes the mouse.
enum FeMouseEvent : uint32_t { FE_MOUSE_MOVE = 0, FE_MOUSE_DOWN = 1, FE_MOUSE_UP = 2, FE_MOUSE_WHEEL = 3 };
uint32_t FE_OnMouse(PortFisheye& fe, uint32_t event, uint32_t x, uint32_t y, int32_t wheel);

// Mouse helpers shared with the view code (lock held by the caller).
void FE_WindowToOutput(const PortFisheye& fe, uint32_t x, uint32_t y, double* ox, double* oy);
