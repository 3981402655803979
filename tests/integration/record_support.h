// Helpers for the recording tests: waiting for the recorder,
// what ffprobe says about a file, and forked recorder processes.
#pragma once

#include <chrono>
#include <fstream>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

#include "../unit/codec_media.h"
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

} // namespace record_support
