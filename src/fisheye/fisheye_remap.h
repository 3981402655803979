// Remap tables: for every pixel of the shown picture, where in the source it
// comes from (offset and bilinear weights), for the luma and the chroma
// planes. Built when the view changes; applying one is a plain table walk
// with no allocation and no trigonometry.
#pragma once

#include <cstdint>

#include "fisheye/fisheye_view.h"

// A remap table and the picture it writes. Memory grows when the output or
// the source grows and is never given back before FE_ReleaseRemap.
//
// Entries are stored tile by tile (kFeTileW x kFeTileH output pixels, row by
// row inside a tile, edge tiles cut short) so that the source pixels a tile
// reads stay in the cache while it is written; a per-tile flag says whether
// every pixel of the tile has a source, so most tiles run without checks.
struct FE_REMAP {
    uint32_t srcW = 0, srcH = 0;
    uint32_t srcPitch[3] = {};
    uint32_t outW = 0, outH = 0;
    uint32_t* offset[3] = {};   // source offset of the top-left tap; kFeNoSource for black
    uint16_t* weights[3] = {};  // fx | fy << 8, in 1/256
    uint8_t* wholeTile[3] = {}; // 1 where no entry of the tile is kFeNoSource
    uint32_t tableCapacity = 0; // luma entries the arrays hold
    uint32_t tileCapacity = 0;  // luma tiles the flag arrays hold
    uint8_t* picture = nullptr; // I420 output, outW x outH
    uint32_t pictureCapacity = 0;
    uint8_t* planes[3] = {};
    uint32_t pitches[3] = {};
    uint32_t allocations = 0; // times memory was (re)allocated
    uint32_t builds = 0;      // times a table was computed
};

constexpr uint32_t kFeTileW = 32, kFeTileH = 16;
constexpr uint32_t kFeNoSource = 0xFFFFFFFFu;

// Computes the table of view v for a source of srcW x srcH with the given
// plane pitches into an outW x outH picture. 0, 3 on no memory, 2 for sizes
// of 0 or a source narrower than 2 pixels.
uint32_t FE_BuildRemap(FE_REMAP* m, const FE_VIEW_PARAMS& v, uint32_t srcW, uint32_t srcH, const uint32_t pitch[3],
                       uint32_t outW, uint32_t outH);

// Writes the output picture from a source of the size and pitches the table
// was built for.
void FE_ApplyRemap(FE_REMAP* m, const uint8_t* const src[3]);

void FE_ReleaseRemap(FE_REMAP* m);

// Draws a rectangle outline (output pixels, inclusive left/top, exclusive
// right/bottom) of the given thickness in a light colour on the output.
void FE_DrawFrame(FE_REMAP* m, const double rect[4], uint32_t thickness);
