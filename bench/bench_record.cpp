// Recording live streams: N ports, each fed a 720p 25 fps 2 Mbit/s H.264
// stream over UDP on loopback by its own korvalen-send, record it to a file
// (MP4; MPEG-TS and AVI on request), beside ffmpeg recording the same N
// streams with "-c copy" (one process per stream, from an SDP), in the same
// run. The ports only record: their source callback is set with option 0,
// so nothing is parsed for playing, decoded or shown, and no window exists.
// Prints per stream: CPU % of one core; file bytes per second of stream;
// what the process handed to write() (bytes and calls) and the page-cache
// bytes it dirtied (/proc/PID/io, journal and log included); the frames in
// the finished files. And the time from a stream's last packet to its bytes
// being in the file: file sizes are polled with stat() every millisecond (no
// fsync: "in the file" means any reader sees them, not that they reached the
// platter); a file that has stopped growing yet gets more stream data when
// the recording is stopped held those bytes in memory until then.
//   bench_record [--fixtures DIR] [--tools DIR] [--dir DIR] [--ports N] [--seconds S]
//                [--formats mp4,ts,avi]
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "bench_util.h"
#include "free_port.h"
#include "korvalen.h"
#include "live_senders.h"

namespace {

using bench::Now;

constexpr double kInFlight = 0.3;    // after the last sender went, for packets still on their way
constexpr double kQuiet = 1.0;       // no file grew for this long: the writers are done
constexpr double kSettleMax = 10;    // give up waiting for quiet
constexpr double kWaiting = 1;       // seconds of CPU measured ready, before the streams
constexpr double kFinePolling = 1.0; // seconds before the streams end when stat() goes to every millisecond

struct Format {
    const char* name;         // in --formats
    uint32_t recordType;      // Korvalen_StartRecord
    const char* ffmpegFormat; // ffmpeg -f
    const char* ext;
};

constexpr Format kFormats[] = {{"mp4", 0, "mp4", ".mp4"}, {"ts", 1, "mpegts", ".ts"}, {"avi", 14, "avi", ".avi"}};

struct Run {
    bench::LiveSetup live;
    int n = 16;
    Format format = kFormats[0];
    std::string dir;
};

// Write figures from /proc/PID/io.
struct Io {
    uint64_t wchar = 0, syscw = 0, dirtied = 0, cancelled = 0;
};

Io ReadIo(const std::string& path)
{
    Io io;
    std::ifstream f(path);
    std::string key;
    uint64_t v = 0;
    while (f >> key >> v) {
        if (key == "wchar:") {
            io.wchar = v;
        } else if (key == "syscw:") {
            io.syscw = v;
        } else if (key == "write_bytes:") {
            io.dirtied = v;
        } else if (key == "cancelled_write_bytes:") {
            io.cancelled = v;
        }
    }
    return io;
}

Io operator-(const Io& a, const Io& b)
{
    return Io{a.wchar - b.wchar, a.syscw - b.syscw, a.dirtied - b.dirtied, a.cancelled - b.cancelled};
}

Io& operator+=(Io& to, const Io& a)
{
    to.wchar += a.wchar;
    to.syscw += a.syscw;
    to.dirtied += a.dirtied;
    to.cancelled += a.cancelled;
    return to;
}

// User and system CPU seconds of a running process (its threads included).
double ProcCpu(pid_t pid)
{
    std::ifstream f("/proc/" + std::to_string(pid) + "/stat");
    std::string all((std::istreambuf_iterator<char>(f)), std::istreambuf_iterator<char>());
    const size_t paren = all.rfind(')');
    if (paren == std::string::npos) {
        return 0;
    }
    std::istringstream rest(all.substr(paren + 1));
    std::string field;
    double ticks = 0;
    for (int i = 3; i <= 15 && rest >> field; ++i) {
        if (i >= 14) { // utime, stime
            ticks += std::atof(field.c_str());
        }
    }
    return ticks / static_cast<double>(sysconf(_SC_CLK_TCK));
}

// The same to the nanosecond, but over the threads alive now only: for a
// short window in which none starts or ends.
double LiveThreadsCpu(pid_t pid)
{
    double ns = 0;
    std::error_code ec;
    for (const auto& task : std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/task", ec)) {
        std::ifstream f(task.path() / "schedstat");
        double run = 0;
        if (f >> run) {
            ns += run;
        }
    }
    return ns / 1e9;
}

double ThreadCpu()
{
    timespec ts{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) / 1e9;
}

uint64_t FileSize(const std::string& path)
{
    struct stat st {};
    return stat(path.c_str(), &st) == 0 ? static_cast<uint64_t>(st.st_size) : 0;
}

uint32_t Be32(const uint8_t* p)
{
    return static_cast<uint32_t>(p[0]) << 24 | static_cast<uint32_t>(p[1]) << 16 | static_cast<uint32_t>(p[2]) << 8 |
           p[3];
}

uint32_t Le32(const uint8_t* p)
{
    return static_cast<uint32_t>(p[3]) << 24 | static_cast<uint32_t>(p[2]) << 16 | static_cast<uint32_t>(p[1]) << 8 |
           p[0];
}

// Where a finished file's stream data ends, the index after it left out:
// MP4 the end of "mdat", AVI the end of the "movi" list, MPEG-TS the file.
uint64_t PayloadEnd(const std::string& path, const Format& format)
{
    const uint64_t size = FileSize(path);
    const bool mp4 = std::strcmp(format.name, "mp4") == 0;
    if (!mp4 && std::strcmp(format.name, "avi") != 0) {
        return size;
    }
    std::ifstream f(path, std::ios::binary);
    for (uint64_t at = mp4 ? 0 : 12; at + 16 <= size;) {
        uint8_t h[16];
        f.seekg(static_cast<std::streamoff>(at));
        if (!f.read(reinterpret_cast<char*>(h), sizeof h)) {
            break;
        }
        uint64_t len;
        if (mp4) {
            len = Be32(h);
            if (len == 1) {
                len = static_cast<uint64_t>(Be32(h + 8)) << 32 | Be32(h + 12);
            } else if (len == 0) {
                len = size - at;
            }
            if (std::memcmp(h + 4, "mdat", 4) == 0) {
                return at + len;
            }
        } else {
            len = 8 + static_cast<uint64_t>(Le32(h + 4));
            len += len & 1;
            if (std::memcmp(h, "LIST", 4) == 0 && std::memcmp(h + 8, "movi", 4) == 0) {
                return at + len;
            }
        }
        if (len < 8) {
            break;
        }
        at += len;
    }
    return 0;
}

// Video frames in a finished file, as ffprobe counts them.
size_t FramesIn(const std::string& path)
{
    const std::string cmd = "ffprobe -v error -select_streams v:0 -count_packets -show_entries "
                            "stream=nb_read_packets -of csv=p=0 '" +
                            path + "' 2>/dev/null";
    FILE* p = popen(cmd.c_str(), "r");
    if (!p) {
        return 0;
    }
    unsigned long long n = 0;
    if (std::fscanf(p, "%llu", &n) != 1) {
        n = 0;
    }
    pclose(p);
    return static_cast<size_t>(n);
}

// A file being written: its size and when it was last seen to grow.
struct Tail {
    std::string path;
    uint64_t size = 0;
    double grewAt = 0;
};

// Watches the files until every sender has gone and no file has grown for
// a while; returns when each sender went. atEnd() runs once, a moment after
// the last sender went: the end of the measured window.
std::vector<double> Watch(std::vector<Tail>& tails, const std::vector<pid_t>& senders, double fineFrom,
                          const std::function<void()>& atEnd)
{
    std::vector<double> gone(senders.size(), 0);
    size_t left = senders.size(), failed = 0;
    double lastGone = 0;
    bool ended = false;
    for (;;) {
        for (size_t i = 0; i < senders.size(); ++i) {
            int status = 0;
            if (gone[i] == 0 && (senders[i] <= 0 || waitpid(senders[i], &status, WNOHANG) == senders[i])) {
                gone[i] = lastGone = Now();
                failed += senders[i] > 0 && WIFEXITED(status) && WEXITSTATUS(status) == 0 ? 0 : 1;
                --left;
            }
        }
        double grew = lastGone;
        for (Tail& t : tails) {
            const uint64_t size = FileSize(t.path);
            if (size != t.size) {
                t.size = size;
                t.grewAt = Now();
            }
            grew = std::max(grew, t.grewAt);
        }
        const double now = Now();
        if (left == 0 && !ended && now - lastGone >= kInFlight) {
            atEnd();
            ended = true;
        }
        if (ended && (now - grew >= kQuiet || now - lastGone > kSettleMax)) {
            break;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(now < fineFrom ? 50 : 1));
    }
    if (failed) {
        std::printf("  (%zu of %zu senders failed)\n", failed, senders.size());
    }
    return gone;
}

struct Side {
    double cpu = 0;        // % of one core per stream, over the window
    double waitingCpu = 0; // the same, ready and waiting before the stream starts
    double wall = 0;       // the window: senders started to the last one gone, plus kInFlight
    Io io;                 // the whole recording, start to stop
    uint64_t fileBytes = 0;
    size_t frames = 0;        // in the finished files
    size_t received = 0;      // frames the ports saw end (ours only)
    std::vector<double> gap;  // ms, streams whose bytes were all in the file before the stop
    std::vector<double> held; // KiB first in the file at the stop, streams that held some
    size_t empty = 0;         // streams without a file
};

void NoteFile(Side& side, const Tail& t, const std::string& finished, const Format& format, double lastPacket)
{
    const uint64_t end = PayloadEnd(finished, format);
    if (end == 0) {
        ++side.empty;
        return;
    }
    side.fileBytes += FileSize(finished);
    side.frames += FramesIn(finished);
    if (end > t.size) {
        side.held.push_back(static_cast<double>(end - t.size) / 1024);
    } else {
        side.gap.push_back((t.grewAt - lastPacket) * 1000);
    }
}

// One port's stream as its source callback sees it.
struct Feed {
    uint32_t port = 0;
    std::atomic<uint32_t> frames{0};
    std::atomic<double> lastFrameEnd{0}; // when the last packet ending a frame came
};

void OnSource(uint32_t, const uint8_t* data, uint32_t length, uint32_t, void* user, uint32_t)
{
    auto* f = static_cast<Feed*>(user);
    if (length > 12 && (data[1] & 0x80) && (data[1] & 0x7F) == 96) { // marker: a frame's last packet
        f->lastFrameEnd = Now();
        ++f->frames;
    }
}

Side RunPorts(const Run& r)
{
    Korvalen_Init();
    const Io io0 = ReadIo("/proc/self/io");
    std::vector<Feed> feeds(static_cast<size_t>(r.n));
    std::vector<Tail> tails(feeds.size());
    std::vector<uint16_t> udp;
    for (size_t i = 0; i < feeds.size(); ++i) {
        Feed& f = feeds[i];
        Korvalen_AllocPort(&f.port);
        // Option 0: the packets go to the recorder and this callback, not to the decoder.
        Korvalen_SetSourceMediaDataCB(f.port, &OnSource, 0, &f);
        udp.push_back(FreeLoopbackPort(SOCK_DGRAM));
        const std::string base = r.dir + "/k" + std::to_string(i);
        if (Korvalen_OpenNetStream(f.port, "127.0.0.1", udp.back(), "127.0.0.1", 0, 0) != 1 ||
            Korvalen_StartRecord(f.port, base.c_str(), r.format.recordType, nullptr) != 1) {
            std::printf("  port %u cannot record, error %u\n", f.port, Korvalen_GetLastError());
        }
        tails[i].path = base + ".temp";
    }
    Side side;
    const double idle0 = bench::CpuSeconds(RUSAGE_SELF) - ThreadCpu();
    std::this_thread::sleep_for(std::chrono::duration<double>(kWaiting));
    side.waitingCpu = (bench::CpuSeconds(RUSAGE_SELF) - ThreadCpu() - idle0) / kWaiting * 100 / r.n;
    const double t0 = Now(), cpu0 = bench::CpuSeconds(RUSAGE_SELF), watcher0 = ThreadCpu();
    double cpu = 0;
    // This thread only starts the senders and watches the files: its CPU is
    // left out.
    Watch(tails, bench::StartSenders(r.live, udp), t0 + r.live.seconds - kFinePolling, [&] {
        side.wall = Now() - t0;
        cpu = bench::CpuSeconds(RUSAGE_SELF) - cpu0 - (ThreadCpu() - watcher0);
    });
    side.cpu = cpu / side.wall * 100 / r.n;
    std::vector<std::string> finished;
    for (Feed& f : feeds) {
        Korvalen_StopRecord(f.port);
        KORVALEN_RECORD_FILE list[2] = {};
        Korvalen_GetRecordFiles(f.port, 2, list);
        finished.emplace_back(list[0].name);
        Korvalen_CloseNetStream(f.port);
        Korvalen_FreePort(f.port);
    }
    side.io = ReadIo("/proc/self/io") - io0;
    Korvalen_Cleanup();
    for (size_t i = 0; i < feeds.size(); ++i) {
        side.received += feeds[i].frames;
        NoteFile(side, tails[i], finished[i], r.format, feeds[i].lastFrameEnd);
    }
    return side;
}

// Whether some process has bound this UDP port, from /proc/net/udp{,6}.
bool UdpBound(uint16_t port)
{
    char want[8];
    std::snprintf(want, sizeof want, ":%04X", port);
    for (const char* table : {"/proc/net/udp", "/proc/net/udp6"}) {
        std::ifstream f(table);
        std::string line, slot, local;
        std::getline(f, line); // the column names
        while (std::getline(f, line)) {
            std::istringstream fields(line);
            fields >> slot >> local;
            if (local.size() > 5 && local.compare(local.size() - 5, 5, want) == 0) {
                return true;
            }
        }
    }
    return false;
}

// A child that has ended, not yet reaped.
bool Exited(pid_t pid)
{
    siginfo_t info{};
    return waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT | WNOHANG) == 0 && info.si_pid == pid;
}

