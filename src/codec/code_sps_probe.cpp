#include "codec/code_sps_probe.h"

#include <algorithm>
#include <cstddef>

namespace {

// Bit reader over an RBSP copy (emulation-prevention bytes removed); reads
// past the end give zero bits and set the overrun flag.
struct BitReader {
    const uint8_t* p;
    size_t bits;
    size_t pos = 0;
    bool overrun = false;

    uint32_t Bit()
    {
        if (pos >= bits) {
            overrun = true;
            return 0;
        }
        uint32_t b = (p[pos >> 3] >> (7 - (pos & 7))) & 1u;
        ++pos;
        return b;
    }
    uint32_t Bits(int n)
    {
        uint32_t v = 0;
        while (n-- > 0) {
            v = (v << 1) | Bit();
        }
        return v;
    }
    void Skip(size_t n)
    {
        pos += n;
        if (pos > bits) {
            overrun = true;
        }
    }
    uint32_t Ue()
    {
        int zeros = 0;
        while (Bit() == 0) {
            if (overrun || ++zeros > 31) {
                overrun = true;
                return 0;
            }
        }
        return ((1u << zeros) - 1) + Bits(zeros);
    }
    int32_t Se()
    {
        uint32_t k = Ue();
        return (k & 1) ? static_cast<int32_t>((k + 1) / 2) : -static_cast<int32_t>(k / 2);
    }
};

// Enough of an SPS for the size fields; longer ones are cut.
constexpr size_t kRbspMax = 256;

size_t Unescape(const uint8_t* nal, size_t len, uint8_t* out)
{
    size_t n = 0;
    int zeros = 0;
    for (size_t i = 0; i < len && n < kRbspMax; ++i) {
        if (zeros >= 2 && nal[i] == 3) {
            zeros = 0;
            continue;
        }
        zeros = nal[i] == 0 ? zeros + 1 : 0;
        out[n++] = nal[i];
    }
    return n;
}

// Calls visit(nal, len) for each NAL unit in front of the first slice until
// it returns true. The slice itself is not scanned: only its header is seen.
template <class S, class F> bool ForEachNal(const uint8_t* data, uint32_t length, S isSlice, F visit)
{
    auto findStart = [&](size_t from) {
        for (size_t k = from; k + 3 <= length; ++k) {
            if (data[k] == 0 && data[k + 1] == 0 && data[k + 2] == 1) {
                return k;
            }
        }
        return static_cast<size_t>(length);
    };
    size_t i = findStart(0);
    while (i < length) {
        size_t begin = i + 3;
        if (begin >= length || isSlice(data[begin])) {
            return false;
        }
        size_t next = findStart(begin);
        size_t end = next;
        while (end > begin && data[end - 1] == 0) {
            --end; // trailing zeros belong to the next start code
        }
        if (visit(data + begin, end - begin)) {
            return true;
        }
        i = next;
    }
    return false;
}

void SkipScalingList(BitReader& br, int size)
{
    int last = 8, next = 8;
    for (int j = 0; j < size && !br.overrun; ++j) {
        if (next != 0) {
            next = (last + br.Se() + 256) % 256;
        }
        last = next == 0 ? last : next;
    }
}

// Frames per second from the VUI timing (two fields per frame), 0 when the
// stream does not say.
uint32_t ParseH264VuiRate(BitReader& br)
{
    if (!br.Bit()) { // vui_parameters_present_flag
        return 0;
    }
    if (br.Bit() && br.Bits(8) == 255) { // aspect ratio, extended SAR
        br.Skip(32);
    }
    if (br.Bit()) { // overscan info
        br.Bit();
    }
    if (br.Bit()) { // video signal type
        br.Skip(4);
        if (br.Bit()) {
            br.Skip(24);
        }
    }
    if (br.Bit()) { // chroma location
        br.Ue();
        br.Ue();
    }
    if (!br.Bit()) { // timing info
        return 0;
    }
    uint32_t unitsInTick = br.Bits(32);
    uint32_t timeScale = br.Bits(32);
    if (br.overrun || unitsInTick == 0) {
        return 0;
    }
    return static_cast<uint32_t>(timeScale / (2ull * unitsInTick));
}

bool ParseH264Sps(const uint8_t* rbsp, size_t n, uint32_t* width, uint32_t* height, uint32_t* fps = nullptr)
{
    BitReader br{rbsp, n * 8};
    br.Skip(8); // NAL header
    uint32_t profile = br.Bits(8);
    br.Skip(16); // constraint flags, level
    br.Ue();     // sps id
    uint32_t chroma = 1;
    bool separate = false;
    if (profile == 100 || profile == 110 || profile == 122 || profile == 244 || profile == 44 || profile == 83 ||
        profile == 86 || profile == 118 || profile == 128 || profile == 138 || profile == 139 || profile == 134 ||
        profile == 135) {
        chroma = br.Ue();
        if (chroma > 3) {
            return false;
        }
        if (chroma == 3) {
            separate = br.Bit();
        }
        br.Ue(); // luma bit depth
        br.Ue(); // chroma bit depth
        br.Bit();
        if (br.Bit()) { // scaling matrices
            int lists = chroma != 3 ? 8 : 12;
            for (int i = 0; i < lists && !br.overrun; ++i) {
                if (br.Bit()) {
                    SkipScalingList(br, i < 6 ? 16 : 64);
                }
            }
        }
    }
    br.Ue(); // log2 max frame num
    uint32_t pocType = br.Ue();
    if (pocType == 0) {
        br.Ue();
    } else if (pocType == 1) {
        br.Bit();
        br.Se();
        br.Se();
        uint32_t cycle = br.Ue();
        if (cycle > 255) {
            return false;
        }
        for (uint32_t i = 0; i < cycle && !br.overrun; ++i) {
            br.Se();
        }
    } else if (pocType != 2) {
        return false;
    }
    br.Ue(); // reference frames
    br.Bit();
    uint32_t wMbs = br.Ue() + 1;
    uint32_t hMaps = br.Ue() + 1;
    uint32_t frameMbsOnly = br.Bit();
    if (!frameMbsOnly) {
        br.Bit();
    }
    br.Bit(); // direct 8x8
    uint32_t cl = 0, cr = 0, ct = 0, cb = 0;
    if (br.Bit()) {
        cl = br.Ue();
        cr = br.Ue();
        ct = br.Ue();
        cb = br.Ue();
    }
    if (br.overrun || wMbs > 1024 || hMaps > 1024) {
        return false;
    }
    uint32_t w = wMbs * 16;
    uint32_t h = (2 - frameMbsOnly) * hMaps * 16;
    uint32_t unitX = 1, unitY = 2 - frameMbsOnly;
    if (chroma != 0 && !separate) {
        unitX = chroma == 3 ? 1 : 2;
        unitY *= chroma == 1 ? 2 : 1;
    }
    uint64_t cropW = static_cast<uint64_t>(unitX) * (static_cast<uint64_t>(cl) + cr);
    uint64_t cropH = static_cast<uint64_t>(unitY) * (static_cast<uint64_t>(ct) + cb);
    if (cropW >= w || cropH >= h) {
        return false;
    }
    *width = w - static_cast<uint32_t>(cropW);
    *height = h - static_cast<uint32_t>(cropH);
    if (fps) {
        *fps = ParseH264VuiRate(br);
    }
    return true;
}

// Short-term reference picture sets, only to get past them; numDeltaPocs
// holds each set's count for the predicted ones that follow. False when the
// values are out of range.
bool SkipH265RefPicSets(BitReader& br, uint32_t count)
{
    uint32_t numDeltaPocs[65] = {};
    for (uint32_t idx = 0; idx < count && !br.overrun; ++idx) {
        if (idx != 0 && br.Bit()) { // predicted from the set before
            br.Bit();
            br.Ue();
            uint32_t n = 0;
            for (uint32_t j = 0; j <= numDeltaPocs[idx - 1]; ++j) {
                uint32_t used = br.Bit();
                if (used || br.Bit()) {
                    ++n;
                }
            }
            numDeltaPocs[idx] = n;
            continue;
        }
        uint32_t neg = br.Ue(), pos = br.Ue();
        if (neg > 16 || pos > 16) {
            return false;
        }
        for (uint32_t j = 0; j < neg + pos; ++j) {
            br.Ue();
            br.Bit();
        }
        numDeltaPocs[idx] = neg + pos;
    }
    return !br.overrun;
}

void SkipH265ScalingLists(BitReader& br)
{
    for (int size = 0; size < 4; ++size) {
        for (int matrix = 0; matrix < 6 && !br.overrun; matrix += size == 3 ? 3 : 1) {
            if (!br.Bit()) {
                br.Ue();
                continue;
            }
            int coefs = std::min(64, 1 << (4 + (size << 1)));
            if (size > 1) {
                br.Se();
            }
            for (int i = 0; i < coefs && !br.overrun; ++i) {
                br.Se();
            }
        }
    }
}

// From the end of the conformance window to the VUI timing: frames per
// second, 0 when the stream does not say.
uint32_t ParseH265SpsRate(BitReader& br, uint32_t subLayers)
{
    br.Ue(); // luma bit depth
    br.Ue(); // chroma bit depth
    uint32_t pocBits = br.Ue() + 4;
    uint32_t ordering = br.Bit();
    for (uint32_t i = ordering ? 0 : subLayers; i <= subLayers && !br.overrun; ++i) {
        br.Ue();
        br.Ue();
        br.Ue();
    }
    for (int i = 0; i < 6; ++i) {
        br.Ue(); // coding and transform block sizes, hierarchy depths
    }
    if (br.Bit() && br.Bit()) {
        SkipH265ScalingLists(br);
    }
    br.Skip(2);     // AMP, SAO
    if (br.Bit()) { // PCM
        br.Skip(8);
        br.Ue();
        br.Ue();
        br.Bit();
    }
    uint32_t sets = br.Ue();
    if (sets > 64 || !SkipH265RefPicSets(br, sets)) {
        return 0;
    }
    if (br.Bit()) { // long-term reference pictures
        uint32_t lt = br.Ue();
        if (lt > 32) {
            return 0;
        }
        br.Skip(static_cast<size_t>(lt) * (pocBits + 1));
    }
    br.Skip(2); // temporal MVP, strong intra smoothing
    if (!br.Bit()) {
        return 0; // no VUI
    }
    if (br.Bit() && br.Bits(8) == 255) {
        br.Skip(32);
    }
    if (br.Bit()) {
        br.Bit();
    }
    if (br.Bit()) {
        br.Skip(4);
        if (br.Bit()) {
            br.Skip(24);
        }
    }
    if (br.Bit()) {
        br.Ue();
        br.Ue();
    }
    br.Skip(3); // neutral chroma, field sequence, frame-field info
    if (br.Bit()) {
        for (int i = 0; i < 4; ++i) {
            br.Ue();
        }
    }
    if (!br.Bit()) {
        return 0;
    }
    uint32_t unitsInTick = br.Bits(32);
    uint32_t timeScale = br.Bits(32);
    return br.overrun || unitsInTick == 0 ? 0 : timeScale / unitsInTick;
}

bool ParseH265Sps(const uint8_t* rbsp, size_t n, uint32_t* width, uint32_t* height, uint32_t* fps = nullptr)
{
    BitReader br{rbsp, n * 8};
    br.Skip(16); // NAL header
    br.Skip(4);  // VPS id
    uint32_t subLayers = br.Bits(3);
    br.Bit();
    br.Skip(96); // general profile, tier and level
    uint32_t profilePresent[8] = {}, levelPresent[8] = {};
    for (uint32_t i = 0; i < subLayers; ++i) {
        profilePresent[i] = br.Bit();
        levelPresent[i] = br.Bit();
    }
    if (subLayers > 0) {
        br.Skip(2 * (8 - subLayers));
    }
    for (uint32_t i = 0; i < subLayers; ++i) {
        br.Skip((profilePresent[i] ? 88 : 0) + (levelPresent[i] ? 8 : 0));
    }
    br.Ue(); // SPS id
    uint32_t chroma = br.Ue();
    if (chroma > 3) {
        return false;
    }
    bool separate = chroma == 3 && br.Bit();
    uint32_t w = br.Ue();
    uint32_t h = br.Ue();
    uint32_t cl = 0, cr = 0, ct = 0, cb = 0;
    if (br.Bit()) {
        cl = br.Ue();
        cr = br.Ue();
        ct = br.Ue();
        cb = br.Ue();
    }
    if (br.overrun || w == 0 || h == 0 || w > 16888 || h > 16888) {
        return false;
    }
    uint32_t subW = (chroma == 1 || chroma == 2) && !separate ? 2 : 1;
    uint32_t subH = chroma == 1 && !separate ? 2 : 1;
    uint64_t cropW = static_cast<uint64_t>(subW) * (static_cast<uint64_t>(cl) + cr);
    uint64_t cropH = static_cast<uint64_t>(subH) * (static_cast<uint64_t>(ct) + cb);
    if (cropW >= w || cropH >= h) {
        return false;
    }
    *width = w - static_cast<uint32_t>(cropW);
    *height = h - static_cast<uint32_t>(cropH);
    if (fps) {
        *fps = ParseH265SpsRate(br, subLayers);
    }
    return true;
}

// Frame rate from the VPS timing (time scale over units per tick), 0 when
// the stream does not say.
uint32_t ParseH265VpsRate(const uint8_t* rbsp, size_t n)
{
    BitReader br{rbsp, n * 8};
    br.Skip(16); // NAL header
    br.Skip(12); // id, base layer flags, max layers
    uint32_t subLayers = br.Bits(3);
    br.Skip(17); // temporal nesting, reserved 0xFFFF
    br.Skip(96); // general profile, tier and level
    uint32_t profilePresent[8] = {}, levelPresent[8] = {};
    for (uint32_t i = 0; i < subLayers; ++i) {
        profilePresent[i] = br.Bit();
        levelPresent[i] = br.Bit();
    }
    if (subLayers > 0) {
        br.Skip(2 * (8 - subLayers));
    }
    for (uint32_t i = 0; i < subLayers; ++i) {
        br.Skip((profilePresent[i] ? 88 : 0) + (levelPresent[i] ? 8 : 0));
    }
    uint32_t ordering = br.Bit();
    for (uint32_t i = ordering ? 0 : subLayers; i <= subLayers && !br.overrun; ++i) {
        br.Ue();
        br.Ue();
        br.Ue();
    }
    uint32_t maxLayerId = br.Bits(6);
    uint32_t layerSets = br.Ue();
    if (layerSets > 1023) {
        return 0;
    }
    br.Skip(static_cast<size_t>(layerSets) * (maxLayerId + 1));
    if (!br.Bit()) {
        return 0;
    }
    uint32_t unitsInTick = br.Bits(32);
    uint32_t timeScale = br.Bits(32);
    return br.overrun || unitsInTick == 0 ? 0 : timeScale / unitsInTick;
}

} // namespace

