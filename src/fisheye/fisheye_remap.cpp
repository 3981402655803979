#include "fisheye/fisheye_remap.h"

#include <algorithm>
#include <cmath>
#include <cstring>

#include "korvalen_types.h"
#include "platform/qmx_heap.h"

namespace {

constexpr uint8_t kBlack[3] = {16, 128, 128};
constexpr uint8_t kFrameColour[3] = {210, 16, 146}; // light green

// Table entry for a continuous source point in a plane of w x h pixels.
void Entry(double sx, double sy, uint32_t w, uint32_t h, uint32_t pitch, uint32_t* off, uint16_t* wt)
{
    if (sx < 0 || sy < 0 || sx > w || sy > h) {
        *off = kFeNoSource;
        *wt = 0;
        return;
    }
    // Pixel centres lie at i + 0.5; keep both taps inside the plane.
    double px = std::clamp(sx - 0.5, 0.0, static_cast<double>(w - 1));
    double py = std::clamp(sy - 0.5, 0.0, static_cast<double>(h - 1));
    auto x0 = static_cast<uint32_t>(px), y0 = static_cast<uint32_t>(py);
    x0 = std::min(x0, w - 2);
    y0 = std::min(y0, h >= 2 ? h - 2 : 0);
    const auto fx = static_cast<uint32_t>(std::lround((px - x0) * 256));
    const auto fy = static_cast<uint32_t>(std::lround((py - y0) * 256));
    *off = y0 * pitch + x0;
    *wt = static_cast<uint16_t>(std::min(fx, 255u) | std::min(fy, 255u) << 8);
}

bool Grow(FE_REMAP* m, uint32_t entries, uint32_t pictureBytes)
{
    if (entries > m->tableCapacity) {
        for (int p = 0; p < 3; ++p) {
            QMX_HeapFree(m->offset[p]);
            QMX_HeapFree(m->weights[p]);
            m->offset[p] = nullptr;
            m->weights[p] = nullptr;
        }
        m->tableCapacity = 0;
        for (int p = 0; p < 3; ++p) {
            const uint32_t n = p ? entries / 4 + 1 : entries;
            m->offset[p] = static_cast<uint32_t*>(QMX_HeapMalloc(n * sizeof(uint32_t)));
            m->weights[p] = static_cast<uint16_t*>(QMX_HeapMalloc(n * sizeof(uint16_t)));
            if (!m->offset[p] || !m->weights[p]) {
                return false;
            }
        }
        m->tableCapacity = entries;
        ++m->allocations;
    }
    if (pictureBytes > m->pictureCapacity) {
        QMX_HeapFree(m->picture);
        m->picture = static_cast<uint8_t*>(QMX_HeapMalloc(pictureBytes));
        m->pictureCapacity = m->picture ? pictureBytes : 0;
        if (!m->picture) {
            return false;
        }
        ++m->allocations;
    }
    return true;
}

void ApplyPlane(const uint8_t* src, uint32_t pitch, const uint32_t* off, const uint16_t* wt, uint8_t* dst,
                uint32_t dstPitch, uint32_t w, uint32_t h, uint8_t black)
{
    for (uint32_t y = 0; y < h; ++y) {
        const uint32_t* __restrict o = off + static_cast<size_t>(y) * w;
        const uint16_t* __restrict k = wt + static_cast<size_t>(y) * w;
        uint8_t* __restrict d = dst + static_cast<size_t>(y) * dstPitch;
        for (uint32_t x = 0; x < w; ++x) {
            const uint32_t at = o[x];
            if (at == kFeNoSource) {
                d[x] = black;
                continue;
            }
            const uint8_t* p = src + at;
            const int fx = k[x] & 0xFF, fy = k[x] >> 8;
            const int top = p[0] * 256 + (p[1] - p[0]) * fx;
            const int bottom = p[pitch] * 256 + (p[pitch + 1] - p[pitch]) * fx;
            d[x] = static_cast<uint8_t>((top * 256 + (bottom - top) * fy + 32768) >> 16);
        }
    }
}

// U and V with one table walk (their pitches agree): one read of the table
// serves both planes.
void ApplyChroma(const uint8_t* u, const uint8_t* v, uint32_t pitch, const uint32_t* off, const uint16_t* wt,
                 uint8_t* du, uint8_t* dv, uint32_t dstPitch, uint32_t w, uint32_t h)
{
    for (uint32_t y = 0; y < h; ++y) {
        const uint32_t* __restrict o = off + static_cast<size_t>(y) * w;
        const uint16_t* __restrict k = wt + static_cast<size_t>(y) * w;
        uint8_t* __restrict a = du + static_cast<size_t>(y) * dstPitch;
        uint8_t* __restrict b = dv + static_cast<size_t>(y) * dstPitch;
        for (uint32_t x = 0; x < w; ++x) {
            const uint32_t at = o[x];
            if (at == kFeNoSource) {
                a[x] = kBlack[1];
                b[x] = kBlack[2];
                continue;
            }
            const int fx = k[x] & 0xFF, fy = k[x] >> 8;
            const uint8_t* p = u + at;
            const uint8_t* q = v + at;
            const int pt = p[0] * 256 + (p[1] - p[0]) * fx;
            const int pb = p[pitch] * 256 + (p[pitch + 1] - p[pitch]) * fx;
            const int qt = q[0] * 256 + (q[1] - q[0]) * fx;
            const int qb = q[pitch] * 256 + (q[pitch + 1] - q[pitch]) * fx;
            a[x] = static_cast<uint8_t>((pt * 256 + (pb - pt) * fy + 32768) >> 16);
            b[x] = static_cast<uint8_t>((qt * 256 + (qb - qt) * fy + 32768) >> 16);
        }
    }
}

} // namespace

