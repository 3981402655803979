#include <atomic>
#include <chrono>
#include <cstring>
#include <mutex>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "korvalen_types.h"
#include "report/report.h"

namespace {
std::mutex g_lock;
std::vector<KORVALEN_RUN_MSG> g_msgs;
std::atomic<bool> g_block{false};

void OnMsg(const KORVALEN_RUN_MSG* m)
{
    while (g_block) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    std::lock_guard<std::mutex> lock(g_lock);
    g_msgs.push_back(*m);
}

size_t WaitFor(size_t n)
{
    for (int i = 0; i < 500; ++i) {
        {
            std::lock_guard<std::mutex> lock(g_lock);
            if (g_msgs.size() >= n) {
                return g_msgs.size();
            }
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    std::lock_guard<std::mutex> lock(g_lock);
    return g_msgs.size();
}
} // namespace

TEST(Report, DeliversQueuedMessagesInOrderAndRefusesWhenFull)
{
    EXPECT_EQ(Report_Send(1, 14, 515, 0, nullptr), KORVALEN_ERR_INIT) << "not running yet";
    ASSERT_EQ(Report_Init(), KORVALEN_OK);
    Report_SetCallback(&OnMsg);
    ASSERT_EQ(Report_Send(3, kReportStreamEnd, 515, 0, nullptr), KORVALEN_OK);
    ASSERT_EQ(Report_Send(4, kReportPlaybackEnd, 542, 61, "playback done"), KORVALEN_OK);
    ASSERT_EQ(WaitFor(2), 2u);
    {
        std::lock_guard<std::mutex> lock(g_lock);
        EXPECT_EQ(g_msgs[0].port, 3u);
        EXPECT_EQ(g_msgs[0].type, 14u);
        EXPECT_EQ(g_msgs[0].code, 515u);
        EXPECT_EQ(g_msgs[1].value, 61u);
        EXPECT_STREQ(g_msgs[1].data, "playback done");
        EXPECT_EQ(g_msgs[1].data_len, 13u);
        g_msgs.clear();
    }

    // A stalled callback: 255 messages fit, the next is refused.
    g_block = true;
    ASSERT_EQ(Report_Send(0, 1, 1, 0, nullptr), KORVALEN_OK); // may be taken by the thread and stall it
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    int accepted = 0;
    while (Report_Send(0, 1, 2, 0, nullptr) == KORVALEN_OK && accepted < 1000) {
        ++accepted;
    }
    EXPECT_GE(accepted, 254);
    EXPECT_LE(accepted, 255);
    g_block = false;
    EXPECT_EQ(WaitFor(static_cast<size_t>(accepted) + 1), static_cast<size_t>(accepted) + 1);
    Report_SetCallback(nullptr);
    Report_Fini();
    EXPECT_EQ(Report_Send(1, 14, 515, 0, nullptr), KORVALEN_ERR_INIT);
}
