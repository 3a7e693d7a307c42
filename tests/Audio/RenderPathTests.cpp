// The single-device render path driven directly, block by block, against
// reference blocks run by hand. Stereo blocks go through both layouts the
// device may hand over: one interleaved buffer or two planar ones. Lists
// without data go to the buffered engine's callbacks as well.
#include "Audio/BufferedEQProcessor.h"
#include "Audio/SystemEQProcessor.h"
#include "EngineTestSupport.h"
#include "Models/EQConfig.h"
#include "Platform/ManualMainExecutor.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <random>
#include <tuple>

using namespace sorva;

namespace {

struct RenderPath : ::testing::Test {
    RenderPath()
    {
        const std::vector<EQBand> bands { EQBand("Bass", 30, 6), EQBand("Low-Mid", 125, -3), EQBand("Mid", 500, 4),
                                          EQBand("High-Mid", 2000, -2), EQBand("Treble", 8000, 5) };
        eq.update(bands, -1.0, 48000.0);
        referenceEQ.update(bands, -1.0, 48000.0);
        context.reset(new SystemEQProcessor::IOCycleContext { {}, stats, SystemEQProcessor::diagnosticScratchCapacity,
                                                              scratch.data(), gate, 48000.0, eq, recorder, timing,
                                                              fade, spectrum });
    }

    void startFades(int64_t frames)
    {
        fade.start(frames, 1.0f);
        referenceFade.start(frames, 1.0f);
    }

    // One cycle over interleaved buffers or, planar, over a stereo block split into two one-channel
    // buffers; inPlace hands the same buffers over as input and output, as a device may.
    void cycle(std::vector<float>& in, uint32_t inCh, std::vector<float>& out, uint32_t outCh, bool planar = false,
               bool inPlace = false)
    {
        if (inPlace && !planar) {
            out = in;
            OneBuffer both(out, outCh);
            SystemEQProcessor::processIOCycle(*context, &both.list, &both.list);
            return;
        }
        if (!planar) {
            OneBuffer input(in, inCh), output(out, outCh);
            SystemEQProcessor::processIOCycle(*context, &input.list, &output.list);
            return;
        }
        const size_t frames = in.size() / 2;
        std::vector<float> split(4 * frames); // left in, right in, left out, right out
        for (size_t i = 0; i < 2 * frames; ++i) {
            split[i % 2 * frames + i / 2] = in[i];
            split[(2 + i % 2) * frames + i / 2] = out[i];
        }
        const auto bytes = static_cast<uint32_t>(frames * sizeof(float));
        AudioBuffer inBuffers[2] = { { 1, bytes, &split[0] }, { 1, bytes, &split[frames] } };
        const size_t result = inPlace ? 0 : 2; // the blocks that hold the output
        AudioBuffer outBuffers[2] = { { 1, bytes, &split[result * frames] }, { 1, bytes, &split[(result + 1) * frames] } };
        AudioBufferList inList { 2, inBuffers }, outList { 2, outBuffers };
        SystemEQProcessor::processIOCycle(*context, &inList, &outList);
        for (size_t i = 0; i < 2 * frames; ++i)
            out[i] = split[(result + i % 2) * frames + i / 2];
    }

    // The copied input (mono spread, extra channels dropped), equalized and faded.
    std::vector<float> expected(const std::vector<float>& in, int64_t inCh, int64_t outCh)
    {
        const int64_t frames = static_cast<int64_t>(in.size()) / inCh;
        std::vector<float> copy(static_cast<size_t>(frames * outCh));
        for (int64_t f = 0; f < frames; ++f)
            for (int64_t c = 0; c < outCh; ++c)
                copy[static_cast<size_t>(f * outCh + c)] = in[static_cast<size_t>(f * inCh + (inCh == outCh ? c : 0))];
        for (float sample : copy)
            copyPeak = std::max(copyPeak, std::fabs(sample));
        referenceEQ.processInterleaved(copy.data(), frames, outCh);
        referenceFade.apply(copy.data(), frames, outCh);
        return copy;
    }

    // Runs a block that must come out as the reference's.
    std::vector<float> processed(std::vector<float> in, uint32_t inCh = 2, uint32_t outCh = 2, bool planar = false,
                                 bool inPlace = false)
    {
        const auto want = expected(in, inCh, outCh);
        std::vector<float> out(in.size() / inCh * outCh, 9.0f);
        cycle(in, inCh, out, outCh, planar, inPlace);
        EXPECT_EQ(out, want);
        EXPECT_FALSE(gate.isGated());
        return out;
    }

