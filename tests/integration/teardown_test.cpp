// Stopping, closing and freeing a busy port in every order, from the
// caller's thread or another one: no hang, no leak, and no callback runs
// once the call that ends the stream has returned.
#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "../unit/codec_media.h"
#include "heap/qmx_heap.h"
#include "korvalen.h"
#include "wait_until.h"

namespace {

struct Watch {
    std::atomic<bool> closed{false};
    std::atomic<int> running{0};
    std::atomic<int> calls{0};
    std::atomic<int> late{0}; // callbacks that began after the close returned
    void Enter()
    {
        ++running;
        ++calls;
        if (closed) {
            ++late;
        }
    }
    void Leave() { --running; }
};

void OnDecoded(uint32_t, const KORVALEN_DECODED_VIDEO*, void* user, uint32_t, uint32_t)
{
    auto* w = static_cast<Watch*>(user);
    w->Enter();
    std::this_thread::sleep_for(std::chrono::milliseconds(2)); // widen the window
    w->Leave();
}

void OnDraw(uint32_t, const KORVALEN_DRAW_SURFACE*, void* user, uint32_t)
{
    auto* w = static_cast<Watch*>(user);
    w->Enter();
    w->Leave();
}

void OnParsed(uint32_t, const KORVALEN_PARSED_FRAME*, void* user, uint32_t)
{
    auto* w = static_cast<Watch*>(user);
    w->Enter();
    w->Leave();
}

enum Step { STOP, CLOSE, FREE };

} // namespace

TEST(Teardown, EveryOrderFromAnyThreadEndsCleanly)
{
    const std::string path = FixturePath("h264_352x288_nob.h264");
    REQUIRE_FIXTURE(path);
    std::vector<Bytes> units = ReadPackets(path);
    ASSERT_EQ(Korvalen_Init(), 1);
    std::array<Step, 3> order{STOP, CLOSE, FREE};
    int round = 0;
    do {
        for (bool otherThread : {false, true}) {
            SCOPED_TRACE(::testing::Message() << "round " << round << (otherThread ? " from another thread" : ""));
            ++round;
            uint32_t port = 0;
            ASSERT_EQ(Korvalen_AllocPort(&port), 1);
            Watch w;
            ASSERT_EQ(Korvalen_SetDecodeVideoMediaDataCB(port, &OnDecoded, 1, &w), 1);
            ASSERT_EQ(Korvalen_SetDrawMediaDataCB(port, &OnDraw, &w), 1);
            ASSERT_EQ(Korvalen_SetParseVideoDataCB(port, &OnParsed, 1, &w), 1);
            ASSERT_EQ(Korvalen_SetPictureFluency(port, 0), 1);
            ASSERT_EQ(Korvalen_OpenInputStream(port, nullptr, 0, 0), 1);
            ASSERT_EQ(Korvalen_StartPlay(port, 0), 1);
            std::atomic<bool> stopFeed{false};
            std::thread feeder([&] {
                for (size_t i = 0; !stopFeed; ++i) {
                    const Bytes& u = units[i % units.size()];
                    Korvalen_InputMediaData(port, u.data(), static_cast<uint32_t>(u.size()));
                }
            });
            // Let pictures flow before tearing down.
            ASSERT_TRUE(WaitUntil([&] { return w.calls >= 20; }));
            auto teardown = [&] {
                for (Step s : order) {
                    if (s == STOP) {
                        Korvalen_StopPlay(port, 0);
                        continue;
                    }
                    if (s == CLOSE) {
                        Korvalen_CloseInputStream(port);
                    } else {
                        Korvalen_FreePort(port);
                    }
                    // The stream is over: from here on nothing may call back.
                    if (!w.closed.exchange(true)) {
                        EXPECT_EQ(w.running.load(), 0) << "a callback still running after the stream's end returned";
                    }
                }
            };
            if (otherThread) {
                std::thread(teardown).join();
            } else {
                teardown();
            }
            stopFeed = true;
            feeder.join();
            SleepMs(50);
            EXPECT_EQ(w.late.load(), 0);
        }
    } while (std::next_permutation(order.begin(), order.end()));
    Korvalen_Cleanup();
    EXPECT_EQ(QMX_HeapLiveBytes(), 0u);
}
