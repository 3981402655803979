// korvalen-play: the demo player. Plays a live RTP stream (UDP, or
// "$"-framed TCP), an MPEG-TS stream pushed in on standard input, or a local
// MP4 / MPEG-TS file, on one port, in an X11 window or headless, prints live
// statistics once a second, can save a snapshot of the picture shown and a
// screenshot of the window, and records live and pushed streams (MP4, or
// MPEG-TS / AVI by the file's extension).
//   korvalen-play udp://[local-ip]:port [options]
//   korvalen-play tcp://host:port [options]
//   ffmpeg ... -f mpegts - | korvalen-play --stdin-ts [options]
//   korvalen-play FILE [options]
//   korvalen-play --self-check
// Options: --headless, --sound, --duration SECONDS, --snapshot FILE.ppm,
//          --screenshot FILE.ppm, --fluency N (0 off, 1 normal, 3 low delay,
//          4 smooth), --talk (tcp only: the microphone goes to the device,
//          G.711 at 8 kHz, on the stream's own connection),
//          --record FILE.mp4|FILE.ts|FILE.avi
// Files:   --speed CODE (Korvalen_SpeedPlay code, 2 = normal), --seek SECONDS,
//          --step N (show N frames one by one, then stay paused)
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <X11/Xlib.h>
#include <X11/Xutil.h>
#include <poll.h>
#include <unistd.h>

#include "korvalen.h"

