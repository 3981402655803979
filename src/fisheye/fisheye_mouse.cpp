// The mouse on a fisheye or electronic-PTZ view. Dragging moves the picture
// with the pointer (what lies under the button stays under it); the wheel
// zooms about the pointer. In electronic PTZ the first drag draws the
// rectangle to zoom into.
#include <algorithm>
#include <cmath>

#include "fisheye/fisheye_port.h"
#include "platform/platform.h"

namespace {

constexpr double kDeg = kFePi / 180.0;
constexpr double kMinFov = 20 * kDeg;
constexpr double kMaxFov = 120 * kDeg;
constexpr double kWheelStep = 120.0;
constexpr double kZoomPerStep = 0.8;
constexpr double kMinBand = 16.0; // source pixels: smaller is a click

// Turns PTZ view p so that direction dir appears at (x, y) of the view
// (relative to its top-left corner): a few Gauss-Newton steps on pan and
// tilt, within the mount's limits.
void DragPtz(uint32_t mount, FE_PTZ* p, const double rect[4], const double dir[3], double x, double y)
{
    const double w = rect[2] - rect[0], h = rect[3] - rect[1];
    const double lo = mount == FE_MOUNT_WALL ? -kFePi / 2 : 0.0;
    for (int step = 0; step < 8; ++step) {
        double px = 0, py = 0;
        if (!FE_PtzProject(mount, *p, w, h, dir, &px, &py)) {
            return;
        }
        const double ex = px - x, ey = py - y;
        if (ex * ex + ey * ey < 0.01) {
            return;
        }
        constexpr double e = 1e-4;
        FE_PTZ a = *p, b = *p;
        a.pan += e;
        b.tilt += e;
        double ax = 0, ay = 0, bx = 0, by = 0;
        if (!FE_PtzProject(mount, a, w, h, dir, &ax, &ay) || !FE_PtzProject(mount, b, w, h, dir, &bx, &by)) {
            return;
        }
        const double j00 = (ax - px) / e, j10 = (ay - py) / e, j01 = (bx - px) / e, j11 = (by - py) / e;
        const double det = j00 * j11 - j01 * j10;
        if (std::fabs(det) < 1e-9) {
            return;
        }
        const double dPan = (j11 * ex - j01 * ey) / det, dTilt = (-j10 * ex + j00 * ey) / det;
        p->pan -= std::clamp(dPan, -0.5, 0.5);
        p->tilt = std::clamp(p->tilt - std::clamp(dTilt, -0.5, 0.5), lo, kFePi / 2);
        if (mount == FE_MOUNT_WALL) {
            p->pan = std::clamp(p->pan, -kFePi / 2, kFePi / 2);
        }
    }
}

// Output pixels to source pixels for the electronic PTZ's main area.
void OutputToSource(const PortFisheye& fe, double ox, double oy, double* sx, double* sy)
{
    const FE_VIEW_PARAMS& p = fe.params;
    const double w = fe.outW ? fe.outW : fe.srcW, h = fe.outH ? fe.outH : fe.srcH;
    if (p.regionSet) {
        *sx = p.region.left + ox * p.region.Width() / w;
        *sy = p.region.top + oy * p.region.Height() / h;
    } else {
        *sx = ox * fe.srcW / w;
        *sy = oy * fe.srcH / h;
    }
}

// Keeps region r inside the picture, its size unchanged where it fits.
void KeepInside(FE_RECTF* r, double w, double h)
{
    const double rw = std::min(r->Width(), w), rh = std::min(r->Height(), h);
    r->left = std::clamp(r->left, 0.0, w - rw);
    r->top = std::clamp(r->top, 0.0, h - rh);
    r->right = r->left + rw;
    r->bottom = r->top + rh;
}

// A drawn rectangle widened to the picture's aspect, so the zoom is not
// distorted.
FE_RECTF FitAspect(const FE_RECTF& band, double w, double h)
{
    FE_RECTF r = band;
    const double want = w / h;
    if (r.Width() / r.Height() < want) {
        const double grow = r.Height() * want - r.Width();
        r.left -= grow / 2;
        r.right += grow / 2;
    } else {
        const double grow = r.Width() / want - r.Height();
        r.top -= grow / 2;
        r.bottom += grow / 2;
    }
    KeepInside(&r, w, h);
    return r;
}

using Handler = uint32_t (*)(PortFisheye& fe, double ox, double oy, int32_t arg);

// Runs h on the port's state with the point in output pixels: 1540 when no
// view takes the mouse, before anything was shown.
uint32_t WithState(PortFisheye& fe, uint32_t x, uint32_t y, int32_t arg, Handler h)
{
    std::lock_guard<std::mutex> lock(fe.lock);
    if (fe.params.view == FE_VIEW_OFF || fe.srcW == 0) {
        return KORVALEN_ERR_PTZ;
    }
    double ox = 0, oy = 0;
    FE_WindowToOutput(fe, x, y, &ox, &oy);
    fe.lastMouseMs = PLAT_TickMs();
    return h(fe, ox, oy, arg);
}

uint32_t Down(PortFisheye& fe, double ox, double oy, int32_t)
{
    fe.buttonDown = 1;
    fe.downX = fe.lastX = ox;
    fe.downY = fe.lastY = oy;
    double r[4];
    fe.dragView = FE_SubView(fe.params, fe.outW, fe.outH, ox, oy, r);
    if (fe.params.view == FE_VIEW_QUAD || fe.params.view == FE_VIEW_ONE_PTZ) {
        FE_PtzRay(fe.params.mount, fe.params.ptz[fe.dragView], r[2] - r[0], r[3] - r[1], ox - r[0], oy - r[1],
                  fe.dragDir);
    }
    if (fe.params.view == FE_VIEW_EPTZ && !fe.params.regionSet) {
        double sx = 0, sy = 0;
        OutputToSource(fe, ox, oy, &sx, &sy);
        fe.band = {sx, sy, sx, sy};
        fe.banding = 1;
        ++fe.generation;
    }
    return KORVALEN_OK;
}

uint32_t Move(PortFisheye& fe, double ox, double oy, int32_t)
{
    if (!fe.buttonDown) {
        return KORVALEN_OK;
    }
    FE_VIEW_PARAMS& p = fe.params;
    const double dx = ox - fe.lastX, dy = oy - fe.lastY;
    switch (p.view) {
    case FE_VIEW_EPTZ:
        if (fe.banding) {
            double sx = 0, sy = 0;
            OutputToSource(fe, ox, oy, &sx, &sy);
            fe.band.right = sx;
            fe.band.bottom = sy;
        } else if (p.regionSet) {
            const double kx = p.region.Width() / fe.outW, ky = p.region.Height() / fe.outH;
            p.region.left -= dx * kx;
            p.region.right -= dx * kx;
            p.region.top -= dy * ky;
            p.region.bottom -= dy * ky;
            KeepInside(&p.region, fe.srcW, fe.srcH);
        }
        break;
    case FE_VIEW_PANORAMA_360:
    case FE_VIEW_PANORAMA_180: {
        if (p.mount == FE_MOUNT_WALL) {
            return KORVALEN_OK; // the wall panorama already spans the whole field
        }
        const double span = p.view == FE_VIEW_PANORAMA_360 ? 2 * kFePi : kFePi;
        p.panoramaPan += (p.mount == FE_MOUNT_DESK ? dx : -dx) * span / fe.outW;
        break;
    }
    case FE_VIEW_QUAD:
    case FE_VIEW_ONE_PTZ: {
        double r[4];
        const double cx = p.view == FE_VIEW_QUAD ? (fe.dragView % 2 + 0.5) * fe.outW / 2 : fe.outW / 2.0;
        const double cy = p.view == FE_VIEW_QUAD ? (fe.dragView / 2 + 0.5) * fe.outH / 2 : fe.outH / 2.0;
        FE_SubView(p, fe.outW, fe.outH, cx, cy, r);
        DragPtz(p.mount, &p.ptz[fe.dragView], r, fe.dragDir, ox - r[0], oy - r[1]);
        break;
    }
    default:
        break;
    }
    fe.lastX = ox;
    fe.lastY = oy;
    ++fe.generation;
    return KORVALEN_OK;
}

uint32_t Up(PortFisheye& fe, double ox, double oy, int32_t)
{
    if (!fe.buttonDown) {
        return KORVALEN_OK;
    }
    Move(fe, ox, oy, 0);
    fe.buttonDown = 0;
    if (fe.banding) {
        fe.banding = 0;
        FE_RECTF b{std::min(fe.band.left, fe.band.right), std::min(fe.band.top, fe.band.bottom),
                   std::max(fe.band.left, fe.band.right), std::max(fe.band.top, fe.band.bottom)};
        if (b.Width() >= kMinBand && b.Height() >= kMinBand) {
            fe.params.region = FitAspect(b, fe.srcW, fe.srcH);
            fe.params.regionSet = 1;
        }
        ++fe.generation;
    }
    return KORVALEN_OK;
}

uint32_t Wheel(PortFisheye& fe, double ox, double oy, int32_t delta)
{
    FE_VIEW_PARAMS& p = fe.params;
    const double factor = std::pow(kZoomPerStep, delta / kWheelStep); // turned away from the user: closer
    if (p.view == FE_VIEW_EPTZ) {
        double sx = 0, sy = 0;
        OutputToSource(fe, ox, oy, &sx, &sy);
        FE_RECTF r =
            p.regionSet ? p.region : FE_RECTF{0, 0, static_cast<double>(fe.srcW), static_cast<double>(fe.srcH)};
        // The point under the pointer stays where it is.
        r = {sx - (sx - r.left) * factor, sy - (sy - r.top) * factor, sx + (r.right - sx) * factor,
             sy + (r.bottom - sy) * factor};
        if (r.Width() >= fe.srcW || r.Height() >= fe.srcH) {
            p.regionSet = 0; // zoomed all the way out: the whole picture again
        } else if (r.Width() >= kMinBand && r.Height() >= kMinBand) {
            KeepInside(&r, fe.srcW, fe.srcH);
            p.region = r;
            p.regionSet = 1;
        }
    } else if (p.view == FE_VIEW_QUAD || p.view == FE_VIEW_ONE_PTZ) {
        double r[4];
        FE_PTZ& z = p.ptz[FE_SubView(p, fe.outW, fe.outH, ox, oy, r)];
        z.fov = std::clamp(z.fov * factor, kMinFov, kMaxFov);
    } else {
        return KORVALEN_OK;
    }
    ++fe.generation;
    return KORVALEN_OK;
}

} // namespace

uint32_t FE_OnMouse(PortFisheye& fe, uint32_t event, uint32_t x, uint32_t y, int32_t wheel)
{
    static constexpr Handler kHandlers[] = {&Move, &Down, &Up, &Wheel};
    return event < 4 ? WithState(fe, x, y, wheel, kHandlers[event]) : KORVALEN_ERR_INVALID_PARAM;
}
