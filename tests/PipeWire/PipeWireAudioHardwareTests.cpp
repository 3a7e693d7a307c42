// The PipeWire backend's queries, listeners, process view, test-mode routing,
// capture without an output, refusals and the routing journal.
#include "Platform/PipeWire/PipeWireAudioHardware.h"
#include "Platform/PipeWire/PipeWireOutputEngine.h"
#include "Platform/PipeWire/RoutingJournal.h"
#include "PipeWire/TestGraph.h"

#include <atomic>
#include <cmath>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <numbers>
#include <thread>
#include <unistd.h>

using namespace std::chrono_literals;

namespace sorva::testing {
namespace {

bool run(const std::string& command) { return std::system(command.c_str()) == 0; }

// Ten seconds of a 440 Hz tone at 8000 / 32768, 16-bit stereo WAV, for pw-play.
std::string toneFile(const PrivateSession& session)
{
    const uint32_t frames = 480000, bytes = frames * 4;
    std::vector<int16_t> samples(frames * 2);
    for (uint32_t f = 0; f < frames; ++f)
        samples[2 * f] = samples[2 * f + 1] = static_cast<int16_t>(8000.0 * std::sin(2 * std::numbers::pi * 440.0 * f / 48000.0));
    // RIFF, size, WAVE, "fmt ", 16, PCM + 2 channels, rate, bytes/s, 4 bytes a frame + 16 bits, data, size.
    const uint32_t header[] = { 0x46464952, 36 + bytes, 0x45564157, 0x20746d66, 16, 0x00020001, 48000, 48000 * 4,
                                0x00100004, 0x61746164, bytes };
    std::string path = session.root() + "/tone.wav";
    std::ofstream(path, std::ios::binary)
        .write(reinterpret_cast<const char*>(header), sizeof header)
        .write(reinterpret_cast<const char*>(samples.data()), bytes);
    return path;
}

using PipeWireBackend = GraphTest;

TEST_F(PipeWireBackend, ReportsDevicesAndFiresListenersOnTheirQueueUntilRemoved)
{
    PipeWireAudioHardware hardware;
    ASSERT_TRUE(hardware.isConnected());
    AudioObjectID device = 0;
    ASSERT_EQ(hardware.defaultOutputDevice(device), 0);
    EXPECT_EQ(std::optional<uint32_t>(device), graph.nodeID("speakers"));
    std::string uid, name;
    double rate = 0;
    EXPECT_EQ(hardware.deviceUID(device, uid), 0);
    EXPECT_EQ(hardware.deviceName(device, name), 0);
    EXPECT_EQ(hardware.nominalSampleRate(device, rate), 0);
    EXPECT_EQ(uid + "/" + name + "/" + std::to_string(rate), "speakers/Speakers/48000.000000");
    // Not devices: nothing, a stream-less id, a process object.
    for (AudioObjectID notADevice : { AudioObjectID(0), AudioObjectID(0x7fff), AudioObjectID(0x40000001) }) {
        EXPECT_NE(hardware.deviceUID(notADevice, uid), 0) << notADevice;
        EXPECT_NE(hardware.deviceName(notADevice, name), 0) << notADevice;
    }

    auto queue = std::make_shared<SerialQueue>("com.sorva.app.listeners");
    std::atomic<int> deviceChanges { 0 }, rateChanges { 0 }, offQueue { 0 };
    auto counting = [&](std::atomic<int>& count) {
        return [&] {
            offQueue += queue->isCurrent() ? 0 : 1;
            ++count;
        };
    };
    AudioPropertyListenerRegistration deviceListener, rateListener, unsupported;
    ASSERT_EQ(hardware.addPropertyListener(kAudioObjectSystemObject, { kAudioHardwarePropertyDefaultOutputDevice }, queue,
                                           counting(deviceChanges), deviceListener),
              0);
    ASSERT_EQ(hardware.addPropertyListener(device, { kAudioDevicePropertyNominalSampleRate }, queue,
                                           counting(rateChanges), rateListener),
              0);
    EXPECT_NE(hardware.addPropertyListener(device, { kAudioDevicePropertyBufferFrameSize }, queue, [] {}, unsupported), 0);

    graph.setDefaultSink("speakers-2");
    ASSERT_TRUE(TestGraph::waitFor([&] { return deviceChanges.load() >= 1; }, 3s));
    ASSERT_EQ(hardware.defaultOutputDevice(device), 0);
    EXPECT_EQ(std::optional<uint32_t>(device), graph.nodeID("speakers-2"));
    EXPECT_EQ(rateChanges.load(), 0);
    ASSERT_TRUE(run("pw-metadata -n settings 0 clock.force-rate 44100 >/dev/null"));
    ASSERT_TRUE(TestGraph::waitFor([&] { return rateChanges.load() >= 1; }, 3s));
    EXPECT_EQ(hardware.nominalSampleRate(*graph.nodeID("speakers"), rate), 0);
    EXPECT_EQ(rate, 44100.0);

    EXPECT_EQ(hardware.removePropertyListener(deviceListener), 0);
    EXPECT_EQ(hardware.removePropertyListener(rateListener), 0);
    EXPECT_NE(hardware.removePropertyListener(rateListener), 0);
    graph.setDefaultSink("speakers");
    ASSERT_TRUE(run("pw-metadata -n settings 0 clock.force-rate 0 >/dev/null"));
    ASSERT_TRUE(TestGraph::waitFor([&] { return hardware.defaultOutputDevice(device) == 0 && graph.nodeID("speakers") == device; }, 3s));
    std::this_thread::sleep_for(200ms);
    queue->drain();
    EXPECT_EQ(deviceChanges.load(), 1);
    EXPECT_EQ(rateChanges.load(), 1);
    EXPECT_EQ(offQueue.load(), 0);
}

TEST_F(PipeWireBackend, ListsTheProcessesThatPlayAndWhetherTheyRun)
{
    PipeWireAudioHardware hardware;
    uint32_t size = 1;
    ASSERT_EQ(hardware.processObjectListByteSize(size), 0);
    EXPECT_EQ(size, 0u) << "nothing plays yet";

    ChildProcess player({ "pw-play", toneFile(session) });
    AudioObjectID process = 0;
    uint32_t running = 0;
    ASSERT_EQ(hardware.translatePIDToProcessObject(player.pid(), process), 0);
    ASSERT_NE(process, 0u);
    ASSERT_TRUE(TestGraph::waitFor([&] { return hardware.processIsRunningOutput(process, running) == 0 && running == 1; }, 3s));
    ASSERT_EQ(hardware.processObjectListByteSize(size), 0);
    std::vector<AudioObjectID> processes(size / 4 + 2);
    ASSERT_EQ(hardware.processObjectList(processes), 0);
    EXPECT_EQ(processes, std::vector<AudioObjectID> { process });
    int32_t pid = 0;
    EXPECT_EQ(hardware.processPID(process, pid), 0);
    EXPECT_EQ(pid, player.pid());
    bool listed = false;
    for (auto& application : hardware.runningApplications())
        listed = listed || (application.processIdentifier == player.pid() && application.bundleIdentifier == "pw-cat");
    EXPECT_TRUE(listed);

    player.kill(SIGKILL);
    player.wait(3s);
    ASSERT_TRUE(TestGraph::waitFor([&] { return hardware.processObjectListByteSize(size) == 0 && size == 0; }, 3s));
    EXPECT_EQ(hardware.processIsRunningOutput(process, running), 0);
    EXPECT_EQ(running, 0u);
}

TEST_F(PipeWireBackend, InTestModeRoutesOnlyTheNamedProgram)
{
    graph.startPlayer(std::vector<float>(48000 * 2, 0.0f));
    ChildProcess other({ "pw-play", toneFile(session) });
    ASSERT_TRUE(TestGraph::waitFor([&] { return graph.nodeID("pw-play") && graph.nodeID("sorva_test_player"); }, 3s));
    const uint32_t named = *graph.nodeID("pw-play"), player = *graph.nodeID("sorva_test_player");

    ::setenv("SORVA_TAP_ONLY_BUNDLE_ID", "pw-cat", 1);
    EngineHost host({ SORVA_ENGINE_HOST });
    ::unsetenv("SORVA_TAP_ONLY_BUNDLE_ID");
    ASSERT_TRUE(host.started());
    auto speakers = *graph.nodeID("speakers");
    ASSERT_TRUE(TestGraph::waitFor([&] {
        auto tap = graph.nodeID("sorva_system_tap");
        return tap && graph.linked(named, *tap) && !graph.linked(named, speakers);
    }, 5s));
    std::this_thread::sleep_for(300ms);
    EXPECT_TRUE(graph.linked(player, speakers)) << "only the named program is routed";
    EXPECT_FALSE(graph.linked(player, *graph.nodeID("sorva_system_tap")));
    EXPECT_FALSE(graph.metadata(player, "target.object"));
    EXPECT_TRUE(host.stop());
    EXPECT_FALSE(graph.metadata(named, "target.object"));
}

// A client the access rules restrict is told its permission is missing; one
// they reject fails at once; neither leaves anything routed.
TEST(PipeWireBackendWithoutAccess, RefusedClientsFailClearlyAndRouteNothing)
{
    for (const char* rule : { "--restrict", "--reject" }) {
        SCOPED_TRACE(rule);
        PrivateSession session({ rule, SORVA_ENGINE_HOST });
        ASSERT_TRUE(session.ready());
        TestGraph graph;
        graph.startPlayer(std::vector<float>(48000 * 2, 0.0f));
        ASSERT_TRUE(TestGraph::waitFor([&] { return graph.nodeID("sorva_test_player").has_value(); }, 3s));

        auto started = std::chrono::steady_clock::now();
        ChildProcess host({ SORVA_ENGINE_HOST });
        auto line = host.readLine(15s).value_or("");
        EXPECT_TRUE(std::string(rule) == "--restrict" ? line == "FAILED System audio recording permission not granted"
                                                     : line.starts_with("FAILED "))
            << line;
        EXPECT_LT(std::chrono::steady_clock::now() - started, 2s) << "a refused client is not waited for";
        EXPECT_EQ(host.wait(5s), std::optional<int>(1));
        EXPECT_FALSE(graph.nodeID("sorva_system_tap"));
        EXPECT_FALSE(graph.nodeID("sorva_output"));
        EXPECT_FALSE(graph.metadata(*graph.nodeID("sorva_test_player"), "target.object"));
    }
}

TEST(PipeWireBackendWithoutAccess, WithoutADaemonEveryCallFailsClearly)
{
    auto empty = std::filesystem::temp_directory_path() / ("sorva-no-daemon-" + std::to_string(::getpid()));
    std::filesystem::create_directories(empty);
    ::setenv("XDG_RUNTIME_DIR", empty.c_str(), 1);
    ::unsetenv("PIPEWIRE_REMOTE");
    PipeWireAudioHardware hardware;
    EXPECT_FALSE(hardware.isConnected());
    AudioObjectID device = 7, tap = 0;
    EXPECT_EQ(hardware.defaultOutputDevice(device), kAudioHardwareNotRunningError);
    EXPECT_EQ(device, 7u);
    EXPECT_EQ(hardware.createProcessTap(TapDescription {}, tap), kAudioHardwareNotRunningError);
    EXPECT_TRUE(hardware.runningApplications().empty());

    // The output engine: refused without a node, then without a daemon.
    PipeWireOutputEngine engine;
    const OutputFormat format = *OutputFormat::planarFloat(48000.0, 2);
    for (bool withNode : { false, true }) {
        if (withNode) {
            auto node = std::make_shared<OutputSourceNode>(
                format, [](void*, bool*, const AudioTimeStamp*, uint32_t, AudioBufferList*) noexcept -> OSStatus { return 0; },
                nullptr);
            engine.attach(node);
            engine.connect(node, format);
        }
        try {
            engine.start();
            ADD_FAILURE() << "started " << (withNode ? "without a daemon" : "without a node");
        } catch (const OutputEngineError& error) {
            EXPECT_LT(error.code(), 0);
            const bool noDaemon = std::string(error.what()).find("cannot connect to PipeWire") != std::string::npos;
            EXPECT_TRUE(withNode ? noDaemon : error.code() == -EINVAL) << error.what();
        }
        EXPECT_FALSE(engine.isRunning());
    }
    std::filesystem::remove_all(empty);
}

// The buffered engine's capture device: a tap and no output device. The
// procedure gets the routed program's mix and no output buffers.
struct CaptureCounter {
    std::atomic<uint64_t> frames { 0 };
    std::atomic<uint32_t> outputBuffers { 99 };
    std::atomic<float> peak { 0.0f };

