// libFuzzer target: arbitrary access units through the SEI scan and every
// content parser, into an IVA store. The first byte picks the codec; the
// record is kept between inputs, as a port keeps it between access units.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

#include "iva/iva_store.h"
#include "korvalen_types.h"
#include "sei/sei_parse.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static IVA_STORE store;
    static SEI_INFO info;
    IVA_AttachStore(&info, &store);
    if (size < 1) {
        return 0;
    }
    const uint32_t codec = data[0] & 1 ? KORVALEN_CODEC_H265 : KORVALEN_CODEC_H264;
    // An exactly sized copy: a read past the unit is caught.
    std::vector<uint8_t> au(data + 1, data + size);
    Sei_Parse(codec, au.data(), static_cast<uint32_t>(au.size()), &info);
    return 0;
}