uint32_t FE_BuildRemap(FE_REMAP* m, const FE_VIEW_PARAMS& v, uint32_t srcW, uint32_t srcH, const uint32_t pitch[3],
                       uint32_t outW, uint32_t outH)
{
    if (srcW < 4 || srcH < 4 || outW < 2 || outH < 2) {
        return KORVALEN_ERR_INVALID_PARAM;
    }
    const uint32_t cw = (outW + 1) / 2, ch = (outH + 1) / 2;
    if (!Grow(m, outW * outH, outW * outH + 2 * cw * ch)) {
        return KORVALEN_ERR_NO_MEMORY;
    }
    m->srcW = srcW;
    m->srcH = srcH;
    std::memcpy(m->srcPitch, pitch, sizeof m->srcPitch);
    m->outW = outW;
    m->outH = outH;
    m->planes[0] = m->picture;
    m->planes[1] = m->picture + outW * outH;
    m->planes[2] = m->planes[1] + cw * ch;
    m->pitches[0] = outW;
    m->pitches[1] = m->pitches[2] = cw;

    const uint32_t scw = (srcW + 1) / 2, sch = (srcH + 1) / 2;
    for (uint32_t y = 0; y < outH; ++y) {
        for (uint32_t x = 0; x < outW; ++x) {
            double sx = 0, sy = 0;
            const size_t i = static_cast<size_t>(y) * outW + x;
            if (!FE_MapPoint(v, srcW, srcH, outW, outH, x + 0.5, y + 0.5, &sx, &sy)) {
                m->offset[0][i] = kFeNoSource;
                m->weights[0][i] = 0;
                continue;
            }
            Entry(sx, sy, srcW, srcH, pitch[0], &m->offset[0][i], &m->weights[0][i]);
        }
    }
    // Chroma samples sit at the centre of each 2 x 2 luma block.
    for (uint32_t y = 0; y < ch; ++y) {
        for (uint32_t x = 0; x < cw; ++x) {
            double sx = 0, sy = 0;
            const size_t i = static_cast<size_t>(y) * cw + x;
            if (!FE_MapPoint(v, srcW, srcH, outW, outH, 2.0 * x + 1, 2.0 * y + 1, &sx, &sy)) {
                m->offset[1][i] = m->offset[2][i] = kFeNoSource;
                m->weights[1][i] = m->weights[2][i] = 0;
                continue;
            }
            Entry(sx / 2, sy / 2, scw, sch, pitch[1], &m->offset[1][i], &m->weights[1][i]);
            Entry(sx / 2, sy / 2, scw, sch, pitch[2], &m->offset[2][i], &m->weights[2][i]);
        }
    }
    ++m->builds;
    return KORVALEN_OK;
}

void FE_ApplyRemap(FE_REMAP* m, const uint8_t* const src[3])
{
    const uint32_t cw = (m->outW + 1) / 2, ch = (m->outH + 1) / 2;
    ApplyPlane(src[0], m->srcPitch[0], m->offset[0], m->weights[0], m->planes[0], m->pitches[0], m->outW, m->outH,
               kBlack[0]);
    if (m->srcPitch[1] == m->srcPitch[2]) {
        ApplyChroma(src[1], src[2], m->srcPitch[1], m->offset[1], m->weights[1], m->planes[1], m->planes[2],
                    m->pitches[1], cw, ch);
        return;
    }
    for (int p = 1; p < 3; ++p) {
        ApplyPlane(src[p], m->srcPitch[p], m->offset[p], m->weights[p], m->planes[p], m->pitches[p], cw, ch, kBlack[p]);
    }
}

void FE_ReleaseRemap(FE_REMAP* m)
{
    for (int p = 0; p < 3; ++p) {
        QMX_HeapFree(m->offset[p]);
        QMX_HeapFree(m->weights[p]);
    }
    QMX_HeapFree(m->picture);
    *m = FE_REMAP{};
}

void FE_DrawFrame(FE_REMAP* m, const double rect[4], uint32_t thickness)
{
    if (!m->picture) {
        return;
    }
    auto clampX = [&](double v) { return static_cast<int32_t>(std::clamp(v, 0.0, static_cast<double>(m->outW))); };
    auto clampY = [&](double v) { return static_cast<int32_t>(std::clamp(v, 0.0, static_cast<double>(m->outH))); };
    const int32_t l = clampX(rect[0]), t = clampY(rect[1]), r = clampX(rect[2]), b = clampY(rect[3]);
    const auto th = static_cast<int32_t>(thickness);
    auto fill = [&](int32_t x0, int32_t y0, int32_t x1, int32_t y1) {
        x0 = std::max(x0, l);
        y0 = std::max(y0, t);
        x1 = std::min(x1, r);
        y1 = std::min(y1, b);
        for (int32_t y = y0; y < y1; ++y) {
            std::memset(m->planes[0] + static_cast<size_t>(y) * m->pitches[0] + x0, kFrameColour[0],
                        x1 > x0 ? static_cast<size_t>(x1 - x0) : 0);
        }
        for (int32_t y = y0 / 2; y < (y1 + 1) / 2; ++y) {
            for (int p = 1; p < 3; ++p) {
                std::memset(m->planes[p] + static_cast<size_t>(y) * m->pitches[p] + x0 / 2, kFrameColour[p],
                            (x1 + 1) / 2 > x0 / 2 ? static_cast<size_t>((x1 + 1) / 2 - x0 / 2) : 0);
            }
        }
    };
    fill(l, t, r, t + th);
    fill(l, b - th, r, b);
    fill(l, t, l + th, b);
    fill(r - th, t, r, b);
}
