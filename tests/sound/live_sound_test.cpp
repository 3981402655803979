// A camera's sound over the network, heard at the sound server: korvalen-send
// streams the built-in sample (H.264 and a 1 kHz G.711 tone) over UDP, the
// port decodes and plays it, and the null sink's monitor carries the tone.
#include <chrono>
#include <cstdlib>
#include <thread>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "../unit/codec_media.h"
#include "heap/qmx_heap.h"
#include "korvalen.h"
#include "pulse_server.h"
#include "test_env.h"

namespace {

} // namespace

TEST(LiveSound, ToneFromTheNetworkReachesTheSink)
{
    const std::string sample = FixturePath("sample.mkv");
    REQUIRE_FIXTURE(sample);
    PulseServer server;
    if (!server.Start(TestHome() + "/pulse-live")) {
        GTEST_SKIP() << "pulseaudio cannot run here";
    }
    ASSERT_EQ(Korvalen_Init(), 1);
    uint32_t port = 0;
    ASSERT_EQ(Korvalen_AllocPort(&port), 1);
    uint16_t net = FreeLoopbackPort(SOCK_DGRAM);
    ASSERT_EQ(Korvalen_OpenNetStream(port, "127.0.0.1", net, "127.0.0.1", 0, 0), 1);
    ASSERT_EQ(Korvalen_StartPlay(port, 0), 1);
    ASSERT_EQ(Korvalen_OpenSound(port), 1);
    std::thread sender([&] {
        std::system((std::string(KORVALEN_TOOLS_DIR) + "/korvalen-send '" + sample +
                     "' udp://127.0.0.1:" + std::to_string(net) + " --duration 4 >/dev/null")
                        .c_str());
    });
    // Past the start of the stream and of the sound server's playback.
    std::this_thread::sleep_for(std::chrono::milliseconds(1500));
    SinkRecorder rec;
    ASSERT_TRUE(rec.Start());
    std::this_thread::sleep_for(std::chrono::milliseconds(1500));
    std::vector<int16_t> heard = rec.Stop();
    sender.join();
    double tone = ToneAmplitude(heard, 0, 1000);
    EXPECT_GT(tone, 1000.0) << "the sample's 1 kHz tone";
    EXPECT_LT(ToneAmplitude(heard, 0, 1500), tone / 20);
    EXPECT_LT(ToneAmplitude(heard, 0, 700), tone / 20);
    ASSERT_EQ(Korvalen_CloseNetStream(port), 1);
    Korvalen_Cleanup();
    EXPECT_EQ(QMX_HeapLiveBytes(), 0u);
}