    std::vector<float> noise(int64_t samples, float amplitude = 0.3f)
    {
        std::uniform_real_distribution<float> value(-amplitude, amplitude);
        std::vector<float> block(static_cast<size_t>(samples));
        for (float& sample : block)
            sample = value(random);
        return block;
    }

    ManualMainExecutor executor;
    BiquadEQ eq { 5, 2 };
    RenderTiming timing;
    StreamStats stats;
    FadeRamp fade;
    SilenceGate gate;
    DiagnosticRecorder recorder { 12.0, 2, 48000.0, executor };
    SpectrumAnalyzer spectrum;
    std::vector<float> scratch = std::vector<float>(SystemEQProcessor::diagnosticScratchCapacity);
    std::unique_ptr<SystemEQProcessor::IOCycleContext> context;
    BiquadEQ referenceEQ { 5, 2 };
    FadeRamp referenceFade;
    std::mt19937 random { 1234 };
    float copyPeak = 0.0f;
};

} // namespace

TEST_F(RenderPath, OutputIsTheEqualizedFadedCopyOfTheInputForEveryChannelLayout)
{
    startFades(7200); // still fading in for the first blocks
    const std::tuple<uint32_t, uint32_t, bool> layouts[] = { { 2, 2, false }, { 1, 2, false }, { 2, 1, false },
                                                             { 2, 2, true },  { 4, 2, false }, { 1, 3, false },
                                                             { 2, 2, true } };
    int64_t totalFrames = 0;
    for (int round = 0; round < 4; ++round) {
        for (const auto& [inCh, outCh, planar] : layouts) {
            const int64_t frames = 300 + 97 * round;
            SCOPED_TRACE(std::to_string(inCh) + " -> " + std::to_string(outCh) + (planar ? " planar" : ""));
            processed(noise(frames * inCh), inCh, outCh, planar);
            totalFrames += frames;
        }
    }
    const auto counted = stats.snapshot();
    EXPECT_EQ(counted.frames, totalFrames);
    EXPECT_EQ(counted.peak, copyPeak) << "statistics count the unprocessed copy";
    EXPECT_EQ(timing.snapshot().callbacks, 28);
}

// Both engines' callbacks, handed lists with nothing to read or write: no list, no buffers, a buffer without
// data or bytes, a channel pair without its right channel (and, for the single-device engine, without bytes).
TEST_F(RenderPath, OnlyTheCommonFramesOfBufferZeroAreCopiedAndListsWithoutDataAreLeftAlone)
{
    eq.update(EQConfig::defaultConfig().bands, 0.0, 48000.0); // unity: the copy itself is visible
    std::vector<float> in { 0.1f, 0.2f, 0.3f, 0.4f }, out(10, 9.0f), second(4, 7.0f);
    AudioBuffer inBuffers[2] = { { 2, 16, in.data() }, { 2, 16, second.data() } };
    AudioBuffer outBuffers[2] = { { 2, 40, out.data() }, { 2, 16, second.data() } };
    AudioBufferList inList { 2, inBuffers }, outList { 2, outBuffers };
    SystemEQProcessor::processIOCycle(*context, &inList, &outList);
    EXPECT_EQ(out, (std::vector<float> { 0.1f, 0.2f, 0.3f, 0.4f, 9, 9, 9, 9, 9, 9 }));
    EXPECT_EQ(second, std::vector<float>(4, 7.0f)) << "later buffers are neither read nor written";
    std::vector<float> longIn { 0.1f, 0.2f, 0.3f, 0.4f, 0.5f, 0.6f }, shortOut(2, 9.0f);
    cycle(longIn, 2, shortOut, 2);
    EXPECT_EQ(shortOut, (std::vector<float> { 0.1f, 0.2f }));
    EXPECT_EQ(stats.snapshot().frames, 3);
    timing.snapshot();

    StereoRingBuffer ring(BufferedEQProcessor::ringCapacityFrames, 0, 8192);
    std::vector<float> buffered(2 * 1000, 0.5f);
    ring.write(buffered.data(), 2 * 1000);
    BufferedEQProcessor::RenderContext render { ring, eq, fade, spectrum, timing };
    out.assign(8, 9.0f);
    OneBuffer valid(out, 2); // one interleaved buffer: not the buffered engine's layout either
    AudioBuffer noData { 2, 32, nullptr }, noBytes { 2, 0, out.data() };
    AudioBuffer rightMissing[2] = { { 1, 0, out.data() }, { 1, 16, nullptr } };
    AudioBufferList none { 0, nullptr }, noDataList { 1, &noData }, noBytesList { 1, &noBytes },
        pair { 2, rightMissing };
    for (AudioBufferList* list : { &none, &noDataList, &noBytesList, &pair, (AudioBufferList*)nullptr }) {
        SystemEQProcessor::processIOCycle(*context, list, &valid.list);
        SystemEQProcessor::processIOCycle(*context, &valid.list, list);
        EXPECT_EQ(BufferedEQProcessor::renderCycle(render, 256, list), 0);
        BufferedEQProcessor::captureCycle(ring, list);
    }
    EXPECT_EQ(BufferedEQProcessor::renderCycle(render, 256, &valid.list), 0);
    EXPECT_EQ(out, std::vector<float>(8, 9.0f));
    EXPECT_EQ(stats.snapshot().frames, 0);
    EXPECT_EQ(timing.snapshot().callbacks, 0);
    const auto ringState = ring.snapshot();
    EXPECT_EQ(std::tuple(ringState.framesWritten, ringState.framesRead), std::tuple(1000, 0));
}

