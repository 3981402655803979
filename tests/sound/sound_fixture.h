// The set-up every sound test shares: a private PulseAudio server (the test
// is skipped where one cannot run), the library started, the library's
// warnings printed when a case fails, and every byte of the heap given back.
#pragma once

#include <cstdio>

#include <gtest/gtest.h>

#include "heap/qmx_heap.h"
#include "korvalen.h"
#include "log_capture.h"
#include "pulse_server.h"
#include "test_env.h"

struct SoundFixture : ::testing::Test {
    PulseServer server;
    LogCapture log;

    // Runs between the server's start and the library's: a test microphone.
    virtual void BeforeInit() {}

    void SetUp() override
    {
        if (!server.Start(TestHome() + "/pulse")) {
            GTEST_SKIP() << "pulseaudio cannot run here";
        }
        BeforeInit();
        if (HasFatalFailure()) {
            return;
        }
        ASSERT_EQ(Korvalen_Init(), 1);
    }
    void TearDown() override
    {
        if (HasFailure()) {
            // What the sound side said, for the failure's record.
            for (const auto& l : log.Lines()) {
                if (l.level >= KORVALEN_LOG_WARN) {
                    std::fprintf(stderr, "log: %s\n", l.text.c_str());
                }
            }
        }
        if (Korvalen_GetInitCount() > 0) {
            Korvalen_Cleanup();
            EXPECT_EQ(QMX_HeapLiveBytes(), 0u);
        }
    }
};
