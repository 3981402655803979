// Live streams from korvalen-send, the project's own camera stand-in: clean
// and faulty networks over UDP and TCP, statistics, buffer control, and
// ports torn down while packets flow.
#include <algorithm>
#include <arpa/inet.h>
#include <atomic>
#include <chrono>
#include <csignal>
#include <mutex>
#include <netinet/in.h>
#include <set>
#include <sys/socket.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

#include "../unit/codec_media.h"
#include "decoded_pictures.h"
#include "korvalen.h"
#include "log_capture.h"
#include "platform/qmx_heap.h"
#include "test_env.h"

namespace {

const std::string kSender = KORVALEN_TOOLS_DIR "/korvalen-send";

// korvalen-send in the background; Finish() returns what it printed.
struct Sender {
    std::thread thread;
    std::string output;
    void Start(const std::string& args)
    {
        thread = std::thread([this, args] {
            Bytes out = RunCommand(kSender + " " + args + " 2>&1");
            output.assign(out.begin(), out.end());
        });
    }
    std::string Finish()
    {
        if (thread.joinable()) {
            thread.join();
        }
        return output;
    }
    // A figure from the summary line, e.g. Count("dropped").
    uint64_t Count(const std::string& word) const
    {
        size_t at = output.find(word == "packets" ? "sent " : word + " ");
        if (at == std::string::npos) {
            return UINT64_MAX;
        }
        return std::stoull(output.substr(output.find(' ', at) + 1));
    }
};

struct AudioBytes {
    std::atomic<uint64_t> bytes{0};
    static void OnAudio(uint32_t, const KORVALEN_DECODED_AUDIO* a, void* user, uint32_t)
    {
        static_cast<AudioBytes*>(user)->bytes += a->length;
    }
};

struct LiveSendTest : ::testing::Test {
    uint32_t port = 0;
    DecodedPictures got;
    AudioBytes audio;
    std::string file;
    std::vector<std::string> want;
    std::chrono::steady_clock::time_point opened; // when the port's statistics clock started

    void SetUp() override
    {
        file = FixturePath("live_h264_g711.mkv");
        REQUIRE_FIXTURE(file);
        want = FfmpegFrameMd5(file, "", "-map 0:v");
        ASSERT_EQ(want.size(), 75u);
        ASSERT_EQ(Korvalen_Init(), 1);
        ASSERT_EQ(Korvalen_AllocPort(&port), 1);
        ASSERT_EQ(Korvalen_SetPictureFluency(port, 0), 1);
        ASSERT_EQ(Korvalen_SetDecodeVideoMediaDataCB(port, &DecodedPictures::OnDecoded, 1, &got), 1);
        ASSERT_EQ(Korvalen_SetDecodeAudioMediaDataCB(port, &AudioBytes::OnAudio, 1, &audio), 1);
    }
    void TearDown() override
    {
        Korvalen_Cleanup();
        EXPECT_EQ(QMX_HeapLiveBytes(), 0u);
    }

    // Opens the port on the sender: UDP binds first, TCP connects once the
    // sender listens.
    void Play(bool tcp, const std::string& faults, Sender* sender)
    {
        uint16_t net = FreeLoopbackPort(tcp ? SOCK_STREAM : SOCK_DGRAM);
        std::string url = std::string(tcp ? "tcp" : "udp") + "://127.0.0.1:" + std::to_string(net);
        if (!tcp) {
            ASSERT_EQ(Korvalen_OpenNetStream(port, "127.0.0.1", net, "127.0.0.1", 0, 0), 1);
            opened = std::chrono::steady_clock::now();
            sender->Start("'" + file + "' " + url + " " + faults);
        } else {
            sender->Start("'" + file + "' " + url + " --wait 10 " + faults);
            int32_t ok = 0;
            for (int i = 0; i < 100 && !ok; ++i) {
                std::this_thread::sleep_for(std::chrono::milliseconds(50));
                ok = Korvalen_OpenNetStream(port, nullptr, 0, "127.0.0.1", net, 1);
            }
            ASSERT_EQ(ok, 1);
            opened = std::chrono::steady_clock::now();
        }
    }

