#include "pulse_server.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <fcntl.h>
#include <fstream>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include <pulse/simple.h>

#include "child_process.h"

extern char** environ;

namespace {

constexpr int kRate = 48000;
constexpr size_t kWindow = kRate * 2 * 4 / 10; // 400 ms of stereo samples

pid_t Spawn(const std::vector<std::string>& args, const std::string& out)
{
    return SpawnProcess(args, out.c_str());
}

void Reap(pid_t pid, int sig)
{
    if (pid > 0) {
        kill(pid, sig);
        int status = 0;
        waitpid(pid, &status, 0);
    }
}

bool ServerAnswers(const std::string& dir)
{
    pid_t pid = Spawn({"pactl", "info"}, dir + "/pactl.out");
    int status = 0;
    waitpid(pid, &status, 0);
    return pid > 0 && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

size_t LoudestStart(const std::vector<int16_t>& s)
{
    if (s.size() <= kWindow) {
        return 0;
    }
    // Energy per 10 ms block, then the best 40-block run.
    const size_t block = kRate * 2 / 100;
    std::vector<double> e(s.size() / block, 0.0);
    for (size_t b = 0; b < e.size(); ++b) {
        for (size_t i = b * block; i < (b + 1) * block; ++i) {
            e[b] += static_cast<double>(s[i]) * s[i];
        }
    }
    size_t run = kWindow / block, best = 0;
    double sum = 0, bestSum = -1;
    for (size_t b = 0; b < e.size(); ++b) {
        sum += e[b];
        if (b >= run) {
            sum -= e[b - run];
        }
        if (b + 1 >= run && sum > bestSum) {
            bestSum = sum;
            best = (b + 1 - run) * block;
        }
    }
    return best;
}

} // namespace

PulseServer::~PulseServer()
{
    Kill();
}

bool PulseServer::Start(const std::string& dir)
{
    m_dir = dir;
    mkdir(m_dir.c_str(), 0700);
    std::string socket = m_dir + "/native";
    unlink(socket.c_str());
    setenv("PULSE_SERVER", ("unix:" + socket).c_str(), 1);
    // The daemon keeps its state under its own home.
    std::string oldHome = std::getenv("HOME") ? std::getenv("HOME") : "";
    setenv("HOME", m_dir.c_str(), 1);
    setenv("XDG_RUNTIME_DIR", m_dir.c_str(), 1);
    m_pid = Spawn({"pulseaudio", "-n", "--daemonize=no", "--exit-idle-time=-1", "--disallow-exit", "--use-pid-file=no",
                   "--disable-shm=yes", "-L", "module-native-protocol-unix auth-anonymous=1 socket=" + socket, "-L",
                   "module-null-sink sink_name=knull rate=48000 channels=2"},
                  m_dir + "/daemon.out");
    setenv("HOME", oldHome.c_str(), 1);
    if (m_pid <= 0) {
        return false;
    }
    for (int i = 0; i < 100; ++i) {
        if (ServerAnswers(m_dir)) {
            // A fresh null sink hands its first recording only a fraction of
            // the sound; one short throwaway recording settles it.
            SinkRecorder warmUp;
            if (warmUp.Start()) {
                std::this_thread::sleep_for(std::chrono::milliseconds(500));
                warmUp.Stop();
            }
            return true;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    Kill();
    return false;
}

void PulseServer::Kill()
{
    Reap(m_pid, SIGKILL);
    m_pid = -1;
}

struct SinkRecorder::State {
    pa_simple* conn = nullptr;
    std::chrono::steady_clock::time_point started;
    // Samples the server has made by the time of Stop(): the reader takes
    // them all, even when it runs behind on a busy machine (whatever is
    // still queued in the server is lost when the stream is freed).
    std::atomic<size_t> wanted{SIZE_MAX};
    std::atomic<size_t> recorded{0};
    std::atomic<size_t> heard{0};
    std::vector<int16_t> samples;
    std::thread thread;
};

SinkRecorder::~SinkRecorder()
{
    Stop();
}

bool SinkRecorder::Start()
{
    pa_sample_spec sampleSpec{PA_SAMPLE_S16LE, kRate, 2};
    pa_buffer_attr attr{};
    attr.maxlength = static_cast<uint32_t>(-1);
    attr.fragsize = kRate * 2 * 2 / 100; // 10 ms reads
    int err = 0;
    pa_simple* conn = pa_simple_new(nullptr, "korvalen-test", PA_STREAM_RECORD, "knull.monitor", "sink monitor",
                                    &sampleSpec, nullptr, &attr, &err);
    if (!conn) {
        return false;
    }
    m_state = new State;
    m_state->conn = conn;
    m_state->started = std::chrono::steady_clock::now();
    m_state->thread = std::thread([st = m_state] {
        int16_t buf[960];
        int e = 0;
        while (st->samples.size() < st->wanted && pa_simple_read(st->conn, buf, sizeof buf, &e) == 0) {
            st->samples.insert(st->samples.end(), buf, buf + 960);
            st->heard +=
                static_cast<size_t>(std::count_if(buf, buf + 960, [](int16_t v) { return v > 200 || v < -200; }));
            st->recorded = st->samples.size();
        }
    });
    return true;
}

std::vector<int16_t> SinkRecorder::Stop()
{
    if (!m_state) {
        return {};
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(300)); // the tail still in the server
    auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - m_state->started)
                  .count();
    // Less a little for the record stream's own start-up.
    m_state->wanted = static_cast<size_t>(std::max<int64_t>(ms - 100, 0)) * kRate / 1000 * 2;
    m_state->thread.join();
    pa_simple_free(m_state->conn);
    std::vector<int16_t> out = std::move(m_state->samples);
    delete m_state;
    m_state = nullptr;
    return out;
}

size_t SinkRecorder::Recorded() const
{
    return m_state ? m_state->recorded.load() : 0;
}

size_t SinkRecorder::Heard() const
{
    return m_state ? m_state->heard.load() : 0;
}

ChannelLevels LoudestRms(const std::vector<int16_t>& s)
{
    size_t start = LoudestStart(s);
    size_t end = std::min(s.size(), start + kWindow);
    double l = 0, r = 0;
    size_t n = 0;
    for (size_t i = start; i + 1 < end; i += 2, ++n) {
        l += static_cast<double>(s[i]) * s[i];
        r += static_cast<double>(s[i + 1]) * s[i + 1];
    }
    if (n == 0) {
        return {0, 0};
    }
    return {std::sqrt(l / n), std::sqrt(r / n)};
}

double ToneAmplitude(const std::vector<int16_t>& s, int channel, double hz)
{
    // Per 20 ms block (whole cycles of the test tones), then the median: a
    // gap or a jump in phase spoils one block, not the measurement.
    const size_t start = LoudestStart(s);
    const size_t end = std::min(s.size(), start + kWindow);
    const size_t block = kRate / 50 * 2; // stereo samples in 20 ms
    const double w = 2.0 * std::cos(2.0 * M_PI * hz / kRate);
    std::vector<double> amps;
    for (size_t b0 = start; b0 + block <= end; b0 += block) {
        double s1 = 0, s2 = 0;
        size_t n = 0;
        for (size_t i = b0 + static_cast<size_t>(channel); i < b0 + block; i += 2, ++n) {
            double s0 = s[i] + w * s1 - s2;
            s2 = s1;
            s1 = s0;
        }
        double power = s1 * s1 + s2 * s2 - w * s1 * s2;
        amps.push_back(std::sqrt(std::max(power, 0.0)) * std::sqrt(2.0) / static_cast<double>(n));
    }
    if (amps.empty()) {
        return 0;
    }
    std::nth_element(amps.begin(), amps.begin() + static_cast<long>(amps.size() / 2), amps.end());
    return amps[amps.size() / 2]; // a pure tone of RMS a gives about a
}

namespace {

bool Pactl(const std::string& dir, const std::vector<std::string>& args, std::string* out)
{
    std::vector<std::string> argv{"pactl"};
    argv.insert(argv.end(), args.begin(), args.end());
    const std::string file = dir + "/pactl-cmd.out";
    pid_t pid = Spawn(argv, file);
    int status = 0;
    waitpid(pid, &status, 0);
    if (out) {
        std::ifstream in(file);
        std::getline(in, *out);
    }
    return pid > 0 && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

} // namespace

ToneMicrophone::~ToneMicrophone()
{
    Unplug();
}

bool ToneMicrophone::Start(const PulseServer& server, uint32_t hz)
{
    m_dir = server.Dir();
    std::string module;
    if (!Pactl(
            m_dir,
            {"load-module", "module-sine-source", "source_name=kmic", "rate=48000", "frequency=" + std::to_string(hz)},
            &module)) {
        return false;
    }
    m_module = module;
    return Pactl(m_dir, {"set-default-source", "kmic"}, nullptr);
}

void ToneMicrophone::Unplug()
{
    if (!m_module.empty()) {
        Pactl(m_dir, {"unload-module", m_module}, nullptr);
        m_module.clear();
    }
}

FedMicrophone::~FedMicrophone()
{
    if (m_conn) {
        pa_simple_free(m_conn);
    }
    if (!m_module.empty()) {
        Pactl(m_dir, {"unload-module", m_module}, nullptr);
    }
}

bool FedMicrophone::Start(const PulseServer& server)
{
    m_dir = server.Dir();
    std::string module;
    if (!Pactl(m_dir, {"load-module", "module-null-sink", "sink_name=kfed", "rate=16000", "channels=1"}, &module)) {
        return false;
    }
    m_module = module;
    if (!Pactl(m_dir, {"set-default-source", "kfed.monitor"}, nullptr)) {
        return false;
    }
    pa_sample_spec format{PA_SAMPLE_S16LE, 16000, 1};
    pa_buffer_attr attr{};
    attr.maxlength = static_cast<uint32_t>(-1);
    attr.tlength = 16000 * 2 * 40 / 1000; // a short queue keeps the writer in real time
    attr.prebuf = static_cast<uint32_t>(-1);
    attr.minreq = static_cast<uint32_t>(-1);
    attr.fragsize = static_cast<uint32_t>(-1);
    int err = 0;
    m_conn = pa_simple_new(nullptr, "korvalen-test", PA_STREAM_PLAYBACK, "kfed", "microphone feed", &format, nullptr,
                           &attr, &err);
    return m_conn != nullptr;
}

bool FedMicrophone::Write(const int16_t* pcm, size_t samples)
{
    int err = 0;
    return m_conn && pa_simple_write(m_conn, pcm, samples * 2, &err) == 0;
}

double MonoToneAmplitude(const std::vector<int16_t>& pcm, uint32_t rate, double hz)
{
    const size_t block = rate / 50;
    const double w = 2.0 * std::cos(2.0 * M_PI * hz / rate);
    std::vector<double> amps;
    for (size_t b0 = 0; b0 + block <= pcm.size(); b0 += block) {
        double s1 = 0, s2 = 0;
        for (size_t i = b0; i < b0 + block; ++i) {
            double s0 = pcm[i] + w * s1 - s2;
            s2 = s1;
            s1 = s0;
        }
        double power = s1 * s1 + s2 * s2 - w * s1 * s2;
        amps.push_back(std::sqrt(std::max(power, 0.0)) * 2.0 / static_cast<double>(block));
    }
    if (amps.empty()) {
        return 0;
    }
    std::nth_element(amps.begin(), amps.begin() + static_cast<long>(amps.size() / 2), amps.end());
    return amps[amps.size() / 2]; // the peak amplitude of a pure tone
}
