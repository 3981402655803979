// Fuzzes CODE_Decoder on every codec that reads outside data. Input: one byte
// choosing the codec (H.264, H.265, MJPEG, AAC, MP2, G.711 by value mod 6), one byte of options (bit 0 low delay,
// bit 1 line doubling, bit 2 mark the second frame), then frames, each as a
// 16-bit big-endian length and its bytes. The first frame also goes to
// CODE_CreateCode for the size probe; the decoder is drained at the end.
#include <cstddef>
#include <cstdint>

#include "codec/code_manager.h"
#include "korvalen_types.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < 2) {
        return 0;
    }
    static const uint32_t kTypes[6] = {KORVALEN_CODEC_H264, KORVALEN_CODEC_H265, KORVALEN_CODEC_MJPEG,
                                       KORVALEN_CODEC_AAC,  KORVALEN_CODEC_MP2,  KORVALEN_CODEC_G711U};
    uint32_t type = kTypes[data[0] % 6];
    bool video = type == KORVALEN_CODEC_H264 || type == KORVALEN_CODEC_H265 || type == KORVALEN_CODEC_MJPEG;
    uint8_t options = data[1];
    data += 2;
    size -= 2;

    auto nextFrame = [&](const uint8_t** frame, uint32_t* length) {
        if (size < 2) {
            return false;
        }
        size_t len = (static_cast<size_t>(data[0]) << 8) | data[1];
        data += 2;
        size -= 2;
        if (len > size) {
            len = size;
        }
        *frame = data;
        *length = static_cast<uint32_t>(len);
        data += len;
        size -= len;
        return true;
    };

    const uint8_t* frame = nullptr;
    uint32_t length = 0;
    if (!nextFrame(&frame, &length)) {
        return 0;
    }
    CODE_PARAM param{};
    param.data = frame;
    param.length = length;
    param.lowDelay = options & 1;
    CODE_HANDLE handle{};
    if (CODE_CreateCode(CODE_DIR_DECODER, type, &param, &handle) != KORVALEN_OK) {
        return 0;
    }
    CODE_OUTPUT out;
    int index = 0;
    do {
        CODE_INPUT in{};
        in.data = frame;
        in.length = length;
        in.deinterlace = (options >> 1) & 1;
        handle.markNext = (options & 4) && index == 1;
        uint32_t r = CODE_Decoder(&handle, &in, &out);
        if (r == KORVALEN_OK && !video) {
            volatile uint8_t sink = out.length ? out.data[out.length - 1] : 0;
            (void)sink;
        } else if (r == KORVALEN_OK) {
            // Touch the picture's corners: the planes must be readable.
            volatile uint8_t sink = out.planes[0][0];
            sink = out.planes[0][(out.height - 1) * out.pitches[0] + out.width - 1];
            sink = out.planes[2][((out.height + 1) / 2 - 1) * out.pitches[2] + (out.width + 1) / 2 - 1];
            (void)sink;
        }
        ++index;
    } while (index < 64 && nextFrame(&frame, &length));
    if (type == KORVALEN_CODEC_H264 || type == KORVALEN_CODEC_H265) {
        for (int i = 0; i < 16; ++i) {
            CODE_INPUT in{};
            in.flags = CODE_FLAG_DRAIN;
            if (CODE_Decoder(&handle, &in, &out) != KORVALEN_OK) {
                break;
            }
        }
    }
    CODE_FreeCode(&handle);
    return 0;
}
