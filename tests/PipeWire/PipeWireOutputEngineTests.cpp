#include "Platform/PipeWire/PipeWireOutputEngine.h"

#include "PipeWire/PrivateSession.h"
#include "PipeWire/TestGraph.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cmath>
#include <thread>

using namespace sorva;
using namespace std::chrono_literals;

namespace {

// Renders a 1 kHz tone and counts what was asked of it.
struct ToneSource {
    std::atomic<int64_t> calls { 0 };
    std::atomic<int64_t> frames { 0 };
    std::atomic<uint32_t> buffersSeen { 0 };
    std::atomic<bool> rendering { false };
    double phase = 0;

    static OSStatus render(void* context, bool*, const AudioTimeStamp*, uint32_t frameCount,
                           AudioBufferList* output) noexcept
    {
        auto* self = static_cast<ToneSource*>(context);
        self->buffersSeen = output->mNumberBuffers;
        for (uint32_t b = 0; b < output->mNumberBuffers; ++b) {
            auto* samples = static_cast<float*>(output->mBuffers[b].mData);
            if (!samples || output->mBuffers[b].mDataByteSize < frameCount * 4)
                return -1;
            for (uint32_t i = 0; i < frameCount; ++i)
                samples[i] = 0.25f * static_cast<float>(std::sin(self->phase + 2 * M_PI * 1000.0 * i / 48000.0));
        }
        self->phase = std::fmod(self->phase + 2 * M_PI * 1000.0 * frameCount / 48000.0, 2 * M_PI);
        self->frames += frameCount;
        ++self->calls;
        return 0;
    }
};

template <typename Predicate>
bool waitFor(Predicate predicate, std::chrono::milliseconds timeout)
{
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!predicate()) {
        if (std::chrono::steady_clock::now() > deadline)
            return false;
        std::this_thread::sleep_for(5ms);
    }
    return true;
}

} // namespace

TEST(PipeWireOutputEngine, PlaysPlanarStereoToTheDefaultSinkAndFollowsItWhenItChanges)
{
    sorva::testing::PrivateSession session;
    ASSERT_TRUE(session.ready());

    ToneSource tone;
    PipeWireOutputEngine engine;
    const OutputFormat format = *OutputFormat::planarFloat(48000.0, 2);
    auto node = std::make_shared<OutputSourceNode>(format, &ToneSource::render, &tone);
    engine.attach(node);
    engine.connect(node, format);
    std::atomic<int> changes { 0 };
    const uint64_t token = engine.addConfigurationObserver([&] { ++changes; });

    ASSERT_NO_THROW(engine.start());
    EXPECT_TRUE(engine.isRunning());
    EXPECT_NE(engine.nodeID(), 0u);

    // About real time: a second of audio within a couple of seconds.
    ASSERT_TRUE(waitFor([&] { return tone.frames.load() >= 48000; }, 5000ms)) << tone.frames.load();
    EXPECT_EQ(tone.buffersSeen.load(), 2u);
    ASSERT_TRUE(waitFor([&] { return engine.targetNodeID() != 0; }, 3000ms));
    const uint32_t firstSink = engine.targetNodeID();
    EXPECT_EQ(changes.load(), 0);

    // The user picks the other speakers: the session manager moves our
    // stream there and the engine reports it.
    ASSERT_EQ(std::system(
                  "pw-metadata -n default 0 default.audio.sink '{\"name\":\"speakers-2\"}' >/dev/null"),
              0);
    ASSERT_TRUE(waitFor([&] { return changes.load() > 0; }, 5000ms));
    EXPECT_NE(engine.targetNodeID(), firstSink);
    const int64_t before = tone.frames.load();
    EXPECT_TRUE(waitFor([&] { return tone.frames.load() > before + 4800; }, 3000ms)) << "no audio after the move";

    // After stop nothing renders any more, and a removed observer hears
    // nothing.
    engine.removeConfigurationObserver(token);
    engine.stop();
    EXPECT_FALSE(engine.isRunning());
    const int64_t calls = tone.calls.load();
    std::this_thread::sleep_for(50ms);
    EXPECT_EQ(tone.calls.load(), calls);

    // And it starts again.
    ASSERT_NO_THROW(engine.start());
    EXPECT_TRUE(waitFor([&] { return tone.calls.load() > calls; }, 3000ms));
    engine.stop();
}

TEST(PipeWireOutputEngine, StartFailsClearlyWithoutADaemonOrANode)
{
    PipeWireOutputEngine unconnected;
    try {
        unconnected.start();
        ADD_FAILURE() << "started without a node";
    } catch (const OutputEngineError& error) {
        EXPECT_EQ(error.code(), -EINVAL);
    }

    // A runtime folder with no PipeWire socket in it.
    char folder[] = "/tmp/sorva-no-pw-XXXXXX";
    ASSERT_NE(mkdtemp(folder), nullptr);
    const char* oldRuntime = std::getenv("XDG_RUNTIME_DIR");
    const std::string saved = oldRuntime ? oldRuntime : "";
    setenv("XDG_RUNTIME_DIR", folder, 1);
    unsetenv("PIPEWIRE_REMOTE");

    ToneSource tone;
    PipeWireOutputEngine engine;
    const OutputFormat format = *OutputFormat::planarFloat(48000.0, 2);
    auto node = std::make_shared<OutputSourceNode>(format, &ToneSource::render, &tone);
    engine.attach(node);
    engine.connect(node, format);
    try {
        engine.start();
        ADD_FAILURE() << "started without a daemon";
    } catch (const OutputEngineError& error) {
        EXPECT_LT(error.code(), 0);
        EXPECT_NE(std::string(error.what()).find("cannot connect to PipeWire"), std::string::npos) << error.what();
    }
    EXPECT_FALSE(engine.isRunning());
    engine.stop();
    if (oldRuntime)
        setenv("XDG_RUNTIME_DIR", saved.c_str(), 1);
    else
        unsetenv("XDG_RUNTIME_DIR");
    rmdir(folder);
}

TEST(PipeWireOutputEngine, TheSpeakersReceiveWhatTheNodeRendersAtItsLevel)
{
    sorva::testing::PrivateSession session;
    ASSERT_TRUE(session.ready());
    sorva::testing::TestGraph graph;
    ASSERT_TRUE(graph.connected());
    graph.startRecorder("speakers", 48000 * 2);

    ToneSource tone;
    PipeWireOutputEngine engine;
    const OutputFormat format = *OutputFormat::planarFloat(48000.0, 2);
    auto node = std::make_shared<OutputSourceNode>(format, &ToneSource::render, &tone);
    engine.attach(node);
    engine.connect(node, format);
    ASSERT_NO_THROW(engine.start());
    ASSERT_TRUE(waitFor([&] { return graph.recorded().size() >= 2 * 48000; }, 5000ms));
    engine.stop();
    auto recording = graph.recorded();
    // The last half second: a 0.25 sine has an RMS of 0.25 / sqrt(2) in both
    // channels.
    double sum[2] = { 0, 0 };
    const size_t frames = 24000;
    for (size_t f = recording.size() / 2 - frames; f < recording.size() / 2; ++f)
        for (int c = 0; c < 2; ++c)
            sum[c] += double(recording[2 * f + c]) * recording[2 * f + c];
    for (int c = 0; c < 2; ++c)
        EXPECT_NEAR(std::sqrt(sum[c] / frames), 0.25 / std::sqrt(2.0), 0.002) << "channel " << c;
}
