// libFuzzer target: arbitrary chunks, of every container kind and mixed,
// through the recorder's frame assembly, the way the record thread drives it.
#include <cstddef>
#include <cstdint>

#include "korvalen_types.h"
#include "log/log.h"
#include "record/record_frames.h"

namespace {

void Quiet(uint32_t, uint32_t, uint32_t, const char*, uint32_t, const char*)
{
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    LOG_SetSink(&Quiet);
    REC_ASSEMBLY a;
    if (REC_InitAssembly(&a) != KORVALEN_OK) {
        return 0;
    }
    const RTP_PAYLOAD_TABLE payloads{};
    const uint8_t aac[3] = {1, 4, 1};
    size_t at = 0;
    while (at + 2 <= size) {
        // Two bytes of length, then the chunk.
        size_t n = (static_cast<size_t>(data[at]) << 8 | data[at + 1]) % 4096;
        at += 2;
        n = n > size - at ? size - at : n;
        bool more = false;
        int guard = 0;
        do {
            REC_FRAME f{};
            if (REC_AssembleFrame(&a, data + at, static_cast<uint32_t>(n), &payloads, aac, &f, &more) == KORVALEN_OK) {
                // A frame is the chunk itself or lies in the recorder's buffers.
                const uint8_t* d = f.data;
                const bool inChunk = d >= data + at && d + f.length <= data + at + n;
                const bool inVideo = d >= a.video && d + f.length <= a.video + 0x200000;
                const bool inAudio = d >= a.audio && d + f.length <= a.audio + 10240;
                if (f.length && !inChunk && !inVideo && !inAudio) {
                    __builtin_trap();
                }
            }
        } while (more && ++guard < 100000);
        at += n;
    }
    REC_FreeAssembly(&a);
    return 0;
}
