#include <gtest/gtest.h>

#include "pipeline/player_pacing.h"

TEST(Pacing, AdjustmentAheadBehindAndSlowStreams)
{
    EXPECT_EQ(Player_PacingAdjust(10, 3, 25), -28); // 400 buffered vs 120 wanted
    EXPECT_EQ(Player_PacingAdjust(0, 3, 25), 12);   // behind by 120: 3 x 4
    EXPECT_EQ(Player_PacingAdjust(0, 3, 4), -250);  // slow and behind: minus a period
    EXPECT_EQ(Player_PacingAdjust(3, 3, 25), 0);
    EXPECT_EQ(Player_PacingAdjust(5, 3, 0), -8); // unknown rate: 40 ms frames
}

TEST(Pacing, DecodeAndRenderWaits)
{
    // Fluency off (and mode 2, stored as off): no waiting at all.
    EXPECT_EQ(Player_DecodeWaitMs(0, 40, 0, 0, 3, 25, false), 0);
    // Normal: the interval less the time already gone, plus the correction.
    EXPECT_EQ(Player_DecodeWaitMs(1, 40, 10, 3, 3, 25, false), 30);
    EXPECT_EQ(Player_DecodeWaitMs(1, 40, 10, 0, 3, 25, false), 42);
    EXPECT_EQ(Player_DecodeWaitMs(1, 40, 10, 0, 3, 25, true), 0) << "the renderer keeps up: no wait";
    EXPECT_EQ(Player_DecodeWaitMs(1, 40, -5, 0, 3, 25, false), 0) << "clock went back";
    EXPECT_EQ(Player_DecodeWaitMs(1, 40, 60, 0, 3, 25, false), 0) << "late already";
    // Low delay halves the target: 1 picture.
    EXPECT_EQ(Player_DecodeWaitMs(3, 40, 0, 10, 3, 25, false), 40 - 36);
    // Smooth: target x 20, correction / 20 with the uneven dead zone.
    EXPECT_EQ(Player_DecodeWaitMs(4, 40, 0, 60, 3, 25, false), 40);       // exactly on target
    EXPECT_EQ(Player_DecodeWaitMs(4, 40, 0, 61, 3, 25, false), 40);       // -4/20 = 0
    EXPECT_EQ(Player_DecodeWaitMs(4, 40, 0, 200, 3, 25, false), 40 - 25); // -560/20 = -28, +3
    EXPECT_EQ(Player_DecodeWaitMs(4, 40, 0, 0, 3, 25, false), 40 + 12);   // +240/20

    EXPECT_EQ(Player_RenderWaitMs(1, 40, 15, 0, 3, 25, 1), 25);
    EXPECT_EQ(Player_RenderWaitMs(1, 40, 15, 0, 3, 25, 0), 35) << "nothing decoded: back off";
    EXPECT_EQ(Player_RenderWaitMs(1, 40, 15, 0, 3, 25, 2), 0) << "a picture waits behind: catch up";
    EXPECT_EQ(Player_RenderWaitMs(3, 40, 15, 0, 3, 25, 1), 0) << "low delay: out as soon as decoded";
    EXPECT_EQ(Player_RenderWaitMs(4, 40, 15, 10, 3, 25, 1), 23) << "ahead in smooth: -2";
    EXPECT_EQ(Player_RenderWaitMs(4, 40, 15, 0, 3, 25, 3), 37) << "smooth mode keeps its pace";
    EXPECT_EQ(Player_RenderWaitMs(1, 40, 50, 0, 3, 25, 1), 0);
}
