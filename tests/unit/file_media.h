// Helpers for the file-reader tests: opening fixtures through the
// dispatcher, reading every frame, and patching copies of fixture files.
#pragma once

#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include "codec/code_manager.h"
#include "codec_media.h"
#include <gtest/gtest.h>

#include "demux/demux.h"
#include "heap/qmx_heap.h"
#include "korvalen_types.h"
#include "test_env.h"

// A dispatcher record on a fresh heap; everything must be released after.
struct FileReaderTest : ::testing::Test {
    FileParserInfo info{};
    void SetUp() override { ASSERT_EQ(QMX_HeapCreate(1), 0u); }
    void TearDown() override
    {
        File_DestroyFileParser(&info);
        EXPECT_EQ(QMX_HeapLiveBytes(), 0u);
        QMX_HeapDestroy();
    }
    uint32_t Open(const std::string& path) { return File_CreateFileParser(path.c_str(), &info); }
};

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

// Decodes frames with the codec manager and returns the picture MD5s in
// output order, drained pictures included.
inline std::vector<std::string> DecodeFrames(const std::vector<ReadFrame>& frames, uint32_t codec)
{
    std::vector<std::string> md5s;
    if (frames.empty()) {
        return md5s;
    }
    CODE_HANDLE h{};
    CODE_PARAM p{};
    p.data = frames[0].data.data();
    p.length = static_cast<uint32_t>(frames[0].data.size());
    if (CODE_CreateCode(CODE_DIR_DECODER, codec, &p, &h) != KORVALEN_OK) {
        return md5s;
    }
    CODE_OUTPUT out;
    for (const auto& f : frames) {
        CODE_INPUT in = CodeInput(f.data);
        if (CODE_Decoder(&h, &in, &out) == KORVALEN_OK) {
            md5s.push_back(PictureMd5(out));
        }
    }
    for (int i = 0; i < 64; ++i) {
        CODE_INPUT in{};
        in.flags = CODE_FLAG_DRAIN;
        if (CODE_Decoder(&h, &in, &out) != KORVALEN_OK) {
            break;
        }
        md5s.push_back(PictureMd5(out));
    }
    CODE_FreeCode(&h);
    return md5s;
}
