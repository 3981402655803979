// Live network streams: from korvalen-send, the project's own camera
// stand-in (clean and faulty networks over UDP and TCP, statistics, buffer
// control, ports torn down while packets flow), and from ffmpeg's RTP sender.
#include <algorithm>
#include <arpa/inet.h>
#include <atomic>
#include <chrono>
#include <csignal>
#include <mutex>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

#include "../unit/codec_media.h"
#include "../unit/rtp_peer.h"
#include "decoded_pictures.h"
#include "heap/qmx_heap.h"
#include "korvalen.h"
#include "log_capture.h"
#include "port_fixture.h"
#include "run_messages.h"
#include "test_env.h"

using rtp_peer::Fixture;

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
    // A figure from the summary line, e.g. Count("dropped"); 0 when absent.
    uint64_t Count(const std::string& word) const
    {
        const size_t at = output.find(word + " ");
        return at == std::string::npos ? 0 : std::stoull(output.substr(at + word.size() + 1));
    }
};

// The sender listens once it has started: connect the port (TCP) then.
bool ConnectWhenListening(uint32_t port, uint16_t net)
{
    return WaitUntil([&] { return Korvalen_OpenNetStream(port, nullptr, 0, "127.0.0.1", net, 1) == 1; }, 5000);
}

struct AudioBytes {
    std::atomic<uint64_t> bytes{0};
    static void OnAudio(uint32_t, const KORVALEN_DECODED_AUDIO* a, void* user, uint32_t)
    {
        static_cast<AudioBytes*>(user)->bytes += a->length;
    }
};

struct LiveSendTest : PortFixture {
    DecodedPictures got;
    AudioBytes audio;
    std::string file;
    std::vector<std::string> want;
    std::chrono::steady_clock::time_point opened; // when the port's rate clock started