    static void count(void* context, const AudioTimeStamp*, const AudioBufferList* input, const AudioTimeStamp*,
                      AudioBufferList* output, const AudioTimeStamp*) noexcept
    {
        auto* self = static_cast<CaptureCounter*>(context);
        self->outputBuffers = output->mNumberBuffers;
        if (input->mNumberBuffers < 1 || !input->mBuffers[0].mData)
            return;
        const auto* samples = static_cast<const float*>(input->mBuffers[0].mData);
        uint32_t count = input->mBuffers[0].mDataByteSize / 4;
        float peak = self->peak.load();
        for (uint32_t i = 0; i < count; ++i)
            peak = std::max(peak, std::fabs(samples[i]));
        self->peak = peak;
        self->frames += count / 2;
    }
};

TEST_F(PipeWireBackend, CapturesTheSelectedProgramWithoutAnOutputDeviceAndUndoesItOnStop)
{
    ChildProcess player({ "pw-play", toneFile(session) });
    ASSERT_TRUE(TestGraph::waitFor([&] { return graph.nodeID("pw-play").has_value(); }, 3s));
    const uint32_t playerNode = *graph.nodeID("pw-play");
    PipeWireAudioHardware hardware;
    AudioObjectID process = 0, tap = 0, device = 0;
    ASSERT_EQ(hardware.translatePIDToProcessObject(player.pid(), process), 0);
    TapDescription description = TapDescription::stereoMixdownOfProcesses({ process });
    description.uuid = "5e1f0c3a-8d2b-4c6e-9f10-2a3b4c5d6e7f";
    description.name = "SORVA System Tap";
    ASSERT_EQ(hardware.createProcessTap(description, tap), 0);
    AudioStreamBasicDescription format;
    ASSERT_EQ(hardware.tapFormat(tap, format), 0);
    EXPECT_EQ(format.mSampleRate, 48000.0);
    EXPECT_EQ(format.mChannelsPerFrame, 2u);

    AggregateDescription capture;
    capture.name = "SORVA Capture";
    capture.uid = "com.sorva.app.capture";
    capture.taps = { { "5E1F0C3A-8D2B-4C6E-9F10-2A3B4C5D6E7F", true } }; // UUIDs compare without case
    ASSERT_EQ(hardware.createAggregateDevice(capture, device), 0);
    CaptureCounter counter;
    AudioDeviceIOProcID proc = 0, second = 0;
    ASSERT_EQ(hardware.createIOProcID(device, CaptureCounter::count, &counter, proc), 0);
    ASSERT_NE(proc, 0u);
    EXPECT_NE(hardware.createIOProcID(device, CaptureCounter::count, &counter, second), 0) << "one procedure per device";
    EXPECT_NE(hardware.startDevice(device, proc + 1), 0);
    EXPECT_EQ(counter.frames.load(), 0u) << "not called before the device starts";

    ASSERT_EQ(hardware.startDevice(device, proc), 0);
    auto tapNode = graph.nodeID("sorva_system_tap");
    ASSERT_TRUE(tapNode);
    EXPECT_TRUE(TestGraph::waitFor([&] { return graph.linked(playerNode, *tapNode); }, 3s));
    EXPECT_TRUE(TestGraph::waitFor([&] { return counter.frames.load() > 48000 / 2; }, 3s));
    EXPECT_NEAR(counter.peak.load(), 8000.0 / 32768.0, 1e-3) << "the program's tone, as played";
    EXPECT_EQ(counter.outputBuffers.load(), 0u);
    EXPECT_FALSE(graph.nodeID("sorva_output"));

    ASSERT_EQ(hardware.stopDevice(device, proc), 0);
    uint64_t stoppedAt = counter.frames.load();
    EXPECT_FALSE(graph.metadata(playerNode, "target.object"));
    EXPECT_EQ(hardware.destroyIOProcID(device, proc), 0);
    EXPECT_EQ(hardware.destroyAggregateDevice(device), 0);
    EXPECT_NE(hardware.destroyAggregateDevice(device), 0);
    EXPECT_EQ(hardware.destroyProcessTap(tap), 0);
    std::this_thread::sleep_for(100ms);
    EXPECT_EQ(counter.frames.load(), stoppedAt) << "no call after stopDevice returned";
    EXPECT_TRUE(TestGraph::waitFor([&] { return !graph.nodeID("sorva_system_tap"); }, 3s));
    EXPECT_TRUE(TestGraph::waitFor([&] { return graph.linked(playerNode, *graph.nodeID("speakers")); }, 3s));
}

TEST(RoutingJournal, KeepsEveryEntryAcrossReopeningAndSkipsDamagedLines)
{
    auto folder = std::filesystem::temp_directory_path() / ("sorva-journal-" + std::to_string(::getpid()));
    std::filesystem::remove_all(folder);
    RoutingJournal journal(folder / "state" / "routing-journal");
    EXPECT_TRUE(journal.entries().empty());
    RoutingJournal::Entry plain { 41, 97, std::nullopt, std::nullopt };
    RoutingJournal::Entry awkward { 42, 97, RoutingJournal::Value { "Spa:String:JSON", "{\"name\":\"a\tb=c\\\\\n\"}" },
                                    RoutingJournal::Value { "", "55" } };
    std::string error;
    ASSERT_TRUE(journal.append(plain, error)) << error;
    ASSERT_TRUE(journal.append(awkward, error)) << error;
    // A crash in the middle of a line, and a line from elsewhere.
    std::ofstream(journal.path(), std::ios::app) << "route\t43\t97\t-\nroute\t4x\t97\t-\t-\n";
    RoutingJournal reopened(journal.path());
    EXPECT_EQ(reopened.entries(), (std::vector<RoutingJournal::Entry> { plain, awkward }));
    reopened.clear();
    EXPECT_TRUE(reopened.entries().empty());
    EXPECT_FALSE(std::filesystem::exists(journal.path()));

    // An unwritable place is reported, not ignored.
    std::ofstream(folder / "state" / "routing-journal") << "";
    RoutingJournal blocked(folder / "state" / "routing-journal" / "below-a-file");
    EXPECT_FALSE(blocked.append(plain, error));
    EXPECT_FALSE(error.empty());
    std::filesystem::remove_all(folder);
}

} // namespace
} // namespace sorva::testing
