#include "Audio/BlockLevel.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <random>
#include <vector>

using namespace sorva;

// Every length around the vector width, at every alignment, with NaN, infinity,
// negative zero and denormals placed anywhere: the one pass must find the same
// peak and silence as a plain comparison sample by sample, copy exactly the
// block and nothing beyond it, and carry both across scans.
TEST(BlockLevel, PeakSilenceAndCopyMatchTheSampleBySampleDefinition)
{
    const float nan = std::numeric_limits<float>::quiet_NaN(), inf = std::numeric_limits<float>::infinity();
    const float specials[] = { nan, -nan, inf, -inf, -0.0f, 0.0f, 1e-40f, -1e-40f, -0.9f };
    std::mt19937 random(7);
    std::uniform_real_distribution<float> value(-0.5f, 0.5f);
    std::uniform_int_distribution<int> pick(0, 8);
    for (int64_t count = 0; count <= 37; ++count) {
        for (int64_t offset = 0; offset < 4; ++offset) {
            for (int kind = 0; kind < 4; ++kind) { // noise, zeros, zeros with one special, noise with specials
                std::vector<float> source(64, 0.25f);
                float* from = source.data() + offset;
                for (int64_t i = 0; i < count; ++i)
                    from[i] = kind % 2 == 0 ? value(random) : 0.0f;
                if (count > 0 && kind >= 2)
                    for (int n = 0; n < (kind == 2 ? 1 : 3); ++n)
                        from[random() % count] = specials[pick(random)];

                float peak = 0.1f;
                bool silent = true;
                for (int64_t i = 0; i < count; ++i) {
                    peak = std::fabs(from[i]) > peak ? std::fabs(from[i]) : peak;
                    silent = silent && from[i] == 0.0f;
                }
                SCOPED_TRACE("count " + std::to_string(count) + " offset " + std::to_string(offset) + " kind "
                             + std::to_string(kind));

                BlockLevel level;
                level.peak = 0.1f; // an earlier scan's peak carries over
                std::vector<float> target(64, 9.0f);
                level.scan(from, target.data() + 3, count);
                EXPECT_EQ(level.peak, peak);
                EXPECT_EQ(level.silent, silent);
                for (int64_t i = 0; i < 64; ++i) {
                    const bool inside = i >= 3 && i < 3 + count;
                    if (inside && std::isnan(from[i - 3]))
                        EXPECT_TRUE(std::isnan(target[i]));
                    else
                        EXPECT_EQ(target[i], inside ? from[i - 3] : 9.0f) << "sample " << i;
                }

                BlockLevel inPlace; // no copy: the block stays as it was
                const std::vector<float> before = source;
                inPlace.scan(from, from, count);
                inPlace.scan(from, nullptr, count);
                EXPECT_EQ(inPlace.silent, silent);
                EXPECT_EQ(std::memcmp(before.data(), source.data(), source.size() * sizeof(float)), 0);
            }
        }
    }
    BlockLevel level; // a loud block keeps its peak and breaks the silence for good
    const float loud[] = { 0.0f, -0.8f }, quiet[8] = {};
    level.scan(loud, nullptr, 2);
    level.scan(quiet, nullptr, 8);
    EXPECT_EQ(level.peak, 0.8f);
    EXPECT_FALSE(level.silent);
}

TEST(BlockLevel, DisjointOnlyWhenNoSampleIsShared)
{
    float block[16] = {};
    EXPECT_TRUE(BlockLevel::disjoint(block, block + 8, 8));
    EXPECT_TRUE(BlockLevel::disjoint(block + 8, block, 8));
    EXPECT_FALSE(BlockLevel::disjoint(block, block + 7, 8));
    EXPECT_FALSE(BlockLevel::disjoint(block + 7, block, 8));
    EXPECT_FALSE(BlockLevel::disjoint(block, block, 1));
}
