// The analysis overlay's cost per picture: a 1080p picture put into a
// 960x540 window bare, and with the overlay of four rules and 0, 10 or 100
// moving tracked targets (trails as the overlay keeps them), through a
// port's own overlay hooks (SEI parse and store copies on the decode side,
// painting in the put on the render side). Then the same overlay end to
// end: a 1080p H.264 stream with the SEI of 100 targets pushed into a port
// playing into the window, overlay off and on, CPU of the port's render and
// decode threads per picture shown. Xvfb is started when there is no display.
//   bench_iva [--pictures N] [--batches N] [--stream-frames N] [--fixtures DIR]
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <dirent.h>
#include <fstream>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

#include <X11/Xlib.h>

extern "C" {
#include <libavutil/log.h>
}

#include "bench_screen.h"
#include "bench_util.h"
#include "codec/code_types.h"
#include "display/video_display.h"
#include "iva/iva_port.h"
#include "korvalen.h"
#include "port/port.h"
#include "port/port_table.h"
#include "sei_writer.h"
#include "xvfb_server.h"

namespace {

using bench::Clock;
using bench::Timing;

constexpr unsigned kWindowW = 960, kWindowH = 540;
// SEI of this many frames is made up front; the targets move all along.
constexpr uint32_t kCycle = 250;
// Pictures each port shows before timing, so every trail is full.
constexpr uint32_t kWarmUp = 2 * IVA_TRACK_POINTS;

// Rules as a camera draws them: two zones, one with a see-through fill, and
// two crossing lines, all with direction labels.
const char* const kRules = "* rule polygon label=4 color=6 fill=6 line=100 fillv=30 "
                           "points=1000,5500;4500,5000;4800,9000;800,9200\n"
                           "* rule polygon label=5 color=8 line=100 points=5500,5500;9500,5500;9500,9500;5500,9500\n"
                           "* rule line label=4 color=11 line=100 points=500,3000;9500,3200\n"
                           "* rule line label=5 color=9 line=100 points=2000,500;3000,2000;5000,2500;8000,1500\n";

// Targets spread over a 10 x 10 grid, each walking down and to the right;
// all of the tracked class with tracking on, so they get trails.
std::string Description(uint32_t targets)
{
    std::string text = kRules;
    for (uint32_t i = 0; i < targets; ++i) {
        const uint32_t cell = i * (100 / targets);
        const uint32_t l = 300 + cell % 10 * 900, t = 300 + cell / 10 * 880;
        char line[160];
        std::snprintf(line, sizeof line, "* target id=%u class=0 color=%u track=1 box=%u,%u,%u,%u move=4,3\n", i + 1,
                      5 + i % 7, l, t, l + 500, t + 700);
        text += line;
    }
    return text;
}

// One port and what it shows: bare, or with the overlay of n targets.
struct Case {
    Case(const char* n, bool withOverlay, uint32_t count) : name(n), overlay(withOverlay), targets(count) {}
    const char* name;
    bool overlay;
    uint32_t targets;
    uint32_t port = 0;
    PortRecord* rec = nullptr;
    std::vector<SeiBytes> units; // SEI units of each frame of the cycle
    uint32_t frame = 0;
    Timing render;       // prepare + put (the painting is inside the put)
    double decodeMs = 0; // SEI parse and store copies, CPU
};

bool Prepare(Case& c)
{
    if (Korvalen_AllocPort(&c.port) != 1 || !(c.rec = Player_GetPort(c.port))) {
        return false;
    }
    if (!c.overlay) {
        return true;
    }
    std::vector<SEIW_STATEMENT> desc;
    std::string error;
    if (!SeiWriter_ParseDescription(Description(c.targets), &desc, &error)) {
        std::printf("bench_iva: %s\n", error.c_str());
        return false;
    }
    for (uint32_t n = 0; n < kCycle; ++n) {
        c.units.push_back(SeiWriter_UnitsForFrame(SEIW_H264, desc, n));
    }
    return Korvalen_SetIVAEnable(c.port, 1) == 1;
}

// One picture as the port's threads handle it. Returns the render side's
// wall milliseconds; the decode side's CPU goes to c.decodeMs.
double ShowOne(Case& c, CBaseDisplay* d, QUEUE_PICTURE_NODE* node)
{
    DISP_SETTINGS s;
    if (c.overlay) {
        const SeiBytes& u = c.units[c.frame % kCycle];
        CODE_HANDLE h{};
        h.inIndex = h.outIndex = c.frame % CODE_MARK_RING;
        ++c.frame;
        const double cpu0 = bench::ThreadCpuSeconds();
        IVA_ParseFrame(c.rec->iva, u.data(), static_cast<uint32_t>(u.size()), KORVALEN_CODEC_H264);
        IVA_FrameDecoded(c.rec->iva, h);
        IVA_AttachOverlay(c.rec->iva, h, node->attached);
        c.decodeMs += (bench::ThreadCpuSeconds() - cpu0) * 1000;
    }
    const auto t0 = Clock::now();
    IVA_PrepareOverlay(c.rec->iva, c.rec->video.osdStyle, node, &s);
    Video_DisPlayPicEx(c.port, d, node, s);
    const double ms = bench::MsSince(t0);
    QUEUE_ATTACHED& a = node->attached[0];
    if (a.release) {
        a.release(a.data); // what the picture queue does when the node is reused
    }
    a = QUEUE_ATTACHED{};
    return ms;
}

// Batches of every case take turns so that all see the same load on a
// shared machine.
void Run(std::vector<Case>& cases, CBaseDisplay* d, bench::Picture& pic, pid_t server, int batches, int pictures)
{
    for (Case& c : cases) {
        for (uint32_t i = 0; i < kWarmUp; ++i) {
            ShowOne(c, d, &pic.node);
        }
        c.decodeMs = 0;
    }
    for (int b = 0; b < batches; ++b) {
        for (Case& c : cases) {
            const double cpu0 = bench::ThreadCpuSeconds(), server0 = bench::ServerCpuSeconds(server);
            double ms = 0;
            for (int i = 0; i < pictures; ++i) {
                ms += ShowOne(c, d, &pic.node);
            }
            bench::NoteMs(&c.render, ms, pictures);
            // Thread CPU of the whole batch, less the decode side's share.
            c.render.cpuMs += (bench::ThreadCpuSeconds() - cpu0) * 1000;
            c.render.serverCpuMs += (bench::ServerCpuSeconds(server) - server0) * 1000;
        }
    }
    for (Case& c : cases) {
        c.render.cpuMs -= c.decodeMs;
        bench::Finish(&c.render, batches * pictures);
        c.decodeMs /= batches * pictures;
    }
}

void Print(const std::vector<Case>& cases, bool serverKnown)
{
    const Timing& bare = cases[0].render;
    std::printf("1080p picture into a %ux%u window, ms per picture. Render side (overlay set-up and the put, "
                "painting included):\nbest batch, mean of batches, render thread CPU, X server CPU; decode side: "
                "SEI parse and store copies (CPU);\nextra: beside the bare put (best, CPU); ratio: best and mean "
                "beside the bare put\n",
                kWindowW, kWindowH);
    std::printf("%-18s | %7s %7s %7s %7s | %7s | %7s %7s | %6s %6s\n", "case", "best", "mean", "cpu", "server",
                "decode", "extra", "x cpu", "best", "mean");
    for (const Case& c : cases) {
        const Timing& t = c.render;
        char server[16] = "      -";
        if (serverKnown) {
            std::snprintf(server, sizeof server, "%7.3f", t.serverCpuMs);
        }
        std::printf("%-18s | %7.3f %7.3f %7.3f %s | %7.3f | %7.3f %7.3f | %6.2f %6.2f\n", c.name, t.bestMs, t.meanMs,
                    t.cpuMs, server, c.decodeMs, t.bestMs - bare.bestMs, t.cpuMs - bare.cpuMs, t.bestMs / bare.bestMs,
                    t.meanMs / bare.meanMs);
    }
}

std::atomic<uint32_t> g_shown{0};

void CountShown(uint32_t, const KORVALEN_DRAW_SURFACE*, void*, uint32_t)
{
    ++g_shown;
}

// CPU seconds of this process's threads with the given name, to the
// nanosecond (the scheduler's run time of each).
double NamedThreadsCpu(const char* name)
{
    double ns = 0;
    DIR* dir = opendir("/proc/self/task");
    if (!dir) {
        return 0;
    }
    while (dirent* e = readdir(dir)) {
        if (e->d_name[0] == '.') {
            continue;
        }
        const std::string base = std::string("/proc/self/task/") + e->d_name;
        std::ifstream comm(base + "/comm");
        std::ifstream sched(base + "/schedstat");
        std::string n;
        double run = 0;
        if (std::getline(comm, n) && n == name && sched >> run) {
            ns += run;
        }
    }
    closedir(dir);
    return ns / 1e9;
}

struct StreamRun {
    uint32_t shown = 0;
    double seconds = 0;
    double renderCpuMs = 0; // per picture shown
    double decodeCpuMs = 0;
};

// Plays the access units into the window through the C API until the port
// stops showing new pictures.
StreamRun PlayStream(const std::vector<SeiBytes>& units, Window win, bool overlay)
{
    StreamRun r;
    uint32_t port = 0;
    if (Korvalen_AllocPort(&port) != 1) {
        return r;
    }
    Korvalen_SetIVAEnable(port, overlay ? 1 : 0);
    Korvalen_SetDrawMediaDataCB(port, &CountShown, nullptr);
    g_shown = 0;
    if (Korvalen_OpenInputStream(port, nullptr, 0, 0) != 1 || Korvalen_StartPlay(port, win) != 1) {
        Korvalen_FreePort(port);
        return r;
    }
    const auto t0 = Clock::now();
    for (const SeiBytes& u : units) {
        while (!Korvalen_InputMediaData(port, u.data(), static_cast<uint32_t>(u.size())) &&
               Korvalen_GetLastError() == KORVALEN_ERR_BUFFER_FULL) {
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        }
    }
    uint32_t last = 0;
    auto moved = Clock::now();
    while (bench::MsSince(moved) < 1000) {
        if (g_shown != last) {
            last = g_shown;
            moved = Clock::now();
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    r.shown = last;
    r.seconds = std::chrono::duration<double>(moved - t0).count();
    // Read before the threads end with the stream.
    const double n = last > 0 ? last : 1;
    r.renderCpuMs = NamedThreadsCpu("Render") * 1000 / n;
    r.decodeCpuMs = NamedThreadsCpu("Decode") * 1000 / n;
    Korvalen_CloseInputStream(port);
    Korvalen_FreePort(port);
    return r;
}

void EndToEnd(const std::string& path, uint32_t frames, Window win)
{
    std::ifstream in(path, std::ios::binary);
    const SeiBytes raw((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    std::vector<SEIW_STATEMENT> desc;
    std::string error;
    if (raw.empty() || !SeiWriter_ParseDescription(Description(100), &desc, &error)) {
        std::printf("end to end: no input %s (run scripts/make_fixtures.sh)\n", path.c_str());
        return;
    }
    std::vector<SeiBytes> units = SeiWriter_SplitAccessUnits(SEIW_H264, SeiWriter_Inject(SEIW_H264, raw, desc));
    units.resize(std::min<size_t>(units.size(), frames));
    // FFmpeg's own SEI reader takes the size fields for unescaped sizes and
    // reports every record as truncated: two lines per picture on both
    // runs, which the decoder otherwise ignores.
    av_log_set_level(AV_LOG_FATAL);
    std::printf("\nend to end: %zu access units of 1080p H.264 with the SEI of 4 rules and 100 targets pushed "
                "into a port playing into the window;\nCPU ms per picture shown of the port's Render thread and "
                "of its Decode thread with the decoder's workers (they inherit its name)\n",
                units.size());
    std::printf("%-12s | %6s %8s | %8s %8s\n", "overlay", "shown", "seconds", "render", "decode");
    // Off, on, on, off: a drift in the machine's load weighs on both alike.
    double render[2] = {}, decode[2] = {};
    for (int on : {0, 1, 1, 0}) {
        const StreamRun r = PlayStream(units, win, on == 1);
        render[on] += r.renderCpuMs / 2;
        decode[on] += r.decodeCpuMs / 2;
        std::printf("%-12s | %6u %8.2f | %8.3f %8.3f\n", on ? "on" : "off", r.shown, r.seconds, r.renderCpuMs,
                    r.decodeCpuMs);
    }
    std::printf("overlay's extra (means of both runs): render %+.3f ms, decode %+.3f ms per picture; render "
                "ratio %.2f\n",
                render[1] - render[0], decode[1] - decode[0], render[0] > 0 ? render[1] / render[0] : 0.0);
}

} // namespace

int main(int argc, char** argv)
{
    int pictures = 20, batches = 15, streamFrames = 100;
    std::string fixtures = KORVALEN_FIXTURES;
    bench::ParseFlags(argc, argv,
                      {{"--pictures", &pictures},
                       {"--batches", &batches},
                       {"--stream-frames", &streamFrames},
                       {"--fixtures", &fixtures}});
    pictures = std::max(pictures, 1);
    batches = std::max(batches, 1);
    XvfbServer x;
    const char* env = std::getenv("DISPLAY");
    if ((!env || !*env) && !x.Start()) {
        std::printf("bench_iva: no display and Xvfb cannot run here\n");
        return 1;
    }
    Display* dpy = XOpenDisplay(nullptr);
    if (!dpy) {
        std::printf("bench_iva: cannot open the display\n");
        return 1;
    }
    Window win = bench::MakeWindow(dpy, 0, 0, kWindowW, kWindowH);
    bench::Picture hd(1920, 1080);
    if (Korvalen_Init() != 1) {
        std::printf("bench_iva: the player does not start\n");
        return 1;
    }
    std::vector<Case> cases;
    cases.emplace_back("bare put", false, 0);
    for (uint32_t n : {0u, 10u, 100u}) {
        cases.emplace_back(n == 0 ? "rules, 0 targets" : n == 10 ? "rules, 10 targets" : "rules, 100 targets", true, n);
    }
    int rc = 0;
    CBaseDisplay* d = nullptr;
    bool ready = Video_CreateDisplayDec(win, &d) == KORVALEN_OK && !d->IsOffscreen();
    for (Case& c : cases) {
        ready = ready && Prepare(c);
    }
    if (ready) {
        Run(cases, d, hd, x.Pid(), batches, pictures);
        Print(cases, x.Pid() > 0);
    } else {
        std::printf("bench_iva: no X11 display or port for the window\n");
        rc = 1;
    }
    Video_DestroyDisplayDec(d);
    for (Case& c : cases) {
        if (c.rec) {
            Korvalen_FreePort(c.port);
        }
    }
    if (rc == 0 && streamFrames > 0) {
        EndToEnd(fixtures + "/bench_1080p.h264", static_cast<uint32_t>(streamFrames), win);
    }
    Korvalen_Cleanup();
    XDestroyWindow(dpy, win);
    XCloseDisplay(dpy);
    return rc;
}
