// Live streams received, decoded and rendered off-screen: N ports, each fed
// a 720p 25 fps 2 Mbit/s H.264 stream over UDP on loopback by its own
// korvalen-send, beside the same N streams received and decoded by
// GStreamer (udpsrc ! rtpjitterbuffer ! rtph264depay ! avdec_h264 !
// fakesink, one process) and by ffmpeg (one process per stream), in the same
// run. Prints CPU % per stream with the ports decoding and rendering
// headless (no callback asks for the drawn image, as GStreamer's fakesink),
// and, from a second run whose ports hand each drawn picture to a callback,
// pictures shown and the time from a frame's last packet arriving to its
// picture on screen (low delay).
//   bench_live [--fixtures DIR] [--tools DIR] [--ports 1,4,16,32] [--seconds S]
#include <arpa/inet.h>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <netinet/in.h>
#include <sstream>
#include <string>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "bench_util.h"
#include "free_port.h"
#include "korvalen.h"
#include "live_senders.h"

namespace {

using bench::LiveSetup;
using bench::Now;
using bench::Spawn;
using bench::StartSenders;
using bench::WaitAll;

// One port's timing: when each frame's last packet came, and when its
// picture was shown.
struct PortTimes {
    uint32_t port = 0;
    std::vector<double> arrived, shown;
    std::atomic<size_t> nArrived{0}, nShown{0};
};

void OnSource(uint32_t, const uint8_t* data, uint32_t length, uint32_t, void* user, uint32_t)
{
    auto* t = static_cast<PortTimes*>(user);
    if (length > 12 && (data[1] & 0x80) && (data[1] & 0x7F) == 96) { // marker: a frame's last packet
        size_t i = t->nArrived++;
        if (i < t->arrived.size()) {
            t->arrived[i] = Now();
        }
    }
}

void OnDecoded(uint32_t, const KORVALEN_DECODED_VIDEO*, void* user, uint32_t, uint32_t)
{
    ++static_cast<PortTimes*>(user)->nShown;
}

void OnShown(uint32_t, const KORVALEN_DRAW_SURFACE*, void* user, uint32_t)
{
    auto* t = static_cast<PortTimes*>(user);
    size_t i = t->nShown++;
    if (i < t->shown.size()) {
        t->shown[i] = Now();
    }
}

struct Figures {
    double cpuPerStream = 0; // percent of one core
    size_t shown = 0;        // decoded in the headless run
    double latencyMedian = 0, latencyP95 = 0;
};

// timed: each drawn picture goes to a callback (as BGRA), for the latency.
Figures RunPorts(const LiveSetup& s, int n, bool timed)
{
    Korvalen_Init();
    const size_t frames = static_cast<size_t>(s.seconds * 25) + 50;
    std::vector<PortTimes> t(static_cast<size_t>(n));
    std::vector<uint16_t> udp;
    for (PortTimes& p : t) {
        p.arrived.assign(frames, 0);
        p.shown.assign(frames, 0);
        Korvalen_AllocPort(&p.port);
        Korvalen_SetPictureFluency(p.port, 3);
        if (timed) {
            Korvalen_SetSourceMediaDataCB(p.port, &OnSource, 1, &p);
            Korvalen_SetDrawMediaDataCB(p.port, &OnShown, &p);
        } else {
            Korvalen_SetDecodeVideoMediaDataCB(p.port, &OnDecoded, 1, &p);
        }
        uint16_t u = FreeLoopbackPort(SOCK_DGRAM);
        Korvalen_OpenNetStream(p.port, "127.0.0.1", u, "127.0.0.1", 0, 0);
        Korvalen_StartPlay(p.port, 0);
        udp.push_back(u);
    }
    double cpu0 = bench::CpuSeconds(RUSAGE_SELF), t0 = Now();
    std::vector<pid_t> senders = StartSenders(s, udp);
    WaitAll(senders);
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    double wall = Now() - t0, cpu = bench::CpuSeconds(RUSAGE_SELF) - cpu0;
    Figures f;
    std::vector<double> latency;
    for (PortTimes& p : t) {
        size_t shown = std::min(p.nShown.load(), frames);
        f.shown += shown;
        // Pictures match frames in order when none was lost on the way; the
        // last few may still be in flight when the run stops.
        size_t arrived = std::min(p.nArrived.load(), frames);
        if (shown <= arrived && arrived - shown <= 3) {
            for (size_t i = 0; i < shown; ++i) {
                latency.push_back((p.shown[i] - p.arrived[i]) * 1000);
            }
        }
        Korvalen_CloseNetStream(p.port);
    }
    Korvalen_Cleanup();
    f.cpuPerStream = cpu / wall * 100 / n;
    f.latencyMedian = bench::Percentile(latency, 0.5);
    f.latencyP95 = bench::Percentile(latency, 0.95);
    return f;
}

double RunGstreamer(const LiveSetup& s, int n)
{
    std::vector<uint16_t> udp;
    std::vector<std::string> args = {"gst-launch-1.0", "-q"};
    for (int i = 0; i < n; ++i) {
        udp.push_back(FreeLoopbackPort(SOCK_DGRAM));
        for (const char* part :
             {"udpsrc", "", "caps=application/x-rtp,media=video,clock-rate=90000,encoding-name=H264,payload=96", "!",
              "rtpjitterbuffer", "!", "rtph264depay", "!", "avdec_h264", "!", "fakesink", "sync=false"}) {
            args.push_back(*part ? part : "port=" + std::to_string(udp.back()));
        }
    }
    pid_t gst = Spawn(args);
    std::this_thread::sleep_for(std::chrono::milliseconds(500)); // sockets bound
    double t0 = Now();
    WaitAll(StartSenders(s, udp));
    double wall = Now() - t0;
    kill(gst, SIGINT);
    int status = 0;
    rusage ru{};
    wait4(gst, &status, 0, &ru);
    return bench::Seconds(ru) / wall * 100 / n;
}

double RunFfmpeg(const LiveSetup& s, int n)
{
    std::vector<uint16_t> udp;
    std::vector<pid_t> players;
    std::string dir = "/tmp/bench_live_" + std::to_string(getpid());
    std::system(("mkdir -p " + dir).c_str());
    for (int i = 0; i < n; ++i) {
        udp.push_back(FreeLoopbackPort(SOCK_DGRAM));
        std::string sdp = dir + "/s" + std::to_string(i) + ".sdp";
        bench::WriteH264Sdp(sdp, udp.back());
        players.push_back(Spawn({"ffmpeg", "-hide_banner", "-loglevel", "error", "-protocol_whitelist", "file,udp,rtp",
                                 "-i", sdp, "-t", std::to_string(s.seconds), "-f", "null", "-"}));
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    double t0 = Now();
    WaitAll(StartSenders(s, udp));
    double wall = Now() - t0;
    double cpu = 0;
    for (pid_t p : players) {
        kill(p, SIGINT);
        int status = 0;
        rusage ru{};
        wait4(p, &status, 0, &ru);
        cpu += bench::Seconds(ru);
    }
    std::system(("rm -rf " + dir).c_str());
    return cpu / wall * 100 / n;
}

} // namespace

int main(int argc, char** argv)
{
    LiveSetup s;
    std::string fixtures = KORVALEN_FIXTURES, tools = KORVALEN_TOOLS_DIR, list = "1,4,16,32";
    bench::ParseFlags(argc, argv,
                      {{"--fixtures", &fixtures}, {"--tools", &tools}, {"--ports", &list}, {"--seconds", &s.seconds}});
    if (!bench::FindLiveSetup("bench_live", fixtures, tools, &s)) {
        return 1;
    }
    std::printf("720p 25 fps 2 Mbit/s H.264 over UDP, %.0f s per run; CPU in %% of one core per stream\n", s.seconds);
    std::printf("%5s | %9s %12s | %12s %16s | %9s %9s | %7s %7s\n", "ports", "korvalen", "decoded/sent", "shown/sent",
                "latency med/p95", "gstreamer", "ffmpeg", "vs gst", "vs ff");
    std::stringstream ports(list);
    std::string item;
    while (std::getline(ports, item, ',')) {
        int n = std::atoi(item.c_str());
        if (n <= 0) {
            continue;
        }
        Figures k = RunPorts(s, n, false);
        Figures timed = RunPorts(s, n, true);
        double gst = RunGstreamer(s, n);
        double ff = RunFfmpeg(s, n);
        const size_t sent = static_cast<size_t>(s.seconds * 25) * static_cast<size_t>(n);
        std::printf("%5d | %8.1f%% %5zu/%-6zu | %5zu/%-6zu %6.1f/%6.1f ms | %8.1f%% %8.1f%% | %6.2fx %6.2fx\n", n,
                    k.cpuPerStream, k.shown, sent, timed.shown, sent, timed.latencyMedian, timed.latencyP95, gst, ff,
                    k.cpuPerStream / gst, k.cpuPerStream / ff);
        std::fflush(stdout);
    }
    return 0;
}
