// The PipeWire output engine (the buffered engine's playback) on a private
// session: it pulls planar stereo for the default sink and follows the sink.
#include "Platform/PipeWire/PipeWireOutputEngine.h"
#include "PipeWire/TestGraph.h"

#include <atomic>
#include <cmath>
#include <thread>

using namespace std::chrono_literals;

namespace sorva::testing {
namespace {

// Renders a 0.25 sine at 1 kHz into every planar buffer it is given.
struct ToneSource {
    std::atomic<int64_t> calls { 0 };
    std::atomic<int64_t> frames { 0 };
    std::atomic<uint32_t> buffersSeen { 0 };
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

using PipeWireOutputEngineTest = GraphTest;

TEST_F(PipeWireOutputEngineTest, PullsPlanarStereoForTheDefaultSinkAndFollowsTheSink)
{
    graph.startRecorder("speakers", 4800);
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

    // Its level on the speakers is pinned by the buffered engine's tests.
    ASSERT_TRUE(TestGraph::waitFor([&] { return tone.frames.load() >= 4800; }));
    EXPECT_EQ(tone.buffersSeen.load(), 2u);
    ASSERT_TRUE(TestGraph::waitFor([&] { return engine.targetNodeID() != 0; }));
    const uint32_t firstSink = engine.targetNodeID();
    EXPECT_EQ(changes.load(), 0);

    // The user picks the other speakers: the session manager moves the
    // stream there and the engine reports it.
    ASSERT_EQ(std::system("pw-metadata -n default 0 default.audio.sink '{\"name\":\"speakers-2\"}' >/dev/null"), 0);
    ASSERT_TRUE(TestGraph::waitFor([&] { return changes.load() > 0; }));
    EXPECT_NE(engine.targetNodeID(), firstSink);
    const int64_t before = tone.frames.load();
    EXPECT_TRUE(TestGraph::waitFor([&] { return tone.frames.load() > before + 4800; })) << "no audio after the move";

    // After stop nothing renders; a removed observer hears nothing; it starts again.
    engine.removeConfigurationObserver(token);
    engine.stop();
    EXPECT_FALSE(engine.isRunning());
    const int64_t calls = tone.calls.load();
    ASSERT_TRUE(graph.waitGraphFrames(4800)) << "the graph runs on without the engine";
    EXPECT_EQ(tone.calls.load(), calls);
    ASSERT_NO_THROW(engine.start());
    EXPECT_TRUE(TestGraph::waitFor([&] { return tone.calls.load() > calls; }));
    engine.stop();
}

} // namespace
} // namespace sorva::testing
