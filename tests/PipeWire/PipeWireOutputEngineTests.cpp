// The PipeWire output engine (the buffered engine's playback) on a private
// session: it pulls planar stereo for the default sink and follows the sink.
// What it plays is the buffered engine's tests' part.
#include "Platform/PipeWire/PipeWireOutputEngine.h"
#include "PipeWire/TestGraph.h"

#include <atomic>
#include <cstring>

namespace sorva::testing {
namespace {

// Renders silence into every planar buffer it is given, and counts.
struct CountingSource {
    std::atomic<int64_t> calls { 0 }, frames { 0 };
    std::atomic<uint32_t> buffersSeen { 0 };

    static OSStatus render(void* context, bool*, const AudioTimeStamp*, uint32_t frameCount,
                           AudioBufferList* output) noexcept
    {
        auto* self = static_cast<CountingSource*>(context);
        self->buffersSeen = output->mNumberBuffers;
        for (uint32_t b = 0; b < output->mNumberBuffers; ++b) {
            if (!output->mBuffers[b].mData || output->mBuffers[b].mDataByteSize < frameCount * 4)
                return -1;
            std::memset(output->mBuffers[b].mData, 0, frameCount * 4);
        }
        self->frames += frameCount;
        ++self->calls;
        return 0;
    }
};

using PipeWireOutputEngineTest = GraphTest;

TEST_F(PipeWireOutputEngineTest, PullsPlanarStereoForTheDefaultSinkAndFollowsTheSink)
{
    graph.startRecorder("speakers", 4800);
    CountingSource source;
    PipeWireOutputEngine engine;
    const OutputFormat format = *OutputFormat::planarFloat(48000.0, 2);
    auto node = std::make_shared<OutputSourceNode>(format, &CountingSource::render, &source);
    engine.attach(node);
    engine.connect(node, format);
    std::atomic<int> changes { 0 };
    const uint64_t token = engine.addConfigurationObserver([&] { ++changes; });
    ASSERT_NO_THROW(engine.start());
    EXPECT_TRUE(engine.isRunning());
    EXPECT_NE(engine.nodeID(), 0u);
    ASSERT_TRUE(TestGraph::waitFor([&] { return source.frames.load() >= 4800; }));
    EXPECT_EQ(source.buffersSeen.load(), 2u);
    ASSERT_TRUE(TestGraph::waitFor([&] { return engine.targetNodeID() != 0; }));
    const uint32_t firstSink = engine.targetNodeID();
    EXPECT_EQ(changes.load(), 0);

    // The user picks the other speakers: the session manager moves the
    // stream there and the engine reports it.
    graph.setDefaultSink("speakers-2");
    ASSERT_TRUE(TestGraph::waitFor([&] { return changes.load() > 0; }));
    EXPECT_NE(engine.targetNodeID(), firstSink);
    const int64_t before = source.frames.load();
    EXPECT_TRUE(TestGraph::waitFor([&] { return source.frames.load() > before + 4800; })) << "no audio after the move";

    // After stop nothing renders; a removed observer hears nothing; it starts again.
    engine.removeConfigurationObserver(token);
    engine.stop();
    EXPECT_FALSE(engine.isRunning());
    const int64_t calls = source.calls.load();
    ASSERT_TRUE(graph.waitGraphFrames(4800)) << "the graph runs on without the engine";
    EXPECT_EQ(source.calls.load(), calls);
    ASSERT_NO_THROW(engine.start());
    EXPECT_TRUE(TestGraph::waitFor([&] { return source.calls.load() > calls; }));
    engine.stop();
}

} // namespace
} // namespace sorva::testing
