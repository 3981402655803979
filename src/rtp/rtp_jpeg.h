// JPEG headers for RTP JPEG payloads (RFC 2435): the stream carries only the
// scan data, the receiver writes SOI, tables, frame and scan headers itself.
#pragma once

#include <cstdint>

struct RTP_JPEG_PARAMS {
    uint8_t type;           // 0/64 4:2:2, 1/65 4:2:0
    uint8_t q;              // 1..127 tables from Q, 128.. tables in band
    uint16_t width;         // pixels
    uint16_t height;        // pixels
    uint16_t restart;       // restart interval, 0 = none
    const uint8_t* qtables; // in-band tables (zigzag order), null when none
    uint32_t qtablesLen;
    uint8_t precision; // bit n: table n has 16-bit entries
};

// Largest header MakeHeaders writes.
constexpr uint32_t kRtpJpegHeaderMax = 1024;

// Luma and chroma tables for a Q factor, in zigzag order.
void RTP_JpegMakeTables(uint8_t q, uint8_t luma[64], uint8_t chroma[64]);

// Writes the headers into out; returns their length, 0 when the parameters
// cannot describe a baseline JPEG or out is too small.
uint32_t RTP_JpegMakeHeaders(const RTP_JPEG_PARAMS* p, uint8_t* out, uint32_t cap);
