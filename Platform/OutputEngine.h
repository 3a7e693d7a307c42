// A pull-model audio output, as the buffered engine plays through it: the
// engine calls a source node's render procedure on its real-time render thread
// whenever the output needs samples, with one buffer per channel
// (non-interleaved 32-bit float), and plays what it wrote on the system's
// default output device. attach() and connect() wire a source node to the
// output's mixer; start() and stop() run and halt the rendering.
//
// Implementations: Platform/PipeWire/PipeWireOutputEngine (a playback stream
// to the default sink) and Platform/Simulated/SimulatedOutputEngine (rendered
// cycle by cycle by a test).
//
// Threads: every operation on the main thread. The render procedure runs on
// the engine's render thread, one call at a time, between start() and the
// return of stop(). Configuration observers run on a thread of the engine
// that is neither the render thread nor (necessarily) the main thread; when
// removeConfigurationObserver returns, that observer is not running and is
// never called again.
#pragma once

#include "Platform/AudioTypes.h"

#include <cmath>
#include <cstdint>
#include <exception>
#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace sorva {

// A render procedure: fill frameCount frames of every buffer of output
// (planar: buffer c holds channel c, mDataByteSize = 4 x frameCount). Set
// *isSilence to tell the engine the block is all zeros. Returns a status; 0 =
// the block is valid. Called on the render thread: it must not block,
// allocate, log or throw. A function pointer and a context, so that nothing
// is built per cycle.
using OutputRenderProc = OSStatus (*)(void* context, bool* isSilence, const AudioTimeStamp* time,
                                      uint32_t frameCount, AudioBufferList* output) noexcept;

// The sample format a source node delivers: 32-bit float, non-interleaved.
struct OutputFormat {
    double sampleRate = 0; // Hz
    uint32_t channels = 0;

    // A non-interleaved float format, or nothing if no output could play it
    // (a rate that is not a positive finite number, no channels).
    static std::optional<OutputFormat> planarFloat(double sampleRate, uint32_t channels)
    {
        if (!(sampleRate > 0) || !std::isfinite(sampleRate) || channels == 0)
            return std::nullopt;
        return OutputFormat { sampleRate, channels };
    }
    bool operator==(const OutputFormat&) const = default;
};

// A source of samples for the output: a format and the procedure that renders
// it. Created by the buffered engine, attached and connected to one
// OutputEngine, which calls render() from its render thread.
class OutputSourceNode {
public:
    OutputSourceNode(const OutputFormat& format, OutputRenderProc proc, void* context)
        : nodeFormat(format)
        , proc(proc)
        , context(context)
    {
    }
    const OutputFormat& format() const { return nodeFormat; }
    OSStatus render(bool* isSilence, const AudioTimeStamp* time, uint32_t frameCount,
                    AudioBufferList* output) const noexcept
    {
        return proc(context, isSilence, time, frameCount, output);
    }

private:
    OutputFormat nodeFormat;
    OutputRenderProc proc;
    void* context;
};

// Why an output engine could not start: its own code and description,
// handed on unchanged by the engines that start it.
class OutputEngineError : public std::exception {
public:
    OutputEngineError(int32_t code, std::string description)
        : errorCode(code)
        , description(std::move(description))
    {
    }
    int32_t code() const { return errorCode; }
    const std::string& errorDescription() const { return description; }
    const char* what() const noexcept override { return description.c_str(); }

private:
    int32_t errorCode;
    std::string description;
};

class OutputEngine {
public:
    using ConfigurationObserver = std::function<void()>;

    virtual ~OutputEngine() = default;

    // Makes the node part of the engine. The engine keeps it while attached.
    virtual void attach(std::shared_ptr<OutputSourceNode> node) = 0;
    // Routes an attached node into the engine's main mixer, which plays on the
    // default output device, in the given format.
    virtual void connect(const std::shared_ptr<OutputSourceNode>& node, const OutputFormat& format) = 0;
    // Starts rendering. Throws OutputEngineError when the output cannot run.
    virtual void start() = 0;
    // Stops rendering; when it returns, no render procedure runs any more.
    // Safe when not running.
    virtual void stop() = 0;
    virtual bool isRunning() const = 0;

    // Registers an observer of configuration changes: the output moved to
    // another device or its format changed underneath. Returns a token for
    // removal (never 0).
    virtual uint64_t addConfigurationObserver(ConfigurationObserver observer) = 0;
    // Removes an observer; unknown tokens are ignored.
    virtual void removeConfigurationObserver(uint64_t token) = 0;
};

} // namespace sorva
