#include "fisheye/fisheye_view.h"

#include <algorithm>
#include <cmath>

namespace {

constexpr uint32_t kMaxOutWidth = 1920;
constexpr double kDeg = kFePi / 180.0;
// Panoramas of ceiling and desk cameras run from the horizon to this angle
// off the axis: nearer the axis the picture is stretched beyond use.
constexpr double kPanoramaInner = 20.0 * kDeg;
constexpr double kInsetMargin = 8.0;

struct Vec3 {
    double x, y, z;
};

// Source point of a direction in lens coordinates (x right, y down, z along
// the axis). False beyond the lens's field.
bool Project(const FE_LENS& lens, Vec3 d, double* sx, double* sy)
{
    const double n = std::sqrt(d.x * d.x + d.y * d.y + d.z * d.z);
    if (n <= 0) {
        return false;
    }
    const double theta = std::acos(std::clamp(d.z / n, -1.0, 1.0));
    if (theta > kFePi / 2 + 1e-9) {
        return false;
    }
    const double r = lens.radius * theta / (kFePi / 2);
    const double phi = std::atan2(d.y, d.x);
    *sx = lens.cx + r * std::cos(phi);
    *sy = lens.cy + r * std::sin(phi);
    return true;
}

// Source point of direction (theta off the axis, phi around it).
bool ProjectAngles(const FE_LENS& lens, double theta, double phi, double* sx, double* sy)
{
    if (theta < 0 || theta > kFePi / 2 + 1e-9) {
        return false;
    }
    const double r = lens.radius * theta / (kFePi / 2);
    *sx = lens.cx + r * std::cos(phi);
    *sy = lens.cy + r * std::sin(phi);
    return true;
}

// A virtual perspective camera: forward, right and down vectors by mount.
void PtzBasis(uint32_t mount, const FE_PTZ& p, Vec3* f, Vec3* r, Vec3* d)
{
    const double cp = std::cos(p.pan), sp = std::sin(p.pan);
    const double ct = std::cos(p.tilt), st = std::sin(p.tilt);
    if (mount == FE_MOUNT_WALL) {
        *f = {sp * ct, -st, cp * ct};
        *r = {cp, 0, -sp};
        *d = {sp * st, ct, cp * st};
    } else if (mount == FE_MOUNT_DESK) {
        // Looking up: the picture is a mirror of the map view.
        *f = {st * cp, st * sp, ct};
        *r = {sp, -cp, 0};
        *d = {ct * cp, ct * sp, -st};
    } else {
        *f = {st * cp, st * sp, ct};
        *r = {-sp, cp, 0};
        *d = {-ct * cp, -ct * sp, st};
    }
}

bool MapPtz(const FE_VIEW_PARAMS& v, const FE_PTZ& p, double w, double h, double x, double y, double* sx, double* sy)
{
    Vec3 f, r, d;
    PtzBasis(v.mount, p, &f, &r, &d);
    const double focal = (w / 2) / std::tan(p.fov / 2);
    const double u = x - w / 2, t = y - h / 2;
    Vec3 ray{f.x * focal + r.x * u + d.x * t, f.y * focal + r.y * u + d.y * t, f.z * focal + r.z * u + d.z * t};
    return Project(v.lens, ray, sx, sy);
}

// A strip of a ceiling or desk panorama: azimuth from phi0 over span across
// w, angle off the axis from the horizon (ceiling: top) inwards.
bool MapStrip(const FE_VIEW_PARAMS& v, double phi0, double span, double w, double h, double x, double y, double* sx,
              double* sy)
{
    const double along = (y / h);
    if (v.mount == FE_MOUNT_DESK) {
        const double phi = phi0 - span * (x / w);
        const double theta = kPanoramaInner + (kFePi / 2 - kPanoramaInner) * along;
        return ProjectAngles(v.lens, theta, phi, sx, sy);
    }
    const double phi = phi0 + span * (x / w);
    const double theta = kFePi / 2 - (kFePi / 2 - kPanoramaInner) * along;
    return ProjectAngles(v.lens, theta, phi, sx, sy);
}

// Wall panorama: longitude across the width (180 degrees), latitude with the
// same angle per pixel.
bool MapWallPanorama(const FE_VIEW_PARAMS& v, double w, double h, double x, double y, double* sx, double* sy)
{
    const double perPixel = kFePi / w;
    const double lon = -kFePi / 2 + x * perPixel + v.panoramaPan;
    const double lat = (h / 2 - y) * perPixel;
    Vec3 d{std::sin(lon) * std::cos(lat), -std::sin(lat), std::cos(lon) * std::cos(lat)};
    return Project(v.lens, d, sx, sy);
}

bool MapOriginal(const FE_VIEW_PARAMS& v, double w, double h, double x, double y, double* sx, double* sy)
{
    const double scale = 2 * v.lens.radius / h;
    const double px = v.lens.cx + (x - w / 2) * scale;
    const double py = v.lens.cy + (y - h / 2) * scale;
    const double dx = px - v.lens.cx, dy = py - v.lens.cy;
    if (dx * dx + dy * dy > v.lens.radius * v.lens.radius) {
        return false;
    }
    *sx = px;
    *sy = py;
    return true;
}

bool MapEptz(const FE_VIEW_PARAMS& v, uint32_t srcW, uint32_t srcH, double w, double h, double x, double y, double* sx,
             double* sy)
{
    FE_RECTF whole{0, 0, static_cast<double>(srcW), static_cast<double>(srcH)};
    const FE_RECTF& main = v.regionSet ? v.region : whole;
    if (v.regionSet && v.inset) {
        double in[4];
        FE_InsetRect(static_cast<uint32_t>(w), static_cast<uint32_t>(h), in);
        if (x >= in[0] && x < in[2] && y >= in[1] && y < in[3]) {
            *sx = (x - in[0]) * srcW / (in[2] - in[0]);
            *sy = (y - in[1]) * srcH / (in[3] - in[1]);
            return true;
        }
    }
    *sx = main.left + x * main.Width() / w;
    *sy = main.top + y * main.Height() / h;
    return true;
}

} // namespace

