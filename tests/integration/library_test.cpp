// Library start-up and clean-up through the C API.
#include <thread>

#include <gtest/gtest.h>

#include "heap/qmx_heap.h"
#include "korvalen.h"
#include "log_capture.h"

TEST(Library, VersionAndNestedInitCounting)
{
    EXPECT_EQ(Korvalen_GetVersion(), 3015938u);
    LogCapture log;
    EXPECT_EQ(Korvalen_GetInitCount(), 0);
    ASSERT_EQ(Korvalen_Init(), 1);
    EXPECT_TRUE(log.Has("Call Korvalen_Init Success, Version: 2.5.0046"));
    ASSERT_EQ(Korvalen_Init(), 1);
    EXPECT_TRUE(log.Has("Call Korvalen_Init warm, Player had been initlized[2]"));
    EXPECT_EQ(log.LevelOf("Call Korvalen_Init warm"), 3u);
    EXPECT_EQ(Korvalen_GetInitCount(), 2);

    // One clean-up keeps everything alive: ports still work.
    Korvalen_Cleanup();
    EXPECT_TRUE(log.Has("Call Korvalen_Cleanup info, Player had been initlized[1]"));
    uint32_t port = 999;
    ASSERT_EQ(Korvalen_AllocPort(&port), 1);
    EXPECT_EQ(Korvalen_SetBufferCtrl(port, 0), 1);

    Korvalen_Cleanup();
    EXPECT_TRUE(log.Has("Call Korvalen_Cleanup Success"));
    EXPECT_EQ(Korvalen_GetInitCount(), 0);
    EXPECT_EQ(QMX_HeapLiveBytes(), 0u) << "the last clean-up frees every port";

    // More clean-ups than inits leave the counter at 0.
    Korvalen_Cleanup();
    Korvalen_Cleanup();
    EXPECT_EQ(Korvalen_GetInitCount(), 0);
    ASSERT_EQ(Korvalen_Init(), 1);
    EXPECT_EQ(Korvalen_GetInitCount(), 1);
    Korvalen_Cleanup();
}

TEST(Library, CallsBeforeInitFailCleanly)
{
    uint32_t port = 7;
    EXPECT_EQ(Korvalen_SetBufferCtrl(3, 1), 0);
    EXPECT_EQ(Korvalen_GetLastError(), KORVALEN_ERR_PORT);
    EXPECT_EQ(Korvalen_SetLog(2, nullptr, 1024), 0);
    Korvalen_FreePort(3);
    EXPECT_EQ(Korvalen_GetPacketQueueStart(3, &port, &port), 0);
    EXPECT_EQ(Korvalen_GetLastError(), KORVALEN_ERR_PORT);
}

TEST(Library, AllocationFailureAtEveryStepOfInitLeaksNothing)
{
    LogCapture log;
    // Walk the allocations of the first init one by one until an init needs
    // no more than we let fail.
    for (uint64_t n = 1; n < 50; ++n) {
        QMX_HeapFailAt(n);
        int32_t r = Korvalen_Init();
        uint64_t made = QMX_HeapAllocCount();
        QMX_HeapFailAt(0);
        if (r == 0) {
            EXPECT_EQ(Korvalen_GetLastError(), KORVALEN_ERR_INIT);
            EXPECT_EQ(Korvalen_GetInitCount(), 0) << "a failed init gives its count back";
            EXPECT_TRUE(log.Has("Call Korvalen_Init failed, Player_Startup failed, error(0x3)"));
        } else {
            uint32_t port = 0;
            EXPECT_EQ(Korvalen_AllocPort(&port), 1) << "after failing allocation " << n;
            Korvalen_Cleanup();
        }
        EXPECT_EQ(QMX_HeapLiveBytes(), 0u) << "failing allocation " << n;
        if (made < n) {
            // This init made fewer allocations than n: every step was tried.
            EXPECT_EQ(r, 1);
            EXPECT_GE(n, 3u) << "the log context and the report queue allocate";
            return;
        }
    }
    FAIL() << "init kept allocating";
}

TEST(Library, LastErrorIsPerThreadAndNotClearedBySuccess)
{
    ASSERT_EQ(Korvalen_Init(), 1);
    uint32_t port = 0;
    ASSERT_EQ(Korvalen_AllocPort(&port), 1);
    EXPECT_EQ(Korvalen_SetBufferCtrl(port, 5), 0);
    EXPECT_EQ(Korvalen_GetLastError(), KORVALEN_ERR_INVALID_PARAM);
    EXPECT_EQ(Korvalen_SetBufferCtrl(port, 1), 1);
    EXPECT_EQ(Korvalen_GetLastError(), KORVALEN_ERR_INVALID_PARAM) << "success does not clear it";

    uint32_t other = 12345;
    std::thread t([&] {
        other = Korvalen_GetLastError();
        Korvalen_SetBufferCtrl(300, 1);
    });
    t.join();
    EXPECT_EQ(other, 0u) << "a new thread starts clean";
    EXPECT_EQ(Korvalen_GetLastError(), KORVALEN_ERR_INVALID_PARAM) << "another thread's failure is its own";
    Korvalen_Cleanup();
}
