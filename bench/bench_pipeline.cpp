// The pushed-stream pipeline, end to end through the C API.
//  1. Throughput: a 1080p H.264 stream pushed as fast as a port takes it
//     (fluency off), frames per second and CPU per frame, beside
//     `ffmpeg -i same -f null -` in the same run.
//  2. Real time: N ports (16 by default) each fed 720p at 25 fps in
//     low-delay mode, rendered off-screen: CPU % per port, dropped frames,
//     and the time from Korvalen_InputMediaData to the decoded picture and
//     to the picture reaching the display.
//   bench_pipeline [--fixtures DIR] [--ports N] [--seconds S] [--frames N]
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "bench_util.h"
#include "korvalen.h"

namespace {

using bench::Now;
using bench::Packets;

// Pushes one unit, waiting while the port's buffer is full.
void Push(uint32_t port, const std::vector<uint8_t>& unit)
{
    while (!Korvalen_InputMediaData(port, unit.data(), static_cast<uint32_t>(unit.size())) &&
           Korvalen_GetLastError() == KORVALEN_ERR_BUFFER_FULL) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

std::atomic<size_t> g_pictures{0};

void CountPicture(uint32_t, const KORVALEN_DECODED_VIDEO*, void*, uint32_t, uint32_t)
{
    ++g_pictures;
}

void Throughput(const std::string& path, size_t limit)
{
    Packets units = bench::ReadPackets(path, limit);
    if (units.empty()) {
        std::printf("throughput: no input %s (run scripts/make_fixtures.sh)\n", path.c_str());
        return;
    }
    Korvalen_Init();
    uint32_t port = 0;
    Korvalen_AllocPort(&port);
    Korvalen_SetPictureFluency(port, 0);
    Korvalen_SetDecodeVideoMediaDataCB(port, &CountPicture, 1, nullptr);
    Korvalen_OpenInputStream(port, nullptr, 0, 0);
    g_pictures = 0;
    double cpu0 = bench::CpuSeconds(RUSAGE_SELF), t0 = Now();
    for (const auto& u : units) {
        Push(port, u);
    }
    // A live decoder keeps its last reordered pictures: wait until the count
    // stops moving.
    size_t last = SIZE_MAX;
    double lastMove = Now();
    while (Now() - lastMove < 0.3) {
        if (g_pictures != last) {
            last = g_pictures;
            lastMove = Now();
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    double wall = lastMove - t0, cpu = bench::CpuSeconds(RUSAGE_SELF) - cpu0;
    Korvalen_CloseInputStream(port);
    Korvalen_Cleanup();
    size_t frames = last;

    std::string cmd = "ffmpeg -hide_banner -loglevel error -i '" + path + "' -frames:v " +
                      std::to_string(units.size()) + " -f null -";
    double fcpu0 = bench::CpuSeconds(RUSAGE_CHILDREN), ft0 = Now();
    int rc = std::system(cmd.c_str());
    double fwall = Now() - ft0, fcpu = bench::CpuSeconds(RUSAGE_CHILDREN) - fcpu0;
    std::printf("throughput, %zu frames of %s\n", units.size(), path.c_str());
    std::printf("  korvalen port : %5zu pictures  %7.1f fps  %6.2f ms CPU/frame\n", frames, frames / wall,
                cpu * 1000 / static_cast<double>(frames ? frames : 1));
    if (rc == 0) {
        double n = static_cast<double>(units.size());
        std::printf("  ffmpeg -f null: %5zu pictures  %7.1f fps  %6.2f ms CPU/frame\n", units.size(), n / fwall,
                    fcpu * 1000 / n);
        std::printf("  ratio (port/ffmpeg): fps %.2f, CPU per frame %.2f\n", (frames / wall) / (n / fwall),
                    (cpu / static_cast<double>(frames ? frames : 1)) / (fcpu / n));
    }
}

// Per-port record of when each frame went in and came out.
struct PortTimes {
    uint32_t port = 0;
    std::vector<double> pushed, decoded, shown;
    std::atomic<size_t> nDecoded{0}, nShown{0};
    size_t nPushed = 0;
};

void OnDecoded(uint32_t, const KORVALEN_DECODED_VIDEO*, void* user, uint32_t, uint32_t)
{
    auto* t = static_cast<PortTimes*>(user);
    size_t i = t->nDecoded++;
    if (i < t->decoded.size()) {
        t->decoded[i] = Now();
    }
}

void OnShown(uint32_t, const KORVALEN_DRAW_SURFACE*, void* user, uint32_t)
{
    auto* t = static_cast<PortTimes*>(user);
    size_t i = t->nShown++;
    if (i < t->shown.size()) {
        t->shown[i] = Now();
    }
}

void RealTime(const std::string& path, int ports, double seconds)
{
    Packets units = bench::ReadPackets(path);
    if (units.empty()) {
        std::printf("real time: no input %s\n", path.c_str());
        return;
    }
    const size_t frames = static_cast<size_t>(seconds * 25);
    Korvalen_Init();
    std::vector<PortTimes> t(static_cast<size_t>(ports));
    for (PortTimes& p : t) {
        p.pushed.assign(frames, 0);
        p.decoded.assign(frames, 0);
        p.shown.assign(frames, 0);
        Korvalen_AllocPort(&p.port);
        Korvalen_SetPictureFluency(p.port, 3); // low delay
        Korvalen_SetDecodeVideoMediaDataCB(p.port, &OnDecoded, 1, &p);
        Korvalen_SetDrawMediaDataCB(p.port, &OnShown, &p);
        Korvalen_OpenInputStream(p.port, nullptr, 0, 0);
        Korvalen_StartPlay(p.port, 0);
    }
    double cpu0 = bench::CpuSeconds(RUSAGE_SELF), t0 = Now();
    std::vector<std::thread> feeders;
    for (PortTimes& p : t) {
        feeders.emplace_back([&p, &units, frames, t0] {
            for (size_t i = 0; i < frames; ++i) {
                std::this_thread::sleep_until(std::chrono::steady_clock::time_point(
                    std::chrono::duration_cast<std::chrono::steady_clock::duration>(
                        std::chrono::duration<double>(t0 + static_cast<double>(i) / 25))));
                p.pushed[i] = Now();
                Push(p.port, units[i % units.size()]);
                p.nPushed = i + 1;
            }
        });
    }
    for (std::thread& f : feeders) {
        f.join();
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    double wall = Now() - t0, cpu = bench::CpuSeconds(RUSAGE_SELF) - cpu0;
    std::vector<double> decodeMs, shownMs, addedMs;
    size_t shownTotal = 0, pushedTotal = 0, decodedTotal = 0;
    for (PortTimes& p : t) {
        size_t shown = std::min(p.nShown.load(), frames), decoded = std::min(p.nDecoded.load(), frames);
        shownTotal += shown;
        decodedTotal += decoded;
        pushedTotal += p.nPushed;
        // Counting from the start matches frames only while none is dropped
        // (the last few may still be in flight).
        if (decoded <= p.nPushed && p.nPushed - decoded <= 3 && shown <= decoded && decoded - shown <= 3) {
            for (size_t i = 0; i < shown; ++i) {
                decodeMs.push_back((p.decoded[i] - p.pushed[i]) * 1000);
                shownMs.push_back((p.shown[i] - p.pushed[i]) * 1000);
                addedMs.push_back((p.shown[i] - p.decoded[i]) * 1000);
            }
        }
        Korvalen_CloseInputStream(p.port);
    }
    Korvalen_Cleanup();
    std::printf("real time, %d ports of %s at 25 fps for %.0f s, low delay, off-screen\n", ports, path.c_str(),
                seconds);
    std::printf("  CPU %.1f %% per port (%.1f %% of one core in all); of %zu frames %zu decoded, %zu shown\n",
                cpu / wall * 100 / ports, cpu / wall * 100, pushedTotal, decodedTotal, shownTotal);
    if (!shownMs.empty()) {
        std::printf("  push -> decoded  median %6.1f ms  p95 %6.1f ms\n", bench::Percentile(decodeMs, 0.5),
                    bench::Percentile(decodeMs, 0.95));
        std::printf("  push -> shown    median %6.1f ms  p95 %6.1f ms\n", bench::Percentile(shownMs, 0.5),
                    bench::Percentile(shownMs, 0.95));
        std::printf("  decoded -> shown median %6.1f ms  p95 %6.1f ms (one frame interval: 40 ms)\n",
                    bench::Percentile(addedMs, 0.5), bench::Percentile(addedMs, 0.95));
    } else {
        std::printf("  latency: frames were dropped, so pictures cannot be matched to pushes\n");
    }
}

} // namespace

int main(int argc, char** argv)
{
    std::string dir = KORVALEN_FIXTURES;
    int ports = 16;
    double seconds = 8;
    size_t frames = 250;
    bench::ParseFlags(argc, argv,
                      {{"--fixtures", &dir}, {"--ports", &ports}, {"--seconds", &seconds}, {"--frames", &frames}});
    av_log_set_level(AV_LOG_ERROR);
    Throughput(dir + "/bench_1080p.h264", frames);
    RealTime(dir + "/bench_720p.h264", ports, seconds);
    return 0;
}
