// The single-device render path driven directly, one block at a time, with
// blocks owned by the test so that the gate, statistics and recorder can be
// inspected.
#include "Audio/SystemEQProcessor.h"
#include "Models/EQConfig.h"
#include "Platform/ManualMainExecutor.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <random>

using namespace sorva;

namespace {

std::vector<EQBand> shapedBands()
{
    return { EQBand("Bass", 30, 6), EQBand("Low-Mid", 125, -3), EQBand("Mid", 500, 4), EQBand("High-Mid", 2000, -2),
             EQBand("Treble", 8000, 5) };
}

// The blocks an engine owns, and an identical reference set that the test
// runs by hand in the order the render path must use.
struct Blocks {
    explicit Blocks(ManualMainExecutor& executor)
        : eq(5, 2)
        , recorder(12.0, 2, 48000.0, executor)
    {
    }
    BiquadEQ eq;
    RenderTiming timing;
    StreamStats stats;
    FadeRamp fade;
    SilenceGate gate;
    DiagnosticRecorder recorder;
    SpectrumAnalyzer spectrum;
};

struct RenderPath : ::testing::Test {
    RenderPath()
        : blocks(executor)
        , scratch(SystemEQProcessor::diagnosticScratchCapacity, 0.0f)
    {
        blocks.eq.update(shapedBands(), -1.0, 48000.0);
        referenceEQ.update(shapedBands(), -1.0, 48000.0);
        useContextRate(48000.0);
    }

    // A new context (as a new start builds) whose gate limit is one second at rate.
    void useContextRate(double rate)
    {
        context.reset(new SystemEQProcessor::IOCycleContext { {}, blocks.stats,
                                                              SystemEQProcessor::diagnosticScratchCapacity,
                                                              scratch.data(), blocks.gate, rate, blocks.eq,
                                                              blocks.recorder, blocks.timing, blocks.fade,
                                                              blocks.spectrum });
    }

    void startFades(int64_t frames)
    {
        blocks.fade.start(frames, 1.0f);
        referenceFade.start(frames, 1.0f);
    }

    // Runs one cycle with buffer 0 of each list as given.
    void cycle(std::vector<float>& in, uint32_t inCh, std::vector<float>& out, uint32_t outCh)
    {
        AudioBuffer inBuffer { inCh, static_cast<uint32_t>(in.size() * sizeof(float)), in.data() };
        AudioBuffer outBuffer { outCh, static_cast<uint32_t>(out.size() * sizeof(float)), out.data() };
        AudioBufferList inList { 1, &inBuffer };
        AudioBufferList outList { 1, &outBuffer };
        SystemEQProcessor::processIOCycle(*context, &inList, &outList);
    }

