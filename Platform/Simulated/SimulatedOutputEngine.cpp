#include "Platform/Simulated/SimulatedOutputEngine.h"

namespace sorva {

void SimulatedOutputEngine::attach(std::shared_ptr<OutputSourceNode> node)
{
    attached = std::move(node);
}

void SimulatedOutputEngine::connect(const std::shared_ptr<OutputSourceNode>& node, const OutputFormat& connectFormat)
{
    connected = node;
    format = connectFormat;
}

void SimulatedOutputEngine::start()
{
    ++starts;
    if (nextStartFailure) {
        const OutputEngineError failure = *nextStartFailure;
        nextStartFailure.reset();
        throw failure;
    }
    running = true;
}

void SimulatedOutputEngine::stop()
{
    ++stops;
    running = false;
}

uint64_t SimulatedOutputEngine::addConfigurationObserver(ConfigurationObserver observer)
{
    std::lock_guard guard(observersLock);
    const uint64_t token = nextToken++;
    observers.emplace(token, std::move(observer));
    return token;
}

void SimulatedOutputEngine::removeConfigurationObserver(uint64_t token)
{
    std::lock_guard guard(observersLock);
    observers.erase(token);
}

size_t SimulatedOutputEngine::observerCount() const
{
    std::lock_guard guard(observersLock);
    return observers.size();
}

void SimulatedOutputEngine::failNextStart(int32_t code, std::string description)
{
    nextStartFailure.emplace(code, std::move(description));
}

OSStatus SimulatedOutputEngine::render(uint32_t frames)
{
    // Poison the buffers so that a render procedure that leaves them alone is
    // visible.
    left.assign(frames, -7.0f);
    right.assign(frames, -7.0f);
    AudioBuffer buffers[2] = {
        { 1, frames * 4u, left.data() },
        { 1, frames * 4u, right.data() },
    };
    AudioBufferList list { 2, buffers };
    return render(frames, list);
}

OSStatus SimulatedOutputEngine::render(uint32_t frames, AudioBufferList& output)
{
    if (!running || !connected)
        return kAudioHardwareNotRunningError;
    silence = false;
    const AudioTimeStamp now {};
    return connected->render(&silence, &now, frames, &output);
}

void SimulatedOutputEngine::changeConfiguration()
{
    std::lock_guard guard(observersLock);
    for (auto& [token, observer] : observers)
        observer();
}

} // namespace sorva
