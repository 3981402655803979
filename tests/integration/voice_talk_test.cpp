// Voice talk through the C API against a test device on loopback: caller-fed
// voice leaves as "$"-framed channel-4 RTP on the stream's own connection
// (and stops quietly when the device hangs up),
// sound the device sends back reaches the parsed-voice callback, and the
// broadcast count stops at 128 ports.
#include <cmath>
#include <cstdlib>
#include <mutex>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "audio/voice_internal.h"
#include "codec/g711.h"
#include "heap/qmx_heap.h"
#include "korvalen.h"
#include "log_capture.h"
#include "port_fixture.h"
#include "voice_device.h"
#include "wait_until.h"

namespace {

constexpr uint32_t kTalkFed = 2;
constexpr uint32_t kBroadcastFed = 0;
constexpr uint32_t kTcp = 1;
constexpr uint32_t kUdp = 0;

struct VoiceTalkTest : PortFixture {
    LogCapture log;

    void SetUp() override { PortFixture::SetUp(); }
};

std::vector<uint8_t> Pattern(size_t n, uint8_t seed)
{
    std::vector<uint8_t> v(n);
    for (size_t i = 0; i < n; ++i) {
        v[i] = static_cast<uint8_t>(i * 7 + seed);
    }
    return v;
}

std::vector<int16_t> Tone(size_t samples, double hz, double rate, double amplitude)
{
    std::vector<int16_t> t(samples);
    for (size_t i = 0; i < samples; ++i) {
        t[i] = static_cast<int16_t>(amplitude * std::sin(2 * M_PI * hz * static_cast<double>(i) / rate));
    }
    return t;
}

TEST_F(VoiceTalkTest, CallerFedVoiceLeavesAsChannel4RtpFramesOnTheStreamsConnection)
{
    VoiceDevice dev;
    ASSERT_TRUE(dev.Listen());
    ASSERT_EQ(Korvalen_SetVoiceEncodeType(port, 4, 0, 1), 1);
    ASSERT_EQ(Korvalen_OpenVoiceSvc(port, kTalkFed, 0, nullptr, 0, "127.0.0.1", dev.Port(), kTcp), 1);

    // 3000 bytes of PCM pass the raw encoder unchanged: 1400 + 1400 + 200.
    auto block = Pattern(3000, 1);
    ASSERT_EQ(Korvalen_VoiceInputData(port, block.data(), 3000, nullptr), 1);
    ASSERT_TRUE(dev.WaitPackets(3));
    auto second = Pattern(882, 9);
    ASSERT_EQ(Korvalen_VoiceInputData(port, second.data(), 882, nullptr), 1);
    ASSERT_TRUE(dev.WaitPackets(4));
    SleepMs(50);
    auto p = dev.Packets();
    ASSERT_EQ(p.size(), 4u);
    EXPECT_EQ(dev.BadBytes(), 0u);
    const uint32_t lens[] = {1412, 1412, 212, 894};
    std::vector<uint8_t> joined;
    for (size_t i = 0; i < p.size(); ++i) {
        EXPECT_EQ(p[i].channel, 4u);
        EXPECT_EQ(p[i].frameLen, lens[i]);
        EXPECT_EQ(p[i].version, 2u);
        EXPECT_EQ(static_cast<uint16_t>(p[i].seq - p[0].seq), i);
        if (i < 3) {
            EXPECT_EQ(p[i].timestamp, p[0].timestamp); // one block, one time stamp
            joined.insert(joined.end(), p[i].payload.begin(), p[i].payload.end());
        }
    }
    EXPECT_EQ(joined, block);
    EXPECT_EQ(p[3].payload, second);
    EXPECT_EQ(p[3].timestamp - p[0].timestamp, 640u);

    // The device hangs up mid-talk: later blocks fail to send without
    // flooding the log, and the talk still closes cleanly.
    dev.Stop();
    for (int i = 0; i < 200; ++i) {
        Korvalen_VoiceInputData(port, second.data(), 882, nullptr);
        SleepMs(1);
    }
    const size_t failures = log.Count("Player_SendVoice fail, NET_Send fail");
    EXPECT_GE(failures, 1u);
    EXPECT_LE(failures, 3u);
    ASSERT_EQ(Korvalen_CloseVoiceSvc(port), 1);

    // G.711 mu-law: 640 bytes of a tone leave as 320 coded bytes that decode
    // back to the tone.
    VoiceDevice dev2;
    ASSERT_TRUE(dev2.Listen());
    ASSERT_EQ(Korvalen_SetVoiceEncodeType(port, 0, 0, 1), 1);
    ASSERT_EQ(Korvalen_OpenVoiceSvc(port, kTalkFed, 0, nullptr, 0, "127.0.0.1", dev2.Port(), kTcp), 1);
    auto tone = Tone(320, 1000, 8000, 8000);
    ASSERT_EQ(Korvalen_VoiceInputData(port, reinterpret_cast<const uint8_t*>(tone.data()), 640, nullptr), 1);
    ASSERT_TRUE(dev2.WaitPackets(1));
    auto g = dev2.Packets();
    ASSERT_EQ(g[0].payload.size(), 320u);
    for (size_t i = 0; i < 320; ++i) {
        int16_t back = G711_Decode(G711Law::MuLaw, g[0].payload[i]);
        ASSERT_NEAR(back, tone[i], 8000 / 16 + 16) << i;
    }
    ASSERT_EQ(Korvalen_CloseVoiceSvc(port), 1);
    EXPECT_EQ(Korvalen_VoiceInputData(port, block.data(), 100, nullptr), 0); // no voice service any more
    EXPECT_EQ(Korvalen_GetLastError(), KORVALEN_ERR_NOT_SUPPORTED);
}

std::mutex g_backLock;
std::vector<std::vector<int16_t>> g_back;
void OnVoiceBack(uint32_t, const KORVALEN_DECODED_AUDIO* a, void*, uint32_t)
{
    std::lock_guard<std::mutex> guard(g_backLock);
    const auto* s = reinterpret_cast<const int16_t*>(a->data);
    g_back.emplace_back(s, s + a->length / 2);
}

TEST_F(VoiceTalkTest, SoundTheDeviceSendsBackReachesTheParsedVoiceCallback)
{
    {
        std::lock_guard<std::mutex> guard(g_backLock);
        g_back.clear();
    }
    VoiceDevice dev;
    ASSERT_TRUE(dev.Listen());
    ASSERT_EQ(Korvalen_SetParseVoiceDataCB(port, &OnVoiceBack, 1, nullptr), 1);
    ASSERT_EQ(Korvalen_OpenVoiceSvc(port, kTalkFed, 0, nullptr, 0, "127.0.0.1", dev.Port(), kTcp), 1);
    ASSERT_TRUE(WaitUntil([&] { return dev.Connected(); }, 1000));
    // 20 ms G.711 mu-law packets of a 500 Hz tone, RTP payload type 0.
    auto tone = Tone(160 * 10, 500, 8000, 6000);
    for (uint16_t n = 0; n < 10; ++n) {
        std::vector<uint8_t> rtp(12, 0); // version 2, payload type 0, SSRC 1
        rtp[0] = 0x80;
        rtp[3] = static_cast<uint8_t>(n);
        rtp[6] = static_cast<uint8_t>((n * 160) >> 8);
        rtp[7] = static_cast<uint8_t>(n * 160);
        rtp[11] = 1;
        for (int i = 0; i < 160; ++i) {
            rtp.push_back(G711_Encode(G711Law::MuLaw, tone[n * 160 + i]));
        }
        ASSERT_TRUE(dev.SendFrame(0, rtp));
    }
    auto backCount = [] {
        std::lock_guard<std::mutex> guard(g_backLock);
        return g_back.size();
    };
    WaitUntil([&] { return backCount() >= 10; }, 3000);
    const size_t got = backCount();
    ASSERT_GE(got, 9u); // the last packet may wait for a next one
    std::lock_guard<std::mutex> guard(g_backLock);
    ASSERT_EQ(g_back[0].size(), 160u);
    for (size_t i = 0; i < 160; ++i) {
        EXPECT_NEAR(g_back[0][i], tone[i], 6000 / 16 + 16) << i;
    }
    ASSERT_EQ(Korvalen_CloseVoiceSvc(port), 1);
}

TEST_F(VoiceTalkTest, BroadcastCountStopsAt128AndBadSettingsAreRefused)
{
    // No sound server, so no microphone: 266, and the stream the open made
    // is gone again. The library looks for the server from its start on.
    {
        const char* old = std::getenv("PULSE_SERVER");
        std::string saved = old ? old : "";
        Korvalen_Cleanup();
        setenv("PULSE_SERVER", "unix:/nonexistent/voice-test", 1);
        ASSERT_EQ(Korvalen_Init(), 1);
        ASSERT_EQ(Korvalen_AllocPort(&port), 1);
        uint64_t idle = QMX_HeapLiveBytes();
        VoiceDevice dev;
        ASSERT_TRUE(dev.Listen());
        EXPECT_EQ(Korvalen_OpenVoiceSvc(port, 3, 0, nullptr, 0, "127.0.0.1", dev.Port(), kTcp), 0);
        EXPECT_EQ(Korvalen_GetLastError(), KORVALEN_ERR_AUDIO_DEVICE);
        EXPECT_TRUE(log.Has("Player_OpenVoiceSvc fail, Audio_CreateCaptureDec fail"));
        EXPECT_EQ(QMX_HeapLiveBytes(), idle);
        if (old) {
            setenv("PULSE_SERVER", saved.c_str(), 1);
        } else {
            unsetenv("PULSE_SERVER");
        }
    }

    // Settings are checked as a whole: nothing is stored unless all pass.
    EXPECT_EQ(Korvalen_SetVoiceEncodeType(port, 1, 0, 1), 0);
    EXPECT_EQ(Korvalen_GetLastError(), KORVALEN_ERR_NOT_SUPPORTED);
    EXPECT_TRUE(log.Has("Player_SetVoiceEncodeType fail, unknown enc type(1)"));
    EXPECT_EQ(Korvalen_SetVoiceEncodeType(port, 2, 2, 1), 0);
    EXPECT_TRUE(log.Has("Player_SetVoiceEncodeType fail, unknown Sample Rate(2)"));
    EXPECT_EQ(Korvalen_SetVoiceEncodeType(port, 2, 0, 2), 0);
    EXPECT_TRUE(log.Has("Player_SetVoiceEncodeType fail, unknown Channels(2)"));
    EXPECT_EQ(Korvalen_OpenVoiceSvc(port, kTalkFed, 0, nullptr, 0, "127.0.0.1", 9, 3), 0);
    EXPECT_EQ(Korvalen_GetLastError(), KORVALEN_ERR_NOT_SUPPORTED);
    // A device that is not there: the failed open leaves nothing behind.
    uint64_t before = QMX_HeapLiveBytes();
    VoiceDevice gone;
    ASSERT_TRUE(gone.Listen());
    uint16_t closedPort = gone.Port();
    gone.Stop();
    EXPECT_EQ(Korvalen_OpenVoiceSvc(port, kTalkFed, 0, nullptr, 0, "127.0.0.1", closedPort, kTcp), 0);
    EXPECT_TRUE(log.Has("Player_OpenVoiceSvc fail, Player_OpenInputStream fail"));
    EXPECT_EQ(QMX_HeapLiveBytes(), before);

    std::vector<uint32_t> ports{port};
    for (int i = 0; i < 128; ++i) {
        uint32_t p = 0;
        ASSERT_EQ(Korvalen_AllocPort(&p), 1);
        ports.push_back(p);
    }
    for (int i = 0; i < 128; ++i) {
        ASSERT_EQ(Korvalen_OpenVoiceSvc(ports[i], kBroadcastFed, 0, "127.0.0.1", 0, "127.0.0.1", 9, kUdp), 1) << i;
    }
    EXPECT_EQ(Korvalen_OpenVoiceSvc(ports[128], kBroadcastFed, 0, "127.0.0.1", 0, "127.0.0.1", 9, kUdp), 0);
    EXPECT_EQ(Korvalen_GetLastError(), KORVALEN_ERR_PORT_NOT_ENOUGH);
    EXPECT_TRUE(log.Has("Player_OpenVoiceSvc fail, Broadcast Port not enough"));
    EXPECT_EQ(Voice_Broadcast().count.load(), 128);
    // Talk is not broadcast: it still opens.
    uint32_t talker = 0;
    ASSERT_EQ(Korvalen_AllocPort(&talker), 1);
    EXPECT_EQ(Korvalen_OpenVoiceSvc(talker, kTalkFed, 0, "127.0.0.1", 0, "127.0.0.1", 9, kUdp), 1);
    // One leaves, the refused one gets in.
    ASSERT_EQ(Korvalen_CloseVoiceSvc(ports[5]), 1);
    EXPECT_EQ(Korvalen_OpenVoiceSvc(ports[128], kBroadcastFed, 0, "127.0.0.1", 0, "127.0.0.1", 9, kUdp), 1);
    EXPECT_EQ(Voice_Broadcast().count.load(), 128);
    for (uint32_t p : ports) {
        Korvalen_CloseVoiceSvc(p);
    }
    EXPECT_EQ(Voice_Broadcast().count.load(), 0);
}

} // namespace