    // What the output must hold: the copied input, equalized and faded by the
    // reference blocks.
    std::vector<float> expected(const std::vector<float>& in, int64_t inCh, int64_t outCh, int64_t frames)
    {
        std::vector<float> copy(static_cast<size_t>(frames * outCh));
        for (int64_t f = 0; f < frames; ++f)
            for (int64_t c = 0; c < outCh; ++c)
                copy[static_cast<size_t>(f * outCh + c)]
                    = inCh == outCh ? in[static_cast<size_t>(f * inCh + c)] : in[static_cast<size_t>(f * inCh)];
        referenceEQ.processInterleaved(copy.data(), frames, outCh);
        referenceFade.apply(copy.data(), frames, outCh);
        return copy;
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
    Blocks blocks;
    std::vector<float> scratch;
    std::unique_ptr<SystemEQProcessor::IOCycleContext> context;
    BiquadEQ referenceEQ { 5, 2 };
    FadeRamp referenceFade;
    std::mt19937 random { 1234 };
};

} // namespace

TEST_F(RenderPath, OutputIsTheEqualizedFadedCopyOfTheInputForEveryChannelLayout)
{
    startFades(7200);
    struct Layout {
        uint32_t inCh, outCh;
    };
    // Same block history through engine and reference, switching layouts
    // mid-stream, with the fade-in still running for the first blocks.
    const Layout layouts[] = { { 2, 2 }, { 1, 2 }, { 2, 1 }, { 2, 2 }, { 4, 2 }, { 1, 3 }, { 2, 2 } };
    int64_t totalFrames = 0;
    float inputPeak = 0.0f;
    for (int round = 0; round < 4; ++round) {
        for (const Layout& layout : layouts) {
            const int64_t frames = 300 + 97 * round;
            auto in = noise(frames * layout.inCh);
            std::vector<float> out(static_cast<size_t>(frames * layout.outCh), 9.0f);
            const auto want = expected(in, layout.inCh, layout.outCh, frames);
            for (int64_t f = 0; f < frames; ++f)
                inputPeak = std::max(inputPeak, std::fabs(in[static_cast<size_t>(f * layout.inCh)]));
            if (layout.inCh == layout.outCh)
                for (float sample : in)
                    inputPeak = std::max(inputPeak, std::fabs(sample));
            cycle(in, layout.inCh, out, layout.outCh);
            ASSERT_EQ(out, want) << "round " << round << ", " << layout.inCh << " -> " << layout.outCh;
            totalFrames += frames;
        }
    }
    // Statistics count the unprocessed copy.
    const auto stats = blocks.stats.snapshot();
    EXPECT_EQ(stats.frames, totalFrames);
    EXPECT_EQ(stats.peak, inputPeak);
    EXPECT_EQ(blocks.timing.snapshot().callbacks, 28);
}

TEST_F(RenderPath, MonoIsSpreadAndExtraChannelsAreDropped)
{
    // Unity path (flat bands, 0 dB) so the copy itself is visible.
    blocks.eq.update(EQConfig::defaultConfig().bands, 0.0, 48000.0);
    std::vector<float> mono { 0.1f, -0.2f, 0.3f };
    std::vector<float> stereoOut(6, 9.0f);
    cycle(mono, 1, stereoOut, 2);
    EXPECT_EQ(stereoOut, (std::vector<float> { 0.1f, 0.1f, -0.2f, -0.2f, 0.3f, 0.3f }));

    std::vector<float> stereo { 0.1f, 0.5f, -0.2f, 0.6f };
    std::vector<float> monoOut(2, 9.0f);
    cycle(stereo, 2, monoOut, 1);
    EXPECT_EQ(monoOut, (std::vector<float> { 0.1f, -0.2f }));
}

TEST_F(RenderPath, WritesOnlyTheCommonFramesOfBufferZero)
{
    blocks.eq.update(EQConfig::defaultConfig().bands, 0.0, 48000.0);
    // Input shorter than output: the tail of the output stays as handed in.
    std::vector<float> in { 0.1f, 0.2f, 0.3f, 0.4f };
    std::vector<float> out(10, 9.0f);
    std::vector<float> second(4, 7.0f);
    AudioBuffer inBuffers[2] = { { 2, 16, in.data() }, { 2, 16, second.data() } };
    AudioBuffer outBuffers[2] = { { 2, 40, out.data() }, { 2, 16, second.data() } };
    AudioBufferList inList { 2, inBuffers };
    AudioBufferList outList { 2, outBuffers };
    SystemEQProcessor::processIOCycle(*context, &inList, &outList);
    EXPECT_EQ(out, (std::vector<float> { 0.1f, 0.2f, 0.3f, 0.4f, 9, 9, 9, 9, 9, 9 }));
    EXPECT_EQ(second, std::vector<float>(4, 7.0f)) << "later buffers are neither read nor written";

    // Output shorter than input: only the output's frames.
    std::vector<float> longIn { 0.1f, 0.2f, 0.3f, 0.4f, 0.5f, 0.6f };
    std::vector<float> shortOut(2, 9.0f);
    cycle(longIn, 2, shortOut, 2);
    EXPECT_EQ(shortOut, (std::vector<float> { 0.1f, 0.2f }));
    EXPECT_EQ(blocks.stats.snapshot().frames, 3);
}

TEST_F(RenderPath, EndsEarlyOnMissingBuffersOrData)
{
    std::vector<float> in(8, 0.5f);
    std::vector<float> out(8, 9.0f);
    AudioBuffer inBuffer { 2, 32, in.data() };
    AudioBuffer outBuffer { 2, 32, out.data() };
    AudioBufferList inList { 1, &inBuffer };
    AudioBufferList outList { 1, &outBuffer };
    AudioBufferList empty { 0, nullptr };
    SystemEQProcessor::processIOCycle(*context, &empty, &outList);
    EXPECT_FALSE(context->layoutLog.hasFired()) << "no buffers: not even the layout line";
    AudioBuffer nullData { 2, 32, nullptr };
    AudioBufferList nullList { 1, &nullData };
    SystemEQProcessor::processIOCycle(*context, &inList, &nullList);
    SystemEQProcessor::processIOCycle(*context, &nullList, &outList);
    AudioBuffer zeroBytes { 2, 0, out.data() };
    AudioBufferList zeroList { 1, &zeroBytes };
    SystemEQProcessor::processIOCycle(*context, &inList, &zeroList);
    EXPECT_TRUE(context->layoutLog.hasFired());
    EXPECT_EQ(out, std::vector<float>(8, 9.0f));
    EXPECT_EQ(blocks.stats.snapshot().frames, 0);
    EXPECT_EQ(blocks.timing.snapshot().callbacks, 0) << "early ends are not timed";
}

TEST_F(RenderPath, GateClosesOnTheBlockThatReachesOneSecondOfZerosAndReopensOnAnyNonZeroSample)
{
    startFades(0); // fade-in of 0 frames: unity from the start
    // Sound first, so that the filters and limiter carry state into the silence.
    for (int block = 0; block < 10; ++block) {
        auto in = noise(480 * 2, 0.8f);
        std::vector<float> out(in.size());
        const auto want = expected(in, 2, 2, 480);
        cycle(in, 2, out, 2);
        ASSERT_EQ(out, want);
    }
    const std::vector<float> zeros(480 * 2, 0.0f);
    // 99 blocks of 480 zeros = 47520 frames: still processed (tails ring out).
    bool tailHeard = false;
    for (int block = 0; block < 99; ++block) {
        auto in = zeros;
        std::vector<float> out(in.size(), 9.0f);
        const auto want = expected(in, 2, 2, 480);
        cycle(in, 2, out, 2);
        ASSERT_EQ(out, want) << "silent block " << block;
        ASSERT_FALSE(blocks.gate.isGated()) << "silent block " << block;
        tailHeard = tailHeard || out != zeros;
    }
    EXPECT_TRUE(tailHeard);
    // The 100th reaches 48000 frames: gated, zeros written, filters cleared.
    auto in = zeros;
    std::vector<float> out(in.size(), 9.0f);
    cycle(in, 2, out, 2);
    EXPECT_TRUE(blocks.gate.isGated());
    EXPECT_EQ(out, zeros);
    // Further silence stays gated (the count saturates at the limit).
    for (int block = 0; block < 150; ++block) {
        in = zeros;
        out.assign(in.size(), 9.0f);
        cycle(in, 2, out, 2);
        ASSERT_EQ(out, zeros);
    }
    EXPECT_TRUE(blocks.gate.isGated());

    // One tiny negative sample reopens at once, processed from cleared state.
    in = zeros;
    in[1] = -1e-30f;
    out.assign(in.size(), 9.0f);
    referenceEQ.reset();
    const auto want = expected(in, 2, 2, 480);
    cycle(in, 2, out, 2);
    EXPECT_FALSE(blocks.gate.isGated());
    EXPECT_EQ(out, want);
}

TEST_F(RenderPath, GatedBlocksNeitherAdvanceTheFadeNorFeedTheSpectrum)
{
    useContextRate(1000.0); // the gate closes after 1000 silent frames
    startFades(1000000);
    SpectrumAnalyzer referenceSpectrum;
    auto runProcessed = [&](std::vector<float> in, int64_t frames) {
        std::vector<float> out(in.size());
        const auto want = expected(in, 2, 2, frames);
        referenceSpectrum.push(want.data(), frames, 2);
        cycle(in, 2, out, 2);
        ASSERT_EQ(out, want);
        ASSERT_FALSE(blocks.gate.isGated());
    };
    runProcessed(noise(1024 * 2, 0.8f), 1024);
    runProcessed(std::vector<float>(512 * 2, 0.0f), 512);
    for (int block = 0; block < 3; ++block) { // 512 + 512 reaches 1000: gated from here on
        std::vector<float> in(512 * 2, 0.0f);
        std::vector<float> out(in.size(), 9.0f);
        cycle(in, 2, out, 2);
        ASSERT_TRUE(blocks.gate.isGated());
        ASSERT_EQ(out, in);
    }
    EXPECT_EQ(blocks.spectrum.levels(), referenceSpectrum.levels());
    // The fade stands where the reference's does (1536 frames in), so sound
    // after the gate continues the same ramp.
    referenceEQ.reset();
    runProcessed(noise(512 * 2), 512);
    EXPECT_EQ(blocks.spectrum.levels(), referenceSpectrum.levels());
}

TEST_F(RenderPath, NaNBlocksAreNotSilent)
{
    const std::vector<float> zeros(480 * 2, 0.0f);
    auto run = [&](std::vector<float> in) {
        std::vector<float> out(in.size());
        cycle(in, 2, out, 2);
    };
    for (int block = 0; block < 99; ++block)
        run(zeros);
    EXPECT_FALSE(blocks.gate.isGated());
    run(std::vector<float>(480 * 2, std::numeric_limits<float>::quiet_NaN()));
    EXPECT_FALSE(blocks.gate.isGated());
    // The NaN block restarted the count: another 99 silent blocks are not enough.
    for (int block = 0; block < 99; ++block)
        run(zeros);
    EXPECT_FALSE(blocks.gate.isGated());
    run(zeros);
    EXPECT_TRUE(blocks.gate.isGated());
}

TEST_F(RenderPath, OutputWithoutChannelsCountsAsSilenceAndIsNeverCaptured)
{
    std::vector<float> in(512 * 2, 0.5f);
    std::vector<float> out(512, 9.0f); // 2048 bytes, 0 channels: 512 "frames" of nothing
    for (int block = 0; block < 93; ++block) // 93 x 512 = 47616 frames
        cycle(in, 2, out, 0);
    EXPECT_FALSE(blocks.gate.isGated());
    cycle(in, 2, out, 0);
    EXPECT_TRUE(blocks.gate.isGated()) << "count 0 is silent: 94 x 512 frames pass one second";
    EXPECT_EQ(out, std::vector<float>(512, 9.0f));
    const auto stats = blocks.stats.snapshot();
    EXPECT_EQ(stats.frames, 94 * 512);
    EXPECT_EQ(stats.peak, 0.0f);
    EXPECT_FALSE(blocks.recorder.markEvent("probe", ::testing::TempDir() + "render-path-none", ""))
        << "nothing was pushed to the recorder";
}

TEST_F(RenderPath, RecorderGetsRawAndProcessedStereoBlocksUpToTheScratchSize)
{
    startFades(0);
    auto in = noise(8192 * 2);
    std::vector<float> out(in.size());
    const auto want = expected(in, 2, 2, 8192);
    cycle(in, 2, out, 2);
    ASSERT_EQ(out, want);
    // One frame more than the scratch holds: processed, not captured.
    auto big = noise(8193 * 2);
    std::vector<float> bigOut(big.size());
    const auto bigWant = expected(big, 2, 2, 8193);
    cycle(big, 2, bigOut, 2);
    ASSERT_EQ(bigOut, bigWant);

    const std::string folder = ::testing::TempDir() + "render-path-capture-" + std::to_string(::getpid());
    const auto files = blocks.recorder.markEvent("probe", folder, "");
    ASSERT_TRUE(files);
    auto readSamples = [](const std::filesystem::path& file) {
        std::vector<float> samples(std::filesystem::file_size(file) / 4 - 11);
        FILE* handle = std::fopen(file.c_str(), "rb");
        std::fseek(handle, 44, SEEK_SET);
        EXPECT_EQ(std::fread(samples.data(), 4, samples.size(), handle), samples.size());
        std::fclose(handle);
        return samples;
    };
    EXPECT_EQ(readSamples(files->raw), in);
    EXPECT_EQ(readSamples(files->processed), out);
    std::filesystem::remove_all(folder);
}

TEST_F(RenderPath, LogsTheLayoutOncePerContext)
{
    std::mutex linesLock;
    std::vector<std::string> lines;
    EQLog::setObserver([&](const std::string& line) {
        std::lock_guard guard(linesLock);
        lines.push_back(line);
    });
    std::vector<float> in(512 * 2, 0.1f);
    std::vector<float> out(512 * 2);
    for (int block = 0; block < 3; ++block)
        cycle(in, 2, out, 2);
    EQLog::setObserver({});
    std::lock_guard guard(linesLock);
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0], "IOProc layout — in 1 buf / 2 ch / 4096 B, out 1 buf / 2 ch / 4096 B");
}
