// The PipeWire backend's queries, listeners, process view, test-mode routing,
// refusals and the routing journal.
#include "Platform/PipeWire/PipeWireAudioHardware.h"
#include "Platform/PipeWire/PipeWireOutputEngine.h"
#include "Platform/PipeWire/RoutingJournal.h"
#include "PipeWire/TestGraph.h"

#include <atomic>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace sorva::testing {
namespace {

// Ten seconds of a 440 Hz tone, a WAV file for pw-play.
std::string toneFile(const PrivateSession& session)
{
    const std::string path = session.root() + "/tone.wav";
    EXPECT_EQ(std::system(("sox -n -r 48000 -c 2 -b 16 '" + path + "' synth 10 sine 440 vol 0.25").c_str()), 0);
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
    auto onChange = [&] {
        offQueue += queue->isCurrent() ? 0 : 1;
        ++changes;
    };
    ASSERT_EQ(hardware.addPropertyListener(kAudioObjectSystemObject, { kAudioHardwarePropertyDefaultOutputDevice }, queue,
                                           onChange, listener),
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

// The engine's settings from the environment: the test mode routes only the
// program named, and the graph runs at the requested I/O buffer size while
// the engine runs.
TEST_F(PipeWireBackend, InTestModeRoutesOnlyTheNamedProgramAtTheRequestedBufferSize)
{
    graph.startRecorder("speakers", 4800);
    graph.startPlayer(std::vector<float>(48000 * 2, 0.0f));
    ChildProcess other({ "pw-play", toneFile(session) });
    ASSERT_TRUE(TestGraph::waitFor([&] { return graph.nodeID("pw-play") && graph.nodeID("sorva_test_player"); }));
    ::setenv("SORVA_TAP_ONLY_BUNDLE_ID", "pw-cat", 1);
    ::setenv("SORVA_IOBUF", "256", 1);
    EngineHost host;
    ::unsetenv("SORVA_TAP_ONLY_BUNDLE_ID");
    ::unsetenv("SORVA_IOBUF");
    ASSERT_TRUE(host.started());
    ASSERT_TRUE(TestGraph::waitFor(
        [&] { return graph.linked("pw-play", "sorva_system_tap") && !graph.linked("pw-play", "speakers"); }));
    EXPECT_TRUE(TestGraph::waitFor([&] { return graph.recorderCycleFrames() == 256; })) << graph.recorderCycleFrames();
    ASSERT_TRUE(graph.waitGraphFrames(14400)); // time for a wrong move to show
    EXPECT_TRUE(graph.linked("sorva_test_player", "speakers")) << "only the named program is routed";
    EXPECT_FALSE(graph.linked("sorva_test_player", "sorva_system_tap"));
    EXPECT_FALSE(graph.metadata(*graph.nodeID("sorva_test_player"), "target.object"));
    EXPECT_TRUE(host.stop());
    EXPECT_FALSE(graph.metadata(*graph.nodeID("pw-play"), "target.object"));
    EXPECT_TRUE(TestGraph::waitFor([&] { return graph.recorderCycleFrames() == 1024; })) << "the request ends with it";
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

        EngineHost host;
        auto line = host.process.readLine(TestGraph::eventTimeout).value_or("");
        EXPECT_TRUE(std::string(rule) == "--restrict" ? line == "FAILED System audio recording permission not granted"
                                                     : line.starts_with("FAILED "))
            << line;
        EXPECT_EQ(host.process.wait(TestGraph::eventTimeout), std::optional<int>(1));
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

// What the journal wrote reads back across reopening; a journal cut off by a
// crash or left by anything but this program (garbage, absurd serials,
// something other than a file in its place) reads as its well-formed lines
// only. Each is read in a child process with a time and memory limit, so that
// a reader that blocks or swallows /dev/zero fails here instead of hanging the
// test.
TEST(RoutingJournal, ReadsBackWhatItWroteAndOnlyTheWellFormedLinesOfAnythingElse)
{
    const auto folder = std::filesystem::temp_directory_path() / ("sorva-journal-" + std::to_string(::getpid()));
    std::filesystem::remove_all(folder);
    std::filesystem::create_directories(folder);
    const RoutingJournal::Entry plain { 41, 97, std::nullopt, std::nullopt };
    const RoutingJournal::Entry awkward { 42, 97, RoutingJournal::Value { "Spa:String:JSON", "{\"name\":\"a\tb=c\\\\\n\"}" },
                                          RoutingJournal::Value { "", "55" } };
    const RoutingJournal::Entry largest { UINT64_MAX, 1, std::nullopt, RoutingJournal::Value { "", "" } };
    struct Case {
        const char* name;
        std::function<void(const std::filesystem::path&)> plant;
        std::vector<RoutingJournal::Entry> expected;
    };
    const Case cases[] = {
        { "state/written, then cut off",
          [&](const auto& p) {
              RoutingJournal journal(p);
              std::string error;
              EXPECT_TRUE(journal.append(plain, error) && journal.append(awkward, error)) << error;
              std::ofstream(p, std::ios::app) << "route\t43\t97\t-\nroute\t4x\t97\t-\t-\n";
          },
          { plain, awkward } },
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

    // A place that cannot be written is reported, not ignored.
    RoutingJournal blocked(folder / cases[1].name / "below-a-file");
    std::string error;
    EXPECT_FALSE(blocked.append(plain, error));
    EXPECT_FALSE(error.empty());
    std::filesystem::remove_all(folder);
}

} // namespace
} // namespace sorva::testing
