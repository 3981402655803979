// Fisheye and electronic-PTZ views as geometry: which source point every
// point of the shown picture comes from. Plain arithmetic, no pictures.
#pragma once

#include <cstdint>

// What a port shows (the PTZ mode of Korvalen_SetPtzAndFixMode).
enum FeView : uint32_t {
    FE_VIEW_OFF = 0,          // the picture as decoded
    FE_VIEW_EPTZ = 1,         // electronic PTZ: a zoomed region of the picture
    FE_VIEW_ORIGINAL = 2,     // the fisheye circle, nothing outside it
    FE_VIEW_PANORAMA_360 = 3, // one strip all round (ceiling and desk)
    FE_VIEW_PANORAMA_180 = 4, // two 180-degree strips (ceiling, desk); one (wall)
    FE_VIEW_QUAD = 5,         // four PTZ views
    FE_VIEW_ONE_PTZ = 6,      // one PTZ view
    FE_VIEW_COUNT = 7,
};

// How the fisheye camera is mounted (the fix mode).
enum FeMount : uint32_t {
    FE_MOUNT_CEILING = 0, // looking down
    FE_MOUNT_WALL = 1,    // looking ahead
    FE_MOUNT_DESK = 2,    // looking up
    FE_MOUNT_COUNT = 3,
};

constexpr double kFePi = 3.14159265358979323846;

// The lens circle in source pixels. The lens is taken as equidistant
// (distance from the centre proportional to the angle from the axis) with a
// 180-degree field: the circle's edge is 90 degrees off the axis.
struct FE_LENS {
    double cx = 0;
    double cy = 0;
    double radius = 0;
};

// One virtual PTZ camera, angles in radians. Ceiling and desk: pan is the
// direction around the lens axis, tilt the angle away from the axis (0
// straight down or up, pi/2 the horizon). Wall: pan is left/right of the
// axis, tilt up (positive) or down. fov is the horizontal field of view.
struct FE_PTZ {
    double pan = 0;
    double tilt = 0;
    double fov = 0;
};

// A rectangle in source pixels (electronic PTZ region).
struct FE_RECTF {
    double left = 0;
    double top = 0;
    double right = 0;
    double bottom = 0;
    double Width() const { return right - left; }
    double Height() const { return bottom - top; }
};

// Everything that decides the remap of one view.
struct FE_VIEW_PARAMS {
    uint32_t view = FE_VIEW_OFF;
    uint32_t mount = FE_MOUNT_CEILING;
    FE_LENS lens;
    FE_PTZ ptz[4];          // one PTZ view uses ptz[0]; the quad view all four
    double panoramaPan = 0; // rotation of the panoramas, radians
    FE_RECTF region;        // electronic PTZ: the zoomed part
    uint32_t regionSet = 0; // 0: electronic PTZ shows the whole picture
    uint32_t inset = 0;     // electronic PTZ: the overview in the corner
};

// The PTZ views of a fresh view, by mount.
void FE_DefaultPtz(uint32_t mount, FE_PTZ ptz[4]);

// True for views that need a fisheye lens.
bool FE_IsFisheyeView(uint32_t view);
// True when the view can be shown for the mount (no 360 panorama on a wall).
bool FE_ViewFitsMount(uint32_t view, uint32_t mount);

// Size of the shown picture for a srcW x srcH source: at most 1920 wide,
// even; 16:9 for the fisheye views, the source's aspect for electronic PTZ.
void FE_OutputSize(uint32_t view, uint32_t srcW, uint32_t srcH, uint32_t* outW, uint32_t* outH);

// Source point for the output point (x, y) of an outW x outH picture.
// Coordinates are continuous: pixel i covers [i, i+1). False where the view
// shows nothing (outside the lens, beyond the field).
bool FE_MapPoint(const FE_VIEW_PARAMS& v, uint32_t srcW, uint32_t srcH, uint32_t outW, uint32_t outH, double x,
                 double y, double* sx, double* sy);

// Which sub-view (0..3) of the output the point lies in, and that sub-view's
// rectangle in output pixels. Panoramas and single views answer 0.
uint32_t FE_SubView(const FE_VIEW_PARAMS& v, uint32_t outW, uint32_t outH, double x, double y, double rect[4]);

// Direction (lens coordinates) seen at point (x, y) of a w x h PTZ view.
void FE_PtzRay(uint32_t mount, const FE_PTZ& p, double w, double h, double x, double y, double dir[3]);
// Where direction dir appears in a w x h PTZ view; false behind the view.
bool FE_PtzProject(uint32_t mount, const FE_PTZ& p, double w, double h, const double dir[3], double* x, double* y);

// The overview rectangle of electronic PTZ in output pixels (left, top,
// right, bottom): a quarter of the width, in the bottom-right corner.
void FE_InsetRect(uint32_t outW, uint32_t outH, double rect[4]);
