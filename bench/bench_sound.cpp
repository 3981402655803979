// Sound playback cost and latency, through a private PulseAudio daemon:
// CPU per playing port next to paplay playing the same PCM, and how much
// sound is queued between the decode side and the speaker.
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <spawn.h>
#include <string>
#include <sys/resource.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "audio/audio_port.h"
#include "korvalen.h"
#include "port/port.h"
#include "port/port_table.h"
#include "pulse_server.h"

extern char** environ;

namespace {

constexpr int kSeconds = 4;

double CpuSeconds(const rusage& r)
{
    return r.ru_utime.tv_sec + r.ru_stime.tv_sec + (r.ru_utime.tv_usec + r.ru_stime.tv_usec) / 1e6;
}

std::vector<int16_t> TonePcm(uint32_t rate, uint32_t channels, uint32_t samples, double hz)
{
    std::vector<int16_t> pcm(samples * channels);
    for (uint32_t i = 0; i < samples; ++i) {
        auto v = static_cast<int16_t>(6000 * std::sin(2 * M_PI * hz * i / rate));
        for (uint32_t c = 0; c < channels; ++c) {
            pcm[i * channels + c] = v;
        }
    }
    return pcm;
}

// CPU seconds this process spends per port per second of sound.
double KorvalenCpu(int ports, uint32_t rate, uint32_t channels, uint32_t frameSamples)
{
    std::vector<uint32_t> ids(ports);
    for (auto& p : ids) {
        Korvalen_AllocPort(&p);
        Korvalen_OpenSound(p);
        Korvalen_SetSoundVolume(p, 200);
    }
    auto pcm = TonePcm(rate, channels, rate * kSeconds, 440);
    rusage before{}, after{};
    getrusage(RUSAGE_SELF, &before);
    auto next = std::chrono::steady_clock::now();
    const uint32_t frames = rate * kSeconds / frameSamples;
    const auto step = std::chrono::microseconds(1000000ll * frameSamples / rate);
    for (uint32_t f = 0; f < frames; ++f) {
        AUDIO_PCM_FRAME frame{reinterpret_cast<const uint8_t*>(pcm.data() + f * frameSamples * channels),
                              frameSamples * channels * 2, rate, channels, 16};
        for (uint32_t p : ids) {
            Audio_PlayPortFrame(Player_GetPort(p)->sound, p, Player_GetPort(p)->dataLock, &frame);
        }
        next += step;
        std::this_thread::sleep_until(next);
    }
    getrusage(RUSAGE_SELF, &after);
    for (uint32_t p : ids) {
        Korvalen_FreePort(p);
    }
    return (CpuSeconds(after) - CpuSeconds(before)) / ports / kSeconds;
}

// The same PCM played by paplay processes, one per port.
double PaplayCpu(const std::string& dir, int ports, uint32_t rate, uint32_t channels)
{
    auto pcm = TonePcm(rate, channels, rate * kSeconds, 440);
    std::string file = dir + "/tone.raw";
    std::ofstream(file, std::ios::binary)
        .write(reinterpret_cast<const char*>(pcm.data()), static_cast<std::streamsize>(pcm.size() * 2));
    std::vector<std::string> args = {
        "paplay", "--raw", "--format=s16le", "--rate=" + std::to_string(rate), "--channels=" + std::to_string(channels),
        file};
    std::vector<char*> argv;
    for (auto& a : args) {
        argv.push_back(a.data());
    }
    argv.push_back(nullptr);
    std::vector<pid_t> pids;
    for (int i = 0; i < ports; ++i) {
        pid_t pid;
        if (posix_spawnp(&pid, "paplay", nullptr, nullptr, argv.data(), environ) == 0) {
            pids.push_back(pid);
        }
    }
    double cpu = 0;
    for (pid_t pid : pids) {
        int status;
        rusage r{};
        wait4(pid, &status, 0, &r);
        cpu += CpuSeconds(r);
    }
    return pids.empty() ? 0 : cpu / static_cast<double>(pids.size()) / kSeconds;
}

// Sound queued between the decode side and the speaker while a port plays
// 20 ms G.711 frames in real time, after the start: the server's latency
// report for the stream, and the frames waiting in the port's ring.
void QueuedLatency(double* serverMs, double* ringMs)
{
    uint32_t port = 0;
    Korvalen_AllocPort(&port);
    Korvalen_OpenSound(port);
    const uint32_t rate = 8000, frameSamples = 160;
    auto pcm = TonePcm(rate, 1, frameSamples * 200, 440);
    auto next = std::chrono::steady_clock::now();
    double server = 0, ring = 0;
    int n = 0;
    PortRecord* rec = Player_GetPort(port);
    for (int f = 0; f < 200; ++f) {
        AUDIO_PCM_FRAME frame{reinterpret_cast<const uint8_t*>(pcm.data() + f * frameSamples), frameSamples * 2, rate,
                              1, 16};
        Audio_PlayPortFrame(rec->sound, rec->port, rec->dataLock, &frame);
        if (f >= 100 && rec->sound.play) {
            CDsoundPlay* play = rec->sound.play;
            uint32_t slots = play->RingSlots();
            server += play->LatencyUs() / 1000.0;
            ring += (play->RingWriteIndex() + slots - play->RingReadIndex()) % slots * 20.0;
            ++n;
        }
        next += std::chrono::milliseconds(20);
        std::this_thread::sleep_until(next);
    }
    Korvalen_FreePort(port);
    *serverMs = n ? server / n : -1;
    *ringMs = n ? ring / n : -1;
}

} // namespace

int main()
{
    char tmpl[] = "/tmp/korvalen-bench-XXXXXX";
    const char* dir = mkdtemp(tmpl);
    PulseServer server;
    if (!dir || !server.Start(std::string(dir) + "/pulse")) {
        std::printf("bench_sound: pulseaudio cannot run here\n");
        return 1;
    }
    Korvalen_Init();
    std::printf("sound playback, %d s of tone per run (CPU seconds per port per second of sound)\n", kSeconds);
    std::printf("%-34s %12s %12s %8s\n", "case", "korvalen", "paplay", "ratio");
    struct Case {
        const char* name;
        int ports;
        uint32_t rate, channels, frameSamples;
    } cases[] = {{"16 ports, 8 kHz mono (G.711)", 16, 8000, 1, 160},
                 {"4 ports, 48 kHz stereo (AAC)", 4, 48000, 2, 1024}};
    for (const Case& c : cases) {
        double k = KorvalenCpu(c.ports, c.rate, c.channels, c.frameSamples);
        double p = PaplayCpu(dir, c.ports, c.rate, c.channels);
        std::printf("%-34s %12.5f %12.5f %8.2f\n", c.name, k, p, p > 0 ? k / p : 0.0);
    }
    double serverMs = 0, ringMs = 0;
    QueuedLatency(&serverMs, &ringMs);
    std::printf("sound queued, 20 ms G.711 frames: server %.1f ms + port ring %.1f ms\n", serverMs, ringMs);
    Korvalen_Cleanup();
    server.Kill();
    return 0;
}
