// Putting pictures into X11 windows (private Xvfb) next to the floor: the
// bare libswscale conversion of the same pictures to the same size. Then 16
// ports of 720p at 25 fps into 16 small windows, in real time.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <sys/resource.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include <X11/Xlib.h>

extern "C" {
#include <libswscale/swscale.h>
}

#include "bench_screen.h"
#include "bench_util.h"
#include "display/video_display.h"
#include "xvfb_server.h"

namespace {

using bench::Clock;
using bench::MakeWindow;
using bench::Note;
using bench::Picture;
using bench::ServerCpuSeconds;
using bench::Timing;

double CpuSeconds()
{
    return bench::CpuSeconds(RUSAGE_SELF);
}

// Pictures through the display into the window, and the floor: the same
// conversion with nothing around it. Batches of each take turns so that
// both see the same load on a shared machine; the fastest batch of each is
// the one least disturbed.
void CompareWithFloor(Window win, Picture& pic, int dw, int dh, pid_t server, Timing* display, Timing* floor)
{
    constexpr int kBatches = 15, kBatch = 20;
    CBaseDisplay* d = nullptr;
    Video_CreateDisplayDec(win, &d);
    DISP_SETTINGS s;
    Video_DisPlayPicEx(0, d, &pic.node, s); // surfaces made outside the timing
    Video_DisPlayPicEx(0, d, &pic.node, s);
    SwsContext* ctx = sws_getContext(static_cast<int>(pic.w), static_cast<int>(pic.h), AV_PIX_FMT_YUV420P, dw, dh,
                                     AV_PIX_FMT_BGRA, SWS_BILINEAR, nullptr, nullptr, nullptr);
    std::vector<uint8_t> out(static_cast<size_t>(dw) * dh * 4);
    const uint8_t* planes[3] = {pic.node.planes[0], pic.node.planes[1], pic.node.planes[2]};
    int strides[3] = {static_cast<int>(pic.w), static_cast<int>(pic.w / 2), static_cast<int>(pic.w / 2)};
    uint8_t* dst[1] = {out.data()};
    int dstStride[1] = {dw * 4};
    sws_scale(ctx, planes, strides, 0, static_cast<int>(pic.h), dst, dstStride);
    for (int b = 0; b < kBatches; ++b) {
        double cpu0 = CpuSeconds(), server0 = ServerCpuSeconds(server);
        auto t0 = Clock::now();
        for (int i = 0; i < kBatch; ++i) {
            Video_DisPlayPicEx(0, d, &pic.node, s);
        }
        Note(display, t0, kBatch);
        display->cpuMs += (CpuSeconds() - cpu0) * 1000;
        display->serverCpuMs += (ServerCpuSeconds(server) - server0) * 1000;
        cpu0 = CpuSeconds();
        t0 = Clock::now();
        for (int i = 0; i < kBatch; ++i) {
            sws_scale(ctx, planes, strides, 0, static_cast<int>(pic.h), dst, dstStride);
        }
        Note(floor, t0, kBatch);
        floor->cpuMs += (CpuSeconds() - cpu0) * 1000;
    }
    for (Timing* t : {display, floor}) {
        bench::Finish(t, kBatches * kBatch);
    }
    sws_freeContext(ctx);
    Video_DestroyDisplayDec(d);
}

} // namespace

int main()
{
    XvfbServer x;
    if (!x.Start()) {
        std::printf("bench_display: Xvfb cannot run here\n");
        return 1;
    }
    Display* dpy = XOpenDisplay(nullptr);
    Picture hd(1920, 1080);
    std::printf("1080p pictures into a window, ms per picture: best batch, mean, our CPU, the X server's CPU;\n"
                "the floor is the bare libswscale conversion to the same size\n");
    std::printf("%-10s | %8s %8s %8s %8s | %8s %8s %8s | %10s %10s\n", "window", "best", "mean", "cpu", "server",
                "best", "mean", "cpu", "best ratio", "mean ratio");
    for (auto [w, h] : {std::pair<unsigned, unsigned>{640, 360}, {1920, 1080}}) {
        Window win = MakeWindow(dpy, 0, 0, w, h);
        Timing display, floor;
        CompareWithFloor(win, hd, static_cast<int>(w), static_cast<int>(h), x.Pid(), &display, &floor);
        std::printf("%4ux%-5u | %8.2f %8.2f %8.2f %8.2f | %8.2f %8.2f %8.2f | %10.2f %10.2f\n", w, h, display.bestMs,
                    display.meanMs, display.cpuMs, display.serverCpuMs, floor.bestMs, floor.meanMs, floor.cpuMs,
                    display.bestMs / floor.bestMs, display.meanMs / floor.meanMs);
        XDestroyWindow(dpy, win);
    }

    // 16 ports of 720p at 25 fps into 16 windows of 320 x 180, one render
    // thread each, for 3 seconds.
    constexpr int kPorts = 16, kFps = 25, kSeconds = 3;
    std::vector<Window> wins;
    for (int i = 0; i < kPorts; ++i) {
        wins.push_back(MakeWindow(dpy, (i % 4) * 330, (i / 4) * 190, 320, 180));
    }
    Picture p720(1280, 720);
    std::vector<std::thread> threads;
    std::vector<int> late(kPorts, 0);
    double cpu0 = CpuSeconds();
    auto start = Clock::now();
    for (int i = 0; i < kPorts; ++i) {
        threads.emplace_back([&, i] {
            CBaseDisplay* d = nullptr;
            Video_CreateDisplayDec(wins[i], &d);
            DISP_SETTINGS s;
            auto next = Clock::now();
            for (int f = 0; f < kFps * kSeconds; ++f) {
                Video_DisPlayPicEx(static_cast<uint32_t>(i), d, &p720.node, s);
                next += std::chrono::milliseconds(1000 / kFps);
                if (Clock::now() > next) {
                    ++late[i];
                }
                std::this_thread::sleep_until(next);
            }
            Video_DestroyDisplayDec(d);
        });
    }
    for (auto& t : threads) {
        t.join();
    }
    double wall = std::chrono::duration<double>(Clock::now() - start).count();
    int lateTotal = 0;
    for (int l : late) {
        lateTotal += l;
    }
    std::printf("16 ports x 720p x 25 fps into 320x180 windows: %.2f s for %d s of video (real-time factor %.2f), "
                "CPU %.0f%% of one core, %d of %d pictures late\n",
                wall, kSeconds, kSeconds / wall, (CpuSeconds() - cpu0) / wall * 100, lateTotal,
                kPorts * kFps * kSeconds);
    XCloseDisplay(dpy);
    return 0;
}