    void SetUp() override
    {
        file = FixturePath("live_h264_g711.mkv");
        REQUIRE_FIXTURE(file);
        want = FfmpegFrameMd5(file, "", "-map 0:v");
        ASSERT_EQ(want.size(), 75u);
        PortFixture::SetUp();
        ASSERT_EQ(Korvalen_SetPictureFluency(port, 0), 1);
        ASSERT_EQ(Korvalen_SetDecodeVideoMediaDataCB(port, &DecodedPictures::OnDecoded, 1, &got), 1);
        ASSERT_EQ(Korvalen_SetDecodeAudioMediaDataCB(port, &AudioBytes::OnAudio, 1, &audio), 1);
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
            ASSERT_TRUE(ConnectWhenListening(port, net));
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
    // Bytes a second over the first 2.5-second interval, which starts at the
    // open: the sender's own rate, less the time it took to get going (long
    // on a busy machine), when no data came.
    size_t line = out.find("sent ");
    size_t open = out.find('(', line), in = out.find(") in ", line);
    ASSERT_NE(in, std::string::npos) << out;
    const double sendFor = std::stod(out.substr(in + 5));
    const double idle = std::clamp(openFor - sendFor, 0.0, 2.0);
    const double expected = std::stod(out.substr(open + 1)) / sendFor * (2.5 - idle) / 2.5;
    EXPECT_NEAR(bitRate, expected, expected * 0.10) << out << "idle before sending: " << idle << " s";
    // Three seconds of 8 kHz G.711 become 16-bit PCM: 48000 bytes, give or
    // take the last frame still in flight.
    WaitUntil([&] { return audio.bytes >= 46000; }, 2000);
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
        got.Clear();
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
    EXPECT_TRUE(ConnectWhenListening(port, net));
    SleepMs(1500);
    slow.release = true;
    sender.Finish();
    int last = -1;
    for (int i = 0; i < 200 && slow.pictures != last; ++i) { // until the count holds still
        last = slow.pictures;
        SleepMs(100);
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

// ffmpeg as an outside RTP sender over UDP: every picture as ffmpeg decodes
// the source, nothing lost, and the stream's kind and ports as given.
TEST_F(LiveSendTest, UdpFromFfmpeg)
{
    const std::string src = Fixture("rtp_h264.h264");
    ASSERT_FALSE(src.empty());
    const uint16_t local = FreeLoopbackPort(SOCK_DGRAM);
    ASSERT_EQ(Korvalen_OpenNetStream(port, "127.0.0.1", local, "127.0.0.1", 0, 0), 1);
    ASSERT_EQ(Korvalen_StartPlay(port, 0), 1);
    uint32_t rtp = 0, rtcp = 0;
    ASSERT_EQ(Korvalen_GetLocalNetPort(port, &rtp, &rtcp), 1);
    EXPECT_EQ(rtp, local);
    EXPECT_EQ(rtcp, local + 1u);
    ASSERT_EQ(std::system(("ffmpeg -hide_banner -loglevel error -re -f h264 -i " + src +
                           " -c:v copy -f rtp rtp://127.0.0.1:" + std::to_string(local) + " >/dev/null 2>&1")
                              .c_str()),
              0);
    const auto source = FfmpegFrameMd5(src);
    got.Wait(source.size());
    // The last picture may wait in the decoder for a frame that never comes.
    const auto pictures = got.Md5s();
    ASSERT_GE(pictures.size() + 1, source.size());
    EXPECT_EQ(pictures, std::vector<std::string>(source.begin(), source.begin() + static_cast<long>(pictures.size())));
    uint32_t lost = 99, total = 0, video = 0, sound = 0;
    ASSERT_EQ(Korvalen_GetLostPacketRate(port, &lost, &total), 1);
    EXPECT_EQ(lost, 0u);
    ASSERT_EQ(Korvalen_GetEncodeType(port, &video, &sound), 1);
    EXPECT_EQ(video, KORVALEN_CODEC_H264);
    EXPECT_EQ(sound, KORVALEN_CODEC_NONE) << "no sound in this stream";
    LogCapture log;
    ASSERT_EQ(Korvalen_SetNatParam(port, 1, "0123456789abcdef"), 1);
    WaitUntil([&] { return log.Has("NET_SendNatPkt failed"); }, 1000);
    EXPECT_EQ(log.Count("NET_SendNatPkt failed"), 1u) << "UDP has no connection to send it on; once only";
    ASSERT_EQ(Korvalen_CloseNetStream(port), 1);
}

// An empty datagram ends a UDP stream the way a sender's close does: the
// caller gets the end-of-stream report (14, 515) once, and the port can be
// closed and opened again. Bad opens change nothing.
TEST_F(LiveSendTest, EmptyDatagramReportsTheEndAndBadOpensAreRefused)
{
    LogCapture log;
    RunMessages::Install();
    EXPECT_EQ(Korvalen_OpenNetStream(port, nullptr, 0, "not-an-address", 5000, 1), 0);
    EXPECT_TRUE(log.Has("Port[000] NET_CreateRecvSocket failed"));
    uint16_t net = FreeLoopbackPort(SOCK_DGRAM);
    ASSERT_EQ(Korvalen_OpenNetStream(port, "127.0.0.1", net, "127.0.0.1", 0, 0), 1);
    EXPECT_EQ(Korvalen_OpenNetStream(port, "127.0.0.1", net, "127.0.0.1", 0, 0), 0) << "one source at a time";
    EXPECT_EQ(Korvalen_OpenInputStream(port, nullptr, 0, 0), 0);
    int fd = socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(net);
    to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(sendto(fd, "", 0, 0, reinterpret_cast<sockaddr*>(&to), sizeof to), 0);
    close(fd);
    EXPECT_TRUE(RunMessages::Get().WaitFor(
        [&](const KORVALEN_RUN_MSG& m) { return m.port == port && m.type == 14 && m.code == 515; }));
    EXPECT_TRUE(log.Has("NET_RecvPacket failed"));
    ASSERT_EQ(Korvalen_CloseNetStream(port), 1);
    ASSERT_EQ(Korvalen_OpenNetStream(port, "127.0.0.1", net, "127.0.0.1", 0, 0), 1) << "the port opens again";
    // Freeing the port closes its stream: the UDP port is free again.
    Korvalen_FreePort(port);
    ASSERT_EQ(Korvalen_AllocPort(&port), 1);
    EXPECT_EQ(Korvalen_OpenNetStream(port, "127.0.0.1", net, "127.0.0.1", 0, 0), 1);
}
