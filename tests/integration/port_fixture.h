// The common test fixture: the library started and one port allocated; at
// the end the library is cleaned up and no heap block may be left.
#pragma once

#include <cstdint>
#include <vector>

#include <gtest/gtest.h>

#include "heap/qmx_heap.h"
#include "korvalen.h"
#include "wait_until.h"

struct PortFixture : ::testing::Test {
    uint32_t port = 0;
    void SetUp() override
    {
        ASSERT_EQ(Korvalen_Init(), 1);
        ASSERT_EQ(Korvalen_AllocPort(&port), 1);
    }
    void TearDown() override
    {
        Korvalen_Cleanup();
        EXPECT_EQ(QMX_HeapLiveBytes(), 0u);
    }
    // Pushes every chunk into the port, each accepted, pauseMs apart.
    void PushAll(const std::vector<std::vector<uint8_t>>& chunks, int pauseMs = 0)
    {
        for (const auto& c : chunks) {
            ASSERT_EQ(Korvalen_InputMediaData(port, c.data(), static_cast<uint32_t>(c.size())), 1);
            SleepMs(pauseMs);
        }
    }
};
