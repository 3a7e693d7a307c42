#include "PipeWire/TestGraph.h"

#include <pipewire/extensions/metadata.h>
#include <pipewire/pipewire.h>
#include <spa/param/audio/format-utils.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <mutex>
#include <numbers>
#include <poll.h>
#include <stdexcept>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace sorva::testing {
namespace {

// One of the test's streams, F32 stereo at 48 kHz: the samples it plays or
// records, and the graph position of each cycle that carried some of them,
// kept cycle by cycle so that a skipped cycle does not shift the frames after
// it. The data thread writes, the test thread reads behind `frames` and
// `cycleCount`.
struct Stream {
    pw_stream* stream = nullptr;
    spa_hook listener {};
    spa_io_position* position = nullptr;
    std::function<void()> cycle;
    std::vector<float> samples;
    std::atomic<size_t> frames { 0 };
    std::vector<std::pair<uint64_t, size_t>> cycles; // (graph position, first frame)
    std::atomic<size_t> cycleCount { 0 };

    void reset(std::vector<float> newSamples)
    {
        samples = std::move(newSamples);
        frames = 0;
        cycles.assign(samples.size() / 2 / 16 + 1, { 0, 0 });
        cycleCount = 0;
    }
    void noteCycle(size_t firstFrame)
    {
        const size_t count = cycleCount.load();
        if (position && count < cycles.size()) {
            cycles[count] = { position->clock.position, firstFrame };
            cycleCount.store(count + 1);
        }
    }
    std::optional<uint64_t> positionOf(size_t frame) const
    {
        for (size_t i = cycleCount.load(); i-- > 0;) {
            if (cycles[i].second <= frame)
                return cycles[i].first + (frame - cycles[i].second);
        }
        return std::nullopt;
    }
};

double rms(const std::vector<float>& samples, size_t fromFrame, size_t toFrame)
{
    double sum = 0.0;
    for (size_t i = fromFrame * 2; i < toFrame * 2 && i < samples.size(); ++i)
        sum += double(samples[i]) * samples[i];
    return std::sqrt(sum / double((toFrame - fromFrame) * 2));
}

size_t impulseFrame(size_t i) { return 100 + i * impulseSpacing; }

// Starts a fresh recording, arms the player and waits until its signal has
// played and tailFrames more have been recorded.
bool playOnce(TestGraph& graph, uint64_t tailFrames)
{
    if (!graph.freshRecording())
        return false;
    graph.armPlayer();
    return TestGraph::waitFor([&] { return graph.playerFinished(); }) && graph.waitGraphFrames(tailFrames);
}

struct Global {
    std::string type;
    std::map<std::string, std::string> props;
};

struct LoopLock {
    explicit LoopLock(pw_thread_loop* loop)
        : loop(loop)
    {
        pw_thread_loop_lock(loop);
    }
    ~LoopLock() { pw_thread_loop_unlock(loop); }
    pw_thread_loop* loop;
};

} // namespace

struct TestGraph::Data {
    pw_thread_loop* loop = nullptr;
    pw_context* context = nullptr;
    pw_core* core = nullptr;
    pw_registry* registry = nullptr;
    spa_hook registryListener {};
    spa_hook coreListener {};
    int doneSeq = 0;
    pw_metadata* defaultMetadata = nullptr;
    spa_hook metadataListener {};
    std::map<uint32_t, Global> globals;
    std::map<std::pair<uint32_t, std::string>, std::string> metadataValues;

    Stream player;
    std::atomic<bool> armed { false };

    Stream recorder;
    std::string recorderTarget;
    std::atomic<uint32_t> cycleFrames { 0 };
    std::atomic<uint64_t> totalFrames { 0 };
    // Cycles the recorder saw the graph clock skip: it was not run for them.
    std::atomic<uint64_t> skippedCycles { 0 };
    uint64_t nextPosition = 0;

    // Every event the daemon sent before now has arrived (loop lock held).
    void roundtrip()
    {
        const int seq = pw_core_sync(core, PW_ID_CORE, 0);
        timespec deadline {};
        pw_thread_loop_get_time(loop, &deadline, 30 * SPA_NSEC_PER_SEC);
        while (doneSeq - seq < 0 && pw_thread_loop_timed_wait_full(loop, &deadline) == 0) {
        }
    }

