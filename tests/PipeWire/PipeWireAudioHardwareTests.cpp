// The PipeWire backend's queries, listeners, process view, test-mode routing,
// refusals and the routing journal.
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
#include <functional>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace std::chrono_literals;

namespace sorva::testing {
namespace {

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

TEST_F(PipeWireBackend, ReportsDevicesAndFiresTheDefaultDeviceListenerOnItsQueueUntilRemoved)
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

    // The default-device listener runs on its queue until removed; a property
    // without a listener is refused.
    auto queue = std::make_shared<SerialQueue>("com.sorva.app.listeners");
    std::atomic<int> changes { 0 }, offQueue { 0 };
    AudioPropertyListenerRegistration listener, unsupported;
    ASSERT_EQ(hardware.addPropertyListener(kAudioObjectSystemObject, { kAudioHardwarePropertyDefaultOutputDevice }, queue,
                                           [&] {
                                               offQueue += queue->isCurrent() ? 0 : 1;
                                               ++changes;
                                           },
                                           listener),
              0);
    EXPECT_NE(hardware.addPropertyListener(device, { kAudioDevicePropertyBufferFrameSize }, queue, [] {}, unsupported), 0);
    graph.setDefaultSink("speakers-2");
    ASSERT_TRUE(TestGraph::waitFor([&] { return changes.load() >= 1; }));
    ASSERT_EQ(hardware.defaultOutputDevice(device), 0);
    EXPECT_EQ(std::optional<uint32_t>(device), graph.nodeID("speakers-2"));

    EXPECT_EQ(hardware.removePropertyListener(listener), 0);
    EXPECT_NE(hardware.removePropertyListener(listener), 0);
    graph.setDefaultSink("speakers");
    // The backend has seen the change once its default says so; whatever it
    // dispatched for it is on the queue by then.
    ASSERT_TRUE(TestGraph::waitFor([&] { return hardware.defaultOutputDevice(device) == 0 && graph.nodeID("speakers") == device; }));
    queue->drain();
    EXPECT_EQ(changes.load(), 1);
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
    ASSERT_TRUE(TestGraph::waitFor([&] { return hardware.processIsRunningOutput(process, running) == 0 && running == 1; }));
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
    player.wait(TestGraph::eventTimeout);
    ASSERT_TRUE(TestGraph::waitFor([&] { return hardware.processObjectListByteSize(size) == 0 && size == 0; }));
    EXPECT_EQ(hardware.processIsRunningOutput(process, running), 0);
    EXPECT_EQ(running, 0u);
}

TEST_F(PipeWireBackend, InTestModeRoutesOnlyTheNamedProgram)
{
    graph.startRecorder("speakers", 4800);
    graph.startPlayer(std::vector<float>(48000 * 2, 0.0f));
    ChildProcess other({ "pw-play", toneFile(session) });
    ASSERT_TRUE(TestGraph::waitFor([&] { return graph.nodeID("pw-play") && graph.nodeID("sorva_test_player"); }));
    const uint32_t named = *graph.nodeID("pw-play"), player = *graph.nodeID("sorva_test_player");

    ::setenv("SORVA_TAP_ONLY_BUNDLE_ID", "pw-cat", 1);
    EngineHost host({ SORVA_ENGINE_HOST });
    ::unsetenv("SORVA_TAP_ONLY_BUNDLE_ID");
    ASSERT_TRUE(host.started());
    auto speakers = *graph.nodeID("speakers");
    ASSERT_TRUE(TestGraph::waitFor([&] {
        auto tap = graph.nodeID("sorva_system_tap");
        return tap && graph.linked(named, *tap) && !graph.linked(named, speakers);
    }));
    ASSERT_TRUE(graph.waitGraphFrames(14400)); // time for a wrong move to show
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
        ASSERT_TRUE(TestGraph::waitFor([&] { return graph.nodeID("sorva_test_player").has_value(); }));

        auto started = std::chrono::steady_clock::now();
        ChildProcess host({ SORVA_ENGINE_HOST });
        auto line = host.readLine(TestGraph::eventTimeout).value_or("");
        EXPECT_TRUE(std::string(rule) == "--restrict" ? line == "FAILED System audio recording permission not granted"
                                                     : line.starts_with("FAILED "))
            << line;
        EXPECT_LT(std::chrono::steady_clock::now() - started, 2s) << "a refused client is not waited for";
        EXPECT_EQ(host.wait(TestGraph::eventTimeout), std::optional<int>(1));
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

    // The output engine too refuses to start, with the reason.
    PipeWireOutputEngine engine;
    const OutputFormat format = *OutputFormat::planarFloat(48000.0, 2);
    auto node = std::make_shared<OutputSourceNode>(
        format, [](void*, bool*, const AudioTimeStamp*, uint32_t, AudioBufferList*) noexcept -> OSStatus { return 0; },
        nullptr);
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
    std::filesystem::remove_all(empty);
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

// A journal left by anything but this program: garbage, absurd serials, or
// something other than a file in its place. Each is read in a child process
// with a time and memory limit, so that a reader that blocks or swallows
// /dev/zero fails here instead of hanging the test.
TEST(RoutingJournal, HostileJournalsReadAsTheirWellFormedLinesOnly)
{
    const auto folder = std::filesystem::temp_directory_path() / ("sorva-journal-hostile-" + std::to_string(::getpid()));
    std::filesystem::remove_all(folder);
    std::filesystem::create_directories(folder);
    const RoutingJournal::Entry largest { UINT64_MAX, 1, std::nullopt, RoutingJournal::Value { "", "" } };
    struct Case {
        const char* name;
        std::function<void(const std::filesystem::path&)> plant;
        std::vector<RoutingJournal::Entry> expected;
    };
    const Case cases[] = {
        { "garbage and absurd serials",
          [&](const auto& p) {
              std::ofstream(p, std::ios::binary) << std::string("\0\xff\troute\n", 9) << "route\t18446744073709551616\t1\t-\t-\n"
                                                 << "route\t-1\t1\t-\t-\nroute\t1\t1\t\\q=x\t-\nroute\t1\t1\t-\t-\t-\n"
                                                 << "route\t18446744073709551615\t1\t-\t=\n" << "route\t1\t1\t-";
          },
          { largest } },
        { "a folder", [](const auto& p) { std::filesystem::create_directory(p); }, {} },
        { "a pipe nobody writes", [](const auto& p) { ::mkfifo(p.c_str(), 0600); }, {} },
        { "a link to the zero device", [](const auto& p) { std::filesystem::create_symlink("/dev/zero", p); }, {} },
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const auto path = folder / c.name;
        c.plant(path);
        const pid_t child = ::fork();
        if (child == 0) {
            ::alarm(10);
            const rlimit memory { 1u << 30, 1u << 30 };
            ::setrlimit(RLIMIT_AS, &memory);
            ::_exit(RoutingJournal(path).entries() == c.expected ? 0 : 1);
        }
        int status = 0;
        ASSERT_EQ(::waitpid(child, &status, 0), child);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0)
            << (WIFSIGNALED(status) ? "killed by signal " + std::to_string(WTERMSIG(status)) : "wrong entries");
    }
    std::filesystem::remove_all(folder);
}

} // namespace
} // namespace sorva::testing
