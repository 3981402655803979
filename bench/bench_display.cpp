// Putting pictures into X11 windows (private Xvfb) next to the floor: the
// bare libswscale conversion of the same pictures to the same size. Then 16
// ports of 720p at 25 fps into 16 small windows, in real time.
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <sys/resource.h>
#include <thread>
#include <vector>

#include <X11/Xlib.h>

extern "C" {
#include <libswscale/swscale.h>
}

#include "display/video_display.h"
#include "platform/qmx_heap.h"
#include "queue/queue_picture.h"
#include "xvfb_server.h"

namespace {

using Clock = std::chrono::steady_clock;

double CpuSeconds()
{
    rusage r{};
    getrusage(RUSAGE_SELF, &r);
    return r.ru_utime.tv_sec + r.ru_stime.tv_sec + (r.ru_utime.tv_usec + r.ru_stime.tv_usec) / 1e6;
}

struct Picture {
    uint32_t w, h;
    std::vector<uint8_t> buf;
    QUEUE_PICTURE_NODE node;
    Picture(uint32_t width, uint32_t height) : w(width), h(height), buf(width * height * 3 / 2)
    {
        for (size_t i = 0; i < buf.size(); ++i) {
            buf[i] = static_cast<uint8_t>(i * 31 >> 4);
        }
        node.planes[0] = buf.data();
        node.planes[1] = buf.data() + w * h;
        node.planes[2] = buf.data() + w * h * 5 / 4;
        node.lineSizes[0] = w;
        node.lineSizes[1] = node.lineSizes[2] = w / 2;
        node.width = w;
        node.height = h;
    }
};

Window MakeWindow(Display* dpy, int x, int y, unsigned w, unsigned h)
{
    Window win = XCreateSimpleWindow(dpy, DefaultRootWindow(dpy), x, y, w, h, 0, 0, 0);
    XMapWindow(dpy, win);
    XSync(dpy, False);
    return win;
}

// Milliseconds and CPU milliseconds per picture through the display.
void ThroughDisplay(Window win, Picture& pic, int n, double* ms, double* cpuMs)
{
    CBaseDisplay* d = nullptr;
    Video_CreateDisplayDec(win, &d);
    DISP_SETTINGS s;
    Video_DisPlayPicEx(0, d, &pic.node, s); // surfaces made outside the timing
    double cpu0 = CpuSeconds();
    auto t0 = Clock::now();
    for (int i = 0; i < n; ++i) {
        Video_DisPlayPicEx(0, d, &pic.node, s);
    }
    *ms = std::chrono::duration<double, std::milli>(Clock::now() - t0).count() / n;
    *cpuMs = (CpuSeconds() - cpu0) * 1000 / n;
    Video_DestroyDisplayDec(d);
}

// The floor: the same conversion with nothing around it.
double BareSwscale(Picture& pic, int dw, int dh, int n)
{
    SwsContext* ctx = sws_getContext(static_cast<int>(pic.w), static_cast<int>(pic.h), AV_PIX_FMT_YUV420P, dw, dh,
                                     AV_PIX_FMT_BGRA, SWS_BILINEAR, nullptr, nullptr, nullptr);
    std::vector<uint8_t> out(static_cast<size_t>(dw) * dh * 4);
    const uint8_t* planes[3] = {pic.node.planes[0], pic.node.planes[1], pic.node.planes[2]};
    int strides[3] = {static_cast<int>(pic.w), static_cast<int>(pic.w / 2), static_cast<int>(pic.w / 2)};
    uint8_t* dst[1] = {out.data()};
    int dstStride[1] = {dw * 4};
    auto t0 = Clock::now();
    for (int i = 0; i < n; ++i) {
        sws_scale(ctx, planes, strides, 0, static_cast<int>(pic.h), dst, dstStride);
    }
    double ms = std::chrono::duration<double, std::milli>(Clock::now() - t0).count() / n;
    sws_freeContext(ctx);
    return ms;
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
    std::printf("1080p pictures into a window (ms per picture)\n");
    std::printf("%-12s %10s %10s %14s %8s\n", "window", "display", "cpu", "bare swscale", "ratio");
    for (auto [w, h] : {std::pair<unsigned, unsigned>{640, 360}, {1920, 1080}}) {
        Window win = MakeWindow(dpy, 0, 0, w, h);
        double ms = 0, cpu = 0;
        ThroughDisplay(win, hd, 60, &ms, &cpu);
        double floor = BareSwscale(hd, static_cast<int>(w), static_cast<int>(h), 60);
        std::printf("%4ux%-7u %10.2f %10.2f %14.2f %8.2f\n", w, h, ms, cpu, floor, ms / floor);
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
