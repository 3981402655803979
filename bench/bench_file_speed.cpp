// File playback pace: each speed code plays a 25 fps MP4 through the C API
// (headless) for a few seconds, and the pictures decoded per second are set
// beside what the code asks for: every frame at 25 / factor for the normal
// codes, key frames only at one per frame interval x factor for the others.
// ffmpeg's "-readrate" plays the same file at 1x, 2x and 4x in the same run
// for the frame-paced codes it can match.
//   bench_file_speed [--fixtures DIR] [--seconds S]
#include <atomic>
#include <chrono>
#include <cstdio>
#include <string>
#include <sys/stat.h>
#include <thread>

#include "bench_util.h"
#include "korvalen.h"

#ifndef KORVALEN_FIXTURES
#define KORVALEN_FIXTURES "build/fixtures"
#endif

namespace {

using bench::Now;

constexpr double kFps = 25;
constexpr double kKeyEvery = 5; // frames per key frame in the file

struct Speed {
    uint32_t code;
    bool keysOnly;
    double factor; // interval multiplier; key-frame codes: of the 40 ms interval
};

// The speed table, one code per distinct pace. Codes 4, 5, 6, 25 and 34 show
// key frames only on a file port; 7.. 33 do too, at stream rate / N.
const Speed kSpeeds[] = {
    {0, false, 4.0},       {1, false, 2.0},        {2, false, 1.0},        {3, false, 0.5},      {4, true, 0.25},
    {5, true, 0.125},      {6, true, 0.0625},      {34, true, 0.03125},    {25, true, 0.025},    {11, true, kFps / 1},
    {10, true, kFps / 2},  {9, true, kFps / 4},    {8, true, kFps / 8},    {7, true, kFps / 16}, {26, true, kFps / 32},
    {28, true, kFps / 64}, {30, true, kFps / 128}, {32, true, kFps / 256},
};

std::atomic<uint64_t> g_pictures{0};

void OnDecoded(uint32_t, const KORVALEN_DECODED_VIDEO*, void*, uint32_t, uint32_t)
{
    ++g_pictures;
}

std::string MakeFile(const std::string& dir)
{
    const std::string out = dir + "/bench_speed_640x360.mp4";
    struct stat st;
    if (stat(out.c_str(), &st) == 0 && st.st_size > 0) {
        return out;
    }
    const std::string cmd = "ffmpeg -hide_banner -loglevel error -y -f lavfi -i testsrc2=size=640x360:rate=25 -t 300 "
                            "-c:v libx264 -preset ultrafast -g 5 -bf 0 -pix_fmt yuv420p '" +
                            out + "'";
    return std::system(cmd.c_str()) == 0 ? out : "";
}

// Pictures per second a port decodes at one speed code.
double PortRate(const std::string& path, uint32_t code, double seconds)
{
    uint32_t port = 0;
    if (Korvalen_AllocPort(&port) != 1) {
        return -1;
    }
    Korvalen_SetDecodeVideoMediaDataCB(port, &OnDecoded, 1, nullptr);
    double rate = -1;
    if (Korvalen_OpenMediaFile(port, path.c_str()) == 1 && Korvalen_SpeedPlay(port, code) == 1 &&
        Korvalen_StartPlay(port, 0) == 1) {
        std::this_thread::sleep_for(std::chrono::milliseconds(500)); // past the start
        const uint64_t before = g_pictures;
        const double t0 = Now();
        std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
        rate = static_cast<double>(g_pictures - before) / (Now() - t0);
        Korvalen_StopPlay(port, 0);
    }
    Korvalen_CloseMediaFile(port);
    Korvalen_FreePort(port);
    return rate;
}

// Frames per second ffmpeg reads the file at "-readrate" r (decoding to null).
double FfmpegRate(const std::string& path, double r, double seconds)
{
    const double t0 = Now();
    const std::string cmd = "ffmpeg -hide_banner -loglevel error -readrate " + std::to_string(r) + " -i '" + path +
                            "' -t " + std::to_string(seconds * r) + " -f null - 2>/dev/null";
    if (std::system(cmd.c_str()) != 0) {
        return -1;
    }
    return seconds * r * kFps / (Now() - t0);
}

} // namespace

int main(int argc, char** argv)
{
    std::string dir = KORVALEN_FIXTURES;
    double seconds = 3;
    bench::ParseFlags(argc, argv, {{"--fixtures", &dir}, {"--seconds", &seconds}});
    const std::string path = MakeFile(dir);
    if (path.empty() || Korvalen_Init() != 1) {
        std::fprintf(stderr, "bench_file_speed: cannot make or play %s\n", path.c_str());
        return 1;
    }
    std::printf("%s: 640x360, 25 fps, a key frame every %.0f frames; %.1f s per code\n", path.c_str(), kKeyEvery,
                seconds);
    std::printf("code  shows        asked fps  measured fps  ratio\n");
    int bad = 0;
    for (const Speed& s : kSpeeds) {
        // Key frames are a fifth of the frames: past one per 8 ms the file
        // runs out of them faster than the code asks, so the ask is capped
        // by what the reader and decoder can give.
        const double asked = s.keysOnly ? 1000.0 / (1000.0 / kFps * s.factor) : kFps / s.factor;
        const double got = PortRate(path, s.code, seconds);
        bad += got < 0;
        std::printf("%4u  %-11s  %9.2f  %12.2f  %5.2f\n", s.code, s.keysOnly ? "key frames" : "every frame", asked, got,
                    got / asked);
    }
    Korvalen_Cleanup();
    std::printf("ffmpeg -readrate (every frame):\n");
    for (double r : {1.0, 2.0, 4.0}) {
        std::printf("  %.0fx  asked %6.2f fps  measured %6.2f fps\n", r, kFps * r, FfmpegRate(path, r, seconds));
    }
    return bad ? 1 : 0;
}
