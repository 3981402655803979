// JPEG header generation for RTP JPEG frames: quantization tables from Q or
// from the packet, the standard Huffman tables, optional restart interval.
#include "rtp/rtp_jpeg.h"

namespace {

// Natural-order position of each zigzag coefficient.
const uint8_t kZigzag[64] = {0,  1,  8,  16, 9,  2,  3,  10, 17, 24, 32, 25, 18, 11, 4,  5,  12, 19, 26, 33, 40, 48,
                             41, 34, 27, 20, 13, 6,  7,  14, 21, 28, 35, 42, 49, 56, 57, 50, 43, 36, 29, 22, 15, 23,
                             30, 37, 44, 51, 58, 59, 52, 45, 38, 31, 39, 46, 53, 60, 61, 54, 47, 55, 62, 63};

// Quality-50 tables of the JPEG standard, natural order.
const uint8_t kLumaQuant[64] = {16, 11, 10, 16, 24,  40,  51,  61,  12, 12, 14, 19, 26,  58,  60,  55,
                                14, 13, 16, 24, 40,  57,  69,  56,  14, 17, 22, 29, 51,  87,  80,  62,
                                18, 22, 37, 56, 68,  109, 103, 77,  24, 35, 55, 64, 81,  104, 113, 92,
                                49, 64, 78, 87, 103, 121, 120, 101, 72, 92, 95, 98, 112, 100, 103, 99};
const uint8_t kChromaQuant[64] = {17, 18, 24, 47, 99, 99, 99, 99, 18, 21, 26, 66, 99, 99, 99, 99,
                                  24, 26, 56, 99, 99, 99, 99, 99, 47, 66, 99, 99, 99, 99, 99, 99,
                                  99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99,
                                  99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99};

// Standard Huffman tables: code counts per length, then symbols.
const uint8_t kLumDcCodelens[16] = {0, 1, 5, 1, 1, 1, 1, 1, 1, 0, 0, 0, 0, 0, 0, 0};
const uint8_t kLumDcSymbols[12] = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11};
const uint8_t kLumAcCodelens[16] = {0, 2, 1, 3, 3, 2, 4, 3, 5, 5, 4, 4, 0, 0, 1, 0x7d};
const uint8_t kLumAcSymbols[162] = {
    0x01, 0x02, 0x03, 0x00, 0x04, 0x11, 0x05, 0x12, 0x21, 0x31, 0x41, 0x06, 0x13, 0x51, 0x61, 0x07, 0x22, 0x71,
    0x14, 0x32, 0x81, 0x91, 0xa1, 0x08, 0x23, 0x42, 0xb1, 0xc1, 0x15, 0x52, 0xd1, 0xf0, 0x24, 0x33, 0x62, 0x72,
    0x82, 0x09, 0x0a, 0x16, 0x17, 0x18, 0x19, 0x1a, 0x25, 0x26, 0x27, 0x28, 0x29, 0x2a, 0x34, 0x35, 0x36, 0x37,
    0x38, 0x39, 0x3a, 0x43, 0x44, 0x45, 0x46, 0x47, 0x48, 0x49, 0x4a, 0x53, 0x54, 0x55, 0x56, 0x57, 0x58, 0x59,
    0x5a, 0x63, 0x64, 0x65, 0x66, 0x67, 0x68, 0x69, 0x6a, 0x73, 0x74, 0x75, 0x76, 0x77, 0x78, 0x79, 0x7a, 0x83,
    0x84, 0x85, 0x86, 0x87, 0x88, 0x89, 0x8a, 0x92, 0x93, 0x94, 0x95, 0x96, 0x97, 0x98, 0x99, 0x9a, 0xa2, 0xa3,
    0xa4, 0xa5, 0xa6, 0xa7, 0xa8, 0xa9, 0xaa, 0xb2, 0xb3, 0xb4, 0xb5, 0xb6, 0xb7, 0xb8, 0xb9, 0xba, 0xc2, 0xc3,
    0xc4, 0xc5, 0xc6, 0xc7, 0xc8, 0xc9, 0xca, 0xd2, 0xd3, 0xd4, 0xd5, 0xd6, 0xd7, 0xd8, 0xd9, 0xda, 0xe1, 0xe2,
    0xe3, 0xe4, 0xe5, 0xe6, 0xe7, 0xe8, 0xe9, 0xea, 0xf1, 0xf2, 0xf3, 0xf4, 0xf5, 0xf6, 0xf7, 0xf8, 0xf9, 0xfa};
