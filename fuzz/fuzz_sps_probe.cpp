// Parameter-set probes (picture size, frame rate) over arbitrary access
// units: they must never read outside the buffer whatever the fields say.
#include <cstddef>
#include <cstdint>
#include <vector>

#include "codec/code_sps_probe.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    // An exact-size copy, so any read past the end is caught.
    std::vector<uint8_t> unit(data, data + size);
    auto len = static_cast<uint32_t>(unit.size());
    uint32_t w = 0, h = 0, fps = 0;
    CODE_ProbeH264Sps(unit.data(), len, &w, &h, &fps);
    CODE_ProbeH265Size(unit.data(), len, &w, &h);
    CODE_ProbeH265Rate(unit.data(), len);
    return 0;
}
