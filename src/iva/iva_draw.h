// Painting the IVA store over a picture with Cairo: rule outlines with their
// labels, target boxes in the camera's colour codes, and short trails of the
// tracked targets.
#pragma once

#include <cstdint>

#include "display/display_geometry.h"
#include "iva/iva_store.h"

typedef struct _cairo cairo_t;

constexpr uint32_t IVA_TRACK_SLOTS = 10;
constexpr uint32_t IVA_TRACK_POINTS = 20;
constexpr uint32_t IVA_CENTRE_LIST = 30;

// Display switches: bit 1 untracked-class targets (and tracking), bit 2
// tracked-class targets; bit 0 is kept but not used for painting.
constexpr uint32_t IVA_SHOW_UNTRACKED = 0x2;
constexpr uint32_t IVA_SHOW_TRACKED = 0x4;
constexpr uint32_t IVA_SHOW_MASK = 0x7;

struct IVA_POINT {
    int32_t x = 0;
    int32_t y = 0;
    bool operator==(const IVA_POINT&) const = default;
};

struct IVA_TRACK {
    uint32_t id = 0; // target number, 0 = free slot
    uint32_t refreshed = 0;
    uint32_t count = 0; // points ever stored; the ring holds the last 20
    IVA_POINT points[IVA_TRACK_POINTS];
};

struct IVA_TRACKS {
    IVA_TRACK slots[IVA_TRACK_SLOTS];
};

struct IVA_CENTRE {
    uint32_t id = 0;
    IVA_POINT point;
    uint32_t flag = 0; // 1 when the entry holds a centre
};

// Where painting goes: a Cairo context on the shown image, and how picture
// coordinates map onto it (device = (p - origin) * scale).
struct IVA_CANVAS {
    cairo_t* cr = nullptr;
    double originX = 0, originY = 0;
    double scaleX = 1, scaleY = 1;
    DISP_RECT drawRect;    // in picture coordinates
    uint32_t osdStyle = 0; // label size: 0 small, 1 medium, 2 large
};

// The drawing rectangle for a client of wc x hc and a picture of wp x hp
// (hasMode 0: the client as it is). 0, or 1025 when a size is 0.
uint32_t IVA_GetDrawRect(uint32_t wc, uint32_t hc, uint32_t wp, uint32_t hp, uint32_t hasMode, uint32_t mode,
                         DISP_RECT* rect);

// 0x00BBGGRR colour of a camera colour code.
uint32_t IVA_ColorOf(uint32_t code);

// Rules of the store (either layout). 0, 1025 for a bad record, 1 for a
// label failure, or the drawing layer's code.
uint32_t DrawRule_V2(const IVA_STORE* store, IVA_CANVAS* canvas);
// Targets and tracks. show: the effective display switches; tracking: bit 1
// of the process-wide switches.
uint32_t DATA_DRVDraw(const IVA_STORE* store, IVA_CANVAS* canvas, IVA_TRACKS* tracks, uint32_t show, bool tracking);
// Brings the track table up to date with one picture's centres.
void DATA_UpdateTrack(IVA_TRACKS* tracks, const IVA_CENTRE* list, uint32_t count);
// Draws the trail of one track. 0 or the drawing layer's code.
uint32_t DATA_DrawTrack(IVA_CANVAS* canvas, const IVA_TRACKS* tracks, const IVA_TRACK* track, uint32_t color);