void FE_DefaultPtz(uint32_t mount, FE_PTZ ptz[4])
{
    const double fov = 80 * kDeg;
    if (mount == FE_MOUNT_WALL) {
        ptz[0] = {0, 0, fov};
        ptz[1] = {-45 * kDeg, 0, fov};
        ptz[2] = {45 * kDeg, 0, fov};
        ptz[3] = {0, -40 * kDeg, fov};
        return;
    }
    for (int i = 0; i < 4; ++i) {
        ptz[i] = {i * kFePi / 2, 50 * kDeg, fov};
    }
}

bool FE_IsFisheyeView(uint32_t view)
{
    return view >= FE_VIEW_ORIGINAL && view < FE_VIEW_COUNT;
}

bool FE_ViewFitsMount(uint32_t view, uint32_t mount)
{
    return !(view == FE_VIEW_PANORAMA_360 && mount == FE_MOUNT_WALL);
}

void FE_OutputSize(uint32_t view, uint32_t srcW, uint32_t srcH, uint32_t* outW, uint32_t* outH)
{
    uint32_t w = std::min(srcW, kMaxOutWidth) & ~1u;
    uint32_t h =
        view == FE_VIEW_EPTZ && srcW ? static_cast<uint32_t>(static_cast<uint64_t>(w) * srcH / srcW) : w * 9 / 16;
    *outW = w < 2 ? 2 : w;
    *outH = (h & ~1u) < 2 ? 2 : (h & ~1u);
}

bool FE_MapPoint(const FE_VIEW_PARAMS& v, uint32_t srcW, uint32_t srcH, uint32_t outW, uint32_t outH, double x,
                 double y, double* sx, double* sy)
{
    const double w = outW, h = outH;
    switch (v.view) {
    case FE_VIEW_EPTZ:
        return MapEptz(v, srcW, srcH, w, h, x, y, sx, sy);
    case FE_VIEW_ORIGINAL:
        return MapOriginal(v, w, h, x, y, sx, sy);
    case FE_VIEW_PANORAMA_360:
        return MapStrip(v, v.panoramaPan, 2 * kFePi, w, h, x, y, sx, sy);
    case FE_VIEW_PANORAMA_180:
        if (v.mount == FE_MOUNT_WALL) {
            return MapWallPanorama(v, w, h, x, y, sx, sy);
        }
        if (y < h / 2) {
            return MapStrip(v, v.panoramaPan, kFePi, w, h / 2, x, y, sx, sy);
        }
        return MapStrip(v, v.panoramaPan + (v.mount == FE_MOUNT_DESK ? -kFePi : kFePi), kFePi, w, h / 2, x, y - h / 2,
                        sx, sy);
    case FE_VIEW_QUAD:
    case FE_VIEW_ONE_PTZ: {
        double r[4];
        uint32_t i = FE_SubView(v, outW, outH, x, y, r);
        return MapPtz(v, v.ptz[i], r[2] - r[0], r[3] - r[1], x - r[0], y - r[1], sx, sy);
    }
    default:
        *sx = x * srcW / w;
        *sy = y * srcH / h;
        return true;
    }
}

uint32_t FE_SubView(const FE_VIEW_PARAMS& v, uint32_t outW, uint32_t outH, double x, double y, double rect[4])
{
    if (v.view != FE_VIEW_QUAD) {
        rect[0] = rect[1] = 0;
        rect[2] = outW;
        rect[3] = outH;
        return 0;
    }
    const double hw = outW / 2.0, hh = outH / 2.0;
    const uint32_t col = x >= hw ? 1 : 0, row = y >= hh ? 1 : 0;
    rect[0] = col * hw;
    rect[1] = row * hh;
    rect[2] = rect[0] + hw;
    rect[3] = rect[1] + hh;
    return row * 2 + col;
}

void FE_PtzRay(uint32_t mount, const FE_PTZ& p, double w, double h, double x, double y, double dir[3])
{
    Vec3 f, r, d;
    PtzBasis(mount, p, &f, &r, &d);
    const double focal = (w / 2) / std::tan(p.fov / 2);
    const double u = x - w / 2, t = y - h / 2;
    dir[0] = f.x * focal + r.x * u + d.x * t;
    dir[1] = f.y * focal + r.y * u + d.y * t;
    dir[2] = f.z * focal + r.z * u + d.z * t;
}

bool FE_PtzProject(uint32_t mount, const FE_PTZ& p, double w, double h, const double dir[3], double* x, double* y)
{
    Vec3 f, r, d;
    PtzBasis(mount, p, &f, &r, &d);
    const double along = dir[0] * f.x + dir[1] * f.y + dir[2] * f.z;
    if (along <= 1e-9) {
        return false;
    }
    const double focal = (w / 2) / std::tan(p.fov / 2);
    *x = w / 2 + focal * (dir[0] * r.x + dir[1] * r.y + dir[2] * r.z) / along;
    *y = h / 2 + focal * (dir[0] * d.x + dir[1] * d.y + dir[2] * d.z) / along;
    return true;
}

void FE_InsetRect(uint32_t outW, uint32_t outH, double rect[4])
{
    const double w = std::floor(outW / 4.0), h = std::floor(outH / 4.0);
    rect[2] = outW - kInsetMargin;
    rect[3] = outH - kInsetMargin;
    rect[0] = rect[2] - w;
    rect[1] = rect[3] - h;
}
