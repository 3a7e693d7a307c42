// Cost of the equalizer per stereo frame in the live configuration: 512-frame
// blocks at 48 kHz, five non-flat bands, gain stage and limiter. The counter
// "time/frame" is the figure to compare with the real-time budget (20.8 us per
// frame at 48 kHz) and between the stereo kernel and the plain loops.
#include "Audio/BiquadEQ.h"
#include "Models/EQConfig.h"

#include <benchmark/benchmark.h>

#include <random>
#include <vector>

using namespace sorva;

namespace {

constexpr int64_t blockFrames = 512;

std::vector<EQBand> liveBands()
{
    std::vector<EQBand> bands = EQConfig::defaultConfig().bands;
    const double gains[] = { 6, -3, 4, -2, 5 };
    for (size_t i = 0; i < bands.size(); ++i)
        bands[i].gain = gains[i];
    return bands;
}

std::vector<float> noise(size_t count)
{
    std::mt19937 random(1);
    std::uniform_real_distribution<float> level(-0.5f, 0.5f);
    std::vector<float> samples(count);
    for (float& v : samples)
        v = level(random);
    return samples;
}

void reportPerFrame(benchmark::State& state)
{
    const double frames = double(state.iterations()) * double(blockFrames);
    // CPU time per frame (shown in seconds with an SI prefix, e.g. "5.1n").
    state.counters["time/frame"] = benchmark::Counter(frames, benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
    state.SetItemsProcessed(int64_t(frames));
}

// The input is refreshed from a copy every block so that the filter never
// settles into denormals or silence; the copy costs about 0.1 ns per frame.
template <bool fast>
void interleaved(benchmark::State& state)
{
    BiquadEQ eq(5, 2);
    eq.update(liveBands(), 0.0, 48000.0);
    const std::vector<float> source = noise(2 * blockFrames);
    std::vector<float> block(source.size());
    for (auto _ : state) {
        std::copy(source.begin(), source.end(), block.begin());
        if constexpr (fast)
            eq.processInterleaved(block.data(), blockFrames, 2);
        else
            eq.processInterleavedScalar(block.data(), blockFrames, 2);
        benchmark::DoNotOptimize(block.data());
        benchmark::ClobberMemory();
    }
    reportPerFrame(state);
}

template <bool fast>
void planar(benchmark::State& state)
{
    BiquadEQ eq(5, 2);
    eq.update(liveBands(), 0.0, 48000.0);
    const std::vector<float> sourceLeft = noise(blockFrames), sourceRight = noise(2 * blockFrames);
    std::vector<float> left(blockFrames), right(blockFrames);
    for (auto _ : state) {
        std::copy(sourceLeft.begin(), sourceLeft.end(), left.begin());
        std::copy(sourceRight.begin(), sourceRight.begin() + blockFrames, right.begin());
        if constexpr (fast)
            eq.processPlanar(left.data(), right.data(), blockFrames);
        else
            eq.processPlanarScalar(left.data(), right.data(), blockFrames);
        benchmark::DoNotOptimize(left.data());
        benchmark::DoNotOptimize(right.data());
        benchmark::ClobberMemory();
    }
    reportPerFrame(state);
}

// A flat configuration: only the gain stage and the limiter run.
void interleavedFlat(benchmark::State& state)
{
    BiquadEQ eq(5, 2);
    eq.update(EQConfig::defaultConfig().bands, 0.0, 48000.0);
    const std::vector<float> source = noise(2 * blockFrames);
    std::vector<float> block(source.size());
    for (auto _ : state) {
        std::copy(source.begin(), source.end(), block.begin());
        eq.processInterleaved(block.data(), blockFrames, 2);
        benchmark::DoNotOptimize(block.data());
        benchmark::ClobberMemory();
    }
    reportPerFrame(state);
}

} // namespace

BENCHMARK(interleaved<true>)->Name("BiquadEQ/processInterleaved/5bands/512");
BENCHMARK(interleaved<false>)->Name("BiquadEQ/processInterleavedScalar/5bands/512");
BENCHMARK(planar<true>)->Name("BiquadEQ/processPlanar/5bands/512");
BENCHMARK(planar<false>)->Name("BiquadEQ/processPlanarScalar/5bands/512");
BENCHMARK(interleavedFlat)->Name("BiquadEQ/processInterleaved/flat/512");
