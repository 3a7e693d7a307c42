#include "Audio/SilenceGate.h"

#include <gtest/gtest.h>

using namespace sorva;

// Block-sized counting (100 × 480 frames) is pinned through the render path; here the boundary and the state.
TEST(SilenceGate, ClosesOnTheFrameThatCompletesOneSecondOfZerosAndOpensOnAnySound)
{
    SilenceGate gate;
    for (int round = 0; round < 2; ++round) {
        EXPECT_FALSE(gate.observe(true, 47999, 48000)) << "round " << round;
        EXPECT_TRUE(gate.observe(true, 1, 48000));
        EXPECT_TRUE(gate.observe(true, 512, 48000));
        EXPECT_TRUE(gate.isGated());
        EXPECT_FALSE(gate.observe(false, 512, 48000)); // the count restarts
        EXPECT_FALSE(gate.isGated());
    }
}
