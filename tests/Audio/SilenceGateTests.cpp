#include "Audio/SilenceGate.h"

#include <gtest/gtest.h>

using namespace sorva;

TEST(SilenceGate, ClosesOnTheBlockThatCompletesOneSecondOfZeros)
{
    // 48 kHz, 512-frame blocks: 93 blocks are 47 616 frames, the 94th
    // reaches 48 128 >= 48 000.
    SilenceGate gate;
    for (int block = 1; block <= 93; ++block)
        ASSERT_FALSE(gate.observe(true, 512, 48000)) << "block " << block;
    EXPECT_TRUE(gate.observe(true, 512, 48000));
    EXPECT_TRUE(gate.observe(true, 512, 48000)) << "stays closed while silence lasts";
    EXPECT_TRUE(gate.isGated());

    // Any sound (however small) opens it at once, and the count restarts.
    EXPECT_FALSE(gate.observe(false, 512, 48000));
    for (int block = 1; block <= 93; ++block)
        ASSERT_FALSE(gate.observe(true, 512, 48000)) << "block " << block;
    EXPECT_TRUE(gate.observe(true, 512, 48000));
}

TEST(SilenceGate, ShortSilencesNeverCloseIt)
{
    SilenceGate gate;
    for (int round = 0; round < 100; ++round) {
        for (int block = 0; block < 90; ++block)
            ASSERT_FALSE(gate.observe(true, 512, 48000));
        ASSERT_FALSE(gate.observe(false, 512, 48000));
    }
    // Exactly the limit closes it; one frame fewer does not.
    SilenceGate exact, short1;
    EXPECT_TRUE(exact.observe(true, 48000, 48000));
    EXPECT_FALSE(short1.observe(true, 47999, 48000));
    EXPECT_TRUE(short1.observe(true, 1, 48000));
}
