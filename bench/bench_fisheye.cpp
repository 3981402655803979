// Fisheye dewarping of a 2880 x 2880 picture into a 1920 x 1080 panorama,
// next to a plain libswscale scale of the same picture to the same size (the
// floor for touching every output pixel once). Prints ms per picture and the
// ratio; the table is built once, outside the timing. Both run on this one
// thread and are timed by the thread's CPU clock, so other work on a shared
// machine does not count against either.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <vector>

extern "C" {
#include <libswscale/swscale.h>
}

#include "fisheye/fisheye_remap.h"
#include "fisheye/fisheye_view.h"
#include "heap/qmx_heap.h"

namespace {

using Clock = std::chrono::steady_clock;

double CpuMs()
{
    timespec t{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
    return t.tv_sec * 1e3 + t.tv_nsec / 1e6;
}

constexpr uint32_t kSrc = 2880, kOutW = 1920, kOutH = 1080;

double Ms(Clock::time_point a, Clock::time_point b)
{
    return std::chrono::duration<double, std::milli>(b - a).count();
}

} // namespace

int main(int argc, char** argv)
{
    int frames = 60;
    for (int i = 1; i + 1 < argc; ++i) {
        if (std::strcmp(argv[i], "--frames") == 0) {
            frames = std::max(1, std::atoi(argv[i + 1]));
        }
    }
    QMX_HeapCreate(1 << 20);
    std::vector<uint8_t> src(kSrc * kSrc * 3 / 2);
    for (size_t i = 0; i < src.size(); ++i) {
        src[i] = static_cast<uint8_t>((i * 2654435761u) >> 24);
    }
    const uint8_t* planes[3] = {src.data(), src.data() + kSrc * kSrc, src.data() + kSrc * kSrc * 5 / 4};
    const uint32_t pitch[3] = {kSrc, kSrc / 2, kSrc / 2};

    FE_VIEW_PARAMS v;
    v.view = FE_VIEW_PANORAMA_180; // two strips: every output pixel has a source
    v.mount = FE_MOUNT_CEILING;
    v.lens = {kSrc / 2.0, kSrc / 2.0, kSrc / 2.0};
    FE_REMAP m;
    auto b0 = Clock::now();
    if (FE_BuildRemap(&m, v, kSrc, kSrc, pitch, kOutW, kOutH) != 0) {
        std::fprintf(stderr, "table not built\n");
        return 1;
    }
    auto b1 = Clock::now();
    SwsContext* sws = sws_getContext(kSrc, kSrc, AV_PIX_FMT_YUV420P, kOutW, kOutH, AV_PIX_FMT_YUV420P, SWS_BILINEAR,
                                     nullptr, nullptr, nullptr);
    std::vector<uint8_t> out(kOutW * kOutH * 3 / 2);
    uint8_t* dst[3] = {out.data(), out.data() + kOutW * kOutH, out.data() + kOutW * kOutH * 5 / 4};
    const int dstStride[3] = {static_cast<int>(kOutW), static_cast<int>(kOutW / 2), static_cast<int>(kOutW / 2)};
    const int srcStride[3] = {static_cast<int>(kSrc), static_cast<int>(kSrc / 2), static_cast<int>(kSrc / 2)};
    FE_ApplyRemap(&m, planes); // warm the caches and pages
    sws_scale(sws, planes, srcStride, 0, kSrc, dst, dstStride);
    // Alternating, so a busy machine slows both alike; medians compared.
    std::vector<double> dewarps, scales;
    for (int i = 0; i < frames; ++i) {
        const double a = CpuMs();
        FE_ApplyRemap(&m, planes);
        const double b = CpuMs();
        sws_scale(sws, planes, srcStride, 0, kSrc, dst, dstStride);
        const double c = CpuMs();
        dewarps.push_back(b - a);
        scales.push_back(c - b);
    }
    sws_freeContext(sws);
    std::sort(dewarps.begin(), dewarps.end());
    std::sort(scales.begin(), scales.end());

    const double dewarp = dewarps[dewarps.size() / 2], scale = scales[scales.size() / 2];
    std::printf("fisheye table build (once per view): %.1f ms\n", Ms(b0, b1));
    std::printf("dewarp 2880x2880 -> 1920x1080 panorama: %.2f ms CPU/picture (median)\n", dewarp);
    std::printf("libswscale bilinear scale, same sizes:  %.2f ms CPU/picture (median)\n", scale);
    std::printf("ratio dewarp / scale: %.2f (goal: 2 or less)\n", dewarp / scale);
    FE_ReleaseRemap(&m);
    QMX_HeapDestroy();
    return 0;
}