const uint8_t kChmDcCodelens[16] = {0, 3, 1, 1, 1, 1, 1, 1, 1, 1, 1, 0, 0, 0, 0, 0};
const uint8_t kChmDcSymbols[12] = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11};
const uint8_t kChmAcCodelens[16] = {0, 2, 1, 2, 4, 4, 3, 4, 7, 5, 4, 4, 0, 1, 2, 0x77};
const uint8_t kChmAcSymbols[162] = {
    0x00, 0x01, 0x02, 0x03, 0x11, 0x04, 0x05, 0x21, 0x31, 0x06, 0x12, 0x41, 0x51, 0x07, 0x61, 0x71, 0x13, 0x22,
    0x32, 0x81, 0x08, 0x14, 0x42, 0x91, 0xa1, 0xb1, 0xc1, 0x09, 0x23, 0x33, 0x52, 0xf0, 0x15, 0x62, 0x72, 0xd1,
    0x0a, 0x16, 0x24, 0x34, 0xe1, 0x25, 0xf1, 0x17, 0x18, 0x19, 0x1a, 0x26, 0x27, 0x28, 0x29, 0x2a, 0x35, 0x36,
    0x37, 0x38, 0x39, 0x3a, 0x43, 0x44, 0x45, 0x46, 0x47, 0x48, 0x49, 0x4a, 0x53, 0x54, 0x55, 0x56, 0x57, 0x58,
    0x59, 0x5a, 0x63, 0x64, 0x65, 0x66, 0x67, 0x68, 0x69, 0x6a, 0x73, 0x74, 0x75, 0x76, 0x77, 0x78, 0x79, 0x7a,
    0x82, 0x83, 0x84, 0x85, 0x86, 0x87, 0x88, 0x89, 0x8a, 0x92, 0x93, 0x94, 0x95, 0x96, 0x97, 0x98, 0x99, 0x9a,
    0xa2, 0xa3, 0xa4, 0xa5, 0xa6, 0xa7, 0xa8, 0xa9, 0xaa, 0xb2, 0xb3, 0xb4, 0xb5, 0xb6, 0xb7, 0xb8, 0xb9, 0xba,
    0xc2, 0xc3, 0xc4, 0xc5, 0xc6, 0xc7, 0xc8, 0xc9, 0xca, 0xd2, 0xd3, 0xd4, 0xd5, 0xd6, 0xd7, 0xd8, 0xd9, 0xda,
    0xe2, 0xe3, 0xe4, 0xe5, 0xe6, 0xe7, 0xe8, 0xe9, 0xea, 0xf2, 0xf3, 0xf4, 0xf5, 0xf6, 0xf7, 0xf8, 0xf9, 0xfa};

// Bounded writer: every write checks the room left, a failed one sticks.
struct Writer {
    uint8_t* out;
    uint32_t cap;
    uint32_t len = 0;
    bool ok = true;

    void Bytes(const uint8_t* p, uint32_t n)
    {
        if (!ok || n > cap - len) {
            ok = false;
            return;
        }
        for (uint32_t i = 0; i < n; ++i) {
            out[len + i] = p[i];
        }
        len += n;
    }
    void Byte(uint32_t v)
    {
        const uint8_t b = static_cast<uint8_t>(v);
        Bytes(&b, 1);
    }
    void Be16(uint32_t v)
    {
        Byte(v >> 8);
        Byte(v);
    }
};

void WriteQuant(Writer& w, uint32_t id, const uint8_t* table, bool wide)
{
    const uint32_t n = wide ? 128 : 64;
    w.Be16(0xFFDB);
    w.Be16(3 + n);
    w.Byte((wide ? 0x10 : 0x00) | id);
    w.Bytes(table, n);
}

