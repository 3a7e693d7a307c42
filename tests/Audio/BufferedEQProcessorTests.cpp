// The buffered engine on the simulated audio system and output: the capture
// chain, refresh, the ring's prime, the output's failure, the render block and
// the listeners. Its tap chain's failures share a table with the single-device
// engine (SystemEQProcessorTests), its callbacks' handling of lists without data
// a test with the single-device render path (RenderPathTests).
#include "Audio/BufferedEQProcessor.h"
#include "EngineTestSupport.h"
#include "Models/EQConfig.h"
#include "Platform/Simulated/SimulatedOutputEngine.h"

#include <gtest/gtest.h>

#include <cmath>
#include <numeric>

using namespace sorva;
using Call = SimulatedAudioHardware::Call;

namespace {

// The engine over the simulated system and output, started with flat bands by start().
struct Rig : SimulatedSystem {
    explicit Rig(double latency = 125.0)
    {
        auto engine = std::make_unique<SimulatedOutputEngine>();
        output = engine.get();
        processor = std::make_unique<BufferedEQProcessor>(5, latency, hardware, std::move(engine), executor,
                                                          recordingWait(), testClock());
        processor->onConfigurationChange = [this] { ++configurationChanges; };
    }
    void start(const std::vector<EQBand>& bands = EQConfig::defaultConfig().bands) { processor->start(bands, 0.0); }
    // One capture cycle of interleaved stereo into the aggregate.
    void capture(std::vector<float>& interleaved)
    {
        OneBuffer input(interleaved, 2);
        AudioBufferList none { 0, nullptr };
        hardware.runIOCycle(processor->currentAggregateID(), &input.list, &none);
    }

    SimulatedOutputEngine* output = nullptr;
    std::unique_ptr<BufferedEQProcessor> processor;
};

} // namespace

TEST(BufferedEQProcessor, StartBuildsTheCaptureChainRefreshReappliesTheTapAndStopRemovesEverythingOnce)
{
    Rig rig;
    rig.start();
    BufferedEQProcessor& p = *rig.processor;
    EXPECT_EQ(rig.hardware.tapDescriptionOf(p.currentTapID()), systemTap(rig.hardware.ownProcessObject(), p.tapIdentifier()));
    // The aggregate holds the tap alone: no main sub-device, no sub-devices.
    const AggregateDescription aggregate { .name = "SORVA Capture", .uid = "com.sorva.app.capture", .isPrivate = true,
                                           .isStacked = false, .tapAutoStart = true, .mainSubDevice = std::nullopt,
                                           .subDevices = {}, .taps = { { uppercase(p.tapIdentifier()), true } } };
    EXPECT_EQ(rig.hardware.aggregateDescriptionOf(p.currentAggregateID()), aggregate);
    EXPECT_EQ(rig.hardware.runningIOProcs() + rig.hardware.liveListeners() + rig.output->observerCount(), 4u);
    EXPECT_TRUE(rig.output->isRunning());
    ASSERT_NE(rig.output->connectedNode(), nullptr);
    EXPECT_EQ(rig.output->attachedNode(), rig.output->connectedNode());
    EXPECT_EQ(rig.output->connectedFormat(), OutputFormat::planarFloat(48000.0, 2));
    EXPECT_EQ(rig.log.count("buffered processor started — Speakers @ 48000.0 Hz, 125 ms buffer"), 1);
    EXPECT_TRUE(rig.waits.empty());
    // Refresh writes the stored description to the running tap; a refusal is logged.
    EXPECT_TRUE(p.refreshTap());
    EXPECT_EQ(rig.hardware.tapDescriptionOf(p.currentTapID()), p.currentTapDescription());
    rig.hardware.injectStatus(Call::setTapDescription, 560947818, 1);
    EXPECT_FALSE(p.refreshTap());
    EXPECT_EQ(rig.log.count("tap refresh failed (OSStatus 560947818)"), 1);

    p.stop();
    p.stop();
    EXPECT_FALSE(p.refreshTap());
    EXPECT_EQ(rig.hardware.callCount(Call::setTapDescription), 2);
    EXPECT_TRUE(rig.hardware.nothingAlive());
    EXPECT_FALSE(rig.output->isRunning() || rig.output->observerCount());
    EXPECT_EQ(rig.waits, (std::vector<std::chrono::nanoseconds> { std::chrono::milliseconds(150) }));
    EXPECT_EQ(rig.hardware.callCount(Call::destroyProcessTap), 1);
}

TEST(BufferedEQProcessor, LatencySetsThePrimeAt48kHzWhateverTheTapRate)
{
    const std::pair<double, int64_t> primes[] = { { 125, 6000 }, { 80.7, 3873 }, { 0, 0 }, { -5, 0 }, { NAN, 0 },
                                                  { 5000, BufferedEQProcessor::ringCapacityFrames } };
    for (const auto& [latency, frames] : primes)
        EXPECT_EQ(BufferedEQProcessor::primeFrames(latency), frames) << latency;

    Rig rig(80.7);
    rig.hardware.setTapSampleRate(44100.0);
    rig.start();
    EXPECT_EQ(rig.log.count("buffered processor started — Speakers @ 44100.0 Hz, 80 ms buffer"), 1);
    EXPECT_EQ(rig.output->connectedFormat(), OutputFormat::planarFloat(44100.0, 2));
    // Nothing is played until 3873 frames are buffered.
    std::vector<float> block(2 * 3872, 0.5f), one(2, 0.5f);
    rig.capture(block);
    ASSERT_EQ(rig.output->render(256), 0);
    EXPECT_EQ(rig.output->lastLeft(), std::vector<float>(256, 0.0f));
    rig.capture(one);
    ASSERT_EQ(rig.output->render(256), 0);
    EXPECT_NE(rig.output->lastLeft()[255], 0.0f);

    Rig unreadable; // a tap format that cannot be read keeps 48 kHz
    unreadable.hardware.setTapSampleRate(44100.0);
    unreadable.hardware.injectStatus(Call::tapFormat, kAudioHardwareUnspecifiedError);
    unreadable.start();
    EXPECT_EQ(unreadable.output->connectedFormat(), OutputFormat::planarFloat(48000.0, 2));
}

