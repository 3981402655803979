// Talk and broadcast from the microphone through the C API: the default
// source of a private PulseAudio daemon hears a 1000 Hz tone, and test
// devices on loopback decode what arrives on their TCP connections. The echo
// test swaps in a microphone fed by the test, which plays the sink back into
// it as a room would.
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <memory>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <pulse/simple.h>

#include "audio/voice_internal.h"
#include "codec/code_manager.h"
#include "codec/g711.h"
#include "heap/qmx_heap.h"
#include "korvalen.h"
#include "log_capture.h"
#include "sound_fixture.h"
#include "test_env.h"
#include "voice_device.h"

namespace {

constexpr uint32_t kToneHz = 1000;
constexpr uint32_t kBroadcastMic = 1;
constexpr uint32_t kTalkMic = 3;
constexpr uint32_t kTcp = 1;

struct VoiceMicTest : SoundFixture {
    ToneMicrophone mic;
    uint32_t port = 0;

    void BeforeInit() override { ASSERT_TRUE(mic.Start(server, kToneHz)); }
    void SetUp() override
    {
        SoundFixture::SetUp();
        if (IsSkipped() || HasFatalFailure()) {
            return;
        }
        ASSERT_EQ(Korvalen_AllocPort(&port), 1);
    }
};

// The packets of one session follow each other: channel 4, RTP version 2,
// the "$" length is the packet's, sequence numbers step by one and every
// block (one packet each here) moves the time stamp on by 640.
void ExpectWellFormed(const std::vector<VoicePacket>& p)
{
    ASSERT_FALSE(p.empty());
    for (size_t i = 0; i < p.size(); ++i) {
        EXPECT_EQ(p[i].channel, 4u);
        EXPECT_EQ(p[i].version, 2u);
        EXPECT_EQ(p[i].frameLen, p[i].payload.size() + 12);
        EXPECT_EQ(static_cast<uint16_t>(p[i].seq - p[0].seq), i) << i;
        EXPECT_EQ(p[i].timestamp - p[0].timestamp, 640u * i) << i;
    }
}

std::vector<int16_t> Decode(uint32_t encodeType, const std::vector<VoicePacket>& p)
{
    std::vector<int16_t> pcm;
    CODE_HANDLE aac{};
    if (encodeType == 2) {
        EXPECT_EQ(CODE_CreateCode(CODE_DIR_DECODER, KORVALEN_CODEC_AAC, nullptr, &aac), 0u);
    }
    for (const auto& v : p) {
        if (encodeType == 0) {
            for (uint8_t c : v.payload) {
                pcm.push_back(G711_Decode(G711Law::MuLaw, c));
            }
        } else if (encodeType == 4) {
            const auto* s = reinterpret_cast<const int16_t*>(v.payload.data());
            pcm.insert(pcm.end(), s, s + v.payload.size() / 2);
        } else {
            CODE_INPUT in{};
            in.data = v.payload.data();
            in.length = static_cast<uint32_t>(v.payload.size());
            CODE_OUTPUT out;
            if (CODE_Decoder(&aac, &in, &out) == 0) {
                EXPECT_EQ(out.sampleRate, 16000u);
                const auto* s = reinterpret_cast<const int16_t*>(out.data);
                pcm.insert(pcm.end(), s, s + out.length / 2);
            }
        }
    }
    if (encodeType == 2) {
        CODE_FreeCode(&aac);
    }
    return pcm;
}

void ExpectTone(std::vector<int16_t> pcm, uint32_t rate)
{
    // The first 200 ms let the echo canceller and the encoder settle.
    ASSERT_GT(pcm.size(), rate / 2);
    pcm.erase(pcm.begin(), pcm.begin() + rate / 5);
    double at = MonoToneAmplitude(pcm, rate, kToneHz);
    EXPECT_GT(at, 1000);
    EXPECT_GT(at, 8 * MonoToneAmplitude(pcm, rate, kToneHz * 0.7));
    EXPECT_GT(at, 8 * MonoToneAmplitude(pcm, rate, kToneHz * 1.4));
}

TEST_F(VoiceMicTest, TalkSendsTheMicrophoneInEveryEncodeType)
{
    struct Case {
        uint32_t encodeType, rateIndex, rate, payload;
    };
    const Case cases[] = {{0, 0, 8000, 320}, {2, 1, 16000, 0}, {4, 0, 8000, 882}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.encodeType);
        VoiceDevice dev;
        ASSERT_TRUE(dev.Listen());
        ASSERT_EQ(Korvalen_SetVoiceEncodeType(port, c.encodeType, c.rateIndex, 1), 1);
        ASSERT_EQ(Korvalen_OpenVoiceSvc(port, kTalkMic, 0, nullptr, 0, "127.0.0.1", dev.Port(), kTcp), 1);
        EXPECT_TRUE(dev.WaitPackets(25));
        ASSERT_EQ(Korvalen_CloseVoiceSvc(port), 1);
        auto p = dev.Packets();
        ExpectWellFormed(p);
        if (c.payload) {
            for (const auto& v : p) {
                ASSERT_EQ(v.payload.size(), c.payload);
            }
        }
        ExpectTone(Decode(c.encodeType, p), c.rate);
    }
}