    void connect(Stream& s, const char* name, pw_properties* props, pw_direction direction)
    {
        LoopLock lock(loop);
        s.stream = pw_stream_new(core, name, props);
        static const pw_stream_events events = [] {
            pw_stream_events e {};
            e.version = PW_VERSION_STREAM_EVENTS;
            e.io_changed = [](void* p, uint32_t id, void* area, uint32_t) {
                if (id == SPA_IO_Position)
                    static_cast<Stream*>(p)->position = static_cast<spa_io_position*>(area);
            };
            e.process = [](void* p) { static_cast<Stream*>(p)->cycle(); };
            return e;
        }();
        pw_stream_add_listener(s.stream, &s.listener, &events, &s);
        uint8_t buffer[512];
        spa_pod_builder builder {};
        spa_pod_builder_init(&builder, buffer, sizeof buffer);
        spa_audio_info_raw info { .format = SPA_AUDIO_FORMAT_F32, .flags = 0, .rate = 48000, .channels = 2,
                                  .position = { SPA_AUDIO_CHANNEL_FL, SPA_AUDIO_CHANNEL_FR } };
        const spa_pod* params[1] = { spa_format_audio_raw_build(&builder, SPA_PARAM_EnumFormat, &info) };
        pw_stream_connect(s.stream, direction, PW_ID_ANY,
                          static_cast<pw_stream_flags>(PW_STREAM_FLAG_AUTOCONNECT | PW_STREAM_FLAG_MAP_BUFFERS
                                                       | PW_STREAM_FLAG_RT_PROCESS),
                          params, 1);
    }

    void disconnect(Stream& s)
    {
        LoopLock lock(loop);
        if (s.stream) {
            spa_hook_remove(&s.listener);
            pw_stream_destroy(s.stream);
            s.stream = nullptr;
            s.position = nullptr;
        }
    }

    // Silence, or once armed the next frames of the signal.
    void playerCycle()
    {
        pw_buffer* b = pw_stream_dequeue_buffer(player.stream);
        if (!b)
            return;
        spa_data& d = b->buffer->datas[0];
        const uint32_t frames = std::min<uint32_t>(b->requested ? uint32_t(b->requested) : 1024, d.maxsize / 8);
        std::memset(d.data, 0, frames * 8);
        const size_t played = player.frames.load();
        if (armed.load() && played < player.samples.size() / 2) {
            player.noteCycle(played);
            const size_t n = std::min<size_t>(frames, player.samples.size() / 2 - played);
            std::memcpy(d.data, player.samples.data() + played * 2, n * 8);
            player.frames.store(played + n);
        }
        *d.chunk = spa_chunk { 0, frames * 8, 8, 0 };
        pw_stream_queue_buffer(player.stream, b);
    }

    void recorderCycle()
    {
        pw_buffer* b = pw_stream_dequeue_buffer(recorder.stream);
        if (!b)
            return;
        spa_data& d = b->buffer->datas[0];
        if (d.data && recorder.position) {
            const uint32_t offset = std::min(d.chunk->offset, d.maxsize);
            const uint32_t frames = std::min(d.chunk->size, d.maxsize - offset) / 8;
            const uint64_t position = recorder.position->clock.position;
            if (totalFrames.load() > 0 && position > nextPosition && frames > 0)
                skippedCycles.fetch_add((position - nextPosition + frames - 1) / frames);
            nextPosition = position + frames;
            cycleFrames.store(frames);
            totalFrames.fetch_add(frames);
            const size_t have = recorder.frames.load();
            const size_t n = std::min<size_t>(frames, recorder.samples.size() / 2 - have);
            if (n > 0)
                recorder.noteCycle(have);
            std::memcpy(recorder.samples.data() + have * 2, SPA_PTROFF(d.data, offset, float), n * 8);
            recorder.frames.store(have + n);
        }
        pw_stream_queue_buffer(recorder.stream, b);
    }

