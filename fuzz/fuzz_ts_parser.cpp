// libFuzzer target: arbitrary bytes as pushed MPEG-TS chunks through the TS
// frame reader, chunk sizes taken from the input.
#include <cstddef>
#include <cstdint>
#include <vector>

#include "demux/ts_parser.h"
#include "korvalen_types.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static std::vector<uint8_t> video(0x200000), audio(10240);
    TS_PARSER p;
    TS_Reset(&p, video.data(), static_cast<uint32_t>(video.size()), audio.data(), static_cast<uint32_t>(audio.size()));
    size_t at = 0;
    while (at < size) {
        size_t n = 188u * (1 + data[at] % 8);
        ++at;
        n = n > size - at ? size - at : n;
        const uint8_t* chunk = data + at;
        int guard = 0;
        do {
            TS_FRAME f{};
            if (TS_GetOneFrame(&p, chunk, static_cast<uint32_t>(n), &f) == KORVALEN_OK) {
                // A frame lies inside its stream's buffer.
                const uint8_t* lo = f.codecType == KORVALEN_CODEC_H264 || f.codecType == KORVALEN_CODEC_H265
                                        ? video.data()
                                        : audio.data();
                const size_t cap = lo == video.data() ? video.size() : audio.size();
                if (f.data < lo || f.data + f.length > lo + cap) {
                    __builtin_trap();
                }
            }
        } while (p.resume && ++guard < 100000);
        at += n;
    }
    return 0;
}