TEST_F(VoiceMicTest, BroadcastReachesEveryRegisteredPort)
{
    constexpr int kPorts = 4;
    std::vector<std::unique_ptr<VoiceDevice>> devs;
    std::vector<uint32_t> ports{port};
    for (int i = 0; i < kPorts; ++i) {
        devs.push_back(std::make_unique<VoiceDevice>());
        ASSERT_TRUE(devs.back()->Listen());
        if (i > 0) {
            uint32_t p = 0;
            ASSERT_EQ(Korvalen_AllocPort(&p), 1);
            ports.push_back(p);
        }
        ASSERT_EQ(Korvalen_OpenVoiceSvc(ports[i], kBroadcastMic, 0, nullptr, 0, "127.0.0.1", devs[i]->Port(), kTcp), 1);
    }
    EXPECT_EQ(Voice_Broadcast().count.load(), kPorts);
    for (auto& d : devs) {
        EXPECT_TRUE(d->WaitPackets(25));
    }
    for (uint32_t p : ports) {
        ASSERT_EQ(Korvalen_CloseVoiceSvc(p), 1);
    }
    EXPECT_EQ(Voice_Broadcast().count.load(), 0);
    EXPECT_TRUE(log.Has("Start __BroadcastThreadEntry thread succeed"));
    for (auto& d : devs) {
        auto p = d->Packets();
        ASSERT_GT(p.size(), 20u);
        for (const auto& v : p) {
            ASSERT_EQ(v.channel, 4u);
            ASSERT_EQ(v.payload.size(), 320u);
        }
        ExpectTone(Decode(0, p), 8000);
    }
}

TEST_F(VoiceMicTest, MicVolumeAndMuteActOnTheSourceAndTheTalk)
{
    VoiceDevice dev;
    ASSERT_TRUE(dev.Listen());
    ASSERT_EQ(Korvalen_OpenVoiceSvc(port, kTalkMic, 0, nullptr, 0, "127.0.0.1", dev.Port(), kTcp), 1);
    ASSERT_TRUE(dev.WaitPackets(5));
    ASSERT_EQ(Korvalen_SetMicVolume(port, 100), 1);
    uint32_t volume = 0, quiet = 9;
    ASSERT_EQ(Korvalen_GetMicVolume(port, &volume), 1);
    EXPECT_EQ(volume, 100u);

    // Muting saves the source's volume, silences the talk; unmuting restores.
    ASSERT_EQ(Korvalen_SetMicQuietStatus(port, 1), 1);
    ASSERT_EQ(Korvalen_GetMicQuietStatus(port, &quiet), 1);
    EXPECT_EQ(quiet, 1u);
    ASSERT_EQ(Korvalen_GetMicVolume(port, &volume), 1);
    EXPECT_EQ(volume, 0u);
    std::this_thread::sleep_for(std::chrono::milliseconds(150));
    size_t muted = dev.PacketCount();
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    EXPECT_EQ(dev.PacketCount(), muted);
    ASSERT_EQ(Korvalen_SetMicQuietStatus(port, 0), 1);
    ASSERT_EQ(Korvalen_GetMicVolume(port, &volume), 1);
    EXPECT_EQ(volume, 100u);
    EXPECT_TRUE(dev.WaitPackets(muted + 5));

    // A second mute reads the already muted source: it saves 0.
    ASSERT_EQ(Korvalen_SetMicQuietStatus(port, 1), 1);
    ASSERT_EQ(Korvalen_SetMicQuietStatus(port, 1), 1);
    ASSERT_EQ(Korvalen_SetMicQuietStatus(port, 0), 1);
    ASSERT_EQ(Korvalen_GetMicVolume(port, &volume), 1);
    EXPECT_EQ(volume, 0u);
    ASSERT_EQ(Korvalen_GetMicQuietStatus(port, &quiet), 1);
    EXPECT_EQ(quiet, 0u);
    ASSERT_EQ(Korvalen_CloseVoiceSvc(port), 1);
}