    void metadataProperty(uint32_t subject, const char* key, const char* value)
    {
        if (!key)
            std::erase_if(metadataValues, [&](auto& entry) { return entry.first.first == subject; });
        else if (!value)
            metadataValues.erase({ subject, key });
        else
            metadataValues[{ subject, key }] = value;
    }

    void global(uint32_t id, const char* type, const spa_dict* props)
    {
        Global& g = globals[id];
        g.type = type;
        for (uint32_t i = 0; props && i < props->n_items; ++i)
            g.props[props->items[i].key] = props->items[i].value ? props->items[i].value : "";
        if (g.type != PW_TYPE_INTERFACE_Metadata || g.props["metadata.name"] != "default" || defaultMetadata)
            return;
        defaultMetadata = static_cast<pw_metadata*>(pw_registry_bind(registry, id, type, PW_VERSION_METADATA, 0));
        static const pw_metadata_events events = [] {
            pw_metadata_events e {};
            e.version = PW_VERSION_METADATA_EVENTS;
            e.property = [](void* p, uint32_t subject, const char* key, const char*, const char* value) {
                static_cast<Data*>(p)->metadataProperty(subject, key, value);
                return 0;
            };
            return e;
        }();
        pw_metadata_add_listener(defaultMetadata, &metadataListener, &events, this);
    }
};

TestGraph::TestGraph()
    : data(std::make_unique<Data>())
{
    static std::once_flag initOnce;
    std::call_once(initOnce, [] { pw_init(nullptr, nullptr); });
    data->loop = pw_thread_loop_new("test-graph", nullptr);
    data->context = pw_context_new(pw_thread_loop_get_loop(data->loop), nullptr, 0);
    pw_thread_loop_start(data->loop);
    LoopLock lock(data->loop);
    data->core = pw_context_connect(data->context, nullptr, 0);
    if (!data->core)
        return;
    data->registry = pw_core_get_registry(data->core, PW_VERSION_REGISTRY, 0);
    static const pw_registry_events registryEvents = [] {
        pw_registry_events e {};
        e.version = PW_VERSION_REGISTRY_EVENTS;
        e.global = [](void* p, uint32_t id, uint32_t, const char* type, uint32_t, const spa_dict* props) {
            static_cast<Data*>(p)->global(id, type, props);
        };
        e.global_remove = [](void* p, uint32_t id) { static_cast<Data*>(p)->globals.erase(id); };
        return e;
    }();
    pw_registry_add_listener(data->registry, &data->registryListener, &registryEvents, data.get());
    static const pw_core_events coreEvents = [] {
        pw_core_events e {};
        e.version = PW_VERSION_CORE_EVENTS;
        e.done = [](void* p, uint32_t id, int seq) {
            auto* d = static_cast<Data*>(p);
            if (id == PW_ID_CORE) {
                d->doneSeq = seq;
                pw_thread_loop_signal(d->loop, false);
            }
        };
        return e;
    }();
    pw_core_add_listener(data->core, &data->coreListener, &coreEvents, data.get());
    // The globals, then the metadata values of what was bound.
    data->roundtrip();
    data->roundtrip();
}

// Disconnecting the core destroys its proxies (registry, metadata) too.
TestGraph::~TestGraph()
{
    stopPlayer();
    stopRecorder();
    pw_thread_loop_stop(data->loop);
    if (data->core)
        pw_core_disconnect(data->core);
    pw_context_destroy(data->context);
    pw_thread_loop_destroy(data->loop);
}

bool TestGraph::connected() const { return data->core != nullptr; }

void TestGraph::startPlayer(std::vector<float> signal)
{
    data->player.reset(std::move(signal));
    data->armed = false;
    data->player.cycle = [d = data.get()] { d->playerCycle(); };
    data->connect(data->player, "test player",
                  pw_properties_new(PW_KEY_MEDIA_TYPE, "Audio", PW_KEY_MEDIA_CATEGORY, "Playback", PW_KEY_MEDIA_ROLE,
                                    "Music", PW_KEY_NODE_NAME, "sorva_test_player", PW_KEY_APP_NAME,
                                    "sorva-test-player", nullptr),
                  PW_DIRECTION_OUTPUT);
}

