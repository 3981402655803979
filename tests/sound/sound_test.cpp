// Sound on ports, heard through a real PulseAudio daemon's null sink. The
// port's controls go through the C API; the decoded frames are handed over
// as the decode thread hands them.
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "audio/audio_port.h"
#include "heap/qmx_heap.h"
#include "korvalen.h"
#include "log_capture.h"
#include "port/port.h"
#include "port/port_table.h"
#include "sound_fixture.h"
#include "test_env.h"

namespace {

constexpr uint32_t kRate = 8000;
constexpr uint32_t kFrameSamples = 160; // 20 ms frames, as a G.711 stream decodes
constexpr double kAmplitude = 8000;

// One port's tone source, frame by frame, continuous in phase.
struct Tone {
    explicit Tone(double h, uint32_t ch = 1) : hz(h), channels(ch) {}
    double hz;
    uint32_t channels;
    uint64_t n = 0;
    std::vector<int16_t> frame;
    AUDIO_PCM_FRAME Next()
    {
        frame.resize(kFrameSamples * channels);
        for (uint32_t i = 0; i < kFrameSamples; ++i, ++n) {
            auto v = static_cast<int16_t>(kAmplitude * std::sin(2 * M_PI * hz * static_cast<double>(n) / kRate));
            for (uint32_t c = 0; c < channels; ++c) {
                frame[i * channels + c] = v;
            }
        }
        return {reinterpret_cast<const uint8_t*>(frame.data()), kFrameSamples * channels * 2, kRate, channels, 16};
    }
};

struct SoundTest : SoundFixture {
    uint32_t a = 0, b = 0;

    void SetUp() override
    {
        SoundFixture::SetUp();
        if (IsSkipped() || HasFatalFailure()) {
            return;
        }
        ASSERT_EQ(Korvalen_AllocPort(&a), 1);
        ASSERT_EQ(Korvalen_AllocPort(&b), 1);
    }

    // Plays the tones in real time (one frame per port every 20 ms) while
    // the sink is recorded. A pre-roll first lets new playback streams get
    // going: the server takes a moment to start a stream, seconds on a busy
    // machine, so when sound is expected the pre-roll lasts until the sink
    // carries some. The result is the steady state after the pre-roll.
    std::vector<int16_t> Play(std::vector<std::pair<uint32_t, Tone*>> ports, int frames = 60, int preRoll = 30,
                              bool expectSound = true)
    {
        constexpr int kLongestPreRoll = 250; // 5 s
        auto next = std::chrono::steady_clock::now();
        auto feed = [&] {
            for (auto& [port, tone] : ports) {
                AUDIO_PCM_FRAME frame = tone->Next();
                Audio_PlayPortFrame(Player_GetPort(port)->sound, port, Player_GetPort(port)->dataLock, &frame);
            }
            next += std::chrono::milliseconds(20);
            std::this_thread::sleep_until(next);
        };
        SinkRecorder rec;
        EXPECT_TRUE(rec.Start());
        for (int f = 0; f < preRoll || (expectSound && f < kLongestPreRoll && rec.Heard() < 48000 * 2 / 10); ++f) {
            feed();
        }
        size_t from = rec.Recorded();
        for (int f = 0; f < frames; ++f) {
            feed();
        }
        std::vector<int16_t> s = rec.Stop();
        s.erase(s.begin(), s.begin() + static_cast<std::ptrdiff_t>(std::min(from, s.size())));
        return s;
    }
};

double Db(double ratio)
{
    return 20 * std::log10(ratio);
}

} // namespace

TEST_F(SoundTest, ToneComesOutAtItsPitchAndTheTableLevel)
{
    Tone tone{1000};
    ASSERT_EQ(Korvalen_OpenSound(a), 1);
    ASSERT_EQ(Korvalen_SetSoundVolume(a, 255), 1);
    auto full = Play({{a, &tone}});
    double at1k = ToneAmplitude(full, 0, 1000);
    // The 8 kHz tone is resampled to the 48 kHz sink: the energy stays at
    // 1 kHz, on both speakers, at the level it was played.
    EXPECT_NEAR(Db(at1k / (kAmplitude / std::sqrt(2.0))), 0.0, 1.5);
    EXPECT_LT(ToneAmplitude(full, 0, 1500), at1k / 20);
    EXPECT_LT(ToneAmplitude(full, 0, 700), at1k / 20);
    ChannelLevels lv = LoudestRms(full);
    EXPECT_NEAR(Db(lv.right / lv.left), 0.0, 0.5);

    uint32_t vol = 0;
    ASSERT_EQ(Korvalen_GetSoundVolume(a, &vol), 1);
    EXPECT_EQ(vol, 255u) << "read back from the device";

    // Volume 64: 2000 x log10(64 / 255) = -1200 hundredths of a decibel.
    ASSERT_EQ(Korvalen_SetSoundVolume(a, 64), 1);
    auto quiet = Play({{a, &tone}}, 40);
    EXPECT_NEAR(Db(ToneAmplitude(quiet, 0, 1000) / at1k), -12.0, 1.0);

    // Muted: silence; unmuted: back at 64.
    ASSERT_EQ(Korvalen_SetSoundQuietStatus(a, 1), 1);
    uint32_t muted = 0;
    ASSERT_EQ(Korvalen_GetSoundQuietStatus(a, &muted), 1);
    EXPECT_EQ(muted, 1u);
    auto silent = Play({{a, &tone}}, 30, 30, false);
    EXPECT_LT(LoudestRms(silent).left, 20.0);
    ASSERT_EQ(Korvalen_SetSoundQuietStatus(a, 0), 1);
    auto back = Play({{a, &tone}}, 40);
    EXPECT_NEAR(Db(ToneAmplitude(back, 0, 1000) / at1k), -12.0, 1.0);
}

