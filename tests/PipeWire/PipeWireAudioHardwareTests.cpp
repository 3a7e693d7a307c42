// The PipeWire backend's queries, listeners, process view, test-mode routing
// and refusals, each test in a private session of its own.
#include "Platform/PipeWire/PipeWireAudioHardware.h"
#include "Platform/PipeWire/RoutingJournal.h"
#include "PipeWire/ChildProcess.h"
#include "PipeWire/PrivateSession.h"
#include "PipeWire/TestGraph.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <thread>
#include <unistd.h>

using namespace std::chrono_literals;

namespace sorva::testing {
namespace {

bool run(const std::string& command) { return std::system(command.c_str()) == 0; }

// A 16-bit stereo WAV file of a 440 Hz tone at 48 kHz, for pw-play.
std::string toneFile(const PrivateSession& session, int seconds)
{
    std::string path = session.root() + "/tone.wav";
    FILE* file = std::fopen(path.c_str(), "wb");
    auto put32 = [&](uint32_t v) { std::fwrite(&v, 4, 1, file); };
    auto put16 = [&](uint16_t v) { std::fwrite(&v, 2, 1, file); };
    const uint32_t frames = 48000u * static_cast<uint32_t>(seconds);
    std::fwrite("RIFF", 1, 4, file);
    put32(36 + frames * 4);
    std::fwrite("WAVEfmt ", 1, 8, file);
    put32(16);
    put16(1);
    put16(2);
    put32(48000);
    put32(48000 * 4);
    put16(4);
    put16(16);
    std::fwrite("data", 1, 4, file);
    put32(frames * 4);
    for (uint32_t f = 0; f < frames; ++f) {
        auto v = static_cast<int16_t>(8000.0 * std::sin(2.0 * 3.141592653589793 * 440.0 * f / 48000.0));
        put16(static_cast<uint16_t>(v));
        put16(static_cast<uint16_t>(v));
    }
    std::fclose(file);
    return path;
}

TEST(PipeWireAudioHardware, ReportsDevicesAndFiresListenersOnTheirQueueUntilRemoved)
{
    PrivateSession session;
    ASSERT_TRUE(session.ready());
    TestGraph graph;
    PipeWireAudioHardware hardware;
    ASSERT_TRUE(hardware.isConnected());

    AudioObjectID device = 0;
    ASSERT_EQ(hardware.defaultOutputDevice(device), 0);
    EXPECT_EQ(std::optional<uint32_t>(device), graph.nodeID("speakers"));
    std::string uid, name;
    EXPECT_EQ(hardware.deviceUID(device, uid), 0);
    EXPECT_EQ(uid, "speakers");
    EXPECT_EQ(hardware.deviceName(device, name), 0);
    EXPECT_EQ(name, "Speakers");
    double rate = 0;
    EXPECT_EQ(hardware.nominalSampleRate(device, rate), 0);
    EXPECT_EQ(rate, 48000.0);
    // Not devices: nothing, a stream-less id, a process object.
    for (AudioObjectID notADevice : { AudioObjectID(0), AudioObjectID(0x7fff), AudioObjectID(0x40000001) }) {
        EXPECT_NE(hardware.deviceUID(notADevice, uid), 0) << notADevice;
        EXPECT_NE(hardware.deviceName(notADevice, name), 0) << notADevice;
    }

    auto queue = std::make_shared<SerialQueue>("com.sorva.app.listeners");
    std::atomic<int> deviceChanges { 0 }, rateChanges { 0 }, offQueue { 0 };
    AudioPropertyListenerRegistration deviceListener, rateListener;
    ASSERT_EQ(hardware.addPropertyListener(kAudioObjectSystemObject, { kAudioHardwarePropertyDefaultOutputDevice },
                                           queue,
                                           [&] {
                                               offQueue += queue->isCurrent() ? 0 : 1;
                                               ++deviceChanges;
                                           },
                                           deviceListener),
              0);
    ASSERT_EQ(hardware.addPropertyListener(device, { kAudioDevicePropertyNominalSampleRate }, queue,
                                           [&] {
                                               offQueue += queue->isCurrent() ? 0 : 1;
                                               ++rateChanges;
                                           },
                                           rateListener),
              0);
    AudioPropertyListenerRegistration unsupported;
    EXPECT_NE(hardware.addPropertyListener(device, { kAudioDevicePropertyBufferFrameSize }, queue, [] {}, unsupported), 0);

    // The user picks the second speakers.
    graph.setMetadata(0, "default.configured.audio.sink", "Spa:String:JSON", "{ \"name\": \"speakers-2\" }");
    ASSERT_TRUE(TestGraph::waitFor([&] { return deviceChanges.load() >= 1; }, 3s));
    ASSERT_EQ(hardware.defaultOutputDevice(device), 0);
    EXPECT_EQ(std::optional<uint32_t>(device), graph.nodeID("speakers-2"));
    EXPECT_EQ(rateChanges.load(), 0);

    // The graph is forced to 44.1 kHz.
    ASSERT_TRUE(run("pw-metadata -n settings 0 clock.force-rate 44100 >/dev/null"));
    ASSERT_TRUE(TestGraph::waitFor([&] { return rateChanges.load() >= 1; }, 3s));
    EXPECT_EQ(hardware.nominalSampleRate(*graph.nodeID("speakers"), rate), 0);
    EXPECT_EQ(rate, 44100.0);
    queue->drain();
    EXPECT_EQ(deviceChanges.load(), 1);
    EXPECT_EQ(offQueue.load(), 0);

    EXPECT_EQ(hardware.removePropertyListener(deviceListener), 0);
    EXPECT_EQ(hardware.removePropertyListener(rateListener), 0);
    EXPECT_NE(hardware.removePropertyListener(rateListener), 0);
    graph.setMetadata(0, "default.configured.audio.sink", "Spa:String:JSON", "{ \"name\": \"speakers\" }");
    ASSERT_TRUE(run("pw-metadata -n settings 0 clock.force-rate 0 >/dev/null"));
    ASSERT_TRUE(TestGraph::waitFor([&] { return hardware.defaultOutputDevice(device) == 0 && graph.nodeID("speakers") == device; }, 3s));
    std::this_thread::sleep_for(200ms);
    queue->drain();
    EXPECT_EQ(deviceChanges.load(), 1);
    EXPECT_EQ(rateChanges.load(), 1);
}

TEST(PipeWireAudioHardware, ListsTheProcessesThatPlayAndWhetherTheyRun)
{
    PrivateSession session;
    ASSERT_TRUE(session.ready());
    PipeWireAudioHardware hardware;
    uint32_t size = 1;
    ASSERT_EQ(hardware.processObjectListByteSize(size), 0);
    EXPECT_EQ(size, 0u) << "nothing plays yet";

    ChildProcess player({ "pw-play", toneFile(session, 10) });
    AudioObjectID process = 0;
    ASSERT_EQ(hardware.translatePIDToProcessObject(player.pid(), process), 0);
    ASSERT_NE(process, 0u);
    ASSERT_TRUE(TestGraph::waitFor(
        [&] {
            uint32_t running = 0;
            return hardware.processIsRunningOutput(process, running) == 0 && running == 1;
        },
        3s));
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
    uint32_t running = 1;
    EXPECT_EQ(hardware.processIsRunningOutput(process, running), 0);
    EXPECT_EQ(running, 0u);
}

TEST(PipeWireAudioHardware, InTestModeRoutesOnlyTheNamedProgram)
{
    PrivateSession session;
    ASSERT_TRUE(session.ready());
    TestGraph graph;
    graph.startPlayer(std::vector<float>(48000 * 2, 0.0f));
    ChildProcess other({ "pw-play", toneFile(session, 10) });
    ASSERT_TRUE(TestGraph::waitFor([&] { return graph.nodeID("pw-play") && graph.nodeID("sorva_test_player"); }, 3s));

    ::setenv("SORVA_TAP_ONLY_BUNDLE_ID", "pw-cat", 1);
    ChildProcess host({ SORVA_ENGINE_HOST });
    ::unsetenv("SORVA_TAP_ONLY_BUNDLE_ID");
    ASSERT_EQ(host.readLine(15s), std::optional<std::string>("READY"));
    auto speakers = graph.nodeID("speakers");
    ASSERT_TRUE(TestGraph::waitFor(
        [&] {
            auto tap = graph.nodeID("sorva_system_tap");
            return tap && graph.linked(*graph.nodeID("pw-play"), *tap) && !graph.linked(*graph.nodeID("pw-play"), *speakers);
        },
        5s));
    std::this_thread::sleep_for(300ms);
    EXPECT_TRUE(graph.linked(*graph.nodeID("sorva_test_player"), *speakers)) << "only the named program is routed";
    EXPECT_FALSE(graph.linked(*graph.nodeID("sorva_test_player"), *graph.nodeID("sorva_system_tap")));
    EXPECT_FALSE(graph.metadata(*graph.nodeID("sorva_test_player"), "target.object"));
    host.writeLine("stop");
    EXPECT_EQ(host.readLine(10s), std::optional<std::string>("STOPPED"));
    EXPECT_FALSE(graph.metadata(*graph.nodeID("pw-play"), "target.object"));
}

TEST(PipeWireAudioHardware, ARestrictedClientIsRefusedAsPermissionDeniedAndRoutesNothing)
{
    PrivateSession session({ "--restrict", SORVA_ENGINE_HOST });
    ASSERT_TRUE(session.ready());
    TestGraph graph;
    graph.startPlayer(std::vector<float>(48000 * 2, 0.0f));
    ASSERT_TRUE(TestGraph::waitFor([&] { return graph.nodeID("sorva_test_player").has_value(); }, 3s));

    ChildProcess host({ SORVA_ENGINE_HOST });
    EXPECT_EQ(host.readLine(15s), std::optional<std::string>("FAILED System audio recording permission not granted"));
    EXPECT_EQ(host.wait(5s), std::optional<int>(1));
    EXPECT_FALSE(graph.nodeID("sorva_system_tap"));
    EXPECT_FALSE(graph.nodeID("sorva_output"));
    EXPECT_FALSE(graph.metadata(*graph.nodeID("sorva_test_player"), "target.object"));
}

TEST(PipeWireAudioHardware, ARejectedClientFailsAtOnceAndRoutesNothing)
{
    PrivateSession session({ "--reject", SORVA_ENGINE_HOST });
    ASSERT_TRUE(session.ready());
    TestGraph graph;
    graph.startPlayer(std::vector<float>(48000 * 2, 0.0f));
    ASSERT_TRUE(TestGraph::waitFor([&] { return graph.nodeID("sorva_test_player").has_value(); }, 3s));

    auto started = std::chrono::steady_clock::now();
    ChildProcess host({ SORVA_ENGINE_HOST });
    auto line = host.readLine(15s);
    ASSERT_TRUE(line);
    EXPECT_EQ(line->rfind("FAILED ", 0), 0u) << *line;
    EXPECT_LT(std::chrono::steady_clock::now() - started, 2s) << "a refused client is not waited for";
    EXPECT_FALSE(graph.nodeID("sorva_system_tap"));
    EXPECT_FALSE(graph.metadata(*graph.nodeID("sorva_test_player"), "target.object"));
}

TEST(PipeWireAudioHardware, WithoutADaemonEveryCallFailsClearly)
{
    auto empty = std::filesystem::temp_directory_path() / ("sorva-no-daemon-" + std::to_string(::getpid()));
    std::filesystem::create_directories(empty);
    ::setenv("XDG_RUNTIME_DIR", empty.c_str(), 1);
    PipeWireAudioHardware hardware;
    EXPECT_FALSE(hardware.isConnected());
    AudioObjectID device = 7;
    EXPECT_EQ(hardware.defaultOutputDevice(device), kAudioHardwareNotRunningError);
    EXPECT_EQ(device, 7u);
    AudioObjectID tap = 0;
    EXPECT_EQ(hardware.createProcessTap(TapDescription {}, tap), kAudioHardwareNotRunningError);
    EXPECT_TRUE(hardware.runningApplications().empty());
    std::filesystem::remove_all(empty);
}

// The buffered engine's capture device: a tap and no output device. The
// procedure gets the routed program's mix and no output buffers.
struct CaptureCounter {
    std::atomic<uint64_t> frames { 0 };
    std::atomic<uint32_t> outputBuffers { 99 };
    std::atomic<float> peak { 0.0f };
};

void countCapture(void* context, const AudioTimeStamp*, const AudioBufferList* input, const AudioTimeStamp*,
                  AudioBufferList* output, const AudioTimeStamp*) noexcept
{
    auto* counter = static_cast<CaptureCounter*>(context);
    counter->outputBuffers = output->mNumberBuffers;
    if (input->mNumberBuffers < 1 || !input->mBuffers[0].mData)
        return;
    const auto* samples = static_cast<const float*>(input->mBuffers[0].mData);
    uint32_t count = input->mBuffers[0].mDataByteSize / 4;
    float peak = counter->peak.load();
    for (uint32_t i = 0; i < count; ++i)
        peak = std::max(peak, std::fabs(samples[i]));
    counter->peak = peak;
    counter->frames += count / 2;
}

TEST(PipeWireAudioHardware, CapturesTheSelectedProgramWithoutAnOutputDeviceAndUndoesItOnStop)
{
    PrivateSession session;
    ASSERT_TRUE(session.ready());
    TestGraph graph;
    ChildProcess player({ "pw-play", toneFile(session, 10) });
    ASSERT_TRUE(TestGraph::waitFor([&] { return graph.nodeID("pw-play").has_value(); }, 3s));
    PipeWireAudioHardware hardware;

    AudioObjectID process = 0;
    ASSERT_EQ(hardware.translatePIDToProcessObject(player.pid(), process), 0);
    TapDescription description = TapDescription::stereoMixdownOfProcesses({ process });
    description.uuid = "5e1f0c3a-8d2b-4c6e-9f10-2a3b4c5d6e7f";
    description.name = "SORVA System Tap";
    AudioObjectID tap = 0;
    ASSERT_EQ(hardware.createProcessTap(description, tap), 0);
    AudioStreamBasicDescription format;
    ASSERT_EQ(hardware.tapFormat(tap, format), 0);
    EXPECT_EQ(format.mSampleRate, 48000.0);
    EXPECT_EQ(format.mChannelsPerFrame, 2u);

    AggregateDescription capture;
    capture.name = "SORVA Capture";
    capture.uid = "com.sorva.app.capture";
    capture.taps = { { "5E1F0C3A-8D2B-4C6E-9F10-2A3B4C5D6E7F", true } };
    AudioObjectID device = 0;
    ASSERT_EQ(hardware.createAggregateDevice(capture, device), 0);
    CaptureCounter counter;
    AudioDeviceIOProcID proc = 0;
    ASSERT_EQ(hardware.createIOProcID(device, countCapture, &counter, proc), 0);
    ASSERT_NE(proc, 0u);
    AudioDeviceIOProcID second = 0;
    EXPECT_NE(hardware.createIOProcID(device, countCapture, &counter, second), 0) << "one procedure per device";
    EXPECT_NE(hardware.startDevice(device, proc + 1), 0);
    EXPECT_EQ(counter.frames.load(), 0u) << "not called before the device starts";

    ASSERT_EQ(hardware.startDevice(device, proc), 0);
    auto tapNode = graph.nodeID("sorva_system_tap");
    ASSERT_TRUE(tapNode);
    EXPECT_TRUE(TestGraph::waitFor([&] { return graph.linked(*graph.nodeID("pw-play"), *tapNode); }, 3s));
    EXPECT_TRUE(TestGraph::waitFor([&] { return counter.frames.load() > 48000 / 2; }, 3s));
    EXPECT_NEAR(counter.peak.load(), 8000.0 / 32768.0, 1e-3) << "the program's tone, as played";
    EXPECT_EQ(counter.outputBuffers.load(), 0u);
    EXPECT_FALSE(graph.nodeID("sorva_output"));

    ASSERT_EQ(hardware.stopDevice(device, proc), 0);
    uint64_t stoppedAt = counter.frames.load();
    EXPECT_FALSE(graph.metadata(*graph.nodeID("pw-play"), "target.object"));
    EXPECT_EQ(hardware.destroyIOProcID(device, proc), 0);
    EXPECT_EQ(hardware.destroyAggregateDevice(device), 0);
    EXPECT_NE(hardware.destroyAggregateDevice(device), 0);
    EXPECT_EQ(hardware.destroyProcessTap(tap), 0);
    std::this_thread::sleep_for(100ms);
    EXPECT_EQ(counter.frames.load(), stoppedAt) << "no call after stopDevice returned";
    EXPECT_TRUE(TestGraph::waitFor([&] { return !graph.nodeID("sorva_system_tap"); }, 3s));
    EXPECT_TRUE(TestGraph::waitFor([&] { return graph.linked(*graph.nodeID("pw-play"), *graph.nodeID("speakers")); }, 3s));
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
    {
        // A crash in the middle of a line, and a line from elsewhere.
        FILE* file = std::fopen(journal.path().c_str(), "a");
        std::fputs("route\t43\t97\t-\n", file);
        std::fputs("route\t4x\t97\t-\t-\n", file);
        std::fclose(file);
    }
    RoutingJournal reopened(journal.path());
    EXPECT_EQ(reopened.entries(), (std::vector<RoutingJournal::Entry> { plain, awkward }));
    reopened.clear();
    EXPECT_TRUE(reopened.entries().empty());
    EXPECT_FALSE(std::filesystem::exists(journal.path()));

    // An unwritable folder is reported, not ignored.
    std::filesystem::create_directories(folder);
    RoutingJournal blocked(folder / "state" / "routing-journal" / "below-a-file");
    std::filesystem::create_directories(folder / "state");
    { FILE* file = std::fopen((folder / "state" / "routing-journal").c_str(), "w"); std::fclose(file); }
    EXPECT_FALSE(blocked.append(plain, error));
    EXPECT_FALSE(error.empty());
    std::filesystem::remove_all(folder);
}

} // namespace
} // namespace sorva::testing