    // Every picture shown is one of the source's, in the source's order:
    // nothing corrupt or out of order ever reaches the callback.
    size_t ExpectOnlySourcePictures()
    {
        std::lock_guard<std::mutex> lock(got.lock);
        size_t next = 0;
        for (size_t i = 0; i < got.md5s.size(); ++i) {
            size_t at = next;
            while (at < want.size() && want[at] != got.md5s[i]) {
                ++at;
            }
            EXPECT_LT(at, want.size()) << "picture " << i << " is not a source picture (or is out of order)";
            next = at + 1;
        }
        return got.md5s.size();
    }
};

struct LiveSendTransport : LiveSendTest, ::testing::WithParamInterface<bool> {};

} // namespace

// A clean network: every frame decodes like ffmpeg's decode, the sound
// arrives, and the statistics describe the stream that was sent.
TEST_P(LiveSendTransport, CleanNetworkDeliversEveryFrameAndTrueStatistics)
{
    Sender sender;
    Play(GetParam(), "", &sender);
    uint32_t rate = 0, width = 0, height = 0, bitRate = 0;
    std::string out = sender.Finish();
    const double openFor = std::chrono::duration<double>(std::chrono::steady_clock::now() - opened).count();
    // The rate is measured over 2.5-second intervals: the first is over now.
    ASSERT_EQ(Korvalen_GetFrameRate(port, &rate), 1);
    ASSERT_EQ(Korvalen_GetPictureSize(port, &width, &height), 1);
    ASSERT_EQ(Korvalen_GetBitRate(port, &bitRate), 1);
    got.Wait(want.size());
    {
        std::lock_guard<std::mutex> lock(got.lock);
        ASSERT_EQ(got.md5s.size(), want.size()) << out;
        EXPECT_EQ(got.md5s, want);
    }
    EXPECT_EQ(rate, 25u);
    EXPECT_EQ(width, 320u);
    EXPECT_EQ(height, 240u);
    // The sender's bytes over the time it took to send them (three seconds
    // of stream, longer on a loaded machine), as a bit rate. The port's first
    // 2.5-second window starts at the open, so the time the sender took to
    // get going (long on a loaded machine) counts in it without data.
    size_t line = out.find("sent ");
    size_t open = out.find('(', line), in = out.find(") in ", line);
    ASSERT_NE(open, std::string::npos) << out;
    ASSERT_NE(in, std::string::npos) << out;
    const double sendFor = std::stod(out.substr(in + 5));
    double sent = std::stod(out.substr(open + 1)) / sendFor;
    const double idle = std::clamp(openFor - sendFor, 0.0, 2.0);
    sent *= (2.5 - idle) / 2.5;
    EXPECT_NEAR(bitRate, sent, sent * 0.10) << out << "idle before sending: " << idle << " s";
    // Three seconds of 8 kHz G.711 become 16-bit PCM: 48000 bytes, give or
    // take the last frame still in flight.
    for (int i = 0; i < 100 && audio.bytes < 46000; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    EXPECT_NEAR(static_cast<double>(audio.bytes.load()), 48000.0, 2000.0);
    EXPECT_EQ(Korvalen_CloseNetStream(port), 1);
}

// Reordered packets are put right by the port: nothing is lost and every
// frame decodes. Dropped packets, and repeated ones (a repeat is out of
// sequence for the depacketizer), are counted as lost, and the port shows no
// broken picture: it waits for the next key frame.
TEST_P(LiveSendTransport, FaultyNetworkCountsLossAndNeverShowsABrokenPicture)
{
    {
        Sender sender;
        Play(GetParam(), "--reorder 5 --seed 7", &sender);
        std::string out = sender.Finish();
        ASSERT_GT(sender.Count("reordered"), 0u) << out;
        got.Wait(want.size());
        std::lock_guard<std::mutex> lock(got.lock);
        EXPECT_EQ(got.md5s, want) << out;
        uint32_t lost = 99, total = 0;
        ASSERT_EQ(Korvalen_GetLostPacketRate(port, &lost, &total), 1);
        EXPECT_EQ(lost, 0u);
        EXPECT_GT(total, 0u);
    }
    for (const char* faults : {"--loss 3 --seed 11", "--dup 3 --seed 5"}) {
        SCOPED_TRACE(faults);
        ASSERT_EQ(Korvalen_CloseNetStream(port), 1);
        ASSERT_EQ(Korvalen_ResetLostPacketRate(port), 1);
        {
            std::lock_guard<std::mutex> lock(got.lock);
            got.md5s.clear();
        }
        Sender sender;
        Play(GetParam(), faults, &sender);
        std::string out = sender.Finish();
        ASSERT_GT(sender.Count("dropped") + sender.Count("duplicated"), 0u) << out;
        std::this_thread::sleep_for(std::chrono::milliseconds(800));
        size_t shown = ExpectOnlySourcePictures();
        EXPECT_LT(shown, want.size());
        // Recovery: key frames every ten frames bring the picture back.
        EXPECT_GT(shown, 10u);
        uint32_t lost = 0, total = 0;
        // Totals are taken as each one-second slot ends: they cover the
        // whole three-second stream.
        ASSERT_EQ(Korvalen_GetLostPacketRate(port, &lost, &total), 1);
        EXPECT_GT(lost, 0u) << out;
    }
}

INSTANTIATE_TEST_SUITE_P(Transports, LiveSendTransport, ::testing::Values(false, true),
                         [](const auto& info) { return info.param ? "Tcp" : "Udp"; });

namespace {

// Blocks the decode thread on the first picture, as a slow application would.
struct SlowConsumer {
    std::atomic<int> pictures{0};
    std::atomic<bool> release{false};
    static void OnDecoded(uint32_t, const KORVALEN_DECODED_VIDEO*, void* user, uint32_t, uint32_t)
    {
        auto* self = static_cast<SlowConsumer*>(user);
        if (self->pictures++ == 0) {
            while (!self->release) {
                std::this_thread::sleep_for(std::chrono::milliseconds(5));
            }
        }
    }
};

int DecodeWithSlowConsumer(uint32_t ctrl, const std::string& file, bool* sawFullLine)
{
    LogCapture log;
    EXPECT_EQ(Korvalen_Init(), 1);
    uint32_t port = 0;
    EXPECT_EQ(Korvalen_AllocPort(&port), 1);
    EXPECT_EQ(Korvalen_SetPictureFluency(port, 0), 1);
    EXPECT_EQ(Korvalen_SetBufferCtrl(port, ctrl), 1);
    SlowConsumer slow;
    EXPECT_EQ(Korvalen_SetDecodeVideoMediaDataCB(port, &SlowConsumer::OnDecoded, 1, &slow), 1);
    uint16_t net = FreeLoopbackPort(SOCK_STREAM);
    Sender sender;
    // Twelve loops of the file, as fast as TCP takes them: far more packets
    // than the 1000-slot buffer holds while the consumer sleeps.
    sender.Start("'" + file + "' tcp://127.0.0.1:" + std::to_string(net) + " --fast --loop --duration 36 --wait 10");
    int32_t ok = 0;
    for (int i = 0; i < 100 && !ok; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        ok = Korvalen_OpenNetStream(port, nullptr, 0, "127.0.0.1", net, 1);
    }
    EXPECT_EQ(ok, 1);
    std::this_thread::sleep_for(std::chrono::milliseconds(1500));
    slow.release = true;
    sender.Finish();
    int last = -1;
    for (int i = 0; i < 200 && slow.pictures != last; ++i) {
        last = slow.pictures;
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    *sawFullLine = log.Has("QUEUE_AddPacket failed");
    Korvalen_Cleanup();
    return slow.pictures;
}

} // namespace

// Buffer control: waiting (1) loses nothing behind a slow consumer; dropping
// (0) loses packets, and says so.
TEST(LiveBufferControl, WaitLosesNothingDropLosesAndLogs)
{
    const std::string file = FixturePath("live_h264_g711.mkv");
    REQUIRE_FIXTURE(file);
    bool full = false;
    EXPECT_EQ(DecodeWithSlowConsumer(1, file, &full), 12 * 75);
    bool fullWhenDropping = false;
    EXPECT_LT(DecodeWithSlowConsumer(0, file, &fullWhenDropping), 12 * 75);
    EXPECT_TRUE(fullWhenDropping);
    EXPECT_EQ(QMX_HeapLiveBytes(), 0u);
}

// Ports opened, fed and closed from four threads at once, with the sender
// killed part-way: no crash, no leak, no thread left behind.
TEST(LiveTeardown, PortsOpenedAndClosedWhilePacketsFlow)
{
    const std::string file = FixturePath("live_h264_g711.mkv");
    REQUIRE_FIXTURE(file);
    ASSERT_EQ(Korvalen_Init(), 1);
    uint16_t net = FreeLoopbackPort(SOCK_DGRAM);
    // One stream of packets into a shared UDP port number: whichever port is
    // open on it at the moment receives them.
    pid_t pid = fork();
    if (pid == 0) {
        execl(kSender.c_str(), "korvalen-send", file.c_str(), ("udp://127.0.0.1:" + std::to_string(net)).c_str(),
              "--loop", "--duration", "30", static_cast<char*>(nullptr));
        _exit(127);
    }
    std::atomic<int> opened{0};
    std::vector<std::thread> workers;
    for (int t = 0; t < 4; ++t) {
        workers.emplace_back([&, t] {
            for (int i = 0; i < 16; ++i) {
                uint32_t p = 0;
                if (Korvalen_AllocPort(&p) != 1) {
                    continue;
                }
                Korvalen_StartPlay(p, 0);
                // One thread wins the bound port; the others get a port of
                // their own, left silent.
                uint16_t local = t == 0 ? net : 0;
                if (Korvalen_OpenNetStream(p, "127.0.0.1", local, "127.0.0.1", 0, 0) == 1) {
                    ++opened;
                    std::this_thread::sleep_for(std::chrono::milliseconds(20 + 10 * (i % 3)));
                    Korvalen_CloseNetStream(p);
                }
                Korvalen_FreePort(p);
            }
        });
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    kill(pid, SIGKILL); // the sender vanishes mid-stream
    for (std::thread& w : workers) {
        w.join();
    }
    waitpid(pid, nullptr, 0);
    EXPECT_GE(opened.load(), 48);
    Korvalen_Cleanup();
    EXPECT_EQ(QMX_HeapLiveBytes(), 0u);
}

namespace {

std::mutex g_reportLock;
std::vector<KORVALEN_RUN_MSG> g_reports;

void OnReport(const KORVALEN_RUN_MSG* m)
{
    std::lock_guard<std::mutex> lock(g_reportLock);
    g_reports.push_back(*m);
}

} // namespace

// An empty datagram ends a UDP stream the way a sender's close does: the
// caller gets the end-of-stream report (14, 515) once, and the port can be
// closed and opened again.
TEST(LiveEndOfStream, EmptyDatagramReportsTheEnd)
{
    LogCapture log;
    ASSERT_EQ(Korvalen_Init(), 1);
    ASSERT_EQ(Korvalen_SetPlayerRunMsgCB(&OnReport), 1);
    {
        std::lock_guard<std::mutex> lock(g_reportLock);
        g_reports.clear();
    }
    uint32_t port = 0;
    ASSERT_EQ(Korvalen_AllocPort(&port), 1);
    uint16_t net = FreeLoopbackPort(SOCK_DGRAM);
    ASSERT_EQ(Korvalen_OpenNetStream(port, "127.0.0.1", net, "127.0.0.1", 0, 0), 1);
    int fd = socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(net);
    to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(sendto(fd, "", 0, 0, reinterpret_cast<sockaddr*>(&to), sizeof to), 0);
    close(fd);
    bool seen = false;
    for (int i = 0; i < 300 && !seen; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
        std::lock_guard<std::mutex> lock(g_reportLock);
        for (const KORVALEN_RUN_MSG& m : g_reports) {
            seen |= m.port == port && m.type == 14 && m.code == 515;
        }
    }
    EXPECT_TRUE(seen);
    EXPECT_TRUE(log.Has("NET_RecvPacket failed"));
    ASSERT_EQ(Korvalen_CloseNetStream(port), 1);
    ASSERT_EQ(Korvalen_OpenNetStream(port, "127.0.0.1", net, "127.0.0.1", 0, 0), 1) << "the port opens again";
    ASSERT_EQ(Korvalen_CloseNetStream(port), 1);
    Korvalen_Cleanup();
    EXPECT_EQ(QMX_HeapLiveBytes(), 0u);
}
