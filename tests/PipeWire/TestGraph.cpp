#include "PipeWire/TestGraph.h"

#include <pipewire/extensions/metadata.h>
#include <pipewire/pipewire.h>
#include <spa/param/audio/format-utils.h>
#include <spa/pod/builder.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstring>
#include <functional>
#include <numbers>
#include <map>
#include <mutex>
#include <thread>

namespace sorva::testing {

namespace {

std::once_flag initOnce;

struct Stream {
    pw_stream* stream = nullptr;
    spa_hook listener {};
    spa_io_position* position = nullptr;
    std::function<void()> cycle;
};

struct Global {
    std::string type;
    std::map<std::string, std::string> props;
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

    // Player (data thread fields: signal, cursor, armed, startPosition).
    Stream player;
    std::vector<float> signal;
    size_t cursor = 0;
    std::atomic<bool> armed { false };
    std::atomic<bool> finished { false };
    // (graph position, first signal frame) of each cycle that carried signal.
    std::vector<std::pair<uint64_t, size_t>> playerCycles;
    std::atomic<size_t> playerCycleCount { 0 };

    // Recorder.
    Stream recorder;
    std::string recorderTarget;
    std::vector<float> recording;
    std::atomic<size_t> recordedFrames { 0 };
    std::atomic<uint32_t> cycleFrames { 0 };
    std::atomic<uint64_t> totalFrames { 0 };
    // Cycles the recorder saw the graph clock skip: it was not run for them.
    std::atomic<uint64_t> skippedCycles { 0 };
    uint64_t nextPosition = 0;
    // (graph position, first recorded frame) of each recorded cycle.
    std::vector<std::pair<uint64_t, size_t>> cycles;
    std::atomic<size_t> cycleCount { 0 };

    // Every event the daemon sent before now has arrived (loop lock held).
    void roundtrip()
    {
        int seq = pw_core_sync(core, PW_ID_CORE, 0);
        timespec deadline {};
        pw_thread_loop_get_time(loop, &deadline, 30 * SPA_NSEC_PER_SEC);
        while (doneSeq - seq < 0) {
            if (pw_thread_loop_timed_wait_full(loop, &deadline) != 0)
                return;
        }
    }

    struct Lock {
        explicit Lock(pw_thread_loop* l)
            : loop(l)
        {
            pw_thread_loop_lock(loop);
        }
        ~Lock() { pw_thread_loop_unlock(loop); }
        pw_thread_loop* loop;
    };

    // F32 stereo at 48 kHz (loop lock held).
    void connect(Stream& s, const char* name, pw_properties* props, pw_direction direction)
    {
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
        spa_audio_info_raw info {};
        info.format = SPA_AUDIO_FORMAT_F32;
        info.channels = 2;
        info.rate = 48000;
        info.position[0] = SPA_AUDIO_CHANNEL_FL;
        info.position[1] = SPA_AUDIO_CHANNEL_FR;
        const spa_pod* params[1] = { spa_format_audio_raw_build(&builder, SPA_PARAM_EnumFormat, &info) };
        pw_stream_connect(s.stream, direction, PW_ID_ANY,
                          static_cast<pw_stream_flags>(PW_STREAM_FLAG_AUTOCONNECT | PW_STREAM_FLAG_MAP_BUFFERS
                                                       | PW_STREAM_FLAG_RT_PROCESS),
                          params, 1);
    }

    void disconnect(Stream& s)
    {
        Lock lock(loop);
        if (s.stream) {
            spa_hook_remove(&s.listener);
            pw_stream_destroy(s.stream);
            s.stream = nullptr;
            s.position = nullptr;
        }
    }