// The room: what the port plays on the sink comes back into the microphone
// beside a talker at 440 Hz. The device sends a 1000 Hz tone; the voice it
// gets back must carry the talker and hardly any of its own tone.
TEST_F(VoiceMicTest, TalkCancelsTheEchoOfWhatThePortPlays)
{
    constexpr uint32_t kRate = 16000, kChunk = kRate / 100;
    FedMicrophone fed;
    ASSERT_TRUE(fed.Start(server));
    pa_sample_spec format{PA_SAMPLE_S16LE, kRate, 1};
    pa_buffer_attr attr{};
    attr.maxlength = static_cast<uint32_t>(-1);
    attr.fragsize = kChunk * 2;
    int err = 0;
    pa_simple* speaker = pa_simple_new(nullptr, "korvalen-test", PA_STREAM_RECORD, "knull.monitor", "room", &format,
                                       nullptr, &attr, &err);
    ASSERT_NE(speaker, nullptr);
    std::atomic<bool> stop{false};
    std::vector<int16_t> played; // what the speaker gave the room
    std::thread room([&] {
        std::vector<int16_t> heard(kChunk);
        for (uint64_t n = 0; !stop; n += kChunk) {
            if (pa_simple_read(speaker, heard.data(), kChunk * 2, &err) != 0) {
                break;
            }
            played.insert(played.end(), heard.begin(), heard.end());
            for (uint32_t i = 0; i < kChunk; ++i) {
                double talker = 3000 * std::sin(2 * M_PI * 440 * static_cast<double>(n + i) / kRate);
                heard[i] = static_cast<int16_t>(heard[i] + talker);
            }
            fed.Write(heard.data(), kChunk);
        }
    });

    VoiceDevice dev;
    ASSERT_TRUE(dev.Listen());
    ASSERT_EQ(Korvalen_SetVoiceEncodeType(port, 0, 0, 1), 1);
    ASSERT_EQ(Korvalen_OpenVoiceSvc(port, kTalkMic, 0, nullptr, 0, "127.0.0.1", dev.Port(), kTcp), 1);
    ASSERT_EQ(Korvalen_StartPlay(port, 0), 1);
    ASSERT_EQ(Korvalen_OpenSound(port), 1);
    ASSERT_TRUE(dev.WaitPackets(1));
    // 5 s of 20 ms G.711 packets in real time, RTP payload type 0.
    auto next = std::chrono::steady_clock::now();
    for (uint16_t k = 0; k < 250; ++k) {
        std::vector<uint8_t> rtp{0x80, 0, static_cast<uint8_t>(k >> 8), static_cast<uint8_t>(k), 0, 0, 0, 0, 0, 0,
                                 0,    1};
        const uint32_t ts = k * 160u;
        rtp[4] = static_cast<uint8_t>(ts >> 24);
        rtp[5] = static_cast<uint8_t>(ts >> 16);
        rtp[6] = static_cast<uint8_t>(ts >> 8);
        rtp[7] = static_cast<uint8_t>(ts);
        for (uint32_t i = 0; i < 160; ++i) {
            rtp.push_back(G711_Encode(G711Law::MuLaw,
                                      static_cast<int16_t>(8000 * std::sin(2 * M_PI * 1000 * (ts + i) / 8000.0))));
        }
        ASSERT_TRUE(dev.SendFrame(0, rtp));
        next += std::chrono::milliseconds(20);
        std::this_thread::sleep_until(next);
    }
    const auto sent = dev.Packets();
    ASSERT_EQ(Korvalen_CloseVoiceSvc(port), 1);
    stop = true;
    room.join();
    pa_simple_free(speaker);

    auto pcm = Decode(0, sent);
    ASSERT_GT(pcm.size(), 8000u * 4);
    std::vector<int16_t> last(pcm.end() - 8000, pcm.end()); // the last second, once the canceller settled
    const double echo = MonoToneAmplitude(last, 8000, 1000);
    const double talker = MonoToneAmplitude(last, 8000, 440);
    const double playedTone = MonoToneAmplitude(played, kRate, 1000);
    EXPECT_GT(playedTone, 2000) << "the port did not play the device's tone";
    EXPECT_GT(talker, 300);
    // Heard at about the talker's level; 20 dB below it once cancelled.
    EXPECT_LT(echo, talker / 10) << "echo " << echo << ", talker " << talker;
}

} // namespace