void TestGraph::armPlayer() { data->armed = true; }
bool TestGraph::playerFinished() { return data->player.frames.load() * 2 >= data->player.samples.size(); }
void TestGraph::stopPlayer() { data->disconnect(data->player); }

void TestGraph::startRecorder(const std::string& speaker, size_t capacityFrames)
{
    data->recorderTarget = speaker;
    data->recorder.reset(std::vector<float>(capacityFrames * 2, 0.0f));
    data->totalFrames = 0;
    data->skippedCycles = 0;
    data->recorder.cycle = [d = data.get()] { d->recorderCycle(); };
    data->connect(data->recorder, "test recorder",
                  pw_properties_new(PW_KEY_MEDIA_TYPE, "Audio", PW_KEY_MEDIA_CATEGORY, "Capture", PW_KEY_NODE_NAME,
                                    "sorva_test_recorder", PW_KEY_TARGET_OBJECT, speaker.c_str(),
                                    PW_KEY_STREAM_CAPTURE_SINK, "true", nullptr),
                  PW_DIRECTION_INPUT);
}

std::vector<float> TestGraph::recorded()
{
    const auto& samples = data->recorder.samples;
    return std::vector<float>(samples.begin(), samples.begin() + long(data->recorder.frames.load() * 2));
}

bool TestGraph::freshRecording()
{
    stopRecorder();
    startRecorder(data->recorderTarget, data->recorder.samples.size() / 2);
    return waitFor([&] { return data->totalFrames.load() > 0; });
}

uint32_t TestGraph::recorderCycleFrames() { return data->cycleFrames.load(); }
uint64_t TestGraph::skippedCycles() { return data->skippedCycles.load(); }

bool TestGraph::waitGraphFrames(uint64_t frames)
{
    // The graph runs at 48 kHz; a loaded machine gets three times as long.
    const uint64_t until = data->totalFrames.load() + frames;
    return waitFor([&] { return data->totalFrames.load() >= until; },
                   eventTimeout + std::chrono::milliseconds(frames * 3000 / 48000));
}

void TestGraph::stopRecorder() { data->disconnect(data->recorder); }

std::optional<uint32_t> TestGraph::nodeID(const std::string& nodeName)
{
    LoopLock lock(data->loop);
    for (auto& [id, g] : data->globals) {
        if (g.type == PW_TYPE_INTERFACE_Node && g.props[PW_KEY_NODE_NAME] == nodeName)
            return id;
    }
    return std::nullopt;
}

std::optional<uint64_t> TestGraph::nodeSerial(const std::string& nodeName)
{
    const auto id = nodeID(nodeName);
    LoopLock lock(data->loop);
    return id ? std::optional(std::stoull(data->globals[*id].props[PW_KEY_OBJECT_SERIAL])) : std::nullopt;
}

bool TestGraph::linked(const std::string& from, const std::string& to)
{
    const auto source = nodeID(from), target = nodeID(to);
    LoopLock lock(data->loop);
    return source && target && std::any_of(data->globals.begin(), data->globals.end(), [&](auto& entry) {
        auto& g = entry.second;
        return g.type == PW_TYPE_INTERFACE_Link && g.props[PW_KEY_LINK_OUTPUT_NODE] == std::to_string(*source)
            && g.props[PW_KEY_LINK_INPUT_NODE] == std::to_string(*target);
    });
}

std::optional<std::string> TestGraph::metadata(uint32_t subject, const std::string& key)
{
    LoopLock lock(data->loop);
    auto found = data->metadataValues.find({ subject, key });
    return found == data->metadataValues.end() ? std::nullopt : std::optional(found->second);
}

void TestGraph::setMetadata(uint32_t subject, const std::string& key, const std::string& type, const std::string& value)
{
    LoopLock lock(data->loop);
    if (data->defaultMetadata)
        pw_metadata_set_property(data->defaultMetadata, subject, key.c_str(), type.empty() ? nullptr : type.c_str(),
                                 value.c_str());
}