uint32_t CODE_ProbeH265Rate(const uint8_t* data, uint32_t length)
{
    if (!data) {
        return 0;
    }
    // The VPS timing wins where both are given; x265 writes only the SPS one.
    uint32_t vpsRate = 0, spsRate = 0;
    auto isSlice = [](uint8_t header) { return ((header >> 1) & 0x3F) < 32; };
    ForEachNal(data, length, isSlice, [&](const uint8_t* nal, size_t len) {
        uint32_t type = len < 4 ? 0 : (nal[0] >> 1) & 0x3F;
        uint8_t rbsp[kRbspMax];
        if (type == 32 && !vpsRate) {
            vpsRate = ParseH265VpsRate(rbsp, Unescape(nal, len, rbsp));
        } else if (type == 33 && !spsRate) {
            uint32_t w = 0, h = 0;
            ParseH265Sps(rbsp, Unescape(nal, len, rbsp), &w, &h, &spsRate);
        }
        return false;
    });
    return vpsRate ? vpsRate : spsRate;
}

bool CODE_ProbeH264Size(const uint8_t* data, uint32_t length, uint32_t* width, uint32_t* height)
{
    uint32_t fps = 0;
    return CODE_ProbeH264Sps(data, length, width, height, &fps);
}

bool CODE_ProbeH264Sps(const uint8_t* data, uint32_t length, uint32_t* width, uint32_t* height, uint32_t* fps)
{
    if (!data) {
        return false;
    }
    auto isSlice = [](uint8_t header) { return (header & 0x1F) >= 1 && (header & 0x1F) <= 5; };
    return ForEachNal(data, length, isSlice, [&](const uint8_t* nal, size_t len) {
        if (len < 4 || (nal[0] & 0x1F) != 7) {
            return false;
        }
        uint8_t rbsp[kRbspMax];
        size_t n = Unescape(nal, len, rbsp);
        return ParseH264Sps(rbsp, n, width, height, fps);
    });
}

bool CODE_ProbeH265Size(const uint8_t* data, uint32_t length, uint32_t* width, uint32_t* height)
{
    if (!data) {
        return false;
    }
    auto isSlice = [](uint8_t header) { return ((header >> 1) & 0x3F) < 32; };
    return ForEachNal(data, length, isSlice, [&](const uint8_t* nal, size_t len) {
        if (len < 4 || ((nal[0] >> 1) & 0x3F) != 33) {
            return false;
        }
        uint8_t rbsp[kRbspMax];
        size_t n = Unescape(nal, len, rbsp);
        return ParseH265Sps(rbsp, n, width, height);
    });
}
