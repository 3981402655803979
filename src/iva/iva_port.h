// A port's SEI record, analysis store and overlay state, and the hooks the
// decode and render paths call.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>

#include "codec/code_types.h"
#include "display/display_base.h"
#include "iva/iva_draw.h"
#include "iva/iva_store.h"
#include "sei/sei_parse.h"

struct QUEUE_ATTACHED;
struct QUEUE_PICTURE_NODE;
typedef struct _cairo cairo_t;
typedef struct _cairo_surface cairo_surface_t;

constexpr uint32_t IVA_SNAPSHOTS = 8;

// The store as it was when one picture's access unit was parsed; travels
// with the picture through the picture queue.
struct IVA_SNAPSHOT {
    IVA_STORE store;
    std::atomic<uint32_t> busy{0};
};

// A Cairo surface and context on one image the display shows.
struct IVA_SURFACE {
    cairo_surface_t* surface = nullptr;
    cairo_t* cr = nullptr;
    uint8_t* pixels = nullptr;
    uint32_t size[3] = {}; // width, height, stride
};

// A window display takes turns between two images: one surface is kept for
// each, so steady playback makes none.
constexpr uint32_t IVA_SURFACES = 2;

// Painting state of the render thread.
struct IVA_PAINT_JOB {
    const IVA_STORE* store = nullptr;
    uint32_t scaleMode = 0;
    uint32_t osdStyle = 0;
    uint32_t show = 0;
    bool tracking = false;
    IVA_CANVAS canvas; // its context is the current surface's
    IVA_TRACKS* tracks = nullptr;
    IVA_SURFACE surfaces[IVA_SURFACES];
    IVA_SURFACE* current = nullptr;
    uint32_t replace = 0; // the slot a new image takes next
};

struct PortIva {
    ~PortIva();
    SEI_INFO sei;                      // decode thread
    IVA_STORE latest;                  // decode thread: the records as last received
    IVA_STORE byInput[CODE_MARK_RING]; // the store as each decoder input saw it
    IVA_SNAPSHOT snapshots[IVA_SNAPSHOTS];
    IVA_TRACKS tracks; // render thread
    IVA_PAINT_JOB job; // render thread
    std::atomic<uint32_t> enable{0};
    std::atomic<uint32_t> show{IVA_SHOW_UNTRACKED | IVA_SHOW_TRACKED};
    std::mutex fisheyeLock;
    uint32_t fisheyeSeen = 0;
    uint16_t fisheye[3] = {};
};

// Decode thread, for every H.264 / H.265 frame before it is decoded.
bool IVA_ParseFrame(PortIva& iva, const uint8_t* data, uint32_t length, uint32_t codec);
// Decode thread, after the decoder took the frame (h's mark indices tell
// which input it was and which input a picture came from).
void IVA_FrameDecoded(PortIva& iva, const CODE_HANDLE& h);
// Decode thread, for a picture going to the render side: attach receives the
// overlay that belongs to it (nothing while IVA is off).
void IVA_AttachOverlay(PortIva& iva, const CODE_HANDLE& h, QUEUE_ATTACHED* attach);
// Render thread: sets the overlay painters for the picture about to be shown.
void IVA_PrepareOverlay(PortIva& iva, uint32_t osdStyle, const QUEUE_PICTURE_NODE* node, DISP_SETTINGS* settings);

// Fisheye lens parameters last carried by the port's stream. 0, 7 when the
// stream has carried none, 259 for a port not allocated.
uint32_t IVA_GetFisheyeParam(PortIva& iva, uint16_t params[3]);

// What the overlay shows: process-wide, and per port when mode is 1.
void IVA_SetShow(uint32_t showParam);
void IVA_SetPortShow(PortIva* iva, uint32_t showParam, uint32_t mode);
