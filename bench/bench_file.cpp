// File reading speed: every frame of a long 1080p MP4 through the container
// dispatcher and the MP4 reader (no decoding), beside ffmpeg copying the same
// file to nowhere ("-c copy -f null") in the same run; and the latency of
// seeks to random points.
//   bench_file [--fixtures DIR] [--minutes N] [--seeks N]
// The long file is made once from the 8-second 1080p fixture with
// "-stream_loop" and "-c copy" (10 minutes by default) and kept beside the
// fixtures; --minutes 0 uses the 8-second file itself (a quick smoke run).
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <string>
#include <sys/stat.h>
#include <vector>

#include "bench_util.h"
#include "demux/demux.h"
#include "heap/qmx_heap.h"
#include "korvalen_types.h"

#ifndef KORVALEN_FIXTURES
#define KORVALEN_FIXTURES "build/fixtures"
#endif

namespace {

using bench::Now;

bool Exists(const std::string& path)
{
    struct stat st;
    return stat(path.c_str(), &st) == 0 && st.st_size > 0;
}

bool Run(const std::string& cmd)
{
    return std::system(cmd.c_str()) == 0;
}

// The benchmark file: the fixture muxed into MP4, looped to the length asked.
std::string MakeFile(const std::string& dir, int minutes)
{
    const std::string raw = dir + "/bench_1080p.h264";
    const std::string base = dir + "/bench_file_base.mp4";
    if (!Exists(raw)) {
        std::fprintf(stderr, "bench_file: missing %s (run scripts/make_fixtures.sh)\n", raw.c_str());
        return "";
    }
    if (!Exists(base) && !Run("ffmpeg -hide_banner -loglevel error -y -r 25 -i '" + raw + "' -c copy '" + base + "'")) {
        return "";
    }
    if (minutes <= 0) {
        return base;
    }
    const std::string out = dir + "/bench_file_" + std::to_string(minutes) + "min.mp4";
    if (!Exists(out) && !Run("ffmpeg -hide_banner -loglevel error -y -stream_loop -1 -i '" + base + "' -c copy -t " +
                             std::to_string(minutes * 60) + " '" + out + "'")) {
        return "";
    }
    return out;
}

} // namespace

int main(int argc, char** argv)
{
    std::string dir = KORVALEN_FIXTURES;
    int minutes = 10;
    int seeks = 100;
    bench::ParseFlags(argc, argv, {{"--fixtures", &dir}, {"--minutes", &minutes}, {"--seeks", &seeks}});
    const std::string path = MakeFile(dir, minutes);
    if (path.empty()) {
        return 1;
    }
    struct stat st;
    stat(path.c_str(), &st);
    const double mb = static_cast<double>(st.st_size) / 1e6;
    QMX_HeapCreate(1);

    // Our reader: open (box tree and index) and every frame in file order.
    FileParserInfo info{};
    double t0 = Now();
    if (File_CreateFileParser(path.c_str(), &info) != KORVALEN_OK) {
        std::fprintf(stderr, "bench_file: cannot open %s\n", path.c_str());
        return 1;
    }
    const double openSec = Now() - t0;
    const uint32_t totalTime = info.totalTime;
    uint64_t frames = 0;
    uint64_t bytes = 0;
    for (;;) {
        FileFrameInfo f{};
        uint32_t err = File_ReadOneFrame(&info, &f, FILE_READ_NORMAL);
        if (err == KORVALEN_ERR_FILE_END) {
            break;
        }
        if (err == KORVALEN_OK) {
            ++frames;
            bytes += f.length;
        }
    }
    const double ours = Now() - t0;

    // Seeks to random seconds: the seek and the first frame after it.
    std::mt19937 rng(1234);
    std::vector<double> lat;
    for (int i = 0; i < seeks && info.totalTime > 0; ++i) {
        const auto s = static_cast<uint32_t>(rng() % info.totalTime);
        const double s0 = Now();
        File_SetPlayTime(&info, s, 25);
        FileFrameInfo f{};
        File_ReadOneFrame(&info, &f, FILE_READ_STEP);
        lat.push_back((Now() - s0) * 1e3);
    }
    File_DestroyFileParser(&info);

    t0 = Now();
    const bool ffOk = Run("ffmpeg -hide_banner -loglevel error -i '" + path + "' -map 0 -c copy -f null -");
    const double ff = Now() - t0;

    std::printf("file: %s (%.1f MB, %u s, %llu frames)\n", path.c_str(), mb, totalTime,
                static_cast<unsigned long long>(frames));
    std::printf("korvalen reader: %.3f s (open and index %.3f s)  %.0f frames/s  %.1f MB/s\n", ours, openSec,
                static_cast<double>(frames) / ours, static_cast<double>(bytes) / 1e6 / ours);
    if (ffOk) {
        std::printf("ffmpeg -c copy -f null: %.3f s  %.0f frames/s  %.1f MB/s\n", ff, static_cast<double>(frames) / ff,
                    mb / ff);
        std::printf("ratio (ffmpeg time / korvalen time): %.2f\n", ff / ours);
    }
    if (!lat.empty()) {
        std::sort(lat.begin(), lat.end());
        std::printf("seek + first frame over %zu random points: median %.3f ms, worst %.3f ms\n", lat.size(),
                    lat[lat.size() / 2], lat.back());
    }
    QMX_HeapDestroy();
    return frames > 0 ? 0 : 1;
}
