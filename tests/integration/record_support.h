// Helpers for the recording tests: waiting for the recorder,
// what ffprobe says about a file, and forked recorder processes.
#pragma once

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

#include "../unit/codec_media.h"
#include "decoded_pictures.h"
#include "korvalen.h"
#include "run_messages.h"

namespace record_support {

constexpr uint32_t kRecordFileReport = 270;

// Waits until the current record file stops growing (bounded: 10 s).
inline void WaitSizeSettles(uint32_t port)
{
    uint64_t last = 0;
    int still = 0;
    for (int i = 0; i < 200 && still < 6; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        uint64_t size = 0;
        Korvalen_GetRecordFileSize(port, &size);
        still = size == last && size > 0 ? still + 1 : 0;
        last = size;
    }
}

inline std::string Probe(const std::string& path, const std::string& entry)
{
    Bytes out = RunCommand("ffprobe -v error -show_entries stream=" + entry + " -of csv=p=0 '" + path + "'");
    std::string s(out.begin(), out.end());
    // MPEG-TS lists its programme's streams first: the streams come after.
    const size_t programmes = s.rfind("\n\n");
    if (programmes != std::string::npos) {
        s = s.substr(programmes + 2);
    }
    for (auto& c : s) {
        if (c == '\n') {
            c = ',';
        }
    }
    if (!s.empty() && s.back() == ',') {
        s.pop_back();
    }
    return s;
}

inline std::string StreamTags(const std::string& path)
{
    return Probe(path, "codec_tag_string");
}

inline std::string StreamCodecs(const std::string& path)
{
    return Probe(path, "codec_name");
}

inline Bytes ReadFileBytes(const std::string& path)
{
    std::ifstream f(path, std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(f), std::istreambuf_iterator<char>());
}

inline std::vector<Bytes> Chunks(const Bytes& all, size_t size)
{
    std::vector<Bytes> out;
    for (size_t at = 0; at < all.size(); at += size) {
        out.emplace_back(all.begin() + static_cast<long>(at),
                         all.begin() + static_cast<long>(std::min(all.size(), at + size)));
    }
    return out;
}

// A recorded file played back through the library's own readers: a port of
// its own, headless, at twice the speed, to the end-of-file report.
struct LibraryPlayback {
    std::vector<std::string> pictures; // MD5 of each, as ffmpeg's framemd5
    uint32_t seconds = 0;              // the file time the port answers
};

inline LibraryPlayback PlayedByLibrary(const std::string& path)
{
    LibraryPlayback out;
    DecodedPictures got;
    uint32_t port = 0;
    if (Korvalen_AllocPort(&port) != 1) {
        ADD_FAILURE() << "no port to play " << path;
        return out;
    }
    EXPECT_EQ(Korvalen_SetOneFrameDecodeMode(port), 1);
    EXPECT_EQ(Korvalen_SetDecodeVideoMediaDataCB(port, &DecodedPictures::OnDecoded, 1, &got), 1);
    if (Korvalen_OpenMediaFile(port, path.c_str()) == 1) {
        EXPECT_EQ(Korvalen_GetFileTime(port, &out.seconds), 1);
        EXPECT_EQ(Korvalen_SpeedPlay(port, 3), 1); // twice as fast, every frame
        EXPECT_EQ(Korvalen_StartPlay(port, 0), 1);
        const bool ended = RunMessages::Get().WaitFor(
            [&](const KORVALEN_RUN_MSG& m) { return m.port == port && m.code == KORVALEN_ERR_FILE_END; }, 20000);
        EXPECT_TRUE(ended) << path << ": no end-of-file report";
        // Pictures still on their way from the decoder: until none came for 300 ms.
        for (size_t n = got.Count(), still = 0, i = 0; still < 3 && i < 50; ++i) {
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
            still = got.Count() == n ? still + 1 : 0;
            n = got.Count();
        }
        Korvalen_StopPlay(port, 0);
        Korvalen_CloseMediaFile(port);
    } else {
        ADD_FAILURE() << path << ": the library cannot open it, error " << Korvalen_GetLastError();
    }
    Korvalen_FreePort(port);
    out.pictures = got.Md5s();
    return out;
}

// The library plays a recorded file picture for picture as ffmpeg decodes
// it, and its file time is ffprobe's duration to the second.
inline void ExpectLibraryPlays(const std::string& path, const std::vector<std::string>& pictures)
{
    SCOPED_TRACE(path);
    const LibraryPlayback played = PlayedByLibrary(path);
    EXPECT_EQ(played.pictures, pictures);
    Bytes probed = RunCommand("ffprobe -v error -show_entries format=duration -of csv=p=0 '" + path + "'");
    const double duration = std::atof(std::string(probed.begin(), probed.end()).c_str());
    EXPECT_NEAR(played.seconds, duration, 1.0);
}

} // namespace record_support
