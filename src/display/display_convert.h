// YUV 4:2:0 to BGRA with scaling, crop and picture adjustment (libswscale).
#pragma once

#include <cstdint>

#include "display/display_base.h"

struct SwsContext;

class DispConverter {
public:
    ~DispConverter();
    // Converts the src part of pic, scaled to dstW x dstH, into dst.
    // 0, or 528 when the conversion cannot be set up.
    uint32_t ToBgra(const DISP_PICTURE& pic, const DISP_RECT& src, const int32_t adjust[4], uint8_t* dst, int dstStride,
                    int dstW, int dstH);

private:
    bool Rotate(const DISP_PICTURE& pic, const DISP_RECT& src, int32_t hue);

    SwsContext* m_ctx = nullptr;
    int32_t m_applied[3] = {-1, -1, -1};
    uint8_t* m_chroma = nullptr; // hue-rotated U and V
    uint32_t m_chromaSize = 0;
};
