#include "display/display_convert.h"

#include <cmath>

extern "C" {
#include <libswscale/swscale.h>
}

#include "heap/qmx_heap.h"

namespace {
constexpr int32_t kNeutralHue = 10;
constexpr double kDegreesPerHueStep = 18.0; // 0..20 covers -180..+180 degrees
} // namespace

DispConverter::~DispConverter()
{
    sws_freeContext(m_ctx);
    QMX_HeapFree(m_chroma);
}

bool DispConverter::Rotate(const DISP_PICTURE& pic, const DISP_RECT& src, int32_t hue)
{
    const uint32_t cw = static_cast<uint32_t>(src.Width() + 1) / 2;
    const uint32_t ch = static_cast<uint32_t>(src.Height() + 1) / 2;
    const uint32_t need = 2 * cw * ch;
    if (need > m_chromaSize) {
        QMX_HeapFree(m_chroma);
        m_chroma = static_cast<uint8_t*>(QMX_HeapMalloc(need));
        m_chromaSize = m_chroma ? need : 0;
        if (!m_chroma) {
            return false;
        }
    }
    const double a = (hue - kNeutralHue) * kDegreesPerHueStep * M_PI / 180.0;
    const int c = static_cast<int>(std::lround(std::cos(a) * 256));
    const int s = static_cast<int>(std::lround(std::sin(a) * 256));
    uint8_t* u = m_chroma;
    uint8_t* v = m_chroma + cw * ch;
    for (uint32_t y = 0; y < ch; ++y) {
        const uint8_t* su = pic.planes[1] + (src.top / 2 + y) * pic.lineSizes[1] + src.left / 2;
        const uint8_t* sv = pic.planes[2] + (src.top / 2 + y) * pic.lineSizes[2] + src.left / 2;
        for (uint32_t x = 0; x < cw; ++x) {
            int du = su[x] - 128, dv = sv[x] - 128;
            int nu = (du * c - dv * s) / 256 + 128;
            int nv = (du * s + dv * c) / 256 + 128;
            u[y * cw + x] = static_cast<uint8_t>(nu < 0 ? 0 : (nu > 255 ? 255 : nu));
            v[y * cw + x] = static_cast<uint8_t>(nv < 0 ? 0 : (nv > 255 ? 255 : nv));
        }
    }
    return true;
}

uint32_t DispConverter::ToBgra(const DISP_PICTURE& pic, const DISP_RECT& srcIn, const int32_t adjust[4], uint8_t* dst,
                               int dstStride, int dstW, int dstH)
{
    // Chroma is subsampled: the crop starts on even pixels.
    DISP_RECT src = srcIn;
    src.left &= ~1;
    src.top &= ~1;
    const int sw = src.Width(), sh = src.Height();
    if (sw <= 0 || sh <= 0 || dstW <= 0 || dstH <= 0) {
        return 528;
    }
    m_ctx = sws_getCachedContext(m_ctx, sw, sh, AV_PIX_FMT_YUV420P, dstW, dstH, AV_PIX_FMT_BGRA, SWS_BILINEAR, nullptr,
                                 nullptr, nullptr);
    if (!m_ctx) {
        return 528;
    }
    // Brightness, contrast and saturation are the converter's own colour
    // adjustments (16.16 fixed point; 100 % leaves the picture as it is).
    if (adjust[0] != m_applied[0] || adjust[1] != m_applied[1] || adjust[2] != m_applied[2]) {
        const int* coefs = sws_getCoefficients(SWS_CS_ITU601);
        sws_setColorspaceDetails(m_ctx, coefs, 0, coefs, 1, ((adjust[0] - 100) << 16) / 200, (adjust[1] << 16) / 100,
                                 (adjust[2] << 16) / 100);
        m_applied[0] = adjust[0];
        m_applied[1] = adjust[1];
        m_applied[2] = adjust[2];
    }
    const uint8_t* planes[3] = {pic.planes[0] + src.top * pic.lineSizes[0] + src.left,
                                pic.planes[1] + (src.top / 2) * pic.lineSizes[1] + src.left / 2,
                                pic.planes[2] + (src.top / 2) * pic.lineSizes[2] + src.left / 2};
    int strides[3] = {static_cast<int>(pic.lineSizes[0]), static_cast<int>(pic.lineSizes[1]),
                      static_cast<int>(pic.lineSizes[2])};
    if (adjust[3] != kNeutralHue && Rotate(pic, src, adjust[3])) {
        const int cw = (sw + 1) / 2, ch = (sh + 1) / 2;
        planes[1] = m_chroma;
        planes[2] = m_chroma + cw * ch;
        strides[1] = strides[2] = cw;
    }
    uint8_t* out[1] = {dst};
    int outStride[1] = {dstStride};
    sws_scale(m_ctx, planes, strides, 0, sh, out, outStride);
    return 0;
}
