// Helpers for the file-reader tests: opening fixtures through the
// dispatcher, reading every frame, and patching copies of fixture files.
#pragma once

#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include "codec_media.h"
#include "file/file_parser.h"
#include "korvalen_types.h"
#include "test_env.h"

struct ReadFrame {
    Bytes data;
    uint32_t payloadType;
    uint32_t frameType;
    uint64_t timeStamp;
};

// Reads frames in a player read mode until the end (or max frames); *last
// receives the code that ended the loop.
inline std::vector<ReadFrame> ReadAllFrames(FileParserInfo* info, uint32_t mode, uint32_t* last = nullptr,
                                            size_t max = 100000)
{
    std::vector<ReadFrame> out;
    uint32_t err = KORVALEN_OK;
    while (out.size() < max) {
        FileFrameInfo f{};
        err = File_ReadOneFrame(info, &f, mode);
        if (err == KORVALEN_ERR_FILE_END) {
            break;
        }
        if (err != KORVALEN_OK) {
            continue; // a bad frame is skipped, as the play thread does
        }
        out.push_back({Bytes(f.data, f.data + f.length), f.payloadType, f.frameType, f.timeStamp});
    }
    if (last) {
        *last = err;
    }
    return out;
}

inline Bytes LoadFile(const std::string& path)
{
    std::ifstream f(path, std::ios::binary);
    return Bytes((std::istreambuf_iterator<char>(f)), std::istreambuf_iterator<char>());
}

// Writes bytes to a scratch file under the test's home and returns its path.
inline std::string SaveScratch(const std::string& name, const Bytes& bytes)
{
    std::string path = TestHome() + "/" + name;
    std::ofstream f(path, std::ios::binary | std::ios::trunc);
    f.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    return path;
}

// Offset of the first occurrence of a four-character box type, or npos.
inline size_t FindType(const Bytes& b, const char* type, size_t from = 0)
{
    for (size_t i = from; i + 4 <= b.size(); ++i) {
        if (std::memcmp(b.data() + i, type, 4) == 0) {
            return i;
        }
    }
    return std::string::npos;
}

inline void Store32(Bytes& b, size_t at, uint32_t v)
{
    b[at] = static_cast<uint8_t>(v >> 24);
    b[at + 1] = static_cast<uint8_t>(v >> 16);
    b[at + 2] = static_cast<uint8_t>(v >> 8);
    b[at + 3] = static_cast<uint8_t>(v);
}

inline uint32_t Load32(const Bytes& b, size_t at)
{
    return static_cast<uint32_t>(b[at]) << 24 | static_cast<uint32_t>(b[at + 1]) << 16 |
           static_cast<uint32_t>(b[at + 2]) << 8 | b[at + 3];
}