// The capture chain's failures are in the single-device engine's tests, which run both engines.
TEST(BufferedEQProcessor, AnOutputThatFailsToStartLeavesTheCaptureForStop)
{
    Rig rig;
    rig.output->failNextStart(-19, "no such device");
    try {
        rig.start();
        ADD_FAILURE() << "started";
    } catch (const OutputEngineError& error) {
        EXPECT_EQ(error.code(), -19);
        EXPECT_STREQ(error.what(), "no such device");
    }
    EXPECT_EQ(rig.hardware.liveTaps() + rig.hardware.liveAggregates() + rig.hardware.runningIOProcs(), 3u);
    EXPECT_EQ(rig.hardware.liveListeners(), 0u);
    rig.processor->stop();
    EXPECT_TRUE(rig.hardware.nothingAlive());
    EXPECT_EQ(rig.waits.size(), 1u);
}

TEST(BufferedEQProcessor, PlaysTheTapThroughTheRingEqualized)
{
    // A 500 Hz tone on the Mid band boosted by 9 dB: in steady state +9 dB, less
    // the makeup gain (12 % of 9 dB) and 0.01 dB from the Treble band's cut.
    std::vector<EQBand> bands = EQConfig::defaultConfig().bands;
    bands[2].gain = 9.0;
    bands[4].gain = -6.0;
    auto tone = [](uint64_t t) { return 0.1f * static_cast<float>(std::sin(2 * M_PI * 500.0 * double(t) / 48000.0)); };
    auto rms = [](const float* samples, size_t count) {
        return std::sqrt(std::inner_product(samples, samples + count, samples, 0.0) / double(count));
    };
    const double expected = 0.1 / std::sqrt(2.0) * std::pow(10.0, (9.0 - 0.12 * 9.0 - 0.01) / 20.0);

    Rig rig;
    rig.start(bands);
    rig.processor->spectrum.setActive(true);
    std::vector<float> captured(2 * 256), played;
    for (uint64_t t = 0; t < 400 * 256;) {
        for (size_t i = 0; i < 256; ++i, ++t)
            captured[2 * i] = captured[2 * i + 1] = tone(t);
        rig.capture(captured);
        ASSERT_EQ(rig.output->render(256), 0);
        EXPECT_FALSE(rig.output->lastSilenceFlag());
        EXPECT_EQ(rig.output->lastLeft(), rig.output->lastRight());
        played.insert(played.end(), rig.output->lastLeft().begin(), rig.output->lastLeft().end());
    }
    // Primed after 6000 frames, faded in over 7200 more: the last half second.
    EXPECT_NEAR(rms(played.data() + played.size() - 24000, 24000) / expected, 1.0, 0.01);
    EXPECT_EQ(rig.processor->timing.snapshot().callbacks, 400);
    const auto levels = rig.processor->spectrum.levels();
    EXPECT_GT(*std::max_element(levels.begin(), levels.end()), 0.0f);
    rig.processor->stop();
    EXPECT_EQ(rig.output->render(256), kAudioHardwareNotRunningError);
}

TEST(BufferedEQProcessor, ListenersRebuildOnDeviceAndRateChangesAndEngineChangesOnlyAfterSettling)
{
    Rig rig;
    rig.start();
    const auto change = [&](AudioObjectID device, bool engine) {
        rig.hardware.setDefaultOutputDevice(device);
        if (engine)
            rig.output->changeConfiguration();
        rig.settle();
        return rig.configurationChanges;
    };
    // An engine notification 2 s after start is dropped, even with a new device.
    rig.now += 2'000'000'000;
    rig.hardware.pauseListenerDelivery();
    rig.hardware.setDefaultOutputDevice(rig.headphones);
    rig.output->changeConfiguration();
    rig.executor.runPending();
    rig.hardware.setDefaultOutputDevice(rig.speakers);
    rig.hardware.resumeListenerDelivery();
    rig.settle();
    EXPECT_EQ(rig.configurationChanges, 0);
    // The shared listeners' rate rules are pinned by the single-device engine's test.
    rig.hardware.setNominalSampleRate(rig.speakers, 44100.0);
    rig.settle();
    EXPECT_EQ(rig.configurationChanges, 1);
    EXPECT_EQ(change(rig.headphones, false), 2) << "a device change 2 s after start rebuilds at once";
    EXPECT_EQ(rig.log.count("default output device changed — rebuilding"), 1);
    // After the settle time an engine notification rebuilds with a new device only.
    rig.now += 2'000'000'000;
    rig.output->changeConfiguration();
    rig.settle();
    EXPECT_EQ(rig.configurationChanges, 3);
    EXPECT_EQ(rig.log.count("engine configuration changed — rebuilding"), 1);
    EXPECT_EQ(change(rig.speakers, true), 3);
    EXPECT_EQ(change(0, true), 3);
    rig.processor->stop(); // every handler is gone
    EXPECT_EQ(change(rig.headphones, true), 3);
}
