#include "codec/g711.h"

#include <array>
#include <cstddef>

namespace {

// Segment end points: µ-law on the biased 14-bit magnitude, A-law on the
// 13-bit magnitude.
constexpr int kMuSegEnd[8] = {0x3F, 0x7F, 0xFF, 0x1FF, 0x3FF, 0x7FF, 0xFFF, 0x1FFF};
constexpr int kASegEnd[8] = {0x1F, 0x3F, 0x7F, 0xFF, 0x1FF, 0x3FF, 0x7FF, 0xFFF};
constexpr int kMuBias = 0x84;
constexpr int kMuClip = 8159;

int Segment(int value, const int* ends)
{
    for (int s = 0; s < 8; ++s) {
        if (value <= ends[s]) {
            return s;
        }
    }
    return 8;
}

constexpr int16_t MuToLinear(uint8_t code)
{
    int u = ~code & 0xFF;
    int t = (((u & 0x0F) << 3) + kMuBias) << ((u & 0x70) >> 4);
    return static_cast<int16_t>((u & 0x80) ? (kMuBias - t) : (t - kMuBias));
}

constexpr int16_t AToLinear(uint8_t code)
{
    int a = code ^ 0x55;
    int t = (a & 0x0F) << 4;
    int seg = (a & 0x70) >> 4;
    if (seg == 0) {
        t += 8;
    } else {
        t = (t + 0x108) << (seg - 1);
    }
    return static_cast<int16_t>((a & 0x80) ? t : -t);
}

template <int16_t (*F)(uint8_t)> constexpr std::array<int16_t, 256> MakeTable()
{
    std::array<int16_t, 256> t{};
    for (int i = 0; i < 256; ++i) {
        t[static_cast<size_t>(i)] = F(static_cast<uint8_t>(i));
    }
    return t;
}

constexpr auto kMuTable = MakeTable<MuToLinear>();
constexpr auto kATable = MakeTable<AToLinear>();

uint8_t LinearToMu(int16_t sample)
{
    int v = sample >> 2; // 14-bit
    int mask = 0xFF;
    if (v < 0) {
        v = -v;
        mask = 0x7F;
    }
    if (v > kMuClip) {
        v = kMuClip;
    }
    v += kMuBias >> 2;
    int seg = Segment(v, kMuSegEnd);
    if (seg >= 8) {
        return static_cast<uint8_t>(0x7F ^ mask);
    }
    return static_cast<uint8_t>(((seg << 4) | ((v >> (seg + 1)) & 0x0F)) ^ mask);
}

uint8_t LinearToA(int16_t sample)
{
    int v = sample >> 3; // 13-bit
    int mask = 0xD5;
    if (v < 0) {
        mask = 0x55;
        v = -v - 1;
    }
    int seg = Segment(v, kASegEnd);
    if (seg >= 8) {
        return static_cast<uint8_t>(0x7F ^ mask);
    }
    int a = seg << 4;
    a |= seg < 2 ? (v >> 1) & 0x0F : (v >> seg) & 0x0F;
    return static_cast<uint8_t>(a ^ mask);
}

} // namespace

uint8_t G711_Encode(G711Law law, int16_t sample)
{
    return law == G711Law::MuLaw ? LinearToMu(sample) : LinearToA(sample);
}

int16_t G711_Decode(G711Law law, uint8_t code)
{
    return law == G711Law::MuLaw ? kMuTable[code] : kATable[code];
}

void G711_EncodeBlock(G711Law law, const int16_t* in, uint32_t count, uint8_t* out)
{
    for (uint32_t i = 0; i < count; ++i) {
        out[i] = G711_Encode(law, in[i]);
    }
}

void G711_DecodeBlock(G711Law law, const uint8_t* in, uint32_t count, int16_t* out)
{
    const auto& table = law == G711Law::MuLaw ? kMuTable : kATable;
    for (uint32_t i = 0; i < count; ++i) {
        out[i] = table[in[i]];
    }
}
