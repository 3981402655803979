#include <gtest/gtest.h>

#include "audio/audio_play.h"
#include "audio/audio_port.h"

TEST(AudioVolume, TableBothWaysTruncatesTowardZero)
{
    EXPECT_EQ(Audio_VolumeToHundredthsDb(0), -10000);
    EXPECT_EQ(Audio_VolumeToHundredthsDb(-5), -10000);
    EXPECT_EQ(Audio_VolumeToHundredthsDb(255), 0);
    EXPECT_EQ(Audio_VolumeToHundredthsDb(256), 0);
    EXPECT_EQ(Audio_VolumeToHundredthsDb(4000000000LL), 0);
    EXPECT_EQ(Audio_VolumeToHundredthsDb(128), -598);
    EXPECT_EQ(Audio_VolumeToHundredthsDb(1), -4813);
    EXPECT_EQ(Audio_HundredthsDbToVolume(0), 255);
    for (int v = 1; v < 256; ++v) {
        EXPECT_EQ(Audio_HundredthsDbToVolume(Audio_VolumeToHundredthsDb(v)), v) << "every step survives the round trip";
    }
    EXPECT_EQ(Audio_HundredthsDbToVolume(-10000), 0);
}

TEST(AudioVolume, ChannelChoiceFiltersFramesBySubType)
{
    EXPECT_FALSE(Audio_ChannelKeepsFrame(0, 4));
    EXPECT_TRUE(Audio_ChannelKeepsFrame(0, 0));
    EXPECT_FALSE(Audio_ChannelKeepsFrame(1, 0));
    EXPECT_TRUE(Audio_ChannelKeepsFrame(1, 4));
    EXPECT_FALSE(Audio_ChannelKeepsFrame(2, 5));
    EXPECT_TRUE(Audio_ChannelKeepsFrame(3, 4));
    EXPECT_TRUE(Audio_ChannelKeepsFrame(3, 0));
}