void TestGraph::setDefaultSink(const std::string& nodeName)
{
    setMetadata(0, "default.configured.audio.sink", "Spa:String:JSON", "{ \"name\": \"" + nodeName + "\" }");
}

bool TestGraph::waitFor(const std::function<bool()>& condition, std::chrono::milliseconds timeout)
{
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= deadline)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
}

ChildProcess::ChildProcess(const std::vector<std::string>& argv)
{
    int toChild[2], fromChild[2];
    if (::pipe2(toChild, O_CLOEXEC) != 0 || ::pipe2(fromChild, O_CLOEXEC) != 0)
        throw std::runtime_error("pipe failed");
    std::vector<char*> args;
    for (auto& arg : argv)
        args.push_back(const_cast<char*>(arg.c_str()));
    args.push_back(nullptr);
    childPID = ::fork();
    if (childPID < 0)
        throw std::runtime_error("fork failed");
    if (childPID == 0) {
        ::dup2(toChild[0], STDIN_FILENO);
        ::dup2(fromChild[1], STDOUT_FILENO);
        ::execvp(args[0], args.data());
        ::_exit(127);
    }
    ::close(toChild[0]);
    ::close(fromChild[1]);
    input = toChild[1];
    output = fromChild[0];
}

ChildProcess::~ChildProcess()
{
    closeInput();
    if (!wait(std::chrono::seconds(3))) {
        kill(SIGKILL);
        wait(std::chrono::seconds(3));
    }
    if (output >= 0)
        ::close(output);
}

std::optional<std::string> ChildProcess::readLine(std::chrono::milliseconds timeout)
{
    auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
        auto newline = buffered.find('\n');
        if (newline != std::string::npos) {
            std::string line = buffered.substr(0, newline);
            buffered.erase(0, newline + 1);
            return line;
        }
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0 || output < 0)
            return std::nullopt;
        pollfd fd { output, POLLIN, 0 };
        if (::poll(&fd, 1, static_cast<int>(left.count())) <= 0)
            continue;
        char chunk[512];
        ssize_t got = ::read(output, chunk, sizeof chunk);
        if (got <= 0)
            return std::nullopt;
        buffered.append(chunk, static_cast<size_t>(got));
    }
}

void ChildProcess::writeLine(const std::string& line)
{
    if (input < 0)
        return;
    std::string text = line + "\n";
    [[maybe_unused]] ssize_t written = ::write(input, text.data(), text.size());
}

void ChildProcess::closeInput()
{
    if (input >= 0) {
        ::close(input);
        input = -1;
    }
}

std::optional<int> ChildProcess::wait(std::chrono::milliseconds timeout)
{
    if (exitStatus || childPID <= 0)
        return exitStatus;
    pollfd ended { int(::syscall(SYS_pidfd_open, childPID, 0)), POLLIN, 0 };
    int status = 0;
    if (::poll(&ended, 1, int(timeout.count())) == 1 && ::waitpid(childPID, &status, 0) == childPID)
        exitStatus = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    ::close(ended.fd);
    return exitStatus;
}

// Measurements run the same tests at other graph quanta (SORVA_PW_QUANTUM).
PrivateSession::PrivateSession(const std::vector<std::string>& options)
    : script([&] {
        std::vector<std::string> argv { SORVA_SOURCE_DIR "/scripts/pw-session" };
        argv.insert(argv.end(), options.begin(), options.end());
        if (const char* quantum = std::getenv("SORVA_PW_QUANTUM"); quantum && *quantum)
            argv.insert(argv.end(), { "--quantum", quantum });
        argv.push_back("--serve");
        return argv;
    }())
{
    while (auto line = script.readLine(std::chrono::seconds(15))) {
        if (*line == "READY") {
            isReady = true;
            break;
        }
        if (auto equals = line->find('='); equals != std::string::npos)
            environment[line->substr(0, equals)] = line->substr(equals + 1);
    }
    for (auto& [key, value] : environment)
        ::setenv(key.c_str(), value.c_str(), 1);
}

