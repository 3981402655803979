// libFuzzer target: arbitrary chunks, of every container kind and mixed,
// through the stream parser of a port, the way the decode thread drives it.
#include <cstddef>
#include <cstdint>
#include <vector>

#include "heap/qmx_heap.h"
#include "korvalen_types.h"
#include "pipeline/stream_decode.h"
#include "port/port.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static std::vector<uint8_t> frameBuf(kFrameBufferSize), audioBuf(kAudioBufferSize);
    auto* rec = new PortRecord;
    rec->stream.frameBuffer = frameBuf.data();
    rec->stream.audioBuffer = audioBuf.data();
    size_t at = 0;
    while (at + 2 <= size) {
        // Two bytes of length, then the chunk.
        size_t n = (static_cast<size_t>(data[at]) << 8 | data[at + 1]) % 4096;
        at += 2;
        n = n > size - at ? size - at : n;
        int guard = 0;
        do {
            uint32_t err = Player_ParseStream(data + at, static_cast<uint32_t>(n), rec);
            if (err == KORVALEN_OK) {
                const StreamFrame& f = rec->stream.frame;
                Player_StatisticsTimestamp(rec);
                // A frame is the chunk itself or lies in the port's buffers.
                const uint8_t* d = f.data;
                bool inChunk = d >= data + at && d + f.length <= data + at + n;
                bool inVideo = d >= frameBuf.data() && d + f.length <= frameBuf.data() + frameBuf.size();
                bool inAudio = d >= audioBuf.data() && d + f.length <= audioBuf.data() + audioBuf.size();
                if (f.length && !inChunk && !inVideo && !inAudio) {
                    __builtin_trap();
                }
            }
        } while (((rec->stream.parseMode == PARSE_TS && rec->stream.ts.resume) ||
                  (rec->stream.parseMode == PARSE_FLV && rec->stream.flv.resume)) &&
                 ++guard < 100000);
        at += n;
    }
    rec->stream.frameBuffer = nullptr;
    rec->stream.audioBuffer = nullptr;
    QMX_HeapFree(rec->stream.flvTag);
    delete rec;
    return 0;
}
