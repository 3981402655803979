// JPEG header rebuild: the main, restart and table header fields and the
// in-band tables come from the input, the output buffer size too. A result
// must be a well-formed header run: SOI first, the scan header last, every
// segment length consistent.
#include <cstddef>
#include <cstdint>
#include <vector>

#include "rtp/rtp_jpeg.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < 9) {
        return 0;
    }
    RTP_JPEG_PARAMS p{};
    p.type = data[0];
    p.q = data[1];
    p.width = static_cast<uint16_t>(data[2] * 8);
    p.height = static_cast<uint16_t>(data[3] * 8);
    p.restart = static_cast<uint16_t>((data[4] << 8) | data[5]);
    p.precision = data[6];
    const uint32_t cap = (static_cast<uint32_t>(data[7]) << 8 | data[8]) % (kRtpJpegHeaderMax + 64);
    std::vector<uint8_t> tables(data + 9, data + size);
    p.qtables = tables.empty() ? nullptr : tables.data();
    p.qtablesLen = static_cast<uint32_t>(tables.size());

    std::vector<uint8_t> out(cap);
    const uint32_t n = RTP_JpegMakeHeaders(&p, out.data(), cap);
    if (n == 0) {
        return 0;
    }
    if (n > cap || n < 4 || out[0] != 0xFF || out[1] != 0xD8) {
        __builtin_trap();
    }
    uint32_t i = 2;
    uint32_t last = 0;
    while (i + 4 <= n) {
        if (out[i] != 0xFF) {
            __builtin_trap();
        }
        last = out[i + 1];
        i += 2 + ((out[i + 2] << 8) | out[i + 3]);
    }
    if (i != n || last != 0xDA) {
        __builtin_trap();
    }
    return 0;
}
