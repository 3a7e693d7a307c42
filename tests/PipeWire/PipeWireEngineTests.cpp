// The single-device engine (in a child process) on a private PipeWire session:
// the test's player stands for every other program, the recorder for the
// speakers. The equalizer's arithmetic is the simulated-hardware tests' part;
// here what only a real graph shows: routing, its repair, the graph's quantum,
// devices and rates.
#include "PipeWire/TestGraph.h"

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <iostream>

namespace sorva::testing {
namespace {

const std::vector<float> silence(48000 * 2, 0.0f);

using PipeWireEngine = GraphTest;

// The 2 kHz band at -24 dB takes a 2 kHz tone down by 24 dB: an unprocessed
// copy leaking through, or SORVA's output fed back into its tap, would not.
TEST_F(PipeWireEngine, EqualizesAnotherProgramLeaksNothingAndLeavesTheDefaultDevicesAlone)
{
    EngineHost host({ "--gains", "0,0,0,-24,0" });
    ASSERT_TRUE(host.started());
    const auto signal = tone(48000, 2000.0, 0.25f);
    graph.startRecorder("speakers", 48000 * 3);
    graph.startPlayer(signal);
    ASSERT_TRUE(playerRoutedToTap(graph));
    ASSERT_TRUE(graph.waitGraphFrames(14400)); // the 150 ms fade-in plays out on silence
    EXPECT_NEAR(levelDB(playAndRecord(graph), signal), -24.0, 0.2);
    // The user's default devices stay what they were.
    EXPECT_EQ(graph.metadata(0, "default.audio.sink"), std::optional<std::string>("{\"name\":\"speakers\"}"));
    EXPECT_EQ(graph.metadata(0, "default.audio.source").value_or("").find("sorva"), std::string::npos);
    EXPECT_TRUE(host.stop());
}

TEST_F(PipeWireEngine, AddsNoLatencyToTheDirectPath)
{
    graph.startRecorder("speakers", 48000 * 3);
    graph.startPlayer(impulseSignal());
    ASSERT_TRUE(playerPlaysDirectly(graph));
    ASSERT_TRUE(graph.waitGraphFrames(9600));
    auto direct = graph.impulseDelay();
    ASSERT_TRUE(direct);
    graph.stopPlayer();

    EngineHost host;
    ASSERT_TRUE(host.started());
    graph.startPlayer(impulseSignal());
    ASSERT_TRUE(playerRoutedToTap(graph));
    ASSERT_TRUE(graph.waitGraphFrames(14400));
    auto throughSORVA = graph.impulseDelay();
    ASSERT_TRUE(throughSORVA);
    EXPECT_EQ(*throughSORVA, *direct);
    std::cout << "[ latency  ] direct path " << *direct << " frames, through SORVA " << *throughSORVA << " frames\n";
    EXPECT_TRUE(host.stop());
}

TEST_F(PipeWireEngine, StopAndTheNextStartAfterACrashRestoreTheRouting)
{
    const auto signal = tone(48000, 1000.0, 0.25f);
    graph.startRecorder("speakers", 48000 * 3);
    graph.startPlayer(signal);
    std::optional<uint32_t> player;
    ASSERT_TRUE(TestGraph::waitFor([&] { return (player = graph.nodeID("sorva_test_player")).has_value(); }));
    // The user had sent this program to the speakers by name.
    graph.setMetadata(*player, "target.object", "", "speakers");
    auto target = [&] { return graph.metadata(*player, "target.object"); };
    ASSERT_TRUE(TestGraph::waitFor([&] { return target() == "speakers"; }));
    const auto journal = std::filesystem::path(session.stateHome()) / "sorva" / "routing-journal";

    for (bool crash : { false, true }) {
        SCOPED_TRACE(crash ? "killed" : "stopped");
        EngineHost host;
        ASSERT_TRUE(host.started());
        ASSERT_TRUE(playerRoutedToTap(graph));
        EXPECT_TRUE(TestGraph::waitFor([&] { return target() == "sorva_system_tap"; })) << target().value_or("(none)");
        EXPECT_TRUE(std::filesystem::exists(journal));
        if (crash) {
            host.process.kill(SIGKILL);
            ASSERT_TRUE(host.process.wait(TestGraph::eventTimeout));
            ASSERT_TRUE(TestGraph::waitFor([&] { return !graph.nodeID("sorva_system_tap"); }));
            EXPECT_NE(target(), "speakers");
            EXPECT_TRUE(std::filesystem::exists(journal));
            break;
        }
        ASSERT_TRUE(host.stop());
        EXPECT_FALSE(std::filesystem::exists(journal));
        EXPECT_TRUE(TestGraph::waitFor([&] { return target() == "speakers"; })) << target().value_or("(none)");
        ASSERT_TRUE(playerPlaysDirectly(graph));
        EXPECT_TRUE(TestGraph::waitFor([&] { return !graph.nodeID("sorva_output"); }));
        EXPECT_NEAR(levelDB(playAndRecord(graph), signal), 0.0, 0.2) << "after stop the program sounds as it plays";
    }
    // Unrepaired, the next engine would take the dead tap for the user's target.
    EngineHost nextStart;
    ASSERT_TRUE(nextStart.started());
    ASSERT_TRUE(nextStart.stop());
    EXPECT_TRUE(TestGraph::waitFor([&] { return target() == "speakers"; })) << target().value_or("(none)");
    EXPECT_FALSE(std::filesystem::exists(journal));
}

// Another filter (a loopback: two streams in one link group) stays where it
// plays, and a stream the user moves away from the tap stays where the user
// put it, during and after the run.
TEST_F(PipeWireEngine, LeavesOtherFiltersAndStreamsTheUserMovedWhereTheyPlay)
{
    graph.startRecorder("speakers", 4800);
    ChildProcess loopback({ "pw-loopback", "--playback-props", "node.name=test_loopback_out" });
    graph.startPlayer(silence);
    ASSERT_TRUE(TestGraph::waitFor([&] { return graph.linked("test_loopback_out", "speakers"); }));
    EngineHost host;
    ASSERT_TRUE(host.started());
    ASSERT_TRUE(playerRoutedToTap(graph));
    const auto player = *graph.nodeID("sorva_test_player");
    const auto serial = std::to_string(*graph.nodeSerial("speakers-2"));
    graph.setMetadata(player, "target.object", "Spa:Id", serial);
    ASSERT_TRUE(TestGraph::waitFor([&] { return graph.linked("sorva_test_player", "speakers-2"); }));
    ASSERT_TRUE(graph.waitGraphFrames(14400)); // time for a wrong move or a pull back to show
    EXPECT_FALSE(graph.linked("test_loopback_out", "sorva_system_tap"));
    EXPECT_FALSE(graph.metadata(*graph.nodeID("test_loopback_out"), "target.object"));
    EXPECT_FALSE(graph.linked("sorva_test_player", "sorva_system_tap")) << "not routed back";
    EXPECT_FALSE(graph.linked("sorva_test_player", "sorva_output")) << "heard twice: directly and equalized";

    ASSERT_TRUE(host.stop());
    ASSERT_TRUE(graph.waitGraphFrames(14400));
    EXPECT_EQ(graph.metadata(player, "target.object"), serial);
    EXPECT_TRUE(graph.linked("sorva_test_player", "speakers-2"));
}

// Devices whose playback ports are not front left and right (a mono speaker,
// an interface that numbers its channels) get the program through SORVA at
// flat gains as loud as they get it directly: not silence, not left and
// right added up, and nothing directly besides.
TEST_F(PipeWireEngine, PlaysOnDevicesWithoutFrontLeftAndRightChannels)
{
    const auto signal = tone(48000, 1000.0, 0.25f);
    for (std::string layout : { "MONO", "AUX0 AUX1" }) {
        SCOPED_TRACE(layout);
        const std::string name = layout == "MONO" ? "mono-speaker" : "numbered-speakers";
        const std::string create = "pw-cli create-node adapter '{ factory.name=support.null-audio-sink node.name="
            + name + " media.class=Audio/Sink audio.position=[ " + layout + " ] object.linger=true }' >/dev/null";
        ASSERT_EQ(std::system(create.c_str()), 0);
        ASSERT_TRUE(TestGraph::waitFor([&] { return graph.nodeID(name).has_value(); }));
        graph.setDefaultSink(name);
        ASSERT_TRUE(TestGraph::waitFor([&] {
            return graph.metadata(0, "default.audio.sink").value_or("").find(name) != std::string::npos;
        }));
        graph.startRecorder(name, 48000 * 3);
        graph.startPlayer(signal);
        ASSERT_TRUE(TestGraph::waitFor([&] { return graph.linked("sorva_test_player", name); }));
        const double direct = levelDB(playAndRecord(graph), signal);
        // A fresh player (the first has played its signal), set up on the
        // device as the first was: the session manager gives a program the
        // layout of the device it first plays on, and mixes it down itself.
        graph.stopPlayer();
        graph.startPlayer(signal);
        ASSERT_TRUE(TestGraph::waitFor([&] { return graph.linked("sorva_test_player", name); }));

        EngineHost host({ "--gains", "0,0,0,0,0" });
        ASSERT_TRUE(host.started());
        ASSERT_TRUE(TestGraph::waitFor([&] {
            return graph.linked("sorva_test_player", "sorva_system_tap") && graph.linked("sorva_output", name)
                && !graph.linked("sorva_test_player", name);
        }));
        ASSERT_TRUE(graph.waitGraphFrames(14400)); // the fade-in plays out
        EXPECT_NEAR(levelDB(playAndRecord(graph), signal), direct, 0.5);
        EXPECT_TRUE(host.stop());
        graph.stopPlayer();
        graph.stopRecorder();
    }
}

TEST_F(PipeWireEngine, RebuildsOnTheNewDefaultDeviceAndOnARateChange)
{
    graph.startRecorder("speakers", 4800);
    graph.startPlayer(silence);
    EngineHost host;
    ASSERT_TRUE(host.started());
    ASSERT_TRUE(playerRoutedToTap(graph));
    // The engine drops device changes in the first 3 s after its start; the
    // graph's time passes no faster than the wall clock's.
    ASSERT_TRUE(graph.waitGraphFrames(48000 * 7 / 2));

    graph.setDefaultSink("speakers-2");
    EXPECT_EQ(host.process.readLine(TestGraph::eventTimeout), "REBUILT Second Speakers 48000.000000");
    EXPECT_TRUE(TestGraph::waitFor([&] { return graph.linked("sorva_output", "speakers-2"); }));
    EXPECT_TRUE(playerRoutedToTap(graph)) << "the rebuilt engine routes the program again";

    ASSERT_EQ(std::system("pw-metadata -n settings 0 clock.force-rate 44100 >/dev/null"), 0);
    EXPECT_EQ(host.process.readLine(TestGraph::eventTimeout), "REBUILT Second Speakers 44100.000000");
    EXPECT_TRUE(host.stop());
}

} // namespace
} // namespace sorva::testing