Side RunFfmpeg(const Run& r)
{
    std::vector<uint16_t> udp;
    std::vector<pid_t> recorders;
    std::vector<Tail> tails(static_cast<size_t>(r.n));
    for (size_t i = 0; i < tails.size(); ++i) {
        udp.push_back(FreeLoopbackPort(SOCK_DGRAM));
        const std::string sdp = r.dir + "/f" + std::to_string(i) + ".sdp";
        bench::WriteH264Sdp(sdp, udp.back());
        tails[i].path = r.dir + "/f" + std::to_string(i) + r.format.ext;
        recorders.push_back(
            bench::Spawn({"ffmpeg", "-hide_banner", "-nostdin", "-nostats", "-loglevel", "error", "-protocol_whitelist",
                          "file,udp,rtp", "-i", sdp, "-c", "copy", "-f", r.format.ffmpegFormat, "-y", tails[i].path}));
    }
    // Under load 16 ffmpegs take a while to start: the streams wait until
    // every one of them listens.
    for (int i = 0; i < 400 && !std::all_of(udp.begin(), udp.end(), UdpBound); ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    Side side;
    double idle0 = 0;
    for (pid_t p : recorders) {
        idle0 -= LiveThreadsCpu(p);
    }
    std::this_thread::sleep_for(std::chrono::duration<double>(kWaiting));
    for (pid_t p : recorders) {
        idle0 += LiveThreadsCpu(p);
    }
    side.waitingCpu = idle0 / kWaiting * 100 / r.n;
    const double t0 = Now();
    double cpu0 = 0, cpu = 0;
    for (pid_t p : recorders) {
        cpu0 += ProcCpu(p);
    }
    const std::vector<double> gone =
        Watch(tails, bench::StartSenders(r.live, udp), t0 + r.live.seconds - kFinePolling, [&] {
            side.wall = Now() - t0;
            for (pid_t p : recorders) {
                cpu += ProcCpu(p);
            }
        });
    side.cpu = (cpu - cpu0) / side.wall * 100 / r.n;
    // ffmpeg reads SIGINT between packets: with its stream over, it stops
    // when its RTP input gives up waiting (10 s), and then finishes the file.
    std::erase_if(recorders, [](pid_t p) { return p <= 0; }); // never started: nothing to signal
    for (pid_t p : recorders) {
        kill(p, SIGINT);
    }
    for (pid_t p : recorders) {
        // Its write figures are read before it is reaped.
        for (int i = 0; i < 2000 && !Exited(p); ++i) {
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        if (!Exited(p)) {
            kill(p, SIGKILL);
            std::printf("  (an ffmpeg did not stop on SIGINT)\n");
        }
        side.io += ReadIo("/proc/" + std::to_string(p) + "/io");
        bench::WaitChildCpu(p);
    }
    for (size_t i = 0; i < tails.size(); ++i) {
        // No packet times from ffmpeg: its stream's end is its sender's exit.
        NoteFile(side, tails[i], tails[i].path, r.format, gone[i]);
    }
    return side;
}

double Ratio(double a, double b)
{
    return b > 0 ? a / b : 0;
}

void PrintRow(const char* what, double ours, double theirs)
{
    std::printf("  %-34s %11.1f %11.1f %9.2fx\n", what, ours, theirs, Ratio(ours, theirs));
}

void PrintTail(const char* who, const Side& s, int n)
{
    std::printf("  %-9s", who);
    if (!s.gap.empty()) {
        std::printf(" %zu streams all in the file before the stop: median %.1f ms, worst %.1f ms;", s.gap.size(),
                    bench::Percentile(s.gap, 0.5), *std::max_element(s.gap.begin(), s.gap.end()));
    }
    if (!s.held.empty()) {
        std::printf(" %zu streams held bytes until the stop: median %.1f KiB, most %.1f KiB;", s.held.size(),
                    bench::Percentile(s.held, 0.5), *std::max_element(s.held.begin(), s.held.end()));
    }
    if (s.empty) {
        std::printf(" %zu of %d streams left no file;", s.empty, n);
    }
    std::printf("\n");
}

// Page-cache bytes dirtied, less those of files deleted before write-back.
uint64_t Dirtied(const Io& io)
{
    return io.dirtied - std::min(io.dirtied, io.cancelled);
}

void Report(const Run& r, const Side& k, const Side& ff)
{
    // Amounts per second of stream, per stream; bytes in KiB.
    const double per = r.live.seconds * r.n, kib = per * 1024;
    auto d = [](uint64_t v) { return static_cast<double>(v); };
    std::printf("%s, %d streams: per stream %11s %11s %10s\n", r.format.name, r.n, "korvalen", "ffmpeg", "ratio");
    PrintRow("CPU, % of one core", k.cpu, ff.cpu);
    PrintRow("  before the stream, waiting", k.waitingCpu, ff.waitingCpu);
    PrintRow("file, KiB/s", d(k.fileBytes) / kib, d(ff.fileBytes) / kib);
    PrintRow("write(), KiB/s", d(k.io.wchar) / kib, d(ff.io.wchar) / kib);
    PrintRow("write() calls/s", d(k.io.syscw) / per, d(ff.io.syscw) / per);
    PrintRow("page cache dirtied, KiB/s", d(Dirtied(k.io)) / kib, d(Dirtied(ff.io)) / kib);
    std::printf("  frames in the files: korvalen %zu of %zu received, ffmpeg %zu, of %.0f sent\n", k.frames, k.received,
                ff.frames, r.live.seconds * 25 * r.n);
    std::printf("  last frame's packet to its bytes in the file (stat, no fsync; ffmpeg: from its sender's exit):\n");
    PrintTail("korvalen", k, r.n);
    PrintTail("ffmpeg", ff, r.n);
    std::fflush(stdout);
}

} // namespace

int main(int argc, char** argv)
{
    Run r;
    std::string fixtures = KORVALEN_FIXTURES, tools = KORVALEN_TOOLS_DIR, parent = "/tmp", formats = "mp4";
    bench::ParseFlags(argc, argv,
                      {{"--fixtures", &fixtures},
                       {"--tools", &tools},
                       {"--dir", &parent},
                       {"--ports", &r.n},
                       {"--seconds", &r.live.seconds},
                       {"--formats", &formats}});
    if (!bench::FindLiveSetup("bench_record", fixtures, tools, &r.live) || r.n <= 0) {
        return 1;
    }
    std::string dir = parent + "/bench_record_XXXXXX";
    if (!mkdtemp(dir.data())) {
        std::printf("bench_record: cannot make a folder in %s\n", parent.c_str());
        return 1;
    }
    r.dir = dir;
    std::printf("%d streams of 720p 25 fps 2 Mbit/s H.264 over UDP, %.0f s, recorded in %s\n", r.n, r.live.seconds,
                dir.c_str());
    std::printf("korvalen ports record only (source callback option 0: no decoding, no window); ffmpeg -c copy\n");
    std::stringstream list(formats);
    std::string item;
    while (std::getline(list, item, ',')) {
        for (const Format& f : kFormats) {
            if (item == f.name) {
                r.format = f;
                const Side k = RunPorts(r);
                const Side ff = RunFfmpeg(r);
                Report(r, k, ff);
            }
        }
    }
    std::filesystem::remove_all(dir);
    return 0;
}
