#include "fisheye/fisheye_remap.h"

#include <algorithm>
#include <cmath>
#include <cstring>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include "heap/qmx_heap.h"
#include "korvalen_types.h"

namespace {

constexpr uint8_t kBlack[3] = {16, 128, 128};
constexpr uint8_t kFrameColour[3] = {210, 16, 146}; // light green
// The source is read in no order a cache can guess: the taps of the entry
// this far ahead are fetched while the current one is computed. The tables
// hold as many spare entries (pointing at the first pixel) past their end.
constexpr uint32_t kAhead = 256;

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

uint32_t TileCount(uint32_t w, uint32_t h)
{
    return ((w + kFeTileW - 1) / kFeTileW) * ((h + kFeTileH - 1) / kFeTileH);
}

// Calls f(x0, y0, tw, th) for the tiles of a w x h plane in table order.
template <class F> void ForTiles(uint32_t w, uint32_t h, F&& f)
{
    for (uint32_t y0 = 0; y0 < h; y0 += kFeTileH) {
        for (uint32_t x0 = 0; x0 < w; x0 += kFeTileW) {
            f(x0, y0, std::min(kFeTileW, w - x0), std::min(kFeTileH, h - y0));
        }
    }
}

void FreeTables(FE_REMAP* m)
{
    for (int p = 0; p < 3; ++p) {
        QMX_HeapFree(m->offset[p]);
        QMX_HeapFree(m->weights[p]);
        QMX_HeapFree(m->wholeTile[p]);
        m->offset[p] = nullptr;
        m->weights[p] = nullptr;
        m->wholeTile[p] = nullptr;
    }
    m->tableCapacity = 0;
    m->tileCapacity = 0;
}

bool Grow(FE_REMAP* m, uint32_t outW, uint32_t outH, uint32_t pictureBytes)
{
    const uint32_t entries = outW * outH, tiles = TileCount(outW, outH);
    if (entries > m->tableCapacity || tiles > m->tileCapacity) {
        FreeTables(m);
        // Chroma planes are a quarter of the luma plane and have at most as
        // many tiles.
        for (int p = 0; p < 3; ++p) {
            const uint32_t n = (p ? entries / 4 + outW + outH : entries) + kAhead;
            m->offset[p] = static_cast<uint32_t*>(QMX_HeapMalloc(n * sizeof(uint32_t)));
            m->weights[p] = static_cast<uint16_t*>(QMX_HeapMalloc(n * sizeof(uint16_t)));
            m->wholeTile[p] = static_cast<uint8_t*>(QMX_HeapMalloc(tiles));
            if (!m->offset[p] || !m->weights[p] || !m->wholeTile[p]) {
                FreeTables(m);
                return false;
            }
        }
        m->tableCapacity = entries;
        m->tileCapacity = tiles;
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

// Asks for the two source rows of a tap (integer arithmetic: the entry may be
// kFeNoSource, which points nowhere).
inline void Prefetch(const uint8_t* src, uint32_t pitch, uint32_t at)
{
    const uintptr_t p = reinterpret_cast<uintptr_t>(src) + at;
    __builtin_prefetch(reinterpret_cast<const void*>(p));
    __builtin_prefetch(reinterpret_cast<const void*>(p + pitch));
}

// Bilinear sample at p with fractions fx | fy << 8 in 1/256, rounded.
inline uint8_t Sample(const uint8_t* p, uint32_t pitch, uint32_t wt)
{
    const int fx = static_cast<int>(wt & 0xFF), fy = static_cast<int>(wt >> 8);
    const int top = p[0] * 256 + (p[1] - p[0]) * fx;
    const int bottom = p[pitch] * 256 + (p[pitch + 1] - p[pitch]) * fx;
    return static_cast<uint8_t>((top * 256 + (bottom - top) * fy + 32768) >> 16);
}

#if defined(__SSE2__)
inline uint16_t Pair(const uint8_t* p)
{
    uint16_t v;
    std::memcpy(&v, p, 2);
    return v;
}

// Eight samples of whole tiles at once, as 16-bit lanes: the sums of Sample
// (top and bottom exact in 16 bits, the last step in 32).
inline __m128i Sample8(const uint8_t* src, uint32_t pitch, const uint32_t* o, const uint16_t* k)
{
    const uint8_t* p[8];
    for (int i = 0; i < 8; ++i) {
        Prefetch(src, pitch, o[i + kAhead]);
        p[i] = src + o[i];
    }
    const __m128i t =
        _mm_set_epi16(static_cast<short>(Pair(p[7])), static_cast<short>(Pair(p[6])), static_cast<short>(Pair(p[5])),
                      static_cast<short>(Pair(p[4])), static_cast<short>(Pair(p[3])), static_cast<short>(Pair(p[2])),
                      static_cast<short>(Pair(p[1])), static_cast<short>(Pair(p[0])));
    const __m128i b = _mm_set_epi16(static_cast<short>(Pair(p[7] + pitch)), static_cast<short>(Pair(p[6] + pitch)),
                                    static_cast<short>(Pair(p[5] + pitch)), static_cast<short>(Pair(p[4] + pitch)),
                                    static_cast<short>(Pair(p[3] + pitch)), static_cast<short>(Pair(p[2] + pitch)),
                                    static_cast<short>(Pair(p[1] + pitch)), static_cast<short>(Pair(p[0] + pitch)));
    const __m128i lo = _mm_set1_epi16(0xFF);
    const __m128i w = _mm_loadu_si128(reinterpret_cast<const __m128i*>(k));
    const __m128i fx = _mm_and_si128(w, lo), fy = _mm_srli_epi16(w, 8);
    auto lerp = [&](__m128i pair) {
        const __m128i a = _mm_and_si128(pair, lo), c = _mm_srli_epi16(pair, 8);
        return _mm_add_epi16(_mm_slli_epi16(a, 8), _mm_mullo_epi16(_mm_sub_epi16(c, a), fx));
    };
    const __m128i top = lerp(t), bottom = lerp(b);
    const __m128i gy = _mm_sub_epi16(_mm_set1_epi16(256), fy);
    const __m128i tl = _mm_mullo_epi16(top, gy), th = _mm_mulhi_epu16(top, gy);
    const __m128i bl = _mm_mullo_epi16(bottom, fy), bh = _mm_mulhi_epu16(bottom, fy);
    const __m128i half = _mm_set1_epi32(32768);
    const __m128i r0 = _mm_add_epi32(_mm_add_epi32(_mm_unpacklo_epi16(tl, th), _mm_unpacklo_epi16(bl, bh)), half);
    const __m128i r1 = _mm_add_epi32(_mm_add_epi32(_mm_unpackhi_epi16(tl, th), _mm_unpackhi_epi16(bl, bh)), half);
    return _mm_packs_epi32(_mm_srli_epi32(r0, 16), _mm_srli_epi32(r1, 16));
}
#endif

// One tile of one plane. Checked tiles hold pixels without a source.
template <bool kChecked>
void PlaneTile(const uint8_t* __restrict src, uint32_t pitch, const uint32_t* __restrict o,
               const uint16_t* __restrict k, uint8_t* __restrict d, uint32_t dstPitch, uint32_t tw, uint32_t th,
               uint8_t black)
{
    for (uint32_t y = 0; y < th; ++y, o += tw, k += tw, d += dstPitch) {
        uint32_t x = 0;
#if defined(__SSE2__)
        for (; !kChecked && x + 16 <= tw; x += 16) {
            const __m128i v =
                _mm_packus_epi16(Sample8(src, pitch, o + x, k + x), Sample8(src, pitch, o + x + 8, k + x + 8));
            _mm_storeu_si128(reinterpret_cast<__m128i*>(d + x), v);
        }
#endif
        for (; x < tw; ++x) {
            Prefetch(src, pitch, o[x + kAhead]);
            if (kChecked && o[x] == kFeNoSource) {
                d[x] = black;
                continue;
            }
            d[x] = Sample(src + o[x], pitch, k[x]);
        }
    }
}

// U and V together when their pitches agree: one table read serves both.
template <bool kChecked>
void ChromaTile(const uint8_t* __restrict u, const uint8_t* __restrict v, uint32_t pitch, const uint32_t* __restrict o,
                const uint16_t* __restrict k, uint8_t* __restrict du, uint8_t* __restrict dv, uint32_t dstPitch,
                uint32_t tw, uint32_t th)
{
    for (uint32_t y = 0; y < th; ++y, o += tw, k += tw, du += dstPitch, dv += dstPitch) {
        uint32_t x = 0;
#if defined(__SSE2__)
        for (; !kChecked && x + 8 <= tw; x += 8) {
            _mm_storel_epi64(reinterpret_cast<__m128i*>(du + x),
                             _mm_packus_epi16(Sample8(u, pitch, o + x, k + x), _mm_setzero_si128()));
            _mm_storel_epi64(reinterpret_cast<__m128i*>(dv + x),
                             _mm_packus_epi16(Sample8(v, pitch, o + x, k + x), _mm_setzero_si128()));
        }
#endif
        for (; x < tw; ++x) {
            Prefetch(u, pitch, o[x + kAhead]);
            Prefetch(v, pitch, o[x + kAhead]);
            if (kChecked && o[x] == kFeNoSource) {
                du[x] = kBlack[1];
                dv[x] = kBlack[2];
                continue;
            }
            du[x] = Sample(u + o[x], pitch, k[x]);
            dv[x] = Sample(v + o[x], pitch, k[x]);
        }
    }
}

void ApplyPlane(const uint8_t* src, uint32_t pitch, const uint32_t* off, const uint16_t* wt, const uint8_t* whole,
                uint8_t* dst, uint32_t dstPitch, uint32_t w, uint32_t h, uint8_t black)
{
    ForTiles(w, h, [&](uint32_t x0, uint32_t y0, uint32_t tw, uint32_t th) {
        uint8_t* d = dst + static_cast<size_t>(y0) * dstPitch + x0;
        if (*whole++) {
            PlaneTile<false>(src, pitch, off, wt, d, dstPitch, tw, th, black);
        } else {
            PlaneTile<true>(src, pitch, off, wt, d, dstPitch, tw, th, black);
        }
        off += tw * th;
        wt += tw * th;
    });
}

void ApplyChroma(const uint8_t* u, const uint8_t* v, uint32_t pitch, const uint32_t* off, const uint16_t* wt,
                 const uint8_t* whole, uint8_t* du, uint8_t* dv, uint32_t dstPitch, uint32_t w, uint32_t h)
{
    ForTiles(w, h, [&](uint32_t x0, uint32_t y0, uint32_t tw, uint32_t th) {
        const size_t at = static_cast<size_t>(y0) * dstPitch + x0;
        if (*whole++) {
            ChromaTile<false>(u, v, pitch, off, wt, du + at, dv + at, dstPitch, tw, th);
        } else {
            ChromaTile<true>(u, v, pitch, off, wt, du + at, dv + at, dstPitch, tw, th);
        }
        off += tw * th;
        wt += tw * th;
    });
}

} // namespace

uint32_t FE_BuildRemap(FE_REMAP* m, const FE_VIEW_PARAMS& v, uint32_t srcW, uint32_t srcH, const uint32_t pitch[3],
                       uint32_t outW, uint32_t outH)
{
    if (srcW < 4 || srcH < 4 || outW < 2 || outH < 2) {
        return KORVALEN_ERR_INVALID_PARAM;
    }
    const uint32_t cw = (outW + 1) / 2, ch = (outH + 1) / 2;
    if (!Grow(m, outW, outH, outW * outH + 2 * cw * ch)) {
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

    size_t i = 0;
    uint32_t* const* off = m->offset;
    uint16_t* const* wt = m->weights;
    uint8_t* whole = m->wholeTile[0];
    ForTiles(outW, outH, [&](uint32_t x0, uint32_t y0, uint32_t tw, uint32_t th) {
        uint8_t all = 1;
        for (uint32_t y = y0; y < y0 + th; ++y) {
            for (uint32_t x = x0; x < x0 + tw; ++x, ++i) {
                double sx = 0, sy = 0;
                off[0][i] = kFeNoSource;
                wt[0][i] = 0;
                if (FE_MapPoint(v, srcW, srcH, outW, outH, x + 0.5, y + 0.5, &sx, &sy)) {
                    Entry(sx, sy, srcW, srcH, pitch[0], &off[0][i], &wt[0][i]);
                }
                all &= off[0][i] != kFeNoSource ? 1 : 0;
            }
        }
        *whole++ = all;
    });
    // Chroma samples sit at the centre of each 2 x 2 luma block.
    const uint32_t scw = (srcW + 1) / 2, sch = (srcH + 1) / 2;
    i = 0;
    whole = m->wholeTile[1];
    ForTiles(cw, ch, [&](uint32_t x0, uint32_t y0, uint32_t tw, uint32_t th) {
        uint8_t all = 1;
        for (uint32_t y = y0; y < y0 + th; ++y) {
            for (uint32_t x = x0; x < x0 + tw; ++x, ++i) {
                double sx = 0, sy = 0;
                off[1][i] = off[2][i] = kFeNoSource;
                wt[1][i] = wt[2][i] = 0;
                if (FE_MapPoint(v, srcW, srcH, outW, outH, 2.0 * x + 1, 2.0 * y + 1, &sx, &sy)) {
                    Entry(sx / 2, sy / 2, scw, sch, pitch[1], &off[1][i], &wt[1][i]);
                    Entry(sx / 2, sy / 2, scw, sch, pitch[2], &off[2][i], &wt[2][i]);
                }
                all &= off[1][i] != kFeNoSource ? 1 : 0;
            }
        }
        *whole++ = all;
    });
    for (int p = 0; p < 3; ++p) {
        std::fill_n(off[p] + (p ? i : static_cast<size_t>(outW) * outH), kAhead, 0u);
    }
    std::memcpy(m->wholeTile[2], m->wholeTile[1], TileCount(cw, ch));
    ++m->builds;
    return KORVALEN_OK;
}

void FE_ApplyRemap(FE_REMAP* m, const uint8_t* const src[3])
{
    const uint32_t cw = (m->outW + 1) / 2, ch = (m->outH + 1) / 2;
    ApplyPlane(src[0], m->srcPitch[0], m->offset[0], m->weights[0], m->wholeTile[0], m->planes[0], m->pitches[0],
               m->outW, m->outH, kBlack[0]);
    if (m->srcPitch[1] == m->srcPitch[2]) {
        ApplyChroma(src[1], src[2], m->srcPitch[1], m->offset[1], m->weights[1], m->wholeTile[1], m->planes[1],
                    m->planes[2], m->pitches[1], cw, ch);
        return;
    }
    for (int p = 1; p < 3; ++p) {
        ApplyPlane(src[p], m->srcPitch[p], m->offset[p], m->weights[p], m->wholeTile[p], m->planes[p], m->pitches[p],
                   cw, ch, kBlack[p]);
    }
}

void FE_ReleaseRemap(FE_REMAP* m)
{
    FreeTables(m);
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
