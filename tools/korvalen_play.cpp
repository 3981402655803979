// korvalen-play: the demo player. Plays a live RTP stream (UDP, or
// "$"-framed TCP) or a local MP4 / MPEG-TS file on one port, in an X11
// window or headless, prints live statistics once a second, and can save a
// snapshot of the picture shown.
//   korvalen-play udp://[local-ip]:port [options]
//   korvalen-play tcp://host:port [options]
//   korvalen-play FILE [options]
//   korvalen-play --self-check
// Options: --headless, --sound, --duration SECONDS, --snapshot FILE.ppm,
//          --fluency N (0 off, 1 normal, 3 low delay, 4 smooth)
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
std::atomic<bool> g_fileEnd{false};

void OnRunMsg(const KORVALEN_RUN_MSG* m)
{
    if (m->code == KORVALEN_ERR_FILE_END) {
        g_fileEnd = true;
    }
}

struct FileOptions {
    int speed = -1;
    int seek = -1;
    int step = 0;
};

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

bool SavePpm(Snapshot& snap, const std::string& path)
{
    std::lock_guard<std::mutex> lock(snap.lock);
    if (snap.bgra.empty()) {
        return false;
    }
    FILE* f = std::fopen(path.c_str(), "wb");
    if (!f) {
        return false;
    }
    std::fprintf(f, "P6\n%u %u\n255\n", snap.width, snap.height);
    for (size_t i = 0; i < snap.bgra.size(); i += 4) {
        uint8_t rgb[3] = {snap.bgra[i + 2], snap.bgra[i + 1], snap.bgra[i]};
        std::fwrite(rgb, 1, 3, f);
    }
    std::fclose(f);
    return true;
}

int Play(const std::string& url, bool headless, bool sound, int duration, const std::string& snapshotPath,
         uint32_t fluency, const FileOptions& fileOpt)
{
    bool tcp = url.rfind("tcp://", 0) == 0;
    const bool file = !tcp && url.rfind("udp://", 0) != 0;
    std::string host;
    uint16_t netPort = 0;
    if (!file) {
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
    Korvalen_SetPictureFluency(port, fluency);
    Korvalen_SetDecodeVideoMediaDataCB(port, &OnDecoded, 1, nullptr);
    Korvalen_SetDrawMediaDataCB(port, &OnDraw, &snap);
    Korvalen_SetPlayerRunMsgCB(&OnRunMsg);
    int32_t ok = file  ? Korvalen_OpenMediaFile(port, url.c_str())
                 : tcp ? Korvalen_OpenNetStream(port, nullptr, 0, host.c_str(), netPort, 1)
                       : Korvalen_OpenNetStream(port, host.c_str(), netPort, host.c_str(), 0, 0);
    if (!ok) {
        std::fprintf(stderr, "korvalen-play: cannot open %s (error %u)\n", url.c_str(), Korvalen_GetLastError());
        Korvalen_Cleanup();
        return 1;
    }
    if (file && fileOpt.seek >= 0 && !Korvalen_SetPlayedTime(port, static_cast<uint32_t>(fileOpt.seek))) {
        std::fprintf(stderr, "korvalen-play: cannot seek to %d s (error %u)\n", fileOpt.seek, Korvalen_GetLastError());
    }
    if (file && fileOpt.step > 0) {
        // Frames one by one: each step shows one frame and pauses the file.
        Korvalen_StartPlay(port, win);
        for (int i = 0; i < fileOpt.step && !g_stop; ++i) {
            Korvalen_AFrameGo(port);
            KORVALEN_PLAY_TIME t{};
            Korvalen_GetPlayTimeEx(port, &t);
            std::printf("step %d: frame time %.3f s\n", i + 1, static_cast<double>(t.timestamp_90k) / 90000.0);
        }
    } else {
        if (file && fileOpt.speed >= 0 && !Korvalen_SpeedPlay(port, static_cast<uint32_t>(fileOpt.speed))) {
            std::fprintf(stderr, "korvalen-play: speed %d refused (error %u)\n", fileOpt.speed,
                         Korvalen_GetLastError());
        }
        Korvalen_StartPlay(port, win);
    }
    if (sound && !Korvalen_OpenSound(port)) {
        std::fprintf(stderr, "korvalen-play: no sound (error %u)\n", Korvalen_GetLastError());
    }
    uint32_t fileSeconds = 0;
    if (file) {
        Korvalen_GetFileTime(port, &fileSeconds);
    }
    std::printf("playing %s on port %u (%s)\n", url.c_str(), port, win ? "window" : "headless");
    uint32_t last = 0;
    const bool untilEnd = file && fileOpt.step == 0 && duration <= 0;
    if (file && fileOpt.step > 0 && duration <= 0) {
        duration = 1; // a moment to look at the last step
    }
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
    if (!snapshotPath.empty()) {
        std::printf(SavePpm(snap, snapshotPath) ? "snapshot written to %s\n" : "no picture for a snapshot (%s)\n",
                    snapshotPath.c_str());
    }
    Korvalen_StopPlay(port, win);
    if (file) {
        Korvalen_CloseMediaFile(port);
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
    std::printf("usage: korvalen-play udp://[local-ip]:port | tcp://host:port | FILE [--headless] [--sound]\n"
                "                     [--duration SECONDS] [--snapshot FILE.ppm] [--fluency N]\n"
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
    bool headless = false, sound = false;
    int duration = 0;
    uint32_t fluency = 1;
    std::string snapshot;
    FileOptions fileOpt;
    for (int i = 2; i < argc; ++i) {
        std::string a = argv[i];
        if (a == "--headless") {
            headless = true;
        } else if (a == "--sound") {
            sound = true;
        } else if (a == "--duration" && i + 1 < argc) {
            duration = std::atoi(argv[++i]);
        } else if (a == "--snapshot" && i + 1 < argc) {
            snapshot = argv[++i];
        } else if (a == "--fluency" && i + 1 < argc) {
            fluency = static_cast<uint32_t>(std::atoi(argv[++i]));
        } else if (a == "--speed" && i + 1 < argc) {
            fileOpt.speed = std::atoi(argv[++i]);
        } else if (a == "--seek" && i + 1 < argc) {
            fileOpt.seek = std::atoi(argv[++i]);
        } else if (a == "--step" && i + 1 < argc) {
            fileOpt.step = std::atoi(argv[++i]);
        } else {
            Usage();
            return 2;
        }
    }
    return Play(argv[1], headless, sound, duration, snapshot, fluency, fileOpt);
}