TEST_F(SoundTest, ChannelChoiceAndTwoPortsAtOnce)
{
    Tone low{1000}, high{1500};
    ASSERT_EQ(Korvalen_OpenSound(a), 1);
    ASSERT_EQ(Korvalen_OpenSound(b), 1);
    ASSERT_EQ(Korvalen_SetSoundVolume(a, 255), 1);
    ASSERT_EQ(Korvalen_SetSoundVolume(b, 255), 1);
    auto both = Play({{a, &low}, {b, &high}}, 100);
    for (int ch = 0; ch < 2; ++ch) {
        EXPECT_NEAR(Db(ToneAmplitude(both, ch, 1000) / (kAmplitude / std::sqrt(2.0))), 0.0, 2.0) << ch;
        EXPECT_NEAR(Db(ToneAmplitude(both, ch, 1500) / (kAmplitude / std::sqrt(2.0))), 0.0, 2.0) << ch;
    }

    // Port a on the left speaker only, port b closed.
    ASSERT_EQ(Korvalen_SetPlaySoundChannel(a, 0), 1);
    ASSERT_EQ(Korvalen_CloseSound(b), 1);
    auto left = Play({{a, &low}, {b, &high}});
    EXPECT_GT(ToneAmplitude(left, 0, 1000), 1000.0);
    EXPECT_LT(ToneAmplitude(left, 1, 1000), 20.0) << "nothing on the right";
    EXPECT_LT(ToneAmplitude(left, 0, 1500), 20.0) << "the closed port is silent";

    // Stereo sound on the right speaker only.
    Tone stereo{1000, 2};
    ASSERT_EQ(Korvalen_SetPlaySoundChannel(a, 1), 1);
    auto right = Play({{a, &stereo}});
    EXPECT_LT(ToneAmplitude(right, 0, 1000), 20.0);
    EXPECT_GT(ToneAmplitude(right, 1, 1000), 1000.0);
}

TEST_F(SoundTest, ServerGoingAwayAndComingBack)
{
    LogCapture log;
    Tone tone{1000};
    ASSERT_EQ(Korvalen_OpenSound(a), 1);
    Play({{a, &tone}}, 10);
    PortRecord* rec = Player_GetPort(a);
    ASSERT_NE(rec->sound.play, nullptr);

    server.Kill();
    for (int f = 0; f < 50 && rec->sound.open; ++f) {
        AUDIO_PCM_FRAME frame = tone.Next();
        Audio_PlayPortFrame(rec->sound, rec->port, rec->dataLock, &frame);
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    EXPECT_EQ(rec->sound.open, 0u) << "the port goes on without sound";
    EXPECT_EQ(rec->sound.play, nullptr);
    EXPECT_TRUE(log.Has("WaitPlayDone failed") || log.Has("UpdateBuffer failed"));
    // Opening again without a server: logged, the port stays silent.
    ASSERT_EQ(Korvalen_OpenSound(a), 1);
    std::this_thread::sleep_for(std::chrono::milliseconds(1100)); // past the reconnect back-off
    AUDIO_PCM_FRAME frame = tone.Next();
    Audio_PlayPortFrame(rec->sound, rec->port, rec->dataLock, &frame);
    EXPECT_TRUE(log.Has("CDsoundPlay::CreateSoundDec failed, sm_gpDSound is null"));
    EXPECT_EQ(rec->sound.open, 0u);

    // The server is back: opening the sound again plays again.
    ASSERT_TRUE(server.Start(TestHome() + "/pulse"));
    std::this_thread::sleep_for(std::chrono::milliseconds(1100));
    ASSERT_EQ(Korvalen_OpenSound(a), 1);
    ASSERT_EQ(Korvalen_SetSoundVolume(a, 255), 1);
    auto again = Play({{a, &tone}});
    EXPECT_GT(ToneAmplitude(again, 0, 1000), 2000.0);
}

// Port controls that need no server.
TEST(SoundControls, VolumeMuteAndFormatRules)
{
    ASSERT_EQ(Korvalen_Init(), 1);
    uint32_t p = 0;
    ASSERT_EQ(Korvalen_AllocPort(&p), 1);
    uint32_t v = 0;
    ASSERT_EQ(Korvalen_GetSoundVolume(p, &v), 1);
    EXPECT_EQ(v, 128u) << "a new port's volume, before anything played";
    EXPECT_EQ(Korvalen_GetSoundVolume(p, nullptr), 0);
    EXPECT_EQ(Korvalen_GetLastError(), KORVALEN_ERR_INVALID_PARAM);
    EXPECT_EQ(Korvalen_SetSoundVolume(300, 5), 0);
    EXPECT_EQ(Korvalen_GetLastError(), KORVALEN_ERR_PORT);

    // Mute, then a new volume: unmute restores the new one.
    ASSERT_EQ(Korvalen_SetSoundQuietStatus(p, 1), 1);
    ASSERT_EQ(Korvalen_GetSoundVolume(p, &v), 1);
    EXPECT_EQ(v, 0u);
    ASSERT_EQ(Korvalen_SetSoundVolume(p, 90), 1);
    ASSERT_EQ(Korvalen_SetSoundQuietStatus(p, 0), 1);
    ASSERT_EQ(Korvalen_GetSoundVolume(p, &v), 1);
    EXPECT_EQ(v, 90u);
    Korvalen_Cleanup();
}
