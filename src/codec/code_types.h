// Records of the codec manager: the codec handle, the decode/encode input,
// the decoder output record and the creation parameters.
#pragma once

#include <cstdint>
#include <mutex>

// Directions of a codec handle.
constexpr uint32_t CODE_DIR_ENCODER = 0;
constexpr uint32_t CODE_DIR_DECODER = 1;

// Frame-mark ring length; the ring indices wrap at this count.
constexpr uint32_t CODE_MARK_RING = 32;

// Input flags.
// The GPU decoder skips its parameter-set probe for this frame.
constexpr uint32_t CODE_FLAG_NO_PROBE = 0x1;
// End of stream: no data, hand out the pictures the decoder still holds, one
// per call, then 538 once it is empty (the handle is usable again after).
constexpr uint32_t CODE_FLAG_DRAIN = 0x2;

// Receives each encoded MP2 frame.
typedef void (*CODE_MP2_DATA_CB)(const uint8_t* data, uint32_t length, void* user);

struct CODE_HANDLE {
    uint32_t direction; // CODE_DIR_*
    int32_t codecType;  // -1 until creation succeeds
    void* library;      // the codec instance, owned
    uint8_t* workBuf;   // fixed-size work buffer, owned
    uint32_t workSize;
    uint32_t h264Gpu; // set by the caller before creation to ask for GPU decoding
    uint32_t h265Gpu;
    uint32_t gpuPicReady; // 1 after a successful GPU decode
    uint32_t width;       // picture size learnt from the sequence parameter set
    uint32_t height;
    uint32_t markNext; // the next input frame is decoded but not shown
    uint32_t inIndex;  // mark-ring indices, modulo CODE_MARK_RING
    uint32_t outIndex;
    uint8_t marks[CODE_MARK_RING];
    uint32_t sizeUnknown; // the H.265 decoder was made for the fallback size
    uint32_t lowDelay;    // one thread, frame in / frame out
    CODE_MP2_DATA_CB mp2Cb;
    void* mp2User;
};

// One frame to decode, or one block / picture to encode.
struct CODE_INPUT {
    const uint8_t* data;
    uint32_t length;
    uint32_t flags;       // CODE_FLAG_*
    uint32_t deinterlace; // 1 doubles the even lines of each shown picture
    // Picture for the JPEG encoder: YUV 4:2:0 planes.
    const uint8_t* planes[3];
    uint32_t pitches[3];
    uint32_t width;
    uint32_t height;
};

// Filled by CODE_Decoder (and CODE_Encoder for the encoded bytes). Plane and
// data memory belongs to the codec handle and stays valid until the next
// call on that handle; video planes until a later call gives a new picture.
struct CODE_OUTPUT {
    std::mutex lock; // held while a decode writes the record
    uint8_t* planes[3] = {};
    uint32_t pitches[3] = {};
    uint32_t width = 0;
    uint32_t height = 0;
    uint8_t* data = nullptr;
    uint32_t length = 0;
    uint32_t sampleRate = 0;
    uint32_t channels = 0;
    uint32_t sampleSize = 0; // bits per sample
};

// Creation parameter.
struct CODE_PARAM {
    const uint8_t* data; // video decoders: the stream's first access unit
    uint32_t length;
    uint32_t lowDelay;   // video decoders
    uint64_t window;     // GPU decoding: the window the pictures are shown in
    uint32_t sampleRate; // AAC and MP2 encoders: capture format
    uint32_t channels;   // MP2 encoder
};

// A picture for Format_ColorSpace: YUV 4:2:0 uses three planes, packed RGB
// formats plane 0 only.
struct CODE_PICTURE {
    uint8_t* planes[3];
    uint32_t pitches[3];
    uint32_t width;
    uint32_t height;
};

// Format_ColorSpace kinds.
constexpr uint32_t CODE_COLOR_YUV420_TO_BGR24 = 0;
constexpr uint32_t CODE_COLOR_BGRA32_TO_YUV420 = 1;
constexpr uint32_t CODE_COLOR_BGR24_TO_YUV420 = 2;
