#include "Audio/BufferedEQProcessor.h"

#include "Audio/EQLog.h"
#include "Models/EQConfig.h"
#include "Platform/ManualMainExecutor.h"
#include "Platform/Simulated/SimulatedAudioHardware.h"
#include "Platform/Simulated/SimulatedOutputEngine.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <memory>
#include <mutex>

using namespace sorva;
using Call = SimulatedAudioHardware::Call;

namespace {

class LogCapture {
public:
    LogCapture()
    {
        EQLog::setObserver([lines = lines](const std::string& line) {
            std::lock_guard guard(lines->lock);
            lines->text.push_back(line);
        });
    }
    ~LogCapture() { EQLog::setObserver({}); }
    std::vector<std::string> taken()
    {
        std::lock_guard guard(lines->lock);
        return lines->text;
    }
    int count(const std::string& line)
    {
        int n = 0;
        for (const auto& text : taken())
            n += text == line;
        return n;
    }

private:
    struct Lines {
        std::mutex lock;
        std::vector<std::string> text;
    };
    std::shared_ptr<Lines> lines = std::make_shared<Lines>();
};

// A simulated system with one speaker, an executor the test runs by hand, a
// clock the test moves, and a wait that only counts.
struct Rig {
    SimulatedAudioHardware hardware;
    ManualMainExecutor executor;
    SimulatedOutputEngine* output = nullptr;
    std::shared_ptr<std::atomic<uint64_t>> now = std::make_shared<std::atomic<uint64_t>>(1'000'000'000);
    std::vector<std::chrono::nanoseconds> waits;
    AudioObjectID speakers = 0;
    std::unique_ptr<BufferedEQProcessor> processor;
    int callbacks = 0;

    explicit Rig(double latency = 125.0, bool withDevice = true)
    {
        if (withDevice)
            speakers = hardware.addOutputDevice("Speakers", "speakers-uid", 48000.0);
        auto engine = std::make_unique<SimulatedOutputEngine>();
        output = engine.get();
        processor = std::make_unique<BufferedEQProcessor>(
            5, latency, hardware, std::move(engine), executor,
            [this](std::chrono::nanoseconds d) { waits.push_back(d); }, [clock = now] { return clock->load(); });
        processor->onConfigurationChange = [this] { ++callbacks; };
    }
    void start(const std::vector<EQBand>& bands = EQConfig::defaultConfig().bands, double gain = 0)
    {
        processor->start(bands, gain);
    }
    void advanceSeconds(double seconds) { *now += static_cast<uint64_t>(seconds * 1e9); }
    // One capture cycle of interleaved stereo into the aggregate.
    void capture(std::vector<float>& interleaved)
    {
        AudioBuffer in { 2, static_cast<uint32_t>(interleaved.size() * 4), interleaved.data() };
        AudioBufferList input { 1, &in };
        AudioBufferList output { 0, nullptr };
        hardware.runIOCycle(processor->currentAggregateID(), &input, &output);
    }
};

} // namespace

TEST(BufferedEQProcessor, StartBuildsTheCaptureChainAndStopRemovesEverything)
{
    LogCapture log;
    Rig rig;
    rig.start();

    const auto taps = rig.hardware.createdTaps();
    ASSERT_EQ(taps.size(), 1u);
    EXPECT_EQ(taps[0].processSelection, TapDescription::ProcessSelection::stereoGlobalTapButExcludeProcesses);
    EXPECT_EQ(taps[0].processes, std::vector<AudioObjectID> { rig.hardware.ownProcessObject() });
    EXPECT_EQ(taps[0].name, "SORVA System Tap");
    EXPECT_TRUE(taps[0].isPrivate);
    EXPECT_EQ(taps[0].muteBehavior, TapDescription::MuteBehavior::mutedWhenTapped);
    EXPECT_EQ(taps[0].uuid, rig.processor->tapIdentifier());

    const auto aggregates = rig.hardware.createdAggregates();
    ASSERT_EQ(aggregates.size(), 1u);
    const AggregateDescription& aggregate = aggregates[0];
    EXPECT_EQ(aggregate.keys(),
              (std::vector<std::string> { "name", "uid", "private", "stacked", "tapautostart", "subdevices", "taps" }));
    EXPECT_EQ(aggregate.name, "SORVA Capture");
    EXPECT_EQ(aggregate.uid, "com.sorva.app.capture");
    EXPECT_TRUE(aggregate.isPrivate);
    EXPECT_FALSE(aggregate.isStacked);
    EXPECT_TRUE(aggregate.tapAutoStart);
    EXPECT_TRUE(aggregate.subDevices.empty());
    std::string upper = taps[0].uuid;
    for (char& c : upper)
        c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    EXPECT_EQ(aggregate.taps, (std::vector<AggregateDescription::SubTap> { { upper, true } }));

    EXPECT_EQ(rig.hardware.runningIOProcs(), 1u);
    EXPECT_TRUE(rig.output->isRunning());
    ASSERT_NE(rig.output->connectedNode(), nullptr);
    EXPECT_EQ(rig.output->attachedNode(), rig.output->connectedNode());
    EXPECT_EQ(rig.output->connectedFormat(), OutputFormat::planarFloat(48000.0, 2));
    EXPECT_EQ(rig.hardware.liveListeners(), 2u);
    EXPECT_EQ(rig.output->observerCount(), 1u);
    EXPECT_EQ(rig.processor->outputDeviceName, "Speakers");
    EXPECT_EQ(log.count("buffered processor started — Speakers @ 48000.0 Hz, 125 ms buffer"), 1);
    EXPECT_TRUE(rig.waits.empty());

    rig.processor->stop();
    EXPECT_TRUE(rig.hardware.nothingAlive());
    EXPECT_FALSE(rig.output->isRunning());
    EXPECT_EQ(rig.output->observerCount(), 0u);
    EXPECT_EQ(rig.waits, (std::vector<std::chrono::nanoseconds> { std::chrono::milliseconds(150) }));
    EXPECT_EQ(rig.processor->currentListenerDevice(), 0u);

    // Stop again: nothing more happens, no second wait.
    rig.processor->stop();
    EXPECT_EQ(rig.waits.size(), 1u);
    EXPECT_EQ(rig.hardware.callCount(Call::destroyProcessTap), 1);
}

TEST(BufferedEQProcessor, LatencySetsThePrimeAt48kHzWhateverTheTapRate)
{
    EXPECT_EQ(BufferedEQProcessor::primeFrames(125), 6000);
    EXPECT_EQ(BufferedEQProcessor::primeFrames(80.7), 3873);
    EXPECT_EQ(BufferedEQProcessor::primeFrames(0), 0);
    EXPECT_EQ(BufferedEQProcessor::primeFrames(-5), 0);
    EXPECT_EQ(BufferedEQProcessor::primeFrames(NAN), 0);
    EXPECT_EQ(BufferedEQProcessor::primeFrames(5000), BufferedEQProcessor::ringCapacityFrames);

    LogCapture log;
    Rig rig(80.7);
    rig.hardware.setTapSampleRate(44100.0);
    rig.start();
    EXPECT_EQ(log.count("buffered processor started — Speakers @ 44100.0 Hz, 80 ms buffer"), 1);
    EXPECT_EQ(rig.output->connectedFormat(), OutputFormat::planarFloat(44100.0, 2));
    EXPECT_EQ(rig.processor->latencyMilliseconds, 80.7);

    // Nothing is played until 3873 frames are buffered, at any tap rate.
    std::vector<float> block(2 * 3872, 0.5f);
    rig.capture(block);
    ASSERT_EQ(rig.output->render(256), 0);
    EXPECT_EQ(rig.output->lastLeft(), std::vector<float>(256, 0.0f));
    std::vector<float> one(2, 0.5f);
    rig.capture(one);
    ASSERT_EQ(rig.output->render(256), 0);
    EXPECT_NE(rig.output->lastLeft()[255], 0.0f);
}

TEST(BufferedEQProcessor, ATapFormatThatCannotBeReadKeeps48kHz)
{
    Rig rig;
    rig.hardware.setTapSampleRate(44100.0);
    rig.hardware.injectStatus(Call::tapFormat, kAudioHardwareUnspecifiedError);
    rig.start();
    EXPECT_EQ(rig.processor->sampleRate, 48000.0);
    EXPECT_EQ(rig.output->connectedFormat(), OutputFormat::planarFloat(48000.0, 2));
}

TEST(BufferedEQProcessor, EachSetUpFailureIsReportedAndLeavesWhatItShould)
{
    const OSStatus nope = kAudioHardwarePermissionDenied;
    struct Case {
        const char* what;
        std::function<void(Rig&)> arrange;
        std::string call;
        OSStatus status;
    };
    const Case cases[] = {
        { "no device", [](Rig& rig) { rig.hardware.setDefaultOutputDevice(0); }, "No default output device", -1 },
        { "default unreadable", [](Rig& rig) { rig.hardware.injectStatus(Call::defaultOutputDevice, 7); },
          "No default output device", -1 },
        { "own process", [](Rig& rig) { rig.hardware.injectStatus(Call::translatePIDToProcessObject, 9); },
          "TranslatePIDToProcessObject", 9 },
        { "tap refused", [nope](Rig& rig) { rig.hardware.injectStatus(Call::createProcessTap, nope); },
          "AudioHardwareCreateProcessTap", nope },
        { "tap at rate 0", [](Rig& rig) { rig.hardware.setTapSampleRate(0.0); }, "Tap sample rate", -50 },
        { "aggregate", [](Rig& rig) { rig.hardware.injectStatus(Call::createAggregateDevice, 11); },
          "AudioHardwareCreateAggregateDevice", 11 },
        { "io proc", [](Rig& rig) { rig.hardware.injectStatus(Call::createIOProcID, 12); },
          "AudioDeviceCreateIOProcIDWithBlock", 12 },
        { "io proc empty", [](Rig& rig) { rig.hardware.setCreateIOProcLeavesIDEmpty(true); },
          "AudioDeviceCreateIOProcIDWithBlock", 0 },
        { "device start", [](Rig& rig) { rig.hardware.injectStatus(Call::startDevice, 13); }, "AudioDeviceStart", 13 },
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        Rig rig;
        c.arrange(rig);
        try {
            rig.start();
            ADD_FAILURE() << "started";
        } catch (const AudioTapError& error) {
            EXPECT_FALSE(error.isPermissionDenied());
            EXPECT_EQ(error.callName(), c.call);
            EXPECT_EQ(error.status(), c.status);
        }
        EXPECT_TRUE(rig.hardware.nothingAlive());
        EXPECT_FALSE(rig.output->isRunning());
        EXPECT_EQ(rig.output->observerCount(), 0u);
    }

    // The output refusing to start: its own error, and the capture stays
    // until the caller stops.
    Rig rig;
    rig.output->failNextStart(-19, "no such device");
    try {
        rig.start();
        ADD_FAILURE() << "started";
    } catch (const OutputEngineError& error) {
        EXPECT_EQ(error.code(), -19);
        EXPECT_STREQ(error.what(), "no such device");
    }
    EXPECT_EQ(rig.hardware.liveTaps(), 1u);
    EXPECT_EQ(rig.hardware.liveAggregates(), 1u);
    EXPECT_EQ(rig.hardware.runningIOProcs(), 1u);
    EXPECT_EQ(rig.hardware.liveListeners(), 0u);
    rig.processor->stop();
    EXPECT_TRUE(rig.hardware.nothingAlive());
    EXPECT_EQ(rig.waits.size(), 1u);
}

TEST(BufferedEQProcessor, AudioFlowsFromTheTapThroughTheRingToTheOutputEqualized)
{
    // Boost the 500 Hz band and play a 500 Hz tone: in steady state the
    // output must carry the tone at the level an equalizer with the same
    // settings gives it on its own.
    std::vector<EQBand> bands = EQConfig::defaultConfig().bands;
    bands[2].gain = 9.0;
    bands[4].gain = -6.0;
    const double rate = 48000.0;
    const double frequency = 500.0;
    const uint32_t block = 256;

    BiquadEQ reference(5, 2);
    reference.update(bands, 0.0, rate);
    std::vector<float> left(48000), right(48000);
    for (size_t i = 0; i < left.size(); ++i)
        left[i] = right[i] = 0.1f * static_cast<float>(std::sin(2 * M_PI * frequency * static_cast<double>(i) / rate));
    reference.processPlanar(left.data(), right.data(), static_cast<int64_t>(left.size()));
    auto rms = [](const float* samples, size_t count) {
        double sum = 0;
        for (size_t i = 0; i < count; ++i)
            sum += double(samples[i]) * samples[i];
        return std::sqrt(sum / double(count));
    };
    const double expected = rms(left.data() + 24000, 24000);

    Rig rig;
    rig.start(bands, 0.0);
    std::vector<float> captured(2 * block);
    std::vector<float> played;
    uint64_t t = 0;
    for (int cycle = 0; cycle < 400; ++cycle) {
        for (uint32_t i = 0; i < block; ++i, ++t)
            captured[2 * i] = captured[2 * i + 1]
                = 0.1f * static_cast<float>(std::sin(2 * M_PI * frequency * static_cast<double>(t) / rate));
        rig.capture(captured);
        ASSERT_EQ(rig.output->render(block), 0);
        EXPECT_FALSE(rig.output->lastSilenceFlag());
        EXPECT_EQ(rig.output->lastLeft(), rig.output->lastRight());
        played.insert(played.end(), rig.output->lastLeft().begin(), rig.output->lastLeft().end());
    }
    // Primed after 6000 frames, faded in over 7200 more: measure the last
    // half second.
    const double measured = rms(played.data() + played.size() - 24000, 24000);
    EXPECT_NEAR(measured / expected, 1.0, 0.01) << measured << " vs " << expected;
    EXPECT_GT(expected, 0.1 / std::sqrt(2.0) * 1.5); // the boost is really there

    const auto timing = rig.processor->timing.snapshot();
    EXPECT_EQ(timing.callbacks, 400);
    const auto levels = rig.processor->spectrum.levels();
    EXPECT_GT(*std::max_element(levels.begin(), levels.end()), 0.0f);

    // After stop the fade-out has been asked for; the engine renders nothing.
    rig.processor->stop();
    EXPECT_EQ(rig.output->render(block), kAudioHardwareNotRunningError);
}

TEST(BufferedEQProcessor, RenderCallsWithOddBufferListsTouchOnlyWhatTheyShould)
{
    Rig rig;
    BufferedEQProcessor& p = *rig.processor;
    BufferedEQProcessor::RenderContext context { p.ring, p.eq, p.fade, p.spectrum, p.timing };
    std::vector<float> primeBlock(2 * 7000, 0.25f);
    p.ring.write(primeBlock.data(), static_cast<int64_t>(primeBlock.size()));
    p.ring.snapshot();
    p.timing.snapshot();

    // One (interleaved) buffer: untouched, nothing read, nothing timed.
    std::vector<float> interleaved(512, -3.0f);
    AudioBuffer one { 2, 512 * 4, interleaved.data() };
    AudioBufferList oneList { 1, &one };
    EXPECT_EQ(BufferedEQProcessor::renderCycle(context, 256, &oneList), 0);
    EXPECT_EQ(interleaved, std::vector<float>(512, -3.0f));
    // A null channel pointer: the same.
    std::vector<float> l(256, -3.0f);
    AudioBuffer withNull[2] = { { 1, 1024, l.data() }, { 1, 1024, nullptr } };
    AudioBufferList nullList { 2, withNull };
    EXPECT_EQ(BufferedEQProcessor::renderCycle(context, 256, &nullList), 0);
    EXPECT_EQ(l, std::vector<float>(256, -3.0f));
    EXPECT_EQ(BufferedEQProcessor::renderCycle(context, 256, nullptr), 0);
    EXPECT_EQ(p.ring.snapshot().framesRead, 0);
    EXPECT_EQ(p.timing.snapshot().callbacks, 0);

    // Zero frames: everything is called with 0 frames and timing records it.
    std::vector<float> r(256, -3.0f);
    AudioBuffer two[2] = { { 1, 0, l.data() }, { 1, 0, r.data() } };
    AudioBufferList twoList { 2, two };
    EXPECT_EQ(BufferedEQProcessor::renderCycle(context, 0, &twoList), 0);
    EXPECT_EQ(p.ring.snapshot().framesRead, 0);
    EXPECT_EQ(p.timing.snapshot().callbacks, 1);

    // The capture side ignores inputs without a buffer or data.
    const int64_t written = p.ring.snapshot().framesWritten;
    AudioBufferList empty { 0, nullptr };
    BufferedEQProcessor::captureCycle(p.ring, &empty);
    AudioBuffer noData { 2, 1024, nullptr };
    AudioBufferList noDataList { 1, &noData };
    BufferedEQProcessor::captureCycle(p.ring, &noDataList);
    BufferedEQProcessor::captureCycle(p.ring, nullptr);
    EXPECT_EQ(p.ring.snapshot().framesWritten, written);
}

TEST(BufferedEQProcessor, RefreshInPlaceReappliesTheStoredDescription)
{
    LogCapture log;
    Rig rig;
    EXPECT_FALSE(rig.processor->refreshTap());
    rig.start();
    EXPECT_TRUE(rig.processor->refreshTap());
    EXPECT_EQ(rig.hardware.callCount(Call::setTapDescription), 1);
    EXPECT_EQ(rig.hardware.tapDescriptionOf(rig.processor->currentTapID()), rig.processor->currentTapDescription());

    rig.hardware.injectStatus(Call::setTapDescription, 560947818, 1);
    EXPECT_FALSE(rig.processor->refreshTap());
    EXPECT_EQ(log.count("tap refresh failed (OSStatus 560947818)"), 1);
    EXPECT_TRUE(rig.hardware.liveTaps() == 1);

    rig.processor->stop();
    const size_t lines = log.taken().size();
    EXPECT_FALSE(rig.processor->refreshTap());
    EXPECT_EQ(log.taken().size(), lines);
}

TEST(BufferedEQProcessor, ListenersRebuildOnDeviceAndRateChangesAndEngineChangesOnlyAfterSettling)
{
    LogCapture log;
    Rig rig;
    const AudioObjectID headphones = rig.hardware.addOutputDevice("Headphones", "headphones-uid", 48000.0);
    rig.start();
    auto settle = [&] {
        rig.hardware.drainListenerQueues();
        rig.executor.runPending();
    };

    // An engine notification 2 s after start is dropped, even with a new
    // default device (the device listener reports that change itself).
    rig.advanceSeconds(2);
    rig.output->changeConfiguration();
    settle();
    EXPECT_EQ(rig.callbacks, 0);

    // The sample rate: a half-hertz wobble is nothing, 44.1 kHz rebuilds.
    rig.hardware.setNominalSampleRate(rig.speakers, 48000.5);
    settle();
    EXPECT_EQ(rig.callbacks, 0);
    rig.hardware.setNominalSampleRate(rig.speakers, 44100.0);
    settle();
    EXPECT_EQ(rig.callbacks, 1);
    EXPECT_EQ(log.count("output sample rate changed — rebuilding"), 1);
    rig.hardware.setNominalSampleRate(rig.speakers, 48000.0);
    settle();
    rig.callbacks = 0;

    // The default device changes 2 s after start: rebuilt at once.
    rig.hardware.setDefaultOutputDevice(headphones);
    settle();
    EXPECT_EQ(rig.callbacks, 1);
    EXPECT_EQ(log.count("default output device changed — rebuilding"), 1);

    // After the settle time, an engine notification with a new default device
    // rebuilds; without one it does nothing.
    rig.advanceSeconds(2);
    rig.output->changeConfiguration();
    settle();
    EXPECT_EQ(rig.callbacks, 2);
    EXPECT_EQ(log.count("engine configuration changed — rebuilding"), 1);
    rig.hardware.setDefaultOutputDevice(rig.speakers);
    settle();
    rig.output->changeConfiguration();
    settle();
    EXPECT_EQ(rig.callbacks, 2);

    // No output device at all: no handler rebuilds.
    rig.hardware.setDefaultOutputDevice(0);
    rig.output->changeConfiguration();
    settle();
    EXPECT_EQ(rig.callbacks, 2);

    // After stop every handler is gone.
    rig.processor->stop();
    EXPECT_EQ(rig.hardware.liveListeners(), 0u);
    EXPECT_EQ(rig.output->observerCount(), 0u);
    rig.hardware.setDefaultOutputDevice(headphones);
    rig.output->changeConfiguration();
    settle();
    EXPECT_EQ(rig.callbacks, 2);
}

TEST(BufferedEQProcessor, StopWithTheOutputRunningButNoCaptureStillFadesAndWaits)
{
    Rig rig;
    rig.output->start();
    rig.processor->stop();
    EXPECT_EQ(rig.waits.size(), 1u);
    EXPECT_FALSE(rig.output->isRunning());
    Rig idle;
    idle.processor->stop();
    EXPECT_TRUE(idle.waits.empty());
}