namespace {

std::atomic<bool> g_stop{false};

bool Expect(bool ok, const char* what)
{
    std::printf("  %-58s %s\n", what, ok ? "ok" : "FAILED");
    return ok;
}

std::string LogFolder()
{
    const char* docs = std::getenv("XDG_DOCUMENTS_DIR");
    std::string d = docs && *docs ? docs : std::string(std::getenv("HOME") ? std::getenv("HOME") : "") + "/Documents";
    size_t cut = d.find_last_of('/');
    return cut == std::string::npos ? "/tmp/PlayerFile/" : d.substr(0, cut + 1) + "PlayerFile/";
}

int SelfCheck()
{
    bool ok = true;
    uint32_t v = Korvalen_GetVersion();
    std::printf("korvalen %u.%u.%04u self-check\n", v & 0xFF, (v >> 8) & 0xFF, v >> 16);
    ok &= Expect(Korvalen_Init() == 1, "Korvalen_Init");
    ok &= Expect(Korvalen_GetInitCount() == 1, "init count is 1");
    uint32_t ports[3] = {};
    for (uint32_t& p : ports) {
        ok &= Expect(Korvalen_AllocPort(&p) == 1, "Korvalen_AllocPort");
    }
    Korvalen_FreePort(ports[1]);
    uint32_t next = 0;
    ok &= Expect(Korvalen_AllocPort(&next) == 1 && next == ports[2] + 1, "round-robin: a freed number is reused last");
    ok &= Expect(Korvalen_SetPacketBuffer(ports[0], 2000, 200) == 1, "Korvalen_SetPacketBuffer(2000, 200)");
    ok &= Expect(Korvalen_SetBufferCtrl(ports[0], 2) == 0 && Korvalen_GetLastError() == KORVALEN_ERR_INVALID_PARAM,
                 "Korvalen_SetBufferCtrl(2) refused with 2");
    ok &= Expect(Korvalen_StartPlay(300, 0) == 0 && Korvalen_GetLastError() == KORVALEN_ERR_PORT,
                 "port 300 refused with 259");
    ok &= Expect(Korvalen_StartPlay(ports[0], 0) == 1 && Korvalen_StopPlay(ports[0], 0) == 1,
                 "headless rendering starts and stops");
    ok &= Expect(Korvalen_OpenMediaFile(ports[0], "no-such-file.mp4") == 0 &&
                     Korvalen_GetLastError() == KORVALEN_ERR_FILE_OPEN,
                 "a missing media file is refused with 262");
    uint32_t vmMib = 0;
    ok &= Expect(Korvalen_GetTotalVirtualSize(&vmMib, nullptr) == 1, "Korvalen_GetTotalVirtualSize");
    Korvalen_FreePort(ports[0]);
    Korvalen_FreePort(ports[2]);
    Korvalen_FreePort(next);
    Korvalen_Cleanup();
    ok &= Expect(Korvalen_GetInitCount() == 0, "Korvalen_Cleanup brings the count to 0");
    std::printf("log file: %sPlayer_SDK00.log\nself-check %s\n", LogFolder().c_str(), ok ? "passed" : "FAILED");
    return ok ? 0 : 1;
}

struct Snapshot {
    std::mutex lock;
    std::vector<uint8_t> bgra;
    uint32_t width = 0, height = 0;
};

std::atomic<uint32_t> g_pictures{0};

void OnDecoded(uint32_t, const KORVALEN_DECODED_VIDEO*, void*, uint32_t, uint32_t)
{
    ++g_pictures;
}

void OnDraw(uint32_t, const KORVALEN_DRAW_SURFACE* s, void* user, uint32_t)
{
    auto* snap = static_cast<Snapshot*>(user);
    std::lock_guard<std::mutex> lock(snap->lock);
    snap->width = s->width;
    snap->height = s->height;
    snap->bgra.resize(static_cast<size_t>(s->width) * s->height * 4);
    for (uint32_t y = 0; y < s->height; ++y) {
        std::memcpy(snap->bgra.data() + static_cast<size_t>(y) * s->width * 4, s->pixels + y * s->stride, s->width * 4);
    }
}

bool WritePpm(const std::string& path, const uint8_t* bgra, uint32_t width, uint32_t height, size_t stride)
{
    FILE* f = std::fopen(path.c_str(), "wb");
    if (!f) {
        return false;
    }
    std::fprintf(f, "P6\n%u %u\n255\n", width, height);
    for (uint32_t y = 0; y < height; ++y) {
        const uint8_t* row = bgra + y * stride;
        for (uint32_t x = 0; x < width; ++x) {
            uint8_t rgb[3] = {row[x * 4 + 2], row[x * 4 + 1], row[x * 4]};
            std::fwrite(rgb, 1, 3, f);
        }
    }
    return std::fclose(f) == 0;
}

bool SavePpm(Snapshot& snap, const std::string& path)
{
    std::lock_guard<std::mutex> lock(snap.lock);
    return !snap.bgra.empty() && WritePpm(path, snap.bgra.data(), snap.width, snap.height, size_t{snap.width} * 4);
}

// What the window shows right now, read back from the X server.
bool SaveWindow(Display* dpy, Window win, const std::string& path)
{
    XWindowAttributes wa{};
    if (!dpy || !win || !XGetWindowAttributes(dpy, win, &wa)) {
        return false;
    }
    XImage* img = XGetImage(dpy, win, 0, 0, static_cast<unsigned>(wa.width), static_cast<unsigned>(wa.height),
                            AllPlanes, ZPixmap);
    if (!img) {
        return false;
    }
    bool ok = img->bits_per_pixel == 32 &&
              WritePpm(path, reinterpret_cast<const uint8_t*>(img->data), static_cast<uint32_t>(img->width),
                       static_cast<uint32_t>(img->height), static_cast<size_t>(img->bytes_per_line));
    XDestroyImage(img);
    return ok;
}

// Pushes standard input into the port as it arrives; InputMediaData waits
// while the port's buffer is full, so a fast producer is slowed, not dropped.
void FeedStdin(uint32_t port)
{
    std::vector<uint8_t> chunk(188 * 64);
    while (!g_stop) {
        pollfd p{STDIN_FILENO, POLLIN, 0};
        if (poll(&p, 1, 100) == 0) {
            continue; // look at the stop flag now and then
        }
        ssize_t n = read(STDIN_FILENO, chunk.data(), chunk.size());
        if (n <= 0) {
            break;
        }
        while (!g_stop && !Korvalen_InputMediaData(port, chunk.data(), static_cast<uint32_t>(n)) &&
               Korvalen_GetLastError() == KORVALEN_ERR_BUFFER_FULL) {
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
    }
}

std::atomic<bool> g_fileEnd{false};

void OnRunMsg(const KORVALEN_RUN_MSG* m)
{
    if (m->code == KORVALEN_ERR_FILE_END) {
        g_fileEnd = true;
    }
}

struct PlayOptions {
    bool headless = false, sound = false, talk = false;
    int duration = 0;
    uint32_t fluency = 1;
    std::string snapshot, screenshot, record;
    int speed = -1; // files
    int seek = -1;
    int step = 0;
};

// Record type by the file's extension: plain naming in MP4, MPEG-TS or AVI.
uint32_t RecordTypeOf(const std::string& path)
{
    auto ends = [&](const char* e) {
        const size_t n = std::strlen(e);
        return path.size() >= n && path.compare(path.size() - n, n, e) == 0;
    };
    return ends(".ts") ? 1 : (ends(".avi") ? 14 : 0);
}

void StopRecording(uint32_t port)
{
    uint32_t recording = 0;
    if (!Korvalen_GetRecordStatus(port, &recording) || !recording) {
        return;
    }
    if (!Korvalen_StopRecord(port)) {
        std::fprintf(stderr, "korvalen-play: recording ended with error %u\n", Korvalen_GetLastError());
    }
    KORVALEN_RECORD_FILE files[16] = {};
    Korvalen_GetRecordFiles(port, 16, files);
    for (const auto& f : files) {
        if (f.name[0]) {
            std::printf("recorded %s\n", f.name);
        }
    }
}

// A file: seek, then single steps or play at the speed asked.
void StartFile(uint32_t port, Window win, const PlayOptions& o)
{
    if (o.seek >= 0 && !Korvalen_SetPlayedTime(port, static_cast<uint32_t>(o.seek))) {
        std::fprintf(stderr, "korvalen-play: cannot seek to %d s (error %u)\n", o.seek, Korvalen_GetLastError());
    }
    if (o.speed >= 0 && o.step == 0 && !Korvalen_SpeedPlay(port, static_cast<uint32_t>(o.speed))) {
        std::fprintf(stderr, "korvalen-play: speed %d refused (error %u)\n", o.speed, Korvalen_GetLastError());
    }
    Korvalen_StartPlay(port, win);
    for (int i = 0; i < o.step && !g_stop; ++i) {
        Korvalen_AFrameGo(port); // one frame, then paused
        KORVALEN_PLAY_TIME t{};
        Korvalen_GetPlayTimeEx(port, &t);
        std::printf("step %d: frame time %.3f s\n", i + 1, static_cast<double>(t.timestamp_90k) / 90000.0);
    }
}

int Play(const std::string& url, const PlayOptions& o)
{
    bool stdinTs = url == "--stdin-ts";
    bool tcp = url.rfind("tcp://", 0) == 0;
    const bool file = !stdinTs && !tcp && url.rfind("udp://", 0) != 0;
    std::string host;
    uint16_t netPort = 0;
    if (!stdinTs && !file) {
        std::string rest = url.substr(6);
        size_t colon = rest.rfind(':');
        if (colon == std::string::npos) {
            std::fprintf(stderr, "korvalen-play: no port in %s\n", url.c_str());
            return 2;
        }
        host = colon ? rest.substr(0, colon) : "0.0.0.0";
        if (host.size() > 1 && host.front() == '[') {
            host = host.substr(1, host.size() - 2);
        }
        netPort = static_cast<uint16_t>(std::atoi(rest.c_str() + colon + 1));
    }
    const bool headless = o.headless, sound = o.sound;
    // A file plays to its end unless told a duration; steps leave a moment to look.
    const int duration = file && o.step > 0 && o.duration <= 0 ? 1 : o.duration;
    const bool untilEnd = file && o.step == 0 && o.duration <= 0;

    Display* dpy = nullptr;
    Window win = 0;
    if (!headless && (dpy = XOpenDisplay(nullptr)) != nullptr) {
        win = XCreateSimpleWindow(dpy, DefaultRootWindow(dpy), 0, 0, 640, 360, 0, 0, 0);
        XStoreName(dpy, win, ("korvalen-play " + url).c_str());
        XMapWindow(dpy, win);
        XSync(dpy, False);
    } else if (!headless) {
        std::printf("no X display: playing headless\n");
    }

    Korvalen_Init();
    uint32_t port = 0;
    Korvalen_AllocPort(&port);
    Snapshot snap;
    Korvalen_SetPictureFluency(port, o.fluency);
    Korvalen_SetDecodeVideoMediaDataCB(port, &OnDecoded, 1, nullptr);
    Korvalen_SetDrawMediaDataCB(port, &OnDraw, &snap);
    if (o.talk && !tcp) {
        std::fprintf(stderr, "korvalen-play: --talk needs a tcp:// stream\n");
        Korvalen_Cleanup();
        return 2;
    }
    Korvalen_SetPlayerRunMsgCB(&OnRunMsg);
    // Talk opens the stream itself and sends the voice on its connection.
    int32_t ok = stdinTs  ? Korvalen_OpenInputStream(port, nullptr, 0, 0)
                 : file   ? Korvalen_OpenMediaFile(port, url.c_str())
                 : o.talk ? Korvalen_OpenVoiceSvc(port, 3, 0, nullptr, 0, host.c_str(), netPort, 1)
                 : tcp    ? Korvalen_OpenNetStream(port, nullptr, 0, host.c_str(), netPort, 1)
                          : Korvalen_OpenNetStream(port, host.c_str(), netPort, host.c_str(), 0, 0);
    if (!ok) {
        std::fprintf(stderr, "korvalen-play: cannot open %s (error %u)\n", url.c_str(), Korvalen_GetLastError());
        Korvalen_Cleanup();
        return 1;
    }
    if (file) {
        StartFile(port, win, o);
    } else {
        Korvalen_StartPlay(port, win);
    }
    if (!o.record.empty() && !Korvalen_StartRecord(port, o.record.c_str(), RecordTypeOf(o.record), nullptr)) {
        std::fprintf(stderr, "korvalen-play: cannot record to %s (error %u)\n", o.record.c_str(),
                     Korvalen_GetLastError());
    }
    uint32_t fileSeconds = 0;
    if (file) {
        Korvalen_GetFileTime(port, &fileSeconds);
    }
    if (sound && !Korvalen_OpenSound(port)) {
        std::fprintf(stderr, "korvalen-play: no sound (error %u)\n", Korvalen_GetLastError());
    }
    std::printf("playing %s on port %u (%s)%s\n", stdinTs ? "standard input" : url.c_str(), port,
                win ? "window" : "headless", o.talk ? ", talking" : "");
    std::thread feeder;
    if (stdinTs) {
        feeder = std::thread(FeedStdin, port);
    }
    uint32_t last = 0;
    for (int s = 0; !g_stop && (untilEnd ? !g_fileEnd : (duration <= 0 || s < duration)); ++s) {
        std::this_thread::sleep_for(std::chrono::seconds(1));
        uint32_t rate = 0, lost = 0, total = 0, frames = 0, slots = 0, w = 0, h = 0;
        Korvalen_GetPictureSize(port, &w, &h);
        Korvalen_GetBitRate(port, &rate);
        Korvalen_GetLostPacketRate(port, &lost, &total);
        Korvalen_GetPacketQueueStart(port, &frames, &slots);
        uint32_t now = g_pictures.load();
        if (file) {
            uint32_t at = 0;
            Korvalen_GetPlayTime(port, &at);
            std::printf("\r%3ds  %ux%u  %3u fps  at %u of %u s%s   ", s + 1, w, h, now - last, at, fileSeconds,
                        g_fileEnd ? "  (end)" : "");
        } else {
            std::printf("\r%3ds  %ux%u  %3u fps  %7.1f kbit/s  lost %u/%u  buffer %u frames (%u slots)   ", s + 1, w, h,
                        now - last, rate * 8 / 1000.0, lost, total, frames, slots);
        }
        std::fflush(stdout);
        last = now;
    }
    std::printf("\n%u pictures decoded\n", g_pictures.load());
    if (!o.snapshot.empty()) {
        std::printf(SavePpm(snap, o.snapshot) ? "snapshot written to %s\n" : "no picture for a snapshot (%s)\n",
                    o.snapshot.c_str());
    }
    if (!o.screenshot.empty()) {
        std::printf(SaveWindow(dpy, win, o.screenshot) ? "window screenshot written to %s\n"
                                                       : "no window to take a screenshot of (%s)\n",
                    o.screenshot.c_str());
    }
    g_stop = true;
    if (feeder.joinable()) {
        feeder.join();
    }
    StopRecording(port);
    Korvalen_StopPlay(port, win);
    if (stdinTs) {
        Korvalen_CloseInputStream(port);
    } else if (file) {
        Korvalen_CloseMediaFile(port);
    } else if (o.talk) {
        Korvalen_CloseVoiceSvc(port);
    } else {
        Korvalen_CloseNetStream(port);
    }
    Korvalen_FreePort(port);
    Korvalen_Cleanup();
    if (dpy) {
        XCloseDisplay(dpy);
    }
    return g_pictures.load() > 0 ? 0 : 1;
}

void Usage()
{
    std::printf("usage: korvalen-play udp://[local-ip]:port | tcp://host:port | --stdin-ts | FILE\n"
                "                     [--headless] [--sound] [--duration SECONDS] [--snapshot FILE.ppm]\n"
                "                     [--screenshot FILE.ppm] [--fluency N] [--talk]\n"
                "                     [--record FILE.mp4|FILE.ts|FILE.avi]\n"
                "                     FILE only: [--speed CODE] [--seek SECONDS] [--step N]\n"
                "       korvalen-play --self-check\n");
}

} // namespace

int main(int argc, char** argv)
{
    if (argc == 2 && std::strcmp(argv[1], "--self-check") == 0) {
        return SelfCheck();
    }
    if (argc < 2) {
        Usage();
        return 2;
    }
    std::signal(SIGINT, [](int) { g_stop = true; });
    PlayOptions o;
    for (int i = 2; i < argc; ++i) {
        std::string a = argv[i];
        if (a == "--headless") {
            o.headless = true;
        } else if (a == "--sound") {
            o.sound = true;
        } else if (a == "--talk") {
            o.talk = true;
        } else if (a == "--duration" && i + 1 < argc) {
            o.duration = std::atoi(argv[++i]);
        } else if (a == "--snapshot" && i + 1 < argc) {
            o.snapshot = argv[++i];
        } else if (a == "--screenshot" && i + 1 < argc) {
            o.screenshot = argv[++i];
        } else if (a == "--record" && i + 1 < argc) {
            o.record = argv[++i];
        } else if (a == "--fluency" && i + 1 < argc) {
            o.fluency = static_cast<uint32_t>(std::atoi(argv[++i]));
        } else if (a == "--speed" && i + 1 < argc) {
            o.speed = std::atoi(argv[++i]);
        } else if (a == "--seek" && i + 1 < argc) {
            o.seek = std::atoi(argv[++i]);
        } else if (a == "--step" && i + 1 < argc) {
            o.step = std::atoi(argv[++i]);
        } else {
            Usage();
            return 2;
        }
    }
    return Play(argv[1], o);
}
