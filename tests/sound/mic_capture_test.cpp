// Microphone capture against a real PulseAudio daemon whose default source
// is a sine source: blocks, the tone in them, muting by volume, the mixer
// volume, the echo-cancelling capture and its fallback, and unplugging.
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "audio/aec_capture.h"
#include "audio/mic_capture.h"
#include "audio/pulse_capture.h"
#include "heap/qmx_heap.h"
#include "korvalen.h"
#include "log_capture.h"
#include "sound_fixture.h"
#include "test_env.h"

namespace {

constexpr uint32_t kToneHz = 1000;

struct Collector {
    std::mutex lock;
    std::vector<int16_t> pcm;
    std::vector<uint32_t> lengths;
    std::atomic<uint32_t> blocks{0};

    static void OnBlock(const uint8_t* data, uint32_t length, void* self)
    {
        auto* c = static_cast<Collector*>(self);
        std::lock_guard<std::mutex> g(c->lock);
        const auto* s = reinterpret_cast<const int16_t*>(data);
        c->pcm.insert(c->pcm.end(), s, s + length / 2);
        c->lengths.push_back(length);
        ++c->blocks;
    }
    bool WaitSamples(size_t n, int timeoutMs = 15000)
    {
        for (int waited = 0; waited < timeoutMs; waited += 10) {
            {
                std::lock_guard<std::mutex> g(lock);
                if (pcm.size() >= n) {
                    return true;
                }
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        return false;
    }
    std::vector<int16_t> Take()
    {
        std::lock_guard<std::mutex> g(lock);
        return pcm;
    }
};

std::mutex g_reportLock;
std::vector<KORVALEN_RUN_MSG> g_reports;
void OnReport(const KORVALEN_RUN_MSG* msg)
{
    std::lock_guard<std::mutex> g(g_reportLock);
    g_reports.push_back(*msg);
}

// Destroyed also when an assertion ends the test early.
struct CaptureDeleter {
    void operator()(CMicCapture* c) const { Audio_DestroyCaptureDec(c); }
};
using Capture = std::unique_ptr<CMicCapture, CaptureDeleter>;

struct MicCaptureTest : SoundFixture {
    ToneMicrophone mic;

    void BeforeInit() override { ASSERT_TRUE(mic.Start(server, kToneHz)); }
};

// The tone is there and stands well above its neighbours.
void ExpectTone(const std::vector<int16_t>& pcm, uint32_t rate, double minAmplitude)
{
    double at = MonoToneAmplitude(pcm, rate, kToneHz);
    EXPECT_GT(at, minAmplitude);
    EXPECT_GT(at, 8 * MonoToneAmplitude(pcm, rate, kToneHz * 0.7));
    EXPECT_GT(at, 8 * MonoToneAmplitude(pcm, rate, kToneHz * 1.4));
}

TEST_F(MicCaptureTest, PlainCaptureDeliversWholeBlocksOfTheToneAndStopsAtVolumeZero)
{
    Capture cap(Audio_CreateCaptureDec(640, 16, 0, AUDIO_CAPTURE_PLAIN, 7));
    ASSERT_NE(cap, nullptr);
    ASSERT_NE(dynamic_cast<CDsoundCapture*>(cap.get()), nullptr);
    EXPECT_EQ(dynamic_cast<CDsoundCapture*>(cap.get())->RingSize(), 10240u);
    EXPECT_EQ(cap->m_owner, 7u);
    Collector got;
    ASSERT_EQ(Audio_SetCaptureCallBack(cap.get(), &Collector::OnBlock, &got), 0u);
    ASSERT_TRUE(got.WaitSamples(8000)); // one second at 8 kHz
    ExpectTone(got.Take(), 8000, 4000);
    {
        std::lock_guard<std::mutex> g(got.lock);
        for (uint32_t len : got.lengths) {
            ASSERT_EQ(len, 640u);
        }
    }

    // Volume 0 gates delivery and turns the source down; 1 brings it back.
    ASSERT_EQ(Audio_SetMicVolume(cap.get(), 0), 0u);
    uint32_t volume = 99;
    ASSERT_EQ(Audio_GetMicVolume(&volume), 0u);
    EXPECT_EQ(volume, 0u);
    std::this_thread::sleep_for(std::chrono::milliseconds(100)); // a block in flight
    uint32_t before = got.blocks;
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    EXPECT_EQ(got.blocks.load(), before);
    ASSERT_EQ(Audio_SetMicVolume(cap.get(), 1), 0u);
    ASSERT_EQ(Audio_GetMicVolume(&volume), 0u);
    EXPECT_EQ(volume, 1u);
    for (int i = 0; i < 300 && got.blocks == before; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    EXPECT_GT(got.blocks.load(), before);
    ASSERT_EQ(Audio_SetMicVolume(nullptr, 200), 0u);
    ASSERT_EQ(Audio_GetMicVolume(&volume), 0u);
    EXPECT_EQ(volume, 200u);
    cap.reset();
}

TEST_F(MicCaptureTest, EchoCancellingCaptureHearsTheToneAndFallsBackWhereItCannotRun)
{
    // 16 kHz: the echo canceller runs and still passes the speaker's tone.
    Capture aec(Audio_CreateCaptureDec(1280, 16, 1, AUDIO_CAPTURE_AEC, 3));
    ASSERT_NE(aec, nullptr);
    EXPECT_NE(dynamic_cast<CCoreAudioCapture*>(aec.get()), nullptr);
    Collector a;
    Audio_SetCaptureCallBack(aec.get(), &Collector::OnBlock, &a);
    ASSERT_TRUE(a.WaitSamples(32000));
    // Noise suppression lowers a steady tone somewhat; it must stay clear.
    ExpectTone(a.Take(), 16000, 1000);
    aec.reset();

    // 44.1 kHz is no rate of the echo canceller (283): the plain capture
    // takes over silently and works.
    CCoreAudioCapture probe;
    EXPECT_EQ(probe.CreateDec(16, 44100, 882, 3), AUDIO_ERR_AEC_FORMAT);
    EXPECT_EQ(probe.CreateDec(8, 8000, 640, 3), AUDIO_ERR_AEC_FORMAT);
    Capture fallback(Audio_CreateCaptureDec(882, 16, 2, AUDIO_CAPTURE_AEC, 3));
    ASSERT_NE(fallback, nullptr);
    EXPECT_EQ(dynamic_cast<CCoreAudioCapture*>(fallback.get()), nullptr);
    Collector f;
    Audio_SetCaptureCallBack(fallback.get(), &Collector::OnBlock, &f);
    ASSERT_TRUE(f.WaitSamples(44100)) << f.Take().size() << " samples";
    ExpectTone(f.Take(), 44100, 4000);
    fallback.reset();

    // Rate indexes outside the table make nothing.
    EXPECT_EQ(Audio_CreateCaptureDec(640, 16, 4, AUDIO_CAPTURE_PLAIN, 3), nullptr);
    EXPECT_TRUE(log.Has("Audio_CreateCaptureDec fail, Sample Per Sec is error(4)"));
    EXPECT_EQ(Audio_SetCaptureCallBack(nullptr, &Collector::OnBlock, nullptr), KORVALEN_ERR_PORT);
}

TEST_F(MicCaptureTest, UnpluggingTheMicrophoneIsReportedOnceAndEndsDelivery)
{
    {
        std::lock_guard<std::mutex> g(g_reportLock);
        g_reports.clear();
    }
    ASSERT_EQ(Korvalen_SetPlayerRunMsgCB(&OnReport), 1);
    Capture cap(Audio_CreateCaptureDec(640, 16, 0, AUDIO_CAPTURE_PLAIN, 9));
    ASSERT_NE(cap, nullptr);
    Collector got;
    Audio_SetCaptureCallBack(cap.get(), &Collector::OnBlock, &got);
    ASSERT_TRUE(got.WaitSamples(1600));
    mic.Unplug();
    bool reported = false;
    for (int i = 0; i < 300 && !reported; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
        std::lock_guard<std::mutex> g(g_reportLock);
        reported = !g_reports.empty();
    }
    ASSERT_TRUE(reported);
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    uint32_t after = got.blocks;
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    EXPECT_EQ(got.blocks.load(), after);
    {
        std::lock_guard<std::mutex> g(g_reportLock);
        ASSERT_EQ(g_reports.size(), 1u);
        EXPECT_EQ(g_reports[0].port, 9u);
        EXPECT_EQ(g_reports[0].type, kReportMicLost);
        EXPECT_EQ(g_reports[0].code, 266u);
    }
    EXPECT_TRUE(log.Has("CaptureThread fail, ulWaveinDevNums not exist"));
    cap.reset();
    Korvalen_SetPlayerRunMsgCB(nullptr);
}

} // namespace
