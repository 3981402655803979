// Test media for the codec tests: fixture paths, packets read with
// libavformat, and ffmpeg's own decode of the same file as the reference.
#pragma once

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <string>
#include <sys/stat.h>
#include <vector>

extern "C" {
#include <libavformat/avformat.h>
#include <libavutil/md5.h>
}

#include "codec/code_types.h"
#include "test_env.h"

#ifndef KORVALEN_FIXTURES
#define KORVALEN_FIXTURES "build/fixtures"
#endif

inline std::string FixturePath(const std::string& name)
{
    return std::string(KORVALEN_FIXTURES) + "/" + name;
}

inline bool FixtureExists(const std::string& path)
{
    struct stat st;
    return stat(path.c_str(), &st) == 0 && st.st_size > 0;
}

#define REQUIRE_FIXTURE(path)                                                                                          \
    if (!FixtureExists(path))                                                                                          \
    GTEST_SKIP() << "missing " << (path) << ": run scripts/make_fixtures.sh " KORVALEN_FIXTURES

using Bytes = std::vector<uint8_t>;

// A codec input over the bytes of one packet.
inline CODE_INPUT CodeInput(const Bytes& b)
{
    CODE_INPUT in{};
    in.data = b.data();
    in.length = static_cast<uint32_t>(b.size());
    return in;
}

// The file's packets (access units, audio frames) as libavformat splits them.
inline std::vector<Bytes> ReadPackets(const std::string& path)
{
    std::vector<Bytes> out;
    AVFormatContext* fmt = nullptr;
    if (avformat_open_input(&fmt, path.c_str(), nullptr, nullptr) < 0) {
        return out;
    }
    AVPacket* pkt = av_packet_alloc();
    while (av_read_frame(fmt, pkt) >= 0) {
        out.emplace_back(pkt->data, pkt->data + pkt->size);
        av_packet_unref(pkt);
    }
    av_packet_free(&pkt);
    avformat_close_input(&fmt);
    return out;
}

// Writes bytes to a scratch file under the test's home and returns its path.
inline std::string SaveScratch(const std::string& name, const Bytes& bytes)
{
    std::string path = TestHome() + "/" + name;
    std::ofstream f(path, std::ios::binary | std::ios::trunc);
    f.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    return path;
}

// Standard output of a shell command.
inline Bytes RunCommand(const std::string& cmd)
{
    Bytes out;
    FILE* p = popen(cmd.c_str(), "r");
    if (!p) {
        return out;
    }
    uint8_t buf[65536];
    size_t n;
    while ((n = fread(buf, 1, sizeof buf, p)) > 0) {
        out.insert(out.end(), buf, buf + n);
    }
    pclose(p);
    return out;
}

// Per-frame MD5s of ffmpeg's decode ("-f framemd5"), in output order;
// inputArgs are decoder options, outputArgs conversions of the pictures.
inline std::vector<std::string> FfmpegFrameMd5(const std::string& path, const std::string& inputArgs = "",
                                               const std::string& outputArgs = "")
{
    Bytes text = RunCommand("ffmpeg -hide_banner -loglevel quiet " + inputArgs + " -i '" + path + "' " + outputArgs +
                            " -f framemd5 -");
    std::vector<std::string> md5s;
    std::string line;
    for (uint8_t c : text) {
        if (c != '\n') {
            line += static_cast<char>(c);
            continue;
        }
        if (!line.empty() && line[0] != '#') {
            md5s.push_back(line.substr(line.rfind(',') + 2));
        }
        line.clear();
    }
    return md5s;
}

inline std::string Md5Hex(const uint8_t digest[16])
{
    static const char* hex = "0123456789abcdef";
    std::string s;
    for (int i = 0; i < 16; ++i) {
        s += hex[digest[i] >> 4];
        s += hex[digest[i] & 15];
    }
    return s;
}

// MD5 of a decoded picture packed as ffmpeg's rawvideo (I420, no padding).
inline std::string PictureMd5(const CODE_OUTPUT& out)
{
    AVMD5* md5 = av_md5_alloc();
    av_md5_init(md5);
    for (int p = 0; p < 3; ++p) {
        uint32_t w = p ? (out.width + 1) / 2 : out.width;
        uint32_t h = p ? (out.height + 1) / 2 : out.height;
        for (uint32_t y = 0; y < h; ++y) {
            av_md5_update(md5, out.planes[p] + y * out.pitches[p], w);
        }
    }
    uint8_t d[16];
    av_md5_final(md5, d);
    av_free(md5);
    return Md5Hex(d);
}

// Tone analysis of 16-bit mono PCM: RMS level and the frequency found by
// counting rising zero crossings.
struct ToneInfo {
    double rms = 0;
    double frequency = 0;
};

inline ToneInfo AnalyseTone(const std::vector<int16_t>& pcm, uint32_t rate, size_t skip)
{
    ToneInfo t;
    if (pcm.size() <= skip + 2) {
        return t;
    }
    double sum = 0;
    size_t crossings = 0, first = 0, last = 0;
    for (size_t i = skip; i < pcm.size(); ++i) {
        sum += static_cast<double>(pcm[i]) * pcm[i];
        if (i > skip && pcm[i - 1] < 0 && pcm[i] >= 0) {
            if (crossings == 0) {
                first = i;
            }
            last = i;
            ++crossings;
        }
    }
    t.rms = std::sqrt(sum / static_cast<double>(pcm.size() - skip));
    if (crossings > 1) {
        t.frequency = static_cast<double>(crossings - 1) * rate / static_cast<double>(last - first);
    }
    return t;
}
