#include <atomic>
#include <chrono>
#include <thread>

#include <gtest/gtest.h>

#include "log_capture.h"
#include "sdk/sdk_frame.h"

TEST(SdkFrame, PortLockIsReentrantAndSerialisesOtherThreads)
{
    SdkCall outer{"Korvalen_Outer", "Player_Outer"};
    SdkCall inner{"Korvalen_Inner", "Player_Inner"};
    std::atomic<int> phase{0};
    std::atomic<bool> otherRan{false};
    std::thread other;
    int32_t r = SDK_PortCall(5, outer, true, [&] {
        // A callback running under the port's lock calls back into the API
        // on the same port: no deadlock.
        int32_t nested = SDK_PortCall(5, inner, true, [] { return KORVALEN_OK; });
        EXPECT_EQ(nested, 1);
        other = std::thread([&] {
            SDK_PortCall(5, inner, true, [&] {
                otherRan = true;
                return KORVALEN_OK;
            });
        });
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        EXPECT_FALSE(otherRan.load()) << "another thread waits for the port";
        phase = 1;
        return KORVALEN_OK;
    });
    other.join();
    EXPECT_EQ(r, 1);
    EXPECT_TRUE(otherRan.load());

    // Different ports do not wait for each other.
    std::atomic<bool> done{false};
    SDK_PortCall(6, outer, true, [&] {
        std::thread t([&] {
            SDK_PortCall(7, inner, true, [] { return KORVALEN_OK; });
            done = true;
        });
        t.join();
        return KORVALEN_OK;
    });
    EXPECT_TRUE(done.load());
}

TEST(SdkFrame, RefusalsNeverReachTheInnerFunction)
{
    LogCapture log;
    SdkCall c{"Korvalen_Thing", "Player_Thing", SDK_HOT};
    bool called = false;
    auto inner = [&] {
        called = true;
        return KORVALEN_OK;
    };
    SDK_SetLastError(0);
    EXPECT_EQ(SDK_PortCall(4000000000u, c, true, inner), 0);
    EXPECT_EQ(SDK_LastError(), KORVALEN_ERR_PORT);
    EXPECT_TRUE(log.Has("Get Port[-294967296] fail")) << "the port is printed as the signed value it is";
    EXPECT_EQ(SDK_PortCall(3, c, false, inner), 0);
    EXPECT_EQ(SDK_LastError(), KORVALEN_ERR_INVALID_PARAM);
    EXPECT_FALSE(called);
    EXPECT_EQ(log.Count("Call Port[003] Korvalen_Thing fail, invalid param"), 1u);
    EXPECT_EQ(SDK_PortCall(3, c, true, [] { return KORVALEN_ERR_BUFFER_FULL; }), 0);
    EXPECT_EQ(SDK_LastError(), KORVALEN_ERR_BUFFER_FULL);
    EXPECT_TRUE(log.Has("Call Port[003] Korvalen_Thing fail, Player_Thing fail, error(0x104)"));
    EXPECT_EQ(log.Count("Korvalen_Thing Success"), 0u) << "hot calls write no success line";
}