void WriteHuffman(Writer& w, uint32_t tableClass, uint32_t id, const uint8_t* codelens, const uint8_t* symbols,
                  uint32_t nsymbols)
{
    w.Be16(0xFFC4);
    w.Be16(3 + 16 + nsymbols);
    w.Byte((tableClass << 4) | id);
    w.Bytes(codelens, 16);
    w.Bytes(symbols, nsymbols);
}

} // namespace

void RTP_JpegMakeTables(uint8_t q, uint8_t luma[64], uint8_t chroma[64])
{
    int factor = q < 1 ? 1 : (q > 99 ? 99 : q);
    const int scale = factor < 50 ? 5000 / factor : 200 - factor * 2;
    for (int i = 0; i < 64; ++i) {
        int lq = (kLumaQuant[kZigzag[i]] * scale + 50) / 100;
        int cq = (kChromaQuant[kZigzag[i]] * scale + 50) / 100;
        luma[i] = static_cast<uint8_t>(lq < 1 ? 1 : (lq > 255 ? 255 : lq));
        chroma[i] = static_cast<uint8_t>(cq < 1 ? 1 : (cq > 255 ? 255 : cq));
    }
}

uint32_t RTP_JpegMakeHeaders(const RTP_JPEG_PARAMS* p, uint8_t* out, uint32_t cap)
{
    if (!p || !out || p->width == 0 || p->height == 0) {
        return 0;
    }
    const uint32_t sampling = p->type & 0x3F; // the restart variants sample alike
    if ((p->type & 0x80) || sampling > 1) {
        return 0;
    }

    uint8_t fromQ[2][64];
    const uint8_t* tables[2];
    bool wide[2] = {false, false};
    if (p->q >= 128) {
        // In-band tables: a single table serves both components.
        wide[0] = (p->precision & 1) != 0;
        const uint32_t n0 = wide[0] ? 128 : 64;
        if (!p->qtables || p->qtablesLen < n0) {
            return 0;
        }
        tables[0] = p->qtables;
        wide[1] = (p->precision & 2) != 0;
        const uint32_t n1 = wide[1] ? 128 : 64;
        if (p->qtablesLen >= n0 + n1) {
            tables[1] = p->qtables + n0;
        } else {
            tables[1] = tables[0];
            wide[1] = wide[0];
        }
    } else {
        RTP_JpegMakeTables(p->q, fromQ[0], fromQ[1]);
        tables[0] = fromQ[0];
        tables[1] = fromQ[1];
    }

    Writer w{out, cap};
    w.Be16(0xFFD8); // SOI
    WriteQuant(w, 0, tables[0], wide[0]);
    WriteQuant(w, 1, tables[1], wide[1]);
    if (p->restart) {
        w.Be16(0xFFDD);
        w.Be16(4);
        w.Be16(p->restart);
    }
    // Baseline frame, three components: Y sampled 2x1 (type 0) or 2x2 (type 1).
    w.Be16(0xFFC0);
    w.Be16(17);
    w.Byte(8);
    w.Be16(p->height);
    w.Be16(p->width);
    w.Byte(3);
    w.Byte(0);
    w.Byte(sampling == 0 ? 0x21 : 0x22);
    w.Byte(0);
    w.Byte(1);
    w.Byte(0x11);
    w.Byte(1);
    w.Byte(2);
    w.Byte(0x11);
    w.Byte(1);
    WriteHuffman(w, 0, 0, kLumDcCodelens, kLumDcSymbols, sizeof kLumDcSymbols);
    WriteHuffman(w, 1, 0, kLumAcCodelens, kLumAcSymbols, sizeof kLumAcSymbols);
    WriteHuffman(w, 0, 1, kChmDcCodelens, kChmDcSymbols, sizeof kChmDcSymbols);
    WriteHuffman(w, 1, 1, kChmAcCodelens, kChmAcSymbols, sizeof kChmAcSymbols);
    // Scan of all three components.
    w.Be16(0xFFDA);
    w.Be16(12);
    w.Byte(3);
    w.Byte(0);
    w.Byte(0x00);
    w.Byte(1);
    w.Byte(0x11);
    w.Byte(2);
    w.Byte(0x11);
    w.Byte(0);
    w.Byte(63);
    w.Byte(0);
    return w.ok ? w.len : 0;
}