PrivateSession::~PrivateSession()
{
    script.closeInput();
    script.wait(std::chrono::seconds(10));
}

EngineHost::EngineHost(std::vector<std::string> options)
    : process([&] {
        options.insert(options.begin(), SORVA_ENGINE_HOST);
        return options;
    }())
{
}

bool EngineHost::started()
{
    const auto line = process.readLine(TestGraph::eventTimeout);
    EXPECT_EQ(line, "READY");
    return line == "READY";
}

bool EngineHost::stop()
{
    process.writeLine("stop");
    while (auto line = process.readLine(TestGraph::eventTimeout)) {
        if (*line == "STOPPED")
            return true;
    }
    return false;
}

std::vector<float> tone(size_t frames, double frequency, float amplitude)
{
    std::vector<float> samples(frames * 2);
    for (size_t f = 0; f < frames; ++f)
        samples[2 * f] = samples[2 * f + 1]
            = static_cast<float>(amplitude * std::sin(2.0 * std::numbers::pi * frequency * double(f) / 48000.0 + 0.5));
    return samples;
}

bool playerRoutedToTap(TestGraph& graph)
{
    return TestGraph::waitFor([&] {
        return graph.linked("sorva_test_player", "sorva_system_tap") && graph.nodeID("speakers")
            && !graph.linked("sorva_test_player", "speakers");
    });
}

bool playerPlaysDirectly(TestGraph& graph)
{
    return TestGraph::waitFor(
        [&] { return graph.linked("sorva_test_player", "speakers") && !graph.nodeID("sorva_system_tap"); });
}

std::vector<float> playAndRecord(TestGraph& graph)
{
    EXPECT_TRUE(playOnce(graph, 24000));
    auto recording = graph.recorded();
    auto first = std::find_if(recording.begin(), recording.end(), [](float s) { return s != 0.0f; });
    return std::vector<float>(recording.begin() + (first - recording.begin()) / 2 * 2, recording.end());
}

std::optional<int64_t> TestGraph::impulseDelay()
{
    if (!playOnce(*this, 19200))
        return std::nullopt;
    // Each impulse's loudest recorded frame within the spacing after it
    // was played (the buffered path may spread it over two frames); a
    // quantum the loaded graph lost takes one impulse with it, not the
    // measure: the median of at least three.
    const auto recording = recorded();
    std::vector<std::pair<float, int64_t>> loudest(impulseCount, { 0.1f, 0 });
    for (size_t frame = 0; frame < recording.size() / 2; ++frame) {
        const auto arrived = data->recorder.positionOf(frame);
        for (size_t i = 0; arrived && i < impulseCount; ++i) {
            const auto played = data->player.positionOf(impulseFrame(i));
            if (played && *played <= *arrived && *arrived - *played < impulseSpacing
                && std::fabs(recording[frame * 2]) > loudest[i].first)
                loudest[i] = { std::fabs(recording[frame * 2]), int64_t(*arrived - *played) };
        }
    }
    std::vector<int64_t> delays;
    for (auto [level, delay] : loudest)
        if (level > 0.1f)
            delays.push_back(delay);
    if (delays.size() < 3)
        return std::nullopt;
    std::sort(delays.begin(), delays.end());
    return delays[delays.size() / 2];
}

double levelDB(const std::vector<float>& received, const std::vector<float>& signal)
{
    const double reference = rms(signal, 12000, 44000);
    std::vector<double> windows;
    for (size_t at = 12000; at + 2400 <= 44000; at += 2400)
        windows.push_back(20.0 * std::log10(rms(received, at, at + 2400) / reference));
    std::nth_element(windows.begin(), windows.begin() + long(windows.size() / 2), windows.end());
    return windows[windows.size() / 2];
}

std::vector<float> impulseSignal()
{
    std::vector<float> impulses(impulseCount * impulseSpacing * 2, 0.0f);
    for (size_t i = 0; i < impulseCount; ++i)
        impulses[impulseFrame(i) * 2] = impulses[impulseFrame(i) * 2 + 1] = 0.5f;
    return impulses;
}

} // namespace sorva::testing
