#include "Audio/SilenceGate.h"

#include <gtest/gtest.h>

using namespace sorva;

TEST(SilenceGate, ClosesOnTheBlockThatCompletesOneSecondOfZerosAndOpensOnAnySound)
{
    // 48 kHz, 512-frame blocks: 93 blocks are 47 616 frames, the 94th reaches 48 128.
    SilenceGate gate;
    for (int round = 0; round < 3; ++round) {
        for (int block = 1; block <= 93; ++block)
            ASSERT_FALSE(gate.observe(true, 512, 48000)) << "round " << round << " block " << block;
        EXPECT_TRUE(gate.observe(true, 512, 48000));
        EXPECT_TRUE(gate.observe(true, 512, 48000));
        EXPECT_TRUE(gate.isGated());
        EXPECT_FALSE(gate.observe(false, 512, 48000)); // the count restarts
        EXPECT_FALSE(gate.isGated());
    }
    SilenceGate exact, short1;
    EXPECT_TRUE(exact.observe(true, 48000, 48000));
    EXPECT_FALSE(short1.observe(true, 47999, 48000));
    EXPECT_TRUE(short1.observe(true, 1, 48000));
}