    void playerCycle()
    {
        pw_buffer* b = pw_stream_dequeue_buffer(player.stream);
        if (!b)
            return;
        spa_data& d = b->buffer->datas[0];
        auto* out = static_cast<float*>(d.data);
        uint32_t frames = std::min<uint32_t>(b->requested ? static_cast<uint32_t>(b->requested) : 1024, d.maxsize / 8);
        std::memset(out, 0, frames * 8);
        if (armed.load() && !finished.load()) {
            const size_t cycle = playerCycleCount.load();
            if (player.position && cycle < playerCycles.size()) {
                playerCycles[cycle] = { player.position->clock.position, cursor };
                playerCycleCount.store(cycle + 1);
            }
            size_t left = signal.size() / 2 - cursor;
            size_t n = std::min<size_t>(frames, left);
            std::memcpy(out, signal.data() + cursor * 2, n * 8);
            cursor += n;
            if (cursor * 2 >= signal.size())
                finished.store(true);
        }
        d.chunk->offset = 0;
        d.chunk->size = frames * 8;
        d.chunk->stride = 8;
        pw_stream_queue_buffer(player.stream, b);
    }

    void recorderCycle()
    {
        pw_buffer* b = pw_stream_dequeue_buffer(recorder.stream);
        if (!b)
            return;
        spa_data& d = b->buffer->datas[0];
        if (d.data && recorder.position) {
            uint32_t offset = std::min(d.chunk->offset, d.maxsize);
            uint32_t size = std::min(d.chunk->size, d.maxsize - offset);
            uint32_t frames = size / 8;
            uint64_t position = recorder.position->clock.position;
            if (totalFrames.load() > 0 && position > nextPosition && frames > 0)
                skippedCycles.fetch_add((position - nextPosition + frames - 1) / frames);
            nextPosition = position + frames;
            cycleFrames.store(frames);
            totalFrames.fetch_add(frames);
            size_t have = recordedFrames.load();
            size_t n = std::min<size_t>(frames, recording.size() / 2 - have);
            size_t cycle = cycleCount.load();
            if (n > 0 && cycle < cycles.size()) {
                cycles[cycle] = { position, have };
                cycleCount.store(cycle + 1);
            }
            std::memcpy(recording.data() + have * 2, SPA_PTROFF(d.data, offset, float), n * 8);
            recordedFrames.store(have + n);
        }
        pw_stream_queue_buffer(recorder.stream, b);
    }
};

TestGraph::TestGraph()
    : data(std::make_unique<Data>())
{
    std::call_once(initOnce, [] { pw_init(nullptr, nullptr); });
    data->loop = pw_thread_loop_new("test-graph", nullptr);
    data->context = pw_context_new(pw_thread_loop_get_loop(data->loop), nullptr, 0);
    pw_thread_loop_start(data->loop);
    Data::Lock lock(data->loop);
    data->core = pw_context_connect(data->context, nullptr, 0);
    if (!data->core)
        return;
    data->registry = pw_core_get_registry(data->core, PW_VERSION_REGISTRY, 0);
    static const pw_registry_events events = [] {
        pw_registry_events e {};
        e.version = PW_VERSION_REGISTRY_EVENTS;
        e.global = [](void* p, uint32_t id, uint32_t, const char* type, uint32_t, const spa_dict* props) {
            auto* d = static_cast<Data*>(p);
            Global g;
            g.type = type;
            for (uint32_t i = 0; props && i < props->n_items; ++i)
                g.props[props->items[i].key] = props->items[i].value ? props->items[i].value : "";
            if (g.type == PW_TYPE_INTERFACE_Metadata && g.props["metadata.name"] == "default" && !d->defaultMetadata) {
                d->defaultMetadata = static_cast<pw_metadata*>(
                    pw_registry_bind(d->registry, id, type, PW_VERSION_METADATA, 0));
                static const pw_metadata_events metadataEvents = [] {
                    pw_metadata_events m {};
                    m.version = PW_VERSION_METADATA_EVENTS;
                    m.property = [](void* q, uint32_t subject, const char* key, const char*, const char* value) {
                        auto* dd = static_cast<Data*>(q);
                        if (!key) {
                            std::erase_if(dd->metadataValues, [&](auto& kv) { return kv.first.first == subject; });
                        } else if (!value) {
                            dd->metadataValues.erase({ subject, key });
                        } else {
                            dd->metadataValues[{ subject, key }] = value;
                        }
                        return 0;
                    };
                    return m;
                }();
                pw_metadata_add_listener(d->defaultMetadata, &d->metadataListener, &metadataEvents, d);
            }
            d->globals[id] = std::move(g);
        };
        e.global_remove = [](void* p, uint32_t id) { static_cast<Data*>(p)->globals.erase(id); };
        return e;
    }();
    pw_registry_add_listener(data->registry, &data->registryListener, &events, data.get());
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

TestGraph::~TestGraph()
{
    stopPlayer();
    stopRecorder();
    {
        Data::Lock lock(data->loop);
        if (data->defaultMetadata) {
            spa_hook_remove(&data->metadataListener);
            pw_proxy_destroy(reinterpret_cast<pw_proxy*>(data->defaultMetadata));
        }
        if (data->core)
            spa_hook_remove(&data->coreListener);
        if (data->registry) {
            spa_hook_remove(&data->registryListener);
            pw_proxy_destroy(reinterpret_cast<pw_proxy*>(data->registry));
        }
    }
    pw_thread_loop_stop(data->loop);
    if (data->core)
        pw_core_disconnect(data->core);
    pw_context_destroy(data->context);
    pw_thread_loop_destroy(data->loop);
}

bool TestGraph::connected() const { return data->core != nullptr; }

void TestGraph::startPlayer(std::vector<float> signal)
{
    Data::Lock lock(data->loop);
    data->playerCycles.assign(signal.size() / 2 / 16 + 1, { 0, 0 });
    data->playerCycleCount = 0;
    data->signal = std::move(signal);
    data->cursor = 0;
    data->armed = false;
    data->finished = false;
    data->player.cycle = [d = data.get()] { d->playerCycle(); };
    data->connect(data->player, "test player",
                  pw_properties_new(PW_KEY_MEDIA_TYPE, "Audio", PW_KEY_MEDIA_CATEGORY, "Playback", PW_KEY_MEDIA_ROLE,
                                    "Music", PW_KEY_NODE_NAME, "sorva_test_player", PW_KEY_APP_NAME,
                                    "sorva-test-player", nullptr),
                  PW_DIRECTION_OUTPUT);
}

void TestGraph::armPlayer() { data->armed = true; }
bool TestGraph::playerFinished() { return data->finished.load(); }

std::optional<uint64_t> TestGraph::playedFramePosition(size_t frame)
{
    for (size_t i = data->playerCycleCount.load(); i-- > 0;) {
        auto [position, first] = data->playerCycles[i];
        if (first <= frame)
            return position + (frame - first);
    }
    return std::nullopt;
}

void TestGraph::stopPlayer() { data->disconnect(data->player); }

void TestGraph::startRecorder(const std::string& speaker, size_t capacityFrames)
{
    Data::Lock lock(data->loop);
    data->recorderTarget = speaker;
    data->recording.assign(capacityFrames * 2, 0.0f);
    data->cycles.assign(capacityFrames / 16 + 1, { 0, 0 });
    data->cycleCount = 0;
    data->recordedFrames = 0;
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
    size_t frames = data->recordedFrames.load();
    return std::vector<float>(data->recording.begin(), data->recording.begin() + static_cast<long>(frames * 2));
}

bool TestGraph::freshRecording()
{
    const size_t capacity = data->recording.size() / 2;
    stopRecorder();
    startRecorder(data->recorderTarget, capacity);
    return waitFor([&] { return graphFrames() > 0; });
}

std::optional<uint64_t> TestGraph::recordedFramePosition(size_t frame)
{
    size_t count = data->cycleCount.load();
    for (size_t i = count; i-- > 0;) {
        auto [position, first] = data->cycles[i];
        if (first <= frame)
            return position + (frame - first);
    }
    return std::nullopt;
}
uint32_t TestGraph::recorderCycleFrames() { return data->cycleFrames.load(); }
uint64_t TestGraph::graphFrames() { return data->totalFrames.load(); }
uint64_t TestGraph::skippedCycles() { return data->skippedCycles.load(); }

bool TestGraph::waitGraphFrames(uint64_t frames)
{
    // The graph runs at 48 kHz; a loaded machine gets three times as long.
    const uint64_t until = graphFrames() + frames;
    return waitFor([&] { return graphFrames() >= until; },
                   eventTimeout + std::chrono::milliseconds(frames * 3000 / 48000));
}

void TestGraph::stopRecorder() { data->disconnect(data->recorder); }

std::optional<uint32_t> TestGraph::nodeID(const std::string& nodeName)
{
    Data::Lock lock(data->loop);
    for (auto& [id, g] : data->globals) {
        if (g.type == PW_TYPE_INTERFACE_Node && g.props[PW_KEY_NODE_NAME] == nodeName)
            return id;
    }
    return std::nullopt;
}

std::optional<uint64_t> TestGraph::nodeSerial(const std::string& nodeName)
{
    auto id = nodeID(nodeName);
    Data::Lock lock(data->loop);
    auto found = id ? data->globals.find(*id) : data->globals.end();
    if (found == data->globals.end())
        return std::nullopt;
    return std::stoull(found->second.props[PW_KEY_OBJECT_SERIAL]);
}

bool TestGraph::linked(uint32_t outputNode, uint32_t inputNode)
{
    Data::Lock lock(data->loop);
    for (auto& [id, g] : data->globals) {
        if (g.type == PW_TYPE_INTERFACE_Link && g.props[PW_KEY_LINK_OUTPUT_NODE] == std::to_string(outputNode)
            && g.props[PW_KEY_LINK_INPUT_NODE] == std::to_string(inputNode))
            return true;
    }
    return false;
}

std::optional<std::string> TestGraph::metadata(uint32_t subject, const std::string& key)
{
    Data::Lock lock(data->loop);
    auto found = data->metadataValues.find({ subject, key });
    if (found == data->metadataValues.end())
        return std::nullopt;
    return found->second;
}

void TestGraph::setMetadata(uint32_t subject, const std::string& key, const std::string& type, const std::string& value)
{
    Data::Lock lock(data->loop);
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
    auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= deadline)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
}

bool EngineHost::started()
{
    const auto line = process.readLine(TestGraph::eventTimeout);
    EXPECT_EQ(line, std::optional<std::string>("READY"));
    return line == std::optional<std::string>("READY");
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

double rms(const std::vector<float>& samples, size_t fromFrame, size_t toFrame)
{
    double sum = 0.0;
    for (size_t i = fromFrame * 2; i < toFrame * 2 && i < samples.size(); ++i)
        sum += double(samples[i]) * samples[i];
    return std::sqrt(sum / double((toFrame - fromFrame) * 2));
}

bool linked(TestGraph& graph, const std::string& from, const std::string& to)
{
    auto source = graph.nodeID(from), target = graph.nodeID(to);
    return source && target && graph.linked(*source, *target);
}

bool playerRoutedToTap(TestGraph& graph)
{
    return TestGraph::waitFor([&] {
        return linked(graph, "sorva_test_player", "sorva_system_tap") && graph.nodeID("speakers")
            && !linked(graph, "sorva_test_player", "speakers");
    });
}

bool playerPlaysDirectly(TestGraph& graph)
{
    return TestGraph::waitFor(
        [&] { return linked(graph, "sorva_test_player", "speakers") && !graph.nodeID("sorva_system_tap"); });
}

std::vector<float> playAndRecord(TestGraph& graph)
{
    EXPECT_TRUE(graph.freshRecording());
    graph.armPlayer();
    EXPECT_TRUE(TestGraph::waitFor([&] { return graph.playerFinished(); }));
    EXPECT_TRUE(graph.waitGraphFrames(24000));
    auto recording = graph.recorded();
    auto first = std::find_if(recording.begin(), recording.end(), [](float s) { return s != 0.0f; });
    return std::vector<float>(recording.begin() + (first - recording.begin()) / 2 * 2, recording.end());
}

std::optional<int64_t> impulseDelay(TestGraph& graph)
{
    if (!graph.freshRecording())
        return std::nullopt;
    graph.armPlayer();
    if (!TestGraph::waitFor([&] { return graph.playerFinished(); }) || !graph.waitGraphFrames(19200))
        return std::nullopt;
    // Each impulse's loudest recorded frame within the spacing after it
    // was played (the buffered path may spread it over two frames); a
    // quantum the loaded graph lost takes one impulse with it, not the
    // measure: the median of at least three.
    const auto recording = graph.recorded();
    std::vector<std::pair<float, int64_t>> loudest(impulseCount, { 0.1f, 0 });
    for (size_t frame = 0; frame < recording.size() / 2; ++frame) {
        const auto arrived = graph.recordedFramePosition(frame);
        for (size_t i = 0; arrived && i < impulseCount; ++i) {
            const auto played = graph.playedFramePosition(impulseFrame(i));
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

CycleMatch matchByQuanta(const std::vector<float>& received, const std::vector<float>& signal, size_t quantumFrames,
                         const std::function<std::vector<float>(std::vector<float>)>& chain, int maxLost)
{
    const long q = long(quantumFrames) * 2; // samples in a quantum
    std::vector<float> input = signal;
    std::vector<float> expected = chain(input);
    long shift = 0; // expected quanta the recording is ahead (+) or behind (-)
    CycleMatch result;
    // Received quantum k against expected quantum k + s.
    auto matches = [&](const std::vector<float>& wanted, long k, long s) {
        const long from = (k + s) * q, at = k * q;
        if (from < 0 || from >= long(wanted.size()))
            return from >= long(wanted.size());
        const long n = std::min(q, long(wanted.size()) - from);
        return at + n <= long(received.size())
            && std::equal(wanted.begin() + from, wanted.begin() + from + n, received.begin() + at);
    };
    auto silent = [&](long k) {
        const long at = k * q, end = std::min(at + q, long(received.size()));
        return at < end && std::all_of(received.begin() + at, received.begin() + end, [](float x) { return x == 0.0f; });
    };
    // Where received quantum k's first frames appear in what was expected.
    auto describe = [&](long k) {
        if (silent(k))
            return std::string("silent");
        const long at = k * q;
        const long n = std::min<long>(16, long(received.size()) - at);
        auto found = std::search(expected.begin(), expected.end(), received.begin() + at, received.begin() + at + n);
        return found == expected.end() ? std::string("found nowhere in the expected output")
                                       : "expected at frame " + std::to_string((found - expected.begin()) / 2);
    };
    for (long k = 0; (k + shift) * q < long(expected.size()); ++k) {
        if (k * q >= long(received.size())) {
            result.mismatch = "the recording ends at quantum " + std::to_string(k);
            return result;
        }
        if (matches(expected, k, shift))
            continue;
        const std::string where = "quantum " + std::to_string(k) + " (frame " + std::to_string(k * q / 2) + ", "
            + describe(k) + ")";
        if (result.lostQuanta == maxLost) {
            result.mismatch = where + " differs after " + std::to_string(maxLost) + " lost quanta";
            return result;
        }
        // The ways a loaded graph loses a quantum, each kept only if this
        // quantum (and the next, unless it is lost too) then matches: the
        // chain got a quantum of silence instead of the signal (which then
        // comes a quantum later), or never got a quantum of it; the recorder
        // missed a quantum, or the speakers got a quantum late; the speakers
        // got silence for one quantum.
        auto holds = [&](const std::vector<float>& wanted, long s) {
            return matches(wanted, k, s) && (silent(k + 1) || matches(wanted, k + 1, s));
        };
        const long j = (k + shift) * q;
        std::vector<float> silenced = input;
        silenced.insert(silenced.begin() + j, size_t(q), 0.0f);
        std::vector<float> skipped = input;
        skipped.erase(skipped.begin() + j, skipped.begin() + std::min(j + q, long(skipped.size())));
        bool found = false;
        for (auto* candidate : { &silenced, &skipped }) {
            auto output = chain(*candidate);
            if (holds(output, shift)) {
                input = *candidate, expected = std::move(output), found = true;
                break;
            }
        }
        for (long s : { shift + 1, shift - 1 }) {
            if (!found && holds(expected, s))
                shift = s, found = true;
        }
        found = found || silent(k);
        if (!found) {
            result.mismatch = where + " is not what the chain makes of the signal";
            return result;
        }
        ++result.lostQuanta;
    }
    result.matches = true;
    return result;
}

size_t impulseFrame(size_t i) { return 100 + i * impulseSpacing; }

std::vector<float> impulseSignal()
{
    std::vector<float> impulses(impulseCount * impulseSpacing * 2, 0.0f);
    for (size_t i = 0; i < impulseCount; ++i)
        impulses[impulseFrame(i) * 2] = impulses[impulseFrame(i) * 2 + 1] = 0.5f;
    return impulses;
}

} // namespace sorva::testing