TEST_F(RenderPath, GateClosesOnTheBlockThatReachesOneSecondOfZerosFreezingFadeAndSpectrumUntilAnySample)
{
    startFades(100000); // still ramping throughout
    SpectrumAnalyzer referenceSpectrum;
    spectrum.setActive(true);
    referenceSpectrum.setActive(true);
    auto feed = [&](std::vector<float> in, bool planar) {
        auto out = processed(in, 2, 2, planar);
        referenceSpectrum.push(out.data(), int64_t(out.size() / 2), 2);
        return out;
    };
    const std::vector<float> zeros(480 * 2, 0.0f);
    auto nan = zeros;
    nan[5] = std::numeric_limits<float>::quiet_NaN();
    for (bool planar : { true, false }) { // a NaN is no silence: it restarts the count
        for (int block = 0; block < 60; ++block)
            feed(zeros, block % 2);
        feed(nan, planar);
    }
    for (int block = 0; block < 10; ++block) // sound: the filters carry state into the silence
        feed(noise(480 * 2, 0.8f), block % 2);
    bool tailHeard = false;
    for (int block = 0; block < 99; ++block) // 47520 frames: still processed, the tails ring out
        tailHeard = feed(zeros, block % 2) != zeros || tailHeard;
    EXPECT_TRUE(tailHeard);
    for (bool planar : { false, true }) { // the 100th reaches 48000 frames: swallowed
        std::vector<float> in = zeros, out(in.size(), 9.0f);
        cycle(in, 2, out, 2, planar);
        EXPECT_TRUE(gate.isGated());
        EXPECT_EQ(out, zeros);
    }
    EXPECT_EQ(spectrum.levels(), referenceSpectrum.levels());
    referenceEQ.reset(); // gating cleared the filters; the ramp continues where it stood
    auto tiny = zeros;
    tiny[1] = -1e-30f;
    feed(tiny, false);
    feed(noise(480 * 2), true);
    EXPECT_EQ(spectrum.levels(), referenceSpectrum.levels());
}

TEST_F(RenderPath, RecorderGetsRawAndProcessedStereoBlocksUpToTheScratchSize)
{
    // Both layouts, with separate input and output buffers and then in place (where the raw side
    // must be saved before the equalizer overwrites it); blocks one frame longer than the scratch
    // are not captured.
    std::vector<float> in, out;
    for (bool inPlace : { false, true }) {
        for (bool planar : { false, true }) {
            const auto block = noise(4096 * 2);
            const auto result = processed(block, 2, 2, planar, inPlace);
            in.insert(in.end(), block.begin(), block.end());
            out.insert(out.end(), result.begin(), result.end());
        }
    }
    for (bool planar : { false, true })
        processed(noise(8193 * 2), 2, 2, planar);

    const LogFolder folder;
    const auto files = recorder.markEvent("probe", folder.path, "");
    ASSERT_TRUE(files);
    EXPECT_EQ(wavSamples(readText(files->raw)), in);
    EXPECT_EQ(wavSamples(readText(files->processed)), out);
}
